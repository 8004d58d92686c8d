// The WinMM backend on real output, run under wine with ALSA's file device (see
// run-winmm-tests.sh): the device writes exactly the bytes it was given, so each mode plays one
// thing and compares the recorded file with what the track should have produced. The device
// runs faster than real time there, so nothing here depends on timing beyond waiting for ends.
// Usage: winmm_output_test MODE [RECORDED_FILE]; prints "PASS MODE" or "FAIL MODE: why".
#include "platform/audio_output.h"

#include <chrono>
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
        std::printf("usage: winmm_output_test nodevice|play|offset|loop|stop|handles [RECORDED_FILE]\n");
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
        const Samples recorded = readRecording(recording);
        if (recorded.size() >= track.size() / 2) return fail(mode, "half the track was recorded after a Stop");
        Close(handle);
        return compareRecording(mode, recording, Samples(track.begin(), track.begin() + static_cast<std::ptrdiff_t>(recorded.size())), false);
    }
    return fail(mode, "unknown mode");
}
