"""Every RPC command on a real server, over kamcmd and over JSON-RPC."""

import dataclasses

import pytest
from module_host import Call
from rpc_host import (
    COMMANDS,
    MEDIA,
    NUMBERED,
    PREFIX,
    QUIET,
    ROADS,
    USERS,
    Fault,
    info,
    jsonrpc,
    kamcmd,
    lines,
    rows,
    silently,
)

CALLS = {
    "insert_quiet": Call('tarn_memdb_insert("quiet,$hdr(X-Q)")'),
    "insert_numbered": Call('tarn_memdb_insert("numbered,|$hdr(X-Q)")'),
    "select_user": Call(
        'tarn_memdb_select("users,$hdr(X-Q)|*|*", "$avp(a)|$avp(b)")', show=("$avp(a)", "$avp(b)")
    ),
    "next_port": Call('tarn_memdb_get_port("INT", "$avp(port)")', show=("$avp(port)",)),
}

RULE = "-" * 40


@pytest.fixture(params=ROADS.values(), ids=ROADS.keys())
def road(request):
    return request.param


@pytest.fixture
def server(host):
    """Three users and a row that holds port 21005, all in files, and two private ranges."""
    made = host(
        start=False,
        tables=[USERS, QUIET, NUMBERED, MEDIA],
        calls=CALLS,
        ranges="INT 21010 21011\nEXT 10001 10002 10003\n",
    )
    made.write_rows("users", ["alice|30|rome", "bob|31|oslo", "carol|30|bern"])
    made.write_rows("media", ["1|c1|a|b|21005|WAN||0|0"])
    return made.start()


def said_by_module(server, *levels):
    """What the module logged since the server answered its first request."""
    return [text for text in server.said(*levels) if "Reading cfg file" not in text]


def test_the_server_knows_all_fifteen_commands_with_their_help(server):
    known = server.jsonrpc("system.listMethods")["result"]
    assert {name for name in known if name.startswith(PREFIX)} == {
        PREFIX + name for name in COMMANDS
    }
    for name, text in COMMANDS.items():
        assert server.kamcmd("help", PREFIX + name) == (0, text + "\n", "")
        assert server.jsonrpc("system.methodHelp", PREFIX + name)["result"] == text


# Data commands


def test_insert_is_seen_by_workers_at_once_and_in_the_file_later(server, road):
    silently(road, server, "insert", "users,dan|33|kyiv")
    assert server.call("select_user", "dan").values == ("dan", "33")
    assert len(server.rows("users")) == 3
    assert said_by_module(server) == ["       USERS - (4) RPC Inserting users,dan|33|kyiv"]
    lines(server, "sync", "users")
    assert server.rows("users")[-1] == "dan|33|kyiv"


def test_insert_refusals_all_read_internal_error(server, road):
    silently(road, server, "insert", "quiet,1|2")
    assert road(server, "insert", "quiet,1|2") == Fault(500, "Internal Error")
    silently(road, server, "insert", "users,dan|33|kyiv")
    assert road(server, "insert", "users,eve|34|lima") == Fault(500, "Internal Error")
    assert said_by_module(server, "WARNING") == [
        "RPC Insert: duplicated data will not be inserted into table 'quiet'!\n",
        "RPC Insert: MAX number of rows allowed (4) for table 'users' reached. "
        "Data will not be inserted!\n",
    ]
    assert rows(server, "quiet") == ["1|2"]


def test_insert_refuses_a_duplicate_that_a_script_may_insert(server, road):
    assert server.call("insert_quiet", "1|2").rc == 1
    assert server.call("insert_quiet", "1|2").rc == 1
    assert road(server, "insert", "quiet,1|2") == Fault(500, "Internal Error")
    assert rows(server, "quiet") == ["1|2", "1|2"]


def test_insert_generates_the_index_that_scripts_go_on_with(server, road):
    silently(road, server, "insert", "numbered,|x")
    assert server.call("insert_numbered", "y").rc == 2
    assert rows(server, "numbered") == ["2|y", "1|x"]


def test_insert_takes_the_rows_port(server, road):
    silently(road, server, "insert", "media,|c2|a|b|21000|WAN||0|0")
    assert server.call("next_port").values == ("21001",)


def test_delete_stores_at_once(server, road):
    silently(road, server, "insert", "quiet,1|2")
    silently(road, server, "delete", "users,*|30|*")
    assert server.rows("users") == ["bob|31|oslo"]
    assert server.rows("users", backup=True) == ["alice|30|rome", "bob|31|oslo", "carol|30|bern"]
    assert server.rows("quiet") == ["1|2"], "every changed table is stored"
    assert said_by_module(server) == [
        "       USERS - (2) RPC Deleting users,carol|30|bern",
        "       USERS - (1) RPC Deleting users,alice|30|rome",
    ]


