"""Side-by-side speed of the native codecs and the standard-library way.

One run, the two ways interleaved repetition by repetition, medians reported:
  - JSON encode, indent 2:  _codec.json_dumps   vs json.dumps(..., ensure_ascii=False, indent=2)
  - CSV rows + numbers:     _codec.csv_file_numbers vs open() + csv.reader + int()/float()
  - JSON decode from file:  _codec.json_load_file vs json.load(open(path))
Each pair is also checked to give equal results, so a fast wrong answer cannot pass.

    python bench/bench_codecs.py [--quick] [--json FILE]

run(quick=False) returns the results as a list of dicts (used by bench/run.py).
"""

import argparse
import csv
import gc
import json
import os
import random
import statistics
import sys
import tempfile
import time

from vexcore.qrvdev.QRVTableManager import _codec

FULL = {"boards": 64, "channels": 16, "beams": 1024, "cali_rows": 100_000, "repeat": 3}
QUICK = {"boards": 4, "channels": 16, "beams": 64, "cali_rows": 5_000, "repeat": 5}

# Columns of a calibration DATA row: key, two ignored cells, board, ignored, chip,
# arm, then the values. Index cells are integers, values decimals.
CALI_INT_COLUMNS = (1, 2, 3, 4, 5, 6)


def make_beam_table(boards, channels, beams, seed=7):
    """A beam table with channel beams in both modes, shaped like the device files."""
    rng = random.Random(seed)
    table = {"VERSION": "v2.0.0", "SN": "K5350R019-28", "DEV_TYPE": 5, "FREQ": 28.0, "AAKIT_NAME": "Kit \u00e9"}
    for mode in ("TX", "RX"):
        section = table[mode] = {}
        for beam in range(1, beams + 1):
            config = {}
            for board in range(1, boards + 1):
                entry = config["board_%d" % board] = {"common_db": round(rng.uniform(0, 10), 1)}
                for channel in range(1, channels + 1):
                    entry["channel_%d" % channel] = {
                        "sw": rng.randint(0, 1),
                        "db": round(rng.uniform(-15, 0), 2),
                        "deg": round(rng.uniform(0, 360), 3),
                    }
            section[str(beam)] = {"beam_description": "beam %d" % beam, "beam_type": 1, "channel_config": config}
    return table


def write_calibration_csv(path, rows, seed=11):
    """A calibration-like CSV of DATA rows (indices and decimal values): the bulk of a
    real file, whose few header rows do not count in the timing."""
    rng = random.Random(seed)
    with open(path, "w", newline="", encoding="utf-8") as f:
        out = csv.writer(f)
        for n in range(rows):
            board, chip, arm = n % 64, (n // 64) % 4, n % 2
            values = [round(rng.uniform(-20, 20), rng.randint(1, 4)) for _ in range(8)]
            out.writerow(["DATA", n, 0, board, 0, chip, arm] + values)


def python_csv_numbers(path, int_columns):
    """What a Python parser does: csv.reader over the open file, int()/float() per cell."""
    int_columns = set(int_columns)
    rows = []
    with open(path, encoding="utf-8") as f:
        for row in csv.reader(f):
            if not row:
                continue
            rows.append(
                [row[0]] + [int(cell) if i in int_columns else float(cell) for i, cell in enumerate(row[1:], 1)]
            )
    return rows


def python_json_load(path):
    with open(path, encoding="utf-8") as f:
        return json.load(f)


def measure(name, native, standard, repeat, data_label):
    """Runs both ways `repeat` times, alternating, and returns medians and the ratio."""
    native_result, standard_result = native(), standard()
    if native_result != standard_result:
        raise AssertionError("%s: native and standard results differ" % name)
    del native_result, standard_result
    times = {"native": [], "standard": []}
    for _ in range(repeat):
        for label, action in (("native", native), ("standard", standard)):
            gc.collect()
            start = time.perf_counter()
            result = action()
            times[label].append(time.perf_counter() - start)
            del result
    native_s, standard_s = statistics.median(times["native"]), statistics.median(times["standard"])
    return {
        "name": name,
        "data": data_label,
        "repeat": repeat,
        "native_s": native_s,
        "standard_s": standard_s,
        "speedup": standard_s / native_s,
    }


def run(quick=False):
    size = QUICK if quick else FULL
    table = make_beam_table(size["boards"], size["channels"], size["beams"])
    text = json.dumps(table, ensure_ascii=False, indent=2)
    beam_label = "beam table %d boards x %d channels x %d beams per mode (%.1f MB JSON)" % (
        size["boards"],
        size["channels"],
        size["beams"],
        len(text.encode()) / 1e6,
    )
    results = [
        measure(
            "json_encode_indent2",
            lambda: _codec.json_dumps(table, 2),
            lambda: json.dumps(table, ensure_ascii=False, indent=2),
            size["repeat"],
            beam_label,
        )
    ]
    table = None  # frees the table before the decoding measurements
    with tempfile.TemporaryDirectory() as folder:
        # A beam table is loaded from its file: read, decode, build the objects.
        beam_path = os.path.join(folder, "Beam_Configuration_bench.json")
        with open(beam_path, "w", encoding="utf-8") as f:
            f.write(text)
        del text
        results.append(
            measure(
                "json_decode_file",
                lambda: _codec.json_load_file(beam_path),
                lambda: python_json_load(beam_path),
                size["repeat"],
                beam_label,
            )
        )
        path = os.path.join(folder, "K5350R019-28_28GHz.csv")
        write_calibration_csv(path, size["cali_rows"])
        cali_label = "calibration-like CSV, %d rows (%.1f MB)" % (size["cali_rows"], os.path.getsize(path) / 1e6)
        results.append(
            measure(
                "csv_rows_numbers",
                lambda: _codec.csv_file_numbers(path, CALI_INT_COLUMNS),
                lambda: python_csv_numbers(path, CALI_INT_COLUMNS),
                size["repeat"],
                cali_label,
            )
        )
    return results


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="small data, for a smoke run")
    parser.add_argument("--json", help="also write the results to this file")
    args = parser.parse_args(argv)
    results = run(quick=args.quick)
    for r in results:
        print(
            "%-22s native %8.3f s  standard %8.3f s  speed-up x%.1f  (%s, median of %d)"
            % (r["name"], r["native_s"], r["standard_s"], r["speedup"], r["data"], r["repeat"])
        )
    if args.json:
        with open(args.json, "w", encoding="utf-8") as f:
            json.dump(results, f, indent=2)
    return 0


if __name__ == "__main__":
    sys.exit(main())
