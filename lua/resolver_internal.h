// The resolver: local names to frame slots, captured locals to boxes and upvalues, the rest to
// global slots.
#pragma once

#include "ast_internal.h"
#include "globals_internal.h"

namespace korvel::lua {

// Resolves every name of the chunk in place. Throws LuaError for limits the frame layout cannot meet.
void resolveChunk(Chunk& chunk, GlobalSlots& globals);

} // namespace korvel::lua
