// Decoding hand-made files: what is refused and why, chunk layouts, sample conversion and
// channel conversion. Files made by another program are compared in wav_reference_test.cpp.
#include "platform/wav.h"
#include "wav_test_support.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <set>

using namespace wavtest;
using korvel::wav::DecodedFile;
using korvel::wav::DecodeFailure;
using korvel::wav::DecodeOptions;

namespace {

const Bytes kStereoData = pcm16Body({100, -100, 200, -200});

DecodedFile sentinel() {
    DecodedFile file;
    file.samples = {7, 7, 7};
    file.sampleRate = 1234;
    file.channels = 3;
    return file;
}

DecodedFile decodeOrFail(const Bytes& bytes, std::uint16_t channels = 0) {
    DecodedFile out;
    DecodeFailure failure = DecodeFailure::None;
    bool ok = korvel::wav::decode(bytes.data(), bytes.size(), &out, DecodeOptions{channels}, &failure);
    EXPECT_TRUE(ok) << "refused: " << korvel::wav::describeDecodeFailure(failure);
    return out;
}

struct RefusedCase {
    const char* name;
    Bytes bytes;
    DecodeFailure failure;
};

class RefusedFiles : public ::testing::TestWithParam<RefusedCase> {};

TEST_P(RefusedFiles, FailWithTheirReasonAndLeaveTheOutputAlone) {
    const RefusedCase& test = GetParam();
    DecodedFile out = sentinel();
    DecodeFailure failure = DecodeFailure::None;
    EXPECT_FALSE(korvel::wav::decode(test.bytes.data(), test.bytes.size(), &out, {}, &failure));
    EXPECT_EQ(failure, test.failure) << "got: " << korvel::wav::describeDecodeFailure(failure);
    DecodedFile untouched = sentinel();
    EXPECT_EQ(out.samples, untouched.samples);
    EXPECT_EQ(out.sampleRate, untouched.sampleRate);
    EXPECT_EQ(out.channels, untouched.channels);
}

// The bytes of a string literal, embedded NULs included, without its terminator.
template <std::size_t N>
Bytes bytesOf(const char (&text)[N]) {
    return Bytes(text, text + N - 1);
}

// Spelled out rather than resized: GCC 12 for 32-bit Windows wrongly reports the resize's copy
// as reading past its source (-Wstringop-overread).
Bytes withFourBytesMore() { return bytesOf("RIFF\x08\x00\x00\x00WAVE\x00\x00\x00\x00"); }

INSTANTIATE_TEST_SUITE_P(
    Headers, RefusedFiles,
    ::testing::Values(
        RefusedCase{"eleven bytes", bytesOf("RIFF\x04\x00\x00\x00WAV"), DecodeFailure::TooShort},
        RefusedCase{"AVI form", bytesOf("RIFF\x10\x00\x00\x00" "AVI LIST\x00\x00\x00\x00"), DecodeFailure::NotWave},
        RefusedCase{"header and four bytes", withFourBytesMore(), DecodeFailure::TooShort},
        RefusedCase{"data larger than the file", riff({fmtChunk(1, 2, 8000, 16), chunkWithSize("data", 100, kStereoData)}),
                    DecodeFailure::ChunkPastEnd},
        RefusedCase{"size 0xFFFFFFFF", riff({fmtChunk(1, 2, 8000, 16), chunkWithSize("data", 0xFFFFFFFF, kStereoData)}),
                    DecodeFailure::ChunkPastEnd},
        RefusedCase{"trailing chunk past the end after complete data",
                    riff({fmtChunk(1, 2, 8000, 16), chunk("data", kStereoData), chunkWithSize("LIST", 9, Bytes(8, 0))}),
                    DecodeFailure::ChunkPastEnd},
        RefusedCase{"fmt of 14 bytes", riff({chunk("fmt ", Bytes(14, 1)), chunk("data", kStereoData)}),
                    DecodeFailure::FormatChunkTooShort},
        RefusedCase{"extensible fmt of 16 bytes", riff({fmtChunk(0xFFFE, 2, 8000, 16), chunk("data", kStereoData)}),
                    DecodeFailure::ExtensibleFormatTooShort},
        RefusedCase{"extensible extension size 20",
                    riff({chunk("fmt ", extensibleFormatBody(1, 2, 8000, 16, 20)), chunk("data", kStereoData)}),
                    DecodeFailure::ExtensibleFormatTooShort},
        RefusedCase{"extensible sub-format ADPCM",
                    riff({chunk("fmt ", extensibleFormatBody(2, 2, 8000, 16)), chunk("data", kStereoData)}),
                    DecodeFailure::UnsupportedFormatTag},
        RefusedCase{"extensible sub-format extensible",
                    riff({chunk("fmt ", extensibleFormatBody(0xFFFE, 2, 8000, 16)), chunk("data", kStereoData)}),
                    DecodeFailure::UnsupportedFormatTag},
        RefusedCase{"A-law tag", riff({fmtChunk(6, 1, 8000, 8), chunk("data", Bytes(4, 0))}),
                    DecodeFailure::UnsupportedFormatTag},
        RefusedCase{"12-bit PCM", riff({fmtChunk(1, 1, 8000, 12), chunk("data", Bytes(4, 0))}),
                    DecodeFailure::UnsupportedIntegerBits},
        RefusedCase{"4-bit PCM", riff({fmtChunk(1, 1, 8000, 4), chunk("data", Bytes(4, 0))}),
                    DecodeFailure::UnsupportedIntegerBits},
        RefusedCase{"16-bit float", riff({fmtChunk(3, 1, 8000, 16), chunk("data", Bytes(4, 0))}),
                    DecodeFailure::UnsupportedFloatBits},
        RefusedCase{"a later fmt that is invalid",
                    riff({fmtChunk(1, 2, 8000, 16), chunk("data", kStereoData), fmtChunk(1, 2, 8000, 20)}),
                    DecodeFailure::UnsupportedIntegerBits},
        RefusedCase{"no fmt", riff({chunk("data", kStereoData)}), DecodeFailure::NoFormatChunk},
        RefusedCase{"no data", riff({fmtChunk(1, 2, 8000, 16), chunk("LIST", Bytes(6, 0))}), DecodeFailure::NoDataChunk},
        RefusedCase{"empty data", riff({fmtChunk(1, 2, 8000, 16), chunk("data", {})}), DecodeFailure::EmptyData},
        RefusedCase{"first data empty, second full",
                    riff({fmtChunk(1, 2, 8000, 16), chunk("data", {}), chunk("data", kStereoData)}), DecodeFailure::EmptyData},
        RefusedCase{"zero channels", riff({fmtChunk(1, 0, 8000, 16), chunk("data", kStereoData)}), DecodeFailure::NoChannels},
        RefusedCase{"zero rate", riff({fmtChunk(1, 2, 0, 16), chunk("data", kStereoData)}), DecodeFailure::NoSampleRate},
        RefusedCase{"three bytes of a 4-byte frame", riff({fmtChunk(1, 2, 8000, 16), chunk("data", Bytes(3, 0))}),
                    DecodeFailure::DataShorterThanFrame}),
    [](const ::testing::TestParamInfo<RefusedCase>& info) {
        std::string name = info.param.name;
        for (char& c : name)
            if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

TEST(WavDecode, RefusesRifxAndNullArguments) {
    Bytes bytes = riff({fmtChunk(1, 2, 8000, 16), chunk("data", kStereoData)});
    DecodedFile out;
    DecodeFailure failure = DecodeFailure::None;
    ASSERT_TRUE(korvel::wav::decode(bytes.data(), bytes.size(), &out));
    bytes[3] = 'X';
    EXPECT_FALSE(korvel::wav::decode(bytes.data(), bytes.size(), &out, {}, &failure));
    EXPECT_EQ(failure, DecodeFailure::NotRiff);
    bytes[3] = 'F';
    EXPECT_FALSE(korvel::wav::decode(nullptr, bytes.size(), &out, {}, &failure));
    EXPECT_EQ(failure, DecodeFailure::NullArgument);
    EXPECT_FALSE(korvel::wav::decode(bytes.data(), bytes.size(), nullptr, {}, &failure));
    EXPECT_EQ(failure, DecodeFailure::NullArgument);
}

TEST(WavDecode, EveryFailureHasItsOwnText) {
    std::set<std::string> texts;
    for (int value = 0; value <= static_cast<int>(DecodeFailure::TooLarge); ++value)
        texts.insert(korvel::wav::describeDecodeFailure(static_cast<DecodeFailure>(value)));
    EXPECT_EQ(texts.size(), static_cast<std::size_t>(DecodeFailure::TooLarge) + 1);
}

// Layouts that are accepted, each decoding to the same stereo samples.
struct LayoutCase {
    const char* name;
    Bytes bytes;
};

class AcceptedLayouts : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(AcceptedLayouts, DecodeToTheSameSound) {
    DecodedFile out = decodeOrFail(GetParam().bytes);
    EXPECT_EQ(out.samples, (std::vector<std::int16_t>{100, -100, 200, -200})) << GetParam().name;
    EXPECT_EQ(out.sampleRate, 8000u);
    EXPECT_EQ(out.channels, 2);
}

Bytes withRiffSize(Bytes bytes, std::uint32_t size) {
    std::memcpy(bytes.data() + 4, &size, 4);
    return bytes;
}

INSTANTIATE_TEST_SUITE_P(
    Chunks, AcceptedLayouts,
    ::testing::Values(
        LayoutCase{"canonical", riff({fmtChunk(1, 2, 8000, 16), chunk("data", kStereoData)})},
        LayoutCase{"fmt after data", riff({chunk("data", kStereoData), fmtChunk(1, 2, 8000, 16)})},
        LayoutCase{"odd LIST with pad before data",
                   riff({fmtChunk(1, 2, 8000, 16), chunk("LIST", Bytes(5, 'x')), chunk("data", kStereoData)})},
        LayoutCase{"extensible PCM", riff({chunk("fmt ", extensibleFormatBody(1, 2, 8000, 16)), chunk("data", kStereoData)})},
        LayoutCase{"two fmt, the last counts",
                   riff({fmtChunk(3, 1, 44100, 64), chunk("data", kStereoData), fmtChunk(1, 2, 8000, 16)})},
        LayoutCase{"two data, the first counts",
                   riff({fmtChunk(1, 2, 8000, 16), chunk("data", kStereoData), chunk("data", pcm16Body({1, 2}))})},
        LayoutCase{"partial last frame dropped", riff({fmtChunk(1, 2, 8000, 16), chunk("data", pcm16Body({100, -100, 200, -200, 5}))})},
        LayoutCase{"odd final chunk without its pad", riff({fmtChunk(1, 2, 8000, 16), chunk("data", kStereoData),
                                                           chunk("LIST", Bytes(3, 'x'), Pad::Omitted)})},
        LayoutCase{"seven stray bytes at the end", [] {
                       Bytes bytes = riff({fmtChunk(1, 2, 8000, 16), chunk("data", kStereoData)});
                       bytes.insert(bytes.end(), 7, 0xEE);
                       return bytes;
                   }()},
        LayoutCase{"RIFF size field 0", withRiffSize(riff({fmtChunk(1, 2, 8000, 16), chunk("data", kStereoData)}), 0)},
        LayoutCase{"RIFF size field huge",
                   withRiffSize(riff({fmtChunk(1, 2, 8000, 16), chunk("data", kStereoData)}), 0xFFFFFFF0)}),
    [](const ::testing::TestParamInfo<LayoutCase>& info) {
        std::string name = info.param.name;
        for (char& c : name)
            if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

TEST(WavDecode, OddChunkWithoutItsPadIsRefusedWhenTheNextHeaderIsMisread) {
    // Without the pad byte the walk reads the next header one byte late: "ata" and the data
    // chunk's first size byte make the identifier, and three size bytes plus a sample byte make
    // a size far past the end.
    Bytes bytes = riff({fmtChunk(1, 2, 8000, 16), chunk("LIST", Bytes(3, 'x'), Pad::Omitted), chunk("data", kStereoData)});
    DecodedFile out;
    DecodeFailure failure = DecodeFailure::None;
    EXPECT_FALSE(korvel::wav::decode(bytes.data(), bytes.size(), &out, {}, &failure));
    EXPECT_EQ(failure, DecodeFailure::ChunkPastEnd);
}

// One value through one layout to one 16-bit sample.
struct SampleCase {
    const char* name;
    std::uint16_t tag;
    std::uint16_t bits;
    Bytes sample;
    std::int16_t expected;
};

class SampleConversion : public ::testing::TestWithParam<SampleCase> {};

TEST_P(SampleConversion, GivesTheSixteenBitValue) {
    const SampleCase& test = GetParam();
    DecodedFile out = decodeOrFail(riff({fmtChunk(test.tag, 1, 8000, test.bits), chunk("data", test.sample)}));
    ASSERT_EQ(out.samples.size(), 1u);
    EXPECT_EQ(out.samples[0], test.expected) << test.name;
}

// The largest double whose product with 32767 is below 0.5: the last value that rounds to 0.
double largestValueScalingBelowHalf() {
    double value = 0.5 / 32767;
    while (value * 32767 >= 0.5) value = std::nextafter(value, 0.0);
    return value;
}

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

INSTANTIATE_TEST_SUITE_P(
    Values, SampleConversion,
    ::testing::Values(
        SampleCase{"u8 128 is silence", 1, 8, {128}, 0}, SampleCase{"u8 0 is the bottom", 1, 8, {0}, -32768},
        SampleCase{"u8 255", 1, 8, {255}, 32511}, SampleCase{"u8 129", 1, 8, {129}, 256},
        SampleCase{"u8 127", 1, 8, {127}, -256},
        SampleCase{"s16 top loses one", 1, 16, pcm16Body({32767}), 32766},
        SampleCase{"s16 16384 is kept (half rounds away)", 1, 16, pcm16Body({16384}), 16384},
        SampleCase{"s16 16385 loses one", 1, 16, pcm16Body({16385}), 16384},
        SampleCase{"s16 bottom", 1, 16, pcm16Body({-32768}), -32768}, SampleCase{"s16 -1", 1, 16, pcm16Body({-1}), -1},
        SampleCase{"s24 top", 1, 24, {0xFF, 0xFF, 0x7F}, 32767}, SampleCase{"s24 bottom", 1, 24, {0x00, 0x00, 0x80}, -32768},
        SampleCase{"s24 -128 is half a step, away from zero", 1, 24, {0x80, 0xFF, 0xFF}, -1},
        SampleCase{"s24 -127 rounds to zero", 1, 24, {0x81, 0xFF, 0xFF}, 0},
        SampleCase{"s24 65536", 1, 24, {0x00, 0x00, 0x01}, 256},
        SampleCase{"s32 top", 1, 32, {0xFF, 0xFF, 0xFF, 0x7F}, 32767},
        SampleCase{"s32 bottom", 1, 32, {0x00, 0x00, 0x00, 0x80}, -32768},
        SampleCase{"s32 -32768 is half a step", 1, 32, {0x00, 0x80, 0xFF, 0xFF}, -1},
        SampleCase{"f32 1.5 clamps", 3, 32, float32Body({1.5f}), 32767},
        SampleCase{"f32 -1.0", 3, 32, float32Body({-1.0f}), -32768},
        SampleCase{"f32 -7 clamps", 3, 32, float32Body({-7.0f}), -32768},
        SampleCase{"f32 0.5", 3, 32, float32Body({0.5f}), 16384},  // 16383.5 rounds away from zero
        SampleCase{"f32 -0.5", 3, 32, float32Body({-0.5f}), -16384},
        SampleCase{"f32 NaN is silence", 3, 32, float32Body({std::numeric_limits<float>::quiet_NaN()}), 0},
        SampleCase{"f64 infinity", 3, 64, float64Body({kInfinity}), 32767},
        SampleCase{"f64 -infinity", 3, 64, float64Body({-kInfinity}), -32768},
        SampleCase{"f64 NaN is silence", 3, 64, float64Body({kNaN}), 0},
        SampleCase{"f64 just under half a step", 3, 64, float64Body({largestValueScalingBelowHalf()}), 0},
        SampleCase{"f64 half a step", 3, 64, float64Body({0.5 / 32767}), 1},
        SampleCase{"f64 negative half a step", 3, 64, float64Body({-0.5 / 32768}), -1},
        SampleCase{"f64 just inside a negative half step", 3, 64, float64Body({std::nextafter(-0.5 / 32768, 0.0)}), 0},
        SampleCase{"f64 2.5 steps rounds up", 3, 64, float64Body({2.5 / 32767}), 3},
        SampleCase{"f64 -2.5 steps rounds down", 3, 64, float64Body({-2.5 / 32768}), -3},
        SampleCase{"f64 negative zero", 3, 64, float64Body({-0.0}), 0},
        SampleCase{"f64 negative NaN is silence", 3, 64, float64Body({-kNaN}), 0},
        SampleCase{"f64 just under one", 3, 64, float64Body({std::nextafter(1.0, 0.0)}), 32767},
        SampleCase{"f32 smallest subnormal", 3, 32, float32Body({std::numeric_limits<float>::denorm_min()}), 0},
        SampleCase{"f32 -infinity", 3, 32, float32Body({-std::numeric_limits<float>::infinity()}), -32768}),
    [](const ::testing::TestParamInfo<SampleCase>& info) { return "case" + std::to_string(info.index); });

TEST(WavDecode, ReadSampleAsFloatScalesByTheRangeAndIgnoresUnknownLayouts) {
    const std::uint8_t bytes[8] = {0x00, 0x00, 0x00, 0x80, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(korvel::wav::readSampleAsFloat(bytes + 3, 1, 8), 0.0);   // 0x80 − 128
    EXPECT_EQ(korvel::wav::readSampleAsFloat(bytes + 2, 1, 16), -1.0);  // 0x8000
    EXPECT_EQ(korvel::wav::readSampleAsFloat(bytes + 1, 1, 24), -1.0);  // 0x800000
    EXPECT_EQ(korvel::wav::readSampleAsFloat(bytes, 1, 32), -1.0);      // 0x80000000
    const Bytes half = float32Body({0.25f});
    EXPECT_EQ(korvel::wav::readSampleAsFloat(half.data(), 3, 32), 0.25);
    const Bytes big = float64Body({-3.0});
    EXPECT_EQ(korvel::wav::readSampleAsFloat(big.data(), 3, 64), -1.0);
    for (auto [tag, bits] : {std::pair{1, 12}, std::pair{3, 16}, std::pair{2, 16}, std::pair{0xFFFE, 16}})
        EXPECT_EQ(korvel::wav::readSampleAsFloat(bytes, static_cast<std::uint16_t>(tag), static_cast<std::uint16_t>(bits)), 0.0);
    EXPECT_EQ(korvel::wav::readSampleAsFloat(nullptr, 1, 16), 0.0);
}

// The integer layouts are converted with integer arithmetic; every code must still give what
// the stated rule gives for readSampleAsFloat's value.
struct WholeRangeCase {
    const char* name;
    std::uint16_t bits;
    Bytes (*samples)();  // built when the case runs: tables are made in every test process
};

template <int bytesPerSample>
Bytes everyCode() {
    Bytes out;
    const std::uint32_t count = 1u << (8 * bytesPerSample);
    out.reserve(static_cast<std::size_t>(count) * bytesPerSample);
    for (std::uint32_t code = 0; code < count; ++code)
        for (int byte = 0; byte < bytesPerSample; ++byte) out.push_back(static_cast<std::uint8_t>(code >> (8 * byte)));
    return out;
}

Bytes thirtyTwoBitProbes() {
    // The ends, every value within 2 of a rounding midpoint near the ends and the middle, and
    // random values.
    std::vector<std::int64_t> values = {INT32_MIN, INT32_MIN + 1, -1, 0, 1, INT32_MAX - 1, INT32_MAX};
    for (std::int64_t step : {1, 2, 16383, 16384, 32766, 32767, 32768}) {
        const std::int64_t negativeMidpoint = -(step * 65536 + 32768);
        const std::int64_t positiveMidpoint = (2 * step + 1) * (std::int64_t{1} << 30) / 32767;
        for (std::int64_t delta = -2; delta <= 2; ++delta) {
            values.push_back(negativeMidpoint + delta);
            if (positiveMidpoint + delta <= INT32_MAX) values.push_back(positiveMidpoint + delta);
        }
    }
    std::mt19937 random(7);
    for (int i = 0; i < 200000; ++i) values.push_back(static_cast<std::int32_t>(random()));
    Bytes out;
    for (std::int64_t value : values) putU32(out, static_cast<std::uint32_t>(value));
    return out;
}

class WholeRange : public ::testing::TestWithParam<WholeRangeCase> {};

TEST_P(WholeRange, MatchesTheRuleForEveryCode) {
    const WholeRangeCase& test = GetParam();
    const Bytes samples = test.samples();
    DecodedFile out = decodeOrFail(riff({fmtChunk(1, 1, 8000, test.bits), chunk("data", samples)}));
    const std::size_t width = test.bits / 8u;
    ASSERT_EQ(out.samples.size(), samples.size() / width);
    std::size_t mismatches = 0;
    for (std::size_t i = 0; i < out.samples.size(); ++i) {
        const double value = korvel::wav::readSampleAsFloat(samples.data() + i * width, 1, test.bits);
        if (out.samples[i] != expectedSample(value) && ++mismatches <= 5)
            ADD_FAILURE() << test.name << " sample " << i << " value " << value << ": got " << out.samples[i]
                          << ", rule gives " << expectedSample(value);
    }
    EXPECT_EQ(mismatches, 0u);
}

INSTANTIATE_TEST_SUITE_P(Integers, WholeRange,
                         ::testing::Values(WholeRangeCase{"u8", 8, everyCode<1>}, WholeRangeCase{"s16", 16, everyCode<2>},
                                           WholeRangeCase{"s24", 24, everyCode<3>},
                                           WholeRangeCase{"s32", 32, thirtyTwoBitProbes}),
                         [](const ::testing::TestParamInfo<WholeRangeCase>& info) { return std::string(info.param.name); });

// Channel conversion of a 3-frame file with channels holding 1000×channel + frame.
struct ChannelCase {
    const char* name;
    std::uint16_t sourceChannels;
    std::uint16_t wanted;
    std::vector<std::int16_t> firstFrame;  // what frame 0 becomes
};

class ChannelConversion : public ::testing::TestWithParam<ChannelCase> {};

TEST_P(ChannelConversion, MapsChannelsByTheRule) {
    const ChannelCase& test = GetParam();
    std::vector<std::int16_t> source;
    for (int frame = 0; frame < 3; ++frame)
        for (int channel = 0; channel < test.sourceChannels; ++channel)
            source.push_back(static_cast<std::int16_t>(1000 * channel + frame * 2));
    DecodedFile out = decodeOrFail(riff({fmtChunk(1, test.sourceChannels, 8000, 16), chunk("data", pcm16Body(source))}), test.wanted);
    const std::size_t outputChannels = test.firstFrame.size();
    EXPECT_EQ(out.channels, outputChannels);
    ASSERT_EQ(out.samples.size(), 3 * outputChannels);
    // Each later frame is the first plus its offset, as every source channel rises by 2 a frame.
    for (std::size_t frame = 0; frame < 3; ++frame)
        for (std::size_t channel = 0; channel < outputChannels; ++channel)
            EXPECT_EQ(out.samples[frame * outputChannels + channel], test.firstFrame[channel] + 2 * static_cast<int>(frame))
                << test.name << " frame " << frame << " channel " << channel;
}

INSTANTIATE_TEST_SUITE_P(
    Counts, ChannelConversion,
    ::testing::Values(ChannelCase{"stereo kept", 2, 0, {0, 1000}}, ChannelCase{"stereo to mono is the mean", 2, 1, {500}},
                      ChannelCase{"six to mono is the mean", 6, 1, {2500}}, ChannelCase{"mono to stereo twice", 1, 2, {0, 0}},
                      ChannelCase{"three to stereo", 3, 2, {0, 1000}}, ChannelCase{"mono to three", 1, 3, {0, 0, 0}},
                      ChannelCase{"stereo to four repeats the last", 2, 4, {0, 1000, 1000, 1000}},
                      ChannelCase{"six to three", 6, 3, {0, 1000, 2000}}),
    [](const ::testing::TestParamInfo<ChannelCase>& info) { return "case" + std::to_string(info.index); });

TEST(WavDecode, MonoMeanIsTakenBeforeRounding) {
    // 16-bit 1 and 2: the mean 1.5/32768 scales to 1.49995 and rounds to 1, where rounding each
    // channel first and averaging would give 1.5 → 2. −1 and −2 give exactly −1.5, which rounds
    // away from zero.
    DecodedFile out = decodeOrFail(riff({fmtChunk(1, 2, 8000, 16), chunk("data", pcm16Body({1, 2, -1, -2}))}), 1);
    EXPECT_EQ(out.samples, (std::vector<std::int16_t>{1, -2}));
}

TEST(WavDecode, MonoMeanClampsFloatsBeforeAveraging) {
    // 3.0 and −1.0: clamped first the mean is 0; averaged first it would be 1.
    DecodedFile out = decodeOrFail(riff({fmtChunk(3, 2, 8000, 32), chunk("data", float32Body({3.0f, -1.0f}))}), 1);
    EXPECT_EQ(out.samples, (std::vector<std::int16_t>{0}));
}

}  // namespace
