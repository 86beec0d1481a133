#include "motion.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace tolvin
{

namespace
{

constexpr double kTwoPi = 2.0 * std::numbers::pi;

struct Path
{
    Vector3 position{};
    Vector3 velocity{};
    Vector3 acceleration{};
};

// Adds value metres (and its derivatives) in the horizontal direction of a heading.
void addAlong(Path &path, double heading, double value, double rate, double rateOfRate)
{
    const double east = std::sin(heading);
    const double north = std::cos(heading);
    path.position[0] += value * east;
    path.position[1] += value * north;
    path.velocity[0] += rate * east;
    path.velocity[1] += rate * north;
    path.acceleration[0] += rateOfRate * east;
    path.acceleration[1] += rateOfRate * north;
}

void addCircle(Path &path, const Motion &m, double time)
{
    const double radius = std::abs(m.radius);
    const double rate = m.speed / m.radius; // of the bearing, negative for a turn to the left
    const double bearing = m.phase + rate * time;
    addAlong(path, bearing, radius, 0.0, -radius * rate * rate);
    addAlong(path, bearing + std::numbers::pi / 2.0, 0.0, radius * rate, 0.0);
}

void addWeave(Path &path, const Motion &m, double time)
{
    const double rate = kTwoPi / m.period;
    const double swing = m.phase + rate * time;
    addAlong(path, m.heading, m.speed * time, m.speed, 0.0);
    addAlong(path, m.heading + std::numbers::pi / 2.0, m.amplitude * std::sin(swing),
             m.amplitude * rate * std::cos(swing), -m.amplitude * rate * rate * std::sin(swing));
}

Path pathAt(const Motion &m, double time)
{
    Path path;
    path.position = m.start;
    switch (m.kind)
    {
    case MotionKind::Static:
        break;
    case MotionKind::Line:
        addAlong(path, m.heading, m.speed * time, m.speed, 0.0);
        break;
    case MotionKind::Accelerate:
        addAlong(path, m.heading, (m.speed + 0.5 * m.acceleration * time) * time, m.speed + m.acceleration * time,
                 m.acceleration);
        break;
    case MotionKind::Helix:
        path.position[2] += m.climbRate * time;
        path.velocity[2] = m.climbRate;
        addCircle(path, m, time);
        break;
    case MotionKind::Circle:
        addCircle(path, m, time);
        break;
    case MotionKind::Weave:
        addWeave(path, m, time);
        break;
    }
    return path;
}

struct Nose
{
    double heading;
    double pitch; // the same at all times: no motion here changes its climb
    double headingRate;
};

Nose noseAlong(const Path &path, double restHeading)
{
    const auto [east, north, up] = path.velocity;
    const double horizontal = std::hypot(east, north);
    Nose nose = {restHeading, std::atan2(up, horizontal), 0.0};
    if (horizontal > 0.0)
    {
        nose.heading = std::atan2(east, north);
        nose.headingRate = (path.acceleration[0] * north - path.acceleration[1] * east) / (horizontal * horizontal);
    }
    return nose;
}

// Columns: nose, right wing (level), belly.
Matrix3 attitudeOf(const Nose &nose)
{
    const double sinHeading = std::sin(nose.heading);
    const double cosHeading = std::cos(nose.heading);
    const double sinPitch = std::sin(nose.pitch);
    const double cosPitch = std::cos(nose.pitch);
    return {cosPitch * sinHeading,
            cosHeading,
            sinPitch * sinHeading, //
            cosPitch * cosHeading,
            -sinHeading,
            sinPitch * cosHeading, //
            sinPitch,
            0.0,
            -cosPitch};
}

void assign(float (&to)[3], const Vector3 &from)
{
    std::copy(from.begin(), from.end(), to);
}

} // namespace

std::string_view nameOf(MotionKind kind)
{
    switch (kind)
    {
    case MotionKind::Static:
        return "static";
    case MotionKind::Line:
        return "line";
    case MotionKind::Accelerate:
        return "accelerate";
    case MotionKind::Circle:
        return "circle";
    case MotionKind::Helix:
        return "helix";
    case MotionKind::Weave:
        return "weave";
    }
    return "";
}

std::optional<MotionKind> motionKindNamed(std::string_view name)
{
    const auto *const found = std::ranges::find(kMotionKinds, name, nameOf);
    return found == std::end(kMotionKinds) ? std::nullopt : std::optional(*found);
}

MotionState stateAt(const Motion &motion, double time)
{
    const Path path = pathAt(motion, time);
    const Nose nose = noseAlong(path, motion.heading);
    MotionState state;
    state.position = path.position;
    state.velocity = path.velocity;
    state.acceleration = path.acceleration;
    state.attitude = attitudeOf(nose);
    // The heading turns about the vertical.
    state.angularVelocity = {-nose.headingRate * std::sin(nose.pitch), 0.0, nose.headingRate * std::cos(nose.pitch)};
    // The nose lies along the velocity: in body axes only the speed is left, and only it changes.
    const Vector3 forward = {state.attitude[0], state.attitude[3], state.attitude[6]};
    state.bodyVelocity = {length(path.velocity), 0.0, 0.0};
    state.bodyAcceleration = {dot(path.acceleration, forward), 0.0, 0.0};
    return state;
}

Motion spreadMotion(const Motion &pattern, std::size_t index, std::size_t count)
{
    constexpr double kExtent = 15000.0;
    const auto side = static_cast<std::size_t>(std::ceil(std::sqrt(static_cast<double>(count))));
    const double room = 2.5 * std::abs(pattern.radius);
    const double spacing = side > 1 ? std::min(room, kExtent / static_cast<double>(side - 1)) : 0.0;
    const double middle = 0.5 * static_cast<double>(side - 1);
    Motion motion = pattern;
    motion.start[0] += (static_cast<double>(index % side) - middle) * spacing;
    motion.start[1] += (static_cast<double>(index / side) - middle) * spacing;
    // Steps of the golden section never repeat and cover the circle evenly.
    const double turn = std::fmod(static_cast<double>(index) * (std::numbers::phi - 1.0), 1.0);
    motion.heading += kTwoPi * turn;
    motion.phase += kTwoPi * turn;
    motion.radius = index % 2 == 0 ? motion.radius : -motion.radius;
    return motion;
}

Stamp stampOf(std::int64_t clock)
{
    // An hour has 2^31 units and 3600 * 10^9 ns: cut down by 2^13, so that the products fit into 64 bits.
    constexpr std::int64_t kHour = 3'600'000'000'000;
    constexpr std::int64_t kUnits = 262'144;
    constexpr std::int64_t kNanoseconds = 439'453'125;
    const std::int64_t pastHour = clock % kHour;
    const std::int64_t units = pastHour * kUnits / kNanoseconds;
    return {static_cast<std::uint32_t>(units) << 1, pastHour - units * kNanoseconds / kUnits};
}

vuEntityState reportOf(const Motion &motion, double time, const LocalFrame &frame, std::uint8_t algorithm)
{
    const MotionState state = stateAt(motion, time);
    const bool bodyAxes = algorithm >= VU_DR_FPB && algorithm <= VU_DR_FVB;
    const EulerAngles angles = eulerAnglesOf(product(frame.rotation(), state.attitude));
    const Vector3 location = frame.toGeocentric(state.position);

    vuEntityState report{};
    report.pduType = 1;
    report.protocolFamily = 1;
    report.length = sizeof report;
    report.forceId = 1;
    report.entityType.kind = 1;                                          // platform
    report.entityType.domain = motion.kind == MotionKind::Helix ? 2 : 1; // air, land
    std::copy(location.begin(), location.end(), report.location);
    assign(report.orientation, {angles.psi, angles.theta, angles.phi});
    assign(report.velocity, bodyAxes ? state.bodyVelocity : rotated(frame.rotation(), state.velocity));
    report.deadReckoning.algorithm = algorithm;
    assign(report.deadReckoning.linearAcc,
           bodyAxes ? state.bodyAcceleration : rotated(frame.rotation(), state.acceleration));
    assign(report.deadReckoning.angularVel, state.angularVelocity);
    return report;
}

} // namespace tolvin
