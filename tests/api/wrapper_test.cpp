// The header-only C++ wrapper kivjpeg.hpp: status values, RAII handles
// (moves, early destruction; leaks show under the sanitizer build), and that
// decode/encode through it match the C calls it wraps.
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "kivjpeg.hpp"
#include "test_support.h"

namespace {

using kivjpeg::Decoder;
using kivjpeg::EncodeOptions;
using kivjpeg::Encoder;
using kivjpeg::Image;
using kivjpeg::PixelOrder;
using kivjpeg::Status;
using kivtest::corpus;
using kivtest::readFile;

TEST(Wrapper, EveryStatusHasADistinctNameAndMessage) {
    const JpgStatus kAll[] = {
        JPG_STATUS_OK, JPG_STATUS_FAILED, JPG_STATUS_BLOCK_UNAVAILABLE, JPG_STATUS_NO_MEMORY,
        JPG_STATUS_INVALID_HANDLE, JPG_STATUS_SEEK_FAILED, JPG_STATUS_OUTPUT_FULL,
        JPG_STATUS_END_OF_STREAM, JPG_STATUS_INVALID_PARAMETER, JPG_STATUS_WRONG_MODE,
        JPG_STATUS_NOT_SUPPORTED, JPG_STATUS_BAD_DATA, JPG_STATUS_FILE_OPEN_FAILED,
        JPG_STATUS_UNEXPECTED_END, JPG_STATUS_BAD_DC_CODE, JPG_STATUS_BAD_AC_CODE,
        JPG_STATUS_SEGMENT_LENGTH, JPG_STATUS_BAD_SAMPLING, JPG_STATUS_ERROR};
    std::set<std::string> names, messages;
    for (JpgStatus s : kAll) {
        Status st(s);
        names.insert(st.name());
        messages.insert(st.message());
        EXPECT_EQ(std::string(st.name()).rfind("JPG_STATUS_", 0), 0u);
        EXPECT_EQ(st.ok(), s == JPG_STATUS_OK);
        EXPECT_EQ(st.warning(), (s >> 28) == 8) << st.name();
    }
    EXPECT_EQ(names.size(), std::size(kAll));
    EXPECT_EQ(messages.size(), std::size(kAll));
    EXPECT_STREQ(Status(0x12345678).name(), "JPG_STATUS_UNKNOWN");
}

TEST(Wrapper, FailuresAreValuesAndLeaveNoHandle) {
    Decoder d;
    EXPECT_EQ(d.openBytes({1, 2, 3, 4}).code(), JPG_STATUS_BAD_DATA);
    EXPECT_FALSE(d.isOpen());
    EXPECT_EQ(d.openBytes({}).code(), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(d.openFile("/nonexistent/file.jpg").code(), JPG_STATUS_FILE_OPEN_FAILED);
    Image out;
    EXPECT_EQ(d.decode(out).code(), JPG_STATUS_INVALID_HANDLE);
    // An encoder moved, then destroyed without finish(), ends its handle (the
    // sanitizer build reports a leak otherwise).
    Encoder e;
    ASSERT_TRUE(e.openMemory().ok());
    ASSERT_TRUE(e.configure(EncodeOptions{}, 3).ok());
    Encoder other = std::move(e);
    EXPECT_EQ(e.handle(), nullptr);
    EXPECT_NE(other.handle(), nullptr);
}

TEST(Wrapper, DecoderMatchesTheCCalls) {
    std::vector<uint8_t> bytes = readFile(corpus("samples/testorig.jpg"));
    Decoder d;
    ASSERT_TRUE(d.openMemory(bytes.data(), bytes.size()).ok());
    EXPECT_EQ(d.header().process, kivjpeg::Process::Baseline);
    EXPECT_EQ(d.header().width, 227u);
    EXPECT_EQ(d.header().height, 149u);
    EXPECT_EQ(d.header().sampling[0], 0x22);
    EXPECT_EQ(d.header().sampling[2], 0x11);
    EXPECT_EQ(d.header().identifiers[1], 2);
    Image viaWrapper;
    ASSERT_TRUE(d.decode(viaWrapper).ok());
    EXPECT_EQ(viaWrapper.order, PixelOrder::BGR);
    const std::vector<uint8_t> direct = kivtest::decode(bytes).image.pixels;  // jpgReadToRect
    EXPECT_EQ(viaWrapper.data, direct);

    // Moving hands the handle over; the moved-from decoder is closed.
    Decoder moved = std::move(d);
    EXPECT_FALSE(d.isOpen());
    EXPECT_TRUE(moved.isOpen());
    // Strips of whole MCU rows give the same image.
    Decoder strips;
    ASSERT_TRUE(strips.openBytes(bytes).ok());
    Image inStrips = strips.makeImage();
    for (uint32_t y = 0; y < 149; y += 32)
        ASSERT_TRUE(strips.decodeRows(inStrips, y, std::min(32u, 149 - y)).ok()) << y;
    EXPECT_EQ(inStrips.data, direct);
}

TEST(Wrapper, SegmentsWalkAndDecodeInterleave) {
    Decoder d;
    ASSERT_TRUE(d.openBytes(readFile(corpus("conformance/A1.jpg"))).ok());
    auto list = d.segments();
    ASSERT_GE(list.size(), 3u);
    EXPECT_EQ(list.front().marker, 0xFFD8);
    EXPECT_EQ(list[1].marker, 0xFFFE);
    EXPECT_EQ(list[1].length, 366u);  // the length field says 368
    kivjpeg::Segment seg;
    ASSERT_TRUE(d.nextSegment(true, &seg).ok());
    ASSERT_TRUE(d.nextSegment(false, &seg).ok());
    std::vector<uint8_t> payload;
    ASSERT_TRUE(d.segmentData(&payload, seg.length).ok());
    EXPECT_EQ(std::string(payload.begin(), payload.begin() + 10), "Compressed");
    Image image;
    EXPECT_TRUE(d.decode(image).ok());  // the walk left the input elsewhere
    EXPECT_EQ(image.channels, 4u);
}

TEST(Wrapper, EncoderTakesEitherChannelOrder) {
    Image rgb(40, 24, 3, 1, PixelOrder::RGB);  // red rising to the right, blue downwards
    for (uint32_t y = 0; y < 24; y++)
        for (uint32_t x = 0; x < 40; x++)
            for (uint32_t c = 0; c < 3; c++)
                rgb.setSample(x, y, c, c == 0 ? x * 255 / 40 : c == 1 ? (x + y) & 255 : y * 255 / 24);
    Image bgr = rgb;
    bgr.swapRedBlue();
    for (bool lossless : {false, true}) {
        EncodeOptions o;
        o.lossless = lossless;
        std::vector<uint8_t> a, b;
        ASSERT_TRUE(kivjpeg::encodeMemory(rgb, o, &a).ok());
        ASSERT_TRUE(kivjpeg::encodeMemory(bgr, o, &b).ok());
        EXPECT_EQ(a, b) << lossless;
        Image back;
        ASSERT_TRUE(kivjpeg::decodeMemory(a.data(), a.size(), &back).ok());
        if (lossless) {
            EXPECT_EQ(back.order, PixelOrder::RGB);
            EXPECT_EQ(back.data, rgb.data);
        } else {
            EXPECT_EQ(back.order, PixelOrder::BGR);
            EXPECT_NEAR(back.sample(39, 0, 2), 249, 12);  // red stays red
        }
    }
}

}  // namespace

namespace {

// docs/api.md names every exported function and every status code.
TEST(Docs, ApiReferenceCoversTheWholeHeader) {
    std::vector<uint8_t> h = readFile(std::string(KIV_SOURCE_DIR) + "/include/kivjpeg.h");
    std::vector<uint8_t> d = readFile(std::string(KIV_SOURCE_DIR) + "/docs/api.md");
    std::string header(h.begin(), h.end()), doc(d.begin(), d.end());
    std::regex exported(R"(KIV_API [\w\s*]+?[\s*](\w+)\s*[(\[])");
    std::regex status(R"(#define (JPG_STATUS_\w+))");
    size_t names = 0;
    for (std::sregex_iterator i(header.begin(), header.end(), exported), end; i != end; ++i, ++names)
        EXPECT_NE(doc.find((*i)[1].str()), std::string::npos) << (*i)[1].str();
    for (std::sregex_iterator i(header.begin(), header.end(), status), end; i != end; ++i)
        EXPECT_NE(doc.find("`" + (*i)[1].str() + "`"), std::string::npos) << (*i)[1].str();
    EXPECT_GT(names, 200u);
}

}  // namespace
