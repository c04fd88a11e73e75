"""python -m vexcore.samples DIR: prepare DIR for the table manager's demonstration."""

import argparse
import os
import sys

from vexcore.db.upload import UploadError
from vexcore.samples import SampleExists, prepare


def build_parser():
    parser = argparse.ArgumentParser(
        prog="python -m vexcore.samples",
        description="Make DIR a working folder for the table manager's demonstration: logging.conf, "
        "files/ with a sample calibration table, antenna kit and beam table, and the table "
        "database filled from the calibration table.",
    )
    parser.add_argument("folder", metavar="DIR", help="folder to prepare (created when missing)")
    parser.add_argument(
        "--force", action="store_true", help="replace files of DIR that differ from the samples (edited tables)"
    )
    return parser


def main(argv=None):
    options = build_parser().parse_args(argv)
    try:
        stored = prepare(options.folder, force=options.force)
    except (OSError, UploadError, SampleExists) as error:
        print("cannot prepare %s: %s" % (options.folder, error), file=sys.stderr)
        return 1
    for sn, frequency in stored:
        print(
            "prepared %s: sample tables and database with %s at %g GHz"
            % (os.path.abspath(options.folder), sn, frequency)
        )
    return 0


if __name__ == "__main__":
    sys.exit(main())
