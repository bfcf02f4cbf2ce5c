// The common helpers write_conf_file and update_hosts_file in the test namespaces (private /tmp
// and /var; /dev/log captured). save_hw_conf is with the device tests.
#include "qmt_conf.h"
#include "support/test_support.h"

#include <fstream>
#include <sys/stat.h>

using strings = std::vector<std::string>;

namespace {

const char *const keys[3][2] = {
    {"network_wan", "ipaddr"}, {"network_lan", "ipaddr"}, {"network_bonjour", "hostname"}};
const int32_t kOpenFail = static_cast<int32_t>(0xFD00FFFDu);

TEST(CommonHelpers, WriteConfFile) {
    const std::string x = "/tmp/x.conf", none = "/tmp/none.conf", deep = "/tmp/no/x.conf";
    umask(0);
    nm_log_level = 0; // errors are logged from level 0 up
    const struct {
        std::string path;
        uint32_t mode;
        const char *text;
        std::string file; // after the call
    } rows[] = {
        {x, 1, "a much longer first content\n", "a much longer first content\n"},
        {x, 1, "first\n", "first\n"},
        {x, 2, "second\n", "first\nsecond\n"},
        {none, 2, "text\n", "<missing>"}, // appending never creates
        {deep, 1, "text\n", "<missing>"},
    };
    for (const auto &r : rows) {
        const bool fails = r.file == "<missing>";
        nmtest::logs().clear();
        EXPECT_EQ(write_conf_file(r.path.c_str(), r.mode, r.text), fails ? kOpenFail : 0) << r.path;
        EXPECT_EQ(nmtest::file_text(r.path.c_str()), r.file);
        const std::string log = "open " + r.path + " fail, errno = -50266115";
        EXPECT_EQ(nmtest::logs().texts(),
                  fails ? strings{nmtest::logged("write_conf_file", log)} : strings{});
    }
    struct stat st;
    EXPECT_EQ(stat(x.c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0644u);
}

TEST(CommonHelpers, UpdateHostsFile) {
    const char *hosts = "/var/conf/hosts", *gone = "<removed from the store>";
    const std::string W = "192.168.0.100", L = "192.168.1.1", h64(64, 'h'), earlier(4000, '#'),
                      refused = "stored address or hostname refused, errno = -50266119",
                      missing = " fail, errno = -50266114",
                      top = "# Do not remove the following line, or various programs\n# that "
                            "require network functionality will fail.\n127.0.0.1\t"
                            "localhost.localdomain\tlocalhost\n";
    const struct {
        std::string stored[3]; // WAN address, LAN address, host name
        int32_t result;
        std::string log; // of a failure
    } rows[] = {
        {{W, L, h64}, 0, ""}, // a name that fills the Bonjour record's field
        {{"255.255.255.255", "10.0.0.1", ""}, 0, ""},
        // A stored value that would not stay one field of its line leaves the file as it was.
        {{W, L, "cam evil"}, static_cast<int32_t>(0xFD00FFF9u), refused},
        {{"1.1.1.1\t#", L, "cam"}, static_cast<int32_t>(0xFD00FFF9u), refused},
        {{gone, L, "cam"}, static_cast<int32_t>(0xFD00FFFEu), "get wan port ip" + missing},
        {{W, gone, gone}, static_cast<int32_t>(0xFD00FFFEu), "get lan port ip" + missing},
        {{W, L, gone}, static_cast<int32_t>(0xFD00FFFEu), "get hostname" + missing},
        {{W, L, "cam"}, kOpenFail, "open /var/conf/hosts fail, errno = -50266115"}, // a directory
    };
    nm_log_level = 2;
    for (const auto &r : rows) {
        const std::string &wan = r.stored[0], &lan = r.stored[1], &host = r.stored[2];
        SCOPED_TRACE(wan + "/" + lan + "/" + host);
        for (int i = 0; i < 3; ++i) {
            const char *area = keys[i][0], *field = keys[i][1];
            ASSERT_EQ(qmt_conf_printf("network", "%k%k%s", area, field, r.stored[i].c_str()), 0);
            if (r.stored[i] == gone) {
                ASSERT_EQ(qmt_conf_printf("network", "%k%k%r", area, field), 0);
            }
        }
        unlink(hosts);
        if (r.result == kOpenFail)
            ASSERT_EQ(mkdir(hosts, 0755), 0);
        else
            std::ofstream(hosts) << earlier;
        nmtest::logs().clear();
        EXPECT_EQ(update_hosts_file(), r.result);
        const std::string ok = "wan_ip: " + wan + " lan_ip: " + lan + " hostname: " + host;
        EXPECT_EQ(nmtest::logs().texts(),
                  strings{nmtest::logged("update_hosts_file", r.result ? r.log : ok)});
        if (r.result != kOpenFail) {
            EXPECT_EQ(nmtest::file_text(hosts), r.result
                                                    ? earlier
                                                    : top + wan + "\t" + host + "\n" + lan + "\t" +
                                                          QMTNM_PRODUCT_HOSTNAME + "\n");
        }
    }
}

} // namespace
