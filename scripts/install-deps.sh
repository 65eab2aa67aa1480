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
  libopenblas-openmp-dev
)

# The system BLAS and LAPACK (under CHOLMOD and OpenCV) are OpenBLAS built on OpenMP, so that
# their threads and ours come from one runtime; Debian picks them by alternatives, which
# another BLAS installed later could take over.
select_openblas() {
  local arch dir name
  arch=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch)
  dir=/usr/lib/$arch/openblas-openmp
  for name in libblas.so.3 liblapack.so.3; do
    if [ "$(readlink -f "/usr/lib/$arch/$name")" != "$(readlink -f "$dir/$name")" ]; then
      "${sudo[@]}" update-alternatives --set "$name-$arch" "$dir/$name"
    fi
  done
}

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ "$(id -u)" -eq 0 ]; then
  sudo=()
elif command -v sudo >/dev/null 2>&1; then
  sudo=(sudo)
else
  sudo=()
fi
if [ ${#missing[@]} -ne 0 ] && [ "$(id -u)" -ne 0 ] && [ ${#sudo[@]} -eq 0 ]; then
  echo "install-deps: missing ${missing[*]}, and neither root nor sudo is available" >&2
  exit 1
fi

if [ ${#missing[@]} -eq 0 ]; then
  select_openblas
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
select_openblas
