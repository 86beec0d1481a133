/*
 * Simulation clock, animation clock, calendar, and where the sun is.
 *
 * The library never advances a clock: it sets them at start and on reset, converts them and reads them. The application
 * moves `sim` (and, if it animates, `animSeconds`) forward once per frame.
 *
 * Day numbers: the Modified Julian Date (MJD) of this library counts days from 1899 December 31, 12:00 (Julian Date
 * 2415020.0). 2000 January 1.5, the epoch J2000, is 36525.0. Years before Christ are negative and there is no year 0.
 * Dates up to 1582 October 4 are Julian, from 1582 October 15 on Gregorian.
 *
 * The sun comes at two grades: a short formula of the days since J2000 for its longitude and the rate of that, and the
 * VSOP87 theory of the Earth on the MJD scale, with obliquity and nutation beside it. Angles are radians, distances
 * astronomical units, times days of Terrestrial Time. Right ascension, declination and what follows from them are up to
 * the application.
 *
 * No pointer may be null where nothing else is said. Not thread-safe: the two MJD conversions, sunpos, obliquity and
 * nutation keep their last result in process-wide caches.
 */
#ifndef TOLVIN_KERNEL_KERNELVUTIME_H
#define TOLVIN_KERNEL_KERNELVUTIME_H

#include "kernelapi.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Seconds since 1970-01-01 00:00 UTC and microseconds, 32 bits each on every target. */
typedef struct vutimeval
{
    int32_t sec;
    int32_t usec;
} vutimeval;

VU_LAYOUT_ANY(vutimeval, sec, 0, 4);
VU_LAYOUT_ANY(vutimeval, usec, 4, 4);
VU_SIZE_ANY(vutimeval, 8);

/* Broken-down calendar date and time. */
typedef struct vutimeTM
{
    int32_t year;   /* full year (2001, not 101) */
    uint16_t month; /* 1 to 12 */
    uint16_t day;   /* 1 to 31 */
    uint16_t hour;  /* 0 to 23; in the animation calendar hours run past 23 */
    uint16_t min;   /* 0 to 59 */
    uint16_t sec;   /* 0 to 59 */
    int32_t usec;   /* microseconds */
} vutimeTM;

VU_LAYOUT_ANY(vutimeTM, year, 0x00, 4);
VU_LAYOUT_ANY(vutimeTM, month, 0x04, 2);
VU_LAYOUT_ANY(vutimeTM, day, 0x06, 2);
VU_LAYOUT_ANY(vutimeTM, hour, 0x08, 2);
VU_LAYOUT_ANY(vutimeTM, min, 0x0A, 2);
VU_LAYOUT_ANY(vutimeTM, sec, 0x0C, 2);
VU_LAYOUT_ANY(vutimeTM, usec, 0x10, 4);
VU_SIZE_ANY(vutimeTM, 20);

/* The simulation time record inside the root node. Packed to 4 bytes so that its size is 124 on every target. */
#pragma pack(push, 4)
typedef struct vutime
{
    vutimeval start;      /* wall clock when vutimeInit ran */
    vutimeval tv08;       /* 0, 0 after vutimeInit; not read by the library */
    vutimeval sim;        /* the simulation clock; the current time of dead reckoning */
    vutimeval animStart;  /* wall clock when the animation clock was last reset */
    vutimeTM simTM;       /* calendar form of `sim`, UTC; read by updateSimtime */
    vutimeTM animTM;      /* hours (modulo 65536), minutes, seconds, microseconds since animStart */
    uint8_t reserved[40]; /* not touched by the library */
    double animSeconds;   /* seconds since animStart; kept by the application */
    int32_t j2000;        /* 2000-01-01 12:00:00, standard time of the process's time zone, seconds since 1970 */
} vutime;
#pragma pack(pop)

