// The hardware store: its records and text form (the parsers, with ch_hex, and the dumps), then
// its device operations, save_hw_conf and the hconf tool on the driver stand-in (preloaded by
// ctest). The store reports with printf: a row gives all that its commands print.
#include "qmt_hconf.h"
#include "qmtnm.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <sstream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace std::string_literals;

namespace {

char dir_template[] = "/tmp/hconf-dev.XXXXXX";
const std::string dir = mkdtemp(dir_template), image = dir + "/image";

// The text at the end of a readable page before an inaccessible one: a read past it faults.
const char *at_page_end(const std::string &text) {
    static char *end = [] {
        const long page = sysconf(_SC_PAGESIZE);
        auto *m = static_cast<char *>(
            mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (m == MAP_FAILED || mprotect(m + page, page, PROT_NONE) != 0)
            abort();
        return m + page;
    }();
    return static_cast<char *>(memcpy(end - text.size() - 1, text.c_str(), text.size() + 1));
}

// The tool in a child on this process's standard output; no shell: HCONF_TOOL may hold an emulator.
int tool(const std::string &args) {
    std::istringstream split(HCONF_TOOL " " + args);
    std::vector<std::string> words{std::istream_iterator<std::string>(split), {}};
    std::vector<char *> argv(words.size() + 1);
    std::transform(words.begin(), words.end(), argv.begin(), [](auto &w) { return w.data(); });
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0)
        dup2(1, 2), execvp(argv[0], argv.data()), _exit(127);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Prints the file ("<missing>" when there is none) and removes it.
int print(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    const std::string text = f ? std::string(std::istreambuf_iterator<char>(f), {}) : "<missing>";
    fwrite(text.data(), 1, text.size(), stdout);
    return unlink(path.c_str()), 0;
}

// A committed image: an entry of an invalid type, then one of len bytes (65505 fill the image).
void image_with(uint16_t len) {
    std::string img = "noch\2\0\0\0\0\0\1\0"s + "0\0\0\0\2\0\3\0xyz"s + "\2\0\0\0\0\0"s;
    img.append(reinterpret_cast<const char *>(&len), 2).resize(65536);
    std::ofstream(image, std::ios::binary) << img;
}

// One command: "$" runs the tool; "@/" is the test's directory.
int run(std::string cmd) {
    static qmt_hconf_header_rec header;
    for (size_t at; (at = cmd.find("@/")) != std::string::npos;)
        cmd.replace(at, 1, dir);
    const size_t sp = cmd.find(' ');
    const std::string verb = cmd.substr(0, sp), arg = sp == cmd.npos ? "" : cmd.substr(sp + 1);
    if (verb == "header" || verb == "entry") { // a parse; -1 when it refuses the text
        const char *text = at_page_end(arg);
        std::unique_ptr<void, decltype(&free)> rec(
            verb == "header" ? static_cast<void *>(qmt_hconf_header(text)) : qmt_hconf_entry(text),
            free);
        return rec ? 0 : -1;
    }
    if (verb == "in") // the text of @/in.txt
        return std::ofstream(dir + "/in.txt") << arg, 0;
    if (in_addr a{}; verb == "hw") // save_hw_conf(which, address)
        return inet_pton(AF_INET, arg.c_str() + 2, &a) == 1 ? save_hw_conf(arg[0] - '0', a), 0 : -2;
    if (verb == "image")
        image_with(static_cast<uint16_t>(std::stoul(arg)));
    if (verb == "reboot" || verb == "image") // the driver reloads the committed image
        return unlink((image + ".work").c_str()), 0;
    return verb == "$"                     ? tool(arg)
           : verb == "read-header"         ? qmt_hconf_read_header(&header)
           : verb == "set-header"          ? qmt_hconf_write_header(&header)
           : verb == "update"              ? qmt_hconf_update(arg.c_str())
           : verb == "save" && arg.empty() ? qmt_hconf_save(nullptr)
           : verb == "save" ? qmt_hconf_save(arg.c_str()) + print(arg) // and prints the file
                            : -1000;
}

struct Step {
    std::string cmds, out; // commands separated by "; ", and all that they print
    int result = 0;        // the sum of the commands' results or exit statuses
    const char *fail = ""; // the requests the stand-in refuses: numbers, or "open"
};

void play(std::initializer_list<Step> steps) {
    for (const Step &s : steps) {
        SCOPED_TRACE(s.cmds);
        setenv("HCONF_STANDIN_FAIL", s.fail, 1);
        int r = 0;
        fflush(stdout);
        testing::internal::CaptureStdout();
        std::string cmds = s.cmds + "; ";
        for (size_t at; (at = cmds.find("; ")) != cmds.npos; cmds.erase(0, at + 2))
            r += run(cmds.substr(0, at));
        fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), s.out);
        EXPECT_EQ(r, s.result);
    }
}

