"""python -m vexcore.web.demo DIR: the demonstration folder with every table in its database.

The bundled samples (``python -m vexcore.samples``) bring a calibration table into the
database; the front end also shows kits and beam tables, so the sample kit and the
sample beam table are stored there as well, through the managers in web mode.
"""

import glob
import os
import sys

from vexcore.QRVPublic import RetCode
from vexcore.samples import prepare
from vexcore.tables import beam as beam_check
from vexcore.tables import kit as kit_check

from . import managers, store


def store_kit(path):
    """A kit file, read by the kit manager, stored in the database under its own name."""
    found = kit_check.load(path, locate=False)
    if not found.valid:
        raise SystemExit("%s: %s" % (path, "; ".join(p.message for p in found.problems)))
    record = found.record
    _, save = store.kit_callbacks()
    manager = managers.kit_manager(record["DEV_TYPE"], len(record["OFFSET_TX"]))
    fields = [record[f] for f in ("SPACING", "STEERING_H", "STEERING_V", "OFFSET_TX", "OFFSET_RX")]
    ret = manager.setAAKitInfo(found.name, *fields, custom=record["TYPE"], dev_type=record["DEV_TYPE"])
    if ret.RetCode == RetCode.OK:
        ret = manager.saveAAKitFile(ret.RetData, callback=save)
    return found.name, ret


def store_beam_table(path):
    """A beam table file, validated by the beam manager, replacing the database's table."""
    found = beam_check.load(path)
    if not found.valid:
        raise SystemExit("%s: %s" % (path, "; ".join(p.message for p in found.problems)))
    session = managers.BeamSession(found.sn, found.freq, found.kit_name)
    batch = {mode: found.table[mode] for mode in ("TX", "RX")}
    ret = session.manager._setBatchBeamPattern(batch, managers.tm.BTSetOption.UI_SAVE_REPLACE, session.callback)
    return (found.sn, found.freq, found.kit_name), ret


def main(argv=None):
    argv = sys.argv[1:] if argv is None else argv
    if len(argv) != 1:
        print("usage: python -m vexcore.web.demo DIR", file=sys.stderr)
        return 2
    folder = os.path.abspath(argv[0])
    prepare(folder)
    db = os.environ.get("VEXCORE_DB") or os.path.join(folder, "files", "vexcore_tables.db")
    store.configure(db)
    files = os.path.join(folder, "files")
    for path in sorted(glob.glob(os.path.join(files, "AAKIT_*.csv"))):
        name, ret = store_kit(path)
        print("kit %s: %s %s" % (name, ret.RetCode.name, ret.RetMsg))
    for path in sorted(glob.glob(os.path.join(files, "BeamTable", "*.json"))):
        what, ret = store_beam_table(path)
        print("beam table %s: %s %s" % (what, ret.RetCode.name, ret.RetMsg))
    print("database: %s" % db)
    return 0


if __name__ == "__main__":
    sys.exit(main())
