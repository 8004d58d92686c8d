// Bytecode images from arbitrary bytes. An input that starts with "KSBC" is taken as an image
// whose checksum is set right first, so that mutations reach the validation behind it; any
// other input is compiled as source and round-tripped through an image. Whatever loads runs
// under a statement budget. Crashes, sanitizer reports, hangs and unbounded allocations are
// findings; refusals and script errors are expected results.
#include "core/byte_stream.h"
#include "core/korvel_script.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> image(data, data + size);
    if (size >= 4 && std::memcmp(data, "KSBC", 4) == 0) {
        korvel::sealChecksum(image);
    } else {
        korvel::KorvelScript compiler;
        compiler.setSandboxed(true);
        try {
            image = compiler.serialiseBytecode(std::string_view(reinterpret_cast<const char*>(data), size), "fuzz.ks");
        } catch (const korvel::ScriptError&) {
            return 0;
        }
    }
    korvel::KorvelScript script;
    script.setOutput([](std::string_view) {});
    script.setSandboxed(true);  // no files or processes from fuzzed scripts
    script.setStepBudget(20000);
    script.setCallDepthLimit(2000);
    try {
        korvel::BytecodeProgram program = script.deserialiseBytecode(image);
        script.runBytecode(program);
    } catch (const korvel::ScriptError&) {
    }
    return 0;
}
