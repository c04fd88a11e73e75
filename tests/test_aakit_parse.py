"""Antenna-kit manager: construction, finding kit files and reading them."""
import csv
import logging
import os

import pytest
from hypothesis import HealthCheck, given, settings, strategies as st

from aakit_samples import LITE, OFFICIAL, STAMP, MOMENT, kit_rows, pinned_clock, record, write_kit, write_rows
from conftest import records
from vexcore.QRVPublic import RetCode


def manager(tm, total_ch=4, support_dev=(LITE,), **kwargs):
    return tm.AAKitTableManager(LITE, total_ch, support_dev=list(support_dev), **kwargs)


# ------------------------------------------------------------ construction --

def test_constructor_keeps_the_callers_device_list_and_uses_the_files_folder(tm, files_dir):
    devs = [LITE, 9]
    kits = tm.AAKitTableManager(9, 16, "elsewhere/", 2, devs)
    assert kits._AAKitTableManager__defaultDir == files_dir        # the folder argument is not used
    assert kits._AAKitTableManager__supportDevs is devs
    assert kits._AAKitTableManager__fieldlimit["OFFSET_TX"] == 32    # channels x polarizations


def test_web_mode_resolves_no_directory_and_parses_nothing(tm, files_dir):
    write_kit(files_dir, OFFICIAL)
    kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE], web_client_id="client")
    assert not hasattr(kits, "_AAKitTableManager__defaultDir")
    assert kits.parse().RetCode == RetCode.OK
    assert kits._AAKitTable == {}


# -------------------------------------------------------------- file search --

def test_table_path_lists_kit_files_sorted(tm, files_dir):
    for stem in ["b", "a", "C", "a_1"]:
        write_kit(files_dir, stem)
    for other in ["AAKIT.csv", "AAKIT_x.txt", "aakit_y.csv", "KIT_z.csv"]:
        (files_dir / other).write_text("AAKIT_NAME,z\n")
    found = manager(tm)._getAAKitTablePath()
    assert found == [str(files_dir / ("AAKIT_%s.csv" % s)) for s in ["C", "a", "a_1", "b"]]


def test_brackets_in_the_directory_name_are_not_a_pattern(tm, tmp_path, monkeypatch):
    directory = tmp_path / "kits[1]*"
    directory.mkdir()
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(directory))
    write_kit(directory, OFFICIAL)
    assert manager(tm)._getAAKitTablePath() == [str(directory / ("AAKIT_%s.csv" % OFFICIAL))]


def test_no_kit_file_is_an_error(tm, files_dir, caplog):
    (files_dir / "AAKIT.csv").write_text("AAKIT_NAME,never\n")
    ret = manager(tm).parse()
    message = "'%s' does not exist any AAKit table" % files_dir
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_NO_AAKIT, message)
    assert records(caplog, "AAKitTbl") == [("ERROR", message)]


# ---------------------------------------------------------------- reading --

def test_kit_files_become_records_and_a_later_file_of_the_same_kit_wins(tm, files_dir, caplog):
    caplog.set_level(logging.DEBUG)
    paths = [write_kit(files_dir, OFFICIAL, file_stem=stem, tx=(n,) * 4) for n, stem in ((1, "a"), (2, "b"))]
    kits = manager(tm)
    assert kits.parse().RetCode == RetCode.OK
    assert kits._AAKitTable == {OFFICIAL: record(tx=(2,) * 4)}
    kit = kits._AAKitTable[OFFICIAL]
    assert all(type(v) is float for v in kit["SPACING"] + kit["STEERING_H"] + kit["STEERING_V"])
    assert records(caplog, "AAKitTbl") == [("INFO", "Parsing (%s)%s done" % (OFFICIAL, path)) for path in paths]


@pytest.mark.parametrize("rows, stored", [
    ([["", "1", "2"]], {"": [1.0, 2.0]}),
    ([["STEER", "1", "2"]], {"STEER": [1.0, 2.0]}),
    ([["_V", "-1.5", "2e1", "ignored", "x"]], {"_V": [-1.5, 20.0]}),
    ([["OFFSET", " 7 ", "-1", "1_0", "+2"]], {"OFFSET": [7, -1, 10, 2]}),
    ([["TX", "1", "2", "3", "99999999999999999999999"]], {"TX": [1, 2, 3, 99999999999999999999999]}),
    ([["SPACINGS", "1"], ["COMMENT", "x"], [], ["TYPE", "-3"]], {"TYPE": -3}),
])
def test_row_keys_are_matched_as_the_format_allows(tm, files_dir, rows, stored):
    write_rows(files_dir / "AAKIT_k.csv", [["AAKIT_NAME", "k"], ["TYPE", "0"]] + rows)
    kits = manager(tm)
    assert kits.parse().RetCode == RetCode.OK
    assert kits._AAKitTable == {"k": {"TYPE": 0, **stored}}


