// The EFFECT blocks of a description, as records of the kernel.
#pragma once

#include "descriptionreader.h"

#include <functional>
#include <set>
#include <string>

#include <tolvin/kernel/kernelfx.h>
#include <tolvin/kernel/kernelgeneric.h>

namespace tolvin
{

// Effects that belong to nobody else yet.
struct EffectRecords
{
    vulist list = {};

    EffectRecords() = default;
    EffectRecords(const EffectRecords &) = delete;
    EffectRecords &operator=(const EffectRecords &) = delete;
    ~EffectRecords();
};

class EffectReader
{
public:
    // before  effects that there are already, so that their names are not free
    // out     receives what is read
    // where   receives LINE:COLUMN of the first one
    EffectReader(DescriptionReader &in, const vulist &before, vulist &out, std::string &where);

    // Reads a block, if its keyword stands here, and returns whether it does. Throws std::bad_alloc when the shared arena is full.
    bool takeBlock();

private:
    struct Attribute;

    void effect();
    std::string uniqueName();
    void pluginFile(vuEffect &fx, const std::string &expected);

    DescriptionReader &in_;
    vulist &out_;
    std::string &where_;
    std::set<std::string, std::less<>> names_;
};

} // namespace tolvin
