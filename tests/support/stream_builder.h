// Builds JPEG streams byte by byte for tests: marker segments with exact
// (or deliberately wrong) lengths, and Huffman-coded blocks written with any
// table, so that a test controls every byte the decoder sees.
#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "annex_k_tables.h"

namespace kivtest {

struct FrameComponent {
    uint8_t id, sampling, tq;
};

struct ScanComponent {
    uint8_t cs, tables;  // Td << 4 | Ta
};

class StreamBuilder {
public:
    std::vector<uint8_t> bytes;

    StreamBuilder &soi() { return raw({0xFF, 0xD8}); }
    StreamBuilder &eoi() { return raw({0xFF, 0xD9}); }
    StreamBuilder &raw(std::vector<uint8_t> b) {
        bytes.insert(bytes.end(), b.begin(), b.end());
        return *this;
    }
    // A segment whose length field counts the payload (plus `lengthError`).
    StreamBuilder &segment(uint8_t marker, const std::vector<uint8_t> &payload, int lengthError = 0) {
        int length = static_cast<int>(payload.size()) + 2 + lengthError;
        raw({0xFF, marker, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)});
        return raw(payload);
    }
    StreamBuilder &dqt(uint8_t id, uint8_t value = 1) {
        std::vector<uint8_t> p{id};
        p.insert(p.end(), 64, value);
        return segment(0xDB, p);
    }
    StreamBuilder &sof(uint8_t marker, uint8_t precision, uint16_t height, uint16_t width,
                       const std::vector<FrameComponent> &comps) {
        std::vector<uint8_t> p{precision, static_cast<uint8_t>(height >> 8),
                               static_cast<uint8_t>(height), static_cast<uint8_t>(width >> 8),
                               static_cast<uint8_t>(width), static_cast<uint8_t>(comps.size())};
        for (auto &c : comps)
            p.insert(p.end(), {c.id, c.sampling, c.tq});
        return segment(marker, p);
    }
    static std::vector<uint8_t> dhtPayload(uint8_t classId, const HuffmanSpec &table) {
        std::vector<uint8_t> p{classId};
        p.insert(p.end(), table.bits, table.bits + 16);
        p.insert(p.end(), table.values.begin(), table.values.end());
        return p;
    }
    StreamBuilder &dht(uint8_t classId, const HuffmanSpec &table) {
        return segment(0xC4, dhtPayload(classId, table));
    }
    StreamBuilder &sos(const std::vector<ScanComponent> &comps, uint8_t ss = 0, uint8_t se = 63,
                       uint8_t ahAl = 0) {
        std::vector<uint8_t> p{static_cast<uint8_t>(comps.size())};
        for (auto &c : comps)
            p.insert(p.end(), {c.cs, c.tables});
        p.insert(p.end(), {ss, se, ahAl});
        return segment(0xDA, p);
    }
    StreamBuilder &dri(uint16_t interval) {
        return segment(0xDD, {static_cast<uint8_t>(interval >> 8), static_cast<uint8_t>(interval)});
    }
    // The usual 8-bit grey header with the Annex K luminance tables.
    StreamBuilder &greyHeader(uint16_t height, uint16_t width, uint8_t value = 1) {
        return soi().dqt(0, value).sof(0xC0, 8, height, width, {{1, 0x11, 0}})
            .dht(0x00, kLuminanceDc).dht(0x10, kLuminanceAc).sos({{1, 0x00}});
    }
};

// Canonical codes of a table: symbol -> (code, length).
inline std::map<int, std::pair<uint32_t, int>> canonicalCodes(const HuffmanSpec &table) {
    std::map<int, std::pair<uint32_t, int>> codes;
    uint32_t code = 0;
    size_t k = 0;
    for (int length = 1; length <= 16; length++, code <<= 1)
        for (int j = 0; j < table.bits[length - 1]; j++)
            codes[table.values[k++]] = {code++, length};
    return codes;
}

// Huffman-codes blocks (F.1.2) with byte stuffing; pads with one-bits.
class EntropyWriter {
public:
    std::vector<uint8_t> out;

    void bits(uint32_t value, int n) {
        for (int i = n - 1; i >= 0; i--) {
            acc = acc << 1 | ((value >> i) & 1);
            if (++count == 8) {
                out.push_back(static_cast<uint8_t>(acc));
                if ((acc & 0xFF) == 0xFF)
                    out.push_back(0);
                acc = 0;
                count = 0;
            }
        }
    }
    void flush() {
        while (count != 0)
            bits(1, 1);
    }
    static int sizeOf(int v) {
        int s = 0;
        for (int a = v < 0 ? -v : v; a; a >>= 1)
            s++;
        return s;
    }
    void symbol(const std::map<int, std::pair<uint32_t, int>> &codes, int s) {
        auto c = codes.at(s);
        bits(c.first, c.second);
    }
    void magnitude(int v, int size) {
        if (size)
            bits(static_cast<uint32_t>(v < 0 ? v + (1 << size) - 1 : v), size);
    }
    // coefficients in zig-zag order; dc is the value itself (predicted here).
    void block(const HuffmanSpec &dc, const HuffmanSpec &ac, const int *zz, int *pred) {
        auto dcCodes = canonicalCodes(dc), acCodes = canonicalCodes(ac);
        int diff = zz[0] - *pred;
        *pred = zz[0];
        symbol(dcCodes, sizeOf(diff));
        magnitude(diff, sizeOf(diff));
        int run = 0;
        for (int k = 1; k < 64; k++) {
            if (zz[k] == 0) {
                run++;
                continue;
            }
            for (; run > 15; run -= 16)
                symbol(acCodes, 0xF0);
            int s = sizeOf(zz[k]);
            symbol(acCodes, run << 4 | s);
            magnitude(zz[k], s);
            run = 0;
        }
        if (run > 0)
            symbol(acCodes, 0x00);
    }

private:
    uint32_t acc = 0;
    int count = 0;
};

}  // namespace kivtest
