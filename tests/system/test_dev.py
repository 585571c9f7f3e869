# SPDX-License-Identifier: Apache-2.0
"""./dev on other machines: a copy of it among tools that only note what they are asked for."""
import importlib
import os
import re
import shutil
import subprocess

import pytest

FAKES, TREE, CALLS = "/tmp/fakes/", "/tmp/tree/", "/tmp/fakes/calls"
NOTE = f'#!/bin/sh\necho "${{0##*/}} $*" >>{CALLS}\n'
# A package is installed or offered when a file lists it.
TOOLS = {
    "dpkg-query": f'for last; do :; done\ngrep -qx "$last" {FAKES}installed && echo install ok installed\n',
    "apt-cache": f'for last; do :; done\ngrep -qx "$last" {FAKES}offered\n',
    "apt-get": NOTE + f'shift 4\ncase $4 in update) ;; *) printf "%s\\n" "$@" >>{FAKES}installed ;; esac\n',
    "cmake": NOTE,
    "cpack": NOTE + "exit 1\n",
    "strip": NOTE + "touch build/release/pluginmgr.stripped\n",
    **{f"clang++-{version}": "" for version in (14, 16, 17)},
}


def listed():
    """The packages of the list that have one version only."""
    with open("/lab-src/deps/debian.txt") as file:
        return [line.strip() for line in file if " " not in line.strip()]


def fuzz_packages(*versions):
    return [name for version in versions for name in (f"clang-{version}", f"libclang-rt-{version}-dev")]


def write(path, lines, mode=0o644):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as file:
        file.write("".join(line + "\n" for line in lines))
    os.chmod(path, mode)


@pytest.fixture
def machine():
    for folder in (FAKES, TREE):
        shutil.rmtree(folder, ignore_errors=True)
        os.makedirs(folder)
    for name in ("dev", "deps", "cmake", "CMakePresets.json"):
        copy = shutil.copytree if os.path.isdir("/lab-src/" + name) else shutil.copy
        copy("/lab-src/" + name, TREE + name)
    for name, script in TOOLS.items():
        write(FAKES + name, [script if script.startswith("#!") else "#!/bin/sh\n" + script], 0o755)
    write(FAKES + "installed", listed())
    write(FAKES + "offered", [])
    write(CALLS, [])
    yield dev
    for folder in (FAKES, TREE):
        shutil.rmtree(folder)


def dev(*words, before="true"):
    """Runs a chore, after a command in user name spaces of its own; its status, its words, the calls."""
    done = subprocess.run(["/usr/bin/unshare", "-Ur", "/bin/sh", "-c", before + '; exec ./dev "$@"', "dev", *words],
                          cwd=TREE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60,
                          env={"PATH": FAKES + ":/usr/bin:/bin", "SOURCE_DATE_EPOCH": "1"})
    with open(CALLS) as file:
        return done.returncode, done.stdout, file.read().splitlines()


@pytest.mark.parametrize("chore", ["demo", "lab", "test", "fuzz", "coverage", "bench", "torture", "check"])
def test_without_user_name_spaces(machine, chore):
    """Found out before anything is done, with what to do."""
    status, out, calls = machine(chore, before="echo 0 >/proc/sys/user/max_user_namespaces")
    assert status == 1 and "sysctl -w user.max_user_namespaces=" in out and calls == [], out


@pytest.mark.parametrize("there, offered, compiler, got", [
    ([14], [19], 14, []), ([14, 16], [], 16, []), ([], [14, 16], 16, [16]), ([], [], None, [])])
def test_compiler_of_the_fuzz_targets(machine, there, offered, compiler, got):
    """The newest that is there, else the newest to be had; 17 lacks its runtime."""
    write(FAKES + "installed", [*listed(), *fuzz_packages(*there), "clang-17"])
    write(FAKES + "offered", [*fuzz_packages(*offered), "clang-17"])
    status, out, calls = machine("build", "fuzz")
    installs = [call.split("--no-install-recommends ")[1].split() for call in calls if " install " in call]
    assert sum(installs, []) == fuzz_packages(*got)
    assert status == (0 if compiler else 77), out
    assert any(f"-DCMAKE_CXX_COMPILER={FAKES}clang++-{compiler}" in call.split() for call in calls) == bool(compiler)


