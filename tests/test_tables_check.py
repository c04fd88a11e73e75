"""vexcore-tables check: every table kind, good and bad, alone and in folders."""
import json
import logging
import os
import subprocess
import sys

import pytest

from tables_helpers import BEAM, CALI, KIT, copy_samples, edit_lines, line_number, replace_row, run_tool


@pytest.fixture
def files(tmp_path):
    return copy_samples(tmp_path)


def test_the_bundled_samples_are_valid(files, capsys):
    code, out, err = run_tool(capsys, "check", files)
    assert code == 0, out
    lines = out.splitlines()
    assert [line.split()[:2] for line in lines[:3]] == [["OK", "kit"], ["OK", "calibration"], ["OK", "beam"]]
    assert "layout 4x1x4" in lines[1] and "beams TX 2, RX 1" in lines[2]
    assert lines[-1] == "3 files checked: 3 valid, 0 invalid"


BAD_CALIBRATIONS = [
    # (edit, code, message, the text of the line the problem lies on, or a fixed place)
    (replace_row("DATA,CAL,B,2,IC,1,1,TX,0.0,45", "DATA,CAL,B,2,IC,1,1,TX,zero,45,1,2,3,4"),
     "ERROR_BF_CALI_PARSE", "parse exception", "TX,zero"),
    (replace_row("OFFSET_RX", "OFFSET_RX,1,2,3"), "ERROR_BF_CALI_PARSE", "parse exception", "OFFSET_RX"),
    (replace_row("END", None), "ERROR_BF_CALI_PARSE", "cali file is broken", "end of file (no END row)"),
    (replace_row("SN,", "SN,K5350R019-99"), "ERROR_BF_CALI_INCOMPLTE", "Wrong SN!", "SN,K5350R019-99"),
    (replace_row("VER,", "VER,1.9.9"), "ERROR_BF_CALI_INCOMPLTE",
     "Version of Cali table is too low, please upgrade it.", "VER,1.9.9"),
    (replace_row("FCENTER", "FCENTER,27.5"), "ERROR_BF_CALI_INCOMPLTE", "Wrong Freq", "FCENTER,27.5"),
]


@pytest.mark.parametrize("edit, code, message, place", BAD_CALIBRATIONS)
def test_a_broken_calibration_table_names_code_message_and_line(files, capsys, edit, code, message, place):
    path = edit_lines(files / CALI, edit)
    status, out, _ = run_tool(capsys, "check", path)
    assert status == 1
    problem = out.splitlines()[1].split(None, 1)
    assert problem[0] == code
    assert problem[1].startswith(message + " at ")
    if place.startswith("end of file"):
        assert problem[1].endswith(place)
    else:
        number = line_number(path, place)
        key = path.read_text(encoding="utf-8").splitlines()[number - 1].split(",")[0]
        assert "line %d (%s)" % (number, key) in problem[1]


BAD_KITS = [
    (replace_row("SPACING", "SPACING,a,5.0"), "the kit manager could not read the file at line %d (SPACING)",
     "SPACING,a", "ValueError: could not convert string to float: 'a'"),
    (replace_row("SPACING", "SPACING,5.0"), "the kit manager could not read the file at line %d (SPACING)",
     "SPACING,5.0", "IndexError"),
    (replace_row("OFFSET_RX", "OFFSET_RX," + ",".join(["0"] * 15)),
     "OFFSET_RX: number of channel:15 not equal to 16", None, None),
    (replace_row("TYPE", "TYPE,2"), "Unknown custom type: 2", None, None),
]


@pytest.mark.parametrize("edit, message, line_text, cause", BAD_KITS)
def test_a_kit_the_manager_skips_is_reported_with_its_reason(files, capsys, edit, message, line_text, cause):
    path = edit_lines(files / KIT, edit)
    status, out, _ = run_tool(capsys, "check", path)
    assert status == 1
    if line_text:
        message = message % line_number(path, line_text)
    assert "ERROR_BF_NO_AAKIT  " + message in out
    if cause:
        assert "cause: " + cause in out


def test_a_kit_for_another_device_type_is_refused_when_the_type_is_given(files, capsys):
    status, out, _ = run_tool(capsys, "check", files / KIT, "--devtype", 12)
    assert status == 1
    assert "due to dev type(9) not match" in out
    assert str(files) in out and "vexcore-tables-" not in out      # the user's path, not the copy's


def test_a_kit_name_defined_twice_in_a_folder_warns_on_the_file_that_loses(files, capsys):
    later = files / "AAKIT_z_copy.csv"
    later.write_bytes((files / KIT).read_bytes())
    status, out, _ = run_tool(capsys, "check", files)
    assert status == 0
    lines = out.splitlines()
    first = lines.index(next(line for line in lines if line.endswith(KIT) or KIT + "  " in line))
    assert lines[first].startswith("WARN")
    assert "which the kit manager keeps instead of this file" in lines[first + 1] and str(later) in lines[first + 1]
    status_lines = [line for line in lines if line.split()[0] in ("OK", "WARN", "FAIL")]
    assert next(line for line in status_lines if "AAKIT_z_copy.csv" in line).startswith("OK ")


