"""Rows that hold ports, seen through what the port maps say at debug level."""

import re

import pytest
from module_host import Call, Table, columns

NAMES = ("id", "call", "caller", "callee", "int_port", "place", "ext_port", "kind", "dyn_kind")
DYNAMIC = Table("media", columns(*NAMES), ports=("dynamic", 4, 6))
STATIC = Table("media", columns(*NAMES), ports=("static", 4, 6))
PLAIN = Table("media", columns(*NAMES))

CALLS = {
    "insert": Call('tarn_memdb_insert("media,$hdr(X-Q)")'),
    "delete": Call('tarn_memdb_delete("media,$hdr(X-Q)")'),
    "update": Call('tarn_memdb_update("media,$hdr(X-Q)", "$hdr(X-V)")'),
    "clear": Call('tarn_memdb_clear_tbl("media")'),
}
WILD = "|".join("*" * 9)


def row(call="c1", int_port=21010, place="WAN", ext_port=10010, kind=0, dyn_kind=0):
    return f"0|{call}|alice|bob|{int_port}|{place}|{ext_port}|{kind}|{dyn_kind}"


def port_lines(server):
    """The lines that tell of a change of a port's entry, as (port, entry) in order."""
    found = []
    for text in server.said("DEBUG", "ERROR"):
        match = re.fullmatch(r"Port (\d+) After Value = 0x([0-9a-f]+)\n", text) or re.fullmatch(
            r"Port = (\d+) is freed and value update to 0x([0-9a-f]+)\n", text
        )
        if match:
            found.append((int(match[1]), int(match[2], 16) & 0xFF))
    return found


HELD_ONCE = 0x81
HELD_TWICE = 0x82
FREE = 0x00


@pytest.mark.parametrize(
    "table, values, port",
    [
        (DYNAMIC, {"place": "WAN"}, 21010),
        (DYNAMIC, {"place": "LAN"}, 10010),
        (DYNAMIC, {"place": "LAN", "dyn_kind": 6}, 21010),
        (DYNAMIC, {"place": "LAN", "kind": 6}, 10010),
        (STATIC, {"place": "WAN"}, 21010),
        (STATIC, {"place": "LAN", "ext_port": 9010}, 9010),
        (STATIC, {"place": "LAN", "kind": 6}, 21010),
        (STATIC, {"place": "LAN", "dyn_kind": 6, "ext_port": 9010}, 9010),
        (STATIC, {"place": "wan", "ext_port": 9010}, 9010),
    ],
)
def test_a_row_takes_the_port_of_its_side_and_a_delete_gives_it_back(host, table, values, port):
    server = host(tables=[table], calls=CALLS, debug=True)
    assert server.call("insert", row(**values)).rc == 1
    assert port_lines(server) == [(port, HELD_ONCE)]
    assert server.call("delete", WILD).rc == 1
    assert port_lines(server) == [(port, HELD_ONCE), (port, FREE)]


def test_a_table_without_ports_takes_none(host):
    server = host(tables=[PLAIN], calls=CALLS, debug=True)
    assert server.call("insert", row()).rc == 1
    assert server.call("delete", WILD).rc == 1
    assert port_lines(server) == []


def test_two_rows_of_one_port_count_twice(host):
    server = host(tables=[DYNAMIC], calls=CALLS, debug=True)
    assert server.call("insert", row("c1")).rc == 1
    assert server.call("insert", row("c2")).rc == 1
    assert server.call("delete", "*|c1|*|*|*|*|*|*|*").rc == 1
    assert server.call("delete", WILD).rc == 1
    assert port_lines(server) == [
        (21010, HELD_ONCE),
        (21010, HELD_TWICE),
        (21010, HELD_ONCE),
        (21010, FREE),
    ]


