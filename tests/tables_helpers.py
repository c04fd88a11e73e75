"""Shared pieces of the table tool tests: a copy of the bundled samples, running the
tool in-process, and editing sample files line by line."""
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
