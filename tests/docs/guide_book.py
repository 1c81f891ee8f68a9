"""The guide as data: its sections, and the examples in them.

An example is a fenced code block. Its info string says what is done with it:

  kamailio   routing script, or configuration if it begins with loadmodule, modparam or #!define,
             or a block of its own if it begins with a route's name. Comments of the form
             `# $rc: 1` and `# $avp(to): text` tell the values that the script has at that place.
  console    shell commands behind `$ `, each followed by all that it prints
  jsonrpc    a request behind `--> ` and its reply behind `<-- `
  log        messages of the module, in order, as `LEVEL: text`
  schema, table, ranges
             a file, named by the comment `<!-- file: NAME -->` above the block
  kemi       lines for the script languages of the page kemi.md: each an expression, with what it
             gives in the comment behind it; they run in all of these languages
  lua, python, javascript, ruby
             lines of one of them, or a whole script if a file is named above
  text, sh, mermaid
             for reading only

The examples of one section share a server, which starts with the files of the page files.md unless
the section has its own. Comments above a block change what is done:

  <!-- refused -->   the server doesn't start with this block
  <!-- debug -->     the server logs debug lines
  <!-- stopped -->   the server doesn't run meanwhile
  <!-- restart -->   the server is stopped and started before it
  <!-- request: NAME: VALUE -->   a header of the request that runs the next script
  <!-- reply: STATUS -->   the status of the reply to it, 200 otherwise
  <!-- with: TITLE -->   the section has the files and the configuration of another one of its page
"""

import dataclasses
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCS = ROOT / "docs"
# The pages whose examples run. The other pages of docs/ aren't part of the guide.
PAGES = (
    "guide.md",
    "parameters.md",
    "functions.md",
    "rpc.md",
    "files.md",
    "queries.md",
    "ports.md",
    "operating.md",
    "convert.md",
    "production.md",
    "monitoring.md",
    "cluster.md",
    "architecture.md",
)
# The one whose examples are in other languages than the server's own.
KEMI_PAGE = "kemi.md"
SAMPLES = ("Schema file", "Table files", "Private range file")  # sections of files.md
RUN = ("kamailio", "console", "jsonrpc", "log")
FILES = ("schema", "table", "ranges")
LANGUAGES = ("kemi", "lua", "python", "javascript", "ruby")
READ = ("text", "sh", "mermaid")

_HEADING = re.compile(r"(#+) (.*)")
_MARK = re.compile(r"<!-- (\w+)(?:: (.*?))? -->")
_FENCE = re.compile(r"```(\S*)")


@dataclasses.dataclass
class Block:
    kind: str
    text: str
    line: int
    marks: list  # of (word, value or None), as they stand between this block and the one before

    def marked(self, word):
        return [value for name, value in self.marks if name == word]


@dataclasses.dataclass
class Section:
    page: str
    title: str
    level: int
    line: int
    blocks: list

    @property
    def name(self):
        return f"{self.page}:{self.line} {self.title}"

    @property
    def runs(self):
        return any(block.kind in RUN for block in self.blocks)

    @property
    def speaks(self):
        """Whether it has examples in other languages."""
        return any(block.kind in LANGUAGES for block in self.blocks)

    @property
    def other(self):
        """The section whose files and configuration this one has, too."""
        titles = [title for block in self.blocks for title in block.marked("with")]
        return next((section for section in page(self.page) if section.title in titles), None)

    @property
    def files(self):
        given = self.other.files if self.other else {}
        return given | {
            name: block.text
            for block in self.blocks
            if block.kind in FILES
            for name in block.marked("file")
        }


def sections(path):
    """Cuts a page at its headings."""
    found = [Section(path.name, "", 0, 1, [])]
    marks, inside = [], None
    for number, line in enumerate(path.read_text().splitlines(), start=1):
        if inside is not None:
            if line == "```":
                found[-1].blocks.append(inside)
                inside = None
            else:
                inside.text += line + "\n"
        elif fence := _FENCE.fullmatch(line):
            inside = Block(fence[1], "", number, marks)
            marks = []
        elif heading := _HEADING.fullmatch(line):
            assert not marks, f"{path.name}:{number}: {marks} stands above no block"
            found.append(Section(path.name, heading[2], len(heading[1]), number, []))
        else:
            marks += _MARK.findall(line)
    assert inside is None, f"{path.name}: a code block has no end"
    return found


def text_of(section):
    """All that stands in a section, examples included."""
    lines = (DOCS / section.page).read_text().splitlines(keepends=True)
    later = [other.line for other in page(section.page) if other.line > section.line]
    return "".join(lines[section.line : later[0] - 1 if later else None])


def without_code(path):
    return re.sub(r"(?ms)^```.*?^```$|`[^`\n]*`", "", path.read_text())


def page(name):
    return sections(DOCS / name)


def guide():
    return [section for name in (*PAGES, KEMI_PAGE) for section in page(name)]


def sample_files():
    """The files that every server starts with."""
    files = {}
    for section in page("files.md"):
        if section.title in SAMPLES:
            files.update(section.files)
    return files
