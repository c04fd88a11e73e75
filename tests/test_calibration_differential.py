"""Calibration parse against the pure-Python peer kept with the benchmark:
damaged and oddly quoted files must give the same table and the same verdict."""
import csv
import io

from calibration_sample import SN, make_sample
from fuzz_support import baseline_module, fuzz_settings, same_json
from hypothesis import given
from hypothesis import strategies as st

LAYOUT = (4, 1, 4)
BASE = make_sample(arms=2, seed=3)

cell_text = st.text(alphabet=[",", '"', "\0", " ", "\r", "\n", "x", "1", "-", ".", "5", "é", "_"], max_size=8)
# (row index, cell index, new text): cells of the sample replaced by awkward text.
edits = st.lists(st.tuples(st.integers(0, len(BASE.rows) - 1), st.integers(0, 12), cell_text), max_size=6)


def apply(rows, changes):
    rows = [list(r) for r in rows]
    for row, at, text in changes:
        if rows[row]:
            rows[row][min(at, len(rows[row]) - 1)] = text
    return rows


def check_same(tm, files_dir, text):
    (files_dir / (SN + "_28.0GHz.csv")).write_text(text, encoding="utf-8", newline="")
    manager = tm.CalibrationTableManager(SN, 28, lambda: LAYOUT)
    peer = baseline_module("calibration").CalibrationTableManager(SN, 28, lambda: LAYOUT)
    got, expected = manager.parse(), peer.parse()
    assert (got.RetCode, got.RetMsg) == (expected.RetCode, expected.RetMsg)
    # Which containers a row that raised part way had already made is nobody's
    # promise (the peer converts a chip's values before inserting them; we make
    # the board first).
    if got.RetMsg != "parse exception":
        assert same_json(manager._CaliTable, peer._CaliTable)


@fuzz_settings(240)
@given(changes=edits, writing=st.sampled_from(["csv \n", "csv \r\n", "plain"]))
def test_quoted_unquoted_and_damaged_cells_read_as_csv_reader_reads_them(tm, files_dir, changes, writing):
    rows = apply(BASE.rows, changes)
    out = io.StringIO()
    if writing == "plain":          # joined by hand: quotes and line breaks inside cells reach the reader raw
        out.writelines(",".join(row) + "\n" for row in rows)
    else:
        csv.writer(out, lineterminator=writing[4:]).writerows(rows)
    check_same(tm, files_dir, out.getvalue())


@fuzz_settings(40)
@given(order=st.permutations(range(32)), gain_spelling=st.sampled_from(["%d", "%d.0", "%d.4", " %d"]))
def test_data_blocks_in_any_order_and_spelling(tm, files_dir, order, gain_spelling):
    # The same entries listed in another order, and gains spelled differently, in
    # the second common-arm block of every chip.
    rows, block = [], []
    for row in BASE.rows:
        if row[:1] == ["DATA"] and row[6] == "2":
            block.append(row)
            if len(block) == 32:
                rows += [r[:8] + [gain_spelling % int(float(r[8]))] + r[9:] for r in (block[i] for i in order)]
                block = []
        else:
            rows.append(row)
    check_same(tm, files_dir, "".join(",".join(r) + "\n" for r in rows))
