"""The native codecs against the standard library on hand-picked inputs."""
import csv
import errno
import gc
import io
import json
import math
import os
import stat
import subprocess
import sys
from enum import IntEnum

import pytest

from vexcore.qrvdev.QRVTableManager import _codec


def std_rows(lines):
    reader = csv.reader(lines)
    return list(reader), reader.line_num


def lines_of(text):
    """The lines a file opened with newline="" yields (split after "\n", "\r" and "\r\n")."""
    return io.StringIO(text, newline="")


def split_after_newline(text):
    """The lines of text read in text mode: split after each "\n" only."""
    return io.StringIO(text, newline="\n")


# ------------------------------------------------------------------ CSV read --

CSV_TEXTS = [
    "",
    "a,b,c\n",
    "a,b,c",
    "\n\n\n",
    "a,,b,\n,\n",
    '"a,b","c""d",e\n',
    '"multi\nline",x\n',
    'ab"c,"d"e\n',
    '"unterminated\nfield',
    '"',
    'a,"',
    '"a"b"c\n',
    '"",""\n',
    "x\0y,\0\n",
    "caf\u00e9,\u65e5\u672c,\U0001f600\n",
    "\ufeffkey,1\n",
    "a\r\nb\r\n",
    "a\rb\n",
    " a , b \n",
]


@pytest.mark.parametrize("text", CSV_TEXTS)
def test_csv_rows_match_csv_reader_on_lines(text):
    assert _expect(lambda: _codec.csv_rows(lines_of(text))) == _expect(lambda: std_rows(lines_of(text)))
    expected = _expect(lambda: std_rows(split_after_newline(text)))
    assert _expect(lambda: _codec.csv_rows(text)) == expected


@pytest.mark.parametrize("text", ["a\0b,c\n\0\n", '"\0",\0x\0\n'])
def test_csv_drop_nul_matches_replace_before_reading(text):
    expected = std_rows(line.replace("\0", "") for line in lines_of(text))
    assert _codec.csv_rows(text, drop_nul=True) == expected
    assert _codec.csv_rows(lines_of(text), drop_nul=True) == expected


def test_csv_rows_read_through_a_text_file_object(tmp_path):
    path = tmp_path / "k.csv"
    path.write_bytes(b'a,"b\r\nc"\r\nd\re\n\xc3\xa9,\x00\n')
    with open(path, encoding="utf-8") as f:
        expected = std_rows(f)
    with open(path, encoding="utf-8") as f:
        assert _codec.csv_rows(f) == expected
    assert _codec.csv_rows(_codec.read_text_file(path)) == expected


def test_csv_file_numbers_matches_reader_with_int_and_float(tmp_path):
    path = tmp_path / "c.csv"
    path.write_text("DATA,1,-2,3.5,1e-5, 7 \n\nDATA,0,1_0,inf,-0,8\n", encoding="utf-8")
    with open(path, encoding="utf-8") as f:
        expected = [[row[0], int(row[1]), int(row[2])] + [float(c) for c in row[3:]] for row in csv.reader(f) if row]
    assert repr(_codec.csv_file_numbers(path, [1, 2])) == repr(expected)
    with pytest.raises(ValueError) as err:
        _codec.csv_file_numbers(path, [1, 2, 3])
    assert str(err.value) == _error_text(lambda: int("3.5"))


def test_csv_field_limit_is_read_when_the_reader_is_made():
    old = csv.field_size_limit(5)
    try:
        assert _codec.csv_rows("12345,x\n")[0] == [["12345", "x"]]
        for text in ("123456\n", '"12\u00e9456"\n'):
            with pytest.raises(csv.Error) as err:
                _codec.csv_rows(text)
            assert str(err.value) == _error_text(lambda: list(csv.reader(lines_of(text))))
    finally:
        csv.field_size_limit(old)


@pytest.mark.parametrize("item", [b"a,b\n", 5, None])
def test_csv_non_str_line_raises_csv_error_like_reader(item):
    with pytest.raises(csv.Error) as err:
        _codec.csv_rows(["ok\n", item])
    assert str(err.value) == _error_text(lambda: list(csv.reader(["ok\n", item])))


# ----------------------------------------------------------------- CSV write --

class Custom:
    def __str__(self):
        return 'c"ustom'


