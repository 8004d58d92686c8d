// Composition, mouse mapping and input bookkeeping shared by every window backend.
#include "platform/window_composition.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace wm {

namespace {

WindowState* g_currentWindow = nullptr;

std::int32_t atLeastOne(std::int32_t value) { return value < 1 ? 1 : value; }

// One back-buffer pixel in both forms. The RGBA bytes are written through memcpy so the
// compiler can merge them into one store without aliasing the byte vector as words.
inline void storePixel(std::uint8_t* rgba, std::uint32_t* word, std::uint32_t red, std::uint32_t green,
                       std::uint32_t blue) {
    const std::uint8_t bytes[4] = {static_cast<std::uint8_t>(red), static_cast<std::uint8_t>(green),
                                   static_cast<std::uint8_t>(blue), 255};
    std::memcpy(rgba, bytes, 4);
    *word = (red << 16) | (green << 8) | blue;
}

void fillSpan(std::uint8_t* rgba, std::uint32_t* words, std::size_t count, const WindowState& state) {
    if (count == 0) return;
    storePixel(rgba, words, state.clearRed, state.clearGreen, state.clearBlue);
    std::fill(words + 1, words + count, words[0]);
    // Doubling copies: the span fills in log(count) memcpy calls.
    std::size_t done = 1;
    while (done < count) {
        std::size_t step = std::min(done, count - done);
        std::memcpy(rgba + done * 4, rgba, step * 4);
        done += step;
    }
}

// One drawn row: nearest source pixels from a precomputed column table, blended over the clear
// colour. Opaque and fully transparent pixels, by far the most common, skip the arithmetic.
void composeRow(const std::uint8_t* sourceRow, const std::uint32_t* columnOffsets, std::int32_t count,
                std::uint8_t* rgba, std::uint32_t* words, const WindowState& state) {
    const std::uint32_t clearRed = state.clearRed, clearGreen = state.clearGreen, clearBlue = state.clearBlue;
    for (std::int32_t i = 0; i < count; ++i) {
        const std::uint8_t* pixel = sourceRow + columnOffsets[i];
        const std::uint32_t alpha = pixel[3];
        if (alpha == 255) {
            storePixel(rgba + i * 4, words + i, pixel[0], pixel[1], pixel[2]);
        } else if (alpha == 0) {
            storePixel(rgba + i * 4, words + i, clearRed, clearGreen, clearBlue);
        } else {
            const std::uint32_t inverse = 255 - alpha;
            storePixel(rgba + i * 4, words + i, divideBy255(clearRed * inverse + pixel[0] * alpha),
                       divideBy255(clearGreen * inverse + pixel[1] * alpha),
                       divideBy255(clearBlue * inverse + pixel[2] * alpha));
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
    state.clientWidth = state.requestedWidth = atLeastOne(width);
    state.clientHeight = state.requestedHeight = atLeastOne(height);
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
    state.backBufferRgba.assign(count * 4, 0);
    state.backBufferWords.assign(count, 0);
}

bool hasPushedImage(const WindowState& state) {
    return state.pushedWidth > 0 && state.pushedHeight > 0 && !state.pushedPixels.empty();
}

void composeBackBuffer(WindowState& state) {
    const std::int32_t width = atLeastOne(state.clientWidth), height = atLeastOne(state.clientHeight);
    const std::size_t count = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    if (state.backBufferWords.size() != count || state.backBufferRgba.size() != count * 4)
        sizeBackBuffer(state, width, height);
    std::uint8_t* rgba = state.backBufferRgba.data();
    std::uint32_t* words = state.backBufferWords.data();
    if (!hasPushedImage(state)) {
        fillSpan(rgba, words, count, state);
        return;
    }

    const std::int32_t imageWidth = state.pushedWidth, imageHeight = state.pushedHeight;
    const Letterbox box = letterboxFor(width, height, imageWidth, imageHeight);
    // Source byte offset of every drawn column: the only per-column division, done once.
    std::vector<std::uint32_t> columnOffsets(static_cast<std::size_t>(box.drawnWidth));
    for (std::int32_t x = 0; x < box.drawnWidth; ++x) {
        const std::int64_t column = static_cast<std::int64_t>(x) * imageWidth / box.drawnWidth;
        columnOffsets[static_cast<std::size_t>(x)] = static_cast<std::uint32_t>(std::min<std::int64_t>(column, imageWidth - 1) * 4);
    }

    const std::size_t rowPixels = static_cast<std::size_t>(width);
    const std::size_t sourceStride = static_cast<std::size_t>(imageWidth) * 4;
    fillSpan(rgba, words, rowPixels * static_cast<std::size_t>(box.offsetY), state);
    std::int64_t previousSourceRow = -1;
    for (std::int32_t y = box.offsetY; y < box.offsetY + box.drawnHeight; ++y) {
        std::uint8_t* rowRgba = rgba + static_cast<std::size_t>(y) * rowPixels * 4;
        std::uint32_t* rowWords = words + static_cast<std::size_t>(y) * rowPixels;
        const std::int64_t sourceRow = std::min<std::int64_t>(
            static_cast<std::int64_t>(y - box.offsetY) * imageHeight / box.drawnHeight, imageHeight - 1);
        if (sourceRow == previousSourceRow) {
            // Enlarged pictures repeat rows: copy the one above instead of sampling again.
            std::memcpy(rowRgba, rowRgba - rowPixels * 4, rowPixels * 4);
            std::memcpy(rowWords, rowWords - rowPixels, rowPixels * 4);
            continue;
        }
        previousSourceRow = sourceRow;
        const std::size_t rightStart = static_cast<std::size_t>(box.offsetX + box.drawnWidth);
        fillSpan(rowRgba, rowWords, static_cast<std::size_t>(box.offsetX), state);
        composeRow(state.pushedPixels.data() + static_cast<std::size_t>(sourceRow) * sourceStride, columnOffsets.data(),
                   box.drawnWidth, rowRgba + static_cast<std::size_t>(box.offsetX) * 4, rowWords + box.offsetX, state);
        fillSpan(rowRgba + rightStart * 4, rowWords + rightStart, rowPixels - rightStart, state);
    }
    const std::size_t bottomStart = static_cast<std::size_t>(box.offsetY + box.drawnHeight);
    fillSpan(rgba + bottomStart * rowPixels * 4, words + bottomStart * rowPixels,
             (static_cast<std::size_t>(height) - bottomStart) * rowPixels, state);
}

void pushPixels(WindowState& state, std::int32_t width, std::int32_t height, const std::uint8_t* rgba) {
    if (!rgba || width < 1 || height < 1) {
        if (hasPushedImage(state)) state.dirty = true;
        state.pushedPixels.clear();
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
    width = atLeastOne(width);
    height = atLeastOne(height);
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