def test_a_restart_counts_the_ports_of_the_stored_rows_again(host):
    server = host(tables=[DYNAMIC], calls=CALLS, debug=True)
    assert server.call("insert", row("c1")).rc == 1
    assert server.call("insert", row("c2", place="LAN")).rc == 1
    assert server.stop() == 0
    server.start()
    assert port_lines(server) == [(21010, HELD_ONCE), (10010, HELD_ONCE)]
    assert server.call("delete", WILD).rc == 1
    assert port_lines(server)[2:] == [(10010, FREE), (21010, FREE)]


def test_a_row_with_a_port_outside_the_map_is_taken_without_it(host):
    server = host(tables=[DYNAMIC], calls=CALLS, debug=True)
    assert server.call("insert", row(int_port=99)).rc == 1
    assert "Port 99 NOT set on load for range dynamic!\n" in server.said("DEBUG")
    assert server.call("delete", WILD).rc == 1
    assert server.said("ERROR") == ["Port 99 not cleared!\n"]
    assert port_lines(server) == []


def test_the_bounds_of_a_map_are_its_parameters(host):
    params = {"min_int_port": 500, "max_int_port": 501}
    server = host(tables=[DYNAMIC], calls=CALLS, params=params, debug=True)
    for number, port in enumerate((499, 500, 501, 502)):
        assert server.call("insert", row(f"c{number}", int_port=port)).rc == 1
    assert port_lines(server) == [(500, HELD_ONCE), (501, HELD_ONCE)]


def test_a_private_port_keeps_its_mark_while_a_row_holds_it(host):
    server = host(tables=[DYNAMIC], calls=CALLS, ranges="INT 21010 21011\n", debug=True)
    assert server.call("insert", row()).rc == 1
    assert server.call("delete", WILD).rc == 1
    assert port_lines(server) == [(21010, 0xC1), (21010, 0x40)]


def test_an_update_releases_the_old_port_only_when_the_selection_names_it(host):
    server = host(tables=[DYNAMIC], calls=CALLS, debug=True)

    def update(query, values):
        return server.call("update", query, headers={"X-V": values}).rc

    assert server.call("insert", row()).rc == 1
    taken = port_lines(server)
    assert update("*|*|*|*|21010|*|*|*|*", "*|*|*|*|21010|*|*|*|*") == 1
    assert update(WILD, "*|*|*|*|21020|*|*|*|*") == 1
    assert port_lines(server) == taken
    assert update("*|*|*|*|21020|*|*|*|*", "*|*|*|*|21010|*|*|*|*") == 1
    assert port_lines(server)[1:] == [(21020, FREE)]
    assert update("*|*|*|*|21010|*|*|*|*", "*|*|*|*|21030|*|*|*|*") == 1
    assert port_lines(server)[2:] == [(21010, FREE)]


def test_a_cleared_table_leaves_its_ports_taken(host):
    server = host(tables=[DYNAMIC], calls=CALLS, debug=True)
    assert server.call("insert", row()).rc == 1
    assert server.call("clear").rc == 1
    assert server.call("insert", row()).rc == 1
    assert port_lines(server) == [(21010, HELD_ONCE), (21010, HELD_TWICE)]


def test_duplicates_of_a_table_with_ports_are_told_by_columns_1_to_3(host):
    strict = Table("media", columns(*NAMES), ports=("dynamic", 4, 6), check_duplicates=True)
    server = host(tables=[strict], calls=CALLS)
    assert server.call("insert", row(int_port=21010)).rc == 1
    assert server.call("insert", row(int_port=21011, place="LAN")).rc == -1
    assert server.call("insert", row("c2")).rc == 1
    assert server.said("WARNING") == ["Duplicated data will not be inserted into table 'media'!\n"]


def test_a_table_too_narrow_for_the_port_rules_takes_nothing(host):
    narrow = Table("media", columns("a", "b", "c"), ports=("dynamic", 4, 6))
    calls = {
        "insert": CALLS["insert"],
        "delete": Call('tarn_memdb_delete("media,*|*|*")'),
    }
    server = host(tables=[narrow], calls=calls, debug=True)
    assert server.call("insert", "1|2|3").rc == 1
    assert server.call("delete").rc == 1
    assert port_lines(server) == []
