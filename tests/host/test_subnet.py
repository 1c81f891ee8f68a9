"""Whether a request comes from a known remote subscriber: by subnet, or by user and domain."""

import pytest
from module_host import Call, Column, Table, columns

# Places of the columns that have a meaning; the others are free.
NAMES = ["id", "grp", "domain", "net", "mask", *(f"c{i}" for i in range(5, 12))]
NAMES += ["dn", "subnet", "from", "ct"]
SUBSCRIBERS = Table("remote", columns(*NAMES, indexed=("grp",)), max_rows=100)
DOMAINS = Table("remote_sub_dn_list", columns("dn", "domain", indexed=("dn",)))
DOMAIN_ROWS = ["alice|west", "bob|east", "carol|west", "dora|"]
WILD = "|".join("*" * len(NAMES))

CONTACT_USER = "$(ct{nameaddr.uri}{uri.user})"


def row(name, domain="west", net="", mask="", dn=0, subnet=0, from_flag=0, ct=0, grp="g"):
    free = "|".join([""] * 7)
    return f"{name}|{grp}|{domain}|{net}|{mask}|{free}|{dn}|{subnet}|{from_flag}|{ct}"


def net(name, address, mask, **others):
    return row(name, net=address, mask=mask, subnet=1, **others)


def by_from(name, domain, **others):
    return row(name, domain, dn=1, from_flag=1, **others)


def by_contact(name, domain, **others):
    return row(name, domain, dn=1, ct=1, **others)


def by_both(name, domain, **others):
    return row(name, domain, dn=1, from_flag=1, ct=1, **others)


def known(source="$si", from_user="$fU", contact=CONTACT_USER, query=f"remote,{WILD}", before=""):
    call = f'"{query}", "$avp(id)|$avp(grp)", "{source}", "{from_user}", "{contact}"'
    return {
        "known": Call(
            f"tarn_memdb_nl_select_subnetmask({call})",
            before=before,
            show=("$avp(id)", "$(avp(id)[1])"),
        )
    }


@pytest.fixture
def stored(host):
    def start(rows, calls=None, domains=tuple(DOMAIN_ROWS), tables=(SUBSCRIBERS, DOMAINS), **setup):
        server = host(start=False, tables=tables, calls=calls or known(), **setup)
        server.write_rows("remote", rows)
        for table in tables[1:]:
            server.write_rows(table.name, domains)
        return server.start()

    return start


def asked_from(server, address="127.0.0.1", user="nobody", headers=None):
    """The code of the call for a request from a real address, and the row found."""
    with server.phone(user=user, address=address) as phone:
        result = server.call("known", phone=phone, headers=headers)
    assert result.values[1] is None, "no more than one row is delivered"
    return result.rc, result.values[0]


MISS = (-2, None)


# By subnet


def test_a_request_from_inside_the_subnet_is_known(stored):
    server = stored([net("lan", "127.1.0.0", "255.255.0.0")])
    assert asked_from(server, "127.1.2.3") == (1, "lan")
    assert asked_from(server, "127.1.255.254") == (1, "lan")
    assert asked_from(server, "127.2.2.3") == MISS
    assert asked_from(server, "127.0.0.1") == MISS
    assert server.said("ERROR", "WARNING") == []


@pytest.mark.parametrize(
    "address, mask, inside, outside",
    [
        ("127.0.0.2", "255.255.255.255", "127.0.0.2", "127.0.0.1"),
        ("127.0.0.8", "255.255.255.248", "127.0.0.15", "127.0.0.16"),
        ("127.128.0.0", "255.128.0.0", "127.200.1.1", "127.127.1.1"),
        # What the mask leaves out of the row's own address has no effect.
        ("127.0.3.99", "255.255.255.0", "127.0.3.1", "127.0.4.1"),
        # A mask with a hole in it is taken bit by bit.
        ("127.0.0.7", "255.0.0.255", "127.9.9.7", "127.9.9.8"),
    ],
)
def test_a_mask_says_which_bits_have_to_agree(stored, address, mask, inside, outside):
    server = stored([net("lan", address, mask)])
    assert asked_from(server, inside) == (1, "lan")
    assert asked_from(server, outside) == MISS


