"""The files for Prometheus and Grafana, with a real Prometheus that scrapes a real server."""

import contextlib
import json
import pathlib
import re
import socket
import subprocess
import time
import urllib.parse
import urllib.request

import pytest
from module_host import TOP, Call, Table, columns

FILES = TOP / "package/monitoring"
DASHBOARD = json.loads((FILES / "grafana-dashboard.json").read_text())
RULES = (FILES / "tarn_memdb.rules.yml").read_text()
MONITORING = (TOP / "docs/monitoring.md").read_text()
PHONES = Table("phones", columns("user"), 1)
ODD = Table("free_rows_x", columns("a"))
MODULES = ("pv.so", "sl.so", "textops.so", "kex.so", "ctl.so", "xhttp.so", "xhttp_prom.so")
PREFIX = "kamailio_tarn_memdb_"


@pytest.fixture(scope="module")
def programs():
    """The folder of prometheus and promtool."""
    command = [TOP / "tools/prometheus.sh"]
    done = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, timeout=150)
    return pathlib.Path(done.stdout.strip())


@pytest.fixture
def server(host):
    return host(
        tables=[PHONES, ODD],
        calls={
            "insert": Call('tarn_memdb_insert("phones,$hdr(X-Q)")'),
            "take_port": Call('tarn_memdb_get_port("EXT", "$avp(port)")'),
        },
        modules=(*MODULES, "tarn_memdb"),
        modparams=['modparam("xhttp_prom", "xhttp_prom_stats", "tarn_memdb:")'],
        params={"min_ext_port": 100, "max_ext_port": 101},
        http="if (prom_check_uri()) prom_dispatch();",
    )


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Prometheus:
    """Runs with the shipped configuration, on another server's address and more often."""

    def __init__(self, programs, folder, target):
        config = (FILES / "prometheus.yml").read_text()
        config = config.replace("127.0.0.1:8080", target).replace("15s", "200ms")
        config = f"global: {{evaluation_interval: 200ms}}\n{config}"
        (folder / "prometheus.yml").write_text(config)
        (folder / "tarn_memdb.rules.yml").write_text(re.sub(r"for: \d+m", "for: 0s", RULES))
        self.address = f"127.0.0.1:{free_port()}"
        # It lives on.
        # pylint: disable-next=consider-using-with
        self.process = subprocess.Popen(
            [programs / "prometheus", f"--config.file={folder}/prometheus.yml"]
            + [f"--storage.tsdb.path={folder}/data", f"--web.listen-address={self.address}"],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )

    def stop(self):
        self.process.kill()
        self.process.wait()

    def ask(self, path, **parameters):
        url = f"http://{self.address}/api/v1/{path}?{urllib.parse.urlencode(parameters)}"
        with urllib.request.urlopen(url, timeout=5) as reply:
            return json.load(reply)["data"]

    def query(self, expression):
        return self.ask("query", query=expression)["result"]

    def wait(self, what, timeout=15.0):
        """Waits until what() is true of this server and gives it back."""
        end = time.monotonic() + timeout
        while True:
            with contextlib.suppress(OSError):
                if found := what():
                    return found
            assert time.monotonic() < end, "Prometheus doesn't see it"
            time.sleep(0.05)


@pytest.fixture
def prometheus(programs, server, tmp_path):
    made = Prometheus(programs, tmp_path, f"{server.address}:{server.port}")
    yield made
    made.stop()


def expressions():
    for panel in DASHBOARD["panels"]:
        for target in panel["targets"]:
            yield panel["title"], target["expr"].replace("$instance", ".*")


# One test, since Prometheus takes some seconds to begin.
def test_prometheus_has_labels_feeds_the_dashboard_and_raises_alarms(server, prometheus):
    def raised():
        firing = prometheus.ask("alerts")["alerts"]
        return {each["labels"]["alertname"] for each in firing if each["state"] == "firing"}

    def rows():
        found = prometheus.query(f"{PREFIX}table_rows")
        return {row["metric"]["table"]: row["value"][1] for row in found}

    assert prometheus.wait(rows) == {"phones": "0", "free_rows_x": "0"}
    free = prometheus.query(f"{PREFIX}map_free_ports")
    assert sorted(each["metric"]["map"] for each in free) == [
        "ext",
        "int",
        "static_ext",
        "static_int",
    ]
    for title, expression in expressions():
        prometheus.wait(lambda asked=expression: prometheus.query(asked))
        assert prometheus.query(expression), title
    plain = {name for name in prometheus.ask("label/__name__/values") if name.startswith(PREFIX)}
    assert not {name for name in plain if re.search("phones|static|free_rows_x", name)}

    assert raised() == set()
    server.call("insert", "bob")
    server.call("insert", "carol")
    for _ in range(3):
        server.call("take_port")
    wanted = {"TarnMemdbTableNearlyFull", "TarnMemdbTableFull"}
    wanted |= {"TarnMemdbPortsNearlyUsedUp", "TarnMemdbNoPort"}
    prometheus.wait(lambda: raised() == wanted)
    assert rows() == {"phones": "1", "free_rows_x": "0"}


def test_the_rules_are_well_formed_and_the_page_tells_each(programs, tmp_path):
    config = tmp_path / "prometheus.yml"
    config.write_text((FILES / "prometheus.yml").read_text())
    (tmp_path / "tarn_memdb.rules.yml").write_text(RULES)
    subprocess.run([programs / "promtool", "check", "config", config], check=True)
    names = re.findall(r"alert: (\w+)", RULES)
    assert len(names) == 8
    assert [name for name in names if f"`{name}`" not in MONITORING] == []


def test_each_panel_has_a_title_a_unit_and_a_place_of_its_own():
    panels = DASHBOARD["panels"]
    assert len({panel["id"] for panel in panels}) == len({panel["title"] for panel in panels})
    places = set()
    for panel in panels:
        assert panel["title"] and panel["description"]
        assert panel["fieldConfig"]["defaults"]["unit"] in ("short", "percentunit", "cps", "bytes")
        at = panel["gridPos"]
        covered = {(at["x"] + x, at["y"] + y) for x in range(at["w"]) for y in range(at["h"])}
        assert at["x"] + at["w"] <= 24 and not covered & places, panel["title"]
        places |= covered


def test_each_counter_is_in_the_page_and_each_that_is_counted_in_the_dashboard(server):
    names = {
        name.removesuffix("_phones").removesuffix("_ext").removeprefix(PREFIX)
        for name in re.findall(r"(?m)^(\w+) \d+ \d+$", server.web_page("/metrics"))
        if not name.endswith(("_free_rows_x", "_int", "_static_ext"))
    }
    assert len(names) == 8 + 3 + 1, "sums have the name of what they sum up"
    assert [name for name in names if f"`{name}" not in MONITORING] == []
    asked = " ".join(expression for _, expression in expressions())
    assert [name for name in names if not re.search(rf"_{name}\b", asked)] == []
