// Reads any bytes as a description. What is taken has to survive being dumped and read again, and nothing may stay behind.
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <tolvin/apps/description.h>
#include <tolvin/kernel/kernelfx.h>
#include <tolvin/kernel/kernelmaterial.h>
#include <tolvin/kernel/kerneltexture.h>
#include <tolvin/performer/pf.h>

using namespace tolvin;

static void require(bool condition)
{
    if (!condition)
    {
        std::abort();
    }
}

static void dump(std::FILE *stream, const ModelDescription &model)
{
    std::fprintf(stream, "UP %c SCALE %.17g", model.up == UpAxis::Y ? 'Y' : 'Z', model.scale);
}

// What belongs to its kind.
static void dump(std::FILE *stream, const TerrainDescription &terrain)
{
    const TerrainKind kind = terrainKindOf(terrain.model.file);
    if (kind == TerrainKind::Cell)
    {
        std::fprintf(stream, "STEP %d RADIUS %.17g UNDULATION %.17g", terrain.step, terrain.radius, terrain.undulation);
        return;
    }
    std::fprintf(stream, "CENTER %.17g %.17g ", terrain.center[0], terrain.center[1]);
    if (kind == TerrainKind::Model)
    {
        dump(stream, terrain.model);
        return;
    }
    std::fprintf(stream, "HEIGHT %.17g %.17g", terrain.lowest, terrain.highest);
    if (terrain.spacing)
    {
        std::fprintf(stream, " SPACING %.17g", *terrain.spacing);
    }
}

static void dump(std::FILE *stream, const SceneDescription &scene)
{
    const auto &[latitude, longitude, height] = scene.origin;
    std::fprintf(stream, "SCENE \"%s\" { ORIGIN %.17g %.17g %.17g COLLIDE %#" PRIx32, scene.name.c_str(), latitude,
                 longitude, height, scene.collide);
    for (const TerrainDescription &terrain : scene.terrains)
    {
        std::fprintf(stream, "\nTERRAIN \"%s\" { ", terrain.model.file.c_str());
        dump(stream, terrain);
        std::fputs(" }", stream);
    }
    std::fputs(" }\n", stream);
}

static void dump(std::FILE *stream, const EntityDescription &entity)
{
    static constexpr const char *kMotions[] = {"NONE", "DRIVE", "FLY"};
    require(entity.marking.size() <= 11 && entity.motion <= VU_MOTION_FLY);
    require(entity.probes.empty() || entity.probes.size() == 3);
    std::fprintf(stream, "ENTITY \"%s\" { MARKING \"%s\" MOTION %s FORCE %d", entity.name.c_str(),
                 entity.marking.c_str(), kMotions[entity.motion], entity.force);
    const vuEntityType &type = entity.type;
    std::fprintf(stream, " TYPE %d %d %d %d %d %d %d", type.kind, type.domain, type.country, type.category,
                 type.subcategory, type.specific, type.extra);
    std::fprintf(stream,
                 " LIFT %.17g START %.17g %.17g HEADING %.17g HEIGHT %.17g MASK %" PRIu32 " SHM %" PRId32 " %" PRIu32,
                 entity.lift, entity.start[0], entity.start[1], entity.heading, entity.height, entity.mask,
                 entity.shmKey, entity.shmSize);
    for (const auto &[x, y, z] : entity.probes)
    {
        std::fprintf(stream, " PROBE %.9g %.9g %.9g", x, y, z);
    }
    if (entity.id)
    {
        std::fprintf(stream, " ID %d %d %d", entity.id->site, entity.id->application, entity.id->entity);
    }
    if (entity.model)
    {
        std::fprintf(stream, " MODEL \"%s\" { ", entity.model->file.c_str());
        dump(stream, *entity.model);
        std::fputs(" }", stream);
    }
    std::fputs(entity.followTerrain ? " FOLLOW_TERRAIN }\n" : " }\n", stream);
}

static void release(vuRootNode &root)
{
    releaseSurfaces(root);
    effectFreeAll(&root);
}

static std::string dump(vuRootNode &root, const Description &description)
{
    char *text = nullptr;
    std::size_t size = 0;
    std::FILE *const stream = open_memstream(&text, &size);
    materialListPrintList(&root, stream);
    textureListPrintList(&root, stream);
    if (description.scene)
    {
        dump(stream, *description.scene);
    }
    for (const EntityDescription &entity : description.entities)
    {
        dump(stream, entity);
    }
    effectPrintList(&root, stream);
    std::fclose(stream);
    std::string result(text, size);
    std::free(text);
    return result;
}

static std::size_t blocksInUse()
{
    pfArenaInfo info;
    pfGetArenaInfo(&info);
    return info.blocksInUse;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static vuRootNode *const root = []
    {
        auto *const made = new vuRootNode;
        initRootNode(made);
        return made;
    }();
    const std::size_t before = blocksInUse();
    const std::string text(reinterpret_cast<const char *>(data), size);
    Description description;
    if (readDescription(text, *root, description).empty())
    {
        const std::string first = dump(*root, description);
        release(*root);
        Description again;
        require(readDescription(first, *root, again).empty());
        require(dump(*root, again) == first);
    }
    else
    {
        require(!description.scene && description.entities.empty() && root->materialLists.first == nullptr &&
                root->effects.first == nullptr);
    }
    release(*root);
    require(blocksInUse() == before);
    return 0;
}
