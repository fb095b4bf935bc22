/*
 * kivjpeg.h - public interface of the KivJPEG codec library.
 *
 * Decodes ISO/IEC 10918-1 streams (baseline and extended sequential DCT,
 * progressive DCT, lossless; Huffman coding) into caller-owned image
 * rectangles, at full size or at 1/2, 1/4, 1/8, and encodes rectangles into
 * baseline or lossless streams, to and from memory or files.
 *
 * All state of one decode or encode lives in one opaque handle, JpgParam.
 * Every codec function takes the handle first and returns a JpgStatus:
 * 0 is success, 0xC00000xx / 0xC00003xx are errors, 0x8000xxxx are warnings
 * after which partial output is usable, 0xFFFFFFFF is a generic refusal.
 * Decoded pixels are written with three channels in the order B, G, R.
 *
 * Valid C99 and C++.
 */
#ifndef KIVJPEG_H
#define KIVJPEG_H

#include <stdint.h>

#if defined(KIVJPEG_BUILD) && defined(__GNUC__)
#define KIV_API __attribute__((visibility("default")))
#else
#define KIV_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Status codes                                                              */
/* ------------------------------------------------------------------------ */

typedef uint32_t JpgStatus;

#define JPG_STATUS_OK                0x00000000u
#define JPG_STATUS_FAILED            0xC0000000u
#define JPG_STATUS_BLOCK_UNAVAILABLE 0xC0000001u
#define JPG_STATUS_NO_MEMORY         0xC0000008u
#define JPG_STATUS_INVALID_HANDLE    0xC0000009u
#define JPG_STATUS_SEEK_FAILED       0xC0000019u
#define JPG_STATUS_OUTPUT_FULL       0xC000001Du
#define JPG_STATUS_END_OF_STREAM     0xC000001Eu
#define JPG_STATUS_INVALID_PARAMETER 0xC0000057u
#define JPG_STATUS_WRONG_MODE        0xC00000FDu
#define JPG_STATUS_NOT_SUPPORTED     0xC00000FEu
#define JPG_STATUS_BAD_DATA          0xC0000109u
#define JPG_STATUS_FILE_OPEN_FAILED  0xC0000301u
#define JPG_STATUS_UNEXPECTED_END    0xC0000302u
#define JPG_STATUS_BAD_DC_CODE       0x80001801u
#define JPG_STATUS_BAD_AC_CODE       0x80001802u
#define JPG_STATUS_SEGMENT_LENGTH    0x80001881u
#define JPG_STATUS_BAD_SAMPLING      0x800018C0u
#define JPG_STATUS_ERROR             0xFFFFFFFFu

/* ------------------------------------------------------------------------ */
/* Types                                                                     */
/* ------------------------------------------------------------------------ */

/* The codec handle: one fixed-size block, created by a prolog and released
 * by an epilog. Its contents are private to the library. */
typedef struct JpgParam JpgParam;

/* Internal records that some exported building blocks take as arguments. */
typedef struct JpgComponent JpgComponent;
typedef struct JpgHuffmanCode JpgHuffmanCode;
typedef struct JpgAcSymbol JpgAcSymbol;
typedef struct JpgWriteConvertContext JpgWriteConvertContext;

/* Byte source or sink over a file descriptor or a memory block. */
typedef struct ComplibBitstream {
    uint8_t *putStart;      /* first byte of the bit writer's staging buffer */
    uint32_t reserved0;
    uint8_t *memCursor;     /* memory read: next byte; memory write: the output block */
    uint32_t memLength;     /* valid bytes of the memory block */
    uint32_t accumulator;   /* pending bits: left-aligned reading, right-aligned writing */
    uint8_t *putPtr;        /* where the bit writer stores its next word */
    uint8_t *memBase;       /* first byte of the memory data */
    uint32_t memOffset;     /* read: offset from the base; write: growth step */
    uint8_t *putEnd;        /* the staging buffer is flushed when putPtr reaches it */
    uint32_t fileBase;      /* position of the stream's first byte in its file */
    uint32_t fileSize;      /* file size, taken when opened for reading */
    uint32_t bytesLoaded;   /* bytes brought in since the last initialisation */
    int32_t fd;             /* file descriptor, 0 when none is held */
    uint32_t memCapacity;   /* allocated size of the memory output block */
    uint32_t fill;          /* valid bytes of the read buffer */
    int32_t bitCount;       /* reading: valid bits; writing: free bits */
    uint32_t flags;         /* COMPLIB_BS_* */
    uint32_t reserved1;
    uint32_t readPos;       /* next unread byte of the read buffer */
    uint32_t state;         /* 0 normal; 1, 2 end-of-data states; 3 open failed */
    char path[260];         /* zero-terminated file name */
    uint8_t buffer[4096];   /* read and copy buffer */
} ComplibBitstream;

