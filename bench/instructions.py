"""Instructions the module executes per call of each benchmark operation, counted by
callgrind: the same count for the same build and data whatever else the machine is doing,
so two builds can be compared on a busy machine where timings cannot.

    python bench/instructions.py --out old.json      (with one build installed)
    python bench/instructions.py --out new.json      (with the other)
    python bench/compare.py old.json new.json

Only the module's side runs, on the small data set; each operation is called once to fill
its caches, then CALLS times inside functools.reduce, which callgrind is told to count
alone (one dump per operation). Needs valgrind.
"""

import argparse
import functools
import json
import re
import subprocess
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

import gen_data  # noqa: E402
from operations import CATALOGUE, Workspace, build_operations  # noqa: E402

CALLS = 5


def run_operations(root):
    """Under callgrind: every operation, CALLS calls inside one counted reduce()."""
    import vexcore.qrvdev.QRVTableManager as tm

    workspace = Workspace(root)
    for key, *_ in CATALOGUE:
        side = build_operations(workspace, tm, only=[key])[0].sides[0]
        context = side.setup()
        if side.reset:
            side.reset(context)
        side.call(context)  # fills caches; the counted calls start from a reset, as a timed sample does
        if side.reset:
            side.reset(context)
        functools.reduce(lambda _acc, _i: side.call(context), range(CALLS), None)
        print(key, flush=True)


def count(root, out_dir):
    command = ["valgrind", "--tool=callgrind", "--collect-atstart=no", "--toggle-collect=functools_reduce",
               "--dump-after=functools_reduce", "--callgrind-out-file=%s/cg.out" % out_dir,
               sys.executable, __file__, "--run", str(root)]  # fmt: skip
    done = subprocess.run(command, capture_output=True, text=True, check=True)
    titles = {key: title for key, title, *_ in CATALOGUE}
    calls = []
    for number, key in enumerate(done.stdout.split(), 1):
        dump = Path(out_dir, "cg.out.%d" % number).read_text()
        total = int(re.search(r"^(?:summary|totals): (\d+)", dump, re.M).group(1))
        # compare.py reads module_s/python_s; a count has no peer, so the peer is 1.
        calls.append({"title": titles[key], "instructions": total / CALLS, "module_s": total / CALLS, "python_s": 1})
    return calls


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", type=Path, required="--run" not in argv, help="results JSON")
    parser.add_argument("--seed", type=int, default=gen_data.SEED)
    parser.add_argument("--run", type=Path, help=argparse.SUPPRESS)
    args = parser.parse_args(argv)
    if args.run:
        return run_operations(args.run)
    with tempfile.TemporaryDirectory() as work:
        Workspace.create(Path(work) / "data", "small", args.seed)
        calls = count(Path(work) / "data", work)
    args.out.write_text(json.dumps({"unit": "instructions per call", "calls": calls}, indent=1))
    for call in calls:
        print("%-50s %14s" % (call["title"], format(round(call["instructions"]), ",")))


if __name__ == "__main__":
    main(sys.argv[1:])
