"""Antenna-array kits: list, one kit, and creating, renaming and deleting custom kits."""

import logging
from urllib.parse import quote

from starlette.responses import RedirectResponse
from starlette.routing import Route

from vexcore.QRVPublic import RetCode
from vexcore.tables.sandbox import collected_logs

from . import managers, store
from .app import form_of, in_thread, render
from .security import Refusal

log = logging.getLogger("vexcore.web")
OFFICIAL, CUSTOM = 0, 1


def routes():
    return [
        Route("/kits", kits_page),
        Route("/kits", create, methods=["POST"]),
        Route("/kits/{name}", kit_page),
        Route("/kits/{name}/rename", rename, methods=["POST"]),
        Route("/kits/{name}/delete", delete, methods=["POST"]),
    ]


def kit_url(name):
    return "/kits/" + quote(name, safe="")


def _all_kits():
    return managers.kit_manager().getAAKitInfo(local=True).RetData


async def kits_page(request, status=200, message=None, form=None):
    kits = await in_thread(_all_kits)
    return render(
        request, "kits.html", status, kits=kits, message=message, form=form or {}, done=request.query_params.get("done")
    )


async def kit_page(request, status=200, message=None):
    name = request.path_params["name"]
    record = await in_thread(managers.kit_record, name)
    return render(request, "kit.html", status, name=name, kit=record, message=message)


def _numbers(form, field, count, kind=float):
    text = (form.get(field) or "").replace(";", ",").strip()
    if not text:
        return [kind(0)] * count if count else []
    try:
        return [kind(part) for part in text.split(",") if part.strip()]
    except ValueError:
        raise Refusal("%s: write numbers separated by commas." % field, 422) from None


def _int(form, field):
    try:
        return int(form.get(field) or "")
    except ValueError:
        raise Refusal("%s must be a whole number." % field, 422) from None


async def create(request):
    form = await form_of(request, request.app.state.settings["upload_limit"])
    try:
        name = (form.get("name") or "").strip()
        devtype, channels = _int(form, "dev_type"), _int(form, "channels")
        if not name:
            raise Refusal("Give the kit a name.", 422)
        fields = (
            [_numbers(form, "spacing_x", 0)[:1] + _numbers(form, "spacing_y", 0)[:1]]
            + [_numbers(form, f, 0) for f in ("steering_h", "steering_v")]
            + [_numbers(form, f, channels, int) for f in ("offset_tx", "offset_rx")]
        )
    except Refusal as refusal:
        return await kits_page(request, 422, refusal.message, form)
    ret = await in_thread(_create, name, devtype, channels, fields)
    if ret.RetCode != RetCode.OK:
        log.warning("kit %r refused: %s %s", name, ret.RetCode.name, ret.RetMsg)
        return await kits_page(request, 422, "%s: %s" % (ret.RetCode.name, ret.RetMsg), form)
    log.info("kit %s created", ret.RetData)
    return RedirectResponse(kit_url(ret.RetData), 303)


def _create(name, devtype, channels, fields):
    """setAAKitInfo names the kit (computeAAKitFullName) and checks its fields; then it is saved."""
    _, save = store.kit_callbacks()
    manager = managers.kit_manager(devtype, channels)
    ret = manager.setAAKitInfo(name, *fields, custom=CUSTOM, dev_type=devtype)
    if ret.RetCode != RetCode.OK:
        return ret
    saved = manager.saveAAKitFile(ret.RetData, callback=save)
    return ret if saved.RetCode == RetCode.OK else saved


async def rename(request):
    name = request.path_params["name"]
    form = await form_of(request, request.app.state.settings["upload_limit"])
    new_name = (form.get("new_name") or "").strip()
    if not new_name:
        return await kit_page(request, 422, "Give the new name.")
    ret = await in_thread(_rename, name, new_name)
    if ret.RetCode != RetCode.OK:
        log.warning("kit %r not renamed: %s", name, ret.RetMsg)
        return await kit_page(request, 422, ret.RetMsg)
    log.info("kit %s renamed to %s", name, ret.RetData)
    return RedirectResponse(kit_url(ret.RetData), 303)


def _rename(name, new_name):
    record = managers.kit_record(name)
    if record.get("TYPE") != CUSTOM:
        # Renaming updates the kit as a custom kit first, so the manager would let an
        # official kit through: the front end keeps official kits read-only itself.
        return _failure("%s is an official kit: official kits are read-only." % name)
    _, save = store.kit_callbacks()
    manager = managers.kit_manager(record.get("DEV_TYPE", 0), len(record.get("OFFSET_TX") or []))
    fields = [list(record[f]) for f in ("SPACING", "STEERING_H", "STEERING_V")] + [
        record["OFFSET_TX"],
        record["OFFSET_RX"],
    ]
    with managers.LOGS_LOCK, collected_logs() as logs:
        ret = manager.setAAKitInfo(
            name, *fields, custom=CUSTOM, callback=save, dev_type=record.get("DEV_TYPE"), newKitName=new_name
        )
        errors = [r.getMessage() for r in logs.since(0, level=logging.ERROR)]
    if ret.RetCode == RetCode.OK and errors:
        return _failure("; ".join(errors))
    return ret


def _failure(message):
    from vexcore.QRVUtils import RetType

    return RetType(RetCode.ERROR_BF_AAKIT, message)


async def delete(request):
    name = request.path_params["name"]
    await form_of(request, request.app.state.settings["upload_limit"])
    ret = await in_thread(_delete, name)
    if ret.RetCode != RetCode.OK:
        log.warning("kit %r not deleted: %s", name, ret.RetMsg)
        return await kit_page(request, 422, "%s: %s" % (ret.RetCode.name, ret.RetMsg))
    log.info("kit %s deleted", name)
    return RedirectResponse("/kits?done=" + quote("deleted %s" % name), 303)


def _delete(name):
    _, save = store.kit_callbacks()
    return managers.kit_manager().deleteAAKitInfo(name, callback=save)
