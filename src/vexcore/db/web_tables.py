"""Ready-made web-mode callbacks that keep beam and kit tables in the table database.

In web mode the managers read and write no local files: they hand beam tables and kit
tables to callbacks. These callbacks store them in the same database as the calibration
tables (the sqlite file or a lab's PostgreSQL server, see `vexcore.db.engine`), so a
host can run web mode with no local table files at all:

    beams = BeamTableStore(sn)
    manager._load(28.0, "MyKit", beams)              # BeamPatternTableManager
    manager._setBatchBeamPattern(batch, BTSetOption.UI_SAVE_REPLACE, beams)
    kits = AAKitStore()
    aakit.getAAKitList(callback=kits.list_kits)        # AAKitTableManager
    aakit.saveAAKitFile("MyKit", callback=kits.store)

A beam table is one row, replaced whole in one statement: two stations saving the same
table leave the last writer's table, never a mix. A database that cannot be reached or
a stored table that does not decode gives an error result, not an exception.
"""

import json

from vexcore.db import QRVDBQueryer
from vexcore.db.QRVDBQueryer import DatabaseError, QueryRefused, as_frequency
from vexcore.QRVPublic import RetCode
from vexcore.QRVUtils import RetType

BEAM_TABLE_VERSION = "v2.0.0"


def _failure_as_result(code, what):
    """Runs a database step; an unreachable database, a damaged row or a bad
    frequency becomes the result `code` with a message naming `what`."""

    def wrap(step):
        def run(*args, **kwargs):
            try:
                return step(*args, **kwargs)
            except DatabaseError as error:
                return RetType(code, "%s: table database unreachable: %s" % (what, error))
            except QueryRefused as refused:
                return RetType(code, "%s: %s" % (what, refused))
            except json.JSONDecodeError as error:
                return RetType(code, "%s: stored table does not decode (%s)" % (what, error))

        run.__name__, run.__doc__ = step.__name__, step.__doc__
        return run

    return wrap


class BeamTableStore:
    """Callback for one device's beam tables (the device's serial number is bound here,
    since the manager does not pass it)."""

    def __init__(self, sn, db_path=None):
        self.sn = sn
        self.db_path = db_path
        self.table = None  # the table last handed out: the manager works on this object

    def __call__(self, func_name, **kwargs):
        if func_name == "_load":
            return self._load(kwargs["freq"], kwargs["aakit"], kwargs.get("devtype"))
        if func_name == "saveToBeamTableFile":
            return self._save(kwargs.get("new_table", self.table))
        return RetType(RetCode.ERROR, "unknown beam table request: %s" % (func_name,))

    @_failure_as_result(RetCode.ERROR_BF_BEAM_FILE, "beam table")
    def _load(self, freq, aakit, devtype):
        frequency = as_frequency(freq)
        with QRVDBQueryer.transaction(self.db_path) as db:
            row = db.execute(
                "SELECT content FROM beam_table WHERE sn = ? AND frequency = ? AND aakit = ?",
                (self.sn, frequency, aakit),
            ).fetchone()
            if row is None:
                table = {
                    "VERSION": BEAM_TABLE_VERSION,
                    "SN": self.sn,
                    "DEV_TYPE": devtype,
                    "FREQ": freq,
                    "AAKIT_NAME": aakit,
                    "TX": {},
                    "RX": {},
                }
                # Another station may create it at the same moment: the first one stays.
                db.execute(
                    "INSERT INTO beam_table (sn, frequency, aakit, content) VALUES (?, ?, ?, ?) "
                    "ON CONFLICT (sn, frequency, aakit) DO NOTHING",
                    self._row(table),
                )
        if row is not None:
            table = json.loads(row[0])
        self.table = table
        return RetType(data=table)

    @_failure_as_result(RetCode.ERROR_BF_BEAM_FILE, "beam table")
    def _save(self, table):
        if table is None:
            return RetType(RetCode.ERROR_BF_BEAM_FILE, "no beam table loaded")
        row = self._row(table)  # encoded before the transaction: the lock is held only to write
        with QRVDBQueryer.transaction(self.db_path) as db:
            db.execute(
                "INSERT INTO beam_table (sn, frequency, aakit, content) VALUES (?, ?, ?, ?) "
                "ON CONFLICT (sn, frequency, aakit) DO UPDATE SET content = excluded.content",
                row,
            )
        return RetType()

    def _row(self, table):
        return (self.sn, as_frequency(table["FREQ"]), table["AAKIT_NAME"], json.dumps(table, ensure_ascii=False))


class AAKitStore:
    """Callbacks for antenna kits: `list_kits` for getAAKitList, `store` for saving and deleting."""

    def __init__(self, db_path=None):
        self.db_path = db_path

    @_failure_as_result(RetCode.ERROR_BF_AAKIT, "antenna kits")
    def list_kits(self, devtype, total_ch, support_devs):
        """Kits made for one of the supported device types, keyed by name, as getAAKitList expects."""
        with QRVDBQueryer.transaction(self.db_path) as db:
            rows = db.execute("SELECT name, content FROM aakit").fetchall()
        kits = {}
        for name, content in sorted(rows):
            record = json.loads(content)
            if "DEV_TYPE" in record and record["DEV_TYPE"] not in support_devs:
                continue
            kits[name] = record
        return RetType(data=kits)

    @_failure_as_result(RetCode.ERROR_BF_AAKIT, "antenna kit")
    def store(self, func_name, kitName, check=False, context=None):
        """Saves (func_name "saveAAKitFile", the record in context) or deletes ("deleteAAKitInfo") a kit."""
        with QRVDBQueryer.transaction(self.db_path) as db:
            if func_name == "saveAAKitFile":
                db.execute(
                    "INSERT INTO aakit (name, dev_type, content) VALUES (?, ?, ?) ON CONFLICT (name) "
                    "DO UPDATE SET dev_type = excluded.dev_type, content = excluded.content",
                    (kitName, _int_or_none(context.get("DEV_TYPE")), json.dumps(context, ensure_ascii=False)),
                )
            elif func_name == "deleteAAKitInfo":
                if db.execute("DELETE FROM aakit WHERE name = ?", (kitName,)).rowcount == 0:
                    return RetType(RetCode.ERROR_BF_AAKIT, "%s not exist in database" % kitName)
            else:
                return RetType(RetCode.ERROR, "unknown kit request: %s" % (func_name,))
        return RetType()


def _int_or_none(value):
    """The device type as the column holds it (a 32-bit integer), else None."""
    try:
        number = int(value)
    except (TypeError, ValueError, OverflowError):
        return None
    return number if -(2**31) <= number < 2**31 else None
