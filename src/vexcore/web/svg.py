"""SVG charts drawn by the front end itself (no plotting library, nothing fetched).

Each function returns markup ready to put into a page; texts are escaped here.
"""

import math
from html import escape

from markupsafe import Markup

FONT = 'font-family="sans-serif" font-size="11"'


class Frame:
    """Maps data coordinates to pixels inside a plot area with margins for the axes."""

    def __init__(self, width, height, x_range, y_range, margin=(46, 12, 30, 34)):
        self.width, self.height = width, height
        self.left, self.right, self.top, self.bottom = margin
        self.x0, self.x1 = x_range
        self.y0, self.y1 = y_range if y_range[1] > y_range[0] else (y_range[0] - 1, y_range[0] + 1)

    def x(self, value):
        span = self.width - self.left - self.right
        return self.left + (value - self.x0) / (self.x1 - self.x0) * span

    def y(self, value):
        span = self.height - self.top - self.bottom
        return self.top + (self.y1 - value) / (self.y1 - self.y0) * span

    def axes(self, x_ticks, y_ticks, x_label, y_label, x_text=str):
        parts = [
            '<rect x="%g" y="%g" width="%g" height="%g" fill="none" stroke="#888"/>'
            % (self.left, self.top, self.width - self.left - self.right, self.height - self.top - self.bottom)
        ]
        for tick in x_ticks:
            parts.append(
                '<line x1="%.1f" x2="%.1f" y1="%g" y2="%g" stroke="#ddd"/>'
                % (self.x(tick), self.x(tick), self.top, self.height - self.bottom)
            )
            parts.append(
                '<text x="%.1f" y="%g" text-anchor="middle" %s>%s</text>'
                % (self.x(tick), self.height - self.bottom + 13, FONT, escape(x_text(tick)))
            )
        for tick in y_ticks:
            parts.append(
                '<line x1="%g" x2="%g" y1="%.1f" y2="%.1f" stroke="#ddd"/>'
                % (self.left, self.width - self.right, self.y(tick), self.y(tick))
            )
            parts.append(
                '<text x="%g" y="%.1f" text-anchor="end" %s>%s</text>'
                % (self.left - 4, self.y(tick) + 4, FONT, escape(_number(tick)))
            )
        parts.append(
            '<text x="%g" y="%g" text-anchor="middle" %s>%s</text>'
            % ((self.left + self.width - self.right) / 2, self.height - 3, FONT, escape(x_label))
        )
        parts.append(
            '<text x="10" y="%g" text-anchor="middle" transform="rotate(-90 10 %g)" %s>%s</text>'
            % (self.height / 2, self.height / 2, FONT, escape(y_label))
        )
        return parts


def _number(value):
    return "%g" % value


def _svg(width, height, title, parts, extra=""):
    return Markup(
        '<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" viewBox="0 0 %d %d" '
        'role="img" %s><title>%s</title><text x="%g" y="12" text-anchor="middle" %s '
        'font-weight="bold">%s</text>%s</svg>'
        % (width, height, width, height, extra, escape(title), width / 2, FONT, escape(title), "".join(parts))
    )


def pattern_cut(angles, values, limits, direction, title, x_label, floor_db=-40.0, width=540, height=270):
    """One array-factor cut: relative gain against angle, the region outside `limits` shaded."""
    frame = Frame(width, height, (-90, 90), (floor_db, 3))
    parts = []
    low, high = limits
    for start, end in ((-90, low), (high, 90)):
        if end > start:
            parts.append(
                '<rect class="outside" x="%.1f" y="%g" width="%.1f" height="%g" fill="#999" '
                'fill-opacity="0.2"/>'
                % (frame.x(start), frame.top, frame.x(end) - frame.x(start), height - frame.top - frame.bottom)
            )
    parts += frame.axes(range(-90, 91, 30), range(int(floor_db), 1, 10), x_label, "relative gain, dB")
    points = " ".join("%.1f,%.1f" % (frame.x(a), frame.y(v)) for a, v in zip(angles, values))
    parts.append('<polyline points="%s" fill="none" stroke="#1f77b4" stroke-width="1.5"/>' % points)
    parts.append(
        '<line x1="%.1f" x2="%.1f" y1="%g" y2="%g" stroke="#d62728" stroke-dasharray="3 3"/>'
        % (frame.x(direction), frame.x(direction), frame.top, height - frame.bottom)
    )
    peak = angles[max(range(len(values)), key=values.__getitem__)] if values else 0.0
    return _svg(width, height, title, parts, 'class="pattern" data-peak="%g" data-direction="%g"' % (peak, direction))


