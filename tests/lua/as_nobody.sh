#!/bin/sh
# Runs a test script as a user whom permissions stop, from a copy that he may read: the clone itself may lie where only its
# owner can go.
# Usage: as_nobody.sh SOURCE-FOLDER SCRIPT
set -eu
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
mkdir "$copy/tests"
cp -R "$1/lua" "$copy/lua"
cp "$1/tests/lua/$2" "$copy/tests/$2"
chmod -R a+rX "$copy"
cd "$copy"
LUA_PATH="$copy/lua/apps/kx_agent/?.lua;$copy/lua/core/?.lua;;" \
  setpriv --reuid=65534 --regid=65534 --clear-groups lua5.2 "$copy/tests/$2"
