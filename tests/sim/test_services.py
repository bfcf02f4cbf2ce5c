#!/usr/bin/env python3
"""The device's services as a laptop on its LAN sees them: the web service on port 80 behind
the IP filter, the UPnP device found by SSDP, and the host name and web service over multicast
DNS. Every probe runs on the LAN host (sim/bin/lan-probe) and sends real packets."""
import json
import sys

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import SimTestCase, poll  # noqa: E402

WEB = "http://192.168.1.1/"
INVALID_IPF = "0xFDF6FFF9"


class Services(SimTestCase):
    def probe(self, *args, check=False):
        return self.dev.on("lan", "lan-probe", *args, check=check)

    def reach(self, source):
        """What a connection to the web service from source gets: a status, refused, timeout."""
        return self.probe("http-get", WEB, "--source", source, "--timeout", "1").stdout.strip()

    def processes(self, name):
        return self.dev.sh(f"pidof {name} || true").stdout.split()

    def test_ip_filter_lets_exactly_the_listed_addresses_reach_port_80(self):
        dev = self.dev
        both = {"192.168.1.10": "200", "192.168.1.20": "200"}
        self.assertEqual({a: self.reach(a) for a in both}, both)
        cases = [
            # white list: only .10 may connect; everyone else's SYN is dropped
            (["mode=white", "rule=192.168.1.10-192.168.1.10"],
             {"192.168.1.10": "200", "192.168.1.20": "timeout"}),
            # black list: .10 to .15 are dropped, the rest may connect
            (["mode=black", "rule=192.168.1.10-192.168.1.15", "rule=192.168.1.40-192.168.1.41"],
             {"192.168.1.10": "timeout", "192.168.1.20": "200"}),
        ]
        for words, want in cases:
            for _ in range(2):  # a set repeated keeps one chain, hooked once
                self.qmtnm("set", "ipfilter", "enable=1", *words)
            self.assertEqual({a: self.reach(a) for a in want}, want, words)
            rules = dev.out("iptables", "-S").splitlines()
            self.assertEqual(rules.count("-N ipf_chain"), 1, rules)
            self.assertEqual(rules.count("-A INPUT -j ipf_chain"), 1, rules)

        # Text that inet_aton would take and the shell would run is refused; nothing changes.
        before = dev.out("iptables", "-S", "ipf_chain")
        for text in ("1.1.1.1 $(halt)", "1.1.1.1;>/tmp/pw"):
            r = self.qmtnm("set", "ipfilter", f"rule={text}-1.1.1.2", check=False)
            self.assertNotEqual(r.returncode, 0)
            self.assertIn(INVALID_IPF, r.stderr)
        self.assertEqual(dev.sh("test -e /tmp/pw && echo ran || echo nothing ran").stdout.strip(),
                         "nothing ran")
        self.assertEqual(dev.out("iptables", "-S", "ipf_chain"), before)
        self.assertEqual(json.loads(self.qmtnm("get", "ipfilter", "--json").stdout)["rules"],
                         ["192.168.1.10-192.168.1.15", "192.168.1.40-192.168.1.41"])

        # Off: the chain is gone and the port open to all again.
        self.qmtnm("set", "ipfilter", "enable=0")
        self.assertEqual({a: self.reach(a) for a in both}, both)
        self.assertNotIn("ipf_chain", dev.out("iptables", "-S"))

    def test_upnp_device_is_found_by_ssdp_with_its_friendly_name(self):
        name = "Cam's den (2)"  # the daemon writes it into its XML unescaped
        self.qmtnm("set", "upnp", "enable=1", f"friendlyName={name}")

        def found():
            r = self.probe("ssdp-search", "--st", "upnp:rootdevice", "--json")
            return [json.loads(l) for l in r.stdout.splitlines()] if r.returncode == 0 else None
        answers = poll("the device's SSDP answer", found)
        self.assertEqual([a["friendlyName"] for a in answers], [name])
        self.assertTrue(answers[0]["location"].startswith("http://192.168.1.1:"), answers)
        self.assertEqual(len(self.processes("miniupnpd")), 1)

        self.qmtnm("set", "upnp", "enable=0")
        self.assertEqual(self.processes("miniupnpd"), [])
        self.assertEqual(self.probe("ssdp-search", "--st", "upnp:rootdevice").returncode, 1)

    def test_host_name_and_web_service_over_multicast_dns(self):
        self.qmtnm("set", "bonjour", "enable=1", "hostname=cam's")
        self.assertEqual(self.dev.out("hostname").strip(), "cam's")
        resolved = poll("cam's.local over mDNS",
                        lambda: self.probe("mdns-resolve", "cam's.local").stdout.split())
        self.assertEqual(resolved, ["192.168.1.1"])
        browsed = poll("_http._tcp over mDNS",
                       lambda: self.probe("mdns-browse", "_http._tcp").stdout.splitlines())
        self.assertEqual([l.split("\t")[1:3] for l in browsed], [["cam's.local.", "80"]])

        self.qmtnm("set", "bonjour", "enable=0")
        self.assertEqual(self.processes("mDNSResponderPosix"), [])
        self.assertEqual(self.probe("mdns-resolve", "cam's.local", "--timeout", "2").returncode, 1)


if __name__ == "__main__":
    simdevice.main()