def test_delete_without_a_match_replies_nothing(server, road):
    before = server.file_states()
    silently(road, server, "delete", "users,nobody|*|*")
    assert server.file_states() == before


def test_update_waits_for_the_timer(server, road):
    silently(road, server, "update", "users,*|30|*,1", "*|40|")
    assert rows(server, "users") == ["carol|40|", "bob|31|oslo", "alice|30|rome"]
    assert len(server.rows("users")) == 3 and "carol|30|bern" in server.rows("users")
    assert said_by_module(server) == ["       USERS - (3) RPC Updating users,carol|40|"]


def test_update_that_empties_a_row_deletes_it(server, road):
    silently(road, server, "update", "users,bob|*|*", "||")
    assert rows(server, "users") == ["carol|30|bern", "alice|30|rome"]
    assert info(server, "users")["Row count"] == "2"
    assert said_by_module(server, "NOTICE", "INFO") == [
        "       USERS - (2) RPC Deleting from update users,||",
        "RPC - Deleting row from update for selected index 0 in table users - cols_len: 3\n",
    ]


@pytest.mark.parametrize("command", ["select", "nl_select"])
def test_select_over_kamcmd_shows_every_row(server, command):
    assert kamcmd(server, command, "users,*|30|*") == "TABLE:\ncarol|30|bern\nalice|30|rome\n"
    assert kamcmd(server, command, "users,*|*|*,2") == "TABLE:\ncarol|30|bern\nbob|31|oslo\n"
    assert kamcmd(server, command, "users,nobody|*|*") == "TABLE:\n"
    assert kamcmd(server, command, "quiet,*|*") == "TABLE:\n"


# Inspection commands


def test_show_over_kamcmd_shows_every_row(server):
    assert kamcmd(server, "show", "users") == (
        "Table: users\nRow count: 3\nname|age|city\n"
        "{\n\tcarol|30|bern\n}\n{\n\tbob|31|oslo\n}\n{\n\talice|30|rome\n}\n"
    )
    assert kamcmd(server, "show", "quiet") == "Table: quiet\nRow count: 0\na|b\n"


def test_show_p_over_kamcmd_shows_every_row(server):
    silently(kamcmd, server, "update", "users,bob|*|*", "*||*")
    assert kamcmd(server, "show_p", "users and more") == (
        "Table: users\nRow count: 3\n"
        f'{{\n\t{RULE}\nname: "carol"\nage: "30"\ncity: "bern"\n\n}}\n'
        f'{{\n\t{RULE}\nname: "bob"\nage: ""\ncity: "oslo"\n\n}}\n'
        f'{{\n\t{RULE}\nname: "alice"\nage: "30"\ncity: "rome"\n\n}}\n'
    )


def test_show_tbl_info_over_kamcmd(server):
    assert lines(server, "show_tbl_info", "quiet") == [
        "Table: quiet",
        "Row count: 0",
        "Max rows: 100",
        "Number of columns: 2",
        "State: 0",
        "Use index: 0",
        "Log tag: ",
        "Check for duplicated data: 0",
        "File name: quiet.tbl",
    ]
    assert lines(server, "show_tbl_info", "media") == [
        "Table: media",
        "Row count: 1",
        "Max rows: 100",
        "Number of columns: 9",
        "State: 0",
        "Use index: 1",
        "Next index: 2",
        "Port range: dynamic",
        "Internal port field: 4",
        "External port field: 6",
        "Log tag: MEDIA",
        "Check for duplicated data: 0",
        "File name: media.tbl",
    ]


def test_show_tbls_lst_over_kamcmd(server):
    assert lines(server, "show_tbls_lst") == [
        "DB has 4 tables defined:",
        "users",
        "quiet",
        "numbered",
        "media",
    ]


def test_show_cmds_over_kamcmd(server):
    assert lines(server, "show_cmds") == ["Available CLI commands:"] + [
        PREFIX + name for name in COMMANDS
    ]


def test_show_pm_info_over_kamcmd_with_private_ranges(server):
    assert server.call("next_port").values == ("21000",)
    assert kamcmd(server, "show_pm_info") == (
        "PM Info\n"
        "Dynamic Internal Range:\n"
        "Min port = 21000; Max port = 21255; Next free port = 21001; Private Port Range = Yes;\n"
        "Listing 1 Private Range(s):\n\n"
        "21010 21011 -1 -1 -1 -1 -1 -1 -1 -1\n\n"
        "Dynamic External Range:\n"
        "Min port = 10000; Max port = 15000; Next free port = 10000; Private Port Range = Yes;\n"
        "Listing 1 Private Range(s):\n\n"
        "10001 10002 10003 -1 -1 -1 -1 -1 -1 -1\n\n"
        "Static Internal Range:\n"
        "Min port = 21000; Max port = 21255; Next free port = 21000; Private Port Range = No;\n"
        "Static External Range:\n"
        "Min port = 9000; Max port = 9255; Next free port = 9000; Private Port Range = No;\n"
    )