CSV_ROWS = [
    [],
    [""],
    [None],
    ["", ""],
    ["a", "b,c", 'q"uote', "new\nline", "cr\rx", " sp "],
    [5.0, 1e16, 1e-5, -0.0, float("nan"), float("inf"), 0.1 + 0.2],
    [1, -7, 10**30, True, False],
    [Custom(), "\u00e9\U0001f600", "\0"],
    ("tu", "ple"),
    "abc",
]


@pytest.mark.parametrize("row", CSV_ROWS, ids=repr)
def test_csv_text_matches_csv_writer(row):
    buffer = io.StringIO()
    csv.writer(buffer).writerow(row)
    assert _codec.csv_text([row]) == buffer.getvalue()


def test_csv_write_refuses_non_iterable_row_like_writer():
    with pytest.raises(csv.Error) as err:
        _codec.csv_text([5])
    assert str(err.value) == _error_text(lambda: csv.writer(io.StringIO()).writerow(5))


# -------------------------------------------------------------------- numbers --

INT_TEXTS = ["0", "-0", "+17", "007", " 42 ", "1_000", "\u0663\u0664", "9" * 18, "9" * 19,
             "-" + "9" * 30, "", " ", "1.0", "0x10", "1__0", "_1", "+-1", "abc", "1e3", "\u00e9"]


FLOAT_TEXTS = ["0", "-0", "-0.0", "1.5", "+.5", "5.", "1e16", "1E-5", "1e308", "1e309", "-1e400",
               "4.9e-324", "2.2250738585072014e-308", "1e-400", "0.1", "  2.5\t", "1_0.5", "inf",
               "-Infinity", "nan", "-NaN", "", ".", "e5", "1e", "1.2.3", "0x1p3", "\u0661.5",
               "123456789012345678901234567890", "9007199254740993"]


@pytest.mark.parametrize("text", INT_TEXTS + FLOAT_TEXTS)
def test_number_conversions_match_int_and_float(text):
    expected = _outcome(int, text)
    assert _outcome(_codec.int_from_text, text) == expected
    if expected[0] == "ok" and not -2**63 <= expected[1] < 2**63:
        with pytest.raises(OverflowError):
            _codec.longlong_from_text(text)
    else:
        assert _outcome(_codec.longlong_from_text, text) == expected
    for convert in (_codec.float_from_text, _codec.double_from_text):
        assert _outcome(convert, text) == _outcome(float, text)


# ----------------------------------------------------------------------- JSON --

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


JSON_VALUES = [
    {},
    [],
    {"a": [], "b": {}, "c": ()},
    [1, 2.5, -0.0, 1e16, 1e-5, 1e22, 5e-324, 1.7976931348623157e308, 0.1, 123456789.125],
    [float("nan"), float("inf"), float("-inf")],
    [None, True, False, "", "text"],
    ["quote\" back\\ nl\n cr\r tab\t \b \f \x00 \x1f \x7f \u00e9 \u2028 \U0001f600"],
    {1: "int", 2.5: "float", True: "t", False: "f", None: "n", "s": 1, Mode.RX: "enum"},
    {float("nan"): 1, float("inf"): 2, 1e16: 3},
    [10**40, -(10**25), Mode.TX, MyFloat(2.5)],
    MyDict({"x": [1, (2, [3])]}),
    (1, [2, {"k": (3,)}]),
    {"a": SHARED, "b": [SHARED, SHARED]},   # shared but not circular
    "top level",
    7,
]


@pytest.mark.parametrize("indent", [2, 4])
@pytest.mark.parametrize("value", JSON_VALUES, ids=repr)
def test_json_dumps_matches_json_with_indent(value, indent):
    assert _codec.json_dumps(value, indent) == json.dumps(value, ensure_ascii=False, indent=indent)


@pytest.mark.parametrize("value", [{"a": {1, 2}}, [object()], {(1, 2): 3}, {b"k": 1}, b"x", LOOPED], ids=repr)
def test_json_dumps_refuses_what_json_refuses(value):
    expected = _expect(lambda: json.dumps(value, ensure_ascii=False, indent=2))
    assert isinstance(expected, tuple) and _expect(lambda: _codec.json_dumps(value, 2)) == expected


def test_json_dumps_refuses_lone_surrogates_like_a_utf8_write():
    with pytest.raises(UnicodeEncodeError):
        _codec.json_dumps(["\ud800"], 2)


