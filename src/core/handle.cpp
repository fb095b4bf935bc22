// Codec handle lifecycle: creation, validation, release, and the size of
// the coefficient store. A pointer field of the handle is non-null exactly
// when the handle owns its block, so a handle can be torn down from any state.
#include <string.h>

#include "core/codec.h"

extern "C" {

JpgParam *jpgProlog(const char *name) {
    if (name != nullptr && complibLibCstrlen(name) >= sizeof(ComplibBitstream::path))
        return nullptr;
    auto *param = static_cast<JpgParam *>(complibMemAlloc(sizeof(JpgParam)));
    if (param == nullptr)
        return nullptr;
    jpgInitParam(param);
    if (name != nullptr)
        complibLibCstrcpy(param->bs.path, name);
    return param;
}

// Every field in front of the 64 KiB input buffer and behind it is cleared,
// which covers the routine slots, the owned pointers and the decode-state
// words that must start at zero; the buffer itself is written before it is read.
void jpgInitParam(JpgParam *param) {
    memset(param, 0, offsetof(JpgParam, input));
    memset(reinterpret_cast<uint8_t *>(param) + offsetof(JpgParam, xDensity), 0,
           sizeof(JpgParam) - offsetof(JpgParam, xDensity));
    param->magic = kJpgMagic;
    param->size = sizeof(JpgParam);
    param->version[0] = 4;
    param->version[1] = 0;
    param->version[2] = 6;
    param->version[3] = 'j';
    param->scaleLevel = -1;
}

JpgParam *jpgCheckParam(JpgParam *param) {
    if (param == nullptr || param->magic != kJpgMagic || param->size != sizeof(JpgParam))
        return nullptr;
    return param;
}

JpgStatus jpgEpilog(JpgParam *param) {
    auto release = [param](auto *&ptr) {
        jpgMemFree(param, ptr);
        ptr = nullptr;
    };
    auto releaseLeading = [&](JpgHuffmanTable &t) {
        release(t.codes);
        release(t.encoderSpare);
        release(t.symbolIndex);
        release(t.encoderTable);
    };
    for (int id = 0; id < 4; id++) {
        releaseLeading(param->dcTables[id]);
        releaseLeading(param->acTables[id]);
        for (int level = 0; level < 3; level++) {
            release(param->dcTables[id].level[level].entries);
            release(param->acTables[id].level[level].entries);
        }
    }
    // The decode allocation starts at the lower of the two MCU buffers.
    if ((param->mode & kModeRead) && param->mcuBuffer != nullptr &&
        param->dec.mcuNext != nullptr && param->dec.mcuNext < param->mcuBuffer)
        param->mcuBuffer = param->dec.mcuNext;
    release(param->mcuBuffer);
    release(param->blockPointers);
    release(param->blockMap);
    release(param->spareBuffer);
    release(param->losslessLine);
    // A memory output nobody took over (the epilog to memory hands it out
    // and clears the pointer); a memory input belongs to the caller.
    if ((param->bs.flags & COMPLIB_BS_MEMORY) && (param->bs.flags & COMPLIB_BS_WRITE))
        release(param->bs.memCursor);
    complibCloseBitstreamFile(&param->bs);
    param->magic = 0;
    param->size = 0;
    return jpgMemFree(param, param);
}

void *jpgMemAlloc(JpgParam *, uint32_t size) { return complibMemAlloc(size); }

JpgStatus jpgMemFree(JpgParam *, void *ptr) { return complibMemFree(ptr); }

// Coefficients (64 per block) of the store for the given number of lines;
// saturates instead of wrapping, so no caller can size a short buffer by it.
uint32_t jpgGetJPEGBlockMemorySize(JpgParam *param, uint32_t lines) {
    if (param->numComponents < 1 || param->mcuHeight == 0)
        return 0;
    uint64_t mcuRows = (static_cast<uint64_t>(lines) + param->mcuHeight - 1) / param->mcuHeight;
    uint64_t blocks = 0;
    uint32_t n = param->numComponents < 4 ? param->numComponents : 4;
    for (uint32_t c = 0; c < n; c++)
        blocks += mcuRows * param->mcusPerRow * kiv::storedBlocks(param->components[c].sampling);
    uint64_t coefficients = blocks * 64;
    return coefficients > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(coefficients);
}

}  // extern "C"
