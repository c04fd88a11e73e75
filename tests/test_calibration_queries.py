"""Calibration manager: dynamic ranges, board offsets and common-arm queries, in file
mode, for dual-polarization devices and in web mode against a scripted query service."""
import logging

import pytest
from calibration_sample import GAINS, MODES, PHASES, SN, make_sample
from conftest import records

from vexcore.QRVPublic import CellRFMode, RetCode, RFMode

BOARDS = range(1, 5)
SAMPLE = make_sample()


@pytest.fixture
def m(tm, files_dir):
    SAMPLE.write(files_dir)
    manager = tm.CalibrationTableManager(SN, 28, tm.fake_rf_layout)
    assert manager.parse().RetCode == RetCode.OK
    return manager


# ------------------------------------------------------ answers and refusals ---

def result(ret):
    return ret.RetCode, ret.RetMsg, ret.RetData


def offsets(mode, b):
    stored = SAMPLE.expected["BOARD_%d" % b][mode]["OFFSET_CHIP_1"]
    return [stored["CHANNEL_%d" % ch] for ch in range(1, 5)]


# A query of the parsed sample and its answer, or the exception it lets out.
@pytest.mark.parametrize("query, expected", [
    (lambda m: result(m.getDR(5)), (RetCode.ERROR, "getDR exception", None)),
    (lambda m: m._getBoardsOffset(2), [offsets("TX", 2)]),         # transmit offsets of the first chip by default
    (lambda m: m._getBoardsOffset((4, 2), "RX", 1), [offsets("RX", 4), offsets("RX", 2)]),
    (lambda m: m._getBoardsOffset([1, 5]), KeyError),              # no such board (or chip: one lookup)
    (lambda m: m._searchComStepDR(0, "TX", -5, 0, None), IndexError),      # boards count from 1
    (lambda m: m._searchComStepDR(-1, "TX", -5, 0, None), IndexError),
    (lambda m: m._searchComStepDR(5, "TX", -5, 0, None), IndexError),
    (lambda m: m._getComData("TX", 1, 1, [1, 2], [0], [0, 0], [1]), ValueError),   # lists of unequal length
    (lambda m: m._getComData("TX", 1, 1, [0], [0], [0], [1]), IndexError),         # channels count from 1
    (lambda m: m._getComData("TX", 1, 1, [5], [0], [0], [1]), IndexError),
    (lambda m: m._getComData("TX", 1, 1, [1], [1], [0], [1]), KeyError),           # no such gain step
    (lambda m: m._searchComStepDR(2**64, "TX", -5, 0, None), IndexError),   # beyond any list index
    # Layout numbers of any size bound their loops as range() does: up to the first board missing, or none.
    (lambda m: setattr(m, "_num_board", 2**64) or m.getCOMDR(), KeyError),
    (lambda m: setattr(m, "_num_board", -2**64) or result(m.getCOMDR()), (RetCode.OK, "", [[], []])),
    (lambda m: setattr(m, "_num_ic_per_board", 2**64) or m._getTC(), KeyError),
])
def test_query_answers_or_lets_out_its_error(m, query, expected):
    if isinstance(expected, type):
        with pytest.raises(expected):
            query(m)
    else:
        assert query(m) == expected


# ---------------------------------------------------------- COMDR / ELEDR ---

@pytest.mark.parametrize("kind", ["COMDR", "ELEDR"])
def test_board_ranges_per_mode_and_board_are_read_once(m, caplog, kind):
    caplog.set_level(logging.DEBUG, logger="CaliTbl")
    ret = getattr(m, "get" + kind)()
    assert ret.RetCode == RetCode.OK            # the values are compared with the Python peer's in the fuzz tests
    m._CaliTable.clear()                       # the cache alone answers now
    assert getattr(m, "get" + kind)().RetData is ret.RetData
    for mode, index in ((RFMode.RX, 0), (0, 3), (1, -1)):
        assert getattr(m, "_getBoard" + kind)(mode, index) == ret.RetData[RFMode(mode)][index]
    log = records(caplog, "CaliTbl")
    assert [level for level, text in log if text.startswith("All DR: ")] == ["INFO"]
    assert log[-1] == ("DEBUG", "Fetch %s from cache" % kind)


# ----------------------------------------------------- dual polarization ---

