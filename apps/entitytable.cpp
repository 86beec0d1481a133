#include "entitytable.h"

#include "entityid.h"

#include <tolvin/performer/pf.h>

#include <cstring>
#include <limits>
#include <random>
#include <string>

namespace tolvin
{

namespace
{

constexpr double kHeartbeats = 2.4;
constexpr double kShortHeartbeat = 5.0; // seconds
constexpr double kSurfaceHeartbeat = 55.0;
constexpr double kOtherHeartbeat = 60.0;

// Entity kinds and domains of the SISO enumerations.
enum
{
    kKindPlatform = 1,
    kKindMunition = 2,
    kDomainLand = 1,
    kDomainAir = 2,
    kDomainSurface = 3,
    kDomainSubsurface = 4,
    kDomainSpace = 5
};

std::uint64_t randomSeed()
{
    std::random_device device;
    return std::uint64_t{device()} << 32 | device();
}

} // namespace

double silenceLimit(const vuEntityState &report)
{
    const vuEntityType &type = report.entityType;
    if (report.protocolVersion < 7 || type.kind == kKindMunition)
    {
        return kHeartbeats * kShortHeartbeat;
    }
    if (type.kind != kKindPlatform)
    {
        return kHeartbeats * kOtherHeartbeat;
    }
    switch (type.domain)
    {
    case kDomainAir:
    case kDomainSpace:
        return kHeartbeats * kShortHeartbeat;
    case kDomainLand:
    case kDomainSurface:
    case kDomainSubsurface:
        return kHeartbeats * kSurfaceHeartbeat;
    default:
        return kHeartbeats * kOtherHeartbeat;
    }
}

// Steele, Lea, Flood: Fast splittable pseudorandom number generators (OOPSLA 2014), the finaliser.
std::size_t EntityTable::KeyHash::operator()(std::uint64_t key) const
{
    key += seed;
    key = (key ^ key >> 30) * 0xBF58476D1CE4E5B9u;
    key = (key ^ key >> 27) * 0x94D049BB133111EBu;
    return static_cast<std::size_t>(key ^ key >> 31);
}

EntityTable::EntityTable(vuRootNode &root, vuScene &scene, std::size_t maxEntities)
    : root_(root),
      scene_(scene),
      maxEntities_(maxEntities),
      entities_(0, KeyHash{randomSeed()}),
      senders_(0, KeyHash{randomSeed()}),
      left_(0, KeyHash{randomSeed()})
{
}

EntityTable::~EntityTable()
{
    for (auto &[key, remote] : entities_)
    {
        release(remote);
    }
}

RemoteEntity *EntityTable::find(const vuEntityId &id)
{
    const auto it = entities_.find(keyOf(id));
    return it == entities_.end() ? nullptr : &it->second;
}

double EntityTable::leftAt(const vuEntityId &id) const
{
    const auto it = left_.find(keyOf(id));
    return it == left_.end() ? -std::numeric_limits<double>::infinity() : it->second;
}

Sender *EntityTable::senderOf(const vuEntityId &id)
{
    const std::uint64_t key = std::uint64_t{id.site} << 16 | id.application;
    const auto it = senders_.find(key);
    if (it != senders_.end())
    {
        return &it->second;
    }
    if (senders_.size() >= kMaxSenders)
    {
        std::erase_if(senders_, [](const auto &entry) { return entry.second.entities == 0; });
    }
    if (senders_.size() >= kMaxSenders)
    {
        return nullptr;
    }
    Sender &sender = senders_[key];
    sender.site = id.site;
    sender.application = id.application;
    return &sender;
}

RemoteEntity *EntityTable::create(const vuEntityId &id)
{
    // Who lets entities come and go in a flood fills the memory of those that left as well.
    if (entities_.size() >= maxEntities_ || left_.size() >= 4 * maxEntities_)
    {
        return nullptr;
    }
    Sender *const sender = senderOf(id);
    if (sender == nullptr)
    {
        return nullptr;
    }
    void *const arena = pfGetSharedArena();
    auto *const report = static_cast<vuEntityState *>(pfMalloc(sizeof(vuEntityState), arena));
    auto *const entity = static_cast<vuEntity *>(pfMalloc(sizeof(vuEntity), arena));
    if (report == nullptr || entity == nullptr)
    {
        pfFree(report);
        pfFree(entity);
        return nullptr;
    }
    std::memset(report, 0, sizeof *report);
    std::memset(entity, 0, sizeof *entity);
    entityInit(entity, textOf(id).c_str());
    entity->receive = VU_RECEIVE_DIS;
    entity->disId = id;
    entity->drState = report;
    disChangeStatus(&entity->status, VU_STATUS_MOVING);
    entityAllocVars(&root_, entity);
    entityAppend(&scene_, entity);

    RemoteEntity &remote = entities_[keyOf(id)];
    remote.entity = entity;
    remote.sender = sender;
    ++sender->entities;
    return &remote;
}

void EntityTable::release(RemoteEntity &remote)
{
    vuEntity *const entity = remote.entity;
    entityReleaseSharedMem(entity);
    vunodeDelete(&scene_.entities, &entity->node); // unlinks it and releases its name
    pfFree(entity->smooth);
    pfFree(entity->drState);
    pfFree(entity);
    --remote.sender->entities;
}

} // namespace tolvin
