#include "loghistogram.h"

#include <algorithm>
#include <cmath>

namespace tolvin
{

void LogHistogram::add(double value)
{
    if (!(value >= 0.0))
    {
        return;
    }
    std::size_t bin = 0;
    if (value >= std::exp2(kFirstOctave))
    {
        const double octave = std::min(std::log2(value) - kFirstOctave, kOctaves - 0.5 / kBinsPerOctave);
        bin = 1 + static_cast<std::size_t>(octave * kBinsPerOctave);
    }
    ++bins_[bin];
    ++count_;
    greatest_ = std::max(greatest_, value);
}

double LogHistogram::quantile(double fraction) const
{
    const auto rank = static_cast<std::uint64_t>(fraction * static_cast<double>(count_));
    std::uint64_t below = 0;
    for (std::size_t bin = 0; bin < bins_.size(); ++bin)
    {
        below += bins_[bin];
        if (below > rank)
        {
            const double middle = (static_cast<double>(bin) - 0.5) / kBinsPerOctave + kFirstOctave;
            return bin == 0 ? 0.0 : std::min(std::exp2(middle), greatest_);
        }
    }
    return greatest_;
}

} // namespace tolvin
