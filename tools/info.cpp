// The info and segments commands: read a JPEG's frame header through the
// decoder's getters and walk its marker segments (ISO/IEC 10918-1 Annex B);
// print them as text or JSON, or extract one segment's payload.
#include <cstdio>

#include <sys/stat.h>

#include "tool.h"

namespace kivtool {

using kivjpeg::Decoder;
using kivjpeg::Process;
using kivjpeg::Segment;
using kivjpeg::Status;

namespace {

const char *kSofName[4] = {"SOF0", "SOF1", "SOF2", "SOF3"};

// One scan header: component identifiers, spectral selection (or the
// lossless predictor in Ss) and successive approximation.
struct Scan {
    std::vector<uint8_t> components;
    uint32_t ss = 0, se = 0, ah = 0, al = 0;
};

// Segments with the RSTn markers of the entropy-coded data counted, not listed.
struct SegmentList {
    std::vector<Segment> segments;
    std::vector<Scan> scans;
    uint32_t restarts = 0;
    Status end;
};

bool readScan(Decoder &decoder, uint32_t length, Scan *scan) {
    std::vector<uint8_t> p;
    if (length < 6 || length > 12 || !decoder.segmentData(&p, length).ok())
        return false;
    uint32_t n = p[0];
    if (length != 4 + 2 * n)
        return false;
    for (uint32_t i = 0; i < n; i++)
        scan->components.push_back(p[1 + 2 * i]);
    scan->ss = p[1 + 2 * n];
    scan->se = p[2 + 2 * n];
    scan->ah = p[3 + 2 * n] >> 4;
    scan->al = p[3 + 2 * n] & 15;
    return true;
}

SegmentList walk(Decoder &decoder) {
    SegmentList list;
    Segment seg;
    for (bool first = true;; first = false) {
        Status s = decoder.nextSegment(first, &seg);
        if (!s) {
            list.end = s;
            break;
        }
        if (seg.marker >= 0xFFD0 && seg.marker <= 0xFFD7) {
            list.restarts++;
            continue;
        }
        list.segments.push_back(seg);
        Scan scan;
        if (seg.marker == 0xFFDA && readScan(decoder, seg.length, &scan))
            list.scans.push_back(scan);
        if (seg.marker == 0xFFD9)
            break;
    }
    return list;
}

std::string samplingName(const kivjpeg::Header &h) {
    if (h.components != 3)
        return "";
    if (h.sampling[1] != 0x11 || h.sampling[2] != 0x11)
        return "";
    switch (h.sampling[0]) {
    case 0x11: return "4:4:4";
    case 0x21: return "4:2:2";
    case 0x22: return "4:2:0";
    case 0x12: return "4:4:0";
    case 0x41: return "4:1:1";
    default: return "";
    }
}

int processIndex(Process p) {
    return p == Process::Baseline ? 0 : p == Process::Extended ? 1 : p == Process::Progressive ? 2 : 3;
}

void printText(const std::string &name, size_t size, Decoder &d, const SegmentList &list,
               const std::string &note) {
    const auto &h = d.header();
    printf("file:        %s (%zu bytes)\n", name.c_str(), size);
    printf("process:     %s (%s)\n", kivjpeg::processName(h.process), kSofName[processIndex(h.process)]);
    printf("size:        %u x %u\n", h.width, h.height);
    printf("precision:   %u bits\n", h.precision);
    printf("components:  %u", h.components);
    std::string sub = samplingName(h);
    if (!sub.empty())
        printf(" (%s)", sub.c_str());
    printf("\n");
    for (uint32_t i = 0; i < h.components && i < 4; i++)
        printf("  component %u: id %u, sampling %ux%u\n", i, h.identifiers[i], h.sampling[i] >> 4,
               h.sampling[i] & 15);
    printf("mcu:         %u x %u\n", h.mcuWidth, h.mcuHeight);
    printf("restart:     %u MCUs%s\n", h.restartInterval, h.restartInterval ? "" : " (none)");
    if (h.process == Process::Lossless)
        printf("point transform: %u\n", h.pointTransform);
    if (!note.empty())
        printf("note:        %s\n", note.c_str());
    for (uint32_t i = 0; i < h.components && i < 4; i++) {
        uint32_t table[64];
        if (!d.quantizationTable(i, table))
            continue;
        printf("quantization table of component %u (natural order):\n", i);
        uint32_t natural[64];
        static const uint8_t kZigZag[64] = {
            0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,  12, 19, 26, 33, 40, 48,
            41, 34, 27, 20, 13, 6,  7,  14, 21, 28, 35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23,
            30, 37, 44, 51, 58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};
        for (int k = 0; k < 64; k++)
            natural[kZigZag[k]] = table[k];
        for (int r = 0; r < 8; r++) {
            printf("   ");
            for (int c = 0; c < 8; c++)
                printf(" %4u", natural[8 * r + c]);
            printf("\n");
        }
    }
    for (size_t i = 0; i < list.scans.size(); i++) {
        const Scan &sc = list.scans[i];
        printf("scan %zu: components", i + 1);
        for (uint8_t id : sc.components)
            printf(" %u", id);
        if (h.process == Process::Lossless)
            printf(", predictor %u, point transform %u\n", sc.ss, sc.al);
        else
            printf(", coefficients %u..%u, bits Ah %u Al %u\n", sc.ss, sc.se, sc.ah, sc.al);
    }
    printf("segments:\n");
    for (auto &s : list.segments) {
        if (s.marker == 0xFFD8 || s.marker == 0xFFD9)
            printf("  %04X %-5s\n", s.marker, markerName(s.marker).c_str());
        else
            printf("  %04X %-5s length %u\n", s.marker, markerName(s.marker).c_str(), s.length + 2);
    }
    if (list.restarts)
        printf("  restart markers: %u\n", list.restarts);
    if (!list.end.ok() && list.end.code() != JPG_STATUS_END_OF_STREAM)
        printf("  (walk stopped: %s)\n", list.end.describe().c_str());
}

std::string jsonString(const std::string &s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\')
            out += '\\';
        if (static_cast<unsigned char>(c) < 0x20) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
            continue;
        }
        out += c;
    }
    return out + "\"";
}

