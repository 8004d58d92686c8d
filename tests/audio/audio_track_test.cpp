// Tracks: opening WAV (and MP3) files, which tracks get a mixer handle, inspecting, saving, and
// what rebuilding a handle does to a playing track. Output goes to SDL's disk driver.
#include "platform/audio_track.h"
#include "platform/wav.h"
#include "audio_test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cmath>
#include <fstream>

// Constructed before main, so destroyed after the output layer's exit clean-up has run.
std::unique_ptr<korvel::audio::Track> trackKeptUntilExit;

namespace {

using namespace std::chrono_literals;
using namespace audiotest;
namespace audio = korvel::audio;

class Tracks : public ::testing::Test {
protected:
    void SetUp() override {
        m_directory = workDirectory();
        useDiskOutput(m_directory / "out.raw");
    }
    void TearDown() override { wm_shutdownMixer(); }

    std::string writeWav(const char* name, const Samples& samples, std::uint16_t channels, std::uint32_t rate = 44100) {
        korvel::wav::DecodedFile file;
        file.samples = samples;
        file.channels = channels;
        file.sampleRate = rate;
        const std::string path = (m_directory / name).string();
        EXPECT_TRUE(korvel::wav::encodeFile(path, file));
        return path;
    }

    std::filesystem::path m_directory;
};

TEST_F(Tracks, StereoFileOpensPlayableWithItsSamples) {
    const Samples samples = numberedTrack(2000);
    std::unique_ptr<audio::Track> track = audio::openFile(writeWav("stereo.wav", samples, 2, 22050));
    ASSERT_NE(track, nullptr);
    EXPECT_EQ(track->samples, samples);
    EXPECT_EQ(track->sampleRate, 22050u);
    EXPECT_EQ(track->channels, 2u);
    EXPECT_NE(track->mixerHandle, nullptr);
    EXPECT_TRUE(audio::play(track.get(), 0, false));
    audio::close(std::move(track));
}

TEST_F(Tracks, MonoTrackHasNoHandleAndDoesNotPlay) {
    std::unique_ptr<audio::Track> track = audio::openFile(writeWav("mono.wav", constantTrack(500, 7, 7), 1));
    ASSERT_NE(track, nullptr);
    EXPECT_EQ(track->channels, 1u);
    EXPECT_EQ(track->mixerHandle, nullptr);
    EXPECT_FALSE(audio::play(track.get(), 0, false));
    EXPECT_EQ(audio::currentOffset(track.get()), 0u);
    audio::pause(track.get());
    audio::TrackAudioView view;
    EXPECT_TRUE(audio::inspect(track.get(), &view)) << "a mono track can still be analysed";
    EXPECT_EQ(view.sampleCount, 1000u);
    EXPECT_EQ(view.channels, 1u);
}

TEST_F(Tracks, UnreadableAndUndecodableFilesSayWhy) {
    std::string reason;
    EXPECT_EQ(audio::openFile((m_directory / "missing.wav").string(), &reason), nullptr);
    EXPECT_EQ(reason, "cannot read the file");
    const auto garbage = m_directory / "garbage.wav";
    std::ofstream(garbage) << "this is not a sound";
    reason.clear();
    EXPECT_EQ(audio::openFile(garbage.string(), &reason), nullptr);
    EXPECT_EQ(reason, korvel::wav::describeDecodeFailure(korvel::wav::DecodeFailure::NotRiff));
}

// Editing a track rebuilds its handle, and that stops the sound: the old handle is gone and the
// new one has not started.
TEST_F(Tracks, RebuildingTheHandleStopsAPlayingTrack) {
    std::unique_ptr<audio::Track> track = audio::openFile(writeWav("long.wav", numberedTrack(44100), 2));
    ASSERT_NE(track, nullptr);
    ASSERT_TRUE(audio::play(track.get(), 0, true));
    ASSERT_TRUE(waitFor([&] { return audio::currentOffset(track.get()) > 20; }, 2s));
    AudioHandle oldHandle = track->mixerHandle;
    track->samples.resize(track->samples.size() / 2);  // an edit
    audio::rebuildMixerHandle(track.get());
    EXPECT_NE(track->mixerHandle, nullptr);
    EXPECT_NE(track->mixerHandle, oldHandle);
    EXPECT_FALSE(Play(oldHandle, 0, false)) << "the old handle was closed";
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(audio::currentOffset(track.get()), 0u);
    // An edit that leaves one channel takes the handle away.
    track->channels = 1;
    audio::rebuildMixerHandle(track.get());
    EXPECT_EQ(track->mixerHandle, nullptr);
}

// Regression: a track that outlives the output layer's clean-up at exit (a host's global list
// of tracks, say) closes its handle safely when it is finally destroyed; ctest runs this test
// as a process of its own, so its exit is checked too (under the sanitizers).
TEST_F(Tracks, PlayingTrackDestroyedAfterExitCleanUpIsSafe) {
    trackKeptUntilExit = audio::openFile(writeWav("kept.wav", numberedTrack(44100), 2));
    ASSERT_NE(trackKeptUntilExit, nullptr);
    EXPECT_TRUE(audio::play(trackKeptUntilExit.get(), 0, true));
}

TEST_F(Tracks, InspectRefusesEmptyTracksWithAZeroedView) {
    audio::Track empty;
    audio::TrackAudioView view;
    view.sampleCount = 99;
    EXPECT_FALSE(audio::inspect(&empty, &view));
    EXPECT_EQ(view.samples, nullptr);
    EXPECT_EQ(view.sampleCount, 0u);
    audio::Track noRate;
    noRate.samples = {1, 2};
    noRate.channels = 2;
    EXPECT_FALSE(audio::inspect(&noRate, &view));
    EXPECT_FALSE(audio::inspect(nullptr, &view));
}

TEST_F(Tracks, SavedTrackReopensIdentical) {
    const Samples samples = numberedTrack(3000);
    std::unique_ptr<audio::Track> track = audio::openFile(writeWav("source.wav", samples, 2, 32000));
    ASSERT_NE(track, nullptr);
    const std::string copy = (m_directory / "copy.wav").string();
    ASSERT_TRUE(audio::save(track.get(), copy));
    std::unique_ptr<audio::Track> reopened = audio::openFile(copy);
    ASSERT_NE(reopened, nullptr);
    EXPECT_EQ(reopened->samples, samples);
    EXPECT_EQ(reopened->sampleRate, 32000u);
}

TEST_F(Tracks, FailedSaveKeepsTheOldFile) {
    const std::string path = writeWav("keep.wav", constantTrack(10, 5, 5), 2);
    std::vector<std::uint8_t> before;
    ASSERT_TRUE(korvel::wav::readFileBytes(path, before));
    audio::Track bad;  // 3 samples in 2 channels: not whole frames, so the codec refuses it
    bad.samples = {1, 2, 3};
    bad.channels = 2;
    bad.sampleRate = 44100;
    EXPECT_FALSE(audio::save(&bad, path));
    std::vector<std::uint8_t> after;
    ASSERT_TRUE(korvel::wav::readFileBytes(path, after));
    EXPECT_EQ(before, after);
}

TEST_F(Tracks, ClearStopsEveryTrackButFreesNone) {
    std::unique_ptr<audio::Track> first = audio::openFile(writeWav("a.wav", numberedTrack(44100), 2));
    std::unique_ptr<audio::Track> second = audio::openFile(writeWav("b.wav", numberedTrack(44100), 2));
    ASSERT_TRUE(audio::play(first.get(), 0, false));
    ASSERT_TRUE(audio::play(second.get(), 0, false));
    ASSERT_TRUE(waitFor([&] { return audio::currentOffset(first.get()) > 20; }, 2s));
    audio::clear();
    const std::uint64_t stoppedFirst = audio::currentOffset(first.get());
    std::this_thread::sleep_for(80ms);
    EXPECT_EQ(audio::currentOffset(first.get()), stoppedFirst);
    EXPECT_NE(first->mixerHandle, nullptr);
    EXPECT_TRUE(audio::play(second.get(), 0, false)) << "a cleared track still plays";
}

// MP3: files that lame encodes decode to tracks of the same rate and length (give or take the
// encoder's padding), and play.
TEST_F(Tracks, Mp3FileFromLameOpensAndPlays) {
    if (!KORVEL_HAVE_MP3) GTEST_SKIP() << "this build has no MP3 decoder";
    if (std::string(KORVEL_LAME_PROGRAM).empty() || !std::filesystem::exists(KORVEL_LAME_PROGRAM)) {
        GTEST_SKIP() << "lame is not installed (tools/install-deps.sh installs it)";
    }
    Samples tone(44100 * 2);
    for (std::size_t frame = 0; frame < 44100; ++frame) {
        tone[frame * 2] = static_cast<std::int16_t>(8000 * std::sin(frame * 2 * 3.14159265 * 440 / 44100));
        tone[frame * 2 + 1] = static_cast<std::int16_t>(tone[frame * 2] / 2);  // so that the mono mix keeps it
    }
    const std::string wav = writeWav("tone.wav", tone, 2);
    for (const char* mode : {"s", "m"}) {
        const std::string mp3 = (m_directory / (std::string("tone-") + mode + ".mp3")).string();
        const std::string command = std::string(KORVEL_LAME_PROGRAM) + " --quiet -m " + mode + " -b 128 '" + wav + "' '" + mp3 + "'";
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
        std::string reason;
        std::unique_ptr<audio::Track> track = audio::openFile(mp3, &reason);
        ASSERT_NE(track, nullptr) << reason;
        EXPECT_EQ(track->sampleRate, 44100u);
        EXPECT_EQ(track->channels, *mode == 's' ? 2u : 1u);
        const std::size_t frames = track->samples.size() / track->channels;
        EXPECT_GE(frames, 44100u);
        EXPECT_LT(frames, 44100u + 4 * 1152) << "more than the encoder's padding was added";
        std::int16_t peak = 0;
        for (std::int16_t sample : track->samples) peak = std::max<std::int16_t>(peak, static_cast<std::int16_t>(std::abs(sample)));
        EXPECT_GT(peak, 4000) << "the tone did not survive decoding";
        EXPECT_EQ(track->mixerHandle != nullptr, *mode == 's');
        AudioHandle handle = OpenMP3File(mp3.c_str());
        ASSERT_NE(handle, nullptr) << "OpenMP3File plays mono on both sides too";
        EXPECT_TRUE(Play(handle, 900, false));
        Close(handle);
    }
    std::string reason;
    const auto fake = m_directory / "fake.mp3";
    std::ofstream(fake) << std::string(5000, 'x');
    EXPECT_EQ(audio::openFile(fake.string(), &reason), nullptr);
    EXPECT_EQ(reason, "no MP3 audio found");
    EXPECT_EQ(OpenMP3File(fake.c_str()), nullptr);
}

}  // namespace
