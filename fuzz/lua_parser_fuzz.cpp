// libFuzzer target: any bytes as KorvelLua source. Parsing must fail cleanly or succeed, and a
// parsed chunk runs under a step budget, so only crashes, hangs and leaks are findings.
#include "lua_vm.h"

#include <cstdint>
#include <cstdio>
#include <string_view>

namespace {

// Library entries that touch the machine outside the process are removed before each run.
constexpr std::string_view kSandbox = "os.execute = nil\nio.open = nil\n";

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Scripts print; the output is noise for the fuzzer.
    if (!std::freopen("/dev/null", "w", stdout)) return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    korvel::lua::LuaVM vm;
    vm.setStepBudget(200000);
    (void)vm.runScriptString(kSandbox, "sandbox");
    std::string_view source(reinterpret_cast<const char*>(data), size);
    korvel::lua::LuaResult result = vm.runScriptString(source, "fuzz");
    (void)result;
    return 0;
}
