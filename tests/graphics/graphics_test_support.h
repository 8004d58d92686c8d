// Images built in code for the graphics tests.
#pragma once

#include "graphics/mirel_image.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace quillfen::testing_support {

using Pixel = std::array<std::uint8_t, 4>;

// An image outside the registry, every pixel `fill`.
inline std::unique_ptr<MirelImage> makeImage(int width, int height, Pixel fill = {0, 0, 0, 0}) {
    auto image = std::make_unique<MirelImage>();
    image->width = width;
    image->height = height;
    image->pixels = allocatePixels(width, height);
    for (std::size_t offset = 0; offset < static_cast<std::size_t>(width) * height * 4; offset += 4)
        std::memcpy(image->pixels.get() + offset, fill.data(), 4);
    return image;
}

// Every byte, alpha included, from a fixed pseudo-random sequence; alpha covers 0, 255 and
// values between.
inline std::unique_ptr<MirelImage> noiseImage(int width, int height, std::uint32_t seed) {
    auto image = makeImage(width, height);
    std::uint32_t state = seed * 2654435761u + 1;
    for (std::size_t offset = 0; offset < static_cast<std::size_t>(width) * height * 4; ++offset) {
        state = state * 1103515245u + 12345u;
        std::uint8_t value = static_cast<std::uint8_t>(state >> 16);
        if (offset % 4 == 3 && value < 40) value = 0;
        if (offset % 4 == 3 && value > 215) value = 255;
        image->pixels[offset] = value;
    }
    return image;
}

inline Pixel pixelAt(const MirelImage& image, int x, int y) {
    Pixel pixel{};
    std::memcpy(pixel.data(), image.pixels.get() + pixelOffset(image, x, y), 4);
    return pixel;
}

inline void putPixel(MirelImage& image, int x, int y, Pixel pixel) {
    std::memcpy(image.pixels.get() + pixelOffset(image, x, y), pixel.data(), 4);
}

inline std::vector<std::uint8_t> pixelBytes(const MirelImage& image) {
    if (!image.pixels) return {};
    return {image.pixels.get(), image.pixels.get() + pixelOffset(image, 0, image.height)};
}

inline std::unique_ptr<MirelImage> copyImage(const MirelImage& image) {
    auto copy = makeImage(image.width, image.height);
    if (image.pixels) std::memcpy(copy->pixels.get(), image.pixels.get(), pixelOffset(image, 0, image.height));
    return copy;
}

// Sets the worker-thread count for one test and restores it afterwards.
class ThreadSetting {
public:
    explicit ThreadSetting(int count) : m_saved(mirelThreadCount()) { setMirelThreadCount(count); }
    ~ThreadSetting() { setMirelThreadCount(m_saved); }
    ThreadSetting(const ThreadSetting&) = delete;
    ThreadSetting& operator=(const ThreadSetting&) = delete;

private:
    int m_saved = 6;
};

}  // namespace quillfen::testing_support
