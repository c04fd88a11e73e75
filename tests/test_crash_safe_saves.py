"""Saves that fail part way: a value that cannot be written deep inside the table,
a read-only folder, a full disk, a process killed while saving. The previous file
stays byte for byte, no temporary file remains (hidden or not), and memory is as
the failed operation leaves it.
"""
import json
import os
import random
import re
import signal
import socket
import subprocess
import sys
import time

import pytest
from aakit_samples import LITE, STAMP, kit_rows, write_rows
from beam_helpers import SN, Hooks, channel_beam, make_manager
from calibration_sample import SN as CALI_SN
from calibration_sample import make_sample
from tables_helpers import run_tool

from vexcore.qrvdev.QRVTableManager import _codec
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

def poisoned(manager, bad_value):
    """A copy of the manager's table with a value deep inside that json cannot write."""
    table = json.loads(json.dumps(manager._BeamTable))
    table["RX"]["8"] = channel_beam()
    table["RX"]["8"]["channel_config"]["board_4"]["channel_4"]["deg"] = bad_value
    return table


@pytest.mark.parametrize("change, tx_in_memory", [
    *[(lambda m, bad=bad: m._saveToBeamTableFile(new_table=poisoned(m, bad)), ["1"])
      for bad in (object(), {1, 2}, "\ud800", b"bytes", 1j)],
    (lambda m: m.setBeamPattern(RFMode.TX, 2, BeamType.BEAM, {"db": 1.0, "theta": 0, "phi": 0}, "\ud800"), ["1", "2"]),
    (lambda m: m._setBatchBeamPattern({"TX": {"3": dict(channel_beam(), beam_description="\udcff")}}, 13), ["3"]),
    (lambda m: m._saveToBeamTableFile(lambda **kwargs: 1 / 0), ["1"]),
], ids=["object", "set", "lone-surrogate", "bytes", "complex", "set-beam", "batch-replacing-all", "callback-raises"])
def test_a_beam_save_that_fails_keeps_the_previous_file_and_memory_as_the_change_left_it(tm, files_dir, caplog, change,
                                                                                        tx_in_memory):
    manager, path, _ = loaded_beams(tm, files_dir)
    assert manager.setBeamPattern(RFMode.TX, 1, BeamType.CHANNEL, None, "kept").RetCode == RetCode.OK
    before = path.read_bytes()
    ret = change(manager)
    assert (ret.RetCode, ret.RetMsg) == BEAM_SAVE_FAILED
    [failure] = [r for r in caplog.records if r.levelname == "ERROR"]
    assert failure.getMessage() == BEAM_SAVE_FAILED[1] and failure.exc_info is not None
    assert_untouched(path, before)
    # A table handed in is not adopted; a change is kept in memory, so that a later save can write it once fixed.
    assert list(manager._BeamTable["TX"]) == tx_in_memory and manager._BeamTable["RX"] == {}


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

def test_saves_and_deletes_in_a_read_only_folder_fail_cleanly(tm, files_dir, make_read_only):
    manager, beam_path, beam_before = loaded_beams(tm, files_dir)
    kit_path = write_rows(files_dir / ("AAKIT_%s.csv" % KIT), kit_rows(KIT, kit_type=1))
    kit_before = kit_path.read_bytes()
    kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    assert kits.parse().RetCode == RetCode.OK
    kits._AAKitTable[KIT]["OFFSET_TX"] = [123456789] * 4
    make_read_only(beam_path.parent)
    make_read_only(files_dir)
    assert manager._saveToBeamTableFile().RetCode == RetCode.ERROR_BF_BEAM_FILE
    # A table that needs creating cannot be, and the load says so.
    assert manager._load(27.5, "").RetCode == RetCode.ERROR_BF_BEAM
    assert_untouched(beam_path, beam_before)
    assert kits.saveAAKitFile(KIT).RetCode == RetCode.ERROR_BF_AAKIT
    # A kit that cannot be deleted from disk is reported; the file stays.
    assert kits.deleteAAKitInfo(KIT).RetCode == RetCode.ERROR_BF_AAKIT
    assert_untouched(kit_path, kit_before, "BeamTable")


# ------------------------------------------------- killed at any instant ---

def killed_at_random_instants(work, kills, seed):
    """Runs work() over and over in a forked child and SIGKILLs it after a random
    delay, `kills` times; yields after each kill."""
    rng = random.Random(seed)
    for _ in range(kills):
        ready, tell = os.pipe()
        pid = os.fork()
        if pid == 0:           # the child: never returns into pytest
            try:
                os.write(tell, b"r")
                while True:
                    work()
            finally:
                os._exit(1)
        os.close(tell)
        assert os.read(ready, 1) == b"r"
        os.close(ready)
        time.sleep(rng.uniform(0, 0.04))
        os.kill(pid, signal.SIGKILL)
        _, status = os.waitpid(pid, 0)
        assert os.WIFSIGNALED(status) and os.WTERMSIG(status) == signal.SIGKILL, "the child failed on its own"
        yield


def strays(folder, *tables):
    """The files beside the tables, each of which must be a temporary its killed owner left."""
    left = sorted(set(os.listdir(folder)) - set(tables))
    owned = {os.fsdecode(name): (kind, stale) for name, kind, _, _, _, stale in _codec.owned_files(os.fsencode(folder))}
    assert all(owned.get(name) == ("tmp", True) for name in left), (left, owned)
    return left


