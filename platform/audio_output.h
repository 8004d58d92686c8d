// The audio output layer: a block of interleaved 16-bit stereo samples becomes a playable handle
// that plays from a millisecond offset, once or looping, on the system's sound output. One
// implementation per platform (windows/windows_mixer.cpp on WinMM, sdl/sdl_mixer.cpp on SDL2).
// Every function is silent: failure is a null handle, false or 0, never an exception or a
// message. All functions may be called from one thread (the script thread) while players feed
// the device on threads of their own.
#pragma once

#include <cstdint>

// An opaque key of a player. A handle that was closed, or never opened, is refused by every
// function (nothing happens, the result is false or 0): it is looked up, never dereferenced.
struct AudioPlayerHandle;
using AudioHandle = AudioPlayerHandle*;

// True when sound output exists here. On Windows: a wave-output device exists. With SDL: always
// (the device opens at the first Play, which reports whether it could).
bool wm_has_mixer();

// Copies `sampleCount` interleaved samples into a new player and returns its handle. Null when
// `samples` is null, the count is zero or odd, the rate is zero or `channels` is not 2: only
// stereo plays.
AudioHandle OpenPCMTrack(const std::int16_t* samples, std::uint64_t sampleCount, std::uint32_t sampleRate,
                         std::uint16_t channels);

// Decodes an MP3 file and opens its sound as a handle (mono is played on both sides). Null when
// the file cannot be read or decoded, or this build has no MP3 decoder.
AudioHandle OpenMP3File(const char* path);

// (Re)starts playback `offsetMs` milliseconds into the track; an offset at or past the end ends
// at once. With `loop` the track wraps to its start at the end. False when the handle is unknown
// or the device cannot be opened.
bool Play(AudioHandle handle, std::uint64_t offsetMs, bool loop);

// Stops playback and ends the player's feeder thread; the player stays open.
void Stop(AudioHandle handle);

// Stops every open player.
void StopAll();

// The playback position in milliseconds from the start of the track (wrapped into the track
// when looping; at most the track's length otherwise). 0 for an unknown handle.
std::uint64_t GetCurrentOffset(AudioHandle handle);

// Stops the player, forgets its handle and frees it. An unknown handle is ignored.
void Close(AudioHandle handle);

// Closes every player and releases the output device; the next use opens it again. For the
// host's exit and for tests that need the device's output to be complete.
void wm_shutdownMixer();
