// Quantiles of a stream of non-negative numbers in fixed memory.
#pragma once

#include <array>
#include <cstdint>

namespace tolvin
{

// Counts values in bins of equal ratio, so that any quantile is known to 1.1 % however many values came; the greatest
// value is kept exactly. Values below 2^-24 count as 0, values of 2^24 and above share the last bin.
class LogHistogram
{
public:
    // Adds one value; negative ones and NaN are ignored.
    void add(double value);

    // Value below which the fraction (0 to 1) of all values lies; 0 without values.
    double quantile(double fraction) const;

    double greatest() const
    {
        return greatest_;
    }

    std::uint64_t count() const
    {
        return count_;
    }

    void clear()
    {
        *this = {};
    }

private:
    static constexpr int kBinsPerOctave = 32;
    static constexpr int kOctaves = 48;
    static constexpr int kFirstOctave = -24;

    std::array<std::uint32_t, 1 + kBinsPerOctave * kOctaves> bins_{}; // the first counts zeros
    std::uint64_t count_ = 0;
    double greatest_ = 0.0;
};

} // namespace tolvin
