"""The tables under damaged files, random operation sequences, careless arguments and
odd service replies.

Damaged and oddly quoted files, and beam operation sequences, run side by side with the
pure-Python peers kept with the benchmarks, beam and kit tables each in its own folder
(kits with the clock pinned): verdicts, tables, exports, the queries that follow and the
files left on disk (old custom kits are renamed) must agree. Anything else must still
give a result, or only the exception its contract lets out, and never leave the files
directory.
"""
import copy
import csv
import io
import itertools
import json
import math
import os
import sys
import types

import pytest
from aakit_samples import LITE, MOMENT, OFFICIAL, STAMP, kit_rows, pinned_clock
from beam_helpers import COMDR, DR, ELEDR, SN, channel_beam, steered_beam
from calibration_sample import make_sample
from fuzz_support import (
    assert_result,
    baseline_module,
    beyond_any_device,
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
from hypothesis import assume, example, given
from hypothesis import strategies as st

from vexcore.QRVPublic import BeamType, RetCode, RFMode
from vexcore.QRVUtils import RetType

# ------------------------------------------------------ calibration ---

SAMPLE = make_sample(boards=2, ics=1, channels=4, arms=1, seed=11)
SAMPLE_TEXT = SAMPLE.text().encode()
QUERIES = (("getDR", ()), ("getDR", (RFMode.TX,)), ("getDR", (1,)), ("getCOMDR", ()), ("getELEDR", ()), ("_getTC", ()))
layouts = st.sampled_from([(2, 1, 4), (1, 1, 4), (2, 2, 2), (3, 1, 4), (2, 1, 1), (4, 0, 4), (3, -1, 4)])


def write_table(folder, data):
    path = folder / (SN + "_28.0GHz.csv")
    path.write_bytes(data)
    return path


def parse_and_export(manager, path, export):
    """The parse result and the bytes of the export it wrote (None when it wrote none)."""
    exported = path.with_suffix(".json")
    exported.unlink(missing_ok=True)
    ret = assert_result(manager.parse, exportToJson=export)
    return ret, exported.read_bytes() if exported.exists() else None


def query_outcome(manager, name, args):
    kind, value = outcome(getattr(manager, name), *args)
    if kind == "raised":
        return "raised", type(value)
    return ("result", value.RetCode, value.RetData) if hasattr(value, "RetCode") else ("value", value)


def assert_parsed_like_the_peer(tm, path, layout, export=False):
    """The module and the peer parse the file at `path`: verdicts, tables and exports
    must agree. Both managers are returned for the queries that follow."""
    native = tm.CalibrationTableManager(SN, 28, lambda: layout)
    peer = baseline_module("calibration").CalibrationTableManager(SN, 28, lambda: layout)
    with hang_watchdog():
        (got, got_export), (expected, expected_export) = (parse_and_export(m, path, export) for m in (native, peer))
    assert (got.RetCode, got.RetMsg) == (expected.RetCode, expected.RetMsg)
    # After an exception part way through a row, how much of that row was stored
    # is nobody's promise (the peer converts a chip's values before inserting
    # them; we make the board first); every other verdict must leave equal tables.
    if got.RetMsg != "parse exception":
        assert same_json(native._CaliTable, peer._CaliTable)
        assert got_export == expected_export
    return native, peer


@fuzz_settings(150)
@given(changes=mutations, layout=layouts, export=st.booleans(), raw=st.booleans())
def test_damaged_file_reads_and_exports_as_the_python_peer_does(tm, files_dir, changes, layout, export, raw):
    data = mutate(SAMPLE_TEXT, changes)
    # Unless raw, decoded with replacement so that both read the same text (the
    # peer reads line by line and would never reach a bad byte after END).
    text = data.decode("utf-8", "replace").encode()
    path = write_table(files_dir, data if raw else text)
    if raw and data != text:
        # The whole file is decoded before a row is read: a bad byte anywhere refuses it.
        manager = tm.CalibrationTableManager(SN, 28, lambda: layout)
        with hang_watchdog():
            got, got_export = parse_and_export(manager, path, export)
        assert (got.RetCode, got.RetMsg) == (RetCode.ERROR_BF_CALI_PARSE, "parse exception")
        assert got_export is None or same_json(json.loads(got_export), manager._CaliTable)
        return
    manager, peer = assert_parsed_like_the_peer(tm, path, layout, export)
    for name, args in QUERIES:
        mine, theirs = query_outcome(manager, name, args), query_outcome(peer, name, args)
        if theirs[0] == "raised" and theirs[1] is not KeyError and name != "_getTC":
            # The peer lets it escape; the manager turns it into an ERROR result.
            assert mine[:2] == ("result", RetCode.ERROR), (name, args, mine, theirs)
        else:
            assert mine == theirs or repr(mine) == repr(theirs), (name, args, mine, theirs)


# (row index, cell index, new text): cells of a sample replaced by awkward text.
EDITED = make_sample(arms=2, seed=3)
cell_text = st.text(alphabet=[",", '"', "\0", " ", "\r", "\n", "x", "1", "-", ".", "5", "é", "_"], max_size=8)
edits = st.lists(st.tuples(st.integers(0, len(EDITED.rows) - 1), st.integers(0, 12), cell_text), max_size=6)


@fuzz_settings(240)
@given(changes=edits, writing=st.sampled_from(["csv \n", "csv \r\n", "plain"]))
def test_quoted_unquoted_and_damaged_cells_read_as_csv_reader_reads_them(tm, files_dir, changes, writing):
    rows = [list(r) for r in EDITED.rows]
    for row, at, text in changes:
        if rows[row]:
            rows[row][min(at, len(rows[row]) - 1)] = text
    out = io.StringIO()
    if writing == "plain":          # joined by hand: quotes and line breaks inside cells reach the reader raw
        out.writelines(",".join(row) + "\n" for row in rows)
    else:
        csv.writer(out, lineterminator=writing[4:]).writerows(rows)
    assert_parsed_like_the_peer(tm, write_table(files_dir, out.getvalue().encode()), (4, 1, 4))


@fuzz_settings(40)
@given(order=st.permutations(range(32)), gain_spelling=st.sampled_from(["%d", "%d.0", "%d.4", " %d"]))
def test_data_blocks_in_any_order_and_spelling(tm, files_dir, order, gain_spelling):
    # The same entries listed in another order, and gains spelled differently, in
    # the second common-arm block of every chip.
    rows, block = [], []
    for row in EDITED.rows:
        if row[:1] == ["DATA"] and row[6] == "2":
            block.append(row)
            if len(block) == 32:
                rows += [r[:8] + [gain_spelling % int(float(r[8]))] + r[9:] for r in (block[i] for i in order)]
                block = []
        else:
            rows.append(row)
    text = "".join(",".join(r) + "\n" for r in rows)
    assert_parsed_like_the_peer(tm, write_table(files_dir, text.encode()), (4, 1, 4))


@fuzz_settings(150)
@given(changes=mutations)
def test_damaged_json_export_loads_exactly_as_json_load_would(tm, files_dir, changes):
    text = json.dumps(SAMPLE.expected, ensure_ascii=False, indent=4).encode()
    path = files_dir / (SN + "_28.0GHz.json")
    path.write_bytes(mutate(text, changes))
    try:
        with open(path, encoding="utf-8") as f:
            expected = json.load(f)
    except ValueError:
        expected = None
    manager = tm.CalibrationTableManager(SN, 28, lambda: (2, 1, 4))
    with hang_watchdog():
        ret = assert_result(manager.parseRawJson)
    if expected is None:
        assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_CALI_PARSE, "cali file error")
    else:
        assert ret.RetCode == RetCode.OK and manager._CaliTable == expected
        assert_result(manager.getCOMDR, allowed=(KeyError,))


