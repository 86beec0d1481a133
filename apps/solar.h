// The sun as it is seen: apparent place, sidereal time, and direction at a place on the Earth.
//
// Dates are universal time as in timescale.h. Angles are radians where no other unit is named. Each new date makes
// the library print a line on standard error.
#pragma once

namespace tolvin
{

constexpr double kPi = 3.14159265358979323846;
constexpr double kDegree = kPi / 180.0;
constexpr double kArcsecond = kDegree / 3600.0;

// Of the sun's centre, as Horizontal has it, when the refracted upper limb is on the horizon.
constexpr double kRiseElevation = -0.8333 * kDegree;

// Geocentric, referred to the true ecliptic, equator and equinox of date, with aberration.
struct ApparentSun
{
    double longitude; // ecliptic, 0 to 2 pi
    double latitude;
    double distance;       // astronomical units
    double rightAscension; // 0 to 2 pi
    double declination;
    double nutationInLongitude;
    double nutationInObliquity;
    double meanObliquity;
    double trueObliquity;
};

ApparentSun apparentSun(double date);

// Sidereal time at Greenwich, 0 to 2 pi: mean (Aoki et al. 1982, IAU 1982), and apparent, with the equation of the
// equinoxes.
double meanSiderealTime(double date);
double apparentSiderealTime(double date, const ApparentSun &sun);

// Apparent minus mean solar time, -pi to pi.
double equationOfTime(double date, const ApparentSun &sun);

struct Place
{
    double latitude;  // degrees north, -90 to 90
    double longitude; // degrees east
};

struct Horizontal
{
    double hourAngle; // -pi to pi, west positive
    double azimuth; // 0 to 2 pi from north over east; at a pole as if coming there along the meridian of the longitude
    double elevation; // of the centre, as from the centre of the Earth and without refraction
};

Horizontal horizontal(double date, const ApparentSun &sun, const Place &place);
Horizontal horizontalOf(double hourAngle, double declination, double latitude);

// Elevation as from the surface of the Earth: less the parallax.
double topocentricElevation(const Horizontal &direction, const ApparentSun &sun);

// By how much the air at 10 degrees Celsius and 1010 hPa lifts a body of that elevation (T. Saemundsson, Sky and
// Telescope 72, 1986, page 70). Meant for bodies above the horizon or just below it; 0 below -1 degree.
double refraction(double elevation);

} // namespace tolvin
