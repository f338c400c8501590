# A throw-away world for trying and testing: a home folder, an account with files, a storage service and a mount.
# Sourced from the project's top folder after tools/lib.sh; everything lies under $WORLD.

# make_world BIN: the folder, the home in the user database, the environment that programs of this world see.
make_world() {
  BIN=$1
  WORLD=$(mktemp -d /tmp/vondle-try.XXXXXX)
  HOME_FOLDER=$WORLD/home
  MOUNT=$HOME_FOLDER/Vondle
  IMPORT=$WORLD/account
  mkdir -m 700 "$HOME_FOLDER" "$WORLD/run"
  mkdir "$IMPORT"
  printf 'vondle:x:%d:%d:Vondle:%s:/bin/bash\n' "$(id -u)" "$(id -g)" "$HOME_FOLDER" >"$WORLD/passwd"
  printf 'vondle:x:%d:\n' "$(id -g)" >"$WORLD/group"
  (umask 077 && head -c 24 /dev/urandom | base64 | tr '+/' '-_' >"$WORLD/key")
}

# in_world COMMAND...: runs a program with the throw-away home, out of reach of the user's own keyring and settings.
in_world() {
  env -u DBUS_SESSION_BUS_ADDRESS -u DISPLAY -u WAYLAND_DISPLAY -u http_proxy -u https_proxy -u all_proxy \
    HOME="$HOME_FOLDER" XDG_RUNTIME_DIR="$WORLD/run" PATH="$BIN:$PATH" LD_PRELOAD="libnss_wrapper.so${LD_PRELOAD:+:$LD_PRELOAD}" \
    NSS_WRAPPER_PASSWD="$WORLD/passwd" NSS_WRAPPER_GROUP="$WORLD/group" "$@"
}

# make_account_files: pictures, texts, a folder of a few hundred, one file of 200 MiB.
make_account_files() {
  mkdir -p "$IMPORT/Documents/Letters" "$IMPORT/Pictures" "$IMPORT/Notes" "$IMPORT/Empty folder"
  printf 'Welcome to Vondle.\n\nThis file came down when you opened it.\n' >"$IMPORT/Welcome.txt"
  printf 'Dear Zoë,\n\nthe ship leaves at five.\n' >"$IMPORT/Documents/Letters/Für Zoë.txt"
  : >"$IMPORT/Documents/empty.txt"
  seq 1 20000 >"$IMPORT/Documents/numbers.csv"
  local i
  for i in 1 2 3 4 5 6; do
    convert -size 1200x800 -seed "$i" plasma:fractal -quality 85 "$IMPORT/Pictures/Picture $i.jpg"
  done
  for i in $(seq 1 300); do
    printf 'Note %d: %s\n' "$i" "remember the milk" >"$IMPORT/Notes/note-$(printf '%03d' "$i").txt"
  done
  head -c $((200 * 1024 * 1024)) /dev/urandom >"$IMPORT/Film.bin"
  touch -d '2024-05-01 10:20:30 UTC' "$IMPORT/Welcome.txt"
}

# wait_for_line FILE PATTERN SECONDS PID: until the file has such a line; fails when the process ends first.
wait_for_line() {
  local deadline=$((SECONDS + $3))
  until grep -q -- "$2" "$1" 2>/dev/null; do
    kill -0 "$4" 2>/dev/null && [ $SECONDS -lt $deadline ] || { echo "did not start:" >&2; cat "$1" >&2; return 1; }
    sleep 0.1
  done
}

# start_storage [OPTION...]: on a free port the first time, on the same one after that; sets SERVER.
start_storage() {
  # The pid is the program's own, not that of a shell around it.
  rm -f "$WORLD/storage.pid"
  : >"$WORLD/storage.log"
  in_world sh -c 'echo $$ >"$0"; exec "$@"' "$WORLD/storage.pid" vondle-storage --root "$WORLD/storage" \
    --listen "127.0.0.1:${STORAGE_PORT:-0}" --account "demo:$WORLD/key" "$@" >>"$WORLD/storage.log" 2>&1 &
  STORAGE_JOB=$!
  wait_for_line "$WORLD/storage.log" 'listening on' 60 "$STORAGE_JOB"
  STORAGE_PID=$(cat "$WORLD/storage.pid")
  SERVER=$(sed -n 's/.*listening on \(http:[^ ]*\).*/\1/p' "$WORLD/storage.log" | head -1)
  STORAGE_PORT=${SERVER##*:}
}

stop_storage() {
  [ -n "${STORAGE_PID:-}" ] || return 0
  kill "$STORAGE_PID" 2>/dev/null || true
  wait "$STORAGE_JOB" 2>/dev/null || true
  STORAGE_PID=
}

# other_device COMMAND...: what a second device of the same account does, straight on the server.
other_device() { tools/storage-client --server "$SERVER" --key-file "$WORLD/key" "$@"; }

destroy_world() {
  [ -n "${WORLD:-}" ] || return 0
  in_world vondle unmount --wait 5 >/dev/null 2>&1 || true
  stop_storage
  mountpoint -q "$MOUNT" 2>/dev/null && { fusermount3 -uz "$MOUNT" 2>/dev/null || umount -l "$MOUNT" || true; }
  rm -rf --one-file-system "$WORLD"
  WORLD=
}

# download_account FOLDER [PATH]: the whole tree as the server has it, read by the second device.
download_account() {
  local folder=$1 path=${2:-} kind id version size time name
  mkdir -p "$folder"
  while IFS=$'\t' read -r kind id version size time name; do
    if [ "$kind" = folder ]; then
      download_account "$folder/$name" "${path:+$path/}$name"
    else
      other_device get "${path:+$path/}$name" "$folder/$name" >/dev/null
    fi
  done < <(other_device ls "$path")
}
