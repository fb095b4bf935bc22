// Bit writer of the encoder: packs codes and extra bits, most significant
// first, into a 32-bit accumulator, moves each complete word to the 64 KiB
// staging buffer (count bs->fill) with byte stuffing (ISO/IEC 10918-1
// B.1.1.5) and hands full buffers to the output; markers follow the pending
// bits padded with 1-bits (F.1.2.3). A short write sets bs->state to 2.
#include <string.h>

#include "write/encoder.h"

namespace {

using kiv::kStagingSize;

constexpr uint32_t kFastRoom = kStagingSize - 9;  // room for eight bytes: 65527
constexpr uint32_t kGrowthStep = 0x10000;

uint32_t shiftLeft(uint32_t v, int32_t n) { return n >= 32 ? 0 : v << n; }
uint32_t shiftRight(uint32_t v, int32_t n) { return n >= 32 ? 0 : v >> n; }

// A memory output grows here, before the bytes are handed over, by at least
// one growth step and at least half its size (so a long stream is copied a
// bounded number of times). A growth that fails keeps the old block: what
// was already written stays with the stream.
bool reserveMemory(ComplibBitstream *bs, uint32_t length) {
    uint64_t need = static_cast<uint64_t>(bs->memLength) + length;
    if (need <= bs->memCapacity)
        return true;
    uint64_t step = bs->memOffset > kGrowthStep ? bs->memOffset : kGrowthStep;
    if (step < bs->memCapacity / 2)
        step = bs->memCapacity / 2;
    uint64_t capacity = static_cast<uint64_t>(bs->memCapacity) + step;
    if (capacity < need)
        capacity = need;
    capacity = (capacity + kGrowthStep - 1) & ~static_cast<uint64_t>(kGrowthStep - 1);
    if (capacity > 0xFFFF0000u)
        return false;
    void *block = complibMemReAlloc(bs->memCursor, static_cast<uint32_t>(capacity));
    if (block == nullptr)
        return false;
    bs->memCursor = static_cast<uint8_t *>(block);
    bs->memCapacity = static_cast<uint32_t>(capacity);
    return true;
}

// Hands the first `length` staged bytes to the output; false on a short write.
bool deliver(ComplibBitstream *bs, uint32_t length) {
    if ((bs->flags & COMPLIB_BS_MEMORY) && !reserveMemory(bs, length))
        return false;
    return complibWriteBitstreamFile(bs, bs->putStart, length) == static_cast<int32_t>(length);
}

// Stages one byte; a full buffer is handed over at once. After a failed
// hand-over the buffer stays full and every later byte is refused, so nothing
// is written past its end and nothing staged is dropped.
JpgStatus stageByte(ComplibBitstream *bs, uint8_t byte) {
    if (bs->fill >= kStagingSize) {
        if (!deliver(bs, kStagingSize)) {
            bs->state = 2;
            return JPG_STATUS_OUTPUT_FULL;
        }
        bs->fill = 0;
    }
    bs->putStart[bs->fill++] = byte;
    if (bs->fill < kStagingSize)
        return JPG_STATUS_OK;
    if (!deliver(bs, kStagingSize)) {
        bs->state = 2;
        return JPG_STATUS_OUTPUT_FULL;
    }
    bs->fill = 0;
    return JPG_STATUS_OK;
}

// Stages the top `count` bytes of `word`, each 0xFF followed by 0x00.
JpgStatus stageStuffed(ComplibBitstream *bs, uint32_t word, int32_t count) {
    if (bs->fill <= kFastRoom) {
        uint8_t *p = bs->putStart + bs->fill;
        for (int32_t i = count - 1; i >= 0; i--) {
            uint8_t byte = static_cast<uint8_t>(word >> (8 * i));
            *p++ = byte;
            if (byte == 0xFF)
                *p++ = 0;
        }
        bs->fill = static_cast<uint32_t>(p - bs->putStart);
        return JPG_STATUS_OK;
    }
    for (int32_t i = count - 1; i >= 0; i--) {
        uint8_t byte = static_cast<uint8_t>(word >> (8 * i));
        JpgStatus status = stageByte(bs, byte);
        if (status == JPG_STATUS_OK && byte == 0xFF)
            status = stageByte(bs, 0);
        if (status != JPG_STATUS_OK)
            return status;
    }
    return JPG_STATUS_OK;
}

}  // namespace

