// WAV decoding against libsndfile reading the same bytes to 16-bit shorts.
//
//   wav_decode_bench [RUNS]
//
// Three 60-second 44.1 kHz stereo files are built in memory: 16-bit PCM (the common case),
// 24-bit PCM and 32-bit float. Each is decoded RUNS times (default 15) by the codec and by
// libsndfile (from memory through its virtual I/O, so neither side touches the disk), the two
// alternating; every run's sample count and checksum are checked before its time counts. Prints
// the medians, the rates in Msamples/s and libsndfile's time over ours (above 1: we are faster).
// Times are processor time of the process (std::clock), not wall time: on a shared machine a
// longer run is interrupted more often, which would skew the ratio against the slower side.
// Timing never fails anything: this reports.
#include "platform/wav.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#if defined(KORVEL_HAVE_SNDFILE)
#include <sndfile.h>
#endif

namespace {

constexpr std::uint32_t kRate = 44100;
constexpr std::uint16_t kChannels = 2;
constexpr std::size_t kFrames = 60 * kRate;

// A sine per channel with a little deterministic noise: every sample value range is touched.
std::vector<double> makeSignal() {
    std::vector<double> values(kFrames * kChannels);
    std::uint32_t noise = 12345;
    for (std::size_t frame = 0; frame < kFrames; ++frame)
        for (std::size_t channel = 0; channel < kChannels; ++channel) {
            noise = noise * 1664525u + 1013904223u;
            const double tone = std::sin(static_cast<double>(frame) * (0.03 + 0.02 * static_cast<double>(channel)));
            values[frame * kChannels + channel] = 0.9 * tone + 0.1 * (static_cast<double>(noise >> 8) / 8388608.0 - 1.0);
        }
    return values;
}

std::vector<std::uint8_t> headerFor(std::uint16_t tag, std::uint16_t bits, std::size_t dataSize) {
    std::vector<std::uint8_t> out;
    auto text = [&](const char* identifier) { out.insert(out.end(), identifier, identifier + 4); };
    text("RIFF");
    korvel::wav::writeU32LE(out, static_cast<std::uint32_t>(36 + dataSize));
    text("WAVE");
    text("fmt ");
    korvel::wav::writeU32LE(out, 16);
    korvel::wav::writeU16LE(out, tag);
    korvel::wav::writeU16LE(out, kChannels);
    korvel::wav::writeU32LE(out, kRate);
    korvel::wav::writeU32LE(out, kRate * kChannels * (bits / 8u));
    korvel::wav::writeU16LE(out, static_cast<std::uint16_t>(kChannels * (bits / 8u)));
    korvel::wav::writeU16LE(out, bits);
    text("data");
    korvel::wav::writeU32LE(out, static_cast<std::uint32_t>(dataSize));
    return out;
}

std::vector<std::uint8_t> makeFile(const std::vector<double>& signal, std::uint16_t tag, std::uint16_t bits) {
    std::vector<std::uint8_t> out = headerFor(tag, bits, signal.size() * (bits / 8u));
    for (double value : signal) {
        std::uint32_t word = 0;
        if (tag == 3) {
            float sample = static_cast<float>(value);
            std::memcpy(&word, &sample, 4);
        } else {
            word = static_cast<std::uint32_t>(static_cast<std::int32_t>(std::lround(value * ((1 << (bits - 1)) - 1))));
        }
        for (unsigned byte = 0; byte < bits / 8u; ++byte) out.push_back(static_cast<std::uint8_t>(word >> (8 * byte)));
    }
    return out;
}

double medianOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::uint64_t checksumOf(const std::int16_t* samples, std::size_t count) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < count; ++i) sum = sum * 31 + static_cast<std::uint16_t>(samples[i]);
    return sum;
}

double millisecondsSince(std::clock_t start) {
    return 1000.0 * static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "wav_decode_bench: %s\n", what);
    std::exit(1);
}

// One timed decode by the codec; the checksum must be the same in every run.
double timeCodec(const std::vector<std::uint8_t>& bytes, std::uint64_t& checksum) {
    const std::clock_t start = std::clock();
    korvel::wav::DecodedFile out;
    if (!korvel::wav::decode(bytes.data(), bytes.size(), &out)) fail("the codec refused its own input");
    const double elapsed = millisecondsSince(start);
    if (out.samples.size() != kFrames * kChannels) fail("the codec decoded the wrong number of samples");
    const std::uint64_t sum = checksumOf(out.samples.data(), out.samples.size());
    if (checksum != 0 && sum != checksum) fail("the codec's output changed between runs");
    checksum = sum;
    return elapsed;
}

