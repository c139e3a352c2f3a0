#!/usr/bin/env bash
# The package from a program's point of view: the library exports only its entry points, the example
# builds against it with CMake and with pkg-config and stitches the bytes of `zqavs stitch`; with the
# GStreamer plugin, recorded camera files stitch to the same bytes through gst-launch-1.0, and
# gst-inspect-1.0 finds the plugin.
#   installed_package.sh BUILD SOURCE [gst]   `cmake --install` of BUILD into a temporary prefix;
#                                             gst: the plugin of the build tree and of the prefix
#   installed_package.sh --debs DIR SOURCE    the machine's Debian packages from DIR installed into the
#                                             system with dpkg -i, and removed again at the end
set -euo pipefail
WORK=$(mktemp -d /tmp/zqavs-install-test-XXXXXX)
trap 'rm -rf "$WORK"' EXIT
die() { echo "FAIL: $*" >&2; exit 1; }

if [[ $1 == --debs ]]; then
    DEBS=$2 SOURCE=$3 BUILD="" GST=gst
    PREFIX=/usr LIBDIR=/usr/lib/$(gcc -print-multiarch)
    PACKAGES=(libzqgfx-avs1 libzqgfx-avs-dev zqavs gstreamer1.0-zqavs)
    # Never take away what someone installed on purpose.
    for package in "${PACKAGES[@]}"; do
        ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
            die "$package is installed already: not replacing it"
    done
    trap 'dpkg --purge "${PACKAGES[@]}" >/dev/null; rm -rf "$WORK"' EXIT
    RUN=()
    arch=$(dpkg --print-architecture)
    debs=()
    for package in "${PACKAGES[@]}"; do debs+=("$DEBS/${package}_"*"_$arch.deb"); done
    dpkg -i "${debs[@]}" >/dev/null
else
    BUILD=$1 SOURCE=$2 GST=${3:-}
    PREFIX=$WORK/prefix LIBDIR=$WORK/prefix/lib
    RUN=(env LD_LIBRARY_PATH="$LIBDIR")
    cmake --install "$BUILD" --prefix "$PREFIX" >/dev/null
    test "$(ls "$PREFIX/include")" = zqgfx_gpu_avs.h
    export PKG_CONFIG_PATH="$LIBDIR/pkgconfig"
fi

test -f "$PREFIX/include/zqgfx_gpu_avs.h"
! nm -D --defined-only "$LIBDIR/libzqgfx_avs.so" | grep -v ' ZQGFX_AVS_' ||
    die "libzqgfx_avs.so exports more than its entry points"
test -L "$LIBDIR/libzqgfx_avs.so"
readelf -d "$LIBDIR/libzqgfx_avs.so" | grep -q "SONAME.*libzqgfx_avs.so.1"

cmake -S "$SOURCE/examples/minimal" -B "$WORK/example" -DCMAKE_PREFIX_PATH="$PREFIX" >/dev/null
cmake --build "$WORK/example" >/dev/null
g++ -std=c++17 -o "$WORK/stitch_pkgconfig" "$SOURCE/examples/minimal/stitch_minimal.cpp" \
    $(pkg-config --cflags --libs zqgfx_avs)

CAL=$WORK/cal
"$PREFIX/bin/zqavs" synth "$CAL" --cameras 2 --source-size 320x240 --panorama-size 512x240 --overlap 64 --bands 2 \
    >/dev/null
# The example stitches without compensation; so do the tool and the pipeline here.
"$PREFIX/bin/zqavs" stitch "$CAL" "$CAL"/camera{0,1}.nv12 -o "$WORK/tool.nv12" --compensate off >/dev/null
for program in "$WORK/example/stitch_minimal" "$WORK/stitch_pkgconfig"; do
    "${RUN[@]}" "$program" "$CAL/" 320x240 512x240 "$WORK/out.nv12" "$CAL"/camera{0,1}.nv12
    cmp "$WORK/tool.nv12" "$WORK/out.nv12"
done
[[ $GST == gst ]] || { echo "installed package without the plugin: ok"; exit 0; }

# The cameras' recorded files, frozen for 3 frames each, stitched into one file: by the build tree's
# plugin, or by the installed one where packages were installed.
export GST_REGISTRY="$WORK/registry.bin"  # not the user's cache: every run scans afresh
pipelinePlugins=${BUILD:+$BUILD/gst}
line=(zqavsstitch name=s "calibration=$CAL" compensation=off ! filesink "location=$WORK/pipeline.nv12")
for c in 0 1; do
    line+=(filesrc "location=$CAL/camera$c.nv12" ! rawvideoparse format=nv12 width=320 height=240
           framerate=30/1 ! imagefreeze num-buffers=3 ! "s.sink_$c")
done
GST_PLUGIN_PATH="$pipelinePlugins" gst-launch-1.0 -q "${line[@]}"
cmp -s <(for _ in 1 2 3; do cat "$WORK/tool.nv12"; done) "$WORK/pipeline.nv12" ||
    die "the pipeline's 3 frames are not the tool's panorama 3 times"

# (Whole outputs are kept: grep -q would end gst-inspect-1.0 with SIGPIPE under pipefail.)
if [[ -n $BUILD ]]; then
    inspected=$(GST_PLUGIN_PATH="$BUILD/gst" gst-inspect-1.0 zqavsstitch)
    grep -q "Filename.*$BUILD/gst/libgstzqavs.so" <<<"$inspected" || die "gst-inspect-1.0 finds no plugin in the build tree"
fi
plugin=$(find "$LIBDIR" -name libgstzqavs.so -path "*/gstreamer-1.0/*")
[[ -n $plugin ]] || die "the plugin is not installed in a gstreamer-1.0 directory"
# A registry of its own: the build tree's plugin of the same name is in the other one. Installed
# packages put the plugin where GStreamer looks without being told.
inspected=$(GST_REGISTRY="$WORK/registry-installed.bin" GST_PLUGIN_PATH=${BUILD:+$(dirname "$plugin")} \
    gst-inspect-1.0 zqavsstitch)
# (/lib may be /usr/lib under another name: the files are compared, not the names.)
found=$(sed -n 's/^ *Filename *//p' <<<"$inspected")
[[ -n $found && $(readlink -f "$found") == $(readlink -f "$plugin") ]] ||
    die "gst-inspect-1.0 finds no plugin in $(dirname "$plugin") (found: ${found:-none})"
echo "installed package: ok"
