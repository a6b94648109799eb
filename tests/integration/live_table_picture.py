#!/usr/bin/env python3
"""The live table as a person sees it: `ahs select` runs in a pseudo-terminal among simulated gateways,
what it writes is put on a screen, and one moment of it becomes a picture (docs/live-table.svg). The test
compares that picture with a new one: the same command, headings and headends; the numbers are the machine's.
Ends with 77, skipped, where no network of its own can be made.

Usage: live_table_picture.py BINARIES PICTURE [--write]
"""

import fcntl
import json
import os
import pty
import re
import struct
import sys
import tempfile
import termios
from xml.sax.saxutils import escape

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import wan_scene  # noqa: E402  (it lies beside the tests' other helpers)

COLUMNS, ROWS = 88, 24
COMMAND = "ahs select"
ATTEMPTS = 4


class Screen:
    """The part of a terminal that the table needs. Anything else is an error: it would be a smear on a
    real one."""

    TOKEN = re.compile(r"\x1b\[(\d*)([A-Za-z])|(\r)|(\n)|([^\x00-\x1f\x7f])")

    def __init__(self):
        self.lines = [[]]
        self.row = self.column = 0

    def write(self, text):
        """Takes whole sequences and returns what is left of an unfinished one at the end."""
        at = 0
        while at < len(text):
            token = self.TOKEN.match(text, at)
            if not token:
                rest = text[at:]
                if re.fullmatch(r"\x1b(\[\d*)?", rest):
                    return rest
                raise ValueError(f"the table wrote {rest[:10]!r}")
            at = token.end()
            self.obey(*token.groups())
        return ""

    def obey(self, number, letter, carriage_return, line_feed, character):
        if carriage_return:
            self.column = 0
        elif line_feed:
            self.row += 1
            while len(self.lines) <= self.row:
                self.lines.append([])
        elif character:
            line = self.lines[self.row]
            line += " " * (self.column + 1 - len(line))
            line[self.column] = character
            self.column += 1
            if self.column > COLUMNS:
                raise ValueError("a line is wider than the terminal")
        elif letter == "A":
            self.row = max(0, self.row - int(number or 1))
        elif letter in "KJ":
            del self.lines[self.row][self.column:]
            if letter == "J":
                del self.lines[self.row + 1:]
        else:
            raise ValueError(f"the table wrote the sequence {letter!r}")

    def text(self):
        return ["".join(line).rstrip() for line in self.lines]


def select(binaries, scratch):
    """Runs the command on a terminal of its own and returns the screen's moments."""
    command = wan_scene.select_command(binaries, scratch)
    child, terminal = pty.fork()
    if child == 0:
        fcntl.ioctl(2, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
        output = os.open(os.path.join(scratch, "result"), os.O_WRONLY | os.O_CREAT, 0o600)
        os.dup2(output, 1)
        os.execve(command[0], command, {**os.environ, "TERM": "xterm", "LC_ALL": "C.UTF-8"})
    screen, rest, raw, moments = Screen(), "", b"", []
    while True:
        try:
            raw += os.read(terminal, 65536)
        except OSError:  # the other side is closed
            break
        if not raw:
            break
        # A drawing is written with one call, and begins at the left.
        text = raw.decode("utf-8", "ignore")
        raw = raw[len(text.encode()):]
        rest = screen.write(rest + text)
        moments.append(screen.text())
    _, status = os.waitpid(child, 0)
    return {"moments": moments, "status": os.waitstatus_to_exitcode(status), "left": screen.text()}


def run_in_wan(binaries, scratch):
    status = wan_scene.run(binaries, scratch,
                           [sys.executable, os.path.abspath(__file__), "--within", binaries, scratch])
    if status == wan_scene.SKIPPED:
        wan_scene.skip("no network of its own can be made here")
    if status != 0:
        sys.exit(f"FAILED: ahs-wan ended with status {status}")
    with open(os.path.join(scratch, "moments"), encoding="utf-8") as file:
        return json.load(file)


def is_the_moment(moment):
    """The gateway that is furthest away has answered, but not often enough."""
    row = next((line for line in moment if f" {wan_scene.FURTHEST} " in line), "")
    return bool(re.search(r" ms  \d+ .*waits for answer 2 of 3$", row))


def picture(moment):
    """Each piece of text has a place and a length of its own, so that columns are straight in every font."""
    step, height, left, top = 8.4, 18, 20, 32
    lines = ["$ " + COMMAND] + moment
    width, tall = int(COLUMNS * step + 2 * left), len(lines) * height + 36
    svg = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{tall}" viewBox="0 0 {width} {tall}" '
           'role="img" aria-label="The table while headends are measured">',
           "<style>text{font:14px ui-monospace,'DejaVu Sans Mono',Menlo,Consolas,monospace;fill:#d8dee9;"
           "white-space:pre}</style>",
           '<rect width="100%" height="100%" rx="8" fill="#1c2128"/>']
    for row, line in enumerate(lines):
        for word in re.finditer(r"\S+(?: \S+)*", line):
            x, said = left + word.start() * step, word.group()
            svg.append(f'<text x="{x:.1f}" y="{top + row * height}" textLength="{len(said) * step:.1f}" '
                       f'xml:space="preserve">{escape(said)}</text>')
    return "\n".join(svg) + "\n</svg>\n"


def structure(svg):
    """What does not depend on the machine: the first words of each line, without numbers."""
    lines = {}
    for y, said in re.findall(r'<text[^>]* y="(\d+)"[^>]*>([^<]*)</text>', svg):
        lines.setdefault(int(y), []).append(said)
    names = [address for _, address, _, _ in wan_scene.GATEWAYS]
    result = []
    for _, words in sorted(lines.items()):
        result.append(words[:2] if words[0] in names else [re.sub(r"[\d.]+", "0", " ".join(words))])
    return result


def check(result):
    """What holds whatever the machine is like."""
    if result["status"] != 0:
        sys.exit(f"FAILED: the command ended with status {result['status']}")
    if any(result["left"]):
        sys.exit(f"FAILED: the table leaves something behind: {result['left']}")


def main():
    if sys.argv[1] == "--within":
        binaries, scratch = sys.argv[2:4]
        with open(os.path.join(scratch, "moments"), "w", encoding="utf-8") as file:
            json.dump(select(binaries, scratch), file)
        return
    binaries, path = sys.argv[1:3]
    wanted = None
    if "--write" not in sys.argv:
        with open(path, encoding="utf-8") as file:
            wanted = structure(file.read())
    drawn = None
    # The moment lasts as long as the furthest round trip. A machine that is too busy to draw in it, or to
    # measure the others before, tries again.
    for _ in range(ATTEMPTS):
        with tempfile.TemporaryDirectory() as scratch:
            result = run_in_wan(os.path.abspath(binaries), scratch)
        check(result)
        moment = next((one for one in result["moments"] if is_the_moment(one)), None)
        drawn = picture(moment) if moment else drawn
        if drawn and wanted in (None, structure(drawn)):
            break
    else:
        found = structure(drawn) if drawn else "nothing like it"
        sys.exit(f"FAILED: {path} shows\n{wanted}\nand the command\n{found}\n"
                 "If that is as it should be, make the picture anew: docs/testing.md tells how.")
    if wanted is None:
        with open(path, "w", encoding="utf-8") as file:
            file.write(drawn)
    print("\n".join(moment))


if __name__ == "__main__":
    main()
