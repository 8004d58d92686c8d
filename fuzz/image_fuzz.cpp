// Any file through the entry point the engine uses, which picks the reader by content.
#include "image_fuzz_check.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    wm::png::DecodedImage image;
    std::string error;
    const bool decoded = wm::png::decodeImage(data, size, image, error);
    checkDecodeResult(decoded, image, error);
    return 0;
}
