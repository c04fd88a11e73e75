"""One command for every hot path: the C++ module beside its pure-Python peer and the
standard library, on generated data, side by side in one run.

    python bench/run.py            small and large data sets, results in bench/results/latest.json
    python bench/run.py --quick    small data, few samples: checks the runner works (CI smoke test)

Prints a table of medians and speed-ups, writes the same as JSON (and a Markdown table
beside it), and measures the peak memory of beam load and save in fresh processes.
"""

import argparse
import datetime
import json
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

import gen_data  # noqa: E402
import report  # noqa: E402
from harness import SIDE_ORDER, measure  # noqa: E402
from operations import CATALOGUE, Workspace, build_operations  # noqa: E402

import vexcore.qrvdev.QRVTableManager as tm  # noqa: E402

RESULTS = HERE / "results"


def parse_args(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="small data, few samples (smoke test)")
    parser.add_argument(
        "--size",
        choices=["small", "large", "all"],
        default=None,
        help="data sets to run (default: all; small with --quick)",
    )
    parser.add_argument("--reps", type=int, default=None, help="interleaved samples per side (default 5, quick 3)")
    parser.add_argument(
        "--min-sample", type=float, default=None, help="seconds one sample lasts at least (default 0.2, quick 0.005)"
    )
    parser.add_argument("--only", nargs="+", choices=[c[0] for c in CATALOGUE], help="operations to run")
    parser.add_argument("--out", type=Path, default=None, help="results JSON (default bench/results/latest.json)")
    parser.add_argument("--seed", type=int, default=gen_data.SEED)
    parser.add_argument("--no-memory", action="store_true", help="skip the peak-memory probes")
    parser.add_argument("--no-codecs", action="store_true", help="skip bench/bench_codecs.py")
    parser.add_argument("--keep", action="store_true", help="keep the generated data folder")
    args = parser.parse_args(argv)
    args.size = args.size or ("small" if args.quick else "all")
    args.reps = args.reps or (3 if args.quick else 5)
    args.min_sample = args.min_sample if args.min_sample is not None else (0.005 if args.quick else 0.2)
    args.out = args.out or RESULTS / ("quick.json" if args.quick else "latest.json")
    return args


def log(message):
    print(message, file=sys.stderr, flush=True)


# ---------------------------------------------------------------- memory ---


def probe_memory(ws, op):
    """Peak memory of each side of op, each in a fresh interpreter."""
    found = {}
    for kind in SIDE_ORDER:
        if any(side.kind == kind for side in op.sides):
            found[kind] = run_probe(ws, op.key, kind)
    return found


def run_probe(ws, key, kind):
    command = [sys.executable, str(HERE / "memprobe.py"), str(ws.root), key, kind]
    done = subprocess.run(command, capture_output=True, text=True)
    lines = done.stdout.strip().splitlines()
    if done.returncode != 0 or not lines:
        return {"status": "failed", "reason": (done.stderr.strip().splitlines() or ["no output"])[-1]}
    return json.loads(lines[-1])


# ---------------------------------------------------------------- codecs ---


def codec_results(quick):
    """Results of bench/bench_codecs.py (the codec layer against json and csv), when it exists."""
    try:
        import bench_codecs
    except ModuleNotFoundError:
        return {"status": "not available", "reason": "bench/bench_codecs.py is not on this branch"}
    runner = getattr(bench_codecs, "run", None)
    if runner is None:
        return {"status": "not available", "reason": "bench_codecs defines no run()"}
    try:
        return {"status": "ok", "results": runner(quick=quick)}
    except Exception as error:
        return {"status": "failed", "reason": "%s: %s" % (type(error).__name__, error)}


# ------------------------------------------------------------------- run ---


def describe_dataset(ws):
    data = ws.root / "data"
    size = lambda name: (data / name).stat().st_size  # noqa: E731
    m = ws.manifest
    return {
        "layout": m["layout"],
        "beams_per_mode": m["num_beam"],
        "kits": len(m["kits"]),
        "data_rows": m["data_rows"],
        "calibration_bytes": size(m["calibration_file"]),
        "beam_table_bytes": size(m["beam_file"]),
        "old_beam_table_bytes": size(m["old_beam_source"]),
        "seed": m["seed"],
    }


def run_dataset(size, args, workdir):
    log("generating the %s data set ..." % size)
    ws = Workspace.create(workdir / size, size, args.seed)
    records = []
    for op in build_operations(ws, tm, only=args.only):
        log("  %-45s %s" % (op.title, size))
        started = time.perf_counter()
        measure(op, tm, args.reps, args.min_sample)
        if op.memory and not args.no_memory:
            op.memory_results = probe_memory(ws, op)
        records.append(report.operation_record(op))
        log("    done in %.1f s" % (time.perf_counter() - started))
    return describe_dataset(ws), records


def run(args):
    workdir = Path(tempfile.mkdtemp(prefix="vexcore-bench-"))
    sizes = ["small", "large"] if args.size == "all" else [args.size]
    result = {
        "created": datetime.datetime.now().isoformat(timespec="seconds"),
        "quick": args.quick,
        "machine": report.machine(),
        "module": tm.__file__,
        "settings": {
            "reps": args.reps,
            "min_sample_s": args.min_sample,
            "seed": args.seed,
            "gc": "enabled; collected before every sample, and what was alive before frozen "
            "out of it (gc.freeze) while the sample runs",
            "logging": "not configured (the managers' records stay below WARNING)",
        },
        "datasets": {},
        "operations": [],
    }
    try:
        for size in sizes:
            description, records = run_dataset(size, args, workdir)
            result["datasets"][size] = description
            result["operations"] += records
        result["codecs"] = {"status": "skipped"} if args.no_codecs else codec_results(args.quick)
    finally:
        if args.keep:
            log("data kept in %s" % workdir)
        else:
            shutil.rmtree(workdir, ignore_errors=True)
    return result


def save(result, out):
    out.parent.mkdir(parents=True, exist_ok=True)
    out.write_text(json.dumps(result, indent=2, ensure_ascii=False) + "\n", encoding="utf-8")
    out.with_suffix(".md").write_text(report.markdown(result) + "\n", encoding="utf-8")


def main(argv=None):
    args = parse_args(sys.argv[1:] if argv is None else argv)
    result = run(args)
    save(result, args.out)
    if args.out == RESULTS / "latest.json":
        report.update_docs_page()
    print(report.console(result))
    print("\nresults: %s" % args.out)
    return 0


if __name__ == "__main__":
    sys.exit(main())
