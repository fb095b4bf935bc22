// Inline bit supply for the entropy decoders: the same byte loading as
// jpgReadGetBits (ISO/IEC 10918-1 F.2.2.5 with the byte stuffing of F.1.2.3),
// working on a local copy of the accumulator. A decoder loads its state with
// BitState, calls need()/take() and writes the state back with store().
// At the end of data the missing bytes read as all ones (end state 2, then 1).
#pragma once

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

struct BitState {
    JpgParam *param;
    uint32_t acc;
    int32_t count;

    explicit BitState(JpgParam *p) : param(p), acc(p->bs.accumulator), count(p->bs.bitCount) {}
    void store() const {
        param->bs.accumulator = acc;
        param->bs.bitCount = count;
    }
    void need(int32_t n) {
        if (count < n)
            loadEntropyBits(param, acc, count, n);
    }
    // The top n (1..16) bits, without consuming them; need(n) must precede.
    uint32_t peek(int32_t n) const { return acc >> (32 - n); }
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
