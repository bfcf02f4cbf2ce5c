#!/usr/bin/env python3
"""The areas on the emulated appliance, judged by what the kernel, the daemons and the peers did
(the DSCP read upstream, leases handed out, pppd's and crond's doing, the DDNS provider's record,
what a laptop on the LAN reaches and finds), and the start-up apply."""
import os
import re
import sys

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import SimTestCase, log_line, poll  # noqa: E402

HOOK, RULE = "-A OUTPUT -j qos_mangle_chain", "-A qos_mangle_chain -j DSCP --set-dscp "
REBOOT = log_line("qmtnm_lcl_set", "need reboot to activate action")
STATIC = ["method=0", "ipaddr=10.99.0.7", "netmask=255.255.255.0", "gateway=10.99.0.1",
          "dns1=10.99.0.1", "dns2=9.9.9.9"]
POOL = ["method=1", "ipaddr=192.168.7.1", "netmask=255.255.255.0", "begin=192.168.7.50",
        "end=192.168.7.60"]
UDHCPD_CONF = ("interface br0\nstart 192.168.7.50\nend 192.168.7.60\nopt subnet 255.255.255.0\n"
               "opt lease 28800\nopt router 192.168.7.1\nopt dns 192.168.7.1")
LEASE_SCRIPT = os.path.join(os.path.dirname(os.path.realpath(__file__)), "dhcp-lease-print")


