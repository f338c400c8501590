#!/usr/bin/env python3
"""type_into.py KEYS PROGRAM [ARGUMENT...]: a program on a terminal of its own, and somebody who types.

The keys, with escapes such as \\n and \\x18, are typed as soon as the program listens for single ones. Exits as the
program does; after half a minute the program is killed and its screen shown.
"""
import os
import pty
import select
import signal
import sys
import termios
import time

keys = sys.argv[1].encode().decode("unicode_escape").encode("latin-1")
pid, terminal = pty.fork()
if pid == 0:
    os.environ["TERM"] = "vt100"
    os.execvp(sys.argv[2], sys.argv[2:])

screen = b""
deadline = time.monotonic() + 30
while time.monotonic() < deadline:
    try:
        if keys and not termios.tcgetattr(terminal)[3] & termios.ICANON:
            os.write(terminal, keys)
            keys = b""
        if select.select([terminal], [], [], 0.02)[0]:
            screen += os.read(terminal, 65536)
    except OSError:  # nobody is at the other end any more
        sys.exit(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
os.kill(pid, signal.SIGKILL)
sys.stderr.write(screen.decode(errors="replace"))
sys.exit("no end of " + " ".join(sys.argv[2:]))
