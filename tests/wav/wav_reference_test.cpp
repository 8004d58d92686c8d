// Files made by sox, decoded by the codec and by libsndfile, which serves only as the reference
// reader here. libsndfile's normalised doubles are exactly the codec's sample values before
// conversion: integers divided by 2^(bits−1) (8-bit as unsigned minus 128), floats as stored.
// From them the expected 16-bit samples follow by the rule in wav_test_support.h (clamp floats
// to [−1, 1]; mono output is the mean of all channels; −1 → −32768, +1 → 32767; negative values
// × 32768, others × 32767; round half away from zero), and the codec must match every sample.
#include "platform/wav.h"
#include "wav_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

#if defined(KORVEL_HAVE_SNDFILE)
#include <sndfile.h>
#endif

using namespace wavtest;
using korvel::wav::DecodedFile;
using korvel::wav::DecodeOptions;

namespace {

#if defined(KORVEL_HAVE_SNDFILE)

std::string soxProgram() {
    const std::string program = KORVEL_SOX_PROGRAM;
    if (program.empty() || program.find("NOTFOUND") != std::string::npos) return {};
    return program;
}

std::string quoted(const std::string& text) { return "'" + text + "'"; }

// Runs a command, its output (both streams) going to `output`; returns the exit status.
int runCommand(const std::string& command, const std::string& outputFile, std::string* output = nullptr) {
    const int status = std::system((command + " > " + quoted(outputFile) + " 2>&1").c_str());
    if (output) {
        std::ifstream in(outputFile, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        *output = text.str();
    }
    return status;
}

struct Reference {
    int channels = 0;
    int sampleRate = 0;
    std::vector<double> values;  // interleaved, normalised
};

bool readReference(const std::string& path, Reference& reference) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file) return false;
    reference.channels = info.channels;
    reference.sampleRate = info.samplerate;
    reference.values.assign(static_cast<std::size_t>(info.frames * info.channels), 0.0);
    const sf_count_t got = sf_readf_double(file, reference.values.data(), info.frames);
    sf_close(file);
    return got == info.frames;
}

// The codec's output for a reference file, by the rule stated at the top of this file.
std::vector<std::int16_t> expectedSamples(const Reference& reference, int wanted) {
    const std::size_t sourceChannels = static_cast<std::size_t>(reference.channels);
    const std::size_t outputChannels = wanted != 0 ? static_cast<std::size_t>(wanted) : sourceChannels;
    const std::size_t frames = reference.values.size() / sourceChannels;
    auto value = [&](std::size_t frame, std::size_t channel) {
        return std::clamp(reference.values[frame * sourceChannels + channel], -1.0, 1.0);
    };
    std::vector<std::int16_t> out;
    for (std::size_t frame = 0; frame < frames; ++frame) {
        if (outputChannels == 1) {
            double sum = 0;
            for (std::size_t channel = 0; channel < sourceChannels; ++channel) sum += value(frame, channel);
            out.push_back(expectedSample(sum / static_cast<double>(sourceChannels)));
            continue;
        }
        for (std::size_t channel = 0; channel < outputChannels; ++channel) {
            std::size_t source = std::min(channel, sourceChannels - 1);
            if (outputChannels == 2 && sourceChannels == 1) source = 0;
            out.push_back(expectedSample(value(frame, source)));
        }
    }
    return out;
}

DecodedFile decodeFile(const std::string& path, int wanted = 0) {
    Bytes bytes;
    EXPECT_TRUE(korvel::wav::readFileBytes(path, bytes)) << path;
    DecodedFile out;
    korvel::wav::DecodeFailure failure{};
    EXPECT_TRUE(korvel::wav::decode(bytes.data(), bytes.size(), &out, DecodeOptions{static_cast<std::uint16_t>(wanted)}, &failure))
        << path << ": " << korvel::wav::describeDecodeFailure(failure);
    return out;
}

