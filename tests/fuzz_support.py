"""Shared pieces of the fuzz and differential tests: example counts, file mutations,
hostile argument values, a hang watchdog, the checks every public call must pass, and
the modules and peers kept with the benchmarks.

Run long with VEXCORE_FUZZ_EXAMPLES=<n>: every fuzz test then draws n examples
instead of its modest default (`make test` must stay fast).
"""
import faulthandler
import json
import os
import sys
from contextlib import contextmanager
from pathlib import Path

from hypothesis import HealthCheck, settings
from hypothesis import strategies as st

from vexcore.QRVUtils import RetType

BENCH = Path(__file__).resolve().parent.parent / "bench"


def fuzz_settings(default_examples):
    examples = int(os.environ.get("VEXCORE_FUZZ_EXAMPLES", default_examples))
    return settings(max_examples=examples, deadline=None, database=None,
                    suppress_health_check=[HealthCheck.function_scoped_fixture, HealthCheck.too_slow,
                                           HealthCheck.data_too_large, HealthCheck.filter_too_much])


@contextmanager
def hang_watchdog(seconds=900):
    """A call stuck this long inside the module is a hang: the process is ended with
    every thread's traceback instead of blocking the run for ever."""
    faulthandler.dump_traceback_later(seconds, exit=True)
    try:
        yield
    finally:
        faulthandler.cancel_dump_traceback_later()


def bench_module(name):
    """A module kept with the benchmarks (bench/<name>.py)."""
    if str(BENCH) not in sys.path:
        sys.path.insert(0, str(BENCH))
    return __import__(name, fromlist=["*"])


def baseline_module(name):
    """A pure-Python peer kept with the benchmarks (bench/baseline/<name>.py)."""
    return bench_module("baseline." + name)


def same_json(a, b):
    """Equal, or equal once written: NaN is not equal to itself, so two tables
    holding a NaN read from the same damaged cell compare unequal as objects."""
    return a == b or json.dumps(a, sort_keys=True) == json.dumps(b, sort_keys=True)


def folder_contents(folder):
    """{path relative to the folder: bytes} of every file below it (none for a missing folder)."""
    return {str(p.relative_to(folder)): p.read_bytes() for p in sorted(folder.rglob("*")) if p.is_file()}


def side_by_side(tmp_path, monkeypatch, files, classes, *args, subfolder="", **kwargs):
    """A (native, peer) pair of managers made from `classes` with the same arguments,
    each while its own files directory (tmp_path/native, tmp_path/peer) is current,
    created or emptied and holding `files` ({name: bytes}) in `subfolder`: each
    example of a differential test starts both sides from the same files."""
    managers = []
    for side, make in zip(("native", "peer"), classes):
        folder = tmp_path / side / subfolder
        folder.mkdir(parents=True, exist_ok=True)
        for old in folder.iterdir():
            old.unlink()
        for name, data in files.items():
            (folder / name).write_bytes(data)
        monkeypatch.setenv("VEXCORE_FILES_DIR", str(tmp_path / side))
        managers.append(make(*args, **kwargs))
    return managers


def outside_listing(files_dir):
    """Every path under the test's temporary folder that lies outside the files directory."""
    return sorted(str(p) for p in files_dir.parent.rglob("*") if files_dir not in p.parents and p != files_dir)


# ------------------------------------------------------------- outcomes ---

def outcome(call, *args, **kwargs):
    """("result", RetType) or ("raised", exception) of one call.

    A SystemError means the native code broke the C-API contract (an error
    returned without an exception, or a result with one pending): never allowed.
    """
    try:
        value = call(*args, **kwargs)
    except SystemError:
        raise
    except Exception as exc:      # noqa: BLE001 - the caller decides what may escape
        return "raised", exc
    return "result", value


def result_of(action):
    """What action() returns, or the type and message of what it raises: where the
    standard library is the reference, the messages must agree too."""
    kind, value = outcome(action)
    return ("ok", value) if kind == "result" else ("error", type(value), str(value))


def verdict(kind, value):
    """What two implementations must agree on: the exception type, or code and message."""
    return (kind, type(value)) if kind == "raised" else (kind, value.RetCode, value.RetMsg)


def assert_result(call, *args, allowed=(), **kwargs):
    """The call returns a RetType, or raises one of the `allowed` exception types."""
    kind, value = outcome(call, *args, **kwargs)
    if kind == "raised":
        if not isinstance(value, tuple(allowed)):
            raise AssertionError("%s raised %r" % (getattr(call, "__name__", call), value)) from value
        return None
    # RetMsg is not checked: a database refusal passes the service's message on as it is.
    assert isinstance(value, RetType), "%s returned %r" % (getattr(call, "__name__", call), value)
    return value


# ------------------------------------------------------------ mutations ---

