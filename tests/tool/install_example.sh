#!/usr/bin/env bash
# Installs the package into a temporary prefix, builds the example against it with CMake and with
# pkg-config, and checks that it stitches the same bytes as the zqavs tool.
set -euo pipefail
BUILD=$1
SOURCE=$2
WORK=$(mktemp -d /tmp/zqavs-install-test-XXXXXX)
trap 'rm -rf "$WORK"' EXIT

cmake --install "$BUILD" --prefix "$WORK/prefix" >/dev/null
test "$(ls "$WORK/prefix/include")" = zqgfx_gpu_avs.h
# The library exports its entry points and nothing else.
if nm -D --defined-only "$WORK/prefix/lib/libzqgfx_avs.so" | grep -v ' ZQGFX_AVS_'; then
    echo "libzqgfx_avs.so exports more than its entry points" >&2
    exit 1
fi
test -L "$WORK/prefix/lib/libzqgfx_avs.so"
readelf -d "$WORK/prefix/lib/libzqgfx_avs.so" | grep -q "SONAME.*libzqgfx_avs.so.1"

cmake -S "$SOURCE/examples/minimal" -B "$WORK/example" -DCMAKE_PREFIX_PATH="$WORK/prefix" >/dev/null
cmake --build "$WORK/example" >/dev/null
PKG_CONFIG_PATH="$WORK/prefix/lib/pkgconfig" pkg-config --exists zqgfx_avs
g++ -std=c++17 -o "$WORK/stitch_pkgconfig" "$SOURCE/examples/minimal/stitch_minimal.cpp" \
    $(PKG_CONFIG_PATH="$WORK/prefix/lib/pkgconfig" pkg-config --cflags --libs zqgfx_avs)

ZQAVS="$WORK/prefix/bin/zqavs"
"$ZQAVS" synth "$WORK/cal" --cameras 2 --source-size 320x240 --panorama-size 512x240 --overlap 64 --bands 2 >/dev/null
"$ZQAVS" stitch "$WORK/cal" "$WORK"/cal/camera{0,1}.nv12 -o "$WORK/tool.nv12" >/dev/null
export LD_LIBRARY_PATH="$WORK/prefix/lib"
"$WORK/example/stitch_minimal" "$WORK/cal/" 320x240 512x240 "$WORK/example.nv12" "$WORK"/cal/camera{0,1}.nv12
"$WORK/stitch_pkgconfig" "$WORK/cal/" 320x240 512x240 "$WORK/pkgconfig.nv12" "$WORK"/cal/camera{0,1}.nv12
cmp "$WORK/tool.nv12" "$WORK/example.nv12"
cmp "$WORK/tool.nv12" "$WORK/pkgconfig.nv12"
echo "install and example: ok"
