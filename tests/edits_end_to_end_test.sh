#!/usr/bin/env bash
# What programs change in the folder, with the programs as users run them, in a throw-away home:
# edits_end_to_end_test.sh FOLDER-OF-PROGRAMS. Mounts for real; needs /dev/fuse.
set -euo pipefail
BIN_GIVEN=$(realpath "$1")
cd "$(dirname "$0")/.."
source tools/demo.sh
source tests/checks.sh

finish() {
  [ $failures = 0 ] || show_log
  destroy_world
}
waiting() { field service.edits.total; }
all_sent() { exits 0 vondle sync --wait 60; }
# Whether the server has, byte by byte, what the folder shows.
server_has_it_all() {
  rm -rf "$WORLD/server"
  download_account "$WORLD/server"
  diff -r "$WORLD/server" "$MOUNT"
}
server_has() { # PATH TEXT
  other_device get "$1" "$WORLD/got" >/dev/null && [ "$(cat "$WORLD/got")" = "$2" ]
}
kill_processes() {
  local process
  for process in $(supervisor) $(service_processes); do kill -9 "$process" 2>/dev/null || true; done
  service_is_gone
}
kill_service() { until_true 20 kill_processes; }

make_world "$BIN_GIVEN"
trap finish EXIT
mkdir -p "$IMPORT/docs"
echo 'Dear reader' >"$IMPORT/letter.txt"
seq 1 20000 >"$IMPORT/docs/numbers"
echo one >"$IMPORT/docs/moved"
start_storage --import "$IMPORT"
in_world vondle login --server "$SERVER" --key-file - <"$WORLD/key"

# For reading alone.
check 'the folder is mounted for reading alone' exits 0 vondle mount --read-only
check 'and refuses changes' sh -c "! touch '$MOUNT/new' 2>/dev/null"
check 'it is taken away' exits 0 vondle unmount

# What programs do.
check 'the folder is mounted' exits 0 vondle mount
check 'it says that it can be written to' test "$(field service.read_only)" = False
cp "$IMPORT/docs/numbers" "$MOUNT/copy"
mkdir -p "$MOUNT/new/below/deep"
echo deep >"$MOUNT/new/below/deep/file"
mv "$MOUNT/docs/moved" "$MOUNT/new/moved"
sed -i 's/reader/writer/' "$MOUNT/letter.txt"
echo more >>"$MOUNT/docs/numbers"
rm "$MOUNT/copy" && cp "$IMPORT/docs/numbers" "$MOUNT/copy"
mkdir "$MOUNT/gone" && echo x >"$MOUNT/gone/x" && rm -r "$MOUNT/gone"
truncate -s 1000000 "$MOUNT/sparse"
LETTER=$(other_device ls | awk -F'\t' '$6 == "letter.txt" { print $2 }')
check 'what programs read is what they wrote' test "$(cat "$MOUNT/letter.txt" "$MOUNT/new/below/deep/file" "$MOUNT/new/moved" | tr '\n' ' ')" = 'Dear writer deep one '
check 'everything is sent' all_sent
check 'the server has it all' server_has_it_all
check 'a file that was saved by renaming is the same item' \
  test "$(other_device ls | awk -F'\t' '$6 == "letter.txt" { print $2 }')" = "$LETTER"
check 'nothing waits' test "$(waiting)" = 0

# Swapped names, and a folder that takes another's place.
echo a >"$MOUNT/a" && echo b >"$MOUNT/b" && mkdir "$MOUNT/d" && echo x >"$MOUNT/d/x"
check 'more is sent' all_sent
mv "$MOUNT/a" "$MOUNT/c" && mv "$MOUNT/b" "$MOUNT/a" && mv "$MOUNT/c" "$MOUNT/b"
mkdir "$MOUNT/d2" && mv "$MOUNT/d/x" "$MOUNT/d2" && rmdir "$MOUNT/d" && mv "$MOUNT/d2" "$MOUNT/d"
check 'names that were swapped are sent' all_sent
check 'the server has them swapped' server_has_it_all

# rsync, twice.
mkdir "$WORLD/source"
cp -r "$IMPORT/." "$WORLD/source/" && touch -d '2020-02-02 02:02:02' "$WORLD/source/letter.txt"
rsync -rt "$WORLD/source/" "$MOUNT/synced/"
check 'what rsync copied is sent' all_sent
check 'rsync has nothing to do the second time' \
  test -z "$(rsync -rti "$WORLD/source/" "$MOUNT/synced/" | grep -v '^\.d' || true)"
