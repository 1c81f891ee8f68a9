"""What calls leave behind in the server's memory: nothing, whether they succeed or fail."""

from module_host import Call, Table, columns

USERS = Table("users", columns("name", "age", "city", indexed=("name",)), max_rows=4)
INDEXED = Table("ids", columns("id", "name"), use_index=True, check_duplicates=True)
STRICT = Table("strict", columns("name", "age"), check_duplicates=True)
NETS = Table("nets", columns(*(f"c{i}" for i in range(16))))
DOMAINS = Table("remote_sub_dn_list", columns("dn", "domain"))
MEDIA = Table("media", columns(*(f"c{i}" for i in range(9))), ports=("dynamic", 4, 6))
AVPS = '"$avp(a)|$avp(b)|$avp(c)"'
ONE = '"$avp(a)"'
LONG = "x" * 4096
NET = "|".join("*" * 16)
REST = "|".join("*" * 4)

# Calls that leave the tables as they find them.
SUCCESSES = {
    "select": f'tarn_memdb_select("users,*|*|rome", {AVPS})',
    "nl_select": f'tarn_memdb_nl_select("users,*|*|rome", {AVPS})',
    "select_by_name": f'tarn_memdb_select("users,city=rome,1", {AVPS})',
    "xavp_select": 'tarn_memdb_xavp_select("users,*|*|rome", "x")',
    "nl_xavp_select": 'tarn_memdb_nl_xavp_select("users,*|*|rome", "x")',
    "row_count": 'tarn_memdb_row_count("users", "$avp(n)")',
    "update": 'tarn_memdb_update("users,alice|*|*", "*|31|*")',
    "update_by_name": 'tarn_memdb_update("users,alice|*|*", "age=30;city=rome")',
    "best_match": f'tarn_memdb_select_best_match("users,*|*|romeo", {AVPS}, "2")',
    "nl_best_match": f'tarn_memdb_nl_select_best_match("users,*|*|romeo", {AVPS}, "2")',
    "xavp_best_match": 'tarn_memdb_xavp_select_best_match("users,*|*|romeo", "x", "2")',
    "nl_xavp_best_match": 'tarn_memdb_nl_xavp_select_best_match("users,*|*|romeo", "x", "2")',
    "best_match_prefix": (
        f'tarn_memdb_nl_select_best_match_prefix("users,*|*|romeo", {AVPS}, "2", "$var(cut)")'
    ),
    "out_of_range": (
        f'tarn_memdb_nl_select_field_out_of_range("users,*|*|*", {AVPS}, "1", "1", "$var(high)")'
    ),
    "by_subnet": f'tarn_memdb_nl_select_subnetmask("nets,{NET}", {AVPS}, "$si", "$fU", "$fU")',
    "by_domain": (
        f'tarn_memdb_nl_select_subnetmask("nets,users{NET[1:]}", {AVPS}, "$si", "known", "$fU")'
    ),
    "port_pair": (
        f'tarn_memdb_select_by_port_type("external_port", "media,*|*|*|*|{REST}", {AVPS})'
    ),
    "nl_port_pair": (
        f'tarn_memdb_nl_select_by_port_type("internal_port", "media,*|*|*|*|{REST}", {AVPS})'
    ),
    "st_select": f'sqll_tarn_memdb_select("SELECT age FROM users WHERE city=rome", {ONE})',
    "st_update": 'sqll_tarn_memdb_update("UPDATE users SET age=30 WHERE name=alice")',
    "get_port": 'tarn_memdb_get_port("STATIC_EXT")',
    "get_port_avp": 'tarn_memdb_get_port("EXT", "$avp(p)")',
    "get_port_from_range": 'tarn_memdb_get_port_from_range("INT", "21200")',
    "set_port": 'tarn_memdb_set_port("21000", "INT")',
}
MISSES = {
    "within_the_range": (
        "tarn_memdb_nl_select_field_within_the_range"
        f'("users,*|*|*", {AVPS}, "1", "1", "9", "$avp(count)")'
    ),
    "within_the_range_target": (
        f'tarn_memdb_nl_select_field_within_the_range("users,*|*|*", {AVPS}, "1", "1", "9", "n")'
    ),
    "best_match_miss": f'tarn_memdb_select_best_match("users,*|*|x", {AVPS}, "2")',
    "xavp_best_match_miss": 'tarn_memdb_xavp_select_best_match("users,*|*|x", "x", "2")',
    "out_of_range_miss": (
        f'tarn_memdb_nl_select_field_out_of_range("users,*|*|*", {AVPS}, "1", "1", "99")'
    ),
    "subnet_miss": f'tarn_memdb_nl_select_subnetmask("nets,{NET}", {AVPS}, "8.8.8.8", "a", "b")',
    "port_pair_miss": (
        f'tarn_memdb_select_by_port_type("external_port", "media,*|*|7|*|{REST}", {AVPS})'
    ),
    "st_select_miss": f'sqll_tarn_memdb_select("SELECT age FROM users WHERE city=x", {ONE})',
    "st_delete_miss": 'sqll_tarn_memdb_delete("DELETE FROM users WHERE city=x")',
    "st_update_miss": 'sqll_tarn_memdb_update("UPDATE users SET age=1 WHERE city=x")',
    "select_miss": f'tarn_memdb_select("users,nobody|*|*", {AVPS})',
    "xavp_miss": 'tarn_memdb_xavp_select("users,nobody|*|*", "x")',
    "delete_miss": 'tarn_memdb_delete("users,nobody|*|*")',
    "update_miss": 'tarn_memdb_update("users,nobody|*|*", "age=1")',
}
FAILURES = {
    "duplicate": 'tarn_memdb_insert("strict,alice|30")',
    "duplicate_but_for_index": 'tarn_memdb_insert("ids,|alice")',
    "st_duplicate": 'sqll_tarn_memdb_insert("INSERT INTO ids name VALUES alice")',
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
    "best_match_key": f'tarn_memdb_select_best_match("users,a|b|*", {AVPS}, "2")',
    "best_match_index": f'tarn_memdb_select_best_match("users,a|b|c", {AVPS}, "0")',
    "best_match_size": f'tarn_memdb_select_best_match("users,a|b", {AVPS}, "2")',
    "best_match_flags": (
        f'tarn_memdb_nl_select_best_match_prefix("users,*|*|x", {AVPS}, "2", "$avp(none)")'
    ),
    "out_of_range_limit": (
        f'tarn_memdb_nl_select_field_out_of_range("users,*|*|*", {AVPS}, "1", "$avp(none)", "2")'
    ),
    "subnet_source": (
        f'tarn_memdb_nl_select_subnetmask("nets,{NET}", {AVPS}, "$hdr(X-Long)", "a", "b")'
    ),
    "port_pair_word": f'tarn_memdb_select_by_port_type("INT", "media,*|*|7|*|{REST}", {AVPS})',
    "port_pair_size": f'tarn_memdb_select_by_port_type("external_port", "media,*|*|7|*", {AVPS})',
    "st_select_field": f'sqll_tarn_memdb_select("SELECT a,b FROM users WHERE city=x", {ONE})',
    "st_select_all": f'sqll_tarn_memdb_select("SELECT name,age,city FROM users WHERE a=1", {ONE})',
    "st_select_pair": f'sqll_tarn_memdb_select("SELECT age FROM users WHERE city=\'x", {ONE})',
    "st_select_max": f'sqll_tarn_memdb_select("SELECT age FROM users WHERE age=1 MAX=x", {ONE})',
    "st_insert_values": 'sqll_tarn_memdb_insert("INSERT INTO users name,age VALUES x")',
    "st_insert_no_values": 'sqll_tarn_memdb_insert("INSERT INTO users name,age VALUES")',
    "st_insert_field": 'sqll_tarn_memdb_insert("INSERT INTO users a VALUES x")',
    "st_insert_table": 'sqll_tarn_memdb_insert("INSERT INTO nowhere a VALUES x")',
    "st_delete_name": 'sqll_tarn_memdb_delete("DELETE FROM users WHERE a=1")',
    "st_delete_max": 'sqll_tarn_memdb_delete("DELETE FROM users WHERE age=1 MAX=x")',
    "st_update_set": 'sqll_tarn_memdb_update("UPDATE users SET a=1 WHERE age=1")',
    "st_update_where": 'sqll_tarn_memdb_update("UPDATE users SET age=1 WHERE a=1")',
    "st_update_max": 'sqll_tarn_memdb_update("UPDATE users SET age=1 WHERE age=1 MAX=x")',
    "st_long": 'sqll_tarn_memdb_update("UPDATE users SET age=$hdr(X-Long) WHERE age=1")',
    "get_port_word": 'tarn_memdb_get_port("int")',
    "get_port_target": 'tarn_memdb_get_port("EXT", "p")',
    "set_port_outside": 'tarn_memdb_set_port("1", "INT")',
    "free_port_outside": 'tarn_memdb_free_port("INT", "1")',
    "clear_unknown": 'tarn_memdb_clear_tbl("nowhere")',
    "row_count_unknown": 'tarn_memdb_row_count("nowhere", "$avp(n)")',
    "row_count_no_target": 'tarn_memdb_row_count("users", "n")',
}