# Bytes that reach the awkward corners of a CSV or JSON reader: quotes, NUL,
# carriage returns, separators, invalid UTF-8, multi-byte UTF-8, numbers that
# overflow or are not finite, and the row keys that steer a parser.
AWKWARD = [b"\0", b'"', b"\r", b"\n", b"\r\n", b",", b",,", b" ", b"\xff", b"\xc3", b"\xe9", "é".encode(),
           "\U0001F600".encode(), b"-", b".", b"e", b"1e999", b"-1e999", b"nan", b"inf", b"9" * 40, b"0x1F",
           b"END", b"DATA", b"DR", b"COMDR", b"ELEDR", b"TC", b"OFFSET_TX", b"TYPE", b"{", b"}", b"[", b"]",
           b":", b"null", b"true", b"\\", b"\\u0000", b"\\ud800", b'"v1.0.0"', b"1" * 400]

_mutation = st.tuples(st.sampled_from(["insert", "delete", "replace", "truncate", "repeat_line", "drop_line"]),
                      st.integers(0, 1 << 20), st.sampled_from(AWKWARD), st.integers(1, 40))
mutations = st.lists(_mutation, max_size=8)


def mutate(data, changes):
    """`data` (bytes) after each change in turn; positions wrap around the length."""
    data = bytearray(data)
    for kind, where, payload, span in changes:
        at = where % (len(data) + 1)
        if kind == "insert":
            data[at:at] = payload
        elif kind == "delete":
            del data[at:at + span]
        elif kind == "replace":
            data[at:at + len(payload)] = payload
        elif kind == "truncate":
            del data[at:]
        else:
            start = data.rfind(b"\n", 0, at) + 1
            end = data.find(b"\n", at)
            end = len(data) if end < 0 else end + 1
            data[start:end] = data[start:end] * 2 if kind == "repeat_line" else b""
    return bytes(data)


def beyond_any_device(layout):
    """A layout with a count above 1024: a manager builds the tables of such a
    layout entry by entry, as Python code would, so it is left out rather than
    waited for (a million boards of one channel each is a million entries)."""
    numbers = [v for v in (layout if isinstance(layout, (tuple, list)) else ()) if isinstance(v, int)]
    return any(abs(v) > 1024 for v in numbers)


# --------------------------------------------------------- hostile values ---

class RaisingStr:
    """An object whose text form fails, as a broken driver value might."""

    def __str__(self):
        raise RuntimeError("no text form")

    def __format__(self, spec):
        raise RuntimeError("no format")


class RaisingEq:
    """Compares by raising and hashes by raising: any lookup with it fails."""

    def __eq__(self, other):
        raise RuntimeError("no comparison")

    def __hash__(self):
        raise RuntimeError("no hash")


class LyingSequence:
    """Claims a length that its items do not have."""

    def __len__(self):
        return 3

    def __getitem__(self, index):
        if index >= 1:
            raise IndexError(index)
        return 1


class BigIndex:
    def __index__(self):
        return 1 << 200


class ShrinkingDict(dict):
    """A mapping that empties itself while it is being read."""

    def __getitem__(self, key):
        value = dict.__getitem__(self, key)
        self.clear()
        return value

    def items(self):
        pairs = list(dict.items(self))
        self.clear()
        return iter(pairs)


class StrSubclass(str): ...


class FloatSubclass(float):
    def __repr__(self):
        return "FloatSubclass(%s)" % float.__repr__(self)


scalars = st.one_of(
    st.none(), st.booleans(), st.integers(-(1 << 70), 1 << 70), st.sampled_from([0, 1, 2, -1, 4, 5, 8, 13]),
    st.floats(allow_nan=True, allow_infinity=True), st.text(max_size=12), st.binary(max_size=6),
    st.sampled_from(["TX", "RX", "", "board_1", "channel_1", "db", "\0", "../x", "*", "[", "K5350R019-28"]),
)

HOSTILE = {"raising_str": RaisingStr, "raising_eq": RaisingEq, "lying_sequence": LyingSequence,
           "big_index": BigIndex, "object": object, "str_subclass": lambda: StrSubclass("TX"),
           "float_subclass": lambda: FloatSubclass(1.5), "shrinking_dict": lambda: ShrinkingDict(a=1, board_1={}),
           "function": lambda: (lambda *a, **k: None), "type": lambda: int}
hostile = st.sampled_from(sorted(HOSTILE)).map(lambda kind: HOSTILE[kind]())

# Any value a careless or hostile caller might pass: scalars, odd objects, and
# containers of them nested a few levels deep.
values = st.recursive(
    st.one_of(scalars, hostile),
    lambda inner: st.one_of(st.lists(inner, max_size=4), st.tuples(inner, inner),
                            st.dictionaries(st.one_of(st.text(max_size=10), st.sampled_from(
                                ["board_1", "board_2", "channel_1", "common_db", "db", "theta", "phi", "sw", "deg",
                                 "TX", "RX", "1", "beam_type", "beam_config", "channel_config",
                                 "beam_description"])), inner, max_size=5)),
    max_leaves=12)
