"""Antenna-array kits through AAKitTableManager.

The kit manager reads every "AAKIT_*.csv" of its files directory and skips files it
refuses, saying why only in its log; so a kit is checked alone in a private files
directory and the manager's warnings and errors become the file's problems.
"""

import dataclasses
import logging
import os
import re
from typing import Optional

import vexcore.qrvdev.QRVTableManager as tm
from vexcore.QRVPublic import RetCode

from . import kinds
from .common import WARNING, TableResult, as_number, first_failing_prefix, line_label
from .sandbox import Sandbox, collected_logs

FIELDS = ("DEV_TYPE", "TYPE", "SPACING", "STEERING_H", "STEERING_V", "OFFSET_TX", "OFFSET_RX")
_UNREADABLE = "the kit manager could not read the file"
_NOTHING_LOADED = "No available AAKit table here"
_RENAMED = re.compile(r" -> new custom AAKit name\(new format\): (?P<name>.*)$")


@dataclasses.dataclass
class Kit(TableResult):
    name: str = ""
    record: Optional[dict] = None
    renamed_to: str = ""


def load(path, devtype=None, channels=None, locate=True):
    """Reads one kit file with the kit manager, as a device of its own type would."""
    result = Kit(path, kinds.KIT)
    rows = kinds.read_rows(path)
    devtype = devtype if devtype is not None else _first_int(rows, "DEV_TYPE")
    channels = channels or _offset_count(rows)
    file_name = _sandbox_name(path, result)
    with Sandbox() as sandbox, collected_logs() as logs:

        def run(source):
            sandbox.copy_in(source, file_name)
            manager = tm.AAKitTableManager(
                devtype if devtype is not None else 0, channels, support_dev=[devtype] if devtype is not None else []
            )
            start = len(logs.records)
            try:
                ret = manager.parse()
            except KeyError as error:  # a kit without TYPE ends the parse this way
                return manager, None, error, start
            return manager, ret, None, start

        manager, ret, escaped, start = run(path)
        _add_reasons(result, ret, _collect(result, logs, start, sandbox, path))
        if escaped is not None:
            result.add(
                "the kit has no %s row" % escaped.args[0],
                type(escaped).__name__,
                detail="the kit manager's parse stops with this error",
            )
            return result
        if locate and logs.exception_texts(start):
            where = _locate(path, sandbox, run, logs)
            for problem in result.problems:
                if problem.message == _UNREADABLE:
                    problem.where = where
        if ret.RetCode != RetCode.OK:
            return result
        table = manager.getAAKitInfo(local=True).RetData
        result.name, result.record = _the_kit(table, result)
    _check_record(result, channels)
    kind = {0: "official", 1: "custom"}.get(result.record.get("TYPE"), "?")
    result.summary = "%s (%s kit, device type %s, %d channels)" % (
        result.name,
        kind,
        result.record.get("DEV_TYPE"),
        channels,
    )
    return result


def _sandbox_name(path, result):
    name = os.path.basename(path)
    if name.startswith("AAKIT_") and name.endswith(".csv"):
        return name
    result.add(
        "the name does not match AAKIT_*.csv, so the kit manager never reads this file", RetCode.ERROR_BF_NO_AAKIT.name
    )
    return "AAKIT_" + os.path.splitext(name)[0] + ".csv"


def _collect(result, logs, start, sandbox, path):
    """The manager's reasons for refusing the file (its warnings and errors) and its renames.

    The reasons carry the code of the parse result; "No available AAKit table here"
    only repeats that the one file was refused, so it is not listed again.
    """
    reasons = []
    for record in logs.records[start:]:
        message = record.getMessage().replace(sandbox.files + os.sep, os.path.dirname(path) + os.sep)
        renamed = _RENAMED.search(message)
        if renamed:
            result.renamed_to = renamed.group("name")
            result.add(
                "custom kit name has no valid time stamp: loading renames the kit to %r "
                "and rewrites its file" % result.renamed_to,
                severity=WARNING,
            )
        elif record.levelno >= logging.WARNING and message != _NOTHING_LOADED:
            detail = ""
            if record.exc_info and record.exc_info[1] is not None:
                error = record.exc_info[1]
                detail, message = "%s: %s" % (type(error).__name__, error), _UNREADABLE
            reasons.append((message, detail))
    return reasons


def _add_reasons(result, ret, reasons):
    if ret is not None and ret.RetCode != RetCode.OK:
        if not reasons:
            result.add_result(ret, "parse failed")
        for message, detail in reasons:
            result.add(message, ret.RetCode.name, detail=detail)
    else:
        for message, detail in reasons:
            result.add(message, detail=detail, severity=WARNING)


def _locate(path, sandbox, run, logs):
    """The first line whose inclusion makes the manager's reader raise."""
    lines = kinds.read_lines(path)
    scratch = os.path.join(sandbox.root, "prefix.csv")

    def fails(count):
        for name in os.listdir(sandbox.files):
            os.remove(os.path.join(sandbox.files, name))
        with open(scratch, "w", encoding="utf-8", newline="") as f:
            f.write("".join(lines[:count]))
        _, _, _, start = run(scratch)
        return bool(logs.exception_texts(start))

    number = first_failing_prefix(len(lines), fails)
    return line_label(lines, number) if number else ""


def _the_kit(table, result):
    name = result.renamed_to if result.renamed_to in table else next(iter(table))
    return name, table[name]


def _check_record(result, channels):
    record = result.record
    for field in FIELDS:
        if field not in record:
            result.add("no %s row" % field, where=field)
    for field in ("STEERING_H", "STEERING_V"):
        pair = record.get(field)
        if isinstance(pair, list) and len(pair) == 2 and pair[0] > pair[1]:
            result.add("%s: minimum %g is above maximum %g" % (field, pair[0], pair[1]), where=field)
    spacing = record.get("SPACING")
    if isinstance(spacing, list) and any((as_number(v) or 0) <= 0 for v in spacing):
        result.add("SPACING must be positive (millimetres): %r" % (spacing,), where="SPACING")


def _first_int(rows, key):
    for row in rows:
        if len(row) > 1 and row[0] == key:
            try:
                return int(row[1])
            except ValueError:
                return None
    return None


def _offset_count(rows):
    for key in ("OFFSET_TX", "OFFSET_RX"):
        for row in rows:
            if row and row[0] == key:
                return len(row) - 1
    return 0
