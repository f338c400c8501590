"""Whether no change that was acknowledged is missing, for kill_edits_test.sh, while no writer runs.

compare_edits.py MOUNT STATE                    the folder holds what the writers made
compare_edits.py MOUNT STATE SERVER KEY-FILE    and so does the server, after everything was sent. Where the other
                                                device has changed a file too (STATE/clashes), both are kept.
"""
import os
import pickle
import re
import sys

from account import Account
from edit_writer import load, owner
from other_device import WRITERS
from shadow import MISSING, Lost, Mounted, settle, show, stays_here

COPY = "(conflicted copy"
# What is shorter may be in several files.
UNMISTAKABLE = 16


def is_log(path):
    return path.startswith("shared/log ")


def without_marks(path):
    return re.sub(r" \(conflicted copy( [0-9]+)?\)", "", path)


class Comparison:
    def __init__(self, mount, state):
        self.state = state
        self.mounted = Mounted(mount)
        self.mounted.open()
        self.problems = []
        self.writers = {number: self.settled(number) for number in WRITERS}
        self.wanted = {path: contents for tree, _ in self.writers.values() for path, contents in tree.items()}

    def base(self, number):
        return os.path.join(self.state, "writer-%d" % number)

    def settled(self, number):
        tree, cut, count = load(self.base(number))
        try:
            return (settle(tree, cut, self.mounted.read) if cut else tree), count
        except Lost as lost:
            self.problems.append(str(lost))
            return tree, count

    def here(self):
        folders = ["shared"] + ["writer %d" % number for number in WRITERS]
        return {path: contents for folder in folders for path, contents in self.mounted.tree(folder).items()}

    # Two trees, the second of which is called so.
    def must_be_same(self, wanted, seen, name, ignored=lambda path: False):
        for path in sorted(wanted.keys() | seen.keys()):
            one, other = wanted.get(path, MISSING), seen.get(path, MISSING)
            if one != other and not ignored(path):
                self.problems.append("%s %s is %s and not %s" % (path, name, show(other), show(one)))

    def compare_folder(self):
        self.must_be_same(self.wanted, self.here(), "in the folder", is_log)

    def compare_all(self, account):
        here = self.here()
        there = {path: contents for path, contents in account.tree().items() if "/" in path}
        self.must_be_same(here, there, "on the server", lambda path: stays_here(path) and path not in there)
        self.find_lines(there)
        clashes = self.clashes()
        if clashes:
            self.find_both(clashes, here, account)
        else:
            self.must_be_same(self.wanted, here, "in the folder", is_log)
        if not self.problems:
            self.adopt({path: contents for path, contents in here.items() if not is_log(path)})

    def clashes(self):
        try:
            with open(os.path.join(self.state, "clashes"), "rb") as file:
                return pickle.load(file)
        except FileNotFoundError:
            return []

    # Nothing is taken out of the logs, so every line must be in one of them or of their copies.
    def find_lines(self, there):
        seen = {line for path, contents in there.items() if is_log(path) for line in contents.decode().split("\n")}
        for name in ["other.lines"] + ["writer-%d.lines" % number for number in WRITERS]:
            with open(os.path.join(self.state, name)) as file:
                for line in file.read().split():
                    if line not in seen:
                        self.problems.append("the line %s is in none of the logs" % line)

    def find_both(self, clashes, here, account):
        contents_here = set(contents for path, contents in here.items() if contents is not None)
        theirs = {their for _, _, _, their in clashes}
        known = {was for _, _, was, _ in clashes}  # what the other device saw when it made its change
        trash = None
        for kind, path, was, their in clashes:
            if kind == "removed":
                continue
            if kind == "changed" and len(was) >= UNMISTAKABLE and self.wanted.get(path, MISSING) == was:
                if here.get(path, MISSING) != their:
                    self.problems.append("%s, which only the other device had changed, is %s and not %s" %
                                         (path, show(here.get(path, MISSING)), show(their)))
            elif their not in contents_here:
                # Nobody here wanted the file any more.
                trash = account.trash() if trash is None else trash
                if their not in trash:
                    self.problems.append("what the other device has %s as %s is nowhere: %s" % (kind, path, show(their)))
        for path, contents in self.wanted.items():
            seen = here.get(path, MISSING)
            if seen == contents or is_log(path):
                continue
            if not (seen is MISSING or seen in theirs):
                self.problems.append("%s is %s, which nobody has written; it was %s" % (path, show(seen), show(contents)))
            elif contents is None:
                if not any(content is None and without_marks(each) == path for each, content in here.items()):
                    self.problems.append("the folder %s is missing" % path)
            elif contents not in contents_here and contents not in known:
                self.problems.append("%s is nowhere: %s" % (path, show(contents)))
        wanted_contents = set(contents for contents in self.wanted.values() if contents is not None)
        made = {folder for _, path, _, _ in clashes for folder in above(path)}
        for path, contents in here.items():
            if path in self.wanted or is_log(path) or path in made or contents in theirs or COPY in path and (
                    contents is None or contents in wanted_contents):
                continue
            self.problems.append("%s has come from nowhere: %s" % (path, show(contents)))

    # From here on they are the writers', and the logs are empty.
    def adopt(self, here):
        for number in WRITERS:
            tree = {path: contents for path, contents in here.items() if owner(path) == number}
            with open(self.base(number) + ".shadow", "wb") as file:
                pickle.dump((tree, None, self.writers[number][1]), file)
        for name in os.listdir(self.state):
            if name.endswith(".lines"):
                os.truncate(os.path.join(self.state, name), 0)
        if self.clashes():
            os.unlink(os.path.join(self.state, "clashes"))
        for path in self.mounted.tree("shared"):
            if is_log(path) and COPY in path:
                os.unlink(path, dir_fd=self.mounted.top)
            elif is_log(path):
                os.close(os.open(path, os.O_WRONLY | os.O_TRUNC, dir_fd=self.mounted.top))


def above(path):
    while path := path.rpartition("/")[0]:
        yield path


def main(mount, state, *account):
    comparison = Comparison(mount, state)
    comparison.compare_all(Account(*account)) if account else comparison.compare_folder()
    if comparison.problems:
        sys.exit("\n".join(comparison.problems))


if __name__ == "__main__":
    main(*sys.argv[1:])