service_replies = st.one_of(
    values,
    st.fixed_dictionaries({"code": st.sampled_from([0, 1, "0", None, 0.0]), "data": values, "message": values}),
    st.fixed_dictionaries({"code": st.just(0), "data": st.dictionaries(
        st.sampled_from(["query-0", "query-1", "query-2", "query-x", "TX.COMDR", "RX.ELEDR", "x"]), values)}),
    st.dictionaries(st.sampled_from(["code", "data", "message"]), values))


@fuzz_settings(600)
@given(sn=values, freq=values, fetch=st.booleans(), args=st.lists(values, max_size=3),
       layout=st.one_of(st.just((4, 1, 4)), values, st.tuples(values, values, values)),
       mode=st.one_of(st.sampled_from(["file", "dual polarization"]), st.lists(service_replies, min_size=1, max_size=6)))
def test_careless_arguments_and_any_service_reply_give_results(tm, files_dir, monkeypatch, sn, freq, fetch, args,
                                                               layout, mode):
    assume(not beyond_any_device(layout))
    write_table(files_dir, SAMPLE_TEXT)
    web = isinstance(mode, list)        # web mode, against a service giving these replies in turn
    if web:
        answers = itertools.cycle(mode)
        service = types.ModuleType("vexcore.db.QRVDBQueryer")
        service.DBQueryer = lambda table: types.SimpleNamespace(queryDB=lambda payload, queryCmd=None: next(answers))
        monkeypatch.setitem(sys.modules, "vexcore.db.QRVDBQueryer", service)
    with hang_watchdog():
        # Construction may refuse what it cannot use (a layout that does not unpack,
        # a serial number that cannot form a pattern), but only with an ordinary error.
        kind, manager = outcome(tm.CalibrationTableManager, sn, freq, lambda: layout, mode == "dual polarization",
                                "client" if web else None, fetch)
        assume(kind == "result")
        # Only a missing key escapes: the table's from a query, a reply's (as the adapter lets it through) from any call.
        first = args[0] if args else None
        assert_result(manager.parse, *args[:3], allowed=(KeyError,) if web else ())
        assert_result(manager.parse, None, first, allowed=(KeyError,) if web else ())
        assert_result(manager.checkCaliTableLocation)
        # A failed search, or in web mode a failure other than the database's own,
        # escapes as the AttributeError of reading `e.ret`.
        assert_result(manager.getFrequencyList, first, allowed=(AttributeError,))
        assert_result(manager.queryCaliTableVer)
        assert_result(manager.parseRawJson)
        assert_result(manager.getDR, first, allowed=(KeyError,))
        assert_result(manager.getDR, RFMode.TX, allowed=(KeyError,))
        assert_result(manager.getCOMDR, allowed=(KeyError,))
        assert_result(manager.getELEDR, allowed=(KeyError,))
        outcome(manager._getTC)


