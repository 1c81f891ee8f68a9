"""What tarn-memdb-check finds, where, with which exit status, and that it touches nothing."""

import pathlib
import random
import re
import tempfile

import pytest

from check_files import PORT_COLUMNS, CheckFiles, as_json, port_row, run, table


@pytest.fixture
def files(tmp_path):
    return CheckFiles(tmp_path)


def expect(outcome, file, line, severity, part):
    assert outcome.status == 1, outcome.out
    assert outcome.has(file, line, severity, part), outcome.out


def expect_clean(outcome):
    assert (outcome.status, outcome.out, outcome.err) == (0, "clean\n", "")


# Use


def test_files_in_order_are_clean(files):
    files.schema(
        table("plain", LOG_TAG="TAG"),
        table("ports", PORT_COLUMNS, ports=("dynamic", 3, 4)),
        table("indexed", USE_INDEX=1),
    )
    files.rows("plain", "x|y", "x|", "|y").rows("plain", "old|row", backup=True)
    files.rows("ports", port_row("1", "WAN", "21005"), port_row("2", "LAN", "", "10005"))
    files.rows("indexed", "1|x", "7|y")
    files.write("ranges.txt", "INT 21200 21201\nEXT 10100 10101\n")
    expect_clean(files.check(ranges=True))


def test_json_is_an_object_of_the_same_findings(files):
    files.schema(table(MAX_ROWS=None)).rows("t", "x|y")
    lines = files.check()
    told = files.check(options=["--json"])
    assert told.status == 1
    told = as_json(told.out)
    assert told["clean"] is False
    assert [
        (files.relative(one["file"]), one["line"], one["severity"], one["text"])
        for one in told["findings"]
    ] == [(one.file, one.line, one.severity, one.text) for one in lines.findings]
    assert len(lines.findings) == len(lines.out.splitlines()) > 0


def test_json_of_clean_files_says_so(files):
    files.schema(table())
    told = files.check(options=["--json"])
    assert told.status == 0
    assert as_json(told.out) == {"clean": True, "findings": []}


def test_json_stays_json_when_a_file_holds_other_bytes(files):
    files.schema(table()).rows("t", '\xff\xfe"|\x01|z')
    told = files.check(options=["--json"])
    assert told.status == 1
    assert len(as_json(told.out)["findings"]) == 2


def test_help_goes_to_output_with_status_0():
    for option in ("--help", "-h"):
        ran = run(option)
        assert (ran.returncode, ran.stderr) == (0, "")
        assert ran.stdout.startswith("usage: tarn-memdb-check [options] SCHEMA [PRIVATE_RANGES]\n")
        for known in ("--json", "--int-ports", "--static-ext-ports", "Exit status: 0 clean"):
            assert known in ran.stdout


@pytest.mark.parametrize(
    "arguments",
    [
        (),
        ("a", "b", "c"),
        ("--unknown", "a"),
        ("--int-ports",),
        ("--int-ports", "5", "a"),
        ("--int-ports", "9-5", "a"),
        ("--ext-ports", "1-2x", "a"),
        ("--static-int-ports", "x-2", "a"),
        ("--static-ext-ports", "", "a"),
        ("--json=yes", "a"),
    ],
    ids=" ".join,
)
def test_arguments_that_are_not_understood_end_with_2_and_the_usage(arguments):
    ran = run(*arguments)
    assert ran.returncode == 2
    assert ran.stdout == ""
    assert "usage: tarn-memdb-check" in ran.stderr


# What can't be read


def test_a_schema_that_is_missing_ends_with_2(files):
    told = files.check()
    assert told.status == 2
    assert told.has("schema.cfg", 0, "error", "can't be read")
    json = files.check(options=["--json"])
    assert json.status == 2 and as_json(json.out)["clean"] is False


def test_a_schema_that_is_a_directory_ends_with_2(files):
    assert files.check("tables").status == 2


def test_private_ranges_that_are_missing_end_with_2_after_the_other_findings(files):
    files.schema(table(MAX_ROWS=None))
    told = files.check(ranges=True)
    assert told.status == 2
    assert told.has("ranges.txt", 0, "error", "can't be read")
    assert told.has("schema.cfg", 8, "warning", "MAX_ROWS= is missing")


