"""Tables on disk: stored by the timer and at shutdown, and there again after a start."""

import os
import pathlib
import signal
import time

import pytest
from module_host import Call, Column, Table, columns, host_server

USERS = Table("users", columns("name", "age", "city", indexed=("name",)))
OTHERS = Table("others", columns("id", "value"), use_index=True)
CALLS = {
    "insert": Call('tarn_memdb_insert("users,$hdr(X-Q)")'),
    "delete": Call('tarn_memdb_delete("users,$hdr(X-Q)")'),
    "update": Call('tarn_memdb_update("users,$hdr(X-Q)", "$hdr(X-V)")'),
    "count": Call('tarn_memdb_row_count("users", "$avp(n)")', show=("$avp(n)",)),
    "all": Call(
        'tarn_memdb_select("users,*|*|*", "$avp(name)")',
        show=tuple(f"$(avp(name)[{i}])" for i in range(4)),
    ),
}
INSERT_OTHER = Call('tarn_memdb_insert("others,$hdr(X-Q)")')
EVERY_SECOND = {"store_tbl_interval": 1}


def wait_rows(server, table, rows, backup=False, timeout=5.0):
    """Waits for a table's file to hold some rows: a tick is at most a second away."""
    end = time.monotonic() + timeout
    while (found := server.rows(table, backup)) != rows and time.monotonic() < end:
        time.sleep(0.02)
    # Read between the truncation and the flush, a file can look complete and not be.
    assert found == rows


def insert(server, *rows):
    for row in rows:
        assert server.call("insert", row).rc > 0


def test_the_timer_stores_changes_and_keeps_the_generation_before(host):
    server = host(tables=[USERS, OTHERS], calls=CALLS, params=EVERY_SECOND)
    insert(server, "alice|30|rome", "bob|31|oslo")
    wait_rows(server, "users", ["alice|30|rome", "bob|31|oslo"])
    assert server.rows("users", backup=True) is None
    insert(server, "carol|32|rome")
    wait_rows(server, "users", ["alice|30|rome", "bob|31|oslo", "carol|32|rome"])
    assert server.rows("users", backup=True) == ["alice|30|rome", "bob|31|oslo"]
    server.call("delete", "bob|*|*")
    wait_rows(server, "users", ["alice|30|rome", "carol|32|rome"])
    assert server.rows("users", backup=True)[-1] == "carol|32|rome"
    assert server.rows("others") is None


def test_the_timer_leaves_unchanged_tables_alone(host):
    server = host(start=False, tables=[USERS, OTHERS], calls=CALLS, params=EVERY_SECOND, debug=True)
    server.write_rows("users", ["alice|30|rome"])
    before = server.file_states()
    server.start()
    server.wait_log("Looking all tables for changes$", count=2)
    server.wait_log("Table 'others' was not changed$", count=2)
    assert server.file_states() == before


def test_a_miss_changes_nothing_that_would_be_stored(host):
    server = host(start=False, tables=[USERS], calls=CALLS)
    server.write_rows("users", ["alice|30|rome"])
    before = server.file_states()
    server.start()
    assert server.call("delete", "bob|*|*").rc == -2
    assert server.call("update", "bob|*|*", headers={"X-V": "*|1|*"}).rc == -2
    assert server.call("insert", "bob|*|x").rc == -1
    assert server.stop() == 0
    assert server.file_states() == before


@pytest.mark.parametrize("ending", [signal.SIGTERM, signal.SIGINT], ids=["SIGTERM", "SIGINT"])
@pytest.mark.parametrize("auto", [1, 0], ids=["timer", "no timer"])
def test_shutdown_stores_what_changed(host, ending, auto):
    server = host(tables=[USERS], calls=CALLS, params={"store_tbl_auto": auto})
    insert(server, "alice|30|rome", "bob|31|oslo")
    assert server.rows("users") is None
    assert server.stop(ending) == 0
    assert server.rows("users") == ["alice|30|rome", "bob|31|oslo"]


def test_without_the_timer_nothing_is_stored_while_running(host):
    server = host(tables=[USERS], calls=CALLS, params={"store_tbl_auto": 0, **EVERY_SECOND})
    insert(server, "alice|30|rome")
    time.sleep(2.2)
    assert server.file_states() == {}


def test_rows_their_order_and_the_index_come_back_after_a_restart(host):
    calls = {**CALLS, "insert_other": INSERT_OTHER}
    server = host(tables=[USERS, OTHERS], calls=calls)
    insert(server, "alice|30|rome", "bob|31|oslo", "carol|32|rome")
    assert [server.call("insert_other", "|x").rc for _ in range(3)] == [1, 2, 3]
    assert server.stop() == 0
    server.start()
    assert server.call("all").values == ("alice", "bob", "carol", None)
    assert server.call("count").values == ("3",)
    assert server.call("insert_other", "|x").rc == 4
    insert(server, "dora|33|x")
    assert server.stop() == 0
    server.start()
    assert server.call("all").values == ("alice", "bob", "carol", "dora")
    assert server.rows("users", backup=True) == ["alice|30|rome", "bob|31|oslo", "carol|32|rome"]
    assert server.rows("others") == ["1|x", "2|x", "3|x", "4|x"]