// A parse prints the dump of the record it returns, so the printed text pins every field.
TEST(HconfText, ParseAndDump) {
    const std::string H = "qmt_hconf_header: ERROR: ", bad = "ch_hex: ERROR: bad char: ";
    play({
        {"header 0x68636f6e:64:65536", "header: 0x68636f6e num 64 len 65536\n"},
        {"header 0x68636f6e:65:0", H + "too much entry: 65\n", -1},
        {"header 0x68636f6e:1:65537", H + "too long: 65537\n", -1},
        // Any one character separates numbers of base 0, as strtol reads them, of 32 bits.
        {"header   1751347054#0X40 +0200000", "header: 0x68636f6e num 64 len 65536\n"},
        {"header 0x68636f6e:0x", "header: 0x68636f6e num 0 len 0\n"},
        {"header -0x68636f6e:0:0", H + "bad magic: 0x979c9092\n", -1},
        {"header 0x168636f6e:0:0", H + "bad magic: 0x7fffffff\n", -1},
        {"header 0x68636f6e:-4294967296:0", H + "too much entry: -2147483648\n", -1},
        {"entry 0x01000002:0:4:c0a80101", "entry: 0x1000002 type 0 len 4: c0 a8 01 01 \n"},
        {"entry 0x10:1:5:hello", "entry: 0x10 type 1 len 5: hello\n"},
        {"entry 0x10:2:1:00", "qmt_hconf_entry: ERROR: bad entry type: 2\n", -1},
        {"entry 0x1:0:11:0123456789ABCDEFabcdef",
         "entry: 0x1 type 0 len 11: 01 23 45 67 89 ab cd ef ab cd ef \n"},
        {"entry 0x1:0:4:/:@G`gg1", bad + "/\n" + bad + ":\n" + bad + "@\n" + bad + "G\n" + bad +
                                       "`\n" + bad + "g\n" + bad +
                                       "g\nentry: 0x1 type 0 len 4: 00 00 00 01 \n"},
        // Type and len keep their low 16 bits; the id is unsigned.
        {"entry 0x1:65536:1:7f", "entry: 0x1 type 0 len 1: 7f \n"},
        {"entry 0x1:1:65538:xyz", "entry: 0x1 type 1 len 2: xy\n"},
        {"entry -16:0:0:", "entry: 0xfffffff0 type 0 len 0: \n"},
        // Data shorter than len: read up to the terminator, the rest is zero.
        {"entry 0x1:0:4:c0a", "entry: 0x1 type 0 len 4: c0 a0 00 00 \n"},
        {"entry 0x1:1:4:hi", "entry: 0x1 type 1 len 4: hi\0\0\n"s},
        {"entry 0x1:1:65535:", "entry: 0x1 type 1 len 65535: " + std::string(65535, '\0') + "\n"},
        // A line read from a file keeps its newline, which is data like any other character.
        {"entry 0x1:0:2:0a\n", bad + "\n\nentry: 0x1 type 0 len 2: 0a 00 \n"},
    });
}

