#include "runcommand.h"

#include "description.h"
#include "disinput.h"
#include "effects.h"
#include "exitcode.h"
#include "frameclock.h"
#include "outputfile.h"
#include "ownside.h"
#include "plaintext.h"
#include "pluginpath.h"
#include "runstatistics.h"
#include "segmentinput.h"
#include "stopsignal.h"
#include "terrainmap.h"
#include "trackmap.h"
#include "udp.h"

#include <tolvin/kernel/tolvin.h>
#include <tolvin/performer/pf.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
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
    OwnSideOptions own;
    EffectOptions effects;
    bool fast = false;

    Pace pace() const
    {
        return fast ? Pace::Fast : own.drive.empty() ? Pace::Measured : Pace::Steps;
    }
};

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

// The materials, textures and effects of the description file, as long as they are needed.
class Loaded
{
public:
    explicit Loaded(vuRootNode &root) : root_(root)
    {
    }

    ~Loaded()
    {
        effectFreeAll(&root_);
        releaseSurfaces(root_);
    }

    void load(const RunOptions &options, Description &description)
    {
        if (!options.scene.empty())
        {
            readDescriptionFile(options.scene, root_, description);
            searchBeside(options.scene);
            materialListLoadList(&root_);
            textureListLoadList(&root_);
            forgetSizesOfMissing();
        }
        if (options.list)
        {
            materialListPrintList(&root_, stdout);
            textureListPrintList(&root_, stdout);
            effectPrintList(&root_, stdout);
            flushOutput(); // long before the rest
        }
    }

    Loaded(const Loaded &) = delete;
    Loaded &operator=(const Loaded &) = delete;

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

// The tracks of others as the map of a terrain wants them.
std::vector<OtherPath> pathsOf(const Tracks &tracks, const LocalFrame &frame)
{
    std::vector<OtherPath> paths;
    for (const MapTrack &track : tracks.all())
    {
        OtherPath &path = paths.emplace_back();
        for (const Vector3 &position : track.extrapolated.positions())
        {
            path.places.push_back(frame.toLocal(position));
        }
    }
    return paths;
}

// What takes part in the frames.
struct Participants
{
    vuRootNode &root;
    UdpReceiver *receiver; // null when nothing is heard
    DisInput *input;
    OwnSide *own;     // null without a scene
    Effects *effects; // likewise
    FrameClock clock;
    SegmentInput *segments; // null when no segment is read
};

class FrameLoop
{
public:
    FrameLoop(const RunOptions &options, Participants &participants, double rate)
        : options_(options),
          p_(participants),
          period_(std::chrono::duration_cast<SteadyClock::duration>(std::chrono::duration<double>(1.0 / rate))),
          take_([this](std::span<const std::uint8_t> datagram, std::int64_t arrival) { take(datagram, arrival); })
    {
        const bool endless = options.duration <= 0.0 && options.frames == 0;
        if (options.duration > 0.0)
        {
            duration_ = options.duration;
        }
        else if (endless && p_.own != nullptr)
        {
            duration_ = p_.own->duration();
        }
    }

    // Frames until the duration, the frame count or a signal ends them.
    void run()
    {
        SteadyClock::time_point due = SteadyClock::now();
        for (std::uint64_t number = 0; !isStopAsked() && !isOver(number); ++number)
        {
            due += period_;
            if (options_.pace() != Pace::Fast)
            {
                receiveUntil(due);
            }
            const SteadyClock::time_point begin = SteadyClock::now();
            if (options_.pace() == Pace::Measured)
            {
                due = std::max(due, begin - period_); // frames that were missed are not made up for
            }
            frame();
            statistics_->addFrame(std::chrono::duration<double>(SteadyClock::now() - begin + taking_).count());
            taking_ = {};
            printLine();
        }
        finish();
    }

private:
    bool isOver(std::uint64_t frames) const
    {
        return (options_.frames != 0 && frames >= options_.frames) || (duration_.has_value() && time_ >= *duration_);
    }

    void take(std::span<const std::uint8_t> datagram, std::int64_t arrival)
    {
        const SteadyClock::time_point begin = SteadyClock::now();
        p_.input->take(datagram, p_.clock.ofWall(arrival));
        taking_ += SteadyClock::now() - begin;
    }

    void receiveUntil(SteadyClock::time_point due)
    {
        do // at least once, or a machine that is too slow for the rate would never hear anything
        {
            p_.receiver->receiveUntil(due, take_);
        } while (!isStopAsked() && SteadyClock::now() < due);
    }

    void frame()
    {
        time_ = p_.clock.advance();
        if (p_.own != nullptr)
        {
            p_.own->drive(time_);
        }
        if (p_.segments != nullptr)
        {
            p_.segments->take(wallClock());
        }
        p_.input->frame([&](std::uint8_t algorithm, double metres) { statistics_->addJump(algorithm, metres); });
        if (p_.segments != nullptr)
        {
            p_.segments->show();
        }
        if (p_.own != nullptr)
        {
            p_.own->settle(time_);
        }
        if (p_.effects != nullptr)
        {
            p_.effects->frame(time_, p_.input->entities(), p_.input->updated());
        }
        if (!options_.map.empty())
        {
            tracks_.addFrame(*p_.input);
        }
    }

