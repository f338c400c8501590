#!/usr/bin/env bash
# How real programs save: save_sequences_test.sh FOLDER-OF-PROGRAMS [--full]. Each does the same in a folder on the
# local disk and in the mounted one; afterwards both, and what a second device downloads from the server, must be the
# same: the same files with the same bytes and permissions, and nothing left behind but what the program leaves on a
# local disk. With --full there are more transactions and bigger trees, and LibreOffice, which takes minutes.
# Mounts for real; needs /dev/fuse.
set -euo pipefail
BIN_GIVEN=$(realpath "$1")
IS_FULL=no
[ "${2:-}" != --full ] || IS_FULL=yes
cd "$(dirname "$0")/.."
source tools/demo.sh
source tests/checks.sh
TYPE_INTO=$PWD/tests/type_into.py
umask 022

# --- The second device, which only reads ---

on_second_device() (
  WORLD=$SECOND HOME_FOLDER=$SECOND/home
  in_world "$@"
)
make_second_device() {
  SECOND=$WORLD/second
  SHOWN=$SECOND/home/Vondle
  mkdir -m 700 "$SECOND" "$SECOND/home" "$SECOND/run"
  sed "s|$HOME_FOLDER|$SECOND/home|" "$WORLD/passwd" >"$SECOND/passwd"
  cp "$WORLD/group" "$SECOND/"
  on_second_device vondle login --server "$SERVER" --key-file - <"$WORLD/key"
  on_second_device vondle mount --read-only
}
finish() {
  [ $failures = 0 ] || show_log
  on_second_device vondle unmount --wait 5 >/dev/null 2>&1 || true
  destroy_world
}

# --- Doing the same twice, and comparing ---

all_sent() { exits 0 vondle sync --wait 120; }
# Names, kinds and permissions, and the sizes of files.
listing() { (cd "$1" && find . \( -type d -printf '%P %y %m\n' \) -o \( -printf '%P %y %m %s\n' \) | LC_ALL=C sort); }
looks_as_on_disk() { diff <(listing "$DISK/$1") <(listing "$MOUNT/$1") && diff -r "$DISK/$1" "$MOUNT/$1"; }
second_device_sees() { # FOLDER SUBFOLDER
  on_second_device timeout 60 vondle sync >/dev/null && diff -r "$1/$2" "$SHOWN/$2"
}
server_has() { until_true 20 second_device_sees "$@" || second_device_sees "$@"; }
identifier() { in_world vondle info --json "$1" | sed -n 's/.*"identifier": *"\([^"]*\)".*/\1/p'; }
does() { # FOLDER FUNCTION
  (cd "$1" && "$2") >"$WORLD/doing" 2>&1 || { cat "$WORLD/doing" >&2; return 1; }
}
# leaves NAME: what stands in the folder and on the server are the same, with nothing but what a local disk would have.
leaves() {
  check "$1: everything is sent" all_sent
  check "$1: the folder is as it would be on a local disk" looks_as_on_disk "$1"
  check "$1: the server has just that" server_has "$DISK" "$1"
}
# save NAME [another]: a program saves letter.txt in the folder of its name; for the server it is the same file as
# before, or another one.
save() {
  local name=$1 before
  before=$(identifier "$MOUNT/$name/letter.txt")
  check "$name: works on a local disk" does "$DISK/$name" "$name"
  check "$name: works" does "$MOUNT/$name" "$name"
  leaves "$name"
  check "$name: for the server it is ${2:-the same} file" \
    test "$(identifier "$MOUNT/$name/letter.txt")" "${2:+!}=" "$before"
}

# --- Programs that save a text, each in the folder of its name. In here "set -e" does nothing. ---

