// Tables shared by several stages, derived at compile time from the
// standard's data: the zig-zag order (ISO/IEC 10918-1 Figure A.6) with its
// 16-entry tail, EXTEND as a table (Annex F.2.2.1) and the sample clip table.
#pragma once

#include <stdint.h>

namespace kiv {

template <typename T, int N>
struct Table {
    T v[N];
    constexpr const T &operator[](int i) const { return v[i]; }
};

// Zig-zag index -> natural (row-major) index, walking the anti-diagonals.
// Entries 64 to 79 repeat the first sixteen, so that a run overshooting the
// band in corrupt data stays inside the table.
constexpr Table<uint32_t, 80> makeZigzag() {
    Table<uint32_t, 80> t{};
    int k = 0;
    for (int d = 0; d < 15; d++) {
        for (int i = 0; i <= d; i++) {
            int row = d % 2 == 0 ? d - i : i;
            int col = d - row;
            if (row < 8 && col < 8)
                t.v[k++] = static_cast<uint32_t>(row * 8 + col);
        }
    }
    for (int i = 0; i < 16; i++)
        t.v[64 + i] = t.v[i];
    return t;
}
inline constexpr Table<uint32_t, 80> kZigzag = makeZigzag();

constexpr Table<uint8_t, 64> makeNaturalToZigzag() {
    Table<uint8_t, 64> t{};
    for (int k = 0; k < 64; k++)
        t.v[kZigzag[k]] = static_cast<uint8_t>(k);
    return t;
}
inline constexpr Table<uint8_t, 64> kNaturalToZigzag = makeNaturalToZigzag();

static_assert(kZigzag[0] == 0 && kZigzag[1] == 1 && kZigzag[2] == 8 && kZigzag[3] == 16 &&
              kZigzag[4] == 9 && kZigzag[5] == 2 && kZigzag[62] == 62 && kZigzag[63] == 63);

// EXTEND pairs for magnitude size s: (2^(s-1), 1 - 2^s); pair 0 is (0, 0).
constexpr int32_t extendThreshold(int s) { return s == 0 ? 0 : 1 << (s - 1); }
constexpr int32_t extendOffset(int s) { return s == 0 ? 0 : static_cast<int32_t>(1 - (1ll << s)); }

// EXTEND of the raw s-bit magnitude v (Annex F.2.2.1).
constexpr int32_t extend(int32_t v, int s) { return v < extendThreshold(s) ? v + extendOffset(s) : v; }

static_assert(extend(0, 1) == -1 && extend(1, 1) == 1 && extend(0, 3) == -7 && extend(4, 3) == 4);

// Level shift by +128 and clamp to 0..255, indexed by a sample taken modulo
// 1024 (its low ten bits, as a signed value -512..511).
constexpr uint16_t clipEntry(int index) {
    int v = index < 512 ? index : index - 1024;
    v += 128;
    return static_cast<uint16_t>(v < 0 ? 0 : v > 255 ? 255 : v);
}

}  // namespace kiv
