# rclone as the peer: a server of its own, and a mount of that. Sourced after begin.sh.
answers() { (: <"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# wait_for_rclone PID COMMAND...: until the command succeeds.
wait_for_rclone() {
  local pid=$1
  shift
  until "$@"; do
    kill -0 "$pid" 2>/dev/null || { cat "$WORLD/rclone.log" >&2; return 1; }
    sleep 0.1
  done
}

# serve_with_rclone PROTOCOL FOLDER [OPTION...]: sets RCLONE_SERVER.
serve_with_rclone() {
  local port=$((20000 + RANDOM % 10000))
  while answers "$port"; do port=$((port + 1)); done
  : >"$WORLD/rclone.conf"
  rclone serve "$@" --addr "127.0.0.1:$port" --config "$WORLD/rclone.conf" >"$WORLD/rclone.log" 2>&1 &
  STARTED+=($!)
  wait_for_rclone $! answers "$port"
  RCLONE_SERVER=http://127.0.0.1:$port
}

# mount_with_rclone REMOTE [OPTION...]: at RCLONE_MOUNT.
mount_with_rclone() {
  RCLONE_MOUNT=$WORLD/rclone
  mkdir "$RCLONE_MOUNT"
  MOUNTED+=("$RCLONE_MOUNT")
  rclone mount "$1" "$RCLONE_MOUNT" --config "$WORLD/rclone.conf" --cache-dir "$WORLD/rclone-cache" "${@:2}" \
    >"$WORLD/rclone.log" 2>&1 &
  STARTED+=($!)
  wait_for_rclone $! mountpoint -q "$RCLONE_MOUNT"
}
