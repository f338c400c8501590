# What the tests with whole programs share. Sourced after tools/demo.sh, whose world they look into.

failures=0
# check WHAT COMMAND...
check() {
  local what=$1
  shift
  if "$@"; then echo "ok: $what"; else
    echo "FAILED: $what" >&2
    failures=$((failures + 1))
  fi
}
# exits STATUS COMMAND...: whether the command, which must not hang, ends with the status; its output is in $WORLD/out.
exits() {
  local wanted=$1 status=0
  shift
  in_world timeout 60 "$@" >"$WORLD/out" 2>&1 || status=$?
  [ $status = "$wanted" ] && return 0
  printf 'exit status %s instead of %s: %s\n' "$status" "$wanted" "$*" >&2
  cat "$WORLD/out" >&2
  return 1
}
says() { grep -qF -- "$1" "$WORLD/out" || { cat "$WORLD/out" >&2; return 1; }; }
# until_true SECONDS COMMAND...
until_true() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $deadline ] || return 1
    sleep 0.1
  done
}
# field PATH: of the status, as text, such as service.pid
field() { in_world timeout 20 vondle status --json 2>/dev/null | python3 -c '
import json, sys
value = json.load(sys.stdin)
for key in sys.argv[1].split("."): value = value[key]
print(value)' "$1"; }
# The pattern must match the whole of the name, so that no other process is meant.
service_processes() { pgrep -f "^$BIN/vondle-service .*$WORLD" || true; }
# The one that no other has started. Process numbers do not tell: they begin anew when all have been used.
supervisor() {
  local process all
  all=$(service_processes)
  for process in $all; do
    grep -qxF -- "$(awk '/^PPid:/ { print $2 }' "/proc/$process/status" 2>/dev/null)" <<<"$all" || echo "$process"
  done
}
service_is_gone() { [ -z "$(service_processes)" ]; }
is_mounted() { mountpoint -q "$MOUNT"; }
# End of a test: the log when something failed.
show_log() { find "$HOME_FOLDER/.local/state" -name '*.log' -exec tail -n 60 {} + >&2 || true; }
conclude() {
  [ $failures = 0 ] || { echo "$failures check(s) failed" >&2; exit 1; }
  echo 'Everything is as it should be.'
}
