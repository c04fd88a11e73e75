"""What the benchmark measures: each hot path of the module beside its pure-Python peer and,
where one exists, the standard-library primitive underneath it.

Every side works in its own copy of the files directory (see Workspace), so a side that
writes a table never changes what another side reads.
"""

import csv
import glob
import json
import os
import shutil
from dataclasses import dataclass
from pathlib import Path

import gen_data
from baseline import aakit as py_aakit
from baseline import beam as py_beam
from baseline import calibration as py_calibration
from baseline import ud as py_ud
from harness import MODULE, PYTHON, STDLIB, CallFailed, Operation, Side

from vexcore.QRVPublic import BeamType, RetCode, RFMode
from vexcore.QRVUtils import RetType

GAIN_CEILING_DB = 31.5


# ------------------------------------------------------------- workspace ---


class Workspace:
    """One generated data set and a private copy of its files directory per side."""

    def __init__(self, root):
        self.root = Path(root)
        self.manifest = json.loads((self.root / "data" / "manifest.json").read_text(encoding="utf-8"))

    @classmethod
    def create(cls, root, size, seed):
        """Generates the data set into root/data and lays out root/<side> copies of it. Inputs
        are hard-linked (no side writes them); beam tables are real copies, written in place."""
        root = Path(root)
        gen_data.generate(root / "data", size, seed)
        for kind in (MODULE, PYTHON, STDLIB):
            _mirror(root / "data", root / kind)
        return cls(root)

    def files_dir(self, kind):
        return self.root / kind

    @property
    def name(self):
        return self.manifest["size"]["name"]

    @property
    def layout(self):
        return tuple(self.manifest["layout"])

    def layout_hook(self):
        layout = self.layout
        return lambda: layout

    @property
    def total_channels(self):
        boards, ics, channels = self.layout
        return boards * ics * channels


def _mirror(source, dest):
    dest.mkdir(parents=True, exist_ok=True)
    for item in source.iterdir():
        if item.is_dir():
            _mirror(item, dest / item.name)
        elif item.parent.name == "BeamTable":
            shutil.copyfile(item, dest / item.name)
        else:
            _link_or_copy(item, dest / item.name)


def _link_or_copy(source, dest):
    try:
        os.link(source, dest)
    except OSError:
        shutil.copyfile(source, dest)


def use_files_dir(path):
    # The managers read the files directory when they are built.
    os.environ["VEXCORE_FILES_DIR"] = str(path)


# ---------------------------------------------------------- the two peers ---


@dataclass
class Flavour:
    """One implementation of the managers: the C++ module or the pure-Python peer."""

    kind: str
    calibration: object
    aakit: object
    beam: object
    ud: object
    mode_filter: object
    set_option: object

    def needs(self, *pairs):
        """What the module must define for a side to run; the pure-Python peer has it all."""
        return tuple(pairs) if self.kind == MODULE else ()


def flavours(module):
    def native(name):
        return getattr(module, name, None)  # a missing class is reported through Flavour.needs

    module_side = Flavour(
        MODULE,
        native("CalibrationTableManager"),
        native("AAKitTableManager"),
        native("BeamPatternTableManager"),
        native("UDDeltaFreqTableManager"),
        native("BTModeFilter"),
        native("BTSetOption"),
    )
    python_side = Flavour(
        PYTHON,
        py_calibration.CalibrationTableManager,
        py_aakit.AAKitTableManager,
        py_beam.BeamPatternTableManager,
        py_ud.UDDeltaFreqTableManager,
        py_beam.BTModeFilter,
        py_beam.BTSetOption,
    )
    return module_side, python_side


def ok(ret):
    """The call's result, or CallFailed when it reports an error: a fast failure is no measurement."""
    if ret.RetCode != RetCode.OK:
        raise CallFailed("%s: %s" % (ret.RetCode, ret.RetMsg))
    return ret


# The driver's check hooks, the same Python functions for both peers.
def beam_check(mode, db, theta, phi, _unused):
    return RetType(data=(db, theta, phi))


def ic_gain_check(mode, board_index, gains, common_db):
    if max(gains) > GAIN_CEILING_DB:
        return RetType(RetCode.ERROR, "gain above the IC limit")
    return RetType()


def mangled(class_name, attr):
    return "_%s__%s" % (class_name, attr)


# ----------------------------------------------------------- calibration ---

CALI = "CalibrationTableManager"


def calibration_manager(flavour, ws):
    use_files_dir(ws.files_dir(flavour.kind))
    return flavour.calibration(ws.manifest["sn"], ws.manifest["freq"], ws.layout_hook())