JSON_TEXTS = [
    '{"a": 1, "a": 2}', '{"b": 1, "a": [' + "9" * 50 + "]}", "[1, 1.0, 1e400, -1e400, 1E-400, NaN, -Infinity]",
    "[-0, -0.0, 0.5e1, 1e+2, 10E-1]", '"\\ud83d\\ude00 \\u00e9 \\/ \\b\\f\\n\\r\\t"', '"\\ud800"', '"\\ud800x"',
    '"\\udc00\\ud800"', '{"caf\u00e9": "\u65e5\u672c", "\\u0041": 1}', " \t\r\n [ ] \n", "{}",
    # refused, with the scanner's message and position
    "", " ", "[1,]", '{"a": 1,}', "[1 2]", '{"a" 1}', "{1: 2}", "[01]", "[1.]", "[1e]", "-", "[-]", "nul",
    "tru", "Infinit", '"abc', '"a\nb"', '"\\x"', '"\\u12"', '"\\u12g4"', '"\\ud800\\uzzzz"', "[1] x",
    "\ufeff[1]", "[" * 5 + "]" * 4, '{"a": [1, {"b": }]}', "1" * 5000, "\u00e9",
]


@pytest.mark.parametrize("text", JSON_TEXTS)
def test_json_loads_matches_json(text):
    assert _outcome(_codec.json_loads, text, repr_result=True) == _outcome(json.loads, text, repr_result=True)


def test_json_loads_shares_keys_and_constants_like_json():
    text = '[{"key": NaN}, {"key": NaN}]'
    ours, theirs = _codec.json_loads(text), json.loads(text)
    ours_keys, theirs_keys = [next(iter(d)) for d in ours], [next(iter(d)) for d in theirs]
    assert (ours_keys[0] is ours_keys[1]) == (theirs_keys[0] is theirs_keys[1])
    assert (ours[0]["key"] is ours[1]["key"]) == (theirs[0]["key"] is theirs[1]["key"])
    assert ours == theirs   # equal because the NaN is one object, as json gives it


@pytest.mark.parametrize("gc_on", [True, False])
@pytest.mark.parametrize("text", ['{"a": [1, 2]}', '{"a": [1, 2'])
def test_json_loads_leaves_the_collector_as_it_found_it(gc_on, text):
    was = gc.isenabled()
    (gc.enable if gc_on else gc.disable)()
    try:
        _outcome(_codec.json_loads, text)
        assert gc.isenabled() == gc_on
    finally:
        (gc.enable if was else gc.disable)()


# --------------------------------------------------------------------- text --

@pytest.mark.parametrize("raw", [b"", b"a\r\nb\rc\nd", b"\r\r\n\n\r", b"\xef\xbb\xbfkey,1\n",
                                 "caf\u00e9 \U0001f600\r\n".encode(), b"x\x00y"])
def test_read_text_file_matches_open_read(tmp_path, raw):
    path = tmp_path / "t.csv"
    path.write_bytes(raw)
    with open(path, encoding="utf-8") as f:
        expected = f.read()
    assert _codec.read_text_file(path) == expected
    assert _codec.read_text_file(str(path)) == expected


@pytest.mark.parametrize("raw", [b"ok\xff", b"\xc0\x80", b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"abc\xe2\x82"])
def test_read_text_file_invalid_utf8_raises_the_codec_error(tmp_path, raw):
    path = tmp_path / "bad.csv"
    path.write_bytes(raw)
    with pytest.raises(UnicodeDecodeError) as err:
        _codec.read_text_file(path)
    assert str(err.value) == _error_text(lambda: open(path, encoding="utf-8").read())


def test_read_text_file_raises_open_errors_with_filename(tmp_path):
    for target, error in ((tmp_path / "missing.csv", FileNotFoundError), (tmp_path, IsADirectoryError)):
        with pytest.raises(error) as err:
            _codec.read_text_file(target)
        assert err.value.filename == str(target)
        assert err.value.errno == _error_of(lambda: open(target).read()).errno


# ------------------------------------------------------------- atomic write --

def test_write_file_atomic_creates_with_open_mode_and_replaces(tmp_path):
    path = tmp_path / "table.json"
    reference = tmp_path / "reference.json"
    with open(reference, "w"):
        pass
    _codec.write_file_atomic(path, "first \u00e9")
    assert path.read_bytes() == "first \u00e9".encode()
    assert stat.S_IMODE(path.stat().st_mode) == stat.S_IMODE(reference.stat().st_mode)
    os.chmod(path, 0o640)
    _codec.write_file_atomic(str(path), b"second")
    assert path.read_bytes() == b"second"
    assert stat.S_IMODE(path.stat().st_mode) == 0o640
    assert sorted(p.name for p in tmp_path.iterdir()) == ["reference.json", "table.json"]


