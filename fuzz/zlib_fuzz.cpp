// The inflater on arbitrary bytes (with the output capped, as every caller caps it), and the
// compressor's round trip: whatever it packs must inflate to the same bytes.
#include "platform/image_codecs.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> out;
    std::string error;
    if (!wm::png::zlibDecompress(data, size, 1 << 20, out, error) && error.empty()) std::abort();
    const std::vector<std::uint8_t> packed = wm::png::zlibCompress(data, size);
    std::vector<std::uint8_t> unpacked;
    if (!wm::png::zlibDecompress(packed.data(), packed.size(), size, unpacked, error)) std::abort();
    if (unpacked != std::vector<std::uint8_t>(data, data + size)) std::abort();
    return 0;
}
