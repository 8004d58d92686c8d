// The engine's own uncompressed image file, ".mmg": an image and its reflection map, little
// endian, no magic number.
//
//   offset       size  field
//   0            8     width (unsigned 64-bit, at most 2147483647)
//   8            8     height (likewise)
//   16           W     pixels, RGBA, row-major, top row first; W = width × height × 4 < 2^32
//   16 + W       8     reflection width
//   24 + W       8     reflection height
//   32 + W       R     reflection pixels; R = reflection width × height × 4 < 2^32
//
// Readers ignore bytes after the reflection pixels.
#pragma once

#include "graphics/mirel_image.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace quillfen {

// True when path is non-null, at least 4 characters long and ends in exactly ".mmg".
bool hasMMGExtension(const char* path);

// The file bytes of an image; nothing when a size is negative, an area overflows 32 bits, a
// non-empty area has no pixel block, or the whole would not fit in memory.
std::optional<std::vector<std::uint8_t>> encodeMirelImage(const MirelImage& image);
// The image held by a file's bytes (not registered); null when the bytes are not a whole image.
// Every size is checked against the bytes present before anything is allocated. An area of
// zero pixels is stored as a 0 × 0 picture without a block.
std::unique_ptr<MirelImage> decodeMirelImage(std::span<const std::uint8_t> bytes);

// Writes the image to path with writeRuntimeFile (an existing file is replaced only once the
// new one is complete). False, and nothing written, on any refusal.
[[nodiscard]] bool saveMirelImage(const MirelImage* image, const char* path);
// Reads an image from path and registers it as live; null on any failure.
[[nodiscard]] MirelImage* loadMirelImage(const char* path);

}  // namespace quillfen
