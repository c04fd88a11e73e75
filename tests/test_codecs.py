"""The native codecs against the standard library where generated inputs rarely reach:
file objects, odd Python objects, error messages and positions, file-system failures."""
import csv
import datetime
import errno
import gc
import io
import json
import os
import stat
import subprocess
import sys
from enum import IntEnum

import pytest
from fuzz_support import result_of

from vexcore.qrvdev.QRVTableManager import _codec

# ------------------------------------------------------------------ CSV --

def test_csv_file_numbers_matches_reader_with_int_and_float(tmp_path):
    path = tmp_path / "c.csv"
    path.write_text("DATA,1,-2,3.5,1e-5, 7 \n\nDATA,0,1_0,inf,-0,8\n", encoding="utf-8")
    with open(path, encoding="utf-8") as f:
        expected = [[row[0], int(row[1]), int(row[2])] + [float(c) for c in row[3:]] for row in csv.reader(f) if row]
    assert repr(_codec.csv_file_numbers(path, [1, 2])) == repr(expected)
    assert result_of(lambda: _codec.csv_file_numbers(path, [1, 2, 3])) == result_of(lambda: int("3.5"))


@pytest.mark.parametrize("item", [b"a,b\n", 5, None])
def test_csv_non_str_line_raises_csv_error_like_reader(item):
    assert result_of(lambda: _codec.csv_rows(["ok\n", item])) == result_of(lambda: list(csv.reader(["ok\n", item])))


class Custom:
    def __str__(self):
        return 'c"ustom'


def std_text(rows):
    buffer = io.StringIO()
    csv.writer(buffer).writerows(rows)
    return buffer.getvalue()


@pytest.mark.parametrize("rows", [[[Custom(), 10**30, "\0"]], [("tu", "ple"), "abc", []], [5]], ids=repr)
def test_csv_text_of_odd_rows_matches_csv_writer(rows):
    assert result_of(lambda: _codec.csv_text(rows)) == result_of(lambda: std_text(rows))


# ----------------------------------------------------------------- JSON --

class Mode(IntEnum):
    TX = 0
    RX = 1


class MyFloat(float):
    def __repr__(self):
        return "not used"


class MyDict(dict):
    pass


SHARED = [1]
LOOPED = {"a": []}
LOOPED["a"].append(LOOPED)


@pytest.mark.parametrize("value", [
    {1: "int", 2.5: "float", False: "f", None: "n", Mode.RX: "enum", float("nan"): 1, 1e16: 3},
    [Mode.TX, MyFloat(2.5), MyDict(x=(2, [3])), 10**40],
    {"a": SHARED, "b": [SHARED, SHARED]},   # shared but not circular
    {"a": {1, 2}}, {(1, 2): 3}, LOOPED, datetime.datetime(2024, 3, 1), {datetime.date(2024, 3, 1): 1},  # refused
], ids=repr)
def test_json_dumps_matches_json_on_subclasses_keys_and_refusals(value):
    expected = result_of(lambda: json.dumps(value, ensure_ascii=False, indent=2))
    assert result_of(lambda: _codec.json_dumps(value, 2)) == expected


def test_json_dumps_refuses_lone_surrogates_like_a_utf8_write():
    with pytest.raises(UnicodeEncodeError):
        _codec.json_dumps(["\ud800"], 2)


# Texts the generated ones rarely hit: the decoder's value corners, and errors with their positions.
JSON_TEXTS = [
    '{"a": 1, "a": 2}', "[1e400, -1e400, 1E-400, NaN, -Infinity, " + "9" * 50 + "]", '{"caf\u00e9": "\u65e5"}',
    '"\\ud83d\\ude00 \\u00e9 \\/"', '"\\ud800x"', '"\\udc00\\ud800"', "\ufeff[1]", "1" * 5000,
    '"\\ud800\\uzzzz"', '"\\u12g4"', '"\\x"', '"a\nb"', "Infinit", "\u00e9", '{"a": [1, {"b": }]}',
]


@pytest.mark.parametrize("text", JSON_TEXTS)
def test_json_loads_matches_json(text):
    assert result_of(lambda: repr(_codec.json_loads(text))) == result_of(lambda: repr(json.loads(text)))


def test_json_loads_shares_keys_and_constants_like_json():
    text = '[{"key": NaN}, {"key": NaN}]'
    ours, theirs = _codec.json_loads(text), json.loads(text)
    ours_keys, theirs_keys = [next(iter(d)) for d in ours], [next(iter(d)) for d in theirs]
    assert (ours_keys[0] is ours_keys[1]) == (theirs_keys[0] is theirs_keys[1])
    assert ours == theirs   # equal only if the NaN is one object, as json gives it


