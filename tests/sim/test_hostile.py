#!/usr/bin/env python3
"""Hostile text in every caller text field of every area, on the emulated appliance.

Each field gets every payload of PAYLOADS (quotes, shell operators, command substitution, line
breaks, blanks, '#', '%', a leading '-', non-ASCII text, and the field filled to its last byte
with no terminator). Every set runs for real on the device, with the activate flag set: the qmtnm
tool's field=value words, or, where they cannot say it (a full field, an IP filter address with a
'-'), the small driver qmtnm-raw-set (tests/sim/raw_set.cpp) through qmtnm_lcl_set. A case passes
only if it is
- refused with the area's invalid-input code, with nothing run and nothing stored (the stored
  record, the area's files and its live state are as before), or
- accepted with the text arriving intact where the area puts it (the supplicant's network and
  saved configuration, hostapd.conf, pppd's options and secrets as pppd splits them into words,
  the DDNS script's URL percent-decoded and the provider's record of the update, miniupnpd.conf,
  the host name and the hosts file, the packet filter's rule), and every generated file having
  the lines, options and fields of a benign set.
Commands in the payloads would create a file under /tmp: no new file may appear there but the DDNS
update's answer.

Judged by the daemon itself where it runs here: wpa_supplicant (the network it holds, its saved
file read back), the DDNS provider stand-in (the credentials it received), pppd (no unknown option
in the options file), the kernel (host name, packet filter). hostapd cannot run on the emulated
radio and pppd reads its secrets only when a session authenticates, which needs kernel PPP: for
them the files are judged, the secrets split into words as pppd splits them. The station's PIN is
tried with hostile text only: a valid one starts a real WPS attempt of two minutes, while the
check refuses every hostile PIN before anything runs.

The cases of one area run in one trip to the device: this file, started there with --device,
runs them and reports what it saw as JSON; the test judges it here.
"""
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
from simdevice import SimTestCase, poll  # noqa: E402

WPA_CLI = ["wpa_cli", "-p/var/run/wpa_supplicant", "-iwlan0"]
FLAG = "/dev/shm/lcl_activate"

# ---- payloads -------------------------------------------------------------------------------
# {v} stands for a value the field takes ("a", an address), {m} for the marker file a command in
# the payload would create, {pad} for filler where the field's length rule asks for more.
PAYLOADS = [
    ("squote", "{v}{pad}';>{m};'"),
    ("dquote", '{v}{pad}";>{m};"'),
    ("semicolon", "{v}{pad};>{m}"),
    ("amp", "{v}{pad}&>{m}&"),
    ("pipe", "{v}{pad}|>{m}"),
    ("subst", "{pad}$(>{m})"),
    ("backtick", "{pad}`>{m}`"),
    ("backslash", "{v}{pad}\\';>{m};\\"),
    ("lf", "{v}{pad}\n>{m}\nb"),
    ("cr", "{v}{pad}\r>{m}"),
    ("tab", "{v}{pad}\t>{m}"),
    ("blank", "{v}{pad} >{m}"),
    ("hash", "#{v}{pad} >{m}"),
    ("percent", "{v}%s%n%x%25{pad}"),
    ("dash", "-F/etc/passwd{pad}"),
    ("utf8", "Kamera-\u00fc-\u65e5\u672c{pad}"),
]
FULL = "full"  # the field filled to capacity, no terminator: each field's own text below


def full_text(size):
    """Shell and file syntax up to the field's last byte (no '#', blank or control character,
    which only a few fields refuse)."""
    return ("'\"$(>/tmp/pz)`;&|\\%" + "x" * size)[:size]


