"""Beam tables of (serial number, frequency, kit): the beams, one beam with its pattern,
editing through setBeamPattern, saving (UI_SAVE_UPSERT), export (UI_EXPORT) and import
(UI_IMPORT beam by beam, then UI_SAVE_REPLACE once the user confirms)."""

import copy
import json
import logging
import re
import secrets
import threading
import time
from collections import OrderedDict
from urllib.parse import urlencode

from starlette.responses import RedirectResponse, Response
from starlette.routing import Route

import vexcore.qrvdev.QRVTableManager as tm
from vexcore.QRVPublic import BeamType, RetCode, RFMode
from vexcore.tables import kinds, pattern

from . import managers, svg
from .app import form_of, frequency_of, in_thread, render, upload_of
from .security import Refusal

log = logging.getLogger("vexcore.web")
BOARDS_PER_PAGE = 8
CONFLICT = "Not saved: the beam table was changed by someone else, reload the page to see the changes."
PENDING_IMPORTS = 8
PENDING_IMPORT_S = 3600
# Check, change and save of one table must not interleave with another save in this process.
_write_lock = threading.Lock()
_pending: OrderedDict[str, tuple] = OrderedDict()  # token -> (table key, batch, revision, time)


def routes():
    base = "/beams/{sn}/{freq}"
    return [
        Route(base, list_page),
        Route(base + "/open", open_beam),
        Route(base + "/export", export),
        Route(base + "/import", import_batch, methods=["POST"]),
        Route(base + "/import-confirm", confirm_import, methods=["POST"]),
        Route(base + "/{mode}/{beam_id:int}", beam_page),
        Route(base + "/{mode}/{beam_id:int}", save_beam, methods=["POST"]),
    ]


class Where:
    """The table a request is about, from its path and its "kit" parameter."""

    def __init__(self, request):
        self.sn = request.path_params["sn"]
        self.frequency = frequency_of(request.path_params["freq"])
        self.kit = request.query_params.get("kit", "")
        self.num_beam = request.app.state.settings.get("num_beam") or managers.DEFAULT_NUM_BEAM

    @property
    def key(self):
        return self.sn, self.frequency, self.kit

    def url(self, tail="", **params):
        query = urlencode(dict(params, kit=self.kit))
        return "/beams/%s/%s%s?%s" % (self.sn, kinds.frequency_text(self.frequency), tail, query)

    def session(self, change=False):
        """The table's session: to read (give it back with `managers.give_back`), or with
        `change` one of the request's own."""
        return managers.beam_session(self.sn, self.frequency, self.kit, self.num_beam, change=change)


def _mode(text):
    try:
        return RFMode[text]
    except KeyError:
        raise Refusal("%r is not an RF mode (TX or RX)." % text, 404, "Not found") from None


def _rows(table):
    modes = []
    for mode in RFMode:
        section = table.get(mode.name) or {}
        beams = sorted(section.items(), key=lambda item: int(item[0]) if str(item[0]).isdigit() else 0)
        modes.append(
            (mode, [(key, _type_name(beam.get("beam_type")), beam.get("beam_description", "")) for key, beam in beams])
        )
    return modes


def _type_name(value):
    try:
        return "steered" if BeamType(value) == BeamType.BEAM else "channel"
    except ValueError:
        return "type %r" % (value,)


async def list_page(request):
    where = Where(request)

    def work():
        session = where.session()
        try:
            return session, _rows(session.table), managers.kit_manager().getAAKitInfo(local=True).RetData
        finally:
            managers.give_back(session)

    session, modes, kits = await in_thread(work)
    return render(
        request,
        "beams.html",
        where=where,
        session=session,
        modes=modes,
        kits=kits,
        done=request.query_params.get("done"),
    )


async def open_beam(request):
    where = Where(request)
    mode = _mode(request.query_params.get("mode", ""))
    try:
        beam_id = int(request.query_params.get("id", ""))
    except ValueError:
        raise Refusal("A beam id is a whole number.", 422) from None
    return RedirectResponse(where.url("/%s/%d" % (mode.name, beam_id)), 303)


# --- one beam ---------------------------------------------------------------------


async def beam_page(request):
    where = Where(request)
    mode, beam_id = _mode(request.path_params["mode"]), request.path_params["beam_id"]
    session = await in_thread(where.session)
    try:
        return await _render_beam(request, where, session, mode, beam_id, session.beam(mode, beam_id))
    finally:
        managers.give_back(session)


