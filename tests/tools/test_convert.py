"""What tarn-memdb-convert makes of table files for another schema."""

import os

import pytest
from check_files import PORT_COLUMNS, port_row, rows_of
from check_files import run as check
from convert_files import expect_done, expect_nothing_changed, table

APPLY = ("--apply",)


def rows_of_new(files):
    """What a start with the new schema loads."""
    (files.directory / "schema.cfg").write_bytes((files.directory / "new.cfg").read_bytes())
    return rows_of(files)


def test_columns_keep_their_values_by_their_names(files):
    files.schemas(table("a", "b", "c"), table("c", "a", "b")).rows("t", "1|2|3", "4|5|", "|8|9")
    expect_done(files.convert(*APPLY))
    assert files.lines("tables/t.tbl") == ["3|1|2", "|4|5", "9||8"]


def test_the_backup_is_converted_as_well(files):
    files.schemas(table("a", "b"), table("b", "a"))
    files.rows("t", "1|2", "3|4").rows("t", "5|6", backup=True)
    told = files.convert(*APPLY)
    expect_done(told)
    assert files.lines("backup/t.tbl.backup") == ["6|5"]
    assert "t: 2 rows in tables/t.tbl, the former file is tables/t.tbl.old-1\n" in told.out
    assert "t: 1 row in backup/t.tbl.backup, the former file is backup/" in told.out


def test_a_backup_alone_is_converted(files):
    files.schemas(table("a", "b"), table("b", "a")).rows("t", "5|6", backup=True)
    expect_done(files.convert(*APPLY))
    assert files.lines("backup/t.tbl.backup") == ["6|5"]
    assert not (files.directory / "tables/t.tbl").exists()


def test_a_new_column_is_empty_or_has_its_default(files):
    files.schemas(table("a"), table("a", "b", "c")).rows("t", "1", "2")
    told = files.convert("--default", "t.c=un=known.x", *APPLY)
    expect_done(told)
    assert files.lines("tables/t.tbl") == ["1||un=known.x", "2||un=known.x"]
    assert "t: column 'b' is new, with ''\n" in told.out
    assert "t: column 'c' is new, with 'un=known.x'\n" in told.out


def test_a_new_generated_index_counts_from_1(files):
    files.schemas(table("a"), table("id", "a", USE_INDEX=1)).rows("t", "x", "y")
    expect_done(files.convert(*APPLY))
    assert files.lines("tables/t.tbl") == ["1|x", "2|y"]


def test_a_dropped_column_is_told(files):
    files.schemas(table("a", "b", "c"), table("a", "c")).rows("t", "1|2|3")
    told = files.convert(*APPLY)
    expect_done(told)
    assert told.has("new.cfg", 0, "warning", "column 'b' of table 't' is dropped, with its values")
    assert files.lines("tables/t.tbl") == ["1|3"]


def test_a_renamed_column_keeps_its_values(files):
    files.schemas(table("a", "b"), table("a", "x")).rows("t", "1|2")
    told = files.convert()
    assert told.has("new.cfg", 0, "warning", "is its new name, say --rename t.b=x")
    told = files.convert("--rename", "t.b=x", *APPLY)
    expect_done(told)
    assert (told.findings, files.lines("tables/t.tbl")) == ((), ["1|2"])
    assert "t: column 'b' is 'x' now\n" in told.out


@pytest.mark.parametrize("longer", ["31", "5"])
def test_a_table_whose_rows_stay_good_is_left_alone(files, longer):
    files.schemas(table("a 5 0", "b"), table(f"a {longer} 1", "b", LOG_TAG="T")).rows("t", "1|2")
    before = files.texts()
    told = files.convert(*APPLY)
    assert (told.status, told.out) == (0, "t: stays as it is\n")
    assert files.texts() == before


def test_values_that_no_longer_fit_stop_it(files):
    files.schemas(table("a", "b"), table("b 3 0", "a")).rows("t", "1|abc", "2|abcd", "3|xyz123")
    before = files.texts()
    told = files.convert(*APPLY)
    expect_nothing_changed(files, before, told)
    part = "'abcd' doesn't fit column 'b', which has room for 3 characters"
    assert told.has("tables/t.tbl", 3, "error", part)
    assert told.has("tables/t.tbl", 4, "error", "'xyz123' doesn't fit")
    assert len(told.findings) == 2


def test_cut_cuts_what_does_not_fit_and_tells_it(files):
    files.schemas(table("a", "b"), table("a", "b 3 0")).rows("t", "1|abc", "2|abcd")
    told = files.convert("--cut", *APPLY)
    expect_done(told)
    assert told.has("tables/t.tbl", 3, "warning", "'abcd' is cut to 'abc'")
    assert files.lines("tables/t.tbl") == ["1|abc", "2|abc"]


