#include "sunevents.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <boost/math/tools/minima.hpp>
#include <boost/math/tools/roots.hpp>

namespace tolvin
{

namespace
{

constexpr int kSamples = 96;        // a day; the sun's elevation has no more than one extremum between two of them
constexpr double kPrecision = 1e-7; // days, a hundredth of a second

class Day
{
public:
    Day(double start, const Place &place) : place_(place)
    {
        // One more on either side, so that extrema between the first and last two are found as well.
        for (int i = -1; i <= kSamples + 1; ++i)
        {
            samples_.push_back(at(start + static_cast<double>(i) / kSamples));
        }
        addExtrema();
        std::erase_if(samples_,
                      [start](const SunEvent &sample) { return sample.date < start || sample.date > start + 1.0; });
    }

    Passages passages(double level) const
    {
        Passages result{};
        for (std::size_t i = 1; i < samples_.size(); ++i)
        {
            const SunEvent &a = samples_[i - 1];
            const SunEvent &b = samples_[i];
            const bool aAbove = a.direction.elevation >= level;
            const bool bAbove = b.direction.elevation >= level;
            double above = aAbove ? b.date - a.date : 0.0;
            if (aAbove != bAbove)
            {
                const SunEvent passage = between(a, b, [level](const Horizontal &d) { return d.elevation - level; });
                above = aAbove ? passage.date - a.date : b.date - passage.date;
                (bAbove ? result.up : result.down).push_back(passage);
            }
            result.daysAbove += above;
        }
        return result;
    }

    std::vector<SunEvent> transits() const
    {
        std::vector<SunEvent> result;
        for (std::size_t i = 1; i < samples_.size(); ++i)
        {
            const SunEvent &a = samples_[i - 1];
            const SunEvent &b = samples_[i];
            // The hour angle grows but for its jump from pi to -pi at the lower meridian.
            if (a.direction.hourAngle < 0.0 && b.direction.hourAngle >= 0.0)
            {
                result.push_back(between(a, b, [](const Horizontal &d) { return d.hourAngle; }));
            }
        }
        return result;
    }

private:
    SunEvent at(double date) const
    {
        return {date, horizontal(date, apparentSun(date), place_)};
    }

    // Between neighbours the elevation only rises or only falls afterwards, so that no pair of passages is missed.
    void addExtrema()
    {
        const std::vector<SunEvent> even = samples_;
        for (std::size_t i = 1; i + 1 < even.size(); ++i)
        {
            const double before = even[i].direction.elevation - even[i - 1].direction.elevation;
            const double after = even[i + 1].direction.elevation - even[i].direction.elevation;
            if (before * after <= 0.0)
            {
                const double sign = before > 0.0 ? -1.0 : 1.0;
                // By the offset, since the library's precision is relative to it.
                const auto depth = [&](double offset) { return sign * at(even[i].date + offset).direction.elevation; };
                const double step = 1.0 / kSamples;
                const double offset = boost::math::tools::brent_find_minima(depth, -step, step, 26).first;
                samples_.push_back(at(even[i].date + offset));
            }
        }
        std::sort(samples_.begin(), samples_.end(),
                  [](const SunEvent &a, const SunEvent &b) { return a.date < b.date; });
    }

    // Where the function is 0; it has different signs at a and b.
    template<typename Function>
    SunEvent between(const SunEvent &a, const SunEvent &b, const Function &function) const
    {
        std::uintmax_t steps = 60;
        const auto enclosure = boost::math::tools::toms748_solve(
            [&](double date) { return function(at(date).direction); }, a.date, b.date, function(a.direction),
            function(b.direction), [](double low, double high) { return high - low < kPrecision; }, steps);
        return at((enclosure.first + enclosure.second) / 2.0);
    }

    Place place_;
    std::vector<SunEvent> samples_;
};

} // namespace

DayEvents eventsOfDay(double start, const Place &place)
{
    const Day day(start, place);
    return {day.passages(kRiseElevation), day.passages(-6.0 * kDegree), day.passages(-12.0 * kDegree),
            day.passages(-18.0 * kDegree), day.transits()};
}

} // namespace tolvin
