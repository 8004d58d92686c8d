// MP3 decoding through libmpg123, fed from memory, asked for signed 16-bit output at the
// stream's own rate and channel count.
#include "platform/audio_mp3.h"

#include <mpg123.h>

#include <memory>
#include <new>

namespace korvel::audio {

namespace {

struct HandleDeleter {
    void operator()(mpg123_handle* handle) const {
        mpg123_close(handle);
        mpg123_delete(handle);
    }
};
using DecoderHandle = std::unique_ptr<mpg123_handle, HandleDeleter>;

bool initialiseLibrary() {
    // mpg123_init is needed only by library versions before 1.27 and is then not thread-safe;
    // a function-local static runs it once.
    static const bool initialised = mpg123_init() == MPG123_OK;
    return initialised;
}

}  // namespace

bool decodeMp3(const std::uint8_t* bytes, std::size_t length, std::vector<std::int16_t>& samples,
               std::uint32_t& sampleRate, std::uint16_t& channels, Mp3Failure* failure) {
    auto fail = [&](Mp3Failure reason) {
        if (failure) *failure = reason;
        return false;
    };
    if (!bytes || length == 0) return fail(Mp3Failure::NoAudio);
    if (!initialiseLibrary()) return fail(Mp3Failure::DecoderFailed);
    int error = MPG123_OK;
    DecoderHandle decoder(mpg123_new(nullptr, &error));
    if (!decoder) return fail(Mp3Failure::DecoderFailed);
    // Quiet, and only 16-bit signed output in any rate and channel layout the stream has.
    mpg123_param(decoder.get(), MPG123_ADD_FLAGS, MPG123_QUIET, 0.0);
    mpg123_format_none(decoder.get());
    const long* rates = nullptr;
    std::size_t rateCount = 0;
    mpg123_rates(&rates, &rateCount);
    for (std::size_t index = 0; index < rateCount; ++index) {
        mpg123_format(decoder.get(), rates[index], MPG123_MONO | MPG123_STEREO, MPG123_ENC_SIGNED_16);
    }
    if (mpg123_open_feed(decoder.get()) != MPG123_OK) return fail(Mp3Failure::DecoderFailed);
    if (mpg123_feed(decoder.get(), bytes, length) != MPG123_OK) return fail(Mp3Failure::DecoderFailed);

    std::vector<std::int16_t> decoded;
    long rate = 0;
    int channelCount = 0;
    bool haveFormat = false;
    std::int16_t chunk[8192];
    try {
        while (true) {
            std::size_t done = 0;
            const int result = mpg123_read(decoder.get(), chunk, sizeof chunk, &done);
            if (result == MPG123_NEW_FORMAT) {
                long newRate = 0;
                int newChannels = 0;
                int encoding = 0;
                mpg123_getformat(decoder.get(), &newRate, &newChannels, &encoding);
                if (haveFormat && (newRate != rate || newChannels != channelCount)) return fail(Mp3Failure::FormatChanged);
                rate = newRate;
                channelCount = newChannels;
                haveFormat = true;
            }
            const std::size_t count = done / sizeof(std::int16_t);
            if (decoded.size() + count > kMaxMp3Samples) return fail(Mp3Failure::TooLong);
            decoded.insert(decoded.end(), chunk, chunk + count);
            if (result == MPG123_NEED_MORE || result == MPG123_DONE) break;  // all input consumed
            if (result != MPG123_OK && result != MPG123_NEW_FORMAT) break;  // damaged tail: keep what decoded
        }
    } catch (const std::bad_alloc&) {
        return fail(Mp3Failure::TooLong);
    }
    if (!haveFormat || rate <= 0 || channelCount <= 0 || decoded.empty()) return fail(Mp3Failure::NoAudio);
    // A partial frame at a damaged end is dropped so that the samples stay whole frames.
    decoded.resize(decoded.size() - decoded.size() % static_cast<std::size_t>(channelCount));
    if (decoded.empty()) return fail(Mp3Failure::NoAudio);
    samples = std::move(decoded);
    sampleRate = static_cast<std::uint32_t>(rate);
    channels = static_cast<std::uint16_t>(channelCount);
    return true;
}

}  // namespace korvel::audio
