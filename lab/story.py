# SPDX-License-Identifier: Apache-2.0
"""Tells what happens on a device to a person: chapters, a line for each thing observed, and the
output of commands, live where standard output is a terminal and as plain lines elsewhere."""
import codecs
import fcntl
import os
import pty
import re
import shutil
import struct
import subprocess
import sys
import termios
import textwrap
import threading
import time

CLAIM_CELLS = 27
PATIENCE = 15           # seconds, for one observation
SHORT_PATIENCE = 3      # once something is missing in the chapter
PAUSE = 0.05
COMMAND_LIMIT = 90      # seconds
MARGIN, QUOTE = "    ", "      "
STYLES = {"bold": "1", "dim": "2", "good": "32", "bad": "1;31", "command": "36"}
FRAME = re.compile(r"(?P<state>.*?)  (?:\[[#.]+\] +(?P<percent>\d+) %.*|[|/\\-])$")
# What a look at something that is not there yet, or not as it should be, comes to.
ERRORS = (AssertionError, AttributeError, LookupError, OSError, RuntimeError, StopIteration,
          TypeError, ValueError)
BREAKS = re.compile(r"(\r\x1b\[K|\r?\n)")      # a line drawn anew, a line ended
COLOUR = re.compile(r"\x1b\[[0-9;]*m")
HALF_BREAK = re.compile(r"\r(?:\x1b\[?)?\Z")    # the rest of it comes with the next read


class Page:
    """Standard output, with or without a terminal's abilities."""

    def __init__(self):
        self.live = sys.stdout.isatty() and os.environ.get("TERM") != "dumb"
        self.colours = self.live and "NO_COLOR" not in os.environ
        self.width = min(shutil.get_terminal_size((100, 24)).columns, 110)

    def styled(self, style, text):
        return f"\x1b[{STYLES[style]}m{text}\x1b[0m" if self.colours else text

    def write(self, text):
        sys.stdout.write(text)
        sys.stdout.flush()

    def pending(self, text):
        """What is waited for, to be replaced by the next line."""
        if self.live:
            self.write("\r\x1b[K" + self.styled("dim", (MARGIN + "· " + text)[:self.width - 1]))

    def line(self, text=""):
        self.write(("\r\x1b[K" if self.live else "") + text + "\n")

    def fact(self, style, sign, claim, seen):
        head = f"{claim:{CLAIM_CELLS}}  "
        room = max(self.width - len(MARGIN) - 2 - len(head), 30)
        first, *more = textwrap.wrap(seen, room) or [""]
        self.line(MARGIN + self.styled(style, sign) + " " + head + self.styled("dim", first))
        for part in more:
            self.line(" " * (len(MARGIN) + 2 + CLAIM_CELLS + 2) + self.styled("dim", part))


