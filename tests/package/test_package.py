"""What `make install` and `make deb` put on a machine works there: the module on a real server, the
tool, the guide and the example configuration."""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "tests/host")]

import host_server  # noqa: E402
import module_host  # noqa: E402  (found by way of the line above)

HOST = ROOT / "tools/host-kamailio"
MODULES = "usr/lib/x86_64-linux-gnu/kamailio/modules"
DOC = "usr/share/doc/tarn-memdb"
GUIDE = (
    "README.md",
    "docs/guide.md",
    "docs/parameters.md",
    "docs/functions.md",
    "docs/rpc.md",
    "docs/operating.md",
)
EXAMPLES = ("kamailio.cfg", "schema.cfg", "private_ranges.txt")


def do(*command, status=0, **options):
    ran = subprocess.run(
        [str(part) for part in command],
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        check=False,
        text=True,
        errors="replace",
        timeout=150,
        **options,
    )
    assert ran.returncode == status, f"{command} ended with {ran.returncode}:\n{ran.stdout}"
    return ran.stdout


@pytest.fixture(scope="session")
def build(tmp_path_factory):
    """Module and tool, built as `make install` and `make deb` build them."""
    folder = tmp_path_factory.mktemp("build")
    options = [f"-DKAMAILIO={HOST}", "-DTARN_TOOLS=ON", "-DBUILD_TESTING=OFF"]
    options += ["-DCMAKE_INSTALL_PREFIX=/usr", f"-DMODULES_DIR={MODULES.removeprefix('usr/')}"]
    do("cmake", "-G", "Ninja", "-S", ROOT, "-B", folder, *options)
    do("cmake", "--build", folder, "-j", "2")
    return folder


@pytest.fixture(scope="session")
def package(build, tmp_path_factory):
    folder = tmp_path_factory.mktemp("package")
    do("cpack", "--config", build / "CPackConfig.cmake", "-B", folder)
    (made,) = folder.glob("*.deb")
    return made


@pytest.fixture(scope="session")
def from_package(package, tmp_path_factory):
    folder = tmp_path_factory.mktemp("unpacked")
    do("dpkg-deb", "-x", package, folder)
    return folder


@pytest.fixture(scope="session")
def from_install(build, tmp_path_factory):
    folder = tmp_path_factory.mktemp("installed")
    do("cmake", "--install", build, env={**os.environ, "DESTDIR": str(folder)})
    return folder


@pytest.fixture(params=["package", "install"])
def installed(request):
    return request.getfixturevalue(f"from_{request.param}")


