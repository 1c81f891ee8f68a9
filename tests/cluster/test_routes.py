"""What the routes of cluster/ store, send and take, on a real server with a peer that is played."""

import concurrent.futures
import shutil
import time

import pytest
from lone_node import TEMPLATE, TOP, Lone, StartFailed, two_nodes

EVERY_BYTE = bytes(range(256))


def row(version, key="k", value="v", live=1, until=0):
    return f"r:{version}:{live}:{until}:{key}:{value}"


@pytest.fixture(scope="session")
def lone():
    """All buckets are compared each second here, marks are remembered for three, messages short."""
    defines = {"CLUSTER_SLICE": 1024, "CLUSTER_MARKS": 3, "CLUSTER_MESSAGE": 1000}
    with two_nodes(defines=defines) as (nodes, links):
        played = Lone(nodes[0], links)
        nodes[0].start()
        played.wait(lambda: played.node.kamcmd("dmq.list_nodes")[1].count("status: active") == 2)
        yield played
        assert nodes[0].stop() == 0


@pytest.fixture(autouse=True)
def empty(lone):
    """Each test starts with a table without rows."""
    lone.node.jsonrpc("tarn_memdb.clear_tbl", "phones")
    lone.sent.clear()


def test_a_value_of_any_bytes_is_found_by_a_key_of_any_bytes(lone):
    key = EVERY_BYTE[:80]
    assert lone.put(key, EVERY_BYTE)
    assert lone.find(key) == EVERY_BYTE
    assert lone.find(key[:-1]) is None


def test_an_empty_value_is_a_value(lone):
    assert lone.put(b"k")
    assert lone.find(b"k") == b""


def test_what_is_too_long_or_has_no_key_is_refused(lone):
    assert lone.put(b"k" * 255, b"v" * 1023)
    assert not lone.put(b"k" * 256)
    assert not lone.put(b"k", b"|" * 342)
    assert not lone.put(b"")
    assert not lone.delete(b"")
    assert lone.find(b"") is None
    assert list(lone.rows()) == ["k" * 255]


def test_what_one_call_was_given_isnt_there_for_the_next(lone):
    assert lone.put(b"k", b"v", 100)
    for what in ("put", "delete", "find"):
        assert lone.ask(f"left-by-{what}", b"x", b"y", 5).get("x-value") == "[][][0]", what


@pytest.mark.parametrize("size", [1100, 30000])
def test_what_is_far_too_long_touches_no_other_row(lone, size):
    lone.put(b"k", b"v")
    for what in ("put", "delete", "find"):
        assert lone.ask_with_body(what, "key", "x" * size) == 404
    assert lone.ask_with_body("put", "value", "x" * size) == 404
    assert lone.find(b"k") == b"v"
    assert list(lone.rows()) == ["k"]
    assert "ERROR: <core>" not in lone.node.log()


def test_a_row_that_was_put_or_deleted_is_sent_to_the_peer(lone):
    lone.put(b"a b", b"1|2")
    lone.delete(b"gone")
    rows = lone.rows()
    version, _, _, _ = rows["a%20b"]
    lone.wait(lambda: lone.sent_rows("a%20b") == [row(version, "a%20b", "1%7c2")])
    version, live, until, _ = rows["gone"]
    lone.wait(lambda: lone.sent_rows("gone") == [row(version, "gone", "", 0, until)])
    assert not live


def test_a_row_ends_after_its_time(lone):
    lone.put(b"k", b"v", 2)
    reply = lone.ask("find", b"k")
    assert reply.status == 200 and reply.get("x-left") in ("1", "2")
    lone.wait(lambda: lone.find(b"k") is None)
    assert list(lone.rows()) == ["k"]  # it has ended, and isn't forgotten yet
    lone.put(b"k", b"w")
    assert lone.find(b"k") == b"w"


def test_a_time_is_cut_to_what_its_column_holds(lone):
    lone.put(b"k", b"v", 99999999999)
    _, _, until, _ = lone.rows()["k"]
    assert abs(until - time.time() - 1e9) < 3


def test_a_time_below_zero_is_refused_and_leaves_the_row(lone):
    lone.put(b"k", b"v")
    assert not lone.put(b"k", b"w", -1)
    assert lone.find(b"k") == b"v"


