#include "publisher.h"

#include "dispdu.h"
#include "motion.h"
#include "reportrotation.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <numbers>

namespace tolvin
{

namespace
{

// Frames of 0.04 s add up to the heartbeat but for the rounding of the clock: it must not wait for one more.
constexpr double kClockTolerance = 0.001; // seconds

Vector3 vectorOf(const double (&v)[3])
{
    return {v[0], v[1], v[2]};
}

void rotate(float (&v)[3], const Matrix3 &rotation)
{
    std::ranges::copy(rotated(rotation, {v[0], v[1], v[2]}), v);
}

// Relative time stamp of a finite time in seconds.
std::uint32_t stampAt(double now)
{
    const double pastHour = std::fmod(now, 3600.0);
    return stampOf(std::llround((pastHour < 0.0 ? pastHour + 3600.0 : pastHour) * 1e9)).word;
}

Matrix3 attitudeOf(const float (&orientation)[3])
{
    return rotationOf({orientation[0], orientation[1], orientation[2]});
}

// Degrees of the rotation that takes one attitude into the other, a: the Frobenius norm of the difference of the matrices is
// sqrt(8) sin(a/2), which unlike the cosine in the trace of their quotient keeps its digits where a is small.
double degreesBetween(const Matrix3 &a, const Matrix3 &b)
{
    double squares = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i)
    {
        squares += (a[i] - b[i]) * (a[i] - b[i]);
    }
    return 2.0 * std::asin(std::min(1.0, std::sqrt(squares / 8.0))) * (180.0 / std::numbers::pi);
}

bool sameIdentity(const vuEntityId &a, const vuEntityId &b)
{
    return a.site == b.site && a.application == b.application && a.entity == b.entity;
}

template<typename Record>
bool same(const Record &a, const Record &b)
{
    return std::memcmp(&a, &b, sizeof a) == 0; // of bytes and 16-bit words, without gaps
}

bool sameButForMotion(const vuEntityState &a, const vuEntityState &b)
{
    return a.appearance == b.appearance && a.forceId == b.forceId && a.capabilities == b.capabilities &&
           a.deadReckoning.algorithm == b.deadReckoning.algorithm && same(a.entityType, b.entityType) &&
           same(a.altEntityType, b.altEntityType) && same(a.marking, b.marking);
}

void stop(vuEntityState &report)
{
    std::ranges::fill(report.velocity, 0.0f);
    std::ranges::fill(report.deadReckoning.linearAcc, 0.0f);
    std::ranges::fill(report.deadReckoning.angularVel, 0.0f);
}

} // namespace

// What others know of an entity.
struct Publisher::Published
{
    vuEntityState report{}; // the last one
    double time = 0.0;      // of it

    // What a receiver makes of it.
    vuEntityState received{};
    vuEntity entity{};
    vuRootNode clock{}; // stands at 0; the age of the report is in the entity's time of reception

    void take(const vuEntityState &sent, double now)
    {
        report = received = sent;
        time = now;
        conditionRotation(received);
        disCalcDRMatrices(&entity, &received);
    }

    // Which of the counts is that of the reason for a new report; null when there is none.
    std::uint64_t PublisherCounts::*reasonFor(const vuEntityState &next, double now, const PublisherOptions &options)
    {
        entity.recvTime = time - now;
        disDeadRecon(&clock, &entity, &received);
        const double metres = std::hypot(entity.position[0] - next.location[0], entity.position[1] - next.location[1],
                                         entity.position[2] - next.location[2]);
        // Written so that numbers that dead reckoning has taken beyond all limits count as off.
        if (!(metres <= options.distance))
        {
            return &PublisherCounts::distance;
        }
        if (!(degreesBetween(attitudeOf(entity.orientation), attitudeOf(next.orientation)) <= options.angle))
        {
            return &PublisherCounts::angle;
        }
        if (!sameButForMotion(report, next))
        {
            return &PublisherCounts::changes;
        }
        // A clock that was set back does not silence the entity until it has caught up.
        const bool due = now - time >= options.heartbeat - kClockTolerance || now < time;
        return due ? &PublisherCounts::heartbeats : nullptr;
    }
};

