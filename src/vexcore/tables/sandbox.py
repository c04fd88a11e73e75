"""Running the table managers on a user's file without touching it.

Loading a kit may rename it and loading an old beam table rewrites it, so the tool
always works on a copy in a private files directory. The managers' log records are
collected instead of printed: they are the detail behind a result.
"""

import contextlib
import logging
import os
import shutil
import tempfile

MANAGER_LOGGERS = ("CaliTbl", "AAKitTbl", "BeamTbl", "UDDeltaTbl", "TblDB")


class Sandbox:
    """A private SDK files directory, made current through VEXCORE_FILES_DIR."""

    def __init__(self):
        self.root = _make_temp_dir()
        self.files = os.path.join(self.root, "files")
        os.makedirs(self.files)
        self._saved_env = os.environ.get("VEXCORE_FILES_DIR")
        os.environ["VEXCORE_FILES_DIR"] = self.files

    def copy_in(self, source, name, subfolder=""):
        """Copies `source` into the files directory (or a sub-folder) as `name`."""
        folder = os.path.join(self.files, subfolder)
        os.makedirs(folder, exist_ok=True)
        target = os.path.join(folder, name)
        shutil.copyfile(source, target)
        return target

    def path(self, *parts):
        return os.path.join(self.files, *parts)

    def close(self):
        if self._saved_env is None:
            os.environ.pop("VEXCORE_FILES_DIR", None)
        else:
            os.environ["VEXCORE_FILES_DIR"] = self._saved_env
        shutil.rmtree(self.root, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def _make_temp_dir():
    # The calibration export names its JSON file by replacing every "csv" in the
    # path, folders included, so the sandbox path must not contain that text.
    while True:
        root = tempfile.mkdtemp(prefix="vexcore-tables-")
        if "csv" not in root:
            return root
        os.rmdir(root)


class LogCollector(logging.Handler):
    """Keeps the managers' records; nothing reaches the user's terminal directly."""

    def __init__(self):
        super().__init__(logging.DEBUG)
        self.records = []

    def emit(self, record):
        self.records.append(record)

    def since(self, start, level=logging.WARNING):
        return [r for r in self.records[start:] if r.levelno >= level]

    def exception_texts(self, start=0):
        """'Type: text' of every exception logged with a traceback since `start`."""
        texts = []
        for record in self.records[start:]:
            if record.exc_info and record.exc_info[1] is not None:
                error = record.exc_info[1]
                texts.append("%s: %s" % (type(error).__name__, error))
        return texts


@contextlib.contextmanager
def collected_logs(level=logging.INFO):
    """Routes the managers' loggers into one collector for the duration of the block."""
    collector = LogCollector()
    saved = []
    for name in MANAGER_LOGGERS:
        logger = logging.getLogger(name)
        saved.append((logger, logger.level, logger.propagate))
        logger.addHandler(collector)
        logger.setLevel(level)
        logger.propagate = False
    try:
        yield collector
    finally:
        for logger, old_level, old_propagate in saved:
            logger.removeHandler(collector)
            logger.setLevel(old_level)
            logger.propagate = old_propagate
