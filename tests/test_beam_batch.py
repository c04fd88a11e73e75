"""Whole-table access: batch export by mode filter, and batch import steered by the set options."""
import copy
import logging

import pytest

from beam_helpers import KIT, Hooks, channel_beam, make_manager, saved_table, steered_beam
from conftest import records
from vexcore.QRVPublic import BeamType, RFMode, RetCode
from vexcore.QRVUtils import RetType


@pytest.fixture
def hooks():
    return Hooks()


@pytest.fixture
def manager(tm, files_dir, hooks):
    """A loaded table holding TX beams 1 (steered) and 2 (channel) and RX beam 1 (channel)."""
    manager = make_manager(tm, hooks=hooks, num_beam=8)
    assert manager._load(28.0, KIT).RetCode == RetCode.OK
    manager.setBeamPattern(RFMode.TX, 1, BeamType.BEAM, {"db": 1, "theta": 2, "phi": 3}, "tx1", save=False)
    manager.setBeamPattern(RFMode.TX, 2, BeamType.CHANNEL, None, "tx2", save=False)
    manager.setBeamPattern(RFMode.RX, 1, BeamType.CHANNEL, None, "rx1")
    hooks.ic_calls.clear()
    hooks.beam_calls.clear()
    return manager


# -------------------------------------------------------------------- get ---

@pytest.mark.parametrize("mode_filter, keys", [
    ("TX", ["TX"]), ("RX", ["RX"]), ("ALL", ["TX", "RX"]), (3, ["TX", "RX"]), (1, ["TX"]), (None, ["TX", "RX"])])
def test_get_returns_the_selected_sections_themselves(tm, manager, mode_filter, keys):
    if mode_filter is None:
        ret = manager._getBatchBeamPattern()
    else:
        chosen = getattr(tm.BTModeFilter, mode_filter) if isinstance(mode_filter, str) else mode_filter
        ret = manager._getBatchBeamPattern(chosen)
    assert ret.RetCode == RetCode.OK and list(ret.RetData) == keys
    assert all(ret.RetData[k] is manager._BeamTable[k] for k in keys)


def test_get_before_loading_is_not_ready(tm, files_dir, caplog):
    ret = make_manager(tm)._getBatchBeamPattern()
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "BeamTable is not ready")
    assert records(caplog, "BeamTbl")[-1] == ("ERROR", "BeamTable is not ready")


def test_get_with_an_unknown_filter_is_reported(manager):
    ret = manager._getBatchBeamPattern("both")
    assert ret.RetCode == RetCode.ERROR_BF_BEAM


@pytest.mark.parametrize("answer", [RetType(data={"TX": {"5": {}}, "RX": {}}), RetType(RetCode.ERROR, "host down")])
def test_get_with_a_callback_reloads_through_the_instance(manager, caplog, answer):
    seen = []
    manager._load = lambda freq, aakit, callback: seen.append((freq, aakit, callback)) or answer
    callback = object()
    caplog.set_level(logging.INFO, logger="BeamTbl")
    ret = manager._getBatchBeamPattern(callback=callback)
    assert seen == [(28.0, KIT, callback)]
    assert ("INFO", "calling _load()") in records(caplog, "BeamTbl")
    if answer.RetCode == RetCode.OK:
        assert manager._BeamTable is answer.RetData and ret.RetData == answer.RetData
    else:
        assert ret is answer


# -------------------------------------------------------------- validate ---

@pytest.mark.parametrize("option", ["VALIDATE", "UI_IMPORT", "UI_EXPORT", 1])
def test_validation_alone_changes_nothing(tm, manager, hooks, option):
    option = getattr(tm.BTSetOption, option, option) if isinstance(option, str) else option
    table, file = copy.deepcopy(manager._BeamTable), saved_table(manager)
    batch = {"TX": {"1": steered_beam(), "3": channel_beam()}, "RX": {"2": channel_beam(db=0.5)}}
    ret = manager._setBatchBeamPattern(batch, option)
    assert ret.RetCode == RetCode.OK
    assert manager._BeamTable == table and saved_table(manager) == file
    assert hooks.beam_calls == [(RFMode.TX, 2.0, 15, 30, None)]
    assert [(c[0], c[1]) for c in hooks.ic_calls] == [(RFMode.TX, b) for b in range(4)] + \
        [(RFMode.RX, b) for b in range(4)]
    assert ret.RetData is (batch if option in (tm.BTSetOption.UI_EXPORT,) else None)


def test_validation_reports_the_first_refused_board(tm, manager, hooks, caplog):
    hooks.refuse_board = 1
    ret = manager._setBatchBeamPattern({"RX": {"2": channel_beam()}, "TX": {"1": channel_beam()}},
                                       tm.BTSetOption.VALIDATE)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "Checking board_2 gain list failed")
    assert [(c[0], c[1]) for c in hooks.ic_calls] == [(RFMode.RX, 0), (RFMode.RX, 1)]


def test_validation_returns_the_beam_hook_refusal(tm, manager, hooks):
    hooks.beam_refusal = RetType(RetCode.WARNING, "out of range")
    ret = manager._setBatchBeamPattern({"TX": {"4": steered_beam()}}, tm.BTSetOption.VALIDATE)
    assert ret is hooks.beam_refusal


# ------------------------------------------------------------------ save ---

