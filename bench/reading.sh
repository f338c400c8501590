#!/usr/bin/env bash
# Reading through the mount: a large file that is here, and many small ones that are not.
# reading.sh FOLDER-OF-PROGRAMS [--full]
set -euo pipefail
BIN_GIVEN=$(realpath "$1")
cd "$(dirname "$0")/.."
source tools/demo.sh
source bench/report.sh

ROUNDS=3
SMALL_FILES=5000
READERS=8
[ "${2:-}" != --full ] || ROUNDS=7
MEBIBYTE=1048576

make_world "$BIN_GIVEN"
RCLONE_MOUNT=$WORLD/rclone
mkdir "$RCLONE_MOUNT"
finish() {
  fusermount3 -uz "$RCLONE_MOUNT" 2>/dev/null || true
  for pid in ${RCLONE_PIDS:-}; do kill "$pid" 2>/dev/null || true; done
  destroy_world
}
trap finish EXIT
trap 'exit 130' INT TERM

# Each round has a folder of its own: what nobody has looked at is cold.
head -c $((1024 * MEBIBYTE)) /dev/urandom >"$IMPORT/big.bin"
for ((round = 1; round <= ROUNDS; ++round)); do
  mkdir "$IMPORT/small-$round"
  head -c $((SMALL_FILES * 4096)) /dev/urandom | split -b 4096 -a 4 -d - "$IMPORT/small-$round/f"
done
start_storage --import "$IMPORT"
in_world vondle login --server "$SERVER" --key-file "$WORLD/key" >/dev/null
in_world vondle mount "$MOUNT" >/dev/null

rate() { awk '{ printf "%.0f", $2 / $1 / 1e6 }'; } # MB/s of file_reader's line
sequential() { printf '%s\n' "$1" | "$BIN/file_reader" 1 $MEBIBYTE | rate; }
many() { find "$1" -type f | "$BIN/file_reader" $READERS 65536 | cut -d ' ' -f 1; } # seconds

in_world vondle fetch "$MOUNT/big.bin" >/dev/null
NATIVE=$(find "$HOME_FOLDER/.local/share/vondle" -type f -size 1073741824c | head -1)
compare_rates() { # WHAT ASKED BEFORE-EACH
  local theirs=() ours=() ratios=() a b i
  for ((i = 0; i <= ROUNDS; ++i)); do
    $3
    a=$(sequential "$NATIVE")
    $3
    b=$(sequential "$MOUNT/big.bin")
    [ $i -gt 0 ] || continue # the first is to warm up
    theirs+=("$a")
    ours+=("$b")
    ratios+=("$(quotient "$b" "$a")")
  done
  report "$1" "$2" "$(median "${theirs[@]}") MB/s" "$(median "${ours[@]}") MB/s" "$(median "${ratios[@]}")"
}
drop_caches() { sync "$NATIVE" && echo 1 >/proc/sys/vm/drop_caches; }
compare_rates 'downloaded 1 GiB, warm, against the file itself' '>= 0.25' true
if [ -w /proc/sys/vm/drop_caches ]; then
  compare_rates 'downloaded 1 GiB, cold from disk' '>= 0.8' drop_caches
else
  echo 'downloaded 1 GiB, cold from disk: only root can drop the caches'
fi
in_world vondle evict "$MOUNT/big.bin" >/dev/null

# The peer reads the same tree from a server of its own; both know their folders before the clock starts.
answers() { (: <"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
RCLONE_PORT=$((20000 + RANDOM % 10000))
while answers "$RCLONE_PORT"; do RCLONE_PORT=$((RCLONE_PORT + 1)); done
: >"$WORLD/rclone.conf"
rclone serve http "$IMPORT" --addr "127.0.0.1:$RCLONE_PORT" --config "$WORLD/rclone.conf" >"$WORLD/rclone.log" 2>&1 &
RCLONE_PIDS=$!
until answers "$RCLONE_PORT"; do
  kill -0 "$RCLONE_PIDS" 2>/dev/null || { cat "$WORLD/rclone.log" >&2; exit 1; }
  sleep 0.1
done
rclone mount ":http,url='http://127.0.0.1:$RCLONE_PORT':" "$RCLONE_MOUNT" --config "$WORLD/rclone.conf" --read-only \
  --vfs-cache-mode full --cache-dir "$WORLD/rclone-cache" >"$WORLD/rclone.log" 2>&1 &
RCLONE_PIDS+=" $!"
until mountpoint -q "$RCLONE_MOUNT"; do
  kill -0 $! 2>/dev/null || { cat "$WORLD/rclone.log" >&2; exit 1; }
  sleep 0.1
done
cold=() warm=() theirs_cold=() theirs_warm=() cold_ratios=() warm_ratios=()
for ((round = 1; round <= ROUNDS; ++round)); do
  for top in "$RCLONE_MOUNT" "$MOUNT"; do
    ls -l "$top/small-$round" >/dev/null
    first=$(many "$top/small-$round")
    second=$(many "$top/small-$round")
    if [ "$top" = "$MOUNT" ]; then cold+=("$first") warm+=("$second"); else theirs_cold+=("$first") theirs_warm+=("$second"); fi
  done
  cold_ratios+=("$(quotient "${theirs_cold[-1]}" "${cold[-1]}")")
  warm_ratios+=("$(quotient "${theirs_warm[-1]}" "${warm[-1]}")")
done
report "$SMALL_FILES files of 4 KiB, cold, $READERS readers, against rclone" '>= 2x' "$(median "${theirs_cold[@]}") s" \
  "$(median "${cold[@]}") s" "$(median "${cold_ratios[@]}")"
report "$SMALL_FILES files of 4 KiB, warm, $READERS readers, against rclone" '>= 3x' "$(median "${theirs_warm[@]}") s" \
  "$(median "${warm[@]}") s" "$(median "${warm_ratios[@]}")"
