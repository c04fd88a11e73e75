"""check: every table file through its manager; OK or the problems found, and the
temporary files that killed saves left behind."""

import os
import re

from vexcore.qrvdev.QRVTableManager import _codec

from . import beam, calibration, kinds, kit, ud
from .common import NO_CODE, WARNING, TableResult, ToolError
from .terminal import Progress

MAX_PROBLEMS_SHOWN = 20  # per file: a broken large table must not flood the terminal


# The hidden temporary of a save by an earlier version: "." + table file name + "." + six random characters.
_EARLIER_TEMPORARY = re.compile(r"^\.(.+\.(csv|json))\.[A-Za-z0-9_]{6}$")


def collect(paths, kind=None):
    """(files to check, files skipped, stray temporaries) for the paths given:
    folders are searched recursively and keep only files that hold a known table;
    a file named explicitly is always checked."""
    chosen, skipped, strays = [], [], []
    for path in paths:
        if os.path.isdir(path):
            found_files = kinds.table_files(path)
            owned = _owned_temporaries(found_files)
            for found in found_files:
                stray = owned.get(found) or _earlier_temporary(found)
                if stray:
                    strays.append(stray)
                    continue
                found_kind = kind or kinds.classify(found)
                (chosen if found_kind else skipped).append((found, found_kind))
        elif os.path.isfile(path):
            chosen.append((path, kind or kinds.classify(path)))
        else:
            raise ToolError("no such file or folder: %s" % path)
    return chosen, [path for path, _ in skipped], strays


def _owned_temporaries(paths):
    """{path: stray} for the files the table manager owns (temporaries of saves,
    journals of kit renames), as the manager itself recognises them."""
    strays = {}
    for folder in sorted({os.path.dirname(p) for p in paths}):
        for name, what, pid, host, local, stale in _codec.owned_files(os.fsencode(folder)):
            path = os.path.join(folder, os.fsdecode(name))
            if stale:
                state = "left by process %d, which was killed; the next save or kit parse here removes it" % pid
            elif local:
                state = "in use by process %d (a save in progress)" % pid
            else:
                state = "of process %d on host %s; a save or kit parse there removes it once stale" % (pid, host)
            strays[path] = _stray(path, "rename journal" if what == "rename" else "temporary", state)
    return strays


def _earlier_temporary(path):
    match = _EARLIER_TEMPORARY.match(os.path.basename(path))
    if not match:
        return None
    return _stray(
        path,
        "temporary",
        "of a save of %s by an earlier version, which was killed; remove it when no "
        "older vexcore process is saving" % match.group(1),
    )


def _stray(path, what, state):
    try:
        size = os.path.getsize(path)
    except OSError:
        size = 0
    return {"path": path, "what": what, "state": state, "bytes": size}


def check_file(path, kind, options):
    """The result of one file (an unknown kind is a problem of its own)."""
    if kind is None:
        result = TableResult(path, "unknown")
        result.add("cannot tell which table this is; name it as the managers expect or give --kind")
        return result
    loaders = {
        kinds.CALIBRATION: lambda: calibration.load(path, options.layout),
        kinds.CALIBRATION_JSON: lambda: calibration.load_export(path, options.layout),
        kinds.KIT: lambda: kit.load(path, options.devtype),
        kinds.BEAM: lambda: beam.load(
            path, options.layout, options.cali, options.kit, options.num_beam, devtype=options.devtype
        ),
        kinds.UD_DELTA: lambda: ud.load(path),
    }
    try:
        return loaders[kind]()
    except (OSError, UnicodeError) as error:
        result = TableResult(path, kind)
        result.add("cannot read the file: %s" % error, type(error).__name__)
        return result
    except ToolError:
        raise
    except Exception as error:  # one odd file must not end a check of a whole folder
        result = TableResult(path, kind)
        result.add("the tool could not check this file (please report it)", type(error).__name__, detail=str(error))
        return result


def run(options, out):
    files, skipped, strays = collect(options.paths, options.kind)
    progress = Progress(len(files), enabled=options.progress)
    results = []
    for index, (path, kind) in enumerate(files, 1):
        progress.step(index, path)
        result = check_file(path, kind, options)
        result.release()  # a folder of large tables must not stay in memory
        results.append(result)
    progress.done()
    _note_shadowed_kits(results)
    if options.json:
        out.json(
            {
                "valid": all(r.valid for r in results),
                "files": [_as_dict(r) for r in results],
                "skipped": skipped,
                "strays": strays,
            }
        )
    else:
        _print_results(results, skipped, out)
        _print_strays(strays, out)
    return 0 if results and all(r.valid for r in results) else 1


def _note_shadowed_kits(results):
    """Two files of one folder naming the same kit: the kit manager keeps only the
    later one in name order, silently."""
    groups = {}
    for result in results:
        if result.kind == kinds.KIT and getattr(result, "name", ""):
            folder = os.path.dirname(os.path.abspath(result.path))
            groups.setdefault((folder, result.name), []).append(result)
    for (_, name), group in groups.items():
        kept = max(group, key=lambda r: os.path.abspath(r.path))
        for result in group:
            if result is not kept:
                result.add(
                    "kit %r is also defined by %s, which the kit manager keeps instead of this file"
                    % (name, kept.path),
                    severity=WARNING,
                )


def _as_dict(result):
    return {
        "path": result.path,
        "kind": result.kind,
        "valid": result.valid,
        "summary": result.summary,
        "problems": [p.as_dict() for p in result.problems],
    }


def _print_results(results, skipped, out):
    kind_width = max([len(r.kind) for r in results] + [4])
    for result in results:
        status = "FAIL" if not result.valid else ("WARN" if result.problems else "OK")
        out.line(
            "%-4s  %-*s  %s%s"
            % (status, kind_width, result.kind, result.path, "  " + result.summary if result.summary else "")
        )
        for problem in result.problems[:MAX_PROBLEMS_SHOWN]:
            print_problem(problem, out)
        hidden = len(result.problems) - MAX_PROBLEMS_SHOWN
        if hidden > 0:
            out.line("      ... and %d more problems (--json lists them all)" % hidden)
    invalid = sum(1 for r in results if not r.valid)
    summary = "%d file%s checked: %d valid, %d invalid" % (
        len(results),
        "" if len(results) == 1 else "s",
        len(results) - invalid,
        invalid,
    )
    if skipped:
        summary += "; %d other file%s skipped" % (len(skipped), "" if len(skipped) == 1 else "s")
    if not results:
        summary = "no table files found" + (" (%d other files skipped)" % len(skipped) if skipped else "")
    out.line(summary)


def _print_strays(strays, out):
    for stray in strays:
        out.line("STRAY %s  %s (%d bytes)" % (stray["what"], stray["path"], stray["bytes"]))
        out.line("      %s" % stray["state"])
    if strays:
        out.line(
            "%d stray file%s (%d bytes) beside the tables"
            % (len(strays), "" if len(strays) == 1 else "s", sum(s["bytes"] for s in strays))
        )


def print_problem(problem, out):
    code = problem.severity if problem.code == NO_CODE else problem.code
    text = problem.message + (" at %s" % problem.where if problem.where else "")
    out.line("      %s  %s" % (code, text))
    if problem.detail:
        out.line("      %s  cause: %s" % (" " * len(code), problem.detail))
