"""Saves that fail part way: a value that cannot be written deep inside the table,
a read-only folder, a full disk, a process killed while saving.

In every case the previous file must stay byte for byte as it was, no temporary
file may remain (hidden or not), and the tables in memory must be as the failed
operation leaves them.
"""
import json
import os
import subprocess
import sys
import textwrap

import pytest

from aakit_samples import LITE, STAMP, kit_rows, write_rows
from beam_helpers import COMDR, DR, ELEDR, SN, Hooks, channel_beam
from calibration_sample import make_sample
from vexcore.QRVPublic import BeamType, RetCode, RFMode

KIT = "Mine_" + STAMP
TABLE_NAME = "Beam_Configuration_%s_28GHz.json" % SN


# ------------------------------------------------------------ file systems ---

def mount_tmpfs(folder, size):
    """Mounts a tmpfs of `size` at `folder`; skips, saying why, where that is not allowed."""
    folder.mkdir(parents=True, exist_ok=True)
    done = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=%s" % size, "tmpfs", str(folder)],
                          capture_output=True, text=True)
    if done.returncode != 0:
        pytest.skip("cannot mount a small tmpfs here (%s); the full-disk case needs one"
                    % (done.stderr.strip() or "mount failed"))


def unmount(folder):
    subprocess.run(["umount", "-l", str(folder)], check=False)


@pytest.fixture
def small_disk(tmp_path, monkeypatch):
    """A 64 KiB file system as the files directory."""
    disk = tmp_path / "disk"
    mount_tmpfs(disk, "64k")
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(disk))
    yield disk
    unmount(disk)


def fill(disk, leave=0):
    """Fills the file system until at most `leave` bytes are free; returns the filler."""
    filler = disk / "filler.bin"
    stat = os.statvfs(disk)
    with open(filler, "wb", buffering=0) as f:
        f.write(b"\0" * max(stat.f_bavail * stat.f_frsize - leave, 0))
        while leave == 0:
            try:
                f.write(b"\0" * 512)
            except OSError:
                break
    return filler


@pytest.fixture
def make_read_only(tmp_path):
    """make_read_only(folder): from now on nothing can be created, changed or
    removed in `folder`. Root ignores permission bits, so root gets a read-only
    mount of the folder on itself; anyone else gets the permission bits."""
    mounted = []

    def seal(folder):
        if os.geteuid() != 0:
            folder.chmod(0o555)
            return
        done = subprocess.run(["mount", "--bind", str(folder), str(folder)], capture_output=True, text=True)
        if done.returncode == 0:
            mounted.append(folder)
            done = subprocess.run(["mount", "-o", "remount,bind,ro", str(folder)], capture_output=True, text=True)
        if done.returncode != 0:
            pytest.skip("running as root and cannot make a read-only mount (%s)" % done.stderr.strip())

    yield seal
    for folder in mounted:
        unmount(folder)
    for p in tmp_path.rglob("*"):
        if p.is_dir():
            p.chmod(0o755)


def listing(folder):
    """Every name in the folder, hidden ones included."""
    return sorted(os.listdir(folder))


# ------------------------------------------------------------------ beams ---

def loaded_beams(tm, hooks=None):
    manager = tm.BeamPatternTableManager(SN, 7, 8, (4, 1, 4), (hooks or Hooks()).funcs)
    manager._updateFreq(28.0, DR, COMDR, ELEDR)
    assert manager._load(28.0, "").RetCode == RetCode.OK
    return manager


def poisoned(table, value):
    """A copy of the table with `value` deep inside its last channel."""
    copy = json.loads(json.dumps(table))
    beam = channel_beam()
    beam["channel_config"]["board_4"]["channel_4"]["deg"] = value
    copy["RX"]["8"] = beam
    return copy


@pytest.mark.parametrize("bad_value", [object(), {1, 2}, "\ud800", b"bytes", 1j],
                         ids=["object", "set", "lone-surrogate", "bytes", "complex"])
def test_beam_save_of_a_value_json_cannot_write_keeps_the_previous_file(tm, files_dir, bad_value):
    manager = loaded_beams(tm)
    folder = files_dir / "BeamTable"
    before = (folder / TABLE_NAME).read_bytes()
    table = manager._BeamTable
    ret = manager._saveToBeamTableFile(new_table=poisoned(table, bad_value))
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM_FILE, "BeamFile saving exception")
    assert (folder / TABLE_NAME).read_bytes() == before
    assert listing(folder) == [TABLE_NAME]
    assert manager._BeamTable is table and table["RX"] == {}


def test_beam_set_whose_save_fails_keeps_the_file_and_the_new_beam_in_memory(tm, files_dir):
    manager = loaded_beams(tm)
    folder = files_dir / "BeamTable"
    before = (folder / TABLE_NAME).read_bytes()
    ret = manager.setBeamPattern(RFMode.TX, 2, BeamType.BEAM, {"db": 1.0, "theta": 0, "phi": 0},
                                 description="\ud800 cannot be written as UTF-8")
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM_FILE, "BeamFile saving exception")
    assert (folder / TABLE_NAME).read_bytes() == before
    assert listing(folder) == [TABLE_NAME]
    # The change is kept in memory (a later save can still write it once fixed).
    assert manager.getBeamPattern(RFMode.TX, 2).RetData["beam_config"]["db"] == 1.0


