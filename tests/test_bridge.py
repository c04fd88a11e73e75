"""How the C++ classes behave as Python objects: logging, module globals, exceptions, instances.

The database adapter is the smallest complete class, so it serves as the probe here.
"""
import gc
import logging
import subprocess
import sys
import weakref

import pytest

from vexcore.QRVPublic import RetCode
from vexcore.QRVUtils import RetType


def test_import_leaves_logging_configuration_alone():
    code = ("import logging; root = logging.getLogger(); before = (list(root.handlers), root.level);"
            "import vexcore.qrvdev.QRVTableManager;"
            "assert (list(root.handlers), root.level) == before, 'logging configured';"
            "assert not logging.getLogger('TblDB').handlers")
    subprocess.run([sys.executable, "-c", code], check=True)


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
    assert sys.exc_info() == (None, None, None)      # the logged exception is not left behind


def test_a_deleted_module_global_is_a_name_error_when_used(tm, restore_module_globals):
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


STOCK_INIT = RetType.__init__


def init_marking_the_message(self, *args, **kwargs):
    STOCK_INIT(self, *args, **kwargs)
    self.RetMsg = "init"


# A change to how the stock record is built, and the fields of a module result then.
PATCHES = [
    (RetType, "__init__", init_marking_the_message, (RetCode.OK, "init", 3)),
    (RetType.__init__, "__defaults__", (RetCode.ERROR, "default", None), (RetCode.ERROR, "default", 3)),
    (RetType, "__setattr__", lambda self, key, v: object.__setattr__(self, key, "set" if key == "RetMsg" else v),
     (RetCode.OK, "set", 3)),
    (RetType, "RetData", property(lambda self: "read", lambda self, value: setattr(self, "RetMsg", "data %r" % value)),
     (RetCode.OK, "data 3", "read")),
]


@pytest.mark.parametrize("target, name, value, fields", PATCHES, ids=[patch[1] for patch in PATCHES])
def test_a_patched_stock_record_class_is_called_as_python_would(tm, monkeypatch, target, name, value, fields):
    # The stock record is filled in directly only while nothing about its construction changed.
    assert stock_result_fields(tm) == (RetType, RetCode.OK, "", 3)
    monkeypatch.setattr(target, name, value)
    assert stock_result_fields(tm) == (RetType, *fields)
    monkeypatch.undo()
    assert stock_result_fields(tm) == (RetType, RetCode.OK, "", 3)


def test_a_replaced_json_reads_the_table_files(tm, files_dir, restore_module_globals):
    # Table files are decoded natively only while the module's json.loads is the
    # standard one; a host's replacement gets the file's text.
    manager = tm.BeamPatternTableManager("SN1", 9, 8, (1, 1, 4), None)
    manager._updateFreq(28.0, {"TX": 20.0, "RX": 10.0}, [[6.5]] * 2, [[5.5]] * 2)
    manager._load(28.0, "")                    # creates the table file
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
    db.self_ref = db                   # a new attribute, and a reference cycle that is collected
    ref = weakref.ref(db)
    del db
    gc.collect()
    assert ref() is None
    assert tm._QRVTableDB.__module__ == tm.__name__ and issubclass(tm.QRVTableDBError, Exception)


def test_interrupts_are_not_swallowed(tm, service):
    class Interrupting:
        def __init__(self, table_name):
            raise KeyboardInterrupt

    service.module.DBQueryer = Interrupting
    with pytest.raises(KeyboardInterrupt):
        tm._QRVTableDB("calibration", {})
