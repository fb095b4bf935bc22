// Writes JPEG streams byte by byte (ISO/IEC 10918-1 Annex B syntax) for
// tests and fuzz seeds: marker segments with exact (or deliberately wrong)
// lengths, the example Huffman tables of Annex K.3, entropy-coded data
// written with any table, and the "decompression bombs": tiny streams that
// declare huge frames, many progressive scans or long lossless rows.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "core/tables.h"

namespace kivtest {

// A Huffman table as DHT carries it: BITS and HUFFVAL (Annex C).
struct HuffmanDefinition {
    uint8_t bits[16];
    std::vector<uint8_t> values;
};

// The tables of Annex K.3 (luminance DC, chrominance DC, luminance AC,
// chrominance AC), taken from the library's BITS and HUFFVAL bytes.
inline HuffmanDefinition annexK(int table) {
    const uint8_t *t = kiv::kAnnexKHuffman + kiv::kAnnexKStart[table];
    HuffmanDefinition d;
    std::copy(t, t + 16, d.bits);
    d.values.assign(t + 16, t + 16 + kiv::bitsSum(t));
    return d;
}
inline const HuffmanDefinition kLuminanceDc = annexK(0), kChrominanceDc = annexK(1), kLuminanceAc = annexK(2),
                               kChrominanceAc = annexK(3);

// The 273-byte buffer that jpgGenerateHuffmanTable takes: BITS, HUFFVAL, and
// Tc << 4 | Th at index 272.
inline std::vector<uint8_t> specBuffer(const HuffmanDefinition &table, uint8_t classId) {
    std::vector<uint8_t> buffer(273, 0);
    for (int i = 0; i < 16; i++)
        buffer[i] = table.bits[i];
    for (size_t i = 0; i < table.values.size() && i < 256; i++)
        buffer[16 + i] = table.values[i];
    buffer[272] = classId;
    return buffer;
}

// Canonical codes of a table (Annex C): symbol -> (code, length).
using Codes = std::map<int, std::pair<uint32_t, int>>;
inline Codes canonicalCodes(const HuffmanDefinition &table) {
    Codes codes;
    uint32_t code = 0;
    size_t k = 0;
    for (int length = 1; length <= 16; length++, code <<= 1)
        for (int j = 0; j < table.bits[length - 1]; j++)
            codes[table.values[k++]] = {code++, length};
    return codes;
}

// Entropy-coded data: bits most significant first, 0xFF stuffed, the last
// byte padded with ones; Huffman-coded symbols and blocks (F.1.2).
class BitWriter {
public:
    std::vector<uint8_t> out;

    void put(uint32_t value, int n) {
        for (int i = n - 1; i >= 0; i--) {
            acc_ = acc_ << 1 | ((value >> i) & 1);
            if (++count_ == 8) {
                out.push_back(uint8_t(acc_));
                if (uint8_t(acc_) == 0xFF)
                    out.push_back(0);
                acc_ = 0;
                count_ = 0;
            }
        }
    }
    std::vector<uint8_t> finish() {
        while (count_ != 0)
            put(1, 1);
        return out;
    }
    void symbol(const Codes &codes, int s) {
        auto c = codes.at(s);
        put(c.first, c.second);
    }
    static int sizeOf(int v) {
        int s = 0;
        for (int a = v < 0 ? -v : v; a; a >>= 1)
            s++;
        return s;
    }
    void magnitude(int v, int size) {
        if (size)
            put(uint32_t(v < 0 ? v + (1 << size) - 1 : v), size);
    }
    // Coefficients in zig-zag order; the DC is the value itself, predicted here.
    void block(const Codes &dc, const Codes &ac, const int *zz, int *pred) {
        int diff = zz[0] - *pred;
        *pred = zz[0];
        symbol(dc, sizeOf(diff));
        magnitude(diff, sizeOf(diff));
        int run = 0;
        for (int k = 1; k < 64; k++) {
            if (zz[k] == 0) {
                run++;
                continue;
            }
            for (; run > 15; run -= 16)
                symbol(ac, 0xF0);
            symbol(ac, run << 4 | sizeOf(zz[k]));
            magnitude(zz[k], sizeOf(zz[k]));
            run = 0;
        }
        if (run > 0)
            symbol(ac, 0x00);
    }

private:
    uint32_t acc_ = 0;
    int count_ = 0;
};

struct FrameComponent {
    uint8_t id, sampling, tq;
};

struct ScanComponent {
    uint8_t cs, tables;  // Td << 4 | Ta
};

class StreamBuilder {
public:
    std::vector<uint8_t> bytes;

