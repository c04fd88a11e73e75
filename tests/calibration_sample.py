"""Realistic calibration tables for tests, with the table a parse must produce.

`make_sample()` draws the values of a small device (by default 4 boards x 1 IC x 4
channels) from a seeded generator and returns both the CSV rows and the nested
mapping those rows describe, built here from the drawn values (not by parsing), so
a test compares the parser against an independent account of the file.
"""
import csv
import io
import random

SN = "K5350R019-28"
MODES = ("TX", "RX")
GAINS = ("-4.0", "-2.0", "0.0", "2.0")       # element gain steps, written as numbers
PHASES = ("0", "90", "180", "270")           # phase steps, kept as written


class Sample:
    def __init__(self, rows, expected):
        self.rows = rows
        self.expected = expected

    def text(self, rows=None):
        out = io.StringIO()
        csv.writer(out, lineterminator="\n").writerows(self.rows if rows is None else rows)
        return out.getvalue()

    def write(self, folder, freq="28.0", sn=SN, rows=None):
        path = folder / ("%s_%sGHz.csv" % (sn, freq))
        path.write_text(self.text(rows), encoding="utf-8")
        return path


def _dr_rows(rng, expected):
    cells = []
    expected["DR"] = {}
    for mode in MODES:
        low, high = rng.choice((-12.0, -10.5, -9.0)), rng.choice((4.5, 6.0, 7.5))
        cells += [str(low), str(high)]
        expected["DR"][mode] = [low, high]
    return [["DR"] + cells]


def _offset_rows(rng, expected, boards, ics, channels):
    rows = []
    for mode in MODES:
        cells = []
        for b in range(1, boards + 1):
            for c in range(1, ics + 1):
                chip = {}
                for ch in range(1, channels + 1):
                    value = rng.randint(-31, 31)
                    cells.append(str(value))
                    chip["CHANNEL_%d" % ch] = value
                expected["BOARD_%d" % b].setdefault(mode, {})["OFFSET_CHIP_%d" % c] = chip
        rows.append(["OFFSET_" + mode] + cells)
    return rows


def _board_rows(rng, expected, b, arms):
    board = expected["BOARD_%d" % b]
    rows = []
    for mode in MODES:
        low = rng.choice((-9.5, -8.0, -6.5))
        rows.append(["COMDR", mode, "BOARD", str(b), "RANGE", str(low), str(low + 7.5)])
        board[mode]["COMDR"] = [low, low + 7.5]
    for mode in MODES:
        limit = rng.choice((4.0, 5.5, 7.0))
        rows.append(["ELEDR", mode, "BOARD", str(b), "LIMIT", str(limit)])
        board[mode]["ELEDR"] = [limit]
    reading = str(rng.randint(30, 45))
    rows.append(["TEMPADC", "ADC", str(b), "READ", reading])
    tc = [str(rng.randint(0, 15)) for _ in range(4)]
    rows.append(["TC", "COMP", str(b), "STEP"] + tc)
    for i, mode in enumerate(MODES):
        board[mode]["TEMPADC"] = reading
        board[mode]["TC"] = tc[2 * i:2 * i + 2]
    board["COMSTEPDR"] = {}
    for arm in range(1, arms + 1):
        low = -14.0 + 3.0 * arm
        rows.append(["COMSTEPDR", "ARM", "STEP", str(b), str(arm), str(low), str(low + 9.0)])
        board["COMSTEPDR"]["COM_%d" % arm] = [low, low + 9.0]
    return rows


def _data_rows(rng, expected, b, ics, channels, arms):
    rows = []
    for c in range(1, ics + 1):
        chip = expected["BOARD_%d" % b]["DATA_CHIP_%d" % c] = {}
        for arm in range(1, arms + 1):
            entries = chip["COM_%d" % arm] = {}
            for mode in MODES:
                for gain in GAINS:
                    for phase in PHASES:
                        values = [rng.randint(0, 4095) for _ in range(channels)]
                        rows.append(["DATA", "CAL", "BOARD", str(b), "IC", str(c), str(arm),
                                     mode, gain, phase] + [str(v) for v in values])
                        entries["%s_%d_%s" % (mode, int(float(gain)), phase)] = values
    return rows


def make_sample(boards=4, ics=1, channels=4, arms=3, seed=7, sn=SN, fcenter="28.0", ver="2.1.0"):
    rng = random.Random(seed)
    expected = {"VER": ver, "REALVER": ver + "-7", "SN": sn, "FCENTER": fcenter}
    rows = [["VER", ver], ["REALVER", ver + "-7"], ["SN", sn], ["FCENTER", fcenter], []]
    rows += _dr_rows(rng, expected)
    for b in range(1, boards + 1):
        expected["BOARD_%d" % b] = {}
    rows += _offset_rows(rng, expected, boards, ics, channels)
    rows.append(["NOTE", "rows with unknown keys are ignored"])
    for b in range(1, boards + 1):
        rows += _board_rows(rng, expected, b, arms)
    rows.append([])
    for b in range(1, boards + 1):
        rows += _data_rows(rng, expected, b, ics, channels, arms)
    rows.append(["END"])
    return Sample(rows, expected)


def cali_manager(tm, freq=28, **kwargs):
    """A calibration manager of the sample's serial number with the module's sample layout."""
    return tm.CalibrationTableManager(SN, freq, tm.fake_rf_layout, **kwargs)
