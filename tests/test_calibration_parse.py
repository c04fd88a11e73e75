"""Calibration manager in file mode: construction, finding calibration files, the
frequency list and version query, parsing CSV files with the header check, the JSON
export and parseRawJson, and the insertion primitive."""
import io
import json
import logging
import pathlib

import pytest
from calibration_sample import SN, cali_manager, make_sample
from conftest import records

from vexcore.QRVPublic import RetCode

PARSE_EXCEPTION = (RetCode.ERROR_BF_CALI_PARSE, "parse exception")
OK = (RetCode.OK, "")


@pytest.fixture
def sample():
    return make_sample()


def outcome(ret):
    return ret.RetCode, ret.RetMsg


def parse_rows(tm, files_dir, sample, rows, **kwargs):
    sample.write(files_dir, rows=rows)
    m = cali_manager(tm)
    return m, outcome(m.parse(**kwargs))


def replace_rows(rows, key, new_rows):
    """The rows with the first row of `key` replaced by `new_rows`."""
    at = next(i for i, r in enumerate(rows) if r[:1] == [key])
    return rows[:at] + new_rows + rows[at + 1:]


TOO_LOW = "Version of Cali table is too low, please upgrade it."
INCOMPLETE = RetCode.ERROR_BF_CALI_INCOMPLTE


def touch(folder, *names):
    for name in names:
        (folder / name).write_text("VER,2.1.0\n")


# ------------------------------------------------------------ construction --

@pytest.mark.parametrize("fetch", [True, False])
def test_construction_searches_files_only_when_asked_and_the_list_is_refreshed_on_demand(tm, files_dir, fetch):
    touch(files_dir, SN + "_28.0GHz.csv")
    m = cali_manager(tm, fetchCsvFromFile=fetch)
    assert m._CaliTable == {} and not hasattr(m, "_CalibrationTableManager__db")
    expected = (pathlib.Path(files_dir), "") if fetch else (None, None)
    assert (getattr(m, "defaultDir", None), getattr(m, "path_cali", None)) == expected
    touch(files_dir, SN + "_29.0GHz.csv")
    ret = m.getFrequencyList()
    assert ret.RetData == ([28.0] if fetch else []) and ret.RetData is m._freq_list
    if fetch:
        assert m.getFrequencyList(force_refresh=True).RetData == [28.0, 29.0]
    else:   # the failed search escapes as the AttributeError of reading `e.ret` (only database errors have it)
        with pytest.raises(AttributeError):
            m.getFrequencyList(force_refresh=True)


@pytest.mark.parametrize("layout", [(4, 1), (4, 1, 4, 1), None, "ab", 16])
@pytest.mark.parametrize("make", [lambda tm, layout: tm.CalibrationTableManager(SN, 28, lambda: layout),
                                  lambda tm, layout: tm.BeamPatternTableManager("SN9", 1, 4, layout)],
                         ids=["calibration", "beam"])
def test_layout_must_unpack_into_three_values_as_python_unpacks(tm, files_dir, make, layout):
    with pytest.raises(Exception) as expected:
        a, b, c = layout
    with pytest.raises(type(expected.value)) as caught:
        make(tm, layout)
    assert str(caught.value) == str(expected.value)


# ------------------------------------------------------------- file search --

@pytest.mark.parametrize("names, freq, extension, found, freqs", [
    ([SN + "_27.5GHz.csv", SN + "_28.0GHz.csv", SN + "_26.0GHz.csv", SN + "_28.0GHz.json"], 28, ".csv",
     SN + "_28.0GHz.csv", [26.0, 27.5, 28.0]),
    ([SN + "_28.0GHz.csv", SN + "_28.0GHz.json"], 28, ".json", SN + "_28.0GHz.json", [28.0]),
    ([SN + "_28GHz.csv"], 28.0, ".csv", SN + "_28GHz.csv", [28.0]),
    ([SN + "_27.5GHz.csv"], 28, ".csv", None, [27.5]),
    ([], 28, ".csv", None, []),
    ([SN + "_28.0GHz.csv", SN + "1_29.0GHz.csv"], 28, ".csv", SN + "_28.0GHz.csv", [28.0, 29.0]),
])
def test_search_finds_the_file_of_the_frequency_and_lists_all(tm, files_dir, names, freq, extension, found, freqs):
    # files_dir lies in a folder named after the test, so underscores in the folder are read past too.
    assert "_" in files_dir.parent.name
    touch(files_dir, *names)
    m = cali_manager(tm, freq=freq)
    assert m._searchCaliFile(extension) == (str(files_dir / found) if found else False)
    assert m._freq_list == freqs
    assert m.checkCaliTableLocation().RetData is bool(freqs)


