"""What `make install` and `make deb` put on a machine works there: the module on a real server, the
tool, its manual page, the guide and the example site."""

import gzip
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
    "docs/kemi.md",
    "docs/cluster.md",
)
TOOLS = ("check", "convert")
PROGRAMS = [f"usr/bin/tarn-memdb-{tool}" for tool in TOOLS]
MANUALS = [f"usr/share/man/man1/tarn-memdb-{tool}.1.gz" for tool in TOOLS]
EXAMPLES = [
    *(ROOT / "package" / name for name in ("site", "site-lua", "monitoring")),
    ROOT / "cluster",
]
BUILT = (
    "tarn_memdb.so",
    "changelog.gz",
    *(f"tools/{tool}/tarn-memdb-{tool}" for tool in TOOLS),
    *(f"tarn-memdb-{tool}.1.gz" for tool in TOOLS),
)


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
def build():
    """Where everything was built, as `make install` and `make deb` build it."""
    return pathlib.Path(os.environ["TARN_BUILD"])


def configure(folder, *options):
    do("cmake", "-G", "Ninja", "-S", ROOT, "-B", folder, "-DBUILD_TESTING=OFF", *options)


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


def names_below(folder):
    return sorted(str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file())


def field(package, name):
    return do("dpkg-deb", "-f", package, name).strip()


@pytest.fixture(scope="session")
def host_number():
    """The version of the server that the package is for."""
    return re.match(r"version: kamailio (\S+) ", do(HOST, "-v"))[1]


def test_the_package_says_what_it_is_and_by_whom(package, host_number):
    project = (ROOT / "CMakeLists.txt").read_text()
    version = re.search(r"project\(tarn_memdb VERSION ([0-9.]+) ", project)
    assert field(package, "Package") == "tarn-memdb"
    assert field(package, "Version") == f"{version[1]}+kamailio{host_number}"
    assert field(package, "Architecture") == "amd64"
    assert re.fullmatch(r"[^<>]+ <[^<>@ ]+@[^<>@ ]+>", field(package, "Maintainer"))
    assert package.name == f"tarn-memdb_{field(package, 'Version')}_amd64.deb"


def satisfied(needed, server):
    """Whether a server of this Debian version fits what the package needs."""
    bounds = re.findall(r"kamailio \((>=|<<) ([^)]+)\)", needed)
    assert len(bounds) == 2
    return all(
        subprocess.run(["dpkg", "--compare-versions", server, *bound], check=False).returncode == 0
        for bound in bounds
    )


def test_it_can_be_installed_with_just_the_server_that_loads_it(package, host_number):
    needed = field(package, "Depends")
    first, last = host_number.rsplit(".", 1)
    for revision in ("", "-1", "-1+deb13u2", "+bpo13", "+0~20251113.1+debian13"):
        assert satisfied(needed, f"{host_number}{revision}"), revision
    for other in (f"{first}.{int(last) - 1}-9", f"{first}.{int(last) + 1}~rc1", f"{first}.{last}9"):
        assert not satisfied(needed, other), other
    assert "libc6 (>= " in needed and "libstdc++6 (>= " in needed


def test_a_package_for_a_version_ahead_of_a_release_fits_that_alone(tmp_path):
    configure(tmp_path, "-DHOST_VERSION=6.1.0-rc1")
    config = (tmp_path / "CPackConfig.cmake").read_text()
    needed = re.search(r'_DEPENDS "(.*)"', config)[1]
    for revision in ("", "-1", "-1+deb13u2", "+bpo13"):
        assert satisfied(needed, f"6.1.0~rc1{revision}"), revision
    for other in ("6.1.0~rc0", "6.1.0~rc2", "6.1.0~rc10", "6.1.0", "6.1.0-1", "6.1.1"):
        assert not satisfied(needed, other), other
    assert re.search(r'set\(CPACK_PACKAGE_VERSION "[0-9.]+\+kamailio6\.1\.0~rc1"\)', config)


def test_a_package_with_listings_in_arrays_says_so_and_may_take_the_others_place(tmp_path):
    configure(tmp_path, "-DHOST_VERSION=6.1.4", "-DJSON_ARRAYS=1")
    config = (tmp_path / "CPackConfig.cmake").read_text()
    version = re.search(r'set\(CPACK_PACKAGE_VERSION "([^"]+)"\)', config)[1]
    assert version.endswith("+kamailio6.1.4+json")
    do("dpkg", "--compare-versions", version, "gt", version.removesuffix("+json"))
    assert "all lines of a listing, in an array." in config


def test_lintian_has_nothing_to_say(package):
    assert do("lintian", "--allow-root", "--fail-on", "error,warning", package) == ""


def test_the_package_runs_nothing_when_it_comes_or_goes(package, tmp_path):
    """So a purge leaves tables and configuration where they are."""
    do("dpkg-deb", "-e", package, tmp_path)
    assert names_below(tmp_path) == ["control", "md5sums"]


def test_the_package_holds_just_what_an_install_puts_there(from_package, from_install):
    assert names_below(from_package) == names_below(from_install)


