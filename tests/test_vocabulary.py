"""The module's names: start-up order, enumerations, the dual-polarization record and the default hooks."""
import enum

import pytest

from vexcore.QRVPublic import BeamType, CellRFMode, POLARIZATION, RFMode, RetCode
from vexcore.QRVUtils import RetType


def test_names_bound_in_start_up_order(tm):
    names = list(vars(tm))
    expected = ["csv", "datetime", "Enum", "Flag", "auto", "glob", "importlib", "json", "logging", "os",
                "time", "Union", "Callable", "Path", "_Utils", "RetType", "RFMode", "BeamType", "RetCode",
                "CellRFMode", "POL", "BTModeFilter", "BTSetOption", "BTField", "BTBeamField",
                "BeamPatternTableManager", "moss_cali", "CalibrationTableManager", "AAKitField",
                "AAKitTableManager", "UDDeltaFreqTableManager", "QRVTableDBError", "_QRVTableDB",
                "fake_rf_layout", "fake_check", "fake_ic_check"]
    assert [n for n in names if n in expected] == expected
    import datetime
    assert tm.datetime is datetime.datetime
    assert tm.POL is POLARIZATION and tm.RFMode is RFMode and tm.RetType is RetType


def test_mode_filter_flags(tm):
    f = tm.BTModeFilter
    assert issubclass(f, enum.Flag)
    assert (f.TX.value, f.RX.value, f.ALL.value) == (1, 2, 3)
    assert f(3) is f.ALL and f.TX in f.ALL and f.RX in f.ALL
    assert list(f) == [f.TX, f.RX]
    assert f.TX | f.RX is f.ALL


def test_set_option_flags_and_aliases(tm):
    o = tm.BTSetOption
    assert issubclass(o, enum.Flag)
    assert o.UI_IMPORT is o.VALIDATE
    assert [m.value for m in (o.VALIDATE, o.GET, o.SAVE, o.REPLACE_ALL)] == [1, 2, 4, 8]
    assert o.UI_EXPORT is o.VALIDATE | o.GET
    assert o.UI_SAVE_UPSERT is o.VALIDATE | o.SAVE
    assert o.UI_SAVE_REPLACE.value == 13 and o.REPLACE_ALL in o.UI_SAVE_REPLACE
    assert o.GET not in o.UI_SAVE_REPLACE


def test_field_enums(tm):
    bt = tm.BTField
    assert not issubclass(bt, enum.Flag)
    assert bt._version.value == "2.0.0" and bt._version in list(bt)
    assert [(m.name, m.value) for m in bt][1:] == [("VERSION", 0), ("SN", 1), ("DEV_TYPE", 2), ("FREQ", 3),
                                                   ("AAKIT_NAME", 4), ("TX", 5), ("RX", 6)]
    beam_keys = ["beam_description", "beam_type", "beam_config", "db", "theta", "phi", "channel_config",
                 "board_", "common_db", "channel_", "sw", "deg"]
    assert [(m.name, m.value) for m in tm.BTBeamField] == list(zip(beam_keys, range(12)))
    kit_keys = ["AAKIT_NAME", "DEV_TYPE", "TYPE", "SPACING", "STEERING_H", "STEERING_V", "OFFSET_TX", "OFFSET_RX"]
    assert [(m.name, m.value) for m in tm.AAKitField] == list(zip(kit_keys, range(8)))
    for cls in (tm.BTModeFilter, tm.BTSetOption, tm.BTField, tm.BTBeamField, tm.AAKitField):
        assert cls.__module__ == tm.__name__


def _leaf_types(value, path=()):
    if isinstance(value, dict):
        for key, item in value.items():
            yield from _leaf_types(item, path + (key,))
    elif isinstance(value, list):
        yield path, list, tuple(type(v) for v in value)
    else:
        yield path, type(value), ()


