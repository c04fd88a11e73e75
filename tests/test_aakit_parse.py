"""Antenna-kit manager: construction, finding kit files and reading them."""
import csv
import datetime
import logging
import os

import pytest
from aakit_samples import LITE, MOMENT, OFFICIAL, STAMP, kit_rows, pinned_clock, record, write_kit, write_rows
from conftest import records
from fuzz_support import baseline_module
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from vexcore.QRVPublic import RetCode


def manager(tm, total_ch=4, support_dev=(LITE,), **kwargs):
    return tm.AAKitTableManager(LITE, total_ch, support_dev=list(support_dev), **kwargs)


# ------------------------------------------------------------ construction --

def test_constructor_keeps_the_callers_device_list_and_uses_the_files_folder(tm, files_dir):
    # That a web-mode parse reads no file: the bridge's result-form test; that it writes none: the web-mode tests.
    devs = [LITE, 9]
    kits = tm.AAKitTableManager(9, 16, "elsewhere/", 2, devs)
    assert kits._AAKitTableManager__defaultDir == files_dir        # the folder argument is not used
    assert kits._AAKitTableManager__supportDevs is devs
    assert kits._AAKitTableManager__fieldlimit["OFFSET_TX"] == 32    # channels x polarizations


# -------------------------------------------------------------- file search --

def test_kit_files_are_found_sorted_in_a_folder_whose_name_is_no_pattern(tm, tmp_path, monkeypatch, caplog):
    directory = tmp_path / "kits[1]*"
    directory.mkdir()
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(directory))
    for other in ["AAKIT.csv", "AAKIT_x.txt", "aakit_y.csv", "KIT_z.csv"]:
        (directory / other).write_text("AAKIT_NAME,z\n")
    ret = manager(tm).parse()
    message = "'%s' does not exist any AAKit table" % directory
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_NO_AAKIT, message)
    assert records(caplog, "AAKitTbl") == [("ERROR", message)]
    for stem in ["b", "a", "C", "a_1"]:
        write_kit(directory, stem)
    found = manager(tm)._getAAKitTablePath()
    assert found == [str(directory / ("AAKIT_%s.csv" % s)) for s in ["C", "a", "a_1", "b"]]


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


K = [["AAKIT_NAME", "k"], ["TYPE", "0"]]
SKIP = "Skip {path} due to parsing exception"


@pytest.mark.parametrize("rows, stored, level, message", [
    # Row keys are matched by containment in the field names, as the format allows (the rows
    # the Python peer reads alike are drawn below, with keys, numbers and extra cells of every kind).
    (K + [["TX", "1", "2", "3", "99999999999999999999999"]], {"TX": [1, 2, 3, 99999999999999999999999]}, None, None),
    (K + [["SPACINGS", "1"], ["COMMENT", "x"], [], ["TYPE", "-3"]], {"TYPE": -3}, None, None),
    # Refused files are skipped with their message.
    (kit_rows("k", dev_type=9), None, "WARNING", "Skip {path}, due to dev type(9) not match"),
    (kit_rows("k", kit_type=2), None, "ERROR", "Unknown custom type: 2"),
    (kit_rows("k", tx=(1, 2, 3)), None, "ERROR", "OFFSET_TX: number of channel:3 not equal to 4"),
    (kit_rows("k")[1:], None, "ERROR", "Skip {path} due to unknown file"),
    # Malformed files: logged with the exception.
    (kit_rows("k", spacing=("5",)), None, IndexError, SKIP),
    (b"AAKIT_NAME,\xff\xfe\n", None, UnicodeDecodeError, SKIP),
])
def test_each_file_is_read_or_skipped_with_its_message_while_others_load(tm, files_dir, caplog, rows, stored,
                                                                         level, message):
    path = write_rows(files_dir / "AAKIT_k.csv", rows)
    write_kit(files_dir, OFFICIAL)
    kits = manager(tm)
    assert kits.parse().RetCode == RetCode.OK
    assert kits._AAKitTable == {OFFICIAL: record(), **({} if stored is None else {"k": {"TYPE": 0, **stored}})}
    problems = [r for r in caplog.records if r.levelno >= logging.WARNING]
    if level is None:
        assert problems == []
    elif isinstance(level, str):
        assert [(r.levelname, r.getMessage()) for r in problems] == [(level, message.format(path=path))]
    else:
        assert [(r.getMessage(), r.exc_info[0]) for r in problems] == [(message.format(path=path), level)]


