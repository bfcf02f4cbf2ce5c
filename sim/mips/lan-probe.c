/* lan-probe of the full-system device: what a laptop on the LAN asks, from the LAN host's eth0
 * (the namespace device's sim/bin/lan-probe is Python, which the device lacks).
 *   lan-probe ssdp           M-SEARCH for upnp:rootdevice; prints each answer's LOCATION
 *   lan-probe mdns NAME      multicast DNS question for NAME (A; PTR for a name starting
 *                            with '_', SRV for one with "._" inside), sent from port 5353; prints
 * each answer in the group, "A NAME ADDR", "PTR NAME TARGET" or "SRV NAME PORT TARGET" Both listen
 * for 2 s; exit 0 when something answered, 1 when nothing did. */
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

static int name_at(const unsigned char *m, int len, int off, char *out, size_t room) {
    int after = -1, hops = 0;
    size_t o = 0;
    for (; off < len && hops < 32;) {
        int n = m[off];
        if ((n & 0xc0) == 0xc0) {
            after = after < 0 ? off + 2 : after;
            off = ((n & 0x3f) << 8) | (off + 1 < len ? m[off + 1] : 0), hops++;
        } else if (n == 0) {
            out[o ? o - 1 : 0] = 0;
            return after < 0 ? off + 1 : after;
        } else if (off + 1 + n > len || o + (size_t)n + 1 >= room) {
            return -1;
        } else {
            memcpy(out + o, m + off + 1, (size_t)n), o += (size_t)n, out[o++] = '.', off += 1 + n;
        }
    }
    return -1;
}

int main(int argc, char **argv) {
    int mdns = argc == 3 && !strcmp(argv[1], "mdns"), one = 1, found = 0;
    if (!mdns && (argc != 2 || strcmp(argv[1], "ssdp")))
        return 2;
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in to = {.sin_family = AF_INET, .sin_port = htons(mdns ? 5353 : 1900)};
    inet_pton(AF_INET, mdns ? "224.0.0.251" : "239.255.255.250", &to.sin_addr);
    struct ip_mreqn mreq = {.imr_multiaddr = to.sin_addr,
                            .imr_ifindex = (int)if_nametoindex("eth0")};
    struct timeval tv = {.tv_usec = 200000};
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    setsockopt(s, IPPROTO_IP, IP_MULTICAST_IF, &mreq, sizeof mreq);
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (mdns) {
        struct sockaddr_in me = {.sin_family = AF_INET, .sin_port = htons(5353)};
        if (bind(s, (struct sockaddr *)&me, sizeof me) ||
            setsockopt(s, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof mreq))
            return perror("lan-probe: port 5353"), 3;
    }
    unsigned char q[512] = {0, 0, 0, 0, 0, 1}, m[1500];
    int ql = 12;
    if (mdns) {
        unsigned char qtype = argv[2][0] == '_' ? 12 : strstr(argv[2], "._") ? 33 : 1;
        for (char *label = strtok(argv[2], "."); label && ql < 480; label = strtok(NULL, ".")) {
            size_t n = strlen(label) < 63 ? strlen(label) : 63;
            q[ql++] = (unsigned char)n, memcpy(q + ql, label, n), ql += (int)n;
        }
        unsigned char tail[5] = {0, 0, qtype, 0, 1};
        memcpy(q + ql, tail, 5), ql += 5;
    } else {
        ql = snprintf((char *)q, sizeof q,
                      "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\n"
                      "MAN: \"ssdp:discover\"\r\nMX: 1\r\nST: upnp:rootdevice\r\n\r\n");
    }
    for (int tick = 0; tick < 10; tick++) {
        if (tick % 3 == 0)
            sendto(s, q, (size_t)ql, 0, (struct sockaddr *)&to, sizeof to);
        int len;
        while ((len = (int)recv(s, m, sizeof m - 1, 0)) > 0) {
            m[len] = 0;
            if (!mdns) {
                for (char *l = strtok((char *)m, "\r\n"); l; l = strtok(NULL, "\r\n"))
                    if (!strncasecmp(l, "LOCATION:", 9) && ++found)
                        printf("%s\n", l + 9 + strspn(l + 9, " "));
                continue;
            }
            if (len < 12 || !(m[2] & 0x80))
                continue;
            int off = 12, an = (m[6] << 8) | m[7];
            char name[256], target[256];
            for (int i = 0;
                 i < an && (off = name_at(m, len, off, name, sizeof name)) > 0 && off + 10 <= len;
                 i++) {
                int rtype = (m[off] << 8) | m[off + 1], rd = off + 10;
                off = rd + ((m[off + 8] << 8) | m[off + 9]);
                if (rtype == 1 && off - rd == 4)
                    printf("A %s %u.%u.%u.%u\n", name, m[rd], m[rd + 1], m[rd + 2], m[rd + 3]);
                else if (rtype == 12 && name_at(m, len, rd, target, sizeof target) > 0)
                    printf("PTR %s %s\n", name, target);
                else if (rtype == 33 && name_at(m, len, rd + 6, target, sizeof target) > 0)
                    printf("SRV %s %d %s\n", name, (m[rd + 4] << 8) | m[rd + 5], target);
                else
                    continue;
                found++;
            }
        }
        if (found && tick >= 5)
            break;
    }
    fflush(stdout);
    return found ? 0 : 1;
}
