#!/usr/bin/env python3
"""The full-system device (QMTNM_SIM=mips): the device build on the target's CPU, byte order and
kernel under qemu-system-mipsel, against real daemons and radios. The device boots once for the
class; what one test changes, it puts back."""
import json
import os
import re
import signal
import sys

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import SimTestCase, poll  # noqa: E402

PASSPHRASE = "it's \"a\" pass"
UPSTREAM_AP = ("interface=wlan2\ndriver=nl80211\nctrl_interface=/run/hostapd\nssid=upstream-wpa2\n"
               "hw_mode=g\nchannel=6\nwpa=2\nwpa_key_mgmt=WPA-PSK\nrsn_pairwise=CCMP\n"
               f"wpa_passphrase={PASSPHRASE}\nwps_state=2\neap_server=1\n")


class FullSystem(SimTestCase):
    def setUp(self):
        self.assertTrue(self.dev.mips, "run with QMTNM_SIM=mips")
        # Changes apply at once, as after a power-on (a PPPoE change clears the flag).
        self.dev.activate_flag(1)

    def sta(self):
        return json.loads(self.qmtnm("--json", "--secrets", "get", "sta").stdout)

    def test_target_kernel_build_and_settings_disk(self):
        self.assertIn("MIPS 24Kc", self.dev.out("cat", "/proc/cpuinfo"))
        # A 32-bit little-endian ELF library, and a get through it works.
        self.assertRegex(self.dev.sh("head -c 6 /usr/lib/libqmtnm.so | od -An -tx1").stdout,
                         r"7f 45 4c 46 01 01")
        self.assertIn('"method":0', self.qmtnm("--json", "get", "wanflash").stdout)
        self.qmtnm("set", "lan", "ipaddr=192.168.1.1", "begin=192.168.1.50", "end=192.168.1.60")
        self.dev.sh("hconf write 0x7f:1:5:hello && hconf sync")
        self.dev.reboot()
        self.assertIn('"begin":"192.168.1.50"', self.qmtnm("--json", "get", "lan").stdout)
        self.assertIn("0x7f type 1 len 5: hello", self.dev.out("hconf", "read", "0x7f"))

    def test_qos_mark_and_dhcp_lease_seen_upstream(self):
        # The upstream router counts the echo requests whose DSCP its kernel reads as 46.
        self.dev.on("upstream", "iptables", "-I", "INPUT", "-p", "icmp", "--icmp-type",
                    "echo-request", "-m", "dscp", "--dscp", "46", "-j", "ACCEPT")
        self.addCleanup(self.dev.on, "upstream", "iptables", "-F", "INPUT")
        out = lambda: self.dev.on("upstream", "iptables", "-nvxL", "INPUT").stdout  # noqa: E731
        marked = lambda: int(re.search(r"(?m)^\s*(\d+) .*DSCP match 0x2e", out())[1])  # noqa: E731
        self.dev.run("ping", "-c", "1", "-W", "2", "10.99.0.1")
        self.assertEqual(marked(), 0)
        self.qmtnm("set", "qos", "enable=1", "dscp=46")
        self.addCleanup(self.qmtnm, "set", "qos", "enable=0")
        self.dev.run("ping", "-c", "2", "-W", "2", "10.99.0.1")
        self.assertEqual(marked(), 2)
        mac = self.dev.out("cat", "/sys/class/net/eth0/address").strip()
        self.qmtnm("set", "wan", "method=1")
        self.addCleanup(self.qmtnm, "set", "wan", "method=0", "ipaddr=10.99.0.2",
                        "netmask=255.255.255.0", "gateway=10.99.0.1", "dns1=10.99.0.1")
        addr = poll("a lease on eth0", lambda: (m := re.search(r"inet (10\.99\.0\.1\d\d)/24",
                    self.dev.out("/bin/ip", "-4", "-o", "addr", "show", "eth0"))) and m[1], 30)
        self.dev.on("upstream", "killall", "-USR1", "udhcpd")  # udhcpd writes its leases when told
        self.assertRegex(poll("the lease upstream", lambda: self.dev.on(
            "upstream", "dumpleases", "-f", "/run/udhcpd.leases", check=False).stdout, 30),
            rf"(?im)^{re.escape(mac)}\s+{re.escape(addr)}\b")
        self.assertIn("nameserver 10.99.0.1", self.dev.out("cat", "/var/nm/resolv.conf"))

    def test_station_joins_scans_and_joins_by_wps_button_and_pin(self):
        dev, hostapd_cli = self.dev, ["hostapd_cli", "-p", "/run/hostapd", "-i", "wlan2"]
        # The upstream router serves WPA2 with WPS, its passphrase holding quotes and blanks.
        dev.on("upstream", "/bin/sh", "-c", "cat >/tmp/ap.conf && hostapd -B -P /run/hostapd.pid "
               "/tmp/ap.conf", input=UPSTREAM_AP)
        self.addCleanup(dev.on, "upstream", "/bin/sh", "-c", "kill $(cat /run/hostapd.pid)",
                        check=False)
        self.addCleanup(self.qmtnm, "set", "sta", "enable=0")
        self.qmtnm("set", "sta", "enable=1", "ssid=upstream-wpa2", "auth=2", "encry=0",
                   f"password={PASSPHRASE}")
        poll("link_state 1", lambda: self.sta()["link_state"] == 1, 30)
        saved = dev.out("cat", "/var/nm/wpa_supplicant.conf")
        for line in ('\tssid="upstream-wpa2"\n', f'\tpsk="{PASSPHRASE}"\n'):
            self.assertIn(line, saved)
        ours = [n for n in json.loads(self.qmtnm("--json", "scan").stdout)
                if n["ssid"] == "upstream-wpa2"]
        self.assertEqual([(n["bssid"], n["channel"]) for n in ours], [("02:00:00:00:02:00", 6)])
        self.assertIn("[WPA2-PSK-CCMP]", ours[0]["flags"])
        # WPS button: the LED blinks while the station waits; once the router's button is
        # pressed it joins, the LED stays on, and the learned network is stored.
        led = lambda: dev.sh("cd /sys/class/leds/wifi_led && "  # noqa: E731
                             "echo $(cat trigger brightness delay_on delay_off)").stdout.split()
        self.qmtnm("set", "sta", "enable=0")
        poll("link_state 0", lambda: self.sta()["link_state"] == 0, 30)
        dev.sh("for k in ssid password; do sysconf set -s network/network_sta/$k ''; done")
        wps = dev.popen_on("--", "qmtnm", "set", "sta", "wps=pbc")
        self.assertEqual(poll("the LED blinking", lambda: led()[0] == "timer" and led(), 30),
                         ["timer", "0", "500", "500"])
        dev.on("upstream", *hostapd_cli, "wps_pbc")
        out, err = wps.communicate(timeout=130)
        self.assertEqual((wps.returncode, led()[:2]), (0, ["none", "1"]), out + err)
        got = self.sta()
        self.assertEqual((got["ssid"], got["password"], got["auth"], got["link_state"]),
                         ("upstream-wpa2", PASSPHRASE, 2, 1))
        # WPS PIN: the library's new PIN, which hostapd takes only with a right check digit.
        pin = self.qmtnm("pin", "sta").stdout.strip()
        self.assertEqual(self.sta()["wps_pin"], pin)
        self.qmtnm("set", "sta", "enable=0")
        poll("link_state 0", lambda: self.sta()["link_state"] == 0, 30)
        dev.on("upstream", *hostapd_cli, "wps_pin", "any", pin)
        dev.run("qmtnm", "set", "sta", "wps=pin", timeout=130)
        self.assertEqual(self.sta()["link_state"], 1)

    def test_soft_ap_serves_the_stored_network_and_what_set_ap_writes(self):
        dev, hostapd_cli = self.dev, ["hostapd_cli", "-p", "/var/run/hostapd", "-i", "wlan1"]
        serving = lambda: (m := re.search(r"(?m)^ssid=(.*)$", dev.run(  # noqa: E731
            *hostapd_cli, "get_config", check=False).stdout)) and m[1]
        # At power-on hostapd serves the stored (factory) soft AP, an open network in br0.
        self.assertEqual(serving(), "qmtnm-ap")
        self.assertIn("wlan1", dev.out("ls", "/sys/class/net/br0/brif"))
        # WPA2: the running hostapd rereads its file, and the LAN host's radio joins.
        self.qmtnm("set", "ap", "ssid=qmtnm-new", "auth=3", "encry=0", f"password={PASSPHRASE}")
        self.addCleanup(self.qmtnm, "set", "ap", "ssid=qmtnm-ap", "auth=0")
        poll("the new SSID", lambda: serving() == "qmtnm-new", 30)
        dev.on("lan", "/bin/sh", "-c", "cat >/tmp/w.conf && wpa_supplicant -B -i wlan3 -c "
               "/tmp/w.conf -P /run/wpa_supplicant-wlan3.pid", input="ctrl_interface=/run/"
               f'wpa_supplicant\nnetwork={{\n ssid="qmtnm-new"\n psk="{PASSPHRASE}"\n}}\n')
        self.addCleanup(dev.on, "lan", "/bin/sh", "-c", "kill $(cat /run/wpa_supplicant-wlan3.pid)",
                        check=False)
        status = poll("the LAN host's radio COMPLETED", lambda: "wpa_state=COMPLETED" in (
            s := dev.on("lan", "wpa_cli", "-i", "wlan3", "status", check=False).stdout) and s, 30)
        self.assertIn("key_mgmt=WPA2-PSK", status)
        client = dev.on("lan", "cat", "/sys/class/net/wlan3/address").stdout.strip()
        self.assertIn(client, dev.out(*hostapd_cli, "all_sta"))

    def test_pppoe_account_applied_at_boot_brings_the_session_up(self):
        # pppd runs on br0, so the access concentrator is the LAN host. The password's blank and
        # quote must come back from the device's secrets file as given.
        dev = self.dev
        self.qmtnm("set", "pppoe", "enable=1", "username=isp-user", 'password=pa"ss word')
        self.addCleanup(dev.run, "killall", "pppd", check=False)
        self.addCleanup(self.qmtnm, "set", "pppoe", "enable=0")
        poll("the reboot request", lambda: "function request reboot" in dev.log(), 10)
        self.assertEqual(dev.run("pidof", "pppd", check=False).returncode, 1)
        dev.reboot()
        self.assertEqual(dev.out("cat", "/etc/ppp/pap-secrets"), '"isp-user"\t*\t"pa\\"ss word"\n')
        dev.on("lan", "/bin/sh", "-c", "cat >/etc/ppp/pap-secrets && printf 'require-pap\\n"
               "lcp-echo-interval 10\\n' >/etc/ppp/server-options && pppoe-server -I eth0 "
               "-L 10.64.0.1 -R 10.64.0.10 -N 2 -O /etc/ppp/server-options",
               input='"isp-user" * "pa\\"ss word" *\n')
        self.addCleanup(dev.on, "lan", "killall", "pppoe-server", check=False)
        got = poll("the PPPoE session", lambda: '"connected":1' in (
            out := self.qmtnm("--json", "get", "pppoe").stdout) and out, 60)
        # An address from the server's pool of two (a first attempt may have taken the other).
        self.assertRegex(got, r'"ipaddr":"10\.64\.0\.1[01]"')
        self.assertIn("3 packets transmitted, 3 packets received",
                      dev.out("ping", "-c", "3", "-W", "2", "10.64.0.1"))

    def test_wps_keeps_a_63_character_passphrase_and_64_digits_are_the_key(self):
        dev, p63, key = self.dev, (PASSPHRASE * 5)[:63], "0123456789abcdef" * 4

        def ap(line):  # the upstream router with another key line
            dev.on("upstream", "/bin/sh", "-c", "kill $(cat /run/a); cat >/tmp/a && hostapd -B -P "
                   "/run/a /tmp/a", input=re.sub("wpa_pass.*", line, UPSTREAM_AP))
        joined = lambda: poll("link_state 1", lambda: self.sta()["link_state"] == 1, 60)  # noqa
        self.addCleanup(dev.on, "upstream", "/bin/sh", "-c", "kill $(cat /run/a)")
        self.addCleanup(self.qmtnm, "set", "sta", "enable=0")
        ap(f"wpa_passphrase={p63}")  # learned by WPS, kept, and joined by after a reboot
        dev.on("upstream", "hostapd_cli", "-p", "/run/hostapd", "-i", "wlan2", "wps_pbc")
        dev.run("qmtnm", "set", "sta", "enable=1", "wps=pbc", timeout=130)
        dev.reboot()
        ap(f"wpa_passphrase={p63}")
        self.assertEqual(joined() and self.sta()["password"], p63)
        ap(f"wpa_psk={key}")  # the key itself: the station joins by it, the soft AP serves it
        self.qmtnm("set", "sta", f"password={key}") and joined()
        self.addCleanup(self.qmtnm, "set", "ap", "auth=0")
        self.qmtnm("set", "ap", "auth=3", "encry=0", f"password={key}")
        dev.on("lan", "/bin/sh", "-c", "cat >/tmp/h && wpa_supplicant -Bi wlan3 -c/tmp/h -P/run/h",
               input=f'ctrl_interface=/run/w\nnetwork={{\nssid="qmtnm-ap"\npsk={key}\n}}\n')
        self.addCleanup(dev.on, "lan", "/bin/sh", "-c", "kill $(cat /run/h)")
        poll("the LAN host's radio COMPLETED", lambda: "wpa_state=COMPLETED" in dev.on(
            "lan", "wpa_cli", "-p", "/run/w", "-i", "wlan3", "status", check=False).stdout, 30)
        self.addCleanup(self.qmtnm, "set", "wan", "dns2=10.99.0.53")  # static: only the tool prints
        self.assertRegex(self.qmtnm("set", "wan", "dns2=10.99.0.54").stdout, r"\Awanflash ")

    # From the LAN host: lan-probe (sim/mips/lan-probe.c) and busybox's wget and nc.
    def lan(self, *args):
        return self.dev.on("lan", *args, check=False).stdout

    def test_upnp_device_answers_ssdp_with_the_stored_friendly_name(self):
        self.addCleanup(self.qmtnm, "set", "upnp", "enable=1", "friendlyName=qmtnm device")
        self.qmtnm("set", "upnp", "enable=1", "friendlyName=Cam's den (2)")
        urls = poll("an SSDP answer", lambda: set(self.lan("lan-probe", "ssdp").split()), 30)
        self.assertEqual([u.startswith("http://192.168.1.1:") for u in urls], [True], urls)
        self.assertEqual(re.findall(r"<friendlyName>([^<]*)", self.lan("wget", "-qO-", *urls))[0],
                         "Cam's den (2)")
        self.qmtnm("set", "upnp", "enable=0")
        self.assertEqual(self.lan("lan-probe", "ssdp"), "")

    def test_host_name_and_service_over_multicast_dns(self):
        self.addCleanup(self.qmtnm, "set", "bonjour", "enable=1", "hostname=qmtnm")
        self.qmtnm("set", "bonjour", "enable=1", "hostname=cam's")
        mdns = lambda n: sorted(set(self.lan("lan-probe", "mdns", n).splitlines()))  # noqa: E731
        self.assertEqual(poll("cam's.local", lambda: mdns("cam's.local"), 10),
                         ["A cam's.local 192.168.1.1"])
        self.assertEqual(mdns("_http._tcp.local"), ["PTR _http._tcp.local cam's._http._tcp.local"])
        self.assertEqual(mdns("cam's._http._tcp.local"),
                         ["SRV cam's._http._tcp.local 80 cam's.local"])
        self.qmtnm("set", "bonjour", "enable=0")
        self.assertEqual(mdns("cam's.local"), [])

    def test_ip_filter_white_list_on_port_80(self):
        get = lambda: self.lan("sh", "-c", "printf 'GET / HTTP/1.0\\r\\n\\r\\n' | "  # noqa: E731
                               "nc -w 2 192.168.1.1 80").split("\n")[0].strip()
        self.addCleanup(self.qmtnm, "set", "ipfilter", "enable=0")
        for rule, want in (("192.168.1.10-192.168.1.10", "HTTP/1.1 200 OK"),
                           ("192.168.1.11-192.168.1.20", "")):
            self.qmtnm("set", "ipfilter", "enable=1", "mode=white", f"rule={rule}")
            self.assertEqual(get(), want, rule)
        self.qmtnm("set", "ipfilter", "enable=0")
        self.assertEqual(get(), "HTTP/1.1 200 OK")


    def test_power_cut_during_a_pending_change_rolls_it_back_at_the_next_start(self):
        dev, net = self.dev, lambda: [l for l in dev.out("sysconf", "dump", "network").split(  # noqa
            "\n") if not l.startswith("network/network_pending/")]
        before = net()
        self.qmtnm("try", "--timeout", "600", "set", "lan", "ipaddr=192.168.7.1",
                   "begin=192.168.7.50", "end=192.168.7.60")
        self.assertEqual(dev.addrs("br0"), ["192.168.7.1/24"])
        with open(f"{dev.state}/run/qemu.id") as f:  # the power cut: the emulator killed
            pid = int(f.read().split()[0])
        os.kill(pid, signal.SIGKILL)
        poll("the emulator gone", lambda: not os.path.exists(f"/proc/{pid}"), 10)
        dev.sim("start")
        self.assertEqual((dev.addrs("br0"), net()), (["192.168.1.1/24"], before))
        self.assertIn("pending change: rolled back", dev.boot_log())
        dev.wait_log(simdevice.log_line("qmtnm_try_recover", "pending change rolled back (found "
                                        "unconfirmed at start-up), restored: lan_lcl"))


if __name__ == "__main__":
    simdevice.main()
