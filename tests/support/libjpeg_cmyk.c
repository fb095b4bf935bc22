/* Test oracle for four-component streams, linked with the system's libjpeg:
 * writes CMYK input as a YCCK (Adobe transform 2) or plain CMYK (transform 0)
 * JPEG, and decodes a four-component JPEG to CMYK with libjpeg's own
 * conversion, or to its coded samples (raw: Y, Cb, Cr, K for YCCK). Samples
 * are passed through as libjpeg takes them: CMYK inverted, as Adobe stores it.
 *
 *   libjpeg_cmyk encode ycck|cmyk WIDTH HEIGHT QUALITY 444|420 IN.cmyk OUT.jpg
 *   libjpeg_cmyk decode cmyk|raw IN.jpg OUT      (prints "WIDTH HEIGHT")
 *
 * 420 keeps libjpeg's default sampling for YCCK (Y and K 2x2, Cb and Cr 1x1).
 * Decoding uses the accurate integer DCT and replicating upsampling. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <jpeglib.h>

static int encode(char **argv) {
    int ycck = strcmp(argv[0], "ycck") == 0;
    int width = atoi(argv[1]), height = atoi(argv[2]), quality = atoi(argv[3]);
    int full = strcmp(argv[4], "444") == 0;
    size_t row = (size_t)width * 4, size = row * (size_t)height;
    unsigned char *pixels = malloc(size);
    FILE *in = fopen(argv[5], "rb"), *out = fopen(argv[6], "wb");
    if (width <= 0 || height <= 0 || pixels == NULL || in == NULL || out == NULL ||
        fread(pixels, 1, size, in) != size) {
        fprintf(stderr, "libjpeg_cmyk: cannot read %s or write %s\n", argv[5], argv[6]);
        return 1;
    }
    struct jpeg_compress_struct c;
    struct jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    jpeg_stdio_dest(&c, out);
    c.image_width = (JDIMENSION)width;
    c.image_height = (JDIMENSION)height;
    c.input_components = 4;
    c.in_color_space = JCS_CMYK;
    jpeg_set_defaults(&c);
    jpeg_set_colorspace(&c, ycck ? JCS_YCCK : JCS_CMYK);
    jpeg_set_quality(&c, quality, TRUE);
    c.dct_method = JDCT_ISLOW;
    for (int i = 0; full && i < 4; i++)
        c.comp_info[i].h_samp_factor = c.comp_info[i].v_samp_factor = 1;
    jpeg_start_compress(&c, TRUE);
    while (c.next_scanline < c.image_height) {
        JSAMPROW line = pixels + row * c.next_scanline;
        jpeg_write_scanlines(&c, &line, 1);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    fclose(in);
    free(pixels);
    return fclose(out) != 0;
}

static int decode(char **argv) {
    int raw = strcmp(argv[0], "raw") == 0;
    FILE *in = fopen(argv[1], "rb"), *out = fopen(argv[2], "wb");
    if (in == NULL || out == NULL) {
        fprintf(stderr, "libjpeg_cmyk: cannot read %s or write %s\n", argv[1], argv[2]);
        return 1;
    }
    struct jpeg_decompress_struct d;
    struct jpeg_error_mgr err;
    d.err = jpeg_std_error(&err);
    jpeg_create_decompress(&d);
    jpeg_stdio_src(&d, in);
    jpeg_read_header(&d, TRUE);
    if (d.num_components != 4) {
        fprintf(stderr, "libjpeg_cmyk: %s has %d components\n", argv[1], d.num_components);
        return 1;
    }
    d.out_color_space = raw ? d.jpeg_color_space : JCS_CMYK;
    d.dct_method = JDCT_ISLOW;
    d.do_fancy_upsampling = FALSE;
    jpeg_start_decompress(&d);
    size_t row = (size_t)d.output_width * 4;
    unsigned char *line = malloc(row);
    while (line != NULL && d.output_scanline < d.output_height) {
        jpeg_read_scanlines(&d, &line, 1);
        fwrite(line, 1, row, out);
    }
    printf("%u %u\n", d.output_width, d.output_height);
    jpeg_finish_decompress(&d);
    jpeg_destroy_decompress(&d);
    free(line);
    fclose(in);
    return line == NULL || fclose(out) != 0;
}

int main(int argc, char **argv) {
    if (argc == 9 && strcmp(argv[1], "encode") == 0)
        return encode(argv + 2);
    if (argc == 5 && strcmp(argv[1], "decode") == 0)
        return decode(argv + 2);
    fprintf(stderr, "usage: libjpeg_cmyk encode ycck|cmyk W H QUALITY 444|420 IN.cmyk OUT.jpg\n"
                    "       libjpeg_cmyk decode cmyk|raw IN.jpg OUT\n");
    return 2;
}
