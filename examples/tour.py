"""A device driver's first steps; run it in a folder prepared by `python -m vexcore.samples .`."""

import vexcore.qrvdev.QRVTableManager as tm
from vexcore.QRVPublic import BeamType, RetCode, RFMode
from vexcore.tables.beam import LimitChecks

SN, FREQ, DEV_TYPE, KIT = "K5350R019-28", 28.0, 9, "AAKIT_QRVLAB-4x4_PRIME_28_IDEAL"
cali = tm.CalibrationTableManager(SN, FREQ, tm.fake_rf_layout)  # 4 boards x 1 IC x 4 channels
assert cali.parse().RetCode == RetCode.OK  # files/K5350R019-28_28GHz.csv
dr, comdr, eledr = cali.getDR().RetData, cali.getCOMDR().RetData, cali.getELEDR().RetData
kits = tm.AAKitTableManager(DEV_TYPE, 16, support_dev=[DEV_TYPE])
print("kits:", kits.getAAKitList().RetData, kits._selectAAKit(KIT).RetCode)
hooks = LimitChecks.from_limits(dr, comdr, eledr, kits.getAAKitInfo().RetData)  # DR, COMDR, ELEDR, steering
beams = tm.BeamPatternTableManager(SN, DEV_TYPE, 16, tm.fake_rf_layout, hooks.funcs)
beams._updateFreq(FREQ, dr, comdr, eledr)
beams._updateAAKit(KIT)
assert beams._load(FREQ, KIT).RetCode == RetCode.OK  # files/BeamTable/Beam_Configuration_..._IDEAL.json
ret = beams.setBeamPattern(RFMode.TX, 3, BeamType.BEAM, {"db": 2.0, "theta": 20, "phi": 0}, "20 deg right")
print("set TX 3:", ret.RetCode.name, beams.getBeamPattern(RFMode.TX, 3).RetData)  # validated and saved
ret = beams.setBeamPattern(RFMode.TX, 4, BeamType.BEAM, {"db": 2.0, "theta": 80, "phi": 0})
print("set TX 4:", ret.RetCode.name, ret.RetMsg)  # refused: outside the kit's steering range