# In the folder for temporary files, where we are, vim keeps no backups unless told to.
with_vim() { "$TYPE_INTO" ':%s/reader/writer/\r:wq\r' vim -N -u NONE --cmd 'set backupskip=' "$@" letter.txt; }
vim_as_it_comes() { with_vim; }
vim_keeping_a_copy() { with_vim --cmd 'set backup backupcopy=yes'; }
vim_renaming() { with_vim --cmd 'set backupcopy=no'; }
vim_keeping_the_old() { with_vim --cmd 'set backup backupcopy=no'; }
vim_in_place() { with_vim --cmd 'set nobackup nowritebackup'; }
vim_without_swap() { with_vim -n; }
vim_many_times() {
  "$TYPE_INTO" 'Aone\x1b:w\rAtwo\x1b:w\rAthree\x1b:w\rAfour\x1b:wq\r' vim -N -u NONE \
    --cmd 'set backupskip= backupcopy=no' letter.txt
}
nano_as_it_comes() { "$TYPE_INTO" 'Good day \x0f\r\x18' nano -I letter.txt; }
nano_with_backup() { "$TYPE_INTO" 'Good day \x0f\r\x18' nano -I -B letter.txt; }
sed_in_place() { sed -i 's/reader/writer/' letter.txt; }
sed_with_backup() { cp letter.txt kept.txt && sed -i 's/reader/writer/' letter.txt && chmod 644 kept.txt; }
python_replaces() {
  python3 - <<'PYTHON'
import os, tempfile
text = open("letter.txt").read().replace("reader", "writer")
descriptor, name = tempfile.mkstemp(dir=".")
with os.fdopen(descriptor, "w") as file:
    file.write(text)
    file.flush()
    os.fsync(file.fileno())
os.replace(name, "letter.txt")
folder = os.open(".", os.O_RDONLY)
os.fsync(folder)
os.close(folder)
PYTHON
}
desktop_replaces() { # As GNOME's library does.
  sed 's/reader/writer/' letter.txt >.goutputstream-X3K0Q2 && chmod --reference=letter.txt .goutputstream-X3K0Q2 &&
    mv .goutputstream-X3K0Q2 letter.txt
}
office_replaces() { # As office programs on other systems do.
  printf 'lock' >'~$letter.txt' && sed 's/reader/writer/' letter.txt >'~WRD0001.tmp' &&
    mv letter.txt '~WRL0002.tmp' && mv '~WRD0001.tmp' letter.txt && rm '~WRL0002.tmp' '~$letter.txt'
}
dd_overwrites() { printf 'DEAR' | dd of=letter.txt conv=notrunc status=none; }
dd_in_the_middle() { printf 'middle' | dd of=letter.txt bs=1 seek=20000 conv=notrunc,fsync status=none; }
truncate_down_and_up() { truncate -s 7 letter.txt && truncate -s 5000 letter.txt; }
shell_appends() { for i in 1 2 3; do echo "line $i" >>letter.txt || return; done; }
install_over() { printf 'installed' >new && install -m 755 new letter.txt && rm new; }
copy_over() { printf 'copied' >new && cp new letter.txt && mv new 'other name'; }

# --- Programs that work on trees ---

copies_with_everything() {
  cp -a "$WORLD/source" . && mkdir deep deep/er && mv source/a/b deep/er/ && mv deep/er/b/1.txt source/moved.txt &&
    rm -r source/c && install -D -m 750 source/moved.txt bin/tool && install -m 755 -d shared && chmod 705 shared
}
rsync_updates() {
  rsync -a "$WORLD/source/" copy/ &&
    rsync -aXA --inplace --no-whole-file --delete "$WORLD/changed/" copy/ &&
    rsync -a --delete "$WORLD/source/" second/ && rsync -ac --delete --backup --suffix=.old "$WORLD/changed/" second/
}
nothing_for_rsync() { # OPTION... SOURCE TARGET
  local todo
  todo=$(rsync -ai "$@") && [ -z "$todo" ] || { echo "$todo" >&2; return 1; }
}
tar_packs_and_unpacks() {
  tar cf packed.tar -C "$WORLD/source" . && mkdir unpacked && tar xpf packed.tar -C unpacked &&
    tar cf - unpacked | (mkdir again && tar xpf - -C again) && rm packed.tar
}
tar_finds_no_difference() { tar cf - -C "$WORLD/source" . | tar df - -C "$MOUNT/tar/unpacked"; }

make_says() { # TEXT
  make -C "$MOUNT/make" >"$WORLD/out" 2>&1 && says "$1"
}
write_project() {
  mkdir "$1"
  printf '#define WORD "%s"\nint greet(void);\n' hello >"$1/greet.h"
  printf '#include <stdio.h>\n#include "greet.h"\nint greet(void) { return puts(WORD) < 0; }\n' >"$1/greet.c"
  printf '#include "greet.h"\nint main(void) { return greet(); }\n' >"$1/main.c"
  printf '%s\n' 'program: main.o greet.o' $'\tgcc -o $@ $^' '%.o: %.c greet.h' $'\tgcc -c -o $@ $<' \
    'clean:' $'\trm -f *.o program' >"$1/Makefile"
}

