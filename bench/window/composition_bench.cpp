// Composing the back buffer: a 960 × 544 picture into a 1920 × 1080 window, the size a game at
// the default screen size meets on a full-HD display. Prints milliseconds per frame (median of
// several runs) and the ratio to copying the back buffer once with memcpy, the floor any
// composition must pay. Reports only; never fails.
#include "platform/window_composition.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// A picture with every kind of pixel a frame has: mostly opaque, some transparent, some blended.
std::vector<std::uint8_t> gamePicture(int width, int height, bool withAlpha) {
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * height * 4);
    std::uint32_t seed = 12345;
    for (std::size_t i = 0; i < pixels.size(); i += 4) {
        seed = seed * 1664525u + 1013904223u;
        pixels[i] = static_cast<std::uint8_t>(seed >> 24);
        pixels[i + 1] = static_cast<std::uint8_t>(seed >> 16);
        pixels[i + 2] = static_cast<std::uint8_t>(seed >> 8);
        const std::uint8_t kind = static_cast<std::uint8_t>(seed) & 15;
        pixels[i + 3] = !withAlpha || kind > 1 ? 255 : kind == 0 ? 0 : static_cast<std::uint8_t>(seed >> 4);
    }
    return pixels;
}

template <typename Work>
double runMilliseconds(int frames, Work work) {
    const auto start = Clock::now();
    for (int frame = 0; frame < frames; ++frame) work();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count() / frames;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main() {
    constexpr int kRuns = 15, kFrames = 10;
    wm::WindowState state;
    wm::initialiseWindowState(state, 1920, 1080, "bench");
    wm::setClearColour(state, 16, 32, 48);

    std::vector<std::uint32_t> copy(state.backBufferWords.size());
    auto copyBackBuffer = [&] {
        std::memcpy(copy.data(), state.backBufferWords.data(), copy.size() * sizeof copy[0]);
        asm volatile("" : : "r"(copy.data()) : "memory");
    };

    struct Case {
        const char* name;
        int width, height;
        bool alpha;
    };
    const Case cases[] = {{"960x544 opaque into 1920x1080", 960, 544, false},
                          {"960x544 with 1/8 transparent or blended pixels into 1920x1080", 960, 544, true},
                          {"1920x1080 opaque into 1920x1080 (no scaling)", 1920, 1080, false}};
    for (const Case& c : cases) {
        const std::vector<std::uint8_t> pixels = gamePicture(c.width, c.height, c.alpha);
        wm::pushPixels(state, c.width, c.height, pixels.data());
        // The copy and the composition alternate, so both see the same load of the machine.
        std::vector<double> copyTimes, composeTimes;
        for (int run = 0; run < kRuns; ++run) {
            copyTimes.push_back(runMilliseconds(kFrames, copyBackBuffer));
            composeTimes.push_back(runMilliseconds(kFrames, [&] { wm::composeBackBuffer(state); }));
        }
        const double copyMs = median(copyTimes), composeMs = median(composeTimes);
        std::printf("compose %s: %.3f ms per frame (%.0f frames/s); memcpy of the back buffer %.3f ms; ratio %.2fx\n",
                    c.name, composeMs, 1000.0 / composeMs, copyMs, composeMs / copyMs);
    }
    return 0;
}
