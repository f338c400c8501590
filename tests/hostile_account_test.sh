#!/usr/bin/env bash
# The programs before an account that means ill: hostile_account_test.sh FOLDER-OF-PROGRAMS
# Mounts for real; needs /dev/fuse.
set -euo pipefail
BIN_GIVEN=$(realpath "$1")
cd "$(dirname "$0")/.."
source tools/demo.sh
source tests/checks.sh

make_world "$BIN_GIVEN"
finish() {
  [ $failures = 0 ] || show_log
  [ -z "${ACCOUNT_PID:-}" ] || kill "$ACCOUNT_PID" 2>/dev/null || true
  destroy_world
}
trap finish EXIT
python3 tests/hostile_account.py >"$WORLD/account.log" 2>&1 &
ACCOUNT_PID=$!
wait_for_line "$WORLD/account.log" 'listening on' 20 "$ACCOUNT_PID"
SERVER=$(sed -n 's/^listening on //p' "$WORLD/account.log")
LOG=$HOME_FOLDER/.local/state/vondle/service.log

feed() { curl -sS -o /dev/null --data "$1" "$SERVER/script"; } # PAGES
names_in() { (cd "$MOUNT/$1" && ls | sort | tr '\n' ' '); }
shown() { # COMMAND...: what it shows on a terminal
  in_world env TERM=xterm timeout 60 script -qec "$(printf '%q ' "$@")" /dev/null </dev/null >"$WORLD/shown" || true
}
# Only its own colours reach the terminal: no titles, no bells, nothing that turns the writing round.
is_harmless() {
  python3 - "$WORLD/shown" <<'PY'
import re, sys
text = re.sub(rb"\x1b\[[0-9;]*[mKHJ]|\r", b"", open(sys.argv[1], "rb").read())
bad = re.findall(rb"[\x00-\x08\x0b-\x1f\x7f]|\xe2\x80\xae", text)
sys.exit("raw on a terminal: %r in %r" % (bad, text) if bad or not text.strip() else 0)
PY
}

exits 0 vondle login --server "$SERVER" --key-file "$WORLD/key"
check 'it mounts' exits 0 vondle mount
worker=$(field service.pid)
check 'the first change is awaited' exits 0 vondle sync

# Names of every kind: each is there, is read, and is told of when it could not stand.
check 'every name is listed' python3 - "$MOUNT/names" "$SERVER" <<'PY'
import os, sys, urllib.request
folder = os.fsencode(sys.argv[1])
wanted = {b"contents of %s\n" % each for each in urllib.request.urlopen(sys.argv[2] + "/ids").read().split()}
names = os.listdir(folder)
found = [open(os.path.join(folder, name), "rb").read() for name in names]
os.fsencode(b"".join(names).decode())
assert len(names) == len(wanted) and set(found) == wanted, (len(names), sorted(wanted - set(found)))
PY
check 'ls shows them' sh -c "ls -la '$MOUNT/names' >'$WORLD/ls'"
check 'cat reads them' test "$(find "$MOUNT/names" -type f -exec cat {} + | wc -l)" = "$(curl -sS "$SERVER/ids" | wc -l)"
check 'nothing left the folder' test -z "$(find "$WORLD" -xdev -name '*escape*')"
check 'status lists those that could not stand' test "$(field service.names_total)" = 12
shown vondle status
check 'on a terminal as harmless text' is_harmless
check 'with the server name' grep -qF '\x1b]0;owned\x07/\x1b[31mred' "$WORLD/shown"
for name in $'\x1b]0;title\x07' $'\x1b[31mred\x1b[0m' $'\u202egpj.exe' $'line\nbreak'; do
  shown vondle info "$MOUNT/names/$name"
  check 'info of a hostile name is harmless' is_harmless
done

# Contents that do not come as they should.
fails() { ! timeout 60 cat "$1" >/dev/null 2>"$WORLD/out"; }
for name in cut reset early-reset longer status-500 status-401 file-address no-server garbage-item gone no-address round; do
  check "contents fail: $name" fails "$MOUNT/trouble/$name"
  check 'soon, and with an error of the system' grep -qE 'error|reach|route|No such|denied' "$WORLD/out"
done
check 'a server that stalls holds nobody who gives up' sh -c "! timeout -s INT 2 cat '$MOUNT/trouble/stall' 2>/dev/null"
check 'nor others meanwhile' test "$(cat "$MOUNT/plain.txt")" = 'contents of plain'
check 'and the transfer ends' until_true 10 test "$(field service.transfers)" = '[]'
check 'nothing unfinished stays' test -z "$(find "$HOME_FOLDER/.local/share/vondle/temporary" -type f)"
check 'info tells why' exits 0 vondle info "$MOUNT/trouble/cut"
check 'in words' says 'last error'
shown vondle status
check 'the errors are harmless text on a terminal' is_harmless

# Listings that are none.
for name in not-json half nested null wrong-types not-utf8 status-500 reset empty-body; do
  check "a listing fails: $name" sh -c "! timeout 60 ls '$MOUNT/listings/$name' >/dev/null 2>&1"
done
check 'the rest is there' test "$(names_in quiet)" = 'inner q.txt '

