/* qmt_hconf: client of the hardware-configuration store behind /dev/hconf.
 *
 * The store holds typed binary entries (for example the wired port's saved IP address and
 * netmask). The driver exchanges two packed records with us, a header and an entry, in the
 * device's native byte order; each has a text form used in files and configuration calls:
 *   header: "magic:num:len" (any single separator; decimal, 0x-hex or 0-octal numbers)
 *   entry:  "0x%x:%d:%d:" with id, type and len, then the data (type 0: "%02x" per byte,
 *           type 1: the characters as they are)
 * Every call reports with printf to standard output ("<function>: ERROR: ...") and returns a
 * plain int: 0, -1, or the driver's own result. Parsed records are single heap blocks that the
 * caller releases with free(). This header compiles as C99 and as C++.
 */
#ifndef QMT_HCONF_H
#define QMT_HCONF_H

#include <stdint.h>

#include "qmtnm_api.h"

#ifdef __cplusplus
extern "C" {
#endif

#define QMT_HCONF_DEVICE "/dev/hconf"
#define QMT_HCONF_MAGIC 0x68636F6Eu   /* "hcon" read as a big-endian number */
#define QMT_HCONF_MAX_ENTRIES 64u     /* largest num of a header */
#define QMT_HCONF_IMAGE_SIZE 0x10000u /* largest len of a header; size of a read-all image */

#define QMT_HCONF_TYPE_BIN 0u  /* raw bytes */
#define QMT_HCONF_TYPE_TEXT 1u /* characters, no terminator */

/* Driver requests: _IO('v', nr) in the encoding of the device's MIPS kernel (direction "none"
 * is 1 in the top three bits there). They are the driver's ABI and are used as they stand on
 * every build host; x86's _IO would give different numbers. */
#define QMT_HCONF_IOC_READ_ALL 0x20007601u     /* arg: 65536-byte buffer for the image */
#define QMT_HCONF_IOC_READ_HEADER 0x20007603u  /* arg: header record, filled in */
#define QMT_HCONF_IOC_WRITE_HEADER 0x20007604u /* arg: header record */
#define QMT_HCONF_IOC_READ_ENTRY 0x20007605u   /* arg: entry record with the wanted id */
#define QMT_HCONF_IOC_WRITE_ENTRY 0x20007606u  /* arg: entry record (add or replace) */
#define QMT_HCONF_IOC_SYNC 0x20007607u         /* arg: 0; commit to the backing medium */
#define QMT_HCONF_IOC_CLEAR 0x20007608u        /* arg: 0; empty the store */
#define QMT_HCONF_IOC_DELETE 0x20007609u       /* arg: passed through from the caller */

/* Header of the store image (12 bytes). */
typedef struct __attribute__((packed)) qmt_hconf_header_rec {
    uint32_t magic; /* QMT_HCONF_MAGIC */
    uint32_t num;   /* number of entries, at most 64 */
    uint32_t len;   /* length of the store image in bytes, at most 65536 */
} qmt_hconf_header_rec;

/* One entry (8 + len bytes). In an image, entries follow each other with no padding, so a
 * record may be unaligned: read its fields with memcpy when walking an image. */
typedef struct __attribute__((packed)) qmt_hconf_entry_rec {
    uint32_t id;
    uint16_t type; /* QMT_HCONF_TYPE_BIN or QMT_HCONF_TYPE_TEXT; others are invalid */
    uint16_t len;  /* number of data bytes */
    uint8_t data[];
} qmt_hconf_entry_rec;

QMTNM_STATIC_ASSERT(sizeof(qmt_hconf_header_rec) == 12, "hconf header is 12 bytes");
QMTNM_STATIC_ASSERT(sizeof(qmt_hconf_entry_rec) == 8, "hconf entry header is 8 bytes");

/* ---- records and text form ------------------------------------------------------------ */
/* Value of one hex digit; any other character prints "ch_hex: ERROR: bad char: %c" and
 * gives 0. */
QMTNM_API int ch_hex(char c);
/* Parses the header text; prints the header and returns it (free() it), or null. */
QMTNM_API qmt_hconf_header_rec *qmt_hconf_header(const char *text);
/* Parses the entry text; prints the entry and returns a block of 8 + len bytes (free() it),
 * or null. Never reads past the text's terminator: missing data counts as zero. */
QMTNM_API qmt_hconf_entry_rec *qmt_hconf_entry(const char *text);
/* "header: 0x%x num %d len %d\n"; returns printf's result. */
QMTNM_API int qmt_hconf_header_dump(const qmt_hconf_header_rec *header);
/* "entry: 0x%x type %d len %d: " then the data and a newline; returns the result of writing
 * the newline. */
QMTNM_API int qmt_hconf_entry_dump(const qmt_hconf_entry_rec *entry);

/* ---- device operations: each opens /dev/hconf, issues one request and closes it ------- */
QMTNM_API int qmt_hconf_read_header(qmt_hconf_header_rec *header);
QMTNM_API int qmt_hconf_write_header(const qmt_hconf_header_rec *header);
/* entry->id names the wanted entry; the record must have room for its data. */
QMTNM_API int qmt_hconf_read_entry(qmt_hconf_entry_rec *entry);
QMTNM_API int qmt_hconf_write_entry(const qmt_hconf_entry_rec *entry);
/* arg is handed to the driver unchanged. */
QMTNM_API int qmt_hconf_del_entry(unsigned long arg);
QMTNM_API int qmt_hconf_sync(void);
QMTNM_API int qmt_hconf_clear(void);
/* Writes every entry's text form, one a line, to path (standard output when null). */
QMTNM_API int qmt_hconf_save(const char *path);
/* Writes every entry of a file in text form into the store (no sync). */
QMTNM_API int qmt_hconf_update(const char *path);

#ifdef __cplusplus
}
#endif

#endif /* QMT_HCONF_H */
