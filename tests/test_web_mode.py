"""Web mode end to end against the real query service on both engines, and the demonstration."""
import logging
import os
import shutil
import sqlite3
import subprocess
import sys

import pytest

import vexcore.samples as samples
from vexcore.db import QRVDBQueryer as service
from vexcore.db.upload import import_calibration_files
from vexcore.db.web_tables import AAKitStore, BeamTableStore
from vexcore.QRVPublic import RetCode, RFMode

SN, FREQ = "K5350R019-28", 28
SAMPLE = os.path.join(samples.HERE, "files", samples.CALIBRATION_FILE)
# Written by the first release's query service: the sample table at 28 and 27.5 GHz,
# a row that does not decode, a beam table and a kit.
FIRST_RELEASE_DB = os.path.join(os.path.dirname(__file__), "data", "tables_v1.db")


@pytest.fixture
def stocked(files_dir, database, monkeypatch):
    """The sample calibration file in the files directory and in the database."""
    shutil.copy(SAMPLE, files_dir)
    monkeypatch.setenv("VEXCORE_DB", database)
    import_calibration_files([str(files_dir / samples.CALIBRATION_FILE)])
    return files_dir


def managers(tm):
    file_mode = tm.CalibrationTableManager(SN, FREQ, tm.fake_rf_layout)
    assert file_mode.parse().RetCode == RetCode.OK
    web_mode = tm.CalibrationTableManager(SN, FREQ, tm.fake_rf_layout, web_client_id="111")
    return file_mode, web_mode


def test_web_mode_answers_like_file_mode(tm, stocked):
    file_mode, web_mode = managers(tm)
    assert web_mode.getFrequencyList().RetData == file_mode.getFrequencyList().RetData == [28.0]
    assert web_mode.queryCaliTableVer().RetData == file_mode.queryCaliTableVer().RetData == "2.1.0"
    # ELEDR (a stored one-value list comes back as its value): the device opens of the load test.
    assert_web_answers_like_file_mode(file_mode, web_mode)
    steps = file_mode._searchComStepDR(2, "TX", -4.0, -1.0, None)
    assert steps and web_mode._searchComStepDR(2, "TX", -4.0, -1.0, None) == steps
    ask = ("TX", 2, 1, [1, 2, 3, 4], [-4.0] * 4, ["45"] * 4, steps)
    assert web_mode._getComData(*ask) == file_mode._getComData(*ask)


def assert_web_answers_like_file_mode(file_mode, web_mode):
    for mode in (None, *RFMode):
        assert web_mode.getDR(mode).RetData == file_mode.getDR(mode).RetData
    assert web_mode.getCOMDR().RetData == file_mode.getCOMDR().RetData
    assert web_mode._getTC() == file_mode._getTC()
    for mode in ("TX", "RX"):
        assert web_mode._getBoardsOffset([1, 2, 3, 4], mode, 1) == file_mode._getBoardsOffset([1, 2, 3, 4], mode, 1)


@pytest.mark.parametrize("how", ["first open", "migrate command"])
def test_first_release_database_is_upgraded_with_nothing_lost(tm, files_dir, tmp_path, monkeypatch, caplog, how):
    path = str(tmp_path / "old.db")
    shutil.copy(FIRST_RELEASE_DB, path)
    shutil.copy(SAMPLE, files_dir)
    monkeypatch.setenv("VEXCORE_DB", path)
    moved = "2 calibration tables moved to layout 2, 1 unreadable kept in calibration_unreadable"
    if how == "migrate command":
        run = subprocess.run([sys.executable, "-m", "vexcore.db", "migrate"], capture_output=True, text=True)
        assert (run.returncode, run.stdout) == (0, "%s: %s\n" % (path, moved))
    with caplog.at_level(logging.INFO, logger="vexcore.db"):
        file_mode, web_mode = managers(tm)
        assert web_mode.getFrequencyList().RetData == [27.5, 28.0]
    upgraded = [r.getMessage() for r in caplog.records if r.name == "vexcore.db" and "upgraded" in r.getMessage()]
    assert upgraded == ([] if how == "migrate command" else ["table database %s upgraded: %s" % (path, moved)])
    assert_web_answers_like_file_mode(file_mode, web_mode)
    beams = BeamTableStore(SN, path)("_load", freq=28, aakit="KIT", devtype=9).RetData
    assert beams["TX"]["1"]["beam_description"] == "old release"
    assert AAKitStore(path).list_kits(9, 2, [9]).RetData["OldKit"]["OFFSET_TX"] == [1, 2]
    with sqlite3.connect(path) as raw:
        assert raw.execute("SELECT sn, content FROM calibration_unreadable").fetchall() == [("BROKEN-1", '{"VER": ')]


