#include "entitysegment.h"

#include "processtoken.h"
#include "quietstderr.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

namespace tolvin
{

namespace
{

constexpr int kMode = 0666; // of the kernel's segments
constexpr int kModeBits = 0777;

std::string nameOf(std::int32_t key)
{
    return "shared-memory segment " + std::to_string(key);
}

std::optional<shmid_ds> statusOf(int id)
{
    shmid_ds status;
    return shmctl(id, IPC_STAT, &status) == 0 ? std::optional(status) : std::nullopt;
}

// A creator of another process namespace has the number 0 here: it may well be there. The number of one that is gone may be another's by
// now, which its token tells.
bool isCreatorAlive(const shmid_ds &status, std::uint32_t maker)
{
    const pid_t creator = status.shm_cpid;
    return creator == 0 || (processOf(maker) == creator ? isTokenAlive(maker) : isAlive(creator));
}

std::string textOf(int error)
{
    return std::generic_category().message(error);
}

// Of making a segment of that size and attaching to it, tried with one that nobody sees. 0 when it can be done.
int errorOfMaking(std::size_t size)
{
    const int id = shmget(IPC_PRIVATE, size, 0600);
    void *const block = id < 0 ? nullptr : shmat(id, nullptr, 0);
    const int error = id < 0 || block == reinterpret_cast<void *>(-1) ? errno : 0;
    shmdt(block);
    shmctl(id, IPC_RMID, nullptr);
    return error;
}

// What making says when there are too many, or too large ones.
bool isLimit(int error)
{
    return error == ENOSPC || error == EINVAL;
}

// By index, as /proc/sysvipc/shm has them, or nothing. Those that may only be looked at by their owner are among them only in
// kernels that know SHM_STAT_ANY.
std::optional<SegmentInfo> statusAt(int index, shmid_ds &status)
{
    int id = -1;
#ifdef SHM_STAT_ANY
    id = shmctl(index, SHM_STAT_ANY, &status);
#endif
    if (id < 0)
    {
        id = shmctl(index, SHM_STAT, &status);
    }
    if (id < 0)
    {
        return std::nullopt;
    }
    SegmentInfo info;
    info.id = id;
    info.key = status.shm_perm.__key;
    info.size = status.shm_segsz;
    info.attached = status.shm_nattch;
    info.creator = status.shm_cpid;
    return info;
}

// Nobody has it, and who made it is gone.
bool isLeftBehind(const shmid_ds &status, std::uint32_t maker)
{
    return status.shm_nattch == 0 && !isCreatorAlive(status, maker);
}

// In the place of the one that is gone. Who is attached only to look at it (findSegments) is so for microseconds.
void removeIfLeftBehind(int id, std::uint32_t maker)
{
    constexpr int kTries = 4;
    std::optional<shmid_ds> status = statusOf(id);
    for (int i = 1; i < kTries && status.has_value() && status->shm_nattch > 0 && !isCreatorAlive(*status, maker); ++i)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        status = statusOf(id);
    }
    if (status.has_value() && isLeftBehind(*status, maker))
    {
        shmctl(id, IPC_RMID, nullptr);
    }
}

// Whether the variables are ours; then with what they tell.
bool lookInto(SegmentInfo &info, const shmid_ds &status)
{
    void *const block = shmat(info.id, nullptr, SHM_RDONLY);
    if (block == reinterpret_cast<void *>(-1))
    {
        return false;
    }
    const auto &vars = *static_cast<const EntityVars *>(block);
    const bool ours = isOurs(vars);
    if (ours)
    {
        std::uint32_t seen = 0;
        info.last = readNewReport(vars, seen);
        info.reports = reportsOf(vars);
        info.writer = processOf(writerOf(vars));
        info.isWriterAlive = isTokenAlive(writerOf(vars));
        info.maker = makerOf(vars);
        info.isCreatorAlive = isCreatorAlive(status, info.maker);
    }
    shmdt(block);
    return ours;
}

} // namespace

bool isSegmentThere(std::int32_t key)
{
    return shmget(key, 0, 0) >= 0 || errno == EACCES;
}

bool isReceived(const EntityDescription &entity)
{
    return entity.motion == VU_MOTION_NONE && entity.shmKey >= VU_SHM_FIRST_KEY && entity.shmSize >= sizeof(EntityVars);
}

std::string whyNoSegment(std::int32_t key, std::size_t size)
{
    const std::string name = nameOf(key);
    const int id = shmget(key, 0, 0);
    if (const int found = errno; id < 0)
    {
        const int error = found == ENOENT ? errorOfMaking(size) : found;
        return name + " cannot be made with " + std::to_string(size) + " bytes: " +
               (error == 0       ? "it was there, but is being removed"
                : isLimit(error) ? "the system's limits (ipcs -lm) are reached"
                                 : textOf(error));
    }
    const std::optional<shmid_ds> status = statusOf(id);
    if (status.has_value() && status->shm_segsz < size)
    {
        return name + " has " + std::to_string(status->shm_segsz) + " bytes, expected at least " + std::to_string(size);
    }
    return name + " cannot be attached to: it is gone, or not for this user to read and write";
}

std::string foreignSegment(std::int32_t key)
{
    return nameOf(key) + " holds something else than the state of an entity";
}

EntityVars *varsOf(const vuEntity &entity)
{
    const bool has = entity.shmId >= 0 && entity.vars != nullptr && entity.definition != nullptr &&
                     entity.definition->layout != nullptr && entity.definition->layout->size >= sizeof(EntityVars);
    return has ? static_cast<EntityVars *>(entity.vars) : nullptr;
}

