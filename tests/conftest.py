"""Shared fixtures: the installed module, an isolated files directory, log capture."""
import os
import sysconfig
import time

import pytest

import vexcore.qrvdev.QRVTableManager as _tm


def pytest_configure(config):
    # The tests must exercise the installed build, never sources lying beside them.
    site = os.path.realpath(sysconfig.get_paths()["purelib"])
    where = os.path.realpath(_tm.__file__)
    if not where.startswith(site):
        raise pytest.UsageError("QRVTableManager imported from %s, not from the installed package" % where)


@pytest.fixture
def tm():
    """The table-manager module."""
    return _tm


@pytest.fixture
def files_dir(tmp_path, monkeypatch):
    """An empty SDK files directory, made current through VEXCORE_FILES_DIR."""
    directory = tmp_path / "files"
    directory.mkdir()
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(directory))
    return directory


@pytest.fixture
def time_zone(monkeypatch):
    """time_zone(tz): the process's local time zone is tz until the test ends."""
    yield lambda tz: (monkeypatch.setenv("TZ", tz), time.tzset())
    monkeypatch.undo()
    time.tzset()


@pytest.fixture
def restore_module_globals():
    """Lets a test replace module globals of the table manager; they are put back afterwards."""
    namespace = vars(_tm)
    saved = dict(namespace)
    yield _tm
    namespace.clear()          # clear + update also restores the original order
    namespace.update(saved)


def records(caplog, logger_name):
    """(level name, message) of every record of one logger, in order."""
    return [(r.levelname, r.getMessage()) for r in caplog.records if r.name == logger_name]
