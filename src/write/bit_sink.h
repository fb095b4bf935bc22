// The entropy coder's fast view of the bit writer (ISO/IEC 10918-1 F.1.2.3,
// B.1.1.5): codes go, most significant first, into an accumulator taken over
// from the bitstream; every complete 32-bit word goes to the staging buffer
// at once, byte by byte with stuffing only when one of its bytes is 0xFF.
// The bytes, and the state handed back, are exactly those of
// jpgWritePutBits. Unchecked stores need kBlockRoom bytes of staging room.
//
// The accumulator holds 64 bits in a general register on 64-bit targets, or
// in an SSE2 register in files compiled for SSE2 on 32-bit x86; otherwise it
// holds 32 bits. Everything here is in an anonymous namespace, so that each
// file gets the sink its own instruction set allows (see core/simd.h).
#pragma once

#include <stdint.h>
#include <string.h>

#include "write/encoder.h"

#if UINTPTR_MAX <= 0xFFFFFFFFu && defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kiv {
namespace {

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

#if UINTPTR_MAX > 0xFFFFFFFFu
#define KIV_SINK_WIDE 1
struct WideAccumulator {
    uint64_t v;
    explicit WideAccumulator(uint32_t low) : v(low) {}
    void shiftIn(uint32_t bits, int32_t length) { v = v << length | bits; }
    uint32_t wordAbove(int32_t pending) const { return static_cast<uint32_t>(v >> pending); }
    uint32_t low() const { return static_cast<uint32_t>(v); }
};
#elif defined(__SSE2__)
#define KIV_SINK_WIDE 1
// The low 64 bits of an SSE2 register: shifting them costs no general
// register, of which 32-bit x86 has too few for the coder's loop.
struct WideAccumulator {
    __m128i v;
    explicit WideAccumulator(uint32_t low) : v(_mm_cvtsi32_si128(static_cast<int>(low))) {}
    void shiftIn(uint32_t bits, int32_t length) {
        v = _mm_or_si128(_mm_sll_epi64(v, _mm_cvtsi32_si128(length)), _mm_cvtsi32_si128(static_cast<int>(bits)));
    }
    uint32_t wordAbove(int32_t pending) const {
        return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srl_epi64(v, _mm_cvtsi32_si128(pending))));
    }
    uint32_t low() const { return static_cast<uint32_t>(_mm_cvtsi128_si32(v)); }
};
#else
#define KIV_SINK_WIDE 0
#endif

class BitSink {
public:
    explicit BitSink(ComplibBitstream *bs)
        : bs_(bs), acc_(bs->accumulator), pending_(32 - bs->bitCount), out_(bs->putStart + bs->fill) {}

    // Hands the accumulator and the staging count back to the bitstream.
    void finish() {
#if KIV_SINK_WIDE
        bs_->accumulator = acc_.low();
#else
        bs_->accumulator = acc_;
#endif
        bs_->bitCount = 32 - pending_;
        bs_->fill = fill();
    }

    bool roomForBlock() const { return fill() <= kStagingSize - kBlockRoom; }

    // Appends `length` (1 to 32) bits; Checked stores test for a full buffer.
    // With a wide accumulator, unchecked stores write the word at the staging
    // position whether it is complete or not and advance only past complete
    // ones, so that no branch depends on where words end.
    template <bool Checked>
    JpgStatus put(uint32_t bits, int32_t length) {
#if KIV_SINK_WIDE
        acc_.shiftIn(bits, length);
        // Fewer than 32 bits were held, so at most one word completes.
        const uint32_t total = static_cast<uint32_t>(pending_ + length), complete = total >> 5;
        pending_ = static_cast<int32_t>(total & 31);
        uint32_t word = acc_.wordAbove(pending_);
        if constexpr (Checked) {
            if (!complete)
                return JPG_STATUS_OK;
            return putWordChecked(word);
        }
        storeBigEndian(out_, word);
        // A 0xFF byte is rare; the branch on it, taken first, is predicted.
        if (hasByteFF(word) && complete) [[unlikely]]
            putStuffed(word);
        else
            out_ += complete * 4;
#else
        // The accumulator keeps fewer than 32 bits, and a code that completes
        // a word is split.
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
            storeBigEndian(out_, word);
            out_ += 4;
        }
#endif
        return JPG_STATUS_OK;
    }

private:
    uint32_t fill() const { return static_cast<uint32_t>(out_ - bs_->putStart); }

    // A complete word with a 0xFF byte: each one is followed by a stuffed zero.
    void putStuffed(uint32_t word) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            uint8_t byte = static_cast<uint8_t>(word >> shift);
            *out_++ = byte;
            if (byte == 0xFF)
                *out_++ = 0;
        }
    }

    JpgStatus putWordChecked(uint32_t word) {
        bs_->fill = fill();
        bs_->accumulator = word;
        JpgStatus status = jpgWriteByteStuff(bs_);
        out_ = bs_->putStart + bs_->fill;
        return status;
    }

    ComplibBitstream *bs_;
#if KIV_SINK_WIDE
    WideAccumulator acc_;
#else
    uint32_t acc_;
#endif
    int32_t pending_;  // valid low bits of acc_, 0 to 31 between calls
    uint8_t *out_;     // the staging position
};

}  // namespace
}  // namespace kiv
