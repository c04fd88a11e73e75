"""Managers used from several threads at once.

The module holds the GIL whenever it touches Python objects and lets it go only
while a file is read or written (the bytes are then plain C++ buffers). These
tests switch threads as often as the interpreter allows and check that nothing
crashes, no update made in memory is lost, every file on disk is a whole table,
and the garbage collector, paused while big tables are built, is on afterwards.
"""
import gc
import json
import sys
import threading

import pytest

from aakit_samples import LITE, STAMP, kit_rows, write_rows
from beam_helpers import COMDR, DR, ELEDR, Hooks, channel_beam
from calibration_sample import SN as CALI_SN, make_sample
from vexcore.QRVPublic import BeamType, RetCode, RFMode

THREADS = 4
ROUNDS = 25


@pytest.fixture(autouse=True)
def frequent_switches():
    """Threads switch every 10 microseconds instead of every 5 milliseconds."""
    previous = sys.getswitchinterval()
    sys.setswitchinterval(1e-5)
    yield
    sys.setswitchinterval(previous)
    assert gc.isenabled()


def run_threads(work, count=THREADS):
    """Runs work(index) in `count` threads started together; re-raises the first failure."""
    start = threading.Barrier(count)
    failures = []

    def body(index):
        try:
            start.wait()
            work(index)
        except BaseException as exc:     # noqa: BLE001 - reported to the test below
            failures.append(exc)

    threads = [threading.Thread(target=body, args=(i,)) for i in range(count)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(timeout=300)
        assert not t.is_alive(), "a thread is stuck"
    if failures:
        raise failures[0]


def beam_manager(tm, sn, num_beam=8):
    manager = tm.BeamPatternTableManager(sn, 7, num_beam, (4, 1, 4), Hooks().funcs)
    manager._updateFreq(28.0, DR, COMDR, ELEDR)
    assert manager._load(28.0, "").RetCode == RetCode.OK
    return manager


def table_file(files_dir, sn):
    return files_dir / "BeamTable" / ("Beam_Configuration_%s_28GHz.json" % sn)


def test_separate_managers_in_separate_threads(tm, files_dir):
    make_sample().write(files_dir)
    expected_cali = make_sample().expected

    def work(index):
        sn = "SN%d" % index
        beams = beam_manager(tm, sn)
        cali = tm.CalibrationTableManager(CALI_SN, 28, lambda: (4, 1, 4))
        kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
        kit_name = "Kit%d_%s" % (index, STAMP)
        kits.setAAKitInfo(kit_name, [5.0, 5.0], [-45.0, 45.0], [0.0, 0.0], [0, 1, 2, 3], [3, 2, 1, 0], custom=0)
        for n in range(ROUNDS):
            db = float(n % 4)
            assert beams.setBeamPattern(RFMode.TX, n % 8 + 1, BeamType.CHANNEL,
                                        {"board_2": {"channel_3": {"sw": 1, "db": db, "deg": n}}}).RetCode == RetCode.OK
            assert beams.getBeamPattern(RFMode.TX, n % 8 + 1).RetData["channel_config"]["board_2"]["channel_3"]["deg"] == n
            assert cali.parse().RetCode == RetCode.OK
            assert cali._CaliTable == expected_cali
            assert cali.getCOMDR().RetCode == RetCode.OK
            assert kits.saveAAKitFile(kit_name).RetCode == RetCode.OK
        assert json.loads(table_file(files_dir, sn).read_text(encoding="utf-8")) == beams._BeamTable

    run_threads(work)
    kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    assert kits.parse().RetCode == RetCode.OK
    assert sorted(kits._AAKitTable) == ["Kit%d_%s" % (i, STAMP) for i in range(THREADS)]


def test_one_beam_manager_shared_by_threads_loses_no_update(tm, files_dir):
    beams = beam_manager(tm, "SHARED", num_beam=THREADS * ROUNDS)
    path = table_file(files_dir, "SHARED")
    seen_on_disk = []

    def work(index):
        for n in range(ROUNDS):
            beam_id = index * ROUNDS + n + 1
            if n % 2:
                ret = beams.setBeamPattern(RFMode.RX, beam_id, BeamType.BEAM, {"db": 1.0, "theta": index, "phi": n},
                                           "thread %d" % index)
            else:
                ret = beams.setBeamPattern(RFMode.RX, beam_id, BeamType.CHANNEL, None, "thread %d" % index)
            assert ret.RetCode == RetCode.OK
            assert beams._getBatchBeamPattern().RetData["RX"][str(beam_id)]["beam_description"] == "thread %d" % index
            if index == 0:
                # Every file another thread may be replacing right now reads whole.
                seen_on_disk.append(len(json.loads(path.read_text(encoding="utf-8"))["RX"]))

    run_threads(work)
    rx = beams._BeamTable["RX"]
    assert sorted(rx, key=int) == [str(i) for i in range(1, THREADS * ROUNDS + 1)]
    for beam_id, beam in rx.items():
        index = (int(beam_id) - 1) // ROUNDS
        assert beam["beam_description"] == "thread %d" % index
    assert seen_on_disk and all(0 <= n <= THREADS * ROUNDS for n in seen_on_disk)
    # Saves that overlapped may have finished in any order; the next one writes
    # the whole table as it is now.
    assert beams._saveToBeamTableFile().RetCode == RetCode.OK
    assert json.loads(path.read_text(encoding="utf-8")) == beams._BeamTable
    assert sorted(p.name for p in path.parent.iterdir()) == [path.name]


def test_one_calibration_manager_parsed_and_queried_by_threads(tm, files_dir):
    sample = make_sample()
    sample.write(files_dir)
    cali = tm.CalibrationTableManager(CALI_SN, 28, lambda: (4, 1, 4))
    outcomes = []

    def work(index):
        for _ in range(ROUNDS):
            if index % 2:
                outcomes.append(cali.parse().RetCode)
            else:
                # A query that runs while another thread has just started a new
                # parse sees the fresh, still empty table, as a Python manager would.
                try:
                    outcomes.append(cali.getDR(RFMode.TX).RetCode)
                except KeyError:
                    outcomes.append("table being rebuilt")

    run_threads(work)
    assert set(outcomes) <= {RetCode.OK, "table being rebuilt"}
    assert cali._CaliTable == sample.expected


def test_kit_files_saved_by_threads_always_read_whole(tm, files_dir):
    names = ["Kit%d_%s" % (i, STAMP) for i in range(THREADS - 1)]
    for name in names:
        write_rows(files_dir / ("AAKIT_%s.csv" % name), kit_rows(name, kit_type=1))
    kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    assert kits.parse().RetCode == RetCode.OK
    reader = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    tables = []

    def work(index):
        for n in range(ROUNDS):
            if index == THREADS - 1:
                assert reader.parse().RetCode == RetCode.OK
                tables.append(dict(reader._AAKitTable))
            else:
                kits._AAKitTable[names[index]]["OFFSET_TX"] = [n] * 4
                assert kits.saveAAKitFile(names[index]).RetCode == RetCode.OK

    run_threads(work)
    # A reader never met a half-written kit file: every kit was read, complete.
    assert all(sorted(t) == names and all(len(r) == 7 for r in t.values()) for t in tables)
    assert sorted(p.name for p in files_dir.iterdir()) == sorted("AAKIT_%s.csv" % n for n in names)


def test_default_beams_and_batches_from_threads_on_one_manager(tm, files_dir):
    beams = beam_manager(tm, "BATCH")

    def work(index):
        for n in range(ROUNDS):
            default = beams.getBeamPattern(RFMode.TX, 8).RetData
            assert default["channel_config"]["board_4"]["common_db"] == COMDR[0][3]
            batch = {"TX": {str(index + 1): channel_beam(db=float(index), description="t%d" % index)}}
            assert beams._setBatchBeamPattern(batch, 5).RetCode == RetCode.OK     # validate + upsert + save
            assert beams._getBatchBeamPattern(1).RetData["TX"][str(index + 1)]["beam_description"] == "t%d" % index

    run_threads(work)
    assert sorted(beams._BeamTable["TX"]) == [str(i + 1) for i in range(THREADS)]
