"""The table-database adapter against a scripted query service."""
import logging
import sys
import types

import pytest
from conftest import records
from fake_queryer import SERVICE_NAME

from vexcore.QRVPublic import RetCode


@pytest.fixture
def template():
    return {"sn": "K5350R019-28", "frequency": 28}


@pytest.fixture
def db(tm, service, template):
    return tm._QRVTableDB("calibration", template)


# ------------------------------------------------------------ construction --

def test_template_must_be_a_dict(tm, service):
    with pytest.raises(TypeError):             # not even the pairs a dict could be made of
        tm._QRVTableDB("calibration", [("sn", "x")])
    assert service.tables == []


def test_setters_write_into_the_creators_template_which_list_requests_send(db, template, service):
    assert db.setFreq(27.5).RetCode == RetCode.OK
    assert db.setAAKitName("AAKIT_X").RetData is None
    assert template == {"sn": "K5350R019-28", "frequency": 27.5, "AAKIT_NAME": "AAKIT_X"}
    service.replies.append({"code": 0, "data": {"Freq": [27.5, 28.0]}})
    assert db.getTableList("Freq").RetData == [27.5, 28.0]
    (call,) = service.calls                   # the setters sent nothing
    assert call.query_cmd == "getFreqList" and call.payload_object is template


@pytest.mark.parametrize("module", [None, types.SimpleNamespace(DBQueryer=lambda table_name: 1 / 0)],
                         ids=["missing module", "queryer fails"])
def test_construction_failure_is_logged_and_leaves_a_hollow_object(tm, monkeypatch, caplog, module):
    monkeypatch.setitem(sys.modules, SERVICE_NAME, module)         # None: the import raises ImportError
    caplog.set_level(logging.DEBUG, logger="TblDB")
    db = tm._QRVTableDB("calibration", {"sn": "A"})
    assert records(caplog, "TblDB") == [("ERROR", "Dynamically import DB lib failed")]
    assert issubclass(caplog.records[-1].exc_info[0], ImportError if module is None else ZeroDivisionError)
    with pytest.raises(AttributeError):
        db.query("VER")


# ------------------------------------------------------------ single query --

TWO_KEYS = {"TX.COMDR": [1.0], "TX.ELEDR": [2.0]}


# Reply data is unwrapped only when it is a mapping of one key.
@pytest.mark.parametrize("args, category, keys, data, answer", [
    (("VER", "BOARD_2"), "BOARD_2", ["VER"], {"VER": "2.1.0"}, "2.1.0"),
    ((["TX", "HORIZON"], "BOARD_2"), "BOARD_2", ["TX.HORIZON"], TWO_KEYS, TWO_KEYS),
    (([["TX", "HORIZON"], ["RX", "VERTICAL"]],), "GENERAL", ["TX.HORIZON", "RX.VERTICAL"], {}, {}),
    (([],), "GENERAL", [], [1, 2], [1, 2]),
    ((("TX", "RX"),), "GENERAL", [("TX", "RX")], "text", "text"),
    ((), "GENERAL", [""], 1, 1),
])
def test_query_keys_payload_and_answer(db, service, template, caplog, args, category, keys, data, answer):
    caplog.set_level(logging.DEBUG, logger="TblDB")
    service.replies.append({"code": 0, "data": data})
    ret = db.query(*args)
    assert (ret.RetCode, ret.RetData) == (RetCode.OK, answer)
    (call,) = service.calls
    assert call.query_cmd is None and call.payload_object is not template and "category" not in template
    assert call.payload == dict(template, category=category, query=keys)
    # logging keeps a lone mapping argument as the args themselves.
    assert [(r.levelname, r.msg, r.args) for r in caplog.records] == [("DEBUG", "[Query]: %s", call.payload)]


def test_a_list_stops_at_its_first_part_that_is_not_a_list(db, service):
    # The whole list is then joined, which fails on the inner list as str.join does.
    with pytest.raises(TypeError):
        db.query([["TX", "COMDR"], "ELEDR"])
    assert service.calls == []


# ------------------------------------------------------------- multi-query --

def test_held_back_queries_go_out_as_one_multi_query_in_the_order_added(db, service, caplog):
    caplog.set_level(logging.DEBUG, logger="TblDB")
    assert db.query("VER", applySetting=False).RetData is None
    held = db.query(["TX", "COMDR"], "BOARD_1", applySetting=False)
    assert (held.RetCode, held.RetMsg, held.RetData) == (RetCode.OK, "", None)
    assert service.calls == [] and records(caplog, "TblDB") == []
    # The reply lists its answers in another order than they were asked.
    service.replies.append({"code": 0, "data": {"query-2": "c", "query-0": "a", "query-1": "b"}})
    assert db.query("SN", "GENERAL").RetData == ["a", "b", "c"]
    (call,) = service.calls
    assert call.query_cmd == "getMultiData"
    assert [(name, p["category"], p["query"]) for name, p in call.payload.items()] == [
        ("query-0", "GENERAL", ["VER"]), ("query-1", "BOARD_1", ["TX.COMDR"]), ("query-2", "GENERAL", ["SN"])]
    assert db._QRVTableDB__query_unsend == {}
    # The mapping the service was handed is its own to keep.
    assert list(call.payload_object) == ["query-0", "query-1", "query-2"]


def test_a_failed_multi_query_keeps_every_held_back_query_until_cleaned(db, service):
    db.query("VER", applySetting=False)
    service.replies.append("connection refused")
    with pytest.raises(Exception) as caught:
        db.query("SN")
    assert caught.value.ret.RetCode == RetCode.ERROR_DB_SERVER
    assert [p["query"] for p in db._QRVTableDB__query_unsend.values()] == [["VER"], ["SN"]]
    db.cleanQueryCache()
    service.replies.append({"code": 0, "data": {"SN": "K1"}})
    assert db.query("SN").RetData == "K1" and service.calls[-1].query_cmd is None


# ------------------------------------------------------------------ errors --

@pytest.mark.parametrize("reply, code, message", [
    ("", RetCode.ERROR_DB_SERVER, "DB server connection error"),
    ({"code": 3, "message": "no such table"}, RetCode.ERROR_DB_FEEDBACK, "no such table"),
    ({"code": "0", "message": "code given as text"}, RetCode.ERROR_DB_FEEDBACK, "code given as text"),
    ({"data": 1}, KeyError, None), ({"code": 0}, KeyError, None), ({"code": 1}, KeyError, None),
])
def test_failed_replies_raise_the_database_error_and_incomplete_ones_a_key_error(tm, db, service, reply, code, message):
    service.replies.append(reply)
    with pytest.raises(KeyError if code is KeyError else tm.QRVTableDBError) as caught:
        db.query("VER")
    if message is not None:
        error = caught.value
        assert (error.ret.RetCode, error.ret.RetMsg, error.ret.RetData) == (code, message, None)
        assert error.args == (message,) and str(error) == message
