"""The port functions of a script, and the command that empties everything that holds ports."""

import pytest
from module_host import Call, Table, columns

NAMES = ("id", "call", "caller", "callee", "inner", "place", "outer", "kind", "dyn_kind")
MEDIA = Table("media", columns(*NAMES), ports=("dynamic", 4, 6), log_tag="MEDIA", use_index=True)
FIXED = Table("fixed", columns(*NAMES), ports=("static", 4, 6))
USERS = Table("users", columns("name", "city"))

# Four ports for each map, and none in two of them.
SMALL = {
    "min_int_port": 100,
    "max_int_port": 103,
    "min_ext_port": 200,
    "max_ext_port": 203,
    "min_static_int_port": 300,
    "max_static_int_port": 303,
    "min_static_ext_port": 400,
    "max_static_ext_port": 403,
}
FIRST = {"INT": 100, "EXT": 200, "STATIC_INT": 300, "STATIC_EXT": 400}
EACH_MAP = pytest.mark.parametrize("word", FIRST)

GET = Call('tarn_memdb_get_port("$hdr(X-Q)")')
GET_AVP = Call('tarn_memdb_get_port("$hdr(X-Q)", "$avp(port)")', show=("$avp(port)",))
FROM_RANGE = Call('tarn_memdb_get_port_from_range("$hdr(X-Q)", "$hdr(X-V)")')
SET = Call('tarn_memdb_set_port("$hdr(X-V)", "$hdr(X-Q)")')
FREE = Call('tarn_memdb_free_port("$hdr(X-Q)", "$hdr(X-V)")')
CALLS = {
    "get": GET,
    "get_avp": GET_AVP,
    "from_range": FROM_RANGE,
    "set": SET,
    "free": FREE,
    "clear": Call("tarn_memdb_clear_pmap()"),
    "insert": Call('tarn_memdb_insert("media,|$hdr(X-Q)|a|b|$hdr(X-V)|WAN||0|0")'),
    "delete": Call('tarn_memdb_delete("media,*|$hdr(X-Q)|*|*|*|*|*|*|*")'),
}

# A call that gives a port back ends the script, so that it can't be answered behind it. The mark
# that it sets tells afterwards whether the script went on.
FREE_AND_GO_ON = """
if ($rU == "give_back") {
  sl_send_reply("200", "told ahead");
  $shv(went_on) = 0;
  tarn_memdb_free_port("$hdr(X-Q)", "$hdr(X-V)");
  $shv(went_on) = 1;
  exit;
}
if ($rU == "went_on") {
  append_to_reply("X-Rc: $shv(went_on)\\r\\n");
  sl_send_reply("200", "told");
  exit;
}
"""


@pytest.fixture
def started(host):
    def start(tables=(MEDIA, USERS), calls=None, params=None, **setup):
        setup.setdefault("debug", True)
        return host(
            tables=tables,
            calls={**CALLS, **(calls or {})},
            params={**SMALL, **(params or {})},
            request=FREE_AND_GO_ON,
            **setup,
        )

    return start


def get(server, word="INT"):
    return server.call("get", word).rc


def set_port(server, port, word="INT"):
    return server.call("set", word, headers={"X-V": port}).rc


def from_range(server, base, word="INT"):
    return server.call("from_range", word, headers={"X-V": base}).rc


def give_back(server, port, word="INT"):
    """Frees a port; true if that ended the script, as a success does."""
    with server.phone() as phone:
        phone.request("OPTIONS", server.uri("give_back"), {"X-Q": word, "X-V": port})
    # The one worker takes this request after the end of the one before.
    return server.call("went_on").rc == 0


def insert(server, call, port):
    assert server.call("insert", call, headers={"X-V": port}).rc > 0


def delete(server, call):
    return server.call("delete", call).rc


# Taking the next port


@EACH_MAP
def test_each_map_hands_out_its_ports_in_order_and_then_none(started, word):
    server = started()
    first = FIRST[word]
    assert [get(server, word) for _ in range(5)] == [first, first + 1, first + 2, first + 3, -1]
    assert "tarn_memdb_get_port: no free port available!\n" in server.said("DEBUG")
    assert server.said("ERROR") == []