def test_upsert_adds_and_keeps_the_rest(tm, manager):
    tx1 = copy.deepcopy(manager._BeamTable["TX"]["1"])
    batch = {"TX": {"2": channel_beam(description="new tx2"), "5": steered_beam()}}
    ret = manager._setBatchBeamPattern(batch, tm.BTSetOption.UI_SAVE_UPSERT)
    assert ret.RetCode == RetCode.OK and ret.RetData is manager._BeamTable
    assert list(manager._BeamTable["TX"]) == ["1", "2", "5"]
    assert manager._BeamTable["TX"]["1"] == tx1
    assert manager._BeamTable["TX"]["2"] == channel_beam(description="new tx2")
    assert manager._BeamTable["TX"]["5"] == steered_beam()
    assert "1" in manager._BeamTable["RX"]
    assert saved_table(manager) == manager._BeamTable


@pytest.mark.parametrize("option", ["UI_SAVE_REPLACE", 13, 12])
def test_replace_all_drops_beams_absent_from_the_batch(tm, manager, option):
    option = getattr(tm.BTSetOption, option) if isinstance(option, str) else option
    rx = manager._BeamTable["RX"]
    old_tx = manager._BeamTable["TX"]
    ret = manager._setBatchBeamPattern({"TX": {"7": steered_beam()}}, option)
    assert ret.RetCode == RetCode.OK
    assert manager._BeamTable["TX"] == {"7": steered_beam()}
    assert manager._BeamTable["RX"] is rx and "1" in rx           # modes absent from the batch stay
    assert list(old_tx) == ["1", "2"]                              # the old section object is left whole
    assert saved_table(manager) == manager._BeamTable


def test_exported_table_imports_back_unchanged(tm, manager):
    before = copy.deepcopy(manager._BeamTable)
    exported = manager._getBatchBeamPattern().RetData
    ret = manager._setBatchBeamPattern(exported, tm.BTSetOption.UI_SAVE_REPLACE)
    assert ret.RetCode == RetCode.OK
    assert manager._BeamTable == before and saved_table(manager) == before


def test_get_with_save_returns_the_batch(tm, manager):
    batch = {"RX": {"3": steered_beam()}}
    ret = manager._setBatchBeamPattern(batch, tm.BTSetOption.SAVE | tm.BTSetOption.GET)
    assert ret.RetCode == RetCode.OK and ret.RetData is batch
    assert manager._BeamTable["RX"]["3"] == steered_beam()


def test_unknown_modes_are_skipped_and_ids_become_integers(tm, manager):
    calls = []
    manager.setBeamPattern = lambda *a, **k: calls.append((a, k)) or RetType()
    batch = {"Tx": {"1": steered_beam()}, "SN": "x", "RX": {"04": steered_beam(), "6": channel_beam()}}
    ret = manager._setBatchBeamPattern(batch, tm.BTSetOption.SAVE)
    assert ret.RetCode == RetCode.OK
    assert calls == [
        ((RFMode.RX, 4, 0, batch["RX"]["04"]["beam_config"], "steered"), {"save": False}),
        ((RFMode.RX, 6, 1, batch["RX"]["6"]["channel_config"], "custom"), {"save": False}),
    ]
    assert all(type(a[1]) is int for a, _ in calls)


def test_refused_beam_stops_the_batch_unsaved(tm, manager, hooks):
    file = saved_table(manager)
    hooks.refuse_board = 0
    batch = {"TX": {"3": steered_beam(), "4": channel_beam(), "5": steered_beam()}}
    ret = manager._setBatchBeamPattern(batch, tm.BTSetOption.UI_SAVE_UPSERT)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM,
                                         "BeamID_4: Checking channel config failed: Checking board_1 gain list failed")
    assert "3" in manager._BeamTable["TX"] and "5" not in manager._BeamTable["TX"]
    assert saved_table(manager) == file


def test_save_failure_is_returned(tm, manager):
    failure = RetType(RetCode.ERROR_BF_BEAM_FILE, "BeamFile saving exception")
    manager._saveToBeamTableFile = lambda *a, **k: failure
    assert manager._setBatchBeamPattern({"TX": {}}, tm.BTSetOption.SAVE) is failure


def test_web_mode_save_hands_the_whole_table_to_the_callback(tm, manager):
    calls = []
    file = saved_table(manager)
    ret = manager._setBatchBeamPattern({"TX": {"8": steered_beam()}}, tm.BTSetOption.SAVE,
                                       lambda **kw: calls.append(kw) or RetType())
    assert ret.RetCode == RetCode.OK
    assert calls == [{"func_name": "saveToBeamTableFile", "new_table": manager._BeamTable}]
    assert calls[0]["new_table"] is manager._BeamTable
    assert saved_table(manager) == file


@pytest.mark.parametrize("batch, option", [
    ([("TX", {})], 4),                                         # not a mapping
    ({"TX": {"1": {"beam_type": 0}}}, 4),                      # beam without its configuration
    ({"TX": {"x1": steered_beam()}}, 4),                       # id that is not a number
    ({"TX": {"1": {"beam_type": 1, "beam_config": {}}}}, 1),   # channel beam without channels
    ({"TX": {}}, "SAVE"),                                      # option that is not a flag value
])
def test_malformed_batches_are_reported(manager, caplog, batch, option):
    ret = manager._setBatchBeamPattern(batch, option)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "SetBatchBeamPattern exception")
    (record,) = [r for r in caplog.records if r.levelno >= logging.ERROR]
    assert record.getMessage() == "SetBatchBeamPattern exception"


def test_save_before_loading_is_not_ready(tm, files_dir):
    ret = make_manager(tm, hooks=Hooks())._setBatchBeamPattern({"TX": {}}, tm.BTSetOption.UI_SAVE_REPLACE)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "BeamTable is not ready")
