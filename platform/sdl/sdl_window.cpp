// The window layer on SDL2 (Linux and other desktops). The picture is composed by the shared
// code at the drawable size (so high-DPI screens get real pixels, not a blurred enlargement)
// and shown through one streaming texture whose pixel format is the back buffer's word layout.
#include "platform/sdl/sdl_window_internal.h"
#include "platform/window_internal.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <new>
#include <vector>

namespace {

struct WindowDeleter {
    void operator()(SDL_Window* window) const { SDL_DestroyWindow(window); }
};
struct RendererDeleter {
    void operator()(SDL_Renderer* renderer) const { SDL_DestroyRenderer(renderer); }
};
struct TextureDeleter {
    void operator()(SDL_Texture* texture) const { SDL_DestroyTexture(texture); }
};

// Holds the video subsystem for as long as one window needs it (SDL counts the holders).
struct VideoSubsystem {
    bool held = false;
    VideoSubsystem() {
        // Ctrl-C must end the program as usual rather than become a close request nobody polls.
        SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
        // The click that focuses the window is a click for the game too, as on Windows.
        SDL_SetHint(SDL_HINT_MOUSE_FOCUS_CLICKTHROUGH, "1");
        SDL_SetHint(SDL_HINT_VIDEO_MINIMIZE_ON_FOCUS_LOSS, "0");
        held = SDL_InitSubSystem(SDL_INIT_VIDEO) == 0;
    }
    ~VideoSubsystem() {
        if (held) SDL_QuitSubSystem(SDL_INIT_VIDEO);
    }
    VideoSubsystem(const VideoSubsystem&) = delete;
    VideoSubsystem& operator=(const VideoSubsystem&) = delete;
};

}  // namespace

struct SdlWindow {
    wm::WindowState state;
    // Declared first so it is released last, after everything made with it.
    VideoSubsystem video;
    std::unique_ptr<SDL_Window, WindowDeleter> window;
    std::unique_ptr<SDL_Renderer, RendererDeleter> renderer;
    std::unique_ptr<SDL_Texture, TextureDeleter> texture;
    int textureWidth = 0, textureHeight = 0;
    Uint32 windowId = 0;
    bool exposed = false;  // the system lost the picture: show the texture again
};

namespace {

// Every live window, for routing SDL's process-wide event queue.
std::vector<SdlWindow*> g_windows;

SdlWindow* windowWithId(Uint32 id) {
    for (SdlWindow* window : g_windows)
        if (window->windowId == id) return window;
    return nullptr;
}

// Drawable pixels per window unit (1 except on high-DPI screens).
void pixelRatio(SdlWindow& window, double& ratioX, double& ratioY) {
    int pointsWidth = 0, pointsHeight = 0, pixelsWidth = 0, pixelsHeight = 0;
    SDL_GetWindowSize(window.window.get(), &pointsWidth, &pointsHeight);
    SDL_GetRendererOutputSize(window.renderer.get(), &pixelsWidth, &pixelsHeight);
    ratioX = pointsWidth > 0 && pixelsWidth > 0 ? static_cast<double>(pixelsWidth) / pointsWidth : 1.0;
    ratioY = pointsHeight > 0 && pixelsHeight > 0 ? static_cast<double>(pixelsHeight) / pointsHeight : 1.0;
}

void readClientSize(SdlWindow& window) {
    int width = 0, height = 0;
    if (SDL_GetRendererOutputSize(window.renderer.get(), &width, &height) != 0)
        SDL_GetWindowSize(window.window.get(), &width, &height);
    wm::resizeClient(window.state, width, height);
}

void updatePointer(SdlWindow& window, int x, int y) {
    double ratioX = 1.0, ratioY = 1.0;
    pixelRatio(window, ratioX, ratioY);
    wm::updateMousePosition(window.state, static_cast<std::int32_t>(std::floor(x * ratioX)),
                            static_cast<std::int32_t>(std::floor(y * ratioY)));
}

int buttonIndex(Uint8 sdlButton) {
    switch (sdlButton) {
    case SDL_BUTTON_LEFT: return wm::kLeftButton;
    case SDL_BUTTON_RIGHT: return wm::kRightButton;
    case SDL_BUTTON_MIDDLE: return wm::kMiddleButton;
    default: return -1;
    }
}

void handleWindowEvent(SdlWindow& window, const SDL_WindowEvent& event) {
    switch (event.event) {
    case SDL_WINDOWEVENT_SIZE_CHANGED:
        if (!(SDL_GetWindowFlags(window.window.get()) & SDL_WINDOW_MINIMIZED)) readClientSize(window);
        break;
    case SDL_WINDOWEVENT_FOCUS_GAINED: wm::gainFocus(window.state); break;
    case SDL_WINDOWEVENT_FOCUS_LOST:
        wm::loseFocus(window.state);
        SDL_CaptureMouse(SDL_FALSE);
        break;
    case SDL_WINDOWEVENT_CLOSE: window.state.closeRequested = true; break;
    case SDL_WINDOWEVENT_EXPOSED: window.exposed = true; break;
    default: break;
    }
}

// One event from the queue, to the window it names.
void dispatch(const SDL_Event& event) {
    switch (event.type) {
    case SDL_QUIT:
        for (SdlWindow* window : g_windows) window->state.closeRequested = true;
        break;
    case SDL_WINDOWEVENT:
        if (SdlWindow* window = windowWithId(event.window.windowID)) handleWindowEvent(*window, event.window);
        break;
    case SDL_KEYDOWN:
    case SDL_KEYUP:
        if (SdlWindow* window = windowWithId(event.key.windowID))
            wm::setKeyFlag(window->state, wm::sdl::virtualKeyFor(event.key.keysym.sym, event.key.keysym.scancode),
                           event.type == SDL_KEYDOWN);
        break;
    case SDL_MOUSEMOTION:
        if (SdlWindow* window = windowWithId(event.motion.windowID)) updatePointer(*window, event.motion.x, event.motion.y);
        break;
    case SDL_MOUSEBUTTONDOWN:
    case SDL_MOUSEBUTTONUP:
        if (SdlWindow* window = windowWithId(event.button.windowID)) {
            updatePointer(*window, event.button.x, event.button.y);
            const bool anyDown = wm::setMouseButton(window->state, buttonIndex(event.button.button),
                                                    event.type == SDL_MOUSEBUTTONDOWN);
            // Held while a button is down, so a drag that leaves the window still ends here.
            SDL_CaptureMouse(anyDown ? SDL_TRUE : SDL_FALSE);
        }
        break;
    default: break;
    }
}

// Copies the back buffer into the texture (remade when the size changed) and shows it.
void present(SdlWindow& window, bool upload) {
    const int width = window.state.clientWidth, height = window.state.clientHeight;
    if (!window.texture || window.textureWidth != width || window.textureHeight != height) {
        window.texture.reset(SDL_CreateTexture(window.renderer.get(), SDL_PIXELFORMAT_RGB888, SDL_TEXTUREACCESS_STREAMING,
                                               width, height));
        if (!window.texture) return;
        window.textureWidth = width;
        window.textureHeight = height;
        upload = true;
    }
    if (upload)
        SDL_UpdateTexture(window.texture.get(), nullptr, window.state.backBufferWords.data(), width * 4);
    SDL_RenderCopy(window.renderer.get(), window.texture.get(), nullptr, nullptr);
    SDL_RenderPresent(window.renderer.get());
}

}  // namespace

