// Makes the sample models: sample_vehicles FOLDER writes jeep.obj and helicopter.obj there, in metres, y ahead, x to the right,
// z up, the ground at z 0. Every run and every machine gives the same bytes.
#include "../apps/outputfile.h"
#include "samplemain.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace tolvin;

namespace
{

using Point = std::array<double, 3>; // x, y, z
using Ring = std::vector<Point>;     // a convex polygon, flat

// A corner of the unit polygon of twelve, which is as round as these models are.
std::pair<double, double> corner(std::size_t index)
{
    const double half = 0.5;
    const double most = std::sqrt(3.0) / 2.0;
    const double values[] = {1.0, most, half, 0.0, -half, -most, -1.0, -most, -half, 0.0, half, most};
    return {values[index % 12], values[(index + 9) % 12]};
}

double volumeBelow(const Point &a, const Point &b, const Point &c)
{
    return a[0] * (b[1] * c[2] - b[2] * c[1]) + a[1] * (b[2] * c[0] - b[0] * c[2]) + a[2] * (b[0] * c[1] - b[1] * c[0]);
}

class Model
{
public:
    Model(const std::string &file, const char *title) : output_(file)
    {
        std::fprintf(output_.stream(), "# %s Metres, y ahead, x to the right, z up. sample_vehicles makes this.\n",
                     title);
    }

    // A body between rings of as many points each, closed by the first and the last.
    void add(const char *name, const std::vector<Ring> &rings)
    {
        const std::size_t count = rings[0].size();
        std::vector<std::vector<std::size_t>> faces(2);
        for (std::size_t i = 0; i < count; ++i)
        {
            faces[0].push_back(i);
            faces[1].push_back(rings.size() * count - 1 - i);
        }
        for (std::size_t ring = 0; ring + 1 < rings.size(); ++ring)
        {
            for (std::size_t i = 0; i < count; ++i)
            {
                const std::size_t here = ring * count;
                const std::size_t next = (i + 1) % count;
                faces.push_back({here + next, here + i, here + count + i, here + count + next});
            }
        }
        Ring points;
        for (const Ring &ring : rings)
        {
            points.insert(points.end(), ring.begin(), ring.end());
        }
        write(name, points, faces);
    }

    void addBox(const char *name, const Point &least, const Point &most)
    {
        const auto side = [&](double x) {
            return Ring{{x, least[1], least[2]}, {x, most[1], least[2]}, {x, most[1], most[2]}, {x, least[1], most[2]}};
        };
        add(name, {side(least[0]), side(most[0])});
    }

    // A wheel or a shaft: round about the axis (0 x, 1 y, 2 z).
    void addDisc(const char *name, std::size_t axis, const Point &middle, double radius, double width)
    {
        std::vector<Ring> rings(2, Ring(12));
        for (std::size_t i = 0; i < 12; ++i)
        {
            for (std::size_t end = 0; end < 2; ++end)
            {
                Point &point = rings[end][i];
                point = middle;
                point[axis] += (static_cast<double>(end) - 0.5) * width;
                point[(axis + 1) % 3] += radius * corner(i).first;
                point[(axis + 2) % 3] += radius * corner(i).second;
            }
        }
        add(name, rings);
    }

    void complete()
    {
        output_.complete();
    }

private:
    // Faces are counter-clockwise from outside, as those of a body of positive volume are.
    void write(const char *name, const Ring &points, std::vector<std::vector<std::size_t>> &faces)
    {
        const int sameName = ++names_[name]; // readers put bodies of one name together
        std::fprintf(output_.stream(), sameName == 1 ? "o %s\n" : "o %s_%d\n", name, sameName);
        for (const Point &point : points)
        {
            std::fprintf(output_.stream(), "v %.3f %.3f %.3f\n", point[0] + 0.0, point[1] + 0.0, point[2] + 0.0);
        }
        double volume = 0.0;
        for (const auto &face : faces)
        {
            for (std::size_t i = 2; i < face.size(); ++i)
            {
                volume += volumeBelow(points[face[0]], points[face[i - 1]], points[face[i]]);
            }
        }
        for (auto &face : faces)
        {
            if (volume < 0.0)
            {
                std::reverse(face.begin(), face.end());
            }
            std::fputs("f", output_.stream());
            for (const std::size_t index : face)
            {
                std::fprintf(output_.stream(), " %zu", written_ + index + 1);
            }
            std::fputs("\n", output_.stream());
        }
        written_ += points.size();
    }

