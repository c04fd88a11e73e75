"""Saves that fail part way: a value that cannot be written deep inside the table,
a read-only folder, a full disk, a process killed while saving. The previous file
stays byte for byte, no temporary file remains (hidden or not), and memory is as
the failed operation leaves it.
"""
import json
import os
import subprocess
import sys

import pytest

from aakit_samples import LITE, STAMP, kit_rows, write_rows
from beam_helpers import SN, Hooks, channel_beam, make_manager
from vexcore.QRVPublic import BeamType, RetCode, RFMode

KIT = "Mine_" + STAMP
TABLE_NAME = "Beam_Configuration_%s_28GHz.json" % SN
BEAM_SAVE_FAILED = (RetCode.ERROR_BF_BEAM_FILE, "BeamFile saving exception")


@pytest.fixture
def small_disk(tmp_path, monkeypatch):
    """A 64 KiB file system as the files directory."""
    disk = tmp_path / "disk"
    disk.mkdir()
    done = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", str(disk)],
                          capture_output=True, text=True)
    if done.returncode != 0:
        pytest.skip("cannot mount a small tmpfs here (%s); the full-disk case needs one" % done.stderr.strip())
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(disk))
    yield disk
    subprocess.run(["umount", "-l", str(disk)], check=False)


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
    for folder in reversed(mounted):
        subprocess.run(["umount", "-l", str(folder)], check=False)
    for p in tmp_path.rglob("*"):
        if p.is_dir():
            p.chmod(0o755)


def assert_untouched(path, before, *others):
    """The file is as it was and the folder holds nothing else (hidden names included)."""
    assert path.read_bytes() == before
    assert sorted(os.listdir(path.parent)) == sorted([path.name, *others])


def loaded_beams(tm, files_dir):
    """A loaded beam manager, the path of its table file and the file's bytes."""
    manager = make_manager(tm, Hooks())
    assert manager._load(28.0, "").RetCode == RetCode.OK
    path = files_dir / "BeamTable" / TABLE_NAME
    return manager, path, path.read_bytes()


# ------------------------------------------------------------------ beams ---

@pytest.mark.parametrize("bad_value", [object(), {1, 2}, "\ud800", b"bytes", 1j],
                         ids=["object", "set", "lone-surrogate", "bytes", "complex"])
def test_beam_save_of_a_value_json_cannot_write_deep_inside_keeps_the_previous_file(tm, files_dir, bad_value):
    manager, path, before = loaded_beams(tm, files_dir)
    table = manager._BeamTable
    poisoned = json.loads(json.dumps(table))
    poisoned["RX"]["8"] = channel_beam()
    poisoned["RX"]["8"]["channel_config"]["board_4"]["channel_4"]["deg"] = bad_value
    ret = manager._saveToBeamTableFile(new_table=poisoned)
    assert (ret.RetCode, ret.RetMsg) == BEAM_SAVE_FAILED
    assert_untouched(path, before)
    assert manager._BeamTable is table and table["RX"] == {}


@pytest.mark.parametrize("change, tx_in_memory", [
    (lambda m: m.setBeamPattern(RFMode.TX, 2, BeamType.BEAM, {"db": 1.0, "theta": 0, "phi": 0}, "\ud800"), ["1", "2"]),
    (lambda m: m._setBatchBeamPattern({"TX": {"3": dict(channel_beam(), beam_description="\udcff")}}, 13), ["3"]),
], ids=["set", "batch-replacing-all"])
def test_beam_change_whose_save_fails_keeps_the_file_and_the_change_in_memory(tm, files_dir, change, tx_in_memory):
    manager, path, _ = loaded_beams(tm, files_dir)
    assert manager.setBeamPattern(RFMode.TX, 1, BeamType.CHANNEL, None, "kept").RetCode == RetCode.OK
    before = path.read_bytes()
    assert change(manager).RetCode == RetCode.ERROR_BF_BEAM_FILE
    assert_untouched(path, before)
    # The change is kept in memory: a later save can still write it once fixed.
    assert list(manager._BeamTable["TX"]) == tx_in_memory


