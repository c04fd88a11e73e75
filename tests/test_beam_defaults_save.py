"""Default beams bounded by the gain limits, and saving the table (file or web-mode callback)."""
import json
import logging

import pytest
from beam_helpers import COMDR, DR, ELEDR, default_beam, hooks, make_manager, manager  # noqa: F401

from vexcore.QRVPublic import BeamType, RetCode, RFMode
from vexcore.QRVUtils import RetType

# ---------------------------------------------------------- default beams ---

# 2 boards x 2 ICs x 4 channels: the rule makes one "board_" per IC, as 4 boards x 1 IC do.
@pytest.mark.parametrize("mode, layout", [(RFMode.TX, (4, 1, 4)), (1, (2, 2, 4))])
def test_default_channel_beam_follows_the_limits_of_each_board(tm, files_dir, mode, layout):
    beam = default_beam(make_manager(tm, layout=layout), mode=mode)
    assert list(beam) == ["beam_description", "beam_type", "channel_config"] and beam["beam_type"] == 1
    assert beam["beam_description"] == "" and list(beam["channel_config"]) == ["board_%d" % b for b in range(1, 5)]
    for b, board in enumerate(beam["channel_config"].values()):
        assert list(board) == ["common_db"] + ["channel_%d" % c for c in range(1, 5)]
        assert board["common_db"] is COMDR[mode][b]          # limits are shared, not converted
        channels = [board["channel_%d" % c] for c in range(1, 5)]
        assert all(ch == {"sw": 0, "db": ELEDR[mode][b], "deg": 0} and ch["db"] is ELEDR[mode][b] for ch in channels)
        assert len({id(ch) for ch in channels}) == 4          # every channel its own mapping


def test_default_steered_beam_points_at_boresight(tm, files_dir):
    beam = {"beam_description": "kept?", "extra": 1}
    make_manager(tm)._BeamPatternTableManager__generateDefaultBeam(beam, BeamType.BEAM, RFMode.RX)
    assert beam == {"beam_description": "", "extra": 1, "beam_type": 0,
                    "beam_config": {"db": DR["RX"], "theta": 0, "phi": 0}}
    assert beam["beam_config"]["db"] is DR["RX"]


@pytest.mark.parametrize("layout, limits, beam, error", [
    ((4, 1, 1), (COMDR, ELEDR), {}, UnboundLocalError),        # one channel per IC never starts a board
    ((4, 1, 4), ({"TX": COMDR[0]}, ELEDR), {}, KeyError),      # rows keyed by name instead of value
    ((4, 1, 4), (COMDR, ELEDR), [], TypeError),                # the beam must be a mapping
    ((4, 1, 4), (COMDR, ELEDR), None, TypeError),
])
def test_default_channel_beam_without_limits_or_a_mapping_raises(tm, files_dir, layout, limits, beam, error):
    manager = make_manager(tm, layout=layout, limits=False)
    manager._updateFreq(28.0, DR, *limits)
    with pytest.raises(error):
        manager._BeamPatternTableManager__generateDefaultBeam(beam, BeamType.CHANNEL, RFMode.TX)


# ----------------------------------------------------------------- saving ---

def _file_bytes(manager):
    return manager._BeamPatternTableManager__path.read_bytes()


def test_saved_file_is_exactly_what_json_writes_of_the_table_or_the_one_handed_in(manager):
    table = manager._BeamTable
    table["TX"]["1"] = {"beam_description": "Ångström 波束 \U0001F4E1 \"q\" \\ \n\t\x01", "beam_type": 0,
                        "beam_config": {"db": -0.1, "theta": 1e-05, "phi": 1e16}}
    table["RX"]["2"] = {"beam_description": "", "beam_type": 1, "channel_config": {"board_1": {"common_db": None}}}
    table["EXTRA"] = [True, False, [], {}, 12345678901234567890, -0.0]
    assert manager._saveToBeamTableFile().RetCode == RetCode.OK
    assert _file_bytes(manager) == json.dumps(table, ensure_ascii=False, indent=2).encode("utf-8")
    # A table handed in is written but not adopted.
    before = manager._BeamTable
    other = {"VERSION": "v2.0.0", "TX": {}, "RX": {}, "note": "replacement"}
    assert manager._saveToBeamTableFile(new_table=other).RetCode == RetCode.OK
    assert json.loads(_file_bytes(manager)) == other and manager._BeamTable is before and "note" not in before


@pytest.mark.parametrize("new_table", [None, {"TX": {}}])
def test_web_mode_save_goes_to_the_callback_only(manager, new_table):
    calls, before = [], _file_bytes(manager)
    answer = RetType(msg="stored by host")
    assert manager._saveToBeamTableFile(lambda **kw: calls.append(kw) or answer, new_table) is answer
    assert calls == [{"func_name": "saveToBeamTableFile", **({} if new_table is None else {"new_table": new_table})}]
    assert _file_bytes(manager) == before


def test_a_callback_that_raises_is_a_failed_save(manager, caplog):
    def callback(**kwargs):
        raise ConnectionError("host gone")

    before = _file_bytes(manager)
    ret = manager._saveToBeamTableFile(callback)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM_FILE, "BeamFile saving exception")
    (record,) = [r for r in caplog.records if r.levelno >= logging.ERROR]
    assert record.getMessage() == "BeamFile saving exception" and record.exc_info[0] is ConnectionError
    assert _file_bytes(manager) == before
