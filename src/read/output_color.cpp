// Output colour conversion: writes one upsampled MCU (16-bit samples 0..255,
// reached through the block map and block pointer table) into the caller's
// rectangle as 8-bit pixels, clipped at the right and bottom edges. YCbCr
// becomes B, G, R by the JFIF equations (ISO/IEC 10918-1 leaves the colour
// space to the application) with 16-bit fixed-point tables; YCCK (Adobe
// transform 2) becomes C, M, Y, K as Adobe stores CMYK, inverted: 255 minus
// the R, G, B of the same equations, K unchanged. Other layouts copy or
// reorder. One template per layout serves full-size and scaled blocks.
#include "core/api_checks.h"
#include "core/codec.h"
#include "core/tables.h"
#include "read/output_color.h"
#include "read/output_color_sse2.h"
#include "read/upsampling_sse2.h"

namespace kiv {
namespace {

// (factor x (c - 128) + 32768) >> 16 for c = 0..255, arithmetic shift.
constexpr int32_t chromaTerm(int32_t factor, int c) {
    int64_t v = static_cast<int64_t>(factor) * (c - 128) + 32768;
    return static_cast<int32_t>(v >> 16);
}

struct ChromaPair {
    int32_t first;
    int32_t second;
};

// Cr: (to G, to R); Cb: (to B, to G). 91881, 46802, 22554 and 116130 are
// 1.402, 0.71414, 0.34414 and 1.772 times 65536.
constexpr Table<ChromaPair, 256> makeCrTable() {
    Table<ChromaPair, 256> t{};
    for (int c = 0; c < 256; c++)
        t.v[c] = {chromaTerm(-46802, c), chromaTerm(91881, c)};
    return t;
}
constexpr Table<ChromaPair, 256> makeCbTable() {
    Table<ChromaPair, 256> t{};
    for (int c = 0; c < 256; c++)
        t.v[c] = {chromaTerm(116130, c), chromaTerm(-22554, c)};
    return t;
}
constexpr auto kCrTable = makeCrTable();
constexpr auto kCbTable = makeCbTable();
static_assert(kCrTable[255].second == 178 && kCrTable[128].first == 0 && kCbTable[0].first == -227);

// Clamp of -512..767 to 0..255, reached through a pointer to its zero entry.
constexpr Table<uint8_t, 1280> makeClamp() {
    Table<uint8_t, 1280> t{};
    for (int i = 0; i < 1280; i++) {
        int v = i - 512;
        t.v[i] = static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
    }
    return t;
}
constexpr auto kClamp = makeClamp();
constexpr const uint8_t *kClampZero = kClamp.v + 512;

struct Bgr {
    uint8_t b, g, r;
};

// Samples outside 0..255 cannot come from the inverse DCT; masking keeps the
// lookups inside their tables regardless.
inline Bgr yccToBgr(int32_t y, int32_t cb, int32_t cr) {
    const ChromaPair &crp = kCrTable[cr & 0xFF];
    const ChromaPair &cbp = kCbTable[cb & 0xFF];
    y &= 0xFF;
    return {kClampZero[y + cbp.first], kClampZero[y + cbp.second + crp.first],
            kClampZero[y + crp.second]};
}

enum class Layout { Copy, Reversed, YCbCr, Ycck };

// Writes the pixel at sample index i of the component blocks src.
template <int kChannels, Layout kLayout>
inline void storePixel(const int16_t *const *src, int i, uint8_t *dst) {
    if constexpr (kLayout == Layout::YCbCr) {
        Bgr p = yccToBgr(src[0][i], src[1][i], src[2][i]);
        dst[0] = p.b;
        dst[1] = p.g;
        dst[2] = p.r;
    } else if constexpr (kLayout == Layout::Ycck) {
        Bgr p = yccToBgr(src[0][i], src[1][i], src[2][i]);
        dst[0] = static_cast<uint8_t>(255 - p.r);
        dst[1] = static_cast<uint8_t>(255 - p.g);
        dst[2] = static_cast<uint8_t>(255 - p.b);
        dst[3] = static_cast<uint8_t>(src[3][i]);
    } else {
        for (int c = 0; c < kChannels; c++) {
            int from = kLayout == Layout::Reversed ? kChannels - 1 - c : c;
            dst[c] = static_cast<uint8_t>(src[from][i]);
        }
    }
}

// Which block writers a converter uses for whole blocks of 8 columns: none
// (pixel by pixel), the SSE2 ones, or the AVX2 ones for YCbCr (the copies
// stay SSE2).
enum class Writers { None, Sse2, Avx2 };

#if KIV_HAVE_SSE2_COLOR
// Layouts with an SSE2 block writer: all but two-channel copies and YCCK,
// which go pixel by pixel.
template <int kChannels, Layout kLayout>
constexpr bool kHasSse2Writer =
    kLayout == Layout::YCbCr || kLayout == Layout::Reversed ||
    (kLayout == Layout::Copy && (kChannels == 1 || kChannels == 3 || kChannels == 4));

// Whole blocks of 8 columns go through the vector writers; false when the
// layout has none and the caller writes pixel by pixel.
template <int kChannels, Layout kLayout, bool kPaired, Writers kWriters>
inline bool storeWholeBlockSse2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride,
                                int rows) {
    if constexpr (!kHasSse2Writer<kChannels, kLayout>) {
        return false;
    } else if constexpr (kLayout == Layout::YCbCr && kPaired) {
        if constexpr (kWriters == Writers::Avx2)
            storeBlockBgrPairedAvx2(src, dst, stride, rows);
        else
            storeBlockBgrPairedSse2(src, dst, stride, rows);
    } else if constexpr (kLayout == Layout::YCbCr) {
        if constexpr (kWriters == Writers::Avx2)
            storeBlockBgrAvx2(src, dst, stride, rows);
        else
            storeBlockBgrSse2(src, dst, stride, rows);
    } else if constexpr (kLayout == Layout::Reversed) {
        const int16_t *reversed[3] = {src[2], src[1], src[0]};
        storeBlockCopy3Sse2(reversed, dst, stride, rows);
    } else if constexpr (kChannels == 1) {
        storeBlockCopy1Sse2(src, dst, stride, rows);
    } else if constexpr (kChannels == 3) {
        storeBlockCopy3Sse2(src, dst, stride, rows);
    } else {
        storeBlockCopy4Sse2(src, dst, stride, rows);
    }
    return true;
}
#endif

// Writes rows x cols pixels of one block position pixel by pixel; sample
// rows keep the block's stride of 8.
template <int kChannels, Layout kLayout>
[[gnu::noinline]] void storePixels(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride,
                                   int step, int rows, int cols) {
    for (int r = 0; r < rows; r++) {
        uint8_t *line = dst + r * stride;
        for (int c = 0; c < cols; c++)
            storePixel<kChannels, kLayout>(src, 8 * r + c, line + c * step);
    }
}

template <int kChannels, Layout kLayout, bool kPaired, Writers kWriters>
inline void storeBlock(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int step,
                       int rows, int cols) {
#if KIV_HAVE_SSE2_COLOR
    if constexpr (kWriters != Writers::None)
        if (cols == 8 && step == kChannels &&
            storeWholeBlockSse2<kChannels, kLayout, kPaired, kWriters>(src, dst, stride, rows))
            return;
#endif
    storePixels<kChannels, kLayout>(src, dst, stride, step, rows, cols);
}

// Walks the MCU's block rows and columns (blocks of 8 samples a side, or
// 1 << scale level for scaled output), clipping against the rectangle's
// height and the given width. kPaired: chroma rows come in equal pairs.
// kWriters: the vector writers that serve whole blocks.
template <int kChannels, Layout kLayout, bool kScaled, bool kPaired = false, Writers kWriters = Writers::None>
void convertMcu(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width) {
    int32_t level = param->scaleLevel < 0 ? 0 : param->scaleLevel > 3 ? 3 : param->scaleLevel;
    const int n = kScaled ? 1 << level : 8;
    const int step = rect->channels;
    const ptrdiff_t stride = rect->stride;
    const uint32_t hmax = param->hmax, vmax = param->vmax;
    const uint32_t *const blockMap = param->blockMap;
    int16_t *const *const pointers = param->blockPointers;
    uint8_t *rowBase = rect->pixels + static_cast<ptrdiff_t>(x) * step;
#if KIV_HAVE_SSE2_COLOR
    // A whole MCU inside the rectangle: every block through the SSE2 writer.
    constexpr bool kWriter = kWriters != Writers::None && kHasSse2Writer<kChannels, kLayout>;
    if (kWriter && !kScaled && step == kChannels && width >= 8 * static_cast<int64_t>(hmax) &&
        rect->height >= 8 * static_cast<int64_t>(vmax)) {
        const uint32_t *map = blockMap;
        for (uint32_t by = 0; by < vmax; by++, rowBase += 8 * stride) {
            uint8_t *dst = rowBase;
            for (uint32_t bx = 0; bx < hmax; bx++, map += 4, dst += 8 * kChannels) {
                const int16_t *src[kChannels];
                for (int c = 0; c < kChannels; c++)
                    src[c] = pointers[map[c]];
                storeWholeBlockSse2<kChannels, kLayout, kPaired, kWriters>(src, dst, stride, 8);
            }
        }
        return;
    }
#endif
    int32_t rowsLeft = rect->height;
    for (uint32_t by = 0; by < vmax && rowsLeft > 0; by++) {
        int rows = rowsLeft < n ? rowsLeft : n;
        int32_t colsLeft = width;
        uint8_t *dst = rowBase;
        const uint32_t *map = blockMap + 4 * by * hmax;
        for (uint32_t bx = 0; bx < hmax && colsLeft > 0; bx++, map += 4) {
            const int16_t *src[kChannels];
            for (int c = 0; c < kChannels; c++)
                src[c] = pointers[map[c]];
            storeBlock<kChannels, kLayout, kPaired, kWriters>(src, dst, stride, step, rows,
                                                           colsLeft < n ? colsLeft : n);
            dst += n * step;
            colsLeft -= n;
        }
        rowBase += n * stride;
        rowsLeft -= n;
    }
}

}  // namespace

