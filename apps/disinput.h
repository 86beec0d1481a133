// From datagrams to the kernel: checks what came from the network, keeps an entity for each identity, conditions stamps
// and rotations, and hands the reports of a frame over.
#pragma once

#include "dispdu.h"
#include "entitytable.h"

#include <tolvin/kernel/tolvin.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace tolvin
{

struct DisInputOptions
{
    std::uint8_t exercise = 1;        // reports of other exercises are dropped; 0 takes every exercise
    std::uint16_t site = 1;           // own identity: reports that carry it are our own packets come back
    std::uint16_t application = 1000; // of the network
    std::size_t maxEntities = 20000;
};

// What came, counted since the start.
struct DisCounts
{
    std::uint64_t datagrams = 0;
    std::uint64_t reports = 0;   // Entity States, and updates of them, handed to the kernel
    std::uint64_t malformed = 0; // PDUs or rests of datagrams with a fault
    std::uint64_t fires = 0;     // handed to the sink
    std::uint64_t detonations = 0;
    std::uint64_t otherPdus =
        0; // well-formed PDUs that are not used: their type, or whose entity they remove or update
    std::uint64_t otherExercise = 0;
    std::uint64_t own = 0;
    std::uint64_t late = 0;    // overtaken by a later report of the same entity
    std::uint64_t refused = 0; // no room for their entity
    std::uint64_t entered = 0; // entities created
    std::uint64_t leaves = 0;  // reports that announced that their entity leaves, and Remove Entity PDUs
    std::uint64_t left = 0;    // entities that were removed because they said so
    std::uint64_t silent = 0;  // entities that fell silent
    std::array<std::uint64_t, kPduFaultCount> faults{};
    std::array<std::uint64_t, 256> byAlgorithm{}; // of the reports, as received
};

class DisInput
{
public:
    // A jump that a viewer would see: the distance between the positions extrapolated from the former and the new report in
    // the frame in which the new one takes over, and the algorithm of the former report.
    using JumpSink = std::function<void(std::uint8_t algorithm, double metres)>;
    // A line for the person at the screen, without a newline.
    using NoticeSink = std::function<void(const std::string &line)>;

    // root is initialised and outlives the input. The scene for the entities is made here, in the shared arena, appended
    // to the root node's scenes, and released with all entities by the destructor. Throws std::bad_alloc when the arena
    // has no room.
    DisInput(vuRootNode &root, const DisInputOptions &options, NoticeSink notice);
    ~DisInput();
    DisInput(const DisInput &) = delete;
    DisInput &operator=(const DisInput &) = delete;

    // What to do at once, in take(), with each Fire and Detonation of others that comes. Those whose sink is empty, as both are
    // at first, count as other PDUs.
    void setWarfareSinks(std::function<void(const Fire &)> fire, std::function<void(const Detonation &)> detonation);

    // Takes one datagram, of any content, that arrived at that time on the simulation clock in seconds. Its reports wait
    // for the next frame.
    void take(std::span<const std::uint8_t> datagram, double arrival);

    // Takes a report that somebody else has received, at that time, from whomever; its numbers are checked as those of a datagram.
    // It is wanted, so that even the own identity is none to drop. Returns whether its exercise and its numbers let it be taken.
    bool takeReport(const vuEntityState &report, double arrival);

    // The kernel's part of one frame, at the time of the root node's simulation clock: hands the waiting reports over,
    // dead-reckons all entities, tells jump about every entity for which a new report took over, and removes the
    // entities that are gone.
    void frame(const JumpSink &jump);

    const DisCounts &counts() const
    {
        return counts_;
    }

    EntityTable &entities()
    {
        return *table_;
    }

    // Entities for which a report was taken over in the last frame.
    const std::vector<RemoteEntity *> &updated() const
    {
        return updated_;
    }

private:
    PduFault takePdu(const Pdu &pdu, double arrival);
    template<class Shot>
    PduFault takeShot(const Pdu &pdu, PduFault (*decode)(const Pdu &, Shot &),
                      const std::function<void(const Shot &)> &sink, std::uint64_t &count);
    bool isOwn(const vuEntityId &id) const;
    void takeUpdate(const EntityStateUpdate &update, double arrival);
    void takeRemoval(const RemoveEntity &removal, double arrival);
    void takeNews(const vuEntityId &id, std::uint32_t timestamp, const vuEntityState *report, double arrival);
    void follow(const vuEntityId &id, std::uint32_t timestamp, const vuEntityState *report, double arrival);
    void fault(PduFault kind);
    void refuse();
    void queue(RemoteEntity &remote, const vuEntityState &report, double madeAt);
    void rememberExtrapolated(double now);
    void reportJumps(const JumpSink &jump);

    vuRootNode &root_;
    DisInputOptions options_;
    NoticeSink notice_;
    std::function<void(const Fire &)> fire_;
    std::function<void(const Detonation &)> detonation_;
    vuScene *scene_;
    std::unique_ptr<EntityTable> table_;
    DisCounts counts_;

    // The reports of the frame, the latest of each entity, column by column.
    std::vector<vuEntityState> reports_;
    std::vector<double> ages_;             // when each was made until the frame begins, then its age
    std::vector<std::uint8_t> algorithms_; // as received
    std::vector<RemoteEntity *> owners_;
    std::vector<RemoteEntity *> updated_;
};

} // namespace tolvin
