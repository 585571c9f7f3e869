# SPDX-License-Identifier: Apache-2.0
"""The documents: what they tell people to type is typed here, what they name is there.

A block marked `sh` or `python`, and the examples of the manuals, are typed into `./dev lab`; a comment
"exit status N" allows that one. The lines of a block marked `text` have to come out, but for numbers and
gaps. A block marked `sh elsewhere` cannot run here, for the reason in ELSEWHERE."""
import json
import os
import pathlib
import re
import subprocess

import lab.shell

ROOT = pathlib.Path("/lab-src")
PAGES = {path: path.read_text() for path in (*sorted(ROOT.glob("*.md")), *sorted(ROOT.glob("docs/*.md")),
                                             ROOT / "lab/README.md")}
MANUALS = {name: (ROOT / "docs/man" / name).read_text().replace("\\e", "\\")
           for name in ("pluginmgr.ini.5", "pluginctl.1", "pluginmgr.8")}
SOURCES = [path.read_text() for path in ROOT.glob("src/*/*.cpp")]
DEVELOPER = ("./dev ", "cmake ", "python3 lab/")  # of the machine outside; test_names looks at these
ELSEWHERE = {"git clone": "no network", "cmake": "no SDK of a board", "mount": "no right to remount"}
FOLDERS = "bench|cmake|deps|docs|lab|packaging|src|tests|tools"
# What the board has and the lab's shell has not: the start script.
BOARD = """cd /root
mkdir -p /etc/init.d
echo secret >/run/password
labctl offer cloud_phone 1.0.1
printf '#!/bin/sh\\nLAB_DEVICE=1 PATH=/bin:/sbin exec sh %s "$@"\\n' \
    /lab-src/packaging/init/pluginmgr.sysv >/etc/init.d/pluginmgr
chmod +x /etc/init.d/pluginmgr
"""
# The exchanges of that page, but for those that restart the daemon.
PROTOCOL = PAGES[ROOT / "docs/control-protocol.md"]
REQUESTS = re.findall(r"^> (method=(?!.*id800(?:00|14)=).*)", PROTOCOL, re.M)
LITERALS = r'((?:"(?:[^"\\]|\\.)*"\s*)+)'
# What is logged at the levels error, 0 and 1: the text behind the line number.
CALLS = (r"\blog_(?:err\(|(?:msg|plain)\(LOG_\w+, [01],)(?:[^;]*?(?:__LINE__|getpid\(\)|\d\d),)?\s*"
         + LITERALS)
# Page, sources, and what in them has to be on it: methods, keys, ids; events, paths; files.
DOCUMENTED = (
    ("settings", "config/settings.cpp", r'\.key = "(\w+)"'),
    ("control-protocol", "control/*.cpp",
     r'(?:"&?(?=gw\.|\w+=")|== "|with\("|\{(?=80\d{3}, )|reply, "|\\"(?=\w+\\":))([\w.]+)'),
    ("control-protocol", "*/*.h", r"AGENT_\w+ = (0x\w+)"),
    ("cloud-api", "cloud/events.cpp", r'\.name = "(\w+)"'),
    ("cloud-api", "*/*.cpp", r'(?:"(?=/v1/)|[?&](?=\w+=%s))([\w/-]+)'),
    ("files", "*/*", r'"/(?:var|tmp|etc|dev|proc)/(?!null)[\w./-]*?([\w.-]+)/?"'),
)


def blocks(marking):
    return [(path.name, block) for path, text in PAGES.items()
            for block in re.findall(rf"^```{marking}\n(.*?)^```", text, re.M | re.S)]


def examples(name):
    return name, re.search(r"^\.Sh EXAMPLES\n\.Bd .*\n((?:.*\n)*?)\.Ed", MANUALS[name], re.M)[1]


def commands(texts):
    """(page, command, its comment) of blocks, continued lines joined."""
    for page, block in texts:
        for line in block.replace("\\\n", " ").splitlines():
            command, _, comment = line.partition(" # ")
            if command.strip() and not command.startswith(("#", *DEVELOPER)):
                yield page, command.strip(), comment


def shape(line):
    return re.sub(r"\d+", "0", " ".join(line.split()))


