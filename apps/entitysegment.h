// System V segments with the variables of entities: who has them, and who removes them.
//
// The program that made a segment removes it at its end, as the kernel has it (kernelentity.h). Where it was killed, the last of
// the others does. Whoever is still attached to one that was removed finds that its key leads elsewhere, and attaches anew.
#pragma once

#include "description.h"
#include "entityvars.h"

#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <sys/types.h>

#include <tolvin/kernel/kernelentity.h>

namespace tolvin
{

// Whether there is one of that key, be it for this user or not.
bool isSegmentThere(std::int32_t key);

// Whether an entity's reports come by its segment: it has no motion of its own, and a segment with room for them.
bool isReceived(const EntityDescription &entity);

// entityAttachToSharedMemory, without messages, and once more when the segment is removed meanwhile. False when there is no segment with
// room for the variables; the entity then has none.
bool attachSegment(vuEntity &entity);

// Why there is no segment of that key and size for this program, as far as can be told afterwards.
std::string whyNoSegment(std::int32_t key, std::size_t size);

// That there is one, whose contents are not ours.
std::string foreignSegment(std::int32_t key);

// The variables of an entity that is attached to a segment with room for them; null otherwise.
EntityVars *varsOf(const vuEntity &entity);

// Makes the segment that an entity is attached to, with room for them, one with variables of ours, if it is new. False when it holds, or
// may hold, something else: then it is left alone, and not removed with the entity.
bool prepareSegment(vuEntity &entity);

// Whether the segment that the entity is attached to, if any, is not the one of its key any more, or its variables are not ours any more.
bool isReplaced(const vuEntity &entity);

// entityReleaseSharedMem, which also removes a segment with variables of ours (entityvars.h) that nobody else is attached to when
// the program that made it is gone.
void releaseSegment(vuEntity &entity);

// A segment with variables of ours, attached or made, without an entity in a scene. The writing of it is this process's.
class WrittenSegment
{
public:
    // Throws std::runtime_error that tells what is wrong with the key: no segment to be had, not ours, or written by another process.
    WrittenSegment(std::int32_t key, std::uint32_t size);
    ~WrittenSegment();

    WrittenSegment(const WrittenSegment &) = delete;
    WrittenSegment &operator=(const WrittenSegment &) = delete;

    EntityVars &vars() const
    {
        return *vars_;
    }

    // Whether it is another process's by now to write, 0 for none: that happens when it cannot see that this one is there.
    pid_t otherWriter() const;

    // Takes the writing if nobody has it; whether it is this process's then.
    bool claimIfFree();

    bool isReplaced() const
    {
        return tolvin::isReplaced(entity_);
    }

    // Bytes, which may be more than were asked for.
    std::uint32_t size() const;

    bool isCreated() const
    {
        return entity_.shmCreated != 0;
    }

private:
    vuVariablesLayout layout_{};
    vuDefinition definition_{};
    vuEntity entity_{};
    EntityVars *vars_ = nullptr;
};

struct SegmentInfo
{
    int id = -1;
    std::int32_t key = 0;
    std::size_t size = 0;
    std::size_t attached = 0; // programs
    pid_t creator = 0;        // 0 when it is one that cannot be seen from here
    std::uint32_t maker = 0;  // its token, 0 when it has not left one
    bool isCreatorAlive = false;
    pid_t writer = 0; // 0 for none
    bool isWriterAlive = false;
    std::uint32_t reports = 0;
    std::optional<EntityReport> last;
};

// All segments of this machine with variables of ours that this program may read, by key.
std::vector<SegmentInfo> findSegments();

// Nobody has the segment, and who made it is gone.
bool isAbandoned(const SegmentInfo &segment);

// Removes a segment that is still abandoned, unless another one has done so. An error tells why it is there still.
std::error_code removeAbandoned(const SegmentInfo &segment);

} // namespace tolvin
