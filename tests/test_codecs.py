"""The native codecs against CPython itself: on generated inputs, hostile ones included,
and where generated inputs rarely reach (file objects, odd Python objects, error messages
and positions, file-system failures)."""
import csv
import datetime
import errno
import gc
import io
import json
import math
import os
import stat
import subprocess
import sys

import pytest
from fuzz_support import result_of
from hypothesis import HealthCheck, example, given, settings
from hypothesis import strategies as st

from vexcore.qrvdev.QRVTableManager import _codec
from vexcore.QRVPublic import RFMode

MANY = settings(max_examples=1000, deadline=None, suppress_health_check=[HealthCheck.too_slow])

# Text built mostly from the characters the CSV machine reacts to, plus NUL,
# non-ASCII letters, astral characters and lone surrogates.
csv_alphabet = st.sampled_from([",", '"', "\n", "\r", "\0", " ", "a", "b", "1", "\u00e9", "\U0001f600", "\ud800"])
csv_texts = st.one_of(st.text(csv_alphabet, max_size=40), st.text(max_size=40))
surrogate_free = st.characters(blacklist_categories=("Cs",))


def exact(number):
    """A number with its type and sign: 1 differs from 1.0, -0.0 from 0.0, and NaN equals NaN."""
    return type(number), repr(number), math.copysign(1, number) if isinstance(number, float) else 0


# ------------------------------------------------------------------- CSV -----

def std_text(rows):
    buffer = io.StringIO()
    csv.writer(buffer).writerows(rows)
    return buffer.getvalue()


def std_rows(lines):
    reader = csv.reader(lines)
    return list(reader), reader.line_num


@MANY
@given(st.lists(st.one_of(csv_texts, st.sampled_from([b"a,b\n", 5, None])), max_size=6))   # a non-str line fails
@example(['"abc', "def"])
@example(["a\rb\n"])
@example(['x"y"z,"q"w\n'])
def test_csv_reader_on_any_lines(lines):
    assert result_of(lambda: _codec.csv_rows(lines)) == result_of(lambda: std_rows(lines))


@MANY
@given(csv_texts, st.booleans(), st.booleans())
@example("1\x00\ud800", True, True)   # a line copied for its lone surrogate, then stripped of NUL
def test_csv_reader_on_text_and_text_files(text, drop_nul, as_file):
    # A str is split after each "\n"; a file opened with newline="" also ends lines at "\r".
    source = io.StringIO(text, newline="") if as_file else text
    lines = io.StringIO(text, newline="" if as_file else "\n")
    if drop_nul:
        lines = (line.replace("\0", "") for line in lines)
    assert result_of(lambda: _codec.csv_rows(source, drop_nul)) == result_of(lambda: std_rows(lines))


@settings(max_examples=300, deadline=None)
@given(st.text(csv_alphabet, max_size=30), st.integers(0, 8))
def test_csv_reader_field_limit(text, limit):
    old = csv.field_size_limit(limit)
    try:
        expected = result_of(lambda: list(csv.reader(io.StringIO(text, newline="\n"))))
        got = result_of(lambda: _codec.csv_rows(text)[0])
    finally:
        csv.field_size_limit(old)
    assert got == expected


cells = st.one_of(
    st.text(csv_alphabet.filter(lambda c: c != "\ud800"), max_size=10),
    st.text(surrogate_free, max_size=10),
    st.none(),
    st.integers(),
    st.floats(allow_nan=True, allow_infinity=True),
    st.booleans(),
)


@MANY
@given(st.lists(st.lists(cells, max_size=6), max_size=5))
def test_csv_writer_on_any_rows(rows):
    assert _codec.csv_text(rows) == std_text(rows)


def test_csv_file_numbers_matches_reader_with_int_and_float(tmp_path):
    path = tmp_path / "c.csv"
    path.write_text("DATA,1,-2,3.5,1e-5, 7 \n\nDATA,0,1_0,inf,-0,8\n", encoding="utf-8")
    with open(path, encoding="utf-8") as f:
        expected = [[row[0], int(row[1]), int(row[2])] + [float(c) for c in row[3:]] for row in csv.reader(f) if row]
    assert repr(_codec.csv_file_numbers(path, [1, 2])) == repr(expected)
    assert result_of(lambda: _codec.csv_file_numbers(path, [1, 2, 3])) == result_of(lambda: int("3.5"))


