// Decoding RIFF/WAVE bytes into interleaved 16-bit samples.
//
// The file is walked chunk by chunk with every size checked against the bytes that are really
// there before anything is read, and the output is sized from the frames present in the data
// chunk, never from what a header claims. Conversion is specialised per sample layout at compile
// time and free of branches on sample values, so the per-sample work is a few arithmetic
// operations (one vectorised pass for 16-bit files).
#include "platform/wav.h"

#include <array>
#include <bit>
#include <cstring>
#include <limits>
#include <new>

namespace korvel::wav {

namespace {

constexpr std::uint16_t kTagPcm = 1;
constexpr std::uint16_t kTagFloat = 3;
constexpr std::uint16_t kTagExtensible = 0xFFFE;

std::uint16_t readU16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }

std::uint32_t readU32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

std::uint64_t readU64(const std::uint8_t* p) {
    return static_cast<std::uint64_t>(readU32(p)) | static_cast<std::uint64_t>(readU32(p + 4)) << 32;
}

bool hasIdentifier(const std::uint8_t* p, const char* identifier) { return std::memcmp(p, identifier, 4) == 0; }

// The sample layouts the codec reads.
enum class SampleKind { Unsigned8, Signed16, Signed24, Signed32, Float32, Float64 };

std::int32_t readSigned24(const std::uint8_t* p) {
    // Assemble in the top three bytes of an unsigned word and shift back arithmetically, so the
    // sign comes from the top byte without relying on signed left shifts.
    std::uint32_t raw = static_cast<std::uint32_t>(p[0]) << 8 | static_cast<std::uint32_t>(p[1]) << 16 |
                        static_cast<std::uint32_t>(p[2]) << 24;
    return static_cast<std::int32_t>(raw) >> 8;
}

double clampUnit(double value) {
    if (value != value) return 0.0;  // NaN carries no level; silence is the least surprising reading
    return value < -1.0 ? -1.0 : value > 1.0 ? 1.0 : value;
}

template <SampleKind Kind>
double readValue(const std::uint8_t* p) {
    if constexpr (Kind == SampleKind::Unsigned8) return (static_cast<int>(p[0]) - 128) * (1.0 / 128);
    if constexpr (Kind == SampleKind::Signed16) return static_cast<std::int16_t>(readU16(p)) * (1.0 / 32768);
    if constexpr (Kind == SampleKind::Signed24) return readSigned24(p) * (1.0 / 8388608);
    if constexpr (Kind == SampleKind::Signed32) return static_cast<std::int32_t>(readU32(p)) * (1.0 / 2147483648.0);
    if constexpr (Kind == SampleKind::Float32) return clampUnit(std::bit_cast<float>(readU32(p)));
    if constexpr (Kind == SampleKind::Float64) return clampUnit(std::bit_cast<double>(readU64(p)));
}

// The 16-bit rule: -1 and +1 map to the two ends of the range, so negative values scale by 32768
// and the others by 32767, and the product is rounded to nearest with halves away from zero.
// It is applied to the magnitude and the sign put back afterwards, so only one rounding
// direction is needed: adding the double just below one half (0.5 − 2^−54) and truncating
// rounds halves up and everything else to nearest, exactly, for any magnitude below 2^52.
// (Adding 0.5 itself would round 0.5 − 2^−54 up to 1.) Everything is arithmetic or a select:
// the signs of real sound are a coin toss for a branch predictor.
// The scale is computed, not looked up, so that loops over samples can be vectorised.
constexpr double kJustBelowHalf = 0x1.fffffffffffffp-2;

std::int16_t sampleFromMagnitude(double magnitude, std::uint32_t negative) {
    const double scale = 32767.0 + static_cast<double>(static_cast<int>(negative));
    const int whole = static_cast<int>(magnitude * scale + kJustBelowHalf);
    const int sign = -static_cast<int>(negative);  // 0 or all ones
    return static_cast<std::int16_t>((whole ^ sign) - sign);
}

// Any double: NaN reads as silence and values beyond ±1 as ±1. On the bit pattern, as IEEE
// magnitudes order like their bits.
std::int16_t sampleFromValue(double value) {
    constexpr std::uint64_t kOne = 0x3FF0000000000000, kInfinity = 0x7FF0000000000000;
    const std::uint64_t bits = std::bit_cast<std::uint64_t>(value);
    std::uint64_t magnitude = bits & ~(std::uint64_t{1} << 63);
    magnitude &= 0 - static_cast<std::uint64_t>(magnitude <= kInfinity);  // a mask, where a select became a branch
    magnitude = magnitude > kOne ? kOne : magnitude;
    return sampleFromMagnitude(std::bit_cast<double>(magnitude), static_cast<std::uint32_t>(bits >> 63));
}

// The same for a single-precision sample, widened only after clamping.
std::int16_t sampleFromFloat(std::uint32_t bits) {
    constexpr std::uint32_t kOne = 0x3F800000, kInfinity = 0x7F800000;
    std::uint32_t magnitude = bits & 0x7FFFFFFF;
    magnitude &= 0u - static_cast<std::uint32_t>(magnitude <= kInfinity);
    magnitude = magnitude > kOne ? kOne : magnitude;
    return sampleFromMagnitude(std::bit_cast<float>(magnitude), bits >> 31);
}

// sampleFromValue(readValue(p)) for every 8-bit code, taken from the double path itself so the
// two can never disagree.
const std::array<std::int16_t, 256>& unsigned8Table() {
    static const std::array<std::int16_t, 256> table = [] {
        std::array<std::int16_t, 256> entries{};
        for (int code = 0; code < 256; ++code) {
            std::uint8_t byte = static_cast<std::uint8_t>(code);
            entries[static_cast<std::size_t>(code)] = sampleFromValue(readValue<SampleKind::Unsigned8>(&byte));
        }
        return entries;
    }();
    return table;
}

// Integer forms of sampleFromValue(readValue(p)) for the integer layouts. For a source value s of
// n bits the double path computes s/2^(n-1) × 32768 (negative) or × 32767 (otherwise); both
// products are exact in a double, so exact integer rounding gives the same results.
std::int16_t fromSigned16(std::int16_t s) {
    // s × 32767/32768 rounds back to s up to 16384 (16383.5 rounds away from zero) and to s − 1 above.
    return static_cast<std::int16_t>(s - (s > 16384 ? 1 : 0));
}

// For an n-bit source (shift = n − 1), both sides computed and one selected, as the sign of
// real sound is a coin toss for the branch predictor. Negative: s / 2^(n−16), halves away from
// zero, is floor((s + 2^(n−17) − 1) / 2^(n−16)). Non-negative: floor((s × 32767 + 2^(n−2)) / 2^(n−1)).
std::int16_t fromWideSigned(std::int64_t s, int shift) {
    const std::int64_t negative = (s + (std::int64_t{1} << (shift - 16)) - 1) >> (shift - 15);
    const std::int64_t positive = (s * 32767 + (std::int64_t{1} << (shift - 1))) >> shift;
    return static_cast<std::int16_t>(s < 0 ? negative : positive);
}

// The 24-bit case of fromWideSigned in 32-bit arithmetic. With s = 256a + b (0 <= b < 256),
// s × 32767 = a × 2^23 + b × 2^15 − s, so the non-negative result is a plus the floor of the
// small remainder term over 2^23; every intermediate fits in 32 bits.
std::int16_t fromSigned24(std::int32_t s) {
    const std::int32_t negative = (s + 127) >> 8;
    const std::int32_t positive = (s >> 8) + ((((s & 255) << 15) + (1 << 22) - s) >> 23);
    return static_cast<std::int16_t>(s < 0 ? negative : positive);
}

template <SampleKind Kind>
std::int16_t sampleAt(const std::uint8_t* p) {
    if constexpr (Kind == SampleKind::Unsigned8) return unsigned8Table()[p[0]];
    if constexpr (Kind == SampleKind::Signed16) return fromSigned16(static_cast<std::int16_t>(readU16(p)));
    if constexpr (Kind == SampleKind::Signed24) return fromSigned24(readSigned24(p));
    if constexpr (Kind == SampleKind::Signed32) return fromWideSigned(static_cast<std::int32_t>(readU32(p)), 31);
    if constexpr (Kind == SampleKind::Float32) return sampleFromFloat(readU32(p));
    if constexpr (Kind == SampleKind::Float64) return sampleFromValue(std::bit_cast<double>(readU64(p)));
}

template <SampleKind Kind>
constexpr std::size_t bytesOf() {
    if constexpr (Kind == SampleKind::Unsigned8) return 1;
    if constexpr (Kind == SampleKind::Signed16) return 2;
    if constexpr (Kind == SampleKind::Signed24) return 3;
    if constexpr (Kind == SampleKind::Float64) return 8;
    return 4;
}

struct Layout {
    std::size_t frames = 0;
    std::size_t sourceChannels = 0;
    std::size_t outputChannels = 0;
};

// Output mono: the mean of all source channels.
template <SampleKind Kind>
void mixToMono(const std::uint8_t* data, const Layout& layout, std::int16_t* out) {
    constexpr std::size_t width = bytesOf<Kind>();
    const double count = static_cast<double>(layout.sourceChannels);
    for (std::size_t frame = 0; frame < layout.frames; ++frame) {
        const std::uint8_t* p = data + frame * layout.sourceChannels * width;
        double sum = 0;
        for (std::size_t channel = 0; channel < layout.sourceChannels; ++channel) sum += readValue<Kind>(p + channel * width);
        out[frame] = sampleFromValue(sum / count);
    }
}

// Output channel c comes from source channel c, or from the last source channel when the source
// has fewer. For stereo output that is channels 0 and 1, or channel 0 twice from a mono source.
std::size_t sourceChannelFor(std::size_t channel, const Layout& layout) {
    return channel < layout.sourceChannels ? channel : layout.sourceChannels - 1;
}

template <SampleKind Kind>
void convert(const std::uint8_t* data, const Layout& layout, std::int16_t* out) {
    constexpr std::size_t width = bytesOf<Kind>();
    if (layout.outputChannels == 1 && layout.sourceChannels > 1) return mixToMono<Kind>(data, layout, out);
    if (layout.outputChannels == layout.sourceChannels) {
        const std::size_t count = layout.frames * layout.sourceChannels;
        if constexpr (Kind == SampleKind::Signed16 && std::endian::native == std::endian::little) {
            // One pass of plain loads the compiler turns into vector code.
            for (std::size_t i = 0; i < count; ++i) {
                std::int16_t sample;
                std::memcpy(&sample, data + 2 * i, sizeof sample);
                out[i] = fromSigned16(sample);
            }
        } else if constexpr (Kind == SampleKind::Signed24 && std::endian::native == std::endian::little) {
            // A 4-byte load per sample, with the top byte shifted out, is cheaper than assembling
            // three bytes; the last sample is read bytewise, as its fourth byte may lie past the file.
            for (std::size_t i = 0; i + 1 < count; ++i) {
                std::uint32_t word;
                std::memcpy(&word, data + 3 * i, sizeof word);
                out[i] = fromSigned24(static_cast<std::int32_t>(word << 8) >> 8);
            }
            out[count - 1] = sampleAt<Kind>(data + 3 * (count - 1));
        } else {
            for (std::size_t i = 0; i < count; ++i) out[i] = sampleAt<Kind>(data + i * width);
        }
        return;
    }
    std::vector<std::size_t> offsets(layout.outputChannels);
    for (std::size_t channel = 0; channel < layout.outputChannels; ++channel)
        offsets[channel] = sourceChannelFor(channel, layout) * width;
    const std::size_t stride = layout.sourceChannels * width;
    for (std::size_t frame = 0; frame < layout.frames; ++frame) {
        const std::uint8_t* p = data + frame * stride;
        for (std::size_t offset : offsets) *out++ = sampleAt<Kind>(p + offset);
    }
}

struct Format {
    std::uint16_t tag = 0;  // 1 or 3 once accepted; the real tag for extensible chunks
    std::uint16_t channels = 0;
    std::uint32_t sampleRate = 0;
    std::uint16_t bitsPerSample = 0;
};

// "fmt " body: tag, channels, rate, byte rate, block align, bits; for the extensible tag also
// extension size, valid bits, channel mask and a 16-byte sub-format whose first word is the tag.
DecodeFailure parseFormat(const std::uint8_t* body, std::uint32_t size, Format& format) {
    if (size < 16) return DecodeFailure::FormatChunkTooShort;
    Format parsed;
    parsed.tag = readU16(body);
    parsed.channels = readU16(body + 2);
    parsed.sampleRate = readU32(body + 4);
    parsed.bitsPerSample = readU16(body + 14);
    if (parsed.tag == kTagExtensible) {
        if (size < 40 || readU16(body + 16) < 22) return DecodeFailure::ExtensibleFormatTooShort;
        parsed.tag = readU16(body + 24);
        if (parsed.tag != kTagPcm && parsed.tag != kTagFloat) return DecodeFailure::UnsupportedFormatTag;
    }
    const std::uint16_t bits = parsed.bitsPerSample;
    if (parsed.tag == kTagPcm) {
        if (bits != 8 && bits != 16 && bits != 24 && bits != 32) return DecodeFailure::UnsupportedIntegerBits;
    } else if (parsed.tag == kTagFloat) {
        if (bits != 32 && bits != 64) return DecodeFailure::UnsupportedFloatBits;
    } else {
        return DecodeFailure::UnsupportedFormatTag;
    }
    format = parsed;
    return DecodeFailure::None;
}

SampleKind kindOf(const Format& format) {
    if (format.tag == kTagFloat) return format.bitsPerSample == 32 ? SampleKind::Float32 : SampleKind::Float64;
    switch (format.bitsPerSample) {
    case 8: return SampleKind::Unsigned8;
    case 16: return SampleKind::Signed16;
    case 24: return SampleKind::Signed24;
    default: return SampleKind::Signed32;
    }
}

void convertAny(SampleKind kind, const std::uint8_t* data, const Layout& layout, std::int16_t* out) {
    switch (kind) {
    case SampleKind::Unsigned8: return convert<SampleKind::Unsigned8>(data, layout, out);
    case SampleKind::Signed16: return convert<SampleKind::Signed16>(data, layout, out);
    case SampleKind::Signed24: return convert<SampleKind::Signed24>(data, layout, out);
    case SampleKind::Signed32: return convert<SampleKind::Signed32>(data, layout, out);
    case SampleKind::Float32: return convert<SampleKind::Float32>(data, layout, out);
    case SampleKind::Float64: return convert<SampleKind::Float64>(data, layout, out);
    }
}

// Walks the chunks and converts; `out` is written only on success.
DecodeFailure decodeChecked(const std::uint8_t* bytes, std::size_t length, DecodedFile& out, DecodeOptions options) {
    if (length < 12) return DecodeFailure::TooShort;
    if (!hasIdentifier(bytes, "RIFF")) return DecodeFailure::NotRiff;
    if (!hasIdentifier(bytes + 8, "WAVE")) return DecodeFailure::NotWave;
    if (length < 20) return DecodeFailure::TooShort;

    // The RIFF size field is not consulted: the walk is bounded by the bytes actually given.
    Format format;
    bool haveFormat = false;
    const std::uint8_t* data = nullptr;
    std::uint32_t dataSize = 0;
    std::size_t offset = 12;
    while (length - offset >= 8) {
        const std::uint8_t* header = bytes + offset;
        const std::uint32_t size = readU32(header + 4);
        const std::size_t bodyOffset = offset + 8;
        if (size > length - bodyOffset) return DecodeFailure::ChunkPastEnd;
        if (hasIdentifier(header, "fmt ")) {
            DecodeFailure failure = parseFormat(bytes + bodyOffset, size, format);
            if (failure != DecodeFailure::None) return failure;
            haveFormat = true;
        } else if (hasIdentifier(header, "data") && !data) {
            data = bytes + bodyOffset;
            dataSize = size;
        }
        // The body fits, so this cannot overflow; a missing final pad byte just ends the walk.
        const std::size_t next = bodyOffset + size + (size & 1);
        if (next > length) break;
        offset = next;
    }

    if (!haveFormat) return DecodeFailure::NoFormatChunk;
    if (!data) return DecodeFailure::NoDataChunk;
    if (dataSize == 0) return DecodeFailure::EmptyData;
    if (format.channels == 0) return DecodeFailure::NoChannels;
    if (format.sampleRate == 0) return DecodeFailure::NoSampleRate;
    const std::size_t frameSize = static_cast<std::size_t>(format.channels) * (format.bitsPerSample / 8u);
    if (dataSize < frameSize) return DecodeFailure::DataShorterThanFrame;

    Layout layout;
    layout.frames = dataSize / frameSize;
    layout.sourceChannels = format.channels;
    layout.outputChannels = options.channels != 0 ? options.channels : format.channels;
    // Only the wanted channel count can make the output larger than the data; on a 32-bit
    // system that product may exceed what a vector can hold.
    std::vector<std::int16_t> samples;
    if (layout.frames > samples.max_size() / layout.outputChannels) return DecodeFailure::TooLarge;
    try {
        samples.resize(layout.frames * layout.outputChannels);
        convertAny(kindOf(format), data, layout, samples.data());
    } catch (const std::bad_alloc&) {
        return DecodeFailure::TooLarge;
    }

    out.samples = std::move(samples);
    out.sampleRate = format.sampleRate;
    out.channels = static_cast<std::uint16_t>(layout.outputChannels);
    return DecodeFailure::None;
}

}  // namespace

