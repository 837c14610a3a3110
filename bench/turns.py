#!/usr/bin/env python3
"""Runs two npbench builds in turns and prints each figure as a ratio to the run's own reference
trie, per run and as the median, so that a change is judged against the noise of a shared machine.

  bench/turns.py --rounds 3 --label before --bench A/bin/npbench --label after --bench B/bin/npbench -- --records 10000000
"""
import argparse, json, os, statistics, subprocess, sys

FIGURES = [
    # name, how to compute from one run's JSON, higher is better
    ("lookup, 1 thread (BEST_MATCH mixed) / reference", lambda d: locked(d) / d["reference"]["lookups_per_s_best_match_mixed_1_thread"]),
    ("searchMany, 64 a call / reference", lambda d: d["lookups_batched_per_s"] / d["reference"]["lookups_per_s_best_match_mixed_1_thread"]),
    ("lookUp, 64 a call / reference", lambda d: d["lookups_host_interface_per_s"] / d["reference"]["lookups_per_s_best_match_mixed_1_thread"]),
    ("init: reference build time / init time", lambda d: d["reference"]["seconds"] / d["operations"]["init_s"]),
    ("reload: reference build time / reload time", lambda d: d["reference"]["seconds"] / d["operations"]["reload_s"]),
    ("delta 1 %: reference build time / delta time", lambda d: d["reference"]["seconds"] / d["operations"]["delta_load_s"]),
    ("bytes per record, both trees", lambda d: d["init"]["bytes_per_record_both_trees"]),
]


def locked(d):
    for row in d["lookups"]:
        if row["method"] == 0 and row["workload"] == "mixed" and row["threads"] == 1:
            return row["locked_per_s"]
    raise KeyError("no BEST_MATCH mixed 1-thread row")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--label", action="append", required=True)
    parser.add_argument("--bench", action="append", required=True)
    parser.add_argument("--out", default=".", help="folder for each run's JSON and text")
    parser.add_argument("args", nargs="*", help="npbench options, after --")
    options = parser.parse_args()
    if len(options.label) != len(options.bench):
        sys.exit("turns.py: one --label per --bench")
    runs = {label: [] for label in options.label}
    for r in range(1, options.rounds + 1):
        for label, bench in zip(options.label, options.bench):
            name = os.path.join(options.out, f"{label}-{r}")
            load = open("/proc/loadavg").read().split()[0]
            with open(name + ".txt", "w") as text:
                subprocess.run([bench, *options.args, "--json", name + ".json"], stdout=text, stderr=subprocess.STDOUT, check=True)
            data = json.load(open(name + ".json"))
            runs[label].append((load, data))
            print(f"round {r} {label}: load average {load} at start, disagreements {data['cross_check_disagreements']}", flush=True)
    print()
    print("| figure | " + " | ".join(f"{l}, each run" for l in options.label) + " | " + " / ".join(options.label) + " (median) |")
    print("| --- |" + " --- |" * (len(options.label) + 1))
    for name, figure in FIGURES:
        cells, medians = [], []
        for label in options.label:
            values = [figure(d) for _, d in runs[label]]
            cells.append(" ".join(f"{v:.2f}" for v in values))
            medians.append(statistics.median(values))
        print(f"| {name} | " + " | ".join(cells) + " | " + " / ".join(f"{m:.2f}" for m in medians) + " |")
    print()
    for label in options.label:
        print(f"{label}: load averages at start " + ", ".join(l for l, _ in runs[label]))


if __name__ == "__main__":
    main()
