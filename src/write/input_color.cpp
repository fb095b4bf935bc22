// Input colour conversion and block division of the baseline encoder: takes
// one MCU of interleaved 8-bit pixels, level-shifts it into one signed plane
// per component (optionally RGB -> YCbCr, JFIF weights in 12-bit fixed
// point), down-samples each plane to its component's factors (ISO/IEC
// 10918-1 A.1.1) and lays out the 8x8 blocks in MCU order (A.2.3), filling
// the parts of blocks beyond the image's right and bottom edges.
// Pixels are stored B, G, R: the first byte of a pixel is blue.
#include <stddef.h>
#include <string.h>

#include "write/encoder.h"
#include "write/input_color_simd.h"

namespace {

enum class Layout { Planes, Reversed, YCbCr };

constexpr int32_t kOneHalf = 2048;  // 0.5 at 12 fraction bits

// Per-value parts of the YCbCr products, constant terms folded in:
// Y  = (1225 R + 2404 G + 467 B - 524288 + 2048) >> 12
// Cb = (2048 B - 1357 G - 691 R + 2048) >> 12
// Cr = (2048 R - 1715 G - 333 B + 2048) >> 12
struct BluePart { int32_t y, cr; };
struct GreenPart { int32_t y, cb, cr, unused; };
struct RedPart { int32_t y, cb; };
struct YccTables {
    BluePart blue[256];
    GreenPart green[256];
    RedPart red[256];
};

constexpr YccTables makeYccTables() {
    YccTables t{};
    for (int32_t v = 0; v < 256; v++) {
        t.blue[v] = {467 * v - 128 * 4096 + kOneHalf, 333 * v};
        t.green[v] = {2404 * v, 1357 * v - kOneHalf, 1715 * v - kOneHalf, 0};
        t.red[v] = {1225 * v, 691 * v};
    }
    return t;
}
constexpr YccTables kYcc = makeYccTables();

// The weights of each output sum to 4096 (Y) or 2048 (Cb, Cr) exactly.
static_assert(1225 + 2404 + 467 == 4096 && 1357 + 691 == 2048 && 1715 + 333 == 2048);

int16_t *plane(const JpgWriteConvertContext *ctx, uint32_t c) {
    return ctx->planes + c * ctx->mcuWidth * ctx->mcuHeight;
}

const uint8_t *pixelRow(const JpgWriteConvertContext *ctx, int32_t x, int32_t y) {
    return ctx->pixels + static_cast<ptrdiff_t>(y) * ctx->stride +
           static_cast<ptrdiff_t>(x) * ctx->bytesPerPixel;
}

// Converts the valid w x h pixels of the MCU at (x, y) into the planes.
template <Layout L>
void convertArea(JpgWriteConvertContext *ctx, int32_t x, int32_t y, int32_t w, int32_t h) {
    const uint32_t bpp = ctx->bytesPerPixel;
    for (int32_t row = 0; row < h; row++) {
        const uint8_t *p = pixelRow(ctx, x, y + row);
        const uint32_t at = static_cast<uint32_t>(row) * ctx->mcuWidth;
        for (int32_t col = 0; col < w; col++, p += bpp) {
            if constexpr (L == Layout::Planes) {
                for (uint32_t k = 0; k < bpp; k++)
                    plane(ctx, k)[at + col] = static_cast<int16_t>(p[k] - 128);
            } else if constexpr (L == Layout::Reversed) {
                for (uint32_t k = 0; k < 3; k++)
                    plane(ctx, 2 - k)[at + col] = static_cast<int16_t>(p[k] - 128);
            } else {
                const BluePart &b = kYcc.blue[p[0]];
                const GreenPart &g = kYcc.green[p[1]];
                const RedPart &r = kYcc.red[p[2]];
                plane(ctx, 0)[at + col] = static_cast<int16_t>((b.y + g.y + r.y) >> 12);
                plane(ctx, 1)[at + col] = static_cast<int16_t>(((p[0] << 11) - g.cb - r.cb) >> 12);
                plane(ctx, 2)[at + col] = static_cast<int16_t>(((p[2] << 11) - g.cr - b.cr) >> 12);
            }
        }
    }
}

// One sample of component c of the pixel at p, as convertArea computes it.
template <Layout L>
int16_t sampleOf(const uint8_t *p, uint32_t c) {
    if constexpr (L == Layout::Planes) {
        return static_cast<int16_t>(p[c] - 128);
    } else if constexpr (L == Layout::Reversed) {
        return static_cast<int16_t>(p[2 - c] - 128);
    } else {
        if (c == 0)
            return static_cast<int16_t>((kYcc.blue[p[0]].y + kYcc.green[p[1]].y + kYcc.red[p[2]].y) >> 12);
        if (c == 1)
            return static_cast<int16_t>(((p[0] << 11) - kYcc.green[p[1]].cb - kYcc.red[p[2]].cb) >> 12);
        return static_cast<int16_t>(((p[2] << 11) - kYcc.green[p[1]].cr - kYcc.blue[p[0]].cr) >> 12);
    }
}

// Geometry of one component's blocks within the MCU.
struct ComponentGrid {
    const int16_t *plane;
    uint32_t stride;  // samples per plane row (the MCU width)
    int32_t sx, sy;   // plane samples per block sample
};

// a / b for the sampling factors and MCU sizes in blocks (1 to 4) from a
// table, since every MCU asks; other values are divided.
constexpr int32_t kSmall = 4;
struct SmallQuotients {
    uint8_t q[kSmall + 1][kSmall + 1];
};
constexpr SmallQuotients makeSmallQuotients() {
    SmallQuotients t{};
    for (int a = 0; a <= kSmall; a++)
        for (int b = 1; b <= kSmall; b++)
            t.q[a][b] = static_cast<uint8_t>(a / b);
    return t;
}
constexpr SmallQuotients kSmallQuotients = makeSmallQuotients();

int32_t quotient(uint32_t a, int32_t b) {
    if (a <= kSmall && b >= 1 && b <= kSmall)
        return kSmallQuotients.q[a][b];
    return static_cast<int32_t>(a / static_cast<uint32_t>(b));
}

ComponentGrid grid(const JpgWriteConvertContext *ctx, uint32_t c) {
    int32_t sx = quotient(ctx->mcuWidth / 8, ctx->factors[c][0]);
    int32_t sy = quotient(ctx->mcuHeight / 8, ctx->factors[c][1]);
    return {plane(ctx, c), ctx->mcuWidth, sx, sy};
}

// Every component's factors must divide the MCU's: otherwise the block grid
// would not tile the MCU (and a step of zero would never end).
bool validContext(const JpgWriteConvertContext *ctx) {
    if (ctx == nullptr || ctx->bytesPerPixel < 1 || ctx->bytesPerPixel > 4 || ctx->mcuWidth % 8 != 0 ||
        ctx->mcuHeight % 8 != 0 || ctx->mcuWidth == 0 || ctx->mcuHeight == 0)
        return false;
    for (uint32_t c = 0; c < ctx->bytesPerPixel; c++) {
        int32_t h = ctx->factors[c][0], v = ctx->factors[c][1];
        if (h < 1 || v < 1 || static_cast<uint32_t>(quotient(ctx->mcuWidth / 8, h) * h) != ctx->mcuWidth / 8 ||
            static_cast<uint32_t>(quotient(ctx->mcuHeight / 8, v) * v) != ctx->mcuHeight / 8)
            return false;
    }
    return true;
}

// Calls fn(block, bx, by, grid) for every block of every component, in the
// order the MCU encoder reads them; returns nothing.
template <typename Fn>
void forEachBlock(const JpgWriteConvertContext *ctx, Fn fn) {
    int16_t *block = ctx->blocks;
    for (uint32_t c = 0; c < ctx->bytesPerPixel; c++) {
        ComponentGrid g = grid(ctx, c);
        for (int32_t by = 0; by < static_cast<int32_t>(ctx->mcuHeight); by += 8 * g.sy)
            for (int32_t bx = 0; bx < static_cast<int32_t>(ctx->mcuWidth); bx += 8 * g.sx) {
                fn(block, bx, by, g);
                block += 64;
            }
    }
}

// Rounded average of a group of n samples: (S + (n + 1) / 2) / n, both
// divisions truncating toward zero, so negative sums round differently.
int16_t average(int32_t sum, int32_t n) {
    return static_cast<int16_t>(n == 1 ? sum : (sum + (n + 1) / 2) / n);
}

// Averages each block sample's group clipped to the valid w x h area;
// groups wholly outside it are left for the edge filling.
void subSamplingPartialHQ(JpgWriteConvertContext *ctx, int32_t w, int32_t h) {
    forEachBlock(ctx, [w, h](int16_t *block, int32_t bx, int32_t by, const ComponentGrid &g) {
        for (int32_t i = 0; i < 8; i++) {
            int32_t gy = by + g.sy * i;
            for (int32_t j = 0; j < 8 && gy < h; j++) {
                int32_t gx = bx + g.sx * j;
                if (gx >= w)
                    break;
                int32_t rows = gy + g.sy < h ? g.sy : h - gy;
                int32_t cols = gx + g.sx < w ? g.sx : w - gx;
                int32_t sum = 0;
                for (int32_t a = 0; a < rows; a++)
                    for (int32_t b = 0; b < cols; b++)
                        sum += g.plane[(gy + a) * g.stride + gx + b];
                block[8 * i + j] = average(sum, rows * cols);
            }
        }
    });
}

int16_t blockMean(const int16_t *block) {
    int32_t sum = 0;
    for (int k = 0; k < 64; k++)
        sum += block[k];
    return static_cast<int16_t>(sum >> 6);
}

// Mirrors the valid c columns and r rows of a block into its missing part,
// doubling the valid extent each time: columns c-1, c-2, ... go to c, c+1, ...
void mirrorBlock(int16_t *block, int32_t c, int32_t r) {
    for (int32_t valid = c; valid < 8; valid *= 2)
        for (int32_t row = 0; row < r; row++)
            for (int32_t k = valid; k < 8 && k < 2 * valid; k++)
                block[8 * row + k] = block[8 * row + 2 * valid - 1 - k];
    for (int32_t valid = r; valid < 8; valid *= 2)
        for (int32_t k = valid; k < 8 && k < 2 * valid; k++)
            for (int32_t col = 0; col < 8; col++)
                block[8 * k + col] = block[8 * (2 * valid - 1 - k) + col];
}

// A full MCU of the plain family straight into its blocks: each block
// sample is the converted top-left pixel of its group, which is what the
// conversion into planes followed by plain down-sampling gives, without
// converting the samples that down-sampling drops.
template <Layout L, uint32_t C>
void directComponent(const JpgWriteConvertContext *ctx, int32_t x, int32_t y, int16_t *&block) {
    ComponentGrid g = grid(ctx, C);
    const ptrdiff_t step = static_cast<ptrdiff_t>(g.sx) * ctx->bytesPerPixel;
    for (int32_t by = 0; by < static_cast<int32_t>(ctx->mcuHeight); by += 8 * g.sy)
        for (int32_t bx = 0; bx < static_cast<int32_t>(ctx->mcuWidth); bx += 8 * g.sx, block += 64)
            for (int32_t i = 0; i < 8; i++) {
                const uint8_t *p = pixelRow(ctx, x + bx, y + by + g.sy * i);
                for (int32_t j = 0; j < 8; j++, p += step)
                    block[8 * i + j] = sampleOf<L>(p, C);
            }
}

template <Layout L>
void directBlocks(const JpgWriteConvertContext *ctx, int32_t x, int32_t y) {
    int16_t *block = ctx->blocks;
    directComponent<L, 0>(ctx, x, y, block);
    if (ctx->bytesPerPixel > 1)
        directComponent<L, 1>(ctx, x, y, block);
    if (ctx->bytesPerPixel > 2)
        directComponent<L, 2>(ctx, x, y, block);
    if (ctx->bytesPerPixel > 3)
        directComponent<L, 3>(ctx, x, y, block);
}

template <Layout L, bool HQ>
JpgStatus convertMcu(JpgWriteConvertContext *ctx, int32_t x, int32_t y) {
    if (ctx == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (!validContext(ctx) || (L != Layout::Planes && ctx->bytesPerPixel != 3))
        return JPG_STATUS_INVALID_PARAMETER;
    int32_t w = static_cast<int32_t>(ctx->width) - x;
    int32_t h = static_cast<int32_t>(ctx->rows) - y;
    if (x < 0 || y < 0 || w <= 0 || h <= 0)
        return JPG_STATUS_INVALID_PARAMETER;
    w = w < static_cast<int32_t>(ctx->mcuWidth) ? w : static_cast<int32_t>(ctx->mcuWidth);
    h = h < static_cast<int32_t>(ctx->mcuHeight) ? h : static_cast<int32_t>(ctx->mcuHeight);
    bool full = w == static_cast<int32_t>(ctx->mcuWidth) && h == static_cast<int32_t>(ctx->mcuHeight);
    if (!HQ && full) {
        directBlocks<L>(ctx, x, y);
        return JPG_STATUS_OK;
    }
    convertArea<L>(ctx, x, y, w, h);
    if (!HQ) {
        GenericSubSamplingAndBlockDivision(ctx);
        if (!full)
            GenericEdgeOptimize(ctx, w, h);
    } else if (full) {
        GenericSubSamplingAndBlockDivisionHQ(ctx);
    } else {
        subSamplingPartialHQ(ctx, w, h);
        GenericEdgeOptimize(ctx, w, h);
    }
    return JPG_STATUS_OK;
}

}  // namespace

extern "C" {

JpgStatus jpgWriteXXX2Rect(JpgWriteConvertContext *ctx, int32_t x, int32_t y) {
    return convertMcu<Layout::Planes, false>(ctx, x, y);
}
JpgStatus jpgWriteXXX2RectHQ(JpgWriteConvertContext *ctx, int32_t x, int32_t y) {
    return convertMcu<Layout::Planes, true>(ctx, x, y);
}
JpgStatus jpgWriteRGB2RGBRect(JpgWriteConvertContext *ctx, int32_t x, int32_t y) {
    return convertMcu<Layout::Reversed, false>(ctx, x, y);
}
JpgStatus jpgWriteRGB2RGBRectHQ(JpgWriteConvertContext *ctx, int32_t x, int32_t y) {
    return convertMcu<Layout::Reversed, true>(ctx, x, y);
}
JpgStatus jpgWriteRGB2YUVRect(JpgWriteConvertContext *ctx, int32_t x, int32_t y) {
    return convertMcu<Layout::YCbCr, false>(ctx, x, y);
}
JpgStatus jpgWriteRGB2YUVRectHQ(JpgWriteConvertContext *ctx, int32_t x, int32_t y) {
    return convertMcu<Layout::YCbCr, true>(ctx, x, y);
}

JpgStatus GenericYUVConvert8bit(JpgWriteConvertContext *ctx, int32_t x, int32_t y, int32_t width,
                                int32_t height) {
    if (ctx == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (ctx->bytesPerPixel != 3 || x < 0 || y < 0 || width < 0 || height < 0 ||
        static_cast<uint32_t>(width) > ctx->mcuWidth || static_cast<uint32_t>(height) > ctx->mcuHeight ||
        static_cast<int64_t>(x) + width > ctx->width || static_cast<int64_t>(y) + height > ctx->rows)
        return JPG_STATUS_INVALID_PARAMETER;
    convertArea<Layout::YCbCr>(ctx, x, y, width, height);
    return JPG_STATUS_OK;
}

// Plain down-sampling: the top-left sample of each group, no averaging.
JpgStatus GenericSubSamplingAndBlockDivision(JpgWriteConvertContext *ctx) {
    if (!validContext(ctx))
        return JPG_STATUS_INVALID_PARAMETER;
    forEachBlock(ctx, [](int16_t *block, int32_t bx, int32_t by, const ComponentGrid &g) {
        for (int32_t i = 0; i < 8; i++) {
            const int16_t *src = g.plane + (by + g.sy * i) * g.stride + bx;
            for (int32_t j = 0; j < 8; j++)
                block[8 * i + j] = src[g.sx * j];
        }
    });
    return JPG_STATUS_OK;
}

JpgStatus GenericSubSamplingAndBlockDivisionHQ(JpgWriteConvertContext *ctx) {
    if (!validContext(ctx))
        return JPG_STATUS_INVALID_PARAMETER;
    forEachBlock(ctx, [](int16_t *block, int32_t bx, int32_t by, const ComponentGrid &g) {
        for (int32_t i = 0; i < 8; i++) {
            const int16_t *src = g.plane + (by + g.sy * i) * g.stride + bx;
            for (int32_t j = 0; j < 8; j++) {
                int32_t sum = 0;
                for (int32_t a = 0; a < g.sy; a++)
                    for (int32_t b = 0; b < g.sx; b++)
                        sum += src[a * g.stride + g.sx * j + b];
                block[8 * i + j] = average(sum, g.sx * g.sy);
            }
        }
    });
    return JPG_STATUS_OK;
}

// Fills what lies beyond the valid w x h pixels: blocks that start outside
// take the mean of the block laid out just before the first of their run;
// blocks cut by the edge mirror their valid part.
JpgStatus GenericEdgeOptimize(JpgWriteConvertContext *ctx, int32_t width, int32_t height) {
    if (ctx == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (!validContext(ctx) || width < 1 || height < 1)
        return JPG_STATUS_INVALID_PARAMETER;
    int16_t *block = ctx->blocks;
    for (uint32_t c = 0; c < ctx->bytesPerPixel; c++) {
        ComponentGrid g = grid(ctx, c);
        bool haveMean = false;
        int16_t mean = 0;
        for (int32_t by = 0; by < static_cast<int32_t>(ctx->mcuHeight); by += 8 * g.sy) {
            bool rowInside = by < height;
            if (rowInside)
                haveMean = false;
            for (int32_t bx = 0; bx < static_cast<int32_t>(ctx->mcuWidth); bx += 8 * g.sx, block += 64) {
                if (!rowInside || bx >= width) {
                    if (!haveMean) {
                        mean = blockMean(block - 64);
                        haveMean = true;
                    }
                    for (int k = 0; k < 64; k++)
                        block[k] = mean;
                    continue;
                }
                int32_t cols = (width - bx + g.sx - 1) / g.sx;
                int32_t rows = (height - by + g.sy - 1) / g.sy;
                cols = cols < 8 ? cols : 8;
                rows = rows < 8 ? rows : 8;
                if (cols < 8 || rows < 8)
                    mirrorBlock(block, cols, rows);
            }
        }
    }
    return JPG_STATUS_OK;
}

JpgWriteColorConvertFunc jpgGetWriteColorConvertGenericFunc(uint32_t id) {
    uint32_t channels = id & 0xFF;
    uint32_t kind = (id >> 24) & 0xF;
    bool averaging = (id >> 31) != 0;
    if ((id & (1u << 29)) || channels < 1 || channels > 4 || (kind != 0 && channels != 3))
        return nullptr;
    switch (kind) {
    case 0: return averaging ? jpgWriteXXX2RectHQ : jpgWriteXXX2Rect;
    case 1: return averaging ? jpgWriteRGB2RGBRectHQ : jpgWriteRGB2RGBRect;
    case 2: return averaging ? jpgWriteRGB2YUVRectHQ : jpgWriteRGB2YUVRect;
    default: return nullptr;
    }
}

}  // extern "C"

namespace kiv {

bool fullMcuGrid(JpgWriteConvertContext *ctx, int32_t x, int32_t y, uint32_t channels, McuGrid *out) {
    if (ctx == nullptr || x < 0 || y < 0 || static_cast<int64_t>(x) + ctx->mcuWidth > ctx->width ||
        static_cast<int64_t>(y) + ctx->mcuHeight > ctx->rows)
        return false;
    // bytesPerPixel, mcuWidth, mcuHeight and the factors, as one run of words.
    static_assert(offsetof(JpgWriteConvertContext, factors) ==
                  offsetof(JpgWriteConvertContext, bytesPerPixel) + 3 * sizeof(uint32_t));
    uint32_t geometry[sizeof ctx->checked.geometry / sizeof(uint32_t)];
    memcpy(geometry, &ctx->bytesPerPixel, sizeof geometry);
    uint32_t differ = ctx->checked.geometry[0] ^ channels;  // also refuses the empty record
    for (uint32_t i = 0; i < sizeof geometry / sizeof geometry[0]; i++)
        differ |= geometry[i] ^ ctx->checked.geometry[i];
    if (differ == 0) {
        memcpy(out->sx, ctx->checked.sx, sizeof out->sx);
        memcpy(out->sy, ctx->checked.sy, sizeof out->sy);
        return true;
    }
    // The checks of validContext, in one pass that keeps the steps.
    if (ctx->bytesPerPixel != channels || channels < 1 || channels > 4 || ctx->mcuWidth == 0 ||
        ctx->mcuHeight == 0 || ctx->mcuWidth % 8 != 0 || ctx->mcuHeight % 8 != 0)
        return false;
    const uint32_t wide = ctx->mcuWidth / 8, high = ctx->mcuHeight / 8;
    McuGrid g{};
    for (uint32_t c = 0; c < channels; c++) {
        int32_t h = ctx->factors[c][0], v = ctx->factors[c][1];
        if (h < 1 || v < 1)
            return false;
        g.sx[c] = quotient(wide, h);
        g.sy[c] = quotient(high, v);
        if (static_cast<uint32_t>(g.sx[c] * h) != wide || static_cast<uint32_t>(g.sy[c] * v) != high)
            return false;
    }
    memcpy(ctx->checked.geometry, geometry, sizeof ctx->checked.geometry);
    memcpy(ctx->checked.sx, g.sx, sizeof g.sx);
    memcpy(ctx->checked.sy, g.sy, sizeof g.sy);
    *out = g;
    return true;
}

JpgWriteColorConvertFunc writeColorConvertFor(uint32_t id, SimdLevel level) {
#if KIV_SIMD_X86
    if (level == SimdLevel::Avx2)
        return writeColorConvertAvx2(id);
    if (level == SimdLevel::Sse2)
        return writeColorConvertSse2(id);
#endif
    return nullptr;
}

}  // namespace kiv
