"""What tarn-memdb-check finds in the rows of a table file."""

import pytest
from check_files import PORT_COLUMNS, expect, expect_clean, rows_of, table


def test_a_row_too_long_for_its_column_loads_changed(files):
    files.schema(table(columns=("a 3 1", "b 31 0"))).rows("t", "abc|x", "abcd|x")
    told = files.check()
    part = "the row loads changed: 'abcd' is cut to 'abc', the room of column 'a'"
    expect(told, "tables/t.tbl", 3, "warning", part)
    assert len(told.findings) == 1
    assert rows_of(files) == [b"abc|x", b"abc|x"]


def test_an_escape_loads_changed(files):
    files.schema(table()).rows("t", r"a\bc|x")
    part = r"the row loads changed, without its backslashes, as 'abc|x': 'a\bc|x'"
    expect(files.check(), "tables/t.tbl", 2, "warning", part)
    assert rows_of(files) == [b"abc|x"]


def test_a_row_that_is_taken_for_a_comment_is_told(files):
    files.schema(table()).rows("t", "x|y", "#x|y")
    expect(files.check(), "tables/t.tbl", 3, "warning", "is taken for a comment")


def test_rows_beyond_max_rows_are_told_once(files):
    files.schema(table(MAX_ROWS=2)).rows("t", "1|y", "2|y")
    expect_clean(files.check())
    told = files.rows("t", "1|y", "2|y", "3|y", "4|y").check()
    expect(told, "tables/t.tbl", 4, "warning", "there are more rows than MAX_ROWS, 2")
    assert len(told.findings) == 1


def test_a_last_line_without_an_end_is_told(files):
    files.schema(table()).write("tables/t.tbl", "Version 1\nx|y")
    expect(files.check(), "tables/t.tbl", 2, "warning", "the last line has no end")


def test_a_carriage_return_behind_a_row_is_told(files):
    files.schema(table()).write("tables/t.tbl", "Version 1\nx|y\r\n")
    expect(files.check(), "tables/t.tbl", 2, "warning", "a carriage return")


def test_a_zero_byte_is_told(files):
    files.schema(table()).write("tables/t.tbl", b"Version 1\nx|y\0z\n")
    expect(files.check(), "tables/t.tbl", 2, "warning", "holds a zero byte")
    assert rows_of(files) == [b"x|y"]


@pytest.mark.parametrize("index", ["x", "", "-5", "+5", "05", "4294967296"])
def test_an_index_that_is_no_number_is_told(files, index):
    files.schema(table(USE_INDEX=1)).rows("t", f"{index}|y")
    expect(files.check(), "tables/t.tbl", 2, "warning", f"the index '{index}' is no number")


def test_an_index_that_stands_twice_or_is_the_last_is_told(files):
    files.schema(table(USE_INDEX=1)).rows("t", "3|x", "3|y", "4294967295|z")
    told = files.check()
    expect(told, "tables/t.tbl", 3, "warning", "the index '3' stands in an earlier row as well")
    expect(told, "tables/t.tbl", 4, "warning", "the next insert draws none")


def test_an_index_that_stands_twice_is_found_wherever_it_stands(files):
    files.schema(table(USE_INDEX=1)).rows("t", "5|a", "7|b", "6|c", "8|d", "7|e", "5|f", "9|g")
    told = files.check()
    assert [(found.line, found.text) for found in told.findings] == [
        (line, f"the index '{index}' stands in an earlier row as well")
        for line, index in ((6, 7), (7, 5))
    ]


def test_a_next_index_that_scripts_take_for_a_failure_is_told(files):
    files.schema(table(USE_INDEX=1)).rows("t", "2147483646|x")
    expect_clean(files.check())
    files.rows("t", "2147483647|x")
    expect(files.check(), "tables/t.tbl", 0, "warning", "the next index, 2147483648, is beyond 31")


# What the next store makes of a row

KEPT = "the row can't be kept: the next store writes "


@pytest.mark.parametrize(
    "row, stored, outcome",
    [
        (r"a\|b|x", "a|b|x", "refuses, and the whole file with it"),
        (r"\*|x", "*|x", "refuses, and the whole file with it"),
        (r"x|a\\", "x|a\\", "refuses, and the whole file with it"),
        (r"a\\b|x", r"a\b|x", "reads as something else"),
        (r"\#a|x", "#a|x", "takes for a comment"),
    ],
)
def test_a_row_that_loads_but_cannot_be_stored_is_an_error(files, row, stored, outcome):
    files.schema(table()).rows("t", "x|y", row)
    told = files.check()
    said = f"{KEPT}'{stored}', which the start after it {outcome}"
    expect(told, "tables/t.tbl", 3, "error", said)
    first, second = rows_of(files)
    assert (first, second) == (b"x|y", stored.encode())
    files.rows("t", "x|y", stored)
    after = rows_of(files)
    assert after == ([] if "refuses" in outcome else [b"x|y", b"ab|x"][: 1 + ("else" in outcome)])


@pytest.mark.parametrize(
    "columns, row", [(("a 0 0", "b 0 0"), "x|y"), (("a 1 0", "b 9 0"), "*x|y")]
)
def test_a_row_that_is_cut_to_what_cannot_be_stored_is_an_error(files, columns, row):
    files.schema(table(columns=columns)).rows("t", row)
    assert files.check().has("tables/t.tbl", 2, "error", KEPT)
    (loaded,) = rows_of(files)
    files.rows("t", loaded.decode())
    assert rows_of(files) == []


def test_a_row_that_is_cut_to_nothing_is_passed_over_once_it_is_stored(files):
    files.schema(table(columns=("a 0 0",))).rows("t", "x")
    told = files.check()
    expect(told, "tables/t.tbl", 2, "error", f"{KEPT}'', which the start after it passes over")
    assert rows_of(files) == [b""]
    assert rows_of(files.rows("t", "")) == []