    void printLine()
    {
        if (time_ - lineTime_ < 1.0)
        {
            return;
        }
        if (!options_.quiet)
        {
            statistics_->printLine(stdout, time_, time_ - lineTime_, p_.input->counts(), p_.input->entities().size());
            const std::string driven = p_.own == nullptr ? "" : p_.own->world().drivenText();
            std::printf("%s%s%s", driven.empty() ? "" : "          ", driven.c_str(), driven.empty() ? "" : "\n");
        }
        lineTime_ = time_ - std::fmod(time_, 1.0);
    }

    // Whatever of it fails, the rest is done; the first failure is the caller's.
    void finish()
    {
        std::exception_ptr failure;
        const auto attempt = [&failure](const std::function<void()> &part)
        {
            try
            {
                part();
            }
            catch (...)
            {
                failure = failure == nullptr ? std::current_exception() : failure;
            }
        };
        attempt([this] { p_.own != nullptr ? p_.own->finish() : void(); });
        attempt([this] { printTables(); });
        attempt([this] { options_.map.empty() ? void() : writeMap(); });
        if (failure != nullptr)
        {
            std::rethrow_exception(failure);
        }
    }

    void printTables() const
    {
        if (p_.receiver != nullptr)
        {
            statistics_->printTables(stdout, p_.input->counts(), p_.input->entities(), p_.receiver->dropped());
        }
        if (p_.own != nullptr)
        {
            p_.own->printSummary(stdout);
        }
        if (p_.segments != nullptr)
        {
            p_.segments->printSummary(stdout);
        }
        if (p_.effects != nullptr)
        {
            p_.effects->printSummary(stdout);
        }
        flushOutput();
    }

    void writeMap() const
    {
        char others[96];
        std::snprintf(others, sizeof others, "%llu entities in %.0f seconds",
                      static_cast<unsigned long long>(p_.input->counts().entered), time_);
        if (p_.own == nullptr)
        {
            writeTrackMap(options_.map, tracks_.all(), others);
            return;
        }
        const Terrain &terrain = p_.own->world().terrain();
        const std::string title = p_.own->name() + (p_.receiver == nullptr ? "" : std::string(", ") + others);
        constexpr std::size_t kMostShapes = 4000; // a picture is to be looked at
        const ShownEffects effects = {shapesOf(asPfNode(p_.effects->node()), kMostShapes), p_.effects->places()};
        writeTerrainMap(options_.map, terrain, p_.own->paths(), pathsOf(tracks_, terrain.frame()), title, effects);
    }

    const RunOptions &options_;
    Participants &p_;
    SteadyClock::duration period_;
    UdpReceiver::Handler take_;
    std::optional<double> duration_; // seconds, none for no end
    std::unique_ptr<RunStatistics> statistics_ = std::make_unique<RunStatistics>();
    Tracks tracks_;
    SteadyClock::duration taking_{}; // time that the datagrams of the frame took
    double time_ = 0.0;
    double lineTime_ = 0.0;
};

void checkOptions(const RunOptions &options, const Description &description)
{
    const std::string what = !options.own.drive.empty()          ? "--drive"
                             : !options.own.publish.empty()      ? "--publish"
                             : !options.own.log.empty()          ? "--log"
                             : !options.effects.triggers.empty() ? "--trigger"
                             : options.effects.fire              ? "--fire-effect"
                             : options.effects.detonation        ? "--detonation-effect"
                             : options.effects.smoke             ? "--smoke-effect"
                                                                 : "";
    if (!options.own.log.empty() && options.own.log == options.map)
    {
        throw std::runtime_error("--log and --map name the same file: " + options.map);
    }
    if (description.scene.has_value())
    {
        return;
    }
    if (!what.empty())
    {
        throw std::runtime_error(what + " needs a description file with a SCENE");
    }
    if (!description.entities.empty())
    {
        throw std::runtime_error(description.entities.front().where + ": ENTITY in a description without a SCENE");
    }
    if (!description.effect.empty() && !options.list)
    {
        throw std::runtime_error(description.effect + ": EFFECT in a description without a SCENE");
    }
}

void checkTriggers(const RunOptions &options)
{
    for (const auto &[time, name] : options.effects.triggers)
    {
        if (!(time >= 0.0 && time <= 1e9))
        {
            throw std::runtime_error("--trigger: expected 0 to 1e+09 seconds before " + plainText(name));
        }
    }
}

void run(RunOptions options)
{
    checkTriggers(options);
    const auto exercise = static_cast<std::uint8_t>(options.exercise);
    std::optional<UdpReceiver> receiver;
    if (!options.fast)
    {
        receiver.emplace(parseEndpoint(options.dis), parseInterface(options.interface));
    }
    if (!options.map.empty())
    {
        const OutputFile map(options.map); // an hour's run should not end with a map that cannot be written
    }
    std::set<std::string> plugins;
    {
        const RootPtr root = makeRoot();
        Description description;
        Loaded loaded(*root);
        loaded.load(options, description);
        checkOptions(options, description);
        const double rate = options.rate > 0.0 ? options.rate : root->options.frameRate;
        Participants participants = {*root,   receiver.has_value() ? &*receiver : nullptr, nullptr, nullptr,
                                     nullptr, FrameClock(*root, options.pace(), rate),     nullptr};
        takeStopSignals(); // not before: what is loaded may come from a pipe
        options.input.exercise = exercise;
        DisInput input(*root, options.input, printNotice);
        std::unique_ptr<OwnSide> own;
        std::unique_ptr<Effects> effects; // go before what they are shown in
        std::unique_ptr<SegmentInput> segments;
        if (description.scene.has_value())
        {
            options.own.world.exercise = exercise == 0 ? 1 : exercise;
            options.own.world.site = options.input.site;
            options.own.world.application = options.input.application;
            options.own.interface = options.interface;
            const std::string folder = std::filesystem::path(options.scene).parent_path().string();
            own = std::make_unique<OwnSide>(*root, description, folder, options.own, printNotice);
            effects = std::make_unique<Effects>(*root, folder, own->world(), options.effects, printNotice);
            input.setWarfareSinks([&effects](const Fire &fire) { effects->take(fire); },
                                  [&effects](const Detonation &detonation) { effects->take(detonation); });
        }
        if (own != nullptr && !options.fast)
        {
            segments = std::make_unique<SegmentInput>(own->world(), input, participants.clock, printNotice);
        }
        participants.segments = segments.get();
        participants.input = &input;
        participants.own = own.get();
        participants.effects = effects.get();
        FrameLoop(options, participants, rate).run();
        plugins = effects != nullptr ? effects->opened() : plugins;
    }
    for (const std::string &file : plugins)
    {
        if (isOpen(file))
        {
            printNotice("plug-in " + file + " stays open"); // as the loader has it for some of C++
        }
    }
    pfArenaInfo info;
    pfGetArenaInfo(&info);
    if (info.blocksInUse != 0)
    {
        throw std::logic_error(std::to_string(info.blocksInUse) + " blocks of the shared arena were not released");
    }
}

} // namespace

