/* A C99 client: includes the public header, links the shared library and
 * uses the handle and support-layer entry points through C linkage. */
#include <stdio.h>
#include <string.h>

#include "kivjpeg.h"

static int failures = 0;

static void expect(int condition, const char *what) {
    if (!condition) {
        printf("FAIL: %s\n", what);
        failures++;
    }
}

int main(void) {
    JpgParam *param = jpgProlog(NULL);
    uint32_t flag = 1;
    ComplibRect rect;

    expect(param != NULL, "jpgProlog returns a handle");
    expect(jpgCheckParam(param) == param, "a fresh handle passes jpgCheckParam");
    expect(jpgSetProcessorArchitectureFlag(param, 0xFFFFFFFFu) == JPG_STATUS_WRONG_MODE,
           "a handle in neither mode is refused");
    expect(jpgGetProcessorArchitectureFlag(param, &flag) == JPG_STATUS_OK && flag == 0,
           "the processor flag starts at 0");
    expect(jpgEpilog(param) == JPG_STATUS_OK, "jpgEpilog succeeds");
    expect(jpgCheckParam(NULL) == NULL, "jpgCheckParam refuses null");

    memset(&rect, 0, sizeof rect);
    rect.width = 100;
    rect.height = 10;
    rect.pixelBits = 24;
    rect.channels = 3;
    rect.sampleBits = 8;
    expect(complibRectAlloc(&rect) == &rect && rect.allocSize == 3004, "rectangle allocation");
    expect(complibRectFree(&rect) == JPG_STATUS_OK, "rectangle release");
    expect(PixClipTable[0] == 128 && PixClipTable[512] == 0, "PixClipTable is visible");
    expect(tableTestShift[3][0] == 4 && tableTestShift[3][1] == -7, "tableTestShift is visible");
    expect(complibSwapInt32(0x11223344u) == 0x44332211u, "byte order services");

    printf("%d passed, %d failed\n", failures == 0 ? 1 : 0, failures);
    return failures == 0 ? 0 : 1;
}
