"""Readers that take no lock among rows that are there all the while, beside writers that let a
table grow and shrink around them, on a real server, with each of its allocators.

The table passes every size at which directories and look-ups are made, enlarged, divided, and given
up again. Its keys have a common ending in one column, so that all share one bucket, and are all
over in another. Among the rows are some whose texts are overwritten back and forth. Another table
is cleared and reloaded by RPC all the time. Now and then a worker is stopped in the middle of what
it does, and the others have to go on reading. If that worker has the lock of the host's allocator,
only those can that find nothing, since what is found is delivered in blocks of shared memory.

A reader that misses a row that is there, or gets another one, is an error. So is one that finds
anything but the row in question in the table that comes and goes.

TARN_MODULE names the module, STRESS_SECONDS the least time for each allocator, STRESS_STOP how long
a worker is stopped.
"""

import contextlib
import os
import random
import signal
import sys
import threading
import time

import live_server
from live_server import Trouble, host_server
from module_host import Column, Table

SECONDS = float(os.environ.get("STRESS_SECONDS", "30"))
STOP = float(os.environ.get("STRESS_STOP", "2"))
# Ahead of each long stop there are short ones: a reader finds the table changed when it goes on.
SHORT_STOP = 0.004
SHORT_STOPS = 20
WORKERS = 4  # as many as there are calls at once: two readers' and the writers'
WRITERS = 2
READS = 100  # in one request
ROWS = 500  # in one request of a writer
# Rows that the writers add in turn: past 1,000, from where on there are directories; past 48,000
# with keys in one bucket, where a directory is divided; and some of what lies between.
SIZES = (3_000, 60_000, 12_000)
LONGEST_CALL = 20.0

COLUMNS = (
    Column("key", 63, True),
    Column("number", 31, True),
    Column("net", 15, True),
    Column("grp", 15),
    Column("prefix", 31),
    Column("value", 15),
)
GROWN = Table("grown", COLUMNS, max_rows=200_000, check_duplicates=True)
RELOADED = Table("reloaded", COLUMNS, max_rows=200_000)

# So few, with the overwritten rows, that the look-ups go when the writers' rows have gone. Those
# that are overwritten stay on one side of all others in the order of texts: a search may end at one
# that isn't where its text belongs.
STEADY = range(100, 120)
OVERWRITTEN = 5  # rows of each writer
RELOADED_NUMBERS = range(1_000, 6_000)  # of which no one begins another one


def row(kind, number):
    net = number % 10
    return (
        f"{kind}{number}@sip.example.org|{kind}no{number}|n{net}|g{net}|49{kind}{number}|{number}"
    )


def writers_row(writer, number):
    net = number % 10
    key = f"w{writer}n{number}"
    return f"{key}@sip.example.org|{key}|n{net}|g{net}|48{writer}{number}|{number}"


def overwritten_row(writer, number):
    key = f"o{writer}n{number}"
    return f"{key}@sip.example.org|{key}|n{number}|g{number}|47{writer}{number}|{number}"


FIRST_ROWS = [row("s", number) for number in STEADY]
FIRST_ROWS += [
    overwritten_row(writer, number) for writer in range(WRITERS) for number in range(OVERWRITTEN)
]


def reads(table, kind):
    """The four kinds of reads of the row $var(n) of a kind, whose net is $var(net)."""
    avp = "|||||$avp(v)"
    # What is missing has no prefix at all; those that are overwritten begin with 4.
    prefix = f"{3 if kind == 'm' else 4}9{kind}$var(n)77"
    return (
        f'tarn_memdb_nl_select("{table},{kind}$var(n)@sip.example.org|*|*|*|*|*", "{avp}")',
        f'tarn_memdb_nl_select("{table},*|{kind}no$var(n)|*|*|*|*", "{avp}")',
        f'tarn_memdb_nl_select_best_match("{table},*|*|*|g$var(net)|{prefix}|*", "{avp}", "4")',
        f'tarn_memdb_nl_select_best_match("{table},*|*|n$var(net)|*|{prefix}|*", "{avp}", "4")',
    )


