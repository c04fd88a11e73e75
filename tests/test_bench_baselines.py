"""The pure-Python peers behave as the managers must, so the benchmark compares equal work
(and the peers can serve as a reference for the module's behaviour)."""
import json
import logging
import sys
from pathlib import Path

import pytest

from vexcore.QRVPublic import BeamType, RetCode, RFMode
from vexcore.QRVUtils import RetType

from conftest import records

BENCH = Path(__file__).resolve().parent.parent / "bench"
sys.path.insert(0, str(BENCH))

import gen_data  # noqa: E402
from baseline.aakit import AAKitTableManager  # noqa: E402
from baseline.beam import BeamPatternTableManager, BTSetOption  # noqa: E402
from baseline.calibration import CalibrationTableManager  # noqa: E402

SN = "K5350R019-28"
LAYOUT = (4, 1, 4)


def write(path, text):
    path.write_text(text, encoding="utf-8")
    return path


# ----------------------------------------------------------- calibration ---

HEADER = "VER,2.1.0\nREALVER,2.1.0-7\nSN,%s\nFCENTER,28.0\nDR,-10,-5,-12,-6\n" % SN
OFFSETS = "OFFSET_TX," + ",".join(str(i) for i in range(16)) + "\n"
BOARDS = "".join("COMDR,%s,x,%d,x,-9.5,-2.0\nELEDR,%s,x,%d,x,7.0\nTC,x,%d,x,8,3,2,11\nCOMSTEPDR,x,x,%d,1,-3,-2\n"
                 % (m, b, m, b, b, b) for m in ("TX", "RX") for b in range(1, 5))


def cali(files_dir, body, freq=28):
    write(files_dir / ("%s_28.0GHz.csv" % SN), body)
    return CalibrationTableManager(SN, freq, lambda: LAYOUT)


def test_file_search_lists_every_frequency_and_matches_whole_numbers(files_dir):
    for freq in ("27.5", "28", "26.0"):
        write(files_dir / ("%s_%sGHz.csv" % (SN, freq)), "")
    manager = CalibrationTableManager(SN, 28.0, lambda: LAYOUT)
    assert manager._searchCaliFile() == str(files_dir / ("%s_28GHz.csv" % SN))
    assert manager._freq_list == [26.0, 27.5, 28.0]


@pytest.mark.parametrize("body, code, message", [
    (HEADER + OFFSETS + BOARDS, RetCode.ERROR_BF_CALI_PARSE, "cali file is broken"),
    (HEADER.replace(SN, "OTHER") + BOARDS + "END\n", RetCode.ERROR_BF_CALI_INCOMPLTE, "Wrong SN!"),
    (HEADER.replace("2.1.0\n", "10.0.0\n", 1) + BOARDS + "END\n", RetCode.ERROR_BF_CALI_INCOMPLTE,
     "Version of Cali table is too low, please upgrade it."),
    (HEADER + "OFFSET_TX,1,x\nEND\n", RetCode.ERROR_BF_CALI_PARSE, "parse exception"),
    (HEADER + OFFSETS + BOARDS + "END\nOFFSET_TX,not,a,number\n", RetCode.OK, ""),
])
def test_parse_results(files_dir, body, code, message):
    ret = cali(files_dir, body).parse()
    assert (ret.RetCode, ret.RetMsg) == (code, message)


def test_parse_builds_the_nested_table_and_queries_read_it(files_dir, caplog):
    body = HEADER.replace("DR,", "D\0R,") + "\n" + OFFSETS + BOARDS + OFFSETS.replace("15\n", "99\n") + "END\n"
    manager = cali(files_dir, body)
    assert manager.parse().RetCode == RetCode.OK
    table = manager._CaliTable
    assert table["DR"] == {"TX": [-10.0, -5.0], "RX": [-12.0, -6.0]}
    assert table["BOARD_4"]["TX"]["OFFSET_CHIP_1"] == {"CHANNEL_1": 12, "CHANNEL_2": 13, "CHANNEL_3": 14,
                                                        "CHANNEL_4": 99}
    assert table["BOARD_2"]["RX"]["COMDR"] == [-9.5, -2.0] and table["BOARD_2"]["TX"]["TC"] == ["8", "3"]
    assert manager.getDR(RFMode.TX).RetData == [-10.0, -5.0]
    assert manager._getTC()[0] == [8, 3, 2, 11]
    with caplog.at_level(logging.DEBUG, logger="CaliTbl"):
        first, second = manager.getCOMDR().RetData, manager.getCOMDR().RetData
    assert first is second and first[1][3] == [-9.5, -2.0]
    assert ("DEBUG", "Fetch COMDR from cache") in records(caplog, "CaliTbl")