def test_beam_batch_whose_save_fails_keeps_the_previous_file(tm, files_dir):
    manager = loaded_beams(tm)
    folder = files_dir / "BeamTable"
    assert manager.setBeamPattern(RFMode.TX, 1, BeamType.CHANNEL, None, "kept").RetCode == RetCode.OK
    before = (folder / TABLE_NAME).read_bytes()
    batch = {"TX": {"3": dict(channel_beam(), beam_description="\udcff")}}
    ret = manager._setBatchBeamPattern(batch, 13)       # validate, save, replace all
    assert ret.RetCode == RetCode.ERROR_BF_BEAM_FILE
    assert (folder / TABLE_NAME).read_bytes() == before and listing(folder) == [TABLE_NAME]
    assert list(manager._BeamTable["TX"]) == ["3"]      # replaced in memory, as applied


def test_beam_save_into_a_read_only_folder_fails_cleanly(tm, files_dir, make_read_only):
    manager = loaded_beams(tm)
    folder = files_dir / "BeamTable"
    before = (folder / TABLE_NAME).read_bytes()
    make_read_only(folder)
    assert manager.setBeamPattern(RFMode.TX, 1, BeamType.CHANNEL).RetCode == RetCode.ERROR_BF_BEAM_FILE
    assert manager._saveToBeamTableFile().RetCode == RetCode.ERROR_BF_BEAM_FILE
    assert (folder / TABLE_NAME).read_bytes() == before and listing(folder) == [TABLE_NAME]
    # A table that needs creating cannot be, and the load says so.
    assert manager._load(27.5, "").RetCode == RetCode.ERROR_BF_BEAM
    assert listing(folder) == [TABLE_NAME]


def test_beam_save_on_a_full_disk_keeps_the_previous_file_and_works_once_space_is_back(tm, small_disk):
    manager = loaded_beams(tm)
    folder = small_disk / "BeamTable"
    before = (folder / TABLE_NAME).read_bytes()
    for beam_id in range(1, 9):     # about 40 KB of channel beams, more than is left
        manager.setBeamPattern(RFMode.TX, beam_id, BeamType.CHANNEL, None, "x" * 200, save=False)
    filler = fill(small_disk, leave=8192)
    ret = manager._saveToBeamTableFile()
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM_FILE, "BeamFile saving exception")
    assert (folder / TABLE_NAME).read_bytes() == before and listing(folder) == [TABLE_NAME]
    filler.unlink()
    assert manager._saveToBeamTableFile().RetCode == RetCode.OK
    assert json.loads((folder / TABLE_NAME).read_text(encoding="utf-8")) == manager._BeamTable
    assert listing(folder) == [TABLE_NAME]


def test_beam_upgrade_on_a_full_disk_loads_and_leaves_the_old_file(tm, small_disk):
    folder = small_disk / "BeamTable"
    folder.mkdir()
    old = {"VERSION": "v1.5.0", "SN": SN, "DEV_TYPE": 7, "FREQ": 28.0, "AAKIT_NAME": "",
           "TX": {"1": channel_beam()}, "RX": {}}
    (folder / TABLE_NAME).write_text(json.dumps(old, indent=2), encoding="utf-8")
    before = (folder / TABLE_NAME).read_bytes()
    fill(small_disk)
    manager = tm.BeamPatternTableManager(SN, 7, 8, (4, 1, 4))
    manager._updateFreq(28.0, DR, COMDR, ELEDR)
    ret = manager._load(28.0, "")
    # The re-save is not part of the load's result: the table is loaded, the file stays old.
    assert ret.RetCode == RetCode.OK and ret.RetData == old
    assert (folder / TABLE_NAME).read_bytes() == before and listing(folder) == [TABLE_NAME]


# ------------------------------------------------------------------- kits ---

def kits_with_saved_kit(tm, files_dir):
    write_rows(files_dir / ("AAKIT_%s.csv" % KIT), kit_rows(KIT, kit_type=1))
    kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    assert kits.parse().RetCode == RetCode.OK
    return kits


class Unwritable:
    def __str__(self):
        raise RuntimeError("this value has no text form")


@pytest.mark.parametrize("field, bad", [("OFFSET_RX", [0, 1, 2, Unwritable()]), ("STEERING_V", "\ud800"),
                                        ("OFFSET_TX", None)], ids=["raising-str", "lone-surrogate", "missing"])
