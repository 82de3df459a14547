#!/usr/bin/env bash
# Installs what aggtree needs to build and test, from Debian's packages, when missing.
set -euo pipefail

packages=(g++ make cmake pkg-config libgtest-dev libgmock-dev googletest libbenchmark-dev
          nlohmann-json3-dev libcli11-dev librapidcheck-dev graphviz gnuplot-nox
          clang-14 libclang-rt-14-dev valgrind)
missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi
echo "Installing: ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
    sudo_cmd=(sudo)
fi
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
