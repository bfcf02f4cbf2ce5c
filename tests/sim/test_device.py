#!/usr/bin/env python3
"""The emulated appliance itself (namespaces, network, file system, userland, log, store, power
cycle, none of it reaching the host), and the library's common helpers on it: interface addresses
read from the kernel, the hosts file written from the store."""
import os
import re
import shutil
import subprocess
import sys
import uuid

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import read  # noqa: E402

# Every path the library uses, with the file system the device must have there.
PATHS = {"/var/nm": "tmpfs", "/var/conf": "tmpfs", "/var/run": "tmpfs", "/etc/ppp": "tmpfs",
           "/etc/cron": "tmpfs", "/var/spool/cron": "tmpfs", "/tmp": "tmpfs", "/dev/shm": "tmpfs",
           "/sys/class/leds/wifi_led": "tmpfs", "/dev": "overlayfs", "/etc": "overlayfs"}
HOSTS = ("# Do not remove the following line, or various programs\n"
         "# that require network functionality will fail.\n"
         "127.0.0.1\tlocalhost.localdomain\tlocalhost\n10.99.0.2\tkitchen-cam\n"
         "192.168.1.1\twww.qmtnm-device.com\n")


class Device(simdevice.SimTestCase):
    def test_1_isolation_and_network(self):
        dev, tag = self.dev, uuid.uuid4().hex[:12]
        for ns in ("net", "mnt", "pid", "ipc", "uts"):
            self.assertNotEqual(dev.out("readlink", f"/proc/self/ns/{ns}").strip(),
                                os.readlink(f"/proc/self/ns/{ns}"), ns)
        marker = subprocess.Popen(["sleep", "300"])
        self.addCleanup(marker.wait)
        self.addCleanup(marker.kill)
        procs = dev.out("ps", "-eo", "pid=,args=").splitlines()
        self.assertFalse(procs[0].split()[0] != "1" or len(procs) >= 20, procs)
        dev.run("killall", "sleep")
        self.assertIsNone(marker.poll(), "killall on the device ended a host process")
        self.assertEqual(dict(zip(PATHS, dev.out("stat", "-f", "-c", "%T", *PATHS).split())), PATHS)
        # Files (POSIX shared memory and semaphores among them) stay on the device.
        probes = [f"{d}/sim-probe-{tag}" for d in [*PATHS][:8] + ["/dev", "/etc", "/root"]]
        dev.run("touch", *probes)
        self.assertEqual(sorted(dev.out("ls", *probes).split()), sorted(probes))
        self.assertEqual([p for p in probes if os.path.lexists(p)], [], "reached the host")
        dev.run("hostname", f"renamed-{tag}")
        self.assertEqual(dev.out("hostname").strip(), f"renamed-{tag}")  # the host's: tearDown

        # The network, and the peers on it.
        links = dev.out("ip", "-d", "-o", "link")
        for name, kind in (("lo", "LOOPBACK"), ("eth0", " veth "), ("br0", " bridge "),
                           ("lan0", "master br0"), ("wlan0", " tun type tap "), ("wlan1", " tap ")):
            self.assertRegex(links, rf"(?m)^\d+: {name}[@:].*{re.escape(kind)}")
        dev.run("ping", "-c", "1", "-W", "2", "10.99.0.1")
        dev.on("lan", "ping", "-c", "1", "-W", "2", "192.168.1.1")
        self.assertEqual([dev.on(m, "hostname").stdout.strip() for m in ("upstream", "lan")],
                         ["upstream", "lan-host"])
        # The library reads the addresses the kernel has, and a new one at once.
        dev.sh("ip addr flush dev wlan1 && ip addr add 172.16.5.9/20 dev wlan1")
        for name, addr, mask in (("eth0", "10.99.0.2", "255.255.255.0"),
                                 ("br0", "192.168.1.1", "255.255.255.0"),
                                 ("wlan1", "172.16.5.9", "255.255.240.0")):
            mac = dev.out("cat", f"/sys/class/net/{name}/address").strip()
            self.assertEqual(dev.out("qmtnm", "iface", name),
                             f"{name} address {addr} netmask {mask} hwaddr {mac}\n")
        r = self.qmtnm("iface", "nosuch0", check=False)
        self.assertEqual((r.returncode, r.stderr), (1, "nosuch0: No such device (-19)\n"))

    def test_2_userland_store_and_log(self):
        dev, tag = self.dev, uuid.uuid4().hex
        busybox = os.path.realpath(shutil.which("busybox"))
        self.assertEqual(dev.sh("for c in sh udhcpc udhcpd syslogd; do "
                                "readlink -f $(command -v $c); done").stdout.split(), [busybox] * 4)
        # dash would run "cmd &>/dev/null" in the background and print "b" before "a".
        self.assertEqual(dev.sh("(sleep 0.3; echo a >>/tmp/o) &>/dev/null; echo b >>/tmp/o; "
                                "cat /tmp/o").stdout.split(), ["a", "b"])
        # The factory settings, then the emulated network's own WAN settings over them.
        files = ("sysconf/defaults.conf", "sim/lib/sim-network.conf")
        want = dict(re.findall(r"(?m)^(network/\S+) = (.*)$",
                               "".join(read(f"{simdevice.TOP}/{p}") for p in files)))
        self.assertGreater(len(want), 10)
        self.assertEqual(dict(l.split(" = ", 1) for l in dev.out("sysconf", "dump").splitlines()),
                         want)
        dev.run("logger", "-p", "local2.err", "-t", "libqmtnm", f"probe {tag}")
        self.assertRegex(dev.wait_log(tag),
                         rf" qmtnm-device local2\.err libqmtnm(\[\d+\])?: probe {tag}$")

    def test_3_hosts_file_from_the_store(self):
        for key, value in (("wan/ipaddr", "10.99.0.2"), ("lan/ipaddr", "192.168.1.1"),
                           ("bonjour/hostname", "kitchen-cam")):
            self.dev.run("sysconf", "set", "-s", f"network/network_{key}", value)
        self.qmtnm("hosts")
        self.assertEqual(self.dev.out("cat", "/var/conf/hosts"), HOSTS)
        # Without the host name in the store nothing is written.
        self.dev.sh("sysconf del network/network_bonjour/hostname && rm /var/conf/hosts")
        r = self.qmtnm("hosts", check=False)
        self.assertEqual((r.returncode, r.stderr, self.dev.exists("/var/conf/hosts")),
                         (1, "hosts: settings store read or write failed (0xFD00FFFE)\n", False))
        self.dev.run("sysconf", "set", "-s", "network/network_bonjour/hostname", "qmtnm")

    def test_4_reboot_keeps_the_stores_and_drops_the_rest(self):
        dev = self.dev
        dev.sh("qmtnm get qos >/dev/null; echo x >/var/nm/scratch; echo y >/dev/shm/scratch; "
               "sleep 600 & sysconf set network/network_qos/dscp 33")
        dev.sh("hconf write 0x51:1:4:kept && hconf sync && hconf write 0x52:1:4:lost")
        marker = uuid.uuid4().hex
        dev.run("logger", f"before {marker}")
        dev.wait_log(marker)
        dev.reboot()
        self.assertFalse(dev.exists("/dev/shm/scratch") or dev.exists("/var/nm/scratch"))
        self.assertNotIn("sleep 600", dev.out("ps", "-eo", "args="))
        self.assertEqual(dev.stored("network_qos/dscp"), "33")
        saved = dev.out("hconf", "save")
        self.assertIn("0x51:1:4:kept", saved)
        self.assertNotIn("0x52", saved)
        # A new log per power cycle, the previous one kept beside it.
        self.assertNotIn(marker, dev.log())
        self.assertIn(marker, read(os.path.join(dev.state, "log", "messages.0")))
        # The library starts afresh: the activate flag is created again, set.
        dev.run("qmtnm", "get", "qos")
        self.assertEqual(dev.activate_flag(), 1)
        self.assertEqual(dev.out("hostname").strip(), "qmtnm")  # the boot apply's Bonjour name

    def test_5_stop_ends_every_machine(self):
        run = os.path.join(self.dev.state, "run")
        pids = [int(read(f"{run}/{m}.pid").split()[0]) for m in ("device", "upstream", "lan")]
        self.dev.sim("stop")
        simdevice.poll("the end", lambda: not [p for p in pids if os.path.exists(f"/proc/{p}")])
        self.assertEqual(self.dev.sim("status", check=False).returncode, 3)
        self.assertEqual(self.dev.out("hostname").strip(), "qmtnm")  # any use powers it on


if __name__ == "__main__":
    simdevice.main()
