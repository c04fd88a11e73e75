"""The module's names: start-up order, enumerations, the dual-polarization record, the
default hooks, the result record, and the shipped type stubs, which name what the
module offers with the signatures help() shows."""
import ast
import datetime
import inspect
import os
import re

import pytest

import vexcore
import vexcore.qrvdev.QRVTableManager as tm
from vexcore.QRVPublic import POLARIZATION, RetCode
from vexcore.QRVUtils import RetType


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


ERR = RetCode.ERROR


@pytest.mark.parametrize("args, kwargs, fields", [
    ((), {}, (RetCode.OK, "", None)),
    ((ERR, "m", 3), {}, (ERR, "m", 3)),
    ((), {"data": 0}, (RetCode.OK, "", 0)),
    ((), {"msg": "t"}, (RetCode.OK, "t", None)),
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
    ((1, 2, 3, 4), {}, "positional arguments but 5 were given"),
])
def test_result_record_refuses_conflicting_fields(args, kwargs, message):
    with pytest.raises(TypeError, match=re.escape(message)):
        RetType(*args, **kwargs)


# ------------------------------------------------------------ type stubs --

FOLDER = os.path.dirname(tm.__file__)


def stub_tree(path):
    with open(path, encoding="utf-8") as stub:
        return ast.parse(stub.read())


STUB = stub_tree(os.path.join(FOLDER, "__init__.pyi")).body


def stub_functions():
    """{(owner, name): FunctionDef} of the module stub; owner "" for module functions."""
    found = {("", node.name): node for node in STUB if isinstance(node, ast.FunctionDef)}
    for node in (node for node in STUB if isinstance(node, ast.ClassDef)):
        found.update({(node.name, f.name): f for f in node.body if isinstance(f, ast.FunctionDef)})
    return found


def stub_top_names():
    names = {node.name for node in STUB if isinstance(node, (ast.ClassDef, ast.FunctionDef))}
    names.update(node.target.id for node in STUB if isinstance(node, ast.AnnAssign))
    for node in (node for node in STUB if isinstance(node, (ast.Import, ast.ImportFrom))):
        names.update(alias.asname or alias.name for alias in node.names)
    return names


def native_functions():
    """{(owner, name): bound native function} of every class and module function."""
    found = {("", name): value for name, value in vars(tm).items() if hasattr(value, "__nb_signature__")}
    for name, cls in vars(tm).items():
        if inspect.isclass(cls) and cls.__module__ == tm.__name__ and not issubclass(cls, tm.Enum):
            found.update({(name, m): f for m, f in vars(cls).items() if hasattr(f, "__nb_signature__")})
    return found


def shape(function):
    """The parts of a signature that matter to a caller: parameters, types, defaults, result."""
    return ast.dump(function.args), ast.dump(function.returns)


def test_every_module_name_and_method_is_in_the_stub():
    assert os.path.isfile(os.path.join(os.path.dirname(vexcore.__file__), "py.typed"))
    assert {name for name in vars(tm) if not name.startswith("__")} - stub_top_names() == set()
    assert set(native_functions()) - set(stub_functions()) == set()


@pytest.mark.parametrize("owner, name", sorted(native_functions()))
def test_help_shows_the_stub_signature_and_a_docstring(owner, name):
    function = native_functions()[(owner, name)]
    ((signature, doc, _),) = function.__nb_signature__
    native = ast.parse(signature + ": ...").body[0]
    assert shape(native) == shape(stub_functions()[(owner, name)])
    assert doc and doc[0].isupper() and len(doc) > 40


def test_classes_and_sibling_modules_are_documented_and_typed():
    for cls in (value for value in vars(tm).values() if inspect.isclass(value) and value.__module__ == tm.__name__):
        assert cls.__doc__, cls
    import vexcore.QRVUtils as utils

    declared = {node.name for node in stub_tree(utils.__file__ + "i").body if isinstance(node, ast.ClassDef)}
    assert declared == {name for name, value in vars(utils).items() if inspect.isclass(value)
                        and value.__module__ == utils.__name__}
