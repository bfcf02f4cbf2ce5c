/* libqmtnm: network configuration of the appliance.
 *
 * Management programs call qmtnm_lcl_set() / qmtnm_lcl_get() with an instance id and a
 * pointer to that area's settings record. Results are 0 or a negative error code built by
 * QMTNM_ERR(module, reason). This header compiles as C99 and as C++.
 */
#ifndef QMTNM_H
#define QMTNM_H

#include <stddef.h>
#include <stdint.h>
#include <netinet/in.h>
#include <semaphore.h>

#include "qmtnm_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- instance ids ------------------------------------------------------------------- */
enum qmtnm_instance_id {
    QMTNM_ID_BR = 0,
    QMTNM_ID_ETHTYPE = 1,
    QMTNM_ID_ETHMAC = 2,
    QMTNM_ID_WAN = 3,
    QMTNM_ID_LAN = 4,
    QMTNM_ID_DDNS = 5,
    QMTNM_ID_PPPOE = 6,
    QMTNM_ID_UPNP = 7,
    QMTNM_ID_BONJOUR = 8,
    QMTNM_ID_IPFILTER = 9,
    /* 10 is unused */
    QMTNM_ID_QOS = 11,
    QMTNM_ID_WANFLASH = 12,
    QMTNM_ID_DOSCAN = 13,
    QMTNM_ID_SCANRESULT = 14,
    QMTNM_ID_STA = 15,
    QMTNM_ID_AP = 16,
    QMTNM_ID_STAPIN = 17,
    QMTNM_ID_APPIN = 18,
    QMTNM_ID_COUNT = 19
};

/* ---- error codes ---------------------------------------------------------------------- */
/* 0xFD000000 | module << 16 | (uint16_t)reason; always negative as int32_t. */
#define QMTNM_ERR(module, reason)                                                                  \
    ((int32_t)(0xFD000000u | ((uint32_t)((module)&0xFFu) << 16) |                                  \
               ((uint32_t)(int32_t)(reason)&0xFFFFu)))
/* Module byte of an area: 0xFF minus its instance id; 0x00 for the dispatcher and helpers. */
#define QMTNM_MODULE(id) (0xFFu - (uint32_t)(id))
#define QMTNM_MODULE_CORE 0x00u
#define QMTNM_ERR_MODULE(code) (((uint32_t)(code) >> 16) & 0xFFu)
#define QMTNM_ERR_REASON(code) ((int32_t)(int16_t)((uint32_t)(code)&0xFFFFu))

#define QMTNM_MOD_BR 0xFFu
#define QMTNM_MOD_ETHTYPE 0xFEu
#define QMTNM_MOD_ETHMAC 0xFDu
#define QMTNM_MOD_WAN 0xFCu
#define QMTNM_MOD_LAN 0xFBu
#define QMTNM_MOD_DDNS 0xFAu
#define QMTNM_MOD_PPPOE 0xF9u
#define QMTNM_MOD_UPNP 0xF8u
#define QMTNM_MOD_BONJOUR 0xF7u
#define QMTNM_MOD_IPFILTER 0xF6u
#define QMTNM_MOD_QOS 0xF4u
#define QMTNM_MOD_WANFLASH 0xF3u
#define QMTNM_MOD_DOSCAN 0xF2u
#define QMTNM_MOD_SCANRESULT 0xF1u
#define QMTNM_MOD_STA 0xF0u
#define QMTNM_MOD_AP 0xEFu
#define QMTNM_MOD_STAPIN 0xEEu
#define QMTNM_MOD_APPIN 0xEDu

enum qmtnm_reason {
    QMTNM_R_FAIL = -1,   /* general failure of an operation */
    QMTNM_R_STORE = -2,  /* settings store read or write failed, hardware-store write failed */
    QMTNM_R_IO = -3,     /* a file could not be opened, or a command or query failed */
    QMTNM_R_NOMEM = -4,  /* allocation failed; in the dispatcher: no instance for the id */
    QMTNM_R_TIME = -5,   /* the current time could not be read */
    QMTNM_R_BUSY = -6,   /* the instance's semaphore could not be taken in time */
    QMTNM_R_INVALID = -7 /* the caller's record failed validation */
};

/* ---- instance record ------------------------------------------------------------------ */
typedef struct lcl_instance lcl_instance;