SKIP = "Skip {path} due to parsing exception"


@pytest.mark.parametrize("stem, rows, level, message", [
    ("wrong_dev", kit_rows("a", dev_type=9), "WARNING", "Skip {path}, due to dev type(9) not match"),
    ("kit_type_2", kit_rows("b", kit_type=2), "ERROR", "Unknown custom type: 2"),
    ("short_tx", kit_rows("c", tx=(1, 2, 3)), "ERROR", "OFFSET_TX: number of channel:3 not equal to 4"),
    ("no_name", kit_rows("e")[1:], "ERROR", "Skip {path} due to unknown file"),
    ("empty_name", kit_rows(""), "ERROR", "Skip {path} due to unknown file"),
    # malformed: logged with the exception
    ("one_spacing", kit_rows("f", spacing=("5",)), IndexError, SKIP),
    ("text_spacing", kit_rows("h", spacing=("five", "5")), ValueError, SKIP),
    ("float_offset", kit_rows("i", tx=(1, 2, 3, "4.0")), ValueError, SKIP),
    ("name_row_without_value", [["AAKIT_NAME"]] + kit_rows("k")[1:], IndexError, SKIP),
    ("undecodable", b"AAKIT_NAME,\xff\xfe\n", UnicodeDecodeError, SKIP),
])
def test_refused_files_are_skipped_with_their_message_while_good_ones_load(tm, files_dir, caplog, stem, rows,
                                                                           level, message):
    path = files_dir / ("AAKIT_%s.csv" % stem)
    if isinstance(rows, bytes):
        path.write_bytes(rows)
    else:
        write_rows(path, rows)
    write_kit(files_dir, OFFICIAL)
    kits = manager(tm)
    assert kits.parse().RetCode == RetCode.OK
    assert list(kits._AAKitTable) == [OFFICIAL]
    if isinstance(level, str):
        assert (level, message.format(path=path)) in records(caplog, "AAKitTbl")
    else:
        (failure,) = [r for r in caplog.records if r.levelno == logging.ERROR]
        assert (failure.getMessage(), failure.exc_info[0]) == (message.format(path=path), level)


def test_default_support_dev_skips_every_typed_kit(tm, files_dir, caplog):
    paths = [write_kit(files_dir, name, dev_type=dev) for name, dev in [("a", LITE), ("b", 9)]]
    ret = tm.AAKitTableManager(LITE, 4).parse()
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_NO_AAKIT, "No available AAKit table here")
    assert records(caplog, "AAKitTbl") == [
        ("WARNING", "Skip %s, due to dev type(%d) not match" % (path, dev)) for path, dev in zip(paths, [LITE, 9])
    ] + [("ERROR", "No available AAKit table here")]


def test_a_kit_without_device_type_is_accepted(tm, files_dir):
    write_kit(files_dir, OFFICIAL, dev_type=None)
    kits = tm.AAKitTableManager(LITE, 4)
    assert kits.parse().RetCode == RetCode.OK
    assert kits._AAKitTable == {OFFICIAL: {k: v for k, v in record().items() if k != "DEV_TYPE"}}


# -------------------------------------------------------- custom kit names --

@pytest.fixture
def clock(tm, restore_module_globals):
    tm.datetime = pinned_clock(MOMENT)
    return tm


@pytest.mark.parametrize("old_name", ["MyKit", "My_Kit", "My_Kit_20240301123045+0800", "Kit_2024030112304512-0500"])
def test_old_format_custom_kit_is_renamed_on_disk_and_in_the_table(clock, files_dir, caplog, old_name):
    caplog.set_level(logging.INFO)
    write_kit(files_dir, old_name, kit_type=1)
    kits = manager(clock)
    assert kits.parse().RetCode == RetCode.OK
    new_name = old_name + "_" + STAMP
    assert kits._AAKitTable == {new_name: record(kit_type=1)}
    assert os.listdir(files_dir) == ["AAKIT_%s.csv" % new_name]
    assert records(caplog, "AAKitTbl")[1:3] == [("INFO", "Invalid custom AAKit name(old format): %s" % old_name),
                                                ("INFO", " -> new custom AAKit name(new format): %s" % new_name)]
    again = manager(clock)
    again.parse()
    assert again._AAKitTable == kits._AAKitTable


