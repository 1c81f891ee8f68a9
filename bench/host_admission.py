#!/usr/bin/env python3
"""Measures who may come in: the module's tables beside permissions, and prints a table.

Usage: bench/host_admission.py MODULE.so

Both find a source address among 1,000 that are listed one by one, and a subnet among 100 that is
met by the last one on average halfway, and both deliver one text into an AVP. TARN_BENCH_ROUNDS and
TARN_BENCH_ALLOCATORS are those of host_bench.py.
"""

import os
import statistics
import sys
import tempfile

sys.dont_write_bytecode = True

import host_loops  # noqa: E402  (no byte code of these)
import host_site  # noqa: E402
from host_loops import EMPTY, Loop  # noqa: E402
from host_site import host_server, schema_text  # noqa: E402

PEERS = 1000
SUBNETS = 100
PEER_COLUMNS = ("address 45 1", "name 31 0")
# Columns 2 to 4 and 12 to 15 have their meaning from the select.
SUBNET_COLUMNS = (
    ("id 10 0", "name 31 0", "location 15 0", "subnet 15 0", "mask 15 0")
    + tuple(f"other{n} 7 0" for n in range(5, 12))
    + ("by_user 1 0", "by_subnet 1 0", "from 1 0", "contact 1 0")
)
ANY = "|".join("*" * len(SUBNET_COLUMNS))


def peer(n):
    return f"10.1.{n // 250}.{n % 250}"


def subnet(n):
    return f"10.2.{n}"


EACH = (
    f"$var(n) = $var(i) * 617 mod {PEERS};\n"
    '$var(a) = "10.1." + ($var(n) / 250) + "." + ($var(n) mod 250);\n'
    f"$var(m) = $var(n) mod {SUBNETS};\n"
    '$var(s) = "10.2." + $var(m) + ".7";'
)


def loops():
    last_peer = {"check": "$avp(name)", "expected": lambda i: f"peer{i * 617 % PEERS}"}
    last_net = {"check": "$avp(name)", "expected": lambda i: f"net{i * 617 % PEERS % SUBNETS}"}
    bodies = [
        Loop(EMPTY, ""),
        Loop("peer", 'tarn_memdb_select("peers,$var(a)|*,1", "|$avp(name)");', **last_peer),
        Loop("peer_permissions", 'allow_address("1", "$var(a)", "0");', **last_peer),
        Loop(
            "subnet",
            f'tarn_memdb_nl_select_subnetmask("subnets,{ANY}", "|$avp(name)", "$var(s)", "", "");',
            **last_net,
        ),
        Loop("subnet_permissions", 'allow_address("2", "$var(s)", "0");', **last_net),
    ]
    return [Loop(**{**vars(loop), "each": EACH}) for loop in bodies]


class AdmissionServer(host_server.Server):
    """A server with the same addresses in the module's tables and in a file of permissions."""

    def __init__(self, directory, module, allocator):
        super().__init__(directory, self._config, memory=64, private_memory=16)
        self.module = os.path.abspath(module)
        self.routes = {loop.name: loop.route() for loop in loops()}
        starter = self.directory / "kamailio"
        starter.write_text(f'#!/bin/sh\nexec "{self.kamailio}" -x {allocator} "$@"\n')
        starter.chmod(0o755)
        self.kamailio = str(starter)
        self._write_files()

    def _write_files(self):
        for name in ("tables", "backup"):
            (self.directory / name).mkdir()
        tables = [
            schema_text.table("peers", PEER_COLUMNS, None, MAX_ROWS=2 * PEERS),
            schema_text.table("subnets", SUBNET_COLUMNS, None, MAX_ROWS=2 * SUBNETS),
        ]
        where = (f"{self.directory}/tables/", f"{self.directory}/backup/")
        (self.directory / "schema.cfg").write_text(schema_text.schema(*where, tables))
        peers = [f"{peer(n)}|peer{n}" for n in range(PEERS)]
        nets = [
            f"{n}|net{n}|north|{subnet(n)}.0|255.255.255.0|x|x|x|x|x|x|x|0|1|0|0"
            for n in range(SUBNETS)
        ]
        for name, rows in (("peers", peers), ("subnets", nets)):
            host_site.write_file(self.directory / f"tables/{name}.tbl", ["Version 1", *rows])
        host_site.write_file(
            self.directory / "address.list",
            [f"1 {peer(n)} 32 0 peer{n}" for n in range(PEERS)]
            + [f"2 {subnet(n)}.0 24 0 net{n}" for n in range(SUBNETS)],
        )

    def _config(self, _):
        lines = ["#!KAMAILIO", "debug=2", "log_stderror=yes", "children=1", "disable_tcp=yes"]
        lines += ["auto_aliases=no", "disable_core_dump=yes", "max_while_loops=10000000"]
        lines.append(f"listen=udp:{self.address}:{self.port}")
        modules = ("pv.so", "sl.so", "textops.so", "permissions.so", self.module)
        lines += [f'loadmodule "{name}"' for name in modules]
        lines += [
            f'modparam("permissions", "address_file", "{self.directory}/address.list")',
            'modparam("permissions", "peer_tag_avp", "$avp(name)")',
            f'modparam("tarn_memdb", "cfg_file_path", "{self.directory}/schema.cfg")',
            'modparam("tarn_memdb", "store_tbl_interval", 36000)',
            "request_route {",
            f'  if ($rU == "{self.READY_USER}") {{ sl_send_reply("200", "ready"); exit; }}',
        ]
        lines += [f'  if ($rU == "{name}") route({name});' for name in self.routes]
        lines += ['  sl_send_reply("404", "no such loop");', "}"]
        for name, body in self.routes.items():
            lines += [f"route[{name}] {{", *(f"  {line}" for line in body), "}"]
        return "\n".join(lines) + "\n"


def measure(module, allocator, rounds):
    with tempfile.TemporaryDirectory(prefix="tarn-bench-") as directory:
        server = AdmissionServer(directory, module, allocator).start(timeout=60)
        try:
            with server.phone() as phone:
                times = host_loops.Runner(server, phone).rounds(loops(), rounds)
            trouble = server.entries(level="ERROR")
            if trouble:
                raise host_loops.WrongResult(f"the server complains: {trouble[0].text}")
        finally:
            server.kill()
    net = host_loops.without(times, EMPTY)
    rows = [
        [name, *(statistics.median(net[one]) for one in (name, f"{name}_permissions"))]
        + [host_loops.ratio(net[name], net[f"{name}_permissions"])]
        for name in ("peer", "subnet")
    ]
    host_loops.print_table(
        f"A peer among {PEERS} addresses, and among {SUBNETS} subnets (allocator {allocator})",
        ["", "module, ns", "permissions, ns", "module / permissions"],
        rows,
    )


def main():
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    for allocator in os.environ.get("TARN_BENCH_ALLOCATORS", "fm qm").split():
        measure(sys.argv[1], allocator, int(os.environ.get("TARN_BENCH_ROUNDS", "41")))


if __name__ == "__main__":
    main()
