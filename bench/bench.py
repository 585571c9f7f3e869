#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures the daemon against its peers and prints one table of ratios.

Every pair is measured in this run, alternating, and the medians are compared, so that what the
machine does meanwhile hits both. Targets are printed, never enforced: the exit status only tells
whether everything could be measured, services that are not installed apart. The running daemon is
measured in the lab's sandbox (inside.py, growth.py, costs.py, peers.py); digests and downloads, which
need no device, outside it.
"""
import argparse
import filecmp
import json
import os
import re
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from contextlib import contextmanager
from pathlib import Path

from plot import Plot, svg

ROOT = Path(__file__).resolve().parent.parent
MEGABYTE = 1 << 20
NGINX = "/usr/sbin/nginx"
SANDBOX_SECONDS = 900

# What the daemon's loops wake up for: the main thread's sleep each second, the upgrade thread's
# each 100 ms, and the control thread's select and sleep of 100 ms each. The half is for the duties
# that come once in 30 seconds.
DOCUMENTED_TICKS = 1 + 10 + 10
TICKS_LIMIT = DOCUMENTED_TICKS + 0.5

# What the figures depend on, besides the daemon.
PACKAGES = ("libc6", "libssl3", "libjson-c5", "openssl", "wget", "curl", "nginx-light", "nginx", "rauc",
            "swupdate", "mender-client", "strace", "valgrind")

# No proxies and no start-up files of the person who runs this.
CLEAN_ENVIRONMENT = {"PATH": os.environ["PATH"], "HOME": "/nonexistent", "LC_ALL": "C"}


class Missing(Exception):
    """A figure that cannot be measured here, and why."""


def seconds_of(*command):
    start = time.perf_counter()
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          env=CLEAN_ENVIRONMENT)
    elapsed = time.perf_counter() - start
    if done.returncode != 0:
        raise Missing(f"{Path(command[0]).name} ended with {done.returncode}: "
                      f"{done.stderr.strip()[-200:]}")
    return elapsed


def alternate(rounds, runs):
    """Median of each of the named runs, after one of each that only warms up the caches."""
    for run in runs.values():
        run()
    results = {name: [] for name in runs}
    for _ in range(rounds):
        for name, run in runs.items():
            results[name].append(run())
    return {name: statistics.median(values) for name, values in results.items()}


def row(figure, ours, peer, ratio, target=None, met=None):
    return {"figure": figure, "ours": ours, "peer": peer, "ratio": ratio, "target": target,
            "met": met}


def speed_row(figure, size, seconds, peer, least=None):
    """ours and peer in MB/s; the ratio is above 1 when ours is faster."""
    ratio = seconds[peer] / seconds["ours"]
    return row(figure, f"{size / seconds['ours'] / 1e6:.0f} MB/s",
               f"{peer} {size / seconds[peer] / 1e6:.0f} MB/s", ratio,
               least and f">= {least}", least and ratio >= least)


def needed_libraries(program):
    dynamic = subprocess.run(["readelf", "-d", program], capture_output=True, text=True).stdout
    return set(re.findall(r"NEEDED.*\[(.*?)\]", dynamic))


# The figures: each takes the options and a scratch folder and gives its rows.

def digest_rows(options, scratch):
    package = scratch / "package"
    seconds = alternate(options.rounds, {
        "ours": lambda: seconds_of(options.bench / "signature", package),
        "openssl dgst -md5": lambda: seconds_of("openssl", "dgst", "-md5", package),
    })
    return [speed_row(f"upgrade_signature, {options.size >> 20} MB", options.size, seconds,
                      "openssl dgst -md5", 0.95)]


NGINX_CONF = """
{user}
daemon off;
worker_processes 1;
pid {folder}/nginx.pid;
events {{}}
http {{
    access_log off;
    sendfile on;
    client_body_temp_path {folder}/body;
    proxy_temp_path {folder}/proxy;
    fastcgi_temp_path {folder}/fastcgi;
    uwsgi_temp_path {folder}/uwsgi;
    scgi_temp_path {folder}/scgi;
    server {{
        listen 127.0.0.1:{port} ssl;
        ssl_certificate {folder}/cert.pem;
        ssl_certificate_key {folder}/key.pem;
        root {folder};
    }}
}}
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until_listening(port, server):
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline and server.poll() is None:
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)) == 0:
                return
        time.sleep(0.05)
    raise Missing("nginx does not answer")


