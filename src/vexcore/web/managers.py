"""The table managers in web mode, as a device driver would set them up for one device.

A beam table needs the calibration limits of its device and frequency (for default
beams and the gain checks) and its kit (device type, steering limits, geometry). The
calibration manager's answers are kept per device and frequency until an upload or a
reload through the front end, because a large device asks the database many
questions for them.
"""

import collections
import dataclasses
import threading
from typing import Any

import vexcore.qrvdev.QRVTableManager as tm
from vexcore.QRVPublic import RetCode
from vexcore.tables import calibration as cali_check
from vexcore.tables.beam import LimitChecks

from . import store
from .security import Refusal

WEB_CLIENT_ID = "vexcore-web"
DEFAULT_NUM_BEAM = 1024

# Collecting the managers' log records re-routes their loggers for a moment: one at a time.
LOGS_LOCK = threading.Lock()
_cache_lock = threading.Lock()
_calibrations: dict[tuple, Any] = {}  # (database, sn, frequency, limits only) -> Calibration result


class AnyDeviceType:
    """The kit list of the front end shows the kits of every device type."""

    def __contains__(self, devtype):
        return True


def calibration(sn, frequency, limits_only=False):
    """The calibration manager's answers for one stored device and frequency (kept):
    DR, COMDR and ELEDR, and unless `limits_only` also TC and the phase offsets."""
    key = (store.database_path(), sn, float(frequency), limits_only)
    with _cache_lock:
        cached = _calibrations.get(key)
    if cached is not None:
        return cached
    layout = store.calibration_layout(sn, frequency)
    if layout is None:
        raise Refusal("No calibration table of %s at %s GHz in the database." % (sn, frequency), 404, "Not found")
    manager = tm.CalibrationTableManager(sn, frequency, lambda: layout, web_client_id=WEB_CLIENT_ID)
    result = cali_check.from_manager(manager, sn, frequency, layout, limits_only=limits_only)
    with _cache_lock:
        _calibrations[key] = result
    return result


def forget_calibration(sn, frequency):
    with _cache_lock:
        for limits_only in (False, True):
            _calibrations.pop((store.database_path(), sn, float(frequency), limits_only), None)


def kit_manager(devtype=0, channels=0):
    """A kit manager holding every kit of the database."""
    list_kits, _ = store.kit_callbacks()
    manager = tm.AAKitTableManager(devtype, channels, support_dev=AnyDeviceType(), web_client_id=WEB_CLIENT_ID)
    ret = manager.getAAKitList(callback=list_kits)
    if ret.RetCode != RetCode.OK:
        raise Refusal("The kit list could not be read: %s %s" % (ret.RetCode.name, ret.RetMsg), 500)
    return manager


def kit_record(name):
    """The kit's record as getAAKitInfo answers it, or None for "" (no kit)."""
    if not name:
        return None
    ret = kit_manager().getAAKitInfo(name)
    if ret.RetCode != RetCode.OK:
        raise Refusal("No kit named %r in the database." % name, 404, "Not found")
    return ret.RetData


def per_channel_group(cali):
    """The calibration limits as a beam table needs them: one "board_" per IC.

    A beam table keys its channels by IC group ("board_" + group, channels of one IC
    each), while COMDR and ELEDR are given per physical board; on a device with several
    ICs per board each group takes its board's limits, and the beam manager sees a
    layout of groups x 1 x channels.
    """
    boards, ics, channels = cali.layout
    if ics == 1:
        return cali

    def repeat(per_mode):
        return [[value for value in mode for _ in range(ics)] for mode in per_mode]

    return dataclasses.replace(
        cali, layout=(boards * ics, 1, channels), comdr=repeat(cali.comdr), eledr=repeat(cali.eledr)
    )


