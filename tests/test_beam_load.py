"""Beam manager construction, the table file name, loading, old-format conversion, version upgrade and saving
(to the file or through the web-mode callback)."""
import gc
import json
import logging

import pytest
from beam_helpers import COMDR, ELEDR, KIT, SN, Hooks, hooks, make_manager, manager, read_json  # noqa: F401
from conftest import records

from vexcore.QRVPublic import RetCode
from vexcore.QRVUtils import RetType

LOADING_FAILED = (RetCode.ERROR_BF_BEAM, "BeamTable loading exception")


def _path(files_dir, kit=KIT, freq="28"):
    return files_dir / "BeamTable" / ("Beam_Configuration_%s_%sGHz%s.json" % (SN, freq, "_" + kit if kit else ""))


def _write(path, content):
    """Writes bytes, text or a table (as JSON) to path, creating its folder."""
    content = json.dumps(content) if isinstance(content, dict) else content
    path.parent.mkdir(exist_ok=True)
    path.write_bytes(content if isinstance(content, bytes) else content.encode())
    return path


# ------------------------------------------------------------ new table ---

@pytest.mark.parametrize("freq, kit, name", [(28.0, "MyKit", "28GHz_MyKit.json"), (28, "", "28GHz.json"),
                                             (27.5, "", "27.5GHz.json")])
def test_missing_table_is_created_with_its_folders_under_its_name(tm, tmp_path, monkeypatch, caplog, freq, kit, name):
    files = tmp_path / "deep" / "files"
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(files))
    caplog.set_level(logging.DEBUG, logger="BeamTbl")
    manager = make_manager(tm)
    ret = manager._load(freq, kit)
    path = files / "BeamTable" / ("Beam_Configuration_%s_%s" % (SN, name))
    assert ret.RetCode == RetCode.OK and ret.RetData is manager._BeamTable
    assert manager._BeamPatternTableManager__path == path and list(path.parent.iterdir()) == [path]
    assert list(manager._BeamTable.items()) == [("VERSION", "v2.0.0"), ("SN", SN), ("DEV_TYPE", 7), ("FREQ", freq),
                                                ("AAKIT_NAME", kit), ("TX", {}), ("RX", {})]
    assert path.read_text(encoding="utf-8") == json.dumps(manager._BeamTable, ensure_ascii=False, indent=2)
    assert records(caplog, "BeamTbl") == [
        ("INFO", "Loading Beam Table by: %.1fGHz, AAKIT_NAME: '%s'" % (freq, kit)),
        ("INFO", "Generate Beam Table: %s" % path),
        ("DEBUG", "Saving beam file to %s" % path), ("INFO", "Beam Table version: v2.0.0"),
        ("INFO", "Loaded Beam Table from: %s" % path)]


def test_failed_generation_ends_in_the_loading_error(tm, files_dir, caplog):
    manager = make_manager(tm)
    manager._saveToBeamTableFile = lambda *a, **k: 1 / 0
    ret = manager._load(28.0, "")
    assert (ret.RetCode, ret.RetMsg) == LOADING_FAILED
    errors = [r for r in caplog.records if r.levelno == logging.ERROR]
    assert [(r.getMessage(), r.exc_info[0]) for r in errors] == [("BeamTable generating exception", ZeroDivisionError),
                                                                 (LOADING_FAILED[1], FileNotFoundError)]


# --------------------------------------------------------- version rules ---

@pytest.mark.parametrize("version, resaved", [("v2.0.0", False), ("v1.5.0", True)])
def test_only_other_versions_are_resaved_and_unchanged_on_every_load(tm, files_dir, caplog, version, resaved):
    table = {"VERSION": version, "SN": SN, "DEV_TYPE": 7, "FREQ": 28.0, "AAKIT_NAME": KIT,
             "TX": {"3": {"beam_description": "é", "beam_type": 0, "beam_config": {"db": 1, "theta": 2, "phi": 3}}},
             "RX": {}}
    text = json.dumps(table, indent=4)          # not the writer's layout: a re-save would show
    path = _write(_path(files_dir), text)
    caplog.set_level(logging.INFO, logger="BeamTbl")
    manager = make_manager(tm)
    for _ in range(2):
        assert manager._load(28.0, KIT).RetData == table
    assert path.read_text(encoding="utf-8") == (json.dumps(table, ensure_ascii=False, indent=2) if resaved else text)
    upgrades = [r.getMessage() for r in caplog.records if r.msg == "Upgrade Beam Table version to %s"]
    assert upgrades == ["Upgrade Beam Table version to 2.0.0"] * (2 if resaved else 0)


def _old_table(beams, version_key="VERSION"):
    return {version_key: "v1.0.0", "TX_beam_list": beams, "RX_beam_list": []}


def _old_channels(db_of, order):
    return [{"channel": ch, "sw": ch % 2, "db": db_of(ch), "deg": ch * 10} for ch in order]


