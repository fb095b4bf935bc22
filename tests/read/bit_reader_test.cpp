// Entropy-coded segment reader: byte stuffing, markers inside the data,
// raw reads, marker codes at byte boundaries, the end-of-data states and
// all-ones fill, the file offset and rewinding; the inline bit supply of the
// decoders reads exactly what jpgReadGetBits reads.
#include <gtest/gtest.h>

#include <random>

#include "decode_helpers.h"
#include "read/bit_reader.h"

namespace {

using namespace kivtest;

// A read handle over raw bytes (no JPEG parsing), as after a prolog.
struct RawReader {
    std::vector<uint8_t> data;
    JpgParam *p;
    explicit RawReader(std::vector<uint8_t> bytes) : data(std::move(bytes)) {
        p = jpgProlog(nullptr);
        p->mode = kModeRead;
        p->bs.flags = COMPLIB_BS_MEMORY;
        p->bs.memBase = p->bs.memCursor = data.data();
        p->bs.memLength = static_cast<uint32_t>(data.size());
        complibOpenBitstreamFile(&p->bs);
    }
    ~RawReader() { jpgEpilog(p); }
};

TEST(BitReader, ByteStuffingAndMarkersInData) {
    RawReader stuffed({0xFF, 0x00, 0x80});
    EXPECT_EQ(jpgReadGetBits(stuffed.p, 16), 0xFF80u);
    RawReader marker({0xFF, 0xD0});
    EXPECT_EQ(jpgReadGetBits(marker.p, 16), 0xFFD0u);  // the marker becomes data
    RawReader mixed({0x12, 0xFF, 0x00, 0x34, 0xFF, 0x00, 0xFF, 0x00});
    EXPECT_EQ(jpgReadGetBits(mixed.p, 4), 0x1u);
    EXPECT_EQ(jpgReadGetBits(mixed.p, 12), 0x2FFu);
    EXPECT_EQ(jpgReadShowBits(mixed.p, 16), 0x34FFu);
    EXPECT_EQ(jpgReadGetBits(mixed.p, 16), 0x34FFu);
    EXPECT_EQ(jpgReadGetBits(mixed.p, 8), 0xFFu);
    EXPECT_EQ(mixed.p->bs.state, 0u);
}

TEST(BitReader, RawReadsKeepEveryByte) {
    RawReader r({0xFF, 0x00, 0xAB, 0xCD});
    EXPECT_EQ(jpgReadShowRawBits(r.p, 16), 0xFF00u);
    EXPECT_EQ(jpgReadGetBytes(r.p, 16), 0xFF00u);
    EXPECT_EQ(jpgReadGetBytes(r.p, 8), 0xABu);
    EXPECT_EQ(jpgReadGetBytes(r.p, 8), 0xCDu);
}

TEST(BitReader, EndOfDataStates) {
    RawReader r({0x5A});
    EXPECT_EQ(jpgReadGetBytes(r.p, 8), 0x5Au);
    EXPECT_EQ(r.p->bs.state, 0u);
    EXPECT_EQ(jpgReadGetBytes(r.p, 8), 0xFFu);  // all ones past the end
    EXPECT_EQ(r.p->bs.state, 2u);
    EXPECT_EQ(jpgReadGetBytes(r.p, 8), 0xFFu);
    EXPECT_EQ(r.p->bs.state, 1u);
    // Entropy reads: the fill also sets the pending bits above it.
    RawReader e({0x00});
    EXPECT_EQ(jpgReadGetBits(e.p, 4), 0x0u);
    EXPECT_EQ(jpgReadGetBits(e.p, 8), 0xFFu);  // 4 zero bits pending, then the fill
    EXPECT_EQ(e.p->bs.state, 2u);
    EXPECT_EQ(jpgReadFillBuffer(e.p), 0u);
    EXPECT_EQ(e.p->bs.state, 1u);
}

TEST(BitReader, MarkerCodesAtTheByteBoundary) {
    RawReader r({0xA0, 0xFF, 0xD3, 0x12});
    jpgReadGetBits(r.p, 3);  // 5 bits of the first byte pending
    EXPECT_EQ(jpgReadShowMarkerCode(r.p), 0xFFD3u);
    jpgReadFlushMarkerCode(r.p);
    EXPECT_EQ(jpgReadShowMarkerCode(r.p), 0x12u);
    EXPECT_EQ(jpgReadGetBits(r.p, 8), 0x12u);
    // A stuffed zero where a marker was expected: the byte after it takes its place.
    RawReader s({0xFF, 0x00, 0x5C, 0x77});
    EXPECT_EQ(jpgReadShowMarkerCode(s.p), 0xFF00u);
    jpgReadDeleteByteStuffingCode(s.p);
    EXPECT_EQ(jpgReadGetBits(s.p, 16), 0xFF5Cu);
    EXPECT_EQ(jpgReadGetBits(s.p, 8), 0x77u);
}

TEST(BitReader, FlushDropsToTheByteBoundary) {
    RawReader r({0xF0, 0x0F});
    jpgReadGetBits(r.p, 3);
    jpgReadFlushBits(r.p);
    EXPECT_EQ(r.p->bs.bitCount % 8, 0);
    EXPECT_EQ(jpgReadGetBits(r.p, 8), 0x0Fu);
}

// The decoders' inline supply against the exported reader on random data
// with many 0xFF bytes.
TEST(BitReader, InlineSupplyMatchesGetBits) {
    std::mt19937 rng(5);
    std::vector<uint8_t> data;
    for (int i = 0; i < 200000; i++) {
        uint8_t b = static_cast<uint8_t>(rng());
        data.push_back(rng() % 5 == 0 ? 0xFF : b);
        if (data.back() == 0xFF && rng() % 3)
            data.push_back(0);
    }
    RawReader a(data), b(data);
    kiv::BitState bits(b.p);
    for (int i = 0; i < 100000; i++) {
        int n = 1 + static_cast<int>(rng() % 16);
        ASSERT_EQ(bits.receive(n), jpgReadGetBits(a.p, n)) << i;
    }
    bits.store();
    // The inline supply may hold bytes the exported reader has yet to load,
    // never a different position in the stream.
    EXPECT_EQ(8 * static_cast<int64_t>(b.p->bs.readPos) - b.p->bs.bitCount,
              8 * static_cast<int64_t>(a.p->bs.readPos) - a.p->bs.bitCount);
    EXPECT_LE(b.p->bs.bitCount, 32);
}

TEST(BitReader, OffsetAndRewind) {
    std::vector<uint8_t> jpeg = readFile(corpus("samples/testorig.jpg"));
    ReadHandle h(jpeg);
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    // Right behind the SOS segment.
    size_t sos = 0;
    for (size_t i = 0; i + 1 < jpeg.size(); i++)
        if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xDA) {
            sos = i;
            break;
        }
    size_t dataStart = sos + 2 + (jpeg[sos + 2] << 8 | jpeg[sos + 3]);
    EXPECT_EQ(h.p->firstScanOffset, dataStart);
    EXPECT_EQ(jpgReadGetJPEGFileOffset(&h.p->bs), dataStart);
    uint32_t first = jpgReadGetBits(h.p, 16);
    h.p->components[0].dcPred = 5;
    h.p->mcusLeft = 1;
    ASSERT_EQ(jpgReadRewindJPEGFile(h.p, h.p->firstScanOffset, 1), JPG_STATUS_OK);
    EXPECT_EQ(h.p->components[0].dcPred, 0);
    EXPECT_EQ(h.p->mcusLeft, h.p->totalMcus);
    EXPECT_EQ(jpgReadGetBits(h.p, 16), first);
    ASSERT_EQ(jpgReadRewindJPEGFile(h.p, 0, 0), JPG_STATUS_OK);
    EXPECT_EQ(jpgReadGetBytes(h.p, 16), 0xFFD8u);
    EXPECT_EQ(jpgReadRewindJPEGFile(nullptr, 0, 0), JPG_STATUS_INVALID_HANDLE);
}

TEST(BitReader, FileInputEndsAtTheGivenLength) {
    std::vector<uint8_t> jpeg = readFile(corpus("samples/testorig.jpg"));
    std::vector<uint8_t> file = jpeg;
    file.insert(file.end(), 5000, 0x00);  // zeros after the stream would decode as data
    std::string path = tempPath("padded.jpg");
    writeFile(path, file);
    JpgParam *p = nullptr;
    ASSERT_EQ(jpgReadPrologFromFile(path.c_str(), 0, static_cast<int32_t>(jpeg.size()), 0, &p),
              JPG_STATUS_OK);
    // Drain the input: the reader stops at the stream's end, not the file's.
    uint32_t bytes = 0;
    while (p->bs.state == 0) {
        jpgReadGetBytes(p, 8);
        bytes++;
    }
    EXPECT_EQ(bytes + p->firstScanOffset - 1, jpeg.size());
    jpgReadEpilog(p);
}

}  // namespace