@pytest.fixture
def work():
    """A directory whose path is short enough for sockets."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="tarn-pkg-"))
    yield folder
    shutil.rmtree(folder)


@pytest.fixture
def example(installed, work):
    """The installed example configuration, with its places filled in as the demo does."""
    for name in ("tables", "backup"):
        (work / name).mkdir()
    places = {"MODULE": installed / MODULES / "tarn_memdb.so", "WORK": work, "PORT": 5060}
    for name in EXAMPLES:
        text = (installed / DOC / "examples" / name).read_text()
        for place, value in places.items():
            text = text.replace(f"@{place}@", str(value))
        (work / name).write_text(text)
    return work


def names_below(folder):
    return sorted(str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file())


def test_the_package_says_what_it_is_and_needs(package):
    def field(name):
        return do("dpkg-deb", "-f", package, name).strip()

    assert field("Package") == "tarn-memdb"
    assert field("Architecture") == "amd64"
    assert package.name == f"tarn-memdb_{field('Version')}_amd64.deb"
    needed = field("Depends")
    for part in ("kamailio (>= 6.0)", "kamailio (<< 6.1)", "libc6 (>= ", "libstdc++6 (>= "):
        assert part in needed


def test_the_package_holds_just_what_an_install_puts_there(from_package, from_install):
    assert names_below(from_package) == names_below(from_install)


def test_module_tool_guide_and_examples_are_there_and_no_more(installed):
    found = names_below(installed)
    assert f"{MODULES}/tarn_memdb.so" in found
    assert "usr/bin/tarn-memdb-check" in found
    for page in GUIDE:
        assert f"{DOC}/{page}" in found
    for name in EXAMPLES:
        assert f"{DOC}/examples/{name}" in found
    beside = [name for name in found if not name.startswith(f"{DOC}/")]
    assert beside == ["usr/bin/tarn-memdb-check", f"{MODULES}/tarn_memdb.so"]


def test_everything_in_the_package_is_roots_and_readable(package):
    lines = do("dpkg-deb", "-c", package).splitlines()
    assert lines
    for line in lines:
        rights, owner = line.split()[:2]
        assert owner == "root/root", line
        assert rights[1] == rights[4] == rights[7] == "r", line
        assert rights[5] == rights[8] == "-", line


def test_the_packaged_programs_name_no_directory_of_the_build(from_package, build):
    for name in (f"{MODULES}/tarn_memdb.so", "usr/bin/tarn-memdb-check"):
        data = (from_package / name).read_bytes()
        for folder in (build, ROOT):
            names_it = str(folder).encode() in data
            assert not names_it, f"{name} names {folder}"


def test_links_between_the_installed_pages_lead_somewhere(installed):
    folder = installed / DOC
    pages = [folder / "README.md", *folder.glob("docs/*.md")]
    assert pages
    for page in pages:
        for target in re.findall(r"\]\(([^)#\s]+\.md)(?:#[^)]*)?\)", page.read_text()):
            if not target.startswith(("http", "../")):
                assert (page.parent / target).exists(), f"{page.name} leads to {target}"


def test_the_installed_module_loads_on_a_real_server_and_keeps_rows(installed, work, monkeypatch):
    monkeypatch.setenv("TARN_MODULE", str(installed / MODULES / "tarn_memdb.so"))
    phones = module_host.Table("phones", module_host.columns("user", "contact", indexed=("user",)))
    server = module_host.ModuleHost(work, tables=(phones,))
    server.write_rows("phones", ["bob|sip:bob@10.0.0.7"])
    server.start()
    try:
        status, rows, _ = server.kamcmd("tarn_memdb.select", "phones,bob|*")
        assert status == 0 and "bob|sip:bob@10.0.0.7" in rows
        assert server.kamcmd("tarn_memdb.insert", "phones,carol|sip:carol@10.0.0.8")[0] == 0
        assert server.stop() == 0
    finally:
        server.kill()
    assert server.rows("phones") == ["bob|sip:bob@10.0.0.7", "carol|sip:carol@10.0.0.8"]
    check = do(installed / "usr/bin/tarn-memdb-check", server.schema_path)
    assert check == "clean\n"


def test_what_the_installed_tool_says_is_what_the_installed_module_does(
    installed, work, monkeypatch
):
    monkeypatch.setenv("TARN_MODULE", str(installed / MODULES / "tarn_memdb.so"))
    tables = [module_host.Table(name, module_host.columns("a", "b")) for name in ("t", "u", "v")]
    server = module_host.ModuleHost(work, tables=tables)
    server.schema_path.write_text(server.schema_text())
    server.write_rows("t", ["new|row|more"])
    server.write_rows("t", ["saved|row"], backup=True)
    server.write_rows("u", ["x"])
    server.write_rows("u", ["x|y|z"], backup=True)
    server.write_rows("v", ["x|y"])
    told = do(installed / "usr/bin/tarn-memdb-check", server.schema_path, status=1)
    t, u = server.main_file("t"), server.main_file("u")
    backup = server.backup_file("t")
    assert f"{t}: error: is set aside as {t}.refused, and table 't' is loaded from {backup}" in told
    assert f"{u}: error: is set aside as {u}.refused, and {server.backup_file('u')} is" in told
    assert "v.tbl" not in told
    server.start()
    try:
        assert "saved|row" in server.kamcmd("tarn_memdb.select", "t,*|*")[1]
        assert server.stop() == 0
    finally:
        server.kill()
    assert [server.rows(name) for name in "tuv"] == [None, None, ["x|y"]]
    assert [server.rows(name, backup=True) for name in "tuv"] == [["saved|row"], None, None]


def test_the_installed_tool_finds_what_is_wrong(installed, example):
    check = installed / "usr/bin/tarn-memdb-check"
    files = (example / "schema.cfg", example / "private_ranges.txt")
    assert do(check, *files) == "clean\n"
    (example / "tables/blocked.tbl").write_text("Version 1\n1|alice\n")
    told = do(check, *files, status=1)
    assert f"{example}/tables/blocked.tbl:2: error: the row is refused" in told


def test_the_host_finds_nothing_wrong_with_the_installed_example(example):
    said = do(HOST, "-c", "-f", example / "kamailio.cfg")
    assert "config file ok, exiting" in said
    levels = {entry.level for entry in host_server.parse_log(said)}
    assert not levels & {"WARNING", "ERROR", "CRITICAL", "ALERT", "BUG"}, said


def test_an_example_with_a_mistake_does_not_pass(example):
    config = example / "kamailio.cfg"
    config.write_text(config.read_text().replace("tarn_memdb_insert(", "tarn_memdb_insertt("))
    ran = subprocess.run([HOST, "-c", "-f", config], check=False, capture_output=True, timeout=60)
    assert ran.returncode != 0


def test_the_modules_directory_can_be_chosen(build, tmp_path_factory):
    target = tmp_path_factory.mktemp("target")
    folder = tmp_path_factory.mktemp("chosen")
    # The same objects, configured anew for another place.
    shutil.copytree(build, folder / "build", symlinks=True)
    other = folder / "build"
    cache = other / "CMakeCache.txt"
    cache.write_text(cache.read_text().replace(str(build), str(other)))
    do("cmake", "-S", ROOT, "-B", other, "-DMODULES_DIR=/opt/sip/modules")
    do("cmake", "--install", other, env={**os.environ, "DESTDIR": str(target)})
    assert (target / "opt/sip/modules/tarn_memdb.so").is_file()
    assert not (target / MODULES).exists()
    assert (target / "usr/bin/tarn-memdb-check").is_file()
