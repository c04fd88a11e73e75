"""Reading and writing one beam: ids, default beams bounded by the gain limits, partial changes, the check hooks."""
import enum
import json
import logging

import pytest
from beam_helpers import COMDR, DR, ELEDR, default_beam, hooks, make_manager, manager, saved_table  # noqa: F401
from conftest import records

from vexcore.QRVPublic import BeamType, RetCode, RFMode
from vexcore.QRVUtils import RetType

STEER = {"db": 1, "theta": 2, "phi": 3}


@pytest.mark.parametrize("spoil, beam_id, message", [
    (lambda m: setattr(m, "_BeamTable", None), 1, "BeamTable is not ready"),
    (None, 0, "Invaid beam id: 0"),
    (None, "1", "GetBeamPattern exception"),
])
def test_get_and_set_refuse_alike(manager, caplog, spoil, beam_id, message):
    if spoil:
        spoil(manager)
    for ret in (manager.getBeamPattern(RFMode.RX, beam_id), manager.setBeamPattern(RFMode.RX, beam_id, 0, STEER)):
        assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, message)
    assert records(caplog, "BeamTbl")[-1] == ("ERROR", message)


@pytest.mark.parametrize("mode, beam_id", [(RFMode.TX, 1), (1, 8)])
def test_unset_id_reads_as_a_fresh_default_of_the_current_limits(manager, mode, beam_id):
    first, second = manager.getBeamPattern(mode, beam_id), manager.getBeamPattern(mode, beam_id)
    assert first.RetData == default_beam(manager, mode=RFMode(mode)) and first.RetData is not second.RetData
    manager._updateFreq(28.0, DR, [COMDR[0], [-1.0, -2.0, -3.0, -4.0]], ELEDR)      # defaults follow new limits
    assert manager.getBeamPattern(RFMode.RX, 2).RetData["channel_config"]["board_3"]["common_db"] == -3.0


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
    ((2 ** 64, 1, 4), (COMDR, ELEDR), {}, IndexError),         # more boards than limits
    ((4, 1, 4), ({"TX": COMDR[0]}, ELEDR), {}, KeyError),      # rows keyed by name instead of value
    ((4, 1, 4), (COMDR, ELEDR), [], TypeError),                # the beam must be a mapping
])
def test_default_channel_beam_without_limits_or_a_mapping_raises(tm, files_dir, layout, limits, beam, error):
    manager = make_manager(tm, layout=layout, limits=False)
    manager._updateFreq(28.0, DR, *limits)
    with pytest.raises(error):
        manager._BeamPatternTableManager__generateDefaultBeam(beam, BeamType.CHANNEL, RFMode.TX)


# ------------------------------------------------------ channel beams set ---

def test_a_set_without_config_keeps_the_stored_beam_and_checks_its_gains_again(manager, hooks, caplog):
    # How partial configs merge: the mapping test below; what is saved when: the differential operation tests.
    manager.setBeamPattern(RFMode.RX, 2, BeamType.CHANNEL, {"board_1": {"common_db": 1.0}}, "first", save=False)
    change = {"board_4": {"channel_1": {"sw": 1, "db": 0, "deg": 5}}}
    assert manager.setBeamPattern(RFMode.RX, 2, BeamType.CHANNEL, change).RetCode == RetCode.OK
    stored = json.loads(json.dumps(manager._BeamTable["RX"]["2"]))
    hooks.ic_calls.clear()
    caplog.set_level(logging.DEBUG, logger="BeamTbl")
    assert manager.setBeamPattern(RFMode.RX, 2, BeamType.CHANNEL).RetCode == RetCode.OK
    assert manager._BeamTable["RX"]["2"] == stored == saved_table(manager)["RX"]["2"]
    assert stored["beam_description"] == "first"
    gains = [[ELEDR[1][b]] * 4 for b in range(4)]
    gains[3][0] = 0
    assert hooks.ic_calls == [(RFMode.RX, b, gains[b], [1.0, *COMDR[1][1:]][b]) for b in range(4)]
    log = records(caplog, "BeamTbl")
    assert ("DEBUG", "Skip assign channel config, just checking original gains") in log
    assert ("DEBUG", "Checked  board_1 gain list: %s" % ([ELEDR[1][0]] * 4)) in log


def test_refused_board_stops_checking_and_stores_nothing(manager, hooks, caplog):
    hooks.refuse_board = 2
    ret = manager.setBeamPattern(RFMode.TX, 3, BeamType.CHANNEL, {"board_1": {"common_db": 99.0}})
    message = "BeamID_3: Checking channel config failed: Checking board_3 gain list failed"
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, message)
    assert [call[1] for call in hooks.ic_calls] == [0, 1, 2] and manager._BeamTable["TX"] == {}
    log = records(caplog, "BeamTbl")
    assert ("ERROR", "Checking board_3 gain list failed") in log and ("ERROR", message) in log