def test_a_table_file_that_is_a_directory_ends_with_2(files):
    files.schema(table())
    (files.directory / "tables/t.tbl").mkdir()
    told = files.check()
    assert told.status == 2
    assert told.has("tables/t.tbl", 0, "error", "can't be read")


# Keys

TAKEN = {
    "TABLE_NAME": ("warning", 4, "the table has no name"),
    "FLAG": ("warning", 5, "the table holds no ports"),
    "USE_INDEX": ("warning", 6, "no index is generated"),
    "DUPLICATED_DATA_CHECK": ("warning", 7, "duplicates are let in"),
    "MAX_ROWS": ("warning", 8, "the table takes no rows"),
}


@pytest.mark.parametrize("key", TAKEN)
def test_a_missing_key_is_told_at_the_line_that_stands_in_its_place(files, key):
    severity, line, taken = TAKEN[key]
    files.schema(table(**{key: None}))
    expect(files.check(), "schema.cfg", line, severity, f"{key}= is missing")
    assert taken in files.check().out
    assert files.start() is not None


@pytest.mark.parametrize(
    "key, line, taken",
    [
        ("RANGE", 6, "the static port maps are taken"),
        ("INT_PORT_FIELD", 7, "column 0 is taken"),
        ("EXT_PORT_FIELD", 8, "column 0 is taken"),
    ],
)
def test_a_missing_port_key_is_told(files, key, line, taken):
    files.schema(table("t", PORT_COLUMNS, ports=("static", 3, 4), **{key: None}))
    expect(
        files.check(), "schema.cfg", line, "warning", f"{key}= is missing before this line: {taken}"
    )
    assert files.start() is not None


def test_a_missing_log_tag_is_no_finding(files):
    expect_clean(files.schema(table()).check())


@pytest.mark.parametrize("key", ["NUM_FIELDS", "FILE_NAME"])
def test_a_missing_key_that_fails_the_start_is_an_error(files, key):
    files.schema(table("t", **{key: None}), table("u"))
    told = files.check()
    expect(told, "schema.cfg", 0, "error", "the start fails: ")
    expect(told, "schema.cfg", 9 if key == "NUM_FIELDS" else 12, "error", "stands where")
    assert files.start() is None


@pytest.mark.parametrize("key, line", [("BASE_DIR", 1), ("BASE_BACKUP_DIR", 2), ("NUM_TABLE", 3)])
def test_a_missing_key_of_the_head_is_told(files, key, line):
    text = files.schema(table()).directory.joinpath("schema.cfg").read_text()
    files.write("schema.cfg", re.sub(rf"^{key}=.*\n", "", text, flags=re.M))
    expect(files.check(), "schema.cfg", line, "warning", f"{key}= is missing before this line")
    assert files.start() is not None


KEYS_IN_ORDER = ["TABLE_NAME", "FLAG", "LOG_TAG", "USE_INDEX", "DUPLICATED_DATA_CHECK", "MAX_ROWS"]


@pytest.mark.parametrize("key", KEYS_IN_ORDER)
def test_a_misplaced_key_is_an_error_where_it_stands(files, key):
    block = table(LOG_TAG="TAG").splitlines()
    moved = next(line for line in block if line.startswith(key + "="))
    block.remove(moved)
    at = next(i for i, line in enumerate(block) if line.startswith("NUM_FIELDS="))
    block.insert(at + 1, moved)
    files.schema("\n".join(block) + "\n")
    told = files.check()
    expect(told, "schema.cfg", 0, "error", "the start fails: ")
    assert told.has("schema.cfg", 4 + at + 1, "error", f"'{moved}' stands where"), told.out
    assert files.start() is None


def test_misplaced_keys_of_the_head_leave_the_module_without_tables(files):
    head = files.head(1).splitlines(keepends=True)
    files.write("schema.cfg", head[1] + head[0] + head[2] + table())
    told = files.check()
    expect(told, "schema.cfg", 2, "error", "this and every later line is passed over")
    assert "the start fails" not in told.out
    assert files.start() == []


