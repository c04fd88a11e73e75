"""Benchmark data: a device's calibration, kit, UD and beam table files, from a fixed seed.

Two sizes exist. "small" is the 16-channel device most users have (4 boards x 1 IC x 4
channels, 64 beams per mode, 20 kits); "large" is the biggest layout the SDK serves
(64 boards x 4 ICs x 4 channels, 1024 beams per mode, a calibration file of about
100,000 DATA rows, 200 kits of 1024 offsets).

Everything goes into one folder laid out as the SDK's files directory, plus a
manifest.json that tells the benchmark what is where. The same seed always gives the
same bytes.

Usage: python bench/gen_data.py OUTDIR [--size small|large] [--seed N]
"""

import argparse
import json
import random
import sys
from dataclasses import asdict, dataclass
from pathlib import Path

SEED = 20240301
SERIAL = "K5350R019-28"
FREQ = 28.0
DEV_TYPE = 9
OTHER_FREQS = (26.5, 27.0, 27.5, 28.5, 29.0)


@dataclass(frozen=True)
class Size:
    name: str
    boards: int
    ics: int
    channels: int  # per IC
    beams: int  # beam ids per mode
    unset_every: int  # every n-th beam id is left unset (read back as a default beam)
    steered_every: int  # every n-th stored beam is a steered beam, the others channel beams
    kits: int
    arms: int  # common-arm steps per chip in the DATA section
    gain_steps: int  # element gain steps per arm and mode in the DATA section
    phase_steps: int  # phase steps per gain step in the DATA section
    com_steps: int  # COMSTEPDR rows per board

    @property
    def data_rows(self):
        return self.boards * self.ics * self.arms * 2 * self.gain_steps * self.phase_steps

    @property
    def total_channels(self):
        return self.boards * self.ics * self.channels

    @property
    def groups(self):
        """Channel groups of one IC: the beam tables key one "board_" per group."""
        return self.boards * self.ics


SIZES = {
    "small": Size("small", 4, 1, 4, 64, 16, 4, 20, 2, 4, 4, 8),
    "large": Size("large", 64, 4, 4, 1024, 64, 4, 200, 3, 8, 8, 8),
}

GAIN_STEPS = [x / 2 for x in range(-8, 24)]  # element gains, 0.5 dB steps
PHASE_STEPS = [round(x * 5.625, 3) for x in range(64)]  # 6-bit phase shifter, degrees


# ------------------------------------------------------------ calibration ---


def calibration_rows(size, rnd, serial=SERIAL, freq=FREQ):
    """Rows of a complete calibration CSV (lists of cell texts), END included."""
    rows = [
        ["VER", "2.1.0"],
        ["REALVER", "2.1.0-7"],
        ["SN", serial],
        ["FCENTER", str(freq)],
        ["DR", "-10.5", "5.0", "-12.0", "6.5"],
    ]
    for mode in ("TX", "RX"):
        rows.append(["OFFSET_" + mode] + [str(rnd.randint(-8, 8)) for _ in range(size.total_channels)])
    rows += _temperature_rows(size, rnd)
    rows += _arm_range_rows(size, rnd)
    rows += _data_rows(size, rnd)
    rows.append(["END"])
    return rows


def _temperature_rows(size, rnd):
    # The temperature-compensation query walks boards x ICs board keys, so every
    # IC group carries its own TEMPADC and TC row.
    rows = []
    for n in range(1, size.groups + 1):
        rows.append(["TEMPADC", "ADC", str(n), "T", str(rnd.randint(1800, 2300))])
        rows.append(["TC", "TC", str(n), "K"] + [str(rnd.randint(1, 12)) for _ in range(4)])
    return rows


def _arm_range_rows(size, rnd):
    rows = []
    for mode in ("TX", "RX"):
        for board in range(1, size.boards + 1):
            low = rnd.choice([-12.0, -11.5, -10.0, -9.5])
            rows.append(["COMDR", mode, "CDR", str(board), "B", str(low), str(low + 7.5)])
            rows.append(["ELEDR", mode, "EDR", str(board), "B", str(rnd.choice([6.5, 7.0, 7.5]))])
    for board in range(1, size.boards + 1):
        for arm in range(1, size.com_steps + 1):
            rows.append(["COMSTEPDR", "STEP", "DR", str(board), str(arm), str(-12.0 + arm), str(-11.0 + arm)])
    return rows


