"""Sample antenna kits for the kit tests: rows, files and a clock that can be pinned."""
import csv
import datetime as _dt

# A 4-channel kit as the kit file stores it, one row per field.
OFFICIAL = "QRVLAB-2x2_LITE_28_IDEAL"
LITE = 12


def kit_rows(name, dev_type=LITE, kit_type=0, tx=(0, 1, 2, 3), rx=(3, 2, 1, 0),
             spacing=("5", "5"), steer_h=("-45", "45"), steer_v=("-30", "30")):
    rows = [["AAKIT_NAME", name]]
    if dev_type is not None:
        rows.append(["DEV_TYPE", dev_type])
    if kit_type is not None:
        rows.append(["TYPE", kit_type])
    rows += [["SPACING", *spacing], ["STEERING_H", *steer_h], ["STEERING_V", *steer_v],
             ["OFFSET_TX", *tx], ["OFFSET_RX", *rx]]
    return rows


def write_rows(path, rows):
    """Writes the rows as csv.writer does; bytes are written as they are."""
    if isinstance(rows, bytes):
        path.write_bytes(rows)
        return path
    with open(path, "w", newline="", encoding="utf-8") as f:
        csv.writer(f).writerows(rows)
    return path


def write_kit(directory, name, file_stem=None, **fields):
    """Writes AAKIT_<file_stem or name>.csv and returns its path."""
    return write_rows(directory / ("AAKIT_%s.csv" % (file_stem or name)), kit_rows(name, **fields))


def record(dev_type=LITE, kit_type=0, tx=(0, 1, 2, 3), rx=(3, 2, 1, 0)):
    """The record the parser makes of kit_rows() with the same arguments."""
    return {"DEV_TYPE": dev_type, "TYPE": kit_type, "SPACING": [5.0, 5.0], "STEERING_H": [-45.0, 45.0],
            "STEERING_V": [-30.0, 30.0], "OFFSET_TX": list(tx), "OFFSET_RX": list(rx)}


def pinned_clock(*moments):
    """A datetime class whose now() returns the given aware moments in turn (the last one repeats).

    astimezone() keeps the moment's own zone, so names do not depend on the machine's zone.
    """
    queue = list(moments)

    class Pinned(_dt.datetime):
        @classmethod
        def now(cls, tz=None):
            moment = queue.pop(0) if len(queue) > 1 else queue[0]
            return cls.combine(moment.date(), moment.timetz())

        def astimezone(self, tz=None):
            return self

    return Pinned


def zone(hours, minutes=0):
    return _dt.timezone(_dt.timedelta(hours=hours, minutes=minutes))


MOMENT = _dt.datetime(2024, 3, 1, 12, 30, 45, 123456, tzinfo=zone(8))
STAMP = "2024030112304512+0800"
