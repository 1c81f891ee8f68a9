"""The four statements of the small SQL-like language."""

import pytest
from module_host import Call, Column, Table, columns

USERS = Table("users", columns("name", "age", "city", indexed=("name",)), log_tag="TAG")
INDEXED = Table("ids", columns("id", "name", "city"), use_index=True, log_tag="IDS")
ROWS = ["alice|30|rome", "bob|31|oslo", "carol|32|rome"]

INSERT = Call('sqll_tarn_memdb_insert("$hdr(X-Q)")')
DELETE = Call('sqll_tarn_memdb_delete("$hdr(X-Q)")')
UPDATE = Call('sqll_tarn_memdb_update("$hdr(X-Q)")')
SELECT = Call(
    'sqll_tarn_memdb_select("$hdr(X-Q)", "$avp(one);$avp(two)")',
    show=tuple(f"$(avp({name})[{i}])" for i in range(3) for name in ("one", "two")),
)
ALL = Call(
    'tarn_memdb_select("users,*|*|*", "$avp(name)|$avp(age)|$avp(city)")',
    show=tuple(f"$(avp({c})[{i}])" for i in range(4) for c in ("name", "age", "city")),
)
COUNT = Call('tarn_memdb_row_count("users", "$avp(n)")', show=("$avp(n)",))
CALLS = {
    "insert": INSERT,
    "delete": DELETE,
    "update": UPDATE,
    "select": SELECT,
    "all": ALL,
    "count": COUNT,
}


@pytest.fixture
def stored(host):
    """Starts a server whose table holds ROWS, the last of them the newest."""

    def start(rows=tuple(ROWS), table=USERS, calls=None, **setup):
        server = host(start=False, tables=[table], calls=calls or CALLS, **setup)
        if rows:
            server.write_rows(table.name, rows)
        return server.start()

    return start


def run(server, statement):
    """Runs a statement in the call named like its first word."""
    return server.call(statement.split()[0].lower(), statement).rc


def rows_of(server):
    values = server.call("all").values
    rows = [values[at : at + 3] for at in range(0, 12, 3)]
    return ["|".join(row) for row in rows if None not in row]


def selected(server, statement):
    """The code of a select, and for each row the values of the two AVPs."""
    result = server.call("select", statement)
    pairs = [result.values[at : at + 2] for at in range(0, 6, 2)]
    return result.rc, [pair for pair in pairs if pair != (None, None)]


def audit(width, text):
    return " " * width + " TAG - " + text


# Insert


def test_insert_stores_the_named_columns_and_leaves_the_others_empty(stored):
    server = stored(rows=[])
    assert run(server, "INSERT INTO users name,age VALUES alice,30") == 1
    assert run(server, "INSERT INTO users city,name VALUES oslo,bob") == 1
    assert run(server, "INSERT INTO users name,age VALUES carol,,") == 1
    assert rows_of(server) == ["alice|30|", "bob||oslo", "carol||"]
    assert server.said("NOTICE") == [
        audit(5, "(1) SQLL Inserting users,alice"),
        audit(5, "(2) SQLL Inserting users,bob"),
        audit(5, "(3) SQLL Inserting users,carol"),
    ]
    assert server.said("ERROR") == []


def test_insert_into_a_table_with_an_index_gives_the_index(host):
    calls = {
        "insert": INSERT,
        "rows": Call(
            'tarn_memdb_select("ids,*|*|*", "$avp(id)|$avp(name)")',
            show=("$avp(id)", "$avp(name)", "$(avp(id)[1])", "$(avp(name)[1])"),
        ),
    }
    server = host(tables=[INDEXED], calls=calls)
    assert run(server, "INSERT INTO ids name,city VALUES alice,rome") == 1
    # A value for the index is replaced.
    assert run(server, "INSERT INTO ids id,name VALUES 77,bob") == 2
    assert server.call("rows").values == ("1", "alice", "2", "bob")
    assert server.said("NOTICE")[1] == " " * 5 + " IDS - (2) SQLL Inserting ids,2"


def test_insert_ignores_what_stands_beyond_its_values(stored):
    server = stored(rows=[])
    assert run(server, "INSERT INTO users name,age VALUES alice,30,rome AND MORE") == 1
    assert rows_of(server) == ["alice|30|"]


