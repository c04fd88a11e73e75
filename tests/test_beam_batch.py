"""Whole-table access: batch export by mode filter, and batch import steered by the set options."""
import logging

import pytest
from beam_helpers import KIT, Hooks, channel_beam, hooks, make_manager, manager, saved_table, steered_beam  # noqa: F401
from conftest import records

from vexcore.QRVPublic import BeamType, RetCode, RFMode
from vexcore.QRVUtils import RetType


@pytest.fixture
def stocked(manager, hooks):
    """The loaded table holding TX beams 1 (steered) and 2 (channel) and RX beam 1 (channel), saved."""
    manager.setBeamPattern(RFMode.TX, 1, BeamType.BEAM, {"db": 1, "theta": 2, "phi": 3}, "tx1", save=False)
    manager.setBeamPattern(RFMode.TX, 2, BeamType.CHANNEL, None, "tx2", save=False)
    manager.setBeamPattern(RFMode.RX, 1, BeamType.CHANNEL, None, "rx1")
    hooks.ic_calls.clear()
    return manager


# -------------------------------------------------------------------- get ---

def test_batches_before_loading_are_not_ready(tm, files_dir, caplog):
    manager = make_manager(tm, hooks=Hooks())
    for ret in (manager._getBatchBeamPattern(), manager._setBatchBeamPattern({"TX": {}}, tm.BTSetOption.UI_SAVE_REPLACE)):
        assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "BeamTable is not ready")
    assert records(caplog, "BeamTbl") == [("ERROR", "BeamTable is not ready")] * 2


def test_get_returns_the_sections_themselves_and_with_a_callback_reloads_through_the_instance(tm, stocked, caplog):
    # Which sections each filter selects: the differential operation tests.
    ret = stocked._getBatchBeamPattern(tm.BTModeFilter.RX)
    assert list(ret.RetData) == ["RX"] and ret.RetData["RX"] is stocked._BeamTable["RX"]
    seen, answer = [], RetType(RetCode.ERROR, "host down")
    stocked._load = lambda freq, aakit, callback: seen.append((freq, aakit, callback)) or answer
    caplog.set_level(logging.INFO, logger="BeamTbl")
    assert stocked._getBatchBeamPattern(callback=print) is answer and seen == [(28.0, KIT, print)]
    assert ("INFO", "calling _load()") in records(caplog, "BeamTbl")


# -------------------------------------------------------------- validate ---

def test_validation_reports_the_first_refusal(tm, stocked, hooks):
    hooks.refuse_board = 1
    ret = stocked._setBatchBeamPattern({"RX": {"2": channel_beam()}, "TX": {"1": channel_beam()}},
                                       tm.BTSetOption.VALIDATE)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "Checking board_2 gain list failed")
    assert [c[:2] for c in hooks.ic_calls] == [(RFMode.RX, 0), (RFMode.RX, 1)]
    hooks.beam_refusal = RetType(RetCode.WARNING, "out of range")
    assert stocked._setBatchBeamPattern({"TX": {"4": steered_beam()}}, 1) is hooks.beam_refusal


# ------------------------------------------------------------------ save ---

@pytest.mark.parametrize("option, tx_keys", [("UI_SAVE_UPSERT", ["1", "2", "7"]), ("UI_SAVE_REPLACE", ["7"])])
def test_upsert_keeps_and_replace_all_drops_beams_absent_from_the_batch(tm, stocked, option, tx_keys):
    rx, old_tx = stocked._BeamTable["RX"], stocked._BeamTable["TX"]
    batch = {"TX": {"7": steered_beam()}}
    ret = stocked._setBatchBeamPattern(batch, getattr(tm.BTSetOption, option))
    assert ret.RetCode == RetCode.OK and ret.RetData is stocked._BeamTable
    assert list(stocked._BeamTable["TX"]) == tx_keys and stocked._BeamTable["TX"]["7"] == steered_beam()
    assert stocked._BeamTable["RX"] is rx and "1" in rx           # modes absent from the batch stay
    assert list(old_tx) == (tx_keys if len(tx_keys) > 1 else ["1", "2"])     # a replaced section is left whole
    assert saved_table(stocked) == stocked._BeamTable


def test_beams_set_and_save_through_the_instance_skipping_unknown_modes_with_ids_as_integers(tm, stocked):
    calls = []
    stocked.setBeamPattern = lambda *a, **k: calls.append((a, k)) or RetType()
    failure = RetType(RetCode.ERROR_BF_BEAM_FILE, "BeamFile saving exception")
    stocked._saveToBeamTableFile = lambda *a, **k: failure
    batch = {"Tx": {"1": steered_beam()}, "SN": "x", "RX": {"04": steered_beam(), "6": channel_beam()}}
    assert stocked._setBatchBeamPattern(batch, tm.BTSetOption.SAVE) is failure
    assert calls == [((RFMode.RX, 4, 0, batch["RX"]["04"]["beam_config"], "steered"), {"save": False}),
                     ((RFMode.RX, 6, 1, batch["RX"]["6"]["channel_config"], "custom"), {"save": False})]
    assert all(type(a[1]) is int for a, _ in calls)


@pytest.mark.parametrize("batch, option", [
    ([("TX", {})], 4),                                         # not a mapping
    ({"TX": {}}, "SAVE"),                                      # option that is not a flag value
])
def test_malformed_batches_are_reported(stocked, caplog, batch, option):
    ret = stocked._setBatchBeamPattern(batch, option)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM, "SetBatchBeamPattern exception")
    (record,) = [r for r in caplog.records if r.levelno >= logging.ERROR]
    assert record.getMessage() == "SetBatchBeamPattern exception"
