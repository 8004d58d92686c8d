// .mmg reading from arbitrary bytes: must refuse or decode without crashing, allocate only for
// pixels the bytes actually hold, and decode into an image that survives a second round trip.
#include "graphics/mmg_file.h"

#include <cstdlib>
#include <cstring>

namespace {

bool sameArea(const std::uint8_t* first, const std::uint8_t* second, std::int32_t width, std::int32_t height) {
    const std::size_t bytes = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
    return bytes == 0 || std::memcmp(first, second, bytes) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::unique_ptr<quillfen::MirelImage> image = quillfen::decodeMirelImage(std::span<const std::uint8_t>(data, size));
    if (!image) return 0;
    const auto encoded = quillfen::encodeMirelImage(*image);
    if (!encoded || encoded->size() > size) std::abort();  // a decoded image always encodes, never larger
    const auto again = quillfen::decodeMirelImage(*encoded);
    if (!again || again->width != image->width || again->height != image->height ||
        again->reflectionWidth != image->reflectionWidth || again->reflectionHeight != image->reflectionHeight ||
        !sameArea(again->pixels.get(), image->pixels.get(), image->width, image->height) ||
        !sameArea(again->reflectionPixels.get(), image->reflectionPixels.get(), image->reflectionWidth, image->reflectionHeight))
        std::abort();
    return 0;
}