#define COMPLIB_BS_READ      0x02u
#define COMPLIB_BS_WRITE     0x04u
#define COMPLIB_BS_BYTE_UNIT 0x08u
#define COMPLIB_BS_MEMORY    0x10u

/* An image buffer: size, line stride, pixel and sample sizes, memory. */
typedef struct ComplibRect {
    int32_t width;          /* pixels */
    int32_t height;         /* lines */
    int32_t stride;         /* bytes from one line to the next */
    int32_t pixelBits;      /* sample size rounded to bytes, times channels */
    int32_t channels;       /* 1 to 4 */
    int32_t sampleBits;     /* 1 to 32 */
    uint8_t *pixels;
    uint32_t allocSize;     /* bytes */
} ComplibRect;

/* Routine types held in the handle's routine slots. */
typedef JpgStatus (*JpgMcuFunc)(JpgParam *param);
typedef void (*JpgUpSamplingFunc)(JpgParam *param);
typedef void (*JpgReadColorConvertFunc)(JpgParam *param, ComplibRect *rect,
                                        int32_t x, int32_t width);
typedef JpgStatus (*JpgWriteColorConvertFunc)(JpgWriteConvertContext *ctx,
                                              int32_t x, int32_t y);

/* Exported read-only tables. */
KIV_API extern const uint16_t PixClipTable[1024];
KIV_API extern const int32_t tableTestShift[17][2];

/* ------------------------------------------------------------------------ */
/* Support layer: memory, files, byte order, strings                        */
/* ------------------------------------------------------------------------ */

KIV_API void *complibMemAlloc(uint32_t size);
KIV_API JpgStatus complibMemFree(void *ptr);
KIV_API void *complibMemReAlloc(void *ptr, uint32_t size);

KIV_API int32_t complibCreateFile(const char *path);
KIV_API int32_t complibOpenFile(const char *path, int32_t mode);
KIV_API int32_t complibReadFile(int32_t fd, void *buffer, uint32_t length);
KIV_API int32_t complibWriteFile(int32_t fd, const void *buffer, uint32_t length);
KIV_API int32_t complibSeekFile(int32_t fd, int32_t offset, int32_t whence);
KIV_API JpgStatus complibCloseFile(int32_t fd);
KIV_API JpgStatus complibDeleteFile(const char *path);
KIV_API JpgStatus complibRenameFile(const char *newPath, const char *oldPath);
KIV_API uint32_t complibGetFileSize(const char *path);
KIV_API JpgStatus complibCreateTmpFileName(char *name, const char *directory);

KIV_API int32_t complibSwapInt16(int32_t value);
KIV_API uint32_t complibSwapInt32(uint32_t value);
KIV_API uint32_t complibMemToVal(const uint8_t *bytes, int32_t count);
KIV_API void complibValToMem(uint8_t *bytes, uint32_t count, uint32_t value);

KIV_API char *complibLibCstrcpy(char *dst, const char *src);
KIV_API char *complibLibCstrncpy(char *dst, const char *src, int32_t n);
KIV_API char *complibLibCstrcat(char *dst, const char *src);
KIV_API uint32_t complibLibCstrlen(const char *s);
KIV_API int32_t complibLibCstrcmp(const char *a, const char *b);

/* ------------------------------------------------------------------------ */
/* Support layer: bitstream object                                          */
/* ------------------------------------------------------------------------ */