def _data_rows(size, rnd):
    """DATA, label, label, board, label, chip, arm, mode, gain, phase, then one register
    value per channel of the chip."""
    rows = []
    for board in range(1, size.boards + 1):
        for chip in range(1, size.ics + 1):
            for arm in range(1, size.arms + 1):
                rows += _arm_data_rows(size, rnd, ["DATA", "CAL", "B", str(board), "IC", str(chip), str(arm)])
    return rows


def _arm_data_rows(size, rnd, lead):
    rows = []
    for mode in ("TX", "RX"):
        for gain in range(-size.gain_steps, 0):
            for phase in range(0, 360, 360 // size.phase_steps):
                registers = [str(rnd.randint(1000, 1400)) for _ in range(size.channels)]
                rows.append(lead + [mode, "%.1f" % gain, str(phase)] + registers)
    return rows


def write_csv_rows(path, rows):
    # The cells never need quoting, so a join writes what csv.writer would.
    with open(path, "w", encoding="utf-8", newline="") as f:
        f.write("".join(",".join(row) + "\r\n" for row in rows))


def header_only_calibration(serial, freq):
    return [["VER", "2.1.0"], ["SN", serial], ["FCENTER", str(freq)], ["END"]]


# ------------------------------------------------------------------- kits ---


def kit_names(size):
    """Official kits and, every fourth, a custom kit whose name already carries a valid stamp."""
    names = []
    for i in range(size.kits):
        if i % 4 == 3:
            names.append(("BenchKit%03d_2024030112304512+0800" % i, 1))
        else:
            names.append(("QRVLAB-%dCH_PRIME_28_K%03d" % (size.total_channels, i), 0))
    return names


def kit_rows(name, kit_type, size, rnd):
    def offsets():
        return [str(rnd.randint(0, 63)) for _ in range(size.total_channels)]

    return [
        ["AAKIT_NAME", name],
        ["DEV_TYPE", str(DEV_TYPE)],
        ["TYPE", str(kit_type)],
        ["SPACING", "5.0", "5.0"],
        ["STEERING_H", "-45.0", "45.0"],
        ["STEERING_V", "-30.0", "30.0"],
        ["OFFSET_TX"] + offsets(),
        ["OFFSET_RX"] + offsets(),
    ]


# ------------------------------------------------------------------ beams ---


def beam_limits(size, rnd):
    """Gain limits the driver hands the beam manager: DR per mode name; COMDR and ELEDR per
    mode value and per channel group (the beam tables give each IC group its own board key)."""
    comdr = [[rnd.choice([7.5, 8.0, 8.5]) for _ in range(size.groups)] for _ in range(2)]
    eledr = [[rnd.choice([6.5, 7.0, 7.5]) for _ in range(size.groups)] for _ in range(2)]
    return {"DR": {"TX": [-10.5, 5.0], "RX": [-12.0, 6.5]}, "COMDR": comdr, "ELEDR": eledr}


def stored_beam_ids(size):
    return [i for i in range(1, size.beams + 1) if i % size.unset_every != 0]


def is_steered(beam_id, size):
    return beam_id % size.steered_every == 1


class JsonText:
    """Writes JSON laid out exactly as json.dump(..., ensure_ascii=False, indent=2) does,
    straight from the generator's values: building the dicts of a large table first and
    running the pure-Python indenting encoder over them would take minutes."""

    def __init__(self, f):
        self.f = f

    def open_object(self, level, key=None):
        self.f.write(self._lead(level, key) + "{")

    def close_object(self, level, empty=False):
        self.f.write("}" if empty else "\n" + "  " * level + "}")

    def open_list(self, level, key=None):
        self.f.write(self._lead(level, key) + "[")

    def close_list(self, level):
        self.f.write("\n" + "  " * level + "]")

    def member(self, level, key, value):
        self.f.write(self._lead(level, key) + json.dumps(value, ensure_ascii=False))

    def raw(self, level, key, text):
        self.f.write(self._lead(level, key) + text)

    def comma(self):
        self.f.write(",")

    @staticmethod
    def _lead(level, key):
        pad = "\n" + "  " * level if level else ""
        return pad + (json.dumps(key, ensure_ascii=False) + ": " if key is not None else "")


def _channel_text(level, sw, db, deg):
    pad = "\n" + "  " * (level + 1)
    return "{" + pad + '"sw": %d,' % sw + pad + '"db": %r,' % db + pad + '"deg": %r' % deg + "\n" + "  " * level + "}"


def write_current_table(path, size, rnd, limits, kit_name):
    """A "v2.0.0" beam table as the beam manager saves it."""
    with open(path, "w", encoding="utf-8") as f:
        out = JsonText(f)
        out.open_object(0)
        for i, (key, value) in enumerate(
            [("VERSION", "v2.0.0"), ("SN", SERIAL), ("DEV_TYPE", DEV_TYPE), ("FREQ", FREQ), ("AAKIT_NAME", kit_name)]
        ):
            if i:
                out.comma()
            out.member(1, key, value)
        for mode in ("TX", "RX"):
            out.comma()
            _write_mode_section(out, mode, size, rnd, limits)
        out.close_object(0)


def _write_mode_section(out, mode, size, rnd, limits):
    out.open_object(1, mode)
    for n, beam_id in enumerate(stored_beam_ids(size)):
        if n:
            out.comma()
        out.open_object(2, str(beam_id))
        out.member(3, "beam_description", "%s beam %d" % (mode, beam_id))
        out.comma()
        if is_steered(beam_id, size):
            out.member(3, "beam_type", 0)
            out.comma()
            _write_steered_config(out, rnd, limits["DR"][mode][1])
        else:
            out.member(3, "beam_type", 1)
            out.comma()
            _write_channel_config(out, size, rnd)
        out.close_object(2)
    out.close_object(1, empty=not stored_beam_ids(size))


def _write_steered_config(out, rnd, max_db):
    out.open_object(3, "beam_config")
    out.member(4, "db", rnd.choice([g for g in GAIN_STEPS if g <= max_db]))
    out.comma()
    out.member(4, "theta", rnd.randint(-45, 45))
    out.comma()
    out.member(4, "phi", rnd.randint(-30, 30))
    out.close_object(3)


def _write_channel_config(out, size, rnd):
    out.open_object(3, "channel_config")
    for group in range(1, size.groups + 1):
        if group > 1:
            out.comma()
        out.open_object(4, "board_%d" % group)
        out.member(5, "common_db", rnd.choice([6.0, 6.5, 7.0, 7.5]))
        for ch in range(1, size.channels + 1):
            out.comma()
            out.raw(
                5,
                "channel_%d" % ch,
                _channel_text(5, rnd.randint(0, 1) ^ 1, rnd.choice(GAIN_STEPS[:28]), rnd.choice(PHASE_STEPS)),
            )
        out.close_object(4)
    out.close_object(3)


def write_old_table(path, size, rnd):
    """A "v1.0.0" beam table: beam lists per mode, channels numbered across the device."""
    with open(path, "w", encoding="utf-8") as f:
        out = JsonText(f)
        out.open_object(0)
        out.member(1, "version", "v1.0.0")
        for mode in ("TX", "RX"):
            out.comma()
            out.open_list(1, mode + "_beam_list")
            for n, beam_id in enumerate(stored_beam_ids(size)):
                if n:
                    out.comma()
                _write_old_beam(out, beam_id, size, rnd)
            out.close_list(1)
        out.close_object(0)


def _write_old_beam(out, beam_id, size, rnd):
    out.open_object(2)
    steered = is_steered(beam_id, size)
    db, theta, phi = rnd.choice(GAIN_STEPS), rnd.randint(-45, 45), rnd.randint(-30, 30)
    for key, value in (
        ("beamId", beam_id),
        ("beam_type", 0 if steered else 1),
        ("beam_description", "old beam %d" % beam_id),
        ("db", db),
        ("theta", theta),
        ("phi", phi),
        ("channel_switch", 1),
    ):
        if key != "beamId":
            out.comma()
        out.member(3, key, value)
    out.comma()
    if steered:
        out.open_object(3, "beam_config")
        out.member(4, "db", db)
        out.comma()
        out.member(4, "theta", theta)
        out.comma()
        out.member(4, "phi", phi)
        out.close_object(3)
    else:
        _write_old_channel_list(out, size, rnd)
    out.close_object(2)


def _write_old_channel_list(out, size, rnd):
    out.open_list(3, "channel_config")
    pad = "\n" + "  " * 5
    for ch in range(1, size.total_channels + 1):
        if ch > 1:
            out.comma()
        out.f.write(
            "\n"
            + "  " * 4
            + "{"
            + pad
            + '"channel": %d,' % ch
            + pad
            + '"sw": %d,' % rnd.randint(0, 1)
            + pad
            + '"db": %r,' % rnd.choice(GAIN_STEPS)
            + pad
            + '"deg": %r' % rnd.choice(PHASE_STEPS)
            + "\n"
            + "  " * 4
            + "}"
        )
    out.close_list(3)


# --------------------------------------------------------------- the set ---


def beam_file_name(kit_name):
    suffix = "_" + kit_name if kit_name else ""
    return "Beam_Configuration_%s_%dGHz%s.json" % (SERIAL, int(FREQ), suffix)


def generate(out_dir, size_name="small", seed=SEED):
    """Writes one data set into out_dir (created if needed) and returns its manifest."""
    size = SIZES[size_name]
    rnd = random.Random(seed)
    root = Path(out_dir)
    (root / "BeamTable").mkdir(parents=True, exist_ok=True)
    (root / "old_format").mkdir(exist_ok=True)

    cali_name = "%s_%sGHz.csv" % (SERIAL, FREQ)
    write_csv_rows(root / cali_name, calibration_rows(size, rnd))
    for freq in OTHER_FREQS:
        write_csv_rows(root / ("%s_%sGHz.csv" % (SERIAL, freq)), header_only_calibration(SERIAL, freq))

    kits = kit_names(size)
    for name, kit_type in kits:
        write_csv_rows(root / ("AAKIT_%s.csv" % name), kit_rows(name, kit_type, size, rnd))
    write_csv_rows(root / (SERIAL + ".csv"), [[SERIAL], ["# minimum LO/IF spacing in MHz"], ["300"]])

    limits = beam_limits(size, rnd)
    kit_name = kits[0][0]
    write_current_table(root / "BeamTable" / beam_file_name(kit_name), size, rnd, limits, kit_name)
    write_old_table(root / "old_format" / beam_file_name(""), size, rnd)

    manifest = _manifest(size, seed, cali_name, kit_name, [n for n, _ in kits], limits)
    (root / "manifest.json").write_text(json.dumps(manifest, indent=2), encoding="utf-8")
    return manifest


def _manifest(size, seed, cali_name, kit_name, kits, limits):
    ids = stored_beam_ids(size)
    return {
        "size": asdict(size),
        "data_rows": size.data_rows,
        "seed": seed,
        "sn": SERIAL,
        "freq": FREQ,
        "devtype": DEV_TYPE,
        "layout": [size.boards, size.ics, size.channels],
        "num_beam": size.beams,
        "calibration_file": cali_name,
        "kit_name": kit_name,
        "kits": kits,
        "beam_file": "BeamTable/" + beam_file_name(kit_name),
        "old_beam_source": "old_format/" + beam_file_name(""),
        "old_beam_target": "BeamTable/" + beam_file_name(""),
        "beam_limits": limits,
        "unset_beam_id": size.unset_every,
        "channel_beam_id": next(i for i in ids if not is_steered(i, size)),
        "steered_beam_id": next(i for i in ids if is_steered(i, size)),
    }


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("out_dir")
    parser.add_argument("--size", choices=sorted(SIZES), default="small")
    parser.add_argument("--seed", type=int, default=SEED)
    args = parser.parse_args(argv)
    manifest = generate(args.out_dir, args.size, args.seed)
    print("wrote the %s data set to %s" % (manifest["size"]["name"], args.out_dir))
    return 0


if __name__ == "__main__":
    sys.exit(main())
