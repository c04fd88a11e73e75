"""Compares two builds of the module from results files of bench/run.py or bench/micro.py.

    python bench/compare.py OLD.json NEW.json [OLD2.json NEW2.json ...]

Each build is measured beside the same pure-Python peer in its own run, so the peer's
time is the yardstick that absorbs a busier or quieter machine between the runs. For
every operation the table gives the module's time in NEW over its time in OLD, raw and
as measured against the peer (module/peer in NEW over module/peer in OLD); below 1 is
faster. With several pairs (runs taken alternately) each cell is the median over pairs.
The last line is the geometric mean of the peer-relative column.
"""

import json
import math
import statistics
import sys


def module_and_peer(path):
    """Operation name -> (module seconds, peer seconds) of one results file."""
    with open(path) as f:
        data = json.load(f)
    if "calls" in data:  # bench/micro.py
        return {c["title"]: (c["module_s"], c["python_s"]) for c in data["calls"]}
    timings = {}
    for op in data["operations"]:
        sides = op["sides"]
        module, python = sides.get("module", {}), sides.get("python", {})
        if module.get("status") == "ok" and python.get("status") == "ok":
            timings[f"{op['title']} ({op['dataset']})"] = (module["median_s"], python["median_s"])
    return timings


def compare(pairs):
    runs = [(module_and_peer(old), module_and_peer(new)) for old, new in pairs]
    names = [name for name in runs[0][0] if all(name in old and name in new for old, new in runs)]
    rows = []
    for name in names:
        raw = [new[name][0] / old[name][0] for old, new in runs]
        relative = [(new[name][0] / new[name][1]) / (old[name][0] / old[name][1]) for old, new in runs]
        rows.append((name, statistics.median(raw), statistics.median(relative)))
    return rows


def main(argv):
    if len(argv) < 2 or len(argv) % 2:
        sys.exit(__doc__)
    rows = compare(list(zip(argv[0::2], argv[1::2])))
    width = max(len(name) for name, _, _ in rows)
    print(f"{'operation':<{width}}  new/old  new/old against the peer")
    for name, raw, relative in rows:
        print(f"{name:<{width}}  {raw:7.3f}  {relative:7.3f}")
    geometric = math.exp(statistics.mean(math.log(relative) for _, _, relative in rows))
    print(f"{'geometric mean':<{width}}           {geometric:7.3f}")


if __name__ == "__main__":
    main(sys.argv[1:])
