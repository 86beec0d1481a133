#include "erosion.h"

#include <array>
#include <cmath>
#include <functional>
#include <queue>
#include <tuple>
#include <utility>

namespace tolvin
{

namespace
{

struct Stream
{
    std::size_t place;
    std::size_t below; // where its water goes; itself at an outlet
    double distance;   // to there, metres
};

template<typename Visit>
void visitNeighbours(std::size_t side, std::size_t place, const Visit &visit)
{
    static constexpr std::array<std::pair<int, int>, 8> kSteps = {
        {{-1, -1}, {0, -1}, {1, -1}, {-1, 0}, {1, 0}, {-1, 1}, {0, 1}, {1, 1}}};
    const auto column = static_cast<int>(place % side);
    const auto row = static_cast<int>(place / side);
    const auto limit = static_cast<int>(side);
    for (const auto &[right, down] : kSteps)
    {
        if (column + right >= 0 && column + right < limit && row + down >= 0 && row + down < limit)
        {
            visit(static_cast<std::size_t>(row + down) * side + static_cast<std::size_t>(column + right),
                  right != 0 && down != 0 ? std::sqrt(2.0) : 1.0);
        }
    }
}

// All places, each after the one that its water goes to: they are flooded from the outlets upwards, so that hollows fill up
// and run over (R. Barnes and others, Computers & Geosciences 62, 2014).
std::vector<Stream> drain(const HeightField &land, const std::vector<bool> &outlet)
{
    using Entry = std::pair<double, std::size_t>; // water level, place; ties go by place
    std::priority_queue<Entry, std::vector<Entry>, std::greater<>> open;
    std::vector<double> level(land.heights.size());
    std::vector<bool> seen = outlet;
    std::vector<bool> done(outlet.size());
    for (std::size_t place = 0; place < outlet.size(); ++place)
    {
        if (outlet[place])
        {
            level[place] = land.heights[place];
            open.emplace(level[place], place);
        }
    }
    std::vector<Stream> streams;
    streams.reserve(outlet.size());
    while (!open.empty())
    {
        const std::size_t place = open.top().second;
        open.pop();
        Stream stream{place, place, land.spacing};
        double steepest = -1.0;
        visitNeighbours(land.side, place,
                        [&](std::size_t next, double far)
                        {
                            const double slope = (level[place] - level[next]) / far;
                            if (done[next] && !outlet[place] && slope > steepest)
                            {
                                steepest = slope;
                                stream.below = next;
                                stream.distance = far * land.spacing;
                            }
                            if (!seen[next])
                            {
                                seen[next] = true;
                                level[next] = land.heights[next] > level[place] ? land.heights[next] : level[place];
                                open.emplace(level[next], next);
                            }
                        });
        done[place] = true;
        streams.push_back(stream);
    }
    return streams;
}

void carve(HeightField &land, const std::vector<double> &uplift, const std::vector<Stream> &streams,
           const ErosionRates &rates)
{
    std::vector<double> area(land.heights.size(), land.spacing * land.spacing);
    for (auto stream = streams.rbegin(); stream != streams.rend(); ++stream)
    {
        if (stream->below != stream->place)
        {
            area[stream->below] += area[stream->place];
        }
    }
    for (const auto &[place, below, far] : streams)
    {
        if (below != place)
        {
            const double factor = rates.incision * std::sqrt(area[place]) / far;
            const double raised = land.heights[place] + rates.uplift * uplift[place];
            const double carved = (raised + factor * land.heights[below]) / (1.0 + factor);
            const double holding = land.heights[below] + rates.steepest * far;
            land.heights[place] = carved < holding ? carved : holding;
        }
    }
}

void smooth(HeightField &land, const std::vector<bool> &outlet, double creep)
{
    const std::vector<double> before = land.heights;
    for (std::size_t place = 0; place < before.size(); ++place)
    {
        double sum = 0.0;
        double count = 0.0;
        visitNeighbours(land.side, place,
                        [&](std::size_t next, double far)
                        {
                            sum += before[next] / far;
                            count += 1.0 / far;
                        });
        if (!outlet[place])
        {
            land.heights[place] += creep * (sum / count - before[place]);
        }
    }
}

} // namespace

void erode(HeightField &land, const std::vector<double> &uplift, const std::vector<bool> &outlet,
           const ErosionRates &rates)
{
    for (int step = 0; step < rates.steps; ++step)
    {
        carve(land, uplift, drain(land, outlet), rates);
        smooth(land, outlet, rates.creep);
    }
    const std::vector<bool> none(outlet.size());
    smooth(land, none, 0.7); // gullies as wide as a single place are the grid's
    smooth(land, none, 0.7);
}

} // namespace tolvin