def test_insert_knows_no_quotes_and_no_escapes(stored):
    server = stored(rows=[])
    assert run(server, r"INSERT INTO users name,age VALUES '',a\|b") == 1
    assert rows_of(server) == ["''|a\\|b|"]


def test_keywords_are_matched_by_their_beginning(stored):
    server = stored(rows=[])
    assert server.call("insert", "INSERTINTO users name VALUESalice").rc == 1
    assert server.call("insert", "   INSERT   INTO   users   name,age   VALUES   bob,1   ").rc == 1
    assert rows_of(server) == ["alice||", "bob|1|"]


INSERT_TROUBLE = {
    "small letters": ("insert INTO users name VALUES x", ["Could not find token 'INSERT'\n"]),
    "no INTO": ("INSERT users name VALUES x", ["Could not find token 'INTO'\n"]),
    "nothing behind INTO": ("INSERT INTO", []),
    "no VALUES": ("INSERT INTO users name x", ["Could not find token 'VALUES'\n"]),
    "nothing behind the fields": ("INSERT INTO users name", []),
    "nothing behind VALUES": ("INSERT INTO users name VALUES", []),
    "nothing behind the table": ("INSERT INTO users", []),
    "unknown table": (
        "INSERT INTO nowhere name VALUES x",
        ["Table 'nowhere' was not found\n"],
    ),
    "table name of 32 characters": (f"INSERT INTO {'u' * 32} name VALUES x", []),
    "all columns": (
        "INSERT INTO users name,age,city VALUES a,b,c",
        ["Wrong number of fields (3) for table 'users' (3)\n"],
    ),
    "unknown column": (
        "INSERT INTO users name,street VALUES a,b",
        ["Table 'users' does not have a field named 'street'\n"],
    ),
    "empty column": (
        "INSERT INTO users name, VALUES a,b",
        ["Table 'users' does not have a field named ''\n"],
    ),
    "too few values": (
        "INSERT INTO users name,age VALUES alice",
        ["Number of values (1) does not match number of fields (2)\n"],
    ),
}


@pytest.mark.parametrize("statement, errors", INSERT_TROUBLE.values(), ids=INSERT_TROUBLE)
def test_insert_of_a_bad_statement_fails_and_stores_nothing(stored, statement, errors):
    server = stored(rows=[])
    assert server.call("insert", statement).rc == -1
    assert server.said("ERROR") == [*errors, "INSERT failed!\n"]
    assert server.call("count").values == ("0",)


def test_insert_into_a_full_table_is_refused_with_a_warning(stored):
    small = Table("users", columns("name", "age", "city"), max_rows=3)
    server = stored(table=small)
    assert run(server, "INSERT INTO users name VALUES dora") == -1
    assert server.said("WARNING") == [
        "MAX number of rows allowed (3) for table 'users' reached. Data will not be inserted!\n"
    ]
    assert server.said("ERROR") == ["INSERT failed!\n"]
    assert rows_of(server) == ROWS


def test_insert_of_a_duplicate_is_refused_and_uses_no_index(host):
    strict = Table("ids", columns("id", "name", "city"), use_index=True, check_duplicates=True)
    server = host(tables=[strict], calls={"insert": INSERT})
    assert run(server, "INSERT INTO ids name,city VALUES alice,rome") == 1
    assert run(server, "INSERT INTO ids city,name VALUES rome,alice") == -1
    assert server.said("WARNING") == ["Duplicated data will not be inserted into table 'ids'!\n"]
    assert server.said("ERROR") == ["INSERT failed!\n"]
    assert run(server, "INSERT INTO ids name,city VALUES alice,oslo") == 2


def test_inserted_values_longer_than_their_columns_are_cut_with_a_warning(stored):
    short = Table("users", (Column("name", 4), Column("age", 300), Column("city", 3)))
    server = stored(rows=[], table=short)
    assert run(server, f"INSERT INTO users name,age VALUES alice,{'9' * 600}") == 1
    assert rows_of(server) == [f"alic|{'9' * 300}|"]
    assert len(server.said("WARNING")) == 2


# Select


