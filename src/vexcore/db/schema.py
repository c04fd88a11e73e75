"""The table database's schema, checked once per process, and the upgrade of older layouts.

Layout 2 keeps a calibration table as indexed rows: one per top-level entry of the
table ("VER", "DR", ...: category "GENERAL") and one per entry of each board ("TX",
"RX", "COMSTEPDR", "DATA_CHIP_1", ...: category "BOARD_n"), so a query reads the rows of
its answer, not the whole table. `calibration_table` lists the stored tables with the
number of rows each must have, which tells a whole table from a damaged one.

Layout 1 (the first release) kept each calibration table as one JSON text in the table
`calibration`. It is upgraded the first time a process opens the database (or with
``python -m vexcore.db migrate``), in one transaction: every table is rewritten as
rows; a row that cannot be read is kept, untouched, in `calibration_unreadable`.

`beam_table_generation` came later within layout 2: it counts the saves of each beam
table (a missing row means 0), so a reader can tell a table it holds is still the
stored one with one small query. A database without it gets it the first time a
process opens the database; nothing else changes.
"""

import json
import logging

LAYOUT = 2

log = logging.getLogger("vexcore.db")

TABLES = (
    """CREATE TABLE IF NOT EXISTS vexcore_schema (
        name TEXT NOT NULL PRIMARY KEY, value TEXT NOT NULL)""",
    """CREATE TABLE IF NOT EXISTS calibration_table (
        sn TEXT NOT NULL, frequency DOUBLE PRECISION NOT NULL, version TEXT, entries INTEGER NOT NULL,
        generation INTEGER NOT NULL DEFAULT 0,
        PRIMARY KEY (sn, frequency))""",
    """CREATE TABLE IF NOT EXISTS calibration_entry (
        sn TEXT NOT NULL, frequency DOUBLE PRECISION NOT NULL, category TEXT NOT NULL, name TEXT NOT NULL,
        position INTEGER NOT NULL, content TEXT NOT NULL,
        PRIMARY KEY (sn, frequency, category, name))""",
    """CREATE TABLE IF NOT EXISTS beam_table (
        sn TEXT NOT NULL, frequency DOUBLE PRECISION NOT NULL, aakit TEXT NOT NULL, content TEXT NOT NULL,
        PRIMARY KEY (sn, frequency, aakit))""",
    """CREATE TABLE IF NOT EXISTS beam_table_generation (
        sn TEXT NOT NULL, frequency DOUBLE PRECISION NOT NULL, aakit TEXT NOT NULL, generation INTEGER NOT NULL,
        PRIMARY KEY (sn, frequency, aakit))""",
    """CREATE TABLE IF NOT EXISTS aakit (
        name TEXT NOT NULL PRIMARY KEY, dev_type INTEGER, content TEXT NOT NULL)""",
)
ADDED_IN_LAYOUT = ("beam_table_generation",)  # created when missing, without an upgrade
OLD_CALIBRATION = "calibration"
UNREADABLE = "calibration_unreadable"


def layout_of(engine, session):
    """The layout number recorded in the database (0 for a new one, 1 for the first release's)."""
    if engine.has_table(session, "vexcore_schema"):
        row = session.execute("SELECT value FROM vexcore_schema WHERE name = 'layout'").fetchone()
        if row is not None:
            return int(row[0])
    return 1 if engine.has_table(session, OLD_CALIBRATION) else 0


def ensure(engine, session):
    """Creates the schema or upgrades an older one; returns what it did, as text."""
    if layout_of(engine, session) == LAYOUT and all(engine.has_table(session, t) for t in ADDED_IN_LAYOUT):
        return "layout %d, current" % LAYOUT
    engine.prepare_new(session)
    session.execute(engine.write_begin)
    try:
        engine.lock_schema(session)
        found = layout_of(engine, session)  # another process may have upgraded meanwhile
        for statement in TABLES:
            session.execute(statement)
        if found == LAYOUT:
            done = "layout %d, current" % LAYOUT
        elif found == 1:
            done = _upgrade_from_first_layout(engine, session)
        else:
            done = "layout %d, created" % LAYOUT
        session.execute(
            "INSERT INTO vexcore_schema (name, value) VALUES ('layout', ?) "
            "ON CONFLICT (name) DO UPDATE SET value = excluded.value",
            (str(LAYOUT),),
        )
        session.execute("COMMIT")
    except BaseException:
        session.execute("ROLLBACK")
        raise
    if found == 1:
        log.info("table database %s upgraded: %s", engine.location.shown, done)
    return done


def _upgrade_from_first_layout(engine, session):
    from vexcore.db.QRVDBQueryer import store_calibration

    rows = session.execute("SELECT sn, frequency, content FROM %s" % OLD_CALIBRATION).fetchall()
    moved = 0
    for sn, frequency, content in rows:
        try:
            table = json.loads(content)
            if not isinstance(table, dict):
                raise ValueError("not a table")
        except (TypeError, ValueError) as error:
            log.warning(
                "table database %s: calibration table %s at %s GHz cannot be read (%s); kept as it was in %s",
                engine.location.shown,
                sn,
                frequency,
                error,
                UNREADABLE,
            )
            continue
        store_calibration(session, sn, frequency, table)
        session.execute("DELETE FROM %s WHERE sn = ? AND frequency = ?" % OLD_CALIBRATION, (sn, frequency))
        moved += 1
    kept = len(rows) - moved
    if kept:
        session.execute("ALTER TABLE %s RENAME TO %s" % (OLD_CALIBRATION, UNREADABLE))
    else:
        session.execute("DROP TABLE %s" % OLD_CALIBRATION)
    return "%d calibration tables moved to layout %d%s" % (
        moved,
        LAYOUT,
        ", %d unreadable kept in %s" % (kept, UNREADABLE) if kept else "",
    )
