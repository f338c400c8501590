#!/usr/bin/env bash
# What a machine does to the service: full and read-only disks, removed and cut files, wrong rights, a second instance,
# another user. adversity_test.sh FOLDER-OF-PROGRAMS
# Mounts for real, in a mount namespace of its own; needs /dev/fuse, and uidmap when not run by root.
set -euo pipefail
if [ "${IN_NAMESPACE:-}" != yes ]; then
  namespaces=(--mount)
  [ "$(id -u)" = 0 ] || namespaces=(--user --map-root-user --map-auto --mount)
  IN_NAMESPACE=yes exec unshare "${namespaces[@]}" -- "$0" "$@"
fi
BIN_GIVEN=$(realpath "$1")
cd "$(dirname "$0")/.."
source tools/demo.sh
source tests/checks.sh

make_world "$BIN_GIVEN"
finish() {
  [ $failures = 0 ] || show_log
  in_world vondle unmount --wait 5 >/dev/null 2>&1 || true
  for place in "$CONTENTS" "$SHARE" "$STATE"; do
    while mountpoint -q "$place"; do umount -l "$place" || break; done
  done
  destroy_world
}
CONFIG=$HOME_FOLDER/.vondle/config.json
STATE=$HOME_FOLDER/.local/state/vondle
SHARE=$HOME_FOLDER/.local/share/vondle
CONTENTS=$SHARE/contents
LOG=$STATE/service.log
trap finish EXIT

NOBODY=(setpriv --reuid 65534 --regid 65534 --clear-groups)
mkdir -p "$IMPORT/docs/deep" "$IMPORT/other" "$HOME_FOLDER/own" "$WORLD/outside"
seq 1 40 | while read -r i; do seq 1 "$i" >"$IMPORT/docs/$i.txt"; done
echo deep >"$IMPORT/docs/deep/letter.txt"
head -c 3000000 /dev/urandom >"$IMPORT/big.bin"
head -c 3000000 /dev/urandom >"$IMPORT/other/big.bin"
echo mine >"$HOME_FOLDER/own/file"
echo outside >"$WORLD/outside/file"
start_storage --import "$IMPORT"
exits 0 vondle login --server "$SERVER" --key-file "$WORLD/key"

no_files_in() { [ -z "$(find "$@" -type f 2>/dev/null)" ]; }
mounted() { exits 0 vondle mount; }
unmounted() { exits 0 vondle unmount; }
# The file's bytes through the mount.
reads() { timeout 60 cmp "$IMPORT/$1" "$MOUNT/$1"; }
all_reads() { timeout 60 diff -r "$IMPORT" "$MOUNT"; }

# The configuration's rights.
chmod 644 "$CONFIG"
check 'a configuration that others can read is taken' mounted
check 'and made private' test "$(stat -c %a "$CONFIG")" = 600
check 'which the log tells' grep -q "other users had rights to $CONFIG" "$LOG"
check 'it unmounts' unmounted
chown 65534 "$CONFIG"
check 'the configuration of another user is refused' exits 1 vondle mount
check 'with what to do' says 'belongs to another user (number 65534)'
chown "$(id -u)" "$CONFIG"
chmod 777 "$HOME_FOLDER/.vondle"
check 'a configuration in a folder that others can write to is refused' exits 1 vondle mount
check 'with what to do ' says "chmod go-w $HOME_FOLDER/.vondle"
check 'and left as it is' test "$(stat -c %a "$HOME_FOLDER/.vondle")" = 777
chmod 700 "$HOME_FOLDER/.vondle"

# Places that are no empty folder.
ln -s own "$HOME_FOLDER/link"
check 'a link is no place to mount' exits 1 vondle mount "$HOME_FOLDER/link"
check 'and the refusal says so' says "$HOME_FOLDER/link is a symbolic link; name the folder that it leads to."
check 'a file is none either' exits 1 vondle mount "$HOME_FOLDER/own/file"
check 'and the refusal says so ' says "$HOME_FOLDER/own/file is not a folder."
check 'nor a folder with files' exits 1 vondle mount "$HOME_FOLDER/own"
check 'and the refusal says so  ' says 'is not empty'
check 'nothing was mounted' sh -c "! grep '$WORLD/.*fuse.vondle' /proc/self/mountinfo"

# A state folder that cannot be written to.
mkdir -p "$STATE"
mount --bind "$STATE" "$STATE"
mount -o remount,bind,ro "$STATE"
check 'a read-only state folder is refused' exits 1 vondle mount
check 'with its name' says "$STATE"
check 'and the reason' says 'Read-only file system'
umount "$STATE"

# A disk that is full.
mkdir -p "$CONTENTS"
mount -t tmpfs -o size=2m,mode=700 none "$CONTENTS"
check 'with a small disk, it mounts' mounted
check 'what fits is read' reads docs/40.txt
check 'what does not fit is an error' exits 1 cat "$MOUNT/big.bin"
check 'that says why' says 'No space left on device'
check 'info says so too' exits 0 vondle info "$MOUNT/big.bin"
check 'with the reason' says 'there is no room for 2.9 MB'
check 'nothing unfinished stays' no_files_in "$SHARE" -size +1k
check 'the rest is read on' reads docs/39.txt
mount -o remount,size=16m "$CONTENTS"
check 'with room, everything is read' all_reads
check 'it unmounts ' unmounted
umount "$CONTENTS"

