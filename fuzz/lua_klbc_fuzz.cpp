// libFuzzer target: any bytes as a KLBC image. The reader must reject malformed images with a
// message; a well-formed one runs its source under a step budget.
#include "lua_vm.h"

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (!std::freopen("/dev/null", "w", stdout)) return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    korvel::lua::LuaVM vm;
    vm.setStepBudget(200000);
    (void)vm.runScriptString("os.execute = nil\nio.open = nil\n", "sandbox");
    korvel::lua::LuaBytecode image(data, data + size);
    korvel::lua::LuaResult result = vm.runBytecode(image);
    (void)result;
    return 0;
}