@pytest.mark.parametrize("word", ["INT", "EXT"])
def test_into_an_avp_exhaustion_is_a_success_with_minus_1_for_the_port(started, word):
    server = started()
    first = FIRST[word]
    taken = [server.call("get_avp", word) for _ in range(6)]
    assert [result.rc for result in taken] == [1] * 6
    assert [result.values[0] for result in taken] == [
        *(str(port) for port in range(first, first + 4)),
        "-1",
        "-1",
    ]
    assert "tarn_memdb_get_port: no free port available\n" in server.said("DEBUG")


def test_the_maps_are_independent(started):
    server = started()
    assert [get(server, word) for word in FIRST] == list(FIRST.values())
    assert [get(server, word) for word in FIRST] == [port + 1 for port in FIRST.values()]
    while get(server, "EXT") > 0:
        pass
    assert get(server, "INT") == 102


def test_both_forms_take_from_one_map(started):
    server = started()
    assert get(server) == 100
    assert server.call("get_avp", "INT").values == ("101",)
    assert get(server) == 102


@pytest.mark.parametrize("word", ["STATIC_INT", "STATIC_EXT"])
def test_into_an_avp_the_long_words_do_not_fit(started, word):
    server = started()
    assert server.call("get_avp", word).rc == -1
    assert server.said("ERROR") == ["Could not print the formatted pv input\n"]
    assert get(server, word) == FIRST[word]


# Giving back


def test_giving_a_port_back_ends_the_script(started):
    server = started()
    assert get(server) == 100
    assert give_back(server, 100)
    assert "Port = 100 is freed and value update to 0x0\n" in server.said("DEBUG")


@pytest.mark.parametrize(
    "port, word", [("99", "INT"), ("104", "INT"), ("100", "EXT"), ("x", "INT")]
)
def test_a_port_outside_the_map_is_refused_and_the_script_goes_on(started, port, word):
    server = started()
    assert not give_back(server, port, word)
    assert server.call("free", word, headers={"X-V": port}).rc == -2


def test_a_port_given_back_is_handed_out_again_after_the_climb(started):
    """Ordinary allocation climbs; what is freed below waits for the first collision or the end."""
    server = started()
    assert [get(server) for _ in range(3)] == [100, 101, 102]
    assert give_back(server, 100)
    assert [get(server) for _ in range(3)] == [103, 100, -1]
    # Out of exhaustion any port freed is the next.
    assert give_back(server, 102)
    assert [get(server) for _ in range(2)] == [102, -1]


def test_a_port_that_was_never_taken_can_be_given_back(started):
    server = started()
    assert give_back(server, 102)
    assert [get(server) for _ in range(5)] == [100, 101, 102, 103, -1]


# Setting


def test_a_port_may_be_set_and_set_again_and_one_release_frees_it(started):
    server = started()
    assert set_port(server, 101) == 1
    assert set_port(server, 101) == 1
    assert [get(server) for _ in range(4)] == [100, 102, 103, -1]
    assert give_back(server, 101)
    assert get(server) == 101


def test_setting_the_next_port_moves_on(started):
    server = started()
    assert set_port(server, 100) == 1
    assert get(server) == 101


@pytest.mark.parametrize("port", ["99", "104", "-1", "0", "x"])
def test_a_port_outside_the_map_cannot_be_set(started, port):
    server = started()
    assert set_port(server, port) == -2
    assert [get(server) for _ in range(5)] == [100, 101, 102, 103, -1]


# Private ranges

RANGES = "INT 101 102\nEXT 201 200 203\nSTATIC_INT 300 301 302 303\n"


def test_ports_of_private_ranges_are_handed_out_by_their_base_port_alone(started):
    server = started(ranges=RANGES)
    assert [get(server) for _ in range(3)] == [100, 103, -1]
    assert from_range(server, 101) == 102
    assert from_range(server, 101) == -1
    assert server.said("ERROR") == [
        "No free port available for this private range with base port 101\n"
    ]


