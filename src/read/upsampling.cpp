// Upsampling: brings every component of one decoded MCU to the MCU's full
// resolution (ISO/IEC 10918-1 A.1.1 sampling factors) and leaves, per
// component c, Hmax x Vmax block pointers at blockPointers[c * hv + b] for the
// colour converter. Full-resolution components are only pointed at. Full size:
// horizontal doubling is co-sited linear interpolation (midpoints round halves
// up, the right neighbour comes from the next MCU or repeats the last sample),
// vertical doubling replicates rows. Scaled output replicates only.
#include "core/api_checks.h"
#include "core/codec.h"
#include "read/upsampling_sse2.h"

namespace kiv {
namespace {

constexpr int kBlockSize = 64;

// Per-MCU cursor over the component blocks of the current and next MCU, the
// next free block of the upsampling buffer and the component's table entries.
struct McuWalk {
    const int16_t *in;
    const int16_t *next;  // null: no right-hand neighbour
    int16_t *out;
    int16_t **table;
    uint32_t hv;
};

// Calls expand(walk, h, v) for each frame component, then advances the walk
// past the component's H x V source blocks and its table entries. A sampling
// factor that is zero or above the frame maximum (only in a frame the header
// parser should have refused) gets neutral grey blocks instead.
template <typename Expand>
void forEachComponent(JpgParam *param, Expand expand) {
    McuWalk walk{param->mcuBuffer, param->dec.mcuNext, param->dec.upsampleBuffer,
                 param->blockPointers, param->hv};
    uint32_t count = param->numComponents > 4 ? 4 : param->numComponents;
    for (uint32_t c = 0; c < count; c++) {
        uint32_t h = param->components[c].sampling >> 4, v = param->components[c].sampling & 15;
        if (h == 0 || v == 0 || h > param->hmax || v > param->vmax) {
            for (int i = 0; i < kBlockSize; i++)
                walk.out[i] = 128;
            for (uint32_t b = 0; b < walk.hv; b++)
                walk.table[b] = walk.out;
            walk.out += kBlockSize;
        } else {
            expand(walk, h, v);
        }
        uint32_t blocks = h * v;
        walk.in += kBlockSize * blocks;
        if (walk.next != nullptr)
            walk.next += kBlockSize * blocks;
        walk.table += walk.hv;
    }
}

void pointAtSource(McuWalk &walk, uint32_t blocks) {
    for (uint32_t b = 0; b < blocks; b++)
        walk.table[b] = const_cast<int16_t *>(walk.in + kBlockSize * b);
}

// Expands one half or quarter of the source block src, starting at row0 and
// col0, into the whole 8x8 block out. kH doubles columns, kV doubles rows.
// next is the same component block of the right-hand MCU, or null.
template <bool kH, bool kV>
void expandBlock(const int16_t *src, const int16_t *next, int row0, int col0, int16_t *out) {
    for (int r = 0; r < 8; r++) {
        int16_t *o = out + 8 * r;
        if (kV && (r & 1) != 0) {
            for (int i = 0; i < 8; i++)
                o[i] = o[i - 8];
            continue;
        }
        int sy = row0 + (kV ? r / 2 : r);
        const int16_t *s = src + 8 * sy + col0;
        if (!kH) {
            for (int i = 0; i < 8; i++)
                o[i] = s[i];
            continue;
        }
        int right = col0 + 4 < 8 ? s[4] : next != nullptr ? next[8 * sy] : s[3];
        for (int i = 0; i < 4; i++) {
            int b = i < 3 ? s[i + 1] : right;
            o[2 * i] = s[i];
            o[2 * i + 1] = static_cast<int16_t>((s[i] + b + 1) >> 1);
        }
    }
}

const int16_t *nextBlock(const McuWalk &walk, uint32_t b) {
    return walk.next != nullptr ? walk.next + kBlockSize * b : nullptr;
}

// The block expanders of a processor level: the full-size routines below
// are templates over them.
struct PortableExpanders {
    static void both(const int16_t *in, const int16_t *next, int16_t *out) { doubleBothPortable(in, next, out); }
    static void across(const int16_t *in, const int16_t *next, int16_t *left, int16_t *right) {
        doubleAcrossPortable(in, next, left, right);
    }
    static void down(const int16_t *in, int16_t *upper, int16_t *lower) { doubleDownPortable(in, upper, lower); }
};
#if KIV_HAVE_SSE2_UPSAMPLING
struct Sse2Expanders {
    static void both(const int16_t *in, const int16_t *next, int16_t *out) { doubleBothSse2(in, next, out); }
    static void across(const int16_t *in, const int16_t *next, int16_t *left, int16_t *right) {
        doubleAcrossSse2(in, next, left, right);
    }
    static void down(const int16_t *in, int16_t *upper, int16_t *lower) { doubleDownSse2(in, upper, lower); }
};
#endif

// General case: any Hmax x Vmax; linear interpolation over rh = Hmax / h
// columns, replication over rv = Vmax / v rows. Source coordinates are
// clamped to the component, so factors that do not divide the maximum stay
// inside its blocks.
class GeneralExpander {
public:
    GeneralExpander(const McuWalk &walk, uint32_t h, uint32_t v, uint32_t hmax, uint32_t vmax)
        : walk_(walk), h_(h), inW_(8 * h), inH_(8 * v), hmax_(hmax), rh_(hmax / h), rv_(vmax / v),
          outW_(8 * hmax), outH_(8 * vmax) {}