class Qos(SimTestCase):
    def state(self):
        """The stored (enable, dscp), and the chain's rules if it is there, hooked once."""
        table = self.dev.mangle()
        rules = [l for l in table if l.startswith("-A qos_mangle_chain")]
        self.assertEqual((table.count("-N qos_mangle_chain"), table.count(HOOK)),
                         (1, 1) if rules else (0, 0), table)
        return (int(self.dev.stored("network_qos/enable")),
                int(self.dev.stored("network_qos/dscp")), rules)

    def test_1_marking_what_the_device_sends(self):
        self.assertEqual(self.dev.dscp_received_upstream(), 0)
        self.qmtnm("set", "qos", "enable=1", "dscp=46")
        self.assertEqual(self.state(), (1, 46, [RULE + "0x2e"]))
        self.assertEqual(self.dev.dscp_received_upstream(), 46)
        self.assertEqual(self.dev.out("qmtnm", "get", "qos", "--json"),
                         '{"area":"qos","instance":"qos_lcl","enable":1,"dscp":46}\n')
        # The same again changes nothing: the chain's counters go on from where they were.
        counters = ["iptables", "-t", "mangle", "-L", "qos_mangle_chain", "-v", "-x", "-n"]
        packets = lambda: int(re.search(r"(?m)^\s*(\d+)\s+\d+\s+DSCP",  # noqa: E731
                                        self.dev.out(*counters))[1])
        before, mark = packets(), len(self.dev.log())
        self.assertGreater(before, 0)
        self.qmtnm("set", "qos", "enable=1", "dscp=46")
        self.assertGreaterEqual(packets(), before)
        self.dev.wait_log(log_line("qmtnm_lcl_set", "config is up-to-date"), mark)
        table = self.dev.mangle()  # a DSCP past 63 is refused: nothing changes or is stored
        self.refused("qos", "0xFDF4FFF9", "dscp=64")
        self.assertEqual((self.dev.mangle(), self.state()[:2]), (table, (1, 46)))

    def test_2_off_and_on_again(self):
        self.qmtnm("set", "qos", "enable=0")  # the chain gone, the DSCP kept stored
        self.assertEqual((self.state(), self.dev.dscp_received_upstream()), ((0, 46, []), 0))
        for words in ("enable=1 dscp=10", "enable=0", "enable=1 dscp=63", "enable=1 dscp=12"):
            self.qmtnm("set", "qos", *words.split())  # never two chains or two hooks
        self.assertEqual((self.state(), self.dev.dscp_received_upstream()),
                         ((1, 12, [RULE + "0x0c"]), 12))

    def test_3_cleared_flag_stores_only_until_reboot(self):
        dev = self.dev
        self.qmtnm("set", "qos", "enable=0")
        dev.activate_flag(0)
        mark = len(dev.log())
        self.qmtnm("set", "qos", "enable=1", "dscp=46")
        self.assertEqual(self.state(), (1, 46, []))
        self.assertEqual(dev.dscp_received_upstream(), 0)
        dev.wait_log(REBOOT, mark)
        dev.reboot()
        self.assertEqual((self.state(), dev.activate_flag()), ((1, 46, [RULE + "0x2e"]), 1))
        self.qmtnm("set", "qos", "enable=1", "dscp=40")  # applied at once again
        self.assertEqual(dev.dscp_received_upstream(), 40)

    def locks(self, *taken):
        """Checks `qmtnm locks`: every lock free but the set locks of the areas taken."""
        r = self.qmtnm("locks", check=False)
        rows = {l.split()[0]: " ".join(l.split()[1:]) for l in r.stdout.splitlines()}
        busy = {a: s for a, s in rows.items() if s != "set free get free"}
        self.assertEqual((busy, r.returncode),
                         (dict.fromkeys(taken, "set taken get free"), 1 if taken else 0))
        self.assertIn("qos", rows)

    def test_4_killed_set_leaves_its_lock_taken_until_unlock(self):
        dev = self.dev
        self.locks()
        # An iptables that notes its PID and waits: the set stays in its apply step, holding the
        # area's set lock, until it is killed.
        hold = os.path.join(dev.state, "hold")
        self.assertIn("set ended 137", dev.sh(f"""mkdir -p {hold}; rm -f {hold}/inside
            printf '#!/bin/sh\\necho $$ >{hold}/inside\\nexec sleep 600\\n' >{hold}/iptables
            chmod +x {hold}/iptables
            PATH={hold}:$PATH qmtnm set qos enable=1 dscp=20 >/dev/null 2>&1 & pid=$!
            while [ ! -s {hold}/inside ]; do sleep 0.1; done
            kill -KILL $pid; wait $pid; echo "set ended $?"; kill $(cat {hold}/inside)""").stdout)
        self.locks("qos")
        self.assertEqual(dev.stored("network_qos/dscp"), "40")  # killed before it stored
        r = self.qmtnm("set", "qos", "enable=1", "dscp=34", check=False)
        self.assertEqual((r.returncode, r.stderr), (1, "qos: resource busy (0xFD00FFFA)\n"))
        self.assertIn('"dscp":40', self.qmtnm("get", "qos", "--json").stdout)  # gets go on
        # A free lock is not released: it would admit two callers.
        self.assertEqual(self.qmtnm("unlock", "qos", "get", check=False).returncode, 1)
        self.locks("qos")
        self.assertEqual(self.qmtnm("unlock", "qos").stdout, "qos: set lock released\n")
        self.locks()
        self.qmtnm("set", "qos", "enable=1", "dscp=34")
        self.assertEqual(self.state(), (1, 34, [RULE + "0x22"]))
        self.assertEqual(self.qmtnm("unlock", "qos_lcl", "set", check=False).returncode, 1)
        self.locks()


