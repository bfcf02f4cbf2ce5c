#!/usr/bin/env python3
"""The emulated appliance itself: namespaces, network, file system, userland, logging, store,
power cycle, and that none of it reaches the host."""
import os
import re
import subprocess
import sys
import time
import uuid

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import SimTestCase  # noqa: E402

DEFAULTS = os.path.join(simdevice.TOP, "sysconf", "defaults.conf")
SIM_NETWORK = os.path.join(simdevice.TOP, "sim", "lib", "sim-network.conf")

# Every path the library writes or reads, with the file system the device must have there.
PRIVATE_PATHS = {
    "/var/nm": "tmpfs", "/var/conf": "tmpfs", "/var/run": "tmpfs", "/etc/ppp": "tmpfs",
    "/etc/cron": "tmpfs", "/var/spool/cron": "tmpfs", "/tmp": "tmpfs", "/dev/shm": "tmpfs",
    "/sys/class/leds/wifi_led": "tmpfs", "/dev": "overlayfs", "/etc": "overlayfs",
}


class Plumbing(SimTestCase):
    def test_every_namespace_but_the_user_one_is_private(self):
        for ns in ("net", "mnt", "pid", "ipc", "uts"):
            inside = self.dev.out("readlink", f"/proc/self/ns/{ns}").strip()
            self.assertNotEqual(inside, os.readlink(f"/proc/self/ns/{ns}"), ns)

    def test_only_device_processes_are_visible(self):
        marker = subprocess.Popen(["sleep", "300"])
        try:
            procs = self.dev.out("ps", "-eo", "pid=,args=").splitlines()
            self.assertRegex(procs[0].strip(), r"^1 ")
            self.assertFalse([p for p in procs if "sleep 300" in p], procs)
            self.assertLess(len(procs), 20, procs)
            # A killall on the device reaches the device's processes only.
            self.dev.run("killall", "sleep")
            self.assertIsNone(marker.poll(), "killall on the device ended a host process")
        finally:
            marker.kill()
            marker.wait()

    def test_interfaces(self):
        links = self.dev.out("ip", "-d", "-o", "link").splitlines()

        def link(name):
            found = [l for l in links if re.match(rf"^\d+: {name}[@:]", l)]
            self.assertEqual(len(found), 1, f"{name} in {links}")
            return found[0]

        self.assertIn("LOOPBACK", link("lo"))
        self.assertIn(" veth ", link("eth0"))
        self.assertIn(" bridge ", link("br0"))
        self.assertIn("master br0", link("lan0"))
        for w in ("wlan0", "wlan1"):
            self.assertIn(" tun type tap ", link(w))
        addrs = self.dev.out("ip", "-o", "-4", "addr").splitlines()
        self.assertTrue(any(re.search(r" eth0 +inet 10\.99\.0\.2/24 ", a) for a in addrs), addrs)
        self.assertTrue(any(re.search(r" br0 +inet 192\.168\.1\.1/24 ", a) for a in addrs), addrs)
        self.assertEqual(self.dev.out("cat", "/sys/class/net/wlan0/operstate").strip(), "down")

    def test_peers_are_reachable(self):
        self.dev.run("ping", "-c", "1", "-W", "2", "10.99.0.1")
        self.dev.run("ping", "-c", "1", "-W", "2", "192.168.1.10")
        self.dev.on("lan", "ping", "-c", "1", "-W", "2", "192.168.1.1")
        self.assertEqual(self.dev.on("upstream", "hostname").stdout.strip(), "upstream")
        self.assertEqual(self.dev.on("lan", "hostname").stdout.strip(), "lan-host")

    def test_shell_is_busybox_ash_and_redirects_in_the_foreground(self):
        self.assertEqual(self.dev.out("readlink", "-f", "/bin/sh").strip(),
                         os.path.realpath(subprocess.run(["sh", "-c", "command -v busybox"],
                                                         capture_output=True, text=True)
                                          .stdout.strip()))
        # dash would run "cmd &>/dev/null" in the background and print "b" before "a".
        out = self.dev.sh("(sleep 0.3; echo a >>/tmp/order) &>/dev/null; echo b >>/tmp/order; "
                          "cat /tmp/order").stdout
        self.assertEqual(out.split(), ["a", "b"])

    def test_userland(self):
        for cmd, where in (("udhcpc", "busybox"), ("udhcpd", "busybox"), ("syslogd", "busybox"),
                           ("iptables", "/usr/sbin/"), ("ifconfig", ""), ("route", ""),
                           ("killall", "")):
            path = self.dev.sh(f"command -v {cmd}").stdout.strip()
            self.assertTrue(path, cmd)
            real = self.dev.out("readlink", "-f", path).strip()
            if where == "busybox":
                self.assertTrue(real.endswith("/busybox"), f"{cmd} is {real}")
            elif where:
                self.assertTrue(real.startswith(where) or path.startswith(where), f"{cmd}: {real}")

    def test_environment_and_tools(self):
        env = dict(l.split("=", 1) for l in self.dev.out("env").splitlines() if "=" in l)
        self.assertEqual(env["QMTNM_DEVICE"], "sim")
        self.assertEqual(env["SYSCONF_DB"], os.path.join(self.dev.state, "persist", "sysconf.db"))
        for tool in ("qmtnm", "sysconf"):
            self.assertEqual(self.dev.sh(f"command -v {tool}").stdout.strip(),
                             os.path.join(self.dev.build, "tools", tool))
        standin = os.path.join(self.dev.build, "hconf", "libhconf_standin.so")
        if os.path.exists(standin):
            self.assertEqual(env.get("LD_PRELOAD"), standin)
            self.assertIn(standin, self.dev.out("cat", "/proc/1/environ"))
            self.assertEqual(self.dev.sh("command -v hconf").stdout.strip(),
                             os.path.join(self.dev.build, "hconf", "hconf"))
        # The boot apply's Bonjour area names the device after the stored host name.
        self.assertEqual(self.dev.out("hostname").strip(), "qmtnm")

    def test_store_holds_the_factory_settings(self):
        # The factory settings, then the emulated network's own WAN settings over them.
        want = {}
        for path in (DEFAULTS, SIM_NETWORK):
            with open(path) as f:
                for line in f:
                    m = re.match(r"^(network/\S+) = (.*)$", line.strip())
                    if m:
                        want[m.group(1)] = m.group(2)
        self.assertGreater(len(want), 10)
        got = dict(l.split(" = ", 1) for l in self.dev.out("sysconf", "dump").splitlines())
        self.assertEqual(got, want)

    def test_library_paths_are_private(self):
        tag = uuid.uuid4().hex
        fstypes = self.dev.out("stat", "-f", "-c", "%T", *PRIVATE_PATHS).split()
        self.assertEqual(dict(zip(PRIVATE_PATHS, fstypes)), PRIVATE_PATHS)
        dirs = ["/var/nm", "/var/conf", "/var/run", "/etc/ppp", "/etc/cron", "/var/spool/cron",
                "/tmp", "/dev/shm", "/dev", "/etc", "/var", "/root", "/usr/bin"]
        probes = [f"{d}/sim-probe-{tag}" for d in dirs]
        self.dev.run("touch", *probes)
        self.assertEqual(sorted(self.dev.out("ls", *probes).split()), sorted(probes))
        self.assertEqual([p for p in probes if os.path.lexists(p)], [], "reached the host")

    def test_posix_ipc_and_host_name_stay_inside(self):
        tag = uuid.uuid4().hex[:12]
        self.dev.run("python3", "-c",
                     "import ctypes, os; libc = ctypes.CDLL(None, use_errno=True); "
                     "libc.sem_open.restype = ctypes.c_void_p; "
                     f"assert libc.sem_open(b'/simprobe{tag}', os.O_CREAT, 0o644, 1); "
                     f"assert libc.shm_open(b'/shmprobe{tag}', os.O_CREAT | os.O_RDWR, 0o644) >= 0")
        listing = self.dev.out("ls", "/dev/shm").split()
        self.assertIn(f"sem.simprobe{tag}", listing)
        self.assertIn(f"shmprobe{tag}", listing)
        self.assertFalse(os.path.exists(f"/dev/shm/sem.simprobe{tag}"))
        self.assertFalse(os.path.exists(f"/dev/shm/shmprobe{tag}"))
        self.dev.run("hostname", f"renamed-{tag}")
        self.assertEqual(self.dev.out("hostname").strip(), f"renamed-{tag}")
        self.dev.run("hostname", "qmtnm-device")

    def test_led_stand_in(self):
        files = self.dev.out("ls", "/sys/class/leds/wifi_led").split()
        self.assertEqual(sorted(files), ["brightness", "delay_off", "delay_on", "trigger"])
        self.dev.sh("echo timer >/sys/class/leds/wifi_led/trigger")
        self.assertEqual(self.dev.out("cat", "/sys/class/leds/wifi_led/trigger").strip(), "timer")

    def test_system_log_is_captured(self):
        tag = uuid.uuid4().hex
        self.dev.run("logger", "-p", "local2.err", "-t", "libqmtnm", f"probe {tag}")
        line = self.dev.wait_log(tag)
        self.assertRegex(line, rf" qmtnm-device local2\.err libqmtnm(\[\d+\])?: probe {tag}$")
        self.assertIn(line, subprocess.run([simdevice.DEVICE, "log"], env=self.dev.env,
                                           capture_output=True, text=True).stdout)


