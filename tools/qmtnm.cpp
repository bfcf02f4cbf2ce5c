// qmtnm: get and set the appliance's network settings from the shell.
//
//   qmtnm [-v] [--json] [--secrets] get AREA
//   qmtnm [-v] [--host] set AREA field=value ...
//   qmtnm [-v] [--host] set ethmac XX:XX:XX:XX:XX:XX
//   qmtnm [-v] [--host] set sta wps=pbc | wps=pin [pin=NNNNNNNN]   join by WPS
//   qmtnm [-v] [--host] set ipfilter [enable=1] [mode=white|black] rule=BEGIN-END ...
//   qmtnm [-v] [--host] boot [AREA]   apply the stored settings of every area (or one) once,
//                                      checked, as at start-up
//   qmtnm [--json] [--host] scan      scan on wlan0 and list the networks found
//   qmtnm [--json] [--host] pin sta|ap   make, store and print a new WPS PIN
//   qmtnm areas [--complete]   the areas and their fields (--complete: for the shell completion)
//   qmtnm iface IFNAME        address, netmask and hardware address as the library reads them
//   qmtnm [--host] hosts      rewrite /var/conf/hosts from the store
//   qmtnm locks               every area's set and get lock, free or taken
//   qmtnm unlock AREA [set|get]   release a lock left taken by a caller that died holding it
//   qmtnm try [--timeout S] set AREA f=v ... [-- set ...]   a change that rolls back unless
//   qmtnm confirm | rollback | pending [--json]              confirmed (see pending.cpp)
#include "areas.h"
#include "pending.h"

#include "qmtnm.h"
#include "qmtnm_try.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>
#include <semaphore.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using cli::area;
using cli::field;
using cli::find_field;
using cli::ftype;
using cli::parse_value;

struct options {
    bool json = false;
    bool verbose = false;
    bool host = false;
    bool secrets = false;
};

// The commands and options, as the shell completion offers them.
constexpr const char *kCommands =
    "get set boot scan pin areas iface hosts locks unlock try confirm rollback pending";
constexpr const char *kOptions = "--json -v --verbose --log-level --host --secrets --help";

// Usage on stderr (status 2), or for --help on stdout (status 0).
int usage(FILE *out = stderr) {
    fputs("usage: qmtnm [options] get AREA\n"
          "       qmtnm [options] set AREA field=value ...\n"
          "       qmtnm [options] set ethmac XX:XX:XX:XX:XX:XX\n"
          "       qmtnm [options] set sta wps=pbc | wps=pin [pin=NNNNNNNN]\n"
          "       qmtnm [options] scan\n"
          "       qmtnm [options] pin sta|ap\n"
          "       qmtnm [options] boot [AREA]\n"
          "       qmtnm areas [--complete]\n"
          "       qmtnm iface IFNAME\n"
          "       qmtnm [--host] hosts\n"
          "       qmtnm locks\n"
          "       qmtnm unlock AREA [set|get]\n"
          "       qmtnm [options] try [--timeout S] set AREA field=value ... [-- set ...]\n"
          "       qmtnm [options] confirm | rollback | pending\n"
          "options:\n"
          "  --json          print settings as JSON\n"
          "  -v, --verbose   echo the library's log lines to stderr\n"
          "  --log-level N   the library's log threshold (0 errors, 1 info, 2 traces)\n"
          "  --host          allow 'set' and 'boot' to change this machine (outside the emulated\n"
          "                  device)\n"
          "  --secrets       show passwords instead of masking them\n"
          "  -h, --help      print this help\n"
          "AREA is a short name (qos) or an instance name (qos_lcl). 'set' starts from the\n"
          "stored settings and changes the fields given. 'boot' applies the stored settings of\n"
          "every area (or of AREA) once, as the device does when it starts; stored settings\n"
          "that a set would refuse are not applied.\n"
          "'set sta wps=pbc' joins a network by WPS push button, 'wps=pin' by the PIN given with\n"
          "pin= (or the stored one), waiting up to two minutes. 'scan' lists the networks wlan0\n"
          "finds; 'pin' makes a new WPS PIN for the station or the soft AP and stores it.\n"
          "'set ipfilter' takes mode=white or mode=black and its ranges as rule=BEGIN-END, one\n"
          "word a range; the ranges given replace the stored ones (index=0 removes them all).\n"
          "'locks' shows each area's set and get lock; 'unlock' releases one (default: set)\n"
          "that a caller killed inside a set or get left taken. 'areas --complete' lists the\n"
          "commands, areas, fields and fixed words for the shell completion.\n"
          "'try' runs its sets as one change that is rolled back after S seconds (default 60,\n"
          "at most 86400), or at the next start, unless 'confirm' keeps it; 'rollback' undoes it\n"
          "now; 'pending' shows what a rollback would undo. A failed set of a try rolls back\n"
          "the sets before it; the exit status is then 10 + its position.\n",
          out);
    return out == stdout ? 0 : 2;
}

