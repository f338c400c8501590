#!/usr/bin/env bash
# The server's thumbnails where the desktop looks for them, read back with GLib: thumbnails_test.sh FOLDER-OF-PROGRAMS
# Mounts for real; needs /dev/fuse.
set -euo pipefail
BIN_GIVEN=$(realpath "$1")
cd "$(dirname "$0")/.."
source tools/demo.sh
source tests/checks.sh

make_world "$BIN_GIVEN"
MOUNT="$HOME_FOLDER/Mein Ordner #1 [ä] 100%41?"
PHOTOS="$MOUNT/Bilder & 'so' \"fort\" (1)"
CACHE="$HOME_FOLDER/.cache/thumbnails"
LOG=$HOME_FOLDER/.local/state/vondle/service.log
finish() {
  [ $failures = 0 ] || show_log
  destroy_world
}
trap finish EXIT

mkdir "$IMPORT/${PHOTOS##*/}"
NAMES=('a photo.jpg' 'Größe #2.png' '100%41 what?.jpg' "[x] {y} 'z' \"q\";&=+,.jpg" 'film.mp4')
for ((i = 0; i < 4; ++i)); do
  convert -size 900x600 -seed "$i" plasma:fractal "$IMPORT/${PHOTOS##*/}/${NAMES[i]}"
