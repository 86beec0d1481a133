// The entities that were heard from the network: one kernel entity for each DIS identity.
#pragma once

#include "loghistogram.h"
#include "reportclock.h"

#include <tolvin/kernel/tolvin.h>

#include <array>
#include <cstdint>
#include <unordered_map>

namespace tolvin
{

// One sending application: its clock as seen from here, and how late its reports came.
struct Sender
{
    std::uint16_t site = 0;
    std::uint16_t application = 0;
    SenderClock clock;
    LogHistogram latency; // seconds
    std::uint64_t reports = 0;
    std::size_t entities = 0; // of the table, at the moment
};

// Of what an entity looks like, what effects have to remember.
struct EntityLook
{
    bool known = false;
    bool destroyed = false;
};

struct RemoteEntity
{
    vuEntity *entity = nullptr; // owned by the table, with its drState
    Sender *sender = nullptr;
    double heardAt = 0.0;                 // arrival of the latest report, seconds on the simulation clock
    double madeAt = 0.0;                  // when the latest accepted report was made, same clock
    double timeout = 0.0;                 // seconds of silence after which the entity is removed
    vuEntityState report = {};            // the latest accepted one, as received
    std::uint8_t algorithm = 0;           // of the latest report that was handed over, as received
    bool reported = false;                // a report was handed over
    bool leaving = false;                 // said that it leaves; removed at the end of the frame
    std::size_t pending = SIZE_MAX;       // index of its report among those of this frame
    std::array<double, 3> extrapolated{}; // position from the former report in the frame of a new one
    std::size_t track = SIZE_MAX;         // index in the map's tracks
    EntityLook look;                      // what effects saw of it
};

// Reports overtake each other by less. One that is this much older than its entity's last one is not late: the sender's clock was
// set, or taken for another.
inline constexpr double kLatestReport = 5.0; // seconds

// Seconds of silence after which an entity that sent this report counts as gone: 2.4 heartbeats, as IEEE 1278.1 has it.
double silenceLimit(const vuEntityState &report);

// Owns the kernel entities of one scene. Memory: at most maxEntities entities, each from the shared arena, and
// kMaxSenders senders, whatever identities arrive.
class EntityTable
{
public:
    static constexpr std::size_t kMaxSenders = 1024;
    static constexpr double kMemory = kLatestReport; // seconds

    // root and scene must outlive the table; the scene hangs in the root node's list.
    EntityTable(vuRootNode &root, vuScene &scene, std::size_t maxEntities);
    ~EntityTable(); // releases everything
    EntityTable(const EntityTable &) = delete;
    EntityTable &operator=(const EntityTable &) = delete;

    // The entity of that identity; null when it is not known.
    RemoteEntity *find(const vuEntityId &id);

    // The sender of that identity's site and application; made when it is new. Null when kMaxSenders have entities here.
    Sender *senderOf(const vuEntityId &id);

    // A new entity in the scene, receiving DIS and moving, with a zeroed report record. Null when the table, its senders
    // or the shared arena are full. The identity must not be known yet.
    RemoteEntity *create(const vuEntityId &id);

    // When the entity of that identity said, within the last kMemory seconds, that it leaves: the time of that report; long
    // ago otherwise. Reports from before come from an entity that is gone.
    double leftAt(const vuEntityId &id) const;

    // Removes and releases the entities that leave and those silent for longer than their limit at time now;
    // calls dropped(entity) for each before it goes.
    template<typename Dropped>
    void removeGone(double now, Dropped dropped)
    {
        for (auto it = entities_.begin(); it != entities_.end();)
        {
            RemoteEntity &remote = it->second;
            if (!remote.leaving && now - remote.heardAt <= remote.timeout)
            {
                ++it;
                continue;
            }
            dropped(remote);
            if (remote.leaving)
            {
                left_[it->first] = remote.madeAt;
            }
            release(remote);
            it = entities_.erase(it);
        }
        std::erase_if(left_, [now](const auto &entry) { return now - entry.second > kMemory; });
    }

    std::size_t size() const
    {
        return entities_.size();
    }

    // Calls visit(RemoteEntity &) for each entity, in no particular order.
    template<typename Visit>
    void forEach(Visit visit)
    {
        for (auto &[key, remote] : entities_)
        {
            visit(remote);
        }
    }

    // Calls visit(const Sender &) for each sender heard.
    template<typename Visit>
    void forEachSender(Visit visit) const
    {
        for (const auto &[key, sender] : senders_)
        {
            visit(sender);
        }
    }

private:
    // Identities come from the network: a seeded, mixing hash keeps a sender from choosing colliding ones.
    struct KeyHash
    {
        std::uint64_t seed;
        std::size_t operator()(std::uint64_t key) const;
    };

    void release(RemoteEntity &remote);

    vuRootNode &root_;
    vuScene &scene_;
    std::size_t maxEntities_;
    std::unordered_map<std::uint64_t, RemoteEntity, KeyHash> entities_;
    std::unordered_map<std::uint64_t, Sender, KeyHash> senders_;
    std::unordered_map<std::uint64_t, double, KeyHash> left_;
};

} // namespace tolvin
