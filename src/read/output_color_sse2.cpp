// SSE2 block writers (both x86 targets, compiled with -msse2): sixteen pixels, two block rows, per
// step. The chroma terms (f x (c - 128) + 32768) >> 16 of the table
// converter are computed exactly: f is split into a multiple of 65536, which
// passes the shift unchanged, and a remainder r that fits 16 bits, whose term
// is (mulhi(2 d, r) + 1) >> 1 = floor((r d + 32768) / 65536). The clamp to
// 0..255 is the saturation of the byte pack; pixels are interleaved in
// registers and stored 16 bytes at a time.
#include "read/output_color_sse2.h"

#if KIV_HAVE_SSE2_COLOR

#include <emmintrin.h>

namespace kiv {
namespace {

inline __m128i lowBytes(const int16_t *samples) {
    return _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(samples)),
                         _mm_set1_epi16(0xFF));
}

// floor((r x d + 32768) / 65536) for eight d, given twice2 = 2 d.
inline __m128i chromaTerm(__m128i twice, int16_t remainder) {
    __m128i q = _mm_mulhi_epi16(twice, _mm_set1_epi16(remainder));
    return _mm_srai_epi16(_mm_add_epi16(q, _mm_set1_epi16(1)), 1);
}

struct Planes {
    __m128i first, second, third;  // 16 bytes each: channel 0, 1, 2
};

// The chroma part of B, G, R for eight pixels: (Y + first, Y + second,
// Y + third) are the unclamped B, G, R.
struct Chroma {
    __m128i blue, green, red;
};

inline Chroma chroma8(__m128i cb, __m128i cr) {
    const __m128i centre = _mm_set1_epi16(128);
    __m128i db = _mm_sub_epi16(cb, centre), dr = _mm_sub_epi16(cr, centre);
    __m128i db2 = _mm_add_epi16(db, db), dr2 = _mm_add_epi16(dr, dr);
    // 116130 = 2 x 65536 - 14942; 91881 = 65536 + 26345; -46802 = -65536 + 18734.
    return {_mm_add_epi16(db2, chromaTerm(db2, -14942)),
            _mm_sub_epi16(_mm_add_epi16(chromaTerm(db2, -22554), chromaTerm(dr2, 18734)), dr),
            _mm_add_epi16(dr, chromaTerm(dr2, 26345))};
}

// Sixteen pixels: samples [0..7] of src[c], then [second .. second + 7].
// With kPairedChroma the chroma of the second half is that of the first.
// Sixteen pixels from the luma of two rows of eight and their chroma parts.
inline Planes yccPlanes(__m128i y0, __m128i y1, const Chroma &a, const Chroma &b) {
    return {_mm_packus_epi16(_mm_add_epi16(y0, a.blue), _mm_add_epi16(y1, b.blue)),
            _mm_packus_epi16(_mm_add_epi16(y0, a.green), _mm_add_epi16(y1, b.green)),
            _mm_packus_epi16(_mm_add_epi16(y0, a.red), _mm_add_epi16(y1, b.red))};
}

template <bool kPairedChroma>
inline Planes yccPlanes(const int16_t *const *src, ptrdiff_t second) {
    Chroma a = chroma8(lowBytes(src[1]), lowBytes(src[2]));
    Chroma b = kPairedChroma ? a : chroma8(lowBytes(src[1] + second), lowBytes(src[2] + second));
    return yccPlanes(lowBytes(src[0]), lowBytes(src[0] + second), a, b);
}

inline __m128i load4(const int16_t *samples) {
    return _mm_loadl_epi64(reinterpret_cast<const __m128i *>(samples));
}

inline __m128i lowBytePlane(const int16_t *samples, ptrdiff_t second) {
    return _mm_packus_epi16(lowBytes(samples), lowBytes(samples + second));
}

// Picks 16-bit lanes: positions 0, 3, 6 from a, 1, 4, 7 from b, 2, 5 from c.
inline __m128i mergeThirds(__m128i a, __m128i b, __m128i c) {
    const __m128i first = _mm_set_epi16(0, -1, 0, 0, -1, 0, 0, -1);
    const __m128i second = _mm_set_epi16(-1, 0, 0, -1, 0, 0, -1, 0);
    const __m128i third = _mm_set_epi16(0, 0, -1, 0, 0, -1, 0, 0);
    return _mm_or_si128(_mm_or_si128(_mm_and_si128(a, first), _mm_and_si128(b, second)),
                        _mm_and_si128(c, third));
}

