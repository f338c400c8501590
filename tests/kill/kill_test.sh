#!/usr/bin/env bash
# Processes that are killed at random moments while folders are listed, files fetched and changes followed:
# kill_test.sh FOLDER-OF-PROGRAMS [--rounds N] [--seed N]
# After each round the service serves again with the inode numbers from before and a whole database; at the end every
# byte is compared. Mounts for real; needs /dev/fuse.
ROUNDS=12
OPTIONS=rounds
source "$(dirname "$0")/begin.sh"
finish() {
  [ $failures = 0 ] || { show_log; echo "repeat with: $0 $BIN_GIVEN$(given)" >&2; }
  destroy_world
}
trap finish EXIT
STATE=$HOME_FOLDER/.local/state/vondle
SHARE=$HOME_FOLDER/.local/share/vondle
EXPECTED=$WORLD/expected
# A supervisor gives up after five workers in a row that lived for seconds only.
MAX_KILLS_OF_WORKERS=4

FOLDERS=12
for ((folder = 0; folder < FOLDERS; ++folder)); do
  mkdir -p "$IMPORT/folder $folder/inner"
  for ((i = 0; i < 15; ++i)); do
    printf 'file %d of folder %d\n' "$i" "$folder" >"$IMPORT/folder $folder/$i.txt"
    head -c $((RANDOM * 4)) /dev/zero | tr '\0' "$((i % 10))" >>"$IMPORT/folder $folder/inner/$i.bin"
  done
done
for i in 1 2 3; do head -c 4000000 /dev/urandom >"$IMPORT/big $i.bin"; done
cp -a "$IMPORT" "$EXPECTED"
start_storage --import "$IMPORT"
exits 0 vondle login --server "$SERVER" --key-file "$WORLD/key"
exits 0 vondle mount

worker() { cat "$STATE/lock"; }
# The inode numbers that programs have seen, by path.
SEEN=$WORLD/seen
: >"$SEEN"
see() { (cd "$MOUNT" && find . -mindepth 1 -printf '%i %P\n') 2>/dev/null; }
inodes_are_the_same() {
  python3 - "$SEEN" <<'PY'
import sys
inode_of, path_of = {}, {}
for line in open(sys.argv[1], errors="surrogateescape"):
    inode, path = line[:-1].split(" ", 1)
    if inode_of.setdefault(path, inode) != inode or path_of.setdefault(inode, path) != path:
        sys.exit(f"{path} was {inode_of[path]} and is {inode}, which was {path_of[inode]}")
PY
}
database_is_whole() { [ "$(sqlite3 "$STATE/replica.db" 'PRAGMA integrity_check')" = ok ]; }
serves() { ls "$MOUNT" >/dev/null 2>&1; }
# The folder answers a little before the commands do.
serves_from_another() { [ "$(worker)" != "$1" ] && serves && in_world timeout 20 vondle status; }

# What programs do meanwhile; every one of them may fail.
be_busy() {
  (timeout 60 find "$MOUNT/" -mindepth 1 -printf '%i %P\n' >"$WORLD/seen.1" 2>/dev/null || true) &
  (timeout 60 cat "$MOUNT/folder $((RANDOM % FOLDERS))/inner/"*.bin >/dev/null 2>&1 || true) &
  (timeout 60 cat "$MOUNT/big $((1 + RANDOM % 3)).bin" >/dev/null 2>&1 || true) &
  (timeout 60 diff -rq "$EXPECTED/folder $((RANDOM % FOLDERS))" "$MOUNT/folder $((RANDOM % FOLDERS))" >/dev/null 2>&1 || true) &
  (in_world timeout 60 vondle sync >/dev/null 2>&1 || true) &
}
# Something to list, to fetch and to follow, also where nothing is left to do: on the server and in what is expected.
change_the_account() {
  local folder="folder $((RANDOM % FOLDERS))" new="round $1"
  other_device mkdir "$new" >/dev/null
  mkdir "$EXPECTED/$new"
  echo "round $1" >"$EXPECTED/$new/new.txt"
  other_device put "$EXPECTED/$new/new.txt" "$new/new.txt" >/dev/null
  head -c $((RANDOM * 8)) /dev/urandom >"$EXPECTED/$folder/0.txt"
  other_device put "$EXPECTED/$folder/0.txt" "$folder/0.txt" >/dev/null
}

