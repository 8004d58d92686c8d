// Encoding: the exact bytes written, what is refused, round trips through decode, and files
// that survive a failed save.
#include "core/file_io.h"
#include "platform/wav.h"
#include "wav_test_support.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace wavtest;
using korvel::wav::DecodedFile;

namespace {

DecodedFile makeFile(std::vector<std::int16_t> samples, std::uint16_t channels, std::uint32_t rate = 22050) {
    DecodedFile file;
    file.samples = std::move(samples);
    file.channels = channels;
    file.sampleRate = rate;
    return file;
}

TEST(WavEncode, WritesTheCanonicalHeaderAndLittleEndianSamples) {
    Bytes out = {0xAA};  // replaced, not appended to
    ASSERT_TRUE(korvel::wav::encode(makeFile({1, -2, 0x1234, -32768}, 2), &out));
    const Bytes expected = {
        'R', 'I', 'F', 'F', 44, 0, 0, 0,  // 36 + 8 data bytes
        'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 16, 0, 0, 0,
        1, 0,                             // integer PCM
        2, 0,                             // channels
        0x22, 0x56, 0, 0,                 // 22050 Hz
        0x88, 0x58, 1, 0,                 // byte rate 88200
        4, 0, 16, 0,                      // block align, bits
        'd', 'a', 't', 'a', 8, 0, 0, 0,
        0x01, 0x00, 0xFE, 0xFF, 0x34, 0x12, 0x00, 0x80,
    };
    EXPECT_EQ(out, expected);
}

struct RefusedEncodeCase {
    const char* name;
    DecodedFile file;
};

class RefusedEncodes : public ::testing::TestWithParam<RefusedEncodeCase> {};

TEST_P(RefusedEncodes, FailAndLeaveTheOutputAlone) {
    Bytes out = {1, 2, 3};
    EXPECT_FALSE(korvel::wav::encode(GetParam().file, &out)) << GetParam().name;
    EXPECT_EQ(out, (Bytes{1, 2, 3}));
}

INSTANTIATE_TEST_SUITE_P(Inputs, RefusedEncodes,
                         ::testing::Values(RefusedEncodeCase{"3 samples in 2 channels", makeFile({1, 2, 3}, 2)},
                                           RefusedEncodeCase{"no samples", makeFile({}, 2)},
                                           RefusedEncodeCase{"no channels", makeFile({1, 2}, 0)}),
                         [](const ::testing::TestParamInfo<RefusedEncodeCase>& info) { return "case" + std::to_string(info.index); });

// Found by fuzzing: a file claiming 4,294,909,760 frames a second decodes, but saving it failed
// because its byte rate does not fit 32 bits. Every decoded sound must be savable.
TEST(WavEncode, HugeSampleRateFoundByFuzzingStillSaves) {
    const Bytes file = riff({fmtChunk(1, 2, 0xFFFF1F40, 16), chunk("data", pcm16Body({1, -1, 2, -2}))});
    DecodedFile decoded;
    ASSERT_TRUE(korvel::wav::decode(file.data(), file.size(), &decoded));
    Bytes encoded;
    ASSERT_TRUE(korvel::wav::encode(decoded, &encoded));
    DecodedFile again;
    ASSERT_TRUE(korvel::wav::decode(encoded.data(), encoded.size(), &again));
    EXPECT_EQ(again.sampleRate, 0xFFFF1F40u);
    EXPECT_EQ(again.samples, decoded.samples);
}

TEST(WavEncode, RefusesANullOutput) { EXPECT_FALSE(korvel::wav::encode(makeFile({1, 2}, 2), nullptr)); }

TEST(WavEncode, DecodingWhatWasWrittenAppliesTheSixteenBitRuleOnce) {
    // Every 16-bit value, as 4 channels. Decoding scales positive values by 32767/32768, so
    // values above 16384 come back one lower; the rest come back as they were.
    std::vector<std::int16_t> samples;
    for (int value = -32768; value <= 32767; ++value) samples.push_back(static_cast<std::int16_t>(value));
    Bytes bytes;
    ASSERT_TRUE(korvel::wav::encode(makeFile(samples, 4, 96000), &bytes));
    DecodedFile back;
    ASSERT_TRUE(korvel::wav::decode(bytes.data(), bytes.size(), &back));
    EXPECT_EQ(back.channels, 4);
    EXPECT_EQ(back.sampleRate, 96000u);
    ASSERT_EQ(back.samples.size(), samples.size());
    std::size_t mismatches = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const int expected = samples[i] > 16384 ? samples[i] - 1 : samples[i];
        if (back.samples[i] != expected) ++mismatches;
    }
    EXPECT_EQ(mismatches, 0u);
}

