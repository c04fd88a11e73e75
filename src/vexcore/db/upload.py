"""Uploading calibration CSV files into the table database.

A file is parsed by the table manager itself (CalibrationTableManager.parse with a file
object, as a back end does), so the database holds exactly what file mode would read,
and a bad file is refused with the parser's own result code and message.
"""

from vexcore.db import QRVDBQueryer
from vexcore.QRVPublic import RetCode
from vexcore.tables.calibration import infer_layout as _infer_layout_of_rows
from vexcore.tables.kinds import calibration_name, read_rows


class UploadError(Exception):
    """A calibration file that cannot be stored, with the reason (one line, naming the file)."""


def name_parts(path):
    """(serial number, frequency) from a file name "{SN}_{Freq}GHz.csv", read as the
    calibration manager and the table tool read it."""
    parts = calibration_name(path) if path.endswith(".csv") else None
    if parts is None:
        raise UploadError("%s: the name must read {SN}_{Freq}GHz.csv" % path)
    return parts


def infer_layout(path):
    """(boards, ICs per board, channels per IC) from the file's own rows, by the table
    tool's rule (highest board and chip numbers, values per DATA row)."""
    try:
        return _infer_layout_of_rows(read_rows(path))
    except OSError as error:
        raise UploadError("%s: %s" % (path, error.strerror or error)) from None


def parse_calibration(path, layout=None):
    """The parsed table of one calibration file, checked by the table manager."""
    from vexcore.qrvdev.QRVTableManager import CalibrationTableManager

    sn, frequency = name_parts(path)
    layout = tuple(layout) if layout else infer_layout(path)
    manager = CalibrationTableManager(sn, frequency, lambda: layout, fetchCsvFromFile=False)
    try:
        with open(path, encoding="utf-8") as handle:
            ret = manager.parse(fileObject=handle)
    except OSError as error:
        raise UploadError("%s: %s" % (path, error.strerror or error)) from None
    if ret.RetCode != RetCode.OK:
        raise UploadError("%s: %s: %s" % (path, ret.RetCode.name, ret.RetMsg))
    return sn, frequency, manager._CaliTable


def import_calibration_files(paths, layout=None, db_path=None):
    """Parses every file, then stores them all in one transaction: all or nothing.
    `db_path` is a path or a database URL (default: $VEXCORE_DB, see vexcore.db.engine)."""
    parsed = [parse_calibration(path, layout) for path in paths]
    with QRVDBQueryer.transaction(db_path) as connection:
        for sn, frequency, table in parsed:
            QRVDBQueryer.store_calibration(connection, sn, frequency, table)
    return [(sn, frequency) for sn, frequency, _ in parsed]
