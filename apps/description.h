// Description files: the text form of what the application hands to the kernel, in the syntax of the kernel's dumps.
//
//   MATERIALLIST "name" {
//     MATERIAL "name" { AMBIENT r g b  DIFFUSE r g b  SPECULAR r g b  EMISSIVE r g b  SHININESS s  ALPHA a }
//   }
//   TEXTURELIST "name" {
//     FPS 25
//     TEXTURE "name" { "file" WRAP_S WRAP_T INTERNAL RGBA MIN_FILTER LINEAR MAG_FILTER NEAREST } # 7 256x128x3
//   }
//   SCENE "name" {
//     ORIGIN 47.5 11.25 650                        # latitude, longitude, metres above the ellipsoid: of the local frame
//     COLLIDE 1                                    # bits of what counts as ground, this one unless given; terrain
//                                                  # has all bits, an entity those of its MASK
//     TERRAIN "N47E011.hgt" { STEP 1  RADIUS 20000  UNDULATION 46.5 }
//     TERRAIN "valley.png" { SPACING 16  HEIGHT 600 1100  CENTER 0 0 }
//     TERRAIN "town.obj" { UP Z  SCALE 1  CENTER 0 0 }
//   }
//   ENTITY "jeep" {
//     MODEL "jeep.obj" { UP Z  SCALE 1 }           # lengths in metres, y ahead, x to the right, the ground below at z 0
//     ID 1 1000 1                                  # site, application, entity
//     TYPE 1 1 225 6 1 0 0                         # kind, domain, country, category, subcategory, specific, extra
//     FORCE 1  MARKING "JEEP 1"
//     MOTION DRIVE                                 # or FLY, NONE
//     FOLLOW_TERRAIN
//     PROBE 0.9 1.4 0  PROBE -0.9 1.4 0  PROBE 0 -1.4 0   # right front, left front, rear
//     LIFT 25                                      # metres from the ground up to where segments to the ground begin
//     START -500 1200  HEADING 90  HEIGHT 100      # metres east, north; degrees clockwise; metres above the ground
//     MASK 0xfffffffe                              # these unless given: no ground for others but with a COLLIDE for it
//     SHM 2001 64                                  # shared-memory key, bytes of variables
//   }
//   EFFECT "blast" {
//     "blast.so"                                   # plug-in; without one nothing is to be seen
//     COLOUR 1 0.8 0.6 1                           # red, green, blue, alpha
//     NUM 16                                       # instances, up to 65536
//     DURATION 4  FADE 1.5                         # seconds; and those of them, at the end, in which it disappears
//     MASK_DRAW 0x0000ffff                         # bits of the channels that draw it
//     PARAMETER "debris 24"                        # text for the plug-in
//     ENTITYNODE "jeep"                            # where it goes on
//     POSITION 100 200 650  DIRECTION 0 0 1        # metres east, north, up: where, and where to, unless something tells
//     LINKFX "smoke"                               # another effect, to begin with it
//   }
//
// White space separates, # begins a comment that ends with the line. Attributes may be left out and stand in any order; the
// file of a texture comes first, and a block without attributes behind TERRAIN or MODEL may be left out. The comment behind
// a texture, where it has the form above, gives its user value and the size of its image, so that a dump read back and
// dumped again is the same text. Filters that dumps have no name for are not told apart then: they become LINEAR, without
// the name. Numbers have the six digits that dumps give them.
#pragma once

#include "geodesy.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tolvin/kernel/kernelentity.h>
#include <tolvin/kernel/kernelgeneric.h>

namespace tolvin
{

struct DescriptionError
{
    int line;         // from 1
    int column;       // from 1, in bytes
    std::string text; // what was found and what was expected
};

enum class UpAxis
{
    Y,
    Z
};

struct ModelDescription
{
    std::string file;
    UpAxis up = UpAxis::Z;
    double scale = 1.0;
};

// What a file's name tells by its end, in capitals or not: cells of heights (.hgt), pictures of heights (.png), others are models.
enum class TerrainKind
{
    Cell,
    Picture,
    Model
};

TerrainKind terrainKindOf(const std::string &file);

// What of it counts depends on the kind of file; descriptions that give other attributes are refused.
struct TerrainDescription
{
    ModelDescription model;                    // the file, whatever it is
    std::optional<double> spacing;             // of a picture: metres from pixel to pixel
    double lowest = 0.0;                       // of a picture: metres of black
    double highest = 100.0;                    // and of white
    std::array<double, 2> center = {0.0, 0.0}; // of a picture, or of a model's origin: metres east and north
    int step = 1;                              // of a cell: every so manieth sample is used
    double radius = 20000.0;                   // of a cell: metres around the origin; what is beyond is left out
    double undulation = 0.0;                   // of a cell: metres of the geoid above the ellipsoid
    std::string where;                         // its keyword: FILE:LINE:COLUMN, LINE:COLUMN of a text; else empty
};

struct SceneDescription
{
    std::string name;
    Geodetic origin;
    std::uint32_t collide = 1; // not 0
    std::vector<TerrainDescription> terrains;
};

struct EntityDescription
{
    std::string name;
    std::optional<ModelDescription> model;
    std::optional<vuEntityId> id; // none: the application gives it one
    vuEntityType type = {};
    std::uint8_t force = 0;
    std::string marking; // at most 11 bytes; the name, cut, when there is none
    std::uint16_t motion = VU_MOTION_NONE;
    bool followTerrain = false;
    std::vector<std::array<float, 3>> probes; // none or three
    double lift = 25.0;
    std::array<double, 2> start = {0.0, 0.0};
    double heading = 0.0;            // degrees clockwise from north
    double height = 0.0;             // metres above the ground
    std::uint32_t mask = 0xfffffffe; // no ground for others, with a scene's default
    std::int32_t shmKey = 0;
    std::uint32_t shmSize = 0; // bytes
    std::string where;         // FILE:LINE:COLUMN, as of a terrain
};

// What does not go into the root node.
struct Description
{
    std::optional<SceneDescription> scene;
    std::vector<EntityDescription> entities;
    std::string effect; // where the first EFFECT is, as of a terrain; empty without any
};

// Appends the lists and effects of the text to the root node's, and scene and entities to the description; a second SCENE is
// an error, as are two ENTITYs of one name or identity, and two EFFECTs of one name. With any error nothing is appended; all errors are returned, up to
// kMostErrors, in the order of the text, and one more that tells that there are others. Throws std::bad_alloc when the
// shared arena is full.
std::vector<DescriptionError> readDescription(std::string_view text, vuRootNode &root, Description &description);

constexpr std::size_t kMostErrors = 100;

// Reads a file likewise. Throws std::runtime_error that has a line "FILE:LINE:COLUMN: ..." for each error, or tells why the
// file cannot be read.
void readDescriptionFile(const std::string &file, vuRootNode &root, Description &description);

// The scene and the entities of a file alone, as readDescriptionFile has them.
Description readSceneFile(const std::string &file);

// Takes all material and texture lists from the root node and releases them with all they hold. Effects go with effectFreeAll.
void releaseSurfaces(vuRootNode &root);

} // namespace tolvin
