"""Reading and writing one beam: ids, defaults for unset ids, partial changes, the check hooks, saving."""
import enum
import json
import logging

import pytest

from beam_helpers import (COMDR, DR, ELEDR, Hooks, default_beam, hooks, make_manager, manager,  # noqa: F401
                          saved_table)
from conftest import records
from vexcore.QRVPublic import BeamType, RFMode, RetCode
from vexcore.QRVUtils import RetType

STEER = {"db": 1, "theta": 2, "phi": 3}


@pytest.mark.parametrize("call", [lambda m: m.getBeamPattern(RFMode.TX, 1),
                                  lambda m: m.setBeamPattern(RFMode.TX, 1, BeamType.BEAM, STEER)])
def test_unloaded_table_is_not_ready(tm, files_dir, caplog, call):
    ret = call(make_manager(tm, hooks=Hooks()))
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "BeamTable is not ready")
    assert records(caplog, "BeamTbl") == [("ERROR", "BeamTable is not ready")]


@pytest.mark.parametrize("beam_id", [0, 9])
def test_ids_outside_storage_are_refused(manager, beam_id):
    for ret in (manager.getBeamPattern(RFMode.TX, beam_id), manager.setBeamPattern(RFMode.TX, beam_id, 1)):
        assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "Invaid beam id: %d" % beam_id)


@pytest.mark.parametrize("mode, beam_id", [(RFMode.TX, 1), (1, 8)])
def test_unset_id_reads_as_a_fresh_default_that_is_not_stored(manager, mode, beam_id):
    first, second = manager.getBeamPattern(mode, beam_id), manager.getBeamPattern(mode, beam_id)
    assert first.RetData == default_beam(manager, mode=RFMode(mode)) and first.RetData is not second.RetData
    assert manager._BeamTable["TX"] == {} and manager._BeamTable["RX"] == {}
    manager._updateFreq(28.0, DR, [COMDR[0], [-1.0, -2.0, -3.0, -4.0]], ELEDR)      # defaults follow new limits
    assert manager.getBeamPattern(RFMode.RX, 2).RetData["channel_config"]["board_3"]["common_db"] == -3.0


@pytest.mark.parametrize("mode, beam_id", [(5, 1), ("TX", 1), (RFMode.TX, "1")])
def test_malformed_read_requests_are_reported(manager, caplog, mode, beam_id):
    ret = manager.getBeamPattern(mode, beam_id)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "GetBeamPattern exception")
    (record,) = [r for r in caplog.records if r.levelno >= logging.ERROR]
    assert isinstance(record.exc_info[1], (ValueError, TypeError))


# ------------------------------------------------------ channel beams set ---

def test_partial_config_changes_only_what_it_names(manager, hooks):
    change = {"board_2": {"channel_3": {"sw": 1, "db": -4.0, "deg": 180}}}
    assert manager.setBeamPattern(RFMode.TX, 3, BeamType.CHANNEL, change, "one channel").RetCode == RetCode.OK
    expected = default_beam(manager)
    expected["beam_description"] = "one channel"
    expected["channel_config"]["board_2"]["channel_3"] = {"sw": 1, "db": -4.0, "deg": 180}
    assert manager._BeamTable["TX"]["3"] == expected and saved_table(manager)["TX"]["3"] == expected
    gains = [[ELEDR[0][b]] * 4 for b in range(4)]
    gains[1][2] = -4.0
    assert hooks.ic_calls == [(RFMode.TX, b, gains[b], COMDR[0][b]) for b in range(4)]


def test_later_sets_build_on_the_stored_beam_and_unsaved_ones_stay_in_memory(manager, hooks, caplog):
    before = saved_table(manager)
    manager.setBeamPattern(RFMode.RX, 2, BeamType.CHANNEL, {"board_1": {"common_db": 1.0}}, "first", save=False)
    assert manager.getBeamPattern(RFMode.RX, 2).RetData["beam_description"] == "first"
    assert saved_table(manager) == before
    manager.setBeamPattern(RFMode.RX, 2, BeamType.CHANNEL, {"board_4": {"channel_1": {"sw": 1, "db": 0, "deg": 5}}})
    stored = manager._BeamTable["RX"]["2"]
    expected = default_beam(manager, mode=RFMode.RX)
    expected["beam_description"] = "first"
    expected["channel_config"]["board_1"]["common_db"] = 1.0
    expected["channel_config"]["board_4"]["channel_1"] = {"sw": 1, "db": 0, "deg": 5}
    assert stored == expected
    # Without a config the stored gains are only checked again.
    hooks.ic_calls.clear()
    caplog.set_level(logging.DEBUG, logger="BeamTbl")
    assert manager.setBeamPattern(RFMode.RX, 2, BeamType.CHANNEL).RetCode == RetCode.OK
    assert manager._BeamTable["RX"]["2"] == expected
    assert [call[3] for call in hooks.ic_calls] == [1.0] + COMDR[1][1:]
    log = records(caplog, "BeamTbl")
    assert ("DEBUG", "Skip assign channel config, just checking original gains") in log
    assert ("DEBUG", "Checking board_1 gain list: %s with common gain: 1.0" % ([ELEDR[1][0]] * 4)) in log
    assert ("DEBUG", "Checked  board_1 gain list: %s" % ([ELEDR[1][0]] * 4)) in log


