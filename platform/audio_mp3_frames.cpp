// Layer III frame headers (see audio_mp3_frames.h).
#include "platform/audio_mp3_frames.h"

namespace korvel::audio {

namespace {

// Bit rates in kbit/s by index, for MPEG-1 Layer III and for MPEG-2 and 2.5 Layer III.
constexpr std::uint16_t kMpeg1Bitrates[16] = {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0};
constexpr std::uint16_t kMpeg2Bitrates[16] = {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0};
constexpr std::uint32_t kMpeg1Rates[3] = {44100, 48000, 32000};

// An ID3v2 tag: "ID3", version, flags, then a 28-bit size in four 7-bit bytes; a footer
// (flag 0x10) adds ten more bytes.
std::size_t id3TagLength(const std::uint8_t* bytes, std::size_t length) {
    if (length < 10 || bytes[0] != 'I' || bytes[1] != 'D' || bytes[2] != '3') return 0;
    if ((bytes[6] | bytes[7] | bytes[8] | bytes[9]) & 0x80) return 0;
    std::size_t size = (std::size_t{bytes[6]} << 21) | (std::size_t{bytes[7]} << 14) | (std::size_t{bytes[8]} << 7) | bytes[9];
    size += 10;
    if (bytes[5] & 0x10) size += 10;
    return size;
}

}  // namespace

bool parseMp3FrameHeader(const std::uint8_t* bytes, std::size_t length, Mp3FrameHeader* header) {
    if (length < 4 || bytes[0] != 0xFF || (bytes[1] & 0xE0) != 0xE0) return false;
    const unsigned version = (bytes[1] >> 3) & 3;  // 0: MPEG-2.5, 2: MPEG-2, 3: MPEG-1, 1: reserved
    const unsigned layer = (bytes[1] >> 1) & 3;    // 1: Layer III
    const unsigned bitrateIndex = bytes[2] >> 4;
    const unsigned rateIndex = (bytes[2] >> 2) & 3;
    const unsigned padding = (bytes[2] >> 1) & 1;
    const unsigned mode = bytes[3] >> 6;  // 3: single channel
    if (version == 1 || layer != 1 || bitrateIndex == 0 || bitrateIndex == 15 || rateIndex == 3) return false;
    const bool mpeg1 = version == 3;
    Mp3FrameHeader result;
    result.sampleRate = kMpeg1Rates[rateIndex] >> (mpeg1 ? 0 : version == 2 ? 1 : 2);
    result.channels = mode == 3 ? 1 : 2;
    result.bitrate = std::uint32_t{mpeg1 ? kMpeg1Bitrates[bitrateIndex] : kMpeg2Bitrates[bitrateIndex]} * 1000;
    result.samplesPerFrame = mpeg1 ? 1152 : 576;
    result.frameBytes = result.samplesPerFrame / 8 * result.bitrate / result.sampleRate + padding;
    if (header) *header = result;
    return true;
}

std::size_t findFirstMp3Frame(const std::uint8_t* bytes, std::size_t length, Mp3FrameHeader* header) {
    if (!bytes) return length;
    const std::size_t start = id3TagLength(bytes, length);
    const std::size_t limit = start + 65536 < length ? start + 65536 : length;
    for (std::size_t offset = start; offset + 4 <= limit; ++offset) {
        Mp3FrameHeader first;
        if (!parseMp3FrameHeader(bytes + offset, length - offset, &first)) continue;
        const std::size_t next = offset + first.frameBytes;
        Mp3FrameHeader second;
        const bool confirmed = next == length || (next < length && parseMp3FrameHeader(bytes + next, length - next, &second) &&
                                                  second.sampleRate == first.sampleRate && second.channels == first.channels);
        if (!confirmed) continue;
        if (header) *header = first;
        return offset;
    }
    return length;
}

}  // namespace korvel::audio
