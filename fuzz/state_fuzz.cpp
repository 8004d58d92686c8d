// State files from arbitrary bytes. An input that starts with "KSST" gets its checksum set
// right first, so that mutations reach the checks behind it; any other input is run as a
// script and its exported state is imported again. A failed import must leave the globals as
// they were (checked by exporting before and after). Crashes, sanitizer reports, hangs and
// unbounded allocations are findings.
#include "core/byte_stream.h"
#include "core/korvel_script.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

std::vector<std::uint8_t> exported(korvel::KorvelScript& script) {
    korvel::Variable state = script.callCallable(script.pullVariable("exportState"), {});
    return state.asRaw();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    korvel::KorvelScript script;
    script.setOutput([](std::string_view) {});
    script.setSandboxed(true);  // no files or processes from fuzzed scripts
    script.setStepBudget(20000);
    script.setCallDepthLimit(2000);
    std::vector<std::uint8_t> bytes(data, data + size);
    if (size >= 4 && std::memcmp(data, "KSST", 4) == 0) {
        korvel::sealChecksum(bytes);
        script.runScript("hero = {name: \"Ann\", bag: [1, 2]}\nhero.self = hero\nlevel = 3\n");
    } else {
        // Globals a script can build.
        script.runScript(std::string_view(reinterpret_cast<const char*>(data), size), "fuzz");
        bytes = exported(script);
    }
    script.pushVariable("incoming", korvel::Variable::makeRaw(bytes));
    std::vector<std::uint8_t> withIncoming = exported(script);
    korvel::RunResult result = script.runScript("importState(incoming)");
    if (!result.ok) {
        script.pushVariable("incoming", korvel::Variable::makeRaw(bytes));
        if (exported(script) != withIncoming) std::abort();  // a failed import changed the globals
    }
    return 0;
}
