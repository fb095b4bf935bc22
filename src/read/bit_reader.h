// Inline bit supply for the entropy decoders: the same byte loading as
// jpgReadGetBits (ISO/IEC 10918-1 F.2.2.5 with the byte stuffing of F.1.2.3),
// working on a machine-word copy of the accumulator. A decoder loads its
// state with BitState, calls need()/peek()/skip() and writes the state back
// with store(). At the end of data the missing bytes read as all ones (end
// state 2, then 1). Invariant: in the handle, the bits below the valid count
// are zero; a decoder's copy may hold the stream's next bits there.
#pragma once

#include <string.h>

#include "core/codec.h"

namespace kiv {

constexpr uint32_t kEndOfDataByte = 0xFFFFFFFFu;

// Next byte of the input buffer, refilled when used up; all ones at the end.
inline uint32_t takeInputByte(JpgParam *param) {
    ComplibBitstream &bs = param->bs;
    if (bs.readPos < bs.fill)
        return param->input[bs.readPos++];
    if (jpgReadFillBuffer(param))
        return param->input[0];
    return kEndOfDataByte;
}

// Merges one byte below the bits already held (the all-ones end value also
// sets every bit above its position, deliberately).
inline void mergeByte(uint32_t &acc, int32_t &count, uint32_t byte) {
    acc |= byte << (24 - count);
    count += 8;
}

// Makes at least n (at most 16) bits valid, dropping the zero byte stuffed
// after 0xFF; a marker met here enters the accumulator as data.
inline void loadEntropyBits(JpgParam *param, uint32_t &acc, int32_t &count, int32_t n) {
    while (count < n) {
        uint32_t byte = takeInputByte(param);
        mergeByte(acc, count, byte);
        if (byte != 0xFF)
            continue;
        uint32_t next = takeInputByte(param);
        if (next == 0)
            continue;
        mergeByte(acc, count, next);
    }
}

// The decoders' accumulator: 64 bits where the target has 64-bit registers,
// 32 bits on the 32-bit target.
using BitWord = uintptr_t;
constexpr int32_t kWordBits = static_cast<int32_t>(sizeof(BitWord) * 8);

// The next sizeof(BitWord) buffer bytes, the first one most significant.
inline BitWord loadBigEndian(const uint8_t *p) {
#if defined(__GNUC__) && defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    BitWord w;
    memcpy(&w, p, sizeof w);
    if constexpr (sizeof(BitWord) == 8)
        return static_cast<BitWord>(__builtin_bswap64(w));
    else
        return static_cast<BitWord>(__builtin_bswap32(static_cast<uint32_t>(w)));
#else
    BitWord w = 0;
    for (size_t i = 0; i < sizeof w; i++)
        w = (w << 8) | p[i];
    return w;
#endif
}

// The accumulator and its count, passed by value so that a decoder's copy
// can stay in registers across the out-of-line slow path.
struct HeldBits {
    BitWord acc;
    int32_t count;
    bool marker;  // set by the slow path once it has taken a marker as data
};

// The end-of-data value sign-extends, setting every bit above it.
inline void mergeWordByte(HeldBits &held, uint32_t byte) {
    held.acc |= static_cast<BitWord>(static_cast<intptr_t>(static_cast<int32_t>(byte)))
                << (kWordBits - 8 - held.count);
    held.count += 8;
}

// Slow path: byte by byte until n bits are valid, exactly as loadEntropyBits.
[[gnu::noinline]] inline HeldBits loadEntropyBytes(JpgParam *param, HeldBits held, int32_t n) {
    while (held.count < n) {
        uint32_t byte = takeInputByte(param);
        mergeWordByte(held, byte);
        if (byte != 0xFF)
            continue;
        uint32_t next = takeInputByte(param);
        if (next != 0) {
            mergeWordByte(held, next);
            held.marker = true;
        }
    }
    return held;
}

// The reader's state in registers for the length of a decoding routine.
//
// Loading follows two paths. The slow path is jpgReadGetBits' own loop, byte
// by byte, run only when fewer than n bits are held and for exactly the n the
// exported reader would be asked for, so the end-of-data fill (which also
// sets the bits still held) happens at the same bit position with the same
// count. The fast path appends whole bytes at once, as many as fit, when at
// least a word's worth of bytes is left in the buffer and none of them is
// 0xFF: without stuffing, markers or the end of data near, reading ahead is
// invisible, because the bytes held plus the bytes left form the same
// sequence either way (raw and entropy-coded reads agree on them).
//
// The handle holds only 32 bits, so store() un-reads the whole bytes held
// beyond 32 bits by stepping the read position back. That is exact because
// such bytes always come from the fast path of the current buffer fill: the
// slow path starts below 16 held bits and stops below 32, so more than 32
// bits are held only after a fast load (which never refills the buffer)
// that began below 16 bits, and the bytes un-read, all past the first 25
// held bits, belong to that load.
struct BitState {
    JpgParam *param;
    BitWord acc;  // left-aligned: the next bit is the most significant
    int32_t count;
    int32_t codeAhead = kWordBits > 32 ? 16 : 32;  // see needCode

