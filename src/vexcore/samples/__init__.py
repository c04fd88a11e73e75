"""Bundled sample tables: a calibration file, an official antenna kit and a logging set-up.

``python -m vexcore.samples DIR`` makes DIR a ready working folder for the table
manager's demonstration: logging.conf, files/ with the sample tables (and the beam
table files/BeamTable/..., written by ``python -m vexcore.samples.beam_table``), and the table
database (files/vexcore_tables.db, or $VEXCORE_DB) filled from the calibration file.
"""

import os
import shutil

HERE = os.path.dirname(os.path.abspath(__file__))
CALIBRATION_FILE = "K5350R019-28_28GHz.csv"
KIT_FILE = "AAKIT_QRVLAB-4x4_PRIME_28_IDEAL.csv"
BEAM_TABLE_FILE = "BeamTable/Beam_Configuration_K5350R019-28_28GHz_AAKIT_QRVLAB-4x4_PRIME_28_IDEAL.json"


SAMPLE_FILES = ("logging.conf", "files/" + CALIBRATION_FILE, "files/" + KIT_FILE, "files/" + BEAM_TABLE_FILE)


class SampleExists(Exception):
    """Files of the folder differ from the samples they would be replaced with."""


def prepare(folder, force=False):
    """Copies the samples into `folder` and imports the calibration file into the database.

    A file already there is kept when it equals its sample; one that differs (a table the
    user edited) is replaced only with `force`, otherwise SampleExists names them all and
    nothing is copied.
    """
    from vexcore.db.upload import import_calibration_files

    targets = [(os.path.join(HERE, name), os.path.join(folder, *name.split("/"))) for name in SAMPLE_FILES]
    edited = [target for source, target in targets if _differs(source, target)]
    if edited and not force:
        raise SampleExists(
            "these files differ from the samples and are kept: %s (--force replaces them)" % ", ".join(edited)
        )
    for source, target in targets:
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copyfile(source, target)
    files = os.path.join(folder, "files")
    db_path = os.environ.get("VEXCORE_DB") or os.path.join(files, "vexcore_tables.db")
    return import_calibration_files([os.path.join(files, CALIBRATION_FILE)], db_path=db_path)


def _differs(source, target):
    if not os.path.exists(target):
        return False
    with open(source, "rb") as a, open(target, "rb") as b:
        return a.read() != b.read()
