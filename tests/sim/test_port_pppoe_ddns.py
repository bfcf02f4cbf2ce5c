#!/usr/bin/env python3
"""The Ethernet port, PPPoE and DDNS on the emulated appliance, and the boot apply that the
device's power-on runs: judged by what the peers and the daemons saw. The upstream router's
neighbour table shows the new MAC address; pppd's own log lines show it read the generated files
(here it stops for want of kernel PPP support); the DDNS provider stand-in upstream records the
update requests with their credentials; the device's crond holds the job."""
import json
import re
import sys

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import SimTestCase, poll  # noqa: E402


def log_line(func, text):
    return re.escape(f"{func:<20}--> {text}")


class PortCase(SimTestCase):
    def json(self, area, *flags):
        return json.loads(self.dev.out("qmtnm", "get", area, "--json", *flags))

    def processes(self, name):
        return [l for l in self.dev.out("ps", "-e", "-o", "comm=").split() if l == name]

    def provider_requests(self):
        out = self.dev.on("upstream", "cat", "/run/ddns-provider.jsonl").stdout
        return [json.loads(l) for l in out.splitlines()]

    def boot_log(self):
        with open(f"{self.dev.state}/run/boot.log") as f:
            return f.read()


class MacAddress(PortCase):
    def test_upstream_sees_the_new_address(self):
        self.qmtnm("set", "ethmac", "02:11:22:33:44:55")
        self.assertEqual(self.json("ethmac")["macaddr"], "02:11:22:33:44:55")
        self.dev.run("ping", "-c", "1", "-W", "2", "10.99.0.1")
        neigh = self.dev.on("upstream", "ip", "neigh", "show", "10.99.0.2").stdout
        self.assertIn("lladdr 02:11:22:33:44:55", neigh)

    def test_text_that_would_reach_the_shell_is_refused(self):
        before = self.json("ethmac")["macaddr"]
        for text in ("0:1:2:3:4:5;reboot", "0:1:2:3:4:5 down"):
            r = self.qmtnm("set", "ethmac", text, check=False)
            self.assertEqual(r.stderr, "ethmac: invalid input (0xFDFDFFF9)\n", text)
        self.assertEqual(self.json("ethmac")["macaddr"], before)


class Pppoe(PortCase):
    def test_stored_account_is_applied_by_the_next_boot(self):
        dev = self.dev
        self.assertEqual(dev.activate_flag(), 1)
        mark = dev.log_size()
        # A name with a quote: it must stay inside its quoted word in pppd's files.
        out = self.qmtnm("set", "pppoe", "enable=1", 'username=isp"user', "password=pw 1").stdout
        self.assertIn("password       = ********", out)
        dev.wait_log(log_line("pppoe_activate_now", "function request reboot"), after=mark)
        dev.wait_log(log_line("qmtnm_lcl_set", "need reboot to activate action"), after=mark)
        self.assertEqual(dev.activate_flag(), 0)
        # pppd untouched: no process, and no options of ours.
        self.assertEqual(self.processes("pppd"), [])
        self.assertEqual(dev.run("test", "-e", "/etc/ppp/options", check=False).returncode, 1)
        self.assertEqual(dev.out("sysconf", "get", "network/network_pppoe/username").strip(),
                         '"isp\\"user"')

        dev.reboot()

        self.assertIn("pppoe: applied", self.boot_log())
        options = dev.out("cat", "/etc/ppp/options").splitlines()
        self.assertEqual(options[0], 'name "isp\\"user"')
        self.assertEqual(options[-1], "plugin /lib/ppp/rp-pppoe.so br0")
        self.assertEqual(len(options), 15)
        secret = '"isp\\"user"\t*\t"pw 1"\n'
        self.assertEqual(dev.out("cat", "/etc/ppp/pap-secrets"), secret)
        self.assertEqual(dev.out("cat", "/etc/ppp/chap-secrets"), secret)
        # pppd read the options (the plugin line comes after the name) and went on until the
        # kernel's missing PPP support stopped it.
        dev.wait_log(r"pppd\[\d+\]: Plugin /lib/ppp/rp-pppoe.so loaded\.")
        dev.wait_log(r"pppd\[\d+\]: Couldn't open the /dev/ppp device")
        self.assertNotRegex(dev.log(), r"pppd\[\d+\]: .*(unrecognized option|In file)")
        # The boot apply leaves the flag set: changes apply at once again.
        self.assertEqual(dev.activate_flag(), 1)
        got = self.json("pppoe", "--secrets")
        self.assertEqual((got["enable"], got["username"], got["password"], got["connected"]),
                         (1, 'isp"user', "pw 1", 0))

    def test_line_breaks_never_reach_the_files(self):
        r = self.qmtnm("set", "pppoe", "enable=1", "username=a\nplugin /tmp/x.so", "password=pw",
                       check=False)
        self.assertEqual(r.stderr, "pppoe: invalid input (0xFDF9FFF9)\n")
        self.assertEqual(self.dev.activate_flag(), 1)


