"""An SVG picture of four quantities by number of headends. Both axes begin at 0: a fixed cost plus an
equal cost for each headend makes a straight line, anything else bends it. The colours suit a light and
a dark page."""

import dataclasses
import math

WIDTH, HEIGHT = 360, 240
LEFT, RIGHT, TOP, BOTTOM = 56, 20, 34, 34
LABEL_WIDTH = 40

STYLE = """  <style>
    text { font: 12px sans-serif; fill: #24292f; }
    .title { font-weight: bold; }
    .faint { fill: #57606a; }
    .grid { stroke: #8c959f; stroke-opacity: 0.35; fill: none; }
    .ours { stroke: #0969da; fill: none; stroke-width: 2; }
    .peer { stroke: #bc4c00; fill: none; stroke-width: 1.5; stroke-dasharray: 5 3; }
    .dots { stroke-width: 6; stroke-linecap: round; stroke-dasharray: none; }
    .ours-text { fill: #0969da; }
    .peer-text { fill: #bc4c00; }
    @media (prefers-color-scheme: dark) {
      text { fill: #e6edf3; }
      .faint { fill: #9198a1; }
      .ours { stroke: #58a6ff; }
      .peer { stroke: #f0883e; }
      .ours-text { fill: #58a6ff; }
      .peer-text { fill: #f0883e; }
    }
  </style>"""


@dataclasses.dataclass
class Panel:
    """One quantity, ours and the peer's, by number of headends."""

    name: str
    unit: str
    ours: list
    peer: list
    peer_name: str
    # A smaller cost per headend is noise.
    least: float


class Axis:
    """Maps values, from 0 to the largest, to coordinates."""

    def __init__(self, values, start, end):
        self.most = max(values)
        self.start, self.end = start, end

    def place(self, value):
        return round(self.start + value / self.most * (self.end - self.start), 1)

    def marks(self):
        """Three to six round numbers from 0."""
        step = 10 ** math.floor(math.log10(self.most))
        while self.most / step < 3:
            step /= 2 if str(step)[0] != "5" else 2.5
        return [i * step for i in range(math.floor(self.most / step) + 1)]


def number(value):
    return f"{value:,.0f}" if value >= 1 or value == 0 else f"{value:g}"


def line(style, xs, ys):
    """The measured points, and straight lines between them."""
    points = " ".join(f"{x},{y}" for x, y in zip(xs, ys))
    dots = "".join(f"M{x} {y}h0" for x, y in zip(xs, ys))
    return (f'    <polyline class="{style}" points="{points}"/>\n'
            f'    <path class="{style} dots" d="{dots}"/>')


def draw_panel(panel, counts, left, top):
    across = Axis(counts, LEFT, WIDTH - RIGHT)
    along = Axis(panel.ours + panel.peer, HEIGHT - BOTTOM, TOP)
    unit = f", {panel.unit}" if panel.unit else ""
    parts = [f'  <g transform="translate({left},{top})">',
             f'    <text class="title" x="{LEFT}" y="18">{panel.name}{unit}</text>',
             f'    <text x="{WIDTH - RIGHT}" y="18" text-anchor="end"><tspan class="ours-text">ahs</tspan>'
             f' <tspan class="peer-text">{panel.peer_name}</tspan></text>']
    for value in along.marks():
        y = along.place(value)
        parts.append(f'    <path class="grid" d="M{LEFT} {y}H{WIDTH - RIGHT}"/>')
        parts.append(f'    <text class="faint" x="{LEFT - 6}" y="{y + 4}" text-anchor="end">'
                     f'{number(value)}</text>')
    labelled = -LABEL_WIDTH
    for count in counts:
        x = across.place(count)
        parts.append(f'    <path class="grid" d="M{x} {TOP}V{HEIGHT - BOTTOM}"/>')
        if x - labelled >= LABEL_WIDTH:
            labelled = x
            parts.append(f'    <text class="faint" x="{x}" y="{HEIGHT - BOTTOM + 18}" '
                         f'text-anchor="middle">{number(count)}</text>')
    xs = [across.place(count) for count in counts]
    for style, values in (("peer", panel.peer), ("ours", panel.ours)):
        parts.append(line(style, xs, [along.place(value) for value in values]))
    parts.append("  </g>")
    return "\n".join(parts)


def draw(path, counts, panels):
    columns = 2
    rows = math.ceil(len(panels) / columns)
    width, height = columns * WIDTH, rows * HEIGHT
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" '
             f'height="{height}" role="img">',
             "  <title>Cost of a selection over the number of headends</title>", STYLE]
    for i, panel in enumerate(panels):
        parts.append(draw_panel(panel, counts, i % columns * WIDTH, i // columns * HEIGHT))
    parts.append("</svg>\n")
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(parts))