def test_a_range_is_walked_in_the_order_of_its_file(started):
    server = started(ranges=RANGES)
    assert [from_range(server, 201, "EXT") for _ in range(3)] == [200, 203, -1]
    assert [from_range(server, 300, "STATIC_INT") for _ in range(4)] == [301, 302, 303, -1]


def test_a_port_of_a_range_given_back_is_handed_out_again(started):
    server = started(ranges=RANGES)
    assert [from_range(server, 300, "STATIC_INT") for _ in range(4)] == [301, 302, 303, -1]
    assert give_back(server, 302, "STATIC_INT")
    assert [from_range(server, 300, "STATIC_INT") for _ in range(2)] == [302, -1]


@pytest.mark.parametrize("base", ["100", "102", "7", "x"])
def test_a_base_port_of_no_range_reserves_nothing(started, base):
    server = started(ranges=RANGES)
    assert from_range(server, base) == -1
    assert server.said("ERROR") == []
    assert [get(server) for _ in range(3)] == [100, 103, -1]


def test_a_full_range_of_ten_ports_reports_exhaustion(started):
    ports = list(range(100, 110))
    params = {"max_int_port": 109}
    server = started(ranges="INT " + " ".join(map(str, ports)) + "\n", params=params)
    assert [from_range(server, 100) for _ in range(11)] == [*ports[1:], -1, -1]


def test_a_map_without_ranges_answers_0_and_so_ends_the_script(started):
    request = """
    if ($rU == "take") {
      sl_send_reply("200", "told ahead");
      $shv(went_on) = 0;
      tarn_memdb_get_port_from_range("INT", "100");
      $shv(went_on) = 1;
      exit;
    }
    """
    server = started()
    server.stop()
    server.request = request + FREE_AND_GO_ON
    server.start()
    with server.phone() as phone:
        phone.request("OPTIONS", server.uri("take"))
    assert server.call("went_on").rc == 0
    assert "There is no private range of ports within this range\n" in server.said("DEBUG")
    assert [get(server) for _ in range(5)] == [100, 101, 102, 103, -1]


def test_a_listed_first_port_is_handed_out_once_all_the_same(started):
    """The pointer starts there, whatever the file says."""
    server = started(ranges="INT 100 101\n")
    assert [get(server) for _ in range(4)] == [100, 102, 103, -1]


# Words and texts

QUERY_TEXT = "users,alice|rome"
WRONG = "Wrong parameter ({}). Allowed values are 'EXT', 'INT', 'STATIC_EXT' and 'STATIC_INT'\n"
# The calls that show the word received, and those that show what the last query printed.
SHOWN = {"get_avp": "int", "set": "int", "free": "int", "get": QUERY_TEXT, "from_range": QUERY_TEXT}


@pytest.mark.parametrize("call, shown", SHOWN.items(), ids=SHOWN)
def test_a_wrong_word_is_told_or_else_the_last_query(started, call, shown):
    server = started(calls={"query": Call(f'tarn_memdb_insert("{QUERY_TEXT}")')})
    assert server.call("query").rc == 1
    assert server.call(call, "int", headers={"X-V": "100"}).rc == -1
    assert server.said("ERROR") == [WRONG.format(shown)]
    assert [get(server) for _ in range(5)] == [100, 101, 102, 103, -1]


# Function and parameters, what it logs and what it answers.
EMPTY = "$var(none)"
UNPRINTABLE = {
    "get": ('get_port("{}")', "could", -1),
    "get into an AVP": ('get_port("{}", "$avp(port)")', "Could", -1),
    "range: base": ('get_port_from_range("INT", "{}")', "Could", -3),
    "range: word": ('get_port_from_range("{}", "100")', "could", -1),
    "set: port": ('set_port("{}", "INT")', "Could", -3),
    "set: word": ('set_port("100", "{}")', "Could", -3),
    "free: word": ('free_port("{}", "100")', "Could", -3),
    "free: port": ('free_port("INT", "{}")', "Could", -3),
}
LONGEST = {"get into an AVP": 7, "free: port": 6}


