"""What calls leave behind in the server's memory: nothing, whether they succeed or fail."""

from module_host import Call, Table, columns

USERS = Table("users", columns("name", "age", "city", indexed=("name",)), max_rows=4)
INDEXED = Table("ids", columns("id", "name"), use_index=True, check_duplicates=True)
STRICT = Table("strict", columns("name", "age"), check_duplicates=True)
AVPS = '"$avp(a)|$avp(b)|$avp(c)"'
LONG = "x" * 4096

# Calls that leave the tables as they find them, in the order in which they are run.
NEUTRAL = {
    # Successes
    "select": f'tarn_memdb_select("users,*|*|rome", {AVPS})',
    "nl_select": f'tarn_memdb_nl_select("users,*|*|rome", {AVPS})',
    "select_by_name": f'tarn_memdb_select("users,city=rome,1", {AVPS})',
    "xavp_select": 'tarn_memdb_xavp_select("users,*|*|rome", "x")',
    "nl_xavp_select": 'tarn_memdb_nl_xavp_select("users,*|*|rome", "x")',
    "row_count": 'tarn_memdb_row_count("users", "$avp(n)")',
    "update": 'tarn_memdb_update("users,alice|*|*", "*|31|*")',
    "update_by_name": 'tarn_memdb_update("users,alice|*|*", "age=30;city=rome")',
    # Misses and refusals
    "select_miss": f'tarn_memdb_select("users,nobody|*|*", {AVPS})',
    "xavp_miss": 'tarn_memdb_xavp_select("users,nobody|*|*", "x")',
    "delete_miss": 'tarn_memdb_delete("users,nobody|*|*")',
    "update_miss": 'tarn_memdb_update("users,nobody|*|*", "age=1")',
    "duplicate": 'tarn_memdb_insert("strict,alice|30")',
    "duplicate_but_for_index": 'tarn_memdb_insert("ids,|alice")',
    # Failures
    "select_size": f'tarn_memdb_select("users,a|b", {AVPS})',
    "select_limit": f'tarn_memdb_select("users,a|b|c,0", {AVPS})',
    "select_long": f'tarn_memdb_select("users,$hdr(X-Long)|*|*", {AVPS})',
    "xavp_size": 'tarn_memdb_xavp_select("users,a|b", "x")',
    "insert_size": 'tarn_memdb_insert("users,a|b")',
    "insert_wildcard": 'tarn_memdb_insert("users,a|*|b")',
    "insert_empty": 'tarn_memdb_insert("users,||")',
    "delete_size": 'tarn_memdb_delete("users,a|b")',
    "update_size": 'tarn_memdb_update("users,a|b", "a|b|c")',
    "update_values": 'tarn_memdb_update("users,alice|*|*", "a|b")',
    "update_name": 'tarn_memdb_update("users,alice|*|*", "street=x")',
    "update_item": 'tarn_memdb_update("users,alice|*|*", "age=1 2")',
    "clear_unknown": 'tarn_memdb_clear_tbl("nowhere")',
    "row_count_unknown": 'tarn_memdb_row_count("nowhere", "$avp(n)")',
    "row_count_no_target": 'tarn_memdb_row_count("users", "n")',
}

# Calls that change a table, each with the one that takes the change back.
PAIRS = {
    "insert": ('tarn_memdb_insert("users,dora|1|x")', 'tarn_memdb_delete("users,dora|*|*")'),
    "insert_index": ('tarn_memdb_insert("ids,|dora")', 'tarn_memdb_delete("ids,*|dora")'),
    "insert_and_empty": (
        'tarn_memdb_insert("users,dora|1|x")',
        'tarn_memdb_update("users,dora|*|*", "||")',
    ),
    "rename_and_delete": (
        'tarn_memdb_insert("users,dora|1|x");\n  '
        'tarn_memdb_update("users,dora|*|*", "emil|*|*")',
        'tarn_memdb_delete("users,*|1|x")',
    ),
}


def start(host, calls):
    server = host(start=False, tables=[USERS, INDEXED, STRICT], calls=calls)
    server.write_rows("users", ["alice|30|rome", "bob|31|rome"])
    server.write_rows("ids", ["1|alice"])
    server.write_rows("strict", ["alice|30"])
    return server.start()


def growth(server, names, rounds=40):
    """The bytes of private and shared memory that many rounds of some calls leave behind."""
    with server.phone() as phone:

        def run(times):
            for _ in range(times):
                for name in names:
                    server.call(name, phone=phone, headers={"X-Long": LONG})

        # What the server allocates once, it allocates in the first rounds.
        run(3)
        private, shared = server.private_memory_used(), server.shared_memory_used()
        run(rounds)
        return server.private_memory_used() - private, server.shared_memory_used() - shared


def test_no_call_leaves_memory_behind(host):
    server = start(host, {name: Call(call) for name, call in NEUTRAL.items()})
    left = {name: growth(server, [name], rounds=15) for name in NEUTRAL}
    assert left == {name: (0, 0) for name in NEUTRAL}


def test_rows_that_come_and_go_leave_no_memory_behind(host):
    calls = {}
    for name, (there, back) in PAIRS.items():
        calls[f"{name}_there"], calls[f"{name}_back"] = Call(there), Call(back)
    server = start(host, calls)
    left = {name: growth(server, [f"{name}_there", f"{name}_back"]) for name in PAIRS}
    assert left == {name: (0, 0) for name in PAIRS}


def test_a_cleared_table_gives_back_what_its_rows_took(host):
    wide = Table("users", columns("name", "age"), max_rows=1000)
    calls = {
        "insert": Call('tarn_memdb_insert("users,$hdr(X-Q)|1")'),
        "clear": Call('tarn_memdb_clear_tbl("users")'),
    }
    server = host(tables=[wide], calls=calls)

    def fill_and_clear():
        with server.phone() as phone:
            for number in range(300):
                assert server.call("insert", f"user{number}", phone=phone).rc == 1
            full = server.shared_memory_used()
            assert server.call("clear", phone=phone).rc == 1
            return full, server.shared_memory_used()

    first, after_first = fill_and_clear()
    second, after_second = fill_and_clear()
    assert after_first == after_second
    assert first == second
    # A row's block holds two links of 8 bytes and two fields of 32.
    assert first - after_first >= 300 * 80