class Field:
    """One caller text field: how to set it and what its length rule wants."""

    def __init__(self, area, name, size, benign, context, lo=0, hi=None, exact=None, full=None,
                 word=None, value="a"):
        self.area, self.name, self.size, self.benign, self.value = area, name, size, benign, value
        self.context = context  # words that make the rest of the record valid
        self.lo, self.hi, self.exact = lo, size if hi is None else hi, exact
        self.full = full_text(size) if full is None else full
        self.word = word or (lambda text: [f"{name}={text}"])

    @property
    def raw_context(self):
        """What is set before the driver patches the field: the rest, and the benign value."""
        return self.context if self.benign is None else self.words(self.benign)

    @property
    def label(self):
        return f"{self.area}.{self.name}" + (f"(wep{self.exact})" if self.exact else "")

    def fit(self, template, tag):
        """The payload made to pass the field's length rule, so that only its content is judged."""
        text = None
        for m in (f"/tmp/p{tag}", "/tmp/p"):
            text = template.format(v=self.value, m=m, pad="")
            if len(text.encode()) <= (self.exact or self.hi):
                break
        want = self.exact or max(self.lo, min(len(text.encode()), self.hi))
        n = want - len(text.encode())
        if n > 0:
            text = template.format(v=self.value, m=m, pad="x" * n)
        text = text.encode()[:want].decode("utf-8", "ignore")  # cut at a character's end
        return text + "x" * (want - len(text.encode()))

    def words(self, text):
        """The tool's words for a set with text in the field, or None if they cannot carry it."""
        if len(text.encode()) >= self.size:
            return None
        w = self.word(text)
        return None if w is None else self.context + w


STA = ["enable=1", "ssid=benign-net", "auth=2", "encry=0", "password=benign-pass"]
STA_WEP = ["enable=1", "ssid=benign-net", "auth=1", "index=1", "password=benign-wep-13"]
STA_WEP10 = STA_WEP[:4] + ["password=0123456789"]
AP = ["enable=1", "ssid=benign-ap", "channel=6", "hw_mode=1", "hide_ssid=0", "auth=3", "encry=0",
      "password=benign-pass", "wps_enable=0"]
AP_WEP = AP[:5] + ["auth=1", "index=1", "password=benign-wep-13"]
AP_WEP10 = AP_WEP[:7] + ["password=0123456789"]
DDNS = ["enable=1", "type=0", "domain=cam.example.net", "username=user", "password=pass"]
PPPOE = ["enable=1", "username=user", "password=pass"]
IPF = ["enable=1", "mode=black"]
IPF_BEGIN, IPF_END = "1.1.1.1", "1.1.1.9"

FIELDS = [
    Field("sta", "ssid", 32, "benign-net", STA, lo=1),
    Field("sta", "password", 64, "benign-pass", STA, lo=8),
    # WEP keys of 13 characters stand quoted, of 10 (hexadecimal) unquoted.
    Field("sta", "password", 64, "benign-wep-13", STA_WEP, exact=13),
    Field("sta", "password", 64, "0123456789", STA_WEP10, exact=10),
    # A valid PIN starts a real WPS attempt of two minutes; the hostile ones never get that far.
    Field("sta", "wps_pin", 9, None, STA, hi=8, full="123456789",
          word=lambda t: ["wps=pin", f"pin={t}"] if len(t.encode()) <= 8 else None),
    Field("ap", "ssid", 32, "benign-ap", AP, lo=1),
    Field("ap", "password", 64, "benign-pass", AP, lo=8),
    Field("ap", "password", 64, "benign-wep-13", AP_WEP, exact=13),
    Field("ap", "password", 64, "0123456789", AP_WEP10, exact=10),
    Field("ap", "wps_pin", 16, "12345670", AP, full="1234567012345670"),
    Field("ddns", "domain", 32, "cam.example.net", DDNS, lo=1,
          full="full-" + "a" * 19 + ".example"),
    Field("ddns", "username", 32, "user", DDNS, lo=1),
    Field("ddns", "password", 32, "pass", DDNS, lo=1),
    Field("pppoe", "username", 32, "user", PPPOE, lo=1),
    Field("pppoe", "password", 32, "pass", PPPOE, lo=1),
    Field("ethmac", "macaddr", 19, "02:11:22:33:44:55", [], hi=18, full="2:1:2:3:4:5;>/tmp/p",
          word=lambda t: [t], value="2:1:2:3:4:5"),
    Field("upnp", "friendlyName", 64, "Camera", ["enable=1"]),
    Field("bonjour", "hostname", 64, "camera", ["enable=1"]),
    # rule=BEGIN-END: a begin address with a '-' in it goes through the driver.
    Field("ipfilter", "begin_ip", 17, IPF_BEGIN, IPF, lo=1, hi=15, full=IPF_BEGIN + ";>/tmp/pzx",
          word=lambda t: None if "-" in t else [f"rule={t}-{IPF_END}"], value=IPF_BEGIN),
    Field("ipfilter", "end_ip", 17, IPF_END, IPF, lo=1, hi=15, full=IPF_END + ";>/tmp/pzx",
          word=lambda t: [f"rule={IPF_BEGIN}-{t}"], value=IPF_END),
]

