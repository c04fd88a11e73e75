"""vexcore-tables convert: old beam tables upgraded and calibration CSVs exported by the managers."""
import json

import pytest

from tables_helpers import CALI, copy_samples, edit_lines, replace_row, run_tool


@pytest.fixture
def files(tmp_path):
    return copy_samples(tmp_path)


def _old_table(files, kit=""):
    """An old list-format table with one channel beam whose gains partly exceed the cap."""
    name = "Beam_Configuration_K5350R019-28_28GHz%s.json" % ("_" + kit if kit else "")
    path = files / "BeamTable" / name
    channels = [{"channel": ch, "sw": ch % 2, "db": 2.0 * ch, "deg": 15 * ch} for ch in range(16, 0, -1)]
    old = {"version": "v1.0.0", "TX_beam_list": [{"beamId": 7, "beam_type": 1, "channel_config": channels,
                                                   "beam_description": "old", "channel_switch": 1}],
           "RX_beam_list": []}
    path.write_text(json.dumps(old), encoding="utf-8")
    return path, channels


def _cap(files, mode, board):
    """COMDR upper bound + ELEDR of a board, read from the calibration CSV."""
    rows = [line.split(",") for line in (files / CALI).read_text(encoding="utf-8").splitlines()]
    comdr = next(r for r in rows if r[:4] == ["COMDR", mode, "DR", str(board)])
    eledr = next(r for r in rows if r[:4] == ["ELEDR", mode, "DR", str(board)])
    return float(comdr[6]) + float(eledr[5])


def test_an_old_beam_table_is_converted_to_out_and_the_input_kept(files, tmp_path, capsys):
    path, channels = _old_table(files)
    before = path.read_bytes()
    out_path = tmp_path / "converted.json"
    status, out, _ = run_tool(capsys, "convert", path, "--out", out_path, "--devtype", 9)
    assert status == 0, out
    assert path.read_bytes() == before
    assert "(v1.0.0) -> %s (v2.0.0)" % out_path in out
    text = out_path.read_text(encoding="utf-8")
    table = json.loads(text)
    assert text == json.dumps(table, ensure_ascii=False, indent=2)        # as the beam manager writes
    assert (table["VERSION"], table["DEV_TYPE"], table["FREQ"], "SN" in table) == ("v2.0.0", 9, 28.0, False)
    beam = table["TX"]["7"]
    assert beam["beam_description"] == "" and beam["beam_type"] == 1
    by_number = {c["channel"]: c for c in channels}
    for board in range(1, 5):
        config = beam["channel_config"]["board_%d" % board]
        assert config["common_db"] is None
        for ch in range(1, 5):
            old = by_number[(board - 1) * 4 + ch]
            assert config["channel_%d" % ch] == {"sw": old["sw"], "db": min(old["db"], _cap(files, "TX", board)),
                                                 "deg": old["deg"]}


def test_in_place_replaces_the_table_and_a_second_run_has_nothing_to_do(files, capsys):
    path, _ = _old_table(files)
    status, _, _ = run_tool(capsys, "convert", path, "--in-place")
    assert status == 0 and json.loads(path.read_text(encoding="utf-8"))["VERSION"] == "v2.0.0"
    before = path.read_bytes()
    status, out, _ = run_tool(capsys, "convert", path, "--in-place")
    assert status == 0 and "already in the current format (v2.0.0)" in out
    assert path.read_bytes() == before


def test_an_old_table_with_a_channel_list_of_the_wrong_length_is_not_converted(files, tmp_path, capsys):
    path, _ = _old_table(files)
    table = json.loads(path.read_text(encoding="utf-8"))
    del table["TX_beam_list"][0]["channel_config"][3:7]
    path.write_text(json.dumps(table), encoding="utf-8")
    status, out, _ = run_tool(capsys, "convert", path, "--out", tmp_path / "x.json")
    assert status == 1 and not (tmp_path / "x.json").exists()
    assert "ERROR_BF_BEAM_FILE  TX BeamID:7: count of channel_config(12) not match with channel count(16)" in out


@pytest.mark.parametrize("args, message", [
    ([], "give --out FILE for the converted table, or --in-place"),
    (["--out", "{existing}"], "exists; give --force to replace it"),
])
def test_beam_conversion_never_overwrites_by_surprise(files, capsys, args, message):
    path, _ = _old_table(files)
    existing = files / CALI
    before = existing.read_bytes()
    status, _, err = run_tool(capsys, "convert", path, *[a.format(existing=existing) for a in args])
    assert status == 2 and message in err and existing.read_bytes() == before


def test_a_calibration_csv_is_exported_as_the_manager_writes_it(files, capsys):
    status, out, _ = run_tool(capsys, "convert", files / CALI)
    target = files / CALI.replace(".csv", ".json")
    assert status == 0 and "-> %s" % target in out
    table = json.loads(target.read_text(encoding="utf-8"))
    assert target.read_text(encoding="utf-8") == json.dumps(table, ensure_ascii=False, indent=4)
    assert table["SN"] == "K5350R019-28" and table["DR"]["TX"] == [-10.0, 5.0]
    # The export reads back through the calibration manager's parseRawJson.
    status, out, _ = run_tool(capsys, "check", target)
    assert status == 0 and out.startswith("OK    calibration-json")


def test_a_broken_calibration_csv_is_not_exported(files, tmp_path, capsys):
    edit_lines(files / CALI, replace_row("SN,", "SN,OTHER"))
    status, out, _ = run_tool(capsys, "convert", files / CALI, "--out", tmp_path / "c.json")
    assert status == 1 and "Wrong SN!" in out and not (tmp_path / "c.json").exists()


@pytest.mark.parametrize("name, message", [
    ("AAKIT_QRVLAB-4x4_PRIME_28_IDEAL.csv", "is a kit table"),
    ("missing_28GHz.csv", "no such file"),
])
def test_other_tables_and_missing_files_are_refused(files, capsys, name, message):
    status, _, err = run_tool(capsys, "convert", files / name, "--out", files / "x.json")
    assert status == 2 and message in err and not (files / "x.json").exists()
