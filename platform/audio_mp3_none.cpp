// A build without an MP3 decoder: every MP3 file is refused.
#include "platform/audio_mp3.h"

namespace korvel::audio {

bool decodeMp3(const std::uint8_t*, std::size_t, std::vector<std::int16_t>&, std::uint32_t&, std::uint16_t&,
               Mp3Failure* failure) {
    if (failure) *failure = Mp3Failure::Unsupported;
    return false;
}

}  // namespace korvel::audio
