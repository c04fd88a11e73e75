"""Web mode against file mode on the largest device (64 boards x 4 ICs x 4 channels), per engine.

    python bench/web_mode.py [--reps N] [--pg-url URL] [--out FILE]

Generates the large calibration table (bench/gen_data.py's seed), imports it into a
fresh sqlite file and into PostgreSQL (a throwaway server on loopback, started with
tests/pg_server.py, unless --pg-url names one whose database may be written), then
times, interleaved and as medians of --reps samples:

- a device open (getFrequencyList, parse, getDR, getCOMDR, getELEDR, _getTC,
  _getBoardsOffset of every board for both modes) in file mode and in web mode; a
  web open is timed "first in the process" (the service's copy of the table dropped
  before it) and "again" (the copy fresh, as for a second device within a second);
- the steps the issue measured (DR queries, board offsets, TC) within those opens;
- one single-key query through the adapter, first and again;
- the import of the table;

and then a load run per engine: 8 processes opening the device while 2 import the
table and 2 save a beam table, reporting device opens per second and p50/p99.
"""

import argparse
import json
import os
import random
import statistics
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TESTS = os.path.join(os.path.dirname(HERE), "tests")
sys.path[:0] = [HERE, TESTS]

import db_load_worker  # noqa: E402
import gen_data  # noqa: E402

SN, FREQ = db_load_worker.SN, db_load_worker.FREQ
LAYOUT = (64, 4, 4)


def write_table(folder):
    path = os.path.join(folder, "%s_%sGHz.csv" % (SN, FREQ))
    size = gen_data.SIZES["large"]
    gen_data.write_csv_rows(path, gen_data.calibration_rows(size, random.Random(gen_data.SEED)))
    return path


def timed(call):
    start = time.perf_counter()
    call()
    return time.perf_counter() - start


def open_steps(tm, web, database, first):
    """Seconds of each step of one device open."""
    from vexcore.db import QRVDBQueryer

    if first:
        QRVDBQueryer.open_engine(database).tables.clear()
    steps = {}
    start = time.perf_counter()
    manager = tm.CalibrationTableManager(SN, FREQ, lambda: LAYOUT, web_client_id="1" if web else None)
    if web:
        manager.getFrequencyList()
    manager.parse(FREQ)
    steps["parse"] = time.perf_counter() - start
    steps["getDR + getCOMDR + getELEDR"] = timed(lambda: (manager.getDR(), manager.getCOMDR(), manager.getELEDR()))
    steps["_getBoardsOffset, 64 boards x 2 modes"] = timed(
        lambda: [manager._getBoardsOffset(list(range(1, 65)), mode, 1) for mode in ("TX", "RX")]
    )
    steps["_getTC"] = timed(manager._getTC)
    steps["device open"] = time.perf_counter() - start
    return steps


def single_query(tm, database, first):
    from vexcore.db import QRVDBQueryer

    adapter = tm._QRVTableDB("calibration", {"sn": SN, "frequency": FREQ})
    if first:
        QRVDBQueryer.open_engine(database).tables.clear()
        return timed(lambda: adapter.query(["TX", "COMDR"], "BOARD_3"))
    adapter.query(["TX", "COMDR"], "BOARD_3")
    n = 200
    return timed(lambda: [adapter.query(["TX", "COMDR"], "BOARD_37") for _ in range(n)]) / n


def measure_engine(tm, name, database, table_path, reps):
    from vexcore.db.upload import import_calibration_files

    os.environ["VEXCORE_DB"] = database
    imports = [timed(lambda: import_calibration_files([table_path], db_path=database)) for _ in range(3)]
    samples = {"file": [], "web, first": [], "web, again": []}
    queries = {"first": [], "again": []}
    for rep in range(reps):
        sides = [("file", False, False), ("web, first", True, True), ("web, again", True, False)]
        for side, web, first in sides[rep % 3 :] + sides[: rep % 3]:
            if side == "web, again":
                open_steps(tm, True, database, False)  # the copy made fresh just before
            samples[side].append(open_steps(tm, web, database, first))
        queries["first"].append(single_query(tm, database, True))
        queries["again"].append(single_query(tm, database, False))
    medians = {
        side: {step: statistics.median(s[step] for s in runs) for step in runs[0]} for side, runs in samples.items()
    }
    return {
        "engine": name,
        "import_s": statistics.median(imports),
        "opens": medians,
        "single_query_s": {k: statistics.median(v) for k, v in queries.items()},
    }