    void run() {
        for (uint32_t y = 0; y < outH_; y++) {
            if (y % rv_ != 0)
                copyRow(y - y % rv_, y);
            else
                interpolateRow(y);
        }
    }

private:
    static uint32_t at(uint32_t blocksPerRow, uint32_t y, uint32_t x) {
        return kBlockSize * ((y / 8) * blocksPerRow + x / 8) + 8 * (y % 8) + x % 8;
    }
    void copyRow(uint32_t from, uint32_t to) {
        for (uint32_t x = 0; x < outW_; x++)
            walk_.out[at(hmax_, to, x)] = walk_.out[at(hmax_, from, x)];
    }
    void interpolateRow(uint32_t y) {
        uint32_t sy = y / rv_ < inH_ ? y / rv_ : inH_ - 1;
        int32_t left = 0, right = walk_.in[at(h_, sy, 0)];
        for (uint32_t x = 0; x < outW_; x++) {
            uint32_t m = x % rh_;
            int32_t value;
            if (m == 0) {
                value = right;
                left = right;
                uint32_t nx = x / rh_ + 1;
                if (nx < inW_)
                    right = walk_.in[at(h_, sy, nx)];
                else if (walk_.next != nullptr)
                    right = walk_.next[at(h_, sy, 0)];
            } else {
                value = static_cast<int32_t>((left * (rh_ - m) + right * m + rh_ / 2) / rh_);
            }
            walk_.out[at(hmax_, y, x)] = static_cast<int16_t>(value);
        }
    }

