"""Web mode: no table files are read or written by the managers. Calibration data come
from the table database through its query service; kits and beam tables go through
callbacks that keep them in the same database. Run it in a folder prepared by
`python -m vexcore.samples .` (the database is files/vexcore_tables.db, or $VEXCORE_DB)."""

import vexcore.qrvdev.QRVTableManager as tm
from vexcore.db.upload import import_calibration_files
from vexcore.db.web_tables import AAKitStore, BeamTableStore
from vexcore.QRVPublic import BeamType, RetCode, RFMode
from vexcore.tables.beam import LimitChecks

SN, FREQ, DEV_TYPE, CLIENT = "K5350R019-28", 28.0, 9, "lab-station-1"

# A lab uploads each device's calibration file once; stations then read it from the database.
print("imported:", import_calibration_files(["files/K5350R019-28_28GHz.csv"]))
cali = tm.CalibrationTableManager(SN, FREQ, tm.fake_rf_layout, web_client_id=CLIENT)
print("frequencies:", cali.getFrequencyList().RetData)
assert cali.parse().RetCode == RetCode.OK
dr, comdr, eledr = cali.getDR().RetData, cali.getCOMDR().RetData, cali.getELEDR().RetData

# Kits: made on one station, stored through the callback, listed by any station.
kit_store = AAKitStore()
kits = tm.AAKitTableManager(DEV_TYPE, 16, support_dev=[DEV_TYPE], web_client_id=CLIENT)
kits.getAAKitList(callback=kit_store.list_kits)
kit = kits.setAAKitInfo("LabKit", [5.0, 5.0], [-45.0, 45.0], [-30.0, 30.0], [0] * 16, [0] * 16).RetData
assert kits.saveAAKitFile(kit, callback=kit_store.store).RetCode == RetCode.OK
print("kits in the database:", kits.getAAKitList(force_refresh=True, callback=kit_store.list_kits).RetData)
kits._selectAAKit(kit)

# Beams: the table is taken in through a batch read with the callback, changed, saved through it.
hooks = LimitChecks.from_limits(dr, comdr, eledr, kits.getAAKitInfo(kit).RetData)


def beam_manager():
    beams = tm.BeamPatternTableManager(SN, DEV_TYPE, 16, tm.fake_rf_layout, hooks.funcs, web_client_id=CLIENT)
    beams._updateFreq(FREQ, dr, comdr, eledr)
    beams._updateAAKit(kit)
    return beams


beams, store = beam_manager(), BeamTableStore(SN)  # one store per device: the manager does not pass the SN
beams._getBatchBeamPattern(tm.BTModeFilter.ALL, store)
ret = beams.setBeamPattern(RFMode.RX, 1, BeamType.BEAM, {"db": 1.0, "theta": 0, "phi": 25}, save=False)
assert ret.RetCode == RetCode.OK, ret.RetMsg
print("saved:", beams._saveToBeamTableFile(store).RetCode.name)
other_station = beam_manager()
print("RX 1 read back:", other_station._getBatchBeamPattern(tm.BTModeFilter.RX, BeamTableStore(SN)).RetData)
