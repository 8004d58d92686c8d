// The audio output layer on SDL2. SDL gives one device per process rather than one per track, so
// the players share a single output device whose callback mixes them: each player keeps the
// four 2,048-frame buffers and the feeder thread of the WinMM backend, and the callback takes
// the buffers its feeder has queued, in the order they were queued, adds them up (resampled to
// the device rate when the track's rate differs) and saturates the sum to 16 bits. A buffer the
// callback has used up goes back to the feeder, which is woken to refill it.
#include "platform/audio_output.h"
#include "platform/audio_output_internal.h"
#include "platform/sdl/sdl_mixer_internal.h"

#include "platform/sdl/sdl_library.h"
#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <cstdlib>
#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <semaphore>
#include <thread>
#include <vector>

namespace korvel::audio_output {

// One player's state. Fields the callback alone touches are marked so; the queue between the
// feeder and the callback is a single-producer single-consumer ring of buffer indices.
struct SdlAudioPlayer {
    std::vector<std::int16_t> samples;  // own copy, interleaved stereo
    std::uint32_t sampleRate = 0;
    bool loop = false;
    std::unique_ptr<std::int16_t[]> block;  // kBlockBytes: the four buffers
    std::array<std::atomic<bool>, kBufferCount> queued{};  // the mixer holds this buffer
    std::array<std::uint32_t, kBufferCount> queueOrder{};  // buffer indices in the order queued
    std::atomic<std::uint32_t> queueHead{0};  // next entry the callback plays
    std::atomic<std::uint32_t> queueTail{0};  // next entry the feeder writes
    std::atomic<std::uint64_t> position{0};   // next frame to feed
    std::atomic<std::uint64_t> framesPlayed{0};  // frames the callback has taken since Play
    std::uint64_t startFrame = 0;
    std::atomic<bool> stopRequest{false};
    std::counting_semaphore<> completion{0};  // released by the callback whenever a buffer is used up
    std::thread feeder;
    bool attached = false;  // in the mixer's list of playing players

    // Callback only: the frame within the buffer at the queue's head, and the resampler.
    std::uint32_t readFrame = 0;
    std::uint32_t step = 1u << 16;      // source frames per device frame, 16.16 fixed point
    std::uint32_t fraction = 1u << 16;  // how far past `previous` the next device frame lies
    std::array<std::int32_t, 2> previous{};
    std::array<std::int32_t, 2> current{};

    SdlAudioPlayer() = default;
    SdlAudioPlayer(const SdlAudioPlayer&) = delete;
    SdlAudioPlayer& operator=(const SdlAudioPlayer&) = delete;
    ~SdlAudioPlayer();

    std::uint64_t frameCount() const { return samples.size() / 2; }
    bool play(std::uint64_t offsetMs, bool loopPlayback);
    void stop();
    void feed();
    std::uint64_t currentOffset() const {
        return offsetForPosition(startFrame, framesPlayed.load(), frameCount(), sampleRate, loop);
    }
};

static void mixPlayer(SdlAudioPlayer& player, std::int32_t* mix, std::uint32_t frames);

MixerStatistics& mixerStatistics() {
    static MixerStatistics statistics;
    return statistics;
}

namespace {

// ALSA's library reports every failed lookup of a sound card on standard error ("ALSA lib
// confmisc.c:855: cannot find card '0'" and a dozen more lines), which on a machine without
// sound would print at every start. Output below the bindings is silent, so before SDL loads
// ALSA the library is loaded here, kept loaded (SDL then shares it) and given a handler that
// drops its reports. Without ALSA this does nothing.
extern "C" void dropAlsaReport(const char*, int, const char*, int, const char*, ...) {}

void quietenAlsa() {
    static const bool done = [] {
        void* library = dlopen("libasound.so.2", RTLD_NOW | RTLD_GLOBAL);
        if (!library) return false;
        using Handler = void (*)(const char*, int, const char*, int, const char*, ...);
        using SetHandler = int (*)(Handler);
        if (auto setHandler = reinterpret_cast<SetHandler>(dlsym(library, "snd_lib_error_set_handler"))) {
            setHandler(&dropAlsaReport);
        }
        return true;  // the library stays loaded for the life of the process
    }();
    (void)done;
}

constexpr int kDeviceRate = 44100;
constexpr Uint16 kDeviceFrames = 256;  // the mixing period: 5.8 ms at 44,100 Hz

// The shared output device and the players it mixes.
class SdlMixer {
public:
    ~SdlMixer() { close(); }