def test_an_empty_mask_of_bits_knows_every_address(stored):
    server = stored([net("any", "10.9.8.7", "0.0.0.0")])
    assert asked_from(server, "127.0.0.1") == (1, "any")
    assert asked_from(server, "127.200.1.1") == (1, "any")


def test_the_first_row_that_matches_is_the_answer_newest_first(stored):
    older, newer = net("older", "127.0.0.0", "255.0.0.0"), net("newer", "127.5.0.0", "255.255.0.0")
    server = stored([older, newer])
    assert asked_from(server, "127.5.0.1") == (1, "newer")
    assert asked_from(server, "127.6.0.1") == (1, "older")
    assert asked_from(stored([newer, older]), "127.5.0.1") == (1, "older")


def test_the_subnet_flag_overrides_the_user_flags(stored):
    server = stored([net("lan", "127.1.0.0", "255.255.0.0", dn=1, from_flag=1)])
    assert asked_from(server, "127.1.0.1", user="nobody") == (1, "lan")
    assert asked_from(server, "127.2.0.1", user="alice") == MISS


@pytest.mark.parametrize("flag", [0, 2, -1, "", "x"])
def test_only_a_subnet_flag_of_1_asks_for_the_subnet(stored, flag):
    """Anything else leads to the users; here to alice's domain."""
    rows = [by_from("users", "west", net="127.1.0.0", mask="255.255.0.0", subnet=flag)]
    server = stored(rows)
    assert asked_from(server, "127.1.0.1", user="nobody") == MISS
    assert asked_from(server, "127.2.0.1", user="alice") == (1, "users")


def test_rows_of_ipv6_addresses(stored):
    rows = [net("six", "2001:db8::", "ffff:ffff::")]
    inside, outside = known(source="2001:db8::7"), known(source="2001:db9::7")
    assert asked_from(stored(rows, inside)) == (1, "six")
    assert asked_from(stored(rows, outside)) == MISS


def test_addresses_of_different_families_are_told_and_compared_all_the_same(stored):
    # The first four bytes decide: 7f00:: begins like 127.0.0.0.
    server = stored([net("six", "7f00::", "ffff::")])
    assert asked_from(server, "127.1.0.1") == MISS
    assert asked_from(server, "127.0.1.1") == (1, "six")
    assert (
        server.said("INFO")[1:]
        == [
            "Addresses from different families\n",
            "mask from different families\n",
        ]
        * 2
    )


def test_a_row_without_an_address_is_passed_over(stored):
    server = stored([net("lan", "127.0.0.0", "255.0.0.0"), net("none", "", "255.0.0.0")])
    assert asked_from(server) == (1, "lan")


@pytest.mark.parametrize(
    "address, mask, found, told",
    [
        ("localhost", "255.0.0.0", "lan", "Addresses from different families\n"),
        # Without a readable mask nothing has to agree.
        ("127.0.0.1", "/8", "odd", "mask from different families\n"),
    ],
)
def test_an_unreadable_address_in_a_row_counts_as_zeros(stored, address, mask, found, told):
    server = stored([net("lan", "127.0.0.0", "255.0.0.0"), net("odd", address, mask)])
    assert asked_from(server) == (1, found)
    assert server.said("INFO")[1:] == [told]


def test_an_unreadable_source_matches_no_row(stored):
    server = stored([net("any", "0.0.0.0", "0.0.0.0")], known(source="$fU"))
    assert asked_from(server, user="localhost") == MISS
    assert "Invalid address family!\n" in server.said("INFO")
    assert asked_from(server, user="127.0.0.1") == (1, "any")


# By user and location domain


def test_the_from_user_is_known_in_its_own_domain_only(stored):
    server = stored([by_from("west", "west"), by_from("east", "east")])
    assert asked_from(server, user="alice") == (1, "west")
    assert asked_from(server, user="carol") == (1, "west")
    assert asked_from(server, user="bob") == (1, "east")
    assert asked_from(server, user="nobody") == MISS
    assert server.said("ERROR", "WARNING") == []


