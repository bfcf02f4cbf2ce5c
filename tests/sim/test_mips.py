#!/usr/bin/env python3
"""The full-system device (QMTNM_SIM=mips): the device build on the target's CPU, byte order and
kernel under qemu-system-mipsel, against real daemons. The device boots once for the class;
what one test changes, it puts back."""
import re
import sys
import time

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import SimTestCase  # noqa: E402

UPSTREAM_AP = """interface=wlan2
driver=nl80211
ctrl_interface=/run/hostapd
ssid=upstream-wpa2
hw_mode=g
channel=6
wpa=2
wpa_key_mgmt=WPA-PSK
rsn_pairwise=CCMP
wpa_passphrase=correct horse battery
wps_state=2
eap_server=1
"""

class FullSystem(SimTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        if not cls.dev.mips:
            raise AssertionError("run with QMTNM_SIM=mips")

    def setUp(self):
        # Every test starts with changes applied at once: the activate flag set, as after a
        # power-on (a PPPoE change clears it).
        self.dev.sh("printf '\\001\\000\\000\\000' | "
                    "dd of=/dev/shm/lcl_activate bs=4 count=1 conv=notrunc 2>/dev/null")

    def wait_for(self, what, probe, timeout=30.0):
        """Polls probe() until it returns something true; returns that."""
        deadline = time.monotonic() + timeout
        while True:
            got = probe()
            if got:
                return got
            if time.monotonic() > deadline:
                raise AssertionError(f"timed out waiting for {what}")
            time.sleep(0.5)

    def wait_log_text(self, text):
        self.wait_for(text, lambda: text in self.dev.log(), 10)

    def supplicant_state(self, machine, iface):
        r = self.dev.on(machine, "wpa_cli", "-i", iface, "status", check=False) \
            if machine != "device" else self.dev.run("wpa_cli", "-i", iface, "status", check=False)
        m = re.search(r"^wpa_state=(\S+)", r.stdout, re.M)
        return m.group(1) if m else None

    def start_supplicant(self, machine, iface, conf):
        script = (f"cat >/tmp/{machine}-{iface}.conf && "
                  f"wpa_supplicant -B -i {iface} -c /tmp/{machine}-{iface}.conf "
                  f"-P /run/wpa_supplicant-{iface}.pid")
        runner = self.dev.run if machine == "device" else \
            (lambda *a, **k: self.dev._sim([machine] + list(a), **k))
        runner("/bin/sh", "-c", script, input=conf)
        self.addCleanup(runner, "/bin/sh", "-c",
                        f"kill $(cat /run/wpa_supplicant-{iface}.pid)", check=False)

    def test_target_kernel_and_build(self):
        self.assertEqual(self.dev.out("uname", "-m").strip(), "mips")
        self.assertIn("MIPS 24Kc", self.dev.out("cat", "/proc/cpuinfo"))
        # The library is a 32-bit little-endian ELF object, and it works: a get through it.
        self.assertRegex(self.dev.out("/bin/sh", "-c", "head -c 6 /usr/lib/libqmtnm.so | od -An -tx1"),
                         r"7f 45 4c 46 01 01")
        self.assertIn('"method":0', self.qmtnm("--json", "get", "wanflash").stdout)

    def test_qos_marked_packet_reaches_upstream(self):
        # The upstream router counts the echo requests whose DSCP its kernel reads as 46.
        self.dev.on("upstream", "iptables", "-I", "INPUT", "-p", "icmp", "--icmp-type",
                    "echo-request", "-m", "dscp", "--dscp", "46", "-j", "ACCEPT")
        self.addCleanup(self.dev.on, "upstream", "iptables", "-F", "INPUT")

        def marked():
            out = self.dev.on("upstream", "iptables", "-L", "INPUT", "-n", "-v", "-x").stdout
            m = re.search(r"^\s*(\d+)\s+\d+\s+ACCEPT\b.*DSCP match 0x2e", out, re.M)
            self.assertTrue(m, out)
            return int(m.group(1))

        self.dev.run("ping", "-c", "1", "-W", "2", "10.99.0.1")
        self.assertEqual(marked(), 0)
        self.qmtnm("set", "qos", "enable=1", "dscp=46")
        self.addCleanup(self.qmtnm, "set", "qos", "enable=0")
        self.dev.run("ping", "-c", "2", "-W", "2", "10.99.0.1")
        self.assertEqual(marked(), 2)

    def test_dhcp_lease_on_eth0(self):
        mac = self.dev.out("cat", "/sys/class/net/eth0/address").strip()
        self.qmtnm("set", "wan", "method=1")
        self.addCleanup(self.qmtnm, "set", "wan", "method=0", "ipaddr=10.99.0.2",
                        "netmask=255.255.255.0", "gateway=10.99.0.1", "dns1=10.99.0.1")

        def leased():
            out = self.dev.out("/bin/ip", "-4", "-o", "addr", "show", "eth0")
            m = re.search(r"inet (10\.99\.0\.1\d\d)/24", out)
            return m and m.group(1)

        addr = self.wait_for("a lease on eth0", leased)
        # udhcpd writes its lease file when told to.
        self.dev.on("upstream", "killall", "-USR1", "udhcpd")
        leases = self.wait_for("the lease upstream", lambda: self.dev.on(
            "upstream", "dumpleases", "-f", "/run/udhcpd.leases", check=False).stdout)
        self.assertRegex(leases, rf"(?im)^{re.escape(mac)}\s+{re.escape(addr)}\b")
        self.assertIn("nameserver 10.99.0.1", self.dev.out("cat", "/var/nm/resolv.conf"))

    def test_station_scans_and_joins_by_passphrase_and_by_wps(self):
        # The upstream router's radio serves a WPA2 network with WPS.
        self.dev._sim(["upstream", "/bin/sh", "-c",
                       "cat >/tmp/up-ap.conf && hostapd -B -P /run/hostapd.pid /tmp/up-ap.conf"],
                      input=UPSTREAM_AP)
        self.addCleanup(self.dev.on, "upstream", "/bin/sh", "-c", "kill $(cat /run/hostapd.pid)",
                        check=False)
        self.start_supplicant("device", "wlan0", "ctrl_interface=/run/wpa_supplicant\n"
                              "update_config=1\n"
                              "network={\n ssid=\"upstream-wpa2\"\n psk=\"correct horse battery\"\n}\n")
        self.assertEqual(self.wait_for("COMPLETED by passphrase",
                                       lambda: self.supplicant_state("device", "wlan0")
                                       == "COMPLETED" and "COMPLETED"), "COMPLETED")
        status = self.dev.out("wpa_cli", "-i", "wlan0", "status")
        self.assertIn("ssid=upstream-wpa2", status)
        self.assertIn("key_mgmt=WPA2-PSK", status)
        self.dev.run("wpa_cli", "-i", "wlan0", "scan")
        results = self.wait_for("scan results", lambda: "upstream-wpa2" in (
            r := self.dev.out("wpa_cli", "-i", "wlan0", "scan_results")) and r)
        self.assertRegex(results, r"02:00:00:00:02:00\t2437\t-?\d+\t\[WPA2-PSK-CCMP\]\[WPS\]")

        # WPS push button: the station forgets the network, both sides press the button, and
        # the access point hands over the passphrase: the network is known again.
        self.dev.run("wpa_cli", "-i", "wlan0", "remove_network", "all")
        self.wait_for("disconnected", lambda: self.supplicant_state("device", "wlan0")
                      != "COMPLETED")
        self.dev.on("upstream", "hostapd_cli", "-p", "/run/hostapd", "-i", "wlan2", "wps_pbc")
        self.dev.run("wpa_cli", "-i", "wlan0", "wps_pbc")
        self.wait_for("COMPLETED by WPS",
                      lambda: self.supplicant_state("device", "wlan0") == "COMPLETED", 60)
        self.assertIn("ssid=upstream-wpa2", self.dev.out("wpa_cli", "-i", "wlan0", "status"))
        self.assertRegex(self.dev.out("wpa_cli", "-i", "wlan0", "list_networks"),
                         r"\tupstream-wpa2\t")

    def test_lan_client_joins_the_soft_ap(self):
        self.dev.run("/bin/sh", "-c", "cat >/tmp/softap.conf && "
                     "hostapd -B -P /run/hostapd-wlan1.pid /tmp/softap.conf",
                     input="interface=wlan1\ndriver=nl80211\nctrl_interface=/run/hostapd\n"
                           "ssid=qmtnm-softap\nhw_mode=g\nchannel=1\nwpa=2\n"
                           "wpa_key_mgmt=WPA-PSK\nrsn_pairwise=CCMP\nwpa_passphrase=softap-pass\n")
        self.addCleanup(self.dev.run, "/bin/sh", "-c", "kill $(cat /run/hostapd-wlan1.pid)",
                        check=False)
        self.start_supplicant("lan", "wlan3", "ctrl_interface=/run/wpa_supplicant\n"
                              "network={\n ssid=\"qmtnm-softap\"\n psk=\"softap-pass\"\n}\n")
        self.wait_for("the LAN host's radio COMPLETED",
                      lambda: self.supplicant_state("lan", "wlan3") == "COMPLETED")
        client = self.dev.on("lan", "cat", "/sys/class/net/wlan3/address").stdout.strip()
        self.assertIn(client, self.dev.out("hostapd_cli", "-p", "/run/hostapd", "-i", "wlan1",
                                           "all_sta"))

    def test_pppoe_account_applied_at_boot_brings_the_session_up(self):
        # pppd runs on br0, so the access concentrator sits on br0's segment: the LAN host. The
        # password holds a space and a double quote, which pppd must read back from the
        # device's secrets file as they were given.
        user, password = "isp-user", 'pa"ss word'
        r = self.qmtnm("set", "pppoe", "enable=1", f"username={user}", f"password={password}")
        self.addCleanup(self.dev.run, "killall", "pppd", check=False)
        self.addCleanup(self.qmtnm, "set", "pppoe", "enable=0")
        self.wait_log_text("function request reboot")
        self.assertEqual(self.dev.run("pidof", "pppd", check=False).returncode, 1, r.stdout)

        self.dev.reboot()
        self.assertRegex(self.dev.out("cat", "/etc/ppp/pap-secrets"),
                         r'^"isp-user"\t\*\t"pa\\"ss word"$')
        self.dev._sim(["lan", "/bin/sh", "-c",
                       "cat >/etc/ppp/pap-secrets && "
                       "printf 'require-pap\\nlcp-echo-interval 10\\n' >/etc/ppp/server-options && "
                       "pppoe-server -I eth0 -L 10.64.0.1 -R 10.64.0.10 -N 2 -O /etc/ppp/server-options"],
                      input='"isp-user" * "pa\\"ss word" *\n')
        self.addCleanup(self.dev.on, "lan", "killall", "pppoe-server", check=False)

        def connected():
            out = self.qmtnm("--json", "get", "pppoe").stdout
            return '"connected":1' in out and out
        got = self.wait_for("the PPPoE session", connected, 60)
        self.assertIn('"ipaddr":"10.64.0.10"', got)
        self.assertIn("3 packets transmitted, 3 packets received",
                      self.dev.out("ping", "-c", "3", "-W", "2", "10.64.0.1"))

    def test_settings_survive_a_reboot_on_the_settings_disk(self):
        self.qmtnm("set", "lan", "ipaddr=192.168.1.1", "begin=192.168.1.50",
                   "end=192.168.1.60")
        self.dev.run("hconf", "write", "0x7f:1:5:hello")
        self.dev.run("hconf", "sync")
        self.dev.reboot()
        self.assertIn('"begin":"192.168.1.50"', self.qmtnm("--json", "get", "lan").stdout)
        self.assertIn("0x7f type 1 len 5: hello", self.dev.out("hconf", "read", "0x7f"))
        self.assertIn("/dev/vda on /var/persist type ext4", self.dev.out("mount"))


if __name__ == "__main__":
    simdevice.main()