// jpgReadUpSamplingTo22 and To12 (of every level) double a component of
// vertical factor 1 by repeating rows (or fill it with one value), so with
// Vmax = 2 the chroma rows of every converted block come in equal pairs; the
// SSE2 writers then read them once per pair.
JpgReadColorConvertFunc mcuRowConverter(const JpgParam *param) {
    JpgReadColorConvertFunc stored = param->routines.convert;
#if KIV_HAVE_SSE2_COLOR
    constexpr JpgReadColorConvertFunc kSse2 = convertMcu<3, Layout::YCbCr, false, false, Writers::Sse2>;
    constexpr JpgReadColorConvertFunc kAvx2 = convertMcu<3, Layout::YCbCr, false, false, Writers::Avx2>;
    if ((stored != kSse2 && stored != kAvx2) || param->vmax != 2 || param->numComponents != 3 ||
        !doublesChromaRows(param->routines.upsample))
        return stored;
    for (uint32_t c = 1; c < 3; c++)
        if ((param->components[c].sampling & 15) != 1)
            return stored;
    return stored == kAvx2 ? convertMcu<3, Layout::YCbCr, false, true, Writers::Avx2>
                           : convertMcu<3, Layout::YCbCr, false, true, Writers::Sse2>;
#else
    return stored;
#endif
}