def test_beam_save_on_a_full_disk_keeps_the_previous_file_and_works_once_space_is_back(tm, small_disk):
    manager, path, before = loaded_beams(tm, small_disk)
    for beam_id in range(1, 9):     # about 40 KB of channel beams, more than is left
        manager.setBeamPattern(RFMode.TX, beam_id, BeamType.CHANNEL, None, "x" * 200, save=False)
    # Fill the disk until about 8 KiB are left.
    stat = os.statvfs(small_disk)
    filler = small_disk / "filler.bin"
    filler.write_bytes(b"\0" * max(stat.f_bavail * stat.f_frsize - 8192, 0))
    ret = manager._saveToBeamTableFile()
    assert (ret.RetCode, ret.RetMsg) == BEAM_SAVE_FAILED
    assert_untouched(path, before)
    filler.unlink()
    assert manager._saveToBeamTableFile().RetCode == RetCode.OK
    assert json.loads(path.read_text(encoding="utf-8")) == manager._BeamTable
    assert_untouched(path, path.read_bytes())


# ------------------------------------------------------------------- kits ---

def kits_with_saved_kit(tm, files_dir):
    path = write_rows(files_dir / ("AAKIT_%s.csv" % KIT), kit_rows(KIT, kit_type=1))
    kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    assert kits.parse().RetCode == RetCode.OK
    return kits, path, path.read_bytes()


def test_saves_and_deletes_in_a_read_only_folder_fail_cleanly(tm, files_dir, make_read_only):
    manager, beam_path, beam_before = loaded_beams(tm, files_dir)
    kits, kit_path, kit_before = kits_with_saved_kit(tm, files_dir)
    kits._AAKitTable[KIT]["OFFSET_TX"] = [123456789] * 4
    make_read_only(beam_path.parent)
    make_read_only(files_dir)
    assert manager.setBeamPattern(RFMode.TX, 1, BeamType.CHANNEL).RetCode == RetCode.ERROR_BF_BEAM_FILE
    assert manager._saveToBeamTableFile().RetCode == RetCode.ERROR_BF_BEAM_FILE
    # A table that needs creating cannot be, and the load says so.
    assert manager._load(27.5, "").RetCode == RetCode.ERROR_BF_BEAM
    assert_untouched(beam_path, beam_before)
    assert kits.saveAAKitFile(KIT).RetCode == RetCode.ERROR_BF_AAKIT
    # A kit that cannot be deleted from disk is reported; the file stays.
    assert kits.deleteAAKitInfo(KIT).RetCode == RetCode.ERROR_BF_AAKIT
    assert_untouched(kit_path, kit_before, "BeamTable")


# --------------------------------------------------------- killed mid-save ---

# Saves a 64-beam table of a 1024-channel device (a few MB) over and over.
SAVER = """
import vexcore.qrvdev.QRVTableManager as tm
m = tm.BeamPatternTableManager("SN1", 7, 1024, (64, 1, 16))
m._load(28.0, "")
channels = {"channel_%d" % c: {"sw": 1, "db": 1.5, "deg": c} for c in range(1, 17)}
beam = {"beam_description": "v", "beam_type": 1,
        "channel_config": {"board_%d" % b: dict(channels, common_db=1.0) for b in range(1, 65)}}
m._BeamTable["TX"] = {str(beam_id): beam for beam_id in range(1, 65)}
print("ready", flush=True)
for n in range(10 ** 9):
    m._BeamTable["AAKIT_NAME"] = "round %d" % n
    m._saveToBeamTableFile()
"""


def test_a_process_killed_while_saving_leaves_a_whole_table(files_dir):
    path = files_dir / "BeamTable" / "Beam_Configuration_SN1_28GHz.json"
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
        for name in set(os.listdir(path.parent)) - {path.name}:
            assert name.startswith("." + path.name + ".")
            (path.parent / name).unlink()
