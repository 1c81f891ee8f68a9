"""How tarn-memdb-check is called, what it prints, and its exit status."""

import os
import re
import subprocess

import pytest
from check_files import PORT_COLUMNS, as_json, expect, expect_clean, port_row, run, table


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
    report = as_json(told.out)
    assert (report["clean"], report["findings"]) == (True, [])
    assert (report["errors"], report["warnings"]) == (0, 0)


UNSEEN = {
    "control bytes": ("\x01\x1b\x7f\t", r"\x01\x1b\x7f\x09"),
    "no UTF-8": ("\xff\xfe\xc3(", r"\xff\xfe\xc3("),
    "a surrogate": ("\xed\xa0\x80", r"\xed\xa0\x80"),
    "a byte order mark": ("\xef\xbb\xbf", r"\xef\xbb\xbf"),
    "blanks of another kind": ("\xc2\xa0\xe2\x80\x8b", r"\xc2\xa0\xe2\x80\x8b"),
    "text that can be seen": ("gr\xc3\xbc\xc3\x9fe \\", "grüße \\"),
}


@pytest.mark.parametrize("kind", UNSEEN)
@pytest.mark.parametrize("options", [(), ("--json",)], ids=["lines", "json"])
def test_bytes_that_cannot_be_seen_are_shown_as_escapes(files, kind, options):
    written, shown = UNSEEN[kind]
    files.schema(table()).write("tables/t.tbl", f"{written}\n")
    told = files.check(options=options)
    out = as_json(told.out)["findings"][0]["text"] if options else told.out
    assert f"is '{shown}' and not 'Version 1'" in out


@pytest.mark.parametrize("options", [(), ("--json",)], ids=["lines", "json"])
def test_bytes_of_file_names_are_shown_as_escapes(tmp_path, options):
    where = os.fsencode(tmp_path) + b"/a\xff\x1b"
    os.mkdir(where)
    ran = run(*options, where + b"/schema.cfg")
    assert ran.returncode == 2
    file = as_json(ran.stdout)["findings"][0]["file"] if options else ran.stdout
    assert file.startswith(rf"{tmp_path}/a\xff\x1b/schema.cfg")


def test_a_line_of_the_report_stays_one_line(files):
    files.schema(table()).write("tables/t.tbl", "x\ry\n")
    assert len(files.check().out.splitlines()) == 2


def test_long_rows_are_quoted_by_their_beginning(files):
    files.schema(table(columns=("a 10000 0",))).rows("t", "x" * 5000 + "|" + "y" * 5000)
    (found, _) = files.check().findings
    assert len(found.text) < 3 * 10001 and "x...' of 10001 bytes" in found.text


def test_the_version_is_that_of_the_tool_and_of_its_server():
    ran = run("--version")
    assert (ran.returncode, ran.stderr) == (0, "")
    assert re.fullmatch(
        r"tarn-memdb-check \d+\.\d+\.\d+, for kamailio 6\.\S+ \(x86_64/linux\)\n", ran.stdout
    )


def test_errors_only_tells_errors_and_counts_nothing_else(files):
    files.schema(table("t", MAX_ROWS=None), table("u")).rows("u", "x")
    told = files.check(options=["--errors-only"])
    assert told.status == 1
    assert {found.severity for found in told.findings} == {"error"}
    assert len(told.findings) == len(told.out.splitlines()) == 2
    report = as_json(files.check(options=["--errors-only", "--json"]).out)
    assert (report["errors"], report["warnings"], len(report["findings"])) == (2, 1, 2)


def test_errors_only_ends_with_0_where_there_are_only_warnings(files):
    files.schema(table("t", MAX_ROWS=None))
    assert files.check().status == 1
    told = files.check(options=["--errors-only"])
    assert (told.status, told.out) == (0, "no errors\n")
    report = as_json(files.check(options=["--errors-only", "--json"]).out)
    assert (report["clean"], report["findings"]) == (False, [])
    expect_clean(files.schema(table("t")).check(options=["--errors-only"]))


