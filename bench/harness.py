"""Side-by-side timing: one operation, several implementations ("sides"), interleaved samples.

Every side of an operation does the same work on its own copy of the data. The samples of
the sides are taken in turn (module, Python, stdlib, then Python, stdlib, module, ...), so
a burst of load from other processes on the machine hits all of them alike, and the
median of each side is reported. A side whose module part does not exist yet is reported
as "not available", never dropped.
"""

import contextlib
import gc
import hashlib
import json
import math
import statistics
import time
import traceback
from dataclasses import dataclass, field
from typing import Any, Callable, Optional

MODULE, PYTHON, STDLIB = "module", "python", "stdlib"
SIDE_ORDER = (MODULE, PYTHON, STDLIB)

HEAVY_CALL_S = 5.0  # calls slower than this get fewer repetitions
HEAVY_REPS = 3
MAX_CALLS_PER_SAMPLE = 100_000


class NotAvailable(Exception):
    """The module does not provide what this side needs (yet)."""


class CallFailed(Exception):
    """A call returned an error result instead of doing its work."""


@dataclass
class Side:
    kind: str  # MODULE, PYTHON or STDLIB
    setup: Callable[[], Any]  # untimed; returns the context handed to every call
    call: Callable[[Any], Any]  # the timed work
    label: str = ""  # what the side runs, e.g. "json.load"
    reset: Optional[Callable[[Any], None]] = None  # untimed, before every call that needs fresh state
    outcome: Optional[Callable[[Any, Any], Any]] = None  # (context, call result) -> what must match across sides
    requires: tuple = ()  # ("Class", "method") pairs the module must define


@dataclass
class Operation:
    key: str
    title: str
    dataset: str
    sides: list
    memory: bool = False  # also measure peak memory in a fresh process
    target: Optional[dict] = None  # {"against": PYTHON or STDLIB, "at_least": x} on large data
    note: str = ""
    results: dict = field(default_factory=dict)


def missing_names(module, requires):
    """The "Class.method" names of `requires` that the module does not define itself."""
    missing = []
    for class_name, method in requires:
        cls = getattr(module, class_name, None)
        if cls is None or method not in vars(cls):
            missing.append("%s.%s" % (class_name, method))
    return missing


def digest(value):
    """A fingerprint of a result that is sensitive to types (1 vs 1.0), order and content."""
    if isinstance(value, bytes):
        return hashlib.sha256(value).hexdigest()
    text = json.dumps(value, ensure_ascii=False, default=repr)
    return hashlib.sha256(text.encode("utf-8", "surrogatepass")).hexdigest()


# ------------------------------------------------------------- measuring ---


def measure(op, module, reps, min_sample_s):
    """Fills op.results: per side a status and, when it ran, its samples and median."""
    contexts = {}
    for side in op.sides:
        contexts[side.kind] = _set_up(op, side, module)
    live = [side for side in op.sides if op.results[side.kind]["status"] == "ok"]
    numbers = {side.kind: _first_call(op, side, contexts[side.kind], min_sample_s) for side in live}
    live = [side for side in live if op.results[side.kind]["status"] == "ok"]
    if any(op.results[s.kind]["first_call_s"] >= HEAVY_CALL_S for s in live):
        reps = min(reps, HEAVY_REPS)
    for rep in range(reps):
        for side in _rotated(live, rep):
            _take_sample(op, side, contexts[side.kind], numbers[side.kind])
    for side in live:
        _summarise(op.results[side.kind])
    contexts.clear()
    gc.collect()


def _set_up(op, side, module):
    op.results[side.kind] = {"label": side.label, "status": "ok"}
    missing = missing_names(module, side.requires)
    if missing:
        _mark(op, side, "not available", "the module does not define " + ", ".join(missing))
        return None
    try:
        context = side.setup()
    except Exception as error:
        _mark(op, side, failure_status(side, error), _describe(error))
        return None
    return context


def _first_call(op, side, context, min_sample_s):
    """Runs one untimed-for-the-record call: checks the side works, fingerprints its result
    and decides how many calls one sample needs to last at least min_sample_s."""
    try:
        if side.reset:
            side.reset(context)
        with collector_isolated():
            start = time.perf_counter()
            result = side.call(context)
            elapsed = time.perf_counter() - start
        if side.outcome:
            op.results[side.kind]["outcome"] = digest(side.outcome(context, result))
    except Exception as error:
        _mark(op, side, failure_status(side, error), _describe(error))
        return 0
    op.results[side.kind]["first_call_s"] = elapsed
    if side.reset or elapsed >= min_sample_s:
        return 1
    return min(MAX_CALLS_PER_SAMPLE, math.ceil(min_sample_s / max(elapsed, 1e-7)))


@contextlib.contextmanager
def collector_isolated():
    """The collector stays on, but only for what the timed code creates: everything alive
    before (the tables of every side's context) is frozen out of it, so one side's
    millions of objects do not slow the collections another side's call triggers.
    Unfreezing lifts every freeze, also one made before (3.12 starts with a few hundred
    of its own objects frozen): they become ordinary old objects, which costs nothing
    the measurements would notice."""
    gc.collect()
    gc.freeze()
    try:
        yield
    finally:
        gc.unfreeze()


def _take_sample(op, side, context, number):
    result = op.results[side.kind]
    if result["status"] != "ok":
        return
    try:
        if side.reset:
            side.reset(context)
        with collector_isolated():
            call = side.call
            start = time.perf_counter()
            for _ in range(number):
                call(context)
            elapsed = time.perf_counter() - start
    except Exception as error:
        _mark(op, side, "failed", _describe(error))
        return
    result.setdefault("samples_s", []).append(elapsed / number)
    result["calls_per_sample"] = number


def _summarise(result):
    samples = result.get("samples_s")
    if samples:
        result["median_s"] = statistics.median(samples)


def _rotated(sides, rep):
    if not sides:
        return []
    shift = rep % len(sides)
    return sides[shift:] + sides[:shift]


def failure_status(side, error):
    # A module method that is missing or still a stub shows up as one of these.
    unfinished = (NotAvailable, AttributeError, NotImplementedError)
    return "not available" if side.kind == MODULE and isinstance(error, unfinished) else "failed"


def _mark(op, side, status, reason):
    op.results[side.kind].update(status=status, reason=reason)


def _describe(error):
    last = traceback.extract_tb(error.__traceback__)[-1:] if error.__traceback__ else []
    where = " (%s:%d)" % (last[0].filename.rsplit("/", 1)[-1], last[0].lineno) if last else ""
    return "%s: %s%s" % (type(error).__name__, error, where)


# --------------------------------------------------------------- summary ---


def ratio(op, against):
    """How many times faster the module is than `against` (median over median), or None."""
    module, other = op.results.get(MODULE, {}), op.results.get(against, {})
    if "median_s" in module and "median_s" in other and module["median_s"] > 0:
        return other["median_s"] / module["median_s"]
    return None


def same_result(op):
    """True when every side that fingerprinted its result got the same one, False on any
    difference, None when fewer than two sides have a fingerprint to compare."""
    outcomes = [op.results[kind]["outcome"] for kind in SIDE_ORDER if "outcome" in op.results.get(kind, {})]
    if len(outcomes) < 2:
        return None
    return len(set(outcomes)) == 1


def target_status(op):
    if not op.target:
        return None
    value = ratio(op, op.target["against"])
    if value is None:
        return "not measured"
    return "met" if value >= op.target["at_least"] else "missed"
