"""Calibration manager: parsing calibration CSV files, the JSON export and
parseRawJson, and the insertion primitive."""
import io
import json
import logging

import pytest

from calibration_sample import SN, make_sample
from conftest import records
from vexcore.QRVPublic import RetCode

PARSE_EXCEPTION = (RetCode.ERROR_BF_CALI_PARSE, "parse exception")
BROKEN = (RetCode.ERROR_BF_CALI_PARSE, "cali file is broken")
OK = (RetCode.OK, "")


@pytest.fixture
def sample():
    return make_sample()


def manager(tm, freq=28, **kwargs):
    return tm.CalibrationTableManager(SN, freq, tm.fake_rf_layout, **kwargs)


def outcome(ret):
    return ret.RetCode, ret.RetMsg


def parse_rows(tm, files_dir, sample, rows):
    sample.write(files_dir, rows=rows)
    m = manager(tm)
    return m, m.parse()


# ------------------------------------------------------------ a good table --

def test_realistic_table_parses_into_the_expected_mapping(tm, files_dir, sample, caplog):
    caplog.set_level(logging.DEBUG, logger="CaliTbl")
    path = sample.write(files_dir)
    m = manager(tm)
    assert outcome(m.parse()) == OK
    assert m._CaliTable == sample.expected
    assert m.path_cali == str(path)
    log = records(caplog, "CaliTbl")
    assert log[0] == ("INFO", "Cali file path: %s" % path)
    assert log[-1] == ("INFO", "%s parsing done" % path)
    assert ("DEBUG", "VER: 2.1.0") in log and ("DEBUG", "SN: " + SN) in log
    low, high = sample.expected["DR"]["TX"]
    assert ("DEBUG", "TX mode DR: {%f~%f}" % (low, high)) in log


def test_cell_types_of_the_stored_table(tm, files_dir, sample):
    m, _ = parse_rows(tm, files_dir, sample, sample.rows)
    board = m._CaliTable["BOARD_1"]
    assert all(type(v) is float for v in m._CaliTable["DR"]["TX"] + board["RX"]["COMDR"] + board["RX"]["ELEDR"])
    assert type(board["TX"]["OFFSET_CHIP_1"]["CHANNEL_1"]) is int
    assert type(board["TX"]["TEMPADC"]) is str and board["TX"]["TEMPADC"] is board["RX"]["TEMPADC"]
    assert all(type(v) is str for v in board["TX"]["TC"])
    assert all(type(v) is int for v in board["DATA_CHIP_1"]["COM_1"]["TX_-4_0"])


def test_export_and_read_back_give_an_equal_table(tm, files_dir, sample):
    # Non-ASCII text is exported as it stands, not escaped.
    sample.expected["REALVER"] = "2.1.0-Überprüft"
    path = sample.write(files_dir, rows=replace_rows(sample.rows, "REALVER", [["REALVER", "2.1.0-Überprüft"]]))
    m = manager(tm)
    assert outcome(m.parse(exportToJson=True)) == OK
    exported = files_dir / path.name.replace("csv", "json")
    assert exported.read_text(encoding="utf-8") == json.dumps(m._CaliTable, ensure_ascii=False, indent=4)
    fresh = manager(tm)
    assert outcome(fresh.parseRawJson()) == OK
    assert fresh._CaliTable == m._CaliTable == sample.expected
    assert fresh._freq_list == [28.0]


def test_export_renames_every_table_kind_in_the_path(tm, tmp_path, monkeypatch, sample):
    # (the temporary folder is named after the test, so the test name avoids the word)
    csv_folder, json_folder = tmp_path / "csvfiles", tmp_path / "jsonfiles"
    csv_folder.mkdir()
    json_folder.mkdir()
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(csv_folder))
    sample.write(csv_folder, freq="28")
    assert outcome(manager(tm).parse(exportToJson=True)) == OK
    assert json.loads((json_folder / (SN + "_28GHz.json")).read_text()) == sample.expected
    assert not list(csv_folder.glob("*.json"))


