"""A real server for measurements: the module and its peers, all filled with the same rows."""

import pathlib
import sys

TOP = pathlib.Path(__file__).resolve().parents[1]
TOOLS = TOP / "tools"
sys.path[:0] = [str(TOP / "tests/support"), str(TOOLS)]

import host_server  # noqa: E402  (found by way of the line above)
import schema_text  # noqa: E402
from kemi_engines import found_host  # noqa: E402

ROW_COUNTS = (100, 1000, 10000)
WRITE_ROWS = 1000  # in place while rows are added and removed
STORE_COUNTS = (1000, 10000, 100000)
FIRST_KEY = 1000000

MODULES = ("pv.so", "sl.so", "textops.so", "ctl.so", "jsonrpcs.so", "db_sqlite.so", "sqlops.so")

# The columns of the tables that stand for subscribers: an indexed key and three texts.
FLAT_COLUMNS = ("key 31 1", "grp 15 0", "contact 63 0", "state 15 0")
PORT_COLUMNS = (
    "id 10 1",
    "call 31 1",
    "caller 31 0",
    "callee 31 0",
    "inner_port 5 0",
    "side 7 0",
    "outer_port 5 0",
    "kind 2 0",
    "dynamic_kind 2 0",
)


def key(n):
    return f"user{FIRST_KEY + n}"


def row(n):
    """The n-th subscriber: key and three texts."""
    return key(n), f"group{n % 100}", f"sip:user{FIRST_KEY + n}@10.0.0.1:5060", "registered"


def prefix(n):
    """The n-th prefix; all differ, and few begin one number."""
    digits = f"{n * 61803399 % 10**8:08d}"
    return digits[: 5 + n % 4]


def prefixes(count):
    """`count` different prefixes, the first of which begins the number that is looked for."""
    found = ["49301"]
    seen = set(found)
    n = 0
    while len(found) < count:
        n += 1
        if prefix(n) not in seen:
            seen.add(prefix(n))
            found.append(prefix(n))
    return found


def table_text(name, columns, max_rows, ports=None):
    return schema_text.table(name, columns, ports, MAX_ROWS=max_rows)


def write_file(path, lines):
    path.write_text("".join(f"{line}\n" for line in lines))


def write_rows(where, table, rows):
    """The file of a table of the module."""
    write_file(
        where / "tables" / f"{table}.tbl", ["Version 1", *("|".join(fields) for fields in rows)]
    )


class SmallStock:
    """What a server holds: up to 10,000 rows, and 100,000 for the store."""

    modules = ("db_text.so", "htable.so", "mtree.so")
    shared_mb = 512
    private_mb = 32

    def tables(self):
        """All tables of the module, in the schema's words."""
        tables = []
        for count in ROW_COUNTS:
            tables.append(table_text(f"flat{count}", FLAT_COLUMNS, 2 * count))
            tables.append(
                table_text(f"prefix{count}", ("prefix 15 0", "target 31 0"), 2 * count)
            )
        tables.append(table_text("write", FLAT_COLUMNS, 2 * WRITE_ROWS))
        tables.append(table_text("calls", PORT_COLUMNS, 2 * WRITE_ROWS))
        tables.append(table_text("media", PORT_COLUMNS, 2 * WRITE_ROWS, ("dynamic", 4, 6)))
        for count in STORE_COUNTS:
            tables.append(
                table_text(f"store{count}", FLAT_COLUMNS + ("expires 7 0",), 2 * count)
            )
        tables.append(
            table_text("tight", ("key 11 1", "grp 8 0", "contact 29 0", "state 10 0"), 1000000)
        )
        tables.append(table_text("roomy", FLAT_COLUMNS, 1000000))
        return tables

    def write(self, where):
        """Writes what the module and its peers load at their start."""
        for count in ROW_COUNTS:
            write_rows(where, f"flat{count}", (row(n) for n in range(count)))
            write_rows(
                where, f"prefix{count}", ((text, f"target{text}") for text in prefixes(count))
            )
        write_rows(where, "write", (row(n) for n in range(WRITE_ROWS)))
        for count in STORE_COUNTS:
            write_rows(where, f"store{count}", ((*row(n), "3600") for n in range(count)))
        self._write_text_database(where / "text")

    def _write_text_database(self, text):
        text.mkdir()
        tables = {}
        for count in ROW_COUNTS:
            # The database's own colon stands between the fields, and so needs an escape within.
            tables[f"flat{count}"] = ["k(string) grp(string) contact(string) state(string)"] + [
                ":".join(field.replace(":", "\\:") for field in row(n)) for n in range(count)
            ]
            tables[f"tree{count}"] = ["tprefix(string) tvalue(string)"] + [
                f"{text}:target{text}" for text in prefixes(count)
            ]
        tables["version"] = ["table_name(string) table_version(int)"] + [
            f"{name}:1" for name in tables
        ]
        for name, lines in tables.items():
            write_file(text / name, lines)

    def parameters(self, where):
        """The peers' parameters."""
        lines = [
            f'modparam("mtree", "db_url", "text://{where}/text")',
            f'modparam("sqlops", "sqlcon", "text=>text://{where}/text")',
        ]
        for count in ROW_COUNTS:
            for field, items in (("", 3), ("_grp", 1), ("_contact", 1), ("_state", 1)):
                lines.append(hash_table(f"flat{count}{field}", items * count))
            lines.append(tree(f"tree{count}"))
        for name in ("write", "memory"):
            lines.append(f'modparam("htable", "htable", "{name}=>size=14;")')
        return lines


