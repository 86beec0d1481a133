// Smooth curves on a plane: the courses of a river or a road.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace tolvin
{

struct Place
{
    double east;
    double north;
};

double distance(const Place &a, const Place &b);

// The uniform cubic B-spline of the control points, as points at (nearly) even distances along it. A closed one continues at its end
// with its first point, which is not repeated; an open one has its ends near the second control points from either side.
std::vector<Place> course(std::span<const Place> controls, double step, bool closed);

} // namespace tolvin
