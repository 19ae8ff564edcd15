#!/bin/sh
# Packs files into a ZIP archive that depends on their names and contents only: not on times, owners, modes, the time
# zone or the order of the words, so that a rebuilt archive can be compared with the one that was shipped.
# Usage: pack_archive.sh ARCHIVE NAME FILE [NAME FILE ...]   (FILE goes into the archive as NAME)
set -eu
archive=$1
shift

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
mkdir "$stage/files"
while [ $# -gt 0 ]; do
  mkdir -p "$stage/files/$(dirname "$1")"
  cp "$2" "$stage/files/$1"
  shift 2
done

cd "$stage/files"
export TZ=UTC LC_ALL=C
find . -type f -exec chmod 644 {} + -exec touch -t 202601010000 {} +
find . -type f | sort | zip -q -X "$stage/archive.zip" -@
mv "$stage/archive.zip" "$archive"
