"""Beam tables through BeamPatternTableManager.

The beam manager finds its file by serial number, frequency and kit, and needs the
calibration limits of that frequency to upgrade old tables and to make default
beams. The tool reads those from the table itself and from the calibration table
and kit lying beside it (the files directory holding the "BeamTable" folder), loads
a copy in a private files directory, then sets every stored beam again without
saving, so the manager validates each one through check hooks that hold the beam to
the calibration limits and the kit's steering range.
"""

import dataclasses
import json
import math
import os
from typing import Optional

import vexcore.qrvdev.QRVTableManager as tm
from vexcore.QRVPublic import BeamType, RetCode, RFMode
from vexcore.QRVUtils import RetType

from . import calibration, kinds, kit
from .common import WARNING, TableResult, ToolError, as_number
from .sandbox import Sandbox, collected_logs

CURRENT_VERSION = "v2.0.0"
FIRST_LIST_FREE_VERSION = "v1.1.0"


@dataclasses.dataclass
class BeamTable(TableResult):
    sn: str = ""
    freq: float = 0.0
    kit_name: str = ""
    devtype: object = 0
    version: object = None
    layout: tuple = (0, 0, 0)
    num_beam: int = 0
    table: Optional[dict] = None
    manager: object = None
    calibration: object = None
    kit: object = None
    written: Optional[str] = None  # the file as loading rewrote it (old versions)
    json_error: object = None
    old_channel_beams: bool = False

    def release(self):
        self.table = self.manager = self.written = self.calibration = self.kit = None

    @property
    def old_format(self):
        return isinstance(self.version, str) and self.version < FIRST_LIST_FREE_VERSION

    def beam(self, mode, beam_id):
        """RetType of getBeamPattern: the stored beam, or the default of an unset id."""
        return self.manager.getBeamPattern(mode, beam_id)


class LimitChecks:
    """Check hooks of a device driver, built from the calibration limits and the kit.

    They accept what the limits allow and keep the reason of every refusal, since the
    manager reports a refused board only by its number.
    """

    def __init__(self, cali=None, kit_record=None):
        """From a checked calibration table (tables.calibration.load) and a kit record;
        without a valid table only the shapes of beams are checked."""
        self.limits = cali.beam_limits() if cali is not None and cali.valid else None
        self.pairs = cali.comdr if self.limits else None
        self.steering = kit_record
        self.reasons = []

    @classmethod
    def from_limits(cls, dr, comdr, eledr, kit_record=None):
        """From the calibration manager's answers, as a driver holds them: getDR(),
        getCOMDR() and getELEDR() data, and the kit's record (getAAKitInfo() data)."""
        checks = cls(None, kit_record)
        checks.limits = calibration.numeric_limits(dr, comdr, eledr)
        checks.pairs = comdr
        return checks

    @property
    def funcs(self):
        return (self.check_beam, self.check_ic_gains)

    def check_ic_gains(self, mode, board_index, gains, common_db):
        reasons = []
        if as_number(common_db) is None:
            reasons.append("board_%d common_db is %r, not a number" % (board_index + 1, common_db))
        bad = [g for g in gains if as_number(g) is None]
        if bad:
            reasons.append("board_%d has gains that are not numbers: %r" % (board_index + 1, bad))
        if self.limits and not reasons:
            reasons += self._board_limits(RFMode(mode), board_index, gains, common_db)
        return self._answer(reasons, gains)

    def _board_limits(self, mode, board_index, gains, common_db):
        reasons = []
        pairs, limits = self.pairs[mode.value], self.limits[2][mode.value]
        if board_index >= len(pairs):
            return ["board_%d is not in the calibration table" % (board_index + 1)]
        low, high = pairs[board_index]
        if not low <= common_db <= high:
            reasons.append("board_%d common_db %g is outside COMDR [%g, %g]" % (board_index + 1, common_db, low, high))
        limit = limits[board_index]
        over = [g for g in gains if g > limit]
        if over:
            reasons.append(
                "board_%d channel gains %r exceed the element limit ELEDR %g" % (board_index + 1, over, limit)
            )
        return reasons

    def check_beam(self, mode, db, theta, phi, _unused):
        values = {"db": db, "theta": theta, "phi": phi}
        reasons = ["%s is %r, not a number" % (k, v) for k, v in values.items() if as_number(v) is None]
        if not reasons:
            reasons += self._steering_limits(RFMode(mode), db, theta, phi)
        return self._answer(reasons, (db, theta, phi))

    def _steering_limits(self, mode, db, theta, phi):
        reasons = []
        if self.limits and isinstance(self.limits[0], dict):
            low, high = self.limits[0].get(mode.name, [-math.inf, math.inf])
            if not low <= db <= high:
                reasons.append("db %g is outside the %s DR [%g, %g]" % (db, mode.name, low, high))
        for name, value, field in (("theta", theta, "STEERING_H"), ("phi", phi, "STEERING_V")):
            limits = (self.steering or {}).get(field)
            if isinstance(limits, list) and len(limits) == 2 and not limits[0] <= value <= limits[1]:
                reasons.append("%s %g is outside the kit's %s [%g, %g]" % (name, value, field, *limits))
        return reasons

    def _answer(self, reasons, data):
        if reasons:
            self.reasons += reasons
            return RetType(RetCode.ERROR_BF_BEAM, "; ".join(reasons))
        return RetType(data=data)