typedef int32_t (*lcl_op_fn)(lcl_instance *inst, void *arg1, uintptr_t arg2);
typedef int32_t (*lcl_nochange_fn)(lcl_instance *inst, void *arg1, uintptr_t arg2,
                                   int32_t *changed);
typedef int32_t (*lcl_activate_fn)(lcl_instance *inst, void *arg1, uintptr_t arg2,
                                   uint32_t *activate);

struct lcl_instance {
    const char *name;
    lcl_op_fn check;
    lcl_nochange_fn nochange;
    lcl_activate_fn activate_now;
    lcl_op_fn flush;
    lcl_op_fn pre_set;
    lcl_op_fn set;
    lcl_op_fn get;
    sem_t *get_sem;
    sem_t *set_sem;
    uint32_t set_timeout_ms; /* 0 means 2000 */
    uint32_t get_timeout_ms; /* 0 means 2000 */
    uint32_t reserved;
};
QMTNM_STATIC_ASSERT(sizeof(void *) != 4 || sizeof(lcl_instance) == 52,
                    "lcl_instance is thirteen 32-bit words on the target");
QMTNM_STATIC_ASSERT(sizeof(void *) != 8 || sizeof(lcl_instance) == 96,
                    "lcl_instance keeps its layout on 64-bit hosts");

/* ---- settings records ----------------------------------------------------------------- */
/* Zero a record before filling it: the compare step compares whole records byte by byte. */

/* qos_lcl: DSCP marking of every packet the device sends. */
typedef struct qmtnm_qos_cfg {
    int32_t enable; /* 0 off, 1 on */
    int32_t dscp;   /* 0..63; checked as unsigned */
} qmtnm_qos_cfg;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_qos_cfg) == 8, "QoS record is 8 bytes");

/* wan_lcl: the WAN port, run by a DHCP client or with static settings. A get returns the live
 * state (pass the record's size as the get's second argument: that many bytes are cleared
 * first); wanflash_lcl's get returns the stored settings. */
typedef struct qmtnm_wan_cfg {
    uint32_t method;       /* 0 static settings, 1 DHCP client */
    struct in_addr ipaddr; /* all addresses in network byte order */
    struct in_addr netmask;
    struct in_addr gateway; /* default gateway */
    struct in_addr dns1;    /* name servers */
    struct in_addr dns2;
} qmtnm_wan_cfg;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_wan_cfg) == 24, "WAN record is six 32-bit words");
QMTNM_STATIC_ASSERT(offsetof(qmtnm_wan_cfg, dns2) == 20, "WAN record: dns2 is the sixth word");

/* lan_lcl: the LAN address and the DHCP server's pool. The device's address is also the router
 * and name server it hands out. */
typedef struct qmtnm_lan_cfg {
    uint32_t method;       /* DHCP server: 0 off, 1 on */
    struct in_addr ipaddr; /* all addresses in network byte order */
    struct in_addr netmask;
    struct in_addr begin; /* first and last address of the pool, in one subnet */
    struct in_addr end;
} qmtnm_lan_cfg;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_lan_cfg) == 20, "LAN record is five 32-bit words");
QMTNM_STATIC_ASSERT(offsetof(qmtnm_lan_cfg, end) == 16, "LAN record: end is the fifth word");

/* br_lcl: the bridge setting, kept as the soft AP's mode. A change is stored and takes effect at
 * the next start of the device. */
typedef struct qmtnm_br_cfg {
    int32_t mode;
} qmtnm_br_cfg;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_br_cfg) == 4, "bridge record is one 32-bit word");

/* ethtype_lcl: the Ethernet type. Type 1 rules out PPPoE and DDNS: storing it switches both off
 * in the store. A change takes effect at the next start of the device. */
typedef struct qmtnm_ethtype_cfg {
    int32_t type;
} qmtnm_ethtype_cfg;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_ethtype_cfg) == 4, "Ethernet-type record is one 32-bit word");

/* ethmac_lcl: a set takes the text of six hexadecimal octets joined by colons
 * ("02:11:22:33:44:55", at most QMTNM_MAC_TEXT_MAX characters) and gives it to eth0; a get fills
 * six raw bytes, the WAN port's hardware address in wire order. Nothing is stored. */
