// Shared pieces of the kivjpeg command-line tool: argument handling, error
// reporting, JPEG decoding into RGB images (Adobe CMYK too), image
// comparison. Each command lives in its own file and takes the arguments
// after its name.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image_io.h"
#include "kivjpeg.hpp"

namespace kivtool {

// Exit codes: 0 success, 1 error, 2 output written but the stream was damaged.
constexpr int kExitOk = 0;
constexpr int kExitError = 1;
constexpr int kExitWarning = 2;

// Command-line arguments after the command name: positional words and
// "--name value" / "--flag" options.
class Args {
public:
    Args(int argc, char **argv, const std::vector<std::string> &valued);
    bool has(const std::string &name) const;
    std::string get(const std::string &name, const std::string &fallback = "") const;
    const std::vector<std::string> &positional() const { return positional_; }
    // The first unknown option, or empty when all are in `known`.
    std::string unknown(const std::vector<std::string> &known) const;

private:
    std::vector<std::pair<std::string, std::string>> options_;
    std::vector<std::string> positional_;
};

// Prints "kivjpeg: <context>: <message>" on stderr and returns kExitError.
int fail(const std::string &context, const std::string &message);
int failStatus(const std::string &context, kivjpeg::Status status);

// A progress line on stderr, shown only when stderr is a terminal.
class Progress {
public:
    Progress(const std::string &what, uint64_t total);
    void update(uint64_t done);
    ~Progress();

private:
    std::string what_;
    uint64_t total_;
    bool active_;
    int last_ = -1;
};

double nowSeconds();

// What the tool reads from a stream's markers itself, up to the first scan
// header: the frame marker with its sample precision, and the colour
// transform of an Adobe APP14 segment.
struct StreamFacts {
    uint16_t frame = 0;  // SOFn, 0 when none was found
    uint32_t precision = 0;
    int adobeTransform = -1;  // -1: no Adobe segment
};
StreamFacts readStreamFacts(const std::vector<uint8_t> &bytes);

// "arithmetic-coded sequential DCT (SOF9) is not supported" for a frame whose
// process the library does not decode; "" for one it does.
std::string unsupportedProcess(const StreamFacts &facts);
// A refusal as the tool reports it: JPG_STATUS_NOT_SUPPORTED caused by the
// frame names the process, anything else is the status text.
std::string describeRefusal(const StreamFacts &facts, kivjpeg::Status status);

// True when the decoded four-channel image holds CMYK the Adobe way (inverted
// values): a transform-0 stream as coded, or a transform-2 (YCCK) stream the
// library converted.
bool holdsAdobeCmyk(const StreamFacts &facts, const kivjpeg::Header &header, bool noColorConversion);
// From Adobe's stored CMYK: ink amounts (255 - stored, Netpbm's CMYK), or RGB
// (R = C x K / 255 rounded, likewise G from M and B from Y).
kivjpeg::Image cmykToInk(const kivjpeg::Image &stored);
kivjpeg::Image cmykToRgb(const kivjpeg::Image &stored);

// Opens a JPEG from bytes; retries without the end-of-image check for a
// stream whose EOI marker is missing (and says so in *note).
kivjpeg::Status openJpeg(kivjpeg::Decoder &decoder, const std::vector<uint8_t> &bytes,
                         std::string *note);
// The same for a regular file, read by the decoder through its own buffer.
kivjpeg::Status openJpegFile(kivjpeg::Decoder &decoder, const std::string &path, std::string *note);

// Decodes a whole JPEG into an image in Gray/RGB order, at a scale. Frames
// the library cannot scale (progressive, lossless) are decoded at full size
// and reduced by averaging here, noted in *note.
kivjpeg::Status decodeJpeg(kivjpeg::Decoder &decoder, kivjpeg::Scale scale, kivjpeg::Image *out,
                           std::string *note, bool showProgress = false);

// Averages blocks of `factor` x `factor` pixels (partial blocks at the edges).
kivjpeg::Image boxReduce(const kivjpeg::Image &image, uint32_t factor);
// Converts RGB to gray with the ITU-R BT.601 weights.
kivjpeg::Image toGray(const kivjpeg::Image &image);
// Reduces samples to 8 bits.
kivjpeg::Image to8Bit(const kivjpeg::Image &image);

struct Difference {
    double psnr = 0;      // dB; infinity for identical images
    uint32_t maxDiff = 0;
    double meanDiff = 0;
};
// Compares two images of the same shape; false when shapes differ.
bool compareImages(const kivjpeg::Image &a, const kivjpeg::Image &b, Difference *d,
                   kivjpeg::Image *diffImage);

// Reads an image file or decodes a JPEG file into Gray/RGB order.
bool loadAnyImage(const std::string &path, kivjpeg::Image *image, std::string *error);

// Marker names: "SOI", "APP0", "DQT", ... and the reverse.
std::string markerName(uint16_t marker);
bool parseMarker(const std::string &text, uint16_t *marker);

int cmdInfo(int argc, char **argv);
int cmdSegments(int argc, char **argv);
int cmdDecode(int argc, char **argv);
int cmdEncode(int argc, char **argv);
int cmdCompare(int argc, char **argv);
int cmdDemo(int argc, char **argv);

}  // namespace kivtool