def parsed_calibration(flavour, ws):
    manager = calibration_manager(flavour, ws)
    ok(manager.parse())
    return manager


def cali_parse(ws, fl):
    return Side(
        fl.kind,
        lambda: calibration_manager(fl, ws),
        lambda m: ok(m.parse()),
        outcome=lambda m, _: m._CaliTable,
        requires=fl.needs((CALI, "__init__"), (CALI, "parse")),
    )


def csv_tokenise(path):
    with open(path, "r", newline="") as f:
        for _ in csv.reader(f):
            pass


def cali_parse_stdlib(ws):
    path = ws.files_dir(STDLIB) / ws.manifest["calibration_file"]
    return Side(STDLIB, lambda: path, csv_tokenise, label="csv.reader, no conversion")


def cali_dr(ws, fl):
    def call(m):
        ok(m.getDR(RFMode.TX))
        return ok(m.getDR())

    return Side(
        fl.kind,
        lambda: parsed_calibration(fl, ws),
        call,
        outcome=lambda m, r: r.RetData,
        requires=fl.needs((CALI, "parse"), (CALI, "getDR")),
    )


def cali_arm_ranges(ws, fl):
    """COMDR and ELEDR as after a frequency change: the cache is dropped before each pair."""

    def call(m):
        setattr(m, mangled(CALI, "allXXXDR"), None)
        return ok(m.getCOMDR()).RetData, ok(m.getELEDR()).RetData

    return Side(
        fl.kind,
        lambda: parsed_calibration(fl, ws),
        call,
        outcome=lambda m, r: r,
        requires=fl.needs((CALI, "parse"), (CALI, "getCOMDR"), (CALI, "getELEDR")),
    )


def cali_tc(ws, fl):
    return Side(
        fl.kind,
        lambda: parsed_calibration(fl, ws),
        lambda m: m._getTC(),
        outcome=lambda m, r: r,
        requires=fl.needs((CALI, "parse"), (CALI, "_getTC")),
    )


# ------------------------------------------------------------------ kits ---

KIT = "AAKitTableManager"


def kit_manager(flavour, ws):
    use_files_dir(ws.files_dir(flavour.kind))
    devtype = ws.manifest["devtype"]
    return flavour.aakit(devtype, ws.total_channels, support_dev=[devtype])


def kit_parse(ws, fl):
    return Side(
        fl.kind,
        lambda: kit_manager(fl, ws),
        lambda m: ok(m.parse()),
        outcome=lambda m, _: m._AAKitTable,
        requires=fl.needs((KIT, "__init__"), (KIT, "parse")),
    )


def kit_files_tokenise(folder):
    for path in sorted(glob.glob(str(folder / "AAKIT_*.csv"))):
        csv_tokenise(path)


def kit_parse_stdlib(ws):
    return Side(STDLIB, lambda: ws.files_dir(STDLIB), kit_files_tokenise, label="glob + csv.reader, no conversion")


# ----------------------------------------------------------------- beams ---

BEAM = "BeamPatternTableManager"


def beam_manager(flavour, ws):
    use_files_dir(ws.files_dir(flavour.kind))
    m = ws.manifest
    manager = flavour.beam(m["sn"], m["devtype"], m["num_beam"], ws.layout, (beam_check, ic_gain_check))
    limits = m["beam_limits"]
    manager._updateFreq(m["freq"], limits["DR"], limits["COMDR"], limits["ELEDR"])
    return manager


def loaded_beams(flavour, ws):
    manager = beam_manager(flavour, ws)
    ok(manager._load(ws.manifest["freq"], ws.manifest["kit_name"]))
    return manager


def beam_load(ws, fl):
    call = lambda m: ok(m._load(ws.manifest["freq"], ws.manifest["kit_name"]))  # noqa: E731
    return Side(
        fl.kind,
        lambda: beam_manager(fl, ws),
        call,
        outcome=lambda m, _: m._BeamTable,
        requires=fl.needs((BEAM, "__init__"), (BEAM, "_updateFreq"), (BEAM, "_load")),
    )


def json_load(path):
    with open(path, "r", encoding="utf-8") as f:
        return json.load(f)


def beam_load_stdlib(ws):
    path = ws.files_dir(STDLIB) / ws.manifest["beam_file"]
    return Side(STDLIB, lambda: path, json_load, label="json.load", outcome=lambda _, table: table)


def restore_old_table(ws, kind):
    folder = ws.files_dir(kind)
    shutil.copyfile(folder / ws.manifest["old_beam_source"], folder / ws.manifest["old_beam_target"])