# One query of each way to the board rows: temperature steps, offsets, the board ranges (_getBoardCOMDR's too).
@pytest.mark.parametrize("ask, args", [("_getTC", ()), ("_getBoardsOffset", ([1], "TX", 1)),
                                       ("_searchComStepDR", (1, "TX", -4.0, -1.0, None))])
def test_damaged_row_reaches_the_manager_as_database_error(tm, stocked, database, ask, args):
    with service.transaction(database) as db:
        db.execute("UPDATE calibration_entry SET content = 'not json' WHERE category = 'BOARD_1'")
    web_mode = managers(tm)[1]
    with pytest.raises(tm.QRVTableDBError) as raised:
        getattr(web_mode, ask)(*args)
    assert raised.value.ret.RetCode == RetCode.ERROR_DB_FEEDBACK
    assert "K5350R019-28 at 28.0 GHz, BOARD_1 TX: stored entry does not decode" in raised.value.ret.RetMsg


def test_demonstration_runs_on_the_samples_and_explains_a_missing_set_up(tmp_path):
    env = {k: v for k, v in os.environ.items() if k not in ("VEXCORE_DB", "VEXCORE_FILES_DIR")}
    demo = [sys.executable, "-m", "vexcore.qrvdev.QRVTableManager"]
    run = subprocess.run(demo, cwd=tmp_path, env=env, capture_output=True, text=True, timeout=60)
    assert run.returncode == 2 and "python -m vexcore.samples" in run.stderr
    subprocess.run([sys.executable, "-m", "vexcore.samples", str(tmp_path)], check=True, env=env)
    run = subprocess.run(demo, cwd=tmp_path, env=env, capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stdout + run.stderr
    for expected in ("Frequencies (GHz): [28.0]", "DR: {'TX': [-10.0, 5.0], 'RX': [-12.0, 6.0]}",
                     "Select AAKit: AAKIT_QRVLAB-4x4_PRIME_28_IDEAL", "(boards 1 and 2): [2, 2]", "Demonstration done."):
        assert expected in run.stdout, expected


def test_kits_round_trip_through_the_database_which_filters_them_by_device_type(tm, database, files_dir):
    store = AAKitStore(database)
    for name, record in {"ANY": {"TYPE": 0}, "TWELVE": {"DEV_TYPE": 12}}.items():
        assert store.store(func_name="saveAAKitFile", kitName=name, check=False, context=record).RetCode == RetCode.OK
    writer = tm.AAKitTableManager(9, 4, support_dev=[9], web_client_id="111")
    name = writer.setAAKitInfo("Lab", [5.0, 5.0], [-45.0, 45.0], [0.0, 0.0], [1, 2, 3, 4], [4, 3, 2, 1]).RetData
    assert writer.saveAAKitFile(name, callback=store.store).RetCode == RetCode.OK
    reader = tm.AAKitTableManager(9, 4, support_dev=[9], web_client_id="111")
    assert reader.getAAKitList(callback=store.list_kits).RetData == ["ANY", name]      # a kit without a type too
    assert reader.getAAKitInfo(name).RetData == writer.getAAKitInfo(name).RetData
    assert store.store(func_name="deleteAAKitInfo", kitName="GONE", check=False).RetCode == RetCode.ERROR_BF_AAKIT
    assert list(store.list_kits(9, 16, [9, 12]).RetData) == ["ANY", name, "TWELVE"]
    assert not list(files_dir.glob("AAKIT_*"))           # nothing written locally
