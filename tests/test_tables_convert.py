"""vexcore-tables convert: old beam tables upgraded and calibration CSVs exported by the managers."""
import json
import os
import stat

import pytest
from tables_helpers import CALI, KIT, edit_lines, replace_row, run_tool, write_old_beam_table


def test_an_old_beam_table_is_converted_to_out_and_the_input_kept(files, tmp_path, capsys):
    path = write_old_beam_table(files)
    before = path.read_bytes()
    out_path = tmp_path / "converted.json"
    status, out, _ = run_tool(capsys, "convert", path, "--out", out_path, "--devtype", 9)
    assert status == 0 and "(v1.0.0) -> %s (v2.0.0)" % out_path in out and path.read_bytes() == before
    text = out_path.read_text(encoding="utf-8")
    table = json.loads(text)
    assert text == json.dumps(table, ensure_ascii=False, indent=2)        # as the beam manager writes
    assert (table["VERSION"], table["DEV_TYPE"], table["FREQ"], "SN" in table) == ("v2.0.0", 9, 28.0, False)
    # The sample's calibration limits cap the gains: channel 16's 32 dB at board 4's COMDR upper bound + ELEDR.
    assert table["TX"]["7"]["channel_config"]["board_4"]["channel_4"]["db"] == 3 + 6.5


@pytest.fixture
def umask():
    """umask(mask): the process umask is mask until the test ends."""
    previous = os.umask(0o022)
    yield os.umask
    os.umask(previous)


def test_in_place_keeps_the_mode_replaces_what_a_link_points_to_and_a_second_run_has_nothing_to_do(files, capsys,
                                                                                                    umask):
    umask(0o077)                                  # would make a new file 0600: the table keeps its own mode
    path = write_old_beam_table(files)
    path.chmod(0o644)
    link = path.parent / "current.json"
    link.symlink_to(path.name)
    beside = sorted(os.listdir(path.parent))
    status, _, err = run_tool(capsys, "convert", link, "--in-place", "--kind", "beam")
    assert status == 0 and link.is_symlink() and os.readlink(link) == path.name, err
    assert json.loads(path.read_text(encoding="utf-8"))["VERSION"] == "v2.0.0"
    assert stat.S_IMODE(path.stat().st_mode) == 0o644
    assert sorted(os.listdir(path.parent)) == beside           # nothing else left beside them
    before = path.read_bytes()
    status, out, _ = run_tool(capsys, "convert", path, "--in-place")
    assert status == 0 and "already in the current format (v2.0.0)" in out and path.read_bytes() == before


@pytest.mark.parametrize("make, message", [
    (lambda files: write_old_beam_table(files, length=12),
     "ERROR_BF_BEAM_FILE  TX BeamID:7: count of channel_config(12) not match with channel count(16)"),
    (lambda files: edit_lines(files / CALI, replace_row("SN,", "SN,OTHER")), "Wrong SN!"),
])
def test_a_table_the_manager_refuses_is_not_converted(files, tmp_path, capsys, make, message):
    status, out, _ = run_tool(capsys, "convert", make(files), "--out", tmp_path / "x.json")
    assert status == 1 and message in out and not (tmp_path / "x.json").exists()


def test_a_calibration_csv_is_exported_as_the_manager_writes_it_with_the_mode_the_umask_gives(files, capsys, umask):
    umask(0o027)
    status, out, _ = run_tool(capsys, "convert", files / CALI)
    target = files / CALI.replace(".csv", ".json")
    text = target.read_text(encoding="utf-8")
    assert status == 0 and "-> %s" % target in out and text == json.dumps(json.loads(text), ensure_ascii=False,
                                                                          indent=4)
    assert stat.S_IMODE(target.stat().st_mode) == 0o640
    assert json.loads(text)["DR"]["TX"] == [-10.0, 5.0]
    # The export reads back through the calibration manager's parseRawJson.
    status, out, _ = run_tool(capsys, "check", target)
    assert status == 0 and out.startswith("OK    calibration-json")


@pytest.mark.parametrize("name, args, message", [
    (KIT, ["--out", "{files}/x.json"], "is a kit table"),
    ("missing_28GHz.csv", ["--out", "{files}/x.json"], "no such file"),
    ("beam", [], "give --out FILE for the converted table, or --in-place"),
    ("beam", ["--out", "{files}/" + CALI], "exists; give --force to replace it"),
])
def test_usage_errors_never_overwrite_by_surprise(files, capsys, name, args, message):
    path = write_old_beam_table(files) if name == "beam" else files / name
    before = (files / CALI).read_bytes()
    status, _, err = run_tool(capsys, "convert", path, *[a.format(files=files) for a in args])
    assert status == 2 and message in err and not (files / "x.json").exists() and (files / CALI).read_bytes() == before