#define QMTNM_MAC_TEXT_MAX 18
typedef struct qmtnm_mac_addr {
    unsigned char octet[6];
} qmtnm_mac_addr;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_mac_addr) == 6, "hardware address is six bytes");

/* pppoe_lcl: the PPPoE account. A change is stored and applied at the next start of the device.
 * connected and ipaddr are filled by a get only (the ppp0 link); a set compares the whole record,
 * so pass them back as the last get returned them. */
typedef struct qmtnm_pppoe_cfg {
    int32_t enable;        /* 0 off, nonzero on (1 is what a get treats as on) */
    char username[32];     /* 1..32 characters when on */
    char password[32];     /* 1..32 characters when on */
    int32_t connected;     /* 1 when ppp0 has an address */
    struct in_addr ipaddr; /* ppp0's address, network byte order; 0 when none */
} qmtnm_pppoe_cfg;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_pppoe_cfg) == 76, "PPPoE record is 76 bytes");
QMTNM_STATIC_ASSERT(offsetof(qmtnm_pppoe_cfg, password) == 36, "PPPoE record: password at 36");
QMTNM_STATIC_ASSERT(offsetof(qmtnm_pppoe_cfg, ipaddr) == 72, "PPPoE record: ipaddr at 72");

/* ddns_lcl: dynamic DNS, one provider type (0); crond runs the update once a minute. */
typedef struct qmtnm_ddns_cfg {
    uint32_t enable; /* 0 off, nonzero on */
    uint32_t type;   /* provider type: 0 */
    char domain[32]; /* host name to update, 1..32 characters */
    char username[32];
    char password[32];
} qmtnm_ddns_cfg;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_ddns_cfg) == 104, "DDNS record is 104 bytes");
QMTNM_STATIC_ASSERT(offsetof(qmtnm_ddns_cfg, username) == 40, "DDNS record: username at 40");
QMTNM_STATIC_ASSERT(offsetof(qmtnm_ddns_cfg, password) == 72, "DDNS record: password at 72");

/* sta_lcl: the Wi-Fi station wlan0, driven through the running wpa_supplicant (network 0). A
 * set joins the network given, or with use_wps by WPS; link_state is filled by a get only. */
typedef struct qmtnm_sta_cfg {
    int32_t enable;      /* 0 off (network 0 is removed), nonzero on */
    char ssid[32];       /* 1..32 characters */
    int32_t auth;        /* 0 open, 1 WEP, 2..4 WPA passphrase */
    int32_t encry;       /* with auth 2..4: 0..2 */
    int32_t index;       /* WEP key number 1..4 */
    char password[64];   /* WEP key (5 or 13 characters, or 10 or 26 hexadecimal digits) or WPA
                            passphrase (8..63 characters), or the WPA key itself (64
                            hexadecimal digits, filling the field) */
    int32_t use_wps;     /* nonzero: join by WPS instead (not stored) */
    int32_t push_button; /* with use_wps: nonzero push button, 0 PIN (not stored) */
    char wps_pin[9];     /* the PIN method's 8 digits */
    int32_t link_state;  /* get: 0 not connected, 1 connected, 2 handshake under way, 3 other */
} qmtnm_sta_cfg;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_sta_cfg) == 136, "station record is 136 bytes");
QMTNM_STATIC_ASSERT(offsetof(qmtnm_sta_cfg, password) == 48, "station record: password at 48");
QMTNM_STATIC_ASSERT(offsetof(qmtnm_sta_cfg, wps_pin) == 120, "station record: wps_pin at 120");
QMTNM_STATIC_ASSERT(offsetof(qmtnm_sta_cfg, link_state) == 132,
                    "station record: link_state at 132");

/* doscan_lcl: a get scans on wlan0 (up to some 10 s) and stores the number of result lines in
 * the uint32_t its argument points to. scanresult_lcl: a get fills an array of entries, its
 * second argument the array's size in bytes, and returns the number of entries filled MINUS 2
 * (two networks give 0, none gives -2). */
