// Tracks on top of the WAV codec and the audio output layer.
#include "platform/audio_track.h"

#include "platform/audio_mp3.h"
#include "platform/wav.h"

#include <algorithm>
#include <cctype>
#include <new>

namespace korvel::audio {

Track::~Track() {
    destroyMixerHandle(this);
}

namespace {

bool hasExtension(const std::string& path, std::string_view extension) {
    if (path.size() < extension.size()) return false;
    return std::equal(extension.begin(), extension.end(), path.end() - static_cast<std::ptrdiff_t>(extension.size()),
                      [](char wanted, char actual) {
                          return wanted == std::tolower(static_cast<unsigned char>(actual));
                      });
}

}  // namespace

std::unique_ptr<Track> openFile(const std::string& path, std::string* reason) {
    auto fail = [&](const char* text) -> std::unique_ptr<Track> {
        if (reason) *reason = text;
        return nullptr;
    };
    std::vector<std::uint8_t> bytes;
    if (!wav::readFileBytes(path, bytes)) return fail("cannot read the file");
    try {
        auto track = std::make_unique<Track>();
        if (hasExtension(path, ".mp3") && !(bytes.size() >= 4 && std::equal(bytes.begin(), bytes.begin() + 4, "RIFF"))) {
            Mp3Failure failure = Mp3Failure::None;
            if (!decodeMp3(bytes.data(), bytes.size(), track->samples, track->sampleRate, track->channels, &failure)) {
                return fail(describeMp3Failure(failure));
            }
        } else {
            wav::DecodedFile decoded;
            wav::DecodeFailure failure = wav::DecodeFailure::None;
            if (!wav::decode(bytes.data(), bytes.size(), &decoded, {}, &failure)) {
                return fail(wav::describeDecodeFailure(failure));
            }
            track->samples = std::move(decoded.samples);
            track->sampleRate = decoded.sampleRate;
            track->channels = decoded.channels;
        }
        rebuildMixerHandle(track.get());
        return track;
    } catch (const std::bad_alloc&) {
        return fail("not enough memory for the sound");
    }
}

void rebuildMixerHandle(Track* track) {
    if (!track) return;
    destroyMixerHandle(track);
    if (track->samples.empty() || track->sampleRate == 0 || track->channels != 2) return;
    track->mixerHandle = OpenPCMTrack(track->samples.data(), track->samples.size(), track->sampleRate, track->channels);
}

void destroyMixerHandle(Track* track) {
    if (!track || !track->mixerHandle) return;
    Stop(track->mixerHandle);
    Close(track->mixerHandle);
    track->mixerHandle = nullptr;
}

bool play(Track* track, std::uint64_t offsetMs, bool loop) {
    if (!track || !track->mixerHandle) return false;
    return Play(track->mixerHandle, offsetMs, loop);
}

void pause(Track* track) {
    if (track && track->mixerHandle) Stop(track->mixerHandle);
}

std::uint64_t currentOffset(Track* track) {
    if (!track || !track->mixerHandle) return 0;
    return GetCurrentOffset(track->mixerHandle);
}

bool inspect(const Track* track, TrackAudioView* view) {
    if (!view) return false;
    *view = {};
    if (!track || track->samples.empty() || track->sampleRate == 0 || track->channels == 0) return false;
    view->samples = track->samples.data();
    view->sampleCount = track->samples.size();
    view->sampleRate = track->sampleRate;
    view->channels = track->channels;
    return true;
}

bool save(const Track* track, const std::string& path) {
    if (!track) return false;
    try {
        wav::DecodedFile file;
        file.samples = track->samples;
        file.sampleRate = track->sampleRate;
        file.channels = track->channels;
        return wav::encodeFile(path, file);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void close(std::unique_ptr<Track> track) {
    if (!track) return;
    destroyMixerHandle(track.get());
    track.reset();
}

void clear() {
    StopAll();
}

}  // namespace korvel::audio
