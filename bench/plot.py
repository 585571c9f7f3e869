# SPDX-License-Identifier: Apache-2.0
"""Plots of lines as one SVG, side by side."""
from dataclasses import dataclass
from html import escape

WIDTH, HEIGHT = 420, 300
LEFT, RIGHT, TOP, BOTTOM = 62, 16, 40, 44
COLOURS = ("#0b6bcb", "#c2410c", "#5b7083")
STEPS = (1, 2, 2.5, 5, 10)


@dataclass
class Plot:
    """lines: {name: [(x, y), ...]}; both axes begin at 0, the x axis has a mark at each point."""
    title: str
    x_title: str
    lines: dict


def step_of(top, marks=5):
    """A round distance of marks for an axis from 0 to top."""
    power = 1
    while power * 10 <= top / marks:
        power *= 10
    return next(power * step for step in STEPS if power * step >= top / marks)


def text(x, y, words, anchor="middle", extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{extra}>{escape(words)}</text>'


def draw(plot, offset):
    points = [point for line in plot.lines.values() for point in line]
    step = step_of(max(y for _, y in points))
    top = step * -(-max(y for _, y in points) // step)
    right = max(x for x, _ in points)

    def place(x, y):
        return (offset + LEFT + x / right * (WIDTH - LEFT - RIGHT),
                HEIGHT - BOTTOM - y / top * (HEIGHT - TOP - BOTTOM))

    parts = [text(offset + LEFT, 20, plot.title, "start", ' font-weight="bold"'),
             text(*place(right / 2, 0)[:1], HEIGHT - 8, plot.x_title)]
    for mark in range(int(top / step) + 1):
        (x1, y), (x2, _) = place(0, mark * step), place(right, mark * step)
        parts += [f'<path d="M{x1:.1f} {y:.1f}H{x2:.1f}" stroke="#d5dbe1"/>',
                  text(x1 - 6, y + 4, f"{mark * step:,.0f}", "end")]
    for x in sorted({x for x, _ in points}):
        parts.append(text(place(x, 0)[0], HEIGHT - BOTTOM + 16, f"{x}"))
    for (name, line), colour in zip(plot.lines.items(), COLOURS):
        places = [place(*point) for point in line]
        path = "L".join(f"{x:.1f} {y:.1f}" for x, y in places)
        parts.append(f'<path d="M{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        parts += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>' for x, y in places]
        parts.append(text(places[-1][0], places[-1][1] - 8, name, "end", f' fill="{colour}"'))
    return parts


def svg(plots):
    size = f'{WIDTH * len(plots)} {HEIGHT}'
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {size}" '
             'font-family="sans-serif" font-size="12" fill="#24292f">',
             '<rect width="100%" height="100%" fill="#ffffff"/>']
    for number, plot in enumerate(plots):
        parts += draw(plot, number * WIDTH)
    return "\n".join([*parts, "</svg>", ""])
