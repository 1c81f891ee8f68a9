#!/usr/bin/env python3
"""Measures the module beside its peers on a real server and prints tables.

Usage: bench/host_bench.py MODULE.so

Environment:
  TARN_BENCH_ROUNDS      rounds of each case (default 41)
  TARN_BENCH_ALLOCATORS  the host's allocators, in order (default "fm qm"; qm is what it takes
                         without being told)
  TARN_BENCH_CASES       the cases to run, of: loops languages ports rpc processes store memory
                         large
  TARN_BENCH_LARGE_ALLOCATORS
                         those of the case large among them (default "fm": filling takes qm two
                         minutes)
"""

import contextlib
import os
import statistics
import subprocess
import sys
import tempfile
import threading
import time

sys.dont_write_bytecode = True

import host_cases  # noqa: E402  (no byte code of these)
import host_kemi  # noqa: E402
import host_large  # noqa: E402
import host_loops  # noqa: E402
import host_prefixes  # noqa: E402
import host_ranges  # noqa: E402
import host_site  # noqa: E402

CASES = ("loops", "languages", "ports", "rpc", "processes", "store", "memory", "large")
DEFAULT_ALLOCATOR = "qm"
median = statistics.median


class Bench:
    """The settings, and servers for the cases."""

    def __init__(self, module, environment):
        self.module = module
        self.rounds = int(environment.get("TARN_BENCH_ROUNDS", "41"))
        self.allocators = environment.get("TARN_BENCH_ALLOCATORS", "fm qm").split()
        self.large_allocators = environment.get("TARN_BENCH_LARGE_ALLOCATORS", "fm").split()
        self.cases = environment.get("TARN_BENCH_CASES", " ".join(CASES)).split()
        if self.rounds < 3 or set(self.cases) - set(CASES):
            raise SystemExit(__doc__)

    @contextlib.contextmanager
    def server(self, routes, allocator, children=1, stock=None):
        """A running server that must not have complained at its end."""
        with tempfile.TemporaryDirectory(prefix="tarn-bench-") as directory:
            server = host_site.BenchServer(
                directory, self.module, routes, allocator, children, stock
            )
            try:
                server.start(timeout=120)
                yield server
                trouble = server.complaints()
                if trouble:
                    raise host_loops.WrongResult(f"the server complains: {trouble[0]}")
            finally:
                server.kill()

    @contextlib.contextmanager
    def runner(self, routes, allocator, stock):
        """A runner of loops on such a server."""
        with self.server(routes, allocator, 1, stock) as server, server.phone("bench") as phone:
            yield host_loops.Runner(server, phone)


def titled(text, allocator):
    return f"{text} (allocator {allocator})"


# Cases 1 to 4, as far as they are loops.


def fill(server, runner):
    reply = runner.phone.request("OPTIONS", server.uri("make_lite"))
    assert reply.status == 200
    for loop, count in host_cases.fillers():
        for _ in range(0, count, host_cases.FILL_STEP):
            runner.run(loop, min(count, host_cases.FILL_STEP))


def bare(name):
    return name.split("__")[0]


def print_group(group, times, allocator):
    empty = group.loops[0].name
    net = host_loops.without(times, empty)
    host_loops.print_table(
        titled(group.title, allocator),
        ["", "ns", "spread"],
        [
            [bare(name), median(spent), f"{100 * host_loops.spread(spent):.0f} %"]
            for name, spent in net.items()
        ],
    )
    print(f"The empty loop, taken off: {median(times[empty]):.0f} ns.")
    for own, peer, goal in group.ratios:
        reached = host_loops.ratio(net[own], net[peer])
        text = f"{bare(own)} / {bare(peer)}: {reached:.2f}"
        if goal is not None:
            text += f" (goal at most {goal}: {'met' if reached <= goal else 'not met'})"
        print(text)


def run_loops(bench, allocator):
    groups = host_cases.all_groups()
    routes = {"make_lite": host_cases.make_lite()}
    for loop in [loop for loop, _ in host_cases.fillers()] + [
        loop for group in groups for loop in group.loops
    ]:
        routes[loop.name] = loop.route()
    with bench.server(routes, allocator) as server, server.phone("bench") as phone:
        runner = host_loops.Runner(server, phone)
        fill(server, runner)
        for group in groups:
            print_group(group, runner.rounds(group.loops, bench.rounds), allocator)


# Case 4: giving a port back ends the script, so that no loop can hold it.