const char *reason_text(int32_t reason) {
    switch (reason) {
    case QMTNM_R_FAIL:
        return "operation failed";
    case QMTNM_R_STORE:
        return "settings store read or write failed";
    case QMTNM_R_IO:
        return "file, command or query failed";
    case QMTNM_R_NOMEM:
        return "out of memory or no such instance";
    case QMTNM_R_TIME:
        return "clock could not be read";
    case QMTNM_R_BUSY:
        return "resource busy";
    case QMTNM_R_INVALID:
        return "invalid input";
    default:
        return "unknown error";
    }
}

// ---- a refused set names its reason ----
// The library logs why it refuses a record (its check's line, at error level) to syslog. For the
// duration of a set, syslog also copies each line to standard error (LOG_PERROR), which then
// points at a memory file. A refused record's check runs before any command, so after a
// refusal all that was captured is the library's: the report ends with the text of its last
// message, control characters escaped (a caller's value may hold a line break). Otherwise what
// is not the library's (a command it ran) is passed on after the call. With -v the lines go to
// standard error as they come, and nothing is captured.
class log_capture {
  public:
    explicit log_capture(bool on) {
        fflush(stderr);
        if (!on || (fd_ = memfd_create("qmtnm-log", MFD_CLOEXEC)) < 0)
            return;
        saved_ = dup(STDERR_FILENO);
        if (saved_ < 0 || dup2(fd_, STDERR_FILENO) < 0) {
            stop(false);
            return;
        }
        openlog("libqmtnm", LOG_CONS | LOG_PID | LOG_PERROR, LOG_LOCAL2);
    }
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;
    ~log_capture() { stop(false); }

    // Ends the capture, after a refusal keeping the library's last message as the reason.
    void stop(bool refused) {
        if (saved_ >= 0) {
            fflush(stderr);
            openlog("libqmtnm", LOG_CONS | LOG_PID, LOG_LOCAL2); // as the library opens it
            dup2(saved_, STDERR_FILENO);
            close(saved_);
            saved_ = -1;
            take_lines(refused);
        }
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }
    const std::string &reason() const { return reason_; }

  private:
    void take_lines(bool refused) {
        std::string text, last;
        char buf[4096];
        ssize_t n;
        for (off_t at = 0; (n = pread(fd_, buf, sizeof buf, at)) > 0; at += n)
            text.append(buf, static_cast<size_t>(n));
        char own[32];
        snprintf(own, sizeof own, "libqmtnm[%d]: ", static_cast<int>(getpid()));
        bool in_message = false;
        for (size_t at = 0, end; at < text.size(); at = end + 1) {
            end = std::min(text.find('\n', at), text.size());
            std::string_view line(text.data() + at, end - at);
            if (line.substr(0, strlen(own)) == own) { // a message: "function    --> text"
                size_t arrow = line.find("--> ");
                line.remove_prefix(arrow == line.npos ? strlen(own) : arrow + 4);
                last.assign(line);
                in_message = true;
            } else if (refused && in_message) { // its text went on past a line break
                last.append("\n").append(line);
            } else {
                fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
            }
        }
        while (!last.empty() && isspace(static_cast<unsigned char>(last.back())))
            last.pop_back();
        for (unsigned char c : last) {
            char esc[8];
            snprintf(esc, sizeof esc, c == '\n' ? "\\n" : "\\x%02x", c);
            reason_ += c < 0x20 || c == 0x7f ? esc : std::string(1, static_cast<char>(c));
        }
    }
    int fd_ = -1;
    int saved_ = -1;
    std::string reason_;
};

