"""Tables as CSV: what tarn-memdb-convert exports, and what it takes."""

import csv
import io
import os
import random
import subprocess

import pytest
from convert_files import CONVERT, expect_done, expect_nothing_changed, table


def one(files, *columns, **keys):
    return files.schemas(table(*(columns or ("a", "b")), **keys), [])


def test_an_export_has_a_line_of_names_and_the_rows_oldest_first(files):
    one(files).rows("t", "1|x y", "2|", "|z")
    assert files.export() == b"a,b\r\n1,x y\r\n2,\r\n,z\r\n"


def test_an_export_quotes_what_would_be_read_otherwise(files):
    one(files).rows("t", 'a,b|say "x"', "c\rd|e")
    assert files.export() == b'a,b\r\n"a,b","say ""x"""\r\n"c\rd",e\r\n'


def test_an_export_reads_the_file_as_a_start_does(files):
    one(files, "a 3 0", "b").write("tables/t.tbl", "Version 1\n#x\nabc|y\\z\n\n")
    told = files.convert("--export", "t", files=("old.cfg",))
    assert told.out == "a,b\r\nabc,yz\r\n"
    assert "2: warning: is taken for a comment" in told.err


def test_an_export_without_a_main_file_has_the_rows_of_the_backup(files):
    one(files).rows("t", "1|2", backup=True)
    told = files.convert("--export", "t", files=("old.cfg",))
    assert (told.status, told.out) == (0, "a,b\r\n1,2\r\n")
    assert "is missing: the rows are those of" in told.err


def test_an_export_of_a_table_without_files_has_the_names(files):
    told = one(files).convert("--export", "t", files=("old.cfg",))
    assert (told.status, told.out) == (0, "a,b\r\n")


def test_an_export_of_a_bad_file_writes_no_row(files):
    one(files).rows("t", "1|2", "3").rows("t", "1|2", backup=True)
    told = files.convert("--export", "t", files=("old.cfg",))
    assert (told.status, told.out) == (1, "")
    assert told.has("tables/t.tbl", 3, "error", "with 1 field for 2 columns")


def test_an_export_that_cannot_be_written_ends_with_2(files):
    one(files).rows("t", "1|2")
    with open("/dev/full", "wb") as full:
        command = [CONVERT, "--export", "t", str(files.directory / "old.cfg")]
        ran = subprocess.run(command, stdout=full, stderr=subprocess.PIPE, check=False, timeout=60)
    assert ran.returncode == 2 and b"can't be written: No space left" in ran.stderr


def test_an_export_that_nobody_reads_to_its_end_ends_with_2(files):
    one(files).rows("t", *(f"{i}|{'x' * 30}" for i in range(20000)))
    command = [CONVERT, "--export", "t", str(files.directory / "old.cfg")]
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as ran:
        ran.stdout.close()
        assert b"Broken pipe" in ran.stderr.read()
    assert ran.returncode == 2


def test_an_import_makes_a_main_file(files):
    one(files).rows("t", "old|row").rows("t", "older|row", backup=True)
    told = files.take("a,b\r\n1,2\r\n,4\r\n", "--apply")
    expect_done(told)
    assert files.lines("tables/t.tbl") == ["1|2", "|4"]
    assert files.lines("tables/t.tbl.old-1") == ["old|row"]
    assert files.lines("backup/t.tbl.backup") == ["older|row"]
    assert told.out == "t: 2 rows in tables/t.tbl, the former file is tables/t.tbl.old-1\n"


def test_an_import_without_apply_replaces_nothing(files):
    one(files).rows("t", "old|row")
    before = files.texts()
    expect_done(files.take("a,b\n1,2\n"))
    new = files.texts()
    assert new.pop("tables/t.tbl.converted") == b"Version 1\n1|2\n"
    assert new == before


def test_an_import_may_come_from_a_file(files):
    one(files).write("rows.csv", "a,b\n1,2\n")
    expect_done(files.convert("--import", "t", "--apply", files=("old.cfg", "rows.csv")))
    assert files.lines("tables/t.tbl") == ["1|2"]


def test_columns_may_come_in_any_order(files):
    expect_done(one(files).take("b,a\n2,1\n", "--apply"))
    assert files.lines("tables/t.tbl") == ["1|2"]


