#!/usr/bin/env python3
"""check-rooms.py BUILD: holds the house that CMake builds (BUILD/rooms.txt) against the sources and the picture.

Fails when a file includes a room that its own library does not link, when a room links one that none of its files
includes, when rooms link in a circle, and when the arrows in docs/architecture.md are not the links. With --picture it
prints the arrows for that page instead.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs/architecture.md"
# The product itself: it names the entries of all top rooms, and is no room.
PRODUCT = {"src/provider/function_table.cpp", "src/provider/dll_main.cpp"}
PICTURE = re.compile(r"<!-- rooms -->.*?<!-- /rooms -->", re.S)
INCLUDE = re.compile(r'^\s*#include "([^"]+)"', re.M)


def read_links(build):
    links = {}
    for line in (pathlib.Path(build) / "rooms.txt").read_text().splitlines():
        room, _, below = line.partition(":")
        links[room] = [other for other in re.split(r"[;\s]+", below.strip()) if other]
    return links


def room_of(path, rooms):
    """The room of a file, given below src/: the longest folder of that name."""
    folder = pathlib.PurePosixPath(path).parent
    while str(folder) != ".":
        if str(folder) in rooms:
            return str(folder)
        folder = folder.parent
    return None


def included_rooms(rooms):
    """For each room the rooms that its files include, and a file that does."""
    found = {room: {} for room in rooms}
    for file in sorted((ROOT / "src").rglob("*")):
        name = file.relative_to(ROOT).as_posix()
        if file.suffix not in (".h", ".cpp", ".rc") or name in PRODUCT:
            continue
        own = room_of(file.relative_to(ROOT / "src").as_posix(), rooms)
        if own is None:
            report(f"{name} lies in no room")
            continue
        for include in INCLUDE.findall(file.read_text()):
            other = room_of(include, rooms)
            if other is not None and other != own:
                found[own].setdefault(other, name)
    return found


problems = []


def report(text):
    problems.append(text)


def reduced(links):
    """The links without those that others imply, so that the picture can be taken in at a glance."""
    def reachable(room, seen):
        for other in links[room]:
            if other not in seen:
                seen.add(other)
                reachable(other, seen)
        return seen

    return {room: sorted(other for other in below
                         if not any(other in reachable(third, set()) for third in below if third != other))
            for room, below in links.items()}


def arrows(links):
    return {f"{name(room)} --> {name(other)}" for room, below in reduced(links).items() for other in below}


def name(room):
    return room.replace("/", "_")


def main():
    links = read_links(next(word for word in sys.argv[1:] if not word.startswith("--")))
    if "--picture" in sys.argv:
        print("\n".join(f"  {arrow}" for arrow in sorted(arrows(links))))
        return 0
    order = list(links)
    for room, below in links.items():
        for other in below:
            if other not in links:
                report(f"{room} links {other}, which is no room")
            elif order.index(other) > order.index(room):
                report(f"{room} links {other}, which stands on a higher floor")
    for room, others in included_rooms(links).items():
        for other, file in others.items():
            if other not in links[room]:
                report(f"{file} includes {other}, which room {room} does not link")
        for other in links[room]:
            if other not in others:
                report(f"room {room} links {other}, which none of its files includes")
    drawn = set(re.findall(r"^\s*(\w+ --> \w+)\s*$", PICTURE.search(PAGE.read_text()).group(), re.M))
    for arrow in sorted(arrows(links) - drawn):
        report(f"{PAGE.name} lacks the arrow {arrow}")
    for arrow in sorted(drawn - arrows(links)):
        report(f"{PAGE.name} draws {arrow}, which CMake does not link")
    print("\n".join(problems))
    return 1 if problems else 0


if sys.argv[1:] == ["--help"]:
    print(__doc__)
    sys.exit()
sys.exit(main())