FAILING_WRITE = """
import resource, signal, sys
from vexcore.qrvdev.QRVTableManager import _codec
signal.signal(signal.SIGXFSZ, signal.SIG_IGN)   # a too-large write then fails with EFBIG
resource.setrlimit(resource.RLIMIT_FSIZE, (16, 16))
try:
    _codec.write_file_atomic(sys.argv[1], "x" * 100)
except OSError as exc:
    print(type(exc).__name__, exc.errno, exc.filename)
"""


# A table of several MiB, so a streamed dump hands over more than one piece.
LARGE_TABLE = "{str(b): {'ch_%d' % c: {'db': c / 8, 'deg': -c * 1.40625, 'name': '\u00e9\u4e2d' * (c % 3)} for c in range(400)} for b in range(150)}"

FAILING_STREAMED_DUMP = """
import resource, signal, sys
from vexcore.qrvdev.QRVTableManager import _codec
signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
resource.setrlimit(resource.RLIMIT_FSIZE, (3 << 20, 3 << 20))   # fails after the first pieces
try:
    _codec.dump_json_file_atomic(%s, 2, sys.argv[1])
except OSError as exc:
    print(type(exc).__name__, exc.errno, exc.filename)
""" % LARGE_TABLE


@pytest.mark.parametrize("script", [FAILING_WRITE, FAILING_STREAMED_DUMP], ids=["whole", "streamed"])
def test_write_failure_keeps_old_file_and_leaves_no_temporary(tmp_path, script):
    # A file-size limit makes the write itself fail, whatever the user's privileges.
    path = tmp_path / "table.csv"
    path.write_bytes(b"old")
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


def test_write_file_atomic_through_a_symlink_replaces_the_linked_file(tmp_path):
    real = tmp_path / "real.json"
    real.write_text("old")
    link = tmp_path / "link.json"
    link.symlink_to("real.json")
    _codec.write_file_atomic(link, "new")
    assert link.is_symlink() and real.read_text() == "new"


def test_write_file_atomic_read_only_file_is_refused_when_open_refuses_it(tmp_path):
    path = tmp_path / "ro.csv"
    path.write_text("old")
    os.chmod(path, 0o444)
    try:
        open(path, "w").close()   # privileged users may write anyway; then so do we
        path.write_text("old")
        expected = None
    except PermissionError as exc:
        expected = (exc.errno, exc.filename)
    if expected is None:
        _codec.write_file_atomic(path, "new")
        assert path.read_text() == "new"
    else:
        with pytest.raises(PermissionError) as err:
            _codec.write_file_atomic(path, "new")
        assert (err.value.errno, err.value.filename) == expected
        assert path.read_text() == "old"
    assert stat.S_IMODE(path.stat().st_mode) == 0o444


@pytest.mark.parametrize("make_target", ["missing_folder", "directory"])
def test_write_file_atomic_raises_open_errors(tmp_path, make_target):
    target = tmp_path / "nope" / "x.json" if make_target == "missing_folder" else tmp_path
    expected = _error_of(lambda: open(target, "w"))
    with pytest.raises(type(expected)) as err:
        _codec.write_file_atomic(target, "data")
    assert (err.value.errno, err.value.filename) == (expected.errno, expected.filename)


# ------------------------------------------------------------------ helpers --

def _error_of(action):
    try:
        action()
    except Exception as exc:  # the reference behaviour is captured, whatever it is
        return exc
    raise AssertionError("the reference call did not fail")


def _error_text(action):
    return str(_error_of(action))


def _expect(action):
    """The result of action(), or (exception type, message) when it raises."""
    try:
        return action()
    except Exception as exc:
        return (type(exc), str(exc))


def _outcome(function, text, repr_result=False):
    try:
        value = function(text)
    except Exception as exc:
        return ("error", type(exc), str(exc))
    if repr_result:
        return ("ok", repr(value))
    if isinstance(value, float) and math.isnan(value):
        return ("ok", "nan", math.copysign(1, value))
    return ("ok", value, type(value), math.copysign(1, value) if isinstance(value, float) else 0)
