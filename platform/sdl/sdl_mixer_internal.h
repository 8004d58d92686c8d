// What the SDL2 audio backend shows its tests and benchmark.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace korvel::audio_output {

// Clamps each 32-bit sum to the 16-bit range: the mixer saturates rather than wraps.
void saturate(const std::int32_t* mix, std::int16_t* out, std::size_t sampleCount);

// What the device callback has cost since the device opened: calls and the time spent in them.
struct MixerStatistics {
    std::atomic<std::uint64_t> callbacks{0};
    std::atomic<std::uint64_t> framesMixed{0};
    std::atomic<std::uint64_t> nanoseconds{0};
};
MixerStatistics& mixerStatistics();

}  // namespace korvel::audio_output