    bool open() {
        std::lock_guard lock(m_mutex);
        if (m_device != 0) return true;
        quietenAlsa();
        if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) return false;
        SDL_AudioSpec wanted{};
        wanted.freq = kDeviceRate;
        wanted.format = AUDIO_S16SYS;
        wanted.channels = 2;
        wanted.samples = kDeviceFrames;
        wanted.callback = &SdlMixer::callback;
        wanted.userdata = this;
        SDL_AudioSpec obtained{};
        // No changes allowed: SDL converts to whatever the hardware wants, so the callback
        // always mixes 16-bit stereo at kDeviceRate.
        m_device = SDL_OpenAudioDevice(nullptr, 0, &wanted, &obtained, 0);
        if (m_device == 0) {
            SDL_QuitSubSystem(SDL_INIT_AUDIO);
            return false;
        }
        m_mix.assign(std::size_t{obtained.samples} * 2, 0);
        m_playing.reserve(64);
        SDL_PauseAudioDevice(m_device, 0);
        return true;
    }

    void close() {
        std::lock_guard lock(m_mutex);
        if (m_device == 0) return;
        SDL_CloseAudioDevice(m_device);  // waits for a running callback to return
        m_device = 0;
        for (SdlAudioPlayer* player : m_playing) player->attached = false;
        m_playing.clear();
        SDL_QuitSubSystem(SDL_INIT_AUDIO);
    }

    void attach(SdlAudioPlayer& player) {
        std::lock_guard lock(m_mutex);
        if (m_device == 0) return;
        SDL_LockAudioDevice(m_device);
        m_playing.push_back(&player);
        player.attached = true;
        SDL_UnlockAudioDevice(m_device);
    }

    void detach(SdlAudioPlayer& player) {
        std::lock_guard lock(m_mutex);
        if (!player.attached) return;
        if (m_device != 0) SDL_LockAudioDevice(m_device);
        std::erase(m_playing, &player);
        player.attached = false;
        if (m_device != 0) SDL_UnlockAudioDevice(m_device);
    }

private:
    static void callback(void* userdata, Uint8* stream, int length) {
        const Uint64 started = SDL_GetPerformanceCounter();
        auto& mixer = *static_cast<SdlMixer*>(userdata);
        const auto frames = static_cast<std::uint32_t>(length / 4);
        std::int32_t* mix = mixer.m_mix.data();
        std::fill_n(mix, std::size_t{frames} * 2, 0);
        for (SdlAudioPlayer* player : mixer.m_playing) mixPlayer(*player, mix, frames);
        saturate(mix, reinterpret_cast<std::int16_t*>(stream), std::size_t{frames} * 2);
        const Uint64 elapsed = SDL_GetPerformanceCounter() - started;
        MixerStatistics& statistics = mixerStatistics();
        statistics.callbacks.fetch_add(1, std::memory_order_relaxed);
        statistics.framesMixed.fetch_add(frames, std::memory_order_relaxed);
        statistics.nanoseconds.fetch_add(elapsed * 1000000000 / SDL_GetPerformanceFrequency(), std::memory_order_relaxed);
    }

    std::mutex m_mutex;  // open, close, attach and detach from the script thread
    SDL_AudioDeviceID m_device = 0;
    std::vector<SdlAudioPlayer*> m_playing;  // guarded by the device lock against the callback
    std::vector<std::int32_t> m_mix;         // the callback's sum, allocated when the device opens
};

struct MixerState {
    SdlMixer mixer;
    PlayerRegistry<SdlAudioPlayer> registry;
};

// The device and the registry live until the process ends and are never destroyed: objects
// destroyed at exit (a host's tracks, say) may still close their handles, and then find an
// empty registry rather than a destroyed one. At exit every player stops and the device closes.
MixerState& state() {
    static MixerState* instance = [] {
        auto* created = new MixerState;
        std::atexit([] { wm_shutdownMixer(); });
        return created;
    }();
    return *instance;
}

}  // namespace

