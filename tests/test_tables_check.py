"""vexcore-tables check and show: every table kind, good and bad, alone and in folders; summaries in text and JSON."""
import json
import logging
import os
import subprocess
import sys

import pytest
from tables_helpers import BEAM, CALI, KIT, edit_lines, line_number, replace_row, run_tool, write_old_beam_table


def test_the_console_script_finds_the_bundled_samples_valid(files):
    script = os.path.join(os.path.dirname(sys.executable), "vexcore-tables")
    done = subprocess.run([script, "check", "files"], cwd=files.parent, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
    lines = done.stdout.splitlines()
    assert [line.split()[:2] for line in lines[:3]] == [["OK", "kit"], ["OK", "calibration"], ["OK", "beam"]]
    assert "layout 4x1x4" in lines[1] and "beams TX 2, RX 1" in lines[2]
    assert lines[-1] == "3 files checked: 3 valid, 0 invalid"


def test_kit_warnings_name_the_file_fail_nothing_and_change_no_file(files, capsys):
    later = files / "AAKIT_z_copy.csv"                  # the sample kit defined twice
    later.write_bytes((files / KIT).read_bytes())
    edit_lines(files / KIT, lambda lines: ["AAKIT_NAME,MyKit", "TYPE,1"] + lines[1:2] + lines[3:],
               files / "AAKIT_MyKit.csv")               # a custom kit with an old name
    before = {path.name: path.read_bytes() for path in files.iterdir() if path.is_file()}
    status, out, _ = run_tool(capsys, "check", files)
    lines = out.splitlines()
    first, renamed = (next(i for i, line in enumerate(lines) if name in line) for name in (KIT, "AAKIT_MyKit.csv"))
    assert status == 0 and lines[first].startswith("WARN") and lines[renamed].startswith("WARN")
    assert "which the kit manager keeps instead of this file" in lines[first + 1] and str(later) in lines[first + 1]
    assert next(line for line in lines if "z_copy.csv  " in line).startswith("OK ")
    assert "loading renames the kit to 'MyKit_" in lines[renamed + 1]
    assert {path.name: path.read_bytes() for path in files.iterdir() if path.is_file()} == before


def _edit_beam(files, change):
    path = files / BEAM
    table = json.loads(path.read_text(encoding="utf-8"))
    change(table)
    path.write_text(json.dumps(table, indent=2), encoding="utf-8")
    return path


def _written(path, text):
    path.write_text(text, encoding="utf-8")
    return path


def _channel(table, board, channel=None):
    config = table["TX"]["2"]["channel_config"]["board_%d" % board]
    return config if channel is None else config["channel_%d" % channel]


def _cali(files, key_prefix, new_row):
    return edit_lines(files / CALI, replace_row(key_prefix, new_row))


def _kit(files, key_prefix, new_row):
    return edit_lines(files / KIT, replace_row(key_prefix, new_row))


# Each spoils the samples and gives what to check (a path, or a list of arguments) and the texts the
# report must hold; a text can depend on the file checked (the line a problem lies on).
@pytest.mark.parametrize("spoil, expected", [
    (lambda f: _cali(f, "DATA,CAL,B,2,IC,1,1,TX,0.0,45", "DATA,CAL,B,2,IC,1,1,TX,zero,45,1,2,3,4"),
     [lambda p: "ERROR_BF_CALI_PARSE  parse exception at line %d (DATA)" % line_number(p, "TX,zero"),
      "cause: ValueError: could not convert string to float: 'zero'"]),
    (lambda f: _cali(f, "END", None), ["ERROR_BF_CALI_PARSE  cali file is broken at end of file (no END row)"]),
    (lambda f: _cali(f, "SN,", "SN,K5350R019-99"),
     [lambda p: "ERROR_BF_CALI_INCOMPLTE  Wrong SN! at line %d (SN)" % line_number(p, "SN,K5350R019-99")]),
    (lambda f: _cali(f, "COMDR,TX,DR,3,", None),     # a board missing from one section
     ["KeyError  getCOMDR() failed", "no entry 'COMDR' in the table"]),
    (lambda f: (f / CALI).rename(f / "calibration.csv"), ["ERROR_BF_CALI_PATH  the name is not <SN>_<freq>GHz.csv"]),
    (lambda f: _kit(f, "SPACING", "SPACING,a,5.0"),
     [lambda p: "ERROR_BF_NO_AAKIT  the kit manager could not read the file at line %d (SPACING)"
      % line_number(p, "SPACING,a"), "cause: ValueError: could not convert string to float: 'a'"]),
    (lambda f: [f / KIT, "--devtype", 12], ["due to dev type(9) not match"]),
    (lambda f: _kit(f, "TYPE", None), ["KeyError  the kit has no TYPE row"]),
    (lambda f: _edit_beam(f, lambda t: _channel(t, 3, 2).update(db=9.5)),
     ["ERROR_BF_BEAM  BeamID_2: Checking channel config failed: Checking board_3 gain list failed",
      "board_3 channel gains [9.5] exceed the element limit ELEDR 7"]),
    (lambda f: _edit_beam(f, lambda t: _channel(t, 2).pop("channel_4")),
     ["ERROR_BF_BEAM  Invalid channel config", "KeyError: 'channel_4'"]),
    (lambda f: _edit_beam(f, lambda t: _channel(t, 1, 1).update(sw=2)),        # a switch value the hooks never see
     ["board_1 channel_1: sw is 2, expected 0 (on) or 1 (off) at TX beam 2"]),
    (lambda f: _edit_beam(f, lambda t: t.update(SN="../../escaped")), ["ERROR_BF_BEAM  BeamTable loading exception"]),
    (lambda f: _written(f / BEAM, '{"VERSION": "v2.0.0",\n "TX": {,}}'),
     ["ERROR_BF_BEAM  BeamTable loading exception", "not valid JSON at line 2 column 9"]),
    (lambda f: _written(f / "SN9.csv", "SN9\n1.5\n"), ["ERROR  Exception while delta csv parsing"]),
    (write_old_beam_table, ["warning  old format v1.0.0: loading converts it",
                            "board_1 common_db is None, not a number", "at TX beam 7"]),
], ids=["cali cell", "cali end", "cali sn", "cali board", "cali name", "kit cell", "kit devtype",
        "kit type", "gain refused", "channel missing", "beam switch", "sn leaves folder",
        "beam not json", "ud value", "beam old format"])
def test_a_problem_is_reported_with_its_reason(files, tmp_path, capsys, spoil, expected):
    target = spoil(files)
    args = target if isinstance(target, list) else [target]
    before = args[0].read_bytes()
    status, out, _ = run_tool(capsys, "check", *args)
    texts = [text(args[0]) if callable(text) else text for text in expected]
    assert status == 1 and all(text in out for text in texts), out
    assert args[0].read_bytes() == before                           # checking never changes the file
    assert str(files) in out and "vexcore-tables-" not in out      # the user's path, not the private copy's
    assert not list(tmp_path.glob("**/*escaped*"))


def test_a_folder_with_one_bad_table_fails_in_text_and_json(files, capsys):
    (files / "notes.txt").write_text("not a table", encoding="utf-8")
    edit_lines(files / KIT, replace_row("OFFSET_TX", "OFFSET_TX,x" + ",0" * 15))
    status, out, _ = run_tool(capsys, "check", files)
    assert status == 1 and out.splitlines()[-1] == "3 files checked: 2 valid, 1 invalid; 1 other file skipped"
    status, out, _ = run_tool(capsys, "check", "--json", files)
    report = json.loads(out)
    by_kind = {entry["kind"]: entry for entry in report["files"]}
    assert status == 1 and report["valid"] is False and report["skipped"] == [str(files / "notes.txt")]
    assert by_kind["calibration"]["valid"] and by_kind["calibration"]["problems"] == []
    [problem] = by_kind["kit"]["problems"]
    assert (problem["code"], problem["severity"]) == ("ERROR_BF_NO_AAKIT", "error")
    assert problem["where"] == "line %d (OFFSET_TX)" % line_number(files / KIT, "OFFSET_TX")
    assert problem["detail"] == "ValueError: invalid literal for int() with base 10: 'x'"


def test_a_file_with_many_problems_lists_twenty_and_counts_the_rest(files, capsys):
    bad = {"beam_description": "", "beam_type": 0, "beam_config": {"db": 50.0, "theta": 0, "phi": 0}}
    path = _edit_beam(files, lambda table: table["RX"].update({str(i): bad for i in range(3, 33)}))
    status, out, _ = run_tool(capsys, "check", path)
    assert status == 1 and out.count("db 50 is outside the RX DR") == 20
    assert "... and 10 more problems (--json lists them all)" in out


def test_progress_goes_to_stderr_and_the_environment_and_loggers_are_left_alone(files, capsys, monkeypatch):
    monkeypatch.setenv("VEXCORE_FILES_DIR", "/somewhere/else")
    logger = logging.getLogger("BeamTbl")
    handlers, level = list(logger.handlers), logger.level
    status, out, err = run_tool(capsys, "check", "--progress", files)
    assert status == 0 and "[3/3] checking" in err and "checking" not in out
    assert os.environ["VEXCORE_FILES_DIR"] == "/somewhere/else"
    assert logger.handlers == handlers and logger.level == level and logger.propagate


@pytest.mark.parametrize("args, message", [
    (["check", "no/such/file.csv"], "vexcore-tables: no such file or folder: no/such/file.csv"),
    (["check", "--layout", "4x4", "x"], "expected BOARDSxICSxCHANNELS"),
])
def test_user_errors_are_one_line_without_traceback(tmp_path, args, message):
    done = subprocess.run([sys.executable, "-m", "vexcore.tables"] + args, cwd=tmp_path,
                          capture_output=True, text=True)
    assert done.returncode == 2 and message in done.stderr and "Traceback" not in done.stderr


def test_the_bundled_beam_table_is_what_the_beam_manager_writes(files):
    from vexcore.samples import beam_table

    bundled = (files / BEAM).read_bytes()
    os.remove(files / BEAM)
    assert beam_table.write(str(files)) == str(files / BEAM) and (files / BEAM).read_bytes() == bundled


# ------------------------------------------------------------------- show ---

# Rows of the bundled samples (and of a UD table SN7.csv) that each summary must show, as words.
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
    (files / "SN7.csv").write_text("SN7\n250\n", encoding="utf-8")
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
