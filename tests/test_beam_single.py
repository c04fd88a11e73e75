"""Reading and writing one beam: ids, defaults for unset ids, partial changes, the check hooks, saving."""
import copy
import json
import logging

import pytest

from beam_helpers import COMDR, DR, ELEDR, KIT, Hooks, make_manager, saved_table
from conftest import records
from vexcore.QRVPublic import BeamType, RFMode, RetCode
from vexcore.QRVUtils import RetType


@pytest.fixture
def hooks():
    return Hooks()


@pytest.fixture
def manager(tm, files_dir, hooks):
    manager = make_manager(tm, hooks=hooks, num_beam=8)
    assert manager._load(28.0, KIT).RetCode == RetCode.OK
    return manager


def _default(manager, mode):
    beam = {}
    manager._BeamPatternTableManager__generateDefaultBeam(beam, BeamType.CHANNEL, mode)
    return beam


# --------------------------------------------------------------- reading ---

def test_storage_is_the_number_of_beam_ids(tm, files_dir):
    assert make_manager(tm, num_beam=64).getBeamIdStorage().RetData == 64


@pytest.mark.parametrize("call", [
    lambda m: m.getBeamPattern(RFMode.TX, 1),
    lambda m: m.setBeamPattern(RFMode.TX, 1, BeamType.BEAM, {"db": 1, "theta": 0, "phi": 0}),
])
def test_unloaded_table_is_not_ready(tm, files_dir, caplog, call):
    ret = call(make_manager(tm, hooks=Hooks()))
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "BeamTable is not ready")
    assert records(caplog, "BeamTbl") == [("ERROR", "BeamTable is not ready")]


@pytest.mark.parametrize("beam_id", [0, 9, -1, 1000])
def test_ids_outside_storage_are_refused(manager, caplog, beam_id):
    for ret in (manager.getBeamPattern(RFMode.TX, beam_id),
                manager.setBeamPattern(RFMode.TX, beam_id, BeamType.CHANNEL)):
        assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "Invaid beam id: %d" % beam_id)
    assert records(caplog, "BeamTbl").count(("ERROR", "Invaid beam id: %d" % beam_id)) == 2


@pytest.mark.parametrize("mode, beam_id", [(RFMode.TX, 1), (RFMode.RX, 8), (1, 4), (0, 8)])
def test_unset_id_reads_as_a_fresh_default_that_is_not_stored(manager, mode, beam_id):
    first = manager.getBeamPattern(mode, beam_id)
    second = manager.getBeamPattern(mode, beam_id)
    assert first.RetCode == RetCode.OK
    assert first.RetData == _default(manager, RFMode(mode)) and first.RetData is not second.RetData
    assert manager._BeamTable["TX"] == {} and manager._BeamTable["RX"] == {}


def test_defaults_follow_new_limits(manager):
    manager._updateFreq(28.0, DR, [COMDR[0], [-1.0, -2.0, -3.0, -4.0]], ELEDR)
    board = manager.getBeamPattern(RFMode.RX, 2).RetData["channel_config"]["board_3"]
    assert board["common_db"] == -3.0


@pytest.mark.parametrize("mode, beam_id", [(5, 1), ("TX", 1), (RFMode.TX, "1"), (RFMode.TX, None)])
def test_malformed_read_requests_are_reported(manager, caplog, mode, beam_id):
    ret = manager.getBeamPattern(mode, beam_id)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "GetBeamPattern exception")
    (record,) = [r for r in caplog.records if r.levelno >= logging.ERROR]
    assert isinstance(record.exc_info[1], (ValueError, TypeError))


# ------------------------------------------------------ channel beams set ---

def test_partial_config_changes_only_what_it_names(manager, hooks):
    change = {"board_2": {"channel_3": {"sw": 1, "db": -4.0, "deg": 180}}}
    ret = manager.setBeamPattern(RFMode.TX, 3, BeamType.CHANNEL, change, "one channel")
    assert ret.RetCode == RetCode.OK
    expected = _default(manager, RFMode.TX)
    expected["beam_description"] = "one channel"
    expected["channel_config"]["board_2"]["channel_3"] = {"sw": 1, "db": -4.0, "deg": 180}
    assert manager._BeamTable["TX"]["3"] == expected
    assert saved_table(manager)["TX"]["3"] == expected
    gains = [[ELEDR[0][b]] * 4 for b in range(4)]
    gains[1][2] = -4.0
    assert hooks.ic_calls == [(RFMode.TX, b, gains[b], COMDR[0][b]) for b in range(4)]


