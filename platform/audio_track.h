// Tracks: whole decoded sounds held in memory (interleaved signed 16-bit samples, as the WAV
// codec decodes them) with a handle of the audio output layer while they can be played. Every
// function accepts a null track and then does nothing or returns false or 0; nothing throws or
// prints (the Audio bindings turn failures into messages).
#pragma once

#include "platform/audio_output.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace korvel::audio {

struct Track {
    std::vector<std::int16_t> samples;  // interleaved by frame
    std::uint32_t sampleRate = 0;       // frames per second
    std::uint16_t channels = 0;
    AudioHandle mixerHandle = nullptr;  // only while the track can be played (stereo, with samples)

    Track() = default;
    Track(const Track&) = delete;  // one handle, one owner
    Track& operator=(const Track&) = delete;
    ~Track();  // stops and closes the handle
};

// The read-only view analysis code takes of a track.
struct TrackAudioView {
    const std::int16_t* samples = nullptr;
    std::uint64_t sampleCount = 0;  // in 16-bit units
    std::uint32_t sampleRate = 0;
    std::uint16_t channels = 0;
};

// Decodes a WAV file (or, where MP3 decoding is available, an ".mp3" file) into a new track
// with a mixer handle. Null when the file cannot be read or decoded; `reason`, when given, then
// receives a short lower-case description ("cannot read the file", "not a WAVE file", ...).
std::unique_ptr<Track> openFile(const std::string& path, std::string* reason = nullptr);

// Stops and closes any handle; then opens a new one on the current samples when the track has
// samples, a non-zero rate and exactly two channels. Otherwise the track stays without a handle:
// it can be edited and saved but not played. A playing track stops.
void rebuildMixerHandle(Track* track);
// Stops and closes the handle and clears it.
void destroyMixerHandle(Track* track);

// Plays from `offsetMs` (past the end: ends at once), once or looping. False without a handle
// or when the output cannot start.
bool play(Track* track, std::uint64_t offsetMs, bool loop);
void pause(Track* track);
// The playback position in milliseconds; 0 without a handle.
std::uint64_t currentOffset(Track* track);

// Fills `view`; false, with a zeroed view, when the track has no samples or a zero rate or
// channel count.
bool inspect(const Track* track, TrackAudioView* view);

// Writes the track as a 16-bit PCM WAV file; an existing file is replaced whole or not at all.
bool save(const Track* track, const std::string& path);

// Destroys the handle, then the samples and the track.
void close(std::unique_ptr<Track> track);

// Stops every player; frees nothing.
void clear();

}  // namespace korvel::audio
