// Writes JPEG streams byte by byte (ISO/IEC 10918-1 Annex B syntax) for
// tests and fuzz seeds: marker segments with exact (or deliberately wrong)
// lengths, the example Huffman tables of Annex K.3, entropy-coded data
// written with any table, and the "decompression bombs": tiny streams that
// declare huge frames, many progressive scans or long lossless rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

namespace kivtest {

// A Huffman table as DHT carries it: BITS and HUFFVAL (Annex C).
struct HuffmanDefinition {
    uint8_t bits[16];
    std::vector<uint8_t> values;
};

inline const HuffmanDefinition kLuminanceDc = {
    {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}};

inline const HuffmanDefinition kChrominanceDc = {
    {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}};

inline const HuffmanDefinition kLuminanceAc = {
    {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7d},
    {0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61,
     0x07, 0x22, 0x71, 0x14, 0x32, 0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52,
     0xd1, 0xf0, 0x24, 0x33, 0x62, 0x72, 0x82, 0x09, 0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25,
     0x26, 0x27, 0x28, 0x29, 0x2a, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45,
     0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63, 0x64,
     0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83,
     0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99,
     0x9a, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6,
     0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3,
     0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8,
     0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa}};

inline const HuffmanDefinition kChrominanceAc = {
    {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77},
    {0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61,
     0x71, 0x13, 0x22, 0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33,
     0x52, 0xf0, 0x15, 0x62, 0x72, 0xd1, 0x0a, 0x16, 0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18,
     0x19, 0x1a, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44,
     0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63,
     0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a,
     0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97,
     0x98, 0x99, 0x9a, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4,
     0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca,
     0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7,
     0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa}};

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