def load(path, layout=None, cali_path=None, kit_path=None, num_beam=None, validate=True, devtype=None):
    """Loads `path` with the beam manager (on a copy) and validates every stored beam."""
    result = BeamTable(path, kinds.BEAM)
    data = _read_json(path, result)
    _identify(result, path, data)
    result.calibration = _companion_calibration(result, path, cali_path)
    result.kit = _companion_kit(result, path, kit_path)
    result.layout = _layout(result, data, layout)
    _settle_devtype(result, devtype)
    result.old_channel_beams = bool(_old_channel_count(data))
    result.num_beam = num_beam or _highest_id(data)
    del data  # a large table must not be held twice while the manager loads it
    checks = LimitChecks(result.calibration, result.kit.record if result.kit and result.kit.valid else None)
    with Sandbox() as sandbox, collected_logs() as logs:
        file_name = kinds.beam_file_name(result.sn, result.freq, result.kit_name)
        # A name holding a separator is refused by the manager itself; it must not
        # place the copy outside the private folder either.
        target = None if _leaves_folder(file_name) else sandbox.copy_in(path, file_name, "BeamTable")
        copied = target and _identity_of(target)
        manager = _manager(result, checks)
        ret = manager._load(result.freq, result.kit_name)
        if not result.add_result(ret, "_load failed", detail=_load_detail(logs, result)):
            return result
        result.manager, result.table = manager, manager._BeamTable
        result.written = _rewritten(target, copied)
        if validate:
            _validate_beams(result, manager, checks, logs)
    _note_version(result)
    result.summary = "%s at %s GHz, kit %r, %s" % (
        result.sn,
        kinds.frequency_text(result.freq),
        result.kit_name,
        _count_text(result.table),
    )
    return result


def _read_json(path, result):
    try:
        with open(path, encoding="utf-8") as f:
            return json.load(f)
    except ValueError as error:
        result.json_error = error
        return None
    except OSError as error:
        raise ToolError("cannot read %s: %s" % (path, error)) from error


def _identify(result, path, data):
    """Serial number, frequency, kit and device type: the table's own, else its name's."""
    data = data if isinstance(data, dict) else {}
    named = kinds.beam_name(path)
    result.sn = data.get("SN") if isinstance(data.get("SN"), str) else (named[0] if named else "UNKNOWN")
    freq = as_number(data.get("FREQ"))
    result.freq = float(freq) if freq is not None else (named[1] if named else 28.0)
    kit_name = data.get("AAKIT_NAME")
    result.kit_name = kit_name if isinstance(kit_name, str) else (named[2] if named else "")
    result.devtype = data.get("DEV_TYPE")
    result.version = data.get("VERSION", data.get("version"))
    expected = kinds.beam_file_name(result.sn, result.freq, result.kit_name)
    if named and os.path.basename(path) != expected:
        result.add("the beam manager of this table looks for it as %s" % expected, severity=WARNING)


def _settle_devtype(result, devtype):
    """Old tables carry no device type; the converted table gets the kit's or the user's."""
    if devtype is not None:
        result.devtype = devtype
    elif result.devtype is None:
        kit_record = result.kit.record if result.kit is not None else None
        result.devtype = (kit_record or {}).get("DEV_TYPE")
        if result.devtype is None:
            result.devtype = 0
            result.add("device type unknown (no DEV_TYPE, no kit): 0 used; give --devtype", severity=WARNING)


def _companion_calibration(result, path, cali_path):
    found = cali_path or _find_beside(
        path, lambda p: kinds.calibration_name(p) == (result.sn, result.freq) and p.endswith(".csv")
    )
    if not found:
        result.add(
            "no calibration table %s_%sGHz.csv beside it: gains not checked against limits"
            % (result.sn, kinds.frequency_text(result.freq)),
            severity=WARNING,
        )
        return None
    cali = calibration.load(found, locate=False)
    if not cali.valid:
        result.add("calibration table %s has problems (see its own check): limits not used" % found, severity=WARNING)
    return cali


