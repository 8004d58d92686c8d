// The audio output layer on WinMM. Every playing player has its own connection to the wave
// mapper, opened for 16-bit stereo PCM at the track's rate with event notification, four
// prepared buffers in one block, and a feeder thread that refills whichever buffers the device
// has returned; the system mixes concurrent players.
#include "platform/audio_output.h"
#include "platform/audio_output_internal.h"

#include <windows.h>
#include <mmsystem.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

using namespace korvel::audio_output;

struct EventCloser {
    void operator()(HANDLE event) const { CloseHandle(event); }
};
using EventHandle = std::unique_ptr<std::remove_pointer_t<HANDLE>, EventCloser>;

struct WindowsAudioPlayer {
    std::vector<std::int16_t> samples;  // own copy, interleaved stereo
    std::uint32_t sampleRate = 0;
    bool loop = false;
    HWAVEOUT device = nullptr;  // open only while playing
    EventHandle event;          // signalled by the device whenever a buffer completes
    std::array<WAVEHDR, kBufferCount> headers{};
    std::unique_ptr<std::int16_t[]> block;  // kBlockBytes shared by the four headers
    std::atomic<std::uint64_t> position{0};  // next frame to feed
    std::uint64_t startFrame = 0;
    std::uint64_t playedAtStop = 0;  // frames the device had played when playback last stopped
    std::atomic<bool> stopRequest{false};
    std::thread feeder;

    WindowsAudioPlayer() = default;
    WindowsAudioPlayer(const WindowsAudioPlayer&) = delete;
    WindowsAudioPlayer& operator=(const WindowsAudioPlayer&) = delete;
    ~WindowsAudioPlayer() { stop(); }

    std::uint64_t frameCount() const { return samples.size() / 2; }

    // Ends the feeder, then takes the buffers back from the device and closes it. Safe to call
    // when nothing plays, and on a half-started playback.
    void stop() {
        if (feeder.joinable()) {
            stopRequest.store(true);
            if (event) SetEvent(event.get());
            feeder.join();
        }
        if (device) {
            playedAtStop = devicePosition();
            waveOutReset(device);  // returns every queued buffer, so they can be unprepared
            for (WAVEHDR& header : headers) {
                if (header.dwFlags & WHDR_PREPARED) waveOutUnprepareHeader(device, &header, sizeof header);
            }
            waveOutClose(device);
            device = nullptr;
        }
        headers = {};
        block.reset();
        event.reset();
        stopRequest.store(false);
    }

    // The feeder thread: visits the headers in order, refills those the device has returned,
    // and waits for a completion when it has nothing to do. It allocates nothing.
    void feed() {
        bool ended = false;
        while (!stopRequest.load()) {
            bool filledAny = false;
            for (WAVEHDR& header : headers) {
                if (stopRequest.load()) break;
                if (ended) break;
                if (header.dwFlags & WHDR_INQUEUE) continue;  // the device still holds it
                std::uint64_t next = position.load();
                auto* buffer = reinterpret_cast<std::int16_t*>(header.lpData);
                FillResult fill = fillBuffer(samples.data(), samples.size(), loop, next, buffer);
                publishPosition(position, next);
                if (fill.ended) ended = true;
                if (!fill.write) break;
                header.dwBufferLength = kBufferBytes;
                if (waveOutWrite(device, &header, sizeof header) != MMSYSERR_NOERROR) {
                    ended = true;
                    break;
                }
                filledAny = true;
            }
            if (!filledAny) WaitForSingleObject(event.get(), kFeederWaitMs);
        }
    }

