"""The server's other script languages: scripts of functions in each, and the lines that load them.

Functions are given as expressions that all of them read alike, such as `KSR.pv.get("$rU")`; Ruby
alone has its own way to write a module's name, which is put in its place.
"""

import dataclasses
import functools
import os
import pathlib
import re
import shlex
import subprocess

TOOLS = pathlib.Path(__file__).resolve().parents[2] / "tools"
NULL = "<null>"  # how a script shows that there is no value


@dataclasses.dataclass(frozen=True)
class Engine:
    """`show` is the script's helper that puts a value into the reply. A function's lines stand
    between `opening`, with its name, and `closing`; `joined` is a text with a number in it."""

    name: str
    module: str
    suffix: str
    run: str  # calls a function, by its name, from the server's own script
    reload: str  # the RPC command
    show: str
    opening: str
    closing: str
    loop: tuple  # the line ahead of and behind its lines; `i` goes from 0, a number of turns
    joined: str
    null: str
    indent: str = "    "
    declares: str = ""  # ahead of the first value of a variable of the function's own
    params: tuple = ()
    gives_texts: bool = True  # whether functions that give texts do so

    def line(self, expression):
        """An expression in this language."""
        if self.name != "ruby":
            return expression
        return re.sub(r"\bKSR\.(\w+)\.", lambda match: f"KSR::{match[1].upper()}.", expression)

    def shown(self, expression):
        """The line that shows what an expression comes to."""
        return f"show({self.line(expression)})"

    def script(self, functions):
        """A script of functions, by name, each a list of lines of the language."""
        text = self.show
        for name, lines in functions.items():
            text += self.opening.format(name) + "\n"
            text += "".join(f"{self.indent}{line}\n" for line in lines)
            text += self.closing + "\n"
        return text

    def repeated(self, turns, lines):
        """The lines of a loop."""
        opening, closing = self.loop
        return [opening.format(turns), *(f"    {line}" for line in lines), closing]

    def join(self, before, number, after=""):
        """The expression of a text with a number in it."""
        return self.joined.format(before, number, after)

    def load(self, path):
        """The lines of the server's configuration that load a script."""
        return [f'modparam("{self.module}", "load", "{path}")', *self.params]

    def call(self, name):
        return f'{self.run}("{name}")'


LUA = Engine(
    name="lua",
    module="app_lua",
    suffix="lua",
    run="lua_run",
    reload="app_lua.reload",
    show="""\
function show(value)
    if value == nil then value = "<null>" end
    KSR.hdr.append_to_reply("X-Show: [" .. tostring(value) .. "]\\r\\n")
end
""",
    opening="function {}()",
    closing="end",
    loop=("for i = 0, {} - 1 do", "end"),
    joined='"{}" .. {} .. "{}"',
    null="nil",
    declares="local ",
)
PYTHON = Engine(
    name="python",
    module="app_python3",
    suffix="py",
    run="python_exec",
    reload="app_python.reload",
    show="""\
import KSR

def show(value):
    if value is None: value = "<null>"
    if isinstance(value, bool): value = str(value).lower()
    KSR.hdr.append_to_reply(f"X-Show: [{value}]\\r\\n")

def mod_init():
    return Script()

class Script:
    def child_init(self, rank):
        return 0
""",
    opening="    def {}(self, msg):",
    closing="        return 1",
    loop=("for i in range({}):", ""),
    joined='"{}" + str({}) + "{}"',
    null="None",
    indent="        ",
)
JAVASCRIPT = Engine(
    name="javascript",
    module="app_jsdt",
    suffix="js",
    run="jsdt_run",
    reload="app_jsdt.reload",
    show="""\
function show(value) {
    if (value === null) value = "<null>";
    KSR.hdr.append_to_reply("X-Show: [" + value + "]\\r\\n");
}
""",
    opening="function {}() {{",
    closing="}",
    loop=("for (var i = 0; i < {}; i++) {{", "}"),
    joined='"{}" + {} + "{}"',
    null="null",
    declares="var ",
)
RUBY = Engine(
    name="ruby",
    module="app_ruby",
    suffix="rb",
    run="ruby_run",
    reload="app_ruby.reload",
    show="""\
def show(value)
    value = "<null>" if value.nil?
    KSR::HDR.append_to_reply("X-Show: [#{value}]\\r\\n")
end
""",
    opening="def {}()",
    closing="end",
    loop=("for i in 0...{} do", "end"),
    joined='"{}" + {}.to_s + "{}"',
    null="nil",
    # With its default a worker ends when a function gives a text.
    params=('modparam("app_ruby", "xval_mode", 0)',),
    gives_texts=False,
)
ENGINES = (LUA, PYTHON, JAVASCRIPT, RUBY)


@functools.cache
def found_host():
    """What tools/host-root.sh tells of the server."""
    told = subprocess.run(
        [str(TOOLS / "host-root.sh")], check=True, capture_output=True, text=True
    ).stdout
    return dict(word.split("=", 1) for word in shlex.split(told))


def is_there(engine):
    """False only for a server of somebody else's making that lacks the language's module."""
    host = found_host()
    return host["HOST_KIND"] == "unpacked" or os.path.isfile(
        f"{host['HOST_MODULES']}/{engine.module}.so"
    )


def engines_there():
    return [engine for engine in ENGINES if is_there(engine)]
