#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
# What a screen reader sees of one application, for the desktop tests:
#   atspi_query.py APP find NAME [N] -> "x y width height" (screen pixels) of the first (or N-th,
#                                     from 0) showing accessible called NAME, exit 1 when there is none
#   atspi_query.py APP focused     -> the name of the accessible that has the keyboard focus, exit 1 when
#                                     none has
#   atspi_query.py APP watch NAME  -> the description of the showing accessible called NAME, a line
#                                     each time it changes (empty while there is none), until its
#                                     standard input closes
import itertools
import select
import sys

import pyatspi


def children(node):
    return (c for c in map(node.getChildAtIndex, range(node.childCount)) if c is not None)


def application(name):
    return next((app for app in children(pyatspi.Registry.getDesktop(0)) if app.name == name), None)


def walk(node):
    yield node
    for child in children(node):
        yield from walk(child)


def showing(node):
    return node.getState().contains(pyatspi.STATE_SHOWING)


def find(app, wanted, skip=0):
    matches = (node for node in walk(app) if node.name == wanted and showing(node))
    return next(itertools.islice(matches, skip, None), None)


def watch(app, wanted):
    node, last = None, None
    while True:
        try:
            if node is None or not showing(node):
                node = find(app, wanted)
            description = node.description if node is not None else ""
        except Exception:  # the accessible went away between two calls
            node, description = None, ""
        if description != last:
            print(description, flush=True)
            last = description
        if select.select([sys.stdin], [], [], 0.02)[0] and not sys.stdin.read(1):
            return 0


def main():
    app_name, command = sys.argv[1], sys.argv[2]
    app = application(app_name)
    if app is None:
        print(f"no application {app_name!r} on the accessibility bus", file=sys.stderr)
        return 2
    if command == "watch":
        return watch(app, sys.argv[3])
    if command == "focused":
        # Focus scopes around the control count as focused too: the deepest is the control.
        focused = [node for node in walk(app)
                   if node.getState().contains(pyatspi.STATE_FOCUSED) and showing(node)]
        if not focused:
            return 1
        print(focused[-1].name)
        return 0
    node = find(app, sys.argv[3], int(sys.argv[4]) if len(sys.argv) > 4 else 0)
    if node is None:
        return 1
    extents = node.queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
    print(extents.x, extents.y, extents.width, extents.height)
    return 0


if __name__ == "__main__":
    sys.exit(main())
