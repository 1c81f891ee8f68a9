"""Readers that take no lock beside writers that do, on a real server, with each of its allocators.

What such a reader is given may be part of a row that goes or comes, so its results aren't looked
at. What has to hold is that it comes to its end and that the server's memory stays sound: no worker
ends with a signal, the allocator has found nothing to complain of, no memory is gone, list and
count and file of the table have the same rows, and the stop is a clean one. Nor does a reader meet
a row that is half filled: the select by subnet would tell of one without flags.

Readers that deliver values take shared memory for those, so that blocks of rows become something
else; readers that find nothing are more often among the rows.

TARN_MODULE names the module, STRESS_SECONDS the time for each allocator with readers that find
nothing, STRESS_DELIVERIES the servers that each allocator gets with readers that deliver.
"""

import concurrent.futures
import os
import sys
import time

import live_server
from live_server import Trouble, host_server
from module_host import Table, columns

SECONDS = float(os.environ.get("STRESS_SECONDS", "30"))
SLICES = 6  # servers that share the time
DELIVERIES = int(os.environ.get("STRESS_DELIVERIES", "3"))
DELIVERY_SECONDS = 3.0
READERS = 4
WRITERS = 4
REPEATS = 100  # calls in one request

NAMES = ["name", "grp", "outer", "inner", "place", "side", "pfx", "kind", "dyn", "value"]
NAMES += ["c10", "c11", "dn", "subnet", "from", "ct"]
TABLE = Table("wide", columns(*NAMES, indexed=("name", "grp")), max_rows=2000)
# What follows the group: a row of the network 127.0.0.0, and so one that every read can deliver.
REST = "1|127.0.0.0|255.0.0.0|LAN|4912|0|0|15||||1||"
STEADY = [f"s{i}|g{i % 5}|{REST}" for i in range(40)]
WILD = "|".join("*" * len(NAMES))


def query(**values):
    return "wide," + "|".join(values.get(name, "*") for name in NAMES)


GROUP = query(grp="g$var(group)")
AVPS = "$avp(a)|$avp(b)|$avp(c)|$avp(d)"
# Reads that walk everything and find nothing.
MISSES = (
    f'tarn_memdb_nl_select("{query(name="none")}", "{AVPS}")',
    f'tarn_memdb_nl_select("{query(pfx="none")}", "{AVPS}")',
    f'tarn_memdb_nl_select("{query(grp="$var(group)", pfx="none")}", "{AVPS}")',
    f'tarn_memdb_nl_xavp_select("{query(grp="$var(group)", pfx="none")}", "x")',
    f'tarn_memdb_nl_select_best_match("{query(pfx="512345")}", "{AVPS}", "6")',
    f'tarn_memdb_nl_xavp_select_best_match("{query(pfx="512345")}", "x", "6")',
    f'tarn_memdb_nl_select_best_match_prefix("{query(pfx="512345")}", "{AVPS}", "6", "0")',
    "tarn_memdb_nl_select_by_port_type"
    f'("external_port", "wide,none|*|1{"|*" * (len(NAMES) - 4)}", "{AVPS}")',
    f'tarn_memdb_nl_select_field_out_of_range("{GROUP}", "{AVPS}", "9", "10", "20")',
    "tarn_memdb_nl_select_field_within_the_range"
    f'("wide,{WILD}", "{AVPS}", "9", "1", "2", "$var(n)")',
    f'tarn_memdb_nl_select_subnetmask("{GROUP}", "{AVPS}", "8.8.8.8", "$fU", "$fU")',
)
# Reads that deliver what they find, which takes blocks from the shared memory that rows come from.
HITS = (
    f'tarn_memdb_nl_select("wide,{WILD},3", "{AVPS}")',
    f'tarn_memdb_nl_select("{GROUP},5", "{AVPS}")',
    f'tarn_memdb_nl_xavp_select("{GROUP},2", "x")',
    f'tarn_memdb_nl_select_best_match("{query(pfx="4912345")}", "{AVPS}", "6")',
    f'tarn_memdb_nl_select_field_out_of_range("{GROUP}", "{AVPS}", "9", "20", "30")',
    f'tarn_memdb_nl_select_subnetmask("{GROUP}", "{AVPS}", "$si", "$fU", "$fU")',
)
TIDY = "".join(f"$(avp({name})[*]) = $null; " for name in "abcd") + "$xavp(x) = $null; " * 2
# The name tells the writer and its number, so that nobody else takes the row.
OWN = "$hdr(X-Who)n$var(slot)"


