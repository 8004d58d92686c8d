// The platform-free half of the window layer, shared by every backend: the window's state,
// back-buffer sizing and composition, mouse mapping, focus and key bookkeeping. A backend
// keeps one WindowState in its record, feeds it from its messages and copies the 32-bit back
// buffer to the screen. Nothing here touches the operating system.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace wm {

struct WindowState {
    bool closeRequested = false;  // never lowered once raised
    bool focused = false;
    std::int32_t clientWidth = 1, clientHeight = 1;        // never below 1
    std::int32_t requestedWidth = 1, requestedHeight = 1;  // the logical size before any push
    std::string title;
    std::uint8_t clearRed = 0, clearGreen = 0, clearBlue = 0;
    std::int32_t mouseX = 0, mouseY = 0;                    // logical coordinates
    std::array<bool, 3> mouseButtons{};                     // left, right, middle
    std::array<bool, 256> keys{};                           // by Windows virtual-key code
    std::vector<std::uint8_t> pushedPixels;                 // RGBA of the last pushed image
    std::int32_t pushedWidth = 0, pushedHeight = 0;
    std::vector<std::uint8_t> opaqueRows;                   // per pushed row: every alpha is 255
    std::vector<std::uint32_t> backBufferWords;             // client size, (R << 16) | (G << 8) | B, top row first
    // The same picture as R, G, B, 255 bytes, made from the words only when asked for
    // (backBufferRgba): the screen needs only the words, and writing both would double the
    // memory traffic of every frame.
    std::vector<std::uint8_t> backBufferRgba;
    bool rgbaCurrent = false;
    bool dirty = true;                                      // recompose before the next screen copy
};

// The largest window side the layer handles; larger requests are held to it, so no request can
// make the back buffer try to take gigabytes.
inline constexpr std::int32_t kMaxWindowSide = 16384;

enum MouseButton { kLeftButton = 0, kRightButton = 1, kMiddleButton = 2 };

// A fresh state for a window asked to be width × height (each in [1, kMaxWindowSide]) with that title
// (empty when null): client and requested size both that size, dirty, buffers sized.
void initialiseWindowState(WindowState& state, int width, int height, const char* title);

// Where a picture of imageWidth × imageHeight lands in a client area: scaled by the smaller
// ratio (at least minimumScale), rounded to nearest, clamped to [1, client], centred.
struct Letterbox {
    std::int32_t drawnWidth = 1, drawnHeight = 1;
    std::int32_t offsetX = 0, offsetY = 0;
};
Letterbox letterboxFor(std::int32_t clientWidth, std::int32_t clientHeight, std::int32_t imageWidth,
                       std::int32_t imageHeight, double minimumScale = 0.0);

// Makes the back buffer width × height (positive) zero words.
void sizeBackBuffer(WindowState& state, std::int32_t width, std::int32_t height);
// Whether an image is there to compose (pixels present, both sizes positive).
bool hasPushedImage(const WindowState& state);
// Recomposes the back buffer from the pushed image and the clear colour at the client size
// (sizing it first when it does not match). Leaves `dirty` to the caller, who clears it once
// the picture has reached the screen.
void composeBackBuffer(WindowState& state);
// The back buffer as RGBA bytes (alpha 255), brought up to date with the words if needed.
const std::vector<std::uint8_t>& backBufferRgba(WindowState& state);

// Copies a pushed picture; marks dirty only when size or pixels differ from the last one, so
// that pushing the same frame again costs a comparison and no recomposition. A null block or
// a size below 1 removes the image.
void pushPixels(WindowState& state, std::int32_t width, std::int32_t height, const std::uint8_t* rgba);
// A new clear colour; dirty when it differs.
void setClearColour(WindowState& state, std::uint8_t red, std::uint8_t green, std::uint8_t blue);
// A size message: sides are held to [1, kMaxWindowSide]; the buffers follow a changed size; dirty either way.
void resizeClient(WindowState& state, std::int32_t width, std::int32_t height);

// The pointer at client position (x, y) in logical coordinates (the pushed image's size, or the
// requested size without one), clamped inside the logical screen even over a letterbox bar.
void updateMousePosition(WindowState& state, std::int32_t clientX, std::int32_t clientY);
// Button 0 left, 1 right, 2 middle; others are ignored. Returns whether any button is down
// afterwards (the backend holds the mouse capture while one is).
bool setMouseButton(WindowState& state, int button, bool down);
// Key codes from 256 up are ignored.
void setKeyFlag(WindowState& state, unsigned virtualKey, bool down);
// Focus in; focus out also lets go of every mouse button and every key, since their releases
// go to another window.
void gainFocus(WindowState& state);
void loseFocus(WindowState& state);

// The process-wide current window (the last one created or updated), as seen by the keyboard
// array. A backend forgets a state before freeing it.
void makeCurrent(WindowState* state);
void forgetWindow(WindowState* state);
WindowState* currentWindow();

// x / 255 truncated, for x in [0, 255 * 255], without a division.
constexpr std::uint32_t divideBy255(std::uint32_t x) { return (x + 1 + (x >> 8)) >> 8; }

}  // namespace wm
