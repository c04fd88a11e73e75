"""convert: old beam tables to the current format, calibration CSVs to their JSON export.

Both conversions are done by the managers on a private copy (loading upgrades a beam
table and saves it; a calibration parse exports its JSON); the tool only moves the
result to where the user asked. The input is never changed unless --in-place is given,
and an existing output is never overwritten without --force.
"""

import os

import vexcore.qrvdev.QRVTableManager as tm

from . import beam, calibration, kinds
from .check import print_problem
from .common import ToolError, write_file
from .sandbox import Sandbox, collected_logs


def run(options, out):
    kind = options.kind or kinds.classify(options.path)
    if kind == kinds.BEAM:
        return _convert_beam_table(options, out)
    if kind == kinds.CALIBRATION:
        return _export_calibration(options, out)
    raise ToolError(
        "convert upgrades beam tables and exports calibration CSV files; %s is %s"
        % (options.path, "a %s table" % kind if kind else "neither")
    )


def _convert_beam_table(options, out):
    if not options.out and not options.in_place:
        raise ToolError("give --out FILE for the converted table, or --in-place to replace %s" % options.path)
    result = beam.load(
        options.path,
        options.layout,
        options.cali,
        options.kit,
        options.num_beam,
        validate=False,
        devtype=options.devtype,
    )
    if result.table is None:
        return _failed(result, out)
    if result.written is None:
        out.line("%s is already in the current format (%s): nothing to convert" % (options.path, result.version))
        return 0
    target = options.path if options.in_place else options.out
    _write(target, result.written.encode("utf-8"), replace_allowed=options.in_place or options.force)
    out.line("%s (%s) -> %s (%s)" % (options.path, result.version, target, result.table.get("VERSION")))
    for problem in result.problems:
        if not problem.message.startswith("old format"):  # that is what was just done
            print_problem(problem, out)
    return 0


def _export_calibration(options, out):
    target = options.out or os.path.splitext(options.path)[0] + ".json"
    checked = calibration.load(options.path, options.layout)
    if not checked.valid:
        return _failed(checked, out)
    with Sandbox() as sandbox, collected_logs():
        name = "%s_%sGHz.csv" % (checked.sn, kinds.frequency_text(checked.freq))
        copy = sandbox.copy_in(options.path, name)
        manager = tm.CalibrationTableManager(checked.sn, checked.freq, lambda: checked.layout)
        ret = manager.parse(exportToJson=True)
        if not checked.add_result(ret, "parse failed"):
            return _failed(checked, out)
        with open(copy.replace("csv", "json"), "rb") as f:
            exported = f.read()
    _write(target, exported, replace_allowed=options.force)
    out.line("%s -> %s (the calibration manager's JSON export)" % (options.path, target))
    return 0


def _failed(result, out):
    out.line("cannot convert %s:" % result.path)
    for problem in result.problems:
        print_problem(problem, out)
    return 1


def _write(target, data, replace_allowed):
    if os.path.lexists(target) and not replace_allowed:
        raise ToolError("%s exists; give --force to replace it" % target)
    write_file(target, data)
