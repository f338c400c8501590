#!/usr/bin/env bash
# From the listing of a folder of photos until the desktop's cache has all their thumbnails, which the server has made
# before; and that no contents are read for it. thumbnails.sh FOLDER-OF-PROGRAMS [--full]
source "$(dirname "$0")/begin.sh"

PHOTOS=500
CACHE=$HOME_FOLDER/.cache/thumbnails

mkdir "$IMPORT/photos"
for ((i = 0; i < 5; ++i)); do
  convert -size 1200x800 -seed "$i" plasma:fractal -attenuate 0.3 +noise Gaussian -quality 85 "$WORLD/$i.jpg"
done
# Each with contents of its own, so that each has a thumbnail of its own.
for ((i = 0; i < PHOTOS; ++i)); do
  { cat "$WORLD/$((i % 5)).jpg" && echo "$i"; } >"$IMPORT/photos/$i.jpg"
done
start_storage --import "$IMPORT"
mount_account

contents_here() { find "$HOME_FOLDER/.local/share/vondle/contents" -type f | wc -l; }
# wait_for_thumbnails: of both sizes that there always are; sets ELAPSED.
wait_for_thumbnails() {
  local before deadline=$((SECONDS + 300))
  before=$(date +%s%N)
  ls "$MOUNT/photos" >/dev/null
  until [ "$(ls "$CACHE/normal" 2>/dev/null | grep -c '^[^.]')" = $PHOTOS ]; do
    [ $SECONDS -lt $deadline ] || { echo 'they do not come' >&2; exit 1; }
    sleep 0.02
    # The server is still making some, for which one asks again only when the folder is listed.
    [ -n "${WARM:-}" ] || ls "$MOUNT/photos" >/dev/null
  done
  ELAPSED=$(awk -v d=$(($(date +%s%N) - before)) 'BEGIN { printf "%.2f", d / 1e9 }')
}

wait_for_thumbnails
first=$ELAPSED
WARM=1
times=()
for ((round = 0; round < ROUNDS; ++round)); do
  in_world vondle unmount >/dev/null
  rm -r "$CACHE"
  in_world vondle mount "$MOUNT" >/dev/null
  wait_for_thumbnails
  times+=("$ELAPSED")
done
report "$PHOTOS thumbnails of a listed folder" '<= 3 s' '' "$(median "${times[@]}") s"
report "$PHOTOS thumbnails that the server has to make first" 'no limit' '' "$first s"
report "contents read for them, files" '0' '' "$(contents_here)"