NEUTRAL = {**SUCCESSES, **MISSES, **FAILURES}

# Calls that change a table, each with the one that takes the change back.
PAIRS = {
    "insert": ('tarn_memdb_insert("users,dora|1|x")', 'tarn_memdb_delete("users,dora|*|*")'),
    "insert_index": ('tarn_memdb_insert("ids,|dora")', 'tarn_memdb_delete("ids,*|dora")'),
    "insert_and_empty": (
        'tarn_memdb_insert("users,dora|1|x")',
        'tarn_memdb_update("users,dora|*|*", "||")',
    ),
    "st_insert": (
        'sqll_tarn_memdb_insert("INSERT INTO users name,age VALUES dora,1")',
        'sqll_tarn_memdb_delete("DELETE FROM users WHERE name=dora")',
    ),
    "st_insert_index": (
        'sqll_tarn_memdb_insert("INSERT INTO ids name VALUES dora")',
        'sqll_tarn_memdb_delete("DELETE FROM ids WHERE name=dora")',
    ),
    "st_insert_and_empty": (
        'sqll_tarn_memdb_insert("INSERT INTO users name,age VALUES dora,1")',
        "sqll_tarn_memdb_update(\"UPDATE users SET age='' WHERE name=dora\")",
    ),
    "port_row": (
        'tarn_memdb_insert("media,1|c|a|b|21010|WAN||0|0")',
        'tarn_memdb_delete("media,*|c|*|*|*|*|*|*|*")',
    ),
    "clear_pmap": (
        'tarn_memdb_insert("media,1|c|a|b|21010|WAN||0|0")',
        "tarn_memdb_clear_pmap();\n"
        '  tarn_memdb_insert("media,0|c0|a|b|500|WAN|600|0|0");\n'
        "  tarn_memdb_clear_pmap()",
    ),
    "rename_and_delete": (
        'tarn_memdb_insert("users,dora|1|x");\n  '
        'tarn_memdb_update("users,dora|*|*", "emil|*|*")',
        'tarn_memdb_delete("users,*|1|x")',
    ),
}


