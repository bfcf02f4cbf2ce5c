// Helpers shared by the areas: writing a whole configuration file, reading an interface's
// address, netmask or hardware address, rewriting the hosts file, and saving the wired port's
// address into the hardware store. Their error codes use module byte 0x00.
#include "common/area.h"
#include "common/nm_log.h"
#include "common/raii.h"
#include "hconf/hconf_quiet.h"
#include "qmtnm.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#ifndef QMTNM_PRODUCT_HOSTNAME
#error "QMTNM_PRODUCT_HOSTNAME (the device maker's fixed host name) must be defined"
#endif

namespace {

constexpr int32_t kStoreFail = nm::err(QMTNM_MODULE_CORE, QMTNM_R_STORE); // 0xFD00FFFE
constexpr int32_t kOpenFail = nm::err(QMTNM_MODULE_CORE, QMTNM_R_IO);     // 0xFD00FFFD
constexpr mode_t kFileMode = 0644;
constexpr int32_t kInvalid = nm::err(QMTNM_MODULE_CORE, QMTNM_R_INVALID); // 0xFD00FFF9
constexpr const char *kHostsFile = "/var/conf/hosts";
constexpr size_t kHostnameMax = sizeof(qmtnm_bonjour_cfg::hostname);

bool address_or_empty(const char *text) {
    in_addr addr;
    return *text == '\0' || inet_pton(AF_INET, text, &addr) == 1;
}

constexpr uint32_t kHwIpAddr = 0x01000002;
constexpr uint32_t kHwNetmask = 0x01000004;

} // namespace

namespace nm {

int32_t write_private_file(const char *path, const char *text) {
    unique_fd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.ok() || fchmod(fd.get(), 0600) != 0) {
        NM_ERR("open %s fail, errno = %d\n", path, kOpenFail);
        return kOpenFail;
    }
    ssize_t written = write(fd.get(), text, strlen(text));
    (void)written;
    return 0;
}

} // namespace nm

extern "C" {

int32_t write_conf_file(const char *path, uint32_t mode, const char *text) {
    int fd;
    if (mode == 1) {
        fd = open(path, O_RDWR | O_CREAT | O_TRUNC, kFileMode);
    } else if (mode == 2) {
        // No O_CREAT: appending needs the file to be there already.
        fd = open(path, O_RDWR | O_APPEND);
    } else {
        // Any other mode writes to descriptor 0 and closes it: callers passing a wrong mode
        // lose their standard input. Kept as the callers have always seen it.
        fd = 0;
    }
    if (fd < 0) {
        NM_ERR("open %s fail, errno = %d\n", path, kOpenFail);
        return kOpenFail;
    }
    ssize_t written = write(fd, text, strlen(text));
    (void)written;
    close(fd);
    return 0;
}

int32_t nm_get_inaddr(const char *ifname, int32_t which, void *out) {
    nm::unique_fd sock(socket(AF_INET, SOCK_DGRAM, 0));
    if (sock.get() < 0)
        return -errno;
    ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    // The kernel reads at most IFNAMSIZ - 1 characters of the name; so does the copy.
    strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
    if (ioctl(sock.get(), SIOCGIFFLAGS, &ifr) < 0)
        return -errno;

    unsigned long req;
    switch (which) {
    case 0:
        req = SIOCGIFADDR;
        break;
    case 2:
        req = SIOCGIFNETMASK;
        break;
    case 4:
        req = SIOCGIFHWADDR;
        break;
    default:
        return 0; // the interface exists; nothing else is asked
    }
    if (ioctl(sock.get(), req, &ifr) < 0)
        return -errno;
    if (which == 4) {
        memcpy(out, &ifr.ifr_hwaddr, sizeof ifr.ifr_hwaddr); // family + 14 address bytes
    } else {
        const sockaddr &sa = which == 0 ? ifr.ifr_addr : ifr.ifr_netmask;
        sockaddr_in sin;
        memcpy(&sin, &sa, sizeof sin);
        memcpy(out, &sin.sin_addr.s_addr, sizeof sin.sin_addr.s_addr);
    }
    return 0;
}

int32_t update_hosts_file(void) {
    char wan_ip[16] = {};
    char lan_ip[16] = {};
    char hostname[kHostnameMax + 2] = {}; // one more than the field, so a longer name shows
    if (nm::store_get_str("network_wan", "ipaddr", wan_ip, sizeof wan_ip) < 0) {
        NM_ERR("get wan port ip fail, errno = %d\n", kStoreFail);
        return kStoreFail;
    }
    if (nm::store_get_str("network_lan", "ipaddr", lan_ip, sizeof lan_ip) < 0) {
        NM_ERR("get lan port ip fail, errno = %d\n", kStoreFail);
        return kStoreFail;
    }
    if (nm::store_get_str("network_bonjour", "hostname", hostname, sizeof hostname) < 0) {
        NM_ERR("get hostname fail, errno = %d\n", kStoreFail);
        return kStoreFail;
    }
    // Each stored value stands as one field of its line: anything else leaves the file as it was.
    if (!address_or_empty(wan_ip) || !address_or_empty(lan_ip) || strlen(hostname) > kHostnameMax ||
        !nm::text_ok(nm::text_rule::host_word, hostname)) {
        NM_ERR("stored address or hostname refused, errno = %d\n", kInvalid);
        return kInvalid;
    }
    nm::unique_file hosts(fopen(kHostsFile, "w"));
    if (!hosts) {
        NM_ERR("open %s fail, errno = %d\n", kHostsFile, kOpenFail);
        return kOpenFail;
    }
    NM_TRACE("wan_ip: %s lan_ip: %s hostname: %s\n", wan_ip, lan_ip, hostname);
    FILE *f = hosts.get();
    fputs("# Do not remove the following line, or various programs\n", f);
    fputs("# that require network functionality will fail.\n", f);
    fputs("127.0.0.1\tlocalhost.localdomain\tlocalhost\n", f);
    fprintf(f, "%s\t%s\n", wan_ip, hostname);
    fprintf(f, "%s\t%s\n", lan_ip, QMTNM_PRODUCT_HOSTNAME);
    return 0;
}

void save_hw_conf(int32_t which, struct in_addr addr) {
    uint32_t id;
    if (which == 0)
        id = kHwIpAddr;
    else if (which == 1)
        id = kHwNetmask;
    else
        return;
    // The address's bytes most significant first, as in the dotted quad.
    char text[64] = {};
    snprintf(text, sizeof text, "0x%08x:0:4:%08x", id, ntohl(addr.s_addr));
    // The store's quiet forms: nothing on the caller's standard output, nothing reported.
    nm::unique_heap<qmt_hconf_entry_rec> entry(nm::hconf::entry_quiet(text));
    if (!entry)
        return;
    nm::hconf::write_entry_quiet(entry.get());
    nm::hconf::sync_quiet();
}

} // extern "C"
