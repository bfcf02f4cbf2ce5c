// qmt_hconf: the hardware-configuration store client. Records and their text form (parsers,
// dumps) and the device operations on /dev/hconf: one open-request-close per call, a save of
// the whole store to a text file and an update of the store from such a file.
//
// The exported calls report with printf to standard output, never to the system log, and
// return plain ints; the library's own use goes through the quiet forms (hconf_quiet.h), which
// print nothing. The parsers work on NUL-terminated text and stop at the terminator.
#include "hconf/hconf_quiet.h"

#include "common/raii.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// A report on standard output, or none in the quiet forms.
enum class out : bool { quiet, loud };
void say(out to, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void say(out to, const char *fmt, ...) {
    if (to == out::quiet)
        return;
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
}

// ---- numbers of the text forms ---------------------------------------------------------

// The device's C library has a 32-bit long, so its strtol/strtoul saturate at 32 bits. The
// numbers are scanned here with those conventions on every build host: leading blanks, an
// optional sign, base 0 ("0x" hex, leading "0" octal, else decimal).
struct scanned {
    const char *end; // first character after the number, or the text itself when none
    bool negative;
    uint64_t magnitude; // saturates somewhere above 32 bits
};

constexpr uint64_t kSaturated = uint64_t{1} << 40;

unsigned digit_value(char c) {
    if (c >= '0' && c <= '9')
        return static_cast<unsigned>(c - '0');
    if (c >= 'a' && c <= 'z')
        return static_cast<unsigned>(c - 'a') + 10;
    if (c >= 'A' && c <= 'Z')
        return static_cast<unsigned>(c - 'A') + 10;
    return 99;
}

bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

scanned scan_number(const char *text) {
    const char *p = text;
    while (is_blank(*p))
        ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') {
        negative = *p == '-';
        ++p;
    }
    unsigned base = 10;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && digit_value(p[2]) < 16) {
        base = 16;
        p += 2;
    } else if (p[0] == '0') {
        base = 8;
    }
    const char *digits = p;
    uint64_t magnitude = 0;
    for (unsigned d; (d = digit_value(*p)) < base; ++p) {
        magnitude = magnitude * base + d;
        if (magnitude > kSaturated)
            magnitude = kSaturated;
    }
    if (p == digits)
        return {text, false, 0};
    return {p, negative, magnitude};
}

// strtol(text, &end, 0) of a 32-bit long.
int32_t scan_signed(const char *text, const char **end) {
    scanned n = scan_number(text);
    *end = n.end;
    if (!n.negative)
        return n.magnitude > INT32_MAX ? INT32_MAX : static_cast<int32_t>(n.magnitude);
    if (n.magnitude >= uint64_t{1} << 31)
        return INT32_MIN;
    return -static_cast<int32_t>(n.magnitude);
}

// strtoul(text, &end, 0) of a 32-bit unsigned long: a negative number wraps around.
uint32_t scan_unsigned(const char *text, const char **end) {
    scanned n = scan_number(text);
    *end = n.end;
    if (n.magnitude > UINT32_MAX)
        return UINT32_MAX;
    uint32_t value = static_cast<uint32_t>(n.magnitude);
    return n.negative ? 0u - value : value;
}

// The separator after a number is any one character; the terminator is never skipped.
const char *skip_separator(const char *p) {
    return *p ? p + 1 : p;
}

// ---- records in an image: fields read byte by byte, as they may be unaligned ----------

