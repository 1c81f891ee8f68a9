#!/usr/bin/env python3
"""Runs layout check, module tests and host tests on several built trees of the server, and prints a
table. Usage: tools/hosts.py BUILD JOBS TREES VERSION...

TREES is a folder with a tree for each version, TREES/6.0.7 for one: the server's sources, with the
program in src, modules in src/modules and kamcmd in utils/kamcmd. Ends with 0 if all tests of all
versions passed.
"""

import os
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
# Columns of the table, and the ctest tests that each counts.
SUITES = (
    ("layout check", "^abi_layout$"),
    ("module tests", "^module_"),
    ("host tests", "^host\\."),
)


class Trouble(Exception):
    """A version can't be tested, or something failed."""


def run(log, *command, environment=None):
    """Runs a command and gives back its status and output, which goes to a log file, too."""
    ran = subprocess.run(
        [str(part) for part in command],
        cwd=ROOT,
        env={**os.environ, **(environment or {})},
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        check=False,
        text=True,
        errors="replace",
    )
    with open(log, "a", encoding="utf-8") as file:
        file.write(ran.stdout)
    return ran.returncode, ran.stdout


def host_of(tree, version, modules):
    """The environment that names a tree's server, its modules in one folder."""
    program = tree / "src/kamailio"
    if not os.access(program, os.X_OK):
        raise Trouble(f"{program} isn't built")
    told = subprocess.run([program, "-v"], check=False, capture_output=True, text=True).stdout
    if not told.startswith(f"version: kamailio {version} "):
        raise Trouble(f"{program} is another version")
    modules.mkdir(parents=True, exist_ok=True)
    for old in modules.iterdir():
        old.unlink()
    for module in tree.glob("src/modules/*/*.so"):
        (modules / module.name).symlink_to(module)
    return {
        "KAMAILIO": str(program),
        "KAMAILIO_MODULES": str(modules),
        "KAMCMD": str(tree / "utils/kamcmd/kamcmd"),
    }


def test(build, jobs, tree, version):
    """The cells of a version's row; what failed goes to the error output."""
    log = build / f"{version}.log"
    log.unlink(missing_ok=True)
    environment = host_of(tree, version, build / f"{version}.modules")
    options = [f"-DKAMAILIO={environment['KAMAILIO']}", f"-DKAMAILIO_SRC={tree}"]
    programs = [f"module_{test.stem}" for test in ROOT.glob("tests/module/*_test.cc")]
    for command in (
        ("cmake", "-G", "Ninja", "-S", ROOT, "-B", build / "tests", *options),
        ("cmake", "--build", build / "tests", "-j", jobs)
        + ("--target", "tarn_memdb", "json_arrays", "abi_layout", *programs),
    ):
        if run(log, *command)[0] != 0:
            raise Trouble(f"it can't be built (see {log})")
    cells = []
    for suite, pattern in SUITES:
        command = ("ctest", "--test-dir", build / "tests", "-j", jobs, "-R", pattern)
        _, told = run(log, *command, "--output-on-failure", environment=environment)
        result = re.search(r"(\d+) tests failed out of (\d+)", told)
        if not result:
            raise Trouble(f"no {suite} were run (see {log})")
        failed, count = int(result[1]), int(result[2])
        cells.append(f"{count - failed} of {count}")
        for name in re.findall(r"^\t *\d+ - (\S+)", told, re.MULTILINE):
            print(f"hosts: {version}: {name} failed (see {log})", file=sys.stderr, flush=True)
    return cells


def whole(cell):
    passed, _, count = cell.partition(" of ")
    return passed == count


def print_table(rows):
    print("| Host | " + " | ".join(suite for suite, _ in SUITES) + " |")
    print("|---" * (len(SUITES) + 1) + "|")
    for version, cells in rows:
        print(f"| {version} | " + " | ".join(cells) + " |")


def main():
    if len(sys.argv) < 5 or not sys.argv[3]:
        print("hosts: name versions and the folder of their trees, as in", file=sys.stderr)
        print('  make hosts HOSTS="6.0.7 6.1.4" KAMAILIO_TREES=folder', file=sys.stderr)
        return 2
    build, jobs = pathlib.Path(sys.argv[1]).resolve(), sys.argv[2]
    trees, versions = pathlib.Path(sys.argv[3]).resolve(), sys.argv[4:]
    build.mkdir(parents=True, exist_ok=True)
    rows = []
    for version in versions:
        print(f"hosts: {version}", file=sys.stderr, flush=True)
        try:
            cells = test(build, jobs, trees / version, version)
        except Trouble as trouble:
            print(f"hosts: {version}: {trouble}", file=sys.stderr, flush=True)
            cells = ["not run"] * len(SUITES)
        rows.append((version, cells))
    print_table(rows)
    return 0 if all(whole(cell) for _, cells in rows for cell in cells) else 1


if __name__ == "__main__":
    sys.exit(main())