def test_moss_cali_values_and_types(tm):
    c = tm.moss_cali
    assert (c["VER"], c["SN"], c["FCENTER"]) == ("3.0.0", "K5120R077-28", 28)
    assert c["DR"] == {"TX": {"HORIZON": [-9.5, 5.0], "VERTICAL": [-8.0, 7.0]},
                       "RX": {"HORIZON": [-5.0, 10.0], "VERTICAL": [-6.0, 9.0]}}
    board = c["BOARD_1"]
    assert board["TC"] == {"TEMPADC": 37, "HORIZON": [8, 3, 2, 11], "VERTICAL": [8, 3, 2, 11]}
    assert board["TX"]["HORIZON"] == {"OFFSET": [0, 0, 0, 0], "COMDR": [-9.5, -2.0], "ELEDR": 7.0}
    assert board["TX"]["VERTICAL"] == {"OFFSET": [0, 0, 0, 0], "COMDR": [-8.0, -0.5], "ELEDR": 7.5}
    assert board["RX"]["HORIZON"] == {"OFFSET": [0, 0, 0, 0], "COMDR": [-5.0, 2.5], "ELEDR": 4.0}
    assert board["RX"]["VERTICAL"] == {"OFFSET": [0, 0, 0, 0], "COMDR": [-6.0, 1.5], "ELEDR": 5.5}
    # DR and COMDR are floats, ELEDR a float; FCENTER, TEMPADC, TC and OFFSET integers.
    for path, kind, items in _leaf_types(c):
        last = path[-1]
        if path[0] == "DR" or last == "COMDR":
            assert kind is list and set(items) == {float}, path
        elif last == "ELEDR":
            assert kind is float, path
        elif last in ("OFFSET", "HORIZON", "VERTICAL"):
            assert kind is list and set(items) == {int}, path
        elif last in ("FCENTER", "TEMPADC"):
            assert kind is int, path
        else:
            assert kind is str, path


def test_rf_layout_hook(tm):
    first, second = tm.fake_rf_layout(), tm.fake_rf_layout()
    assert first == (4, 1, 4) and type(first) is tuple and first is not second


@pytest.mark.parametrize("args", [(1, 2, 3, 4), (None, None, None, None), ("a", [1], {"k": 2}, None)])
def test_beam_check_hook_passes_values_through(tm, args):
    ret = tm.fake_check(*args)
    assert isinstance(ret, RetType) and ret.RetCode is RetCode.OK and ret.RetMsg == ""
    assert ret.RetData == tuple(args[1:]) and all(a is b for a, b in zip(ret.RetData, args[1:]))


@pytest.mark.parametrize("args", [(1, 2, 3), (None, None, None), (0, 0, [1.5, 2.5])])
def test_ic_check_hook_passes_value_through(tm, args):
    ret = tm.fake_ic_check(*args)
    assert ret.RetCode is RetCode.OK and ret.RetData is args[2]


@pytest.mark.parametrize("hook, count", [("fake_check", 3), ("fake_check", 5), ("fake_ic_check", 2),
                                         ("fake_ic_check", 4), ("fake_rf_layout", 1)])
def test_hooks_refuse_wrong_argument_counts(tm, hook, count):
    with pytest.raises(TypeError):
        getattr(tm, hook)(*range(count))


def test_retype_forms():
    assert (RetType().RetCode, RetType().RetMsg, RetType().RetData) == (RetCode.OK, "", None)
    r = RetType(RetCode.ERROR, "bad")
    assert (r.RetCode, r.RetMsg, r.RetData) == (RetCode.ERROR, "bad", None)
    assert RetType(RetCode.WARNING, data=5).RetData == 5 and RetType(data=[1]).RetCode is RetCode.OK
    assert RetType(msg="m").RetMsg == "m" and RetType(RetCode.ERROR, RetMsg="x").RetMsg == "x"
    r.RetMsg = "prefix: " + r.RetMsg
    assert "prefix: bad" in repr(r) and "ERROR" in repr(r)
    with pytest.raises(TypeError):
        RetType(RetCode.OK, code=RetCode.ERROR)


def test_sibling_enumerations():
    assert [m.name for m in RFMode] == ["TX", "RX"] and [m.value for m in RFMode] == [0, 1]
    assert CellRFMode.STANDBY.value == 2 and CellRFMode(RFMode.TX) is CellRFMode.TX
    assert (BeamType.BEAM.value, BeamType.CHANNEL.value) == (0, 1)
    assert {"HORIZON", "VERTICAL"} <= set(POLARIZATION.__members__)
    for name in ("OK", "WARNING", "ERROR", "ERROR_BF_CALI_PATH", "ERROR_BF_CALI_PARSE", "ERROR_BF_CALI_INCOMPLTE",
                 "ERROR_BF_BEAM", "ERROR_BF_BEAM_FILE", "ERROR_BF_AAKIT", "ERROR_BF_NO_AAKIT",
                 "ERROR_DB_FEEDBACK", "ERROR_DB_SERVER"):
        assert name in RetCode.__members__


def test_files_dir(monkeypatch, tmp_path):
    from vexcore.QRVUtils import _Utils
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(tmp_path))
    assert _Utils._get_files_dir() == str(tmp_path)
    monkeypatch.delenv("VEXCORE_FILES_DIR")
    monkeypatch.chdir(tmp_path)
    assert _Utils._get_files_dir() == str(tmp_path / "files")
