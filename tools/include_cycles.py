"""Fails if the module's files include each other in a circle, or memdb/ includes another folder."""

import pathlib
import re
import sys

FOLDERS = ("memdb", "tables", "query", "script", "ports", "rpc", "host")
INCLUDE = re.compile(r'^#include "([^"]+)"', re.MULTILINE)


def includes(top):
    files = [p for folder in FOLDERS for p in (top / folder).glob("*") if p.suffix in (".h", ".cpp")]
    return {
        str(path.relative_to(top)): INCLUDE.findall(path.read_text())
        for path in files
    }


def find_circle(graph):
    done, trail = set(), []

    def visit(name):
        if name in trail:
            return trail[trail.index(name):] + [name]
        if name in done:
            return None
        trail.append(name)
        for other in graph.get(name, ()):
            if circle := visit(other):
                return circle
        done.add(trail.pop())
        return None

    for name in graph:
        if circle := visit(name):
            return circle
    return None


def main():
    graph = includes(pathlib.Path(__file__).resolve().parent.parent)
    circle = find_circle(graph)
    if circle:
        sys.exit("circle: " + " -> ".join(circle))
    for name, others in graph.items():
        strays = [o for o in others if name.startswith("memdb/") and not o.startswith("memdb/")]
        if strays:
            sys.exit(f"{name} includes {strays[0]}")


main()
