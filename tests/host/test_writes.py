"""Insert, delete, update, clear and row count, called by SIP requests."""

import concurrent.futures

import pytest
from module_host import Call, Column, Table, columns

USERS = Table("users", columns("name", "age", "city", indexed=("name",)), log_tag="TAG")

COUNT = Call('tarn_memdb_row_count("users", "$avp(n)")', show=("$avp(n)",))
INSERT = Call('tarn_memdb_insert("users,$hdr(X-Q)")')
DELETE = Call('tarn_memdb_delete("users,$hdr(X-Q)")')
UPDATE = Call('tarn_memdb_update("users,$hdr(X-Q)", "$hdr(X-V)")')
CLEAR = Call('tarn_memdb_clear_tbl("$hdr(X-Q)")')
# Three rows, the oldest first: each delivery stands before the earlier ones.
ALL = Call(
    'tarn_memdb_select("users,$hdr(X-Q)", "$avp(name)|$avp(age)|$avp(city)")',
    show=tuple(f"$(avp({c})[{i}])" for i in range(3) for c in ("name", "age", "city")),
)
CALLS = {
    "count": COUNT,
    "insert": INSERT,
    "delete": DELETE,
    "update": UPDATE,
    "clear": CLEAR,
    "all": ALL,
}


def update(server, query, values):
    return server.call("update", query, headers={"X-V": values}).rc


def rows_of(server):
    values = server.call("all", "*|*|*").values
    rows = [values[at : at + 3] for at in range(0, 9, 3)]
    return ["|".join(row) for row in rows if None not in row]


@pytest.fixture
def users(host):
    """A server with three rows in the table, and nothing said so far that a test looks at."""
    server = host(tables=[USERS], calls=CALLS)
    for row in ("alice|30|rome", "bob|31|oslo", "carol|32|rome"):
        assert server.call("insert", row).rc == 1
    server.log_start = server.log_path.stat().st_size
    return server


# Insert


def test_insert_gives_1_and_writes_an_audit_line_with_the_new_count(host):
    server = host(tables=[USERS], calls=CALLS)
    assert server.call("insert", "alice|30|rome").rc == 1
    assert server.call("insert", "bob||").rc == 1
    assert rows_of(server) == ["alice|30|rome", "bob||"]
    assert server.said("NOTICE") == [
        " " * 10 + " TAG - (1) Inserting users,alice|30|rome",
        " " * 10 + " TAG - (2) Inserting users,bob||",
    ]


def test_a_table_without_a_tag_writes_no_audit_line(host):
    server = host(tables=[Table("users", columns("name", "age", "city"))], calls=CALLS)
    assert server.call("insert", "alice|30|rome").rc == 1
    assert update(server, "alice|*|*", "*|31|*") == 1
    assert server.call("delete", "*|*|*").rc == 1
    assert server.call("clear", "users").rc == 1
    assert server.said("NOTICE") == []


def test_insert_into_a_table_with_an_index_gives_the_index(host):
    indexed = Table("users", columns("id", "name", "city"), use_index=True)
    server = host(tables=[indexed], calls=CALLS)
    assert server.call("insert", "0|alice|rome").rc == 1
    assert server.call("insert", "77|bob|oslo").rc == 2
    assert server.call("delete", "*|bob|*").rc == 1
    assert server.call("insert", "|carol|x").rc == 3
    assert rows_of(server) == ["1|alice|rome", "3|carol|x"]


def test_insert_takes_a_comma_and_resolves_escapes(host):
    server = host(tables=[USERS], calls=CALLS)
    assert server.call("insert", r"a\|b|x,y|\*").rc == 1
    assert rows_of(server) == ["a|b|x,y|*"]