def beam_load_old(ws, fl):
    """An old-format table converted and saved back; no kit, so every channel beam is converted."""
    return Side(
        fl.kind,
        lambda: beam_manager(fl, ws),
        lambda m: ok(m._load(ws.manifest["freq"], "")),
        reset=lambda m: restore_old_table(ws, fl.kind),
        outcome=lambda m, _: m._BeamTable,
        requires=fl.needs((BEAM, "__init__"), (BEAM, "_updateFreq"), (BEAM, "_load")),
    )


def saved_bytes(ws, kind, name):
    return (ws.files_dir(kind) / name).read_bytes()


def beam_save(ws, fl):
    return Side(
        fl.kind,
        lambda: loaded_beams(fl, ws),
        lambda m: ok(m._saveToBeamTableFile()),
        outcome=lambda m, _: saved_bytes(ws, fl.kind, ws.manifest["beam_file"]),
        requires=fl.needs((BEAM, "_load"), (BEAM, "_saveToBeamTableFile")),
    )


def json_dump(context):
    table, path = context
    with open(path, "w", encoding="utf-8") as f:
        json.dump(table, f, ensure_ascii=False, indent=2)


def beam_save_stdlib(ws):
    path = ws.files_dir(STDLIB) / ws.manifest["beam_file"]
    return Side(
        STDLIB,
        lambda: (json_load(path), path),
        json_dump,
        label="json.dump(ensure_ascii=False, indent=2)",
        outcome=lambda c, _: c[1].read_bytes(),
    )


def get_unset(ws, fl):
    call = lambda m: ok(m.getBeamPattern(RFMode.TX, ws.manifest["unset_beam_id"]))  # noqa: E731
    return Side(
        fl.kind,
        lambda: loaded_beams(fl, ws),
        call,
        outcome=lambda m, r: r.RetData,
        requires=fl.needs((BEAM, "_load"), (BEAM, "getBeamPattern")),
    )


def set_channel(ws, fl):
    """A partial channel configuration (one channel of the second board), not saved."""

    def setup():
        return loaded_beams(fl, ws), {"board_2": {"channel_3": {"sw": 0, "db": 1.5, "deg": 90.0}}}

    def call(context):
        manager, config = context
        return ok(manager.setBeamPattern(RFMode.TX, beam_id, BeamType.CHANNEL, config, save=False))

    beam_id = ws.manifest["channel_beam_id"]
    return Side(
        fl.kind,
        setup,
        call,
        outcome=lambda c, _: c[0]._BeamTable["TX"][str(beam_id)],
        requires=fl.needs((BEAM, "_load"), (BEAM, "setBeamPattern")),
    )


def set_steered(ws, fl):
    def setup():
        return loaded_beams(fl, ws), {"db": 1.5, "theta": 12, "phi": -6}

    def call(context):
        manager, config = context
        return ok(manager.setBeamPattern(RFMode.TX, beam_id, BeamType.BEAM, config, "tracking", save=False))

    beam_id = ws.manifest["steered_beam_id"]
    return Side(
        fl.kind,
        setup,
        call,
        outcome=lambda c, _: c[0]._BeamTable["TX"][str(beam_id)],
        requires=fl.needs((BEAM, "_load"), (BEAM, "setBeamPattern")),
    )


def batch_get(ws, fl):
    return Side(
        fl.kind,
        lambda: loaded_beams(fl, ws),
        lambda m: ok(m._getBatchBeamPattern(fl.mode_filter.ALL)),
        outcome=lambda m, r: r.RetData,
        requires=fl.needs((BEAM, "_load"), (BEAM, "_getBatchBeamPattern")),
    )


def imported_batch(fl, ws):
    """A loaded manager and a batch read from the table file, as a user interface imports it."""
    table = json_load(ws.files_dir(fl.kind) / ws.manifest["beam_file"])
    return loaded_beams(fl, ws), {mode.name: table[mode.name] for mode in RFMode}


def batch_save_replace(ws, fl):
    def call(context):
        manager, batch = context
        return ok(manager._setBatchBeamPattern(batch, fl.set_option.UI_SAVE_REPLACE))

    return Side(
        fl.kind,
        lambda: imported_batch(fl, ws),
        call,
        outcome=lambda c, _: saved_bytes(ws, fl.kind, ws.manifest["beam_file"]),
        requires=fl.needs((BEAM, "_load"), (BEAM, "_setBatchBeamPattern")),
    )