def test_a_kit_rename_killed_at_any_instant_leaves_the_kit_once_under_one_of_its_names(tm, files_dir, time_zone):
    time_zone("UTC")
    write_rows(files_dir / ("AAKIT_%s.csv" % KIT), kit_rows(KIT, kit_type=1, tx=(7,) * 4))

    def rename_over_and_over():
        kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
        kits.parse()
        name = next(iter(kits._AAKitTable))
        while True:
            name = kits.setAAKitInfo(name, [5, 5], [-45, 45], [-30, 30], [7] * 4, [3, 2, 1, 0],
                                     newKitName="Mine").RetData

    for _ in killed_at_random_instants(rename_over_and_over, 16, seed=15):
        kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
        assert kits.parse().RetCode == RetCode.OK
        [name] = kits._AAKitTable
        assert kits._AAKitTable[name]["OFFSET_TX"] == [7] * 4
        assert os.listdir(files_dir) == ["AAKIT_%s.csv" % name]      # no second copy, journal or temporary


def owned_name(kind, pid, rest):
    """A name of the files the module owns, as process `pid` of this host makes them."""
    host = re.sub(r"[^A-Za-z0-9_-]", "_", socket.gethostname())[:32] or "localhost"
    return ".vexcore-%s-%d-AbCdEf-%s.%s" % (kind, pid, host, rest)


def dead_pid():
    gone = subprocess.Popen([sys.executable, "-c", ""])
    gone.wait()
    return gone.pid


@pytest.mark.parametrize("files, kept", [
    (["old", "new"], "new"),      # killed after the new file was written: the old one goes
    (["old"], "old"),             # killed before: the rename never happened
    (["new"], "new"),             # killed after the old file went
])
def test_the_next_parse_finishes_or_forgets_a_rename_whose_process_was_killed(tm, files_dir, files, kept):
    names = {"old": KIT, "new": "Renamed_" + STAMP}
    for which in files:
        write_rows(files_dir / ("AAKIT_%s.csv" % names[which]), kit_rows(names[which], kit_type=1))
    journal = owned_name("rename", dead_pid(), "AAKIT")
    (files_dir / journal).write_text("AAKIT_%s.csv\nAAKIT_%s.csv\n" % (names["old"], names["new"]))
    kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    assert kits.parse().RetCode == RetCode.OK and list(kits._AAKitTable) == [names[kept]]
    assert os.listdir(files_dir) == ["AAKIT_%s.csv" % names[kept]]


def test_a_beam_save_killed_at_any_instant_leaves_a_whole_table_and_the_next_save_clears_up(tm, files_dir):
    manager, path, _ = loaded_beams(tm, files_dir)
    manager._BeamTable["TX"] = {str(beam_id): channel_beam() for beam_id in range(1, 200)}
    rounds = iter(range(10 ** 9))

    def save_over_and_over():
        manager._BeamTable["AAKIT_NAME"] = "round %d" % next(rounds)
        manager._saveToBeamTableFile()

    for _ in killed_at_random_instants(save_over_and_over, 12, seed=16):
        table = json.loads(path.read_text(encoding="utf-8"))       # whole, or this raises
        assert len(table["TX"]) in (0, 199)
        strays(path.parent, path.name)
        assert manager._saveToBeamTableFile().RetCode == RetCode.OK
        assert os.listdir(path.parent) == [path.name]


def test_a_calibration_export_killed_at_any_instant_leaves_a_whole_export(tm, files_dir):
    table = make_sample().write(files_dir)
    manager = tm.CalibrationTableManager(CALI_SN, 28, tm.fake_rf_layout)
    assert manager.parse(exportToJson=True).RetCode == RetCode.OK
    export = table.with_suffix(".json")
    expected = export.read_bytes()

    for _ in killed_at_random_instants(lambda: manager.parse(exportToJson=True), 12, seed=17):
        assert export.read_bytes() == expected
        strays(files_dir, export.name, table.name)


def killed_named_save(folder, target_name):
    """The temporary a save left when killed where the file system has no unnamed
    temporaries: a child saves a large file under an owned name and is killed as
    soon as that name appears."""
    target = os.path.join(os.fsencode(folder), os.fsencode(target_name))
    for _ in range(20):
        pid = os.fork()
        if pid == 0:
            try:
                _codec.write_file_atomic_named(target, b" " * (64 << 20))
            finally:
                os._exit(1)
        deadline = time.monotonic() + 5
        while not _codec.owned_files(os.fsencode(folder)) and time.monotonic() < deadline:
            time.sleep(0.0005)
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)
        [left] = _codec.owned_files(os.fsencode(folder)) or [None]
        if left is not None:
            return left
    pytest.fail("no save was caught in the middle")


def test_leftovers_of_killed_saves_are_reported_by_check_and_removed_by_the_next_save(tm, files_dir, capsys):
    manager, path, _ = loaded_beams(tm, files_dir)
    folder = path.parent
    name, kind, pid, host, local, stale = killed_named_save(folder, path.name)
    assert (kind, local, stale) == ("tmp", True, True) and os.fsdecode(name).endswith("." + path.name)
    killed = folder / os.fsdecode(name)
    live = folder / owned_name("tmp", os.getpid(), path.name)
    assert host in live.name
    earlier = folder / (".%s.Xy12Zq" % path.name)          # as an earlier version named its temporaries
    for stray in (live, earlier):
        stray.write_bytes(b"{" * 1000)
    status, out, _ = run_tool(capsys, "check", "--json", folder)
    report = json.loads(out)
    assert sorted(s["path"] for s in report["strays"]) == sorted(map(str, (killed, live, earlier)))
    assert [f["path"] for f in report["files"]] == [str(path)] and status == 0
    status, out, _ = run_tool(capsys, "check", folder)
    assert "left by process %d, which was killed" % pid in out and "in use by process %d" % os.getpid() in out
    assert out.splitlines()[-1].startswith("3 stray files (")
    # The next save removes what no live process owns; the rest it cannot judge.
    assert manager._saveToBeamTableFile().RetCode == RetCode.OK
    assert sorted(os.listdir(folder)) == sorted([path.name, live.name, earlier.name])
