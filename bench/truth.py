"""The error of the metric, compared with the network's set distance."""

import statistics

import growth as g
import world as w
from figures import Figure

WORST_MS = 1
BUSY_LOOPS = 8
JITTER_MS = 10
LOSS_PERCENT = 3
# Share of the error of `response`.
JITTER_TARGET = 0.5


def is_true(error):
    return error.worst <= WORST_MS and error.missing == 0


def ratio(ours, theirs):
    return f"{ours / theirs:.2f}" if theirs else ""


def idle(bench):
    count = bench.sizes.counts[-1]
    found = bench.growth.at(count)
    ours, theirs = found.error(), found.error("curl")
    return [Figure(f"error of the metric, median / worst, {count:,} headends, idle",
                   f"worst at most {WORST_MS} ms", str(ours), f"`curl --parallel` {theirs}",
                   ratio(ours.worst, theirs.worst), is_true(ours), 1)]


def measure_busy(world, gateways, rounds, loops):
    """Inside: all tools in turn, beside loops that occupy every processor."""
    result = {"ahs": [], "response": [], "curl": [], "httping": [], "fping": []}
    with w.busy_loops(loops):
        for _ in range(rounds):
            found = w.select(world, gateways)
            result["ahs"].append(found.metrics)
            result["response"].append(found.smallest("responseRttMs"))
            result["curl"].append(w.run_curl(world, gateways)[0])
            result["httping"].append(w.run_httping(gateways))
            result["fping"].append(w.run_fping(gateways))
    return result


def busy(bench):
    sizes = bench.sizes
    gateways = w.spread(sizes.busy, g.NEAREST_MS * sizes.scale, g.FARTHEST_MS * sizes.scale)
    found = bench.world.visit(gateways, measure_busy, rounds=sizes.rounds, loops=sizes.loops)
    error = {who: w.error_of(gateways, rounds) for who, rounds in found.items()}
    ours = error["ahs"]
    bench.notes.append(
        f"With {sizes.loops} busy loops `fping`, which takes precedence over them, is off by "
        f"{error['fping']} (median / worst): the simulated network stays exact.")
    what = f"error, median / worst, {sizes.busy:,} headends, {sizes.loops} busy loops"
    figures = []
    for who, name in (("curl", "`curl --parallel`"), ("httping", "`httping`"),
                      ("response", "its own `response`")):
        figures.append(Figure(what if who == "curl" else f"the same, beside {name}", f"worst at most {WORST_MS} ms" if who == "curl" else "", str(ours),
                              f"{name} {error[who]}", ratio(ours.worst, error[who].worst),
                              is_true(ours) if who == "curl" else None, 1))
    return figures


def measure_jitter(world, gateways, rounds):
    """Inside: both measures, from the same probes."""
    result = {"network": [], "response": [], "connect": []}
    for _ in range(rounds):
        found = w.select(world, gateways)
        result["network"].append(found.smallest("networkRttMs"))
        result["response"].append(found.smallest("responseRttMs"))
        result["connect"].append(found.smallest("connectMs"))
    return result


def jitter(bench):
    sizes = bench.sizes
    gateways = w.spread(sizes.jitter, g.NEAREST_MS * sizes.scale, g.FARTHEST_MS * sizes.scale,
                        jitter=JITTER_MS, loss=LOSS_PERCENT)
    found = bench.world.visit(gateways, measure_jitter, seed=bench.seed, rounds=sizes.jitter_rounds)
    error = {who: statistics.median(w.error_of(gateways, [round]).median for round in rounds)
             for who, rounds in found.items()}
    share = error["network"] / error["response"]
    return [Figure(f"median error with {JITTER_MS} ms mean jitter and {LOSS_PERCENT} % loss, "
                   f"{sizes.jitter:,} headends", f"at most {JITTER_TARGET} of `response`'s",
                   f"{error['network']:.2f} ms", f"`response` {error['response']:.2f} ms, "
                   f"time to connect {error['connect']:.2f} ms", f"{share:.2f}", share <= JITTER_TARGET, 1)]
