"""The example site of the package, on a real server, with its files in a folder of the test."""

import os
import pathlib
import shutil
import sys
import tempfile

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests/support"), str(ROOT / "tools")]

import host_server  # noqa: E402  (found by way of the line above)
import host_sip  # noqa: E402
import kemi_engines  # noqa: E402
import site_calls  # noqa: E402

SITE = ROOT / "package/site"
# Copied over the site, its script in Lua.
LUA_SITE = ROOT / "package/site-lua"
CONFIG = "etc/kamailio/tarn_memdb"
DATA = "var/lib/kamailio/tarn_memdb"


def sites():
    return [[SITE], [SITE, LUA_SITE]] if kemi_engines.is_there(kemi_engines.LUA) else [[SITE]]


@pytest.fixture(params=sites(), ids=lambda copied: copied[-1].name)
def server(request):
    """A site's server, not started. Only places differ from what the package holds."""
    # Not pytest's own directory: a socket's path has to fit 108 bytes.
    work = pathlib.Path(tempfile.mkdtemp(prefix="tarn-site-"))
    for site in request.param:
        shutil.copytree(site, work / "site", dirs_exist_ok=True)
    (work / "site" / DATA / "backup").mkdir()
    places = {
        f"/{CONFIG}": f"{work}/site/{CONFIG}",
        f"/{DATA}": f"{work}/site/{DATA}",
        '"tarn_memdb.so"': f'"{os.environ["TARN_MODULE"]}"',
    }

    def placed(path):
        text = path.read_text()
        for place, own in places.items():
            text = text.replace(place, own)
        return text

    def compose(made):
        text = placed(work / "site" / CONFIG / "kamailio.cfg").replace(":5060", f":{made.port}")
        return text + f'modparam("ctl", "binrpc", "unix:{made.ctl_socket}")\n'

    schema = work / "site" / CONFIG / "schema.cfg"
    schema.write_text(placed(schema))
    made = host_server.Server(work, compose)
    yield made
    made.kill()
    shutil.rmtree(work)


def test_the_example_site_places_calls_and_gives_all_ports_back(server):
    try:
        server.start()
    except host_server.StartFailed as failure:
        pytest.fail(failure.log)

    def kamcmd(*arguments):
        status, told, trouble = server.kamcmd(*arguments)
        assert (status, trouble) == (0, "")
        return told

    site_calls.use((server.address, server.port), kamcmd)
    assert server.stop() == 0
    assert not server.entries(level="ERROR") and not server.entries(level="WARNING")
    gateways = server.directory / "site" / DATA / "tables/gateways.tbl"
    assert gateways.read_bytes() == (SITE / DATA / "tables/gateways.tbl").read_bytes()


class OddPhone(host_sip.Phone):
    """Says in its Contact what it is told to, with {} for its own address."""

    says = "<{}>"

    # pylint: disable-next=arguments-differ  (what it says is this one's own)
    def _finish(self, lines, body):
        told = f"Contact: {self.says.format(self.contact)}"
        lines = [told if line.startswith("Contact: ") else line for line in lines]
        return super()._finish(lines, body)


@pytest.fixture
def phone(server):
    server.start()
    with OddPhone((server.address, server.port), "sam") as made:
        yield made


def register(phone, says="<{}>", **headers):
    phone.says = says
    return phone.request("REGISTER", "sip:127.0.0.1", headers).status


def rows(server, table="phones", columns=3):
    _, told, _ = server.kamcmd("tarn_memdb.select", f"{table},{'|'.join('*' * columns)}")
    return told.splitlines()[1:]


def test_it_takes_any_address_that_its_table_can_hold(server, phone):
    for says in ("<{}>", "<{};transport=udp>", '"Sam; expires=0" <sips:sam@[2001:db8::1]:5061>'):
        assert register(phone, says) == 200, says
        address = says.format(phone.contact).partition("<")[2].rstrip(">")
        assert rows(server) == [f"sam|{address}|127.0.0.1"]


def test_it_refuses_what_its_table_cannot_hold(server, phone):
    hidden = ("a\0|b@c", "a\0\r\n b@c")
    for address in ("a b@c", "a\tb@c", "a\r\n b@c", "a|b@c", "a\\b@c", "a@" + "b" * 250, *hidden):
        assert register(phone, f"<sip:{address}>") == 400, address
    phone.user = "u" * 64
    assert register(phone) == 400
    assert rows(server) == []
    assert server.stop() == 0


def test_a_phone_goes_when_all_that_it_says_expires(server, phone):
    for says, headers, left in (
        ("<{}>", {"Expires": "0"}, 0),
        ("<{}>;Expires=0", {"Expires": "60"}, 0),
        ("*", {"Expires": "0"}, 0),
        ("<{}>;expires=60, <sip:old@10.0.0.1>;expires=0", {}, 1),
    ):
        register(phone)
        assert register(phone, says, **headers) == 200
        assert len(rows(server)) == left, says


def test_a_gateway_gets_the_number(server, phone):
    with host_sip.Phone(phone.server, "gateway") as gateway:
        where = f"sip:127.0.0.1:{gateway.port}"
        assert server.kamcmd("tarn_memdb.insert", f"gateways,49|{where}")[0] == 0
        assert site_calls.call(phone, gateway, "49301234")[:2] == (200, 200)
        assert gateway.requests[0].uri == f"sip:49301234@127.0.0.1:{gateway.port}"


def test_the_server_itself_can_be_asked_for_its_options(phone):
    assert phone.request("OPTIONS", "sip:127.0.0.1").status == 200


def test_a_call_ends_whatever_the_other_phone_is_called(server, phone):
    with OddPhone(phone.server, "o!2~x") as other:
        other.says = "<{}>"
        phone.request("REGISTER", "sip:127.0.0.1")
        caller = site_calls.call(other, phone)
        assert caller[:2] == (200, 200)
        answer = other.request("INVITE", "sip:sam@127.0.0.1", call_id="c", answering=[phone])
        route = {"Route": answer.get("record-route")}
        end = phone.request(
            "BYE", other.contact, route, call_id="c", answering=[other], to="<sip:x@y>;tag=1"
        )
        assert end.status == 200
    assert rows(server, "media", 9) == []


def test_a_call_that_gets_no_row_costs_no_port(server, phone):
    schema = server.directory / "site" / CONFIG / "schema.cfg"
    server.stop()
    media = "MAX_ROWS=1000\nNUM_FIELDS=9\n"
    assert media in schema.read_text()
    schema.write_text(schema.read_text().replace(media, media.replace("1000", "1")))
    server.start()
    phone.server = (server.address, server.port)
    assert server.kamcmd("tarn_memdb.insert", "media,|other|a|x|21255|WAN||0|0")[0] == 0
    register(phone)
    # More often than there are ports.
    for _ in range(260):
        assert phone.request("INVITE", "sip:sam@127.0.0.1").status == 503
    _, told, _ = server.kamcmd("tarn_memdb.show_pm_info")
    (ports,) = [line for line in told.splitlines() if "Min port = 21000" in line][:1]
    assert "Next free port = -1;" not in ports
    assert len(rows(server, "media", 9)) == 1
