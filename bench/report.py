"""Turns measured operations into the results JSON, a console table and the results of
the benchmark page (docs/benchmarks.md).

python bench/report.py rewrites the page's results from bench/results/latest.json (and
bench/results/scale.json, written by `python bench/scale.py --json`), so the figures on
the page are always the measured ones."""

import json
import os
import platform
import sys
from pathlib import Path

from harness import MODULE, PYTHON, STDLIB, ratio, same_result, target_status

MIB = 1024 * 1024


def machine():
    return {
        "nproc": os.cpu_count(),
        "cpu_model": cpu_model(),
        "python": sys.version.split()[0],
        "implementation": platform.python_implementation(),
        "system": platform.platform(),
    }


def cpu_model():
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor() or "unknown"


# ------------------------------------------------------------------ JSON ---


def operation_record(op):
    record = {
        "key": op.key,
        "title": op.title,
        "dataset": op.dataset,
        "sides": op.results,
        "speedup_vs_python": ratio(op, PYTHON),
        "speedup_vs_stdlib": ratio(op, STDLIB),
        "same_result": same_result(op),
    }
    if op.target:
        record["target"] = dict(op.target, status=target_status(op))
    if getattr(op, "memory_results", None):
        record["peak_memory"] = op.memory_results
        record["peak_memory_module_over_stdlib"] = memory_ratio(op.memory_results)
    return record


def memory_ratio(memory):
    module, stdlib = memory.get(MODULE, {}), memory.get(STDLIB, {})
    if module.get("status") == "ok" and stdlib.get("status") == "ok" and stdlib["peak_bytes"] > 0:
        return module["peak_bytes"] / stdlib["peak_bytes"]
    return None


# --------------------------------------------------------------- formats ---


def duration(seconds):
    if seconds < 1e-6:
        return "%.0f ns" % (seconds * 1e9)
    if seconds < 1e-3:
        return "%.1f µs" % (seconds * 1e6)
    if seconds < 1:
        return "%.2f ms" % (seconds * 1e3)
    return "%.2f s" % seconds


def side_cell(record, kind):
    side = record["sides"].get(kind)
    if side is None:
        return "-"
    if side["status"] != "ok":
        return side["status"]
    return duration(side["median_s"]) if "median_s" in side else "no samples"


def times(value):
    return "-" if value is None else "%.1fx" % value


def same_cell(value):
    return {True: "yes", False: "DIFFERS", None: "-"}[value]


def target_cell(record):
    target = record.get("target")
    if not target:
        return ""
    against = "Python" if target["against"] == PYTHON else "stdlib"
    return ">=%gx %s: %s" % (target["at_least"], against, target["status"])


HEADERS = ["operation", "data", "module", "pure Python", "stdlib", "vs Python", "vs stdlib", "same result", "target"]


def rows(records):
    for r in records:
        yield [
            r["title"],
            r["dataset"],
            side_cell(r, MODULE),
            side_cell(r, PYTHON),
            side_cell(r, STDLIB),
            times(r["speedup_vs_python"]),
            times(r["speedup_vs_stdlib"]),
            same_cell(r["same_result"]),
            target_cell(r),
        ]


def memory_rows(records):
    for r in records:
        memory = r.get("peak_memory")
        if memory:
            cells = [mib_cell(memory.get(kind)) for kind in (MODULE, PYTHON, STDLIB)]
            yield [r["title"], r["dataset"]] + cells + [times(r.get("peak_memory_module_over_stdlib"))]


MEMORY_HEADERS = ["peak memory above start", "data", "module", "pure Python", "stdlib", "module / stdlib"]


def mib_cell(side):
    if not side:
        return "-"
    if side["status"] != "ok":
        return side["status"]
    return "%.1f MiB" % (side["peak_bytes"] / MIB)


def text_table(headers, body):
    body = list(body)
    widths = [max(len(str(c)) for c in column) for column in zip(headers, *body)] if body else map(len, headers)
    widths = list(widths)
    line = lambda cells: "  ".join(str(c).ljust(w) for c, w in zip(cells, widths)).rstrip()  # noqa: E731
    return "\n".join([line(headers), line("-" * w for w in widths)] + [line(r) for r in body])


def markdown_table(headers, body):
    out = ["| " + " | ".join(headers) + " |", "|" + "---|" * len(headers)]
    out += ["| " + " | ".join(str(c) for c in r) + " |" for r in body]
    return "\n".join(out)