def test_inspection_changes_nothing(server, road):
    before = server.file_states()
    for command, *arguments in (
        ("show", "users"),
        ("show_p", "users"),
        ("show_tbl_info", "media"),
        ("show_tbls_lst",),
        ("show_cmds",),
        ("show_pm_info",),
        ("select", "users,*|*|*"),
        ("nl_select", "users,*|*|*"),
        ("sync", "users"),
    ):
        assert not isinstance(road(server, command, *arguments), Fault)
    assert server.file_states() == before
    assert said_by_module(server) == []


# Maintenance commands


def test_clear_all_empties_tables_files_and_maps(server, road):
    assert server.call("next_port").values == ("21000",)
    silently(road, server, "insert", "numbered,|x")
    silently(road, server, "clear_all")
    for table in ("users", "quiet", "numbered", "media"):
        assert rows(server, table) == []
        assert info(server, table)["State"] == "0"
        assert server.rows(table) == [] and server.rows(table, backup=True) == []
    assert server.call("next_port").values == ("21000",)
    assert server.call("insert_numbered", "y").rc == 1
    assert said_by_module(server) == [
        "    USERS - (0) RPC Clearing table users",
        "    MEDIA - (0) RPC Clearing table media",
    ]


def test_clear_tbl_empties_one_table_and_both_its_files_and_keeps_ports(server, road):
    silently(road, server, "insert", "media,|c2|a|b|21000|WAN||0|0")
    lines(server, "sync", "media")
    assert server.rows("media", backup=True) != []
    silently(road, server, "clear_tbl", "media and more")
    assert rows(server, "media") == []
    assert server.rows("media") == [] and server.rows("media", backup=True) == []
    assert len(rows(server, "users")) == 3
    assert server.call("next_port").values == ("21001",)
    assert info(server, "media")["Next index"] == "1"


def test_reload_table_takes_what_was_written_by_hand(server, road):
    server.write_rows("users", ["# by hand", "", "dan|33|kyiv"])
    silently(road, server, "reload_table", "users")
    assert rows(server, "users") == ["dan|33|kyiv"]
    assert info(server, "users")["State"] == "1"
    by_hand = server.main_file("users").read_text()
    lines(server, "sync", "users")
    assert server.rows("users") == ["dan|33|kyiv"]
    assert server.backup_file("users").read_text() == by_hand


def test_reload_table_of_two_bad_files_sets_them_aside_without_a_fault(server, road):
    server.main_file("users").write_text("Version 2\n")
    server.backup_file("users").write_text("Version 1\nonly|two\n")
    silently(road, server, "reload_table", "users")
    assert rows(server, "users") == []
    assert not server.main_file("users").exists()
    assert not server.backup_file("users").exists()
    assert server.refused_file("users").read_text() == "Version 2\n"
    assert server.refused_file("users", backup=True).read_text() == "Version 1\nonly|two\n"
    assert said_by_module(server, "WARNING") == [
        server.set_aside("users"),
        server.set_aside("users", backup=True),
    ]
    assert said_by_module(server, "ERROR") == [
        "Wrong database version. Current DB: Version 1, Prensent on File: Version 2\n",
        "Size mismatch",
        "Wrong number of fields in field list: users,only|two | (null)\n",
        "Could not parse 'users,only|two'\n",
    ]


def test_reload_table_counts_the_ports_of_its_rows_once_more(server, road):
    silently(road, server, "reload_table", "media")
    silently(road, server, "delete", "media,*|*|*|*|*|*|*|*|*")
    # Had the row's end freed it, 21005 would be next after 21004.
    taken = [server.call("next_port").values[0] for _ in range(6)]
    assert taken == ["21000", "21001", "21002", "21003", "21004", "21006"]


def test_sync_tells_the_table_and_stores_it(server):
    silently(kamcmd, server, "insert", "users,dan|33|kyiv")
    assert kamcmd(server, "sync", "users") == "Table: users\nRow count: 4\n"
    assert server.rows("users")[-1] == "dan|33|kyiv"
    assert server.rows("users", backup=True) == ["alice|30|rome", "bob|31|oslo", "carol|30|bern"]


