"""Speed of the web front end on the largest device (64 boards x 4 ICs x 4 channels).

The database gets the device's calibration table, one kit of 1024 offsets and a beam
table with all 1024 ids of both modes set (steered beams, every 16th a channel beam of
1024 channels, or --channel-every N), all stored through the managers in web mode. Then, in one process,
through the application's own HTTP interface (Starlette's test client, no network):

- the beam list page, a steered beam's page and a channel beam's page, each with the
  array-factor cuts; saving one steered beam (check, UI_SAVE_UPSERT, store);
- beside them, what reading the table through its web-mode callback costs (sqlite3 +
  decoding the stored text: a page pays it only when the server does not hold the
  stored table yet, as its first page does) and what storing it costs (encoding +
  sqlite3: every save pays it, since a beam table is stored whole).

Medians of interleaved samples; the calibration answers are read once (the first page
pays for them, shown apart) and kept, as the front end does; so is the loaded table,
while its stored generation holds.

Usage: python bench/web_pages.py [--reps N] [--keep DIR]   (a kept DIR is used again as it is)
"""

import argparse
import os
import random
import re
import statistics
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

import gen_data  # noqa: E402

SN, FREQ = gen_data.SERIAL, 28
KIT = "QRVLAB-1024CH_PRIME_28_BENCH"
TARGETS_MS = {
    "beam list page": 300,
    "steered beam page": 300,
    "beam 16 page (a channel beam)": 300,
    "save one beam": 200,
}


def prepare(folder, channel_every):
    size = gen_data.SIZES["large"]
    rnd = random.Random(gen_data.SEED)
    files = os.path.join(folder, "files")
    os.makedirs(files)
    os.environ["VEXCORE_FILES_DIR"] = files
    db = os.path.join(files, "vexcore_tables.db")
    from vexcore.web import demo, managers, store

    store.configure(db)
    cali = os.path.join(files, "%s_%sGHz.csv" % (SN, FREQ))
    gen_data.write_csv_rows(cali, gen_data.calibration_rows(size, rnd))
    store.store_calibration_file(cali, (size.boards, size.ics, size.channels))
    kit = os.path.join(files, "AAKIT_%s.csv" % KIT)
    gen_data.write_csv_rows(kit, gen_data.kit_rows(KIT, 0, size, rnd))
    print("kit:", demo.store_kit(kit)[1].RetCode.name, flush=True)
    started = time.perf_counter()
    session = managers.BeamSession(SN, FREQ, KIT)
    print("calibration answers read in %.1f s (first page of a device)" % (time.perf_counter() - started), flush=True)
    batch = {mode: {str(i): _beam(i, session, mode, channel_every) for i in range(1, 1025)} for mode in ("TX", "RX")}
    ret = session.manager._setBatchBeamPattern(batch, managers.tm.BTSetOption.UI_SAVE_REPLACE, session.callback)
    print("beam table stored: %s %s" % (ret.RetCode.name, ret.RetMsg), flush=True)
    return db


def rf_mode(name):
    from vexcore.QRVPublic import RFMode

    return RFMode[name]


def _beam(beam_id, session, mode, channel_every):
    if not channel_every or beam_id % channel_every:
        return {
            "beam_description": "steered %d" % beam_id,
            "beam_type": 0,
            "beam_config": {"db": 1.0, "theta": (beam_id % 61) - 30, "phi": (beam_id % 41) - 20},
        }
    beam = session.manager.getBeamPattern(rf_mode(mode), beam_id).RetData  # the default, with its limits
    for board in beam["channel_config"].values():
        for name, channel in board.items():
            if name != "common_db":
                channel["deg"] = (beam_id * 7 + int(name[8:]) * 45) % 360
    beam["beam_description"] = "channel %d" % beam_id
    return beam


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--reps", type=int, default=7)
    parser.add_argument("--keep", help="build the data in this folder and keep it")
    parser.add_argument(
        "--channel-every",
        type=int,
        default=16,
        metavar="N",
        help="every N-th beam id is a channel beam, the others steered (0: none; default 16)",
    )
    args = parser.parse_args(argv)
    if args.keep:
        return run(args, args.keep)
    with tempfile.TemporaryDirectory(prefix="vexcore-bench-web-") as folder:
        return run(args, folder)


