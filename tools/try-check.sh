# The part of ./dev try --check that looks. Sourced by tools/try with the world standing.

problems=0
say() { printf '%s\n' "$*"; }
differs() { printf 'DIFFERS: %s\n' "$*" >&2; problems=$((problems + 1)); }
expect() { # WHAT COMMAND...
  local what=$1
  shift
  if "$@"; then say "ok: $what"; else differs "$what"; fi
}

names_and_sizes() { (cd "$1" && find . -mindepth 1 \( -type d -printf '%P/\n' -o -printf '%P %s %TY-%Tm-%Td %TH:%TM\n' \) | LC_ALL=C sort); }
same_listing() { diff <(names_and_sizes "$IMPORT") <(names_and_sizes "$MOUNT"); }
same_bytes() { diff -r --no-dereference "$IMPORT" "$MOUNT"; }
downloads() { grep -c 'fetchContents' "$HOME_FOLDER/.local/state/vondle/service.log"; }
same_bytes_without_downloads() {
  local before
  before=$(downloads)
  [ "$before" -gt 0 ] && same_bytes && [ "$(downloads)" = "$before" ]
}
sync_now() { in_world vondle sync --wait 30 >/dev/null; }
contents_are() { [ "$(cat "$MOUNT/$1")" = "$2" ]; }
is_gone() { [ ! -e "$MOUNT/$1" ]; }

expect 'the mounted tree has the names, sizes and times of the imported one' same_listing
expect 'every byte is the same' same_bytes
expect 'a second reading downloads nothing' same_bytes_without_downloads

# What stays on the disk.
files_here() { in_world vondle status --json | sed -n 's/.*"files_here":\([0-9]*\).*/\1/p'; }
nothing_is_here() { in_world vondle evict "$MOUNT" 2>/dev/null && [ "$(files_here)" = 0 ]; }
is_kept() { in_world vondle keep "$MOUNT/Notes" 2>/dev/null && [ "$(files_here)" = 300 ]; }
stays_kept() { ! in_world vondle evict "$MOUNT/Notes" 2>/dev/null && [ "$(files_here)" = 300 ]; }
is_given_up() { in_world vondle unkeep "$MOUNT/Notes" 2>/dev/null && [ "$(files_here)" = 0 ]; }
expect 'local copies are dropped' nothing_is_here
expect 'a folder is kept downloaded' is_kept
expect 'what is kept is not dropped' stays_kept
expect 'until it is kept no more' is_given_up

is_gone 'From elsewhere' || differs 'a folder that was not made yet is already there'
other_device mkdir 'From elsewhere' >/dev/null
other_device put "$IMPORT/Welcome.txt" 'From elsewhere/Copied.txt' >/dev/null
other_device mv Notes/note-001.txt 'Notes/renamed note.txt' >/dev/null
other_device rm Documents/numbers.csv >/dev/null
sync_now
expect 'a folder made on another device appears' test -d "$MOUNT/From elsewhere"
expect 'a file sent by another device appears with its contents' cmp -s "$IMPORT/Welcome.txt" "$MOUNT/From elsewhere/Copied.txt"
expect 'a file renamed elsewhere is renamed here' cmp -s "$IMPORT/Notes/note-001.txt" "$MOUNT/Notes/renamed note.txt"
expect 'and its old name is gone' is_gone Notes/note-001.txt
expect 'a file deleted elsewhere is gone' is_gone Documents/numbers.csv

printf 'Changed elsewhere.\n' >"$WORLD/changed"
other_device put "$WORLD/changed" Welcome.txt >/dev/null
sync_now
expect 'new contents from another device are read' contents_are Welcome.txt 'Changed elsewhere.'

# What programs change here.
server_has_it_all() {
  rm -rf "$WORLD/server"
  download_account "$WORLD/server"
  diff -r "$WORLD/server" "$MOUNT"
}
in_git() { in_world git -C "$MOUNT/Project" -c user.name=Ann -c user.email=ann@example.org "$@"; }
copies_nothing() { [ -z "$(rsync -rti "$IMPORT/Notes/" "$MOUNT/Copied notes/" | grep -v '^\.d' || true)" ]; }
cp "$IMPORT/Pictures/Picture 1.jpg" "$MOUNT/Pictures/Copied.jpg"
mkdir "$MOUNT/Made here"
mv "$MOUNT/Notes/note-002.txt" "$MOUNT/Made here/moved note.txt"
rm "$MOUNT/Notes/note-003.txt"
sed -i 's/ship/train/' "$MOUNT/Documents/Letters/Für Zoë.txt"
in_world vim -u NONE -es -c 'normal oAnd edited with vim.' -c wq "$MOUNT/Made here/moved note.txt" </dev/null
rsync -rt "$IMPORT/Notes/" "$MOUNT/Copied notes/"
mkdir "$MOUNT/Project"
in_git init -q -b main
cp -r "$IMPORT/Documents" "$MOUNT/Project/"
in_git add -A
in_git commit -q -m 'Begin'
expect 'an edit is there at once' grep -q train "$MOUNT/Documents/Letters/Für Zoë.txt"
expect 'an editor saves' grep -q 'edited with vim' "$MOUNT/Made here/moved note.txt"
sync_now
expect 'rsync finds nothing to do the second time' copies_nothing
expect 'what git keeps is sound' in_git fsck --full --strict
expect 'the server has every byte of what was changed here' server_has_it_all

# The desktop's trash.
TRASH=$MOUNT/.Trash-$(id -u)
server_trash_has() { in_world vondle trash list --json | grep -qF "\"$1\""; }
mv "$MOUNT/Copied notes" "$TRASH/files/"
expect 'what is moved to the trash is there at once' test -e "$TRASH/files/Copied notes"
expect 'and tells where it was' grep -qx 'Path=Copied%20notes' "$TRASH/info/Copied notes.trashinfo"
sync_now
expect 'the server has it in its trash' server_trash_has 'Copied notes'
expect 'and nowhere else' server_has_it_all
mv "$TRASH/files/Copied notes" "$MOUNT/Copied notes"
expect 'it comes back with everything in it' test "$(ls "$MOUNT/Copied notes" | wc -l)" = 300
expect 'on the server, too' server_has_it_all

stop_storage
expect 'without the server, what is here is still read' contents_are Welcome.txt 'Changed elsewhere.'
expect 'without the server, known folders are still listed' test "$(ls "$MOUNT/Notes" | wc -l)" = 298
printf 'Written without the server.\n' >"$MOUNT/Made here/offline.txt"
start_storage
sync_now
expect 'what was written without the server is on it' server_has_it_all
expect 'with the server back, everything goes on' cmp -s "$IMPORT/Film.bin" "$MOUNT/Film.bin"

expect 'the command unmounts' in_world vondle unmount
is_mounted() { mountpoint -q "$MOUNT"; }
! is_mounted || differs 'the folder is still mounted'

if [ $problems -gt 0 ]; then
  printf '%d check(s) differ; the service said:\n' "$problems" >&2
  find "$HOME_FOLDER/.local/state" -name '*.log' -exec tail -n 30 {} + >&2 2>/dev/null || true
  exit 1
fi
say 'Everything is as it should be.'
