// A picture of the sun's day at a place and of its year, as SVG.
#pragma once

#include "solar.h"

#include <string>

namespace tolvin
{

// Two panels: the sun's path over the sky on the civil day of the zone that the date lies in, with full hours of the
// zone and the sun at the date, over grey paths at the solstices and equinoxes; and the year's analemma for the time
// of day, with the date marked. Throws as OutputFile does.
void writeSunPlot(const std::string &file, double date, double zone, const Place &place);

} // namespace tolvin
