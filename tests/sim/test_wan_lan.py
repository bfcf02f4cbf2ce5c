#!/usr/bin/env python3
"""WAN and LAN on the emulated appliance, judged by what the kernel and the daemons did: the
device's DHCP client leases an address from the upstream router's DHCP server, a static set
gives eth0 its address and the one default route, and the LAN host's DHCP client gets a lease
from the pool the device's udhcpd serves."""
import ipaddress
import json
import os
import re
import sys

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import SimTestCase, poll  # noqa: E402

STATIC = ["method=0", "ipaddr=10.99.0.7", "netmask=255.255.255.0", "gateway=10.99.0.1",
          "dns1=10.99.0.1", "dns2=9.9.9.9"]
# The LAN host's DHCP client runs this script at its events; it prints the lease it was given.
LEASE_SCRIPT = os.path.join(os.path.dirname(os.path.realpath(__file__)), "dhcp-lease-print")


class WiredCase(SimTestCase):
    def json(self, area):
        return json.loads(self.dev.out("qmtnm", "get", area, "--json"))

    def addrs(self, ifname):
        return re.findall(r"inet (\S+)", self.dev.out("ip", "-4", "addr", "show", ifname))

    def default_routes(self):
        return [l for l in self.dev.out("ip", "route").splitlines() if l.startswith("default")]

    def processes(self, name):
        return [l for l in self.dev.out("ps", "-e", "-o", "comm=").split() if l == name]


class Wan(WiredCase):
    def leased_address(self):
        addr = self.addrs("eth0")
        return addr and addr[0] != "10.99.0.2/24" and addr[0]

    def test_1_dhcp_lease_from_upstream(self):
        self.qmtnm("set", "wan", "method=1")
        addr = poll("a lease on eth0", self.leased_address)
        ip = addr.split("/")[0]
        self.assertIn(ipaddress.ip_address(ip),
                      ipaddress.ip_network("10.99.0.0/24"), addr)
        self.assertTrue(100 <= int(ip.split(".")[3]) <= 199, addr)
        poll("the resolver file", lambda: self.dev.run("test", "-s", "/var/nm/resolv.conf",
                                                       check=False).returncode == 0)
        self.assertEqual(self.json("wan"), {
            "area": "wan", "instance": "wan_lcl", "method": 1, "ipaddr": ip,
            "netmask": "255.255.255.0", "gateway": "10.99.0.1", "dns1": "10.99.0.1",
            "dns2": "10.99.0.53"})
        self.assertEqual(self.default_routes(), ["default via 10.99.0.1 dev eth0 "])
        # The upstream server's lease names the device's port.
        mac = self.dev.out("cat", "/sys/class/net/eth0/address").strip()
        self.dev.on("upstream", "sh", "-c", "kill -USR1 $(cat /run/udhcpd.pid)")
        leases = poll("the upstream lease file", lambda: self.dev.on(
            "upstream", "dumpleases", "-f", "/run/udhcpd.leases", check=False).stdout)
        self.assertRegex(leases, rf"(?m)^{re.escape(mac)}\s+{re.escape(ip)}\s")
        # Only the method is stored: the static settings stay as they were.
        stored = self.json("wanflash")
        self.assertEqual((stored["method"], stored["ipaddr"]), (1, "10.99.0.2"))

    def test_2_static_address_route_resolver_and_hardware_store(self):
        self.qmtnm("set", "wan", *STATIC)
        self.assertEqual(self.processes("udhcpc"), [])
        self.assertEqual(self.addrs("eth0"), ["10.99.0.7/24"])
        self.assertEqual(self.default_routes(), ["default via 10.99.0.1 dev eth0 "])
        self.assertEqual(self.dev.out("cat", "/var/nm/resolv.conf"),
                         "nameserver 10.99.0.1\nnameserver 9.9.9.9\n")
        self.dev.run("ping", "-c", "1", "-W", "2", "10.99.0.1")
        self.dev.on("upstream", "ping", "-c", "1", "-W", "2", "10.99.0.7")
        live, stored = self.json("wan"), self.json("wanflash")
        del live["area"], live["instance"], stored["area"], stored["instance"]
        self.assertEqual(live, stored)
        self.assertEqual(stored["dns2"], "9.9.9.9")
        entries = {"0x1000002:0:4:0a630007", "0x1000004:0:4:ffffff00"}
        self.assertLessEqual(entries, self.hw_entries())

        self.dev.reboot()
        self.assertLessEqual(entries, self.hw_entries())
        # Back to DHCP: the static settings stay stored.
        self.qmtnm("set", "wan", "method=1")
        stored = self.json("wanflash")
        self.assertEqual((stored["method"], stored["ipaddr"], stored["dns2"]),
                         (1, "10.99.0.7", "9.9.9.9"))
        poll("a lease on eth0", self.leased_address)

    def hw_entries(self):
        self.dev.run("hconf", "save", "/tmp/hw.txt")
        return set(self.dev.out("cat", "/tmp/hw.txt").split())


