#include <tolvin/kernel/kernelvutime.h>

#include "support/capture.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <sys/time.h>
#include <tuple>

namespace
{
constexpr bool kWideTime = sizeof(time_t) > 4;
constexpr int32_t kMin = INT32_MIN, kMax = INT32_MAX;
constexpr char kSydney[] = "AEST-10AEDT,M10.1.0,M4.1.0/3";

// What the library reads instead of the system clock.
int clockResult = 0;
timeval clockNow = {};

using Fields = std::array<int, 7>;
Fields fields(const vutimeTM &tm)
{
    return {tm.year, tm.month, tm.day, tm.hour, tm.min, tm.sec, tm.usec};
}

std::tuple<double, int, int> reversed(double mjd)
{
    vutimeTM date = {};
    double day = 0.0;
    vutimeReverseMJD(mjd, &day, &date.month, &date.year);
    return {day, date.month, date.year};
}

// The first questions of the process: the caches start at zero.
const double firstMjd = vutimeGetMJD(0.0, 0, 0);
const auto firstDate = reversed(0.0);
} // namespace

extern "C" int gettimeofday(timeval *now, void *) noexcept
{
    *now = clockResult == 0 ? clockNow : *now;
    return clockResult;
}

TEST(Vutime, MjdAgreesBothWaysWithAWalkThroughTheCalendar)
{
    constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    double mjd = -2415020.5; // Julian Dates count from noon of January 1, 4713 BC
    int year = -4713;
    for (int month = 1, day = 1; year < 10000; mjd += 1.0)
    {
        const double fraction = day % 4 * 0.25;
        const bool leap = (year + (year < 0)) % 4 == 0 && (year < 1582 || year % 100 != 0 || year % 400 == 0);
        const bool monthEnds = day == kDays[month - 1] + (leap && month == 2);
        ASSERT_TRUE(vutimeGetMJD(day + fraction, month, year) == mjd + fraction &&
                    reversed(mjd + fraction) == std::tuple(day + fraction, month, year) &&
                    (year < 1582 || isvalidDayOfMonth(month, day + 1, year) != monthEnds))
            << year << '-' << month << '-' << day;
        day = monthEnds ? 1 : year == 1582 && month == 10 && day == 4 ? 15 : day + 1;
        month = monthEnds ? month % 12 + 1 : month;
        year += monthEnds && month == 1 ? (year == -1 ? 2 : 1) : 0;
    }
    EXPECT_EQ(mjd, 2958464.5); // Julian Date 5373484.5
    EXPECT_FALSE(isvalidDayOfMonth(13, 1, 2000) || isvalidDayOfMonth(0, 1, 2000) || isvalidDayOfMonth(1, 0, 2000));
}

TEST(Vutime, MjdMeetsTheLimitsOfTheYear)
{
    // Whole cycles of 400 years after 2000 and of 4 years before -1, and from there to the last and the first day.
    const double late = 36524.5 + 146097.0 * 5368704 + 17531, early = -693962.5 - 1461.0 * 536870911 - 1095;
    EXPECT_TRUE(vutimeGetMJD(31.0, 12, kMax) == late && vutimeGetMJD(1.0, 1, kMin) == early);
    EXPECT_TRUE(reversed(late) == std::tuple(31.0, 12, kMax) && reversed(1e300) == reversed(late));
    EXPECT_TRUE(reversed(early) == std::tuple(1.0, 1, kMin) && reversed(-1e300) == reversed(early));
    EXPECT_TRUE(std::isnan(std::get<0>(reversed(NAN))) && std::isnan(vutimeGetMJD(NAN, 65535, kMin)));
    EXPECT_TRUE(firstMjd == 0.0 && firstDate == std::tuple(31.5, 12, 1899));
    EXPECT_EQ(vutimeGetMJD(0.0, 0, 0), -693995.5); // -694025 + 30 - 0.5, now that the cache holds another date
    EXPECT_TRUE(vutimeGetMJD(1.5, 1, 2000) == 36525.0 && vutimeGetMJD(1.5, 2, 2000) == 36556.0);
    EXPECT_EQ(vutimeGetMJD(5.0, 10, 1582), -115859.5); // dropped days go on from October 4
}

