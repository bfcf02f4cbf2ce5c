// Shared mechanics of the configuration areas: the store mapping of a settings record, the
// calloc-read-memcmp compare, command formatting into a bounded buffer, and the test that
// keeps stored or caller text from reaching the shell as more than one plain word. An area
// describes its record once and calls these, so its own file reads like its description.
#pragma once

#include "common/raii.h"
#include "qmtnm.h"

#include <arpa/inet.h>
#include <cstddef>
#include <cstdint>
#include <cstring>

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
    str_K,  // as str, but read with "%k%K%l%s" (the soft AP's name)
};

// What a text field may hold, whoever wrote it: the check holds a caller's record to it, the
// store read holds every stored value to it (a restored backup or a hand-edited store is input
// too), and an empty text passes (a field the area does not use keeps its factory "").
enum class text_rule : uint8_t {
    any,        // anything (the text is escaped wherever it goes)
    no_control, // no control character: it stands on one line of a daemon's file
    host_name,  // a DNS host name (host_name below): one word to the shell, one host in a URL
    host_word,  // one field of the hosts file and no option to hostname: no blank, '#' or
                // control character, no leading '-'
    digits,     // decimal digits only
};

struct store_field {
    const char *key;
    field_type type;
    uint16_t offset;
    uint16_t cap;           // string: the member's size; a text of cap characters fills it
    const char *read_fail;  // message after the prefix, one %d for the code
    const char *write_fail; // likewise for a failed write
    // Runs after the field was written, with a pointer to its value (the WAN address goes on
    // into the hardware store).
    void (*written)(const void *value) = nullptr;
    text_rule rule = text_rule::any;
    uint8_t min_len = 0; // the fewest characters the check takes while the area is on
};

// A switch that ends a flush early: after writing fields[switch_field], the remaining fields
// keep their stored values when the switch reads zero (a service turned off) or nonzero (the
// DHCP method, which keeps the static addresses).
enum class stop_when : uint8_t { never, zero, nonzero };

struct store_map {
    const char *section; // "network_qos"
    uint32_t module;     // the area's module byte
    const store_field *fields;
    size_t count;
    stop_when stop = stop_when::never;
    uint8_t switch_field = 0;
    const uint8_t *read_order = nullptr; // indices into fields, when reads take another order

    // count fields from first on, for an area that reads or writes some fields only in some
    // cases: no switch, in their own order.
    constexpr store_map slice(size_t first, size_t n) const {
        return {section, module, fields + first, n};
    }
};

// NM_FIELD(record, member, type, key, capacity, read message, write message[, written hook])
#define NM_FIELD(rec, member, type, key, cap, rmsg, ...)                                           \
    ::nm::store_field {                                                                            \
        key, ::nm::field_type::type, offsetof(rec, member), cap, rmsg, __VA_ARGS__                 \
    }
// NM_TEXT(record, member, str or str_K, key, rule, fewest characters, read message, write
// message): a text field, its capacity the member's size.
#define NM_TEXT(rec, member, type, key, rule, min, rmsg, wmsg)                                     \
    ::nm::store_field {                                                                            \
        key, ::nm::field_type::type, offsetof(rec, member), sizeof(rec::member), rmsg, wmsg,       \
            nullptr, ::nm::text_rule::rule, min                                                    \
    }

// Reads every field (in read_order, if given) into record; stops at the first failure, logging
// its message under func and returning the area's store code (reason -2). A text field gets
// every stored byte: a text of the field's size fills it, unterminated. A stored text longer than
// its field or against its rule is refused with the area's invalid-input code (reason -7),
// logged with its key. An address whose stored text does not parse reads as 0.0.0.0.
int32_t store_read(const char *func, const store_map &map, void *record);
// Writes every field in order, stopping after the switch as the map says.
int32_t store_write(const char *func, const store_map &map, const void *record);

// What is wrong with a text field of a record: nothing, its length (fewer than min_len
// characters), or a character its rule refuses.
enum class text_fault : uint8_t { none, length, content };
text_fault field_fault(const store_field &f, const void *record);
// Whether s keeps to rule (an empty text does).
bool text_ok(text_rule rule, const char *s);

// One value through the store, domain "network": the raw store result (negative = failure).
int store_get_int(const char *section, const char *key, int32_t *out);
int store_get_str(const char *section, const char *key, char *buf, int cap);
int store_put_int(const char *section, const char *key, int32_t value);
int store_put_str(const char *section, const char *key, const char *value);

// Reads the interface name stored under section/"port" into buf (cap bytes). The name goes into
// shell commands and daemon files, so a stored value that is not a plain interface name, or that
// does not fit buf whole, fails like a missing key. Returns the store's result (negative =
// failure).
int store_get_ifname(const char *section, char *buf, int cap);

// Writes of this process stored together or not at all, until commit() (the store's batch). A
// batch that could not be opened leaves each write on its own; one not committed is dropped.
class store_batch {
  public:
    store_batch();
    ~store_batch();
    store_batch(const store_batch &) = delete;
    store_batch &operator=(const store_batch &) = delete;
    bool open() const { return open_; }
    // Stores the writes: 0, or negative when nothing of them was stored (the store made room
    // for a next try).
    int commit();

  private:
    bool open_;
};

