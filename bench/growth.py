"""Selections among more and more gateways, each beside `curl --parallel`. The rows of time, error,
processor time and memory use the same runs."""

import dataclasses
import statistics

import world as w

PINGS = 3
# A plain probe takes one round trip for the connection and one for the request.
ROUND_TRIPS_A_PROBE = 2
NEAREST_MS = 20
FARTHEST_MS = 200


def limit_of(gateways):
    """The least possible time: the test probe to the gateway first in byte order, then the probes of
    the farthest gateway."""
    truth = w.distances(gateways)
    return ROUND_TRIPS_A_PROBE * (truth[min(truth)] + PINGS * max(truth.values()))


def measure(world, gateways, rounds):
    """Inside: alternates between ahs, the bare packets and curl."""
    result = []
    for _ in range(rounds):
        ours = w.select(world, gateways)
        bare, bare_cost = w.run_bare(world, gateways, PINGS)
        times, cost = w.run_curl(world, gateways, PINGS)
        result.append({"elapsed": ours.elapsed, "metrics": ours.metrics,
                       "cost": dataclasses.asdict(ours.cost),
                       "bare": bare, "bareCost": dataclasses.asdict(bare_cost),
                       "curl": times, "curlCost": dataclasses.asdict(cost)})
    return result


@dataclasses.dataclass
class Measurement:
    """All rounds with one number of gateways."""

    gateways: list
    rounds: list

    @property
    def limit(self):
        return limit_of(self.gateways)

    def median(self, member):
        return statistics.median(round[member] for round in self.rounds)

    def cost(self, member, of="cost"):
        return statistics.median(round[of][member] for round in self.rounds)

    def shares(self, member, of="curlCost"):
        """Ours as a multiple of another's, round by round."""
        return [round["cost"][member] / round[of][member] for round in self.rounds]

    def error(self, of="metrics"):
        return w.error_of(self.gateways, [round[of] for round in self.rounds])


class Growth:
    """Measures each number of gateways once, for the first row that asks."""

    def __init__(self, world, sizes):
        self._world = world
        self._sizes = sizes
        self._known = {}

    def at(self, count):
        if count not in self._known:
            sizes = self._sizes
            gateways = w.spread(count, NEAREST_MS * sizes.scale, FARTHEST_MS * sizes.scale)
            self._known[count] = Measurement(
                gateways, self._world.visit(gateways, measure, rounds=sizes.rounds))
        return self._known[count]