@pytest.mark.parametrize("line", ["COLOUR=red", "# a comment", "flag=0"])
def test_a_line_that_is_no_key_is_an_error(files, line):
    files.schema(table().replace("USE_INDEX", f"{line}\nUSE_INDEX"))
    told = files.check()
    expect(told, "schema.cfg", 6, "error", f"'{line}' stands where LOG_TAG= is read")
    assert files.start() is None


def test_port_keys_of_a_table_without_ports_fail_the_start(files):
    files.schema(table("t", PORT_COLUMNS, ports=("dynamic", 3, 4), FLAG=0))
    expect(files.check(), "schema.cfg", 6, "error", "'RANGE=dynamic' stands where LOG_TAG= is read")
    assert files.start() is None


@pytest.mark.parametrize(
    "key, limit, line",
    [("TABLE_NAME", 31, 4), ("RANGE", 7, 6), ("FILE_NAME", 255, 22)],
)
def test_a_value_is_too_long_from_its_limit_on(files, key, limit, line):
    def ports(value):
        return table("t", PORT_COLUMNS, ports=("static", 3, 4), **{key: value})

    fits = files.schema(ports("v" * limit)).check()
    assert "longer than" not in fits.out
    assert files.start() is not None
    told = files.schema(ports("v" * (limit + 1))).check()
    expect(told, "schema.cfg", line, "error", f"longer than {limit} characters: the start fails")
    assert files.start() is None


@pytest.mark.parametrize("key, line", [("BASE_DIR", 1), ("BASE_BACKUP_DIR", 2)])
def test_a_directory_is_too_long_from_256_characters_on(files, key, line):
    text = files.schema(table()).directory.joinpath("schema.cfg").read_text()

    def with_length(count):
        files.write(
            "schema.cfg", re.sub(rf"^{key}=.*", f"{key}=/{'x' * (count - 2)}/", text, flags=re.M)
        )
        return files.check()

    assert "longer than" not in with_length(255).out
    assert files.start() is not None
    expect(with_length(256), "schema.cfg", line, "error", "longer than 255 characters")
    assert files.start() is None


def test_a_column_name_is_too_long_from_32_characters_on(files):
    expect_clean(files.schema(table(columns=("a" * 31 + " 5 0",))).check())
    told = files.schema(table(columns=("a" * 32 + " 5 0",))).check()
    expect(told, "schema.cfg", 10, "error", "longer than 31 characters: the start fails")


def test_a_log_tag_of_16_characters_stands_in_the_way_of_later_keys(files):
    expect_clean(files.schema(table(LOG_TAG="T" * 15)).check())
    told = files.schema(table(LOG_TAG="T" * 16)).check()
    expect(told, "schema.cfg", 6, "error", "longer than 15 characters: every later key")
    assert files.start() is None


@pytest.mark.parametrize("key, line", [("TABLE_NAME", 4), ("LOG_TAG", 6)])
def test_an_empty_value_takes_the_next_line(files, key, line):
    told = files.schema(table(**{key: ""})).check()
    expect(told, "schema.cfg", line, "error", f"{key}= has no value: the next line")


def test_an_empty_file_name_takes_the_next_line(files):
    told = files.schema(table("t", FILE_NAME=""), table("u")).check()
    expect(
        told, "schema.cfg", 12, "error", "FILE_NAME= has no value: the next line, 'TABLE_NAME=u'"
    )


@pytest.mark.parametrize("key, line", [("BASE_DIR", 1), ("BASE_BACKUP_DIR", 2)])
def test_an_empty_directory_takes_the_next_line(files, key, line):
    text = files.schema(table()).directory.joinpath("schema.cfg").read_text()
    files.write("schema.cfg", re.sub(rf"^{key}=.*", f"{key}=", text, flags=re.M))
    expect(files.check(), "schema.cfg", line, "error", f"{key}= has no value: the next line")


