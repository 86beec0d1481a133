#include "runcommand.h"

#include "description.h"
#include "disinput.h"
#include "exitcode.h"
#include "optionrange.h"
#include "outputfile.h"
#include "runstatistics.h"
#include "trackmap.h"
#include "udp.h"

#include <tolvin/kernel/tolvin.h>
#include <tolvin/performer/pf.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace tolvin
{

namespace
{

using SteadyClock = std::chrono::steady_clock;

struct RunOptions
{
    std::string scene; // description file, may be empty
    bool list = false;
    double duration = 0.0; // seconds, 0 for no end
    std::uint64_t frames = 0;
    double rate = 0.0; // frames per second, 0 for that of the options record
    std::string dis = "0.0.0.0:3000";
    std::string interface;
    int exercise = 1;
    DisInputOptions input;
    bool quiet = false;
    std::string map;
};

volatile std::sig_atomic_t stopRequested = 0;

void requestStop(int)
{
    stopRequested = 1;
}

// Releases what the arena gave out.
struct ArenaFree
{
    void operator()(void *block) const
    {
        pfFree(block);
    }
};

using RootPtr = std::unique_ptr<vuRootNode, ArenaFree>;

RootPtr makeRoot()
{
    RootPtr root(static_cast<vuRootNode *>(pfMalloc(sizeof(vuRootNode), pfGetSharedArena())));
    if (root == nullptr)
    {
        throw std::bad_alloc();
    }
    std::memset(root.get(), 0, sizeof *root);
    initRootNode(root.get());
    return root;
}

// Lets images that lie beside the description file be found, after those along the caller's path.
void searchBeside(const std::string &file)
{
    const char *const path = std::getenv("TEXTURE_PATH");
    const std::string folder = std::filesystem::absolute(file).parent_path().string();
    if (folder.find(':') != std::string::npos)
    {
        std::fprintf(stderr,
                     "Warning: %s: images beside it are not looked for, as the folder has a colon in its name\n",
                     file.c_str());
        return;
    }
    setenv("TEXTURE_PATH", (path == nullptr ? folder : path + (":" + folder)).c_str(), 1);
}

// The materials and textures of the description file, as long as they are needed.
class Surfaces
{
public:
    Surfaces(const RunOptions &options, vuRootNode &root) : root_(root)
    {
        if (!options.scene.empty())
        {
            readDescriptionFile(options.scene, root);
            searchBeside(options.scene);
            materialListLoadList(&root);
            textureListLoadList(&root);
            forgetSizesOfMissing();
        }
        if (options.list)
        {
            materialListPrintList(&root, stdout);
            textureListPrintList(&root, stdout);
            flushOutput(); // long before the rest
        }
    }

    ~Surfaces()
    {
        releaseSurfaces(root_);
    }

    Surfaces(const Surfaces &) = delete;
    Surfaces &operator=(const Surfaces &) = delete;

private:
    // The description gives sizes, too; in the list they tell what was loaded.
    void forgetSizesOfMissing()
    {
        for (vunode *list = root_.textureLists.first; list != nullptr; list = list->next)
        {
            for (vunode *node = reinterpret_cast<vuTextureList *>(list)->list.first; node != nullptr; node = node->next)
            {
                auto &texture = *reinterpret_cast<vuTexture *>(node);
                if (texture.tex == nullptr)
                {
                    texture.width = texture.height = texture.components = 0;
                }
            }
        }
    }

    vuRootNode &root_;
};

// Drives the simulation clock from the monotonic one, so that a correction of the wall clock never moves an entity, and
// puts arrival times, which the network gives on the wall clock, onto it.
class FrameClock
{
public:
    explicit FrameClock(vuRootNode &root)
        : root_(root),
          startMicroseconds_(wallNanoseconds() / 1000), // again, so that both clocks are read at one moment
          begin_(SteadyClock::now())
    {
        root_.frameDelta = 0.0;
        advance();
    }

    // Moves the root node's clock to now; returns the seconds since the start.
    double advance()
    {
        const SteadyClock::time_point now = SteadyClock::now();
        const auto run = std::chrono::duration_cast<std::chrono::microseconds>(now - begin_).count();
        const std::int64_t microseconds = startMicroseconds_ + run;
        const double before = root_.simSeconds;
        root_.time.sim.sec = static_cast<std::int32_t>(microseconds / 1000000);
        root_.time.sim.usec = static_cast<std::int32_t>(microseconds % 1000000);
        root_.simSeconds = static_cast<double>(microseconds) * 1e-6;
        root_.frameDelta = run == 0 ? 0.0 : root_.simSeconds - before;
        wallAhead_ = wallNanoseconds() - microseconds * 1000;
        return static_cast<double>(run) * 1e-6;
    }

    // Seconds on the simulation clock of a moment on the wall clock, given in nanoseconds since 1970.
    double ofWall(std::int64_t nanoseconds) const
    {
        return static_cast<double>(nanoseconds - wallAhead_) * 1e-9;
    }

private:
    static std::int64_t wallNanoseconds()
    {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
    }

    vuRootNode &root_;
    std::int64_t startMicroseconds_;
    SteadyClock::time_point begin_;
    std::int64_t wallAhead_ = 0;
};

// The tracks for the map, at most kMostTracks of them.
class Tracks
{
public:
    static constexpr std::size_t kMostTracks = 1000;

    void addFrame(DisInput &input)
    {
        for (RemoteEntity *remote : input.updated())
        {
            if (remote->track == SIZE_MAX && tracks_.size() < kMostTracks)
            {
                remote->track = tracks_.size();
                tracks_.emplace_back();
            }
            if (remote->track != SIZE_MAX)
            {
                tracks_[remote->track].reported.add(asPosition(remote->entity->drState->location));
            }
        }
        input.entities().forEach(
            [this](const RemoteEntity &remote)
            {
                if (remote.track != SIZE_MAX)
                {
                    tracks_[remote.track].extrapolated.add(asPosition(remote.entity->position));
                }
            });
    }

    const std::vector<MapTrack> &all() const
    {
        return tracks_;
    }

private:
    static Vector3 asPosition(const double *p)
    {
        return {p[0], p[1], p[2]};
    }

    std::vector<MapTrack> tracks_;
};

void printNotice(const std::string &line)
{
    std::fprintf(stderr, "tolvin run: %s\n", line.c_str());
}

void writeMap(const std::string &file, const Tracks &tracks, std::uint64_t entities, double seconds)
{
    char title[96];
    std::snprintf(title, sizeof title, "%llu entities in %.0f seconds", static_cast<unsigned long long>(entities),
                  seconds);
    writeTrackMap(file, tracks.all(), title);
}

// Frames until the duration, the frame count or a signal ends them.
void runFrames(const RunOptions &options, vuRootNode &root, UdpReceiver &receiver, DisInput &input)
{
    const double rate = options.rate > 0.0 ? options.rate : root.options.frameRate;
    const auto period = std::chrono::duration_cast<SteadyClock::duration>(std::chrono::duration<double>(1.0 / rate));
    const auto statistics = std::make_unique<RunStatistics>();
    Tracks tracks;
    FrameClock clock(root);
    SteadyClock::duration taking{}; // time that the datagrams of the frame took
    const UdpReceiver::Handler take = [&](std::span<const std::uint8_t> datagram, std::int64_t arrival)
    {
        const SteadyClock::time_point begin = SteadyClock::now();
        input.take(datagram, clock.ofWall(arrival));
        taking += SteadyClock::now() - begin;
    };
    SteadyClock::time_point due = SteadyClock::now();
    double time = 0.0;
    double lineTime = 0.0;
    for (std::uint64_t frame = 0; stopRequested == 0; ++frame)
    {
        if ((options.frames != 0 && frame >= options.frames) || (options.duration > 0.0 && time >= options.duration))
        {
            break;
        }
        due += period;
        do // at least once, or a machine that is too slow for the rate would never hear anything
        {
            receiver.receiveUntil(due, take);
        } while (stopRequested == 0 && SteadyClock::now() < due);
        const SteadyClock::time_point begin = SteadyClock::now();
        due = std::max(due, begin - period); // frames that were missed are not made up for
        time = clock.advance();
        input.frame([&](std::uint8_t algorithm, double metres) { statistics->addJump(algorithm, metres); });
        if (!options.map.empty())
        {
            tracks.addFrame(input);
        }
        statistics->addFrame(std::chrono::duration<double>(SteadyClock::now() - begin + taking).count());
        taking = {};
        if (time - lineTime >= 1.0)
        {
            if (!options.quiet)
            {
                statistics->printLine(stdout, time, time - lineTime, input.counts(), input.entities().size());
            }
            lineTime = time - std::fmod(time, 1.0);
        }
    }
    statistics->printTables(stdout, input.counts(), input.entities(), receiver.dropped());
    flushOutput();
    if (!options.map.empty())
    {
        writeMap(options.map, tracks, input.counts().entered, time);
    }
}

void run(const RunOptions &options)
{
    UdpReceiver receiver(parseEndpoint(options.dis), parseInterface(options.interface));
    if (!options.map.empty())
    {
        const OutputFile map(options.map); // an hour's run should not end with a map that cannot be written
    }
    pfArenaInfo info;
    {
        const RootPtr root = makeRoot();
        const Surfaces surfaces(options, *root);
        std::signal(SIGINT, requestStop); // not before: what is loaded may come from a pipe
        std::signal(SIGTERM, requestStop);
        DisInputOptions inputOptions = options.input;
        inputOptions.exercise = static_cast<std::uint8_t>(options.exercise);
        DisInput input(*root, inputOptions, printNotice);
        runFrames(options, *root, receiver, input);
    }
    pfGetArenaInfo(&info);
    if (info.blocksInUse != 0)
    {
        throw std::logic_error(std::to_string(info.blocksInUse) + " blocks of the shared arena were not released");
    }
}

} // namespace

void addRunCommand(CLI::App &app, int &exitCode)
{
    const auto options = std::make_shared<RunOptions>();
    CLI::App *const command =
        app.add_subcommand("run", "run the frame loop: show entities that DIS reports, move them");
    // The last one counts, so that scripts/run can hand options on that it gives itself.
    command->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    command->add_option("scene", options->scene, "description file: materials and textures to load");
    command->add_flag("--list", options->list, "print what was loaded of it");
    command->add_option("--duration", options->duration, "seconds to run; 0 runs until interrupted")
        ->check(within(0.0, 1e9))
        ->capture_default_str();
    command->add_option("--frames", options->frames, "frames to run; 0 sets no limit")
        ->check(within(0.0, 1e15))
        ->capture_default_str();
    command->add_option("--rate", options->rate, "frames per second (default: 25, the options record's)")
        ->check(within(0.1, 10000.0));
    command->add_option("--dis", options->dis, "local address and UDP port to receive on, or a multicast group to join")
        ->capture_default_str();
    command->add_option("--interface", options->interface, "address of the interface for a multicast group");
    command->add_option("--exercise", options->exercise, "exercise to listen to, 1 to 255; 0 takes all")
        ->check(within(0, 255))
        ->capture_default_str();
    command->add_option("--site", options->input.site, "own site, whose packets are dropped")
        ->check(within(0, 65535))
        ->capture_default_str();
    command->add_option("--application", options->input.application, "own application, whose packets are dropped")
        ->check(within(0, 65535))
        ->capture_default_str();
    command->add_option("--max-entities", options->input.maxEntities, "entities to keep at most")
        ->check(within(1, 1000000))
        ->capture_default_str();
    command->add_option("--map", options->map, "write a map of the tracks to this SVG file at the end");
    command->add_flag("--quiet", options->quiet, "print no line per second, only the tables at the end");
    command->callback([options, &exitCode] { exitCode = exitCodeOf([&] { run(*options); }); });
}

} // namespace tolvin