def test_default_support_dev_skips_every_typed_kit_but_not_an_untyped_one(tm, files_dir, caplog):
    paths = [write_kit(files_dir, name, dev_type=dev) for name, dev in [("a", LITE), ("b", 9)]]
    ret = tm.AAKitTableManager(LITE, 4).parse()
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_NO_AAKIT, "No available AAKit table here")
    assert records(caplog, "AAKitTbl") == [
        ("WARNING", "Skip %s, due to dev type(%d) not match" % (path, dev)) for path, dev in zip(paths, [LITE, 9])
    ] + [("ERROR", "No available AAKit table here")]
    write_kit(files_dir, OFFICIAL, dev_type=None)
    kits = tm.AAKitTableManager(LITE, 4)
    assert kits.parse().RetCode == RetCode.OK
    assert kits._AAKitTable == {OFFICIAL: {k: v for k, v in record().items() if k != "DEV_TYPE"}}


# -------------------------------------------------------- custom kit names --

@pytest.fixture
def clock(tm, restore_module_globals):
    tm.datetime = pinned_clock(MOMENT)
    return tm


@pytest.mark.parametrize("name, kit_type, stored", [
    ("My_Kit_20240301123045+0800", 1, "My_Kit_20240301123045+0800_" + STAMP),    # no hundredths: renamed
    ("Mine_" + STAMP, 1, "Mine_" + STAMP),
    ("My_Kit", 0, "My_Kit"),                    # official kits keep any name
])
def test_custom_kits_are_renamed_to_the_stamped_format_on_disk_and_in_the_table(clock, files_dir, caplog, name,
                                                                                kit_type, stored):
    caplog.set_level(logging.DEBUG)
    written = write_kit(files_dir, name, kit_type=kit_type).read_bytes()
    kits = manager(clock)
    assert kits.parse().RetCode == RetCode.OK
    assert kits._AAKitTable == {stored: record(kit_type=kit_type)}
    assert os.listdir(files_dir) == ["AAKIT_%s.csv" % stored]
    log = records(caplog, "AAKitTbl")
    if stored == name:
        assert (files_dir / ("AAKIT_%s.csv" % name)).read_bytes() == written
        assert (("DEBUG", "Valid custom AAKit name") in log) is (kit_type == 1)
    else:
        at = log.index(("INFO", "Invalid custom AAKit name(old format): %s" % name))
        assert log[at + 1] == ("INFO", " -> new custom AAKit name(new format): %s" % stored)


LONG = "K" * 240      # its file name fits; with a stamp added it would not


@pytest.mark.parametrize("stem, name, reason", [
    ("sub", "sub/Kit", "must not contain a path separator"),   # a name that cannot name a file is refused early
    (LONG, LONG, "bytes long, more than the file system takes"),
])
def test_failed_rename_is_logged_parsing_goes_on_and_the_file_stays(clock, files_dir, caplog, stem, name, reason):
    write_kit(files_dir, name, file_stem=stem, kit_type=1)
    write_kit(files_dir, OFFICIAL)
    kits = manager(clock)
    assert kits.parse().RetCode == RetCode.OK
    assert sorted(kits._AAKitTable) == sorted([OFFICIAL, name, name + "_" + STAMP])
    log = records(caplog, "AAKitTbl")
    assert ("ERROR", "Rename file failed") in log and any(reason in message for _, message in log)
    assert sorted(os.listdir(files_dir)) == sorted(["AAKIT_%s.csv" % stem, "AAKIT_%s.csv" % OFFICIAL])


