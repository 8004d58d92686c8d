// MP3 decoding of arbitrary bytes, and the Layer III frame search the Windows decoder relies
// on. Beyond what the sanitizers catch, a finding is an accepted stream whose sound is not
// whole frames of one or two channels at a non-zero rate, one larger than the decoder's limit,
// a refused stream whose outputs were touched, or a found frame that is not a valid header
// within the data.
#include "platform/audio_mp3.h"
#include "platform/audio_mp3_frames.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    korvel::audio::Mp3FrameHeader header;
    const std::size_t first = korvel::audio::findFirstMp3Frame(data, size, &header);
    require(first <= size);
    if (first < size) {
        korvel::audio::Mp3FrameHeader again;
        require(korvel::audio::parseMp3FrameHeader(data + first, size - first, &again));
        require(header.frameBytes > 0 && header.sampleRate >= 8000 && header.frameBytes == again.frameBytes);
    }
    std::vector<std::int16_t> samples{1, 2, 3};
    std::uint32_t rate = 7;
    std::uint16_t channels = 9;
    korvel::audio::Mp3Failure failure = korvel::audio::Mp3Failure::None;
    if (!korvel::audio::decodeMp3(data, size, samples, rate, channels, &failure)) {
        require(failure != korvel::audio::Mp3Failure::None);
        require(samples.size() == 3 && rate == 7 && channels == 9);
        return 0;
    }
    require(channels == 1 || channels == 2);
    require(rate > 0);
    require(!samples.empty() && samples.size() % channels == 0);
    require(samples.size() <= korvel::audio::kMaxMp3Samples);
    return 0;
}
