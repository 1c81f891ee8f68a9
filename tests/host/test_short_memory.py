"""Shared memory that rows use up: the host's allocators log each block that they haven't got, and
so nothing is asked for that a table can do without."""

import rpc_host
from module_host import Call, Column, Table, host_server

KEYS = Table(
    "keys",
    (Column("key", 63, True), Column("grp", 15), Column("prefix", 15), Column("value", 15)),
    max_rows=10_000_000,
)
# Keys of a common ending, prefixes of their own, and a search that has a look-up made for them.
FILL = Call(
    """$var(n) = 0;
    while (tarn_memdb_insert("keys,n$var(n)@sip.example.org|g|$var(n)|v")) {
      $var(n) = $var(n) + 1;
    }
    tarn_memdb_select_best_match("keys,*|g|12345|*", "||$avp(prefix)", "2")""",
    show=("$var(n)",),
)


def test_nothing_but_rows_is_told_to_have_found_no_memory(host, tmp_path):
    fm_host = tmp_path / "kamailio"
    fm_host.write_text(f'#!/bin/sh\nexec "{host_server.TOOLS}/host-kamailio" -x fm "$@"\n')
    fm_host.chmod(0o755)
    server = host(
        tables=[KEYS],
        calls={"fill": FILL},
        modparams=("max_while_loops=100000000",),
        memory=4,
        kamailio=fm_host,
    )
    rows = server.call("fill", timeout=20).values[0]
    assert rpc_host.info(server, "keys")["Row count"] == rows
    # So many that there would be directories and look-ups.
    assert int(rows) > 10_000
    told = [entry.text for entry in server.entries() if "module: tarn_memdb;" in entry.text]
    assert len(told) == 1, told
    assert server.said("ERROR")[0] == "Fail to allocate memory to the row\n"
