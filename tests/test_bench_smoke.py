"""The benchmark's quick mode runs end to end and writes a complete, honest report.

This checks that the runner works (every operation present, every side accounted for,
numbers where a side ran, the same result on every side), not how fast anything is.
"""
import json
import subprocess
import sys
from pathlib import Path

BENCH = Path(__file__).resolve().parent.parent / "bench"
sys.path.insert(0, str(BENCH))

from operations import CATALOGUE  # noqa: E402

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
