"""How the C++ classes behave as Python objects: logging, module globals, exceptions, instances.

The database adapter is the smallest complete class, so it serves as the probe here.
"""
import gc
import logging
import subprocess
import sys
import weakref

import pytest
from conftest import records
from fake_queryer import SERVICE_NAME, FakeService

from vexcore.QRVPublic import RetCode
from vexcore.QRVUtils import RetType


@pytest.fixture
def service(monkeypatch):
    return FakeService().install(monkeypatch)


def test_import_leaves_logging_configuration_alone():
    code = ("import logging; root = logging.getLogger(); before = (list(root.handlers), root.level);"
            "import vexcore.qrvdev.QRVTableManager;"
            "assert (list(root.handlers), root.level) == before, 'logging configured';"
            "assert not logging.getLogger('TblDB').handlers")
    subprocess.run([sys.executable, "-c", code], check=True)


def test_exception_log_carries_the_handled_exception(tm, caplog, monkeypatch):
    monkeypatch.setitem(sys.modules, SERVICE_NAME, None)   # the service cannot be imported
    caplog.set_level(logging.DEBUG)
    db = tm._QRVTableDB("calibration", {"sn": "X"})
    (record,) = [r for r in caplog.records if r.name == "TblDB"]
    assert record.exc_info[0] is ModuleNotFoundError and record.exc_info[2] is not None
    assert "Traceback" in caplog.text
    # The constructor returned normally, set only what it had reached, and left no exception behind.
    assert list(vars(db)) == ["_QRVTableDB__logger"]
    assert sys.exc_info() == (None, None, None)


def test_failures_inside_native_code_are_logged_with_a_traceback(tm, caplog, files_dir):
    # A cell that is not a number fails inside the module's own conversion code.
    (files_dir / "SN_28GHz.csv").write_text("VER,2.1.0\nSN,SN\nFCENTER,28\nDR,-10,x,-12,-6\nEND\n")
    manager = tm.CalibrationTableManager("SN", 28, tm.fake_rf_layout)
    caplog.set_level(logging.ERROR)
    assert manager.parse().RetMsg == "parse exception"
    (record,) = [r for r in caplog.records if r.name == "CaliTbl" and r.exc_info]
    assert record.exc_info[0] is ValueError and record.exc_info[2] is not None
    assert "Traceback (most recent call last)" in caplog.text and "<native code>" in caplog.text
    # One frame, as a C extension's: the module's file at line 0, nothing chained.
    trace = record.exc_info[2]
    assert (trace.tb_frame.f_code.co_filename, trace.tb_lineno, trace.tb_next) == (tm.__file__, 0, None)
    assert record.exc_info[1].__context__ is None


def test_disabled_level_emits_nothing(tm, caplog, service):
    caplog.set_level(logging.INFO, logger="TblDB")
    db = tm._QRVTableDB("calibration", {})
    service.replies.append({"code": 0, "data": 1})
    db.query("VER")        # logs its payload at debug level
    assert records(caplog, "TblDB") == []


def test_module_globals_are_looked_up_when_used(tm, restore_module_globals):
    class OtherResult:
        def __init__(self, *args, **kwargs):
            pass

    tm.RetType = OtherResult
    assert isinstance(tm.fake_ic_check(1, 2, 3), OtherResult)
    del tm.RetType
    with pytest.raises(NameError, match="RetType"):
        tm.fake_ic_check(1, 2, 3)


# Module calls that build their result in each form the module uses, and that form.
RESULT_FORMS = [
    ("data", lambda tm: tm.fake_ic_check(1, 2, 3), ((), {"data": 3})),
    ("nothing", lambda tm: tm.AAKitTableManager(9, 4, web_client_id="c").parse(), ((), {})),
    ("code and msg", lambda tm: tm.UDDeltaFreqTableManager("NOFILE").parse(),
     (("WARNING", "Delta csv not exist, skip it"), {})),
    ("code and RetMsg", lambda tm: tm.AAKitTableManager(9, 4).parse(),
     (("ERROR_BF_NO_AAKIT",), {"RetMsg": "No available AAKit table here"})),
    ("msg", lambda tm: tm.CalibrationTableManager("S", 28, lambda: (1, 1, 4), support_polar=True).getDR(2),
     ((), {"msg": "DR not support for STANDBY mode"})),
]


@pytest.mark.parametrize("form, call, expected", RESULT_FORMS, ids=[f[0] for f in RESULT_FORMS])
def test_results_are_built_through_a_replaced_record_class_with_the_same_arguments(
        tm, files_dir, restore_module_globals, form, call, expected, monkeypatch):
    monkeypatch.setattr(tm.AAKitTableManager, "_getAAKitTablePath", lambda self: [str(files_dir / "AAKIT_x.csv")])
    (files_dir / "AAKIT_x.csv").write_text("AAKIT_NAME,x\nDEV_TYPE,1\nTYPE,0\n")   # another device type: skipped
    calls = []

    class Recorded:
        def __init__(self, *args, **kwargs):
            calls.append((tuple(getattr(a, "name", a) for a in args), kwargs))
            self.RetCode = args[0] if args else RetCode.OK
            self.RetMsg = args[1] if len(args) > 1 else kwargs.get("msg", kwargs.get("RetMsg", ""))

    tm.RetType = Recorded
    assert isinstance(call(tm), Recorded)
    assert calls[-1] == expected