def test_insert_at_the_row_limit_is_refused(host):
    small = Table("users", columns("name", "age", "city"), max_rows=2)
    server = host(tables=[small], calls=CALLS)
    assert [server.call("insert", f"user{i}|1|x").rc for i in range(3)] == [1, 1, -1]
    assert server.said("ERROR") == [
        "MAX number of rows allowed (2) for table 'users' reached. Data will not be inserted!\n",
        "INSERT failed!\n",
    ]
    assert server.call("count").values == ("2",)


def test_a_table_of_no_rows_takes_none(host):
    server = host(tables=[Table("users", columns("a", "b", "c"), max_rows=0)], calls=CALLS)
    assert server.call("insert", "1|2|3").rc == -1


def test_a_duplicate_is_refused_where_the_table_asks_for_it(host):
    strict = Table("users", columns("name", "age", "city"), check_duplicates=True)
    server = host(tables=[strict], calls=CALLS)
    assert server.call("insert", "alice|30|rome").rc == 1
    assert server.call("insert", "alice|30|rome").rc == -1
    assert server.call("insert", "alice|30|oslo").rc == 1
    assert server.said("WARNING") == ["Duplicated data will not be inserted into table 'users'!\n"]
    assert server.said("ERROR") == ["INSERT failed!\n"]


def test_a_refused_duplicate_uses_up_no_index(host):
    strict = Table("users", columns("id", "name", "city"), use_index=True, check_duplicates=True)
    server = host(tables=[strict], calls=CALLS)
    assert server.call("insert", "x|alice|rome").rc == 1
    assert server.call("insert", "y|alice|rome").rc == -1
    assert server.call("insert", "z|alice|oslo").rc == 2


@pytest.mark.parametrize(
    "row, why",
    [
        ("a|*|c", ["Wildcard are not allowed in INSERT operation\n"]),
        ("||", ["Empty fields are not allowed in INSERT operation\n"]),
        ("a|b", None),
        ("a|b|c|d", None),
    ],
)
def test_insert_of_a_bad_row_says_why_and_changes_nothing(host, row, why):
    server = host(tables=[USERS], calls=CALLS)
    assert server.call("insert", row).rc == -1
    said = server.said("ERROR")
    assert said[-2:] == [f"Could not parse query (users,{row}) for insert\n", "INSERT failed!\n"]
    if why is None:
        assert said[0].startswith("Size mismatch")
        assert said[-3].startswith(f"Wrong number of fields in field list: users,{row} | ")
    else:
        assert said[:-2] == why
    assert server.call("count").values == ("0",)
    assert server.stop() == 0
    assert server.file_states() == {}


def test_insert_of_a_text_that_does_not_fit_the_buffer_fails(host):
    server = host(tables=[USERS], calls=CALLS)
    assert server.call("insert", "a|b|" + "x" * 4096).rc == -1
    assert server.said("ERROR") == ["Could not print the formatted pv input\n", "INSERT failed!\n"]


def test_a_value_too_long_for_its_column_is_cut_with_a_warning(host):
    short = Table("users", (Column("name", 4), Column("age", 3), Column("city", 3)))
    server = host(tables=[short], calls=CALLS)
    assert server.call("insert", "alice|30|oslo").rc == 1
    assert rows_of(server) == ["alic|30|osl"]
    assert server.said("WARNING") == [
        "Value 'alice' too long. It will be truncated to fit field size (4 bytes)\n",
        "Value 'oslo' too long. It will be truncated to fit field size (3 bytes)\n",
    ]


def test_pseudo_variables_may_stand_anywhere_in_the_values(host):
    calls = {
        "all": ALL,
        "var": Call(
            'tarn_memdb_insert("users,$var(a)|$avp(b)|$hdr(X-Q)")',
            before='$var(a) = "one";\n$avp(b) = 42;',
        ),
        "message": Call('tarn_memdb_insert("users,$fU|x$var(n)y|$si")', before="$var(n) = 7;"),
    }
    server = host(tables=[USERS], calls=calls)
    assert server.call("var", "three").rc == 1
    with server.phone(user="dora", address="127.0.0.2") as phone:
        assert server.call("message", phone=phone).rc == 1
    assert rows_of(server) == ["one|42|three", "dora|x7y|127.0.0.2"]