def test_many_values_of_one_kind_are_told_by_the_first_ones(files):
    files.schemas(table("a", "b"), table("a", "b 3 0"))
    files.rows("t", "x|y", *(f"{i}|toolong{i}" for i in range(90)))
    told = files.convert()
    assert told.status == 1
    assert len(told.findings) == 21
    assert told.has("tables/t.tbl", 92, "error", "likewise in 70 more rows up to here")


def test_indexes_and_ports_keep_their_values(files):
    new = (*PORT_COLUMNS, "note 31 0")
    old = table(*PORT_COLUMNS, ports=("dynamic", 3, 4), USE_INDEX=1)
    files.schemas(old, table(*new, ports=("dynamic", 3, 4), USE_INDEX=1))
    rows = [port_row("7", "WAN", "21005"), port_row("9", "LAN", "", "10005")]
    files.rows("t", *rows)
    told = files.convert(*APPLY)
    expect_done(told)
    assert (files.lines("tables/t.tbl"), told.findings) == ([row + "|" for row in rows], ())


def test_an_index_is_not_cut(files):
    files.schemas(table("a 10 0", "b", USE_INDEX=1), table("a 2 0", "b", USE_INDEX=1))
    told = files.rows("t", "99|x", "123|y").convert("--cut")
    assert told.status == 1
    assert told.has("tables/t.tbl", 3, "error", "'123' doesn't fit column 'a'")


def test_an_index_that_would_be_read_from_another_column_stops_it(files):
    files.schemas(table("id", "a", USE_INDEX=1), table("x", "id", "a", USE_INDEX=1))
    told = files.rows("t", "7|x").convert()
    part = "the index of table 't' is in column 'id' and would be in column 'x'"
    assert told.status == 1 and told.has("new.cfg", 0, "error", part)


def test_ports_that_would_be_read_from_other_columns_stop_it(files):
    moved = ("new 31 0", *PORT_COLUMNS[:8])
    old = table(*PORT_COLUMNS, ports=("dynamic", 3, 4))
    files.schemas(old, table(*moved, ports=("dynamic", 3, 5)))
    told = files.convert()
    assert told.status == 1
    parts = {
        "the location": "'c5' and would be in column 'c4'",
        "the internal port": "'c3' and would be in column 'c2'",
    }
    for what, part in parts.items():
        assert told.has("new.cfg", 0, "error", f"{what} of table 't' is in column {part}")
    assert not any("external" in found.text for found in told.findings)


@pytest.mark.parametrize("text", ["x", "", "07", "-1"])
def test_texts_in_a_column_that_becomes_the_index_stop_it(files, text):
    files.schemas(table("a", "b"), table("a", "b", USE_INDEX=1)).rows("t", "5|y", f"{text}|y")
    told = files.convert()
    assert told.status == 1
    assert told.has("tables/t.tbl", 3, "error", f"the index '{text}' is no number")


def test_texts_in_a_column_that_becomes_one_of_ports_stop_it(files):
    files.schemas(table(*PORT_COLUMNS), table(*PORT_COLUMNS, ports=("dynamic", 3, 4)))
    files.rows("t", port_row("1", "WAN", "21005"), port_row("2", "WAN", "many"))
    told = files.convert()
    assert told.status == 1
    assert told.has("tables/t.tbl", 3, "error", "the port 'many' is no number")


def test_more_rows_than_max_rows_stop_it(files):
    files.schemas(table("a", "b"), table("b", "a", MAX_ROWS=2)).rows("t", "1|2", "3|4", "5|6")
    told = files.convert()
    assert told.status == 1
    assert told.has("tables/t.tbl", 4, "error", "more rows than table 't' may have: 3")


def test_rows_that_become_equal_are_told(files):
    old = table("a", "b", "c")
    files.schemas(old, table("a", "c", DUPLICATED_DATA_CHECK=1)).rows("t", "1|x|2", "1|y|2")
    told = files.convert()
    expect_done(told)
    assert told.has("tables/t.tbl", 3, "warning", "counts as equal to the row of line 2")


ROWS_NO_FILE_CAN_HOLD = {
    "nothing but empty values": (("a", "b"), ("a",), "|x", "nothing but empty values"),
    "a first value that begins a comment": (("a", "b"), ("b", "a"), "x|#y", "for a comment"),
    "a bar": (("a", "b"), ("b", "a"), r"x|y\|z", "'y|z' in column 'b' has a '|'"),
    "a backslash": (("a", "b"), ("b", "a"), r"x|y\\z", r"'y\z' in column 'b' has a backslash"),
    "a star": (("a", "b"), ("b", "a"), r"x|\*", "a '*' is the whole value of column 'b'"),
}


