// A real window for the driver scripts (run_x11_tests.sh with SDL under Xvfb,
// run_wine_tests.sh with the Win32 backend under wine). It shows a known picture and reports
// on standard output what the window layer sees, one line per change:
//   READY <title>                   the picture is on screen
//   INPUT <x> <y> <left> <right> <middle> keys=<hex codes down>
//   SIZE <width> <height>           the client size, at start and after every change
//   CLOSE 1                         the close flag went up
//   STILL_CLOSED 1 WINDOW_KEPT 1    a second later the flag and the window are still there
// Pressing F2 asks for an 800 × 400 client area through wm_setWindowSize. It gives up after
// 60 seconds. Only platform/window.h is used, so the same source runs on
// every backend.
#include "platform/window.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr const char* kTitle = "Korvel Window Probe";

// 320 × 200: left half red, right half green, a white pixel at (1, 1), a transparent block at
// the top right (shows the clear colour) and a half-transparent red block at the bottom left.
std::vector<std::uint8_t> probePicture() {
    std::vector<std::uint8_t> pixels(320 * 200 * 4);
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 320; ++x) {
            std::uint8_t* pixel = &pixels[(y * 320 + x) * 4];
            const bool left = x < 160;
            pixel[0] = left ? 255 : 0;
            pixel[1] = left ? 0 : 255;
            pixel[2] = 0;
            pixel[3] = 255;
            if (x == 1 && y == 1) pixel[0] = pixel[1] = pixel[2] = 255;
            if (x >= 300 && y < 10) pixel[3] = 0;
            if (x < 10 && y >= 190) pixel[0] = 255, pixel[1] = 0, pixel[3] = 128;
        }
    return pixels;
}

std::string inputLine(WmWindow* window) {
    int x = 0, y = 0;
    wm_getMousePosition(window, &x, &y);
    wm_updateKeyboardState();
    std::string keys;
    const WmKeyArray& down = wm_keyboardState();
    for (unsigned code = 0; code < down.size(); ++code) {
        if (!down[code]) continue;
        char text[8];
        std::snprintf(text, sizeof text, "%s%02X", keys.empty() ? "" : ",", code);
        keys += text;
    }
    char line[96];
    std::snprintf(line, sizeof line, "INPUT %d %d %d %d %d keys=", x, y, wm_getMouseButtonState(window, 0),
                  wm_getMouseButtonState(window, 1), wm_getMouseButtonState(window, 2));
    return line + keys;
}

void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

}  // namespace

int main() {
    WmWindow* window = wm_createWindow(640, 480, kTitle);
    if (!window) {
        say("NO_WINDOW");
        return 2;
    }
    wm_clearWindow(window, 0, 0, 255);
    const std::vector<std::uint8_t> picture = probePicture();
    wm_pushPixels(window, 320, 200, picture.data());
    for (int frame = 0; frame < 5; ++frame) {
        wm_updateWindow(window);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    int width = 0, height = 0;
    wm_getWindowSize(window, &width, &height);
    say("SIZE " + std::to_string(width) + " " + std::to_string(height));
    say(std::string("READY ") + wm_getWindowTitle(window));

    std::string last;
    int lastWidth = width, lastHeight = height;
    bool resized = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
        wm_pushPixels(window, 320, 200, picture.data());  // as a game does every frame
        wm_updateWindow(window);
        const std::string line = inputLine(window);
        if (line != last) say(last = line);
        if (!resized && wm_keyboardState()[0x71]) {  // F2
            resized = true;
            wm_setWindowSize(window, 800, 400);
        }
        wm_getWindowSize(window, &width, &height);
        if (width != lastWidth || height != lastHeight) {
            lastWidth = width;
            lastHeight = height;
            say("SIZE " + std::to_string(width) + " " + std::to_string(height));
        }
        if (wm_windowShouldClose(window)) {
            say("CLOSE 1");
            for (int frame = 0; frame < 50; ++frame) {
                wm_updateWindow(window);
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            say(std::string("STILL_CLOSED ") + (wm_windowShouldClose(window) ? "1" : "0") + " WINDOW_KEPT 1");
            wm_destroyWindow(window);
            say("DESTROYED");
            return 0;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    say("TIMEOUT");
    wm_destroyWindow(window);
    return 3;
}
