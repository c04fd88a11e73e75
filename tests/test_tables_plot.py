"""vexcore-tables plot and the array factor behind its beam patterns."""
import json
import math
import os
import struct
import sys

import pytest

from tables_helpers import BEAM, CALI, KIT, copy_samples, run_tool
from vexcore.tables import pattern

FREQ = 28.0
HALF_WAVE = pattern.wavelength_mm(FREQ) / 2
ANGLES = [-90 + 0.05 * i for i in range(3601)]


def _line_of_four(steer_deg):
    points = pattern.positions(4, (HALF_WAVE, HALF_WAVE), pattern.grid_shape(4, (1, 4)))
    phases = pattern.steering_phases(points, FREQ, steer_deg, 0.0)
    weights = [pattern.excitation(0, 0.0, p) for p in phases]
    return pattern.array_factor(weights, points, FREQ, ANGLES)


@pytest.mark.parametrize("steer, lobe, nulls", [
    (0.0, 0.0, (-30.0, 30.0)),       # sin(null) = +-2/N for N = 4 at half a wavelength
    (30.0, 30.0, (0.0, None)),       # sin(null) - sin(30) = -1/2; the other null is at 90, the edge
])
def test_uniform_line_of_four_at_half_wavelength(steer, lobe, nulls):
    values = _line_of_four(steer)
    assert pattern.main_lobe(ANGLES, values) == pytest.approx(lobe, abs=0.05)
    left, right = pattern.first_nulls(ANGLES, values)
    assert left == pytest.approx(nulls[0], abs=0.05)
    assert right is None if nulls[1] is None else right == pytest.approx(nulls[1], abs=0.05)
    assert max(values) == pytest.approx(4.0)


@pytest.mark.parametrize("angle", [-50.0, -12.5, 10.0, 41.0])
def test_array_factor_matches_the_closed_form(angle):
    # |AF| = |sin(N psi / 2) / sin(psi / 2)|, psi = k d (sin(angle) - sin(steer)), N = 4, k d = pi.
    values = pattern.array_factor([pattern.excitation(0, 0.0, p) for p in
                                   pattern.steering_phases(pattern.positions(4, (HALF_WAVE, 1), (1, 4)), FREQ,
                                                           20.0, 0)],
                                  pattern.positions(4, (HALF_WAVE, 1), (1, 4)), FREQ, [angle])
    psi = math.pi * (math.sin(math.radians(angle)) - math.sin(math.radians(20.0)))
    assert values[0] == pytest.approx(abs(math.sin(2 * psi) / math.sin(psi / 2)), abs=1e-9)


def test_switched_off_channels_and_gains_weight_the_sum():
    assert pattern.excitation(1, 10.0, 30.0) == 0
    assert abs(pattern.excitation(0, 20.0, 90.0)) == pytest.approx(10.0)
    assert pattern.to_db([0.0, 1.0, 0.1]) == [-60.0, 0.0, pytest.approx(-20.0)]


@pytest.mark.parametrize("count, override, shape", [(16, None, (4, 4)), (12, None, (1, 12)),
                                                    (64, (2, 32), (2, 32)), (4, None, (2, 2))])
def test_channel_placement(count, override, shape):
    assert pattern.grid_shape(count, override) == shape
    points = pattern.positions(count, (5.0, 4.0), shape)
    assert points[1][0] - points[0][0] == pytest.approx(5.0)                # along a row, one x pitch on
    assert sum(x for x, _ in points) == pytest.approx(0.0) and sum(y for _, y in points) == pytest.approx(0.0)
    if shape[0] > 1:
        assert points[shape[1]][1] - points[0][1] == pytest.approx(4.0)     # the next row, one y pitch on


def test_a_grid_that_does_not_hold_the_channels_is_refused():
    with pytest.raises(ValueError, match="does not hold 16 channels"):
        pattern.grid_shape(16, (3, 5))


# --- the command -----------------------------------------------------------------

@pytest.fixture
def files(tmp_path):
    return copy_samples(tmp_path)


