// Motions with closed formulas, and the DIS reports of entities that follow them.
//
// A motion is a function of time in a local frame (geodesy.h): metres east, north and up. Headings are radians
// clockwise from north. The body (axes x forward, y right, z down) keeps its nose along the velocity and its wings
// level.
#pragma once

#include "geodesy.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include <tolvin/kernel/kerneldisstate.h>

namespace tolvin
{

enum class MotionKind
{
    Static,
    Line,
    Accelerate, // along a line, constant acceleration
    Circle,
    Helix, // a circle that climbs
    Weave  // along a line, swinging to both sides
};

inline constexpr MotionKind kMotionKinds[] = {MotionKind::Static, MotionKind::Line,  MotionKind::Accelerate,
                                              MotionKind::Circle, MotionKind::Helix, MotionKind::Weave};

// Names as on the command line: static, line, accelerate, circle, helix, weave.
std::string_view nameOf(MotionKind kind);
std::optional<MotionKind> motionKindNamed(std::string_view name);

struct Motion
{
    MotionKind kind = MotionKind::Static;
    Vector3 start{};           // position at time 0; of circle and helix the centre at time 0
    double heading = 0.0;      // direction of a line and of the middle of a weave; of the nose while nothing moves
    double phase = 0.0;        // radians: bearing from the centre, or place in the swing, at time 0
    double speed = 30.0;       // m/s, not negative; at time 0, horizontal, of a weave along its middle
    double acceleration = 1.0; // m/s^2, of Accelerate; must not bring the speed below 0
    double radius = 1000.0;    // metres, of circle and helix; positive turns right, negative left
    double climbRate = 5.0;    // m/s upwards, of Helix
    double amplitude = 50.0;   // metres to each side, of Weave
    double period = 20.0;      // seconds per swing there and back, of Weave
};

struct MotionState
{
    Vector3 position; // local frame, as are velocity and acceleration
    Vector3 velocity;
    Vector3 acceleration;
    Matrix3 attitude;         // rotation from body to local axes
    Vector3 angularVelocity;  // rad/s about the body axes
    Vector3 bodyVelocity;     // velocity in body axes
    Vector3 bodyAcceleration; // rate of change of bodyVelocity, which is not the acceleration in body axes
};

// State at that many seconds.
MotionState stateAt(const Motion &motion, double time);

// The motion of entity index among count: kind, speed and so on from pattern, its place, heading, phase and sense of
// turning its own. Places form a grid around the origin that leaves room for circles as long as it fits into 15 km.
Motion spreadMotion(const Motion &pattern, std::size_t index, std::size_t count);

// A reading of a clock as DIS time stamp.
struct Stamp
{
    std::uint32_t word;     // relative: bit 0 is 0
    std::int64_t remainder; // nanoseconds by which the clock was past the time that the stamp says, 0 to 1677
};

// clock is in nanoseconds since a full hour, not negative.
Stamp stampOf(std::int64_t clock);

// The report of an entity that follows the motion, at that many seconds, seen from the frame: location, orientation,
// velocity and dead-reckoning parameters, the vectors in geocentric axes or, for algorithms 6 to 9, in body axes. The
// algorithm says what a receiver makes of it; the values are the true ones whatever it is, so that even the report of a
// moving entity with algorithm 1 has a velocity. Type and sizes are filled in; identity, stamp, exercise, version,
// appearance and marking are the caller's.
vuEntityState reportOf(const Motion &motion, double time, const LocalFrame &frame, std::uint8_t algorithm);

} // namespace tolvin
