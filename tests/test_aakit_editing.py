"""Antenna-kit manager: creating, updating, renaming, deleting and saving kits."""
import csv
import datetime
import io
import logging
import os

import pytest

from aakit_samples import LITE, MOMENT, OFFICIAL, STAMP, pinned_clock, record, write_kit, zone
from conftest import records
from vexcore.QRVPublic import RetCode
from vexcore.QRVUtils import RetType

SECOND = datetime.datetime(2024, 3, 1, 12, 30, 46, 0, tzinfo=zone(8))


@pytest.fixture
def clock(tm, restore_module_globals):
    tm.datetime = pinned_clock(MOMENT, SECOND)
    return tm


@pytest.fixture
def kits(clock, files_dir):
    write_kit(files_dir, OFFICIAL)
    manager = clock.AAKitTableManager(LITE, 4, support_dev=[LITE])
    assert manager.parse().RetCode == RetCode.OK
    return manager


class Recorder:
    """A web-mode callback that records its calls and answers with `answer`."""

    def __init__(self, answer=None):
        self.calls = []
        self.answer = answer if answer is not None else RetType()

    def __call__(self, *args, **kwargs):
        self.calls.append((args, kwargs))
        return self.answer


def new_kit(kits, name="Mine", tx=(1, 2, 3, 4), **kwargs):
    return kits.setAAKitInfo(name, [4.0, 4.5], [-40.0, 40.0], [0, 0], list(tx), [4, 3, 2, 1], **kwargs)


def saved_bytes(rows):
    out = io.StringIO(newline="")
    csv.writer(out).writerows(rows)
    return out.getvalue().encode()


# -------------------------------------------------------------- field check --

@pytest.mark.parametrize("channels, polarizations, name, field, valid", [
    (16, 1, "OFFSET_TX", list(range(16)), True),
    (16, 1, "OFFSET_TX", list(range(15)), False),
    (4, 2, "OFFSET_RX", {"HORIZON": [0] * 4, "VERTICAL": [0] * 4}, True),
    (4, 2, "OFFSET_RX", {"HORIZON": [0] * 4}, False),
    (4, 2, "OFFSET_RX", [0] * 4, False),
    (4, 1, "SPACING", (1, 2), True),
    (4, 1, "STEERING_V", [1, 2, 3], False),
    (4, 1, "STEERING_H", {"H": [1], "V": [2]}, True),
])
def test_field_check_counts_values(tm, files_dir, channels, polarizations, name, field, valid):
    kits = tm.AAKitTableManager(LITE, channels, num_polar=polarizations)
    assert kits._AAKitTableManager__checkAAKitField(name, field) is valid


@pytest.mark.parametrize("field, message", [
    ([1, 2, 3], "setAAKitInfo: Wrong counts:3 of value for field: SPACING"),
    ({"H": [1], "V": []}, "setAAKitInfo: Wrong counts:1 of value for dict field: SPACING"),
])
def test_field_check_logs_the_wrong_count(tm, files_dir, caplog, field, message):
    tm.AAKitTableManager(LITE, 4)._AAKitTableManager__checkAAKitField("SPACING", field)
    assert records(caplog, "AAKitTbl") == [("ERROR", message)]


# -------------------------------------------------------------- set a kit ----

def test_new_custom_kit_is_kept_under_a_stamped_name_with_the_callers_lists(kits, caplog):
    caplog.set_level(logging.DEBUG)
    spacing, tx_h, tx_v = [4.0, 4.5], [1, 2], [3, 4]
    ret = kits.setAAKitInfo("Mine", spacing, [-40, 40], [0, 0], {"HORIZON": tx_h, "VERTICAL": tx_v},
                            [4, 3, 2, 1])
    assert (ret.RetCode, ret.RetData) == (RetCode.OK, "Mine_" + STAMP)
    kit = kits._AAKitTable["Mine_" + STAMP]
    assert kit == {"DEV_TYPE": LITE, "TYPE": 1, "SPACING": spacing, "STEERING_H": [-40, 40],
                   "STEERING_V": [0, 0], "OFFSET_TX": {"HORIZON": [1, 2], "VERTICAL": [3, 4]},
                   "OFFSET_RX": [4, 3, 2, 1]}
    assert kit["SPACING"] is spacing and kit["OFFSET_TX"]["HORIZON"] is tx_h
    assert records(caplog, "AAKitTbl") == [("DEBUG", "Set new AAKit")]
    assert kits._aakit_name == ""


def test_setting_the_same_new_name_twice_makes_two_kits(kits):
    first, second = new_kit(kits).RetData, new_kit(kits).RetData
    assert first == "Mine_" + STAMP and second == "Mine_2024030112304600+0800"
    assert list(kits._AAKitTable) == [OFFICIAL, first, second]


