// Device operations of the hardware store, save_hw_conf and the hconf tool, on the driver stand-in
// (preloaded by ctest): one script. A step runs commands ("$": the tool, "@": the test's directory)
// with the requests the stand-in refuses, and gives the result and all they print.
#include "hconf_test_util.h"

#include "qmtnm.h"

#include <arpa/inet.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace std::string_literals;

namespace {

char dir_template[] = "/tmp/hconf-dev.XXXXXX";
const std::string dir = mkdtemp(dir_template), image = dir + "/image";

// The tool in a child writing to this process's standard output; HCONF_TOOL may hold an emulator.
int tool(const std::string &args) {
    std::istringstream split(HCONF_TOOL " " + args);
    std::vector<std::string> words{std::istream_iterator<std::string>(split), {}};
    std::vector<char *> argv;
    for (std::string &w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(1, 2);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Prints the file ("<missing>" when there is none) and removes it.
int cat(const std::string &path) {
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

int run(std::string cmd) {
    static qmt_hconf_header_rec header;
    for (size_t at; (at = cmd.find('@')) != std::string::npos;)
        cmd.replace(at, 1, dir);
    const size_t sp = cmd.find(' ');
    const std::string verb = cmd.substr(0, sp), arg = sp == cmd.npos ? "" : cmd.substr(sp + 1);
    in_addr a{};
    if (verb == "in") // the text of @/in.txt
        return std::ofstream(dir + "/in.txt") << arg, 0;
    if (verb == "hw") // save_hw_conf(which, address)
        return inet_pton(AF_INET, arg.c_str() + 2, &a) == 1 ? save_hw_conf(arg[0] - '0', a), 0 : -2;
    if (verb == "image")
        image_with(static_cast<uint16_t>(std::stoul(arg)));
    if (verb == "reboot" || verb == "image") // the driver reloads the committed image
        return unlink((image + ".work").c_str()), 0;
    return verb == "$"            ? tool(arg)
           : verb == "header"     ? qmt_hconf_read_header(&header)
           : verb == "set-header" ? qmt_hconf_write_header(&header)
           : verb == "update"     ? qmt_hconf_update(arg.c_str())
           : verb == "save"       ? qmt_hconf_save(arg.empty() ? nullptr : arg.c_str())
           : verb == "cat"        ? cat(arg)
                                  : -1000;
}

TEST(HconfDevice, Script) {
    setenv("HCONF_STANDIN_IMAGE", image.c_str(), 1);
    const std::string x42 = "entry: 0x42 type 0 len 1: 5a \n",
                      dev = " ERROR: open /dev/hconf failed\n", ip = "0x1000002:0:4:c0a8010a\n",
                      hi = "0x10:1:2:hi\n", x3 = "0x3:0:1:03\n0x1:1:2:hi\n0x2:0:0:\n",
                      bad_type = "qmt_hconf_save: ERROR: invalid entry type: 2\n",
                      bad2 = "qmt_hconf_entry: ERROR: bad entry type: 2\n",
                      usage = "usage: hconf save [FILE] | update FILE | header | read ID | "
                              "write TEXT |\n             delete ID | sync | clear\n";
    const struct {
        const char *fail; // the requests refused: numbers, or "open"
        const char *cmds; // separated by "; "
        int result;       // the sum of the commands' results or exit statuses
        std::string out;
    } steps[] = {
        // Each call issues its own request: refused by that number, the call fails.
        {"", "$ write 0x42:0:1:5a; header; set-header; $ read 0x42", 0,
         x42 + "header: 0x68636f6e num 1 len 21\n" + x42},
        {"6", "$ write 0x4:0:0:", 1,
         "entry: 0x4 type 0 len 0: \nqmt_hconf_write_entry: ERROR: write entry failed\n"},
        {"3", "header", -1, "qmt_hconf_read_header: ERROR: read header failed\n"},
        {"4", "set-header", -1, "qmt_hconf_write_header: ERROR: write header failed\n"},
        {"5", "$ read 0x42", 1, "qmt_hconf_read_entry: ERROR: read entry failed\n"},
        {"9", "$ delete 0x42", 1, "qmt_hconf_del_entry: ERROR: delete entry failed\n"},
        {"", "$ delete 66; $ delete 66", 1, "qmt_hconf_del_entry: ERROR: delete entry failed\n"},
        {"7", "$ sync", 1, "qmt_hconf_sync: ERROR: sync failed\n"},
        {"8", "$ clear", 1, "qmt_hconf_clear: ERROR: clear failed\n"},
        {"open", "$ sync", 1, "qmt_hconf_sync:" + dev},
        // Update: every entry in order, short lines skipped, nothing committed.
        {"",
         "in 0x3:0:1:03\n\n0x1:1:2:hi\nabcd\n0x2:0:0:\n12345; update @/in.txt; save; save @/o.txt; "
         "cat @/o.txt; reboot; save",
         0,
         "entry: 0x3 type 0 len 1: 03 \nentry: 0x1 type 1 len 2: hi\nentry: 0x2 type 0 len 0: \n" +
             x3 + x3},
        {"1", "save @/o.txt; cat @/o.txt", -1, "qmt_hconf_save: ERROR: failed read all\n<missing>"},
        {"open", "save @/o.txt; cat @/o.txt", -1, "qmt_hconf_save:" + dev + "<missing>"},
        {"", "save @/no/f", 0, "qmt_hconf_save: ERROR: open " + dir + "/no/f failed\n"},
        // An update stops at its first failure; entries of earlier lines stay written.
        {"", "in 0x1:0:1:01\n0x30:2:1:00\n0x2:0:1:02\n; update @/in.txt; save", -1,
         "entry: 0x1 type 0 len 1: 01 \n" + bad2 +
             "qmt_hconf_update: ERROR: failed parse entry: 0x30:2:1:00\n\n0x1:0:1:01\n"},
        {"", "update @/none", -1, "qmt_hconf_update: ERROR: open " + dir + "/none failed\n"},
        // save_hw_conf: the address (0) or netmask (1) entry, written and committed.
        {"", "reboot; hw 1 255.255.255.0; hw 0 192.168.1.10; hw 2 1.2.3.4", 0,
         "entry: 0x1000004 type 0 len 4: ff ff ff 00 \nentry: 0x1000002 type 0 len 4: c0 a8 01 0a "
         "\n"},
        {"7", "hw 0 10.0.0.7", 0,
         "entry: 0x1000002 type 0 len 4: 0a 00 00 07 \nqmt_hconf_sync: ERROR: sync failed\n"},
        {"", "reboot; save", 0, "0x1000004:0:4:ffffff00\n" + ip},
        // The tool: exit status 0, 1 for a failed call, 2 for a usage error.
        {"", "$ clear; $ write 0x10:1:2:hi; $ save @/s.txt; $ clear; $ update @/s.txt; cat @/s.txt",
         0, "entry: 0x10 type 1 len 2: hi\nentry: 0x10 type 1 len 2: hi\n" + hi},
        {"", "$ write 0x01000002:0:4:c0a8010a; $ save; $ header", 0,
         "entry: 0x1000002 type 0 len 4: c0 a8 01 0a \n" + hi + ip +
             "header: 0x68636f6e num 2 len 34\n"},
        {"", "$ sync; $ delete 16; $ read 16", 1,
         "qmt_hconf_read_entry: ERROR: read entry failed\n"},
        {"", "$ write 0x1:2:0:", 1, bad2},
        {"", "$ save @/no/f", 1,
         "hconf: cannot write " + dir + "/no/f: No such file or directory\n"},
        {"", "reboot; $ save", 0, hi + ip}, // what the tool's sync committed
        {"", "$ delete x; $ sync x", 4, "hconf: bad id: x\n" + usage},
        // The save walks the image as far as its entries stay inside it.
        {"", "image 65505; save @/o.txt; cat @/o.txt", 0,
         bad_type + "0x30:2:3:\n0x2:0:65505:" + std::string(2 * 65505, '0') + "\n"},
        {"", "image 65506; save @/o.txt; cat @/o.txt", 0, bad_type + "0x30:2:3:\n"},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.cmds);
        setenv("HCONF_STANDIN_FAIL", s.fail, 1);
        int r = 0;
        EXPECT_EQ(stdout_of([&] {
                      std::string cmds = std::string(s.cmds) + "; ";
                      for (size_t at; (at = cmds.find("; ")) != cmds.npos; cmds.erase(0, at + 2))
                          r += run(cmds.substr(0, at));
                  }),
                  s.out);
        EXPECT_EQ(r, s.result);
    }
}

} // namespace
