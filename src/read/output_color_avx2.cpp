// AVX2 block writers of YCbCr to B, G, R (both x86 targets, compiled with
// -mavx2): four block rows, 32 pixels, per step, one pair of rows per
// 128-bit lane. The chroma terms are those of the SSE2 writers
// (output_color_sse2.cpp), exact to the table converter; byte shuffles then
// interleave the three planes into pixels. Rows left over below a multiple
// of four go to the SSE2 writers. Only the two functions below leave this
// file.
#include <immintrin.h>

#include "read/output_color_sse2.h"

namespace kiv {
namespace {

__m256i lowBytes(__m256i samples) { return _mm256_and_si256(samples, _mm256_set1_epi16(0xFF)); }

__m256i load256(const int16_t *p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p)); }

// Two rows of 8 samples (at a and b) side by side, one per lane.
__m256i loadRows(const int16_t *a, const int16_t *b) {
    return _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(a))),
        _mm_loadu_si128(reinterpret_cast<const __m128i *>(b)), 1);
}

// floor((r x d + 32768) / 65536) for sixteen d, given twice = 2 d.
__m256i chromaTerm(__m256i twice, int16_t remainder) {
    __m256i q = _mm256_mulhi_epi16(twice, _mm256_set1_epi16(remainder));
    return _mm256_srai_epi16(_mm256_add_epi16(q, _mm256_set1_epi16(1)), 1);
}

// The chroma parts of B, G, R: (Y + blue, Y + green, Y + red) are the
// unclamped B, G, R.
struct Chroma {
    __m256i blue, green, red;
};

Chroma chroma16(__m256i cb, __m256i cr) {
    const __m256i centre = _mm256_set1_epi16(128);
    __m256i db = _mm256_sub_epi16(lowBytes(cb), centre), dr = _mm256_sub_epi16(lowBytes(cr), centre);
    __m256i db2 = _mm256_add_epi16(db, db), dr2 = _mm256_add_epi16(dr, dr);
    // 116130 = 2 x 65536 - 14942; 91881 = 65536 + 26345; -46802 = -65536 + 18734.
    return {_mm256_add_epi16(db2, chromaTerm(db2, -14942)),
            _mm256_sub_epi16(_mm256_add_epi16(chromaTerm(db2, -22554), chromaTerm(dr2, 18734)), dr),
            _mm256_add_epi16(dr, chromaTerm(dr2, 26345))};
}

// pshufb controls that place plane c's bytes of 16 pixels into output
// register k (bytes 16 k to 16 k + 15 of the 48-byte B, G, R stream);
// 0x80 clears. Both lanes alike.
struct Interleave {
    alignas(32) int8_t control[3][3][32];  // [output register][plane]
};

constexpr Interleave makeInterleave() {
    Interleave t{};
    for (int k = 0; k < 3; k++)
        for (int c = 0; c < 3; c++)
            for (int i = 0; i < 16; i++) {
                int at = 16 * k + i;  // byte of the stream
                int8_t v = at % 3 == c ? static_cast<int8_t>(at / 3) : int8_t{-128};
                t.control[k][c][i] = v;
                t.control[k][c][16 + i] = v;
            }
    return t;
}
constexpr Interleave kInterleave = makeInterleave();
static_assert(kInterleave.control[0][0][0] == 0 && kInterleave.control[0][1][1] == 0 &&
              kInterleave.control[2][2][15] == 15 && kInterleave.control[1][0][0] == -128);

__m256i shuffled(__m256i plane, int k, int c) {
    return _mm256_shuffle_epi8(plane, _mm256_load_si256(reinterpret_cast<const __m256i *>(kInterleave.control[k][c])));
}

void storeLane(__m128i out0, __m128i out1, __m128i out2, uint8_t *upper, uint8_t *lower) {
    _mm_storeu_si128(reinterpret_cast<__m128i *>(upper), out0);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(upper + 16), out1);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(lower), _mm_srli_si128(out1, 8));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(lower + 8), out2);
}

// Rows r to r + 3 of the block. Y holds rows (r, r + 1) and (r + 2, r + 3)
// per vector; the byte pack puts rows r, r + 2 in lane 0 and r + 1, r + 3
// in lane 1, each lane holding 16 pixels of B, G and R.
template <bool kPaired>
void fourRows(const int16_t *const *src, int r, uint8_t *dst, ptrdiff_t stride) {
    const int16_t *y = src[0] + 8 * r, *cb = src[1] + 8 * r, *cr = src[2] + 8 * r;
    __m256i yA = lowBytes(load256(y)), yB = lowBytes(load256(y + 16));
    Chroma a, b;
    if constexpr (kPaired) {
        // Rows r and r + 1 (and r + 2, r + 3) of the chroma are equal.
        Chroma both = chroma16(loadRows(cb, cb + 16), loadRows(cr, cr + 16));
        a = {_mm256_permute2x128_si256(both.blue, both.blue, 0x00),
             _mm256_permute2x128_si256(both.green, both.green, 0x00),
             _mm256_permute2x128_si256(both.red, both.red, 0x00)};
        b = {_mm256_permute2x128_si256(both.blue, both.blue, 0x11),
             _mm256_permute2x128_si256(both.green, both.green, 0x11),
             _mm256_permute2x128_si256(both.red, both.red, 0x11)};
    } else {
        a = chroma16(load256(cb), load256(cr));
        b = chroma16(load256(cb + 16), load256(cr + 16));
    }
    __m256i blue = _mm256_packus_epi16(_mm256_add_epi16(yA, a.blue), _mm256_add_epi16(yB, b.blue));
    __m256i green = _mm256_packus_epi16(_mm256_add_epi16(yA, a.green), _mm256_add_epi16(yB, b.green));
    __m256i red = _mm256_packus_epi16(_mm256_add_epi16(yA, a.red), _mm256_add_epi16(yB, b.red));
    __m256i out[3];
    for (int k = 0; k < 3; k++)
        out[k] = _mm256_or_si256(_mm256_or_si256(shuffled(blue, k, 0), shuffled(green, k, 1)), shuffled(red, k, 2));
    uint8_t *row = dst + r * stride;
    storeLane(_mm256_castsi256_si128(out[0]), _mm256_castsi256_si128(out[1]), _mm256_castsi256_si128(out[2]), row,
              row + 2 * stride);
    storeLane(_mm256_extracti128_si256(out[0], 1), _mm256_extracti128_si256(out[1], 1),
              _mm256_extracti128_si256(out[2], 1), row + stride, row + 3 * stride);
}

template <bool kPaired>
void storeBgr(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows) {
    int r = 0;
    for (; r + 4 <= rows; r += 4)
        fourRows<kPaired>(src, r, dst, stride);
    if (r < rows) {
        const int16_t *rest[3] = {src[0] + 8 * r, src[1] + 8 * r, src[2] + 8 * r};
        if (kPaired)
            storeBlockBgrPairedSse2(rest, dst + r * stride, stride, rows - r);
        else
            storeBlockBgrSse2(rest, dst + r * stride, stride, rows - r);
    }
}

}  // namespace

void storeBlockBgrAvx2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows) {
    storeBgr<false>(src, dst, stride, rows);
}

void storeBlockBgrPairedAvx2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows) {
    storeBgr<true>(src, dst, stride, rows);
}

}  // namespace kiv
