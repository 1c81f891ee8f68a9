"""The operator's view: what kamcmd shows and does from outside. Steps as in story.py."""

import shlex

NUMBER = "4930123@europe.example"
PREFIX = "49301"


def command(scene, name, *arguments):
    """Runs an RPC command, shows what it replies, and gives the reply's lines."""
    scene.sent(shlex.join(["kamcmd", f"tarn_memdb.{name}", *arguments]))
    status, reply, errors = scene.server.kamcmd(f"tarn_memdb.{name}", *arguments)
    scene.expect((status, errors) == (0, ""), f"kamcmd ended with {status}: {errors}")
    lines = [line for line in reply.splitlines() if line]
    for line in lines or ["(no reply)"]:
        scene.got(line)
    return lines


def expect_lines(scene, lines, wanted):
    scene.expect(lines == wanted, f"the reply is {lines} instead of {wanted}")


def silently(scene, name, *arguments):
    expect_lines(scene, command(scene, name, *arguments), [])


def files(scene, table):
    """The rows in a table's file and in its backup, None without a file."""
    found = []
    for path in (f"tables/{table}.tbl", f"backup/{table}.tbl.backup"):
        file = scene.server.directory / path
        found.append(file.read_text().splitlines()[1:] if file.exists() else None)
    return tuple(found)


def route(scene, gateway):
    """A call to the number has to come to the gateway."""
    other = scene.phone(gateway)
    other.requests.clear()
    scene.sent(f"INVITE {NUMBER}")
    reply = scene.phone("alice").request("INVITE", f"sip:{NUMBER}", answering=[other])
    scene.expect(reply.status == 200, f"the call got {reply.status} {reply.reason!r}")
    scene.expect(other.requests, f"the call didn't reach gateway {gateway}")
    scene.got(f"200 OK from {gateway}")


def look_at_tables(scene):
    """An operator looks at the tables"""
    tables = command(scene, "show_tbls_lst")
    scene.expect(tables[0] == "DB has 6 tables defined:", "it isn't six tables")
    told = command(scene, "show_tbl_info", "media")
    scene.expect("Row count: 1" in told and "Port range: dynamic" in told, "it isn't this table")
    shown = command(scene, "show", "media")
    scene.expect("Row count: 1" in shown, "it isn't one row")
    read = command(scene, "show_p", "media")
    scene.expect('caller: "alice"' in read, "alice isn't in the row")


def look_at_ports(scene):
    """The port maps, with the ranges that are set aside"""
    shown = command(scene, "show_pm_info")
    for listed in (
        "21200 21201 21202 21203 -1 -1 -1 -1 -1 -1",
        "10100 10101 -1 -1 -1 -1 -1 -1 -1 -1",
    ):
        scene.expect(listed in shown, f"the range {listed} isn't listed")


def change_from_outside(scene):
    """Rows are inserted, updated, selected and deleted from outside, and calls follow"""
    row = f"europe.example|{PREFIX}"
    route(scene, "berlin")
    silently(scene, "insert", f"dialplan,{row}|america")
    route(scene, "america")
    refused = command(scene, "insert", f"dialplan,{row}|america")
    expect_lines(scene, refused, ["error: 500 - Internal Error"])
    silently(scene, "update", f"dialplan,{row}|*", "*|*|germany")
    route(scene, "germany")
    selected = command(scene, "select", f"dialplan,*|{PREFIX}|*")
    expect_lines(scene, selected, ["TABLE:", f"{row}|germany"])
    silently(scene, "delete", f"dialplan,{row}|*")
    route(scene, "berlin")


def sync(scene):
    """An insert waits for the timer to be stored, or for a sync"""
    row = f"europe.example|{PREFIX}|america"
    silently(scene, "insert", f"dialplan,{row}")
    # The timer may come between the insert and this look: then the row is in the file already.
    before, _ = files(scene, "dialplan")
    command(scene, "sync", "dialplan")
    after, _ = files(scene, "dialplan")
    scene.expect(after == [line for line in before if line != row] + [row], "it isn't stored")
    scene.seen(f"in the table's file: {row}")


def reload(scene):
    """A table's file is changed by hand and loaded anew"""
    path = scene.server.directory / "tables" / "dialplan.tbl"
    scene.seen(f"the row of {PREFIX} is led to europe, by an editor")
    path.write_text(path.read_text().replace(f"{PREFIX}|america", f"{PREFIX}|europe"))
    silently(scene, "reload_table", "dialplan")
    route(scene, "europe")


def clear(scene):
    """A table is cleared: its file and its backup are emptied at once"""
    before = files(scene, "dialplan")
    scene.expect(all(before), "the table's files are empty already")
    scene.seen(f"rows in its file: {len(before[0])}, in its backup: {len(before[1])}")
    silently(scene, "clear_tbl", "dialplan")
    after = files(scene, "dialplan")
    scene.expect(after == ([], []), f"its files hold {after}")
    scene.seen("rows in its file: 0, in its backup: 0")
    shown = command(scene, "select", "dialplan,*|*|*")
    expect_lines(scene, shown, ["TABLE:"])


STEPS = (look_at_tables, look_at_ports, change_from_outside, sync, reload, clear)
