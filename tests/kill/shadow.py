"""What a folder must hold after changes that were acknowledged, and what it may hold when one was cut off."""
import errno
import os
import time
from fnmatch import fnmatch

MISSING = "missing"

# Names of files that stay on this machine, for a while at least.
STAY_HERE = ["*.tmp", ".goutputstream-*"]

# What a program hears when the service, or the server that it needs for this, is gone. Whether the change was made is
# not known then.
CUT_OFF = {errno.ENOTCONN, errno.ECONNABORTED, errno.EIO, errno.ENODEV, errno.EHOSTUNREACH, errno.ETIMEDOUT, errno.EINTR}


def stays_here(path):
    return any(fnmatch(os.path.basename(path), pattern) for pattern in STAY_HERE)


class Lost(Exception):
    """The folder is neither as before nor as after what was done."""


def show(contents):
    if contents is None or contents is MISSING:
        return "a folder" if contents is None else "missing"
    return "%d bytes %r" % (len(contents), contents if len(contents) < 60 else contents[:28] + b"..." + contents[-28:])


def after(tree, change):
    """The tree, contents by path and None for folders, after one change."""
    kind, path = change[0], change[1]
    tree = dict(tree)
    if kind == "make":
        tree[path] = b""
    elif kind == "write":
        offset, data = change[2:]
        old = tree[path].ljust(offset, b"\0")
        tree[path] = old[:offset] + data + old[offset + len(data):]
    elif kind == "truncate":
        tree[path] = tree[path][:change[2]].ljust(change[2], b"\0")
    elif kind == "folder":
        tree[path] = None
    elif kind == "remove":
        del tree[path]
    else:
        assert kind == "move"
        target = change[2]
        tree.pop(target, None)
        for each in [each for each in tree if each == path or each.startswith(path + "/")]:
            tree[target + each[len(path):]] = tree.pop(each)
    return tree


def is_between(before, seen, then):
    """Whether a write that was cut off may have left this: at each place the old byte or the new one."""
    if not all(isinstance(each, bytes) for each in (before, seen, then)):
        return False
    if not min(len(before), len(then)) <= len(seen) <= max(len(before), len(then)):
        return False
    return all(byte == then[i:i + 1] or byte == before[i:i + 1]
               for i, byte in enumerate(seen[i:i + 1] for i in range(len(seen))))


def settle(tree, change, look):
    """The tree after a change that was cut off, by what look(PATH) finds."""
    then = after(tree, change)
    paths = [path for path in tree.keys() | then.keys() if tree.get(path, MISSING) != then.get(path, MISSING)]
    seen = {path: look(path) for path in paths}
    for outcome in (then, tree):
        if all(seen[path] == outcome.get(path, MISSING) for path in paths):
            return outcome
    if change[0] == "write" and is_between(tree[change[1]], seen[change[1]], then[change[1]]):
        return {**tree, change[1]: seen[change[1]]}
    raise Lost("%s was cut off, and there is neither what was nor what was to be: %s" % (describe(change), "; ".join(
        "%s is %s, was %s, was to be %s" % (path, show(seen[path]), show(tree.get(path, MISSING)), show(then.get(path, MISSING)))
        for path in sorted(paths))))


def describe(change):
    return " ".join("%d bytes" % len(each) if isinstance(each, bytes) else str(each) for each in change)


class Mounted:
    """The mounted folder. Everything is done through a descriptor of its top, so that nothing is ever done to the empty
    folder that shows between two services."""

    def __init__(self, path):
        self.path = path
        self.top = None

    def open(self, seconds=60):
        """When a service serves it (again)."""
        self.close()
        until = time.monotonic() + seconds
        while True:
            try:
                top = os.open(self.path, os.O_RDONLY | os.O_DIRECTORY)
                if os.fstat(top).st_dev != os.stat(os.path.dirname(self.path)).st_dev:
                    self.top = top
                    return
                os.close(top)
            except OSError as error:
                if error.errno not in CUT_OFF:
                    raise
            if time.monotonic() > until:
                raise TimeoutError("nothing serves %s" % self.path)
            time.sleep(0.02)

    def close(self):
        if self.top is not None:
            os.close(self.top)
            self.top = None

    def read(self, path):
        """None of a folder, MISSING when there is nothing."""
        try:
            file = os.open(path, os.O_RDONLY, dir_fd=self.top)
        except FileNotFoundError:
            return MISSING
        try:
            contents = bytearray()
            while piece := os.read(file, 1 << 20):
                contents += piece
            return bytes(contents)
        except IsADirectoryError:
            return None
        except FileNotFoundError as error:
            # The file is there, but whether the server has it could not be asked.
            raise OSError(errno.EHOSTUNREACH, "cannot be read", path) from error
        finally:
            os.close(file)

    def tree(self, folder):
        tree = {}
        there = os.open(folder, os.O_RDONLY | os.O_DIRECTORY, dir_fd=self.top)
        try:
            names = os.listdir(there)
        finally:
            os.close(there)
        for name in names:
            path = folder + "/" + name
            tree[path] = self.read(path)
            if tree[path] is None:
                tree.update(self.tree(path))
        return tree
