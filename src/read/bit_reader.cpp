// Entropy-coded segment reader: bits of the compressed stream through the
// handle's 64 KiB input buffer into a left-aligned 32-bit accumulator. Raw
// reads (marker segments, marker codes) take bytes as they are; entropy-coded
// reads drop the zero byte stuffed after 0xFF (ISO/IEC 10918-1 F.1.2.3).
// The reader never stops at a marker by itself: callers know where they stand.
#include "core/api_checks.h"
#include "read/bit_reader.h"

namespace {

// Raw load: whole bytes, no stuffing treatment, until n (at most 24) bits are held.
void loadRawBits(JpgParam *param, int32_t n) {
    uint32_t acc = param->bs.accumulator;
    int32_t count = param->bs.bitCount;
    while (count < n)
        kiv::mergeByte(acc, count, kiv::takeInputByte(param));
    param->bs.accumulator = acc;
    param->bs.bitCount = count;
}

int32_t clampBits(int32_t n, int32_t most) { return n < 1 ? 1 : n > most ? most : n; }

// Bytes a file stream may still deliver before its end (the prolog may end
// the stream before the end of the file).
uint32_t fileBytesLeft(ComplibBitstream &bs, uint32_t wanted) {
    int32_t position = complibSeekFile(bs.fd, 0, 1);
    if (position < 0 || bs.fileSize == 0)
        return wanted;
    uint32_t at = static_cast<uint32_t>(position);
    uint32_t left = bs.fileSize > at ? bs.fileSize - at : 0;
    return left < wanted ? left : wanted;
}

}  // namespace

extern "C" {

uint32_t jpgReadFillBuffer(JpgParam *param) {
    if (!kiv::mayRead(param))
        return 0;
    ComplibBitstream &bs = param->bs;
    if (bs.state != 0) {
        bs.state = 1;
        return 0;
    }
    uint32_t wanted = kInputBufferSize;
    if (!(bs.flags & COMPLIB_BS_MEMORY))
        wanted = fileBytesLeft(bs, wanted);
    int32_t got = wanted > 0 ? complibReadBitstreamFile(&bs, param->input, wanted) : 0;
    if (got < 1) {
        bs.state = 2;
        return 0;
    }
    bs.bytesLoaded += static_cast<uint32_t>(got);
    bs.fill = static_cast<uint32_t>(got);
    bs.readPos = 1;
    return 1;
}

uint32_t jpgReadShowBits(JpgParam *param, int32_t n) {
    if (!kiv::mayRead(param))
        return 0;
    n = clampBits(n, 16);
    kiv::loadEntropyBits(param, param->bs.accumulator, param->bs.bitCount, n);
    return param->bs.accumulator >> (32 - n);
}

uint32_t jpgReadGetBits(JpgParam *param, int32_t n) {
    if (!kiv::mayRead(param))
        return 0;
    n = clampBits(n, 16);
    uint32_t value = jpgReadShowBits(param, n);
    param->bs.accumulator = n < 32 ? param->bs.accumulator << n : 0;
    param->bs.bitCount -= n;
    return value;
}

void jpgReadFlushBits(JpgParam *param) {
    if (!kiv::mayRead(param))
        return;
    int32_t k = param->bs.bitCount % 8;
    if (k > 0)
        jpgReadGetBits(param, k);
}

uint32_t jpgReadGetBytes(JpgParam *param, int32_t n) {
    if (!kiv::mayRead(param))
        return 0;
    n = clampBits(n, 24);
    loadRawBits(param, n);
    uint32_t value = param->bs.accumulator >> (32 - n);
    param->bs.accumulator <<= n;
    param->bs.bitCount -= n;
    return value;
}

uint32_t jpgReadShowRawBits(JpgParam *param, int32_t n) {
    if (!kiv::mayRead(param))
        return 0;
    n = clampBits(n, 24);
    loadRawBits(param, n);
    return param->bs.accumulator >> (32 - n);
}

uint32_t jpgReadShowMarkerCode(JpgParam *param) {
    if (!kiv::mayRead(param))
        return 0;
    int32_t k = param->bs.bitCount % 8;
    uint32_t b = jpgReadShowRawBits(param, k + 8) & 0xFF;
    if (b != 0xFF)
        return b;
    return jpgReadShowRawBits(param, k + 16) & 0xFFFF;
}

void jpgReadFlushMarkerCode(JpgParam *param) {
    if (!kiv::mayRead(param))
        return;
    int32_t n = param->bs.bitCount % 8 + 16;
    loadRawBits(param, n);
    param->bs.accumulator <<= n;
    param->bs.bitCount -= n;
}

// Puts the byte after a stuffed 0xFF 0x00 where the 0x00 stood: the last
// eight bits held.
uint32_t jpgReadDeleteByteStuffingCode(JpgParam *param) {
    if (!kiv::mayRead(param))
        return 0;
    uint32_t byte = kiv::takeInputByte(param);
    int32_t shift = 32 - param->bs.bitCount;
    if (shift < 0 || shift > 31)
        return 0;
    uint32_t merged = byte << shift;
    param->bs.accumulator |= merged;
    return merged;
}

uint32_t jpgReadGetJPEGFileOffset(ComplibBitstream *bs) {
    if (bs == nullptr)
        return 0;
    return bs->bytesLoaded - bs->fill + bs->readPos + 2;
}

JpgStatus jpgReadRewindJPEGFile(JpgParam *param, uint32_t offset, int32_t mode) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (mode == 1) {
        for (int c = 3; c >= 0; c--)
            param->components[c].dcPred = 0;
        param->currentMarker = 0;
        param->mcuAddress = 0;
        param->eobRun = 0;
        param->processedLines = 0;
        param->mcusLeft = param->totalMcus;
    }
    param->segmentLength = 0;
    param->segmentConsumed = 0;
    ComplibBitstream &bs = param->bs;
    bs.bytesLoaded = bs.fileBase;
    bs.fill = 0;
    bs.bitCount = 0;
    bs.readPos = 0;
    bs.state = 0;
    bs.accumulator = 0;
    if (complibSeekBitstreamFile(&bs, static_cast<int32_t>(offset), 0) == -1)
        return JPG_STATUS_SEEK_FAILED;
    return JPG_STATUS_OK;
}

}  // extern "C"
