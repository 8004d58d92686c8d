// Publishing everything scripts can reach: the modules, the free helpers, the start-up globals
// and the misspelling aliases of true and false.
#pragma once

#include "core/korvel_script.h"

namespace quillfen {

// Into the host's engine.
void registerFunctions();
// Into any interpreter (tests use their own).
void registerFunctionsInto(korvel::KorvelScript& target);

}  // namespace quillfen
