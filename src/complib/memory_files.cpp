// Memory, file, byte-order and string services of the support layer: the
// one place where the library calls the C library for these. The services
// hold no state; file results are the raw results of the system calls.
#include <fcntl.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kivjpeg.h"

extern "C" {

void *complibMemAlloc(uint32_t size) {
    return memalign(16, size);
}

JpgStatus complibMemFree(void *ptr) {
    free(ptr);
    return JPG_STATUS_OK;
}

// Grows a block. The old block's usable size is carried over, but never
// more than the new block can hold, so a caller that shrinks by mistake
// does not overrun the new block.
void *complibMemReAlloc(void *ptr, uint32_t size) {
    void *fresh = memalign(16, size);
    if (ptr == nullptr || fresh == nullptr)
        return fresh;
    size_t oldSize = malloc_usable_size(ptr);
    size_t newSize = malloc_usable_size(fresh);
    memcpy(fresh, ptr, oldSize < newSize ? oldSize : newSize);
    free(ptr);
    return fresh;
}

int32_t complibCreateFile(const char *path) {
    return creat(path, 0644);
}

int32_t complibOpenFile(const char *path, int32_t mode) {
    static constexpr int kFlags[3] = {O_RDONLY, O_WRONLY, O_RDWR};
    if (mode < 0 || mode > 2)
        return -1;
    return open(path, kFlags[mode]);
}

int32_t complibReadFile(int32_t fd, void *buffer, uint32_t length) {
    return static_cast<int32_t>(read(fd, buffer, length));
}

int32_t complibWriteFile(int32_t fd, const void *buffer, uint32_t length) {
    return static_cast<int32_t>(write(fd, buffer, length));
}

int32_t complibSeekFile(int32_t fd, int32_t offset, int32_t whence) {
    return static_cast<int32_t>(lseek(fd, offset, whence));
}

JpgStatus complibCloseFile(int32_t fd) {
    return close(fd) == 0 ? JPG_STATUS_OK : JPG_STATUS_FAILED;
}

JpgStatus complibDeleteFile(const char *path) {
    return unlink(path) == 0 ? JPG_STATUS_OK : JPG_STATUS_FAILED;
}

// The destination comes first, the reverse of rename's own order.
JpgStatus complibRenameFile(const char *newPath, const char *oldPath) {
    return rename(oldPath, newPath) == 0 ? JPG_STATUS_OK : JPG_STATUS_FAILED;
}

uint32_t complibGetFileSize(const char *path) {
    struct stat info;
    if (stat(path, &info) != 0)
        return 0xFFFFFFFFu;
    return static_cast<uint32_t>(info.st_size);
}

// The template carries five 'X': a C library whose mkstemp insists on six
// makes this service fail, and callers must expect that. The descriptor
// mkstemp opens is closed again: only the name is handed out.
JpgStatus complibCreateTmpFileName(char *name, const char *directory) {
    static constexpr char kTemplate[] = "/tmp/ComplXXXXX";
    char generated[sizeof kTemplate];
    char *target = directory == nullptr ? name : generated;
    complibLibCstrcpy(target, kTemplate);
    int fd = mkstemp(target);
    if (fd == -1)
        return JPG_STATUS_FAILED;
    close(fd);
    if (directory == nullptr)
        return JPG_STATUS_OK;

    uint32_t length = complibLibCstrlen(directory);
    memset(name, 0, length);
    int32_t slash = static_cast<int32_t>(length) - 1;
    while (slash >= 0 && directory[slash] != '/')
        slash--;
    if (slash <= 0) {
        complibLibCstrcpy(name, "./");
    } else {
        memcpy(name, directory, static_cast<size_t>(slash) + 1);
        name[slash + 1] = '\0';
    }
    const char *base = generated;
    for (const char *p = generated; *p; p++)
        if (*p == '/')
            base = p + 1;
    complibLibCstrcat(name, base);
    return JPG_STATUS_OK;
}

int32_t complibSwapInt16(int32_t value) {
    return ((value & 0xFF) << 8) | ((value >> 8) & 0xFF);
}

uint32_t complibSwapInt32(uint32_t value) {
    uint32_t low = static_cast<uint32_t>(complibSwapInt16(static_cast<int32_t>(value & 0xFFFF)));
    uint32_t high = static_cast<uint32_t>(complibSwapInt16(static_cast<int32_t>(value >> 16)));
    return (low << 16) | high;
}

uint32_t complibMemToVal(const uint8_t *bytes, int32_t count) {
    uint32_t value = 0;
    for (int32_t i = 0; i < count; i++)
        value = (value << 8) | bytes[i];
    return value;
}

void complibValToMem(uint8_t *bytes, uint32_t count, uint32_t value) {
    for (uint32_t i = count; i > 0; i--) {
        bytes[i - 1] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

char *complibLibCstrcpy(char *dst, const char *src) {
    char *out = dst;
    while ((*out++ = *src++) != '\0') {
    }
    return dst;
}

char *complibLibCstrncpy(char *dst, const char *src, int32_t n) {
    int32_t i = 0;
    for (; i < n && src[i] != '\0'; i++)
        dst[i] = src[i];
    for (; i < n; i++)
        dst[i] = '\0';
    return dst;
}

char *complibLibCstrcat(char *dst, const char *src) {
    complibLibCstrcpy(dst + complibLibCstrlen(dst), src);
    return dst;
}

uint32_t complibLibCstrlen(const char *s) {
    uint32_t n = 0;
    while (s[n] != '\0')
        n++;
    return n;
}

int32_t complibLibCstrcmp(const char *a, const char *b) {
    const auto *x = reinterpret_cast<const unsigned char *>(a);
    const auto *y = reinterpret_cast<const unsigned char *>(b);
    while (*x == *y && *x != '\0') {
        x++;
        y++;
    }
    return static_cast<int32_t>(*x) - static_cast<int32_t>(*y);
}

}  // extern "C"
