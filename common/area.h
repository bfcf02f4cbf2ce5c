// Shared mechanics of the configuration areas: the store mapping of a settings record, the
// calloc-read-memcmp compare, and command formatting into a bounded buffer. An area describes
// its record once and calls these, so its own file reads like its description.
#pragma once

#include "qmtnm.h"

#include <cstddef>
#include <cstdint>

namespace nm {

// ---- error codes ----
constexpr int32_t err(uint32_t module, int32_t reason) {
    return QMTNM_ERR(module, reason);
}

// ---- store mapping of a record ----
enum class field_type : uint8_t {
    i32,    // int32_t, "%k%k%d"
    str,    // char[cap], read with "%k%k%l%s", written with "%k%k%s"
    inaddr, // struct in_addr, kept as dotted-quad text (read capacity 16)
};

struct store_field {
    const char *key;
    field_type type;
    uint16_t offset;
    uint16_t cap;           // string read capacity, NUL included
    const char *read_fail;  // message after the prefix, one %d for the code
    const char *write_fail; // likewise for a failed write
};

struct store_map {
    const char *section; // "network_qos"
    uint32_t module;     // the area's module byte
    const store_field *fields;
    size_t count;
    bool switch_first; // first field is the enable switch: a 0 stops the write there
};

#define NM_FIELD(rec, member, type, key, cap, rmsg, wmsg)                                          \
    ::nm::store_field {                                                                            \
        key, ::nm::field_type::type, offsetof(rec, member), cap, rmsg, wmsg                        \
    }

// Reads every field in order into record; stops at the first failure, logging its message
// under func and returning the area's store code (reason -2).
int32_t store_read(const char *func, const store_map &map, void *record);
// Writes every field in order (stopping after a zero switch when switch_first is set).
int32_t store_write(const char *func, const store_map &map, const void *record);

// One value through the store, domain "network": the raw store result (negative = failure).
int store_get_int(const char *section, const char *key, int32_t *out);
int store_get_str(const char *section, const char *key, char *buf, int cap);
int store_put_int(const char *section, const char *key, int32_t value);
int store_put_str(const char *section, const char *key, const char *value);

// ---- compare ----
using record_reader = int32_t (*)(void *stored);
// Allocates a zeroed record of size bytes, fills it with reader, and sets *changed to whether
// it differs from record. Logs "calloc memory fail" or read_fail (with the reader's code)
// under func; *changed is left alone on failure.
int32_t config_nochange(const char *func, uint32_t module, const void *record, size_t size,
                        record_reader reader, const char *read_fail, int32_t *changed);

template <class Rec, int32_t (*Reader)(Rec *)>
int32_t config_nochange(const char *func, uint32_t module, const Rec *record, const char *read_fail,
                        int32_t *changed) {
    record_reader read = [](void *stored) { return Reader(static_cast<Rec *>(stored)); };
    return config_nochange(func, module, record, sizeof(Rec), read, read_fail, changed);
}

// ---- commands ----
// Formats the command into a buffer of cap bytes (cut at that size) and runs it with system().
// Returns system()'s result.
int run_cmd(size_t cap, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

} // namespace nm
