"""The examples, the README's tour and the sample folder work as a new user runs them."""
import os
import subprocess
import sys
from pathlib import Path

import pytest

import vexcore

REPO = Path(__file__).resolve().parents[1]
ENV = {k: v for k, v in os.environ.items() if k not in ("VEXCORE_DB", "VEXCORE_FILES_DIR")}


def run(args, cwd, expect=0):
    done = subprocess.run([sys.executable, *args], cwd=cwd, env=ENV, capture_output=True, text=True, timeout=120)
    assert done.returncode == expect, done.stdout + done.stderr
    return done.stdout + done.stderr


# Each example, and lines its output must hold (what it shows a reader).
@pytest.mark.parametrize("script, expected", [
    ("tour.py", ["set TX 3: OK", "'theta': 20", "set TX 4: ERROR_BF_BEAM theta 80 is outside the kit's STEERING_H"]),
    ("web_mode.py", ["frequencies: [28.0]", "kits in the database: ['LabKit_", "saved: OK", "'phi': 25"]),
])
def test_example_runs_in_a_sample_folder(tmp_path, script, expected):
    run(["-m", "vexcore.samples", "."], tmp_path)
    output = run([str(REPO / "examples" / script)], tmp_path)
    for text in expected:
        assert text in output


def test_readme_tour_is_the_tour_example():
    tour = (REPO / "examples" / "tour.py").read_text(encoding="utf-8")
    code = tour.split('"""', 2)[2].strip()
    assert "```python\n" + code + "\n```" in (REPO / "README.md").read_text(encoding="utf-8")


def test_sample_folder_keeps_edited_tables_unless_forced(tmp_path):
    assert "--force" in run(["-m", "vexcore.samples", "--help"], tmp_path) and os.listdir(tmp_path) == []
    run(["-m", "vexcore.samples", "lab"], tmp_path)
    kit = tmp_path / "lab" / "files" / "AAKIT_QRVLAB-4x4_PRIME_28_IDEAL.csv"
    run(["-m", "vexcore.samples", "lab"], tmp_path)            # unchanged files: prepared again
    kit.write_text("AAKIT_NAME,Mine\n")
    assert str(kit.relative_to(tmp_path)) in run(["-m", "vexcore.samples", "lab"], tmp_path, expect=1)
    assert kit.read_text() == "AAKIT_NAME,Mine\n"
    run(["-m", "vexcore.samples", "--force", "lab"], tmp_path)
    assert kit.read_text().startswith("AAKIT_NAME,AAKIT_QRVLAB")


def test_version_comes_from_the_package_metadata(tmp_path):
    from importlib.metadata import version

    assert vexcore.__version__ == version("vexcore")
    assert run(["-m", "vexcore.tables", "--version"], tmp_path).strip() == "vexcore-tables " + vexcore.__version__
