"""How time grows with table size, and whether memory stays flat over many calls.

For three sizes each, side by side in one run with the standard-library way:
  - calibration parse: the manager against the pure-Python peer (csv.reader),
  - beam table save: the manager against json.dumps(indent=2) + write,
  - beam table load: the manager against json.load,
then 100,000 beam get/set calls on one manager while the resident set size is
sampled every 10,000 calls.

Time per entry that stays about the same from the smallest to the largest size
means linear growth. Run: python bench/scale.py [--quick] [--json OUT]
"""

import argparse
import gc
import json
import os
import random
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import vexcore.qrvdev.QRVTableManager as tm  # noqa: E402
from vexcore.QRVPublic import BeamType, RetCode, RFMode  # noqa: E402
from vexcore.QRVUtils import RetType  # noqa: E402

SN = "K5350R019-28"
CALI_LAYOUT = (16, 1, 16)  # 256 channels: 16 registers per DATA row
BEAM_LAYOUT = (64, 1, 16)  # 1024 channels per beam
CALI_ROWS = (20_000, 80_000, 320_000)  # DATA rows
BEAMS_PER_MODE = (32, 128, 512)  # x 2 modes x 1024 channels: up to ~1M channel entries
CALLS = 100_000
QUICK = {"cali_rows": (500, 1_000, 2_000), "beams": (2, 4, 8), "calls": 20_000}


def seconds(call):
    gc.collect()
    start = time.perf_counter()
    result = call()
    return time.perf_counter() - start, result


def rss_kib():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024


# ---------------------------------------------------------- calibration ---