def test_the_highest_version_wins_in_whatever_order_they_come(lone):
    versions = sorted(lone.version() for _ in range(3))
    for version in (versions[1], versions[0], versions[2], versions[1]):
        assert lone.tell(row(version, "k", str(version))) == 200
    assert lone.rows() == {"k": (versions[2], True, 0, str(versions[2]))}


def test_a_deleted_row_stays_gone_when_an_older_one_comes_up(lone):
    older = lone.version()
    lone.put(b"k", b"v")
    lone.delete(b"k")
    lone.tell(row(older))
    assert lone.find(b"k") is None
    lone.tell(row(lone.version(ahead=1), value="new"))
    assert lone.find(b"k") == b"new"


def test_a_write_wins_over_one_that_came_from_a_clock_ahead(lone):
    ahead = lone.version(ahead=5)
    lone.tell(row(ahead))
    lone.put(b"k", b"mine")
    version, _, _, value = lone.rows()["k"]
    assert (value, version > ahead, version % 16) == ("mine", True, 1)


def test_each_table_has_a_channel_of_its_own(lone):
    lone.tell(row(lone.version(), "caller"), channel="cluster_blocked")
    assert "caller" in lone.rows("blocked") and lone.rows() == {}
    lone.ask("block", b"other")
    blocked = b"KDMQ sip:cluster_blocked@"
    lone.await_sent(lambda data: data.startswith(blocked) and b":other:" in data)


BAD_LINES = (
    "",
    "x",
    "r:",
    "r:1:1:0:k:v",
    "r:{version}:2:0:k:v",
    "r:{version}:1:-1:k:v",
    "r:{version}:1:00:k:v",
    "r:0{version}:1:0:k:v",
    "r:{version}000:1:0:k:v",
    "r:{version}:1:0::v",
    "r:{version}:1:0:k:v:w",
    "r:{version}:1:0:k|k:v",
    "r:{version}:1:0:k:v,",
    "r:{version}:1:0:*:v",
    "r:{version}:1:0:k:v\\",
    "r:{version}:1:0:k:%4",
    "r:{version}:1:0:k:%zz",
    "r:{version}:1:0:k:%7C",
    "r:{version}:1:0:%6b:v",
    "r:{version}:1:0:k:+",
    "r:{version}:1:0:k:v\0",
    "r:{version}:1:0:k:v\0|*",
    "r:{version}:1:0:k\0*|:v",
    "r:{version}:1:0:k: v",
    " r:{version}:1:0:k:v",
    "r:{version}:1:0:" + "k" * 256 + ":v",
    "r:{version}:1:0:k:" + "v" * 1024,
    "d:1024:0",
    "d:01:5",
    "d:1",
    "d:1:-5",
    "d:1:99999999999999999999",
    "t:0",
    "r:9999999999999999999:1:0:k:v",
    "t:9999999999999999999",
    "t:{version}x",
    "t:{version}\0",
    "$var(c_key)",
    "r:{version}:1:0:$var(x):v",
    "\xff\xfe",
    "r:{version}:1:0:k:" + "\0" * 1200,
    "%" * 15000,
)


def test_a_line_of_another_form_is_dropped_and_told_and_the_others_are_taken(lone):
    dropped = lone.node.counter("phones", "dropped")
    version = lone.version()
    lines = [line.format(version=version) for line in BAD_LINES if line]
    lone.tell(*lines, row(version, "good"))
    assert list(lone.rows()) == ["good"]
    assert lone.node.counter("phones", "dropped") == dropped + len(lines)
    assert "ERROR: <core>" not in lone.node.log()
    told = [line for line in lone.node.log().splitlines() if "'phones': dropped from" in line]
    assert 1 <= len(told) <= 1 + (time.monotonic() - lone.started) / 10
    where = lone.links.address(1, 2)
    assert f"cluster table 'phones': dropped from {where}: a line has a wrong form (" in told[0]


def test_a_version_far_ahead_is_dropped(lone):
    dropped = lone.node.counter("phones", "dropped")
    lone.tell(row(lone.version(ahead=70)), row(lone.version(ahead=50), "near"))
    assert list(lone.rows()) == ["near"]
    assert lone.node.counter("phones", "dropped") == dropped + 1


