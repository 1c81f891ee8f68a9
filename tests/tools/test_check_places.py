"""What tarn-memdb-check finds in the places of the tables' files."""

import os
import pathlib

import pytest
from check_files import expect, expect_clean, schema_text, table

SHM = pathlib.Path("/dev/shm")


def schema_with(files, base, backup, *blocks):
    return files.write("schema.cfg", schema_text.schema(base, backup, blocks))


def single(outcome, *expected):
    expect(outcome, *expected)
    assert len(outcome.findings) == 1, outcome.out


# Folders


def test_a_missing_folder_of_main_files_is_an_error(files):
    where = files.directory
    schema_with(files, f"{where}/gone/", f"{where}/backup/", table("t"), table("u"))
    lost = f"the folder '{where}/gone/' isn't there: what is stored there is lost at a restart"
    single(files.check(), "schema.cfg", 1, "error", lost)


def test_a_missing_folder_of_backups_is_told(files):
    where = files.directory
    schema_with(files, f"{where}/tables/", f"{where}/gone/", table("t"), table("u"))
    none = f"the folder '{where}/gone/' isn't there: no backup is ever made there"
    single(files.check(), "schema.cfg", 2, "warning", none)


def test_a_file_name_that_leads_to_a_missing_folder_is_told_at_its_line(files):
    files.schema(table("t", FILE_NAME="sub/t.tbl"))
    told = files.check()
    expect(told, "schema.cfg", 12, "error", "/tables/sub/' isn't there: what is stored there")
    expect(told, "schema.cfg", 12, "warning", "/backup/sub/' isn't there: no backup is ever made")
    for folder in ("tables/sub", "backup/sub"):
        (files.directory / folder).mkdir()
    expect_clean(files.check())


def test_a_folder_that_is_a_file_is_an_error(files):
    files.schema(table("t", FILE_NAME="sub/t.tbl")).write("tables/sub", "")
    expect(files.check(), "schema.cfg", 12, "error", "/tables/sub/' isn't there")


def test_a_directory_without_a_slash_at_its_end_is_told(files):
    where = files.directory
    schema_with(files, f"{where}/tables/", f"{where}/backup", table())
    single(files.check(), "schema.cfg", 2, "warning", "doesn't end in '/'")


def test_folders_that_may_not_be_written_to_are_told(files):
    files.schema(table())
    for folder in ("tables", "backup"):
        (files.directory / folder).chmod(0o555)
    plain = ["setpriv", "--bounding-set=-dac_override,-dac_read_search"]
    told = files.check(prefix=plain if os.geteuid() == 0 else [])
    for line in (1, 2):
        expect(told, "schema.cfg", line, "warning", "can't be written to by who runs this check")


@pytest.fixture
def other_file_system(tmp_path):
    assert SHM.stat().st_dev != tmp_path.stat().st_dev, "needs two file systems"
    folder = SHM / f"tarn-{tmp_path.name}-{os.getpid()}"
    folder.mkdir()
    yield folder
    for path in folder.iterdir():
        path.unlink()
    folder.rmdir()


def test_backups_on_another_file_system_are_told(files, other_file_system):
    where = files.directory
    schema_with(files, f"{where}/tables/", f"{other_file_system}/", table("t"), table("u"))
    part = f"'{where}/tables/' and '{other_file_system}/' aren't on one file system: no backup"
    single(files.check(), "schema.cfg", 2, "warning", part)


# File names


@pytest.mark.parametrize("name", ["t/", ".", "..", "t/."])
def test_a_file_name_of_a_directory_is_an_error(files, name):
    files.schema(table("t", FILE_NAME=name))
    part = f"FILE_NAME={name} names a directory: table 't' is never stored"
    expect(files.check(), "schema.cfg", 12, "error", part)


ONE = "each store overwrites the other"


def test_the_file_of_two_tables_is_an_error(files):
    files.schema(table("t", FILE_NAME="p.tbl"), table("u", FILE_NAME="p.tbl"))
    part = f"FILE_NAME=p.tbl is the file of table 't' as well: {ONE}"
    single(files.check(), "schema.cfg", 21, "error", part)


@pytest.mark.parametrize("other", ["./p.tbl", ".//p.tbl", "sub/../p.tbl", "link/p.tbl"])
@pytest.mark.parametrize("is_there", [True, False])
def test_one_file_under_two_names_is_an_error(files, other, is_there):
    for folder in ("tables", "backup"):
        (files.directory / folder / "sub").mkdir()
        (files.directory / folder / "link").symlink_to(".")
    files.schema(table("t", FILE_NAME="p.tbl"), table("u", FILE_NAME=other))
    if is_there:
        files.write("tables/p.tbl", "Version 1\nx|y\n")
    part = f"FILE_NAME={other} is the file of table 't' as well: {ONE}"
    single(files.check(), "schema.cfg", 21, "error", part)