def test_generated_calibration_file_parses_with_its_data_rows(tmp_path, monkeypatch):
    manifest = gen_data.generate(tmp_path, "small")
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(tmp_path))
    manager = CalibrationTableManager(SN, manifest["freq"], lambda: tuple(manifest["layout"]))
    assert manager.parse().RetCode == RetCode.OK
    arms = manager._CaliTable["BOARD_4"]["DATA_CHIP_1"]
    size = manifest["size"]
    assert list(arms)[-1] == "COM_%d" % size["arms"]
    assert len(arms["COM_1"]) == 2 * size["gain_steps"] * size["phase_steps"]
    assert list(arms["COM_1"])[:2] == ["TX_-%d_0" % size["gain_steps"], "TX_-%d_90" % size["gain_steps"]]
    assert all(len(registers) == size["channels"] for registers in arms["COM_2"].values())
    assert manager._freq_list == sorted([manifest["freq"]] + list(gen_data.OTHER_FREQS))


# ------------------------------------------------------------------ kits ---

KIT = "AAKIT_NAME,{name}\nDEV_TYPE,{dev}\nTYPE,{type}\nSPACING,5,5.0\nSTEERING_H,-45,45\n{extra}OFFSET_TX,{tx}\nOFFSET_RX,{tx}\n"


def kit_file(files_dir, file_name, name="Kit", dev=9, type=0, extra="", channels=16):
    text = KIT.format(name=name, dev=dev, type=type, extra=extra, tx=",".join(["1"] * channels))
    return write(files_dir / ("AAKIT_%s.csv" % file_name), text)


def kits():
    return AAKitTableManager(9, 16, support_dev=[9])


def test_kit_rows_follow_the_substring_rule(files_dir):
    kit_file(files_dir, "A", extra=",7,8\nSTEER,1,2\n")
    manager = kits()
    assert manager.parse().RetCode == RetCode.OK
    assert manager._AAKitTable["Kit"] == {"DEV_TYPE": 9, "TYPE": 0, "SPACING": [5.0, 5.0],
                                          "STEERING_H": [-45.0, 45.0], "": [7.0, 8.0], "STEER": [1.0, 2.0],
                                          "OFFSET_TX": [1] * 16, "OFFSET_RX": [1] * 16}


@pytest.mark.parametrize("options, level, message", [
    ({"dev": 12}, "WARNING", "Skip {path}, due to dev type(12) not match"),
    ({"channels": 15}, "ERROR", "OFFSET_TX: number of channel:15 not equal to 16"),
    ({"type": 2}, "ERROR", "Unknown custom type: 2"),
    ({"name": ""}, "ERROR", "Skip {path} due to unknown file"),
])
def test_kit_files_that_are_skipped(files_dir, caplog, options, level, message):
    path = kit_file(files_dir, "Bad", **options)
    ret = kits().parse()
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_NO_AAKIT, "No available AAKit table here")
    assert (level, message.format(path=path)) in records(caplog, "AAKitTbl")


