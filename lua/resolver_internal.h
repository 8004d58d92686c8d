// The resolver: local names to environment slots (with how many environments out they lie), the
// rest to global slots.
#pragma once

#include "ast_internal.h"
#include "globals_internal.h"

namespace korvel::lua {

// Resolves every name of the chunk in place. Throws LuaError for limits the environment layout cannot meet.
void resolveChunk(Chunk& chunk, GlobalSlots& globals);

} // namespace korvel::lua