void expectSameSamples(const std::vector<std::int16_t>& got, const std::vector<std::int16_t>& expected, const std::string& what) {
    ASSERT_EQ(got.size(), expected.size()) << what;
    std::size_t mismatches = 0;
    for (std::size_t i = 0; i < got.size(); ++i)
        if (got[i] != expected[i] && ++mismatches <= 5)
            ADD_FAILURE() << what << ": sample " << i << " is " << got[i] << ", expected " << expected[i];
    EXPECT_EQ(mismatches, 0u) << what;
}

// Each test gets its own directory, so parallel test processes never share files.
class SoxFiles {
public:
    SoxFiles() {
        const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = std::string(test->test_suite_name()) + "." + test->name();
        for (char& c : name)
            if (c == '/') c = '_';
        m_directory = std::filesystem::path(KORVEL_WAV_TEST_WORK_DIR) / name;
        std::filesystem::remove_all(m_directory);
        std::filesystem::create_directories(m_directory);
    }
    std::string path(const std::string& name) const { return (m_directory / name).string(); }

    // sox's signal generator: white noise raised 3 dB so that some samples clip at both ends.
    bool generate(const std::string& file, const char* encoding, int bits, int channels, int rate) const {
        std::ostringstream command;
        command << quoted(soxProgram()) << " -D -R -n -r " << rate << " -c " << channels << " -e " << encoding << " -b "
                << bits << " " << quoted(file) << " synth 0.25 whitenoise gain 3";
        std::string output;
        const int status = runCommand(command.str(), path("sox-output.txt"), &output);
        EXPECT_EQ(status, 0) << command.str() << "\n" << output;
        return status == 0;
    }

private:
    std::filesystem::path m_directory;
};

#define REQUIRE_SOX()                                                                                   \
    if (soxProgram().empty()) GTEST_SKIP() << "sox was not found when the build was configured; "      \
                                              "tools/install-deps.sh installs it"

struct SoxFormat {
    const char* name;
    const char* encoding;
    int bits;
    int channels;
    int rate;
    std::uint16_t headerTag;  // the format tag sox writes: 1, 3 or 0xFFFE (extensible)
};

class SoxDecoding : public ::testing::TestWithParam<std::tuple<SoxFormat, int>> {};

TEST_P(SoxDecoding, MatchesTheReferenceReaderSampleForSample) {
    REQUIRE_SOX();
    const auto& [format, wanted] = GetParam();
    SoxFiles files;
    const std::string file = files.path("input.wav");
    ASSERT_TRUE(files.generate(file, format.encoding, format.bits, format.channels, format.rate));

    Bytes bytes;
    ASSERT_TRUE(korvel::wav::readFileBytes(file, bytes));
    ASSERT_GE(bytes.size(), 22u);
    EXPECT_EQ(bytes[20] | bytes[21] << 8, format.headerTag) << "sox wrote another header kind than this case covers";

    Reference reference;
    ASSERT_TRUE(readReference(file, reference));
    ASSERT_EQ(reference.channels, format.channels);
    DecodedFile out = decodeFile(file, wanted);
    EXPECT_EQ(out.sampleRate, static_cast<std::uint32_t>(format.rate));
    EXPECT_EQ(out.channels, wanted != 0 ? wanted : format.channels);
    expectSameSamples(out.samples, expectedSamples(reference, wanted), format.name);
}

