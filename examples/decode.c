/* decode_example: decodes a baseline or extended JPEG file with the C
 * interface and writes it as a binary PPM (colour) or PGM (gray).
 *   decode_example IN.jpg OUT.ppm
 * The library delivers colour pixels as B, G, R; PPM wants R, G, B. */
#include <stdio.h>
#include <stdlib.h>

#include <kivjpeg.h>

int main(int argc, char **argv) {
    JpgParam *param = NULL;
    ComplibRect rect = {0};
    uint32_t width = 0, height = 0, channels = 0, x, y;
    JpgStatus status;
    FILE *out;

    if (argc != 3) {
        fprintf(stderr, "usage: %s IN.jpg OUT.ppm\n", argv[0]);
        return 2;
    }
    status = jpgReadPrologFromFile(argv[1], 0, 0, 0, &param);
    if (status != JPG_STATUS_OK) {
        fprintf(stderr, "%s: cannot open (status 0x%08X)\n", argv[1], (unsigned)status);
        return 1;
    }
    jpgReadGetImageSize(param, &width, &height);
    jpgReadGetNumberOfChannels(param, &channels);
    if (channels != 1 && channels != 3) {
        fprintf(stderr, "%s: %u components; this example writes gray or colour only\n", argv[1],
                (unsigned)channels);
        jpgReadEpilog(param);
        return 1;
    }
    rect.width = (int32_t)width;
    rect.height = (int32_t)height;
    rect.channels = (int32_t)channels;
    rect.sampleBits = 8;
    rect.pixelBits = 8 * (int32_t)channels;
    if (complibRectAlloc(&rect) == NULL) {
        jpgReadEpilog(param);
        return 1;
    }
    status = jpgReadToRect(param, &rect, height);
    jpgReadEpilog(param);
    if (status != JPG_STATUS_OK && (status & 0xF0000000u) != 0x80000000u) {
        fprintf(stderr, "%s: decoding failed (status 0x%08X)\n", argv[1], (unsigned)status);
        complibRectFree(&rect);
        return 1;
    }
    out = fopen(argv[2], "wb");
    if (out == NULL) {
        complibRectFree(&rect);
        return 1;
    }
    fprintf(out, "P%c\n%u %u\n255\n", channels == 3 ? '6' : '5', (unsigned)width, (unsigned)height);
    for (y = 0; y < height; y++) {
        uint8_t *row = rect.pixels + (size_t)rect.stride * y;
        for (x = 0; channels == 3 && x < width; x++) {
            uint8_t blue = row[3 * x];
            row[3 * x] = row[3 * x + 2];
            row[3 * x + 2] = blue;
        }
        fwrite(row, 1, (size_t)width * channels, out);
    }
    fclose(out);
    complibRectFree(&rect);
    printf("%s: %ux%u, %u channel(s)\n", argv[2], (unsigned)width, (unsigned)height,
           (unsigned)channels);
    return status == JPG_STATUS_OK ? 0 : 3;
}
