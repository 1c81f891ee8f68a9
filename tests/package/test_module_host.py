"""tools/module-host takes out of a server's -v just what that server's loader compares, and says in
one sentence what is wrong with anything else."""

import os
import pathlib
import subprocess
import time

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
FINDER = ROOT / "tools/module-host"
BEFORE = "USE_TCP, USE_TLS, SHM_MMAP, PKG_MALLOC, MEM_JOIN_FREE, TLSF_MALLOC, DBG_SR_MEMORY"
AFTER = "USE_FUTEX, FAST_LOCK-ADAPTIVE_WAIT, TLS_PTHREAD_MUTEX_SHARED"
FLAGS = f"{BEFORE}, {AFTER}"
ALLOCATORS = "DBG_QM_MALLOC, DBG_F_MALLOC, DBG_TLSF_MALLOC"
REST = """ADAPTIVE_WAIT_LOOPS 1024, MAX_RECV_BUFFER_SIZE 1024, BUF_SIZE 65535, DEFAULT PKG_SIZE 8MB
poll method support: poll, epoll_lt, epoll_et, sigio_rt, select.
id: unknown
compiled with gcc 14.2.0"""


def says(version, flags=FLAGS):
    return f"version: {version}\nflags: {flags}\n{REST}\n"


@pytest.fixture
def program(tmp_path):
    """Makes a program that prints a text when it is called with -v."""

    def make(text, name="kamailio", folder="sbin"):
        path = tmp_path / folder / name
        path.parent.mkdir(exist_ok=True)
        told = path.parent / f"{name}.text"
        told.write_text(text)
        path.write_text(f'#!/bin/sh\n[ "$1" = -v ] && cat {told}\n')
        path.chmod(0o755)
        return path

    return make


def find(*options, path="/usr/bin:/bin", **variables):
    """Status, and what was printed to either stream."""
    ran = subprocess.run(
        [FINDER, *options],
        env={"PATH": path, **{name: str(value) for name, value in variables.items()}},
        cwd=ROOT,
        check=False,
        capture_output=True,
        text=True,
        timeout=30,
    )
    return ran.returncode, ran.stdout, ran.stderr


def found(*options, **variables):
    """Version and flags."""
    status, told, trouble = find(*options, **variables)
    assert (status, trouble) == (0, "")
    values = dict(line.split("=", 1) for line in told.splitlines())
    assert sorted(values) == ["flags", "source", "version"]
    return values["version"], values["flags"]


def refused(*options, **variables):
    """The one sentence that it ends with."""
    status, told, trouble = find(*options, **variables)
    assert (status, told) == (1, "")
    assert trouble.startswith("module-host: ") and trouble.count("\n") == 1
    return trouble.removeprefix("module-host: ").rstrip("\n")


@pytest.mark.parametrize(
    "version",
    [
        "kamailio 6.0.1 (x86_64/linux) ",
        "kamailio 6.0.1 (x86_64/linux) 44f488",
        "kamailio 6.0.1 (x86_64/linux) 44f488-dirty",
        "kamailio 6.0.1 (x86_64/linux)",
    ],
)
def test_a_hash_behind_the_version_is_left_out(program, version):
    assert found(KAMAILIO=program(says(version))) == ("kamailio 6.0.1 (x86_64/linux)", FLAGS)


def test_flags_that_6_1_tells_and_does_not_compare_are_left_out(program):
    told = program(says("kamailio 6.1.4 (x86_64/linux) ", f"{BEFORE}, {ALLOCATORS}, {AFTER}"))
    assert found(KAMAILIO=told) == ("kamailio 6.1.4 (x86_64/linux)", FLAGS)


def test_they_are_left_out_at_the_lists_end_too(program):
    told = program(says("kamailio 6.1.4 (x86_64/linux) ", f"{BEFORE}, {ALLOCATORS}"))
    assert found(KAMAILIO=told) == ("kamailio 6.1.4 (x86_64/linux)", BEFORE)


