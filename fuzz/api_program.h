// Runs a program of public API calls on one or two handles, read from bytes:
// the input format of the api fuzz target, of its seeds and of its
// regression files. Handles are opened as decoders over the input's stream
// (memory or file prologs) or over what an encoder wrote, and as encoders
// into memory or files; the program then calls getters, setters, output
// drivers with rectangles of any geometry, seeks, partial input and output,
// segment access and epilogs, on either handle, in any order, misuse
// included. The answers are checked against the contract:
//   - every status is one the library documents;
//   - a call of the other family (a decoder call on an encoder, or the
//     reverse) gets JPG_STATUS_WRONG_MODE, a call on no handle
//     JPG_STATUS_INVALID_HANDLE;
//   - no output call writes a byte of the caller's buffer outside the
//     rectangle, a refused one writes none at all, and an encoder never
//     writes into its source.
// Every handle and buffer is released before returning, so the leak
// checker sees only what the library itself keeps. Uses kivjpeg.h only.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

#include "kivjpeg.h"

namespace kivtest {

// Operations; an opcode byte is (operation << 1) | handle slot.
enum ApiOp : uint8_t {
    kApiOpenRead,      // source, flags, split
    kApiOpenWrite,     // options
    kApiEnd,           // which epilog
    kApiGet,           // which getter (bit 7: null outputs)
    kApiSetWrite,      // which setter, a (u16), b (u16)
    kApiSetRead,       // which setter, a (u16)
    kApiOutput,        // driver, count (u16), level, geometry (7 bytes)
    kApiSeek,          // which, count (u16), origin
    kApiPartialInput,  // offset (u16), size (u16), variant
    kApiSegment,       // which, argument
    kApiPartialOutput, // variant
    kApiWriteMarker,   // which, code, length (u16)
    kApiOpCount
};

// Bytes of arguments behind each opcode.
constexpr uint8_t kApiArgBytes[kApiOpCount] = {3, 1, 1, 1, 5, 3, 11, 4, 5, 2, 1, 4};

// Output drivers of kApiOutput.
enum ApiDriver : uint8_t {
    kDriveToRect, kDriveMcuToRect, kDriveMcuRow, kDriveScaled, kDriveScaledMcu,
    kDriveProgressive, kDriveSpatial, kDriveWrite, kDriveWriteSpatial, kDriveCount
};

// Geometry bytes of an output rectangle. 0 in width, height, channels or
// bits means "what the frame needs". layout: bits 0-2 allocation (0 exact
// and stated, 1 stated and short, 2 exact and not stated, 3 no pixels,
// 4 bottom-up, 5 bottom-up and stated, 6 at an odd address, 7 stated
// larger than the rows need); bits 3-4 width override (negative, huge,
// zero); bits 5-6 the same for the height; bit 7 a huge stride.
struct ApiGeometry {
    uint8_t width = 0, height = 0, channels = 0, bits = 0;
    int8_t strideDelta = 0;
    uint8_t layout = 0, fill = 0;
};

// The input: two bytes of program length (little-endian), the program, the stream.
struct ApiInput {
    std::vector<uint8_t> program;
    std::vector<uint8_t> stream;