def test_a_substituted_value_can_change_the_shape_of_a_query(host):
    calls = {"all": ALL, "insert": Call('tarn_memdb_insert("users,$hdr(X-Q)|end")')}
    server = host(tables=[USERS], calls=calls)
    assert server.call("insert", "a|b").rc == 1
    assert server.call("insert", "a").rc == -1
    assert rows_of(server) == ["a|b|end"]


def test_insert_by_column_names_keeps_the_comma_that_the_form_needs(host):
    calls = {
        "all": ALL,
        "insert": Call(
            'tarn_memdb_insert("users,city=$hdr(X-Q);name=bob;age=$var(a),")',
            before="$var(a) = 5;",
        ),
        "incomplete": Call('tarn_memdb_insert("users,name=bob;city=x,")'),
        "bare": Call('tarn_memdb_insert("users,name=bob;age=5;city=x")'),
    }
    server = host(tables=[USERS], calls=calls)
    assert server.said("INFO")[1:] == [
        "Query list after conversion [users,bob|$var(a)|$hdr(X-Q),]\n",
        "Query list after conversion [users,bob|*|x,]\n",
        "Query list after conversion [bob|5|x]\n",
    ]
    assert server.call("insert", "rome").rc == 1
    assert server.call("incomplete").rc == -1
    assert server.said("ERROR")[0] == "Wildcard are not allowed in INSERT operation\n"
    assert server.call("bare").rc == -1
    assert server.said("ERROR")[3:] == [
        "Field list is missing\n",
        "Could not parse query (bob|5|x) for insert\n",
        "INSERT failed!\n",
    ]
    assert rows_of(server) == ["bob|5|rome,"]


# Delete


def test_delete_removes_what_matches_and_tells_what_remains(users):
    assert users.call("delete", "*|*|rome").rc == 1
    assert rows_of(users) == ["bob|31|oslo"]
    # The newest goes first.
    assert users.said("NOTICE") == [
        " " * 10 + " TAG - (2) Deleting users,carol|32|rome",
        " " * 10 + " TAG - (1) Deleting users,alice|30|rome",
    ]
    assert users.call("count").values == ("1",)


def test_delete_stops_at_its_limit(users):
    assert users.call("delete", "*|*|*,2").rc == 1
    assert rows_of(users) == ["alice|30|rome"]


def test_delete_without_a_match_gives_minus_2_and_leaves_no_trace(users):
    assert users.call("delete", "dora|*|*").rc == -2
    assert users.call("count").values == ("3",)
    assert users.said() == []


def test_delete_by_column_names(host):
    calls = {**CALLS, "delete": Call('tarn_memdb_delete("users,city=$hdr(X-Q),1")')}
    server = host(tables=[USERS], calls=calls)
    for row in ("alice|30|rome", "bob|31|oslo", "carol|32|rome"):
        server.call("insert", row)
    assert server.call("delete", "rome").rc == 1
    assert rows_of(server) == ["alice|30|rome", "bob|31|oslo"]


@pytest.mark.parametrize("limit", ["0", "-3", "+"])
def test_delete_with_a_limit_that_is_no_limit_fails(users, limit):
    assert users.call("delete", f"*|*|*,{limit}").rc == -1
    assert users.said("ERROR") == [
        "Invalid value for maximum result count\n",
        f"Could not parse query (users,*|*|*,{limit}) for delete\n",
        "DELETE failed!\n",
    ]
    assert users.call("count").values == ("3",)


# Update


