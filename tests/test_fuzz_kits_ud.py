"""Antenna kits and the UD delta table under damaged files and careless arguments.

Damaged kit and delta files are read side by side with the pure-Python peers kept
with the benchmarks, each in its own folder with the clock pinned: the verdicts,
the tables and the files left on disk (old custom kits are renamed) must agree.
"""
import csv
import io
import os

from hypothesis import assume, example, given, strategies as st

from aakit_samples import LITE, MOMENT, OFFICIAL, STAMP, kit_rows, pinned_clock
from fuzz_support import (assert_result, baseline_module, fuzz_settings, hang_watchdog, mutate, mutations,
                          outcome, same_json, values)
from vexcore.QRVPublic import RetCode

CUSTOM = "MyKit_" + STAMP
OLD_CUSTOM = "OldKit"


def csv_bytes(rows):
    out = io.StringIO()
    csv.writer(out).writerows(rows)
    return out.getvalue().encode()


KIT_FILES = {
    "AAKIT_%s.csv" % OFFICIAL: csv_bytes(kit_rows(OFFICIAL)),
    "AAKIT_%s.csv" % CUSTOM: csv_bytes(kit_rows(CUSTOM, kit_type=1)),
    "AAKIT_%s.csv" % OLD_CUSTOM: csv_bytes(kit_rows(OLD_CUSTOM, kit_type=1)),
}


KIT_ROWS = kit_rows(OFFICIAL)


def files_named(table):
    """The kits whose names can name a file: a name holding NUL is refused by our
    delete (the peer drops the entry before its file removal fails)."""
    return {name: record for name, record in table.items() if "\0" not in name}


def folder_contents(folder):
    return {p.name: p.read_bytes() for p in sorted(folder.iterdir())}


def parse_outcome(manager):
    kind, value = outcome(manager.parse)
    verdict = (kind, type(value)) if kind == "raised" else (kind, value.RetCode, value.RetMsg)
    return verdict


@fuzz_settings(150)
@example(target="AAKIT_QRVLAB-2x2_LITE_28_IDEAL.csv", total_ch=4,     # a limit read as NaN on both sides
         changes=[("insert", 256, b'"', 1), ("truncate", 124, b"\x00", 1), ("replace", 647226, b"nan", 1)])
@given(target=st.sampled_from(sorted(KIT_FILES)), changes=mutations, total_ch=st.sampled_from([4, 3, 5]))
def test_damaged_kit_file_reads_as_the_python_peer_reads_it(tm, tmp_path, monkeypatch, restore_module_globals,
                                                            target, changes, total_ch):
    peer_module = baseline_module("aakit")
    clock = pinned_clock(MOMENT)
    monkeypatch.setattr(tm, "datetime", clock)
    monkeypatch.setattr(peer_module, "datetime", clock)
    managers = {}
    for side, make in (("native", tm.AAKitTableManager), ("peer", peer_module.AAKitTableManager)):
        folder = tmp_path / side
        folder.mkdir(exist_ok=True)
        for old in folder.iterdir():
            old.unlink()
        for name, data in KIT_FILES.items():
            (folder / name).write_bytes(mutate(data, changes) if name == target else data)
        monkeypatch.setenv("VEXCORE_FILES_DIR", str(folder))
        managers[side] = make(LITE, total_ch, support_dev=[LITE])
    with hang_watchdog():
        native, peer = parse_outcome(managers["native"]), parse_outcome(managers["peer"])
    assert native == peer
    assert same_json(files_named(managers["native"]._AAKitTable), files_named(managers["peer"]._AAKitTable))
    native_files, peer_files = folder_contents(tmp_path / "native"), folder_contents(tmp_path / "peer")
    for name in set(peer_files) - set(native_files):
        # The peer writes in place and leaves a half-written file when a renamed
        # kit lacks a field; our save writes nothing then.
        assert peer_files.pop(name).count(b"\r\n") < len(KIT_ROWS)
    assert native_files == peer_files
    # Whatever was loaded can be listed, described and selected.
    kits = managers["native"]
    names = assert_result(kits.getAAKitList).RetData
    for name in names:
        assert assert_result(kits.getAAKitInfo, name).RetData is kits._AAKitTable[name]
        assert assert_result(kits._selectAAKit, name).RetCode == RetCode.OK


def outside_listing(files_dir):
    """Every path under the test's temporary folder that lies outside the files directory."""
    root = files_dir.parent
    return sorted(str(p) for p in root.rglob("*") if files_dir not in p.parents and p != files_dir)


@fuzz_settings(200)
@given(name=values, lists=st.lists(values, min_size=5, max_size=5), custom=values, new_name=values,
       check=values, context=values)
