// Composition, mouse mapping and input bookkeeping shared by every window backend.
#include "platform/window_composition.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

namespace wm {

namespace {

WindowState* g_currentWindow = nullptr;

std::int32_t atLeastOne(std::int32_t value) { return value < 1 ? 1 : value; }

// A window side inside [1, kMaxWindowSide].
std::int32_t windowSide(std::int32_t value) { return std::clamp(value, 1, kMaxWindowSide); }

inline std::uint32_t clearWordOf(const WindowState& state) {
    return (std::uint32_t{state.clearRed} << 16) | (std::uint32_t{state.clearGreen} << 8) | state.clearBlue;
}

// A source pixel as a 32-bit word: the RGBA bytes in memory read as R | G << 8 | B << 16 |
// A << 24 on a little-endian machine.
inline std::uint32_t loadPixel(const std::uint8_t* bytes) {
    std::uint32_t word;
    std::memcpy(&word, bytes, 4);
    if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap32(word);
    return word;
}

// One source row as screen words, blended over the clear colour. A row known to be opaque
// (most rows of most frames) is only reordered, in a loop the compiler vectorises; other rows
// skip the arithmetic for fully opaque and fully transparent pixels.
void convertRow(const std::uint8_t* source, std::int32_t count, bool opaque, std::uint32_t* out, const WindowState& state) {
    if (opaque) {
        for (std::int32_t i = 0; i < count; ++i) {
            const std::uint32_t pixel = loadPixel(source + static_cast<std::size_t>(i) * 4);
            out[i] = ((pixel & 0xFF) << 16) | (pixel & 0xFF00) | ((pixel >> 16) & 0xFF);
        }
        return;
    }
    const std::uint32_t clearRed = state.clearRed, clearGreen = state.clearGreen, clearBlue = state.clearBlue;
    const std::uint32_t clearWord = clearWordOf(state);
    for (std::int32_t i = 0; i < count; ++i) {
        const std::uint32_t pixel = loadPixel(source + static_cast<std::size_t>(i) * 4);
        const std::uint32_t alpha = pixel >> 24;
        if (alpha == 255) {
            out[i] = ((pixel & 0xFF) << 16) | (pixel & 0xFF00) | ((pixel >> 16) & 0xFF);
        } else if (alpha == 0) {
            out[i] = clearWord;
        } else {
            const std::uint32_t inverse = 255 - alpha;
            out[i] = (divideBy255(clearRed * inverse + (pixel & 0xFF) * alpha) << 16) |
                     (divideBy255(clearGreen * inverse + ((pixel >> 8) & 0xFF) * alpha) << 8) |
                     divideBy255(clearBlue * inverse + ((pixel >> 16) & 0xFF) * alpha);
        }
    }
}

// Logical coordinate of a local position along one axis: the drawn span [0, drawn - 1] maps
// onto [0, logical - 1], rounding to nearest.
std::int32_t mapAxis(std::int32_t local, std::int32_t drawn, std::int32_t logical) {
    if (drawn <= 1 || logical <= 1) return 0;
    const std::int64_t span = drawn - 1;
    const std::int64_t mapped = (span / 2 + static_cast<std::int64_t>(local) * (logical - 1)) / span;
    return static_cast<std::int32_t>(std::min<std::int64_t>(mapped, logical - 1));
}

}  // namespace

void initialiseWindowState(WindowState& state, int width, int height, const char* title) {
    state = WindowState{};
    state.clientWidth = state.requestedWidth = windowSide(width);
    state.clientHeight = state.requestedHeight = windowSide(height);
    state.title = title ? title : "";
    sizeBackBuffer(state, state.clientWidth, state.clientHeight);
    state.dirty = true;
}

Letterbox letterboxFor(std::int32_t clientWidth, std::int32_t clientHeight, std::int32_t imageWidth,
                       std::int32_t imageHeight, double minimumScale) {
    clientWidth = atLeastOne(clientWidth);
    clientHeight = atLeastOne(clientHeight);
    imageWidth = atLeastOne(imageWidth);
    imageHeight = atLeastOne(imageHeight);
    const double scale = std::max(minimumScale, std::min(static_cast<double>(clientHeight) / imageHeight,
                                                         static_cast<double>(clientWidth) / imageWidth));
    auto drawn = [scale](std::int32_t size, std::int32_t limit) {
        const double rounded = std::round(size * scale);
        return rounded < 1.0 ? 1 : rounded > limit ? limit : static_cast<std::int32_t>(rounded);
    };
    Letterbox box;
    box.drawnWidth = drawn(imageWidth, clientWidth);
    box.drawnHeight = drawn(imageHeight, clientHeight);
    box.offsetX = (clientWidth - box.drawnWidth) / 2;
    box.offsetY = (clientHeight - box.drawnHeight) / 2;
    return box;
}

void sizeBackBuffer(WindowState& state, std::int32_t width, std::int32_t height) {
    const std::size_t count = static_cast<std::size_t>(atLeastOne(width)) * static_cast<std::size_t>(atLeastOne(height));
    state.backBufferWords.assign(count, 0);
    state.backBufferRgba.clear();
    state.rgbaCurrent = false;
}

bool hasPushedImage(const WindowState& state) {
    return state.pushedWidth > 0 && state.pushedHeight > 0 && !state.pushedPixels.empty();
}

void composeBackBuffer(WindowState& state) {
    const std::int32_t width = atLeastOne(state.clientWidth), height = atLeastOne(state.clientHeight);
    const std::size_t count = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    if (state.backBufferWords.size() != count) sizeBackBuffer(state, width, height);
    state.rgbaCurrent = false;
    std::uint32_t* words = state.backBufferWords.data();
    const std::uint32_t clearWord = clearWordOf(state);
    if (!hasPushedImage(state)) {
        std::fill(words, words + count, clearWord);
        return;
    }

    const std::int32_t imageWidth = state.pushedWidth, imageHeight = state.pushedHeight;
    const Letterbox box = letterboxFor(width, height, imageWidth, imageHeight);
    // Source column of every drawn column: the only per-column division, done once.
    std::vector<std::uint32_t> columns(static_cast<std::size_t>(box.drawnWidth));
    for (std::int32_t x = 0; x < box.drawnWidth; ++x)
        columns[static_cast<std::size_t>(x)] = static_cast<std::uint32_t>(
            std::min<std::int64_t>(static_cast<std::int64_t>(x) * imageWidth / box.drawnWidth, imageWidth - 1));
    // Each source row is converted once into screen words, then spread over the drawn columns.
    std::vector<std::uint32_t> sourceWords(static_cast<std::size_t>(imageWidth));

    const std::size_t rowPixels = static_cast<std::size_t>(width);
    const std::size_t sourceStride = static_cast<std::size_t>(imageWidth) * 4;
    const std::size_t left = static_cast<std::size_t>(box.offsetX), right = left + static_cast<std::size_t>(box.drawnWidth);
    std::fill(words, words + rowPixels * static_cast<std::size_t>(box.offsetY), clearWord);
    std::int64_t previousSourceRow = -1;
    for (std::int32_t y = box.offsetY; y < box.offsetY + box.drawnHeight; ++y) {
        std::uint32_t* row = words + static_cast<std::size_t>(y) * rowPixels;
        const std::int64_t sourceRow = std::min<std::int64_t>(
            static_cast<std::int64_t>(y - box.offsetY) * imageHeight / box.drawnHeight, imageHeight - 1);
        if (sourceRow == previousSourceRow) {
            // Enlarged pictures repeat rows: copy the one above instead of sampling again.
            std::memcpy(row, row - rowPixels, rowPixels * sizeof *row);
            continue;
        }
        previousSourceRow = sourceRow;
        const std::uint8_t* source = state.pushedPixels.data() + static_cast<std::size_t>(sourceRow) * sourceStride;
        const bool opaque = state.opaqueRows[static_cast<std::size_t>(sourceRow)] != 0;
        std::fill(row, row + left, clearWord);
        if (box.drawnWidth == imageWidth) {
            convertRow(source, imageWidth, opaque, row + left, state);  // unscaled columns: straight in
        } else {
            convertRow(source, imageWidth, opaque, sourceWords.data(), state);
            const std::uint32_t* converted = sourceWords.data();
            const std::uint32_t* column = columns.data();
            std::uint32_t* drawn = row + left;
            for (std::int32_t i = 0; i < box.drawnWidth; ++i) drawn[i] = converted[column[i]];
        }
        std::fill(row + right, row + rowPixels, clearWord);
    }
    const std::size_t bottom = static_cast<std::size_t>(box.offsetY + box.drawnHeight) * rowPixels;
    std::fill(words + bottom, words + count, clearWord);
}

const std::vector<std::uint8_t>& backBufferRgba(WindowState& state) {
    if (state.rgbaCurrent) return state.backBufferRgba;
    state.backBufferRgba.resize(state.backBufferWords.size() * 4);
    std::uint8_t* out = state.backBufferRgba.data();
    for (std::uint32_t word : state.backBufferWords) {
        out[0] = static_cast<std::uint8_t>(word >> 16);
        out[1] = static_cast<std::uint8_t>(word >> 8);
        out[2] = static_cast<std::uint8_t>(word);
        out[3] = 255;
        out += 4;
    }
    state.rgbaCurrent = true;
    return state.backBufferRgba;
}

void pushPixels(WindowState& state, std::int32_t width, std::int32_t height, const std::uint8_t* rgba) {
    if (!rgba || width < 1 || height < 1) {
        if (hasPushedImage(state)) state.dirty = true;
        state.pushedPixels.clear();
        state.opaqueRows.clear();
        state.pushedWidth = state.pushedHeight = 0;
        return;
    }
    const std::size_t bytes = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
    if (width == state.pushedWidth && height == state.pushedHeight && state.pushedPixels.size() == bytes &&
        std::memcmp(state.pushedPixels.data(), rgba, bytes) == 0)
        return;
    state.pushedPixels.assign(rgba, rgba + bytes);
    state.pushedWidth = width;
    state.pushedHeight = height;
    state.opaqueRows.assign(static_cast<std::size_t>(height), 1);
    for (std::size_t row = 0; row < static_cast<std::size_t>(height); ++row) {
        const std::uint8_t* pixel = rgba + row * static_cast<std::size_t>(width) * 4;
        std::uint8_t all = 255;
        for (std::int32_t x = 0; x < width; ++x) all &= pixel[static_cast<std::size_t>(x) * 4 + 3];
        state.opaqueRows[row] = all == 255;
    }
    state.dirty = true;
}

void setClearColour(WindowState& state, std::uint8_t red, std::uint8_t green, std::uint8_t blue) {
    if (state.clearRed == red && state.clearGreen == green && state.clearBlue == blue) return;
    state.clearRed = red;
    state.clearGreen = green;
    state.clearBlue = blue;
    state.dirty = true;
}

void resizeClient(WindowState& state, std::int32_t width, std::int32_t height) {
    width = windowSide(width);
    height = windowSide(height);
    if (width != state.clientWidth || height != state.clientHeight) {
        state.clientWidth = width;
        state.clientHeight = height;
        sizeBackBuffer(state, width, height);
    }
    state.dirty = true;
}

void updateMousePosition(WindowState& state, std::int32_t clientX, std::int32_t clientY) {
    const bool pushed = hasPushedImage(state);
    const std::int32_t logicalWidth = atLeastOne(pushed ? state.pushedWidth : state.requestedWidth);
    const std::int32_t logicalHeight = atLeastOne(pushed ? state.pushedHeight : state.requestedHeight);
    const Letterbox box = letterboxFor(state.clientWidth, state.clientHeight, logicalWidth, logicalHeight, 0.0001);
    const std::int32_t localX = std::clamp(clientX - box.offsetX, 0, box.drawnWidth - 1);
    const std::int32_t localY = std::clamp(clientY - box.offsetY, 0, box.drawnHeight - 1);
    state.mouseX = mapAxis(localX, box.drawnWidth, logicalWidth);
    state.mouseY = mapAxis(localY, box.drawnHeight, logicalHeight);
}

bool setMouseButton(WindowState& state, int button, bool down) {
    if (button >= 0 && button < 3) state.mouseButtons[static_cast<std::size_t>(button)] = down;
    return state.mouseButtons[0] || state.mouseButtons[1] || state.mouseButtons[2];
}

void setKeyFlag(WindowState& state, unsigned virtualKey, bool down) {
    if (virtualKey < state.keys.size()) state.keys[virtualKey] = down;
}

void gainFocus(WindowState& state) { state.focused = true; }

void loseFocus(WindowState& state) {
    state.focused = false;
    state.mouseButtons.fill(false);
    state.keys.fill(false);
}

void makeCurrent(WindowState* state) { g_currentWindow = state; }

void forgetWindow(WindowState* state) {
    if (g_currentWindow == state) g_currentWindow = nullptr;
}

WindowState* currentWindow() { return g_currentWindow; }

}  // namespace wm
