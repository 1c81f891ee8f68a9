"""A start that works: what it reads, what it says, what it leaves alone."""

import re

from module_host import Call, Column, Table, columns, schema_text

USERS = Table("users", columns("name", "age", "city", indexed=("name",)), log_tag="USERS")
COUNT = {"count": Call('tarn_memdb_row_count("users", "$avp(n)")', show=("$avp(n)",))}
SELECT = {
    "select": Call(
        'tarn_memdb_select("users,$hdr(X-Q)", "$avp(name)|$avp(age)|$avp(city)")',
        show=("$avp(name)", "$avp(age)", "$avp(city)"),
    )
}


def test_a_start_without_table_files_says_so_once_and_makes_no_files(host):
    server = host(tables=[USERS], calls=COUNT)
    assert server.said("ERROR", "CRITICAL", "WARNING") == []
    assert server.said("INFO") == [f"Reading cfg file '{server.schema_path}' OK!\n"]
    assert server.call("count").values == ("0",)
    assert server.stop() == 0
    assert server.file_states() == {}


def test_every_process_passes_through_the_module_once(host):
    server = host(tables=[USERS], calls=COUNT, debug=True, children=2)
    server.wait_log(r"Initializing tarn_memdb module OK$")
    server.wait_log(r"module child \[1\]")
    server.wait_log(r"module child \[2\]")
    pattern = r"Initializing tarn_memdb module child \[(-?\d+)\] pid \[(\d+)\]\n"
    children = [
        (entry.pid, match.group(1), int(match.group(2)))
        for entry in server.entries("tarn_memdb", "DEBUG")
        if (match := re.fullmatch(pattern, entry.text))
    ]
    assert all(logged_by == told for logged_by, _, told in children)
    assert {"1", "2"} <= {rank for _, rank, _ in children}
    assert server.stop() == 0
    said = server.said("DEBUG")
    assert said.count("Initializing tarn_memdb module\n") == 1
    assert said.count("Destroy tarn_memdb module\n") == 1
    assert said[-1] == "Destroy tarn_memdb module OK\n"


def test_a_schema_may_leave_out_the_tag_and_hold_blank_lines(host):
    schema = (
        "BASE_DIR={files}\nBASE_BACKUP_DIR={backups}\n\nNUM_TABLE=2\n\n"
        "TABLE_NAME=users\nFLAG=0\nUSE_INDEX=0\nDUPLICATED_DATA_CHECK=0\nMAX_ROWS=10\n"
        "NUM_FIELDS=3\n\nname 10 1\nage 3 0\n\n\ncity 20 0\nFILE_NAME=users.tbl\n\n"
        "TABLE_NAME=groups\nFLAG=0\nUSE_INDEX=0\nDUPLICATED_DATA_CHECK=0\nMAX_ROWS=10\n"
        "NUM_FIELDS=1\nname 10 1\nFILE_NAME=groups.tbl\n"
    )
    calls = {**SELECT, "insert": Call('tarn_memdb_insert("users,$hdr(X-Q)")')}
    server = host(schema=schema, calls=calls)
    assert server.call("insert", "alice|30|rome").rc == 1
    assert server.call("select", "alice|*|*").values == ("alice", "30", "rome")
    assert server.said("NOTICE") == []


def test_a_schema_may_end_behind_the_last_field_line(host):
    block = schema_text.table("users", columns("name", "age", "city"), FILE_NAME=None)
    server = host(schema=schema_text.schema("{files}", "{backups}", [block]), calls=COUNT)
    assert server.call("count").values == ("0",)
    assert server.said("ERROR") == []


def test_rows_come_back_from_their_file_in_order_without_comments(host):
    server = host(start=False, tables=[USERS], calls=SELECT)
    path = server.main_file("users")
    path.write_text("Version 1\nalice|30|rome\n# by hand\n\nbob|\\*|\nalice|31|oslo\ncarol|5|x")
    server.start()
    # The row read last is the newest, so the oldest is delivered last and stands first.
    assert server.call("select", "*|*|*").values == ("alice", "30", "rome")
    assert server.call("select", "*|*|*,1").values == ("carol", "5", "x")
    assert server.call("select", "bob|*|*").values == ("bob", "*", "")
    assert server.said("ERROR", "WARNING") == []


def test_loading_alone_changes_no_file(host):
    server = host(start=False, tables=[USERS], calls=SELECT)
    server.write_rows("users", ["alice|30|rome", "# kept until the next store"])
    server.write_rows("users", ["old|1|x"], backup=True)
    before = server.file_states()
    server.start()
    assert server.call("select", "alice|*|*").rc == 1
    assert server.stop() == 0
    assert server.file_states() == before


def test_a_missing_main_file_is_replaced_by_the_backup_without_a_word(host):
    server = host(start=False, tables=[USERS], calls=SELECT)
    server.write_rows("users", ["old|1|x"], backup=True)
    before = server.file_states()
    server.start()
    assert server.call("select", "*|*|*").values == ("old", "1", "x")
    assert server.said("ERROR", "WARNING") == []
    assert server.stop() == 0
    assert server.file_states() == before


def test_a_main_file_of_another_version_gives_way_to_the_backup(host):
    server = host(start=False, tables=[USERS], calls=SELECT)
    server.main_file("users").write_text("Version 2\nnew|1|x\n")
    server.write_rows("users", ["old|1|x"], backup=True)
    server.start()
    assert server.call("select", "*|*|*").values == ("old", "1", "x")
    assert server.said("ERROR") == [
        "Wrong database version. Current DB: Version 1, Prensent on File: Version 2\n"
    ]
    assert server.said("WARNING") == [server.set_aside("users")]
    assert server.rows("users") is None
    assert server.refused_file("users").read_text() == "Version 2\nnew|1|x\n"
    assert server.rows("users", backup=True) == ["old|1|x"]


