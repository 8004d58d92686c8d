// The texts of MP3 decoding failures, shared by every build.
#include "platform/audio_mp3.h"

namespace korvel::audio {

const char* describeMp3Failure(Mp3Failure failure) {
    switch (failure) {
    case Mp3Failure::None: return "no error";
    case Mp3Failure::Unsupported: return "MP3 files cannot be decoded on this platform";
    case Mp3Failure::DecoderFailed: return "the MP3 decoder could not start";
    case Mp3Failure::NoAudio: return "no MP3 audio found";
    case Mp3Failure::FormatChanged: return "the MP3 stream changes its sample rate or channel count";
    case Mp3Failure::TooLong: return "the sound is too long";
    }
    return "unknown error";
}

}  // namespace korvel::audio