class Custom:
    def __str__(self):
        return 'c"ustom'


@pytest.mark.parametrize("rows", [[[Custom(), 10**30, "\0"]], [("tu", "ple"), "abc", []], [5]], ids=repr)
def test_csv_text_of_odd_rows_matches_csv_writer(rows):
    assert result_of(lambda: _codec.csv_text(rows)) == result_of(lambda: std_text(rows))


# --------------------------------------------------------------- numbers -----

number_alphabet = st.sampled_from(list("0123456789+-._eE ") + ["inf", "nan", "x", "\u0663", "\u2003", "\t"])
number_texts = st.one_of(
    st.lists(number_alphabet, max_size=12).map("".join),
    st.integers().map(str),
    st.integers(min_value=-(10**60), max_value=10**60).map(str),
    st.integers(min_value=-(2**70), max_value=2**70).map(str),
    st.floats().map(repr),
    st.floats().map(lambda f: "%.17g" % f),
    st.floats().map(lambda f: "%e" % f),
    st.decimals(allow_nan=False).map(str),
)


@MANY
@given(number_texts)
@example("1e16")
@example("4.9e-324")
@example("2.4703282292062327e-324")
@example("1.7976931348623159e308")
@example("9007199254740993")
@example("-Infinity")
@example("-0")
@example("9223372036854775808")
@example("-9223372036854775809")
def test_numbers_convert_like_int_and_float(text):
    expected = result_of(lambda: exact(int(text)))
    assert result_of(lambda: exact(_codec.int_from_text(text))) == expected
    if expected[0] == "ok" and not -(2**63) <= int(text) < 2**63:
        with pytest.raises(OverflowError):
            _codec.longlong_from_text(text)
    else:
        assert result_of(lambda: exact(_codec.longlong_from_text(text))) == expected
    expected = result_of(lambda: exact(float(text)))
    assert result_of(lambda: exact(_codec.float_from_text(text))) == expected
    assert result_of(lambda: exact(_codec.double_from_text(text))) == expected


# ------------------------------------------------------------------ JSON -----

json_scalars = st.one_of(
    st.none(), st.booleans(),
    st.integers(), st.integers(min_value=-(10**80), max_value=10**80),
    st.floats(),
    st.integers(-(10**13), 10**13).map(lambda n: n / 1000),     # gains and phases: up to three decimals
    st.sampled_from([-0.0, 1e16, 1e-5, 1e-4, 1e22, 9999999999999998.0, 5e-324, 2.2250738585072014e-308,
                     float("nan"), float("inf"), float("-inf"), 0.1, 1e15, 123456.789e-10]),
    st.text(surrogate_free, max_size=12),
    st.text(st.sampled_from(["\0", "\x1f", "\x7f", '"', "\\", "\n", "\u2028", "\U0001f600", "a"]), max_size=8),
)
json_keys = st.one_of(st.text(surrogate_free, max_size=8), st.integers(), st.floats(), st.booleans(), st.none())
def json_containers(inner):
    return st.one_of(st.lists(inner, max_size=5), st.lists(inner, max_size=5).map(tuple),
                     st.dictionaries(json_keys, inner, max_size=5))


json_values = st.recursive(json_scalars, json_containers, max_leaves=40)


@MANY
@given(json_values, st.sampled_from([2, 4]))
def test_json_dumps_like_json_with_indent(value, indent):
    assert _codec.json_dumps(value, indent) == json.dumps(value, ensure_ascii=False, indent=indent)


@pytest.mark.parametrize("depth", [50, 400, 100_000])
def test_json_dumps_deep_nesting_like_json(depth):
    value = "leaf"
    for level in range(depth):
        value = [value] if level % 2 else {"k": value}
    expected = result_of(lambda: json.dumps(value, ensure_ascii=False, indent=2))
    assert result_of(lambda: _codec.json_dumps(value, 2))[:2] == expected[:2]    # too deep: RecursionError


@MANY
@given(json_values)
def test_json_loads_like_json(value):
    text = json.dumps(value, ensure_ascii=False, indent=2)
    assert repr(_codec.json_loads(text)) == repr(json.loads(text))