#if defined(KORVEL_HAVE_SNDFILE)

struct MemoryFile {
    const std::vector<std::uint8_t>* bytes = nullptr;
    sf_count_t position = 0;
};

sf_count_t memoryLength(void* user) { return static_cast<sf_count_t>(static_cast<MemoryFile*>(user)->bytes->size()); }

sf_count_t memorySeek(sf_count_t offset, int whence, void* user) {
    MemoryFile& file = *static_cast<MemoryFile*>(user);
    const sf_count_t size = static_cast<sf_count_t>(file.bytes->size());
    sf_count_t target = whence == SEEK_SET ? offset : whence == SEEK_CUR ? file.position + offset : size + offset;
    file.position = std::clamp<sf_count_t>(target, 0, size);
    return file.position;
}

sf_count_t memoryRead(void* destination, sf_count_t count, void* user) {
    MemoryFile& file = *static_cast<MemoryFile*>(user);
    const sf_count_t size = static_cast<sf_count_t>(file.bytes->size());
    const sf_count_t available = std::min(count, size - file.position);
    std::memcpy(destination, file.bytes->data() + file.position, static_cast<std::size_t>(available));
    file.position += available;
    return available;
}

sf_count_t memoryWrite(const void*, sf_count_t, void*) { return 0; }
sf_count_t memoryTell(void* user) { return static_cast<MemoryFile*>(user)->position; }

// One timed read of the whole file to shorts by libsndfile, output allocated inside the timing
// as the codec's is.
double timeLibsndfile(const std::vector<std::uint8_t>& bytes, std::uint64_t& checksum) {
    SF_VIRTUAL_IO io{memoryLength, memorySeek, memoryRead, memoryWrite, memoryTell};
    MemoryFile memory{&bytes, 0};
    const std::clock_t start = std::clock();
    SF_INFO info{};
    SNDFILE* file = sf_open_virtual(&io, SFM_READ, &info, &memory);
    if (!file) fail(sf_strerror(nullptr));
    std::vector<short> samples(static_cast<std::size_t>(info.frames * info.channels));
    const sf_count_t frames = sf_readf_short(file, samples.data(), info.frames);
    sf_close(file);
    const double elapsed = millisecondsSince(start);
    if (frames != static_cast<sf_count_t>(kFrames) || info.channels != kChannels) fail("libsndfile read the wrong number of frames");
    const std::uint64_t sum = checksumOf(reinterpret_cast<const std::int16_t*>(samples.data()), samples.size());
    if (checksum != 0 && sum != checksum) fail("libsndfile's output changed between runs");
    checksum = sum;
    return elapsed;
}

#endif

void measure(const char* name, const std::vector<std::uint8_t>& bytes, int runs) {
    std::vector<double> codec, peer;
    std::uint64_t codecSum = 0;
    [[maybe_unused]] std::uint64_t peerSum = 0;
    for (int run = 0; run < runs; ++run) {
        codec.push_back(timeCodec(bytes, codecSum));
#if defined(KORVEL_HAVE_SNDFILE)
        peer.push_back(timeLibsndfile(bytes, peerSum));
#endif
    }
    const double samples = static_cast<double>(kFrames * kChannels);
    const double codecMs = medianOf(codec);
    std::printf("%-22s codec %8.2f ms %8.1f Msamples/s", name, codecMs, samples / codecMs / 1000.0);
    if (!peer.empty()) {
        const double peerMs = medianOf(peer);
        std::printf("   libsndfile %8.2f ms %8.1f Msamples/s   libsndfile/codec %.2fx", peerMs, samples / peerMs / 1000.0,
                    peerMs / codecMs);
    }
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 15;
    const std::vector<double> signal = makeSignal();
    std::printf("60 s of 44.1 kHz stereo (%zu samples), medians of %d runs, decoding to 16-bit from memory\n",
                kFrames * kChannels, runs);
#if !defined(KORVEL_HAVE_SNDFILE)
    std::printf("libsndfile was not found when the build was configured: only the codec is timed "
                "(tools/install-deps.sh installs libsndfile1-dev)\n");
#endif
    measure("16-bit PCM", makeFile(signal, 1, 16), runs);
    measure("24-bit PCM", makeFile(signal, 1, 24), runs);
    measure("32-bit float", makeFile(signal, 3, 32), runs);
    return 0;
}