def test_careless_kit_edits_give_results_and_stay_in_the_files_directory(tm, files_dir, name, lists, custom,
                                                                         new_name, check, context):
    (files_dir / ("AAKIT_%s.csv" % OFFICIAL)).write_bytes(KIT_FILES["AAKIT_%s.csv" % OFFICIAL])
    before = outside_listing(files_dir)
    kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    with hang_watchdog():
        assert_result(kits.getAAKitList, check)
        # Wrong types for the name and the three two-value fields are refused on entry.
        assert_result(kits.setAAKitInfo, name, *lists, custom=custom, newKitName=new_name, allowed=(TypeError,))
        assert_result(kits.setAAKitInfo, name, [5.0, 5.0], [-45.0, 45.0], [0.0, 0.0], lists[3], lists[4],
                      allowed=(TypeError,))
        assert_result(kits.getAAKitInfo, name, check)
        # Unguarded, as in Python: an unhashable name, or one whose hash or text fails.
        assert_result(kits._selectAAKit, name, allowed=(TypeError, RuntimeError))
        assert_result(kits.saveAAKitFile, name, None, check, context)
        assert_result(kits.saveAAKitFile)
        assert_result(kits.deleteAAKitInfo, name, None, check)
        assert_result(kits.getAAKitList, True)
    assert outside_listing(files_dir) == before
    # A name that is not text cannot be joined to a stamp: the same TypeError as str + str.
    kind, full = outcome(kits.computeAAKitFullName, name)
    assert (kind == "result" and isinstance(full, str)) or isinstance(full, TypeError)


finite = st.floats(allow_nan=False, allow_infinity=False)
small_ints = st.integers(-(1 << 40), 1 << 40)


@fuzz_settings(100)
@given(pairs=st.lists(st.tuples(finite, finite), min_size=3, max_size=3),
       tx=st.lists(small_ints, min_size=4, max_size=4), rx=st.lists(small_ints, min_size=4, max_size=4),
       name=st.text(alphabet=st.characters(blacklist_categories=("Cs", "Cc")), min_size=1, max_size=12))
def test_a_saved_kit_reads_back_as_it_was_set(tm, files_dir, restore_module_globals, pairs, tx, rx, name):
    assume("/" not in name and "\\" not in name)
    tm.datetime = pinned_clock(MOMENT)
    for old in files_dir.iterdir():
        old.unlink()
    kits = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    spacing, steer_h, steer_v = ([float(a), float(b)] for a, b in pairs)
    full = kits.setAAKitInfo(name, spacing, steer_h, steer_v, tx, rx).RetData
    assert kits.saveAAKitFile(full).RetCode == RetCode.OK
    reread = tm.AAKitTableManager(LITE, 4, support_dev=[LITE])
    assert reread.parse().RetCode == RetCode.OK
    # The name row holds the whole name, so a name holding "+" or "," still reads back.
    assert reread._AAKitTable == {full: {"DEV_TYPE": LITE, "TYPE": 1, "SPACING": spacing, "STEERING_H": steer_h,
                                         "STEERING_V": steer_v, "OFFSET_TX": tx, "OFFSET_RX": rx}}


# ---------------------------------------------------------------- UD delta ---

UD_SN = "UD1234"


def utf8(data):
    try:
        data.decode("utf-8")
        return True
    except UnicodeDecodeError:
        return False


UD_FILE = b"UD1234\n# minimum LO/IF spacing\n300\n500\n"


@fuzz_settings(150)
@given(changes=mutations)
def test_damaged_delta_file_reads_as_the_python_peer_reads_it(tm, files_dir, changes):
    data = mutate(UD_FILE, changes)
    (files_dir / (UD_SN + ".csv")).write_bytes(data)
    native = tm.UDDeltaFreqTableManager(UD_SN)
    peer = baseline_module("ud").UDDeltaFreqTableManager(UD_SN)
    with hang_watchdog():
        got, expected = assert_result(native.parse), peer.parse()
    delta = native.getUDDeltaFreq().RetData
    if not utf8(data):
        # The file is decoded whole before any row is read, so no value is taken
        # from it; the peer's chunked reading may take values before the bad bytes.
        assert (got.RetCode, got.RetMsg, delta) == (RetCode.ERROR, "Exception while delta csv parsing", 0)
        assert expected.RetCode == RetCode.ERROR
        return
    assert same_json(delta, peer.getUDDeltaFreq().RetData)
    if (got.RetCode, expected.RetMsg, delta) == (RetCode.OK, "No delta freq info, skip it", 0):
        return      # a file whose last value is 0: we count it as a value, the peer as none
    assert (got.RetCode, got.RetMsg) == (expected.RetCode, expected.RetMsg)


@fuzz_settings(150)
@given(sn=values)
def test_any_serial_number_gives_a_delta_result(tm, files_dir, sn):
    (files_dir / (UD_SN + ".csv")).write_bytes(UD_FILE)
    before = outside_listing(files_dir)
    kind, manager = outcome(tm.UDDeltaFreqTableManager, sn)
    assert kind == "result"
    with hang_watchdog():
        ret = assert_result(manager.parse)
        assert assert_result(manager.getUDDeltaFreq).RetData in (0, 500)
    assert ret.RetCode in (RetCode.OK, RetCode.WARNING, RetCode.ERROR)
    assert outside_listing(files_dir) == before
    assert os.path.exists(files_dir / (UD_SN + ".csv"))
