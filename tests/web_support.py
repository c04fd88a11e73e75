"""The front end over a fresh demonstration database: a test client and a live server."""
import socket
import threading
import time

import pytest

SN, FREQ = "K5350R019-28", "28"
KIT = "AAKIT_QRVLAB-4x4_PRIME_28_IDEAL"
BEAMS = "/beams/%s/%s" % (SN, FREQ)


def prepare(tmp_path, monkeypatch):
    """A demonstration folder (calibration, kit and beam table in its database); its db path."""
    from vexcore.web import demo

    folder = tmp_path / "web"
    db = folder / "files" / "vexcore_tables.db"
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(folder / "files"))
    monkeypatch.setenv("VEXCORE_DB", str(db))
    assert demo.main([str(folder)]) == 0
    return db


def calibration_text(sn=SN):
    from vexcore import samples

    with open("%s/files/%s" % (samples.HERE, samples.CALIBRATION_FILE), encoding="utf-8") as f:
        return f.read().replace("SN,%s" % SN, "SN,%s" % sn)


def stored_beam(sn, kit, mode, beam_id):
    """The beam as the database holds it now (None when unset), read through the callback."""
    from vexcore.web import store

    table = store.beam_callback(sn)("_load", freq=28.0, aakit=kit, devtype=9).RetData
    return table[mode].get(str(beam_id))


class LiveServer:
    """The application served by uvicorn on 127.0.0.1 (a free port), in a thread of this process."""

    def __init__(self, app):
        import uvicorn

        self.socket = socket.socket()
        self.socket.bind(("127.0.0.1", 0))
        self.url = "http://127.0.0.1:%d" % self.socket.getsockname()[1]
        self.server = uvicorn.Server(uvicorn.Config(app, log_level="warning"))
        self.thread = threading.Thread(target=self.server.run, kwargs={"sockets": [self.socket]}, daemon=True)
        self.thread.start()
        deadline = time.monotonic() + 20
        while not self.server.started:
            if time.monotonic() > deadline or not self.thread.is_alive():
                pytest.fail("the web server did not start within 20 s")
            time.sleep(0.05)

    def stop(self):
        self.server.should_exit = True
        self.thread.join(10)
        self.socket.close()