TEST(Vutime, CalendarComparesTheFirstFieldThatDiffers)
{
    const vutimeTM ascending[] = {{-1, 9, 9, 9, 9, 9, 9}, {1, 1, 1, 1, 1, 1, -1},    {1, 1, 1, 1, 1, 1, 1},
                                  {1, 1, 1, 1, 1, 2, 0},  {1, 1, 1, 1, 2, 0, 0},     {1, 1, 1, 2, 0, 0, 0},
                                  {1, 1, 2, 0, 0, 0, 0},  {1, 40000, 0, 0, 0, 0, 0}, {2, 0, 0, 0, 0, 0, 0}};
    for (const vutimeTM *a = ascending; a + 1 < std::end(ascending); ++a)
    {
        EXPECT_TRUE(vutimeTMloweqThen(a, a + 1) && vutimeTMloweqThen(a, a) && !vutimeTMloweqThen(a + 1, a));
    }
}

TEST(Vutime, CalendarAddsInLocalTime)
{
    const std::tuple<const char *, vutimeTM, int, int, Fields> cases[] = {
        {"UTC0", {2001, 5, 6, 7, 8, 9, 900000}, -9, 1999999, {2001, 5, 6, 7, 8, 1, 1899999}},
        {"UTC0", {2001, 5, 6, 7, 8, 9, -1}, 1, kMin, {2001, 5, 6, 7, 8, 10, kMin}},
        {"UTC0", {1969, 12, 31, 23, 59, 59, 0}, 2, 0, {1970, 1, 1, 0, 0, 1, 0}},
        // 2^31 + 1 seconds are 68 years (17 of them leap years), 18 days, 3 hours, 14 minutes and 9 seconds.
        {"UTC0", {1930, 1, 1, 0, 0, 0, 0}, kMax, 2000000, {1998, 1, 19, 3, 14, 9, 0}},
        {"UTC0", {2038, 1, 19, 3, 14, 7, 5}, 1, 1, {2038, 1, 19, 3, 14, kWideTime ? 8 : 7, kWideTime ? 6 : 5}},
        {"UTC0", {kMin, 1, 1, 0, 0, 0, 5}, 1, 1, {kMin, 1, 1, 0, 0, 0, 5}},
        {"UTC0", {kMax, 12, 31, 23, 59, 59, 5}, 1, 1, {kMax, 12, 31, 23, 59, 59, 5}},
        {kSydney, {1999, 12, 31, 5, 0, 0, 0}, 60 * 86400, 0, {2000, 2, 29, 5, 0, 0, 0}},
        {kSydney, {2001, 10, 7, 1, 59, 59, 0}, 1, 0, {2001, 10, 7, 3, 0, 0, 0}},
        {kSydney, {2001, 4, 1, 0, 30, 0, 0}, 14400, 0, {2001, 4, 1, 3, 30, 0, 0}}};
    for (auto [zone, tm, seconds, microseconds, expected] : cases)
    {
        setenv("TZ", zone, 1);
        vutimeTMAdd(&tm, seconds, microseconds);
        EXPECT_EQ(fields(tm), expected);
    }
}

// 02:00 to 03:00 comes twice on 2001-04-01. Small steps leave one of the two out, whatever was asked for before.
TEST(Vutime, SmallStepsGetPastTheRepeatedHour)
{
    setenv("TZ", kSydney, 1);
    for (const int month : {1, 7})
    {
        vutimeTM other = {2001, uint16_t(month), 1, 0, 0, 0, 0}, tm = {2001, 4, 1, 1, 30, 0, 0};
        vutimeTMAdd(&other, 1, 0);
        for (int step = 0; step < 360; ++step)
        {
            vutimeTMAdd(&tm, step < 180 ? 60 : -60, 0);
            ASSERT_TRUE(step != 179 || fields(tm) == (Fields{2001, 4, 1, 4, 30, 0, 0}));
        }
        EXPECT_EQ(fields(tm), (Fields{2001, 4, 1, 1, 30, 0, 0}));
    }
}

