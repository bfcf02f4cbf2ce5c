/* mDNSResponderPosix stand-in of the full-system device (the responder has no Debian package
 * and the device has no Python for sim/bin/mDNSResponderPosix-standin). The device runs it as
 * /bin/mDNSResponderPosix, with the command line the Bonjour area gives:
 *     mDNSResponderPosix -n -t TYPE -p PORT [-b]
 * The name is the host name at start, up to its first dot (at most 63 bytes). With -b the
 * parent exits 0 at once and the child writes /var/run/mDNSResponder.pid. Over multicast DNS on
 * br0 (224.0.0.251 port 5353) it answers a question for NAME.local (A: br0's IPv4 address), for
 * TYPE.local (PTR: NAME.TYPE.local) and for NAME.TYPE.local (SRV: PORT on NAME.local). Answers
 * go to the group, or straight back to a querier whose source port is not 5353, with its id and
 * question. It does not probe, announce or rename on a conflict; TERM ends it. */
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

static char host[64], type[128];
static int port = -1;

/* Appends NAME (dotted) as DNS labels; returns the new end, or NULL when it does not fit. */
static uint8_t *put_name(uint8_t *p, const uint8_t *end, const char *name) {
    while (*name) {
        size_t n = strcspn(name, ".");
        if (n == 0 || n > 63 || p + n + 2 > end)
            return NULL;
        *p++ = (uint8_t)n;
        memcpy(p, name, n);
        p += n;
        name += n + (name[n] == '.');
    }
    *p++ = 0;
    return p;
}

/* Reads the name at OFF of the message into OUT (dotted, lower case kept); returns the offset
 * after it in place, or -1. Compression pointers are followed. */
static int get_name(const uint8_t *m, int len, int off, char *out, size_t room) {
    int after = -1, hops = 0;
    size_t o = 0;
    while (off < len && hops < 32) {
        uint8_t n = m[off];
        if ((n & 0xc0) == 0xc0) {
            if (off + 1 >= len)
                return -1;
            if (after < 0)
                after = off + 2;
            off = ((n & 0x3f) << 8) | m[off + 1];
            hops++;
            continue;
        }
        if (n == 0) {
            out[o ? o - 1 : 0] = 0;
            return after < 0 ? off + 1 : after;
        }
        if (off + 1 + n > len || o + n + 1 >= room)
            return -1;
        memcpy(out + o, m + off + 1, n);
        o += n;
        out[o++] = '.';
        off += 1 + n;
    }
    return -1;
}

static uint8_t *put_record(uint8_t *p, const uint8_t *end, const char *name, int rtype) {
    if (!(p = put_name(p, end, name)) || p + 10 > end)
        return NULL;
    uint8_t head[8] = {0, (uint8_t)rtype, 0x80, 1, 0, 0, 0x00, 0x78}; /* cache flush, TTL 120 */
    memcpy(p, head, 8);
    return p + 10; /* the data length is filled in by the caller */
}

static void set_len(uint8_t *data, uint8_t *after) {
    size_t n = (size_t)(after - data);
    data[-2] = (uint8_t)(n >> 8);
    data[-1] = (uint8_t)n;
}