// ---- compare ----
struct nochange_text {
    const char *calloc_fail; // logged with the area's memory code as its %d, if it has one
    const char *read_fail;   // logged with the reader's code
    int32_t failure = 0;     // when nonzero, returned for either failure instead of the code
};

using record_reader = int32_t (*)(void *stored);
// Allocates a zeroed record of size bytes into stored and fills it with reader. Logs the
// failures under func; a stored record that the read refuses (the area's invalid-input code) is
// returned as that code, already logged by the read.
int32_t read_stored(const char *func, uint32_t module, size_t size, record_reader reader,
                    const nochange_text &text, unique_heap<void> &stored);
// The same, then sets *changed to whether the stored record differs from record; *changed is
// left alone on failure. A stored record the read refuses counts as changed, so that a set can
// put a valid one in its place.
int32_t config_nochange(const char *func, uint32_t module, const void *record, size_t size,
                        record_reader reader, const nochange_text &text, int32_t *changed);

template <class Rec, int32_t (*Reader)(Rec *)>
int32_t read_stored(const char *func, uint32_t module, const nochange_text &text,
                    unique_heap<Rec> &stored) {
    record_reader read = [](void *rec) { return Reader(static_cast<Rec *>(rec)); };
    unique_heap<void> block;
    int32_t r = read_stored(func, module, sizeof(Rec), read, text, block);
    stored.reset(static_cast<Rec *>(block.release()));
    return r;
}

template <class Rec, int32_t (*Reader)(Rec *)>
int32_t config_nochange(const char *func, uint32_t module, const Rec *record,
                        const nochange_text &text, int32_t *changed) {
    record_reader read = [](void *stored) { return Reader(static_cast<Rec *>(stored)); };
    return config_nochange(func, module, record, sizeof(Rec), read, text, changed);
}

// ---- text ----
// Whether s is a plain name: 1 to 63 letters, digits, '.', '-' or '_', not starting with '-'.
// Such a name is one word to the shell, one field on a file's line, and never an option.
bool plain_name(const char *s);

// Whether s is a host name: dot-separated labels of 1 to 63 letters, digits or '-', a label
// neither starting nor ending with '-'. Such a name is one word to the shell and one host in a URL.
bool host_name(const char *s);

// Whether s is exactly count groups of one or two hexadecimal digits joined by sep, and nothing
// else ("0:1:2:3:4:5" is six such groups; "0:1:2:3:4:5;reboot" is not).
bool hex_groups(const char *s, size_t count, char sep);

// Whether s holds a control character (a line break, a tab, DEL...).
bool has_control(const char *s);

// Whether s is one or more hexadecimal digits and nothing else.
bool all_hex(const char *s);

// Percent-encodes s for a URL: letters, digits and "-._~" stay as they are, every other byte
// becomes %XX. Writes at most cap bytes, NUL included; returns false if the result was cut.
bool url_encode(const char *s, char *out, size_t cap);

// s for a double-quoted word of pppd's option and secrets files: a double quote or backslash
// gets a backslash before it. Writes at most cap bytes, NUL included; false if cut.
bool pppd_escape(const char *s, char *out, size_t cap);

// s for the inside of a shell word in single quotes ('...'): a single quote becomes '\''
// (close the quotes, an escaped quote, open them again); nothing else is special there. Writes
// at most cap bytes, NUL included; false if cut.
bool shell_squote(const char *s, char *out, size_t cap);

// A text field of a record as a terminated string, also when the text fills all N bytes of the
// field: nm::field_text(cfg->username).text.
template <size_t N> struct field_text {
    char text[N + 1] = {};
    explicit field_text(const char (&field)[N]) { memcpy(text, field, N); }
};

// An IPv4 address as dotted-quad text, for a command or a file line:
// nm::dotted(addr).text lives until the end of the full expression.
struct dotted {
    char text[INET_ADDRSTRLEN];
    explicit dotted(in_addr addr) { inet_ntop(AF_INET, &addr, text, sizeof text); }
};

// ---- apply ----
// The apply operation an instance record holds: the area's check runs on the very record about to
// be applied, so that no record reaches a command or a daemon file unchecked, whoever applies it
// (a set, the start-up apply of the stored settings, a program calling the exported instance).
template <lcl_op_fn Check, lcl_op_fn Apply>
int32_t checked_apply(lcl_instance *inst, void *arg1, uintptr_t arg2) {
    if (int32_t r = Check(inst, arg1, arg2); r < 0)
        return r;
    return Apply(inst, arg1, arg2);
}

// ---- the activate flag ----
// The activate step of the areas whose changes wait for a reboot: clears the shared flag, if set,
// for every process, and logs line (by default "function request reboot" with its line end) under
// func. Always 0.
int32_t request_reboot(const char *func, uint32_t *activate,
                       const char *line = "function request reboot\n");

// ---- files ----
// Creates or truncates path with text, readable and writable by its owner alone (0600, also when
// the file was there with other modes; a symbolic link is not followed). Returns 0 or 0xFD00FFFD.
int32_t write_private_file(const char *path, const char *text);

// ---- commands ----
// Formats the command into a buffer of cap bytes (cut at that size) and runs it with system().
// Returns system()'s result.
int run_cmd(size_t cap, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

} // namespace nm
