"""plot: pictures of calibration limits and beams (needs the optional matplotlib).

- calibration table: the DR of each mode and each board's COMDR range and ELEDR limit;
- channel beam: gain and phase maps over boards x channels;
- steered or channel beam with a kit: the array-factor pattern, a horizontal and a
  vertical cut through the beam's direction, with the kit's steering limits marked
  (geometry, angles and excitation as described in vexcore.tables.pattern).
"""

import io
import math
import os

from vexcore.QRVPublic import BeamType, RetCode, RFMode

from . import beam, calibration, kinds, pattern
from .common import ToolError, unwrap, write_file

INSTALL_HINT = "plot needs matplotlib: pip install 'vexcore[plot]' (or pip install matplotlib)"
FLOOR_DB = pattern.FLOOR_DB


def run(options, out):
    pyplot = _pyplot()
    kind = options.kind or kinds.classify(options.path)
    if kind in (kinds.CALIBRATION, kinds.CALIBRATION_JSON):
        figure = _calibration_figure(pyplot, options, kind)
    elif kind == kinds.BEAM:
        figure = _beam_figure(pyplot, options)
    else:
        raise ToolError(
            "plot draws calibration and beam tables; %s is %s"
            % (options.path, "a %s table" % kind if kind else "neither")
        )
    # Drawn in memory and written as the tables are, so an interrupted run
    # leaves no half picture.
    picture = io.BytesIO()
    figure.savefig(picture, format=os.path.splitext(str(options.out))[1][1:].lower() or None, dpi=options.dpi)
    pyplot.close(figure)
    write_file(options.out, picture.getvalue())
    out.line("wrote %s" % options.out)
    return 0


def _pyplot():
    try:
        import matplotlib
    except ImportError:
        raise ToolError(INSTALL_HINT) from None
    matplotlib.use("Agg")  # files only: no display needed
    import matplotlib.pyplot as pyplot

    return pyplot


def _loaded(result):
    if not result.valid and _blocking(result):
        details = "; ".join("%s %s" % (p.code, p.message) for p in result.problems if p.severity == "error")
        raise ToolError("%s cannot be read: %s" % (result.path, details))
    return result


def _blocking(result):
    if result.kind == kinds.BEAM:
        return result.table is None
    return result.dr is None or result.comdr is None or result.eledr is None


# --- calibration -----------------------------------------------------------------


def _calibration_figure(pyplot, options, kind):
    loader = calibration.load if kind == kinds.CALIBRATION else calibration.load_export
    cali = _loaded(loader(options.path, options.layout))
    figure, axes = pyplot.subplots(1, 2, figsize=(11, 4.5), sharey=True, constrained_layout=True)
    for mode, ax in zip(RFMode, axes):
        _calibration_panel(ax, cali, mode)
    figure.suptitle("Calibration %s at %s GHz" % (cali.sn, kinds.frequency_text(cali.freq)))
    return figure


def _calibration_panel(ax, cali, mode):
    low, high = cali.dr[mode.name]
    ax.axhspan(low, high, color="tab:blue", alpha=0.12, label="DR %g .. %g dB" % (low, high))
    boards = list(range(1, len(cali.comdr[mode.value]) + 1))
    lows = [pair[0] for pair in cali.comdr[mode.value]]
    highs = [pair[1] for pair in cali.comdr[mode.value]]
    ax.vlines(boards, lows, highs, color="tab:blue", linewidth=8, alpha=0.7, label="COMDR (common arm)")
    limits = [unwrap(v) for v in cali.eledr[mode.value]]
    ax.plot(boards, limits, "v", color="tab:red", markersize=9, label="ELEDR (element limit)")
    ax.set_title(mode.name)
    ax.set_xlabel("board")
    ax.set_xticks(boards)
    ax.set_ylabel("dB")
    ax.grid(True, alpha=0.3)
    ax.legend(loc="upper center", bbox_to_anchor=(0.5, -0.14), ncol=3, fontsize="small")


# --- beams -------------------------------------------------------------------------


def _beam_figure(pyplot, options):
    mode_name, beam_id = options.beam
    num_beam = options.num_beam or max(beam.highest_id_in(options.path), beam_id)
    table = _loaded(
        beam.load(
            options.path, options.layout, options.cali, options.kit, num_beam, validate=False, devtype=options.devtype
        )
    )
    ret = table.beam(RFMode[mode_name], beam_id)
    if ret.RetCode != RetCode.OK:
        raise ToolError("%s beam %d: %s %s" % (mode_name, beam_id, ret.RetCode.name, ret.RetMsg))
    entry = ret.RetData
    kit_record = table.kit.record if table.kit is not None and table.kit.valid else None
    steered = entry.get("beam_type") == BeamType.BEAM
    if steered and kit_record is None:
        raise ToolError("the pattern of a steered beam needs its kit (element spacing): give --kit FILE")
    panels = [] if steered else ["gain", "phase"]
    if kit_record is not None:
        panels += ["horizontal", "vertical"]
    figure, axes = _grid(pyplot, len(panels))
    channels = pattern.beam_channels(entry)
    drawing = _pattern_inputs(entry, channels, kit_record, table, RFMode[mode_name], options) if kit_record else None
    for name, ax in zip(panels, axes):
        if name in ("gain", "phase"):
            _channel_map(figure, ax, channels, table.layout, name)
        else:
            _pattern_panel(ax, drawing, name, kit_record)
    figure.suptitle(_beam_title(table, mode_name, beam_id, entry, steered))
    return figure


