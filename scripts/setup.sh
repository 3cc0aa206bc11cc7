#!/usr/bin/env bash
# Installs what harl needs to build and test, from Debian packages. Idempotent: a package
# that is already installed is left alone, and nothing is fetched when all are present.
set -euo pipefail

packages=(
    build-essential cmake pkg-config
    libgtest-dev libgmock-dev libbenchmark-dev
    libwxgtk3.2-dev zlib1g-dev libdeflate-dev libssl-dev
    clang libclang-rt-dev
    qemu-utils e2fsprogs
    libcli11-dev nlohmann-json3-dev time
    python3
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -gt 0 ]; then
    sudo=""
    if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -qq
    $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