def cases(calls):
    return "".join(f"      case {i}: {call}; break;\n" for i, call in enumerate(calls))


FINDS = "$var(rc) == 1 && $(avp(v){s.int}) == $var(n)"
MISSES = "$var(rc) == -2"


def read_route(name, table, kind, numbers, right):
    """A route that ends with 500 at the first read with a result that isn't right."""
    return f"""
route[{name}] {{
  $var(i) = 0;
  while ($var(i) < {READS}) {{
    $var(n) = $RANDOM mod {len(numbers)};
    $var(n) = $var(n) + {numbers.start};
    $var(net) = $var(n) mod 10;
    $var(which) = $var(i) mod 4;
    switch ($var(which)) {{
{cases(reads(table, kind))}    }}
    $var(rc) = $rc;
    if (!({right})) {{
      append_to_reply("X-Wrong: {table} kind $var(which) row $var(n): $var(rc) $avp(v)\\r\\n");
      sl_send_reply("500", "wrong");
      exit;
    }}
    $(avp(v)[*]) = $null;
    $var(i) = $var(i) + 1;
  }}
  sl_send_reply("200", "read");
  exit;
}}
"""


# By a text that isn't overwritten meanwhile. Each way and back.
KEY = "o$var(w)n$var(j)"
TURNS = {
    "key": ("number", f"{KEY}+@sip.example.org", f"{KEY}@sip.example.org"),
    # Another bucket's.
    "number": ("key", f"{KEY}+", KEY),
    "grp": ("key", "h", "g$var(j)"),
    "prefix": ("key", "4", "47$var(w)$var(j)"),
}
TURNED_BY = {"number": f"*|{KEY}|*|*|*|*", "key": f"{KEY}@sip.example.org|*|*|*|*|*"}


def update(column, text):
    return f'tarn_memdb_update("grown,{TURNED_BY[TURNS[column][0]]}", "{column}={text}")'


def turn_route(way):
    """Overwrites the writer's texts, those of the keys' column only where the request says so."""
    updates = {column: update(column, texts[way]) for column, texts in TURNS.items()}
    keys = updates.pop("key")
    lines = "".join(f"    {each};\n" for each in updates.values())
    return f"""
route[{("FORTH", "BACK")[way - 1]}] {{
  $var(j) = 0;
  while ($var(j) < {OVERWRITTEN}) {{
    if ($hdr(X-Keys) == "1") {keys};
{lines}    $var(j) = $var(j) + 1;
  }}
  sl_send_reply("200", "turned");
  exit;
}}
"""


def rows_route(name, do):
    return f"""
route[{name}] {{
  $var(i) = 0;
  $var(n) = $(hdr(X-From){{s.int}});
  while ($var(i) < {ROWS}) {{
    $var(net) = $var(n) mod 10;
    {do};
    $var(n) = $var(n) + 1;
    $var(i) = $var(i) + 1;
  }}
  sl_send_reply("200", "written");
  exit;
}}
"""


OWN = "w$var(w)n$var(n)"
INSERT = (
    f'tarn_memdb_insert("grown,{OWN}@sip.example.org|{OWN}|n$var(net)|g$var(net)'
    '|48$var(w)$var(n)|$var(n)")'
)
DELETE = f'tarn_memdb_delete("grown,{OWN}@sip.example.org|*|*|*|*|*")'
DELETE_BY_NUMBER = f'tarn_memdb_delete("grown,*|{OWN}|*|*|*|*")'