void addRunCommand(CommandLine &line)
{
    const auto options = std::make_shared<RunOptions>();
    const Command command = line.addCommand("run", "run the frame loop: show entities that DIS reports, move them",
                                            [options] { run(*options); });
    // The last one counts, so that scripts/run can hand options on that it gives itself.
    command.lastCounts();
    command.add("scene", options->scene, "description file: materials and textures to load, the terrain, own entities");
    command.addFlag("--list", options->list, "print what was loaded of it");
    command.add("--duration", options->duration, "seconds to run; 0 runs until interrupted")
        .check(within(0.0, 1e9))
        .showDefault();
    command.add("--frames", options->frames, "frames to run; 0 sets no limit").check(within(0.0, 1e15)).showDefault();
    command.add("--rate", options->rate, "frames per second (default: 25, the options record's)")
        .check(within(0.1, 10000.0));
    command.add("--dis", options->dis, "local address and UDP port to receive on, or a multicast group to join")
        .showDefault();
    command.add("--interface", options->interface, "address of the interface for a multicast group");
    command.add("--exercise", options->exercise, "exercise to listen to, 1 to 255; 0 takes all")
        .check(within(0, 255))
        .showDefault();
    command.add("--site", options->input.site, "own site, whose packets are dropped")
        .check(within(0, 65535))
        .showDefault();
    command.add("--application", options->input.application, "own application, whose packets are dropped")
        .check(within(0, 65535))
        .showDefault();
    command.add("--max-entities", options->input.maxEntities, "entities to keep at most")
        .check(within(1, 1000000))
        .showDefault();
    command.add("--drive", options->own.drive,
                "drive an entity of the description by this script of mouse input, to its end");
    command.add("--entity", options->own.world.driven, "which entity to drive (default: the first that can be)");
    command.add("--publish", options->own.publish,
                "address and UDP port, or multicast group, to publish own entities to");
    command.add("--ttl", options->own.timeToLive, "hops that published multicasts may take")
        .check(within(0, 255))
        .showDefault();
    command.add("--log", options->own.log, "write each frame of the driven entity to this CSV file");
    command
        .add("--trigger", options->effects.triggers,
             "seconds after the start, and the name of an effect to trigger then; may be repeated")
        .takeAll("TIME NAME")
        .onePerUse();
    command.add("--fire-effect", options->effects.fire,
                "effect to trigger where a weapon is fired (default: the one named fire)");
    command.add("--detonation-effect", options->effects.detonation,
                "effect to trigger where a munition detonates or an entity is destroyed (default: detonation)");
    command.add("--smoke-effect", options->effects.smoke,
                "effect at entities that smoke, burn or are destroyed (default: smoke)");
    command.addFlag("--fast", options->fast,
                    "do not wait between frames, and hear nothing: the same run gives the same files");
    command.add("--map", options->map,
                "at the end, write a map of the tracks, with a SCENE of the terrain, to this SVG file");
    command.addFlag("--quiet", options->quiet, "print no line per second, only the tables at the end");
}

} // namespace tolvin