// Writes 16 three-byte pixels: the first eight at dst0, the others at dst1.
// For the pixel pair k the six output bytes are the words
// w0[k] = (a, b) of pixel 2k, w1[k] = (c of 2k, a of 2k + 1) and
// w2[k] = (b, c) of pixel 2k + 1; 32-bit shuffles spread the words of each
// kind over the three output registers and masks merge them.
inline void storeThree(const Planes &p, uint8_t *dst0, uint8_t *dst1) {
    const __m128i low = _mm_set1_epi16(0xFF), high = _mm_set1_epi16(static_cast<int16_t>(0xFF00));
    __m128i w0 = _mm_or_si128(_mm_and_si128(p.first, low), _mm_slli_epi16(p.second, 8));
    __m128i w1 = _mm_or_si128(_mm_and_si128(p.third, low), _mm_and_si128(p.first, high));
    __m128i w2 = _mm_or_si128(_mm_srli_epi16(p.second, 8), _mm_and_si128(p.third, high));
    __m128i w1Up = _mm_slli_si128(w1, 2), w1Down = _mm_srli_si128(w1, 2);
    __m128i out0 = mergeThirds(_mm_shuffle_epi32(w0, _MM_SHUFFLE(1, 1, 0, 0)),
                               _mm_shuffle_epi32(w1Up, _MM_SHUFFLE(1, 1, 0, 0)),
                               _mm_shuffle_epi32(w2, _MM_SHUFFLE(0, 0, 0, 0)));
    __m128i out1 = mergeThirds(_mm_shuffle_epi32(w2, _MM_SHUFFLE(2, 2, 1, 1)),
                               _mm_shuffle_epi32(w0, _MM_SHUFFLE(2, 2, 1, 1)),
                               _mm_shuffle_epi32(w1Down, _MM_SHUFFLE(1, 1, 1, 1)));
    __m128i out2 = mergeThirds(_mm_shuffle_epi32(w1Down, _MM_SHUFFLE(3, 3, 2, 2)),
                               _mm_shuffle_epi32(w2, _MM_SHUFFLE(3, 3, 2, 2)),
                               _mm_shuffle_epi32(w0, _MM_SHUFFLE(3, 3, 3, 3)));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst0), out0);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(dst0 + 16), out1);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(dst1), _mm_srli_si128(out1, 8));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst1 + 8), out2);
}

// Calls pair(sample offset, second-row offset, dst0, dst1) for each pair of
// rows; an odd last row goes as a pair of itself.
template <typename Pair>
inline void forRowPairs(uint8_t *dst, ptrdiff_t stride, int rows, Pair pair) {
    int r = 0;
    for (; r + 1 < rows; r += 2, dst += 2 * stride)
        pair(8 * r, 8, dst, dst + stride);
    if (r < rows)
        pair(8 * r, 0, dst, dst);
}

}  // namespace

void halfScaleRowsToBgrSse2(const int16_t *luma, const int16_t *const *chroma, uint8_t *dst0, uint8_t *dst1) {
    const __m128i mask = _mm_set1_epi16(0xFF);
    auto sideBySide = [mask](const int16_t *left) {
        return _mm_and_si128(_mm_unpacklo_epi64(load4(left), load4(left + 64)), mask);
    };
    auto doubled = [mask](const int16_t *samples) {
        __m128i v = load4(samples);
        return _mm_and_si128(_mm_unpacklo_epi16(v, v), mask);
    };
    Chroma a = chroma8(doubled(chroma[0]), doubled(chroma[1]));
    Chroma b = chroma[2] == chroma[0] ? a : chroma8(doubled(chroma[2]), doubled(chroma[3]));
    storeThree(yccPlanes(sideBySide(luma), sideBySide(luma + 8), a, b), dst0, dst1);
}

void storeBlockBgrSse2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows) {
    forRowPairs(dst, stride, rows, [src](int at, ptrdiff_t second, uint8_t *d0, uint8_t *d1) {
        const int16_t *row[3] = {src[0] + at, src[1] + at, src[2] + at};
        storeThree(yccPlanes<false>(row, second), d0, d1);
    });
}

void storeBlockBgrPairedSse2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows) {
    forRowPairs(dst, stride, rows, [src](int at, ptrdiff_t second, uint8_t *d0, uint8_t *d1) {
        const int16_t *row[3] = {src[0] + at, src[1] + at, src[2] + at};
        storeThree(yccPlanes<true>(row, second), d0, d1);
    });
}

void storeBlockCopy1Sse2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows) {
    forRowPairs(dst, stride, rows, [src](int at, ptrdiff_t second, uint8_t *d0, uint8_t *d1) {
        __m128i bytes = lowBytePlane(src[0] + at, second);
        _mm_storel_epi64(reinterpret_cast<__m128i *>(d0), bytes);
        _mm_storel_epi64(reinterpret_cast<__m128i *>(d1), _mm_srli_si128(bytes, 8));
    });
}

void storeBlockCopy3Sse2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows) {
    forRowPairs(dst, stride, rows, [src](int at, ptrdiff_t second, uint8_t *d0, uint8_t *d1) {
        Planes p{lowBytePlane(src[0] + at, second), lowBytePlane(src[1] + at, second),
                 lowBytePlane(src[2] + at, second)};
        storeThree(p, d0, d1);
    });
}

void storeBlockCopy4Sse2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows) {
    forRowPairs(dst, stride, rows, [src](int at, ptrdiff_t second, uint8_t *d0, uint8_t *d1) {
        __m128i c0 = lowBytePlane(src[0] + at, second), c1 = lowBytePlane(src[1] + at, second);
        __m128i c2 = lowBytePlane(src[2] + at, second), c3 = lowBytePlane(src[3] + at, second);
        __m128i low01 = _mm_unpacklo_epi8(c0, c1), low23 = _mm_unpacklo_epi8(c2, c3);
        __m128i high01 = _mm_unpackhi_epi8(c0, c1), high23 = _mm_unpackhi_epi8(c2, c3);
        auto *out0 = reinterpret_cast<__m128i *>(d0);
        auto *out1 = reinterpret_cast<__m128i *>(d1);
        _mm_storeu_si128(out0, _mm_unpacklo_epi16(low01, low23));
        _mm_storeu_si128(out0 + 1, _mm_unpackhi_epi16(low01, low23));
        _mm_storeu_si128(out1, _mm_unpacklo_epi16(high01, high23));
        _mm_storeu_si128(out1 + 1, _mm_unpackhi_epi16(high01, high23));
    });
}

}  // namespace kiv

#endif  // KIV_HAVE_SSE2_COLOR