SCRIPT = "".join(
    (
        """
request_route {
  if ($rU == "ready") {
    sl_send_reply("200", "ready");
    exit;
  }
  $var(w) = $(hdr(X-Who){s.int});
""",
        *(
            f'  if ($rU == "{name.lower()}") route({name});\n'
            for name in ("STEADY", "MISSING", "RELOADED")
            + ("INSERT", "DELETE", "DELETE_2", "FORTH", "BACK")
        ),
        '  sl_send_reply("404", "no such call");\n}\n',
        read_route("STEADY", "grown", "s", STEADY, FINDS),
        read_route("MISSING", "grown", "m", STEADY, MISSES),
        read_route("RELOADED", "reloaded", "r", RELOADED_NUMBERS, f"({FINDS}) || {MISSES}"),
        rows_route("INSERT", INSERT),
        rows_route("DELETE", DELETE),
        rows_route("DELETE_2", DELETE_BY_NUMBER),
        turn_route(1),
        turn_route(2),
    )
)


class Load:
    """What all threads of one load share."""

    def __init__(self, server):
        self.server = server
        self.until = time.monotonic() + SECONDS
        self.phase = threading.Barrier(WRITERS)
        self.ended = threading.Event()  # the writers have done enough, or something is wrong
        self.going = threading.Event()  # no worker is stopped
        self.going.set()
        self.read = 0  # requests
        self.written = 0  # rows
        self.reloads = 0
        self.stops = 0
        self.trouble = []

    def run(self):
        works = [(self.write_rows, n) for n in range(WRITERS)]
        works += [(work, 0) for work in (self.find, self.miss, self.reload, self.stop_workers)]
        threads = [threading.Thread(target=self.guard, args=work) for work in works]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if self.trouble:
            raise self.trouble[0]

    def guard(self, work, number):
        try:
            work(number)
        except threading.BrokenBarrierError:
            pass
        except BaseException as trouble:  # pylint: disable=broad-exception-caught
            # Raised again by the thread that waits for this one.
            self.trouble.append(trouble)
            self.ended.set()
            self.phase.abort()

    def call(self, phone, user, **headers):
        """One request, which may be done twice."""
        sent = {f"X-{name}": str(told) for name, told in headers.items()}
        end = time.monotonic() + LONGEST_CALL
        while True:
            try:
                # Short of the phone's first repetition, which would keep one more worker waiting
                # for a lock that a stopped one has.
                reply = phone.request("OPTIONS", self.server.uri(user), sent, timeout=0.45)
                break
            except host_server.host_sip.NoReply:
                if time.monotonic() > end:
                    raise
                self.going.wait(LONGEST_CALL)
                time.sleep(0.2)  # for the one that was stopped to end its call
        if reply.status != 200:
            raise Trouble(f"{reply.first_line}: {reply.get('x-wrong')}")

    def read_until_the_end(self, *users):
        with self.server.phone(users[0]) as phone:
            while not self.ended.is_set():
                for user in users:
                    self.call(phone, user)
                    self.read += 1

    def find(self, _):
        self.read_until_the_end("steady", "steady", "steady", "reloaded")

    def miss(self, _):
        self.read_until_the_end("missing")

    def write_rows(self, writer):
        with self.server.phone(f"writer{writer}") as phone:
            while time.monotonic() < self.until:
                for turn, size in enumerate(SIZES):
                    self.grow_and_shrink(phone, writer, size // WRITERS, turn % 2 == 1)
        self.ended.set()

    def grow_and_shrink(self, phone, writer, size, backwards):
        # A chain of all keys is long, and long to walk.
        keys = 1 if size <= min(SIZES) else 0
        steps = list(range(0, size, ROWS))
        for step in steps:
            self.call(phone, "forth", Who=writer, Keys=keys)
            self.call(phone, "insert", Who=writer, From=step)
            self.call(phone, "back", Who=writer, Keys=keys)
            self.written += ROWS
        self.phase.wait(LONGEST_CALL * 3)
        for step in reversed(steps) if backwards else steps:
            self.call(phone, "forth", Who=writer, Keys=keys)
            self.call(phone, "back", Who=writer, Keys=keys)
            self.call(phone, "delete_2" if backwards else "delete", Who=writer, From=step)
            self.written += ROWS
        self.phase.wait(LONGEST_CALL * 3)

    def reload(self, _):
        rows = [row("r", number) for number in RELOADED_NUMBERS]
        ready = self.server.directory / "reloaded.next"
        while not self.ended.is_set():
            self.rpc("clear_tbl")
            # The clear has written an empty file.
            ready.write_text("\n".join(("Version 1", *rows)) + "\n")
            ready.replace(self.server.main_file("reloaded"))
            self.rpc("reload_table")
            self.reloads += 1
            self.ended.wait(0.05)

    def rpc(self, command):
        reply = self.server.jsonrpc("tarn_memdb." + command, "reloaded", timeout=LONGEST_CALL)
        if "error" in reply:
            raise Trouble(f"{command}: {reply}")

    def stop_workers(self, _):
        workers = [
            process["PID"]
            for process in self.server.jsonrpc("core.psx")["result"]
            if "udp receiver" in process["DSC"]
        ]
        if len(workers) != WORKERS:
            raise Trouble(f"there are {len(workers)} workers")
        while not self.ended.is_set():
            for _ in range(SHORT_STOPS):
                self.stop_one(workers, SHORT_STOP)
                self.ended.wait(SHORT_STOP)
            self.going.clear()
            before = self.read
            self.stop_one(workers, STOP)
            read = self.read - before
            self.going.set()
            if read < 2 and not self.ended.is_set():
                raise Trouble(f"while a worker was stopped, others read {read} times")
            self.stops += 1

    def stop_one(self, workers, seconds):
        """The worker is stopped wherever it is."""
        worker = random.choice(workers)
        with contextlib.suppress(ProcessLookupError):
            os.kill(worker, signal.SIGSTOP)
        time.sleep(seconds)
        with contextlib.suppress(ProcessLookupError):
            os.kill(worker, signal.SIGCONT)


def check_file(server):
    """All rows of the table that grew are whole, each is there once, and none is lost."""
    stored = server.main_file("grown").read_text().splitlines()[1:]
    if lost := set(FIRST_ROWS) - set(stored):
        raise Trouble(f"rows are lost: {sorted(lost)}")
    if len(stored) != len(FIRST_ROWS):
        raise Trouble(f"{len(stored)} rows are stored, not {len(FIRST_ROWS)}")


def run(allocator):
    def fill(server):
        server.write_rows("grown", FIRST_ROWS)
        server.write_rows("reloaded", (row("r", number) for number in RELOADED_NUMBERS))

    began = time.monotonic()
    with live_server.server(
        allocator,
        fill,
        tables=[GROWN, RELOADED],
        script=SCRIPT,
        modules=("pv.so", "sl.so", "textops.so", "kex.so", "jsonrpcs.so", "cfgutils.so")
        + ("tarn_memdb",),
        modparams=("max_while_loops=1000000",),
        children=WORKERS,
        params={"store_tbl_interval": 1},
        memory=128,
    ) as server:
        before = live_server.check_memory(server, {"free": 0})
        load = Load(server)
        try:
            load.run()
        except host_server.host_sip.NoReply as silence:
            live_server.expect_no_worker_lost(server)
            raise Trouble(f"a call doesn't come to its end: {silence}") from None
        live_server.expect_no_worker_lost(server)
        live_server.check_memory(server, before)
        live_server.stop(server)
        check_file(server)
    print(
        f"stress: {allocator}: {load.read * READS} reads without a lock found what is there,"
        f" beside {load.written} rows that came and went, {load.reloads} reloads, {load.stops}"
        f" stopped workers, {time.monotonic() - began:.0f} s",
        flush=True,
    )


if __name__ == "__main__":
    sys.exit(live_server.run_with_each_allocator(run))