def _grid(pyplot, count):
    rows = 1 if count <= 2 else 2
    figure, axes = pyplot.subplots(rows, 2, figsize=(11, 4.5 * rows), constrained_layout=True, squeeze=False)
    return figure, [ax for row in axes for ax in row]


def _beam_title(table, mode_name, beam_id, entry, steered):
    what = "steered" if steered else "channel"
    if steered:
        config = entry["beam_config"]
        what += " db %s, theta %s, phi %s" % (config.get("db"), config.get("theta"), config.get("phi"))
    description = entry.get("beam_description") or ""
    return "%s beam %d (%s)%s\n%s at %s GHz, kit %s" % (
        mode_name,
        beam_id,
        what,
        " '%s'" % description if description else "",
        table.sn,
        kinds.frequency_text(table.freq),
        table.kit_name or "none",
    )


def _channel_map(figure, ax, channels, layout, which):
    boards = max([c[0] for c in channels], default=layout[0])
    per_board = max([c[1] for c in channels], default=layout[2])
    grid = [[math.nan] * per_board for _ in range(boards)]
    for board_no, channel_no, sw, gain, phase in channels:
        value = gain if which == "gain" else phase
        grid[board_no - 1][channel_no - 1] = math.nan if sw != 0 or value is None else value
    cmap = "viridis" if which == "gain" else "twilight"
    limits = {} if which == "gain" else {"vmin": 0, "vmax": 360}
    image = ax.imshow(
        [[v % 360 if which == "phase" and not math.isnan(v) else v for v in row] for row in grid],
        cmap=cmap,
        aspect="auto",
        **limits,
    )
    for board_no, channel_no, sw, gain, phase in channels:
        value = gain if which == "gain" else phase
        text = "off" if sw != 0 else ("?" if value is None else "%g" % value)
        # A light box keeps the value readable on any colour of the map.
        ax.text(
            channel_no - 1,
            board_no - 1,
            text,
            ha="center",
            va="center",
            fontsize="small",
            bbox={"boxstyle": "round,pad=0.15", "facecolor": "white", "alpha": 0.7, "linewidth": 0},
        )
    ax.set_xticks(range(per_board), ["ch%d" % (i + 1) for i in range(per_board)])
    ax.set_yticks(range(boards), ["board_%d" % (i + 1) for i in range(boards)])
    ax.set_title("channel gain, common + element (dB)" if which == "gain" else "channel phase (deg)")
    figure.colorbar(image, ax=ax, shrink=0.85)


def _pattern_inputs(entry, channels, kit_record, table, mode, options):
    try:
        return pattern.pattern_inputs(
            entry, channels, kit_record, table.freq, table.layout, mode.name, options.grid, options.offset_step
        )
    except ValueError as error:
        raise ToolError(str(error)) from None


def _pattern_panel(ax, drawing, cut, kit_record):
    angles, values, fixed, steered_to = pattern.cut(drawing, cut)
    ax.plot(angles, values, color="tab:blue")
    field = "STEERING_H" if cut == "horizontal" else "STEERING_V"
    low, high = kit_record.get(field) or [-90, 90]
    ax.axvspan(-90, low, color="grey", alpha=0.15)
    ax.axvspan(high, 90, color="grey", alpha=0.15, label="outside %s [%g, %g]" % (field, low, high))
    for limit in (low, high):
        ax.axvline(limit, color="grey", linestyle="--", linewidth=1)
    ax.axvline(steered_to, color="tab:red", linestyle=":", label="beam direction %g deg" % steered_to)
    name = "theta (horizontal)" if cut == "horizontal" else "phi (vertical)"
    other = "phi" if cut == "horizontal" else "theta"
    ax.set_title(
        "array factor, %s cut at %s = %g deg (%dx%d grid)" % (cut, other, fixed, *drawing.grid), fontsize="medium"
    )
    ax.set_xlabel("%s, deg" % name)
    ax.set_ylabel("relative gain, dB")
    ax.set_xlim(-90, 90)
    ax.set_ylim(FLOOR_DB, 3)
    ax.grid(True, alpha=0.3)
    ax.legend(loc="lower center", fontsize="small")
