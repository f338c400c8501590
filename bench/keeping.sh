#!/usr/bin/env bash
# Keeping a folder of many small files downloaded: against curl, which is given the addresses of their contents and
# fetches five at a time; and how long a program waits meanwhile for the first byte of another small file, against the
# same with nothing else to do. keeping.sh FOLDER-OF-PROGRAMS [--full]
source "$(dirname "$0")/begin.sh"

FILES=${FILES:-5000}
BYTES=$((20 * 1024))
OPENS=$((ROUNDS * 10))

# Each round has a folder of its own, which curl reads first; one more is kept while files are opened.
make_files() { # FOLDER COUNT BYTES
  mkdir "$1"
  head -c $(($2 * $3)) /dev/urandom | split -b "$3" -a 4 -d - "$1/f"
}
for ((round = 0; round <= ROUNDS; ++round)); do make_files "$IMPORT/kept-$round" $FILES $BYTES; done
make_files "$IMPORT/opened" $((2 * OPENS)) 4096
start_storage --import "$IMPORT"
mount_account
ls -l "$MOUNT/opened" >/dev/null

# addresses FOLDER: as a file that curl reads. The key goes through a descriptor: a command line can be read by others.
addresses() {
  curl -sS -H @<(printf 'X-API-Key: %s\n' "$(cat "$WORLD/key")") "$SERVER/vondle/api/browse?path=$1" | python3 -c '
import json, sys
for file in json.load(sys.stdin)["files"]:
    print("url = \"%s\"\noutput = \"%s/%s\"" % (file["download_url"], sys.argv[1], file["id"]))' "$WORLD/fetched"
}
with_curl() { curl -sS --no-progress-meter --parallel --parallel-max 5 -K "$WORLD/addresses"; }
keep() { in_world vondle keep "$MOUNT/$1" 2>/dev/null; }

theirs=() ours=() ratios=()
for ((round = 1; round <= ROUNDS; ++round)); do
  ls -l "$MOUNT/kept-$round" >/dev/null
  addresses "kept-$round" >"$WORLD/addresses"
  mkdir "$WORLD/fetched"
  theirs+=("$(seconds_of with_curl)")
  [ "$(find "$WORLD/fetched" -type f -size ${BYTES}c | wc -l)" = $FILES ] || { echo 'curl did not fetch all' >&2; exit 1; }
  rm -r "$WORLD/fetched"
  ours+=("$(seconds_of keep "kept-$round")")
  ratios+=("$(quotient "${theirs[-1]}" "${ours[-1]}")")
done
report "keeping $FILES files of 20 KiB, against curl, five at a time" '>= 0.8' "$(median "${theirs[@]}") s" \
  "$(median "${ours[@]}") s" "$(median "${ratios[@]}")"

# first_bytes FIRST: of as many files, one every few hundredths of a second, out of step: median, ms.
first_bytes() {
  local i times=()
  for ((i = $1; i < $1 + OPENS; ++i)); do
    times+=("$(printf '%s/f%04d\n' "$MOUNT/opened" "$i" | "$BIN/file_reader" 1 65536 | cut -d ' ' -f 3)")
    sleep "0.0$((RANDOM % 70 + 10))"
  done
  median "${times[@]}"
}
idle=$(first_bytes 0)
in_world vondle keep --no-wait "$MOUNT/kept-0" 2>/dev/null
busy=$(first_bytes $OPENS)
in_world vondle status --json | grep -q '"direction":"down"' || echo 'the folder was here before the last file was opened'
report "first byte of a 4 KiB file while a folder is being kept" '<= 1.5' "$idle ms" "$busy ms" "$(quotient "$busy" "$idle")"