typedef struct qmtnm_scan_entry {
    char ssid[32];   /* a 32-character name fills the field; its terminator then takes the first
                        byte of bssid, which reads as empty */
    char bssid[20];  /* "xx:xx:xx:xx:xx:xx" */
    int32_t channel; /* (frequency in MHz - 2407) / 5: 2412 gives 1, 2484 gives 15 */
    int32_t signal;  /* dBm */
    char flags[64];  /* as wpa_supplicant prints them: "[WPA2-PSK-CCMP][ESS]" */
} qmtnm_scan_entry;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_scan_entry) == 124, "scan entry is 124 bytes");
QMTNM_STATIC_ASSERT(offsetof(qmtnm_scan_entry, channel) == 52, "scan entry: channel at 52");
QMTNM_STATIC_ASSERT(offsetof(qmtnm_scan_entry, flags) == 60, "scan entry: flags at 60");

/* stapin_lcl, appin_lcl: a get makes a new WPS PIN (8 digits with the WPS check digit), stores
 * it as the station's or the soft AP's PIN and writes it as text into a buffer of at least
 * QMTNM_WPS_PIN_SIZE bytes. The seven digits come from the kernel's random source; when it fails
 * the get returns the instance's QMTNM_R_IO code and stores nothing. */
#define QMTNM_WPS_PIN_SIZE 9

/* ap_lcl: the soft access point on wlan1 (hostapd). Switching it on or off is stored and takes
 * effect at the next start of the device; other changes rewrite hostapd.conf and make hostapd
 * reread it. */
typedef struct nm_softap {
    int32_t enable;     /* 0 off, nonzero on */
    char ssid[32];      /* 1..32 characters */
    int32_t channel;    /* 1..13 in bits 0-7; bits 8-15 are a marker, ignored */
    int32_t hw_mode;    /* 0 802.11b, 1 802.11g, 2 802.11g with 802.11n */
    int32_t hide_ssid;  /* 0 broadcast the name, 1 hide it */
    int32_t auth;       /* 0 open, 1 WEP, 2..4 WPA (hostapd's wpa=auth-1) */
    int32_t encry;      /* with auth 2..4: 0 CCMP, 1 TKIP, 2 TKIP and CCMP */
    int32_t index;      /* WEP key slot 1..4 */
    char password[64];  /* WEP key or WPA passphrase, as for the station */
    int32_t wps_enable; /* nonzero: WPS on */
    char wps_pin[16];   /* the AP's PIN, 8 digits (made by appin_lcl) */
} nm_softap;
typedef nm_softap qmtnm_softap_cfg;
QMTNM_STATIC_ASSERT(sizeof(nm_softap) == 144, "soft-AP record is 144 bytes");
QMTNM_STATIC_ASSERT(offsetof(nm_softap, password) == 60, "soft-AP record: password at 60");
QMTNM_STATIC_ASSERT(offsetof(nm_softap, wps_enable) == 124, "soft-AP record: wps_enable at 124");

/* upnp_lcl: the UPnP daemon miniupnpd, on or off, and the friendly name it announces. */
typedef struct qmtnm_upnp_cfg {
    int32_t enable;        /* 0 off, 1 on */
    char friendlyName[64]; /* 0..63 characters, no control characters; zero the rest, since a
                              set compares all 68 bytes with the stored record */
} qmtnm_upnp_cfg;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_upnp_cfg) == 68, "UPnP record is 68 bytes");

/* bonjour_lcl: the device's host name, and the web service (TCP port 80) advertised over
 * multicast DNS under it. */
typedef struct qmtnm_bonjour_cfg {
    int32_t enable;    /* 0 off, 1 on */
    char hostname[64]; /* 0..64 characters (64 fill the field, unterminated); no blank, '#' or
                          control character, not starting with '-' */
} qmtnm_bonjour_cfg;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_bonjour_cfg) == 68, "Bonjour record is 68 bytes");

