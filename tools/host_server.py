"""Starts, watches and stops a real SIP server in a directory of its own."""

import contextlib
import ctypes
import dataclasses
import itertools
import json
import os
import pathlib
import random
import re
import signal
import socket
import subprocess
import time

import host_sip

TOOLS = pathlib.Path(__file__).resolve().parent

# The level names as the server writes them.
LEVELS = ("ALERT", "BUG", "CRITICAL", "ERROR", "WARNING", "NOTICE", "INFO", "DEBUG")

# A message without a line end has the next one's prefix behind it on the same line.
_PREFIX = re.compile(r"[ ]?\d+\((?P<pid>\d+)\) (?P<level>" + "|".join(LEVELS) + r"): ")
_ORIGIN = re.compile(r"(?P<module>\S+) \[(?P<file>[^\]]*)\]: (?:(?P<function>[\w~]+)\(\): )?")


@dataclasses.dataclass(frozen=True)
class LogEntry:
    pid: int
    level: str
    module: str
    text: str  # whole, with its line end if it has one


class StartFailed(Exception):
    """The server gave up starting."""

    def __init__(self, status, log):
        super().__init__(f"the server ended with status {status} while starting")
        self.status = status
        self.log = log


class ServerTrouble(AssertionError):
    """The server didn't do in time what was waited for."""


def _die_with_parent():
    # Whatever ends the starter, even SIGKILL, ends the server.
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG


def _is_free(address, port):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        try:
            probe.bind((address, port))
        except OSError:
            return False
    return True


class PortLease:
    """A UDP port that no other server gets as long as the lease is held, in any process.

    It lies below the ports that clients are given. Without either, a server could fail to bind its
    port while another one, of another test, answers there in its place.
    """

    FIRST, LAST = 20000, 32000

    def __init__(self, address):
        ports = range(self.FIRST, self.LAST)
        start = random.randrange(len(ports))
        for port in (*ports[start:], *ports[:start]):
            self.holder = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
            try:
                # A name of the kernel's own, which is gone with its holder.
                self.holder.bind(f"\0tarn-host-{address}-{port}")
                if _is_free(address, port):
                    self.port = port
                    return
            except OSError:
                pass
            self.holder.close()
        raise ServerTrouble("found no free port to listen on")

    def release(self):
        self.holder.close()


