// Positions, directions and orientations between a local tangent frame and the geocentric world of the network.
//
// Geocentric positions are metres from the centre of the WGS 84 ellipsoid: x through the equator at longitude 0, y
// through the equator at 90 degrees east, z through the north pole. Local positions are metres east, north and up of
// an origin. Matrices are row-major and multiply column vectors: the columns of a rotation are the rotated axes.
#pragma once

#include <array>

namespace tolvin
{

using Vector3 = std::array<double, 3>;
using Matrix3 = std::array<double, 9>;

struct Geodetic
{
    double latitude = 0.0;  // degrees, -90 to 90
    double longitude = 0.0; // degrees
    double height = 0.0;    // metres above the ellipsoid
};

// Orientation of a body (axes x forward, y right, z down) as IEEE 1278.1 has it, in radians: from the geocentric axes,
// turn by psi about z, by theta about the new y and by phi about the new x.
struct EulerAngles
{
    double psi = 0.0;   // -pi to pi
    double theta = 0.0; // -pi/2 to pi/2
    double phi = 0.0;   // -pi to pi
};

Vector3 geocentricOf(const Geodetic &place);
Geodetic geodeticOf(const Vector3 &geocentric);

// Tangent plane of the ellipsoid's normal at an origin.
class LocalFrame
{
public:
    explicit LocalFrame(const Geodetic &origin);

    Vector3 toGeocentric(const Vector3 &eastNorthUp) const;
    Vector3 toLocal(const Vector3 &geocentric) const;

    // From local to geocentric axes, for directions; its transpose goes back.
    const Matrix3 &rotation() const
    {
        return rotation_;
    }

private:
    Vector3 origin_;
    Matrix3 rotation_;
};

// The rotation from body to geocentric axes, and its angles. A vertical nose leaves one of psi and phi free: the angles
// then are such that they give the same matrix.
Matrix3 rotationOf(const EulerAngles &angles);
EulerAngles eulerAnglesOf(const Matrix3 &bodyToGeocentric);

Matrix3 product(const Matrix3 &a, const Matrix3 &b);
Matrix3 transposed(const Matrix3 &m);
Vector3 rotated(const Matrix3 &m, const Vector3 &v);
double dot(const Vector3 &a, const Vector3 &b);
double length(const Vector3 &v);

} // namespace tolvin
