// The block coder's bit sink against jpgWritePutBits, for the tests of each
// sink: write/bit_sink.h gives every file the sink of its own instruction
// set, so this check runs the one of the file that includes it.
#pragma once

#include <gtest/gtest.h>

#include <random>
#include <utility>
#include <vector>

#include "test_support.h"
#include "write/bit_sink.h"

namespace {

// Runs of 64 random codes (a third of them all ones, for the stuffing) from
// starting fills near the hand-over of a full staging buffer (the checked
// stores): the same bytes and the same state as jpgWritePutBits.
inline void expectSinkWritesWhatPutBitsWrites() {
    std::mt19937 rng(6);
    for (uint32_t startFill : {0u, 1000u, 0x10000u - 3000u, 0x10000u - 700u}) {
        kivtest::MemoryWriter plain(startFill), fast(startFill);
        for (int block = 0; block < 40; block++) {
            std::vector<std::pair<uint32_t, int32_t>> codes;
            for (int i = 0; i < 64; i++) {
                int32_t length = 1 + static_cast<int32_t>(rng() % 27);
                uint32_t bits = rng() % 3 == 0 ? (1u << length) - 1 : rng() & ((1u << length) - 1);
                codes.push_back({bits, length});
            }
            for (auto [bits, length] : codes)
                ASSERT_EQ(jpgWritePutBits(&plain.bs, bits, length), JPG_STATUS_OK);
            kiv::BitSink sink(&fast.bs);
            bool checked = !sink.roomForBlock();
            for (auto [bits, length] : codes)
                ASSERT_EQ(checked ? sink.put<true>(bits, length) : sink.put<false>(bits, length), JPG_STATUS_OK);
            sink.finish();
            ASSERT_EQ(fast.bs.bitCount, plain.bs.bitCount);
            uint32_t valid = fast.bs.bitCount == 32 ? 0 : 0xFFFFFFFFu >> fast.bs.bitCount;
            ASSERT_EQ(fast.bs.accumulator & valid, plain.bs.accumulator & valid);
            ASSERT_EQ(fast.bs.fill, plain.bs.fill);
        }
        EXPECT_EQ(fast.output(), plain.output());
    }
}

}  // namespace
