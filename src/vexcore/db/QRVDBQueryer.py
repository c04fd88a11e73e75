"""Query service of the vexcore table database, on the standard library's sqlite3.

The table manager's database adapter loads this module by name in web mode and talks
to it through ``DBQueryer(table_name).queryDB(...)``. Replies:

- ``{"code": 0, "data": ...}`` on success; a single query answers with one entry per
  dotted key asked, so a one-key answer is unwrapped by the adapter;
- ``{"code": <non-zero>, "message": "..."}`` when the query is refused (unknown serial
  number, frequency, category, key or command);
- a string when the database cannot be reached.

One database file holds everything: ``$VEXCORE_DB`` when set, otherwise
"vexcore_tables.db" in the SDK files directory. Every query opens its own connection
and runs in one transaction, so several processes can use the file at once; sqlite's
locking serialises the writers.
"""
import json
import os
import sqlite3
import time

from vexcore.QRVUtils import _Utils

DB_ENV = "VEXCORE_DB"
DB_FILE_NAME = "vexcore_tables.db"
BUSY_TIMEOUT_S = 30.0

# Codes of refused queries.
UNKNOWN_SN = 1
UNKNOWN_FREQUENCY = 2
UNKNOWN_CATEGORY = 3
UNKNOWN_KEY = 4
BAD_REQUEST = 5

_SCHEMA = """
CREATE TABLE IF NOT EXISTS calibration (
    sn TEXT NOT NULL, frequency REAL NOT NULL, content TEXT NOT NULL,
    PRIMARY KEY (sn, frequency));
CREATE TABLE IF NOT EXISTS beam_table (
    sn TEXT NOT NULL, frequency REAL NOT NULL, aakit TEXT NOT NULL, content TEXT NOT NULL,
    PRIMARY KEY (sn, frequency, aakit));
CREATE TABLE IF NOT EXISTS aakit (
    name TEXT NOT NULL PRIMARY KEY, dev_type INTEGER, content TEXT NOT NULL);
"""


class QueryRefused(Exception):
    """A query the database answers with a non-zero code and a message."""

    def __init__(self, code, message):
        super().__init__(message)
        self.code = code


def database_path():
    """Where the database lives: $VEXCORE_DB, else the SDK files directory."""
    return os.environ.get(DB_ENV) or os.path.join(_Utils._get_files_dir(), DB_FILE_NAME)


def _use_write_ahead_log(connection):
    """Write-ahead logging lets readers work beside one writer. Switching to it (on
    a new database, where two processes may arrive at once) fails with "database
    is locked" at once instead of waiting for the other connection, so it is
    retried for as long as any other statement would wait."""
    deadline = time.monotonic() + BUSY_TIMEOUT_S
    while True:
        try:
            connection.execute("PRAGMA journal_mode=WAL")
            return
        except sqlite3.OperationalError as exc:
            if "locked" not in str(exc) or time.monotonic() > deadline:
                raise
            time.sleep(0.01)


def connect(path=None):
    """An open connection with the schema in place (sqlite3.Error when unreachable)."""
    path = path or database_path()
    # sqlite would create a missing folder's file lazily and fail later; fail here instead.
    folder = os.path.dirname(os.path.abspath(path))
    if not os.path.isdir(folder):
        raise sqlite3.OperationalError("unable to open database file: folder %s does not exist" % folder)
    connection = sqlite3.connect(path, timeout=BUSY_TIMEOUT_S, isolation_level=None)
    try:
        _use_write_ahead_log(connection)
        connection.executescript(_SCHEMA)
    except sqlite3.Error:
        connection.close()
        raise
    return connection


class transaction:
    """``with transaction(path) as db:`` one immediate transaction on a fresh connection."""

    def __init__(self, path=None):
        self.path = path

    def __enter__(self):
        self.connection = connect(self.path)
        self.connection.execute("BEGIN IMMEDIATE")
        return self.connection

    def __exit__(self, exc_type, exc, tb):
        try:
            self.connection.execute("COMMIT" if exc_type is None else "ROLLBACK")
        finally:
            self.connection.close()
        return False


# ------------------------------------------------------------------ storage --

def store_calibration(connection, sn, frequency, table):
    """Stores (or replaces) the parsed calibration table of one serial number and frequency."""
    connection.execute("INSERT OR REPLACE INTO calibration (sn, frequency, content) VALUES (?, ?, ?)",
                       (sn, float(frequency), json.dumps(_database_layout(table), ensure_ascii=False)))


def _database_layout(table):
    """The table as the database keeps it: as parsed, plus each board's common-arm step
    ranges under every RF mode of the board too, because web-mode queries ask for them
    per mode ("TX.COMSTEPDR" in category "BOARD_n") while a file holds them per board."""
    stored = dict(table)
    for key, board in table.items():
        if not (key.startswith("BOARD_") and isinstance(board, dict) and "COMSTEPDR" in board):
            continue
        board = dict(board)
        for mode, section in board.items():
            if isinstance(section, dict) and mode != "COMSTEPDR" and "COMSTEPDR" not in section:
                board[mode] = dict(section, COMSTEPDR=board["COMSTEPDR"])
        stored[key] = board
    return stored


