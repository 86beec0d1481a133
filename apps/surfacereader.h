// The MATERIALLIST and TEXTURELIST blocks of a description, as records of the kernel.
#pragma once

#include "descriptionreader.h"

#include <tolvin/kernel/kernelgeneric.h>
#include <tolvin/kernel/kernelmaterial.h>
#include <tolvin/kernel/kerneltexture.h>

namespace tolvin
{

// Lists that belong to nobody else yet.
struct Surfaces
{
    vulist materialLists = {};
    vulist textureLists = {};

    Surfaces() = default;
    Surfaces(const Surfaces &) = delete;
    Surfaces &operator=(const Surfaces &) = delete;
    ~Surfaces();

    void moveTo(vuRootNode &root);

    // Takes all lists out of these, and releases them with all they hold.
    static void release(vulist &materialLists, vulist &textureLists);
};

class SurfaceReader
{
public:
    SurfaceReader(DescriptionReader &in, Surfaces &out);

    // Each reads a block, if its keyword stands here, and returns whether it does. Throws std::bad_alloc when the shared arena
    // is full.
    bool takeList();
    bool takeMisplaced(); // MATERIAL or TEXTURE

private:
    void materialList();
    void material(vulist &list);
    void textureList();
    void texture(vulist &list);
    bool textureAttribute(vuTexture &texture);
    void readRemark(vuTexture &texture) const;

    DescriptionReader &in_;
    Surfaces &out_;
};

} // namespace tolvin
