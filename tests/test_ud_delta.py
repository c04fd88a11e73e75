"""UD delta-frequency manager: the minimum LO/IF spacing read from <serial number>.csv."""
import logging

import pytest

from conftest import records
from vexcore.QRVPublic import RetCode

SN = "K5350R019-28"


@pytest.fixture
def delta(tm, files_dir):
    return tm.UDDeltaFreqTableManager(SN)


def write_delta(files_dir, text, sn=SN):
    path = files_dir / (sn + ".csv")
    path.write_text(text, encoding="utf-8")
    return path


def test_constructor_keeps_state_under_the_python_attribute_names(delta, files_dir):
    assert vars(delta) == {
        "_UDDeltaFreqTableManager__logger": logging.getLogger("UDDeltaTbl"),
        "_UDDeltaFreqTableManager__sn": SN,
        "_UDDeltaFreqTableManager__defaultDir": type(files_dir)(str(files_dir)),
        "_UDDeltaFreqTableManager__delta_freq": 0,
    }


def test_without_a_file_the_delta_is_zero_and_parse_warns(delta, caplog):
    ret = delta.parse()
    assert (ret.RetCode, ret.RetMsg) == (RetCode.WARNING, "Delta csv not exist, skip it")
    assert records(caplog, "UDDeltaTbl") == [("WARNING", "Delta csv not exist, skip it")]
    assert delta.getUDDeltaFreq().RetData == 0


def test_the_last_value_row_wins_and_each_is_logged(delta, files_dir, caplog):
    caplog.set_level(logging.INFO)
    path = write_delta(files_dir, "%s,label\n# comment\n\n300,x\n 500 \n" % SN)
    ret = delta.parse()
    assert ret.RetCode == RetCode.OK
    assert delta.getUDDeltaFreq().RetData == 500
    assert records(caplog, "UDDeltaTbl") == [("INFO", "Delta csv path: %s" % path),
                                             ("INFO", "Update delta freq to 300"),
                                             ("INFO", "Update delta freq to 500")]


def test_an_explicit_zero_is_a_value(delta, files_dir):
    write_delta(files_dir, "0\n")
    assert delta.parse().RetCode == RetCode.OK


@pytest.mark.parametrize("text", ["", "# only a comment\n", "%s\n#x\n\n" % SN])
def test_a_file_without_value_warns_and_keeps_the_delta(delta, files_dir, caplog, text):
    write_delta(files_dir, "250\n")
    delta.parse()
    write_delta(files_dir, text)
    ret = delta.parse()
    assert (ret.RetCode, ret.RetMsg) == (RetCode.WARNING, "No delta freq info, skip it")
    assert records(caplog, "UDDeltaTbl")[-1] == ("WARNING", "No delta freq info, skip it")
    assert delta.getUDDeltaFreq().RetData == 250


@pytest.mark.parametrize("text, cause", [
    ("1.5\n", ValueError),
    ("300\nabc\n", ValueError),
    ("\"unterminated\n", ValueError),
    (b"\xff\n", UnicodeDecodeError),
])
def test_unreadable_values_are_an_error(delta, files_dir, caplog, text, cause):
    path = files_dir / (SN + ".csv")
    path.write_bytes(text if isinstance(text, bytes) else text.encode())
    ret = delta.parse()
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR, "Exception while delta csv parsing")
    failure = caplog.records[-1]
    assert failure.getMessage() == "Exception while delta csv parsing"
    assert failure.exc_info[0] is cause


def test_a_quoted_unterminated_field_is_read_as_csv_reads_it(delta, files_dir):
    # csv.reader ends a quoted field at the end of the file without error.
    write_delta(files_dir, "\"42")
    assert delta.parse().RetCode == RetCode.OK and delta.getUDDeltaFreq().RetData == 42


@pytest.mark.parametrize("sn", ["../" + SN, "sub/" + SN, SN + "\0"])
def test_serial_numbers_that_leave_the_files_directory_are_refused(tm, files_dir, sn):
    (files_dir.parent / (SN + ".csv")).write_text("999\n")
    (files_dir / "sub").mkdir()
    (files_dir / "sub" / (SN + ".csv")).write_text("999\n")
    delta = tm.UDDeltaFreqTableManager(sn)
    ret = delta.parse()
    assert (ret.RetCode, ret.RetMsg) == (RetCode.ERROR, "Exception while delta csv parsing")
    assert delta.getUDDeltaFreq().RetData == 0


def test_file_is_found_through_the_module_glob(tm, files_dir, restore_module_globals):
    write_delta(files_dir, "7\n")
    seen = []
    real = tm.glob

    class Glob:
        escape = staticmethod(real.escape)

        @staticmethod
        def glob(pattern):
            seen.append(pattern)
            return real.glob(pattern)

    tm.glob = Glob
    delta = tm.UDDeltaFreqTableManager(SN)
    assert delta.parse().RetCode == RetCode.OK and delta.getUDDeltaFreq().RetData == 7
    assert seen == [str(files_dir / (SN + ".csv"))]
