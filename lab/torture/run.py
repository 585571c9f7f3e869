# SPDX-License-Identifier: Apache-2.0
"""The long forms, each in sandboxes of its own, and a table of what came of them:

    python3 -m lab.torture.run [--build DIR] [--queries N] [--month TICKS] ... [NAME...]

NAME is crash, signals, queries, flood, upgrades, month or link; default all, one after the other. Raw
results go to build/torture, what went wrong there and to standard error."""
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
LOADS = {"queries": 1_000_000, "flood": 200_000, "upgrades": 200, "month": 86_400, "link": 3}
OWN_MODULE = ("month", "link")
MODES = {"kill": "kill", "end": "kill of a child alone"}
VERSION_LIST = "cloud_plugin_version.json"
POINTS = "points-{}.json"


def inside(build, *arguments):
    """The objects that a module of this folder, run in a sandbox, prints."""
    command = [PYTHON, str(ROOT / "lab/sandbox.py"), "--out", str(OUT), "--build", build, "--",
               PYTHON, "-m", *arguments]
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"{' '.join(arguments)} ended with {done.returncode}")
    return [json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")]


def keep(name, results):
    """Raw results, a line each."""
    (OUT / name).write_text("".join(json.dumps(one) + "\n" for one in results))


def crash_jobs(build):
    """Counts the points of each scenario, then yields what runs them in parts."""
    for name, parts in SCENARIOS.items():
        keep(POINTS.format(name), inside(build, "lab.torture.crash", name, "--count"))
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
    """Rows (what, how many, survived), and the faults found."""
    rows, results = {}, []
    with concurrent.futures.ThreadPoolExecutor(3 * (os.cpu_count() or 2)) as pool:
        jobs = [(name, pool.submit(inside, build, *job)) for name, job in crash_jobs(build)]
        for name, job in jobs:
            for result in job.result():
                mode = MODES.get(result["action"], "failing call")
                row = rows.setdefault((room(name, result), mode), [set(), 0, 0])
                row[0].add((result["label"], result["number"]))
                row[1] += 1
                row[2] += result["wrong"] is None
                results.append({"job": name} | result)
    keep("crash.json", results)
    return [(f"{what}, {mode} ({len(points)} points)", runs, good)
            for (what, mode), (points, runs, good) in sorted(rows.items())], [
                one for one in results if one["wrong"]]


def signals(build, count):
    parts = range(1, SIGNAL_PARTS + 1)
    with concurrent.futures.ThreadPoolExecutor(SIGNAL_PARTS) as pool:
        each = str(-(-count // SIGNAL_PARTS))
        jobs = [pool.submit(inside, build, "lab.torture.signals", each, str(seed)) for seed in parts]
        results = [job.result()[-1] for job in jobs]
    keep("signals.json", results)
    result = {key: sum((one[key] for one in results), type(value)())
              for key, value in results[0].items()}
    slowest = max(one["slowest"] for one in results)
    what = (f"signals ({result['before_handlers']} before the handlers are set, "
            f"{result['while_downloading']} since a download began; slowest end {slowest} s)")
    return [(what, result["runs"], result["passed"])], result["wrong"]


def spread(samples, name):
    """Lowest and highest from the second sample on."""
    values = [one[name] for one in samples[1:]]
    return f"{min(values)}" if min(values) == max(values) else f"{min(values)} to {max(values)}"


def load(build, kind, count):
    module = ("lab.torture." + kind,) if kind in OWN_MODULE else ("lab.torture.load", kind)
    result = inside(build, *module, str(count))[-1]
    keep(f"load-{kind}.json", [result])
    samples = result.pop("samples", [])
    told = [f"{name} {value}" for name, value in result.items()
            if name not in ("runs", "passed") and not isinstance(value, list)]
    told += [f"{name} {spread(samples, name)}" for name in (samples[0] if samples else ())]
    return [(f"{kind} ({', '.join(told)})" if told else kind, result["runs"], result["passed"])], result["wrong"]


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--build", default=str(ROOT / "build" / "release"))
    for name, count in ({"signals": 200} | LOADS).items():
        parser.add_argument("--" + name, type=int, default=count, metavar="N",
                            help=f"default {count}")
    parser.add_argument("names", nargs="*", metavar="NAME", help="one of the above, or crash")
    chosen = parser.parse_args()
    OUT.mkdir(parents=True, exist_ok=True)
    jobs = {"crash": lambda: crash(chosen.build),
            "signals": lambda: signals(chosen.build, chosen.signals)}
    for kind in LOADS:
        jobs[kind] = lambda kind=kind: load(chosen.build, kind, getattr(chosen, kind))
    bad = 0
    print("| what | how many | survived | lost |\n|---|---:|---:|---:|")
    for name in chosen.names or jobs:
        rows, faults = jobs[name]()
        for what, runs, good in rows:
            print(f"| {what} | {runs} | {good} | {runs - good} |", flush=True)
        for fault in faults:
            print(f"  {name}: {fault}", file=sys.stderr)
        bad += len(faults) + sum(runs != good for _, runs, good in rows)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
