"""The benchmark's machinery where a fault would silently falsify a figure (the data
generator, the side-by-side timer, the result comparison, per-side files, the memory
probe), and its quick runs end to end: a complete, honest report, not how fast anything is."""
import gc
import json
import subprocess
import sys
from pathlib import Path

import pytest
from fuzz_support import folder_contents

BENCH = Path(__file__).resolve().parent.parent / "bench"
sys.path.insert(0, str(BENCH))

import gen_data  # noqa: E402
import harness  # noqa: E402
import memprobe  # noqa: E402
from harness import MODULE, PYTHON, STDLIB, Operation, Side  # noqa: E402
from operations import CATALOGUE, Workspace  # noqa: E402


def test_generated_data_is_reproducible_and_its_manifest_names_the_right_beams(tmp_path):
    manifest = gen_data.generate(tmp_path / "one", "small")
    gen_data.generate(tmp_path / "again", "small")
    assert folder_contents(tmp_path / "again") == folder_contents(tmp_path / "one")
    # The operations time these beams: a wrong id would time other work under the same name.
    tx = json.loads((tmp_path / "one" / manifest["beam_file"]).read_text(encoding="utf-8"))["TX"]
    assert str(manifest["unset_beam_id"]) not in tx
    assert [tx[str(manifest[key])]["beam_type"] for key in ("channel_beam_id", "steered_beam_id")] == [1, 0]


class FakeModule:
    class Manager:
        def work(self):
            return 1


def side(kind, call, **extra):
    return Side(kind, setup=lambda: None, call=call, **extra)


def run(*sides, reps=3, min_sample_s=0.0):
    op = Operation("op", "op", "small", list(sides))
    harness.measure(op, FakeModule, reps, min_sample_s=min_sample_s)
    return op


def raising(error):
    def call(_):
        raise error
    return call


@pytest.mark.parametrize("tested, status", [
    (side(MODULE, lambda _: 1, requires=(("Manager", "absent"),)), "not available"),
    (side(MODULE, raising(NotImplementedError("stub"))), "not available"),
    (side(MODULE, raising(ZeroDivisionError())), "failed"),
    (side(PYTHON, raising(AttributeError("missing"))), "failed"),    # a broken peer is never "not available"
])
def test_side_status(tested, status):
    result = run(tested).results[tested.kind]
    assert result["status"] == status
    assert ("samples_s" in result) == (status == "ok")
    assert bool(result.get("reason")) == (status != "ok")


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
    # Some interpreters (3.12) start with objects of their own frozen; the run may
    # unfreeze those, but must leave nothing more frozen than it found.
    gc.collect()
    frozen_before = gc.get_freeze_count()
    older = [[] for _ in range(1000)]
    frozen = []
    run(side(PYTHON, lambda _: frozen.append(gc.get_freeze_count())))
    assert min(frozen) >= frozen_before + len(older)
    assert gc.get_freeze_count() <= frozen_before and gc.isenabled()


def test_fast_calls_are_batched_and_timed_per_call():
    result = run(side(PYTHON, lambda _: None), reps=2, min_sample_s=0.01).results[PYTHON]
    assert result["calls_per_sample"] > 10
    assert all(s < 0.01 for s in result["samples_s"])


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


def test_memory_probe_sees_what_a_call_allocates():
    keep = []
    grown, method = memprobe.peak_of(lambda size: keep.append(bytearray(size)), 64 << 20)
    idle, _ = memprobe.peak_of(lambda _: None, 0)
    assert grown >= 60 << 20 and idle < 8 << 20, method


def test_each_side_gets_its_own_beam_tables_and_shares_read_only_inputs(tmp_path):
    ws = Workspace.create(tmp_path, "small", gen_data.SEED)
    beam_file, cali_file = ws.manifest["beam_file"], ws.manifest["calibration_file"]
    original = (ws.files_dir(MODULE) / beam_file).read_bytes()
    (ws.files_dir(PYTHON) / beam_file).write_text("{}", encoding="utf-8")      # a save truncating in place
    assert (ws.files_dir(MODULE) / beam_file).read_bytes() == original
    assert (ws.files_dir(STDLIB) / beam_file).read_bytes() == original
    assert (ws.files_dir(STDLIB) / cali_file).samefile(tmp_path / "data" / cali_file)


def test_benchmark_page_shows_the_recorded_results_and_nothing_else(tmp_path):
    import report

    page = (BENCH.parent / "docs" / "benchmarks.md").read_text(encoding="utf-8")
    assert report.results_block(*report.read_results()) in page
    # Updating rewrites only what lies between the markers.
    copy = tmp_path / "benchmarks.md"
    copy.write_text("intro\n" + report.BEGIN + "\nstale 99.9x\n" + report.END + "\noutro\n", encoding="utf-8")
    report.update_docs_page(copy)
    text = copy.read_text(encoding="utf-8")
    assert "stale" not in text and text.startswith("intro\n") and text.endswith(report.END + "\noutro\n")


REPS = 2


def test_quick_run_reports_every_operation_on_every_side_with_the_same_result(tmp_path):
    out = tmp_path / "quick.json"
    done = subprocess.run([sys.executable, str(BENCH / "run.py"), "--quick", "--reps", str(REPS), "--out", str(out)],
                          capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr[-3000:]
    report = json.loads(out.read_text(encoding="utf-8"))
    assert [(op["key"], op["dataset"]) for op in report["operations"]] == [(entry[0], "small") for entry in CATALOGUE]
    for op in report["operations"]:
        # The pure-Python peers stand in for the module's behaviour: a difference is a fault on one side.
        assert op["same_result"] is True, op["key"]
        for kind, side in op["sides"].items():
            assert side["status"] == "ok", (op["key"], kind, side)
            assert len(side["samples_s"]) == REPS, (op["key"], kind)
            assert 0 < min(side["samples_s"]) <= side["median_s"] <= max(side["samples_s"])
        for kind in ("python", "stdlib"):
            assert (op["speedup_vs_" + kind] is not None) == (kind in op["sides"]), (op["key"], kind)
    probed = {op["key"]: op["peak_memory"] for op in report["operations"] if "peak_memory" in op}
    assert sorted(probed) == ["beam_load", "beam_save"]
    for memory in probed.values():
        assert set(memory) == {"module", "python", "stdlib"}
        assert memory["python"]["status"] == "ok" and memory["python"]["peak_bytes"] >= 0
    assert report["machine"]["nproc"] >= 1 and report["machine"]["cpu_model"] and report["machine"]["python"]
    assert out.with_suffix(".md").read_text(encoding="utf-8").count("\n| ") >= len(CATALOGUE)
    assert "calibration parse" in done.stdout
    assert report["codecs"]["status"] == "ok", report["codecs"]       # each codec gave the standard result


def test_micro_benchmark_times_every_call_on_both_sides_with_the_same_result(tmp_path):
    import micro
    out = tmp_path / "micro.json"
    done = subprocess.run([sys.executable, str(BENCH / "micro.py"), "--quick", "--out", str(out)],
                          capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr[-3000:]
    report = json.loads(out.read_text(encoding="utf-8"))
    assert [c["title"] for c in report["calls"]] == [c.title for c in micro.calls()]
    for call in report["calls"]:
        assert call["same_result"] is True, call["title"]
        assert call["module_s"] > 0 and call["python_s"] > 0 and call["speedup"] > 0, call["title"]
    assert set(report["floors_s"]) == {"ret", "log"} and all(v > 0 for v in report["floors_s"].values())
    assert out.with_suffix(".md").read_text(encoding="utf-8").count("\n| ") == len(report["calls"]) + 3
