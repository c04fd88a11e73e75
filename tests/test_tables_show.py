"""vexcore-tables show: summaries of each table kind, in text and JSON."""
import json

import pytest
from tables_helpers import BEAM, CALI, KIT, edit_lines, replace_row, run_tool


@pytest.fixture
def files(files):
    (files / "SN7.csv").write_text("SN7\n250\n", encoding="utf-8")
    return files


# Rows of the bundled samples (and of SN7.csv above) that each summary must show, as words.
@pytest.mark.parametrize("target, args, rows", [
    (CALI, [], [["SN", "K5350R019-28"], ["TX", "-10", "5"], ["RX", "-12", "6"],
                ["3", "-9", "3", "7", "-6", "6", "4"]]),                 # board, TX COMDR, ELEDR, RX COMDR, ELEDR
    (KIT, [], [["spacing", "5", "x", "5", "mm"], ["steering", "H", "-45", "..", "45", "deg"],
               ["ch1-16"] + [str(i % 8) for i in range(16)]]),
    (BEAM, [], [["TX", "beams", "(2", "stored)"], ["1", "steered", "Steered"], ["2", "channel", "Channel"],
                ["RX", "beams", "(1", "stored)"]]),
    (BEAM, ["--beam", "TX:2"], [["board_4", "2", "channel_4", "off", "3", "86"]]),
    # An unset id shows the default: every channel at its board's RX element limit.
    (BEAM, ["--beam", "RX:9"], [["RX", "beam", "9", "(not", "stored:"], ["board_2", "[-6.5,", "5.0]", "channel_3", "on",
                                                                          "5", "0"]]),
    ("SN7.csv", [], [["minimum", "LO/IF", "spacing", "250"]]),
])
def test_each_table_kind_is_summarised(files, capsys, target, args, rows):
    edit_lines(files / KIT, replace_row("OFFSET_TX", "OFFSET_TX," + ",".join(str(i % 8) for i in range(16))))
    status, out, _ = run_tool(capsys, "show", files / target, *args)
    words = [line.split() for line in out.splitlines()]
    assert status == 0
    for row in rows:
        assert any(line[:len(row)] == row for line in words), (row, out)


def test_show_json_carries_the_beam_as_stored(files, capsys):
    status, out, _ = run_tool(capsys, "show", "--json", files / BEAM, "--beam", "TX:1")
    data, table = json.loads(out), json.loads((files / BEAM).read_text(encoding="utf-8"))
    assert status == 0 and data["beam"] == {"mode": "TX", "id": 1, "stored": True, "beam": table["TX"]["1"]}
    assert [b["id"] for b in data["beams"]["TX"]] == list(table["TX"])
    assert data["header"]["AAKIT_NAME"] == table["AAKIT_NAME"] and data["problems"] == []


@pytest.mark.parametrize("target, status, stream, message", [
    (CALI, 1, "out", "cali file is broken"),                 # the manager cannot read it
    ("notes.txt", 2, "err", "cannot tell which table"),
])
def test_a_table_that_cannot_be_shown_says_why(files, capsys, target, status, stream, message):
    edit_lines(files / CALI, replace_row("END", None))
    (files / "notes.txt").write_text("hello", encoding="utf-8")
    code, out, err = run_tool(capsys, "show", files / target)
    assert code == status and message in {"out": out, "err": err}[stream]