int report(const char *who, int32_t code, const std::string &reason = {}) {
    // A live reading of an interface passes the system's -errno on.
    if ((static_cast<uint32_t>(code) & 0xFF000000u) != 0xFD000000u) {
        fprintf(stderr, "%s: %s (%d)\n", who, strerror(-code), code);
        return 1;
    }
    bool why = QMTNM_ERR_REASON(code) == QMTNM_R_INVALID && !reason.empty();
    fprintf(stderr, "%s: %s (0x%08X)%s%s\n", who, reason_text(QMTNM_ERR_REASON(code)),
            static_cast<unsigned>(code), why ? ": " : "", why ? reason.c_str() : "");
    return 1;
}

template <class T> T *member(void *record, const field &f) {
    return reinterpret_cast<T *>(static_cast<char *>(record) + f.offset);
}

// Appends s as a JSON string literal.
void json_string(const char *s) {
    putchar('"');
    for (; *s; ++s) {
        unsigned char c = static_cast<unsigned char>(*s);
        if (c == '"' || c == '\\')
            printf("\\%c", c);
        else if (c < 0x20)
            printf("\\u%04x", c);
        else
            putchar(c);
    }
    putchar('"');
}

void print_value(void *record, const field &f, const options &opt) {
    bool json = opt.json;
    switch (f.type) {
    case ftype::i32:
        printf("%d", *member<int32_t>(record, f));
        break;
    case ftype::u32:
        printf("%u", *member<uint32_t>(record, f));
        break;
    case ftype::ipv4: {
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, member<in_addr>(record, f), text, sizeof text);
        json ? json_string(text) : (void)fputs(text, stdout);
        break;
    }
    case ftype::secret:
        if (!opt.secrets) {
            const char *mask = *member<char>(record, f) ? "********" : "";
            json ? json_string(mask) : (void)fputs(mask, stdout);
            break;
        }
        [[fallthrough]];
    case ftype::str: {
        // Never read past the member, even if the record is not terminated.
        char text[1024];
        size_t n = strnlen(member<char>(record, f), f.size);
        snprintf(text, sizeof text, "%.*s", static_cast<int>(n), member<char>(record, f));
        json ? json_string(text) : (void)fputs(text, stdout);
        break;
    }
    case ftype::mac: {
        const auto *b = member<unsigned char>(record, f);
        char text[18];
        snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4],
                 b[5]);
        json ? json_string(text) : (void)fputs(text, stdout);
        break;
    }
    case ftype::list: {
        const char *text = *member<int32_t>(record, f) != 0 ? "white" : "black";
        json ? json_string(text) : (void)fputs(text, stdout);
        break;
    }
    case ftype::ranges:
        break; // one line or list element per rule: print_ranges
    }
}

// The IP filter's rules in use, each as BEGIN-END: a JSON list, or a "rule = " line each.
void print_ranges(const void *record, const options &opt) {
    const auto *ipf = static_cast<const qmtnm_ipfilter_cfg *>(record);
    int32_t n = ipf->index < 0 ? 0 : ipf->index > QMTNM_IPF_RULES ? QMTNM_IPF_RULES : ipf->index;
    for (int32_t i = 0; i < n; ++i) {
        char text[40];
        snprintf(text, sizeof text, "%.*s-%.*s", 17, ipf->rules[i].begin_ip, 17,
                 ipf->rules[i].end_ip);
        if (opt.json) {
            fputs(i ? "," : "", stdout);
            json_string(text);
        } else {
            printf("  %-14s = %s\n", "rule", text);
        }
    }
}