class WavFiles : public ::testing::Test {
protected:
    void SetUp() override {
        m_directory = std::filesystem::path(KORVEL_WAV_TEST_WORK_DIR) /
                      ::testing::UnitTest::GetInstance()->current_test_info()->name();
        std::filesystem::remove_all(m_directory);
        std::filesystem::create_directories(m_directory);
    }
    std::string pathOf(const char* name) const { return (m_directory / name).string(); }
    std::filesystem::path m_directory;
};

TEST_F(WavFiles, EncodeFileWritesExactlyTheEncodedBytes) {
    const DecodedFile file = makeFile({5, -5, 300, -300, 32767, -32768}, 3, 8000);
    Bytes encoded;
    ASSERT_TRUE(korvel::wav::encode(file, &encoded));
    const std::string path = pathOf("out.wav");
    ASSERT_TRUE(korvel::wav::encodeFile(path, file));
    Bytes written;
    ASSERT_TRUE(korvel::wav::readFileBytes(path, written));
    EXPECT_EQ(written, encoded);
    // Only the file itself is left: the temporary it was written through is gone.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_directory), std::filesystem::directory_iterator()), 1);
}

TEST_F(WavFiles, AFailedSaveLeavesTheOldFileWhole) {
    const std::string path = pathOf("keep.wav");
    const DecodedFile original = makeFile({1, 2, 3, 4}, 2);
    ASSERT_TRUE(korvel::wav::encodeFile(path, original));
    Bytes before;
    ASSERT_TRUE(korvel::wav::readFileBytes(path, before));

    korvel::setWriteFailureAfterBytesForTesting(50);  // the disk fills up mid-write
    const bool saved = korvel::wav::encodeFile(path, makeFile(std::vector<std::int16_t>(1000, 9), 2));
    korvel::setWriteFailureAfterBytesForTesting(-1);
    EXPECT_FALSE(saved);
    EXPECT_FALSE(korvel::wav::encodeFile(path, makeFile({1, 2, 3}, 2)));  // invalid: nothing is written

    Bytes after;
    ASSERT_TRUE(korvel::wav::readFileBytes(path, after));
    EXPECT_EQ(after, before);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_directory), std::filesystem::directory_iterator()), 1);
}

TEST_F(WavFiles, MissingPlacesFailCleanly) {
    EXPECT_FALSE(korvel::wav::encodeFile(pathOf("no/such/dir/out.wav"), makeFile({1, 2}, 2)));
    Bytes bytes;
    EXPECT_FALSE(korvel::wav::readFileBytes(pathOf("absent.wav"), bytes));
    EXPECT_FALSE(korvel::wav::readFileBytes(m_directory.string(), bytes));  // a directory is not a file
}

TEST(WavEncode, IntegerWritersAppendLeastSignificantByteFirst) {
    Bytes out = {0x99};
    korvel::wav::writeU16LE(out, 0xBEEF);
    korvel::wav::writeU32LE(out, 0x01020304);
    EXPECT_EQ(out, (Bytes{0x99, 0xEF, 0xBE, 0x04, 0x03, 0x02, 0x01}));
}

}  // namespace
