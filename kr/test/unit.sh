#!/usr/bin/env bash
# unit.sh UNIT KR: systemd accepts the unit and rates its exposure below 4. Exit code 77: there is no systemd-analyze.
set -euo pipefail

command -v systemd-analyze >/dev/null || exit 77
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
unit=$folder/krvision@.service
sed "s|^ExecStart=[^ ]*/kr |ExecStart=$2 |" "$1" >"$unit"
grep -q "^ExecStart=$2 serve" "$unit" || { echo "ExecStart is not kr serve"; exit 1; }

# It reports problems on standard error, often with exit code 0.
problems=$(systemd-analyze verify --man=no "$unit" 2>&1 | grep "krvision@" || true)
[ -z "$problems" ] || { echo "$problems"; exit 1; }

level=$(systemd-analyze security --offline=true "$unit" | sed -n 's/.*Overall exposure level for .*: \([0-9.]*\) .*/\1/p')
echo "exposure level $level"
awk -v level="$level" 'BEGIN { exit !(level != "" && level < 4) }'
