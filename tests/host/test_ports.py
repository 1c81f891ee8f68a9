"""The port functions on a real server: return codes, pseudo-variables, AVPs and restarts.

What each function does with a map is told by tests/module/script_ports_test.cc, and by
port_rows_test.cc for rows that hold ports.
"""

import pytest
from module_host import Call, Table, columns

NAMES = ("id", "call", "caller", "callee", "inner", "place", "outer", "kind", "dyn_kind")
MEDIA = Table("media", columns(*NAMES), ports=("dynamic", 4, 6), log_tag="MEDIA", use_index=True)
USERS = Table("users", columns("name", "city"))
RANGES = "INT 101 102\n"

# Four ports for each map, and none in two of them.
FIRST = {"INT": 100, "EXT": 200, "STATIC_INT": 300, "STATIC_EXT": 400}
SMALL = {
    f"{bound}_{word.lower()}_port": first + above
    for word, first in FIRST.items()
    for bound, above in (("min", 0), ("max", 3))
}

CALLS = {
    "get": Call('tarn_memdb_get_port("$hdr(X-Q)")'),
    "get_avp": Call('tarn_memdb_get_port("$hdr(X-Q)", "$avp(port)")', show=("$avp(port)",)),
    "from_range": Call('tarn_memdb_get_port_from_range("$hdr(X-Q)", "$hdr(X-V)")'),
    "set": Call('tarn_memdb_set_port("$hdr(X-V)", "$hdr(X-Q)")'),
    "free": Call('tarn_memdb_free_port("$hdr(X-Q)", "$hdr(X-V)")'),
    "clear": Call("tarn_memdb_clear_pmap()"),
    "insert": Call('tarn_memdb_insert("media,|$hdr(X-Q)|a|b|$hdr(X-V)|WAN||0|0")'),
    "delete": Call('tarn_memdb_delete("media,*|$hdr(X-Q)|*|*|*|*|*|*|*")'),
    "add_user": Call('tarn_memdb_insert("users,alice|rome")'),
}

# A call that gives 0 ends the script, so that it can't be answered behind it. The mark that it sets
# tells afterwards whether the script went on.
ENDING = {
    "give_back": 'tarn_memdb_free_port("$hdr(X-Q)", "$hdr(X-V)")',
    "from_map": 'tarn_memdb_get_port_from_range("$hdr(X-Q)", "$hdr(X-V)")',
}
REQUEST = "".join(
    f"""
if ($rU == "{name}") {{
  sl_send_reply("200", "told ahead");
  $shv(went_on) = 0;
  {call};
  $shv(went_on) = 1;
  exit;
}}
"""
    for name, call in ENDING.items()
)
REQUEST += """
if ($rU == "went_on") {
  append_to_reply("X-Rc: $shv(went_on)\\r\\n");
  sl_send_reply("200", "told");
  exit;
}
"""


@pytest.fixture
def started(host):
    def start(calls=None, **setup):
        return host(
            tables=(MEDIA, USERS),
            calls={**CALLS, **(calls or {})},
            params=SMALL,
            request=REQUEST,
            debug=True,
            **setup,
        )

    return start


def get(server, word="INT"):
    return server.call("get", word).rc


def get_all(server, word="INT"):
    ports = []
    while not ports or ports[-1] > 0:
        ports.append(get(server, word))
    return ports


def with_port(server, name, word, port):
    return server.call(name, word, headers={"X-V": port}).rc


def ends_script(server, name, port, word="INT"):
    with server.phone() as phone:
        phone.request("OPTIONS", server.uri(name), {"X-Q": word, "X-V": port})
    # The one worker takes this request after the end of the one before.
    return server.call("went_on").rc == 0


def insert(server, call, port):
    assert with_port(server, "insert", call, port) > 0


def test_ports_come_as_return_codes_and_in_avps_until_there_are_none(started):
    server = started()
    for word, first in FIRST.items():
        assert get_all(server, word) == [*range(first, first + 4), -1]
        assert with_port(server, "set", word, first + 4) == -2
        assert with_port(server, "set", word, first) == 1
    none = server.call("get_avp", "INT")
    assert (none.rc, none.values) == (1, ("-1",))
    assert ends_script(server, "give_back", 102)
    assert server.call("get_avp", "INT").values == ("102",)
    assert server.said("ERROR") == []


def test_a_result_of_0_ends_the_script_and_any_other_lets_it_go_on(started):
    server = started(ranges=RANGES)
    assert ends_script(server, "give_back", 100)
    assert ends_script(server, "from_map", 200, "EXT")
    for port in ("99", "104", "x"):
        assert not ends_script(server, "give_back", port)
        assert with_port(server, "free", "INT", port) == -2
    assert not ends_script(server, "from_map", 101)
    assert with_port(server, "from_range", "INT", 101) == -1


