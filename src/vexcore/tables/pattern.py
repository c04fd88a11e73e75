"""Array factor of a beam: gain versus angle from element positions and excitations.

Geometry
  Channels are placed in board/channel order (board 1 channel 1 first) on a grid of
  rows x columns, row by row: a square grid when the channel count is a square
  (16 -> 4x4, so each board of 4 channels is one row), otherwise one line. The kit's
  SPACING gives the x (column) and y (row) pitch in millimetres; the grid is centred
  on the origin.

Angles
  A direction is given by a horizontal angle (theta, in the x-z plane, limited by
  the kit's STEERING_H) and a vertical angle (phi, in the y-z plane, STEERING_V).
  The phase path of an element at (x, y) towards (theta, phi) is
  k * (x sin(theta) + y sin(phi)), k = 2 pi / wavelength, so a pattern cut at a fixed
  vertical angle varies theta only, and the other way round.

Excitation
  A channel that is on (sw 0) radiates 10^(db/20) with its phase; a channel that is
  off (sw 1) radiates nothing. A steered beam has equal gains and the phases that
  point it: -k * (x sin(theta) + y sin(phi)).

The sums are taken per distinct x (or y) coordinate: on a grid a cut then costs
columns (or rows) terms per angle instead of one per channel, which keeps the
pattern of a 1024-channel device fast enough to draw on every page view.
"""

import cmath
import math
from operator import mul

from vexcore.QRVPublic import BeamType

from .common import as_number, unwrap

DEFAULT_OFFSET_STEP_DEG = 360.0 / 64  # one step of a 6-bit phase shifter
CUT_STEP_DEG = 0.25
SEARCH_STEP_DEG = 2.0
FLOOR_DB = -40.0

LIGHT_SPEED_MM_GHZ = 299.792458  # millimetres per nanosecond: lambda[mm] = c / f[GHz]


def wavelength_mm(freq_ghz):
    return LIGHT_SPEED_MM_GHZ / float(freq_ghz)


def grid_shape(count, override=None):
    """(rows, columns) for `count` channels: `override` when given, else square or one line."""
    if override:
        rows, cols = override
        if rows * cols != count:
            raise ValueError("a %dx%d grid does not hold %d channels" % (rows, cols, count))
        return rows, cols
    side = math.isqrt(count)
    return (side, side) if side * side == count else (1, count)