class BeamSession:
    """One beam table of (serial number, frequency, kit), loaded through its callback.

    `generation` is the stored generation of the table the manager holds; it is also
    the revision a form carries, which a save must still find in the database."""

    def __init__(self, sn, frequency, kit_name, num_beam=DEFAULT_NUM_BEAM, cali=None, kit=None):
        self.sn, self.frequency, self.kit_name = sn, float(frequency), kit_name
        self.cali = cali or calibration(sn, frequency, limits_only=True)
        if not self.cali.valid or self.cali.comdr is None or self.cali.eledr is None:
            raise Refusal(
                "The calibration table of %s at %s GHz cannot give beam limits: %s"
                % (sn, frequency, "; ".join(p.message for p in self.cali.problems)),
                409,
            )
        self.kit = kit if kit is not None else kit_record(kit_name)
        self.limits = per_channel_group(self.cali)
        self.layout = self.limits.layout
        self.checks = LimitChecks(self.limits, self.kit)
        self.callback = store.beam_callback(sn)
        devtype = self.kit.get("DEV_TYPE", 0) if self.kit else 0
        self.manager = tm.BeamPatternTableManager(
            sn, devtype, num_beam, self.layout, self.checks.funcs, web_client_id=WEB_CLIENT_ID
        )
        # One number per board (the COMDR upper bound, the ELEDR limit), as the beam manager
        # builds default channel beams from: their gains are then numbers a user can edit.
        self.manager._updateFreq(self.frequency, *self.limits.beam_limits())
        self.manager._updateAAKit(kit_name)
        ret = self.manager._getBatchBeamPattern(tm.BTModeFilter.ALL, self.callback)
        if ret.RetCode != RetCode.OK:
            raise Refusal("The beam table could not be loaded: %s %s" % (ret.RetCode.name, ret.RetMsg), 500)
        self.table = self.manager._BeamTable
        self.num_beam = num_beam
        self.key, self.users = None, 0  # kept under key, read by that many requests (`beam_session`)

    @property
    def generation(self):
        return self.callback.generation

    @property
    def revision(self):
        return str(self.generation)

    def beam(self, mode, beam_id):
        ret = self.manager.getBeamPattern(mode, beam_id)
        if ret.RetCode != RetCode.OK:
            raise Refusal("%s beam %s: %s" % (mode.name, beam_id, ret.RetMsg), 404, "No such beam")
        return ret.RetData


# Loaded beam tables, kept while they are what the database holds: loading a large table
# costs far more than a page's own work. A kept session's manager table is only read;
# a change works on a session of its own (see `beam_session`).
KEPT_TABLES = 4
_kept_lock = threading.Lock()
_kept: collections.OrderedDict[tuple, Any] = (
    collections.OrderedDict()
)  # (database, sn, frequency, kit, beam ids) -> BeamSession


def beam_session(sn, frequency, kit_name, num_beam=DEFAULT_NUM_BEAM, change=False):
    """The session of a stored beam table; give it back with `give_back` when done.

    The kept session serves when the table's generation, the calibration limits and the
    kit record are those it was loaded with (a small query each), else the table is
    loaded anew. With `change` the caller gets the session to itself, taken out of the
    kept ones (or freshly loaded while other requests read the kept one), because
    setBeamPattern changes the manager's table before anything is stored."""
    key = (store.database_path(), sn, float(frequency), kit_name, num_beam)
    cali = calibration(sn, frequency, limits_only=True)
    kit = kit_record(kit_name)
    generation = store.beam_table_generation(sn, frequency, kit_name)
    with _kept_lock:
        kept = _kept.get(key)
        if kept is not None and kept.generation == generation and kept.cali is cali and kept.kit == kit:
            if not change:
                kept.users += 1
                _kept.move_to_end(key)
                return kept
            if kept.users == 0:
                del _kept[key]
                return kept
    session = BeamSession(sn, frequency, kit_name, num_beam, cali=cali, kit=kit)
    session.key = key
    if not change:
        with _kept_lock:
            session.users = 1
            _keep(session)
    return session


def give_back(session):
    """Ends a request's reading of a session from `beam_session`."""
    with _kept_lock:
        session.users = max(0, session.users - 1)


def keep(session):
    """Keeps a session of a request's own whose table is the stored one (left unchanged,
    or changed and then stored); a session changed and not stored must not be kept."""
    with _kept_lock:
        _keep(session)


def _keep(session):  # under _kept_lock
    kept = _kept.get(session.key)
    if kept is not None and kept.generation > session.generation:
        return
    _kept[session.key] = session
    _kept.move_to_end(session.key)
    while len(_kept) > KEPT_TABLES:
        _kept.popitem(last=False)
