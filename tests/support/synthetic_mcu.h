// A read handle with hand-set frame geometry and MCU buffers laid out as the
// header parser lays them out, for testing the pixel stages (upsampling,
// colour conversion, scaled output) without a stream.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "core/handle.h"

namespace kivtest {

class SyntheticFrame {
public:
    // One sampling byte per component (H << 4 | V); level -1..3.
    explicit SyntheticFrame(const std::vector<uint8_t> &samplings, int32_t level = 3) {
        p = jpgProlog(nullptr);
        p->mode |= kModeRead;
        p->precision = 8;
        p->scaleLevel = level;
        p->numComponents = static_cast<uint32_t>(samplings.size());
        p->hmax = p->vmax = 1;
        p->samplingFactors = 0;
        uint32_t blocks = 0;
        for (size_t c = 0; c < samplings.size(); c++) {
            uint32_t h = samplings[c] >> 4, v = samplings[c] & 15;
            p->components[c].sampling = samplings[c];
            p->components[c].blocks = h * v;
            offsets.push_back(blocks);
            blocks += h * v;
            p->hmax = std::max(p->hmax, h);
            p->vmax = std::max(p->vmax, v);
            p->samplingFactors = (p->samplingFactors << 8) | samplings[c];
        }
        p->hv = p->hmax * p->vmax;
        p->blocksPerMcu = blocks;
        p->componentsHV = p->numComponents * p->hv;
        p->upsampleBlocks = 4 * p->hv;
        p->mcuWidth = 8 * p->hmax;
        p->mcuHeight = 8 * p->vmax;
        uint32_t total = 2 * blocks + 4 * p->hv + blocks;
        p->mcuBuffer = static_cast<int16_t *>(jpgMemAlloc(p, total * 128));
        std::fill(p->mcuBuffer, p->mcuBuffer + total * 64, int16_t(-1));
        next = p->mcuBuffer + 64 * blocks;
        p->dec.mcuNext = next;
        p->dec.upsampleBuffer = p->mcuBuffer + 128 * blocks;
        p->blockPointers = static_cast<int16_t **>(jpgMemAlloc(p, 4 * p->hv * sizeof(int16_t *)));
        p->blockMap = static_cast<uint32_t *>(jpgMemAlloc(p, 4 * p->hv * sizeof(uint32_t)));
        for (uint32_t pos = 0; pos < p->hv; pos++)
            for (uint32_t c = 0; c < 4; c++)
                p->blockMap[4 * pos + c] = c * p->hv + pos;
    }
    ~SyntheticFrame() { jpgEpilog(p); }
    SyntheticFrame(const SyntheticFrame &) = delete;
    SyntheticFrame &operator=(const SyntheticFrame &) = delete;

    // Block b of component c in the current (or the next) MCU buffer.
    int16_t *block(uint32_t c, uint32_t b, bool inNext = false) const {
        return (inNext ? next : p->mcuBuffer) + 64 * (offsets[c] + b);
    }
    void setNext(bool present) { p->dec.mcuNext = present ? next : nullptr; }

    // Sample (y, x) of component c laid out as H x V blocks of n x n samples
    // with row stride 8 (n = 8 full size, 1 << level scaled).
    int16_t &sample(uint32_t c, uint32_t y, uint32_t x, uint32_t n = 8, bool inNext = false) const {
        uint32_t h = p->components[c].sampling >> 4;
        return block(c, (y / n) * h + x / n, inNext)[8 * (y % n) + x % n];
    }

    // Sample (y, x) of component c after upsampling, through the block map and
    // block pointer table as the converters read it.
    int16_t upsampled(uint32_t c, uint32_t y, uint32_t x, uint32_t n = 8) const {
        uint32_t pos = (y / n) * p->hmax + x / n;
        return p->blockPointers[p->blockMap[4 * pos + c]][8 * (y % n) + x % n];
    }

    JpgParam *p;
    int16_t *next;
    std::vector<uint32_t> offsets;
};

}  // namespace kivtest
