#!/usr/bin/python3
# Reads the inspector's figures the way a screen reader does, over AT-SPI: the spectrum view's
# description and the Info panel's value labels (named by row and channel, the value as
# description). Prints "name = description" for each and exits 0 once every expectation holds,
# 1 when they still fail after the time allowed.
# Usage: read-accessibility.py SECONDS NAME=REGEX...
import re
import sys
import time

import pyatspi
from gi.repository import Atspi


def walk(node, found, depth=0):
    if node is None or depth > 40:
        return
    try:
        name = node.name or ""
        description = node.description or ""
        if name:
            found.setdefault(name, []).append(description)
        for index in range(node.childCount):
            walk(node.getChildAtIndex(index), found, depth + 1)
    except Exception:  # a widget that went away while we read: read again next round
        pass


def harlune():
    desktop = pyatspi.Registry.getDesktop(0)
    for index in range(desktop.childCount):
        app = desktop.getChildAtIndex(index)
        if app is not None and (app.name or "").lower() == "harlune":
            # Rows made after the first read (the figures of a finished measurement) reach a
            # client only as events it did not subscribe to: read the tree afresh each round.
            app.set_cache_mask(Atspi.Cache.NONE)
            app.clear_cache()
            return app
    return None


def main():
    seconds = float(sys.argv[1])
    expected = dict(arg.split("=", 1) for arg in sys.argv[2:])
    deadline = time.monotonic() + seconds
    found = {}
    while time.monotonic() < deadline:
        found = {}
        app = harlune()
        if app is not None:
            walk(app, found)
            matches = {name: [d for d in found.get(name, []) if re.fullmatch(pattern, d)]
                       for name, pattern in expected.items()}
            if all(matches.values()):
                for name, values in matches.items():
                    print(f"{name} = {values[0]}")
                return 0
        time.sleep(0.5)
    for name, pattern in expected.items():
        print(f"{name}: wanted {pattern!r}, found {found.get(name)!r}", file=sys.stderr)
    return 1


sys.exit(main())