class Ddns(PortCase):
    def test_update_reaches_the_provider_and_crond_holds_the_job(self):
        dev = self.dev
        self.qmtnm("set", "ddns", "enable=1", "domain=cam.example.net", "username=me & you@x",
                   "password=p:ss w@rd&1")
        self.assertEqual(dev.out("cat", "/var/spool/cron/crontabs/root"),
                         "*/1 * * * * /etc/cron/ddns.conf > /dev/null\n")
        self.assertEqual(self.processes("crond"), ["crond"])
        req = poll("the update at the provider",
                   lambda: [r for r in self.provider_requests() if r["user"] is not None])
        self.assertEqual(req[0]["path"], "/dyndns/update")
        self.assertEqual(req[0]["query"]["hostname"], ["cam.example.net"])
        self.assertEqual((req[0]["user"], req[0]["password"]), ("me & you@x", "p:ss w@rd&1"))
        self.assertEqual(req[0]["client"], "10.99.0.2")
        self.assertEqual(self.json("ddns")["password"], "********")

        # Off: no cron job and no crond left.
        self.qmtnm("set", "ddns", "enable=0")
        self.assertEqual(self.processes("crond"), [])
        self.assertEqual(dev.out("ls", "/var/spool/cron/crontabs", "/etc/cron").split(),
                         ["/etc/cron:", "/var/spool/cron/crontabs:"])
        self.assertEqual(self.json("ddns", "--secrets")["password"], "p:ss w@rd&1")

    def test_hostile_domain_is_refused(self):
        r = self.qmtnm("set", "ddns", "enable=1", "domain=a.example;reboot", "username=u",
                       "password=p", check=False)
        self.assertEqual(r.stderr, "ddns: invalid input (0xFDFAFFF9)\n")
        self.assertEqual(self.dev.run("test", "-e", "/etc/cron/ddns.conf", check=False).returncode,
                         1)