    std::vector<uint8_t> bytes() const {
        std::vector<uint8_t> b{uint8_t(program.size()), uint8_t(program.size() >> 8)};
        b.insert(b.end(), program.begin(), program.end());
        b.insert(b.end(), stream.begin(), stream.end());
        return b;
    }
    void op(ApiOp op, int slot, std::initializer_list<int> args = {}) {
        program.push_back(uint8_t(op << 1 | (slot & 1)));
        size_t n = 0;
        for (int a : args) {
            if (n++ < kApiArgBytes[op])
                program.push_back(uint8_t(a));
        }
        for (; n < kApiArgBytes[op]; n++)
            program.push_back(0);
    }
    void output(int slot, ApiDriver driver, uint16_t count, uint8_t level, const ApiGeometry &g) {
        op(kApiOutput, slot, {driver, count & 0xFF, count >> 8, level, g.width, g.height, g.channels,
                              g.bits, uint8_t(g.strideDelta), g.layout, g.fill});
    }
};

struct ApiOptions {
    std::string tempDir = "/tmp";
    uint64_t frameCap = uint64_t(1) << 20;  // larger frames are not opened (time)
    size_t bufferCap = size_t(1) << 18;     // bytes of one output rectangle's buffer
    int maxOps = 256;
};

struct ApiOutcome {
    int calls = 0;
    JpgStatus last = JPG_STATUS_OK;
    std::string violation;  // empty while the library kept the contract
};

inline bool IsDocumentedStatus(JpgStatus s) {
    switch (s) {
    case JPG_STATUS_OK: case JPG_STATUS_FAILED: case JPG_STATUS_BLOCK_UNAVAILABLE:
    case JPG_STATUS_NO_MEMORY: case JPG_STATUS_INVALID_HANDLE: case JPG_STATUS_SEEK_FAILED:
    case JPG_STATUS_OUTPUT_FULL: case JPG_STATUS_END_OF_STREAM: case JPG_STATUS_INVALID_PARAMETER:
    case JPG_STATUS_WRONG_MODE: case JPG_STATUS_NOT_SUPPORTED: case JPG_STATUS_BAD_DATA:
    case JPG_STATUS_FILE_OPEN_FAILED: case JPG_STATUS_UNEXPECTED_END: case JPG_STATUS_BAD_DC_CODE:
    case JPG_STATUS_BAD_AC_CODE: case JPG_STATUS_SEGMENT_LENGTH: case JPG_STATUS_BAD_SAMPLING:
    case JPG_STATUS_ERROR:
        return true;
    default:
        return false;
    }
}

namespace api {

// Samples (width x height x components) of the largest frame header in a stream.
inline uint64_t LargestFrame(const std::vector<uint8_t> &data) {
    uint64_t largest = 0;
    for (size_t i = 0; i + 10 <= data.size(); i++) {
        uint8_t m = data[i + 1];
        if (data[i] != 0xFF || m < 0xC0 || m > 0xCF || m == 0xC4 || m == 0xC8 || m == 0xCC)
            continue;
        uint64_t height = uint64_t(data[i + 5]) << 8 | data[i + 6];
        uint64_t width = uint64_t(data[i + 7]) << 8 | data[i + 8];
        uint64_t samples = (height == 0 ? 1 : height) * width * (data[i + 9] == 0 ? 1 : data[i + 9]);
        largest = samples > largest ? samples : largest;
    }
    return largest;
}

struct Reader {
    const uint8_t *p;
    size_t n, at = 0;
    uint8_t u8() { return at < n ? p[at++] : 0; }
    uint16_t u16() {
        uint16_t lo = u8();
        return uint16_t(lo | u8() << 8);
    }
};

enum class Kind { None, Read, Write };

struct Slot {
    JpgParam *param = nullptr;
    Kind kind = Kind::None;
    std::vector<uint8_t> input;  // a decoder's stream, alive until its epilog
    std::string outPath;         // an encoder's output file
    uint32_t width = 0, height = 0, channels = 0, precision = 0, process = 0;
};

// A caller's buffer with the rectangle over it; every byte starts as a
// known pattern, so writes outside the rectangle show.
struct Buffer {
    std::vector<uint8_t> bytes;
    ComplibRect rect{};
    size_t offset = 0;       // of the pixel pointer in bytes
    bool geometryValid = false;
    int64_t rowBytes = 0;

    static uint8_t Pattern(size_t i, uint8_t fill) { return uint8_t(i * 7 + fill); }
};

class Runner {
public:
    Runner(const uint8_t *data, size_t size, const ApiOptions &options) : options_(options) {
        size_t length = size >= 2 ? size_t(data[0] | data[1] << 8) : 0;
        if (length > size - (size >= 2 ? 2 : size))
            length = size >= 2 ? size - 2 : 0;
        program_ = {data + (size >= 2 ? 2 : size), length};
        if (size > 2 + length)
            stream_.assign(data + 2 + length, data + size);
    }

    ApiOutcome Run() {
        for (int ops = 0; ops < options_.maxOps && program_.at < program_.n && out_.violation.empty(); ops++) {
            uint8_t code = program_.u8();
            Slot &slot = slots_[code & 1];
            uint8_t op = uint8_t((code >> 1) % kApiOpCount);
            uint8_t args[16] = {};
            size_t n = kApiArgBytes[op] < sizeof args ? kApiArgBytes[op] : sizeof args;
            for (size_t i = 0; i < n; i++)
                args[i] = program_.u8();
            Reader r{args, n};
            Step(op, int(code & 1), slot, r);
        }
        for (int i = 0; i < 2; i++)
            if (slots_[i].param != nullptr)
                Close(slots_[i], jpgEpilog(slots_[i].param), true);
        return out_;
    }

private:
    ApiOptions options_;
    Reader program_{nullptr, 0};
    std::vector<uint8_t> stream_;
    std::vector<uint8_t> encoded_;  // the last stream an encoder handed out
    Slot slots_[2];
    ApiOutcome out_;

    void Fail(const std::string &what, JpgStatus s) {
        if (!out_.violation.empty())
            return;
        char text[32];
        std::snprintf(text, sizeof text, " (status 0x%08X)", s);
        out_.violation = what + text;
    }

