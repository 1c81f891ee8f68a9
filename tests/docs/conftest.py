"""What the tests of the guide share with those on a real server."""

import importlib.util
import os
import pathlib
import sys

import pytest

HOST_TESTS = pathlib.Path(__file__).resolve().parents[1] / "host"
sys.path[:0] = [str(pathlib.Path(__file__).resolve().parent), str(HOST_TESTS)]

_spec = importlib.util.spec_from_file_location("host_conftest", HOST_TESTS / "conftest.py")
_host = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(_host)

pytest_runtest_makereport = _host.pytest_runtest_makereport


def pytest_configure():
    _host.pytest_configure()
    for variable in ("TARN_CHECK", "TARN_CONVERT"):
        tool = os.environ.get(variable)
        if not tool or not os.path.isfile(tool):
            pytest.exit(f"{variable} has to name the built tool", returncode=2)
        os.environ[variable] = os.path.abspath(tool)
