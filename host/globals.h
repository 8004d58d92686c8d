// The script-visible globals the host publishes once at start-up: capability flags, kind
// constants, screen defaults, the machine description and the game's constant tables.
#pragma once

#include "core/korvel_script.h"

#include <cstddef>

namespace quillfen {

// Publishes every global, in the documented order, into `target`.
void publishGlobals(korvel::KorvelScript& target);

// A platform text query (buffer, capacity) -> non-zero on success.
using PlatformQuery = int (*)(char*, std::size_t);

// Publishes `first` under `name`, then replaces it with the text of `query` when the query
// succeeds with a 512-byte buffer; a failing query leaves `first` in place.
void publishPlatformText(korvel::KorvelScript& target, const char* name, korvel::Variable first, PlatformQuery query);

}  // namespace quillfen
