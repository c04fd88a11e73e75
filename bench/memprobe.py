"""Peak memory of one side of one operation, measured in a fresh process.

The parent runs: python bench/memprobe.py WORKSPACE OPERATION SIDE, and reads one JSON
object from the last line of standard output. The child sets the side up (for a save,
that loads the table first), resets the kernel's resident-set high-water mark, makes the
one call, and reports how far the resident set rose above where it stood before the
call. That counts every byte the call touched, whether Python or C++ allocated it, which
tracemalloc (Python allocations only) could not.

Where the high-water mark cannot be reset, the child falls back to ru_maxrss, which is
only right when the call is the process's biggest moment; the result says which method
was used.
"""

import gc
import json
import resource
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

from harness import failure_status, missing_names  # noqa: E402
from operations import Workspace, build_operations  # noqa: E402

import vexcore.qrvdev.QRVTableManager as tm  # noqa: E402

KIB = 1024


def status_kib(field):
    with open("/proc/self/status") as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    raise KeyError(field)


def reset_high_water_mark():
    try:
        with open("/proc/self/clear_refs", "w") as f:
            f.write("5")
        return True
    except OSError:
        return False


def peak_of(call, context):
    """(bytes the resident set rose to above its level before the call, method used)."""
    gc.collect()
    before = status_kib("VmRSS")
    if reset_high_water_mark():
        call(context)
        return (status_kib("VmHWM") - before) * KIB, "VmHWM after clear_refs"
    maxrss_before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    call(context)
    maxrss_after = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    return (max(maxrss_after, maxrss_before) - before) * KIB, "ru_maxrss"


def probe(workspace, op_key, side_kind):
    op = build_operations(Workspace(workspace), tm, only={op_key})[0]
    side = next(s for s in op.sides if s.kind == side_kind)
    missing = missing_names(tm, side.requires)
    if missing:
        return {"status": "not available", "reason": "the module does not define " + ", ".join(missing)}
    try:
        context = side.setup()
        if side.reset:
            side.reset(context)
        peak, method = peak_of(side.call, context)
    except Exception as error:
        return {"status": failure_status(side, error), "reason": "%s: %s" % (type(error).__name__, error)}
    return {"status": "ok", "peak_bytes": peak, "method": method}


def main(argv):
    workspace, op_key, side_kind = argv
    print(json.dumps(probe(workspace, op_key, side_kind)))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
