"""Antenna kits and the UD delta table under damaged files and careless arguments.

Damaged kit and delta files are read side by side with the pure-Python peers kept
with the benchmarks, each in its own folder with the clock pinned: the verdicts,
the tables and the files left on disk (old custom kits are renamed) must agree.
"""
import csv
import io
import os

from aakit_samples import LITE, MOMENT, OFFICIAL, STAMP, kit_rows, pinned_clock
from fuzz_support import (
    assert_result,
    baseline_module,
    folder_contents,
    fuzz_settings,
    hang_watchdog,
    mutate,
    mutations,
    outcome,
    outside_listing,
    same_json,
    side_by_side,
    values,
    verdict,
)
from hypothesis import example, given
from hypothesis import strategies as st

from vexcore.QRVPublic import RetCode


def csv_bytes(rows):
    out = io.StringIO()
    csv.writer(out).writerows(rows)
    return out.getvalue().encode()


KIT_FILES = {"AAKIT_%s.csv" % name: csv_bytes(kit_rows(name, kit_type=kit_type))
             for name, kit_type in ((OFFICIAL, 0), ("MyKit_" + STAMP, 1), ("OldKit", 1))}
UD_SN = "UD1234"
UD_FILE = b"UD1234\n# minimum LO/IF spacing\n300\n500\n"


def migrating_from_the_file_read(peer_class):
    """The peer with our one deliberate difference in renaming: a kit migrated from a
    file named after another kit removes the file it was read from, never the file
    named after that other kit."""
    class Peer(peer_class):
        _reading = None

        def _AAKitTableManager__accept(self, path, name, record):
            self._reading = path
            try:
                return peer_class._AAKitTableManager__accept(self, path, name, record)
            finally:
                self._reading = None

        def deleteAAKitInfo(self, kitName, callback=None, check=True):
            named = self._AAKitTableManager__defaultDir / ("AAKIT_" + kitName + ".csv")
            if self._reading is None or (named.exists() and os.path.samefile(named, self._reading)):
                return super().deleteAAKitInfo(kitName, callback, check)
            del self._AAKitTable[kitName]
            os.unlink(self._reading)
            return peer_module.RetType()

    peer_module = baseline_module("aakit")
    return Peer


@fuzz_settings(150)
@example(target="AAKIT_QRVLAB-2x2_LITE_28_IDEAL.csv", total_ch=4,     # a limit read as NaN on both sides
         changes=[("insert", 256, b'"', 1), ("truncate", 124, b"\x00", 1), ("replace", 647226, b"nan", 1)])
@given(target=st.sampled_from(sorted(KIT_FILES)), changes=mutations, total_ch=st.sampled_from([4, 3, 5]))
def test_damaged_kit_file_reads_as_the_python_peer_reads_it(tm, tmp_path, monkeypatch, restore_module_globals,
                                                            target, changes, total_ch):
    peer_module = baseline_module("aakit")
    monkeypatch.setattr(tm, "datetime", pinned_clock(MOMENT))
    monkeypatch.setattr(peer_module, "datetime", pinned_clock(MOMENT))
    damaged = mutate(KIT_FILES[target], changes)
    classes = tm.AAKitTableManager, migrating_from_the_file_read(peer_module.AAKitTableManager)
    native, peer = side_by_side(tmp_path, monkeypatch, {**KIT_FILES, target: damaged}, classes, LITE, total_ch,
                                support_dev=[LITE])
    with hang_watchdog():
        assert verdict(*outcome(native.parse)) == verdict(*outcome(peer.parse))
    # A name holding NUL cannot name a file: our delete refuses it, while the
    # peer drops the entry before its file removal fails.
    native_table, peer_table = ({name: kit for name, kit in k._AAKitTable.items() if "\0" not in name} for k in (native, peer))
    native_files, peer_files = folder_contents(tmp_path / "native"), folder_contents(tmp_path / "peer")
    # A migrated kit that lacks a field cannot be saved under its new name. The peer
    # deletes the old file first (the kit is lost) and leaves a half-written new one;
    # ours refuses before anything changes: the damaged file stays as it was and
    # the kit stays loaded under its old name as well.
    for name in set(peer_files) - set(native_files):
        assert peer_files.pop(name).count(b"\r\n") < len(kit_rows(OFFICIAL))
    kept_files = set(native_files) - set(peer_files)
    kept_names = set(native_table) - set(peer_table)
    assert kept_files <= {target} and len(kept_names) == len(kept_files)
    for name in kept_files:
        assert native_files.pop(name) == damaged
        native_table.pop(kept_names.pop())
    assert same_json(native_table, peer_table)
    assert native_files == peer_files
    # Whatever was loaded can be listed, described and selected.
    for name in assert_result(native.getAAKitList).RetData:
        assert native.getAAKitInfo(name).RetData is native._AAKitTable[name]
        assert native._selectAAKit(name).RetCode == RetCode.OK


@fuzz_settings(200)
@given(name=values, lists=st.lists(values, min_size=5, max_size=5), custom=values, new_name=values,
       check=values, context=values)
def test_careless_names_and_kit_edits_give_results_and_stay_in_the_files_directory(tm, files_dir, name, lists,
                                                                                 custom, new_name, check, context):
    (files_dir / ("AAKIT_%s.csv" % OFFICIAL)).write_bytes(KIT_FILES["AAKIT_%s.csv" % OFFICIAL])
    (files_dir / (UD_SN + ".csv")).write_bytes(UD_FILE)
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
        # The same name as a UD serial number: a result, never a file outside the folder.
        kind, ud = outcome(tm.UDDeltaFreqTableManager, name)
        assert kind == "result" and assert_result(ud.parse).RetCode in (RetCode.OK, RetCode.WARNING, RetCode.ERROR)
        assert assert_result(ud.getUDDeltaFreq).RetData in (0, 500)
    assert outside_listing(files_dir) == before and (files_dir / (UD_SN + ".csv")).exists()
    # A name that is not text cannot be joined to a stamp: the same TypeError as str + str.
    kind, full = outcome(kits.computeAAKitFullName, name)
    assert (kind == "result" and isinstance(full, str)) or isinstance(full, TypeError)


# ---------------------------------------------------------------- UD delta ---

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
    if data != data.decode("utf-8", "replace").encode():
        # The file is decoded whole before any row is read, so no value is taken
        # from it; the peer's chunked reading may take values before the bad bytes.
        assert (got.RetCode, got.RetMsg, delta) == (RetCode.ERROR, "Exception while delta csv parsing", 0)
        assert expected.RetCode == RetCode.ERROR
        return
    assert same_json(delta, peer.getUDDeltaFreq().RetData)
    if (got.RetCode, expected.RetMsg, delta) != (RetCode.OK, "No delta freq info, skip it", 0):
        # Only a file whose last value is 0 differs: we count it as a value, the peer as none.
        assert (got.RetCode, got.RetMsg) == (expected.RetCode, expected.RetMsg)