class Wired(SimTestCase):
    def default_routes(self):
        return [l for l in self.dev.out("ip", "route").splitlines() if l.startswith("default")]

    def lease(self):
        r = self.dev.on("lan", "udhcpc", "-i", "eth0", "-n", "-q", "-f", "-t", "3", "-T", "1",
                        "-s", LEASE_SCRIPT, check=False)
        m = re.search(r"(?m)^lease (.*)$", r.stdout)
        return m and dict(kv.split("=", 1) for kv in m[1].split(" "))

    def test_1_lan_pool_is_served(self):
        self.qmtnm("set", "lan", *POOL)
        self.assertEqual((self.dev.addrs("br0"), self.dev.processes("udhcpd")),
                         (["192.168.7.1/24"], ["udhcpd"]))
        self.assertEqual(self.dev.out("cat", "/var/nm/udhcpd.conf"), UDHCPD_CONF)
        lease = self.lease()
        self.assertTrue(lease and re.fullmatch(r"192\.168\.7\.(5\d|60)", lease["ip"]), lease)
        self.assertEqual((lease["subnet"], lease["router"], lease["dns"]),
                         ("255.255.255.0", "192.168.7.1", "192.168.7.1"))
        # Off: nothing offered, the pool kept for the next time.
        self.qmtnm("set", "lan", "method=0", "ipaddr=192.168.1.1")
        self.assertEqual((self.dev.addrs("br0"), self.dev.processes("udhcpd")),
                         (["192.168.1.1/24"], []))
        self.assertEqual(self.dev.out("cat", "/var/nm/udhcpd.conf"), UDHCPD_CONF)
        self.assertIsNone(self.lease())
        before = self.dev.json("lan")
        self.assertEqual((before["begin"], before["end"]), ("192.168.7.50", "192.168.7.60"))
        self.refused("lan", "0xFDFBFFF9", "method=1", "begin=192.168.1.200", "end=192.168.1.100",
                     why=re.escape("lan info begin_ip > end_ip!"))
        self.assertEqual(self.dev.json("lan"), before)

    def test_2_wan_static_address_then_a_lease_from_upstream(self):
        dev = self.dev
        self.qmtnm("set", "wan", *STATIC)
        self.assertEqual((dev.processes("udhcpc"), dev.addrs("eth0"), self.default_routes()),
                         ([], ["10.99.0.7/24"], ["default via 10.99.0.1 dev eth0 "]))
        self.assertEqual(dev.out("cat", "/var/nm/resolv.conf"),
                         "nameserver 10.99.0.1\nnameserver 9.9.9.9\n")
        dev.on("upstream", "ping", "-c", "1", "-W", "2", "10.99.0.7")
        live, stored = dev.json("wan"), dev.json("wanflash")
        self.assertEqual({**live, "area": 0, "instance": 0}, {**stored, "area": 0, "instance": 0})
        entries = {"0x1000002:0:4:0a630007", "0x1000004:0:4:ffffff00"}
        self.assertLessEqual(entries, set(dev.out("hconf", "save").split()))
        dev.reboot()
        self.assertLessEqual(entries, set(dev.out("hconf", "save").split()))
        # DHCP: the lease from upstream is live, the static settings stay stored.
        self.qmtnm("set", "wan", "method=1")
        stored = dev.json("wanflash")
        self.assertEqual((stored["method"], stored["ipaddr"], stored["dns2"]),
                         (1, "10.99.0.7", "9.9.9.9"))
        ip = poll("a lease on eth0", lambda: (a := self.dev.addrs("eth0")) and
                  re.fullmatch(r"10\.99\.0\.1\d\d/24", a[0]) and a[0].split("/")[0])
        want = {"area": "wan", "instance": "wan_lcl", "method": 1, "ipaddr": ip,
                "gateway": "10.99.0.1", "netmask": "255.255.255.0", "dns1": "10.99.0.1",
                "dns2": "10.99.0.53"}
        poll(f"the lease's settings: {want}", lambda: dev.json("wan") == want)
        self.assertEqual(self.default_routes(), ["default via 10.99.0.1 dev eth0 "])
        mac = dev.out("cat", "/sys/class/net/eth0/address").strip()
        dev.on("upstream", "sh", "-c", "kill -USR1 $(cat /run/udhcpd.pid)")
        self.assertRegex(poll("the upstream lease file", lambda: dev.on(
            "upstream", "dumpleases", "-f", "/run/udhcpd.leases", check=False).stdout),
            rf"(?m)^{re.escape(mac)}\s+{re.escape(ip)}\s")