class PowerCycle(SimTestCase):
    def pid_file(self, machine):
        with open(os.path.join(self.dev.state, "run", f"{machine}.pid")) as f:
            return f.read()

    def test_reboot_keeps_the_stores_and_drops_the_rest(self):
        dev = self.dev
        dev.run("qmtnm", "get", "qos")
        self.assertIn("lcl_activate", dev.out("ls", "/dev/shm").split())
        dev.sh("echo x >/var/nm/scratch; echo y >/dev/shm/scratch; sleep 600 &")
        dev.run("sysconf", "set", "network/network_qos/dscp", "33")
        hconf = os.path.exists(os.path.join(dev.build, "hconf", "hconf"))
        if hconf:
            dev.run("hconf", "write", "0x51:1:4:kept")
            dev.run("hconf", "sync")
            dev.run("hconf", "write", "0x52:1:4:lost")
        init_before = self.pid_file("device")
        marker = uuid.uuid4().hex
        dev.run("logger", f"before {marker}")
        dev.wait_log(marker)

        dev.reboot()

        self.assertNotEqual(self.pid_file("device"), init_before)
        # The boot apply has run the library again and written the daemons' files afresh.
        self.assertNotIn("scratch", dev.out("ls", "/dev/shm").split())
        self.assertNotIn("scratch", dev.out("ls", "/var/nm").split())
        self.assertNotIn("sleep 600", dev.out("ps", "-eo", "args="))
        self.assertEqual(dev.out("sysconf", "get", "network/network_qos/dscp").strip(), "33")
        if hconf:
            saved = dev.out("hconf", "save")
            self.assertIn("0x51:1:4:kept", saved)
            self.assertNotIn("0x52", saved)
        # A new log per power cycle; the previous one is kept beside it.
        self.assertNotIn(marker, dev.log())
        with open(os.path.join(dev.state, "log", "messages.0")) as f:
            self.assertIn(marker, f.read())
        # The library starts afresh: the activate flag is created again, set.
        dev.run("qmtnm", "get", "qos")
        self.assertEqual(dev.activate_flag(), 1)

    def test_stop_ends_every_machine(self):
        pids = []
        for m in ("device", "upstream", "lan"):
            pids.append(int(self.pid_file(m).split()[0]))
        self.dev.stop()
        time.sleep(0.1)
        self.assertEqual([p for p in pids if os.path.exists(f"/proc/{p}")], [])
        r = subprocess.run([simdevice.DEVICE, "status"], env=self.dev.env, capture_output=True,
                           text=True)
        self.assertEqual(r.returncode, 3, r.stdout)
        # Any use powers it on again.
        self.assertEqual(self.dev.out("hostname").strip(), "qmtnm")


if __name__ == "__main__":
    simdevice.main()