milliseconds() { echo $((${EPOCHREALTIME/[.,]/} / 1000)); }
kills_of_workers=0 longest=0
worker_rounds=0 both_rounds=0 supervisor_rounds=0 storage_rounds=0
for ((round = 1; round <= ROUNDS; ++round)); do
  [ $failures = 0 ] || break
  change_the_account "$round"
  in_world vondle evict "$MOUNT/folder $((RANDOM % FOLDERS))" "$MOUNT/big 1.bin" "$MOUNT/big 2.bin" >/dev/null 2>&1 || true
  dice=$((RANDOM % 10)) moment=$((RANDOM % 700))
  before=$(worker) above=$(supervisor)
  [ $kills_of_workers -lt $MAX_KILLS_OF_WORKERS ] || dice=5
  be_busy
  sleep "0.$(printf '%03d' $moment)" # the random moment; nothing is waited for
  case $dice in
    [0-4]) victim=worker; kill -9 "$before" ;;
    [56]) victim='supervisor and worker'; kill -9 "$above" "$before" 2>/dev/null || true ;;
    7) victim=supervisor; kill -9 "$above" ;;
    *) victim=storage; kill -9 "$STORAGE_PID"; wait "$STORAGE_JOB" 2>/dev/null || true ;;
  esac
  killed_at=$(milliseconds)
  case $victim in
    worker)
      kills_of_workers=$((kills_of_workers + 1)) worker_rounds=$((worker_rounds + 1))
      check "round $round: without its $victim (at $moment ms), it serves again" until_true 30 serves_from_another "$before"
      ;;
    storage)
      storage_rounds=$((storage_rounds + 1))
      start_storage
      ;;
    *)
      kills_of_workers=0
      [ "$victim" = supervisor ] && supervisor_rounds=$((supervisor_rounds + 1)) || both_rounds=$((both_rounds + 1))
      check "round $round: without its $victim (at $moment ms), it ends" until_true 30 service_is_gone
      check "round $round: and mounts again" exits 0 vondle mount
      ;;
  esac
  took=$(($(milliseconds) - killed_at))
  [ $took -lt $longest ] || longest=$took
  for job in $(jobs -p); do [ "$job" = "$STORAGE_JOB" ] || wait "$job" 2>/dev/null || true; done
  cat "$WORLD/seen.1" >>"$SEEN"
  check "round $round ($victim): it follows" exits 0 vondle sync --wait 30
  see >>"$SEEN"
  check "round $round: inode numbers are the same" inodes_are_the_same
  check "round $round: the database is whole" database_is_whole
  check "round $round: the tree is" test "$(cd "$MOUNT" && find . | sort | cksum)" = "$(cd "$EXPECTED" && find . | sort | cksum)"
done

check 'every byte is right' diff -r "$EXPECTED" "$MOUNT"
check 'it unmounts' exits 0 vondle unmount
check 'and mounts' exits 0 vondle mount
check 'every byte is right after that' diff -r "$EXPECTED" "$MOUNT"
see >>"$SEEN"
check 'the inode numbers are the same' inodes_are_the_same
check 'nothing unfinished stays' test -z "$(find "$SHARE/temporary" "$SHARE/contents" "$STATE" -name '.vondle-*' -o -name '*.part' -o -path '*/temporary/*')"
check 'no process ended by itself' sh -c "! grep -hE 'ended by signal (4|6|7|8|11) |Sanitizer' '$STATE/service.log'*"
echo "killed: the worker $worker_rounds times, the supervisor $supervisor_rounds, both $both_rounds, the storage $storage_rounds;" \
  "serving again after at most $longest ms"
conclude
