// The WinMM backend on real output, run under wine with ALSA's file device (see
// run-winmm-tests.sh): the device writes exactly the bytes it was given, so each mode plays one
// thing and compares the recorded file with what the track should have produced. The device
// runs faster than real time there, so nothing here depends on timing beyond waiting for ends.
// Usage: winmm_output_test MODE [RECORDED_FILE]; prints "PASS MODE" or "FAIL MODE: why".
#include "platform/audio_mp3.h"
#include "platform/audio_output.h"

#include <chrono>
#include <cstdlib>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

using Samples = std::vector<std::int16_t>;
using namespace std::chrono_literals;

// Every frame different and never silent (as in the SDL tests).
Samples numberedTrack(std::uint64_t frames) {
    Samples samples(frames * 2);
    for (std::uint64_t frame = 0; frame < frames; ++frame) {
        samples[frame * 2] = static_cast<std::int16_t>(frame % 30000 + 1);
        samples[frame * 2 + 1] = static_cast<std::int16_t>(-1 - static_cast<std::int64_t>(frame / 30000));
    }
    return samples;
}

Samples readRecording(const char* path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    Samples samples(bytes.size() / 2);
    if (!samples.empty()) std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
    return samples;
}

bool waitForOffset(AudioHandle handle, std::uint64_t wanted) {
    for (int round = 0; round < 500; ++round) {
        if (GetCurrentOffset(handle) >= wanted) return true;
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

int fail(const std::string& mode, const std::string& why) {
    std::printf("FAIL %s: %s\n", mode.c_str(), why.c_str());
    return 1;
}

// The recording must begin with `expected` exactly and hold only silence after it.
int compareRecording(const std::string& mode, const char* path, const Samples& expected, bool silenceAfter) {
    const Samples recorded = readRecording(path);
    if (recorded.size() < expected.size()) {
        return fail(mode, "recorded " + std::to_string(recorded.size()) + " samples, expected at least " +
                              std::to_string(expected.size()));
    }
    for (std::size_t index = 0; index < expected.size(); ++index) {
        if (recorded[index] != expected[index]) {
            return fail(mode, "sample " + std::to_string(index) + " is " + std::to_string(recorded[index]) + ", expected " +
                                  std::to_string(expected[index]));
        }
    }
    if (silenceAfter) {
        for (std::size_t index = expected.size(); index < recorded.size(); ++index) {
            if (recorded[index] != 0) return fail(mode, "sound after the end at sample " + std::to_string(index));
        }
    }
    std::printf("PASS %s (%zu samples compared, %zu recorded)\n", mode.c_str(), expected.size(), recorded.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::printf("usage: winmm_output_test nodevice|play|offset|loop|stop|handles [RECORDED_FILE]\n"
                    "       winmm_output_test mp3 FILE.mp3 CHANNELS   (a one-second 440 Hz tone at a quarter of full scale)\n");
        return 2;
    }
    const std::string mode = argv[1];
    const char* recording = argc > 2 ? argv[2] : "out.raw";
    if (mode == "handles") {
        const Samples track = numberedTrack(100);
        if (OpenPCMTrack(track.data(), track.size(), 44100, 1)) return fail(mode, "a mono track opened");
        if (OpenPCMTrack(track.data(), 7, 44100, 2)) return fail(mode, "an odd sample count opened");
        if (OpenPCMTrack(track.data(), track.size(), 0, 2)) return fail(mode, "a zero rate opened");
        AudioHandle handle = OpenPCMTrack(track.data(), track.size(), 44100, 2);
        if (!handle) return fail(mode, "a stereo track did not open");
        Close(handle);
        if (Play(handle, 0, false) || GetCurrentOffset(handle) != 0) return fail(mode, "a closed handle still works");
        std::printf("PASS %s\n", mode.c_str());
        return 0;
    }
    if (mode == "nodevice") {
        const Samples track = numberedTrack(4410);
        AudioHandle handle = OpenPCMTrack(track.data(), track.size(), 44100, 2);
        if (wm_has_mixer()) return fail(mode, "a mixer was reported without a device");
        if (Play(handle, 0, false)) return fail(mode, "Play reported success without a device");
        StopAll();
        Close(handle);
        std::printf("PASS %s\n", mode.c_str());
        return 0;
    }
    if (mode == "mp3" && argc > 3) {
        // Decoded through the system's codec: the format of the file, the length of the tone
        // (plus the encoder's delay and padding), its loudness and its pitch (zero crossings).
        std::ifstream file(argv[2], std::ios::binary);
        std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        Samples samples;
        std::uint32_t rate = 0;
        std::uint16_t channels = 0;
        korvel::audio::Mp3Failure failure = korvel::audio::Mp3Failure::None;
        if (!korvel::audio::decodeMp3(bytes.data(), bytes.size(), samples, rate, channels, &failure)) {
            return fail(mode, korvel::audio::describeMp3Failure(failure));
        }
        const auto wantedChannels = static_cast<std::uint16_t>(std::atoi(argv[3]));
        if (rate != 44100 || channels != wantedChannels) {
            return fail(mode, "decoded as " + std::to_string(rate) + " Hz, " + std::to_string(channels) + " channels");
        }
        const std::size_t frames = samples.size() / channels;
        if (frames < 44100 || frames > 44100 + 4 * 1152) return fail(mode, "decoded " + std::to_string(frames) + " frames");
        // Crossings with hysteresis, so that the near-silence of the encoder's delay counts none.
        int peak = 0, crossings = 0, side = 0;
        for (std::size_t frame = 0; frame < frames; ++frame) {
            const int sample = samples[frame * channels];
            peak = std::max(peak, std::abs(sample));
            const int now = sample > 2000 ? 1 : sample < -2000 ? -1 : side;
            if (side != 0 && now != side) ++crossings;
            side = now;
        }
        if (peak < 7000 || peak > 9500) return fail(mode, "peak " + std::to_string(peak) + ", expected about 8192");
        if (crossings < 870 || crossings > 890) return fail(mode, std::to_string(crossings) + " zero crossings, expected 880");
        AudioHandle handle = OpenMP3File(argv[2]);
        if (!handle) return fail(mode, "OpenMP3File refused the file");
        if (wm_has_mixer() && !Play(handle, 500, false)) return fail(mode, "the decoded track did not play");
        Close(handle);
        std::printf("PASS %s (%zu frames, peak %d, %d zero crossings)\n", mode.c_str(), frames, peak, crossings);
        return 0;
    }
    if (!wm_has_mixer()) return fail(mode, "no wave-output device");

    if (mode == "play" || mode == "offset") {
        // 250 ms; the last buffer is padded with silence to its 2,048 frames.
        const Samples track = numberedTrack(11025);
        AudioHandle handle = OpenPCMTrack(track.data(), track.size(), 44100, 2);
        const std::uint64_t offsetMs = mode == "offset" ? 100 : 0;
        if (!Play(handle, offsetMs, false)) return fail(mode, "Play failed");
        if (!waitForOffset(handle, 250)) return fail(mode, "the end was never reached");
        std::this_thread::sleep_for(100ms);
        Close(handle);
        const std::size_t first = offsetMs * 44100 / 1000;
        return compareRecording(mode, recording, Samples(track.begin() + static_cast<std::ptrdiff_t>(first * 2), track.end()), true);
    }
    if (mode == "loop") {
        // Shorter than a buffer: every buffer wraps several times.
        const Samples track = numberedTrack(1000);
        AudioHandle handle = OpenPCMTrack(track.data(), track.size(), 44100, 2);
        if (!Play(handle, 0, true)) return fail(mode, "Play failed");
        std::this_thread::sleep_for(300ms);
        const std::uint64_t offset = GetCurrentOffset(handle);
        if (offset > 22) return fail(mode, "a looping offset left the track: " + std::to_string(offset));
        Close(handle);
        Samples expected;
        for (int round = 0; round < 8; ++round) expected.insert(expected.end(), track.begin(), track.end());
        return compareRecording(mode, recording, expected, false);
    }
    if (mode == "stop") {
        const Samples track = numberedTrack(10 * 44100);
        AudioHandle handle = OpenPCMTrack(track.data(), track.size(), 44100, 2);
        if (!Play(handle, 0, false)) return fail(mode, "Play failed");
        if (!waitForOffset(handle, 50)) return fail(mode, "playback did not start");
        Stop(handle);
        const std::uint64_t stoppedAt = GetCurrentOffset(handle);
        if (stoppedAt < 50) return fail(mode, "a stopped player forgot its position: " + std::to_string(stoppedAt));
        std::this_thread::sleep_for(200ms);
        if (GetCurrentOffset(handle) != stoppedAt) return fail(mode, "the position moved after Stop");
        Close(handle);
        // The recording is the start of the track, cut where the device was reset (wine's
        // driver may add some silence while it closes), and far from all of it.
        const Samples recorded = readRecording(recording);
        std::size_t played = 0;
        while (played < recorded.size() && played < track.size() && recorded[played] == track[played]) ++played;
        if (played == 0) return fail(mode, "nothing of the track was recorded");
        if (played >= track.size() / 2) return fail(mode, "half the track was recorded after a Stop");
        played -= played % 2;
        return compareRecording(mode, recording, Samples(track.begin(), track.begin() + static_cast<std::ptrdiff_t>(played)), true);
    }
    return fail(mode, "unknown mode");
}