def test_select_delivers_the_named_columns_in_their_order(stored):
    server = stored()
    assert selected(server, "SELECT age,city FROM users WHERE name=bob") == (1, [("31", "oslo")])
    assert selected(server, "SELECT city,name FROM users WHERE age=31") == (1, [("oslo", "bob")])
    assert server.said("ERROR", "NOTICE") == []


def test_select_gives_every_row_up_to_its_limit(stored):
    server = stored()
    rome = "SELECT name,age FROM users WHERE city=rome"
    # The newest row is delivered first and so stands last.
    assert selected(server, rome) == (1, [("alice", "30"), ("carol", "32")])
    assert selected(server, rome + " MAX=1") == (1, [("carol", "32")])
    assert selected(server, rome + " MAX=2")[1] == [("alice", "30"), ("carol", "32")]


def test_select_with_more_or_fewer_avps_than_columns(stored):
    server = stored()
    assert selected(server, "SELECT age FROM users WHERE name=bob") == (1, [("31", None)])
    one = Call(
        'sqll_tarn_memdb_select("SELECT age,city FROM users WHERE name=bob", "$avp(one)")',
        show=("$avp(one)", "$avp(two)"),
    )
    assert stored(calls={"select": one}).call("select").values == ("31", None)


def test_select_without_a_match_is_a_clean_miss(stored):
    server = stored()
    assert selected(server, "SELECT age FROM users WHERE name=dora") == (-2, [])
    assert selected(server, "SELECT age FROM users WHERE name=alice,city=oslo") == (-2, [])
    assert selected(stored(rows=[]), "SELECT age FROM users WHERE name=alice") == (-2, [])
    assert server.said("ERROR") == []


def test_select_by_an_empty_value(stored):
    server = stored(["alice||rome", "bob|31|"])
    assert selected(server, "SELECT name FROM users WHERE age=''") == (1, [("alice", None)])
    assert selected(server, "SELECT name FROM users WHERE city=") == (1, [("bob", None)])
    assert selected(server, "SELECT name FROM users WHERE age=,name=alice")[0] == 1


def test_select_takes_the_later_of_two_values_for_a_column(stored):
    server = stored()
    assert selected(server, "SELECT age FROM users WHERE name=bob,name=alice") == (
        1,
        [("30", None)],
    )


def test_select_with_a_wildcard_character_looks_for_that_character(stored):
    server = stored([r"\*|30|rome", "bob|31|oslo"])
    assert selected(server, "SELECT age FROM users WHERE name=*") == (1, [("30", None)])


SELECT_TROUBLE = {
    "small letters": ("select age FROM users WHERE name=bob", "Could not find token 'SELECT'\n"),
    "no FROM": ("SELECT age users WHERE name=bob", "Could not find token 'FROM'\n"),
    "no WHERE": ("SELECT age FROM users name=bob", "Could not find token 'WHERE'\n"),
    "a tab": ("SELECT age\tFROM users WHERE name=bob", "Could not find token 'FROM'\n"),
    "nothing behind the table": ("SELECT age FROM users", None),
    "nothing behind WHERE": ("SELECT age FROM users WHERE", None),
    "nothing behind the columns": ("SELECT age", None),
    "unknown table": ("SELECT age FROM nowhere WHERE a=1", "Table 'nowhere' was not found\n"),
    "all columns": (
        "SELECT name,age,city FROM users WHERE name=bob",
        "Wrong number of fields (3) for table 'users' (3)\n",
    ),
    "star": (
        "SELECT * FROM users WHERE name=bob",
        "Table 'users' does not have a field named '*'\n",
    ),
    "empty column": (
        "SELECT age, FROM users WHERE name=bob",
        "Table 'users' does not have a field named ''\n",
    ),
    "unknown column": (
        "SELECT age FROM users WHERE street=x",
        "Table 'users' does not have a field named 'street'\n",
    ),
    "quoted value": (
        "SELECT age FROM users WHERE name='bob'",
        "Ilegal sintax for empty string. It should be: field_name=''\n",
    ),
    "blank in a value": ("SELECT age FROM users WHERE name=bob smith", None),
    "limit of another name": ("SELECT age FROM users WHERE name=bob LIMIT=3", None),
    "limit of no number": ("SELECT age FROM users WHERE name=bob MAX=x", None),
    "limit with a blank": ("SELECT age FROM users WHERE name=bob MAX =1", None),
}


