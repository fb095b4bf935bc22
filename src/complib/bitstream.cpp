// The bitstream object: the one path by which compressed bytes enter and
// leave the library, over a file descriptor or a memory block, with a
// generic 32-bit bit reader and bit writer (no byte stuffing here).
// Invariant: nothing reads or writes outside the object's buffers, the
// caller's memory block or the owner's staging buffer, whatever the state.
#include <string.h>

#include "kivjpeg.h"

namespace {

constexpr uint32_t kChunk = 4096;

bool isMemory(const ComplibBitstream *bs) { return (bs->flags & COMPLIB_BS_MEMORY) != 0; }

uint32_t shiftLeft(uint32_t value, int32_t bits) { return bits >= 32 ? 0 : value << bits; }

uint32_t shiftRight(uint32_t value, int32_t bits) { return bits >= 32 ? 0 : value >> bits; }

void storeBigEndian(uint8_t *p, uint32_t value) {
    p[0] = static_cast<uint8_t>(value >> 24);
    p[1] = static_cast<uint8_t>(value >> 16);
    p[2] = static_cast<uint8_t>(value >> 8);
    p[3] = static_cast<uint8_t>(value);
}

// Bytes of the memory block after the read offset (0 when it lies past the end).
uint32_t memoryLeft(const ComplibBitstream *bs) {
    return bs->memOffset < bs->memLength ? bs->memLength - bs->memOffset : 0;
}

// Takes the next big-endian word of the read buffer, refilling it first when
// it is used up. At the end of data the word holds whatever the buffer still
// holds; bytes beyond the buffer read as zero.
uint32_t reloadWord(ComplibBitstream *bs) {
    if (bs->readPos >= bs->fill) {
        int32_t chunk;
        if (isMemory(bs)) {
            uint32_t n = memoryLeft(bs) < kChunk ? memoryLeft(bs) : kChunk;
            if (n > 0)
                memcpy(bs->buffer, bs->memCursor, n);
            bs->memCursor += n;
            bs->memOffset += n;
            chunk = static_cast<int32_t>(n);
        } else {
            chunk = complibReadFile(bs->fd, bs->buffer, kChunk);
        }
        if (isMemory(bs) || chunk >= 1) {
            bs->bytesLoaded += static_cast<uint32_t>(chunk);
            bs->fill = static_cast<uint32_t>(chunk);
            bs->readPos = 0;
        }
    }
    uint32_t word = 0;
    for (uint32_t i = 0; i < 4; i++) {
        uint32_t at = bs->readPos + i;
        word = (word << 8) | (at < kChunk ? bs->buffer[at] : 0);
    }
    return word;
}

// Reads n bits (1 to 32); with consume false only a refill changes the state.
uint32_t readBits(ComplibBitstream *bs, int32_t n, bool consume) {
    if (n < 1 || n > 32)
        return 0;
    uint32_t result = shiftRight(bs->accumulator, 32 - n);
    if (bs->bitCount >= n) {
        if (consume) {
            bs->accumulator = shiftLeft(bs->accumulator, n);
            bs->bitCount -= n;
        }
        return result;
    }
    int32_t r = n - bs->bitCount;
    uint32_t word = reloadWord(bs);
    result |= shiftRight(word, 32 - r);
    if (consume) {
        bs->readPos += 4;
        bs->accumulator = shiftLeft(word, r);
        bs->bitCount = 32 - r;
    }
    return result;
}

// Hands the full staging buffer to the file; false on a short write.
bool flushStaging(ComplibBitstream *bs) {
    if (complibWriteFile(bs->fd, bs->putStart, kChunk) != static_cast<int32_t>(kChunk))
        return false;
    bs->putPtr = bs->putStart;
    return true;
}

}  // namespace

