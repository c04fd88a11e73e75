"""Calibration manager: construction, finding calibration files, frequency list,
version query and the header check."""
import pathlib

import pytest
from calibration_sample import SN, cali_manager
from conftest import records

from vexcore.QRVPublic import RetCode

TOO_LOW = "Version of Cali table is too low, please upgrade it."


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
    with pytest.raises(ValueError):
        m._searchCaliFile()
    ret = m.checkCaliTableLocation()
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_CALI_PATH, "checkCaliTableLocation exception")
    assert caplog.records[-1].exc_info[0] is ValueError


def test_subclass_search_is_used(tm, files_dir):
    class Elsewhere(tm.CalibrationTableManager):
        def _searchCaliFile(self, extension=".csv"):
            self._freq_list = [99.0]
            return False

    m = Elsewhere(SN, 28, tm.fake_rf_layout)
    assert m.checkCaliTableLocation().RetData is True
    assert m.parse().RetCode == RetCode.ERROR_BF_CALI_PATH


# ---------------------------------------------------------------- versions --

def test_version_before_and_after_a_table(tm, files_dir, caplog):
    m = cali_manager(tm)
    ret = m.queryCaliTableVer()
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR_BF_CALI_INCOMPLTE, "Can not found any calibration table")
    assert records(caplog, "CaliTbl") == []
    m._CaliTable = {"VER": "2.3.1"}
    assert m.queryCaliTableVer().RetData == "2.3.1"
    with pytest.raises(KeyError):          # the header check needs the whole header
        m._CalibrationTableManager__basicCheck(m._CaliTable)


@pytest.mark.parametrize("header, problem", [
    ({"VER": "2.0.0", "SN": SN, "FCENTER": "28.0"}, None),
    ({"VER": "2.1", "SN": SN, "FCENTER": " 28.000 "}, None),
    ({"VER": "10.0.0", "SN": SN, "FCENTER": "28.0"}, TOO_LOW),       # compared as text
    ({"VER": "1.9.9", "SN": "OTHER", "FCENTER": "27.0"}, TOO_LOW),   # the first failed check is reported
    ({"VER": "2.1.0", "SN": SN + "1", "FCENTER": "28.0"}, "Wrong SN!"),
    ({"VER": "2.1.0", "SN": SN, "FCENTER": "27.5"}, "Wrong Freq"),
])
def test_header_check(tm, files_dir, caplog, header, problem):
    ret = cali_manager(tm)._CalibrationTableManager__basicCheck(header)
    expected = (RetCode.OK, "") if problem is None else (RetCode.ERROR_BF_CALI_INCOMPLTE, problem)
    assert (ret.RetCode, ret.RetMsg) == expected
    assert records(caplog, "CaliTbl") == ([] if problem is None else [("ERROR", problem)])
