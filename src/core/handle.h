// The codec handle JpgParam: one fixed-size block holding all state of one
// decode or encode. Its size is part of the contract (69260 bytes on 32-bit
// x86), so the whole layout is fixed here; each processing stage owns a named
// group of fields and later stages only start using their fields.
// Offsets in the comments are those of the 32-bit build (checked by a test
// against the compiler's layout); on x86-64 the order is the same with
// native pointers.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kivjpeg.h"

// Mode and flag word (JpgParam::mode). The encoder calls it its flags word.
enum : uint32_t {
    kModeFineQuant = 1u << 0,         // encoder: fixed fine quantization tables
    kModePartial = 1u << 1,           // partial input (read) / partial output (write)
    kModeJfif = 1u << 23,             // a "JFIF" APP0 segment was seen
    kModeAdobe = 1u << 22,            // an "Adobe" APP14 segment was seen
    kModeYCbCr = 1u << 21,            // internal colour space is YCbCr
    kModeDctShift = 18,               // bits 18 and 19: the DCT method
    kModeDctMask = 3u << 18,
    kModeIncremental = 1u << 24,      // progressive incremental display
    kModeHeadersWritten = 1u << 25,   // encoder: headers already written
    kModeFirstRow = 1u << 26,         // lossless: next row starts a scan or interval
    kModeWrite = 1u << 27,            // handle is set up for writing
    kModeRead = 1u << 28,             // handle is set up for reading
    kModeMemory = 1u << 29,           // input or output is a memory block
    kModeRewind = 1u << 30,           // rewind to the first scan before decoding
    kModeNoColorConversion = 1u << 31,
};

constexpr uint32_t kJpgMagic = 0x4A504547;  // reads "GEPJ" in memory
constexpr uint32_t kInputBufferSize = 0x10000;

// Code list entry (decoder and encoder): right-aligned code, HUFFVAL symbol,
// code length 1 to 16 (0 ends the list).
struct JpgHuffmanCode {
    uint32_t code;
    uint16_t symbol;
    uint16_t length;
};

// Encoder AC symbol table entry, indexed by RS = run << 4 | size: the code
// pre-shifted left by size bits and the total length code length + size.
struct JpgAcSymbol {
    uint32_t code;
    uint16_t symbol;
    uint16_t length;
};

// Encoder difference-code entry (baseline DC and lossless differences):
// total bit count and the pattern of code and extra bits.
struct JpgDcDiff {
    uint32_t length;
    uint32_t bits;
};

// One level of a multi-level Huffman decode lookup.
struct JpgHuffLevel {
    uint32_t *entries;      // owned; null when the level is absent
    uint32_t mask;          // applied to the 16-bit window
    uint32_t shift;         // applied after masking
    uint32_t count;         // number of entries
    uint32_t limit;         // first window this level no longer takes
};

// A DC or AC Huffman table: code list, lookups, encoder tables.   92 bytes
struct JpgHuffmanTable {
    JpgHuffmanCode *codes;  // +0   owned code list (encoder AC: indexed by symbol)
    uint8_t *symbolIndex;   // +4   owned symbol-index lookup (progressive, lossless)
    void *encoderTable;     // +8   owned JpgDcDiff[4095] or JpgAcSymbol[256]
    void *encoderSpare;     // +12  owned, reserved for the encoder
    JpgHuffLevel level[3];  // +16  decode lookup levels
    uint32_t slowMaxLength; // +76  DC: longest code; AC: 16
    uint32_t numCodes;      // +80
    uint32_t maxLength;     // +84  longest code length
    uint32_t origin;        // +88  decoder: kTableFromDht, kTableDefault or 0 (undefined)
};

// Where a decoder table came from (JpgHuffmanTable::origin).
enum : uint32_t { kTableFromDht = 1, kTableDefault = 2 };

// Per-component record, one per frame component in frame order.   52 bytes
// The first seven fields are the bindings of the current scan, written by
// the scan header parser into the record of each component the scan names;
// a component outside the scan keeps the bindings of its last scan.
struct JpgComponent {
    union {                            // +0
        const JpgHuffLevel *acLookup;  //    decoder: AC lookup levels
        const JpgAcSymbol *acSymbols;  //    encoder: AC symbol table
    };
    union {                            // +4
        const JpgHuffLevel *dcLookup;  //    decoder: DC lookup levels
        const JpgDcDiff *dcDiff;       //    encoder: difference codes, at difference 0
    };
    JpgHuffmanTable *acTable;          // +8
    JpgHuffmanTable *dcTable;          // +12
    uint32_t blocks;                   // +16 blocks per MCU, H x V
    uint32_t dcFastLimit;              // +20 level-1 limit of the bound DC table
    uint32_t acFastLimit;              // +24 level-1 limit of the bound AC table
    int32_t dcPred;                    // +28 DC predictor: the decoding-state word
    uint32_t *quant;                   // +32 quantization table, zig-zag order
    uint8_t id;                        // +36 component identifier
    uint8_t sampling;                  // +37 H << 4 | V
    uint8_t quantSelector;             // +38
    uint8_t dcSelector;                // +39 encoder
    uint8_t acSelector;                // +40 encoder
    uint8_t pad[3];                    // +41
    uint32_t reserved[2];              // +44
};

