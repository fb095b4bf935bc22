// AVX2 input conversion of the encoder: whole MCUs of the plain family from
// RGB to YCbCr straight into blocks, two block rows (sixteen samples) at a
// time, one per 128-bit lane. Byte shuffles gather the blue, green and red
// bytes of eight pixels 3 or 6 bytes apart (every pixel, or every second
// one) into 16-bit lanes; pmaddwd then forms the portable conversion's
// integer sums exactly, so the samples are the same bits. Other pixel
// distances take the SSE2 rows. No byte outside the eight pixels is read.
// Compiled with -mavx2; only the function below leaves this file.
#include <immintrin.h>

#include "write/input_color_sse2.h"

namespace kiv {
namespace {

// Loads of 16 bytes that cover the eight pixels (bytes 0 to 7 Step + 2)
// without reading past them.
template <ptrdiff_t Step>
struct Loads;
template <>
struct Loads<3> {
    static constexpr int kCount = 2;
    static constexpr ptrdiff_t kOffset[2] = {0, 8};
};
template <>
struct Loads<6> {
    static constexpr int kCount = 3;
    static constexpr ptrdiff_t kOffset[3] = {0, 16, 29};
};

// pshufb controls: for load k, byte c (0 blue, 1 green, 2 red) of pixel j
// goes to the low byte of 16-bit lane j when that load is the first that
// holds it; everything else becomes zero (control 0x80). Both 128-bit
// lanes alike.
template <ptrdiff_t Step>
struct GatherMasks {
    alignas(32) int8_t mask[3][Loads<Step>::kCount][32];
};

template <ptrdiff_t Step>
constexpr GatherMasks<Step> makeGatherMasks() {
    GatherMasks<Step> t{};
    for (int c = 0; c < 3; c++)
        for (int k = 0; k < Loads<Step>::kCount; k++)
            for (int j = 0; j < 8; j++) {
                ptrdiff_t at = Step * j + c;
                int owner = 0;  // the first load that holds the byte takes it
                while (at >= Loads<Step>::kOffset[owner] + 16)
                    owner++;
                int8_t control = owner == k ? static_cast<int8_t>(at - Loads<Step>::kOffset[k]) : int8_t{-128};
                for (int lane = 0; lane < 2; lane++) {
                    t.mask[c][k][16 * lane + 2 * j] = control;
                    t.mask[c][k][16 * lane + 2 * j + 1] = int8_t{-128};
                }
            }
    return t;
}

template <ptrdiff_t Step>
constexpr GatherMasks<Step> kGather = makeGatherMasks<Step>();

static_assert(kGather<3>.mask[0][0][0] == 0 && kGather<3>.mask[2][0][2] == 5 && kGather<3>.mask[2][1][14] == 15 &&
              kGather<3>.mask[2][0][14] == -128 && kGather<6>.mask[2][2][14] == 15);

template <ptrdiff_t Step>
__m256i gather(const __m256i *in, int c) {
    __m256i v = _mm256_shuffle_epi8(in[0], _mm256_load_si256(reinterpret_cast<const __m256i *>(kGather<Step>.mask[c][0])));
    for (int k = 1; k < Loads<Step>::kCount; k++)
        v = _mm256_or_si256(v, _mm256_shuffle_epi8(in[k], _mm256_load_si256(
                                                                reinterpret_cast<const __m256i *>(kGather<Step>.mask[c][k]))));
    return v;
}

// Pairs (B, G) and (R, 1) of the pixels, interleaved for pmaddwd.
struct Pairs {
    __m256i bgLo, bgHi, r1Lo, r1Hi;
};

// (Cb B + Cg G + Cr R + C1) >> 12 for the sixteen pixels, as 16-bit values.
template <int16_t Cb, int16_t Cg, int16_t Cr, int16_t C1>
__m256i weigh(const Pairs &p) {
    const __m256i bg = _mm256_set1_epi32(static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint16_t>(Cg)) << 16 |
                                                              static_cast<uint16_t>(Cb)));
    const __m256i r1 = _mm256_set1_epi32(static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint16_t>(C1)) << 16 |
                                                              static_cast<uint16_t>(Cr)));
    __m256i lo = _mm256_add_epi32(_mm256_madd_epi16(p.bgLo, bg), _mm256_madd_epi16(p.r1Lo, r1));
    __m256i hi = _mm256_add_epi32(_mm256_madd_epi16(p.bgHi, bg), _mm256_madd_epi16(p.r1Hi, r1));
    return _mm256_packs_epi32(_mm256_srai_epi32(lo, 12), _mm256_srai_epi32(hi, 12));
}

void store16(int16_t *to, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i *>(to), v); }

__m128i load16(const uint8_t *p) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p)); }

// Converts block rows i and i + 1 (pixel rows p and p + rowStep).
struct Avx2Rows {
    static constexpr int32_t kRows = 2;
    template <bool Y, bool Cb, bool Cr, ptrdiff_t Step>
    static void convert(const uint8_t *p, ptrdiff_t step, ptrdiff_t rowStep, int16_t *y, int16_t *cb, int16_t *cr) {
        if constexpr (Step != 3 && Step != 6) {
            ycc8<Y, Cb, Cr, Step>(p, step, y, cb, cr);
            ycc8<Y, Cb, Cr, Step>(p + rowStep, step, Y ? y + 8 : nullptr, Cb ? cb + 8 : nullptr,
                                  Cr ? cr + 8 : nullptr);
        } else {
            __m256i in[Loads<Step>::kCount];
            for (int k = 0; k < Loads<Step>::kCount; k++)
                in[k] = _mm256_inserti128_si256(_mm256_castsi128_si256(load16(p + Loads<Step>::kOffset[k])),
                                                load16(p + rowStep + Loads<Step>::kOffset[k]), 1);
            __m256i blue = gather<Step>(in, 0), green = gather<Step>(in, 1), red = gather<Step>(in, 2);
            const __m256i one = _mm256_set1_epi16(1);
            Pairs pairs{_mm256_unpacklo_epi16(blue, green), _mm256_unpackhi_epi16(blue, green),
                        _mm256_unpacklo_epi16(red, one), _mm256_unpackhi_epi16(red, one)};
            // Y: the constant -128 * 4096 is a whole multiple of 4096, so it
            // comes off after the shift.
            if constexpr (Y)
                store16(y, _mm256_sub_epi16(weigh<467, 2404, 1225, 2048>(pairs), _mm256_set1_epi16(128)));
            if constexpr (Cb)
                store16(cb, weigh<2048, -1357, -691, 2048>(pairs));
            if constexpr (Cr)
                store16(cr, weigh<-333, -1715, 2048, 2048>(pairs));
        }
    }
};

}  // namespace

JpgWriteColorConvertFunc writeColorConvertAvx2(uint32_t id) {
    // Three channels, RGB -> YCbCr (kind 2), 8-bit, plain down-sampling.
    return (id & 0xAF0000FFu) == 0x02000003u ? rgbToYccRect<Avx2Rows> : nullptr;
}

}  // namespace kiv