def test_stamped_custom_kit_and_official_kits_keep_their_names(clock, files_dir, caplog):
    caplog.set_level(logging.DEBUG)
    write_kit(files_dir, "Mine_" + STAMP, kit_type=1)
    write_kit(files_dir, "Official", kit_type=0)
    before = {p: p.read_bytes() for p in files_dir.iterdir()}
    kits = manager(clock)
    kits.parse()
    assert list(kits._AAKitTable) == ["Mine_" + STAMP, "Official"]
    assert {p: p.read_bytes() for p in files_dir.iterdir()} == before
    assert ("DEBUG", "Valid custom AAKit name") in records(caplog, "AAKitTbl")


@pytest.mark.parametrize("stem, name, kept", [
    ("other", "Old", ["Old_" + STAMP]),                     # the file is not named after its kit, so it stays
    ("sub", "sub/Kit", ["sub/Kit", "sub/Kit_" + STAMP]),    # a name that cannot name a file is refused early
])
def test_failed_rename_is_logged_and_parsing_goes_on(clock, files_dir, caplog, stem, name, kept):
    write_kit(files_dir, name, file_stem=stem, kit_type=1)
    write_kit(files_dir, OFFICIAL)
    kits = manager(clock)
    assert kits.parse().RetCode == RetCode.OK
    assert list(kits._AAKitTable) == [OFFICIAL] + kept
    assert ("ERROR", "Rename file failed") in records(caplog, "AAKitTbl")
    assert sorted(os.listdir(files_dir)) == sorted(["AAKIT_%s.csv" % stem, "AAKIT_%s.csv" % OFFICIAL])


# ------------------------------------------- rows exactly as csv.reader reads

def rows_as_python_reads_them(path, total_ch):
    """The record csv.reader plus the row rules make of one file; None when it is skipped."""
    record = {"TYPE": 0}
    try:
        with open(path) as f:
            for row in csv.reader(f):
                if not row or row[0] in ("AAKIT_NAME", "TYPE"):
                    continue
                key = row.pop(0)
                if key in "STEERING_H" or key in "STEERING_V":
                    record[key] = [float(row[0]), float(row[1])]
                elif key in "OFFSET_TX" or key in "OFFSET_RX":
                    if len(row) != total_ch:
                        return None
                    record[key] = [int(v) for v in row]
    except (ValueError, IndexError, csv.Error):
        return None
    return record


NUMBER = st.integers(-300, 300).map(str)
# Numbers as a hand-edited or exported file may hold them: plain, quoted, padded,
# with quotes, commas, NUL or line breaks where they do not belong.
CELL = st.one_of(
    NUMBER, NUMBER.map('"{}"'.format), NUMBER.map(' {} '.format), NUMBER.map("{}_0".format),
    st.sampled_from(['"1,2"', '"1\n"', '"1""2"', '1"2', '"', "", "1\0", "\0", "2.5", "1e3", "+7", "-"]),
    st.text(alphabet='0123456789,"\n\r\0 x-', max_size=6))
ROW = st.tuples(st.sampled_from(["OFFSET_TX", "TX", "STEER", "", "_H", "NOTE"]), st.lists(CELL, min_size=2, max_size=3))
LINE_END = st.sampled_from(["\n", "\r\n", "\r"])


@settings(max_examples=150, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(rows=st.lists(ROW, max_size=6), line_end=LINE_END)
def test_kit_rows_are_read_as_csv_reader_reads_them(tm, files_dir, rows, line_end):
    # Rows are joined by hand, so quotes, NUL and line breaks inside cells reach
    # the reader raw, as a hand-edited file would have them.
    lines = ["AAKIT_NAME,K", "TYPE,0"] + [",".join([key] + cells) for key, cells in rows]
    path = files_dir / "AAKIT_k.csv"
    path.write_bytes(line_end.join(lines).encode())
    kits = tm.AAKitTableManager(LITE, 3, support_dev=[LITE])
    kits.parse()
    expected = rows_as_python_reads_them(path, 3)
    assert kits._AAKitTable == ({} if expected is None else {"K": expected})


@pytest.mark.parametrize("offsets, loads", [(["1", "2", "3", "4"], True), (["1", "2", "3", "0000000000004"], False)])
def test_csv_field_size_limit_applies_to_plain_lines_too(tm, files_dir, caplog, offsets, loads):
    # The whole offset line is longer than the limit; only a single long field is refused.
    write_rows(files_dir / "AAKIT_k.csv", [["AAKIT_NAME", "k"], ["TYPE", "0"], ["OFFSET_TX"] + offsets])
    kits, previous = manager(tm), csv.field_size_limit(12)
    try:
        kits.parse()
    finally:
        csv.field_size_limit(previous)
    assert ("k" in kits._AAKitTable) is loads
    assert [r.exc_info[0] for r in caplog.records if r.exc_info] == ([] if loads else [csv.Error])
