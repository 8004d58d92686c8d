// Helpers shared by the KorvelLua tests: run a chunk and capture what it printed.
#pragma once

#include "lua_vm.h"

#include <string>

namespace korvel::lua::testing {

struct ScriptRun {
    bool success = false;
    std::string output;     // standard output of the run
    std::string error;      // the failure message
    LuaValue value;
};

// Runs `source` as the chunk "test" on `vm` (a fresh VM when none is given).
ScriptRun runCaptured(LuaVM& vm, const std::string& source, const std::string& chunkName = "test");
ScriptRun runCaptured(const std::string& source);

} // namespace korvel::lua::testing
