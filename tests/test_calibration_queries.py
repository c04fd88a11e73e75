"""Calibration manager: dynamic ranges, temperature compensation, board offsets
and common-arm queries, in file mode and for dual-polarization devices."""
import logging

import pytest

from calibration_sample import GAINS, MODES, PHASES, SN, make_sample
from conftest import records
from vexcore.QRVPublic import CellRFMode, RetCode, RFMode

BOARDS = range(1, 5)


@pytest.fixture
def sample():
    return make_sample()


@pytest.fixture
def m(tm, files_dir, sample):
    sample.write(files_dir)
    manager = tm.CalibrationTableManager(SN, 28, tm.fake_rf_layout)
    assert manager.parse().RetCode == RetCode.OK
    return manager


def board(sample, b):
    return sample.expected["BOARD_%d" % b]


# ------------------------------------------------------------------- DR ---

@pytest.mark.parametrize("mode, key", [(None, None), (RFMode.TX, "TX"), (1, "RX"), (5, ValueError)])
def test_dr_of_all_modes_or_one(m, sample, caplog, mode, key):
    ret = m.getDR(mode)
    if key is ValueError:
        assert (ret.RetCode, ret.RetMsg, caplog.records[-1].exc_info[0]) == (RetCode.ERROR, "getDR exception", key)
    else:
        assert (ret.RetCode, ret.RetData) == (RetCode.OK, sample.expected["DR"][key] if key else sample.expected["DR"])


# ---------------------------------------------------------- COMDR / ELEDR ---

@pytest.mark.parametrize("kind", ["COMDR", "ELEDR"])
def test_board_ranges_per_mode_and_board_are_read_once(m, sample, caplog, kind):
    caplog.set_level(logging.DEBUG, logger="CaliTbl")
    ret = getattr(m, "get" + kind)()
    assert (ret.RetCode, ret.RetData) == (RetCode.OK, [[board(sample, b)[mode][kind] for b in BOARDS] for mode in MODES])
    m._CaliTable.clear()                       # the cache alone answers now
    assert getattr(m, "get" + kind)().RetData is ret.RetData
    for mode, index in ((RFMode.RX, 0), (0, 3), (1, -1)):
        assert getattr(m, "_getBoard" + kind)(mode, index) == ret.RetData[RFMode(mode)][index]
    log = records(caplog, "CaliTbl")
    assert [level for level, text in log if text.startswith("All DR: ")] == ["INFO"]
    assert log[-1] == ("DEBUG", "Fetch %s from cache" % kind)


@pytest.mark.parametrize("call", ["getDR", "getCOMDR", "getELEDR"])
def test_missing_entries_reach_the_caller_and_nothing_is_cached(m, call):
    del m._CaliTable["DR"], m._CaliTable["BOARD_3"]
    with pytest.raises(KeyError):
        getattr(m, call)()
    assert m._CalibrationTableManager__allXXXDR is None


# -------------------------------------------------------------------- TC ---

@pytest.mark.parametrize("layout", [(4, 1, 4), (1, 2, 4)])
def test_temperature_compensation_as_integers_per_board_and_chip(tm, files_dir, layout):
    # The loop runs over boards x chips entries, each read as a board of its own.
    entries = layout[0] * layout[1]
    sample = make_sample(boards=entries, ics=1)
    sample.write(files_dir)
    m = tm.CalibrationTableManager(SN, 28, lambda: layout)
    m.parse()
    assert m._getTC() == [[int(v) for mode in MODES for v in board(sample, b)[mode]["TC"]]
                          for b in range(1, entries + 1)]


# ----------------------------------------------------- dual polarization ---

def test_dual_polarization_ranges_per_polarization(tm, files_dir, caplog):
    dual = tm.CalibrationTableManager("K5120R077-28", 28, lambda: (1, 1, 4), support_polar=True)
    cali = tm.moss_cali
    assert dual.getDR().RetData is cali["DR"]
    assert dual.getDR(CellRFMode.RX).RetData == cali["DR"]["RX"]
    assert dual.getDR(RFMode.TX).RetData == cali["DR"]["TX"]
    assert dual.getCOMDR().RetData == [[{p: cali["BOARD_1"][mode][p]["COMDR"] for p in ("HORIZON", "VERTICAL")}]
                                       for mode in MODES]
    assert dual.getELEDR().RetData == [[{"HORIZON": 7.0, "VERTICAL": 7.5}], [{"HORIZON": 4.0, "VERTICAL": 5.5}]]
    assert dual._getTC() == [[[8, 3, 2, 11], [8, 3, 2, 11]]]
    ret = dual.getDR(CellRFMode.STANDBY)
    assert (ret.RetCode, ret.RetMsg, ret.RetData) == (RetCode.OK, "DR not support for STANDBY mode", None)
    assert records(caplog, "CaliTbl")[-1] == ("WARNING", "DR not support for STANDBY mode")


