"""What tarn-memdb-check finds in a schema, and where."""

import re

import pytest
from check_files import PORT_COLUMNS, expect, expect_clean, table

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


def test_tables_of_one_name_are_told(files):
    told = files.schema(table("t"), table("t", FILE_NAME="u.tbl")).check()
    expect(told, "schema.cfg", 13, "warning", "a table of the name 't' stands above, in line 4")


def test_a_table_name_that_no_query_can_name_is_told(files):
    expect(files.schema(table("a,b")).check(), "schema.cfg", 4, "warning", "no query can name")


def test_an_index_column_too_short_for_its_numbers_is_told(files):
    told = files.schema(table(columns=("a 9 1", "b 31 0"), USE_INDEX=1)).check()
    expect(told, "schema.cfg", 10, "warning", "has room for 9 digits")


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


# Numbers


@pytest.mark.parametrize(
    "rows, part",
    [
        (0, "MAX_ROWS of table 't' is 0: an empty table takes no rows"),
        (-1, "MAX_ROWS of table 't' is below 0: it takes rows without a limit"),
    ],
)
def test_a_row_limit_that_is_none_is_told(files, rows, part):
    told = files.schema(table(MAX_ROWS=rows)).check()
    expect(told, "schema.cfg", 8, "warning", part)
    assert len(told.findings) == 1


@pytest.mark.parametrize(
    "number, taken",
    [
        ("4294967297", 1),
        ("2147483648", -2147483648),
        ("-2147483649", 2147483647),
        ("99999999999999999999", -1),
    ],
)
def test_a_number_beyond_32_bits_is_told_with_what_it_is_taken_for(files, number, taken):
    told = files.schema(table(MAX_ROWS=number)).check()
    part = f"MAX_ROWS='{number}' is beyond 32 bits and is taken for {taken}"
    expect(told, "schema.cfg", 8, "warning", part)
    files.schema(table(MAX_ROWS=2147483647)).rows("t", "x|y")
    expect_clean(files.check())


def test_a_column_length_beyond_32_bits_is_an_error(files):
    told = files.schema(table(columns=("a 4294967299 0", "b 9 0"))).check()
    part = "column 'a': the length '4294967299' is beyond 32 bits and is taken for 3"
    expect(told, "schema.cfg", 10, "error", part)


@pytest.mark.parametrize("key, line", [("NUM_TABLE", 3), ("NUM_FIELDS", 4)])
def test_a_number_beyond_all_that_a_file_can_hold_is_told_and_not_tried(files, key, line):
    number = 10**8
    if key == "NUM_TABLE":
        files.schema(table(), num_table=number)
    else:
        files.schema(table(NUM_FIELDS=number))
    told = files.check()
    expect(told, "schema.cfg", line, "error", f"{key}={number} is more than the whole file")
    assert len(told.findings) == 1


# Zero bytes


@pytest.mark.parametrize("key, line", [("TABLE_NAME", 4), ("LOG_TAG", 6), ("FILE_NAME", 12)])
def test_a_zero_byte_in_a_value_is_told_with_what_is_left(files, key, line):
    files.schema(table("t", **{key: "ab\0c"}))
    told = files.check()
    part = rf"{key}= holds a zero byte, where it ends: 'ab\x00c' is taken for 'ab'"
    expect(told, "schema.cfg", line, "error", part)


def test_a_zero_byte_in_a_columns_name_is_told(files):
    told = files.schema(table(columns=("a\0b 9 0", "b 9 0"))).check()
    expect(told, "schema.cfg", 10, "error", r"the column name 'a\x00b' holds a zero byte")


# Columns of tables with ports


def with_ports(word, internal=31, external=31, location=31):
    lengths = {3: internal, 4: external, 5: location}
    columns = tuple(f"c{i} {lengths.get(i, 31)} 0" for i in range(9))
    return table("t", columns, ports=(word, 3, 4))


def test_a_port_column_without_room_for_a_port_is_told(files):
    told = files.schema(with_ports("dynamic", internal=4, external=4)).check()
    for line, port in ((16, 21255), (17, 15000)):
        part = f"has room for 4 digits: port {port} is stored as '{str(port)[:4]}'"
        expect(told, "schema.cfg", line, "warning", part)
    assert len(told.findings) == 2
    told = files.schema(with_ports("static", internal=5, external=3)).check()
    expect(told, "schema.cfg", 17, "warning", "has room for 3 digits: port 9255 is stored as '925'")
    assert len(told.findings) == 1
    expect_clean(files.schema(with_ports("static", internal=5, external=4)).check())


def test_a_column_of_sides_without_room_for_its_word_is_told(files):
    told = files.schema(with_ports("dynamic", location=2)).check()
    expect(told, "schema.cfg", 18, "warning", "column 'c5' has no room for WAN")
    assert len(told.findings) == 1
    expect_clean(files.schema(with_ports("dynamic", location=3)).check())
