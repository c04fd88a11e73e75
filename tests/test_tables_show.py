"""vexcore-tables show: summaries of each table kind, in text and JSON."""
import csv
import json

import pytest

from tables_helpers import BEAM, CALI, KIT, copy_samples, edit_lines, replace_row, run_tool


@pytest.fixture
def files(tmp_path):
    return copy_samples(tmp_path)


def _rows(path):
    with open(path, newline="", encoding="utf-8") as f:
        return {row[0] + ("," + ",".join(row[1:4]) if row[0] in ("COMDR", "ELEDR") else ""): row
                for row in csv.reader(f) if row}


def _words(out):
    return [line.split() for line in out.splitlines()]


def test_calibration_shows_header_dr_and_every_board(files, capsys):
    status, out, _ = run_tool(capsys, "show", files / CALI)
    assert status == 0
    rows, words = _rows(files / CALI), _words(out)
    assert ["SN", rows["SN"][1]] in words and ["VER", rows["VER"][1]] in words
    dr = [float(v) for v in rows["DR"][1:5]]
    assert ["TX", "%g" % dr[0], "%g" % dr[1]] in words and ["RX", "%g" % dr[2], "%g" % dr[3]] in words
    for board in range(1, 5):
        cells = [board]
        for mode in ("TX", "RX"):
            comdr = rows["COMDR,%s,DR,%d" % (mode, board)][5:7]
            eledr = rows["ELEDR,%s,DR,%d" % (mode, board)][5]
            cells += [float(comdr[0]), float(comdr[1]), float(eledr)]
        expected = ["%g" % c for c in cells]
        assert any(line[:7] == expected for line in words), expected


def test_kit_shows_spacing_steering_and_offsets(files, capsys):
    edit_lines(files / KIT, replace_row("OFFSET_TX", "OFFSET_TX," + ",".join(str(i % 8) for i in range(16))))
    status, out, _ = run_tool(capsys, "show", files / KIT)
    assert status == 0
    words = _words(out)
    assert ["spacing", "5", "x", "5", "mm"] in words
    assert ["steering", "H", "-45", "..", "45", "deg"] in words
    assert ["ch1-16"] + [str(i % 8) for i in range(16)] in words


def _beam_table(files):
    return json.loads((files / BEAM).read_text(encoding="utf-8"))


def test_beam_table_lists_beams_per_mode(files, capsys):
    status, out, _ = run_tool(capsys, "show", files / BEAM)
    assert status == 0
    table = _beam_table(files)
    for mode in ("TX", "RX"):
        assert "%s beams (%d stored)" % (mode, len(table[mode])) in out
        for beam_id, beam in table[mode].items():
            kind = "steered" if beam["beam_type"] == 0 else "channel"
            assert any(line.split()[:2] == [beam_id, kind] and beam["beam_description"] in line
                       for line in out.splitlines())


def test_one_stored_channel_beam_in_full(files, capsys):
    status, out, _ = run_tool(capsys, "show", files / BEAM, "--beam", "TX:2")
    assert status == 0
    config = _beam_table(files)["TX"]["2"]["channel_config"]
    shown = [w for w in _words(out) if w and w[0].startswith("board_")]
    expected = [[board, "%g" % cfg["common_db"], name, "on" if ch["sw"] == 0 else "off", "%g" % ch["db"],
                 str(ch["deg"])]
                for board, cfg in config.items() for name, ch in cfg.items() if name != "common_db"]
    assert shown == expected


def test_an_unset_beam_shows_the_default_of_the_calibration_limits(files, capsys):
    status, out, _ = run_tool(capsys, "show", files / BEAM, "--beam", "RX:9")
    assert status == 0
    assert "RX beam 9 (not stored: the default from the calibration limits)" in out
    eledr = {int(r[3]): r[5] for r in _rows(files / CALI).values() if r[0] == "ELEDR" and r[1] == "RX"}
    gains = {}
    for line in _words(out):
        if line and line[0].startswith("board_"):
            gains.setdefault(int(line[0][6:]), set()).add(line[-2])
    assert gains == {board: {"%g" % float(value)} for board, value in eledr.items()}


def test_show_json_carries_the_beam_as_stored(files, capsys):
    status, out, _ = run_tool(capsys, "show", "--json", files / BEAM, "--beam", "TX:1")
    data = json.loads(out)
    table = _beam_table(files)
    assert status == 0
    assert data["beam"] == {"mode": "TX", "id": 1, "stored": True, "beam": table["TX"]["1"]}
    assert [b["id"] for b in data["beams"]["TX"]] == list(table["TX"])
    assert data["header"]["AAKIT_NAME"] == table["AAKIT_NAME"] and data["problems"] == []


def test_ud_delta_shows_the_value(tmp_path, capsys):
    path = tmp_path / "SN7.csv"
    path.write_text("SN7\n250\n", encoding="utf-8")
    status, out, _ = run_tool(capsys, "show", path)
    assert status == 0 and ["minimum", "LO/IF", "spacing", "250"] in _words(out)


def test_a_table_the_manager_cannot_read_is_not_shown(files, capsys):
    edit_lines(files / CALI, replace_row("END", None))
    status, out, _ = run_tool(capsys, "show", files / CALI)
    assert status == 1
    assert out.splitlines()[0].startswith("cannot show") and "cali file is broken" in out


def test_a_file_of_unknown_kind_is_a_usage_error(tmp_path, capsys):
    path = tmp_path / "notes.txt"
    path.write_text("hello", encoding="utf-8")
    status, _, err = run_tool(capsys, "show", path)
    assert status == 2 and "cannot tell which table" in err
