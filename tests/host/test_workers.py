"""Several workers at once: whole rows for every reader with a lock, and no port twice."""

import concurrent.futures

import pytest
from module_host import Call, Table, columns, host_server
from stamped_rows import FIRST_ROWS, INSERT_WITHOUT_END, STAMPED

WORKERS = 4
PHONES = 8
ROUNDS = 80

# Whoever writes a row gives `inner` and `mark` one value, so a reader never sees two.
CALLS_TABLE = Table(
    "calls",
    columns("grp", "prefix", "outer", "inner", "mark", "note", indexed=("grp",)),
    max_rows=1000,
)
ROWS = [f"base|4930|500|start|start|{number}" for number in range(6)]
AVPS = "$avp(inner)|$avp(mark)"
SHOWN = tuple(f"$(avp({name})[{i}])" for i in range(20) for name in ("inner", "mark"))
XSHOWN = tuple(f"$xavp(x[{i}]=>{name})" for i in range(20) for name in ("inner", "mark"))
READERS = {
    "plain": Call(f'tarn_memdb_select("calls,*|*|500|*|*|*", "|||{AVPS}")', show=SHOWN),
    "plain_xavp": Call('tarn_memdb_xavp_select("calls,*|*|500|*|*|*", "x")', show=XSHOWN),
    "best": Call(
        f'tarn_memdb_select_best_match("calls,*|49301|*|*|*|*", "|||{AVPS}", "1")', show=SHOWN
    ),
    "best_xavp": Call(
        'tarn_memdb_xavp_select_best_match("calls,*|49301|*|*|*|*", "x", "1")', show=XSHOWN
    ),
    "by_port": Call(
        f'tarn_memdb_select_by_port_type("external_port", "calls,*|*|500|*|*", "||{AVPS}")',
        show=SHOWN,
    ),
    "by_statement": Call(
        'sqll_tarn_memdb_select("SELECT inner,mark FROM calls WHERE outer=500",'
        ' "$avp(inner);$avp(mark)")',
        show=SHOWN,
    ),
}
STAMP = "$(hdr(X-Q){s.select,0,/})"
GROUP = "$(hdr(X-Q){s.select,1,/})"
WRITERS = {
    "update": Call(
        f'tarn_memdb_update("calls,base|*|*|*|*|*", "inner={STAMP};mark={STAMP}")',
    ),
    "st_update": Call(
        f'sqll_tarn_memdb_update("UPDATE calls SET mark={STAMP},inner={STAMP} WHERE outer=500")'
    ),
    "insert": Call(f'tarn_memdb_insert("calls,{GROUP}|4930|500|{STAMP}|{STAMP}|new")'),
    "st_insert": Call(
        "sqll_tarn_memdb_insert"
        f'("INSERT INTO calls mark,inner,outer,prefix,grp VALUES {STAMP},{STAMP},500,4930,{GROUP}")'
    ),
    "delete": Call(f'tarn_memdb_delete("calls,{GROUP}|*|*|*|*|*")'),
    "st_delete": Call(f'sqll_tarn_memdb_delete("DELETE FROM calls WHERE grp={GROUP}")'),
}


def at_once(work):
    """Runs work(number) for every phone at the same time, and gives all their results."""
    with concurrent.futures.ThreadPoolExecutor(PHONES) as pool:
        return list(pool.map(work, range(PHONES)))


@pytest.mark.parametrize("reader", READERS)
def test_a_reader_with_a_lock_sees_whole_rows_only(host, reader):
    count = Call('tarn_memdb_row_count("calls", "$avp(n)")', show=("$avp(n)",))
    calls = {"read": READERS[reader], **WRITERS, "count": count}
    server = host(start=False, tables=[CALLS_TABLE], calls=calls, children=WORKERS)
    server.write_rows("calls", ROWS)
    server.start()

    def read(phone):
        result = server.call("read", phone=phone)
        assert result.rc == 1
        pairs = [result.values[at : at + 2] for at in range(0, len(result.values), 2)]
        found = [pair for pair in pairs if pair != (None, None)]
        assert len(ROWS) <= len(found) < 20
        assert not [pair for pair in found if pair[0] != pair[1]]

    def write(number, phone):
        group = f"group{number}"
        statement = "st_" if number % 4 == 1 else ""
        for turn in range(ROUNDS):
            stamp = f"stamp{number}.{turn}/{group}"
            assert server.call(f"{statement}insert", stamp, phone=phone).rc == 1
            assert server.call(f"{statement}update", stamp, phone=phone).rc == 1
            assert server.call(f"{statement}delete", stamp, phone=phone).rc == 1

    def one(number):
        with server.phone() as phone:
            if number % 2:
                write(number, phone)
            else:
                for _ in range(ROUNDS * 3):
                    read(phone)

    at_once(one)
    assert server.said("ERROR", "WARNING") == []
    assert server.call("count").values == (str(len(ROWS)),)
    assert server.stop() == 0
    rows = [row.split("|") for row in server.rows("calls")]
    assert [row[5] for row in rows] == [str(number) for number in range(len(ROWS))]
    assert len({(row[3], row[4]) for row in rows}) == 1


