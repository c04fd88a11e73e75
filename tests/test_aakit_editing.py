"""Antenna-kit manager: creating, updating, renaming, deleting and saving kits."""
import csv
import datetime
import io
import logging
import os

import pytest
from aakit_samples import LITE, MOMENT, OFFICIAL, STAMP, pinned_clock, write_kit, zone
from conftest import records

from vexcore.QRVPublic import RetCode
from vexcore.QRVUtils import RetType

SECOND_STAMP = "2024030112304600+0800"


@pytest.fixture
def clock(tm, restore_module_globals):
    tm.datetime = pinned_clock(MOMENT, datetime.datetime(2024, 3, 1, 12, 30, 46, 0, tzinfo=zone(8)))
    return tm


@pytest.fixture
def kits(clock, files_dir):
    write_kit(files_dir, OFFICIAL)
    manager = clock.AAKitTableManager(LITE, 4, support_dev=[LITE])
    assert manager.parse().RetCode == RetCode.OK
    return manager


def new_kit(kits, name="Mine", tx=(1, 2, 3, 4), **kwargs):
    return kits.setAAKitInfo(name, [4.0, 4.5], [-40.0, 40.0], [0, 0], list(tx), [4, 3, 2, 1], **kwargs)


def kit_files(*names):
    return sorted("AAKIT_%s.csv" % name for name in names)


# -------------------------------------------------------------- field check --

@pytest.mark.parametrize("channels, polarizations, name, field, problem", [
    (4, 2, "OFFSET_RX", {"HORIZON": [0] * 4}, "Wrong counts:4 of value for dict field: OFFSET_RX"),
    (4, 2, "OFFSET_RX", [0] * 4, "Wrong counts:4 of value for field: OFFSET_RX"),
    (4, 1, "SPACING", (1, 2), None),
    (4, 1, "STEERING_H", {"H": [1], "V": [2]}, None),
])
def test_field_check_counts_values(tm, files_dir, caplog, channels, polarizations, name, field, problem):
    kits = tm.AAKitTableManager(LITE, channels, num_polar=polarizations)
    assert kits._AAKitTableManager__checkAAKitField(name, field) is (problem is None)
    assert records(caplog, "AAKitTbl") == ([] if problem is None else [("ERROR", "setAAKitInfo: " + problem)])


# -------------------------------------------------------------- set a kit ----

def test_new_custom_kit_is_kept_under_a_stamped_name_with_the_callers_lists(kits, caplog):
    caplog.set_level(logging.DEBUG)
    spacing, tx_h = [4.0, 4.5], [1, 2]
    ret = kits.setAAKitInfo("Mine", spacing, [-40, 40], [0, 0], {"HORIZON": tx_h, "VERTICAL": [3, 4]}, [4, 3, 2, 1])
    assert (ret.RetCode, ret.RetData) == (RetCode.OK, "Mine_" + STAMP)
    kit = kits._AAKitTable["Mine_" + STAMP]
    assert kit == {"DEV_TYPE": LITE, "TYPE": 1, "SPACING": spacing, "STEERING_H": [-40, 40],
                   "STEERING_V": [0, 0], "OFFSET_TX": {"HORIZON": [1, 2], "VERTICAL": [3, 4]},
                   "OFFSET_RX": [4, 3, 2, 1]}
    assert kit["SPACING"] is spacing and kit["OFFSET_TX"]["HORIZON"] is tx_h
    assert records(caplog, "AAKitTbl") == [("DEBUG", "Set new AAKit")]
    assert kits._aakit_name == ""
    # The same new name again is a second kit with its own stamp.
    assert new_kit(kits).RetData == "Mine_" + SECOND_STAMP
    assert list(kits._AAKitTable) == [OFFICIAL, "Mine_" + STAMP, "Mine_" + SECOND_STAMP]


