#include "entityid.h"

namespace tolvin
{

std::string textOf(const vuEntityId &id)
{
    return std::to_string(id.site) + ':' + std::to_string(id.application) + ':' + std::to_string(id.entity);
}

std::uint64_t keyOf(const vuEntityId &id)
{
    return std::uint64_t{id.site} << 32 | std::uint64_t{id.application} << 16 | id.entity;
}

} // namespace tolvin