class Server:
    """A server process and what belongs to it: its directory, log, port and control sockets.

    `compose` is called with this object and gives the configuration's text, in which the server
    has to listen on `port`, may open `ctl_socket` and `json_socket`, and has to answer a SIP
    request to the user `ready` once its workers run.
    """

    READY_USER = "ready"

    def __init__(self, directory, compose, kamailio=None, memory=16, private_memory=4):
        self.directory = pathlib.Path(directory)
        self.compose = compose
        self.kamailio = str(kamailio or TOOLS / "host-kamailio")
        self.memory = memory
        self.private_memory = private_memory
        self.address = "127.0.0.1"
        self.port = None
        self.lease = None
        self.process = None
        self.log_path = self.directory / "server.log"
        self.log_start = 0

    @property
    def ctl_socket(self):
        return self.directory / "ctl.sock"

    @property
    def json_socket(self):
        return self.directory / "json.sock"

    @property
    def running(self):
        return self.process is not None and self.process.poll() is None

    # Life

    def start(self, timeout=20.0):
        """Starts the server and waits until it answers; raises StartFailed if it gives up."""
        for _ in range(5):
            self.lease_port()
            self.launch()
            try:
                self.wait_ready(timeout)
                return self
            except StartFailed as failure:
                # A program that knows nothing of leases may have been faster.
                if "Address already in use" not in failure.log:
                    raise
        raise ServerTrouble("found no free port to listen on")

    def lease_port(self):
        """Gives the server a port of its own until it has ended."""
        self._release_port()
        self.lease = PortLease(self.address)
        self.port = self.lease.port

    def _release_port(self):
        if self.lease is not None:
            self.lease.release()
            self.lease = None

    def launch(self):
        assert not self.running, "the server runs already"
        config = self.directory / "kamailio.cfg"
        config.write_text(self.compose(self))
        self.log_start = self.log_path.stat().st_size if self.log_path.exists() else 0
        # Appended to, since all of the server's processes write to it at once.
        with open(self.log_path, "ab") as log:
            # It lives on, and what runs ahead of it calls prctl and nothing else.
            # pylint: disable-next=consider-using-with,subprocess-popen-preexec-fn
            self.process = subprocess.Popen(
                [self.kamailio, "-DD", "-E"]
                + ["-f", str(config), "-w", str(self.directory), "-Y", str(self.directory)]
                + ["-P", str(self.directory / "server.pid")]
                + ["-m", str(self.memory), "-M", str(self.private_memory)],
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                start_new_session=True,
                preexec_fn=_die_with_parent,
            )

    def wait_ready(self, timeout=20.0):
        end = time.monotonic() + timeout
        with self.phone("probe") as phone:
            while time.monotonic() < end:
                try:
                    # Short, since a request sent before the server listens is lost.
                    phone.request("OPTIONS", self.uri(self.READY_USER), timeout=0.05)
                except host_sip.NoReply:
                    pass
                else:
                    if self.running:
                        return
                if not self.running:
                    raise StartFailed(self._reap(), self.log())
        self.kill()
        raise ServerTrouble(f"the server didn't answer within {timeout} s")

    def stop(self, with_signal=signal.SIGTERM, timeout=20.0):
        """Stops the server in good order and gives back its exit status."""
        self.process.send_signal(with_signal)
        try:
            self.process.wait(0.5)
        except subprocess.TimeoutExpired:
            # A worker that has only just been forked takes the signal for the main process's
            # business and lives on, and the main process waits for it. It isn't new any more.
            os.killpg(self.process.pid, with_signal)
        try:
            self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            left = self._processes()
            self.kill()
            raise ServerTrouble(f"the server didn't end within {timeout} s:\n{left}") from None
        return self._reap()

    def _processes(self):
        """Where each of the server's processes is, and the end of its log."""
        said = []
        for folder in pathlib.Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                if os.getpgid(int(folder.name)) != self.process.pid:
                    continue
                status = dict(re.findall(r"(?m)^(\w+):\s*(.*)$", (folder / "status").read_text()))
                where = [(folder / name).read_text().strip() for name in ("wchan", "syscall")]
                shown = [status[name] for name in ("Name", "PPid", "State", "SigPnd", "ShdPnd")]
                said.append(" ".join([folder.name, *shown, *where]))
        return "\n".join([*sorted(said), *self.log().splitlines()[-20:]])

    def kill(self):
        """Ends the server at once, without a chance to store anything."""
        if self.process is not None:
            self._kill_group()
            self.process.wait()
        self._release_port()

    def _reap(self):
        # A main process that ended badly can leave workers behind.
        self._kill_group()
        self._release_port()
        return self.process.returncode

    def _kill_group(self):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, signal.SIGKILL)

    # SIP

    def uri(self, user):
        return f"sip:{user}@{self.address}:{self.port}"

    def phone(self, user="alice", domain="example.org", address="127.0.0.1"):
        return host_sip.Phone((self.address, self.port), user, domain, address)

    # Control

    def kamcmd(self, *arguments, timeout=20.0):
        """Runs kamcmd; gives back its exit status, output and error output."""
        done = subprocess.run(
            [str(TOOLS / "host-kamcmd"), "-s", f"unix:{self.ctl_socket}", *arguments],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=timeout,
            check=False,
        )
        return done.returncode, done.stdout, done.stderr

    def jsonrpc(self, method, *parameters, timeout=5.0):
        """Sends a JSON-RPC command; gives back the whole reply object."""
        own = self.directory / f"json.{os.getpid()}.{os.urandom(3).hex()}"
        request = {"jsonrpc": "2.0", "method": method, "id": 1}
        if parameters:
            request["params"] = list(parameters)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as client:
            client.bind(str(own))
            try:
                client.settimeout(timeout)
                self._send_when_bound(client, json.dumps(request).encode(), timeout)
                return json.loads(client.recv(1 << 20))
            finally:
                own.unlink()

    def _send_when_bound(self, client, data, timeout):
        # The command processes may come up a moment after the SIP workers.
        end = time.monotonic() + timeout
        while True:
            try:
                client.sendto(data, str(self.json_socket))
                return
            except (FileNotFoundError, ConnectionRefusedError):
                if time.monotonic() >= end:
                    raise
                time.sleep(0.01)

    # Log

    def log(self):
        """What this run of the server has written so far."""
        if not self.log_path.exists():
            return ""
        with open(self.log_path, "rb") as log:
            log.seek(self.log_start)
            return log.read().decode("utf-8", "replace")

    def wait_log(self, pattern, timeout=5.0, count=1):
        """Waits until the log holds `count` matches of a pattern; gives back the last match."""
        end = time.monotonic() + timeout
        while True:
            matches = list(re.finditer(pattern, self.log(), re.MULTILINE))
            if len(matches) >= count:
                return matches[count - 1]
            if time.monotonic() >= end:
                raise ServerTrouble(f"the log has no {pattern!r} after {timeout} s")
            time.sleep(0.01)

    def entries(self, module=None, level=None):
        """The log cut into messages, of one module and level if these are given."""
        return [
            entry
            for entry in parse_log(self.log())
            if (module is None or entry.module == module)
            and (level is None or entry.level == level)
        ]


def parse_log(text):
    """Cuts a log into its messages; a message may have several lines, or no line end."""
    starts = list(_PREFIX.finditer(text))
    entries = []
    for start, following in itertools.zip_longest(starts, starts[1:]):
        body = text[start.end() : following.start() if following else len(text)]
        origin = _ORIGIN.match(body)
        entries.append(
            LogEntry(
                pid=int(start["pid"]),
                level=start["level"],
                module=origin["module"] if origin else "",
                text=body[origin.end() :] if origin else body,
            )
        )
    return entries
