/* Stand-in for the /dev/hconf driver, for tests and development hosts only.
 *
 * The hardware-configuration store is a kernel driver on the device. A development kernel has
 * no such driver, and a character device cannot be served from user space here, so this
 * library is loaded with LD_PRELOAD and intercepts open/open64/openat/openat64 (and their
 * fortified forms) of "/dev/hconf", ioctl on the descriptors it handed out, and close. Every
 * other call goes to the C library unchanged.
 *
 * The store it serves has the layout the client relies on: a 12-byte header (magic
 * 0x68636F6E, num, len) followed by up to 64 packed entries (id, type, len, data) within a
 * 65536-byte image; the header's len is the number of image bytes in use.
 *
 * Requests (the device's MIPS numbers 0x200076nn, whatever the host):
 *   1 read all      copies the whole 65536-byte image to the argument
 *   3 read header   copies the 12-byte header to the argument
 *   4 write header  replaces the header with the argument's; fails (EINVAL) unless its magic
 *                   is right, num <= 64 and len <= 65536. It is kept as written.
 *   5 read entry    the argument's id names the entry and its len is the room for the data:
 *                   the entry (8 + len bytes) is copied there; ENOENT when there is no such
 *                   id, ENOSPC when its data needs more room than the caller's len
 *   6 write entry   adds the entry, or replaces the one with the same id in place (order is
 *                   kept); any type is taken; ENOSPC past 64 entries or 65536 bytes
 *   7 sync          commits the working store to the backing file
 *   8 clear         empties the working store (magic, num 0, len 12)
 *   9 delete        the argument is the entry id; ENOENT when there is none
 * Any other request fails with ENOTTY.
 *
 * State. The real driver keeps the store in the kernel, so a write is seen by every process
 * at once and only a sync makes it survive a reboot. The stand-in mirrors that with files:
 *   $HCONF_STANDIN_IMAGE        the committed (synced) image; default
 *                               /var/run/hconf-standin.img
 *   $HCONF_STANDIN_IMAGE.work   the working image that every request reads and writes; while
 *                               it is missing the committed image (or an empty store) is used
 *   $HCONF_STANDIN_IMAGE.lock   taken (flock) around every request
 * So unsynced writes are visible to other processes at once, as with the driver, and removing
 * the .work file emulates a reboot of the device. Files are replaced by rename, so a reader
 * never sees half an image.
 *
 * Failure injection: HCONF_STANDIN_FAIL holds comma-separated tokens, read at every call;
 * "open" makes the open fail with ENODEV, a request number (e.g. "8") makes that request fail
 * with -1 (EIO).
 */
#define _GNU_SOURCE
#undef _FILE_OFFSET_BITS

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#define DEVICE_PATH "/dev/hconf"
#define DEFAULT_IMAGE "/var/run/hconf-standin.img"
#define IMAGE_SIZE 65536u
#define HEADER_SIZE 12u
#define ENTRY_HEAD 8u
#define MAX_ENTRIES 64u
#define MAGIC 0x68636F6Eu
#define REQUEST_BASE 0x20007600ul
#define MAX_TRACKED 4096

#define EXPORT __attribute__((visibility("default")))

typedef int (*open_fn)(const char *, int, ...);
typedef int (*openat_fn)(int, const char *, int, ...);
typedef int (*ioctl_fn)(int, unsigned long, ...);
typedef int (*close_fn)(int);

static open_fn real_open_p;
static openat_fn real_openat_p;
static openat_fn real_openat64_p;
static ioctl_fn real_ioctl_p;
static close_fn real_close_p;

static void *next_symbol(const char *name) {
    void *p = dlsym(RTLD_NEXT, name);
    if (p == NULL) {
        fprintf(stderr, "hconf_standin: no %s in the C library\n", name);
        abort();
    }
    return p;
}

static void resolve(void) {
    if (real_close_p != NULL)
        return;
    real_open_p = (open_fn)next_symbol("open");
    real_openat_p = (openat_fn)next_symbol("openat");
    real_openat64_p = (openat_fn)next_symbol("openat64");
    real_ioctl_p = (ioctl_fn)next_symbol("ioctl");
    __atomic_store_n(&real_close_p, (close_fn)next_symbol("close"), __ATOMIC_RELEASE);
}