@pytest.mark.parametrize("text", ["empty", "too long"])
@pytest.mark.parametrize("which", UNPRINTABLE)
def test_an_empty_or_long_text_cannot_be_printed(started, which, text):
    function, could, code = UNPRINTABLE[which]
    call = Call(f"tarn_memdb_{function.format('$var(text)')}", before="$var(text) = $hdr(X-Q);")
    if text == "empty":
        call = Call(call.do, before='$var(text) = "";')
    server = started(calls={"odd": call})
    length = LONGEST.get(which, 18) + 1
    assert server.call("odd", "1" * length).rc == code
    assert server.said("ERROR") == [f"{could} not print the formatted pv input\n"]


@pytest.mark.parametrize("which", UNPRINTABLE)
def test_the_longest_text_that_fits_is_read(started, which):
    function, _, _ = UNPRINTABLE[which]
    call = Call(f"tarn_memdb_{function.format('$hdr(X-Q)')}")
    server = started(calls={"odd": call}, ranges=RANGES)
    code = server.call("odd", "1" * LONGEST.get(which, 18)).rc
    if which.endswith("port"):
        assert (code, server.said("ERROR")) == (-2, [])
    elif which.endswith("base"):
        assert (code, server.said("ERROR")) == (-1, [])
    else:
        assert code == -1
        (told,) = server.said("ERROR")
        assert told.startswith("Wrong parameter (")


@pytest.mark.parametrize("kind", ["$var({})", "$avp({})", "$hdr({})"])
def test_words_and_ports_from_pseudo_variables(started, kind):
    word, port = kind.format("Word"), kind.format("Port")
    before = "" if "hdr" in kind else f'{word} = "INT";\n{port} = 101;'
    one = {
        "get1": Call(f'tarn_memdb_get_port("{word}")', before=before),
        "get2": Call(f'tarn_memdb_get_port("{word}", "$avp(p)")', before=before, show=("$avp(p)",)),
        "range1": Call(f'tarn_memdb_get_port_from_range("{word}", "{port}")', before=before),
        "set1": Call(f'tarn_memdb_set_port("{port}", "{word}")', before=before),
        "free1": Call(f'tarn_memdb_free_port("{word}", "9{port}")', before=before),
    }
    server = started(calls=one, ranges=RANGES)
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
        "free_theirs": Call('tarn_memdb_free_port("$fU", "20$(si{s.select,3,.})")'),
    }
    server = started(calls=calls)
    with server.phone(user="INT", address="127.0.0.2") as phone:
        assert server.call("theirs", phone=phone).rc == 1
        assert [server.call("mine", phone=phone).rc for _ in range(3)] == [100, 101, 103]
        assert server.call("free_theirs", phone=phone).rc == -2


def test_an_avp_receives_a_text_ahead_of_its_older_values(started):
    call = Call(
        'tarn_memdb_get_port("INT", "$avp(port)")',
        before='$avp(port) = "older";',
        show=("$avp(port)", "$(avp(port)[1])", "$(avp(port){s.len})"),
    )
    assert started(calls={"take": call}).call("take").values == ("100", "older", "3")


def test_a_target_of_plain_text_fails_and_keeps_the_port(started):
    server = started(calls={"take": Call('tarn_memdb_get_port("INT", "port")')})
    assert server.call("take").rc == -1
    assert server.said("ERROR") == ["Could not get avp name\n"]
    assert get(server) == 101


@pytest.mark.parametrize("target", ["$var(port)", "$shv(port)", "$xavp(port)"])
def test_a_target_that_is_no_avp_fails_and_keeps_the_port(started, target):
    server = started(calls={"take": Call(f'tarn_memdb_get_port("INT", "{target}")')})
    assert server.call("take").rc == -1
    assert server.said("ERROR") == ["Could not get avp name\n"]
    assert get(server) == 101


# Rows and scripts on one map


def test_a_row_takes_over_the_port_that_a_script_took(started):
    server = started()
    assert get(server) == 100
    insert(server, "c1", 100)
    # The script's own hold isn't counted: the row's release frees the port.
    assert delete(server, "c1") == 1
    assert "Port = 100 is freed and value update to 0x0\n" in server.said("DEBUG")
    assert set_port(server, 103) == 1
    assert [get(server) for _ in range(4)] == [101, 102, 100, -1]


