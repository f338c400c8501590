#!/usr/bin/env bash
# Reading through the mount: a large file that is here, and many small ones that are not.
# reading.sh FOLDER-OF-PROGRAMS [--full]
source "$(dirname "$0")/begin.sh"
source bench/rclone.sh

SMALL_FILES=5000
READERS=8

# Each round has a folder of its own: what nobody has looked at is cold.
head -c $((1024 * MEBIBYTE)) /dev/urandom >"$IMPORT/big.bin"
for ((round = 1; round <= ROUNDS; ++round)); do
  mkdir "$IMPORT/small-$round"
  head -c $((SMALL_FILES * 4096)) /dev/urandom | split -b 4096 -a 4 -d - "$IMPORT/small-$round/f"
done
start_storage --import "$IMPORT"
mount_account

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
serve_with_rclone http "$IMPORT"
mount_with_rclone ":http,url='$RCLONE_SERVER':" --read-only --vfs-cache-mode full
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