def _companion_kit(result, path, kit_path):
    if not kit_path and not result.kit_name:
        return None
    found = kit_path or _find_beside(path, lambda p: os.path.basename(p) == "AAKIT_%s.csv" % result.kit_name)
    found = found or _find_beside(path, lambda p: kinds.classify(p) == kinds.KIT and _kit_name_in(p) == result.kit_name)
    if not found:
        result.add("kit %r not found beside it: steering not checked" % result.kit_name, severity=WARNING)
        return None
    loaded = kit.load(found, locate=False)
    if not loaded.valid:
        result.add("kit file %s has problems (see its own check): not used" % found, severity=WARNING)
    return loaded


def _kit_name_in(path):
    for row in kinds.read_rows(path):
        if len(row) > 1 and row[0] == "AAKIT_NAME":
            return row[1]
    return None


def _find_beside(path, wanted):
    """A file matching `wanted` in the table's folder or, for files/BeamTable, in files/."""
    folder = os.path.dirname(os.path.abspath(path))
    folders = [folder]
    if os.path.basename(folder) == "BeamTable":
        folders.append(os.path.dirname(folder))
    for where in folders:
        for name in sorted(os.listdir(where)):
            candidate = os.path.join(where, name)
            if os.path.isfile(candidate) and wanted(candidate):
                return candidate
    return None


def _layout(result, data, layout):
    if layout:
        return tuple(layout)
    if result.calibration is not None and result.calibration.valid:
        return result.calibration.layout
    inferred = infer_layout(data)
    if inferred:
        return inferred
    total = len((result.kit.record or {}).get("OFFSET_TX", [])) if result.kit else 0
    fallback = (1, 1, total) if total else tuple(tm.fake_rf_layout())
    result.add(
        "layout guessed as %s; give --layout BOARDSxICSxCHANNELS" % "x".join(map(str, fallback)), severity=WARNING
    )
    return fallback


def infer_layout(data):
    """(boards, 1, channels per board) from the channel beams, or None.

    A channel configuration has one "board_<n>" per IC, so a table cannot tell ICs
    per board from boards: each group counts as a board of one IC.
    """
    boards = channels = 0
    for mode in ("TX", "RX"):
        section = data.get(mode) if isinstance(data, dict) else None
        for beam in section.values() if isinstance(section, dict) else ():
            config = beam.get("channel_config") if isinstance(beam, dict) else None
            for key, board in config.items() if isinstance(config, dict) else ():
                boards = max(boards, _number_after(key, "board_"))
                for name in board if isinstance(board, dict) else ():
                    channels = max(channels, _number_after(name, "channel_"))
    old = _old_channel_count(data)
    if boards and channels:
        return boards, 1, channels
    return (1, 1, old) if old else None


def _old_channel_count(data):
    for mode in ("TX", "RX"):
        beams = data.get(mode + "_beam_list") if isinstance(data, dict) else None
        for beam in beams if isinstance(beams, list) else ():
            config = beam.get("channel_config") if isinstance(beam, dict) else None
            if isinstance(config, list) and config:
                return len(config)
    return 0


def _number_after(key, prefix):
    text = key[len(prefix) :] if isinstance(key, str) and key.startswith(prefix) else ""
    return int(text) if text.isdigit() else 0


def highest_id_in(path):
    """The highest beam id a table file holds (1 when it holds none or cannot be read)."""
    try:
        with open(path, encoding="utf-8") as f:
            return _highest_id(json.load(f))
    except (OSError, ValueError):
        return 1


def ordered_channels(config):
    """(board number, channel number, channel) of a channel configuration, in
    board/channel order whatever order the mapping holds them in."""
    found = []
    for board_key, board in config.items() if isinstance(config, dict) else ():
        board_no = _number_after(board_key, "board_")
        for name, channel in board.items() if isinstance(board, dict) else ():
            channel_no = _number_after(name, "channel_")
            if board_no and channel_no and isinstance(channel, dict):
                found.append((board_no, channel_no, channel))
    return sorted(found, key=lambda item: item[:2])


def channels_of(config):
    return [channel for _, _, channel in ordered_channels(config)]


def _highest_id(data):
    ids = [1]
    for mode in ("TX", "RX"):
        section = data.get(mode) if isinstance(data, dict) else None
        ids += [int(k) for k in (section if isinstance(section, dict) else ()) if str(k).isdigit()]
        beams = data.get(mode + "_beam_list") if isinstance(data, dict) else None
        ids += [
            b["beamId"]
            for b in (beams if isinstance(beams, list) else ())
            if isinstance(b, dict) and isinstance(b.get("beamId"), int)
        ]
    return max(ids)


