// The script bindings of the "Mirel" module's image functions and image files.
#pragma once

#include "host/bindings.h"

#include <vector>

namespace quillfen {

// The module's entries in table order, ready for makeModule(engine, "Mirel", ...). The second
// "getPixel" entry (the pixel writer) is kept as the table defines it; makeModule keeps the first.
std::vector<ModuleEntry> mirelModuleEntries();

}  // namespace quillfen
