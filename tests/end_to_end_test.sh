#!/usr/bin/env bash
# The programs as users run them, in a throw-away home: end_to_end_test.sh FOLDER-OF-PROGRAMS
# Mounts for real; needs /dev/fuse.
set -euo pipefail
BIN_GIVEN=$(realpath "$1")
cd "$(dirname "$0")/.."
source tools/demo.sh
source tests/checks.sh

inodes() { (cd "$MOUNT" && find . -printf '%P %i\n' | sort); }
serve_garbage() { # on the storage's port
  : >"$WORLD/garbage.log"
  python3 - "$STORAGE_PORT" >"$WORLD/garbage.log" 2>&1 <<'PY' &
import http.server, sys
class Garbage(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.send_response(200)
        self.end_headers()
        self.wfile.write(b'{"entries": [{"id": 7}, "x"], "seq": "many", <html>\xff\x00' * 50)
    do_POST = do_PUT = do_GET
http.server.ThreadingHTTPServer.allow_reuse_address = True
server = http.server.ThreadingHTTPServer(("127.0.0.1", int(sys.argv[1])), Garbage)
print("listening", flush=True)
server.serve_forever()
PY
  GARBAGE_PID=$!
  wait_for_line "$WORLD/garbage.log" listening 20 "$GARBAGE_PID"
}
stop_garbage() {
  [ -n "${GARBAGE_PID:-}" ] || return 0
  kill "$GARBAGE_PID" 2>/dev/null || true
  wait "$GARBAGE_PID" 2>/dev/null || true
  GARBAGE_PID=
}
finish() {
  stop_garbage
  [ $failures = 0 ] || show_log
  destroy_world
}

make_world "$BIN_GIVEN"
trap finish EXIT
mkdir -p "$IMPORT/docs/deep" "$IMPORT/kept/known" "$IMPORT/empty"
echo 'Dear reader' >"$IMPORT/letter.txt"
head -c 3000000 /dev/urandom >"$IMPORT/docs/big.bin"
: >"$IMPORT/docs/deep/Für Zoë, 'quoted' & \$.txt"
seq 1 50 | while read -r i; do echo "$i" >"$IMPORT/kept/known/$i"; done
mkdir "$IMPORT/room"
for i in 1 2 3 4 5; do head -c 1500000 /dev/urandom >"$IMPORT/room/$i"; done
start_storage --import "$IMPORT"
CONFIG=$HOME_FOLDER/.vondle/config.json

# Before there is an account.
check 'without a service, status says so' exits 4 vondle status
check 'without an account, mounting is refused' exits 3 vondle mount
check 'and says what to do' says 'vondle login'
echo wrong-key-0123456789 >"$WORLD/wrong-key"
check 'a wrong key is refused' exits 6 vondle login --server "$SERVER" --key-file "$WORLD/wrong-key"
check 'and not stored' test ! -e "$CONFIG"
check 'a server that is not there is noticed' exits 5 vondle login --server http://127.0.0.1:1 --key-file "$WORLD/key"
check 'and not stored either' test ! -e "$CONFIG"
stop_storage
serve_garbage
check 'a server that talks rubbish is refused' exits 1 vondle login --server "$SERVER" --key-file "$WORLD/key"
stop_garbage
start_storage

# Signing in and mounting.
check 'the right key is accepted' exits 0 vondle login --server "$SERVER" --key-file - <"$WORLD/key"
check 'the configuration is private' test "$(stat -c %a "$CONFIG")" = 600
check 'the folder is mounted' exits 0 vondle mount
check 'it shows the tree' diff -r "$IMPORT" "$MOUNT"
check 'mounting again changes nothing' exits 0 vondle mount
check 'the service says where' test "$(field service.mount)" = "$MOUNT"
check 'everything of the service is private' \
  test "$(stat -c %a "$HOME_FOLDER/.vondle" "$HOME_FOLDER/.local/state/vondle" "$HOME_FOLDER/.local/share/vondle" \
    "$WORLD/run/vondle" "$WORLD/run/vondle/control" | tr '\n' ' ')" = '700 700 700 700 600 '
check 'the key stands in no log' test -z "$(grep -rlF -f "$WORLD/key" "$HOME_FOLDER/.local" "$WORLD/run" || true)"
check 'what is written can be read' sh -c "echo x >'$MOUNT/new' && test \$(cat '$MOUNT/new') = x && rm '$MOUNT/new'"

# One instance.
check 'a second service is refused' exits 1 vondle-service --mount "$HOME_FOLDER/Other"
check 'and names the first' says "process $(field service.pid)"
check 'signing out waits for the service' exits 1 vondle logout

# Commands on items.
check 'info knows a file' exits 0 vondle info "$MOUNT/letter.txt"
check 'with its identifier' says identifier
check 'a file that is not there' exits 7 vondle info "$MOUNT/nothing"
check 'a file elsewhere' exits 1 vondle info /etc/passwd
check 'local copies are dropped' exits 0 vondle evict "$MOUNT"
check 'all of them' test "$(field service.files_here)" = 0
check 'files are fetched' exits 0 vondle fetch "$MOUNT/letter.txt" "$MOUNT/docs" "$MOUNT/kept/known"
check 'these and no others' test "$(field service.files_here)" = 53
check 'a folder is kept downloaded' exits 0 vondle keep "$MOUNT/docs"
check 'what is kept is not dropped' exits 1 vondle evict "$MOUNT/docs"
check 'but is when it is kept no more' exits 0 vondle unkeep "$MOUNT/docs"
check 'all that was in it' test "$(field service.files_here)" = 51
check 'a text has no thumbnail' exits 1 vondle thumbnail "$MOUNT/letter.txt" -o "$WORLD/thumbnail"
check 'limits are set' exits 0 vondle limits --down 4000 --up 3000
check 'and counted at once' exits 0 vondle fetch "$MOUNT/docs"
check 'limits go' exits 0 vondle limits --down 0 --up 0
check 'transfers pause' exits 0 vondle pause
check 'and go on' exits 0 vondle resume

# Changes from elsewhere.
echo 'changed elsewhere' >"$WORLD/changed"
other_device put "$WORLD/changed" letter.txt >/dev/null
other_device put "$WORLD/changed" kept/unread.txt >/dev/null
other_device mkdir 'made elsewhere' >/dev/null
other_device mv kept/known/1 'kept/known/renamed' >/dev/null
other_device rm kept/known/2 >/dev/null
check 'changes are taken over' exits 0 vondle sync --wait 30
check 'new contents' test "$(cat "$MOUNT/letter.txt")" = 'changed elsewhere'
check 'a new folder' test -d "$MOUNT/made elsewhere"
check 'a new name' test "$(cat "$MOUNT/kept/known/renamed")" = 1
check 'no old name' test ! -e "$MOUNT/kept/known/1"
check 'no deleted file' test ! -e "$MOUNT/kept/known/2"

# Without the server.
inodes >"$WORLD/inodes"
stop_storage
check 'without the server, syncing fails' exits 5 vondle sync
check 'what is here is read' cmp -s "$IMPORT/docs/big.bin" "$MOUNT/docs/big.bin"
check 'known folders are listed' test "$(ls "$MOUNT/kept/known" | wc -l)" = 49
check 'what is not here fails, and soon' exits 1 cat "$MOUNT/kept/unread.txt"
check 'info tells why' exits 0 vondle info "$MOUNT/kept/unread.txt"
check 'in words' says 'last error'
check 'status lists it' exits 0 vondle status
check 'among the problems' says '/kept/unread.txt'

# A crash, still without the server.
before=$(field service.pid)
kill -9 "$before"
check 'after a crash the folder comes back' until_true 30 test -f "$MOUNT/letter.txt"
check 'with its commands' until_true 10 exits 0 vondle status
check 'from another process' test "$(field service.pid)" != "$before"
inodes >"$WORLD/inodes-after" || true
check 'with the same inode numbers' cmp "$WORLD/inodes" "$WORLD/inodes-after"
check 'and the files that were here' cmp -s "$IMPORT/docs/big.bin" "$MOUNT/docs/big.bin"

# A server that talks rubbish.
serve_garbage
check 'rubbish is an error' exits 1 vondle sync
check 'and changes nothing' sh -c "cd '$MOUNT' && find . -printf '%P %i\n' | sort | cmp - '$WORLD/inodes'"
stop_garbage
(umask 077 && echo another-key-0123456789 >"$WORLD/another-key")
start_storage --account "another:$WORLD/another-key"
check 'with the server back, everything goes on' exits 0 vondle sync
check 'and is read' cmp -s "$WORLD/changed" "$MOUNT/kept/unread.txt"

# A configuration that is broken while the service runs.
cp -p "$CONFIG" "$WORLD/config"
echo '{"server": ' >"$CONFIG"
check 'a broken configuration is said to be none' exits 3 vondle sync
check 'and not written over' exits 1 vondle limits --down 1
check 'it stays as it is' test "$(cat "$CONFIG")" = '{"server": '
check 'what is here is read all the same' test "$(cat "$MOUNT/letter.txt")" = 'changed elsewhere'
cp -p "$WORLD/config" "$CONFIG"
check 'mended, it counts at once' exits 0 vondle sync

# Restart, and the ways to end.
before=$(field service.pid)
check 'the extension is restarted' exits 0 vondle restart
check 'as another process' test "$(field service.pid)" != "$before"
check 'and the folder is there' test "$(cat "$MOUNT/letter.txt")" = 'changed elsewhere'
check 'it unmounts' exits 0 vondle unmount
check 'nothing is mounted any more' sh -c "! mountpoint -q '$MOUNT'"
check 'the service has ended' until_true 20 service_is_gone
check 'unmounting again says that there is nothing' exits 4 vondle unmount
check 'it mounts elsewhere too' exits 0 vondle mount "$HOME_FOLDER/Elsewhere"
check 'with the same files' test "$(cat "$HOME_FOLDER/Elsewhere/letter.txt")" = 'changed elsewhere'
umount "$HOME_FOLDER/Elsewhere" 2>/dev/null || fusermount3 -u "$HOME_FOLDER/Elsewhere"
check 'unmounted by hand, the service ends' until_true 20 service_is_gone

check 'it mounts again' exits 0 vondle mount
kill -9 "$(supervisor)"
check 'without its supervisor the service unmounts and ends' until_true 20 service_is_gone
check 'and leaves nothing mounted' sh -c "! mountpoint -q '$MOUNT'"

mkdir -p "$HOME_FOLDER/full/of"
check 'a folder that is not empty is refused' exits 1 vondle mount "$HOME_FOLDER/full"
check 'with a reason' says 'not empty'
echo '{"mount": 5}' >"$HOME_FOLDER/.vondle/service.json"
check 'broken settings are refused' exits 1 vondle mount
check 'with their place' says '"mount"'
check 'whoever is refused ends' until_true 20 service_is_gone
echo '{"mount": "~/Settled"}' >"$HOME_FOLDER/.vondle/service.json"
check 'settings say where to mount' exits 0 vondle mount
check 'there' test -f "$HOME_FOLDER/Settled/letter.txt"
kill -TERM "$(supervisor)"
check 'a signal unmounts' until_true 20 service_is_gone
check 'cleanly' sh -c "! mountpoint -q '$HOME_FOLDER/Settled'"

# Little room for what is downloaded: two of the files.
state() { in_world vondle info "$MOUNT/room/$1" --json | sed -n 's/.*"state":"\([^"]*\)".*/\1/p'; }
echo '{"cache_limit": "4 MiB", "disk_reserve": 0}' >"$HOME_FOLDER/.vondle/service.json"
check 'with little room, it mounts' exits 0 vondle mount
check 'the limit counts' test "$(field service.cache.limit)" = 4194304
check 'the copies of before go' until_true 20 exits 0 vondle evict "$MOUNT"
check 'a file is kept' exits 0 vondle keep "$MOUNT/room/2"
cp "$IMPORT/docs/big.bin" "$MOUNT/room/notes.swp" # a name that stays here
exec {OPEN}<"$MOUNT/room/1"
check 'one is open' cmp "$IMPORT/room/1" "/dev/fd/$OPEN"
check 'a third is read' cmp "$IMPORT/room/3" "$MOUNT/room/3"
check 'and drops nothing' test "$(state 1), $(state 2), $(state 3)" = 'here, here, here'
check 'a fourth is read' cmp "$IMPORT/room/4" "$MOUNT/room/4"
check 'and drops the one that is not in use' test "$(state 1), $(state 3), $(state 4)" = 'here, on the server only, here'
check 'not the one that is kept' test "$(state 2)" = here
check 'nor what is on no server' cmp "$IMPORT/docs/big.bin" "$MOUNT/room/notes.swp"
exec {OPEN_TOO}<"$MOUNT/room/4"
check 'when all is in use, there is no room' sh -c "! cat '$MOUNT/room/5' 2>'$WORLD/out' >/dev/null"
check 'which the program hears' says 'No space left on device'
check 'fetching says so, too' exits 1 vondle fetch "$MOUNT/room/5"
check 'and what to do' says 'cache_limit'
exec {OPEN}<&- {OPEN_TOO}<&-
check 'when a file is closed, there is room again' until_true 20 cmp "$IMPORT/room/5" "$MOUNT/room/5"
rm "$MOUNT/room/notes.swp"
check 'it ends' exits 0 vondle unmount
echo '{"disk_reserve": "4000 TiB"}' >"$HOME_FOLDER/.vondle/service.json"
check 'on a full disk, it mounts' exits 0 vondle mount
check 'nothing can be kept there' exits 1 vondle keep "$MOUNT/docs"
check 'which says why' says 'disk_reserve'
check 'but what was here is read' cmp "$IMPORT/room/2" "$MOUNT/room/2"
check 'it is given up' exits 0 vondle unkeep "$MOUNT/docs" "$MOUNT/room/2"
check 'and ends' exits 0 vondle unmount
rm "$HOME_FOLDER/.vondle/service.json"

check 'with the files of one account here, another is refused' \
  exits 8 vondle login --key-file "$WORLD/another-key"
check 'and the first stays signed in' exits 0 vondle login --key-file "$WORLD/key"
check 'signing out works' exits 0 vondle logout
check 'the key is gone' sh -c "! grep -q api_key '$CONFIG'"
check 'and so are the copies' test -z "$(find "$HOME_FOLDER/.local/share/vondle" -type f)"
check 'signed out, nothing is mounted' exits 3 vondle mount
check 'and the other may sign in' exits 0 vondle login --key-file "$WORLD/another-key"

conclude
