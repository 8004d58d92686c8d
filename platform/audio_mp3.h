// MP3 decoding into the tracks' in-memory form (interleaved signed 16-bit samples). On Linux it
// uses the system's libmpg123; a build without an MP3 decoder refuses every file. Silent: the
// result and the failure code say what happened.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace korvel::audio {

enum class Mp3Failure {
    None,
    Unsupported,    // this build has no MP3 decoder
    DecoderFailed,  // the decoder could not start
    NoAudio,        // no MPEG audio frame found
    FormatChanged,  // the stream changed its rate or channel count midway
    TooLong,        // more decoded samples than a track may hold
};

// The most samples a decoded MP3 may have: 2^28 (512 MiB), so a small file cannot make the
// decoder allocate without bound.
inline constexpr std::size_t kMaxMp3Samples = std::size_t{1} << 28;

// Decodes the whole stream at `bytes` (ID3 tags and junk before the first frame are skipped).
// On success replaces samples, rate and channel count; on failure leaves them untouched.
bool decodeMp3(const std::uint8_t* bytes, std::size_t length, std::vector<std::int16_t>& samples,
               std::uint32_t& sampleRate, std::uint16_t& channels, Mp3Failure* failure = nullptr);

// A short lower-case sentence for the failure.
const char* describeMp3Failure(Mp3Failure failure);

}  // namespace korvel::audio
