"""A program that changes files in the mounted folder: edit_writer.py MOUNT STATE NUMBER SEED

Does random changes to what is its own (folder "writer NUMBER", and in "shared" what has a name that begins with the number)
and adds lines to the files shared/log*, until SIGTERM or a change that the folder should not have refused. Each change is
written to STATE/writer-NUMBER.journal before it begins and again when it was acknowledged. When the service is killed
it waits for the next, looks which side of the cut the last change fell on, and goes on. What the folder must hold is in
STATE/writer-NUMBER.shadow at the end, with the change that was cut off, if any.
"""
import mmap
import os
import pickle
import random
import re
import signal
import sys
import time

from shadow import CUT_OFF, Lost, Mounted, after, describe, settle

MAX_FILES, MAX_FOLDERS = 24, 5
NAMES = ["%s%s" % (stem, extension) for stem in "abcdefgh" for extension in (".txt", ".bin", "")]
LOGS = 3


class Stopped(Exception):
    pass


class CutOff(Exception):
    pass


class Journal:
    """Unbuffered: what is in it survives whoever is killed."""

    def __init__(self, path):
        self.file = os.open(path, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o600)

    def note(self, text):
        os.write(self.file, (text + "\n").encode())


class Writer:
    def __init__(self, mounted, state, number, seed):
        self.mounted = mounted
        self.random = random.Random(seed)
        self.own, self.mark = "writer %s" % number, str(number)
        self.base = os.path.join(state, "writer-%s" % number)
        self.journal = Journal(self.base + ".journal")
        self.lines = Journal(self.base + ".lines")
        self.tree, self.cut, self.count = load(self.base)
        self.stopping = False
        self.actions = [(8, self.make), (6, self.overwrite), (8, self.patch), (6, self.append), (4, self.truncate),
                        (2, self.write_mapped), (8, self.save_by_renaming), (3, self.save_with_backup),
                        (3, self.remake), (2, self.swap), (6, self.rename), (4, self.rename_over), (4, self.remove),
                        (3, self.make_folder), (2, self.remove_folder), (3, self.move_folder), (1, self.sync_folder),
                        (6, self.check), (10, self.add_line)]

    def stop(self, *_):
        self.stopping = True

    def run(self):
        try:
            while True:
                try:
                    self.begin()
                    while True:
                        self.random.choices([act for _, act in self.actions], [weight for weight, _ in self.actions])[0]()
                        self.pause()
                except CutOff:
                    pass
        except Stopped:
            pass
        with open(self.base + ".new", "wb") as file:
            pickle.dump((self.tree, self.cut, self.count), file)
        os.rename(self.base + ".new", self.base + ".shadow")

    # Changes settle now and then, and are sent.
    def pause(self):
        self.sleep(self.random.uniform(0.3, 1.4) if self.random.random() < 0.02 else self.random.uniform(0, 0.008))

    def sleep(self, seconds):
        until = time.monotonic() + seconds
        while not self.stopping and time.monotonic() < until:
            time.sleep(min(0.05, seconds))
        if self.stopping:
            raise Stopped

    # When the folder is there.
    def begin(self):
        while True:
            try:
                self.mounted.open(2)
                if self.cut:
                    self.tree = settle(self.tree, self.cut, self.mounted.read)
                    self.journal.note("%d settled" % self.count)
                    self.cut = None
                return
            except TimeoutError:
                self.sleep(0)
            except OSError as error:
                if error.errno not in CUT_OFF:
                    raise
                self.sleep(0.1)

    # One change, which counts from when `work` returns.
    def do(self, change, work):
        if self.stopping:
            raise Stopped
        self.count += 1
        self.journal.note("%d begins: %s" % (self.count, describe(change)))
        self.cut = change
        result = self.attempt(work)
        self.tree = after(self.tree, change)
        self.cut = None
        self.journal.note("%d acknowledged" % self.count)
        return result

    def attempt(self, work):
        try:
            return work()
        except OSError as error:
            self.journal.note("%d failed: %s" % (self.count, error))
            if error.errno not in CUT_OFF:
                raise
            raise CutOff from error

    # --- What the actions are made of ---

    def text(self, size):
        mark = b"%s.%d;" % (self.mark.encode(), self.count)
        return (mark * (size // len(mark) + 1))[:size]

    def some_text(self):
        return self.text(self.random.choice([17, 20, 500, 4096, 5000, 5000, 30000, 140000]))

    # Some are used more than others, which so have the time to be sent.
    def pick(self, paths):
        paths = sorted(paths)
        return paths[int(len(paths) * self.random.random() ** 2)] if paths else None

    def file(self):
        return self.pick(path for path, contents in self.tree.items() if contents is not None)

    def folders(self):
        return [self.own, "shared"] + sorted(path for path, contents in self.tree.items() if contents is None)

    def is_new(self, path):
        return path not in self.tree

    def new_path(self):
        paths = [folder + "/" + self.mark + name for folder in self.folders() for name in NAMES]
        return self.random.choice([path for path in paths if self.is_new(path)])

    def create(self, path):
        return self.do(("make", path), lambda: os.open(path, os.O_RDWR | os.O_CREAT | os.O_EXCL, 0o600, dir_fd=self.mounted.top))

    def open(self, path, flags):
        return self.attempt(lambda: os.open(path, flags, dir_fd=self.mounted.top))

    def write(self, file, path, offset, data):
        while data:
            # How much is written is known afterwards only; what was cut off may be any part of it.
            self.count += 1
            change = ("write", path, offset, data)
            self.journal.note("%d begins: %s" % (self.count, describe(change)))
            self.cut = change
            written = self.attempt(lambda: os.pwrite(file, data, offset))
            self.tree = after(self.tree, ("write", path, offset, data[:written]))
            self.cut = None
            self.journal.note("%d acknowledged: %d bytes" % (self.count, written))
            offset, data = offset + written, data[written:]

    # Sometimes synchronised.
    def close(self, file):
        try:
            if self.random.random() < 0.2:
                self.attempt(lambda: os.fsync(file))
        finally:
            close(file)

    def fill(self, file, path):
        try:
            for _ in range(self.random.choice([0, 1, 1, 1, 2, 3])):
                self.write(file, path, len(self.tree[path]), self.some_text())
        finally:
            self.close(file)

    def move(self, path, target):
        self.do(("move", path, target),
                lambda: os.rename(path, target, src_dir_fd=self.mounted.top, dst_dir_fd=self.mounted.top))

    def unlink(self, path):
        self.do(("remove", path), lambda: os.unlink(path, dir_fd=self.mounted.top))

    # --- Actions ---

    def make(self):
        if sum(contents is not None for contents in self.tree.values()) >= MAX_FILES:
            return self.remove()
        path = self.new_path()
        self.fill(self.create(path), path)

    def overwrite(self):
        if path := self.file():
            file = self.do(("truncate", path, 0),
                           lambda: os.open(path, os.O_WRONLY | os.O_TRUNC, dir_fd=self.mounted.top))
            self.fill(file, path)

    def patch(self):
        if path := self.file():
            file = self.open(path, os.O_WRONLY)
            try:
                for _ in range(self.random.randint(1, 4)):
                    self.write(file, path, self.random.randrange(len(self.tree[path]) + 2000), self.some_text()[:9000])
            finally:
                self.close(file)

    def append(self):
        path = self.file()
        if path and len(self.tree[path]) < 300000:
            self.fill(self.open(path, os.O_WRONLY | os.O_APPEND), path)

    def truncate(self):
        if path := self.file():
            size = self.random.randrange(len(self.tree[path]) + 1000)
            file = self.open(path, os.O_WRONLY)
            try:
                self.do(("truncate", path, size), lambda: os.ftruncate(file, size))
            finally:
                self.close(file)

    # In a process of its own, which a mapping without a service ends. Written when it is synchronised.
    def write_mapped(self):
        path = self.file()
        if not path or not self.tree[path]:
            return
        offset = self.random.randrange(len(self.tree[path]))
        data = self.text(min(len(self.tree[path]) - offset, 9000))
        file = self.open(path, os.O_RDWR)
        try:
            self.do(("write", path, offset, data), lambda: in_child(lambda: write_mapped(file, offset, data)))
        finally:
            self.close(file)

    def save_by_renaming(self):
        if path := self.file():
            folder, _, name = path.rpartition("/")
            temporary = folder + "/" + self.random.choice([".goutputstream-%s", "%s.tmp", "%s~", "%s.new"]) % name
            if self.is_new(temporary):
                self.fill(self.create(temporary), temporary)
                self.move(temporary, path)

    def save_with_backup(self):
        path = self.file()
        if path and self.is_new(path + "~"):
            self.move(path, path + "~")
            self.fill(self.create(path), path)
            self.unlink(path + "~")

    def remake(self):
        if path := self.file():
            self.unlink(path)
            self.fill(self.create(path), path)

    def swap(self):
        one, other, between = self.file(), self.file(), self.new_path()
        if one and one != other:
            self.move(one, between)
            self.move(other, one)
            self.move(between, other)

    def rename(self):
        if path := self.file():
            self.move(path, self.new_path())

    def rename_over(self):
        one, other = self.file(), self.file()
        if one and one != other:
            self.move(one, other)

    def remove(self):
        if path := self.file():
            self.unlink(path)

    def make_folder(self):
        if len(self.folders()) < MAX_FOLDERS + 2:
            path = self.new_path()
            self.do(("folder", path), lambda: os.mkdir(path, dir_fd=self.mounted.top))

    def empty_folder(self):
        return self.pick(path for path, contents in self.tree.items()
                         if contents is None and not any(each.startswith(path + "/") for each in self.tree))

    def remove_folder(self):
        if path := self.empty_folder():
            self.do(("remove", path), lambda: os.rmdir(path, dir_fd=self.mounted.top))

    # Also onto an empty one.
    def move_folder(self):
        path = self.pick(self.folders()[2:])
        target = self.random.choice([self.new_path(), self.new_path(), self.empty_folder()])
        if path and target and not (target + "/").startswith(path + "/"):
            self.move(path, target)

    def sync_folder(self):
        file = self.open(self.random.choice(self.folders()), os.O_RDONLY | os.O_DIRECTORY)
        try:
            self.attempt(lambda: os.fsync(file))
        finally:
            close(file)

    # What was written is read.
    def check(self):
        path = self.file() if self.random.random() < 0.8 else None
        path = path or self.new_path()
        seen, wanted = self.attempt(lambda: self.mounted.read(path)), self.tree.get(path, "missing")
        if seen != wanted:
            raise Lost("%s is not as it was written: %r" % (path, seen if seen is None else seen[:60]))

    # Others do that too, also on the server.
    def add_line(self):
        line = "%s-%d" % (self.mark, self.count)
        self.count += 1
        file = self.open("shared/log %d.txt" % self.random.randrange(LOGS), os.O_WRONLY | os.O_APPEND)
        try:
            data = b"%s\n" % line.encode()
            if self.attempt(lambda: os.write(file, data)) == len(data):
                self.lines.note(line)
        finally:
            self.close(file)


# Whatever was written is there already.
def close(file):
    try:
        os.close(file)
    except OSError:
        pass


def write_mapped(file, offset, data):
    with mmap.mmap(file, 0) as mapped:
        mapped[offset:offset + len(data)] = data
        mapped.flush()


def in_child(work):
    child = os.fork()
    if child == 0:
        try:
            work()
            os._exit(0)
        finally:
            os._exit(1)
    if os.waitpid(child, 0)[1] != 0:
        raise OSError(5, "the process ended")


def owner(path):
    """The number of the writer that changes it; 0: none, or all."""
    number = re.search("[0-9]", path.removeprefix("shared/"))
    return int(number.group()) if number and not path.startswith("shared/log ") else 0


def load(base):
    """What STATE/writer-NUMBER.shadow holds: the tree, the change that was cut off, the number of the last change."""
    try:
        with open(base + ".shadow", "rb") as file:
            return pickle.load(file)
    except FileNotFoundError:
        return {}, None, 0


def main(mount, state, number, seed):
    writer = Writer(Mounted(mount), state, number, "%s/%s" % (seed, number))
    signal.signal(signal.SIGTERM, writer.stop)
    try:
        writer.run()
    except (Lost, OSError) as error:
        writer.journal.note("FAILED: %s" % error)
        sys.exit("writer %s, change %d: %s" % (number, writer.count, error))


if __name__ == "__main__":
    main(*sys.argv[1:])
