"""Calibration tables through CalibrationTableManager.

The file name gives the serial number and frequency the manager checks the header
against; the layout (boards, ICs per board, channels per IC) is read off the rows
unless the user gives it, because the file does not state it.
"""

import dataclasses
import io
from typing import Optional

import vexcore.qrvdev.QRVTableManager as tm
from vexcore.QRVPublic import RetCode, RFMode

from . import kinds
from .common import TableResult, as_number, call_query, first_failing_prefix, line_label, unwrap
from .sandbox import Sandbox, collected_logs

HEADER_KEYS = ("VER", "REALVER", "SN", "FCENTER")
# The header check names no row; these are the rows its messages are about.
_HEADER_MESSAGE_KEYS = {
    "Version of Cali table is too low, please upgrade it.": "VER",
    "Wrong SN!": "SN",
    "Wrong Freq": "FCENTER",
}
# Cell holding the board number, in rows keyed by board. TEMPADC and TC rows are left
# out: they are numbered per board and IC (boards x ICs entries), not per board.
_BOARD_CELL = {"COMDR": 3, "ELEDR": 3, "COMSTEPDR": 3, "DATA": 3}


@dataclasses.dataclass
class Calibration(TableResult):
    sn: str = ""
    freq: float = 0.0
    layout: tuple = (0, 0, 0)
    header: dict = dataclasses.field(default_factory=dict)
    dr: Optional[dict] = None
    comdr: Optional[list] = None
    eledr: Optional[list] = None
    tc: Optional[list] = None
    offsets: dict = dataclasses.field(default_factory=dict)

    def beam_limits(self):
        """(DR, COMDR, ELEDR) with one number per board (see `numeric_limits`)."""
        return numeric_limits(self.dr, self.comdr, self.eledr)


def numeric_limits(dr, comdr, eledr):
    """(DR, COMDR, ELEDR) as the calibration manager answers them, with one number per
    board: the common-arm upper bound and the element limit, for arithmetic the limit
    lists do not allow."""
    comdr = [[pair[1] if isinstance(pair, list) else pair for pair in mode] for mode in comdr]
    eledr = [[unwrap(limit) for limit in mode] for mode in eledr]
    return dr, comdr, eledr


def load(path, layout=None, locate=True):
    """Parses `path` with the calibration manager and runs its queries."""
    result = Calibration(path, kinds.CALIBRATION)
    rows = kinds.read_rows(path)
    result.header = header_values(rows)
    result.sn, result.freq = _identity(path, result)
    result.layout = tuple(layout) if layout else infer_layout(rows)
    manager = _manager(result)
    with collected_logs() as logs:
        ret = _parse_file(manager, path)
        if not result.add_result(ret, "parse failed", detail="; ".join(logs.exception_texts())):
            if locate:
                result.problems[-1].where = _locate(result, manager, path, ret)
            return result
        _run_queries(result, manager)
    _check_ranges(result)
    result.summary = "%s at %s GHz, layout %s" % (
        result.sn,
        kinds.frequency_text(result.freq),
        "x".join(map(str, result.layout)),
    )
    return result


def load_export(path, layout=None):
    """A JSON export, read back through parseRawJson in a private files directory."""
    result = Calibration(path, kinds.CALIBRATION_JSON)
    result.sn, result.freq = kinds.calibration_name(path)
    result.layout = tuple(layout) if layout else (0, 0, 0)
    with Sandbox() as sandbox, collected_logs() as logs:
        sandbox.copy_in(path, "%s_%sGHz.json" % (result.sn, kinds.frequency_text(result.freq)))
        manager = tm.CalibrationTableManager(result.sn, result.freq, lambda: result.layout)
        ret = manager.parseRawJson()
        if not result.add_result(ret, "parseRawJson failed", detail="; ".join(logs.exception_texts())):
            return result
        table = manager._CaliTable
        result.header = {key: table.get(key) for key in HEADER_KEYS if key in table}
        if not layout:
            result.layout = _layout_of_export(table)
            manager._num_board, manager._num_ic_per_board, manager._num_channel_per_ic = result.layout
        _check_export_header(result)
        _run_queries(result, manager)
    _check_ranges(result)
    result.summary = "%s at %s GHz (JSON export)" % (result.sn, kinds.frequency_text(result.freq))
    return result


def from_manager(manager, sn, freq, layout, where="database", limits_only=False):
    """The same queries and range checks as a file's check, on a manager that already
    answers for its table (in web mode: from the table database); `limits_only` asks
    DR, COMDR and ELEDR alone, what beams need."""
    result = Calibration(where, kinds.CALIBRATION)
    result.sn, result.freq, result.layout = sn, freq, tuple(layout)
    _run_queries(result, manager, limits_only)
    _check_ranges(result)
    result.summary = "%s at %s GHz, layout %s" % (sn, kinds.frequency_text(freq), "x".join(map(str, layout)))
    return result


def _identity(path, result):
    named = kinds.calibration_name(path)
    if named:
        return named
    result.add(
        "the name is not <SN>_<freq>GHz.csv, so the calibration manager never finds this file",
        RetCode.ERROR_BF_CALI_PATH.name,
    )
    try:
        return result.header.get("SN", ""), float(result.header.get("FCENTER", "0"))
    except ValueError:
        return result.header.get("SN", ""), 0.0


def _manager(result):
    layout = result.layout
    return tm.CalibrationTableManager(result.sn, result.freq, lambda: layout, fetchCsvFromFile=False)


