"""The beam manager used the way a device driver uses the managers, from calibration file to saved beams."""
import copy
import json

from aakit_samples import write_kit
from beam_helpers import KIT, SN, Hooks, read_json
from calibration_sample import make_sample

from vexcore.QRVPublic import BeamType, RetCode, RFMode


def _ok(ret):
    assert ret.RetCode == RetCode.OK, (ret.RetCode, ret.RetMsg)
    return ret.RetData


def test_driver_sequence_from_calibration_to_reloaded_beams(tm, files_dir):
    # The driver parses the calibration table of the frequency and reads its gain limits.
    make_sample().write(files_dir)
    cali = tm.CalibrationTableManager(SN, 28, tm.fake_rf_layout)
    _ok(cali.parse())
    dr, comdr, eledr = _ok(cali.getDR()), _ok(cali.getCOMDR()), _ok(cali.getELEDR())

    # It selects the device's antenna kit.
    write_kit(files_dir, KIT, dev_type=9, tx=range(16), rx=range(16))
    kits = tm.AAKitTableManager(9, 16, support_dev=[9])
    assert KIT in _ok(kits.getAAKitList())
    _ok(kits._selectAAKit(KIT))

    # It hands the limits and the kit name to the beam manager and loads the beam table.
    hooks = Hooks()
    beams = tm.BeamPatternTableManager(SN, 9, 16, tm.fake_rf_layout, hooks.funcs)
    beams._updateFreq(28.0, dr, comdr, eledr)
    beams._updateAAKit(KIT)
    table = _ok(beams._load(28.0, KIT))
    path = files_dir / "BeamTable" / ("Beam_Configuration_%s_28GHz_%s.json" % (SN, KIT))
    assert read_json(path) == table

    # An unset beam reads as the default of the calibration limits, shared as they are.
    board = _ok(beams.getBeamPattern(RFMode.RX, 16))["channel_config"]["board_4"]
    assert board["common_db"] is comdr[RFMode.RX][3] and board["channel_4"]["db"] is eledr[RFMode.RX][3]

    # Beams of both kinds are set; the file follows each saving call.
    _ok(beams.setBeamPattern(RFMode.TX, 1, BeamType.BEAM, {"db": 3.5, "theta": 10, "phi": -20}, "Boresight"))
    _ok(beams.setBeamPattern(RFMode.RX, 2, BeamType.CHANNEL, {"board_3": {"channel_2": {"sw": 1, "db": 1.5,
                                                                                          "deg": 90}}}))
    assert read_json(path) == json.loads(json.dumps(beams._BeamTable))

    # The user interface exports the set, moves a beam and writes the set back whole.
    batch = copy.deepcopy(_ok(beams._getBatchBeamPattern()))
    batch["TX"]["5"] = batch["TX"].pop("1")
    batch["TX"]["5"]["beam_description"] = "Moved"
    saved = _ok(beams._setBatchBeamPattern(batch, tm.BTSetOption.UI_SAVE_REPLACE))
    assert saved is beams._BeamTable and list(saved["TX"]) == ["5"] and list(saved["RX"]) == ["2"]

    # A new manager (the device reopened) reads back exactly what was saved.
    reopened = tm.BeamPatternTableManager(SN, 9, 16, tm.fake_rf_layout, Hooks().funcs)
    reopened._updateFreq(28.0, dr, comdr, eledr)
    assert _ok(reopened._load(28.0, KIT)) == json.loads(json.dumps(beams._BeamTable))
