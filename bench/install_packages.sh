#!/usr/bin/env bash
# Installs the Debian packages a list names (default bench/packages.txt) that are missing.
# Usage: bench/install_packages.sh [list]. Exit status 0 when all are present afterwards.
set -euo pipefail
cd "$(dirname "$0")/.."
list=${1:-bench/packages.txt}
[[ -f $list ]] || { echo "bench/install_packages.sh: $list: no such file" >&2; exit 2; }
missing=()
while read -r pkg; do
  [[ -z "$pkg" || "$pkg" == \#* ]] && continue
  dpkg -s "$pkg" >/dev/null 2>&1 || missing+=("$pkg")
done <"$list"
((${#missing[@]})) || { echo "all packages of $list are installed"; exit 0; }
echo "installing ${missing[*]}"
sudo=""
[[ $(id -u) -ne 0 ]] && sudo="sudo"
$sudo apt-get update -q
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