def test_dual_polarization_answers_from_the_built_in_record_only(tm, files_dir, service, caplog):
    SAMPLE.write(files_dir)                    # neither this file nor the database is used
    dual = tm.CalibrationTableManager(SN, 28, lambda: (1, 1, 4), support_polar=True, web_client_id="7")
    cali = tm.moss_cali
    assert dual._CaliTable is cali
    for name in ("_CalibrationTableManager__db", "defaultDir", "path_cali"):
        assert not hasattr(dual, name)
    for refresh in (False, True):
        assert dual.getFrequencyList(refresh).RetData == [26.5, 27.0, 27.5, 28.0, 28.5, 29.0, 29.5]
    assert dual.queryCaliTableVer().RetData == "3.0.0"
    assert dual.getDR().RetData is cali["DR"]
    assert dual.getDR(CellRFMode.RX).RetData == cali["DR"]["RX"]
    assert dual.getDR(RFMode.TX).RetData == cali["DR"]["TX"]
    for kind in ("COMDR", "ELEDR"):
        assert getattr(dual, "get" + kind)().RetData == [
            [{p: cali["BOARD_1"][mode][p][kind] for p in ("HORIZON", "VERTICAL")}] for mode in MODES]
    assert dual._getTC() == [[[8, 3, 2, 11], [8, 3, 2, 11]]]
    ret = dual.getDR(CellRFMode.STANDBY)
    assert (ret.RetCode, ret.RetMsg, ret.RetData) == (RetCode.OK, "DR not support for STANDBY mode", None)
    assert records(caplog, "CaliTbl")[-1] == ("WARNING", "DR not support for STANDBY mode")


def test_offsets_are_cached_and_handed_out_as_copies(m):
    m._getBoardsOffset(2)
    m._CaliTable.clear()
    answer = m._getBoardsOffset([2])
    answer[0][0] = 999                         # a caller's change stays with the caller
    assert m._getBoardsOffset(2) == [offsets("TX", 2)]


# ------------------------------------------------------- common-arm steps ---

@pytest.mark.parametrize("low, high, arms", [
    (-5.0, 0.0, [2, 3]),        # arm 1 spans -11..-2, arm 2 -8..1, arm 3 -5..4
    (-8.0, 1.0, [2]),           # bounds are inclusive
    (-11.0, 4.0, []),
    (-3.0, -2.0, [1, 2, 3]),
])
def test_steps_that_cover_a_range(m, low, high, arms):
    for b in BOARDS:
        assert m._searchComStepDR(b, "RX", low, high, None) == arms


def test_steps_split_by_polarization(m, tm):
    for b in BOARDS:
        m._CaliTable["BOARD_%d" % b]["COMSTEPDR"] = {"HORIZON": {"COM_1": [-9, 0]},
                                                     "VERTICAL": {"COM_12": [-9, 0], "COM_4": [-9, 0]}}
    assert m._searchComStepDR(1, "TX", -5, -1, tm.POL.VERTICAL) == [12, 4]
    assert m._searchComStepDR(1, "TX", -5, -1, 0) == [1]


# ------------------------------------------------------- common-arm data ---

def stored_values(b, chip, arm, mode, gain, phase):
    return SAMPLE.expected["BOARD_%d" % b]["DATA_CHIP_%d" % chip]["COM_%d" % arm][
        "%s_%d_%s" % (mode, int(float(gain)), phase)]


def test_common_arm_data_for_steps_is_cached_per_chip_and_matched_by_integer_gain(m):
    arms = m._searchComStepDR(1, "TX", -5, 0, None) + m._searchComStepDR(2, "TX", -5, 0, None)
    channels, gains, phases = [1, 2, 3, 4], [float(g) for g in GAINS], [int(p) for p in PHASES]
    data = m._getComData("TX", 2, 1, channels, gains, phases, arms + [9])      # steps without data are left out
    assert list(data) == ["COM_2", "COM_3"]
    for arm in (2, 3):
        assert data["COM_%d" % arm] == [stored_values(2, 1, arm, "TX", g, p)[ch - 1]
                                        for ch, g, p in zip(channels, GAINS, PHASES)]
    m._CaliTable.clear()                       # the cache alone answers now
    for gain in ("-2.0", -2, "-2", -2.7):
        assert m._getComData("TX", 2, 1, [3], [gain], [270], [3]) == {
            "COM_3": [stored_values(2, 1, 3, "TX", -2, 270)[2]]}
    assert list(m._CalibrationTableManager__allComDataMap) == ["BOARD_2"]


