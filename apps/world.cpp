#include "world.h"

#include "entityid.h"
#include "entitysegment.h"
#include "plaintext.h"
#include "scenenodes.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <numbers>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace tolvin
{

namespace
{

constexpr double kRadian = std::numbers::pi / 180.0;
constexpr double kSlopeReach = 3.0; // tangent of 71.6 degrees

template<typename Record>
Record *newRecord()
{
    void *const block = pfMalloc(sizeof(Record), pfGetSharedArena());
    if (block == nullptr)
    {
        throw std::bad_alloc();
    }
    std::memset(block, 0, sizeof(Record));
    return static_cast<Record *>(block);
}

// Degrees clockwise from north to radians counter-clockwise, from -pi to pi.
float psiOf(double heading)
{
    return static_cast<float>(std::remainder(-heading * kRadian, 2.0 * std::numbers::pi));
}

float degrees(float radians)
{
    return static_cast<float>(radians / kRadian);
}

std::string named(const EntityDescription &entity)
{
    return (entity.where.empty() ? "" : entity.where + ": ") + "ENTITY \"" + entity.name + '"';
}

bool follows(const vuEntity &entity)
{
    return (entity.entityFlags & VU_ENTITY_FOLLOW_TERRAIN) != 0;
}

bool canBeDriven(const EntityDescription &entity)
{
    return entity.motion == VU_MOTION_DRIVE || entity.motion == VU_MOTION_FLY;
}

pfDCS *transformationNode(const vuEntity &entity)
{
    return reinterpret_cast<pfDCS *>(entity.nodes[1]);
}

} // namespace

World::World(vuRootNode &root, const Description &description, const std::string &folder, const WorldOptions &options,
             NoticeSink notice)
    : root_(root),
      description_(description),
      folder_(folder),
      options_(options),
      notice_(std::move(notice))
{
    try
    {
        terrain_ = std::make_unique<Terrain>(*description.scene, folder);
        makeScene();
        for (const EntityDescription &entity : description.entities)
        {
            if (entity.id.has_value() && !isReceived(entity))
            {
                numbers_.insert(entity.id->entity);
            }
        }
        for (const EntityDescription &entity : description.entities)
        {
            addEntity(entity);
        }
        chooseDriven();
        settle();
    }
    catch (...)
    {
        release();
        throw;
    }
}

World::~World()
{
    release();
}

void World::makeScene()
{
    top_ = hold(pfNewScene(pfGetSharedArena()));
    addChild(top_.get(), asPfNode(terrain_->node()));
    vehicles_ = hold(pfNewGroup(pfGetSharedArena()));
    addChild(top_.get(), asPfNode(vehicles_.get()));
    pfNodeTravMask(asPfNode(vehicles_.get()), PFTRAV_ISECT, 0, PFTRAV_SELF, PF_SET);
    view_ = hold(pfNewChan(pfGetSharedArena()));
    pfChanScene(view_.get(), top_.get());
    channel_ = newRecord<vuChannel>();
    channel_->channel = view_.get();
    channel_->mouseInput = 1;
    setWindow(1280, 1024);

    scene_ = newRecord<vuScene>();
    vunodeInit(&scene_->node, description_.scene->name.c_str());
    vulistInit(&scene_->entities);
    scene_->sceneNode = asPfNode(top_.get());
    scene_->collideWord = description_.scene->collide;
    scene_->disSite = static_cast<std::uint8_t>(options_.site);
    scene_->disApplication = static_cast<std::uint8_t>(options_.application);
    vunodeAppend(&root_.scenes, &scene_->node);
}

void World::setWindow(int width, int height)
{
    channel_->width = width;
    channel_->height = height;
    pfChanWindowSize(channel_->channel, width, height);
}

// One of the description's, or the least number that is free. What is received has that of whoever sends it.
vuEntityId World::identityOf(const EntityDescription &entity)
{
    if (isReceived(entity))
    {
        return entity.id.value_or(vuEntityId{});
    }
    if (entity.id.has_value())
    {
        if (entity.id->site != options_.site || entity.id->application != options_.application)
        {
            throw std::runtime_error(named(entity) + ": ID " + textOf(*entity.id) + " does not begin with site " +
                                     std::to_string(options_.site) + " and application " +
                                     std::to_string(options_.application) + ", which this program has");
        }
        return *entity.id;
    }
    std::uint16_t number = 1;
    for (auto next = numbers_.begin(); next != numbers_.end() && *next <= number; ++next)
    {
        number = static_cast<std::uint16_t>(*next + 1);
    }
    numbers_.insert(number);
    return {options_.site, options_.application, number};
}

void World::addEntity(const EntityDescription &entity)
{
    const vuEntityId id = identityOf(entity);
    vuEntity *const record = newRecord<vuEntity>();
    entityInit(record, entity.name.c_str());
    entityAppend(scene_, record);
    OwnEntity &own = entities_.emplace_back();
    own.description = &entity;
    own.entity = record;
    record->disId = id;
    setState(own);
    addNodes(own);
    if (entity.shmSize > 0)
    {
        own.layout.size = entity.shmSize;
        own.definition.layout = &own.layout;
        record->shmKey = entity.shmKey;
    }
    own.definition.fileName = entity.model.has_value() ? const_cast<char *>(entity.model->file.c_str()) : nullptr;
    record->definition = &own.definition;
    // Not by DIS: it is not this record, in local coordinates, that dead reckoning moves.
    record->receive = isReceived(entity) ? VU_RECEIVE_UDP : 0;
    entityAllocVars(&root_, record);
    if (isReceived(entity) && varsOf(*record) == nullptr)
    {
        releaseSegment(*record);
        attachSegment(*record); // the former one may have been removed at that moment
    }
    if (entity.shmSize > 0 && record->vars == nullptr)
    {
        throw std::runtime_error(named(entity) + ": " +
                                 (entity.shmKey < VU_SHM_FIRST_KEY
                                      ? "no memory for its variables with key " + std::to_string(entity.shmKey)
                                      : whyNoSegment(entity.shmKey, entity.shmSize)));
    }
    own.isReceived = isReceived(entity);
    if (own.isReceived && !prepareSegment(*record))
    {
        throw std::runtime_error(named(entity) + ": " + foreignSegment(entity.shmKey));
    }
    if (entity.motion == VU_MOTION_NONE && entity.shmKey >= VU_SHM_FIRST_KEY && entity.shmSize > 0 && !own.isReceived)
    {
        notice_(named(entity) + " receives nothing: " + std::to_string(entity.shmSize) +
                " bytes of variables, expected at least " + std::to_string(sizeof(EntityVars)));
    }
}

// Where it starts, and what it reports.
void World::setState(OwnEntity &own)
{
    const EntityDescription &entity = *own.description;
    vuEntity &record = *own.entity;
    const auto [east, north] = entity.start;
    const std::optional<GroundPoint> ground = terrain_->groundAt(east, north);
    if (!ground.has_value() && entity.followTerrain)
    {
        throw std::runtime_error(named(entity) + ": there is no ground at its START");
    }
    own.height = ground.has_value() ? ground->height : 0.0;
    const double aloft = entity.motion == VU_MOTION_DRIVE && entity.followTerrain ? 0.0 : entity.height;
    record.position[0] = east;
    record.position[1] = north;
    record.position[2] = own.height + aloft;
    record.orientation[0] = psiOf(entity.heading);
    record.groundHeight = static_cast<float>(own.height);
    own.tested = {east, north};
    record.motionKind = entity.motion;
    record.entityFlags |= entity.followTerrain ? VU_ENTITY_FOLLOW_TERRAIN : 0;

    vuEntityState &es = record.xform.es;
    es.exerciseId = options_.exercise;
    es.entityId = record.disId;
    es.entityType = es.altEntityType = entity.type;
    es.forceId = entity.force;
    const std::string &marking = entity.marking.empty() ? entity.name : entity.marking;
    std::fill(std::begin(es.marking.text), std::end(es.marking.text), '\0');
    std::copy_n(marking.begin(), std::min(marking.size(), sizeof es.marking.text), es.marking.text);
    resetXForm(&record);
    stopXForm(&record); // takes over place and attitude
    record.recvTime = root_.simSeconds;
    record.pduTime = std::fmod(root_.simSeconds, 3600.0);
}

void World::addNodes(OwnEntity &own)
{
    void *const arena = pfGetSharedArena();
    const EntityDescription &entity = *own.description;
    vuEntity &record = *own.entity;
    const Held<pfDCS> origin = hold(pfNewDCS(arena));
    const Held<pfDCS> attitude = hold(pfNewDCS(arena));
    addChild(vehicles_.get(), asPfNode(origin.get()));
    addChild(origin.get(), asPfNode(attitude.get()));
    record.nodes[1] = asPfNode(origin.get());
    record.nodes[2] = asPfNode(attitude.get());
    pfNodeName(record.nodes[1], entity.name.c_str());
    if (entity.model.has_value())
    {
        addChild(attitude.get(), modelOf(entity));
    }
    record.word18 = entity.mask;
    // Of many vehicles that are ground for nobody, segments ask but once.
    pfNodeTravMask(asPfNode(vehicles_.get()), PFTRAV_ISECT, entity.mask, PFTRAV_SELF, PF_OR);
    pfNodeTravMask(record.nodes[1], PFTRAV_ISECT, entity.mask, PFTRAV_SELF, PF_SET);
    for (std::size_t i = 0; i < entity.probes.size(); ++i)
    {
        std::copy(entity.probes[i].begin(), entity.probes[i].end(), record.probes[i].pos);
        own.reach = std::max(own.reach, std::hypot(double{entity.probes[i][0]}, double{entity.probes[i][1]}));
    }
}

// Of entities with the same model, one.
pfNode *World::modelOf(const EntityDescription &entity)
{
    ModelDescription model = *entity.model;
    model.file = (std::filesystem::path(folder_) / model.file).string();
    const std::string key =
        model.file + '\n' + std::to_string(static_cast<int>(model.up)) + ' ' + std::to_string(model.scale);
    std::unique_ptr<ModelNodes> &nodes = models_[key];
    if (nodes != nullptr)
    {
        return nodes->node();
    }
    try
    {
        nodes = std::make_unique<ModelNodes>(model);
    }
    catch (const std::system_error &)
    {
        throw;
    }
    catch (const std::runtime_error &error)
    {
        throw std::runtime_error(named(entity) + ": " + error.what());
    }
    return nodes->node();
}

void World::chooseDriven()
{
    const std::string &name = options_.driven;
    for (OwnEntity &own : entities_)
    {
        const bool wanted = name.empty() ? canBeDriven(*own.description) : own.description->name == name;
        if (driven_ == nullptr && wanted)
        {
            driven_ = &own;
        }
    }
    if (!name.empty() && driven_ == nullptr)
    {
        throw std::runtime_error("the description has no ENTITY \"" + name + "\" to drive");
    }
    if (driven_ != nullptr && !canBeDriven(*driven_->description))
    {
        throw std::runtime_error(named(*driven_->description) + ": has neither MOTION DRIVE nor MOTION FLY");
    }
    root_.ownEntity = driven_ == nullptr ? nullptr : driven_->entity;
}

// The angles are those of localAttitude (publisher.h), from the matrix that it makes of them.
void World::show(OwnEntity &own, const vuEntity &remote)
{
    const LocalFrame &frame = terrain_->frame();
    const auto &[psi, theta, phi] = remote.orientation;
    const Matrix3 m = product(transposed(frame.rotation()), rotationOf({psi, theta, phi}));
    vuEntity &entity = *own.entity;
    entity.disId = remote.disId;
    std::ranges::copy(frame.toLocal({remote.position[0], remote.position[1], remote.position[2]}), entity.position);
    entity.orientation[0] = static_cast<float>(std::atan2(-m[0], m[3]));
    entity.orientation[1] = static_cast<float>(std::asin(std::clamp(m[6], -1.0, 1.0)));
    entity.orientation[2] = static_cast<float>(std::atan2(-m[7], -m[8]));
}

void World::drive(const pfuMouse &mouse)
{
    if (driven_ != nullptr)
    {
        driven_->entity->xform.es.velocity[2] = 0.0F; // the ground tells the height, not dead reckoning
        pfuSetMouse(&mouse);
        doXForm(&root_, driven_->entity, channel_);
    }
}

std::string World::drivenText() const
{
    if (driven_ == nullptr)
    {
        return "";
    }
    const vuEntity &entity = *driven_->entity;
    char text[120];
    std::snprintf(text, sizeof text, "%.0f m east, %.0f m north, height %.1f m, %.0f km/h", entity.position[0],
                  entity.position[1], entity.position[2], 3.6 * static_cast<double>(entity.xform.speed));
    return plainText(driven_->description->name) + ": " + text;
}

void World::settle()
{
    for (OwnEntity &own : entities_)
    {
        place(own);
        own.entity->groundDistance = -1.0F; // no distance; what has none afterwards has found no ground
    }
    checkCollisions(&root_);
    for (OwnEntity &own : entities_)
    {
        if (follows(*own.entity) && canBeDriven(*own.description))
        {
            settleOnGround(own);
        }
        placeModel(own);
    }
}

std::optional<double> World::groundBelow(const OwnEntity &own) const
{
    const vuEntity &entity = *own.entity;
    const double from = entity.position[2] + (follows(entity) ? own.lift : 0.0);
    const std::optional<GroundPoint> ground = terrain_->groundAt(entity.position[0], entity.position[1], from);
    return ground.has_value() ? std::optional(ground->height) : std::nullopt;
}

void World::settleOnGround(OwnEntity &own)
{
    vuEntity &entity = *own.entity;
    double &height = entity.xform.es.location[2];
    const std::uint64_t lost = own.lost;
    if (findGround(own))
    {
        height = entity.groundHeight;
    }
    // For others, who do not know the ground. What was put on it again has not climbed there.
    const double climbed = height - std::exchange(own.height, height);
    entity.xform.es.velocity[2] =
        own.lost == lost && root_.frameDelta > 0.0 ? static_cast<float>(climbed / root_.frameDelta) : 0.0F;
    // What flies along the ground has its report on it, and its place above it.
    entity.position[2] = height + (own.description->motion == VU_MOTION_FLY ? own.description->height : 0.0);
}

// The node that segments to the ground start from.
void World::place(OwnEntity &own)
{
    vuEntity &entity = *own.entity;
    const double moved = std::hypot(entity.position[0] - own.tested[0], entity.position[1] - own.tested[1]);
    own.tested = {entity.position[0], entity.position[1]};
    own.lift = std::max(own.description->lift, kSlopeReach * (moved + own.reach));
    const auto lift = static_cast<float>(own.lift);
    for (std::size_t i = 0; i < own.description->probes.size(); ++i)
    {
        entity.probes[i].length = 2.0F * lift; // as far down as up
    }
    pfDCS *const node = transformationNode(entity);
    pfDCSRot(node, degrees(entity.orientation[0]), 0.0F, 0.0F);
    pfDCSTrans(node, static_cast<float>(entity.position[0]), static_cast<float>(entity.position[1]),
               static_cast<float>(entity.position[2] + own.lift));
}

// The node with pitch and roll, and the model below it, from where segments start down to where the entity is.
void World::placeModel(OwnEntity &own)
{
    const vuEntity &entity = *own.entity;
    pfDCS *const origin = transformationNode(entity);
    pfDCSTrans(origin, static_cast<float>(entity.position[0]), static_cast<float>(entity.position[1]),
               static_cast<float>(entity.position[2] + own.lift));
    auto *const attitude = reinterpret_cast<pfDCS *>(entity.nodes[2]);
    pfDCSRot(attitude, 0.0F, degrees(entity.orientation[1]), degrees(entity.orientation[2]));
    pfDCSTrans(attitude, 0.0F, 0.0F, static_cast<float>(-own.lift));
}

// Whether there is ground below an entity that follows it. Where the kernel has found none it may be above.
bool World::findGround(OwnEntity &own)
{
    vuEntity &entity = *own.entity;
    if (entity.groundDistance >= 0.0F)
    {
        return true;
    }
    const std::optional<GroundPoint> ground = terrain_->groundAt(entity.position[0], entity.position[1]);
    if (!ground.has_value())
    {
        if (own.withoutGround++ == 0)
        {
            notice_(own.description->name + " is where there is no ground");
        }
        return false;
    }
    ++own.lost;
    entity.groundHeight = static_cast<float>(ground->height);
    entity.groundDistance = static_cast<float>(own.lift);
    const pfVec3 below = {static_cast<float>(entity.position[0]), static_cast<float>(entity.position[1]),
                          entity.groundHeight};
    for (auto &point : entity.groundPoints) // level, until the next frame finds them
    {
        std::ranges::copy(below, point);
    }
    return true;
}

void World::release()
{
    root_.ownEntity = nullptr;
    for (OwnEntity &own : entities_)
    {
        releaseSegment(*own.entity);
        vunodeDelete(&scene_->entities, &own.entity->node); // unlinks it and releases its name
        pfFree(own.entity->smooth);
        pfFree(own.entity);
    }
    entities_.clear();
    if (scene_ != nullptr)
    {
        vunodeDelete(&root_.scenes, &scene_->node);
        pfFree(scene_);
    }
    pfFree(channel_);
    view_.reset();
    vehicles_.reset();
    top_.reset(); // before what is in it
    models_.clear();
    terrain_.reset();
}

} // namespace tolvin
