#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures the daemon against its peers and prints one table of ratios.

Every pair is measured in this run, alternating, and the medians are compared, so that what the
machine does meanwhile hits both. Targets are printed, never enforced: the exit status only tells
whether everything could be measured. The running daemon is measured in the lab's sandbox
(inside.py); digests and downloads, which need no device, outside it.
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

ROOT = Path(__file__).resolve().parent.parent
MEGABYTE = 1 << 20
NGINX = "/usr/sbin/nginx"
SANDBOX_SECONDS = 200

# What the daemon's loops wake up for: the main thread's sleep each second, the upgrade thread's
# each 100 ms, and the control thread's select and sleep of 100 ms each. The half is for the duties
# that come once in 30 seconds.
DOCUMENTED_TICKS = 1 + 10 + 10
TICKS_LIMIT = DOCUMENTED_TICKS + 0.5

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


def size_rows(options, scratch):
    stripped = scratch / "stripped"
    seconds_of("strip", "-o", stripped, options.build / "pluginmgr")
    size = stripped.stat().st_size
    return [row("stripped size", f"{size / 1000:.0f} KB", "", None, "< 250 KB", size < 250_000)]


def measure_inside(options):
    """Runs inside.py in the sandbox; its last line of output is the result."""
    sandbox = ROOT / "lab" / "sandbox.py"
    if not sandbox.exists():
        raise Missing("there is no lab/sandbox.py")
    command = [sys.executable, sandbox, "--build", options.build, "--", "/usr/bin/python3",
               "/lab-src/bench/inside.py", "--rounds", options.rounds, "--idle", options.idle,
               "--queries", options.queries]
    done = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=SANDBOX_SECONDS)
    lines = done.stdout.strip().splitlines()
    if done.returncode != 0 or not lines:
        raise Missing(f"the sandbox ended with {done.returncode}: {done.stderr.strip()[-400:]}")
    return json.loads(lines[-1])


def query_rows(result):
    ours, echo = result["daemon_queries"], result["echo_queries"]
    ratio = ours["qps"] / echo["qps"]
    rows = [row("id 80000, queries/s on one CPU", f"{ours['qps']:.0f}",
                f"UDP echo {echo['qps']:.0f}", ratio, ">= 0.5", ratio >= 0.5)]
    for key in ("p50_us", "p99_us"):
        rows.append(row(f"id 80000, latency {key[:3]}", f"{ours[key]:.1f} us",
                        f"UDP echo {echo[key]:.1f} us", ours[key] / echo[key]))
    return rows


def idle_rows(result):
    ours, empty, tls = result["daemon_idle"], result["empty_idle"], result["tls_idle"]
    rows = []
    for key, peer, figures, limit in (("pss_kb", "empty", empty, 1.15),
                                      ("pss_kb", "with TLS set up", tls, None),
                                      ("rss_kb", "empty", empty, None),
                                      ("rss_kb", "with TLS set up", tls, None)):
        ratio = ours[key] / figures[key]
        rows.append(row(f"idle {key[:3].upper()}", f"{ours[key]:.0f} KB",
                        f"{peer} {figures[key]:.0f} KB", ratio,
                        limit and f"<= {limit}", limit and ratio <= limit))
    wakes, milliseconds = ours["wakes_per_second"], ours["cpu_ms_per_minute"]
    rows += [
        row("idle threads", f"{ours['threads']}", f"empty {empty['threads']:.0f}",
            ours["threads"] / empty["threads"]),
        row("idle wake-ups/s", f"{wakes:.1f}", f"its ticks {DOCUMENTED_TICKS}",
            wakes / DOCUMENTED_TICKS, f"<= {TICKS_LIMIT}", wakes <= TICKS_LIMIT),
        row("idle CPU a minute", f"{milliseconds:.1f} ms",
            f"empty {empty['cpu_ms_per_minute']:.1f} ms", None, "< 60 ms", milliseconds < 60),
    ]
    return rows


def running_rows(options, _scratch):
    for program in ("pluginmgr", "bench/empty_threads"):
        if not (options.build / program).exists():
            raise Missing(f"{program} has not been built")
    result = measure_inside(options)
    options.details["running"] = result
    return query_rows(result) + idle_rows(result)


FIGURES = [("queries and idle daemon", running_rows), ("package signature", digest_rows),
           ("HTTPS download", download_rows), ("stripped size", size_rows)]


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
    parser.add_argument("--json", type=Path, metavar="FILE", help="write the rows there as well")
    options = parser.parse_args()
    options.build = options.build.resolve()
    options.bench = options.build / "bench"
    options.size = (32 if options.quick else 256) * MEGABYTE
    options.rounds = 3 if options.quick else 5
    options.idle = 10 if options.quick else 60  # seconds
    options.queries = 10_000 if options.quick else 50_000
    options.details = {}
    return options


def main():
    options = parse_options()
    rows, missing = [], []
    with tempfile.TemporaryDirectory(prefix="bench-", dir=scratch_place()) as folder:
        scratch = Path(folder)
        write_package(scratch / "package", options.size)
        for name, measure in FIGURES:
            print(f"measuring: {name} ...", file=sys.stderr, flush=True)
            try:
                rows += measure(options, scratch)
            except (Missing, OSError, ValueError, subprocess.TimeoutExpired) as problem:
                missing.append(f"{name}: not measured, {problem}")
    print_table(rows)
    print(f"medians of {options.rounds} alternating runs; {os.cpu_count()} processors; "
          f"load {os.getloadavg()[0]:.1f}")
    print("PSS falls as others on the machine use the same libraries; read it on a quiet one.")
    for line in missing:
        print(line)
    daemon, empty = (needed_libraries(options.build / name)
                     for name in ("pluginmgr", "bench/empty_threads"))
    if daemon and empty and daemon != empty:
        print("the daemon and the empty program differ in libraries:", *sorted(daemon ^ empty))
    if options.json:
        options.json.write_text(json.dumps(
            {"rows": rows, "missing": missing, **options.details}, indent=2) + "\n")
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