class Port(SimTestCase):
    def updated(self, what, **want):
        return poll(what, lambda: [r for r in self.dev.provider_requests()
                                   if all(r.get(k, r["query"].get(k, [None])[0]) == v
                                          for k, v in want.items())])[0]

    def test_1_mac_address_seen_upstream(self):
        self.qmtnm("set", "ethmac", "02:11:22:33:44:55")
        self.dev.run("ping", "-c", "1", "-W", "2", "10.99.0.1")
        self.assertIn("lladdr 02:11:22:33:44:55",
                      self.dev.on("upstream", "ip", "neigh", "show", "10.99.0.2").stdout)
        self.refused("ethmac", "0xFDFDFFF9", "01:11:22:33:44:55")  # a multicast address
        self.assertEqual(self.dev.json("ethmac")["macaddr"], "02:11:22:33:44:55")

    def test_2_ddns_update_reaches_the_provider_and_crond_holds_the_job(self):
        dev = self.dev
        self.qmtnm("set", "ddns", "enable=1", "domain=cam.example.net", "username=me & you@x",
                   "password=p:ss w@rd&1")
        self.assertEqual(dev.out("cat", "/var/spool/cron/crontabs/root"),
                         "*/1 * * * * /etc/cron/ddns.conf > /dev/null\n")
        self.assertEqual(dev.processes("crond"), ["crond"])
        req = self.updated("the update", user="me & you@x", password="p:ss w@rd&1",
                           hostname="cam.example.net")
        self.assertEqual((req["path"], req["client"]), ("/dyndns/update", "10.99.0.2"))
        self.assertEqual(dev.json("ddns")["password"], "********")
        self.qmtnm("set", "ddns", "enable=0")  # off: no cron job and no crond left
        self.assertEqual((dev.processes("crond"), dev.exists("/var/spool/cron/crontabs/root")),
                         ([], False))

    def test_3_pppoe_account_is_applied_by_the_next_boot(self):
        dev = self.dev
        mark = len(dev.log())
        self.qmtnm("set", "pppoe", "enable=1", 'username=isp"user', "password=pw 1")
        dev.wait_log(REBOOT, mark)
        self.assertEqual((dev.activate_flag(), dev.processes("pppd"),
                          dev.exists("/etc/ppp/options")), (0, [], False))
        dev.reboot()
        self.assertIn("pppoe: applied", dev.boot_log())
        options = dev.out("cat", "/etc/ppp/options").splitlines()
        self.assertEqual((options[0], options[-1], len(options)),
                         ('name "isp\\"user"', "plugin /lib/ppp/rp-pppoe.so br0", 15))
        for f in ("pap", "chap"):
            self.assertEqual(dev.out("cat", f"/etc/ppp/{f}-secrets"), '"isp\\"user"\t*\t"pw 1"\n')
        # pppd read the options and went on until the missing kernel PPP support stopped it.
        dev.wait_log(r"pppd\[\d+\]: Plugin /lib/ppp/rp-pppoe.so loaded\.")
        dev.wait_log(r"pppd\[\d+\]: Couldn't open the /dev/ppp device")
        self.assertNotRegex(dev.log(), r"pppd\[\d+\]: .*(unrecognized option|In file)")
        self.assertEqual(dev.activate_flag(), 1)
        got = dev.json("pppoe", "--secrets")
        self.assertEqual((got["enable"], got["username"], got["password"], got["connected"]),
                         (1, 'isp"user', "pw 1", 0))

    def test_4_settings_stored_for_the_reboot_are_live_after_it(self):
        dev = self.dev
        dev.activate_flag(0)
        self.qmtnm("set", "qos", "enable=1", "dscp=46")
        self.qmtnm("set", "ddns", "enable=1", "domain=boot.example.net", "username=u1",
                   "password=p1")
        self.assertEqual((dev.mangle().count(HOOK), dev.processes("crond")), (0, []))
        # Ethernet type 1 switches PPPoE and DDNS off in the store for the next boot.
        self.qmtnm("set", "ethtype", "type=1")
        self.assertEqual((dev.json("ddns")["enable"], dev.json("pppoe")["enable"]), (0, 0))
        self.qmtnm("set", "ddns", "enable=1")  # DDNS on again, stored only
        dev.reboot()
        self.assertEqual(dev.boot_log()[-10:], [f"{a}: applied" for a in (
            "qos", "wan", "lan", "ipfilter", "pppoe", "ddns", "upnp", "bonjour", "ap", "sta")])
        self.assertEqual(dev.dscp_received_upstream(), 46)
        self.assertEqual([dev.processes(p) for p in ("crond", "pppd", "udhcpd")],
                         [["crond"], [], ["udhcpd"]])
        self.updated("the boot's update", user="u1", hostname="boot.example.net")
        self.assertEqual(dev.activate_flag(), 1)

    def test_5_full_text_fields_are_applied_whole_after_a_reboot(self):
        dev = self.dev
        ssid, domain, host = "s" * 32, "d" * 24 + ".example", "h" * 64
        self.qmtnm("set", "sta", "enable=1", f"ssid={ssid}", "auth=0")
        self.qmtnm("set", "ddns", "enable=1", f"domain={domain}", "username=u", "password=p")
        self.qmtnm("set", "bonjour", "enable=1", f"hostname={host}")
        dev.reboot()
        self.assertEqual(dev.out(*simdevice.WPA_CLI, "get_network", "0", "ssid").strip(),
                         f'"{ssid}"')
        self.assertIn(f"hostname={domain}&", dev.out("cat", "/etc/cron/ddns.conf"))
        self.updated("the boot's update", hostname=domain)
        self.assertEqual(dev.out("hostname").strip(), host)
        self.assertIn(f"\t{host}\n", dev.out("cat", "/var/conf/hosts"))


