#!/usr/bin/env python3
"""Runs every benchmark program built into BUILD/benchmarks and every script
benchmarks/*.sh, and prints one table.

    benchmarks/run_all.py BUILD [--quick] [extra arguments for every program]

CM_BENCH_ROUNDS=N in the environment sets the rounds of the multi-process
programs (Google Benchmark programs reject unknown arguments).  --quick
runs 3 rounds of each multi-process program (the least a median needs),
short Google Benchmark runs and fewer changes in the scripts: the whole
table in under two minutes, so that CI keeps every row working.  Nothing
here fails on a figure: an unmet target is marked in the table only.

Programs are run with --benchmark_format=json.  Google Benchmark programs
print their own JSON; the multi-process programs print rows of the same
shape with a "floor", a "ratio" (library / floor, median over rounds) and a
"target" ratio.  Scripts get the build directory and the extra arguments and
print the same JSON."""
import json
import os
import subprocess
import sys


def run(cmd):
    out = ""
    try:
        out = subprocess.run(cmd, check=True, capture_output=True, text=True).stdout
        # A program may print one document per leg (getset_bench: disk, tmpfs).
        rows, at, decoder = [], 0, json.JSONDecoder()
        while out[at:].strip():
            at += len(out[at:]) - len(out[at:].lstrip())
            doc, at = decoder.raw_decode(out, at)
            rows += doc.get("benchmarks", [])
        return rows
    except subprocess.CalledProcessError as e:
        print(f"{' '.join(cmd)}: failed ({e})\n{e.stderr}", file=sys.stderr)
    except json.JSONDecodeError as e:
        print(f"{' '.join(cmd)}: unreadable output ({e}):\n{out[:400]}", file=sys.stderr)
    return None


def fmt_time(value, unit):
    return f"{value:.1f} {unit}" if value is not None else ""


def main():
    build = sys.argv[1] if len(sys.argv) > 1 else "build"
    extra = sys.argv[2:]
    if "--quick" in extra:
        extra = [a for a in extra if a != "--quick"] + ["--benchmark_min_time=0.02"]
        os.environ.setdefault("CM_BENCH_ROUNDS", "3")
        os.environ.setdefault("CHANGES", "60")
    bench_dir = os.path.join(build, "benchmarks")
    here = os.path.dirname(os.path.abspath(__file__))
    jobs = []
    if os.path.isdir(bench_dir):
        for name in sorted(os.listdir(bench_dir)):
            path = os.path.join(bench_dir, name)
            if os.path.isfile(path) and os.access(path, os.X_OK) and "." not in name:
                jobs.append([path, "--benchmark_format=json"] + extra)
    for name in sorted(os.listdir(here)):
        if name.endswith(".sh"):
            jobs.append(["bash", os.path.join(here, name), build, "--benchmark_format=json"] + extra)
    if not jobs:
        sys.exit(f"no benchmarks under {bench_dir}: build first (make build)")

    rows, failed = [], 0
    for cmd in jobs:
        print(f"running {os.path.basename(cmd[1] if cmd[0] == 'bash' else cmd[0])} ...", file=sys.stderr)
        result = run(cmd)
        if result is None:
            failed += 1
            continue
        for b in result:
            if b.get("run_type") == "aggregate":
                continue
            rows.append(b)

    width = max([len(r["name"]) for r in rows] + [9])
    print(f"{'benchmark':<{width}}  {'time':>12}  {'floor':>12}  {'ratio':>7}  {'target':>7}")
    for r in rows:
        if not r.get("real_time") and not r.get("floor"):
            print(r["name"])  # a row that says why it was skipped
            continue
        unit = r.get("time_unit", "")
        floor = fmt_time(r["floor"], unit) if "floor" in r else ""
        ratio = f"{r['ratio']:.2f}x" if "ratio" in r else ""
        target = r.get("target", 0)
        verdict = ""
        if target:
            verdict = "met" if r["ratio"] <= target else "OVER"
        tgt = f"{target:.2f}x" if target else ""
        print(f"{r['name']:<{width}}  {fmt_time(r.get('real_time'), unit):>12}  {floor:>12}  {ratio:>7}  {tgt:>7}  {verdict}")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
