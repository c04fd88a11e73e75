"""Serial numbers and kit names that try to leave the files directory.

Each test puts a bait file outside the files directory exactly where the name
would lead if it were used as a path, then checks that the operation neither
read it, nor wrote, renamed or deleted anything outside the folder.
"""
import csv

import pytest

from aakit_samples import LITE, STAMP, kit_rows, write_rows
from beam_helpers import COMDR, DR, ELEDR
from calibration_sample import make_sample
from vexcore.QRVPublic import RetCode

ESCAPING = ["../bait", "sub/../../bait", "{outside}/bait", "a\0b", "..\0"]
HARMLESS = ["..", "...", "*", "?", "[ab]", "K5350R019-2?", "a b", "é"]


def snapshot(root, files_dir):
    """Every file outside the files directory with its content and modification time."""
    return {str(p): (p.read_bytes(), p.stat().st_mtime_ns) for p in root.rglob("*")
            if p.is_file() and files_dir not in p.parents}


@pytest.fixture
def sandbox(tmp_path, files_dir):
    """(files directory, the folder around it): bait goes into the latter."""
    return files_dir, tmp_path


# ----------------------------------------------------------- calibration ---

@pytest.mark.parametrize("sn", ESCAPING)
def test_calibration_serial_number_that_leaves_the_folder_reads_and_exports_nothing(tm, sandbox, sn):
    files_dir, outside = sandbox
    sn = sn.format(outside=outside)
    (files_dir / "sub").mkdir()
    # Where "<files>/<sn>*GHz.csv" leads: a complete table carrying that serial number.
    make_sample(sn=sn).write(outside, sn="bait")
    before = snapshot(outside, files_dir)
    manager = tm.CalibrationTableManager(sn, 28, tm.fake_rf_layout)
    assert manager._freq_list == []
    ret = manager.parse(exportToJson=True)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_CALI_PATH, "Can not find file for Cali table")
    assert manager.checkCaliTableLocation().RetData is False
    assert manager._CaliTable == {}
    assert snapshot(outside, files_dir) == before


@pytest.mark.parametrize("sn", HARMLESS)
def test_calibration_serial_number_with_pattern_characters_stays_in_the_folder(tm, files_dir, sn):
    # A pattern character matches names of the folder only; another device's
    # table is then refused by the serial-number check of its header.
    other = make_sample(sn="K5350R019-28")
    other.write(files_dir)
    manager = tm.CalibrationTableManager(sn, 28, tm.fake_rf_layout)
    ret = manager.parse()
    matched = bool(manager._freq_list)
    assert matched == (sn in ("*", "?", "K5350R019-2?"))
    expected = (RetCode.ERROR_BF_CALI_INCOMPLTE, "Wrong SN!") if matched else \
        (RetCode.ERROR_BF_CALI_PATH, "Can not find file for Cali table")
    assert (ret.RetCode, ret.RetMsg) == expected


# ----------------------------------------------------------------- beams ---

def beam_manager(tm, sn):
    manager = tm.BeamPatternTableManager(sn, 7, 4, (4, 1, 4))
    manager._updateFreq(28.0, DR, COMDR, ELEDR)
    return manager


BEAM_ESCAPING = ["../bait", "sub/../../bait", "/abs/bait", "a\0b", "..\\bait"]


@pytest.mark.parametrize("sn, kit", [(name, "") for name in BEAM_ESCAPING] + [("SN1", name) for name in BEAM_ESCAPING])
def test_beam_table_name_that_leaves_the_folder_is_refused(tm, sandbox, sn, kit):
    files_dir, outside = sandbox
    (files_dir / "BeamTable" / "sub").mkdir(parents=True)
    before = snapshot(outside, files_dir)
    manager = beam_manager(tm, sn)
    ret = manager._load(28.0, kit)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "BeamTable loading exception")
    assert manager._saveToBeamTableFile().RetCode == RetCode.ERROR_BF_BEAM_FILE
    assert snapshot(outside, files_dir) == before
    assert list((files_dir / "BeamTable").iterdir()) == [files_dir / "BeamTable" / "sub"]


@pytest.mark.parametrize("name", HARMLESS)
def test_beam_table_name_with_dots_or_pattern_characters_is_a_file_of_the_folder(tm, files_dir, name):
    manager = beam_manager(tm, name)
    assert manager._load(28.0, name).RetCode == RetCode.OK
    expected = files_dir / "BeamTable" / ("Beam_Configuration_%s_28GHz_%s.json" % (name, name))
    assert list((files_dir / "BeamTable").iterdir()) == [expected]


