"""Command line of the table database: python -m vexcore.db import FILE... | list"""
import argparse
import sqlite3
import sys

from vexcore.db import QRVDBQueryer
from vexcore.db.upload import UploadError, import_calibration_files


def _layout(text):
    try:
        values = tuple(int(part) for part in text.split(","))
    except ValueError:
        values = ()
    if len(values) != 3 or min(values) < 1:
        raise argparse.ArgumentTypeError("layout must be BOARDS,ICS,CHANNELS, for example 4,1,4")
    return values


def _parser():
    parser = argparse.ArgumentParser(prog="python -m vexcore.db", description=__doc__.splitlines()[0])
    parser.add_argument("--db", help="database file (default: $VEXCORE_DB, else the SDK files directory)")
    commands = parser.add_subparsers(dest="command", required=True)
    upload = commands.add_parser("import", help="parse calibration CSV files and store them")
    upload.add_argument("files", nargs="+", metavar="FILE", help="calibration files named {SN}_{Freq}GHz.csv")
    upload.add_argument("--layout", type=_layout, help="BOARDS,ICS,CHANNELS (default: read from each file)")
    commands.add_parser("list", help="list the stored calibration tables")
    return parser


def _import(args):
    failed = 0
    for path in args.files:
        try:
            ((sn, frequency),) = import_calibration_files([path], args.layout, args.db)
            print("imported %s: %s at %g GHz" % (path, sn, frequency))
        except UploadError as error:
            failed += 1
            print("refused %s" % error, file=sys.stderr)
    return 1 if failed else 0


def _list(args):
    with QRVDBQueryer.transaction(args.db) as connection:
        rows = QRVDBQueryer.calibration_index(connection)
    if not rows:
        print("no calibration tables in %s" % (args.db or QRVDBQueryer.database_path()))
    for sn, frequency, version in rows:
        print("%-24s %8g GHz  version %s" % (sn, frequency, version))
    return 0


def main(argv=None):
    args = _parser().parse_args(argv)
    try:
        return _import(args) if args.command == "import" else _list(args)
    except sqlite3.Error as error:
        print("table database unreachable: %s" % error, file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