namespace {

// Scaled output of YCbCr frames with 1x1 chroma (4:4:4, 4:2:2, 4:4:0,
// 4:2:0): the replicating upsampler and the conversion in one pass. Output
// pixel (r, c) of the MCU takes its luma from the reduced luma block that
// covers it and its chroma from chroma sample (r / Vmax, c / Hmax), exactly
// what the scaled upsampler would have copied there.
// kRows8: at 1/2 with Hmax = 2, pairs of rows of eight pixels go through the
// SSE2 converter, the same bits as the tables.
template <int kHmax, int kVmax, int kLevel, bool kRows8 = false>
void convertScaledYcc(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width) {
    constexpr int n = 1 << kLevel;
    const int step = rect->channels;
    const int rows = rect->height < kVmax * n ? rect->height : kVmax * n;
    const int cols = width < kHmax * n ? width : kHmax * n;
    const int16_t *luma = param->mcuBuffer;
    const int16_t *cb = luma + 64 * kHmax * kVmax, *cr = cb + 64;
    uint8_t *line = rect->pixels + static_cast<ptrdiff_t>(x) * step;
    for (int r = 0; r < rows; r++, line += rect->stride) {
        const int16_t *lumaRow = luma + 64 * kHmax * (r / n) + 8 * (r % n);
        const int16_t *cbRow = cb + 8 * (r / kVmax), *crRow = cr + 8 * (r / kVmax);
#if KIV_HAVE_SSE2_COLOR
        if constexpr (kRows8 && kLevel == 2 && kHmax == 2) {
            if (cols == 8 && step == 3 && r + 1 < rows) {  // rows r and r + 1 lie in one block row
                const int16_t *chroma[4] = {cbRow, crRow, cb + 8 * ((r + 1) / kVmax), cr + 8 * ((r + 1) / kVmax)};
                halfScaleRowsToBgrSse2(lumaRow, chroma, line, line + rect->stride);
                r++;
                line += rect->stride;
                continue;
            }
        }
#endif
        uint8_t *dst = line;
        for (int c = 0; c < cols; c++, dst += step) {
            Bgr p = yccToBgr(lumaRow[64 * (c / n) + c % n], cbRow[c / kHmax], crRow[c / kHmax]);
            dst[0] = p.b;
            dst[1] = p.g;
            dst[2] = p.r;
        }
    }
}

template <int kHmax, int kVmax>
JpgReadColorConvertFunc scaledYccFor(int level, bool vector) {
    if (level == 2 && vector)
        return convertScaledYcc<kHmax, kVmax, 2, true>;
    return level == 0 ? convertScaledYcc<kHmax, kVmax, 0>
           : level == 1 ? convertScaledYcc<kHmax, kVmax, 1>
                        : convertScaledYcc<kHmax, kVmax, 2>;
}

}  // namespace

