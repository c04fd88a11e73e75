"""The sqlite-backed query service: reply shapes, refusals, reachability, concurrent writers, web callbacks."""
import subprocess
import sys

import pytest

from vexcore.QRVPublic import RetCode
from vexcore.db import QRVDBQueryer as service
from vexcore.db.web_tables import AAKitStore, BeamTableStore

TABLE = {"VER": "2.1.0", "SN": "SN-A", "FCENTER": "28.0", "DR": {"TX": [-10.0, -5.0], "RX": [-12.0, -6.0]},
         "BOARD_1": {"TX": {"COMDR": [-3.0, 4.0], "ELEDR": [6.0]}, "COMSTEPDR": {"COM_1": [-3.0, 0.5]}}}


@pytest.fixture
def queryer(tmp_path, monkeypatch):
    monkeypatch.setenv("VEXCORE_DB", str(tmp_path / "tables.db"))
    with service.transaction() as connection:
        service.store_calibration(connection, "SN-A", 28, TABLE)
        service.store_calibration(connection, "SN-A", 27.5, dict(TABLE, VER="2.0.0"))
    return service.DBQueryer("calibration")


def payload(query, category="GENERAL", frequency=28, sn="SN-A"):
    return {"sn": sn, "frequency": frequency, "category": category, "query": query}


@pytest.mark.parametrize("request_, data", [
    (payload(["VER"]), {"VER": "2.1.0"}),
    (payload(["DR.TX", "DR"]), {"DR.TX": [-10.0, -5.0], "DR": TABLE["DR"]}),
    (payload(["TX.ELEDR", "COMSTEPDR.COM_1"], "BOARD_1"), {"TX.ELEDR": [6.0], "COMSTEPDR.COM_1": [-3.0, 0.5]}),
    (payload(["VER"], frequency="27.5"), {"VER": "2.0.0"}),       # frequency compared as a number
])
def test_single_queries_answer_one_entry_per_key(queryer, request_, data):
    assert queryer.queryDB(request_) == {"code": 0, "data": data}


@pytest.mark.parametrize("request_, command, code, words", [
    (payload(["VER"], sn="SN-B"), None, service.UNKNOWN_SN, "SN-B"),
    (payload(["VER"], frequency=30), None, service.UNKNOWN_FREQUENCY, "30"),
    (payload(["TX.COMDR"], "BOARD_7"), None, service.UNKNOWN_CATEGORY, "BOARD_7"),
    (payload(["VER.deeper"]), None, service.UNKNOWN_KEY, "VER.deeper"),
    (payload(["VER"], frequency="abc"), None, service.BAD_REQUEST, "abc"),
    ({"sn": "SN-Z"}, "getFreqList", service.UNKNOWN_SN, "SN-Z"),
    ({}, "getNothingList", service.BAD_REQUEST, "Nothing"),
])
def test_refused_queries_carry_code_and_message(queryer, request_, command, code, words):
    reply = queryer.queryDB(request_, queryCmd=command) if command else queryer.queryDB(request_)
    assert reply["code"] == code and words in reply["message"]


def test_lists_and_multi_queries(queryer):
    assert queryer.queryDB({"sn": "SN-A", "frequency": 28}, queryCmd="getFreqList") == {"code": 0, "data": [27.5, 28.0]}
    held = {"query-0": payload(["VER"]), "query-1": payload(["VER"], frequency=27.5)}
    assert queryer.queryDB(held, queryCmd="getMultiData") == {
        "code": 0, "data": {"query-0": {"VER": "2.1.0"}, "query-1": {"VER": "2.0.0"}}}
    held["query-2"] = payload(["X"], "BOARD_9")
    assert queryer.queryDB(held, queryCmd="getMultiData")["code"] == service.UNKNOWN_CATEGORY


@pytest.mark.parametrize("where", ["missing-folder/tables.db", "."])
def test_unreachable_database_answers_with_a_string(tmp_path, where):
    reply = service.DBQueryer("calibration", str(tmp_path / where)).queryDB({"query": ["VER"]})
    assert isinstance(reply, str) and "unreachable" in reply


_WRITER = """
import sys
from vexcore.db.web_tables import AAKitStore
store = AAKitStore(sys.argv[1])
for i in range(int(sys.argv[3])):
    ret = store.store(func_name="saveAAKitFile", kitName="%s-%d" % (sys.argv[2], i), check=False,
                      context={"DEV_TYPE": 9, "TYPE": 1, "OFFSET_TX": [i]})
    assert ret.RetMsg == "", ret
"""


def test_two_processes_writing_at_once_lose_nothing(tmp_path):
    path = str(tmp_path / "shared.db")
    writers = [subprocess.Popen([sys.executable, "-c", _WRITER, path, name, "60"]) for name in ("left", "right")]
    assert [w.wait(timeout=120) for w in writers] == [0, 0]
    kits = AAKitStore(path).list_kits(9, 1, [9]).RetData
    assert len(kits) == 120 and kits["right-59"]["OFFSET_TX"] == [59]


def test_beam_store_keeps_tables_per_frequency_and_kit(tmp_path):
    path = str(tmp_path / "beams.db")
    store = BeamTableStore("SN-A", path)
    table = store("_load", freq=28.0, aakit="KIT").RetData
    assert (table["SN"], table["FREQ"], table["AAKIT_NAME"], table["TX"], table["RX"]) == ("SN-A", 28.0, "KIT", {}, {})
    table["TX"]["1"] = {"beam_description": "boresight", "beam_type": 0}
    assert store("saveToBeamTableFile").RetCode == RetCode.OK          # saves the table it handed out
    assert store("_load", freq=28.0, aakit="OTHER").RetData["TX"] == {}
    fresh = BeamTableStore("SN-A", path)
    assert fresh("_load", freq=28, aakit="KIT").RetData["TX"]["1"]["beam_description"] == "boresight"
    assert fresh("_load", freq=27.5, aakit="KIT").RetData["TX"] == {}
    assert fresh("bogus").RetCode == RetCode.ERROR


def test_kit_store_filters_by_device_type_and_deletes(tmp_path):
    store = AAKitStore(str(tmp_path / "kits.db"))
    for name, record in {"ANY": {"TYPE": 0}, "NINE": {"DEV_TYPE": 9, "TYPE": 1}, "TWELVE": {"DEV_TYPE": 12}}.items():
        assert store.store(func_name="saveAAKitFile", kitName=name, check=False, context=record).RetCode == RetCode.OK
    assert list(store.list_kits(9, 16, [9]).RetData) == ["ANY", "NINE"]
    assert store.store(func_name="deleteAAKitInfo", kitName="NINE", check=False).RetCode == RetCode.OK
    assert store.store(func_name="deleteAAKitInfo", kitName="NINE", check=False).RetCode == RetCode.ERROR_BF_AAKIT
    assert list(store.list_kits(9, 16, [9, 12]).RetData) == ["ANY", "TWELVE"]


def test_cli_refuses_badly_named_files_and_lists(tmp_path, queryer):
    bad = tmp_path / "calibration.csv"
    bad.write_text("VER,2.1.0\nEND\n")
    run = subprocess.run([sys.executable, "-m", "vexcore.db", "import", str(bad)], capture_output=True, text=True)
    assert run.returncode == 1 and "{SN}_{Freq}GHz.csv" in run.stderr
    listing = subprocess.run([sys.executable, "-m", "vexcore.db", "list"], capture_output=True, text=True, check=True)
    assert "SN-A" in listing.stdout and "27.5 GHz" in listing.stdout and "2.1.0" in listing.stdout