def test_a_name_without_a_number_fails_the_search(tm, files_dir, caplog):
    m = cali_manager(tm)
    touch(files_dir, SN + "_highGHz.csv")
    assert outcome(m.checkCaliTableLocation()) == (RetCode.ERROR_BF_CALI_PATH, "checkCaliTableLocation exception")
    assert caplog.records[-1].exc_info[0] is ValueError


def test_subclass_search_is_used(tm, files_dir):
    class Elsewhere(tm.CalibrationTableManager):
        def _searchCaliFile(self, extension=".csv"):
            self._freq_list = [99.0]
            return False

    m = Elsewhere(SN, 28, tm.fake_rf_layout)
    assert m.checkCaliTableLocation().RetData is True
    assert m.parse().RetCode == RetCode.ERROR_BF_CALI_PATH


# ------------------------------------------------------------ a good table --

# Reading an export back is the JSON fuzz test's, and that numbers keep their type the JSON codec tests'.
def test_realistic_table_parses_and_exports(tm, tmp_path, monkeypatch, sample, caplog):
    caplog.set_level(logging.INFO, logger="CaliTbl")
    # The export renames every "csv" in the path (the temporary folder is named
    # after the test, so the test name avoids the word).
    csv_folder, json_folder = tmp_path / "csvfiles", tmp_path / "jsonfiles"
    csv_folder.mkdir()
    json_folder.mkdir()
    monkeypatch.setenv("VEXCORE_FILES_DIR", str(csv_folder))
    # Non-ASCII text is exported as it stands, not escaped.
    sample.expected["REALVER"] = "2.1.0-Überprüft"
    rows = replace_rows(sample.rows, "REALVER", [["REALVER", "2.1.0-Überprüft"]])
    path = sample.write(csv_folder, freq="28", rows=rows)
    m = cali_manager(tm)
    assert outcome(m.parse(exportToJson=True)) == OK and m.path_cali == str(path)
    # As JSON text, which tells 5 from 5.0 from "5" as == does not.
    assert json.dumps(m._CaliTable, sort_keys=True) == json.dumps(sample.expected, sort_keys=True)
    assert m._CaliTable["BOARD_1"]["TX"]["TEMPADC"] is m._CaliTable["BOARD_1"]["RX"]["TEMPADC"]
    assert records(caplog, "CaliTbl") == [("INFO", "Cali file path: %s" % path), ("INFO", "%s parsing done" % path)]
    exported = json_folder / (SN + "_28GHz.json")
    assert exported.read_text(encoding="utf-8") == json.dumps(m._CaliTable, ensure_ascii=False, indent=4)
    assert not list(csv_folder.glob("*.json"))


def test_a_new_frequency_retargets_and_drops_the_caches(tm, files_dir, sample):
    other = make_sample(seed=11, fcenter="27.5")
    other.write(files_dir, freq="27.5")
    m, _ = parse_rows(tm, files_dir, sample, sample.rows)
    first_eledr, first_offsets = m.getELEDR().RetData, m._getBoardsOffset(1)
    assert outcome(m.parse(freq=27.5)) == OK
    assert m._CaliTable == other.expected
    assert m.getELEDR().RetData == [[other.expected["BOARD_%d" % b][mode]["ELEDR"] for b in range(1, 5)]
                                    for mode in ("TX", "RX")] != first_eledr
    assert m._getBoardsOffset(1) != first_offsets


def test_parse_of_a_handed_in_file_object(tm, files_dir, sample, caplog):
    caplog.set_level(logging.INFO, logger="CaliTbl")
    m = cali_manager(tm, fetchCsvFromFile=False)
    stream = io.StringIO(sample.text())
    assert outcome(m.parse(fileObject=stream)) == OK
    assert m._CaliTable == sample.expected and stream.closed
    assert records(caplog, "CaliTbl") == [("INFO", " parsing done")]
    # There is nowhere to export to.
    assert outcome(m.parse(fileObject=io.StringIO(sample.text()), exportToJson=True)) == PARSE_EXCEPTION


def test_missing_file_and_no_table(tm, files_dir, caplog):
    m = cali_manager(tm)
    assert outcome(m.parse()) == (RetCode.ERROR_BF_CALI_PATH, "Can not find file for Cali table")
    assert outcome(m.queryCaliTableVer()) == (RetCode.ERROR_BF_CALI_INCOMPLTE, "Can not found any calibration table")
    assert records(caplog, "CaliTbl") == [("ERROR", "Can not find file for Cali table")]
    # (a damaged export gives the same error: the JSON fuzz test reads those)
    assert outcome(m.parseRawJson()) == (RetCode.ERROR_BF_CALI_PARSE, "cali file error")


# --------------------------------------------------------------- bad files --