def test_a_layout_without_chips_stores_no_offsets_however_many_boards(tm, files_dir):
    # Nothing can be stored without chips, so the boards are not walked at all:
    # walking 2**40 of them would never end.
    write_table(files_dir, SAMPLE_TEXT)
    manager = tm.CalibrationTableManager(SN, 28, lambda: (1 << 40, 0, 4))
    with hang_watchdog(120):
        assert manager.parse().RetCode == RetCode.OK
    boards = {key: value for key, value in manager._CaliTable.items() if key.startswith("BOARD_")}
    assert sorted(boards) == ["BOARD_1", "BOARD_2"]
    assert not any(key.startswith("OFFSET_CHIP_") for board in boards.values() for key in board["TX"])


# ------------------------------------------------------ beams: hooks ---

KIT = "AAKIT_TEST-4x4_28"
NUM_BEAM = 4
LAYOUT = (4, 1, 4)


def number(value):
    return isinstance(value, (int, float)) and not isinstance(value, bool)


def ic_gain_check(mode, board, gains, common):
    """Accepts gains up to 10 dB; refuses text, null and larger gains."""
    if all(number(g) and g <= 10 for g in gains):
        return RetType(data=gains)
    return RetType(RetCode.ERROR, "gain out of range")


def beam_check(mode, db, theta, phi, extra):
    """Refuses steering beyond 60 degrees, clips phi to 90 degrees."""
    if number(theta) and abs(theta) > 60:
        return RetType(RetCode.ERROR, "steering out of range")
    return RetType(data=(db, theta, min(phi, 90) if number(phi) else phi))


HOOKS = (beam_check, ic_gain_check)


# ------------------------------------------------------ beams: files ---

def current_table(version="v2.0.0"):
    return {"VERSION": version, "SN": SN, "DEV_TYPE": 7, "FREQ": 28.0, "AAKIT_NAME": KIT,
            "TX": {"1": steered_beam(description="Boresight ✓"), "3": channel_beam(db=2.5)},
            "RX": {"2": channel_beam(db=-1.0, description="")}}