def test_a_port_of_two_rows_comes_free_with_the_second_release(started):
    server = started()
    insert(server, "c1", 102)
    insert(server, "c2", 102)
    assert give_back(server, 102)
    assert [get(server) for _ in range(4)] == [100, 101, 103, -1]
    assert delete(server, "c2") == 1
    assert get(server) == 102


def test_rows_and_scripts_exhaust_a_map_together(started):
    server = started()
    for number, port in enumerate((100, 101, 103)):
        insert(server, f"c{number}", port)
    assert [get(server) for _ in range(2)] == [102, -1]
    assert delete(server, "c2") == 1
    assert [get(server) for _ in range(2)] == [103, -1]


def test_ports_that_only_a_script_held_are_free_after_a_restart(started):
    server = started()
    assert [get(server) for _ in range(2)] == [100, 101]
    insert(server, "c1", 101)
    assert server.stop() == 0
    server.start()
    assert [get(server) for _ in range(4)] == [100, 102, 103, -1]


# Clearing


def test_a_cleared_map_empties_port_tables_and_their_files_and_no_others(started):
    server = started(
        tables=(MEDIA, FIXED, USERS),
        calls={
            "add_fixed": Call('tarn_memdb_insert("fixed,1|c|a|b|300|WAN||0|0")'),
            "add_user": Call('tarn_memdb_insert("users,alice|rome")'),
            "counts": Call(
                'tarn_memdb_row_count("media", "$avp(m)");\n'
                '  tarn_memdb_row_count("fixed", "$avp(f)");\n'
                '  tarn_memdb_row_count("users", "$avp(u)")',
                show=("$avp(m)", "$avp(f)", "$avp(u)"),
            ),
        },
    )
    insert(server, "c1", 100)
    insert(server, "c2", 103)
    assert server.call("add_fixed").rc == 1
    assert server.call("add_user").rc == 1
    assert get(server, "EXT") == 200
    assert server.file_states() == {}

    assert server.call("clear").rc == 1
    assert server.call("counts").values == ("0", "0", "1")
    assert server.rows("media") == []
    assert server.rows("fixed") == []
    # The pass stores whatever changed.
    assert server.rows("users") == ["alice|rome"]
    for word, first in FIRST.items():
        assert [get(server, word) for _ in range(5)] == [*range(first, first + 4), -1]
    # A width of 6 tells the source, a table without a tag says nothing.
    assert server.said("NOTICE")[2:] == [" " * 6 + " MEDIA - (0) Clearing table media"]
    said = server.said("DEBUG")
    assert said.count("Clear port map\n") == said.count("Clear port map OK!\n") == 1
    assert [text for text in said if text.startswith("Clear table: ")] == [
        "Clear table: media\n",
        "Clear table: fixed\n",
    ]


def test_the_files_of_a_cleared_table_keep_the_generation_before(started):
    server = started()
    insert(server, "c1", 100)
    assert server.stop() == 0
    server.start()
    assert server.call("clear").rc == 1
    assert server.rows("media") == []
    assert server.rows("media", backup=True) == ["1|c1|a|b|100|WAN||0|0"]
    assert server.stop() == 0
    server.start()
    assert [get(server) for _ in range(5)] == [100, 101, 102, 103, -1]


def test_clearing_keeps_the_index_counting(started):
    server = started()
    insert(server, "c1", 100)
    insert(server, "c2", 101)
    assert server.call("clear").rc == 1
    assert server.call("insert", "c3", headers={"X-V": 100}).rc == 3


def test_after_clearing_private_ports_are_ordinary_ones_until_a_restart(started):
    server = started(ranges=RANGES)
    assert server.call("clear").rc == 1
    assert from_range(server, 101) == 102
    assert [get(server) for _ in range(4)] == [100, 101, 103, -1]
    # The ranges themselves are still known.
    assert from_range(server, 101) == -1
    assert server.stop() == 0
    server.start()
    assert [get(server) for _ in range(3)] == [100, 103, -1]


def test_clearing_without_any_row_or_port_works(started):
    server = started()
    assert server.call("clear").rc == 1
    assert server.rows("media") == []
    assert server.rows("users") is None
    assert server.said("ERROR") == []