void print_record(const area &a, void *record, const options &opt) {
    if (opt.json) {
        printf("{\"area\":\"%s\",\"instance\":\"%s\"", a.name, a.instance);
        for (size_t i = 0; i < a.field_count; ++i) {
            printf(",\"%s\":", a.fields[i].name);
            if (a.fields[i].type == ftype::ranges) {
                putchar('[');
                print_ranges(record, opt);
                putchar(']');
            }
            print_value(record, a.fields[i], opt);
        }
        puts("}");
        return;
    }
    printf("%s (%s)\n", a.name, a.instance);
    for (size_t i = 0; i < a.field_count; ++i) {
        if (a.fields[i].type == ftype::ranges) {
            print_ranges(record, opt);
            continue;
        }
        printf("  %-14s = ", a.fields[i].name);
        print_value(record, a.fields[i], opt);
        putchar('\n');
    }
}

using record_ptr = std::unique_ptr<void, decltype(&free)>;

record_ptr new_record(const area &a) {
    return record_ptr(calloc(1, a.record_size), &free);
}

// A get passes the record's size as its second argument (the live WAN reading clears that much).
int32_t get_record(uint32_t id, const area &a, void *rec) {
    return qmtnm_lcl_get(id, rec, a.record_size);
}

int cmd_get(const area &a, const options &opt) {
    record_ptr rec = new_record(a);
    int32_t r = get_record(a.id, a, rec.get());
    if (r < 0)
        return report(a.name, r);
    print_record(a, rec.get(), opt);
    return 0;
}

// Changes to the machine need the emulated device, or --host.
bool may_change_machine(const options &opt) {
    if (opt.host || getenv("QMTNM_DEVICE"))
        return true;
    fputs("qmtnm: refusing to change this machine's network settings outside the emulated "
          "device;\n       run it through sim/device, or pass --host to really do it here\n",
          stderr);
    return false;
}

int cmd_set(const area &a, int argc, char **argv, const options &opt) {
    if (!a.settable) {
        fprintf(stderr, "qmtnm: %s only reports; it cannot be set\n", a.name);
        return 2;
    }
    if (!may_change_machine(opt))
        return 1;
    if (a.text_set) {
        if (argc != 1) {
            fprintf(stderr, "qmtnm: %s takes one value\n", a.name);
            return 2;
        }
        log_capture log(!opt.verbose);
        int32_t r = qmtnm_lcl_set(a.id, argv[0], 0);
        log.stop(r < 0 && QMTNM_ERR_REASON(r) == QMTNM_R_INVALID);
        return r < 0 ? report(a.name, r, log.reason()) : cmd_get(a, opt);
    }
    record_ptr rec = new_record(a);
    int32_t r = get_record(a.stored_id, a, rec.get());
    bool need_all = r < 0;
    if (need_all) {
        report(a.name, r);
        fprintf(stderr, "qmtnm: stored settings unreadable; give every field of %s\n", a.name);
        memset(rec.get(), 0, a.record_size);
    }
    size_t given = 0;
    for (int i = 0; i < argc; ++i) {
        const char *eq = strchr(argv[i], '=');
        const field *f = eq ? find_field(a, argv[i], static_cast<size_t>(eq - argv[i])) : nullptr;
        if (f == nullptr && eq && a.word) {
            std::string name(argv[i], static_cast<size_t>(eq - argv[i]));
            bool known = false;
            if (a.word(rec.get(), name.c_str(), eq + 1, &known))
                continue;
            if (known) {
                fprintf(stderr, "qmtnm: %s: '%s' is not a valid value\n", name.c_str(), eq + 1);
                return 2;
            }
        }
        if (f == nullptr) {
            fprintf(stderr, "qmtnm: %s: expected field=value with a field of %s\n", argv[i],
                    a.name);
            return 2;
        }
        if (!parse_value(rec.get(), *f, eq + 1))
            return 2;
        ++given;
    }
    if (need_all && given < a.field_count)
        return 1;
    log_capture log(!opt.verbose);
    r = qmtnm_lcl_set(a.id, rec.get(), 0);
    log.stop(r < 0 && QMTNM_ERR_REASON(r) == QMTNM_R_INVALID);
    if (r < 0)
        return report(a.name, r, log.reason());
    // What is stored now (for wan: wanflash; its live port may still be on its way up).
    const area *stored = cli::find_area(cli::area_name_by_id(a.stored_id));
    return cmd_get(stored ? *stored : a, opt);
}

