#!/usr/bin/env python3
"""Turns the JSON output of coll_bench into the tables of BENCHMARKS.md.

Benchmarks are named BM_<Subject>_<Workload>[/arg]; this library's subjects
are Coll, Table and Lock, the baselines Map, Vector, Sqlite and Memcpy. Each
workload becomes a row: this library's time per operation, each baseline's,
and the ratio baseline / library (above 1: the library is faster).

usage: coll_bench --benchmark_format=json > out.json; bench_report.py out.json
"""
import json
import re
import sys

OURS = ("Coll", "Table", "Lock")
GROUPS = [
    ("Keyed reads and writes", ("Coll", "Map", "Sqlite"), re.compile(r"Numeric|String|DeleteReinsert|Reload")),
    ("Tables of 10,000 rows and 5 columns", ("Table", "Vector", "Sqlite"),
     re.compile(r"Read|Find|AppendRow|ReplaceField")),
    ("Dumps and loads", ("Coll", "Memcpy", "Sqlite"), re.compile(r"Dump|Load")),
    ("The lock", ("Lock",), re.compile(r"ReadOwnCollection|Chain")),
]


def fmt_time(ns):
    if ns >= 1e6:
        return f"{ns / 1e6:.2f} ms"
    if ns >= 1e3:
        return f"{ns / 1e3:.2f} µs"
    return f"{ns:.1f} ns"


def main(path):
    data = json.load(open(path))
    rows = {}
    for b in data["benchmarks"]:
        if b.get("run_type") == "aggregate":
            continue
        m = re.match(r"BM_([A-Za-z]+)_([A-Za-z0-9_]+)(/.*)?$", b["name"])
        if not m:
            continue
        subject, workload, arg = m.group(1), m.group(2), (m.group(3) or "")
        extra = ""
        if "bytes_per_second" in b:
            extra = f"{b['bytes_per_second'] / 1e9:.2f} GB/s"
        elif "items_per_second" in b:
            extra = f"{b['items_per_second'] / 1e6:.1f} M/s"
        rows.setdefault((workload, arg), {})[subject] = (b["cpu_time"], extra)
    ctx = data.get("context", {})
    print(f"Machine: {ctx.get('num_cpus')} CPUs at {ctx.get('mhz_per_cpu')} MHz, "
          f"build {ctx.get('library_build_type')}, run {ctx.get('date')}.\n")
    for title, subjects, pattern in GROUPS:
        print(f"### {title}\n")
        head = ["workload"] + [s for s in subjects] + [f"{s} / {subjects[0]}" for s in subjects[1:]]
        print("| " + " | ".join(head) + " |")
        print("|" + "---|" * len(head))
        for (workload, arg), by in sorted(rows.items()):
            if not pattern.search(workload) or not any(s in by for s in subjects):
                continue
            if subjects[0] not in by:
                continue
            cells = [workload + arg]
            for s in subjects:
                if s in by:
                    t, extra = by[s]
                    cells.append(fmt_time(t) + (f" ({extra})" if extra else ""))
                else:
                    cells.append("")
            base = by.get(subjects[0])
            for s in subjects[1:]:
                cells.append(f"{by[s][0] / base[0]:.2f}" if base and s in by else "")
            print("| " + " | ".join(cells) + " |")
        print()


if __name__ == "__main__":
    main(sys.argv[1])