@contextmanager
def nginx(folder):
    """An nginx that serves folder over TLS; gives its base URL."""
    if not shutil.which(NGINX):
        raise Missing("nginx is not installed")
    port = free_port()
    seconds_of("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
               "-subj", "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1",
               "-keyout", folder / "key.pem", "-out", folder / "cert.pem")
    # A worker of root's nginx would otherwise change to a user who cannot enter the folder.
    user = "user root;" if os.geteuid() == 0 else ""
    conf = folder / "nginx.conf"
    conf.write_text(NGINX_CONF.format(user=user, folder=folder, port=port))
    server = subprocess.Popen([NGINX, "-p", folder, "-c", conf, "-e", folder / "error.log"],
                              stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_until_listening(port, server)
        yield f"https://127.0.0.1:{port}"
    finally:
        server.terminate()
        server.wait()


def fetch(source, target, *command):
    """Seconds of one download; a wrong file counts as a failure, the time of looking does not."""
    target.unlink(missing_ok=True)
    seconds = seconds_of(*command)
    if not target.exists() or not filecmp.cmp(source, target, shallow=False):
        raise Missing(f"{Path(command[0]).name} did not bring the file")
    return seconds


def download_rows(options, scratch):
    source, target = scratch / "package", scratch / "target"
    with nginx(scratch) as base:
        url = f"{base}/package"
        seconds = alternate(options.rounds, {
            "ours": lambda: fetch(source, target, options.bench / "download", url, target),
            "wget": lambda: fetch(source, target, "wget", "--no-config", "--no-hsts", "-q",
                                  "--no-check-certificate", "-O", target, url),
            "curl": lambda: fetch(source, target, "curl", "-q", "-s", "-k", "-o", target, url),
        })
    figure = f"HTTPS download, {options.size >> 20} MB"
    return [speed_row(figure, options.size, seconds, "wget", 1.0),
            speed_row(figure, options.size, seconds, "curl")]


def stripped_size(program, scratch):
    seconds_of("strip", "-o", scratch / "stripped", program)
    return (scratch / "stripped").stat().st_size


def size_rows(options, scratch):
    size = stripped_size(options.build / "pluginmgr", scratch)
    rows = [row("stripped size", f"{size / 1000:.0f} KB", "", None, "< 250 KB", size < 250_000)]
    if options.before:
        old = stripped_size(options.before, scratch)
        rows.append(row("stripped size", f"{size / 1000:.0f} KB", f"before {old / 1000:.0f} KB",
                        size / old))
    return rows


def measure_inside(options, script, *arguments, out=None):
    """Runs a script of this folder in the sandbox; its last line of output is the result."""
    command = [sys.executable, ROOT / "lab/sandbox.py", "--build", options.build,
               *(("--out", out) if out else ()), "--", "/usr/bin/python3",
               f"/lab-src/bench/{script}.py", *arguments]
    done = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=SANDBOX_SECONDS)
    lines = done.stdout.strip().splitlines()
    if done.returncode != 0 or not lines:
        raise Missing(f"the sandbox ended with {done.returncode}: {done.stderr.strip()[-400:]}")
    return json.loads(lines[-1])


