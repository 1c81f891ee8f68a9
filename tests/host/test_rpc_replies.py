"""What the roads into a server make of a command's reply: what they show, cut, refuse and lose."""

import dataclasses

import pytest
from module_host import Column, Table
from rpc_host import (
    COMMANDS,
    MEDIA,
    PREFIX,
    QUIET,
    USERS,
    Fault,
    jsonrpc,
    kamcmd,
    lines,
    process_of,
    silently,
)

RULE = "-" * 40

LONG = Table("long", (Column("a", 3000), Column("b", 3000)), max_rows=100000)
WIDE_USERS = dataclasses.replace(USERS, max_rows=100000)


def ctl_errors(server):
    return [entry.text for entry in server.entries("ctl", "ERROR")] + [
        # The ctl module writes without the usual head.
        line
        for line in server.log().splitlines()
        if "ERROR: binrpc" in line or "ERROR: _rpc_fault" in line
    ]


@pytest.fixture
def server(host):
    made = host(start=False, tables=[USERS, QUIET, MEDIA])
    made.write_rows("users", ["alice|30|rome", "bob|31|oslo"])
    return made.start()


# JSON-RPC keeps the last value alone of a reply whose command has no flags.


def test_jsonrpc_shows_the_last_row_of_a_select(server):
    for command in ("select", "nl_select"):
        assert jsonrpc(server, command, "users,*|*|*") == "alice|30|rome"
        assert jsonrpc(server, command, "users,bob|*|*") == "bob|31|oslo"
        assert jsonrpc(server, command, "users,nobody|*|*") == "TABLE:"


def test_jsonrpc_shows_the_last_row_of_a_table(server):
    assert jsonrpc(server, "show", "users") == ["alice|30|rome"]
    assert jsonrpc(server, "show", "quiet") == "a|b"
    assert jsonrpc(server, "show_p", "users") == [
        f'{RULE}\nname: "alice"\nage: "30"\ncity: "rome"\n'
    ]
    assert jsonrpc(server, "show_p", "quiet") == "Row count: 0"


def test_jsonrpc_shows_the_last_line_of_every_other_reply(server):
    assert jsonrpc(server, "show_tbl_info", "users") == "File name: users.tbl"
    assert jsonrpc(server, "show_tbls_lst") == "media"
    assert jsonrpc(server, "show_cmds") == PREFIX + "sync"
    assert jsonrpc(server, "show_pm_info") == (
        "Static External Range:\n"
        "Min port = 9000; Max port = 9255; Next free port = 9000; Private Port Range = No;"
    )
    assert jsonrpc(server, "sync", "users") == "Row count: 2"


def test_jsonrpc_carries_any_text(server):
    silently(jsonrpc, server, "insert", 'quiet,"\\\\é\n\t|{}')
    assert jsonrpc(server, "select", "quiet,*|*") == '"\\é\n\t|{}'
    assert kamcmd(server, "select", "quiet,*|*") == 'TABLE:\n"\\é\n\t|{}\n'


# Over ctl a line, a reply and a fault have their limits. A line that doesn't fit ends the reply.


def test_ctl_has_no_room_for_a_line_of_more_than_1023_bytes(host):
    """Up to 6.0.6 and 6.1.3 hosts lose the last byte of one of 1024; all refuse longer ones."""
    server = host(tables=[LONG])

    def select_of(length):
        silently(kamcmd, server, "insert", f"long,{'x' * (length - 2)}|b")
        return lines(server, "select", "long,*|*")

    whole = "x" * 1021 + "|b"
    assert select_of(1023) == ["TABLE:", whole]
    of_1024 = select_of(1024)
    if of_1024 == ["TABLE:"]:
        assert any("buffer size exceeded" in text for text in ctl_errors(server))
    else:
        assert of_1024 == ["TABLE:", "x" * 1022 + "|", whole]
        assert ctl_errors(server) == []
    assert select_of(1025) == ["TABLE:"], "the newest row comes first, and ends the reply"
    assert any("buffer size exceeded" in text for text in ctl_errors(server))
    # The lock was given back, and the rows of show, which are no lines, have room.
    assert lines(server, "show", "long")[3:5] == ["{", "\t" + "x" * 1023 + "|b"]
    assert jsonrpc(server, "select", "long,*|*,1") == "x" * 1023 + "|b"


def test_a_row_longer_than_the_buffer_is_cut_on_both_roads(host):
    server = host(tables=[LONG])
    silently(jsonrpc, server, "insert", f"long,{'a' * 3000}|{'b' * 3000}")
    cut = "a" * 3000 + "|" + "b" * 1094
    assert jsonrpc(server, "select", "long,*|*") == cut
    assert jsonrpc(server, "show", "long") == [cut]
    assert lines(server, "show", "long")[3:] == ["{", "\t" + cut, "}"]
    paragraph = f'{RULE}\na: "{"a" * 3000}"\nb: "{"b" * 3000}"\n'[:4095]
    assert jsonrpc(server, "show_p", "long") == [paragraph]
    lines(server, "sync", "long")
    assert server.rows("long") == ["a" * 3000 + "|" + "b" * 3000], "but never in the file"