KIV_API JpgStatus complibInitBitstreamMemory(ComplibBitstream *bs);
KIV_API JpgStatus complibCreateBitstreamFile(ComplibBitstream *bs);
KIV_API JpgStatus complibOpenBitstreamFile(ComplibBitstream *bs);
KIV_API int32_t complibOpenBitstreamFileExt(ComplibBitstream *bs);
KIV_API JpgStatus complibAppendBitstreamFile(ComplibBitstream *bs);
KIV_API int32_t complibAppendBitstreamFileExt(ComplibBitstream *bs);
KIV_API JpgStatus complibCloseBitstreamFile(ComplibBitstream *bs);
KIV_API JpgStatus complibCloseBitstreamFileExt(ComplibBitstream *bs);
KIV_API int32_t complibReadBitstreamFile(ComplibBitstream *bs, void *dst, uint32_t length);
KIV_API int32_t complibWriteBitstreamFile(ComplibBitstream *bs, const void *src, uint32_t length);
KIV_API int32_t complibSeekBitstreamFile(ComplibBitstream *bs, int32_t offset, int32_t whence);
KIV_API JpgStatus complibDupBitstreamFile(ComplibBitstream *dst, ComplibBitstream *src,
                                          int32_t offset, int32_t length);
KIV_API int32_t complibPutBits(ComplibBitstream *bs, uint32_t value, int32_t n);
KIV_API JpgStatus complibFlushPutBits(ComplibBitstream *bs);
KIV_API int32_t complibPutByteAligned(ComplibBitstream *bs);
KIV_API uint32_t complibShowBits(ComplibBitstream *bs, int32_t n);
KIV_API uint32_t complibGetBits(ComplibBitstream *bs, int32_t n);
KIV_API void complibFlushGetBits(ComplibBitstream *bs, int32_t n);
KIV_API uint32_t complibGetByteAligned(ComplibBitstream *bs);
KIV_API uint32_t complibGetBitAddress(ComplibBitstream *bs);
KIV_API JpgStatus complibBSGetBlock(ComplibBitstream *bs, void *dst, uint32_t length,
                                    uint32_t *count);

/* ------------------------------------------------------------------------ */
/* Support layer: image rectangles                                          */
/* ------------------------------------------------------------------------ */

KIV_API ComplibRect *complibRectAlloc(ComplibRect *rect);
KIV_API JpgStatus complibRectFree(ComplibRect *rect);
KIV_API JpgStatus complibRectResize(ComplibRect *rect, int32_t width, int32_t height,
                                    int32_t channels, int32_t sampleBits);
KIV_API void *complibRectGetAddress(const ComplibRect *rect, int32_t x, int32_t y);
KIV_API void complibRectReverseBits(ComplibRect *rect);

/* ------------------------------------------------------------------------ */
/* Codec handle and routine dispatch                                        */
/* ------------------------------------------------------------------------ */

KIV_API JpgParam *jpgProlog(const char *name);
KIV_API void jpgInitParam(JpgParam *param);
KIV_API JpgParam *jpgCheckParam(JpgParam *param);
KIV_API JpgStatus jpgEpilog(JpgParam *param);
KIV_API void *jpgMemAlloc(JpgParam *param, uint32_t size);
KIV_API JpgStatus jpgMemFree(JpgParam *param, void *ptr);
KIV_API uint32_t jpgGetJPEGBlockMemorySize(JpgParam *param, uint32_t lines);

/* Processor capabilities, the bits of jpgGetProcessorArchitecture (found with
 * CPUID; AVX2 only when the operating system also saves the AVX registers).
 * A handle's processor flag is the caller's request masked by them and
 * selects the widest routines it allows; flag 0 selects the portable ones.
 * Every level produces the same bits. */
#define JPG_PROCESSOR_SSE2 0x00000001u
#define JPG_PROCESSOR_AVX2 0x00000002u