def calibration_index(connection):
    """[(sn, frequency, version)] of every stored calibration table, sorted."""
    rows = connection.execute("SELECT sn, frequency, content FROM calibration ORDER BY sn, frequency")
    return [(sn, frequency, json.loads(content).get("VER")) for sn, frequency, content in rows]


def _calibration_table(connection, sn, frequency):
    known = connection.execute("SELECT 1 FROM calibration WHERE sn = ? LIMIT 1", (sn,)).fetchone()
    if known is None:
        raise QueryRefused(UNKNOWN_SN, "unknown serial number: %s" % (sn,))
    row = connection.execute("SELECT content FROM calibration WHERE sn = ? AND frequency = ?",
                             (sn, _as_frequency(frequency))).fetchone()
    if row is None:
        raise QueryRefused(UNKNOWN_FREQUENCY, "no calibration table for %s at %s GHz" % (sn, frequency))
    return json.loads(row[0])


def _as_frequency(value):
    try:
        return float(value)
    except (TypeError, ValueError):
        raise QueryRefused(BAD_REQUEST, "frequency is not a number: %r" % (value,)) from None


# ------------------------------------------------------------------ queries --

def _lookup(section, dotted_key, category):
    value = section
    for part in str(dotted_key).split("."):
        if not isinstance(value, dict) or part not in value:
            raise QueryRefused(UNKNOWN_KEY, "unknown key: %s in %s" % (dotted_key, category))
        value = value[part]
    return value


def _answer(connection, table_name, payload):
    """{dotted key: value} for one query payload of the calibration table."""
    if table_name != "calibration":
        raise QueryRefused(BAD_REQUEST, "table %s cannot be queried" % (table_name,))
    if not isinstance(payload, dict) or not isinstance(payload.get("query"), list):
        raise QueryRefused(BAD_REQUEST, "a query needs a mapping with a 'query' list")
    table = _calibration_table(connection, payload.get("sn"), payload.get("frequency"))
    category = payload.get("category", "GENERAL")
    if category == "GENERAL":
        section = table
    elif isinstance(category, str) and category.startswith("BOARD_") and isinstance(table.get(category), dict):
        section = table[category]
    else:
        raise QueryRefused(UNKNOWN_CATEGORY, "unknown category: %s" % (category,))
    return {key: _lookup(section, key, category) for key in payload["query"]}


def _list(connection, table_name, name, template):
    """The answer to "get" + name + "List"."""
    if table_name == "calibration" and name == "Freq":
        sn = template.get("sn") if isinstance(template, dict) else None
        rows = connection.execute("SELECT frequency FROM calibration WHERE sn = ? ORDER BY frequency",
                                  (sn,)).fetchall()
        if not rows:
            raise QueryRefused(UNKNOWN_SN, "unknown serial number: %s" % (sn,))
        return [frequency for (frequency,) in rows]
    if table_name == "calibration" and name == "SN":
        return [sn for (sn,) in connection.execute("SELECT DISTINCT sn FROM calibration ORDER BY sn")]
    raise QueryRefused(BAD_REQUEST, "unknown list: %s of table %s" % (name, table_name))


class DBQueryer:
    """Query object for one table of the database ("calibration")."""

    def __init__(self, table_name, path=None):
        self.table_name = table_name
        self.path = path

    def queryDB(self, payload, queryCmd=None):
        """Answers one query, a list query ("get<Name>List") or a multi-query ("getMultiData")."""
        try:
            connection = connect(self.path)
        except sqlite3.Error as error:
            return "table database unreachable: %s" % error
        try:
            return {"code": 0, "data": self._dispatch(connection, payload, queryCmd)}
        except QueryRefused as refused:
            return {"code": refused.code, "message": str(refused)}
        except sqlite3.Error as error:
            return "table database unreachable: %s" % error
        finally:
            connection.close()

    def _dispatch(self, connection, payload, command):
        if command is None:
            return _answer(connection, self.table_name, payload)
        if command == "getMultiData":
            if not isinstance(payload, dict):
                raise QueryRefused(BAD_REQUEST, "a multi-query needs a mapping of queries")
            # Each held-back query is answered as a single query would be, under its own key.
            return {key: _answer(connection, self.table_name, query) for key, query in payload.items()}
        if isinstance(command, str) and command.startswith("get") and command.endswith("List") and len(command) > 7:
            return _list(connection, self.table_name, command[3:-4], payload)
        raise QueryRefused(BAD_REQUEST, "unknown query command: %s" % (command,))
