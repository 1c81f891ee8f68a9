"""Fixtures of the tests on a real server.

Run with TARN_MODULE naming the built module; KAMAILIO= and KAMAILIO_MODULES= choose the server
(see tools/host-root.sh).
"""

import os
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from module_host import host_server, hosts_of  # noqa: E402


def pytest_configure():
    module = os.environ.get("TARN_MODULE")
    if not module or not os.path.isfile(module):
        pytest.exit("TARN_MODULE has to name the built module", returncode=2)
    os.environ["TARN_MODULE"] = os.path.abspath(module)


@pytest.fixture
def host(request):
    """A maker of servers for one test."""
    with hosts_of(request.node) as make:
        yield make


@pytest.fixture
def refused(host):
    """Starts a server that has to give up, and gives it back with its status in `status`."""

    def refuse(server=None, **setup):
        server = server or host(start=False, **setup)
        with pytest.raises(host_server.StartFailed) as failure:
            server.start()
        server.status = failure.value.status
        assert server.status != 0
        return server

    return refuse


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    report = (yield).get_result()
    if report.failed:
        for server in getattr(item, "hosts", None) or getattr(item.parent, "hosts", ()):
            if server.log_path.exists():
                tail = server.log_path.read_text(errors="replace").splitlines()[-80:]
                report.sections.append((f"server log of {server.directory}", "\n".join(tail)))
