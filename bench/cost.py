"""What a selection costs the machine, and how that grows."""

import growth as g
import picture
from figures import Figure

MOST_MIB = 48
MOST_OF_CURL = 4
# The curve bends where one more headend costs this many times what one cost before.
BEND = 1.5
# A bend below this number of headends is a fault.
STRAIGHT_UNTIL = 1000


def processor(bench):
    count = bench.sizes.counts[-1]
    found = bench.growth.at(count)
    ours, theirs = found.cost("processor"), found.cost("processor", "curlCost")
    return [Figure(f"processor time of {count * g.PINGS:,} plain probes", "below `curl --parallel`'s",
                   f"{ours:,.0f} ms", f"`curl --parallel` {theirs:,.0f} ms", f"{ours / theirs:.2f}",
                   ours < theirs, 1, found.shares("processor"))]


def memory(bench):
    count = bench.sizes.counts[-1]
    found = bench.growth.at(count)
    ours, theirs = found.cost("peak_mib"), found.cost("peak_mib", "curlCost")
    return [Figure(f"memory at {count:,} headends, peak resident", f"at most {MOST_MIB} MiB",
                   f"{ours:.1f} MiB", f"`curl --parallel` (300 at once) {theirs:.1f} MiB",
                   f"{ours / theirs:.2f}", ours <= MOST_MIB, MOST_OF_CURL,
                   found.shares("peak_mib"))]


def bend_of(values, counts, least):
    """The number of headends at which the cost of one more bends upward; none if it never does.
    Compares this cost with the mean before; ignores a cost below `least`."""
    for i in range(1, len(counts) - 1):
        before = (values[i] - values[0]) / (counts[i] - counts[0])
        after = (values[i + 1] - values[i]) / (counts[i + 1] - counts[i])
        if after > BEND * max(before, least):
            return counts[i]
    return None


def growth(bench):
    """Four quantities by number of headends, and their picture."""
    counts = bench.sizes.growth
    found = {count: bench.growth.at(count) for count in counts}
    # The last number of a panel is the smallest cost of a headend that counts; less is noise. For the
    # time: the cost of a headend if a thousand of them take 15 % longer than the limit.
    panels = [
        picture.Panel("time to result", "ms", [found[n].median("elapsed") for n in counts],
                      [found[n].limit for n in counts], "limit", 0.19),
        picture.Panel("processor time", "ms", [found[n].cost("processor") for n in counts],
                      [found[n].cost("processor", "curlCost") for n in counts], "curl", 0.2),
        picture.Panel("memory", "MiB", [found[n].cost("peak_mib") for n in counts],
                      [found[n].cost("peak_mib", "curlCost") for n in counts], "curl", 0.01),
        picture.Panel("threads", "", [found[n].cost("threads") for n in counts],
                      [found[n].cost("threads", "curlCost") for n in counts], "curl", 0.1),
    ]
    picture.draw(bench.picture, counts, panels)
    bends = {panel.name: bend_of(panel.ours, counts, panel.least) for panel in panels}
    found_bends = [f"{name} after {bend:,}" for name, bend in bends.items() if bend]
    is_straight = all(bend is None or bend >= STRAIGHT_UNTIL for bend in bends.values())
    bench.notes.append(everything(found))
    return [Figure(f"bends, up to {counts[-1]:,} headends", f"none before {STRAIGHT_UNTIL:,}",
                   "; ".join(found_bends) or "none", "", "", is_straight)]


def everything(found):
    """A table of the picture's numbers."""
    columns = "ms, processor ms, MiB, threads"
    lines = [f"| headends | limit, ms | ahs: {columns} | `curl --parallel` (300 at once): {columns} |",
             "|---|---|---|---|"]
    for count, one in found.items():
        ours = row(one, one.median("elapsed"), "cost")
        curl = row(one, one.cost("elapsed", "curlCost"), "curlCost")
        lines.append(f"| {count:,} | {one.limit:,.0f} | {ours} | {curl} |")
    return "\n".join(lines)


def row(found, elapsed, of):
    return (f"{elapsed:,.0f}, {found.cost('processor', of):,.0f}, {found.cost('peak_mib', of):.1f}, "
            f"{found.cost('threads', of):,.0f}")