    // Records a call's status and checks what every call must satisfy.
    JpgStatus Called(const Slot &slot, Kind family, JpgStatus s, const char *what) {
        out_.calls++;
        out_.last = s;
        if (!IsDocumentedStatus(s))
            Fail(std::string(what) + ": undocumented status", s);
        if (slot.param == nullptr && s != JPG_STATUS_INVALID_HANDLE)
            Fail(std::string(what) + ": no handle, yet not JPG_STATUS_INVALID_HANDLE", s);
        if (slot.param != nullptr && family != Kind::None && slot.kind != family &&
            s != JPG_STATUS_WRONG_MODE)
            Fail(std::string(what) + ": a handle of the other family, yet not JPG_STATUS_WRONG_MODE", s);
        if (slot.param != nullptr && family != Kind::None && slot.kind == family &&
            s == JPG_STATUS_WRONG_MODE)
            Fail(std::string(what) + ": JPG_STATUS_WRONG_MODE on its own family", s);
        return s;
    }

    std::string TempPath(const char *what, int slot) const {
        return options_.tempDir + "/kivapi-" + what + "-" + std::to_string(syscall(SYS_gettid)) + "-" +
               std::to_string(slot) + ".jpg";
    }

    void Close(Slot &slot, JpgStatus status, bool ended) {
        if (!ended)
            return;
        (void)status;
        if (!slot.outPath.empty()) {
            FILE *f = std::fopen(slot.outPath.c_str(), "rb");
            if (f != nullptr) {
                std::vector<uint8_t> bytes;
                uint8_t chunk[4096];
                for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;)
                    bytes.insert(bytes.end(), chunk, chunk + n);
                std::fclose(f);
                if (!bytes.empty())
                    encoded_ = std::move(bytes);
            }
            unlink(slot.outPath.c_str());
        }
        slot = Slot{};
    }

    void TakeOutput(uint8_t *buffer, uint32_t size) {
        if (buffer == nullptr)
            return;
        encoded_.assign(buffer, buffer + size);
        jpgWriteFreeBitstream(buffer);
    }

    void Step(uint8_t op, int index, Slot &slot, Reader &r) {
        switch (op) {
        case kApiOpenRead: return OpenRead(index, slot, r);
        case kApiOpenWrite: return OpenWrite(index, slot, r);
        case kApiEnd: return End(slot, r);
        case kApiGet: return Get(slot, r);
        case kApiSetWrite: return SetWrite(slot, r);
        case kApiSetRead: return SetRead(slot, r);
        case kApiOutput: return Output(slot, r);
        case kApiSeek: return Seek(slot, r);
        case kApiPartialInput: return PartialInput(slot, r);
        case kApiSegment: return Segment(slot, r);
        case kApiPartialOutput: return PartialOutput(slot, r);
        case kApiWriteMarker: return WriteMarker(slot, r);
        default: return;
        }
    }

    void OpenRead(int index, Slot &slot, Reader &r) {
        uint8_t source = r.u8(), flags = r.u8(), split = r.u8();
        if (slot.param != nullptr)
            return;
        std::vector<uint8_t> input = (source & 1) ? encoded_ : stream_;
        if (source & 2)
            input.resize(input.size() * (split + 1u) / 257u);
        if (LargestFrame(input) > options_.frameCap)
            return;
        int32_t prologFlags = ((flags & 1) ? 0x2 : 0) | ((flags & 2) ? 0x4 : 0);
        JpgParam *param = nullptr;
        JpgStatus s;
        if (!(flags & 4)) {
            slot.input = std::move(input);
            s = jpgReadPrologFromMemory(slot.input.empty() ? nullptr : slot.input.data(),
                                        int32_t(slot.input.size()), prologFlags, &param);
        } else {
            uint32_t offset = ((flags >> 3) & 3) * 7u;
            std::string path = TempPath("in", index);
            FILE *file = std::fopen(path.c_str(), "wb");
            if (file == nullptr)
                return;
            for (uint32_t i = 0; i < offset; i++)
                std::fputc(0xFF, file);
            if (!input.empty())
                std::fwrite(input.data(), 1, input.size(), file);
            std::fclose(file);
            int32_t length = (flags & 0x20) ? int32_t(input.size()) : 0;
            s = jpgReadPrologFromFile(path.c_str(), int32_t(offset), length, uint8_t(prologFlags), &param);
            unlink(path.c_str());  // the handle keeps its descriptor
            slot.input = std::move(input);
        }
        out_.calls++;
        out_.last = s;
        if (!IsDocumentedStatus(s))
            Fail("read prolog: undocumented status", s);
        if ((s == JPG_STATUS_OK) != (param != nullptr))
            Fail("read prolog: a handle exactly on success", s);
        if (param == nullptr) {
            slot = Slot{};
            return;
        }
        slot.param = param;
        slot.kind = Kind::Read;
        uint32_t w = 0, h = 0;
        jpgReadGetImageSize(param, &w, &h);
        slot.width = w;
        slot.height = h;
        jpgReadGetNumberOfChannels(param, &slot.channels);
        jpgReadGetSamplePrecision(param, &slot.precision);
        if (jpgReadGetCodingProcess(param, &slot.process) != JPG_STATUS_OK)
            slot.process = 0;
    }