# ------------------------------------------------------------- web mode ---

@pytest.fixture
def service(service):                          # the scripted service, holding the sample's entries
    for b in BOARDS:
        board = SAMPLE.expected["BOARD_%d" % b]
        for mode in ("TX", "RX"):
            for kind in ("COMDR", "ELEDR"):
                service.data[("BOARD_%d" % b, "%s.%s" % (mode, kind))] = board[mode][kind]
            service.data[("BOARD_%d" % b, mode + ".COMSTEPDR")] = board["COMSTEPDR"]
        service.data[("BOARD_%d" % b, "DATA_CHIP_1")] = board["DATA_CHIP_1"]
    service.data[("GENERAL", "DR.RX")] = SAMPLE.expected["DR"]["RX"]
    service.data[("GENERAL", "VER")] = "2.1.0"
    service.data["getFreqList"] = {"Freq": [27.5, 28.0]}
    return service


@pytest.fixture
def web(tm, files_dir, service):
    return tm.CalibrationTableManager(SN, 28, tm.fake_rf_layout, web_client_id="111")


def sent(service):
    return [(c.query_cmd, c.payload.get("category"), c.payload.get("query")) for c in service.calls]


def test_construction_and_a_new_frequency_only_set_up_the_database(web, service, files_dir, caplog):
    # The adapter is made at once, and the table is taken to be there without asking.
    assert service.tables == ["calibration"]
    assert web.checkCaliTableLocation().RetData is True
    make_sample().write(files_dir, freq="27.5")
    ret = web.parse(freq=27.5)
    assert (ret.RetCode, ret.RetData) == (RetCode.OK, None)
    assert web._CaliTable == {} and service.calls == []
    web.queryCaliTableVer()
    assert service.calls[0].payload["frequency"] == 27.5
    # setFreq sends nothing, so only a missing adapter can fail a retarget.
    del web._CalibrationTableManager__db
    ret = web.parse(freq=27.5)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_CALI_PARSE, "parse exception")
    assert caplog.records[-1].exc_info[0] is AttributeError


def test_queries_ask_the_database_one_category_at_a_time_and_arm_data_once_per_board(web, service):
    # The answers themselves are compared with file mode against the real service elsewhere.
    assert web.getFrequencyList().RetData == [27.5, 28.0] == web._freq_list
    for query in (web.queryCaliTableVer, lambda: web.getDR(RFMode.RX), web.getELEDR):
        assert query().RetCode == RetCode.OK
    assert sent(service) == [("getFreqList", None, None), (None, "GENERAL", ["VER"]), (None, "GENERAL", ["DR.RX"])] + [
        (None, "BOARD_%d" % b, ["%s.COMDR" % mode, "%s.ELEDR" % mode, "%s.COMSTEPDR" % mode])
        for mode in ("TX", "RX") for b in BOARDS]
    # Common arm data is asked once per board.
    data = web._getComData("TX", 2, 1, [4], [2], [180], [3])
    assert data == {"COM_3": [SAMPLE.expected["BOARD_2"]["DATA_CHIP_1"]["COM_3"]["TX_2_180"][3]]}
    web._getComData("TX", 2, 1, [1], [0], [0], [1])            # served from the cache
    assert [q for q in sent(service) if q[2] == ["DATA_CHIP_1"]] == [(None, "BOARD_2", ["DATA_CHIP_1"])]


# How each kind of reply becomes a database error is the adapter's (test_table_db.py).
@pytest.mark.parametrize("call", ["getDR", "getCOMDR", "getELEDR", "queryCaliTableVer", "getFrequencyList", "_getTC"])
def test_database_failures_become_the_result(tm, web, service, caplog, call):
    service.replies.append({"code": 7, "message": "no calibration for this device"})
    if call == "_getTC":                        # internal queries let the database error reach their caller
        with pytest.raises(tm.QRVTableDBError) as caught:
            web._getTC()
        ret = caught.value.ret
    else:
        ret = getattr(web, call)()
        assert records(caplog, "CaliTbl") == [("ERROR", "Exception: %r" % ret)]
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_DB_FEEDBACK, "no calibration for this device")
