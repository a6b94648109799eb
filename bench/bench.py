#!/usr/bin/env python3
"""Measures what docs/benchmarks.md describes. Prints one table with our figures, targets and peers, all
of the same run.

Ctrl-C ends it and all its processes.
"""

import argparse
import dataclasses
import os
import signal
import sys
import tempfile
import time

import cache
import choice
import cost
import decision
import figures
import growth
import lies
import speed
import truth
import world

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

ROWS = {
    "time": (speed.time_to_result, "time to result against the physical limit"),
    "secure": (speed.secure, "the same over TLS, connections reused"),
    "error": (truth.idle, "error of the metric, idle"),
    "busy": (truth.busy, "error of the metric on a busy machine"),
    "jitter": (truth.jitter, "error with jitter and loss"),
    "winner": (choice.winner, "how often the right gateway wins"),
    "lies": (lies.lies, "how often the nearest gateway wins in networks that lie"),
    "decision": (decision.decision, "when a selection is decided beside a silent headend"),
    "processor": (cost.processor, "processor time beside curl's"),
    "memory": (cost.memory, "memory beside curl's"),
    "growth": (cost.growth, "cost as headends grow; draws the picture"),
    "cache": (cache.hit, "a selection that the cache answers"),
}


# Rows with a ratio that must hold on any machine.
CHECKED = ("time", "secure", "error", "busy", "jitter", "lies", "decision",
           "processor", "memory")


@dataclasses.dataclass
class Sizes:
    """How much to measure. The defaults are for real figures; a smoke test only runs every line."""

    # Numbers of gateways; the rows of error, processor time and memory use the last.
    counts: tuple = (10, 100, 1000)
    growth: tuple = (10, 100, 300, 1000, 2000, 3000)
    secure: int = 100
    busy: int = 100
    jitter: int = 100
    cached: int = 1000
    # Repetitions.
    rounds: int = 5
    jitter_rounds: int = 7
    scenes: int = 10
    trials: int = 20
    lie_trials: int = 200
    silent: int = 20
    cache_runs: int = 1000
    loops: int = 8
    # Factor for all distances.
    scale: float = 1

    @staticmethod
    def smoke():
        return Sizes(counts=(2, 3, 4), growth=(2, 3, 4), secure=2, busy=2, jitter=3, cached=5, rounds=1,
                     jitter_rounds=1, scenes=1, trials=1, lie_trials=1, silent=1, cache_runs=3, loops=1, scale=0.1)

    @staticmethod
    def check():
        return Sizes(rounds=2, jitter_rounds=3, lie_trials=20, silent=3)


@dataclasses.dataclass
class Bench:
    """Data shared by the rows."""

    world: world.World
    sizes: Sizes
    growth: growth.Growth
    seed: int
    picture: str
    # Notes to print below the table.
    notes: list = dataclasses.field(default_factory=list)


def parse():
    rows = "\n".join(f"  {name:10} {text}" for name, (_, text) in ROWS.items())
    parser = argparse.ArgumentParser(prog="run.sh", description="Measures, side by side with named peers.",
                                     epilog=f"rows:\n{rows}",
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", help="directory of a release build")
    parser.add_argument("rows", nargs="*", metavar="ROW", help="rows to measure (all)")
    parser.add_argument("--write", action="store_true",
                        help="put the figures into docs/benchmarks.md and the picture beside it; all rows")
    parser.add_argument("--seed", type=int, default=1, help="of jitter and loss (%(default)s)")
    parser.add_argument("--check", action="store_true",
                        help="fewer rounds; fail if a ratio is far from its target")
    parser.add_argument("--save", metavar="FILE", help="keep the ratios in FILE")
    parser.add_argument("--against", metavar="FILE", help="compare with the ratios of an earlier run's --save")
    parser.add_argument("--smoke", action="store_true", help="tiny numbers, to see that everything runs")
    arguments = parser.parse_intermixed_args()
    unknown = [row for row in arguments.rows if row not in ROWS]
    if unknown:
        parser.error(f"there is no row {unknown[0]!r}")
    if arguments.write and (arguments.rows or arguments.smoke or arguments.check):
        parser.error("--write takes all rows")
    if not os.access(os.path.join(arguments.build, "bin", "bench-measure"), os.X_OK):
        parser.error(f"{arguments.build} has not been built")
    return arguments


def text_below(bench):
    """The network's accuracy, and the notes of the rows."""
    carried = sum(packets for packets, _, _ in bench.world.lateness)
    notes = list(bench.notes)
    if carried:
        mean = sum(packets * late for packets, late, _ in bench.world.lateness) / carried
        worst = max(late for _, _, late in bench.world.lateness)
        notes.append(f"The network carried {carried:,} packets, {mean:.0f} us late in the mean, "
                     f"{worst / 1000:.1f} ms at worst.")
    return "\n\n".join(notes)


def measure(arguments, scratch, load):
    sizes = Sizes.smoke() if arguments.smoke else Sizes.check() if arguments.check else Sizes()
    the_world = world.World(os.path.abspath(arguments.build), scratch)
    picture = os.path.join(ROOT, "docs", "growth.svg") if arguments.write \
        else os.path.join(scratch if arguments.smoke else arguments.build, "growth.svg")
    bench = Bench(the_world, sizes, growth.Growth(the_world, sizes), arguments.seed, picture)
    found = []
    for name in arguments.rows or (CHECKED if arguments.check else ROWS):
        start = time.monotonic()
        print(f"{name}...", end="", file=sys.stderr, flush=True)
        found += ROWS[name][0](bench)
        print(f" {time.monotonic() - start:.0f} s", file=sys.stderr, flush=True)
    text = "\n\n".join(part for part in (
        f"{figures.machine(load)} Seed {arguments.seed}.", figures.table(found), text_below(bench)) if part)
    print(text)
    if arguments.write:
        figures.write(os.path.join(ROOT, "docs", "benchmarks.md"), text)
    if arguments.against:
        print(f"\n{figures.against(arguments.against, found)}")
    if arguments.save:
        figures.save(arguments.save, found)
    broken = [figure for figure in found if figure.is_broken()] if arguments.check else []
    for figure in broken:
        print(f"FAILED: {figure.what}: ratio {figure.ratio or 'unknown'}, at most {figure.most:g}", file=sys.stderr)
    return 1 if broken else 0


def end(number, _):
    sys.exit(128 + number)


def main():
    arguments = parse()
    load = os.getloadavg()[0]
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, end)
    # Processes end in the block that started them, however this ends.
    with tempfile.TemporaryDirectory(prefix="ahs-bench-") as scratch:
        try:
            return measure(arguments, scratch, load)
        except world.NotPermitted as reason:
            print(f"skipped: {reason}", file=sys.stderr)
            return world.NOT_PERMITTED


if __name__ == "__main__":
    sys.exit(main())