KIV_API uint32_t jpgGetProcessorArchitecture(void);
KIV_API JpgStatus jpgGetProcessorArchitectureFlagCaps(JpgParam *param, uint32_t *caps);
KIV_API JpgStatus jpgGetProcessorArchitectureFlag(JpgParam *param, uint32_t *flag);
KIV_API JpgStatus jpgSetProcessorArchitectureFlag(JpgParam *param, uint32_t flag);
KIV_API JpgStatus jpgReadSetProcessorArchitectureFlag(JpgParam *param, uint32_t flag);
KIV_API JpgStatus jpgWriteSetProcessorArchitectureFlag(JpgParam *param, uint32_t flag);
KIV_API JpgStatus jpgGetDCTMethodFlag(JpgParam *param, uint32_t *method);
KIV_API JpgStatus jpgSetDCTMethodFlag(JpgParam *param, uint32_t method);

KIV_API JpgReadColorConvertFunc jpgGetReadColorConvertFunc(uint32_t id, uint32_t flag);
KIV_API JpgMcuFunc jpgGetReadMCUFunc(uint32_t id, uint32_t flag);
KIV_API JpgUpSamplingFunc jpgGetUpSamplingFunc(uint32_t id, uint32_t flag);
KIV_API JpgWriteColorConvertFunc jpgGetWriteColorConvertFunc(uint32_t id, uint32_t flag);
KIV_API JpgMcuFunc jpgGetWriteMCUFunc(uint32_t id, uint32_t flag);
KIV_API JpgReadColorConvertFunc jpgGetReadColorConvertGenericFunc(uint32_t id);
KIV_API JpgMcuFunc jpgGetReadMCUGenericFunc(uint32_t id);
KIV_API JpgUpSamplingFunc jpgGetUpSamplingGenericFunc(uint32_t id);
KIV_API JpgWriteColorConvertFunc jpgGetWriteColorConvertGenericFunc(uint32_t id);
KIV_API JpgMcuFunc jpgGetWriteMCUGenericFunc(uint32_t id);
KIV_API int32_t jpgReadColorConvertTableInit(void);
KIV_API void jpgReadColorConvertTableClear(void);
KIV_API int32_t jpgWriteColorConvertTableInit(void);
KIV_API void jpgWriteColorConvertTableClear(void);

/* ------------------------------------------------------------------------ */
/* Decoder: opening a stream and reading its header                         */
/* ------------------------------------------------------------------------ */

/* Coding process reported by jpgReadGetCodingProcess. */
#define JPG_PROCESS_BASELINE    0x8000u
#define JPG_PROCESS_EXTENDED    0x4000u
#define JPG_PROCESS_PROGRESSIVE 0x2000u
#define JPG_PROCESS_LOSSLESS    0x1000u

KIV_API JpgStatus jpgReadPrologFromMemory(const uint8_t *data, int32_t size, int32_t flags,
                                          JpgParam **param);
KIV_API JpgStatus jpgReadPrologFromFile(const char *path, int32_t offset, int32_t length,
                                        uint8_t flags, JpgParam **param);
KIV_API JpgStatus jpgReadProlog(JpgParam *param);
KIV_API JpgStatus jpgReadGetCodingProcess(JpgParam *param, uint32_t *process);
KIV_API JpgStatus jpgReadGetImageSize(JpgParam *param, uint32_t *width, uint32_t *height);
KIV_API JpgStatus jpgReadGetNumberOfChannels(JpgParam *param, uint32_t *channels);
KIV_API JpgStatus jpgReadGetSamplePrecision(JpgParam *param, uint32_t *precision);
KIV_API JpgStatus jpgReadGetSubsamplingFactor(JpgParam *param, uint32_t *factor);
KIV_API JpgStatus jpgReadGetMcuSize(JpgParam *param, uint32_t *width, uint32_t *height);
KIV_API JpgStatus jpgReadGetRestartInterval(JpgParam *param, uint32_t *interval);
KIV_API JpgStatus jpgReadGetQuantizationTableSelector(JpgParam *param, uint32_t *selectors);
KIV_API JpgStatus jpgReadGetQuantizationTable(JpgParam *param, uint32_t component,
                                              uint32_t *table);
