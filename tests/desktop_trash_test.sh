#!/usr/bin/env bash
# The desktop's trash: what desktops and their tools do with the trash of the mounted folder, and what becomes of it on
# the server. desktop_trash_test.sh FOLDER-OF-PROGRAMS [--desktop]; with the option, a file manager deletes and undoes,
# too, on a screen of its own.
# Mounts for real; needs /dev/fuse.
set -euo pipefail
BIN_GIVEN=$(realpath "$1")
WITH_DESKTOP=${2:-}
cd "$(dirname "$0")/.."
source tools/demo.sh
source tests/checks.sh
if [ "$WITH_DESKTOP" = --desktop ]; then
  source tools/lib.sh
  install_packages desktop
fi

make_world "$BIN_GIVEN"
finish() {
  [ $failures = 0 ] || show_log
  for process in "${BUS_PID:-}" "${SCREEN_PID:-}"; do [ -z "$process" ] || kill "$process" 2>/dev/null || true; done
  destroy_world
}
trap finish EXIT
mkdir -p "$IMPORT/Letters/Old" "$IMPORT/Many"
ODD='Für Zoë #1 (100%)? [draft].txt'
printf 'Dear Zoë' >"$IMPORT/Letters/$ODD"
printf 'plain' >"$IMPORT/plain.txt"
printf 'another' >"$IMPORT/Letters/plain.txt"
printf 'deep' >"$IMPORT/Letters/Old/deep.txt"
for i in $(seq 1 20); do echo "$i" >"$IMPORT/Many/$i"; done
mkdir -m 700 "$WORLD/run/gvfsd"
start_storage --import "$IMPORT"
exits 0 vondle login --server "$SERVER" --key-file "$WORLD/key"
check 'it mounts' exits 0 vondle mount
TRASH=$MOUNT/.Trash-$(id -u)

# The tools that show the trash ask services of the desktop.
dbus-daemon --session --nofork --address="unix:path=$WORLD/run/bus" >"$WORLD/bus.log" 2>&1 &
BUS_PID=$!
until_true 10 test -S "$WORLD/run/bus"
on_desktop() { in_world DBUS_SESSION_BUS_ADDRESS="unix:path=$WORLD/run/bus" XDG_DATA_HOME="$HOME_FOLDER/.local/share" LC_ALL=C.UTF-8 timeout 30 "$@"; }

