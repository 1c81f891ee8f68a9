"""The example site of the package, on a real server, with its files in a folder of the test."""

import os
import pathlib
import shutil
import sys
import tempfile

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tools")]

import host_server  # noqa: E402  (found by way of the line above)
import site_calls  # noqa: E402

SITE = ROOT / "package/site"
CONFIG = "etc/kamailio/tarn_memdb"
DATA = "var/lib/kamailio/tarn_memdb"


@pytest.fixture
def server():
    """The site's server, not started. Only places differ from what the package holds."""
    # Not pytest's own directory: a socket's path has to fit 108 bytes.
    work = pathlib.Path(tempfile.mkdtemp(prefix="tarn-site-"))
    shutil.copytree(SITE, work / "site")
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
        text = placed(SITE / CONFIG / "kamailio.cfg").replace(":5060", f":{made.port}")
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
