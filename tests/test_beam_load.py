"""Beam manager construction, the table file name, loading, old-format conversion and version upgrade."""
import gc
import json
import logging

import pytest

from beam_helpers import COMDR, ELEDR, KIT, SN, Hooks, make_manager, read_json, table_dir, write_json
from conftest import records
from vexcore.QRVPublic import RetCode
from vexcore.QRVUtils import RetType

P = "_BeamPatternTableManager__"


# ----------------------------------------------------------- construction ---

@pytest.mark.parametrize("layout", [(2, 3, 4), [2, 3, 4], lambda: (2, 3, 4)], ids=["tuple", "list", "callable"])
def test_construction_sets_every_attribute(tm, files_dir, layout):
    hooks = Hooks()
    manager = tm.BeamPatternTableManager("SN9", "ORBA", 16, layout, hooks.funcs)
    state = vars(manager)
    assert state[P + "logger"] is logging.getLogger("BeamTbl")
    assert state[P + "web_mode"] is False
    assert (state[P + "func_beam_checking"], state[P + "func_ic_gain_checking"]) == hooks.funcs
    assert state[P + "defaultDir"] == files_dir / "BeamTable" and state[P + "path"] == ""
    assert (state[P + "sn"], state[P + "devtype"], state[P + "num_beam"]) == ("SN9", "ORBA", 16)
    assert state[P + "freq"] is None and state[P + "aakit"] == ""
    assert state[P + "DR"] == {} and state[P + "COMDR"] == {} and state[P + "ELEDR"] == {}
    layout_values = [state[P + k] for k in ("num_board", "num_ic_per_board", "num_channel_per_ic", "totalCH")]
    assert layout_values == [2, 3, 4, 24]
    assert manager._BeamTable is None


def test_web_mode_has_no_file_attributes_and_no_hooks_by_default(tm, files_dir):
    manager = tm.BeamPatternTableManager("SN9", 1, 4, (4, 1, 4), None, web_client_id="client")
    state = vars(manager)
    assert state[P + "web_mode"] is True
    assert state[P + "func_beam_checking"] is None and state[P + "func_ic_gain_checking"] is None
    assert P + "defaultDir" not in state and P + "path" not in state


@pytest.mark.parametrize("layout", [(4, 1), (4, 1, 4, 2), 16, lambda: (4, 4)])
def test_layout_must_hold_exactly_three_numbers(tm, files_dir, layout):
    value = layout() if callable(layout) else layout
    with pytest.raises((TypeError, ValueError)) as python_error:
        a, b, c = value
    with pytest.raises(type(python_error.value), match=str(python_error.value).replace("(", r"\(").replace(")", r"\)")):
        tm.BeamPatternTableManager("SN9", 1, 4, layout)


# ------------------------------------------------------- file name, default ---

@pytest.mark.parametrize("freq, kit, name", [
    (28.0, KIT, "Beam_Configuration_%s_28GHz_%s.json" % (SN, KIT)),
    (28, "", "Beam_Configuration_%s_28GHz.json" % SN),
    (27.5, "", "Beam_Configuration_%s_27.5GHz.json" % SN),
    (39.25, "MyKit", "Beam_Configuration_%s_39.25GHz_MyKit.json" % SN),
])
def test_file_name_rule(tm, files_dir, freq, kit, name):
    manager = make_manager(tm)
    assert manager._load(freq, kit).RetCode == RetCode.OK
    assert manager._BeamPatternTableManager__path == table_dir(files_dir) / name
    assert [p.name for p in table_dir(files_dir).iterdir()] == [name]


def test_missing_table_is_created_with_its_folders(tm, tmp_path, monkeypatch, caplog):
    files = tmp_path / "deep" / "files"
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(files))
    caplog.set_level(logging.DEBUG, logger="BeamTbl")
    manager = make_manager(tm)
    ret = manager._load(28.0, "MyKit")
    path = files / "BeamTable" / ("Beam_Configuration_%s_28GHz_MyKit.json" % SN)
    assert ret.RetCode == RetCode.OK and ret.RetData is manager._BeamTable
    assert list(manager._BeamTable.items()) == [("VERSION", "v2.0.0"), ("SN", SN), ("DEV_TYPE", 7), ("FREQ", 28.0),
                                                ("AAKIT_NAME", "MyKit"), ("TX", {}), ("RX", {})]
    assert path.read_text(encoding="utf-8") == json.dumps(manager._BeamTable, ensure_ascii=False, indent=2)
    assert records(caplog, "BeamTbl") == [
        ("INFO", "Loading Beam Table by: 28.0GHz, AAKIT_NAME: 'MyKit'"),
        ("INFO", "Generate Beam Table: %s" % path),
        ("DEBUG", "Saving beam file to %s" % path),
        ("INFO", "Beam Table version: v2.0.0"),
        ("INFO", "Loaded Beam Table from: %s" % path),
    ]


