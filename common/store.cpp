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
constexpr size_t kStrMax = 64; // the longest string field of any record

template <class T> T *at(void *record, uint16_t offset) {
    return reinterpret_cast<T *>(static_cast<char *>(record) + offset);
}
template <class T> const T *at(const void *record, uint16_t offset) {
    return reinterpret_cast<const T *>(static_cast<const char *>(record) + offset);
}

int read_field(const char *section, const store_field &f, void *record) {
    switch (f.type) {
    case field_type::i32:
        return store_get_int(section, f.key, at<int32_t>(record, f.offset));
    case field_type::str:
        return store_get_str(section, f.key, at<char>(record, f.offset), f.cap);
    case field_type::str_K:
        return qmt_conf_scanf(kDomain, "%k%K%l%s", section, f.key, static_cast<int>(f.cap),
                              at<char>(record, f.offset));
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
    int r = store_get_str(section, "port", buf, cap);
    if (r >= 0 && !plain_name(buf))
        return -1;
    return r;
}

int32_t store_read(const char *func, const store_map &map, void *record) {
    for (size_t i = 0; i < map.count; ++i) {
        const store_field &f = map.fields[map.read_order ? map.read_order[i] : i];
        if (read_field(map.section, f, record) < 0) {
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
    if (r < 0) {
        log(LOG_GATE_ERR, func, text.read_fail, r);
        return text.failure ? text.failure : r;
    }
    return 0;
}

int32_t config_nochange(const char *func, uint32_t module, const void *record, size_t size,
                        record_reader reader, const nochange_text &text, int32_t *changed) {
    unique_heap<void> stored;
    if (int32_t r = read_stored(func, module, size, reader, text, stored); r < 0)
        return r;
    *changed = memcmp(record, stored.get(), size) != 0 ? 1 : 0;
    return 0;
}

} // namespace nm