@pytest.mark.parametrize("kind", ["$var({})", "$avp({})", "$hdr({})"])
def test_words_and_ports_from_pseudo_variables(started, kind):
    word, port = kind.format("Word"), kind.format("Port")
    before = "" if "hdr" in kind else f'{word} = "INT";\n{port} = 101;'
    calls = {
        "get1": Call(f'tarn_memdb_get_port("{word}")', before=before),
        "get2": Call(f'tarn_memdb_get_port("{word}", "$avp(p)")', before=before, show=("$avp(p)",)),
        "range1": Call(f'tarn_memdb_get_port_from_range("{word}", "{port}")', before=before),
        "set1": Call(f'tarn_memdb_set_port("{port}", "{word}")', before=before),
        "free1": Call(f'tarn_memdb_free_port("{word}", "9{port}")', before=before),
    }
    server = started(calls=calls, ranges=RANGES)
    headers = {"Word": "INT", "Port": 101}
    assert server.call("get1", headers=headers).rc == 100
    assert server.call("get2", headers=headers).values == ("103",)
    assert server.call("range1", headers=headers).rc == 102
    assert server.call("set1", headers=headers).rc == 1
    assert server.call("free1", headers=headers).rc == -2
    assert "Received port to be freed = 9101\n" in server.said("DEBUG")


def test_a_word_from_the_user_and_a_port_from_the_address(started):
    calls = {
        "mine": Call('tarn_memdb_get_port("$fU")'),
        "theirs": Call('tarn_memdb_set_port("10$(si{s.select,3,.})", "$fU")'),
    }
    server = started(calls=calls)
    with server.phone(user="INT", address="127.0.0.2") as phone:
        assert server.call("theirs", phone=phone).rc == 1
        assert [server.call("mine", phone=phone).rc for _ in range(3)] == [100, 101, 103]


@pytest.mark.parametrize(
    "before, q",
    [('$var(text) = "";', None), ("$var(text) = $hdr(X-Q);", "1" * 19)],
    ids=["empty", "too long"],
)
def test_an_empty_or_long_text_cannot_be_printed(started, before, q):
    calls = {
        "odd_word": Call('tarn_memdb_get_port("$var(text)")', before=before),
        "odd_port": Call('tarn_memdb_free_port("INT", "$var(text)")', before=before),
    }
    server = started(calls=calls)
    assert (server.call("odd_word", q).rc, server.call("odd_port", q).rc) == (-1, -3)
    assert server.said("ERROR") == [
        "could not print the formatted pv input\n",
        "Could not print the formatted pv input\n",
    ]


def test_an_avp_receives_a_text_ahead_of_its_older_values(started):
    call = Call(
        'tarn_memdb_get_port("INT", "$avp(port)")',
        before='$avp(port) = "older";',
        show=("$avp(port)", "$(avp(port)[1])", "$(avp(port){s.len})"),
    )
    assert started(calls={"take": call}).call("take").values == ("100", "older", "3")


def test_a_target_that_is_no_avp_fails_and_keeps_the_port(started):
    targets = ("port", "$var(port)", "$shv(port)", "$xavp(port)")
    server = started(
        calls={
            f"take{number}": Call(f'tarn_memdb_get_port("INT", "{target}")')
            for number, target in enumerate(targets)
        }
    )
    assert [server.call(f"take{number}").rc for number in range(4)] == [-1] * 4
    assert server.said("ERROR") == ["Could not get avp name\n"] * 4
    assert get(server) == -1


def test_a_restart_counts_the_ports_of_rows_again_and_frees_those_of_scripts(started):
    server = started()
    assert [get(server) for _ in range(2)] == [100, 101]
    insert(server, "c1", 101)
    insert(server, "c2", 101)
    assert server.stop() == 0
    server.start()
    assert "Port 101 After Value = 0xffffff82\n" in server.said("DEBUG")
    assert get_all(server) == [100, 102, 103, -1]
    assert server.call("delete", "c1").rc == 1
    assert get(server) == -1
    assert server.call("delete", "c2").rc == 1
    assert get(server) == 101


def test_a_cleared_map_empties_the_tables_with_ports_and_stores_at_once(started):
    server = started(ranges=RANGES)
    insert(server, "c1", 100)
    assert server.call("add_user").rc == 1
    assert server.stop() == 0
    server.start()
    assert server.call("clear").rc == 1
    assert server.rows("media") == []
    assert server.rows("media", backup=True) == ["1|c1|a|b|100|WAN||0|0"]
    assert server.rows("users") == ["alice|rome"]
    # A width of 6 tells the source.
    assert server.said("NOTICE")[-1] == " " * 6 + " MEDIA - (0) Clearing table media"
    # Ports of private ranges are ordinary ones until the next start.
    assert get_all(server) == [100, 101, 102, 103, -1]
    assert server.stop() == 0
    server.start()
    assert get_all(server) == [100, 103, -1]
