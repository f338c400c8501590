"""What another device of the account does, straight on the server, for kill_edits_test.sh.

other_device.py STATE SERVER KEY-FILE SEED lines    adds lines to the files shared/log* until SIGTERM
other_device.py STATE SERVER KEY-FILE SEED clash    changes files in "shared" that the writers have, while they do not run:
                                                    what it did is in STATE/clashes for compare_edits.py
"""
import http.client
import os
import pickle
import random
import signal
import sys
import time

from account import Account, Refused
from edit_writer import LOGS, Journal, load, owner
from shadow import MISSING, stays_here

WRITERS = (1, 2, 3)


def add_lines(account, state, generator):
    lines = Journal(os.path.join(state, "other.lines"))
    going_on = [True]
    signal.signal(signal.SIGTERM, lambda *_: going_on.clear())
    while going_on:
        line = "other-%d" % time.time_ns()
        try:
            entry, contents = account.read(account.find("shared/log %d.txt" % generator.randrange(LOGS))["id"])
            account.replace(entry, contents + b"%s\n" % line.encode())
            lines.note(line)
        except (Refused, OSError, http.client.HTTPException):
            pass  # somebody was quicker, or the service is away
        time.sleep(generator.uniform(0.05, 0.4))


# What the writers see, and who of them knows what he has done: not those whose last change was cut off.
def writers_trees(state):
    tree, certain = {}, set()
    for number in WRITERS:
        own, cut, _ = load(os.path.join(state, "writer-%d" % number))
        tree.update(own)
        if not cut:
            certain.add(number)
    return tree, certain


def clash(account, state, generator):
    here, certain = writers_trees(state)
    there = account.tree("shared")
    paths = sorted(path for path in here.keys() | there.keys()
                   if path.startswith("shared/") and owner(path) in certain and not stays_here(path))
    clashes = []
    for path in generator.sample(paths, min(6, len(paths))):
        folder = path.rpartition("/")[0]
        was = there.get(path, MISSING)
        theirs = b"other device %d\n" % time.time_ns()
        kind = None
        if isinstance(was, bytes) and generator.random() < 0.25:
            account.remove(account.find(path))
            kind, theirs = "removed", None
        elif isinstance(was, bytes):
            theirs = was + theirs
            account.replace(account.find(path), theirs)
            kind = "changed"
        elif was is MISSING and (folder == "shared" or there.get(folder, MISSING) is None):
            if here.get(path) is None:
                account.make_folder(path)
                path += "/%s-other.txt" % path.rpartition("/")[2][0]
            account.make_file(path, theirs)
            kind = "made"
        if kind:
            clashes.append((kind, path, was, theirs))
            print("the other device has %s %s" % (kind, path))
    with open(os.path.join(state, "clashes"), "wb") as file:
        pickle.dump(clashes, file)


def main(state, server, key_file, seed, what):
    {"lines": add_lines, "clash": clash}[what](Account(server, key_file), state, random.Random(seed))


if __name__ == "__main__":
    main(*sys.argv[1:])
