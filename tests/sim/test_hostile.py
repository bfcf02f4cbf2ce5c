#!/usr/bin/env python3
"""Hostile text in every caller text field on the emulated appliance: FIELDS x PAYLOADS, each
cell marked A (accepted: the text arrives intact where the daemon or the file's reader sees it,
among the lines and fields of the benign set) or R (refused with the area's invalid-input code:
nothing run, stored or changed); no command may create its marker under /tmp. Set sets each case
(the tool's words, or raw_set.cpp where they cannot say it); Stored writes it into the store and
applies it as the start-up does. This file, run on the device with --device, runs the cases."""
import json
import os
import re
import shlex
import subprocess
import sys
import tempfile
import time
import urllib.parse

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import simdevice  # noqa: E402
from simdevice import WPA_CLI, SimTestCase, poll  # noqa: E402

# {v}: a value the field takes, {m}: the marker file a command would create, {pad}: filler.
PAYLOADS = ["{v}{pad}';>{m};'", '{v}{pad}";>{m};"', "{v}{pad};>{m}", "{v}{pad}&>{m}&",
            "{v}{pad}|>{m}", "{pad}$(>{m})", "{pad}`>{m}`", "{v}{pad}\\';>{m};\\",
            "{v}{pad}\n>{m}\nb", "{v}{pad}\r>{m}", "{v}{pad}\t>{m}", "{v}{pad} >{m}",
            "#{v}{pad} >{m}", "{v}%s%n%x%25{pad}", "-F/etc/passwd{pad}", "Kamera-ü-日本{pad}"]


class Field:
    def __init__(self, area, name, size, lo, hi, benign, context, expect, exact=0, full=None,
                 word=None, value="a"):
        self.area, self.name, self.size, self.lo, self.hi = area, name, size, lo, hi
        self.benign, self.context, self.exact, self.value = benign, context, exact, value
        self.expect = expect.replace(" ", "")  # benign, the payloads, full; '-': not tried
        # Shell and file syntax up to the field's last byte, no terminator.
        self.full = full or ("'\"$(>/tmp/pz)`;&|\\%" + "x" * size)[:size]
        self.word = word or (lambda text: [f"{name}={text}"])
        self.label = f"{area}.{name}" + (f"(wep{exact})" if exact else "")

    def fit(self, template, m):
        """The payload made to pass the length rule, so that only its content is judged."""
        for mark in (m, "/tmp/p"):
            n = len(template.format(v=self.value, m=mark, pad="").encode())
            if n <= (self.exact or self.hi):
                break
        want = self.exact or max(self.lo, min(n, self.hi))
        text = template.format(v=self.value, m=mark, pad="x" * (want - n)).encode()[:want]
        text = text.decode("utf-8", "ignore")  # cut at a character's end
        return text + "x" * (want - len(text.encode()))

    def words(self, text):
        """The tool's words for a set with text in the field, or None if they cannot carry it."""
        w = self.word(text) if len(text.encode()) < self.size else None
        return w and self.context + w

    def cases(self):
        texts = [self.fit(t, f"/tmp/p{i:x}") for i, t in enumerate(PAYLOADS)]
        texts = [(self.benign, False)] + [(t, False) for t in texts] + [(self.full, True)]
        return [(mark, *t) for mark, t in zip(self.expect, texts) if mark != "-"]


STA = ["enable=1", "ssid=benign-net", "auth=2", "encry=0", "password=benign-pass"]
WEP = ["enable=1", "ssid=benign-net", "auth=1", "index=1", "password=benign-wep-13"]
AP = ["enable=1", "ssid=benign-ap", "channel=6", "hw_mode=1", "hide_ssid=0", "auth=3", "encry=0",
      "password=benign-pass", "wps_enable=0"]