# Damaged cells the fuzz tests seldom draw; the rest are read there as the Python peer reads them.
@pytest.mark.parametrize("bad_row", [
    ["VER"], ["DR", "-10", "5", "-12"], ["COMDR", "TX", "BOARD"], ["TEMPADC", "ADC", "1", "READ"],   # short rows
    ["TC", "COMP", "1", "STEP", "8", "3", "2"], ["COMSTEPDR", "ARM", "STEP", "1", "1", "low", "1.0"],
    ["DATA", "CAL", "BOARD", "1", "IC", "1", "1", "TX", "inf", "0", "7", "7", "7", "7"],     # a gain no step holds
], ids=lambda row: " ".join(row[:1] + row[-2:]))
def test_malformed_rows_are_a_parse_exception(tm, files_dir, sample, caplog, bad_row):
    assert parse_rows(tm, files_dir, sample, replace_rows(sample.rows, bad_row[0], [bad_row]))[1] == PARSE_EXCEPTION
    assert caplog.records[-1].levelname == "ERROR" and caplog.records[-1].exc_info is not None


def test_end_closes_the_table(tm, files_dir, sample, caplog):
    # Rows after END are never read; a file without END is broken though every row was stored.
    rows = sample.rows + [["VER", "9.9.9"], ["DR", "x"], ["OFFSET_TX", "bad"]]
    (files_dir / (SN + "_28.0GHz.csv")).write_text(sample.text(rows) + '"unclosed quote,\n')
    m = cali_manager(tm)
    assert outcome(m.parse()) == OK and m._CaliTable == sample.expected
    m, ret = parse_rows(tm, files_dir, sample, sample.rows[:-1])
    assert ret == (RetCode.ERROR_BF_CALI_PARSE, "cali file is broken") and m._CaliTable == sample.expected
    assert records(caplog, "CaliTbl")[-1] == ("ERROR", "cali file is broken")


# ------------------------------------------------------------ header check --

# Checked when the first range row is read, so a table without range rows is never checked.
@pytest.mark.parametrize("header, leave_out, expected", [
    ({"VER": "2.0.0"}, (), OK),
    ({"VER": "2.1", "FCENTER": " 28.000 "}, (), OK),
    ({"VER": "10.0.0"}, (), (INCOMPLETE, TOO_LOW)),                                    # compared as text
    ({"VER": "1.9.9", "SN": "OTHER", "FCENTER": "27.0"}, (), (INCOMPLETE, TOO_LOW)),   # the first failed check
    ({"SN": SN + "1"}, (), (INCOMPLETE, "Wrong SN!")),
    ({"FCENTER": "27.5"}, (), (INCOMPLETE, "Wrong Freq")),
    ({"SN": "OTHER"}, ("COMDR", "ELEDR"), OK),
    ({}, ("FCENTER",), PARSE_EXCEPTION),          # a header missing at the first range row fails the check itself
])
def test_header_is_checked_at_the_first_range_row(tm, files_dir, sample, caplog, header, leave_out, expected):
    rows = [[r[0], header[r[0]]] if r[:1] and r[0] in header else r for r in sample.rows]
    rows = [r for r in rows if r[:1] not in [[k] for k in leave_out]]
    m, ret = parse_rows(tm, files_dir, sample, rows, exportToJson=True)
    assert ret == expected
    assert records(caplog, "CaliTbl") == ([] if ret == OK else [("ERROR", ret[1])])
    assert bool(list(files_dir.glob("*.json"))) is (ret[0] != INCOMPLETE)    # a refused table is not exported
    assert "OFFSET_CHIP_1" in m._CaliTable["BOARD_1"]["TX"]       # rows before the check are kept
    assert ("COMDR" in m._CaliTable["BOARD_1"]["TX"]) is (ret == OK and not leave_out)


def test_repeated_rows_merge_value_by_value(tm, files_dir, sample):
    at = next(i for i, r in enumerate(sample.rows) if r[:1] == ["NOTE"])
    rows = sample.rows[:at] + [["OFFSET_TX"] + [str(100 + i) for i in range(16)]] + sample.rows[at:]
    m, ret = parse_rows(tm, files_dir, sample, rows)
    assert ret == OK
    board = m._CaliTable["BOARD_2"]
    assert board["TX"]["OFFSET_CHIP_1"] == {"CHANNEL_%d" % ch: 103 + ch for ch in range(1, 5)}
    assert board["RX"] == sample.expected["BOARD_2"]["RX"]


def test_update_dict_failure_is_logged_and_raised(tm, files_dir, caplog):
    insert = cali_manager(tm)._CalibrationTableManager__updateDict
    with pytest.raises(Exception) as caught:
        insert({"k": [1]}, "k", {"v": 2})
    assert type(caught.value) is Exception and caught.value.args == ("__updateDict exception",)
    assert records(caplog, "CaliTbl") == [("ERROR", "__updateDict exception with key:k, value:{'v': 2}")]
    assert caplog.records[-1].exc_info[0] is AttributeError
