#!/usr/bin/env bash
# Runs a program of this folder that tests the page of its own system in a headless Chromium. Exits with 77 (skipped)
# if that is impossible.
#   page.sh PROGRAM.mjs KR MOTION-LIBRARY FOLDER [ARGUMENT...]
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
program=$1
kr=$2
motion=$3
folder=$4
shift 4
for needed in node chromium; do
    if ! command -v "$needed" >/dev/null; then
        echo "skipped: there is no $needed; install nodejs and chromium"
        exit 77
    fi
done
mkdir -p "$folder"

# A DDS domain that no other test has; the locks are those of libkrdds/test/testdomain.cpp.
for ((domain = 10; domain < 100; ++domain)); do
    exec 9>"/tmp/krdds-test-domain-$domain.lock"
    if flock --nonblock 9; then
        node "$here/$program" "$kr" "$motion" "dds:?domain=$domain&interfaces=lo" "$folder" "$@"
        exit
    fi
done
echo "no DDS domain is free"
exit 1