def old_table():
    def channels(db):
        return [{"channel": ch, "sw": ch % 2, "db": db + ch / 4, "deg": 10 * ch} for ch in range(1, 17)]
    return {"version": "v1.0.0",
            "TX_beam_list": [{"beamId": 1, "beam_type": 1, "beam_description": "old", "db": 1.0, "theta": 5,
                              "phi": 0, "channel_switch": 1, "channel_config": channels(1.0)},
                             {"beamId": 2, "beam_type": 0, "db": 3.0, "theta": 10, "phi": 20,
                              "beam_config": {"db": 3.0, "theta": 10, "phi": 20}}],
            "RX_beam_list": [{"beamId": 4, "beam_type": None, "db": 0.0, "theta": 0, "phi": 0}]}


BASE_FILES = {name: json.dumps(table, ensure_ascii=False, indent=2).encode()
              for name, table in (("current", current_table()), ("v1.5", current_table("v1.5.0")),
                                  ("old", old_table()))}


def file_name(kit):
    return "Beam_Configuration_%s_28GHz%s.json" % (SN, "_" + kit if kit else "")


def pair_of_managers(tm, tmp_path, monkeypatch, files):
    """(native, peer) managers, each over its own files folder holding `files`."""
    classes = tm.BeamPatternTableManager, baseline_module("beam").BeamPatternTableManager
    managers = side_by_side(tmp_path, monkeypatch, files, classes, SN, 7, NUM_BEAM, LAYOUT, HOOKS, subfolder="BeamTable")
    for manager in managers:
        manager._updateFreq(28.0, DR, COMDR, ELEDR)
    return managers


@fuzz_settings(150)
@given(base=st.sampled_from(sorted(BASE_FILES)), kit=st.sampled_from(["", KIT]), changes=mutations)
@example(base="current", kit="", changes=[("insert", 16, b"\\ud800", 1)])      # an upgrade that cannot be saved
def test_damaged_beam_file_loads_as_the_python_peer_loads_it(tm, tmp_path, monkeypatch, base, kit, changes):
    data = mutate(BASE_FILES[base], changes)
    native, peer = pair_of_managers(tm, tmp_path, monkeypatch, files={file_name(kit): data})
    with hang_watchdog():
        got = assert_result(native._load, 28.0, kit)
        expected = peer._load(28.0, kit)
    assert (got.RetCode, got.RetMsg) == (expected.RetCode, expected.RetMsg)
    assert same_json(native._BeamTable, peer._BeamTable)
    native_files = folder_contents(tmp_path / "native" / "BeamTable")
    peer_files = folder_contents(tmp_path / "peer" / "BeamTable")
    for name in [n for n in native_files if native_files[n] != peer_files.get(n)]:
        # An upgrade re-save that cannot be written (a lone surrogate read from
        # an escape) leaves the peer's file half-written and ours as it was.
        assert native_files.pop(name) == data
        with pytest.raises(ValueError):
            json.loads(peer_files.pop(name).decode("utf-8"))
    assert native_files == peer_files


# ---------------------------------------- beams: operation sequences ---

gains = st.one_of(st.floats(-20, 20), st.integers(-20, 20), st.sampled_from([None, "3", math.nan, 10, 10.5]))
channel_entry = st.one_of(st.fixed_dictionaries({"sw": st.sampled_from([0, 1]), "db": gains,
                                                 "deg": st.integers(0, 360)}),
                          st.dictionaries(st.sampled_from(["sw", "db", "deg"]), gains, max_size=3))
board_entry = st.dictionaries(st.sampled_from(["common_db", "channel_1", "channel_2", "channel_4", "channel_5", "x"]),
                              st.one_of(channel_entry, gains), max_size=4)
channel_config = st.dictionaries(st.sampled_from(["board_1", "board_2", "board_4", "board_5", "x"]), board_entry,
                                 max_size=3)
steering = st.one_of(st.fixed_dictionaries({"db": gains, "theta": st.integers(-90, 90),
                                            "phi": st.integers(-180, 180)}),
                     st.dictionaries(st.sampled_from(["db", "theta", "phi"]), st.integers(-90, 90), max_size=3))