void printJson(const std::string &name, size_t size, Decoder &d, const SegmentList &list) {
    const auto &h = d.header();
    printf("{\n  \"file\": %s,\n  \"bytes\": %zu,\n", jsonString(name).c_str(), size);
    printf("  \"process\": \"%s\",\n  \"frame\": \"%s\",\n", kivjpeg::processName(h.process),
           kSofName[processIndex(h.process)]);
    printf("  \"width\": %u,\n  \"height\": %u,\n  \"precision\": %u,\n", h.width, h.height, h.precision);
    printf("  \"mcu\": [%u, %u],\n  \"restart_interval\": %u,\n", h.mcuWidth, h.mcuHeight,
           h.restartInterval);
    if (h.process == Process::Lossless)
        printf("  \"point_transform\": %u,\n", h.pointTransform);
    printf("  \"components\": [");
    for (uint32_t i = 0; i < h.components && i < 4; i++) {
        uint32_t table[64];
        printf("%s\n    {\"id\": %u, \"h\": %u, \"v\": %u", i ? "," : "", h.identifiers[i],
               h.sampling[i] >> 4, h.sampling[i] & 15);
        if (d.quantizationTable(i, table)) {
            printf(", \"quantization_zigzag\": [");
            for (int k = 0; k < 64; k++)
                printf("%s%u", k ? ", " : "", table[k]);
            printf("]");
        }
        printf("}");
    }
    printf("\n  ],\n  \"scans\": [");
    for (size_t i = 0; i < list.scans.size(); i++) {
        const Scan &sc = list.scans[i];
        printf("%s\n    {\"components\": [", i ? "," : "");
        for (size_t c = 0; c < sc.components.size(); c++)
            printf("%s%u", c ? ", " : "", sc.components[c]);
        printf("], \"ss\": %u, \"se\": %u, \"ah\": %u, \"al\": %u}", sc.ss, sc.se, sc.ah, sc.al);
    }
    printf("\n  ],\n  \"segments\": [");
    for (size_t i = 0; i < list.segments.size(); i++) {
        auto &s = list.segments[i];
        bool bare = s.marker == 0xFFD8 || s.marker == 0xFFD9;
        printf("%s\n    {\"marker\": \"%04X\", \"name\": \"%s\", \"length\": %u}", i ? "," : "",
               s.marker, markerName(s.marker).c_str(), bare ? 0 : s.length + 2);
    }
    printf("\n  ],\n  \"restart_markers\": %u\n}\n", list.restarts);
}

