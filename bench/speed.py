"""How long a selection takes, as a multiple of the least possible time."""

import dataclasses
import os
import statistics

import growth as g
import world as w
from figures import Figure

# Multiples of the limit, by number of gateways.
TARGETS = {10: 1.01, 100: 1.03, 1000: 1.15}
SECURE_TARGET = 1.10
# On a busy machine the excess over the limit may be this many times larger.
MARGIN = 4

# On a kept connection: TCP and TLS 1.3 take one round trip each, then each probe one.
HANDSHAKE_ROUND_TRIPS = 2


def time_to_result(bench):
    figures = []
    for count, target in zip(bench.sizes.counts, TARGETS.values()):
        found = bench.growth.at(count)
        ratio = found.median("elapsed") / found.limit
        figures.append(Figure(
            f"time to result, {count:,} headends", f"at most {target} of the limit",
            f"{found.median('elapsed'):,.0f} ms", f"limit {found.limit:,.0f} ms",
            f"{ratio:.3f}", ratio <= target, with_margin(target),
            [round["elapsed"] / found.limit for round in found.rounds]))
    return figures


def with_margin(target):
    return 1 + MARGIN * (target - 1)


def select_securely(world, gateways, rounds):
    """Inside: selections with TLS probes, like those of a client with a proxy login. The environment's
    proxy is for plain HTTP only, so no proxy takes part."""
    w.trust_gateways(world)
    password = world.path("password")
    with open(password, "w", encoding="utf-8", opener=private) as file:
        file.write("secret\n")
    options = ["--proxy-user", "bench", "--proxy-password-file", password]
    result = []
    for _ in range(rounds):
        found = w.select(world, gateways, options, w.environment(http_proxy="http://127.0.0.1:9"))
        # Only an answer over TLS has the status 200: without trust nothing is sent.
        answers = [probe for probes in found.probes.values() for probe in probes]
        if any(probe["httpStatus"] != 200 for probe in answers):
            raise RuntimeError("a secure probe was not answered with 200")
        result.append({"elapsed": found.elapsed, "metrics": found.metrics,
                       "cost": dataclasses.asdict(found.cost)})
    return result


def private(path, flags):
    return os.open(path, flags, 0o600)


def secure(bench):
    sizes = bench.sizes
    ends = (g.NEAREST_MS * sizes.scale, g.FARTHEST_MS * sizes.scale)
    kept = w.spread(sizes.secure, *ends)
    truth = w.distances(kept)
    first, slowest = truth[min(truth)], max(truth.values())
    test_probe = (HANDSHAKE_ROUND_TRIPS + 1) * first
    limit = test_probe + (HANDSHAKE_ROUND_TRIPS + g.PINGS) * slowest
    limit_anew = test_probe + (HANDSHAKE_ROUND_TRIPS + 1) * g.PINGS * slowest

    reused = bench.world.visit(kept, select_securely, rounds=sizes.rounds)
    parting = w.spread(sizes.secure, *ends, behaviour="parts")
    anew = bench.world.visit(parting, select_securely, rounds=sizes.rounds)
    ours = statistics.median(round["elapsed"] for round in reused)
    theirs = statistics.median(round["elapsed"] for round in anew)
    processor = [statistics.median(round["cost"]["processor"] for round in rounds)
                 for rounds in (reused, anew)]
    return [
        Figure(f"secure, connections reused, {sizes.secure:,} headends",
               f"at most {SECURE_TARGET:.2f} of the limit", f"{ours:,.0f} ms",
               f"limit with reuse {limit:,.0f} ms", f"{ours / limit:.3f}", ours / limit <= SECURE_TARGET,
               with_margin(SECURE_TARGET), [round["elapsed"] / limit for round in reused]),
        Figure("the same beside no reuse", "", f"{ours:,.0f} ms, processor {processor[0]:,.0f} ms",
               f"headends that close: {theirs:,.0f} ms (limit {limit_anew:,.0f}), "
               f"processor {processor[1]:,.0f} ms", f"{ours / theirs:.2f}", None, 1),
        Figure("error of the secure metric, median / worst", "",
               str(w.error_of(kept, [round["metrics"] for round in reused])),
               f"no reuse: {w.error_of(parting, [round['metrics'] for round in anew])}", "", None),
    ]