@pytest.mark.parametrize("key, line", [("FLAG", 5), ("USE_INDEX", 6), ("MAX_ROWS", 8)])
@pytest.mark.parametrize("value", ["", "many"])
def test_a_key_without_a_number_is_an_error(files, key, line, value):
    told = files.schema(table(**{key: value})).check()
    expect(told, "schema.cfg", line, "error", "has no number that can be read")
    assert files.start() is None


def test_a_flag_other_than_0_and_1_is_told(files):
    told = files.schema(table(FLAG=2)).check()
    expect(told, "schema.cfg", 4, "warning", "neither 0 nor 1")


def test_an_unknown_range_word_is_told(files):
    told = files.schema(table("t", PORT_COLUMNS, ports=("dynamik", 3, 4))).check()
    expect(told, "schema.cfg", 6, "warning", "RANGE=dynamik is no known range")


def test_too_many_fields_for_the_lines_are_told(files):
    told = files.schema(table("t", NUM_FIELDS=3), table("u")).check()
    expect(told, "schema.cfg", 12, "error", "NUM_FIELDS says 3")
    assert files.start() is None


def test_too_few_fields_for_the_lines_are_told(files):
    told = files.schema(table("t", NUM_FIELDS=1), table("u")).check()
    expect(told, "schema.cfg", 11, "error", "'b 31 0' stands where FILE_NAME= is read")
    assert files.start() is None


def test_a_negative_number_of_fields_fails_the_start(files):
    told = files.schema(table(NUM_FIELDS=-1)).check()
    expect(told, "schema.cfg", 4, "error", "is below 0: the start fails")
    assert files.start() is None


def test_tables_beyond_num_table_are_told(files):
    told = files.schema(table("t"), table("u"), num_table=1).check()
    expect(told, "schema.cfg", 13, "warning", "nothing from here on is read: NUM_TABLE says 1")
    assert [one.main for one in files.start()] == ["tables/t.tbl"]


def test_tables_that_num_table_promises_in_vain_are_told_once(files):
    told = files.schema(table("t"), num_table=1000).check()
    expect(told, "schema.cfg", 13, "error", "the file ends after 1 tables: NUM_TABLE says 1000")
    assert len(told.findings) == 1
    assert len(files.start()) == 1000


def test_a_negative_number_of_tables_fails_the_start(files):
    told = files.schema(table(), num_table=-1).check()
    expect(told, "schema.cfg", 3, "error", "NUM_TABLE is below 0")
    assert files.start() is None


def test_a_schema_that_ends_before_its_file_name_is_told(files):
    told = files.schema(table(FILE_NAME=None)).check()
    expect(told, "schema.cfg", 12, "error", "its rows go to a file without a name")
    assert len(told.findings) == 1
    assert [one.rows for one in files.start()] == [[]]


@pytest.mark.parametrize("line", ["a", "a 31", "a x 1", "a 31 0 more"])
def test_a_field_line_that_is_none_is_an_error(files, line):
    told = files.schema(table(columns=(line, "b 31 0"))).check()
    expect(told, "schema.cfg", 10, "error", f"'{line}' isn't a column's name, length and flag")


@pytest.mark.parametrize(
    "line, severity, text",
    [
        ("a 0 0", "warning", "has room for no text: length 0"),
        ("a -1 0", "error", "has the length -1"),
        ("a 9 2", "warning", "flag 2 of column 'a'"),
        ("b 9 0", "warning", "a column named 'b' stands before"),
    ],
)
def test_odd_columns_are_told(files, line, severity, text):
    told = files.schema(table(columns=("b 31 0", line))).check()
    expect(told, "schema.cfg", 11, severity, text)


def test_tables_of_one_name_or_one_file_are_told(files):
    told = files.schema(table("t"), table("t")).check()
    expect(told, "schema.cfg", 13, "warning", "a table of the name 't' stands above")
    expect(told, "schema.cfg", 21, "error", "is the file of table 't' as well")


def test_a_table_name_that_no_query_can_name_is_told(files):
    expect(files.schema(table("a,b")).check(), "schema.cfg", 4, "warning", "no query can name")


def test_an_index_column_too_short_for_its_numbers_is_told(files):
    told = files.schema(table(columns=("a 9 1", "b 31 0"), USE_INDEX=1)).check()
    expect(told, "schema.cfg", 10, "warning", "has room for 9 digits")