    void OpenWrite(int index, Slot &slot, Reader &r) {
        uint8_t options = r.u8();
        if (slot.param != nullptr)
            return;
        JpgParam *param = nullptr;
        JpgStatus s;
        if (options & 1) {
            slot.outPath = TempPath("out", index);
            s = jpgWritePrologToFile(slot.outPath.c_str(), 0, &param);
        } else {
            s = jpgWritePrologToMemory(options & JPG_WRITE_PARTIAL, &param);
        }
        out_.calls++;
        if (s != JPG_STATUS_OK || param == nullptr) {
            if (!slot.outPath.empty())
                unlink(slot.outPath.c_str());
            slot = Slot{};
            if (s == JPG_STATUS_OK)
                Fail("write prolog: success without a handle", s);
            return;
        }
        slot.param = param;
        slot.kind = Kind::Write;
    }

    void End(Slot &slot, Reader &r) {
        uint8_t which = r.u8();
        JpgParam *p = slot.param;
        switch (which % 4) {
        case 0: {
            JpgStatus s = Called(slot, Kind::Read, jpgReadEpilog(p), "jpgReadEpilog");
            return Close(slot, s, p != nullptr && s != JPG_STATUS_WRONG_MODE && s != JPG_STATUS_INVALID_HANDLE);
        }
        case 1: {
            uint8_t *buffer = nullptr;
            uint32_t size = 0;
            bool nullSize = (which & 4) != 0;
            JpgStatus s = Called(slot, Kind::Write, jpgWriteEpilogToMemory(p, &buffer, nullSize ? nullptr : &size),
                                 "jpgWriteEpilogToMemory");
            bool ended = p != nullptr && s != JPG_STATUS_WRONG_MODE && s != JPG_STATUS_INVALID_HANDLE;
            if (nullSize && ended)
                Fail("jpgWriteEpilogToMemory: a null size ended the handle", s);
            if (ended)
                TakeOutput(buffer, size);
            return Close(slot, s, ended);
        }
        case 2: {
            JpgStatus s = Called(slot, Kind::Write, jpgWriteEpilogToFile(p), "jpgWriteEpilogToFile");
            return Close(slot, s, p != nullptr && s != JPG_STATUS_WRONG_MODE && s != JPG_STATUS_INVALID_HANDLE);
        }
        default:
            if (p != nullptr)  // jpgEpilog must be given a handle
                Close(slot, Called(slot, Kind::None, jpgEpilog(p), "jpgEpilog"), true);
            return;
        }
    }

