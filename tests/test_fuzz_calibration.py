"""Calibration tables under damaged files, careless arguments and odd service replies.

Damaged and oddly quoted files are read side by side with the pure-Python peer kept
with the benchmarks: verdict, table, export and the queries that follow must agree.
Anything else must still give a result, or only the exception its contract lets out.
"""
import csv
import io
import itertools
import json
import sys
import types

from calibration_sample import SN, make_sample
from fuzz_support import (
    assert_result,
    baseline_module,
    beyond_any_device,
    fuzz_settings,
    hang_watchdog,
    mutate,
    mutations,
    outcome,
    same_json,
    values,
)
from hypothesis import assume, given
from hypothesis import strategies as st

from vexcore.QRVPublic import RetCode, RFMode

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