    StreamBuilder &raw(const std::vector<uint8_t> &b) {
        bytes.insert(bytes.end(), b.begin(), b.end());
        return *this;
    }
    StreamBuilder &marker(uint8_t code) { return raw({0xFF, code}); }
    StreamBuilder &soi() { return marker(0xD8); }
    StreamBuilder &eoi() { return marker(0xD9); }
    StreamBuilder &fill(size_t count, uint8_t value) {
        bytes.insert(bytes.end(), count, value);
        return *this;
    }
    // A segment whose length field counts the payload (plus `lengthError`).
    StreamBuilder &segment(uint8_t code, const std::vector<uint8_t> &payload, int lengthError = 0) {
        int length = int(payload.size()) + 2 + lengthError;
        raw({0xFF, code, uint8_t(length >> 8), uint8_t(length)});
        return raw(payload);
    }
    StreamBuilder &dqt(uint8_t id = 0, uint8_t value = 1) {
        std::vector<uint8_t> p{id};
        p.insert(p.end(), 64, value);
        return segment(0xDB, p);
    }
    static std::vector<uint8_t> dhtPayload(uint8_t classId, const HuffmanDefinition &table) {
        std::vector<uint8_t> p{classId};
        p.insert(p.end(), table.bits, table.bits + 16);
        p.insert(p.end(), table.values.begin(), table.values.end());
        return p;
    }
    StreamBuilder &dht(uint8_t classId, const HuffmanDefinition &table) { return segment(0xC4, dhtPayload(classId, table)); }
    // A table whose only code is the 1-bit '0' for `symbol`.
    StreamBuilder &dhtSingle(uint8_t classId, uint8_t symbol) {
        std::vector<uint8_t> p{classId, 1};
        p.insert(p.end(), 15, 0);
        p.push_back(symbol);
        return segment(0xC4, p);
    }
    StreamBuilder &sof(uint8_t code, uint8_t precision, uint16_t height, uint16_t width,
                       const std::vector<FrameComponent> &comps) {
        std::vector<uint8_t> p{precision, uint8_t(height >> 8), uint8_t(height), uint8_t(width >> 8),
                               uint8_t(width), uint8_t(comps.size())};
        for (auto &c : comps)
            p.insert(p.end(), {c.id, c.sampling, c.tq});
        return segment(code, p);
    }
    StreamBuilder &sos(const std::vector<ScanComponent> &comps, uint8_t ss = 0, uint8_t se = 63, uint8_t ahAl = 0) {
        std::vector<uint8_t> p{uint8_t(comps.size())};
        for (auto &c : comps)
            p.insert(p.end(), {c.cs, c.tables});
        p.insert(p.end(), {ss, se, ahAl});
        return segment(0xDA, p);
    }
    StreamBuilder &dri(uint16_t interval) { return segment(0xDD, {uint8_t(interval >> 8), uint8_t(interval)}); }
    // An 8-bit grey frame with the Annex K luminance tables, up to its scan header.
    StreamBuilder &greyHeader(uint16_t height, uint16_t width, uint8_t quant = 1) {
        return soi().dqt(0, quant).sof(0xC0, 8, height, width, {{1, 0x11, 0}}).dht(0x00, kLuminanceDc)
            .dht(0x10, kLuminanceAc).sos({{1, 0x00}});
    }
};

// A baseline 4:2:0 frame of the given size followed by `data` zero bytes of
// entropy-coded data (each block: DC difference 0, end of block).
inline std::vector<uint8_t> BaselineBomb(uint16_t width, uint16_t height, size_t data) {
    StreamBuilder b;
    b.soi().dqt().dhtSingle(0x00, 0).dhtSingle(0x10, 0x00);
    b.sof(0xC0, 8, height, width, {{1, 0x22, 0}, {2, 0x11, 0}, {3, 0x11, 0}});
    b.sos({{1, 0x00}, {2, 0x00}, {3, 0x00}}, 0, 63, 0).fill(data, 0);
    return b.eoi().bytes;
}

// A progressive greyscale frame: one DC scan of `dcBytes` zero bytes, then
// `scans` AC scans, each made of end-of-band runs of 32767 blocks
// (symbol 0xE0 and fourteen 1 bits), `runs` runs per scan.
inline std::vector<uint8_t> ProgressiveBomb(uint16_t width, uint16_t height, size_t dcBytes, int scans, int runs) {
    StreamBuilder b;
    b.soi().dqt().dhtSingle(0x00, 0).dhtSingle(0x10, 0xE0);
    b.sof(0xC2, 8, height, width, {{1, 0x11, 0}});
    b.sos({{1, 0x00}}, 0, 0, 0).fill(dcBytes, 0);
    BitWriter w;
    for (int r = 0; r < runs; r++) {
        w.put(0, 1);
        w.put(0x3FFF, 14);
    }
    std::vector<uint8_t> data = w.finish();
    for (int s = 0; s < scans; s++)
        b.sos({{1, 0x00}}, 1, 63, 0).raw(data);
    return b.eoi().bytes;
}

// The same with a three-component 4:2:0 frame, all interleaved DC.
inline std::vector<uint8_t> ProgressiveColourBomb(uint16_t width, uint16_t height, size_t dcBytes) {
    StreamBuilder b;
    b.soi().dqt().dhtSingle(0x00, 0);
    b.sof(0xC2, 8, height, width, {{1, 0x22, 0}, {2, 0x11, 0}, {3, 0x11, 0}});
    b.sos({{1, 0x00}, {2, 0x00}, {3, 0x00}}, 0, 0, 0).fill(dcBytes, 0);
    return b.eoi().bytes;
}

// A lossless frame of `components` components at the given precision with
// predictor 1 and `data` zero bytes (every difference 0).
inline std::vector<uint8_t> LosslessBomb(uint16_t width, uint16_t height, uint8_t precision, int components,
                                         size_t data) {
    std::vector<FrameComponent> frame;
    std::vector<ScanComponent> scan;
    for (int c = 0; c < components; c++) {
        frame.push_back({uint8_t(c + 1), 0x11, 0});
        scan.push_back({uint8_t(c + 1), 0x00});
    }
    StreamBuilder b;
    b.soi().dhtSingle(0x00, 0).sof(0xC3, precision, height, width, frame).sos(scan, 1, 0, 0).fill(data, 0);
    return b.eoi().bytes;
}

}  // namespace kivtest
