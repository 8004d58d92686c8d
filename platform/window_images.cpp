// The window layer's Mirel image forms: pushing an image and capturing the window as one.
#include "graphics/mirel_image.h"
#include "platform/window.h"

#include <cstring>
#include <memory>
#include <new>

void wm_pushImage(WmWindow* window, const quillfen::MirelImage& image) {
    wm_pushPixels(window, image.width, image.height, image.pixels.get());
}

quillfen::MirelImage* wm_captureWindow(WmWindow* window) {
    int width = 0, height = 0;
    std::vector<std::uint8_t> rgba;
    if (!wm_capturePixels(window, &width, &height, &rgba)) return nullptr;
    std::unique_ptr<quillfen::MirelImage> image(new (std::nothrow) quillfen::MirelImage);
    if (!image) return nullptr;
    image->pixels = quillfen::allocatePixels(width, height);
    if (!image->pixels) return nullptr;
    image->width = width;
    image->height = height;
    std::memcpy(image->pixels.get(), rgba.data(), rgba.size());
    return quillfen::registerImage(std::move(image));
}