git_here() {
  git -C "$1" -c user.name=Ann -c user.email=ann@example.org -c gc.autoDetach=false "${@:2}"
}
git_works() { # FOLDER COMMITS
  local i
  git clone -q "$WORLD/origin.git" "$1/clone" || return
  for ((i = 1; i <= $2; ++i)); do
    echo "line $i" >>"$1/clone/log.txt" && echo "file $i" >"$1/clone/file $i.txt" &&
      git_here "$1/clone" add -A && git_here "$1/clone" commit -q -m "Number $i" || return
  done
  git_here "$1/clone" checkout -q -b side HEAD~2 && echo side >"$1/clone/side.txt" &&
    git_here "$1/clone" add -A && git_here "$1/clone" commit -q -m 'On the side' &&
    git_here "$1/clone" checkout -q - && git_here "$1/clone" merge -q -m 'Both' side &&
    git init -q --bare -b main "$1/bare.git" && git_here "$1/clone" push -q "$1/bare.git" HEAD:refs/heads/main &&
    git_here "$1/clone" gc -q --prune=now && git_here "$1/bare.git" gc -q
}
git_is_sound() { # FOLDER
  git_here "$1/clone" fsck --full --strict && git_here "$1/bare.git" fsck --full --strict &&
    [ -z "$(git_here "$1/clone" status --porcelain)" ] && [ -z "$(find "$1" -name '*.lock')" ]
}
# Of two clones that were made at different times.
git_history() { git_here "$1/clone" log --format='%s %T' --topo-order; }

transactions() { # JOURNAL-MODE COUNT
  python3 - "$1" "$2" <<'PYTHON' >"$WORLD/$1.sql"
import sys
print(f"PRAGMA journal_mode = {sys.argv[1]}; CREATE TABLE IF NOT EXISTS entry(id INTEGER PRIMARY KEY, text TEXT);")
for i in range(int(sys.argv[2])):
    print(f"BEGIN; INSERT INTO entry(text) VALUES('{sys.argv[1]} {i:09} {'x' * (i % 300)}');")
    if i % 3 == 0: print(f"DELETE FROM entry WHERE id = {i // 2};")
    print("COMMIT;")
print("PRAGMA integrity_check; SELECT count(*) FROM entry;")
PYTHON
}
sqlite_works() { sqlite3 -cmd "PRAGMA synchronous = $SYNCHRONOUS" letter.txt <"$WORLD/$MODE.sql"; }

office_makes() { soffice --headless --norestore --convert-to odt letter.txt; }
office_saves_over() { soffice --headless --norestore --convert-to odt letter.odt; }
is_sound_document() { python3 -c 'import sys, zipfile; sys.exit(zipfile.ZipFile(sys.argv[1]).testzip())' "$1"; }
try_office() {
  local before
  mkdir "$MOUNT/office"
  seq 1 20000 >"$MOUNT/office/letter.txt"
  check 'office: makes a document' does "$MOUNT/office" office_makes
  check 'office: it is sent' all_sent
  before=$(identifier "$MOUNT/office/letter.odt")
  check 'office: saves over it' does "$MOUNT/office" office_saves_over
  check 'office: everything is sent' all_sent
  check 'office: the server has just that' server_has "$MOUNT" office
  check 'office: which is these' test "$(ls -A "$SHOWN/office" | tr '\n' ' ')" = 'letter.odt letter.txt '
  check 'office: the document is sound' is_sound_document "$SHOWN/office/letter.odt"
  check 'office: it is the same file as before' test "$(identifier "$MOUNT/office/letter.odt")" = "$before"
}

# --- What there is before ---

SAVES='vim_as_it_comes vim_keeping_a_copy vim_renaming vim_in_place vim_without_swap vim_many_times nano_as_it_comes
  nano_with_backup sed_in_place sed_with_backup python_replaces desktop_replaces office_replaces dd_overwrites
  dd_in_the_middle truncate_down_and_up shell_appends install_over copy_over'
MODES='delete wal truncate'
TRANSACTIONS=200
COMMITS=8
FILES=20
if [ $IS_FULL = yes ]; then
  source tools/lib.sh
  install_packages office
  TRANSACTIONS=10000
  COMMITS=100
  FILES=500
fi

make_world "$BIN_GIVEN"
trap finish EXIT
DISK=$WORLD/disk
export HOME=$WORLD/person GIT_CONFIG_NOSYSTEM=1
mkdir "$DISK" "$HOME"
for name in $SAVES vim_keeping_the_old; do
  mkdir -m 700 "$DISK/$name"
  { echo 'Dear reader,'; seq 1 5000; } >"$DISK/$name/letter.txt"
  chmod 600 "$DISK/$name/letter.txt"
done
for name in trees rsync tar sqlite; do mkdir -m 700 "$DISK/$name"; done
cp -a "$DISK/." "$IMPORT/"

