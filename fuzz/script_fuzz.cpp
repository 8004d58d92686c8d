// Parses and runs arbitrary text as a script under a statement budget, sandboxed so that no
// input can open files, start commands or delete anything. Any crash, sanitizer report, hang
// or unbounded allocation is a finding; script errors are expected results.
#include "core/korvel_script.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    korvel::KorvelScript script;
    script.setOutput([](std::string_view) {});
    script.setSandboxed(true);
    script.setStepBudget(20000);
    script.setCallDepthLimit(2000);
    script.runScript(std::string_view(reinterpret_cast<const char*>(data), size), "fuzz");
    return 0;
}