def test_carriage_returns_make_a_file_of_another_version(host):
    server = host(start=False, tables=[USERS], calls=SELECT)
    server.main_file("users").write_bytes(b"Version 1\r\nnew|1|x\r\n")
    server.start()
    assert server.call("select", "*|*|*").rc == -2
    assert server.said("ERROR") == [
        "Wrong database version. Current DB: Version 1, Prensent on File: Version 1\r\n"
    ]
    assert server.said("WARNING") == [server.set_aside("users")]
    assert list(server.file_states()) == ["tables/users.tbl.refused"]


def test_an_empty_main_file_gives_way_to_the_backup(host):
    server = host(start=False, tables=[USERS], calls=SELECT, debug=True)
    server.main_file("users").write_bytes(b"")
    server.write_rows("users", ["old|1|x"], backup=True)
    server.start()
    assert server.call("select", "*|*|*").values == ("old", "1", "x")
    assert f"Database empty: {server.main_file('users')}\n" in server.said("DEBUG")
    assert server.file_states().keys() == {"tables/users.tbl.refused", "backup/users.tbl.backup"}
    assert server.refused_file("users").read_bytes() == b""


def test_a_row_with_the_wrong_number_of_fields_makes_the_file_bad(host):
    server = host(start=False, tables=[USERS], calls=SELECT)
    server.write_rows("users", ["alice|30|rome", "bob|31", "carol|32|oslo"])
    server.write_rows("users", ["old|1|x"], backup=True)
    server.start()
    assert server.call("select", "*|*|*").values == ("old", "1", "x")
    assert server.said("ERROR")[-1] == "Could not parse 'users,bob|31'\n"
    assert server.said("ERROR")[0].startswith("Size mismatch")
    assert server.said("WARNING") == [server.set_aside("users")]
    assert server.rows("users") is None


def test_two_bad_files_leave_an_empty_table_and_are_set_aside(host):
    server = host(start=False, tables=[USERS], calls=SELECT)
    server.write_rows("users", ["alice|*|rome"])
    server.write_rows("users", ["|||"], backup=True)
    texts = [server.table_file("users", backup).read_text() for backup in (False, True)]
    server.start()
    assert server.call("select", "*|*|*").rc == -2
    said = server.said("ERROR")
    assert said[:2] == [
        "Wildcard are not allowed in INSERT operation\n",
        "Could not parse 'users,alice|*|rome'\n",
    ]
    assert said[-1] == "Could not parse 'users,|||'\n"
    assert server.said("WARNING") == [server.set_aside("users"), server.set_aside("users", True)]
    assert server.file_states().keys() == {
        "tables/users.tbl.refused",
        "backup/users.tbl.backup.refused",
    }
    assert [server.refused_file("users", backup).read_text() for backup in (False, True)] == texts


def test_more_rows_than_the_limit_load_and_further_ones_are_taken(host):
    small = Table("users", columns("name", "age", "city"), max_rows=2)
    calls = {**COUNT, "insert": Call('tarn_memdb_insert("users,$hdr(X-Q)")')}
    server = host(start=False, tables=[small], calls=calls)
    server.write_rows("users", [f"user{number}|1|x" for number in range(3)])
    server.start()
    assert server.call("count").values == ("3",)
    assert server.call("insert", "more|1|x").rc == 1
    assert server.call("count").values == ("4",)


def test_without_the_timer_the_module_warns(host):
    server = host(tables=[USERS], calls=COUNT, params={"store_tbl_auto": 0})
    assert server.said("WARNING") == ["Table(s) will not be stored automatically\n"]


def test_a_missing_private_range_file_is_no_fault(host):
    server = host(tables=[USERS], calls=COUNT, debug=True)
    assert f"Could not open file '{server.ranges_path}' with private port range\n" in server.said(
        "DEBUG"
    )


def test_private_ranges_are_read_for_every_map(host):
    server = host(
        tables=[USERS],
        calls=COUNT,
        debug=True,
        ranges="INT 21000 21001\nEXT 10000\nSTATIC_INT 21002 21003\nSTATIC_EXT 9000 end\n",
    )
    reserved = [text for text in server.said("DEBUG") if text.startswith("Port ")]
    assert reserved == [
        f"Port {port} was reserved to a private range for {word}!\n"
        for port, word in (
            (21000, "INT"),
            (21001, "INT"),
            (10000, "EXT"),
            (21002, "STATIC_INT"),
            (21003, "STATIC_INT"),
            (9000, "STATIC_EXT"),
        )
    ]
    assert f"Reading private port range file '{server.ranges_path}' OK!\n" in server.said("DEBUG")


def test_a_private_range_line_ahead_of_any_map_word_is_skipped_with_a_warning(host):
    server = host(tables=[USERS], calls=COUNT, debug=True, ranges="NOWHERE 21000\nINT 21005\n")
    assert len(server.said("WARNING")) == 1
    reserved = [text for text in server.said("DEBUG") if "reserved to" in text]
    assert reserved == ["Port 21005 was reserved to a private range for INT!\n"]


def test_a_column_too_short_for_a_stored_value_truncates_it_with_a_warning(host):
    short = Table("users", (Column("name", 3), Column("age", 3), Column("city", 3)))
    server = host(start=False, tables=[short], calls=SELECT)
    server.write_rows("users", ["alice|30|rome"])
    server.start()
    assert server.call("select", "*|*|*").values == ("ali", "30", "rom")
    assert server.said("WARNING") == [
        "Value 'alice' too long. It will be truncated to fit field size (3 bytes)\n",
        "Value 'rome' too long. It will be truncated to fit field size (3 bytes)\n",
    ]
