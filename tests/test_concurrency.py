"""Managers shared by several threads.

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
from beam_helpers import COMDR, Hooks, channel_beam, make_manager
from calibration_sample import SN as CALI_SN
from calibration_sample import make_sample

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


def run_threads(work):
    """Runs work(index) in THREADS threads started together; re-raises the first failure."""
    start = threading.Barrier(THREADS)
    failures = []

    def body(index):
        try:
            start.wait()
            work(index)
        except BaseException as exc:     # noqa: BLE001 - reported to the test below
            failures.append(exc)

    threads = [threading.Thread(target=body, args=(i,)) for i in range(THREADS)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(timeout=300)
        assert not t.is_alive(), "a thread is stuck"
    if failures:
        raise failures[0]


def test_one_beam_manager_shared_by_threads_loses_no_update(tm, files_dir):
    beams = make_manager(tm, Hooks(), num_beam=THREADS * ROUNDS)
    assert beams._load(28.0, "").RetCode == RetCode.OK
    path = beams._BeamPatternTableManager__path
    seen_on_disk = []

    def work(index):
        for n in range(ROUNDS):
            beam_id = index * ROUNDS + n + 1
            text = "thread %d" % index
            if n % 3 == 0:
                steering = {"db": 1.0, "theta": index, "phi": n}
                ret = beams.setBeamPattern(RFMode.RX, beam_id, BeamType.BEAM, steering, text)
            elif n % 3 == 1:
                ret = beams.setBeamPattern(RFMode.RX, beam_id, BeamType.CHANNEL, None, text)
            else:
                ret = beams._setBatchBeamPattern({"RX": {str(beam_id): channel_beam(description=text)}}, 5)
            assert ret.RetCode == RetCode.OK
            assert beams._getBatchBeamPattern().RetData["RX"][str(beam_id)]["beam_description"] == text
            # A default beam is built while other threads change the table.
            assert beams.getBeamPattern(RFMode.TX, 8).RetData["channel_config"]["board_4"]["common_db"] == COMDR[0][3]
            if index == 0:
                # Every file another thread may be replacing right now reads whole.
                seen_on_disk.append(len(json.loads(path.read_text(encoding="utf-8"))["RX"]))

    run_threads(work)
    rx = beams._BeamTable["RX"]
    assert sorted(rx, key=int) == [str(i) for i in range(1, THREADS * ROUNDS + 1)]
    assert all(beam["beam_description"] == "thread %d" % ((int(i) - 1) // ROUNDS) for i, beam in rx.items())
    assert seen_on_disk and all(0 <= n <= THREADS * ROUNDS for n in seen_on_disk)
    # Saves that overlapped may have finished in any order; the next one writes
    # the whole table as it is now.
    assert beams._saveToBeamTableFile().RetCode == RetCode.OK
    assert json.loads(path.read_text(encoding="utf-8")) == beams._BeamTable
    assert [p.name for p in path.parent.iterdir()] == [path.name]


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
