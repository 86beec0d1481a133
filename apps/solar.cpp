#include "solar.h"

#include "timescale.h"

#include <tolvin/kernel/kernelvutime.h>

#include <algorithm>
#include <cmath>

namespace tolvin
{

namespace
{

constexpr double kJ2000 = 36525.0;
constexpr double kDaysPerCentury = 36525.0;
constexpr double kAberration = 20.4898 * kArcsecond; // at 1 AU
constexpr double kParallax = 8.794 * kArcsecond;     // at 1 AU, on the horizon
constexpr double kSecondOfTime = kPi / 43200.0;

double positiveAngle(double angle)
{
    const double turns = angle / (2.0 * kPi);
    return (turns - std::floor(turns)) * 2.0 * kPi;
}

double signedAngle(double angle)
{
    return std::remainder(angle, 2.0 * kPi);
}

// Angle of the mean sun from Greenwich's lower meridian.
double dayAngle(double date)
{
    return (date + 0.5 - std::floor(date + 0.5)) * 2.0 * kPi;
}

} // namespace

ApparentSun apparentSun(double date)
{
    const double tt = terrestrialTime(date);
    ApparentSun sun;
    double geometric;
    sunpos(tt, &geometric, &sun.distance, &sun.latitude);
    nutation(tt, &sun.nutationInObliquity, &sun.nutationInLongitude);
    sun.longitude = positiveAngle(geometric + sun.nutationInLongitude - kAberration / sun.distance);
    sun.meanObliquity = obliquity(tt);
    sun.trueObliquity = sun.meanObliquity + sun.nutationInObliquity;

    const double x = std::cos(sun.latitude) * std::cos(sun.longitude);
    const double y = std::cos(sun.latitude) * std::sin(sun.longitude);
    const double z = std::sin(sun.latitude);
    const double cosine = std::cos(sun.trueObliquity);
    const double sine = std::sin(sun.trueObliquity);
    sun.rightAscension = positiveAngle(std::atan2(y * cosine - z * sine, x));
    sun.declination = std::asin(y * sine + z * cosine);
    return sun;
}

double meanSiderealTime(double date)
{
    const double t = (date - kJ2000) / kDaysPerCentury;
    const double seconds = 24110.54841 + t * (8640184.812866 + t * (0.093104 - t * 6.2e-6));
    // The polynomial is meant for 0h; with the fraction of the day in t as well, it holds for any time.
    return positiveAngle(seconds * kSecondOfTime + dayAngle(date));
}

double apparentSiderealTime(double date, const ApparentSun &sun)
{
    return positiveAngle(meanSiderealTime(date) + sun.nutationInLongitude * std::cos(sun.trueObliquity));
}

double equationOfTime(double date, const ApparentSun &sun)
{
    return signedAngle(apparentSiderealTime(date, sun) - sun.rightAscension - dayAngle(date) + kPi);
}

Horizontal horizontalOf(double hourAngle, double declination, double latitude)
{
    // The direction on axes to the south point, the west point and the zenith.
    const double south =
        std::cos(hourAngle) * std::cos(declination) * std::sin(latitude) - std::sin(declination) * std::cos(latitude);
    const double west = std::sin(hourAngle) * std::cos(declination);
    const double up =
        std::cos(hourAngle) * std::cos(declination) * std::cos(latitude) + std::sin(declination) * std::sin(latitude);
    return {hourAngle, positiveAngle(std::atan2(-west, -south)), std::atan2(up, std::hypot(south, west))};
}

Horizontal horizontal(double date, const ApparentSun &sun, const Place &place)
{
    const double local = apparentSiderealTime(date, sun) + place.longitude * kDegree;
    return horizontalOf(signedAngle(local - sun.rightAscension), sun.declination, place.latitude * kDegree);
}

double topocentricElevation(const Horizontal &direction, const ApparentSun &sun)
{
    return direction.elevation - kParallax / sun.distance * std::cos(direction.elevation);
}

double refraction(double elevation)
{
    const double degrees = elevation / kDegree;
    if (degrees < -1.0)
    {
        return 0.0;
    }
    const double arcminutes = 1.02 / std::tan((degrees + 10.3 / (degrees + 5.11)) * kDegree);
    return std::max(0.0, arcminutes) / 60.0 * kDegree; // the formula falls below 0 near the zenith
}

} // namespace tolvin