# The newest row, again and again.
LOOK_AT_NEWEST = Call(
    """while ($var(seen) < 200 && $var(reads) < 5000000) {
      $(avp(stamp)[*]) = $null;
      $(avp(last)[*]) = $null;
      tarn_memdb_nl_select("stamped,*|*|*|*|*|*|*,1", "$avp(stamp)||||||$avp(last)");
      if ($avp(stamp) != $avp(last)) $var(half) = $var(half) + 1;
      if ($avp(stamp) != $var(newest)) $var(seen) = $var(seen) + 1;
      $var(newest) = $avp(stamp);
      $var(reads) = $var(reads) + 1;
    }
    $var(end) = 1""",
    before="$var(reads) = 0; $var(half) = 0; $var(seen) = 0; $var(newest) = \"\";",
    show=("$var(half)", "$var(seen)"),
)


def test_a_reader_without_a_lock_meets_no_row_that_is_half_filled(host):
    server = host(
        start=False,
        tables=[STAMPED],
        calls={"insert": INSERT_WITHOUT_END, "look": LOOK_AT_NEWEST},
        modparams=("max_while_loops=100000000",),
        children=2,
        memory=256,
    )
    server.write_rows("stamped", FIRST_ROWS)
    server.start()
    with server.phone() as writer, pytest.raises(host_server.host_sip.NoReply):
        writer.request("OPTIONS", server.uri("insert"), {"X-Q": "w"}, timeout=0.1)
    half, seen = server.call("look", timeout=20.0).values
    assert int(seen) == 200
    assert half == "0"


GET = {
    "get": Call('tarn_memdb_get_port("INT")'),
    "get_avp": Call('tarn_memdb_get_port("INT", "$avp(port)")', show=("$avp(port)",)),
    "range": Call('tarn_memdb_get_port_from_range("EXT", "10000")'),
    "reserve": Call('tarn_memdb_set_port("$hdr(X-Q)", "STATIC_INT")'),
    "get_static": Call('tarn_memdb_get_port("STATIC_INT")'),
}
USERS = Table("users", columns("name"))


def ports(server, take):
    """What all phones take by calls of take(number, phone), without the refusals."""

    def one(number):
        with server.phone() as phone:
            return [take(number, phone) for _ in range(40)]

    taken = sum(at_once(one), [])
    return [port for port in taken if port != -1]


def test_no_port_is_handed_out_twice(host):
    server = host(tables=[USERS], calls=GET, children=WORKERS)

    def take(number, phone):
        if number % 2:
            return server.call("get", phone=phone).rc
        result = server.call("get_avp", phone=phone)
        assert result.rc == 1
        return int(result.values[0])

    taken = ports(server, take)
    # 320 times asked for one of 256 ports.
    assert len(taken) == len(set(taken))
    assert set(taken) <= set(range(21000, 21256))
    assert server.call("get").rc == -1
    assert server.said("ERROR", "WARNING") == []


def test_no_port_of_a_private_range_is_handed_out_twice(host):
    numbers = list(range(10000, 10010))
    line = "EXT " + " ".join(str(number) for number in numbers) + "\n"
    server = host(tables=[USERS], calls=GET, children=WORKERS, ranges=line)
    taken = ports(server, lambda number, phone: server.call("range", phone=phone).rc)
    assert sorted(taken) == numbers[1:]


def test_ports_set_and_ports_taken_at_once_keep_apart(host):
    """What one phone sets ahead of the others is never handed out to them."""
    server = host(tables=[USERS], calls=GET, children=WORKERS)
    kept = range(21200, 21256)
    for port in kept:
        assert server.call("reserve", str(port)).rc == 1

    def take(number, phone):
        if number % 2:
            return server.call("get_static", phone=phone).rc
        assert server.call("reserve", str(kept[number]), phone=phone).rc == 1
        return -1

    taken = ports(server, take)
    assert len(taken) == len(set(taken))
    assert set(taken) <= set(range(21000, 21200))