int main(int argc, char **argv) {
    int opt, background = 0;
    while ((opt = getopt(argc, argv, "nt:p:b")) != -1) {
        if (opt == 't' && strlen(optarg) < 64)
            snprintf(type, sizeof type, "%s", optarg);
        else if (opt == 'p')
            port = atoi(optarg);
        else if (opt == 'b')
            background = 1;
        else if (opt != 'n')
            return 2;
    }
    if (!type[0] || port < 0 || port > 65535 || gethostname(host, sizeof host) != 0)
        return 2;
    host[strcspn(host, ".")] = 0;
    if (type[strlen(type) - 1] == '.') /* "_http._tcp." as the area gives it */
        type[strlen(type) - 1] = 0;
    if (background) {
        if (daemon(0, 0) != 0)
            return 1;
        FILE *f = fopen("/var/run/mDNSResponder.pid", "w");
        if (f)
            fprintf(f, "%d\n", (int)getpid()), fclose(f);
    }
    openlog("mDNSResponderPosix", LOG_PID, LOG_DAEMON);
    int s = socket(AF_INET, SOCK_DGRAM, 0), one = 1;
    struct sockaddr_in any = {.sin_family = AF_INET, .sin_port = htons(5353)};
    struct ifreq ifr = {0};
    strcpy(ifr.ifr_name, "br0");
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (s < 0 || bind(s, (struct sockaddr *)&any, sizeof any) != 0 || ioctl(s, SIOCGIFADDR, &ifr)) {
        syslog(LOG_ERR, "no socket on br0 port 5353");
        return 1;
    }
    struct in_addr addr = ((struct sockaddr_in *)&ifr.ifr_addr)->sin_addr;
    struct ip_mreqn mreq = {.imr_ifindex = (int)if_nametoindex("br0")};
    inet_pton(AF_INET, "224.0.0.251", &mreq.imr_multiaddr);
    setsockopt(s, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof mreq);
    setsockopt(s, IPPROTO_IP, IP_MULTICAST_IF, &mreq, sizeof mreq);
    char host_local[80], type_local[140], instance[220];
    snprintf(host_local, sizeof host_local, "%s.local", host);
    snprintf(type_local, sizeof type_local, "%s.local", type);
    snprintf(instance, sizeof instance, "%s.%s", host, type_local);
    syslog(LOG_INFO, "answering for %s and %s on port %d", host_local, instance, port);

    for (;;) {
        uint8_t q[1500], r[1500];
        struct sockaddr_in from;
        socklen_t fl = sizeof from;
        int len = (int)recvfrom(s, q, sizeof q, 0, (struct sockaddr *)&from, &fl);
        if (len < 12 || (q[2] & 0x80)) /* responses are not questions */
            continue;
        int legacy = ntohs(from.sin_port) != 5353, off = 12, answers = 0;
        uint8_t *p = r + 12, *end = r + sizeof r;
        memset(r, 0, 12);
        r[2] = 0x84; /* response, authoritative */
        for (int i = 0, qd = (q[4] << 8) | q[5]; i < qd && p; i++) {
            char name[256];
            if ((off = get_name(q, len, off, name, sizeof name)) < 0 || off + 4 > len)
                break;
            int qtype = (q[off] << 8) | q[off + 1];
            off += 4;
            uint8_t *data;
            if (!strcasecmp(name, host_local) && (qtype == 1 || qtype == 255)) {
                if ((p = put_record(p, end, host_local, 1)) && p + 4 <= end) {
                    data = p;
                    memcpy(p, &addr, 4);
                    set_len(data, p += 4);
                    answers++;
                }
            } else if (!strcasecmp(name, type_local) && (qtype == 12 || qtype == 255)) {
                if ((p = put_record(p, end, type_local, 12))) {
                    data = p;
                    data[-8] = 0; /* a shared record: no cache flush */
                    if ((p = put_name(p, end, instance)))
                        set_len(data, p), answers++;
                }
            } else if (!strcasecmp(name, instance) && (qtype == 33 || qtype == 255)) {
                if ((p = put_record(p, end, instance, 33)) && p + 6 <= end) {
                    data = p;
                    uint8_t srv[6] = {0, 0, 0, 0, (uint8_t)(port >> 8), (uint8_t)port};
                    memcpy(p, srv, 6);
                    if ((p = put_name(p + 6, end, host_local)))
                        set_len(data, p), answers++;
                }
            }
        }
        if (!answers || !p)
            continue;
        r[7] = (uint8_t)answers;
        struct sockaddr_in to = {.sin_family = AF_INET, .sin_port = htons(5353)};
        inet_pton(AF_INET, "224.0.0.251", &to.sin_addr);
        if (legacy) { /* id and questions back, straight to the querier */
            int qlen = off - 12;
            if (p + qlen > end)
                continue;
            memmove(r + 12 + qlen, r + 12, (size_t)(p - r - 12));
            memcpy(r + 12, q + 12, (size_t)qlen);
            p += qlen;
            memcpy(r, q, 2);
            r[5] = q[5];
            to = from;
        }
        sendto(s, r, (size_t)(p - r), 0, (struct sockaddr *)&to, sizeof to);
    }
}