def test_refused_board_stops_checking_and_stores_nothing(manager, hooks, caplog):
    hooks.refuse_board = 2
    ret = manager.setBeamPattern(RFMode.TX, 3, BeamType.CHANNEL, {"board_1": {"common_db": 99.0}})
    message = "BeamID_3: Checking channel config failed: Checking board_3 gain list failed"
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, message)
    assert [call[1] for call in hooks.ic_calls] == [0, 1, 2] and manager._BeamTable["TX"] == {}
    log = records(caplog, "BeamTbl")
    assert ("ERROR", "Checking board_3 gain list failed") in log and ("ERROR", message) in log


@pytest.mark.parametrize("config", [
    ["board_1"],                                    # not a mapping
    {"board_9": {"common_db": 1.0}},                # a board the device does not have
    {"board_1": {"channel_2": {"sw": 1}}},          # a channel without its gain
])
def test_malformed_channel_config_is_reported(manager, config):
    ret = manager.setBeamPattern(RFMode.TX, 4, BeamType.CHANNEL, config)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "Invalid channel config")
    assert "4" not in manager._BeamTable["TX"]


class Board(dict):
    """A mapping that is not a plain dict."""


def _full_config():
    config = {"board_%d" % b: {"common_db": float(b), **{"channel_%d" % c: {"sw": 1, "db": -1.0, "deg": c}
                                                        for c in range(4, 0, -1)}} for b in range(1, 5)}
    config["board_3"]["note"] = "appended after the channels"
    return config


@pytest.mark.parametrize("config", [
    _full_config(),
    Board(board_1={"channel_3": {"sw": 0, "db": 1.0, "deg": 3}}, board_2=Board(channel_1={"sw": 1, "db": 0.5})),
], ids=["full_with_extra_key", "mappings_not_plain"])
def test_unset_id_set_from_a_config_is_the_default_with_the_config_merged(manager, config):
    expected = default_beam(manager)
    for board, values in config.items():
        expected["channel_config"][board].update(values)
    expected["beam_description"] = "from config"
    assert manager.setBeamPattern(0, 5, 1, config, "from config", save=False).RetCode == RetCode.OK
    stored = manager._BeamTable["TX"]["5"]
    assert json.dumps(stored) == json.dumps(expected)            # same values and key order
    given = config.get("board_1", {}).get("channel_3")
    assert given is None or stored["channel_config"]["board_1"]["channel_3"] is given


# ------------------------------------------------------ steered beams set ---

def test_steered_beam_as_the_hook_accepts_it(manager, hooks, caplog):
    caplog.set_level(logging.INFO, logger="BeamTbl")
    ret = manager.setBeamPattern(RFMode.TX, 1, BeamType.BEAM, {"db": 3.5, "theta": 0, "phi": 0}, "BoresightBeam")
    assert ret.RetCode == RetCode.OK
    expected = {"beam_description": "BoresightBeam", "beam_type": 0, "beam_config": {"db": 3.5, "theta": 0, "phi": 0}}
    assert manager._BeamTable["TX"]["1"] == expected and saved_table(manager)["TX"]["1"] == expected
    assert hooks.beam_calls == [(RFMode.TX, 3.5, 0, 0, None)]
    assert ("INFO", "Set/update beam:1 pattern -> %s" % expected) in records(caplog, "BeamTbl")


def test_corrected_values_are_the_stored_ones(manager, hooks):
    hooks.correct = lambda db, theta, phi: [min(db, 2.0), theta, phi % 360]
    manager.setBeamPattern(1, 6, 0, {"db": 7.5, "theta": -20, "phi": 400}, save=False)
    assert manager._BeamTable["RX"]["6"]["beam_config"] == {"db": 2.0, "theta": -20, "phi": 40}


