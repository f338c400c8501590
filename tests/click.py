#!/usr/bin/python3
"""Looks at a screen, and clicks on it, as the user of a desktop would: what is shown is found by the role and the name
that it tells screen readers, and clicked with the mouse.

click.py see ROLE PATTERN | click ROLE PATTERN [BUTTON]: waits until it shows; exits with 1 when it does not come."""

import re
import subprocess
import sys
import time

import gi

gi.require_version("Atspi", "2.0")
from gi.repository import Atspi, GLib

PATIENCE = 20  # seconds


def below(thing):
    yield thing
    for i in range(thing.get_child_count()):
        if child := thing.get_child_at_index(i):
            yield from below(child)


def shown(role, pattern):
    """Its middle; None while it does not show. What goes away meanwhile makes the look a new one."""
    try:
        for thing in below(Atspi.get_desktop(0)):
            if thing.get_role_name() != role or not pattern.fullmatch(thing.get_name() or ""):
                continue
            if not thing.get_state_set().contains(Atspi.StateType.SHOWING):
                continue
            place = thing.get_extents(Atspi.CoordType.SCREEN)
            if place.width > 1:
                return place.x + place.width // 2, place.y + place.height // 2
    except GLib.Error:
        pass
    return None


def wait_for(role, pattern):
    deadline = time.monotonic() + PATIENCE
    before = None
    while time.monotonic() < deadline:
        now = shown(role, pattern)
        if now and now == before:  # it has come to rest
            return now
        before = now
        time.sleep(0.1)
    sys.exit(f"no {role} named {pattern.pattern} shows")


action, role, pattern, *button = sys.argv[1:]
place = wait_for(role, re.compile(pattern))
if action == "click":
    subprocess.run(["xdotool", "mousemove", *map(str, place), "click", *(button or ["1"])], check=True)