BURST = 50
BURSTS = 4


def run_ports(bench, allocator):
    """tarn_memdb_free_port, by the worker's processor time over many requests."""
    routes = {
        "nothing": ["exit;"],
        "free_port": ['tarn_memdb_free_port("EXT", "2000");', "exit;"],
    }
    with bench.server(routes, allocator) as server, server.phone("bench") as phone:
        (pid,) = host_site.worker_pids(server)

        def per_request(name):
            request = (
                f"OPTIONS {server.uri(name)} SIP/2.0\r\n"
                f"Via: SIP/2.0/UDP {phone.address}:{phone.port};branch=z9hG4bKport\r\n"
                "From: <sip:bench@example.org>;tag=1\r\nTo: <sip:bench@example.org>\r\n"
                "Call-ID: port\r\nCSeq: 1 OPTIONS\r\nContent-Length: 0\r\n\r\n"
            ).encode()
            before = host_site.cpu_nanoseconds(pid)
            for _ in range(BURSTS):
                for _ in range(BURST):
                    phone.socket.sendto(request, phone.server)
                # Answered behind the others, so that none waits too long for its turn.
                phone.request("OPTIONS", server.uri(server.READY_USER))
            time.sleep(0.002)
            return (host_site.cpu_nanoseconds(pid) - before) / (BURST * BURSTS)

        per_request("nothing")
        differences = []
        for _ in range(4 * bench.rounds):
            nothing = per_request("nothing")
            differences.append(per_request("free_port") - nothing)
        print(
            f"\n{titled('tarn_memdb_free_port', allocator)}: {median(differences):.0f} ns of the "
            f"worker's processor time (quartiles "
            + " to ".join(f"{q:.0f}" for q in statistics.quantiles(differences, n=4)[::2])
            + ")"
        )


# Case 4: a select by an operator.


