"""Calibration manager in web mode, against a scripted query service."""
import pytest
from calibration_sample import SN, make_sample
from conftest import records
from fake_queryer import FakeService

from vexcore.QRVPublic import RetCode, RFMode

SERVER_DOWN = "server unreachable"
REFUSED = {"code": 7, "message": "no calibration for this device"}
DB_ERRORS = [(SERVER_DOWN, RetCode.ERROR_DB_SERVER, "DB server connection error"),
             (REFUSED, RetCode.ERROR_DB_FEEDBACK, "no calibration for this device")]


@pytest.fixture
def service(monkeypatch):
    service = FakeService().install(monkeypatch)
    sample = make_sample()
    for b in range(1, 5):
        board = sample.expected["BOARD_%d" % b]
        for mode in ("TX", "RX"):
            for kind in ("COMDR", "ELEDR"):
                service.data[("BOARD_%d" % b, "%s.%s" % (mode, kind))] = board[mode][kind]
            service.data[("BOARD_%d" % b, mode + ".COMSTEPDR")] = board["COMSTEPDR"]
        service.data[("BOARD_%d" % b, "DATA_CHIP_1")] = board["DATA_CHIP_1"]
    service.data[("GENERAL", "DR.RX")] = sample.expected["DR"]["RX"]
    service.data[("GENERAL", "VER")] = "2.1.0"
    service.data["getFreqList"] = {"Freq": [27.5, 28.0]}
    service.sample = sample
    return service


@pytest.fixture
def m(tm, files_dir, service):
    return tm.CalibrationTableManager(SN, 28, tm.fake_rf_layout, web_client_id="111")


def sent(service):
    return [(c.query_cmd, c.payload.get("category"), c.payload.get("query")) for c in service.calls]


def test_construction_and_a_new_frequency_only_set_up_the_database(m, service, files_dir):
    # The adapter is made at once, and the table is taken to be there without asking.
    assert service.tables == ["calibration"]
    assert m._CalibrationTableManager__db._QRVTableDB__template == {"sn": SN, "frequency": 28}
    assert m.checkCaliTableLocation().RetData is True
    make_sample().write(files_dir, freq="27.5")
    ret = m.parse(freq=27.5)
    assert (ret.RetCode, ret.RetData) == (RetCode.OK, None)
    assert m._CaliTable == {} and service.calls == []
    m.queryCaliTableVer()
    assert service.calls[0].payload["frequency"] == 27.5


def test_queries_ask_the_database_one_category_at_a_time_and_arm_data_once_per_board(m, service):
    # The answers themselves are compared with file mode against the real service elsewhere.
    assert m.getFrequencyList().RetData == [27.5, 28.0] == m._freq_list
    for query in (m.queryCaliTableVer, lambda: m.getDR(RFMode.RX), m.getELEDR):
        assert query().RetCode == RetCode.OK
    assert sent(service) == [("getFreqList", None, None), (None, "GENERAL", ["VER"]), (None, "GENERAL", ["DR.RX"])] + [
        (None, "BOARD_%d" % b, ["%s.COMDR" % mode, "%s.ELEDR" % mode, "%s.COMSTEPDR" % mode])
        for mode in ("TX", "RX") for b in range(1, 5)]
    # Common arm data is asked once per board.
    data = m._getComData("TX", 2, 1, [4], [2], [180], [3])
    assert data == {"COM_3": [service.sample.expected["BOARD_2"]["DATA_CHIP_1"]["COM_3"]["TX_2_180"][3]]}
    m._getComData("TX", 2, 1, [1], [0], [0], [1])            # served from the cache
    assert [q for q in sent(service) if q[2] == ["DATA_CHIP_1"]] == [(None, "BOARD_2", ["DATA_CHIP_1"])]


@pytest.mark.parametrize("reply, code, message", DB_ERRORS)
@pytest.mark.parametrize("call", ["getDR", "getCOMDR", "getELEDR", "queryCaliTableVer", "getFrequencyList", "_getTC"])
def test_database_failures_become_the_result(tm, m, service, caplog, call, reply, code, message):
    service.replies.append(reply)
    if call == "_getTC":                        # internal queries let the database error reach their caller
        with pytest.raises(tm.QRVTableDBError) as caught:
            m._getTC()
        ret = caught.value.ret
    else:
        ret = getattr(m, call)()
        assert records(caplog, "CaliTbl") == [("ERROR", "Exception: %r" % ret)]
    assert (ret.RetCode, ret.RetMsg) == (code, message)


def test_parse_with_a_failing_database(m, service, caplog):
    # setFreq sends nothing, so only a missing adapter can fail a retarget.
    del m._CalibrationTableManager__db
    ret = m.parse(freq=27.5)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_CALI_PARSE, "parse exception")
    assert caplog.records[-1].exc_info[0] is AttributeError