MODULE = {"sta": 0xF0, "ap": 0xEF, "ddns": 0xFA, "pppoe": 0xF9, "ethmac": 0xFD, "upnp": 0xF8,
          "bonjour": 0xF7, "ipfilter": 0xF6}

# What each area's state is made of: the stored record, the files it writes, its live state.
FILES = {
    "sta": ["/var/nm/wpa_supplicant.conf"],
    "ap": ["/var/nm/hostapd.conf"],
    "ddns": ["/etc/cron/ddns.conf", "/var/spool/cron/crontabs/root"],
    "pppoe": ["/etc/ppp/options", "/etc/ppp/pap-secrets", "/etc/ppp/chap-secrets"],
    "ethmac": [],
    "upnp": ["/var/nm/miniupnpd.conf"],
    "bonjour": ["/var/conf/hosts", "/proc/sys/kernel/hostname"],
    "ipfilter": [],
}
LIVE = {
    "sta": {"networks": WPA_CLI + ["list_networks"],
            "ssid": WPA_CLI + ["get_network", "0", "ssid"]},
    "ethmac": {"eth0": ["cat", "/sys/class/net/eth0/address"]},
    "ipfilter": {"ipf_chain": ["iptables", "-S", "ipf_chain"],
                 "INPUT": ["iptables", "-S", "INPUT"]},
    # The hosts file as the tool rewrites it from the store. Bonjour's own rewrite runs before
    # the set stores the new name, so it shows the name stored before.
    "bonjour": {"hosts from the store": ["sh", "-c", "qmtnm hosts && cat /var/conf/hosts"]},
}


def cases_of(field):
    """(payload name, text) for every payload of the field, the benign value first."""
    out = [] if field.benign is None else [("benign", field.benign)]
    out += [(name, field.fit(t, "0123456789abcdef"[i])) for i, (name, t) in enumerate(PAYLOADS)]
    return out + [(FULL, field.full)]


# ---- on the device ----------------------------------------------------------------------------

def run(cmd, env=None, timeout=30):
    """Output through files: a daemon started in the background keeps a pipe open."""
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        try:
            rc = subprocess.run(cmd, stdin=subprocess.DEVNULL, stdout=out, stderr=err, env=env,
                                timeout=timeout).returncode
        except subprocess.TimeoutExpired:
            rc = "timeout"
        out.seek(0)
        err.seek(0)
        dec = lambda b: b.decode("utf-8", "surrogateescape")  # noqa: E731
        return rc, dec(out.read()), dec(err.read())


def set_flag(value):
    with open(FLAG, "r+b") as f:
        f.write(value.to_bytes(4, sys.byteorder))


def get_flag():
    with open(FLAG, "rb") as f:
        return int.from_bytes(f.read(4), sys.byteorder)


def device_state(area, env):
    s = {"stored": run(["qmtnm", "get", area, "--json", "--secrets"], env)[1], "flag": get_flag()}
    for path in FILES[area]:
        try:
            with open(path, "rb") as f:
                s[path] = f.read().decode("utf-8", "surrogateescape")
        except FileNotFoundError:
            s[path] = None
    for name, cmd in LIVE.get(area, {}).items():
        s[name] = run(cmd, env)[1]
    return s