# ------------------------------------------------------------------ kits ---

def custom_kit(kits, name):
    kits._AAKitTable[name] = {"DEV_TYPE": LITE, "TYPE": 1, "SPACING": [5.0, 5.0], "STEERING_H": [-45.0, 45.0],
                              "STEERING_V": [-30.0, 30.0], "OFFSET_TX": [0, 1, 2, 3], "OFFSET_RX": [3, 2, 1, 0]}


@pytest.fixture
def kit_sandbox(sandbox):
    """A folder "AAKIT_" inside the files directory (so "AAKIT_" + "/../../bait"
    resolves), and bait kit files outside that an escaping name would reach."""
    files_dir, outside = sandbox
    (files_dir / "AAKIT_").mkdir()
    (files_dir / "AAKIT_sub").mkdir()
    for bait in ("bait.csv", "AAKIT_bait.csv"):
        write_rows(outside / bait, kit_rows("bait", kit_type=1))
    return files_dir, outside


KIT_ESCAPING = ["/../../bait", "sub/../../AAKIT_bait", "../AAKIT_bait", "a\0b"]
MINE = "Mine_" + STAMP     # a custom kit under a stamped name, which parse leaves as it is


@pytest.mark.parametrize("name", KIT_ESCAPING)
@pytest.mark.parametrize("operation", ["save", "delete", "rename_from", "rename_to"])
def test_kit_name_that_leaves_the_folder_touches_nothing_outside(tm, kit_sandbox, name, operation):
    files_dir, outside = kit_sandbox
    write_rows(files_dir / ("AAKIT_%s.csv" % MINE), kit_rows(MINE, kit_type=1))
    before = snapshot(outside, files_dir)
    kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    kits.parse()
    custom_kit(kits, name)
    if operation == "save":
        ret = kits.saveAAKitFile(name)
    elif operation == "delete":
        ret = kits.deleteAAKitInfo(name, check=False)
    elif operation == "rename_from":
        ret = kits._AAKitTableManager__renameAAKit(name, MINE)
    else:
        ret = kits._AAKitTableManager__renameAAKit(MINE, name)
    assert ret.RetCode == RetCode.ERROR_BF_AAKIT
    assert "must not contain a path separator or NUL" in ret.RetMsg
    assert snapshot(outside, files_dir) == before
    # A refused rename leaves the kit it would have renamed where it was.
    assert (files_dir / ("AAKIT_%s.csv" % MINE)).exists() and MINE in kits._AAKitTable


@pytest.mark.parametrize("name", HARMLESS)
def test_kit_name_with_dots_or_pattern_characters_is_a_file_of_the_folder(tm, files_dir, name):
    kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    custom_kit(kits, name)
    assert kits.saveAAKitFile(name).RetCode == RetCode.OK
    assert (files_dir / ("AAKIT_%s.csv" % name)).is_file()
    # Another kit file beside it is not matched by the name's pattern characters.
    write_rows(files_dir / "AAKIT_abc.csv", kit_rows("abc", kit_type=0))
    assert kits.deleteAAKitInfo(name, check=False).RetCode == RetCode.OK
    assert sorted(p.name for p in files_dir.iterdir()) == ["AAKIT_abc.csv"]


# ---------------------------------------------------------------- UD delta ---

@pytest.mark.parametrize("sn", ["../bait", "sub/../../bait", "a\0b"])
def test_ud_serial_number_that_leaves_the_folder_reads_nothing(tm, sandbox, sn):
    files_dir, outside = sandbox
    (files_dir / "sub").mkdir()
    (outside / "bait.csv").write_text("777\n")
    manager = tm.UDDeltaFreqTableManager(sn)
    ret = manager.parse()
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR, "Exception while delta csv parsing")
    assert manager.getUDDeltaFreq().RetData == 0


@pytest.mark.parametrize("sn, delta", [("*", 300), ("UD?", 300), ("[U]D1", 300), ("..", 0), ("UD1", 300)])
def test_ud_serial_number_is_a_pattern_within_the_folder(tm, files_dir, sn, delta):
    with open(files_dir / "UD1.csv", "w", newline="") as f:
        csv.writer(f).writerows([["# no label row, so any match reads the value"], ["300"]])
    manager = tm.UDDeltaFreqTableManager(sn)
    manager.parse()
    assert manager.getUDDeltaFreq().RetData == delta