TEST(Vutime, ClocksStartFromTheSystemClockOrSayThatItFailed)
{
    vutime time;
    memset(&time, 0x5A, sizeof time);
    const vutime before = time;
    clockNow = {1000000000, 123456};
    vutimeInit(&time);
    EXPECT_EQ(memcmp(time.reserved, before.reserved, sizeof time.reserved + sizeof time.animSeconds), 0); // untouched
    EXPECT_EQ((Fields{time.start.sec, time.start.usec, time.animStart.sec, time.sim.sec, time.sim.usec, time.tv08.sec}),
              (Fields{1000000000, 123456, 1000000000, 1000000000, 123456, 0}));
    EXPECT_EQ(fields(time.simTM), (Fields{2001, 9, 9, 1, 46, 40, 0}));
    EXPECT_EQ(fields(time.animTM), (Fields{0, 1, 1, 0, 0, 0, 0}));

    clockResult = -1;
    EXPECT_EQ(capturedStderr([&] { vutimeInit(&time); }), "timeofday failed\n");
    EXPECT_EQ(capturedStderr([&] { vutimeTMSetLocal(&time.simTM); }), "kernelvutime:141 Warning: timeofday failed\n");
    EXPECT_TRUE(time.sim.sec == 1000000000 && fields(time.simTM) == (Fields{1970, 1, 1, 0, 0, 0, 0}));

    clockResult = 0;
    clockNow = {-1, 0};
    vutimeTMSetLocal(&time.simTM);
    EXPECT_EQ(fields(time.simTM), (Fields{2069, 12, 31, 23, 59, 59, 0}));
    clockNow.tv_sec = LONG_MAX;
    vutimeTMSetLocal(&time.animTM);
    EXPECT_EQ(time.animTM.year, kWideTime ? 0 : 2038); // where it is wide, the limit has no calendar form
    vutimeInit(&time);
    EXPECT_TRUE(time.simTM.year == 2038 && time.start.sec == kMax);
}

TEST(Vutime, SimulationDateCountsFromJ2000InEveryZone)
{
    vutime time = {};
    for (const auto &[zone, hours] : {std::pair("UTC0", 0.0), {"EST5EDT", 5.0}, {"IST-5:30", -5.5}, {kSydney, -10.0}})
    {
        setenv("TZ", zone, 1);
        ASSERT_EQ(vutimeInit(&time), 946728000 + hours * 3600.0);
        for (double days = -35600.5; days < 13800.0; days += 1.0) // 1902 to 2037
        {
            const auto [day, month, year] = reversed(days + 36525.0);
            time.simTM = {year, uint16_t(month), uint16_t(day), 6, 30, 15, 0};
            time.sim.usec = 77;
            ASSERT_TRUE(updateSimtime(&time) == 1 && time.sim.usec == 77);
            ASSERT_EQ(double(time.sim.sec) - time.j2000, days * 86400.0 + 23415.0)
                << year << ' ' << month << ' ' << day;
        }
    }
    for (int year : {kMin, 1900, 2039, kMax})
    {
        time.simTM = {year, 99, 31, 23, 59, 59, 0};
        updateSimtime(&time);
        EXPECT_EQ(time.sim.sec, year < 2000 ? kMin : kMax);
    }
}

TEST(Vutime, AnimationTimeHasHoursWithoutDays)
{
    vutime time = {};
    const std::tuple<double, const char *, Fields> cases[] = {
        {3725.25, "usec: 250000 sec: 5", {7, 8, 9, 1, 2, 5, 250000}},
        {90000.0, "usec: 0 sec: 0", {7, 8, 9, 25, 0, 0, 0}},
        {-61.5, "usec: -500000 sec: 65535", {7, 8, 9, 0, 65535, 65535, -500000}},
        {1e300, "usec: 0 sec: 7", {7, 8, 9, 596523 % 65536, 14, 7, 0}},
        {NAN, "usec: 0 sec: 0", {7, 8, 9, 0, 0, 0, 0}}};
    for (const auto &[seconds, text, expected] : cases)
    {
        time.animTM = {7, 8, 9, 9, 9, 9, 9};
        time.animSeconds = seconds;
        const std::string printed = capturedStderr([&] { vutimeCalcAnimTMFromAnimTime(&time); });
        EXPECT_EQ(printed, std::string("kernelvutime:460 Debug: ") + text + "\n");
        EXPECT_EQ(fields(time.animTM), expected);
    }
    clockNow = {5, 6};
    vutimeAnimReset(&time);
    EXPECT_TRUE(time.animStart.sec == 5 && time.animStart.usec == 6 && time.animSeconds == 0.0 &&
                fields(time.animTM) == Fields{});
}
