#!/usr/bin/env python3
"""Prints the benchmark table: path, figure, value, reference, ratio to the reference.

Inputs (each optional):
  --host JSON        Google Benchmark output of report_bench (median aggregates used)
  --host-before JSON the same from an earlier version of the code: rows of the ratio
  --callgrind FILE   lines "<case> <path|floor> <Ir> <frames> <events per frame>"
  --rows FILE        rows written by the VM scenarios: "path;figure;value;reference;ratio"
                     (fields may be "-"); several --rows allowed
  --markdown         a Markdown table instead of aligned text
"""
import argparse
import json
import sys


def host_cpu(path):
    with open(path) as f:
        data = json.load(f)
    cpu = {}
    for b in data["benchmarks"]:
        name = b.get("run_name", b["name"])
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        cpu[name] = (b["cpu_time"], b.get("events", 0))
    return cpu


def host_rows(path, before_path=None):
    cpu = host_cpu(path)
    before = host_cpu(before_path) if before_path else {}
    rows = []
    for name, (t, events) in cpu.items():
        if not name.startswith("path/"):
            continue
        _, case, sink = name.split("/")
        floor = cpu.get("floor/%s/%s" % (case, sink))
        one = cpu.get("onewrite/%s/%s" % (case, sink))
        if not floor or not one:
            continue
        rows.append(("host %s -> %s" % (case, sink),
                     "CPU per frame, %d events in one write" % int(events),
                     "%.0f ns" % t, "one write per event %.0f ns" % floor[0],
                     "%.3f" % (t / floor[0])))
        rows.append(("host %s -> %s" % (case, sink), "against the floor of one write per frame",
                     "%.0f ns" % t, "floor %.0f ns" % one[0], "%.3f" % (t / one[0])))
        earlier = before.get(name)
        if earlier:
            target = " (target <= 0.3)" if case == "usb06_10contacts" and sink == "pipe" else ""
            rows.append(("host %s -> %s" % (case, sink), "against the earlier build",
                         "%.0f ns" % t, "before %.0f ns" % earlier[0],
                         "%.3f%s" % (t / earlier[0], target)))
    return rows


def callgrind_rows(path):
    runs = {}
    with open(path) as f:
        for line in f:
            parts = line.split()
            if len(parts) != 5:
                continue
            case, mode, ir, frames, events = parts
            runs[(case, mode)] = (int(ir) / int(frames), int(events))
    rows = []
    for (case, mode), (ir, events) in sorted(runs.items()):
        if mode != "path":
            continue
        floor = runs.get((case, "floor"))
        if not floor:
            continue
        rows.append(("host %s (callgrind)" % case,
                     "instructions per frame, %d events" % events,
                     "%.0f Ir" % ir, "floor %.0f Ir" % floor[0], "%.2f" % (ir / floor[0])))
    return rows


def vm_rows(path):
    rows = []
    with open(path) as f:
        for line in f:
            line = line.strip()
            if not line or line.startswith("#"):
                continue
            parts = line.split(";")
            if len(parts) != 5:
                continue
            rows.append(tuple(parts))
    return rows


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--host")
    ap.add_argument("--host-before")
    ap.add_argument("--callgrind")
    ap.add_argument("--rows", action="append", default=[])
    ap.add_argument("--markdown", action="store_true")
    args = ap.parse_args()
    rows = []
    if args.host:
        rows += host_rows(args.host, args.host_before)
    if args.callgrind:
        rows += callgrind_rows(args.callgrind)
    for r in args.rows:
        rows += vm_rows(r)
    head = ("path", "figure", "value", "reference", "ratio")
    if args.markdown:
        print("| " + " | ".join(head) + " |")
        print("|" + "---|" * len(head))
        for r in rows:
            print("| " + " | ".join(r) + " |")
        return 0
    widths = [max(len(str(r[i])) for r in rows + [head]) for i in range(len(head))]
    fmt = "  ".join("%%-%ds" % w for w in widths)
    print(fmt % head)
    print(fmt % tuple("-" * w for w in widths))
    for r in rows:
        print(fmt % tuple(r))
    return 0


if __name__ == "__main__":
    sys.exit(main())
