#!/usr/bin/env bash
# How long a program waits for the first byte of a small file that is not here, while five files go up and ten come
# down that nobody waits for, under a limit; against the same with nothing else to do. Reading begins when the file is
# opened. opening.sh FOLDER-OF-PROGRAMS [--full]
source "$(dirname "$0")/begin.sh"

OPENS=$((ROUNDS * 10))
LIMIT=20480 # kB/s in each direction
UPLOADS=5
DOWNLOADS=10
LARGE=$((64 * MEBIBYTE)) # more than passes meanwhile

mkdir "$IMPORT/small"
for ((i = 0; i < 2 * OPENS; ++i)); do head -c 4096 /dev/urandom >"$IMPORT/small/$i"; done
for ((i = 0; i < DOWNLOADS; ++i)); do truncate -s $LARGE "$IMPORT/down-$i"; done
start_storage --import "$IMPORT"
mount_account
in_world vondle limits --down $LIMIT --up $LIMIT >/dev/null
ls -l "$MOUNT" "$MOUNT/small" >/dev/null

# first_bytes FIRST: of as many files, one every few hundredths of a second, out of step with the pacing: median, ms.
first_bytes() {
  local i times=()
  for ((i = $1; i < $1 + OPENS; ++i)); do
    times+=("$(printf '%s\n' "$MOUNT/small/$i" | "$BIN/file_reader" 1 65536 | cut -d ' ' -f 3)")
    sleep "0.0$((RANDOM % 70 + 10))"
  done
  median "${times[@]}"
}

idle=$(first_bytes 0)
for ((i = 0; i < UPLOADS; ++i)); do truncate -s $LARGE "$MOUNT/up-$i"; done
in_world vondle keep --no-wait "$MOUNT"/down-* >/dev/null
runs() { in_world vondle status --json | grep -q "$1"; }
until runs "\"sending\":$UPLOADS" && runs '"direction":"down"'; do sleep 0.2; done
sleep 3 # the first second's worth passes at once
busy=$(first_bytes $OPENS)
report "first byte of a 4 KiB file beside $UPLOADS uploads, $DOWNLOADS downloads" '<= 1.5' "$idle ms" "$busy ms" \
  "$(quotient "$busy" "$idle")"
