#!/usr/bin/env bash
# The actions of file managers with a program in the place of `vondle` that says what it was asked for.
# desktop_test.sh FOLDER-OF-ACTIONS
set -euo pipefail
ACTIONS=$1
WORK=$(mktemp -d /tmp/vondle-desktop-test-XXXXXX)
trap 'rm -rf "$WORK"' EXIT
export LC_ALL=C.UTF-8
mkdir -p "$WORK/bin" "$WORK/libexec/vondle" "$WORK/tools" "$WORK/folder"
cp "$ACTIONS/desktop-action" "$WORK/libexec/vondle/"
cat >"$WORK/bin/vondle" <<'SCRIPT'
#!/bin/bash
printf '%s\0' "$@" >"$SAID"
[ -z "${FAILURE-}" ] || { echo "$FAILURE" >&2; exit 7; }
SCRIPT
cat >"$WORK/tools/notify-send" <<'SCRIPT'
#!/bin/bash
printf '%s\0' "$@" >"$SHOWN"
SCRIPT
chmod +x "$WORK/bin/vondle" "$WORK/tools/notify-send"
export NAMED=$WORK/named SAID=$WORK/said SHOWN=$WORK/shown
ACTION=$WORK/libexec/vondle/desktop-action

fail() { echo "FAILED: $*" >&2; exit 1; }
must_be() { cmp -s <(printf '%s\0' "${@:2}") "$1" || fail "$(tr '\0' '|' <"$1") instead of ${*:2}"; }

NAMES=('with space' 'Ärger.txt' '#1' '100%' '%41' 'what?' '[a-z]*' "it's" '"quoted"' '-n' '--' '$HOME' '`id`' 'back\slash' '\x41'
  $'new\nline' 'a&b;c|d' ' ' '+' $'\xff')
paths=("${NAMES[@]/#/$WORK/folder/}")
mapfile -t addresses < <(python3 - "${paths[@]}" <<'PYTHON'
import os, sys, urllib.parse
for path in sys.argv[1:]: print("file://" + urllib.parse.quote(os.fsencode(path), safe="/!$&'()*+,;=:@"))
PYTHON
)

printf '%s\0' "${paths[@]}" >"$NAMED"

"$ACTION" keep "${paths[@]}"
must_be "$SAID" keep --no-wait -- "${paths[@]}"
"$ACTION" unkeep "${addresses[@]}"
must_be "$SAID" unkeep -- "${paths[@]}"
(cd "$WORK/folder" && "$ACTION" evict "${NAMES[@]}")
must_be "$SAID" evict -- "${NAMES[@]}"

export FAILURE='“a<b” is not in the Vondle folder & never was'
status=0
PATH=$WORK/tools:$PATH "$ACTION" evict "$WORK/x" 2>"$WORK/errors" || status=$?
[ $status = 7 ] || fail "status $status"
must_be "$SHOWN" --app-name=Vondle --icon=dialog-warning -- 'Freeing up space failed' \
  '“a&lt;b” is not in the Vondle folder &amp; never was'
[ "$(cat "$WORK/errors")" = "$FAILURE" ] || fail "$(cat "$WORK/errors")"
unset FAILURE
for wrong in '' 'fly x' 'keep'; do
  status=0
  "$ACTION" $wrong 2>/dev/null || status=$?
  [ $status = 2 ] || fail "\"$wrong\" exits with $status"
done

# Nautilus' actions, with a Nautilus that is none.
mkdir -p "$WORK/gi/repository"
touch "$WORK/gi/__init__.py"
cat >"$WORK/gi/repository/__init__.py" <<'PYTHON'
class GObject:
    class GObject: pass
class Nautilus:
    class MenuProvider: pass
    class InfoProvider: pass
    class Menu:
        def __init__(self): self.items = []
        def append_item(self, item): self.items.append(item)
    class MenuItem:
        def __init__(self, name, label): self.label = label
        def connect(self, signal, function, *arguments): self.activate = lambda: function(self, *arguments)
        def set_submenu(self, menu): self.menu = menu
PYTHON
sed "s|@VONDLE_DESKTOP_ACTION@|$ACTION|" "$ACTIONS/nautilus/vondle.py.in" >"$WORK/vondle_nautilus.py"
PYTHONDONTWRITEBYTECODE=1 PYTHONPATH=$WORK python3 - "${addresses[@]}" <<'PYTHON' || fail 'Nautilus'
import os, subprocess, sys
import vondle_nautilus as vondle

class File:
    def __init__(self, uri): self.uri, self.emblems = uri, []
    def get_uri(self): return self.uri
    def add_emblem(self, name): self.emblems.append(name)

ours = {"policy": b"kept downloaded", "shared": b"with you"}
vondle.attribute = lambda path, name: ours.get(name) if b"/folder/" in path else None
extension = vondle.VondleExtension()
assert extension.get_file_items([File("file:///elsewhere")]) == []
assert extension.get_file_items([File(sys.argv[1]), File("sftp://host/folder/x")]) == []
files = [File(uri) for uri in sys.argv[1:]]
top, = extension.get_file_items(None, files)
assert [item.label for item in top.menu.items] == ["Keep Downloaded", "Stop Keeping Downloaded", "Free Up Space"]
started = []
subprocess.Popen = lambda arguments, **_: started.append(arguments)
top.menu.items[1].activate()
paths = open(os.environ["NAMED"], "rb").read().split(b"\0")
assert started[0][1] == "unkeep" and started[0][2:] == paths[:-1], started
extension.update_file_info(files[0])
assert files[0].emblems == ["emblem-shared", "emblem-downloads"], files[0].emblems
ours.clear()
extension.update_file_info(files[1])
assert files[1].emblems == []
PYTHON
echo 'desktop_test: ok'
