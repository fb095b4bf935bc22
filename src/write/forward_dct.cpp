// Forward DCT of the baseline encoder (ISO/IEC 10918-1 A.3.3): one 8x8 block
// of level-shifted samples becomes 8 x its DCT coefficients, in place, by
// two passes of the same eight-point factorisation (eleven multiplications
// with 12-bit constants, the 1/sqrt(2) products rounded inside the pass),
// first down the columns into a 32-bit work area, then along its rows.
#include "write/encoder.h"

namespace {

// Constants scaled by 4096, in order of use.
constexpr int32_t kC2217 = 2217;  // even rotation: 0.541196
constexpr int32_t kC3135 = 3135;  // 0.765367
constexpr int32_t kC7569 = 7569;  // 1.847759
constexpr int32_t kC2896 = 2896;  // 1/sqrt(2)
constexpr int32_t kC1130 = 1130;  // rotation by pi/16
constexpr int32_t kC4551 = 4551;
constexpr int32_t kC6811 = 6811;
constexpr int32_t kC4816 = 4816;  // rotation by 3 pi/16
constexpr int32_t kC8034 = 8034;
constexpr int32_t kC1598 = 1598;

constexpr int32_t round12(int32_t y) { return (y + 2048) >> 12; }

// The two passes differ only in how they scale their results: the column
// pass keeps three extra bits, the row pass removes them.
struct ColumnPass {
    static int32_t whole(int32_t v) { return v * 8; }
    static int32_t scaled(int32_t v) { return (v + 256) >> 9; }
};
struct RowPass {
    static int32_t whole(int32_t v) { return (v + 4) >> 3; }
    static int32_t scaled(int32_t v) { return (v + 16384) >> 15; }
};

// One eight-point pass over in[0], in[step], ... into out[0], out[step], ...
template <typename Pass, typename In, typename Out>
void transform8(const In *in, Out *out, int step) {
    int32_t x[8];
    for (int i = 0; i < 8; i++)
        x[i] = in[i * step];
    int32_t s07 = x[0] + x[7], s16 = x[1] + x[6], s25 = x[2] + x[5], s34 = x[3] + x[4];
    int32_t a = s07 + s34, b = s16 + s25, d = s07 - s34, e = s16 - s25;
    int32_t z = kC2217 * (d + e);

    int32_t t07 = x[0] - x[7], t16 = x[1] - x[6], t25 = x[2] - x[5], t34 = x[3] - x[4];
    int32_t p = round12(kC2896 * (t16 - t25));
    int32_t r = round12(kC2896 * (t16 + t25));
    int32_t u = t34 + p, w = t34 - p, g = t07 + r, h = t07 - r;
    int32_t k1 = kC1130 * (u + g);
    int32_t k2 = kC4816 * (h + w);

    out[0 * step] = static_cast<Out>(Pass::whole(a + b));
    out[4 * step] = static_cast<Out>(Pass::whole(a - b));
    out[2 * step] = static_cast<Out>(Pass::scaled(kC3135 * d + z));
    out[6 * step] = static_cast<Out>(Pass::scaled(z - kC7569 * e));
    out[1 * step] = static_cast<Out>(Pass::scaled(kC4551 * g + k1));
    out[7 * step] = static_cast<Out>(Pass::scaled(k1 - kC6811 * u));
    out[3 * step] = static_cast<Out>(Pass::scaled(k2 - kC8034 * w));
    out[5 * step] = static_cast<Out>(Pass::scaled(k2 - kC1598 * h));
}

}  // namespace

extern "C" {

void complibIntFDCT8x8(int16_t *block) {
    int32_t work[64];
    for (int col = 0; col < 8; col++)
        transform8<ColumnPass>(block + col, work + col, 8);
    for (int row = 0; row < 8; row++)
        transform8<RowPass>(work + 8 * row, block + 8 * row, 1);
}

}  // extern "C"