class Services(SimTestCase):
    """The services as a laptop on the LAN sees them (sim/bin/lan-probe sends real packets)."""

    def probe(self, *args):
        return self.dev.on("lan", "lan-probe", *args, check=False)

    def reach(self, *sources):
        """What a connection to the web service from each source gets: a status, or timeout."""
        return {s: self.probe("http-get", "http://192.168.1.1/", "--source", s, "--timeout", "1")
                .stdout.strip() for s in sources}

    def test_ip_filter_lets_exactly_the_listed_addresses_reach_port_80(self):
        dev, both = self.dev, ("192.168.1.10", "192.168.1.20")
        self.assertEqual(self.reach(*both), dict.fromkeys(both, "200"))
        for words, want in (
                (["mode=white", "rule=192.168.1.10-192.168.1.10"], ("200", "timeout")),
                (["mode=black", "rule=192.168.1.10-192.168.1.15", "rule=192.168.1.40-192.168.1.41"],
                 ("timeout", "200"))):
            for _ in range(2):  # a set repeated keeps one chain, hooked once
                self.qmtnm("set", "ipfilter", "enable=1", *words)
            self.assertEqual(self.reach(*both), dict(zip(both, want)), words)
            rules = dev.out("iptables", "-S").splitlines()
            self.assertEqual([rules.count(r) for r in ("-N ipf_chain", "-A INPUT -j ipf_chain")],
                             [1, 1])
        self.assertEqual(dev.json("ipfilter")["rules"],
                         ["192.168.1.10-192.168.1.15", "192.168.1.40-192.168.1.41"])
        self.qmtnm("set", "ipfilter", "enable=0")  # off: the chain gone, the port open to all
        self.assertEqual(self.reach(*both), dict.fromkeys(both, "200"))
        self.assertNotIn("ipf_chain", dev.out("iptables", "-S"))

    def test_upnp_device_is_found_by_ssdp_with_its_friendly_name(self):
        name = "Cam's den (2)"  # the daemon writes it into its XML unescaped
        self.qmtnm("set", "upnp", "enable=1", f"friendlyName={name}")
        answers = poll("the device's SSDP answer", lambda: (
            r := self.probe("ssdp-search", "--st", "upnp:rootdevice", "--json")).returncode == 0
            and [simdevice.json.loads(l) for l in r.stdout.splitlines()])
        self.assertEqual([a["friendlyName"] for a in answers], [name])
        self.assertTrue(answers[0]["location"].startswith("http://192.168.1.1:"), answers)
        self.assertEqual(self.dev.processes("miniupnpd"), ["miniupnpd"])
        self.qmtnm("set", "upnp", "enable=0")
        self.assertEqual(self.dev.processes("miniupnpd"), [])
        self.assertEqual(self.probe("ssdp-search", "--st", "upnp:rootdevice").returncode, 1)

    def test_host_name_and_web_service_over_multicast_dns(self):
        self.qmtnm("set", "bonjour", "enable=1", "hostname=cam's")
        self.assertEqual(self.dev.out("hostname"), "cam's\n")
        self.assertEqual(poll("cam's.local over mDNS", lambda: self.probe(
            "mdns-resolve", "cam's.local").stdout.split()), ["192.168.1.1"])
        browsed = poll("_http._tcp over mDNS",
                       lambda: self.probe("mdns-browse", "_http._tcp").stdout.splitlines())
        self.assertEqual([l.split("\t")[1:3] for l in browsed], [["cam's.local.", "80"]])
        self.qmtnm("set", "bonjour", "enable=0")
        self.assertEqual(self.dev.sh("pidof mDNSResponderPosix", False).returncode, 1)
        self.assertEqual(self.probe("mdns-resolve", "cam's.local", "--timeout", "2").returncode, 1)


if __name__ == "__main__":
    simdevice.main()