# What holds for many rows


def test_what_holds_for_every_row_is_told_once_for_each_column(files):
    files.schema(table(columns=("a 3 0", "b 3 0", "c 9 0")))
    files.rows("t", *(f"long{i}|long{i}|{i}\r" for i in range(9)))
    told = files.check()
    every = "in each of the 9 rows from here on: the row loads changed: 'long0' is cut to 'lon'"
    assert [(found.line, found.text) for found in told.findings] == [
        (2, f"{every}, the room of column '{column}'") for column in "ab"
    ]
    files.rows("t", *(f"a|b|{i}\r" for i in range(9)))
    (found,) = files.check().findings
    assert (found.line, found.text[:40]) == (2, "in each of the 9 rows from here on: a ca")


def test_rows_that_cannot_be_kept_for_different_reasons_are_told_each(files):
    files.schema(table()).rows("t", r"a\\b|x", r"a\|b|x", r"\#a|x")
    ends = [found.text.split()[-1] for found in files.check().findings if KEPT in found.text]
    assert ends == ["else", "it", "comment"]


def test_what_holds_for_all_rows_but_one_is_told_for_each(files):
    files.schema(table()).rows("t", *(f"a|b{i}\r" for i in range(20)), "a|b")
    assert [found.line for found in files.check().findings] == list(range(2, 22))


def test_of_what_holds_for_many_rows_the_first_twenty_are_told_by_line(files):
    files.schema(table(MAX_ROWS=1000)).rows("t", *(f"a|b{i}\r" for i in range(300)), "a|b")
    told = files.check().findings
    assert [found.line for found in told] == [*range(2, 22), 301]
    assert told[-1].text.startswith("likewise in 280 more rows up to here: a carriage return")


def test_comments_as_many_as_rows_are_told_one_by_one(files):
    files.schema(table()).rows("t", "a|b", "#x", "#y", "c|d")
    assert [found.line for found in files.check().findings] == [3, 4]


# Duplicates

EQUAL = "counts as equal to the row of line "
KEYED = ("id 10 1", "a 63 0", "b 63 0", "c 63 0")
LONG = "x" * 31


@pytest.mark.parametrize(
    "columns, rows, equal",
    [
        (None, ["x|y", "x|z", "x|y", "X|y", "x|y"], {4: 2, 6: 2}),
        (None, [f"{LONG}|y", f"{LONG}x|y"], {}),
        (None, [f"{LONG}x|y", f"{LONG}|y"], {3: 2}),
        (None, [r"a\bc|x", "abc|x"], {3: 2}),
        (KEYED, ["1|a|b|c", "2|a|b|c", "3|a|b|d"], {3: 2}),
        (KEYED, ["1|a|b|" + "c" * 40, "2|a|b|" + "c" * 40], {3: 2}),
        (KEYED, ["1|" + "a" * 31 + "|b|c", "2|" + "a" * 31 + "|b|c"], {3: 2}),
        (KEYED, ["1|" + "a" * 32 + "|b|c", "2|" + "a" * 32 + "|b|c"], {}),
        # A value that is spoilt by the next one looks like this.
        (KEYED, ["1|" + "a" * 32 + "b|b|c", "2|" + "a" * 32 + "|b|c"], {3: 2}),
        (KEYED, ["1|" + "a" * 32 + "|b|c", "2|" + "a" * 32 + "b|b|c"], {}),
        (("id 10 1",), ["1", "2"], {3: 2}),
    ],
)
def test_rows_that_the_check_for_duplicates_takes_for_equal_are_told(files, columns, rows, equal):
    keys = {"USE_INDEX": int(columns is not None), "DUPLICATED_DATA_CHECK": 1}
    files.schema(table("t", columns or ("a 31 1", "b 31 0"), **keys)).rows("t", *rows)
    told = files.check().findings
    assert {
        found.line: int(found.text.removeprefix(EQUAL).split(":")[0])
        for found in told
        if found.text.startswith(EQUAL)
    } == equal
    assert len(rows_of(files)) == len(rows)
    keys["DUPLICATED_DATA_CHECK"] = 0
    files.schema(table("t", columns or ("a 31 1", "b 31 0"), **keys))
    assert EQUAL not in files.check().out


def test_rows_of_tables_with_ports_are_equal_in_columns_1_to_3(files):
    files.schema(table("t", PORT_COLUMNS, ports=("dynamic", 4, 6), DUPLICATED_DATA_CHECK=1))
    rows = ["1|a|b|c|21001|WAN||0|0", "2|a|b|c|21002|WAN||0|0", "3|a|b|d|21003|WAN||0|0"]
    (found,) = files.rows("t", *rows).check().findings
    assert (found.line, found.text[: len(EQUAL) + 1]) == (3, EQUAL + "2")


def test_equal_rows_among_very_many_are_found(files):
    rows = [f"user{i * 7919 % 100003}|x" for i in range(30000)]
    rows[29000] = rows[17]
    files.schema(table(MAX_ROWS=100000, DUPLICATED_DATA_CHECK=1)).rows("t", *rows)
    (found,) = files.check().findings
    assert (found.line, found.text[: len(EQUAL) + 2]) == (29002, EQUAL + "19")


def test_a_table_of_one_text_many_times_is_looked_through_at_once(files):
    files.schema(table(MAX_ROWS=10**6, DUPLICATED_DATA_CHECK=1)).rows("t", *["x|y"] * 200_000)
    told = files.check().findings
    assert [found.line for found in told] == [*range(3, 23), 200_001]