def test_partial_config_builds_on_the_stored_beam(manager):
    manager.setBeamPattern(RFMode.RX, 2, BeamType.CHANNEL, {"board_1": {"common_db": 1.0}}, "first", save=False)
    manager.setBeamPattern(RFMode.RX, 2, BeamType.CHANNEL, {"board_4": {"channel_1": {"sw": 1, "db": 0, "deg": 5}}})
    stored = manager._BeamTable["RX"]["2"]
    assert stored["beam_description"] == "first"
    assert stored["channel_config"]["board_1"]["common_db"] == 1.0
    assert stored["channel_config"]["board_4"]["channel_1"] == {"sw": 1, "db": 0, "deg": 5}
    assert stored["channel_config"]["board_2"] == _default(manager, RFMode.RX)["channel_config"]["board_2"]


def test_no_config_only_revalidates(manager, hooks, caplog):
    manager.setBeamPattern(RFMode.TX, 1, BeamType.CHANNEL, {"board_1": {"common_db": 2.5}}, save=False)
    stored = copy.deepcopy(manager._BeamTable["TX"]["1"])
    hooks.ic_calls.clear()
    caplog.set_level(logging.DEBUG, logger="BeamTbl")
    assert manager.setBeamPattern(RFMode.TX, 1, BeamType.CHANNEL).RetCode == RetCode.OK
    assert manager._BeamTable["TX"]["1"] == stored
    assert [call[3] for call in hooks.ic_calls] == [2.5] + COMDR[0][1:]
    log = records(caplog, "BeamTbl")
    assert ("DEBUG", "Skip assign channel config, just checking original gains") in log
    assert ("DEBUG", "Checking board_1 gain list: %s with common gain: 2.5" % ([ELEDR[0][0]] * 4)) in log
    assert ("DEBUG", "Checked  board_1 gain list: %s" % ([ELEDR[0][0]] * 4)) in log


def test_unsaved_change_is_in_memory_only(manager):
    before = saved_table(manager)
    assert manager.setBeamPattern(RFMode.TX, 2, BeamType.CHANNEL, None, "draft", save=False).RetCode == RetCode.OK
    assert manager.getBeamPattern(RFMode.TX, 2).RetData["beam_description"] == "draft"
    assert saved_table(manager) == before


def test_refused_board_stops_checking_and_stores_nothing(manager, hooks, caplog):
    hooks.refuse_board = 2
    ret = manager.setBeamPattern(RFMode.TX, 3, BeamType.CHANNEL, {"board_1": {"common_db": 99.0}})
    message = "BeamID_3: Checking channel config failed: Checking board_3 gain list failed"
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, message)
    assert [call[1] for call in hooks.ic_calls] == [0, 1, 2]
    assert manager._BeamTable["TX"] == {}
    log = records(caplog, "BeamTbl")
    assert ("ERROR", "Checking board_3 gain list failed") in log and ("ERROR", message) in log


@pytest.mark.parametrize("config", [
    ["board_1"],                                    # not a mapping
    {"board_9": {"common_db": 1.0}},                # a board the device does not have
    {"board_1": 5},                                 # board values not a mapping
    {"board_1": {"channel_2": {"sw": 1}}},          # a channel without its gain
])
def test_malformed_channel_config_is_reported(manager, caplog, config):
    ret = manager.setBeamPattern(RFMode.TX, 4, BeamType.CHANNEL, config)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "Invalid channel config")
    (record,) = [r for r in caplog.records if r.levelno >= logging.ERROR]
    assert record.getMessage() == "Invalid channel config" and isinstance(record.exc_info[1], Exception)
    assert "4" not in manager._BeamTable["TX"]


# ------------------------------------------------------ steered beams set ---

def test_steered_beam_as_the_hook_accepts_it(manager, hooks):
    ret = manager.setBeamPattern(RFMode.TX, 1, BeamType.BEAM, {"db": 3.5, "theta": 0, "phi": 0}, "BoresightBeam")
    assert ret.RetCode == RetCode.OK
    expected = {"beam_description": "BoresightBeam", "beam_type": 0, "beam_config": {"db": 3.5, "theta": 0, "phi": 0}}
    assert manager._BeamTable["TX"]["1"] == expected and saved_table(manager)["TX"]["1"] == expected
    assert hooks.beam_calls == [(RFMode.TX, 3.5, 0, 0, None)]


def test_corrected_values_are_the_stored_ones(manager, hooks):
    hooks.correct = lambda db, theta, phi: [min(db, 2.0), theta, phi % 360]
    manager.setBeamPattern(1, 6, 0, {"db": 7.5, "theta": -20, "phi": 400}, save=False)
    assert manager._BeamTable["RX"]["6"]["beam_config"] == {"db": 2.0, "theta": -20, "phi": 40}


