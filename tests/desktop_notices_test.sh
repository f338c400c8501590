#!/bin/sh
# desktop_notices_test.sh PROGRAM: runs it on a session bus of its own.
set -eu
unset DISPLAY WAYLAND_DISPLAY
exec dbus-run-session -- "$1" --gtest_brief=1
