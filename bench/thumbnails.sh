#!/usr/bin/env bash
# From the listing of a folder of photos until the desktop's cache has all their thumbnails, in three sizes, which the
# server has made before; and that no contents are read for it. thumbnails.sh FOLDER-OF-PROGRAMS [--full]
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
# Those that have their name, which is the last that they get.
thumbnails_here() { find "$CACHE" -name '[^.]*.png' 2>/dev/null | wc -l; }
# all_whole: each PNG has all its parts and as many bytes as its size asks for.
all_whole() {
  find "$CACHE" -name '[^.]*.png' -exec python3 - {} + <<'PY'
import struct, sys, zlib
for name in sys.argv[1:]:
    data, at, kinds, packed = open(name, "rb").read(), 8, [], b""
    assert data[:8] == b"\x89PNG\r\n\x1a\n", name
    while at < len(data):
        size, kind = struct.unpack(">I4s", data[at:at + 8])
        part = data[at + 8:at + 8 + size]
        assert struct.unpack(">I", data[at + 8 + size:at + 12 + size])[0] == zlib.crc32(kind + part), name
        kinds.append(kind)
        packed += part if kind == b"IDAT" else b""
        at += 12 + size
    width, height, depth, colours = struct.unpack(">IIBB", data[16:26])
    assert kinds[0] == b"IHDR" and kinds[-1] == b"IEND" and kinds.count(b"tEXt") >= 3, name
    assert (depth, colours) in ((8, 2), (8, 6)), name
    assert len(zlib.decompress(packed)) == height * (1 + width * {2: 3, 6: 4}[colours]), name
PY
}
# wait_for_thumbnails: of all three sizes; sets ELAPSED.
wait_for_thumbnails() {
  local before deadline=$((SECONDS + 900))
  before=$(date +%s%N)
  ls "$MOUNT/photos" >/dev/null
  until [ "$(thumbnails_here)" = $((3 * PHOTOS)) ]; do
    [ $SECONDS -lt $deadline ] || { echo 'they do not come' >&2; exit 1; }
    [ -n "${WARM:-}" ] && sleep 0.02 && continue
    # The server is still making some, for which one asks again only when the folder is listed.
    sleep 0.5
    ls "$MOUNT/photos" >/dev/null
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
  all_whole
done
report "$PHOTOS thumbnails of a listed folder" '<= 3 s' '' "$(median "${times[@]}") s"
report "$PHOTOS thumbnails that the server has to make first" 'no limit' '' "$first s"
report "contents read for them, files" '0' '' "$(contents_here)"