def test_directories_that_cannot_serve_are_told(files):
    where = files.directory
    head = f"BASE_DIR={where}/missing/\nBASE_BACKUP_DIR={where}/backup\nNUM_TABLE=1\n"
    told = files.write("schema.cfg", head + table()).check()
    expect(told, "schema.cfg", 1, "warning", "can't be written to")
    expect(told, "schema.cfg", 2, "warning", "doesn't end in '/'")


@pytest.mark.parametrize(
    "columns, ports, lacking",
    [
        (5, ("static", 3, 4), ["5 for the location", "7 for the type"]),
        (7, ("static", 3, 4), ["7 for the type"]),
        (8, ("dynamic", 3, 4), ["8 for the type"]),
        (9, ("static", 9, 4), ["9 for the internal port"]),
        (9, ("static", 3, 10), ["10 for the external port"]),
        (9, ("static", -1, 4), ["-1 for the internal port"]),
    ],
)
def test_port_tables_without_the_columns_of_the_port_rules_are_told(files, columns, ports, lacking):
    told = files.schema(table("t", PORT_COLUMNS[:columns], ports=ports)).check()
    for column in lacking:
        expect(told, "schema.cfg", 4, "error", f"has no column {column}")
    assert len(told.findings) == len(lacking)


def test_eight_columns_are_enough_for_the_static_maps(files):
    expect_clean(files.schema(table("t", PORT_COLUMNS[:8], ports=("static", 3, 4))).check())


# Rows


def rows_of(files):
    (only,) = files.start()
    return only.rows


BAD_FILES = {
    "a field too few": ("Version 1\nx|y\nx\n", 3, "the row is refused"),
    "a field too many": ("Version 1\nx|y|z\n", 2, "the row is refused"),
    "a wildcard": ("Version 1\n*|y\n", 2, "Wildcard are not allowed"),
    "no value at all": ("Version 1\n|\n", 2, "Empty fields are not allowed"),
    "an escaped separator": ("Version 1\nx\\|y\n", 2, "the row is refused"),
    "an escape at the end": ("Version 1\nx|y\\\n", 2, "Bad escape detected"),
    "another version": ("Version 2\nx|y\n", 1, "is 'Version 2' and not 'Version 1'"),
    "carriage returns": (
        "Version 1\r\nx|y\r\n",
        1,
        r"is 'Version 1\x0d' and not 'Version 1': lines end in",
    ),
    "no byte": ("", 0, "is empty"),
    "a blank first line": ("\nVersion 1\n", 1, "is '' and not 'Version 1'"),
}


@pytest.mark.parametrize("kind", BAD_FILES)
@pytest.mark.parametrize("backup", ["good", "bad", "absent"])
def test_a_bad_file_is_told_and_what_becomes_of_the_rows(files, kind, backup):
    text, line, part = BAD_FILES[kind]
    files.schema(table()).write("tables/t.tbl", text)
    if backup == "good":
        files.rows("t", "saved|row", backup=True)
    elif backup == "bad":
        files.rows("t", "x|y|z|w", backup=True)
    told = files.check()
    expect(told, "tables/t.tbl", line, "error", part)
    where = files.directory
    end = {
        "good": f"is removed, and table 't' is loaded from {where}/backup/t.tbl.backup",
        "bad": f"is removed, and so is {where}/backup/t.tbl.backup: table 't' starts empty, with "
        "no data left on disk",
        "absent": "is removed, and there is no backup: table 't' starts empty, with no data left "
        "on disk",
    }[backup]
    expect(told, "tables/t.tbl", 0, "error", end)
    assert told.has("backup/t.tbl.backup", 2, "error", "refused") == (backup == "bad")
    assert rows_of(files) == ([b"saved|row"] if backup == "good" else [])
    assert not (where / "tables/t.tbl").exists()
    assert (where / "backup/t.tbl.backup").exists() == (backup == "good")


