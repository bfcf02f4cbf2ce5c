"""Drives the emulated appliance (sim/device) from the integration tests.

Every test file gets a device of its own: ctest gives each one its own QMTNM_SIM_STATE, and
SimTestCase resets that device before the first test and powers it off after the last. It also
takes a snapshot of what the host must keep to itself (its packet filter, host name, links and
paths) and checks after the last test that none of it changed.
"""
import os
import re
import subprocess
import sys
import tempfile
import time
import unittest

TOP = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", ".."))
DEVICE = os.path.join(TOP, "sim", "device")


class Device:
    def __init__(self):
        # QMTNM_SIM=mips: the full-system device, which runs the device build (build-mips).
        self.mips = os.environ.get("QMTNM_SIM") == "mips"
        if self.mips:
            self.build = os.path.realpath(
                os.environ.get("QMTNM_MIPS_BUILD", os.path.join(TOP, "build-mips")))
        else:
            self.build = os.path.realpath(
                os.environ.get("QMTNM_BUILD", os.path.join(TOP, "build")))
        self.state = os.path.realpath(
            os.environ.get("QMTNM_SIM_STATE", os.path.join(self.build, "sim-state")))
        self.env = dict(os.environ, QMTNM_BUILD=self.build, QMTNM_SIM_STATE=self.state)
        if self.mips:
            self.env["QMTNM_MIPS_BUILD"] = self.build
        self.log_path = os.path.join(self.state, "log", "messages")

    # ---- running things ----

    def _sim(self, args, check=True, timeout=60, input=None):
        # Output goes through files, not pipes: a daemon that a command starts in the background
        # keeps the command's output open, and a pipe would not end until the daemon does.
        with tempfile.TemporaryFile("w+") as out, tempfile.TemporaryFile("w+") as err:
            # Without input the command gets /dev/null, not whatever the test runner holds.
            p = subprocess.run([DEVICE] + list(args), env=self.env, stdout=out, stderr=err,
                               text=True, timeout=timeout, input=input,
                               stdin=subprocess.DEVNULL if input is None else None)
            out.seek(0)
            err.seek(0)
            r = subprocess.CompletedProcess(p.args, p.returncode, out.read(), err.read())
        if check and r.returncode != 0:
            raise AssertionError(f"sim/device {' '.join(args)} exited {r.returncode}\n"
                                 f"stdout: {r.stdout}\nstderr: {r.stderr}")
        return r

    def run(self, *cmd, check=True, timeout=60, input=None):
        """Runs cmd on the device; returns the CompletedProcess (text)."""
        return self._sim(["--"] + list(cmd), check=check, timeout=timeout, input=input)

    def out(self, *cmd):
        return self.run(*cmd).stdout

    def sh(self, script, check=True):
        """Runs a script with the device's shell (/bin/sh, busybox ash)."""
        return self.run("/bin/sh", "-c", script, check=check)

    def on(self, machine, *cmd, check=True, timeout=60):
        """Runs cmd on a peer machine: "upstream" or "lan"."""
        return self._sim([machine] + list(cmd), check=check, timeout=timeout)

    def popen(self, *cmd):
        """Starts cmd on the device without waiting; a Popen with text pipes."""
        return self.popen_on("--", *cmd)

    def popen_on(self, machine, *cmd):
        return subprocess.Popen([DEVICE, machine] + list(cmd), env=self.env,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)

    # ---- power ----

    def reset(self):
        self._sim(["reset"])

    def start(self):
        self._sim(["start"])

    def stop(self):
        self._sim(["stop"])

    def reboot(self):
        self._sim(["reboot"])

    # ---- what the device shows ----

    def log(self):
        with open(self.log_path) as f:
            return f.read()

    def wait_log(self, pattern, after=0, timeout=5.0):
        """Waits until a line of the system log past offset `after` matches the regular
        expression; returns the matching line. The logger writes asynchronously."""
        rx = re.compile(pattern)
        deadline = time.monotonic() + timeout
        while True:
            for line in self.log()[after:].splitlines():
                if rx.search(line):
                    return line
            if time.monotonic() > deadline:
                raise AssertionError(f"no log line matches {pattern!r}; log:\n{self.log()}")
            time.sleep(0.05)

    def log_size(self):
        return len(self.log())

    def mangle(self):
        """The device's mangle table as iptables -S lines."""
        return self.out("iptables", "-t", "mangle", "-S").splitlines()

    def activate_flag(self):
        """The 32-bit activate flag in the device's POSIX shared memory."""
        return int(self.out("python3", "-c",
                            "import struct; print(struct.unpack('=I', "
                            "open('/dev/shm/lcl_activate', 'rb').read(4))[0])").strip())

    def set_activate_flag(self, value):
        self.run("python3", "-c",
                 f"import struct; f = open('/dev/shm/lcl_activate', 'r+b'); "
                 f"f.write(struct.pack('=I', {value}))")

    def dscp_received_upstream(self, port=5555):
        """Sends one UDP datagram from the device to the upstream router and returns the DSCP
        that the router read in the datagram's IP header."""
        listener = self.popen_on("upstream", "dscp-probe", "listen", "--port", str(port),
                                 "--count", "1", "--timeout", "5")
        try:
            first = listener.stdout.readline()
            if not first.startswith("listening"):
                raise AssertionError(f"probe did not start: {first}{listener.stderr.read()}")
            self.run("dscp-probe", "send", "10.99.0.1", "--port", str(port))
            out, err = listener.communicate(timeout=10)
        finally:
            if listener.poll() is None:
                listener.kill()
                listener.wait()
        m = re.search(r"^from 10\.99\.0\.2:\d+ tos 0x[0-9a-f]+ dscp (\d+) ", out, re.M)
        if listener.returncode != 0 or not m:
            raise AssertionError(f"no datagram from the device arrived upstream: {out}{err}")
        return int(m.group(1))