def device_case(case, env, raw_set):
    area = case["area"]
    if case["words"] is None:
        # The driver starts from the stored record: the rest of it is set first.
        if case["context"]:
            run(["qmtnm", "set", area] + case["context"], env)
        if area == "pppoe":
            run(["qmtnm", "boot"], env)  # the files of the stored account, as before a set
        cmd = [raw_set, area, case["raw"], case["text"].encode().hex()]
    else:
        cmd = ["qmtnm", "set", area] + case["words"]
    set_flag(1)
    before = device_state(area, env)
    rc, out, err = run(cmd, env)
    flag = get_flag()
    accepted = rc == 0 and (case["words"] is not None or out.strip() == "0x00000000")
    if area == "pppoe" and accepted:
        # A PPPoE set is stored for the next start: apply it as the start-up does.
        set_flag(1)
        run(["qmtnm", "boot"], env)
    after = device_state(area, env)
    after["flag_after_set"] = flag
    if area == "sta" and accepted:
        # The supplicant reads its saved file back and saves it again.
        run(WPA_CLI + ["reconfigure"], env)
        run(WPA_CLI + ["save_config"], env)
        with open("/var/nm/wpa_supplicant.conf", "rb") as f:
            after["reloaded"] = f.read().decode("utf-8", "surrogateescape")
    return {"rc": rc, "out": out, "err": err, "before": before, "after": after}


SECTION = {"sta": "network_sta", "ap": "network_softap", "ddns": "network_ddns",
           "pppoe": "network_pppoe", "upnp": "network_upnp", "bonjour": "network_bonjour",
           "ipfilter": "network_ipfilter"}


def store_path(field):
    key = {"begin_ip": "rules/#0/begin_ip", "end_ip": "rules/#0/end_ip"}.get(field.name, field.name)
    return f"network/{SECTION[field.area]}/{key}"


def settings_line(path, text):
    """One line of a settings file as `sysconf dump` writes it and `sysconf load` reads it."""
    esc = {'"': '\\"', "\\": "\\\\", "\n": "\\n", "\t": "\\t"}
    return f'{path} = "{"".join(esc.get(c, c) for c in text)}"\n'


def device_stored_case(case, env, n):
    """The payload written straight into the store (by `sysconf set`, or every other case by
    loading a restored settings file), then the area's stored settings applied as at start-up."""
    area = case["area"]
    run(["qmtnm", "set", area] + case["benign"], env)
    run(["qmtnm", "boot", area], env)
    before = device_state(area, env)
    if n % 2:
        run(["sysconf", "set", "-s", case["path"], case["text"]], env)
    else:
        with tempfile.NamedTemporaryFile("w", suffix=".conf", delete=False) as f:
            f.write(settings_line(case["path"], case["text"]))
        run(["sysconf", "load", f.name], env)
        os.unlink(f.name)
    rc, out, err = run(["qmtnm", "boot", area], env)
    after = device_state(area, env)
    if area == "sta" and rc == 0:
        run(WPA_CLI + ["reconfigure"], env)
        run(WPA_CLI + ["save_config"], env)
        with open("/var/nm/wpa_supplicant.conf", "rb") as f:
            after["reloaded"] = f.read().decode("utf-8", "surrogateescape")
    return {"rc": rc, "out": out, "err": err, "before": before, "after": after}


def device_main():
    job = json.load(sys.stdin)
    env = dict(os.environ)
    # The appliance's hostname is busybox's, which takes any name; Debian's, where the emulated
    # device has that one, refuses all but letters, digits, '-' and '.'.
    bindir = "/run/hostile-bin"
    os.makedirs(bindir, exist_ok=True)
    if not os.path.lexists(f"{bindir}/hostname"):
        os.symlink(os.path.realpath(run(["sh", "-c", "command -v busybox"])[1].strip()),
                   f"{bindir}/hostname")
    env["PATH"] = f"{bindir}:{env['PATH']}"
    tmp_before = sorted(os.listdir("/tmp"))
    if job["context"]:
        run(["qmtnm", "set", job["area"]] + job["context"], env)
    set_flag(1)
    run(["qmtnm", "boot"], env)  # everything applied from the benign settings
    if job.get("stored"):
        results = [device_stored_case(c, env, n) for n, c in enumerate(job["cases"])]
    else:
        results = [device_case(c, env, job["raw_set"]) for c in job["cases"]]
    time.sleep(1)  # for anything a payload might have sent to the background
    json.dump({"tmp_before": tmp_before, "tmp_after": sorted(os.listdir("/tmp")),
               "results": results}, sys.stdout)


