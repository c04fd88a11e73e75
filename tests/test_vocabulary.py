"""The module's names: start-up order, enumerations, the dual-polarization record, the
default hooks, and where the sibling utilities find the files directory."""
import datetime
import re

import pytest

from vexcore.QRVPublic import POLARIZATION, RetCode
from vexcore.QRVUtils import RetType, _Utils


def test_names_bound_in_start_up_order(tm):
    expected = ["csv", "datetime", "Enum", "Flag", "auto", "glob", "importlib", "json", "logging", "os",
                "time", "Union", "Callable", "Path", "_Utils", "RetType", "RFMode", "BeamType", "RetCode",
                "CellRFMode", "POL", "BTModeFilter", "BTSetOption", "BTField", "BTBeamField",
                "BeamPatternTableManager", "moss_cali", "CalibrationTableManager", "AAKitField",
                "AAKitTableManager", "UDDeltaFreqTableManager", "QRVTableDBError", "_QRVTableDB",
                "fake_rf_layout", "fake_check", "fake_ic_check"]
    assert [n for n in vars(tm) if n in expected] == expected
    assert tm.datetime is datetime.datetime and tm.POL is POLARIZATION and tm.RetType is RetType


def test_enumeration_edge_cases(tm):
    modes, options, fields = tm.BTModeFilter, tm.BTSetOption, tm.BTField
    assert modes(3) is modes.ALL and modes.TX | modes.RX is modes.ALL and list(modes) == [modes.TX, modes.RX]
    assert options.UI_IMPORT is options.VALIDATE and options.UI_SAVE_REPLACE.value == 13
    assert [m.value for m in options] == [1, 2, 4, 8]
    assert (options.UI_EXPORT, options.UI_SAVE_UPSERT) == (options.VALIDATE | options.GET,
                                                           options.VALIDATE | options.SAVE)
    assert list(fields)[0] is fields._version and fields._version.value == "2.0.0"


@pytest.mark.parametrize("name, members", [
    ("BTField", "VERSION SN DEV_TYPE FREQ AAKIT_NAME TX RX"),
    ("BTBeamField", "beam_description beam_type beam_config db theta phi channel_config board_ common_db channel_ sw deg"),
    ("AAKitField", "AAKIT_NAME DEV_TYPE TYPE SPACING STEERING_H STEERING_V OFFSET_TX OFFSET_RX"),
])
def test_field_enumerations_number_their_members_from_zero(tm, name, members):
    # Member names are file keys and row keys that drivers build from the enumeration.
    numbered = [(m.name, m.value) for m in getattr(tm, name) if m.name != "_version"]
    assert numbered == list(zip(members.split(), range(12)))


MOSS_CALI = {
    "VER": "3.0.0", "SN": "K5120R077-28", "FCENTER": 28,
    "DR": {"TX": {"HORIZON": [-9.5, 5.0], "VERTICAL": [-8.0, 7.0]},
           "RX": {"HORIZON": [-5.0, 10.0], "VERTICAL": [-6.0, 9.0]}},
    "BOARD_1": {"TC": {"TEMPADC": 37, "HORIZON": [8, 3, 2, 11], "VERTICAL": [8, 3, 2, 11]},
                "TX": {"HORIZON": {"OFFSET": [0, 0, 0, 0], "COMDR": [-9.5, -2.0], "ELEDR": 7.0},
                       "VERTICAL": {"OFFSET": [0, 0, 0, 0], "COMDR": [-8.0, -0.5], "ELEDR": 7.5}},
                "RX": {"HORIZON": {"OFFSET": [0, 0, 0, 0], "COMDR": [-5.0, 2.5], "ELEDR": 4.0},
                       "VERTICAL": {"OFFSET": [0, 0, 0, 0], "COMDR": [-6.0, 1.5], "ELEDR": 5.5}}},
}


def test_dual_polarization_record(tm):
    # The text form tells 28 from 28.0 and a list from a tuple.
    assert repr(tm.moss_cali) == repr(MOSS_CALI)


def test_default_hooks_pass_their_values_through(tm):
    assert tm.fake_rf_layout() == (4, 1, 4) and type(tm.fake_rf_layout()) is tuple
    args = ("a", [1], {"k": 2}, None)
    ret = tm.fake_check(*args)
    assert (ret.RetCode, ret.RetMsg, ret.RetData) == (RetCode.OK, "", args[1:])
    assert all(given is passed for given, passed in zip(args[1:], ret.RetData))
    ret = tm.fake_ic_check(0, 0, args[1])
    assert ret.RetCode is RetCode.OK and ret.RetData is args[1]


def test_files_directory_is_configured_or_beside_the_working_directory(monkeypatch, tmp_path):
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(tmp_path))
    assert _Utils._get_files_dir() == str(tmp_path)
    monkeypatch.delenv("VEXCORE_FILES_DIR")
    monkeypatch.chdir(tmp_path)
    assert _Utils._get_files_dir() == str(tmp_path / "files")


ERR = RetCode.ERROR


@pytest.mark.parametrize("args, kwargs, fields", [
    ((), {}, (RetCode.OK, "", None)),
    ((ERR, "m"), {}, (ERR, "m", None)),
    ((ERR, "m", 3), {}, (ERR, "m", 3)),
    ((ERR,), {"data": 1}, (ERR, "", 1)),
    ((), {"data": 0}, (RetCode.OK, "", 0)),
    ((), {"msg": "t"}, (RetCode.OK, "t", None)),
    ((ERR,), {"RetMsg": "x"}, (ERR, "x", None)),
    ((), {"RetCode": ERR, "RetMsg": "x", "RetData": [2]}, (ERR, "x", [2])),
    ((), {"code": None, "msg": None}, (None, None, None)),
])
def test_result_record_forms(args, kwargs, fields):
    ret = RetType(*args, **kwargs)
    assert (ret.RetCode, ret.RetMsg, ret.RetData) == fields
    assert repr(ret) == "RetType(RetCode=%s, RetMsg=%r, RetData=%r)" % fields


@pytest.mark.parametrize("args, kwargs, message", [
    ((ERR,), {"RetCode": ERR}, "RetType() got values for both 'code' and 'RetCode'"),
    ((), {"msg": "", "RetMsg": "a"}, "RetType() got values for both 'msg' and 'RetMsg'"),
    ((), {"data": None, "RetData": 1}, "RetType() got values for both 'data' and 'RetData'"),
    ((), {"code": ERR, "RetCode": ERR, "other": 1}, "unexpected keyword argument 'other'"),
    ((ERR,), {"code": ERR}, "multiple values for argument 'code'"),
    ((1, 2, 3, 4), {}, "positional arguments but 5 were given"),
])
def test_result_record_refuses_conflicting_fields(args, kwargs, message):
    with pytest.raises(TypeError, match=re.escape(message)):
        RetType(*args, **kwargs)