def test_a_missing_main_file_is_told_if_there_is_a_backup(files):
    files.schema(table()).rows("t", "x|y", backup=True)
    expect(files.check(), "tables/t.tbl", 0, "warning", "is missing: table 't' is loaded from")


def test_a_bad_backup_without_a_main_file_is_told(files):
    files.schema(table()).rows("t", "x", backup=True)
    expect(
        files.check(), "backup/t.tbl.backup", 0, "error", "is removed, and there is no main file"
    )


def test_a_bad_backup_behind_a_good_main_file_is_told(files):
    files.schema(table()).rows("t", "x|y").rows("t", "x", backup=True)
    expect(
        files.check(), "backup/t.tbl.backup", 0, "warning", "couldn't stand in for the main file"
    )


def test_a_row_too_long_for_its_column_loads_changed(files):
    files.schema(table(columns=("a 3 1", "b 31 0"))).rows("t", "abc|x", "abcd|x")
    told = files.check()
    expect(
        told, "tables/t.tbl", 3, "warning", "the row loads changed, as 'abc|x' (Value 'abcd' too"
    )
    assert len(told.findings) == 1
    assert rows_of(files) == [b"abc|x", b"abc|x"]


def test_an_escape_loads_changed(files):
    files.schema(table()).rows("t", r"a\bc|x")
    expect(
        files.check(), "tables/t.tbl", 2, "warning", r"the row loads changed, as 'abc|x': 'a\bc|x'"
    )


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


# Ports


@pytest.mark.parametrize(
    "word, location, bounds",
    [
        ("dynamic", "WAN", (21000, 21255)),
        ("dynamic", "LAN", (10000, 15000)),
        ("static", "WAN", (21000, 21255)),
        ("static", "LAN", (9000, 9255)),
    ],
)
def test_ports_outside_their_map_are_told(files, word, location, bounds):
    files.schema(table("t", PORT_COLUMNS, ports=(word, 3, 4)))
    low, high = bounds
    rows = [port_row(str(i), location, p, p) for i, p in enumerate((low, high, low - 1, high + 1))]
    told = files.rows("t", *rows).check()
    for line, port in ((4, low - 1), (5, high + 1)):
        part = f"the row's port '{port}' lies outside its map, {low} to {high}"
        expect(told, "tables/t.tbl", line, "warning", part)
    assert len(told.findings) == 2


def test_the_number_6_in_the_type_column_picks_the_internal_port(files):
    files.schema(table("t", PORT_COLUMNS, ports=("dynamic", 3, 4)))
    expect_clean(files.rows("t", port_row("1", "LAN", "21000", "1", kind="6")).check())


@pytest.mark.parametrize(
    "option, word, location",
    [
        ("--int-ports", "dynamic", "WAN"),
        ("--ext-ports", "dynamic", "LAN"),
        ("--static-int-ports", "static", "WAN"),
        ("--static-ext-ports", "static", "LAN"),
    ],
)
def test_the_bounds_of_the_maps_can_be_given(files, option, word, location):
    files.schema(table("t", PORT_COLUMNS, ports=(word, 3, 4)))
    files.rows("t", port_row("1", location, "30000", "30000"))
    assert files.check().status == 1
    expect_clean(files.check(options=[option, "30000-30001"]))


@pytest.mark.parametrize("port", ["", "x", "21005x"])
def test_a_port_that_is_no_number_is_told(files, port):
    files.schema(table("t", PORT_COLUMNS, ports=("dynamic", 3, 4)))
    files.rows("t", port_row("1", "WAN", port))
    expect(files.check(), "tables/t.tbl", 2, "warning", f"the port '{port}' is no number")


def test_ports_held_twice_are_told_also_across_tables(files):
    files.schema(
        *(
            table(name, PORT_COLUMNS, ports=(word, 3, 4))
            for name, word in (("t", "dynamic"), ("u", "dynamic"), ("v", "static"))
        )
    )
    files.rows("t", port_row("1", "WAN", "21005"), port_row("2", "WAN", "21005"))
    files.rows("u", port_row("1", "WAN", "21005")).rows("v", port_row("1", "WAN", "21005"))
    told = files.check()
    first = f"the port 21005 is held by {files.directory}/tables/t.tbl:2 as well"
    expect(told, "tables/t.tbl", 3, "warning", first)
    expect(told, "tables/u.tbl", 2, "warning", first)
    assert len(told.findings) == 2