def test_a_row_that_finds_no_place_is_told_and_not_sent(lone):
    lone.tell(*[row(lone.version(), f"k{number}") for number in range(40)])
    dropped = lone.node.counter("phones", "dropped")
    assert not lone.put(b"one-more")
    lone.tell(row(lone.version(), "and-another"))
    assert lone.node.counter("phones", "dropped") == dropped + 1
    assert len(lone.rows()) == 40
    assert lone.sent_rows("one-more") == []


def test_messages_are_taken_from_nodes_alone_and_where_nodes_talk(lone):
    line = row(lone.version()) + "\n"
    with lone.node.phone() as phone:
        for address in (lone.links.address(1, 1), f"{lone.node.address}:{lone.node.port}"):
            host, port = address.split(":")
            phone.server = (host, int(port))
            uri = f"sip:cluster_phones@{address}"
            assert phone.request("KDMQ", uri, body=line).status == 403, address
    lone.tell_phones_side(line.encode())
    assert lone.rows() == {}
    assert lone.tell(line.strip(), channel="cluster_phones") == 200
    assert lone.tell(line.strip(), channel="cluster_nothing") == 404


def test_an_empty_message_changes_nothing(lone):
    assert lone.tell(b"") == 200
    assert lone.rows() == {}
    assert "ERROR: <core>" not in lone.node.log()


def test_a_node_that_isnt_among_the_nodes_doesnt_start_and_says_why():
    with two_nodes(TEMPLATE.replace("@SELF@", "3")) as (nodes, _):
        with pytest.raises(StartFailed):
            nodes[0].start()
        assert "CLUSTER_SELF_is_not_the_number_of_a_CLUSTER_NODE" in nodes[0].log()


def test_a_table_may_be_named_send():
    template = TEMPLATE.replace('"blocked"', '"send"').replace("blocked_PUT", "send_PUT")
    with two_nodes(template, tables={"phones": 40, "send": 40}) as (nodes, links):
        played = Lone(nodes[0], links)
        nodes[0].start()
        played.await_sent(lambda data: data.startswith(b"KDMQ sip:cluster_send@"))


def test_a_table_with_other_columns_keeps_the_node_from_starting():
    with two_nodes() as (nodes, _):
        schema = nodes[0].directory / "schema.cfg"
        schema.write_text(schema.read_text().replace("live 1 0", "alive 1 0"))
        with pytest.raises(StartFailed):
            nodes[0].start()
        assert "Parameter [live] not found in the table [phones]" in nodes[0].log()


def comparisons(lone):
    """The bodies of messages in which the node tells the peer of all its buckets."""
    lone.sent.clear()
    bodies = []

    def whole():
        told = [data for data in list(lone.sent) if data.startswith(b"KDMQ sip:cluster_phones@")]
        bodies[:] = [data.partition(b"\r\n\r\n")[2].decode() for data in told]
        return "".join(bodies).count("\nd:") >= 1024

    lone.wait(whole)
    return [body for body in bodies if body.startswith("t:")]


def digests(lone):
    """What the node tells of its buckets that aren't empty."""
    lines = "".join(comparisons(lone)).splitlines()
    told = dict(line[2:].split(":") for line in lines if line.startswith("d:"))
    assert len(told) == 1024
    return {int(bucket): digest for bucket, digest in told.items() if digest != "0"}


def test_no_message_is_longer_than_is_wanted(lone):
    bodies = comparisons(lone)
    assert max(len(body) for body in bodies) < 1020
    assert {len(body) > 900 for body in bodies[:5]} == {True}
    lone.tell(*[row(lone.version(ahead=-10), f"k{number}", "v" * 200) for number in range(40)])
    lone.sent.clear()
    lone.tell(f"t:{lone.version(ahead=-5)}", *[f"d:{number}:1" for number in range(1024)])
    lone.wait(lambda: len(lone.sent_rows(*[f"k{number}" for number in range(40)])) == 40)
    assert max(len(data) for data in lone.sent) < 1800


