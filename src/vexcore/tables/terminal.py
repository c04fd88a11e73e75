"""Terminal output: aligned columns and a progress line."""

import shutil
import sys


def columns(rows, header=None, indent="", align=None):
    """Lines of `rows` (sequences of cells) with every column padded to its widest cell.

    `align` holds "<" or ">" per column; numbers read best right-aligned, so any
    column whose cells are all numbers defaults to ">".
    """
    table = [list(map(_cell, header))] if header else []
    table += [list(map(_cell, row)) for row in rows]
    if not table:
        return []
    count = max(len(row) for row in table)
    table = [row + [""] * (count - len(row)) for row in table]
    widths = [max(len(row[i]) for row in table) for i in range(count)]
    align = align or [">" if _numeric_column(rows, i) else "<" for i in range(count)]
    lines = []
    for row in table:
        cells = [("{:%s%d}" % (align[i], widths[i])).format(cell) for i, cell in enumerate(row)]
        lines.append((indent + "  ".join(cells)).rstrip())
    if header:
        lines.insert(1, indent + "  ".join("-" * w for w in widths))
    return lines


def _cell(value):
    if isinstance(value, float):
        return "%g" % value
    return "" if value is None else str(value)


def _numeric_column(rows, index):
    cells = [row[index] for row in rows if index < len(row) and row[index] not in (None, "")]
    return bool(cells) and all(isinstance(c, (int, float)) and not isinstance(c, bool) for c in cells)


class Progress:
    """'[3/40] name' on one rewritten line of stderr, only on a terminal and for many files."""

    def __init__(self, total, stream=None, enabled=None):
        self.stream = stream or sys.stderr
        if enabled is None:
            enabled = total > 1 and getattr(self.stream, "isatty", lambda: False)()
        self.enabled = enabled
        self.total = total
        self.width = shutil.get_terminal_size((80, 20)).columns - 1

    def step(self, index, label):
        if self.enabled:
            text = "[%d/%d] checking %s" % (index, self.total, label)
            self.stream.write("\r" + text[: self.width].ljust(self.width))
            self.stream.flush()

    def done(self):
        if self.enabled:
            self.stream.write("\r" + " " * self.width + "\r")
            self.stream.flush()
