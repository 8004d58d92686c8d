// The SDL2 backend on real output: SDL's disk driver writes what the device plays to a file, and
// the tests look for the played frames in it. The driver runs in real time, so every test plays
// only a fraction of a second. There may be silence before the sound (the device runs before
// playback starts), so the tests search for it rather than compare whole files.
#include "audio_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace {

using namespace std::chrono_literals;
using namespace audiotest;

constexpr std::uint32_t kRate = 44100;

class SdlOutput : public ::testing::Test {
protected:
    void SetUp() override {
        m_outputPath = workDirectory() / "out.raw";
        useDiskOutput(m_outputPath);
        ASSERT_TRUE(wm_has_mixer()) << "SDL's disk audio driver did not open";
    }
    void TearDown() override { wm_shutdownMixer(); }

    AudioHandle open(const Samples& samples, std::uint32_t rate = kRate) {
        return OpenPCMTrack(samples.data(), samples.size(), rate, 2);
    }
    // Waits until a non-looping track reports its end, then a little longer so the last buffer
    // leaves the device, and returns everything the device wrote.
    Samples playToEnd(AudioHandle handle, std::uint64_t lengthMs) {
        EXPECT_TRUE(waitFor([&] { return GetCurrentOffset(handle) >= lengthMs; }, 10s)) << GetCurrentOffset(handle);
        std::this_thread::sleep_for(60ms);
        return finishDiskOutput(m_outputPath);
    }

    std::filesystem::path m_outputPath;
};

TEST_F(SdlOutput, PlayedTrackArrivesWholeAndInOrder) {
    const Samples track = numberedTrack(11025);  // 250 ms
    AudioHandle handle = open(track);
    ASSERT_NE(handle, nullptr);
    ASSERT_TRUE(Play(handle, 0, false));
    const Samples output = playToEnd(handle, 250);
    const std::size_t start = firstSoundFrame(output);
    ASSERT_GE(output.size(), (start + 11025) * 2) << "the track did not arrive whole";
    EXPECT_TRUE(std::equal(track.begin(), track.end(), output.begin() + static_cast<std::ptrdiff_t>(start * 2)));
    EXPECT_TRUE(isSilentFrom(output, start + 11025));
    Close(handle);
}

TEST_F(SdlOutput, OffsetStartsAtItsFrame) {
    const Samples track = numberedTrack(13230);  // 300 ms
    AudioHandle handle = open(track);
    ASSERT_TRUE(Play(handle, 100, false));
    const Samples output = playToEnd(handle, 300);
    const std::size_t start = firstSoundFrame(output);
    ASSERT_LT(start * 2 + 1, output.size());
    EXPECT_EQ(frameIndex(output[start * 2], output[start * 2 + 1]), 4410);
    ASSERT_GE(output.size(), (start + 13230 - 4410) * 2);
    EXPECT_TRUE(std::equal(track.begin() + 4410 * 2, track.end(), output.begin() + static_cast<std::ptrdiff_t>(start * 2)));
    EXPECT_TRUE(isSilentFrom(output, start + 13230 - 4410));
}

TEST_F(SdlOutput, OffsetPastTheEndPlaysNothingAndEndsAtOnce) {
    const Samples track = numberedTrack(4410);  // 100 ms
    AudioHandle handle = open(track);
    ASSERT_TRUE(Play(handle, 10000, false));
    EXPECT_EQ(GetCurrentOffset(handle), 100u);
    std::this_thread::sleep_for(100ms);
    const Samples output = finishDiskOutput(m_outputPath);
    EXPECT_FALSE(output.empty()) << "the device wrote nothing at all";
    EXPECT_TRUE(isSilentFrom(output, 0));
}

// A looping track shorter than one buffer: the output runs 0..n-1, 0..n-1, ... without a gap.
TEST_F(SdlOutput, ShortLoopWrapsWithoutGaps) {
    const Samples track = numberedTrack(1000);
    AudioHandle handle = open(track);
    // Counted in rounds of the loop, not in wall time: a loaded machine starts the feeder late.
    // A missed round only makes the wait longer.
    ASSERT_TRUE(Play(handle, 0, true));
    int rounds = 0;
    std::uint64_t previous = 0;
    ASSERT_TRUE(waitFor(
        [&] {
            const std::uint64_t now = GetCurrentOffset(handle);
            if (now < previous) ++rounds;
            previous = now;
            return rounds >= 7;
        },
        10s));
    const std::uint64_t offset = GetCurrentOffset(handle);
    EXPECT_LT(offset, 1000u * 1000 / kRate + 1) << "a looping offset stays within the track";
    Stop(handle);
    const Samples output = finishDiskOutput(m_outputPath);
    const std::size_t start = firstSoundFrame(output);
    std::size_t frame = start;
    std::int64_t expected = 0;
    while (frame * 2 + 1 < output.size() && !(output[frame * 2] == 0 && output[frame * 2 + 1] == 0)) {
        ASSERT_EQ(frameIndex(output[frame * 2], output[frame * 2 + 1]), expected) << "output frame " << frame;
        expected = (expected + 1) % 1000;
        ++frame;
    }
    EXPECT_GE(frame - start, 5000u) << "fewer than five rounds of the loop were played";
    EXPECT_TRUE(isSilentFrom(output, frame)) << "sound after Stop";
}