# ---- judging, here ----------------------------------------------------------------------------

def quoted_or_hex(value):
    """A wpa_supplicant text value: "text" in double quotes, or its bytes in hexadecimal."""
    if len(value) >= 2 and value[0] == value[-1] == '"':
        return value[1:-1]
    try:
        return bytes.fromhex(value).decode("utf-8", "surrogateescape")
    except ValueError:
        return f"<not text: {value!r}>"


def network_block(conf):
    """The saved configuration's lines outside network blocks, and the one block's (key, value)
    pairs; None for the pairs unless there is exactly one block."""
    outside, blocks, cur = [], [], None
    for line in conf.split("\n"):
        if line == "network={":
            cur = []
        elif line == "}" and cur is not None:
            blocks.append(cur)
            cur = None
        elif cur is not None:
            key, _, value = line.strip().partition("=")
            cur.append((key, value))
        else:
            outside.append(line)
    return outside, blocks[0] if len(blocks) == 1 else None


def pppd_words(line):
    """A line of pppd's files split as pppd reads it: blanks between words, words in quotes with
    backslash escapes, '#' at a word's start ending the line."""
    try:
        return shlex.split(line, comments=True)
    except ValueError as e:
        return [f"<unreadable: {e}>"]


URL = re.compile(r"^wget -q -O (\S+) -q http://([A-Za-z0-9._~%-]*):([A-Za-z0-9._~%-]*)@([^/\s]+)"
                 r"/dyndns/update\?hostname=([A-Za-z0-9.-]+)&wildcard=OFF$")


