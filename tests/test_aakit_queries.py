"""Antenna-kit manager: selecting, listing and describing kits, and naming custom kits."""
import datetime

import pytest
from aakit_samples import LITE, OFFICIAL, STAMP, pinned_clock, record, write_kit, zone
from conftest import records

from vexcore.QRVPublic import RetCode
from vexcore.QRVUtils import RetType


@pytest.fixture
def kits(tm, files_dir):
    write_kit(files_dir, OFFICIAL)
    write_kit(files_dir, "Other", tx=(9, 9, 9, 9))
    manager = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    assert manager.parse().RetCode == RetCode.OK
    return manager


# ------------------------------------------------------------------ listing --

def test_list_parses_through_the_instance_only_when_empty_or_forced(tm, files_dir):
    write_kit(files_dir, OFFICIAL)
    manager = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    parses, parse = [], manager.parse
    manager.parse = lambda: parses.append(1) or parse()
    assert manager.getAAKitList().RetData == [OFFICIAL]
    manager._selectAAKit(OFFICIAL)
    write_kit(files_dir, "Later", tx=(9, 9, 9, 9))
    assert manager.getAAKitList().RetData == [OFFICIAL]
    assert manager.getAAKitList(True).RetData == ["Later", OFFICIAL] and len(parses) == 2
    assert manager._aakit_name == OFFICIAL and manager.getAAKitInfo().RetData == record()


def test_list_callback_gets_device_facts_and_replaces_the_table_on_success(kits):
    table = {"FromDB": record()}
    calls = []

    def callback(*args, **kwargs):
        calls.append((args, kwargs))
        return RetType(data=table)

    assert kits.getAAKitList(callback=callback).RetData == ["FromDB"]
    assert calls == [((LITE, 4, [LITE]), {})] and calls[0][0][2] is kits._AAKitTableManager__supportDevs
    assert kits._AAKitTable is table
    ret = kits.getAAKitList(callback=lambda *a: RetType(RetCode.ERROR, data={"x": {}}))
    assert kits._AAKitTable is table and ret.RetData == ["FromDB"]


@pytest.mark.parametrize("callback, error", [(lambda *a: 1 / 0, ZeroDivisionError), (lambda *a: None, AttributeError),
                                             (None, KeyError)])         # None: parse, of a file without "TYPE"
def test_list_failures_become_its_error_result(tm, files_dir, caplog, callback, error):
    write_kit(files_dir, OFFICIAL, kit_type=None)
    kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    ret = kits.getAAKitList(callback=callback)
    assert (ret.RetCode, ret.RetMsg, ret.RetData) == (RetCode.ERROR_BF_AAKIT, "getAAKitList exception", None)
    (failure,) = caplog.records
    assert (failure.getMessage(), failure.exc_info[0]) == ("getAAKitList exception", error)
    # parse itself lets the KeyError out.
    with pytest.raises(KeyError, match="TYPE"):
        kits.parse()


# ------------------------------------------------------------------ details --

@pytest.mark.parametrize("name, local, selected, expected", [
    ("", False, "Other", "Other"),
    (None, True, "Other", "table"),
    (OFFICIAL, True, "Other", OFFICIAL),
    ("Other", False, "", "Other"),
])
def test_info_chooses_name_then_whole_table_then_selection(kits, name, local, selected, expected):
    assert kits._selectAAKit(selected).RetCode == RetCode.OK and kits._aakit_name == selected
    data = kits.getAAKitInfo(name, local).RetData
    assert data is (kits._AAKitTable if expected == "table" else kits._AAKitTable[expected])


MISSING = "There is NOT matched AAKit name: Missing"


def test_unknown_names_and_info_without_a_selection_or_on_a_kit_that_is_gone(kits, files_dir, caplog):
    ret = kits.getAAKitInfo()
    message = "Fail to getAAKitInfo, please call selectAAKit() first"
    assert (ret.RetCode, ret.RetMsg, ret.RetData) == (RetCode.ERROR_BF_AAKIT, message, None)
    kits._selectAAKit("Other")
    ret = kits._selectAAKit("Missing")
    assert (ret.RetCode, ret.RetMsg, kits._aakit_name) == (RetCode.ERROR_BF_NO_AAKIT, MISSING, "Other")
    assert records(caplog, "AAKitTbl") == [("ERROR", message), ("ERROR", MISSING)]
    (files_dir / "AAKIT_Other.csv").unlink()
    kits.parse()
    for ret in (kits.getAAKitInfo(), kits.getAAKitInfo("Unknown")):
        assert (ret.RetCode, ret.RetMsg, ret.RetData) == (RetCode.ERROR_BF_AAKIT, "getAAKitInfo exception", None)
    failures = [r for r in caplog.records if r.exc_info]
    assert [(r.getMessage(), r.exc_info[0]) for r in failures] == [("getAAKitInfo exception", KeyError)] * 2


# ------------------------------------------------------------- custom names --

@pytest.mark.parametrize("moment, name", [
    (datetime.datetime(2023, 12, 31, 23, 59, 59, 999999, tzinfo=zone(0)), "MyKit_2023123123595999+0000"),
    (datetime.datetime(2024, 1, 2, 3, 4, 5, 60000, tzinfo=zone(-5)), "MyKit_2024010203040506-0500"),
    (datetime.datetime(2024, 1, 2, 3, 4, 5, tzinfo=zone(5, 30)), "MyKit_2024010203040500+0530"),
])
def test_full_name_stamps_the_pinned_clock(tm, files_dir, restore_module_globals, moment, name):
    tm.datetime = pinned_clock(moment)
    kits = tm.AAKitTableManager(LITE, 4)
    assert kits.computeAAKitFullName("MyKit") == name
    # A name that already carries a stamp gets a second one.
    assert kits.computeAAKitFullName(name) == name + name[len("MyKit"):]


VALID_STAMPS = [STAMP, "2024022923595999+0000", "2024030112304512+0800+ignored", "2024030112304512+08:00",
                "20240301123045ab+0800"]                    # the hundredths are not looked at
INVALID_STAMPS = [
    "20240301123045+0800", "2024030112304512-0500", "2024030112304512+", "2024030112304512+2400",
    "2023022912304512+0800", "2024133112304512+0800", "2024030124304512+0800", "2024030112306012+0800",
    "0000030112304512+0800", "2024 30112304512+0800", "２０２４030112304512+0800", 20240301123045,
]


@pytest.mark.parametrize("stamp, valid", [(s, True) for s in VALID_STAMPS] + [(s, False) for s in INVALID_STAMPS])
def test_time_stamp_check(tm, files_dir, stamp, valid):
    kits = tm.AAKitTableManager(LITE, 4)
    assert kits._AAKitTableManager__checkAAKitTimeFormat(stamp) is valid
