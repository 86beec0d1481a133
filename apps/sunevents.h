// Rise, transit, set and twilight of the sun within one civil day.
#pragma once

#include "solar.h"

#include <vector>

namespace tolvin
{

struct SunEvent
{
    double date;
    Horizontal direction;
};

// The sun against one elevation. Each direction of passage may occur any number of times in a day, mostly once.
struct Passages
{
    std::vector<SunEvent> up;
    std::vector<SunEvent> down;
    double daysAbove; // 0 to 1
};

struct DayEvents
{
    Passages horizon;               // kRiseElevation
    Passages civil;                 // twilight, -6 degrees
    Passages nautical;              // -12 degrees
    Passages astronomical;          // -18 degrees
    std::vector<SunEvent> transits; // of the upper meridian
};

// The events from start on for a day, in order of time. Elevations are those of Horizontal, as is the custom for rise
// and set.
DayEvents eventsOfDay(double start, const Place &place);

} // namespace tolvin
