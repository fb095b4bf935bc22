// Drives every decode path of the public interface over one input, as chosen
// by a small plan: memory or file prologs, line-batched, MCU-wise and scaled
// sequential output, progressive normal and incremental passes, lossless row
// batches, marker-segment walks, restart and MCU seeks and partial input.
// Shared by the fuzz targets and the hostile-input tests; uses kivjpeg.h only.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

#include "kivjpeg.h"

namespace kivtest {

// How to drive one decode. The fuzz targets read it from the input's first
// bytes; the tests build it directly.
struct DecodePlan {
    uint8_t path = 0;     // which output driver and seek variant, see Drive()
    uint8_t batch = 16;   // lines (or MCUs) per call; 0 means all at once
    uint8_t flags = 0;    // bits 0-1: prolog flags 0x2/0x4; bit 2: file prolog;
                          // bit 3: no colour conversion; bit 4: walk segments first;
                          // bits 5-7: file offset / length variants
    uint8_t extra = 0;    // seek counts, scale level, split point
    uint64_t pixelCap = uint64_t(1) << 22;  // larger frames are opened but not decoded
    int maxCalls = 4096;  // bound on output calls, so a lying height cannot spin
    bool hashPixels = true;  // false: no pixel hash, output rectangles left unfilled (fuzzing)
    uint8_t fill = 0xA5;     // what output rectangles hold before a decode writes them
    std::string tempDir = "/tmp";
};

struct DecodeOutcome {
    JpgStatus prolog = JPG_STATUS_ERROR;
    JpgStatus last = JPG_STATUS_OK;  // status of the last output call
    uint32_t width = 0, height = 0, channels = 0, precision = 0, process = 0;
    int calls = 0;
    uint64_t hash = 1469598103934665603ull;  // FNV-1a over every delivered pixel
};

// The first bytes of a fuzz input as a plan; returns the number consumed.
constexpr size_t kPlanBytes = 4;
inline size_t ReadPlan(const uint8_t *data, size_t size, DecodePlan *plan) {
    if (size < kPlanBytes)
        return 0;
    plan->path = data[0];
    plan->batch = data[1];
    plan->flags = data[2];
    plan->extra = data[3];
    return kPlanBytes;
}

namespace detail {

// A caller-owned pixel buffer of exactly the rectangle's size, so that any
// write outside it is an out-of-bounds access to the sanitizers.
struct OwnedRect {
    ComplibRect rect{};
    uint8_t *memory = nullptr;

    OwnedRect(uint32_t width, uint32_t height, uint32_t channels, uint32_t bytesPerSample,
              bool fill = true, uint8_t pattern = 0xA5) {
        if (width == 0) width = 1;
        if (height == 0) height = 1;
        if (channels == 0) channels = 1;
        size_t stride = size_t(width) * channels * bytesPerSample;
        memory = static_cast<uint8_t *>(std::malloc(stride * height));
        if (fill)
            std::memset(memory, pattern, stride * height);
        rect.width = int32_t(width);
        rect.height = int32_t(height);
        rect.stride = int32_t(stride);
        rect.pixelBits = int32_t(channels * bytesPerSample * 8);
        rect.channels = int32_t(channels);
        rect.sampleBits = int32_t(bytesPerSample * 8);
        rect.pixels = memory;
        rect.allocSize = uint32_t(stride * height);
    }
    ~OwnedRect() { std::free(memory); }
    OwnedRect(const OwnedRect &) = delete;
    OwnedRect &operator=(const OwnedRect &) = delete;