def test_later_file_wins_and_old_custom_names_are_renamed_on_disk(files_dir):
    kit_file(files_dir, "1", name="Same", extra="STEERING_V,0,0\n")
    kit_file(files_dir, "2", name="Same", extra="STEERING_V,1,1\n")
    kit_file(files_dir, "My_Kit", name="My_Kit", type=1, extra="STEERING_V,0,0\n")
    manager = kits()
    assert manager.parse().RetCode == RetCode.OK
    assert manager._AAKitTable["Same"]["STEERING_V"] == [1.0, 1.0]
    renamed = [name for name in manager._AAKitTable if name.startswith("My_Kit_")]
    assert len(renamed) == 1 and "My_Kit" not in manager._AAKitTable
    assert not (files_dir / "AAKIT_My_Kit.csv").exists()
    saved = (files_dir / ("AAKIT_%s.csv" % renamed[0])).read_bytes().decode()
    assert saved == ("AAKIT_NAME,%s\r\nDEV_TYPE,9\r\nTYPE,1\r\nSPACING,5.0,5.0\r\nSTEERING_H,-45.0,45.0\r\n"
                     "STEERING_V,0.0,0.0\r\nOFFSET_TX,%s\r\nOFFSET_RX,%s\r\n" % (renamed[0], *[",".join(["1"] * 16)] * 2))


@pytest.mark.parametrize("stamp, valid", [
    ("2024030112304512+0800", True), ("20240301123045+0800", False), ("2024030112304512-0500", False),
    ("2024130112304512+0800", False), ("2024030112304512", False),
])
def test_custom_kit_time_stamps(stamp, valid, files_dir):
    assert kits()._AAKitTableManager__checkAAKitTimeFormat(stamp) is valid


# ----------------------------------------------------------------- beams ---

LIMITS = {"DR": {"TX": [-10.5, 5.0], "RX": [-12.0, 6.5]}, "COMDR": [[8.0, 8.5, 7.5, 8.0], [7.0] * 4],
          "ELEDR": [[6.5, 7.0, 7.5, 6.5], [6.0] * 4]}


def beam_check(mode, db, theta, phi, _):
    return RetType(data=(min(db, 5.0), theta, phi))      # the hook caps the gain


def ic_check(mode, board, gains, common):
    return RetType() if max(gains) <= 20 else RetType(RetCode.ERROR, "too loud")


def beams(freq=28.0, kit="Kit", load=True):
    manager = BeamPatternTableManager(SN, 9, 8, LAYOUT, (beam_check, ic_check))
    manager._updateFreq(freq, LIMITS["DR"], LIMITS["COMDR"], LIMITS["ELEDR"])
    if load:
        assert manager._load(freq, kit).RetCode == RetCode.OK
    return manager


@pytest.mark.parametrize("freq, kit, name", [
    (28.0, "Kit", "Beam_Configuration_%s_28GHz_Kit.json" % SN),
    (27.5, "", "Beam_Configuration_%s_27.5GHz.json" % SN),
])
def test_missing_table_is_created_with_defaults_under_its_name(files_dir, freq, kit, name):
    manager = beams(freq, kit)
    saved = json.loads((files_dir / "BeamTable" / name).read_text(encoding="utf-8"))
    assert saved == manager._BeamTable == {"VERSION": "v2.0.0", "SN": SN, "DEV_TYPE": 9, "FREQ": freq,
                                           "AAKIT_NAME": kit, "TX": {}, "RX": {}}


def old_table(channels=16):
    channel_list = [{"channel": c, "sw": 0, "db": 20.0 if c == 5 else 1.0, "deg": c} for c in range(1, channels + 1)]
    return {"version": "v1.0.0",
            "TX_beam_list": [{"beamId": 3, "beam_type": 1, "db": 1, "theta": 2, "phi": 3, "channel_switch": 1,
                              "channel_config": channel_list},
                             {"beamId": 4, "db": 1, "theta": 2, "phi": 3}],
            "RX_beam_list": [{"beamId": 1, "beam_type": 0, "beam_config": {"db": 1, "theta": 0, "phi": 0}}]}


def test_old_table_is_converted_clipped_and_saved(files_dir):
    (files_dir / "BeamTable").mkdir()
    path = write(files_dir / "BeamTable" / ("Beam_Configuration_%s_28GHz.json" % SN), json.dumps(old_table()))
    manager = beams(kit="")
    table = manager._BeamTable
    assert set(table) == {"VERSION", "DEV_TYPE", "FREQ", "AAKIT_NAME", "TX", "RX"}
    assert list(table["TX"]) == ["3"] and table["RX"]["1"]["beam_config"] == {"db": 1, "theta": 0, "phi": 0}
    board_2 = table["TX"]["3"]["channel_config"]["board_2"]
    assert board_2["common_db"] is None
    assert board_2["channel_1"] == {"sw": 0, "db": 8.5 + 7.0, "deg": 5}      # clipped to COMDR + ELEDR
    assert path.read_text(encoding="utf-8") == json.dumps(table, ensure_ascii=False, indent=2)