# Private ranges


@pytest.mark.parametrize(
    "text, line, part",
    [
        ("INT 21200 21256\n", 1, "port 21256 lies outside its map, 21000 to 21255"),
        ("EXT 9999 10001\n", 1, "port 9999 lies outside its map, 10000 to 15000"),
        ("21200 21201\n", 1, "'21200' names no port map, nor did a line before"),
        ("WEB 1 2\n", 1, "'WEB' names no port map, nor did a line before: the line is skipped"),
        ("INT 21200 21201\nWEB 21202 21203\n", 2, "goes to the map of the line before"),
        ("INT 21200 21201\n\n", 2, "is empty: the map of the line before"),
        ("\nINT 21200 21201\n", 1, "is empty and is skipped"),
        ("INT 21200 x 21201\n", 1, "'x' is no port"),
        ("INT " + " ".join(str(21100 + i) for i in range(11)) + "\n", 1, "ten ports at most"),
        ("INT\n", 1, "names no port: the range is empty"),
        ("INT 21200\n", 1, "names a base port alone"),
        ("INT 21200 21201 21201\n", 1, "port 21201 stands in this range twice"),
        ("INT 21200 21201\nINT 21202 21201\n", 2, "stands in the range of line 1 as well"),
        ("INT 21200 21201\nINT 21200 21202\n", 2, "this range is never found"),
        ("INT 21000 21201\n", 1, "is the map's lowest"),
        ("STATIC_INT 21200 -1 21201\n", 1, "-1 ends the range"),
    ],
)
def test_private_range_findings(files, text, line, part):
    files.schema(table()).write("ranges.txt", text)
    expect(files.check(ranges=True), "ranges.txt", line, "warning", part)


def test_one_port_in_ranges_of_different_maps_is_no_finding(files):
    files.schema(table()).write("ranges.txt", "INT 21200 21201\nSTATIC_INT 21200 21201\n")
    expect_clean(files.check(ranges=True))


# What it says against what a start does

WORDS = [
    "",
    "a",
    "abc",
    "x y",
    "*",
    "#x",
    "\\a",
    "a\\",
    "|",
    "WAN",
    "6",
    "21005",
    "9",
    "\xe4",
    "\0",
]
LONG = ["b" * 31, "c" * 32, "d" * 300]


def random_table(rng, name):
    count = rng.choice([1, 2, 3, 8, 9, 10])
    columns = tuple(
        f"c{i} {rng.choice([1, 5, 10, 31, 31])} {rng.randrange(2)}" for i in range(count)
    )
    ports = rng.random() < 0.3 and (rng.choice(["dynamic", "static"]), rng.randrange(10), 4)
    keys = {"MAX_ROWS": rng.choice([2, 100]), "USE_INDEX": int(rng.random() < 0.3)}
    block = table(name, columns, ports=ports or None, **keys)
    return block, count, bool(keys["USE_INDEX"])


def spoiled(rng, lines):
    """The lines of a schema with one of them taken out, doubled, moved or changed."""
    at, to = rng.randrange(len(lines)), rng.randrange(len(lines))
    line = lines.pop(at)
    kind = rng.randrange(5)
    if kind == 1:
        lines[at:at] = [line, line]
    elif kind == 2:
        lines.insert(to, line)
    elif kind == 3:
        lines.insert(at, re.sub(r"=.*", "=" + rng.choice(["", "0", "1", "2", "x" * 300]), line))
    elif kind == 4:
        lines.insert(at, line[: rng.randrange(len(line) + 1)])
    return lines


def random_rows(rng, count, indexed):
    tame = rng.random() < 0.6
    rows = []
    for number in range(rng.randrange(5)):
        fields = [
            rng.choice(["", "a", "1", "7"] if tame else WORDS + LONG)
            if rng.random() < 0.3
            else f"v{number}"[:1]
            for _ in range(count if tame or rng.random() < 0.9 else rng.randrange(1, 12))
        ]
        if indexed and rng.random() < 0.9:
            fields[0] = str(number + 1)
        rows.append("|".join(fields))
    return rows