class Lan(WiredCase):
    def lease(self):
        """Runs a DHCP client on the LAN host; its lease's variables, or None."""
        r = self.dev.on("lan", "udhcpc", "-i", "eth0", "-n", "-q", "-f", "-t", "3", "-T", "1",
                        "-s", LEASE_SCRIPT, check=False)
        m = re.search(r"^lease (.*)$", r.stdout, re.M)
        return dict(kv.split("=", 1) for kv in m.group(1).split(" ")) if m else None

    def test_1_server_hands_out_the_pool(self):
        self.qmtnm("set", "lan", "method=1", "ipaddr=192.168.7.1", "netmask=255.255.255.0",
                   "begin=192.168.7.50", "end=192.168.7.60")
        self.assertEqual(self.addrs("br0"), ["192.168.7.1/24"])
        self.assertEqual(self.processes("udhcpd"), ["udhcpd"])
        self.assertEqual(self.dev.out("cat", "/var/nm/udhcpd.conf"),
                         "interface br0\nstart 192.168.7.50\nend 192.168.7.60\n"
                         "opt subnet 255.255.255.0\nopt lease 28800\nopt router 192.168.7.1\n"
                         "opt dns 192.168.7.1")
        lease = self.lease()
        self.assertIsNotNone(lease, "no lease offered to the LAN host")
        self.assertTrue(50 <= int(lease["ip"].split(".")[3]) <= 60, lease)
        self.assertTrue(lease["ip"].startswith("192.168.7."), lease)
        self.assertEqual((lease["subnet"], lease["router"], lease["dns"]),
                         ("255.255.255.0", "192.168.7.1", "192.168.7.1"))
        self.assertEqual(self.json("lan")["begin"], "192.168.7.50")

    def test_2_server_off_offers_nothing(self):
        self.qmtnm("set", "lan", "method=1", "ipaddr=192.168.7.1", "netmask=255.255.255.0",
                   "begin=192.168.7.50", "end=192.168.7.60")
        conf = self.dev.out("cat", "/var/nm/udhcpd.conf")
        self.qmtnm("set", "lan", "method=0", "ipaddr=192.168.1.1")
        self.assertEqual(self.processes("udhcpd"), [])
        self.assertEqual(self.addrs("br0"), ["192.168.1.1/24"])
        self.assertEqual(self.dev.out("cat", "/var/nm/udhcpd.conf"), conf)
        self.assertIsNone(self.lease())
        # The pool stays stored for the next time the server is on.
        self.assertEqual(self.json("lan")["end"], "192.168.7.60")

    def test_3_refused_pool_changes_nothing(self):
        before = self.json("lan")
        r = self.qmtnm("set", "lan", "method=1", "begin=192.168.1.200", "end=192.168.1.100",
                       check=False)
        self.assertEqual(r.stderr, "lan: invalid input (0xFDFBFFF9)\n")
        self.assertEqual(self.json("lan"), before)


class ActivateFlag(WiredCase):
    def test_cleared_flag_stores_without_touching_the_device(self):
        self.dev.run("qmtnm", "get", "lan")
        self.dev.set_activate_flag(0)
        routes = self.dev.out("ip", "route")
        # The DHCP server the boot apply started, with its configuration.
        udhcpd = self.dev.out("pidof", "udhcpd")
        udhcpd_conf = self.dev.out("cat", "/var/nm/udhcpd.conf")
        mark = self.dev.log_size()
        self.qmtnm("set", "wan", *STATIC)
        self.qmtnm("set", "lan", "ipaddr=192.168.9.1", "begin=192.168.9.10", "end=192.168.9.20")
        self.assertEqual(self.addrs("eth0"), ["10.99.0.2/24"])
        self.assertEqual(self.addrs("br0"), ["192.168.1.1/24"])
        self.assertEqual(self.dev.out("ip", "route"), routes)
        self.assertEqual(self.dev.out("pidof", "udhcpd"), udhcpd)
        self.assertEqual(self.dev.out("cat", "/var/nm/udhcpd.conf"), udhcpd_conf)
        self.assertEqual(self.dev.out("sysconf", "get", "network/network_wan/ipaddr").strip(),
                         '"10.99.0.7"')
        self.assertEqual(self.dev.out("sysconf", "get", "network/network_lan/begin").strip(),
                         '"192.168.9.10"')
        line = re.escape(f"{'qmtnm_lcl_set':<20}--> need reboot to activate action")
        self.dev.wait_log(line, after=mark)
        self.assertEqual(len(re.findall(line, self.dev.log()[mark:])), 2)


if __name__ == "__main__":
    simdevice.main()