JpgReadColorConvertFunc fusedScaledConverter(const JpgParam *param) {
    if (slotConverter(param->routines.convertScaled) != convertMcu<3, Layout::YCbCr, true> ||
        param->numComponents != 3 || param->components[1].sampling != 0x11 ||
        param->components[2].sampling != 0x11 || param->mcuBuffer == nullptr ||
        param->components[0].sampling != (param->hmax << 4 | param->vmax))
        return nullptr;
    const int level = param->scaleLevel < 0 ? 0 : param->scaleLevel > 2 ? 2 : param->scaleLevel;
    const bool vector = simdLevelOf(param->processorFlag) != SimdLevel::Portable;
    switch (param->hmax << 4 | param->vmax) {
    case 0x11: return scaledYccFor<1, 1>(level, vector);
    case 0x12: return scaledYccFor<1, 2>(level, vector);
    case 0x21: return scaledYccFor<2, 1>(level, vector);
    case 0x22: return scaledYccFor<2, 2>(level, vector);
    default: return nullptr;
    }
}

namespace {

template <Writers kWriters>
JpgReadColorConvertFunc vectorConverter(uint32_t id) {
    switch (id) {
    case 0x20201: return convertMcu<1, Layout::Copy, false, false, kWriters>;
    case 0x20203: return convertMcu<3, Layout::Copy, false, false, kWriters>;
    case 0x20204: return convertMcu<4, Layout::Copy, false, false, kWriters>;
    case 0x1020203: return convertMcu<3, Layout::Reversed, false, false, kWriters>;
    case 0x2020203: return convertMcu<3, Layout::YCbCr, false, false, kWriters>;
    default: return nullptr;
    }
}

}  // namespace

JpgReadColorConvertFunc readColorConvertFor(uint32_t id, SimdLevel level) {
#if KIV_HAVE_SSE2_COLOR
    if (level == SimdLevel::Avx2)
        return vectorConverter<Writers::Avx2>(id);
    if (level == SimdLevel::Sse2)
        return vectorConverter<Writers::Sse2>(id);
#endif
    return nullptr;
}

}  // namespace kiv

using kiv::Layout;