// One set of a try: argv[0] is the area.
int run_set(void *context, int argc, char **argv) {
    const area *a = cli::find_area(argv[0]);
    return a ? cmd_set(*a, argc - 1, argv + 1, *static_cast<options *>(context)) : 2;
}

// The library applies each area's stored settings, checked, in the start-up order (or one area's
// alone); one area's failure is reported and the others still run.
int cmd_boot(const area *only, const options &opt) {
    if (!may_change_machine(opt))
        return 1;
    uint32_t ids[QMTNM_ID_COUNT];
    uint32_t count = qmtnm_lcl_boot_order(ids, QMTNM_ID_COUNT);
    if (only != nullptr) {
        uint32_t *end = ids + std::min<uint32_t>(count, QMTNM_ID_COUNT);
        if (std::find(ids, end, only->id) == end) {
            printf("%s: nothing is applied from the store\n", only->name);
            return 0;
        }
        ids[0] = only->id;
        count = 1;
    }
    int status = 0;
    // A change left pending when the device went down is undone before the stored settings
    // are applied.
    qmtnm_try_info pending{};
    if (only == nullptr && qmtnm_try_state(&pending) == 0 && pending.phase == QMTNM_TRY_PENDING) {
        int32_t r = qmtnm_try_recover();
        printf("pending change: %s\n", r < 0 ? "rollback failed" : "rolled back");
        status = r < 0 ? 1 : 0;
    }
    for (uint32_t i = 0; i < count && i < QMTNM_ID_COUNT; ++i) {
        const char *name = cli::area_name_by_id(ids[i]);
        int32_t r = qmtnm_lcl_apply_stored(ids[i]);
        if (r < 0) {
            report(name, r);
            if (QMTNM_ERR_REASON(r) == QMTNM_R_INVALID)
                fprintf(stderr, "%s: stored settings refused, not applied\n", name);
            status = 1;
        } else {
            printf("%s: applied\n", name);
        }
    }
    return status;
}

int cmd_iface(const char *ifname) {
    in_addr addr{}, mask{};
    unsigned char hw[16] = {};
    int32_t r = nm_get_inaddr(ifname, 0, &addr);
    if (r == 0)
        r = nm_get_inaddr(ifname, 2, &mask);
    if (r == 0)
        r = nm_get_inaddr(ifname, 4, hw);
    if (r != 0) {
        fprintf(stderr, "%s: %s (%d)\n", ifname, strerror(-r), r);
        return 1;
    }
    char a[INET_ADDRSTRLEN], m[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &addr, a, sizeof a);
    inet_ntop(AF_INET, &mask, m, sizeof m);
    // The hardware address follows the 2-byte family of the returned sockaddr.
    printf("%s address %s netmask %s hwaddr %02x:%02x:%02x:%02x:%02x:%02x\n", ifname, a, m, hw[2],
           hw[3], hw[4], hw[5], hw[6], hw[7]);
    return 0;
}

int cmd_hosts(const options &opt) {
    if (!may_change_machine(opt))
        return 1;
    int32_t r = update_hosts_file();
    return r < 0 ? report("hosts", r) : 0;
}