class BootApply(PortCase):
    def test_1_settings_stored_for_the_reboot_are_live_after_it(self):
        dev = self.dev
        dev.set_activate_flag(0)
        self.qmtnm("set", "qos", "enable=1", "dscp=46")
        self.qmtnm("set", "ddns", "enable=1", "domain=boot.example.net", "username=u1",
                   "password=p1")
        self.assertEqual([l for l in dev.mangle() if "qos_mangle_chain" in l], [])
        self.assertEqual(self.processes("crond"), [])
        # Ethernet type 1 switches PPPoE and DDNS off in the store for the next boot.
        self.qmtnm("set", "pppoe", "enable=1", "username=u", "password=p")
        self.qmtnm("set", "ethtype", "type=1")
        self.assertEqual(self.json("ddns")["enable"], 0)
        self.assertEqual(self.json("pppoe")["enable"], 0)
        self.qmtnm("set", "ddns", "enable=1")  # DDNS on again, stored only

        dev.reboot()

        self.assertEqual(self.boot_log().splitlines()[-10:],
                         ["qos: applied", "wan: applied", "lan: applied", "ipfilter: applied",
                          "pppoe: applied", "ddns: applied", "upnp: applied",
                          "bonjour: applied", "ap: applied", "sta: applied"])
        self.assertIn("-A qos_mangle_chain -j DSCP --set-dscp 0x2e", dev.mangle())
        self.assertEqual(dev.dscp_received_upstream(), 46)
        self.assertEqual(self.processes("crond"), ["crond"])
        self.assertEqual(self.processes("pppd"), [])
        self.assertEqual(self.processes("udhcpd"), ["udhcpd"])
        poll("the boot's update at the provider", lambda: [
            r for r in self.provider_requests()
            if r["user"] == "u1" and r["query"].get("hostname") == ["boot.example.net"]])
        self.assertEqual(dev.activate_flag(), 1)

    def test_2_one_failing_area_does_not_stop_the_others(self):
        dev = self.dev
        self.qmtnm("set", "qos", "enable=1", "dscp=10")
        dev.run("sysconf", "del", "network/network_lan/port")
        r = self.qmtnm("boot", check=False)
        self.assertEqual(r.returncode, 1)
        self.assertIn("lan: settings store read or write failed (0xFDFBFFFE)",
                      r.stderr.splitlines())
        # The soft AP bridges by the same stored port, so it fails too; the station does not.
        self.assertEqual(r.stdout.splitlines(), ["qos: applied", "wan: applied",
                                                 "ipfilter: applied", "pppoe: applied",
                                                 "ddns: applied", "upnp: applied",
                                                 "bonjour: applied", "sta: applied"])
        self.assertIn("-A qos_mangle_chain -j DSCP --set-dscp 0x0a", dev.mangle())
        dev.run("sysconf", "set", "-s", "network/network_lan/port", "br0")

    def test_3_full_text_fields_are_applied_whole_after_a_reboot(self):
        dev = self.dev
        ssid, domain, host = "s" * 32, "d" * 24 + ".example", "h" * 64
        self.qmtnm("set", "sta", "enable=1", f"ssid={ssid}", "auth=0")
        self.qmtnm("set", "ddns", "enable=1", f"domain={domain}", "username=u", "password=p")
        self.qmtnm("set", "bonjour", "enable=1", f"hostname={host}")

        dev.reboot()

        self.assertIn("sta: applied", self.boot_log().splitlines())
        got = dev.out("wpa_cli", "-p/var/run/wpa_supplicant", "-iwlan0", "get_network", "0",
                      "ssid").strip()
        self.assertEqual(got, f'"{ssid}"')
        self.assertIn(f"hostname={domain}&", dev.out("cat", "/etc/cron/ddns.conf"))
        poll("the boot's update at the provider", lambda: [
            r for r in self.provider_requests() if r["query"].get("hostname") == [domain]])
        self.assertEqual(dev.out("hostname").strip(), host)
        self.assertIn(f"\t{host}\n", dev.out("cat", "/var/conf/hosts"))

    def test_4_a_restored_backup_with_hostile_values_is_refused_at_power_on(self):
        """The stored values of the classic restored-backup attack: each would run a command or
        add a line to a daemon's file if applied unchecked."""
        dev = self.dev
        self.qmtnm("set", "qos", "enable=1", "dscp=12")
        backup = "".join(f'{path} = {value}\n' for path, value in [
            ("network/network_ipfilter/common/enable", "1"),
            ("network/network_ipfilter/common/index", "1"),
            ("network/network_ipfilter/rules/#0/begin_ip", '"1;touch /tmp/p;"'),
            ("network/network_ipfilter/rules/#0/end_ip", '"1.1.1.9"'),
            ("network/network_ddns/enable", "1"),
            ("network/network_ddns/domain", '"x;touch /tmp/q;"'),
            ("network/network_sta/enable", "1"),
            ("network/network_sta/auth", "1"),
            ("network/network_sta/index", "1"),
            ("network/network_sta/password", '"$(touch /tmp/r)"'),
            ("network/network_softap/auth", "3"),
            ("network/network_softap/password", '"12345678\\nwpa=0"'),
            ("network/network_upnp/friendlyName", '"cam\\nsecure_mode=no"'),
            ("network/network_bonjour/hostname", '"cam\\n10.6.6.6\\tevil"'),
        ])
        dev.run("sh", "-c", "cat >/tmp/backup.conf && sysconf load /tmp/backup.conf",
                input=backup)

        dev.reboot()

        lines = self.boot_log().splitlines()
        for area in ("ipfilter", "ddns", "upnp", "bonjour", "ap", "sta"):
            self.assertIn(f"{area}: stored settings refused, not applied", lines)
        for area in ("qos", "wan", "lan", "pppoe"):
            self.assertIn(f"{area}: applied", lines)
        self.assertIn("-A qos_mangle_chain -j DSCP --set-dscp 0x0c", dev.mangle())
        self.assertEqual(dev.run("ls", "/tmp/p", "/tmp/q", "/tmp/r", check=False).stdout, "")
        self.assertNotIn("ipf_chain", dev.out("iptables", "-S"))
        self.assertEqual(self.processes("crond"), [])
        self.assertNotIn("secure_mode", dev.run("cat", "/var/nm/miniupnpd.conf", check=False).stdout)
        self.assertNotIn("wpa=0", dev.run("cat", "/var/nm/hostapd.conf", check=False).stdout)
        self.assertNotIn("evil", dev.run("cat", "/var/conf/hosts", check=False).stdout)
        dev.wait_log(log_line("qmtnm_lcl_apply_stored",
                              "stored ipfilter_lcl settings refused, not applied, errno = "
                              "-34144263"))


if __name__ == "__main__":
    simdevice.main()
