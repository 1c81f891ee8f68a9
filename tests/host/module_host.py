"""A real server with the module in it, put together from tables and calls.

A test names the module calls that it wants as `Call`s. Each becomes a route of the routing
script, which a request to the user of that name runs; the reply carries the call's return code
and the values of the pseudo-variables that the test wants to see.
"""

import contextlib
import dataclasses
import os
import pathlib
import shutil
import sys
import tempfile
import time
import urllib.request
from typing import Optional

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP / "tests/support"), str(TOP / "tools")]

import host_server  # noqa: E402  (found by way of the line above)
import schema_text  # noqa: E402

NULL = "<null>"  # how the server prints a pseudo-variable without a value
MODULE_NAME = "tarn_memdb"
# Whatever else happens, none of these belongs in a log.
CRASH_SIGNS = ("killed by a signal", "core dumped", ") BUG: ", ") ALERT: ", "*** ")
OTHER_MODULES = ("pv.so", "sl.so", "textops.so", "kex.so", "ctl.so", "jsonrpcs.so")


@dataclasses.dataclass(frozen=True)
class Column:
    name: str
    length: int = 31
    indexed: bool = False

    def __str__(self):
        return f"{self.name} {self.length} {int(self.indexed)}"


@dataclasses.dataclass(frozen=True)
class Table:
    """One table of the schema; `ports` is (range word, internal column, external column)."""

    name: str
    columns: tuple
    max_rows: int = 100
    log_tag: Optional[str] = None
    use_index: bool = False
    check_duplicates: bool = False
    ports: Optional[tuple] = None

    @property
    def file_name(self):
        return f"{self.name}.tbl"

    def __str__(self):
        return schema_text.table(
            self.name,
            self.columns,
            self.ports,
            LOG_TAG=self.log_tag or None,
            USE_INDEX=int(self.use_index),
            DUPLICATED_DATA_CHECK=int(self.check_duplicates),
            MAX_ROWS=self.max_rows,
            FILE_NAME=self.file_name,
        )


def columns(*names, indexed=()):
    return tuple(Column(name, indexed=name in indexed) for name in names)


@dataclasses.dataclass(frozen=True)
class Call:
    """A module call of the script, with lines to run ahead of it and values to show after it."""

    do: str
    before: str = ""
    show: tuple = ()

    def route(self, name):
        lines = [f"route[{name}] {{"]
        lines += [f"  {line}" for line in self.before.splitlines()]
        lines += [f"  {self.do};", "  $var(call_rc) = $rc;"]
        lines.append(r'  append_to_reply("X-Rc: $var(call_rc)\r\n");')
        for shown in self.show:
            lines.append(f'  append_to_reply("X-Show: [{shown}]\\r\\n");')
        lines += ['  sl_send_reply("200", "called");', "  exit;", "}"]
        return "\n".join(lines) + "\n"


@dataclasses.dataclass(frozen=True)
class Result:
    rc: int
    values: tuple  # None for a pseudo-variable without a value