def query_rows(queries):
    ours, echo = queries["daemon"]["1"], queries["echo"]["1"]
    ratio = ours["qps"] / echo["qps"]
    rows = [row("id 80000, queries/s on one CPU", f"{ours['qps']:.0f}",
                f"UDP echo {echo['qps']:.0f}", ratio, ">= 0.5", ratio >= 0.5)]
    for key in ("p50_us", "p99_us"):
        rows.append(row(f"id 80000, latency {key[:3]}", f"{ours[key]:.1f} us",
                        f"UDP echo {echo[key]:.1f} us", ours[key] / echo[key]))
    for clients, figures in list(queries["daemon"].items())[1:]:
        peer = queries["echo"][clients]
        rows.append(row(f"queries/s, {clients} clients", f"{figures['qps']:.0f}",
                        f"UDP echo {peer['qps']:.0f}", figures["qps"] / peer["qps"]))
    return rows


PEER_NAMES = {"C++ program": "empty C++ program", "same libraries": "empty, same libraries",
              "same libraries, TLS set up": "empty, same libraries, TLS set up"}


def idle_rows(idle):
    ours, empty = idle["daemon"], idle["C++ program"]
    rows = []
    old = ("before",) if "before" in idle else ()
    for key, name, limit in (("pss_kb", "C++ program", 1.15), ("pss_kb", "same libraries", None),
                             ("pss_kb", "same libraries, TLS set up", None),
                             ("dirty_kb", "C++ program", None),
                             ("dirty_kb", "same libraries", None),
                             ("rss_kb", "C++ program", None), ("rss_kb", "same libraries", None),
                             *((key, name, None) for name in old for key in ("pss_kb", "dirty_kb"))):
        ratio = ours[key] / idle[name][key]
        figure = {"pss_kb": "PSS", "rss_kb": "RSS", "dirty_kb": "private dirty"}[key]
        rows.append(row(f"idle {figure}", f"{ours[key]:.0f} KB",
                        f"{PEER_NAMES.get(name, name)} {idle[name][key]:.0f} KB", ratio,
                        limit and f"<= {limit}", limit and ratio <= limit))
    wakes, milliseconds = ours["wakes_per_second"], ours["cpu_ms_per_minute"]
    ticking = idle["its ticks alone"]["cpu_ms_per_minute"]
    rows += [
        row("idle threads", f"{ours['threads']:.0f}", f"empty {empty['threads']:.0f}",
            ours["threads"] / empty["threads"]),
        row("idle wake-ups/s", f"{wakes:.1f}", f"its ticks {DOCUMENTED_TICKS}",
            wakes / DOCUMENTED_TICKS, f"<= {TICKS_LIMIT}", wakes <= TICKS_LIMIT),
        row("idle CPU a minute", f"{milliseconds:.1f} ms", f"its ticks alone {ticking:.1f} ms",
            milliseconds / ticking, "< 60 ms", milliseconds < 60),
    ]
    return rows


def daemons(options, scratch):
    """The daemons to measure, as paths in the sandbox."""
    if not options.before:
        return {"now": "/lab-build/pluginmgr"}
    shutil.copy(options.before, scratch / "before")
    return {"now": "/lab-build/pluginmgr", "before": "/lab-out/before"}


def running_rows(options, scratch):
    before = daemons(options, scratch).get("before")
    result = options.details["running"] = measure_inside(
        options, "inside", "--rounds", options.rounds, "--idle", options.idle,
        "--queries", options.queries, *(("--before", before) if before else ()), out=scratch)
    return query_rows(result["queries"]) + idle_rows(result["idle"])


def growth_rows(options, _scratch):
    points = options.details["growth"] = measure_inside(
        options, "growth", "--rounds", options.rounds, "--queries", options.queries // 10,
        *options.plugins)
    first, last = points[0], points[-1]

    def grown(figure, unit, value):
        digits = 0 if unit == "KB" else 2
        return row(f"{figure}, {last['plugins']} plug-ins", f"{value(last):.{digits}f} {unit}",
                   f"{first['plugins']} plug-in {value(first):.{digits}f} {unit}",
                   value(last) / value(first))

    def a_byte(one):
        return one["query"]["us"] * 1e3 / one["query"]["bytes"]

    return [
        grown("private dirty, no connection yet", "KB", lambda one: one["idle"]["dirty_kb"]),
        grown("private dirty, after a check", "KB", lambda one: one["connected"]["dirty_kb"]),
        grown("PSS, no connection yet", "KB", lambda one: one["idle"]["pss_kb"]),
        grown("PSS, after a check", "KB", lambda one: one["connected"]["pss_kb"]),
        grown("status query, CPU", "us", lambda one: one["query"]["us"]),
        grown("status query, CPU a byte", "ns", a_byte),
        grown("status query, long notes, CPU", "us", lambda one: one["document"]["us"]),
        grown("upgrade check, CPU", "ms", lambda one: one["check_ms"]),
    ]


