"""RPC commands on both roads into a server: kamcmd over the ctl socket, and JSON-RPC.

Both give back what the operator gets: a Fault, or the reply in the form that the road has for it.
"""

import dataclasses
import re
import time

from module_host import Table, columns, host_server

PREFIX = "tarn_memdb."

USERS = Table(
    "users", columns("name", "age", "city", indexed=("name",)), max_rows=4, log_tag="USERS"
)
QUIET = Table("quiet", columns("a", "b"))
NUMBERED = Table("numbered", columns("id", "a"), use_index=True)
MEDIA = Table(
    "media",
    columns("id", "call", "caller", "callee", "inner", "side", "outer", "kind", "dynamic_kind"),
    log_tag="MEDIA",
    use_index=True,
    ports=("dynamic", 4, 6),
)

# All commands, in the order of their table, with what help tells of each.
COMMANDS = {
    "insert": "Insert",
    "delete": "Delete",
    "select": "Select",
    "nl_select": "Select",
    "show": "Show table name",
    "show_p": "tarn_memdb_rpc_show_tbl_p_doc",
    "clear_all": "tarn_memdb_rpc_clear_all",
    "clear_tbl": "tarn_memdb_rpc_clear_tbl_doc",
    "update": "tarn_memdb_rpc_update_doc",
    "show_tbl_info": "tarn_memdb_rpc_show_tbl_info_doc",
    "show_tbls_lst": "tarn_memdb_rpc_show_tbls_lst_doc",
    "show_cmds": "tarn_memdb_rpc_show_cmds_doc",
    "show_pm_info": "tarn_memdb_rpc_show_pm_info_doc",
    "reload_table": "tarn_memdb_rpc_reload_table_doc",
    "sync": "Sync table name",
}


@dataclasses.dataclass(frozen=True)
class Fault:
    code: int
    text: str


def text_of(argument):
    """An argument as kamcmd takes it for a text whatever it looks like."""
    return f"s:{argument}"


def kamcmd(server, command, *arguments):
    """The reply's text, or a Fault."""
    status, output, errors = server.kamcmd(PREFIX + command, *map(text_of, arguments))
    assert (status, errors) == (0, ""), (status, output, errors)
    fault = re.fullmatch(r"error: (\d+) - (.*)\n", output, re.DOTALL)
    return Fault(int(fault[1]), fault[2]) if fault else output


def jsonrpc(server, command, *arguments):
    """The reply's result, or a Fault."""
    reply = server.jsonrpc(PREFIX + command, *arguments)
    if "error" in reply:
        return Fault(reply["error"]["code"], reply["error"]["message"])
    return reply["result"]


ROADS = {"kamcmd": kamcmd, "jsonrpc": jsonrpc}

# What each road makes of a command that replies nothing.
NOTHING = {kamcmd: "", jsonrpc: {}}


def silently(road, server, command, *arguments):
    assert road(server, command, *arguments) == NOTHING[road]


def lines(server, command, *arguments):
    """The lines of a reply, as kamcmd shows them."""
    output = kamcmd(server, command, *arguments)
    assert not isinstance(output, Fault), output
    return output.splitlines()


def rows(server, table):
    """A table's rows, newest first."""
    count = len(server.tables[table].columns)
    query = f"{table},{'|'.join('*' * count)},1000000"
    head, *found = lines(server, "select", query)
    assert head == "TABLE:"
    return found


def info(server, table):
    """What show_tbl_info tells, by its keys."""
    return dict(line.split(": ", 1) for line in lines(server, "show_tbl_info", table))


def processes(server):
    """The server's processes: pids by description."""
    ps = server.jsonrpc("core.psx")["result"]
    return {process["PID"]: process["DSC"] for process in ps}


def process_of(server, words, timeout=5.0):
    """The pid of the one process whose description has these words in it. A process can answer
    before it is told of, and is waited for."""
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        found = [pid for pid, text in processes(server).items() if words in text]
        if found:
            (pid,) = found
            return pid
    raise host_server.ServerTrouble(f"there is no process {words!r}")