KIV_API JpgStatus jpgReadGetQuantizationTableNR(JpgParam *param, uint32_t *value0,
                                                uint32_t *value1);

/* Entropy-coded segment reader. */
KIV_API uint32_t jpgReadFillBuffer(JpgParam *param);
KIV_API uint32_t jpgReadShowBits(JpgParam *param, int32_t n);
KIV_API uint32_t jpgReadGetBits(JpgParam *param, int32_t n);
KIV_API void jpgReadFlushBits(JpgParam *param);
KIV_API uint32_t jpgReadGetBytes(JpgParam *param, int32_t n);
KIV_API uint32_t jpgReadShowRawBits(JpgParam *param, int32_t n);
KIV_API uint32_t jpgReadShowMarkerCode(JpgParam *param);
KIV_API void jpgReadFlushMarkerCode(JpgParam *param);
KIV_API uint32_t jpgReadDeleteByteStuffingCode(JpgParam *param);
KIV_API uint32_t jpgReadGetJPEGFileOffset(ComplibBitstream *bs);
KIV_API JpgStatus jpgReadRewindJPEGFile(JpgParam *param, uint32_t offset, int32_t mode);

/* Huffman code tables. */
KIV_API JpgStatus jpgGenerateHuffmanTable(JpgParam *param, const uint8_t *tableDefinition, uint32_t count);
KIV_API JpgStatus jpgReadInitializeDecVLCTable(JpgParam *param);

/* Restart markers, MCU seeking, partial input. */
KIV_API JpgStatus jpgReadSeekRestartMarker(JpgParam *param, int32_t count, int32_t origin);
KIV_API JpgStatus jpgReadSeekMcu(JpgParam *param, uint32_t count, int32_t origin);
KIV_API JpgStatus jpgReadSetPartialBitstream(JpgParam *param, const uint8_t *buffer,
                                             uint32_t size);
KIV_API JpgStatus jpgReadGetProcessedLine(JpgParam *param, uint32_t *line);
KIV_API JpgStatus jpgReadSetProcessedLine(JpgParam *param, uint32_t line);
KIV_API JpgStatus jpgReadGetMcuAddress(JpgParam *param, uint32_t *address);
KIV_API JpgStatus jpgReadSetMcuAddress(JpgParam *param, uint32_t address);

/* Marker segment access. */
KIV_API JpgStatus jpgReadSeekMarkerSegment(JpgParam *param, int32_t origin, uint16_t *marker,
                                           uint32_t *length);
KIV_API JpgStatus jpgReadReadMarkerData(JpgParam *param, uint8_t *buffer, uint32_t size,
                                        uint32_t *count);
KIV_API JpgStatus jpgReadSeekMarkerData(JpgParam *param);

/* Scan headers, restart and end-of-scan processing. */
KIV_API JpgStatus jpgReadParseScanLevel(JpgParam *param);
KIV_API JpgStatus jpgReadEpilogEntropyCodedSegment(JpgParam *param);
KIV_API JpgStatus jpgReadReadRestartMarker(JpgParam *param);

/* ------------------------------------------------------------------------ */
/* Decoder: sequential pipeline                                             */
/* ------------------------------------------------------------------------ */

KIV_API JpgStatus jpgReadGetCoefficient(JpgParam *param, int16_t *block, JpgComponent *comp);
KIV_API JpgStatus jpgReadDecodeBaselineMcu(JpgParam *param);
KIV_API JpgStatus jpgReadInverseDCT(int16_t *block);

KIV_API void jpgReadUpSamplingTo11(JpgParam *param);
KIV_API void jpgReadUpSamplingTo12(JpgParam *param);
KIV_API void jpgReadUpSamplingTo21(JpgParam *param);
KIV_API void jpgReadUpSamplingTo22(JpgParam *param);
KIV_API void jpgReadUpSamplingToNN(JpgParam *param);

