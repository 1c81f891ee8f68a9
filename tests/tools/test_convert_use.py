"""How tarn-memdb-convert is called, what it prints, and its exit status."""

import json
import os
import pty
import re
import subprocess
import time

import pytest
from convert_files import CONVERT, expect_done, run, table


def test_the_report_for_programs(files):
    old = [table("a", "b"), table("x", name="u")]
    files.schemas(old, [table("b", "n", "c"), table("x", name="u")])
    files.rows("t", "1|2").rows("u", "3")
    told = files.convert("--rename", "t.a=c", "--default", "t.n=v", "--json", "--apply")
    expect_done(told)
    path = "tables/t.tbl"
    assert json.loads(told.out) == {
        "outcome": "applied",
        "errors": 0,
        "warnings": 0,
        "findings": [],
        "resumed": [],
        "tables": [
            {
                "table": "t",
                "added": [{"column": "n", "value": "v"}],
                "renamed": [{"from": "a", "to": "c"}],
                "dropped": [],
                "files": [{"from": path, "file": path, "rows": 1, "kept": f"{path}.old-1"}],
            },
            {"table": "u", "added": [], "renamed": [], "dropped": [], "files": []},
        ],
    }


def test_the_report_for_programs_of_a_conversion_that_was_stopped(files):
    files.schemas(table("a", "b"), table("a 3 0")).rows("t", "12345|2")
    told = files.convert("--json")
    assert told.status == 1
    report = json.loads(told.out)
    assert (report["outcome"], report["errors"], report["warnings"]) == ("nothing", 1, 1)
    assert report["tables"] == []
    assert [(found["line"], found["severity"]) for found in report["findings"]] == [
        (0, "warning"),
        (2, "error"),
    ]


def test_the_report_of_an_export_for_programs_goes_beside_it(files):
    files.schemas(table("a"), []).rows("t", "1")
    told = files.convert("--export", "t", "--json", files=("old.cfg",))
    assert (told.status, told.out) == (0, "a\r\n1\r\n")
    assert json.loads(told.err)["errors"] == 0


def test_help_goes_to_output_with_status_0():
    for option in ("--help", "-h"):
        ran = run(option)
        assert (ran.returncode, ran.stderr) == (0, b"")
        for known in (
            b"usage: tarn-memdb-convert [options] OLD_SCHEMA NEW_SCHEMA\n",
            b"--export TABLE SCHEMA",
            b"--import TABLE SCHEMA [CSV]",
            b"--apply",
            b"--default TABLE.COLUMN=VALUE",
            b"--rename TABLE.COLUMN=NAME",
            b"--cut",
            b"--json",
            b"Exit status: 0 done",
        ):
            assert known in ran.stdout


def test_the_version_is_that_of_the_tool_and_of_its_server():
    form = rb"tarn-memdb-convert \d+\.\d+\.\d+, for kamailio 6\.\S+ \(x86_64/linux\)\n"
    assert re.fullmatch(form, run("--version").stdout)


@pytest.mark.parametrize(
    "arguments",
    [
        (),
        ("old.cfg",),
        ("old.cfg", "new.cfg", "third"),
        ("--unknown", "old.cfg", "new.cfg"),
        ("--default", "t.b", "old.cfg", "new.cfg"),
        ("--default", "b=x", "old.cfg", "new.cfg"),
        ("--default", ".b=x", "old.cfg", "new.cfg"),
        ("--default", "t.=x", "old.cfg", "new.cfg"),
        ("--rename", "t=x", "old.cfg", "new.cfg"),
        ("--export", "t"),
        ("--export", "t", "old.cfg", "new.cfg"),
        ("--export", "t", "--apply", "old.cfg"),
        ("--export", "t", "--cut", "old.cfg"),
        ("--export", "t", "--default", "t.b=x", "old.cfg"),
        ("--export", "t", "--import", "t", "old.cfg"),
        ("--import", "t"),
        ("--import", "t", "old.cfg", "rows.csv", "more"),
        ("--import", "t", "--rename", "t.a=b", "old.cfg"),
        ("--apply=yes", "old.cfg", "new.cfg"),
    ],
    ids=" ".join,
)
def test_arguments_that_are_not_understood_end_with_2_and_the_usage(files, arguments):
    files.schemas(table("a"), table("a"))
    ran = run(*arguments, cwd=files.directory)
    assert (ran.returncode, ran.stdout) == (2, b"")
    assert b"usage: tarn-memdb-convert" in ran.stderr


COLUMNS_THAT_ARE_NOT_THERE = {
    "a default of no table": ("--default", "u.n=x", "'u.n' is no new column"),
    "a default of no column": ("--default", "t.x=x", "'t.x' is no new column"),
    "a default of an old column": ("--default", "t.a=x", "'t.a' is no new column"),
    "another name of no column": ("--rename", "t.x=n", "'t.x' is no column of a table"),
    "another name that is none": ("--rename", "t.a=x", "can't become 'x': no such column"),
    "another name that is taken": ("--rename", "t.a=b", "can't become 'b': another one has this"),
    "a default that can't be stored": ("--default", "t.n=x|y", "has a '|', which can't be stored"),
    "a default that is too long": ("--default", f"t.n={'x' * 32}", "doesn't fit column 'n'"),
}


