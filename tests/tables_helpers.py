"""Shared pieces of the table tool tests: a copy of the bundled samples, running the
tool in-process, editing sample files line by line, an old-format beam table."""
import json
import os
import shutil

from vexcore import samples
from vexcore.tables import cli

CALI = samples.CALIBRATION_FILE
KIT = samples.KIT_FILE
BEAM = samples.BEAM_TABLE_FILE


def copy_samples(folder):
    """folder/files with the bundled calibration table, kit and beam table."""
    files = folder / "files"
    (files / "BeamTable").mkdir(parents=True)
    for name in (CALI, KIT, BEAM):
        shutil.copyfile(os.path.join(samples.HERE, "files", name), files / name)
    return files


def run_tool(capsys, *args):
    """(exit status, stdout, stderr) of the tool run in this process."""
    code = cli.main([str(a) for a in args])
    captured = capsys.readouterr()
    return code, captured.out, captured.err


def edit_lines(path, edit, target=None):
    """Writes `edit(lines)` (lines without line ends) to `target` (default: in place)."""
    lines = path.read_text(encoding="utf-8").splitlines()
    target = target or path
    target.write_text("\n".join(edit(lines)) + "\n", encoding="utf-8")
    return target


def replace_row(key_prefix, new_row):
    """An edit replacing the first line starting with `key_prefix`."""
    def edit(lines):
        index = next(i for i, line in enumerate(lines) if line.startswith(key_prefix))
        return lines[:index] + ([new_row] if new_row is not None else []) + lines[index + 1:]
    return edit


def line_number(path, text):
    """1-based number of the first line of `path` containing `text`."""
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if text in line:
            return number
    raise AssertionError("%r not in %s" % (text, path))


def write_old_beam_table(files, length=16):
    """An old list-format table in place of the sample beam table: one TX channel beam (id 7)
    whose gains (2 dB per channel number) partly exceed the cap. Its conversion leaves every
    board's common_db null for the user to fill."""
    path = files / "BeamTable" / "Beam_Configuration_K5350R019-28_28GHz.json"
    channels = [{"channel": ch, "sw": ch % 2, "db": 2.0 * ch, "deg": 15 * ch} for ch in range(length, 0, -1)]
    path.write_text(json.dumps({"version": "v1.0.0", "RX_beam_list": [], "TX_beam_list": [
        {"beamId": 7, "beam_type": 1, "channel_config": channels, "beam_description": "old", "channel_switch": 1}]}))
    return path