class Board(dict):
    """A mapping that is not a plain dict."""


def test_set_from_mappings_that_are_not_plain_dicts_merges_the_same(manager):
    given = {"sw": 0, "db": 1.0, "deg": 3}
    config = Board(board_2=Board(channel_1={"sw": 1, "db": 0.5, "deg": 2}), board_1={"channel_3": given})
    assert manager.setBeamPattern(0, 5, 1, config, "from config", save=False).RetCode == RetCode.OK
    expected = default_beam(manager)
    for board, values in config.items():
        expected["channel_config"][board].update(values)
    expected["beam_description"] = "from config"
    stored = manager._BeamTable["TX"]["5"]
    assert json.dumps(stored) == json.dumps(expected)            # same values and key order
    assert stored["channel_config"]["board_1"]["channel_3"] is given


# ------------------------------------------------------ steered beams set ---

def test_steered_beam_is_stored_as_the_hook_corrects_it(manager, hooks, caplog):
    caplog.set_level(logging.INFO, logger="BeamTbl")
    hooks.correct = lambda db, theta, phi: [min(db, 2.0), theta, phi % 360]
    ret = manager.setBeamPattern(RFMode.TX, 1, BeamType.BEAM, {"db": 3.5, "theta": 0, "phi": 400}, "BoresightBeam")
    assert ret.RetCode == RetCode.OK and hooks.beam_calls == [(RFMode.TX, 3.5, 0, 400, None)]
    expected = {"beam_description": "BoresightBeam", "beam_type": 0, "beam_config": {"db": 2.0, "theta": 0, "phi": 40}}
    assert manager._BeamTable["TX"]["1"] == expected and saved_table(manager)["TX"]["1"] == expected
    assert ("INFO", "Set/update beam:1 pattern -> %s" % expected) in records(caplog, "BeamTbl")


REFUSAL = RetType(RetCode.WARNING, "theta beyond steering range", data=(1, 2))


@pytest.mark.parametrize("answer, expected", [
    (REFUSAL, REFUSAL),                                           # a refusal is handed back as it is
    (RetType(data=(1, 2)), (RetCode.ERROR_BF_BEAM, "SetBeamPattern exception")),    # not three values
], ids=["refusal", "two_values"])
def test_a_beam_hook_that_refuses_or_answers_badly_stores_nothing(manager, hooks, answer, expected):
    hooks.beam_refusal = answer
    ret = manager.setBeamPattern(RFMode.TX, 2, BeamType.BEAM, STEER)
    assert ret is expected if isinstance(expected, RetType) else (ret.RetCode, ret.RetMsg) == expected
    assert manager._BeamTable["TX"] == {}


# -------------------------------------------------------- hooks and calls ---

@pytest.mark.parametrize("beam_type, message", [(BeamType.CHANNEL, "Invalid channel config"),
                                                (BeamType.BEAM, "SetBeamPattern exception")])
def test_placeholder_hooks_fail_the_set(tm, files_dir, beam_type, message):
    manager = tm.BeamPatternTableManager("SN1", 7, 8, (4, 1, 4), (tm.fake_check, tm.fake_ic_check))
    manager._updateFreq(28.0, DR, COMDR, ELEDR)
    manager._load(28.0, "")
    ret = manager.setBeamPattern(RFMode.TX, 1, beam_type, None)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, message)


def test_set_goes_through_the_instance_for_read_and_save(manager):
    seen = []
    original_get = manager.getBeamPattern
    manager.getBeamPattern = lambda mode, beam_id: seen.append(("get", mode, beam_id)) or original_get(mode, beam_id)
    manager._saveToBeamTableFile = lambda *a: seen.append(("save",) + a) or RetType(msg="patched")
    assert manager.setBeamPattern(1, 3, BeamType.BEAM, STEER).RetMsg == "patched"
    assert seen == [("get", RFMode.RX, 3), ("save",)]


def test_modes_follow_the_module_rf_mode_when_replaced(manager, restore_module_globals):
    class Link(enum.IntEnum):
        RX = 0          # same values, names swapped: the name picks the table section
        TX = 1

    restore_module_globals.RFMode = Link
    manager.setBeamPattern(Link.RX, 1, BeamType.BEAM, STEER, "via Link", save=False)
    assert manager._BeamTable["TX"] == {}
    assert manager.getBeamPattern(RFMode.TX, 1).RetData is manager._BeamTable["RX"]["1"]   # RFMode.TX == 0