check 'and nothing waits' test "$(waiting)" = 0

# git.
in_git() { in_world git -C "$MOUNT/project" -c user.name=Ann -c user.email=ann@example.org "$@"; }
mkdir "$MOUNT/project"
in_git init -q -b main
cp -r "$WORLD/source/docs" "$MOUNT/project/"
in_git add -A && in_git commit -q -m 'First' && echo more >>"$MOUNT/project/docs/moved" && in_git commit -q -a -m 'Second'
check 'what git keeps is sound' in_git fsck --full --strict
check 'what git keeps is sent' all_sent
check 'the server has what git keeps' server_has_it_all

# Without the server.
stop_storage
echo offline >"$MOUNT/offline"
mkdir "$MOUNT/made offline" && echo inside >"$MOUNT/made offline/inside"
rm "$MOUNT/b"
mv "$MOUNT/a" "$MOUNT/made offline/a"
check 'what was changed without the server can be read' test "$(cat "$MOUNT/made offline/inside")" = inside
check 'unmounting says that it is not on the server' exits 8 vondle unmount --wait 3
check 'and that it is kept' says 'not on the server yet'
check 'signing out is refused' exits 8 vondle logout
check 'and says what would be lost' says 'offline'
start_storage
check 'the folder is mounted again' exits 0 vondle mount
check 'what was changed without the server is there' test "$(cat "$MOUNT/offline" "$MOUNT/made offline/inside")" = $'offline\ninside'
check 'and deleted is deleted' test ! -e "$MOUNT/b"
check 'and is sent' all_sent
check 'the server has what was changed without it' server_has_it_all
stop_storage
echo 'while mounted' >"$MOUNT/offline"
sleep 3
start_storage
check 'it goes up by itself when the server is back' until_true 90 server_has offline 'while mounted'

# Killed between the edit and the server.
stop_storage
echo survives >"$MOUNT/survivor"
mkdir "$MOUNT/survivors" && mv "$MOUNT/survivor" "$MOUNT/survivors/renamed"
rm "$MOUNT/copy"
check 'the service is killed' kill_service
start_storage
check 'it is mounted after the kill' exits 0 vondle mount
check 'nothing was lost' test "$(cat "$MOUNT/survivors/renamed")" = survives
check 'what was deleted stays deleted' test ! -e "$MOUNT/copy"
check 'all of it is sent' all_sent
check 'the server has it all after the kill' server_has_it_all

# Two devices change the same file.
stop_storage
echo mine >"$MOUNT/letter.txt"
check 'the service ends with the edit' kill_service
start_storage
echo theirs >"$WORLD/theirs"
other_device put "$WORLD/theirs" letter.txt >/dev/null
check 'it is mounted once more' exits 0 vondle mount
check 'the clash is settled' all_sent
check 'one keeps the name' until_true 30 test "$(cat "$MOUNT/letter.txt")" = theirs
check 'the other is kept beside it' until_true 30 grep -q mine "$MOUNT/letter (conflicted copy).txt"
check 'the server has both' server_has_it_all

# The trash.
other_device ls >/dev/null
rm "$MOUNT/offline"
check 'the deletion is sent' all_sent
check 'the trash is listed' exits 0 vondle trash list
check 'with what was deleted' says offline
ID=$(in_world vondle trash list --json | python3 -c '
import json, sys
print(next(each["id"] for each in json.load(sys.stdin)["items"] if each["name"] == "offline"))')
check 'it comes back' exits 0 vondle trash restore "$ID"
check 'and is shown' test "$(cat "$MOUNT/offline")" = 'while mounted'
check 'what is not in the trash is refused' exits 7 vondle trash delete "$ID"
check 'and left where it is' test -e "$MOUNT/offline"
check 'the trash is emptied' exits 0 vondle trash empty
check 'and is empty' test "$(in_world vondle trash list | wc -l)" = 0

# Names that stay here.
echo lock >"$MOUNT/.~lock.letter.odt#"
check 'a lock file holds nothing up' all_sent
check 'and stays here' test -z "$(other_device ls | grep -F '.~lock' || true)"
check 'status tells of it' test "$(field service.edits.local)" = 1
rm "$MOUNT/.~lock.letter.odt#"

check 'unmounting sends everything first' exits 0 vondle unmount
check 'signing out is fine then' exits 0 vondle logout
conclude
