"""The production page's recipe for rows that expire, run by the server's own timer, only faster."""

import re
import time

from module_host import OTHER_MODULES, TOP, Call, Column, Table

PAGE = (TOP / "docs/production.md").read_text()
SECTION = PAGE[PAGE.index("\n## Rows that expire\n") : PAGE.index("\n## Upgrade of the module\n")]
BLOCKS = re.findall(r"(?ms)^```kamailio\n(.*?)^```$", SECTION)
CONFIGURATION, EXPIRE, RENEW = BLOCKS[:3]
# A second stands for a minute: for the timer, and in what the routes reckon with.
FASTER = ("interval=60", "interval=1"), ("/ 60", "/ 1"), ("10080", "3000")
GUESTS = Table("guests", (Column("user"), Column("contact"), Column("until", 10, True)), 100000)


def faster(text):
    for slow, quick in FASTER:
        text = text.replace(slow, quick)
    return text


def recipe(host, rows):
    server = host(
        start=False,
        tables=[GUESTS],
        calls={
            "renew": Call(
                "route(RENEW)",
                before='$var(user) = $hdr(X-Q);\n$var(contact) = "sip:x";\n$var(seconds) = 2;',
            ),
            "back": Call(
                "route(EXPIRE)",
                before='tarn_memdb_insert("guests,$hdr(X-Q)");\n$var(done) = $TS + 1000;',
            ),
            "count": Call('tarn_memdb_row_count("guests", "$avp(n)")', show=("$avp(n)",)),
        },
        modules=(*OTHER_MODULES, "rtimer.so", "tarn_memdb"),
        modparams=[line for line in faster(CONFIGURATION).splitlines() if "loadmodule" not in line],
        more=faster(EXPIRE + RENEW),
    )
    server.write_rows("guests", rows)
    return server.start()


def users(server):
    shown = server.kamcmd("tarn_memdb.select", "guests,*|*|*")[1]
    return {line.split("|")[0] for line in shown.splitlines()[1:]}


def wait_for(server, wanted, timeout=10.0):
    end = time.monotonic() + timeout
    while users(server) != wanted:
        assert time.monotonic() < end, users(server)
        time.sleep(0.05)


def test_rows_go_by_themselves_and_those_that_are_renewed_stay(host):
    now = int(time.time())
    server = recipe(host, [f"old|sip:x|{now - 2000}", f"frank|sip:x|{now + 3600}"])
    for name in ("bob", "carol"):
        server.call("renew", name)
    wait_for(server, {"frank", "bob", "carol"})
    end = time.monotonic() + 10.0
    while "carol" in users(server):
        server.call("renew", "bob")
        assert "bob" in users(server), "never without a row"
        assert time.monotonic() < end
        time.sleep(0.2)
    assert users(server) == {"frank", "bob"}
    assert server.call("count").values == ("2",), "one row each"
    wait_for(server, {"frank"})
    assert server.said("ERROR", "WARNING") == []


def test_rows_go_as_well_once_the_clock_was_set_back(host):
    server = recipe(host, [f"frank|sip:x|{int(time.time()) + 3600}"])
    server.call("back", f"bob|sip:x|{int(time.time()) - 1000}")
    assert users(server) == {"frank"}