/* ipfilter_lcl: which client addresses may reach the web service (TCP port 80). */
#define QMTNM_IPF_RULES 8
typedef struct qmtnm_ipf_rule {
    char begin_ip[17]; /* dotted quad, first address of the range (first 15 characters used) */
    char end_ip[17];   /* last address, in the same 255.255.255.0 network, not below begin */
    char reserved[14];
} qmtnm_ipf_rule;
typedef struct qmtnm_ipfilter_cfg {
    int32_t enable; /* 0 off: the filter is removed */
    int32_t mode;   /* nonzero: white list (only the ranges may connect); 0: black list */
    int32_t index;  /* rules in use, 0..8 (a white list needs one at least) */
    qmtnm_ipf_rule rules[QMTNM_IPF_RULES];
} qmtnm_ipfilter_cfg;
QMTNM_STATIC_ASSERT(sizeof(qmtnm_ipf_rule) == 48, "IP filter rule slot is 48 bytes");
QMTNM_STATIC_ASSERT(sizeof(qmtnm_ipfilter_cfg) == 396, "IP filter record is 396 bytes");
QMTNM_STATIC_ASSERT(offsetof(qmtnm_ipfilter_cfg, rules) == 12, "IP filter record: rules at 12");

/* ---- exported calls and data ---------------------------------------------------------- */
QMTNM_API int32_t qmtnm_lcl_set(uint32_t id, void *arg1, uintptr_t arg2);
QMTNM_API int32_t qmtnm_lcl_get(uint32_t id, void *arg1, uintptr_t arg2);
QMTNM_API lcl_instance *get_lcl_instance(uint32_t id);

/* Applies the stored settings of one area (its instance id), or of every area in the start-up
 * order with QMTNM_APPLY_ALL, as the device does when it starts: under the area's set lock its
 * stored record is read, checked as a set's record is, and applied. Nothing is stored and the
 * activate flag is left alone. A stored record that the check or the store read refuses is not
 * applied (the area keeps its state) and is logged with the area's invalid-input code. Returns 0
 * (also for an area that has nothing to apply from the store) or the area's code; with
 * QMTNM_APPLY_ALL every area runs and the first failure's code is returned. */
#define QMTNM_APPLY_ALL 0xFFFFFFFFu
QMTNM_API int32_t qmtnm_lcl_apply_stored(uint32_t id);
/* The instance ids of the start-up apply in their order: at most cap of them into ids (which may
 * be null); returns how many there are. */
QMTNM_API uint32_t qmtnm_lcl_boot_order(uint32_t *ids, uint32_t cap);

/* 0: errors only; 1 (default): also information; 2: also traces. */
QMTNM_API extern int32_t nm_log_level;

QMTNM_API extern lcl_instance br_lcl;
QMTNM_API extern lcl_instance ethtype_lcl;
QMTNM_API extern lcl_instance ethmac_lcl;
QMTNM_API extern lcl_instance wan_lcl;
QMTNM_API extern lcl_instance lan_lcl;
QMTNM_API extern lcl_instance ddns_lcl;
QMTNM_API extern lcl_instance pppoe_lcl;
QMTNM_API extern lcl_instance upnp_lcl;
QMTNM_API extern lcl_instance bonjour_lcl;
QMTNM_API extern lcl_instance ipfilter_lcl;
QMTNM_API extern lcl_instance qos_lcl;
QMTNM_API extern lcl_instance wanflash_lcl;
QMTNM_API extern lcl_instance doscan_lcl;
QMTNM_API extern lcl_instance scanresult_lcl;
QMTNM_API extern lcl_instance sta_lcl;
QMTNM_API extern lcl_instance ap_lcl;
QMTNM_API extern lcl_instance stapin_lcl;
QMTNM_API extern lcl_instance appin_lcl;

/* ---- common helpers -------------------------------------------------------------------- */
/* mode 1: create/truncate; mode 2: append to an existing file. Returns 0 or 0xFD00FFFD. */
QMTNM_API int32_t write_conf_file(const char *path, uint32_t mode, const char *text);
/* which 0: address, 2: netmask (32-bit word); 4: hardware address (16-byte sockaddr).
 * Returns 0 or -errno. */
QMTNM_API int32_t nm_get_inaddr(const char *ifname, int32_t which, void *out);
/* Rewrites /var/conf/hosts from the stored addresses and host name. A stored address that is no
 * dotted quad, or a host name that is not one plain field (a blank, '#', control character or
 * leading '-', or longer than 64), leaves the file as it was: 0xFD00FFF9. */
QMTNM_API int32_t update_hosts_file(void);
/* which 0: saved IP address, 1: saved netmask, into the hardware store. */
QMTNM_API void save_hw_conf(int32_t which, struct in_addr addr);

#ifdef __cplusplus
}
#endif

#endif /* QMTNM_H */