def poll(what, fn, timeout=15.0):
    """Calls fn until it returns something true, which is returned; fails after timeout s."""
    deadline = time.monotonic() + timeout
    while True:
        value = fn()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out waiting for {what}")
        time.sleep(0.2)


def host_snapshot():
    """What the host must keep to itself while devices come and go."""
    def cmd(*a):
        return subprocess.run(a, capture_output=True, text=True).stdout
    return {
        "mangle table": cmd("iptables", "-t", "mangle", "-S"),
        "filter table": cmd("iptables", "-S"),
        "host name": cmd("hostname"),
        "links": "\n".join(sorted(re.sub(r"^\d+: ", "", l).split(":")[0]
                                  for l in cmd("ip", "-o", "link").splitlines())),
        "paths": "\n".join(p for p in ("/var/nm", "/var/conf", "/etc/cron", "/var/spool/cron",
                                       "/sys/class/leds/wifi_led", "/dev/log")
                           if os.path.lexists(p)),
    }


class SimTestCase(unittest.TestCase):
    """A test class with a freshly reset device of its own."""

    @classmethod
    def setUpClass(cls):
        cls.dev = Device()
        if not os.access(os.path.join(cls.dev.build, "tools", "qmtnm"), os.X_OK):
            raise AssertionError(f"{cls.dev.build}/tools/qmtnm is not built")
        cls.host_before = host_snapshot()
        cls.dev.reset()
        cls.dev.start()

    @classmethod
    def tearDownClass(cls):
        cls.dev.stop()
        after = host_snapshot()
        for what, before in cls.host_before.items():
            if after[what] != before:
                raise AssertionError(f"the host's {what} changed:\nbefore:\n{before}\n"
                                     f"after:\n{after[what]}")

    def qmtnm(self, *args, check=True):
        return self.dev.run("qmtnm", *args, check=check)


def main():
    unittest.main(verbosity=2, buffer=False, argv=[sys.argv[0]] + sys.argv[1:])
