"""How much of a listing the roads show: the last line or all, by how the module was built."""

import os
import re
import urllib.parse

import pytest
from rpc_host import COMMANDS, MEDIA, PREFIX, USERS, kamcmd

# What a command is called with, and the lines that kamcmd shows of its reply, rows aside.
LISTINGS = {
    "select": ("users,*|*|*",),
    "nl_select": ("users,*|*|*",),
    "show": ("users",),
    "show_p": ("users",),
    "show_tbl_info": ("users",),
    "show_tbls_lst": (),
    "show_cmds": (),
    "show_pm_info": (),
    "sync": ("users",),
}
OTHERS = ("insert", "delete", "update", "clear_tbl", "reload_table", "clear_all")
ROWS = ["alice|30|rome", "bob|31|oslo"]


def server_of(host, module, **options):
    made = host(start=False, tables=[USERS, MEDIA], module=module, **options)
    made.write_rows("users", ROWS)
    return made.start()


@pytest.fixture
def plain(host):
    return server_of(host, None)


@pytest.fixture
def arrays(host):
    return server_of(host, os.environ["TARN_ARRAYS"])


def texts(value):
    """The texts of a reply, in order, whatever they are in."""
    if isinstance(value, list):
        return [text for part in value for text in texts(part)]
    return value.split("\n")


def without_braces(shown):
    """The same of what kamcmd shows, which puts a list's values between braces."""
    lines = [line.removeprefix("\t") for line in shown.split("\n")[:-1]]
    return [line for line in lines if line not in ("{", "}")]


def result(server, command, *arguments):
    return server.jsonrpc(PREFIX + command, *arguments)["result"]


def test_with_arrays_json_has_all_that_kamcmd_shows(arrays):
    assert sorted([*LISTINGS, *OTHERS]) == sorted(COMMANDS)
    for command, arguments in LISTINGS.items():
        got = result(arrays, command, *arguments)
        assert isinstance(got, list), command
        assert texts(got) == without_braces(kamcmd(arrays, command, *arguments)), command
    assert result(arrays, "select", "users,*|*|*") == ["TABLE:", *ROWS[::-1]]
    assert result(arrays, "select", "users,nobody|*|*") == ["TABLE:"]
    assert result(arrays, "show", "users")[3:] == [[row] for row in ROWS[::-1]]
    assert result(arrays, "sync", "users") == ["Table: users", "Row count: 2"]


def test_kamcmd_shows_the_same_of_both(plain, arrays):
    for command, arguments in LISTINGS.items():
        assert kamcmd(plain, command, *arguments) == kamcmd(arrays, command, *arguments), command


def test_faults_and_commands_without_a_reply_are_the_same_in_json(plain, arrays):
    calls = (
        ("insert", "users,carol|32|bern"),
        ("insert", "users,carol|32|bern"),
        ("update", "users,carol|*|*", "*|33|*"),
        ("delete", "users,carol|*|*"),
        ("reload_table", "users"),
        ("clear_tbl", "nothing"),
        ("clear_tbl", "users"),
        ("clear_all",),
        ("select",),
        ("select", "users,*"),
        ("show", "nothing"),
        ("sync", "nothing"),
    )
    for command, *arguments in calls:
        one, other = (server.jsonrpc(PREFIX + command, *arguments) for server in (plain, arrays))
        assert one == other, command


@pytest.mark.parametrize("module", [None, "TARN_ARRAYS"], ids=["plain", "arrays"])
def test_the_servers_own_web_page_shows_all_lines(host, module):
    server = server_of(
        host,
        os.environ.get(module or ""),
        modules=("pv.so", "sl.so", "textops.so", "xhttp.so", "xhttp_rpc.so", "tarn_memdb"),
        http='if ($hu =~ "^/rpc") dispatch_xhttp_rpc();',
    )
    query = urllib.parse.quote("users,*|*|*")
    page = server.web_page(f"/rpc/tarn_memdb/{PREFIX}select?arg={query}")
    shown = re.sub("<[^>]*>", "\n", page).split("\n")
    assert [line for line in shown if line in ("TABLE:", *ROWS)] == ["TABLE:", *ROWS[::-1]]
