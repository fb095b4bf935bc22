// Programs of API calls (see api_program.h) for every misuse class: calls
// of the other family on both kinds of handle, each rectangle defect on each
// output driver, every epilog after every stage. They seed the api fuzz
// target and run as a test, where the leak checker of the sanitizer build
// covers every sequence.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "api_program.h"

namespace kivtest {

struct ApiSeed {
    std::string name;
    ApiInput input;
};

namespace api_seeds {

// Stream sources of kApiOpenRead.
constexpr int kFromStream = 0, kFromEncoded = 1;

// The rectangle defects, as geometry changes.
struct Defect {
    const char *name;
    ApiGeometry geometry;
};

inline std::vector<Defect> Defects() {
    auto with = [](auto change) {
        ApiGeometry g;
        change(g);
        return g;
    };
    return {
        {"negative-width", with([](ApiGeometry &g) { g.layout = 1 << 3; })},
        {"huge-width", with([](ApiGeometry &g) { g.layout = 2 << 3; })},
        {"zero-width", with([](ApiGeometry &g) { g.layout = 3 << 3; })},
        {"negative-height", with([](ApiGeometry &g) { g.layout = 1 << 5; })},
        {"huge-height", with([](ApiGeometry &g) { g.layout = 2 << 5; })},
        {"zero-height", with([](ApiGeometry &g) { g.layout = 3 << 5; })},
        {"short-stride", with([](ApiGeometry &g) { g.strideDelta = -1; })},
        {"huge-stride", with([](ApiGeometry &g) { g.layout = 0x80; })},
        {"negative-stride", with([](ApiGeometry &g) { g.layout = 4; })},
        {"negative-stride-stated", with([](ApiGeometry &g) { g.layout = 5; })},
        {"short-allocation", with([](ApiGeometry &g) { g.layout = 1; g.fill = 9; })},
        {"no-pixels", with([](ApiGeometry &g) { g.layout = 3; })},
        {"one-channel", with([](ApiGeometry &g) { g.channels = 1; })},
        {"five-channels", with([](ApiGeometry &g) { g.channels = 5; })},
        {"16-bit", with([](ApiGeometry &g) { g.bits = 16; })},
        {"4-bit", with([](ApiGeometry &g) { g.bits = 4; })},
        {"odd-address", with([](ApiGeometry &g) { g.layout = 6; })},
    };
}

// Encodes a 16 x 16 three-channel image into slot `slot` and ends it to
// memory, so that a decoder can open the result.
inline void Encode(ApiInput &in, int slot, bool lossless) {
    in.op(kApiOpenWrite, slot, {0});
    in.output(slot, lossless ? kDriveWriteSpatial : kDriveWrite, 16, 0, ApiGeometry{});
    in.op(kApiEnd, slot, {1});
}

// Opens slot 0 as the decoder a driver needs: the sequential stream, the
// progressive stream in the input, or a lossless stream encoded first.
inline void OpenFor(ApiInput &in, ApiDriver driver) {
    if (driver == kDriveWrite || driver == kDriveWriteSpatial) {
        in.op(kApiOpenWrite, 0, {0});
        return;
    }
    if (driver == kDriveSpatial) {
        Encode(in, 1, true);
        in.op(kApiOpenRead, 0, {kFromEncoded});
        return;
    }
    in.op(kApiOpenRead, 0, {kFromStream});
}

}  // namespace api_seeds

// `sequential` and `progressive` are small JPEG streams (the corpus's
// testorig.jpg and testprog.jpg).
inline std::vector<ApiSeed> ApiSeedPrograms(const std::vector<uint8_t> &sequential,
                                            const std::vector<uint8_t> &progressive) {
    using namespace api_seeds;
    std::vector<ApiSeed> seeds;
    const ApiGeometry natural;

    // Every decoder call on an encoder, which then still writes a stream
    // that decodes; every encoder call on a decoder, which then still decodes.
    {
        ApiInput in;
        in.stream = sequential;
        in.op(kApiOpenWrite, 0, {0});
        in.output(0, kDriveWrite, 8, 0, natural);
        for (int g = 0; g < 17; g++)
            in.op(kApiGet, 0, {g});
        for (int s = 0; s < 6; s++)
            in.op(kApiSetRead, 0, {s, 1});
        for (int d = kDriveToRect; d <= kDriveSpatial; d++)
            in.output(0, ApiDriver(d), 16, 1, natural);
        in.op(kApiSeek, 0, {0, 1, 0});
        in.op(kApiSeek, 0, {1, 1, 0});
        in.op(kApiPartialInput, 0, {0, 0, 16, 0});
        for (int s = 0; s < 3; s++)
            in.op(kApiSegment, 0, {s, 0});
        in.op(kApiEnd, 0, {0});
        in.output(0, kDriveWrite, 8, 0, natural);
        in.op(kApiEnd, 0, {1});
        in.op(kApiOpenRead, 1, {kFromEncoded});
        in.output(1, kDriveToRect, 0, 0, natural);
        in.op(kApiEnd, 1, {0});
        seeds.push_back({"wrong-mode-decoder-calls-on-encoder", in});
    }
    {
        ApiInput in;
        in.stream = sequential;
        in.op(kApiOpenRead, 0, {kFromStream});
        in.output(0, kDriveToRect, 16, 0, natural);
        for (int s = 0; s < 14; s++)
            in.op(kApiSetWrite, 0, {s, 2, 0, 2, 0});
        in.op(kApiGet, 0, {17});
        in.output(0, kDriveWrite, 16, 0, natural);
        in.output(0, kDriveWriteSpatial, 16, 0, natural);
        in.op(kApiPartialOutput, 0, {0});
        for (int w = 0; w < 3; w++)
            in.op(kApiWriteMarker, 0, {w, 0xFE, 4, 0});
        in.op(kApiEnd, 0, {1});
        in.op(kApiEnd, 0, {2});
        in.output(0, kDriveToRect, 0, 0, natural);
        in.op(kApiEnd, 0, {0});
        seeds.push_back({"wrong-mode-encoder-calls-on-decoder", in});
    }

    // Each rectangle defect on each driver, then a call that works.
    for (int d = 0; d < kDriveCount; d++) {
        ApiDriver driver = ApiDriver(d);
        ApiInput in;
        in.stream = driver == kDriveProgressive ? progressive : sequential;
        OpenFor(in, driver);
        for (const Defect &defect : Defects())
            in.output(0, driver, 16, 2, defect.geometry);
        in.output(0, driver, 16, 2, natural);
        in.op(kApiEnd, 0, {3});
        seeds.push_back({"rect-defects-driver-" + std::to_string(d), in});
    }

    // Every epilog after every stage of a decoder and of an encoder.
    struct Stage {
        const char *name;
        void (*run)(ApiInput &);
    };
    const Stage readStages[] = {
        {"opened", [](ApiInput &) {}},
        {"headers", [](ApiInput &in) {
             for (int g = 0; g < 17; g++)
                 in.op(kApiGet, 0, {g});
         }},
        {"some-lines", [](ApiInput &in) { in.output(0, kDriveToRect, 8, 0, ApiGeometry{}); }},
        {"all-lines", [](ApiInput &in) { in.output(0, kDriveToRect, 0, 0, ApiGeometry{}); }},
        {"scaled", [](ApiInput &in) { in.output(0, kDriveScaled, 4, 1, ApiGeometry{}); }},
        {"segments", [](ApiInput &in) {
             in.op(kApiSegment, 0, {0, 0});
             in.op(kApiSegment, 0, {0, 1});
             in.op(kApiSegment, 0, {1, 5});
         }},
        {"seek", [](ApiInput &in) { in.op(kApiSeek, 0, {1, 3, 0}); }},
        {"after-the-end", [](ApiInput &in) {
             in.output(0, kDriveToRect, 0, 0, ApiGeometry{});
             in.output(0, kDriveToRect, 0, 0, ApiGeometry{});
         }},
    };
    const char *epilogs[] = {"read-epilog", "write-epilog-memory", "write-epilog-file", "epilog"};
    for (const Stage &stage : readStages)
        for (int e = 0; e < 4; e++) {
            ApiInput in;
            in.stream = sequential;
            in.op(kApiOpenRead, 0, {kFromStream});
            stage.run(in);
            in.op(kApiEnd, 0, {e});
            in.op(kApiEnd, 0, {3});
            seeds.push_back({std::string("decoder-") + stage.name + "-" + epilogs[e], in});
        }
    const Stage otherReads[] = {
        {"progressive-some-rows", [](ApiInput &in) {
             in.op(kApiOpenRead, 0, {kFromStream});
             in.output(0, kDriveProgressive, 8, 0, ApiGeometry{});
         }},
        {"progressive-one-pass", [](ApiInput &in) {
             in.op(kApiOpenRead, 0, {kFromStream});
             in.output(0, kDriveProgressive, 0, 1, ApiGeometry{});
         }},
        {"lossless-some-rows", [](ApiInput &in) {
             Encode(in, 1, true);
             in.op(kApiOpenRead, 0, {kFromEncoded});
             in.output(0, kDriveSpatial, 5, 0, ApiGeometry{});
         }},
        {"partial-input", [](ApiInput &in) {
             in.op(kApiOpenRead, 0, {kFromStream | 2, 1, 200});
             in.output(0, kDriveToRect, 8, 0, ApiGeometry{});
             in.op(kApiPartialInput, 0, {0x80, 0x11, 0x00, 0x08, 0});
             in.output(0, kDriveToRect, 8, 0, ApiGeometry{});
         }},
        {"file-prolog", [](ApiInput &in) {
             in.op(kApiOpenRead, 0, {kFromStream, 4 | 8 | 0x20});
             in.output(0, kDriveToRect, 16, 0, ApiGeometry{});
         }},
    };
    for (const Stage &stage : otherReads)
        for (int e = 0; e < 4; e++) {
            ApiInput in;
            in.stream = std::string(stage.name).rfind("progressive", 0) == 0 ? progressive : sequential;
            stage.run(in);
            in.op(kApiEnd, 0, {e});
            in.op(kApiEnd, 0, {3});
            seeds.push_back({std::string("decoder-") + stage.name + "-" + epilogs[e], in});
        }
    const Stage writeStages[] = {
        {"opened", [](ApiInput &) {}},
        {"setters", [](ApiInput &in) {
             in.op(kApiSetWrite, 0, {0, 16, 0, 16, 0});
             in.op(kApiSetWrite, 0, {1, 75, 0});
             in.op(kApiSetWrite, 0, {10, 2, 0});
         }},
        {"segment", [](ApiInput &in) { in.op(kApiWriteMarker, 0, {0, 0xE1, 40, 0}); }},
        {"open-segment", [](ApiInput &in) { in.op(kApiWriteMarker, 0, {1, 0xFE, 40, 0}); }},
        {"some-rows", [](ApiInput &in) {
             in.op(kApiSetWrite, 0, {0, 16, 0, 32, 0});
             in.output(0, kDriveWrite, 16, 0, ApiGeometry{});
         }},
        {"all-rows", [](ApiInput &in) { in.output(0, kDriveWrite, 16, 0, ApiGeometry{}); }},
        {"lossless-some-rows", [](ApiInput &in) {
             in.op(kApiSetWrite, 0, {0, 16, 0, 32, 0});
             in.output(0, kDriveWriteSpatial, 16, 0, ApiGeometry{});
         }},
        {"refused-rows", [](ApiInput &in) {
             ApiGeometry g;
             g.strideDelta = -1;
             in.output(0, kDriveWrite, 16, 0, g);
         }},
    };
    for (const Stage &stage : writeStages)
        for (int e = 0; e < 4; e++)
            for (int options : {0, 1, 2}) {  // memory, file, memory with partial output
                ApiInput in;
                in.op(kApiOpenWrite, 0, {options});
                stage.run(in);
                if (options == 2)
                    in.op(kApiPartialOutput, 0, {0});
                in.op(kApiEnd, 0, {e});
                in.op(kApiEnd, 0, {3});
                seeds.push_back({std::string("encoder-") + stage.name + "-" + std::to_string(options) + "-" +
                                     epilogs[e],
                                 in});
            }

    // Two decoders and an encoder at once, output of one fed to the other.
    {
        ApiInput in;
        in.stream = sequential;
        in.op(kApiOpenRead, 0, {kFromStream});
        in.op(kApiOpenWrite, 1, {2});
        in.output(0, kDriveToRect, 8, 0, ApiGeometry{});
        in.output(1, kDriveWrite, 8, 0, ApiGeometry{});
        in.op(kApiPartialOutput, 1, {0});
        in.output(1, kDriveWrite, 8, 0, ApiGeometry{});
        in.op(kApiEnd, 1, {1});
        in.op(kApiEnd, 0, {0});
        in.op(kApiOpenRead, 0, {kFromEncoded, 2});
        in.output(0, kDriveScaledMcu, 2, 0, ApiGeometry{});
        seeds.push_back({"interleaved-handles", in});
    }
    return seeds;
}

}  // namespace kivtest