# ---------------------------------------------------------- board offsets ---

def offsets(sample, mode, b, chip=1):
    stored = board(sample, b)[mode]["OFFSET_CHIP_%d" % chip]
    return [stored["CHANNEL_%d" % ch] for ch in range(1, 5)]


@pytest.mark.parametrize("args, mode, boards", [
    ((2,), "TX", [2]),                      # one board, transmit offsets of the first chip by default
    (((4, 2), "RX", 1), "RX", [4, 2]),
    ((range(1, 3), "TX", 1), "TX", [1, 2]),
    (([1, 5],), "TX", KeyError),            # no such board
    ((1, "TX", 2), "TX", KeyError),         # no such chip
])
def test_offsets_of_one_or_several_boards(m, sample, args, mode, boards):
    if boards is KeyError:
        with pytest.raises(KeyError):
            m._getBoardsOffset(*args)
    else:
        assert m._getBoardsOffset(*args) == [offsets(sample, mode, b) for b in boards]


def test_offsets_are_cached_and_handed_out_as_copies(m, sample):
    m._getBoardsOffset(2)
    m._CaliTable.clear()
    answer = m._getBoardsOffset([2])
    answer[0][0] = 999                         # a caller's change stays with the caller
    assert m._getBoardsOffset(2) == [offsets(sample, "TX", 2)]


# ------------------------------------------------------- common-arm steps ---

@pytest.mark.parametrize("low, high, arms", [
    (-5.0, 0.0, [2, 3]),        # arm 1 spans -11..-2, arm 2 -8..1, arm 3 -5..4
    (-8.0, 1.0, [2]),           # bounds are inclusive
    (-11.0, 4.0, []),
    (-3.0, -2.0, [1, 2, 3]),
    (2.0, 5.0, []),
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


@pytest.mark.parametrize("bad_board", [0, -1, 5])
def test_steps_of_a_board_out_of_range(m, bad_board):
    with pytest.raises(IndexError):
        m._searchComStepDR(bad_board, "TX", -5, 0, None)


# ------------------------------------------------------- common-arm data ---

def stored_values(sample, b, chip, arm, mode, gain, phase):
    return sample.expected["BOARD_%d" % b]["DATA_CHIP_%d" % chip]["COM_%d" % arm][
        "%s_%d_%s" % (mode, int(float(gain)), phase)]


def test_common_arm_data_for_steps_gathered_over_boards(m, sample):
    arms = m._searchComStepDR(1, "TX", -5, 0, None) + m._searchComStepDR(2, "TX", -5, 0, None)
    channels, gains, phases = [1, 2, 3, 4], [float(g) for g in GAINS], [int(p) for p in PHASES]
    data = m._getComData("TX", 2, 1, channels, gains, phases, arms + [9])      # steps without data are left out
    assert list(data) == ["COM_2", "COM_3"]
    for arm in (2, 3):
        assert data["COM_%d" % arm] == [stored_values(sample, 2, 1, arm, "TX", g, p)[ch - 1]
                                        for ch, g, p in zip(channels, GAINS, PHASES)]


def test_common_arm_data_is_cached_per_chip_and_matched_by_integer_gain(m, sample):
    m._getComData("TX", 4, 1, [1], [0], [0], [1])
    m._CaliTable.clear()
    for gain in ("-2.0", -2, "-2", -2.7):
        assert m._getComData("TX", 4, 1, [3], [gain], [270], [3]) == {
            "COM_3": [stored_values(sample, 4, 1, 3, "TX", -2, 270)[2]]}
    assert list(m._CalibrationTableManager__allComDataMap) == ["BOARD_4"]


@pytest.mark.parametrize("channel, gain, phase, error", [
    ([1, 2], [0], [0, 0], ValueError),
    ([0], [0], [0], IndexError),
    ([5], [0], [0], IndexError),
    ([1], [1], [0], KeyError),
    ([1], [0], [45], KeyError),
])
def test_bad_data_requests(m, channel, gain, phase, error):
    with pytest.raises(error):
        m._getComData("TX", 1, 1, channel, gain, phase, [1])
