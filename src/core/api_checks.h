// Misuse checks shared by the public entry points: the handle guard of each
// entry-point family and the one check of a caller's image rectangle.
// Contract: an entry point runs its guard before it reads or writes any other
// field of the handle, and a driver checks the rectangle before it touches a
// pixel; a refused call changes nothing, so the handle goes on working.
#pragma once

#include "core/handle.h"

namespace kiv {

// The magic and size words that jpgCheckParam tests, inline for the
// building blocks that run once per MCU or block.
inline bool isLiveHandle(const JpgParam *param) {
    return param != nullptr && param->magic == kJpgMagic && param->size == sizeof(JpgParam);
}

// jpgRead* entry points serve read handles and bare ones (jpgProlog before a
// read prolog); jpgWrite* entry points serve write handles and bare ones. A
// handle of the other family is refused with JPG_STATUS_WRONG_MODE, a dead
// one with JPG_STATUS_INVALID_HANDLE.
inline JpgStatus guardRead(const JpgParam *param) {
    if (!isLiveHandle(param))
        return JPG_STATUS_INVALID_HANDLE;
    return (param->mode & kModeWrite) != 0 ? JPG_STATUS_WRONG_MODE : JPG_STATUS_OK;
}

inline JpgStatus guardWrite(const JpgParam *param) {
    if (!isLiveHandle(param))
        return JPG_STATUS_INVALID_HANDLE;
    return (param->mode & kModeRead) != 0 ? JPG_STATUS_WRONG_MODE : JPG_STATUS_OK;
}

// For entry points without a status (bit-reader primitives, upsamplers,
// converters): false means touch nothing and return 0.
inline bool mayRead(const JpgParam *param) { return guardRead(param) == JPG_STATUS_OK; }
inline bool mayWrite(const JpgParam *param) { return guardWrite(param) == JPG_STATUS_OK; }

// The status of a refused read-family call, out of line: the building
// blocks that run once per MCU or block take the guard as one test on their
// fast path and leave the status to this cold call,
//     if (!kiv::mayRead(param)) [[unlikely]]
//         return kiv::refuseRead(param);
[[gnu::cold, gnu::noinline]] JpgStatus refuseRead(const JpgParam *param);

// What a driver asks of a caller's rectangle. A row is width x channels
// samples of ceil(sampleBits / 8) bytes; `rows` counts the rows the call
// reads or writes, from the top row down.
struct RectNeeds {
    int64_t rows = 0;
    int32_t minChannels = 1;
    int32_t maxChannels = 4;
    JpgStatus channelStatus = JPG_STATUS_INVALID_PARAMETER;
    int32_t minSampleBits = 8;
    int32_t maxSampleBits = 8;
    JpgStatus sampleStatus = JPG_STATUS_INVALID_PARAMETER;
    // An encoder's source may run upwards (negative stride, pixels at the
    // first row to read) when it states no allocation to check against.
    bool bottomUp = false;
};

// Pixels present (else JPG_STATUS_INVALID_HANDLE); channels and sample bits
// in range (else the status given for them); width and height at least 1,
// |stride| at least one row's bytes, a negative stride only for a bottom-up
// source, `rows` within the height, and with a stated allocation
// (allocSize != 0) every byte of those rows inside it (else
// JPG_STATUS_INVALID_PARAMETER). Computed in 64 bits.
JpgStatus checkRect(const ComplibRect *rect, const RectNeeds &needs);

// The rectangle check of the decode drivers: at least as many channels as
// the frame has components, 8-bit samples for DCT frames and the sample
// size of the precision for lossless ones (else JPG_STATUS_NOT_SUPPORTED);
// `rows` is capped at the height, as the drivers never write below it.
JpgStatus checkDecodeRect(const JpgParam *param, const ComplibRect *rect, int64_t rows);

}  // namespace kiv