AP_WEP = AP[:5] + ["auth=1", "index=1", "password=benign-wep-13"]
DDNS_LOGIN = {"domain": "cam.example.net", "username": "user", "password": "pass"}
DDNS = ["enable=1", "type=0"] + [f"{k}={v}" for k, v in DDNS_LOGIN.items()]
PPPOE = ["enable=1", "username=user", "password=pass"]
IPF, BEGIN, END = ["enable=1", "mode=black"], "1.1.1.1", "1.1.1.9"
# Columns of the marks: benign | ' " ; & | $( ` \ | LF CR TAB | blank # % - UTF-8 | full field.
# A valid station PIN would start a two-minute WPS attempt: it gets the hostile ones only.
FIELDS = [
    Field("sta", "ssid", 32, 1, 32, "benign-net", STA, "A AAAAAAAA RRR AAAAA A"),
    Field("sta", "password", 64, 8, 64, "benign-pass", STA, "A AAAAAAAA RRR AAAAA R"),
    # WEP keys of 13 characters stand quoted, of 10 (hexadecimal) unquoted.
    Field("sta", "password", 64, 0, 64, "benign-wep-13", WEP, "A AAAAAAAA RRR AAAAA R", 13),
    Field("sta", "password", 64, 0, 64, "0123456789", WEP[:4], "A RRRRRRRR RRR RRRRR R", 10),
    Field("sta", "wps_pin", 9, 0, 8, None, STA, "- RRRRRRRR RRR RRRRR R", full="123456789",
          word=lambda t: ["wps=pin", f"pin={t}"] if len(t.encode()) <= 8 else None),
    Field("ap", "ssid", 32, 1, 32, "benign-ap", AP, "A AAAAAAAA RRR AAAAA A"),
    Field("ap", "password", 64, 8, 64, "benign-pass", AP, "A AAAAAAAA RRR AAAAA R"),
    Field("ap", "password", 64, 0, 64, "benign-wep-13", AP_WEP, "A AAAAAAAA RRR AAAAA R", 13),
    Field("ap", "password", 64, 0, 64, "0123456789", AP_WEP[:7], "A RRRRRRRR RRR RRRRR R", 10),
    Field("ap", "wps_pin", 16, 0, 16, "12345670", AP, "A AAAAAAAA AAA AAAAA A",
          full="1234567012345670"),
    Field("ddns", "domain", 32, 1, 32, "cam.example.net", DDNS, "A RRRRRRRR RRR RRRRR A",
          full="full-" + "a" * 19 + ".example"),
    Field("ddns", "username", 32, 1, 32, "user", DDNS, "A AAAAAAAA AAA AAAAA A"),
    Field("ddns", "password", 32, 1, 32, "pass", DDNS, "A AAAAAAAA AAA AAAAA A"),
    Field("pppoe", "username", 32, 1, 32, "user", PPPOE, "A AAAAAAAA RRR AAAAA A"),
    Field("pppoe", "password", 32, 1, 32, "pass", PPPOE, "A AAAAAAAA RRR AAAAA A"),
    Field("ethmac", "macaddr", 19, 0, 18, "02:11:22:33:44:55", [], "A RRRRRRRR RRR RRRRR R",
          full="2:1:2:3:4:5;>/tmp/p", word=lambda t: [t], value="2:1:2:3:4:5"),
    Field("upnp", "friendlyName", 64, 0, 64, "Camera", ["enable=1"], "A AAAAAAAA RRR AAAAA R"),
    Field("bonjour", "hostname", 64, 0, 64, "camera", ["enable=1"], "A AAAAAAAA RRR RRARA A"),
    # rule=BEGIN-END: a begin address with a '-' in it goes through the driver.
    Field("ipfilter", "begin_ip", 17, 1, 15, BEGIN, IPF, "A RRRRRRRR RRR RRRRR R",
          full=BEGIN + ";>/tmp/pzx", word=lambda t: None if "-" in t else [f"rule={t}-{END}"],
          value=BEGIN),
    Field("ipfilter", "end_ip", 17, 1, 15, END, IPF, "A RRRRRRRR RRR RRRRR R",
          full=END + ";>/tmp/pzx", word=lambda t: [f"rule={BEGIN}-{t}"], value=END),
]
MODULE = {"sta": 0xF0, "ap": 0xEF, "ddns": 0xFA, "pppoe": 0xF9, "ethmac": 0xFD, "upnp": 0xF8,
          "bonjour": 0xF7, "ipfilter": 0xF6}
SECTION = {"ap": "softap", "ipfilter": "ipfilter/rules/#0"}
SUPPLICANT = "/var/nm/wpa_supplicant.conf"


def cat(*paths):
    return {p: ["cat", p] for p in paths}


# What an area's state is made of besides its stored record: its files and its live state.
STATE = {"sta": cat(SUPPLICANT) | {"networks": WPA_CLI + ["list_networks"],
                                   "ssid": WPA_CLI + ["get_network", "0", "ssid"]},
         "ap": cat("/var/nm/hostapd.conf"), "upnp": cat("/var/nm/miniupnpd.conf"),
         "ddns": cat("/etc/cron/ddns.conf", "/var/spool/cron/crontabs/root"),
         "pppoe": cat("/etc/ppp/options", "/etc/ppp/pap-secrets", "/etc/ppp/chap-secrets"),
         "ethmac": cat("/sys/class/net/eth0/address"),
         "ipfilter": {c: ["iptables", "-S", c] for c in ("ipf_chain", "INPUT")},
         # Bonjour's own rewrite of the hosts file runs before the set stores the new name.
         "bonjour": cat("/var/conf/hosts", "/proc/sys/kernel/hostname") | {
             "hosts from the store": ["sh", "-c", "qmtnm hosts && cat /var/conf/hosts"]}}