extern "C" {

JpgStatus jpgWritePutBits(ComplibBitstream *bs, uint32_t bits, int32_t count) {
    int32_t f = bs->bitCount;
    if (count < f) {
        bs->accumulator = shiftLeft(bs->accumulator, count) | bits;
        bs->bitCount = f - count;
        return JPG_STATUS_OK;
    }
    int32_t rest = count - f;
    bs->accumulator = shiftLeft(bs->accumulator, f) | shiftRight(bits, rest);
    JpgStatus status = jpgWriteByteStuff(bs);
    // The low `rest` bits start the next word; bits above them are shifted
    // out before the word is complete.
    bs->accumulator = bits;
    bs->bitCount = 32 - rest;
    return status;
}

JpgStatus jpgWriteByteStuff(ComplibBitstream *bs) { return stageStuffed(bs, bs->accumulator, 4); }

JpgStatus jpgWriteFlushBits(ComplibBitstream *bs) {
    if (bs->fill == 0)
        return JPG_STATUS_OK;
    if (!deliver(bs, bs->fill)) {
        bs->state = 2;
        return JPG_STATUS_OUTPUT_FULL;
    }
    return JPG_STATUS_OK;
}

JpgStatus jpgWritePutBytes(ComplibBitstream *bs, const uint8_t *data, uint32_t count) {
    if (count == 0)
        return JPG_STATUS_FAILED;
    while (count > 0) {
        uint32_t room = bs->fill + 1 < kStagingSize ? kStagingSize - 1 - bs->fill : 0;
        uint32_t n = count < room ? count : room;
        memcpy(bs->putStart + bs->fill, data, n);
        bs->fill += n;
        data += n;
        count -= n;
        if (count > 0) {
            JpgStatus status = stageByte(bs, *data++);
            count--;
            if (status != JPG_STATUS_OK)
                return status;
        }
    }
    return JPG_STATUS_OK;
}

JpgStatus jpgWritePutMarkerCode(ComplibBitstream *bs, int32_t code) {
    int32_t f = bs->bitCount;
    if (f != 32) {
        int32_t pad = f & 7;
        uint32_t word = shiftLeft(bs->accumulator, pad) | ((1u << pad) - 1);
        // A failure here leaves the error state set and the marker is still tried.
        stageStuffed(bs, word, (32 - (f & ~7)) / 8);
    }
    bs->accumulator = 0;
    bs->bitCount = 32;
    const uint8_t marker[2] = {static_cast<uint8_t>(code >> 8), static_cast<uint8_t>(code)};
    return jpgWritePutBytes(bs, marker, 2);
}

JpgStatus jpgWritePut8BitDCHuffman(ComplibBitstream *bs, const JpgHuffmanCode *codes,
                                   uint32_t value) {
    int32_t v = static_cast<int32_t>(value);
    if (codes == nullptr || v < -kiv::kMaxMagnitude || v > kiv::kMaxMagnitude)
        return JPG_STATUS_INVALID_PARAMETER;
    kiv::Magnitude m = kiv::kMagnitude[v];
    const JpgHuffmanCode &code = codes[m.category()];
    return jpgWritePutBits(bs, (code.code << m.category()) | m.bits(), code.length + m.category());
}

JpgStatus jpgWritePut8BitACHuffman(ComplibBitstream *bs, const JpgAcSymbol *table, uint32_t value,
                                   uint32_t run) {
    int32_t v = static_cast<int32_t>(value);
    if (table == nullptr || run > 15 || v < -kiv::kMaxMagnitude || v > kiv::kMaxMagnitude)
        return JPG_STATUS_INVALID_PARAMETER;
    kiv::Magnitude m = kiv::kMagnitude[v];
    const JpgAcSymbol &entry = table[run << 4 | m.category()];
    return jpgWritePutBits(bs, entry.code | m.bits(), entry.length);
}

}  // extern "C"