@pytest.mark.parametrize("kind", ROWS_NO_FILE_CAN_HOLD)
def test_rows_that_no_file_can_hold_stop_it(files, kind):
    old, new, row, part = ROWS_NO_FILE_CAN_HOLD[kind]
    files.schemas(table(*old), table(*new)).rows("t", "1|2", row)
    before = files.texts()
    told = files.convert(*APPLY)
    expect_nothing_changed(files, before, told)
    assert told.has("tables/t.tbl", 3, "error", part), told.out


@pytest.mark.parametrize("backup", [False, True])
def test_a_file_that_a_start_would_refuse_stops_it(files, backup):
    files.schemas(table("a", "b"), table("b", "a")).rows("t", "1|2", backup=not backup)
    files.rows("t", "1|2", "3", backup=backup)
    before = files.texts()
    told = files.convert(*APPLY)
    expect_nothing_changed(files, before, told)
    part = "the row is refused, with 1 field for 2 columns: '3'"
    assert told.has(files.file("t", backup), 3, "error", part)


@pytest.mark.parametrize("text", ["", "Version 2\n1|2\n", "Version 1\r\n"])
def test_a_file_without_its_version_stops_it(files, text):
    files.schemas(table("a", "b"), table("b", "a")).write("tables/t.tbl", text)
    assert files.convert().status == 1


def test_comments_and_a_line_without_an_end_are_told(files):
    files.schemas(table("a", "b"), table("b", "a"))
    files.write("tables/t.tbl", "Version 1\n# note\n1|2\n\n3|4")
    told = files.convert(*APPLY)
    expect_done(told)
    assert told.has("tables/t.tbl", 2, "warning", "taken for a comment and left out: '# note'")
    assert told.has("tables/t.tbl", 5, "warning", "the last line has no end")
    assert files.lines("tables/t.tbl") == ["2|1", "4|3"]


def test_a_value_that_the_start_cuts_is_told(files):
    files.schemas(table("a 3 0", "b"), table("b", "a")).rows("t", "abcd|x")
    told = files.convert(*APPLY)
    expect_done(told)
    assert told.has("tables/t.tbl", 2, "warning", "'abcd' is longer than its column 'a'")
    assert files.lines("tables/t.tbl") == ["x|abc"]


def test_tables_of_one_schema_alone_are_told_and_left(files):
    old = [table("a", name="gone"), table("a", "b")]
    files.schemas(old, [table("b", "a"), table("a", name="fresh")])
    files.rows("t", "1|2").rows("gone", "x")
    told = files.convert(*APPLY)
    expect_done(told)
    assert told.has("old.cfg", 0, "warning", "table 'gone' isn't in the new schema")
    assert told.has("new.cfg", 0, "warning", "table 'fresh' is new")
    assert files.lines("tables/gone.tbl") == ["x"]


def test_a_table_may_change_its_file(files):
    files.schemas(table("a", "b"), table("a", "b", FILE_NAME="u.tbl")).rows("t", "1|2")
    expect_done(files.convert(*APPLY))
    assert files.lines("tables/u.tbl") == files.lines("tables/t.tbl") == ["1|2"]


def test_two_tables_may_change_their_files_with_each_other(files):
    tables = [table("a", "b", name="t"), table("c", name="u")]
    other = [table("a", "b", name="t", FILE_NAME="u.tbl"), table("c", name="u", FILE_NAME="t.tbl")]
    files.schemas(tables, other).rows("t", "1|2").rows("u", "3")
    expect_done(files.convert(*APPLY))
    assert (files.lines("tables/u.tbl"), files.lines("tables/t.tbl")) == (["1|2"], ["3"])
    assert files.lines("tables/u.tbl.old-1") == ["3"]


def test_a_file_that_is_no_tables_is_not_replaced(files):
    files.schemas(table("a", "b"), table("a", "b", FILE_NAME="u.tbl")).rows("t", "1|2")
    files.write("tables/u.tbl", "mine")
    told = files.convert(*APPLY)
    assert told.status == 1 and files.text("tables/u.tbl") == "mine"
    assert told.has("tables/u.tbl", 0, "error", "is there already")


@pytest.mark.parametrize(
    "new", [table("a 4 0", "b 5 0"), table("a 5 0", "b 5 0", MAX_ROWS=1)], ids=["column", "limit"]
)
def test_the_least_that_no_longer_fits_between_equal_columns_stops_it(files, new):
    files.schemas(table("a 5 0", "b 5 0"), new).rows("t", "12345|x", "2|y")
    before = files.texts()
    expect_nothing_changed(files, before, files.convert(*APPLY))


