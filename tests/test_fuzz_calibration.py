"""Calibration tables under damaged files and careless arguments.

Damaged files are read side by side with the pure-Python peer kept with the
benchmarks: both must reach the same verdict and the same table, and the queries
that follow must agree. Anything else the manager is handed (wrong types, odd
objects) must still give a result, or only the exception its contract lets out.
"""
import json

from hypothesis import assume, given, strategies as st

from calibration_sample import SN, make_sample
from fuzz_support import (assert_result, baseline_module, beyond_any_device, fuzz_settings, hang_watchdog, mutate,
                          mutations, outcome, same_json, values)
from vexcore.QRVPublic import RetCode, RFMode

SAMPLE = make_sample(boards=2, ics=1, channels=4, arms=1, seed=11)
SAMPLE_TEXT = SAMPLE.text().encode()
PARSE_CODES = {RetCode.OK, RetCode.ERROR_BF_CALI_PARSE, RetCode.ERROR_BF_CALI_INCOMPLTE}
UNREADABLE = object()
layouts = st.sampled_from([(2, 1, 4), (1, 1, 4), (2, 2, 2), (3, 1, 4), (2, 1, 1), (4, 0, 4), (3, -1, 4)])


def write_table(folder, data):
    path = folder / (SN + "_28.0GHz.csv")
    path.write_bytes(data)
    return path


def query_outcomes(manager):
    """What each query gives: ("result", code, data) or ("raised", exception type)."""
    out = {}
    for name, args in (("getDR", ()), ("getDR", (RFMode.TX,)), ("getDR", (1,)), ("getCOMDR", ()),
                       ("getELEDR", ()), ("_getTC", ())):
        kind, value = outcome(getattr(manager, name), *args)
        if kind == "raised":
            out[name, args] = ("raised", type(value))
        elif hasattr(value, "RetCode"):
            out[name, args] = ("result", value.RetCode, value.RetData)
        else:
            out[name, args] = ("value", value)
    return out


def same_query_outcomes(native, peer):
    """The peer raises where the manager turns a non-KeyError failure into an ERROR result."""
    for key, got in native.items():
        expected = peer[key]
        if expected[0] == "raised" and expected[1] is not KeyError and key[0] != "_getTC":
            assert got[0] == "result" and got[1] == RetCode.ERROR, (key, got, expected)
        else:
            assert got == expected or repr(got) == repr(expected), (key, got, expected)


@fuzz_settings(150)
@given(changes=mutations, layout=layouts)
def test_damaged_file_reads_as_the_python_peer_reads_it(tm, files_dir, changes, layout):
    # Decoded with replacement so that both read the same text (the peer reads
    # line by line and would never reach a bad byte after END).
    text = mutate(SAMPLE_TEXT, changes).decode("utf-8", "replace")
    write_table(files_dir, text.encode())
    peer_class = baseline_module("calibration").CalibrationTableManager
    with hang_watchdog():
        manager = tm.CalibrationTableManager(SN, 28, lambda: layout)
        peer = peer_class(SN, 28, lambda: layout)
        got = assert_result(manager.parse)
        expected = peer.parse()
    assert (got.RetCode, got.RetMsg) == (expected.RetCode, expected.RetMsg)
    # After an exception part way through a row, how much of that row was
    # stored is nobody's promise; every other verdict must leave equal tables.
    if got.RetMsg != "parse exception":
        assert same_json(manager._CaliTable, peer._CaliTable)
    same_query_outcomes(query_outcomes(manager), query_outcomes(peer))


@fuzz_settings(150)
@given(changes=mutations, layout=layouts, export=st.booleans())
def test_any_bytes_give_a_parse_result_and_a_readable_export(tm, files_dir, changes, layout, export):
    path = write_table(files_dir, mutate(SAMPLE_TEXT, changes))
    exported = path.with_suffix(".json")
    exported.unlink(missing_ok=True)     # left by an earlier example
    with hang_watchdog():
        manager = tm.CalibrationTableManager(SN, 28, lambda: layout)
        ret = assert_result(manager.parse, exportToJson=export)
        for name, args in (("getDR", ()), ("getCOMDR", ()), ("getELEDR", ()), ("queryCaliTableVer", ())):
            assert_result(getattr(manager, name), *args, allowed=(KeyError,))
    assert ret.RetCode in PARSE_CODES, ret
    if export and exported.exists():
        assert json.loads(exported.read_text(encoding="utf-8")) == manager._CaliTable


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
        expected = UNREADABLE
    with hang_watchdog():
        manager = tm.CalibrationTableManager(SN, 28, lambda: (2, 1, 4))
        ret = assert_result(manager.parseRawJson)
    if expected is UNREADABLE:
        assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_CALI_PARSE, "cali file error")
    else:
        assert ret.RetCode == RetCode.OK and manager._CaliTable == expected
        assert_result(manager.getDR, allowed=(KeyError,))
        assert_result(manager.getCOMDR, allowed=(KeyError,))