def test_failed_generation_ends_in_the_loading_error(tm, files_dir, caplog):
    manager = make_manager(tm)
    manager._saveToBeamTableFile = lambda *a, **k: RetType(RetCode.ERROR_BF_BEAM_FILE, "BeamFile saving exception")
    ret = manager._load(28.0, "")
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "BeamTable loading exception")
    (record,) = [r for r in caplog.records if r.levelno == logging.ERROR]
    assert record.exc_info[0] is FileNotFoundError


# --------------------------------------------------------- version rules ---

def _path(files_dir, freq="28", kit=KIT):
    return table_dir(files_dir) / ("Beam_Configuration_%s_%sGHz%s.json" % (SN, freq, "_" + kit if kit else ""))


def test_current_version_is_neither_converted_nor_resaved(tm, files_dir, caplog):
    table = {"VERSION": "v2.0.0", "SN": SN, "DEV_TYPE": 7, "FREQ": 28.0, "AAKIT_NAME": KIT,
             "TX": {"3": {"beam_description": "é", "beam_type": 0, "beam_config": {"db": 1, "theta": 2, "phi": 3}}},
             "RX": {}}
    path = _path(files_dir)
    path.parent.mkdir()
    text = json.dumps(table, indent=4)          # not the writer's layout: a re-save would show
    path.write_text(text, encoding="utf-8")
    caplog.set_level(logging.INFO, logger="BeamTbl")
    ret = make_manager(tm)._load(28.0, KIT)
    assert ret.RetCode == RetCode.OK and ret.RetData == table
    assert path.read_text(encoding="utf-8") == text
    assert "Upgrade Beam Table version to %s" not in [r.msg for r in caplog.records]


def test_intermediate_version_is_resaved_unchanged_on_every_load(tm, files_dir, caplog):
    table = {"VERSION": "v1.5.0", "DEV_TYPE": 7, "FREQ": 28.0, "AAKIT_NAME": KIT, "TX": {}, "RX": {}}
    path = _path(files_dir)
    path.parent.mkdir()
    path.write_text(json.dumps(table), encoding="utf-8")
    caplog.set_level(logging.INFO, logger="BeamTbl")
    manager = make_manager(tm)
    for _ in range(2):
        assert manager._load(28.0, KIT).RetData == table
    upgrades = [r for r in caplog.records if r.msg == "Upgrade Beam Table version to %s"]
    assert [r.getMessage() for r in upgrades] == ["Upgrade Beam Table version to 2.0.0"] * 2
    assert path.read_text(encoding="utf-8") == json.dumps(table, ensure_ascii=False, indent=2)


def _old_channels(db_of, order):
    """An old-format channel list of 16 channels, listed in `order`."""
    return [{"channel": ch, "sw": ch % 2, "db": db_of(ch), "deg": ch * 10} for ch in order]


def _old_table(beams, version_key="VERSION"):
    return {version_key: "v1.0.0", "TX_beam_list": beams, "RX_beam_list": []}


def test_old_format_is_converted_and_saved(tm, files_dir):
    order = list(range(16, 0, -1))                     # channels need not be listed in order
    old = _old_table([
        {"beamId": 3, "beam_type": 1, "beam_description": "lost", "db": 1, "theta": 2, "phi": 3,
         "channel_switch": 1, "channel_config": _old_channels(lambda ch: 20.0 if ch % 3 else 1.25, order)},
        {"beamId": 4, "beam_type": 0, "beam_config": {"db": 5, "theta": 6, "phi": 7}},
        {"beamId": 5, "channel_config": []},                       # no type: left out
        {"beamId": 6, "beam_type": None, "channel_config": []},    # null type: left out
    ], version_key="version")
    path = _path(files_dir, kit="")
    write_json(path, old)
    manager = make_manager(tm)
    ret = manager._load(28.0, "")
    assert ret.RetCode == RetCode.OK
    table = manager._BeamTable
    assert list(table) == ["VERSION", "DEV_TYPE", "FREQ", "AAKIT_NAME", "TX", "RX"]   # no "SN"
    assert (table["VERSION"], table["DEV_TYPE"], table["FREQ"], table["AAKIT_NAME"]) == ("v2.0.0", 7, 28.0, "")
    assert list(table["TX"]) == ["3", "4"] and table["RX"] == {}
    assert table["TX"]["4"] == {"beam_description": "", "beam_type": 0, "beam_config": {"db": 5, "theta": 6, "phi": 7}}
    converted = table["TX"]["3"]
    assert list(converted) == ["beam_description", "beam_type", "channel_config"]
    assert converted["beam_description"] == "" and converted["beam_type"] == 1
    config = converted["channel_config"]
    assert list(config) == ["board_1", "board_2", "board_3", "board_4"]
    for b, board in enumerate(config.values()):
        assert list(board) == ["common_db"] + ["channel_%d" % c for c in range(1, 5)]
        assert board["common_db"] is None
        cap = COMDR[0][b] + ELEDR[0][b]
        for c in range(1, 5):
            ch = b * 4 + c
            old_db = 20.0 if ch % 3 else 1.25
            assert board["channel_%d" % c] == {"sw": ch % 2, "db": min(old_db, cap), "deg": ch * 10}
    assert read_json(path) == table