done
ffmpeg -nostdin -loglevel error -f lavfi -i testsrc=duration=1:size=320x240:rate=10 -pix_fmt yuv420p "$IMPORT/${PHOTOS##*/}/film.mp4"
convert -size 90x60 plasma:fractal "$IMPORT/${PHOTOS##*/}/small.jpg"
NAMES+=('small.jpg')
echo 'no picture' >"$IMPORT/${PHOTOS##*/}/letter.txt"
echo 'no picture' >"$IMPORT/${PHOTOS##*/}/broken.jpg"
touch -d '2024-05-01 10:20:30 UTC' "$IMPORT/${PHOTOS##*/}"/*
start_storage --import "$IMPORT"

glib() { in_world env GIO_USE_VFS=local gio info -a 'thumbnail::*' "$1"; }
# One that GLib finds and holds for true.
is_shown() { glib "$1" | grep -q 'thumbnail::is-valid: TRUE'; }
is_stale() { glib "$1" | grep -q 'thumbnail::is-valid: FALSE'; }
all_shown() {
  local name
  for name in "${NAMES[@]}"; do is_shown "$PHOTOS/$name" || return 1; done
}
listed() { ls "$PHOTOS" >/dev/null && sleep 0.3 && "$@"; }
count() { find "$CACHE" -name '*.png' | wc -l; }
nothing_fetched() { [ -z "$(find "$HOME_FOLDER/.local/share/vondle/contents" -type f)" ]; }
# The texts of the file's thumbnails, read by another program than made them, are what GLib says of the file.
texts_agree() {
  in_world python3 - "$CACHE" "$PHOTOS" "${NAMES[@]}" <<'PY'
import hashlib, os, re, stat, struct, subprocess, sys
cache, folder, *names = sys.argv[1:]
for name in names:
    path = os.path.join(folder, name)
    uri = subprocess.run(["gio", "info", "-a", "standard::name", path], env=dict(os.environ, GIO_USE_VFS="local"),
                         capture_output=True, text=True, check=True).stdout
    uri = re.search(r"^uri: (.*)$", uri, re.M).group(1)
    status = os.stat(path)
    wanted = {"Thumb::URI": uri, "Thumb::MTime": str(int(status.st_mtime)), "Thumb::Size": str(status.st_size)}
    for size, side in (("normal", 128), ("large", 256), ("x-large", 512)):
        file = os.path.join(cache, size, hashlib.md5(uri.encode()).hexdigest() + ".png")
        if size == "x-large" and name == "small.jpg":
            assert not os.path.exists(file), file
            continue
        assert stat.S_IMODE(os.stat(file).st_mode) == 0o600, file
        assert stat.S_IMODE(os.stat(os.path.dirname(file)).st_mode) == 0o700, file
        data, at, texts = open(file, "rb").read(), 8, {}
        width, height = struct.unpack(">II", data[16:24])
        assert max(width, height) == {"small.jpg": 90, "film.mp4": min(side, 320)}.get(name, min(side, 400)), (size, name, width)
        while at < len(data):
            length, kind = struct.unpack(">I4s", data[at:at + 8])
            if kind == b"tEXt": texts.update([data[at + 8:at + 8 + length].decode("latin-1").split("\0")])
            at += 12 + length
        assert {key: texts.get(key) for key in wanted} == wanted, (texts, wanted)
        assert texts["Software"].startswith("Vondle "), texts
PY
}

exits 0 vondle login --server "$SERVER" --key-file "$WORLD/key"
check 'it mounts' exits 0 vondle mount "$MOUNT"
check 'before anybody looks there is nothing' test ! -e "$CACHE"
ls "$PHOTOS" >/dev/null
check 'a listed folder shows its pictures, to GLib' until_true 30 all_shown
check 'they say what GLib says' texts_agree
check 'what is no picture has none' test "$(count)" = $((3 * ${#NAMES[@]} - 1))
check 'no contents were fetched' nothing_fetched

mv "$PHOTOS/a photo.jpg" "$PHOTOS/ä.jpg"
NAMES[0]='ä.jpg'
check 'a thumbnail moves with its file' until_true 10 is_shown "$PHOTOS/ä.jpg"
mv "$PHOTOS" "$MOUNT/Fotos"
PHOTOS=$MOUNT/Fotos
check 'and with its folder' until_true 10 all_shown
check 'in all sizes' texts_agree
rm "$PHOTOS/ä.jpg"
unset 'NAMES[0]'
check 'and goes with it' until_true 10 test "$(count)" = $((3 * ${#NAMES[@]} - 1))
touch -d '2025-01-02 03:04:05 UTC' "$PHOTOS/film.mp4"
check 'another time makes it stale' is_stale "$PHOTOS/film.mp4"
exits 0 vondle sync --wait 20
check 'and another listing replaces it' until_true 20 listed all_shown
check 'still without contents' nothing_fetched
# Who makes thumbnails, by the names of the programs that do.
mkdir "$WORLD/makers"
cp "$(command -v stat)" "$WORLD/makers/tumblerd"
cp "$(command -v cat)" "$WORLD/makers/gdk-pixbuf-thumbnailer"
looks() { "$WORLD/makers/tumblerd" -c %Y "$PHOTOS/$1" >"$WORLD/out"; }
may_not_open() { ! "$WORLD/makers/gdk-pixbuf-thumbnailer" "$PHOTOS/$1" >"$WORLD/out" 2>&1 && says 'temporarily unavailable'; }
exits 0 vondle unmount
rm -r "$CACHE"
exits 0 vondle mount "$MOUNT"
ls "$PHOTOS" >/dev/null
check 'who makes thumbnails sees a picture' looks "${NAMES[1]}"
check "when the server's is there" is_shown "$PHOTOS/${NAMES[1]}"
check 'or is refused the picture' may_not_open "${NAMES[2]}"
check "when the server's is there, too" is_shown "$PHOTOS/${NAMES[2]}"
check 'and is refused what has none' may_not_open letter.txt
check 'which fetches nothing' nothing_fetched
check 'others can read it' test "$(cat "$PHOTOS/letter.txt")" = 'no picture'
check 'and then those, too' test "$("$WORLD/makers/gdk-pixbuf-thumbnailer" "$PHOTOS/letter.txt")" = 'no picture'
check 'nothing of it is an error' test -z "$(grep -i 'thumbnails cannot' "$LOG")"

exits 0 vondle unmount
rm -r "$CACHE"
ln -s /usr/share "$CACHE"
[ "$(id -u)" != 0 ] || { rm "$CACHE" && mkdir "$WORLD/theirs" && chown 54321 "$WORLD/theirs" && ln -s "$WORLD/theirs" "$CACHE"; }
exits 0 vondle mount "$MOUNT"
ls "$PHOTOS" >/dev/null
check "a cache of another user's is refused" until_true 20 grep -q 'thumbnails cannot be kept' "$LOG"
sleep 0.5
check 'which is said once' test "$(grep -c 'thumbnails cannot be kept' "$LOG")" = 1
exits 0 vondle unmount
rm "$CACHE"
echo '{"thumbnails": false}' >"$HOME_FOLDER/.vondle/service.json"
exits 0 vondle mount "$MOUNT"
ls "$PHOTOS" >/dev/null
exits 0 vondle thumbnail "$PHOTOS/small.jpg" -o "$WORLD/small.jpg"
check 'whoever does not want them gets none' test ! -e "$CACHE"
conclude