def test_steered_beam_without_config_checks_the_current_values(manager, hooks):
    manager.setBeamPattern(RFMode.RX, 7, BeamType.BEAM, save=False)
    assert hooks.beam_calls == [(RFMode.RX, DR["RX"], 0, 0, None)]
    manager.setBeamPattern(RFMode.RX, 7, BeamType.BEAM, {"db": 1, "theta": 2, "phi": 3}, save=False)
    hooks.beam_calls.clear()
    manager.setBeamPattern(RFMode.RX, 7, BeamType.BEAM)
    assert hooks.beam_calls == [(RFMode.RX, 1, 2, 3, None)]


def test_refusing_beam_hook_result_is_returned_as_is(manager, hooks):
    hooks.beam_refusal = RetType(RetCode.WARNING, "theta beyond steering range", data=(1, 2))
    ret = manager.setBeamPattern(RFMode.TX, 2, BeamType.BEAM, {"db": 1, "theta": 89, "phi": 0})
    assert ret is hooks.beam_refusal
    assert manager._BeamTable["TX"] == {}


@pytest.mark.parametrize("config, accepted", [
    ({"db": 1, "theta": 2}, None),                    # phi missing
    ([1, 2, 3], None),                                # not a mapping
    ({"db": 1, "theta": 2, "phi": 3}, (1, 2)),        # hook hands back two values
    ({"db": 1, "theta": 2, "phi": 3}, 5),             # hook hands back no sequence
])
def test_malformed_steered_requests_are_reported(manager, hooks, config, accepted):
    if accepted is not None:
        hooks.correct = lambda *values: accepted
    ret = manager.setBeamPattern(RFMode.TX, 2, BeamType.BEAM, config)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "SetBeamPattern exception")
    assert manager._BeamTable["TX"] == {}


# ------------------------------------------------------- changing the kind ---

def test_channel_beam_over_a_steered_beam_starts_from_defaults(manager, caplog):
    manager.setBeamPattern(RFMode.TX, 2, BeamType.BEAM, {"db": 1, "theta": 2, "phi": 3}, "was steered", save=False)
    caplog.set_level(logging.DEBUG, logger="BeamTbl")
    change = {"board_1": {"channel_1": {"sw": 1, "db": 0.0, "deg": 90}}}
    assert manager.setBeamPattern(RFMode.TX, 2, BeamType.CHANNEL, change, save=False).RetCode == RetCode.OK
    expected = _default(manager, RFMode.TX)
    expected["beam_description"] = "was steered"
    expected["channel_config"]["board_1"]["channel_1"] = change["board_1"]["channel_1"]
    assert manager._BeamTable["TX"]["2"] == expected
    assert ("DEBUG", "Skip check beam:2 due to original type is beam_config") in records(caplog, "BeamTbl")


@pytest.mark.parametrize("description, kept", [("now steered", "now steered"), (None, "")])
def test_steered_beam_over_a_channel_beam_is_a_fresh_beam(manager, description, kept):
    manager.setBeamPattern(RFMode.TX, 2, BeamType.CHANNEL, None, "channel one", save=False)
    manager.setBeamPattern(RFMode.TX, 2, BeamType.BEAM, {"db": 1, "theta": 2, "phi": 3}, description, save=False)
    assert manager._BeamTable["TX"]["2"] == {"beam_description": kept, "beam_type": 0,
                                             "beam_config": {"db": 1, "theta": 2, "phi": 3}}


# -------------------------------------------------------- hooks and calls ---

@pytest.mark.parametrize("beam_type, message", [(BeamType.CHANNEL, "Invalid channel config"),
                                                (BeamType.BEAM, "SetBeamPattern exception")])
@pytest.mark.parametrize("funcs", ["none", "placeholders"])
def test_missing_or_placeholder_hooks_fail_the_set(tm, files_dir, beam_type, message, funcs):
    check_funcs = None if funcs == "none" else (tm.fake_check, tm.fake_ic_check)
    manager = tm.BeamPatternTableManager("SN1", 7, 8, (4, 1, 4), check_funcs)
    manager._updateFreq(28.0, DR, COMDR, ELEDR)
    manager._load(28.0, "")
    ret = manager.setBeamPattern(RFMode.TX, 1, beam_type, None)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, message)


@pytest.mark.parametrize("beam_type, mode", [(7, RFMode.TX), (BeamType.BEAM, 9)])
def test_unknown_kinds_and_modes_are_reported(manager, beam_type, mode):
    ret = manager.setBeamPattern(mode, 1, beam_type, None)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "SetBeamPattern exception")


