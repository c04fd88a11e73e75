"""One process of the table database's load test (test_db_service.py).

    python db_load_worker.py ROLE DATABASE COUNT CALIBRATION_FILE TAG [BOARDS,ICS,CHANNELS]

ROLE "open": COUNT web-mode device opens, each answer compared with file mode's.
ROLE "import": COUNT imports of the calibration file (replacing the stored table).
ROLE "save": COUNT saves of one beam table whose every beam carries TAG and the
iteration, each followed by a load that must find one writer's whole table.
ROLE "kit": COUNT saves of kits named TAG-<iteration>.
After its set-up a process prints "ready" and waits for a line on its input, so
that all of them start at once; then it prints one JSON line: {"done": n, "errors":
[...], "latencies": [seconds per unit]}. `run_processes` runs a set of them.
"""
import json
import os
import subprocess
import sys
import time

from vexcore.db.engine import open_engine
from vexcore.db.upload import import_calibration_files
from vexcore.db.web_tables import AAKitStore, BeamTableStore

SN, FREQ, KIT = "K5350R019-28", 28, "KIT"
BEAMS = 16


def device_open(tm, web, layout=None):
    """What a driver asks when it opens a device, in its order (the sample's layout by default)."""
    manager = tm.CalibrationTableManager(SN, FREQ, (lambda: layout) if layout else tm.fake_rf_layout,
                                         web_client_id="1" if web else None)
    answers = [manager.getFrequencyList().RetData if web else None, manager.parse(FREQ).RetCode,
               manager.getDR().RetData, manager.getCOMDR().RetData, manager.getELEDR().RetData, manager._getTC()]
    for mode in ("TX", "RX"):
        answers.append(manager._getBoardsOffset(list(range(1, manager._num_board + 1)), mode, 1))
    return answers


def run_opens(count, database, layout):
    import vexcore.qrvdev.QRVTableManager as tm
    expected = device_open(tm, False, layout)
    expected[4] = [[limit[0] for limit in per_mode] for per_mode in expected[4]]   # web unwraps [x]
    return _opens(tm, count, layout, expected)     # the clock starts after this set-up


def _opens(tm, count, layout, expected):
    for _ in range(count):
        answers = device_open(tm, True, layout)
        got = [answers[1]] + answers[2:]
        if got != [expected[1]] + expected[2:]:
            yield "device open answered %r" % (got,)
        else:
            yield None


def run_imports(count, database, path):
    for _ in range(count):
        import_calibration_files([path], db_path=database)
        yield None


def run_saves(count, database, tag):
    store = BeamTableStore(SN, database)
    for i in range(count):
        table = store("_load", freq=FREQ, aakit=KIT, devtype=9).RetData
        if table is None:
            yield "load failed"
            continue
        mark = "%s-%d" % (tag, i)
        table["TX"] = {str(b): {"beam_description": mark, "beam_type": 0} for b in range(1, BEAMS + 1)}
        ret = store("saveToBeamTableFile", new_table=table)
        stored = store("_load", freq=FREQ, aakit=KIT, devtype=9).RetData
        seen = {beam["beam_description"] for beam in stored["TX"].values()}
        yield None if ret.RetMsg == "" and len(seen) == 1 else "save %r, then found beams of %s" % (ret, sorted(seen))


def run_kit_saves(count, database, tag):
    store = AAKitStore(database)
    for i in range(count):
        ret = store.store(func_name="saveAAKitFile", kitName="%s-%d" % (tag, i), check=False,
                          context={"DEV_TYPE": 9, "TYPE": 1, "OFFSET_TX": [i]})
        yield None if ret.RetMsg == "" else "kit save %r" % (ret,)


def main(role, database, count, path, tag, layout=None):
    os.environ["VEXCORE_DB"] = database
    units = {"open": lambda: run_opens(count, database, layout), "import": lambda: run_imports(count, database, path),
             "save": lambda: run_saves(count, database, tag), "kit": lambda: run_kit_saves(count, database, tag)}[role]()
    # Importing the driver and connecting happen once per process, before the clock starts.
    with open_engine(database).reading():
        pass
    errors, latencies = [], []
    print("ready", flush=True)
    sys.stdin.readline()
    start = time.perf_counter()
    while True:
        try:
            error = next(units)
        except StopIteration:
            break
        except Exception as exc:   # any escape is a failure of the unit, reported, and the run goes on
            error = "%s: %s" % (type(exc).__name__, exc)
        now = time.perf_counter()
        latencies.append(now - start)
        start = now
        if error:
            errors.append(error)
    print(json.dumps({"done": len(latencies), "errors": errors, "latencies": latencies}))


def run_processes(roles, database, path, env, layout=None, timeout=600):
    """Runs (role, processes, units each) at once; returns ({role: [report, ...]},
    seconds from the common start to the last report)."""
    extra = [",".join(map(str, layout))] if layout else []
    workers = [(role, subprocess.Popen([sys.executable, os.path.abspath(__file__), role, database, str(count), path,
                                        "%s%d" % (role, n), *extra], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                       text=True, env=env))
               for role, processes, count in roles for n in range(processes)]
    try:
        for role, process in workers:
            line = process.stdout.readline()
            if line != "ready\n":
                raise RuntimeError("%s worker did not start: %r" % (role, line))
        start = time.perf_counter()
        for _, process in workers:
            process.stdin.write("go\n")
            process.stdin.flush()
        reports = {}
        for role, process in workers:
            out, _ = process.communicate(timeout=timeout)
            if process.returncode != 0:
                raise RuntimeError("%s worker failed with status %d" % (role, process.returncode))
            reports.setdefault(role, []).append(json.loads(out))
        return reports, time.perf_counter() - start
    finally:
        for _, process in workers:
            if process.poll() is None:
                process.kill()
                process.wait()


if __name__ == "__main__":
    main(*sys.argv[1:3], int(sys.argv[3]), *sys.argv[4:6],
         tuple(int(n) for n in sys.argv[6].split(",")) if len(sys.argv) > 6 else None)