# ---- on the device ----------------------------------------------------------------------------

def run(cmd, env, timeout=30):
    """Output through files: a daemon started in the background keeps a pipe open."""
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        rc = subprocess.run(cmd, stdin=subprocess.DEVNULL, stdout=out, stderr=err, env=env,
                            timeout=timeout).returncode
        return rc, *(f.seek(0) or f.read().decode(errors="surrogateescape") for f in (out, err))


def flag(value=None):
    with open("/dev/shm/lcl_activate", "r+b") as f:
        if value is not None:
            f.write(value.to_bytes(4, sys.byteorder))
        return int.from_bytes(f.read(4), sys.byteorder)


def device_state(area, env):
    s = {"stored": run(["qmtnm", "get", area, "--json", "--secrets"], env)[1], "flag": flag()}
    return s | {name: run(cmd, env)[1] for name, cmd in STATE[area].items()}


def device_case(job, case, env):
    area, stored = job["area"], job["stored"]
    if stored or case["words"] is None:  # the rest of the record (or the benign one) set first
        run(["qmtnm", "set", area] + case["context"], env)
        if stored or area == "pppoe":  # and applied: a PPPoE set is applied at the next start
            run(["qmtnm", "boot", area], env)
    flag(1)
    before = device_state(area, env)
    if stored:  # as a restored backup or a hand-edited store holds it
        run(["sysconf", "set", "-s", case["path"], case["text"]], env)
        cmd = ["qmtnm", "boot", area]
    elif case["words"] is None:
        cmd = [job["raw_set"], area, case["name"], case["text"].encode().hex()]
    else:
        cmd = ["qmtnm", "set", area] + case["words"]
    rc, out, err = run(cmd, env)
    set_flag = flag()
    accepted = rc == 0 and (stored or case["words"] is not None or out.strip() == "0x00000000")
    if area == "pppoe" and accepted and not stored:  # stored for the next start: apply it so
        flag(1)
        run(["qmtnm", "boot"], env)
    after = device_state(area, env) | {"flag after the set": set_flag}
    if area == "sta" and accepted:  # the supplicant reads its saved file back and saves it again
        cli = " ".join(WPA_CLI)
        after["reloaded"] = run(["sh", "-c", f"{cli} reconfigure >/dev/null && {cli} save_config "
                                 f">/dev/null && cat {SUPPLICANT}"], env)[1]
    return {"rc": rc, "out": out, "err": err, "before": before, "after": after}


def device_main():
    job = json.load(sys.stdin)
    # The appliance's hostname is busybox's, which takes any name; Debian's refuses most.
    env = dict(os.environ, PATH=f"/run/hostile-bin:{os.environ['PATH']}")
    run(["sh", "-c", "mkdir -p /run/hostile-bin && ln -sf $(command -v busybox) "
         "/run/hostile-bin/hostname"], env)
    tmp_before = sorted(os.listdir("/tmp"))
    run(["qmtnm", "set", job["area"]] + job["context"], env)
    flag(1)
    run(["qmtnm", "boot"], env)  # everything applied from the benign settings
    results = [device_case(job, case, env) for case in job["cases"]]
    time.sleep(1)  # for anything a payload might have sent to the background
    json.dump({"tmp": sorted(set(os.listdir("/tmp")) - set(tmp_before)), "results": results},
              sys.stdout)


# ---- judging, here ----------------------------------------------------------------------------

URL = re.compile(r"^wget -q -O (\S+) -q http://([A-Za-z0-9._~%-]*):([A-Za-z0-9._~%-]*)@([^/\s]+)"
                 r"/dyndns/update\?hostname=([A-Za-z0-9.-]+)&wildcard=OFF$")


def unquote(value):
    """A wpa_supplicant text value: "text" in double quotes, or its bytes in hexadecimal."""
    if len(value) >= 2 and value[0] == value[-1] == '"':
        return value[1:-1]
    try:
        return bytes.fromhex(value).decode(errors="surrogateescape")
    except ValueError:
        return f"<not text: {value!r}>"


