"""Plots as SVG, small enough to be read: text is text, and each thing drawn is one line."""

import math
from html import escape

from report.figures import size_text

COLOURS = ["#1f77b4", "#ff7f0e", "#2ca02c", "#d62728", "#9467bd", "#8c564b", "#e377c2", "#7f7f7f",
           "#bcbd22", "#17becf"]
DASHES = ["none", "6 3"]  # the second for the series after all colours
WIDTH, HEIGHT = 960, 480
LEFT, RIGHT, TOP, BOTTOM = 64, 590, 36, 420
LEGEND = RIGHT + 16
ROW = 22
LABELS = 290  # the width of a bar's label


class _Scale:
    """Leads values to places between two edges of the picture."""

    def __init__(self, least, most, low_edge, high_edge, logarithmic):
        self._of = math.log10 if logarithmic else float
        self._least, self._most = self._of(least), self._of(most)
        self._low_edge, self._high_edge = low_edge, high_edge

    def __call__(self, value):
        share = (self._of(value) - self._least) / (self._most - self._least or 1)
        return round(self._low_edge + share * (self._high_edge - self._low_edge), 1)


def lines(path, title, x_label, y_label, series, logarithmic_y=True, sizes_on_x=True):
    """`series` is a list of (label, [(x, median, min, max), ...])."""
    drawn = [(label, points) for label, points in series if points]
    points = [point for _, series_points in drawn for point in series_points]
    xs = sorted({point[0] for point in points})
    y_ticks = _ticks(min(point[2] for point in points), max(point[3] for point in points),
                     logarithmic_y)
    x_scale = _Scale(xs[0], xs[-1], LEFT + 20, RIGHT - 20, logarithmic=True)
    y_scale = _Scale(y_ticks[0], y_ticks[-1], BOTTOM, TOP, logarithmic_y)
    parts = [_text((LEFT + RIGHT) / 2, TOP - 14, title, "middle"),
             _text((LEFT + RIGHT) / 2, HEIGHT - 10, x_label, "middle"),
             _text(8, TOP - 14, y_label)]
    for y in y_ticks:
        parts += [_path(f"M{LEFT} {y_scale(y)}H{RIGHT}", "#ddd"),
                  _text(LEFT - 6, y_scale(y) + 4, f"{y:g}", "end")]
    for x in xs:
        text = size_text(x) if sizes_on_x else str(x)
        turned = f"rotate(-30 {x_scale(x)} {BOTTOM + 16})"
        parts += [_path(f"M{x_scale(x)} {TOP}V{BOTTOM}", "#ddd"),
                  _text(x_scale(x), BOTTOM + 16, text, "end", turned)]
    for index, (label, series_points) in enumerate(drawn):
        parts += _series(index, label, series_points, x_scale, y_scale)
    _write(path, HEIGHT, parts)


def _ticks(least, most, logarithmic):
    """Round values from one not above the least, or 0, to one not below the most."""
    if not logarithmic:
        step = 10 ** math.floor(math.log10(most))
        step = step / 5 if most / step < 2.5 else step
        return [number * step for number in range(math.ceil(most / step) + 1)]
    steps = [digit * 10.0 ** power for power in range(-6, 10) for digit in (1, 2, 5)]
    first = max(index for index, step in enumerate(steps) if step <= least)
    last = min(index for index, step in enumerate(steps) if step >= most)
    return steps[first:last + 1]


def _series(index, label, points, x_scale, y_scale):
    """A line through the medians, bars from the smallest to the largest, and the legend."""
    colour, dash = COLOURS[index % len(COLOURS)], DASHES[index // len(COLOURS) % len(DASHES)]
    places = [(x_scale(x), y_scale(median)) for x, median, _, _ in points]
    line = "M" + "L".join(f"{x} {y}" for x, y in places)
    bars = "".join(f"M{x_scale(x)} {y_scale(low)}V{y_scale(high)}" for x, _, low, high in points)
    dots = "".join(f"M{x} {y}h0" for x, y in places)
    row = TOP + 8 + 16 * index
    return [_path(line, colour, dash), _path(bars, colour),
            _path(dots, colour, extra=' class="dots"'),
            _path(f"M{LEGEND} {row}h24", colour, dash), _text(LEGEND + 30, row + 4, label)]


def bars(path, title, x_label, rows):
    """`rows` is a list of (label, value), drawn from the top down."""
    end = TOP + ROW * len(rows)
    scale = _Scale(0, max(value for _, value in rows), 0, WIDTH - LABELS - 60, logarithmic=False)
    parts = [_text(WIDTH / 2, TOP - 14, title, "middle"),
             _text(WIDTH / 2, end + 20, x_label, "middle")]
    for index, (label, value) in enumerate(rows):
        top = TOP + ROW * index
        parts += [_text(LABELS - 6, top + 14, label, "end"),
                  f'<rect x="{LABELS}" y="{top}" width="{scale(value)}" height="{ROW - 6}" '
                  f'fill="{COLOURS[0]}"/>',
                  _text(LABELS + 6 + scale(value), top + 14, f"{value:.2f}")]
    _write(path, end + 30, parts)


def _path(places, colour, dash="none", extra=""):
    return f'<path d="{places}" stroke="{colour}" stroke-dasharray="{dash}"{extra}/>'


def _text(x, y, text, anchor="start", turned=""):
    turn = f' transform="{turned}"' if turned else ""
    return f'<text x="{x:g}" y="{y:g}" text-anchor="{anchor}"{turn}>{escape(text)}</text>'


def _write(path, height, parts):
    head = (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" '
            'font-family="sans-serif" font-size="12">\n'
            '<style>path{fill:none;stroke-width:1.3}'
            '.dots{stroke-width:5;stroke-linecap:round}</style>\n'
            '<rect width="100%" height="100%" fill="#fff"/>\n')
    path.write_text(head + "\n".join(parts) + "\n</svg>\n")