beam_types = st.sampled_from([0, 1, BeamType.BEAM, BeamType.CHANNEL, 2, -1])
modes = st.sampled_from([0, 1, RFMode.TX, RFMode.RX, 2, -1])
beam_ids = st.sampled_from([-1, 0, 1, 2, 3, NUM_BEAM, NUM_BEAM + 1])


texts = st.sampled_from(["", "beam ✓", "x" * 40])
# A batch beam is steered only when it says so; without a type it is a channel beam.
batch_beams = st.one_of(
    st.fixed_dictionaries({"beam_type": st.just(0), "beam_config": steering}, optional={"beam_description": texts}),
    st.fixed_dictionaries({"channel_config": channel_config},
                          optional={"beam_type": st.just(1), "beam_description": texts}))
batches = st.dictionaries(st.sampled_from(["TX", "RX", "tx", "XX"]),
                          st.dictionaries(st.sampled_from(["1", "2", "3", "0", "9"]), batch_beams, max_size=3),
                          max_size=2)

operations = st.one_of(
    st.tuples(st.just("getBeamPattern"), modes, beam_ids),
    st.tuples(st.just("setBeamPattern"), modes, beam_ids, beam_types, st.one_of(st.none(), channel_config, steering),
              st.one_of(st.none(), texts), st.booleans()),
    st.tuples(st.just("_getBatchBeamPattern"), st.sampled_from([1, 2, 3, 0, 4])),
    st.tuples(st.just("_setBatchBeamPattern"), batches, st.sampled_from([1, 2, 3, 4, 5, 8, 12, 13, 15, 0, 16])),
    st.tuples(st.just("_saveToBeamTableFile")),
    st.tuples(st.just("_load"), st.just(28.0), st.sampled_from(["", KIT])),
    st.tuples(st.just("getBeamIdStorage")),
)


def run(manager, operation):
    name, *args = operation
    # Each side gets its own copy of the arguments: a set stores them in its table.
    args = copy.deepcopy(args)
    return outcome(getattr(manager, name), *args)


@fuzz_settings(120)
@given(steps=st.lists(operations, min_size=1, max_size=12), kit=st.sampled_from(["", KIT]))
def test_random_operations_agree_with_the_python_peer(tm, tmp_path, monkeypatch, steps, kit):
    native, peer = pair_of_managers(tm, tmp_path, monkeypatch, files={file_name(KIT): BASE_FILES["current"]})
    with hang_watchdog():
        assert native._load(28.0, kit).RetCode == peer._load(28.0, kit).RetCode == RetCode.OK
        for step in steps:
            got, expected = run(native, step), run(peer, step)
            assert got[0] == "result", (step, got)
            if expected[0] == "raised":
                # The peer lets a bad filter or option escape; the manager reports it.
                assert (got[1].RetCode, got[1].RetMsg[-9:]) == (RetCode.ERROR_BF_BEAM, "exception"), step
                continue
            assert verdict(*got) == verdict(*expected), step
            assert same_json(got[1].RetData, expected[1].RetData), step
    assert same_json(native._BeamTable, peer._BeamTable)
    assert folder_contents(tmp_path / "native" / "BeamTable") == folder_contents(tmp_path / "peer" / "BeamTable")


# ------------------------------------------- beams: careless callers ---

good_setups = st.tuples(st.just(NUM_BEAM), st.sampled_from([LAYOUT, (2, 1, 2), (1, 2, 1)]), st.just(HOOKS))
careless_setups = st.tuples(values, st.one_of(values, st.tuples(values, values, values)), values)


@fuzz_settings(200)
@given(args=st.lists(values, min_size=6, max_size=6), limits=st.lists(values, min_size=3, max_size=3),
       setup=st.one_of(good_setups, careless_setups))
