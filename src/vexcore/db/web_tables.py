"""Ready-made web-mode callbacks that keep beam and kit tables in the table database.

In web mode the managers read and write no local files: they hand beam tables and kit
tables to callbacks. These callbacks store them in the same sqlite database as the
calibration tables, so a host can run web mode with no local table files at all:

    beams = BeamTableStore(sn)
    manager._load(28.0, "MyKit", beams)              # BeamPatternTableManager
    manager._setBatchBeamPattern(batch, BTSetOption.UI_SAVE_REPLACE, beams)
    kits = AAKitStore()
    aakit.getAAKitList(callback=kits.list_kits)        # AAKitTableManager
    aakit.saveAAKitFile("MyKit", callback=kits.store)
"""
import json

from vexcore.QRVPublic import RetCode
from vexcore.QRVUtils import RetType
from vexcore.db import QRVDBQueryer

BEAM_TABLE_VERSION = "v2.0.0"


class BeamTableStore:
    """Callback for one device's beam tables (the device's serial number is bound here,
    since the manager does not pass it)."""

    def __init__(self, sn, db_path=None):
        self.sn = sn
        self.db_path = db_path
        self.table = None   # the table last handed out: the manager works on this object

    def __call__(self, func_name, **kwargs):
        if func_name == "_load":
            return self._load(kwargs["freq"], kwargs["aakit"], kwargs.get("devtype"))
        if func_name == "saveToBeamTableFile":
            return self._save(kwargs.get("new_table", self.table))
        return RetType(RetCode.ERROR, "unknown beam table request: %s" % (func_name,))

    def _load(self, freq, aakit, devtype):
        with QRVDBQueryer.transaction(self.db_path) as db:
            row = db.execute("SELECT content FROM beam_table WHERE sn = ? AND frequency = ? AND aakit = ?",
                             (self.sn, float(freq), aakit)).fetchone()
            if row is None:
                table = {"VERSION": BEAM_TABLE_VERSION, "SN": self.sn, "DEV_TYPE": devtype, "FREQ": freq,
                         "AAKIT_NAME": aakit, "TX": {}, "RX": {}}
                self._store(db, table)
            else:
                table = json.loads(row[0])
        self.table = table
        return RetType(data=table)

    def _save(self, table):
        if table is None:
            return RetType(RetCode.ERROR_BF_BEAM_FILE, "no beam table loaded")
        with QRVDBQueryer.transaction(self.db_path) as db:
            self._store(db, table)
        return RetType()

    def _store(self, db, table):
        db.execute("INSERT OR REPLACE INTO beam_table (sn, frequency, aakit, content) VALUES (?, ?, ?, ?)",
                   (self.sn, float(table["FREQ"]), table["AAKIT_NAME"], json.dumps(table, ensure_ascii=False)))


class AAKitStore:
    """Callbacks for antenna kits: `list_kits` for getAAKitList, `store` for saving and deleting."""

    def __init__(self, db_path=None):
        self.db_path = db_path

    def list_kits(self, devtype, total_ch, support_devs):
        """Kits made for one of the supported device types, keyed by name, as getAAKitList expects."""
        with QRVDBQueryer.transaction(self.db_path) as db:
            rows = db.execute("SELECT name, content FROM aakit ORDER BY name").fetchall()
        kits = {}
        for name, content in rows:
            record = json.loads(content)
            if "DEV_TYPE" in record and record["DEV_TYPE"] not in support_devs:
                continue
            kits[name] = record
        return RetType(data=kits)

    def store(self, func_name, kitName, check=False, context=None):
        """Saves (func_name "saveAAKitFile", the record in context) or deletes ("deleteAAKitInfo") a kit."""
        with QRVDBQueryer.transaction(self.db_path) as db:
            if func_name == "saveAAKitFile":
                db.execute("INSERT OR REPLACE INTO aakit (name, dev_type, content) VALUES (?, ?, ?)",
                           (kitName, _int_or_none(context.get("DEV_TYPE")), json.dumps(context, ensure_ascii=False)))
            elif func_name == "deleteAAKitInfo":
                if db.execute("DELETE FROM aakit WHERE name = ?", (kitName,)).rowcount == 0:
                    return RetType(RetCode.ERROR_BF_AAKIT, "%s not exist in database" % kitName)
            else:
                return RetType(RetCode.ERROR, "unknown kit request: %s" % (func_name,))
        return RetType()


def _int_or_none(value):
    try:
        return int(value)
    except (TypeError, ValueError):
        return None