def test_errors_only_ends_with_2_where_something_cannot_be_read(files):
    assert files.check(options=["--errors-only"]).status == 2


@pytest.mark.parametrize("option", [(), ("--json",)])
def test_a_report_that_cannot_be_written_ends_with_2(files, option):
    files.schema(table())
    with open("/dev/full", "wb") as full:
        ran = run(*option, files.directory / "schema.cfg", stdout=full)
    assert ran.returncode == 2
    assert "the report can't be written" in ran.stderr
    with open("/dev/full", "wb") as full:
        assert run("--help", stdout=full).returncode == 2


# Schema and private ranges from pipes


@pytest.mark.parametrize("name", ["/dev/stdin", "/proc/self/fd/0"])
def test_a_schema_may_come_from_a_pipe(files, name):
    text = files.schema(table(MAX_ROWS=None)).directory.joinpath("schema.cfg").read_bytes()
    (files.directory / "schema.cfg").unlink()
    files.rows("t", "x|y", "bad")
    ran = run(name, input=text)
    assert ran.returncode == 1
    assert f"{name}:8: warning: MAX_ROWS= is missing" in ran.stdout
    assert "tables/t.tbl:3: error: the row is refused" in ran.stdout


def test_schema_and_private_ranges_may_come_from_process_substitutions(files):
    files.schema(table()).write("ranges.txt", "INT 21200\n")
    where = files.directory
    script = f"$0 <(cat {where}/schema.cfg) <(cat {where}/ranges.txt)"
    command = ["bash", "-c", script, os.environ["TARN_CHECK"]]
    ran = subprocess.run(command, check=False, capture_output=True, text=True, timeout=60)
    assert ran.returncode == 1
    assert re.fullmatch(r"/dev/fd/\d+:1: warning: names a base port alone.*\n", ran.stdout)


def test_an_empty_schema_has_no_tables(files):
    files.write("schema.cfg", "")
    expect(files.check(), "schema.cfg", 1, "error", "the file ends where NUM_TABLE= is read")


def test_a_schema_without_an_end_is_given_up():
    ran = run("/dev/zero", most_memory=1_000_000_000)
    assert ran.returncode == 2
    assert "can't be read: it has no end within 64 MB" in ran.stdout


def test_help_goes_to_output_with_status_0():
    for option in ("--help", "-h"):
        ran = run(option)
        assert (ran.returncode, ran.stderr) == (0, "")
        assert ran.stdout.startswith("usage: tarn-memdb-check [options] SCHEMA [PRIVATE_RANGES]\n")
        for known in (
            "--json",
            "--errors-only",
            "--memory MB",
            "--allocator",
            "--int-ports",
            "--static-ext-ports",
            "--version",
            "Exit status: 0 clean",
        ):
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
        ("--memory", "0", "a"),
        ("--memory", "64MB", "a"),
        ("--memory", "", "a"),
        ("--memory", "99999999999999999999", "a"),
        ("--allocator", "dl", "a"),
    ],
    ids=" ".join,
)
def test_arguments_that_are_not_understood_end_with_2_and_the_usage(arguments):
    ran = run(*arguments)
    assert ran.returncode == 2
    assert ran.stdout == ""
    assert "usage: tarn-memdb-check" in ran.stderr


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


def test_a_table_file_that_may_not_be_read_ends_with_2(files):
    files.schema(table()).rows("t", "x|y")
    (files.directory / "tables/t.tbl").chmod(0)
    # Root reads everything, unless it gives that up.
    plain = ["setpriv", "--bounding-set=-dac_override,-dac_read_search"]
    told = files.check(prefix=plain if os.geteuid() == 0 else [])
    assert told.status == 2
    assert told.has("tables/t.tbl", 0, "error", "can't be read by who runs this check")