def test_another_tables_file_is_not_left_at_the_place_of_a_table_that_has_none(files):
    tables = [table("a", name="t"), table("a", name="u")]
    other = [table("a", name="t", FILE_NAME="u.tbl"), table("a", name="u", FILE_NAME="t.tbl")]
    files.schemas(tables, other).rows("t", "of t")
    files.write("backup/u.tbl.backup", "Version 1\nof u\n")
    before = files.texts()
    told = files.convert(*APPLY)
    expect_nothing_changed(files, before, told)
    assert told.has("tables/t.tbl", 0, "error", "would be taken for table 'u'")


def test_a_name_that_is_a_tables_is_not_taken_for_another(files):
    other = table("a", name="u", FILE_NAME="t.tbl.converted")
    files.schemas([table("a", "b"), other], [table("b", "a"), other]).rows("t", "1|2")
    files.write("tables/t.tbl.converted", "Version 1\nmine\n")
    before = files.texts()
    told = files.convert()
    expect_nothing_changed(files, before, told)
    assert told.has("tables/t.tbl.converted", 0, "error", "is the name of a table's file")


def test_without_apply_new_files_stand_beside_the_old_ones(files):
    files.schemas(table("a", "b"), table("b", "a")).rows("t", "1|2").rows("t", "3|4", backup=True)
    before = files.texts()
    told = files.convert()
    expect_done(told)
    assert told.out.endswith("nothing was replaced: --apply does that\n")
    new = files.texts()
    assert new.pop("tables/t.tbl.converted") == b"Version 1\n2|1\n"
    assert new.pop("backup/t.tbl.backup.converted") == b"Version 1\n4|3\n"
    assert new == before


def test_old_files_are_kept_under_the_next_free_number(files):
    files.schemas(table("a", "b"), table("b", "a")).rows("t", "1|2").rows("t", "3|4", backup=True)
    files.write("backup/t.tbl.backup.old-1", "older")
    expect_done(files.convert(*APPLY))
    assert files.text("tables/t.tbl.old-2") == "Version 1\n1|2\n"
    assert files.text("backup/t.tbl.backup.old-2") == "Version 1\n3|4\n"
    assert files.text("backup/t.tbl.backup.old-1") == "older"


def test_the_next_start_finds_the_converted_rows_clean(files):
    files.schemas(table("a", "b"), table("b", "n", "a")).rows("t", "1|2", "3|4")
    expect_done(files.convert(*APPLY))
    assert rows_of_new(files) == [b"2||1", b"4||3"]
    assert check(str(files.directory / "new.cfg")).stdout == "clean\n"


def test_new_files_have_the_rights_of_the_old_ones(files):
    files.schemas(table("a", "b"), table("b", "a")).rows("t", "1|2").rows("t", "3|4", backup=True)
    main, backup = (files.directory / files.file("t", which) for which in (False, True))
    main.chmod(0o640)
    backup.chmod(0o604)
    if os.geteuid() == 0:
        os.chown(main, 1234, 2345)
    owner = main.stat().st_uid, main.stat().st_gid
    expect_done(files.convert(*APPLY, prefix=["sh", "-c", 'umask 077; exec "$0" "$@"']))
    assert (main.stat().st_mode & 0o777, backup.stat().st_mode & 0o777) == (0o640, 0o604)
    assert (main.stat().st_uid, main.stat().st_gid) == owner


def test_a_link_is_replaced_and_kept(files):
    files.schemas(table("a", "b"), table("b", "a")).rows("t", "1|2")
    main = files.directory / "tables/t.tbl"
    main.rename(files.directory / "elsewhere")
    main.symlink_to("../elsewhere")
    expect_done(files.convert(*APPLY))
    assert files.lines("tables/t.tbl") == ["2|1"] and not main.is_symlink()
    assert files.lines("elsewhere") == ["1|2"]
    assert (files.directory / "tables/t.tbl.old-1").is_symlink()


def test_what_is_no_file_stops_it(files):
    files.schemas(table("a", "b"), table("b", "a")).rows("t", "1|2")
    (files.directory / "backup/t.tbl.backup").mkdir()
    told = files.convert()
    assert told.status == 1 and told.has("backup/t.tbl.backup", 0, "error", "is a directory")


def test_a_link_planted_at_the_new_files_name_is_not_followed(files):
    files.schemas(table("a", "b"), table("b", "a")).rows("t", "1|2").write("victim", "precious")
    (files.directory / "tables/t.tbl.converted").symlink_to("../victim")
    expect_done(files.convert())
    assert files.text("victim") == "precious"