class Quotation:
    """A command's terminal output on the page, indented. Without a terminal a line that the
    command draws again and again is shown once for each state and quarter of its bar."""

    def __init__(self, page):
        self.page, self.text, self.percents = page, "", []
        self._rest, self._fresh, self._redrawn, self._shown = "", True, False, set()

    def feed(self, text):
        text = self._rest + text
        half = HALF_BREAK.search(text)
        self._rest = half[0] if half else ""
        for piece in BREAKS.split(text[:len(text) - len(self._rest)]):
            if piece.startswith("\r\x1b") or piece.endswith("\n"):
                self._break(piece.startswith("\r\x1b"))
            elif piece:
                self._show(piece)

    def _break(self, redraw):
        self._fresh, self._redrawn = True, redraw
        self.text += "" if redraw else "\n"
        if self.page.live or not redraw:
            self.page.write("\r\x1b[K" if redraw else "\n")

    def _show(self, piece):
        frame = self._redrawn and FRAME.fullmatch(piece)
        if frame and frame["percent"]:
            self.percents.append(int(frame["percent"]))
        if frame and not self.page.live:
            return self._show_once(frame)
        self.text += "" if frame else piece
        shown = piece if self.page.live else COLOUR.sub("", piece)
        self.page.write((QUOTE if self._fresh else "") + shown)
        self._fresh = False

    def _show_once(self, frame):
        """A quarter of the bar that is new, or a state that was not shown yet."""
        state, percent = frame["state"], frame["percent"]
        moment = (state, int(percent) // 25) if percent else (state,)
        if moment not in self._shown:
            self.page.line(QUOTE + (frame[0] if percent else state))
        self._shown |= {moment, (state,)}


class Story:
    """Counts what is observed. `see` is all a chapter needs; `run` shows it a command."""

    def __init__(self, look):
        self.page, self.observed, self.missing = Page(), 0, []
        self._look, self._patience, self._number = look, PATIENCE, 0

    def chapter(self, title, tell, *arguments):
        """Tells a chapter; an error in it is one more thing that did not happen."""
        self._number, self._patience = self._number + 1, PATIENCE
        self.page.line()
        self.page.line(self.page.styled("bold", f"{self._number:2}  {title}"))
        try:
            tell(*arguments)
        except ERRORS as error:
            self._miss("the chapter to its end", f"{type(error).__name__}: {error}")

    def see(self, claim, probe, wanted=bool, show=str, timeout=None):
        """Asks probe() until its value is as wanted (equal to it, or accepted by it if callable)
        and shows that value. True when it came to be in time."""
        self.page.pending(claim)
        accepts = wanted if callable(wanted) else lambda value: value == wanted
        deadline = time.monotonic() + (timeout or self._patience)
        while True:
            value, fits = _attempt(probe, accepts)
            if fits:
                self.observed += 1
                self.page.fact("good", "✓", claim, show(value))
                return True
            if time.monotonic() > deadline:
                expected = "" if callable(wanted) else f"expected {wanted!r}, "
                self._miss(claim, f"{expected}seen {value!r}")
                return False
            time.sleep(PAUSE)

    def _miss(self, claim, seen):
        self.page.fact("bad", "✗", claim, seen)
        if self._patience == PATIENCE:  # the first one of the chapter
            self.page.fact("bad", " ", "", f"look at {self._look}")
        self.missing.append((self._number, claim))
        self._patience = SHORT_PATIENCE

    def say(self, text):
        for line in textwrap.wrap(text, self.page.width - len(MARGIN)):
            self.page.line(MARGIN + line)

    def run(self, program, *words):
        """Runs a program on a terminal of its own: (exit status, text, percents of its bar)."""
        self.page.line(MARGIN + self.page.styled(
            "command", " ".join(("$", os.path.basename(program)) + words)))
        quotation, decoder = Quotation(self.page), codecs.getincrementaldecoder("utf-8")("replace")
        ours, its = pty.openpty()
        size = struct.pack("4H", 24, self.page.width - len(QUOTE), 0, 0)
        fcntl.ioctl(its, termios.TIOCSWINSZ, size)
        with subprocess.Popen([program, *words], stdin=subprocess.DEVNULL, stdout=its, stderr=its,
                              start_new_session=True) as child:
            os.close(its)
            limit = threading.Timer(COMMAND_LIMIT, child.kill)
            limit.start()
            while data := _read(ours):
                quotation.feed(decoder.decode(data))
            limit.cancel()
        os.close(ours)
        return child.returncode, quotation.text, quotation.percents

    def end(self, seconds):
        """The summary; the exit status."""
        total = self.observed + len(self.missing)
        self.page.line()
        self.page.line(self.page.styled(
            "bad" if self.missing else "good",
            f"{MARGIN}{self.observed} of {total} observed") + f", {seconds:.0f} s")
        for number, claim in self.missing:
            self.page.line(f"{MARGIN}did not happen: chapter {number}, {claim}")
        return 1 if self.missing else 0


def _attempt(probe, accepts):
    """(value, whether it is accepted); an error is a value that is not."""
    try:
        value = probe()
        return value, accepts(value)
    except ERRORS as error:
        return error, False


def _read(terminal):
    try:
        return os.read(terminal, 65536)
    except OSError:
        return b""  # the last one at the other end has left