void saturate(const std::int32_t* mix, std::int16_t* out, std::size_t sampleCount) {
    for (std::size_t index = 0; index < sampleCount; ++index) {
        out[index] = static_cast<std::int16_t>(std::clamp<std::int32_t>(mix[index], -32768, 32767));
    }
}

// Hands the buffer at the queue's head back to the feeder.
static void releaseHeadBuffer(SdlAudioPlayer& player, std::uint32_t head) {
    player.readFrame = 0;
    player.queued[player.queueOrder[head % kBufferCount]].store(false, std::memory_order_release);
    player.queueHead.store(head + 1, std::memory_order_release);
    player.completion.release();
}

// One source frame from the queue into `frame`; false when the feeder has nothing queued.
static bool takeFrame(SdlAudioPlayer& player, std::array<std::int32_t, 2>& frame) {
    const std::uint32_t head = player.queueHead.load(std::memory_order_relaxed);
    if (head == player.queueTail.load(std::memory_order_acquire)) return false;
    const std::int16_t* buffer = player.block.get() + std::size_t{player.queueOrder[head % kBufferCount]} * kBufferFrames * 2;
    frame[0] = buffer[player.readFrame * 2];
    frame[1] = buffer[player.readFrame * 2 + 1];
    if (++player.readFrame == kBufferFrames) releaseHeadBuffer(player, head);
    player.framesPlayed.fetch_add(1, std::memory_order_relaxed);
    return true;
}

static void mixPlayer(SdlAudioPlayer& player, std::int32_t* mix, std::uint32_t frames) {
    if (player.step == (1u << 16)) {
        // The track's rate is the device's: add whole runs of the queued buffers.
        std::uint32_t done = 0;
        while (done < frames) {
            const std::uint32_t head = player.queueHead.load(std::memory_order_relaxed);
            if (head == player.queueTail.load(std::memory_order_acquire)) break;  // the feeder is behind
            const std::int16_t* buffer =
                player.block.get() + std::size_t{player.queueOrder[head % kBufferCount]} * kBufferFrames * 2;
            const std::uint32_t count = std::min(frames - done, kBufferFrames - player.readFrame);
            const std::int16_t* source = buffer + std::size_t{player.readFrame} * 2;
            std::int32_t* target = mix + std::size_t{done} * 2;
            for (std::uint32_t index = 0; index < count * 2; ++index) target[index] += source[index];
            done += count;
            player.readFrame += count;
            player.framesPlayed.fetch_add(count, std::memory_order_relaxed);
            if (player.readFrame == kBufferFrames) releaseHeadBuffer(player, head);
        }
        return;
    }
    // Another rate: linear interpolation between the two source frames around each device frame.
    for (std::uint32_t index = 0; index < frames; ++index) {
        while (player.fraction >= (1u << 16)) {
            std::array<std::int32_t, 2> next{};
            if (!takeFrame(player, next)) return;
            player.previous = player.current;
            player.current = next;
            player.fraction -= 1u << 16;
        }
        const std::int64_t weight = player.fraction;
        for (int channel = 0; channel < 2; ++channel) {
            const std::int64_t from = player.previous[channel];
            mix[index * 2 + channel] += static_cast<std::int32_t>(from + ((player.current[channel] - from) * weight >> 16));
        }
        player.fraction += player.step;
    }
}

SdlAudioPlayer::~SdlAudioPlayer() {
    stop();
}

void SdlAudioPlayer::stop() {
    state().mixer.detach(*this);
    if (feeder.joinable()) {
        stopRequest.store(true);
        completion.release();
        feeder.join();
    }
    while (completion.try_acquire()) {
    }
    stopRequest.store(false);
    block.reset();
}

