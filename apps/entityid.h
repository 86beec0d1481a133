// Identities of entities (IEEE 1278.1): site, application and entity.
#pragma once

#include <cstdint>
#include <string>

#include <tolvin/kernel/kerneldisstate.h>

namespace tolvin
{

// "SITE:APPLICATION:ENTITY".
std::string textOf(const vuEntityId &id);

// A number of its own for each.
std::uint64_t keyOf(const vuEntityId &id);

} // namespace tolvin
