// The entropy coder's fast view of the bit writer (ISO/IEC 10918-1 F.1.2.3,
// B.1.1.5): codes go, most significant first, into an accumulator (64 bits,
// or 32 on 32-bit targets) taken over from the bitstream; every complete
// 32-bit word goes to the staging buffer at once, byte by byte with stuffing
// only when one of its bytes is 0xFF. The bytes, and the state handed back,
// are exactly those of jpgWritePutBits. Unchecked stores need kBlockRoom
// bytes of staging room.
#pragma once

#include <stdint.h>
#include <string.h>

#include "write/encoder.h"

namespace kiv {

// Staging bytes one block can produce: DC (27 bits), 63 AC codes of at most
// 26 bits or EOB, the 31 pending bits, every byte stuffed; and the four an
// incomplete word is written past them.
constexpr uint32_t kBlockRoom = 2 * ((27 + 63 * 26 + 16 + 31) / 8 + 1);
static_assert(kBlockRoom >= 2 * ((27 + 63 * 26 + 31 + 7) / 8) + 4 && kBlockRoom < kStagingSize / 2);

// The four bytes of word at p, the most significant first.
inline void storeBigEndian(uint8_t *p, uint32_t word) {
#if defined(__GNUC__) && defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    word = __builtin_bswap32(word);
    memcpy(p, &word, 4);
#else
    uint8_t bytes[4] = {static_cast<uint8_t>(word >> 24), static_cast<uint8_t>(word >> 16),
                        static_cast<uint8_t>(word >> 8), static_cast<uint8_t>(word)};
    memcpy(p, bytes, 4);
#endif
}

class BitSink {
public:
    explicit BitSink(ComplibBitstream *bs)
        : bs_(bs), acc_(bs->accumulator), pending_(32 - bs->bitCount), fill_(bs->fill) {}

    // Hands the accumulator and the staging count back to the bitstream.
    void finish() {
        bs_->accumulator = static_cast<uint32_t>(acc_);
        bs_->bitCount = 32 - pending_;
        bs_->fill = fill_;
    }

    bool roomForBlock() const { return fill_ <= kStagingSize - kBlockRoom; }

    // Appends `length` (1 to 32) bits; Checked stores test for a full buffer.
    // With 64-bit registers, unchecked stores write the word at the staging
    // position whether it is complete or not and advance only past complete
    // ones, so that no branch depends on where words end.
    template <bool Checked>
    JpgStatus put(uint32_t bits, int32_t length) {
#if UINTPTR_MAX > 0xFFFFFFFFu
        acc_ = (acc_ << length) | bits;
        pending_ += length;
        const bool complete = pending_ >= 32;
        pending_ -= complete ? 32 : 0;
        uint32_t word = static_cast<uint32_t>(acc_ >> pending_);
        if constexpr (Checked) {
            if (!complete)
                return JPG_STATUS_OK;
            return putWordChecked(word);
        }
        storeBigEndian(bs_->putStart + fill_, word);
        if (complete & hasByteFF(word)) [[unlikely]]
            putStuffed(word);
        else
            fill_ += complete ? 4 : 0;
#else
        // 32-bit registers: the accumulator keeps fewer than 32 bits, and a
        // code that completes a word is split.
        int32_t total = pending_ + length;
        if (total < 32) {
            acc_ = (acc_ << length) | bits;
            pending_ = total;
            return JPG_STATUS_OK;
        }
        // The held bits (shifted twice: with none held, all go) above the
        // leading bits of the code.
        uint32_t word = ((acc_ << 1) << (31 - pending_)) | (bits >> (total - 32));
        pending_ = total - 32;
        acc_ = bits;  // its low pending_ bits are the rest; higher ones are shifted out later
        if constexpr (Checked)
            return putWordChecked(word);
        if (hasByteFF(word)) [[unlikely]] {
            putStuffed(word);
        } else {
            storeBigEndian(bs_->putStart + fill_, word);
            fill_ += 4;
        }
#endif
        return JPG_STATUS_OK;
    }

private:
    // A complete word with a 0xFF byte: each one is followed by a stuffed zero.
    void putStuffed(uint32_t word) {
        uint8_t *p = bs_->putStart + fill_;
        for (int shift = 24; shift >= 0; shift -= 8) {
            uint8_t byte = static_cast<uint8_t>(word >> shift);
            *p++ = byte;
            if (byte == 0xFF)
                *p++ = 0;
        }
        fill_ = static_cast<uint32_t>(p - bs_->putStart);
    }

    JpgStatus putWordChecked(uint32_t word) {
        bs_->fill = fill_;
        bs_->accumulator = word;
        JpgStatus status = jpgWriteByteStuff(bs_);
        fill_ = bs_->fill;
        return status;
    }

    ComplibBitstream *bs_;
#if UINTPTR_MAX > 0xFFFFFFFFu
    uint64_t acc_;
#else
    uint32_t acc_;
#endif
    int32_t pending_;  // valid low bits of acc_, 0 to 31 between calls
    uint32_t fill_;
};

}  // namespace kiv
