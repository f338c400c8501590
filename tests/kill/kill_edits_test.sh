#!/usr/bin/env bash
# Processes that are killed at random moments while several programs change files in the folder and another device
# changes some of them on the server: kill_edits_test.sh FOLDER-OF-PROGRAMS [--rounds N] [--seed N]
# After each round the folder holds every change that was acknowledged; every third round everything is sent, and the
# server holds it too. What the programs do comes from the seed. In full: --rounds 200, which takes a quarter of an hour.
# Mounts for real; needs /dev/fuse.
ROUNDS=12
OPTIONS=rounds
source "$(dirname "$0")/begin.sh"
JOURNALS=$WORLD/journals # what was acknowledged; outside the mount
export PYTHONDONTWRITEBYTECODE=1
WRITERS='1 2 3'
PIDS=()
finish() {
  [ ${#PIDS[@]} = 0 ] || kill "${PIDS[@]}" 2>/dev/null || true
  if [ $failures != 0 ]; then
    show_log
    tail -n 40 "$JOURNALS"/*.journal >&2 || true
    echo "repeat with: $0 $BIN_GIVEN$(given)" >&2
  fi
  destroy_world
}
trap finish EXIT
STATE=$HOME_FOLDER/.local/state/vondle
# A supervisor gives up after five workers in a row that lived for seconds only.
MAX_KILLS_OF_WORKERS=4
SENDS_EVERY=3

mkdir -p "$JOURNALS" "$IMPORT/shared"
for writer in $WRITERS; do mkdir "$IMPORT/writer $writer"; done
for log in 0 1 2; do : >"$IMPORT/shared/log $log.txt"; done
touch "$JOURNALS/other.lines"
start_storage --import "$IMPORT"
exits 0 vondle login --server "$SERVER" --key-file "$WORLD/key"
exits 0 vondle mount

start_programs() {
  local writer
  PIDS=()
  for writer in $WRITERS; do
    python3 tests/kill/edit_writer.py "$MOUNT" "$JOURNALS" "$writer" "$SEED/$round" &
    PIDS+=($!)
  done
  python3 tests/kill/other_device.py "$JOURNALS" "$SERVER" "$WORLD/key" "$SEED/$round" lines &
  PIDS+=($!)
}
# Each must have got along with whatever was killed, unless it ends before it has begun.
programs_end() {
  local pid status all=0
  kill "${PIDS[@]}" 2>/dev/null || true
  for pid in "${PIDS[@]}"; do
    status=0
    wait "$pid" || status=$?
    [ $status = 0 ] || [ $status = $((128 + 15)) ] || all=1
  done
  PIDS=()
  return $all
}
# Now and then somebody sends everything at once, or makes room.
be_busy() {
  case $((RANDOM % 4)) in
    0) (in_world timeout 60 vondle sync --wait 20 >/dev/null 2>&1 || true) & ;;
    1) (in_world timeout 60 vondle evict "$MOUNT/writer $((1 + RANDOM % 3))"/* "$MOUNT/shared"/* >/dev/null 2>&1 || true) & ;;
  esac
}
worker() { cat "$STATE/lock"; }
kill_storage() { kill -9 "$STORAGE_PID"; wait "$STORAGE_JOB" 2>/dev/null || true; }
kill_service() { kill -9 "$above" "$before" 2>/dev/null || true; }
serves_from_another() { [ "$(worker)" != "$1" ] && ls "$MOUNT" >/dev/null 2>&1 && in_world timeout 20 vondle status; }
random_nap() { sleep "$((RANDOM % $1)).$((RANDOM % 10))"; }
the_folder_holds_all() { timeout 120 python3 tests/kill/compare_edits.py "$MOUNT" "$JOURNALS"; }
the_server_holds_all() { timeout 120 python3 tests/kill/compare_edits.py "$MOUNT" "$JOURNALS" "$SERVER" "$WORLD/key"; }
all_sent() { exits 0 vondle sync --wait 50; }
edits_are_whole() { [ "$(sqlite3 "$STATE/edits.db" 'PRAGMA integrity_check')" = ok ]; }

kills_of_workers=0 clashes=0
declare -A killed=([worker]=0 [supervisor]=0 [service]=0 [storage]=0 [all]=0)
for ((round = 1; round <= ROUNDS; ++round)); do
  [ $failures = 0 ] || break
  case $((RANDOM % 10)) in
    [0-3]) victim=worker ;;
    [45]) victim=service ;;
    6) victim=supervisor ;;
    [78]) victim=storage ;;
    *) victim=all ;;
  esac
  sends=$((round % SENDS_EVERY == 0 || round == ROUNDS))
  # The other device can change what it likes only while nobody else does.
  clashes_now=$((sends && RANDOM % 3 > 0))
  if [ $clashes_now = 1 ] && [ $victim != all ]; then victim=service; fi
  if [ $victim = worker ] && [ $kills_of_workers = $MAX_KILLS_OF_WORKERS ]; then victim=service; fi
  before=$(worker) above=$(supervisor)
  start_programs
  be_busy
  random_nap 3
  case $victim in
    worker) kill -9 "$before" ;;
    supervisor) kill -9 "$above" ;;
    service) kill_service ;;
    storage) kill_storage ;;
    all) kill_storage; kill_service ;;
  esac
  killed[$victim]=$((killed[$victim] + 1))
  what="round $round ($victim killed)"
  if [ $victim = worker ]; then
    kills_of_workers=$((kills_of_workers + 1))
    check "$what: it serves again" until_true 30 serves_from_another "$before"
  elif [ $victim != storage ]; then
    kills_of_workers=0
    check "$what: it ends" until_true 30 service_is_gone
  fi
  case $victim in storage | all) start_storage ;; esac
  if [ $clashes_now = 1 ]; then
    check "$what: programs got along with it" programs_end
    check "$what: another device makes changes" \
      python3 tests/kill/other_device.py "$JOURNALS" "$SERVER" "$WORLD/key" "$SEED/$round" clash
    clashes=$((clashes + 1))
  fi
  case $victim in supervisor | service | all) check "$what: it mounts again" exits 0 vondle mount ;; esac
  if [ $clashes_now = 0 ]; then
    random_nap 2
    check "$what: programs got along with it" programs_end
    check "$what: the folder holds what they made" the_folder_holds_all
  fi
  check "$what: the queue is whole" edits_are_whole
  [ $sends = 1 ] || continue
  check "$what: everything is sent" all_sent
  check "$what: so the server holds it" the_server_holds_all
done

check 'it unmounts' exits 0 vondle unmount
check 'no process ended by itself' sh -c "! grep -hE 'ended by signal (4|6|7|8|11) |Sanitizer' '$STATE/service.log'*"
echo "$(cat "$JOURNALS"/*.journal | grep -c acknowledged) changes were acknowledged, $(cat "$JOURNALS"/*.journal | grep -c settled) cut off," \
  "$(cat "$JOURNALS"/*.journal | grep -c failed) refused; killed: the worker ${killed[worker]} times, the supervisor" \
  "${killed[supervisor]}, both ${killed[service]}, the storage ${killed[storage]}, all ${killed[all]}; $clashes times the other device clashed"
conclude
