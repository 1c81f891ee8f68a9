"""A server that runs the examples of one section."""

import json
import os
import random
import re
import shlex
import subprocess

from module_host import MODULE_NAME, host_server

# Where the guide puts things, and where they are in the directory of a server.
PLACES = (
    ("/etc/kamailio/tarn_memdb/", "etc/"),
    ("/var/lib/kamailio/tarn_memdb/", "var/"),
    ("/var/log/kamailio.log", "server.log"),
)
MODULES = ("pv", "tm", "sl", "textops", "xlog", "kex", "ctl", "jsonrpcs")
CALLEE = "bob"
CONFIGURATION = ("loadmodule ", "modparam(", "#!define ")
# The network between nodes, of which each server has one for itself.
NODES = "10.9.0."
WEB = "127.0.0.1:8080"  # where the guide's servers talk HTTP

_SHOWN = re.compile(r"(\s*)# (\$.+?): (.*)")
_TOP_LEVEL = re.compile(r"(request_route|\w*route(\[[^\]]*\])?)\s*\{")


def expect(got, wanted, of=""):
    assert got == wanted, f"got {of}\n{_listed(got)}\ninstead of\n{_listed(wanted)}"


def _listed(what):
    return "\n".join(f"    {item}" for item in (what if isinstance(what, list) else [what]))


def is_configuration(block):
    return block.kind == "kamailio" and block.text.startswith(CONFIGURATION)


def is_route(block):
    return block.kind == "kamailio" and _TOP_LEVEL.match(block.text)


def is_script(block):
    return block.kind == "kamailio" and not is_configuration(block) and not is_route(block)


def shown(block):
    """The values that a script tells, as (pseudo-variable, value)."""
    return [
        (match[2], "" if match[3] == '""' else match[3])
        for match in map(_SHOWN.fullmatch, block.text.splitlines())
        if match
    ]


def _instrumented(block):
    """A script that appends to the reply what its comments tell."""
    lines, in_group = [], False
    for line in block.text.splitlines():
        match = _SHOWN.fullmatch(line)
        if match and not in_group:
            # The appending sets a return code itself.
            lines.append("  $var(told_rc) = $rc;")
        in_group = bool(match)
        if match:
            what = "$var(told_rc)" if match[2] == "$rc" else match[2]
            lines.append(f'  append_to_reply("X-Told: [{what}]\\r\\n");')
        else:
            lines.append("  " + line)
    return "\n".join(lines) + "\n"