bool decode(const std::uint8_t* bytes, std::size_t length, DecodedFile* out, DecodeOptions options,
            DecodeFailure* failure) {
    DecodeFailure result = DecodeFailure::NullArgument;
    if (length < 12) result = DecodeFailure::TooShort;
    else if (bytes && out) result = decodeChecked(bytes, length, *out, options);
    if (failure) *failure = result;
    return result == DecodeFailure::None;
}

double readSampleAsFloat(const std::uint8_t* sample, std::uint16_t formatTag, std::uint16_t bitsPerSample) {
    if (!sample) return 0.0;
    if (formatTag == kTagPcm) {
        switch (bitsPerSample) {
        case 8: return readValue<SampleKind::Unsigned8>(sample);
        case 16: return readValue<SampleKind::Signed16>(sample);
        case 24: return readValue<SampleKind::Signed24>(sample);
        case 32: return readValue<SampleKind::Signed32>(sample);
        default: return 0.0;
        }
    }
    if (formatTag == kTagFloat) {
        if (bitsPerSample == 32) return readValue<SampleKind::Float32>(sample);
        if (bitsPerSample == 64) return readValue<SampleKind::Float64>(sample);
    }
    return 0.0;
}

const char* describeDecodeFailure(DecodeFailure failure) {
    switch (failure) {
    case DecodeFailure::None: return "no error";
    case DecodeFailure::NullArgument: return "no bytes or no output given";
    case DecodeFailure::TooShort: return "too short for a WAVE file";
    case DecodeFailure::NotRiff: return "not a RIFF file";
    case DecodeFailure::NotWave: return "not a WAVE file";
    case DecodeFailure::ChunkPastEnd: return "a chunk runs past the end of the file";
    case DecodeFailure::FormatChunkTooShort: return "the fmt chunk is shorter than 16 bytes";
    case DecodeFailure::ExtensibleFormatTooShort: return "the extensible fmt chunk is incomplete";
    case DecodeFailure::UnsupportedFormatTag: return "unsupported sample format (only integer PCM and IEEE float are read)";
    case DecodeFailure::UnsupportedIntegerBits: return "integer PCM must have 8, 16, 24 or 32 bits per sample";
    case DecodeFailure::UnsupportedFloatBits: return "float samples must have 32 or 64 bits";
    case DecodeFailure::NoFormatChunk: return "no fmt chunk";
    case DecodeFailure::NoDataChunk: return "no data chunk";
    case DecodeFailure::EmptyData: return "the data chunk is empty";
    case DecodeFailure::NoChannels: return "the channel count is 0";
    case DecodeFailure::NoSampleRate: return "the sample rate is 0";
    case DecodeFailure::DataShorterThanFrame: return "the data chunk is shorter than one frame";
    case DecodeFailure::TooLarge: return "the decoded sound does not fit in memory";
    }
    return "unknown error";
}

}  // namespace korvel::wav
