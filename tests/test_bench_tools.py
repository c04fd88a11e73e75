"""The benchmark's own machinery: data generator, side-by-side timer, memory probe."""
import json
import sys
from pathlib import Path

import pytest

BENCH = Path(__file__).resolve().parent.parent / "bench"
sys.path.insert(0, str(BENCH))

import gen_data  # noqa: E402
import harness  # noqa: E402
import memprobe  # noqa: E402
from harness import MODULE, PYTHON, STDLIB, Operation, Side  # noqa: E402


# ---------------------------------------------------------------- data ---

@pytest.fixture(scope="module")
def small_set(tmp_path_factory):
    folder = tmp_path_factory.mktemp("data")
    return folder, gen_data.generate(folder, "small")


def all_bytes(folder):
    return {p.relative_to(folder): p.read_bytes() for p in sorted(folder.rglob("*")) if p.is_file()}


def test_same_seed_same_bytes_other_seed_other_bytes(small_set, tmp_path):
    folder, _ = small_set
    gen_data.generate(tmp_path / "again", "small")
    gen_data.generate(tmp_path / "other", "small", seed=gen_data.SEED + 1)
    assert all_bytes(tmp_path / "again") == all_bytes(folder)
    other = all_bytes(tmp_path / "other")
    assert other.keys() == all_bytes(folder).keys() and other != all_bytes(folder)


@pytest.mark.parametrize("key", ["beam_file", "old_beam_source"])
def test_beam_files_are_laid_out_as_json_dump_with_indent_2(small_set, key):
    folder, manifest = small_set
    text = (folder / manifest[key]).read_text(encoding="utf-8")
    assert text == json.dumps(json.loads(text), ensure_ascii=False, indent=2)


def test_manifest_beam_ids_match_the_table(small_set):
    folder, manifest = small_set
    tx = json.loads((folder / manifest["beam_file"]).read_text(encoding="utf-8"))["TX"]
    assert str(manifest["unset_beam_id"]) not in tx
    assert tx[str(manifest["channel_beam_id"])]["beam_type"] == 1
    assert tx[str(manifest["steered_beam_id"])]["beam_type"] == 0
    assert len(tx) == manifest["num_beam"] - manifest["num_beam"] // manifest["size"]["unset_every"]


def test_calibration_file_has_every_section_and_one_data_row_per_arm(small_set):
    folder, manifest = small_set
    rows = [line.split(",") for line in (folder / manifest["calibration_file"]).read_text().splitlines()]
    keys = [row[0] for row in rows]
    size = manifest["size"]
    assert keys.count("DATA") == manifest["data_rows"] == size["boards"] * size["ics"] * size["arms"] * 2 * \
        size["gain_steps"] * size["phase_steps"]
    assert keys[-1] == "END"
    assert {"VER", "SN", "FCENTER", "DR", "OFFSET_TX", "OFFSET_RX", "TEMPADC", "TC", "COMDR", "ELEDR",
            "COMSTEPDR"} <= set(keys)
    assert len(rows[keys.index("OFFSET_TX")]) == 1 + size["boards"] * size["ics"] * size["channels"]


# -------------------------------------------------------------- harness ---

class FakeModule:
    class Manager:
        def work(self):
            return 1


def side(kind, call, **extra):
    return Side(kind, setup=lambda: None, call=call, **extra)


def run(*sides, reps=3):
    op = Operation("op", "op", "small", list(sides))
    harness.measure(op, FakeModule, reps, min_sample_s=0.0)
    return op


@pytest.mark.parametrize("module_side, status", [
    (side(MODULE, lambda _: 1, requires=(("Manager", "absent"),)), "not available"),
    (side(MODULE, lambda _: 1, requires=(("Missing", "work"),)), "not available"),
    (side(MODULE, lambda _: (_ for _ in ()).throw(NotImplementedError("stub"))), "not available"),
    (side(MODULE, lambda _: {}.missing), "not available"),
    (side(MODULE, lambda _: 1 / 0), "failed"),
    (side(MODULE, lambda _: 1, requires=(("Manager", "work"),)), "ok"),
])
def test_module_side_status(module_side, status):
    op = run(module_side, side(PYTHON, lambda _: 1))
    assert op.results[MODULE]["status"] == status
    assert op.results[PYTHON]["status"] == "ok"
    if status != "ok":
        assert op.results[MODULE]["reason"] and "samples_s" not in op.results[MODULE]


def test_a_peer_that_breaks_is_failed_never_unavailable():
    op = run(side(PYTHON, lambda _: {}.missing))
    assert op.results[PYTHON]["status"] == "failed"
    assert "AttributeError" in op.results[PYTHON]["reason"]


