"""UD delta-frequency manager: the minimum LO/IF spacing read from <serial number>.csv."""
import logging

import pytest
from conftest import records

from vexcore.QRVPublic import RetCode

SN = "K5350R019-28"
PARSE_ERROR = (RetCode.ERROR, "Exception while delta csv parsing")
NO_VALUE = (RetCode.WARNING, "No delta freq info, skip it")


@pytest.fixture
def delta(tm, files_dir):
    return tm.UDDeltaFreqTableManager(SN)


def parse_file(delta, files_dir, data):
    (files_dir / (SN + ".csv")).write_bytes(data.encode() if isinstance(data, str) else data)
    ret = delta.parse()
    return (ret.RetCode, ret.RetMsg), delta.getUDDeltaFreq().RetData


def test_without_a_file_the_delta_is_zero_and_parse_warns(delta, caplog):
    # The result's code and message: the bridge's result-form test.
    delta.parse()
    assert records(caplog, "UDDeltaTbl") == [("WARNING", "Delta csv not exist, skip it")]
    assert delta.getUDDeltaFreq().RetData == 0


def test_the_last_value_row_wins_and_each_is_logged(delta, files_dir, caplog):
    caplog.set_level(logging.INFO)
    assert parse_file(delta, files_dir, "%s,label\n# comment\n\n300,x\n 500 \n" % SN) == ((RetCode.OK, ""), 500)
    assert records(caplog, "UDDeltaTbl") == [("INFO", "Delta csv path: %s" % (files_dir / (SN + ".csv"))),
                                             ("INFO", "Update delta freq to 300"),
                                             ("INFO", "Update delta freq to 500")]


@pytest.mark.parametrize("data, outcome, value", [
    ("0\n", (RetCode.OK, ""), 0),                   # an explicit zero is a value
    ('"42', (RetCode.OK, ""), 42),                  # csv.reader ends a quoted field at the end of the file
    ("", NO_VALUE, 250),                            # without a value row the earlier delta stays
    ("300\nabc\n", PARSE_ERROR, 300),
    ('"unterminated\n', PARSE_ERROR, 250),
    (b"\xff\n", PARSE_ERROR, 250),
])
def test_file_contents_and_their_outcome(delta, files_dir, caplog, data, outcome, value):
    parse_file(delta, files_dir, "250\n")
    assert parse_file(delta, files_dir, data) == (outcome, value)
    if outcome != (RetCode.OK, ""):
        failure = caplog.records[-1]
        assert failure.getMessage() == outcome[1]
        assert (failure.exc_info is not None) == (outcome == PARSE_ERROR)