INSTANTIATE_TEST_SUITE_P(
    Formats, SoxDecoding,
    ::testing::Combine(::testing::Values(SoxFormat{"u8_mono", "unsigned-integer", 8, 1, 8000, 1},
                                         SoxFormat{"u8_stereo", "unsigned-integer", 8, 2, 11025, 1},
                                         SoxFormat{"s16_mono", "signed-integer", 16, 1, 22050, 1},
                                         SoxFormat{"s16_stereo", "signed-integer", 16, 2, 44100, 1},
                                         SoxFormat{"s16_6ch", "signed-integer", 16, 6, 48000, 0xFFFE},
                                         SoxFormat{"s24_mono", "signed-integer", 24, 1, 96000, 0xFFFE},
                                         SoxFormat{"s24_stereo", "signed-integer", 24, 2, 48000, 0xFFFE},
                                         SoxFormat{"s32_stereo", "signed-integer", 32, 2, 44100, 0xFFFE},
                                         SoxFormat{"s32_6ch", "signed-integer", 32, 6, 44100, 0xFFFE},
                                         SoxFormat{"f32_mono", "floating-point", 32, 1, 44100, 3},
                                         SoxFormat{"f32_stereo", "floating-point", 32, 2, 32000, 3},
                                         SoxFormat{"f32_6ch", "floating-point", 32, 6, 48000, 3},
                                         SoxFormat{"f64_stereo", "floating-point", 64, 2, 44100, 3}),
                       ::testing::Values(0, 1, 2, 3)),
    [](const ::testing::TestParamInfo<std::tuple<SoxFormat, int>>& info) {
        return std::string(std::get<0>(info.param).name) + "_to_" + std::to_string(std::get<1>(info.param));
    });

// The fmt and data bodies of a file, found with a walk of its own.
struct Bodies {
    Bytes format;
    Bytes data;
};

Bodies bodiesOf(const Bytes& file) {
    Bodies bodies;
    for (std::size_t offset = 12; offset + 8 <= file.size();) {
        std::uint32_t size = 0;
        std::memcpy(&size, file.data() + offset + 4, 4);
        Bytes body(file.begin() + static_cast<std::ptrdiff_t>(offset + 8),
                   file.begin() + static_cast<std::ptrdiff_t>(offset + 8 + size));
        if (std::memcmp(file.data() + offset, "fmt ", 4) == 0) bodies.format = body;
        if (std::memcmp(file.data() + offset, "data", 4) == 0) bodies.data = body;
        offset += 8 + size + (size & 1);
    }
    return bodies;
}

void writeBytes(const std::string& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// The same format as a 40-byte extensible "fmt " body (kept when it already is one).
Bytes asExtensible(const Bytes& format) {
    if (format.size() >= 40 && (format[0] | format[1] << 8) == 0xFFFE) return format;
    const auto field16 = [&](std::size_t at) { return static_cast<std::uint16_t>(format[at] | format[at + 1] << 8); };
    std::uint32_t rate = 0;
    std::memcpy(&rate, format.data() + 4, 4);
    return extensibleFormatBody(field16(0), field16(2), rate, field16(14));
}

struct Rearrangement {
    const char* name;
    bool referenceReadsIt;  // libsndfile insists on fmt before data
    Bytes (*build)(const Bodies&);
};

class RearrangedSoxFiles : public ::testing::TestWithParam<std::tuple<Rearrangement, SoxFormat>> {};

TEST_P(RearrangedSoxFiles, DecodeLikeTheOriginal) {
    REQUIRE_SOX();
    const auto& [layout, format] = GetParam();
    SoxFiles files;
    const std::string original = files.path("original.wav");
    ASSERT_TRUE(files.generate(original, format.encoding, format.bits, format.channels, format.rate));
    Bytes bytes;
    ASSERT_TRUE(korvel::wav::readFileBytes(original, bytes));
    const Bytes rebuilt = layout.build(bodiesOf(bytes));
    const std::string rebuiltPath = files.path("rebuilt.wav");
    writeBytes(rebuiltPath, rebuilt);

    Reference reference;
    ASSERT_TRUE(readReference(original, reference));
    const std::vector<std::int16_t> expected = expectedSamples(reference, 0);
    expectSameSamples(decodeFile(rebuiltPath).samples, expected, layout.name);
    if (layout.referenceReadsIt) {
        // The reference reader agrees that the hand-made file holds the same sound.
        Reference rebuiltReference;
        ASSERT_TRUE(readReference(rebuiltPath, rebuiltReference));
        expectSameSamples(expectedSamples(rebuiltReference, 0), expected, std::string(layout.name) + " (reference)");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, RearrangedSoxFiles,
    ::testing::Combine(
        ::testing::Values(
            Rearrangement{"odd_LIST_before_fmt_and_data", true,
                          [](const Bodies& b) {
                              return riff({chunk("LIST", Bytes{'I', 'N', 'F', 'O', 'x'}), chunk("fmt ", b.format),
                                           chunk("data", b.data)});
                          }},
            Rearrangement{"odd_chunks_between_and_after", true,
                          [](const Bodies& b) {
                              return riff({chunk("fmt ", b.format), chunk("junk", Bytes(3, 0x55)),
                                           chunk("LIST", Bytes(9, 0x20)), chunk("data", b.data),
                                           chunk("note", Bytes(5, 'n'), Pad::Omitted)});
                          }},
            Rearrangement{"extensible_fmt", true,
                          [](const Bodies& b) {
                              return riff({chunk("fmt ", asExtensible(b.format)), chunk("data", b.data)});
                          }},
            Rearrangement{"fmt_after_data", false,
                          [](const Bodies& b) { return riff({chunk("data", b.data), chunk("fmt ", b.format)}); }}),
        ::testing::Values(SoxFormat{"s16_stereo", "signed-integer", 16, 2, 44100, 1},
                          SoxFormat{"s24_6ch", "signed-integer", 24, 6, 48000, 0xFFFE},
                          SoxFormat{"f32_stereo", "floating-point", 32, 2, 32000, 3})),
    [](const ::testing::TestParamInfo<std::tuple<Rearrangement, SoxFormat>>& info) {
        return std::string(std::get<0>(info.param).name) + "_" + std::get<1>(info.param).name;
    });

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) text.pop_back();
    return text;
}

