// Writing and reading .mmg files. The reader trusts nothing: each size field is checked against
// its limit and against the bytes that are actually left before any pixel block is allocated.
#include "graphics/mmg_file.h"

#include "graphics/runtime_file.h"

#include <cstring>
#include <limits>
#include <string_view>

namespace quillfen {

namespace {

constexpr std::size_t kSizeFieldBytes = 8;
constexpr std::uint64_t kMaxDimension = 2147483647;

void appendSize(std::vector<std::uint8_t>& out, std::uint64_t value) {
    for (std::size_t index = 0; index < kSizeFieldBytes; ++index) out.push_back(static_cast<std::uint8_t>(value >> (8 * index)));
}

std::uint64_t readSize(const std::uint8_t* at) {
    std::uint64_t value = 0;
    for (std::size_t index = 0; index < kSizeFieldBytes; ++index) value |= std::uint64_t{at[index]} << (8 * index);
    return value;
}

// Byte count of a width × height area, or nothing when it does not fit in 32 bits. The sizes
// are at most 2^31 - 1 each, so the 64-bit product cannot overflow.
std::optional<std::uint64_t> areaBytes(std::uint64_t width, std::uint64_t height) {
    const std::uint64_t bytes = width * height * 4;
    if (bytes > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
    return bytes;
}

// One picture (the main image or the reflection map) being read from the bytes.
struct Area {
    std::int32_t width = 0, height = 0;
    std::unique_ptr<std::uint8_t[]> pixels;
};

// Reads two size fields and the pixels they announce at `offset`, advancing it. False when the
// fields or the pixels do not fit in what is left, or a limit is exceeded.
bool readArea(std::span<const std::uint8_t> bytes, std::size_t& offset, Area& area) {
    if (bytes.size() - offset < 2 * kSizeFieldBytes) return false;
    const std::uint64_t width = readSize(bytes.data() + offset);
    const std::uint64_t height = readSize(bytes.data() + offset + kSizeFieldBytes);
    offset += 2 * kSizeFieldBytes;
    if (width > kMaxDimension || height > kMaxDimension) return false;
    const std::optional<std::uint64_t> size = areaBytes(width, height);
    if (!size || *size > bytes.size() - offset) return false;
    if (*size == 0) return true;  // a zero area is stored as the empty picture
    area.pixels = allocatePixels(static_cast<std::int64_t>(width), static_cast<std::int64_t>(height));
    if (!area.pixels) return false;
    std::memcpy(area.pixels.get(), bytes.data() + offset, static_cast<std::size_t>(*size));
    offset += static_cast<std::size_t>(*size);
    area.width = static_cast<std::int32_t>(width);
    area.height = static_cast<std::int32_t>(height);
    return true;
}

}  // namespace

bool hasMMGExtension(const char* path) {
    if (!path) return false;
    const std::string_view text(path);
    return text.size() >= 4 && text.substr(text.size() - 4) == ".mmg";
}

std::optional<std::vector<std::uint8_t>> encodeMirelImage(const MirelImage& image) {
    if (image.width < 0 || image.height < 0 || image.reflectionWidth < 0 || image.reflectionHeight < 0) return std::nullopt;
    const auto mainBytes = areaBytes(static_cast<std::uint64_t>(image.width), static_cast<std::uint64_t>(image.height));
    const auto reflectionBytes =
        areaBytes(static_cast<std::uint64_t>(image.reflectionWidth), static_cast<std::uint64_t>(image.reflectionHeight));
    if (!mainBytes || !reflectionBytes) return std::nullopt;
    if ((*mainBytes > 0 && !image.pixels) || (*reflectionBytes > 0 && !image.reflectionPixels)) return std::nullopt;
    const std::uint64_t total = 4 * kSizeFieldBytes + *mainBytes + *reflectionBytes;
    if (total > std::numeric_limits<std::size_t>::max() / 2) return std::nullopt;  // a 32-bit host

    std::vector<std::uint8_t> out;
    out.reserve(static_cast<std::size_t>(total));
    appendSize(out, static_cast<std::uint64_t>(image.width));
    appendSize(out, static_cast<std::uint64_t>(image.height));
    if (*mainBytes > 0) out.insert(out.end(), image.pixels.get(), image.pixels.get() + *mainBytes);
    appendSize(out, static_cast<std::uint64_t>(image.reflectionWidth));
    appendSize(out, static_cast<std::uint64_t>(image.reflectionHeight));
    if (*reflectionBytes > 0) out.insert(out.end(), image.reflectionPixels.get(), image.reflectionPixels.get() + *reflectionBytes);
    return out;
}

std::unique_ptr<MirelImage> decodeMirelImage(std::span<const std::uint8_t> bytes) {
    std::size_t offset = 0;
    Area main, reflection;
    if (!readArea(bytes, offset, main) || !readArea(bytes, offset, reflection)) return nullptr;
    auto image = std::make_unique<MirelImage>();
    image->width = main.width;
    image->height = main.height;
    image->pixels = std::move(main.pixels);
    image->reflectionWidth = reflection.width;
    image->reflectionHeight = reflection.height;
    image->reflectionPixels = std::move(reflection.pixels);
    return image;
}

bool saveMirelImage(const MirelImage* image, const char* path) {
    if (!image || !hasMMGExtension(path)) return false;
    const std::optional<std::vector<std::uint8_t>> bytes = encodeMirelImage(*image);
    return bytes && writeRuntimeFile(path, *bytes);
}

MirelImage* loadMirelImage(const char* path) {
    if (!hasMMGExtension(path)) return nullptr;
    std::vector<std::uint8_t> bytes;
    if (!readRuntimeFile(path, bytes)) return nullptr;
    return registerImage(decodeMirelImage(bytes));
}

}  // namespace quillfen
