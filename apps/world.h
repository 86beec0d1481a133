// The own side of an exercise: the scene of a description with its terrain and entities, one of which may be driven.
#pragma once

#include "arenaowner.h"
#include "description.h"
#include "terrain.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <tolvin/kernel/tolvin.h>
#include <tolvin/performer/pf.h>

namespace tolvin
{

class ModelNodes;

// An entity of the description. Its place and attitude are those of the kernel's record: position in the local frame, of the
// point of the model that stands on the ground.
struct OwnEntity
{
    const EntityDescription *description = nullptr;
    vuEntity *entity = nullptr;
    double lift = 0.0;      // metres from its position up to the origin of its transformation node, in this frame
    std::uint64_t lost = 0; // times that the ground was lost and found again
    std::uint64_t withoutGround = 0; // frames without any
    double reach = 0.0;              // metres from its origin to the farthest probe, on the map
    std::array<double, 2> tested{};  // where it was when its ground was looked for
    double height = 0.0;             // of the ground that it followed, then
    bool isReceived = false;         // its reports come by its segment (entitysegment.h)
    vuDefinition definition{};
    vuVariablesLayout layout{};
};

struct WorldOptions
{
    std::uint8_t exercise = 1;
    std::uint16_t site = 1; // of entities without identity, and what that of the others has to be
    std::uint16_t application = 1000;
    std::string driven; // name; empty for the first one that can be
};

// Each frame: drive(), then updateEntityPositions() (alone, or as part of DisInput::frame), then settle().
//
// Segments to the ground begin at an entity's transformation node (nodes[1]), which keeps LIFT metres above the wheels, or three
// times as far as the entity went in this frame and its probes reach: no slope under 70 degrees brings it under the ground. Pitch and roll are in a
// node below that one (nodes[2]), so that the probes stay where they are on the map. An entity that finds no ground below is put
// on the highest ground at its place, if there is any.
class World
{
public:
    // A line for the person at the screen, without a newline.
    using NoticeSink = std::function<void(const std::string &line)>;

    // Reads terrain and models (files beside `folder`), makes the scene and appends it to the root node's scenes, and puts the
    // entities on the ground. root and description outlive the world. Throws std::runtime_error that names what is wrong,
    // std::bad_alloc when the arena is full.
    World(vuRootNode &root, const Description &description, const std::string &folder, const WorldOptions &options,
          NoticeSink notice);
    ~World();

    World(const World &) = delete;
    World &operator=(const World &) = delete;

    // A line about the driven entity; empty without one.
    std::string drivenText() const;

    const Terrain &terrain() const
    {
        return *terrain_;
    }

    // The top of the scene's graph, for what is added to it; whoever adds takes it out before the world goes.
    pfGroup *top()
    {
        return asPfGroup(top_.get());
    }

    // Null when there is none that can be driven.
    OwnEntity *driven()
    {
        return driven_;
    }

    const OwnEntity *driven() const
    {
        return driven_;
    }

    std::deque<OwnEntity> &entities()
    {
        return entities_;
    }

    const std::deque<OwnEntity> &entities() const
    {
        return entities_;
    }

    // The size of the window that mouse input refers to.
    void setWindow(int width, int height);

    // Height of the ground below an entity, if there is any. It is asked for by itself, not what the entity followed, so that it
    // tells how well it does.
    std::optional<double> groundBelow(const OwnEntity &own) const;

    // The driven entity's part of a frame, with that mouse.
    void drive(const pfuMouse &mouse);

    // Puts an entity where that one, in geocentric coordinates, is.
    void show(OwnEntity &own, const vuEntity &remote);

    // After the entities have moved: place their nodes, find the ground, and set those that follow it on it.
    void settle();

private:
    void makeScene();
    void addEntity(const EntityDescription &entity);
    void setState(OwnEntity &own);
    void addNodes(OwnEntity &own);
    void chooseDriven();
    pfNode *modelOf(const EntityDescription &entity);
    vuEntityId identityOf(const EntityDescription &entity);
    void place(OwnEntity &own);
    void placeModel(OwnEntity &own);
    void settleOnGround(OwnEntity &own);
    bool findGround(OwnEntity &own);
    void release();

    vuRootNode &root_;
    const Description &description_;
    std::string folder_;
    WorldOptions options_;
    NoticeSink notice_;
    std::unique_ptr<Terrain> terrain_;
    std::unordered_map<std::string, std::unique_ptr<ModelNodes>> models_;
    std::deque<OwnEntity> entities_; // records stay where they are
    OwnEntity *driven_ = nullptr;
    vuScene *scene_ = nullptr;
    Held<pfScene> top_;
    Held<pfGroup> vehicles_;          // the nodes of all entities
    std::set<std::uint16_t> numbers_; // of entities, taken
    Held<pfChannel> view_;
    vuChannel *channel_ = nullptr;
};

} // namespace tolvin