def batch_validate(ws, fl):
    def call(context):
        manager, batch = context
        return ok(manager._setBatchBeamPattern(batch, fl.set_option.VALIDATE))

    return Side(
        fl.kind,
        lambda: imported_batch(fl, ws),
        call,
        outcome=lambda c, r: r.RetData,
        requires=fl.needs((BEAM, "_load"), (BEAM, "_setBatchBeamPattern")),
    )


# ----------------------------------------------------------- device open ---


def open_device(fl, ws):
    """What a driver does when a device opens: calibration, kits, beams, UD delta, in that order."""
    m = ws.manifest
    use_files_dir(ws.files_dir(fl.kind))
    cali = fl.calibration(m["sn"], m["freq"], ws.layout_hook())
    ok(cali.parse())
    dr, comdr, eledr = ok(cali.getDR()).RetData, ok(cali.getCOMDR()).RetData, ok(cali.getELEDR()).RetData
    kits = fl.aakit(m["devtype"], ws.total_channels, support_dev=[m["devtype"]])
    ok(kits.getAAKitList())
    ok(kits._selectAAKit(m["kit_name"]))
    beams = fl.beam(m["sn"], m["devtype"], m["num_beam"], ws.layout_hook(), (beam_check, ic_gain_check))
    beams._updateFreq(m["freq"], dr, comdr, eledr)
    beams._updateAAKit(m["kit_name"])
    ok(beams._load(m["freq"], m["kit_name"]))
    ud = fl.ud(m["sn"])
    ok(ud.parse())
    return cali._CaliTable, list(kits._AAKitTable), beams._BeamTable, ud.getUDDeltaFreq().RetData


DEVICE_NEEDS = (
    (CALI, "__init__"),
    (CALI, "parse"),
    (CALI, "getDR"),
    (CALI, "getCOMDR"),
    (CALI, "getELEDR"),
    (KIT, "__init__"),
    (KIT, "getAAKitList"),
    (KIT, "_selectAAKit"),
    (BEAM, "__init__"),
    (BEAM, "_updateFreq"),
    (BEAM, "_updateAAKit"),
    (BEAM, "_load"),
    ("UDDeltaFreqTableManager", "__init__"),
    ("UDDeltaFreqTableManager", "parse"),
)


def device_open(ws, fl):
    return Side(
        fl.kind, lambda: fl, lambda f: open_device(f, ws), outcome=lambda _, r: r, requires=fl.needs(*DEVICE_NEEDS)
    )


# -------------------------------------------------------------- catalogue ---


def _target(against, at_least):
    return {"against": against, "at_least": at_least}


# key, title, builder of the module/Python sides, builder of the stdlib side, memory, target on large data
CATALOGUE = [
    ("cali_parse", "calibration parse", cali_parse, cali_parse_stdlib, False, _target(PYTHON, 10)),
    ("cali_dr", "getDR (one mode, all modes)", cali_dr, None, False, None),
    ("cali_comdr_eledr", "getCOMDR + getELEDR, cache rebuilt", cali_arm_ranges, None, False, None),
    ("cali_tc", "_getTC", cali_tc, None, False, None),
    ("kit_parse", "kit parse (all kit files)", kit_parse, kit_parse_stdlib, False, _target(PYTHON, 5)),
    ("beam_load", "beam load, current format", beam_load, beam_load_stdlib, True, _target(PYTHON, 1)),
    ("beam_load_old", "beam load, old format converted + saved", beam_load_old, None, False, None),
    ("beam_save", "beam save (JSON, indent 2)", beam_save, beam_save_stdlib, True, _target(STDLIB, 10)),
    ("get_unset", "getBeamPattern, unset id (default beam)", get_unset, None, False, _target(PYTHON, 5)),
    ("set_channel", "setBeamPattern channel, partial, no save", set_channel, None, False, None),
    ("set_steered", "setBeamPattern steered, no save", set_steered, None, False, None),
    ("batch_get", "_getBatchBeamPattern ALL", batch_get, None, False, None),
    ("batch_save_replace", "_setBatchBeamPattern UI_SAVE_REPLACE", batch_save_replace, None, False, _target(PYTHON, 5)),
    ("batch_validate", "_setBatchBeamPattern VALIDATE", batch_validate, None, False, None),
    ("device_open", "device open (all managers, driver order)", device_open, None, False, None),
]


def build_operations(ws, module, only=None):
    native, peer = flavours(module)
    operations = []
    for key, title, peers, stdlib, memory, target in CATALOGUE:
        if only and key not in only:
            continue
        sides = [peers(ws, native), peers(ws, peer)] + ([stdlib(ws)] if stdlib else [])
        operations.append(
            Operation(key, title, ws.name, sides, memory=memory, target=target if ws.name == "large" else None)
        )
    return operations
