#include "driver.h"

#include "../apps/outputfile.h"

#include <tolvin/kernel/tolvin.h>
#include <tolvin/performer/pf.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <new>
#include <numbers>
#include <stdexcept>

namespace tolvin
{

namespace
{

constexpr int kWidth = 1280; // of the window
constexpr int kHeight = 1024;
constexpr int kFramesPerSecond = 25;
constexpr int kFramesPerTurn = 5; // the driver moves the mouse so often
constexpr double kAhead = 26.0;   // metres to the point that the driver aims at
constexpr double kMostAside = 12.0;
constexpr double kFullTurn = 0.1 * std::numbers::pi / 16.0; // of a frame, with the pointer at the window's side

struct Mouse
{
    int x = kWidth / 2;
    unsigned buttons = 0;

    bool operator==(const Mouse &) const = default;
};

// One vehicle, and the window that it is driven from.
class Vehicle
{
public:
    explicit Vehicle(const Drive &drive) : channel_(pfNewChan(pfGetSharedArena()))
    {
        if (channel_ == nullptr)
        {
            throw std::bad_alloc();
        }
        pfRef(channel_);
        pfChanWindowSize(channel_, kWidth, kHeight);
        window_.channel = channel_;
        window_.width = kWidth;
        window_.height = kHeight;
        window_.mouseInput = 1;
        root_.frameDelta = 1.0 / kFramesPerSecond;
        initXForm(&entity_.xform);
        entity_.motionKind = VU_MOTION_DRIVE;
        entity_.position[0] = drive.start.east;
        entity_.position[1] = drive.start.north;
        entity_.orientation[0] =
            static_cast<float>(std::remainder(-drive.heading * std::numbers::pi / 180.0, 2.0 * std::numbers::pi));
        resetXForm(&entity_);
        stopXForm(&entity_); // takes over place and heading
    }

    ~Vehicle()
    {
        pfDelete(channel_);
    }

    Vehicle(const Vehicle &) = delete;
    Vehicle &operator=(const Vehicle &) = delete;

    void step(const Mouse &mouse)
    {
        const pfuMouse state = {mouse.buttons, 0, mouse.x, kHeight / 2, 1, {}};
        pfuSetMouse(&state);
        root_.simSeconds = ++frame_ * root_.frameDelta;
        doXForm(&root_, &entity_, &window_);
        // Reports are as old as the frame, so dead reckoning adds nothing.
        std::copy_n(entity_.xform.es.location, 3, entity_.position);
        std::copy_n(entity_.xform.es.orientation, 3, entity_.orientation);
    }

    Place place() const
    {
        return {entity_.position[0], entity_.position[1]};
    }

    double psi() const
    {
        return entity_.orientation[0];
    }

    double metresPerFrame() const
    {
        return entity_.xform.topSpeed * root_.frameDelta;
    }

private:
    vuRootNode root_{};
    vuEntity entity_{};
    vuChannel window_{};
    pfChannel *channel_;
    int frame_ = 0;
};

// The lines of a script: one for each change.
class ScriptWriter
{
public:
    ScriptWriter(const std::string &file, const std::string &title) : output_(file)
    {
        std::fprintf(output_.stream(), "# %s\nWINDOW %d %d\n", title.c_str(), kWidth, kHeight);
    }

    void add(int frame, const Mouse &mouse)
    {
        if (mouse == last_ && frame != 0)
        {
            return;
        }
        last_ = mouse;
        std::string buttons;
        for (const auto &[bit, letter] : {std::pair(PFUMOUSE_LEFT, 'L'), std::pair(PFUMOUSE_RIGHT, 'R')})
        {
            buttons.append((mouse.buttons & static_cast<unsigned>(bit)) != 0 ? 1 : 0, letter);
        }
        // Half a frame early, so that no rounding of times moves it to the next one.
        const int hundredths = std::max(0, frame * 100 / kFramesPerSecond - 50 / kFramesPerSecond);
        std::fprintf(output_.stream(), "%d.%02d %d %d %s\n", hundredths / 100, hundredths % 100, mouse.x, kHeight / 2,
                     buttons.empty() ? "-" : buttons.c_str());
    }

    void complete()
    {
        output_.complete();
    }

private:
    OutputFile output_;
    Mouse last_;
};

// Pure pursuit (R. C. Coulter, Implementation of the Pure Pursuit Path Tracking Algorithm, 1992): the circle through the
// vehicle, along its heading, and the point aimed at.
Mouse aimedAt(const Vehicle &vehicle, const Place &aim)
{
    const Place at = vehicle.place();
    const double east = aim.east - at.east;
    const double north = aim.north - at.north;
    const double toTheRight = east * std::cos(vehicle.psi()) + north * std::sin(vehicle.psi());
    const double curvature = 2.0 * toTheRight / (east * east + north * north);
    const double share = std::clamp(curvature * vehicle.metresPerFrame() / kFullTurn, -1.0, 1.0);
    return {std::min(static_cast<int>(std::lround(kWidth / 2.0 * (1.0 + share))), kWidth - 1), PFUMOUSE_LEFT};
}

class Driver
{
public:
    Driver(Vehicle &vehicle, ScriptWriter &script) : vehicle_(vehicle), script_(script)
    {
    }

    void follow(const std::vector<Place> &points)
    {
        std::size_t nearest = 0;
        while (nearest + 1 < points.size())
        {
            std::size_t aim = nearest;
            while (aim + 1 < points.size() && distance(points[aim], vehicle_.place()) < kAhead)
            {
                ++aim;
            }
            hold(aimedAt(vehicle_, points[aim]), kFramesPerTurn);
            nearest = nearestFrom(points, nearest);
            if (distance(points[nearest], vehicle_.place()) > kMostAside)
            {
                throw std::runtime_error("the vehicle strays from its course");
            }
        }
    }

    void rest(double seconds)
    {
        hold({kWidth / 2, PFUMOUSE_LEFT | PFUMOUSE_RIGHT}, kFramesPerTurn);
        hold({kWidth / 2, 0}, static_cast<int>(std::lround(seconds * kFramesPerSecond)));
    }

    void hold(const Mouse &mouse, int frames)
    {
        script_.add(frame_, mouse);
        for (int i = 0; i < frames; ++i)
        {
            vehicle_.step(mouse);
        }
        frame_ += frames;
    }

private:
    // The course may come back to where it was, so only what comes next counts.
    std::size_t nearestFrom(const std::vector<Place> &points, std::size_t index) const
    {
        constexpr std::size_t kReach = 8;
        const auto first = points.begin() + static_cast<std::ptrdiff_t>(index);
        const auto nearer = [&](const Place &a, const Place &b)
        { return distance(a, vehicle_.place()) < distance(b, vehicle_.place()); };
        const auto count = static_cast<std::ptrdiff_t>(std::min(kReach, points.size() - index));
        return static_cast<std::size_t>(std::min_element(first, first + count, nearer) - points.begin());
    }

    Vehicle &vehicle_;
    ScriptWriter &script_;
    int frame_ = 0;
};

} // namespace

void writeDrive(const std::string &file, const Drive &drive)
{
    Vehicle vehicle(drive);
    ScriptWriter script(file, drive.title);
    Driver driver(vehicle, script);
    driver.hold({}, kFramesPerSecond); // whichever frame a run begins with, the rest is the same
    for (const Leg &leg : drive.legs)
    {
        driver.follow(leg.points);
        driver.rest(leg.rest);
    }
    script.complete();
}

} // namespace tolvin