def stock_result_fields(tm):
    ret = tm.fake_ic_check(1, 2, 3)
    return type(ret), ret.RetCode, ret.RetMsg, ret.RetData


def patch_init(monkeypatch, RetType):
    seen = []
    original = RetType.__init__

    def counting(self, *args, **kwargs):
        seen.append(kwargs)
        original(self, *args, **kwargs)
    monkeypatch.setattr(RetType, "__init__", counting)
    return seen, (RetType, RetCode.OK, "", 3)


def patch_defaults(monkeypatch, RetType):
    monkeypatch.setattr(RetType.__init__, "__defaults__", (RetCode.ERROR, "default", None))
    return None, (RetType, RetCode.ERROR, "default", 3)


def patch_slot(monkeypatch, RetType):
    seen = []
    monkeypatch.setattr(RetType, "RetData", property(lambda self: "read back", lambda self, v: seen.append(v)))
    return seen, (RetType, RetCode.OK, "", "read back")


def patch_setattr(monkeypatch, RetType):
    seen = []

    def setattr_upper(self, name, value):
        seen.append(name)
        object.__setattr__(self, name, value.upper() if isinstance(value, str) else value)
    monkeypatch.setattr(RetType, "__setattr__", setattr_upper)
    return seen, (RetType, RetCode.OK, "", 3)


@pytest.mark.parametrize("patch", [patch_init, patch_defaults, patch_slot, patch_setattr])
def test_a_patched_stock_record_class_is_called_as_python_would(tm, monkeypatch, patch):
    # The stock record is filled in directly only while nothing about its construction changed.
    assert stock_result_fields(tm) == (RetType, RetCode.OK, "", 3)
    seen, expected = patch(monkeypatch, RetType)
    assert stock_result_fields(tm) == expected
    assert seen is None or seen
    monkeypatch.undo()
    assert stock_result_fields(tm) == (RetType, RetCode.OK, "", 3)


def test_a_replaced_json_reads_the_table_files(tm, files_dir, restore_module_globals):
    # Table files are decoded natively only while the module's json.loads is the
    # standard one; a host's replacement gets the file's text.
    manager = tm.BeamPatternTableManager("SN1", 9, 8, (1, 1, 4), None)
    manager._updateFreq(28.0, {"TX": 20.0, "RX": 10.0}, [[6.5]] * 2, [[5.5]] * 2)
    assert manager._load(28.0, "").RetData == {"VERSION": "v2.0.0", "SN": "SN1", "DEV_TYPE": 9, "FREQ": 28.0,
                                                "AAKIT_NAME": "", "TX": {}, "RX": {}}
    texts = []

    class HostJson:
        @staticmethod
        def loads(text):
            texts.append(text)
            return {"VERSION": "v2.0.0", "TX": {"1": "host"}, "RX": {}}

    tm.json = HostJson
    assert manager._load(28.0, "").RetData["TX"] == {"1": "host"}
    assert texts == [(files_dir / "BeamTable" / "Beam_Configuration_SN1_28GHz.json").read_text()]


def test_subclass_overrides_are_dispatched(tm, service):
    class Sub(tm._QRVTableDB):
        def _QRVTableDB__returnDB(self, db_info):
            return ("overridden", db_info)

    db = Sub("calibration", {"sn": "X"})
    service.replies.append({"code": 0, "data": [26.0, 28.0]})
    assert db.getTableList("Freq") == ("overridden", {"code": 0, "data": [26.0, 28.0]})
    assert [(call.payload, call.query_cmd) for call in service.calls] == [({"sn": "X"}, "getFreqList")]


def test_instances_are_plain_collectable_objects(tm, service):
    db = tm._QRVTableDB("calibration", {})
    db.extra = "taken"                 # new attributes are accepted
    db.self_ref = db                   # a reference cycle is collected
    ref = weakref.ref(db)
    del db
    gc.collect()
    assert ref() is None
    assert tm._QRVTableDB.__module__ == tm.__name__ and issubclass(tm.QRVTableDBError, Exception)
    assert "dynamic loading DBQueryer" in tm._QRVTableDB.__doc__


def test_interrupts_are_not_swallowed(tm, service):
    class Interrupting:
        def __init__(self, table_name):
            raise KeyboardInterrupt

    service.module.DBQueryer = Interrupting
    with pytest.raises(KeyboardInterrupt):
        tm._QRVTableDB("calibration", {})
