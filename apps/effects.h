// The effects of a scene in tolvin run: sets them up, shows what they show in the scene's graph, starts and stops them, and
// lets their plug-ins go at the end.
#pragma once

#include "arenaowner.h"
#include "dispdu.h"
#include "entitytable.h"
#include "world.h"

#include <tolvin/plugin.h>

#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tolvin
{

struct EffectOptions
{
    std::vector<std::pair<double, std::string>> triggers; // seconds since the start, and the name of an effect
    // Effects that start with something that happens, by name. Without one it is that of the same name, if there is any.
    std::optional<std::string> fire;
    std::optional<std::string> detonation;
    std::optional<std::string> smoke;
};

// Whether an entity of that appearance is destroyed, and whether it smokes: because it is destroyed, says so, or is on fire. IEEE
// 1278.1 has these bits for platforms of all domains; other kinds of entity use theirs for other things.
bool isDestroyed(const vuEntityType &type, std::uint32_t appearance);
bool isSmoking(const vuEntityType &type, std::uint32_t appearance);

class Effects
{
public:
    // A line for the person at the screen, without a newline.
    using NoticeSink = std::function<void(const std::string &line)>;

    // Finds and opens the plug-ins of the root node's effects (pluginpath.h; files beside `folder`) and sets them up. What is
    // wrong with a plug-in is told, and the others go on. The world outlives the effects. Throws std::runtime_error that tells
    // which effect the options name that there is not, std::bad_alloc when the arena is full.
    Effects(vuRootNode &root, const std::string &folder, World &world, const EffectOptions &options, NoticeSink notice);
    ~Effects() = default; // the records stay, with nothing loaded

    Effects(const Effects &) = delete;
    Effects &operator=(const Effects &) = delete;

    // What happened in the exercise, in geocentric coordinates; it is to be seen from the next frame on.
    void take(const Fire &fire);
    void take(const Detonation &detonation);

    // The last part of a frame, at that many seconds since the start.
    //   updated  those of the network's entities that have a new report
    void frame(double time, EntityTable &remotes, const std::vector<RemoteEntity *> &updated);

    void printSummary(std::FILE *out) const;

    // All that effects show, in the local frame.
    pfGroup *node() const
    {
        return graph_.group.get();
    }

    // Where effects began that were triggered, in the local frame, the first kMostPlaces times.
    const std::vector<Vector3> &places() const
    {
        return places_;
    }

    static constexpr std::size_t kMostPlaces = 4096;

    // The files of plug-ins that were opened here, and not by anybody before.
    const std::set<std::string> &opened() const
    {
        return loaded_.opened;
    }

private:
    // The two ends of what plug-ins give and take. Each goes by itself, so that they do when the rest is never made.
    struct Loaded
    {
        vuRootNode &root;
        std::set<std::string> opened;

        Loaded(vuRootNode &owner, const std::string &folder, const NoticeSink &notice);
        ~Loaded();
    };

    struct Graph
    {
        pfGroup *top; // of the scene
        Held<pfGroup> group;

        explicit Graph(pfGroup *scene);
        ~Graph();
    };

    struct Shown
    {
        vuEffect *fx;
        std::uint64_t triggers = 0;
        std::uint64_t obtained = 0;
        std::uint64_t refused = 0;
        std::uint64_t wrong = 0; // words that are no instances
        bool toldRefusal = false;
        std::uintptr_t instances = 0; // the most at once
        std::uintptr_t particles = 0;
    };

    // An entity that is to smoke.
    struct Smoker
    {
        const OwnEntity *own; // null for one of the network, which has that identity
        vuEntityId id;
        vuEffectInst *smoke = nullptr;
        bool refused = false;  // no instance was free
        bool hopeless = false; // what the plug-in gave for one is none
    };

    static std::vector<Shown> allOf(const vuRootNode &root);
    Shown *find(const std::string &name);
    Shown &required(const std::string &name, const std::string &option);
    Shown *chosen(const std::optional<std::string> &name, const char *option, const char *usual);
    std::vector<std::pair<double, Shown *>> planned(const EffectOptions &options);
    void hang(const Shown &shown);
    void happen(Shown *shown, const double *location, const float *velocity);
    void trigger(Shown &shown, const vuFxEvent *event);
    vuEffectInst *instanceOf(Shown &shown, std::uintptr_t word);
    void refuse(Shown &shown, bool isAble);
    template<typename Event>
    void look(const vuEntity &entity, const vuEntityState &report, EntityLook &look, const OwnEntity *own,
              const Event &event);
    void lookAround(const std::vector<RemoteEntity *> &updated);
    void smoke(Smoker &smoker, vuFxEvent event);
    void stopSmoke(const Smoker &smoker);
    void moveSmoke(EntityTable &remotes);
    void measure();

    vuRootNode &root_;
    const LocalFrame &local_;
    std::deque<OwnEntity> &own_;
    NoticeSink notice_;
    std::vector<Shown> shown_; // as the root node's
    Shown *fire_;
    Shown *detonation_;
    Shown *smoke_;
    std::vector<std::pair<double, Shown *>> triggers_; // those to come, the latest first
    Loaded loaded_;
    Graph graph_;
    std::vector<std::pair<Shown *, vuFxEvent>> waiting_; // for the next frame
    std::vector<EntityLook> ownLooks_;
    std::map<std::uint32_t, Smoker> smokers_; // by the kernel's number of the entity
    std::vector<Vector3> places_;
};

} // namespace tolvin