TEST(HconfDevice, Script) {
    setenv("HCONF_STANDIN_IMAGE", image.c_str(), 1);
    const std::string x42 = "entry: 0x42 type 0 len 1: 5a \n", ip = "0x1000002:0:4:c0a8010a\n",
                      hi = "0x10:1:2:hi\n", x3 = "0x3:0:1:03\n0x1:1:2:hi\n0x2:0:0:\n",
                      bad_type = "qmt_hconf_save: ERROR: invalid entry type: 2\n",
                      bad2 = "qmt_hconf_entry: ERROR: bad entry type: 2\n",
                      usage = "usage: hconf save [FILE] | update FILE | header | read ID | "
                              "write TEXT |\n             delete ID | sync | clear\n";
    play({
        // Each call issues its own request: refused by that number, the call fails.
        {"$ write 0x42:0:1:5a; read-header; set-header; $ read 0x42",
         x42 + "header: 0x68636f6e num 1 len 21\n" + x42},
        {"$ write 0x4:0:0:",
         "entry: 0x4 type 0 len 0: \nqmt_hconf_write_entry: ERROR: write entry failed\n", 1, "6"},
        {"read-header", "qmt_hconf_read_header: ERROR: read header failed\n", -1, "3"},
        {"$ delete 66; $ delete 66", "qmt_hconf_del_entry: ERROR: delete entry failed\n", 1},
        // Update: every entry in order, short lines skipped, nothing committed.
        {"in 0x3:0:1:03\n\n0x1:1:2:hi\nabcd\n0x2:0:0:\n12345; update @/in.txt; save; save @/o.txt; "
         "reboot; save",
         "entry: 0x3 type 0 len 1: 03 \nentry: 0x1 type 1 len 2: hi\nentry: 0x2 type 0 len 0: \n" +
             x3 + x3},
        {"save @/o.txt", "qmt_hconf_save: ERROR: failed read all\n<missing>", -1, "1"},
        {"save @/o.txt", "qmt_hconf_save: ERROR: open /dev/hconf failed\n<missing>", -1, "open"},
        {"save @/no/f", "qmt_hconf_save: ERROR: open " + dir + "/no/f failed\n<missing>"},
        // An update stops at its first failure; entries of earlier lines stay written.
        {"in 0x1:0:1:01\n0x30:2:1:00\n0x2:0:1:02\n; update @/in.txt; save",
         "entry: 0x1 type 0 len 1: 01 \n" + bad2 +
             "qmt_hconf_update: ERROR: failed parse entry: 0x30:2:1:00\n\n0x1:0:1:01\n",
         -1},
        {"update @/none", "qmt_hconf_update: ERROR: open " + dir + "/none failed\n", -1},
        // save_hw_conf (a static WAN set): the address (0) or netmask (1), committed, silently.
        {"reboot; hw 1 255.255.255.0; hw 0 192.168.1.10; hw 2 1.2.3.4", ""},
        {"hw 0 10.0.0.7", "", 0, "7"},
        {"reboot; save", "0x1000004:0:4:ffffff00\n" + ip},
        // The tool: exit status 0, 1 for a failed call, 2 for a usage error.
        {"$ clear; $ write 0x10:1:2:hi; $ save @/s.txt; $ clear; $ update @/s.txt; save",
         "entry: 0x10 type 1 len 2: hi\nentry: 0x10 type 1 len 2: hi\n" + hi},
        {"$ write 0x01000002:0:4:c0a8010a; $ save; $ header",
         "entry: 0x1000002 type 0 len 4: c0 a8 01 0a \n" + hi + ip +
             "header: 0x68636f6e num 2 len 34\n"},
        {"$ sync; $ delete 16; $ read 16", "qmt_hconf_read_entry: ERROR: read entry failed\n", 1},
        {"$ write 0x1:2:0:", bad2, 1},
        {"$ save @/no/f", "hconf: cannot write " + dir + "/no/f: No such file or directory\n", 1},
        {"reboot; $ save", hi + ip}, // what the tool's sync committed
        {"$ delete x; $ sync x", "hconf: bad id: x\n" + usage, 4},
        // The save walks the image as far as its entries stay inside it.
        {"image 65505; save @/o.txt",
         bad_type + "0x30:2:3:\n0x2:0:65505:" + std::string(2 * 65505, '0') + "\n"},
        {"image 65506; save @/o.txt", bad_type + "0x30:2:3:\n"},
    });
}

} // namespace