@pytest.mark.parametrize("kind", COLUMNS_THAT_ARE_NOT_THERE)
def test_options_that_name_what_is_not_there_stop_it(files, kind):
    option, text, part = COLUMNS_THAT_ARE_NOT_THERE[kind]
    files.schemas(table("a", "b"), table("a", "b", "n")).rows("t", "1|2")
    before = files.texts()
    told = files.convert(option, text, "--apply")
    assert told.status == 1 and files.texts() == before
    assert any(part in found.text for found in told.findings), told.out


@pytest.mark.parametrize("name", ["old.cfg", "new.cfg"])
def test_a_schema_that_is_missing_ends_with_2(files, name):
    files.schemas(table("a"), table("a"))
    (files.directory / name).unlink()
    told = files.convert()
    assert told.status == 2 and told.has(name, 0, "error", "can't be read")


BAD_SCHEMAS = {
    "a missing key": ([table("a", NUM_FIELDS=None)], "the start fails"),
    "two tables of one name": ([table("a"), table("b", FILE_NAME="u.tbl")], "two tables have the"),
    "two tables of one file": ([table("a"), table("b", name="u", FILE_NAME="t.tbl")], "two tables"),
    "no file": ([table("a", FILE_NAME=None)], "FILE_NAME= of table 't'"),
    "two columns of one name": ([table("a", "a")], "has two columns of the name 'a'"),
}


@pytest.mark.parametrize("which", ["old", "new"])
@pytest.mark.parametrize("kind", BAD_SCHEMAS)
def test_a_schema_by_which_rows_cannot_be_told_stops_it(files, kind, which):
    blocks, part = BAD_SCHEMAS[kind]
    good = [table("a", "b"), table("c", name="u")]
    files.schemas(blocks if which == "old" else good, blocks if which == "new" else good)
    told = files.convert()
    assert told.status == 1
    assert any(found.file == f"{which}.cfg" and part in found.text for found in told.findings)


def test_the_former_schema_may_come_from_a_pipe(files):
    files.schemas(table("a", "b"), table("b", "a")).rows("t", "1|2")
    text = files.text("old.cfg").encode()
    expect_done(files.convert("--apply", files=("/dev/stdin", "new.cfg"), input=text))
    assert files.lines("tables/t.tbl") == ["2|1"]


def test_a_report_that_cannot_be_written_ends_with_2(files):
    files.schemas(table("a"), table("a"))
    with open("/dev/full", "wb") as full:
        ran = run("old.cfg", "new.cfg", cwd=files.directory, stdout=full)
    assert ran.returncode == 2 and b"the report can't be written" in ran.stderr


def test_a_table_file_that_may_not_be_read_ends_with_2(files):
    files.schemas(table("a", "b"), table("b", "a")).rows("t", "1|2")
    (files.directory / "tables/t.tbl").chmod(0)
    plain = ["setpriv", "--bounding-set=-dac_override,-dac_read_search"]
    told = files.convert(prefix=plain if os.geteuid() == 0 else [])
    assert told.status == 2
    assert told.has("tables/t.tbl", 0, "error", "can't be read: Permission denied")


def test_a_folder_that_may_not_be_written_to_ends_with_2(files):
    files.schemas(table("a", "b"), table("b", "a")).rows("t", "1|2")
    before = files.texts()
    (files.directory / "tables").chmod(0o555)
    plain = ["setpriv", "--bounding-set=-dac_override,-dac_read_search"]
    told = files.convert("--apply", prefix=plain if os.geteuid() == 0 else [])
    (files.directory / "tables").chmod(0o755)
    assert told.status == 2 and files.texts() == before
    part = "can't be written: Permission denied"
    assert told.has("tables/t.tbl.converted", 0, "error", part)


@pytest.mark.parametrize("pause", [0, 0.4])
def test_long_work_is_told_in_front_of_a_terminal(files, pause):
    files.schemas(table("a", MAX_ROWS=20000), [])
    ours, theirs = pty.openpty()
    command = [CONVERT, "--import", "t", files.directory / "old.cfg"]
    with subprocess.Popen(
        command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=theirs
    ) as ran:
        os.close(theirs)
        ran.stdin.write(b"a\n" + b"x\n" * 9000)
        ran.stdin.flush()
        time.sleep(pause)
        ran.stdin.write(b"x\n" * 9000)
        ran.stdin.close()
        assert ran.stdout.read().startswith(b"t: 18000 rows in ")
    shown = b""
    try:
        while part := os.read(ours, 65536):
            shown += part
    except OSError:  # the other side is closed
        pass
    os.close(ours)
    assert ran.returncode == 0
    if pause:
        assert re.search(rb"^\rwriting table t: \d+ rows.*\r +\r$", shown)
    else:
        assert shown == b""


def test_nothing_is_told_of_progress_where_there_is_no_terminal(files):
    files.schemas(table("a"), []).rows("t", *map(str, range(100)))
    assert subprocess.run(
        [CONVERT, "--export", "t", files.directory / "old.cfg"],
        capture_output=True,
        check=True,
        timeout=60,
    ).stderr == b""