def hash_table(name, items):
    """A htable with a bucket for each item, as its guide has it."""
    return f'modparam("htable", "htable", "{name}=>size={items.bit_length()};")'


def tree(name):
    return f'modparam("mtree", "mtree", "name={name};dbtable={name};type=0")'


class BenchServer(host_server.Server):
    """A server with all tables, trees and databases of a stock, and with these routes in its
    script.

    `routes` maps the user of a request to the route's lines. `allocator` is the host's -x, or None
    for its default.
    """

    def __init__(self, directory, module, routes, allocator=None, children=1, stock=None):
        self.stock = stock or SmallStock()
        super().__init__(
            directory,
            self._config,
            kamailio=None,
            memory=self.stock.shared_mb,
            private_memory=self.stock.private_mb,
        )
        self.module = pathlib.Path(module).resolve()
        self.routes = dict(routes)
        self.children = children
        self.kamailio = str(self._starter(allocator))
        where = self.directory
        for name in ("tables", "backup"):
            (where / name).mkdir()
        (where / "schema.cfg").write_text(
            schema_text.schema(f"{where}/tables/", f"{where}/backup/", self.stock.tables())
        )
        self.stock.write(where)

    def _starter(self, allocator):
        path = self.directory / "kamailio"
        option = f"-x {allocator} " if allocator else ""
        path.write_text(f'#!/bin/sh\nexec "{TOOLS}/host-kamailio" {option}"$@"\n')
        path.chmod(0o755)
        return path

    def _config(self, _):
        lines = [
            "#!KAMAILIO",
            "debug=2",
            "log_stderror=yes",
            f"children={self.children}",
            "disable_tcp=yes",
            "auto_aliases=no",
            "disable_core_dump=yes",
            "max_while_loops=10000000",
            f"listen=udp:{self.address}:{self.port}",
        ]
        lines += [f'loadmodule "{name}"' for name in (*MODULES, *self.stock.modules, self.module)]
        lines += [
            f'modparam("ctl", "binrpc", "unix:{self.ctl_socket}")',
            'modparam("ctl", "binrpc_max_body_size", 1024)',
            'modparam("jsonrpcs", "transport", 4)',
            f'modparam("jsonrpcs", "dgram_socket", "{self.json_socket}")',
            f'modparam("tarn_memdb", "cfg_file_path", "{self.directory}/schema.cfg")',
            f'modparam("tarn_memdb", "private_ranges_file_path", "{self.directory}/none")',
            # No store that isn't asked for.
            'modparam("tarn_memdb", "store_tbl_interval", 36000)',
            'modparam("tarn_memdb", "min_int_port", 1024)',
            'modparam("tarn_memdb", "max_int_port", 65535)',
            'modparam("tarn_memdb", "min_ext_port", 1024)',
            'modparam("tarn_memdb", "max_ext_port", 65535)',
            'modparam("sqlops", "sqlcon", "lite=>sqlite:///:memory:")',
        ]
        lines += self.stock.parameters(self.directory)
        return "\n".join(lines) + "\n\n" + self._script()

    def _script(self):
        lines = ["request_route {", f'  if ($rU == "{self.READY_USER}") {{']
        lines += ['    sl_send_reply("200", "ready");', "    exit;", "  }"]
        for name in self.routes:
            lines.append(f'  if ($rU == "{name}") route({name});')
        lines += ['  sl_send_reply("404", "no such loop");', "}", ""]
        for name, body in self.routes.items():
            lines += [f"route[{name}] {{", *(f"  {line}" for line in body), "}", ""]
        return "\n".join(lines)

    def complaints(self):
        """What the server logged at ERR or above: a measured call that fails isn't measured."""
        return [
            entry.text
            for entry in self.entries()
            if entry.level in ("ALERT", "BUG", "CRITICAL", "ERROR")
        ]


def loader_words(host):
    """The words ahead of a program of the host that start it."""
    if not host["HOST_LOADER"]:
        return []
    return [host["HOST_LOADER"], "--library-path", host["HOST_LIBRARIES"]]


def client_command():
    """The words that start kamcmd, without the wrapper's own look for the host."""
    host = found_host()
    if not host["HOST_KAMCMD"]:
        raise SystemExit("the host has no kamcmd")
    return [*loader_words(host), host["HOST_KAMCMD"]]


def worker_pids(server):
    """The process ids of the SIP workers."""
    listed = server.jsonrpc("core.psx")["result"]
    return [process["PID"] for process in listed if "receiver" in process["DSC"]]


def cpu_nanoseconds(pid):
    """Time that the process has run on a processor."""
    return int(pathlib.Path(f"/proc/{pid}/schedstat").read_text().split()[0])
