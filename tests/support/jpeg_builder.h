// Writes small JPEG streams byte by byte (ISO/IEC 10918-1 Annex B syntax)
// for hostile-input tests and fuzz seeds: frames of any declared size with
// one-code Huffman tables, so that a few bytes of entropy-coded data stand
// for many blocks. Also the "decompression bombs": tiny streams that
// declare huge frames, many progressive scans or long lossless rows.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

namespace kivtest {

class JpegBuilder {
public:
    JpegBuilder &Marker(uint8_t code) {
        bytes_.push_back(0xFF);
        bytes_.push_back(code);
        return *this;
    }
    JpegBuilder &Segment(uint8_t code, const std::vector<uint8_t> &payload) {
        Marker(code);
        uint32_t length = uint32_t(payload.size()) + 2;
        bytes_.push_back(uint8_t(length >> 8));
        bytes_.push_back(uint8_t(length));
        bytes_.insert(bytes_.end(), payload.begin(), payload.end());
        return *this;
    }
    // Table 0 to 3 of 8-bit values, all `value`.
    JpegBuilder &Dqt(uint8_t table = 0, uint8_t value = 1) {
        std::vector<uint8_t> p{table};
        p.insert(p.end(), 64, value);
        return Segment(0xDB, p);
    }
    // One Huffman table whose only code is the 1-bit '0' for `symbol`.
    JpegBuilder &DhtSingle(uint8_t classAndId, uint8_t symbol) {
        std::vector<uint8_t> p{classAndId, 1};
        p.insert(p.end(), 15, 0);
        p.push_back(symbol);
        return Segment(0xC4, p);
    }
    struct Component {
        uint8_t id, sampling, table;
    };
    JpegBuilder &Sof(uint8_t code, uint8_t precision, uint16_t height, uint16_t width,
                     std::initializer_list<Component> components) {
        std::vector<uint8_t> p{precision, uint8_t(height >> 8), uint8_t(height),
                               uint8_t(width >> 8), uint8_t(width), uint8_t(components.size())};
        for (const Component &c : components)
            p.insert(p.end(), {c.id, c.sampling, c.table});
        return Segment(code, p);
    }
    struct ScanComponent {
        uint8_t id, tables;
    };
    JpegBuilder &Sos(std::initializer_list<ScanComponent> components, uint8_t ss, uint8_t se,
                     uint8_t ahal) {
        std::vector<uint8_t> p{uint8_t(components.size())};
        for (const ScanComponent &c : components)
            p.insert(p.end(), {c.id, c.tables});
        p.insert(p.end(), {ss, se, ahal});
        return Segment(0xDA, p);
    }
    JpegBuilder &Dri(uint16_t interval) {
        return Segment(0xDD, {uint8_t(interval >> 8), uint8_t(interval)});
    }
    JpegBuilder &Bytes(size_t count, uint8_t value) {
        bytes_.insert(bytes_.end(), count, value);
        return *this;
    }
    // Entropy-coded bits, most significant first; 0xFF is stuffed and the
    // last byte padded with ones.
    JpegBuilder &Bits(const std::vector<std::pair<uint32_t, int>> &codes) {
        uint32_t acc = 0;
        int n = 0;
        for (auto [value, length] : codes) {
            for (int i = length - 1; i >= 0; i--) {
                acc = (acc << 1) | ((value >> i) & 1);
                if (++n == 8) {
                    Byte(uint8_t(acc));
                    acc = 0;
                    n = 0;
                }
            }
        }
        if (n != 0)
            Byte(uint8_t((acc << (8 - n)) | ((1u << (8 - n)) - 1)));
        return *this;
    }
    std::vector<uint8_t> Take() { return std::move(bytes_); }

private:
    void Byte(uint8_t b) {
        bytes_.push_back(b);
        if (b == 0xFF)
            bytes_.push_back(0);
    }
    std::vector<uint8_t> bytes_;
};

// A baseline 4:2:0 frame of the given size followed by `data` zero bytes of
// entropy-coded data (each block: DC difference 0, end of block).
inline std::vector<uint8_t> BaselineBomb(uint16_t width, uint16_t height, size_t data) {
    JpegBuilder b;
    b.Marker(0xD8).Dqt().DhtSingle(0x00, 0).DhtSingle(0x10, 0x00);
    b.Sof(0xC0, 8, height, width, {{1, 0x22, 0}, {2, 0x11, 0}, {3, 0x11, 0}});
    b.Sos({{1, 0x00}, {2, 0x00}, {3, 0x00}}, 0, 63, 0).Bytes(data, 0);
    return b.Marker(0xD9).Take();
}

// A progressive greyscale frame: one DC scan of `dcBytes` zero bytes, then
// `scans` AC scans, each made of end-of-band runs of 32767 blocks
// (symbol 0xE0 and fourteen 1 bits), `runs` runs per scan.
inline std::vector<uint8_t> ProgressiveBomb(uint16_t width, uint16_t height, size_t dcBytes,
                                            int scans, int runs) {
    JpegBuilder b;
    b.Marker(0xD8).Dqt().DhtSingle(0x00, 0).DhtSingle(0x10, 0xE0);
    b.Sof(0xC2, 8, height, width, {{1, 0x11, 0}});
    b.Sos({{1, 0x00}}, 0, 0, 0).Bytes(dcBytes, 0);
    std::vector<std::pair<uint32_t, int>> codes;
    for (int r = 0; r < runs; r++) {
        codes.push_back({0, 1});
        codes.push_back({0x3FFF, 14});
    }
    for (int s = 0; s < scans; s++)
        b.Sos({{1, 0x00}}, 1, 63, 0).Bits(codes);
    return b.Marker(0xD9).Take();
}

// The same with a three-component 4:2:0 frame, all interleaved DC.
inline std::vector<uint8_t> ProgressiveColourBomb(uint16_t width, uint16_t height,
                                                  size_t dcBytes) {
    JpegBuilder b;
    b.Marker(0xD8).Dqt().DhtSingle(0x00, 0);
    b.Sof(0xC2, 8, height, width, {{1, 0x22, 0}, {2, 0x11, 0}, {3, 0x11, 0}});
    b.Sos({{1, 0x00}, {2, 0x00}, {3, 0x00}}, 0, 0, 0).Bytes(dcBytes, 0);
    return b.Marker(0xD9).Take();
}

// A lossless frame of `components` components at the given precision with
// predictor 1 and `data` zero bytes (every difference 0).
inline std::vector<uint8_t> LosslessBomb(uint16_t width, uint16_t height, uint8_t precision,
                                         int components, size_t data) {
    JpegBuilder b;
    b.Marker(0xD8).DhtSingle(0x00, 0);
    std::vector<uint8_t> sof{precision, uint8_t(height >> 8), uint8_t(height),
                             uint8_t(width >> 8), uint8_t(width), uint8_t(components)};
    std::vector<uint8_t> sos{uint8_t(components)};
    for (int c = 0; c < components; c++) {
        sof.insert(sof.end(), {uint8_t(c + 1), 0x11, 0});
        sos.insert(sos.end(), {uint8_t(c + 1), 0x00});
    }
    sos.insert(sos.end(), {1, 0, 0});
    b.Segment(0xC3, sof).Segment(0xDA, sos).Bytes(data, 0);
    return b.Marker(0xD9).Take();
}

}  // namespace kivtest
