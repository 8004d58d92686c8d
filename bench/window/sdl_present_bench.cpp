// A game loop on a real SDL window: input update, push of the frame and present, as a script
// does with Metal.updateInput and Metal.renderImage. With an unchanged 960 × 544 frame nothing
// is recomposed, so the loop costs an input sample and one comparison of the frame; with a
// frame that changes every time, each iteration composes and presents. Run it on a display
// (for example `xvfb-run -a -s "-screen 0 1024x768x24" build/release/bench/window/sdl_present_bench`).
// Prints frames per second; never fails on timing.
#include "platform/window.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double framesPerSecond(WmWindow* window, std::vector<std::uint8_t>& frame, bool changeEveryFrame) {
    const auto start = Clock::now();
    const auto end = start + std::chrono::seconds(2);
    long frames = 0;
    while (Clock::now() < end) {
        wm_updateKeyboardState();
        int x = 0, y = 0;
        wm_getMousePosition(window, &x, &y);
        if (changeEveryFrame) frame[static_cast<std::size_t>(frames % 960) * 4] ^= 0xFF;
        wm_pushPixels(window, 960, 544, frame.data());
        wm_updateWindow(window);
        ++frames;
    }
    return frames / std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main() {
    WmWindow* window = wm_createWindow(960, 544, "Korvel present benchmark");
    if (!window) {
        std::printf("no window could be made (no display?)\n");
        return 0;
    }
    std::vector<std::uint8_t> frame(960 * 544 * 4, 255);
    for (std::size_t i = 0; i < frame.size(); i += 4) frame[i] = static_cast<std::uint8_t>(i / 4);
    wm_updateWindow(window);
    std::printf("unchanged 960x544 frame: %.0f frames/s (update input + push + present)\n",
                framesPerSecond(window, frame, false));
    std::printf("changing 960x544 frame: %.0f frames/s (update input + push + compose + present)\n",
                framesPerSecond(window, frame, true));
    wm_destroyWindow(window);
    return 0;
}