extern "C" {

// The converters are building blocks without a status: on a handle that is
// no decoder with upsampled blocks, or without pixels, they write nothing.
// They trust the rectangle's geometry; the drivers check it once per call.
#define KIV_CONVERTER(name, channels, layout, scaled)                                        \
    void name(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width) {                \
        if (kiv::mayRead(param) && param->blockMap != nullptr &&                             \
            param->blockPointers != nullptr && rect != nullptr && rect->pixels != nullptr)   \
            kiv::convertMcu<channels, Layout::layout, scaled>(param, rect, x, width);        \
    }

KIV_CONVERTER(jpgReadCopyGrey, 1, Copy, false)
KIV_CONVERTER(jpgReadCopy2, 2, Copy, false)
KIV_CONVERTER(jpgReadCopy3, 3, Copy, false)
KIV_CONVERTER(jpgReadCopy4, 4, Copy, false)
KIV_CONVERTER(jpgReadCopy3Reversed, 3, Reversed, false)
KIV_CONVERTER(jpgReadYUV2Rect, 3, YCbCr, false)
KIV_CONVERTER(jpgReadYCCK2Rect, 4, Ycck, false)
KIV_CONVERTER(jpgReadScaledCopyGrey, 1, Copy, true)
KIV_CONVERTER(jpgReadScaledCopy2, 2, Copy, true)
KIV_CONVERTER(jpgReadScaledCopy3, 3, Copy, true)
KIV_CONVERTER(jpgReadScaledCopy4, 4, Copy, true)
KIV_CONVERTER(jpgReadScaledCopy3Reversed, 3, Reversed, true)
KIV_CONVERTER(jpgReadScaledYUV2Rect, 3, YCbCr, true)
KIV_CONVERTER(jpgReadScaledYCCK2Rect, 4, Ycck, true)

#undef KIV_CONVERTER

}  // extern "C"

namespace kiv {

JpgReadColorConvertFunc slotConverter(JpgReadColorConvertFunc exported) {
    struct Pair {
        JpgReadColorConvertFunc exported, internal;
    };
    static constexpr Pair kPairs[] = {
        {jpgReadCopyGrey, convertMcu<1, Layout::Copy, false>},
        {jpgReadCopy2, convertMcu<2, Layout::Copy, false>},
        {jpgReadCopy3, convertMcu<3, Layout::Copy, false>},
        {jpgReadCopy4, convertMcu<4, Layout::Copy, false>},
        {jpgReadCopy3Reversed, convertMcu<3, Layout::Reversed, false>},
        {jpgReadYUV2Rect, convertMcu<3, Layout::YCbCr, false>},
        {jpgReadScaledCopyGrey, convertMcu<1, Layout::Copy, true>},
        {jpgReadScaledCopy2, convertMcu<2, Layout::Copy, true>},
        {jpgReadScaledCopy3, convertMcu<3, Layout::Copy, true>},
        {jpgReadScaledCopy4, convertMcu<4, Layout::Copy, true>},
        {jpgReadScaledCopy3Reversed, convertMcu<3, Layout::Reversed, true>},
        {jpgReadScaledYUV2Rect, convertMcu<3, Layout::YCbCr, true>},
        {jpgReadYCCK2Rect, convertMcu<4, Layout::Ycck, false>},
        {jpgReadScaledYCCK2Rect, convertMcu<4, Layout::Ycck, true>},
    };
    for (const Pair &p : kPairs)
        if (p.exported == exported)
            return p.internal;
    return exported;
}

}  // namespace kiv

extern "C" {

void jpgReadYuv2RGB(int32_t *r, int32_t *g, int32_t *b, int32_t y, int32_t cb, int32_t cr) {
    kiv::Bgr p = kiv::yccToBgr(y, cb, cr);
    if (r != nullptr)
        *r = p.r;
    if (g != nullptr)
        *g = p.g;
    if (b != nullptr)
        *b = p.b;
}

JpgReadColorConvertFunc jpgGetReadColorConvertGenericFunc(uint32_t id) {
    switch (id) {
    case 0x20201: return jpgReadCopyGrey;
    case 0x20202: return jpgReadCopy2;
    case 0x20203: return jpgReadCopy3;
    case 0x20204: return jpgReadCopy4;
    case 0x1020203: return jpgReadCopy3Reversed;
    case 0x2020203: return jpgReadYUV2Rect;
    case 0x3020204: return jpgReadYCCK2Rect;
    case 0x40020201: return jpgReadScaledCopyGrey;
    case 0x40020202: return jpgReadScaledCopy2;
    case 0x40020203: return jpgReadScaledCopy3;
    case 0x40020204: return jpgReadScaledCopy4;
    case 0x41020203: return jpgReadScaledCopy3Reversed;
    case 0x42020203: return jpgReadScaledYUV2Rect;
    case 0x43020204: return jpgReadScaledYCCK2Rect;
    default: return nullptr;
    }
}

}  // extern "C"
