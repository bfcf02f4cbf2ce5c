#!/usr/bin/env python3
"""The library's common helpers on the emulated appliance: interface addresses read from the
device's real interfaces, and the hosts file rewritten from the device's settings store."""
import re
import sys

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import SimTestCase  # noqa: E402


class CommonHelpers(SimTestCase):
    def iface(self, name):
        """(address, netmask, hwaddr) as the library's nm_get_inaddr reads them."""
        line = self.dev.out("qmtnm", "iface", name).strip()
        m = re.fullmatch(rf"{name} address (\S+) netmask (\S+) hwaddr (\S+)", line)
        self.assertIsNotNone(m, line)
        return m.groups()

    def test_interface_addresses_match_the_kernel(self):
        # The device's addresses as iproute2 reports them, against the library's reading.
        for name, addr, mask in (("eth0", "10.99.0.2", "255.255.255.0"),
                                 ("br0", "192.168.1.1", "255.255.255.0")):
            with self.subTest(name):
                mac = self.dev.out("cat", f"/sys/class/net/{name}/address").strip()
                self.assertIn(f"inet {addr}/24", self.dev.out("ip", "-4", "addr", "show", name))
                self.assertEqual(self.iface(name), (addr, mask, mac))
        # A new address on the device is what the next reading sees.
        self.dev.run("ip", "addr", "flush", "dev", "wlan1")
        self.dev.run("ip", "addr", "add", "172.16.5.9/20", "dev", "wlan1")
        mac = self.dev.out("cat", "/sys/class/net/wlan1/address").strip()
        self.assertEqual(self.iface("wlan1"), ("172.16.5.9", "255.255.240.0", mac))

    def test_missing_interface_is_enodev(self):
        r = self.qmtnm("iface", "nosuch0", check=False)
        self.assertEqual(r.returncode, 1)
        self.assertEqual(r.stderr, "nosuch0: No such device (-19)\n")

    def test_hosts_file_from_the_store(self):
        self.dev.run("sysconf", "set", "-s", "network/network_wan/ipaddr", "10.99.0.2")
        self.dev.run("sysconf", "set", "-s", "network/network_lan/ipaddr", "192.168.1.1")
        self.dev.run("sysconf", "set", "-s", "network/network_bonjour/hostname", "kitchen-cam")
        self.qmtnm("hosts")
        self.assertEqual(
            self.dev.out("cat", "/var/conf/hosts"),
            "# Do not remove the following line, or various programs\n"
            "# that require network functionality will fail.\n"
            "127.0.0.1\tlocalhost.localdomain\tlocalhost\n"
            "10.99.0.2\tkitchen-cam\n"
            "192.168.1.1\twww.qmtnm-device.com\n")
        # Without the host name in the store nothing is written, and the failure is logged.
        self.dev.run("sysconf", "del", "network/network_bonjour/hostname")
        self.dev.run("rm", "/var/conf/hosts")
        mark = self.dev.log_size()
        r = self.qmtnm("hosts", check=False)
        self.assertEqual(r.returncode, 1)
        self.assertEqual(r.stderr, "hosts: settings store read or write failed (0xFD00FFFE)\n")
        self.assertFalse(self.dev.run("test", "-e", "/var/conf/hosts", check=False).returncode == 0)
        self.dev.wait_log(re.escape(f"{'update_hosts_file':<20}--> get hostname fail, "
                                    "errno = -50266114"), after=mark)


if __name__ == "__main__":
    simdevice.main()