def test_6_0_compares_all_flags_that_it_tells(program):
    flags = f"{BEFORE}, DBG_QM_MALLOC, {AFTER}"
    told = program(says("kamailio 6.0.7 (x86_64/linux) ", flags))
    assert found(KAMAILIO=told) == ("kamailio 6.0.7 (x86_64/linux)", flags)


def test_a_list_without_its_first_flag_begins_with_a_comma(program):
    flags = f", USE_TLS, {FLAGS}"
    told = program(says("kamailio 6.0.7 (x86_64/linux) ", flags))
    assert found(KAMAILIO=told)[1] == flags


def test_a_version_ahead_of_a_release_keeps_its_ending(program):
    told = program(says("kamailio 6.1.0-rc1 (x86_64/linux) 12ab"))
    assert found(KAMAILIO=told)[0] == "kamailio 6.1.0-rc1 (x86_64/linux)"


@pytest.mark.parametrize(
    "version",
    [
        "kamailio 5.8.4 (x86_64/linux) ",
        "kamailio 6.2.0 (x86_64/linux) ",
        "kamailio 6.00.1 (x86_64/linux) ",
        "kamailio 16.0.1 (x86_64/linux) ",
        "opensips 6.0.1 (x86_64/linux) ",
    ],
)
def test_another_version_is_refused(program, version):
    told = program(says(version))
    assert refused(KAMAILIO=told) == (
        f"KAMAILIO={told} is {version.strip()}, and the module is for kamailio 6.0.x and 6.1.x: "
        "name another server with KAMAILIO=, or a version with HOST_VERSION="
    )


def test_another_architecture_is_refused(program):
    told = program(says("kamailio 6.0.1 (aarch64/linux) "))
    assert refused(KAMAILIO=told).startswith(
        f"KAMAILIO={told} is kamailio 6.0.1 (aarch64/linux), and the module is for x86_64/linux: "
    )


@pytest.mark.parametrize("flag", ["DBG_SR_MEMORY", "PKG_MALLOC"])
def test_a_host_with_other_allocators_is_refused(program, flag):
    told = program(says("kamailio 6.0.1 (x86_64/linux) ", FLAGS.replace(f"{flag}, ", "")))
    assert refused(KAMAILIO=told).startswith(
        f"KAMAILIO={told} was built without {flag}, so it has another binary interface than the "
    )


def test_a_flag_whose_name_only_begins_like_a_needed_one_is_not_it(program):
    flags = FLAGS.replace("DBG_SR_MEMORY", "DBG_SR_MEMORY_OFF")
    told = program(says("kamailio 6.0.1 (x86_64/linux) ", flags))
    assert "was built without DBG_SR_MEMORY" in refused(KAMAILIO=told)


def test_a_server_that_tells_no_flags_is_refused(program):
    told = program("version: kamailio 6.0.1 (x86_64/linux)\n")
    assert refused(KAMAILIO=told).endswith("its -v tells no flags")


@pytest.mark.parametrize("text", ["", "cat (GNU coreutils) 9.1\n", "version: 6.0.1\n"])
def test_a_program_that_is_no_server_is_refused(program, text):
    told = program(text)
    assert refused(KAMAILIO=told) == f"KAMAILIO={told} is no kamailio: its -v tells no version"


@pytest.mark.parametrize("name", ["/bin/cat", "/dev/null", "/nowhere/kamailio", "/tmp", "cd"])
def test_what_reads_its_input_or_is_no_program_is_refused(name):
    assert refused(KAMAILIO=name).startswith(f"KAMAILIO={name} is no ")


@pytest.mark.parametrize(
    "script",
    ["trap '' TERM; while :; do sleep 0.1; done", "sleep 25 & echo version: 1", "exec yes"],
)
def test_a_program_that_runs_on_is_refused(tmp_path, script):
    path = tmp_path / "runs-on"
    path.write_text(f"#!/bin/sh\n{script}\n")
    path.chmod(0o755)
    begin = time.monotonic()
    assert refused(KAMAILIO=path) == f"KAMAILIO={path} is no kamailio: its -v tells no version"
    assert time.monotonic() - begin < 15