def test_one_file_of_a_folder_that_is_not_there_yet_is_an_error(files):
    files.schema(table("t", FILE_NAME="sub/p.tbl"), table("u", FILE_NAME="./sub/x/../p.tbl"))
    told = files.check()
    expect(told, "schema.cfg", 21, "error", f"is the file of table 't' as well: {ONE}")


def test_files_of_one_name_in_two_folders_are_two_files(files):
    for folder in ("tables", "backup"):
        (files.directory / folder / "sub").mkdir()
    expect_clean(files.schema(table("t"), table("u", FILE_NAME="sub/t.tbl")).check())


@pytest.mark.parametrize("order", [1, -1])
def test_a_file_that_is_another_tables_backup_is_an_error(files, order):
    where = files.directory
    names = ["p.tbl", "p.tbl.backup"][::order]
    blocks = (table("t", FILE_NAME=names[0]), table("u", FILE_NAME=names[1]))
    schema_with(files, f"{where}/tables/", f"{where}/tables/", *blocks)
    part = {
        1: f"FILE_NAME=p.tbl.backup is the backup of table 't' as well: {ONE}",
        -1: f"'{where}/tables/p.tbl.backup', is the file of table 't' as well: {ONE}",
    }[order]
    expect(files.check(), "schema.cfg", 21, "error", part)


def test_a_file_in_the_place_where_another_ones_is_set_aside_is_told(files):
    files.schema(table("t", FILE_NAME="p.tbl"), table("u", FILE_NAME="p.tbl.refused"))
    part = "FILE_NAME=p.tbl.refused is where the file of table 't' goes if it can't be loaded"
    single(files.check(), "schema.cfg", 21, "warning", part)
    files.schema(table("t", FILE_NAME="p.tbl.refused"), table("u", FILE_NAME="p.tbl"))
    part = "if the file of table 'u' can't be loaded, it takes the place of "
    single(files.check(), "schema.cfg", 21, "warning", part)


def test_the_schema_and_the_private_ranges_are_no_tables_files(files):
    files.schema(table("t", FILE_NAME="../schema.cfg"), table("u", FILE_NAME="../ranges.txt"))
    files.write("ranges.txt", "INT 21200 21201\n")
    told = files.check(ranges=True)
    expect(told, "schema.cfg", 12, "error", "FILE_NAME=../schema.cfg is the schema itself")
    expect(told, "schema.cfg", 21, "error", "FILE_NAME=../ranges.txt is the private range file")


# What stands in the places


def test_a_main_file_that_is_a_link_is_told(files):
    files.schema(table()).write("elsewhere", "Version 1\nx|y\n")
    (files.directory / "tables/t.tbl").symlink_to("../elsewhere")
    part = "/tables/t.tbl' is a link: the next store moves the link to the backup's place"
    single(files.check(), "schema.cfg", 12, "warning", part)


def test_a_backup_that_is_a_directory_is_told(files):
    files.schema(table()).rows("t", "x|y")
    (files.directory / "backup/t.tbl.backup").mkdir()
    part = "/backup/t.tbl.backup' is a directory: no backup of table 't' is made"
    expect(files.check(), "schema.cfg", 12, "warning", part)


def test_a_main_file_that_is_its_own_backup_is_told(files):
    files.schema(table()).rows("t", "x|y")
    os.link(files.directory / "tables/t.tbl", files.directory / "backup/t.tbl.backup")
    single(files.check(), "schema.cfg", 12, "warning", "are one file: table 't' has no backup")


def test_a_name_that_is_too_long_for_a_backup_is_told(files):
    name = "n" * 249
    files.schema(table(FILE_NAME=name))
    told = files.check()
    expect(told, "schema.cfg", 12, "warning", "is too long: no backup of table 't' is ever made")
    expect(told, "schema.cfg", 12, "warning", "would be removed, not set aside: the name")
    expect_clean(files.schema(table(FILE_NAME="n" * 240)).check())


def test_a_conversion_that_was_cut_off_is_told(files):
    list_of_it = "tables/tarn-memdb-convert.unfinished"
    files.schema(table()).rows("t", "x|y").write(list_of_it, "")
    expect(files.check(), list_of_it, 0, "error", "a conversion was cut off")
