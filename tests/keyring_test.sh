#!/bin/sh
# keyring_test.sh PROGRAM: runs the keyring tests with a throw-away home, once without a session bus and once in a
# private one with an unlocked keyring. Touches nothing of the user's.
set -eu
program=$1
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
mkdir -m 700 "$home/run"
unset DISPLAY WAYLAND_DISPLAY SECRET_BACKEND DBUS_SESSION_BUS_ADDRESS
export HOME="$home" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" XDG_RUNTIME_DIR="$home/run"

"$program" --gtest_brief=1 --gtest_filter='*SessionBus.*'
dbus-run-session -- sh -c '
  printf "password\n" | gnome-keyring-daemon --unlock --components=secrets >/dev/null
  for tests in "SessionBus/*" "SharedKeyring.*" "RestartedKeyring.*" "LockedKeyring.*"; do
    "$1" --gtest_brief=1 --gtest_filter="$tests" || exit
  done' _ "$program"