def test_update_changes_the_named_columns_of_the_matching_rows(users):
    assert update(users, "*|*|rome", "*|40|milan") == 1
    assert rows_of(users) == ["alice|40|milan", "bob|31|oslo", "carol|40|milan"]
    assert users.said("NOTICE") == [
        " " * 10 + " TAG - (3) Updating users,carol|40|milan",
        " " * 10 + " TAG - (3) Updating users,alice|40|milan",
    ]


def test_update_takes_its_values_by_column_name_at_run_time(users):
    assert update(users, "bob|*|*", "city=paris;age=50") == 1
    assert rows_of(users)[1] == "bob|50|paris"
    assert users.said("INFO") == ["Query list after conversion [*|50|paris]\n"]


def test_update_with_an_unknown_column_fails_without_a_parse_message(users):
    assert update(users, "bob|*|*", "town=paris") == -1
    assert users.said("ERROR") == [
        "Parameter [town] not found in the table [users]\n",
        "UPDATE failed!\n",
    ]


def test_update_with_the_wrong_number_of_values_names_the_values(users):
    assert update(users, "bob|*|*", "a|b") == -1
    said = users.said("ERROR")
    assert said[0].startswith("Size mismatch")
    assert said[1:] == ["Could not parse query (a|b) for update\n", "UPDATE failed!\n"]


def test_update_with_a_bad_selection_names_the_selection(users):
    assert update(users, "bob|*", "*|*|x") == -1
    assert users.said("ERROR")[-2:] == [
        "Could not parse query (users,bob|*) for update\n",
        "UPDATE failed!\n",
    ]


def test_update_without_a_match_gives_minus_2(users):
    assert update(users, "dora|*|*", "*|1|*") == -2
    assert users.said() == []


def test_update_that_empties_a_row_removes_it(users):
    assert update(users, "bob|*|*", "||") == 1
    assert rows_of(users) == ["alice|30|rome", "carol|32|rome"]
    assert users.call("count").values == ("2",)
    assert users.said("NOTICE") == [" " * 10 + " TAG - (2) Deleting from update users,||"]
    assert users.said("INFO") == [
        "Deleting row from update for selected index 0 in table users - cols_len: 3\n"
    ]


def test_update_stops_at_its_limit(users):
    assert update(users, "*|*|*,1", "*|99|*") == 1
    assert rows_of(users) == ["alice|30|rome", "bob|31|oslo", "carol|99|rome"]


def test_update_of_an_indexed_column_leaves_the_row_under_its_old_key(users):
    assert update(users, "bob|*|*", "rob|*|*") == 1
    # Found neither way: the old key no longer equals, the new one leads elsewhere.
    assert users.call("all", "bob|*|*").rc == -2
    assert users.call("all", "rob|*|*").rc == -2
    assert users.call("all", "*|31|*").values[:3] == ("rob", "31", "oslo")
    # And its removal leaves nothing that a later walk could fall over.
    assert users.call("delete", "*|31|*").rc == 1
    assert users.call("insert", "bob|1|x").rc == 1
    assert users.call("all", "bob|*|*").values[:3] == ("bob", "1", "x")


# Clear


def test_clear_stores_at_once_and_leaves_the_rows_in_the_backup(host):
    server = host(start=False, tables=[USERS], calls=CALLS)
    server.write_rows("users", ["alice|30|rome"])
    server.start()
    assert server.call("clear", "users").rc == 1
    assert server.rows("users") == []
    assert server.rows("users", backup=True) == ["alice|30|rome"]
    assert server.said("NOTICE") == [" " * 7 + " TAG - (0) Clearing table users"]
    assert server.call("count").values == ("0",)


def test_clear_of_an_empty_table_still_stores(host):
    server = host(tables=[USERS], calls=CALLS)
    assert server.call("clear", "users").rc == 1
    assert server.rows("users") == []


def test_clear_keeps_the_index_counting(host):
    indexed = Table("users", columns("id", "name", "city"), use_index=True)
    server = host(tables=[indexed], calls=CALLS)
    assert server.call("insert", "|alice|rome").rc == 1
    assert server.call("clear", "users").rc == 1
    assert server.call("insert", "|alice|rome").rc == 2