def test_what_is_younger_than_two_seconds_isnt_compared(lone):
    told = comparisons(lone)[0].splitlines()[0]
    assert 2 <= time.time() - int(told[2:]) / 16000000 < 4


def test_rows_in_any_order_have_the_same_digest_and_other_versions_another(lone):
    early = [row(lone.version(ahead=-10), f"k{number}") for number in range(20)]
    lone.tell(*early)
    first = digests(lone)
    lone.node.jsonrpc("tarn_memdb.clear_tbl", "phones")
    lone.tell(*reversed(early))
    assert digests(lone) == first and len(first) > 10
    lone.tell(row(lone.version(ahead=-9), "k3"))
    later = digests(lone)
    assert len([bucket for bucket in first if later[bucket] != first[bucket]]) == 1


def test_a_peer_gets_the_rows_of_a_bucket_in_which_it_differs(lone):
    old = row(lone.version(ahead=-10), "old", "%7c")
    lone.tell(old)
    ((bucket, digest),) = digests(lone).items()
    lone.put(b"young427")  # is in the same bucket
    lone.wait(lambda: lone.sent_rows("young427"))
    cut = f"t:{lone.version(ahead=-5)}"
    lone.sent.clear()
    lone.tell(cut, *[f"d:{number}:{digest if number == bucket else 0}" for number in range(1024)])
    lone.tell(f"d:{bucket}:0")  # without a cut it tells nothing
    assert lone.sent_rows("old", "young427") == []
    lone.tell(cut, *[f"d:{number}:0" for number in range(1024)])
    lone.wait(lambda: lone.sent_rows("old", "young427") == [old])
    assert lone.node.counter("phones", "differed:2") == 1


def test_an_answer_has_no_more_rows_than_is_wanted():
    with two_nodes(defines={"CLUSTER_ANSWER": 10}) as (nodes, links):
        played = Lone(nodes[0], links)
        nodes[0].start()
        played.wait(lambda: nodes[0].kamcmd("dmq.list_nodes")[1].count("status: active") == 2)
        keys = [f"k{number}" for number in range(30)]
        played.tell(*[row(played.version(ahead=-9), key) for key in keys])
        played.tell(f"t:{played.version(ahead=-5)}", *[f"d:{number}:1" for number in range(1024)])
        played.put(b"later")
        played.wait(lambda: played.sent_rows("later"))
        assert 10 <= len(played.sent_rows(*keys)) < 15
        assert nodes[0].counter("phones", "answered") == len(played.sent_rows(*keys))


def test_nothing_is_compared_while_writes_wait():
    with two_nodes(defines={"CLUSTER_BATCH": 1}) as (nodes, links):
        played = Lone(nodes[0], links)
        nodes[0].start()
        played.wait(lambda: nodes[0].kamcmd("dmq.list_nodes")[1].count("status: active") == 2)
        keys = [f"k{number}" for number in range(40)]
        for key in keys[:10]:
            played.put(key.encode())
        played.sent.clear()
        for key in keys[10:]:
            played.put(key.encode())
        played.wait(lambda: played.sent_rows("k39"))
        channel = b"KDMQ sip:cluster_phones@"
        told = [data for data in played.sent if data.startswith(channel)]
        bodies = [data.partition(b"\r\n\r\n")[2] for data in told]
        assert {body[:2] for body in bodies[:20]} == {b"r:"}


def ending_otherwise(directory, route, end):
    """A template whose tables have another end of one of their routes."""
    files = shutil.copytree(TOP / "cluster", directory / "cluster")
    table = (files / "table.cfg").read_text()
    ahead, name, rest = table.partition(f'"{route}"] {{')
    (files / "table.cfg").write_text(ahead + name + rest.replace("return $rc;", end, 1))
    return TEMPLATE.replace("@CLUSTER@", str(files))


def reading_slowly(directory, seconds):
    """A template in which a row with the value slow is written so long after it was read."""
    pause = f'if ($var(c_value) == "slow") usleep("{int(seconds * 1000000)}");'
    end = f"$var(c_done) = $rc; {pause} return $var(c_done);"
    return ending_otherwise(directory, "_READ", end)