/* ---- descriptors handed out for /dev/hconf ------------------------------------------- */

static unsigned char tracked[MAX_TRACKED];

static int is_tracked(int fd) {
    return fd >= 0 && fd < MAX_TRACKED && __atomic_load_n(&tracked[fd], __ATOMIC_ACQUIRE);
}

static void set_tracked(int fd, unsigned char on) {
    if (fd >= 0 && fd < MAX_TRACKED)
        __atomic_store_n(&tracked[fd], on, __ATOMIC_RELEASE);
}

/* A descriptor that some other open returned is not ours, whatever it was before. */
static int forget(int fd) {
    set_tracked(fd, 0);
    return fd;
}

/* ---- failure injection ---------------------------------------------------------------- */

static int injected(const char *what) {
    const char *list = getenv("HCONF_STANDIN_FAIL");
    size_t n = strlen(what);
    while (list != NULL && *list != '\0') {
        const char *end = strchr(list, ',');
        size_t len = end ? (size_t)(end - list) : strlen(list);
        if (len == n && strncmp(list, what, n) == 0)
            return 1;
        list = end ? end + 1 : NULL;
    }
    return 0;
}

static int is_device(const char *path) {
    return path != NULL && strcmp(path, DEVICE_PATH) == 0;
}

static int standin_open(int flags) {
    resolve();
    if (injected("open")) {
        errno = ENODEV;
        return -1;
    }
    int fd = memfd_create("hconf-standin", (flags & O_CLOEXEC) ? MFD_CLOEXEC : 0);
    if (fd < 0)
        fd = real_open_p("/dev/null", O_RDWR | (flags & O_CLOEXEC));
    if (fd < 0)
        return -1;
    if (fd >= MAX_TRACKED) {
        real_close_p(fd);
        errno = EMFILE;
        return -1;
    }
    set_tracked(fd, 1);
    return fd;
}

/* ---- image files ---------------------------------------------------------------------- */

struct paths {
    char image[512];
    char work[520];
    char lock[520];
    char tmp[540];
};

static int make_paths(struct paths *p) {
    const char *base = getenv("HCONF_STANDIN_IMAGE");
    if (base == NULL || *base == '\0')
        base = DEFAULT_IMAGE;
    if (strlen(base) >= sizeof p->image)
        return -1;
    snprintf(p->image, sizeof p->image, "%s", base);
    snprintf(p->work, sizeof p->work, "%s.work", base);
    snprintf(p->lock, sizeof p->lock, "%s.lock", base);
    snprintf(p->tmp, sizeof p->tmp, "%s.tmp.%ld", base, (long)getpid());
    return 0;
}

static void put32(uint8_t *p, uint32_t v) {
    memcpy(p, &v, 4);
}
static uint32_t get32(const uint8_t *p) {
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}
static uint16_t get16(const uint8_t *p) {
    uint16_t v;
    memcpy(&v, p, 2);
    return v;
}

static void empty_image(uint8_t *img) {
    memset(img, 0, IMAGE_SIZE);
    put32(img, MAGIC);
    put32(img + 4, 0);
    put32(img + 8, HEADER_SIZE);
}

