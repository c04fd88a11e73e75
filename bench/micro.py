"""The small calls a driver makes on every beam switch: the C++ module beside the pure-Python
peer (bench/baseline), same interpreter, same process, on the small data set (4 x 1 x 4).

    python bench/micro.py                 every call, results in bench/results/micro.json + .md
    python bench/micro.py --quick         few calls per sample (checks the runner works)
    python bench/micro.py --docs          also writes the table into docs/benchmarks.md

Each call is timed in a compiled loop (timeit) of many calls; the samples of the two sides
alternate, and the minimum of many short samples (about a millisecond) is kept, which is
the least disturbed by the other processes of a shared machine. Both sides build their results with the same
`vexcore.QRVUtils.RetType` the SDK supplies, and both get the same driver hooks.

For every call the table also shows where the module's time goes: the share spent entering
the module and building the `RetType` result, and the share spent asking the logger whether a
level is enabled, each measured on its own in the same run (see `cost_floors`).
"""

import argparse
import datetime
import gc
import json
import logging
import shutil
import sys
import tempfile
import timeit
from dataclasses import dataclass, field
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent
sys.path.insert(0, str(HERE))

import gen_data  # noqa: E402
import report  # noqa: E402
from harness import MODULE, PYTHON, digest  # noqa: E402
from operations import Workspace, flavours, kit_manager, loaded_beams, ok, parsed_calibration, use_files_dir  # noqa: E402

import vexcore.qrvdev.QRVTableManager as tm  # noqa: E402
from vexcore.QRVPublic import BeamType, RetCode, RFMode  # noqa: E402
from vexcore.QRVUtils import RetType  # noqa: E402

RESULTS = HERE / "results"
DOCS = ROOT / "docs" / "benchmarks.md"
DOCS_BEGIN = "<!-- micro-benchmark table: written by bench/micro.py --docs -->"
DOCS_END = "<!-- end of micro-benchmark table -->"


@dataclass
class Call:
    """One driver-facing call, timed on both sides."""

    title: str
    stmt: str  # timed statement; names come from the side's namespace
    target: float  # speed-up over the peer the module should reach
    costs: tuple = ()  # what the module's call spends besides its own work: "ret", "log"
    results: dict = field(default_factory=dict)


def calls():
    return [
        Call("getDR()", "cali.getDR()", 2, ("ret",)),
        Call("getDR(RFMode.TX)", "cali.getDR(TX)", 1.5, ("ret",)),
        Call("getCOMDR(), cached", "cali.getCOMDR()", 1.5, ("ret", "log")),
        Call("getELEDR(), cached", "cali.getELEDR()", 1.5, ("ret", "log")),
        Call("_getTC()", "cali._getTC()", 1.5),
        Call("_getBoardsOffset([1, 2]), cached", "cali._getBoardsOffset(BOARDS)", 1.5),
        Call("getAAKitList()", "kits.getAAKitList()", 1.5, ("ret",)),
        Call("_selectAAKit(kit)", "kits._selectAAKit(KIT)", 1.5, ("ret",)),
        Call("getAAKitInfo(kit)", "kits.getAAKitInfo(KIT)", 2, ("ret",)),
        Call("getBeamIdStorage()", "beams.getBeamIdStorage()", 1.5, ("ret",)),
        Call("getBeamPattern(TX, stored id)", "beams.getBeamPattern(TX, STORED)", 2, ("ret",)),
        Call("_getBatchBeamPattern()", "beams._getBatchBeamPattern()", 1.5, ("ret", "log")),
        Call("_getBatchBeamPattern(BTModeFilter.TX)", "beams._getBatchBeamPattern(FILTER_TX)", 1.5, ("ret", "log")),
        Call(
            "setBeamPattern steered, save=False",
            "beams.setBeamPattern(TX, STEERED, BEAM, STEER, 'tracking', save=False)",
            1.5,
            ("ret", "log"),
        ),
        Call("UD parse(), file in the page cache", "ud.parse()", 1.5, ("ret", "log")),
        Call("getUDDeltaFreq()", "ud.getUDDeltaFreq()", 1.5, ("ret",)),
        Call("fake_ic_check(0, 0, 1): RetType(data=1) built by a call", "fake_ic_check(0, 0, 1)", 1.5, ("ret",)),
        Call("RetType(data=1) from Python: the SDK's record / a plain record class", "Record(data=1)", 1.5),
    ]


# ------------------------------------------------------------ namespaces ---


def peer_fake_ic_check(a, b, c):
    return RetType(data=c)


class PlainRecord:
    """The record a pure-Python implementation could have of its own: three fields, no
    attribute-name keywords, no checks."""

    __slots__ = ("RetCode", "RetMsg", "RetData")

    def __init__(self, code=RetCode.OK, msg="", data=None):
        self.RetCode = code
        self.RetMsg = msg
        self.RetData = data