def random_file(rng, count, indexed):
    first = "Version 1" if rng.random() < 0.95 else rng.choice(["Version 1\r", "", "Version 1\0x"])
    end = "\n" if rng.random() < 0.95 else ""
    text = "\n".join([first, *random_rows(rng, count, indexed)]) + end
    return text if rng.random() < 0.97 else ""


def random_files(rng, files):
    names = [f"t{i}" for i in range(rng.randrange(1, 4))]
    made = [random_table(rng, name) for name in names]
    lines = (files.head(len(names)) + "".join(block for block, _, _ in made)).splitlines()
    if rng.random() < 0.4:
        lines = spoiled(rng, lines)
    files.write("schema.cfg", "\n".join(lines) + "\n")
    for name, (_, count, indexed) in zip(names, made):
        for backup, chance in ((False, 0.9), (True, 0.5)):
            if rng.random() < chance:
                files.write(files.file(name, backup), random_file(rng, count, indexed))


def table_files(files):
    return {
        files.relative(str(path)): path.read_bytes()
        for folder in ("tables", "backup")
        for path in (files.directory / folder).iterdir()
    }


def removals(files, told):
    """The files that the tool says a start removes."""
    removed = set()
    for found in told.findings:
        if found.line == 0 and found.text.startswith("is removed"):
            removed.add(found.file)
            if other := re.match(r"is removed, and so is (\S+):", found.text):
                removed.add(files.relative(other.group(1)))
    return removed


def stored_rows(data):
    return [line for line in data.decode("latin-1").split("\n")[1:] if line]


def agree(files):
    """Compares the tool's forecast with a start, and gives what kind of start it was."""
    told = files.check()
    assert told.status in (0, 1), told.err
    before = table_files(files)
    loaded = files.start()
    after = table_files(files)
    failure = any("the start fails" in found.text for found in told.findings)
    assert failure == (loaded is None), told.out
    if loaded is None:
        assert after == before
        return "start fails"
    removed = removals(files, told)
    assert removed == before.keys() - after.keys(), told.out
    assert all(after[name] == before[name] for name in after)
    mains = [one.main for one in loaded]
    for one in loaded:
        source = next((name for name in (one.main, one.backup) if name in after), None)
        # Of two tables with one file, either can take it from the other.
        if source is not None and mains.count(one.main) == 1:
            compare_rows(told, source, before[source], one.rows)
    if told.status == 0:
        for table_loaded in loaded:
            main = table_loaded.main
            expected = stored_rows(before[main]) if main in before else []
            assert [row.decode("latin-1") for row in table_loaded.rows] == expected
    return "file removed" if removed else "clean" if told.status == 0 else "other findings"


def compare_rows(told, source, data, rows):
    """Every line that isn't a row as it stands has a finding of its own."""
    loaded = iter(row.decode("latin-1") for row in rows)
    for number, line in enumerate(data.decode("latin-1").split("\n")[1:], start=2):
        if line == "":
            continue
        row = None if line[0] in "#\0" else next(loaded)
        if row != line:
            assert any((f.file, f.line) == (source, number) for f in told.findings), told.out
    assert next(loaded, None) is None


def test_what_it_says_is_what_a_start_does(tmp_path):
    kinds = {}
    for seed in range(400):
        with tempfile.TemporaryDirectory(dir=tmp_path) as directory:
            files = CheckFiles(pathlib.Path(directory))
            random_files(random.Random(seed), files)
            try:
                kind = agree(files)
            except (AssertionError, StopIteration) as difference:
                schema = (files.directory / "schema.cfg").read_text("latin-1")
                raise AssertionError(f"seed {seed}: {difference}\n{schema}") from difference
            kinds[kind] = kinds.get(kind, 0) + 1
    # Random files that never reach one of these would compare nothing.
    assert set(kinds) == {"start fails", "file removed", "clean", "other findings"}
    assert min(kinds.values()) >= 20, kinds