def test_a_new_frequency_retargets_and_drops_the_caches(tm, files_dir, sample):
    sample.write(files_dir)
    other = make_sample(seed=11, fcenter="27.5")
    other.write(files_dir, freq="27.5")
    m = manager(tm)
    m.parse()
    first = m.getCOMDR().RetData
    m._getBoardsOffset(1)
    assert outcome(m.parse(freq=27.5)) == OK
    assert m._CalibrationTableManager__freq == 27.5
    assert m._CalibrationTableManager__allXXXDR is None and m._CalibrationTableManager__allOffset is None
    assert m._CaliTable == other.expected
    assert m.getCOMDR().RetData == [[other.expected["BOARD_%d" % b][mode]["COMDR"] for b in range(1, 5)]
                                    for mode in ("TX", "RX")] != first


def test_parse_of_a_handed_in_file_object(tm, files_dir, sample, caplog):
    caplog.set_level(logging.INFO, logger="CaliTbl")
    m = manager(tm, fetchCsvFromFile=False)
    stream = io.StringIO(sample.text())
    assert outcome(m.parse(fileObject=stream)) == OK
    assert m._CaliTable == sample.expected
    assert stream.closed
    assert records(caplog, "CaliTbl") == [("INFO", " parsing done")]
    # There is nowhere to export to.
    assert outcome(m.parse(fileObject=io.StringIO(sample.text()), exportToJson=True)) == PARSE_EXCEPTION


def test_missing_file(tm, files_dir, caplog):
    m = manager(tm)
    assert outcome(m.parse()) == (RetCode.ERROR_BF_CALI_PATH, "Can not find file for Cali table")
    assert records(caplog, "CaliTbl") == [("ERROR", "Can not find file for Cali table")]
    assert outcome(m.parseRawJson()) == (RetCode.ERROR_BF_CALI_PARSE, "cali file error")


def test_broken_json_export(tm, files_dir, caplog):
    (files_dir / (SN + "_28.0GHz.json")).write_text('{"VER": "2.1.0",')
    ret = manager(tm).parseRawJson()
    assert outcome(ret) == (RetCode.ERROR_BF_CALI_PARSE, "cali file error")
    assert isinstance(caplog.records[-1].exc_info[1], json.JSONDecodeError)


# --------------------------------------------------------------- bad files --

def replace_rows(rows, key, new_rows):
    """The rows with the first row of `key` replaced by `new_rows`."""
    at = next(i for i, r in enumerate(rows) if r[:1] == [key])
    return rows[:at] + new_rows + rows[at + 1:]


DATA_ROW = next(r for r in make_sample().rows if r[:1] == ["DATA"])


@pytest.mark.parametrize("bad_row", [
    ["VER"], ["DR", "-10", "5", "-12"], ["OFFSET_RX", "1", "2"], ["COMDR", "TX", "BOARD"],
    ["TEMPADC", "ADC", "1", "READ"], ["TC", "COMP", "1", "STEP", "8", "3", "2"], DATA_ROW[:9],     # short rows
    ["DR", "-10", "high", "-12", "6"], ["OFFSET_TX"] + ["1.5"] * 16,                                 # text for numbers
    ["COMDR", "TX", "BOARD", "1", "RANGE", "-9.5", "n/a"], ["COMSTEPDR", "ARM", "STEP", "1", "1", "low", "1.0"],
    DATA_ROW[:8] + ["max"] + DATA_ROW[9:], DATA_ROW[:10] + ["0x1F"] * 4, DATA_ROW[:8] + ["inf"] + DATA_ROW[9:],
], ids=lambda row: " ".join(row[:1] + row[-2:]))
def test_malformed_rows_are_a_parse_exception(tm, files_dir, sample, caplog, bad_row):
    m, ret = parse_rows(tm, files_dir, sample, replace_rows(sample.rows, bad_row[0], [bad_row]))
    assert outcome(ret) == PARSE_EXCEPTION
    assert caplog.records[-1].levelname == "ERROR" and caplog.records[-1].exc_info is not None


def test_a_file_without_end_is_broken_though_every_row_was_stored(tm, files_dir, sample, caplog):
    m, ret = parse_rows(tm, files_dir, sample, sample.rows[:-1])
    assert outcome(ret) == BROKEN
    assert m._CaliTable == sample.expected
    assert records(caplog, "CaliTbl")[-1] == ("ERROR", "cali file is broken")


