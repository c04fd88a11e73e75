"""What every table check produces: problems, each with the code and message the
module gave (or the exception a query let through), where in the file it lies and
the cause the manager logged."""

import dataclasses
import os
from typing import List

from vexcore.qrvdev.QRVTableManager import _codec
from vexcore.QRVPublic import RetCode

ERROR = "error"
WARNING = "warning"
NO_CODE = "-"  # a finding of this tool, not a result of the module


@dataclasses.dataclass
class Problem:
    message: str
    code: str = NO_CODE
    where: str = ""
    detail: str = ""
    severity: str = ERROR

    def as_dict(self):
        return dataclasses.asdict(self)


class ToolError(Exception):
    """A user error: printed as one line, without a traceback."""


def write_file(path, data):
    """Writes `data` (bytes) to `path` as the managers write their tables: atomically
    (a kill leaves the old file or the new one), a replaced file keeping its mode, a
    new one getting the mode the umask gives, a symbolic link followed so that the
    file it names is replaced."""
    try:
        _codec.write_file_atomic(os.fspath(path), data)
    except OSError as error:
        raise ToolError("cannot write %s: %s" % (path, error.strerror or error)) from error


@dataclasses.dataclass
class TableResult:
    """One file run through its manager: the problems found and what was learnt."""

    path: str
    kind: str
    problems: List[Problem] = dataclasses.field(default_factory=list)
    summary: str = ""

    @property
    def valid(self):
        return not any(p.severity == ERROR for p in self.problems)

    def release(self):
        """Drops the loaded table and managers once only the findings are needed."""

    def add(self, message, code=NO_CODE, where="", detail="", severity=ERROR):
        self.problems.append(Problem(message, code, where, detail, severity))

    def add_result(self, ret, what, where="", detail=""):
        """Records a non-OK RetType; returns True when `ret` was OK."""
        if ret.RetCode == RetCode.OK:
            return True
        severity = WARNING if ret.RetCode == RetCode.WARNING else ERROR
        message = ret.RetMsg or what
        self.add(message, ret.RetCode.name, where, "" if detail == message else detail, severity)
        return False


def call_query(result, what, call):
    """Runs one manager query; a failure (result or escaped exception) becomes a problem.

    Returns the data, or None when the query failed.
    """
    try:
        ret = call()
    except Exception as error:  # the internal queries let lookup errors through by design
        result.add("%s failed" % what, type(error).__name__, detail=_describe(error))
        return None
    if hasattr(ret, "RetCode"):
        return ret.RetData if result.add_result(ret, "%s failed" % what) else None
    return ret


def _describe(error):
    if isinstance(error, KeyError) and error.args:
        return "no entry %r in the table" % (error.args[0],)
    return str(error)


def first_failing_prefix(count, fails):
    """The smallest k in 1..count for which fails(k) holds, or None.

    `fails` must be monotone (once a prefix fails, every longer one fails), which
    holds for the managers' readers: they stop at the first bad row.
    """
    if count == 0 or not fails(count):
        return None
    low, high = 1, count
    while low < high:
        middle = (low + high) // 2
        if fails(middle):
            high = middle
        else:
            low = middle + 1
    return low


def line_label(lines, number):
    """'line 12 (DATA)' for the 1-based line `number` of `lines`."""
    text = lines[number - 1].strip().replace("\0", "")
    key = text.split(",", 1)[0]
    return "line %d (%s)" % (number, key) if key else "line %d" % number


def as_number(value):
    """A plain int/float (not a bool), else None."""
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        return None
    return value


def unwrap(value):
    """A one-element list stands for its element (how element limits are stored)."""
    if isinstance(value, list) and len(value) == 1:
        return value[0]
    return value