mkdir -p "$WORLD/source/a/b" "$WORLD/source/c" "$WORLD/source/empty"
for i in $(seq 1 "$FILES"); do seq 1 "$i" | tee "$WORLD/source/a/b/$i.txt" >"$WORLD/source/c/$i.txt"; done
printf '#!/bin/sh\n' >"$WORLD/source/run" && echo secret >"$WORLD/source/secret" && echo shared >"$WORLD/source/shared"
chmod 755 "$WORLD/source/run" && chmod 600 "$WORLD/source/secret" && chmod 664 "$WORLD/source/shared"
chmod 750 "$WORLD/source/a" && chmod 775 "$WORLD/source/c"
find "$WORLD/source" -exec touch -d '2021-02-03 04:05:06.789' {} +
cp -a "$WORLD/source" "$WORLD/changed"
echo more >>"$WORLD/changed/a/b/7.txt" && rm "$WORLD/changed/c/3.txt" && echo new >"$WORLD/changed/c/new.txt"
chmod 640 "$WORLD/changed/shared" && touch -d '2022-02-02' "$WORLD/changed/secret"

start_storage --import "$IMPORT"
in_world vondle login --server "$SERVER" --key-file - <"$WORLD/key"
check 'the folder is mounted' exits 0 vondle mount
make_second_device

for name in $SAVES; do save "$name"; done
# The item is the copy that is kept, for that is what the program did to it.
save vim_keeping_the_old another

check 'trees: copying works on a local disk' does "$DISK/trees" copies_with_everything
check 'trees: copying works' does "$MOUNT/trees" copies_with_everything
leaves trees

check 'rsync: works on a local disk' does "$DISK/rsync" rsync_updates
check 'rsync: works' does "$MOUNT/rsync" rsync_updates
leaves rsync
check 'rsync: there is nothing to do again' nothing_for_rsync --delete "$WORLD/changed/" "$MOUNT/rsync/copy/"
check 'rsync: nor does reading it all say so' nothing_for_rsync -c "$WORLD/changed/" "$MOUNT/rsync/copy/"

check 'tar: works on a local disk' does "$DISK/tar" tar_packs_and_unpacks
check 'tar: works' does "$MOUNT/tar" tar_packs_and_unpacks
leaves tar
check 'tar: finds no difference' tar_finds_no_difference

write_project "$MOUNT/make"
check 'make: builds' make_says 'gcc -o program'
check 'make: what it built runs' test "$("$MOUNT/make/program")" = hello
check 'make: there is nothing to do again' make_says 'up to date'
check 'make: everything is sent' all_sent
check 'make: there is still nothing to do' make_says 'up to date'
sed -i 's/hello/good day/' "$MOUNT/make/greet.h"
check 'make: builds again after a header changed' make_says 'gcc -c -o main.o main.c'
check 'make: what it built is new' test "$("$MOUNT/make/program")" = 'good day'
make -s -C "$MOUNT/make" clean
check 'make: everything is sent' all_sent
check 'make: the server has just the sources' server_has "$MOUNT" make
check 'make: which are these' test "$(ls "$SHOWN/make" | tr '\n' ' ')" = 'Makefile greet.c greet.h main.c '

mkdir "$WORLD/git" "$MOUNT/git"
git init -q --bare -b main "$WORLD/origin.git"
git init -q -b main "$WORLD/first" && cp -r "$WORLD/source/." "$WORLD/first/"
git_here "$WORLD/first" add -A && git_here "$WORLD/first" commit -q -m 'First'
git_here "$WORLD/first" push -q "$WORLD/origin.git" main
git_works "$WORLD/git" "$COMMITS"
check 'git: works' git_works "$MOUNT/git" "$COMMITS"
check 'git: everything is sent' all_sent
check 'git: what it keeps is sound' git_is_sound "$MOUNT/git"
check 'git: its history is that of a local disk' diff <(git_history "$WORLD/git") <(git_history "$MOUNT/git")
check 'git: the server has just that' server_has "$MOUNT" git
check 'git: what the second device has can be cloned' git clone -q "$SHOWN/git/bare.git" "$WORLD/cloned"
check 'git: and is the same' diff -r --exclude=.git "$MOUNT/git/clone" "$WORLD/cloned"

for MODE in $MODES; do
  mkdir "$DISK/sqlite/$MODE" "$MOUNT/sqlite/$MODE"
  transactions "$MODE" "$TRANSACTIONS"
  # Which makes no difference for what is in the file.
  SYNCHRONOUS=OFF
  check "sqlite, $MODE: works on a local disk" does "$DISK/sqlite/$MODE" sqlite_works
  SYNCHRONOUS=FULL
  check "sqlite, $MODE: works" does "$MOUNT/sqlite/$MODE" sqlite_works
  check "sqlite, $MODE: finds its database sound" grep -qx ok "$WORLD/doing"
done
leaves sqlite

[ $IS_FULL = no ] || try_office

check 'nothing waits' test "$(field service.edits.total)" = 0
check 'nothing stays here' test "$(field service.edits.local)" = 0
check 'the second device has all of it' second_device_sees "$MOUNT" ''
conclude