def arrival_problems(field, kind, text, a, b):
    """What is wrong with an accepted case: a is the state after it, b after the benign set."""
    p = []

    def same(what, got, want):
        if got != want:
            p.append(f"{what}: {got!r}, expected {want!r}")

    area = field.area
    if area == "sta":
        conf = a["/var/nm/wpa_supplicant.conf"] or ""
        outside, net = network_block(conf)
        b_outside, b_net = network_block(b["/var/nm/wpa_supplicant.conf"])
        if field.name == "password" and not field.exact and len(text) == 64:
            # The check takes passphrases of 8 to 64 characters; the supplicant takes 63 at most,
            # refuses the key and saves no usable network. Nothing may be added to the file.
            keys = {l.strip().partition("=")[0] for l in conf.split("\n")}
            b_keys = {l.strip().partition("=")[0] for l in b["/var/nm/wpa_supplicant.conf"].split("\n")}
            same("keys not in the benign file", keys - b_keys, set())
            same("saved psk", dict(net or []).get("psk"), None)
            return p
        same("lines outside the network", outside, b_outside)
        if net is None:
            return p + [f"not one network block: {conf!r}"]
        values = dict(net)
        if field.name == "ssid":
            same("saved ssid", quoted_or_hex(values.get("ssid", "")), text)
            same("supplicant's ssid", quoted_or_hex(a["ssid"].strip("\n")), text)
        elif field.exact == 10:  # hexadecimal: the key itself
            same("saved wep_key0", values.get("wep_key0"), text)
        elif field.exact:
            same("saved wep_key0", quoted_or_hex(values.get("wep_key0", "")), text)
        else:
            same("saved psk", values.get("psk"), f'"{text}"')
        same("network keys", [k for k, _ in net], [k for k, _ in b_net])
        same("supplicant's networks", len(a["networks"].strip("\n").split("\n")), 2)
        same("saved file read back and saved again", a.get("reloaded"), conf)
    elif area == "ap":
        conf, b_conf = a["/var/nm/hostapd.conf"] or "", b["/var/nm/hostapd.conf"]
        if field.name == "wps_pin":  # the AP's PIN comes from appin_lcl; the record's is not used
            same("hostapd.conf", conf, b_conf)
            same("stored", json.loads(a["stored"])["wps_pin"], json.loads(b["stored"])["wps_pin"])
            return p
        lines, b_lines = conf.split("\n"), b_conf.split("\n")
        key = {"ssid": "ssid", "password": "wpa_passphrase"}[field.name]
        want = text
        if field.exact:
            key, want = "wep_key0", text if field.exact == 10 else f'"{text}"'
        same("hostapd.conf keys", [l.partition("=")[0] for l in lines],
             [l.partition("=")[0] for l in b_lines])
        same(key, dict(l.partition("=")[::2] for l in lines).get(key), want)
        if field.exact == 10:  # hostapd reads an unquoted key as hex digits
            same("unquoted key is hexadecimal", bool(re.fullmatch("[0-9a-fA-F]+", text)), True)
    elif area == "ddns":
        script = (a["/etc/cron/ddns.conf"] or "").split("\n")
        b_script = b["/etc/cron/ddns.conf"].split("\n")
        same("crontab", a["/var/spool/cron/crontabs/root"], b["/var/spool/cron/crontabs/root"])
        m, bm = (URL.match(s[1]) if len(s) == 3 else None for s in (script, b_script))
        if not (m and bm and script[0] == b_script[0] and script[2] == ""):
            return p + [f"script: {script!r}"]
        same("scratch file and host", (m[1], m[4]), (bm[1], bm[4]))
        got = {"username": urllib.parse.unquote(m[2], errors="surrogateescape"),
               "password": urllib.parse.unquote(m[3], errors="surrogateescape"), "domain": m[5]}
        same(field.name, got[field.name], text)
    elif area == "pppoe":
        # The start-up applies the stored account, a full field whole.
        user = text if field.name == "username" else "user"
        password = text if field.name == "password" else "pass"
        opts, b_opts = (a["/etc/ppp/options"] or "").split("\n"), b["/etc/ppp/options"].split("\n")
        same("options after the name", opts[1:], b_opts[1:])
        same("name line", pppd_words(opts[0]), ["name", user])
        secret = a["/etc/ppp/pap-secrets"] or ""
        same("chap-secrets", a["/etc/ppp/chap-secrets"], secret)
        same("secrets lines", secret.count("\n"), 1)
        same("secrets words", pppd_words(secret), [user, "*", password])
    elif area == "ethmac":
        same("eth0", a["eth0"], text.lower() + "\n")
    elif area == "upnp":
        same("miniupnpd.conf lines", (a["/var/nm/miniupnpd.conf"] or "").split("\n"),
             ["enable=yes", f"friendlyName={text}", ""])
    elif area == "bonjour":
        same("host name", a["/proc/sys/kernel/hostname"], text + "\n")
        b_hosts = b["hosts from the store"].split("\n")
        for which in ("/var/conf/hosts", "hosts from the store"):
            hosts = (a[which] or "").split("\n")
            same(f"{which}: lines", len(hosts), len(b_hosts))
            same(f"{which}: other lines", hosts[:3] + hosts[4:], b_hosts[:3] + b_hosts[4:])
            same(f"{which}: fields of the name's line", len(hosts[3].split()) if hosts[3:] else 0,
                 2)
        # The hosts file is written from the store, a full field whole.
        same("hosts line", a["hosts from the store"].split("\n")[3],
             f"{b_hosts[3].split()[0]}\t{text}")
    elif area == "ipfilter":
        old = f"{IPF_BEGIN}-{IPF_END}"
        new = f"{text}-{IPF_END}" if field.name == "begin_ip" else f"{IPF_BEGIN}-{text}"
        same("ipf_chain", a["ipf_chain"], b["ipf_chain"].replace(old, new))
        same("INPUT", a["INPUT"], b["INPUT"])
    return p


