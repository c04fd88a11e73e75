"""Kit parsing speed: AAKitTableManager.parse against a plain csv.reader parser.

Writes 200 kit files of 1024 channels (fixed seed) into a temporary files directory,
then times, side by side in one run, the C++ parse and a straightforward pure-Python
parse that follows the same rules (csv.reader, int()/float(), the same skips and log
calls). Both sides start from the same files and must build equal tables.

    python bench/aakit_parse_vs_csv_reader.py [--kits 200] [--channels 1024] [--rounds 15]
"""
import argparse
import csv
import glob
import logging
import os
import random
import statistics
import tempfile
import time
from pathlib import Path

DEV_TYPE = 9


def write_kits(directory, kits, channels, seed=20240301):
    """Kit files with 6-bit phase offset steps (0 to 63), as the phase shifters take them."""
    rnd = random.Random(seed)
    for i in range(kits):
        name = "BENCH-%03d_%dCH_28" % (i, channels)
        rows = [["AAKIT_NAME", name], ["DEV_TYPE", DEV_TYPE], ["TYPE", 0],
                ["SPACING", 5.0, 5.0], ["STEERING_H", -60.0, 60.0], ["STEERING_V", -45.0, 45.0],
                ["OFFSET_TX"] + [rnd.randint(0, 63) for _ in range(channels)],
                ["OFFSET_RX"] + [rnd.randint(0, 63) for _ in range(channels)]]
        with open(os.path.join(directory, "AAKIT_%s.csv" % name), "w", newline="") as f:
            csv.writer(f).writerows(rows)


class PlainParser:
    """The kit-file rules written the obvious way in Python."""

    def __init__(self, directory, total_ch, support_dev):
        self.directory = Path(directory)
        self.total_ch = total_ch
        self.support_dev = support_dev
        self.logger = logging.getLogger("AAKitTbl")
        self.table = {}

    def parse(self):
        self.table = {}
        for path in sorted(glob.glob(str(self.directory / "AAKIT_*.csv"))):
            try:
                name, record = self.parse_file(path)
            except Exception:
                self.logger.exception("Skip %s due to parsing exception", path)
                continue
            if name:
                self.table[name] = record
                self.logger.info("Parsing (" + name + ")" + path + " done")
        return self.table

    def parse_file(self, path):
        name, record = "", {}
        with open(path, "r") as f:
            for row in csv.reader(f):
                if not row:
                    continue
                key = row.pop(0)
                if key == "AAKIT_NAME":
                    name = row[0]
                elif key == "DEV_TYPE":
                    dev = int(row[0])
                    if dev not in self.support_dev:
                        return "", None
                    record[key] = dev
                elif key == "TYPE":
                    record[key] = int(row[0])
                elif key == "SPACING" or key in "STEERING_H" or key in "STEERING_V":
                    record[key] = [float(row[0]), float(row[1])]
                elif key in "OFFSET_TX" or key in "OFFSET_RX":
                    if len(row) != self.total_ch:
                        return "", None
                    record[key] = [int(v) for v in row]
        return name, record


def best_and_median(samples):
    return min(samples), statistics.median(samples)


def main():
    options = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    options.add_argument("--kits", type=int, default=200)
    options.add_argument("--channels", type=int, default=1024)
    options.add_argument("--rounds", type=int, default=15)
    args = options.parse_args()

    with tempfile.TemporaryDirectory() as directory:
        write_kits(directory, args.kits, args.channels)
        os.environ["VEXCORE_FILES_DIR"] = directory
        import vexcore.qrvdev.QRVTableManager as tm

        native = tm.AAKitTableManager(DEV_TYPE, args.channels, support_dev=[DEV_TYPE])
        plain = PlainParser(directory, args.channels, [DEV_TYPE])
        native.parse()
        assert native._AAKitTable == plain.parse(), "the two parsers disagree"
        assert len(native._AAKitTable) == args.kits

        times = {"C++ parse": [], "csv.reader": []}
        for _ in range(args.rounds):   # interleaved, so both sides see the same machine load
            start = time.process_time()
            native.parse()
            times["C++ parse"].append(time.process_time() - start)
            start = time.process_time()
            plain.parse()
            times["csv.reader"].append(time.process_time() - start)

    print("%d kit files x %d channels, %d rounds" % (args.kits, args.channels, args.rounds))
    for side, samples in times.items():
        best, median = best_and_median(samples)
        print("  %-11s best %7.2f ms   median %7.2f ms" % (side, best * 1e3, median * 1e3))
    ratio_best = min(times["csv.reader"]) / min(times["C++ parse"])
    ratio_median = statistics.median(times["csv.reader"]) / statistics.median(times["C++ parse"])
    print("  speed-up   best %.1fx   median %.1fx" % (ratio_best, ratio_median))


if __name__ == "__main__":
    main()
