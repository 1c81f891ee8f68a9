"""What tarn-memdb-check says becomes of a table's files, against what a start makes of them."""

import os
import socket

import pytest
from check_files import as_json, expect, expect_clean, rows_of, table

BAD_FILES = {
    "a field too few": (
        "Version 1\nx|y\nx\n",
        3,
        "the row is refused, with 1 field for 2 columns: 'x'",
    ),
    "a field too many": ("Version 1\nx|y|z\n", 2, "with 3 fields for 2 columns: 'x|y|z'"),
    "a wildcard": ("Version 1\n*|y\n", 2, "the row is refused (Wildcard are not allowed"),
    "no value at all": ("Version 1\n|\n", 2, "the row is refused (Empty fields are not allowed"),
    "an escaped separator": ("Version 1\nx\\|y\n", 2, "with 1 field for 2 columns"),
    "an escape at the end": ("Version 1\nx|y\\\n", 2, "is refused (Bad escape detected; "),
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
    aside = f"is set aside as {where}/tables/t.tbl.refused"
    end = {
        "good": f"{aside}, and table 't' is loaded from {where}/backup/t.tbl.backup",
        "bad": f"{aside}, and {where}/backup/t.tbl.backup is set aside as {where}/backup/t.tbl."
        "backup.refused: table 't' starts empty",
        "absent": f"{aside}, and there is no backup: table 't' starts empty",
    }[backup]
    expect(told, "tables/t.tbl", 0, "error", end)
    assert told.has("backup/t.tbl.backup", 2, "error", "refused") == (backup == "bad")
    assert rows_of(files) == ([b"saved|row"] if backup == "good" else [])
    assert not (where / "tables/t.tbl").exists()
    assert (where / "tables/t.tbl.refused").read_bytes() == text.encode("latin-1")
    assert (where / "backup/t.tbl.backup").exists() == (backup == "good")
    assert (where / "backup/t.tbl.backup.refused").exists() == (backup == "bad")


def test_a_missing_main_file_is_told_if_there_is_a_backup(files):
    files.schema(table()).rows("t", "x|y", backup=True)
    expect(files.check(), "tables/t.tbl", 0, "warning", "is missing: table 't' is loaded from")


def test_a_bad_backup_without_a_main_file_is_told(files):
    files.schema(table()).rows("t", "x", backup=True)
    aside = f"is set aside as {files.directory}/backup/t.tbl.backup.refused"
    expect(
        files.check(),
        "backup/t.tbl.backup",
        0,
        "error",
        f"{aside}, and there is no main file: table 't' starts empty",
    )
    assert rows_of(files) == []
    assert (files.directory / "backup/t.tbl.backup.refused").exists()


def test_a_bad_backup_behind_a_good_main_file_is_told(files):
    files.schema(table()).rows("t", "x|y").rows("t", "x", backup=True)
    expect(
        files.check(), "backup/t.tbl.backup", 0, "warning", "couldn't stand in for the main file"
    )


def test_a_file_that_has_no_bad_row_is_not_put_away_with_one_that_has(files):
    files.schema(table("t"), table("u")).rows("t", "x").rows("u", "x|y")
    told = files.check()
    assert told.has("tables/t.tbl", 0, "error", "is set aside")
    assert not any(found.file == "tables/u.tbl" for found in told.findings)


def test_a_file_set_aside_before_is_replaced_and_that_is_told(files):
    files.schema(table()).rows("t", "x").write("tables/t.tbl.refused", "older")
    expect(files.check(), "tables/t.tbl", 0, "error", ".refused, in place of the one there, and")
    files.start()
    assert (files.directory / "tables/t.tbl.refused").read_text() == "Version 1\nx\n"


def test_a_file_that_cannot_be_set_aside_is_removed_and_that_is_told(files):
    files.schema(table()).rows("t", "x")
    (files.directory / "tables/t.tbl.refused").mkdir()
    told = files.check()
    aside = f"{files.directory}/tables/t.tbl.refused is a directory"
    expect(told, "tables/t.tbl", 0, "error", f"is removed, since {aside}, and there is no backup")
    expect(told, "schema.cfg", 12, "warning", f"would be removed, not set aside: {aside}")
    files.start()
    assert not (files.directory / "tables/t.tbl").exists()


def test_a_file_whose_name_leaves_no_room_to_be_set_aside_is_removed(files):
    name = "n" * 248
    files.schema(table(FILE_NAME=name)).write(f"tables/{name}", "Version 1\nx\n")
    told = files.check()
    expect(told, f"tables/{name}", 0, "error", "is removed, since the name ")
    expect(told, "schema.cfg", 12, "warning", "would be removed, not set aside")
    files.start()
    assert os.listdir(files.directory / "tables") == []


# Entries that are no files


def test_an_empty_directory_in_the_main_files_place_is_removed(files):
    files.schema(table()).rows("t", "x|y", backup=True)
    (files.directory / "tables/t.tbl").mkdir()
    told = files.check()
    expect(told, "tables/t.tbl", 0, "error", "is a directory")
    expect(told, "tables/t.tbl", 0, "error", "is removed, and table 't' is loaded from")
    assert rows_of(files) == [b"x|y"]
    assert not (files.directory / "tables/t.tbl").exists()


def test_a_directory_with_something_in_it_stays_in_the_main_files_place(files):
    files.schema(table())
    (files.directory / "tables/t.tbl").mkdir()
    files.write("tables/t.tbl/inside", "")
    told = files.check()
    expect(told, "tables/t.tbl", 0, "error", "stays where it is, in the way of the next stores")
    files.start()
    assert (files.directory / "tables/t.tbl/inside").exists()


def test_a_link_that_leads_nowhere_is_removed(files):
    files.schema(table())
    link = files.directory / "tables/t.tbl"
    link.symlink_to("nowhere")
    told = files.check()
    expect(told, "tables/t.tbl", 0, "error", "is a link that leads nowhere")
    expect(told, "tables/t.tbl", 0, "error", "is removed, and there is no backup")
    files.start()
    assert not link.is_symlink()


def test_a_backup_that_is_a_link_to_nowhere_is_removed_where_it_is_needed(files):
    files.schema(table())
    link = files.directory / "backup/t.tbl.backup"
    link.symlink_to("nowhere")
    expect(files.check(), "backup/t.tbl.backup", 0, "error", "is removed, and there is no main")
    files.rows("t", "x|y")
    assert "is removed" not in files.check().out


def test_a_link_to_a_bad_file_is_removed_and_the_file_stays(files):
    files.schema(table()).write("elsewhere", "Version 1\nx\n")
    (files.directory / "tables/t.tbl").symlink_to(files.directory / "elsewhere")
    told = files.check()
    expect(told, "tables/t.tbl", 2, "error", "the row is refused")
    expect(told, "tables/t.tbl", 0, "error", "is removed, and there is no backup")
    files.start()
    assert (files.directory / "elsewhere").exists()
    assert not (files.directory / "tables/t.tbl").is_symlink()


def test_a_pipe_in_a_files_place_is_told_and_not_read(files):
    files.schema(table("t"), table("u")).rows("u", "x|y")
    os.mkfifo(files.directory / "tables/t.tbl")
    told = files.check(options=["--json"])
    assert told.status == 1
    report = as_json(told.out)
    assert report["start"] == "hangs"
    (found,) = report["findings"]
    assert "is a pipe: the start waits for ever" in found["text"]
    assert [one["rows"] for one in report["tables"]] == [None, 1]


def test_a_device_in_a_files_place_is_told_and_not_read(files):
    files.schema(table())
    (files.directory / "tables/t.tbl").symlink_to("/dev/zero")
    expect(files.check(), "tables/t.tbl", 0, "error", "is a device: it isn't read here")


def test_a_socket_in_a_files_place_is_removed(files, tmp_path, monkeypatch):
    files.schema(table())
    monkeypatch.chdir(tmp_path)
    with socket.socket(socket.AF_UNIX) as bound:
        bound.bind("tables/t.tbl")
    expect(files.check(), "tables/t.tbl", 0, "error", "is a socket, which has no rows")
    files.start()
    assert not (tmp_path / "tables/t.tbl").exists()


def test_a_pipe_in_a_backups_place_is_told_behind_a_good_main_file(files):
    files.schema(table()).rows("t", "x|y")
    os.mkfifo(files.directory / "backup/t.tbl.backup")
    expect(files.check(), "backup/t.tbl.backup", 0, "warning", "couldn't stand in for the main")


def test_a_file_that_cannot_be_read_to_its_end_is_told(files):
    files.schema(table(), table("u"))
    # A line of zeros that is longer than the memory that the tool may have.
    with open(files.directory / "tables/t.tbl", "wb") as file:
        file.write(b"Version 1\nx|y\n")
        file.truncate(100_000_000)
    files.rows("u", "x|y")
    told = files.check(most_memory=120_000_000)
    assert told.status == 2
    assert told.has("tables/t.tbl", 2, "error", "can't be read to its end")


# What the files are told as a whole


def test_the_json_report_tells_where_each_table_comes_from(files):
    files.schema(*(table(name) for name in "tuvw"))
    files.rows("t", "x|y", "x|z").rows("u", "x").rows("u", "s|r", backup=True).rows("v", "x")
    where = files.directory
    report = as_json(files.check(options=["--json"]).out)
    assert report["start"] == "works"
    assert report["tables"] == [
        {
            "table": name,
            "file": f"{where}/tables/{name}.tbl",
            "backup": f"{where}/backup/{name}.tbl.backup",
            "loaded_from": f"{where}/{source}" if source else None,
            "rows": rows,
        }
        for name, source, rows in (
            ("t", "tables/t.tbl", 2),
            ("u", "backup/u.tbl.backup", 1),
            ("v", None, 0),
            ("w", None, 0),
        )
    ]
    assert report["put_away"] == [
        {"file": f"{where}/tables/u.tbl", "to": f"{where}/tables/u.tbl.refused"},
        {"file": f"{where}/tables/v.tbl", "to": f"{where}/tables/v.tbl.refused"},
    ]
    assert [len(one.rows) for one in files.start()] == [2, 1, 0, 0]


# Tables of one name, and of one file


@pytest.mark.parametrize("first, second", [(2, 3), (3, 2)])
def test_rows_of_the_second_table_of_a_name_are_refused_if_it_has_other_columns(
    files, first, second
):
    def wide(columns, file):
        return table("t", tuple(f"c{i} 31 0" for i in range(columns)), FILE_NAME=file)

    files.schema(wide(first, "a.tbl"), wide(second, "b.tbl"))
    for file, columns in (("a", first), ("b", second)):
        files.rows(file, "|".join("xyz"[:columns]))
    told = files.check()
    part = "the row is refused, since the first table of the name 't' has another number of columns"
    expect(told, "tables/b.tbl", 2, "error", part)
    expect(told, "tables/b.tbl", 0, "error", "is set aside as")
    assert [one.rows for one in files.start()] == [[b"|".join([b"x", b"y", b"z"][:first])], []]


def test_tables_of_one_name_and_as_many_columns_both_load(files):
    files.schema(table("t", FILE_NAME="a.tbl"), table("t", FILE_NAME="b.tbl"))
    files.rows("a", "x|y").rows("b", "x|z")
    told = files.check()
    assert len(told.findings) == 1
    assert told.has("schema.cfg", 13, "warning", "a table of the name 't' stands above")
    assert [one.rows for one in files.start()] == [[b"x|y"], [b"x|z"]]


def test_a_file_that_two_tables_share_is_loaded_by_both(files):
    files.schema(table("t", FILE_NAME="p.tbl"), table("u", FILE_NAME="p.tbl")).rows("p", "x|y")
    report = as_json(files.check(options=["--json"]).out)
    assert [one["rows"] for one in report["tables"]] == [1, 1]
    assert [one.rows for one in files.start()] == [[b"x|y"], [b"x|y"]]


def test_what_an_earlier_table_sets_aside_is_gone_for_a_later_one(files):
    files.schema(table("t", FILE_NAME="p.tbl"), table("u", ("a 31 0",), FILE_NAME="./p.tbl"))
    files.rows("p", "x")  # bad for t, good for u
    report = as_json(files.check(options=["--json"]).out)
    assert [one["rows"] for one in report["tables"]] == [0, 0]
    assert [one.rows for one in files.start()] == [[], []]


def test_what_an_earlier_table_removes_is_gone_for_a_later_one(files):
    files.schema(table("t", FILE_NAME="p.tbl"), table("u", ("a 31 0",), FILE_NAME="./p.tbl"))
    files.write("elsewhere", "Version 1\nx\n")
    (files.directory / "tables/p.tbl").symlink_to("../elsewhere")
    report = as_json(files.check(options=["--json"]).out)
    assert [one["rows"] for one in report["tables"]] == [0, 0]
    assert [one.rows for one in files.start()] == [[], []]


def test_what_an_earlier_table_sets_aside_a_later_one_may_find(files):
    files.schema(
        table("t", FILE_NAME="p.tbl"), table("u", ("a 31 0",), FILE_NAME="p.tbl.refused")
    )
    files.rows("p", "x").write("tables/p.tbl.refused", "Version 1\nold\n")
    report = as_json(files.check(options=["--json"]).out)
    assert [one["rows"] for one in report["tables"]] == [0, 1]
    assert [one.rows for one in files.start()] == [[], [b"x"]]


def test_clean_files_tell_nothing(files):
    files.schema(table("t"), table("u")).rows("t", "x|y").rows("t", "old|row", backup=True)
    expect_clean(files.check())