def load_run(database, table_path, files_dir, opens=8, each=10):
    env = dict(os.environ, VEXCORE_FILES_DIR=files_dir, VEXCORE_DB=database)
    roles = [("open", opens, each), ("import", 2, 2), ("save", 2, 20)]
    reports, _ = db_load_worker.run_processes(roles, database, table_path, env, LAYOUT)
    wall = max(sum(r["latencies"]) for r in reports["open"])  # until the last device open ended
    latencies = sorted(x for r in reports["open"] for x in r["latencies"])
    errors = sum(len(r["errors"]) for rs in reports.values() for r in rs)
    return {
        "opens": len(latencies),
        "wall_s": wall,
        "opens_per_s": len(latencies) / wall,
        "errors": errors,
        "p50_s": latencies[len(latencies) // 2],
        "p99_s": latencies[min(len(latencies) - 1, int(len(latencies) * 0.99))],
    }


def ms(seconds):
    return "%.1f ms" % (seconds * 1e3) if seconds >= 1e-3 else "%.0f µs" % (seconds * 1e6)


def report(results):
    lines = [
        "| engine | step | file mode | web, first in process | web, again | web first / file |",
        "|---|---|---|---|---|---|",
    ]
    for r in results:
        for step in r["opens"]["file"]:
            f, w1, w2 = (r["opens"][side][step] for side in ("file", "web, first", "web, again"))
            lines.append("| %s | %s | %s | %s | %s | %.2fx |" % (r["engine"], step, ms(f), ms(w1), ms(w2), w1 / f))
    lines += [
        "",
        "| engine | import (98k-row table) | single-key query, first | single-key query, again |"
        " load: device opens/s | p50 | p99 | errors |",
        "|---|---|---|---|---|---|---|---|",
    ]
    for r in results:
        load = r["load"]
        lines.append(
            "| %s | %s | %s | %s | %.1f | %s | %s | %d |"
            % (
                r["engine"],
                ms(r["import_s"]),
                ms(r["single_query_s"]["first"]),
                ms(r["single_query_s"]["again"]),
                load["opens_per_s"],
                ms(load["p50_s"]),
                ms(load["p99_s"]),
                load["errors"],
            )
        )
    return "\n".join(lines)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--reps", type=int, default=5)
    parser.add_argument("--pg-url", help="PostgreSQL database to use instead of a throwaway server")
    parser.add_argument("--out", help="write the results as JSON here too")
    args = parser.parse_args(argv)
    folder = tempfile.mkdtemp(prefix="vexcore-web-bench-")
    os.environ["VEXCORE_FILES_DIR"] = folder
    import vexcore.qrvdev.QRVTableManager as tm
    from vexcore.db import engine

    table_path = write_table(folder)
    server = None
    if not args.pg_url:
        import pg_server

        server = pg_server.start_server()
    try:
        pg_url = args.pg_url or server.url_for_schema("bench")
        results = []
        for name, database in (("sqlite", os.path.join(folder, "tables.db")), ("postgresql", pg_url)):
            result = measure_engine(tm, name, database, table_path, args.reps)
            engine.close_engines()
            result["load"] = load_run(database, table_path, folder)
            results.append(result)
        engine.close_engines()
    finally:
        if server:
            server.stop()
            server.remove()
    print(
        "Measured on %d CPUs, Python %s, %s."
        % (os.cpu_count(), sys.version.split()[0], time.strftime("%Y-%m-%dT%H:%M:%S"))
    )
    print(report(results))
    if args.out:
        with open(args.out, "w", encoding="utf-8") as f:
            json.dump(results, f, indent=2)


if __name__ == "__main__":
    main()