@pytest.mark.parametrize("statement, error", SELECT_TROUBLE.values(), ids=SELECT_TROUBLE)
def test_select_of_a_bad_statement_fails(stored, statement, error):
    server = stored()
    assert selected(server, statement) == (-1, [])
    said = server.said("ERROR")
    assert said[-1] == "SELECT failed!\n"
    assert said[:1] == ([error] if error else said[-1:])


def test_a_list_of_pairs_with_an_unknown_column_is_told_twice(stored):
    server = stored()
    assert run(server, "DELETE FROM users WHERE street=x") == -1
    assert server.said("ERROR") == [
        "Table 'users' does not have a field named 'street'\n",
        "NULL value for field_pos\n",
        "DELETE failed!\n",
    ]


@pytest.mark.parametrize(
    "limit, found",
    [
        ("", 3),
        (" ", 3),
        (" MAX=2", 2),
        ("   MAX=2", 2),
        (" MAX= 2", 2),
        (" MAX=2x", 2),
        (" MAX=2 and more", 2),
        (" MAX=0", 1),
        (" MAX=-3", 1),
        (" MAX=", 1),
        (" MAX=99", 3),
    ],
)
def test_what_may_stand_for_the_limit(stored, limit, found):
    rows = [f"user{number}|1|x" for number in range(3)]
    server = stored(rows)
    code, pairs = selected(server, f"SELECT name FROM users WHERE city=x{limit}")
    assert (code, len(pairs)) == (1, found)


# Delete


def test_delete_removes_what_matches_and_tells_what_remains(stored):
    server = stored()
    assert run(server, "DELETE FROM users WHERE city=rome") == 1
    assert rows_of(server) == ["bob|31|oslo"]
    assert server.call("count").values == ("1",)
    assert server.said("NOTICE") == [
        audit(5, "(2) SQLL Deleting users,carol|32|rome"),
        audit(5, "(1) SQLL Deleting users,alice|30|rome"),
    ]


@pytest.mark.parametrize("limit", ["MAX=1", "MAX=0", "MAX=-3"])
def test_delete_stops_at_its_limit_which_is_never_below_1(stored, limit):
    server = stored()
    assert run(server, f"DELETE FROM users WHERE city=rome {limit}") == 1
    assert rows_of(server) == ["alice|30|rome", "bob|31|oslo"]


def test_delete_without_a_match_leaves_no_trace(stored):
    server = stored()
    before = server.file_states()
    assert run(server, "DELETE FROM users WHERE name=dora") == -2
    assert server.said("ERROR", "NOTICE") == []
    assert server.stop() == 0
    assert server.file_states() == before


@pytest.mark.parametrize(
    "statement",
    [
        "DELETE FROM users",
        "DELETE FROM users WHERE",
        "DELETE FROM users WHERE name=alice MAX=x",
        "DELETE FROM users WHERE name=alice LIMIT=3",
        "DELETE users WHERE name=alice",
        "DELETE FROM users WHERE name='alice'",
        "DELETE FROM users WHERE name alice",
    ],
)
def test_delete_of_a_bad_statement_fails_and_removes_nothing(stored, statement):
    server = stored()
    assert run(server, statement) == -1
    assert server.said("ERROR")[-1] == "DELETE failed!\n"
    assert rows_of(server) == ROWS


def test_a_name_alone_at_the_end_of_a_statement_asks_for_the_empty_text(stored):
    server = stored([*ROWS, "dora||oslo"])
    assert run(server, "DELETE FROM users WHERE age") == 1
    assert rows_of(server) == ROWS


# Update


def test_update_sets_the_named_columns_of_the_matching_rows(stored):
    server = stored()
    assert run(server, "UPDATE users SET city=milan,age=40 WHERE city=rome") == 1
    assert rows_of(server) == ["alice|40|milan", "bob|31|oslo", "carol|40|milan"]
    assert server.said("NOTICE") == [
        audit(5, "(3) SQLL Updating users,carol|40|milan"),
        audit(5, "(3) SQLL Updating users,alice|40|milan"),
    ]
    assert server.call("count").values == ("3",)


