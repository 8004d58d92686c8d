#include "lua_test_support.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace korvel::lua::testing {

ScriptRun runCaptured(LuaVM& vm, const std::string& source, const std::string& chunkName) {
    ::testing::internal::CaptureStdout();
    LuaResult result = vm.runScriptString(source, chunkName);
    std::fflush(stdout);
    ScriptRun run;
    run.output = ::testing::internal::GetCapturedStdout();
    run.success = result.success;
    run.error = result.error;
    run.value = result.value;
    return run;
}

ScriptRun runCaptured(const std::string& source) {
    LuaVM vm;
    return runCaptured(vm, source);
}

} // namespace korvel::lua::testing