async def _render_beam(
    request,
    where,
    session,
    mode,
    beam_id,
    beam,
    status=200,
    message=None,
    field=None,
    detail="",
    preview=False,
    revision=None,
    typed=None,
):
    """The beam page: the charts of `beam`; the form shows `typed` (a refused edit) when given."""
    page = _page(request, session)
    charts, note = await in_thread(_pattern_charts, session, mode, beam)
    beam = typed or beam
    return render(
        request,
        "beam.html",
        status,
        where=where,
        session=session,
        mode=mode,
        beam_id=beam_id,
        beam=beam,
        steered=beam.get("beam_type") == BeamType.BEAM,
        boards=_boards(session, beam, page),
        page=page,
        pages=_page_count(session),
        charts=charts,
        pattern_note=note,
        message=message,
        field=field,
        detail=detail,
        preview=preview,
        revision=revision or session.revision,
        defaults=_steered_defaults(session, mode),
    )


def _page_count(session):
    boards = session.layout[0] * session.layout[1]
    return max(1, -(-boards // BOARDS_PER_PAGE))


def _page(request, session):
    try:
        page = int(request.query_params.get("page", "1"))
    except ValueError:
        page = 1
    return min(max(page, 1), _page_count(session))


def _boards(session, beam, page):
    """(board number, common_db, [(channel number, sw, db, deg)]) of the boards on one page."""
    config = beam.get("channel_config")
    if not isinstance(config, dict):
        config = _default_channel_beam(session, beam)
    boards = session.layout[0] * session.layout[1]
    shown = []
    for number in range((page - 1) * BOARDS_PER_PAGE + 1, min(boards, page * BOARDS_PER_PAGE) + 1):
        board = config.get("board_%d" % number) or {}
        channels = [
            (ch,) + tuple((board.get("channel_%d" % ch) or {}).get(k, "") for k in ("sw", "db", "deg"))
            for ch in range(1, session.layout[2] + 1)
        ]
        shown.append((number, board.get("common_db", ""), channels))
    return shown


def _default_channel_beam(session, beam):
    """What a steered beam would start from as a channel beam: the default of an unset id."""
    for beam_id in range(session.num_beam, 0, -1):
        for mode in RFMode:
            if str(beam_id) not in session.table.get(mode.name, {}):
                return session.manager.getBeamPattern(mode, beam_id).RetData.get("channel_config", {})
    return {}


def _steered_defaults(session, mode):
    return {"db": session.cali.dr.get(mode.name) if isinstance(session.cali.dr, dict) else None}


def _pattern_charts(session, mode, beam):
    """The horizontal and vertical cuts of the beam's array factor, or a note why there are none."""
    if session.kit is None:
        return [], "Choose the table's kit to see the pattern: the kit gives the element spacing."
    try:
        channels = pattern.beam_channels(beam)
        drawing = pattern.pattern_inputs(beam, channels, session.kit, session.frequency, session.layout, mode.name)
    except (KeyError, TypeError, ValueError) as error:
        return [], "No pattern for this beam: %s." % (error,)
    charts = []
    for which, field, name in (
        ("horizontal", "STEERING_H", "theta (horizontal), deg"),
        ("vertical", "STEERING_V", "phi (vertical), deg"),
    ):
        angles, values, fixed, steered_to = pattern.cut(drawing, which)
        limits = session.kit.get(field) or [-90, 90]
        other = "phi" if which == "horizontal" else "theta"
        charts.append(
            svg.pattern_cut(
                angles,
                values,
                limits,
                steered_to,
                "%s cut at %s = %g deg (shaded: outside %s)" % (which, other, fixed, field),
                name,
            )
        )
    return charts, ""


def _value(text, whole=False):
    """A number typed into a field; anything else goes to the manager as typed, which
    refuses it with its own message."""
    text = (text or "").strip()
    if whole or re.fullmatch(r"[+-]?\d+", text):
        try:
            return int(text)
        except ValueError:
            return text
    try:
        return float(text)
    except ValueError:
        return text


def _edit_of(form, session, page):
    """(beam type, config, description) from the beam form: only the boards of its page."""
    beam_type = BeamType.BEAM if form.get("beam_type") == "steered" else BeamType.CHANNEL
    description = form.get("description", "")
    if beam_type == BeamType.BEAM:
        return beam_type, {k: _value(form.get(k)) for k in ("db", "theta", "phi")}, description
    config = {}
    for number, _, channels in _boards(session, {"channel_config": {}}, page):
        prefix = "b%d." % number
        board = {"common_db": _value(form.get(prefix + "common_db"))}
        for channel, *_ in channels:
            name = "%sc%d." % (prefix, channel)
            board["channel_%d" % channel] = {
                "sw": _value(form.get(name + "sw"), whole=True),
                "db": _value(form.get(name + "db")),
                "deg": _value(form.get(name + "deg")),
            }
        config["board_%d" % number] = board
    return beam_type, config, description


async def save_beam(request):
    where = Where(request)
    mode, beam_id = _mode(request.path_params["mode"]), request.path_params["beam_id"]
    form = await form_of(request, request.app.state.settings["upload_limit"])
    preview = form.get("action") == "preview"
    outcome = await in_thread(_apply, where, mode, beam_id, form, preview, request)
    session, beam, ret, detail = outcome
    if ret is None:
        log.info("%s beam %s %d of %s saved", where.key, mode.name, beam_id, where.kit)
        return RedirectResponse(where.url("/%s/%d" % (mode.name, beam_id), page=_page(request, session), saved=1), 303)
    if ret == "preview":
        return await _render_beam(
            request, where, session, mode, beam_id, beam, preview=True, revision=form.get("revision")
        )
    if ret == "conflict":
        log.warning("stale save of %s %s beam %d refused", where.key, mode.name, beam_id)
        status, message, field, detail = 409, CONFLICT, None, ""
    else:
        log.warning("%s beam %d of %s refused: %s %s", mode.name, beam_id, where.key, ret.RetCode.name, ret.RetMsg)
        detail = "" if detail in ret.RetMsg else detail  # a steered beam's hook message is the result
        status, message, field = 422, ret.RetMsg, _field_of(ret.RetMsg + " " + detail)
    fresh = await in_thread(where.session)  # the table as stored now
    try:
        stored = fresh.beam(mode, beam_id)
        # A refused form shows what was typed, to be corrected; after a conflict, the stored beam.
        typed = None if ret == "conflict" else _typed_over(stored, _edit_of(form, fresh, _page(request, fresh)))
        return await _render_beam(
            request, where, fresh, mode, beam_id, stored, status, message, field, detail, typed=typed
        )
    finally:
        managers.give_back(fresh)


def _apply(where, mode, beam_id, form, preview, request):
    """(session, beam, outcome, detail): outcome None when saved, "preview", "conflict" or the refusal.
    The session is the request's own: setBeamPattern changes its table before any save."""
    with _write_lock:
        session = where.session(change=True)
        if not preview and form.get("revision") != session.revision:
            managers.keep(session)  # unchanged: still the stored table
            return session, None, "conflict", ""
        beam_type, config, description = _edit_of(form, session, _page(request, session))
        session.checks.reasons.clear()
        ret = session.manager.setBeamPattern(mode, beam_id, beam_type, config, description, save=False)
        detail = "; ".join(session.checks.reasons)
        if ret.RetCode != RetCode.OK:
            return session, None, ret, detail
        beam = session.manager.getBeamPattern(mode, beam_id).RetData
        if preview:
            return session, beam, "preview", ""
        batch = {mode.name: {str(beam_id): copy.deepcopy(beam)}}
        saved = session.manager._setBatchBeamPattern(batch, tm.BTSetOption.UI_SAVE_UPSERT, session.callback)
        if saved.RetCode == RetCode.OK:
            managers.keep(session)
            return session, beam, None, ""
        return session, beam, "conflict" if session.callback.stale else saved, ""


def _typed_over(beam, edit):
    """The stored beam with an edit from the form laid over it (the boards of one page for
    a channel beam), values as typed."""
    beam_type, config, description = edit
    shown = dict(beam, beam_type=beam_type, beam_description=description)
    if beam_type == BeamType.BEAM:
        shown["beam_config"] = config
    else:
        shown["channel_config"] = {**(beam.get("channel_config") or {}), **config}
    return shown


def _field_of(message):
    """The form field a refusal is about: a board, or db/theta/phi of a steered beam."""
    board = re.search(r"board_(\d+)", message)
    if board:
        return "b%s" % board.group(1)
    for name in ("theta", "phi", "db"):
        if re.search(r"\b%s\b" % name, message):
            return name
    return None


# --- export and import --------------------------------------------------------------


async def export(request):
    where = Where(request)

    def work():
        session = where.session()
        try:
            batch = session.manager._getBatchBeamPattern(tm.BTModeFilter.ALL).RetData
            ret = session.manager._setBatchBeamPattern(batch, tm.BTSetOption.UI_EXPORT, None)
            return ret.RetCode, ret.RetMsg, json.dumps(ret.RetData, ensure_ascii=False, indent=2)
        finally:
            managers.give_back(session)

    code, message, text = await in_thread(work)
    if code != RetCode.OK:
        raise Refusal("The table cannot be exported: %s %s" % (code.name, message), 422)
    name = re.sub(
        r"[^A-Za-z0-9._+-]",
        "_",
        "beams_%s_%sGHz_%s.json" % (where.sn, kinds.frequency_text(where.frequency), where.kit or "no-kit"),
    )
    return Response(
        text, media_type="application/json", headers={"Content-Disposition": 'attachment; filename="%s"' % name}
    )


async def import_batch(request):
    where = Where(request)
    limit = request.app.state.settings["upload_limit"]
    form = await form_of(request, limit)
    name, data = await upload_of(form, "file", limit)
    try:
        batch = json.loads(data.decode("utf-8"))
    except UnicodeDecodeError as error:
        raise Refusal("%s is not UTF-8 text (byte %d)." % (name, error.start), 422) from None
    except ValueError as error:
        raise Refusal("%s is not JSON: %s" % (name, error), 422) from None
    if not isinstance(batch, dict):
        raise Refusal("%s must hold a JSON object with the sections TX and RX." % name, 422)
    revision, results = await in_thread(_validate_import, where, batch)
    ok = bool(results) and all(r["ok"] for r in results if not r["ignored"])
    token = _remember(where.key, batch, revision) if ok else None
    return render(
        request, "import.html", 200 if ok else 422, where=where, name=name, results=results, ok=ok, token=token
    )


def _validate_import(where, batch):
    """Each beam of the batch through UI_IMPORT, one by one, so every beam gets its answer
    (a validation: the table is not changed, but the hooks collect their reasons)."""
    session = where.session(change=True)
    try:
        return session.revision, _validation_results(session, batch)
    finally:
        managers.keep(session)


def _validation_results(session, batch):
    results = []
    for mode_name, beams in batch.items():
        if mode_name not in RFMode.__members__:
            results.append(
                {
                    "mode": mode_name,
                    "id": "",
                    "ignored": True,
                    "ok": True,
                    "message": "not an RF mode: ignored, as the manager does",
                }
            )
            continue
        for beam_id, beam in beams.items() if isinstance(beams, dict) else [("", beams)]:
            session.checks.reasons.clear()
            ret = session.manager._setBatchBeamPattern({mode_name: {beam_id: beam}}, tm.BTSetOption.UI_IMPORT, None)
            reasons = "; ".join(session.checks.reasons)
            results.append(
                {
                    "mode": mode_name,
                    "id": beam_id,
                    "ignored": False,
                    "ok": ret.RetCode == RetCode.OK,
                    "type": _type_name(beam.get("beam_type")) if isinstance(beam, dict) else "",
                    "description": beam.get("beam_description", "") if isinstance(beam, dict) else "",
                    "message": ""
                    if ret.RetCode == RetCode.OK
                    else "%s %s%s" % (ret.RetCode.name, ret.RetMsg, " (%s)" % reasons if reasons else ""),
                }
            )
    return results


def _remember(key, batch, revision):
    token = secrets.token_urlsafe(24)
    now = time.monotonic()
    with _write_lock:
        for old, entry in list(_pending.items()):
            if now - entry[3] > PENDING_IMPORT_S:
                del _pending[old]
        _pending[token] = (key, batch, revision, now)
        while len(_pending) > PENDING_IMPORTS:
            _pending.popitem(last=False)
    return token


async def confirm_import(request):
    where = Where(request)
    form = await form_of(request, request.app.state.settings["upload_limit"])
    outcome = await in_thread(_replace, where, form.get("token", ""))
    if outcome is not None:
        raise outcome
    log.info("beam table %s replaced by an import", where.key)
    return RedirectResponse(where.url(done="imported: the table now holds the imported beams"), 303)


def _replace(where, token):
    with _write_lock:
        entry = _pending.get(token)
        if entry is None or entry[0] != where.key:
            return Refusal(
                "This import is no longer pending (it was applied, expired or replaced): upload the file again.",
                409,
                "Import expired",
            )
        _, batch, revision, _ = entry
        session = where.session(change=True)
        if session.revision != revision:
            return Refusal(CONFLICT, 409, "Changed by someone else")
        ret = session.manager._setBatchBeamPattern(batch, tm.BTSetOption.UI_SAVE_REPLACE, session.callback)
        if session.callback.stale:
            return Refusal(CONFLICT, 409, "Changed by someone else")
        if ret.RetCode != RetCode.OK:
            return Refusal("Nothing was saved: %s %s" % (ret.RetCode.name, ret.RetMsg), 422, "Import refused")
        managers.keep(session)
        del _pending[token]
    return None
