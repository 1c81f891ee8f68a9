"""Which RPC commands wait for a table's lock, and which don't.

The lock is held by the server's own timer process: a store keeps the lock while it opens the
table's file, and opening a FIFO for writing lasts until somebody reads it.
"""

import concurrent.futures
import os

import pytest
from rpc_host import COMMANDS, QUIET, USERS, Fault, jsonrpc, lines

WAITING = {
    "insert": ("users,dan|33|kyiv",),
    "delete": ("users,nobody|*|*",),
    "select": ("users,*|*|*",),
    "show": ("users",),
    "show_p": ("users",),
    "clear_all": (),
    "clear_tbl": ("users",),
    "update": ("users,alice|*|*", "*|31|*"),
    "show_tbl_info": ("users",),
    "reload_table": ("users",),
    "sync": ("users",),
}
GOING_ON = {
    "nl_select": ("users,*|*|*",),
    "show_tbls_lst": (),
    "show_cmds": (),
    "show_pm_info": (),
}
# On another table: what stores at once comes to the held one too.
ELSEWHERE_WAITING = {"delete": ("quiet,x|*",), "clear_tbl": ("quiet",)}
ELSEWHERE_GOING_ON = {
    "insert": ("quiet,1|2",),
    "select": ("quiet,*|*",),
    "show": ("quiet",),
    "show_p": ("quiet",),
    "update": ("quiet,*|*", "*|*"),
    "show_tbl_info": ("quiet",),
    "reload_table": ("quiet",),
    "sync": ("quiet",),
}

# Long enough for a command that doesn't wait.
PATIENCE = 0.5


class Held:
    def __init__(self, server):
        self.server = server
        self.fifo = server.directory / "held.fifo"
        self.main = server.main_file("users")

    def hold(self):
        # The store writes where the file was, and no backup takes the FIFO out of its way.
        self.server.backups.rmdir()
        self.main.unlink()
        os.mkfifo(self.fifo)
        os.link(self.fifo, self.main)
        jsonrpc(self.server, "update", "users,bob|*|*", "*|*|held")
        self.server.wait_log(f"Saving file '{self.main}'$")
        return self

    def release(self):
        """Lets the store go on, and later ones into a file."""
        self.main.unlink(missing_ok=True)
        with open(self.fifo) as fifo:
            return fifo.read()

    def close(self):
        # Whatever happened, the timer process mustn't be left waiting.
        self.main.unlink(missing_ok=True)
        os.close(os.open(self.fifo, os.O_RDONLY | os.O_NONBLOCK))


@pytest.fixture
def held(host):
    server = host(
        start=False,
        tables=[USERS, QUIET],
        params={"store_tbl_interval": 1},
        modparams=[f'modparam("jsonrpcs", "dgram_workers", {len(WAITING) + 1})'],
        debug=True,
    )
    server.write_rows("users", ["alice|30|rome", "bob|31|oslo"])
    made = Held(server.start())
    yield made.hold()
    made.close()


def test_the_examples_are_all_commands():
    assert sorted({**WAITING, **GOING_ON}) == sorted(COMMANDS)


def test_commands_without_a_lock_or_with_the_port_lock_go_on(held):
    for command, arguments in GOING_ON.items():
        assert not isinstance(jsonrpc(held.server, command, *arguments), Fault)
    assert held.release().splitlines() == ["Version 1", "alice|30|rome", "bob|31|held"]


def test_commands_on_another_table_go_on_unless_they_store_every_table(held):
    for command, arguments in ELSEWHERE_GOING_ON.items():
        assert not isinstance(jsonrpc(held.server, command, *arguments), Fault)
    assert_all_wait(held, ELSEWHERE_WAITING)


def test_every_other_command_waits_until_the_lock_is_released(held):
    stored = assert_all_wait(held, WAITING)
    # What was stored is what the table held before any of them came in.
    assert stored.splitlines() == ["Version 1", "alice|30|rome", "bob|31|held"]
    assert lines(held.server, "sync", "users")[0] == "Table: users"


def assert_all_wait(held, commands):
    """Runs all at once; none may be answered before the lock is released, and all after."""
    with concurrent.futures.ThreadPoolExecutor(len(commands)) as pool:
        replies = [
            pool.submit(jsonrpc, held.server, command, *arguments)
            for command, arguments in commands.items()
        ]
        answered, _ = concurrent.futures.wait(replies, PATIENCE)
        stored = held.release()
        assert not answered
        for command, reply in zip(commands, replies, strict=True):
            assert not isinstance(reply.result(), Fault), command
    return stored
