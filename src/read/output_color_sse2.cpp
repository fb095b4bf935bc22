// SSE2 YCbCr to BGR for one row of eight pixels (x86-64 only). The chroma
// terms (f x (c - 128) + 32768) >> 16 of the table converter are computed
// exactly: each factor is split into a multiple of 65536, which passes the
// shift unchanged, and a remainder that fits a signed 16-bit multiplier;
// the clamp to 0..255 is the saturation of the final pack.
#include "read/output_color_sse2.h"

#if KIV_HAVE_SSE2_COLOR

#include <emmintrin.h>
#include <string.h>

namespace kiv {
namespace {

// (remainder x d + 32768) >> 16 for eight signed 16-bit d: pairs (d, 2)
// times (remainder, 16384) summed in 32 bits.
inline __m128i chromaTerm(__m128i d, int16_t remainder) {
    const __m128i factors = _mm_set1_epi32(static_cast<uint16_t>(remainder) | (16384 << 16));
    const __m128i two = _mm_set1_epi16(2);
    __m128i low = _mm_madd_epi16(_mm_unpacklo_epi16(d, two), factors);
    __m128i high = _mm_madd_epi16(_mm_unpackhi_epi16(d, two), factors);
    return _mm_packs_epi32(_mm_srai_epi32(low, 16), _mm_srai_epi32(high, 16));
}

inline __m128i centred(const int16_t *samples) {
    __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(samples));
    return _mm_sub_epi16(_mm_and_si128(v, _mm_set1_epi16(0xFF)), _mm_set1_epi16(128));
}

// Two pixels held as 0x00RRGGBB words in a 64-bit value become 6 bytes.
inline void storeTwo(uint64_t pair, uint8_t *dst) {
    uint64_t packed = (pair & 0xFFFFFFu) | ((pair >> 8) & 0xFFFFFF000000u);
    memcpy(dst, &packed, 6);
}

}  // namespace

void yccRowToBgrSse2(const int16_t *y, const int16_t *cb, const int16_t *cr, uint8_t *dst) {
    __m128i luma = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(y)),
                                 _mm_set1_epi16(0xFF));
    __m128i db = centred(cb), dr = centred(cr);
    // 116130 = 2 x 65536 - 14942; 91881 = 65536 + 26345; -46802 = -65536 + 18734.
    __m128i blue = _mm_add_epi16(luma, _mm_add_epi16(_mm_add_epi16(db, db), chromaTerm(db, -14942)));
    __m128i red = _mm_add_epi16(luma, _mm_add_epi16(dr, chromaTerm(dr, 26345)));
    __m128i green = _mm_add_epi16(luma, _mm_add_epi16(chromaTerm(db, -22554),
                                                      _mm_sub_epi16(chromaTerm(dr, 18734), dr)));
    const __m128i zero = _mm_setzero_si128();
    __m128i bg = _mm_unpacklo_epi8(_mm_packus_epi16(blue, zero), _mm_packus_epi16(green, zero));
    __m128i r0 = _mm_unpacklo_epi8(_mm_packus_epi16(red, zero), zero);
    __m128i first = _mm_unpacklo_epi16(bg, r0), second = _mm_unpackhi_epi16(bg, r0);
    storeTwo(static_cast<uint64_t>(_mm_cvtsi128_si64(first)), dst);
    storeTwo(static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_srli_si128(first, 8))), dst + 6);
    storeTwo(static_cast<uint64_t>(_mm_cvtsi128_si64(second)), dst + 12);
    storeTwo(static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_srli_si128(second, 8))), dst + 18);
}

}  // namespace kiv

#endif  // KIV_HAVE_SSE2_COLOR
