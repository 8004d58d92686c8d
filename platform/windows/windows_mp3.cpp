// MP3 decoding on Windows through the system's MP3 codec, reached with the Audio Compression
// Manager. ACM wants the stream's format before it sees any data, so the first Layer III frame
// header is parsed here (audio_mp3_frames.cpp) and the stream is then converted to 16-bit PCM
// at its own rate and channel count, 32 KiB of input at a time.
#include "platform/audio_mp3.h"
#include "platform/audio_mp3_frames.h"

#include <windows.h>
#include <mmsystem.h>
#include <mmreg.h>
#include <msacm.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace korvel::audio {

namespace {

struct StreamCloser {
    void operator()(HACMSTREAM stream) const { acmStreamClose(stream, 0); }
};
using AcmStream = std::unique_ptr<std::remove_pointer_t<HACMSTREAM>, StreamCloser>;

constexpr DWORD kInputChunk = 32768;

}  // namespace

bool decodeMp3(const std::uint8_t* bytes, std::size_t length, std::vector<std::int16_t>& samples,
               std::uint32_t& sampleRate, std::uint16_t& channels, Mp3Failure* failure) {
    auto fail = [&](Mp3Failure reason) {
        if (failure) *failure = reason;
        return false;
    };
    Mp3FrameHeader header;
    const std::size_t first = findFirstMp3Frame(bytes, length, &header);
    if (!bytes || first >= length) return fail(Mp3Failure::NoAudio);

    MPEGLAYER3WAVEFORMAT source{};
    source.wfx.wFormatTag = WAVE_FORMAT_MPEGLAYER3;
    source.wfx.nChannels = header.channels;
    source.wfx.nSamplesPerSec = header.sampleRate;
    source.wfx.nAvgBytesPerSec = header.bitrate / 8;
    source.wfx.nBlockAlign = 1;
    source.wfx.wBitsPerSample = 0;
    source.wfx.cbSize = MPEGLAYER3_WFX_EXTRA_BYTES;
    source.wID = MPEGLAYER3_ID_MPEG;
    source.fdwFlags = MPEGLAYER3_FLAG_PADDING_OFF;
    source.nBlockSize = static_cast<WORD>(header.samplesPerFrame / 8 * header.bitrate / header.sampleRate);
    source.nFramesPerBlock = 1;
    source.nCodecDelay = 0;
    WAVEFORMATEX target{};
    target.wFormatTag = WAVE_FORMAT_PCM;
    target.nChannels = header.channels;
    target.nSamplesPerSec = header.sampleRate;
    target.wBitsPerSample = 16;
    target.nBlockAlign = static_cast<WORD>(header.channels * 2);
    target.nAvgBytesPerSec = header.sampleRate * target.nBlockAlign;

    HACMSTREAM opened = nullptr;
    if (acmStreamOpen(&opened, nullptr, &source.wfx, &target, nullptr, 0, 0, 0) != MMSYSERR_NOERROR) {
        return fail(Mp3Failure::DecoderFailed);
    }
    AcmStream stream(opened);
    DWORD outputCapacity = 0;
    if (acmStreamSize(stream.get(), kInputChunk, &outputCapacity, ACM_STREAMSIZEF_SOURCE) != MMSYSERR_NOERROR ||
        outputCapacity == 0) {
        return fail(Mp3Failure::DecoderFailed);
    }

    std::vector<std::int16_t> decoded;
    try {
        std::vector<BYTE> input(kInputChunk), output(outputCapacity);
        ACMSTREAMHEADER block{};
        block.cbStruct = sizeof block;
        block.pbSrc = input.data();
        block.cbSrcLength = kInputChunk;
        block.pbDst = output.data();
        block.cbDstLength = outputCapacity;
        if (acmStreamPrepareHeader(stream.get(), &block, 0) != MMSYSERR_NOERROR) return fail(Mp3Failure::DecoderFailed);

        std::size_t position = first;
        DWORD pending = 0;  // input bytes the codec has not consumed yet, at the start of `input`
        bool ok = true;
        while (true) {
            const DWORD fresh = static_cast<DWORD>(std::min<std::size_t>(kInputChunk - pending, length - position));
            std::memcpy(input.data() + pending, bytes + position, fresh);
            position += fresh;
            const DWORD filled = pending + fresh;
            const bool last = position == length;
            block.cbSrcLength = filled;
            block.cbSrcLengthUsed = 0;
            block.cbDstLengthUsed = 0;
            if (acmStreamConvert(stream.get(), &block, last ? ACM_STREAMCONVERTF_END : ACM_STREAMCONVERTF_BLOCKALIGN) !=
                MMSYSERR_NOERROR) {
                break;  // a damaged stream: keep what decoded
            }
            const std::size_t count = block.cbDstLengthUsed / 2;
            if (decoded.size() + count > kMaxMp3Samples) {
                ok = false;
                break;
            }
            const auto* produced = reinterpret_cast<const std::int16_t*>(output.data());
            decoded.insert(decoded.end(), produced, produced + count);
            const DWORD used = std::min(block.cbSrcLengthUsed, filled);
            pending = filled - used;
            std::memmove(input.data(), input.data() + used, pending);
            // Done when the input is spent and the codec gives nothing more, or when it is stuck.
            if (last && (block.cbDstLengthUsed == 0 || used == 0)) break;
            if (!last && used == 0 && block.cbDstLengthUsed == 0 && pending == kInputChunk) break;
        }
        block.cbSrcLength = kInputChunk;  // unpreparing needs the sizes it was prepared with
        acmStreamUnprepareHeader(stream.get(), &block, 0);
        if (!ok) return fail(Mp3Failure::TooLong);
    } catch (const std::bad_alloc&) {
        return fail(Mp3Failure::TooLong);
    }
    decoded.resize(decoded.size() - decoded.size() % header.channels);
    if (decoded.empty()) return fail(Mp3Failure::NoAudio);
    samples = std::move(decoded);
    sampleRate = header.sampleRate;
    channels = header.channels;
    return true;
}

}  // namespace korvel::audio