@pytest.mark.parametrize("call", ["clear", "count"])
def test_an_unknown_table_fails_at_run_time(host, call):
    calls = {
        "clear": CLEAR,
        "count": Call('tarn_memdb_row_count("$hdr(X-Q)", "$avp(n)")', show=("$avp(n)",)),
    }
    server = host(tables=[USERS], calls=calls)
    assert server.call(call, "nowhere").rc == -1
    last = {"clear": "Clear table failed!\n", "count": "Get row count failed!\n"}[call]
    assert server.said("ERROR") == [
        "Table 'nowhere' was not found\n",
        "Table 'nowhere' not found\n",
        last,
    ]
    server.log_start = server.log_path.stat().st_size
    assert server.call(call, "x" * 32).rc == -1
    assert server.said("ERROR") == ["Could not print the formatted pv input\n", last]


# Row count


def test_row_count_follows_every_write(users):
    assert users.call("count").values == ("3",)
    users.call("delete", "bob|*|*")
    assert users.call("count").values == ("2",)
    users.call("insert", "bob|1|x")
    users.call("insert", "dora|1|x")
    assert users.call("count").values == ("4",)


def test_row_count_of_an_empty_table_is_a_success(host):
    server = host(tables=[USERS], calls=CALLS)
    result = server.call("count")
    assert (result.rc, result.values) == (1, ("0",))


def test_row_count_needs_a_pseudo_variable_for_its_answer(host):
    calls = {"count": Call('tarn_memdb_row_count("users", "plain text")')}
    server = host(tables=[USERS], calls=calls)
    assert server.call("count").rc == -1
    assert server.said("ERROR") == ["Could not get avp name\n", "Get row count failed!\n"]


@pytest.mark.parametrize("target", ["$var(n)", "$shv(n)", "$xavp(n)"])
def test_row_count_into_something_that_is_no_avp_fails(host, target):
    server = host(
        tables=[USERS], calls={"count": Call(f'tarn_memdb_row_count("users", "{target}")')}
    )
    assert server.call("count").rc == -1
    assert server.said("ERROR") == ["Could not get avp name\n", "Get row count failed!\n"]


# Truth, and several workers


def test_a_script_reads_hits_as_true_and_misses_and_failures_as_false(host):
    request = """
    if ($rU == "truth") {
      if (tarn_memdb_delete("users,$hdr(X-Q)")) {
        sl_send_reply("200", "true");
      } else {
        sl_send_reply("200", "false $rc");
      }
      exit;
    }
    """
    server = host(tables=[USERS], calls=CALLS, request=request)
    server.call("insert", "alice|30|rome")
    with server.phone() as phone:

        def truth(query):
            return phone.request("OPTIONS", server.uri("truth"), {"X-Q": query}).reason

        assert truth("bob|*|*") == "false -2"
        assert truth("bob") == "false -1"
        assert truth("alice|*|*") == "true"


def test_workers_at_once_lose_no_row(host):
    table = Table("users", columns("id", "name", "city"), max_rows=10000, use_index=True)
    server = host(tables=[table], calls=CALLS, children=4)

    def one(phone_number):
        with server.phone(user=f"phone{phone_number}") as phone:
            indexes = [
                server.call("insert", f"|u{phone_number}|{i}", phone=phone).rc for i in range(60)
            ]
            for i in range(0, 60, 3):
                assert server.call("delete", f"*|u{phone_number}|{i}", phone=phone).rc == 1
            return indexes

    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        indexes = sum(pool.map(one, range(8)), [])
    assert sorted(indexes) == list(range(1, 481))
    assert server.call("count").values == ("320",)
    assert server.stop() == 0
    rows = server.rows("users")
    assert sorted(rows) == sorted(set(rows))
    assert len(rows) == 320
