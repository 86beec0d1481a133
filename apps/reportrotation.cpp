#include "reportrotation.h"

#include <cmath>

namespace tolvin
{
namespace
{

// Exactly the kernel's test, so that the two never disagree about a report; not a number counts as negligible.
bool isNegligible(const float (&angularVel)[3])
{
    const double x = angularVel[0], y = angularVel[1], z = angularVel[2];
    return !(std::sqrt(x * x + y * y + z * z) > 0.00001);
}

// Euler angles psi, theta, phi about the z, y and x axes, body to world, as IEEE 1278.1 defines them.
void bodyToWorld(float (&vector)[3], const float (&orientation)[3])
{
    const double psi = orientation[0], theta = orientation[1], phi = orientation[2];
    const double sinPsi = std::sin(psi), cosPsi = std::cos(psi);
    const double sinTheta = std::sin(theta), cosTheta = std::cos(theta);
    const double sinPhi = std::sin(phi), cosPhi = std::cos(phi);
    const double x = vector[0], y = vector[1], z = vector[2];
    // About x, then y, then z.
    const double rolledY = cosPhi * y - sinPhi * z, rolledZ = sinPhi * y + cosPhi * z;
    const double pitchedX = cosTheta * x + sinTheta * rolledZ, pitchedZ = cosTheta * rolledZ - sinTheta * x;
    vector[0] = static_cast<float>(cosPsi * pitchedX - sinPsi * rolledY);
    vector[1] = static_cast<float>(sinPsi * pitchedX + cosPsi * rolledY);
    vector[2] = static_cast<float>(pitchedZ);
}

} // namespace

void conditionRotation(vuEntityState &report)
{
    vuDeadReckoning &motion = report.deadReckoning;
    if (motion.algorithm < VU_DR_RVW || motion.algorithm > VU_DR_FVB || !isNegligible(motion.angularVel))
    {
        return;
    }
    if (motion.algorithm <= VU_DR_FVW)
    {
        motion.algorithm = VU_DR_FVW;
        return;
    }
    const bool accelerates = motion.algorithm >= VU_DR_RVB;
    bodyToWorld(report.velocity, report.orientation);
    if (accelerates)
    {
        bodyToWorld(motion.linearAcc, report.orientation);
    }
    motion.algorithm = accelerates ? VU_DR_FVW : VU_DR_FPW;
}

} // namespace tolvin
