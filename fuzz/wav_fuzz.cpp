// WAV decoding of arbitrary bytes, with the wanted channel count 0 (the file's own), 1, 2 and
// 5, so that every conversion path sees every input. Beyond what the sanitizers catch, a
// finding is: an accepted file whose output is larger than the frames its bytes can hold (the
// size must come from the data present, never from a header's claim), a refused file whose
// output was touched, or an accepted sound that does not survive encode and decode again.
#include "platform/wav.h"

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
    for (std::uint16_t wanted : {0, 1, 2, 5}) {
        korvel::wav::DecodedFile out;
        korvel::wav::DecodeFailure failure = korvel::wav::DecodeFailure::None;
        if (!korvel::wav::decode(data, size, &out, korvel::wav::DecodeOptions{wanted}, &failure)) {
            require(failure != korvel::wav::DecodeFailure::None);
            require(out.samples.empty() && out.channels == 0 && out.sampleRate == 0);
            continue;
        }
        require(failure == korvel::wav::DecodeFailure::None);
        require(out.channels != 0 && out.sampleRate != 0 && !out.samples.empty());
        require(wanted == 0 || out.channels == wanted);
        require(out.samples.size() % out.channels == 0);
        // Every frame takes at least one byte of the input.
        require(out.samples.size() / out.channels <= size);

        std::vector<std::uint8_t> encoded;
        require(korvel::wav::encode(out, &encoded));
        require(encoded.size() == 44 + out.samples.size() * 2);
        korvel::wav::DecodedFile again;
        require(korvel::wav::decode(encoded.data(), encoded.size(), &again));
        require(again.channels == out.channels && again.sampleRate == out.sampleRate &&
                again.samples.size() == out.samples.size());
    }
    return 0;
}