    OutputFile output_;
    std::map<std::string, int> names_;
    std::size_t written_ = 0; // vertices
};

// An outline seen from the right, as wide as that.
std::vector<Ring> acrossFrom(const std::vector<std::pair<double, double>> &outline, double low, double high)
{
    std::vector<Ring> rings(2);
    for (const auto &[y, z] : outline)
    {
        rings[0].push_back({low, y, z});
        rings[1].push_back({high, y, z});
    }
    return rings;
}

void writeJeep(const std::string &file)
{
    Model model(file, "A jeep.");
    model.add("body", acrossFrom({{-1.86, 0.42}, {1.90, 0.42}, {2.00, 0.60}, {1.98, 0.96}, {0.80, 1.06}, {-1.90, 1.04}},
                                 -0.80, 0.80));
    model.add("cabin", {{{-0.78, -1.84, 1.04}, {0.78, -1.84, 1.04}, {0.78, 0.78, 1.06}, {-0.78, 0.78, 1.06}},
                        {{-0.68, -1.76, 1.78}, {0.68, -1.76, 1.78}, {0.68, 0.36, 1.78}, {-0.68, 0.36, 1.78}}});
    for (const double side : {-1.0, 1.0})
    {
        for (const double y : {-1.25, 1.25})
        {
            model.addDisc("wheel", 0, {0.74 * side, y, 0.38}, 0.38, 0.24);
            model.addBox("fender", {0.86 * side - 0.10, y - 0.48, 0.80}, {0.86 * side + 0.10, y + 0.48, 0.86});
        }
        model.addDisc("lamp", 1, {0.56 * side, 2.00, 0.78}, 0.10, 0.06);
    }
    model.addDisc("spare_wheel", 1, {0.0, -2.00, 0.98}, 0.36, 0.20);
    model.addBox("bumper", {-0.82, 1.96, 0.46}, {0.82, 2.08, 0.60});
    model.complete();
}

// An upright ring of twelve at y, from bottom to top.
Ring section(double y, double halfWidth, double bottom, double top)
{
    Ring ring;
    for (std::size_t i = 0; i < 12; ++i)
    {
        ring.push_back({halfWidth * corner(i).first, y, (bottom + top + (top - bottom) * corner(i).second) / 2.0});
    }
    return ring;
}

void writeHelicopter(const std::string &file)
{
    Model model(file, "A light helicopter.");
    model.add("cabin",
              {section(2.60, 0.16, 0.94, 1.26), section(2.20, 0.52, 0.70, 1.62), section(1.20, 0.78, 0.56, 2.12),
               section(-0.40, 0.76, 0.56, 2.20), section(-1.60, 0.42, 1.02, 2.06), section(-2.20, 0.20, 1.40, 1.90)});
    model.add("boom", {section(-2.10, 0.20, 1.44, 1.86), section(-6.20, 0.10, 1.66, 1.88)});
    model.add("fin",
              acrossFrom({{-5.80, 1.70}, {-6.40, 1.30}, {-6.60, 1.34}, {-6.70, 2.74}, {-6.40, 2.76}}, -0.04, 0.04));
    model.addBox("tailplane", {-0.80, -5.60, 1.74}, {0.80, -5.26, 1.79});
    model.addDisc("mast", 2, {0.0, 0.10, 2.40}, 0.09, 0.50);
    model.addBox("blades", {-0.11, -4.10, 2.66}, {0.11, 4.30, 2.69});
    model.addBox("blades", {-4.20, -0.01, 2.66}, {4.20, 0.21, 2.69});
    model.addDisc("tail_rotor", 0, {0.12, -6.42, 2.10}, 0.62, 0.03);
    for (const double side : {-1.0, 1.0})
    {
        model.addBox("skid", {0.92 * side - 0.04, -1.40, 0.0}, {0.92 * side + 0.04, 1.90, 0.08});
        for (const double y : {-0.70, 1.10})
        {
            const double in = 0.40 * side, out = 0.92 * side;
            model.add("strut", {{{in, y, 0.70}, {in, y + 0.06, 0.70}, {in, y + 0.06, 0.62}, {in, y, 0.62}},
                                {{out, y, 0.10}, {out, y + 0.06, 0.10}, {out, y + 0.06, 0.04}, {out, y, 0.04}}});
        }
    }
    model.complete();
}

} // namespace

int main(int argc, char **argv)
{
    return sampleMain(argc, argv,
                      [](const std::string &folder)
                      {
                          writeJeep(folder + "/jeep.obj");
                          writeHelicopter(folder + "/helicopter.obj");
                      });
}
