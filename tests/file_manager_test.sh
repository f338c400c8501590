#!/usr/bin/env bash
# A file manager on a screen of its own, used by hand: the actions in its menu, its delete and undo.
# file_manager_test.sh FOLDER-OF-PROGRAMS
# Mounts for real; needs /dev/fuse. Not among the tests that always run, for it installs a part of a desktop.
set -euo pipefail
PROGRAMS=$(realpath "$1")
cd "$(dirname "$0")/.."
source tools/lib.sh
source tools/demo.sh
source tests/checks.sh
install_packages desktop

make_world "$PROGRAMS"
# Where the actions find what they call, they are installed beside it.
BIN=$WORLD/usr/bin
mkdir -p "$BIN" "$WORLD/usr/libexec/vondle"
cp "$PROGRAMS"/vondle* "$BIN"
cp desktop/desktop-action "$WORLD/usr/libexec/vondle"
STARTED=()
finish() {
  [ $failures = 0 ] || show_log
  for process in "${STARTED[@]}"; do kill "$process" 2>/dev/null || true; done
  destroy_world
}
trap finish EXIT

ODD="It's #1 (100%)? [ä] \"b\" & c.txt"
mkdir "$IMPORT/Window"
printf 'by hand' >"$IMPORT/Window/$ODD"
mkdir -m 700 "$WORLD/run/gvfsd"
start_storage --import "$IMPORT"
exits 0 vondle login --server "$SERVER" --key-file "$WORLD/key"
check 'it mounts' exits 0 vondle mount
check 'the actions are put into the menu' exits 0 vondle desktop install
FILE=$MOUNT/Window/$ODD

HOME=$HOME_FOLDER XDG_RUNTIME_DIR=$WORLD/run dbus-daemon --session --nofork --address="unix:path=$WORLD/run/bus" >"$WORLD/bus.log" 2>&1 &
STARTED+=($!)
Xvfb -displayfd 3 -screen 0 1024x680x24 -nolisten tcp >"$WORLD/screen.log" 2>&1 3>"$WORLD/display" &
STARTED+=($!)
until_true 10 test -S "$WORLD/run/bus"
until_true 10 test -s "$WORLD/display"
on_screen() {
  in_world DBUS_SESSION_BUS_ADDRESS="unix:path=$WORLD/run/bus" XDG_DATA_HOME="$HOME_FOLDER/.local/share" LC_ALL=C.UTF-8 \
    DISPLAY=":$(cat "$WORLD/display")" GDK_BACKEND=x11 "$@"
}
see() { on_screen tests/click.py see "$@"; }
click() { on_screen tests/click.py click "$@"; }
keys() { on_screen xdotool key "$@"; }
on_screen thunar "$MOUNT/Window" >"$WORLD/thunar.log" 2>&1 &
STARTED+=($!)

there() { [ "$(cat "$FILE")" = 'by hand' ]; }
gone() { [ ! -e "$FILE" ]; }
trashed() { [ -e "$MOUNT/.Trash-$(id -u)/files/$ODD" ]; }
attribute_is() { [ "$(getfattr --absolute-names --only-values -n "user.vondle.$1" "$FILE")" = "$2" ]; }
info_says() { exits 0 vondle info "$FILE" && grep -qE "^$1 +$2$" "$WORLD/out"; }
select_all() { click 'directory pane' 'Icon view' && keys ctrl+a && see 'status bar' '.*#1.*'; }
# choose ACTION: of our menu, for all there is.
choose() { select_all && keys Menu && click menu Vondle && click 'menu item' "$1"; }

check 'the file manager opens' see frame 'Window - Thunar'
check 'nothing is here yet' attribute_is state 'on the server only'
check 'the menu keeps a file' choose 'Keep Downloaded'
check 'which comes down' until_true 20 attribute_is state here
check 'and is kept' info_says policy 'kept downloaded'
check 'it stops keeping it' choose 'Stop Keeping Downloaded'
check 'which drops it' until_true 20 attribute_is state 'on the server only'
check 'and it is not kept' info_says policy '(as its folder|downloaded when read)'
check 'it can be read' there
check 'and is here' attribute_is state here
check 'the menu frees up its space' choose 'Free Up Space'
check 'and it is not here' until_true 20 attribute_is state 'on the server only'

check 'a file is selected' select_all
keys Delete
check 'the delete key deletes it' until_true 20 gone
check 'into the trash' trashed
check 'which the file manager shows' see 'status bar' '0 .*'
keys ctrl+z
check 'undo brings it back' until_true 20 there
check 'out of the trash' until_true 20 sh -c "! ls -A '$MOUNT/.Trash-$(id -u)/files' | grep ."

check 'the actions are taken out of the menu' exits 0 vondle desktop remove
check 'and nothing else' sh -c "grep -q 'Open Terminal Here' '$HOME_FOLDER/.config/Thunar/uca.xml' && ! grep -qi vondle '$HOME_FOLDER/.config/Thunar/uca.xml'"
check 'it unmounts' exits 0 vondle unmount
conclude