def test_old_steering_fields_become_steered_beams_when_a_kit_is_set(tm, files_dir):
    old = _old_table([{"beamId": 1, "beam_type": 1, "db": 4.5, "theta": -10, "phi": 90, "channel_switch": 0,
                       "channel_config": []}])
    write_json(_path(files_dir), old)
    manager = make_manager(tm)
    assert manager._load(28.0, KIT).RetCode == RetCode.OK
    assert manager._BeamTable["TX"] == {"1": {"beam_description": "", "beam_type": 0,
                                              "beam_config": {"db": 4.5, "theta": -10, "phi": 90}}}
    assert manager._BeamTable["AAKIT_NAME"] == KIT


@pytest.mark.parametrize("channels, message", [
    (_old_channels(lambda ch: 0.0, range(1, 13)),
     "TX BeamID:3: count of channel_config(12) not match with channel count(16)"),
    (_old_channels(lambda ch: 0.0, [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 15]),
     "Can not find channel seq: 16"),
])
def test_old_channel_list_errors_leave_the_file_alone(tm, files_dir, caplog, channels, message):
    path = _path(files_dir, kit="")
    write_json(path, _old_table([{"beamId": 3, "beam_type": 1, "channel_config": channels}]))
    before = path.read_bytes()
    ret = make_manager(tm)._load(28.0, "")
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM_FILE, message)
    assert ("ERROR", message) in records(caplog, "BeamTbl")
    assert path.read_bytes() == before


@pytest.mark.parametrize("content", [
    '{"SN": "x", "TX": {}, "RX": {}}',          # no version at all
    '{"VERSION": "v2.0.0", "TX": {',            # truncated
    '[1, 2, 3]',                                 # not a table
    '{"VERSION": 2, "TX": {}, "RX": {}}',       # version not comparable with text
    '{"VERSION": "v1.0.0", "RX_beam_list": []}',  # old format without the TX list
    b'{"VERSION": "v2.0.0\xff"}',                # not UTF-8
])
def test_unreadable_tables_end_in_the_loading_error(tm, files_dir, caplog, content):
    path = _path(files_dir)
    path.parent.mkdir()
    path.write_bytes(content if isinstance(content, bytes) else content.encode())
    manager = make_manager(tm)
    ret = manager._load(28.0, KIT)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "BeamTable loading exception")
    (record,) = [r for r in caplog.records if r.levelno >= logging.ERROR]
    assert record.getMessage() == "BeamTable loading exception" and isinstance(record.exc_info[1], Exception)


@pytest.mark.parametrize("freq, kit", [("28", ""), (None, ""), (28.0, None), (float("nan"), "")])
def test_bad_frequency_or_kit_is_a_loading_error(tm, files_dir, freq, kit):
    ret = make_manager(tm)._load(freq, kit)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "BeamTable loading exception")


@pytest.mark.parametrize("kit", ["../escape", "a/b", "..\\up"])
def test_kit_names_cannot_leave_the_table_folder(tm, files_dir, kit):
    ret = make_manager(tm)._load(28.0, kit)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "BeamTable loading exception")
    assert sorted(p.name for p in files_dir.rglob("*")) in ([], ["BeamTable"])


def test_web_mode_hands_the_load_to_the_callback(tm, files_dir):
    calls = []
    answer = RetType(data={"from": "host"})

    def callback(**kwargs):
        calls.append(kwargs)
        return answer

    manager = make_manager(tm, hooks=Hooks(), num_beam=32, web_client_id="c1")
    assert manager._load(27.5, KIT, callback) is answer
    assert calls == [{"func_name": "_load", "freq": 27.5, "aakit": KIT, "devtype": 7, "num_beam": 32,
                      "rf_layout": (4, 1, 4), "check_funcs": None, "web_client_id": None}]
    assert manager._BeamTable is None
    assert list(files_dir.iterdir()) == []


@pytest.mark.parametrize("enabled", [True, False], ids=["collector_on", "collector_off"])
@pytest.mark.parametrize("content", ['{"VERSION": "v2.0.0", "TX": {}, "RX": {}}', '{"VERSION": "v2.0.0", "TX": {',
                                     '{"version": "v1.0.0", "TX_beam_list": []}'], ids=["good", "broken", "old"])
def test_load_leaves_the_garbage_collector_as_it_found_it(tm, files_dir, enabled, content):
    path = _path(files_dir)
    path.parent.mkdir()
    path.write_text(content, encoding="utf-8")
    was = gc.isenabled()
    (gc.enable if enabled else gc.disable)()
    try:
        make_manager(tm)._load(28.0, KIT)
        assert gc.isenabled() is enabled
    finally:
        (gc.enable if was else gc.disable)()
