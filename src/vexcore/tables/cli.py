"""Command line of the table tool: check, show, convert and plot.

Exit status: 0 when everything asked for succeeded (every checked file valid),
1 when a table is invalid or an operation on it failed, 2 for a usage error.
"""

import argparse
import json
import os
import sys

import vexcore

from . import kinds
from .common import ToolError

USAGE_ERROR = 2


class Output:
    """Where results go: lines of text or one JSON document, on stdout."""

    def __init__(self, stream=None):
        self.stream = stream or sys.stdout

    def line(self, text=""):
        self.stream.write(text + "\n")

    def json(self, data):
        json.dump(data, self.stream, indent=2, ensure_ascii=False, default=str)
        self.stream.write("\n")


def layout_type(text):
    """'4x1x4' or '4,1,4': boards, ICs per board, channels per IC."""
    parts = text.replace(",", "x").split("x")
    try:
        values = tuple(int(p) for p in parts)
    except ValueError:
        values = ()
    if len(values) != 3 or min(values) < 1:
        raise argparse.ArgumentTypeError("expected BOARDSxICSxCHANNELS such as 4x1x4, got %r" % text)
    return values


def grid_type(text):
    """'4x4' -> (4, 4): rows and columns of the channel placement."""
    parts = text.lower().split("x")
    if len(parts) != 2 or not all(p.isdigit() and int(p) > 0 for p in parts):
        raise argparse.ArgumentTypeError("expected ROWSxCOLS such as 4x4 or 1x16, got %r" % text)
    return int(parts[0]), int(parts[1])


def beam_type(text):
    """'TX:1' -> ('TX', 1)."""
    mode, _, number = text.upper().partition(":")
    if mode not in ("TX", "RX") or not number.isdigit():
        raise argparse.ArgumentTypeError("expected MODE:ID such as TX:1, got %r" % text)
    return mode, int(number)


def _table_options(parser):
    parser.add_argument(
        "--layout",
        type=layout_type,
        metavar="BxIxC",
        help="device layout (boards x ICs per board x channels per IC); read off the tables when not given",
    )
    parser.add_argument(
        "--cali",
        metavar="FILE",
        help="calibration table whose limits a beam table uses (default: <SN>_<freq>GHz.csv beside it)",
    )
    parser.add_argument("--kit", metavar="FILE", help="kit file of a beam table (default: found beside it)")
    parser.add_argument(
        "--num-beam",
        type=int,
        metavar="N",
        help="beam ids per mode of the device (default: the highest id in the table)",
    )
    parser.add_argument(
        "--devtype",
        type=int,
        metavar="N",
        help="device type: the one a kit must be made "
        "for (default: its own DEV_TYPE), or the one of a beam table (default: its DEV_TYPE, "
        "else its kit's)",
    )
    parser.add_argument("--kind", choices=kinds.KINDS, help="table kind, when the file name does not tell")


def build_parser():
    parser = argparse.ArgumentParser(
        prog="vexcore-tables",
        description="Check, show, convert and plot vexcore tables (calibration, antenna kits, "
        "beam tables, UD delta) with the table manager's own readers.",
    )
    parser.add_argument("--version", action="version", version="%(prog)s " + vexcore.__version__)
    commands = parser.add_subparsers(dest="command", metavar="COMMAND")
    commands.required = True

    check = commands.add_parser("check", help="validate table files or whole folders")
    check.add_argument("paths", nargs="+", metavar="PATH", help="files or folders (searched recursively)")
    check.add_argument("--json", action="store_true", help="machine-readable output")
    check.add_argument(
        "--progress",
        action=argparse.BooleanOptionalAction,
        default=None,
        help="progress line on stderr (default: on a terminal, for several files)",
    )
    _table_options(check)

    show = commands.add_parser("show", help="a readable summary of one table")
    show.add_argument("path", metavar="PATH")
    show.add_argument("--beam", type=beam_type, metavar="MODE:ID", help="show this beam in full, e.g. TX:1")
    show.add_argument("--json", action="store_true", help="machine-readable output")
    _table_options(show)

    convert = commands.add_parser("convert", help="upgrade an old beam table, or export a calibration CSV to JSON")
    convert.add_argument("path", metavar="PATH")
    convert.add_argument(
        "--out",
        metavar="FILE",
        help="where to write (calibration default: the same "
        "name with .json, where the calibration manager looks for its export)",
    )
    convert.add_argument("--in-place", action="store_true", help="replace the beam table itself")
    convert.add_argument("--force", action="store_true", help="replace an existing output file")
    _table_options(convert)

    plot = commands.add_parser(
        "plot",
        help="draw a calibration table or a beam into a PNG file (needs matplotlib: pip install 'vexcore[plot]')",
    )
    plot.add_argument("path", metavar="PATH")
    plot.add_argument("--out", required=True, metavar="FILE.png", help="picture to write")
    plot.add_argument(
        "--beam",
        type=beam_type,
        default=("TX", 1),
        metavar="MODE:ID",
        help="beam of a beam table to draw (default TX:1)",
    )
    plot.add_argument(
        "--grid",
        type=grid_type,
        metavar="ROWSxCOLS",
        help="placement of the channels in board/channel order, row by row (default: a square "
        "grid when the channel count is a square, else one line)",
    )
    plot.add_argument(
        "--offset-step",
        type=float,
        default=360.0 / 64,
        metavar="DEG",
        help="degrees of one kit phase-offset step (default 5.625, a 6-bit phase shifter)",
    )
    plot.add_argument("--dpi", type=int, default=100, help="resolution of the picture (default 100)")
    _table_options(plot)
    return parser


def main(argv=None):
    parser = build_parser()
    options = parser.parse_args(argv)
    out = Output()
    try:
        return _run(options, out)
    except ToolError as error:
        print("vexcore-tables: %s" % error, file=sys.stderr)
        return USAGE_ERROR
    except KeyboardInterrupt:
        print("vexcore-tables: interrupted", file=sys.stderr)
        return 130
    except BrokenPipeError:
        return 1


def _run(options, out):
    path = getattr(options, "path", None)
    if path is not None and not os.path.isfile(path):
        raise ToolError("no such file: %s" % path)
    if options.command == "check":
        from . import check

        return check.run(options, out)
    if options.command == "show":
        from . import show

        return show.run(options, out)
    if options.command == "convert":
        from . import convert

        return convert.run(options, out)
    if options.command == "plot":
        from . import plot

        return plot.run(options, out)
    raise ToolError("unknown command %s" % options.command)