def test_sync_that_cannot_store_is_seen_in_the_log_alone(server, road):
    silently(road, server, "insert", "users,dan|33|kyiv")
    server.files.rename(server.directory / "elsewhere")
    assert not isinstance(road(server, "sync", "users"), Fault)
    assert said_by_module(server, "ERROR") == [
        f"Could not open file '{server.main_file('users')}'\n",
        "Could not store table 'users' to file 'users.tbl'\n",
    ]
    assert info(server, "users")["State"] == "1"


# Faults

WORDS = {
    "insert": ("RPC Insert", "not enough parameters", "Not enough parameters"),
    "delete": ("RPC Delete", "not enough parameters", "Not enough parameters"),
    "update": ("RPC Update", "not enough parameters", "Not enough parameters"),
    "select": ("RPC Select", "wrong number of parameters", "wrong number of parameters"),
    "nl_select": ("RPC Select", "wrong number of parameters", "wrong number of parameters"),
    "show": ("RPC Show tbl", "wrong number of parameters", "wrong number of parameters"),
    "show_p": ("RPC Show tblp", "wrong number of parameters", "wrong number of parameters"),
    "show_tbl_info": ("RPC Show info", "wrong number of parameters", "wrong number of parameters"),
    "clear_tbl": ("RPC Clear tbl", "not enough parameters", "Not enough parameters"),
    "reload_table": ("", "wrong number of parameters", "wrong number of parameters"),
    "sync": ("", "wrong number of parameters", "wrong number of parameters"),
}


def test_commands_without_their_arguments(server, road):
    for command, (name, logged, fault) in WORDS.items():
        assert road(server, command) == Fault(500, fault), command
        head = f"{name}: " if name else ""
        assert server.said("WARNING")[-1] == f"{head}{logged}\n", command
    assert road(server, "update", "users,*|*|*") == Fault(500, "Not enough parameters")
    assert road(server, "sync", "users") is not None


def test_a_number_is_no_text_to_a_command(server):
    for command, (_, _, fault) in WORDS.items():
        assert server.kamcmd(PREFIX + command, "5")[1] == f"error: 500 - {fault}\n"
        assert jsonrpc(server, command, 5) == Fault(500, fault)


def test_commands_on_an_unknown_table(server, road):
    for command in ("insert", "delete", "select", "nl_select"):
        assert road(server, command, "nobody,*") == Fault(500, "Parse Error of: 'nobody'")
    assert road(server, "update", "nobody,*", "x") == Fault(500, "Parse Error of: 'nobody'")
    for command in ("show", "show_p", "show_tbl_info", "clear_tbl", "reload_table", "sync"):
        assert road(server, command, "nobody") == Fault(500, "Wrong table name: 'nobody'")
    # One takes the whole argument for the name, one shows it, the others know its first word.
    for command in ("show", "clear_tbl"):
        assert road(server, command, "nobody there") == Fault(
            500, "Wrong table name: 'nobody there'"
        )
    for command in ("show_p", "show_tbl_info", "reload_table", "sync"):
        assert road(server, command, "nobody there") == Fault(500, "Wrong table name: 'nobody'")
    odd = "users and more"
    assert road(server, "show", odd) == Fault(500, f"Wrong table name: '{odd}'")


def test_queries_that_do_not_parse(server, road):
    for command in ("insert", "delete", "select", "nl_select"):
        for query in ("users", "users,a|b"):
            assert road(server, command, query) == Fault(500, "Parse Error of: 'users'")
        assert road(server, command, ",a|b|c") == Fault(500, "Parse Error of: ''")
    assert road(server, "delete", "users,*|*|*,0") == Fault(500, "Parse Error of: 'users'")
    assert road(server, "insert", "users,a|*|b") == Fault(500, "Parse Error of: 'users'")
    assert road(server, "update", "users,*|*|*", "a|b") == Fault(500, "Bad parameter: 'a|b'")
    assert road(server, "update", "users,*|*|*", "age=5") == Fault(500, "Bad parameter: 'age=5'")
    assert len(rows(server, "users")) == 3


def test_long_names_are_never_cut_to_a_known_one(host, road):
    known = "n" * 31
    server = host(tables=[dataclasses.replace(QUIET, name=known)])
    silently(road, server, "insert", f"{known},1|2")
    for length in (32, 33, 60):
        name = "n" * length
        for command in ("delete", "select", "nl_select"):
            assert road(server, command, f"{name},*|*") == Fault(500, f"Parse Error of: '{known}'")
        assert road(server, "show", name) == Fault(500, f"Wrong table name: '{name}'")
        assert road(server, "clear_tbl", name) == Fault(500, f"Wrong table name: '{name}'")
        for command in ("show_p", "show_tbl_info", "reload_table", "sync"):
            assert road(server, command, name) == Fault(500, f"Wrong table name: '{known}'")
    assert rows(server, known) == ["1|2"]