def _manager(result, checks):
    manager = tm.BeamPatternTableManager(result.sn, result.devtype, result.num_beam, result.layout, checks.funcs)
    manager._updateFreq(result.freq, *_limits(result))
    manager._updateAAKit(result.kit_name)
    return manager


def _limits(result):
    """(DR, COMDR, ELEDR) for the manager: the calibration manager's own answers, as a
    driver passes them, so default beams read as a device would show them.

    Converting an old channel list caps each gain at COMDR + ELEDR of its board,
    which works on numbers only, while the calibration manager answers [min, max]
    and [limit]; such tables get one number per board instead. Without a calibration
    table the gains are left uncapped.
    """
    cali = result.calibration
    if cali is not None and cali.valid:
        if not (result.old_format and result.old_channel_beams):
            return cali.dr, cali.comdr, cali.eledr
        result.add(
            "old channel beams are converted with COMDR upper bound + ELEDR per board as gain cap; "
            "the calibration manager's [min, max] and [limit] lists make the beam manager's "
            "conversion fail",
            severity=WARNING,
        )
        return cali.beam_limits()
    boards = result.layout[0] * result.layout[1]
    dr = {mode.name: None for mode in RFMode}
    return dr, [[math.inf] * boards for _ in RFMode], [[0.0] * boards for _ in RFMode]


def _load_detail(logs, result):
    details = logs.exception_texts()
    error = result.json_error
    if error is not None and hasattr(error, "lineno"):
        details.append("not valid JSON at line %d column %d" % (error.lineno, error.colno))
    if not details:
        details = [r.getMessage() for r in logs.since(0, level=40)]
    return "; ".join(details)


def _leaves_folder(name):
    return any(mark in name for mark in ("/", "\\", "\0", os.sep))


def _identity_of(path):
    status = os.stat(path)
    return status.st_ino, status.st_size, status.st_mtime_ns


def _rewritten(target, copied):
    """The copy's text when loading saved it again (conversion or version re-save), else None.

    A save replaces the file by renaming a new one over it, so an unchanged inode,
    size and time mean the copy was only read.
    """
    if _identity_of(target) == copied:
        return None
    with open(target, encoding="utf-8") as f:
        return f.read()


def _validate_beams(result, manager, checks, logs):
    for mode in RFMode:
        section = result.table.get(mode.name)
        if not isinstance(section, dict):
            result.add("the table has no %s section" % mode.name, where=mode.name)
            continue
        for key, beam in list(section.items()):
            _validate_beam(result, manager, checks, logs, mode, key, beam)


def _validate_beam(result, manager, checks, logs, mode, key, beam):
    where = "%s beam %s" % (mode.name, key)
    if not (isinstance(key, str) and key.isdigit()):
        result.add("beam id %r is not a decimal number" % key, where=where)
        return
    if not isinstance(beam, dict):
        result.add("the beam is not a mapping", where=where)
        return
    beam_type = beam.get("beam_type")
    config = beam.get("beam_config") if beam_type == BeamType.BEAM else beam.get("channel_config")
    checks.reasons.clear()
    start = len(logs.records)
    ret = manager.setBeamPattern(mode, int(key), beam_type, config, beam.get("beam_description"), save=False)
    detail = "; ".join(checks.reasons + logs.exception_texts(start))
    if result.add_result(ret, "setBeamPattern failed", where=where, detail=detail):
        _check_channels(result, beam, where)


def _check_channels(result, beam, where):
    """Switch and phase values, which the device's gain hook never sees."""
    if beam.get("beam_type") == BeamType.BEAM:
        return
    for board_key, board in beam["channel_config"].items():
        for name, channel in board.items() if isinstance(board, dict) else ():
            if name == "common_db":
                continue
            if not isinstance(channel, dict):
                result.add("%s %s is not a mapping" % (board_key, name), where=where)
            elif channel.get("sw") not in (0, 1):
                result.add(
                    "%s %s: sw is %r, expected 0 (on) or 1 (off)" % (board_key, name, channel.get("sw")), where=where
                )
            elif as_number(channel.get("deg")) is None:
                result.add("%s %s: deg is %r, not a number" % (board_key, name, channel.get("deg")), where=where)


def _note_version(result):
    version = result.version
    if result.old_format:
        result.add(
            "old format %s: loading converts it and rewrites the file "
            "('vexcore-tables convert' writes the converted table elsewhere)" % version,
            severity=WARNING,
        )
    elif isinstance(version, str) and version != CURRENT_VERSION:
        result.add("version %s: the beam manager re-saves this file on every load" % version, severity=WARNING)


def _count_text(table):
    counts = ["%s %d" % (mode.name, len(table.get(mode.name) or {})) for mode in RFMode]
    return "beams " + ", ".join(counts)