def positions(count, spacing_mm, shape):
    """(x, y) in millimetres of each channel, in board/channel order, centred."""
    rows, cols = shape
    dx, dy = spacing_mm
    x0, y0 = (cols - 1) * dx / 2.0, (rows - 1) * dy / 2.0
    return [((i % cols) * dx - x0, (i // cols) * dy - y0) for i in range(count)]


def steering_phases(points, freq_ghz, theta_deg, phi_deg):
    """Phases in degrees that point the array at (theta, phi)."""
    k = 2 * math.pi / wavelength_mm(freq_ghz)
    st, sp = math.sin(math.radians(theta_deg)), math.sin(math.radians(phi_deg))
    return [-math.degrees(k * (x * st + y * sp)) for x, y in points]


def excitation(sw, db, deg):
    """Complex weight of one channel."""
    if sw != 0:
        return 0j
    return 10 ** (db / 20.0) * cmath.exp(1j * math.radians(deg))


def array_factor(weights, points, freq_ghz, angles_deg, cut="horizontal", fixed_deg=0.0):
    """|AF| at each angle of a cut: horizontal varies theta at phi = fixed, vertical the reverse."""
    k = 2 * math.pi / wavelength_mm(freq_ghz)
    fixed = math.sin(math.radians(fixed_deg))
    # Fold the fixed direction into one weight per coordinate along the moving one.
    folded = {}
    for w, (x, y) in zip(weights, points):
        moving, still = (x, y) if cut == "horizontal" else (y, x)
        folded[moving] = folded.get(moving, 0j) + w * cmath.exp(1j * k * still * fixed)
    coords, sums = list(folded), list(folded.values())
    values = []
    for angle in angles_deg:
        phase = k * math.sin(math.radians(angle))
        values.append(abs(sum(map(mul, sums, [cmath.exp(1j * phase * c) for c in coords]))))
    return values


def to_db(values, floor_db=-60.0):
    """Magnitudes as dB relative to their peak, clipped at `floor_db`."""
    peak = max(values) if values else 0.0
    if peak <= 0:
        return [floor_db] * len(values)
    return [max(floor_db, 20 * math.log10(v / peak)) if v > 0 else floor_db for v in values]


def main_lobe(angles_deg, values):
    """Angle of the largest value."""
    best = max(range(len(values)), key=values.__getitem__)
    return angles_deg[best]


def first_nulls(angles_deg, values):
    """The local minima nearest the main lobe on each side (None where there is none)."""
    peak = max(range(len(values)), key=values.__getitem__)
    left = right = None
    for i in range(peak - 1, 0, -1):
        if values[i] <= values[i - 1] and values[i] <= values[i + 1]:
            left = angles_deg[i]
            break
    for i in range(peak + 1, len(values) - 1):
        if values[i] <= values[i - 1] and values[i] <= values[i + 1]:
            right = angles_deg[i]
            break
    return left, right


# --- a beam of the table and its kit ----------------------------------------------


class PatternInputs:
    """Weights, element positions and the direction the cuts go through."""

    def __init__(self, weights, points, freq, theta, phi, grid):
        self.weights, self.points, self.freq = weights, points, freq
        self.theta, self.phi, self.grid = theta, phi, grid


def beam_channels(entry):
    """(board, channel, sw, total gain dB, phase deg) of a channel beam, in board/channel
    order; [] for a steered beam. The total gain is the board's common_db plus the
    channel's db."""
    from .beam import ordered_channels  # beam loads the module; keep this file light to import

    if entry.get("beam_type") == BeamType.BEAM:
        return []
    found = []
    for board_no, channel_no, channel in ordered_channels(entry.get("channel_config")):
        common = as_number(unwrap(entry["channel_config"]["board_%d" % board_no].get("common_db"))) or 0.0
        gain = as_number(unwrap(channel.get("db")))
        found.append(
            (
                board_no,
                channel_no,
                channel.get("sw"),
                None if gain is None else gain + common,
                as_number(channel.get("deg")),
            )
        )
    return found


def pattern_inputs(
    entry, channels, kit_record, freq, layout, mode_name, grid=None, offset_step=DEFAULT_OFFSET_STEP_DEG
):
    """What the cuts of a beam are computed from (ValueError for a grid that does not fit)."""
    count = len(channels) or layout[0] * layout[1] * layout[2]
    shape = grid_shape(count, grid)
    points = positions(count, kit_record["SPACING"], shape)
    offsets = kit_offsets(kit_record, mode_name, count, offset_step)
    if not channels:
        config = entry["beam_config"]
        theta, phi = float(config["theta"]), float(config["phi"])
        phases = steering_phases(points, freq, theta, phi)
        amplitude = float(unwrap(config.get("db")) or 0.0)
        weights = [excitation(0, amplitude, p + o) for p, o in zip(phases, offsets)]
    else:
        weights = [
            excitation(sw, gain or 0.0, (phase or 0.0) + o) for (_, _, sw, gain, phase), o in zip(channels, offsets)
        ]
        theta, phi = peak_direction(weights, points, freq)
    return PatternInputs(weights, points, freq, theta, phi, shape)


def kit_offsets(kit_record, mode_name, count, step):
    """The kit's phase offsets of the mode in degrees (added to each channel's phase)."""
    values = kit_record.get("OFFSET_" + mode_name)
    if isinstance(values, dict):  # per polarization: the first one
        values = next(iter(values.values()), [])
    values = list(values or [])[:count]
    return [v * step for v in values] + [0.0] * (count - len(values))


def peak_direction(weights, points, freq):
    """(theta, phi) of the strongest direction on a coarse grid of both angles."""
    k = 2 * math.pi / wavelength_mm(freq)
    angles = [-90 + SEARCH_STEP_DEG * i for i in range(int(180 / SEARCH_STEP_DEG) + 1)]
    sines = [math.sin(math.radians(a)) for a in angles]
    rows = {}  # y -> ([x], [weight]) of the elements in that row
    for w, (x, y) in zip(weights, points):
        xs, ws = rows.setdefault(y, ([], []))
        xs.append(x)
        ws.append(w)
    ys = list(rows)
    xs_all = sorted({x for x, _ in points})
    row_phases = [[cmath.exp(1j * k * y * s) for y in ys] for s in sines]  # per phi
    sums_per_theta = []
    for st in sines:
        column = {x: cmath.exp(1j * k * x * st) for x in xs_all}
        sums_per_theta.append([sum(map(mul, ws, map(column.__getitem__, xs))) for xs, ws in rows.values()])
    best = (-1.0, 0.0, 0.0)
    for phi, phases in zip(angles, row_phases):  # phi first: the first of equal peaks wins
        for theta, row_sums in zip(angles, sums_per_theta):
            value = abs(sum(map(mul, row_sums, phases)))
            if value > best[0]:
                best = (value, theta, phi)
    return best[1], best[2]


def cut(drawing, which, step=CUT_STEP_DEG, floor_db=FLOOR_DB):
    """(angles, dB relative to the peak, fixed angle, beam direction) of one cut through
    the beam direction: "horizontal" varies theta, "vertical" phi."""
    angles = [-90 + step * i for i in range(int(180 / step) + 1)]
    fixed = drawing.phi if which == "horizontal" else drawing.theta
    steered_to = drawing.theta if which == "horizontal" else drawing.phi
    values = to_db(array_factor(drawing.weights, drawing.points, drawing.freq, angles, which, fixed), floor_db)
    return angles, values, fixed, steered_to
