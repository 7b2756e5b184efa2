#!/usr/bin/env bash
# Installs what the build needs on a Debian machine, only if it is missing.
set -euo pipefail
pkgs=(g++ cmake make libgtest-dev libgmock-dev libbenchmark-dev python3-numpy python3-pytest pkgconf
  python3-pandas python3-matplotlib python3-networkx python3-setuptools python3-wheel python3-venv python3-pip
  python3-dask python3-distributed)
missing=()
for p in "${pkgs[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}" >&2
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -y
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
