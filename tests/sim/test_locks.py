#!/usr/bin/env python3
"""Stuck locks on the emulated appliance: a `qmtnm set` killed while the area's apply step runs
leaves the area's set lock taken; `qmtnm locks` shows it, later sets fail as busy, `qmtnm unlock`
gives it back and the next set goes through."""
import os
import re
import stat
import sys

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import SimTestCase  # noqa: E402

BUSY = "0xFD00FFFA"


def log_line(function, text):
    return rf" local2\.err libqmtnm\[\d+\]: {re.escape(f'{function:<20}--> {text}')}$"


class StuckLock(SimTestCase):
    def locks(self):
        """`qmtnm locks` as {area: (set, get)}, and its exit status."""
        r = self.qmtnm("locks", check=False)
        table = {}
        for line in r.stdout.splitlines():
            m = re.fullmatch(r"(\S+)\s+set (free|taken|free x\d+)\s+get (free|taken|free x\d+)",
                             line)
            self.assertIsNotNone(m, line)
            table[m.group(1)] = (m.group(2), m.group(3))
        self.assertIn("qos", table, r.stdout)
        return table, r.returncode

    def assert_all_free(self):
        table, status = self.locks()
        self.assertEqual({a: s for a, s in table.items() if s != ("free", "free")}, {})
        self.assertEqual(status, 0)

    def test_killed_set_leaves_its_lock_taken_until_unlock(self):
        dev = self.dev
        self.assert_all_free()
        # An iptables that notes its PID and then waits: the QoS set stays inside its apply
        # step, holding the area's set lock, until it is killed.
        hold = os.path.join(dev.state, "hold")
        os.makedirs(hold, exist_ok=True)
        inside = os.path.join(hold, "inside")
        if os.path.exists(inside):
            os.remove(inside)
        script = os.path.join(hold, "iptables")
        with open(script, "w") as f:
            f.write('#!/bin/sh\necho $$ >"${0%/*}/inside"\nexec sleep 600\n')
        os.chmod(script, os.stat(script).st_mode | stat.S_IXUSR)

        out = dev.sh(f"""
            PATH={hold}:$PATH qmtnm set qos enable=1 dscp=46 >/dev/null 2>&1 &
            pid=$!
            while [ ! -s {inside} ]; do sleep 0.1; done
            kill -KILL $pid
            wait $pid
            echo "set ended $?"
            kill $(cat {inside})
        """).stdout
        self.assertIn("set ended 137", out)

        table, status = self.locks()
        self.assertEqual(table["qos"], ("taken", "free"))
        self.assertEqual({a: s for a, s in table.items() if a != "qos" and s != ("free", "free")},
                         {})
        self.assertEqual(status, 1)
        # Killed before its persist step: nothing was stored.
        self.assertEqual(dev.out("sysconf", "get", "network/network_qos/enable").strip(), "0")

        # Busy until the lock is released; a get does not wait for the set lock.
        mark = dev.log_size()
        r = self.qmtnm("set", "qos", "enable=1", "dscp=34", check=False)
        self.assertEqual(r.returncode, 1)
        self.assertIn(f"qos: resource busy ({BUSY})", r.stderr)
        dev.wait_log(log_line("qmtnm_lcl_set", "qmtnm_lcl_set:resource busy, errno=-50266118"),
                     after=mark)
        self.assertRegex(self.qmtnm("get", "qos").stdout, r"(?m)^\s*enable\s*=\s*0$")

        # The free get lock is refused and left as it is.
        r = self.qmtnm("unlock", "qos", "get", check=False)
        self.assertEqual(r.returncode, 1)
        self.assertIn("free", r.stderr)
        self.assertEqual(self.locks()[0]["qos"], ("taken", "free"))

        r = self.qmtnm("unlock", "qos", check=False)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn("warning", r.stderr)
        self.assertEqual(r.stdout.strip(), "qos: set lock released")
        self.assert_all_free()

        self.qmtnm("set", "qos", "enable=1", "dscp=34")
        self.assertIn("-A qos_mangle_chain -j DSCP --set-dscp 0x22", dev.mangle())
        self.assertEqual(dev.out("sysconf", "get", "network/network_qos/dscp").strip(), "34")

        # Once free, a second release is refused: the lock still admits one caller.
        r = self.qmtnm("unlock", "qos_lcl", "set", check=False)
        self.assertEqual(r.returncode, 1)
        self.assert_all_free()
        self.assertEqual(self.qmtnm("unlock", "nosuch", check=False).returncode, 2)


if __name__ == "__main__":
    simdevice.main()