def test_commands():
    alone, *programs = sorted(blocks("python"))  # the lab's README has a device of its own
    subprocess.run(["/usr/bin/python3", "-c", alone[1]], timeout=60, check=True)
    typed = [*commands(blocks("sh")), *((page, f"python3 - <<'END'\n{text}END", "") for page, text in programs),
             *(("control-protocol.md", f"pluginctl raw '{one}'", "exit status 0 or 1") for one in REQUESTS),
             *commands(map(examples, ("pluginctl.1", "pluginmgr.8")))]
    script = BOARD + "".join(f"{command}\necho {number} $? >>/tmp/typed\n"
                             for number, (_, command, _) in enumerate(typed)) + "cat /tmp/typed >&2\n"
    done = subprocess.run(["/usr/bin/python3", "-m", "lab.shell"], input=script, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120)
    ended = dict(re.findall(r"^(\d+) (\d+)$", done.stderr, re.M))
    wrong = [(*one, ended.get(str(number))) for number, one in enumerate(typed) if ended.get(str(number))
             not in (re.findall(r"exit status (\d+)(?: or (\d+))?", one[2]) or [("0",)])[0]]
    shown = "\n".join(map(shape, (done.stdout + done.stderr).splitlines()))
    wrong += [line for _, block in blocks("text") for line in block.splitlines() if shape(line) not in shown]
    assert typed and not wrong, ("edit these pages: commands that end otherwise, lines that do not come out",
                                 wrong, done.stdout, done.stderr)
    for page, block in blocks("sh elsewhere"):
        assert block.startswith(tuple(ELSEWHERE)), f"edit {page}: why can this not run here? {block}"


def test_names():
    """Chores, presets, build values, verbs, options, links and files of the tree that the pages name."""
    chores = subprocess.check_output([ROOT / "dev", "help"], text=True) + "  help"
    presets = json.loads((ROOT / "CMakePresets.json").read_text())["configurePresets"]
    build = "".join(path.read_text() for path in (ROOT / "CMakeLists.txt", *ROOT.glob("cmake/*.cmake")))
    verbs = subprocess.check_output(["/lab-build/pluginctl", "--help"], text=True)
    tools = [path for part in ("dev", "bench/*.py", "lab/**/*.py", "tests/*.py") for path in ROOT.glob(part)]
    options = re.findall(r"--[a-z]+", "".join(path.read_text() for path in tools))
    modules = [".".join(path.relative_to(ROOT).with_suffix("").parts) for path in ROOT.glob("lab/**/*")]
    known = ((r"\./dev ([a-z]+)", re.findall(r"^  ([a-z]+)", chores, re.M)),
             (r"(?:--preset|\./dev build) (\w+)", [one["name"] for one in presets]),
             (r"\b((?:PLUGINMGR|SDK)_[A-Z_]+)\b", re.findall(r"\w+", build)),
             (r"(?:`|^)pluginctl ([a-z][a-z-]*)", re.findall(r"^  ([a-z-]+)", verbs, re.M)),
             (r"(?:`|^)labctl ([a-z]+)", [*lab.shell.commands(), "help"]),
             (r"^(?:\./dev|python3 lab)\b[^#\n]* (--[a-z]+)", options), (r"\b(lab\.[a-z][\w.]*\w)", modules))
    missing = [(str(path), name) for path, text in PAGES.items() for pattern, names in known
               for name in re.findall(pattern, text, re.M) if name not in names]
    anchors = {re.sub(r"[^\w -]", "", one.lower()).replace(" ", "-") for text in PAGES.values()
               for one in re.findall(r"^#+ (.*)", text, re.M)}
    for path, text in PAGES.items():
        named = [path.parent / link for link in re.findall(r"\]\(([^)#:]+)[)#]", text)] + [
            ROOT / name for name in re.findall(rf"`((?:{FOLDERS})/[\w./-]+)`", text)]
        missing += [(str(path), str(name)) for name in named if not os.path.exists(name)]
        missing += [(str(path), one) for one in re.findall(r"\(\S*?#([\w-]+)\)", text) if one not in anchors]
    assert not missing, "edit these pages: what they name is not there"