def run_rpc(bench, allocator):
    routes = {loop.name: loop.route() for loop, _ in host_cases.fillers()}
    routes["make_lite"] = host_cases.make_lite()
    client = host_site.client_command()
    commands = {
        "tarn_memdb.select": (["tarn_memdb.select", "flat1000,*|*|*|*"], 1001),
        "tarn_memdb.nl_select": (["tarn_memdb.nl_select", "flat1000,*|*|*|*"], 1001),
        "htable.dump": (["htable.dump", "flat1000_contact"], 1000),
        "core.version": (["core.version"], 1),
    }
    with bench.server(routes, allocator) as server, server.phone("bench") as phone:
        fill(server, host_loops.Runner(server, phone))

        def milliseconds(name):
            words, least = commands[name]
            start = time.monotonic()
            done = subprocess.run(
                [*client, "-s", f"unix:{server.ctl_socket}", *words],
                stdin=subprocess.DEVNULL,
                capture_output=True,
                text=True,
                check=True,
            )
            spent = (time.monotonic() - start) * 1e3
            if len(done.stdout.splitlines()) < least:
                raise host_loops.WrongResult(f"{name} shows too little: {done.stdout[:200]}")
            return spent

        times = {name: [] for name in commands}
        for _ in range(max(bench.rounds // 2, 5)):
            for name in commands:
                times[name].append(milliseconds(name))
        base = median(times["core.version"])
        host_loops.print_table(
            titled("RPC of 1000 rows by kamcmd", allocator),
            ["", "ms, client's start included", "ms more than core.version"],
            [[name, median(spent), median(spent) - base] for name, spent in times.items()],
        )


# Case 5: several processes at once.

PROCESSES = (1, 2, 4)
TOGETHER_MS = 60.0


def process_loops():
    each = (
        f"$var(n) = {host_site.FIRST_KEY} + ($var(i) * 617) mod 1000;\n"
        '$var(k) = "user" + $var(n);'
    )
    query = "flat1000,$var(k)|*|*|*,1"
    avps = "|$avp(grp)|$avp(contact)|$avp(state)"
    bodies = {
        "empty": "",
        # What the host alone does for three values: its shared memory has one lock for all.
        "three_avps": '$avp(a) = "x";\n$avp(b) = "x";\n$avp(c) = "x";',
        "select": f'tarn_memdb_select("{query}", "{avps}");',
        "nl_select": f'tarn_memdb_nl_select("{query}", "{avps}");',
        "select_into_none": f'tarn_memdb_select("{query}", "|");',
        "nl_select_into_none": f'tarn_memdb_nl_select("{query}", "|");',
    }
    return [host_loops.Loop(f"{name}__m", body, each) for name, body in bodies.items()]


def together(server, loop, phones, count):
    """Runs one loop on as many workers as there are phones; gives the nanoseconds of each."""
    times = [None] * len(phones)
    start = threading.Barrier(len(phones))

    def run(place):
        runner = host_loops.Runner(server, phones[place])
        runner.next_number[loop.name] = place * 100
        start.wait()
        times[place] = runner.run(loop, count)

    threads = [threading.Thread(target=run, args=(place,)) for place in range(len(phones))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if None in times:
        raise host_loops.WrongResult(f"{loop.name} didn't run on all processes")
    return times


def run_processes(bench, allocator):
    loops = process_loops()
    routes = {loop.name: loop.route() for loop in loops}
    with contextlib.ExitStack() as ends:
        server = ends.enter_context(bench.server(routes, allocator, max(PROCESSES)))
        phones = [ends.enter_context(server.phone(f"p{n}")) for n in range(max(PROCESSES))]
        counts = {}
        for loop in loops:
            each = median(together(server, loop, phones[:1], 1000))
            counts[loop.name] = max(100, int(TOGETHER_MS * 1e6 / each))
        times = {(loop.name, n): [] for loop in loops for n in PROCESSES}
        for _ in range(max(bench.rounds // 4, 5)):
            for n in PROCESSES:
                for loop in loops:
                    spent = together(server, loop, phones[:n], counts[loop.name])
                    times[loop.name, n].append(statistics.mean(spent))

        def per_core(loop, n):
            return [a / b for a, b in zip(times[loop.name, 1], times[loop.name, n], strict=True)]

        # The empty loop shares nothing: it shows what the machine gives to that many processes.
        rows = []
        for loop in loops:
            row = [bare(loop.name)] + [median(times[loop.name, n]) for n in PROCESSES]
            row += [median(per_core(loop, n)) for n in PROCESSES[1:]]
            row += [
                host_loops.ratio(per_core(loop, n), per_core(loops[0], n)) for n in PROCESSES[1:]
            ]
            rows.append(row)
        host_loops.print_table(
            titled("Selects by several processes at once, loop included", allocator),
            [""]
            + [f"ns, {n} at once" for n in PROCESSES]
            + [f"speed per core, {n}" for n in PROCESSES[1:]]
            + [f"beside the empty loop's, {n}" for n in PROCESSES[1:]],
            rows,
        )


# Case 6: how long a store keeps a locked worker waiting.


def wait_route(count):
    """Selects for 200 ms and tells the longest time that one took, in microseconds."""
    query = f"store{count},{host_site.key(1)}|*|*|*|*,1"
    return [
        "$var(longest) = 0;",
        "$var(began) = $TV(sn) * 1000000 + $TV(un);",
        "$var(now) = $var(began);",
        "while ($var(now) < $var(began) + 200000) {",
        "  $var(before) = $TV(sn) * 1000000 + $TV(un);",
        f'  tarn_memdb_select("{query}", "|");',
        "  $var(now) = $TV(sn) * 1000000 + $TV(un);",
        "  if ($var(now) - $var(before) > $var(longest)) {",
        "    $var(longest) = $var(now) - $var(before);",
        "  }",
        "}",
        r'append_to_reply("X-Longest: $var(longest)\r\n");',
        'sl_send_reply("200", "done");',
        "exit;",
    ]


def run_store(bench, allocator):
    routes = {}
    for count in host_site.STORE_COUNTS:
        routes[f"wait{count}"] = wait_route(count)
        routes[f"change{count}"] = [
            f'tarn_memdb_update("store{count},{host_site.key(1)}|*|*|*|*", "*|*|*|*|7200");',
            'sl_send_reply("200", "changed");',
            "exit;",
        ]
    with bench.server(routes, allocator) as server, server.phone("bench") as phone:

        def longest(count, store):
            phone.request("OPTIONS", server.uri(f"change{count}"))
            spent = []

            def sync():
                time.sleep(0.05)
                start = time.monotonic()
                server.jsonrpc("tarn_memdb.sync", f"store{count}")
                spent.append((time.monotonic() - start) * 1e6)

            thread = threading.Thread(target=sync)
            if store:
                thread.start()
            reply = phone.request("OPTIONS", server.uri(f"wait{count}"))
            if store:
                thread.join()
            return int(reply.get("x-longest")), spent

        rows = []
        for count in host_site.STORE_COUNTS:
            idle, waits, stores = [], [], []
            for _ in range(max(bench.rounds // 5, 5)):
                idle.append(longest(count, False)[0])
                wait, spent = longest(count, True)
                waits.append(wait)
                stores += spent
            size = (server.directory / "tables" / f"store{count}.tbl").stat().st_size
            rows.append([count, size / 1e6, median(idle), median(waits), median(stores)])
        host_loops.print_table(
            titled("The longest locked select while its table is stored", allocator),
            ["rows", "MB", "us, no store", "us, a store meanwhile", "us, the sync command"],
            rows,
        )
        loads = []
        count = host_site.STORE_COUNTS[-1]
        for _ in range(3):
            start = time.monotonic()
            server.jsonrpc("tarn_memdb.reload_table", f"store{count}", timeout=60)
            loads.append((time.monotonic() - start) * 1e3)
        print(f"reload of {count} rows: {median(loads):.0f} ms")


# Case 7: shared memory for each row.

MEMORY_ROWS = 20000
MEMORY_STEP = 1000


def run_memory(bench, allocator):
    each = (
        f"$var(n) = {host_site.FIRST_KEY} + $var(i);\n"
        '$var(k) = "user" + $var(n);\n'
        '$var(c) = "sip:" + $var(k) + "@10.0.0.1:5060";\n'
    )
    bodies = {
        # Columns just as long as their texts, and columns with room to grow.
        "table, columns as long as their texts": 'tarn_memdb_insert("tight,$var(k)|group0|$var(c)'
        '|registered");',
        "table, columns of 31, 15, 63, 15": 'tarn_memdb_insert("roomy,$var(k)|group0|$var(c)'
        '|registered");',
        "htable, one item": '$sht(memory=>$var(k)) = "group0|" + $var(c) + "|registered";',
        "htable, three items": "$sht(memory=>$var(k)::grp) = \"group0\";\n"
        "$sht(memory=>$var(k)::contact) = $var(c);\n"
        '$sht(memory=>$var(k)::state) = "registered";',
    }
    loops = {
        title: host_loops.Loop(f"memory{n}", body, each)
        for n, (title, body) in enumerate(bodies.items())
    }
    payload = len("user1000000") + len("group0") + len("sip:user1000000@10.0.0.1:5060") + len(
        "registered"
    )
    routes = {loop.name: loop.route() for loop in loops.values()}
    rows = []
    for title, loop in loops.items():
        # A fresh server for each, so that none finds the holes that another left.
        with bench.server(routes, allocator) as server, server.phone("bench") as phone:
            runner = host_loops.Runner(server, phone)

            def used(server=server):
                return server.jsonrpc("core.shmmem")["result"]["real_used"]

            used()
            before = used()
            for _ in range(0, MEMORY_ROWS, MEMORY_STEP):
                runner.run(loop, MEMORY_STEP)
            bytes_each = (used() - before) / MEMORY_ROWS
            rows.append([title, bytes_each, bytes_each / payload])
    host_loops.print_table(
        titled(f"Shared memory of a row of {payload} characters", allocator),
        ["", "bytes", "of the bare text"],
        rows,
    )


# Case 8: up to 1,000,000 rows, on servers of their own.


def run_large(bench, allocator):
    if allocator not in bench.large_allocators:
        return
    host_large.run(bench, allocator)
    host_prefixes.run(bench, allocator)
    host_ranges.run(bench, allocator)


RUNS = {
    "loops": run_loops,
    "languages": host_kemi.run,
    "ports": run_ports,
    "rpc": run_rpc,
    "processes": run_processes,
    "store": run_store,
    "memory": run_memory,
    "large": run_large,
}


def main():
    if len(sys.argv) != 2 or sys.argv[1].startswith("-"):
        raise SystemExit(__doc__)
    bench = Bench(sys.argv[1], os.environ)
    cores = len(os.sched_getaffinity(0))
    print(
        f"{time.strftime('%Y-%m-%d %H:%M')}, {cores} processors, load {os.getloadavg()[0]:.1f}, "
        f"{bench.rounds} rounds; medians; the host takes {DEFAULT_ALLOCATOR} without being told"
    )
    for case in CASES:
        if case not in bench.cases:
            continue
        for allocator in bench.allocators:
            RUNS[case](bench, allocator)


if __name__ == "__main__":
    main()