def footprint_rows(options, _scratch):
    found = options.details["footprint"] = measure_inside(options, "peers", "--rounds", options.rounds)
    options.remarks += [f"{name}: not installed, nothing to compare with" for name in found["absent"]]
    options.missing += [f"{name}: ended at once, not measured" for name in found["ended"]]
    ours, *peers = found["idle"].items()
    return [row(figure, f"{ours[1][key]:.0f} KB", f"{name} {peer[key]:.0f} KB", ours[1][key] / peer[key])
            for key, figure in (("pss_kb", "idle PSS, beside services"),
                                ("dirty_kb", "idle private dirty, beside services"),
                                ("disk_kb", "program and libraries"))
            for name, peer in peers]


def cost_rows(options, scratch):
    for tool in ("strace", "valgrind"):
        if not shutil.which(tool):
            raise Missing(f"{tool} is not installed")
    results = options.details["costs"] = {
        name: measure_inside(options, "costs", "--daemon", path, "--idle", options.count_idle,
                             "--queries", options.count_queries, "--checks", 5, out=scratch)
        for name, path in daemons(options, scratch).items()}
    now, before = results["now"], results.get("before")
    rows = []
    for kind in now:
        for key, value in now[kind].items():
            old = before and before[kind][key]
            rows.append(row(f"{kind}, {key}", f"{value:,.1f}", f"before {old:,.1f}" if old else "",
                            value / old if old else None))
    return rows


FIGURES = [("queries and idle daemon", running_rows), ("package signature", digest_rows),
           ("HTTPS download", download_rows), ("stripped size", size_rows),
           ("growth", growth_rows), ("footprint of other services", footprint_rows),
           ("system calls and instructions", cost_rows)]


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, cwd=ROOT).stdout


def conditions(options):
    """Lines that say what was measured, on what, and against which versions."""
    compiler = re.findall(r"\]\s+(\S.*)", output_of("readelf", "-p", ".comment", options.build / "pluginmgr"))
    processor = re.findall(r"^model name\s*: (.*)", Path("/proc/cpuinfo").read_text(), re.M) or [os.uname().machine]
    packages = output_of("dpkg-query", "-W", "-f", "${Package} ${Version}, ", *PACKAGES)
    return [f"pluginmgr of commit {output_of('git', 'describe', '--always', '--dirty').strip()}, "
            f"{', '.join(compiler)}", f"Linux {os.uname().release}, {os.cpu_count()} x {processor[0]}",
            packages.rstrip(", ")]


def write_plot(path, details):
    """Of what has been measured; the memory is the daemon's own, in KB."""
    queries, growth = details["running"]["queries"], details["growth"]
    names = {"echo": "bare UDP echo", "daemon": "pluginmgr, id 80000"}
    path.write_text(svg([
        Plot("Queries per second, daemon and clients on one CPU", "clients",
             {names[key]: [(int(clients), figures["qps"])
                           for clients, figures in queries[key].items()] for key in names}),
        Plot("Memory of its own (private dirty, KB)", "plug-ins",
             {name: [(one["plugins"], one[key]["dirty_kb"]) for one in growth] for name, key in
              (("after an upgrade check", "connected"), ("before the first connection", "idle"))}),
    ]))


