"""Demonstration: drives the table managers the way a device driver does.

Run it in a folder holding "logging.conf" and a files directory with the device's
tables (``python -m vexcore.samples DIR`` prepares one from the bundled samples):

    cd DIR && python -m vexcore.qrvdev.QRVTableManager

The calibration manager runs in web mode, so the table database must hold the
device's calibration table; a failed step ends the process at once with status -1.
"""

import logging.config
import os
import sys

import vexcore.qrvdev.QRVTableManager as tm
from vexcore.QRVPublic import RetCode, RFMode

SN = "K5350R019-28"
FREQ = 28
KIT = "AAKIT_QRVLAB-4x4_PRIME_28_IDEAL"
DEV_TYPE = 9  # the 16-channel device the sample kit is made for

logger = None


def fail(step, ret=None):
    detail = "" if ret is None else ": %s %s" % (ret.RetCode.name, ret.RetMsg)
    print("Demonstration stopped at %s%s" % (step, detail), flush=True)
    logging.shutdown()
    os._exit(-1)


def checked(step, ret):
    if ret.RetCode != RetCode.OK:
        fail(step, ret)
    return ret.RetData


def show(title, value):
    print("%s %s" % (title, value))


def calibration_steps():
    cali = tm.CalibrationTableManager(SN, FREQ, tm.fake_rf_layout, web_client_id="111")
    freqs = cali.getFrequencyList()
    if freqs.RetCode != RetCode.OK:
        fail("getFrequencyList", freqs)
    show("Frequencies (GHz):", freqs.RetData)
    checked("parse", cali.parse())
    show("Offsets TX chip 1, boards 1-4:", cali._getBoardsOffset(range(1, 5), rf_mode_str=RFMode.TX.name, chip=1))
    dr = checked("getDR", cali.getDR())
    show("DR:", dr)
    show("COMDR:", checked("getCOMDR", cali.getCOMDR()))
    show("ELEDR:", checked("getELEDR", cali.getELEDR()))
    low, high = -4.0, -1.0  # a common-arm gain request in dB
    steps = []
    for board in (1, 2):
        steps += cali._searchComStepDR(board, RFMode.TX.name, low, high, None)
    print("Board-1:\n  common-arm steps covering [%g, %g] dB (boards 1 and 2): %s" % (low, high, steps))
    data = cali._getComData(RFMode.TX.name, 2, 1, [1, 2, 3, 4], [-4.0] * 4, ["45"] * 4, steps)
    print("Board-2:\n  common-arm data of chip 1 at -4 dB, 45 deg:")
    for step, values in data.items():
        print("    %s: %s" % (step, values))
    return dr


def kit_steps():
    num_board, num_ic_per_board, num_channel_per_ic = tm.fake_rf_layout()
    kits = tm.AAKitTableManager(DEV_TYPE, num_board * num_ic_per_board * num_channel_per_ic, support_dev=[DEV_TYPE])
    names = checked("getAAKitList", kits.getAAKitList())
    show("Antenna kits:", names)
    if KIT not in names:
        fail("looking for the kit %s" % KIT)
    ret = kits._selectAAKit(KIT)
    logger.info("Select AAKit: " + KIT + ", return " + str(ret))
    info = checked("getAAKitInfo", kits.getAAKitInfo())
    for field, value in info.items():
        print("  %-10s %s" % (field, value))


def ic_mode_steps(dr):
    from vexcore.qrvdev.DevOrba import _ICMode

    modes = [_ICMode.TX, _ICMode.RX]
    sample = {"DR": {mode.name: dr[mode.name] for mode in modes}}
    show("IC modes %s with" % [mode.name for mode in modes], sample)


def main():
    global logger
    if not os.path.isfile("logging.conf"):
        print(
            "No logging.conf here: run the demonstration in a folder prepared with 'python -m vexcore.samples DIR'.",
            file=sys.stderr,
        )
        return 2
    logging.config.fileConfig("logging.conf")
    logger = logging.getLogger("UT")
    dr = calibration_steps()
    kit_steps()
    ic_mode_steps(dr)
    print("Demonstration done.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
