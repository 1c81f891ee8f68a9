"""The four statements of the small SQL-like language, where a real server has a part in them."""

import pytest
from module_host import Call, Table, columns

USERS = Table("users", columns("name", "age", "city", indexed=("name",)), log_tag="TAG")
IDS = Table("ids", columns("id", "name", "city"), use_index=True)
ROWS = ["alice|30|rome", "bob|31|oslo", "carol||rome"]

NAMES = ("insert", "delete", "select", "update")
CALLS = {name: Call(f'sqll_tarn_memdb_{name}("$hdr(X-Q)")') for name in NAMES}
CALLS["select"] = Call(
    'sqll_tarn_memdb_select("$hdr(X-Q)", "$avp(one);$avp(two)")',
    show=tuple(f"$(avp({name})[{i}])" for i in range(3) for name in ("one", "two")),
)


@pytest.fixture
def stored(host):
    """Starts a server whose table holds ROWS, the last of them the newest."""

    def start(calls=None):
        server = host(start=False, tables=[USERS, IDS], calls=calls or CALLS)
        server.write_rows("users", ROWS)
        return server.start()

    return start


def run(server, statement):
    """Runs a statement in the call named like its first word."""
    return server.call(statement.split()[0].lower(), statement).rc


def selected(server, statement):
    """The code of a select, and for each row the values of the two AVPs."""
    result = server.call("select", statement)
    pairs = [result.values[at : at + 2] for at in range(0, 6, 2)]
    return result.rc, [pair for pair in pairs if pair != (None, None)]


def test_what_a_script_is_given(stored):
    server = stored()
    rome = "SELECT name,age FROM users WHERE city=rome"
    # The newest row is delivered first and so stands last.
    assert selected(server, rome) == (1, [("alice", "30"), ("carol", "")])
    assert selected(server, rome + " MAX=1") == (1, [("carol", "")])
    assert selected(server, "SELECT city FROM users WHERE name=bob") == (1, [("oslo", None)])
    assert selected(server, "SELECT age FROM users WHERE name=dora") == (-2, [])
    assert selected(server, "SELECT age,street FROM users WHERE name=bob") == (-1, [])
    assert run(server, "INSERT INTO ids name VALUES alice") == 1
    assert run(server, "INSERT INTO ids name VALUES bob") == 2
    assert run(server, "INSERT INTO ids name VALUES") == -1
    assert run(server, "UPDATE users SET age=1 WHERE name=alice") == 1
    assert run(server, "UPDATE users SET age=1 WHERE name=dora") == -2
    assert run(server, "UPDATE users SET age=1") == -1
    assert run(server, "DELETE FROM users WHERE name=alice") == 1
    assert run(server, "DELETE FROM users WHERE name=alice") == -2
    assert run(server, "DELETE FROM users") == -1
    assert server.said("ERROR") == [
        "Table 'users' does not have a field named 'street'\n",
        *(f"{name} failed!\n" for name in ("SELECT", "INSERT", "UPDATE", "DELETE")),
    ]


def test_what_the_log_and_the_files_are_given(stored):
    server = stored()
    assert run(server, "INSERT INTO users name,age VALUES dora,40") == 1
    assert run(server, "UPDATE users SET city=paris WHERE age=40") == 1
    assert run(server, "DELETE FROM users WHERE city=oslo") == 1
    assert run(server, "UPDATE users SET age='' WHERE name=alice") == 1
    assert server.said("NOTICE") == [
        " " * 6 + "TAG - (4) SQLL Inserting users,dora",
        " " * 6 + "TAG - (4) SQLL Updating users,dora|40|paris",
        " " * 6 + "TAG - (3) SQLL Deleting users,bob|31|oslo",
        " " * 6 + "TAG - (2) SQLL Deleting from update users,alice|30|rome",
    ]
    assert server.stop() == 0
    assert server.rows("users") == ["carol||rome", "dora|40|paris"]


def test_statements_that_find_nothing_leave_the_files_alone(stored):
    server = stored()
    before = server.file_states()
    assert run(server, "DELETE FROM users WHERE name=dora") == -2
    assert run(server, "UPDATE users SET age=1 WHERE name=dora") == -2
    assert server.stop() == 0
    assert server.file_states() == before


@pytest.mark.parametrize("name", NAMES)
def test_a_statement_that_the_server_cannot_print_or_that_is_empty(stored, name):
    none = Call(CALLS[name].do.replace("$hdr(X-Q)", "$var(none)"), before='$var(none) = "";')
    server = stored({name: CALLS[name], "none": none})
    said = ["Could not print the formatted pv input\n"]
    # Two of the four have a last line.
    said += {"insert": ["INSERT failed!\n"], "delete": ["DELETE failed!\n"]}.get(name, [])
    assert server.call(name, "x" * 4096).rc == -1
    assert server.said("ERROR") == said
    assert server.call("none").rc == -1
    assert server.said("ERROR") == said * 2


def test_pseudo_variables_in_every_place_of_the_statements(stored):
    before = (
        '$var(table) = "users";\n$var(column) = "age";\n$avp(age) = 41;\n$var(max) = 1;\n'
        '$avp(set) = "SET";'
    )
    statements = {
        "insert": "INSERT INTO $var(table) $var(column),name VALUES $avp(age),$fU",
        "update": "UPDATE $var(table) $avp(set) city=$si WHERE name=$fU MAX=$var(max)",
        "select": "SELECT $var(column),city FROM $var(table) WHERE name=$hdr(X-Q)",
        "delete": "DELETE FROM users WHERE city=$si,$var(column)=$avp(age)",
    }
    calls = {
        name: Call(
            CALLS[name].do.replace("$hdr(X-Q)", text), before=before, show=CALLS[name].show[:2]
        )
        for name, text in statements.items()
    }
    server = stored(calls)
    with server.phone(user="dora", address="127.0.0.4") as phone:
        assert server.call("insert", phone=phone).rc == 1
        assert server.call("update", phone=phone).rc == 1
        assert server.call("select", "dora", phone=phone).values == ("41", "127.0.0.4")
        assert server.call("delete", phone=phone).rc == 1
        assert server.call("select", "dora", phone=phone).rc == -2
