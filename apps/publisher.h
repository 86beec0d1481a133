// Own entities on the network: Entity State PDUs when they are due, and a proper end.
#pragma once

#include "geodesy.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <unordered_map>

#include <tolvin/kernel/tolvin.h>

namespace tolvin
{

struct PublisherOptions
{
    std::uint8_t exercise = 1;
    std::uint8_t protocolVersion = 6; // of IEEE 1278.1: 5, 6 or 7
    double heartbeat = 5.0;           // seconds after which a report is due in any case
    double distance = 1.0;            // metres, and
    double angle = 3.0;               // degrees that others may be off
};

struct PublisherCounts
{
    std::uint64_t reports = 0;    // Entity States, all of them
    std::uint64_t heartbeats = 0; // that nothing else had made due
    std::uint64_t distance = 0;   // because others were off by too many metres
    std::uint64_t angle = 0;      // or degrees only
    std::uint64_t changes = 0;    // because something else than place and attitude changed
    std::uint64_t removes = 0;    // Remove Entity PDUs
    std::uint64_t nowhere = 0;    // frames of an entity whose numbers no receiver takes: nothing is sent
};

// Publishes entities whose position and orientation are in a local frame (x east, y north, z up; psi counter-clockwise from north,
// theta nose up, phi right side down), as the motion models of kernelxform leave them, in geocentric coordinates.
class Publisher
{
public:
    using Sink = std::function<void(std::span<const std::uint8_t> pdu)>;

    Publisher(const LocalFrame &frame, const PublisherOptions &options, Sink sink);
    ~Publisher();

    Publisher(const Publisher &) = delete;
    Publisher &operator=(const Publisher &) = delete;

    // Looks at an entity in its place of this frame, at that time of the simulation clock (seconds), and sends a report when one is
    // due: its first one; after the heartbeat; when what others extrapolate from the last one, with its algorithm, is off by more
    // than the limits (distance between the places; angle of the rotation between the attitudes); and when appearance, marking,
    // force, type, capabilities or algorithm of its record changed. Identity, type, velocity, algorithm and all else come from
    // xform.es. What others extrapolate is taken to be what the kernel makes of the report (kerneldisdr.h), conditioned as in
    // reportrotation.h. A clock that was set back makes a report due, too, and an entity whose identity changed leaves under
    // the old one and enters anew. Numbers that receivers would drop (dispdu.h) are not sent, only counted. Allocates nothing
    // but for an entity's first report.
    void frame(const vuEntity &entity, double now);

    // The entity leaves the exercise: a last report, at rest, with the deactivated bit of the appearance, and a Remove Entity PDU
    // that the application itself (entity 0) originates. Without effect for an entity that was never published. The next frame()
    // publishes it anew.
    void leave(const vuEntity &entity, double now);

    const PublisherCounts &counts() const
    {
        return counts_;
    }

private:
    struct Published;

    void send(const vuEntityState &report);

    LocalFrame frame_;
    PublisherOptions options_;
    Sink sink_;
    PublisherCounts counts_;
    std::unordered_map<std::uint32_t, std::unique_ptr<Published>> published_; // by the kernel's number of the entity
    std::uint32_t requests_ = 0;                                              // Remove Entity PDUs are numbered
};

// Attitude of a body (axes x forward, y right, z down) in a local frame, as a rotation from body axes to east, north and up.
Matrix3 localAttitude(float psi, float theta, float phi);

// The report of an entity as the network wants it, at that time (seconds of a clock whose full hours are those of the stamp):
// place and attitude geocentric, velocity and linear acceleration too, but for algorithms 6 to 9, whose body axes they keep, as
// does the angular velocity always. Protocol version and exercise are those of xform.es.
vuEntityState networkReport(const vuEntity &entity, const LocalFrame &frame, double now);

} // namespace tolvin
