#!/bin/sh
# The shared library carries the major version in its SONAME and exports only the public
# classes: no pixel kernel and no internal helper is visible to a host.
set -eu
lib="$1"
readelf -d "$lib" | grep -q 'SONAME.*libkestrix1\.so\.1\]' || { echo "SONAME is not libkestrix1.so.1"; exit 1; }
symbols=$(nm -D --defined-only "$lib" | c++filt)
for public in 'Kestrix::traceMsg' 'TProgress::prog(int, int)' 'TUidDepends::dirty' 'TMat::copyTMat' 'TUpdateRect::setChanged'; do
    printf '%s\n' "$symbols" | grep -qF "$public" || { echo "missing export: $public"; exit 1; }
done
leaked=$(printf '%s\n' "$symbols" | grep -E ' (px[A-Z]|ipps|kx[A-Z]|composeTrace|parallelRows)' || true)
if [ -n "$leaked" ]; then
    echo "internal symbols exported:"; printf '%s\n' "$leaked"; exit 1
fi
echo "exports ok"
