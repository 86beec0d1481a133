// The SCENE and ENTITY blocks of a description.
#pragma once

#include "descriptionreader.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <tuple>

namespace tolvin
{

class SceneReader
{
public:
    // before  what there is already, so that its names and identities are not free
    // out     receives what is read
    SceneReader(DescriptionReader &in, const Description &before, Description &out);

    // Each reads a block, if its keyword stands here, and returns whether it does.
    bool takeBlock();
    bool takeMisplaced(); // TERRAIN or MODEL

private:
    template<typename Record>
    struct Attribute;

    template<typename Record, std::size_t kCount>
    bool attributes(Record &record, const Attribute<Record> (&table)[kCount], Keywords around);

    template<typename Record, std::size_t kCount>
    bool hasBlock(const Attribute<Record> (&table)[kCount]) const;

    SceneDescription scene();
    TerrainDescription terrain();
    ModelDescription model();
    EntityDescription entity();
    std::string plainName();
    std::string entityName();
    std::string fileName();

    void requireKind(const TerrainDescription &terrain);
    void origin(Geodetic &origin);
    void collide(std::uint32_t &mask);
    void upAxis(ModelDescription &model);
    void scale(ModelDescription &model);
    void heights(TerrainDescription &terrain);
    void identity(vuEntityId &id);
    void type(vuEntityType &type);
    void probe(EntityDescription &entity);
    void eastNorth(std::array<double, 2> &place);
    bool metres(double &value);
    void length(double &value);

    using Identity = std::tuple<std::uint16_t, std::uint16_t, std::uint16_t>;

    DescriptionReader &in_;
    Description &out_;
    bool hasScene_;
    std::size_t entities_;
    std::set<std::string, std::less<>> names_;
    std::set<Identity> identities_;
};

} // namespace tolvin
