#!/usr/bin/env python3
"""Installs the package into a clean root of Debian 13 beside Debian's kamailio, boots it, and
places calls through the example site. Usage: clean_root.py FOLDER MAKE...

The root is made below FOLDER and goes when it ends. MAKE is the command that makes the package; it
is given KAMAILIO= and BUILD=. Needs root's rights, Debian's archive, mmdebstrap and
systemd-container.
"""

import ctypes
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

sys.dont_write_bytecode = True
HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parents[1] / "tools")]

import host_sip  # noqa: E402  (found by way of the line above)
import site_calls  # noqa: E402

SUITE = "trixie"
PACKAGES = "kamailio,kamailio-lua-modules,libstdc++6,systemd,systemd-sysv,dbus"
SERVER = ("127.0.0.1", 5060)
CONFIG = "etc/kamailio/tarn_memdb"
DATA = "var/lib/kamailio/tarn_memdb"
DOC = "usr/share/doc/tarn-memdb"
MODULE = "usr/lib/x86_64-linux-gnu/kamailio/modules/tarn_memdb.so"
CLONE_NEWNET = 0x40000000


class Failed(Exception):
    """The package isn't what it should be."""


def step(text):
    print(f"package-test: {text}", flush=True)


def expect(condition, otherwise):
    if not condition:
        raise Failed(otherwise)