def test_official_kit_from_the_database_is_stored_under_its_name(kits, caplog):
    caplog.set_level(logging.DEBUG)
    ret = new_kit(kits, "Official2", custom=0)
    assert ret.RetData == "Official2" and kits._AAKitTable["Official2"]["TYPE"] == 0
    assert records(caplog, "AAKitTbl") == [("DEBUG", "WEB-VEX loaded official AAKit")]


def test_official_duplicate_leaves_the_table_unchanged(kits, caplog):
    before = {name: dict(kit) for name, kit in kits._AAKitTable.items()}
    ret = new_kit(kits, OFFICIAL, tx=(7, 7, 7, 7), custom=0)
    assert (ret.RetCode, ret.RetData) == (RetCode.OK, OFFICIAL)
    assert kits._AAKitTable == before
    assert records(caplog, "AAKitTbl") == [("WARNING", "Duplicated official AAKit case -> skip it")]


def test_custom_set_of_an_existing_name_updates_that_record_in_place(kits, files_dir):
    kit = kits._AAKitTable[OFFICIAL]
    ret = new_kit(kits, OFFICIAL, tx=(7, 7, 7, 7))
    assert ret.RetData == OFFICIAL and kits._AAKitTable[OFFICIAL] is kit
    assert kit["TYPE"] == 1 and kit["OFFSET_TX"] == [7, 7, 7, 7]
    assert list(kits._AAKitTable) == [OFFICIAL]
    assert sorted(os.listdir(files_dir)) == ["AAKIT_%s.csv" % OFFICIAL]


def test_update_with_a_new_name_renames_the_kit_file(kits, files_dir, caplog):
    name = new_kit(kits).RetData
    kits.saveAAKitFile(name)
    ret = new_kit(kits, name, tx=(5, 5, 5, 5), newKitName="Renamed")
    new_name = "Renamed_2024030112304600+0800"
    assert ret.RetData == new_name
    assert list(kits._AAKitTable) == [OFFICIAL, new_name]
    assert sorted(os.listdir(files_dir)) == sorted(["AAKIT_%s.csv" % OFFICIAL, "AAKIT_%s.csv" % new_name])
    again = type(kits)(LITE, 4, support_dev=[LITE])
    again.parse()
    assert again._AAKitTable[new_name]["OFFSET_TX"] == [5, 5, 5, 5]


def test_failed_rename_during_update_is_logged(kits, caplog):
    name = new_kit(kits).RetData
    ret = new_kit(kits, name, newKitName="Unsaved")
    assert ret.RetCode == RetCode.OK
    assert ("ERROR", "Rename file failed") in records(caplog, "AAKitTbl")


@pytest.mark.parametrize("fields, failing, count", [
    (([1], [1], [1, 2], [1], [1, 2, 3, 4]), "SPACING", 1),
    (([1, 2], [1, 2], [1, 2], [1, 2, 3], [1, 2, 3, 4]), "OFFSET_TX", 3),
])
def test_fields_are_checked_in_order_and_the_first_failure_is_named(kits, caplog, fields, failing, count):
    before = dict(kits._AAKitTable)
    ret = kits.setAAKitInfo("Bad", *fields)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_AAKIT, "AAKit field checking failed: " + failing)
    assert records(caplog, "AAKitTbl") == [
        ("ERROR", "setAAKitInfo: Wrong counts:%d of value for field: %s" % (count, failing))]
    assert kits._AAKitTable == before


@pytest.mark.parametrize("args", [
    (7, [1, 2], [1, 2], [1, 2]),
    ("K", (1, 2), [1, 2], [1, 2]),
    ("K", [1, 2], None, [1, 2]),
    ("K", [1, 2], [1, 2], type("MyList", (list,), {})([1, 2])),
])
def test_argument_types_are_refused_on_entry(kits, args):
    with pytest.raises(TypeError):
        kits.setAAKitInfo(*args, [0] * 4, [0] * 4)


def test_exceptions_become_the_error_result(kits, caplog):
    ret = kits.setAAKitInfo("K", [1, 2], [1, 2], [1, 2], 5, [0] * 4)
    assert ret.RetCode == RetCode.ERROR_BF_AAKIT and "len()" in ret.RetMsg
    assert caplog.records[-1].exc_info[0] is TypeError


# ------------------------------------------------------------------ delete ---

def test_delete_removes_a_custom_kit_and_its_file(kits, files_dir, caplog):
    caplog.set_level(logging.INFO)
    name = new_kit(kits).RetData
    kits.saveAAKitFile(name)
    kits._selectAAKit(name)
    caplog.clear()
    assert kits.deleteAAKitInfo(name).RetCode == RetCode.OK
    assert list(kits._AAKitTable) == [OFFICIAL]
    assert sorted(os.listdir(files_dir)) == ["AAKIT_%s.csv" % OFFICIAL]
    assert records(caplog, "AAKitTbl") == [("INFO", "Deleted %s" % (files_dir / ("AAKIT_%s.csv" % name)))]
    assert kits._aakit_name == name


