/*
 * Host environment of the data-block map code: the kernel names that the
 * shared sources under driver/fsmap use, mapped onto the C library.  A
 * block device is an opened image file; trak_log() records each line for
 * the tests (captured_log.h).
 */
#ifndef TRAK_HOST_COMPAT_TRAK_ENV_H
#define TRAK_HOST_COMPAT_TRAK_ENV_H

/*
 * C shared with the kernel sources: C headers, C casts, malloc and plain
 * typedefs are what those sources expect, so the C++ checks do not apply.
 */
// NOLINTBEGIN
#include <endian.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef unsigned long long u64;
typedef int32_t s32;
typedef long long s64;

#define S32_MAX INT32_MAX
#define U32_MAX UINT32_MAX
#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))
#define DIV_ROUND_UP(n, d) (((n) + (d)-1) / (d))
#define min_t(type, a, b) ((type)(a) < (type)(b) ? (type)(a) : (type)(b))
#define max_t(type, a, b) ((type)(a) > (type)(b) ? (type)(a) : (type)(b))

#ifndef O_LARGEFILE
#define O_LARGEFILE 0
#endif

/* Allocation: the GFP flags mean nothing here. */
typedef unsigned int gfp_t;
#define GFP_KERNEL 0
#define GFP_NOIO 0
static inline void* kmalloc(size_t size, int gfp) { return (void)gfp, malloc(size); }
static inline void* kzalloc(size_t size, int gfp) { return (void)gfp, calloc(1, size); }
static inline void* kmalloc_array(size_t n, size_t size, int gfp) {
    return (void)gfp, malloc(n * size);
}
static inline void* kcalloc(size_t n, size_t size, int gfp) { return (void)gfp, calloc(n, size); }
static inline void kfree(const void* p) { free((void*)p); }
static inline void* vmalloc(size_t size) { return malloc(size); }
static inline void* vzalloc(size_t size) { return calloc(1, size); }
static inline void vfree(const void* p) { free((void*)p); }

/* Shared memory: one thread at a time uses the code here. */
#define READ_ONCE(x) (x)
#define cmpxchg(ptr, old, new) __sync_val_compare_and_swap(ptr, old, new)

/* Bit arrays of unsigned longs, as the kernel's. */
#define BITS_PER_LONG (8 * sizeof(unsigned long))
static inline bool test_bit(unsigned long nr, const unsigned long* addr) {
    return (addr[nr / BITS_PER_LONG] >> (nr % BITS_PER_LONG)) & 1;
}
static inline void set_bit(unsigned long nr, unsigned long* addr) {
    addr[nr / BITS_PER_LONG] |= 1UL << (nr % BITS_PER_LONG);
}
/* The first byte of @start that is not @c, or NULL. */
static inline void* memchr_inv(const void* start, int c, size_t bytes) {
    const unsigned char* p = (const unsigned char*)start;
    for (size_t i = 0; i < bytes; i++) {
        if (p[i] != (unsigned char)c) {
            return (void*)(p + i);
        }
    }
    return NULL;
}

/* Bits and logarithms of 32-bit and 64-bit values. */
static inline bool is_power_of_2(u64 n) { return n != 0 && (n & (n - 1)) == 0; }
static inline int ilog2(u64 n) { return 63 - __builtin_clzll(n); }
static inline u64 roundup_pow_of_two(u64 n) { return n <= 1 ? 1 : 2ULL << ilog2(n - 1); }
static inline unsigned int hweight8(unsigned int v) { return __builtin_popcount(v & 0xFF); }

/* Bitmaps of unsigned longs, as <linux/bitmap.h> has them. */
static inline void bitmap_set(unsigned long* map, unsigned int start, unsigned int nbits) {
    const unsigned int word_bits = 8 * sizeof(*map);
    for (unsigned int b = start; b < start + nbits; b++) {
        map[b / word_bits] |= 1UL << (b % word_bits);
    }
}

/* The kernel's snprintf that returns what it wrote, not what it wanted. */
__attribute__((format(printf, 3, 4))) static inline int scnprintf(char* buf, size_t size,
                                                                  const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (n < 0 || size == 0) {
        return 0;
    }
    return (size_t)n < size ? n : (int)size - 1;
}

/* On-disk numbers. */
static inline u16 get_unaligned_le16(const void* p) {
    u16 v;
    memcpy(&v, p, sizeof(v));
    return le16toh(v);
}
static inline u32 get_unaligned_le32(const void* p) {
    u32 v;
    memcpy(&v, p, sizeof(v));
    return le32toh(v);
}
static inline u16 get_unaligned_be16(const void* p) {
    u16 v;
    memcpy(&v, p, sizeof(v));
    return be16toh(v);
}
static inline u32 get_unaligned_be32(const void* p) {
    u32 v;
    memcpy(&v, p, sizeof(v));
    return be32toh(v);
}
static inline u64 get_unaligned_be64(const void* p) {
    uint64_t v;
    memcpy(&v, p, sizeof(v));
    return be64toh(v);
}
static inline void put_unaligned_le32(u32 v, void* p) {
    const u32 le = htole32(v);
    memcpy(p, &le, sizeof(le));
}
#define get_unaligned(p) (*(p))

/*
 * Checksums as the kernel's libcrc32c and crc16 compute them: CRC-32C and
 * the CRC-16 of polynomial 0x8005, both bit-reflected, from the given seed
 * and without a final inversion.
 */
u32 crc32c(u32 crc, const void* address, unsigned int length);
u16 crc16(u16 crc, const u8* buffer, size_t len);

/* Device numbers are split 12:20, as in the kernel. */
#define MINORBITS 20
#define MAJOR(dev) ((unsigned int)((dev) >> MINORBITS))
#define MINOR(dev) ((unsigned int)((dev) & ((1U << MINORBITS) - 1)))
#define MKDEV(ma, mi) (((ma) << MINORBITS) | (mi))

/* A partition: an image file opened for reading. */
struct block_device {
    int fd;
    u32 bd_dev;
    loff_t nr_bytes;
};
static inline loff_t bdev_nr_bytes(struct block_device* bdev) { return bdev->nr_bytes; }

/* Set by the tests; the self-test picks its start chunks from it. */
extern unsigned long jiffies;

#define TRAK_LOG_ERR 255
__attribute__((format(printf, 2, 3))) int trak_log(int level, const char* fmt, ...);

int trak_bread(struct block_device* bdev, void* buf, u32 size, u64 blk, int count);

struct trak_file;
struct trak_file* trak_fopen(const char* path, int flags, int mode);
int trak_fread(struct trak_file* file, loff_t off, void* buf, int count);
int trak_fwrite(struct trak_file* file, loff_t off, const void* buf, int count);
int trak_fclose(struct trak_file* file);
int trak_fdatasync(struct trak_file* file);
loff_t trak_fsize(struct trak_file* file);
int trak_ftruncate(struct trak_file* file);

// NOLINTEND

#ifdef __cplusplus
}
#endif

#endif
