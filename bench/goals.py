#!/usr/bin/env python3
"""Runs the benchmark programs and prints one line per performance goal.

Each goal in goals.tsv compares two benchmarks measured in the same program and
the same run, as ratio = time(subject) / time(baseline) (per-iteration real
time, the median of the repetitions), and states the bound that ratio must meet.

  bench/goals.py BUILD_DIR [--min-time SECONDS] [--repetitions N]
"""
import argparse, json, os, subprocess, sys

def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build_dir")
    ap.add_argument("--min-time", default="0.2")
    ap.add_argument("--repetitions", default="3")
    args = ap.parse_args()
    here = os.path.dirname(os.path.abspath(__file__))
    goals = []
    with open(os.path.join(here, "goals.tsv")) as f:
        for line in f:
            line = line.rstrip("\n")
            if not line or line.startswith("#"):
                continue
            name, program, subject, baseline, op, bound = line.split("\t")
            goals.append((name, program, subject, baseline, op, float(bound)))
    results = {}
    for program in sorted({g[1] for g in goals}):
        exe = os.path.join(args.build_dir, "bench", program)
        wanted = sorted({g[2] for g in goals if g[1] == program} |
                        {g[3] for g in goals if g[1] == program})
        pattern = "^(" + "|".join(wanted) + ")$"
        out = subprocess.run([exe, "--benchmark_format=json",
                              "--benchmark_min_time=" + args.min_time,
                              "--benchmark_repetitions=" + args.repetitions,
                              "--benchmark_report_aggregates_only=true",
                              # Interleaved repetitions spread the machine's
                              # noise over subject and baseline alike.
                              "--benchmark_enable_random_interleaving=true",
                              "--benchmark_filter=" + pattern],
                             check=True, capture_output=True, text=True).stdout
        for b in json.loads(out)["benchmarks"]:
            # A single repetition reports no aggregates, only the run itself.
            key = (program, b["run_name"])
            if b.get("aggregate_name") == "median" or (
                    b.get("run_type") == "iteration" and key not in results):
                results[key] = b["real_time"]
    missing = 0
    for name, program, subject, baseline, op, bound in goals:
        s, b = results.get((program, subject)), results.get((program, baseline))
        if s is None or b is None:
            print(f"{name}: missing measurement ({subject} / {baseline})")
            missing += 1
            continue
        ratio = s / b
        met = ratio <= bound if op == "<=" else ratio >= bound
        print(f"{name}: ratio {ratio:.3f} goal {op} {bound:g} {'met' if met else 'NOT met'}")
    # Unmet goals are reported, not fatal: timings on a shared machine are
    # noisy. A benchmark that did not run is a broken program, and is fatal.
    return 1 if missing else 0

if __name__ == "__main__":
    sys.exit(main())
