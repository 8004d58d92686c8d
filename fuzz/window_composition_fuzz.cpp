// Composition and mouse mapping with window sizes, picture sizes, colours, pixels and pointer
// positions taken from the input: no crash, no out-of-bounds access, and the invariants every
// game relies on (the back buffer has the client size, its words use 24 bits, the pointer stays
// inside the logical screen).
#include "platform/window_composition.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

struct Input {
    const std::uint8_t* data;
    std::size_t size;
    std::size_t at = 0;
    std::uint32_t next(std::uint32_t limit) {  // a value in [0, limit)
        std::uint32_t value = 0;
        for (int i = 0; i < 2; ++i) value = (value << 8) | (at < size ? data[at++] : 0);
        return limit ? value % limit : 0;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input{data, size};
    wm::WindowState state;
    wm::initialiseWindowState(state, static_cast<int>(input.next(300)) - 5, static_cast<int>(input.next(300)) - 5, nullptr);
    const int imageWidth = static_cast<int>(input.next(200)) - 2, imageHeight = static_cast<int>(input.next(200)) - 2;
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(imageWidth > 0 && imageHeight > 0 ? imageWidth * imageHeight * 4 : 0));
    for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = size ? data[i % size] : 0;
    wm::pushPixels(state, imageWidth, imageHeight, pixels.empty() ? nullptr : pixels.data());
    wm::setClearColour(state, static_cast<std::uint8_t>(input.next(256)), static_cast<std::uint8_t>(input.next(256)),
                       static_cast<std::uint8_t>(input.next(256)));
    wm::resizeClient(state, static_cast<int>(input.next(400)) - 5, static_cast<int>(input.next(400)) - 5);
    wm::composeBackBuffer(state);
    const std::size_t count = static_cast<std::size_t>(state.clientWidth) * static_cast<std::size_t>(state.clientHeight);
    if (state.backBufferWords.size() != count) std::abort();
    for (std::uint32_t word : state.backBufferWords)
        if (word >> 24) std::abort();
    if (wm::backBufferRgba(state).size() != count * 4) std::abort();

    const bool pushed = wm::hasPushedImage(state);
    const int logicalWidth = pushed ? state.pushedWidth : state.requestedWidth;
    const int logicalHeight = pushed ? state.pushedHeight : state.requestedHeight;
    for (int i = 0; i < 4; ++i) {
        wm::updateMousePosition(state, static_cast<int>(input.next(65536)) - 32768, static_cast<int>(input.next(65536)) - 32768);
        if (state.mouseX < 0 || state.mouseX >= logicalWidth || state.mouseY < 0 || state.mouseY >= logicalHeight) std::abort();
    }
    return 0;
}
