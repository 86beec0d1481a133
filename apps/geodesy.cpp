#include "geodesy.h"

#include <cmath>
#include <cstddef>
#include <vector>

#include <GeographicLib/Geocentric.hpp>

namespace tolvin
{

namespace
{

Vector3 difference(const Vector3 &a, const Vector3 &b)
{
    return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}

} // namespace

Vector3 geocentricOf(const Geodetic &place)
{
    Vector3 p;
    GeographicLib::Geocentric::WGS84().Forward(place.latitude, place.longitude, place.height, p[0], p[1], p[2]);
    return p;
}

Geodetic geodeticOf(const Vector3 &p)
{
    Geodetic place;
    GeographicLib::Geocentric::WGS84().Reverse(p[0], p[1], p[2], place.latitude, place.longitude, place.height);
    return place;
}

LocalFrame::LocalFrame(const Geodetic &origin)
{
    std::vector<double> axes(9); // the library fills it row-major, east, north and up as columns
    GeographicLib::Geocentric::WGS84().Forward(origin.latitude, origin.longitude, origin.height, origin_[0], origin_[1],
                                               origin_[2], axes);
    for (std::size_t i = 0; i < rotation_.size(); ++i)
    {
        rotation_[i] = axes[i];
    }
}

Vector3 LocalFrame::toGeocentric(const Vector3 &eastNorthUp) const
{
    const Vector3 offset = rotated(rotation_, eastNorthUp);
    return {origin_[0] + offset[0], origin_[1] + offset[1], origin_[2] + offset[2]};
}

Vector3 LocalFrame::toLocal(const Vector3 &geocentric) const
{
    return rotated(transposed(rotation_), difference(geocentric, origin_));
}

Matrix3 rotationOf(const EulerAngles &angles)
{
    const double sinPsi = std::sin(angles.psi);
    const double cosPsi = std::cos(angles.psi);
    const double sinTheta = std::sin(angles.theta);
    const double cosTheta = std::cos(angles.theta);
    const double sinPhi = std::sin(angles.phi);
    const double cosPhi = std::cos(angles.phi);
    const Matrix3 aboutZ = {cosPsi, -sinPsi, 0, sinPsi, cosPsi, 0, 0, 0, 1};
    const Matrix3 aboutY = {cosTheta, 0, sinTheta, 0, 1, 0, -sinTheta, 0, cosTheta};
    const Matrix3 aboutX = {1, 0, 0, 0, cosPhi, -sinPhi, 0, sinPhi, cosPhi};
    return product(product(aboutZ, aboutY), aboutX);
}

EulerAngles eulerAnglesOf(const Matrix3 &m)
{
    EulerAngles angles;
    angles.psi = std::atan2(m[3], m[0]);
    angles.theta = std::atan2(-m[6], std::hypot(m[0], m[3]));
    // phi is what remains after psi has been turned back. Unlike atan2(m7, m8) that holds for a vertical nose as
    // well, where m7 and m8 vanish and psi is whatever rounding left.
    const double sinPsi = std::sin(angles.psi);
    const double cosPsi = std::cos(angles.psi);
    angles.phi = std::atan2(sinPsi * m[2] - cosPsi * m[5], cosPsi * m[4] - sinPsi * m[1]);
    return angles;
}

Matrix3 product(const Matrix3 &a, const Matrix3 &b)
{
    Matrix3 result;
    for (std::size_t row = 0; row < 9; row += 3)
    {
        for (std::size_t column = 0; column < 3; ++column)
        {
            result[row + column] = a[row] * b[column] + a[row + 1] * b[3 + column] + a[row + 2] * b[6 + column];
        }
    }
    return result;
}

Matrix3 transposed(const Matrix3 &m)
{
    return {m[0], m[3], m[6], m[1], m[4], m[7], m[2], m[5], m[8]};
}

Vector3 rotated(const Matrix3 &m, const Vector3 &v)
{
    return {m[0] * v[0] + m[1] * v[1] + m[2] * v[2], m[3] * v[0] + m[4] * v[1] + m[5] * v[2],
            m[6] * v[0] + m[7] * v[1] + m[8] * v[2]};
}

double dot(const Vector3 &a, const Vector3 &b)
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

double length(const Vector3 &v)
{
    return std::hypot(v[0], v[1], v[2]);
}

} // namespace tolvin
