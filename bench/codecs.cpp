// Adapters of the three benchmarked codecs. Output formats are each codec's
// natural ones (BGR for this library and TurboJPEG, RGB for stb_image, grey
// for one-component streams), so no codec pays for a conversion it would
// not do for a real client.
#include "codecs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <turbojpeg.h>

#include "kivjpeg.h"

#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb/stb_image.h>
#include <stb/stb_image_write.h>

namespace bench {
namespace {

uint32_t processorFlag = 0xFFFFFFFFu;

std::string statusText(const char *what, JpgStatus status) {
    char text[64];
    std::snprintf(text, sizeof text, "%s: 0x%08X", what, unsigned(status));
    return text;
}

ComplibRect rectOf(Pixels *pixels) {
    ComplibRect rect{};
    rect.width = pixels->width;
    rect.height = pixels->height;
    rect.stride = pixels->stride();
    rect.channels = pixels->channels;
    rect.sampleBits = pixels->bits;
    rect.pixelBits = pixels->channels * (pixels->bits > 8 ? 16 : 8);
    rect.pixels = pixels->data.data();
    rect.allocSize = uint32_t(pixels->data.size());
    return rect;
}

void shape(Pixels *out, int width, int height, int channels, int bits) {
    out->width = width;
    out->height = height;
    out->channels = channels;
    out->bits = bits;
    out->data.resize(size_t(out->stride()) * height);
}

// Runs the output driver that matches the frame's coding process.
JpgStatus kivReadPixels(JpgParam *param, int scale, Pixels *out) {
    uint32_t process = 0, width = 0, height = 0, channels = 0, precision = 0;
    JpgStatus status = jpgReadGetCodingProcess(param, &process);
    if (status == 0) status = jpgReadGetImageSize(param, &width, &height);
    if (status == 0) status = jpgReadGetNumberOfChannels(param, &channels);
    if (status == 0) status = jpgReadGetSamplePrecision(param, &precision);
    if (status != 0) return status;
    int bits = precision > 8 ? 16 : 8;
    if (scale != 1) {
        uint32_t level = scale == 2 ? 2 : scale == 4 ? 1 : 0;
        status = jpgReadScaleOutputGetImageSize(param, &width, &height, level);
        if (status != 0) return status;
        shape(out, int(width), int(height), int(channels), bits);
        ComplibRect rect = rectOf(out);
        return jpgReadScaleOutputToRect(param, &rect, height, level);
    }
    shape(out, int(width), int(height), int(channels), bits);
    ComplibRect rect = rectOf(out);
    switch (process) {
    case JPG_PROCESS_PROGRESSIVE: return jpgReadProgressiveToRect(param, &rect, height, 0);
    case JPG_PROCESS_LOSSLESS: return jpgReadSpatialToRect(param, &rect, height);
    default: return jpgReadToRect(param, &rect, height);
    }
}

std::string kivDecode(const Bytes &jpeg, int scale, Pixels *out) {
    JpgParam *param = nullptr;
    JpgStatus status = jpgReadPrologFromMemory(jpeg.data(), int32_t(jpeg.size()), 0, &param);
    if (status != 0) return statusText("prolog", status);
    if (processorFlag != 0xFFFFFFFFu) jpgSetProcessorArchitectureFlag(param, processorFlag);
    status = kivReadPixels(param, scale, out);
    jpgReadEpilog(param);
    return status == 0 ? std::string() : statusText("decode", status);
}

tjhandle turboDecoder() {
    static tjhandle handle = tjInitDecompress();
    return handle;
}

tjhandle turboEncoder() {
    static tjhandle handle = tjInitCompress();
    return handle;
}

std::string turboDecode(const Bytes &jpeg, int scale, Pixels *out) {
    tjhandle tj = turboDecoder();
    int width = 0, height = 0, subsampling = 0, colorspace = 0;
    if (tjDecompressHeader3(tj, jpeg.data(), jpeg.size(), &width, &height, &subsampling,
                            &colorspace) != 0)
        return tjGetErrorStr2(tj);
    bool grey = colorspace == TJCS_GRAY;
    width = TJSCALED(width, (tjscalingfactor{1, scale}));
    height = TJSCALED(height, (tjscalingfactor{1, scale}));
    shape(out, width, height, grey ? 1 : 3, 8);
    if (tjDecompress2(tj, jpeg.data(), jpeg.size(), out->data.data(), width, out->stride(),
                      height, grey ? TJPF_GRAY : TJPF_BGR, 0) != 0)
        return tjGetErrorStr2(tj);
    return {};
}

std::string stbDecode(const Bytes &jpeg, int scale, Pixels *out) {
    if (scale != 1) return "no scaled decoding";
    int width = 0, height = 0, channels = 0;
    if (!stbi_info_from_memory(jpeg.data(), int(jpeg.size()), &width, &height, &channels))
        return stbi_failure_reason();
    int wanted = channels == 1 ? 1 : 3;
    uint8_t *pixels = stbi_load_from_memory(jpeg.data(), int(jpeg.size()), &width, &height,
                                            &channels, wanted);
    if (pixels == nullptr) return stbi_failure_reason();
    shape(out, width, height, wanted, 8);
    std::memcpy(out->data.data(), pixels, out->data.size());
    stbi_image_free(pixels);
    return {};
}

std::string kivEncode(const Pixels &in, const EncodeSettings &settings, Bytes *out) {
    JpgParam *param = nullptr;
    JpgStatus status = jpgWritePrologToMemory(0, &param);
    if (status == 0 && processorFlag != 0xFFFFFFFFu) jpgSetProcessorArchitectureFlag(param, processorFlag);
    if (status != 0) return statusText("prolog", status);
    Pixels &source = const_cast<Pixels &>(in);
    ComplibRect rect = rectOf(&source);
    status = jpgWriteSetImageSize(param, uint32_t(in.width), uint32_t(in.height));
    if (status == 0)
        status = jpgWriteSetSubsamplingFactor(param,
                                              settings.subsample420 ? 0x221111u : 0x111111u);
    if (status == 0) status = jpgWriteSetQuantizationFactor(param, uint32_t(settings.quality));
    if (status == 0) status = jpgWriteFromRect(param, &rect, uint32_t(in.height));
    uint8_t *buffer = nullptr;
    uint32_t size = 0;
    JpgStatus end = jpgWriteEpilogToMemory(param, &buffer, &size);
    if (status == 0) status = end;
    if (buffer != nullptr) {
        out->assign(buffer, buffer + size);
        jpgWriteFreeBitstream(buffer);
    }
    return status == 0 ? std::string() : statusText("encode", status);
}

std::string turboEncode(const Pixels &in, const EncodeSettings &settings, Bytes *out) {
    tjhandle tj = turboEncoder();
    unsigned char *buffer = nullptr;
    unsigned long size = 0;
    int sampling = in.channels == 1 ? TJSAMP_GRAY : settings.subsample420 ? TJSAMP_420
                                                                           : TJSAMP_444;
    if (tjCompress2(tj, in.data.data(), in.width, in.stride(), in.height,
                    in.channels == 1 ? TJPF_GRAY : TJPF_BGR, &buffer, &size, sampling,
                    settings.quality, 0) != 0)
        return tjGetErrorStr2(tj);
    out->assign(buffer, buffer + size);
    tjFree(buffer);
    return {};
}

void appendBytes(void *context, void *data, int size) {
    auto *out = static_cast<Bytes *>(context);
    auto *bytes = static_cast<uint8_t *>(data);
    out->insert(out->end(), bytes, bytes + size);
}

// stb_image_write chooses 4:2:0 for quality up to 90 and 4:4:4 above, and
// reads RGB: it is timed only where its choice is the case's sampling. The
// BGR input is taken as it is (the channel order does not change the work).
std::string stbEncode(const Pixels &in, const EncodeSettings &settings, Bytes *out) {
    bool stb420 = settings.quality <= 90;
    if (in.channels == 3 && stb420 != settings.subsample420) return "fixed sampling";
    out->clear();
    if (!stbi_write_jpg_to_func(appendBytes, out, in.width, in.height, in.channels,
                                in.data.data(), settings.quality))
        return "write failed";
    return {};
}

}  // namespace

void setKivProcessorFlag(uint32_t flag) { processorFlag = flag; }
uint32_t kivProcessorFlag() { return processorFlag; }

const char *codecName(Codec codec) {
    switch (codec) {
    case Codec::Kiv: return "KivJPEG";
    case Codec::Turbo: return "libjpeg-turbo";
    default: return "stb";
    }
}

std::string decode(Codec codec, const Bytes &jpeg, int scale, Pixels *out) {
    switch (codec) {
    case Codec::Kiv: return kivDecode(jpeg, scale, out);
    case Codec::Turbo: return turboDecode(jpeg, scale, out);
    default: return stbDecode(jpeg, scale, out);
    }
}

std::string encode(Codec codec, const Pixels &in, const EncodeSettings &settings,
                   Bytes *out) {
    switch (codec) {
    case Codec::Kiv: return kivEncode(in, settings, out);
    case Codec::Turbo: return turboEncode(in, settings, out);
    default: return stbEncode(in, settings, out);
    }
}

std::string encodeLossless(const Pixels &in, Bytes *out) {
    JpgParam *param = nullptr;
    JpgStatus status = jpgWritePrologToMemory(0, &param);
    if (status == 0 && processorFlag != 0xFFFFFFFFu) jpgSetProcessorArchitectureFlag(param, processorFlag);
    if (status != 0) return statusText("prolog", status);
    Pixels &source = const_cast<Pixels &>(in);
    ComplibRect rect = rectOf(&source);
    status = jpgWriteSetSpatialPredictor(param, 1);
    if (status == 0) status = jpgWriteSpatialFromRect(param, &rect, in.height);
    uint8_t *buffer = nullptr;
    uint32_t size = 0;
    JpgStatus end = jpgWriteEpilogToMemory(param, &buffer, &size);
    if (status == 0) status = end;
    if (buffer != nullptr) {
        out->assign(buffer, buffer + size);
        jpgWriteFreeBitstream(buffer);
    }
    return status == 0 ? std::string() : statusText("lossless encode", status);
}

}  // namespace bench
