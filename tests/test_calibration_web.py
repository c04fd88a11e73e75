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
            for kind in ("COMDR", "ELEDR", "TC", "OFFSET_CHIP_1"):
                service.data[("BOARD_%d" % b, "%s.%s" % (mode, kind))] = board[mode][kind]
            service.data[("BOARD_%d" % b, mode + ".COMSTEPDR")] = board["COMSTEPDR"]
        service.data[("BOARD_%d" % b, "DATA_CHIP_1")] = board["DATA_CHIP_1"]
    for mode in ("TX", "RX"):
        service.data[("GENERAL", "DR." + mode)] = sample.expected["DR"][mode]
    service.data[("GENERAL", "DR")] = sample.expected["DR"]
    service.data[("GENERAL", "VER")] = "2.1.0"
    service.data["getFreqList"] = {"Freq": [27.5, 28.0]}
    service.sample = sample
    return service


@pytest.fixture
def m(tm, files_dir, service):
    return tm.CalibrationTableManager(SN, 28, tm.fake_rf_layout, web_client_id="111")


def sent(service):
    return [(c.query_cmd, c.payload.get("category"), c.payload.get("query")) for c in service.calls]


def test_new_frequency_only_retargets_the_database(m, service, files_dir):
    make_sample().write(files_dir, freq="27.5")
    ret = m.parse(freq=27.5)
    assert (ret.RetCode, ret.RetData) == (RetCode.OK, None)
    assert m._CaliTable == {} and service.calls == []
    m.queryCaliTableVer()
    assert service.calls[0].payload["frequency"] == 27.5


def test_lists_versions_and_dr_come_from_the_database(m, service):
    assert m.getFrequencyList().RetData == [27.5, 28.0] == m._freq_list
    assert m.queryCaliTableVer().RetData == "2.1.0"
    assert m.getDR().RetData == service.sample.expected["DR"]
    assert m.getDR(RFMode.RX).RetData == service.sample.expected["DR"]["RX"]
    assert sent(service) == [("getFreqList", None, None), (None, "GENERAL", ["VER"]),
                             (None, "GENERAL", ["DR"]), (None, "GENERAL", ["DR.RX"])]


def test_board_ranges_one_query_per_board_and_mode(m, service):
    expected = service.sample.expected
    assert m.getCOMDR().RetData == [[expected["BOARD_%d" % b][mode]["COMDR"] for b in range(1, 5)]
                                    for mode in ("TX", "RX")]
    # A one-element answer stands for its element.
    assert m.getELEDR().RetData == [[expected["BOARD_%d" % b][mode]["ELEDR"][0] for b in range(1, 5)]
                                    for mode in ("TX", "RX")]
    assert sent(service) == [(None, "BOARD_%d" % b, ["%s.COMDR" % mode, "%s.ELEDR" % mode, "%s.COMSTEPDR" % mode])
                             for mode in ("TX", "RX") for b in range(1, 5)]


def test_tc_offsets_steps_and_data_from_the_database(m, service):
    expected = service.sample.expected
    assert m._getTC() == [[int(v) for mode in ("TX", "RX") for v in expected["BOARD_%d" % b][mode]["TC"]]
                          for b in range(1, 5)]
    chip = expected["BOARD_3"]["RX"]["OFFSET_CHIP_1"]
    assert m._getBoardsOffset([3], "RX") == [[chip["CHANNEL_%d" % ch] for ch in range(1, 5)]]
    assert m._searchComStepDR(2, "TX", -5, 0, None) == [2, 3]
    data = m._getComData("TX", 2, 1, [4], [2], [180], [3])
    assert data == {"COM_3": [expected["BOARD_2"]["DATA_CHIP_1"]["COM_3"]["TX_2_180"][3]]}
    m._getComData("TX", 2, 1, [1], [0], [0], [1])            # served from the cache
    assert [q for q in sent(service) if q[2] == ["DATA_CHIP_1"]] == [(None, "BOARD_2", ["DATA_CHIP_1"])]


@pytest.mark.parametrize("reply, code, message", DB_ERRORS)
@pytest.mark.parametrize("call", ["getDR", "getCOMDR", "getELEDR", "queryCaliTableVer", "getFrequencyList"])
def test_database_failures_become_the_result(m, service, caplog, call, reply, code, message):
    service.replies.append(reply)
    ret = getattr(m, call)()
    assert (ret.RetCode, ret.RetMsg) == (code, message)
    assert records(caplog, "CaliTbl") == [("ERROR", "Exception: %r" % ret)]


@pytest.mark.parametrize("reply, code, message", DB_ERRORS)
def test_database_failures_reach_callers_of_internal_queries(tm, m, service, reply, code, message):
    service.replies.append(reply)
    with pytest.raises(tm.QRVTableDBError) as caught:
        m._getTC()
    assert (caught.value.ret.RetCode, caught.value.ret.RetMsg) == (code, message)


def test_parse_with_a_failing_database(m, service, caplog):
    # setFreq sends nothing, so only a missing adapter can fail a retarget.
    del m._CalibrationTableManager__db
    ret = m.parse(freq=27.5)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_CALI_PARSE, "parse exception")
    assert caplog.records[-1].exc_info[0] is AttributeError