def test_the_contact_user_of_the_request_is_looked_up(stored):
    server = stored([by_contact("west", "west")])
    assert asked_from(server, user="alice") == (1, "west")
    assert asked_from(server, user="bob") == MISS


def test_from_and_contact_are_told_apart(stored):
    calls = known(contact="$hdr(X-Contact)")

    def ask(server, from_user, contact_user):
        return asked_from(server, user=from_user, headers={"X-Contact": contact_user})

    server = stored([by_from("found", "west")], calls)
    assert ask(server, "alice", "bob") == (1, "found")
    assert ask(server, "bob", "alice") == MISS
    server = stored([by_contact("found", "west")], calls)
    assert ask(server, "alice", "bob") == MISS
    assert ask(server, "bob", "alice") == (1, "found")
    server = stored([by_both("found", "west")], calls)
    assert ask(server, "alice", "carol") == (1, "found")
    assert ask(server, "alice", "bob") == MISS
    assert ask(server, "bob", "alice") == MISS
    assert ask(server, "nobody", "alice") == MISS


def test_a_user_without_a_domain_is_unknown_without_a_word(stored):
    server = stored([by_from("none", ""), by_from("west", "west")])
    assert asked_from(server, user="dora") == MISS
    assert server.said("ERROR", "WARNING") == []
    assert server.said("INFO")[1:] == ["Invalid location domain!\n"]


def test_a_request_without_users_matches_no_row_of_users(stored):
    without_users = known("$si", "$var(none)", "$var(none)", before='$var(none) = "";')
    server = stored([by_from("from", "west"), by_contact("contact", "west")], without_users)
    assert asked_from(server) == MISS
    server = stored([net("lan", "127.0.0.0", "255.0.0.0")], without_users)
    assert asked_from(server) == (1, "lan")
    assert server.said("ERROR") == []


@pytest.mark.parametrize("dn", [0, 2, ""])
def test_a_row_set_to_neither_way_is_told_and_passed_over(stored, dn):
    rows = [net("lan", "127.0.0.0", "255.0.0.0"), row("neither", dn=dn, from_flag=1, ct=1)]
    server = stored(rows)
    assert asked_from(server, user="alice") == (1, "lan")
    assert server.said("ERROR") == ["Subnet flag and DN flag are not set\n"]


@pytest.mark.parametrize("from_flag, ct", [(0, 0), (2, 0), (0, 2), (1, 2), (2, 1), (2, 2)])
def test_a_row_of_users_without_a_user_flag_is_told_and_passed_over(stored, from_flag, ct):
    odd = row("odd", dn=1, from_flag=from_flag, ct=ct)
    server = stored([net("lan", "127.0.0.0", "255.0.0.0"), odd])
    assert asked_from(server, user="alice") == (1, "lan")
    assert server.said("ERROR") == ["DN flag is set but From Flag neither Contact Flag is set\n"]


def test_without_a_domain_table_only_subnets_can_match(stored):
    rows = [net("lan", "127.0.0.0", "255.0.0.0"), by_from("west", "west")]
    server = stored(rows, tables=(SUBSCRIBERS,))
    assert asked_from(server, user="alice") == (1, "lan")
    assert server.said("ERROR") == [
        "Table 'remote_sub_dn_list' was not found\n",
        "Table not found\n",
        "Could not parse query (remote_sub_dn_list,alice|*) for select\n",
    ]


def test_separators_in_a_user_change_the_look_up(stored):
    server = stored([by_from("west", "west")], known(from_user="$hdr(X-From)"))

    def ask(user):
        return asked_from(server, headers={"X-From": user})

    assert ask("alice") == (1, "west")
    # A wildcard finds the newest row of the domains, which has none; a bar makes a field too many.
    assert ask("*") == MISS
    assert server.said("ERROR") == []
    assert ask("alice|west") == MISS
    assert server.said("ERROR")[-1] == (
        "Could not parse query (remote_sub_dn_list,alice|west|*) for select\n"
    )