KIV_API void jpgReadCopyGrey(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width);
KIV_API void jpgReadCopy2(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width);
KIV_API void jpgReadCopy3(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width);
KIV_API void jpgReadCopy4(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width);
KIV_API void jpgReadCopy3Reversed(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width);
KIV_API void jpgReadYUV2Rect(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width);
KIV_API void jpgReadYCCK2Rect(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width);
KIV_API void jpgReadScaledCopyGrey(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width);
KIV_API void jpgReadScaledCopy2(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width);
KIV_API void jpgReadScaledCopy3(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width);
KIV_API void jpgReadScaledCopy4(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width);
KIV_API void jpgReadScaledCopy3Reversed(JpgParam *param, ComplibRect *rect, int32_t x,
                                        int32_t width);
KIV_API void jpgReadScaledYUV2Rect(JpgParam *param, ComplibRect *rect, int32_t x, int32_t width);
KIV_API void jpgReadScaledYCCK2Rect(JpgParam *param, ComplibRect *rect, int32_t x,
                                    int32_t width);
KIV_API void jpgReadYuv2RGB(int32_t *r, int32_t *g, int32_t *b, int32_t y, int32_t cb,
                            int32_t cr);

KIV_API JpgStatus jpgReadToRect(JpgParam *param, ComplibRect *rect, uint32_t lines);
KIV_API JpgStatus jpgReadMcuToRect(JpgParam *param, ComplibRect *rect, uint32_t count);
KIV_API JpgStatus jpgReadDecodeMcuRow(JpgParam *param, ComplibRect *rect, uint32_t count);
KIV_API JpgStatus jpgReadSetNoColorConversion(JpgParam *param);
KIV_API JpgStatus jpgReadEpilog(JpgParam *param);

/* Scaled output: level 0 = 1/8, 1 = 1/4, 2 = 1/2, 3 = full size. */
KIV_API JpgStatus jpgReadScaleOutputGetImageSize(JpgParam *param, uint32_t *width,
                                                 uint32_t *height, uint32_t level);
KIV_API JpgStatus jpgReadScaleOutputSetLevel(JpgParam *param, uint32_t level);
KIV_API JpgStatus jpgReadGetScaleCoefficient(JpgParam *param, int16_t *block,
                                             JpgComponent *comp, uint32_t limit);
KIV_API JpgStatus jpgReadScaleOutputLevel0MCU(JpgParam *param);
KIV_API JpgStatus jpgReadScaleOutputLevel1MCU(JpgParam *param);
KIV_API JpgStatus jpgReadScaleOutputLevel2MCU(JpgParam *param);
KIV_API JpgStatus jpgReadScaleOutputToRect(JpgParam *param, ComplibRect *rect, uint32_t lines,
                                           uint32_t level);
KIV_API JpgStatus jpgReadScaleOutputMcuToRect(JpgParam *param, ComplibRect *rect,
                                              uint32_t count, uint32_t level);
KIV_API void jpgReadScaleOutputUpSamplingTo22(JpgParam *param);
KIV_API void jpgReadScaleOutputUpSamplingTo21(JpgParam *param);
KIV_API void jpgReadScaleOutputUpSamplingTo12(JpgParam *param);
KIV_API void jpgReadScaleOutputUpSamplingToNN(JpgParam *param);

/* ------------------------------------------------------------------------ */
/* Decoder: progressive and lossless                                        */
/* ------------------------------------------------------------------------ */

#define JPG_PROGRESSIVE_INCREMENTAL 0x1u

KIV_API JpgStatus jpgReadGetProgressiveDCBaseCoefficient(JpgParam *param, int16_t *block,
                                                         JpgComponent *comp);
KIV_API JpgStatus jpgReadGetProgressiveDCDiffCoefficient(JpgParam *param, int16_t *block);
KIV_API JpgStatus jpgReadGetProgressiveACBaseCoefficient(JpgParam *param, int16_t *block,
                                                         JpgComponent *comp);
KIV_API JpgStatus jpgReadGetProgressiveACDiffCoefficient(JpgParam *param, int16_t *block,
                                                         JpgComponent *comp);
KIV_API JpgStatus jpgReadProgressiveToRect(JpgParam *param, ComplibRect *rect, uint32_t rows,
                                           uint32_t flags);
KIV_API JpgStatus jpgReadProgressiveIsCompleted(JpgParam *param, uint32_t *completed);