def test_west_of_utc_a_custom_kit_is_renamed_at_every_parse_until_its_name_is_as_long_as_files_take(
        tm, files_dir, time_zone):
    # Stamps with a "-" offset never pass the name check, so every parse adds one (22 characters).
    time_zone("EST5")
    write_kit(files_dir, "MyKit", kit_type=1, tx=(9,) * 4)
    lengths = []
    for _ in range(12):
        kits = manager(tm)
        assert kits.parse().RetCode == RetCode.OK
        [file_name] = os.listdir(files_dir)
        name = file_name[len("AAKIT_"):-len(".csv")]
        assert name.endswith("-0500") and kits._AAKitTable[name] == record(kit_type=1, tx=(9,) * 4)
        lengths.append(len(name))
    assert lengths == [5 + 22 * n for n in range(1, 11)] + [225, 225]


@pytest.mark.parametrize("copy_stem", ["Alpha", "Zeta"])      # read before, and after, the original
def test_a_copied_kit_file_is_migrated_from_itself_and_the_original_is_kept(tm, restore_module_globals, files_dir,
                                                                             caplog, copy_stem):
    # Both files name the kit Beta; migrated in the same hundredth of a second
    # they would get one name, so the second waits for the clock to move on.
    caplog.set_level(logging.INFO)
    later = MOMENT + datetime.timedelta(milliseconds=10)
    tm.datetime = pinned_clock(MOMENT, MOMENT, later)
    write_kit(files_dir, "Beta", kit_type=1, tx=(9,) * 4)
    write_kit(files_dir, "Beta", file_stem=copy_stem, kit_type=1, tx=(1,) * 4)
    kits = manager(tm)
    assert kits.parse().RetCode == RetCode.OK
    names = ["Beta_" + STAMP, "Beta_2024030112304513+0800"]
    assert sorted(os.listdir(files_dir)) == ["AAKIT_%s.csv" % n for n in names]
    assert sorted(kits._AAKitTable) == names
    offsets = {kits._AAKitTable[n]["OFFSET_TX"][0] for n in names}
    again = manager(tm)
    assert again.parse().RetCode == RetCode.OK and again._AAKitTable == kits._AAKitTable and offsets == {1, 9}
    assert ("INFO", "Deleted %s" % (files_dir / ("AAKIT_%s.csv" % copy_stem))) in records(caplog, "AAKitTbl")


# ----------------------------------------- rows as the pure-Python peer reads them --

PEER = baseline_module("aakit")

NUMBER = st.integers(-300, 300).map(str)
# Numbers as a hand-edited or exported file may hold them: plain, quoted, padded,
# with quotes, commas, NUL or line breaks where they do not belong, or too long
# for a lowered csv.field_size_limit (which the reader honours like csv.reader).
CELL = st.one_of(
    NUMBER, NUMBER.map('"{}"'.format), NUMBER.map(' {} '.format), NUMBER.map("{}_0".format),
    st.sampled_from(['"1,2"', '"1\n"', '"1""2"', '1"2', '"', "", "1\0", "\0", "2.5", "1e3", "+7", "-", "0000000000004"]),
    st.text(alphabet='0123456789,"\n\r\0 x-', max_size=6))
ROW = st.tuples(st.sampled_from(["OFFSET_TX", "TX", "STEER", "", "_H", "NOTE"]), st.lists(CELL, min_size=2, max_size=3))
LINE_END = st.sampled_from(["\n", "\r\n", "\r"])


@settings(max_examples=150, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(rows=st.lists(ROW, max_size=6), line_end=LINE_END, field_limit=st.sampled_from([131072, 12]))
def test_kit_rows_are_read_as_the_python_peer_reads_them(tm, files_dir, rows, line_end, field_limit):
    # Rows are joined by hand, so quotes, NUL and line breaks inside cells reach
    # the reader raw, as a hand-edited file would have them. With the limit of 12
    # most lines are longer than the limit, while only a longer field is refused.
    lines = ["AAKIT_NAME,K", "TYPE,0"] + [",".join([key] + cells) for key, cells in rows]
    (files_dir / "AAKIT_k.csv").write_bytes(line_end.join(lines).encode())
    kits, peer = (make(LITE, 3, support_dev=[LITE]) for make in (tm.AAKitTableManager, PEER.AAKitTableManager))
    previous = csv.field_size_limit(field_limit)
    try:
        assert (kits.parse().RetCode, kits._AAKitTable) == (peer.parse().RetCode, peer._AAKitTable)
    finally:
        csv.field_size_limit(previous)