    void Get(Slot &slot, Reader &r) {
        uint8_t which = r.u8();
        bool null = (which & 0x80) != 0;
        JpgParam *p = slot.param;
        uint32_t a = 0, b = 0, table[64], ids[4];
        void *line = nullptr;
        uint32_t *pa = null ? nullptr : &a, *pb = null ? nullptr : &b;
        switch (which % 20) {
        case 0: Called(slot, Kind::Read, jpgReadGetCodingProcess(p, pa), "jpgReadGetCodingProcess"); break;
        case 1: Called(slot, Kind::Read, jpgReadGetImageSize(p, pa, pb), "jpgReadGetImageSize"); break;
        case 2: Called(slot, Kind::Read, jpgReadGetNumberOfChannels(p, pa), "jpgReadGetNumberOfChannels"); break;
        case 3: Called(slot, Kind::Read, jpgReadGetSamplePrecision(p, pa), "jpgReadGetSamplePrecision"); break;
        case 4: Called(slot, Kind::Read, jpgReadGetSubsamplingFactor(p, pa), "jpgReadGetSubsamplingFactor"); break;
        case 5: Called(slot, Kind::Read, jpgReadGetMcuSize(p, pa, pb), "jpgReadGetMcuSize"); break;
        case 6: Called(slot, Kind::Read, jpgReadGetRestartInterval(p, pa), "jpgReadGetRestartInterval"); break;
        case 7: Called(slot, Kind::Read, jpgReadGetQuantizationTableSelector(p, null ? nullptr : ids),
                       "jpgReadGetQuantizationTableSelector"); break;
        case 8: Called(slot, Kind::Read, jpgReadGetQuantizationTable(p, (which >> 5) & 3, null ? nullptr : table),
                       "jpgReadGetQuantizationTable"); break;
        case 9: Called(slot, Kind::Read, jpgReadGetQuantizationTableNR(p, pa, pb), "jpgReadGetQuantizationTableNR"); break;
        case 10: Called(slot, Kind::Read, jpgReadGetPointTransform(p, pa), "jpgReadGetPointTransform"); break;
        case 11: Called(slot, Kind::Read, jpgReadGetProcessedLine(p, pa), "jpgReadGetProcessedLine"); break;
        case 12: Called(slot, Kind::Read, jpgReadGetMcuAddress(p, pa), "jpgReadGetMcuAddress"); break;
        case 13: Called(slot, Kind::Read, jpgReadProgressiveIsCompleted(p, pa), "jpgReadProgressiveIsCompleted"); break;
        case 14: Called(slot, Kind::Read, jpgReadGetSpatialFirstLine(p, pa), "jpgReadGetSpatialFirstLine"); break;
        case 15: Called(slot, Kind::Read, jpgReadGetSpatialPrevLine(p, null ? nullptr : &line),
                        "jpgReadGetSpatialPrevLine"); break;
        case 16: Called(slot, Kind::Read, jpgReadScaleOutputGetImageSize(p, pa, pb, (which >> 5) & 3),
                        "jpgReadScaleOutputGetImageSize"); break;
        case 17: Called(slot, Kind::Write, jpgWriteGetSubsamplingMethod(p, pa), "jpgWriteGetSubsamplingMethod"); break;
        case 18: Called(slot, Kind::None, jpgGetProcessorArchitectureFlag(p, pa), "jpgGetProcessorArchitectureFlag"); break;
        default: Called(slot, Kind::None, jpgGetDCTMethodFlag(p, pa), "jpgGetDCTMethodFlag"); break;
        }
    }

    void SetWrite(Slot &slot, Reader &r) {
        uint8_t which = r.u8();
        uint16_t a = r.u16(), b = r.u16();
        JpgParam *p = slot.param;
        uint16_t table[64];
        for (int i = 0; i < 64; i++)
            table[i] = uint16_t((b >> (i % 16)) & 1 ? a + i : i + 1);
        switch (which % 18) {
        case 0: Called(slot, Kind::Write, jpgWriteSetImageSize(p, a, b), "jpgWriteSetImageSize"); break;
        case 1: Called(slot, Kind::Write, jpgWriteSetQuantizationFactor(p, a % 128), "jpgWriteSetQuantizationFactor"); break;
        case 2: Called(slot, Kind::Write, jpgWriteSetSubsamplingFactor(p, uint32_t(a) | uint32_t(b) << 16),
                       "jpgWriteSetSubsamplingFactor"); break;
        case 3: Called(slot, Kind::Write, jpgWriteSetSubsamplingMethod(p, a % 3), "jpgWriteSetSubsamplingMethod"); break;
        case 4: Called(slot, Kind::Write, jpgWriteSetNumberOfChannels(p, a % 6), "jpgWriteSetNumberOfChannels"); break;
        case 5: Called(slot, Kind::Write, jpgWriteSetInternalColorSpace(p, int16_t(a)), "jpgWriteSetInternalColorSpace"); break;
        case 6: Called(slot, Kind::Write, jpgWriteSetNoColorConversion(p), "jpgWriteSetNoColorConversion"); break;
        case 7: Called(slot, Kind::Write, jpgWriteSetQuantizationTableSelector(p, a % 6, b % 5),
                       "jpgWriteSetQuantizationTableSelector"); break;
        case 8: Called(slot, Kind::Write, jpgWriteSetDCEntropyTableSelector(p, a % 6, b % 5),
                       "jpgWriteSetDCEntropyTableSelector"); break;
        case 9: Called(slot, Kind::Write, jpgWriteSetACEntropyTableSelector(p, a % 6, b % 5),
                       "jpgWriteSetACEntropyTableSelector"); break;
        case 10: Called(slot, Kind::Write, jpgWriteSetRestartInterval(p, a), "jpgWriteSetRestartInterval"); break;
        case 11: Called(slot, Kind::Write, jpgWriteSetSpatialPredictor(p, int8_t(a)), "jpgWriteSetSpatialPredictor"); break;
        case 12: Called(slot, Kind::Write, jpgWriteSetDefaultQuantizationTable(p, a % 3, (b & 0x8000) ? nullptr : table),
                        "jpgWriteSetDefaultQuantizationTable"); break;
        case 13: Called(slot, Kind::Write, jpgWriteSetProcessorArchitectureFlag(p, a),
                        "jpgWriteSetProcessorArchitectureFlag"); break;
        case 14: Called(slot, Kind::None, jpgSetProcessorArchitectureFlag(p, a), "jpgSetProcessorArchitectureFlag"); break;
        case 15: Called(slot, Kind::None, jpgSetDCTMethodFlag(p, a % 5), "jpgSetDCTMethodFlag"); break;
        default: Called(slot, Kind::Write, jpgWriteSetImageSize(p, a % 64 + 1, b % 64 + 1), "jpgWriteSetImageSize"); break;
        }
    }

