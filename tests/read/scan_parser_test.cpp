// Scan header parser: bindings of scan components to their tables (in the
// records of the components they name, in any order), the scan order and
// block positions, the progressive routine choice and its DC-table rule,
// Annex K defaults for undefined sequential tables, refusals, and what a
// failed header leaves behind.
#include <gtest/gtest.h>

#include <array>

#include "stream_builder.h"
#include "test_support.h"

namespace {

using namespace kivtest;

// A progressive 4:2:0 frame with tables 0 (DC, AC) and 1 (DC only) defined,
// followed by `scans` (parsed one by one by the test).
std::vector<uint8_t> progressiveStream(const std::vector<uint8_t> &scans) {
    StreamBuilder s;
    s.soi().dqt(0).dqt(1).sof(0xC2, 8, 32, 32, {{1, 0x22, 0}, {2, 0x11, 1}, {3, 0x11, 1}})
        .dht(0x00, kLuminanceDc).dht(0x10, kLuminanceAc).dht(0x01, kChrominanceDc)
        .sos({{1, 0x00}, {2, 0x11}, {3, 0x11}}, 0, 0, 0x01).raw(scans);
    return s.bytes;
}

std::vector<uint8_t> scanHeader(const std::vector<ScanComponent> &comps, uint8_t ss, uint8_t se,
                                uint8_t ahAl, const std::vector<uint8_t> &before = {}) {
    StreamBuilder s;
    s.raw(before).sos(comps, ss, se, ahAl);
    return s.bytes;
}

TEST(ScanParser, FirstScanBindsEveryComponent) {
    ReadHandle h(progressiveStream({}), 4);
    ASSERT_EQ(h.status, JPG_STATUS_OK) << hex(h.status);
    JpgParam *p = h.p;
    EXPECT_EQ((std::array<int, 6>{p->scanNs, p->scanCs, p->scanSs, p->scanSe, p->scanAh, p->scanAl}),
              (std::array<int, 6>{3, 1, 0, 0, 0, 1}));  // Ns, Cs, Ss, Se, Ah, Al
    EXPECT_EQ(p->components[0].dcTable, &p->dcTables[0]);
    EXPECT_EQ(p->components[1].dcTable, &p->dcTables[1]);
    EXPECT_EQ(p->components[2].acTable, &p->acTables[1]);
    EXPECT_EQ((std::array<uint32_t, 4>{p->components[0].blocks, p->components[2].blocks, p->dec.scanBlockStart[0],
                                       p->dec.scanBlockStart[2]}),
              (std::array<uint32_t, 4>{4, 1, 0, 5}));  // blocks of Y and Cr in the MCU, their first
    EXPECT_EQ(p->routines.coefficient, jpgReadGetProgressiveDCBaseCoefficient);
}

TEST(ScanParser, LaterScansChooseTheirRoutineAndOffset) {
    struct Case {
        std::vector<ScanComponent> comps;
        uint8_t ss, se, ahAl;
        JpgCoefficientFunc routine;  // null: the DC refinement adapter
        uint32_t offset;
    } cases[] = {
        {{{3, 0x10}}, 1, 63, 0x00, jpgReadGetProgressiveACBaseCoefficient, 5},
        {{{2, 0x10}}, 1, 70, 0x10, jpgReadGetProgressiveACDiffCoefficient, 4},  // Se taken as read
        {{{1, 0x00}, {2, 0x10}, {3, 0x10}}, 0, 0, 0x10, nullptr, 0},
    };
    std::vector<uint8_t> scans;
    for (const Case &c : cases)
        for (uint8_t b : scanHeader(c.comps, c.ss, c.se, c.ahAl))
            scans.push_back(b);
    ReadHandle h(progressiveStream(scans), 4);
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    for (const Case &c : cases) {
        h.p->components[0].dcPred = 5;
        h.p->eobRun = 3;
        ASSERT_EQ(jpgReadParseScanLevel(h.p), JPG_STATUS_OK);
        EXPECT_EQ(h.p->scanNs, c.comps.size());
        EXPECT_EQ(h.p->scanSe, c.se);
        EXPECT_EQ(h.p->dec.scanBlockStart[0], c.offset);
        if (c.routine != nullptr)
            EXPECT_EQ(h.p->routines.coefficient, c.routine);
        else
            EXPECT_NE(h.p->routines.coefficient, nullptr);
        EXPECT_EQ(h.p->components[0].dcPred, 0);  // every scan starts its prediction afresh
        EXPECT_EQ(h.p->eobRun, 0);
        EXPECT_EQ(h.p->dec.scanComponents[0], c.comps[0].cs - 1);
    }
}

// Refused scan headers bind nothing, so that no decoder may run; five
// components fail before the tables defined ahead of the scan are released.
TEST(ScanParser, RefusedScansBindNothing) {
    StreamBuilder table;
    table.dht(0x12, kChrominanceAc).raw({0xFF, 0xDA, 0x00, 0x10, 5, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 0, 63, 0});
    const struct {
        const char *what;
        std::vector<uint8_t> scan;
    } cases[] = {{"AC scan without DC table 3", scanHeader({{2, 0x30}}, 1, 63, 0)},
                 {"AC scan without AC table 2", scanHeader({{2, 0x02}}, 1, 63, 0)},
                 {"five components", table.bytes}};
    for (const auto &c : cases) {
        ReadHandle h(progressiveStream(c.scan), 4);
        ASSERT_EQ(h.status, JPG_STATUS_OK) << c.what;
        EXPECT_EQ(jpgReadParseScanLevel(h.p), JPG_STATUS_BAD_DATA) << c.what;
        EXPECT_EQ(h.p->scanNs, 0) << c.what;
    }
    ReadHandle h(progressiveStream(table.bytes), 4);
    jpgReadParseScanLevel(h.p);
    EXPECT_NE(h.p->acTables[2].codes, nullptr);
}

TEST(ScanParser, SequentialScansInAnyOrderWithDefaultTables) {
    struct Case {
        const char *what;
        std::vector<ScanComponent> comps;
        uint8_t order[3];  // frame index per scan position
    } cases[] = {
        {"in frame order", {{1, 0x00}, {2, 0x11}, {3, 0x11}}, {0, 1, 2}},
        {"reversed", {{3, 0x11}, {2, 0x11}, {1, 0x00}}, {2, 1, 0}},
        {"chroma alone", {{3, 0x11}, {2, 0x11}}, {2, 1}},
        {"undefined tables take Annex K", {{1, 0x23}, {2, 0x11}, {3, 0x11}}, {0, 1, 2}},
    };
    for (const Case &c : cases) {
        StreamBuilder s;
        s.soi().dqt(0).sof(0xC0, 8, 16, 16, {{1, 0x22, 0}, {2, 0x11, 0}, {3, 0x11, 0}})
            .dht(0x00, kLuminanceDc).dht(0x10, kLuminanceAc).dht(0x01, kChrominanceDc)
            .dht(0x11, kChrominanceAc).sos(c.comps).raw({0}).eoi();
        ReadHandle h(s.bytes);
        ASSERT_EQ(h.status, JPG_STATUS_OK) << c.what;
        const uint8_t starts[3] = {0, 4, 5};
        for (size_t i = 0; i < c.comps.size(); i++) {
            EXPECT_EQ(h.p->dec.scanComponents[i], c.order[i]) << c.what;
            EXPECT_EQ(h.p->dec.scanBlockStart[i], starts[c.order[i]]) << c.what;
        }
        EXPECT_EQ(h.p->components[1].acTable, &h.p->acTables[1]);
    }
    // Tables 2 (DC) and 3 (AC) were never defined: the luminance DC and the
    // chrominance AC table of Annex K.3 stand in; defined tables stay.
    StreamBuilder s;
    s.soi().dqt(0).sof(0xC1, 8, 16, 16, {{1, 0x11, 0}, {2, 0x11, 0}})
        .dht(0x00, kChrominanceDc).sos({{1, 0x23}, {2, 0x00}}).raw({0}).eoi();
    ReadHandle h(s.bytes);
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    EXPECT_EQ(h.p->dcTables[2].origin, kTableDefault);
    EXPECT_EQ(h.p->acTables[3].numCodes, 162u);
    EXPECT_EQ(h.p->acTables[0].numCodes, 162u);  // luminance AC for an even identifier
    EXPECT_EQ(h.p->dcTables[0].origin, kTableFromDht);
    EXPECT_EQ(h.p->dcTables[0].level[0].entries[0] & 0xFF00, 0u);  // chrominance: code 00 is SSSS 0
}

}  // namespace