GOOD = {
    "quotes": ('a,b\n"x","say ""y"""\n', ['x|say "y"']),
    "commas": ('a,b\n"x,y",z\n', ["x,y|z"]),
    "a carriage return between quotes": ('a,b\n"x\ry",z\n', ["x\ry|z"]),
    "no end of the last line": ("a,b\n1,2", ["1|2"]),
    "an empty value at the end": ("a,b\n1,", ["1|"]),
    "empty lines": ("\n\r\na,b\n\n1,2\r\n\r\n", ["1|2"]),
    "a byte order mark": ("\xef\xbb\xbfa,b\n1,2\n", ["1|2"]),
    "quoted names": ('"a","b"\n1,2\n', ["1|2"]),
    "blanks": ("a,b\n 1 ,2\n", [" 1 |2"]),
    "bytes that are no UTF-8": ("a,b\n\xff,2\n", ["\xff|2"]),
    "names alone": ("a,b\n", []),
}


@pytest.mark.parametrize("kind", GOOD)
def test_forms_that_are_taken(files, kind):
    text, rows = GOOD[kind]
    expect_done(one(files).take(text, "--apply"))
    told = files.text("tables/t.tbl").split("\n")
    assert told == ["Version 1", *rows, ""]


BAD = {
    "nothing": ("", 0, "is empty: the first line has the names of the columns"),
    "an unknown column": ("a,b,c\n1,2,3\n", 1, "'c' is no column of table 't'"),
    "a column that stands twice": ("a,b,a\n1,2,3\n", 1, "column 'a' stands there twice"),
    "a missing column": ("a\n1\n", 1, "has no column 'b': --default t.b= gives it a value"),
    "too few values": ("a,b\n1,2\n3\n", 3, "has 1 value for 2 columns"),
    "too many values": ("a,b\n1,2,\n", 2, "has 3 values for 2 columns"),
    "a quote that isn't closed": ('a,b\n1,2\n"3,4\n5,6\n', 3, "a quote isn't closed"),
    "a quote within a value": ('a,b\n1,x"y\n', 2, "a quote stands within a value"),
    "text behind a quote": ('a,b\n"1"x,y\n', 2, "something stands behind a closed quote"),
    "a bare carriage return": ("a,b\n1\r2,3\n", 2, "a carriage return stands outside of quotes"),
    "a bare carriage return ahead of all": ("a,b\n\rx,2\n", 2, "a carriage return stands out"),
    "a carriage return behind a quote": ('a,b\n"1"\r,2\n', 2, "a carriage return stands behind"),
    "a line end in a value": ('a,b\n1,2\n"3\n4",5\n6,7\n', 3, "'3\\x0a4' in column 'a' has a line"),
    "a bar": ("a,b\n1,x|y\n", 2, "'x|y' in column 'b' has a '|', which can't be stored"),
    "a backslash": ("a,b\n1,x\\y\n", 2, "has a backslash, which can't be stored"),
    "a zero byte": ("a,b\n1,x\0y\n", 2, "has a zero byte, which can't be stored"),
    "a star": ("a,b\n*,x\n", 2, "a '*' is the whole value of column 'a'"),
    "a comment": ("a,b\n#1,x\n", 2, "the row would begin with a '#', '#1'"),
    "an empty row": ("a,b\n,\n", 2, "the row has nothing but empty values"),
    "a value that is too long": (f"a,b\n1,{'x' * 32}\n", 2, "doesn't fit column 'b'"),
}


@pytest.mark.parametrize("kind", BAD)
def test_forms_that_are_refused_change_nothing(files, kind):
    text, line, part = BAD[kind]
    one(files).rows("t", "old|row")
    before = files.texts()
    told = files.take(text, "--apply")
    expect_nothing_changed(files, before, told)
    assert told.has("standard input", line, "error", part), told.out
    assert len(told.findings) == 1


def test_all_bad_rows_are_told_with_their_lines(files):
    text = 'a,b\n"x\n",1\n*,2\n"y,\n'
    told = one(files).take(text.replace('"y,', "y|,3"))
    assert [found.line for found in told.findings] == [2, 4, 5]
    told = files.take("a,b\n" + "1\n" * 30 + "*,2\n")
    assert [found.line for found in told.findings] == [32, *range(2, 22), 31]
    assert told.findings[-1].text.startswith("likewise in 10 more rows up to here: has 1 value")


def test_a_missing_column_takes_its_default(files):
    expect_done(one(files).take("a\n1\n2\n", "--default", "t.b=x", "--apply"))
    assert files.lines("tables/t.tbl") == ["1|x", "2|x"]