// A scan, then its results: the result call gives the entries filled minus 2.
int cmd_scan(const options &opt) {
    if (!may_change_machine(opt))
        return 1;
    uint32_t count = 0;
    int32_t r = qmtnm_lcl_get(QMTNM_ID_DOSCAN, &count, 0);
    if (r < 0)
        return report("doscan", r);
    std::vector<qmtnm_scan_entry> entries(count);
    r = qmtnm_lcl_get(QMTNM_ID_SCANRESULT, entries.data(), count * sizeof(qmtnm_scan_entry));
    if (r < -2)
        return report("scanresult", r);
    size_t filled = static_cast<size_t>(r + 2);
    if (!opt.json)
        printf("%-32s  %-17s  %7s  %6s  %s\n", "ssid", "bssid", "channel", "signal", "flags");
    else
        fputs("[", stdout);
    for (size_t i = 0; i < filled; ++i) {
        const qmtnm_scan_entry &e = entries[i];
        // Never read past a field, even when the text fills it.
        char ssid[sizeof e.ssid + 1] = {}, bssid[sizeof e.bssid + 1] = {};
        char flags[sizeof e.flags + 1] = {};
        memcpy(ssid, e.ssid, sizeof e.ssid);
        memcpy(bssid, e.bssid, sizeof e.bssid);
        memcpy(flags, e.flags, sizeof e.flags);
        if (!opt.json) {
            printf("%-32s  %-17s  %7d  %6d  %s\n", ssid, bssid, e.channel, e.signal, flags);
            continue;
        }
        fputs(i ? ",{\"ssid\":" : "{\"ssid\":", stdout);
        json_string(ssid);
        fputs(",\"bssid\":", stdout);
        json_string(bssid);
        printf(",\"channel\":%d,\"signal\":%d,\"flags\":", e.channel, e.signal);
        json_string(flags);
        putchar('}');
    }
    if (opt.json)
        puts("]");
    return 0;
}

int cmd_pin(const char *who, const options &opt) {
    uint32_t id;
    if (!strcmp(who, "sta"))
        id = QMTNM_ID_STAPIN;
    else if (!strcmp(who, "ap"))
        id = QMTNM_ID_APPIN;
    else
        return usage();
    if (!may_change_machine(opt))
        return 1;
    char pin[QMTNM_WPS_PIN_SIZE] = {};
    int32_t r = qmtnm_lcl_get(id, pin, 0);
    if (r < 0)
        return report(cli::area_name_by_id(id), r);
    if (opt.json)
        printf("{\"area\":\"%s\",\"pin\":\"%s\"}\n", who, pin);
    else
        puts(pin);
    return 0;
}

// With complete, one kind of word a line, for the shell completion:
//   command WORD...                       the commands
//   option WORD...                        the options
//   arg COMMAND WORD...                   a command's fixed words (pin sta|ap, unlock AREA set|get)
//   area NAME INSTANCE get|set FIELD...   an area (set: it can be set) and its record's fields
//   set NAME WORD...                      what a set of the area takes: field=, field=value
int cmd_areas(bool complete) {
    if (complete) {
        printf("command %s\noption %s\narg pin sta ap\narg unlock set get\n", kCommands, kOptions);
        for (const area *a = cli::areas_begin(); a != cli::areas_end(); ++a) {
            printf("area %s %s %s", a->name, a->instance, a->settable ? "set" : "get");
            for (size_t i = 0; i < a->field_count; ++i)
                printf(" %s", a->fields[i].name);
            if (!a->settable || a->text_set) {
                putchar('\n');
                continue;
            }
            printf("\nset %s", a->name);
            for (size_t i = 0; i < a->field_count; ++i) {
                const char *f = a->fields[i].name;
                if (a->fields[i].type == ftype::list)
                    printf(" %s=white %s=black", f, f);
                else if (a->fields[i].type != ftype::ranges)
                    printf(" %s=", f);
            }
            printf("%s%s\n", a->words ? " " : "", a->words ? a->words : "");
        }
        return 0;
    }
    for (const area *a = cli::areas_begin(); a != cli::areas_end(); ++a) {
        printf("%-10s %-14s id %2u%s:", a->name, a->instance, a->id, a->settable ? "" : " (get)");
        for (size_t i = 0; i < a->field_count; ++i)
            printf(" %s", a->fields[i].name);
        putchar('\n');
    }
    return 0;
}