# A comma before a closing bracket: the json of each Python version words this
# failure its own way, and the module must word it as the running one does.
@settings(max_examples=300, deadline=None)
@given(json_values, st.sampled_from([None, 2]), st.data())
def test_json_loads_trailing_comma_like_json(value, indent, data):
    text = json.dumps(value, ensure_ascii=False, indent=indent)
    closing = [i for i, c in enumerate(text) if c in "]}"]
    at = data.draw(st.sampled_from(closing)) if closing else len(text)
    text = text[:at] + data.draw(st.sampled_from([",", ", ", ",\n"])) + text[at:]
    assert result_of(lambda: repr(_codec.json_loads(text))) == result_of(lambda: repr(json.loads(text)))


class MyFloat(float):
    def __repr__(self):
        return "not used"


class MyDict(dict): ...


SHARED = [1]
LOOPED = {"a": []}
LOOPED["a"].append(LOOPED)


@pytest.mark.parametrize("value", [
    {1: "int", 2.5: "float", False: "f", None: "n", RFMode.RX: "enum", float("nan"): 1, 1e16: 3},
    [RFMode.TX, MyFloat(2.5), MyDict(x=(2, [3])), 10**40],
    {"a": SHARED, "b": [SHARED, SHARED]},   # shared but not circular
    {"a": {1, 2}}, {(1, 2): 3}, LOOPED, datetime.datetime(2024, 3, 1), {datetime.date(2024, 3, 1): 1},  # refused
], ids=repr)
def test_json_dumps_matches_json_on_subclasses_keys_and_refusals(value):
    expected = result_of(lambda: json.dumps(value, ensure_ascii=False, indent=2))
    assert result_of(lambda: _codec.json_dumps(value, 2)) == expected


# Texts a drawn hostile text rarely is: the decoder's value corners, and errors with their positions.
JSON_TEXTS = [
    '{"a": 1, "a": 2}', "[1e400, -1e400, 1E-400, NaN, -Infinity, " + "9" * 50 + "]", '{"caf\u00e9": "\u65e5"}',
    '"\\ud83d\\ude00 \\u00e9 \\/"', '"\\ud800x"', '"\\udc00\\ud800"', "\ufeff[1]", "1" * 5000,
    '"\\ud800\\uzzzz"', '"\\u12g4"', '"\\x"', '"a\nb"', "Infinit", "\u00e9", '{"a": [1, {"b": }]}',
]


@settings(max_examples=800, deadline=None)
@given(st.sampled_from(JSON_TEXTS)
       | st.text(st.sampled_from(list('{}[],:"0123456789.-+eE ntrufalsNIy\\') + ["\ud800"]), max_size=20))
@example("[1,]")
@example('{"a": 1 ,\n }')
def test_json_loads_hostile_text_like_json(text):
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


# ------------------------------------------------------------------ text -----

@MANY
@given(st.binary(max_size=40) | st.text(max_size=20).map(lambda t: t.encode("utf-8", "surrogatepass")))
@example(b"\xef\xbb\xbf\r\n\r")
def test_read_text_file_like_open_read(tmp_path_factory, raw):
    path = tmp_path_factory.mktemp("text") / "file.txt"
    path.write_bytes(raw)

    def std():
        with open(path, encoding="utf-8") as f:
            return f.read()

    assert result_of(lambda: _codec.read_text_file(path)) == result_of(std)


@settings(max_examples=200, deadline=None)
@given(st.binary(max_size=200), st.binary(max_size=200) | st.text(surrogate_free, max_size=50))
def test_atomic_write_replaces_whole_content(tmp_path_factory, old, new):
    folder = tmp_path_factory.mktemp("atomic")
    path = folder / "table.json"
    path.write_bytes(old)
    _codec.write_file_atomic(path, new)        # text is written as UTF-8
    assert path.read_bytes() == (new if isinstance(new, bytes) else new.encode())
    assert os.listdir(folder) == ["table.json"]


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

# A table of several MiB, so a streamed dump hands over more than one piece.
LARGE_TABLE = "{str(b): {'ch_%d' % c: {'db': c / 8, 'deg': -c * 1.40625, 'name': '\u00e9\u4e2d' * (c % 3)} for c in range(400)} for b in range(150)}"

FAILING_WRITE = """
import resource, signal, sys
from vexcore.QRVPublic import RFMode
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