def test_module_tool_guide_and_site_are_there_and_no_more(installed):
    found = names_below(installed)
    for page in GUIDE:
        assert f"{DOC}/{page}" in found
    for name in ("copyright", "changelog.gz"):
        assert f"{DOC}/{name}" in found
    for example in EXAMPLES:
        for name in names_below(example):
            place = installed / DOC / "examples" / example.name / name
            assert place.read_bytes() == (example / name).read_bytes()
    beside = [name for name in found if not name.startswith(f"{DOC}/")]
    assert beside == [*PROGRAMS, f"{MODULES}/tarn_memdb.so", *MANUALS]


def test_the_changelog_is_of_this_version_and_maintainer(package, from_package):
    text = gzip.decompress((from_package / DOC / "changelog.gz").read_bytes()).decode()
    entry, _, _ = text.partition("\n\n")
    assert entry == f"tarn-memdb ({field(package, 'Version')}) stable; urgency=medium"
    assert f"\n -- {field(package, 'Maintainer')}  " in text


@pytest.mark.parametrize("tool", TOOLS)
def test_the_manual_page_is_well_formed_and_tells_each_option(installed, tool):
    page = installed / MANUALS[TOOLS.index(tool)]
    environment = {**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "80"}
    read = ["man", "--warnings", "--encoding=UTF-8", "--local-file"]
    command = [*read, str(page)]
    ran = subprocess.run(command, check=False, capture_output=True, text=True, env=environment)
    assert (ran.returncode, ran.stderr) == (0, "")
    told = do(installed / f"usr/bin/tarn-memdb-{tool}", "--help")
    options = re.findall(r"^  (--[a-z-]+)", told, re.MULTILINE)
    assert {"--json", "--version", "--help"} < set(options)
    for option in options:
        assert f"\n       {option} " in ran.stdout or f"\n       {option}\n" in ran.stdout, option
    for title in ("NAME", "SYNOPSIS", "EXIT STATUS", "EXAMPLES", "FILES", "SEE ALSO"):
        assert f"\n{title}\n" in ran.stdout


@pytest.mark.parametrize("manual", MANUALS)
def test_the_manual_page_names_files_that_are_there(installed, manual):
    text = gzip.decompress((installed / manual).read_bytes()).decode().replace("\\-", "-")
    named = re.findall(r"^(/usr/\S+)", text, re.MULTILINE)
    assert named
    for name in named:
        assert (installed / name[1:]).exists(), name


def test_everything_in_the_package_is_roots_and_readable(package):
    lines = do("dpkg-deb", "-c", package).splitlines()
    assert lines
    for line in lines:
        rights, owner = line.split()[:2]
        assert owner == "root/root", line
        assert rights[1] == rights[4] == rights[7] == "r", line
        assert rights[0] == "l" or rights[5] == rights[8] == "-", line


def test_the_packaged_programs_name_no_directory_of_the_build(from_package, build):
    for name in (f"{MODULES}/tarn_memdb.so", *PROGRAMS):
        data = (from_package / name).read_bytes()
        for folder in (build, ROOT):
            names_it = str(folder).encode() in data
            assert not names_it, f"{name} names {folder}"


def test_links_between_the_installed_pages_lead_somewhere(installed):
    folder = installed / DOC
    pages = [*folder.glob("*.md"), *folder.glob("docs/*.md")]
    assert len(pages) > len(GUIDE)
    for page in pages:
        for target in re.findall(r"\]\(([A-Z./][^)#\s]*|[^)#\s]+\.md)(?:#|\))", page.read_text()):
            # The license is Debian's own file, and not in a package's folder.
            assert os.path.lexists(page.parent / target), f"{page.name} leads to {target}"


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
    rows = do(installed / "usr/bin/tarn-memdb-convert", "--export", "phones", server.schema_path)
    assert rows.splitlines()[-1] == "carol,sip:carol@10.0.0.8"


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


def test_modules_directory_and_maintainer_can_be_chosen(build, tmp_path):
    maintainer = "Voice Platform <voice@carrier.net>"
    other, target = tmp_path / "build", tmp_path / "target"
    options = ["-DTARN_TOOLS=ON", "-DTARN_INSTALL=ON", "-DMODULES_DIR=/opt/sip/modules"]
    configure(other, *options, f"-DTARN_MAINTAINER={maintainer}", "-DCMAKE_INSTALL_PREFIX=/usr")
    for name in BUILT:
        (other / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(build / name, other / name)
    do("cmake", "--install", other, env={**os.environ, "DESTDIR": str(target)})
    assert (target / "opt/sip/modules/tarn_memdb.so").is_file()
    assert not (target / MODULES).exists()
    assert all((target / program).is_file() for program in PROGRAMS)
    assert f"\n -- {maintainer}  " in (other / "changelog").read_text()
    config = (other / "CPackConfig.cmake").read_text()
    assert f'set(CPACK_PACKAGE_CONTACT "{maintainer}")' in config