def namespace(flavour, ws):
    """What the timed statements of one side refer to: its managers, loaded from its own files."""
    m = ws.manifest
    kits = kit_manager(flavour, ws)
    ok(kits.getAAKitList())
    ok(kits._selectAAKit(m["kit_name"]))
    use_files_dir(ws.files_dir(flavour.kind))
    ud = flavour.ud(m["sn"])
    ok(ud.parse())
    cali = parsed_calibration(flavour, ws)
    for prime in (cali.getCOMDR, cali.getELEDR, lambda: cali._getBoardsOffset([1, 2])):
        prime()  # the cached queries are measured with their cache built, as a driver meets them
    return {
        "cali": cali,
        "kits": kits,
        "beams": loaded_beams(flavour, ws),
        "ud": ud,
        "TX": RFMode.TX,
        "BEAM": BeamType.BEAM,
        "KIT": m["kit_name"],
        "BOARDS": [1, 2],
        "STORED": m["channel_beam_id"],
        "STEERED": m["steered_beam_id"],
        "STEER": {"db": 1.5, "theta": 12, "phi": -6},
        "FILTER_TX": flavour.mode_filter.TX,
        "fake_ic_check": tm.fake_ic_check if flavour.kind == MODULE else peer_fake_ic_check,
        "Record": RetType if flavour.kind == MODULE else PlainRecord,
    }


def outcome(value):
    """What must match across the sides: the result's fields, or the bare value."""
    if isinstance(value, (RetType, PlainRecord)):
        return [str(value.RetCode), value.RetMsg, value.RetData]
    return value


# ------------------------------------------------------------- measuring ---


def time_per_call(stmt, ns, number):
    """Seconds per call of `number` calls in a compiled loop (timeit: the collector is off
    while it runs, for both sides alike; what a call creates is freed by reference counts)."""
    timer = timeit.Timer(stmt, globals=ns)
    gc.collect()
    return timer.timeit(number) / number


def calls_per_sample(stmt, spaces, sample_s):
    """How many calls make a sample of about sample_s on the slower side (at least 10):
    samples shorter than a scheduler time slice are often left undisturbed on a busy
    machine, and the minimum keeps such a sample."""
    slowest = max(min(time_per_call(stmt, ns, 100) for _ in range(3)) for ns in spaces.values())
    return max(10, int(sample_s / slowest))


def measure(call, spaces, reps, sample_s):
    """Min of `reps` short samples per side, the sides taken in turn."""
    fingerprints = {kind: digest(outcome(eval(call.stmt, dict(ns)))) for kind, ns in spaces.items()}
    number = calls_per_sample(call.stmt, spaces, sample_s)
    samples = {kind: [] for kind in spaces}
    order = list(spaces)
    for rep in range(reps):
        for kind in order[rep % 2 :] + order[: rep % 2]:
            samples[kind].append(time_per_call(call.stmt, spaces[kind], number))
    call.results = {kind: {"min_s": min(s), "samples_s": s} for kind, s in samples.items()}
    call.results["same_result"] = len(set(fingerprints.values())) == 1
    call.results["calls_per_sample"] = number


# What a module call spends besides its own work, each timed alone in the module's namespace:
#   ret   entering the module and building the RetType result: a native function that does
#         nothing else (fake_ic_check returns RetType(data=c)), so it is the floor of every
#         call that returns a result;
#   log   one "is this level enabled?" question to a manager's logger, as the module asks it.
COST_STATEMENTS = {"ret": "fake_ic_check(0, 0, 1)", "log": "logger.isEnabledFor(10)"}


def cost_floors(ns, reps, sample_s):
    ns = dict(ns, logger=logging.getLogger("BeamTbl"))
    floors = {}
    for name, stmt in COST_STATEMENTS.items():
        number = calls_per_sample(stmt, {MODULE: ns}, sample_s)
        floors[name] = min(time_per_call(stmt, ns, number) for _ in range(reps))
    return floors


def ratio(call):
    module, peer = call.results[MODULE]["min_s"], call.results[PYTHON]["min_s"]
    return peer / module if module > 0 else None


# ---------------------------------------------------------------- report ---

HEADERS = [
    "call",
    "module",
    "pure Python",
    "speed-up",
    "target",
    "same result",
    "of the module's time: call + RetType, logging",
]


def share(call, floors):
    module = call.results[MODULE]["min_s"]
    parts = []
    for name, label in (("ret", "call + RetType"), ("log", "logging")):
        if name in call.costs:
            parts.append("%s %.0f%%" % (label, 100 * min(floors[name] / module, 1.0)))
    return ", ".join(parts) or "-"