bool SdlAudioPlayer::play(std::uint64_t offsetMs, bool loopPlayback) {
    stop();
    if (samples.empty() || sampleRate == 0) return false;
    startFrame = startFrameForOffset(offsetMs, sampleRate, frameCount());
    loop = loopPlayback;
    publishPosition(position, startFrame);
    framesPlayed.store(0);
    for (auto& flag : queued) flag.store(false);
    queueHead.store(0);
    queueTail.store(0);
    readFrame = 0;
    step = static_cast<std::uint32_t>((std::uint64_t{sampleRate} << 16) / kDeviceRate);
    if (step == 0) step = 1;
    fraction = 1u << 16;
    previous = {};
    current = {};
    if (!state().mixer.open()) return false;
    try {
        block = std::make_unique<std::int16_t[]>(kBlockBytes / sizeof(std::int16_t));  // zeroed
        feeder = std::thread([this] { feed(); });
    } catch (...) {
        block.reset();
        return false;
    }
    state().mixer.attach(*this);
    return true;
}

// The feeder thread: visits the buffers in order, refills those the mixer has handed back and
// queues them; waits for a completion when it has nothing to do. It allocates nothing.
void SdlAudioPlayer::feed() {
    bool ended = false;
    while (!stopRequest.load()) {
        bool filledAny = false;
        for (std::uint32_t index = 0; index < kBufferCount && !ended && !stopRequest.load(); ++index) {
            if (queued[index].load(std::memory_order_acquire)) continue;
            std::uint64_t next = position.load();
            FillResult fill = fillBuffer(samples.data(), samples.size(), loop, next,
                                         block.get() + std::size_t{index} * kBufferFrames * 2);
            publishPosition(position, next);
            if (fill.ended) ended = true;
            if (!fill.write) break;
            queued[index].store(true, std::memory_order_relaxed);
            const std::uint32_t tail = queueTail.load(std::memory_order_relaxed);
            queueOrder[tail % kBufferCount] = index;
            queueTail.store(tail + 1, std::memory_order_release);
            filledAny = true;
        }
        if (!filledAny) (void)completion.try_acquire_for(std::chrono::milliseconds(kFeederWaitMs));
    }
}

}  // namespace korvel::audio_output

using korvel::audio_output::SdlAudioPlayer;
using korvel::audio_output::state;

// The sound layer is part of every Linux build, so the answer is yes without loading SDL (start-up
// publishes it as MIXER_ENABLED and must stay quick). Whether a device really plays is known at
// the first Play, which reports it: on a machine without sound, nothing plays, silently.
bool wm_has_mixer() { return true; }

AudioHandle OpenPCMTrack(const std::int16_t* samples, std::uint64_t sampleCount, std::uint32_t sampleRate,
                         std::uint16_t channels) {
    if (!samples || sampleCount == 0 || sampleCount % 2 != 0 || sampleRate == 0 || channels != 2) return nullptr;
    try {
        auto player = std::make_unique<SdlAudioPlayer>();
        player->samples.assign(samples, samples + sampleCount);
        player->sampleRate = sampleRate;
        return state().registry.add(std::move(player));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

bool Play(AudioHandle handle, std::uint64_t offsetMs, bool loop) {
    bool started = false;
    state().registry.withPlayer(handle, [&](SdlAudioPlayer& player) { started = player.play(offsetMs, loop); });
    return started;
}

void Stop(AudioHandle handle) {
    state().registry.withPlayer(handle, [](SdlAudioPlayer& player) { player.stop(); });
}

void StopAll() {
    state().registry.forEach([](SdlAudioPlayer& player) { player.stop(); });
}

std::uint64_t GetCurrentOffset(AudioHandle handle) {
    std::uint64_t offset = 0;
    state().registry.withPlayer(handle, [&](SdlAudioPlayer& player) { offset = player.currentOffset(); });
    return offset;
}

void Close(AudioHandle handle) {
    state().registry.remove(handle);  // stops as it is destroyed, outside the registry lock
}

void wm_shutdownMixer() {
    state().registry.removeAll();
    state().mixer.close();
}
