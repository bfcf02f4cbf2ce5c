// sysconf: read and change the settings store from the shell.
#include "qmt_conf.h"

#include <cstdio>
#include <cstring>

namespace {

// Usage on stderr (status 2), or for --help on stdout (status 0).
int usage(FILE *out = stderr) {
    fputs("usage: sysconf get PATH            print one value\n"
          "       sysconf set PATH VALUE      VALUE is an integer or a \"quoted string\"\n"
          "       sysconf set -s PATH TEXT    store TEXT as a string\n"
          "       sysconf del PATH            delete a value and everything below it\n"
          "       sysconf dump [PREFIX]       print every value (as loadable text)\n"
          "       sysconf load [--replace] FILE   load values from FILE ('-' for stdin)\n"
          "       sysconf db                  print the database file in use\n"
          "       sysconf --help              print this help\n"
          "PATH is domain/section/key, e.g. network/network_qos/enable; list elements are #N.\n",
          out);
    return out == stdout ? 0 : 2;
}

const char *describe(int r) {
    switch (r) {
    case QMT_CONF_ENOENT:
        return "no such value";
    case QMT_CONF_EFORMAT:
        return "bad path or value";
    case QMT_CONF_ESTORE:
        return "settings store unavailable";
    case QMT_CONF_ETYPE:
        return "value of another type";
    default:
        return "failed";
    }
}

int fail(const char *what, int r) {
    fprintf(stderr, "sysconf: %s: %s (%d)\n", what, describe(r), r);
    return 1;
}

// Quotes text as a string value of the text form.
int set_string(const char *path, const char *text) {
    char quoted[2048];
    size_t n = 0;
    quoted[n++] = '"';
    for (const char *p = text; *p && n + 3 < sizeof quoted; ++p) {
        const char *esc = *p == '"'    ? "\\\""
                          : *p == '\\' ? "\\\\"
                          : *p == '\n' ? "\\n"
                          : *p == '\t' ? "\\t"
                                       : nullptr;
        if (esc) {
            quoted[n++] = esc[0];
            quoted[n++] = esc[1];
        } else {
            quoted[n++] = *p;
        }
    }
    quoted[n++] = '"';
    quoted[n] = '\0';
    return sysconf_set_path(path, quoted);
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2)
        return usage();
    const char *cmd = argv[1];
    if (!strcmp(cmd, "-h") || !strcmp(cmd, "--help"))
        return usage(stdout);
    int r;
    if (!strcmp(cmd, "get") && argc == 3) {
        char value[2048];
        r = sysconf_get_path(argv[2], value, sizeof value);
        if (r < 0)
            return fail(argv[2], r);
        puts(value);
        return 0;
    }
    if (!strcmp(cmd, "set") && argc == 5 && !strcmp(argv[2], "-s"))
        r = set_string(argv[3], argv[4]);
    else if (!strcmp(cmd, "set") && argc == 4)
        r = sysconf_set_path(argv[2], argv[3]);
    else if (!strcmp(cmd, "del") && argc == 3)
        r = sysconf_del_path(argv[2]);
    else if (!strcmp(cmd, "dump") && argc <= 3)
        r = sysconf_dump(stdout, argc == 3 ? argv[2] : "");
    else if (!strcmp(cmd, "db") && argc == 2)
        return puts(sysconf_db_path()) < 0;
    else if (!strcmp(cmd, "load") && (argc == 3 || argc == 4)) {
        bool replace = argc == 4 && !strcmp(argv[2], "--replace");
        if (argc == 4 && !replace)
            return usage();
        const char *file = argv[argc - 1];
        FILE *in = strcmp(file, "-") ? fopen(file, "r") : stdin;
        if (in == nullptr) {
            perror(file);
            return 1;
        }
        r = sysconf_load(in, replace);
        if (in != stdin)
            fclose(in);
        if (r >= 0)
            fprintf(stderr, "sysconf: loaded %d values into %s\n", r, sysconf_db_path());
    } else
        return usage();
    return r < 0 ? fail(cmd, r) : 0;
}
