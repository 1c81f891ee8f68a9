"""What tarn-memdb-check finds in the ports of rows and in private ranges."""

import pytest
from check_files import PORT_COLUMNS, expect, expect_clean, port_row, table


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
        (f"INT 21200 21201\n{'7' * 60} 21202 21203\n", 2, f"'{'7' * 60}' names no port map"),
        ("INT 21200 21201 \0 21202\n", 1, "holds a zero byte"),
    ],
)
def test_private_range_findings(files, text, line, part):
    files.schema(table()).write("ranges.txt", text)
    expect(files.check(ranges=True), "ranges.txt", line, "warning", part)


def test_one_port_in_ranges_of_different_maps_is_no_finding(files):
    files.schema(table()).write("ranges.txt", "INT 21200 21201\nSTATIC_INT 21200 21201\n")
    expect_clean(files.check(ranges=True))


def test_the_rest_of_a_word_that_is_too_long_is_no_port(files):
    files.schema(table()).write("ranges.txt", f"INT 21200 21201\n{'W' * 31}21202 21203 21204\n")
    (found,) = files.check(ranges=True).findings
    assert (found.line, "names no port map" in found.text) == (2, True)


def test_the_last_line_of_the_ranges_needs_no_end(files):
    files.schema(table()).write("ranges.txt", "INT 21200 21201\r\nEXT 10100 10101")
    expect_clean(files.check(ranges=True))


# Ports of a file that is refused


def test_ports_of_the_rows_ahead_of_a_bad_one_stay_taken_and_that_is_told(files):
    files.schema(table("t", PORT_COLUMNS, ports=("dynamic", 3, 4)))
    good = [port_row("1", "WAN", "21005"), port_row("2", "WAN", "21006")]
    files.rows("t", *good, "bad").rows("t", *good, backup=True)
    told = files.check()
    part = "the ports of the rows ahead of line 4 stay taken until the server is started once more"
    expect(told, "tables/t.tbl", 0, "warning", part)
    assert not any("is held by" in found.text for found in told.findings)
    files.rows("t", "bad")
    assert "stay taken" not in files.check().out