VU_LAYOUT_ANY(vutime, start, 0x00, 8);
VU_LAYOUT_ANY(vutime, tv08, 0x08, 8);
VU_LAYOUT_ANY(vutime, sim, 0x10, 8);
VU_LAYOUT_ANY(vutime, animStart, 0x18, 8);
VU_LAYOUT_ANY(vutime, simTM, 0x20, 20);
VU_LAYOUT_ANY(vutime, animTM, 0x34, 20);
VU_LAYOUT_ANY(vutime, reserved, 0x48, 40);
VU_LAYOUT_ANY(vutime, animSeconds, 0x70, 8);
VU_LAYOUT_ANY(vutime, j2000, 0x78, 4);
VU_SIZE_ANY(vutime, 124);

/* Year 0, month 1, day 1, everything else 0. */
TOLVIN_API void vutimeTMInit(vutimeTM *tm);

/*
 * Set tm to the current date and time of day in UTC, microseconds 0. Years before 1970 come out 100 too high. A clock
 * that cannot be read is reported ("timeofday failed") and counts as 1970-01-01 00:00 where the failed reading wrote
 * nothing; tm is left unchanged when the seconds have no calendar form.
 */
TOLVIN_API void vutimeTMSetLocal(vutimeTM *tm);

/* Copy all seven fields. */
TOLVIN_API void vutimeTMCopy(vutimeTM *dst, const vutimeTM *src);

/*
 * Add seconds and microseconds (each may be negative) to tm, taken as local time: a step across a change of daylight
 * saving counts real seconds. The record does not tell on which side of the end of daylight saving it lies, so the hour
 * that is repeated then counts as standard time for a step forward and as daylight saving for a step back: repeated small
 * steps get past it and leave out one of the two. Whole seconds in a positive number of microseconds are carried into the
 * seconds; tm->usec plus the rest is not carried further and saturates at 32 bits.
 *
 * tm is left unchanged when it or the result has no calendar form: the year leaves 32 bits or the seconds since 1970
 * leave time_t. A 32-bit time_t reaches from December 1901 to January 2038, so that nothing can be added there to a
 * record fresh from vutimeTMInit, which lies in year 0.
 */
TOLVIN_API void vutimeTMAdd(vutimeTM *tm, int32_t seconds, int32_t microseconds);

/* 1 when a is earlier than or equal to b, else 0; the first field that differs decides, year first. */
TOLVIN_API int vutimeTMloweqThen(const vutimeTM *a, const vutimeTM *b);

/*
 * Start all clocks from the system clock; seconds beyond 32 bits are clamped. animSeconds and the reserved bytes are not
 * set. A clock that cannot be read, as past 2038 with a 32-bit time_t, is reported ("timeofday failed", once); the words
 * that the failed reading did not write keep their values, and the other clocks start from those. Returns time->j2000.
 */
TOLVIN_API int32_t vutimeInit(vutime *time);

/*
 * Restart the animation clock: animStart from the system clock (kept when that cannot be read), every field of animTM 0,
 * month and day too, animSeconds 0.
 */
TOLVIN_API void vutimeAnimReset(vutime *time);

/*
 * Derive hour, minute, second and microsecond of animTM from animSeconds; year, month and day are not touched. Negative
 * seconds give negative or zero parts, which the unsigned fields hold modulo 65536. Seconds beyond 32 bits count as the
 * nearest whole second within, NaN as 0. Prints one "Debug" line on every call.
 */
TOLVIN_API void vutimeCalcAnimTMFromAnimTime(vutime *time);

/*
 * MJD of a calendar date. day carries the time of day as its fraction (1.5 is noon of the first). Any input is accepted:
 * days outside the month count on from its ends, the ten days dropped in October 1582 are Julian, year 0 is year -1.
 * For months outside 1 to 12 the result has no meaning, and for (0.0, 0, 0), what the cache starts with, it depends on
 * the call before.
 */
TOLVIN_API double vutimeGetMJD(double day, uint16_t month, int32_t year);

/*
 * Calendar date of an MJD: day of month with fraction, month 1 to 12, year (never 0). Any input is accepted: an MJD
 * whose year does not fit 32 bits gives the first or last date whose year does. Infinities give that month and year and
 * NaN as the day; NaN counts as minus infinity.
 */
