#!/usr/bin/env python3
"""The full-system device (QMTNM_SIM=mips): the device build on the target's CPU, byte order and
kernel under qemu-system-mipsel, against real daemons. The device boots once for the class;
what one test changes, it puts back."""
import json
import re
import sys
import time

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import SimTestCase  # noqa: E402

PASSPHRASE = "it's \"a\" pass"
UPSTREAM_AP = """interface=wlan2
driver=nl80211
ctrl_interface=/run/hostapd
ssid=upstream-wpa2
hw_mode=g
channel=6
wpa=2
wpa_key_mgmt=WPA-PSK
rsn_pairwise=CCMP
wpa_passphrase=it's "a" pass
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

    def sta(self):
        return json.loads(self.qmtnm("--json", "--secrets", "get", "sta").stdout)

    def led(self):
        return self.dev.out("/bin/sh", "-c", "cd /sys/class/leds/wifi_led && "
                            "echo $(cat trigger brightness delay_on delay_off)").split()

    def test_station_joins_scans_and_joins_by_wps_button_and_pin(self):
        # The upstream router's radio serves a WPA2 network with WPS, its passphrase holding a
        # single quote, a double quote and blanks.
        self.dev._sim(["upstream", "/bin/sh", "-c",
                       "cat >/tmp/up-ap.conf && hostapd -B -P /run/hostapd.pid /tmp/up-ap.conf"],
                      input=UPSTREAM_AP)
        self.addCleanup(self.dev.on, "upstream", "/bin/sh", "-c", "kill $(cat /run/hostapd.pid)",
                        check=False)
        self.addCleanup(self.qmtnm, "set", "sta", "enable=0")

        # By passphrase: the supplicant's own saved configuration holds the network as given.
        self.qmtnm("set", "sta", "enable=1", "ssid=upstream-wpa2", "auth=2", "encry=0",
                   f"password={PASSPHRASE}")
        self.wait_for("link_state 1", lambda: self.sta()["link_state"] == 1)
        saved = self.dev.out("cat", "/var/nm/wpa_supplicant.conf")
        self.assertIn('\tssid="upstream-wpa2"\n', saved)
        self.assertIn(f'\tpsk="{PASSPHRASE}"\n', saved)

        # The survey lists the router's network with its channel and flags.
        scan = json.loads(self.qmtnm("--json", "scan").stdout)
        ours = [n for n in scan if n["ssid"] == "upstream-wpa2"]
        self.assertEqual(len(ours), 1, scan)
        self.assertEqual((ours[0]["bssid"], ours[0]["channel"]), ("02:00:00:00:02:00", 6))
        self.assertIn("[WPA2-PSK-CCMP]", ours[0]["flags"])

        # WPS push button: the station forgets its network and blinks the LED while it waits;
        # once the router's button is pressed it joins, the LED stays on, and the learned
        # network is stored.
        self.qmtnm("set", "sta", "enable=0")
        self.wait_for("link_state 0", lambda: self.sta()["link_state"] == 0)
        self.dev.sh("sysconf set -s network/network_sta/ssid '' && "
                    "sysconf set -s network/network_sta/password ''")
        wps = self.dev.popen("qmtnm", "set", "sta", "wps=pbc")
        self.assertEqual(self.wait_for("the LED blinking", lambda: self.led()[0] == "timer"
                                       and self.led()), ["timer", "0", "500", "500"])
        self.dev.on("upstream", "hostapd_cli", "-p", "/run/hostapd", "-i", "wlan2", "wps_pbc")
        out, err = wps.communicate(timeout=130)
        self.assertEqual(wps.returncode, 0, out + err)
        self.assertEqual(self.led()[:2], ["none", "1"])
        got = self.sta()
        self.assertEqual((got["ssid"], got["password"], got["auth"], got["link_state"]),
                         ("upstream-wpa2", PASSPHRASE, 2, 1))

        # WPS PIN: a new PIN from the library, which the router's hostapd accepts only with a
        # right check digit.
        pin = self.qmtnm("pin", "sta").stdout.strip()
        self.assertRegex(pin, r"^\d{8}$")
        self.assertEqual(self.sta()["wps_pin"], pin)
        self.qmtnm("set", "sta", "enable=0")
        self.wait_for("link_state 0", lambda: self.sta()["link_state"] == 0)
        self.dev.on("upstream", "hostapd_cli", "-p", "/run/hostapd", "-i", "wlan2", "wps_pin",
                    "any", pin)
        self.dev.run("qmtnm", "set", "sta", "wps=pin", timeout=130)
        self.assertEqual(self.sta()["link_state"], 1)

    def test_soft_ap_serves_the_stored_network_and_what_set_ap_writes(self):
        def serving():
            r = self.dev.run("hostapd_cli", "-p", "/var/run/hostapd", "-i", "wlan1",
                             "get_config", check=False)
            m = re.search(r"^ssid=(.*)$", r.stdout, re.M)
            return m and m.group(1)
        # At power-on hostapd serves the stored (factory) soft AP, an open network in br0.
        self.assertEqual(serving(), "qmtnm-ap")
        self.assertIn("wlan1", self.dev.out("ls", "/sys/class/net/br0/brif"))

        # A new name and WPA2 (auth 3, hostapd's wpa=2): the running hostapd rereads its file
        # and serves them, and the LAN host's radio joins with the passphrase.
        self.qmtnm("set", "ap", "ssid=qmtnm-new", "auth=3", "encry=0", f"password={PASSPHRASE}")
        self.addCleanup(self.qmtnm, "set", "ap", "ssid=qmtnm-ap", "auth=0")
        self.wait_for("the new SSID", lambda: serving() == "qmtnm-new")
        self.start_supplicant("lan", "wlan3", "ctrl_interface=/run/wpa_supplicant\n"
                              'network={\n ssid="qmtnm-new"\n'
                              f' psk="{PASSPHRASE}"\n}}\n')
        self.wait_for("the LAN host's radio COMPLETED",
                      lambda: self.supplicant_state("lan", "wlan3") == "COMPLETED")
        client = self.dev.on("lan", "cat", "/sys/class/net/wlan3/address").stdout.strip()
        self.assertIn("key_mgmt=WPA2-PSK", self.dev.on("lan", "wpa_cli", "-i", "wlan3",
                                                      "status").stdout)
        self.assertIn(client, self.dev.out("hostapd_cli", "-p", "/var/run/hostapd", "-i",
                                           "wlan1", "all_sta"))

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
        # An address from the server's pool of two (a first attempt may have taken the other).
        self.assertRegex(got, r'"ipaddr":"10\.64\.0\.1[01]"')
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