@fuzz_settings(200)
@given(sn=values, freq=values, polar=st.booleans(), fetch=st.booleans(), args=st.lists(values, max_size=3))
def test_careless_arguments_give_results(tm, files_dir, sn, freq, polar, fetch, args):
    write_table(files_dir, SAMPLE_TEXT)
    with hang_watchdog():
        # Construction may refuse what it cannot use (a layout that does not unpack,
        # a serial number that cannot form a pattern); what it builds must then work.
        kind, manager = outcome(tm.CalibrationTableManager, sn, freq, tm.fake_rf_layout, polar, None, fetch)
        assume(kind == "result")
        first = args[0] if args else None
        assert_result(manager.parse, *args[:3])
        assert_result(manager.parse, first)
        assert_result(manager.parse, None, first)
        assert_result(manager.checkCaliTableLocation)
        # A failed search escapes as the AttributeError of reading `e.ret`.
        assert_result(manager.getFrequencyList, first, allowed=(AttributeError,))
        assert_result(manager.queryCaliTableVer)
        assert_result(manager.parseRawJson)
        assert_result(manager.getDR, first, allowed=(KeyError,))
        assert_result(manager.getCOMDR, allowed=(KeyError,))
        assert_result(manager.getELEDR, allowed=(KeyError,))


@fuzz_settings(100)
@given(layout=st.one_of(values, st.tuples(values, values, values)))
def test_any_layout_constructs_or_raises_an_ordinary_error(tm, files_dir, layout):
    assume(not beyond_any_device(layout))
    write_table(files_dir, SAMPLE_TEXT)
    kind, manager = outcome(tm.CalibrationTableManager, SN, 28, lambda: layout)
    if kind == "result":
        assert_result(manager.parse)
        assert_result(manager.getCOMDR, allowed=(KeyError,))
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


service_replies = st.one_of(
    values,
    st.fixed_dictionaries({"code": st.sampled_from([0, 1, "0", None, 0.0]), "data": values, "message": values}),
    st.fixed_dictionaries({"code": st.just(0), "data": st.dictionaries(
        st.sampled_from(["query-0", "query-1", "query-2", "query-x", "TX.COMDR", "RX.ELEDR", "x"]), values)}),
    st.dictionaries(st.sampled_from(["code", "data", "message"]), values))


class ScriptedService:
    """A query service whose replies come from a list, round and round."""

    def __init__(self, replies):
        self.replies = replies
        self.count = 0

    def __call__(self, table_name):
        return self

    def queryDB(self, payload, queryCmd=None):
        self.count += 1
        return self.replies[self.count % len(self.replies)]


@fuzz_settings(150)
@given(replies=st.lists(service_replies, min_size=1, max_size=6))
def test_any_service_reply_gives_a_result_in_web_mode(tm, monkeypatch, replies):
    import sys
    import types
    service = types.ModuleType("vexcore.db.QRVDBQueryer")
    service.DBQueryer = ScriptedService(replies)
    monkeypatch.setitem(sys.modules, "vexcore.db.QRVDBQueryer", service)
    manager = tm.CalibrationTableManager("WEB", 28, lambda: (2, 1, 4), False, "client")
    with hang_watchdog():
        # Only a missing key in a reply escapes the queries, as the adapter lets it through.
        for query, args in ((manager.getDR, ()), (manager.getDR, (RFMode.TX,)), (manager.getCOMDR, ()),
                            (manager.getELEDR, ()), (manager.parse, (27.5,))):
            assert_result(query, *args, allowed=(KeyError,))
        assert_result(manager.queryCaliTableVer)
        assert_result(manager.checkCaliTableLocation)
        # A failure other than the database's own escapes as the AttributeError of reading `e.ret`.
        assert_result(manager.getFrequencyList, allowed=(AttributeError,))
        outcome(manager._getTC)
