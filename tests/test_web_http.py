"""The web front end through its HTTP interface: pages, changes, refusals, token and CSRF rules."""
import json
import logging
import re

import pytest
from starlette.testclient import TestClient  # the Makefile installs the extra: missing, this fails
from web_support import BEAMS, FREQ, KIT, SN, calibration_text, prepare, stored_beam

from vexcore.web import cli, store
from vexcore.web.app import create_app

Q = "?kit=" + KIT
BEAM_1 = BEAMS + "/TX/1" + Q


@pytest.fixture
def db(tmp_path, monkeypatch):
    return prepare(tmp_path, monkeypatch)


@pytest.fixture
def client(db):
    with TestClient(create_app(db), raise_server_exceptions=False) as c:
        c.get("/devices")                       # the browser's CSRF cookie
        yield c


def post(client, url, data=None, files=None, csrf=True):
    data = dict(data or {})
    if csrf:
        data["csrf"] = client.cookies.get("vexcore_csrf")
    return client.post(url, data=data, files=files, follow_redirects=False)


@pytest.mark.parametrize("url, status, texts", [
    ("/devices", 200, [SN, "2.1.0", "Upload"]),
    ("/calibration/%s/%s" % (SN, FREQ), 200, ["DR, COMDR and ELEDR per board", "TX phase offsets", "8, 3"]),
    ("/kits", 200, [KIT, "official"]),
    ("/kits/" + KIT, 200, ["official (read-only)", "-45.0 .. 45.0"]),
    (BEAMS + Q, 200, ["Steered 30 deg right", 'id="beams-RX"']),
    (BEAM_1, 200, ['class="pattern"', "outside STEERING_H", 'value="30"']),
    (BEAMS + "/TX/2" + Q + "&page=1", 200, ["board_4", "common_db", 'class="pattern"']),
    (BEAMS + "/RX/60" + Q, 200, ['value="6"']),               # an unset id: the default channel beam
    (BEAMS + "/TX/1", 200, ["Choose the table&#39;s kit"]),  # no kit: no geometry, no pattern
    ("/static/app.js", 200, ["data-confirm"]),
    ("/calibration/%s/27" % SN, 404, ["No calibration table of %s at 27.0 GHz" % SN]),
    ("/calibration/%s/nan" % SN, 404, ["is not a frequency"]),
    (BEAMS + "/XX/1" + Q, 404, ["is not an RF mode"]),
    (BEAMS + "/TX/0" + Q, 404, ["Invaid beam id: 0"]),
    (BEAMS + "/TX/1?kit=NoSuchKit", 404, ["No kit named"]),
    ("/kits/NoSuchKit", 404, ["No kit named"]),
    ("/nowhere", 404, ["There is no page at /nowhere"]),
])
def test_pages(client, url, status, texts):
    page = client.get(url)
    assert page.status_code == status
    for text in texts:
        assert text in page.text
    assert "Traceback" not in page.text


def test_calibration_download_is_json(client):
    cali = client.get("/calibration/%s/%s/export.json" % (SN, FREQ))
    assert cali.json()["DR"] == {"TX": [-10.0, 5.0], "RX": [-12.0, 6.0]} and "BOARD_4" in cali.json()


POSTS = [("/devices/upload", {}), ("/kits", {"name": "K"}), ("/kits/%s/rename" % KIT, {"new_name": "X"}),
         ("/kits/%s/delete" % KIT, {}), (BEAM_1, {"action": "save"}),
         (BEAMS + "/import" + Q, {}), (BEAMS + "/import-confirm" + Q, {"token": "x"}),
         ("/calibration/%s/%s/reload" % (SN, FREQ), {})]


@pytest.mark.parametrize("url, data", POSTS)
def test_every_changing_request_needs_this_sites_form(client, url, data):
    before = client.get("/kits").text
    assert post(client, url, data, csrf=False).status_code == 403
    forged = client.post(url, data=dict(data, csrf=client.cookies.get("vexcore_csrf")),
                         headers={"Origin": "http://elsewhere.example"}, follow_redirects=False)
    assert forged.status_code == 403 and "another site" in forged.text
    assert client.get("/kits").text == before


def test_access_token_rules_and_the_upload_limit(db, capsys):
    with TestClient(create_app(db, token="s3cret", upload_limit=1024), raise_server_exceptions=False) as c:
        assert c.get("/devices").status_code == 401
        assert c.get("/devices", headers={"Authorization": "Bearer s3cret"}).status_code == 200
        assert c.get("/devices?token=wrong").status_code == 401
        assert c.get("/devices?token=s3cret").status_code == 200
        assert c.get("/kits").status_code == 200             # the browser keeps the token in a cookie
        page = c.post("/devices/upload", data={"csrf": c.cookies.get("vexcore_csrf")},
                      files={"file": ("K5350R019-77_28GHz.csv", calibration_text())})
        assert page.status_code == 413 and "larger than the limit" in page.text
    assert cli.main(["--host", "0.0.0.0"]) == 2 and "needs an access token" in capsys.readouterr().err
    assert [cli.is_loopback(h) for h in ("127.0.0.1", "::1", "localhost", "0.0.0.0", "10.1.2.3")] == \
        [True, True, True, False, False]