    void SetRead(Slot &slot, Reader &r) {
        uint8_t which = r.u8();
        uint16_t a = r.u16();
        JpgParam *p = slot.param;
        switch (which % 6) {
        case 0: Called(slot, Kind::Read, jpgReadSetNoColorConversion(p), "jpgReadSetNoColorConversion"); break;
        case 1: Called(slot, Kind::Read, jpgReadScaleOutputSetLevel(p, a % 5), "jpgReadScaleOutputSetLevel"); break;
        case 2: Called(slot, Kind::Read, jpgReadSetProcessedLine(p, a), "jpgReadSetProcessedLine"); break;
        case 3: Called(slot, Kind::Read, jpgReadSetMcuAddress(p, a), "jpgReadSetMcuAddress"); break;
        case 4: Called(slot, Kind::Read, jpgReadSetSpatialFirstLine(p, a & 1), "jpgReadSetSpatialFirstLine"); break;
        default: Called(slot, Kind::Read, jpgReadSetProcessorArchitectureFlag(p, a),
                        "jpgReadSetProcessorArchitectureFlag"); break;
        }
    }

    // The rectangle a geometry describes, over a buffer that holds what it
    // states (or, for the "short" layouts, less).
    void MakeBuffer(const Slot &slot, bool source, const ApiGeometry &g, Buffer *b) const {
        int64_t natWidth = slot.kind == Kind::Read && slot.width != 0 ? slot.width : 16;
        int64_t natHeight = slot.kind == Kind::Read && slot.height != 0 ? slot.height : 16;
        int64_t natChannels = slot.kind == Kind::Read && slot.channels != 0 ? slot.channels : 3;
        if (slot.kind == Kind::Read && slot.channels == 1 && !source)
            natChannels = 3;  // grey output may go to a colour rectangle
        int64_t natBits = slot.kind == Kind::Read && slot.process == JPG_PROCESS_LOSSLESS ? slot.precision : 8;
        int64_t width = g.width != 0 ? g.width : (natWidth < 256 ? natWidth : 256);
        int64_t height = g.height != 0 ? g.height : (natHeight < 160 ? natHeight : 160);
        int64_t channels = g.channels != 0 ? g.channels % 6 : natChannels;
        int64_t bits = g.bits != 0 ? g.bits % 34 : natBits;
        int64_t sampleBytes = bits < 1 ? 1 : (bits + 7) / 8;
        int64_t rowBytes = width * (channels < 1 ? 1 : channels) * sampleBytes;
        int64_t stride = rowBytes + g.strideDelta;
        uint8_t alloc = g.layout & 7;
        switch ((g.layout >> 3) & 3) {
        case 1: width = -width; break;
        case 2: width = 0x40000000; break;
        case 3: width = 0; break;
        default: break;
        }
        switch ((g.layout >> 5) & 3) {
        case 1: height = -height; break;
        case 2: height = 0x7FFFFFFF; break;
        case 3: height = 0; break;
        default: break;
        }
        if (g.layout & 0x80)
            stride = 0x7FFFFFFF;
        bool bottomUp = alloc == 4 || alloc == 5;
        if (bottomUp)
            stride = -stride;
        // Bytes the rectangle describes, from its first row to its last.
        int64_t rows = height < 1 ? 1 : height;
        int64_t span = stride < 0 ? -stride : stride;
        int64_t need = (rows - 1) * span + (rowBytes > 0 ? rowBytes : 1);
        bool capped = need < 1 || need > int64_t(options_.bufferCap);
        if (capped)
            need = int64_t(options_.bufferCap);
        int64_t size = need;
        if (alloc == 1)
            size = need > g.fill % 64 + 1 ? need - (g.fill % 64 + 1) : 1;
        if (alloc == 7)
            size = need + g.fill % 64;
        size_t offset = alloc == 6 ? 1 : 0;
        b->bytes.resize(size_t(size) + offset);
        for (size_t i = 0; i < b->bytes.size(); i++)
            b->bytes[i] = Buffer::Pattern(i, g.fill);
        b->offset = offset;
        // Pixels at the last row when the rows run upwards (a stride made
        // negative by its delta runs downwards again); capped buffers state their size.
        if (bottomUp && !capped && stride < 0)
            b->offset = size_t((rows - 1) * span);
        ComplibRect &rect = b->rect;
        rect.width = int32_t(width);
        rect.height = int32_t(height);
        rect.stride = int32_t(stride);
        rect.channels = int32_t(channels);
        rect.sampleBits = int32_t(bits);
        rect.pixelBits = int32_t(channels * sampleBytes * 8);
        rect.pixels = alloc == 3 ? nullptr : b->bytes.data() + b->offset;
        bool stated = alloc == 0 || alloc == 1 || alloc == 5 || alloc == 6 || alloc == 7 ||
                      capped;  // a buffer capped below the description is stated
        rect.allocSize = stated ? uint32_t(b->bytes.size() - b->offset) : 0;
        b->rowBytes = rowBytes;
        b->geometryValid = rect.pixels != nullptr && width >= 1 && height >= 1 && stride >= rowBytes &&
                           channels >= 1 && bits >= 1;
    }

