// The WAV codec: RIFF/WAVE files of the common integer-PCM and float layouts in, one in-memory
// form out (interleaved signed 16-bit samples), and that form back out as a canonical 16-bit PCM
// file. Stateless and silent: every function reports by its result, nothing throws or prints.
// docs/wav.md lists what is accepted and refused and how samples are converted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace korvel::wav {

// A decoded sound.
struct DecodedFile {
    std::vector<std::int16_t> samples;  // interleaved by frame: frame 0 channel 0, frame 0 channel 1, ...
    std::uint32_t sampleRate = 0;       // frames per second
    std::uint16_t channels = 0;
};

struct DecodeOptions {
    std::uint16_t channels = 0;  // the wanted channel count of the result; 0 keeps the file's own
};

// Why decode refused a file; describeDecodeFailure gives the text a caller can show.
enum class DecodeFailure {
    None,
    NullArgument,
    TooShort,
    NotRiff,
    NotWave,
    ChunkPastEnd,
    FormatChunkTooShort,
    ExtensibleFormatTooShort,
    UnsupportedFormatTag,
    UnsupportedIntegerBits,
    UnsupportedFloatBits,
    NoFormatChunk,
    NoDataChunk,
    EmptyData,
    NoChannels,
    NoSampleRate,
    DataShorterThanFrame,
    TooLarge,
};

// Returns true and replaces `out` when the bytes are an accepted WAVE file; otherwise returns
// false, leaves `out` untouched and, when `failure` is given, stores the reason there. Reads only
// bytes[0, length); allocates only for the frames actually present in the data chunk.
[[nodiscard]] bool decode(const std::uint8_t* bytes, std::size_t length, DecodedFile* out,
                          DecodeOptions options = {}, DecodeFailure* failure = nullptr);

// A short lower-case sentence for the failure, e.g. "not a WAVE file".
const char* describeDecodeFailure(DecodeFailure failure);

// One sample as a value in [-1, 1]: integer PCM (tag 1) of 8 (unsigned), 16, 24 or 32 bits,
// scaled by the power of two of its range; IEEE float (tag 3) of 32 or 64 bits, clamped. A NaN
// reads as 0; any other tag or size, or a null pointer, reads as 0.
double readSampleAsFloat(const std::uint8_t* sample, std::uint16_t formatTag, std::uint16_t bitsPerSample);

// Replaces `out` with the bytes of a 16-bit PCM file holding `file`. False, with `out` untouched,
// when `out` is null, there are no samples, the channel count is 0, the sample count is not a
// multiple of it, or the sizes do not fit the header's 32-bit fields.
[[nodiscard]] bool encode(const DecodedFile& file, std::vector<std::uint8_t>* out);

// encode, then writes the bytes to `path` through a temporary file renamed over it, so a failed
// write leaves an existing file whole. False when either step fails.
[[nodiscard]] bool encodeFile(const std::string& path, const DecodedFile& file);

// Reads a whole file; false when it cannot be opened or read.
[[nodiscard]] bool readFileBytes(const std::string& path, std::vector<std::uint8_t>& out);

// Append an integer, least significant byte first.
void writeU16LE(std::vector<std::uint8_t>& out, std::uint16_t value);
void writeU32LE(std::vector<std::uint8_t>& out, std::uint32_t value);

}  // namespace korvel::wav
