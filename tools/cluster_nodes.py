"""Real servers that keep the same tables, each a node of a cluster, with the links between them."""

import contextlib
import os
import pathlib
import shutil
import tempfile

import host_server
import node_links

TOP = pathlib.Path(__file__).resolve().parent.parent
FAKETIME = pathlib.Path("/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1")
COLUMNS = "key 255 1\nbucket 4 1\nversion 19 0\nlive 1 0\nuntil 10 0\nvalue 1023 0\n"


def table_block(name, max_rows):
    """A table of the schema, as cluster/table.cfg wants it."""
    return (
        f"TABLE_NAME={name}\nFLAG=0\nUSE_INDEX=0\nDUPLICATED_DATA_CHECK=0\nMAX_ROWS={max_rows}\n"
        f"NUM_FIELDS=6\n{COLUMNS}FILE_NAME={name}.tbl\n"
    )


class Node(host_server.Server):
    """One server. `template` is its configuration, in which are filled in: @SELF@, @NODES@ and
    @DEFINES@, of which the latter are lines; @WORK@, @MODULE@, @PORT@, and @CLUSTER@, the folder of
    the include files.
    """

    def __init__(self, directory, number, links, template, module, tables, defines=None, **options):
        super().__init__(directory, self._config, **options)
        self.number = number
        self.links = links
        self.template = template
        self.module = module
        self.defines = dict(defines or {})
        for name in ("tables", "backup"):
            (self.directory / name).mkdir(parents=True)
        blocks = [table_block(name, most) for name, most in tables.items()]
        (self.directory / "schema.cfg").write_text(
            f"BASE_DIR={self.directory}/tables/\nBASE_BACKUP_DIR={self.directory}/backup/\n"
            f"NUM_TABLE={len(blocks)}\n\n" + "\n".join(blocks)
        )

        self.faketime = None  # how far its clock is off, for the library of Debian's faketime

    def launch(self):
        """Starts the server with the clock that it is to have."""
        # Its own loader takes the library by this name alone.
        given = {"LD_PRELOAD": str(FAKETIME), "FAKETIME": self.faketime} if self.faketime else {}
        given = {**given, "FAKETIME_DONT_FAKE_MONOTONIC": "1"} if given else {}
        kept = {name: os.environ.get(name) for name in given}
        os.environ.update(given)
        try:
            super().launch()
        finally:
            for name, value in kept.items():
                if value is None:
                    del os.environ[name]
                else:
                    os.environ[name] = value

    def signal_all(self, number):
        """Gives a signal to all of the server's processes."""
        os.killpg(self.process.pid, number)

    def _config(self, _):
        text = self.template
        nodes = [
            f'#!define CLUSTER_NODE_{node} "{self.links.address(self.number, node)}"'
            for node in self.links.nodes
        ]
        defines = [f"#!define {name} {value}" for name, value in self.defines.items()]
        places = {
            "SELF": self.number,
            "NODES": "\n".join(nodes),
            "DEFINES": "\n".join(defines),
            "WORK": self.directory,
            "MODULE": self.module,
            "PORT": self.port,
            "CLUSTER": TOP / "cluster",
        }
        for name, value in places.items():
            text = text.replace(f"@{name}@", str(value))
        return text

    def rows(self, table):
        """The rows of a table by key, each as (version, live, until, value)."""
        self.jsonrpc("tarn_memdb.sync", table, timeout=20.0)
        path = self.directory / "tables" / f"{table}.tbl"
        if not path.exists():
            return {}
        found = {}
        for line in path.read_text().splitlines()[1:]:
            key, _, version, live, until, value = line.split("|")
            assert key not in found, f"node {self.number} has {key} twice"
            found[key] = (int(version), live == "1", int(until), value)
        return found

    def counter(self, table, name):
        """One of the figures that the include files keep of a table."""
        reply = self.jsonrpc("htable.get", "cluster", f"{table}:{name}")
        return int(reply.get("result", {}).get("item", {}).get("value", 0))


@contextlib.contextmanager
def cluster(count, template, module, tables, prefix="tarn-cluster-", **options):
    """Nodes that haven't started yet, and their links; all ends with the block."""
    work = pathlib.Path(tempfile.mkdtemp(prefix=prefix))
    links = node_links.Links(count)
    nodes = []
    try:
        for number in links.nodes:
            made = Node(work / str(number), number, links, template, module, tables, **options)
            nodes.append(made)
        yield nodes, links
    finally:
        for node in nodes:
            node.kill()
        links.close()
        shutil.rmtree(work, ignore_errors=True)