def test_an_existing_name_is_skipped_as_official_and_updated_in_place_as_custom(kits, files_dir, caplog):
    caplog.set_level(logging.DEBUG)
    assert new_kit(kits, "Official2", custom=0).RetData == "Official2"
    assert kits._AAKitTable["Official2"]["TYPE"] == 0
    before = {name: dict(kit) for name, kit in kits._AAKitTable.items()}
    ret = new_kit(kits, OFFICIAL, tx=(7, 7, 7, 7), custom=0)
    assert (ret.RetCode, ret.RetData, kits._AAKitTable) == (RetCode.OK, OFFICIAL, before)
    assert records(caplog, "AAKitTbl") == [("DEBUG", "WEB-VEX loaded official AAKit"),
                                           ("WARNING", "Duplicated official AAKit case -> skip it")]
    # A custom set updates the record even of a kit loaded as official, and writes no file.
    kit = kits._AAKitTable[OFFICIAL]
    assert new_kit(kits, OFFICIAL, tx=(7, 7, 7, 7)).RetData == OFFICIAL and kits._AAKitTable[OFFICIAL] is kit
    assert kit["TYPE"] == 1 and kit["OFFSET_TX"] == [7, 7, 7, 7]
    assert sorted(os.listdir(files_dir)) == kit_files(OFFICIAL)


def test_update_with_a_new_name_renames_the_kit_file_if_there_is_one(kits, files_dir, caplog):
    name = new_kit(kits).RetData
    assert kits.saveAAKitFile(name).RetCode == RetCode.OK
    ret = new_kit(kits, name, tx=(5, 5, 5, 5), newKitName="Renamed")
    new_name = "Renamed_" + SECOND_STAMP
    assert ret.RetData == new_name and list(kits._AAKitTable) == [OFFICIAL, new_name]
    assert sorted(os.listdir(files_dir)) == kit_files(OFFICIAL, new_name)
    again = type(kits)(LITE, 4, support_dev=[LITE])
    again.parse()
    assert again._AAKitTable[new_name]["OFFSET_TX"] == [5, 5, 5, 5]
    # A kit never saved has no old file to delete: the failed rename is logged.
    assert new_kit(kits, new_kit(kits).RetData, newKitName="Unsaved").RetCode == RetCode.OK
    assert ("ERROR", "Rename file failed") in records(caplog, "AAKitTbl")


@pytest.mark.parametrize("args", [
    (7, [1, 2], [1, 2], [1, 2]),
    ("K", (1, 2), [1, 2], [1, 2]),
    ("K", [1, 2], [1, 2], type("MyList", (list,), {})([1, 2])),
])
def test_argument_types_are_refused_on_entry(kits, args):
    with pytest.raises(TypeError):
        kits.setAAKitInfo(*args, [0] * 4, [0] * 4)


FIELD_FAILED = "AAKit field checking failed: "
NO_NAME = "Fail to save, please call selectAAKit() first or assign aakit name"


@pytest.mark.parametrize("operation, message, logged", [
    # Fields are checked in order and the first failure is named.
    (lambda k: k.setAAKitInfo("Bad", [1], [1], [1, 2], [1], [1, 2, 3, 4]), FIELD_FAILED + "SPACING",
     "setAAKitInfo: Wrong counts:1 of value for field: SPACING"),
    (lambda k: k.setAAKitInfo("Bad", [1, 2], [1, 2], [1, 2], [1, 2, 3], [1, 2, 3, 4]), FIELD_FAILED + "OFFSET_TX",
     "setAAKitInfo: Wrong counts:3 of value for field: OFFSET_TX"),
    (lambda k: k.deleteAAKitInfo("Missing"), "Missing not exist in list", None),
    (lambda k: k.deleteAAKitInfo(OFFICIAL), OFFICIAL + " must be customized AAKit for deletion", None),
    (lambda k: k.saveAAKitFile(), NO_NAME, None),
    (lambda k: k.saveAAKitFile("Missing"), "Missing not exist in list", None),
    # Exceptions become the error result, their text its message.
    (lambda k: k.setAAKitInfo("K", [1, 2], [1, 2], [1, 2], 5, [0] * 4), "len()", TypeError),
    (lambda k: k.deleteAAKitInfo("Missing", check=False), "Missing", KeyError),
])
def test_refusals_change_nothing_and_say_why(kits, files_dir, caplog, operation, message, logged):
    before = ({name: dict(kit) for name, kit in kits._AAKitTable.items()}, sorted(os.listdir(files_dir)))
    ret = operation(kits)
    assert ret.RetCode == RetCode.ERROR_BF_AAKIT
    if isinstance(logged, type):
        assert message in ret.RetMsg and caplog.records[-1].exc_info[0] is logged
    else:
        assert ret.RetMsg == message and records(caplog, "AAKitTbl") == [("ERROR", logged or message)]
    assert ({name: dict(kit) for name, kit in kits._AAKitTable.items()}, sorted(os.listdir(files_dir))) == before


