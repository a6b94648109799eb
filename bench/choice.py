"""How often the right gateway wins."""

import random

import world as w
from figures import Figure

HEADENDS = 20
OTHERS_MS = 60
# 5 % nearer than all others.
BEST_MS = 57
JITTER_MS = 5

MEASURES = {"network": "networkRttMs", "response": "responseRttMs", "connect": "connectMs"}


def measure(world, gateways, trials):
    """Inside: each trial's winner by each measure. All measures use the same probes."""
    result = []
    for _ in range(trials):
        found = w.select(world, gateways)
        winners = {"ahs": [found.first]}
        for name, member in MEASURES.items():
            # Like ahs: the smallest sample, in whole milliseconds.
            times = {host: int(time + 0.5) for host, time in found.smallest(member).items()}
            nearest = min(times.values())
            winners[name] = [host for host, time in times.items() if time == nearest]
        result.append(winners)
    return result


def winner(bench):
    sizes = bench.sizes
    draw = random.Random(bench.seed)
    right = dict.fromkeys(("ahs", *MEASURES), 0.0)
    for scene in range(sizes.scenes):
        # The best gateway's place in the list must not matter.
        best = draw.randrange(HEADENDS)
        gateways = [w.Gateway(w.address(i), (BEST_MS if i == best else OTHERS_MS) * sizes.scale,
                              jitter=JITTER_MS) for i in range(HEADENDS)]
        seed = bench.seed + scene
        for winners in bench.world.visit(gateways, measure, seed=seed, trials=sizes.trials):
            for name, hosts in winners.items():
                # Equal gateways win with equal chance.
                right[name] += (w.address(best) in hosts) / len(hosts)
    trials = sizes.scenes * sizes.trials
    share = {name: 100 * count / trials for name, count in right.items()}
    ahead = share["network"] > max(share["response"], share["connect"])
    return [Figure(f"right winner, {HEADENDS} headends, best one 5 % ahead, {JITTER_MS} ms jitter, "
                   f"{trials} trials", "network ahead of both", f"network {share['network']:.1f} % "
                   f"(as chosen {share['ahs']:.1f} %)",
                   f"`response` {share['response']:.1f} %, time to connect {share['connect']:.1f} %",
                   "", ahead)]