def outcome(field, res):
    """"accepted", "refused", or what else happened."""
    code = f"0x{0xFD000000 | MODULE[field.area] << 16 | 0xFFF9:08X}"
    if res["via"] == "driver":
        got = res["out"].strip()
        return {"0x00000000": "accepted", code: "refused"}.get(got, f"driver said {got!r} "
                                                                    f"{res['err']!r}")
    if res["rc"] == 0:
        return "accepted"
    if res["rc"] == 1 and res["err"] == f"{field.area}: invalid input ({code})\n":
        return "refused"
    return f"exit {res['rc']}: {res['err']!r}"


def assert_no_new_tmp(test, report, benign):
    """Nothing new in /tmp but the DDNS update's answer (the benign script's -O file)."""
    allowed = set()
    for state in benign.values():
        script = state.get("/etc/cron/ddns.conf")
        m = URL.match(script.split("\n")[1]) if script and script.count("\n") == 2 else None
        if m:
            allowed.add(os.path.basename(m[1]))
    new = set(report["tmp_after"]) - set(report["tmp_before"]) - allowed
    test.assertEqual(sorted(new), [], "a payload ran a command: new files in /tmp")


class HostileInput(SimTestCase):
    tally = {}  # field label: payloads accepted / refused

    @classmethod
    def tearDownClass(cls):
        tried = sum(len(v) for v in cls.tally.values())
        print(f"\nhostile input: {len(cls.tally)} fields x {len(PAYLOADS) + 1} payloads, "
              f"{tried} cases", file=sys.stderr)
        for label, marks in cls.tally.items():
            print(f"  {label:<22} {' '.join(marks)}", file=sys.stderr)
        print("  (A accepted and arrived intact, R refused, - not tried)", file=sys.stderr)
        super().tearDownClass()

    def drive(self, fields):
        """Runs the cases of fields (all of one area) on the device; judges them here."""
        area = fields[0].area
        raw_set = os.path.join(self.dev.build, "tests", "sim", "qmtnm-raw-set")
        cases, meta = [], []
        for f in fields:
            for kind, text in cases_of(f):
                words = None if kind == FULL else f.words(text)
                cases.append({"area": area, "raw": f.name, "text": text, "words": words,
                              "context": f.raw_context})
                meta.append((f, kind, text, "tool" if words else "driver"))
        job = {"area": area, "context": fields[0].context, "raw_set": raw_set, "cases": cases}
        r = self.dev.run("python3", os.path.realpath(__file__), "--device",
                         input=json.dumps(job), timeout=240)
        report = json.loads(r.stdout)

        benign = {}
        for (f, kind, text, via), res in zip(meta, report["results"]):
            res["via"] = via
            if kind == "benign":
                benign[f.label] = res["after"]
        for (f, kind, text, via), res in zip(meta, report["results"]):
            with self.subTest(field=f.label, payload=kind, text=text, via=via):
                got = outcome(f, res)
                marks = self.tally.setdefault(f.label, [])
                if got == "refused":
                    before = dict(res["before"])
                    after = {k: v for k, v in res["after"].items() if k != "flag_after_set"}
                    self.assertEqual(after, before, "a refused set changed something")
                    self.assertEqual(res["after"]["flag_after_set"], 1)
                    self.assertNotEqual(kind, "benign")
                    marks.append("R")
                    continue
                self.assertEqual(got, "accepted")
                b = benign.get(f.label)
                self.assertIsNotNone(b, "no benign set to compare with")
                self.assertEqual(arrival_problems(f, kind, text, res["after"], b), [])
                marks.append("A")
        assert_no_new_tmp(self, report, benign)
        return meta, report["results"]

    def fields(self, area):
        return [f for f in FIELDS if f.area == area]

    def test_station(self):
        self.drive(self.fields("sta"))

    def test_soft_ap(self):
        self.drive(self.fields("ap"))

    def test_ddns(self):
        meta, results = self.drive(self.fields("ddns"))
        # The update script ran at once: the provider upstream saw each accepted text decoded.
        want = []
        for (f, kind, text, via), res in zip(meta, results):
            if outcome(f, res) == "accepted":
                creds = {"domain": "cam.example.net", "username": "user", "password": "pass"}
                creds[f.name] = text
                want.append((creds["domain"], creds["username"], creds["password"]))

        def seen():
            out = self.dev.on("upstream", "cat", "/run/ddns-provider.jsonl").stdout
            got = {(r["query"].get("hostname", [None])[0], r["user"], r["password"])
                   for r in map(json.loads, out.splitlines())}
            return [w for w in want if w not in got] or None
        missing = None
        try:
            poll("the updates at the provider", lambda: not seen(), timeout=10)
        except AssertionError:
            missing = seen()
        self.assertIsNone(missing, "updates that never reached the provider")

    def test_pppoe(self):
        def log():
            with open(self.dev.log_path, "rb") as f:
                return f.read()
        mark = len(log())
        self.drive(self.fields("pppoe"))
        # pppd read every options file the start-up wrote without finding a word it did not know.
        self.assertRegex(log()[mark:], rb"pppd\[\d+\]: Plugin /lib/ppp/rp-pppoe.so loaded")
        self.assertNotRegex(log()[mark:], rb"pppd\[\d+\]: .*(unrecognized option|In file)")

    def test_ethernet_mac(self):
        self.drive(self.fields("ethmac"))

    def test_upnp(self):
        self.drive(self.fields("upnp"))

    def test_bonjour(self):
        self.drive(self.fields("bonjour"))

    def test_ip_filter(self):
        self.drive(self.fields("ipfilter"))