# pylint: disable-next=too-many-instance-attributes
class ModuleHost(host_server.Server):
    """A server with the module, its schema, its table files and a script of calls.

    `schema` overrides the text made of `tables`, with {files} and {backups} for the directories.
    `params` are module parameters; a value of None leaves one out that is set otherwise.
    `request` comes at the head of the request route. `script` replaces the whole script.
    `debug` has the module log its debug lines. `http` is what the server does with a request by
    HTTP, at its port for TCP; the modules have to be given then. `more` are routes of one's own.
    `module` is a module's file other than that of TARN_MODULE.
    """

    # pylint: disable-next=too-many-arguments
    def __init__(
        self,
        directory,
        tables=(),
        calls=None,
        schema=None,
        params=None,
        ranges=None,
        request="",
        script=None,
        modules=OTHER_MODULES + (MODULE_NAME,),
        modparams=(),
        children=1,
        debug=False,
        http=None,
        more="",
        module=None,
        **options,
    ):
        super().__init__(directory, self._config, **options)
        self.tables = {table.name: table for table in tables}
        self.calls = dict(calls or {})
        self.schema = schema
        self.params = dict(params or {})
        self.request = request
        self.script = script
        self.modules = [
            module or os.environ["TARN_MODULE"] if name == MODULE_NAME else name for name in modules
        ]
        self.modparams = tuple(modparams)
        self.children = children
        self.debug = debug
        self.http = http
        self.more = more
        self.files = self.directory / "tables"
        self.backups = self.directory / "backup"
        self.files.mkdir(exist_ok=True)
        self.backups.mkdir(exist_ok=True)
        self.schema_path = self.directory / "schema.cfg"
        self.ranges_path = self.directory / "ranges.txt"
        self.expected_signs = ()  # of a crash, in the log of a test that kills a worker
        if ranges is not None:
            self.ranges_path.write_text(ranges)

    # Configuration

    def schema_text(self):
        if self.schema is not None:
            return self.schema.format(files=f"{self.files}/", backups=f"{self.backups}/")
        return schema_text.schema(f"{self.files}/", f"{self.backups}/", self.tables.values())

    def _config(self, _):
        self.schema_path.write_text(self.schema_text())
        params = {
            "cfg_file_path": str(self.schema_path),
            "private_ranges_file_path": str(self.ranges_path),
            # Long enough for no test to see a tick that it doesn't ask for.
            "store_tbl_interval": 3600,
            **self.params,
        }
        lines = [
            "#!KAMAILIO",
            # The core's own switch for one module doesn't work before the workers start.
            f"debug={3 if self.debug else 2}",
            "log_stderror=yes",
            f"children={self.children}",
            "tcp_accept_no_cl=yes" if self.http else "disable_tcp=yes",
            "auto_aliases=no",
            "disable_core_dump=yes",
            f"listen=udp:{self.address}:{self.port}",
        ]
        if self.http:
            lines += [f"listen=tcp:{self.address}:{self.port}", "tcp_children=1"]
        lines += [f'loadmodule "{module}"' for module in self.modules]
        if "ctl.so" in self.modules:
            lines.append(f'modparam("ctl", "binrpc", "unix:{self.ctl_socket}")')
        if "jsonrpcs.so" in self.modules:
            lines.append('modparam("jsonrpcs", "transport", 4)')
            lines.append(f'modparam("jsonrpcs", "dgram_socket", "{self.json_socket}")')
        lines += self.modparams
        for name, value in params.items():
            if value is not None:
                shown = value if isinstance(value, int) else f'"{value}"'
                lines.append(f'modparam("{MODULE_NAME}", "{name}", {shown})')
        return "\n".join(lines) + "\n\n" + (self.script or self._script())

    def _script(self):
        lines = ["request_route {", f'  if ($rU == "{self.READY_USER}") {{']
        lines += ['    sl_send_reply("200", "ready");', "    exit;", "  }"]
        lines += [f"  {line}" for line in self.request.splitlines()]
        for name in self.calls:
            lines.append(f'  if ($rU == "{name}") route({name});')
        lines += ['  sl_send_reply("404", "no such call");', "}", ""]
        routes = [call.route(name) for name, call in self.calls.items()]
        if self.http:
            routes.append(f"event_route[xhttp:request] {{\n{self.http}\n}}\n")
        return "\n".join(lines) + "".join(routes) + self.more

    # Script calls

    def call(self, name, q=None, phone=None, headers=None, timeout=4.0):
        """Runs a call by a SIP request, with `q` as its header X-Q, and gives its Result."""
        sent = dict(headers or {})
        if q is not None:
            sent["X-Q"] = q
        if phone is not None:
            return self._result(phone.request("OPTIONS", self.uri(name), sent, timeout=timeout))
        with self.phone() as own:
            return self._result(own.request("OPTIONS", self.uri(name), sent, timeout=timeout))

    def web_page(self, path):
        """What the server answers to a GET by HTTP, whose status has to be 200."""
        with urllib.request.urlopen(f"http://{self.address}:{self.port}{path}", timeout=5) as page:
            assert page.status == 200
            return page.read().decode()

    @staticmethod
    def _result(reply):
        assert reply.status == 200, reply.first_line
        shown = [value[1:-1] for value in reply.all("x-show")]
        return Result(
            rc=int(reply.get("x-rc")),
            values=tuple(None if value == NULL else value for value in shown),
        )

    # Memory

    def private_memory_used(self, rank=1):
        """Bytes of private memory that the worker of a rank holds."""

        def used():
            (found,) = [
                process["used"]
                for process in self.jsonrpc("pkg.stats")["result"]
                if process["rank"] == rank
            ]
            return found

        # A reply goes out before its worker has tidied up, and the worker tells of each step.
        readings = [used()]
        while len(readings) < 3 or len(set(readings[-3:])) > 1:
            time.sleep(0.005)
            readings.append(used())
        return readings[-1]

    def shared_memory_used(self):
        return self.jsonrpc("core.shmmem")["result"]["used"]

    # What the module says

    def said(self, *levels):
        """The texts that the module logged at some levels (or at all of them), in order."""
        return [
            entry.text for entry in self.entries(MODULE_NAME) if not levels or entry.level in levels
        ]

    # Table files

    def main_file(self, table):
        return self.files / self.tables[table].file_name

    def backup_file(self, table):
        return self.backups / (self.tables[table].file_name + ".backup")

    def table_file(self, table, backup=False):
        return self.backup_file(table) if backup else self.main_file(table)

    def refused_file(self, table, backup=False):
        """Where a load puts a file that it can't read."""
        path = self.table_file(table, backup)
        return path.with_name(path.name + ".refused")

    def set_aside(self, table, backup=False):
        """What the module says when it puts a file there."""
        path, refused = self.table_file(table, backup), self.refused_file(table, backup)
        return f"File '{path}' can't be loaded and was renamed to '{refused}'\n"

    def write_rows(self, table, rows, backup=False):
        path = self.table_file(table, backup)
        path.write_text("".join(line + "\n" for line in ("Version 1", *rows)))

    def rows(self, table, backup=False):
        """The rows in a table's file, oldest first; None without a file."""
        path = self.table_file(table, backup)
        if not path.exists():
            return None
        first, *rows = path.read_text().split("\n")[:-1]
        assert first == "Version 1"
        return rows

    def file_states(self):
        """All table files with everything by which a touched file would differ."""
        states = {}
        for path in sorted([*self.files.iterdir(), *self.backups.iterdir()]):
            status = path.stat()
            states[str(path.relative_to(self.directory))] = (
                path.read_bytes(),
                status.st_ino,
                status.st_mtime_ns,
            )
        return states


@contextlib.contextmanager
def hosts_of(node):
    """Makes and starts servers; each has to end in good order when the node's tests are over."""
    made = []

    def make(start=True, **setup):
        # Not pytest's own directory: a socket's path has to fit 108 bytes.
        directory = tempfile.mkdtemp(prefix="tarn-host-")
        made.append(ModuleHost(directory, **setup))
        return made[-1].start() if start else made[-1]

    node.hosts = made
    try:
        yield make
    except BaseException:
        for server in made:
            server.kill()
        raise
    trouble = []
    for server in made:
        if server.running:
            try:
                status = server.stop()
                if status != 0:
                    trouble.append(f"the server ended with status {status}")
            except host_server.ServerTrouble as slow:
                trouble.append(str(slow))
        server.kill()
        signs = set(CRASH_SIGNS) - set(server.expected_signs)
        trouble += [f"the log holds {sign!r}" for sign in signs if sign in server.log()]
    for server in made:
        shutil.rmtree(server.directory)
    assert not trouble, "; ".join(trouble)