def test_old_channel_beams_are_converted_in_channel_order_within_the_limits_and_saved(tm, files_dir):
    path = _path(files_dir, kit="")
    _write(path, _old_table([
        {"beamId": 3, "beam_type": 1, "beam_description": "lost", "db": 1, "theta": 2, "phi": 3, "channel_switch": 1,
         "channel_config": _old_channels(lambda ch: 20.0 if ch % 3 else 1.25, range(16, 0, -1))},   # any order
        {"beamId": 5, "channel_config": []},                       # no type: left out
    ], version_key="version"))
    manager = make_manager(tm)
    assert manager._load(28.0, "").RetCode == RetCode.OK
    table = manager._BeamTable
    boards = {}
    for b in range(4):
        board = boards["board_%d" % (b + 1)] = {"common_db": None}
        for c in range(1, 5):
            ch = b * 4 + c
            board["channel_%d" % c] = {"sw": ch % 2, "db": min(20.0 if ch % 3 else 1.25, COMDR[0][b] + ELEDR[0][b]),
                                       "deg": ch * 10}
    expected = {"VERSION": "v2.0.0", "DEV_TYPE": 7, "FREQ": 28.0, "AAKIT_NAME": "", "TX": {
        "3": {"beam_description": "", "beam_type": 1, "channel_config": boards}}, "RX": {}}
    # Compared as JSON text, so that the order of keys counts too.
    assert json.dumps(table) == json.dumps(expected) and read_json(path) == table


@pytest.mark.parametrize("order, message", [
    (range(1, 13), "TX BeamID:3: count of channel_config(12) not match with channel count(16)"),
    (list(range(1, 16)) + [15], "Can not find channel seq: 16"),
])
def test_old_channel_list_errors_leave_the_file_alone(tm, files_dir, caplog, order, message):
    path = _path(files_dir, kit="")
    _write(path, _old_table([{"beamId": 3, "beam_type": 1, "channel_config": _old_channels(float, order)}]))
    before = path.read_bytes()
    ret = make_manager(tm)._load(28.0, "")
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM_FILE, message)
    assert ("ERROR", message) in records(caplog, "BeamTbl") and path.read_bytes() == before


@pytest.mark.parametrize("freq, kit, content", [
    (28.0, KIT, '{"SN": "x", "TX": {}, "RX": {}}'),          # no version at all
    (28.0, KIT, '{"VERSION": 2, "TX": {}, "RX": {}}'),       # version not comparable with text
    (28.0, KIT, '{"VERSION": "v2.0.0", "TX": {'),            # cut short while the table is built
    ("28", "", None), (float("nan"), "", None),
])
def test_unreadable_tables_and_bad_names_end_in_the_loading_error_and_leave_the_collector_as_it_was(
        tm, files_dir, caplog, freq, kit, content):
    if content is not None:
        _write(_path(files_dir), content)
    was = gc.isenabled()
    try:
        for enabled in (True, False):       # the collector is paused while a table is built
            (gc.enable if enabled else gc.disable)()
            ret = make_manager(tm)._load(freq, kit)
            assert (ret.RetCode, ret.RetMsg) == LOADING_FAILED and gc.isenabled() is enabled
    finally:
        (gc.enable if was else gc.disable)()
    errors = [r for r in caplog.records if r.levelno >= logging.ERROR]
    assert [r.getMessage() for r in errors] == [LOADING_FAILED[1]] * 2 and all(r.exc_info[1] for r in errors)


def test_web_mode_hands_the_load_to_the_callback(tm, files_dir):
    calls = []
    answer = RetType(data={"from": "host"})
    manager = make_manager(tm, hooks=Hooks(), num_beam=32, web_client_id="c1")
    assert manager._load(27.5, KIT, lambda **kwargs: calls.append(kwargs) or answer) is answer
    assert calls == [{"func_name": "_load", "freq": 27.5, "aakit": KIT, "devtype": 7, "num_beam": 32,
                      "rf_layout": (4, 1, 4), "check_funcs": None, "web_client_id": None}]
    assert manager._BeamTable is None and list(files_dir.iterdir()) == []


# ----------------------------------------------------------------- saving ---

def _file_bytes(manager):
    return manager._BeamPatternTableManager__path.read_bytes()


def test_a_table_handed_in_is_saved_but_not_adopted(manager):
    # The file is what json.dumps(table, ensure_ascii=False, indent=2) writes: the load tests above check it
    # for created and upgraded tables, the encoder's property tests for every kind of value.
    before = manager._BeamTable
    other = {"VERSION": "v2.0.0", "TX": {}, "RX": {}, "note": "replacement"}
    assert manager._saveToBeamTableFile(new_table=other).RetCode == RetCode.OK
    assert json.loads(_file_bytes(manager)) == other and manager._BeamTable is before and "note" not in before


@pytest.mark.parametrize("new_table", [None, {"TX": {}}])
def test_web_mode_save_goes_to_the_callback_only(manager, new_table):
    calls, before = [], _file_bytes(manager)
    answer = RetType(msg="stored by host")
    assert manager._saveToBeamTableFile(lambda **kw: calls.append(kw) or answer, new_table) is answer
    assert calls == [{"func_name": "saveToBeamTableFile", **({} if new_table is None else {"new_table": new_table})}]
    assert _file_bytes(manager) == before