    // True when every byte outside the rectangle's rows (or, with `all`,
    // every byte) still holds the pattern.
    static bool Untouched(const Buffer &b, uint8_t fill, bool all) {
        const ComplibRect &r = b.rect;
        for (size_t i = 0; i < b.bytes.size(); i++) {
            if (b.bytes[i] == Buffer::Pattern(i, fill))
                continue;
            if (all || !b.geometryValid || i < b.offset)
                return false;
            int64_t at = int64_t(i - b.offset);
            int64_t row = at / r.stride, column = at % r.stride;
            if (row >= r.height || column >= b.rowBytes)
                return false;
        }
        return true;
    }

    void Output(Slot &slot, Reader &r) {
        uint8_t driver = uint8_t(r.u8() % kDriveCount);
        uint16_t count = r.u16();
        uint8_t level = r.u8();
        ApiGeometry g;
        g.width = r.u8();
        g.height = r.u8();
        g.channels = r.u8();
        g.bits = r.u8();
        g.strideDelta = int8_t(r.u8());
        g.layout = r.u8();
        g.fill = r.u8();
        bool source = driver == kDriveWrite || driver == kDriveWriteSpatial;
        Buffer b;
        MakeBuffer(slot, source, g, &b);
        ComplibRect *rect = &b.rect;
        JpgParam *p = slot.param;
        uint32_t lines = count != 0 ? count : (slot.height != 0 ? slot.height : 16);
        JpgStatus s;
        switch (driver) {
        case kDriveToRect: s = Called(slot, Kind::Read, jpgReadToRect(p, rect, lines), "jpgReadToRect"); break;
        case kDriveMcuToRect: s = Called(slot, Kind::Read, jpgReadMcuToRect(p, rect, count % 64), "jpgReadMcuToRect"); break;
        case kDriveMcuRow: s = Called(slot, Kind::Read, jpgReadDecodeMcuRow(p, rect, count % 64), "jpgReadDecodeMcuRow"); break;
        case kDriveScaled:
            s = Called(slot, Kind::Read, jpgReadScaleOutputToRect(p, rect, lines, level % 5), "jpgReadScaleOutputToRect");
            break;
        case kDriveScaledMcu:
            s = Called(slot, Kind::Read, jpgReadScaleOutputMcuToRect(p, rect, count % 64, level % 5),
                       "jpgReadScaleOutputMcuToRect");
            break;
        case kDriveProgressive:
            s = Called(slot, Kind::Read, jpgReadProgressiveToRect(p, rect, lines, level & 1), "jpgReadProgressiveToRect");
            break;
        case kDriveSpatial: s = Called(slot, Kind::Read, jpgReadSpatialToRect(p, rect, lines), "jpgReadSpatialToRect"); break;
        case kDriveWrite: s = Called(slot, Kind::Write, jpgWriteFromRect(p, rect, lines), "jpgWriteFromRect"); break;
        default:
            s = Called(slot, Kind::Write, jpgWriteSpatialFromRect(p, rect, int16_t(count != 0 ? count : lines)),
                       "jpgWriteSpatialFromRect");
            break;
        }
        // Refusals of the arguments write nothing; the lossless decoder's
        // predictor refusal comes after the row's first column, by design.
        bool refused = s == JPG_STATUS_WRONG_MODE || s == JPG_STATUS_INVALID_HANDLE ||
                       s == JPG_STATUS_NOT_SUPPORTED ||
                       (s == JPG_STATUS_INVALID_PARAMETER && driver != kDriveSpatial);
        if (!Untouched(b, g.fill, source || refused))
            Fail(source ? "an encoder wrote into its source"
                        : refused ? "a refused output call wrote into the caller's buffer"
                                  : "an output call wrote outside the rectangle",
                 s);
    }