    const McuWalk &walk_;
    uint32_t h_, inW_, inH_, hmax_, rh_, rv_, outW_, outH_;
};

// The usual colour layout: component 0 at the frame's factors (kBlocks
// blocks), two more at 1x1, each expanded by expand(in, next, out) into
// kBlocks blocks. The same table and buffer use as forEachComponent; false
// (nothing done) for any other layout.
template <uint8_t kFull, uint32_t kBlocks, typename Expand>
bool upsampleLumaChroma(JpgParam *param, Expand expand) {
    if (param->numComponents != 3 || param->hmax != (kFull >> 4u) || param->vmax != (kFull & 15u) ||
        param->components[0].sampling != kFull || param->components[1].sampling != 0x11 ||
        param->components[2].sampling != 0x11)
        return false;
    const uint32_t hv = param->hv;
    const int16_t *in = param->mcuBuffer;
    const int16_t *next = param->dec.mcuNext;
    int16_t **table = param->blockPointers;
    int16_t *out = param->dec.upsampleBuffer;
    for (uint32_t b = 0; b < kBlocks; b++)
        table[b] = const_cast<int16_t *>(in + kBlockSize * b);
    for (uint32_t c = 1; c < 3; c++) {
        uint32_t at = kBlockSize * (kBlocks + c - 1);
        expand(in + at, next != nullptr ? next + at : nullptr, out);
        for (uint32_t b = 0; b < kBlocks; b++)
            table[c * hv + b] = out + kBlockSize * b;
        out += kBlockSize * kBlocks;
    }
    return true;
}

void finishExpanded(McuWalk &walk, uint32_t blocks) {
    for (uint32_t b = 0; b < blocks; b++)
        walk.table[b] = walk.out + kBlockSize * b;
    walk.out += kBlockSize * blocks;
}

// Scaled output: blocks of n x n samples (n = 1, 2 or 4) in the 64-slot
// layout, every source sample repeated over the rh x rv positions it covers.
// With n = 1 and shortcut set, output blocks point at their source blocks.
void replicateScaled(McuWalk &walk, uint32_t h, uint32_t v, uint32_t hmax, uint32_t vmax,
                     uint32_t n, bool shortcut) {
    uint32_t rh = hmax / h, rv = vmax / v;
    if (n == 1 && shortcut) {
        for (uint32_t by = 0; by < vmax; by++) {
            for (uint32_t bx = 0; bx < hmax; bx++) {
                uint32_t sy = by / rv < v ? by / rv : v - 1, sx = bx / rh < h ? bx / rh : h - 1;
                walk.table[by * hmax + bx] = const_cast<int16_t *>(walk.in + kBlockSize * (sy * h + sx));
            }
        }
        return;
    }
    for (uint32_t gy = 0; gy < n * vmax; gy++) {
        uint32_t sy = gy / rv < n * v ? gy / rv : n * v - 1;
        for (uint32_t gx = 0; gx < n * hmax; gx++) {
            uint32_t sx = gx / rh < n * h ? gx / rh : n * h - 1;
            walk.out[kBlockSize * ((gy / n) * hmax + gx / n) + 8 * (gy % n) + gx % n] =
                walk.in[kBlockSize * ((sy / n) * h + sx / n) + 8 * (sy % n) + sx % n];
        }
    }
    finishExpanded(walk, hmax * vmax);
}

uint32_t scaledBlockSize(const JpgParam *param) {
    int32_t level = param->scaleLevel < 0 ? 0 : param->scaleLevel > 2 ? 2 : param->scaleLevel;
    return 1u << level;
}

// The three fixed scaled layouts: full-resolution components are pointed at,
// the others replicated; at level 0, `shortcutSampling` is expanded by
// repeating block pointers instead of copying.
template <uint32_t kHmax, uint32_t kVmax, uint8_t kShortcutSampling>
void upsampleScaledFixed(JpgParam *param) {
    uint32_t n = scaledBlockSize(param);
    forEachComponent(param, [n](McuWalk &walk, uint32_t h, uint32_t v) {
        if (h == kHmax && v == kVmax)
            pointAtSource(walk, kHmax * kVmax);
        else
            replicateScaled(walk, h, v, kHmax, kVmax, n, (h << 4 | v) == kShortcutSampling);
    });
}

template <class E>
void upsampleTo12(JpgParam *param) {
    forEachComponent(param, [](McuWalk &walk, uint32_t h, uint32_t v) {
        if (h * v != 1)
            return pointAtSource(walk, 2);
        E::down(walk.in, walk.out, walk.out + kBlockSize);
        finishExpanded(walk, 2);
    });
}

template <class E>
void upsampleTo21(JpgParam *param) {
    auto across = [](const int16_t *in, const int16_t *next, int16_t *out) {
        E::across(in, next, out, out + kBlockSize);
    };
    if (upsampleLumaChroma<0x21, 2>(param, across))
        return;
    forEachComponent(param, [](McuWalk &walk, uint32_t h, uint32_t v) {
        if (h * v != 1)
            return pointAtSource(walk, 2);
        E::across(walk.in, nextBlock(walk, 0), walk.out, walk.out + kBlockSize);
        finishExpanded(walk, 2);
    });
}

template <class E>
void upsampleTo22(JpgParam *param) {
    if (upsampleLumaChroma<0x22, 4>(param, E::both))
        return;
    forEachComponent(param, [](McuWalk &walk, uint32_t h, uint32_t v) {
        constexpr int kB = kBlockSize;
        const int16_t *in = walk.in;
        int16_t *out = walk.out;
        if (h == 2 && v == 2)
            return pointAtSource(walk, 4);
        if (h == 1 && v == 1) {
            E::both(in, nextBlock(walk, 0), out);
        } else if (h == 1) {  // 0x12: two blocks one above the other
            E::across(in, nextBlock(walk, 0), out, out + kB);
            E::across(in + kB, nextBlock(walk, 1), out + 2 * kB, out + 3 * kB);
        } else {  // 0x21: two blocks side by side
            E::down(in, out, out + 2 * kB);
            E::down(in + kB, out + kB, out + 3 * kB);
        }
        finishExpanded(walk, 4);
    });
}

}  // namespace

void doubleBothPortable(const int16_t *in, const int16_t *next, int16_t *out) {
    expandBlock<true, true>(in, next, 0, 0, out);
    expandBlock<true, true>(in, next, 0, 4, out + kBlockSize);
    expandBlock<true, true>(in, next, 4, 0, out + 2 * kBlockSize);
    expandBlock<true, true>(in, next, 4, 4, out + 3 * kBlockSize);
}

void doubleAcrossPortable(const int16_t *in, const int16_t *next, int16_t *left, int16_t *right) {
    expandBlock<true, false>(in, next, 0, 0, left);
    expandBlock<true, false>(in, next, 0, 4, right);
}

void doubleDownPortable(const int16_t *in, int16_t *upper, int16_t *lower) {
    expandBlock<false, true>(in, nullptr, 0, 0, upper);
    expandBlock<false, true>(in, nullptr, 4, 0, lower);
}

namespace {

// The upsamplers proper. The dispatch stores them in the handle's slots
// (the decode drivers call them once per MCU); the exported names add a
// guard. Kept out of line, so that each stays the one caller of its walk
// and the walk is inlined into it.
[[gnu::noinline]] void upsampleTo11(JpgParam *param) {
    uint32_t count = param->numComponents > 4 ? 4 : param->numComponents;
    bool plain = param->hmax >= 1 && param->vmax >= 1;
    for (uint32_t c = 0; c < count; c++)
        plain = plain && param->components[c].sampling == 0x11;
    if (!plain)
        return forEachComponent(param, [](McuWalk &walk, uint32_t, uint32_t) {
            pointAtSource(walk, 1);
        });
    // Every factor 1: one block per component, pointed at in place.
    for (uint32_t c = 0; c < count; c++)
        param->blockPointers[c * param->hv] = param->mcuBuffer + kBlockSize * c;
}

[[gnu::noinline]] void portableTo12(JpgParam *param) { upsampleTo12<PortableExpanders>(param); }
[[gnu::noinline]] void portableTo21(JpgParam *param) { upsampleTo21<PortableExpanders>(param); }
[[gnu::noinline]] void portableTo22(JpgParam *param) { upsampleTo22<PortableExpanders>(param); }

[[gnu::noinline]] void upsampleToNN(JpgParam *param) {
    uint32_t hmax = param->hmax, vmax = param->vmax;
    forEachComponent(param, [hmax, vmax](McuWalk &walk, uint32_t h, uint32_t v) {
        if (h == hmax && v == vmax)
            return pointAtSource(walk, hmax * vmax);
        GeneralExpander(walk, h, v, hmax, vmax).run();
        finishExpanded(walk, hmax * vmax);
    });
}

[[gnu::noinline]] void upsampleScaledTo22(JpgParam *param) { upsampleScaledFixed<2, 2, 0x12>(param); }
[[gnu::noinline]] void upsampleScaledTo21(JpgParam *param) { upsampleScaledFixed<2, 1, 0x11>(param); }
[[gnu::noinline]] void upsampleScaledTo12(JpgParam *param) { upsampleScaledFixed<1, 2, 0x11>(param); }

[[gnu::noinline]] void upsampleScaledToNN(JpgParam *param) {
    uint32_t hmax = param->hmax, vmax = param->vmax, n = scaledBlockSize(param);
    forEachComponent(param, [hmax, vmax, n](McuWalk &walk, uint32_t h, uint32_t v) {
        if (h == hmax && v == vmax)
            return pointAtSource(walk, hmax * vmax);
        replicateScaled(walk, h, v, hmax, vmax, n, true);
    });
}

struct UpsamplerPair {
    JpgUpSamplingFunc exported;
    void (*internal)(JpgParam *);
};

}  // namespace
}  // namespace kiv

