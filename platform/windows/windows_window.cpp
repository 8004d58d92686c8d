// The window layer on Win32: one overlapped window of the class "QuillfenKorvelWindow" with
// its own device context. The shared code composes the back buffer; this file feeds it from
// window messages and copies its 32-bit words to the screen in one device-independent-bitmap
// transfer (32 bits a pixel, top-down rows: the words are BGRX in memory).
#include "platform/window_internal.h"

#include <windows.h>
#include <windowsx.h>

#include <algorithm>
#include <memory>
#include <new>

struct WindowsWindow {
    wm::WindowState state;
    HWND window = nullptr;
    HDC deviceContext = nullptr;  // the class's own context, taken once at creation
    BITMAPINFO bitmapHeader{};    // describes the back buffer; rewritten whenever it is resized
};

namespace {

constexpr const char* kClassName = "QuillfenKorvelWindow";

// Tells the system the process draws at the screen's real resolution, so the window is not
// scaled (and blurred) behind its back. Looked up at run time: older systems lack it.
void becomeDpiAware() {
    HMODULE user32 = GetModuleHandleA("user32.dll");
    if (!user32) user32 = LoadLibraryA("user32.dll");
    if (!user32) return;
    using SetAwareFunction = BOOL(WINAPI*)();
    auto setAware = reinterpret_cast<SetAwareFunction>(reinterpret_cast<void*>(GetProcAddress(user32, "SetProcessDPIAware")));
    if (setAware) setAware();
}

void writeBitmapHeader(WindowsWindow& window) {
    BITMAPINFOHEADER& header = window.bitmapHeader.bmiHeader;
    header = BITMAPINFOHEADER{};
    header.biSize = sizeof(BITMAPINFOHEADER);
    header.biWidth = window.state.clientWidth;
    header.biHeight = -window.state.clientHeight;  // negative: top row first
    header.biPlanes = 1;
    header.biBitCount = 32;
    header.biCompression = BI_RGB;
}

void resizeBackBuffer(WindowsWindow& window, int width, int height) {
    wm::resizeClient(window.state, width, height);
    writeBitmapHeader(window);
}

// Copies the composed back buffer to a device context, covering the whole client area.
void copyToScreen(WindowsWindow& window, HDC target) {
    const int width = window.state.clientWidth, height = window.state.clientHeight;
    if (window.bitmapHeader.bmiHeader.biWidth != width || window.bitmapHeader.bmiHeader.biHeight != -height)
        writeBitmapHeader(window);
    RECT client{};
    GetClientRect(window.window, &client);
    const int targetWidth = client.right - client.left, targetHeight = client.bottom - client.top;
    if (targetWidth == width && targetHeight == height)
        SetDIBitsToDevice(target, 0, 0, width, height, 0, 0, 0, height, window.state.backBufferWords.data(),
                          &window.bitmapHeader, DIB_RGB_COLORS);
    else  // a size message still on its way: stretch rather than leave a gap
        StretchDIBits(target, 0, 0, targetWidth, targetHeight, 0, 0, width, height, window.state.backBufferWords.data(),
                      &window.bitmapHeader, DIB_RGB_COLORS, SRCCOPY);
}

void pressButton(WindowsWindow& window, HWND handle, int button, LPARAM position) {
    wm::updateMousePosition(window.state, GET_X_LPARAM(position), GET_Y_LPARAM(position));
    wm::setMouseButton(window.state, button, true);
    SetCapture(handle);  // a drag that leaves the window still reports its release here
}

void releaseButton(WindowsWindow& window, int button, LPARAM position) {
    wm::updateMousePosition(window.state, GET_X_LPARAM(position), GET_Y_LPARAM(position));
    if (!wm::setMouseButton(window.state, button, false)) ReleaseCapture();
}

LRESULT CALLBACK windowProcedure(HWND handle, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_NCCREATE) {
        const auto* creation = reinterpret_cast<const CREATESTRUCTA*>(lParam);
        SetWindowLongPtrA(handle, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(creation->lpCreateParams));
        return DefWindowProcA(handle, message, wParam, lParam);
    }
    auto* window = reinterpret_cast<WindowsWindow*>(GetWindowLongPtrA(handle, GWLP_USERDATA));
    if (!window) return DefWindowProcA(handle, message, wParam, lParam);
    wm::WindowState& state = window->state;
    switch (message) {
    case WM_SIZE:
        if (wParam != SIZE_MINIMIZED) resizeBackBuffer(*window, LOWORD(lParam), HIWORD(lParam));
        return 0;
    case WM_SETFOCUS: wm::gainFocus(state); return 0;
    case WM_KILLFOCUS: wm::loseFocus(state); return 0;
    case WM_PAINT: {
        PAINTSTRUCT paint;
        HDC target = BeginPaint(handle, &paint);
        if (target) {
            if (state.dirty) {
                wm::composeBackBuffer(state);
                state.dirty = false;
            }
            copyToScreen(*window, target);
        }
        EndPaint(handle, &paint);
        return 0;
    }
    case WM_CLOSE: state.closeRequested = true; return 0;  // the game decides when to destroy
    case WM_ERASEBKGND: return 1;                          // the picture covers everything: no flicker
    case WM_KEYDOWN:
    case WM_SYSKEYDOWN:
        wm::setKeyFlag(state, static_cast<unsigned>(wParam), true);
        if (message == WM_SYSKEYDOWN) break;  // Alt+F4 and the system menu still work
        return 0;
    case WM_KEYUP:
    case WM_SYSKEYUP:
        wm::setKeyFlag(state, static_cast<unsigned>(wParam), false);
        if (message == WM_SYSKEYUP) break;
        return 0;
    case WM_MOUSEMOVE: wm::updateMousePosition(state, GET_X_LPARAM(lParam), GET_Y_LPARAM(lParam)); return 0;
    case WM_LBUTTONDOWN: pressButton(*window, handle, wm::kLeftButton, lParam); return 0;
    case WM_RBUTTONDOWN: pressButton(*window, handle, wm::kRightButton, lParam); return 0;
    case WM_MBUTTONDOWN: pressButton(*window, handle, wm::kMiddleButton, lParam); return 0;
    case WM_LBUTTONUP: releaseButton(*window, wm::kLeftButton, lParam); return 0;
    case WM_RBUTTONUP: releaseButton(*window, wm::kRightButton, lParam); return 0;
    case WM_MBUTTONUP: releaseButton(*window, wm::kMiddleButton, lParam); return 0;
    default: break;
    }
    return DefWindowProcA(handle, message, wParam, lParam);
}

