// The Audio module: tracks opened from sound files, played, paused, saved and freed by scripts.
#pragma once

#include "host/bindings.h"

#include <vector>

namespace quillfen {

// "open", "play", "pause", "free", "clear" and "save", in the module's table order.
std::vector<ModuleEntry> audioModuleEntries();

}  // namespace quillfen
