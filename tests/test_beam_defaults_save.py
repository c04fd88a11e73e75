"""Default beams bounded by the gain limits, and saving the table (file or web-mode callback)."""
import json
import logging

import pytest

from beam_helpers import COMDR, DR, ELEDR, KIT, Hooks, make_manager
from vexcore.QRVPublic import BeamType, RFMode, RetCode
from vexcore.QRVUtils import RetType


def _generate(manager, beam, beam_type, mode):
    return manager._BeamPatternTableManager__generateDefaultBeam(beam, beam_type, mode)


# ---------------------------------------------------------- default beams ---

@pytest.mark.parametrize("mode", [RFMode.TX, RFMode.RX, 1])
def test_default_channel_beam_follows_the_limits_of_each_board(tm, files_dir, mode):
    manager = make_manager(tm)
    beam = {}
    assert _generate(manager, beam, BeamType.CHANNEL, mode) is None
    row = int(mode)
    assert list(beam) == ["beam_description", "beam_type", "channel_config"]
    assert beam["beam_description"] == "" and beam["beam_type"] == 1
    config = beam["channel_config"]
    assert list(config) == ["board_%d" % b for b in range(1, 5)]
    for b, board in enumerate(config.values()):
        assert list(board) == ["common_db"] + ["channel_%d" % c for c in range(1, 5)]
        assert board["common_db"] is COMDR[row][b]          # limits are shared, not converted
        channels = [board["channel_%d" % c] for c in range(1, 5)]
        assert all(ch == {"sw": 0, "db": ELEDR[row][b], "deg": 0} and ch["db"] is ELEDR[row][b] for ch in channels)
        assert len({id(ch) for ch in channels}) == 4          # every channel its own mapping


def test_default_steered_beam_points_at_boresight(tm, files_dir):
    manager = make_manager(tm)
    beam = {"beam_description": "kept?", "extra": 1}
    _generate(manager, beam, BeamType.BEAM, RFMode.RX)
    assert beam == {"beam_description": "", "extra": 1, "beam_type": 0,
                    "beam_config": {"db": DR["RX"], "theta": 0, "phi": 0}}
    assert beam["beam_config"]["db"] is DR["RX"]


def test_boards_are_groups_of_one_ic_on_multi_ic_devices(tm, files_dir):
    # 2 boards x 2 ICs x 4 channels: the rule makes one "board_" per IC.
    manager = make_manager(tm, layout=(2, 2, 4))
    beam = {}
    _generate(manager, beam, BeamType.CHANNEL, RFMode.TX)
    config = beam["channel_config"]
    assert list(config) == ["board_1", "board_2", "board_3", "board_4"]
    assert [board["common_db"] for board in config.values()] == COMDR[0]


@pytest.mark.parametrize("layout, limits, error", [
    ((4, 1, 1), (COMDR, ELEDR), UnboundLocalError),        # one channel per IC never starts a board
    ((5, 1, 4), (COMDR, ELEDR), IndexError),               # a fifth board has no limits
    ((4, 1, 4), ([COMDR[0]], ELEDR), IndexError),          # no RX row
    ((4, 1, 4), ({"TX": COMDR[0]}, ELEDR), KeyError),      # rows keyed by name instead of value
    ((4, 1, 4), (COMDR, [ELEDR[0], [1.0, 2.0, 3.0]]), IndexError),
])
def test_default_channel_beam_without_limits_raises(tm, files_dir, layout, limits, error):
    manager = make_manager(tm, layout=layout, limits=False)
    manager._updateFreq(28.0, DR, *limits)
    with pytest.raises(error):
        _generate(manager, {}, BeamType.CHANNEL, RFMode.RX if layout == (4, 1, 4) else RFMode.TX)


@pytest.mark.parametrize("beam", [[], "beam", None, 3])
def test_default_beam_needs_a_mapping(tm, files_dir, beam):
    with pytest.raises(TypeError):
        _generate(make_manager(tm), beam, BeamType.CHANNEL, RFMode.TX)


# ----------------------------------------------------------------- saving ---

@pytest.fixture
def loaded(tm, files_dir):
    manager = make_manager(tm, hooks=Hooks())
    assert manager._load(28.0, KIT).RetCode == RetCode.OK
    return manager


def _file_text(manager):
    return manager._BeamPatternTableManager__path.read_text(encoding="utf-8")


def test_saved_file_is_exactly_what_json_writes(loaded):
    table = loaded._BeamTable
    table["TX"]["1"] = {"beam_description": "Ångström 波束 \U0001F4E1 \"q\" \\ \n\t\x01", "beam_type": 0,
                        "beam_config": {"db": -0.1, "theta": 1e-05, "phi": 1e16}}
    table["RX"]["2"] = {"beam_description": "", "beam_type": 1, "channel_config": {"board_1": {"common_db": None}}}
    table["EXTRA"] = [True, False, [], {}, 12345678901234567890, -0.0]
    assert loaded._saveToBeamTableFile().RetCode == RetCode.OK
    assert loaded._BeamPatternTableManager__path.read_bytes() == \
        json.dumps(table, ensure_ascii=False, indent=2).encode("utf-8")


def test_given_table_is_written_but_not_adopted(loaded):
    before = loaded._BeamTable
    other = {"VERSION": "v2.0.0", "TX": {}, "RX": {}, "note": "replacement"}
    assert loaded._saveToBeamTableFile(new_table=other).RetCode == RetCode.OK
    assert json.loads(_file_text(loaded)) == other
    assert loaded._BeamTable is before and "note" not in before


@pytest.mark.parametrize("new_table", [None, {"TX": {}}])
def test_web_mode_save_goes_to_the_callback_only(loaded, new_table):
    calls = []
    before = _file_text(loaded)
    answer = RetType(msg="stored by host")
    result = loaded._saveToBeamTableFile(lambda **kw: calls.append(kw) or answer, new_table)
    assert result is answer
    expected = {"func_name": "saveToBeamTableFile"}
    if new_table is not None:
        expected["new_table"] = new_table
    assert calls == [expected]
    assert _file_text(loaded) == before


@pytest.mark.parametrize("spoil", ["unserialisable", "folder_gone", "callback_raises"])
def test_failed_save_reports_and_keeps_the_old_file(loaded, caplog, spoil):
    path = loaded._BeamPatternTableManager__path
    before = path.read_bytes()
    callback = None
    if spoil == "unserialisable":
        loaded._BeamTable["TX"]["1"] = {"beam_description": {1, 2}}
    elif spoil == "folder_gone":
        loaded._BeamPatternTableManager__path = path.parent / "missing" / path.name
    else:
        def callback(**kwargs):
            raise ConnectionError("host gone")
    ret = loaded._saveToBeamTableFile(callback)
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_BEAM_FILE, "BeamFile saving exception")
    (record,) = [r for r in caplog.records if r.levelno >= logging.ERROR]
    assert record.getMessage() == "BeamFile saving exception" and isinstance(record.exc_info[1], Exception)
    assert path.read_bytes() == before
    assert [p.name for p in path.parent.iterdir()] == [path.name]      # no temporary file left behind
