"""Drives the emulated appliance (sim/device) from the integration tests. Every test class gets a
device of its own (ctest gives each its own QMTNM_SIM_STATE): SimTestCase resets it before the
first test, powers it off after the last, and checks that the host did not change meanwhile."""
import json
import os
import re
import subprocess
import sys
import tempfile
import time
import unittest

TOP = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", ".."))
DEVICE = os.path.join(TOP, "sim", "device")
WPA_CLI = ["wpa_cli", "-p/var/run/wpa_supplicant", "-iwlan0"]


def log_line(function, text):
    """A line of the library's log: the function name padded to 20 characters, "--> ", text."""
    return re.escape(f"{function:<20}--> {text}")


def read(path):
    with open(path) as f:
        return f.read()


def poll(what, fn, timeout=15.0):
    """Calls fn until it returns something true, which is returned; fails after timeout s."""
    deadline = time.monotonic() + timeout
    while not (value := fn()):
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out waiting for {what}")
        time.sleep(0.2)
    return value


class Device:  # QMTNM_SIM=mips: the full-system device, which runs the device build
    def __init__(self):
        self.mips = os.environ.get("QMTNM_SIM") == "mips"
        var, default = ("QMTNM_MIPS_BUILD", "build-mips") if self.mips else ("QMTNM_BUILD", "build")
        self.build = os.path.realpath(os.environ.get(var, os.path.join(TOP, default)))
        self.state = os.path.realpath(
            os.environ.get("QMTNM_SIM_STATE", os.path.join(self.build, "sim-state")))
        self.env = dict(os.environ, QMTNM_SIM_STATE=self.state, **{var: self.build})
        self.log_path = os.path.join(self.state, "log", "messages")

    def sim(self, *args, check=True, timeout=60, input=None):
        # Output through files, not pipes: a daemon a command starts in the background keeps the
        # command's output open. Without input the command gets /dev/null.
        with tempfile.TemporaryFile("w+") as out, tempfile.TemporaryFile("w+") as err:
            p = subprocess.run([DEVICE, *args], env=self.env, stdout=out, stderr=err, text=True,
                               timeout=timeout, input=input,
                               stdin=subprocess.DEVNULL if input is None else None)
            r = subprocess.CompletedProcess(p.args, p.returncode,
                                            *(f.seek(0) or f.read() for f in (out, err)))
        if check and r.returncode != 0:
            raise AssertionError(f"sim/device {' '.join(args)} exited {r.returncode}\n"
                                 f"stdout: {r.stdout}\nstderr: {r.stderr}")
        return r

    def run(self, *cmd, **kw):
        return self.sim("--", *cmd, **kw)

    def out(self, *cmd):
        return self.run(*cmd).stdout

    def sh(self, script, check=True):
        return self.run("/bin/sh", "-c", script, check=check)

    on = sim  # dev.on("upstream" or "lan", cmd...): a command on a peer machine

    def popen_on(self, machine, *cmd):
        return subprocess.Popen([DEVICE, machine, *cmd], env=self.env, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def reboot(self):
        self.sim("reboot")

    def exists(self, path):
        return self.run("test", "-e", path, check=False).returncode == 0

    def log(self, after=0):
        return read(self.log_path)[after:]

    def wait_log(self, pattern, after=0, timeout=5.0):
        """The first line of the system log past offset `after` matching the regular expression."""
        rx = re.compile(pattern)
        return poll(f"a log line matching {pattern!r}; log:\n{self.log()}",
                    lambda: next((l for l in self.log(after).splitlines() if rx.search(l)), None),
                    timeout)

    def boot_log(self):
        return read(f"{self.state}/run/boot.log").splitlines()

    def mangle(self):
        return self.out("iptables", "-t", "mangle", "-S").splitlines()

    def processes(self, name):
        return [p for p in self.out("ps", "-e", "-o", "comm=").split() if p == name]

    def addrs(self, ifname):
        return re.findall(r"inet (\S+)", self.out("ip", "-4", "addr", "show", ifname))

    def json(self, area, *flags):
        return json.loads(self.out("qmtnm", "get", area, "--json", *flags))

    def stored(self, key):
        return self.out("sysconf", "get", f"network/{key}").strip()

    def provider_requests(self):
        """The update requests the DDNS provider stand-in upstream received."""
        out = self.on("upstream", "cat", "/run/ddns-provider.jsonl", check=False).stdout
        return [json.loads(l) for l in out.splitlines()]

    def activate_flag(self, value=None):
        """The 32-bit activate flag in the device's shared memory; sets it when value is given."""
        if value is not None:
            self.sh(f"printf '\\{value:o}\\0\\0\\0' | "
                    "dd of=/dev/shm/lcl_activate conv=notrunc 2>/dev/null")
        return int(self.out("od", "-An", "-tu4", "/dev/shm/lcl_activate"))

    def dscp_received_upstream(self):
        """Sends one UDP datagram to the upstream router; the DSCP the router read in it."""
        listener = self.popen_on("upstream", "dscp-probe", "listen", "--port", "5555", "--count",
                                 "1", "--timeout", "5")
        out = listener.stdout.readline()  # listening: the datagram may go
        self.run("dscp-probe", "send", "10.99.0.1", "--port", "5555")
        out += "".join(listener.communicate(timeout=10))
        m = re.search(r"(?m)^from 10\.99\.0\.2:\d+ tos 0x[0-9a-f]+ dscp (\d+) ", out)
        if not m:
            raise AssertionError(f"no datagram from the device arrived upstream: {out}")
        return int(m[1])


def host_snapshot():
    """What the host must keep to itself while devices come and go."""
    cmd = lambda *a: subprocess.run(a, capture_output=True, text=True).stdout  # noqa: E731
    return {"mangle table": cmd("iptables", "-t", "mangle", "-S"), "host name": cmd("hostname"),
            "filter table": cmd("iptables", "-S"),
            "links": sorted(re.findall(r"(?m)^\d+: ([^:@]+)", cmd("ip", "-o", "link"))),
            "paths": [p for p in ("/var/nm", "/var/conf", "/etc/cron", "/var/spool/cron",
                                  "/dev/log", "/sys/class/leds/wifi_led") if os.path.lexists(p)]}


class SimTestCase(unittest.TestCase):
    """A test class with a freshly reset device of its own; tests run in name order."""

    @classmethod
    def setUpClass(cls):
        cls.dev = Device()
        cls.host_before = host_snapshot()
        cls.dev.sim("reset")
        cls.dev.sim("start")

    @classmethod
    def tearDownClass(cls):
        cls.dev.sim("stop")
        after = host_snapshot()
        if after != cls.host_before:
            raise AssertionError(f"the host changed: {cls.host_before} -> {after}")

    def qmtnm(self, *args, check=True, env=()):
        return self.dev.run("env", *env, "qmtnm", *args, check=check)

    def refused(self, area, code, *words, why=".+", **kw):
        """A set of area that must fail with the invalid-input code and the library's reason."""
        r = self.qmtnm("set", area, *words, check=False, **kw)
        self.assertRegex(r.stderr, rf"\A{area}: invalid input \({code}\): {why}\n\Z", words)


def main():
    unittest.main(verbosity=2, buffer=False, argv=[sys.argv[0]] + sys.argv[1:])
