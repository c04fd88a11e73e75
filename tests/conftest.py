"""Shared fixtures: the installed module, an isolated files directory, log capture,
table databases on both engines (a throwaway PostgreSQL server for the session)."""
import itertools
import os
import sysconfig
import time

import pytest
from fake_queryer import FakeService

import vexcore.qrvdev.QRVTableManager as _tm
from vexcore.db import engine as _db_engine


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
def service(monkeypatch):
    """A scripted query service in place of the real one (see fake_queryer.py)."""
    return FakeService().install(monkeypatch)


@pytest.fixture
def files_dir(tmp_path, monkeypatch):
    """An empty SDK files directory, made current through VEXCORE_FILES_DIR."""
    directory = tmp_path / "files"
    directory.mkdir()
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(directory))
    return directory


@pytest.fixture
def files(tmp_path):
    """tmp_path/files holding copies of the bundled sample tables."""
    from tables_helpers import copy_samples
    return copy_samples(tmp_path)


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


@pytest.fixture(scope="session")
def pg_server():
    """A PostgreSQL server of this test session (see pg_server.py); the run fails if it cannot start."""
    import pg_server as servers
    try:
        server = servers.start_server()
    except Exception as error:
        pytest.fail("the PostgreSQL test server could not be started: %s" % error, pytrace=False)
    yield server
    _db_engine.close_engines()
    try:
        server.stop()
    finally:
        server.remove()


_schema_numbers = itertools.count()


@pytest.fixture(params=["sqlite", "postgresql"])
def database(request, tmp_path):
    """A new, empty table database on each engine: its name, a file path or a URL."""
    if request.param == "sqlite":
        yield str(tmp_path / "tables.db")
    else:
        server = request.getfixturevalue("pg_server")
        yield server.url_for_schema("test_%d_%d" % (os.getpid(), next(_schema_numbers)))
    _db_engine.close_engines()