def test_a_key_that_two_processes_put_at_once_has_one_row(tmp_path):
    with two_nodes(reading_slowly(tmp_path, 0.3)) as (nodes, links):
        played = Lone(nodes[0], links)
        nodes[0].start()
        with concurrent.futures.ThreadPoolExecutor(2) as phones:
            stored = [phones.submit(played.put, b"k", b"slow") for _ in range(2)]
        assert [put.result() for put in stored] == [True, True]
        assert list(played.rows()) == ["k"]


def test_a_put_in_the_instant_in_which_the_mark_is_forgotten_is_stored(tmp_path):
    defines = {"CLUSTER_SLICE": 1024, "CLUSTER_MARKS": 1}
    with two_nodes(reading_slowly(tmp_path, 3.3), defines=defines) as (nodes, links):
        played = Lone(nodes[0], links)
        nodes[0].start()
        played.delete(b"k")
        assert played.put(b"k", b"slow")
        assert list(played.rows()) == ["k"]


def test_nothing_is_sent_of_a_bucket_whose_rows_couldnt_all_be_read(tmp_path):
    # As when memory runs out at the last row's value, which the others' would then stand in for.
    broken = "$avp(c_value) = $null; return -1;"
    template = ending_otherwise(tmp_path, "_ROWS", broken)
    with two_nodes(template) as (nodes, links):
        played = Lone(nodes[0], links)
        nodes[0].start()
        played.wait(lambda: nodes[0].kamcmd("dmq.list_nodes")[1].count("status: active") == 2)
        early = [row(played.version(ahead=-9), key, key) for key in ("old", "young427")]
        played.tell(*early)
        played.tell(f"t:{played.version(ahead=-5)}", *[f"d:{number}:1" for number in range(1024)])
        played.put(b"later")
        played.wait(lambda: played.sent_rows("later"))
        assert played.sent_rows("old", "young427") == []


def test_marks_and_ended_rows_are_forgotten_in_time_and_dont_come_back(lone):
    now = int(time.time())
    lines = [
        row(lone.version(ahead=-9), "gone", "", 0, now - 1),
        row(lone.version(ahead=-9), "ended", "v", 1, now - 1),
        row(lone.version(ahead=-9), "stays", "v", 1, now + 60),
    ]
    lone.tell(*lines)
    assert sorted(lone.rows()) == ["ended", "gone", "stays"]
    lone.wait(lambda: list(lone.rows()) == ["stays"])
    lone.tell(*lines)
    assert list(lone.rows()) == ["stays"]


def test_operators_put_and_delete_by_way_of_the_htable(lone):
    lone.node.kamcmd("htable.sets", "cluster", "phones:put", "bob=sip:bob@10.0.0.7;a=b")
    lone.wait(lambda: lone.find(b"bob") == b"sip:bob@10.0.0.7;a=b")
    lone.node.kamcmd("htable.sets", "cluster", "phones:delete", "bob")
    lone.wait(lambda: lone.find(b"bob") is None)
    lone.wait(lambda: len(lone.sent_rows("bob")) == 2)


def test_operators_delete_a_key_that_is_a_zero(lone):
    lone.put(b"0", b"v")
    lone.node.kamcmd("htable.sets", "cluster", "phones:delete", "0")
    lone.wait(lambda: lone.find(b"0") is None)


def test_figures_tell_rows_marks_and_how_the_peer_compares(lone):
    lone.tell(*[row(lone.version(ahead=-10), f"k{number}") for number in range(5)])
    lone.delete(b"gone")
    figures = {}

    def told():
        for name in ("rows", "marks"):
            figures[name] = lone.node.counter("phones", name)
        return figures == {"rows": 5, "marks": 1}

    lone.wait(told)
    lone.tell(f"t:{lone.version(ahead=-5)}", "d:0:1", "d:1:1")
    assert abs(lone.node.counter("phones", "heard:2") - time.time()) < 3
    assert lone.node.counter("phones", "differed:2") == 2
    taken = lone.node.counter("phones", "taken")
    lone.tell(row(lone.version(ahead=-10), "new"), row(lone.version(ahead=-20), "k1"))
    assert lone.node.counter("phones", "taken") == taken + 1
