#!/usr/bin/env bash
# From the server's answer to what the desktop shows: full accounts, refused keys and files changed on both sides are
# one notice each, which goes when they are over. notices_end_to_end_test.sh FOLDER-OF-PROGRAMS
# Mounts for real; needs /dev/fuse.
set -euo pipefail
BIN_GIVEN=$(realpath "$1")
cd "$(dirname "$0")/.."
source tools/demo.sh
source tests/checks.sh

RECORDER=$BIN_GIVEN/record_notices
end_world() {
  for process in "${ACCOUNT_PID:-}" "${RECORDER_PID:-}" "${BUS_PID:-}"; do [ -z "$process" ] || kill "$process" 2>/dev/null || true; done
  ACCOUNT_PID= RECORDER_PID= BUS_PID=
  destroy_world
}
finish() {
  [ $failures = 0 ] || { cat "$WORLD/desktop" >&2; show_log; }
  end_world
}
trap finish EXIT
# A world with a desktop that writes down what it is asked for.
begin_world() {
  make_world "$BIN_GIVEN"
  dbus-daemon --session --nofork --address="unix:path=$WORLD/run/bus" >"$WORLD/bus.log" 2>&1 &
  BUS_PID=$!
  until_true 10 test -S "$WORLD/run/bus"
  DBUS_SESSION_BUS_ADDRESS="unix:path=$WORLD/run/bus" "$RECORDER" >"$WORLD/desktop" 2>&1 &
  RECORDER_PID=$!
  wait_for_line "$WORLD/desktop" '^ready$' 10 "$RECORDER_PID"
}
told() { tail -n +2 "$WORLD/desktop"; }
# told_is LINE...: that and nothing else, also a moment later.
told_is() {
  until_true 10 test "$(($# + 1))" -le "$(wc -l <"$WORLD/desktop")" || true
  sleep 1
  diff <(told) <(for line in "$@"; do printf '%s\n' "$line"; done) >&2
}
fails() { ! timeout 60 "$@" >/dev/null 2>&1; }
both_are_there() { [ "$(for file in "$MOUNT"/Für*; do cat "$file"; echo; done | sort)" = $'ours\ntheirs' ]; }
one_fails() { [ "$(field service.edits.failing)" = 1 ]; }
is_waiting() { exits 8 vondle sync --wait 20; }

begin_world
ODD='Für "Zoë" #1 <b>100%3F & it'\''s? [draft].txt'
SHOWN='Für &quot;Zoë&quot; #1 &lt;b&gt;100%3F &amp; it&apos;s? [draft].txt'
mkdir -p "$IMPORT/shut"
printf 'first' >"$IMPORT/$ODD"
printf 'one' >"$IMPORT/one.txt"
printf 'two' >"$IMPORT/two.txt"
start_storage --import "$IMPORT"
exits 0 vondle login --server "$SERVER" --key-file "$WORLD/key"
check 'it mounts' exits 0 vondle mount
check 'nothing is told' told_is

# On both sides.
check 'a file is read' test "$(cat "$MOUNT/$ODD")" = first
printf 'theirs' >"$WORLD/theirs"
other_device put "$WORLD/theirs" "$ODD" >/dev/null
printf 'ours' >"$MOUNT/$ODD"
check 'what was changed on both sides is sent' exits 0 vondle sync --wait 30
check 'both are kept' until_true 10 both_are_there
CONFLICT="Vondle 0: Vondle: “$SHOWN” was changed on the server too; what was changed here is kept beside it as a conflicted copy."
check 'that is told, once' told_is "$CONFLICT"

# A full account.
stop_storage
start_storage --quota demo:10
printf 'more than ten bytes' >"$MOUNT/new $ODD"
FULL="Vondle 0: Vondle: Vondle is full. “new $SHOWN” will upload once there is room; open the Vondle menu to get more space."
check 'a full account is told of' told_is "$CONFLICT" "$FULL"
printf 'more than ten bytes, too' >"$MOUNT/newer"
printf 'and these' >"$MOUNT/one.txt"
check 'all wait for room' is_waiting
check 'three of them' test "$(field service.edits.total)" = 3
check 'however often they are tried' is_waiting
check 'that is one notice' told_is "$CONFLICT" "$FULL"
stop_storage
start_storage --quota demo:0
check 'with room they are sent' exits 0 vondle sync --wait 60
check 'and the notice goes' told_is "$CONFLICT" "$FULL" 'close 42'

# A key that is not good any more.
check 'everything is in sight' test "$(ls "$MOUNT" | wc -l)" = 7
(umask 077 && head -c 24 /dev/urandom | base64 | tr '+/' '-_' >"$WORLD/next-key")
stop_storage
cp "$WORLD/next-key" "$WORLD/key"
start_storage
check 'with another key for the account, a download fails' fails cat "$MOUNT/two.txt"
REFUSED='Vondle 0: Vondle: Vondle needs to be signed in again.'
check 'which is told' told_is "$CONFLICT" "$FULL" 'close 42' "$REFUSED"
check 'a listing fails, too' fails ls "$MOUNT/shut"
check 'following' exits 6 vondle sync
printf 'unsent' >"$MOUNT/unsent.txt"
check 'and sending' until_true 20 one_fails
check 'all that is one notice' told_is "$CONFLICT" "$FULL" 'close 42' "$REFUSED"
check 'signed in again' exits 0 vondle login --server "$SERVER" --key-file "$WORLD/key"
check 'everything is sent' exits 0 vondle sync --wait 60
check 'and the notice goes' told_is "$CONFLICT" "$FULL" 'close 42' "$REFUSED" 'close 43'
check 'it unmounts' exits 0 vondle unmount
[ $failures = 0 ] || conclude
end_world

# A server that takes the key and refuses the contents.
begin_world
python3 tests/hostile_account.py >"$WORLD/account.log" 2>&1 &
ACCOUNT_PID=$!
wait_for_line "$WORLD/account.log" 'listening on' 20 "$ACCOUNT_PID"
SERVER=$(sed -n 's/^listening on //p' "$WORLD/account.log")
exits 0 vondle login --server "$SERVER" --key-file "$WORLD/key"
check 'it mounts' exits 0 vondle mount
check 'contents that are refused fail' fails cat "$MOUNT/trouble/status-401"
check 'each time' fails cat "$MOUNT/trouble/status-401"
SIGN_IN='Vondle 0: Vondle: Vondle needs to be signed in again to download “name”.'
check 'which is told once' told_is "$SIGN_IN"
check 'the server is asked for something else' exits 0 vondle sync
check 'and the notice goes' told_is "$SIGN_IN" 'close 41'
check 'it unmounts' exits 0 vondle unmount
conclude
