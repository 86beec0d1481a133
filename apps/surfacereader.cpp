#include "surfacereader.h"

#include "kernelrecord.h"

#include <tolvin/performer/pf.h>

#include <charconv>

namespace tolvin
{

namespace
{

template<typename List>
List *newList(vulist &lists, void (*initialise)(List *, const char *), const std::string &name)
{
    auto *const list = allocateRecord<List>();
    initialise(list, name.c_str());
    vunodeAppend(&lists, &list->node);
    requireName(list->node);
    return list;
}

template<typename Record>
Record *firstOf(const vulist &list)
{
    return reinterpret_cast<Record *>(list.first);
}

void freeList(vulist &lists, vuMaterialList *list)
{
    materialFreeAll(list);
    pfFree(list->materials);
    vunodeDelete(&lists, &list->node);
    pfFree(list);
}

void freeList(vulist &lists, vuTextureList *list)
{
    for (vunode *node = list->list.first; node != nullptr; node = node->next)
    {
        auto *const texture = reinterpret_cast<vuTexture *>(node);
        pfFree(texture->file);
        texture->file = nullptr;
    }
    textureFreeAll(list);
    pfFree(list->textures);
    vunodeDelete(&lists, &list->node);
    pfFree(list);
}

// Of several codes with the same name in dumps the first.
constexpr NamedCode kInternalFormats[] = {{"LUMINANCE", 1},
                                          {"LUMINANCE_ALPHA", 3},
                                          {"LUMINANCE4_ALPHA4", 4},
                                          {"LUMINANCE12_ALPHA4", 5},
                                          {"LUMINANCE16_ALPHA16", 6},
                                          {"INTENSITY", 7},
                                          {"RGB", 9},
                                          {"RGB4", 10},
                                          {"RGBA", 12},
                                          {"RGBA4", 13},
                                          {"RGB5_A1", 14}};
constexpr NamedCode kFilters[] = {{"NEAREST", 0}, {"LINEAR", 1}};

// A filter that dumps have no name for; it is drawn as LINEAR is.
constexpr std::int16_t kFilterNotGiven = 2;

// Material attributes: keyword, bit of the mask, where the values go.
struct MaterialAttribute
{
    std::string_view keyword;
    std::uint32_t bit;
    std::span<float> (*values)(vuMaterial &);
};

constexpr MaterialAttribute kMaterialAttributes[] = {
    {"AMBIENT", VU_MATERIAL_AMBIENT, [](vuMaterial &m) { return std::span<float>(m.ambient); }},
    {"DIFFUSE", VU_MATERIAL_DIFFUSE, [](vuMaterial &m) { return std::span<float>(m.diffuse); }},
    {"SPECULAR", VU_MATERIAL_SPECULAR, [](vuMaterial &m) { return std::span<float>(m.specular); }},
    {"EMISSIVE", VU_MATERIAL_EMISSIVE, [](vuMaterial &m) { return std::span<float>(m.emissive); }},
    {"SHININESS", VU_MATERIAL_SHININESS, [](vuMaterial &m) { return std::span<float>(&m.shininess, 1); }},
    {"ALPHA", VU_MATERIAL_ALPHA, [](vuMaterial &m) { return std::span<float>(&m.alpha, 1); }},
};

} // namespace

Surfaces::~Surfaces()
{
    release(materialLists, textureLists);
}

void Surfaces::moveTo(vuRootNode &root)
{
    moveNodes(materialLists, root.materialLists);
    moveNodes(textureLists, root.textureLists);
}

void Surfaces::release(vulist &materialLists, vulist &textureLists)
{
    while (auto *const list = firstOf<vuMaterialList>(materialLists))
    {
        freeList(materialLists, list);
    }
    while (auto *const list = firstOf<vuTextureList>(textureLists))
    {
        freeList(textureLists, list);
    }
}

SurfaceReader::SurfaceReader(DescriptionReader &in, Surfaces &out) : in_(in), out_(out)
{
}

bool SurfaceReader::takeList()
{
    if (in_.takeKeyword("MATERIALLIST"))
    {
        materialList();
        return true;
    }
    const bool isTextures = in_.takeKeyword("TEXTURELIST");
    if (isTextures)
    {
        textureList();
    }
    return isTextures;
}

bool SurfaceReader::takeMisplaced()
{
    if (in_.takeKeyword("MATERIAL"))
    {
        material(newList<vuMaterialList>(out_.materialLists, materialListInit, "")->list);
        return true;
    }
    const bool isTexture = in_.takeKeyword("TEXTURE");
    if (isTexture)
    {
        texture(newList<vuTextureList>(out_.textureLists, textureListInit, "")->list);
    }
    return isTexture;
}

void SurfaceReader::materialList()
{
    auto *const list = newList<vuMaterialList>(out_.materialLists, materialListInit, in_.blockName());
    in_.block(kOuterKeywords, "MATERIAL or }",
              [&]
              {
                  const bool known = in_.takeKeyword("MATERIAL") || in_.takeMisspelt("MATERIAL or }");
                  if (known)
                  {
                      material(list->list);
                  }
                  return known;
              });
}

void SurfaceReader::material(vulist &list)
{
    const std::string name = in_.blockName();
    auto *const material = allocateRecord<vuMaterial>();
    materialInit(material, name.c_str());
    vunodeAppend(&list, &material->node);
    requireName(material->node);
    in_.block(kBlockKeywords, "AMBIENT, DIFFUSE, SPECULAR, EMISSIVE, SHININESS, ALPHA or }",
              [&]
              {
                  for (const auto &[keyword, bit, values] : kMaterialAttributes)
                  {
                      if (in_.takeKeyword(keyword))
                      {
                          in_.numbers(values(*material));
                          material->mask |= bit;
                          return true;
                      }
                  }
                  return false;
              });
}

void SurfaceReader::textureList()
{
    auto *const list = newList<vuTextureList>(out_.textureLists, textureListInit, in_.blockName());
    in_.block(kOuterKeywords, "FPS, TEXTURE or }",
              [&]
              {
                  if (in_.takeKeyword("FPS"))
                  {
                      in_.number(list->fps);
                      list->mask |= VU_TEXTURELIST_FPS;
                      return true;
                  }
                  const bool known = in_.takeKeyword("TEXTURE") || in_.takeMisspelt("FPS, TEXTURE or }");
                  if (known)
                  {
                      texture(list->list);
                  }
                  return known;
              });
}

void SurfaceReader::texture(vulist &list)
{
    constexpr const char *kExpected = "WRAP_S, WRAP_T, INTERNAL, MIN_FILTER, MAG_FILTER or }";
    const std::string name = in_.blockName();
    auto *const texture = allocateRecord<vuTexture>();
    textureInit(texture, name.c_str());
    vunodeAppend(&list, &texture->node);
    requireName(texture->node);
    texture->minFilter = texture->magFilter = kFilterNotGiven;
    if (in_.token().kind == TokenKind::Text)
    {
        texture->file = arenaCopyOf(in_.token().text);
        in_.advance();
    }
    else if (in_.token().kind == TokenKind::Word && !in_.isAtKeyword())
    {
        in_.refuse(std::string("a file in quotes, ") + kExpected);
    }
    if (in_.block(kBlockKeywords, kExpected, [&] { return textureAttribute(*texture); }))
    {
        readRemark(*texture);
    }
}

bool SurfaceReader::textureAttribute(vuTexture &texture)
{
    if (in_.takeKeyword("WRAP_S"))
    {
        texture.mask |= VU_TEXTURE_WRAP_S;
    }
    else if (in_.takeKeyword("WRAP_T"))
    {
        texture.mask |= VU_TEXTURE_WRAP_T;
    }
    else if (in_.takeKeyword("INTERNAL"))
    {
        texture.internal = static_cast<std::int16_t>(in_.code(kInternalFormats).value_or(0));
    }
    else if (in_.takeKeyword("MIN_FILTER"))
    {
        texture.minFilter = static_cast<std::int16_t>(in_.code(kFilters).value_or(1));
    }
    else if (in_.takeKeyword("MAG_FILTER"))
    {
        texture.magFilter = static_cast<std::int16_t>(in_.code(kFilters).value_or(1));
    }
    else
    {
        return false;
    }
    return true;
}

// The comment of a dump behind the closing brace.
void SurfaceReader::readRemark(vuTexture &texture) const
{
    std::string_view rest = in_.behindClosing();
    const auto take = [&rest](std::string_view before, auto &value)
    {
        const bool starts = rest.starts_with(before);
        rest.remove_prefix(starts ? before.size() : 0);
        const auto read = std::from_chars(rest.data(), rest.data() + rest.size(), value);
        rest.remove_prefix(static_cast<std::size_t>(read.ptr - rest.data()));
        return starts && read.ec == std::errc();
    };
    vuTexture seen = texture;
    if (take(" # ", seen.userValue) && take(" ", seen.width) && take("x", seen.height) && take("x", seen.components) &&
        rest.find_first_not_of(" \t\r") == std::string_view::npos)
    {
        texture = seen;
    }
}

} // namespace tolvin
