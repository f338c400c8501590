#!/usr/bin/env bash
# A million known items through the mount: looking at them, starting with them, and what they take in memory. The
# account is generated, so that no server's speed counts.
# listing.sh FOLDER-OF-PROGRAMS
source "$(dirname "$0")/begin.sh"

ITEMS=1000901
BIG=folder-000 # 100,000 files
ROUNDS=5
count_items() { [ "$(find "$MOUNT" -mindepth 1 | wc -l)" = "$ITEMS" ]; }

start_account
mount_account

seconds=$(seconds_of ls -f "$MOUNT/$BIG")
report 'the first ls -f of 100,000 files, with the request' '-' '' "$seconds s" ''

# The same files on the machine's own file system, for comparison.
mkdir "$WORLD/native"
(cd "$WORLD/native" && find "$MOUNT/$BIG" -type f -printf '%f\0' | xargs -0 -n 5000 touch)
compare_seconds 'ls -f of 100,000 files, warm' '<= 0.3 s' "$ROUNDS" "ls -f '$WORLD/native'" "ls -f '$MOUNT/$BIG'"
compare_seconds 'ls -l of 100,000 files, warm' '<= 1 s' "$ROUNDS" "ls -l '$WORLD/native'" "ls -l '$MOUNT/$BIG'"

seconds=$(seconds_of count_items)
report 'the first find over 1,000,000 items, with 900 requests' '-' '' "$seconds s" ''
times=()
for _ in 1 2 3; do times+=("$(seconds_of find "$MOUNT" -mindepth 1)"); done
report 'find over 1,000,000 items, warm' '<= 3 s' '' "$(median "${times[@]}") s" ''
sleep 3 # what the listings needed for a moment is given back
report 'memory of the service that has listed them all' '<= 300 MiB' '' "$(memory_of "$(service_pid)") MiB" ''

times=()
for _ in 1 2 3; do
  in_world vondle unmount --wait 20 >/dev/null
  times+=("$(seconds_of sh_in_world 'vondle mount "$0" >/dev/null && stat "$0/folder-900" >/dev/null' "$MOUNT")")
done
report 'start with 1,000,000 items until the folder answers' '<= 0.5 s' '' "$(median "${times[@]}") s" ''
count_items || { echo 'not all items are there' >&2; exit 1; }
pid=$(service_pid)
report 'memory of the service with 1,000,000 items' '<= 300 MiB' '' "$(memory_of "$pid") MiB" ''
