#!/usr/bin/env bash
# Installs the Debian packages the project needs, when any is missing.
set -euo pipefail

packages=(
    cmake make g++ pkg-config
    libsqlite3-dev libzstd-dev libxxhash-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    libcli11-dev libfmt-dev nlohmann-json3-dev libcpp-httplib-dev
    dpkg-dev file help2man lintian
    python3-dev pybind11-dev python3-numpy python3-pandas python3-pytest
    python3-dask python3-distributed python3-matplotlib
    chromium chromium-driver python3-selenium fonts-dejavu-core
    "$@"
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

if ((${#missing[@]} == 0)); then
    exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
