"""What the log, a reply or a fault says stands whole in the source, in one place.

texts.txt holds every text as it stands there, behind its level where the call names one. Log
filters and operators' tools match these texts: a change of the list is a change that they see.
`test_texts.py update` writes the list anew.
"""

import collections
import pathlib
import re
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent.parent
LIST = pathlib.Path(__file__).with_name("texts.txt")

PIECE = r'"(?:[^"\\\n]|\\.)*"'
LITERAL = re.compile(rf"{PIECE}(?:\s*{PIECE})*")
PIECES = re.compile(rf"{PIECE}\s*{PIECE}")
LEVEL = re.compile(r"\b(LM_(?!TEXT)\w+)\(\s*$")
COMMENT_OR_LITERAL = re.compile(rf"({PIECE})|//[^\n]*")
CALL = re.compile(r"\b(LM_(?!TEXT)\w+|HOST_LOG|MEMDB_LOG|send_line|fault)\(")

# Words of a reply.
WORDS = {"TABLE:", "Yes", "No"}

# Literals with blanks that nobody reads as a text of their own.
NO_TEXTS = {
    "%2d(%d) ",  # ahead of every line, as the host does
    "%s: %.*s",
    " [%s:%d]: %s(): ",
    " [%s:%d]: ",
    "Version 1",  # the first line of a table file
    ': \\"',  # around the values of a paragraph of show_p
    '\\"\\n',
}


def module_files():
    lines = (TOP / "rooms.txt").read_text().splitlines()
    for room in [line for line in lines if line and not line.startswith("#")]:
        yield from sorted((TOP / room).glob("*.cpp"))
        yield from sorted((TOP / room).glob("*.h"))


def code_of(path):
    """The file without comments and preprocessor includes."""
    text = COMMENT_OR_LITERAL.sub(lambda match: match.group(1) or "", path.read_text())
    return re.sub(r"^#include.*$", "", text, flags=re.MULTILINE)


def joined(literal):
    return "".join(piece[1:-1] for piece in re.findall(PIECE, literal))


def is_text(literal):
    return literal in WORDS or (
        literal not in NO_TEXTS and (" " in literal or literal.endswith("\\n"))
    )


def places_of_texts():
    """Each text, behind the level that its call names, with the files it stands in."""
    places = collections.defaultdict(list)
    for path in module_files():
        code = code_of(path)
        for match in LITERAL.finditer(code):
            text = joined(match.group())
            if is_text(text):
                level = LEVEL.search(code, 0, match.start())
                line = f"{level.group(1) if level else '-'} {text}"
                places[line].append(str(path.relative_to(TOP)))
    return places


def arguments(code, start):
    """The text between a call's brackets; start is behind the opening one."""
    depth, at = 1, start
    while depth > 0:
        literal = LITERAL.match(code, at)
        if literal:
            at = literal.end()
            continue
        depth += {"(": 1, ")": -1}.get(code[at], 0)
        at += 1
    return code[start : at - 1]


def calls_that_say_something():
    for path in module_files():
        code = code_of(path)
        for match in CALL.finditer(code):
            yield str(path.relative_to(TOP)), match.group(1), arguments(code, match.end())


def test_each_text_stands_once_in_the_source():
    places = collections.defaultdict(list)
    for line, where in places_of_texts().items():
        places[line.partition(" ")[2]] += where
    assert not {text: where for text, where in places.items() if len(where) > 1}


def test_no_text_is_cut_into_pieces():
    cut = [
        (str(path.relative_to(TOP)), match.group())
        for path in module_files()
        if path.name != "log.h"  # whose pieces are the head that the host puts ahead of each line
        for match in PIECES.finditer(code_of(path))
    ]
    assert not cut


def test_the_texts_are_those_of_the_list():
    assert sorted(places_of_texts()) == LIST.read_text().splitlines()


def test_no_call_puts_a_text_together_from_literals():
    together = [
        (path, call)
        for path, _, call in calls_that_say_something()
        if len(LITERAL.findall(call)) > 1
    ]
    assert not together


def test_no_log_line_or_fault_is_a_bare_conversion():
    bare = [
        (path, call)
        for path, function, call in calls_that_say_something()
        # Lines of a reply may be a table's or a command's name.
        if function != "send_line" and re.search(r'"%s(?:\\n)?"', call)
    ]
    assert not bare


if __name__ == "__main__" and sys.argv[1:] == ["update"]:
    LIST.write_text("".join(f"{text}\n" for text in sorted(places_of_texts())))
