// qmtnm try / confirm / rollback / pending: a change that rolls back by itself unless it is
// confirmed in time.
//
//   qmtnm try [--timeout S] set AREA f=v ... [-- set AREA f=v ...]
//       opens a pending change of S seconds (default 60, at most a day) and runs the sets in
//       order. If one fails, the ones before it are rolled back at once, and the exit status is
//       10 + the failed set's position (11 for the first).
//   qmtnm confirm | rollback | pending [--json]
#include "pending.h"

#include "areas.h"
#include "qmtnm.h"
#include "qmtnm_try.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace cli {

namespace {

constexpr uint32_t kDefaultTimeout = 60;

int usage() {
    fputs("usage: qmtnm try [--timeout S] set AREA field=value ... [-- set AREA field=value ...]\n"
          "       qmtnm confirm | rollback | pending [--json]\n",
          stderr);
    return 2;
}

int failed(const char *what, int32_t r) {
    switch (QMTNM_ERR_REASON(r)) {
    case QMTNM_R_FAIL:
        fprintf(stderr, "%s: no change is pending\n", what);
        break;
    case QMTNM_R_BUSY:
        fprintf(stderr, "%s: a change is already pending, or its lock is taken (0x%08X)\n", what,
                static_cast<unsigned>(r));
        break;
    case QMTNM_TRY_R_EXPIRED:
        fprintf(stderr, "%s: too late, the deadline had passed: the change is rolled back\n", what);
        break;
    default:
        fprintf(stderr, "%s: failed (0x%08X)\n", what, static_cast<unsigned>(r));
    }
    return 1;
}

// The areas of mask by short name: "lan ipfilter", or a JSON array.
void print_areas(uint32_t mask, bool json) {
    const char *sep = "";
    fputs(json ? "[" : "", stdout);
    for (uint32_t id = 0; id < QMTNM_ID_COUNT; ++id) {
        if (!(mask & (1u << id)) || area_name_by_id(id) == nullptr)
            continue;
        printf(json ? "%s\"%s\"" : "%s%s", sep, area_name_by_id(id));
        sep = json ? "," : " ";
    }
    fputs(json ? "]" : "", stdout);
}

int cmd_pending(bool json) {
    qmtnm_try_info info;
    if (int32_t r = qmtnm_try_state(&info); r < 0)
        return failed("pending", r);
    static const char *const phases[] = {"none", "pending", "rolled_back"};
    if (json) {
        printf("{\"state\":\"%s\"", phases[info.phase % 3]);
        if (info.phase == QMTNM_TRY_PENDING)
            printf(",\"seconds_left\":%u,\"deadline\":%u", info.seconds_left, info.deadline);
        if (info.phase == QMTNM_TRY_ROLLED_BACK)
            printf(",\"rolled_back_at\":%u", info.rolled_back_at);
        if (info.phase != QMTNM_TRY_NONE) {
            fputs(",\"areas\":", stdout);
            print_areas(info.areas, true);
        }
        puts("}");
        return 0;
    }
    if (info.phase == QMTNM_TRY_NONE) {
        puts("no change is pending");
        return 0;
    }
    time_t at = info.phase == QMTNM_TRY_PENDING ? info.deadline : info.rolled_back_at;
    char when[32];
    strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", localtime(&at));
    if (info.phase == QMTNM_TRY_PENDING)
        printf("pending: %u s left (rolls back at %s); undoes: ", info.seconds_left, when);
    else
        printf("rolled back at %s; restored: ", when);
    print_areas(info.areas, false);
    putchar('\n');
    return 0;
}

// Checks every "set AREA f=v ..." group before anything is changed; returns their count, or 0.
int check_groups(int argc, char **argv) {
    int groups = 0;
    for (int i = 0; i < argc;) {
        int end = i;
        while (end < argc && strcmp(argv[end], "--") != 0)
            ++end;
        if (end - i < 3 || strcmp(argv[i], "set") != 0)
            return 0;
        if (find_area(argv[i + 1]) == nullptr) {
            fprintf(stderr, "qmtnm: unknown area '%s' (see 'qmtnm areas')\n", argv[i + 1]);
            return 0;
        }
        ++groups;
        i = end + 1;
        if (end + 1 == argc) // a trailing "--"
            return 0;
    }
    return groups;
}

int cmd_try(int argc, char **argv, set_runner run, void *context) {
    uint32_t timeout = kDefaultTimeout;
    if (argc >= 2 && !strcmp(argv[0], "--timeout")) {
        char *end = nullptr;
        unsigned long t = strtoul(argv[1], &end, 10);
        if (*argv[1] == '\0' || *end != '\0' || t == 0 || t > QMTNM_TRY_MAX_SECONDS) {
            fprintf(stderr, "qmtnm: --timeout takes 1 to %u seconds\n", QMTNM_TRY_MAX_SECONDS);
            return 2;
        }
        timeout = static_cast<uint32_t>(t);
        argc -= 2;
        argv += 2;
    }
    if (check_groups(argc, argv) == 0)
        return usage();
    if (int32_t r = qmtnm_try_begin(timeout); r < 0)
        return failed("try", r);
    for (int i = 0, n = 1; i < argc; ++n) {
        int end = i;
        while (end < argc && strcmp(argv[end], "--") != 0)
            ++end;
        if (run(context, end - i - 1, argv + i + 1) != 0) {
            int32_t r = qmtnm_try_rollback();
            fprintf(stderr, "try: set %d (%s) failed; %s\n", n, argv[i + 1],
                    r < 0 ? "rolling back the sets before it failed too"
                          : "the sets before it are rolled back");
            return 10 + n;
        }
        i = end + 1;
    }
    fprintf(stderr,
            "try: pending for %u s: 'qmtnm confirm' keeps the change, else it is rolled back\n",
            timeout);
    return 0;
}

} // namespace

bool is_pending_command(const char *cmd) {
    return !strcmp(cmd, "try") || !strcmp(cmd, "confirm") || !strcmp(cmd, "rollback") ||
           !strcmp(cmd, "pending");
}

int pending_command(const char *cmd, int argc, char **argv, bool json, set_runner run,
                    void *context) {
    if (!strcmp(cmd, "try"))
        return cmd_try(argc, argv, run, context);
    if (argc != 0)
        return usage();
    if (!strcmp(cmd, "pending"))
        return cmd_pending(json);
    bool confirm = !strcmp(cmd, "confirm");
    int32_t r = confirm ? qmtnm_try_confirm() : qmtnm_try_rollback();
    if (r < 0)
        return failed(cmd, r);
    if (confirm) {
        puts("confirmed: the change is kept");
        return 0;
    }
    return cmd_pending(json);
}

} // namespace cli