def network(conf):
    """The saved file's lines outside network blocks, and the (key, value) pairs of the one."""
    block = r"(?ms)^network=\{\n(.*?)^\}$"
    blocks = re.findall(block, conf)
    pairs = [l.strip().partition("=")[::2] for l in "".join(blocks[:1]).splitlines()]
    return re.sub(block, "", conf).split("\n"), pairs if len(blocks) == 1 else []


def pppd_words(line):
    """A line of pppd's files as pppd reads it: quoted words with escapes, '#' a comment."""
    try:
        return shlex.split(line, comments=True)
    except ValueError as e:
        return [f"<unreadable: {e}>"]


def arrival(f, text, a, b):
    """(got, want) for an accepted case: a is the state after it, b after the benign set."""
    creds = {**DDNS_LOGIN, f.name: text}
    if f.area == "sta":
        conf, b_conf = a[SUPPLICANT], b[SUPPLICANT]
        (outside, net), (b_outside, b_net) = network(conf), network(b_conf)
        if f.name == "password" and not f.exact and len(text) == 64:
            # Taken by the check, too long for the supplicant: no psk, nothing added to the file.
            keys = [{l.strip().partition("=")[0] for l in c.split("\n")} for c in (conf, b_conf)]
            return (keys[0] - keys[1], dict(net).get("psk")), (set(), None)
        key = "ssid" if f.name == "ssid" else "wep_key0" if f.exact else "psk"
        got = dict(net).get(key, "")
        got = got if f.exact == 10 or key == "psk" else f'"{unquote(got)}"'
        ssid = unquote(a["ssid"].strip("\n")) if key == "ssid" else text
        networks = len(a["networks"].strip("\n").split("\n"))  # a heading and ours
        return ((outside, [k for k, _ in net], got, ssid, networks, a.get("reloaded")),
                (b_outside, [k for k, _ in b_net], text if f.exact == 10 else f'"{text}"', text, 2,
                 conf))
    if f.area == "ap":
        conf, b_conf = a["/var/nm/hostapd.conf"], b["/var/nm/hostapd.conf"]
        if f.name == "wps_pin":  # the soft AP's PIN comes from appin_lcl, not from the record
            return [(c, json.loads(s["stored"])["wps_pin"]) for c, s in ((conf, a), (b_conf, b))]
        key = "wep_key0" if f.exact else {"ssid": "ssid", "password": "wpa_passphrase"}[f.name]
        keys = [[l.partition("=")[0] for l in c.split("\n")] for c in (conf, b_conf)]
        value = dict(l.partition("=")[::2] for l in conf.split("\n")).get(key)
        # hostapd reads an unquoted key as hexadecimal digits.
        return ((keys[0], value, f.exact != 10 or re.fullmatch("[0-9a-fA-F]+", text) is not None),
                (keys[1], f'"{text}"' if f.exact == 13 else text, True))
    if f.area == "ddns":
        script, b_script = [s["/etc/cron/ddns.conf"].split("\n") for s in (a, b)]
        m, bm = (URL.match(s[1]) if len(s) == 3 else None for s in (script, b_script))
        if not (m and bm):
            return script, "a script of three lines, the second the update's URL"
        got = {"username": urllib.parse.unquote(m[2], errors="surrogateescape"),
               "password": urllib.parse.unquote(m[3], errors="surrogateescape"), "domain": m[5]}
        return ((a["/var/spool/cron/crontabs/root"], script[0], script[2], m[1], m[4], got),
                (b["/var/spool/cron/crontabs/root"], b_script[0], "", bm[1], bm[4], creds))
    if f.area == "pppoe":  # the start-up applied the stored account, a full field whole
        opts, b_opts = [s["/etc/ppp/options"].split("\n") for s in (a, b)]
        secret = a["/etc/ppp/pap-secrets"]
        return ((opts[1:], pppd_words(opts[0]), a["/etc/ppp/chap-secrets"], secret.count("\n"),
                 pppd_words(secret)),
                (b_opts[1:], ["name", creds["username"]], secret, 1,
                 [creds["username"], "*", creds["password"]]))
    if f.area == "ethmac":
        return a["/sys/class/net/eth0/address"], text.lower() + "\n"
    if f.area == "upnp":
        return a["/var/nm/miniupnpd.conf"], f"enable=yes\nfriendlyName={text}\n"
    if f.area == "bonjour":
        # The set's own hosts file holds the name stored before; the store's rewrite the new one.
        hosts = a["/var/conf/hosts"].split("\n")
        b_hosts = b["hosts from the store"].split("\n")
        return ((a["/proc/sys/kernel/hostname"], a["hosts from the store"].split("\n"),
                 hosts[:3] + hosts[4:], len(hosts[3].split()) if len(hosts) > 3 else 0),
                (text + "\n", b_hosts[:3] + [f"{b_hosts[3].split()[0]}\t{text}"] + b_hosts[4:],
                 b_hosts[:3] + b_hosts[4:], 2))
    old, new = f"{BEGIN}-{END}", f"{text}-{END}" if f.name == "begin_ip" else f"{BEGIN}-{text}"
    return (a["ipf_chain"], a["INPUT"]), (b["ipf_chain"].replace(old, new), b["INPUT"])