def test_the_next_index_is_one_above_the_highest_stored(host):
    server = host(start=False, tables=[OTHERS], calls={"insert": INSERT_OTHER})
    server.write_rows("others", ["7|x", "3|x"])
    server.start()
    assert server.call("insert", "|x").rc == 8


def test_a_killed_server_comes_back_with_what_was_stored_last(host):
    server = host(tables=[USERS], calls=CALLS, params=EVERY_SECOND)
    insert(server, "alice|30|rome")
    wait_rows(server, "users", ["alice|30|rome"])
    server.params = {"store_tbl_auto": 0}
    assert server.stop() == 0
    server.start()
    insert(server, "bob|31|oslo")
    server.kill()
    server.start()
    assert server.call("all").values == ("alice", None, None, None)


def busiest_worker(server):
    """The worker that has used most of the processor."""
    children = pathlib.Path(f"/proc/{server.process.pid}/task/{server.process.pid}/children")

    def ticks(pid):
        fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2].split()
        return int(fields[11]) + int(fields[12])

    return int(max(children.read_text().split(), key=ticks))


@pytest.mark.parametrize("_attempt", range(3))
def test_a_worker_killed_among_its_rows_takes_the_server_down_with_all_stored(host, _attempt):
    many = Table("many", columns("key", "text"), max_rows=30000)
    # Nearly all of its time is the locked search of all rows.
    search = Call(
        'while (1) { tarn_memdb_select("many,*|none", "$avp(none)"); } $var(never) = 1',
    )
    server = host(
        start=False,
        tables=[USERS, many],
        calls={**CALLS, "search": search},
        params={"store_tbl_auto": 0},
        modparams=("max_while_loops=100000000",),
        children=3,
        memory=64,
    )
    server.write_rows("many", [f"{i}|text" for i in range(20000)])
    server.start()
    insert(server, "alice|30|rome")
    with server.phone() as phone, pytest.raises(host_server.host_sip.NoReply):
        phone.request("OPTIONS", server.uri("search"), timeout=0.6)
    server.expected_signs = (") ALERT: ",)
    began = time.monotonic()
    os.kill(busiest_worker(server), signal.SIGKILL)
    assert server.process.wait(20) != 0
    assert time.monotonic() - began < 10
    assert server.rows("users") == ["alice|30|rome"]


def test_a_comment_in_a_file_is_gone_after_the_next_store(host):
    server = host(start=False, tables=[USERS], calls=CALLS)
    server.write_rows("users", ["alice|30|rome", "# by hand", "bob|31|oslo"])
    server.start()
    insert(server, "carol|32|rome")
    assert server.stop() == 0
    assert server.rows("users") == ["alice|30|rome", "bob|31|oslo", "carol|32|rome"]
    assert server.rows("users", backup=True) == ["alice|30|rome", "# by hand", "bob|31|oslo"]


def test_a_row_longer_than_any_line_buffer_is_stored_and_loaded_whole(host):
    wide = Table("wide", tuple(Column(f"c{i}", 400) for i in range(20)))
    rows = ["|".join(letter * 400 for _ in range(20)) for letter in "ab"]
    calls = {
        "update": Call('tarn_memdb_update("wide,$hdr(X-Q)", "c0=$hdr(X-V)")'),
        "last": Call(
            'tarn_memdb_select("wide,' + "|".join("*" * 20) + '", "' + "|" * 19 + '$avp(z)")',
            show=("$(avp(z)[0])", "$(avp(z)[1])", "$(avp(z)[2])"),
        ),
    }
    server = host(start=False, tables=[wide], calls=calls)
    server.write_rows("wide", rows)
    server.start()
    assert server.call("last").values == ("a" * 400, "b" * 400, None)
    # A change, so that the shutdown stores.
    first_a = "|".join(["a" * 400] + ["*"] * 19)
    assert server.call("update", first_a, headers={"X-V": "changed"}).rc == 1
    assert server.stop() == 0
    assert server.rows("wide") == ["changed" + rows[0][400:], rows[1]]


def test_a_store_that_fails_is_reported_and_tried_again(host):
    server = host(tables=[USERS], calls=CALLS, params=EVERY_SECOND)
    server.files.rmdir()
    insert(server, "alice|30|rome")
    server.wait_log("Could not store table 'users' to file 'users.tbl'$", count=2)
    assert server.said("ERROR")[:2] == [
        f"Could not open file '{server.main_file('users')}'\n",
        "Could not store table 'users' to file 'users.tbl'\n",
    ]
    server.files.mkdir()
    wait_rows(server, "users", ["alice|30|rome"])


def test_a_value_that_its_own_file_format_cannot_carry_has_its_file_set_aside(host):
    """The writer doesn't escape: a bar in a value makes the file a bad one for the next start."""
    server = host(tables=[USERS], calls=CALLS)
    insert(server, r"a\|b|30|rome")
    assert server.stop() == 0
    assert server.rows("users") == ["a|b|30|rome"]
    server.start()
    assert server.call("all").values == (None,) * 4
    assert server.said("ERROR")[-1] == "Could not parse 'users,a|b|30|rome'\n"
    assert list(server.file_states()) == ["tables/users.tbl.refused"]
    assert server.refused_file("users").read_text() == "Version 1\na|b|30|rome\n"