def _png_size(path):
    data = path.read_bytes()
    assert data[:8] == b"\x89PNG\r\n\x1a\n" and data[12:16] == b"IHDR"
    return struct.unpack(">II", data[16:24]), len(data)


@pytest.mark.parametrize("target, args, pixels", [
    (BEAM, ["--beam", "TX:1"], (1100, 450)),        # steered: the two pattern cuts
    (BEAM, ["--beam", "TX:2"], (1100, 900)),        # channel beam with kit: maps and cuts
    (BEAM, ["--beam", "RX:3"], (1100, 900)),        # unset id: the default channel beam
    (CALI, [], (1100, 450)),
])
def test_plot_writes_a_png_of_reasonable_size(files, tmp_path, capsys, target, args, pixels):
    pytest.importorskip("matplotlib")
    out_path = tmp_path / "picture.png"
    status, out, err = run_tool(capsys, "plot", files / target, "--out", out_path, *args)
    assert status == 0, err
    assert out.strip() == "wrote %s" % out_path
    size, length = _png_size(out_path)
    assert size == pixels and 10_000 < length < 1_000_000


def test_a_channel_beam_without_kit_gets_its_maps_only(files, tmp_path, capsys):
    pytest.importorskip("matplotlib")
    os.remove(files / KIT)
    status, _, err = run_tool(capsys, "plot", files / BEAM, "--beam", "TX:2", "--out", tmp_path / "m.png")
    assert status == 0, err
    assert _png_size(tmp_path / "m.png")[0] == (1100, 450)


def test_a_steered_beam_without_kit_says_what_is_missing(files, tmp_path, capsys):
    pytest.importorskip("matplotlib")
    os.remove(files / KIT)
    status, _, err = run_tool(capsys, "plot", files / BEAM, "--beam", "TX:1", "--out", tmp_path / "s.png")
    assert status == 2 and "needs its kit" in err and not (tmp_path / "s.png").exists()


def test_the_pattern_of_a_channel_beam_peaks_where_its_phases_point(files):
    pytest.importorskip("matplotlib")
    from vexcore.tables import beam, plot

    table = json.loads((files / BEAM).read_text(encoding="utf-8"))
    config = table["TX"]["2"]["channel_config"]
    points = pattern.positions(16, (5.0, 5.0), (4, 4))
    phases = pattern.steering_phases(points, FREQ, 24.0, -10.0)
    for i, phase in enumerate(phases):
        config["board_%d" % (i // 4 + 1)]["channel_%d" % (i % 4 + 1)] = {"sw": 0, "db": 1.0, "deg": phase}
    (files / BEAM).write_text(json.dumps(table), encoding="utf-8")
    loaded = beam.load(str(files / BEAM))
    entry = loaded.beam(beam.RFMode.TX, 2).RetData

    class Options:
        grid, offset_step = None, plot.DEFAULT_OFFSET_STEP_DEG

    inputs = plot._pattern_inputs(entry, plot._channels(entry, loaded), loaded.kit.record, loaded,
                                  beam.RFMode.TX, Options)
    assert (inputs.theta, inputs.phi) == (24.0, -10.0)


def test_without_matplotlib_plot_says_how_to_install_it(files, tmp_path, capsys, monkeypatch):
    monkeypatch.setitem(sys.modules, "matplotlib", None)          # makes the import fail
    status, _, err = run_tool(capsys, "plot", files / BEAM, "--out", tmp_path / "x.png")
    assert status == 2
    assert "plot needs matplotlib: pip install 'vexcore[plot]'" in err


@pytest.mark.parametrize("args, message", [
    (["--grid", "3x5"], "a 3x5 grid does not hold 16 channels"),
    (["--beam", "TX:99", "--num-beam", "16"], "Invaid beam id: 99"),
])
def test_plot_refusals(files, tmp_path, capsys, args, message):
    pytest.importorskip("matplotlib")
    status, _, err = run_tool(capsys, "plot", files / BEAM, "--out", tmp_path / "x.png", *args)
    assert status == 2 and message in err
