"""Uploading calibration CSV files into the table database.

A file is parsed by the table manager itself (CalibrationTableManager.parse with a file
object, as a back end does), so the database holds exactly what file mode would read,
and a bad file is refused with the parser's own result code and message.
"""
import csv
import os
import re

from vexcore.QRVPublic import RetCode
from vexcore.db import QRVDBQueryer

_FILE_NAME = re.compile(r"^(?P<sn>.+)_(?P<freq>[0-9]+(?:\.[0-9]+)?)GHz\.csv$")


class UploadError(Exception):
    """A calibration file that cannot be stored, with the reason."""


def name_parts(path):
    """(serial number, frequency) from a file name "{SN}_{Freq}GHz.csv"."""
    match = _FILE_NAME.match(os.path.basename(path))
    if not match:
        raise UploadError("%s: the name must read {SN}_{Freq}GHz.csv" % path)
    return match.group("sn"), float(match.group("freq"))


def infer_layout(path):
    """(boards, ICs per board, channels per IC) from the file's own rows.

    Boards are counted from the COMDR/ELEDR rows, ICs from the DATA rows (one when there
    are none), channels from the length of the OFFSET_TX row.
    """
    boards, chips, offsets = set(), set(), None
    with open(path, newline="", encoding="utf-8") as handle:
        for row in csv.reader(line.replace("\0", "") for line in handle):
            if not row:
                continue
            key = row[0]
            if key == "END":
                break
            if key in ("COMDR", "ELEDR") and len(row) > 3:
                boards.add(row[3])
            elif key == "DATA" and len(row) > 5:
                chips.add(row[5])
            elif key == "OFFSET_TX" and offsets is None:
                offsets = len(row) - 1
    board_count, chip_count = len(boards), max(len(chips), 1)
    if not board_count or not offsets or offsets % (board_count * chip_count):
        raise UploadError("%s: cannot tell the device layout from the file; give it as BOARDS,ICS,CHANNELS" % path)
    return board_count, chip_count, offsets // (board_count * chip_count)


def parse_calibration(path, layout=None):
    """The parsed table of one calibration file, checked by the table manager."""
    from vexcore.qrvdev.QRVTableManager import CalibrationTableManager

    sn, frequency = name_parts(path)
    layout = tuple(layout) if layout else infer_layout(path)
    manager = CalibrationTableManager(sn, frequency, lambda: layout, fetchCsvFromFile=False)
    with open(path, encoding="utf-8") as handle:
        ret = manager.parse(fileObject=handle)
    if ret.RetCode != RetCode.OK:
        raise UploadError("%s: %s: %s" % (path, ret.RetCode.name, ret.RetMsg))
    return sn, frequency, manager._CaliTable


def import_calibration_files(paths, layout=None, db_path=None):
    """Parses every file, then stores them all in one transaction: all or nothing."""
    parsed = [parse_calibration(path, layout) for path in paths]
    with QRVDBQueryer.transaction(db_path) as connection:
        for sn, frequency, table in parsed:
            QRVDBQueryer.store_calibration(connection, sn, frequency, table)
    return [(sn, frequency) for sn, frequency, _ in parsed]