@pytest.mark.parametrize("name, message", [
    ("Missing", "Missing not exist in list"),
    (OFFICIAL, OFFICIAL + " must be customized AAKit for deletion"),
])
def test_delete_refusals(kits, files_dir, caplog, name, message):
    ret = kits.deleteAAKitInfo(name)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_AAKIT, message)
    assert records(caplog, "AAKitTbl") == [("ERROR", message)]
    assert OFFICIAL in kits._AAKitTable and (files_dir / ("AAKIT_%s.csv" % OFFICIAL)).exists()


def test_delete_without_check_of_an_unknown_name_is_an_exception_result(kits, caplog):
    ret = kits.deleteAAKitInfo("Missing", check=False)
    assert ret.RetCode == RetCode.ERROR_BF_AAKIT and "Missing" in ret.RetMsg
    assert caplog.records[-1].exc_info[0] is KeyError


def test_delete_with_callback_forwards_and_keeps_files(kits, files_dir, caplog):
    caplog.set_level(logging.INFO)
    name = new_kit(kits).RetData
    kits.saveAAKitFile(name)
    caplog.clear()
    answer = RetType(RetCode.ERROR_DB_FEEDBACK, "db says no")
    callback = Recorder(answer)
    assert kits.deleteAAKitInfo(name, callback) is answer
    assert callback.calls == [((), {"func_name": "deleteAAKitInfo", "kitName": name, "check": False})]
    assert name not in kits._AAKitTable and (files_dir / ("AAKIT_%s.csv" % name)).exists()
    assert records(caplog, "AAKitTbl") == [("INFO", "Forward to deleting AAKit")]


# -------------------------------------------------------------------- save ---

def test_save_writes_the_kit_as_csv_writer_does(kits, files_dir):
    name = kits.setAAKitInfo("S", [4.0, 4.5], [-40, 40.25], [0, 0], [1, -2, 3, 1e-05], [0, 0, 0, 0]).RetData
    assert kits.saveAAKitFile(name).RetCode == RetCode.OK
    data = (files_dir / ("AAKIT_%s.csv" % name)).read_bytes()
    assert data == saved_bytes([["AAKIT_NAME", name], ["DEV_TYPE", LITE], ["TYPE", 1], ["SPACING", 4.0, 4.5],
                                ["STEERING_H", -40, 40.25], ["STEERING_V", 0, 0],
                                ["OFFSET_TX", 1, -2, 3, 1e-05], ["OFFSET_RX", 0, 0, 0, 0]])
    assert data.count(b"\r\n") == 8 and data.startswith(b"AAKIT_NAME,S_")


def test_save_then_parse_reproduces_the_record(kits, files_dir):
    name = kits.setAAKitInfo("Round, \"trip\"", [4.0, 4.5], [-40.0, 40.0], [0.0, 0.0], [1, 2, 3, 4],
                             [4, 3, 2, 1]).RetData
    kits.saveAAKitFile(name)
    again = type(kits)(LITE, 4, support_dev=[LITE])
    assert again.parse().RetCode == RetCode.OK
    assert again._AAKitTable[name] == kits._AAKitTable[name]


def test_save_of_a_dict_offset_writes_its_text_in_one_cell(kits, files_dir):
    kits = type(kits)(LITE, 2, num_polar=2, support_dev=[LITE])
    name = kits.setAAKitInfo("D", [1, 1], [0, 0], [0, 0], {"HORIZON": [1, 2], "VERTICAL": [3, 4]}, [0] * 4).RetData
    kits.saveAAKitFile(name)
    rows = list(csv.reader(open(files_dir / ("AAKIT_%s.csv" % name), newline="")))
    assert rows[6] == ["OFFSET_TX", "{'HORIZON': [1, 2], 'VERTICAL': [3, 4]}"]


def test_save_uses_the_selected_kit_and_logs_the_path(kits, files_dir, caplog):
    caplog.set_level(logging.INFO)
    kits._selectAAKit(OFFICIAL)
    path = files_dir / ("AAKIT_%s.csv" % OFFICIAL)
    path.unlink()
    assert kits.saveAAKitFile().RetCode == RetCode.OK
    assert path.exists()
    assert records(caplog, "AAKitTbl") == [("INFO", "Ready to save %s" % path)]


@pytest.mark.parametrize("name, check, message", [
    (None, True, "Fail to save, please call selectAAKit() first or assign aakit name"),
    ("", True, "Fail to save, please call selectAAKit() first or assign aakit name"),
    ("Missing", True, "Missing not exist in list"),
])
def test_save_refusals(kits, files_dir, caplog, name, check, message):
    ret = kits.saveAAKitFile(name, check=check)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_AAKIT, message)
    assert records(caplog, "AAKitTbl") == [("ERROR", message)]