def test_a_custom_kit_with_an_old_name_warns_and_the_file_stays_as_it_was(files, capsys):
    path = files / "AAKIT_MyKit.csv"
    edit_lines(files / KIT, lambda lines: ["AAKIT_NAME,MyKit", "TYPE,1"] + lines[1:2] + lines[3:], path)
    before = path.read_bytes()
    status, out, _ = run_tool(capsys, "check", path)
    assert status == 0
    assert out.startswith("WARN") and "loading renames the kit to 'MyKit_" in out
    assert path.read_bytes() == before and sorted(os.listdir(files))[:2] == ["AAKIT_MyKit.csv", KIT]


@pytest.mark.parametrize("text, status, expected", [
    ("SN9\n# spacing\n300\n", 0, "SN9: minimum LO/IF spacing 300"),
    ("SN9\n1.5\n", 1, "ERROR  Exception while delta csv parsing"),
    ("SN9\n# nothing\n", 0, "WARNING  No delta freq info, skip it"),
])
def test_ud_delta_tables(tmp_path, capsys, text, status, expected):
    path = tmp_path / "SN9.csv"
    path.write_text(text, encoding="utf-8")
    code, out, _ = run_tool(capsys, "check", path)
    assert code == status and expected in out


def _edit_beam(files, change):
    path = files / BEAM
    table = json.loads(path.read_text(encoding="utf-8"))
    change(table)
    path.write_text(json.dumps(table, indent=2), encoding="utf-8")
    return path


@pytest.mark.parametrize("change, message, reason", [
    (lambda t: t["TX"]["2"]["channel_config"]["board_3"]["channel_2"].update(db=9.5),
     "BeamID_2: Checking channel config failed: Checking board_3 gain list failed",
     "board_3 channel gains [9.5] exceed the element limit ELEDR 7"),
    (lambda t: t["TX"]["2"]["channel_config"]["board_1"].update(common_db=None),
     "BeamID_2: Checking channel config failed: Checking board_1 gain list failed",
     "board_1 common_db is None, not a number"),
    (lambda t: t["TX"]["1"]["beam_config"].update(theta=60),
     "theta 60 is outside the kit's STEERING_H [-45, 45]", None),
    (lambda t: t["RX"]["1"]["beam_config"].update(db=7.5), "db 7.5 is outside the RX DR [-12, 6]", None),
    (lambda t: t["TX"]["2"]["channel_config"]["board_2"].pop("channel_4"), "Invalid channel config",
     "KeyError: 'channel_4'"),
    (lambda t: t["TX"]["1"].pop("beam_type"), "SetBeamPattern exception", "ValueError"),
])
def test_a_bad_beam_is_named_with_the_managers_message_and_the_reason(files, capsys, change, message, reason):
    path = _edit_beam(files, change)
    status, out, _ = run_tool(capsys, "check", path)
    assert status == 1, out
    assert "ERROR_BF_BEAM  " + message in out
    if reason:
        assert reason in out


def _renamed(path, name):
    os.rename(path, path.with_name(name))
    return path.with_name(name)


def _rewritten(path, text):
    path.write_text(text, encoding="utf-8")
    return path


@pytest.mark.parametrize("spoil, expected", [
    (lambda f: edit_lines(f / CALI, replace_row("DR,", "DR,-10.0,five,-12.0,6.0")),
     ["cause: ValueError: could not convert string to float: 'five'"]),
    (lambda f: edit_lines(f / CALI, replace_row("COMDR,TX,DR,3,", None)),     # a board missing from one section
     ["KeyError  getCOMDR() failed", "no entry 'COMDR' in the table"]),
    (lambda f: _renamed(f / CALI, "calibration.csv"), ["ERROR_BF_CALI_PATH  the name is not <SN>_<freq>GHz.csv"]),
    (lambda f: edit_lines(f / KIT, replace_row("TYPE", None)), ["KeyError  the kit has no TYPE row"]),
    # a switch value the hooks never see
    (lambda f: _edit_beam(f, lambda t: t["TX"]["2"]["channel_config"]["board_1"]["channel_1"].update(sw=2)),
     ["board_1 channel_1: sw is 2, expected 0 (on) or 1 (off) at TX beam 2"]),
    (lambda f: _rewritten(f / BEAM, '{"VERSION": "v2.0.0",\n "TX": {,}}'),
     ["ERROR_BF_BEAM  BeamTable loading exception", "not valid JSON at line 2 column 9"]),
], ids=["not a number", "missing board", "unknown name", "kit without type", "beam switch", "beam not json"])
def test_a_problem_is_reported_with_its_reason(files, capsys, spoil, expected):
    status, out, _ = run_tool(capsys, "check", spoil(files))
    assert status == 1 and all(text in out for text in expected), out


def _old_format(files):
    path = files / "BeamTable" / "Beam_Configuration_K5350R019-28_28GHz.json"
    channels = [{"channel": ch, "sw": 0, "db": 4.0, "deg": 10 * ch} for ch in range(1, 17)]
    old = {"version": "v1.0.0",
           "TX_beam_list": [{"beamId": 3, "beam_type": 1, "channel_config": channels,
                             "db": 1.0, "theta": 0, "phi": 0, "channel_switch": 0}],
           "RX_beam_list": []}
    path.write_text(json.dumps(old), encoding="utf-8")
    return path