Publisher::Publisher(const LocalFrame &frame, const PublisherOptions &options, Sink sink)
    : frame_(frame),
      options_(options),
      sink_(std::move(sink))
{
}

Publisher::~Publisher() = default;

void Publisher::frame(const vuEntity &entity, double now)
{
    auto it = published_.find(entity.id);
    if (it != published_.end() && !sameIdentity(it->second->report.entityId, entity.xform.es.entityId))
    {
        leave(entity, now); // under the name by which others know it
        it = published_.end();
    }
    const vuEntityState report = networkReport(entity, frame_, now);
    if (!std::isfinite(now) || checkNumbers(report) != PduFault::None)
    {
        ++counts_.nowhere;
        return;
    }
    if (it == published_.end())
    {
        it = published_.emplace(entity.id, std::make_unique<Published>()).first;
    }
    else if (const auto reason = it->second->reasonFor(report, now, options_))
    {
        ++(counts_.*reason);
    }
    else
    {
        return;
    }
    it->second->take(report, now);
    send(report);
}

void Publisher::send(const vuEntityState &report)
{
    vuEntityState addressed = report;
    addressed.protocolVersion = options_.protocolVersion;
    addressed.exerciseId = options_.exercise;
    std::array<std::uint8_t, kEntityStateSize> pdu;
    encodeEntityState(addressed, pdu);
    ++counts_.reports;
    sink_(pdu);
}

void Publisher::leave(const vuEntity &entity, double now)
{
    const auto it = published_.find(entity.id);
    if (it == published_.end())
    {
        return;
    }
    vuEntityState last = it->second->report;
    const vuEntityState current = networkReport(entity, frame_, std::isfinite(now) ? now : it->second->time);
    published_.erase(it);
    last.timestamp = current.timestamp;
    if (checkNumbers(current) == PduFault::None) // otherwise it leaves from where it was seen last
    {
        std::ranges::copy(current.location, last.location);
        std::ranges::copy(current.orientation, last.orientation);
    }
    last.appearance |= kAppearanceDeactivated;
    stop(last);
    send(last);

    RemoveEntity removal{};
    removal.header.protocolVersion = options_.protocolVersion;
    removal.header.exerciseId = options_.exercise;
    removal.header.timestamp = last.timestamp;
    removal.originating = {last.entityId.site, last.entityId.application, 0};
    removal.receiving = last.entityId;
    removal.requestId = ++requests_;
    std::array<std::uint8_t, kRemoveEntitySize> pdu;
    encodeRemoveEntity(removal, pdu);
    ++counts_.removes;
    sink_(pdu);
}

Matrix3 localAttitude(float psi, float theta, float phi)
{
    const double sinPsi = std::sin(double{psi}), cosPsi = std::cos(double{psi});
    const double sinTheta = std::sin(double{theta}), cosTheta = std::cos(double{theta});
    const double sinPhi = std::sin(double{phi}), cosPhi = std::cos(double{phi});
    const Matrix3 pitched = {-sinPsi * cosTheta, cosPsi, -sinPsi * sinTheta, //
                             cosPsi * cosTheta,  sinPsi, cosPsi * sinTheta,  //
                             sinTheta,           0.0,    -cosTheta};
    return product(pitched, {1, 0, 0, 0, cosPhi, -sinPhi, 0, sinPhi, cosPhi});
}

vuEntityState networkReport(const vuEntity &entity, const LocalFrame &frame, double now)
{
    const float *angles = entity.orientation;
    const EulerAngles attitude =
        eulerAnglesOf(product(frame.rotation(), localAttitude(angles[0], angles[1], angles[2])));
    vuEntityState report = entity.xform.es;
    report.timestamp = std::isfinite(now) ? stampAt(now) : 0;
    std::ranges::copy(frame.toGeocentric(vectorOf(entity.position)), report.location);
    std::ranges::copy(std::array{attitude.psi, attitude.theta, attitude.phi}, report.orientation);
    const std::uint8_t algorithm = report.deadReckoning.algorithm;
    if (algorithm < VU_DR_FPB || algorithm > VU_DR_FVB) // body axes are the same here and there
    {
        rotate(report.velocity, frame.rotation());
        rotate(report.deadReckoning.linearAcc, frame.rotation());
    }
    return report;
}

} // namespace tolvin