TEST_F(SdlOutput, StopEndsTheSoundAtOnce) {
    const Samples track = numberedTrack(3 * kRate);
    AudioHandle handle = open(track);
    ASSERT_TRUE(Play(handle, 0, false));
    ASSERT_TRUE(waitFor([&] { return GetCurrentOffset(handle) >= 100; }, 10s));
    Stop(handle);
    const std::uint64_t stoppedAt = GetCurrentOffset(handle);
    EXPECT_GE(stoppedAt, 100u) << "a stopped player reports where it stopped";
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(GetCurrentOffset(handle), stoppedAt) << "the position moved after Stop";
    const Samples output = finishDiskOutput(m_outputPath);
    const std::size_t start = firstSoundFrame(output);
    std::size_t frame = start;
    while (frame * 2 + 1 < output.size() && frameIndex(output[frame * 2], output[frame * 2 + 1]) ==
                                                static_cast<std::int64_t>(frame - start)) {
        ++frame;
    }
    EXPECT_GT(frame - start, 0u);
    EXPECT_LT(frame - start, kRate / 2) << "more than half a second played for a Stop after about 100 ms";
    EXPECT_TRUE(isSilentFrom(output, frame));
}

TEST_F(SdlOutput, TwoTracksPlayMixedAndSaturate) {
    const Samples first = constantTrack(22050, 1000, -1000);  // 500 ms each
    const Samples second = constantTrack(22050, 2000, 500);
    const Samples loud = constantTrack(22050, 30000, -30000);
    AudioHandle a = open(first), b = open(second), c = open(loud), d = open(loud);
    ASSERT_TRUE(Play(a, 0, false));
    ASSERT_TRUE(Play(b, 0, false));
    ASSERT_TRUE(waitFor([&] { return GetCurrentOffset(a) >= 500 && GetCurrentOffset(b) >= 500; }, 10s));
    ASSERT_TRUE(Play(c, 0, false));
    ASSERT_TRUE(Play(d, 0, false));
    const Samples output = playToEnd(d, 500);
    auto framesEqualTo = [&](std::int16_t left, std::int16_t right) {
        std::size_t count = 0;
        for (std::size_t index = 0; index + 1 < output.size(); index += 2) {
            if (output[index] == left && output[index + 1] == right) ++count;
        }
        return count;
    };
    // Both tracks start within a few device periods of each other, or some tens of milliseconds
    // on a loaded machine: at least a fifth of their length is mixed.
    EXPECT_GT(framesEqualTo(3000, -500), 4410u);
    EXPECT_GT(framesEqualTo(32767, -32768), 4410u);
}

TEST_F(SdlOutput, OffsetAdvancesAndStaysWithinTheTrack) {
    const Samples track = numberedTrack(22050);  // 500 ms
    AudioHandle handle = open(track);
    ASSERT_TRUE(Play(handle, 0, false));
    std::vector<std::uint64_t> offsets;
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < end && (offsets.empty() || offsets.back() < 500)) {
        offsets.push_back(GetCurrentOffset(handle));
        std::this_thread::sleep_for(20ms);
    }
    ASSERT_FALSE(offsets.empty());
    EXPECT_TRUE(std::is_sorted(offsets.begin(), offsets.end()));
    EXPECT_EQ(offsets.back(), 500u);
    EXPECT_TRUE(std::any_of(offsets.begin(), offsets.end(), [](std::uint64_t value) { return value > 50 && value < 450; }))
        << "no position seen in the middle of the track";
    EXPECT_LE(*std::max_element(offsets.begin(), offsets.end()), 500u);
}

// A track at half the device's rate is resampled: it lasts twice as many device frames.
TEST_F(SdlOutput, OtherRatesAreResampledToTheDevice) {
    const Samples track = constantTrack(4410, 1234, -4321);  // 200 ms at 22,050 Hz
    AudioHandle handle = open(track, 22050);
    ASSERT_TRUE(Play(handle, 0, false));
    const Samples output = playToEnd(handle, 200);
    std::size_t matching = 0;
    for (std::size_t index = 0; index + 1 < output.size(); index += 2) {
        if (output[index] == 1234 && output[index + 1] == -4321) ++matching;
    }
    EXPECT_NEAR(static_cast<double>(matching), 8820.0, 10.0);
}