    void Seek(Slot &slot, Reader &r) {
        uint8_t which = r.u8();
        uint16_t count = r.u16();
        int8_t origin = int8_t(r.u8());
        if (which & 1)
            Called(slot, Kind::Read, jpgReadSeekMcu(slot.param, count % 4096, origin), "jpgReadSeekMcu");
        else
            Called(slot, Kind::Read, jpgReadSeekRestartMarker(slot.param, int16_t(count) % 512, origin),
                   "jpgReadSeekRestartMarker");
    }

    void PartialInput(Slot &slot, Reader &r) {
        uint16_t offset = r.u16(), size = r.u16();
        uint8_t variant = r.u8();
        // The piece lies in the handle's own stream, alive until its epilog.
        const std::vector<uint8_t> &data = slot.kind == Kind::Read ? slot.input : stream_;
        size_t at = data.empty() ? 0 : offset % data.size();
        uint32_t n = uint32_t(data.size() - at < size ? data.size() - at : size);
        const uint8_t *piece = data.empty() || (variant & 1) ? nullptr : data.data() + at;
        if (variant & 2)
            n = 0;
        Called(slot, Kind::Read, jpgReadSetPartialBitstream(slot.param, piece, n), "jpgReadSetPartialBitstream");
    }

    void Segment(Slot &slot, Reader &r) {
        uint8_t which = r.u8(), arg = r.u8();
        uint16_t marker = 0;
        uint32_t length = 0, count = 0;
        uint8_t buffer[256];
        switch (which % 3) {
        case 0:
            Called(slot, Kind::Read,
                   jpgReadSeekMarkerSegment(slot.param, arg % 3, (arg & 0x80) ? nullptr : &marker, &length),
                   "jpgReadSeekMarkerSegment");
            break;
        case 1:
            Called(slot, Kind::Read,
                   jpgReadReadMarkerData(slot.param, (arg & 0x80) ? nullptr : buffer, arg & 0x7F,
                                         (arg & 0x40) ? nullptr : &count),
                   "jpgReadReadMarkerData");
            break;
        default: Called(slot, Kind::Read, jpgReadSeekMarkerData(slot.param), "jpgReadSeekMarkerData"); break;
        }
    }

    void PartialOutput(Slot &slot, Reader &r) {
        uint8_t variant = r.u8();
        uint8_t *buffer = nullptr;
        uint32_t size = 0;
        JpgStatus s = Called(slot, Kind::Write,
                             jpgWriteGetPartialBitstream(slot.param, (variant & 1) ? nullptr : &buffer,
                                                         (variant & 2) ? nullptr : &size),
                             "jpgWriteGetPartialBitstream");
        if (s == JPG_STATUS_OK)
            TakeOutput(buffer, size);
        else if (buffer != nullptr)
            Fail("jpgWriteGetPartialBitstream: a buffer handed out with a failure", s);
    }

    void WriteMarker(Slot &slot, Reader &r) {
        uint8_t which = r.u8(), code = r.u8();
        uint16_t length = r.u16();
        uint8_t data[512];
        for (int i = 0; i < 512; i++)
            data[i] = uint8_t(i * 13 + code);
        uint32_t written = 0;
        int32_t marker = 0xFF00 | code;
        switch (which % 3) {
        case 0:
            Called(slot, Kind::Write,
                   jpgWriteWriteMarkerSegment(slot.param, marker, (which & 0x80) ? nullptr : data,
                                              int16_t(length) % 513),
                   "jpgWriteWriteMarkerSegment");
            break;
        case 1:
            Called(slot, Kind::Write, jpgWriteWriteMarkerCode(slot.param, marker, length), "jpgWriteWriteMarkerCode");
            break;
        default:
            Called(slot, Kind::Write,
                   jpgWriteWriteMarkerData(slot.param, (which & 0x80) ? nullptr : data, length % 513,
                                           (which & 0x40) ? nullptr : &written),
                   "jpgWriteWriteMarkerData");
            break;
        }
    }
};

}  // namespace api

// Runs the program in data[0, size) (see ApiInput for the layout).
inline ApiOutcome RunApiProgram(const uint8_t *data, size_t size, const ApiOptions &options = {}) {
    return api::Runner(data, size, options).Run();
}

}  // namespace kivtest
