// The blend rule along a run of pixels, several pixels per instruction where the processor
// allows. Every path computes exactly the integer rule of blendPixel, so the bytes are the same
// whichever path runs.
//
// The vector paths use two identities that hold for all bytes:
//   x / 255 == (x * 0x8081) >> 23 for 0 <= x <= 65535 (one high-half multiply and a shift);
//   t + a - (t * a) / 255 == 255 - ((255 - t) * (255 - a)) / 255,
// the second because (255 - t)(255 - a) = 255 (255 - t - a) + t a. With the target's alpha byte
// flipped (255 - t) and the source's alpha byte cleared, all four lanes of a pixel become the same
// sum t' × (255 − a) + s' × a divided by 255, and flipping the alpha lane back gives the rule's
// accumulated alpha (never above 255, so no clamp is needed).
#include "graphics/mirel_internal.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__SSE2__) && defined(__x86_64__) && !defined(_WIN32) && (defined(__GNUC__) || defined(__clang__))
#define KORVEL_BLEND_AVX2 1
#include <immintrin.h>
#else
#define KORVEL_BLEND_AVX2 0
#endif

namespace quillfen::mirel_detail {

namespace {

#if defined(__SSE2__)
// Two pixels widened to 16-bit lanes (alpha lane already flipped / cleared as above) and their
// alphas spread over all four lanes: the divided sums.
inline __m128i mixTwoPixels(__m128i target, __m128i source, __m128i alpha) {
    const __m128i inverse = _mm_xor_si128(alpha, _mm_set1_epi16(255));
    const __m128i sum = _mm_add_epi16(_mm_mullo_epi16(target, inverse), _mm_mullo_epi16(source, alpha));
    return _mm_srli_epi16(_mm_mulhi_epu16(sum, _mm_set1_epi16(static_cast<short>(0x8081))), 7);
}

// Four pixels at a time; returns how many pixels it handled (a multiple of four).
std::size_t blendRowSse2(std::uint8_t* target, const std::uint8_t* source, std::size_t count) {
    const __m128i alphaBytes = _mm_set1_epi32(static_cast<int>(0xFF000000u));
    const __m128i zero = _mm_setzero_si128();
    std::size_t index = 0;
    for (; index + 4 <= count; index += 4) {
        const __m128i from = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + index * 4));
        // Runs of fully transparent or fully opaque pixels, common in sprites, skip the arithmetic
        // (bits 3, 7, 11 and 15 of a byte mask are the four alpha bytes).
        if ((_mm_movemask_epi8(_mm_cmpeq_epi8(from, zero)) & 0x8888) == 0x8888) continue;
        std::uint8_t* to = target + index * 4;
        if ((_mm_movemask_epi8(_mm_cmpeq_epi8(from, alphaBytes)) & 0x8888) == 0x8888) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(to), from);
            continue;
        }
        const __m128i flipped = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(to)), alphaBytes);
        const __m128i cleared = _mm_andnot_si128(alphaBytes, from);
        const __m128i alpha32 = _mm_srli_epi32(from, 24);
        const __m128i alphaPairs = _mm_or_si128(alpha32, _mm_slli_epi32(alpha32, 16));
        const __m128i low = mixTwoPixels(_mm_unpacklo_epi8(flipped, zero), _mm_unpacklo_epi8(cleared, zero),
                                         _mm_unpacklo_epi32(alphaPairs, alphaPairs));
        const __m128i high = mixTwoPixels(_mm_unpackhi_epi8(flipped, zero), _mm_unpackhi_epi8(cleared, zero),
                                          _mm_unpackhi_epi32(alphaPairs, alphaPairs));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to), _mm_xor_si128(_mm_packus_epi16(low, high), alphaBytes));
    }
    return index;
}
#endif

#if KORVEL_BLEND_AVX2
// The same steps eight pixels at a time, for processors that have AVX2 (chosen at run time;
// the byte shuffles work within each 128-bit half, exactly as the SSE2 ones do).
__attribute__((target("avx2"))) inline __m256i mixTwoPixelPairs(__m256i target, __m256i source, __m256i alpha) {
    const __m256i inverse = _mm256_xor_si256(alpha, _mm256_set1_epi16(255));
    const __m256i sum = _mm256_add_epi16(_mm256_mullo_epi16(target, inverse), _mm256_mullo_epi16(source, alpha));
    return _mm256_srli_epi16(_mm256_mulhi_epu16(sum, _mm256_set1_epi16(static_cast<short>(0x8081))), 7);
}

__attribute__((target("avx2"))) std::size_t blendRowAvx2(std::uint8_t* target, const std::uint8_t* source, std::size_t count) {
    const __m256i alphaBytes = _mm256_set1_epi32(static_cast<int>(0xFF000000u));
    const __m256i zero = _mm256_setzero_si256();
    std::size_t index = 0;
    for (; index + 8 <= count; index += 8) {
        const __m256i from = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(source + index * 4));
        const __m256i sourceAlpha = _mm256_and_si256(from, alphaBytes);
        if (_mm256_testz_si256(sourceAlpha, sourceAlpha)) continue;
        std::uint8_t* to = target + index * 4;
        if (static_cast<unsigned>(_mm256_movemask_epi8(_mm256_cmpeq_epi32(sourceAlpha, alphaBytes))) == 0xFFFFFFFFu) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), from);
            continue;
        }
        const __m256i flipped = _mm256_xor_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(to)), alphaBytes);
        const __m256i cleared = _mm256_andnot_si256(alphaBytes, from);
        const __m256i alpha32 = _mm256_srli_epi32(from, 24);
        const __m256i alphaPairs = _mm256_or_si256(alpha32, _mm256_slli_epi32(alpha32, 16));
        const __m256i low = mixTwoPixelPairs(_mm256_unpacklo_epi8(flipped, zero), _mm256_unpacklo_epi8(cleared, zero),
                                             _mm256_unpacklo_epi32(alphaPairs, alphaPairs));
        const __m256i high = mixTwoPixelPairs(_mm256_unpackhi_epi8(flipped, zero), _mm256_unpackhi_epi8(cleared, zero),
                                              _mm256_unpackhi_epi32(alphaPairs, alphaPairs));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), _mm256_xor_si256(_mm256_packus_epi16(low, high), alphaBytes));
    }
    return index;
}

bool hasAvx2() {
    static const bool available = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2") != 0;
    }();
    return available;
}
#endif

}  // namespace

void blendRowScalar(std::uint8_t* target, const std::uint8_t* source, std::size_t count) {
    for (std::size_t index = 0; index < count; ++index) blendPixel(target + index * 4, source + index * 4);
}

void blendRow(std::uint8_t* target, const std::uint8_t* source, std::size_t count, BlendPath path) {
    std::size_t done = 0;
#if KORVEL_BLEND_AVX2
    if (path == BlendPath::Best && hasAvx2()) done = blendRowAvx2(target, source, count);
#endif
#if defined(__SSE2__)
    if (path != BlendPath::Scalar) done += blendRowSse2(target + done * 4, source + done * 4, count - done);
#else
    (void)path;
#endif
    blendRowScalar(target + done * 4, source + done * 4, count - done);
}

}  // namespace quillfen::mirel_detail
