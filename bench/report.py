#!/usr/bin/env python3
"""Prints the benchmarks' one table from Google Benchmark's JSON output.

    report.py TMPFS.json LOAD.json DISK.json PENDING.json [--markdown]

TMPFS.json: qmtnm_bench with the store's database on tmpfs; LOAD.json: qmtnm_load_bench;
DISK.json: qmtnm_bench (store write and INSERT only) with the database on disk; PENDING.json:
qmtnm_pending_bench, the database on disk. Each figure is
the median of the repetitions; its floor is the same SQL on a prepared connection of its own.
"""
import json
import sys

UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def load(path):
    with open(path) as f:
        data = json.load(f)
    runs = {}
    for b in data["benchmarks"]:
        if b.get("error_occurred"):
            sys.exit("benchmark %s failed: %s" % (b.get("run_name", b["name"]), b.get("error_message")))
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        name = b.get("run_name", b["name"])
        runs[name] = b
    return data.get("context", {}), runs


def call_ns(b):
    """Time of one call: the call_ns counter where there is one, else the time per iteration."""
    if "call_ns" in b:
        return float(b["call_ns"])
    return float(b["real_time"]) * UNIT_NS[b.get("time_unit", "ns")]


def fmt_time(ns):
    if ns is None:
        return "-"
    if ns >= 1e6:
        return "%.2f ms" % (ns / 1e6)
    if ns >= 1e3:
        return "%.2f us" % (ns / 1e3)
    return "%.0f ns" % ns


def fmt_rate(r):
    if r is None:
        return "-"
    if r >= 1e6:
        return "%.2f M" % (r / 1e6)
    if r >= 1e3:
        return "%.1f k" % (r / 1e3)
    return "%.0f" % r


