"""Calibration parse: the C++ manager against a straightforward pure-Python parser.

Writes a large calibration file (64 boards x 4 ICs x 4 channels, about 100,000 DATA
rows, the row layout of the README's "Reference: calibration queries") into a
temporary folder, checks that both parsers build the same table, then times them
side by side in one run (interleaved repetitions, medians).

    python bench/cali_parse_ratio.py [--reps N] [--boards B]

`measure()` returns the numbers for other runners.
"""
import argparse
import csv
import logging
import os
import random
import statistics
import sys
import tempfile
import time

SN = "K5350R019-28"
MODES = ("TX", "RX")
GAINS = tuple("%.1f" % g for g in range(-8, 8, 2))        # 8 element gain steps
PHASES = ("0", "60", "120", "180", "240", "300")           # 6 phase steps
ARMS = 4


# ------------------------------------------------------------------- data ---

def large_rows(boards=64, ics=4, channels=4, seed=1):
    rng = random.Random(seed)
    yield ["VER", "2.1.0"]
    yield ["REALVER", "2.1.0-7"]
    yield ["SN", SN]
    yield ["FCENTER", "28.0"]
    yield ["DR", "-10.0", "5.0", "-12.0", "6.0"]
    for mode in MODES:
        yield ["OFFSET_" + mode] + [str(rng.randint(-31, 31)) for _ in range(boards * ics * channels)]
    for b in range(1, boards + 1):
        for mode in MODES:
            yield ["COMDR", mode, "DR", str(b), "B", "-8.5", "3.5"]
            yield ["ELEDR", mode, "DR", str(b), "B", "6.5"]
        yield ["TEMPADC", "ADC", str(b), "B", str(1800 + b)]
        yield ["TC", "TC", str(b), "B", "8", "3", "2", "11"]
        for arm in range(1, ARMS + 1):
            yield ["COMSTEPDR", "STEP", "DR", str(b), str(arm), str(-13.0 + 4 * arm), str(-8.5 + 4 * arm)]
    for b in range(1, boards + 1):
        for c in range(1, ics + 1):
            for arm in range(1, ARMS + 1):
                for mode in MODES:
                    for gain in GAINS:
                        for phase in PHASES:
                            yield (["DATA", "CAL", "B", str(b), "IC", str(c), str(arm), mode, gain, phase]
                                   + [str(rng.randint(0, 4095)) for _ in range(channels)])
    yield ["END"]


def write_large_file(folder, boards=64):
    path = os.path.join(folder, "%s_28.0GHz.csv" % SN)
    with open(path, "w", newline="") as handle:
        csv.writer(handle).writerows(large_rows(boards))
    return path


# ------------------------------------------------------- pure-Python peer ---

