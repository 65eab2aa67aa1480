#!/usr/bin/env bash
# Installs the Debian packages kestrix1 needs to build, test and benchmark.
# Idempotent: only packages that are missing are installed, and apt-get update
# runs only when something is missing. Works as root or through sudo.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libopencv-dev libopencv-contrib-dev
  liblcms2-dev libsuitesparse-dev
  libgtest-dev libbenchmark-dev gcovr
  libcli11-dev nlohmann-json3-dev
  libsleef-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -eq 0 ]; then
  sudo=()
elif command -v sudo >/dev/null 2>&1; then
  sudo=(sudo)
else
  echo "install-deps: missing ${missing[*]}, and neither root nor sudo is available" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}"
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
