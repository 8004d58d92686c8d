// The module registry. Modules are published in a fixed order (Metal, Sailfish, Korvel, Ruby,
// Lua, Audio, AI, Font, Cairn, Mirel); a module joins the list, in its place, when the
// subsystem behind it is part of the engine.
#include "host/registry.h"

#include "graphics/mirel_bindings.h"
#include "host/audio_module.h"
#include "host/bindings.h"
#include "host/globals.h"
#include "host/host.h"
#include "host/korvel_module.h"

namespace quillfen {

void registerFunctionsInto(korvel::KorvelScript& target) {
    makeModule(target, "Korvel", korvelModuleEntries(target));
    makeModule(target, "Audio", audioModuleEntries());
    makeModule(target, "Mirel", mirelModuleEntries());

    registerGlobalHelpers(target);
    publishGlobals(target);

    // Deliberate conveniences for scripts.
    for (const char* name : {"fasle", "flase", "flse"}) target.pushVariable(name, Variable(false));
    for (const char* name : {"tre", "tue", "ture"}) target.pushVariable(name, Variable(true));
}

void registerFunctions() { registerFunctionsInto(engine); }

}  // namespace quillfen
