"""show: a readable summary of one table, as the managers read it."""

from vexcore.QRVPublic import BeamType, RetCode, RFMode

from . import beam, kinds
from .check import check_file, print_problem
from .common import ToolError, unwrap
from .terminal import columns


def run(options, out):
    kind = options.kind or kinds.classify(options.path)
    if kind is None:
        raise ToolError("cannot tell which table %s is; give --kind" % options.path)
    result = _load(options, kind)
    data = _summary(result, options)
    if data is None:
        out.line("cannot show %s: the %s manager does not read it" % (result.path, result.kind))
        for problem in result.problems:
            print_problem(problem, out)
        return 1
    if options.json:
        data["problems"] = [p.as_dict() for p in result.problems]
        out.json(data)
        return 0
    for line in _render(result, data):
        out.line(line)
    if result.problems:
        out.line()
        out.line("Problems (see 'vexcore-tables check'):")
        for problem in result.problems:
            print_problem(problem, out)
    return 0


def _load(options, kind):
    if kind == kinds.BEAM:
        wanted = options.beam[1] if options.beam else 0
        num_beam = options.num_beam or max(beam.highest_id_in(options.path), wanted)
        options.num_beam = num_beam
    return check_file(options.path, kind, options)


def _summary(result, options):
    """The facts to show as plain data (also the --json output), or None when unreadable."""
    makers = {
        kinds.CALIBRATION: _calibration_summary,
        kinds.CALIBRATION_JSON: _calibration_summary,
        kinds.KIT: _kit_summary,
        kinds.BEAM: _beam_summary,
        kinds.UD_DELTA: _ud_summary,
    }
    return makers[result.kind](result, options)


def _calibration_summary(result, options):
    if result.dr is None or result.comdr is None or result.eledr is None:
        return None
    boards = []
    for index in range(result.layout[0]):
        board = {"board": index + 1}
        for mode in RFMode:
            board[mode.name] = {
                "COMDR": _at(result.comdr[mode.value], index),
                "ELEDR": unwrap(_at(result.eledr[mode.value], index)),
            }
        board["TC"] = _at(result.tc or [], index)
        boards.append(board)
    offsets = [{"mode": mode, "chip": chip, "boards": values} for (mode, chip), values in result.offsets.items()]
    return {
        "kind": result.kind,
        "path": result.path,
        "header": result.header,
        "layout": list(result.layout),
        "DR": result.dr,
        "boards": boards,
        "offsets": offsets,
    }


def _kit_summary(result, options):
    if result.record is None:
        return None
    return {"kind": result.kind, "path": result.path, "name": result.name, "record": result.record}


def _beam_summary(result, options):
    if result.table is None:
        return None
    modes = {}
    for mode in RFMode:
        section = result.table.get(mode.name) or {}
        modes[mode.name] = [_beam_line(key, entry) for key, entry in section.items()]
    data = {
        "kind": result.kind,
        "path": result.path,
        "header": {k: result.table.get(k) for k in ("VERSION", "SN", "DEV_TYPE", "FREQ", "AAKIT_NAME")},
        "layout": list(result.layout),
        "num_beam": result.num_beam,
        "beams": modes,
    }
    if options.beam:
        data["beam"] = _one_beam(result, *options.beam)
    return data


def _ud_summary(result, options):
    if result.delta is None:
        return None
    return {"kind": result.kind, "path": result.path, "sn": result.sn, "delta": result.delta}


def _at(values, index):
    return values[index] if index < len(values) else None


def _beam_line(key, entry):
    if not isinstance(entry, dict):
        return {"id": key, "type": "?", "description": "", "settings": repr(entry)}
    steered = entry.get("beam_type") == BeamType.BEAM
    settings = _steered_text(entry.get("beam_config")) if steered else _channel_text(entry.get("channel_config"))
    return {
        "id": key,
        "type": "steered" if steered else "channel",
        "description": entry.get("beam_description", ""),
        "settings": settings,
    }


def _steered_text(config):
    if not isinstance(config, dict):
        return "no beam_config"
    return "db %s  theta %s  phi %s" % (config.get("db"), config.get("theta"), config.get("phi"))


def _channel_text(config):
    channels = list(beam.channels_of(config))
    if not channels:
        return "no channel_config"
    on = [c for c in channels if c.get("sw") == 0]
    gains = [c.get("db") for c in on if isinstance(c.get("db"), (int, float))]
    text = "%d channels, %d on" % (len(channels), len(on))
    if gains:
        text += ", gain %g..%g dB" % (min(gains), max(gains))
    return text


def _one_beam(result, mode_name, beam_id):
    ret = result.beam(RFMode[mode_name], beam_id)
    if ret.RetCode != RetCode.OK:
        raise ToolError("%s beam %d: %s %s" % (mode_name, beam_id, ret.RetCode.name, ret.RetMsg))
    stored = str(beam_id) in (result.table.get(mode_name) or {})
    return {"mode": mode_name, "id": beam_id, "stored": stored, "beam": ret.RetData}


def _render(result, data):
    renderers = {
        kinds.CALIBRATION: _render_calibration,
        kinds.CALIBRATION_JSON: _render_calibration,
        kinds.KIT: _render_kit,
        kinds.BEAM: _render_beam,
        kinds.UD_DELTA: _render_ud,
    }
    return renderers[result.kind](data)


