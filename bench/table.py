#!/usr/bin/env python3
"""Prints the benchmark table: path, figure, value, reference, ratio to the reference.

Inputs (each optional):
  --host JSON        Google Benchmark output of report_bench (median aggregates used)
  --callgrind FILE   lines "<case> <path|floor> <Ir> <frames> <events per frame>"
  --rows FILE        rows written by the VM scenarios: "path;figure;value;reference;ratio"
                     (fields may be "-"); several --rows allowed
  --markdown         a Markdown table instead of aligned text
"""
import argparse
import json
import sys


def host_rows(path):
    with open(path) as f:
        data = json.load(f)
    cpu = {}
    for b in data["benchmarks"]:
        name = b.get("run_name", b["name"])
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        cpu[name] = (b["cpu_time"], b.get("events", 0))
    rows = []
    for name, (t, events) in cpu.items():
        if not name.startswith("path/"):
            continue
        _, case, sink = name.split("/")
        floor = cpu.get("floor/%s/%s" % (case, sink))
        if not floor:
            continue
        ratio = t / floor[0]
        target = " (target <= 1.15)" if case == "usb06_10contacts" and sink == "pipe" else ""
        rows.append(("host %s -> %s" % (case, sink),
                     "CPU per frame, %d events" % int(events),
                     "%.0f ns" % t, "floor %.0f ns" % floor[0], "%.3f%s" % (ratio, target)))
        one = cpu.get("onewrite/%s/%s" % (case, sink))
        if one and sink == "pipe":
            rows.append(("host %s -> %s, one write per frame (not done: see notes)" % (case, sink),
                         "CPU per frame, floor only",
                         "%.0f ns" % one[0], "floor %.0f ns" % floor[0],
                         "%.3f" % (one[0] / floor[0])))
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
    ap.add_argument("--callgrind")
    ap.add_argument("--rows", action="append", default=[])
    ap.add_argument("--markdown", action="store_true")
    args = ap.parse_args()
    rows = []
    if args.host:
        rows += host_rows(args.host)
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
