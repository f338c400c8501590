#!/usr/bin/env bash
# What the service does when nobody wants anything: a folder that is mounted and has been looked at, 30 seconds long.
# The one thing to be done is asking the server for changes. idle.sh FOLDER-OF-PROGRAMS
source "$(dirname "$0")/begin.sh"

SECONDS_OF_REST=30

start_account
mount_account
ls -l "$MOUNT/folder-001" >/dev/null
PID=$(service_pid)
sleep 5 # connections that are kept for a moment are closed

# Of each thread: its number, its name and how often it went to sleep.
wake_ups() {
  local task
  for task in /proc/"$PID"/task/*; do
    awk -v task="${task##*/}" '/^Name/ { name = $2 } /^voluntary/ { print task, name, $2 }' "$task/status"
  done
}
ticks() { awk '{ print $14 + $15 }' "/proc/$PID/stat"; }
polls() { grep -c 'changes since' "$HOME_FOLDER/.local/state/vondle/service.log" || true; }
wake_ups >"$WORLD/before"
ticks_before=$(ticks) polls_before=$(polls)
sleep $SECONDS_OF_REST
ticks_after=$(ticks) polls_after=$(polls)
wake_ups >"$WORLD/after"
total() { awk '{ sum += $3 } END { print sum + 0 }' "$1"; }
report "wake-ups of all threads in $SECONDS_OF_REST s of rest" '<= 10 a poll' "$((polls_after - polls_before)) polls" \
  "$(($(total "$WORLD/after") - $(total "$WORLD/before")))" ''
report "processor time in $SECONDS_OF_REST s of rest" '-' '' "$(((ticks_after - ticks_before) * 10)) ms" ''
awk 'NR == FNR { before[$1] = $3; next } $3 > before[$1] { printf "  thread %s %s: %d\n", $1, $2, $3 - before[$1] }' \
  "$WORLD/before" "$WORLD/after"
