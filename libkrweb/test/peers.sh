#!/usr/bin/env bash
# Runs test/peers.mjs with its packages, which npm installs into FOLDER. Exits with 77 (skipped) if that is
# impossible.
#   peers.sh SERVER-PROGRAM FOLDER
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
server=$1
folder=$2
for program in node npm; do
    if ! command -v "$program" >/dev/null; then
        echo "skipped: there is no $program; install nodejs and npm"
        exit 77
    fi
done
mkdir -p "$folder"
cd "$folder"
packages=(@foxglove/ws-protocol@0.7 @foxglove/rosmsg2-serialization@3 @foxglove/rosmsg@5 jpeg-js@0.4 ws@8)
if [ ! -d node_modules/@foxglove/ws-protocol ] || [ ! -d node_modules/jpeg-js ]; then
    [ -f package.json ] || echo '{"private": true}' >package.json
    if ! npm install --no-audit --no-fund --no-save --no-package-lock "${packages[@]}" >npm.log 2>&1; then
        echo "skipped: npm cannot install ${packages[*]}:"
        tail -n 3 npm.log
        exit 77
    fi
fi
cp "$here/peers.mjs" .
node peers.mjs "$server"
