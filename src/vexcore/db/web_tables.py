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

A beam table is one row, replaced whole in one transaction: two stations saving the same
table leave the last writer's table, never a mix. Every save also counts up the table's
generation in that transaction; `BeamTableStore.generation_of` reads it alone, so a host
holding a loaded table can tell, with one small query, whether it is still the stored
one. A store made with ``refuse_stale=True`` refuses to save over a table another
writer saved after this store read it (the guard of an editor: a stale form must not
overwrite someone else's beams). A database that cannot be reached or a stored table
that does not decode gives an error result, not an exception.
"""

import json

from vexcore.db import QRVDBQueryer
from vexcore.db.QRVDBQueryer import DatabaseError, QueryRefused, as_frequency
from vexcore.qrvdev.QRVTableManager import _codec
from vexcore.QRVPublic import RetCode
from vexcore.QRVUtils import RetType

BEAM_TABLE_VERSION = "v2.0.0"
STALE = "changed by another writer since it was read, not saved"


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

    def __init__(self, sn, db_path=None, refuse_stale=False):
        self.sn = sn
        self.db_path = db_path
        self.refuse_stale = refuse_stale
        self.table = None  # the table last handed out: the manager works on this object
        self.generation = None  # the stored generation of that table (after its last save here)
        self.stale = False  # the last save was refused because of another writer

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
            # One statement: the content and the generation of one committed state.
            row = db.execute(
                "SELECT t.content, g.generation FROM beam_table t LEFT JOIN beam_table_generation g "
                "ON g.sn = t.sn AND g.frequency = t.frequency AND g.aakit = t.aakit "
                "WHERE t.sn = ? AND t.frequency = ? AND t.aakit = ?",
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
            table = _codec.json_loads(row[0])
        self.table, self.generation = table, (row[1] or 0) if row is not None else 0
        return RetType(data=table)

    @_failure_as_result(RetCode.ERROR_BF_BEAM_FILE, "beam table")
    def _save(self, table):
        self.stale = False
        if table is None:
            return RetType(RetCode.ERROR_BF_BEAM_FILE, "no beam table loaded")
        row = self._row(table)  # encoded before the transaction: the lock is held only to write
        try:
            with QRVDBQueryer.transaction(self.db_path) as db:
                # The generation first: its row lock orders two writers of the table.
                db.execute(
                    "INSERT INTO beam_table_generation (sn, frequency, aakit, generation) VALUES (?, ?, ?, 1) "
                    "ON CONFLICT (sn, frequency, aakit) DO UPDATE "
                    "SET generation = beam_table_generation.generation + 1",
                    row[:3],
                )
                generation = db.execute(
                    "SELECT generation FROM beam_table_generation WHERE sn = ? AND frequency = ? AND aakit = ?", row[:3]
                ).fetchone()[0]
                if self.refuse_stale and generation != (self.generation or 0) + 1:
                    raise _Stale()  # rolls the transaction back
                db.execute(
                    "INSERT INTO beam_table (sn, frequency, aakit, content) VALUES (?, ?, ?, ?) "
                    "ON CONFLICT (sn, frequency, aakit) DO UPDATE SET content = excluded.content",
                    row,
                )
        except _Stale:
            self.stale = True
            return RetType(RetCode.ERROR_BF_BEAM_FILE, "beam table: " + STALE)
        self.generation = generation
        return RetType()

    @_failure_as_result(RetCode.ERROR_BF_BEAM_FILE, "beam table")
    def generation_of(self, freq, aakit):
        """The stored generation of a table (0 for one never saved), as the result's data."""
        db = QRVDBQueryer.connect(self.db_path)
        try:
            row = db.execute(
                "SELECT generation FROM beam_table_generation WHERE sn = ? AND frequency = ? AND aakit = ?",
                (self.sn, as_frequency(freq), aakit),
            ).fetchone()
        finally:
            db.close()
        return RetType(data=row[0] if row is not None else 0)

    def _row(self, table):
        # The module's own JSON codec (what json.dumps(..., ensure_ascii=False, indent=0)
        # writes, and json.loads reads): a large table is encoded several times faster.
        return (self.sn, as_frequency(table["FREQ"]), table["AAKIT_NAME"], _codec.json_dumps(table, 0))


class _Stale(Exception):
    pass


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