def test_update_leaves_a_column_that_it_sets_to_nothing(stored):
    server = stored()
    assert run(server, "UPDATE users SET age='',city=paris WHERE name=bob") == 1
    assert run(server, "UPDATE users SET age=,city=paris WHERE name=alice") == 1
    assert rows_of(server) == ["alice|30|paris", "bob|31|paris", "carol|32|rome"]


def test_update_that_sets_nothing_deletes(stored):
    server = stored()
    assert run(server, "UPDATE users SET age='' WHERE city=rome") == 1
    assert rows_of(server) == ["bob|31|oslo"]
    assert server.call("count").values == ("1",)
    assert server.said("NOTICE") == [
        audit(5, "(2) SQLL Deleting from update users,carol|32|rome"),
        audit(5, "(1) SQLL Deleting from update users,alice|30|rome"),
    ]
    assert server.stop() == 0
    assert server.rows("users") == ["bob|31|oslo"]


def test_update_stops_at_its_limit(stored):
    server = stored()
    assert run(server, "UPDATE users SET age=99 WHERE city=rome MAX=1") == 1
    assert rows_of(server) == ["alice|30|rome", "bob|31|oslo", "carol|99|rome"]
    assert run(server, "UPDATE users SET age='' WHERE city=rome MAX=1") == 1
    assert rows_of(server) == ["alice|30|rome", "bob|31|oslo"]


def test_update_without_a_match_leaves_no_trace(stored):
    server = stored()
    before = server.file_states()
    assert run(server, "UPDATE users SET age=1 WHERE name=dora") == -2
    assert server.said("ERROR", "NOTICE") == []
    assert server.stop() == 0
    assert server.file_states() == before


def test_update_of_an_indexed_column_leaves_the_row_under_its_old_key(stored):
    server = stored()
    assert run(server, "UPDATE users SET name=rob WHERE name=bob") == 1
    assert run(server, "DELETE FROM users WHERE name=bob") == -2
    assert run(server, "DELETE FROM users WHERE name=rob") == -2
    assert run(server, "DELETE FROM users WHERE age=31") == 1
    assert run(server, "INSERT INTO users name VALUES bob") == 1
    assert selected(server, "SELECT name FROM users WHERE name=bob") == (1, [("bob", None)])


@pytest.mark.parametrize(
    "statement",
    [
        "UPDATE users",
        "UPDATE users SET",
        "UPDATE users SET age=1",
        "UPDATE users SET age=1 WHERE",
        "UPDATE users SET street=1 WHERE name=bob",
        "UPDATE users SET age='1' WHERE name=bob",
        "UPDATE users SET age=1 WHERE street=x",
        "UPDATE users SET age=1 WHERE name='bob'",
        "UPDATE users SET age=1 WHERE name=bob MAX=x",
        "UPDATE nowhere SET age=1 WHERE name=bob",
        "UPDATE users WHERE name=bob SET age=1",
    ],
)
def test_update_of_a_bad_statement_fails_and_changes_nothing(stored, statement):
    server = stored()
    assert run(server, statement) == -1
    assert server.said("ERROR")[-1] == "UPDATE failed!\n"
    assert rows_of(server) == ROWS


def test_update_runs_a_longer_value_into_the_next_pair(stored):
    """The values of a list stand 32 bytes apart, so the next pair cuts a longer one."""
    wide = Table("users", (Column("name", 60), Column("age", 60), Column("city", 60)))
    server = stored(table=wide)
    assert run(server, f"UPDATE users SET age={'9' * 40},city=x WHERE name=bob") == 1
    assert run(server, f"UPDATE users SET city=y,age={'8' * 40} WHERE name=alice") == 1
    assert rows_of(server) == [
        f"alice|{'8' * 40}|y",
        f"bob|{'9' * 32}x|x",
        "carol|32|rome",
    ]


# Failures of printing