extern "C" {

// The exported upsamplers are building blocks without a status: on a handle
// that is no decoder with MCU buffers they return without touching anything.
#define KIV_UPSAMPLER(name, internal)                                                       \
    void name(JpgParam *param) {                                                            \
        if (kiv::mayRead(param) && param->mcuBuffer != nullptr &&                           \
            param->blockPointers != nullptr && param->dec.upsampleBuffer != nullptr)        \
            kiv::internal(param);                                                           \
    }

KIV_UPSAMPLER(jpgReadUpSamplingTo11, upsampleTo11)
KIV_UPSAMPLER(jpgReadUpSamplingTo12, portableTo12)
KIV_UPSAMPLER(jpgReadUpSamplingTo21, portableTo21)
KIV_UPSAMPLER(jpgReadUpSamplingTo22, portableTo22)
KIV_UPSAMPLER(jpgReadUpSamplingToNN, upsampleToNN)
KIV_UPSAMPLER(jpgReadScaleOutputUpSamplingTo22, upsampleScaledTo22)
KIV_UPSAMPLER(jpgReadScaleOutputUpSamplingTo21, upsampleScaledTo21)
KIV_UPSAMPLER(jpgReadScaleOutputUpSamplingTo12, upsampleScaledTo12)
KIV_UPSAMPLER(jpgReadScaleOutputUpSamplingToNN, upsampleScaledToNN)

#undef KIV_UPSAMPLER

JpgUpSamplingFunc jpgGetUpSamplingGenericFunc(uint32_t id) {
    switch (id) {
    case 0x10100: return jpgReadUpSamplingTo11;
    case 0x10200: return jpgReadUpSamplingTo12;
    case 0x20100: return jpgReadUpSamplingTo21;
    case 0x20200: return jpgReadUpSamplingTo22;
    case 0x80010100: return jpgReadUpSamplingTo11;
    case 0x80010200: return jpgReadScaleOutputUpSamplingTo12;
    case 0x80020100: return jpgReadScaleOutputUpSamplingTo21;
    case 0x80020200: return jpgReadScaleOutputUpSamplingTo22;
    default: return (id & 0x80000000u) != 0 ? jpgReadScaleOutputUpSamplingToNN : jpgReadUpSamplingToNN;
    }
}

}  // extern "C"

