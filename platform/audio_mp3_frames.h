// MPEG audio Layer III frame headers: enough parsing to describe a stream to a decoder that
// wants its format up front (Windows' ACM codec). Platform-free.
#pragma once

#include <cstddef>
#include <cstdint>

namespace korvel::audio {

struct Mp3FrameHeader {
    std::uint32_t sampleRate = 0;
    std::uint16_t channels = 0;
    std::uint32_t bitrate = 0;       // bits per second
    std::uint32_t frameBytes = 0;    // the whole frame, header and padding included
    std::uint32_t samplesPerFrame = 0;  // per channel: 1,152 (MPEG-1) or 576
};

// Reads the 4-byte header at `bytes`; false unless it is a valid Layer III header (free-format
// bit rates are refused: their frame length is not in the header).
bool parseMp3FrameHeader(const std::uint8_t* bytes, std::size_t length, Mp3FrameHeader* header);

// The offset of the first Layer III frame after any ID3v2 tag, confirmed by a second header
// of the same rate and channel count right after it (or by the data ending there); `length`
// when there is none. Searches at most the first 64 KiB after the tag.
std::size_t findFirstMp3Frame(const std::uint8_t* bytes, std::size_t length, Mp3FrameHeader* header);

}  // namespace korvel::audio
