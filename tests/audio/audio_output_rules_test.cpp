// The platform-free rules both audio backends share: filling one buffer from a track, the start
// frame of an offset, the offset of a device position, and the mixer's saturation.
#include "platform/audio_output_internal.h"
#include "platform/sdl/sdl_mixer_internal.h"
#include "audio_test_support.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>

namespace {

using namespace korvel::audio_output;
using audiotest::frameIndex;
using audiotest::numberedTrack;

using Buffer = std::array<std::int16_t, kBufferFrames * 2>;

Buffer poisonedBuffer() {
    Buffer buffer;
    buffer.fill(0x5555);  // anything the fill leaves untouched shows up
    return buffer;
}

struct FillCase {
    const char* name;
    std::uint64_t trackFrames;
    std::uint64_t startPosition;
    bool loop;
    // expected:
    std::uint32_t framesCopied;
    bool write;
    bool ended;
    std::uint64_t endPosition;
};

class BufferFill : public ::testing::TestWithParam<FillCase> {};

// Every frame of the buffer is either the track frame the rule says comes next (wrapping when
// looping) or silence after the end of a non-looping track.
TEST_P(BufferFill, CopiesFramesInOrderThenSilence) {
    const FillCase& test = GetParam();
    const audiotest::Samples track = numberedTrack(test.trackFrames);
    Buffer buffer = poisonedBuffer();
    std::uint64_t position = test.startPosition;
    FillResult result = fillBuffer(track.data(), track.size(), test.loop, position, buffer.data());
    EXPECT_EQ(result.framesCopied, test.framesCopied) << test.name;
    EXPECT_EQ(result.write, test.write) << test.name;
    EXPECT_EQ(result.ended, test.ended) << test.name;
    EXPECT_EQ(position, test.endPosition) << test.name;
    std::uint64_t expected = test.startPosition;
    for (std::uint32_t frame = 0; frame < kBufferFrames; ++frame) {
        if (frame < test.framesCopied) {
            if (expected >= test.trackFrames) expected = 0;
            ASSERT_EQ(frameIndex(buffer[frame * 2], buffer[frame * 2 + 1]), static_cast<std::int64_t>(expected))
                << test.name << " frame " << frame;
            ++expected;
        } else {
            ASSERT_EQ(buffer[frame * 2], 0) << test.name << " frame " << frame;
            ASSERT_EQ(buffer[frame * 2 + 1], 0) << test.name << " frame " << frame;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rules, BufferFill,
    ::testing::Values(
        FillCase{"long track from the start", 10000, 0, false, 2048, true, false, 2048},
        FillCase{"long track mid-way", 10000, 5000, false, 2048, true, false, 7048},
        FillCase{"ends exactly at the buffer's end", 4096, 2048, false, 2048, true, false, 4096},
        FillCase{"at the end: nothing to write", 4096, 4096, false, 0, false, true, 4096},
        FillCase{"partly filled ends playback", 3000, 2048, false, 952, true, true, 3000},
        FillCase{"short track once", 100, 0, false, 100, true, true, 100},
        FillCase{"loop wraps inside the buffer", 3000, 2048, true, 2048, true, false, 1096},
        FillCase{"short loop wraps several times", 500, 0, true, 2048, true, false, 48},
        FillCase{"one-frame loop", 1, 0, true, 2048, true, false, 1},
        FillCase{"loop from its very end", 3000, 3000, true, 2048, true, false, 2048}),
    [](const auto& info) {
        std::string name = info.param.name;
        for (char& c : name) {
            if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        }
        return name;
    });

TEST(BufferFill, NoFramesGiveSilenceAndEnd) {
    Buffer buffer = poisonedBuffer();
    std::uint64_t position = 0;
    const std::int16_t oneSample = 7;  // a single sample is not a whole stereo frame
    FillResult result = fillBuffer(&oneSample, 1, true, position, buffer.data());
    EXPECT_TRUE(result.ended);
    EXPECT_FALSE(result.write);
    for (std::int16_t sample : buffer) ASSERT_EQ(sample, 0);
    result = fillBuffer(nullptr, 0, false, position, buffer.data());
    EXPECT_TRUE(result.ended);
    EXPECT_FALSE(result.write);
}

// Consecutive fills of a non-looping track hand out every frame exactly once.
TEST(BufferFill, SuccessiveBuffersCoverTheTrackOnce) {
    const audiotest::Samples track = numberedTrack(5000);
    std::uint64_t position = 0;
    std::int64_t expected = 0;
    int writes = 0;
    for (int round = 0; round < 10; ++round) {
        Buffer buffer = poisonedBuffer();
        FillResult result = fillBuffer(track.data(), track.size(), false, position, buffer.data());
        if (!result.write) break;
        ++writes;
        for (std::uint32_t frame = 0; frame < result.framesCopied; ++frame) {
            ASSERT_EQ(frameIndex(buffer[frame * 2], buffer[frame * 2 + 1]), expected++);
        }
        if (result.ended) break;
    }
    EXPECT_EQ(writes, 3);
    EXPECT_EQ(expected, 5000);
}

struct StartCase {
    std::uint64_t offsetMs;
    std::uint32_t rate;
    std::uint64_t frames;
    std::uint64_t startFrame;
};

TEST(AudioStartFrame, OffsetsBecomeFramesAndStopAtTheEnd) {
    const StartCase cases[] = {
        {0, 44100, 44100, 0},
        {100, 44100, 44100, 4410},
        {999, 44100, 44100, 44055},  // 44,055.9 rounds down
        {1000, 44100, 44100, 44100},  // exactly the end
        {5000, 44100, 44100, 44100},  // past it
        {1, 22050, 100, 22},
        // The product overflows 32 bits but not 64: a 30-hour offset into a longer track.
        {108000000, 48000, 6000000000ull, 5184000000ull},
        {std::numeric_limits<std::uint64_t>::max(), 44100, 10, 10},
    };
    for (const StartCase& test : cases) {
        EXPECT_EQ(startFrameForOffset(test.offsetMs, test.rate, test.frames), test.startFrame)
            << test.offsetMs << " ms at " << test.rate;
    }
}

TEST(AudioPosition, OffsetsWrapWhenLoopingAndHoldAtTheEndOtherwise) {
    // 1 s track at 1,000 Hz: frames and milliseconds coincide.
    EXPECT_EQ(offsetForPosition(0, 0, 1000, 1000, false), 0u);
    EXPECT_EQ(offsetForPosition(200, 300, 1000, 1000, false), 500u);
    EXPECT_EQ(offsetForPosition(200, 800, 1000, 1000, false), 1000u);
    EXPECT_EQ(offsetForPosition(200, 5000, 1000, 1000, false), 1000u);  // padding played after the end
    EXPECT_EQ(offsetForPosition(1000, 0, 1000, 1000, false), 1000u);    // started past the end
    EXPECT_EQ(offsetForPosition(200, 800, 1000, 1000, true), 0u);
    EXPECT_EQ(offsetForPosition(900, 2150, 1000, 1000, true), 50u);
    EXPECT_EQ(offsetForPosition(0, 44100, 88200, 44100, false), 1000u);
    EXPECT_EQ(offsetForPosition(5, 5, 0, 44100, true), 0u);  // no frames
    EXPECT_EQ(offsetForPosition(5, 5, 10, 0, true), 0u);    // no rate
}

TEST(AudioMixer, SumsSaturateInsteadOfWrapping) {
    const std::int32_t sums[] = {0, 1, -1, 32767, 32768, 65534, -32768, -32769, -65536, 1 << 30};
    const std::int16_t expected[] = {0, 1, -1, 32767, 32767, 32767, -32768, -32768, -32768, 32767};
    std::int16_t out[std::size(sums)] = {};
    saturate(sums, out, std::size(sums));
    for (std::size_t index = 0; index < std::size(sums); ++index) EXPECT_EQ(out[index], expected[index]) << sums[index];
}

}  // namespace

// Layer III frame headers, as the Windows MP3 decoder reads them to describe a stream to ACM.
#include "platform/audio_mp3_frames.h"

namespace {

struct HeaderCase {
    const char* name;
    std::uint8_t bytes[4];
    bool valid;
    std::uint32_t rate, channels, bitrate, frameBytes;
};

TEST(Mp3FrameHeaders, RatesBitratesAndFrameLengths) {
    const HeaderCase cases[] = {
        {"MPEG-1 128k 44.1k joint stereo", {0xFF, 0xFB, 0x90, 0x40}, true, 44100, 2, 128000, 417},
        {"same, padded", {0xFF, 0xFB, 0x92, 0x40}, true, 44100, 2, 128000, 418},
        {"MPEG-1 320k 48k mono", {0xFF, 0xFB, 0xE4, 0xC0}, true, 48000, 1, 320000, 960},
        {"MPEG-2 64k 22.05k mono", {0xFF, 0xF3, 0x80, 0xC0}, true, 22050, 1, 64000, 208},
        {"MPEG-2.5 8k 8k stereo", {0xFF, 0xE3, 0x18, 0x00}, true, 8000, 2, 8000, 72},
        {"Layer II", {0xFF, 0xFD, 0x90, 0x40}, false, 0, 0, 0, 0},
        {"free format", {0xFF, 0xFB, 0x00, 0x40}, false, 0, 0, 0, 0},
        {"bad bit rate", {0xFF, 0xFB, 0xF0, 0x40}, false, 0, 0, 0, 0},
        {"reserved rate", {0xFF, 0xFB, 0x9C, 0x40}, false, 0, 0, 0, 0},
        {"reserved version", {0xFF, 0xEB, 0x90, 0x40}, false, 0, 0, 0, 0},
        {"no sync", {0xFF, 0x1B, 0x90, 0x40}, false, 0, 0, 0, 0},
    };
    for (const HeaderCase& test : cases) {
        korvel::audio::Mp3FrameHeader header;
        ASSERT_EQ(korvel::audio::parseMp3FrameHeader(test.bytes, 4, &header), test.valid) << test.name;
        if (!test.valid) continue;
        EXPECT_EQ(header.sampleRate, test.rate) << test.name;
        EXPECT_EQ(header.channels, test.channels) << test.name;
        EXPECT_EQ(header.bitrate, test.bitrate) << test.name;
        EXPECT_EQ(header.frameBytes, test.frameBytes) << test.name;
    }
}

// The first frame is the first header confirmed by a second one where the first frame ends:
// a lone sync pattern in a tag or junk is not taken.
TEST(Mp3FrameHeaders, FirstFrameSkipsTagsAndUnconfirmedHeaders) {
    // Byte by byte: GCC 12 at -O3 misreports range inserts into a vector as overflows.
    std::vector<std::uint8_t> stream;
    auto append = [&](std::initializer_list<std::uint8_t> bytes) {
        for (std::uint8_t byte : bytes) stream.push_back(byte);
    };
    append({'I', 'D', '3', 4, 0, 0, 0, 0, 0, 5, 0xFF, 0xFB, 0x90, 0x40, 0});  // a tag of 5 bytes
    append({0xFF, 0xFB, 0x90, 0x40, 0, 0, 0});  // a header nothing confirms
    const std::size_t first = stream.size();
    for (int frame = 0; frame < 2; ++frame) {
        append({0xFF, 0xFB, 0x90, 0x40});
        stream.resize(stream.size() + 413, 0);
    }
    korvel::audio::Mp3FrameHeader header;
    EXPECT_EQ(korvel::audio::findFirstMp3Frame(stream.data(), stream.size(), &header), first);
    EXPECT_EQ(header.sampleRate, 44100u);
    const std::vector<std::uint8_t> junk(5000, 0xFF);
    EXPECT_EQ(korvel::audio::findFirstMp3Frame(junk.data(), junk.size(), &header), junk.size());
}

}  // namespace
