"""How long a selection takes on a cache hit."""

import json
import subprocess

import world as w
from figures import Figure

MOST_MS = 1


def hit(bench):
    done = subprocess.run([bench.world.program("bench-cache-hit"), str(bench.sizes.cached),
                           str(bench.sizes.cache_runs)], check=True, capture_output=True, text=True,
                          stdin=subprocess.DEVNULL, timeout=w.TOOL_SECONDS)
    found = json.loads(done.stdout)
    figures = []
    for name, what in (("warm", "cache in memory"), ("cold", "cache read from its file")):
        median, rare = found[f"{name}Ms"], found[f"{name}99Ms"]
        figures.append(Figure(
            f"cache hit, construction to callback, {found['headends']:,} headends, {what}",
            f"median at most {MOST_MS} ms", f"{median:.2f} ms", f"99th percentile {rare:.2f} ms",
            "", median <= MOST_MS))
    return figures