class Set(SimTestCase):
    stored = False

    def test_every_field_with_every_payload(self):
        # Neither the MAC address nor the station's PIN is stored.
        fields = [f for f in FIELDS
                  if not self.stored or f.area != "ethmac" and f.name != "wps_pin"]
        for area in dict.fromkeys(f.area for f in fields):
            with self.subTest(area=area):
                self.area(area, [f for f in fields if f.area == area])

    def area(self, area, fields):
        """Runs the cases of the area's fields on the device; judges them here."""
        code = f"0x{0xFD000000 | MODULE[area] << 16 | 0xFFF9:08X}"
        refusal = f"{area}: invalid input ({code})\n" + (
            f"{area}: stored settings refused, not applied\n" if self.stored else "")
        cases = [(f, mark, text, full) for f in fields for mark, text, full in f.cases()]
        job = {"area": area, "stored": self.stored, "context": fields[0].context,
               "raw_set": os.path.join(self.dev.build, "tests", "sim", "qmtnm-raw-set"),
               "cases": [{"name": f.name, "text": text, "words": None if full else f.words(text),
                          "context": f.context if f.benign is None else f.words(f.benign),
                          "path": f"network/network_{SECTION.get(area, area)}/{f.name}"}
                         for f, mark, text, full in cases]}
        report = json.loads(self.dev.run("python3", os.path.realpath(__file__), "--device",
                                         input=json.dumps(job), timeout=240).stdout)
        results = list(zip(cases, job["cases"], report["results"]))
        benign = {f.label: r["after"] for (f, _, text, _), _, r in results if text == f.benign}
        volatile = ["flag after the set"] + ["stored", "hosts from the store"] * self.stored
        accepted = []
        for (f, mark, text, _), case, r in results:
            with self.subTest(field=f.label, text=text, via="tool" if case["words"] else "driver"):
                if case["words"] is None and not self.stored:
                    got = {"0x00000000": "A", code: "R"}.get(r["out"].strip(), r["out"] + r["err"])
                else:
                    err = re.sub(r"^(.*?\)): .+", r"\1", r["err"])  # a set's refusal says why
                    got = {(0, r["err"]): "A", (1, refusal): "R"}.get((r["rc"], err),
                                                                      f"exit {r['rc']}: {r['err']}")
                self.assertEqual(got, mark)
                if got == "R":
                    self.assertEqual({k: v for k, v in r["after"].items() if k not in volatile},
                                     {k: v for k, v in r["before"].items() if k not in volatile})
                    self.assertEqual(r["after"]["flag after the set"], 1)
                else:
                    self.assertEqual(*arrival(f, text, r["after"], benign[f.label]))
                    accepted.append({**DDNS_LOGIN, f.name: text})
        # Nothing new in /tmp but the DDNS update's answer (the benign script's -O file).
        answers = {os.path.basename(m[1]) for s in benign.values()
                   if (m := URL.match((s.get("/etc/cron/ddns.conf") or "\n").split("\n")[1]))}
        self.assertEqual(sorted(set(report["tmp"]) - answers), [], "a payload ran a command")
        if area == "ddns" and not self.stored:  # the provider saw every accepted text decoded
            want = {(c["domain"], c["username"], c["password"]) for c in accepted}
            poll("the updates at the provider", lambda: want <= {
                (r["query"].get("hostname", [None])[0], r["user"], r["password"])
                for r in self.dev.provider_requests()}, timeout=10)
        if area == "pppoe":  # pppd read every options file without a word it did not know
            self.assertRegex(self.dev.log(), r"pppd\[\d+\]: Plugin /lib/ppp/rp-pppoe.so loaded")
            self.assertNotRegex(self.dev.log(), r"pppd\[\d+\]: .*(unrecognized option|In file)")


class Stored(Set):
    stored = True


if __name__ == "__main__":
    if sys.argv[1:] == ["--device"]:
        device_main()
    else:
        simdevice.main()