def test_an_old_beam_table_converts_and_its_unset_common_gains_are_named(files, capsys):
    # Conversion leaves every board's common_db null for the user to fill: the
    # converted channel beams cannot pass a gain check until then.
    path = _old_format(files)
    before = path.read_bytes()
    status, out, _ = run_tool(capsys, "check", path)
    assert status == 1, out
    assert "warning  old format v1.0.0: loading converts it" in out
    assert "board_1 common_db is None, not a number" in out and "at TX beam 3" in out
    assert path.read_bytes() == before


def test_a_folder_with_one_bad_table_fails_and_counts_skipped_files(files, capsys):
    (files / "notes.txt").write_text("not a table", encoding="utf-8")
    edit_lines(files / CALI, replace_row("END", None))
    status, out, _ = run_tool(capsys, "check", files)
    assert status == 1
    assert out.splitlines()[-1] == "3 files checked: 2 valid, 1 invalid; 1 other file skipped"


def test_json_output_carries_every_problem(files, capsys):
    edit_lines(files / KIT, replace_row("OFFSET_TX", "OFFSET_TX,x" + ",0" * 15))
    status, out, _ = run_tool(capsys, "check", "--json", files)
    report = json.loads(out)
    assert status == 1 and report["valid"] is False
    by_kind = {entry["kind"]: entry for entry in report["files"]}
    assert by_kind["calibration"]["valid"] and by_kind["calibration"]["problems"] == []
    [problem] = by_kind["kit"]["problems"]
    assert problem["code"] == "ERROR_BF_NO_AAKIT" and problem["severity"] == "error"
    assert problem["where"] == "line %d (OFFSET_TX)" % line_number(files / KIT, "OFFSET_TX")
    assert problem["detail"] == "ValueError: invalid literal for int() with base 10: 'x'"


def test_progress_goes_to_stderr_only(files, capsys):
    status, out, err = run_tool(capsys, "check", "--progress", files)
    assert status == 0 and "[3/3] checking" in err and "checking" not in out


def test_the_environment_and_loggers_are_left_as_they_were(files, capsys, monkeypatch):
    monkeypatch.setenv("VEXCORE_FILES_DIR", "/somewhere/else")
    logger = logging.getLogger("BeamTbl")
    handlers, level = list(logger.handlers), logger.level
    run_tool(capsys, "check", files)
    assert os.environ["VEXCORE_FILES_DIR"] == "/somewhere/else"
    assert logger.handlers == handlers and logger.level == level and logger.propagate


@pytest.mark.parametrize("args, message", [
    (["check", "no/such/file.csv"], "vexcore-tables: no such file or folder: no/such/file.csv"),
    (["check", "--layout", "4x4", "x"], "expected BOARDSxICSxCHANNELS"),
])
def test_user_errors_are_one_line_without_traceback(tmp_path, args, message):
    done = subprocess.run([sys.executable, "-m", "vexcore.tables"] + args, cwd=tmp_path,
                          capture_output=True, text=True)
    assert done.returncode == 2
    assert message in done.stderr and "Traceback" not in done.stderr


def test_the_console_script_checks_the_samples(files):
    script = os.path.join(os.path.dirname(sys.executable), "vexcore-tables")
    done = subprocess.run([script, "check", "files"], cwd=files.parent, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stdout.splitlines()[-1] == "3 files checked: 3 valid, 0 invalid"


def test_the_bundled_beam_table_is_what_the_beam_manager_writes(files):
    from vexcore.samples import beam_table

    bundled = (files / BEAM).read_bytes()
    os.remove(files / BEAM)
    written = beam_table.write(str(files))
    assert written == str(files / BEAM)
    assert (files / BEAM).read_bytes() == bundled


def test_a_serial_number_with_a_path_separator_is_refused_and_nothing_written_outside(files, tmp_path, capsys):
    path = _edit_beam(files, lambda t: t.update(SN="../../escaped"))
    status, out, _ = run_tool(capsys, "check", path)
    assert status == 1 and "ERROR_BF_BEAM  BeamTable loading exception" in out
    assert not list(tmp_path.glob("**/*escaped*"))


def test_a_file_with_many_problems_lists_twenty_and_counts_the_rest(files, capsys):
    def many_bad_beams(table):
        for beam_id in range(3, 33):
            table["RX"][str(beam_id)] = {"beam_description": "", "beam_type": 0,
                                         "beam_config": {"db": 50.0, "theta": 0, "phi": 0}}
    path = _edit_beam(files, many_bad_beams)
    status, out, _ = run_tool(capsys, "check", path)
    assert status == 1
    assert sum(1 for line in out.splitlines() if "db 50 is outside the RX DR" in line) == 20
    assert "... and 10 more problems (--json lists them all)" in out
    status, out, _ = run_tool(capsys, "check", "--json", path)
    assert len(json.loads(out)["files"][0]["problems"]) == 30