def test_steered_beam_without_config_checks_the_current_values(manager, hooks):
    manager.setBeamPattern(RFMode.RX, 7, BeamType.BEAM, save=False)
    manager.setBeamPattern(RFMode.RX, 7, BeamType.BEAM, STEER, save=False)
    manager.setBeamPattern(RFMode.RX, 7, BeamType.BEAM)
    assert [call[1:4] for call in hooks.beam_calls] == [(DR["RX"], 0, 0), (1, 2, 3), (1, 2, 3)]


def test_refusing_beam_hook_result_is_returned_as_is(manager, hooks):
    hooks.beam_refusal = RetType(RetCode.WARNING, "theta beyond steering range", data=(1, 2))
    assert manager.setBeamPattern(RFMode.TX, 2, BeamType.BEAM, STEER) is hooks.beam_refusal
    assert manager._BeamTable["TX"] == {}


@pytest.mark.parametrize("mode, beam_type, config, accepted", [
    (RFMode.TX, BeamType.BEAM, {"db": 1, "theta": 2}, None),     # phi missing
    (RFMode.TX, BeamType.BEAM, [1, 2, 3], None),                 # not a mapping
    (RFMode.TX, BeamType.BEAM, STEER, (1, 2)),                   # hook hands back two values
    (RFMode.TX, BeamType.BEAM, STEER, 5),                        # hook hands back no sequence
    (RFMode.TX, 7, None, None),                                  # unknown beam type
    (9, BeamType.BEAM, None, None),                              # unknown mode
])
def test_malformed_steered_requests_are_reported(manager, hooks, mode, beam_type, config, accepted):
    if accepted is not None:
        hooks.correct = lambda *values: accepted
    ret = manager.setBeamPattern(mode, 2, beam_type, config)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "SetBeamPattern exception")
    assert manager._BeamTable["TX"] == {}


# ------------------------------------------------------- changing the kind ---

def test_channel_beam_over_a_steered_beam_starts_from_defaults(manager, caplog):
    manager.setBeamPattern(RFMode.TX, 2, BeamType.BEAM, STEER, "was steered", save=False)
    caplog.set_level(logging.DEBUG, logger="BeamTbl")
    change = {"board_1": {"channel_1": {"sw": 1, "db": 0.0, "deg": 90}}}
    assert manager.setBeamPattern(RFMode.TX, 2, BeamType.CHANNEL, change, save=False).RetCode == RetCode.OK
    expected = default_beam(manager)
    expected["beam_description"] = "was steered"
    expected["channel_config"]["board_1"]["channel_1"] = change["board_1"]["channel_1"]
    assert manager._BeamTable["TX"]["2"] == expected
    assert ("DEBUG", "Skip check beam:2 due to original type is beam_config") in records(caplog, "BeamTbl")


@pytest.mark.parametrize("description, kept", [("now steered", "now steered"), (None, "")])
def test_steered_beam_over_a_channel_beam_is_a_fresh_beam(manager, description, kept):
    manager.setBeamPattern(RFMode.TX, 2, BeamType.CHANNEL, None, "channel one", save=False)
    manager.setBeamPattern(RFMode.TX, 2, BeamType.BEAM, STEER, description, save=False)
    assert manager._BeamTable["TX"]["2"] == {"beam_description": kept, "beam_type": 0, "beam_config": STEER}


# -------------------------------------------------------- hooks and calls ---

@pytest.mark.parametrize("beam_type, message", [(BeamType.CHANNEL, "Invalid channel config"),
                                                (BeamType.BEAM, "SetBeamPattern exception")])
@pytest.mark.parametrize("funcs", ["none", "placeholders"])
def test_missing_or_placeholder_hooks_fail_the_set(tm, files_dir, beam_type, message, funcs):
    manager = tm.BeamPatternTableManager("SN1", 7, 8, (4, 1, 4),
                                         None if funcs == "none" else (tm.fake_check, tm.fake_ic_check))
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


def test_missing_limits_fail_get_and_set_of_an_unset_id(manager):
    manager._updateFreq(28.0, DR, [COMDR[0]], ELEDR)        # no RX common limits
    for ret in (manager.getBeamPattern(RFMode.RX, 2), manager.setBeamPattern(RFMode.RX, 2, BeamType.BEAM, STEER)):
        assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "GetBeamPattern exception")


def test_modes_follow_the_module_rf_mode_when_replaced(manager, restore_module_globals):
    class Link(enum.IntEnum):
        RX = 0          # same values, names swapped: the name picks the table section
        TX = 1

    restore_module_globals.RFMode = Link
    manager.setBeamPattern(Link.RX, 1, BeamType.BEAM, STEER, "via Link", save=False)
    assert manager._BeamTable["TX"] == {}
    assert manager.getBeamPattern(RFMode.TX, 1).RetData is manager._BeamTable["RX"]["1"]   # RFMode.TX == 0