TEST(SoxReadsEncodedFiles, HeaderAndSamplesAsWritten) {
    REQUIRE_SOX();
    SoxFiles files;
    // A 24-bit 6-channel sox file, decoded and written back as 16-bit.
    const std::string source = files.path("source.wav");
    ASSERT_TRUE(files.generate(source, "signed-integer", 24, 6, 48000));
    const DecodedFile decoded = decodeFile(source);
    const std::string written = files.path("written.wav");
    ASSERT_TRUE(korvel::wav::encodeFile(written, decoded));

    const std::pair<const char*, std::string> fields[] = {
        {"-c", "6"}, {"-r", "48000"}, {"-b", "16"}, {"-e", "Signed Integer PCM"},
        {"-s", std::to_string(decoded.samples.size() / 6)}};
    for (const auto& [option, expected] : fields) {
        std::string output;
        ASSERT_EQ(runCommand(quoted(soxProgram()) + " --i " + option + " " + quoted(written), files.path("info.txt"), &output), 0)
            << output;
        EXPECT_EQ(trimmed(output), expected) << "sox --i " << option;
    }

    // sox's own conversion to raw 16-bit gives back exactly the samples written.
    const std::string raw = files.path("written.raw");
    std::string output;
    ASSERT_EQ(runCommand(quoted(soxProgram()) + " " + quoted(written) + " -t raw -e signed-integer -b 16 -L " + quoted(raw),
                         files.path("convert.txt"), &output),
              0)
        << output;
    Bytes rawBytes;
    ASSERT_TRUE(korvel::wav::readFileBytes(raw, rawBytes));
    EXPECT_EQ(rawBytes, pcm16Body(decoded.samples));

    // And libsndfile reads the same shorts.
    SF_INFO info{};
    SNDFILE* file = sf_open(written.c_str(), SFM_READ, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    std::vector<short> shorts(static_cast<std::size_t>(info.frames * info.channels));
    EXPECT_EQ(sf_readf_short(file, shorts.data(), info.frames), info.frames);
    sf_close(file);
    expectSameSamples(std::vector<std::int16_t>(shorts.begin(), shorts.end()), decoded.samples, "libsndfile shorts");
}

#else

TEST(SoxDecoding, NeedsLibsndfile) {
    GTEST_SKIP() << "libsndfile was not found when the build was configured, so the comparison with a reference "
                    "reader is not built; tools/install-deps.sh installs libsndfile1-dev";
}

#endif

}  // namespace
