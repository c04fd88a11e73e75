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


def prepare(folder):
    """Copies the samples into `folder` and imports the calibration file into the database."""
    from vexcore.db.upload import import_calibration_files

    files = os.path.join(folder, "files")
    os.makedirs(files, exist_ok=True)
    shutil.copyfile(os.path.join(HERE, "logging.conf"), os.path.join(folder, "logging.conf"))
    os.makedirs(os.path.join(files, "BeamTable"), exist_ok=True)
    for name in (CALIBRATION_FILE, KIT_FILE, BEAM_TABLE_FILE):
        shutil.copyfile(os.path.join(HERE, "files", name), os.path.join(files, name))
    db_path = os.environ.get("VEXCORE_DB") or os.path.join(files, "vexcore_tables.db")
    return import_calibration_files([os.path.join(files, CALIBRATION_FILE)], db_path=db_path)