TOLVIN_API void vutimeReverseMJD(double mjd, double *day, uint16_t *month, int32_t *year);

/* 1 when the day exists in that month of the Gregorian calendar, else 0. */
TOLVIN_API int isvalidDayOfMonth(uint16_t month, uint16_t day, int32_t year);

/*
 * Set the seconds of `sim` from simTM. The count is j2000 plus the seconds from 2000-01-01 12:00:00 to simTM in the
 * Gregorian calendar, so that `sim` minus j2000 is the time since J2000 whatever the process's time zone. As j2000 is
 * noon of the local standard time, `sim` lies off UTC by the zone's offset afterwards: even for an unchanged simTM it
 * differs by that much from what vutimeInit has set, and so does the time past the hour in zones of half an hour.
 *
 * Microseconds are not touched. Months outside 1 to 12 count as the nearest valid one; days, hours, minutes and seconds
 * beyond their range are counted on; a result beyond 32 bits is clamped. Returns 1.
 */
TOLVIN_API int updateSimtime(vutime *time);

/*
 * The angle x, in radians, brought into (-pi, pi] by whole turns of 6.283185307179586. Infinities give NaN.
 */
TOLVIN_API double normalize_angle(double x);

/*
 * Apparent ecliptic longitude of the sun, in (-pi, pi], referred to the mean equinox of date: the low-precision formula of
 * the Astronomical Almanac, good to about 0.01 degrees from 1950 to 2050. Aberration is in it, unlike in sunpos; nutation
 * is not.
 *
 * d  days since J2000
 * Prints the mean anomaly in radians and the mean longitude in degrees on standard error, "Ma %f lon %f", on every call.
 */
TOLVIN_API double sun_position(double d);

/* Rate of the longitude of sun_position, radians per day: the derivative of that formula. Prints nothing. */
TOLVIN_API double sun_velocity(double d);

/*
 * Days from J2000 to the simulation clock, whole seconds of `sim` only. Prints "Days after J2000 %f" on standard error on
 * every call.
 */
TOLVIN_API double days_after_J2000(const vutime *time);

/*
 * Heliocentric position of the Earth, referred to the mean ecliptic and equinox of date in the FK5 system (Bretagnon and
 * Francou 1988, VSOP87 version D; conversion to FK5 after Meeus, Astronomical Algorithms, chapter 32).
 *
 * ret  three doubles, written: longitude, in [0, 2 pi) but for the conversion's last 0.1 arcseconds; latitude; radius.
 *
 * Terms too small to matter for a precision of 1e-5 radian are left out, more of them the closer the date is to J2000:
 * from 1800 to 2200 the result stays within 1.2 arcseconds in longitude, 0.4 in latitude and 3.5e-6 astronomical units of
 * a full ephemeris. Any mjd is accepted; tens of thousands of years from J2000 the theory has lost its meaning. Prints "q: %17f", a
 * measure of that precision, on standard error on every call.
 */
TOLVIN_API void vsop87sun(double mjd, double *ret);

/*
 * Geocentric position of the sun, as vsop87sun gives it: geometric, that is, neither aberration nor nutation is in it.
 *
 * lsn  written: ecliptic longitude in [-pi, pi) but for 0.1 arcseconds
 * rsn  written: distance
 * bsn  written: ecliptic latitude; may be null
 * A call with the mjd of the call before is answered from memory, without computing or printing.
 */
TOLVIN_API void sunpos(double mjd, double *lsn, double *rsn, double *bsn);

/* Mean obliquity of the ecliptic (Lieske et al. 1977, IAU 1976). */
TOLVIN_API double obliquity(double mjd);

/*
 * Nutation, all 106 terms of the 1980 IAU Theory of Nutation (Seidelmann 1982).
 *
 * deps  written: nutation in obliquity
 * dpsi  written: nutation in longitude
 */
TOLVIN_API void nutation(double mjd, double *deps, double *dpsi);

#ifdef __cplusplus
}
#endif

#endif