# Folders that lie in themselves.
check 'a folder that lists itself is no loop' test "$(timeout 60 find "$MOUNT/loop" | wc -l)" = 2
timeout 60 find "$MOUNT/pair" >"$WORLD/pair" 2>/dev/null || true # what it comes through is moving
check 'nor two that list each other' test "$(wc -l <"$WORLD/pair")" -le 5
check 'one of them lies in the other' test "$(timeout 60 find "$MOUNT/pair" | wc -l)" = 3
check 'the top is as before' test "$(names_in .)" = 'deep listings loop names pair plain.txt quiet trouble '
feed '{"pages": [{"seq": 101, "changes": [
  {"id": "quiet", "name": "quiet", "parent_id": "inner", "is_folder": true},
  {"id": "inner", "name": "inner", "parent_id": "quiet", "is_folder": true},
  {"id": "loop", "name": "loop", "parent_id": "loop", "is_folder": true},
  {"id": "root", "name": "", "parent_id": "quiet", "is_folder": true}, {"id": "", "name": "x", "parent_id": "root"}]}]}'
check 'changes that make a circle are survived' exits 0 vondle sync
check 'and leave a tree' sh -c "timeout 60 find '$MOUNT' -path '$MOUNT/deep' -prune -o -type d -print >/dev/null 2>&1; ls '$MOUNT' >/dev/null"
feed '{"pages": [{"seq": 102, "changes": [
  {"id": "quiet", "name": "quiet", "parent_id": "root", "is_folder": true},
  {"id": "loop", "name": "loop", "parent_id": "root", "is_folder": true}]}]}'
check 'and are put right by later ones' exits 0 vondle sync
check 'to the tree from before' test "$(names_in .)" = 'deep listings loop names pair plain.txt quiet trouble '

# A feed that leads nowhere.
feed '{"pages": [{"repeat": true, "more": true}]}'
check 'a feed with always more to come is given up' exits 1 vondle sync
check 'with a reason' says 'announces more changes but sends none'
feed '{"pages": [{"seq": 103, "more": true}, {"seq": 102, "more": true}, {"seq": 103, "more": true}]}'
check 'so is one that goes back and forth' exits 1 vondle sync
feed '{"pages": [{"seq": 50}]}'
check 'one that goes back is followed' exits 0 vondle sync
feed '{"pages": [{"seq": -5}]}'
check 'also below nothing' exits 0 vondle sync
feed '{"pages": [{"seq": 9223372036854775807}]}'
check 'and beyond all bounds' exits 0 vondle sync
feed '{"pages": [{"seq": 200, "changes": [{"id": 7}, {}, {"deleted": true}, {"id": "x", "name": 5},
  {"id": "plain", "name": "../plain.txt", "parent_id": "root", "size": -1}]}]}'
check 'entries that are none are left out' exits 0 vondle sync
check 'and an odd one is shown as far as it makes sense' test -f "$MOUNT/%=..%2Fplain.txt"
feed '{"pages": [{"seq": 201, "changes": [{"id": "plain", "name": "plain.txt", "parent_id": "root", "size": 18}]}]}'
check 'and put right by a later one' exits 0 vondle sync
check 'with its contents' test "$(cat "$MOUNT/plain.txt")" = 'contents of plain'

# Ten thousand levels.
check 'a tree of ten thousand levels is walked' timeout 120 python3 - "$MOUNT/deep" <<'PY'
import os, sys
folder = os.open(sys.argv[1], os.O_RDONLY)
for level in range(10000):
    inner = os.open("d", os.O_RDONLY, dir_fd=folder)
    os.close(folder)
    folder = inner
assert os.read(os.open("bottom.txt", os.O_RDONLY, dir_fd=folder), 100) == b"contents of bottom\n"
PY
check 'and status goes on' exits 0 vondle status
check 'so does the rest' exits 0 vondle sync
feed '{"pages": [{"seq": 300, "changes": [{"id": "deep-0", "deleted": true}]}]}'
check 'it goes away' exits 0 vondle sync
check 'at once' test ! -e "$MOUNT/deep"

# A page that takes everything away.
feed '{"pages": [{"seq": 301, "changes": [{"id": "names", "deleted": true}, {"id": "trouble", "deleted": true},
  {"id": "listings", "deleted": true}, {"id": "quiet", "deleted": true}, {"id": "loop", "deleted": true},
  {"id": "pair", "deleted": true}, {"id": "plain", "deleted": true}, {"id": "nobody", "deleted": true}]}]}'
check 'a page that takes everything away is followed' exits 0 vondle sync
check 'to an empty folder' test -z "$(ls -A "$MOUNT")"
feed '{"pages": [{"seq": 302, "changes": [{"id": "root", "deleted": true}]}]}'
check 'the top itself can go' exits 0 vondle sync
check 'and is listed again' test -f "$MOUNT/plain.txt"
check 'with what it holds' test "$(cat "$MOUNT/quiet/inner/i.txt")" = 'contents of i'

check 'all that time one process served' test "$(field service.pid)" = "$worker"
check 'in little memory' test "$(awk '/VmHWM/ {print $2}' "/proc/$worker/status")" -lt 400000
check 'the log is harmless text' sh -c "! LC_ALL=C grep -qP '[\\x00-\\x08\\x0b-\\x1f\\x7f]|\\xe2\\x80\\xae' '$LOG'"
check 'it unmounts' exits 0 vondle unmount
conclude
