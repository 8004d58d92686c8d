// The buffer-filling and position rules shared by the WinMM and SDL2 audio backends.
#include "platform/audio_output_internal.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace korvel::audio_output {

FillResult fillBuffer(const std::int16_t* samples, std::uint64_t sampleCount, bool loop, std::uint64_t& position,
                      std::int16_t* buffer) {
    FillResult result;
    const std::uint64_t frameCount = samples ? sampleCount / 2 : 0;
    if (frameCount == 0) {
        std::memset(buffer, 0, kBufferBytes);
        result.ended = true;
        return result;
    }
    std::uint32_t filled = 0;
    while (filled < kBufferFrames) {
        if (position >= frameCount) {
            if (!loop) {
                std::memset(buffer + std::size_t{filled} * 2, 0, std::size_t{kBufferFrames - filled} * 4);
                result.ended = true;
                break;
            }
            position = 0;
        }
        const std::uint64_t available = frameCount - position;
        const auto count = static_cast<std::uint32_t>(std::min<std::uint64_t>(available, kBufferFrames - filled));
        std::memcpy(buffer + std::size_t{filled} * 2, samples + position * 2, std::size_t{count} * 4);
        filled += count;
        position += count;
    }
    result.framesCopied = filled;
    result.write = filled > 0;
    return result;
}

std::uint64_t startFrameForOffset(std::uint64_t offsetMs, std::uint32_t sampleRate, std::uint64_t frameCount) {
    // A product that would not fit in 64 bits is far past the end of any track in memory.
    if (sampleRate != 0 && offsetMs > std::numeric_limits<std::uint64_t>::max() / sampleRate) return frameCount;
    return std::min(offsetMs * sampleRate / 1000, frameCount);
}

std::uint64_t offsetForPosition(std::uint64_t startFrame, std::uint64_t framesPlayed, std::uint64_t frameCount,
                                std::uint32_t sampleRate, bool loop) {
    if (sampleRate == 0 || frameCount == 0) return 0;
    std::uint64_t frame = 0;
    if (loop) {
        frame = (startFrame % frameCount + framesPlayed % frameCount) % frameCount;
    } else {
        frame = framesPlayed >= frameCount - std::min(startFrame, frameCount) ? frameCount : startFrame + framesPlayed;
    }
    // frame <= frameCount < 2^63 / 1000 for any track that fits in memory, so this cannot overflow.
    return frame * 1000 / sampleRate;
}

}  // namespace korvel::audio_output

#include "platform/audio_mp3.h"
#include "platform/audio_output.h"

#include <fstream>
#include <iterator>
#include <new>
#include <vector>

AudioHandle OpenMP3File(const char* path) {
    if (!path) return nullptr;
    try {
        std::ifstream file(path, std::ios::binary);
        if (!file) return nullptr;
        std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        std::vector<std::int16_t> samples;
        std::uint32_t sampleRate = 0;
        std::uint16_t channels = 0;
        if (!korvel::audio::decodeMp3(bytes.data(), bytes.size(), samples, sampleRate, channels)) return nullptr;
        if (channels == 1) {
            std::vector<std::int16_t> stereo(samples.size() * 2);
            for (std::size_t frame = 0; frame < samples.size(); ++frame) stereo[frame * 2] = stereo[frame * 2 + 1] = samples[frame];
            samples = std::move(stereo);
            channels = 2;
        }
        return OpenPCMTrack(samples.data(), samples.size(), sampleRate, channels);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
