"""When a selection is decided, how long it lasts, and how often the decided headend is chosen."""

import concurrent.futures
import json
import random
import subprocess

import world as w
from figures import Figure

HEADENDS = 20
NEAREST_MS = 15
FARTHEST_MS = 220
LOSS_PERCENT = 3
# Waiting leaves the processors free; more at once would disturb each other.
AT_ONCE = 10
# What a silent headend may cost until the decision, and the whole selection.
FACTOR = 1.2
LEEWAY_MS = 300
WHOLE_MS = 2500
LEAST_FINAL = 0.98


def select(world, hosts):
    """One selection: when it was decided, when it ended, and whether the decided headend was chosen."""
    command = [world.program("ahs"), "select", "--json", "--no-cache", *hosts]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, env=w.environment(),
                          timeout=w.TOOL_SECONDS, check=True)
    said = json.loads(done.stdout)
    decided = said["decision"]["decided"]
    return [decided["afterMs"], said["elapsedMs"], decided["headend"] == said["headends"][0]]


def beside_silent(world, gateways):
    """Inside: the decision's time without the silent gateway, and both times with it."""
    alive = [gateway.address for gateway in gateways if gateway.loss == 0]
    return [select(world, alive)[0], *select(world, [gateway.address for gateway in gateways])[:2]]


def lossy(world, gateways, trials):
    """Inside: whether the decided headend was chosen, for each trial."""
    hosts = [gateway.address for gateway in gateways]
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        return [found[2] for found in pool.map(lambda _: select(world, hosts), range(trials))]


def scene(bench, seed, **properties):
    """The distances are even, their order is not."""
    gateways = w.spread(HEADENDS, NEAREST_MS * bench.sizes.scale, FARTHEST_MS * bench.sizes.scale, **properties)
    distances = [gateway.rtt for gateway in gateways]
    random.Random(seed).shuffle(distances)
    for gateway, distance in zip(gateways, distances):
        gateway.rtt = distance
    return gateways


def silent(bench):
    """The rows of one silent headend; the first candidate is the one that the test probe goes to."""
    worst = (0, 0, 0)
    longest = 0
    places = [round(i * HEADENDS / bench.sizes.silent) for i in range(bench.sizes.silent)]
    for place in places:
        gateways = scene(bench, bench.seed + place)
        gateways[place].loss = 100
        before, after, whole = bench.world.visit(gateways, beside_silent, seed=bench.seed)
        share = after / (FACTOR * before + LEEWAY_MS)
        worst = max(worst, (share, after, before))
        longest = max(longest, whole)
    share, after, before = worst
    what = f"one silent headend among {HEADENDS}, worst of {len(places)} places"
    return [Figure(f"decided, {what}", f"at most {FACTOR} times without + {LEEWAY_MS} ms", f"{after:.0f} ms",
                   f"without {before:.0f} ms", f"{share:.2f}", share <= 1, 1.1),
            Figure(f"whole selection, {what}", f"at most {WHOLE_MS:,} ms", f"{longest:,.0f} ms", "",
                   f"{longest / WHOLE_MS:.2f}", longest <= WHOLE_MS, 1.1)]


def decision(bench):
    trials = bench.sizes.lie_trials
    final = bench.world.visit(scene(bench, bench.seed, loss=LOSS_PERCENT), lossy, seed=bench.seed,
                              trials=trials)
    share = sum(final) / trials
    # One trial more or less is chance where they are few.
    least = min(LEAST_FINAL, 1 - 1 / trials)
    return [*silent(bench),
            Figure(f"decided headend is chosen, {LOSS_PERCENT} % loss, {trials} trials",
                   f"at least {LEAST_FINAL:.0%}".replace("%", " %"), f"{100 * share:.1f} %", "",
                   f"{least / share:.3f}" if share else "", share >= LEAST_FINAL, 1)]