uint32_t load32(const uint8_t *p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

uint16_t load16(const uint8_t *p) {
    uint16_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

constexpr size_t kHeaderSize = sizeof(qmt_hconf_header_rec);
constexpr size_t kEntryHead = sizeof(qmt_hconf_entry_rec);
constexpr size_t kEntryType = 4;
constexpr size_t kEntryLen = 6;

// ---- the device ------------------------------------------------------------------------

// The device, opened read-write for one request.
struct device_fd : nm::unique_fd {
    device_fd() : nm::unique_fd(open(QMT_HCONF_DEVICE, O_RDWR)) {}
};

int request(const device_fd &dev, unsigned long nr, void *arg) {
    return ioctl(dev.get(), nr, arg);
}
int request(const device_fd &dev, unsigned long nr, unsigned long arg) {
    return ioctl(dev.get(), nr, arg);
}

// One open-request-close: on a failed request fail_text is printed under func and the
// request's own result returned; on success the caller's on_success runs (read requests
// print what they received).
template <class Arg, class OnSuccess>
int single_request(const char *func, unsigned long nr, Arg arg, const char *fail_text,
                   OnSuccess on_success, out to = out::loud) {
    device_fd dev;
    if (!dev.ok()) {
        say(to, "%s: ERROR: open %s failed\n", func, QMT_HCONF_DEVICE);
        return dev.get();
    }
    int r = request(dev, nr, arg);
    if (r != 0) {
        say(to, "%s: ERROR: %s\n", func, fail_text);
        return r;
    }
    on_success();
    return 0;
}

void nothing() {}

// One entry of an image in its text form, as a line of out.
void save_entry(const char *func, FILE *out, const uint8_t *entry) {
    uint32_t id = load32(entry);
    unsigned type = load16(entry + kEntryType);
    unsigned len = load16(entry + kEntryLen);
    fprintf(out, "0x%x:%d:%d:", id, static_cast<int>(type), static_cast<int>(len));
    const uint8_t *data = entry + kEntryHead;
    if (type == QMT_HCONF_TYPE_BIN) {
        for (unsigned i = 0; i < len; ++i)
            fprintf(out, "%02x", data[i]);
    } else if (type == QMT_HCONF_TYPE_TEXT) {
        for (unsigned i = 0; i < len; ++i)
            fputc(data[i], out);
    } else {
        printf("%s: ERROR: invalid entry type: %d\n", func, static_cast<int>(type));
    }
    fputc('\n', out);
}

// ch_hex, reporting to.
int hex_value(char c, out to) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    say(to, "%s: ERROR: bad char: %c\n", "ch_hex", c);
    return 0;
}

// qmt_hconf_entry, reporting to: its failures, and the dump of the entry it returns.
qmt_hconf_entry_rec *parse_entry(const char *text, out to) {
    const char *func = "qmt_hconf_entry";
    const char *p = text;
    uint32_t id = scan_unsigned(p, &p);
    auto type = static_cast<uint16_t>(scan_unsigned(skip_separator(p), &p));
    auto len = static_cast<uint16_t>(scan_unsigned(skip_separator(p), &p));
    const char *data = skip_separator(p);

    nm::unique_heap<qmt_hconf_entry_rec> entry(
        static_cast<qmt_hconf_entry_rec *>(calloc(1, kEntryHead + len)));
    if (!entry) {
        say(to, "%s: ERROR: allocate memory failed\n", func);
        return nullptr;
    }
    entry->id = id;
    entry->type = type;
    entry->len = len;
    uint8_t *data_out = entry->data;
    if (type == QMT_HCONF_TYPE_TEXT) {
        // At most len characters, never past the terminator; the rest stays zero.
        for (size_t i = 0; i < len && data[i] != '\0'; ++i)
            data_out[i] = static_cast<uint8_t>(data[i]);
    } else if (type == QMT_HCONF_TYPE_BIN) {
        // Two digits a byte, high digit first. Digits missing after the terminator count as
        // zero; the terminator itself is never passed.
        for (size_t i = 0; i < len && *data != '\0'; ++i) {
            int high = hex_value(*data++, to);
            int low = *data != '\0' ? hex_value(*data++, to) : 0;
            data_out[i] = static_cast<uint8_t>((high << 4) + low);
        }
    } else {
        say(to, "%s: ERROR: bad entry type: %d\n", func, static_cast<int>(type));
        return nullptr;
    }
    if (to == out::loud)
        qmt_hconf_entry_dump(entry.get());
    return entry.release();
}

} // namespace

qmt_hconf_entry_rec *nm::hconf::entry_quiet(const char *text) {
    return parse_entry(text, out::quiet);
}

int nm::hconf::write_entry_quiet(const qmt_hconf_entry_rec *entry) {
    return single_request("qmt_hconf_write_entry", QMT_HCONF_IOC_WRITE_ENTRY,
                          const_cast<void *>(static_cast<const void *>(entry)),
                          "write entry failed", nothing, out::quiet);
}

int nm::hconf::sync_quiet() {
    return single_request("qmt_hconf_sync", QMT_HCONF_IOC_SYNC, 0UL, "sync failed", nothing,
                          out::quiet);
}