namespace kiv {

JpgUpSamplingFunc slotUpsampler(JpgUpSamplingFunc exported) {
    static constexpr UpsamplerPair kPairs[] = {
        {jpgReadUpSamplingTo11, upsampleTo11},
        {jpgReadUpSamplingTo12, portableTo12},
        {jpgReadUpSamplingTo21, portableTo21},
        {jpgReadUpSamplingTo22, portableTo22},
        {jpgReadUpSamplingToNN, upsampleToNN},
        {jpgReadScaleOutputUpSamplingTo22, upsampleScaledTo22},
        {jpgReadScaleOutputUpSamplingTo21, upsampleScaledTo21},
        {jpgReadScaleOutputUpSamplingTo12, upsampleScaledTo12},
        {jpgReadScaleOutputUpSamplingToNN, upsampleScaledToNN},
    };
    for (const UpsamplerPair &p : kPairs)
        if (p.exported == exported)
            return p.internal;
    return exported;
}


JpgUpSamplingFunc upSamplingFor(uint32_t id, SimdLevel level) {
#if KIV_HAVE_SSE2_UPSAMPLING
    if (level != SimdLevel::Portable) {
        switch (id) {
        case 0x10200: return upsampleTo12<Sse2Expanders>;
        case 0x20100: return upsampleTo21<Sse2Expanders>;
        case 0x20200: return upsampleTo22<Sse2Expanders>;
        default: break;
        }
    }
#endif
    return nullptr;
}

bool pointsInPlace(JpgUpSamplingFunc routine) {
    return routine == jpgReadUpSamplingTo11 || routine == upsampleTo11;
}

bool doublesChromaRows(JpgUpSamplingFunc routine) {
    if (routine == jpgReadUpSamplingTo22 || routine == jpgReadUpSamplingTo12 || routine == portableTo22 ||
        routine == portableTo12)
        return true;
#if KIV_HAVE_SSE2_UPSAMPLING
    return routine == upsampleTo22<Sse2Expanders> || routine == upsampleTo12<Sse2Expanders>;
#else
    return false;
#endif
}

}  // namespace kiv
