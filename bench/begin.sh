# How the measuring scripts begin: in a throw-away world made of the programs in the folder that is their first word;
# ROUNDS is 3, or 7 when the second is --full. Sourced.
set -euo pipefail
BIN_GIVEN=$(realpath "$1")
ROUNDS=3
[ "${2:-}" != --full ] || ROUNDS=7
MEBIBYTE=1048576
cd "$(dirname "$0")/.."
source tools/demo.sh
source bench/report.sh

make_world "$BIN_GIVEN"
STARTED=() # processes beside those of the world, and mounts beside its own
MOUNTED=()
finish() {
  local each
  for each in "${MOUNTED[@]}"; do fusermount3 -uz "$each" 2>/dev/null || true; done
  for each in "${STARTED[@]}"; do kill "$each" 2>/dev/null || true; done
  destroy_world
}
trap finish EXIT
trap 'exit 130' INT TERM

# start_account: a server with a generated account, so that no real one's speed counts; sets SERVER.
start_account() {
  "$BIN/account_server" >"$WORLD/account.log" 2>&1 &
  STARTED+=($!)
  wait_for_line "$WORLD/account.log" 'listening on' 20 $!
  SERVER=$(sed -n 's/^listening on //p' "$WORLD/account.log")
}

# mount_account: what SERVER has.
mount_account() {
  in_world vondle login --server "$SERVER" --key-file "$WORLD/key" >/dev/null
  in_world vondle mount "$MOUNT" >/dev/null
}

service_pid() { in_world vondle status --json | sed -n 's/.*"pid": *\([0-9]*\).*/\1/p' | head -1; }
# memory_of PID: MiB now; peak_memory_of PID: the most since forget_peak_of PID.
memory_of() { awk '/^VmRSS/ { printf "%.0f", $2 / 1024 }' "/proc/$1/status"; }
peak_memory_of() { awk '/^VmHWM/ { printf "%.0f", $2 / 1024 }' "/proc/$1/status"; }
forget_peak_of() { echo 5 >"/proc/$1/clear_refs"; }
