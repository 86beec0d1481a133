#include "scenereader.h"

#include <algorithm>
#include <type_traits>
#include <utility>

namespace tolvin
{

namespace
{

// Metres. What is farther away is not on this side of the Earth, and less is lost in the digits.
constexpr double kFarthest = 1e7;
constexpr double kShortest = 1e-3;

// More than any exercise needs, and few enough for the memory of any machine.
constexpr std::size_t kMostTerrains = 4096;
constexpr std::size_t kMostEntities = 65534;

constexpr std::size_t kProbes = 3;       // as many as the kernel tests
constexpr std::size_t kMostMarking = 11; // characters in a report

// What begins something in the block around, where a brace is missing then.
constexpr std::string_view kAroundTerrain[] = {"MATERIALLIST", "TEXTURELIST", "SCENE", "ENTITY", "EFFECT", "MATERIAL",
                                               "TEXTURE",      "TERRAIN",     "MODEL", "ORIGIN", "COLLIDE"};
constexpr std::string_view kAroundModel[] = {
    "MATERIALLIST", "TEXTURELIST", "SCENE",   "ENTITY", "EFFECT",  "MATERIAL", "TEXTURE",        "TERRAIN",
    "MODEL",        "ID",          "TYPE",    "FORCE",  "MARKING", "MOTION",   "FOLLOW_TERRAIN", "PROBE",
    "LIFT",         "START",       "HEADING", "HEIGHT", "MASK",    "SHM"};

// By kind of terrain.
constexpr std::string_view kOfCell[] = {"STEP", "RADIUS", "UNDULATION"};
constexpr std::string_view kOfPicture[] = {"SPACING", "HEIGHT", "CENTER"};
constexpr std::string_view kOfModel[] = {"CENTER", "UP", "SCALE"};
constexpr struct
{
    Keywords attributes;
    const char *kind;
} kTerrainAttributes[] = {{kOfCell, "a cell (.hgt)"}, {kOfPicture, "a picture (.png)"}, {kOfModel, "a model"}};

constexpr NamedCode kUpAxes[] = {{"Y", static_cast<int>(UpAxis::Y)}, {"Z", static_cast<int>(UpAxis::Z)}};
constexpr NamedCode kMotions[] = {{"DRIVE", VU_MOTION_DRIVE}, {"FLY", VU_MOTION_FLY}, {"NONE", VU_MOTION_NONE}};

std::string atMost(std::size_t count)
{
    return std::to_string(count) + " of them at most";
}

bool isControl(char c)
{
    return (c >= '\0' && c < ' ') || c == '\x7F';
}

std::string placeOf(const Token &token)
{
    return std::to_string(token.line) + ':' + std::to_string(token.column);
}

// A name as marking: reports have room for few characters, of ASCII.
std::string markingOf(const std::string &name)
{
    std::string marking = name.substr(0, kMostMarking);
    std::ranges::replace_if(
        marking, [](char c) { return c < ' ' || c > '~'; }, '?');
    return marking;
}

} // namespace

template<typename Record>
struct SceneReader::Attribute
{
    std::string_view keyword;
    void (*read)(SceneReader &, Record &);
    std::size_t most = 1; // of them in a block
    bool isBlock = false;
};

// Reads the attributes of a block up to its closing brace, and returns whether it is there.
template<typename Record, std::size_t kCount>
bool SceneReader::attributes(Record &record, const Attribute<Record> (&table)[kCount], Keywords around)
{
    std::array<std::string_view, kCount + 1> words;
    std::ranges::transform(table, words.begin(), &Attribute<Record>::keyword);
    words.back() = "}";
    const std::string expected = alternatives(words);
    std::array<std::size_t, kCount> counts = {};
    return in_.block(around, expected,
                     [&]
                     {
                         for (std::size_t i = 0; i < kCount; ++i)
                         {
                             const auto &[keyword, read, most, isBlock] = table[i];
                             const bool isHere = in_.isAt(keyword);
                             if (isHere && ++counts[i] > most)
                             {
                                 in_.complain(atMost(most));
                             }
                             if (isHere ? in_.takeKeyword(keyword) : isBlock && in_.takeMisspelt(expected, true))
                             {
                                 if constexpr (std::is_same_v<Record, TerrainDescription>)
                                 {
                                     requireKind(record);
                                 }
                                 read(*this, record);
                                 return true;
                             }
                         }
                         return false;
                     });
}

// Whether a block follows that may be left out; attributes without its brace are meant for it.
template<typename Record, std::size_t kCount>
bool SceneReader::hasBlock(const Attribute<Record> (&table)[kCount]) const
{
    return in_.token().kind == TokenKind::Open ||
           std::ranges::any_of(table, [this](const auto &attribute) { return in_.isAt(attribute.keyword); });
}

SceneReader::SceneReader(DescriptionReader &in, const Description &before, Description &out)
    : in_(in),
      out_(out),
      hasScene_(before.scene.has_value()),
      entities_(before.entities.size())
{
    for (const EntityDescription &entity : before.entities)
    {
        names_.insert(entity.name);
        if (entity.id)
        {
            identities_.insert({entity.id->site, entity.id->application, entity.id->entity});
        }
    }
}

bool SceneReader::takeBlock()
{
    if (in_.isAt("SCENE"))
    {
        if (std::exchange(hasScene_, true))
        {
            in_.complain(atMost(1));
        }
        in_.takeKeyword("SCENE");
        out_.scene = scene();
        return true;
    }
    const bool isEntity = in_.isAt("ENTITY");
    if (isEntity)
    {
        const bool hasRoom = ++entities_ <= kMostEntities;
        if (!hasRoom)
        {
            in_.complain(atMost(kMostEntities));
        }
        in_.takeKeyword("ENTITY");
        EntityDescription read = entity();
        if (hasRoom)
        {
            out_.entities.push_back(std::move(read));
        }
    }
    return isEntity;
}

bool SceneReader::takeMisplaced()
{
    if (in_.takeKeyword("TERRAIN"))
    {
        terrain();
        return true;
    }
    const bool isModel = in_.takeKeyword("MODEL");
    if (isModel)
    {
        model();
    }
    return isModel;
}

SceneDescription SceneReader::scene()
{
    static constexpr Attribute<SceneDescription> kAttributes[] = {
        {"ORIGIN", [](SceneReader &in, SceneDescription &scene) { in.origin(scene.origin); }},
        {"COLLIDE", [](SceneReader &in, SceneDescription &scene) { in.collide(scene.collide); }},
        {"TERRAIN",
         [](SceneReader &in, SceneDescription &scene)
         {
             TerrainDescription terrain = in.terrain();
             if (scene.terrains.size() < kMostTerrains)
             {
                 scene.terrains.push_back(std::move(terrain));
             }
         },
         kMostTerrains, true},
    };
    SceneDescription scene;
    scene.name = plainName();
    attributes(scene, kAttributes, kOuterKeywords);
    return scene;
}

TerrainDescription SceneReader::terrain()
{
    using Terrain = TerrainDescription;
    static constexpr Attribute<Terrain> kAttributes[] = {
        {"STEP", [](SceneReader &in, Terrain &terrain) { in.in_.wholeNumber(terrain.step, 1, 10000); }},
        {"RADIUS", [](SceneReader &in, Terrain &terrain) { in.length(terrain.radius); }},
        {"UNDULATION", [](SceneReader &in, Terrain &terrain) { in.metres(terrain.undulation); }},
        {"SPACING", [](SceneReader &in, Terrain &terrain) { in.length(terrain.spacing.emplace()); }},
        {"HEIGHT", [](SceneReader &in, Terrain &terrain) { in.heights(terrain); }},
        {"CENTER", [](SceneReader &in, Terrain &terrain) { in.eastNorth(terrain.center); }},
        {"UP", [](SceneReader &in, Terrain &terrain) { in.upAxis(terrain.model); }},
        {"SCALE", [](SceneReader &in, Terrain &terrain) { in.scale(terrain.model); }},
    };
    Terrain terrain;
    terrain.where = placeOf(in_.keyword());
    terrain.model.file = fileName();
    if (hasBlock(kAttributes))
    {
        in_.takeOpening();
        attributes(terrain, kAttributes, kAroundTerrain);
    }
    return terrain;
}

ModelDescription SceneReader::model()
{
    static constexpr Attribute<ModelDescription> kAttributes[] = {
        {"UP", [](SceneReader &in, ModelDescription &model) { in.upAxis(model); }},
        {"SCALE", [](SceneReader &in, ModelDescription &model) { in.scale(model); }},
    };
    ModelDescription model;
    model.file = fileName();
    if (hasBlock(kAttributes))
    {
        in_.takeOpening();
        attributes(model, kAttributes, kAroundModel);
    }
    return model;
}

EntityDescription SceneReader::entity()
{
    using Entity = EntityDescription;
    static constexpr Attribute<Entity> kAttributes[] = {
        {"MODEL", [](SceneReader &in, Entity &entity) { entity.model = in.model(); }, 1, true},
        {"ID", [](SceneReader &in, Entity &entity) { in.identity(entity.id.emplace()); }},
        {"TYPE", [](SceneReader &in, Entity &entity) { in.type(entity.type); }},
        {"FORCE", [](SceneReader &in, Entity &entity) { in.in_.wholeNumber(entity.force); }},
        {"MARKING", [](SceneReader &in, Entity &entity)
         { entity.marking = in.in_.asciiText(kMostMarking).value_or(std::string()); }},
        {"MOTION", [](SceneReader &in, Entity &entity)
         { entity.motion = static_cast<std::uint16_t>(in.in_.code(kMotions).value_or(VU_MOTION_NONE)); }},
        {"FOLLOW_TERRAIN", [](SceneReader &, Entity &entity) { entity.followTerrain = true; }},
        {"PROBE", [](SceneReader &in, Entity &entity) { in.probe(entity); }, kProbes},
        {"LIFT", [](SceneReader &in, Entity &entity) { in.length(entity.lift); }},
        {"START", [](SceneReader &in, Entity &entity) { in.eastNorth(entity.start); }},
        {"HEADING", [](SceneReader &in, Entity &entity) { in.in_.number(entity.heading, "degrees", -360.0, 360.0); }},
        {"HEIGHT", [](SceneReader &in, Entity &entity) { in.in_.number(entity.height, "metres", 0.0, kFarthest); }},
        {"MASK", [](SceneReader &in, Entity &entity) { in.in_.mask(entity.mask); }},
        {"SHM",
         [](SceneReader &in, Entity &entity)
         {
             in.in_.wholeNumber(entity.shmKey);
             in.in_.wholeNumber(entity.shmSize);
         }},
    };
    Entity entity;
    entity.where = placeOf(in_.keyword());
    entity.name = entityName();
    entity.marking = markingOf(entity.name);
    const bool isClosed = attributes(entity, kAttributes, kOuterKeywords);
    if (isClosed && !entity.probes.empty() && entity.probes.size() < kProbes)
    {
        in_.complainAt(in_.closing(), "}", std::to_string(kProbes) + " PROBEs or none");
    }
    return entity;
}

std::string SceneReader::entityName()
{
    const Token &name = in_.token();
    if (name.kind == TokenKind::Text && !names_.emplace(name.text).second)
    {
        in_.complain("a name that no other ENTITY has");
    }
    return plainName();
}

// One that maps and lists can show.
std::string SceneReader::plainName()
{
    const Token &name = in_.token();
    if (name.kind == TokenKind::Text && std::ranges::any_of(name.text, isControl))
    {
        in_.complain("a name without control characters");
    }
    return in_.blockName();
}

std::string SceneReader::fileName()
{
    constexpr const char *kExpected = "a file in quotes";
    if (in_.token().kind == TokenKind::Text && in_.token().text.empty())
    {
        in_.complain(kExpected);
    }
    return in_.quoted(kExpected);
}

void SceneReader::origin(Geodetic &origin)
{
    in_.number(origin.latitude, "a latitude", -90.0, 90.0);
    in_.number(origin.longitude, "a longitude", -180.0, 360.0);
    metres(origin.height);
}

void SceneReader::requireKind(const TerrainDescription &terrain)
{
    const auto &[attributes, kind] = kTerrainAttributes[static_cast<std::size_t>(terrainKindOf(terrain.model.file))];
    if (!terrain.model.file.empty() && std::ranges::find(attributes, in_.keyword().text) == attributes.end())
    {
        in_.complainAt(in_.keyword(), in_.keyword().text, alternatives(attributes) + " for " + kind);
    }
}

// Without a bit there would be no ground.
void SceneReader::collide(std::uint32_t &mask)
{
    const Token place = in_.token();
    in_.mask(mask);
    if (mask == 0)
    {
        in_.complainAt(place, place.text, "a mask with a bit");
    }
}

void SceneReader::upAxis(ModelDescription &model)
{
    model.up = static_cast<UpAxis>(in_.code(kUpAxes).value_or(static_cast<int>(model.up)));
}

// Of whatever unit the model has, to metres. Nothing that turns it inside out or flat.
void SceneReader::scale(ModelDescription &model)
{
    in_.number(model.scale, "a scale", 1e-6, 1e6);
}

void SceneReader::heights(TerrainDescription &terrain)
{
    const bool hasLowest = metres(terrain.lowest);
    const Token highest = in_.token();
    if (metres(terrain.highest) && hasLowest && terrain.highest <= terrain.lowest)
    {
        in_.complainAt(highest, std::string(highest.text), "more metres for white than for black");
    }
}

void SceneReader::identity(vuEntityId &id)
{
    // In an identity of DIS 0 stands for none, and 65535 for all: of the sites, applications or entities.
    constexpr std::uint16_t kFirst = 1;
    constexpr std::uint16_t kLast = 65534;
    const Token place = in_.token();
    bool isWhole = in_.wholeNumber(id.site, kFirst, kLast);
    isWhole &= in_.wholeNumber(id.application, kFirst, kLast);
    isWhole &= in_.wholeNumber(id.entity, kFirst, kLast);
    if (isWhole && !identities_.insert({id.site, id.application, id.entity}).second)
    {
        in_.complainAt(place,
                       std::to_string(id.site) + ' ' + std::to_string(id.application) + ' ' + std::to_string(id.entity),
                       "an identity that no other ENTITY has");
    }
}

void SceneReader::type(vuEntityType &type)
{
    in_.wholeNumber(type.kind);
    in_.wholeNumber(type.domain);
    in_.wholeNumber(type.country);
    in_.wholeNumber(type.category);
    in_.wholeNumber(type.subcategory);
    in_.wholeNumber(type.specific);
    in_.wholeNumber(type.extra);
}

void SceneReader::probe(EntityDescription &entity)
{
    std::array<float, 3> start = {};
    for (float &coordinate : start)
    {
        double value = 0.0;
        metres(value);
        coordinate = static_cast<float>(value);
    }
    if (entity.probes.size() < kProbes)
    {
        entity.probes.push_back(start);
    }
}

void SceneReader::eastNorth(std::array<double, 2> &place)
{
    metres(place[0]);
    metres(place[1]);
}

bool SceneReader::metres(double &value)
{
    return in_.number(value, "metres", -kFarthest, kFarthest);
}

void SceneReader::length(double &value)
{
    in_.number(value, "metres", kShortest, kFarthest);
}

} // namespace tolvin