def start(host, calls):
    tables = [USERS, INDEXED, STRICT, NETS, DOMAINS, MEDIA]
    server = host(start=False, tables=tables, calls=calls, ranges="INT 21200 21201\n")
    server.write_rows("users", ["alice|30|rome", "bob|31|rome"])
    server.write_rows("ids", ["1|alice"])
    server.write_rows("strict", ["alice|30"])
    users_row = "|".join(["users", "", "west", *[""] * 9, "1", "0", "1", "0"])
    server.write_rows(
        "nets",
        [users_row, "|".join(["net", "", "", "127.0.0.0", "255.0.0.0", *[""] * 8, "1", "", ""])],
    )
    server.write_rows("remote_sub_dn_list", ["known|west"])
    server.write_rows("media", ["0|c0|500|600|600|LAN|10000|0|0"])
    return server.start()


def growth(server, names, rounds=40):
    """The bytes of private and shared memory that many rounds of some calls leave behind."""
    with server.phone() as phone:

        def run(times):
            for _ in range(times):
                for name in names:
                    server.call(name, phone=phone, headers={"X-Long": LONG})

        def measure():
            private, shared = server.private_memory_used(), server.shared_memory_used()
            run(rounds)
            return server.private_memory_used() - private, server.shared_memory_used() - shared

        # What the server allocates once, it allocates in the first rounds.
        run(3)
        left = measure()
        # A worker can be slow to tidy up behind a reply. What a call leaves, it leaves every time.
        for _ in range(2):
            left = left if left == (0, 0) else measure()
        return left


def test_no_call_leaves_memory_behind(host):
    server = start(host, {name: Call(call) for name, call in NEUTRAL.items()})
    codes = {name: server.call(name, headers={"X-Long": LONG}).rc for name in NEUTRAL}
    assert [name for name in SUCCESSES if codes[name] < 1] == []
    assert [name for name in MISSES if codes[name] != -2] == []
    assert [name for name in FAILURES if codes[name] not in (-1, -2)] == []
    left = {name: growth(server, [name], rounds=15) for name in NEUTRAL}
    assert left == dict.fromkeys(NEUTRAL, (0, 0))


def test_rows_that_come_and_go_leave_no_memory_behind(host):
    calls = {}
    for name, (there, back) in PAIRS.items():
        calls[f"{name}_there"], calls[f"{name}_back"] = Call(there), Call(back)
    server = start(host, calls)
    left = {name: growth(server, [f"{name}_there", f"{name}_back"]) for name in PAIRS}
    assert left == dict.fromkeys(PAIRS, (0, 0))


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
