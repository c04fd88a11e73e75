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
"""

import cmath
import math

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
    values = []
    for angle in angles_deg:
        moving = math.sin(math.radians(angle))
        st, sp = (moving, fixed) if cut == "horizontal" else (fixed, moving)
        total = sum(w * cmath.exp(1j * k * (x * st + y * sp)) for w, (x, y) in zip(weights, points))
        values.append(abs(total))
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