def test_upload_stores_a_good_file_and_refuses_a_bad_one_whole(client):
    bad = calibration_text("K5350R019-77").replace("COMDR,TX,DR,2,B,-8.0,4.0", "COMDR,TX,DR,2,B,-8.0,four")
    refused = post(client, "/devices/upload", files={"file": ("K5350R019-77_28GHz.csv", bad.encode())})
    assert refused.status_code == 422
    assert "ERROR_BF_CALI_PARSE" in refused.text and "at line" in refused.text and "(COMDR)" in refused.text
    for name, body, message in [("notes.csv", b"x", "is named {SN}_{Freq}GHz.csv"),
                                ("../a b;_28GHz.csv", b"VER", "the serial number may hold"),
                                ("K5350R019-77_28GHz.csv", b"\xff\xfe", "is not UTF-8")]:
        page = post(client, "/devices/upload", files={"file": (name, body)})
        assert page.status_code == 422 and message in page.text
    assert "K5350R019-77" not in client.get("/devices").text
    good = post(client, "/devices/upload", files={"file": ("K5350R019-77_28GHz.csv", calibration_text("K5350R019-77"))})
    assert good.status_code == 303 and "K5350R019-77" in client.get("/devices").text
    assert post(client, "/calibration/K5350R019-77/28/reload").status_code == 303


def _revision(client, url):
    return re.search(r'name="revision" value="([^"]+)"', client.get(url).text).group(1)


STEERED = {"action": "save", "beam_type": "steered", "description": "d", "db": "2.5", "theta": "-20", "phi": "5"}


@pytest.mark.parametrize("change, status, text, saved", [
    ({}, 303, "", {"db": 2.5, "theta": -20, "phi": 5}),
    ({"db": "99"}, 422, "db 99 is outside the TX DR [-10, 5]", None),
    ({"theta": "60"}, 422, "theta 60 is outside the kit&#39;s STEERING_H [-45, 45]", None),
    ({"phi": "up"}, 422, "phi is &#39;up&#39;, not a number", None),
    ({"action": "preview", "theta": "-20"}, 200, "not saved", None),
])
def test_saving_a_steered_beam(client, change, status, text, saved):
    data = dict(STEERED, revision=_revision(client, BEAM_1))
    data.update(change)
    page = post(client, BEAM_1, data)
    assert page.status_code == status and text in page.text
    if status == 422:                           # a refused form shows what was typed, to be corrected
        assert all(re.search(r'name="%s"[^>]* value="%s"' % (k, data[k]), page.text) for k in ("db", "theta", "phi"))
    expected = saved or {"db": 3.0, "theta": 30, "phi": 0}
    assert stored_beam(SN, KIT, "TX", 1)["beam_config"] == expected
    shown = re.search(r'name="theta"[^>]* value="([^"]*)"', client.get(BEAM_1).text).group(1)
    assert shown == str(expected["theta"])      # the page shows what is stored, not an unsaved change


def test_a_save_racing_another_station_is_refused_by_the_database(client, monkeypatch):
    data = dict(STEERED, revision=_revision(client, BEAM_1))
    original = store.BeamTableStore._save

    def other_station_first(callback, table):   # another server saves just before this one writes
        other = store.beam_callback(SN)
        original(other, other("_load", freq=28.0, aakit=KIT, devtype=9).RetData)
        return original(callback, table)
    monkeypatch.setattr(store.BeamTableStore, "_save", other_station_first)
    page = post(client, BEAM_1, data)
    assert page.status_code == 409 and "changed by someone else, reload" in page.text
    monkeypatch.undo()
    assert stored_beam(SN, KIT, "TX", 1)["beam_config"] == {"db": 3.0, "theta": 30, "phi": 0}
    assert post(client, BEAM_1, dict(data, revision=_revision(client, BEAM_1))).status_code == 303


