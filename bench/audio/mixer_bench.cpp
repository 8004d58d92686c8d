// The cost of the SDL mixer's device callback with N tracks playing. SDL's dummy driver calls
// the callback in real time without writing anything; the callback keeps its own count of calls
// and of the time spent in them, so this program plays N looping tracks for a while and reports
// the time per call and the share of one core the mixing takes. Half a second per row; it
// reports and never fails on time.
// Usage: mixer_bench [SECONDS_PER_ROW]
#include "platform/audio_output.h"
#include "platform/sdl/sdl_mixer_internal.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

struct Row {
    double microsecondsPerCall = 0;
    double nanosecondsPerFrame = 0;  // per device frame mixed
    double coreShare = 0;            // time in the callback over wall time
};

Row measure(int trackCount, std::uint32_t rate, double seconds) {
    std::vector<std::int16_t> samples(rate * 2);  // one second, a loud chord so sums saturate sometimes
    for (std::size_t frame = 0; frame < rate; ++frame) {
        const double t = static_cast<double>(frame) / rate;
        samples[frame * 2] = static_cast<std::int16_t>(9000 * std::sin(2 * 3.14159265 * 220 * t));
        samples[frame * 2 + 1] = static_cast<std::int16_t>(9000 * std::sin(2 * 3.14159265 * 330 * t));
    }
    std::vector<AudioHandle> handles;
    for (int index = 0; index < trackCount; ++index) {
        handles.push_back(OpenPCMTrack(samples.data(), samples.size(), rate, 2));
        Play(handles.back(), static_cast<std::uint64_t>(index) * 37, true);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // past start-up
    auto& statistics = korvel::audio_output::mixerStatistics();
    const std::uint64_t calls = statistics.callbacks.load(), frames = statistics.framesMixed.load();
    const std::uint64_t nanoseconds = statistics.nanoseconds.load();
    const auto started = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double wall = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - started).count();
    const double spent = static_cast<double>(statistics.nanoseconds.load() - nanoseconds);
    const double callCount = static_cast<double>(statistics.callbacks.load() - calls);
    const double frameCount = static_cast<double>(statistics.framesMixed.load() - frames);
    for (AudioHandle handle : handles) Close(handle);
    Row row;
    if (callCount > 0) row.microsecondsPerCall = spent / callCount / 1000;
    if (frameCount > 0) row.nanosecondsPerFrame = spent / frameCount;
    row.coreShare = spent / wall;
    return row;
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 0.5;
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    if (!wm_has_mixer()) {
        std::printf("no audio device (SDL's dummy driver did not open); nothing measured\n");
        return 0;
    }
    std::printf("SDL mixer callback, 44,100 Hz device, 256-frame periods, %.1f s a row\n", seconds);
    std::printf("%7s %10s %14s %14s %10s\n", "tracks", "track Hz", "us per call", "ns per frame", "core %");
    for (std::uint32_t rate : {44100u, 32000u}) {
        for (int tracks : {1, 2, 4, 8, 16, 32}) {
            const Row row = measure(tracks, rate, seconds);
            std::printf("%7d %10u %14.2f %14.2f %10.3f\n", tracks, rate, row.microsecondsPerCall, row.nanosecondsPerFrame,
                        row.coreShare * 100);
        }
    }
    wm_shutdownMixer();
    return 0;
}