// Registers the window class once per process; false when that fails for another reason than
// the class already existing.
bool registerWindowClass() {
    static bool registered = false;
    if (registered) return true;
    WNDCLASSEXA windowClass{};
    windowClass.cbSize = sizeof windowClass;
    windowClass.style = CS_HREDRAW | CS_VREDRAW | CS_OWNDC;
    windowClass.lpfnWndProc = windowProcedure;
    windowClass.hInstance = GetModuleHandleA(nullptr);
    windowClass.hCursor = LoadCursor(nullptr, IDC_ARROW);
    windowClass.lpszClassName = kClassName;
    if (!RegisterClassExA(&windowClass) && GetLastError() != ERROR_CLASS_ALREADY_EXISTS) return false;
    registered = true;
    return true;
}

// Releases what creation acquired, in reverse order.
void releaseWindow(WindowsWindow& window) {
    if (window.window) {
        // Messages sent during destruction must not reach a record about to be freed.
        SetWindowLongPtrA(window.window, GWLP_USERDATA, 0);
        if (window.deviceContext) ReleaseDC(window.window, window.deviceContext);
        DestroyWindow(window.window);
    }
    window.deviceContext = nullptr;
    window.window = nullptr;
}

}  // namespace

wm::WindowState* wm::stateOf(WmWindow* window) { return window ? &window->state : nullptr; }

WmWindow* wm_createWindow(int width, int height, const char* title) {
    becomeDpiAware();
    if (!registerWindowClass()) return nullptr;
    std::unique_ptr<WindowsWindow> record(new (std::nothrow) WindowsWindow);
    if (!record) return nullptr;
    wm::initialiseWindowState(record->state, width, height, title);
    writeBitmapHeader(*record);

    const DWORD style = WS_OVERLAPPEDWINDOW;
    RECT outer{0, 0, record->state.requestedWidth, record->state.requestedHeight};
    AdjustWindowRect(&outer, style, FALSE);
    const int outerWidth = outer.right - outer.left, outerHeight = outer.bottom - outer.top;
    const int x = std::max(0, (GetSystemMetrics(SM_CXSCREEN) - outerWidth) / 2);
    const int y = std::max(0, (GetSystemMetrics(SM_CYSCREEN) - outerHeight) / 2);

    record->window = CreateWindowExA(0, kClassName, record->state.title.c_str(), style, x, y, outerWidth, outerHeight,
                                     nullptr, nullptr, GetModuleHandleA(nullptr), record.get());
    if (record->window) record->deviceContext = GetDC(record->window);
    if (!record->window || !record->deviceContext) {
        releaseWindow(*record);
        return nullptr;
    }
    RECT client{};
    GetClientRect(record->window, &client);
    resizeBackBuffer(*record, client.right - client.left, client.bottom - client.top);
    ShowWindow(record->window, SW_SHOW);
    UpdateWindow(record->window);
    if (GetForegroundWindow() == record->window) wm::gainFocus(record->state);
    record->state.dirty = true;
    wm::makeCurrent(&record->state);
    return record.release();
}

void wm_destroyWindow(WmWindow* window) {
    if (!window) return;
    wm::forgetWindow(&window->state);
    releaseWindow(*window);
    delete window;
}

void wm_setWindowTitle(WmWindow* window, const char* title) {
    if (!window) return;
    window->state.title = title ? title : "";
    if (window->window) SetWindowTextA(window->window, window->state.title.c_str());
}

void wm_setWindowSize(WmWindow* window, int width, int height) {
    if (!window || !window->window) return;
    RECT outer{0, 0, std::max(width, 1), std::max(height, 1)};
    AdjustWindowRect(&outer, static_cast<DWORD>(GetWindowLongPtrA(window->window, GWL_STYLE)), FALSE);
    // The size message this sends resizes the back buffer before SetWindowPos returns.
    SetWindowPos(window->window, nullptr, 0, 0, outer.right - outer.left, outer.bottom - outer.top,
                 SWP_NOMOVE | SWP_NOZORDER | SWP_NOACTIVATE);
}

void wm_updateWindow(WmWindow* window) {
    if (!window || !window->window) return;
    MSG message;
    while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
        if (message.message == WM_QUIT) {
            window->state.closeRequested = true;
            continue;
        }
        TranslateMessage(&message);
        DispatchMessageA(&message);
    }
    wm::WindowState& state = window->state;
    if (state.dirty && window->window && window->deviceContext && state.clientWidth > 0 && state.clientHeight > 0) {
        wm::composeBackBuffer(state);
        copyToScreen(*window, window->deviceContext);
        ValidateRect(window->window, nullptr);
        state.dirty = false;
    }
    wm::makeCurrent(&state);
}