def test_samples_are_interleaved_and_reset_runs_before_every_call():
    calls = []
    sides = [side(kind, lambda _, k=kind: calls.append(k), reset=lambda _, k=kind: calls.append("reset " + k))
             for kind in (MODULE, PYTHON, STDLIB)]
    op = run(*sides, reps=3)
    timed = calls[6:]            # after each side's first (fingerprinting) call
    assert timed == ["reset module", "module", "reset python", "python", "reset stdlib", "stdlib",
                     "reset python", "python", "reset stdlib", "stdlib", "reset module", "module",
                     "reset stdlib", "stdlib", "reset module", "module", "reset python", "python"]
    assert all(len(op.results[k]["samples_s"]) == 3 for k in (MODULE, PYTHON, STDLIB))


def test_timed_calls_see_older_objects_frozen_and_the_collector_is_restored_after():
    import gc
    older = [[] for _ in range(1000)]
    frozen = []
    op = run(side(PYTHON, lambda _: frozen.append(gc.get_freeze_count())))
    assert op.results[PYTHON]["status"] == "ok"
    assert min(frozen) >= len(older) and gc.get_freeze_count() == 0 and gc.isenabled()


def test_fast_calls_are_batched_to_fill_a_sample():
    op = Operation("op", "op", "small", [side(PYTHON, lambda _: None)])
    harness.measure(op, FakeModule, 2, min_sample_s=0.01)
    result = op.results[PYTHON]
    assert result["calls_per_sample"] > 10
    assert all(s < 0.01 for s in result["samples_s"])   # per call, not per sample


@pytest.mark.parametrize("outcomes, expected", [
    ({MODULE: {"a": 1}, PYTHON: {"a": 1}, STDLIB: {"a": 1}}, True),
    ({MODULE: {"a": 1}, PYTHON: {"a": 1.0}}, False),
    ({MODULE: {"a": 1, "b": 2}, PYTHON: {"b": 2, "a": 1}}, False),
    ({PYTHON: {"a": 1}}, None),
])
def test_same_result_is_strict_about_types_and_order(outcomes, expected):
    op = run(*[side(kind, lambda _, v=value: v, outcome=lambda _, r: r) for kind, value in outcomes.items()])
    assert harness.same_result(op) is expected


def test_ratio_and_target_compare_medians():
    op = Operation("op", "op", "large", [], target={"against": PYTHON, "at_least": 5})
    op.results = {MODULE: {"status": "ok", "median_s": 0.5}, PYTHON: {"status": "ok", "median_s": 2.0}}
    assert harness.ratio(op, PYTHON) == 4.0 and harness.ratio(op, STDLIB) is None
    assert harness.target_status(op) == "missed"
    op.results[PYTHON]["median_s"] = 3.0
    assert harness.target_status(op) == "met"


# --------------------------------------------------------------- memory ---

def test_memory_probe_sees_what_a_call_allocates():
    mib = 1024 * 1024
    keep = []
    grown, method = memprobe.peak_of(lambda size: keep.append(bytearray(size)), 64 * mib)
    idle, _ = memprobe.peak_of(lambda _: None, 0)
    assert grown >= 60 * mib, method
    assert idle < 8 * mib


# ------------------------------------------------------ workspace, report ---

def test_each_side_gets_its_own_beam_tables_and_shares_read_only_inputs(tmp_path):
    from operations import Workspace
    ws = Workspace.create(tmp_path, "small", gen_data.SEED)
    beam_file, cali_file = ws.manifest["beam_file"], ws.manifest["calibration_file"]
    original = (ws.files_dir(MODULE) / beam_file).read_bytes()
    (ws.files_dir(PYTHON) / beam_file).write_text("{}", encoding="utf-8")      # a save truncating in place
    assert (ws.files_dir(MODULE) / beam_file).read_bytes() == original
    assert (ws.files_dir(STDLIB) / beam_file).read_bytes() == original
    assert (ws.files_dir(STDLIB) / cali_file).samefile(tmp_path / "data" / cali_file)


@pytest.mark.parametrize("seconds, text", [
    (4e-8, "40 ns"), (2.5e-6, "2.5 µs"), (0.0123, "12.30 ms"), (0.9999, "999.90 ms"), (12.0, "12.00 s"),
])
def test_durations_are_written_in_fitting_units(seconds, text):
    import report
    assert report.duration(seconds) == text


def test_report_rows_show_status_speedups_and_targets():
    import report
    op = Operation("beam_save", "beam save", "large", [], target={"against": STDLIB, "at_least": 10})
    op.results = {MODULE: {"status": "ok", "median_s": 1.0, "label": "", "outcome": "a"},
                  PYTHON: {"status": "not available", "label": "", "reason": "why"},
                  STDLIB: {"status": "ok", "median_s": 8.0, "label": "json.dump", "outcome": "a"}}
    row = next(report.rows([report.operation_record(op)]))
    assert row == ["beam save", "large", "1.00 s", "not available", "8.00 s", "-", "8.0x", "yes",
                   ">=10x stdlib: missed"]
