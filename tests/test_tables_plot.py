"""vexcore-tables plot and the array factor behind its beam patterns."""
import math
import os
import struct
import sys

import pytest
from tables_helpers import BEAM, CALI, KIT, run_tool

from vexcore.tables import pattern

FREQ = 28.0
HALF_WAVE = pattern.wavelength_mm(FREQ) / 2


def _line_of_four(steer_deg, angles):
    points = pattern.positions(4, (HALF_WAVE, HALF_WAVE), pattern.grid_shape(4, (1, 4)))
    weights = [pattern.excitation(0, 0.0, p) for p in pattern.steering_phases(points, FREQ, steer_deg, 0.0)]
    return pattern.array_factor(weights, points, FREQ, angles)


@pytest.mark.parametrize("steer, lobe, nulls", [
    (0.0, 0.0, (-30.0, 30.0)),       # sin(null) = +-2/N for N = 4 at half a wavelength
    (30.0, 30.0, (0.0, None)),       # sin(null) - sin(30) = -1/2; the other null is at 90, the edge
])
def test_uniform_line_of_four_at_half_wavelength(steer, lobe, nulls):
    angles = [-90 + 0.05 * i for i in range(3601)]
    values = _line_of_four(steer, angles)
    assert pattern.main_lobe(angles, values) == pytest.approx(lobe, abs=0.05) and max(values) == pytest.approx(4.0)
    left, right = pattern.first_nulls(angles, values)
    assert left == pytest.approx(nulls[0], abs=0.05)
    assert right is None if nulls[1] is None else right == pytest.approx(nulls[1], abs=0.05)


@pytest.mark.parametrize("angle", [-50.0, 41.0])
def test_array_factor_matches_the_closed_form(angle):
    # |AF| = |sin(N psi / 2) / sin(psi / 2)|, psi = k d (sin(angle) - sin(steer)), N = 4, k d = pi.
    psi = math.pi * (math.sin(math.radians(angle)) - math.sin(math.radians(20.0)))
    assert _line_of_four(20.0, [angle])[0] == pytest.approx(abs(math.sin(2 * psi) / math.sin(psi / 2)), abs=1e-9)


def test_switched_off_channels_and_gains_weight_the_sum():
    assert pattern.excitation(1, 10.0, 30.0) == 0
    assert abs(pattern.excitation(0, 20.0, 90.0)) == pytest.approx(10.0)
    assert pattern.to_db([0.0, 1.0, 0.1]) == [-60.0, 0.0, pytest.approx(-20.0)]


@pytest.mark.parametrize("count, override, shape", [(16, None, (4, 4)), (12, None, (1, 12)), (64, (2, 32), (2, 32))])
def test_channel_placement(count, override, shape):
    assert pattern.grid_shape(count, override) == shape
    points = pattern.positions(count, (5.0, 4.0), shape)
    assert points[1][0] - points[0][0] == pytest.approx(5.0)                # along a row, one x pitch on
    assert sum(x for x, _ in points) == pytest.approx(0.0) and sum(y for _, y in points) == pytest.approx(0.0)
    assert shape[0] == 1 or points[shape[1]][1] - points[0][1] == pytest.approx(4.0)     # next row, one y pitch on


# --- the command -----------------------------------------------------------------

# matplotlib is a test dependency: without it these fail, saying so.
@pytest.mark.parametrize("target, args, without_kit, pixels", [
    (BEAM, ["--beam", "TX:1"], False, (1100, 450)),        # steered: the two pattern cuts
    (BEAM, ["--beam", "TX:2"], False, (1100, 900)),        # channel beam with kit: maps and cuts
    (BEAM, ["--beam", "TX:2"], True, (1100, 450)),         # channel beam without kit: maps only
    (CALI, [], False, (1100, 450)),
])
def test_plot_writes_a_png_of_reasonable_size(files, tmp_path, capsys, target, args, without_kit, pixels):
    if without_kit:
        os.remove(files / KIT)
    out_path = tmp_path / "picture.png"
    status, out, err = run_tool(capsys, "plot", files / target, "--out", out_path, *args)
    assert status == 0 and out.strip() == "wrote %s" % out_path, err
    data = out_path.read_bytes()
    assert data[:8] == b"\x89PNG\r\n\x1a\n" and data[12:16] == b"IHDR"
    assert struct.unpack(">II", data[16:24]) == pixels and 10_000 < len(data) < 1_000_000


@pytest.mark.parametrize("args, without_kit, message", [
    (["--grid", "3x5"], False, "a 3x5 grid does not hold 16 channels"),
    (["--beam", "TX:99", "--num-beam", "16"], False, "Invaid beam id: 99"),
    (["--beam", "TX:1"], True, "needs its kit"),
])
def test_plot_refusals_write_nothing(files, tmp_path, capsys, args, without_kit, message):
    if without_kit:
        os.remove(files / KIT)
    status, _, err = run_tool(capsys, "plot", files / BEAM, "--out", tmp_path / "x.png", *args)
    assert status == 2 and message in err and not (tmp_path / "x.png").exists()


def test_without_matplotlib_plot_says_how_to_install_it(files, tmp_path, capsys, monkeypatch):
    monkeypatch.setitem(sys.modules, "matplotlib", None)          # makes the import fail
    status, _, err = run_tool(capsys, "plot", files / BEAM, "--out", tmp_path / "x.png")
    assert status == 2 and "plot needs matplotlib: pip install 'vexcore[plot]'" in err
