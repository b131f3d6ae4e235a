#!/usr/bin/env python3
"""Runs dvs_bench and prints one table: each operation beside the reference
measured in the same run, their ratio and the target, at every size.

Each row is the best (lowest) time of several repetitions, which keeps the
ratios stable on a shared machine.  With --svg, the store rows are also
plotted as cost per port against the host's port count (gnuplot).

    bench/report.py --bench build-rel/bench/dvs_bench [--repetitions 5]
                    [--json out.json] [--svg plot.svg]
"""
import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

# (operation, reference, work, reference description, target ratio)
# The store rows come for two hosts of 32 switches: the one the targets are
# set for (20 properties a port) and the sample host, whose ports go
# through every structured converter.  The targets are set for 32 switches
# of 128 ports (4096); the smaller sizes show how the cost grows.
TARGET_PORTS = 4096
PAIRS = [
    ("BM_PropHostStoreSave", "BM_PropHostBareInsert", "store save, 32 switches, 20 props a port",
     "bare insert, one transaction", 1.5),
    ("BM_PropHostStoreLoad", "BM_PropHostBareSelect", "store load of it",
     "bare select", 10.0),
    ("BM_HostStoreSave", "BM_HostBareInsert", "store save of the sample host",
     "bare insert, one transaction", 1.5),
    ("BM_HostStoreLoad", "BM_HostBareSelect", "store load of it",
     "bare select", 10.0),
]
# In-memory rows that time a memcpy of as many bytes beside themselves,
# and the most time each may take against that memcpy for the list the
# targets are set for, 256 properties of 64 bytes (Serialize at least 0.8x
# memcpy speed, Deserialize at least 0.15x).
MEMORY_ROWS = re.compile(r"^BM_(\w+)VsMemcpy/(\d+)")
MEMORY_TARGETS = {"Serialize/256": 1 / 0.8, "Deserialize/256": 1 / 0.15}
# Host configuration blobs (switches/ports per switch/properties per port),
# beside a memcpy of the blob, with their targets in milliseconds.
HOST_BLOB_ROWS = re.compile(r"^BM_HostBlob(RoundTrip|Read)/(\d+)/(\d+)/(\d+)$")
HOST_BLOB_TARGETS = {"RoundTrip/32/128/20": 10.0, "RoundTrip/1/4096/20": 10.0,
                     "Read/1/4096/2": 3.0}


def run(bench, repetitions, out):
    cmd = [bench, "--benchmark_filter=BM_(Prop)?Host(Store|Bare|Blob)|VsMemcpy|BM_Step",
           "--benchmark_repetitions=%d" % repetitions,
           "--benchmark_out=" + out, "--benchmark_out_format=json"]
    done = subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    if done.returncode != 0:
        sys.stderr.write(done.stderr.decode(errors="replace"))
        sys.exit("report: %s failed" % bench)


def best_times(results):
    """Lowest real time (ms), lowest CPU time (ms) and the counters of each
    benchmark name."""
    best = {}
    for b in results["benchmarks"]:
        if b.get("run_type") != "iteration":
            continue
        name = (b["run_name"].replace("/process_time", "").replace("/real_time", "")
                .replace("/manual_time", ""))
        scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[b["time_unit"]]
        ms, cpu = b["real_time"] * scale, b["cpu_time"] * scale
        if name not in best:
            best[name] = (ms, cpu, b)
        else:
            old = best[name]
            best[name] = (min(ms, old[0]), min(cpu, old[1]), b if ms < old[0] else old[2])
    return best


def HostBlobOrder(name):
    """Host blob rows by kind, then switches and ports; others by name."""
    m = HOST_BLOB_ROWS.match(name)
    if not m:
        return (1, name, 0, 0)
    return (0, m.group(1), int(m.group(2)), int(m.group(3)))


def rows(best):
    out = []
    for op, ref, work, refname, target in PAIRS:
        sizes = sorted(int(n.split("/")[1]) for n in best if n.startswith(op + "/"))
        for ports in sizes:
            a = best.get("%s/%d" % (op, ports))
            r = best.get("%s/%d" % (ref, ports))
            if a and r:
                out.append((work, ports, a[0], refname, r[0], a[1] / r[1],
                            target if ports == TARGET_PORTS else None))
    for name, (ms, cpu, b) in sorted(best.items(), key=lambda kv: HostBlobOrder(kv[0])):
        m = HOST_BLOB_ROWS.match(name)
        if m and "memcpy_us" in b and "best_us" in b:
            kind, switches, ports, props = m.groups()
            work = "host blob %sx%sx%s, %s" % (
                switches, ports, props, "write + read" if kind == "RoundTrip" else "read")
            limit = HOST_BLOB_TARGETS.get(name[len("BM_HostBlob"):])
            out.append((work, int(switches) * int(ports), b["best_us"] / 1e3,
                        "memcpy of as many bytes", b["memcpy_us"] / 1e3, None,
                        "< %g ms" % limit if limit else None))
    for name, (ms, cpu, b) in sorted(best.items()):
        m = MEMORY_ROWS.match(name)
        if m and "memcpy_us" in b and "best_us" in b:
            out.append(("in memory: " + m.group(1), int(m.group(2)), b["best_us"] / 1e3,
                        "memcpy of as many bytes", b["memcpy_us"] / 1e3, None,
                        MEMORY_TARGETS.get(m.group(1) + "/" + m.group(2))))
            if "gather_us" in b:
                out.append(("in memory: " + m.group(1), int(m.group(2)), b["best_us"] / 1e3,
                            "memcpy of each record", b["gather_us"] / 1e3, None, None))
    return out


