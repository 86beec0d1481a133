// Dates: reading and printing them, and the way from civil time to Terrestrial Time.
//
// A date is a number of days of 86400 s of universal time on the library's MJD scale (see kernelvutime.h). Years
// before Christ are negative and there is no year 0; days up to 1582-10-04 are Julian.
#pragma once

#include <string>

namespace tolvin
{

// YYYY-MM-DD, then T or a blank, HH:MM[:SS[.fraction]] and perhaps Z, in universal time; a day alone means its 12:00.
// Years from -2000 to 3000. Throws std::runtime_error, which tells what was found and expected.
double parseDate(const std::string &text);

// Days to add to universal time: Z, or +HH[:MM] or -HH[:MM] with less than 16 hours. Throws as parseDate does.
double parseZone(const std::string &text);

double currentDate(); // whole seconds

std::string dayText(double date);               // 2026-06-21
std::string dateText(double date);              // 2026-06-21 14:03:20, to the nearest second
std::string durationText(double days);          // 14:03:20 likewise; 24:00:00 for a day
std::string zoneText(double date, double zone); // +02:00, or what universal time is at the date: UTC or UT1
double midnight(double date, double zone);      // the last one in that zone, at the date or before

// Terrestrial Time minus universal time.
struct DeltaT
{
    double seconds;
    int taiMinusUtc; // whole seconds, where leap seconds are known: the date is UTC then, and within 0.9 s of UT1. Else 0: UT1.
};

// From 1972 to 2049 after the leap seconds; those after the last one known would be missing. Before and after it is
// the fit, or the forecast, of F. Espenak and J. Meeus, Polynomial Expressions for Delta T (NASA): from 2050 on what
// leap seconds are to be is less certain than how the Earth turns.
DeltaT deltaT(double date);

// The same instant on the scale of the library's sun.
double terrestrialTime(double date);

} // namespace tolvin