// Routine slots, filled by the selectors of the dispatch (slots 0-7, 9, 10),
// by the scan parser (slot 8) and by the encode driver (slot 11).
typedef JpgStatus (*JpgCoefficientFunc)(JpgParam *, int16_t *, JpgComponent *);

struct JpgRoutines {
    JpgUpSamplingFunc upsample;              // 0
    JpgUpSamplingFunc upsampleScaled;        // 1
    JpgReadColorConvertFunc convert;         // 2
    JpgReadColorConvertFunc convertScaled;   // 3
    JpgMcuFunc mcu;                          // 4 0x301 / 0x10301
    JpgMcuFunc mcuScaled;                    // 5 (level << 8) | 1
    JpgMcuFunc mcuProgressive;               // 6 0x302
    JpgMcuFunc mcu303;                       // 7 0x303
    JpgCoefficientFunc coefficient;          // 8 coefficient routine of the progressive scan
    JpgMcuFunc writeMcu;                     // 9 write 0x301
    JpgMcuFunc writeMcu303;                  // 10 write 0x303
    JpgWriteColorConvertFunc writeConvert;   // 11 encoder input conversion
    void *slot12;                            // 12
};

// Decode-side working state (read handles only).
struct JpgDecodeState {
    int16_t *mcuNext;          // next-MCU buffer: second half of workBuffers.mcu
    int16_t *upsampleBuffer;   // 4 x Hmax x Vmax blocks
    int16_t *coefBase;         // coefficient store of frames decoded scan by scan; null otherwise
    int16_t *coefCursor;
    uint8_t *rowsCleared;      // store: per MCU row, non-zero once its coefficients are cleared
    uint32_t storeState;       // store: kStore* below
    JpgStatus storeStatus;     // store: the warning of a stream that ended early, else 0
    uint8_t scanComponents[4]; // frame index of each scan component, in scan order
    uint8_t scanBlockStart[4]; // first block of each scan component inside an MCU
    uint32_t componentsScanned;// store: bit c set once a scan of component c was decoded
    uint32_t scanInFrameOrder; // non-zero when scan position i is frame component i
    int16_t naturalQuant[4][64];// store output: each component's quantization values in natural
                                // order, kept to the 16 bits the dequantized products keep
};

// Progress of the coefficient store (JpgDecodeState::storeState); a fill
// that failed leaves kStoreRestart: the next one starts from the first scan.
enum : uint32_t { kStoreEmpty = 0, kStoreFilling = 1, kStoreComplete = 2, kStoreRestart = 3 };

namespace kiv {
struct QuantSteps;  // the quantizer's divisors of one table (write/quantizer.h)
}

// Encode-side state (write handles only).
struct JpgEncodeState {
    uint8_t huffDefinitions[4][273];  // BITS[16], HUFFVAL[256], Tc << 4 | Th: DC0, DC1, AC0, AC1
    uint32_t rowsEncoded;      // rows handed to the driver so far; 0 before the first call
    uint32_t restartNumber;    // n of the next RSTn, 0 to 7
    uint32_t quality;          // quantization factor 1 to 100
    uint32_t subsamplingMethod;// 0 plain, 1 averaging
    uint32_t quantTableCount;  // tables written (2)
    uint32_t quantPrecision;   // Pq of the written tables (0)
    uint32_t memInitialSize;   // first size of the memory output block
    int16_t *mcuBlocks;        // this call's MCU block buffer (not owned by the handle)
    const kiv::QuantSteps *quantSteps; // this call's per-component divisors (not owned)
    uint32_t mcuBatch;         // MCUs in mcuBlocks for one call of the MCU encoder (0: one)
};

constexpr size_t kStageStateSize = 1144;

struct JpgParam {
    // 1. Header identification                                      +0x0000
    uint32_t magic;
    uint32_t size;
    uint8_t version[4];

    // 2. Routine slots                                              +0x000C
    JpgRoutines routines;

    // 3. Operation header words                                     +0x0040
    uint32_t processorFlag;
    uint32_t processedLines;   // the scan-state word: rows delivered or encoded
    uint32_t frameMarker;      // full SOF marker value
    uint32_t restartInterval;
    uint32_t samplingFactors;  // packed, component 0 in the top used byte
    uint32_t mode;             // kMode* bits
    uint32_t segmentLength;    // current marker segment: payload length
    uint32_t segmentConsumed;  //   and bytes of it consumed
    uint32_t height;
    uint32_t width;
    uint32_t precision;
    uint32_t numComponents;
    int32_t scaleLevel;        // -1 until set; 3 full size
    uint8_t *losslessLine;     // owned previous-row buffer of the lossless decoder
    uint32_t firstScanOffset;  // stream offset of the first scan's data