wm::WindowState* wm::stateOf(WmWindow* window) { return window ? &window->state : nullptr; }

WmWindow* wm_createWindow(int width, int height, const char* title) {
    std::unique_ptr<SdlWindow> record(new (std::nothrow) SdlWindow);
    if (!record || !record->video.held) return nullptr;
    wm::initialiseWindowState(record->state, width, height, title);
    record->window.reset(SDL_CreateWindow(record->state.title.c_str(), SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED,
                                          record->state.requestedWidth, record->state.requestedHeight,
                                          SDL_WINDOW_SHOWN | SDL_WINDOW_RESIZABLE | SDL_WINDOW_ALLOW_HIGHDPI));
    if (!record->window) return nullptr;
    record->renderer.reset(SDL_CreateRenderer(record->window.get(), -1, 0));
    if (!record->renderer) record->renderer.reset(SDL_CreateRenderer(record->window.get(), -1, SDL_RENDERER_SOFTWARE));
    if (!record->renderer) return nullptr;
    record->windowId = SDL_GetWindowID(record->window.get());
    readClientSize(*record);
    if (SDL_GetWindowFlags(record->window.get()) & SDL_WINDOW_INPUT_FOCUS) wm::gainFocus(record->state);
    record->state.dirty = true;
    g_windows.push_back(record.get());
    wm::makeCurrent(&record->state);
    return record.release();
}

void wm_destroyWindow(WmWindow* window) {
    if (!window) return;
    wm::forgetWindow(&window->state);
    g_windows.erase(std::remove(g_windows.begin(), g_windows.end(), window), g_windows.end());
    if (g_windows.empty()) SDL_CaptureMouse(SDL_FALSE);
    delete window;
}

void wm_setWindowTitle(WmWindow* window, const char* title) {
    if (!window) return;
    window->state.title = title ? title : "";
    SDL_SetWindowTitle(window->window.get(), window->state.title.c_str());
}

void wm_setWindowSize(WmWindow* window, int width, int height) {
    if (!window) return;
    double ratioX = 1.0, ratioY = 1.0;
    pixelRatio(*window, ratioX, ratioY);
    SDL_SetWindowSize(window->window.get(), std::max(1, static_cast<int>(std::lround(std::max(width, 1) / ratioX))),
                      std::max(1, static_cast<int>(std::lround(std::max(height, 1) / ratioY))));
    readClientSize(*window);
}

void wm_updateWindow(WmWindow* window) {
    if (!window || !window->window) return;
    SDL_Event event;
    while (SDL_PollEvent(&event)) dispatch(event);
    if (window->state.dirty) {
        wm::composeBackBuffer(window->state);
        present(*window, true);
        window->state.dirty = false;
        window->exposed = false;
    } else if (window->exposed) {
        present(*window, false);
        window->exposed = false;
    }
    wm::makeCurrent(&window->state);
}