def run(args, folder):
    db = os.path.join(folder, "files", "vexcore_tables.db")
    kept = os.path.exists(db)
    if kept:  # a kept folder: its data is used again
        os.environ["VEXCORE_FILES_DIR"] = os.path.dirname(db)
    else:
        db = prepare(folder, args.channel_every)

    from starlette.testclient import TestClient

    from vexcore.web import store
    from vexcore.web.app import create_app

    client = TestClient(create_app(db))
    base = "/beams/%s/%s" % (SN, FREQ)
    query = "?kit=" + KIT
    first = _timed(lambda: _ok(client.get(base + query)))
    callback = store.beam_callback(SN, refuse_stale=False)
    table = callback("_load", freq=float(FREQ), aakit=KIT, devtype=9).RetData
    size_mb = len(__import__("json").dumps(table)) / 1e6
    # The store floor writes the same table under a kit name of its own: a write of the
    # served table would count as someone else's save and make the next page reload it.
    floor_table = dict(table, AAKIT_NAME=KIT + "_FLOOR")

    def save():
        page = client.get(base + "/TX/3" + query).text
        form = {
            "csrf": client.cookies.get("vexcore_csrf"),
            "action": "save",
            "beam_type": "steered",
            "description": "bench",
            "db": "2.0",
            "theta": str(random.randint(-40, 40)),
            "phi": "0",
            "revision": re.search(r'name="revision" value="([^"]+)"', page).group(1),
        }
        started = time.perf_counter()
        answer = client.post(base + "/TX/3" + query, data=form, follow_redirects=False)
        elapsed = time.perf_counter() - started
        assert answer.status_code == 303, answer.text[:500]
        return elapsed

    cases = [
        ("beam list page", lambda: _timed(lambda: _ok(client.get(base + query)))),
        ("steered beam page", lambda: _timed(lambda: _ok(client.get(base + "/TX/1" + query)))),
        ("beam 16 page (a channel beam)", lambda: _timed(lambda: _ok(client.get(base + "/TX/16" + query)))),
        ("save one beam", save),
        (
            "floor: read the table (sqlite3 + JSON decode)",
            lambda: _timed(lambda: callback("_load", freq=float(FREQ), aakit=KIT, devtype=9)),
        ),
        (
            "floor: store the table (JSON encode + sqlite3)",
            lambda: _timed(lambda: callback("saveToBeamTableFile", new_table=floor_table)),
        ),
    ]
    samples = {name: [] for name, _ in cases}
    for _ in range(args.reps):
        for name, run in cases:
            samples[name].append(run())
    medians = {name: statistics.median(values) * 1000 for name, values in samples.items()}
    read, write = (
        medians["floor: read the table (sqlite3 + JSON decode)"],
        medians["floor: store the table (JSON encode + sqlite3)"],
    )
    mix = "1 in %d a channel beam" % args.channel_every if args.channel_every else "all steered"
    print(
        "\n64x4x4 device, 1024 beams per mode (%s), table %.1f MB as JSON; median of %d, %s"
        % (mix, size_mb, args.reps, time.strftime("%Y-%m-%dT%H:%M:%S"))
    )
    print(
        "first page of the device: %.0f ms%s\n"
        % (first * 1000, "" if kept else " (its calibration answers were read while preparing the data, above)")
    )
    print("| request | median | target | vs its floor |")
    print("|---|---|---|---|")
    for name, value in medians.items():
        if name.startswith("floor"):
            print("| %s | %.1f ms | | |" % (name, value))
            continue
        floor = write if name == "save one beam" else read
        verdict = "met" if value < TARGETS_MS[name] else "missed"
        print("| %s | %.1f ms | < %d ms: %s | x%.1f |" % (name, value, TARGETS_MS[name], verdict, value / floor))
    return 0


def _ok(response):
    assert response.status_code == 200, response.text[:500]


def _timed(call):
    started = time.perf_counter()
    call()
    return time.perf_counter() - started


if __name__ == "__main__":
    sys.exit(main())