    // Decode-state words that must start at zero                    +0x007C
    uint32_t currentMarker;    // expected next marker; 0xFFD9 once the scan ended
    uint32_t mcuAddress;       // MCUs (lossless: samples) since the last restart
    int32_t eobRun;            // progressive end-of-band run
    uint8_t scanNs;            // scan header: component count
    uint8_t scanCs;            //   first component selector
    uint8_t scanSs;            //   Ss; the lossless predictor
    uint8_t scanSe;
    uint8_t scanAh;
    uint8_t scanAl;            //   Al; the lossless point transform
    uint8_t scanPad[2];

    // Stage state: decoder or encoder                               +0x0090
    union {
        JpgDecodeState dec;
        JpgEncodeState enc;
        uint8_t stageReserve[kStageStateSize];
    };

    // 4. Huffman tables: DC 0-3, then AC 0-3                        +0x0508
    JpgHuffmanTable dcTables[4];
    JpgHuffmanTable acTables[4];

    // 5. Quantization tables, zig-zag order                         +0x07E8
    uint32_t quant[4][64];

    // 6. DHT bookkeeping                                            +0x0BE8
    int32_t dhtList[8];        // Tc << 4 | Th in order of definition, ended by -1
    int32_t dhtCount;          // the ninth slot when all eight are used

    // 7. Owned work buffers (0,0) (0,1) (1,0) (1,1)                 +0x0C0C
    int16_t *mcuBuffer;        // current MCU buffer: base of the decode allocation
    int16_t **blockPointers;   // block pointer table of the upsampler
    uint32_t *blockMap;        // block map of the colour converter
    uint8_t *spareBuffer;      // encoder: lossless previous row

    // 8. MCU geometry                                               +0x0C1C
    uint32_t hmax;
    uint32_t vmax;
    uint32_t hv;               // Hmax x Vmax
    uint32_t componentsHV;     // components x Hmax x Vmax
    uint32_t blocksPerMcu;
    uint32_t upsampleBlocks;   // 4 x Hmax x Vmax
    uint32_t mcuWidth;
    uint32_t mcuHeight;
    uint32_t mcuRows;
    uint32_t totalMcus;
    uint32_t mcusLeft;         // working copy of totalMcus, restored on rewind
    uint32_t mcusPerRow;

    // 9. Component records                                          +0x0C4C
    JpgComponent components[4];

    // 10. APP0 / APP14 identification scratch                       +0x0D1C
    uint8_t scratch[14];
    uint8_t scratchPad[2];

    // 11. Embedded bitstream, 12. its 64 KiB buffer                 +0x0D2C
    union {
        ComplibBitstream bs;
        struct {
            uint8_t bsFixed[offsetof(ComplibBitstream, buffer)];
            uint8_t input[kInputBufferSize];
        };
    };

    // 13. JFIF and Adobe values                                     +0x10E80
    uint16_t xDensity;
    uint16_t yDensity;
    uint8_t densityUnits;
    uint8_t adobeTransform;
    uint8_t jfifPad[2];

    // 14. Final word                                                +0x10E88
    uint32_t finalWord;
};

#if defined(__i386__)
static_assert(sizeof(JpgParam) == 69260, "JpgParam is 69260 bytes on the reference platform");
static_assert(sizeof(JpgComponent) == 52);
static_assert(sizeof(JpgHuffmanTable) == 92);
static_assert(offsetof(ComplibBitstream, buffer) == 340);
#endif
static_assert(sizeof(JpgEncodeState) <= kStageStateSize);
static_assert(sizeof(JpgDecodeState) <= kStageStateSize);
static_assert(offsetof(JpgParam, input) == offsetof(JpgParam, bs) + offsetof(ComplibBitstream, buffer));
static_assert(offsetof(JpgParam, routines) < offsetof(JpgParam, processorFlag) &&
              offsetof(JpgParam, processorFlag) < offsetof(JpgParam, dcTables) &&
              offsetof(JpgParam, dcTables) < offsetof(JpgParam, quant) &&
              offsetof(JpgParam, quant) < offsetof(JpgParam, dhtList) &&
              offsetof(JpgParam, dhtList) < offsetof(JpgParam, mcuBuffer) &&
              offsetof(JpgParam, mcuBuffer) < offsetof(JpgParam, hmax) &&
              offsetof(JpgParam, hmax) < offsetof(JpgParam, components) &&
              offsetof(JpgParam, components) < offsetof(JpgParam, scratch) &&
              offsetof(JpgParam, scratch) < offsetof(JpgParam, bs) &&
              offsetof(JpgParam, bs) < offsetof(JpgParam, xDensity) &&
              offsetof(JpgParam, xDensity) < offsetof(JpgParam, finalWord),
              "the handle's regions keep their order");