def run(*command, status=0):
    """Gives back what a command printed; its exit status has to be the one named, if one is."""
    ran = subprocess.run(
        [str(part) for part in command],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        check=False,
        text=True,
        errors="replace",
        env={**os.environ, "LC_ALL": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive"},
    )
    words = " ".join(str(part) for part in command)
    if status is not None:
        expect(ran.returncode == status, f"{words} ended with {ran.returncode}:\n{ran.stdout}")
    return ran.stdout


def children(pid):
    text = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text()
    return [int(child) for child in text.split()]


class Machine:
    """The root, booted by its own systemd in namespaces of its own."""

    def __init__(self, root):
        self.root = root
        with open(root.parent / "boot.log", "wb") as log:
            # It lives on until stop().
            # pylint: disable-next=consider-using-with
            self.process = subprocess.Popen(
                ["systemd-nspawn", "-q", "-D", str(root), "--boot", "--register=no", "--keep-unit"]
                + ["--settings=no", "--private-network", "--link-journal=no", "--console=pipe"],
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=subprocess.STDOUT,
            )
        try:
            self.init = self.wait_init()
            self.wait("systemctl", "is-system-running", told=("running", "degraded"))
        except Failed:
            self.stop()
            raise

    def wait_init(self):
        for _ in range(200):
            waiting = children(self.process.pid)
            while waiting:
                pid = waiting.pop()
                try:
                    if os.readlink(f"/proc/{pid}/exe").endswith("/systemd"):
                        return pid
                    waiting += children(pid)
                except FileNotFoundError:
                    pass
            expect(self.process.poll() is None, "systemd-nspawn doesn't start; see boot.log")
            time.sleep(0.1)
        raise Failed("systemd doesn't start; see boot.log")

    def run(self, *command, status=0):
        namespaces = ("nsenter", "-t", self.init, "-m", "-p", "-n", "-i", "-u", "-r", "-w")
        return run(*namespaces, *command, status=status)

    def wait(self, *command, told, timeout=60):
        end = time.monotonic() + timeout
        while (said := self.run(*command, status=None).strip()) not in told:
            expect(time.monotonic() < end, f"{' '.join(command)} says {said!r} after {timeout} s")
            time.sleep(0.2)

    def kamcmd(self, *arguments):
        return self.run("kamcmd", *arguments)

    def enter_network(self):
        """From now on this program's sockets are the machine's."""
        with open(f"/proc/{self.init}/ns/net", "rb") as space:
            expect(ctypes.CDLL(None).setns(space.fileno(), CLONE_NEWNET) == 0, "setns failed")

    def journal(self):
        return self.run("journalctl", "--no-pager", "-q", "-u", "kamailio")

    def stop(self):
        self.process.kill()
        self.process.wait()


def make_package(folder, root, make):
    # The version of the server in the root, not of any on this machine.
    server = folder / "kamailio"
    server.write_text(f'#!/bin/sh\nexec chroot {root} /usr/sbin/kamailio "$@"\n')
    server.chmod(0o755)
    run(*make, f"KAMAILIO={server}", f"BUILD={folder}/build")
    (made,) = (folder / "build/deb").glob("*.deb")
    return made


def other_package(folder, package):
    """The same for the server's next version."""
    unpacked = folder / "other"
    run("dpkg-deb", "-R", package, unpacked)
    control = unpacked / "DEBIAN/control"

    def later(match):
        return f"{match[1]}{int(match[2]) + 1}"

    number = r"(kamailio ?(?:\([><=]+ )?6\.\d+\.)(\d+)"
    control.write_text(re.sub(number, later, control.read_text()))
    run("dpkg-deb", "--root-owner-group", "-b", unpacked, folder / "other.deb")
    return folder / "other.deb"


def install(root, folder, package):
    for made, wanted in ((other_package(folder, package), 100), (package, 0)):
        shutil.copy(made, root / "tarn-memdb.deb")
        command = ("apt-get", "install", "-y", "/tarn-memdb.deb")
        said = run("chroot", root, *command, status=wanted)
        expect(wanted == 0 or "tarn-memdb : Depends: kamailio" in said, said)
    expect("tarn-memdb" in run("chroot", root, "dpkg", "-l", "tarn-memdb"), "isn't installed")


def site_commands(root, site="site"):
    text = (root / DOC / "examples" / site / "README").read_text().replace("\\\n", "")
    return re.findall(r"^  ([a-z].*)$", text, re.MULTILINE)


def copy_site(root):
    """What the site's README says, to the letter."""
    for command in site_commands(root)[:2]:
        expect(command.startswith("cp "), f"the site's README begins with {command}")
        run("chroot", root, "sh", "-c", command)


def use_site(machine):
    root = machine.root
    machine.wait("systemctl", "is-active", "kamailio", told=("active",))
    machine.enter_network()
    site_calls.use(SERVER, machine.kamcmd)
    uid = int(machine.run("id", "-u", "kamailio"))
    for name in ("tables", "backup", "tables/gateways.tbl"):
        expect((root / DATA / name).stat().st_uid == uid, f"{name} isn't the server's")
    main = machine.run("systemctl", "show", "-P", "MainPID", "kamailio").strip()
    arguments = machine.run("cat", f"/proc/{main}/cmdline").split("\0")
    expect(arguments[arguments.index("-m") + 1] == "128", f"the server runs as {arguments}")


def restart_site(machine):
    """Rows are there after a restart; one that would be lost keeps the server from starting."""
    tables = machine.root / DATA / "tables"
    with host_sip.Phone(SERVER, "dave") as dave:
        expect(dave.request("REGISTER", "sip:127.0.0.1").status == 200, "dave isn't registered")
        machine.run("systemctl", "stop", "kamailio")
        row = f"dave|{dave.contact}|127.0.0.1\n"
        expect((tables / "phones.tbl").read_text().endswith(row), "dave isn't in the file")
        gateways = tables / "gateways.tbl"
        good = gateways.read_text()
        gateways.write_text(good + "4|a|b\n")
        machine.run("systemctl", "start", "kamailio", status=1)
        told = "gateways.tbl:4: error: the row is refused"
        expect(told in machine.journal(), "the journal doesn't tell of the bad row")
        expect(gateways.exists(), "the bad file was set aside")
        gateways.write_text(good)
        machine.run("systemctl", "reset-failed", "kamailio")
        machine.run("systemctl", "start", "kamailio")
        site_calls.wait_ready(SERVER)
        expect(machine.kamcmd("tarn_memdb.select", "phones,dave|*|*").endswith(row), "dave is gone")
    machine.run("systemctl", "stop", "kamailio")


def in_lua(machine):
    """The site with its script in Lua, copied over the other one, which comes back in the end."""
    commands = site_commands(machine.root, "site-lua")
    expect(len(commands) == 2, f"the README has {commands}")
    for command in commands:
        machine.run("sh", "-c", command)
    site_calls.wait_ready(SERVER)
    machine.kamcmd("tarn_memdb.clear_tbl", "phones")
    site_calls.use(SERVER, machine.kamcmd)
    machine.run("systemctl", "stop", "kamailio")
    copy_site(machine.root)


def without_systemd(machine):
    """The other commands of the README, with its copies in place but nothing made of them."""
    shutil.rmtree(machine.root / DATA / "backup")
    machine.run("chown", "-R", "root:", f"/{DATA}")
    commands = site_commands(machine.root)[4:]
    programs = [command.split()[0] for command in commands]
    expect(programs == ["install", "chown", "kamailio"], f"the README has {commands}")
    for command in commands:
        machine.run("sh", "-c", command)
    site_calls.wait_ready(SERVER)
    with host_sip.Phone(SERVER, "erin") as erin:
        expect(erin.request("REGISTER", "sip:127.0.0.1").status == 200, "erin isn't registered")
    machine.kamcmd("tarn_memdb.sync", "phones")
    phones = (machine.root / DATA / "tables/phones.tbl").read_text()
    expect("\nerin|" in phones, "erin isn't stored")


def purge(machine):
    root = machine.root
    machine.run("apt-get", "purge", "-y", "tarn-memdb")
    for name in (MODULE, "usr/bin/tarn-memdb-check", DOC):
        expect(not (root / name).exists(), f"a purge leaves {name}")
    for name in (f"{CONFIG}/kamailio.cfg", f"{CONFIG}/schema.cfg", f"{DATA}/tables/phones.tbl"):
        expect((root / name).exists(), f"a purge takes {name}")


def main():
    if len(sys.argv) < 3:
        print(__doc__, file=sys.stderr)
        return 2
    folder = pathlib.Path(sys.argv[1]).resolve()
    root = folder / "root"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    machine = None
    try:
        step(f"a clean root of Debian {SUITE}")
        run("mmdebstrap", "--variant=minbase", f"--include={PACKAGES}", SUITE, root)
        step("the package")
        package = make_package(folder, root, sys.argv[2:])
        step(f"installing {package.name}, and one for another server, which has to be refused")
        install(root, folder, package)
        copy_site(root)
        step("booting it, and calls through its server")
        machine = Machine(root)
        use_site(machine)
        step("restarts")
        restart_site(machine)
        step("the site in Lua")
        in_lua(machine)
        step("the first site without systemd")
        without_systemd(machine)
        step("a purge")
        purge(machine)
    except Failed as failure:
        print(f"package-test: {failure}", file=sys.stderr)
        return 1
    finally:
        if machine:
            machine.stop()
        shutil.rmtree(root, ignore_errors=True)
    step("passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