def print_table(table):
    head = ("work", "size", "time ms", "reference", "ref ms", "ratio", "cpu ratio", "target")
    lines = [head]
    for work, size, ms, refname, refms, cpuratio, target in table:
        ratio = ms / refms if refms > 0 else float("inf")
        lines.append((work, str(size), "%.4g" % ms, refname, "%.4g" % refms, "%.2fx" % ratio,
                      "%.2fx" % cpuratio if cpuratio else "-",
                      target if isinstance(target, str)
                      else "<= %.3gx" % target if target else "-"))
    widths = [max(len(l[i]) for l in lines) for i in range(len(head))]
    for i, l in enumerate(lines):
        print("| " + " | ".join(c.ljust(w) for c, w in zip(l, widths)) + " |")
        if i == 0:
            print("|" + "|".join("-" * (w + 2) for w in widths) + "|")


# The steps of a store save and load (store_steps_bench.cc), each under
# the whole it belongs to; what the steps leave is the converters' share.
STEPS = [
    ("BM_HostStoreSave", "store save of the sample host, whole", [
        ("BM_StepRegistryRebuild", "registry rebuilt and cleared, empty transaction"),
        ("BM_StepReadPortsChecked", "switch objects read, ports only checked"),
        ("BM_StepWriteSwitches", "switch objects written and committed"),
    ], "the rest: converters into the trees"),
    ("BM_HostStoreLoad", "store load of the sample host, whole", [
        ("BM_StepReadSwitches", "switch objects read into trees"),
    ], "the rest: converters, property lists, host blob"),
]


def print_steps(best):
    sizes = sorted({int(n.split("/")[1]) for n in best if n.startswith("BM_Step")})
    if not sizes:
        return
    lines = [("step (CPU ms, best of the runs)",) + tuple("%d ports" % p for p in sizes)]
    for whole, title, parts, rest in STEPS:
        def cpu(name, ports):
            got = best.get("%s/%d" % (name, ports))
            return got[1] if got else None
        totals = [cpu(whole, p) for p in sizes]
        lines.append((title,) + tuple("%.3g" % t if t else "-" for t in totals))
        left = list(totals)
        for name, label in parts:
            vals = [cpu(name, p) for p in sizes]
            lines.append(("  " + label,) + tuple("%.3g" % v if v else "-" for v in vals))
            left = [l - v if l is not None and v is not None else None for l, v in zip(left, vals)]
        lines.append(("  " + rest,) + tuple("%.3g" % l if l is not None else "-" for l in left))
    widths = [max(len(l[i]) for l in lines) for i in range(len(lines[0]))]
    print()
    for i, l in enumerate(lines):
        print("| " + " | ".join(c.ljust(w) for c, w in zip(l, widths)) + " |")
        if i == 0:
            print("|" + "|".join("-" * (w + 2) for w in widths) + "|")


def plot(best, svg):
    if shutil.which("gnuplot") is None:
        print("report: gnuplot not installed, no plot", file=sys.stderr)
        return
    series = [("BM_PropHostStoreSave", "save, 20 props"), ("BM_PropHostBareInsert", "bare insert, 20 props"),
              ("BM_PropHostStoreLoad", "load, 20 props"), ("BM_PropHostBareSelect", "bare select, 20 props"),
              ("BM_HostStoreSave", "save, sample host"), ("BM_HostBareInsert", "bare insert, sample"),
              ("BM_HostStoreLoad", "load, sample host"), ("BM_HostBareSelect", "bare select, sample")]
    with tempfile.TemporaryDirectory() as tmp:
        plots = []
        for op, title in series:
            pts = sorted((int(n.split("/")[1]), best[n][0]) for n in best
                         if n.startswith(op + "/"))
            if not pts:
                continue
            path = os.path.join(tmp, op + ".dat")
            with open(path, "w") as f:
                for ports, ms in pts:
                    f.write("%d %g\n" % (ports, ms * 1e3 / ports))
            plots.append("'%s' using 1:2 with linespoints title '%s'" % (path, title))
        script = "\n".join([
            "set terminal svg size 720,420 dynamic font 'sans,11'",
            "set output '%s'" % svg,
            "set title 'Configuration store: cost per port (32 switches, best of runs)'",
            "set xlabel 'ports per host'", "set ylabel 'microseconds per port'",
            "set logscale xy", "set xtics (64, 512, 4096)", "set grid",
            "set key outside right",
            "plot " + ", ".join(plots)])
        subprocess.run(["gnuplot"], input=script.encode(), check=True)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bench", help="the dvs_bench program to run")
    ap.add_argument("--repetitions", type=int, default=5)
    ap.add_argument("--json", help="keep Google Benchmark's JSON here")
    ap.add_argument("--svg", help="write the cost-per-port plot here")
    ap.add_argument("--from-json", help="report on an earlier run instead of running")
    args = ap.parse_args()
    if not args.bench and not args.from_json:
        ap.error("--bench or --from-json is needed")
    with tempfile.TemporaryDirectory() as tmp:
        path = args.from_json or args.json or os.path.join(tmp, "bench.json")
        if not args.from_json:
            run(args.bench, args.repetitions, path)
        with open(path) as f:
            best = best_times(json.load(f))
    print("size: ports per host (store rows, 32 switches) or properties per list (in memory);")
    print("times are the best of the runs; ratio = time / reference, cpu ratio the same in CPU time")
    print_table(rows(best))
    print_steps(best)
    if args.svg:
        plot(best, args.svg)


if __name__ == "__main__":
    main()
