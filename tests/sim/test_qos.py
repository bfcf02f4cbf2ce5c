#!/usr/bin/env python3
"""QoS DSCP marking on the emulated appliance: the qmtnm tool sets the area through the library,
the device's kernel marks what the device sends, and the upstream router reads the marking off
the received IP headers."""
import os
import re
import stat
import sys

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import SimTestCase  # noqa: E402

CHAIN = "-N qos_mangle_chain"
HOOK = "-A OUTPUT -j qos_mangle_chain"


def rule(dscp):
    return f"-A qos_mangle_chain -j DSCP --set-dscp 0x{dscp:02x}"


def log_line(function, text):
    """A line of the library's log as the device's syslogd writes it: the function name padded
    to 20 characters, then "--> " and the text."""
    return rf" local2\.err libqmtnm\[\d+\]: {re.escape(f'{function:<20}--> {text}')}$"


class QosCase(SimTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # Every iptables command the library runs passes through this recorder on its way to the
        # real iptables, so a test can tell which commands ran and in what order.
        cls.recorder = os.path.join(cls.dev.state, "iptables-recorder")
        os.makedirs(cls.recorder, exist_ok=True)
        script = os.path.join(cls.recorder, "iptables")
        with open(script, "w") as f:
            f.write('#!/bin/sh\necho "iptables $*" >>"${0%/*}/calls"\nexec /usr/sbin/iptables "$@"\n')
        os.chmod(script, os.stat(script).st_mode | stat.S_IXUSR)
        cls.path = f"{cls.recorder}:{cls.dev.out('printenv', 'PATH').strip()}"

    def setUp(self):
        calls = os.path.join(self.recorder, "calls")
        if os.path.exists(calls):
            os.remove(calls)

    def recorded(self):
        try:
            with open(os.path.join(self.recorder, "calls")) as f:
                return f.read().splitlines()
        except FileNotFoundError:
            return []

    def set_qos(self, *fields, check=True):
        """qmtnm set qos FIELDS, with the recorder ahead of iptables on PATH."""
        return self.dev.run("env", f"PATH={self.path}", "qmtnm", "set", "qos", *fields,
                            check=check)

    def stored(self):
        return (int(self.dev.out("sysconf", "get", "network/network_qos/enable")),
                int(self.dev.out("sysconf", "get", "network/network_qos/dscp")))

    def assert_marking(self, dscp):
        """Exactly one chain, hooked exactly once into OUTPUT, holding the one DSCP rule."""
        table = self.dev.mangle()
        self.assertEqual(table.count(CHAIN), 1, table)
        self.assertEqual(table.count(HOOK), 1, table)
        self.assertEqual([l for l in table if l.startswith("-A qos_mangle_chain")], [rule(dscp)])

    def assert_no_marking(self):
        table = self.dev.mangle()
        self.assertEqual([l for l in table if "qos_mangle_chain" in l], [], table)


class Marking(QosCase):
    def test_1_enable_marks_what_the_device_sends(self):
        self.assertEqual(self.dev.dscp_received_upstream(), 0)
        self.set_qos("enable=1", "dscp=46")
        self.assert_marking(46)
        self.assertEqual(self.recorded(), [
            "iptables -t mangle -D OUTPUT -j qos_mangle_chain",
            "iptables -t mangle -F qos_mangle_chain",
            "iptables -t mangle -X qos_mangle_chain",
            "iptables -t mangle -N qos_mangle_chain",
            "iptables -t mangle -A OUTPUT -j qos_mangle_chain",
            "iptables -t mangle -A qos_mangle_chain -j DSCP --set-dscp 46",
        ])
        self.assertEqual(self.dev.dscp_received_upstream(), 46)
        self.assertEqual(self.stored(), (1, 46))

    def test_2_get_reads_the_store(self):
        self.set_qos("enable=1", "dscp=46")
        text = self.dev.out("qmtnm", "get", "qos")
        self.assertRegex(text, r"(?m)^\s*enable\s*=\s*1$")
        self.assertRegex(text, r"(?m)^\s*dscp\s*=\s*46$")
        self.assertEqual(self.dev.out("qmtnm", "get", "qos", "--json").strip(),
                         '{"area":"qos","instance":"qos_lcl","enable":1,"dscp":46}')

    def test_3_disable_removes_the_chain(self):
        self.set_qos("enable=1", "dscp=46")
        self.set_qos("enable=0")
        self.assert_no_marking()
        self.assertEqual(self.recorded()[-3:], [
            "iptables -t mangle -D OUTPUT -j qos_mangle_chain",
            "iptables -t mangle -F qos_mangle_chain",
            "iptables -t mangle -X qos_mangle_chain",
        ])
        self.assertEqual(self.dev.dscp_received_upstream(), 0)
        # Marking off keeps the stored DSCP.
        self.assertEqual(self.stored(), (0, 46))

    def test_4_toggling_never_leaves_two_chains(self):
        for dscp in (10, 63, 46):
            self.set_qos("enable=1", f"dscp={dscp}")
            self.assert_marking(dscp)
            self.set_qos("enable=0")
            self.assert_no_marking()
        self.set_qos("enable=1", "dscp=34")
        self.set_qos("enable=1", "dscp=12")
        self.assert_marking(12)
        self.assertEqual(self.dev.dscp_received_upstream(), 12)

    def test_5_invalid_input_changes_nothing(self):
        self.set_qos("enable=1", "dscp=20")
        table = self.dev.mangle()
        self.setUp()
        mark = self.dev.log_size()
        r = self.set_qos("dscp=64", check=False)
        self.assertNotEqual(r.returncode, 0)
        self.dev.wait_log(log_line("check_qos_info_grammar", "qos dscp value > 63, errno = -34275335"),
                          after=mark)
        self.assertEqual(self.dev.mangle(), table)
        self.assertEqual(self.recorded(), [])
        self.assertEqual(self.stored(), (1, 20))

    def test_6_identical_set_runs_nothing(self):
        self.set_qos("enable=1", "dscp=46")
        # Traffic through the chain raises its counters; rebuilding it would reset them.
        self.dev.dscp_received_upstream()
        counters = self.dev.out("iptables", "-t", "mangle", "-L", "qos_mangle_chain", "-v", "-x", "-n")
        packets = int(re.search(r"^\s*(\d+)\s+\d+\s+DSCP", counters, re.M).group(1))
        self.assertGreater(packets, 0, counters)
        table = self.dev.mangle()
        self.setUp()
        mark = self.dev.log_size()

        self.set_qos("enable=1", "dscp=46")

        self.assertEqual(self.recorded(), [])
        self.assertEqual(self.dev.mangle(), table)
        after = self.dev.out("iptables", "-t", "mangle", "-L", "qos_mangle_chain", "-v", "-x", "-n")
        self.assertGreaterEqual(int(re.search(r"^\s*(\d+)\s+\d+\s+DSCP", after, re.M).group(1)),
                                packets, after)
        self.dev.wait_log(log_line("qmtnm_lcl_set", "config is up-to-date"), after=mark)


class ActivateFlag(QosCase):
    def test_cleared_flag_stores_only_until_reboot(self):
        dev = self.dev
        dev.run("qmtnm", "get", "qos")
        self.assertEqual(dev.activate_flag(), 1)
        dev.set_activate_flag(0)
        self.assertEqual(dev.activate_flag(), 0)
        table = dev.mangle()
        mark = dev.log_size()

        self.set_qos("enable=1", "dscp=46")

        self.assertEqual(self.stored(), (1, 46))
        self.assertEqual(dev.mangle(), table)
        self.assertEqual(self.recorded(), [])
        self.assert_no_marking()
        self.assertEqual(dev.dscp_received_upstream(), 0)
        dev.wait_log(log_line("qmtnm_lcl_set", "need reboot to activate action"), after=mark)

        dev.reboot()

        dev.run("qmtnm", "get", "qos")
        self.assertEqual(dev.activate_flag(), 1)
        self.assertEqual(self.stored(), (1, 46))
        self.assertEqual(dev.out("qmtnm", "get", "qos", "--json").strip(),
                         '{"area":"qos","instance":"qos_lcl","enable":1,"dscp":46}')
        # With the flag set again, a change is applied at once.
        self.set_qos("enable=1", "dscp=40")
        self.assert_marking(40)
        self.assertEqual(dev.dscp_received_upstream(), 40)


if __name__ == "__main__":
    simdevice.main()