def test_manuals():
    settings, control, _ = MANUALS.values()
    summary = subprocess.check_output(["/lab-build/pluginctl", "--help"], text=True)
    for pattern, form in ((r"^  ((?:pbx )?[a-z][a-z-]+)", r"^\.It Cm {}\b"), (r"--([a-z]+)", r"^\.It .*Fl Fl {}\b"),
                          (r"\b(80\d+)", r"\b{}\b")):
        names = set(re.findall(pattern, summary, re.M))
        assert names and [one for one in names if not re.search(form.format(one), control, re.M)] == [], \
            "edit docs/man/pluginctl.1: pluginctl --help has these, too"
    items = {key: text for keys, text in re.findall(r"^\.It Ic (.*)\n((?:(?!\.It|\.El).*\n)*)", settings, re.M)
             for key in keys.split(" , ")}
    page = PAGES[ROOT / "docs/settings.md"].partition("## How values are taken")[0]
    rows = re.findall(r"^\| `(\w+)` \|([^|]*)\|([^|]*)\|", page, re.M)
    wrong = [(key, word) for key, *values in rows for word in re.findall(r"[\w./]+", " ".join(values))
             if word not in ("none", "at", "least") and word not in items.get(key, "")]
    assert {key for key, *_ in rows} == set(items), "edit docs/settings.md or docs/man/pluginmgr.ini.5: other keys"
    assert not wrong, "edit docs/man/pluginmgr.ini.5: docs/settings.md has these values"
    used = {key for _, block in (*blocks("ini"), examples("pluginmgr.ini.5"))
            for key in re.findall(r"^ *(\w+) *=", block, re.M)}
    assert used and used <= set(items), "edit the examples of docs/*.md and docs/man/pluginmgr.ini.5: no such key"


def test_documented():
    for page, files, pattern in DOCUMENTED:
        words = {word for path in (ROOT / "src").glob(files) for word in re.findall(pattern, path.read_text())}
        assert words and [word for word in words if word not in PAGES[ROOT / f"docs/{page}.md"]] == [], \
            f"edit docs/{page}.md: src/{files} has these, too"
    known = "".join((*SOURCES, (ROOT / "lab/platform/cloud.py").read_text()))
    assert {key for key in re.findall(r'"(\w+)\\?":', PROTOCOL) if f'"{key}' not in known} == set(), \
        "edit docs/control-protocol.md: no reply has these"


def test_floors():
    """The page's drawing holds: nobody includes a higher floor, and every folder has one."""
    floors = PAGES[ROOT / "docs/architecture.md"].split("```")[1].split("---\n")[::-1]
    level = {name: number for number, floor in enumerate(floors)
             for name in re.findall(r"^   (\w+)", floor, re.M)}
    sources = [*ROOT.glob("src/*/*.cpp"), *ROOT.glob("src/*/*.h")]
    assert set(level) == {path.parent.name for path in sources}, "edit docs/architecture.md: its floors"
    upward = [(str(path.relative_to(ROOT)), name) for path in sources
              for name in re.findall(r'#include "((?:%s)/.*)"' % "|".join(level), path.read_text())
              if level[name.partition("/")[0]] > level[path.parent.name]]
    assert not upward, "move what is shared to a lower floor, see CONTRIBUTING.md"


def skeleton(text):
    """The first line of a message or format, each value and each word in capitals as one sign."""
    return re.sub("(%[-.*0-9]*(ll|l|z)?[a-z]|[A-Z][A-Z0-9_-]*)+", "%", text.partition("\\n")[0].strip())


def test_log_messages():
    """Each message of the page is in the sources; each error and each line of level 0 or 1 is on it."""
    told = {skeleton(one) for one in re.findall(
        r"^\| `(.*?)` \|", PAGES[ROOT / "docs/log-messages.md"].replace("\\|", "|"), re.M)}
    there, wanted = ({skeleton("".join(re.findall(r'"((?:[^"\\]|\\.)*)"', one))) for text in SOURCES
                      for one in re.findall(pattern, text)} for pattern in (LITERALS, CALLS))
    assert told - there == set(), "edit docs/log-messages.md: no source has these"
    assert wanted - told - {"%"} == set(), "edit docs/log-messages.md: these are not told"
