"""The benchmark's quick mode runs end to end and writes a complete, honest report.

This checks that the runner works (every operation present, every side accounted for,
numbers where a side ran), not how fast anything is.
"""
import json
import subprocess
import sys
from pathlib import Path

import pytest

BENCH = Path(__file__).resolve().parent.parent / "bench"
sys.path.insert(0, str(BENCH))

from operations import CATALOGUE  # noqa: E402

REPS = 2


@pytest.fixture(scope="module")
def quick_report(tmp_path_factory):
    out = tmp_path_factory.mktemp("bench") / "quick.json"
    done = subprocess.run([sys.executable, str(BENCH / "run.py"), "--quick", "--reps", str(REPS), "--out", str(out)],
                          capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr[-3000:]
    return json.loads(out.read_text(encoding="utf-8")), out, done.stdout


def test_every_operation_is_reported_once_on_small_data(quick_report):
    report, _, _ = quick_report
    keys = [(op["key"], op["dataset"]) for op in report["operations"]]
    assert keys == [(entry[0], "small") for entry in CATALOGUE]


def test_peers_and_stdlib_ran_and_the_module_ran_or_is_marked_unavailable(quick_report):
    report, _, _ = quick_report
    for op in report["operations"]:
        sides = op["sides"]
        assert sides["python"]["status"] == "ok", (op["key"], sides["python"])
        assert sides.get("stdlib", {"status": "ok"})["status"] == "ok", (op["key"], sides["stdlib"])
        module = sides["module"]
        assert module["status"] in ("ok", "not available"), (op["key"], module)
        if module["status"] == "not available":
            assert module["reason"]


def test_a_side_that_ran_has_its_samples_and_median(quick_report):
    report, _, _ = quick_report
    for op in report["operations"]:
        for kind, side in op["sides"].items():
            if side["status"] == "ok":
                assert len(side["samples_s"]) == REPS, (op["key"], kind)
                assert min(side["samples_s"]) <= side["median_s"] <= max(side["samples_s"])
                assert side["median_s"] > 0


def test_speedups_exist_exactly_where_both_sides_ran(quick_report):
    report, _, _ = quick_report
    for op in report["operations"]:
        for kind in ("python", "stdlib"):
            both = op["sides"]["module"]["status"] == "ok" and op["sides"].get(kind, {}).get("status") == "ok"
            assert (op["speedup_vs_" + kind] is not None) == both, (op["key"], kind)


def test_peak_memory_of_beam_load_and_save_is_probed_per_side(quick_report):
    report, _, _ = quick_report
    probed = {op["key"]: op["peak_memory"] for op in report["operations"] if "peak_memory" in op}
    assert sorted(probed) == ["beam_load", "beam_save"]
    for memory in probed.values():
        assert set(memory) == {"module", "python", "stdlib"}
        assert memory["python"]["status"] == "ok" and memory["python"]["peak_bytes"] >= 0


def test_machine_is_named_and_markdown_table_written(quick_report):
    report, out, stdout = quick_report
    assert report["machine"]["nproc"] >= 1 and report["machine"]["cpu_model"] and report["machine"]["python"]
    markdown = out.with_suffix(".md").read_text(encoding="utf-8")
    assert markdown.count("\n| ") >= len(CATALOGUE)
    assert "calibration parse" in stdout
