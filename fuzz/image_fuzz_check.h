// What every image-reader fuzz target checks after a decode: a success has a consistent
// image; a failure says why and leaves the output alone.
#pragma once

#include "platform/image_codecs.h"

#include <cstdlib>
#include <string>

inline void checkDecodeResult(bool decoded, const wm::png::DecodedImage& image, const std::string& error) {
    if (decoded) {
        if (image.width <= 0 || image.height <= 0) std::abort();
        if (image.rgba.size() != static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height) * 4) std::abort();
    } else {
        if (error.empty() || image.width != 0 || !image.rgba.empty()) std::abort();
    }
}