def test_select_over_ctl_ends_where_the_reply_is_full(host):
    server = host(
        start=False,
        tables=[WIDE_USERS],
        modparams=['modparam("ctl", "binrpc_max_body_size", 1)'],
    )
    everyone = [f"user{i:04}|30|rome" for i in range(500)]
    server.write_rows("users", everyone)
    server.start()
    for command in ("select", "nl_select"):
        head, *shown = lines(server, command, "users,*|*|*")
        assert head == "TABLE:"
        assert 0 < len(shown) < 500
        assert shown == everyone[::-1][: len(shown)]
    assert any("buffer too small" in text for text in ctl_errors(server))
    # The lock was given back.
    assert lines(server, "sync", "users") == ["Table: users", "Row count: 500"]


def test_show_over_ctl_goes_beyond_that_size_since_each_row_is_a_container(host):
    server = host(
        start=False,
        tables=[WIDE_USERS],
        modparams=['modparam("ctl", "binrpc_max_body_size", 4)'],
    )
    server.write_rows("users", [f"user{i:04}|30|rome" for i in range(500)])
    server.start()
    shown = [line for line in lines(server, "show", "users") if line.startswith("\tuser")]
    assert len(shown) == 500


def test_show_over_ctl_is_a_fault_where_even_the_containers_fill_the_reply(host):
    """With the usual size that is so from some 16000 rows on."""
    server = host(
        start=False,
        tables=[WIDE_USERS],
        modparams=['modparam("ctl", "binrpc_max_body_size", 1)'],
    )
    server.write_rows("users", [f"user{i:04}|30|rome" for i in range(600)])
    server.start()
    for command in ("show", "show_p"):
        fault = kamcmd(server, command, "users")
        assert isinstance(fault, Fault) and fault.code == 500
        assert "buffer too small" in fault.text
    # The lock was given back, and the other road knows no such limit.
    assert lines(server, "sync", "users") == ["Table: users", "Row count: 600"]
    assert jsonrpc(server, "show", "users") == ["user0000|30|rome"]


def test_kamcmd_refuses_a_reply_that_is_too_big_for_it(host):
    server = host(start=False, tables=[WIDE_USERS])
    server.write_rows("users", [f"user{i:05}|30|rome" for i in range(8000)])
    server.start()
    for command in ("show", "show_p"):
        status, output, errors = server.kamcmd(PREFIX + command, "users")
        assert (status, output, errors) == (255, "", "ERROR: reply too big\n")
    # The server has sent it all and goes on; a part of the table can be had by select.
    assert lines(server, "select", "users,*|*|*,2") == [
        "TABLE:",
        "user07999|30|rome",
        "user07998|30|rome",
    ]
    assert jsonrpc(server, "show", "users") == ["user00000|30|rome"]


def test_long_faults_are_cut_by_jsonrpc_and_lost_by_ctl(server):
    """Over ctl a fault of 255 bytes or more isn't sent: the reply looks like a success."""

    def list_for(length):
        return "|" * (length - len("Bad parameter: ''"))

    def update(road, length):
        return road(server, "update", "quiet,*|*", list_for(length))

    assert update(kamcmd, 254) == Fault(500, f"Bad parameter: '{list_for(254)}'")
    assert ctl_errors(server) == []
    assert update(kamcmd, 255) == ""
    assert any("_rpc_fault" in text for text in ctl_errors(server))
    # The log has it whole on either road.
    assert server.said("ERROR")[-1] == f"RPC Update: bad parameter: '{list_for(255)}'"
    assert update(jsonrpc, 127) == Fault(500, f"Bad parameter: '{list_for(127)}'")
    assert update(jsonrpc, 255) == Fault(500, f"Bad parameter: '{list_for(255)}'"[:127])


# Nothing of a reply stays in the processes that serve the roads.


def used_by(server, pid):
    (used,) = [
        entry["used"] for entry in server.jsonrpc("pkg.stats")["result"] if entry["pid"] == pid
    ]
    return used


def test_commands_leave_no_private_memory_in_the_processes_that_run_them(server):
    ctl = process_of(server, "ctl handler")
    json = process_of(server, "JSONRPCS DATAGRAM")
    examples = {
        "insert": ("quiet,1|2",),
        "delete": ("quiet,1|2",),
        "select": ("users,*|*|*",),
        "nl_select": ("users,*|*|*",),
        "show": ("users",),
        "show_p": ("users",),
        "clear_all": (),
        "clear_tbl": ("quiet",),
        "update": ("users,*|*|*", "*|32|*"),
        "show_tbl_info": ("media",),
        "show_tbls_lst": (),
        "show_cmds": (),
        "show_pm_info": (),
        "reload_table": ("users",),
        "sync": ("users",),
    }
    assert list(examples) == list(COMMANDS)

    def all_commands(road):
        for command, arguments in examples.items():
            assert not isinstance(road(server, command, *arguments), Fault), command
            road(server, command, "nobody,*", "*")

    # The first round fills what the host keeps for later.
    all_commands(jsonrpc)
    all_commands(kamcmd)
    before = used_by(server, json), used_by(server, ctl)
    for _ in range(3):
        all_commands(jsonrpc)
        all_commands(kamcmd)
    assert (used_by(server, json), used_by(server, ctl)) == before
