// Settings-store access shared by every area: single values and whole records.
#include "common/area.h"
#include "common/nm_log.h"
#include "common/raii.h"
#include "qmt_conf.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>

namespace nm {

namespace {
constexpr const char *kDomain = "network";
constexpr int kAddrCap = 16;
constexpr size_t kStrMax = 64;    // the longest string field of any record
constexpr size_t kIfNameMax = 63; // the longest plain name

template <class T> T *at(void *record, uint16_t offset) {
    return reinterpret_cast<T *>(static_cast<char *>(record) + offset);
}
template <class T> const T *at(const void *record, uint16_t offset) {
    return reinterpret_cast<const T *>(static_cast<const char *>(record) + offset);
}

// A text field's stored value, refused (reason -7) when it is longer than the field or against
// its rule; otherwise every stored byte goes into the field, unterminated when it fills it.
int read_text(const char *section, const store_field &f, void *record, bool *refused) {
    char text[kStrMax + 2] = {}; // one byte more than the longest field, so a longer text shows
    int cap = f.cap < kStrMax ? f.cap + 2 : kStrMax + 2;
    int r = f.type == field_type::str_K
                ? qmt_conf_scanf(kDomain, "%k%K%l%s", section, f.key, cap, text)
                : store_get_str(section, f.key, text, cap);
    if (r < 0)
        return r;
    size_t len = strlen(text);
    if (len > f.cap || !text_ok(f.rule, text)) {
        *refused = true;
        return -1;
    }
    memcpy(at<char>(record, f.offset), text, len < f.cap ? len + 1 : f.cap);
    return r;
}

int read_field(const char *section, const store_field &f, void *record, bool *refused) {
    switch (f.type) {
    case field_type::i32:
        return store_get_int(section, f.key, at<int32_t>(record, f.offset));
    case field_type::str:
    case field_type::str_K:
        return read_text(section, f, record, refused);
    case field_type::inaddr: {
        char text[kAddrCap] = {};
        int r = store_get_str(section, f.key, text, kAddrCap);
        if (r >= 0 && inet_aton(text, at<in_addr>(record, f.offset)) == 0)
            at<in_addr>(record, f.offset)->s_addr = 0;
        return r;
    }
    }
    return -1;
}

int write_field(const char *section, const store_field &f, const void *record) {
    switch (f.type) {
    case field_type::i32:
        return store_put_int(section, f.key, *at<int32_t>(record, f.offset));
    case field_type::str:
    case field_type::str_K: {
        // A field filled to its last byte has no terminator: what is written ends there too.
        char text[kStrMax + 1] = {};
        const char *value = at<char>(record, f.offset);
        memcpy(text, value, strnlen(value, f.cap < kStrMax ? f.cap : kStrMax));
        return store_put_str(section, f.key, text);
    }
    case field_type::inaddr: {
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, at<in_addr>(record, f.offset), text, sizeof text);
        return store_put_str(section, f.key, text);
    }
    }
    return -1;
}
} // namespace

int store_get_int(const char *section, const char *key, int32_t *out) {
    int v = 0;
    int r = qmt_conf_scanf(kDomain, "%k%k%d", section, key, &v);
    if (r >= 0)
        *out = v;
    return r;
}

int store_get_str(const char *section, const char *key, char *buf, int cap) {
    return qmt_conf_scanf(kDomain, "%k%k%l%s", section, key, cap, buf);
}

int store_put_int(const char *section, const char *key, int32_t value) {
    return qmt_conf_printf(kDomain, "%k%k%d", section, key, static_cast<int>(value));
}

int store_put_str(const char *section, const char *key, const char *value) {
    return qmt_conf_printf(kDomain, "%k%k%s", section, key, value);
}

int store_get_ifname(const char *section, char *buf, int cap) {
    char name[kIfNameMax + 2] = {};
    int r = store_get_str(section, "port", name, sizeof name);
    if (r < 0)
        return r;
    if (!plain_name(name) || strlen(name) >= static_cast<size_t>(cap))
        return -1;
    memcpy(buf, name, strlen(name) + 1);
    return r;
}

int32_t store_read(const char *func, const store_map &map, void *record) {
    for (size_t i = 0; i < map.count; ++i) {
        const store_field &f = map.fields[map.read_order ? map.read_order[i] : i];
        bool refused = false;
        if (read_field(map.section, f, record, &refused) < 0) {
            if (refused) {
                int32_t code = err(map.module, QMTNM_R_INVALID);
                log(LOG_GATE_ERR, func, "stored %s/%s refused, errno = %d\n", map.section, f.key,
                    code);
                return code;
            }
            int32_t code = err(map.module, QMTNM_R_STORE);
            log(LOG_GATE_ERR, func, f.read_fail, code);
            return code;
        }
    }
    return 0;
}

int32_t store_write(const char *func, const store_map &map, const void *record) {
    for (size_t i = 0; i < map.count; ++i) {
        const store_field &f = map.fields[i];
        if (write_field(map.section, f, record) < 0) {
            int32_t code = err(map.module, QMTNM_R_STORE);
            log(LOG_GATE_ERR, func, f.write_fail, code);
            return code;
        }
        if (f.written)
            f.written(at<char>(record, f.offset));
        if (i == map.switch_field && map.stop != stop_when::never) {
            bool off = *at<int32_t>(record, f.offset) == 0;
            if (off == (map.stop == stop_when::zero))
                break;
        }
    }
    return 0;
}

int32_t read_stored(const char *func, uint32_t module, size_t size, record_reader reader,
                    const nochange_text &text, unique_heap<void> &stored) {
    stored.reset(calloc(1, size));
    if (!stored) {
        int32_t code = err(module, QMTNM_R_NOMEM);
        log(LOG_GATE_ERR, func, text.calloc_fail, code);
        return text.failure ? text.failure : code;
    }
    int32_t r = reader(stored.get());
    if (r == err(module, QMTNM_R_INVALID))
        return r;
    if (r < 0) {
        log(LOG_GATE_ERR, func, text.read_fail, r);
        return text.failure ? text.failure : r;
    }
    return 0;
}

int32_t config_nochange(const char *func, uint32_t module, const void *record, size_t size,
                        record_reader reader, const nochange_text &text, int32_t *changed) {
    unique_heap<void> stored;
    int32_t r = read_stored(func, module, size, reader, text, stored);
    if (r == err(module, QMTNM_R_INVALID)) {
        *changed = 1;
        return 0;
    }
    if (r < 0)
        return r;
    *changed = memcmp(record, stored.get(), size) != 0 ? 1 : 0;
    return 0;
}

text_fault field_fault(const store_field &f, const void *record) {
    const char *field = at<char>(record, f.offset);
    char text[kStrMax + 1] = {};
    memcpy(text, field, strnlen(field, f.cap < kStrMax ? f.cap : kStrMax));
    if (strlen(text) < f.min_len)
        return text_fault::length;
    return text_ok(f.rule, text) ? text_fault::none : text_fault::content;
}

store_batch::store_batch() : open_(sysconf_batch_begin() == 0) {}

store_batch::~store_batch() {
    if (open_)
        sysconf_batch_end(0);
}

int store_batch::commit() {
    bool was_open = open_;
    open_ = false;
    return was_open ? sysconf_batch_end(1) : 0;
}

} // namespace nm
