"""Every access of the web front end to the table database goes through this module.

The front end reads and writes tables through the table managers in web mode; this
module only hands them what they need from the database layer (the calibration query
service, the beam and kit callbacks) and answers the few questions the managers do not
(which devices are stored, a device's layout), so the database layer can change under
the front end by changing this one file.
"""

import os
import tempfile

from vexcore.db import QRVDBQueryer
from vexcore.db.upload import import_calibration_files
from vexcore.db.web_tables import AAKitStore, BeamTableStore
from vexcore.QRVPublic import RetCode

from .security import Refusal

_db_path = None


def configure(db_path=None):
    """Points the front end, and the managers' web mode with it, at one database."""
    global _db_path
    if db_path:
        # The calibration manager's web mode finds the database through the environment;
        # a file path is made absolute, a URL (postgresql://, sqlite:///) kept as it is.
        os.environ[QRVDBQueryer.DB_ENV] = db_path if "://" in str(db_path) else os.path.abspath(db_path)
    _db_path = QRVDBQueryer.database_path()
    return _db_path


def database_path():
    return _db_path or QRVDBQueryer.database_path()


def devices():
    """[(serial number, frequency, calibration version)] of every stored calibration table."""
    db = QRVDBQueryer.connect(database_path())
    try:
        return QRVDBQueryer.calibration_index(db)
    finally:
        db.close()


def store_calibration_file(path, layout):
    """Parses one checked calibration file with the manager and stores it: (sn, frequency)."""
    ((sn, frequency),) = import_calibration_files([path], layout=layout, db_path=database_path())
    return sn, frequency


def private_folder():
    """A fresh folder only this process can read, for an uploaded file while it is checked."""
    return tempfile.TemporaryDirectory(prefix="vexcore-web-")


def beam_callback(sn, refuse_stale=True):
    """The web-mode callback of one device's beam tables; by default it refuses to save
    over a table someone else saved after it was read through it."""
    return BeamTableStore(sn, db_path=database_path(), refuse_stale=refuse_stale)


def beam_table_generation(sn, frequency, kit):
    """How many times the beam table was saved (0: never): one small query."""
    ret = BeamTableStore(sn, db_path=database_path()).generation_of(frequency, kit)
    if ret.RetCode != RetCode.OK:
        raise Refusal("The beam table could not be read: %s %s" % (ret.RetCode.name, ret.RetMsg), 500)
    return ret.RetData


def kit_callbacks():
    """The web-mode callbacks of the kits: (list for getAAKitList, store for save and delete)."""
    kits = AAKitStore(db_path=database_path())
    return kits.list_kits, kits.store


def _query(sn, frequency, category, keys):
    reply = QRVDBQueryer.DBQueryer("calibration", database_path()).queryDB(
        {"sn": sn, "frequency": frequency, "category": category, "query": list(keys)}
    )
    if isinstance(reply, dict) and reply.get("code") == 0:
        return reply["data"]
    return None


def _present(sn, frequency, category, keys):
    """{key: value} of those keys the table holds: one query, or one per key when some
    key is missing (the service refuses a query naming a missing key as a whole)."""
    answer = _query(sn, frequency, category, keys)
    if answer is not None:
        return answer
    found = {}
    for key in keys:
        single = _query(sn, frequency, category, [key])
        if single is not None:
            found[key] = single[key]
    return found


def calibration_header(sn, frequency):
    """{VER, REALVER, SN, FCENTER} as stored, for the keys the table has."""
    return _present(sn, frequency, "GENERAL", ["VER", "REALVER", "SN", "FCENTER"])


def calibration_layout(sn, frequency):
    """(boards, ICs per board, channels per IC) of a stored calibration table, or None.

    The table does not state its layout, and the managers need it before they can ask
    anything per board: boards are the BOARD_n sections holding a common-arm range
    (found by bisection; temperature rows number boards x ICs sections, so a section
    alone does not make a board), ICs and channels those of board 1's transmit offsets.
    """
    first = _query(sn, frequency, "BOARD_1", ["TX"])
    if not first:
        return None
    chips = [section for key, section in first["TX"].items() if key.startswith("OFFSET_CHIP_")]
    if not chips:
        return None

    def is_board(number):
        return _query(sn, frequency, "BOARD_%d" % number, ["TX.COMDR"]) is not None

    low, high = 1, 2
    while is_board(high):
        low, high = high, high * 2
    while high - low > 1:  # board `low` exists, board `high` does not
        middle = (low + high) // 2
        low, high = (middle, high) if is_board(middle) else (low, middle)
    return low, len(chips), len(chips[0])


def calibration_table(sn, frequency, boards):
    """The stored calibration table as one mapping (header, DR and every board), for download."""
    keys = ["VER", "REALVER", "SN", "FCENTER", "DR"] + ["BOARD_%d" % n for n in range(1, boards + 1)]
    return _present(sn, frequency, "GENERAL", keys)