bool attachSegment(vuEntity &entity)
{
    constexpr int kTries = 3;
    const QuietStandardError quiet; // whyNoSegment tells more
    for (int i = 0; i < kTries; ++i)
    {
        entityAttachToSharedMemory(&entity);
        if (varsOf(entity) != nullptr)
        {
            return true;
        }
        releaseSegment(entity);
        if (isSegmentThere(entity.shmKey))
        {
            return false;
        }
    }
    return false;
}

bool isReplaced(const vuEntity &entity)
{
    const EntityVars *const vars = varsOf(entity);
    return entity.shmId >= 0 && (shmget(entity.shmKey, 0, 0) != entity.shmId || (vars != nullptr && !isOurs(*vars)));
}

// A segment of other programs is new when it is what this one would have made, and nothing was put into it. Of two that make one
// at the same time, the kernel entity of each tells that it did.
bool prepareSegment(vuEntity &entity)
{
    EntityVars &vars = *varsOf(entity);
    const std::optional<shmid_ds> status = statusOf(entity.shmId);
    if (status.has_value() && status->shm_cpid != getpid())
    {
        entity.shmCreated = 0;
    }
    const std::size_t size = entity.definition->layout->size;
    const auto *const bytes = static_cast<const unsigned char *>(entity.vars);
    const bool isNew =
        entity.shmCreated != 0 ||
        (status.has_value() && (status->shm_perm.mode & kModeBits) == kMode && status->shm_segsz == size &&
         std::all_of(bytes, bytes + size, [](auto byte) { return byte == 0; }));
    const bool isGood = (isNew || isOurs(vars)) && prepareVars(vars, entity.shmCreated != 0);
    entity.shmCreated = isGood ? entity.shmCreated : 0; // it is not to be removed
    return isGood;
}

// Detached first: of several that end at once, the last one sees that nobody is left.
void releaseSegment(vuEntity &entity)
{
    const EntityVars *const vars = varsOf(entity);
    const int id = vars != nullptr && isOurs(*vars) ? entity.shmId : -1;
    const std::uint32_t maker = id >= 0 ? makerOf(*vars) : 0;
    entityReleaseSharedMem(&entity);
    if (id >= 0)
    {
        removeIfLeftBehind(id, maker);
    }
}

// Of an entity only what the attaching looks at: it is never in a scene.
WrittenSegment::WrittenSegment(std::int32_t key, std::uint32_t size)
{
    layout_.size = size;
    definition_.layout = &layout_;
    entity_.definition = &definition_;
    entity_.shmKey = key;
    entity_.shmId = -1;
    if (size < sizeof(EntityVars))
    {
        throw std::runtime_error(nameOf(key) + ": " + std::to_string(size) + " bytes are too few, expected at least " +
                                 std::to_string(sizeof(EntityVars)));
    }
    if (!attachSegment(entity_))
    {
        throw std::runtime_error(whyNoSegment(key, size));
    }
    vars_ = varsOf(entity_);
    const bool ours = prepareSegment(entity_);
    const int other = ours ? claimWriting(*vars_) : 0;
    if (!ours || other != 0)
    {
        entity_.shmCreated = 0; // what others have written stays, whatever has become of them
        entityReleaseSharedMem(&entity_);
        throw std::runtime_error(ours ? nameOf(key) + " is written by process " + std::to_string(other) + " already"
                                      : foreignSegment(key));
    }
}

WrittenSegment::~WrittenSegment()
{
    leaveWriting(*vars_);
    releaseSegment(entity_);
}

pid_t WrittenSegment::otherWriter() const
{
    const std::uint32_t writer = writerOf(*vars_);
    return writer == ownProcessToken() ? 0 : processOf(writer);
}

bool WrittenSegment::claimIfFree()
{
    return writerOf(*vars_) == 0 && claimWriting(*vars_) == 0;
}

std::uint32_t WrittenSegment::size() const
{
    const std::optional<shmid_ds> status = statusOf(entity_.shmId);
    return status.has_value() ? static_cast<std::uint32_t>(status->shm_segsz) : layout_.size;
}

std::vector<SegmentInfo> findSegments()
{
    std::vector<SegmentInfo> segments;
    shm_info all;
    const int last = shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds *>(&all));
    for (int index = 0; index <= last; ++index)
    {
        shmid_ds status;
        std::optional<SegmentInfo> info = statusAt(index, status);
        if (info.has_value() && info->key >= VU_SHM_FIRST_KEY && info->size >= sizeof(EntityVars) &&
            (status.shm_perm.mode & kModeBits) == kMode && lookInto(*info, status))
        {
            segments.push_back(*info);
        }
    }
    std::ranges::sort(segments, {}, &SegmentInfo::key);
    return segments;
}

bool isAbandoned(const SegmentInfo &segment)
{
    return segment.attached == 0 && !segment.isCreatorAlive;
}

std::error_code removeAbandoned(const SegmentInfo &segment)
{
    const std::optional<shmid_ds> status = statusOf(segment.id);
    if (status.has_value() && !isLeftBehind(*status, segment.maker))
    {
        return std::make_error_code(std::errc::device_or_resource_busy);
    }
    const bool isGone = shmctl(segment.id, IPC_RMID, nullptr) == 0 || errno == EINVAL || errno == EIDRM;
    return isGone ? std::error_code() : std::error_code(errno, std::generic_category());
}

} // namespace tolvin
