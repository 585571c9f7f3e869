# SPDX-License-Identifier: Apache-2.0
"""The long forms, each in sandboxes of its own, and a table of what came of them:

    python3 -m lab.torture.run [--build DIR] [--queries N] [--upgrades N] [--signals N] [NAME...]

NAME is crash, signals or load; default all three. Raw results go to build/torture."""
import argparse
import concurrent.futures
import json
import os
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
OUT = ROOT / "build" / "torture"
PYTHON = "/usr/bin/python3"
SCENARIOS = {"settings": 1, "settings-shorter": 1, "settings-new": 1, "rotation": 1, "upgrade": 5}
SIGNAL_PARTS = 3
VERSION_LIST = "cloud_plugin_version.json"
POINTS = "points-{}.json"


def inside(build, *arguments):
    """The standard output of a module of this folder, run in a sandbox."""
    command = [PYTHON, str(ROOT / "lab/sandbox.py"), "--out", str(OUT), "--build", build, "--",
               PYTHON, "-m", *arguments]
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"{' '.join(arguments)} ended with {done.returncode}")
    return done.stdout


def lines(text):
    return [json.loads(line) for line in text.splitlines() if line.startswith("{")]


def crash_jobs(build):
    """Counts the points of each scenario, then yields what runs them in parts."""
    for name, parts in SCENARIOS.items():
        (OUT / POINTS.format(name)).write_text(inside(build, "lab.torture.crash", name, "--count"))
        for part in range(parts):
            yield name, ("lab.torture.crash", name, "--share", f"{part}/{parts}",
                         "--points", "/lab-out/" + POINTS.format(name))


def room(name, result):
    """Which row of the table a run belongs to."""
    if name != "upgrade":
        return name
    if VERSION_LIST in result["target"] or "/versions/cloud" in result["target"]:
        return "version list"
    return "install" if result["label"].startswith("2.2") or (
        result["label"] == "2" and result["number"] > 1) else "download"


def crash(build):
    """Rows (what, how many, survived, lost), and the faults found."""
    rows, faults = {}, []
    with concurrent.futures.ThreadPoolExecutor(3 * (os.cpu_count() or 2)) as pool:
        jobs = [(name, pool.submit(inside, build, *job)) for name, job in crash_jobs(build)]
        for name, job in jobs:
            for result in lines(job.result()):
                mode = "kill" if result["action"] == "kill" else "failing call"
                row = rows.setdefault((room(name, result), mode), [set(), 0, 0])
                row[0].add((result["label"], result["number"]))
                row[1] += 1
                row[2] += result["wrong"] is None
                if result["wrong"]:
                    faults.append(f"{name}: {result}")
    (OUT / "crash-faults.txt").write_text("\n".join(faults) + "\n")
    return [(f"{what}, {mode} ({len(points)} points)", runs, good, runs - good)
            for (what, mode), (points, runs, good) in sorted(rows.items())], faults


def signals(build, count):
    parts = range(1, SIGNAL_PARTS + 1)
    with concurrent.futures.ThreadPoolExecutor(SIGNAL_PARTS) as pool:
        jobs = [pool.submit(inside, build, "lab.torture.signals", str(-(-count // SIGNAL_PARTS)), str(seed))
                for seed in parts]
        results = [lines(job.result())[-1] for job in jobs]
    result = {key: sum((one[key] for one in results), type(value)()) for key, value in results[0].items()}
    result["slowest"] = max(one["slowest"] for one in results)
    (OUT / "signals.json").write_text(json.dumps(result, indent=1))
    row = (f"signals ({result['before_handlers']} before the handlers are set, "
           f"{result['while_downloading']} since a download began; slowest end {result['slowest']} s)",
           result["runs"], result["passed"], result["runs"] - result["passed"])
    return [row], result["wrong"]


def load(build, queries, upgrades):
    rows = []
    for kind, count, good in (("queries", queries, "answered"), ("upgrades", upgrades, "done")):
        result = lines(inside(build, "lab.torture.load", kind, str(count)))[-1]
        (OUT / f"load-{kind}.json").write_text(json.dumps(result, indent=1))
        first, last = result["samples"][1], result["samples"][-1]
        growth = ", ".join(f"{key} {first[key]} to {last[key]}" for key in first)
        rows.append((f"{kind} in {result['seconds']} s ({growth})", result[kind], result[good],
                     result[kind] - result[good]))
    return rows, []


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--build", default=str(ROOT / "build" / "release"))
    parser.add_argument("--queries", type=int, default=1_000_000)
    parser.add_argument("--upgrades", type=int, default=200)
    parser.add_argument("--signals", type=int, default=200)
    parser.add_argument("names", nargs="*", metavar="NAME", help="crash, signals, load")
    chosen = parser.parse_args()
    OUT.mkdir(parents=True, exist_ok=True)
    jobs = {"crash": lambda: crash(chosen.build), "signals": lambda: signals(chosen.build, chosen.signals),
            "load": lambda: load(chosen.build, chosen.queries, chosen.upgrades)}
    lost = 0
    print(f"| {'what':90} | how many | survived | lost |\n|{'-' * 92}|---------:|---------:|-----:|")
    for name in chosen.names or jobs:
        rows, faults = jobs[name]()
        for what, runs, good, bad in rows:
            print(f"| {what:90} | {runs:8} | {good:8} | {bad:4} |", flush=True)
            lost += bad
        for fault in faults:
            print("  " + fault, file=sys.stderr)
    return 1 if lost else 0


if __name__ == "__main__":
    sys.exit(main())