/* Reads path into img (zero-filled past its end). 1 when read, 0 when missing, -1 on error. */
static int read_file(const char *path, uint8_t *img) {
    int fd = real_open_p(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT ? 0 : -1;
    memset(img, 0, IMAGE_SIZE);
    size_t got = 0;
    while (got < IMAGE_SIZE) {
        ssize_t n = read(fd, img + got, IMAGE_SIZE - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += (size_t)n;
    }
    real_close_p(fd);
    if (got < HEADER_SIZE || get32(img) != MAGIC)
        empty_image(img);
    return 1;
}

/* Makes a rename in path's directory durable: the flash holds the new image once the sync has
 * returned, also when the power goes right after. */
static int sync_directory(const char *path) {
    char dir[540];
    snprintf(dir, sizeof dir, "%s", path);
    char *slash = strrchr(dir, '/');
    if (slash == NULL)
        snprintf(dir, sizeof dir, ".");
    else
        slash[slash == dir] = '\0';
    int fd = real_open_p(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    int r = fsync(fd);
    real_close_p(fd);
    return r;
}

/* Replaces path with the image, through a temporary file and rename. */
static int write_file(const struct paths *p, const char *path, const uint8_t *img, int durable) {
    int fd = real_open_p(p->tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return -1;
    size_t done = 0;
    while (done < IMAGE_SIZE) {
        ssize_t n = write(fd, img + done, IMAGE_SIZE - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += (size_t)n;
    }
    int ok = done == IMAGE_SIZE && (!durable || fsync(fd) == 0);
    if (real_close_p(fd) != 0)
        ok = 0;
    if (!ok || rename(p->tmp, path) != 0) {
        unlink(p->tmp);
        return -1;
    }
    return durable ? sync_directory(path) : 0;
}

/* The working store: the .work file, else the committed image, else an empty store. */
static int load_working(const struct paths *p, uint8_t *img) {
    int r = read_file(p->work, img);
    if (r == 0)
        r = read_file(p->image, img);
    if (r == 0)
        empty_image(img);
    return r < 0 ? -1 : 0;
}

/* ---- entries of an image ------------------------------------------------------------- */

/* Walks the header's entries while they stay inside the image. Returns the offset after the
 * last one; *count receives how many were walked; *found the offset of id (or 0). */
static size_t walk(const uint8_t *img, uint32_t id, uint32_t *count, size_t *found) {
    uint32_t num = get32(img + 4);
    if (num > MAX_ENTRIES)
        num = MAX_ENTRIES;
    size_t off = HEADER_SIZE;
    uint32_t i = 0;
    if (found)
        *found = 0;
    for (; i < num; ++i) {
        if (off + ENTRY_HEAD > IMAGE_SIZE)
            break;
        size_t size = ENTRY_HEAD + get16(img + off + 6);
        if (off + size > IMAGE_SIZE)
            break;
        if (found && *found == 0 && get32(img + off) == id)
            *found = off;
        off += size;
    }
    if (count)
        *count = i;
    return off;
}

static void set_header(uint8_t *img, uint32_t num, size_t used) {
    put32(img, MAGIC);
    put32(img + 4, num);
    put32(img + 8, (uint32_t)used);
}

static int op_write_entry(uint8_t *img, const uint8_t *entry) {
    uint32_t id = get32(entry);
    size_t size = ENTRY_HEAD + get16(entry + 6);
    uint32_t count;
    size_t at;
    size_t used = walk(img, id, &count, &at);
    if (at != 0) {
        size_t old = ENTRY_HEAD + get16(img + at + 6);
        if (used - old + size > IMAGE_SIZE)
            return ENOSPC;
        memmove(img + at + size, img + at + old, used - at - old);
        memcpy(img + at, entry, size);
        used = used - old + size;
        if (old > size)
            memset(img + used, 0, old - size);
    } else {
        if (count >= MAX_ENTRIES || used + size > IMAGE_SIZE)
            return ENOSPC;
        memcpy(img + used, entry, size);
        used += size;
        ++count;
    }
    set_header(img, count, used);
    return 0;
}

static int op_delete(uint8_t *img, uint32_t id) {
    uint32_t count;
    size_t at;
    size_t used = walk(img, id, &count, &at);
    if (at == 0)
        return ENOENT;
    size_t size = ENTRY_HEAD + get16(img + at + 6);
    memmove(img + at, img + at + size, used - at - size);
    memset(img + used - size, 0, size);
    set_header(img, count - 1, used - size);
    return 0;
}

static int op_read_entry(const uint8_t *img, uint8_t *entry) {
    size_t at;
    walk(img, get32(entry), NULL, &at);
    if (at == 0)
        return ENOENT;
    uint16_t len = get16(img + at + 6);
    if (len > get16(entry + 6))
        return ENOSPC;
    memcpy(entry, img + at, ENTRY_HEAD + len);
    return 0;
}

static int op_write_header(uint8_t *img, const uint8_t *header) {
    if (get32(header) != MAGIC || get32(header + 4) > MAX_ENTRIES || get32(header + 8) > IMAGE_SIZE)
        return EINVAL;
    memcpy(img, header, HEADER_SIZE);
    return 0;
}

/* Serves one request under the lock; returns 0 or an errno value. */
static int serve(unsigned nr, unsigned long arg) {
    struct paths p;
    if (make_paths(&p) != 0)
        return ENAMETOOLONG;
    int lock = real_open_p(p.lock, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lock < 0)
        return EIO;
    while (flock(lock, LOCK_EX) != 0) {
        if (errno != EINTR) {
            real_close_p(lock);
            return EIO;
        }
    }
    uint8_t *img = malloc(IMAGE_SIZE);
    int err = 0;
    int dirty = 0;
    void *ptr = (void *)arg;
    if (img == NULL) {
        err = ENOMEM;
    } else if (load_working(&p, img) != 0) {
        err = EIO;
    } else {
        switch (nr) {
        case 1:
            memcpy(ptr, img, IMAGE_SIZE);
            break;
        case 3:
            memcpy(ptr, img, HEADER_SIZE);
            break;
        case 4:
            err = op_write_header(img, ptr);
            dirty = err == 0;
            break;
        case 5:
            err = op_read_entry(img, ptr);
            break;
        case 6:
            err = op_write_entry(img, ptr);
            dirty = err == 0;
            break;
        case 7:
            if (write_file(&p, p.image, img, 1) != 0 || write_file(&p, p.work, img, 0) != 0)
                err = EIO;
            break;
        case 8:
            empty_image(img);
            dirty = 1;
            break;
        case 9:
            err = op_delete(img, (uint32_t)arg);
            dirty = err == 0;
            break;
        default:
            err = ENOTTY;
            break;
        }
    }
    if (dirty && write_file(&p, p.work, img, 0) != 0)
        err = EIO;
    free(img);
    flock(lock, LOCK_UN);
    real_close_p(lock);
    return err;
}

static int standin_ioctl(unsigned long request, unsigned long arg) {
    unsigned nr = (unsigned)(request & 0xFFu);
    if ((request & ~0xFFul) != REQUEST_BASE || nr == 0 || nr == 2 || nr > 9) {
        errno = ENOTTY;
        return -1;
    }
    char token[8];
    snprintf(token, sizeof token, "%u", nr);
    if (injected(token)) {
        errno = EIO;
        return -1;
    }
    int err = serve(nr, arg);
    if (err != 0) {
        errno = err;
        return -1;
    }
    return 0;
}

/* ---- the intercepted calls ------------------------------------------------------------ */

static mode_t mode_arg(int flags, va_list ap) {
    if (flags & (O_CREAT | O_TMPFILE))
        return (mode_t)va_arg(ap, int);
    return 0;
}

/* Opens path for the caller: the device is served here, anything else by the C library (an
 * open() is the openat() of the current directory). */
static int route_open(int dirfd, const char *path, int flags, mode_t mode, int large) {
    if (is_device(path))
        return standin_open(flags);
    resolve();
    return forget((large ? real_openat64_p : real_openat_p)(dirfd, path, flags, mode));
}

EXPORT int open(const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return route_open(AT_FDCWD, path, flags, mode, 0);
}

EXPORT int open64(const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return route_open(AT_FDCWD, path, flags, mode, 1);
}

EXPORT int openat(int dirfd, const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return route_open(dirfd, path, flags, mode, 0);
}

EXPORT int openat64(int dirfd, const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return route_open(dirfd, path, flags, mode, 1);
}

/* Fortified builds call these; no mode is passed (O_CREAT would use the plain call). */
EXPORT int __open_2(const char *path, int flags) {
    return open(path, flags);
}
EXPORT int __open64_2(const char *path, int flags) {
    return open64(path, flags);
}
EXPORT int __openat_2(int dirfd, const char *path, int flags) {
    return openat(dirfd, path, flags);
}
EXPORT int __openat64_2(int dirfd, const char *path, int flags) {
    return openat64(dirfd, path, flags);
}

EXPORT int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    unsigned long arg = va_arg(ap, unsigned long);
    va_end(ap);
    if (is_tracked(fd))
        return standin_ioctl(request, arg);
    resolve();
    return real_ioctl_p(fd, request, arg);
}

EXPORT int close(int fd) {
    resolve();
    set_tracked(fd, 0);
    return real_close_p(fd);
}