def stdlib_notes(records):
    seen = {}
    for r in records:
        side = r["sides"].get(STDLIB)
        if side and r["key"] not in seen:
            seen[r["key"]] = "%s: %s" % (r["title"], side["label"])
    return list(seen.values())


def reasons(records):
    """Why a side did not run, once per distinct reason."""
    found = []
    for r in records:
        for kind, side in r["sides"].items():
            if side["status"] != "ok":
                text = "%s / %s / %s: %s (%s)" % (r["title"], r["dataset"], kind, side["status"], side.get("reason"))
                found.append(text)
    return found


def console(report):
    records = report["operations"]
    parts = [
        "Machine: %(nproc)s CPUs, %(cpu_model)s, Python %(python)s" % report["machine"],
        "Medians of %(reps)s interleaved samples; speed-up = other median / module median." % report["settings"],
        "",
        text_table(HEADERS, rows(records)),
    ]
    memory = list(memory_rows(records))
    if memory:
        parts += ["", text_table(MEMORY_HEADERS, memory)]
    parts += ["", "stdlib column:"] + ["  " + n for n in stdlib_notes(records)]
    problems = reasons(records)
    if problems:
        parts += ["", "Sides that did not run:"] + ["  " + p for p in problems]
    parts += ["", codec_section(report.get("codecs", {}), text_table)]
    return "\n".join(parts)


def markdown(report):
    records = report["operations"]
    m = report["machine"]
    parts = [
        "Measured on %s CPUs (%s), Python %s, %s." % (m["nproc"], m["cpu_model"], m["python"], report["created"]),
        "",
        markdown_table(HEADERS, rows(records)),
    ]
    memory = list(memory_rows(records))
    if memory:
        parts += ["", markdown_table(MEMORY_HEADERS, memory)]
    parts += ["", codec_section(report.get("codecs", {}), markdown_table)]
    return "\n".join(parts)


CODEC_HEADERS = ["codec (bench_codecs.py)", "data", "native", "stdlib", "speed-up"]


def codec_rows(codecs):
    for r in codecs.get("results", []):
        yield [r["name"], r["data"], duration(r["native_s"]), duration(r["standard_s"]), times(r["speedup"])]


def codec_section(codecs, table):
    """The codec measurements as a table, or a line saying why there are none."""
    if codecs.get("status") == "ok":
        return table(CODEC_HEADERS, codec_rows(codecs))
    return "Codecs: %s (%s)" % (codecs.get("status", "not run"), codecs.get("reason", ""))


# ------------------------------------------------------------ the docs page ---

ROOT = Path(__file__).resolve().parent.parent
RESULTS = ROOT / "bench" / "results"
DOCS_PAGE = ROOT / "docs" / "benchmarks.md"
BEGIN = "<!-- results: written by `python bench/report.py` from bench/results/; do not edit by hand -->"
END = "<!-- end of results -->"


def results_block(latest, scale=None):
    """The results part of the benchmark page."""
    parts = [BEGIN, "", headline(latest), "", "### Operations (`bench/run.py`)", "", markdown(latest)]
    if scale:
        from scale import report as scale_report

        parts += [
            "",
            "### Growth with size and memory over many calls (`bench/scale.py`)",
            "",
            scale_report(scale["rows"], scale["memory"]),
        ]
    return "\n".join(parts + ["", END])


def headline(latest):
    """The one sentence on calibration parse speed, from the largest data set measured."""
    parses = [r for r in latest["operations"] if r["key"] == "cali_parse" and r["speedup_vs_python"]]
    if not parses:
        return "Calibration parse: not measured."
    r = parses[-1]
    return (
        "**Calibration parse** (%s data set): %s the pure-Python manager, %s `csv.reader` "
        "without number conversion." % (r["dataset"], times(r["speedup_vs_python"]), times(r["speedup_vs_stdlib"]))
    )


def read_results(folder=RESULTS):
    latest = json.loads((folder / "latest.json").read_text(encoding="utf-8"))
    scale_file = folder / "scale.json"
    scale = json.loads(scale_file.read_text(encoding="utf-8")) if scale_file.exists() else None
    return latest, scale


def update_docs_page(page=DOCS_PAGE, folder=RESULTS):
    """Replaces the results between the page's markers with the current ones."""
    text = page.read_text(encoding="utf-8")
    start, end = text.index(BEGIN), text.index(END) + len(END)
    page.write_text(text[:start] + results_block(*read_results(folder)) + text[end:], encoding="utf-8")


if __name__ == "__main__":
    update_docs_page()
    print("updated %s" % DOCS_PAGE)
