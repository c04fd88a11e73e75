"""Which table a file holds, and what its name says about it.

The managers find their files by name, so the name decides the kind first:
"AAKIT_*.csv" is a kit, "<SN>_<freq>GHz.csv" a calibration table (".json" its
export), "Beam_Configuration_*.json" a beam table. Other files are told apart by a
quick look at their contents.
"""

import csv
import io
import json
import os
import re

CALIBRATION = "calibration"
CALIBRATION_JSON = "calibration-json"
KIT = "kit"
BEAM = "beam"
UD_DELTA = "ud-delta"
KINDS = (CALIBRATION, CALIBRATION_JSON, KIT, BEAM, UD_DELTA)

BEAM_PREFIX = "Beam_Configuration_"
_CALIBRATION_NAME = re.compile(r"^(?P<sn>.+)_(?P<freq>[^_]*)GHz\.(?P<ext>csv|json)$")
_BEAM_NAME = re.compile(r"^Beam_Configuration_(?P<sn>.+?)_(?P<freq>[0-9.]+)GHz(?:_(?P<kit>.+))?\.json$")
_SNIFF_BYTES = 64 * 1024


def calibration_name(path):
    """(serial number, frequency) from "<SN>_<freq>GHz.csv|json", or None.

    The frequency is read the way the calibration manager reads it: the text
    between the last "_" and "GHz", converted to a float.
    """
    match = _CALIBRATION_NAME.match(os.path.basename(path))
    if not match:
        return None
    try:
        return match.group("sn"), float(match.group("freq"))
    except ValueError:
        return None


def beam_name(path):
    """(serial number, frequency, kit name) from a beam table file name, or None."""
    match = _BEAM_NAME.match(os.path.basename(path))
    if not match:
        return None
    try:
        freq = float(match.group("freq"))
    except ValueError:
        return None
    return match.group("sn"), freq, match.group("kit") or ""


def beam_file_name(sn, freq, kit):
    """The file name the beam manager uses for a serial number, frequency and kit."""
    suffix = "_" + kit if kit else ""
    return "%s%s_%sGHz%s.json" % (BEAM_PREFIX, sn, frequency_text(freq), suffix)


def frequency_text(freq):
    """28.0 -> "28", 27.5 -> "27.5": how frequencies appear in file names."""
    freq = float(freq)
    return str(int(freq)) if freq.is_integer() else repr(freq)


def classify(path):
    """The kind of table in `path`, or None when it is none this tool knows."""
    name = os.path.basename(path)
    lower = name.lower()
    if name.startswith("AAKIT_") and name.endswith(".csv"):
        return KIT
    if name.startswith(BEAM_PREFIX) and name.endswith(".json"):
        return BEAM
    if calibration_name(path):
        return CALIBRATION if name.endswith(".csv") else CALIBRATION_JSON
    if lower.endswith(".json"):
        return _sniff_json(path)
    if lower.endswith(".csv"):
        return _sniff_csv(path)
    return None


def _sniff_json(path):
    try:
        with open(path, encoding="utf-8") as f:
            data = json.load(f)
    except (OSError, ValueError):
        return None
    if isinstance(data, dict) and ("VERSION" in data or "version" in data):
        return BEAM
    return None


def _sniff_csv(path):
    rows = read_rows(path, limit=_SNIFF_BYTES)
    keys = {row[0] for row in rows if row}
    if "AAKIT_NAME" in keys or "SPACING" in keys:
        return KIT
    if {"VER", "FCENTER"} & keys:
        return CALIBRATION
    stem = os.path.splitext(os.path.basename(path))[0]
    if stem in keys or (rows and all(len(row) == 1 for row in rows if row)):
        return UD_DELTA
    return None


def read_rows(path, limit=None):
    """The CSV rows of a text file, NUL characters dropped; never raises for bad bytes."""
    with open(path, "rb") as f:
        data = f.read() if limit is None else f.read(limit)
    text = data.decode("utf-8", errors="replace").replace("\0", "")
    return list(csv.reader(io.StringIO(text, newline="")))


def read_lines(path):
    """The file's lines with their line ends, decoded leniently (for locating rows)."""
    with open(path, "rb") as f:
        text = f.read().decode("utf-8", errors="replace")
    return text.splitlines(keepends=True)


def table_files(folder):
    """Every file under `folder` (sub-folders included), in a stable order."""
    found = []
    for root, dirs, files in os.walk(folder):
        dirs.sort()
        found.extend(os.path.join(root, name) for name in sorted(files))
    return found
