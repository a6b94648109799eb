"""Figures and their table. A figure has a target, our value, the peer's value of the same run, and
whether the target is met."""

import dataclasses
import datetime
import os
import platform
import re

BEGIN = "<!-- figures: written by bench/run.sh --write -->"
END = "<!-- end of figures -->"


@dataclasses.dataclass
class Figure:
    what: str
    target: str
    ours: str
    peer: str
    # Our figure as a multiple of the peer's, or of the limit; "" if neither exists.
    ratio: str
    # None if there is no target.
    met: bool | None
    # A ratio above this is a fault on any machine, even a busy one; None if there is no such bound.
    most: float | None = None

    def is_broken(self):
        return self.most is not None and not (self.ratio and float(self.ratio) <= self.most)


def table(figures):
    lines = ["| what | target | ahs | beside it, same run | ratio | met |", "|---|---|---|---|---|---|"]
    for figure in figures:
        met = {True: "yes", False: "**no**", None: ""}[figure.met]
        lines.append(f"| {figure.what} | {figure.target} | {figure.ours} | {figure.peer} "
                     f"| {figure.ratio} | {met} |")
    return "\n".join(lines)


def first_match(pattern, path):
    try:
        with open(path, encoding="utf-8") as file:
            found = re.search(pattern, file.read(), re.MULTILINE)
        return found[1].strip() if found else "unknown"
    except OSError:
        return "unknown"


def machine(load):
    """One sentence about the machine of the figures."""
    processor = first_match(r"^model name\s*:(.*)$", "/proc/cpuinfo")
    system = first_match(r'^PRETTY_NAME="(.*)"$', "/etc/os-release")
    return (f"{len(os.sched_getaffinity(0))} cores ({processor}), {system}, Linux {platform.release()}; "
            f"load before the run {load:.2f}; {datetime.date.today()}.")


def write(path, text):
    """Puts the text between the marks of a document."""
    with open(path, encoding="utf-8") as file:
        document = file.read()
    before, begin, rest = document.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not begin or not end:
        raise RuntimeError(f"{path} has no marks for the figures")
    with open(path, "w", encoding="utf-8") as file:
        file.write(f"{before}{BEGIN}\n\n{text}\n\n{END}{after}")