KIV_API JpgStatus jpgReadSpatialToRect(JpgParam *param, ComplibRect *rect, uint32_t rows);
KIV_API JpgStatus jpgReadGetSpatialDifference(JpgParam *param, JpgComponent *comp,
                                              int32_t *difference);
KIV_API JpgStatus jpgReadGetSpatialDifferenceAtIndex(JpgParam *param, int32_t *difference,
                                                     uint32_t index);
KIV_API JpgStatus jpgReadGetPointTransform(JpgParam *param, uint32_t *pt);
KIV_API JpgStatus jpgReadGetSpatialPrevLine(JpgParam *param, void **line);
KIV_API JpgStatus jpgReadGetSpatialFirstLine(JpgParam *param, uint32_t *flag);
KIV_API JpgStatus jpgReadSetSpatialFirstLine(JpgParam *param, uint32_t flag);

/* ------------------------------------------------------------------------ */
/* Encoder                                                                   */
/* ------------------------------------------------------------------------ */

/* Option bit of jpgWritePrologToMemory: allow jpgWriteGetPartialBitstream. */
#define JPG_WRITE_PARTIAL 0x2u

KIV_API JpgStatus jpgWritePrologToMemory(uint32_t options, JpgParam **param);
KIV_API JpgStatus jpgWritePrologToFile(const char *name, uint32_t reserved, JpgParam **param);
KIV_API JpgStatus jpgWriteProlog(JpgParam *param);
KIV_API JpgStatus jpgWriteSetImageSize(JpgParam *param, uint32_t width, uint32_t height);
KIV_API JpgStatus jpgWriteSetInternalColorSpace(JpgParam *param, int32_t space);
KIV_API JpgStatus jpgWriteSetNoColorConversion(JpgParam *param);
KIV_API JpgStatus jpgWriteSetSubsamplingFactor(JpgParam *param, uint32_t factor);
KIV_API JpgStatus jpgWriteSetSubsamplingMethod(JpgParam *param, uint32_t method);
KIV_API JpgStatus jpgWriteGetSubsamplingMethod(JpgParam *param, uint32_t *method);
KIV_API JpgStatus jpgWriteSetNumberOfChannels(JpgParam *param, uint32_t channels);
KIV_API JpgStatus jpgWriteSetQuantizationFactor(JpgParam *param, uint32_t factor);
KIV_API JpgStatus jpgWriteSetQuantizationTableSelector(JpgParam *param, uint32_t component,
                                                       uint32_t table);
KIV_API JpgStatus jpgWriteSetDCEntropyTableSelector(JpgParam *param, uint32_t component,
                                                    uint32_t table);
KIV_API JpgStatus jpgWriteSetACEntropyTableSelector(JpgParam *param, uint32_t component,
                                                    uint32_t table);
KIV_API JpgStatus jpgWriteSetRestartInterval(JpgParam *param, uint16_t interval);
KIV_API JpgStatus jpgWriteSetSpatialPredictor(JpgParam *param, int32_t predictor);
KIV_API JpgStatus SetColorIngredient(JpgParam *param);
KIV_API JpgStatus jpgWriteSSSetting(JpgParam *param, uint32_t *factors);
KIV_API uint32_t jpgWriteMakeClrCvtID(JpgParam *param);

KIV_API JpgStatus jpgWriteSetDefaultQuantizationTable(JpgParam *param, uint32_t which,
                                                      const uint16_t *table);
KIV_API JpgStatus jpgWriteCreateTables(JpgParam *param);
KIV_API JpgStatus createDQT(JpgParam *param);
KIV_API JpgStatus createDHT(JpgParam *param, const uint8_t *source);
KIV_API JpgStatus jpgWriteSortHuffmanTable(JpgParam *param);

