#!/usr/bin/env python3
"""A change that rolls back unless confirmed, seen from the LAN host: the device it cuts off comes
back by itself at the deadline, a confirmed change stays across a reboot, and a try whose set is
refused leaves nothing behind."""
import json
import os
import re
import sys
import time

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import SimTestCase, poll  # noqa: E402

LEASE_SCRIPT = os.path.join(os.path.dirname(os.path.realpath(__file__)), "dhcp-lease-print")
NEW_LAN = ("ipaddr=192.168.7.1", "netmask=255.255.255.0", "begin=192.168.7.50",
           "end=192.168.7.60")


class Pending(SimTestCase):
    def settings(self):
        """The network domain of the store, the pending change's own section aside."""
        return [l for l in self.dev.out("sysconf", "dump", "network").splitlines()
                if not l.startswith("network/network_pending/")]

    def pending(self):
        return json.loads(self.qmtnm("pending", "--json").stdout)

    def lan_pings(self, addr):
        return self.dev.on("lan", "ping", "-c", "1", "-W", "1", addr, check=False).returncode == 0

    def web_status(self):
        return self.dev.on("lan", "lan-probe", "http-get", "http://192.168.1.1/", "--timeout", "1",
                           check=False).stdout.strip()

    def test_lan_address_rolls_back_at_the_deadline(self):
        dev, before = self.dev, self.settings()
        self.assertTrue(self.lan_pings("192.168.1.1"))
        self.qmtnm("try", "--timeout", "15", "set", "lan", *NEW_LAN)
        deadline = self.pending()["deadline"]
        self.assertFalse(self.lan_pings("192.168.1.1"))
        poll("the device at 192.168.1.1 again", lambda: self.lan_pings("192.168.1.1"), 25)
        self.assertLessEqual(time.time(), deadline + 2)
        lease = dev.on("lan", "udhcpc", "-i", "eth0", "-n", "-q", "-f", "-t", "3", "-T", "1", "-s",
                       LEASE_SCRIPT).stdout
        self.assertRegex(lease, r"lease ip=192\.168\.1\.(1\d\d|200) ")
        self.assertEqual(self.settings(), before)
        dev.wait_log(simdevice.log_line("qmtnm_try_watchdog", "pending change rolled back (not "
                                        "confirmed by its deadline), restored: lan_lcl"))
        self.assertEqual(self.pending()["state"], "rolled_back")

    def test_confirmed_from_the_new_subnet_stays_after_the_deadline_and_a_reboot(self):
        dev = self.dev
        self.addCleanup(self.qmtnm, "set", "lan", "ipaddr=192.168.1.1", "begin=192.168.1.100",
                        "end=192.168.1.200")
        self.qmtnm("try", "--timeout", "8", "set", "lan", *NEW_LAN)
        readdress = ("ip", "addr", "add", "192.168.7.10/24", "dev", "eth0")
        dev.on("lan", *readdress)
        self.addCleanup(dev.on, "lan", "ip", "addr", "del", "192.168.7.10/24", "dev", "eth0",
                        check=False)
        self.assertTrue(poll("the device at 192.168.7.1", lambda: self.lan_pings("192.168.7.1")))
        self.assertEqual(self.qmtnm("confirm").stdout, "confirmed: the change is kept\n")
        time.sleep(10)
        self.assertEqual((self.pending()["state"], dev.addrs("br0")), ("none", ["192.168.7.1/24"]))
        dev.reboot()  # the LAN host starts afresh too
        dev.on("lan", *readdress)
        self.assertEqual(dev.addrs("br0"), ["192.168.7.1/24"])
        self.assertTrue(poll("the device at 192.168.7.1", lambda: self.lan_pings("192.168.7.1")))

    def test_ip_filter_that_locks_the_lan_host_out_rolls_back(self):
        self.assertEqual(self.web_status(), "200")
        self.qmtnm("try", "--timeout", "5", "set", "ipfilter", "enable=1", "mode=white",
                   "rule=192.168.1.200-192.168.1.201")
        self.assertEqual(self.web_status(), "timeout")
        self.assertEqual(poll("port 80 again", lambda: self.web_status() == "200" or None, 15),
                         True)
        self.assertNotIn("ipf_chain", self.dev.out("iptables", "-S"))

    def test_a_refused_set_rolls_back_the_sets_before_it(self):
        before, mangle = self.settings(), self.dev.mangle()
        r = self.qmtnm("try", "set", "qos", "enable=1", "dscp=46", "--", "set", "lan",
                       "begin=192.168.1.250", "end=192.168.1.240", check=False)
        self.assertEqual(r.returncode, 12, r.stderr)
        self.assertRegex(r.stderr, r"(?m)^try: set 2 \(lan\) failed; the sets before it are "
                         r"rolled back$")
        self.assertEqual((self.settings(), self.dev.mangle()), (before, mangle))
        self.assertEqual(self.pending(), {"state": "rolled_back", "areas": ["qos"],
                                          "rolled_back_at": self.pending()["rolled_back_at"]})


if __name__ == "__main__":
    simdevice.main()