@pytest.mark.parametrize("gc_on", [True, False])
@pytest.mark.parametrize("text", ['{"a": [1, 2]}', '{"a": [1, 2'])
def test_json_loads_leaves_the_collector_as_it_found_it(gc_on, text):
    was = gc.isenabled()
    (gc.enable if gc_on else gc.disable)()
    try:
        result_of(lambda: _codec.json_loads(text))
        assert gc.isenabled() == gc_on
    finally:
        (gc.enable if was else gc.disable)()


# ------------------------------------------------------- files: errors --

@pytest.mark.parametrize("name, mode", [("missing.csv", "r"), (".", "r"), ("nope/x.json", "w"), (".", "w")])
def test_open_errors_are_raised_as_open_raises_them(tmp_path, name, mode):
    target = tmp_path / name     # "." is the folder itself
    with pytest.raises(OSError) as expected:
        open(target, mode)
    action = _codec.read_text_file if mode == "r" else lambda path: _codec.write_file_atomic(path, "data")
    with pytest.raises(type(expected.value)) as err:
        action(target)
    assert (err.value.errno, err.value.filename) == (expected.value.errno, str(target))


# -------------------------------------------------------- atomic write --

def test_write_file_atomic_keeps_the_mode_and_the_link_it_replaces(tmp_path):
    path, link, reference = tmp_path / "table.json", tmp_path / "link.json", tmp_path / "reference.json"
    open(reference, "w").close()
    _codec.write_file_atomic(path, "first \u00e9")          # a new file gets the mode open() gives
    assert path.read_bytes() == "first \u00e9".encode()
    assert stat.S_IMODE(path.stat().st_mode) == stat.S_IMODE(reference.stat().st_mode)
    os.chmod(path, 0o640)
    link.symlink_to("table.json")
    _codec.write_file_atomic(str(link), b"second")
    assert path.read_bytes() == b"second" and link.is_symlink()
    assert stat.S_IMODE(path.stat().st_mode) == 0o640
    assert sorted(p.name for p in tmp_path.iterdir()) == ["link.json", "reference.json", "table.json"]


# A table of several MiB, so a streamed dump hands over more than one piece.
LARGE_TABLE = "{str(b): {'ch_%d' % c: {'db': c / 8, 'deg': -c * 1.40625, 'name': '\u00e9\u4e2d' * (c % 3)} for c in range(400)} for b in range(150)}"

FAILING_WRITE = """
import resource, signal, sys
from vexcore.qrvdev.QRVTableManager import _codec
signal.signal(signal.SIGXFSZ, signal.SIG_IGN)   # a too-large write then fails with EFBIG
resource.setrlimit(resource.RLIMIT_FSIZE, (%d, %d))
try:
    %s
except OSError as exc:
    print(type(exc).__name__, exc.errno, exc.filename)
"""


@pytest.mark.parametrize("limit, call", [
    (16, '_codec.write_file_atomic(sys.argv[1], "x" * 100)'),
    (3 << 20, "_codec.dump_json_file_atomic(%s, 2, sys.argv[1])" % LARGE_TABLE),   # fails after the first pieces
], ids=["whole", "streamed"])
def test_write_failure_keeps_old_file_and_leaves_no_temporary(tmp_path, limit, call):
    # A file-size limit makes the write itself fail, whatever the user's privileges.
    path = tmp_path / "table.csv"
    path.write_bytes(b"old")
    script = FAILING_WRITE % (limit, limit, call)
    done = subprocess.run([sys.executable, "-c", script, str(path)], capture_output=True, text=True, check=True)
    assert done.stdout.split() == ["OSError", str(errno.EFBIG), str(path)]
    assert path.read_bytes() == b"old"
    assert [p.name for p in tmp_path.iterdir()] == ["table.csv"]


def test_streamed_dump_writes_json_dumps_bytes_or_nothing(tmp_path):
    table = eval(LARGE_TABLE)
    path = tmp_path / "table.json"
    _codec.dump_json_file_atomic(table, 2, path)
    expected = json.dumps(table, ensure_ascii=False, indent=2).encode()
    assert len(expected) > 3 << 20 and path.read_bytes() == expected
    # A value the encoder refuses, met after several pieces reached the temporary file.
    table["149"]["ch_399"]["db"] = {1, 2}
    with pytest.raises(TypeError, match="Object of type set is not JSON serializable"):
        _codec.dump_json_file_atomic(table, 2, path)
    assert path.read_bytes() == expected
    assert [p.name for p in tmp_path.iterdir()] == ["table.json"]


def test_write_file_atomic_read_only_file_is_refused_when_open_refuses_it(tmp_path):
    path = tmp_path / "ro.csv"
    path.write_text("old")
    os.chmod(path, 0o444)
    expected = result_of(lambda: open(path, "a").close())   # privileged users may write anyway; then so do we
    assert result_of(lambda: _codec.write_file_atomic(path, "new")) == expected
    assert path.read_text() == ("new" if expected[0] == "ok" else "old")
    assert stat.S_IMODE(path.stat().st_mode) == 0o444