class PythonCalibrationParser:
    """The same algorithm written plainly with csv.reader and dicts."""

    def __init__(self, sn, freq, layout):
        self.__logger = logging.getLogger("CaliTbl")
        self.sn, self.__freq = sn, freq
        self._num_board, self._num_ic_per_board, self._num_channel_per_ic = layout
        self._CaliTable = {}

    def __updateDict(self, d, key, value):
        try:
            if d.get(key) is None:
                d[key] = value
            else:
                d[key].update(value)
        except Exception:
            self.__logger.exception(f"__updateDict exception with key:{key}, value:{value}")
            raise Exception("__updateDict exception")

    def __child(self, d, key):
        self.__updateDict(d, key, {})
        return d[key]

    def __basicCheck(self, table):
        if table["VER"] < "2.0.0":
            return "Version of Cali table is too low, please upgrade it."
        if table["SN"] != self.sn:
            return "Wrong SN!"
        if float(table["FCENTER"]) != self.__freq:
            return "Wrong Freq"
        return None

    def parse(self, path):
        table = self._CaliTable = {}
        with open(path) as handle:
            for row in csv.reader(line.replace("\0", "") for line in handle):
                if not row:
                    continue
                key = row[0]
                if key in ("VER", "REALVER", "SN", "FCENTER"):
                    self.__logger.debug(f"{key}: {row[1]}")
                    table[key] = row[1]
                elif key == "DR":
                    table["DR"] = {}
                    for i, mode in enumerate(MODES):
                        low, high = float(row[1 + 2 * i]), float(row[2 + 2 * i])
                        self.__logger.debug(f"{mode} mode DR: {{{low:f}~{high:f}}}")
                        table["DR"][mode] = [low, high]
                elif key in ("OFFSET_TX", "OFFSET_RX"):
                    self.__offsets(table, key.split("_")[1], row)
                elif key in ("COMDR", "ELEDR"):
                    if self.__basicCheck(table):
                        return False
                    board = self.__child(table, "BOARD_" + row[3])
                    self.__updateDict(board, row[1], {key: [float(v) for v in row[5:]]})
                elif key == "TEMPADC":
                    board = self.__child(table, "BOARD_" + row[2])
                    for mode in MODES:
                        self.__updateDict(board, mode, {"TEMPADC": row[4]})
                elif key == "TC":
                    board = self.__child(table, "BOARD_" + row[2])
                    self.__updateDict(board, "TX", {"TC": [row[4], row[5]]})
                    self.__updateDict(board, "RX", {"TC": [row[6], row[7]]})
                elif key == "COMSTEPDR":
                    board = self.__child(table, "BOARD_" + row[3])
                    self.__updateDict(board, "COMSTEPDR", {"COM_" + row[4]: [float(v) for v in row[5:]]})
                elif key == "DATA":
                    chip = self.__child(self.__child(table, "BOARD_" + row[3]), "DATA_CHIP_" + row[5])
                    entry = "_".join([row[7], str(int(float(row[8]))), row[9]])
                    self.__updateDict(chip, "COM_" + row[6], {entry: [int(v) for v in row[10:]]})
                elif key == "END":
                    return True
        return False

    def __offsets(self, table, mode, row):
        values = iter(row[1:])
        for b in range(1, self._num_board + 1):
            arm = self.__child(self.__child(table, f"BOARD_{b}"), mode)
            for c in range(1, self._num_ic_per_board + 1):
                chip = {f"CHANNEL_{ch}": int(next(values)) for ch in range(1, self._num_channel_per_ic + 1)}
                self.__updateDict(arm, f"OFFSET_CHIP_{c}", chip)


# ---------------------------------------------------------------- timing ---

def measure(reps=7, boards=64):
    import vexcore.qrvdev.QRVTableManager as tm

    layout = (boards, 4, 4)
    with tempfile.TemporaryDirectory() as folder:
        path = write_large_file(folder, boards)
        os.environ["VEXCORE_FILES_DIR"] = folder
        native = tm.CalibrationTableManager(SN, 28, lambda: layout)
        peer = PythonCalibrationParser(SN, 28, layout)
        assert native.parse().RetCode.name == "OK" and peer.parse(path)
        assert native._CaliTable == peer._CaliTable, "the two parsers disagree"
        rows = sum(1 for line in open(path) if line.startswith("DATA,"))
        times = {"native": [], "python": []}
        for _ in range(reps):
            start = time.perf_counter()
            native.parse()
            times["native"].append(time.perf_counter() - start)
            start = time.perf_counter()
            peer.parse(path)
            times["python"].append(time.perf_counter() - start)
        size = os.path.getsize(path)
    native_s, python_s = statistics.median(times["native"]), statistics.median(times["python"])
    return {"data_rows": rows, "file_bytes": size, "reps": reps, "native_s": native_s, "python_s": python_s,
            "ratio": python_s / native_s}


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--reps", type=int, default=7)
    parser.add_argument("--boards", type=int, default=64)
    args = parser.parse_args(argv)
    logging.getLogger("CaliTbl").setLevel(logging.WARNING)
    r = measure(args.reps, args.boards)
    print("calibration parse, %d DATA rows (%.1f MB), median of %d: C++ %.1f ms, Python csv.reader %.1f ms, "
          "ratio %.1fx" % (r["data_rows"], r["file_bytes"] / 1e6, r["reps"], r["native_s"] * 1e3,
                           r["python_s"] * 1e3, r["ratio"]))
    return 0


if __name__ == "__main__":
    sys.exit(main())