// ---- the areas' locks ----
// Each instance has two named semaphores, opened by the library at load: "/<instance>.set" and
// "/<instance>.get", of value 1 when free and 0 while a caller is inside. A caller killed
// inside leaves its lock taken until the device restarts; these commands show and release
// them. Values are read with sem_getvalue, which changes nothing.

// "free", "taken", or "free xN" for a lock released once too often (it admits N callers).
const char *lock_text(sem_t *sem, char (&buf)[24]) {
    int v = -1;
    if (sem == nullptr || sem_getvalue(sem, &v) != 0)
        return "unknown";
    if (v == 0)
        return "taken";
    if (v == 1)
        return "free";
    snprintf(buf, sizeof buf, "free x%d", v);
    return buf;
}

// Every instance's locks, one line each. Exit status 0 when all are free, 1 otherwise.
int cmd_locks() {
    int status = 0;
    for (uint32_t id = 0; id < QMTNM_ID_COUNT; ++id) {
        lcl_instance *inst = get_lcl_instance(id);
        const char *name = cli::area_name_by_id(id);
        if (inst == nullptr || name == nullptr)
            continue;
        char set_buf[24], get_buf[24];
        const char *set = lock_text(inst->set_sem, set_buf);
        const char *get = lock_text(inst->get_sem, get_buf);
        printf("%-10s set %-6s  get %s\n", name, set, get);
        if (strcmp(set, "free") != 0 || strcmp(get, "free") != 0)
            status = 1;
    }
    return status;
}

// Releases a taken lock, after a warning. A free lock is refused: posting it would let two
// callers in. Exit status 0 released, 1 refused or failed, 2 usage.
int cmd_unlock(const char *name, const char *which) {
    bool set = !strcmp(which, "set");
    if (!set && strcmp(which, "get") != 0)
        return usage();
    lcl_instance *inst = nullptr;
    const char *area_name = nullptr;
    for (uint32_t id = 0; id < QMTNM_ID_COUNT && inst == nullptr; ++id) {
        lcl_instance *it = get_lcl_instance(id);
        const char *short_name = cli::area_name_by_id(id);
        if (it && short_name && (!strcmp(name, short_name) || !strcmp(name, it->name))) {
            inst = it;
            area_name = short_name;
        }
    }
    if (inst == nullptr) {
        fprintf(stderr, "qmtnm: unknown area '%s' (see 'qmtnm locks')\n", name);
        return 2;
    }
    sem_t *sem = set ? inst->set_sem : inst->get_sem;
    int v = -1;
    if (sem == nullptr || sem_getvalue(sem, &v) != 0) {
        fprintf(stderr, "qmtnm: cannot read the %s lock of %s\n", which, area_name);
        return 1;
    }
    if (v != 0) {
        fprintf(stderr, "qmtnm: the %s lock of %s is free; nothing to release\n", which, area_name);
        return 1;
    }
    fprintf(stderr,
            "qmtnm: warning: releasing the %s lock of %s (/%s.%s). Release it only when no "
            "caller is inside a %s of %s: one still running there (a long Wi-Fi join, a hung "
            "command) would then run at the same time as the next %s.\n",
            which, area_name, inst->name, which, which, area_name, which);
    if (sem_post(sem) != 0) {
        fprintf(stderr, "qmtnm: releasing the %s lock of %s failed: %s\n", which, area_name,
                strerror(errno));
        return 1;
    }
    // Its holder may have released it at the same moment: take the second count back.
    if (sem_getvalue(sem, &v) == 0 && v > 1 && sem_trywait(sem) != 0)
        fprintf(stderr, "qmtnm: its holder released it too: two callers may be inside at once\n");
    printf("%s: %s lock released\n", area_name, which);
    return 0;
}

// Takes one of the flags that may stand anywhere on the line; false if arg is not one.
bool take_flag(options &opt, const char *arg) {
    if (!strcmp(arg, "--json"))
        opt.json = true;
    else if (!strcmp(arg, "-v") || !strcmp(arg, "--verbose"))
        opt.verbose = true;
    else if (!strcmp(arg, "--host"))
        opt.host = true;
    else if (!strcmp(arg, "--secrets"))
        opt.secrets = true;
    else
        return false;
    return true;
}

} // namespace