def test_invalid_utf8_is_a_parse_exception(tm, files_dir, sample, caplog):
    path = sample.write(files_dir)
    path.write_bytes(path.read_bytes().replace(b"REALVER,2.1.0-7", b"REALVER,2.1.0-\xff"))
    assert outcome(manager(tm).parse()) == PARSE_EXCEPTION
    assert caplog.records[-1].exc_info[0] is UnicodeDecodeError


@pytest.mark.parametrize("damage", [
    # NUL characters and blank lines are dropped
    lambda sample: "\n\0\n" + sample.text().replace("\n", "\n\n").replace("BOARD", "BO\0ARD")
    .replace("OFFSET_TX", "\0OFFSET_TX\0"),
    # rows after END are never read
    lambda sample: sample.text(sample.rows + [["VER", "9.9.9"], ["DR", "x"], ["OFFSET_TX", "bad"]])
    + '"unclosed quote,\n',
], ids=["nul and blank lines", "rows after end"])
def test_harmless_noise_changes_nothing(tm, files_dir, sample, damage):
    (files_dir / (SN + "_28.0GHz.csv")).write_text(damage(sample))
    m = manager(tm)
    assert outcome(m.parse()) == OK
    assert m._CaliTable == sample.expected


# ------------------------------------------------------------ header check --

@pytest.mark.parametrize("key, value, problem", [
    ("SN", "K0000R000-28", "Wrong SN!"),
    ("FCENTER", "27.0", "Wrong Freq"),
    ("VER", "1.5.0", "Version of Cali table is too low, please upgrade it."),
])
def test_header_is_checked_at_the_first_range_row(tm, files_dir, sample, key, value, problem):
    sample.write(files_dir, rows=replace_rows(sample.rows, key, [[key, value]]))
    m = manager(tm)
    assert outcome(m.parse(exportToJson=True)) == (RetCode.ERROR_BF_CALI_INCOMPLTE, problem)
    assert not list(files_dir.glob("*.json"))                     # a refused table is not exported
    assert "OFFSET_CHIP_1" in m._CaliTable["BOARD_1"]["TX"]       # rows before the check are kept
    assert "COMDR" not in m._CaliTable["BOARD_1"]["TX"]


def test_no_check_without_range_rows(tm, files_dir, sample):
    rows = [r for r in replace_rows(sample.rows, "SN", [["SN", "OTHER"]]) if r[:1] not in (["COMDR"], ["ELEDR"])]
    m, ret = parse_rows(tm, files_dir, sample, rows)
    assert outcome(ret) == OK and m._CaliTable["SN"] == "OTHER"


def test_header_rows_after_the_range_rows_are_checked_late(tm, files_dir, sample):
    # A header missing when the first COMDR row arrives is a failed check, not a refusal.
    rows = [r for r in sample.rows if r[:1] != ["FCENTER"]]
    assert outcome(parse_rows(tm, files_dir, sample, rows)[1]) == PARSE_EXCEPTION


# ----------------------------------------------------------- repeated rows --

def test_repeated_rows_merge_value_by_value(tm, files_dir, sample):
    second = ["OFFSET_TX"] + [str(100 + i) for i in range(16)]
    at = next(i for i, r in enumerate(sample.rows) if r[:1] == ["NOTE"])
    rows = sample.rows[:at] + [second] + sample.rows[at:]
    m, ret = parse_rows(tm, files_dir, sample, rows)
    assert outcome(ret) == OK
    board = m._CaliTable["BOARD_2"]
    assert board["TX"]["OFFSET_CHIP_1"] == {"CHANNEL_%d" % ch: 103 + ch for ch in range(1, 5)}
    assert board["RX"] == sample.expected["BOARD_2"]["RX"]
    assert board["TX"]["COMDR"] == sample.expected["BOARD_2"]["TX"]["COMDR"]


# -------------------------------------------------------------- insertion --

def test_update_dict_failure_is_logged_and_raised(tm, files_dir, caplog):
    insert = manager(tm)._CalibrationTableManager__updateDict
    with pytest.raises(Exception) as caught:
        insert({"k": [1]}, "k", {"v": 2})
    assert type(caught.value) is Exception and caught.value.args == ("__updateDict exception",)
    assert isinstance(caught.value.__context__, AttributeError)
    assert records(caplog, "CaliTbl") == [("ERROR", "__updateDict exception with key:k, value:{'v': 2}")]
    assert caplog.records[-1].exc_info[0] is AttributeError