def script(reads):
    cases = "".join(f"      case {i}: {read}; break;\n" for i, read in enumerate(reads))
    return f"""
request_route {{
  if ($rU == "ready") {{
    sl_send_reply("200", "ready");
    exit;
  }}
  if ($rU == "read") route(READ);
  if ($rU == "write") route(WRITE);
  if ($rU == "count") route(COUNT);
  sl_send_reply("404", "no such call");
}}
route[READ] {{
  $var(i) = 0;
  while ($var(i) < {REPEATS}) {{
    $var(group) = $var(i) mod 5;
    $var(which) = $var(i) mod {len(reads)};
    switch ($var(which)) {{
{cases}    }}
    {TIDY}
    $var(i) = $var(i) + 1;
  }}
  sl_send_reply("200", "read");
  exit;
}}
route[WRITE] {{
  $var(i) = 0;
  while ($var(i) < {REPEATS}) {{
    $var(slot) = $RANDOM mod 60;
    $var(group) = $var(i) mod 5;
    $var(which) = $var(i) mod 4;
    if ($var(which) < 2) {{
      tarn_memdb_insert("wide,{OWN}|g$var(group)|{REST}");
    }} else if ($var(which) == 2) {{
      tarn_memdb_delete("{query(name=OWN)}");
    }} else {{
      tarn_memdb_update("{query(name=OWN)}", "side=p$var(i)");
    }}
    $var(i) = $var(i) + 1;
  }}
  sl_send_reply("200", "written");
  exit;
}}
route[COUNT] {{
  tarn_memdb_row_count("wide", "$avp(n)");
  tarn_memdb_select("wide,{WILD}", "$avp(all)");
  append_to_reply("X-Rows: $avp(n) $cnt($avp(all))\\r\\n");
  sl_send_reply("200", "counted");
  exit;
}}
"""


def started(allocator, reads):
    return live_server.server(
        allocator,
        lambda server: server.write_rows("wide", STEADY),
        tables=[TABLE],
        script=script(reads),
        modules=("pv.so", "sl.so", "textops.so", "kex.so", "jsonrpcs.so", "cfgutils.so")
        + ("tarn_memdb",),
        modparams=("max_while_loops=1000000",),
        children=READERS + WRITERS,
        params={"store_tbl_interval": 1},
    )


def load(server, until):
    """Keeps all workers busy; gives the numbers of calls that were answered."""

    def work(number):
        user = "read" if number < READERS else "write"
        calls = 0
        with server.phone(f"p{number}") as phone:
            while time.monotonic() < until and server.running:
                phone.request("OPTIONS", server.uri(user), {"X-Who": f"w{number}"}, timeout=5)
                calls += REPEATS
        return calls

    with concurrent.futures.ThreadPoolExecutor(READERS + WRITERS) as pool:
        return list(pool.map(work, range(READERS + WRITERS)))


def rows_counted(server):
    with server.phone() as phone:
        reply = phone.request("OPTIONS", server.uri("count"), timeout=10)
    return [int(number) for number in reply.get("x-rows").split()]


def work(server, seconds):
    """One load from its beginning to the server's stop; gives the number of calls answered."""
    before = live_server.check_memory(server, {"free": 0})
    try:
        done = load(server, time.monotonic() + seconds)
    except host_server.host_sip.NoReply as silence:
        live_server.expect_no_worker_lost(server)
        raise Trouble(f"a call doesn't come to its end: {silence}") from None
    live_server.expect_no_worker_lost(server)
    counted, found = rows_counted(server)
    if counted != found or found < len(STEADY):
        raise Trouble(f"{counted} rows are counted, {found} found")
    live_server.check_memory(server, before)
    live_server.stop(server)
    stored = server.main_file(TABLE.name).read_text().splitlines()
    if len(stored) != counted + 1:
        raise Trouble(f"{len(stored) - 1} rows are stored of {counted}")
    return sum(done)


def with_server(allocator, reads, seconds):
    with started(allocator, reads) as server:
        return work(server, seconds)


def run(allocator):
    calls = sum(with_server(allocator, MISSES, SECONDS / SLICES) for _ in range(SLICES))
    print(
        f"stress: {allocator}: readers without a lock beside writers on {SLICES} servers,"
        f" {calls / SECONDS:.0f} calls per second, 0 deviations",
        flush=True,
    )
    calls = sum(with_server(allocator, HITS, DELIVERY_SECONDS) for _ in range(DELIVERIES))
    if DELIVERIES:
        print(
            f"stress: {allocator}: the same with values delivered on {DELIVERIES} servers,"
            f" {calls / DELIVERIES / DELIVERY_SECONDS:.0f} calls per second, 0 deviations",
            flush=True,
        )


if __name__ == "__main__":
    sys.exit(live_server.run_with_each_allocator(run))