mount -t tmpfs -o size=2m,mode=700 none "$SHARE"
check 'with a small disk for downloads too, it mounts' mounted
check 'what does not fit is an error ' exits 1 cat "$MOUNT/other/big.bin"
check 'that says why ' says 'No space left on device'
check 'nothing unfinished stays ' no_files_in "$SHARE"
mount -o remount,size=16m "$SHARE"
check 'with room, it is read' reads other/big.bin
check 'it unmounts  ' unmounted
umount "$SHARE"

# A full disk below the state folder: what is there in memory serves on.
mount -t tmpfs -o size=1m,mode=700 none "$STATE"
check 'with a small state folder, it mounts' mounted
head -c 1000000 /dev/zero >"$STATE/filling" 2>/dev/null || true
head -c 100000 /dev/zero >"$STATE/filling2" 2>/dev/null || true
check 'with a full one, everything is read' all_reads
check 'and changes are followed' exits 0 vondle sync
rm "$STATE/filling" "$STATE/filling2"
check 'it unmounts   ' unmounted
check 'and mounts again' mounted
check 'with everything' all_reads
check 'it unmounts    ' unmounted
umount "$STATE"

# Downloaded contents that somebody removes.
check 'it mounts' mounted
check 'everything is here' exits 0 vondle fetch "$MOUNT"
rm -rf "${CONTENTS:?}"/*
check 'without the copies, everything is read' all_reads
check 'everything is here ' exits 0 vondle fetch "$MOUNT"
rm -rf "$SHARE"
check 'without their folder too' all_reads

# A second instance.
first=$(field service.pid)
check 'a second service of the same state folder is refused' exits 1 vondle-service --mount "$HOME_FOLDER/Second"
check 'and names the first' says "process $first"
mkdir -m 700 "$WORLD/home2"
sed "s|$HOME_FOLDER|$WORLD/home2|" "$WORLD/passwd" >"$WORLD/passwd2"
check 'a second service for the same folder is refused' \
  exits 1 env HOME="$WORLD/home2" NSS_WRAPPER_PASSWD="$WORLD/passwd2" vondle-service --mount "$MOUNT"
check 'and names the first ' says "$MOUNT is in use by process $first"
check 'the first is not disturbed' test "$(field service.pid)" = "$first"

# Another user of the machine.
# A line that is no command is answered too, but only to whom the service listens.
asks() { "$@" curl -sS --http0.9 --max-time 20 --unix-socket "$WORLD/run/vondle/control" http://service/ >"$WORLD/out" 2>&1 || true; }
chmod 711 "$WORLD" "$WORLD/run"
asks env
check 'the user reaches the service' says malformed
check 'another does not reach its socket' sh -c "! ${NOBODY[*]} test -e '$WORLD/run/vondle/control'"
chmod 711 "$WORLD/run/vondle"
chmod 666 "$WORLD/run/vondle/control"
check 'and when its rights would let them' "${NOBODY[@]}" test -w "$WORLD/run/vondle/control"
asks "${NOBODY[@]}"
check 'is not answered either' sh -c "grep -q '^curl: ' '$WORLD/out' && ! grep -q malformed '$WORLD/out'"
asks env
check 'while the user is' says malformed
chmod 711 "$HOME_FOLDER"
check 'nor sees the folder' sh -c "! ${NOBODY[*]} ls '$MOUNT' 2>/dev/null"
chmod 700 "$WORLD" "$WORLD/run" "$WORLD/run/vondle" "$HOME_FOLDER"
chmod 600 "$WORLD/run/vondle/control"
check 'it unmounts     ' unmounted

# State files that power loss has cut.
mapfile -t STATE_FILES < <(ls -d "$STATE/replica.db" "$STATE/anchor.json" "$HOME_FOLDER"/.local/share/group.*/*.json)
check 'there are state files' test ${#STATE_FILES[@]} -ge 3
echo '["root"]' >"$HOME_FOLDER/.vondle/pinned.json"
for cut in 0 1 half last; do
  for file in "${STATE_FILES[@]}" "$HOME_FOLDER/.vondle/pinned.json"; do
    size=$(stat -c %s "$file")
    case $cut in half) length=$((size / 2)) ;; last) length=$((size > 0 ? size - 1 : 0)) ;; *) length=$((size < cut ? size : cut)) ;; esac
    truncate -s "$length" "$file"
  done
  check "with state files cut ($cut), it mounts" mounted
  check 'follows' exits 0 vondle sync
  check 'and is whole' all_reads
  check 'it unmounts      ' unmounted
done

check 'nothing elsewhere was touched' test "$(cat "$HOME_FOLDER/own/file" "$WORLD/outside/file"; ls "$HOME_FOLDER/own" "$WORLD/outside")" = \
  "$(printf 'mine\noutside\n%s:\nfile\n\n%s:\nfile' "$HOME_FOLDER/own" "$WORLD/outside")"
check 'no worker crashed' sh -c "! grep -E 'ended by signal|AddressSanitizer|ThreadSanitizer|runtime error' '$LOG'"
conclude
