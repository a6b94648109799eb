"""Figures and their table. A figure has a target, our value, the peer's value of the same run, and
whether the target is met."""

import dataclasses
import datetime
import json
import os
import platform
import re
import statistics

BEGIN = "<!-- figures: written by bench/run.sh --write -->"
END = "<!-- end of figures -->"

# Between runs of the same program, medians differ by less.
LEAST_CHANGE = 0.02


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
    # The ratio of each round, where rounds have one.
    rounds: list = dataclasses.field(default_factory=list)

    def is_broken(self):
        """Noise makes single rounds worse; a fault makes all of them worse."""
        ratios = self.rounds or [float(self.ratio or "inf")]
        return self.most is not None and min(ratios) > self.most


def table(figures):
    lines = ["| what | target | ahs | beside it, same run | ratio | met |", "|---|---|---|---|---|---|"]
    for figure in figures:
        met = {True: "yes", False: "**no**", None: ""}[figure.met]
        lines.append(f"| {figure.what} | {figure.target} | {figure.ours} | {figure.peer} "
                     f"| {figure.ratio} | {met} |")
    return "\n".join(lines)


def save(path, figures):
    """Keeps the ratios for a later run."""
    with open(path, "w", encoding="utf-8") as file:
        json.dump({figure.what: figure.rounds or [float(figure.ratio)]
                   for figure in figures if figure.rounds or figure.ratio}, file, indent=1)


def against(path, figures):
    """A table of our ratios beside those of an earlier run. They differ where no round of one lies among
    the rounds of the other, and their medians by over LEAST_CHANGE."""
    with open(path, encoding="utf-8") as file:
        earlier = json.load(file)
    lines = [f"| ratio | {os.path.basename(path)} | now | change |", "|---|---|---|---|"]
    for figure in figures:
        now = figure.rounds or [float(figure.ratio)] if figure.rounds or figure.ratio else []
        before = earlier.get(figure.what, [])
        if now and before:
            lines.append(f"| {figure.what} | {spread(before)} | {spread(now)} | {change(before, now)} |")
    return "\n".join(lines)


def spread(rounds):
    median = f"{statistics.median(rounds):.3f}"
    return median if len(rounds) == 1 else f"{median} ({min(rounds):.3f} to {max(rounds):.3f})"


def change(before, now):
    share = statistics.median(now) / statistics.median(before) - 1 if statistics.median(before) else 0
    if abs(share) <= LEAST_CHANGE or (min(now) <= max(before) and min(before) <= max(now)):
        return "none beyond noise"
    word = "**worse**" if share > 0 else "better"
    noise = "" if min(len(before), len(now)) > 1 else ", noise unknown"
    return f"{word}, {100 * share:+.0f} %{noise}"


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
