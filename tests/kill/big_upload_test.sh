#!/usr/bin/env bash
# A large file that is copied into the folder while the service is killed again and again: every part that the server has
# received stays received, and at last the file is there, byte by byte.
# big_upload_test.sh FOLDER-OF-PROGRAMS [--mib N] [--kills N] [--seed N]
# In full: --mib 1536 --kills 5. Mounts for real; needs /dev/fuse and three times the room.
MIB=256
KILLS=2
OPTIONS='mib kills'
source "$(dirname "$0")/begin.sh"
finish() {
  [ $failures = 0 ] || { show_log; tail -n 60 "$WORLD/storage.log" >&2; echo "repeat with: $0 $BIN_GIVEN$(given)" >&2; }
  destroy_world
}
trap finish EXIT
STATE=$HOME_FOLDER/.local/state/vondle
AT_ONCE=3 # parts of one file on their way

start_storage
exits 0 vondle login --server "$SERVER" --key-file "$WORLD/key"
# So that there is time to be killed in.
exits 0 vondle limits --up 60000
exits 0 vondle mount

worker() { cat "$STATE/lock"; }
received() { grep -c 'received part' "$WORLD/storage.log" || true; }
received_at_least() { [ "$(received)" -ge "$1" ]; }
different_parts() { sed -n 's/.*received part \([0-9]*\) of upload \([0-9a-f]*\).*/\1 \2/p' "$WORLD/storage.log" | sort -u | wc -l; }
uploads() { sed -n 's/.*received part [0-9]* of upload \([0-9a-f]*\).*/\1/p' "$WORLD/storage.log" | sort -u | wc -l; }
serves_from_another() { [ "$(worker)" != "$1" ] && [ -e "$MOUNT/big.bin" ] && in_world timeout 20 vondle status; }
same_on_the_server() { other_device get big.bin "$WORLD/back" >/dev/null && cmp "$WORLD/back" "$WORLD/big"; }

head -c $((MIB << 20)) /dev/urandom >"$WORLD/big"
check 'it is copied into the folder' cp "$WORLD/big" "$MOUNT/big.bin"
check 'the first part is received' until_true 60 received_at_least 1
PART=$(sed -n 's/.*received part [0-9]* of .*: \([0-9]*\) bytes.*/\1/p' "$WORLD/storage.log" | sort -n | tail -n 1)
PARTS=$((((MIB << 20) + PART - 1) / PART))
# At random, but each with something left to be sent.
for at in $(shuf -i "1-$((PARTS - AT_ONCE - 1))" -n "$KILLS" --random-source=<(yes "$SEED") | sort -n); do
  check "$at of $PARTS parts are received" until_true 120 received_at_least "$at"
  before=$(worker) above=$(supervisor)
  if [ $((RANDOM % 2)) = 0 ]; then
    kill -9 "$before"
    check "the worker is killed, and it serves again" until_true 30 serves_from_another "$before"
  else
    kill -9 "$above" "$before" 2>/dev/null || true
    check "both are killed" until_true 30 service_is_gone
    check "and it mounts again" exits 0 vondle mount
  fi
  check 'the file is there in full' test "$(stat -c %s "$MOUNT/big.bin")" = $((MIB << 20))
done
check 'everything is sent' exits 0 vondle sync --wait 55
echo "$PARTS parts, received $(received) times"
check 'it was one upload' test "$(uploads)" = 1
check 'every part was received' test "$(different_parts)" = "$PARTS"
check 'only what was on its way was received again' test "$(received)" -le $((PARTS + AT_ONCE * KILLS))
check 'the server has every byte' same_on_the_server
check 'the folder too' cmp "$MOUNT/big.bin" "$WORLD/big"
check 'it unmounts' exits 0 vondle unmount
conclude