extern "C" {

// ---- records and text form ---------------------------------------------------------------

int ch_hex(char c) {
    return hex_value(c, out::loud);
}

qmt_hconf_header_rec *qmt_hconf_header(const char *text) {
    const char *p = text;
    int32_t magic = scan_signed(p, &p);
    if (static_cast<uint32_t>(magic) != QMT_HCONF_MAGIC) {
        printf("%s: ERROR: bad magic: 0x%x\n", __func__, static_cast<unsigned>(magic));
        return nullptr;
    }
    int32_t num = scan_signed(skip_separator(p), &p);
    if (static_cast<uint32_t>(num) > QMT_HCONF_MAX_ENTRIES) {
        printf("%s: ERROR: too much entry: %d\n", __func__, num);
        return nullptr;
    }
    int32_t len = scan_signed(skip_separator(p), &p);
    if (static_cast<uint32_t>(len) > QMT_HCONF_IMAGE_SIZE) {
        printf("%s: ERROR: too long: %d\n", __func__, len);
        return nullptr;
    }
    auto *header = static_cast<qmt_hconf_header_rec *>(calloc(1, sizeof(qmt_hconf_header_rec)));
    if (header == nullptr) {
        printf("%s: ERROR: allocate memory failed\n", __func__);
        return nullptr;
    }
    header->magic = static_cast<uint32_t>(magic);
    header->num = static_cast<uint32_t>(num);
    header->len = static_cast<uint32_t>(len);
    qmt_hconf_header_dump(header);
    return header;
}

qmt_hconf_entry_rec *qmt_hconf_entry(const char *text) {
    return parse_entry(text, out::loud);
}

int qmt_hconf_header_dump(const qmt_hconf_header_rec *header) {
    const auto *raw = reinterpret_cast<const uint8_t *>(header);
    return printf("header: 0x%x num %d len %d\n", load32(raw), static_cast<int>(load32(raw + 4)),
                  static_cast<int>(load32(raw + 8)));
}

int qmt_hconf_entry_dump(const qmt_hconf_entry_rec *entry) {
    const auto *raw = reinterpret_cast<const uint8_t *>(entry);
    unsigned type = load16(raw + kEntryType);
    unsigned len = load16(raw + kEntryLen);
    printf("entry: 0x%x type %d len %d: ", load32(raw), static_cast<int>(type),
           static_cast<int>(len));
    const uint8_t *data = raw + kEntryHead;
    for (unsigned i = 0; i < len; ++i) {
        if (type == QMT_HCONF_TYPE_BIN)
            printf("%02x ", data[i]);
        else
            putchar(data[i]);
    }
    return putchar('\n');
}

// ---- device operations -------------------------------------------------------------------

int qmt_hconf_read_header(qmt_hconf_header_rec *header) {
    return single_request(__func__, QMT_HCONF_IOC_READ_HEADER, static_cast<void *>(header),
                          "read header failed", [&] { qmt_hconf_header_dump(header); });
}

int qmt_hconf_write_header(const qmt_hconf_header_rec *header) {
    return single_request(__func__, QMT_HCONF_IOC_WRITE_HEADER,
                          const_cast<void *>(static_cast<const void *>(header)),
                          "write header failed", nothing);
}

int qmt_hconf_read_entry(qmt_hconf_entry_rec *entry) {
    return single_request(__func__, QMT_HCONF_IOC_READ_ENTRY, static_cast<void *>(entry),
                          "read entry failed", [&] { qmt_hconf_entry_dump(entry); });
}

int qmt_hconf_write_entry(const qmt_hconf_entry_rec *entry) {
    return single_request(__func__, QMT_HCONF_IOC_WRITE_ENTRY,
                          const_cast<void *>(static_cast<const void *>(entry)),
                          "write entry failed", nothing);
}

int qmt_hconf_del_entry(unsigned long arg) {
    return single_request(__func__, QMT_HCONF_IOC_DELETE, arg, "delete entry failed", nothing);
}

int qmt_hconf_sync(void) {
    return single_request(__func__, QMT_HCONF_IOC_SYNC, 0UL, "sync failed", nothing);
}

int qmt_hconf_clear(void) {
    return single_request(__func__, QMT_HCONF_IOC_CLEAR, 0UL, "clear failed", nothing);
}

int qmt_hconf_save(const char *path) {
    device_fd dev;
    if (!dev.ok()) {
        printf("%s: ERROR: open %s failed\n", __func__, QMT_HCONF_DEVICE);
        return -1;
    }
    nm::unique_heap<uint8_t> image(static_cast<uint8_t *>(calloc(1, QMT_HCONF_IMAGE_SIZE)));
    if (!image)
        return -1;
    int r = request(dev, QMT_HCONF_IOC_READ_ALL, static_cast<void *>(image.get()));
    if (r != 0) {
        printf("%s: ERROR: failed read all\n", __func__);
        return r;
    }
    nm::unique_file file;
    FILE *out = stdout;
    if (path != nullptr) {
        file.reset(fopen(path, "w"));
        if (!file) {
            // Reported by the message only: the result stays 0.
            printf("%s: ERROR: open %s failed\n", __func__, path);
            return 0;
        }
        out = file.get();
    }
    const uint8_t *img = image.get();
    uint32_t num = load32(img + 4);
    size_t offset = kHeaderSize;
    for (uint32_t i = 0; i < num; ++i) {
        // The walk stays inside the image whatever the driver put in it.
        if (offset + kEntryHead > QMT_HCONF_IMAGE_SIZE)
            break;
        size_t size = kEntryHead + load16(img + offset + kEntryLen);
        if (offset + size > QMT_HCONF_IMAGE_SIZE)
            break;
        save_entry(__func__, out, img + offset);
        offset += size;
    }
    if (file == nullptr)
        fflush(stdout);
    return 0;
}

int qmt_hconf_update(const char *path) {
    // "r": the stream is only ever read.
    nm::unique_file in(fopen(path, "r"));
    if (!in) {
        printf("%s: ERROR: open %s failed\n", __func__, path);
        return -1;
    }
    nm::line_buffer line;
    for (;;) {
        ssize_t n = line.read(in.get());
        if (n < 0)
            return 0;
        if (n < 6)
            continue;
        nm::unique_heap<qmt_hconf_entry_rec> entry(qmt_hconf_entry(line.text));
        if (!entry) {
            printf("%s: ERROR: failed parse entry: %s\n", __func__, line.text);
            return -1;
        }
        int r = qmt_hconf_write_entry(entry.get());
        if (r != 0)
            return r;
    }
}

} // extern "C"
