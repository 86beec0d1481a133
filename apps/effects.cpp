#include "effects.h"

#include "counted.h"
#include "plaintext.h"
#include "pluginpath.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include <unistd.h>

namespace tolvin
{

namespace
{

constexpr std::uint8_t kPlatform = 1;      // kind of entity
constexpr std::uint8_t kNoDetonation = 6;  // result of a detonation: a dud
constexpr std::uint32_t kDamage = 3u << 3; // bits of an appearance; all of them: destroyed
constexpr std::uint32_t kSmokes = 3u << 5; // a plume, the engine
constexpr std::uint32_t kFlames = 1u << 15;
constexpr std::size_t kMostWaiting = 256;       // events of a frame; a flood of them is no longer to be told apart
constexpr std::uint8_t kFirstBodyAlgorithm = 6; // whose velocities are in the axes of the body

std::string quoted(const vuEffect &fx)
{
    return '"' + plainText(fx.node.name != nullptr ? fx.node.name : "") + '"';
}

// What lies before an object of the platform layer has to be there for it to tell what it is: asks the system, which does not
// stumble over what is not.
bool isReadable(std::uintptr_t address, std::size_t bytes)
{
    int ends[2];
    if (address < bytes || pipe(ends) != 0)
    {
        return false;
    }
    const bool readable = write(ends[1], reinterpret_cast<const void *>(address), bytes) == static_cast<ssize_t>(bytes);
    close(ends[0]);
    close(ends[1]);
    return readable;
}

// The node that a plug-in's word points to, if it does.
pfNode *nodeOf(std::uintptr_t word)
{
    constexpr std::uintptr_t kHead = 32; // bytes that a block has before it, in whole ones
    constexpr std::uintptr_t kAligned = 16;
    void *const object = reinterpret_cast<void *>(word);
    const bool isNode = word > kHead && word % kAligned == 0 && isReadable(word - kHead, kHead) &&
                        pfIsOfType(object, pfGetNodeClassType()) == 1;
    return isNode ? static_cast<pfNode *>(object) : nullptr;
}

// Whether a plug-in can mean a word as a number of things.
bool isCount(std::uintptr_t word)
{
    return word <= static_cast<std::uintptr_t>(INT32_MAX);
}

vuFxEvent eventAt(const Vector3 &place)
{
    vuFxEvent event = {};
    std::ranges::copy(place, event.position);
    event.scale = 1.0F;
    return event;
}

// From geocentric to local axes.
void turn(const LocalFrame &local, const float *from, float *to)
{
    const Vector3 turned = rotated(transposed(local.rotation()), {from[0], from[1], from[2]});
    std::ranges::transform(turned, to, [](double value) { return static_cast<float>(value); });
}

vuFxEvent eventOf(const OwnEntity &own)
{
    const double *const p = own.entity->position;
    vuFxEvent event = eventAt({p[0], p[1], p[2]});
    std::ranges::copy(own.entity->xform.es.velocity, event.velocity);
    return event;
}

vuFxEvent eventOf(const RemoteEntity &remote, const LocalFrame &local)
{
    const double *const p = remote.entity->position;
    vuFxEvent event = eventAt(local.toLocal({p[0], p[1], p[2]}));
    if (remote.algorithm < kFirstBodyAlgorithm)
    {
        turn(local, remote.entity->drState->velocity, event.velocity);
    }
    return event;
}

} // namespace

bool isDestroyed(const vuEntityType &type, std::uint32_t appearance)
{
    return type.kind == kPlatform && (appearance & kDamage) == kDamage;
}

bool isSmoking(const vuEntityType &type, std::uint32_t appearance)
{
    return isDestroyed(type, appearance) || (type.kind == kPlatform && (appearance & (kSmokes | kFlames)) != 0);
}

Effects::Loaded::Loaded(vuRootNode &owner, const std::string &folder, const NoticeSink &notice)
    : root(owner),
      opened(findPlugins(root, folder, notice))
{
    effectSetupAll(&root);
}

Effects::Loaded::~Loaded()
{
    effectUnloadAll(&root);
}

// Segments to the ground do not look into it.
Effects::Graph::Graph(pfGroup *scene) : top(scene), group(hold(pfNewGroup(pfGetSharedArena())))
{
    pfNodeTravMask(asPfNode(group.get()), PFTRAV_ISECT, 0, PFTRAV_SELF, PF_SET);
    addChild(top, asPfNode(group.get()));
}

Effects::Graph::~Graph()
{
    pfRemoveChild(top, asPfNode(group.get()));
    while (pfGetNumChildren(group.get()) > 0)
    {
        pfRemoveChild(group.get(), pfGetChild(group.get(), 0));
    }
}

Effects::Effects(vuRootNode &root, const std::string &folder, World &world, const EffectOptions &options,
                 NoticeSink notice)
    : root_(root),
      local_(world.terrain().frame()),
      own_(world.entities()),
      notice_(std::move(notice)),
      shown_(allOf(root)),
      fire_(chosen(options.fire, "--fire-effect", "fire")),
      detonation_(chosen(options.detonation, "--detonation-effect", "detonation")),
      smoke_(chosen(options.smoke, "--smoke-effect", "smoke")),
      triggers_(planned(options)),
      loaded_(root, folder, notice_),
      graph_(world.top()),
      ownLooks_(own_.size())
{
    std::ranges::for_each(shown_, [this](const Shown &shown) { hang(shown); });
}

std::vector<Effects::Shown> Effects::allOf(const vuRootNode &root)
{
    std::vector<Shown> all;
    for (vunode *node = root.effects.first; node != nullptr; node = node->next)
    {
        all.push_back({reinterpret_cast<vuEffect *>(node)});
    }
    return all;
}

Effects::Shown *Effects::find(const std::string &name)
{
    const vuEffect *const fx = effectSearchNamed(&root_, name.c_str());
    const auto found = std::ranges::find(shown_, fx, &Shown::fx);
    return found != shown_.end() ? &*found : nullptr;
}

Effects::Shown &Effects::required(const std::string &name, const std::string &option)
{
    Shown *const shown = find(name);
    if (shown == nullptr)
    {
        throw std::runtime_error(option + ": the description has no EFFECT \"" + plainText(name) + '"');
    }
    return *shown;
}

Effects::Shown *Effects::chosen(const std::optional<std::string> &name, const char *option, const char *usual)
{
    return name.has_value() ? &required(*name, option) : find(usual);
}

std::vector<std::pair<double, Effects::Shown *>> Effects::planned(const EffectOptions &options)
{
    std::vector<std::pair<double, Shown *>> planned;
    for (const auto &[time, name] : options.triggers)
    {
        planned.emplace_back(time, &required(name, "--trigger"));
    }
    std::ranges::stable_sort(planned, {}, [](const auto &trigger) { return trigger.first; });
    std::ranges::reverse(planned);
    return planned;
}

void Effects::hang(const Shown &shown)
{
    const std::uintptr_t word = effectGetData(&root_, shown.fx, VU_FX_NODE, 0);
    if (word == 0)
    {
        return;
    }
    pfNode *const node = nodeOf(word);
    pfGroup *const group = graph_.group.get();
    const bool isThere = node != nullptr && pfSearchChild(group, node) >= 0;
    const bool isOthers = node != nullptr && !isThere && pfGetNumParents(node) > 0;
    if (node == nullptr || isOthers || (!isThere && pfAddChild(group, node) != 1))
    {
        notice_("EFFECT " + quoted(*shown.fx) + ": what its plug-in gives as node cannot be shown");
    }
}

// In order of their coming.
void Effects::happen(Shown *shown, const double *location, const float *velocity)
{
    if (shown == nullptr)
    {
        return;
    }
    if (waiting_.size() == kMostWaiting)
    {
        ++shown->triggers;
        ++shown->refused;
        return;
    }
    vuFxEvent event = eventAt(local_.toLocal({location[0], location[1], location[2]}));
    turn(local_, velocity, event.direction);
    waiting_.emplace_back(shown, event);
}

void Effects::take(const Fire &fire)
{
    happen(fire_, fire.location, fire.velocity);
}

void Effects::take(const Detonation &detonation)
{
    happen(detonation.result == kNoDetonation ? nullptr : detonation_, detonation.location, detonation.velocity);
}

//   event  null: where and how the settings say
void Effects::trigger(Shown &shown, const vuFxEvent *event)
{
    const std::uintptr_t word = effectTrigger(&root_, shown.fx, reinterpret_cast<std::uintptr_t>(event));
    ++shown.triggers;
    if (instanceOf(shown, word) == nullptr && word == 0)
    {
        refuse(shown, shown.fx->fxTrigger != nullptr);
    }
    if (word != 0 && places_.size() < kMostPlaces)
    {
        const float *const p = shown.fx->position;
        places_.push_back(event == nullptr ? Vector3{p[0], p[1], p[2]}
                                           : Vector3{event->position[0], event->position[1], event->position[2]});
    }
}

// The instance that a plug-in's word points to; null when it is none.
vuEffectInst *Effects::instanceOf(Shown &shown, std::uintptr_t word)
{
    const vuEffect &fx = *shown.fx;
    const std::uintptr_t offset = word - reinterpret_cast<std::uintptr_t>(fx.inst);
    const std::uintptr_t index = offset / sizeof(vuEffectInst);
    if (word != 0 && offset % sizeof(vuEffectInst) == 0 && index < static_cast<std::uintptr_t>(fx.numInst))
    {
        return &fx.inst[index];
    }
    if (word != 0 && shown.wrong++ == 0)
    {
        notice_("EFFECT " + quoted(fx) + ": its plug-in gives what is no instance (further times are only counted)");
    }
    return nullptr;
}

//   isAble  whether the plug-in has what was asked for; what it lacks, and that there is none, was told when it was opened
void Effects::refuse(Shown &shown, bool isAble)
{
    ++shown.refused;
    if (isAble && !std::exchange(shown.toldRefusal, true))
    {
        notice_("EFFECT " + quoted(*shown.fx) + ": no instance is free (further times are only counted)");
    }
}

void Effects::frame(double time, EntityTable &remotes, const std::vector<RemoteEntity *> &updated)
{
    for (; !triggers_.empty() && triggers_.back().first <= time; triggers_.pop_back())
    {
        trigger(*triggers_.back().second, nullptr);
    }
    for (const auto &[shown, event] : waiting_)
    {
        trigger(*shown, &event);
    }
    waiting_.clear();
    lookAround(updated);
    moveSmoke(remotes);
    effectUpdate(&root_);
    measure();
}

// What entities of the network look like is news only with a report, and few of many have one.
void Effects::lookAround(const std::vector<RemoteEntity *> &updated)
{
    for (std::size_t i = 0; i < own_.size(); ++i)
    {
        const OwnEntity &own = own_[i];
        look(*own.entity, own.entity->xform.es, ownLooks_[i], &own, [&] { return eventOf(own); });
    }
    for (RemoteEntity *const remote : updated)
    {
        look(*remote->entity, *remote->entity->drState, remote->look, nullptr,
             [&] { return eventOf(*remote, local_); });
    }
}

// An entity that is destroyed when it is first seen was so before.
//   own    null for an entity of the network
//   event  gives where it is; few are asked
template<typename Event>
void Effects::look(const vuEntity &entity, const vuEntityState &report, EntityLook &look, const OwnEntity *own,
                   const Event &event)
{
    const bool destroyed = isDestroyed(report.entityType, report.appearance);
    if (destroyed && !look.destroyed && look.known && detonation_ != nullptr)
    {
        const vuFxEvent blast = event();
        trigger(*detonation_, &blast);
    }
    look = {true, destroyed};
    if (smoke_ != nullptr && isSmoking(report.entityType, report.appearance))
    {
        smokers_.try_emplace(entity.id, Smoker{own, entity.disId});
    }
    else if (const auto smoker = smokers_.find(entity.id); smoker != smokers_.end())
    {
        stopSmoke(smoker->second);
        smokers_.erase(smoker);
    }
}

void Effects::moveSmoke(EntityTable &remotes)
{
    for (auto it = smokers_.begin(); it != smokers_.end();)
    {
        auto &[number, smoker] = *it;
        const RemoteEntity *const remote = smoker.own == nullptr ? remotes.find(smoker.id) : nullptr;
        const bool isGone = smoker.own == nullptr && (remote == nullptr || remote->entity->id != number);
        if (isGone)
        {
            stopSmoke(smoker);
            it = smokers_.erase(it);
            continue;
        }
        smoke(smoker, remote != nullptr ? eventOf(*remote, local_) : eventOf(*smoker.own));
        ++it;
    }
}

// One for which no instance was free asks again in each frame, and counts once.
void Effects::smoke(Smoker &smoker, vuFxEvent event)
{
    vuEffect *const fx = smoke_->fx;
    if (smoker.smoke != nullptr)
    {
        effectSetInstData(&root_, fx, VU_FX_INST_POSITION, reinterpret_cast<std::uintptr_t>(smoker.smoke),
                          reinterpret_cast<std::uintptr_t>(event.position));
        return;
    }
    if (smoker.hopeless)
    {
        return;
    }
    const std::uintptr_t word = effectObtain(&root_, fx, reinterpret_cast<std::uintptr_t>(&event));
    smoker.smoke = instanceOf(*smoke_, word);
    smoker.hopeless = word != 0 && smoker.smoke == nullptr;
    if (smoker.smoke != nullptr)
    {
        ++smoke_->obtained;
    }
    else if (!smoker.hopeless && !std::exchange(smoker.refused, true))
    {
        refuse(*smoke_, fx->fxObtain != nullptr);
    }
}

void Effects::stopSmoke(const Smoker &smoker)
{
    if (smoker.smoke != nullptr)
    {
        effectStopInst(&root_, smoke_->fx, smoker.smoke);
    }
}

void Effects::measure()
{
    for (Shown &shown : shown_)
    {
        const std::uintptr_t instances = effectGetData(&root_, shown.fx, VU_FX_ACTIVE, 0);
        const std::uintptr_t particles = effectGetData(&root_, shown.fx, VU_FX_PARTICLES, 0);
        shown.instances = std::max(shown.instances, isCount(instances) ? instances : 0);
        shown.particles = std::max(shown.particles, isCount(particles) ? particles : 0);
    }
}

void Effects::printSummary(std::FILE *out) const
{
    if (shown_.empty())
    {
        return;
    }
    const auto number = [](std::uint64_t n) { return static_cast<unsigned long long>(n); };
    std::fprintf(out, "\n%s\n", counted(shown_.size(), "effect").c_str());
    for (const Shown &shown : shown_)
    {
        std::fprintf(out, "  %s: %s, obtained %llu, refused %llu; ", quoted(*shown.fx).c_str(),
                     counted(shown.triggers, "trigger").c_str(), number(shown.obtained), number(shown.refused));
        if (shown.fx->handle == nullptr)
        {
            std::fputs("without a plug-in", out);
        }
        else
        {
            std::fprintf(out, "at most %s and %s at once", counted(shown.instances, "instance").c_str(),
                         counted(shown.particles, "particle").c_str());
        }
        if (shown.wrong > 0)
        {
            std::fprintf(out, "; gave what is no instance %s", counted(shown.wrong, "time").c_str());
        }
        std::fputc('\n', out);
    }
    if (!triggers_.empty())
    {
        std::fprintf(out, "  %s to come later\n", counted(triggers_.size(), "trigger").c_str());
    }
}

} // namespace tolvin
