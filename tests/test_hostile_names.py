"""Serial numbers and kit names that try to leave the files directory, or that hold
file-name pattern characters.

Bait files lie outside the files directory exactly where a name would lead if it
were used as a path; no operation may read them, nor write, rename or delete
anything outside the folder. Pattern characters match names inside the folder only.
"""
import os

import pytest
from aakit_samples import LITE, kit_rows, record, write_rows
from beam_helpers import COMDR, DR, ELEDR
from calibration_sample import make_sample

from vexcore.QRVPublic import RetCode

ESCAPING = ["../bait", "sub/../../bait", "{outside}/bait", "a\0b", "..\0", "..\\bait"]
BEAM_ESCAPING = ["../bait", "sub/../../bait", "/abs/bait", "a\0b", "..\0", "..\\bait"]
HARMLESS = ["..", "...", "*", "?", "[ab]", "K5350R019-2?", "a b", "é"]
NOT_FOUND = (RetCode.ERROR_BF_CALI_PATH, "Can not find file for Cali table")


def snapshot(files_dir):
    """Every file outside the files directory with its content and modification time."""
    return {str(p): (p.read_bytes(), p.stat().st_mtime_ns) for p in files_dir.parent.rglob("*")
            if p.is_file() and files_dir not in p.parents}


@pytest.mark.parametrize("sn, expected", [(sn, NOT_FOUND) for sn in ESCAPING + ["..", "...", "[ab]", "a b", "é"]]
                         + [(sn, (RetCode.ERROR_BF_CALI_INCOMPLTE, "Wrong SN!")) for sn in ("*", "?", "K5350R019-2?")])
def test_calibration_serial_number_is_a_pattern_within_the_folder_only(tm, files_dir, sn, expected):
    sn = sn.format(outside=files_dir.parent)
    (files_dir / "sub").mkdir()
    # Where "<files>/<sn>*GHz.csv" would lead outside: a complete table carrying that serial number.
    make_sample(sn=sn).write(files_dir.parent, sn="bait")
    # Inside, another device's table: a pattern may match it, and its header check then refuses it.
    make_sample(sn="K5350R019-28").write(files_dir)
    before = snapshot(files_dir)
    manager = tm.CalibrationTableManager(sn, 28, tm.fake_rf_layout)
    ret = manager.parse(exportToJson=True)
    assert (ret.RetCode, ret.RetMsg) == expected
    assert manager.checkCaliTableLocation().RetData is (expected != NOT_FOUND)
    assert snapshot(files_dir) == before


@pytest.mark.parametrize("sn, kit", [(name, "") for name in BEAM_ESCAPING] + [("SN1", name) for name in BEAM_ESCAPING])
def test_beam_table_name_that_leaves_the_folder_is_refused(tm, files_dir, sn, kit):
    (files_dir / "BeamTable" / "sub").mkdir(parents=True)
    before = snapshot(files_dir)
    manager = tm.BeamPatternTableManager(sn, 7, 4, (4, 1, 4))
    manager._updateFreq(28.0, DR, COMDR, ELEDR)
    ret = manager._load(28.0, kit)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "BeamTable loading exception")
    assert manager._saveToBeamTableFile().RetCode == RetCode.ERROR_BF_BEAM_FILE
    assert snapshot(files_dir) == before
    assert os.listdir(files_dir / "BeamTable") == ["sub"]


@pytest.mark.parametrize("name", HARMLESS)
def test_names_with_dots_or_pattern_characters_are_files_of_the_folder(tm, files_dir, name):
    beams = tm.BeamPatternTableManager(name, 7, 4, (4, 1, 4))
    beams._updateFreq(28.0, DR, COMDR, ELEDR)
    assert beams._load(28.0, name).RetCode == RetCode.OK
    assert os.listdir(files_dir / "BeamTable") == ["Beam_Configuration_%s_28GHz_%s.json" % (name, name)]
    kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    kits._AAKitTable[name] = record(kit_type=1)
    assert kits.saveAAKitFile(name).RetCode == RetCode.OK
    assert (files_dir / ("AAKIT_%s.csv" % name)).is_file()
    # Another kit file beside it is not matched by the name's pattern characters.
    write_rows(files_dir / "AAKIT_abc.csv", kit_rows("abc"))
    assert kits.deleteAAKitInfo(name, check=False).RetCode == RetCode.OK
    assert sorted(os.listdir(files_dir)) == ["AAKIT_abc.csv", "BeamTable"]


@pytest.mark.parametrize("sn, code, delta", [
    ("../bait", RetCode.ERROR, 0), ("sub/../../bait", RetCode.ERROR, 0), ("a\0b", RetCode.ERROR, 0),
    ("..", RetCode.WARNING, 0), ("*", RetCode.OK, 300), ("UD?", RetCode.OK, 300), ("[U]D1", RetCode.OK, 300)])
def test_ud_serial_number_is_a_pattern_within_the_folder_only(tm, files_dir, sn, code, delta):
    (files_dir / "sub").mkdir()
    (files_dir.parent / "bait.csv").write_text("777\n")
    (files_dir / "UD1.csv").write_text("# no label row, so any match reads the value\n300\n")
    manager = tm.UDDeltaFreqTableManager(sn)
    assert manager.parse().RetCode == code
    assert manager.getUDDeltaFreq().RetData == delta
