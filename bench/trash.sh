#!/usr/bin/env bash
# Looking into a trash of 100,000 items, and restoring, trashing and removing single ones there, against the server's
# own listing of it. trash.sh FOLDER-OF-PROGRAMS [--full]
source "$(dirname "$0")/begin.sh"

ITEMS=100000
FILES=$MOUNT/.Trash-$(id -u)/files

: >"$IMPORT/item.txt"
mkdir "$IMPORT/elsewhere"
start_storage --import "$IMPORT"
stop_storage
# As if each had been uploaded and trashed.
sqlite3 "$WORLD/storage/metadata.db" "
  WITH RECURSIVE numbers(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM numbers WHERE i < $ITEMS)
  INSERT INTO items(account, parent, name, is_folder, size, modified, version, key, hash, has_thumb, trashed,
    trashed_path)
  SELECT account, parent, 'Item ' || i || '.txt', 0, 0, modified, 1, 'trashed-' || i, hash, 0, modified + i, ''
  FROM numbers, (SELECT * FROM items WHERE name = 'item.txt')"
start_storage
mount_account

one_by_one() { # COMMAND: with $i as the number of one; sets TIMES.
  TIMES=()
  local i
  for ((i = 1; i <= 5 * ROUNDS; ++i)); do TIMES+=("$(i=$i FILES=$FILES MOUNT=$MOUNT seconds_of sh -c "$1")"); done
}
theirs=$(seconds_of curl -sS -H @<(printf 'X-API-Key: %s\n' "$(cat "$WORLD/key")") "$SERVER/vondle/api/trash")
ours=$(seconds_of ls "$FILES")
report "a trash of $ITEMS items, listed" '' "$theirs s" "$ours s" "$(quotient "$ours" "$theirs")"
report 'again' '' '' "$(seconds_of ls "$FILES") s"
one_by_one 'mv "$FILES/Item $i.txt" "$MOUNT/elsewhere/"'
report 'one of them restored' '' '' "$(median "${TIMES[@]}") s"
one_by_one 'mv "$MOUNT/elsewhere/Item $i.txt" "$FILES/"'
report 'and trashed again' '' '' "$(median "${TIMES[@]}") s"
one_by_one 'rm "$FILES/Item 5$i.txt"'
report 'one of them removed' '' '' "$(median "${TIMES[@]}") s"
report 'memory of the service after that, and at most' '' '' \
  "$(memory_of "$(service_pid)"), $(peak_memory_of "$(service_pid)") MiB"