    bool play(std::uint64_t offsetMs, bool loopPlayback) {
        stop();
        if (samples.empty() || sampleRate == 0) return false;
        startFrame = startFrameForOffset(offsetMs, sampleRate, frameCount());
        playedAtStop = 0;
        loop = loopPlayback;
        publishPosition(position, startFrame);

        event.reset(CreateEventW(nullptr, FALSE, FALSE, nullptr));
        if (!event) return false;
        WAVEFORMATEX format{};
        format.wFormatTag = WAVE_FORMAT_PCM;
        format.nChannels = 2;
        format.nSamplesPerSec = sampleRate;
        format.wBitsPerSample = 16;
        format.nBlockAlign = 4;
        format.nAvgBytesPerSec = sampleRate * 4;
        if (waveOutOpen(&device, WAVE_MAPPER, &format, reinterpret_cast<DWORD_PTR>(event.get()), 0, CALLBACK_EVENT) !=
            MMSYSERR_NOERROR) {
            device = nullptr;
            stop();
            return false;
        }
        block = std::make_unique<std::int16_t[]>(kBlockBytes / sizeof(std::int16_t));  // zeroed
        for (std::uint32_t index = 0; index < kBufferCount; ++index) {
            WAVEHDR& header = headers[index];
            header.lpData = reinterpret_cast<LPSTR>(block.get()) + std::size_t{index} * kBufferBytes;
            header.dwBufferLength = kBufferBytes;
            if (waveOutPrepareHeader(device, &header, sizeof header) != MMSYSERR_NOERROR) {
                stop();
                return false;
            }
        }
        try {
            feeder = std::thread([this] { feed(); });
        } catch (...) {
            stop();
            return false;
        }
        return true;
    }

    // Frames the open device has played since it was opened.
    std::uint64_t devicePosition() {
        MMTIME time{};
        time.wType = TIME_SAMPLES;
        if (waveOutGetPosition(device, &time, sizeof time) != MMSYSERR_NOERROR) return 0;
        // The device may answer in another unit than the one asked for.
        if (time.wType == TIME_SAMPLES) return time.u.sample;
        if (time.wType == TIME_BYTES) return time.u.cb / 4;
        return 0;
    }

    // A stopped player reports where it stopped.
    std::uint64_t currentOffset() {
        const std::uint64_t played = device ? devicePosition() : playedAtStop;
        return offsetForPosition(startFrame, played, frameCount(), sampleRate, loop);
    }
};

// Never destroyed: objects destroyed at exit may still close their handles and then find an
// empty registry rather than a destroyed one. At exit every player stops.
PlayerRegistry<WindowsAudioPlayer>& registry() {
    static PlayerRegistry<WindowsAudioPlayer>* players = [] {
        auto* created = new PlayerRegistry<WindowsAudioPlayer>;
        std::atexit([] { wm_shutdownMixer(); });
        return created;
    }();
    return *players;
}

}  // namespace

bool wm_has_mixer() {
    return waveOutGetNumDevs() > 0;
}

AudioHandle OpenPCMTrack(const std::int16_t* samples, std::uint64_t sampleCount, std::uint32_t sampleRate,
                         std::uint16_t channels) {
    if (!samples || sampleCount == 0 || sampleCount % 2 != 0 || sampleRate == 0 || channels != 2) return nullptr;
    try {
        auto player = std::make_unique<WindowsAudioPlayer>();
        player->samples.assign(samples, samples + sampleCount);
        player->sampleRate = sampleRate;
        return registry().add(std::move(player));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

bool Play(AudioHandle handle, std::uint64_t offsetMs, bool loop) {
    bool started = false;
    registry().withPlayer(handle, [&](WindowsAudioPlayer& player) { started = player.play(offsetMs, loop); });
    return started;
}

void Stop(AudioHandle handle) {
    registry().withPlayer(handle, [](WindowsAudioPlayer& player) { player.stop(); });
}

void StopAll() {
    registry().forEach([](WindowsAudioPlayer& player) { player.stop(); });
}

std::uint64_t GetCurrentOffset(AudioHandle handle) {
    std::uint64_t offset = 0;
    registry().withPlayer(handle, [&](WindowsAudioPlayer& player) { offset = player.currentOffset(); });
    return offset;
}

void Close(AudioHandle handle) {
    registry().remove(handle);  // the player stops as it is destroyed, outside the registry lock
}

void wm_shutdownMixer() {
    registry().removeAll();
}