    explicit BitState(JpgParam *p)
        : param(p), acc(static_cast<BitWord>(p->bs.accumulator) << (kWordBits - 32)),
          count(p->bs.bitCount) {}

    void store() {
        ComplibBitstream &bs = param->bs;
        if constexpr (kWordBits > 32) {
            if (count > 32) {
                int32_t surplus = (count - 25) >> 3;
                bs.readPos -= static_cast<uint32_t>(surplus);
                count -= 8 * surplus;
            }
        }
        BitWord held = count > 0 ? acc & ~BitWord(0) << (kWordBits - count) : 0;
        bs.accumulator = static_cast<uint32_t>(held >> (kWordBits - 32));
        bs.bitCount = count;
    }

    // Fast path: false when the buffer ends within a word or holds a 0xFF
    // there. Afterwards at least kWordBits - 8 bits are valid. The whole
    // word goes in: below the count, the accumulator then also holds the
    // first bits of the next byte, which the next load brings in again
    // (ORed onto the same bits) and store() clears.
    bool refillFast() {
        ComplibBitstream &bs = param->bs;
        uint32_t pos = bs.readPos;
        if (pos + sizeof(BitWord) > bs.fill)
            return false;
        BitWord word = loadBigEndian(param->input + pos);
        if (hasByteFF(word))
            return false;
        acc |= word >> count;
        bs.readPos = pos + static_cast<uint32_t>((kWordBits - 1 - count) >> 3);
        count |= kWordBits - 8;  // plus the whole bytes that fit
        return true;
    }

    // Once the slow path has taken a marker as data, reading ahead past it
    // would hold bytes that the exported reader leaves in the input behind
    // a restart marker, so codes ask for 16 bits again.
    void refillSlow(int32_t n) {
        HeldBits held = loadEntropyBytes(param, HeldBits{acc, count, false}, n);
        acc = held.acc;
        count = held.count;
        if (held.marker)
            codeAhead = 16;
    }

    // Makes at least n (at most 16) bits valid.
    void need(int32_t n) { needAhead(n, n); }
    // As need(n), for the next code of a decoding loop: on 32-bit targets
    // the fast path tops the word up before every code, which costs less
    // than a branch on the count that goes either way every other code (a
    // 64-bit word lasts for several codes), until the slow path has taken
    // a marker as data.
    void needCode(int32_t n) { needAhead(n, codeAhead); }
    // As need(n), and also fills ahead when fewer than `ahead` bits are
    // held and the fast path is open (which leaves at least 24 bits).
    void needAhead(int32_t n, int32_t ahead) {
        if (count < ahead && !refillFast() && count < n)
            refillSlow(n);
    }
    // The top n (1..16) bits, without consuming them; need(n) must precede.
    uint32_t peek(int32_t n) const { return static_cast<uint32_t>(acc >> (kWordBits - n)); }
    // The top 16 bits; need(16) must precede.
    uint32_t window() const { return peek(16); }
    void skip(int32_t n) {
        acc <<= n;
        count -= n;
    }
    // RECEIVE(n) of F.2.2.4 for n of 1 to 16.
    uint32_t receive(int32_t n) {
        need(n);
        uint32_t v = peek(n);
        skip(n);
        return v;
    }
    bool ended() const { return param->bs.state != 0; }
};

}  // namespace kiv