class ExampleServer(host_server.Server):
    """`blocks` are those that go into the configuration, `files` what the server starts with."""

    def __init__(self, directory, files, blocks, debug=False):
        super().__init__(directory, self._config)
        self.blocks = [block for block in blocks if block.kind == "kamailio"]
        self.debug = debug
        nodes = f"127.{random.randrange(64, 250)}.{random.randrange(1, 250)}."
        self.places = (*PLACES, (NODES, nodes))
        for place in ("etc", "var/tables", "var/backup", "bin"):
            (self.directory / place).mkdir(parents=True, exist_ok=True)
        (self.directory / "etc" / "cluster").symlink_to(host_server.TOOLS.parent / "cluster")
        for name, text in files.items():
            where = self.directory / ("var" if "/" in name else "etc") / name
            where.write_text(self.local(text))
        client = self.directory / "bin" / "kamcmd"
        real = host_server.TOOLS / "host-kamcmd"
        client.write_text(
            f'#!/bin/sh\nexec {shlex.quote(str(real))} -s "unix:{self.ctl_socket}" "$@"\n'
        )
        client.chmod(0o755)
        for tool in ("CHECK", "CONVERT"):
            program = self.directory / "bin" / f"tarn-memdb-{tool.lower()}"
            program.symlink_to(os.environ[f"TARN_{tool}"])

    def local(self, text):
        for place, own in self.places:
            text = text.replace(place, self._own(own))
        text = text.replace(WEB, f"{self.address}:{self.port}")
        return text.replace('"tarn_memdb.so"', f'"{os.environ["TARN_MODULE"]}"')

    def told(self, text):
        for place, own in self.places:
            text = text.replace(self._own(own), place)
        return text

    def _own(self, place):
        return place if place.startswith("127.") else f"{self.directory}/{place}"

    # Configuration

    def _config(self, _):
        given = "".join(block.text for block in self.blocks if is_configuration(block))
        lines = [
            "#!KAMAILIO",
            f"debug={3 if self.debug else 2}",
            "log_stderror=yes",
            "children=1",
            *(() if "listen=tcp:" in given else ("disable_tcp=yes",)),
            "auto_aliases=no",
            "disable_core_dump=yes",
            f"listen=udp:{self.address}:{self.port}",
        ]
        # A section that loads the module itself decides about pv too, and comes first.
        loads_itself = 'loadmodule "tarn_memdb.so"' in given
        if loads_itself:
            lines.append(given)
        for name in MODULES:
            if not (loads_itself and name == "pv"):
                lines.append(f'loadmodule "{name}.so"')
        lines += [
            f'modparam("ctl", "binrpc", "unix:{self.ctl_socket}")',
            'modparam("jsonrpcs", "transport", 4)',
            f'modparam("jsonrpcs", "dgram_socket", "{self.json_socket}")',
        ]
        if not loads_itself:
            lines += [
                'loadmodule "tarn_memdb.so"',
                'modparam("tarn_memdb", "cfg_file_path", "/etc/kamailio/tarn_memdb/schema.cfg")',
                'modparam("tarn_memdb", "private_ranges_file_path",'
                ' "/etc/kamailio/tarn_memdb/private_ranges.txt")',
                'modparam("tarn_memdb", "store_tbl_interval", 3600)',
                given,
            ]
        # Pseudo-variables come from pv: without it not even the script would be read.
        calls = not loads_itself or "pv.so" in given
        script = self._script() if calls else "request_route { exit; }"
        return self.local("\n".join([*lines, script, ""]))

    def _script(self):
        scripts = [block for block in self.blocks if is_script(block)]
        lines = ["request_route {", f'  if ($rU == "{self.READY_USER}") {{']
        lines += ['    sl_send_reply("200", "ready");', "    exit;", "  }"]
        for block in scripts:
            lines.append(f'  if ($hdr(X-Example) == "{block.line}") route(EXAMPLE_{block.line});')
        lines += ['  sl_send_reply("404", "no such example");', "}", ""]
        for block in scripts:
            lines.append(f"route[EXAMPLE_{block.line}] {{")
            lines += [_instrumented(block), '  sl_send_reply("200", "ran");', "  exit;", "}", ""]
        lines += [block.text for block in self.blocks if is_route(block)]
        return "\n".join(lines)

    # Examples

    def run(self, block):
        getattr(self, f"_run_{block.kind}")(block)

    def _run_kamailio(self, block):
        if not is_script(block):
            return
        headers = {"X-Example": str(block.line)}
        for header in block.marked("request"):
            name, _, value = header.partition(": ")
            headers[name] = value
        with self.phone("alice", "example.net") as phone:
            reply = phone.request("OPTIONS", self.uri(CALLEE), headers)
        expect(str(reply.status), (block.marked("reply") or ["200"])[0])
        told = shown(block)
        wanted = [f"{name}: {value}" for name, value in told]
        got = [value[1:-1] for value in reply.all("x-told")]
        # A script that goes another way than it should tells fewer values, or more.
        names = [name for name, _ in told] + ["?"] * (len(got) - len(told))
        expect([f"{name}: {value}" for name, value in zip(names, got, strict=False)], wanted)

    def _run_console(self, block):
        for command in re.findall(r"(?m)^\$ (.*(?:\n(?!\$ ).*)*)", block.text):
            line, *wanted = command.rstrip("\n").split("\n")
            while line.endswith("\\"):
                line = line[:-1] + wanted.pop(0).lstrip("> ")
            done = subprocess.run(
                ["bash", "-c", self.local(line)],
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT,
                text=True,
                check=False,
                timeout=20,
                env={**os.environ, "PATH": f"{self.directory}/bin:{os.environ['PATH']}"},
            )
            got = [text.rstrip() for text in self.told(done.stdout).rstrip("\n").split("\n")]
            expect(got, [text.rstrip() for text in (wanted or [""])], f"of {line!r}")

    def _run_jsonrpc(self, block):
        lines = block.text.splitlines()
        for request, reply in zip(lines[::2], lines[1::2], strict=True):
            assert request.startswith("--> ") and reply.startswith("<-- ")
            asked = json.loads(request[4:])
            got = self.jsonrpc(asked["method"], *asked.get("params", ()))
            expect(got, json.loads(reply[4:]))

    def _run_log(self, block):
        said = iter(
            f"{entry.level}: {self.told(entry.text).rstrip()}"
            for entry in self.entries(MODULE_NAME)
        )
        for line in block.text.splitlines():
            assert line.rstrip() in said, f"the log doesn't say, or not in this order: {line!r}"
