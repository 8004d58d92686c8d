// Real output for the audio tests: SDL's disk driver writes everything the device plays to a
// file, which the tests read back after the device is closed.
#pragma once

#include "platform/audio_output.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace audiotest {

using Samples = std::vector<std::int16_t>;

// A stereo track whose every frame is different and never silent, so that any frame found in
// the output names its own index: left counts 1..30000 up, right counts the 30000-blocks down.
inline std::int16_t leftOf(std::uint64_t frame) { return static_cast<std::int16_t>(frame % 30000 + 1); }
inline std::int16_t rightOf(std::uint64_t frame) { return static_cast<std::int16_t>(-1 - static_cast<std::int64_t>(frame / 30000)); }
inline Samples numberedTrack(std::uint64_t frames) {
    Samples samples(frames * 2);
    for (std::uint64_t frame = 0; frame < frames; ++frame) {
        samples[frame * 2] = leftOf(frame);
        samples[frame * 2 + 1] = rightOf(frame);
    }
    return samples;
}
// The index encoded in a frame of numberedTrack, or -1 for a frame that is not one of them.
inline std::int64_t frameIndex(std::int16_t left, std::int16_t right) {
    if (left < 1 || left > 30000 || right > -1) return -1;
    return static_cast<std::int64_t>(-1 - right) * 30000 + (left - 1);
}
inline Samples constantTrack(std::uint64_t frames, std::int16_t left, std::int16_t right) {
    Samples samples(frames * 2);
    for (std::uint64_t frame = 0; frame < frames; ++frame) {
        samples[frame * 2] = left;
        samples[frame * 2 + 1] = right;
    }
    return samples;
}

inline std::filesystem::path workDirectory() {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::filesystem::path directory =
        std::filesystem::path(KORVEL_AUDIO_TEST_WORK_DIR) / (std::string(info->test_suite_name()) + "." + info->name());
    std::filesystem::create_directories(directory);
    return directory;
}

// Points the next opening of the device at SDL's disk driver writing to `path`, with no device
// open now (a device opened earlier in this process is closed first).
inline void useDiskOutput(const std::filesystem::path& path) {
    wm_shutdownMixer();
    std::filesystem::remove(path);
    setenv("SDL_AUDIODRIVER", "disk", 1);
    setenv("SDL_DISKAUDIOFILE", path.c_str(), 1);
}

// Closes the device (so the file is complete) and returns the frames written to it.
inline Samples finishDiskOutput(const std::filesystem::path& path) {
    wm_shutdownMixer();
    std::ifstream file(path, std::ios::binary);
    std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    Samples samples(bytes.size() / 2);
    std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
    return samples;
}

// Index of the first frame of `output` that is not silence, or the frame count when all are.
inline std::size_t firstSoundFrame(const Samples& output) {
    std::size_t frame = 0;
    while (frame * 2 + 1 < output.size() && output[frame * 2] == 0 && output[frame * 2 + 1] == 0) ++frame;
    return std::min(frame, output.size() / 2);
}

inline bool isSilentFrom(const Samples& output, std::size_t frame) {
    for (std::size_t index = frame * 2; index < output.size(); ++index) {
        if (output[index] != 0) return false;
    }
    return true;
}

// Waits (polling) until `done` holds or `limit` passes; true when it held.
template <typename Condition>
bool waitFor(Condition done, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace audiotest