@pytest.mark.parametrize("call", ["insert", "delete", "select", "update"])
def test_a_statement_that_does_not_fit_or_is_empty_cannot_be_printed(stored, call):
    empty = {f"{call}_empty": Call(CALLS[call].do.replace("$hdr(X-Q)", "$var(none)"))}
    empty = {
        name: Call(entry.do, before='$var(none) = "";', show=entry.show)
        for name, entry in empty.items()
    }
    server = stored(calls={**CALLS, **empty})
    said = ["Could not print the formatted pv input\n"]
    # Two of the four have a last line.
    said += {"insert": ["INSERT failed!\n"], "delete": ["DELETE failed!\n"]}.get(call, [])
    assert server.call(call, "x" * 4096).rc == -1
    assert server.said("ERROR") == said
    assert server.call(f"{call}_empty").rc == -1
    assert server.said("ERROR") == said * 2


# Pseudo-variables


def test_pseudo_variables_in_every_place_of_the_statements(stored):
    before = (
        '$var(table) = "users";\n$var(column) = "age";\n$avp(age) = 41;\n$var(max) = 1;\n'
        '$avp(set) = "SET";'
    )
    calls = {
        "all": ALL,
        "insert": Call(
            "sqll_tarn_memdb_insert"
            '("INSERT INTO $var(table) $var(column),name VALUES $avp(age),$fU")',
            before=before,
        ),
        "update": Call(
            "sqll_tarn_memdb_update"
            '("UPDATE $var(table) $avp(set) city=$si WHERE name=$fU MAX=$var(max)")',
            before=before,
        ),
        "select": Call(
            "sqll_tarn_memdb_select"
            '("SELECT $var(column),city FROM $var(table) WHERE name=$hdr(X-Q)",'
            ' "$avp(one);$avp(two)")',
            before=before,
            show=("$avp(one)", "$avp(two)"),
        ),
        "delete": Call(
            'sqll_tarn_memdb_delete("DELETE FROM users WHERE city=$si,$var(column)=$avp(age)")',
            before=before,
        ),
    }
    server = stored(rows=[], calls=calls)
    with server.phone(user="dora", address="127.0.0.4") as phone:
        assert server.call("insert", phone=phone).rc == 1
        assert server.call("update", phone=phone).rc == 1
        assert rows_of(server) == ["dora|41|127.0.0.4"]
        assert server.call("select", "dora", phone=phone).values == ("41", "127.0.0.4")
        assert server.call("delete", phone=phone).rc == 1
    assert rows_of(server) == []


def test_a_substituted_value_can_change_a_statement(stored):
    calls = {
        **CALLS,
        "delete": Call('sqll_tarn_memdb_delete("DELETE FROM users WHERE name=$hdr(X-Q)")'),
    }
    server = stored(calls=calls)
    assert server.call("delete", "bob,city=rome").rc == -2
    assert server.call("delete", "bob,city=oslo MAX=1").rc == 1
    assert rows_of(server) == ["alice|30|rome", "carol|32|rome"]


# A table that holds ports


NAMES = ("id", "call", "caller", "callee", "inner", "place", "outer", "kind", "dyn_kind")
MEDIA = Table("media", columns(*NAMES), ports=("dynamic", 4, 6))


def test_ports_follow_rows_inserted_updated_and_deleted_by_statements(host):
    calls = {
        "insert": INSERT,
        "delete": DELETE,
        "update": UPDATE,
        "get": Call('tarn_memdb_get_port("INT")'),
    }
    params = {"min_int_port": 100, "max_int_port": 103}
    server = host(tables=[MEDIA], calls=calls, params=params)
    into = "INSERT INTO media call,inner,place VALUES"
    for number, port in enumerate((100, 101, 102, 103)):
        assert run(server, f"{into} c{number},{port},WAN") == 1
    assert server.call("get").rc == -1
    assert run(server, "DELETE FROM media WHERE call=c1") == 1
    assert server.call("get").rc == 101
    # An update gives the old port back only if its selection names it, and takes none.
    assert run(server, "UPDATE media SET inner=101 WHERE call=c0") == 1
    assert server.call("get").rc == -1
    assert run(server, "UPDATE media SET inner=101 WHERE inner=102") == 1
    assert server.call("get").rc == 102
    # One that deletes gives nothing back.
    assert run(server, "UPDATE media SET place='' WHERE call=c3") == 1
    assert server.call("get").rc == -1
    assert run(server, "DELETE FROM media WHERE call=c3") == -2