def test_old_table_with_missing_channels_is_refused(files_dir, caplog):
    (files_dir / "BeamTable").mkdir()
    write(files_dir / "BeamTable" / ("Beam_Configuration_%s_28GHz.json" % SN), json.dumps(old_table(12)))
    ret = beams(kit="", load=False)._load(28.0, "")
    message = "TX BeamID:3: count of channel_config(12) not match with channel count(16)"
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM_FILE, message)
    assert ("ERROR", message) in records(caplog, "BeamTbl")


def test_unset_beam_reads_as_default_without_being_stored(files_dir):
    manager = beams()
    beam = manager.getBeamPattern(1, 2).RetData
    assert beam["beam_description"] == "" and beam["beam_type"] == BeamType.CHANNEL.value
    assert beam["channel_config"]["board_3"] == {"common_db": 7.0, **{"channel_%d" % c: {"sw": 0, "db": 6.0,
                                                                                        "deg": 0} for c in (1, 2, 3, 4)}}
    assert manager._BeamTable["RX"] == {}
    bad = manager.getBeamPattern(RFMode.TX, 0)
    assert (bad.RetCode, bad.RetMsg) == (RetCode.ERROR_BF_BEAM, "Invaid beam id: 0")


def test_partial_channel_set_changes_one_channel_and_steered_set_uses_the_hook(files_dir):
    manager = beams()
    before = json.loads(json.dumps(manager.getBeamPattern(RFMode.TX, 5).RetData))
    channel = {"sw": 1, "db": 2.0, "deg": 45}
    assert manager.setBeamPattern(RFMode.TX, 5, BeamType.CHANNEL, {"board_2": {"channel_3": channel}},
                                  save=False).RetCode == RetCode.OK
    before["channel_config"]["board_2"]["channel_3"] = channel
    assert manager._BeamTable["TX"]["5"] == before
    assert manager.setBeamPattern(RFMode.TX, 5, BeamType.BEAM, {"db": 9.0, "theta": 10, "phi": 0}, "aim",
                                  save=False).RetCode == RetCode.OK
    assert manager._BeamTable["TX"]["5"] == {"beam_description": "aim", "beam_type": 0,
                                             "beam_config": {"db": 5.0, "theta": 10, "phi": 0}}
    loud = manager.setBeamPattern(RFMode.TX, 6, BeamType.CHANNEL, {"board_4": {"channel_1": {"sw": 0, "db": 30,
                                                                                              "deg": 0}}})
    assert loud.RetMsg == "BeamID_6: Checking channel config failed: Checking board_4 gain list failed"


@pytest.mark.parametrize("option, tx_ids", [
    (BTSetOption.UI_SAVE_REPLACE, ["2"]),
    (BTSetOption.UI_SAVE_UPSERT, ["1", "2"]),
    (BTSetOption.VALIDATE, ["1"]),
])
def test_batch_replace_upsert_and_validate(files_dir, option, tx_ids):
    manager = beams()
    steered = {"beam_description": "s", "beam_type": 0, "beam_config": {"db": 1.0, "theta": 0, "phi": 0}}
    assert manager.setBeamPattern(RFMode.TX, 1, BeamType.BEAM, steered["beam_config"]).RetCode == RetCode.OK
    path = next((files_dir / "BeamTable").iterdir())
    saved_before = path.read_bytes()
    ret = manager._setBatchBeamPattern({"TX": {"2": steered}, "TXX": {"9": {}}}, option)
    assert ret.RetCode == RetCode.OK
    assert list(manager._BeamTable["TX"]) == tx_ids
    on_disk = json.loads(path.read_text(encoding="utf-8"))
    assert (on_disk == manager._BeamTable) and ((path.read_bytes() == saved_before) == (option == BTSetOption.VALIDATE))