def main(argv):
    markdown = "--markdown" in argv
    args = [a for a in argv if a != "--markdown"]
    if len(args) != 4:
        sys.exit(__doc__)
    ctx, tmpfs = load(args[0])
    _, loadr = load(args[1])
    _, disk = load(args[2])
    _, pending = load(args[3])

    def get(runs, name):
        if name not in runs:
            sys.exit("missing benchmark result: " + name)
        return runs[name]

    rows = []

    def row(what, procs, runs, name, floor_what=None, floor_runs=None, floor_name=None):
        b = get(runs, name)
        t = call_ns(b)
        rate = float(b["calls_per_s"]) if "calls_per_s" in b else 1e9 / t
        ft = call_ns(get(floor_runs, floor_name)) if floor_name else None
        ratio = "%.2f" % (t / ft) if ft else "-"
        rows.append([what, str(procs), fmt_time(t), fmt_rate(rate), floor_what or "-",
                     fmt_time(ft), ratio])

    sel1, sel2, ins = "1 SELECT", "2 SELECTs", "1 INSERT, commit"
    row("qmtnm_lcl_get(qos)", 1, tmpfs, "BM_lcl_get_qos", sel2, tmpfs, "BM_sql_select/2")
    row("qmtnm_lcl_set(qos) up to date, log level 1", 1, tmpfs, "BM_lcl_set_qos_uptodate/1",
        sel2, tmpfs, "BM_sql_select/2")
    row("qmtnm_lcl_set(qos) up to date, log level 0", 1, tmpfs, "BM_lcl_set_qos_uptodate/0",
        sel2, tmpfs, "BM_sql_select/2")
    row("qmtnm_lcl_set(qos) check failure", 1, tmpfs, "BM_lcl_set_qos_check_fail")
    row("qmtnm_lcl_get(wan), live port, routes, resolver", 1, tmpfs, "BM_lcl_get_wan", sel2,
        tmpfs, "BM_sql_select/2")
    row("qmtnm_lcl_get(lan)", 1, tmpfs, "BM_lcl_get_lan", "6 SELECTs", tmpfs, "BM_sql_select/6")
    row("qmtnm_lcl_set(lan) up to date, log level 1", 1, tmpfs, "BM_lcl_set_lan_uptodate",
        "6 SELECTs", tmpfs, "BM_sql_select/6")
    row("qmtnm_lcl_get(sta), wpa_cli status on wlan0", 1, tmpfs, "BM_lcl_get_sta/1", "6 SELECTs",
        tmpfs, "BM_sql_select/6")
    row("qmtnm_lcl_get(sta), the same without running wpa_cli", 1, tmpfs, "BM_lcl_get_sta/0",
        "6 SELECTs", tmpfs, "BM_sql_select/6")
    row("qmtnm_lcl_get(ap)", 1, tmpfs, "BM_lcl_get_ap", "8 SELECTs", tmpfs, "BM_sql_select/8")
    row("qmtnm_lcl_set(ap) up to date, log level 1", 1, tmpfs, "BM_lcl_set_ap_uptodate",
        "8 SELECTs", tmpfs, "BM_sql_select/8")
    row("qmtnm_lcl_get(ipfilter), 8 rules", 1, tmpfs, "BM_lcl_get_ipfilter", "19 SELECTs", tmpfs,
        "BM_sql_select/19")
    for area_id, name, sql in ((0, "br", 1), (1, "ethtype", 1), (2, "ethmac", 0), (5, "ddns", 5),
                               (6, "pppoe", 3), (7, "upnp", 2), (8, "bonjour", 2),
                               (12, "wanflash", 6)):
        what = "qmtnm_lcl_get(%s)" % name + (", eth0's hardware address" if not sql else "")
        floor = ("%d SELECT%s" % (sql, "s" if sql > 1 else ""), "BM_sql_select/%d" % sql) \
            if sql in (1, 2, 6) else (None, None)
        row(what, 1, tmpfs, "BM_lcl_get_each/id:%d" % area_id, floor[0], tmpfs if floor[1] else None,
            floor[1])
    row("qmt_conf_scanf, one int", 1, tmpfs, "BM_store_read", sel1, tmpfs, "BM_sql_select/1")
    row("qmt_conf_printf, one int, db on tmpfs", 1, tmpfs, "BM_store_write", ins, tmpfs,
        "BM_sql_insert")
    row("qmt_conf_printf, one int, db on disk", 1, disk, "BM_store_write", ins, disk,
        "BM_sql_insert")
    row("load: dlopen + dlclose of libqmtnm.so", 1, loadr, "BM_load_library/with_deps:0")
    row("load: the same, with libsysconf and SQLite", 1, loadr, "BM_load_library/with_deps:1")
    loads = [
        (0, "get + up-to-date set, all on qos"),
        (1, "two sets, all on one get-only area (set lock only)"),
        (2, "two sets, each on its own get-only area (set lock only)"),
    ]
    for load_id, what in loads:
        for procs in (1, 2, 4):
            name = "BM_contention/load:%d/procs:%d/manual_time" % (load_id, procs)
            if load_id == 0:
                floor = "BM_contention/load:3/procs:%d/manual_time" % procs
                row(what, procs, tmpfs, name, sel2 + " (same procs)", tmpfs, floor)
            else:
                row(what, procs, tmpfs, name)

    row("qmtnm_lcl_set(qos) changed, db on disk", 1, pending, "BM_set_changed/pending:0")
    row("the same, a change pending (QoS kept already)", 1, pending, "BM_set_changed/pending:1")
    row("the first set of QoS in a pending change", 1, pending, "BM_first_set_pending")
    row("pending change: deadline to the old settings back", 1, pending,
        "BM_deadline_to_restored/iterations:3/manual_time")

    head = ["Measurement", "Procs", "Time per call", "Calls/s (all procs)", "Floor: same SQL",
            "Floor time", "x floor"]
    if markdown:
        print("| " + " | ".join(head) + " |")
        print("|---|---:|---:|---:|---|---:|---:|")
        for r in rows:
            print("| " + " | ".join(r) + " |")
    else:
        widths = [max(len(r[i]) for r in rows + [head]) for i in range(len(head))]
        line = "  ".join(h.ljust(widths[i]) if i in (0, 4) else h.rjust(widths[i])
                         for i, h in enumerate(head))
        print(line)
        print("-" * len(line))
        for r in rows:
            print("  ".join(c.ljust(widths[i]) if i in (0, 4) else c.rjust(widths[i])
                            for i, c in enumerate(r)))
    print()
    print("%s CPUs at %s MHz; each figure the median of the repetitions." %
          (ctx.get("num_cpus", "?"), ctx.get("mhz_per_cpu", "?")))


if __name__ == "__main__":
    main(sys.argv[1:])