def test_a_server_is_found_by_its_name_alone(program):
    told = program(says("kamailio 6.0.7 (x86_64/linux) "), name="sipserver")
    path = f"{told.parent}:/usr/bin:/bin"
    assert found(path=path, KAMAILIO="sipserver")[0] == "kamailio 6.0.7 (x86_64/linux)"


def test_the_installed_server_is_taken_unless_told_otherwise(program):
    program(says("kamailio 6.0.7 (x86_64/linux) "))
    named = program(says("kamailio 6.1.2 (x86_64/linux) "), folder="other")
    installed = named.parents[1] / "sbin"
    path = f"{installed}:/usr/bin:/bin"
    version = found("--installed", path=path)[0]
    assert version == "kamailio 6.0.7 (x86_64/linux)"
    assert find("--installed", "--say", path=path)[1] == (
        f"{version}, as the installed {installed}/kamailio tells\n"
    )
    for told, wanted in ({"KAMAILIO": named}, "6.1.2"), ({"HOST_VERSION": "6.0.2"}, "6.0.2"):
        version = found("--installed", path=path, **told)[0]
        assert version == f"kamailio {wanted} (x86_64/linux)"


def test_an_installed_server_that_does_not_fit_is_no_reason_to_take_another(program):
    installed = program(says("kamailio 5.6.3 (x86_64/linux) "))
    path = f"{installed.parent}:/usr/bin:/bin"
    assert refused("--installed", path=path).startswith(
        f"the installed {installed} is kamailio 5.6.3 (x86_64/linux), and the module is for "
    )
    assert found("--installed", path=path, HOST_VERSION="6.0.3")[0].startswith("kamailio 6.0.3 ")


def test_without_any_server_it_is_6_0_3_with_its_default_options():
    said = find("--say")[1]
    assert said == "kamailio 6.0.3 (x86_64/linux), built with its default options\n"


@pytest.mark.parametrize("number", ["6.2.1", "5.8.4", "6.0", "6.0.x", "6.0.1 ", "latest"])
def test_a_version_that_is_none_of_the_hosts_is_refused(number):
    assert refused(HOST_VERSION=number).startswith(f"HOST_VERSION={number} is no version that ")


def test_a_server_and_a_version_at_once_are_refused(program):
    told = program(says("kamailio 6.0.7 (x86_64/linux) "))
    assert "give one of them" in refused(KAMAILIO=told, HOST_VERSION="6.0.3")


def test_make_ends_with_that_sentence(program):
    told = program(says("kamailio 5.8.4 (x86_64/linux) "))
    # Below `make test` it would be another make's child, and say so.
    outside = {name: value for name, value in os.environ.items() if not name.startswith("MAKE")}
    for target in ("module", "tools", "install", "deb", "test", "demo", "coverage"):
        ran = subprocess.run(
            ["make", "-C", ROOT, target, f"KAMAILIO={told}"],
            env=outside,
            check=False,
            capture_output=True,
            text=True,
            timeout=30,
        )
        sentence, ending = ran.stderr.splitlines()
        assert sentence.startswith(f"module-host: KAMAILIO={told} is kamailio 5.8.4 ")
        assert ran.returncode != 0 and ending.startswith("make: *** ")


def test_cmake_builds_for_what_is_found(program, tmp_path):
    """The texts arrive whole in the header that the module is built with."""
    told = program(says("kamailio 6.1.4 (x86_64/linux) 12ab", f"{BEFORE}, {ALLOCATORS}, {AFTER}"))
    command = ["cmake", "-S", ROOT, "-B", tmp_path / "b", "-DBUILD_TESTING=OFF"]
    ran = subprocess.run([*command, f"-DKAMAILIO={told}"], check=False, capture_output=True)
    assert ran.returncode == 0
    header = (tmp_path / "b/generated/host/version.h").read_text()
    assert '#define TARN_HOST_VERSION "kamailio 6.1.4 (x86_64/linux)"' in header
    assert f'#define TARN_HOST_FLAGS "{FLAGS}"' in header