def calibration_text(data_rows, rnd):
    boards, _, channels = CALI_LAYOUT
    lines = ["VER,2.1.0", "REALVER,2.1.0-7", "SN," + SN, "FCENTER,28.0", "DR,-10,-5,-12,-6"]
    for mode in ("TX", "RX"):
        lines.append("OFFSET_%s,%s" % (mode, ",".join(str(rnd.randint(-31, 31)) for _ in range(boards * channels))))
    for b in range(1, boards + 1):
        for mode in ("TX", "RX"):
            lines.append("COMDR,%s,BOARD,%d,RANGE,-9.5,-2.0" % (mode, b))
            lines.append("ELEDR,%s,BOARD,%d,LIMIT,7.0" % (mode, b))
        lines.append("TEMPADC,ADC,%d,READ,37" % b)
        lines.append("TC,COMP,%d,STEP,8,3,2,11" % b)
        lines.append("COMSTEPDR,ARM,STEP,%d,1,-9.0,0.0" % b)
    for i in range(data_rows):
        board, mode = i % boards + 1, ("TX", "RX")[(i // boards) % 2]
        gain = i // (2 * boards)
        registers = ",".join(str(rnd.randint(0, 4095)) for _ in range(channels))
        lines.append("DATA,CAL,BOARD,%d,IC,1,1,%s,%d.0,0,%s" % (board, mode, gain, registers))
    lines.append("END")
    return "\n".join(lines) + "\n"


def measure_calibration(folder, data_rows, rnd):
    from baseline.calibration import CalibrationTableManager as PeerManager

    path = folder / ("%s_28.0GHz.csv" % SN)
    path.write_text(calibration_text(data_rows, rnd), encoding="utf-8")
    native = tm.CalibrationTableManager(SN, 28, lambda: CALI_LAYOUT)
    peer = PeerManager(SN, 28, lambda: CALI_LAYOUT)
    native_s, ret = seconds(native.parse)
    peer_s, peer_ret = seconds(peer.parse)
    assert ret.RetCode == peer_ret.RetCode == RetCode.OK and native._CaliTable == peer._CaliTable
    return {
        "what": "calibration parse",
        "entries": data_rows,
        "unit": "DATA rows",
        "bytes": path.stat().st_size,
        "native_s": native_s,
        "stdlib_s": peer_s,
    }


# ------------------------------------------------------------------ beams ---


def beam_table(beams_per_mode, rnd):
    boards, _, channels = BEAM_LAYOUT
    table = {"VERSION": "v2.0.0", "SN": SN, "DEV_TYPE": 9, "FREQ": 28.0, "AAKIT_NAME": "", "TX": {}, "RX": {}}
    for mode in ("TX", "RX"):
        for beam_id in range(1, beams_per_mode + 1):
            config = {}
            for b in range(1, boards + 1):
                board = {"common_db": round(rnd.uniform(-10, 10), 2)}
                for c in range(1, channels + 1):
                    board["channel_%d" % c] = {
                        "sw": rnd.randint(0, 1),
                        "db": round(rnd.uniform(-5, 5), 2),
                        "deg": rnd.randrange(0, 360, 5),
                    }
                config["board_%d" % b] = board
            table[mode][str(beam_id)] = {
                "beam_description": "beam %d" % beam_id,
                "beam_type": 1,
                "channel_config": config,
            }
    return table


def beam_manager():
    boards = BEAM_LAYOUT[0]
    manager = tm.BeamPatternTableManager(SN, 9, 1024, BEAM_LAYOUT)
    manager._updateFreq(28.0, {"TX": [-9.5, 5.0], "RX": [-5.0, 10.0]}, [[1.0] * boards] * 2, [[2.0] * boards] * 2)
    return manager


def measure_beam(folder, beams_per_mode, rnd):
    table = beam_table(beams_per_mode, rnd)
    entries = 2 * beams_per_mode * BEAM_LAYOUT[0] * BEAM_LAYOUT[2]
    manager = beam_manager()
    manager._load(28.0, "")  # creates the file and sets the path
    path = folder / "BeamTable" / ("Beam_Configuration_%s_28GHz.json" % SN)
    save_s, ret = seconds(lambda: manager._saveToBeamTableFile(None, table))
    assert ret.RetCode == RetCode.OK
    written = path.read_bytes()
    stdlib_path = folder / "stdlib.json"

    def stdlib_save():
        with open(stdlib_path, "w", encoding="utf-8") as f:
            f.write(json.dumps(table, ensure_ascii=False, indent=2))

    stdlib_save_s, _ = seconds(stdlib_save)
    assert stdlib_path.read_bytes() == written
    table = None  # frees the table before the load measurements
    load_s, ret = seconds(lambda: manager._load(28.0, ""))
    assert ret.RetCode == RetCode.OK
    rss_loaded = rss_kib()
    manager._BeamTable = None
    del ret

    def stdlib_load():
        with open(stdlib_path, encoding="utf-8") as f:
            return json.load(f)

    stdlib_load_s, loaded = seconds(stdlib_load)
    del loaded
    stdlib_path.unlink()
    common = {"entries": entries, "unit": "channel entries", "bytes": len(written)}
    return [
        dict(common, what="beam save", native_s=save_s, stdlib_s=stdlib_save_s),
        dict(common, what="beam load", native_s=load_s, stdlib_s=stdlib_load_s, rss_after_load_kib=rss_loaded),
    ]


# ------------------------------------------------------------ flat memory ---


def accept_beam(mode, db, theta, phi, extra):
    return RetType(data=(db, theta, phi))


def accept_gains(mode, board, gains, common):
    return RetType(data=gains)


def memory_over_calls(folder, calls):
    """RSS every 10,000 calls of alternating getBeamPattern / setBeamPattern (not saved)
    on the 16-channel device, after a warm-up of 10,000 calls."""
    manager = tm.BeamPatternTableManager(SN, 9, 64, (4, 1, 4), (accept_beam, accept_gains))
    manager._updateFreq(28.0, {"TX": [-9.5, 5.0], "RX": [-5.0, 10.0]}, [[10.0] * 4] * 2, [[3.0] * 4] * 2)
    manager._load(28.0, "")

    def one_call(n):
        beam_id = n % 64 + 1
        if n % 2:
            return manager.getBeamPattern(RFMode.RX, beam_id)
        if n % 4:
            return manager.setBeamPattern(
                RFMode.TX, beam_id, BeamType.BEAM, {"db": n % 5, "theta": n % 30, "phi": 0}, "b%d" % n, False
            )
        config = {"board_%d" % (n % 4 + 1): {"channel_2": {"sw": 1, "db": n % 3, "deg": n % 360}}}
        return manager.setBeamPattern(RFMode.TX, beam_id, BeamType.CHANNEL, config, None, False)

    for n in range(10_000):
        one_call(n)
    gc.collect()
    samples = [rss_kib()]
    blocks = sys.getallocatedblocks()
    start = time.perf_counter()
    for n in range(calls):
        assert one_call(n).RetCode == RetCode.OK
        if (n + 1) % 10_000 == 0:
            samples.append(rss_kib())
    elapsed = time.perf_counter() - start
    gc.collect()
    return {
        "calls": calls,
        "rss_kib": samples,
        "rss_growth_kib": samples[-1] - samples[0],
        "blocks_growth": sys.getallocatedblocks() - blocks,
        "us_per_call": elapsed / calls * 1e6,
    }


# ----------------------------------------------------------------- report ---


def report(rows, memory):
    lines = [
        "| operation | size | file | ours | standard library / pure Python | ratio | ours per entry |",
        "|---|---|---|---|---|---|---|",
    ]
    for r in rows:
        lines.append(
            "| %s | %s %s | %.1f MB | %.3f s | %.3f s | x%.1f | %.0f ns |"
            % (
                r["what"],
                format(r["entries"], ","),
                r["unit"],
                r["bytes"] / 1e6,
                r["native_s"],
                r["stdlib_s"],
                r["stdlib_s"] / r["native_s"],
                r["native_s"] / r["entries"] * 1e9,
            )
        )
    lines.append("")
    lines.append(
        "%s get/set calls: %.2f us a call; resident set %s KiB (every 10,000 calls), "
        "growth %+d KiB; allocated blocks %+d"
        % (
            format(memory["calls"], ","),
            memory["us_per_call"],
            " ".join(str(s) for s in memory["rss_kib"]),
            memory["rss_growth_kib"],
            memory["blocks_growth"],
        )
    )
    return "\n".join(lines)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="tiny sizes, to check that the script works")
    parser.add_argument("--json", help="also write the figures to this file")
    args = parser.parse_args(argv)
    cali_rows = QUICK["cali_rows"] if args.quick else CALI_ROWS
    beams = QUICK["beams"] if args.quick else BEAMS_PER_MODE
    calls = QUICK["calls"] if args.quick else CALLS
    rnd = random.Random(20240301)
    with tempfile.TemporaryDirectory() as tmp:
        folder = Path(tmp)
        os.environ["VEXCORE_FILES_DIR"] = str(folder)
        rows = [measure_calibration(folder, n, rnd) for n in cali_rows]
        for n in beams:
            rows += measure_beam(folder, n, rnd)
        memory = memory_over_calls(folder, calls)
    print(report(rows, memory))
    if args.json:
        Path(args.json).write_text(json.dumps({"rows": rows, "memory": memory}, indent=2))
    return 0


if __name__ == "__main__":
    sys.exit(main())
