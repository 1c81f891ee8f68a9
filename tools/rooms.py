#!/usr/bin/python3 -B
"""The rooms of the module's source, as rooms.txt lists them.

rooms.py check    fails if a file includes upwards or in a circle or is in no room, or one is full
rooms.py sources  the .cpp files of all rooms, a line each
rooms.py pattern  a regular expression for paths in a room
"""

import collections
import pathlib
import re
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent
INCLUDE = re.compile(r'^#include "([^"]+)"', re.MULTILINE)
MOST_FILES = 20  # that a reader takes in at a glance


def listed_rooms():
    lines = (TOP / "rooms.txt").read_text().splitlines()
    return [line for line in lines if line and not line.startswith("#")]


def room_of(name):
    return name.rpartition("/")[0]


def includes(rooms):
    """What each file of the module's wings includes of them, by name."""
    wings = {room.partition("/")[0] for room in rooms}
    graph = {}
    for wing in sorted(wings):
        for path in sorted((TOP / wing).rglob("*")):
            if path.suffix in (".h", ".cpp"):
                found = INCLUDE.findall(path.read_text())
                graph[str(path.relative_to(TOP))] = [
                    name for name in found if name.partition("/")[0] in wings
                ]
    return graph


def find_circle(graph):
    done, trail = set(), []

    def visit(name):
        if name in trail:
            return trail[trail.index(name) :] + [name]
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


def complaints(rooms):
    graph = includes(rooms)
    rank = {room: at for at, room in enumerate(rooms)}
    full = collections.Counter(room_of(name) for name in graph)
    for name, others in graph.items():
        if room_of(name) not in rank:
            yield f"{name} lies in no room of rooms.txt"
            continue
        for other in others:
            # host/version.h is made by the build.
            if rank.get(room_of(other), -1) < rank[room_of(name)]:
                yield f"{name} includes {other}, which lies above it"
            if name.startswith("memdb/") and not other.startswith("memdb/"):
                yield f"{name} includes {other}: the engine stands alone"
    for room in rooms:
        if not full[room]:
            yield f"{room} is an empty room"
        elif full[room] > MOST_FILES:
            yield f"{room} holds {full[room]} files, more than {MOST_FILES}"
    if circle := find_circle(graph):
        yield "circle: " + " -> ".join(circle)


def main():
    rooms = listed_rooms()
    match sys.argv[1:]:
        case ["check"]:
            if told := list(complaints(rooms)):
                sys.exit("\n".join(told))
        case ["sources"]:
            for room in rooms:
                for path in sorted((TOP / room).glob("*.cpp")):
                    print(path.relative_to(TOP))
        case ["pattern"]:
            print("(" + "|".join(map(re.escape, rooms)) + ")/[a-z_]+\\.(h|cpp)$")
        case _:
            sys.exit(__doc__)


main()
