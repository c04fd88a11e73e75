"""Devices (the calibration tables in the database), uploads, and one device's calibration."""

import json
import logging
import os
import re
from ntpath import basename as windows_basename
from urllib.parse import quote

from starlette.responses import RedirectResponse, Response
from starlette.routing import Route

from vexcore.QRVPublic import RFMode
from vexcore.tables import calibration as cali_check
from vexcore.tables import kinds
from vexcore.tables.common import unwrap
from vexcore.tables.sandbox import collected_logs

from . import managers, store, svg
from .app import form_of, frequency_of, in_thread, render, upload_of
from .security import Refusal

log = logging.getLogger("vexcore.web")
SERIAL_NUMBER = re.compile(r"^[A-Za-z0-9][A-Za-z0-9._+-]{0,99}$")


def routes():
    return [
        Route("/devices", devices_page),
        Route("/devices/upload", upload, methods=["POST"]),
        Route("/calibration/{sn}/{freq}", calibration_page),
        Route("/calibration/{sn}/{freq}/export.json", calibration_export),
        Route("/calibration/{sn}/{freq}/reload", reload_calibration, methods=["POST"]),
    ]


async def devices_page(request):
    rows = await in_thread(store.devices)
    return render(request, "devices.html", devices=rows, added=request.query_params.get("added"))


async def upload(request):
    limit = request.app.state.settings["upload_limit"]
    form = await form_of(request, limit)
    name, data = await upload_of(form, "file", limit)
    checked = await in_thread(_check_and_store, name, data)
    if isinstance(checked, cali_check.Calibration):
        log.warning("upload %s refused: %s", name, "; ".join(p.message for p in checked.problems))
        rows = await in_thread(store.devices)
        return render(request, "devices.html", 422, devices=rows, refused=checked, refused_name=name)
    sn, frequency = checked
    log.info("calibration %s stored as %s at %s GHz", name, sn, frequency)
    return RedirectResponse("/devices?added=%s" % quote("%s at %s GHz" % (sn, kinds.frequency_text(frequency))), 303)


def _check_and_store(name, data):
    """(sn, frequency) once stored, or the check result that refuses the file."""
    name = windows_basename(os.path.basename(name))  # a browser may send a whole path
    identity = kinds.calibration_name(name)
    if identity is None or not name.endswith(".csv"):
        raise Refusal(
            "%s: a calibration file is named {SN}_{Freq}GHz.csv, for example K5350R019-28_28GHz.csv." % name, 422
        )
    sn, frequency = identity
    if not SERIAL_NUMBER.match(sn):
        raise Refusal("%s: the serial number may hold letters, digits and . _ + - only." % name, 422)
    try:
        data.decode("utf-8")
    except UnicodeDecodeError as error:
        raise Refusal("%s is not UTF-8 text (byte %d)." % (name, error.start), 422) from None
    with store.private_folder() as folder, managers.LOGS_LOCK:
        # The copy's name is made from the checked serial number and frequency, in a
        # folder of our own: the uploaded name never reaches the file system.
        path = os.path.join(folder, "%s_%sGHz.csv" % (sn, kinds.frequency_text(frequency)))
        with open(path, "wb") as handle:
            handle.write(data)
        with collected_logs():
            result = cali_check.load(path)
        if not result.valid:
            result.path = name
            return result
        stored = store.store_calibration_file(path, result.layout)
    managers.forget_calibration(*stored)
    return stored


def _device(request):
    sn = request.path_params["sn"]
    frequency = frequency_of(request.path_params["freq"])
    return sn, frequency


async def calibration_page(request):
    sn, frequency = _device(request)
    result, header = await in_thread(
        lambda: (managers.calibration(sn, frequency), store.calibration_header(sn, frequency))
    )
    return render(
        request,
        "calibration.html",
        sn=sn,
        frequency=frequency,
        cali=result,
        header=header,
        charts=_charts(result),
        tc=result.tc,
        offset_maps=_offset_maps(result),
    )


def _charts(result):
    if not (result.dr and result.comdr and result.eledr):
        return []
    charts = []
    for mode in RFMode:
        comdr = result.comdr[mode.value]
        if comdr and all(isinstance(pair, list) and len(pair) == 2 for pair in comdr):
            eledr = [unwrap(v) for v in result.eledr[mode.value]]
            charts.append(
                svg.limits_chart(result.dr[mode.name], comdr, eledr, "%s: DR, COMDR and ELEDR per board" % mode.name)
            )
    return charts


def _offset_maps(result):
    boards, chips, channels = result.layout
    maps = []
    for mode in RFMode:
        per_chip = [result.offsets.get((mode.name, chip)) for chip in range(1, chips + 1)]
        if any(values is None for values in per_chip):
            continue
        rows = [[v for values in per_chip for v in values[board]] for board in range(boards)]
        labels = [
            "ic%d ch%d" % (chip, ch) if chips > 1 else "ch%d" % ch
            for chip in range(1, chips + 1)
            for ch in range(1, channels + 1)
        ]
        flat = [v for row in rows for v in row] or [0]
        maps.append(
            svg.heat_map(
                rows,
                ["board_%d" % (b + 1) for b in range(boards)],
                labels,
                "%s phase offsets (steps), boards x channels" % mode.name,
                min(flat),
                max(flat),
                cell=22 if boards * len(labels) <= 1024 else 12,
            )
        )
    return maps


async def calibration_export(request):
    sn, frequency = _device(request)
    result = await in_thread(managers.calibration, sn, frequency)
    table = await in_thread(store.calibration_table, sn, frequency, result.layout[0])
    name = "%s_%sGHz.json" % (re.sub(r"[^A-Za-z0-9._+-]", "_", sn), kinds.frequency_text(frequency))
    return Response(
        json.dumps(table, ensure_ascii=False, indent=2),
        media_type="application/json",
        headers={"Content-Disposition": 'attachment; filename="%s"' % name},
    )


async def reload_calibration(request):
    """Drops the kept answers, so the next page reads the database again (after an import
    made outside the front end)."""
    sn, frequency = _device(request)
    await form_of(request, request.app.state.settings["upload_limit"])
    managers.forget_calibration(sn, frequency)
    return RedirectResponse("/calibration/%s/%s" % (quote(sn), kinds.frequency_text(frequency)), 303)
