// How a scan's blocks are walked through the coefficient store (ISO/IEC
// 10918-1 A.2.2, A.2.3): the scan's block decoder (progressive bands,
// sequential blocks) is handed each block where it is stored, MCU after MCU
// for an interleaved scan, in raster order over the component's own area
// for a scan of one component. The decoder keeps the bit reader's state for
// the whole scan, giving it back to the handle around restart processing.
//
// A decoder provides block(block, component) -> status, suspend() (its
// reader state into the handle), resume() (from the handle) and
// inputEnded(). The walk stops after the first block or MCU in which the
// input ended, so that later blocks keep what earlier scans gave them.
#pragma once

#include <string.h>

#include "core/codec.h"
#include "read/front_end.h"

namespace kiv {

constexpr size_t kStoreBlock = 64;  // coefficients per block

inline size_t storeCoefficientsPerMcu(const JpgParam *param) {
    return static_cast<size_t>(param->blocksPerMcu) * kStoreBlock;
}

inline int16_t *storeMcu(const JpgParam *param, size_t mcu) {
    return param->dec.coefBase + mcu * storeCoefficientsPerMcu(param);
}

// Clears MCU row `row` of the store and marks it cleared. The store is
// cleared lazily, so that a short stream declaring a huge frame touches only
// the rows its scans store something into; a row not yet cleared reads as
// all zeros, whatever its memory holds.
void clearStoreRow(JpgParam *param, uint32_t row);

namespace detail {

inline uint32_t samplingBlocks(uint8_t sampling) { return (sampling >> 4) * (sampling & 0x0Fu); }

inline bool blockIsZero(const int16_t *block) {
    int16_t any = 0;
    for (size_t n = 0; n < kStoreBlock; n++)
        any |= block[n];
    return any == 0;
}

// A scan's stand-in for the blocks of rows not yet cleared: all zeros
// between blocks, as those blocks read. Only a result with a non-zero
// coefficient clears the row and is stored, whatever status the decoder
// returned.
template <class Decoder>
[[gnu::always_inline]] inline JpgStatus decodeStoredBlock(JpgParam *param, Decoder &decoder, uint32_t row,
                                                          int16_t *block, JpgComponent *comp, int16_t *empty) {
    if (param->dec.rowsCleared[row] != 0)
        return decoder.block(block, comp);
    JpgStatus status = decoder.block(empty, comp);
    if (!blockIsZero(empty)) {
        clearStoreRow(param, row);
        memcpy(block, empty, kStoreBlock * sizeof(int16_t));
        memset(empty, 0, kStoreBlock * sizeof(int16_t));
    }
    return status;
}

// After each restart unit (an MCU; a block of a one-component scan): the
// input's end stops the scan, and the restart processing may find the
// scan's data ended (*ended), which the marker behind it then settles.
template <class Decoder>
inline JpgStatus afterUnit(JpgParam *param, Decoder &decoder, bool last, bool *ended) {
    if (decoder.inputEnded())
        return JPG_STATUS_UNEXPECTED_END;
    if (last)
        return JPG_STATUS_OK;
    ++param->mcuAddress;
    if (param->restartInterval == 0 || param->mcuAddress < param->restartInterval)
        return JPG_STATUS_OK;
    decoder.suspend();
    *ended = !startNextInterval(param);
    decoder.resume();
    return JPG_STATUS_OK;
}

template <class Decoder>
JpgStatus walkInterleaved(JpgParam *param, Decoder &decoder) {
    const uint32_t ns = param->scanNs;
    JpgComponent *comps[4];
    uint32_t start[4], blocks[4];
    for (uint32_t i = 0; i < ns; i++) {
        comps[i] = &param->components[param->dec.scanComponents[i]];
        start[i] = param->dec.scanBlockStart[i];
        blocks[i] = samplingBlocks(comps[i]->sampling);
        if (start[i] + blocks[i] > param->blocksPerMcu)
            return JPG_STATUS_BAD_DATA;
    }
    const uint32_t total = param->totalMcus;
    int16_t empty[kStoreBlock] = {};
    bool ended = false;
    for (uint32_t mcu = 0; mcu < total && !ended; mcu++) {
        const uint32_t row = mcu / param->mcusPerRow;
        int16_t *base = storeMcu(param, mcu);
        for (uint32_t i = 0; i < ns; i++) {
            int16_t *block = base + start[i] * kStoreBlock;
            for (uint32_t b = 0; b < blocks[i]; b++, block += kStoreBlock) {
                JpgStatus status = decodeStoredBlock(param, decoder, row, block, comps[i], empty);
                if (status != JPG_STATUS_OK)
                    return status;
            }
        }
        JpgStatus status = afterUnit(param, decoder, mcu + 1 == total, &ended);
        if (status != JPG_STATUS_OK)
            return status;
    }
    return JPG_STATUS_OK;
}

template <class Decoder>
JpgStatus walkSingleComponent(JpgParam *param, Decoder &decoder) {
    JpgComponent *comp = &param->components[param->dec.scanComponents[0]];
    const uint32_t h = comp->sampling >> 4, v = comp->sampling & 0x0F;
    const uint32_t offset = param->dec.scanBlockStart[0];
    const uint64_t wide = ((static_cast<uint64_t>(param->width) * h + param->hmax - 1) / param->hmax + 7) / 8;
    const uint64_t high = ((static_cast<uint64_t>(param->height) * v + param->vmax - 1) / param->vmax + 7) / 8;
    if (h == 0 || v == 0 || offset + h * v > param->blocksPerMcu ||
        wide > static_cast<uint64_t>(param->mcusPerRow) * h || high > static_cast<uint64_t>(param->mcuRows) * v)
        return JPG_STATUS_BAD_DATA;
    int16_t empty[kStoreBlock] = {};
    bool ended = false;
    for (uint32_t by = 0; by < high && !ended; by++) {
        const uint32_t row = by / v;
        int16_t *rowBase = storeMcu(param, static_cast<size_t>(row) * param->mcusPerRow) +
                           (offset + (by % v) * h) * kStoreBlock;
        for (uint32_t bx = 0; bx < wide && !ended; bx++) {
            int16_t *block = rowBase + ((bx / h) * storeCoefficientsPerMcu(param) + (bx % h) * kStoreBlock);
            JpgStatus status = decodeStoredBlock(param, decoder, row, block, comp, empty);
            if (status == JPG_STATUS_OK)
                status = afterUnit(param, decoder, by + 1 == high && bx + 1 == wide, &ended);
            if (status != JPG_STATUS_OK)
                return status;
        }
    }
    return JPG_STATUS_OK;
}

}  // namespace detail

// Decodes the current scan into the store with `decoder`, whose reader
// state is in the handle again when this returns.
template <class Decoder>
JpgStatus walkScan(JpgParam *param, Decoder &decoder) {
    JpgStatus status = param->scanNs == 1 ? detail::walkSingleComponent(param, decoder)
                                          : detail::walkInterleaved(param, decoder);
    decoder.suspend();
    return status;
}

// The scan decoders of the two kinds of frames that use the store: the
// progressive bands of Annex G (progressive_coefficients.cpp) and the whole
// blocks of sequential scans (baseline_coefficients.cpp).
JpgStatus decodeProgressiveScan(JpgParam *param);
JpgStatus decodeSequentialScan(JpgParam *param);

}  // namespace kiv