@pytest.mark.parametrize("length, looked_up", [(234, True), (235, False)])
def test_a_user_too_long_for_the_look_up_is_unknown(stored, length, looked_up):
    long_user = "a" * length
    server = stored(
        [by_from("west", "west")],
        known(from_user="$hdr(X-From)"),
        domains=[f"{long_user}|west"],
        tables=(SUBSCRIBERS, Table(DOMAINS.name, (Column("dn", 255), Column("domain")))),
    )
    assert asked_from(server, headers={"X-From": long_user}) == ((1, "west") if looked_up else MISS)
    assert len(server.said("ERROR")) == (0 if looked_up else 1)


# The query, and failures


def test_the_query_filters_and_limits_as_in_any_select(stored):
    rows = [
        net("old", "127.0.0.0", "255.0.0.0", grp="a"),
        net("miss", "10.0.0.0", "255.0.0.0", grp="a"),
        net("new", "127.0.0.0", "255.0.0.0", grp="b"),
    ]
    free = "|".join("*" * (len(NAMES) - 2))
    server = stored(rows, known(query=f"remote,*|$hdr(X-Group)|{free},$hdr(X-Limit)"))

    def ask(group, limit):
        return asked_from(server, headers={"X-Group": group, "X-Limit": limit})

    assert ask("a", 2) == (1, "old")
    # The limit counts visited rows.
    assert ask("a", 1) == MISS
    assert ask("b", 1) == (1, "new")
    assert ask("*", 1) == (1, "new")
    assert ask("c", 9) == MISS


def test_an_empty_source_fails_ahead_of_every_row(stored):
    server = stored([row("neither")], known(source="$var(none)", before='$var(none) = "";'))
    assert asked_from(server) == (-1, None)
    assert server.said("ERROR") == ["Could not print the formatted pv input for src_ip_str\n"]


TOO_LONG = {
    "source": ("source", "for src_ip_str"),
    "from": ("from_user", "for from_user_str"),
    "contact": ("contact", "ct"),
}


@pytest.mark.parametrize("parameter, told", TOO_LONG.values(), ids=TOO_LONG)
def test_a_parameter_that_does_not_fit_fails(stored, parameter, told):
    server = stored([net("lan", "127.0.0.0", "255.0.0.0")], known(**{parameter: "$hdr(X-Long)"}))
    assert asked_from(server, headers={"X-Long": "a" * 256}) == (-1, None)
    assert server.said("ERROR") == [f"Could not print the formatted pv input {told}\n"]


def test_failures_have_no_last_line(stored):
    server = stored([net("lan", "127.0.0.0", "255.0.0.0")], known(query="remote,$hdr(X-Q)"))
    assert asked_from(server, headers={"X-Q": "a|b"}) == (-1, None)
    assert server.said("ERROR")[-1] == "Could not parse query (remote,a|b) for insert\n"
    server.log_start = server.log_path.stat().st_size
    assert asked_from(server, headers={"X-Q": "a" * 4096}) == (-1, None)
    assert server.said("ERROR") == ["could not print the formatted pv input\n"]


def test_a_table_too_narrow_for_subscribers_is_refused(stored):
    narrow = Table("remote", columns(*NAMES[:15]))
    server = stored(
        ["|".join("x" * 15)], known(query="remote," + "|".join("*" * 15)), tables=(narrow,)
    )
    assert asked_from(server) == (-1, None)
    assert server.said("ERROR") == ["Table 'remote' has no subscriber columns\n"]


def test_pseudo_variables_in_every_place(stored):
    calls = known(
        source="$var(source)",
        from_user="$avp(from)",
        contact="$hdr(X-Contact)",
        query="$var(table),$fU|" + WILD[2:] + ",$avp(limit)",
        before='$var(source) = $si;\n$avp(from) = $fU;\n$var(table) = "remote";\n$avp(limit) = 5;',
    )
    server = stored([by_both("alice", "west"), net("bob", "127.3.0.0", "255.255.0.0")], calls)
    assert asked_from(server, user="alice", headers={"X-Contact": "carol"}) == (1, "alice")
    assert asked_from(server, user="alice", headers={"X-Contact": "bob"}) == MISS
    assert asked_from(server, "127.3.0.1", user="bob") == (1, "bob")
    assert asked_from(server, "127.4.0.1", user="bob") == MISS