int main(int argc, char **argv) {
    options opt;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        if (!strcmp(argv[i], "-h") || !strcmp(argv[i], "--help"))
            return usage(stdout);
        if (take_flag(opt, argv[i]))
            continue;
        if (!strcmp(argv[i], "--log-level") && i + 1 < argc)
            nm_log_level = atoi(argv[++i]);
        else
            return usage();
    }
    if (i >= argc)
        return usage();
    const char *cmd = argv[i++];
    if (!strcmp(cmd, "areas"))
        return cmd_areas(i < argc && !strcmp(argv[i], "--complete"));
    if (!strcmp(cmd, "hosts") && i == argc)
        return cmd_hosts(opt);
    if (!strcmp(cmd, "locks") || !strcmp(cmd, "unlock")) {
        if (!strcmp(cmd, "locks") && i == argc)
            return cmd_locks();
        if (!strcmp(cmd, "unlock") && (argc - i == 1 || argc - i == 2))
            return cmd_unlock(argv[i], argc - i == 2 ? argv[i + 1] : "set");
        return usage();
    }
    if (!strcmp(cmd, "boot") && i + 1 >= argc) {
        const area *a = i < argc ? cli::find_area(argv[i]) : nullptr;
        if (i < argc && a == nullptr) {
            fprintf(stderr, "qmtnm: unknown area '%s' (see 'qmtnm areas')\n", argv[i]);
            return 2;
        }
        if (opt.verbose)
            openlog("libqmtnm", LOG_CONS | LOG_PID | LOG_PERROR, LOG_LOCAL2);
        return cmd_boot(a, opt);
    }
    if (cli::is_pending_command(cmd)) {
        int rest = i; // options may follow: "qmtnm pending --json"
        for (int j = i; j < argc; ++j)
            if (strcmp(cmd, "try") == 0 || !take_flag(opt, argv[j]))
                argv[rest++] = argv[j];
        argc = rest;
        if (opt.verbose)
            openlog("libqmtnm", LOG_CONS | LOG_PID | LOG_PERROR, LOG_LOCAL2);
        if (strcmp(cmd, "pending") != 0 && !may_change_machine(opt))
            return 1;
        return cli::pending_command(cmd, argc - i, argv + i, opt.json, run_set, &opt);
    }
    if (!strcmp(cmd, "iface") && i + 1 == argc)
        return cmd_iface(argv[i]);
    if (!strcmp(cmd, "scan") || !strcmp(cmd, "pin")) {
        int rest = i;
        for (int j = i; j < argc; ++j)
            if (!take_flag(opt, argv[j]))
                argv[rest++] = argv[j];
        if (opt.verbose)
            openlog("libqmtnm", LOG_CONS | LOG_PID | LOG_PERROR, LOG_LOCAL2);
        if (!strcmp(cmd, "scan") && rest == i)
            return cmd_scan(opt);
        if (!strcmp(cmd, "pin") && rest == i + 1)
            return cmd_pin(argv[i], opt);
        return usage();
    }
    if (i >= argc)
        return usage();
    const area *a = cli::find_area(argv[i++]);
    if (a == nullptr) {
        fprintf(stderr, "qmtnm: unknown area '%s' (see 'qmtnm areas')\n", argv[i - 1]);
        return 2;
    }
    // Options may also follow the area: "qmtnm get qos --json".
    int rest = i;
    for (int j = i; j < argc; ++j) {
        if (!take_flag(opt, argv[j]))
            argv[rest++] = argv[j];
    }
    if (opt.verbose) // same ident and facility as the library, plus a copy on stderr
        openlog("libqmtnm", LOG_CONS | LOG_PID | LOG_PERROR, LOG_LOCAL2);
    if (!strcmp(cmd, "get") && rest == i)
        return cmd_get(*a, opt);
    if (!strcmp(cmd, "set") && rest > i)
        return cmd_set(*a, rest - i, argv + i, opt);
    return usage();
}