def limits_chart(dr, comdr, eledr, title, width=540, height=260):
    """DR of a mode as a band, each board's COMDR range as a bar and its ELEDR limit as a mark."""
    values = [v for pair in comdr for v in pair] + list(eledr) + list(dr)
    low, high = math.floor(min(values)) - 1, math.ceil(max(values)) + 1
    boards = len(comdr)
    frame = Frame(width, height, (0.5, boards + 0.5), (low, high))
    parts = [
        '<rect x="%g" y="%.1f" width="%g" height="%.1f" fill="#1f77b4" fill-opacity="0.12"/>'
        % (frame.left, frame.y(dr[1]), width - frame.left - frame.right, frame.y(dr[0]) - frame.y(dr[1]))
    ]
    step = max(1, boards // 16)
    parts += frame.axes(range(1, boards + 1, step), _ticks(low, high), "board (band: DR %g .. %g dB)" % tuple(dr), "dB")
    bar = max(2.0, min(16.0, (width - 60) / boards * 0.5))
    for board, (pair, limit) in enumerate(zip(comdr, eledr), 1):
        x = frame.x(board)
        parts.append(
            '<rect x="%.1f" y="%.1f" width="%.1f" height="%.1f" fill="#1f77b4" fill-opacity="0.75">'
            "<title>board %d COMDR %g .. %g dB, ELEDR %g dB</title></rect>"
            % (
                x - bar / 2,
                frame.y(pair[1]),
                bar,
                max(1.0, frame.y(pair[0]) - frame.y(pair[1])),
                board,
                pair[0],
                pair[1],
                limit,
            )
        )
        parts.append(
            '<path d="M%.1f %.1f l%.1f -7 l%.1f 0 z" fill="#d62728"/>' % (x, frame.y(limit), -bar / 2 - 2, bar + 4)
        )
    return _svg(width, height, title, parts)


def _ticks(low, high):
    step = max(1, int(math.ceil((high - low) / 8.0)))
    return range(int(math.ceil(low / step) * step), int(high) + 1, step)


def heat_map(rows, row_labels, column_labels, title, low, high, cell=22):
    """A grid of numbers as coloured cells (blue low, red high), each with its value."""
    width = max(360, 70 + cell * max(1, len(column_labels)))
    height = 40 + cell * max(1, len(rows))
    show_text = cell >= 18
    parts = []
    for r, (label, row) in enumerate(zip(row_labels, rows)):
        y = 24 + r * cell
        parts.append('<text x="66" y="%g" text-anchor="end" %s>%s</text>' % (y + cell * 0.65, FONT, escape(label)))
        for c, value in enumerate(row):
            x = 70 + c * cell
            share = 0.5 if high <= low else (value - low) / (high - low)
            colour = "hsl(%d,70%%,%d%%)" % (240 - 240 * share, 55 + 20 * abs(share - 0.5))
            parts.append(
                '<rect x="%d" y="%d" width="%d" height="%d" fill="%s"><title>%s %s: %s</title></rect>'
                % (x, y, cell - 1, cell - 1, colour, escape(label), escape(column_labels[c]), value)
            )
            if show_text:
                parts.append(
                    '<text x="%g" y="%g" text-anchor="middle" %s>%s</text>'
                    % (x + cell / 2, y + cell * 0.65, FONT, escape(_number(value)))
                )
    return _svg(width, height, title, parts)
