"""Files that a load can't read, with their way back into the table."""

from module_host import Call, Table, columns
from rpc_host import info, jsonrpc, rows

USERS = Table("users", columns("name", "age", "city"))
MANY = Table("many", columns("key", "text", "more", indexed=("key",)), max_rows=200000)
COUNT = 100_000  # rows of more than 16 MB


def write_many(server):
    """Both files of a table that needs more memory than a server of 16 MB has."""
    server.write_rows("many", (f"{number}|new|{number}" for number in range(COUNT)))
    server.write_rows("many", (f"{number}|old|{number}" for number in range(COUNT)), backup=True)
    return {backup: server.table_file("many", backup).read_bytes() for backup in (False, True)}


def check_set_aside(server, texts):
    for backup, text in texts.items():
        assert server.refused_file("many", backup).read_bytes() == text
        assert not server.table_file("many", backup).exists()
    assert server.said("WARNING") == [
        server.set_aside("many"),
        server.set_aside("many", backup=True),
    ]
    out_of_memory = [
        text
        for text in server.said("ERROR")
        if text == "Fail to allocate memory to the row\n"
    ]
    assert len(out_of_memory) == 2, "one for each file"
    assert info(server, "many")["Row count"] == "0"


def test_a_start_without_the_memory_for_its_rows_keeps_both_files(host):
    server = host(start=False, tables=[MANY], memory=16)
    texts = write_many(server)
    server.start()
    check_set_aside(server, texts)
    assert server.stop() == 0
    left = {"tables/many.tbl.refused", "backup/many.tbl.backup.refused"}
    assert server.file_states().keys() == left
    server.refused_file("many").rename(server.main_file("many"))
    server.memory = 64
    server.start()
    assert server.said("ERROR", "WARNING") == []
    assert info(server, "many")["Row count"] == str(COUNT)
    assert server.stop() == 0
    assert server.main_file("many").read_bytes() == texts[False]


def test_a_reload_without_the_memory_for_its_rows_keeps_both_files(host):
    server = host(tables=[MANY], memory=16)
    texts = write_many(server)
    assert jsonrpc(server, "reload_table", "many") == {}
    check_set_aside(server, texts)
    # What the stop stores is a table without rows, and it takes the place of neither.
    assert server.stop() == 0
    assert server.rows("many") == []
    for backup, text in texts.items():
        assert server.refused_file("many", backup).read_bytes() == text
    server.refused_file("many").rename(server.main_file("many"))
    server.memory = 64
    server.start()
    assert info(server, "many")["Row count"] == str(COUNT)


def test_a_mended_file_is_moved_back_and_reloaded(host):
    server = host(start=False, tables=[USERS])
    server.write_rows("users", ["alice|30|rome", "bob|31", "carol|32|oslo"])
    server.write_rows("users", ["old|1|x"], backup=True)
    server.start()
    assert rows(server, "users") == ["old|1|x"]
    refused = server.refused_file("users")
    refused.write_text(refused.read_text().replace("bob|31\n", "bob|31|oslo\n"))
    refused.rename(server.main_file("users"))
    jsonrpc(server, "reload_table", "users")
    assert rows(server, "users") == ["carol|32|oslo", "bob|31|oslo", "alice|30|rome"]
    assert server.stop() == 0
    assert server.rows("users") == ["alice|30|rome", "bob|31|oslo", "carol|32|oslo"]


def test_a_refused_file_is_never_read_and_goes_with_the_next_one(host):
    insert = Call('tarn_memdb_insert("users,$hdr(X-Q)")')
    server = host(start=False, tables=[USERS], calls={"insert": insert})
    server.refused_file("users").write_text("Version 1\nfirst|1|x\n")
    server.start()
    assert rows(server, "users") == []
    server.call("insert", "alice|30|rome")
    assert server.stop() == 0
    assert server.refused_file("users").read_text() == "Version 1\nfirst|1|x\n"
    server.main_file("users").write_text("Version 0\nsecond\n")
    server.start()
    assert server.refused_file("users").read_text() == "Version 0\nsecond\n"
