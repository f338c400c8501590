#!/usr/bin/env bash
# Writing through the mount: many small files until the server has them all, beside rclone with a server of its own;
# and what the service takes in memory meanwhile, and for one large file.
# writing.sh FOLDER-OF-PROGRAMS [--full]
source "$(dirname "$0")/begin.sh"
source bench/rclone.sh

FILES=2000
SIZE=4096
start_storage
mount_account
mkdir "$WORLD/peer"
serve_with_rclone webdav "$WORLD/peer"
# Without the five seconds that it waits after a file is closed.
mount_with_rclone ":webdav,url='$RCLONE_SERVER':" --vfs-cache-mode writes --vfs-write-back 0s

seconds_since() { awk -v a="$1" -v b="$(date +%s%N)" 'BEGIN { printf "%.3f", (b - a) / 1e9 }'; }
must_be() { [ "$1" = "$2" ] || { echo "the server has $1 instead of $2" >&2; exit 1; }; }
arrived_at_peer() { find "$WORLD/peer/$1" -type f -size ${SIZE}c 2>/dev/null | wc -l; }

# Both make the folder before the clock starts, and set `taken` (seconds) and `latencies` (file_writer's line).
write_with_rclone() { # FOLDER
  mkdir "$RCLONE_MOUNT/$1"
  local before
  before=$(date +%s%N)
  latencies=$("$BIN/file_writer" "$RCLONE_MOUNT/$1" $FILES $SIZE)
  until [ "$(arrived_at_peer "$1")" = $FILES ]; do sleep 0.1; done
  taken=$(seconds_since "$before")
}
write_with_vondle() { # FOLDER
  mkdir "$MOUNT/$1"
  in_world vondle sync --wait >/dev/null
  local before
  before=$(date +%s%N)
  latencies=$("$BIN/file_writer" "$MOUNT/$1" $FILES $SIZE)
  in_world vondle sync --wait >/dev/null
  taken=$(seconds_since "$before")
  must_be "$(other_device ls "$1" | grep -c $'\t'"$SIZE"$'\t')" $FILES
}
close_latency() { cut -d ' ' -f 4 <<<"$latencies"; }

PID=$(service_pid)
rest=$(memory_of "$PID")
forget_peak_of "$PID"
theirs=() ours=() ratios=() theirs_close=() ours_close=() close_ratios=()
for ((round = 1; round <= ROUNDS; ++round)); do
  write_with_rclone "round-$round"
  theirs+=("$taken") theirs_close+=("$(close_latency)")
  write_with_vondle "round-$round"
  ours+=("$taken") ours_close+=("$(close_latency)")
  ratios+=("$(quotient "${theirs[-1]}" "${ours[-1]}")")
  close_ratios+=("$(quotient "${ours_close[-1]}" "${theirs_close[-1]}")")
done
report "close of one of $FILES files of 4 KiB, against rclone" '< 1 ms' "$(median "${theirs_close[@]}") ms" \
  "$(median "${ours_close[@]}") ms" "$(median "${close_ratios[@]}")"
report "$FILES files of 4 KiB on the server, against rclone" '>= 3x' "$(median "${theirs[@]}") s" \
  "$(median "${ours[@]}") s" "$(median "${ratios[@]}")"

# compare_peak WHAT: to what it took at rest.
compare_peak() {
  local peak
  peak=$(peak_memory_of "$PID")
  report "$1" '< 100 MiB' "$rest MiB" "$peak MiB" "$(quotient "$peak" "$rest")"
}
compare_peak "peak memory of the service while $FILES files go up"
forget_peak_of "$PID"
head -c $((1024 * MEBIBYTE)) /dev/urandom >"$MOUNT/big.bin"
in_world vondle sync --wait >/dev/null
must_be "$(other_device ls '' | grep -c $'\t'"$((1024 * MEBIBYTE))"$'\t')" 1
compare_peak 'peak memory while 1 GiB goes up in parts'
