"""How often the nearest gateway wins in networks that lie, and in honest ones."""

import concurrent.futures
import contextlib
import json
import random
import subprocess

import world as w
from figures import Figure

HEADENDS = 20
NEAREST_MS = 15
FARTHEST_MS = 220
BOX_MS = 1
# Waiting leaves the processors free; more at once would disturb each other.
AT_ONCE = 10
SCENES = 4
MEASURES = {"network": "networkRttMs", "response": "responseRttMs", "time to connect": "connectMs"}


def place(kind, index, distance, draw):
    """One gateway at a distance, behind or beside the lie."""
    where = w.address(index)
    if kind == "box":
        return w.Gateway(where, BOX_MS, delay=distance - BOX_MS)
    if kind == "waiting box":
        return w.Gateway(where, BOX_MS, delay=distance - BOX_MS, opening=distance - BOX_MS)
    if kind == "slow":
        return w.Gateway(where, distance, delay=draw.randrange(0, 100))
    if kind == "jitter":
        return w.Gateway(where, distance, jitter=10, loss=3)
    if kind == "acknowledges early":
        return w.Gateway(where, BOX_MS, opening=distance - BOX_MS)
    if kind == "answers early":
        return w.Gateway(where, distance, behaviour="answers-early")
    return w.Gateway(where, distance)


def select(world, hosts):
    """One selection: each measure's round trip by host, in whole milliseconds like ahs'."""
    command = [world.program("ahs"), "select", "--json", "--no-cache", *hosts]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, env=w.environment(),
                          timeout=w.TOOL_SECONDS, check=True)
    results = json.loads(done.stdout)["results"]
    found = {"auto": {r["headend"]: r["metricMs"] for r in results if r["metricMs"] is not None}}
    for name, member in MEASURES.items():
        times = {r["headend"]: [p[member] for p in r["probes"] if p[member] is not None] for r in results}
        found[name] = {host: int(min(some) + 0.5) for host, some in times.items() if some}
    return found


def measure(world, gateways, trials, loops):
    """Inside: what each trial measured."""
    hosts = [gateway.address for gateway in gateways]
    random.Random(len(hosts)).shuffle(hosts)
    with w.busy_loops(loops) if loops else contextlib.nullcontext(), \
            concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        return list(pool.map(lambda _: select(world, hosts), range(trials)))


def visits(bench, kind, distances, loops=0):
    """What each trial measured, with the distances by address."""
    trials = bench.sizes.lie_trials
    scenes = min(SCENES, trials)
    for scene in range(scenes):
        draw = random.Random(bench.seed + scene)
        order = draw.sample(range(len(distances)), len(distances))
        where = {w.address(index): distances[i] for i, index in enumerate(order)}
        gateways = [place(kinds_of(kind, i), index, distances[i], draw) for i, index in enumerate(order)]
        for found in bench.world.visit(gateways, measure, seed=bench.seed + scene,
                                       trials=trials // scenes, loops=loops):
            yield found, where


def kinds_of(kind, index):
    """Of cheats' scenes, every second gateway is honest."""
    return "honest" if kind.endswith("early") and index % 2 == 0 else kind


def is_near(distance, distances):
    nearest = min(distances)
    return distance <= max(nearest * 1.05, nearest + 2)


def right(found, where):
    """The chance that the one chosen is the nearest, or as good as."""
    best = [host for host, time in found.items() if time == min(found.values())]
    return sum(is_near(where[host], where.values()) for host in best) / len(best)


def percent(share):
    return f"{100 * share:.1f} %"


def figure(what, target, least, share):
    """A row of shares; its ratio is the least share that will do as a multiple of ours."""
    ours = share["auto"]
    return Figure(what, target, percent(ours),
                  ", ".join(f"{name} {percent(share[name])}" for name in MEASURES),
                  f"{least / ours:.3f}" if ours else "", ours >= least - 1e-9, 1)


def chosen(bench, kind, what, loops=0):
    """The row of one kind of network. An honest one is compared with `network` of the same run."""
    distances = [gateway.rtt * bench.sizes.scale
                 for gateway in w.spread(HEADENDS, NEAREST_MS, FARTHEST_MS)]
    shares = {}
    for found, where in visits(bench, kind, distances, loops):
        for name, times in found.items():
            shares.setdefault(name, []).append(right(times, where))
    mean = {name: sum(some) / len(some) for name, some in shares.items()}
    if kind.endswith("box"):
        return figure(f"nearest chosen, {what}", "at least 95 %", 0.95, mean)
    return figure(f"nearest chosen, {what}", "at least `network`'s", mean["network"], mean)


def cheated(bench, kind):
    """The row of one kind of cheat: each second gateway, at twice the distance of an honest one."""
    distances = []
    for gateway in w.spread(HEADENDS // 2, NEAREST_MS, FARTHEST_MS / 2):
        distances += [gateway.rtt * bench.sizes.scale, 2 * gateway.rtt * bench.sizes.scale]
    cheats = range(1, HEADENDS, 2)
    fooled = dict.fromkeys(("auto", *MEASURES), 0)
    trials = 0
    for found, where in visits(bench, kind, distances):
        trials += 1
        hosts = {distance: host for host, distance in where.items()}
        for name, times in found.items():
            fooled[name] += any(times[hosts[distances[i]]] < times[hosts[distances[i - 1]]] for i in cheats)
    share = {name: 1 - count / trials for name, count in fooled.items()}
    return figure(f"no cheat that {kind} ahead of half its distance", "100 %", 1, share)


def lies(bench):
    sizes = bench.sizes
    return [chosen(bench, "box", f"a box {BOX_MS} ms away ends TCP, {sizes.lie_trials} trials"),
            chosen(bench, "waiting box", "the same, and asks the far side first"),
            chosen(bench, "honest", "honest network, idle"),
            chosen(bench, "honest", f"honest, {sizes.loops} busy loops", sizes.loops),
            chosen(bench, "slow", "honest, slow gateways"),
            chosen(bench, "jitter", "honest, 10 ms jitter, 3 % loss"),
            cheated(bench, "answers early"),
            cheated(bench, "acknowledges early")]
