#!/usr/bin/env bash
# Runs test/peers.mjs with its packages, which npm installs into FOLDER. Exits with 77 (skipped) if that is
# impossible.
#   peers.sh PEER-PROGRAM FOLDER
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
peer=$1
folder=$2
for program in node npm lz4 zstd; do
    if ! command -v "$program" >/dev/null; then
        echo "skipped: there is no $program; install nodejs, npm, lz4 and zstd"
        exit 77
    fi
done
mkdir -p "$folder"
cd "$folder"
packages=(@mcap/core@2 @foxglove/rosmsg2-serialization@3 @foxglove/rosmsg@5)
if [ ! -d node_modules/@mcap/core ] || [ ! -d node_modules/@foxglove/rosmsg2-serialization ]; then
    [ -f package.json ] || echo '{"private": true}' >package.json
    if ! npm install --no-audit --no-fund --no-save --no-package-lock "${packages[@]}" >npm.log 2>&1; then
        echo "skipped: npm cannot install ${packages[*]}:"
        tail -n 3 npm.log
        exit 77
    fi
fi
cp "$here/peers.mjs" .
node peers.mjs "$peer"
