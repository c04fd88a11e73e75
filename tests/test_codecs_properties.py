"""The native codecs against CPython itself on generated inputs, hostile ones included."""
import csv
import io
import json
import math
import os

import pytest
from fuzz_support import result_of
from hypothesis import HealthCheck, example, given, settings
from hypothesis import strategies as st

from vexcore.qrvdev.QRVTableManager import _codec

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

def std_rows(lines):
    reader = csv.reader(lines)
    return list(reader), reader.line_num


@MANY
@given(st.lists(csv_texts, max_size=6))
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
    buffer = io.StringIO()
    csv.writer(buffer).writerows(rows)
    assert _codec.csv_text(rows) == buffer.getvalue()


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


@settings(max_examples=800, deadline=None)
@given(st.text(st.sampled_from(list('{}[],:"0123456789.-+eE ntrufalsNIy\\') + ["\ud800"]), max_size=20))
@example("[1,]")
@example('{"a": 1 ,\n }')
def test_json_loads_hostile_text_like_json(text):
    assert result_of(lambda: repr(_codec.json_loads(text))) == result_of(lambda: repr(json.loads(text)))


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
@given(st.binary(max_size=200), st.binary(max_size=200))
def test_atomic_write_replaces_whole_content(tmp_path_factory, old, new):
    folder = tmp_path_factory.mktemp("atomic")
    path = folder / "table.json"
    path.write_bytes(old)
    _codec.write_file_atomic(path, new)
    assert path.read_bytes() == new
    assert os.listdir(folder) == ["table.json"]
