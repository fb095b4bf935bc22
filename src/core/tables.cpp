// The two exported read-only tables, generated from their definitions in
// tables.h: PixClipTable (level shift and clamp of IDCT output) and
// tableTestShift (EXTEND pairs).
#include "core/tables.h"

#include "kivjpeg.h"

namespace {

constexpr kiv::Table<uint16_t, 1024> makeClip() {
    kiv::Table<uint16_t, 1024> t{};
    for (int i = 0; i < 1024; i++)
        t.v[i] = kiv::clipEntry(i);
    return t;
}
constexpr auto kClip = makeClip();
static_assert(kClip[0] == 128 && kClip[127] == 255 && kClip[512] == 0 && kClip[1023] == 127);

}  // namespace

extern "C" {

#define KIV_CLIP_ROW(i) kClip[i], kClip[i + 1], kClip[i + 2], kClip[i + 3], \
    kClip[i + 4], kClip[i + 5], kClip[i + 6], kClip[i + 7]
#define KIV_CLIP_64(i) KIV_CLIP_ROW(i), KIV_CLIP_ROW(i + 8), KIV_CLIP_ROW(i + 16), \
    KIV_CLIP_ROW(i + 24), KIV_CLIP_ROW(i + 32), KIV_CLIP_ROW(i + 40), KIV_CLIP_ROW(i + 48), \
    KIV_CLIP_ROW(i + 56)
#define KIV_CLIP_256(i) KIV_CLIP_64(i), KIV_CLIP_64(i + 64), KIV_CLIP_64(i + 128), \
    KIV_CLIP_64(i + 192)

KIV_API extern const uint16_t PixClipTable[1024] = {
    KIV_CLIP_256(0), KIV_CLIP_256(256), KIV_CLIP_256(512), KIV_CLIP_256(768)};

#define KIV_SHIFT_PAIR(s) {kiv::extendThreshold(s), kiv::extendOffset(s)}

KIV_API extern const int32_t tableTestShift[17][2] = {
    KIV_SHIFT_PAIR(0),  KIV_SHIFT_PAIR(1),  KIV_SHIFT_PAIR(2),  KIV_SHIFT_PAIR(3),
    KIV_SHIFT_PAIR(4),  KIV_SHIFT_PAIR(5),  KIV_SHIFT_PAIR(6),  KIV_SHIFT_PAIR(7),
    KIV_SHIFT_PAIR(8),  KIV_SHIFT_PAIR(9),  KIV_SHIFT_PAIR(10), KIV_SHIFT_PAIR(11),
    KIV_SHIFT_PAIR(12), KIV_SHIFT_PAIR(13), KIV_SHIFT_PAIR(14), KIV_SHIFT_PAIR(15),
    KIV_SHIFT_PAIR(16)};

}  // extern "C"