def _render_calibration(data):
    boards, chips, channels = data["layout"]
    lines = ["Calibration table %s" % data["path"], ""]
    header = [(key, value) for key, value in data["header"].items()]
    header.append(("layout", "%d boards x %d IC x %d channels" % (boards, chips, channels)))
    lines += columns(header, indent="  ")
    lines += ["", "Dynamic range (dB)"]
    lines += columns(
        [(mode, pair[0], pair[1]) for mode, pair in data["DR"].items()], header=("mode", "lower", "upper"), indent="  "
    )
    lines += ["", "Per board (dB): common-arm range COMDR, element limit ELEDR; temperature compensation TC"]
    rows = []
    for board in data["boards"]:
        row = [board["board"]]
        for mode in ("TX", "RX"):
            pair = board[mode]["COMDR"] or [None, None]
            row += [pair[0], pair[1], board[mode]["ELEDR"]]
        row.append(" ".join(map(str, board["TC"] or [])))
        rows.append(row)
    lines += columns(
        rows,
        header=("board", "TX COMDR min", "max", "TX ELEDR", "RX COMDR min", "max", "RX ELEDR", "TC (TX, RX)"),
        indent="  ",
    )
    for entry in data["offsets"]:
        lines += ["", "Phase offsets %s, IC %d (steps)" % (entry["mode"], entry["chip"])]
        rows = [[b + 1] + list(values) for b, values in enumerate(entry["boards"])]
        lines += columns(rows, header=["board"] + ["ch%d" % (c + 1) for c in range(channels)], indent="  ")
    return lines


def _render_kit(data):
    record = data["record"]
    kit_type = {0: "official", 1: "custom"}.get(record.get("TYPE"), record.get("TYPE"))
    lines = [
        "Antenna kit %s (%s, device type %s)" % (data["name"], kit_type, record.get("DEV_TYPE")),
        "  file %s" % data["path"],
        "",
    ]
    facts = [
        ("spacing", _pair_text(record.get("SPACING"), " x ", " mm")),
        ("steering H", _pair_text(record.get("STEERING_H"), " .. ", " deg")),
        ("steering V", _pair_text(record.get("STEERING_V"), " .. ", " deg")),
    ]
    lines += columns(facts, indent="  ")
    for field in ("OFFSET_TX", "OFFSET_RX"):
        values = record.get(field)
        lines += ["", "Phase offsets %s (steps, channels in board/channel order)" % field[7:]]
        lines += _offset_rows(values)
    return lines


def _pair_text(pair, joint, unit):
    if not isinstance(pair, list):
        return "missing"
    return joint.join("%g" % v for v in pair) + unit


def _offset_rows(values, per_row=16):
    if isinstance(values, dict):  # per polarization
        return [line for name, inner in values.items() for line in ["  " + name] + _offset_rows(inner)]
    if not isinstance(values, list):
        return ["  missing"]
    rows = [
        ["ch%d-%d" % (i + 1, min(i + per_row, len(values)))] + values[i : i + per_row]
        for i in range(0, len(values), per_row)
    ]
    return columns(rows, indent="  ")


def _render_beam(data):
    header = data["header"]
    boards, chips, channels = data["layout"]
    lines = ["Beam table %s" % data["path"], ""]
    facts = [(key, value) for key, value in header.items() if value is not None]
    facts.append(
        (
            "layout",
            "%d boards x %d IC x %d channels, beam ids 1..%d per mode" % (boards, chips, channels, data["num_beam"]),
        )
    )
    lines += columns(facts, indent="  ")
    for mode, entries in data["beams"].items():
        lines += ["", "%s beams (%d stored)" % (mode, len(entries))]
        rows = [(e["id"], e["type"], e["description"], e["settings"]) for e in entries]
        lines += columns(rows, header=("id", "type", "description", "settings"), indent="  ") or ["  none"]
    if "beam" in data:
        lines += [""] + _render_one_beam(data["beam"])
    return lines


def _render_one_beam(shown):
    entry = shown["beam"]
    origin = "stored" if shown["stored"] else "not stored: the default from the calibration limits"
    steered = entry.get("beam_type") == BeamType.BEAM
    lines = [
        "%s beam %d (%s): %s beam %r"
        % (shown["mode"], shown["id"], origin, "steered" if steered else "channel", entry.get("beam_description", ""))
    ]
    if steered:
        config = entry.get("beam_config") or {}
        return lines + columns([(k, config.get(k)) for k in ("db", "theta", "phi")], indent="  ")
    rows = []
    for board_key, board in (entry.get("channel_config") or {}).items():
        for name, channel in board.items():
            if name != "common_db" and isinstance(channel, dict):
                rows.append(
                    (
                        board_key,
                        board.get("common_db"),
                        name,
                        "on" if channel.get("sw") == 0 else "off",
                        unwrap(channel.get("db")),
                        channel.get("deg"),
                    )
                )
    return lines + columns(rows, header=("board", "common_db", "channel", "sw", "db", "deg"), indent="  ")


def _render_ud(data):
    return [
        "UD delta-frequency table %s" % data["path"],
        "  serial number  %s" % data["sn"],
        "  minimum LO/IF spacing  %s" % data["delta"],
    ]