// A regular file of up to 2 GiB is opened with the file prolog, so that
// nothing but the decoder's buffer holds it; standard input and anything
// else is read into memory first.
int openForReading(const std::string &command, const std::string &path, Decoder &decoder,
                   size_t *size, std::string *note) {
    struct stat st;
    if (path != "-" && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0 &&
        st.st_size <= 0x7FFFFFFF) {
        *size = size_t(st.st_size);
        Status s = openJpegFile(decoder, path, note);
        if (s)
            return kExitOk;
        std::vector<uint8_t> head(2, 0);
        if (FILE *f = fopen(path.c_str(), "rb")) {
            head.resize(fread(head.data(), 1, 2, f));
            fclose(f);
        }
        if (formatFromBytes(head) != Format::Jpeg)
            return fail(command + ": " + path,
                        s.describe() + " (not a JPEG file: it does not start with FF D8)");
        std::vector<uint8_t> bytes;
        std::string error;
        if (s.code() == JPG_STATUS_NOT_SUPPORTED && readAll(path, &bytes, &error))
            return fail(command + ": " + path, describeRefusal(readStreamFacts(bytes), s));
        return failStatus(command + ": " + path, s);
    }
    std::vector<uint8_t> bytes;
    std::string error;
    if (!readAll(path, &bytes, &error))
        return fail(command, error);
    *size = bytes.size();
    if (bytes.empty())
        return fail(command + ": " + path, "empty input");
    Status s = openJpeg(decoder, bytes, note);
    if (!s && formatFromBytes(bytes) != Format::Jpeg)
        return fail(command + ": " + path,
                    s.describe() + " (not a JPEG file: it does not start with FF D8)");
    if (!s)
        return fail(command + ": " + path, describeRefusal(readStreamFacts(bytes), s));
    return kExitOk;
}

}  // namespace

int cmdInfo(int argc, char **argv) {
    Args args(argc, argv, {});
    if (args.positional().size() != 1 || !args.unknown({"json"}).empty())
        return fail("info", "usage: kivjpeg info FILE [--json]");
    std::string path = args.positional()[0];
    Decoder decoder;
    size_t size = 0;
    std::string note;
    if (int rc = openForReading("info", path, decoder, &size, &note))
        return rc;
    SegmentList list = walk(decoder);
    if (args.has("json"))
        printJson(path, size, decoder, list);
    else
        printText(path, size, decoder, list, note);
    return kExitOk;
}

int cmdSegments(int argc, char **argv) {
    Args args(argc, argv, {"extract"});
    const auto &pos = args.positional();
    bool extract = args.has("extract");
    if (pos.size() != (extract ? 2u : 1u) || !args.unknown({"extract"}).empty())
        return fail("segments", "usage: kivjpeg segments FILE [--extract MARKER OUT]");
    Decoder decoder;
    size_t size = 0;
    std::string note;
    if (int rc = openForReading("segments", pos[0], decoder, &size, &note))
        return rc;
    if (!extract) {
        SegmentList list = walk(decoder);
        for (auto &s : list.segments)
            printf("%04X %-5s %u\n", s.marker, markerName(s.marker).c_str(),
                   s.marker == 0xFFD8 || s.marker == 0xFFD9 ? 0 : s.length + 2);
        if (list.restarts)
            printf("RSTn  x%u\n", list.restarts);
        return kExitOk;
    }
    uint16_t wanted = 0;
    if (!parseMarker(args.get("extract"), &wanted))
        return fail("segments", "unknown marker '" + args.get("extract") +
                                    "' (use a name such as APP1, COM, DQT or a code such as FFE1)");
    Segment seg;
    for (bool first = true; decoder.nextSegment(first, &seg).ok(); first = false) {
        if (seg.marker != wanted)
            continue;
        std::vector<uint8_t> payload;
        Status s = seg.length ? decoder.segmentData(&payload, seg.length) : Status();
        if (!s)
            return failStatus("segments", s);
        std::string error;
        if (!writeAll(pos[1], payload, &error))
            return fail("segments", error);
        fprintf(stderr, "%s: %u bytes\n", markerName(wanted).c_str(), seg.length);
        return kExitOk;
    }
    return fail("segments", pos[0] + " has no " + markerName(wanted) + " segment");
}

}  // namespace kivtool