def test_saving_one_page_of_a_channel_beam_keeps_the_rest(client):
    url = BEAMS + "/RX/7" + Q                       # unset: starts from the default channel beam
    form = {"action": "save", "beam_type": "channel", "description": "c", "revision": _revision(client, url)}
    for board in range(1, 5):
        form["b%d.common_db" % board] = "1.5"
        for ch in range(1, 5):
            form.update({"b%d.c%d.sw" % (board, ch): "0", "b%d.c%d.db" % (board, ch): "2.0",
                         "b%d.c%d.deg" % (board, ch): str(45 * ch)})
    form["b3.c2.db"] = "9.5"                        # above board 3's ELEDR
    refused = post(client, url, form)
    assert refused.status_code == 422 and "BeamID_7: Checking channel config failed: Checking board_3" in refused.text
    assert "exceed the element limit ELEDR" in refused.text and stored_beam(SN, KIT, "RX", 7) is None
    assert 'name="b3.c2.db" size="4" value="9.5"' in refused.text
    form["b3.c2.db"] = "1.0"
    assert post(client, url, form).status_code == 303
    board = stored_beam(SN, KIT, "RX", 7)["channel_config"]["board_3"]
    assert board["common_db"] == 1.5 and board["channel_2"] == {"sw": 0, "db": 1.0, "deg": 90}


def test_an_exported_batch_is_validated_beam_by_beam_and_replaces_only_when_confirmed(client):
    export = client.get(BEAMS + "/export" + Q)
    assert 'filename="beams_%s_28GHz_%s.json"' % (SN, KIT) in export.headers["content-disposition"]
    batch = export.json()
    assert batch["TX"]["1"]["beam_config"] == {"db": 3.0, "theta": 30, "phi": 0}
    batch["TX"]["1"]["beam_config"]["theta"] = -10
    batch["RX"] = {"5": {"beam_description": "new", "beam_type": 0, "beam_config": {"db": 1.0, "theta": 0, "phi": 0}}}
    bad = json.loads(json.dumps(batch))
    bad["TX"]["1"]["beam_config"]["db"] = 50
    checked = post(client, BEAMS + "/import" + Q, files={"file": ("b.json", json.dumps(bad))})
    assert checked.status_code == 422 and "db 50 is outside" in checked.text and 'id="confirm"' not in checked.text
    assert post(client, BEAMS + "/import" + Q, files={"file": ("b.json", b"[1,")}).status_code == 422
    checked = post(client, BEAMS + "/import" + Q, files={"file": ("b.json", json.dumps(batch))})
    assert checked.status_code == 200 and 'id="confirm"' in checked.text
    assert stored_beam(SN, KIT, "TX", 1)["beam_config"]["theta"] == 30          # not before the confirmation
    token = re.search(r'name="token" value="([^"]+)"', checked.text).group(1)
    assert post(client, BEAMS + "/import-confirm" + Q, {"token": token}).status_code == 303
    assert stored_beam(SN, KIT, "TX", 1)["beam_config"]["theta"] == -10
    assert stored_beam(SN, KIT, "RX", 3) is None and stored_beam(SN, KIT, "RX", 5)["beam_description"] == "new"
    assert post(client, BEAMS + "/import-confirm" + Q, {"token": token}).status_code == 409     # used up


KIT_FORM = {"name": "Lab", "dev_type": "9", "channels": "16", "spacing_x": "5", "spacing_y": "5",
            "steering_h": "-40, 40", "steering_v": "-20, 20", "offset_tx": "", "offset_rx": ""}


def test_kits_are_created_renamed_and_deleted_by_the_manager(client):
    short = post(client, "/kits", dict(KIT_FORM, offset_tx="1, 2, 3"))
    assert short.status_code == 422 and "AAKit field checking failed: OFFSET_TX" in short.text
    created = post(client, "/kits", KIT_FORM)
    name = created.headers["location"].rsplit("/", 1)[1].replace("%2B", "+")
    assert created.status_code == 303 and name.startswith("Lab_") and len(name) == len("Lab_2024030112304512+0800")
    renamed = post(client, "/kits/%s/rename" % name, {"new_name": "Bench"})
    new = renamed.headers["location"].rsplit("/", 1)[1].replace("%2B", "+")
    assert renamed.status_code == 303 and new.startswith("Bench_")
    kits = client.get("/kits").text
    assert new in kits and name not in kits
    for action, data, message in [("rename", {"new_name": "Mine"}, "official kits are read-only"),
                                  ("delete", {}, "must be customized AAKit for deletion")]:
        page = post(client, "/kits/%s/%s" % (KIT, action), data)
        assert page.status_code == 422 and message in page.text
    assert post(client, "/kits/%s/delete" % new).status_code == 303 and new not in client.get("/kits").text


def test_a_failure_is_a_message_and_a_log_record(client, monkeypatch, caplog):
    monkeypatch.setattr(store, "devices", lambda: 1 / 0)
    with caplog.at_level(logging.ERROR, logger="vexcore.web"):
        page = client.get("/devices")
    assert page.status_code == 500 and "ZeroDivisionError: division by zero" in page.text
    assert "Traceback" not in page.text and caplog.records[-1].exc_info is not None
