// Makes the sample terrain and a drive over it: sample_valley FOLDER writes valley.png and valley.drive there. Every run and
// every machine gives the same heights: they go through the four operations and square roots only.
#include "driver.h"
#include "landscape.h"
#include "samplemain.h"

#include "../apps/outputfile.h"

#include <tolvin/kernel/kernelnoise.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <png.h>

using namespace tolvin;

namespace
{

// Where the driver begins: on the road, and along it. valley.scene says the same.
constexpr Place kStart = {-548.0, 848.0};
constexpr double kHeading = 160.0;

constexpr Place kPass = {83.0, -2131.0}; // the highest place of the road

// From the road at the river over the hills to the road above.
constexpr Place kOffRoad[] = {{-470.0, 600.0}, {-469.0, 500.0},  {-478.0, 400.0},  {-470.0, 250.0},  {-400.0, 100.0},
                              {-300.0, -30.0}, {-250.0, -200.0}, {-310.0, -380.0}, {-250.0, -560.0}, {-120.0, -600.0},
                              {-40.0, -570.0}, {10.0, -480.0},   {30.0, -380.0}};
constexpr std::size_t kFarther = 150; // points of the road, after that

constexpr double kNotch = 4.0; // steps of the picture that heights are rounded to: 5 cm, and a smaller file

std::vector<std::uint16_t> greyOf(const HeightField &land)
{
    std::vector<std::uint16_t> grey;
    grey.reserve(land.heights.size());
    for (const double height : land.heights)
    {
        const double share = (height - kLowestGround) / (kHighestGround - kLowestGround);
        if (!(share >= 0.0 && share <= 1.0))
        {
            throw std::runtime_error("the ground is higher or lower than the picture can tell");
        }
        grey.push_back(static_cast<std::uint16_t>(kNotch * std::round(share * 65535.0 / kNotch)));
    }
    return grey;
}

void writeHeights(const std::string &file, const HeightField &land)
{
    OutputFile output(file);
    const std::vector<std::uint16_t> grey = greyOf(land);
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = image.height = static_cast<png_uint_32>(land.side);
    image.format = PNG_FORMAT_LINEAR_Y;
    if (png_image_write_to_stdio(&image, output.stream(), 0, grey.data(), 0, nullptr) == 0)
    {
        throw std::runtime_error(file + ": " + image.message);
    }
    output.complete();
}

std::size_t indexNear(const std::vector<Place> &road, const Place &place)
{
    const auto nearer = [&](const Place &a, const Place &b) { return distance(a, place) < distance(b, place); };
    return static_cast<std::size_t>(std::ranges::min_element(road, nearer) - road.begin());
}

// Points [first, last) of the road, round and round.
void append(std::vector<Place> &points, const std::vector<Place> &road, std::size_t first, std::size_t last)
{
    for (std::size_t i = first; i < last; ++i)
    {
        points.push_back(road[i % road.size()]);
    }
}

// Once round, with a rest on the pass, and then up the hills.
Drive driveOn(const std::vector<Place> &road)
{
    const std::vector<Place> hills = course(kOffRoad, 8.0, false);
    const std::size_t start = indexNear(road, kStart);
    const std::size_t pass = indexNear(road, kPass);
    const std::size_t above = indexNear(road, hills.back());
    Drive drive{
        "Round the road of valley.scene, and up the hills beside it. sample_valley makes this.", kStart, kHeading, {}};
    drive.legs.resize(2);
    append(drive.legs[0].points, road, start, pass);
    drive.legs[0].rest = 3.0;
    append(drive.legs[1].points, road, pass, road.size() + indexNear(road, hills.front()));
    drive.legs[1].points.insert(drive.legs[1].points.end(), hills.begin(), hills.end());
    append(drive.legs[1].points, road, above, above + kFarther);
    drive.legs[1].rest = 2.0;
    return drive;
}

} // namespace

int main(int argc, char **argv)
{
    return sampleMain(argc, argv,
                      [](const std::string &folder)
                      {
                          if (noiseInitialize() != 1)
                          {
                              throw std::runtime_error("no room for the tables of the noise");
                          }
                          const Landscape valley = makeLandscape();
                          noiseFree();
                          writeHeights(folder + "/valley.png", valley.land);
                          writeDrive(folder + "/valley.drive", driveOn(valley.road));
                      });
}