def test_failed_save_leaves_the_previous_file_untouched(kits, files_dir, caplog):
    path = files_dir / ("AAKIT_%s.csv" % OFFICIAL)
    before = path.read_bytes()
    del kits._AAKitTable[OFFICIAL]["OFFSET_RX"]
    ret = kits.saveAAKitFile(OFFICIAL)
    assert ret.RetCode == RetCode.ERROR_BF_AAKIT and "OFFSET_RX" in ret.RetMsg
    assert caplog.records[-1].exc_info[0] is KeyError
    assert path.read_bytes() == before and os.listdir(files_dir) == [path.name]


@pytest.mark.parametrize("answer, code", [(RetType(), RetCode.OK), (RetType(RetCode.ERROR, "x"), RetCode.ERROR)])
def test_save_with_callback_hands_over_the_record_and_writes_nothing(kits, files_dir, caplog, answer, code):
    caplog.set_level(logging.INFO)
    (files_dir / ("AAKIT_%s.csv" % OFFICIAL)).unlink()
    callback = Recorder(answer)
    ret = kits.saveAAKitFile(OFFICIAL, callback, context="ignored")
    assert ret.RetCode == code and (ret is answer) == (code != RetCode.OK)
    ((args, kwargs),) = callback.calls
    assert args == () and kwargs == {"func_name": "saveAAKitFile", "kitName": OFFICIAL, "check": False,
                                     "context": kits._AAKitTable[OFFICIAL]}
    assert kwargs["context"] is kits._AAKitTable[OFFICIAL]
    assert os.listdir(files_dir) == []
    assert records(caplog, "AAKitTbl") == [("INFO", "Forward to saving AAKit")]


# ------------------------------------------------------------------ rename ---

def test_rename_deletes_the_old_file_and_saves_the_new_one(kits, files_dir):
    name = new_kit(kits).RetData
    kits.saveAAKitFile(name)
    kits._AAKitTable["New"] = kits._AAKitTable[name]
    assert kits._AAKitTableManager__renameAAKit(name, "New").RetCode == RetCode.OK
    assert sorted(os.listdir(files_dir)) == ["AAKIT_New.csv", "AAKIT_%s.csv" % OFFICIAL]


def test_rename_goes_through_overridden_delete_and_save(clock, files_dir):
    calls = []

    class Tracing(clock.AAKitTableManager):
        def deleteAAKitInfo(self, kitName, callback=None, check=True):
            calls.append(("delete", kitName, callback, check))
            return RetType()

        def saveAAKitFile(self, kitName=None, callback=None, check=True, context=None):
            calls.append(("save", kitName, callback, check))
            return RetType()

    Tracing(LITE, 4)._AAKitTableManager__renameAAKit("A", "B")
    assert calls == [("delete", "A", None, True), ("save", "B", None, False)]


# --------------------------------------------------- names outside the folder

UNSAFE = ["../outside", "sub/kit", "nul\0kit", os.sep + "abs"]


@pytest.mark.parametrize("bad", UNSAFE)
def test_kit_names_that_would_leave_the_files_directory_are_refused(kits, files_dir, caplog, bad):
    outside = files_dir.parent / "AAKIT_..csv"
    kits._AAKitTable[bad] = dict(kits._AAKitTable[OFFICIAL], TYPE=1)
    before = sorted(os.listdir(files_dir)), sorted(os.listdir(files_dir.parent))
    results = [kits.saveAAKitFile(bad), kits.deleteAAKitInfo(bad),
               kits._AAKitTableManager__renameAAKit(OFFICIAL, bad),
               kits._AAKitTableManager__renameAAKit(bad, OFFICIAL)]
    assert [r.RetCode for r in results] == [RetCode.ERROR_BF_AAKIT] * 4
    assert all("must not contain a path separator or NUL" in r.RetMsg for r in results)
    assert bad in kits._AAKitTable and OFFICIAL in kits._AAKitTable
    assert (sorted(os.listdir(files_dir)), sorted(os.listdir(files_dir.parent))) == before
    assert not outside.exists()


def test_unsafe_names_still_go_to_a_callback(kits):
    kits._AAKitTable["a/b"] = dict(kits._AAKitTable[OFFICIAL], TYPE=1)
    callback = Recorder()
    assert kits.saveAAKitFile("a/b", callback).RetCode == RetCode.OK
    assert kits.deleteAAKitInfo("a/b", callback).RetCode == RetCode.OK
    assert [kw["kitName"] for _, kw in callback.calls] == ["a/b", "a/b"]