def test_set_goes_through_the_instance_for_read_and_save(manager):
    seen = []
    original_get = manager.getBeamPattern
    manager.getBeamPattern = lambda mode, beam_id: seen.append(("get", mode, beam_id)) or original_get(mode, beam_id)
    manager._saveToBeamTableFile = lambda *a: seen.append(("save",) + a) or RetType(msg="patched")
    ret = manager.setBeamPattern(1, 3, BeamType.BEAM, {"db": 0, "theta": 0, "phi": 0})
    assert ret.RetMsg == "patched"
    assert seen == [("get", RFMode.RX, 3), ("save",)]


def test_set_logs_the_stored_beam(manager, caplog):
    caplog.set_level(logging.INFO, logger="BeamTbl")
    manager.setBeamPattern(RFMode.TX, 1, BeamType.BEAM, {"db": 1, "theta": 2, "phi": 3}, "x", save=False)
    assert records(caplog, "BeamTbl") == [
        ("INFO", "Set/update beam:1 pattern -> %s" % manager._BeamTable["TX"]["1"])]


# ------------------------------------------- unset ids set from a config ---

class Board(dict):
    """A mapping that is not a plain dict."""


def _full_config(extra):
    config = {"board_%d" % b: {"common_db": float(b), **{"channel_%d" % c: {"sw": 1, "db": -1.0, "deg": c}
                                                        for c in range(4, 0, -1)}} for b in range(1, 5)}
    if extra:
        config["board_3"]["note"] = "appended after the channels"
    return config


@pytest.mark.parametrize("config", [
    _full_config(False), _full_config(True),
    {"board_4": {"channel_1": {"sw": 1, "db": 0.0, "deg": 1}}, "board_1": {"common_db": 5.0}},
    {"board_2": Board(channel_1={"sw": 1, "db": 0.5, "deg": 2})},
    Board(board_1={"channel_3": {"sw": 0, "db": 1.0, "deg": 3}}),
], ids=["full", "full_with_extra_key", "partial", "board_not_plain", "config_not_plain"])
def test_unset_id_set_from_a_config_is_the_default_with_the_config_merged(manager, config):
    expected = copy.deepcopy(_default(manager, RFMode.TX))
    for board, values in config.items():
        for key, value in values.items():
            expected["channel_config"][board][key] = value
    expected["beam_description"] = "from config"
    assert manager.setBeamPattern(RFMode.TX, 5, BeamType.CHANNEL, config, "from config", save=False).RetCode == \
        RetCode.OK
    stored = manager._BeamTable["TX"]["5"]
    assert stored == expected
    assert json.dumps(stored) == json.dumps(expected)            # same key order everywhere
    given = config.get("board_1", {}).get("channel_3")
    if given is not None:
        assert stored["channel_config"]["board_1"]["channel_3"] is given


@pytest.mark.parametrize("layout, limits", [((4, 1, 1), (COMDR, ELEDR)), ((4, 1, 4), ([COMDR[0]], ELEDR)),
                                            ((4, 1, 4), (COMDR, [ELEDR[0], [1.0]]))],
                         ids=["one_channel_per_ic", "no_rx_common_limits", "short_rx_element_limits"])
@pytest.mark.parametrize("beam_type, config", [(BeamType.BEAM, {"db": 1, "theta": 0, "phi": 0}),
                                               (BeamType.CHANNEL, {"board_1": {"common_db": 1.0}})])
def test_set_of_an_unset_id_still_needs_the_limits(tm, files_dir, layout, limits, beam_type, config):
    manager = make_manager(tm, hooks=Hooks(), layout=layout, limits=False)
    manager._updateFreq(28.0, DR, *limits)
    manager._load(28.0, "")
    ret = manager.setBeamPattern(RFMode.RX, 2, beam_type, config)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "GetBeamPattern exception")


def test_modes_follow_the_module_rf_mode_when_replaced(manager, restore_module_globals):
    import enum

    class Link(enum.IntEnum):
        RX = 0          # same values, names swapped: the name picks the table section
        TX = 1

    restore_module_globals.RFMode = Link
    manager.setBeamPattern(Link.RX, 1, BeamType.BEAM, {"db": 1, "theta": 2, "phi": 3}, "via Link", save=False)
    assert manager._BeamTable["RX"]["1"]["beam_description"] == "via Link" and manager._BeamTable["TX"] == {}
    assert manager.getBeamPattern(0, 1).RetData is manager._BeamTable["RX"]["1"]
    assert manager.getBeamPattern(RFMode.TX, 1).RetData is manager._BeamTable["RX"]["1"]   # RFMode.TX == 0