def test_a_missing_index_counts_from_1(files):
    expect_done(one(files, "id", "b", USE_INDEX=1).take("b\nx\ny\n", "--apply"))
    assert files.lines("tables/t.tbl") == ["1|x", "2|y"]


@pytest.mark.parametrize("text", ["x", "", "01", "4294967296"])
def test_an_index_that_is_no_number_is_refused(files, text):
    told = one(files, "id", "b", USE_INDEX=1).take(f"id,b\n1,x\n{text},y\n")
    assert told.status == 1
    assert told.has("standard input", 3, "error", f"the index '{text}' is no number")


def test_more_rows_than_max_rows_are_refused(files):
    told = one(files, MAX_ROWS=2).take("a,b\n1,2\n3,4\n5,6\n")
    assert told.status == 1
    assert told.has("standard input", 4, "error", "more rows than table 't' may have: 3")


def test_equal_rows_are_told(files):
    told = one(files, DUPLICATED_DATA_CHECK=1).take("a,b\n1,2\n1,2\n")
    expect_done(told)
    assert told.has("standard input", 3, "warning", "counts as equal to the row of line 2")


def test_cut_cuts_what_does_not_fit(files):
    told = one(files, "a", "b 3 0").take("a,b\n1,wxyz\n", "--cut", "--apply")
    expect_done(told)
    assert files.lines("tables/t.tbl") == ["1|wxy"]
    assert told.has("standard input", 2, "warning", "'wxyz' is cut to 'wxy'")


@pytest.mark.parametrize("command", [("--export", "u"), ("--import", "u")], ids="".join)
def test_a_table_that_is_not_there_is_told(files, command):
    told = one(files).convert(*command, files=("old.cfg",), input=b"a\n1\n")
    assert told.status == 1 and told.has("old.cfg", 0, "error", "has no table 'u'")


def test_csv_that_is_missing_ends_with_2(files):
    told = one(files).convert("--import", "t", files=("old.cfg", "none.csv"))
    assert told.status == 2 and told.has("none.csv", 0, "error", "can't be read: No such file")


def test_csv_that_cannot_be_read_to_its_end_ends_with_2(files):
    told = one(files).convert("--import", "t", files=("old.cfg", "tables"))
    assert told.status == 2 and told.has("tables", 0, "error", "can't be read: Is a directory")


def test_a_first_file_is_made_for_whom_the_folder_is_for(files):
    tables = one(files).directory / "tables"
    tables.chmod(0o750)
    if os.geteuid() == 0:
        os.chown(tables, 1234, 2345)
    umasked = ["sh", "-c", 'umask 022; exec "$0" "$@"']
    expect_done(files.take("a,b\n1,2\n", "--apply", prefix=umasked))
    status = (tables / "t.tbl").stat()
    if os.geteuid() == 0:
        assert (status.st_mode & 0o777, status.st_uid, status.st_gid) == (0o640, 1234, 2345)
    else:
        assert status.st_mode & 0o777 == 0o644


def test_what_was_exported_is_imported_as_it_was(files):
    """Random values, beside another program's idea of CSV."""
    chance = random.Random(18)
    letters = 'ab ",\r;\t\'\xff#*x'
    columns = ("a", "b", "c")
    one(files, *columns)
    rows = []
    while len(rows) < 90:
        row = ["".join(chance.choices(letters, k=chance.randrange(6))) for _ in columns]
        if any(row) and "*" not in row and not row[0].startswith("#"):
            rows.append(row)
    files.rows("t", *map("|".join, rows))
    text = files.export()
    parsed = list(csv.reader(io.StringIO(text.decode("latin-1"), newline=""), strict=True))
    assert parsed == [list(columns), *rows]
    main = (files.directory / "tables/t.tbl").read_bytes()
    expect_done(files.take(text))
    assert (files.directory / "tables/t.tbl.converted").read_bytes() == main
    other = io.StringIO(newline="")
    csv.writer(other, quoting=csv.QUOTE_ALL).writerows([columns, *rows])
    expect_done(files.take(other.getvalue()))
    assert (files.directory / "tables/t.tbl.converted").read_bytes() == main


def test_what_a_cut_leaves_is_checked_as_well(files):
    told = one(files, "a 1 0", "b").take("a,b\n*x,y\n", "--cut")
    assert told.status == 1
    assert told.has("standard input", 2, "error", "a '*' is the whole value of column 'a'")