extern "C" {

JpgStatus complibInitBitstreamMemory(ComplibBitstream *bs) {
    bs->bytesLoaded = 0;
    bs->accumulator = 0;
    bs->readPos = 0;
    bs->state = 0;
    bs->memOffset = 0;
    if (bs->flags & COMPLIB_BS_READ) {
        bs->bitCount = 0;
        bs->fill = 0;
    } else if (bs->flags & COMPLIB_BS_WRITE) {
        bs->bitCount = 32;
    }
    return JPG_STATUS_OK;
}

JpgStatus complibCreateBitstreamFile(ComplibBitstream *bs) {
    bs->flags |= COMPLIB_BS_WRITE;
    complibInitBitstreamMemory(bs);
    if (isMemory(bs)) {
        bs->fd = 0;
        bs->memCursor = nullptr;
        bs->memLength = 0;
        bs->memCapacity = 0;
        bs->memOffset = 0x10000;
        return JPG_STATUS_OK;
    }
    bs->fd = complibCreateFile(bs->path);
    if (bs->fd == -1) {
        bs->state = 3;
        return JPG_STATUS_FILE_OPEN_FAILED;
    }
    return JPG_STATUS_OK;
}

JpgStatus complibOpenBitstreamFile(ComplibBitstream *bs) {
    bs->flags |= COMPLIB_BS_READ;
    if (isMemory(bs)) {
        bs->fileSize = 0;
        bs->fd = 0;
    } else {
        bs->fileSize = complibGetFileSize(bs->path);
        if (complibOpenBitstreamFileExt(bs) == -1)
            return JPG_STATUS_FILE_OPEN_FAILED;
        if (bs->fileBase != 0 && complibSeekBitstreamFile(bs, 0, 0) == -1) {
            complibCloseBitstreamFileExt(bs);
            return JPG_STATUS_SEEK_FAILED;
        }
    }
    complibInitBitstreamMemory(bs);
    return JPG_STATUS_OK;
}

int32_t complibOpenBitstreamFileExt(ComplibBitstream *bs) {
    if (isMemory(bs))
        return 1;
    bs->fd = complibOpenFile(bs->path, 0);
    if (bs->fd == -1)
        bs->state = 3;
    return bs->fd;
}

JpgStatus complibAppendBitstreamFile(ComplibBitstream *bs) {
    bs->flags = COMPLIB_BS_READ | COMPLIB_BS_WRITE;
    if (complibAppendBitstreamFileExt(bs) == -1) {
        bs->state = 3;
        return JPG_STATUS_FAILED;
    }
    complibInitBitstreamMemory(bs);
    return JPG_STATUS_OK;
}

int32_t complibAppendBitstreamFileExt(ComplibBitstream *bs) {
    bs->fd = complibOpenFile(bs->path, 2);
    return bs->fd;
}

JpgStatus complibCloseBitstreamFile(ComplibBitstream *bs) {
    if (!isMemory(bs))
        return complibCloseBitstreamFileExt(bs);
    if (bs->flags & COMPLIB_BS_WRITE)
        bs->memLength = bs->memOffset;
    return JPG_STATUS_OK;
}

JpgStatus complibCloseBitstreamFileExt(ComplibBitstream *bs) {
    if (bs->fd == 0 || bs->state == 3)
        return JPG_STATUS_OK;
    JpgStatus status = complibCloseFile(bs->fd);
    bs->fd = 0;
    return status;
}

int32_t complibReadBitstreamFile(ComplibBitstream *bs, void *dst, uint32_t length) {
    if (!isMemory(bs))
        return complibReadFile(bs->fd, dst, length);
    uint32_t n = length < memoryLeft(bs) ? length : memoryLeft(bs);
    if (n == 0)
        return 0;
    memcpy(dst, bs->memCursor, n);
    bs->memCursor += n;
    bs->memOffset += n;
    return static_cast<int32_t>(n);
}

// A memory stream grows by one growth step per call. A write that would not
// fit even then is outside the contract and is refused (-1) without writing;
// sizes are compared in 64 bits, so no length wraps past the block.
int32_t complibWriteBitstreamFile(ComplibBitstream *bs, const void *src, uint32_t length) {
    if (!isMemory(bs)) {
        int32_t written = complibWriteFile(bs->fd, src, length);
        return written == static_cast<int32_t>(length) ? written : -1;
    }
    if (length > 0x7FFFFFFF)
        return -1;  // its count could not be reported
    const uint64_t used = bs->memLength;
    if (used + length > bs->memCapacity) {
        uint64_t grown = static_cast<uint64_t>(bs->memCapacity) + bs->memOffset;
        if (grown > 0xFFFFFFFFu || used > grown || grown - used < length)
            return -1;
        void *block = complibMemReAlloc(bs->memCursor, static_cast<uint32_t>(grown));
        if (block == nullptr) {
            complibMemFree(bs->memCursor);
            bs->memCursor = nullptr;
            return -1;
        }
        bs->memCursor = static_cast<uint8_t *>(block);
        bs->memCapacity = static_cast<uint32_t>(grown);
    }
    if (length > 0)
        memcpy(bs->memCursor + bs->memLength, src, length);
    bs->memLength += length;
    return static_cast<int32_t>(length);
}

int32_t complibSeekBitstreamFile(ComplibBitstream *bs, int32_t offset, int32_t whence) {
    if (isMemory(bs)) {
        // In 64 bits: a position before the block or beyond 31 bits is
        // refused and the stream stays where it was.
        int64_t position;
        switch (whence) {
        case 0:
            position = offset;
            break;
        case 1:
            position = (bs->memCursor - bs->memBase) + static_cast<int64_t>(offset);
            break;
        case 2:
            position = static_cast<int64_t>(bs->memLength) + offset;
            break;
        default:
            bs->memOffset = 0;
            return 0;
        }
        if (position < 0 || position > 0x7FFFFFFF)
            return -1;
        bs->memCursor = bs->memBase + position;
        bs->memOffset = static_cast<uint32_t>(position);
        return static_cast<int32_t>(position);
    }
    if (bs->fileBase == 0)
        return complibSeekFile(bs->fd, offset, whence);
    int32_t base = static_cast<int32_t>(bs->fileBase);
    int32_t position;
    if (whence == 0)
        position = complibSeekFile(bs->fd, base + offset, 0);
    else if (whence == 1)
        position = complibSeekFile(bs->fd, offset, 1);
    else
        position = complibSeekFile(bs->fd, static_cast<int32_t>(bs->fileSize) - offset, 0);
    return position == -1 ? -1 : position - base;
}

JpgStatus complibDupBitstreamFile(ComplibBitstream *dst, ComplibBitstream *src, int32_t offset,
                                  int32_t length) {
    if (length <= 0)
        return JPG_STATUS_OK;
    if (complibSeekFile(src->fd, offset, 0) == -1)
        return JPG_STATUS_FAILED;
    uint32_t left = static_cast<uint32_t>(length);
    while (left > 0) {
        int32_t got = complibReadFile(src->fd, src->buffer, left < kChunk ? left : kChunk);
        if (got < 1 || complibWriteFile(dst->fd, src->buffer, static_cast<uint32_t>(got)) != got)
            return JPG_STATUS_FAILED;
        left -= static_cast<uint32_t>(got);
    }
    return JPG_STATUS_OK;
}

int32_t complibPutBits(ComplibBitstream *bs, uint32_t value, int32_t n) {
    static constexpr uint32_t kMask[33] = {
        0xFFFFFFFF, 0x7FFFFFFF, 0x3FFFFFFF, 0x1FFFFFFF, 0x0FFFFFFF, 0x07FFFFFF, 0x03FFFFFF,
        0x01FFFFFF, 0x00FFFFFF, 0x007FFFFF, 0x003FFFFF, 0x001FFFFF, 0x000FFFFF, 0x0007FFFF,
        0x0003FFFF, 0x0001FFFF, 0x0000FFFF, 0x00007FFF, 0x00003FFF, 0x00001FFF, 0x00000FFF,
        0x000007FF, 0x000003FF, 0x000001FF, 0x000000FF, 0x0000007F, 0x0000003F, 0x0000001F,
        0x0000000F, 0x00000007, 0x00000003, 0x00000001, 0x00000000};
    if (n < 0 || n > 32 || bs->putStart == nullptr)
        return -1;
    int32_t f = bs->bitCount;
    if (f > n) {
        bs->accumulator = shiftLeft(bs->accumulator, n) | value;
        bs->bitCount = f - n;
        return n;
    }
    bs->accumulator = shiftLeft(bs->accumulator, f) | shiftRight(value, n - f);
    if (bs->putPtr >= bs->putEnd && !flushStaging(bs))
        return -1;
    storeBigEndian(bs->putPtr, bs->accumulator);
    bs->putPtr += 4;
    bs->bitCount = f - n + 32;
    bs->accumulator = value & kMask[bs->bitCount];
    return n;
}

JpgStatus complibFlushPutBits(ComplibBitstream *bs) {
    if (bs->putStart == nullptr)
        return JPG_STATUS_FAILED;
    if (bs->putPtr >= bs->putEnd && !flushStaging(bs))
        return JPG_STATUS_FAILED;
    int32_t f = bs->bitCount;
    storeBigEndian(bs->putPtr, shiftLeft(bs->accumulator, f));
    uint32_t tail = f >= 32 ? 0 : f >= 24 ? 1 : f >= 16 ? 2 : f >= 8 ? 3 : 4;
    uint32_t bytes = static_cast<uint32_t>(bs->putPtr - bs->putStart) + tail;
    if (complibWriteFile(bs->fd, bs->putStart, bytes) != static_cast<int32_t>(bytes))
        return JPG_STATUS_FAILED;
    return JPG_STATUS_OK;
}

int32_t complibPutByteAligned(ComplibBitstream *bs) {
    int32_t k = bs->bitCount % 8;
    if (k != 0)
        complibPutBits(bs, 0, k);
    return k;
}

uint32_t complibShowBits(ComplibBitstream *bs, int32_t n) { return readBits(bs, n, false); }

uint32_t complibGetBits(ComplibBitstream *bs, int32_t n) { return readBits(bs, n, true); }

void complibFlushGetBits(ComplibBitstream *bs, int32_t n) { readBits(bs, n, true); }

uint32_t complibGetByteAligned(ComplibBitstream *bs) {
    int32_t k = bs->bitCount % 8;
    return k != 0 ? complibGetBits(bs, k) : 0;
}

uint32_t complibGetBitAddress(ComplibBitstream *bs) {
    uint32_t distance = static_cast<uint32_t>(bs->putPtr - bs->putStart);
    if (!(bs->flags & COMPLIB_BS_BYTE_UNIT))
        distance = 4 * (distance / 4);
    return 8 * (bs->bytesLoaded + distance) - 32768 - static_cast<uint32_t>(bs->bitCount);
}

JpgStatus complibBSGetBlock(ComplibBitstream *bs, void *dst, uint32_t length, uint32_t *count) {
    if (bs == nullptr || dst == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (length == 0)
        return JPG_STATUS_INVALID_PARAMETER;
    if (bs->bitCount % 8 != 0)
        return JPG_STATUS_BLOCK_UNAVAILABLE;
    auto *out = static_cast<uint8_t *>(dst);
    uint32_t pending = static_cast<uint32_t>(bs->bitCount) / 8;
    uint32_t got = pending < length ? pending : length;
    for (uint32_t i = 0; i < got; i++)
        out[i] = static_cast<uint8_t>(bs->accumulator >> (24 - 8 * i));
    bs->bitCount = pending < length ? 0 : bs->bitCount - static_cast<int32_t>(8 * length);

    uint32_t buffered = bs->fill > bs->readPos ? bs->fill - bs->readPos : 0;
    if (bs->readPos > kChunk)
        buffered = 0;
    else if (buffered > kChunk - bs->readPos)
        buffered = kChunk - bs->readPos;
    uint32_t take = length - got < buffered ? length - got : buffered;
    memcpy(out + got, bs->buffer + bs->readPos, take);
    bs->readPos += take;
    got += take;

    if (got < length) {
        int32_t direct = complibReadBitstreamFile(bs, out + got, length - got);
        if (direct > 0) {
            bs->bytesLoaded += static_cast<uint32_t>(direct);
            got += static_cast<uint32_t>(direct);
        }
    }
    if (count != nullptr)
        *count = got;
    return JPG_STATUS_OK;
}

}  // extern "C"
