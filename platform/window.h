// The window layer: one plain desktop window that shows a finished RGBA picture, letterboxed
// and scaled to the client area on a clear colour, and reports the mouse, 256 key flags and
// close requests. The only window header host/ and the bindings include.
//
// C-style, so every platform supplies the same functions: platform/windows/windows_window.cpp
// on Win32 (record `WindowsWindow`), platform/sdl/sdl_window.cpp elsewhere (record
// `SdlWindow`). The platform-free parts (composition, mouse mapping, key bookkeeping) live once
// in platform/window_composition.cpp.
//
// Every function accepts a null window and then does nothing or answers false, -1, or "should
// close". Nothing here throws or prints. Everything runs on the script thread; window messages
// are handled only inside wm_updateWindow (and by the system while creating and destroying).
#pragma once

#include <array>
#include <cstdint>
#include <vector>

struct WindowsWindow;
struct SdlWindow;
#if defined(_WIN32)
using WmWindow = WindowsWindow;
#else
using WmWindow = SdlWindow;
#endif

namespace quillfen {
struct MirelImage;
}

// Creates and shows a window whose client area is width × height (each held to [1, 16384]),
// centred on the primary screen, titled `title` (empty when null). Null when the platform
// cannot make one; nothing is leaked then. The window becomes the current window.
WmWindow* wm_createWindow(int width, int height, const char* title);
// Raises the close flag. The window stays on screen until wm_destroyWindow.
void wm_closeWindow(WmWindow* window);
// Destroys the native window and frees the record (null is fine).
void wm_destroyWindow(WmWindow* window);

// The title as last set ("" for a null window); changing it renames the native window too.
const char* wm_getWindowTitle(WmWindow* window);
void wm_setWindowTitle(WmWindow* window, const char* title);

// The client size in pixels (0 × 0 for a null window; either pointer may be null).
void wm_getWindowSize(WmWindow* window, int* width, int* height);
// Asks for a new client size (each at least 1); the window keeps its centre where the platform
// allows. The back buffer follows at the next wm_updateWindow.
void wm_setWindowSize(WmWindow* window, int width, int height);

// Copies a width × height RGBA picture (4 bytes a pixel, top row first) as the window's image
// and marks the window for recomposition when it differs from the image shown. A null block
// or a size below 1 removes the image (the window shows its clear colour).
void wm_pushPixels(WmWindow* window, int width, int height, const std::uint8_t* rgba);
// The same for a Mirel image: its pixels and size (an empty image removes the picture).
void wm_pushImage(WmWindow* window, const quillfen::MirelImage& image);
// Sets the colour of the letterbox bars and of the background under transparent pixels.
void wm_clearWindow(WmWindow* window, std::uint8_t red, std::uint8_t green, std::uint8_t blue);
// Handles every pending window message, then recomposes and shows the back buffer if
// anything changed. The window becomes the current window.
void wm_updateWindow(WmWindow* window);
// The close flag: raised by the user's close request or wm_closeWindow, never lowered. True
// for a null window.
bool wm_windowShouldClose(WmWindow* window);

// The window's current picture (the composed back buffer, client size, alpha 255): fills
// width, height and rgba and returns true; false (outputs untouched) for a null window.
bool wm_capturePixels(WmWindow* window, int* width, int* height, std::vector<std::uint8_t>* rgba);
// The same as a new live image (registered in the live-image registry, owned by the script
// that frees it); null for a null window or when memory runs out.
quillfen::MirelImage* wm_captureWindow(WmWindow* window);

// The pointer in the coordinates of the pushed image (the game's logical screen), clamped to
// it; both -1 for a null window. Either pointer may be null.
void wm_getMousePosition(WmWindow* window, int* x, int* y);
// 0 left, 1 right, 2 middle; any other number or a null window gives false.
bool wm_getMouseButtonState(WmWindow* window, int button);

// The host's key array: one flag per Windows virtual-key code, true while the key is down.
using WmKeyArray = std::array<bool, 256>;
// Refreshes the key array from the current window (all up when there is none).
void wm_updateKeyboardState();
// The key array as of the last wm_updateKeyboardState.
const WmKeyArray& wm_keyboardState();

// Touch-bar buttons: no platform the engine runs on has one, so these do nothing and every
// state is false.
void wm_setTouchBarButtonText(int button, const char* text);
void wm_setTouchBarButtonImage(int button, const quillfen::MirelImage* image);
bool wm_getTouchBarButtonState(int button);
void wm_clearTouchBar();

// Device keys and orientation of handheld devices: nothing is registered and the orientation
// is never "left".
void wm_sailfish_register_key(int key);
bool wm_sailfish_left_orientation();

// Capabilities behind the *_ENABLED globals. The Metal module is the window module on every
// platform, so wm_has_metal_window answers as wm_has_window does.
bool wm_has_window();
bool wm_has_metal_window();
bool wm_has_quartz_window();