def print_table(rows):
    heads = ["figure", "pluginmgr", "peer", "ratio", "target", "met"]
    met = {True: "yes", False: "NO", None: ""}
    lines = [[r["figure"], r["ours"], r["peer"],
              "" if r["ratio"] is None else f"{r['ratio']:.2f}", r["target"] or "",
              met[r["met"]]] for r in rows]
    widths = [max(len(line[i]) for line in [heads] + lines) for i in range(len(heads))]
    for line in [heads, ["-" * width for width in widths]] + lines:
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())


def scratch_place():
    """Memory rather than a disk where there is room for the package and its copies."""
    shared = Path("/dev/shm")
    if os.access(shared, os.W_OK) and shutil.disk_usage(shared).free > 2 << 30:
        return shared
    return None


def write_package(path, size):
    block = os.urandom(MEGABYTE)
    with path.open("wb") as package:
        for _ in range(size // MEGABYTE):
            package.write(block)


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=ROOT / "build/release",
                        help="folder of a release build with PLUGINMGR_BENCH on")
    parser.add_argument("--quick", action="store_true", help="smaller and shorter, and noisier")
    parser.add_argument("--before", type=Path, metavar="FILE",
                        help="an older build of the daemon to count against")
    parser.add_argument("--only", metavar="WORD", default="",
                        help="only measurements with WORD in their name")
    parser.add_argument("--svg", type=Path, metavar="FILE", help="write the plots there")
    parser.add_argument("--json", type=Path, metavar="FILE", help="write the rows there as well")
    options = parser.parse_args()
    options.build = options.build.resolve()
    options.bench = options.build / "bench"
    options.size = (32 if options.quick else 256) * MEGABYTE
    options.rounds = 3 if options.quick else 5
    options.idle = 5 if options.quick else 10  # seconds, in each round
    options.queries = 10_000 if options.quick else 50_000
    options.plugins = (1, 20) if options.quick else (1, 5, 10, 15, 20)
    options.count_idle = 5 if options.quick else 10  # seconds
    options.count_queries = 200 if options.quick else 1000
    options.details, options.remarks, options.missing = {}, [], []
    if not any(options.only in name for name, _ in FIGURES):
        parser.error("the measurements are: " + ", ".join(name for name, _ in FIGURES))
    return options


def measure_all(options):
    rows = []
    with tempfile.TemporaryDirectory(prefix="bench-", dir=scratch_place()) as folder:
        scratch = Path(folder)
        write_package(scratch / "package", options.size)
        for name, measure in FIGURES:
            if options.only not in name:
                continue
            print(f"measuring: {name} ...", file=sys.stderr, flush=True)
            try:
                rows += measure(options, scratch)
            except (Missing, OSError, ValueError, subprocess.TimeoutExpired) as problem:
                options.missing.append(f"{name}: not measured, {problem}")
    return rows


def main():
    options = parse_options()
    described = conditions(options)
    rows = measure_all(options)
    print_table(rows)
    print(*described, sep="\n")
    print(f"medians of {options.rounds} alternating runs; load {os.getloadavg()[0]:.1f}")
    print("PSS falls as others on the machine use the same libraries; read it on a quiet one.")
    needed, empty = (needed_libraries(options.build / name)
                     for name in ("pluginmgr", "bench/empty_threads"))
    if needed != empty:
        options.remarks.append("the daemon and the empty program differ in libraries: "
                               + " ".join(sorted(needed ^ empty)))
    if options.svg and {"running", "growth"} <= options.details.keys():
        write_plot(options.svg, options.details)
    elif options.svg:
        options.missing.append(f"{options.svg}: not drawn, it takes the running daemon and its growth")
    print(*options.remarks, *options.missing, sep="\n", end="\n" if options.remarks + options.missing else "")
    if options.json:
        options.json.write_text(json.dumps(
            {"conditions": described, "rows": rows, "missing": options.missing, **options.details},
            indent=2) + "\n")
    return 1 if options.missing else 0


if __name__ == "__main__":
    sys.exit(main())