def test_kit_save_that_fails_keeps_the_previous_file(tm, files_dir, field, bad):
    kits = kits_with_saved_kit(tm, files_dir)
    path = files_dir / ("AAKIT_%s.csv" % KIT)
    before = path.read_bytes()
    record = kits._AAKitTable[KIT]
    record["SPACING"] = [6.0, 6.0]          # a change that would reach the file first
    if bad is None:
        del record[field]
    else:
        record[field] = bad
    ret = kits.saveAAKitFile(KIT)
    assert ret.RetCode == RetCode.ERROR_BF_AAKIT
    assert path.read_bytes() == before and listing(files_dir) == [path.name]


def test_kit_save_into_a_read_only_folder_or_full_disk_fails_cleanly(tm, small_disk, make_read_only):
    kits = kits_with_saved_kit(tm, small_disk)
    path = small_disk / ("AAKIT_%s.csv" % KIT)
    before = path.read_bytes()
    kits._AAKitTable[KIT]["OFFSET_TX"] = [123456789] * 4
    filler = fill(small_disk)
    assert kits.saveAAKitFile(KIT).RetCode == RetCode.ERROR_BF_AAKIT
    assert path.read_bytes() == before and listing(small_disk) == sorted([path.name, filler.name])
    filler.unlink()
    make_read_only(small_disk)
    assert kits.saveAAKitFile(KIT).RetCode == RetCode.ERROR_BF_AAKIT
    # A kit that cannot be deleted from disk is reported; the file stays.
    assert kits.deleteAAKitInfo(KIT).RetCode == RetCode.ERROR_BF_AAKIT
    assert path.read_bytes() == before and listing(small_disk) == [path.name]


# ------------------------------------------------------------ calibration ---

def test_calibration_export_that_fails_keeps_the_previous_export(tm, small_disk, make_read_only):
    sample = make_sample(arms=1)
    csv_path = sample.write(small_disk)
    json_path = csv_path.with_suffix(".json")
    manager = tm.CalibrationTableManager(SN, 28, lambda: (4, 1, 4))
    assert manager.parse(exportToJson=True).RetCode == RetCode.OK
    before = json_path.read_bytes()
    sample.rows[0] = ["VER", "2.2.0"]         # a new table, so a new export would differ
    sample.expected["VER"] = "2.2.0"
    sample.write(small_disk)
    # Room for the CSV to be read but not for the new export beside the old one.
    filler = fill(small_disk, leave=4096)
    ret = manager.parse(exportToJson=True)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_CALI_PARSE, "parse exception")
    assert manager._CaliTable == sample.expected        # the parse itself succeeded
    assert json_path.read_bytes() == before
    assert listing(small_disk) == sorted([csv_path.name, json_path.name, filler.name])
    filler.unlink()
    make_read_only(small_disk)
    assert manager.parse(exportToJson=True).RetMsg == "parse exception"
    assert json_path.read_bytes() == before and listing(small_disk) == sorted([csv_path.name, json_path.name])


# --------------------------------------------------------- killed mid-save ---

SAVER = textwrap.dedent("""
    import os, sys
    import vexcore.qrvdev.QRVTableManager as tm
    from vexcore.QRVPublic import RFMode, BeamType
    from vexcore.QRVUtils import RetType
    hooks = (lambda mode, db, theta, phi, extra: RetType(data=(db, theta, phi)),
             lambda mode, board, gains, common: RetType(data=gains))
    m = tm.BeamPatternTableManager("SN1", 7, 1024, (64, 1, 16), hooks)
    layout = 64
    dr = {"TX": [-9.5, 5.0], "RX": [-5.0, 10.0]}
    m._updateFreq(28.0, dr, [[1.0] * layout] * 2, [[2.0] * layout] * 2)
    m._load(28.0, "")
    table = m._BeamTable
    for beam_id in range(1, 65):
        m.setBeamPattern(RFMode.TX, beam_id, BeamType.CHANNEL, None, "v", save=False)
    sys.stdout.write("ready\\n"); sys.stdout.flush()
    n = 0
    while True:
        n += 1
        table["AAKIT_NAME"] = "round %d" % n
        m._saveToBeamTableFile()
""")


def test_a_process_killed_while_saving_leaves_a_whole_table(tm, files_dir):
    folder = files_dir / "BeamTable"
    path = folder / "Beam_Configuration_SN1_28GHz.json"
    for delay in (0.05, 0.13, 0.31, 0.47, 0.71):
        saver = subprocess.Popen([sys.executable, "-c", SAVER], stdout=subprocess.PIPE, text=True,
                                 env=dict(os.environ, VEXCORE_FILES_DIR=str(files_dir)))
        assert saver.stdout.readline() == "ready\n"
        try:
            saver.wait(timeout=delay)
        except subprocess.TimeoutExpired:
            saver.kill()
        saver.wait()
        saver.stdout.close()
        table = json.loads(path.read_text(encoding="utf-8"))       # whole, or this raises
        assert len(table["TX"]) in (0, 64)
        # A kill can leave only the hidden temporary file of the save it interrupted.
        leftovers = [name for name in listing(folder) if name != path.name]
        assert all(name.startswith("." + path.name + ".") for name in leftovers)
        for name in leftovers:
            (folder / name).unlink()