KIV_API JpgStatus jpgWriteXXX2Rect(JpgWriteConvertContext *ctx, int32_t x, int32_t y);
KIV_API JpgStatus jpgWriteXXX2RectHQ(JpgWriteConvertContext *ctx, int32_t x, int32_t y);
KIV_API JpgStatus jpgWriteRGB2RGBRect(JpgWriteConvertContext *ctx, int32_t x, int32_t y);
KIV_API JpgStatus jpgWriteRGB2RGBRectHQ(JpgWriteConvertContext *ctx, int32_t x, int32_t y);
KIV_API JpgStatus jpgWriteRGB2YUVRect(JpgWriteConvertContext *ctx, int32_t x, int32_t y);
KIV_API JpgStatus jpgWriteRGB2YUVRectHQ(JpgWriteConvertContext *ctx, int32_t x, int32_t y);
KIV_API JpgStatus GenericYUVConvert8bit(JpgWriteConvertContext *ctx, int32_t x, int32_t y,
                                        int32_t width, int32_t height);
KIV_API JpgStatus GenericSubSamplingAndBlockDivision(JpgWriteConvertContext *ctx);
KIV_API JpgStatus GenericSubSamplingAndBlockDivisionHQ(JpgWriteConvertContext *ctx);
KIV_API JpgStatus GenericEdgeOptimize(JpgWriteConvertContext *ctx, int32_t width,
                                      int32_t height);

KIV_API void complibIntFDCT8x8(int16_t *block);
KIV_API JpgStatus jpgWriteBaseLine8BitDCHuffman(ComplibBitstream *bs, JpgComponent *comp,
                                                int32_t difference);
KIV_API JpgStatus jpgWriteBaseLine8BitACHuffman(ComplibBitstream *bs, const JpgAcSymbol *table,
                                                const uint32_t *quant, int16_t *block);
KIV_API JpgStatus jpgWriteEpilogEntropyCodedSegment(JpgParam *param);

KIV_API JpgStatus jpgWritePutBits(ComplibBitstream *bs, uint32_t bits, int32_t count);
KIV_API JpgStatus jpgWriteByteStuff(ComplibBitstream *bs);
KIV_API JpgStatus jpgWriteFlushBits(ComplibBitstream *bs);
KIV_API JpgStatus jpgWritePutBytes(ComplibBitstream *bs, const uint8_t *data, uint32_t count);
KIV_API JpgStatus jpgWritePutMarkerCode(ComplibBitstream *bs, int32_t code);
KIV_API JpgStatus jpgWritePut8BitDCHuffman(ComplibBitstream *bs, const JpgHuffmanCode *codes,
                                           uint32_t value);
KIV_API JpgStatus jpgWritePut8BitACHuffman(ComplibBitstream *bs, const JpgAcSymbol *table,
                                           uint32_t value, uint32_t run);

KIV_API JpgStatus jpgWriteWriteMarkerCode(JpgParam *param, int32_t code, uint32_t length);
KIV_API JpgStatus jpgWriteWriteMarkerData(JpgParam *param, const uint8_t *data, uint32_t count,
                                          uint32_t *written);
KIV_API JpgStatus jpgWriteWriteMarkerSegment(JpgParam *param, int32_t code, const uint8_t *data,
                                             int32_t length);
KIV_API JpgStatus jpgWriteWriteSOF(JpgParam *param, int32_t code, const uint8_t *body);
KIV_API JpgStatus jpgWriteWriteSOS(JpgParam *param, const uint8_t *body);
KIV_API JpgStatus jpgWriteWriteDRI(JpgParam *param);
KIV_API JpgStatus jpgWriteEpilogToMemory(JpgParam *param, uint8_t **buffer, uint32_t *size);
KIV_API JpgStatus jpgWriteEpilogToFile(JpgParam *param);
KIV_API JpgStatus jpgWriteGetPartialBitstream(JpgParam *param, uint8_t **buffer,
                                              uint32_t *size);
KIV_API JpgStatus jpgWriteFreeBitstream(uint8_t *buffer);

KIV_API JpgStatus jpgWriteFromRect(JpgParam *param, const ComplibRect *rect, uint32_t rows);
KIV_API JpgStatus jpgWriteSpatialFromRect(JpgParam *param, const ComplibRect *rect,
                                          int32_t rows);

#ifdef __cplusplus
}
#endif

#endif /* KIVJPEG_H */
