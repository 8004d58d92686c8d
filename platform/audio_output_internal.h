// The platform-free rules both audio backends follow: how a player's buffers are filled from
// its track, where playback starts for an offset, and how a device position becomes an offset.
// Private to platform/ (the backends and their tests).
#pragma once

#include <atomic>
#include <utility>
#include <cstddef>
#include <cstdint>

namespace korvel::audio_output {

// Every player streams through four buffers of 2,048 stereo frames (8,192 bytes each) carved
// from one 32,768-byte block: about 186 ms queued at 44,100 Hz.
inline constexpr std::uint32_t kBufferCount = 4;
inline constexpr std::uint32_t kBufferFrames = 2048;
inline constexpr std::uint32_t kBufferBytes = kBufferFrames * 2 * sizeof(std::int16_t);
inline constexpr std::uint32_t kBlockBytes = kBufferCount * kBufferBytes;
// The longest a feeder waits for a buffer to come back before it checks its stop request.
inline constexpr std::uint32_t kFeederWaitMs = 100;

struct FillResult {
    std::uint32_t framesCopied = 0;  // frames of the track in the buffer (the rest is silence)
    bool write = false;              // the buffer holds sound and goes to the device
    bool ended = false;              // playback ends with this buffer (partly filled, or nothing)
};

// Fills `buffer` (kBufferFrames stereo frames) from the interleaved stereo `samples`, starting
// at frame `position`, which is advanced. A looping track wraps to frame 0 as often as the
// buffer needs (a track shorter than a buffer wraps several times); a non-looping track that
// runs out pads the rest with silence and ends, and a buffer that got no frame at all is not
// written. No frames at all: the buffer is silence and playback ends. Copies by block moves
// and allocates nothing.
FillResult fillBuffer(const std::int16_t* samples, std::uint64_t sampleCount, bool loop, std::uint64_t& position,
                      std::int16_t* buffer);

// The frame playback starts at: offsetMs × rate / 1000 in 64-bit arithmetic, at most the frame
// count (so an offset past the end starts at the end and ends at once). Offsets too large for
// the product count as past the end.
std::uint64_t startFrameForOffset(std::uint64_t offsetMs, std::uint32_t sampleRate, std::uint64_t frameCount);

// The offset in milliseconds after the device has played `framesPlayed` frames of a playback
// that began at `startFrame`: wrapped into the track when looping, held at the end otherwise.
std::uint64_t offsetForPosition(std::uint64_t startFrame, std::uint64_t framesPlayed, std::uint64_t frameCount,
                                std::uint32_t sampleRate, bool loop);

// Stores a frame position so that another thread reading it sees a whole, current value: the
// store is sequentially consistent and followed by a full fence.
inline void publishPosition(std::atomic<std::uint64_t>& target, std::uint64_t value) {
    target.store(value, std::memory_order_seq_cst);
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

}  // namespace korvel::audio_output

#include "platform/audio_output.h"

#include <memory>
#include <mutex>
#include <unordered_map>

namespace korvel::audio_output {

// The process-wide map from handles to players, guarded by one mutex. Handles are numbers
// handed out in order, never addresses, so a stale or made-up handle finds nothing.
template <typename Player>
class PlayerRegistry {
public:
    AudioHandle add(std::unique_ptr<Player> player) {
        std::lock_guard lock(m_mutex);
        auto handle = reinterpret_cast<AudioHandle>(++m_lastHandle);
        m_players.emplace(handle, std::move(player));
        return handle;
    }

    // Runs action(player) with the registry locked; false when the handle is unknown.
    template <typename Action>
    bool withPlayer(AudioHandle handle, Action&& action) {
        std::lock_guard lock(m_mutex);
        auto found = m_players.find(handle);
        if (found == m_players.end()) return false;
        action(*found->second);
        return true;
    }

    template <typename Action>
    void forEach(Action&& action) {
        std::lock_guard lock(m_mutex);
        for (auto& [handle, player] : m_players) action(*player);
    }

    // Takes the player out of the registry; the caller stops and frees it unlocked.
    std::unique_ptr<Player> remove(AudioHandle handle) {
        std::lock_guard lock(m_mutex);
        auto found = m_players.find(handle);
        if (found == m_players.end()) return nullptr;
        std::unique_ptr<Player> player = std::move(found->second);
        m_players.erase(found);
        return player;
    }

    std::unordered_map<AudioHandle, std::unique_ptr<Player>> removeAll() {
        std::lock_guard lock(m_mutex);
        return std::exchange(m_players, {});
    }

private:
    std::mutex m_mutex;
    std::uintptr_t m_lastHandle = 0;
    std::unordered_map<AudioHandle, std::unique_ptr<Player>> m_players;
};

}  // namespace korvel::audio_output