    void HashInto(uint64_t *hash) const {
        if (hash == nullptr)
            return;
        size_t n = size_t(rect.stride) * size_t(rect.height);
        for (size_t i = 0; i < n; i++)
            *hash = (*hash ^ memory[i]) * 1099511628211ull;
    }
};

inline uint64_t *HashOf(const DecodePlan &plan, DecodeOutcome *out) {
    return plan.hashPixels ? &out->hash : nullptr;
}

inline uint32_t LinesPerCall(const DecodePlan &plan, uint32_t height) {
    return plan.batch == 0 ? (height == 0 ? 64 : height) : plan.batch;
}

// jpgReadToRect or jpgReadScaleOutputToRect in batches of lines.
inline void LineBatches(JpgParam *param, const DecodePlan &plan, uint32_t level, uint32_t w,
                        uint32_t h, uint32_t channels, DecodeOutcome *out) {
    uint32_t done = 0;
    while (out->calls < plan.maxCalls && done < (h == 0 ? 1u : h)) {
        uint32_t lines = LinesPerCall(plan, h);
        if (h != 0 && lines > h - done)
            lines = h - done;
        OwnedRect dst(w, lines, channels, 1, plan.hashPixels, plan.fill);
        out->last = level == 3 ? jpgReadToRect(param, &dst.rect, lines)
                               : jpgReadScaleOutputToRect(param, &dst.rect, lines, level);
        out->calls++;
        dst.HashInto(HashOf(plan, out));
        if (out->last != JPG_STATUS_OK)
            return;
        done += lines;
    }
}

// jpgReadMcuToRect or jpgReadScaleOutputMcuToRect, a few MCUs per call,
// each call writing into the next columns of one MCU-row buffer.
inline void McuBatches(JpgParam *param, const DecodePlan &plan, uint32_t level, uint32_t w,
                       uint32_t h, uint32_t channels, DecodeOutcome *out) {
    uint32_t mcuW = 8, mcuH = 8;
    jpgReadGetMcuSize(param, &mcuW, &mcuH);
    uint32_t shift = 3 - level;
    uint32_t sw = mcuW >> shift, sh = mcuH >> shift;
    if (sw == 0 || sh == 0)
        return;
    uint32_t perRow = (w + sw - 1) / sw, rows = (h + sh - 1) / sh;
    uint32_t step = plan.batch % 5 + 1;
    for (uint32_t row = 0; row < rows && out->calls < plan.maxCalls; row++) {
        uint32_t lines = h - row * sh < sh ? h - row * sh : sh;
        OwnedRect dst(w, lines, channels, 1, plan.hashPixels, plan.fill);
        for (uint32_t x = 0; x < perRow && out->calls < plan.maxCalls; x += step) {
            uint32_t n = perRow - x < step ? perRow - x : step;
            ComplibRect part = dst.rect;
            part.pixels += size_t(x) * sw * channels;
            part.width = int32_t(w - x * sw);
            out->last = level == 3 ? jpgReadMcuToRect(param, &part, n)
                                   : jpgReadScaleOutputMcuToRect(param, &part, n, level);
            out->calls++;
            if (out->last != JPG_STATUS_OK) {
                dst.HashInto(HashOf(plan, out));
                return;
            }
        }
        dst.HashInto(HashOf(plan, out));
    }
}

inline void Progressive(JpgParam *param, const DecodePlan &plan, uint32_t w, uint32_t h,
                        uint32_t channels, DecodeOutcome *out) {
    bool incremental = plan.path & 1;
    uint32_t passes = incremental ? 2 + plan.extra % 14 : 1;
    for (uint32_t pass = 0; pass < passes && out->calls < plan.maxCalls; pass++) {
        uint32_t done = 0;
        while (done < h && out->calls < plan.maxCalls) {
            uint32_t lines = LinesPerCall(plan, h);
            if (lines > h - done)
                lines = h - done;
            OwnedRect dst(w, lines, channels, 1, plan.hashPixels, plan.fill);
            out->last = jpgReadProgressiveToRect(param, &dst.rect, lines,
                                                 incremental ? JPG_PROGRESSIVE_INCREMENTAL : 0);
            out->calls++;
            dst.HashInto(HashOf(plan, out));
            if (out->last != JPG_STATUS_OK)
                return;
            done += lines;
        }
        uint32_t completed = 0;
        jpgReadProgressiveIsCompleted(param, &completed);
        if (completed && !incremental)
            break;
    }
    // One more call after the image is out must fail cleanly; it decodes
    // the scans an incremental run left, so its status counts.
    OwnedRect dst(w, 1, channels, 1);
    JpgStatus after = jpgReadProgressiveToRect(param, &dst.rect, 1, 0);
    out->calls++;
    if (out->last == JPG_STATUS_OK && incremental)
        out->last = after;
}

inline void Lossless(JpgParam *param, const DecodePlan &plan, uint32_t w, uint32_t h,
                     uint32_t channels, uint32_t precision, DecodeOutcome *out) {
    uint32_t bytes = precision > 8 ? 2 : 1;
    uint32_t done = 0;
    if (plan.extra & 0x80)
        jpgReadSetSpatialFirstLine(param, plan.extra & 0x40);
    while (done < (h == 0 ? 1u : h) && out->calls < plan.maxCalls) {
        uint32_t rows = LinesPerCall(plan, h);
        if (h != 0 && rows > h - done)
            rows = h - done;
        OwnedRect dst(w, rows, channels, bytes, plan.hashPixels, plan.fill);
        out->last = jpgReadSpatialToRect(param, &dst.rect, rows);
        out->calls++;
        dst.HashInto(HashOf(plan, out));
        if (out->last != JPG_STATUS_OK)
            return;
        done += rows;
    }
    uint32_t pt = 0, first = 0;
    void *prev = nullptr;
    jpgReadGetPointTransform(param, &pt);
    jpgReadGetSpatialFirstLine(param, &first);
    jpgReadGetSpatialPrevLine(param, &prev);
}

// Walks the marker segments from the start and reads each payload in
// chunks; the next decode must rewind by itself.
inline void WalkSegments(JpgParam *param, const DecodePlan &plan) {
    uint8_t buffer[97];
    uint32_t chunk = plan.extra % sizeof buffer + 1;
    for (int i = 0; i < 256; i++) {
        uint16_t marker = 0;
        uint32_t length = 0;
        if (jpgReadSeekMarkerSegment(param, i == 0 ? 0 : 1, &marker, &length) != JPG_STATUS_OK)
            break;
        for (int reads = 0; reads < 64; reads++) {
            uint32_t count = 0;
            if (jpgReadReadMarkerData(param, buffer, chunk, &count) != JPG_STATUS_OK)
                break;
        }
        if (i % 3 == 1)
            jpgReadSeekMarkerData(param);
        if (marker == 0xFFD9)
            break;
    }
}

inline void Headers(JpgParam *param, DecodeOutcome *out) {
    uint32_t a = 0, b = 0, table[64];
    jpgReadGetImageSize(param, &out->width, &out->height);
    jpgReadGetNumberOfChannels(param, &out->channels);
    jpgReadGetSamplePrecision(param, &out->precision);
    if (jpgReadGetCodingProcess(param, &out->process) != JPG_STATUS_OK)
        out->process = 0;
    jpgReadGetSubsamplingFactor(param, &a);
    jpgReadGetMcuSize(param, &a, &b);
    jpgReadGetRestartInterval(param, &a);
    uint32_t selectors[4] = {};
    jpgReadGetQuantizationTableSelector(param, selectors);
    for (uint32_t c = 0; c < 5; c++)
        jpgReadGetQuantizationTable(param, c, table);
    jpgReadGetQuantizationTableNR(param, &a, &b);
    uint32_t line = 0, address = 0;
    jpgReadGetProcessedLine(param, &line);
    jpgReadGetMcuAddress(param, &address);
}

// Sequential DCT frames: path bits 1-3 choose the driver and the seek.
// Progressive frames: path bit 1 chooses scaled output, bit 0 incremental.
inline void Sequential(JpgParam *param, const DecodePlan &plan, const uint8_t *data, size_t size,
                       size_t split, uint32_t channels, DecodeOutcome *out) {
    uint32_t w = out->width, h = out->height;
    uint32_t level = 3;
    switch ((plan.path >> 1) & 7) {
        case 0: LineBatches(param, plan, 3, w, h, channels, out); return;
        case 1: McuBatches(param, plan, 3, w, h, channels, out); return;
        case 2:
        case 3: {
            level = plan.extra % 3;
            uint32_t sw = 1, sh = 1;
            out->last = jpgReadScaleOutputGetImageSize(param, &sw, &sh, level);
            if (out->last != JPG_STATUS_OK)
                return;
            if (((plan.path >> 1) & 7) == 2)
                LineBatches(param, plan, level, sw, sh, channels, out);
            else
                McuBatches(param, plan, level, sw, sh, channels, out);
            // Back to full size: the stream rewinds.
            LineBatches(param, plan, 3, w, h < 32 ? h : 32, channels, out);
            return;
        }
        case 4:
            out->last = jpgReadSeekRestartMarker(param, plan.extra & 0x3F, (plan.extra >> 6) & 1);
            out->calls++;
            LineBatches(param, plan, 3, w, h, channels, out);
            return;
        case 5:
            out->last = jpgReadSeekMcu(param, plan.extra & 0x7F, plan.extra >> 7);
            out->calls++;
            McuBatches(param, plan, 3, w, h, channels, out);
            return;
        case 6:
            // Partial input: the prolog saw data[0, split); feed the rest in pieces.
            for (size_t at = split; out->calls < plan.maxCalls;) {
                LineBatches(param, plan, 3, w, h, channels, out);
                if (at >= size)
                    return;
                size_t piece = size - at < size_t(plan.extra) * 16 + 1 ? size - at
                                                                       : size_t(plan.extra) * 16 + 1;
                out->last = jpgReadSetPartialBitstream(param, data + at, uint32_t(piece));
                out->calls++;
                if (out->last != JPG_STATUS_OK)
                    return;
                at += piece;
            }
            return;
        default:
            // The wrong drivers for this frame must refuse cleanly.
            OwnedRect one(w, 1, channels, 2);
            jpgReadSpatialToRect(param, &one.rect, 1);
            jpgReadProgressiveToRect(param, &one.rect, 1, 0);
            LineBatches(param, plan, 3, w, h, channels, out);
            return;
    }
}

inline JpgStatus Open(const uint8_t *data, size_t size, const DecodePlan &plan, size_t split,
                      JpgParam **param) {
    int32_t prologFlags = ((plan.flags & 1) ? 0x2 : 0) | ((plan.flags & 2) ? 0x4 : 0);
    if (!(plan.flags & 4))
        return jpgReadPrologFromMemory(size == 0 ? nullptr : data, int32_t(split), prologFlags,
                                       param);
    // File prolog: the stream sits behind a prefix of junk at some offset.
    uint32_t offset = (plan.flags >> 5) & 3 ? ((plan.flags >> 5) & 3) * 7 : 0;
    std::string path = plan.tempDir + "/kivfuzz-" + std::to_string(syscall(SYS_gettid)) + ".jpg";
    FILE *file = std::fopen(path.c_str(), "wb");
    if (file == nullptr)
        return JPG_STATUS_FILE_OPEN_FAILED;
    for (uint32_t i = 0; i < offset; i++)
        std::fputc(0xFF, file);
    if (size != 0)
        std::fwrite(data, 1, size, file);
    std::fclose(file);
    int32_t length = (plan.flags & 0x80) ? int32_t(split) : 0;
    JpgStatus status = jpgReadPrologFromFile(path.c_str(), int32_t(offset), length,
                                             uint8_t(prologFlags), param);
    // The handle keeps the descriptor open; the name can go now.
    unlink(path.c_str());
    return status;
}

}  // namespace detail

// Opens the input as the plan says and drives the matching decode paths to
// their end. Never returns a handle: everything is released before return.
inline DecodeOutcome DecodeWithPlan(const uint8_t *data, size_t size, const DecodePlan &plan) {
    DecodeOutcome out;
    size_t split = size;
    if (((plan.path >> 1) & 7) == 6 && size > 4)
        split = 2 + (size - 2) * (plan.extra + 1) / 257;
    JpgParam *param = nullptr;
    out.prolog = detail::Open(data, size, plan, split, &param);
    if (out.prolog != JPG_STATUS_OK || param == nullptr)
        return out;
    detail::Headers(param, &out);
    if (plan.flags & 16)
        detail::WalkSegments(param, plan);
    uint32_t channels = out.channels == 0 ? 1 : out.channels;
    if (plan.flags & 8)
        jpgReadSetNoColorConversion(param);
    else if (out.channels == 3 || out.channels == 1)
        channels = 3;
    uint64_t pixels = uint64_t(out.width) * (out.height == 0 ? 1 : out.height) * channels;
    if (out.width != 0 && pixels <= plan.pixelCap) {
        switch (out.process) {
            case JPG_PROCESS_BASELINE:
            case JPG_PROCESS_EXTENDED:
                detail::Sequential(param, plan, data, size, split, channels, &out);
                break;
            case JPG_PROCESS_PROGRESSIVE:
                if ((plan.path >> 1) & 1) {  // scaled output from the scans
                    uint32_t level = plan.extra % 3, sw = 1, sh = 1;
                    out.last = jpgReadScaleOutputGetImageSize(param, &sw, &sh, level);
                    if (out.last == JPG_STATUS_OK)
                        detail::LineBatches(param, plan, level, sw, sh, channels, &out);
                } else {
                    detail::Progressive(param, plan, out.width, out.height, channels, &out);
                }
                break;
            case JPG_PROCESS_LOSSLESS:
                detail::Lossless(param, plan, out.width, out.height, out.channels, out.precision,
                                 &out);
                break;
            default:
                break;
        }
    }
    if (plan.flags & 16)
        detail::WalkSegments(param, plan);
    jpgReadEpilog(param);
    return out;
}

}  // namespace kivtest
