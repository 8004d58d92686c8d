// The wm_ functions that are the same on every platform: they read or change only the shared
// window state, and the backend shows the result at its next wm_updateWindow.
#include "platform/window_internal.h"


namespace {

WmKeyArray g_keyboard{};

}  // namespace

void wm_closeWindow(WmWindow* window) {
    if (wm::WindowState* state = wm::stateOf(window)) state->closeRequested = true;
}

const char* wm_getWindowTitle(WmWindow* window) {
    wm::WindowState* state = wm::stateOf(window);
    return state ? state->title.c_str() : "";
}

void wm_getWindowSize(WmWindow* window, int* width, int* height) {
    wm::WindowState* state = wm::stateOf(window);
    if (width) *width = state ? state->clientWidth : 0;
    if (height) *height = state ? state->clientHeight : 0;
}

void wm_pushPixels(WmWindow* window, int width, int height, const std::uint8_t* rgba) {
    if (wm::WindowState* state = wm::stateOf(window)) wm::pushPixels(*state, width, height, rgba);
}

void wm_clearWindow(WmWindow* window, std::uint8_t red, std::uint8_t green, std::uint8_t blue) {
    if (wm::WindowState* state = wm::stateOf(window)) wm::setClearColour(*state, red, green, blue);
}

bool wm_windowShouldClose(WmWindow* window) {
    wm::WindowState* state = wm::stateOf(window);
    return !state || state->closeRequested;
}

bool wm_capturePixels(WmWindow* window, int* width, int* height, std::vector<std::uint8_t>* rgba) {
    wm::WindowState* state = wm::stateOf(window);
    if (!state || !width || !height || !rgba) return false;
    // Composing here leaves `dirty` alone: the screen still needs the picture.
    if (state->dirty) wm::composeBackBuffer(*state);
    *width = state->clientWidth;
    *height = state->clientHeight;
    *rgba = wm::backBufferRgba(*state);
    return true;
}

void wm_getMousePosition(WmWindow* window, int* x, int* y) {
    wm::WindowState* state = wm::stateOf(window);
    if (x) *x = state ? state->mouseX : -1;
    if (y) *y = state ? state->mouseY : -1;
}

bool wm_getMouseButtonState(WmWindow* window, int button) {
    wm::WindowState* state = wm::stateOf(window);
    if (!state || button < 0 || button > 2) return false;
    return state->mouseButtons[static_cast<std::size_t>(button)];
}

void wm_updateKeyboardState() {
    if (const wm::WindowState* state = wm::currentWindow())
        g_keyboard = state->keys;
    else
        g_keyboard.fill(false);
}

const WmKeyArray& wm_keyboardState() { return g_keyboard; }

void wm_setTouchBarButtonText(int, const char*) {}
void wm_setTouchBarButtonImage(int, const quillfen::MirelImage*) {}
bool wm_getTouchBarButtonState(int) { return false; }
void wm_clearTouchBar() {}

void wm_sailfish_register_key(int) {}
bool wm_sailfish_left_orientation() { return false; }

bool wm_has_window() { return true; }
bool wm_has_metal_window() { return true; }
bool wm_has_quartz_window() { return false; }