class StoredHostileInput(SimTestCase):
    """The same payloads written straight into the store, as a restored backup or a hand-edited
    store holds them, then applied by the start-up apply: refused with the area's invalid-input
    code and the area left as it was, or arrived intact as through a set. The PINs are left out:
    the station's is never applied from the store, and the soft AP's is not used by its apply."""

    def drive(self, area):
        fields = [f for f in FIELDS if f.area == area and f.name != "wps_pin"]
        cases, meta = [], []
        for f in fields:
            for kind, text in cases_of(f):
                cases.append({"area": area, "path": store_path(f), "text": text,
                              "benign": f.words(f.benign)})
                meta.append((f, kind, text))
        job = {"area": area, "context": fields[0].context, "stored": True, "cases": cases}
        r = self.dev.run("python3", os.path.realpath(__file__), "--device",
                         input=json.dumps(job), timeout=240)
        report = json.loads(r.stdout)
        benign = {f.label: res["after"] for (f, kind, _), res in zip(meta, report["results"])
                  if kind == "benign"}
        code = f"0x{0xFD000000 | MODULE[area] << 16 | 0xFFF9:08X}"
        for (f, kind, text), res in zip(meta, report["results"]):
            with self.subTest(field=f.label, payload=kind, text=text):
                if res["rc"] == 0:
                    self.assertEqual(arrival_problems(f, kind, text, res["after"],
                                                      benign[f.label]), [])
                    continue
                self.assertNotEqual(kind, "benign")
                self.assertEqual(res["err"], f"{area}: invalid input ({code})\n"
                                             f"{area}: stored settings refused, not applied\n")
                # What the store holds changed; nothing that was applied did.
                store = ("stored", "hosts from the store")
                before = {k: v for k, v in res["before"].items() if k not in store}
                after = {k: v for k, v in res["after"].items() if k not in store}
                self.assertEqual(after, before, "a refused stored record changed something")
        assert_no_new_tmp(self, report, benign)

    def test_station(self):
        self.drive("sta")

    def test_soft_ap(self):
        self.drive("ap")

    def test_ddns(self):
        self.drive("ddns")

    def test_pppoe(self):
        self.drive("pppoe")

    def test_upnp(self):
        self.drive("upnp")

    def test_bonjour(self):
        self.drive("bonjour")

    def test_ip_filter(self):
        self.drive("ipfilter")


if __name__ == "__main__":
    if sys.argv[1:] == ["--device"]:
        device_main()
    else:
        simdevice.main()
