"""How the C++ classes behave as Python objects: logging, results, module globals, exceptions, instances.

The database adapter is the smallest complete class, so it serves as the probe here.
"""
import gc
import logging
import subprocess
import sys
import types
import weakref

import pytest

from conftest import records
from vexcore.QRVPublic import RetCode


class ScriptedService:
    """A query service whose replies are given by the test."""

    def __init__(self, table_name, replies=None):
        self.table_name = table_name
        self.replies = list(replies or [])
        self.sent = []

    def queryDB(self, payload, queryCmd=None):
        self.sent.append((payload, queryCmd))
        return self.replies.pop(0)


@pytest.fixture
def service_module(monkeypatch):
    module = types.ModuleType("vexcore.db.QRVDBQueryer")
    module.DBQueryer = ScriptedService
    monkeypatch.setitem(sys.modules, "vexcore.db.QRVDBQueryer", module)
    return module


def test_import_leaves_logging_configuration_alone():
    code = ("import logging; root = logging.getLogger(); before = (list(root.handlers), root.level);"
            "import vexcore.qrvdev.QRVTableManager;"
            "assert (list(root.handlers), root.level) == before, 'logging configured';"
            "assert not logging.getLogger('TblDB').handlers")
    subprocess.run([sys.executable, "-c", code], check=True)


def test_exception_log_carries_the_handled_exception(tm, caplog, monkeypatch):
    monkeypatch.setitem(sys.modules, "vexcore.db.QRVDBQueryer", None)   # the service cannot be imported
    caplog.set_level(logging.DEBUG)
    db = tm._QRVTableDB("calibration", {"sn": "X"})
    (record,) = [r for r in caplog.records if r.name == "TblDB"]
    assert (record.levelno, record.getMessage()) == (logging.ERROR, "Dynamically import DB lib failed")
    assert record.exc_info[0] is ModuleNotFoundError and record.exc_info[2] is not None
    assert "ModuleNotFoundError" in caplog.text and "Traceback" in caplog.text
    # The constructor returned normally and left only what it had set.
    assert list(vars(db)) == ["_QRVTableDB__logger"]
    assert sys.exc_info() == (None, None, None)


def test_messages_keep_template_and_arguments(tm, caplog, service_module):
    caplog.set_level(logging.DEBUG, logger="TblDB")
    db = tm._QRVTableDB("calibration", {"sn": "X"})
    db._QRVTableDB__db.replies.append({"code": 0, "data": {"VER": "2.1.0"}})
    db.query("VER")
    (record,) = [r for r in caplog.records if r.name == "TblDB"]
    payload = {"sn": "X", "category": "GENERAL", "query": ["VER"]}
    # logging keeps a lone mapping argument as the record's args, as for any logger.debug(msg, mapping)
    assert record.msg == "[Query]: %s" and record.args == payload
    assert record.getMessage() == "[Query]: %s" % payload


def test_disabled_level_emits_nothing(tm, caplog, service_module):
    caplog.set_level(logging.INFO, logger="TblDB")
    db = tm._QRVTableDB("calibration", {})
    db._QRVTableDB__db.replies.append({"code": 0, "data": 1})
    db.query("VER")
    assert records(caplog, "TblDB") == []


def test_replaced_module_globals_take_effect(tm, restore_module_globals, service_module):
    class OtherResult:
        def __init__(self, code=None, msg="", data=None):
            self.RetCode, self.RetMsg, self.RetData = code, msg, data

    tm.RetType = OtherResult
    assert isinstance(tm.fake_ic_check(1, 2, 3), OtherResult)

    seen = []

    class FakeImportlib:
        @staticmethod
        def import_module(name, package=None):
            seen.append((name, package))
            return service_module

    tm.importlib = FakeImportlib
    tm._QRVTableDB("calibration", {})
    assert seen == [("vexcore.db.QRVDBQueryer", tm.__name__)]


def test_missing_global_raises_name_error_inside_the_call(tm, restore_module_globals):
    del tm.RetType
    with pytest.raises(NameError, match="RetType"):
        tm.fake_ic_check(1, 2, 3)


def test_subclass_overrides_are_dispatched(tm, service_module):
    class Sub(tm._QRVTableDB):
        def _QRVTableDB__returnDB(self, db_info):
            return ("overridden", db_info)

    db = Sub("calibration", {"sn": "X"})
    db._QRVTableDB__db.replies.append({"code": 0, "data": [26.0, 28.0]})
    assert db.getTableList("Freq") == ("overridden", {"code": 0, "data": [26.0, 28.0]})
    assert db._QRVTableDB__db.sent == [({"sn": "X"}, "getFreqList")]


def test_instances_are_plain_collectable_objects(tm, service_module):
    db = tm._QRVTableDB("calibration", {})
    db.extra = "taken"                 # new attributes are accepted
    db.self_ref = db                   # a reference cycle is collected
    ref = weakref.ref(db)
    del db
    gc.collect()
    assert ref() is None
    assert tm._QRVTableDB.__module__ == tm.__name__ and tm._QRVTableDB.__mro__[-1] is object
    assert "dynamic loading DBQueryer" in tm._QRVTableDB.__doc__


def test_database_error_is_an_exception_with_a_result(tm):
    error = tm.QRVTableDBError(RetCode.ERROR_DB_FEEDBACK, "refused")
    assert isinstance(error, Exception) and error.args == ("refused",)
    assert (error.ret.RetCode, error.ret.RetMsg) == (RetCode.ERROR_DB_FEEDBACK, "refused")
    with pytest.raises(tm.QRVTableDBError):
        raise error


def test_interrupts_are_not_swallowed(tm, service_module):
    class Interrupting:
        def __init__(self, table_name):
            raise KeyboardInterrupt

    service_module.DBQueryer = Interrupting
    with pytest.raises(KeyboardInterrupt):
        tm._QRVTableDB("calibration", {})


def test_template_must_be_a_dict(tm, service_module):
    with pytest.raises(TypeError):
        tm._QRVTableDB("calibration", [("sn", "X")])


def test_failures_inside_native_code_are_logged_with_a_traceback(tm, caplog, files_dir):
    # A cell that is not a number fails inside the module's own conversion code.
    (files_dir / "SN_28GHz.csv").write_text("VER,2.1.0\nSN,SN\nFCENTER,28\nDR,-10,x,-12,-6\nEND\n")
    manager = tm.CalibrationTableManager("SN", 28, tm.fake_rf_layout)
    caplog.set_level(logging.ERROR)
    assert manager.parse().RetMsg == "parse exception"
    (record,) = [r for r in caplog.records if r.name == "CaliTbl" and r.exc_info]
    assert record.exc_info[0] is ValueError and record.exc_info[2] is not None
    assert "Traceback (most recent call last)" in caplog.text and "<native code>" in caplog.text
