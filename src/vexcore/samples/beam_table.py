"""The bundled sample beam table, written by the beam manager itself.

``python -m vexcore.samples.beam_table [FILES_DIR]`` loads the sample calibration
table and kit of FILES_DIR (default: the bundled samples), creates the device's beam
table through BeamPatternTableManager and sets three beams:

- TX 1: a steered beam, 30 degrees to the right;
- TX 2: a channel beam pointing 20 degrees to the left by per-channel phases, with
  stronger inner columns and the last channel switched off;
- RX 1: a steered beam 15 degrees up.

The beams are checked against the calibration limits and the kit's steering range
as they are set, so the sample is a valid table.
"""

import os
import sys

import vexcore.qrvdev.QRVTableManager as tm
from vexcore.QRVPublic import BeamType, RetCode, RFMode
from vexcore.samples import CALIBRATION_FILE, HERE, KIT_FILE
from vexcore.tables import beam, calibration, kit, pattern
from vexcore.tables.sandbox import collected_logs

SN, FREQ, DEV_TYPE, NUM_BEAM = "K5350R019-28", 28.0, 9, 16
CHANNEL_BEAM_ANGLE = -20.0


def channel_beam(layout, spacing, freq):
    """Per-board configuration of the TX 2 beam."""
    boards, chips, channels = layout
    count = boards * chips * channels
    points = pattern.positions(count, spacing, pattern.grid_shape(count))
    phases = pattern.steering_phases(points, freq, CHANNEL_BEAM_ANGLE, 0.0)
    cols = pattern.grid_shape(count)[1]
    config = {}
    for i, phase in enumerate(phases):
        board = config.setdefault("board_%d" % (i // channels + 1), {"common_db": 2.0})
        inner = 0 < i % cols < cols - 1
        board["channel_%d" % (i % channels + 1)] = {
            "sw": 1 if i == count - 1 else 0,
            "db": 5.0 if inner else 3.0,
            "deg": round(phase) % 360,
        }
    return config


def write(files_dir):
    """Writes the sample beam table into files_dir/BeamTable; returns its path."""
    saved = os.environ.get("VEXCORE_FILES_DIR")
    os.environ["VEXCORE_FILES_DIR"] = files_dir
    try:
        with collected_logs():
            return _write(files_dir)
    finally:
        if saved is None:
            os.environ.pop("VEXCORE_FILES_DIR")
        else:
            os.environ["VEXCORE_FILES_DIR"] = saved


def _write(files_dir):
    cali = calibration.load(os.path.join(files_dir, CALIBRATION_FILE))
    kit_table = kit.load(os.path.join(files_dir, KIT_FILE))
    if not (cali.valid and kit_table.valid):
        raise RuntimeError("the sample calibration table or kit is not valid")
    checks = beam.LimitChecks(cali, kit_table.record)
    manager = tm.BeamPatternTableManager(SN, DEV_TYPE, NUM_BEAM, cali.layout, checks.funcs)
    manager._updateFreq(FREQ, cali.dr, cali.comdr, cali.eledr)
    manager._updateAAKit(kit_table.name)
    path = os.path.join(files_dir, "BeamTable", beam.kinds.beam_file_name(SN, FREQ, kit_table.name))
    if os.path.exists(path):
        os.remove(path)
    _ok(manager._load(FREQ, kit_table.name), "load")
    spacing = kit_table.record["SPACING"]
    _ok(
        manager.setBeamPattern(RFMode.TX, 1, BeamType.BEAM, {"db": 3.0, "theta": 30, "phi": 0}, "Steered 30 deg right"),
        "TX 1",
    )
    _ok(
        manager.setBeamPattern(
            RFMode.TX,
            2,
            BeamType.CHANNEL,
            channel_beam(cali.layout, spacing, FREQ),
            "Channel beam 20 deg left, last channel off",
        ),
        "TX 2",
    )
    _ok(
        manager.setBeamPattern(RFMode.RX, 1, BeamType.BEAM, {"db": 0.0, "theta": 0, "phi": 15}, "Receive 15 deg up"),
        "RX 1",
    )
    return path


def _ok(ret, step):
    if ret.RetCode != RetCode.OK:
        raise RuntimeError("%s: %s %s" % (step, ret.RetCode.name, ret.RetMsg))


if __name__ == "__main__":
    print(write(sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "files")))
