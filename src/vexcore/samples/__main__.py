"""python -m vexcore.samples DIR: prepare DIR for the table manager's demonstration."""
import os
import sys

from vexcore.samples import prepare
from vexcore.db.upload import UploadError


def main(argv):
    if len(argv) != 1:
        print("usage: python -m vexcore.samples DIR", file=sys.stderr)
        return 2
    try:
        stored = prepare(argv[0])
    except (OSError, UploadError) as error:
        print("cannot prepare %s: %s" % (argv[0], error), file=sys.stderr)
        return 1
    for sn, frequency in stored:
        print("prepared %s: sample tables and database with %s at %g GHz" % (os.path.abspath(argv[0]), sn, frequency))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