def test_careless_beam_arguments_construct_or_give_results(tm, files_dir, args, limits, setup):
    num_beam, layout, hooks = setup
    assume(not beyond_any_device(layout))
    before = outside_listing(files_dir)
    # Construction may refuse what it cannot use, but only with an ordinary error.
    kind, manager = outcome(tm.BeamPatternTableManager, SN, 7, num_beam, layout, hooks)
    assume(kind == "result")
    a, b, c, d, e, f = args
    with hang_watchdog():
        manager._updateFreq(28.0, *limits)
        assert_result(manager._load, 28.0, "")
        manager._updateFreq(28.0, DR, COMDR, ELEDR)
        assert_result(manager._load, 28.0, KIT)
        assert_result(manager._load, a, b)
        assert_result(manager._load, 28.0, KIT)
        assert_result(manager.getBeamIdStorage)
        assert_result(manager.getBeamPattern, a, b)
        assert_result(manager.setBeamPattern, a, b, c, d, e, f)
        assert_result(manager.setBeamPattern, RFMode.TX, 1, c, d, e, False)
        assert_result(manager.setBeamPattern, RFMode.RX, 2, BeamType.CHANNEL,
                      {"board_1": a, "board_2": {"channel_1": b}})
        assert_result(manager._getBatchBeamPattern, a)
        assert_result(manager._setBatchBeamPattern, {"TX": {"1": a}, "RX": b}, c)
        assert_result(manager._setBatchBeamPattern, a, b)
        assert_result(manager._saveToBeamTableFile, None, d)
        assert_result(manager._saveToBeamTableFile)
        # Whatever happened, a fresh load of the current table works again.
        manager._updateFreq(28.0, DR, COMDR, ELEDR)
        assert assert_result(manager._load, 28.0, KIT).RetCode in (RetCode.OK, RetCode.ERROR_BF_BEAM)
    assert outside_listing(files_dir) == before


# ------------------------------------------------------------- kits ---

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
            if self._reading is None or (os.path.exists(named) and os.path.samefile(named, self._reading)):
                return super().deleteAAKitInfo(kitName, callback, check)
            del self._AAKitTable[kitName]
            os.unlink(self._reading)
            return peer_module.RetType()

    peer_module = baseline_module("aakit")
    return Peer


@fuzz_settings(150)
@example(target="AAKIT_MyKit_2024030112304512+0800.csv", total_ch=4, changes=[("insert", 17, b"\0", 1)])  # NUL name
@example(target="AAKIT_QRVLAB-2x2_LITE_28_IDEAL.csv", total_ch=4,     # a limit read as NaN on both sides
         changes=[("insert", 256, b'"', 1), ("truncate", 124, b"\x00", 1), ("replace", 647226, b"nan", 1)])
@given(target=st.sampled_from(sorted(KIT_FILES)), changes=mutations, total_ch=st.sampled_from([4, 3, 5]))
def test_damaged_kit_file_reads_as_the_python_peer_reads_it(tm, tmp_path, monkeypatch, restore_module_globals,
                                                            target, changes, total_ch):
    peer_module = baseline_module("aakit")
    later = pinned_clock(MOMENT.replace(second=46))  # as a real clock: no migrated name names the file it was read from
    monkeypatch.setattr(tm, "datetime", later)
    monkeypatch.setattr(peer_module, "datetime", later)
    damaged = mutate(KIT_FILES[target], changes)
    classes = tm.AAKitTableManager, migrating_from_the_file_read(peer_module.AAKitTableManager)
    native, peer = side_by_side(tmp_path, monkeypatch, {**KIT_FILES, target: damaged}, classes, LITE, total_ch,
                                support_dev=[LITE])
    with hang_watchdog():
        assert verdict(*outcome(native.parse)) == verdict(*outcome(peer.parse))
    native_files, peer_files = folder_contents(tmp_path / "native"), folder_contents(tmp_path / "peer")
    # A migrated kit that lacks a field cannot be saved under its new name. The peer
    # deletes the old file first (the kit is lost) and leaves a half-written new one;
    # ours refuses before anything changes: the damaged file stays as it was and
    # the kit stays loaded under its old name as well.
    for name in set(peer_files) - set(native_files):
        assert peer_files.pop(name).count(b"\r\n") < len(kit_rows(OFFICIAL))
    kept_files = set(native_files) - set(peer_files)
    kept_names = set(native._AAKitTable) - set(peer._AAKitTable)
    # A name holding NUL names no file: our delete refuses it, the peer drops the entry.
    nameable = {name for name in kept_names if "\0" not in name}
    assert kept_files <= {target} and len(nameable) <= len(kept_files) <= len(kept_names)
    for name in kept_files:
        assert native_files.pop(name) == damaged
    native_table, peer_table = ({name: kit for name, kit in k._AAKitTable.items() if "\0" not in name
                                 and name not in kept_names} for k in (native, peer))
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