TEST_F(SdlOutput, PlayAgainRestartsFromTheNewOffset) {
    const Samples track = numberedTrack(8820);  // 200 ms
    AudioHandle handle = open(track);
    ASSERT_TRUE(Play(handle, 0, true));
    std::this_thread::sleep_for(50ms);
    ASSERT_TRUE(Play(handle, 150, false));
    const Samples output = playToEnd(handle, 200);
    // The last sound in the file is the second playback: frames 6615..8819 in order.
    std::size_t last = output.size() / 2;
    while (last > 0 && output[last * 2 - 2] == 0 && output[last * 2 - 1] == 0) --last;
    ASSERT_GE(last, 2205u);
    EXPECT_TRUE(std::equal(track.begin() + 6615 * 2, track.end(), output.begin() + static_cast<std::ptrdiff_t>((last - 2205) * 2)));
}

TEST(AudioHandles, OnlyStereoSamplesOpen) {
    const Samples stereo = constantTrack(10, 1, 1);
    EXPECT_EQ(OpenPCMTrack(stereo.data(), stereo.size(), 44100, 1), nullptr);  // mono
    EXPECT_EQ(OpenPCMTrack(stereo.data(), stereo.size(), 44100, 6), nullptr);
    EXPECT_EQ(OpenPCMTrack(stereo.data(), 7, 44100, 2), nullptr);  // odd count
    EXPECT_EQ(OpenPCMTrack(stereo.data(), 0, 44100, 2), nullptr);
    EXPECT_EQ(OpenPCMTrack(stereo.data(), stereo.size(), 0, 2), nullptr);
    EXPECT_EQ(OpenPCMTrack(nullptr, 20, 44100, 2), nullptr);
    AudioHandle handle = OpenPCMTrack(stereo.data(), stereo.size(), 44100, 2);
    EXPECT_NE(handle, nullptr);
    Close(handle);
}

TEST(AudioHandles, ClosedAndUnknownHandlesAreRefusedQuietly) {
    const Samples stereo = constantTrack(10, 1, 1);
    AudioHandle handle = OpenPCMTrack(stereo.data(), stereo.size(), 44100, 2);
    Close(handle);
    Close(handle);
    EXPECT_FALSE(Play(handle, 0, false));
    EXPECT_EQ(GetCurrentOffset(handle), 0u);
    Stop(handle);
    EXPECT_FALSE(Play(nullptr, 0, false));
    EXPECT_FALSE(Play(reinterpret_cast<AudioHandle>(0x1234), 0, false));
}

// With no usable driver there is no sound and no noise: the functions report failure only.
TEST(AudioHandles, NoDriverMeansNoSoundAndNoMessage) {
    wm_shutdownMixer();
    setenv("SDL_AUDIODRIVER", "no-such-driver", 1);
    const Samples stereo = constantTrack(100, 1, 1);
    ::testing::internal::CaptureStdout();
    const bool hasMixer = wm_has_mixer();
    AudioHandle handle = OpenPCMTrack(stereo.data(), stereo.size(), 44100, 2);
    const bool played = Play(handle, 0, false);
    const std::uint64_t offset = GetCurrentOffset(handle);
    Close(handle);
    const std::string printed = ::testing::internal::GetCapturedStdout();
    EXPECT_TRUE(hasMixer) << "the sound layer is built in; Play tells whether a device plays";
    EXPECT_NE(handle, nullptr) << "a handle does not need a device";
    EXPECT_FALSE(played);
    EXPECT_EQ(offset, 0u);
    EXPECT_EQ(printed, "");
}

}  // namespace

namespace {

// Regression: on a machine without a sound card, SDL's ALSA driver used to leave a dozen lines
// of ALSA's own reports on standard error at every start.
TEST(AudioHandles, MissingSoundCardIsSilentOnStandardError) {
    wm_shutdownMixer();
    setenv("SDL_AUDIODRIVER", "alsa", 1);
    const Samples stereo = constantTrack(100, 1, 1);
    AudioHandle handle = OpenPCMTrack(stereo.data(), stereo.size(), 44100, 2);
    ::testing::internal::CaptureStderr();
    const bool played = Play(handle, 0, false);  // the device opens here
    Close(handle);
    wm_shutdownMixer();
    const std::string printed = ::testing::internal::GetCapturedStderr();
    if (played) GTEST_SKIP() << "this machine has an ALSA sound device";
    EXPECT_EQ(printed, "");
}

}  // namespace