there() { [ -e "$MOUNT/$1" ]; }
gone() { [ ! -e "$MOUNT/$1" ]; }
holds() { [ "$(cat "$MOUNT/$1")" = "$2" ]; }
trashed() { [ -e "$TRASH/files/$1" ]; }
path_of() { sed -n 's/^Path=//p' "$TRASH/info/$1.trashinfo"; }
server_trash() { in_world vondle trash list --json | python3 -c '
import json, sys
for item in json.load(sys.stdin)["items"]: print(item["name"])' | LC_ALL=C sort; }
server_trash_is() { diff <(server_trash) <(for name in "$@"; do printf '%s\n' "$name"; done); }
sent() { exits 0 vondle sync --wait 30; }
lists() { on_desktop gio trash --list >"$WORLD/out" 2>/dev/null && says "$1"; }
# The address by which the desktop knows what was there.
address() { on_desktop gio trash --list 2>/dev/null | awk -F'\t' -v path="$MOUNT/$1" '$2 == path { print $1 }'; }
in_sight() { ls -A "$MOUNT" | LC_ALL=C sort; }

check 'the top folder does not list the trash' test "$(in_sight)" = $'Letters\nMany\nplain.txt'
check 'and has it' test "$(ls "$TRASH")" = $'files\ninfo'

# gio, in the order of desktops.
check 'gio trashes a file' on_desktop gio trash "$MOUNT/Letters/$ODD"
check 'which goes from its folder' gone "Letters/$ODD"
check 'and is in the trash at once' trashed "$ODD"
check 'with where it was' test "$(path_of "$ODD")" = 'Letters/F%C3%BCr%20Zo%C3%AB%20%231%20%28100%25%29%3F%20%5Bdraft%5D.txt'
check 'and with its contents' test "$(cat "$TRASH/files/$ODD")" = 'Dear Zoë'
check 'two of one name' on_desktop gio trash "$MOUNT/plain.txt" "$MOUNT/Letters/plain.txt"
check 'get two names' test "$(ls "$TRASH/files" | wc -l)" = 3
check 'a folder' on_desktop gio trash "$MOUNT/Letters/Old"
check 'everything is sent' sent
check 'the server has it in its trash, the folder as one item' server_trash_is "$ODD" Old plain.txt plain.txt
check 'the desktop lists it' lists "#1 (100%)? [draft].txt"
check 'it restores a file' on_desktop gio trash --restore "$(address Letters/plain.txt)"
check 'which is where it was' holds Letters/plain.txt another
# What gio 2.74 lists, and restores, has bytes beyond ASCII written out.
check 'mv restores one with an odd name' mv "$TRASH/files/$ODD" "$MOUNT/Letters/$ODD"
check 'which is where it was, too' holds "Letters/$ODD" 'Dear Zoë'
check 'it restores a folder' on_desktop gio trash --restore "$(address Letters/Old)"
check 'with what is in it' holds Letters/Old/deep.txt deep
check 'the server has it there' server_trash_is plain.txt
check 'it empties the trash' on_desktop gio trash --empty
check 'on the server, too' until_true 20 server_trash_is
check 'and nothing is left here' until_true 10 test -z "$(ls "$TRASH/files" "$TRASH/info" | grep -v : || true)"

# Others.
check 'trash-put trashes' in_world trash-put "$MOUNT/Many"
check 'the folder' trashed Many
check 'as one item' sent
check 'on the server' server_trash_is Many
check 'mv restores it elsewhere' mv "$TRASH/files/Many" "$MOUNT/Letters/Few"
check 'with everything in it' test "$(ls "$MOUNT/Letters/Few" | wc -l)" = 20
check 'and its note can be removed' rm "$TRASH/info/Many.trashinfo"
check 'mv trashes' mv "$MOUNT/Letters/Few" "$TRASH/files/"
check 'it is sent' sent
check 'rm -r purges' rm -r "$TRASH/files/Few"
check 'on the server' server_trash_is
check 'cp into the trash is refused' test "$(cp "$MOUNT/Letters/$ODD" "$TRASH/files/" 2>&1 | grep -c 'not permitted')" = 1

# Put there by another device.
printf 'elsewhere' >"$WORLD/elsewhere"
other_device put "$WORLD/elsewhere" Letters/elsewhere.txt >/dev/null
other_device rm Letters/elsewhere.txt >/dev/null
check 'its news comes' exits 0 vondle sync
check 'what another device trashes is there' until_true 15 trashed elsewhere.txt
check 'with where it was' test "$(path_of elsewhere.txt)" = Letters/elsewhere.txt
check 'and can be read or says that it cannot' sh -c '[ "$(cat "$1")" = elsewhere ]' - "$TRASH/files/elsewhere.txt"
check 'and restored' mv "$TRASH/files/elsewhere.txt" "$MOUNT/Letters/elsewhere.txt"
check 'with its contents' holds Letters/elsewhere.txt elsewhere

# To elsewhere, while another has its name where it was.
printf 'the old one' >"$MOUNT/Letters/$ODD.2"
check 'it is sent' sent
check 'it is trashed' mv "$MOUNT/Letters/$ODD.2" "$TRASH/files/"
printf 'the new one' >"$MOUNT/Letters/$ODD.2"
check 'another has its name' sent
check 'it does not take its place' sh -c '! mv "$1" "$2" 2>/dev/null' - "$TRASH/files/$ODD.2" "$MOUNT/Letters/$ODD.2"
mkdir "$MOUNT/Elsewhere"
check 'and is restored to elsewhere' mv "$TRASH/files/$ODD.2" "$MOUNT/Elsewhere/"
check 'which is what it was' holds "Elsewhere/$ODD.2" 'the old one'
check 'as the other is' holds "Letters/$ODD.2" 'the new one'
check 'the server has both' test "$(other_device ls Elsewhere | cut -f 6; other_device ls Letters | cut -f 6 | grep -F .2)" = "$ODD.2
$ODD.2"
rm -r "$MOUNT/Elsewhere" "$MOUNT/Letters/$ODD.2"
check 'both can go' sent
check 'and be purged' rm -r "$TRASH/files/Elsewhere" "$TRASH/files/Für "*
check 'the folder is as it was' there Letters/plain.txt

# Without the server, and through a death.
printf 'written offline' >"$WORLD/offline"
stop_storage
cp "$WORLD/offline" "$MOUNT/Letters/offline.txt"
check 'without the server a file is trashed' on_desktop gio trash "$MOUNT/Letters/elsewhere.txt"
check 'and a folder with a new file in it' on_desktop gio trash "$MOUNT/Letters"
check 'which is seen' trashed Letters
kill -9 $(service_processes)
check 'the service is killed' until_true 10 service_is_gone
fusermount3 -uz "$MOUNT" 2>/dev/null || umount -l "$MOUNT" 2>/dev/null || true
start_storage
check 'it comes back' exits 0 vondle mount
check 'what was trashed is in the trash' trashed Letters
check 'and not in its folder' gone Letters
check 'all of it is sent' sent
check 'and on the server' server_trash_is Letters elsewhere.txt
check 'with what was written offline' mv "$TRASH/files/Letters" "$MOUNT/Letters"
check 'which is there again' holds Letters/offline.txt 'written offline'

if [ "$WITH_DESKTOP" = --desktop ]; then
  Xvfb :97 -screen 0 1024x680x24 -nolisten tcp >"$WORLD/screen.log" 2>&1 &
  SCREEN_PID=$!
  on_screen() { on_desktop env DISPLAY=:97 GDK_BACKEND=x11 NO_AT_BRIDGE=1 "$@"; }
  until_true 10 on_screen xdotool getdisplaygeometry
  mkdir "$MOUNT/Window"
  printf 'by hand' >"$MOUNT/Window/by hand.txt"
  check 'it is sent' sent
  (on_screen timeout 60 thunar "$MOUNT/Window" >"$WORLD/thunar.log" 2>&1 || true) &
  window() { on_screen xdotool search --onlyvisible --name Window; }
  check 'the file manager opens' until_true 20 window
  sleep 2
  on_screen xdotool mousemove --window "$(window | head -1)" 500 300 click 1 key ctrl+a key Delete
  check 'the file manager deletes' until_true 10 gone 'Window/by hand.txt'
  check 'into the trash' trashed 'by hand.txt'
  sleep 1
  on_screen xdotool key ctrl+z
  check 'and undoes that' until_true 10 there 'Window/by hand.txt'
  check 'with its contents' holds 'Window/by hand.txt' 'by hand'
fi

check 'it unmounts' exits 0 vondle unmount
conclude