def _parse_file(manager, path):
    # newline="" as for any CSV reader: quoted cells may hold line breaks.
    f = open(path, encoding="utf-8", newline="")
    try:
        return manager.parse(fileObject=f)
    finally:
        f.close()


def _parse_text(manager, text):
    return manager.parse(fileObject=io.StringIO(text, newline=""))


def _locate(result, manager, path, failed):
    """Where the failure lies: the header row a check complains about, the end of a
    file without END, or the first line whose inclusion makes the parse fail."""
    lines = kinds.read_lines(path)
    key = _HEADER_MESSAGE_KEYS.get(failed.RetMsg)
    if key:
        return _header_row(lines, key, result)
    if failed.RetMsg == "cali file is broken":
        return "end of file (no END row)"

    def fails(count):
        text = "".join(lines[:count])
        if text and not text.endswith(("\n", "\r")):
            text += "\n"
        ret = _parse_text(manager, text + "END\n")
        return ret.RetCode == failed.RetCode and ret.RetMsg == failed.RetMsg

    number = first_failing_prefix(len(lines), fails)
    return line_label(lines, number) if number else ""


def _header_row(lines, key, result):
    expected = {
        "SN": result.sn,
        "FCENTER": kinds.frequency_text(result.freq),
        "VER": "at least 2.0.0 (compared as text)",
    }[key]
    for number, line in enumerate(lines, 1):
        if line.split(",", 1)[0].strip() == key:
            return "%s: file says %r, expected %s" % (line_label(lines, number), result.header.get(key, ""), expected)
    return "no %s row" % key


def _run_queries(result, manager, limits_only=False):
    result.dr = call_query(result, "getDR()", manager.getDR)
    result.comdr = call_query(result, "getCOMDR()", manager.getCOMDR)
    result.eledr = call_query(result, "getELEDR()", manager.getELEDR)
    if limits_only:
        return
    result.tc = call_query(result, "_getTC()", manager._getTC)
    boards, chips, _ = result.layout
    for mode in RFMode:
        for chip in range(1, chips + 1):
            values = call_query(
                result,
                "offsets of %s chip %d" % (mode.name, chip),
                lambda mode=mode, chip=chip: manager._getBoardsOffset(range(1, boards + 1), mode.name, chip),
            )
            if values is not None:
                result.offsets[(mode.name, chip)] = values


def _check_ranges(result):
    for mode, pair in (result.dr or {}).items():
        _check_pair(result, "DR of %s" % mode, pair)
    for mode in RFMode:
        for board, pair in enumerate((result.comdr or [[], []])[mode.value], 1):
            _check_pair(result, "COMDR of %s board %d" % (mode.name, board), pair)


def _check_pair(result, what, pair):
    if not isinstance(pair, list) or len(pair) != 2 or None in map(as_number, pair):
        result.add("%s is not a pair of numbers: %r" % (what, pair))
    elif pair[0] > pair[1]:
        result.add("%s: lower bound %g is above upper bound %g" % (what, pair[0], pair[1]))


def _check_export_header(result):
    if result.header.get("SN") != result.sn:
        result.add("SN in the table is %r, the name says %r" % (result.header.get("SN"), result.sn))
    try:
        if float(result.header.get("FCENTER")) != result.freq:
            result.add("FCENTER in the table is %r, the name says %s" % (result.header.get("FCENTER"), result.freq))
    except (TypeError, ValueError):
        result.add("FCENTER in the table is not a number: %r" % (result.header.get("FCENTER"),))


def header_values(rows):
    """The header texts (first occurrence before END)."""
    header = {}
    for row in rows:
        if not row:
            continue
        if row[0] == "END":
            break
        if row[0] in HEADER_KEYS and len(row) > 1 and row[0] not in header:
            header[row[0]] = row[1]
    return header


def infer_layout(rows):
    """(boards, ICs per board, channels per IC) as the rows show them.

    Boards: the highest board number of any per-board row. ICs: the highest chip of a
    DATA row (1 without DATA rows). Channels: the values of a DATA row, else the
    OFFSET_TX count shared out over boards and ICs.
    """
    boards, chips, channels, offsets = 0, 0, 0, 0
    for row in rows:
        if not row:
            continue
        key = row[0]
        if key == "END":
            break
        board = _int_cell(row, _BOARD_CELL.get(key))
        boards = max(boards, board or 0)
        if key == "DATA":
            chips = max(chips, _int_cell(row, 5) or 0)
            channels = max(channels, len(row) - 10)
        elif key == "OFFSET_TX":
            offsets = len(row) - 1
    chips = chips or 1
    boards = boards or 1
    if not channels:
        channels = max(1, offsets // (boards * chips))
    return boards, chips, channels


def _layout_of_export(table):
    boards = [int(key[6:]) for key in table if key.startswith("BOARD_") and key[6:].isdigit()]
    count = max(boards, default=1)
    chips, channels = 1, 1
    for name, board in table.items():
        if not (name.startswith("BOARD_") and isinstance(board, dict)):
            continue
        for mode in ("TX", "RX"):
            section = board.get(mode)
            for key, chip in section.items() if isinstance(section, dict) else ():
                if key.startswith("OFFSET_CHIP_") and isinstance(chip, dict):
                    chips = max(chips, int(key[12:]) if key[12:].isdigit() else 1)
                    channels = max(channels, len(chip))
    return count, chips, channels


def _int_cell(row, index):
    if index is None or index >= len(row):
        return None
    try:
        return int(row[index])
    except ValueError:
        return None