# -------------------------------------------------------------------- save ---

def test_save_writes_the_kit_as_csv_writer_does(kits, files_dir):
    # A mapping-valued offset is written as its text in one cell.
    tx = {"HORIZON": [1, 2], "VERTICAL": [3, 4]}
    name = kits.setAAKitInfo("S", [4.0, 4.5], [-40, 40.25], [0, 0], tx, [1, -2, 3, 1e-05]).RetData
    assert kits.saveAAKitFile(name).RetCode == RetCode.OK
    expected = io.StringIO(newline="")
    csv.writer(expected).writerows([["AAKIT_NAME", name], ["DEV_TYPE", LITE], ["TYPE", 1], ["SPACING", 4.0, 4.5],
                                    ["STEERING_H", -40, 40.25], ["STEERING_V", 0, 0], ["OFFSET_TX", str(tx)],
                                    ["OFFSET_RX", 1, -2, 3, 1e-05]])
    data = (files_dir / ("AAKIT_%s.csv" % name)).read_bytes()
    assert data == expected.getvalue().encode() and data.count(b"\r\n") == 8


def test_save_without_a_name_takes_the_selection_which_a_delete_leaves(kits, files_dir, caplog):
    caplog.set_level(logging.INFO)
    name = new_kit(kits).RetData
    kits._selectAAKit(name)
    path = files_dir / ("AAKIT_%s.csv" % name)
    assert kits.saveAAKitFile().RetCode == RetCode.OK and path.exists()
    assert kits.deleteAAKitInfo(name).RetCode == RetCode.OK
    assert list(kits._AAKitTable) == [OFFICIAL] and kits._aakit_name == name
    assert sorted(os.listdir(files_dir)) == kit_files(OFFICIAL)
    assert records(caplog, "AAKitTbl") == [("INFO", "Ready to save %s" % path), ("INFO", "Deleted %s" % path)]


def test_callbacks_take_over_storage_even_for_names_no_file_could_carry(kits, files_dir, caplog):
    caplog.set_level(logging.INFO)
    (files_dir / ("AAKIT_%s.csv" % OFFICIAL)).unlink()
    record = kits._AAKitTable["a/b"] = dict(kits._AAKitTable[OFFICIAL], TYPE=1)
    calls, answer = [], RetType(RetCode.ERROR_DB_FEEDBACK, "db says no")

    def callback(**kwargs):                     # web mode passes keywords only
        calls.append(kwargs)
        return answer

    assert kits.saveAAKitFile("a/b", callback, context="ignored") is answer
    assert kits.deleteAAKitInfo("a/b", callback) is answer
    assert calls == [{"func_name": "saveAAKitFile", "kitName": "a/b", "check": False, "context": record},
                     {"func_name": "deleteAAKitInfo", "kitName": "a/b", "check": False}]
    assert calls[0]["context"] is record and "a/b" not in kits._AAKitTable
    assert records(caplog, "AAKitTbl") == [("INFO", "Forward to saving AAKit"), ("INFO", "Forward to deleting AAKit")]
    # A callback's success is answered with a result of our own.
    answer = RetType()
    ret = kits.saveAAKitFile(OFFICIAL, callback)
    assert ret.RetCode == RetCode.OK and ret is not answer
    assert os.listdir(files_dir) == []