def rows(result):
    floors = result["floors_s"]
    for call in result["calls"]:
        speed = call["speedup"]
        met = speed is not None and speed >= call["target"]
        yield [
            call["title"],
            report.duration(call["module_s"]),
            report.duration(call["python_s"]),
            report.times(speed),
            ">=%gx: %s" % (call["target"], "met" if met else "missed"),
            "yes" if call["same_result"] else "DIFFERS",
            call["share"],
        ]
    floor = report.duration(floors["ret"])
    yield ["(floor: a module call that only returns RetType(data=x))", floor, "-", "-", "-", "-", "-"]
    yield ["(one isEnabledFor question)", report.duration(floors["log"]), "-", "-", "-", "-", "-"]


def markdown(result):
    m = result["machine"]
    head = (
        "Measured on %s CPUs (%s), Python %s, %s; per call and side the minimum of %d samples "
        "of about %g ms each, the sides interleaved; the small data set (4 boards x 1 IC x 4 channels)."
        % (
            m["nproc"],
            m["cpu_model"],
            m["python"],
            result["created"],
            result["settings"]["reps"],
            result["settings"]["sample_s"] * 1e3,
        )
    )
    return head + "\n\n" + report.markdown_table(HEADERS, rows(result))


def write_docs(table):
    text = DOCS.read_text(encoding="utf-8") if DOCS.exists() else "# Benchmarks\n"
    block = "%s\n%s\n%s" % (DOCS_BEGIN, table, DOCS_END)
    if DOCS_BEGIN in text and DOCS_END in text:
        before, rest = text.split(DOCS_BEGIN, 1)
        text = before + block + rest.split(DOCS_END, 1)[1]
    else:
        text = text.rstrip("\n") + "\n\n" + block + "\n"
    DOCS.write_text(text, encoding="utf-8")


# ------------------------------------------------------------------- run ---


def parse_args(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="few calls per sample (smoke test)")
    parser.add_argument("--reps", type=int, default=None, help="samples per side (default 41, quick 3)")
    parser.add_argument(
        "--sample-ms", type=float, default=None, help="milliseconds one sample lasts about (default 1, quick 0.1)"
    )
    parser.add_argument("--only", nargs="+", help="titles (or beginnings of titles) of the calls to run")
    parser.add_argument("--out", type=Path, default=None, help="results JSON (default bench/results/micro.json)")
    parser.add_argument("--docs", action="store_true", help="write the table into docs/benchmarks.md")
    args = parser.parse_args(argv)
    args.reps = args.reps or (3 if args.quick else 41)
    args.sample_s = (args.sample_ms or (0.1 if args.quick else 1.0)) / 1e3
    args.out = args.out or RESULTS / ("micro-quick.json" if args.quick else "micro.json")
    return args


def selected(only):
    chosen = calls()
    if only:
        chosen = [c for c in chosen if any(c.title.startswith(prefix) for prefix in only)]
    return chosen


def run(args):
    workdir = Path(tempfile.mkdtemp(prefix="vexcore-micro-"))
    try:
        ws = Workspace.create(workdir, "small", gen_data.SEED)
        native, peer = flavours(tm)
        spaces = {MODULE: namespace(native, ws), PYTHON: namespace(peer, ws)}
        records = []
        for call in selected(args.only):
            print("  %s" % call.title, file=sys.stderr, flush=True)
            measure(call, spaces, args.reps, args.sample_s)
            records.append(call)
        floors = cost_floors(spaces[MODULE], args.reps, args.sample_s)
    finally:
        shutil.rmtree(workdir, ignore_errors=True)
    return {
        "created": datetime.datetime.now().isoformat(timespec="seconds"),
        "machine": report.machine(),
        "module": tm.__file__,
        "settings": {"reps": args.reps, "sample_s": args.sample_s, "data": "small"},
        "floors_s": floors,
        "calls": [
            {
                "title": c.title,
                "stmt": c.stmt,
                "target": c.target,
                "speedup": ratio(c),
                "module_s": c.results[MODULE]["min_s"],
                "python_s": c.results[PYTHON]["min_s"],
                "same_result": c.results["same_result"],
                "share": share(c, floors),
                "calls_per_sample": c.results["calls_per_sample"],
                "samples_s": {k: c.results[k]["samples_s"] for k in (MODULE, PYTHON)},
            }
            for c in records
        ],
    }


def main(argv=None):
    args = parse_args(sys.argv[1:] if argv is None else argv)
    result = run(args)
    table = markdown(result)
    args.out.parent.mkdir(parents=True, exist_ok=True)
    args.out.write_text(json.dumps(result, indent=2) + "\n", encoding="utf-8")
    args.out.with_suffix(".md").write_text(table + "\n", encoding="utf-8")
    if args.docs:
        write_docs(table)
    print(report.text_table(HEADERS, rows(result)))
    print("\nresults: %s" % args.out)
    return 0 if all(c["same_result"] for c in result["calls"]) else 1


if __name__ == "__main__":
    sys.exit(main())