def test_missing_packages_are_named(machine):
    write(FAKES + "installed", [name for name in listed() if name != "bubblewrap"])
    status, out, calls = machine("build")
    assert status == 1 and "apt has none of: bubblewrap" in out and not any("cmake" in call for call in calls)


@pytest.mark.parametrize("home, compiler, kept", [(TREE, "g++", True), ("/tmp/elsewhere", "g++", False),
                                                  ("/lab-src", "g++", False)])
def test_build_folder_of_another_tree(machine, home, compiler, kept):
    write(TREE + "build/release/CMakeCache.txt", [
        "CMAKE_HOME_DIRECTORY:INTERNAL=" + home.rstrip("/"), "CMAKE_CXX_COMPILER:FILEPATH=" + compiler])
    write(TREE + "build/release/pluginmgr", [])
    machine("build")
    assert os.path.exists(TREE + "build/release/pluginmgr") == kept


def test_package_of_a_deployment(machine):
    """Its values reach the build and do not outlive it; each phase is told."""
    cache = TREE + "build/package-amd64/CMakeCache.txt"
    write(cache, ["CMAKE_HOME_DIRECTORY:INTERNAL=" + TREE, "PLUGINMGR_API_SERVER:STRING=of.the.last"])
    _status, out, calls = machine("package", "-DPLUGINMGR_API_SERVER=a.example", "-DPLUGINMGR_API_SIGN_KEY=x y")
    configuring, building, packing = calls
    assert configuring.endswith("-DPLUGINMGR_API_SERVER=a.example -DPLUGINMGR_API_SIGN_KEY=x y")
    assert not os.path.exists(cache) and "--build" in building and packing.startswith("cpack")
    assert out.startswith("configuring build/package-amd64\nbuilding build/package-amd64\npacking "), out


@pytest.mark.parametrize("options, warned", [
    ([], {"API_SIGN_KEY", "UPGRADE_SIGN_KEY", "DEVICE_CODE_KEY", "DEVICE_CODE_SALT", "OAUTH_CLIENT"}),
    (["UPGRADE_SIGN_KEY=mine", "API_SIGN_KEY=mine", "API_SERVER=mine", "OAUTH_CLIENT=a:b"],
     {"DEVICE_CODE_KEY", "DEVICE_CODE_SALT"}), (["LAB=ON"], set())])
def test_public_keys(machine, options, warned):
    """A build without the lab warns of each secret that everybody knows, and of no other value."""
    done = subprocess.run(["/usr/bin/cmake", *("-DPLUGINMGR_" + one for one in options), "-P", "cmake/deployment.cmake"],
                          cwd=TREE, stderr=subprocess.PIPE, text=True, check=True)
    assert ("PUBLIC KEYS" in done.stderr) == bool(warned)
    assert set(re.findall(r"-DPLUGINMGR_(\w+)=VALUE", done.stderr)) == warned


def test_runner(machine, monkeypatch):
    """Skips are counted apart, and a file is found by its name."""
    monkeypatch.syspath_prepend("/lab-src/tests")
    runner = importlib.import_module("run")
    cases = ["", "", "<skipped/>", "<failure/>", "<error/>", "<skipped/>"]
    write(TREE + "results.xml", ["<s>", *(f"<testcase>{case}</testcase>" for case in cases), "</s>"])
    assert runner.counts(runner.pathlib.Path(TREE + "results.xml")) == (2, 2, 2)
    path = runner.SYSTEM / "test_boot.py"
    assert {runner.test_file(name) for name in ("test_boot", "test_boot.py", "tests/system/test_boot.py")} == {path}
    lacking = runner.build_job("fuzz", runner.fuzz_job("ini"), runner.fuzz_job("url"))
    lacking.command = ["/bin/sh", "-c", f"exit {runner.SKIPPED}"]
    assert [(job, result.skipped, result.failed) for job, result in runner.run_all([lacking])] == [(lacking, 2, 0)]
