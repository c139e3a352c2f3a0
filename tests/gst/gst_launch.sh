#!/usr/bin/env bash
# zqavsstitch from gst-launch-1.0: recorded camera files stitch to the bytes of `zqavs stitch`, and
# gst-inspect-1.0 finds the plugin both in the build tree and in an install prefix.
set -uo pipefail
ZQAVS=$1
BUILD=$2
WORK=$(mktemp -d /tmp/zqavs-gst-test-XXXXXX)
trap 'rm -rf "$WORK"' EXIT
export GST_REGISTRY="$WORK/registry.bin"  # not the user's cache: every run scans afresh
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

CAL=$WORK/cal
FRAMES=3
"$ZQAVS" synth "$CAL" --cameras 2 --source-size 320x240 --panorama-size 512x240 --overlap 64 --bands 2 >/dev/null ||
    fail "synth failed"
"$ZQAVS" stitch "$CAL" "$CAL"/camera{0,1}.nv12 -o "$WORK/tool.nv12" >/dev/null || fail "zqavs stitch failed"

# The cameras' recorded files, frozen for $FRAMES frames each, stitched into one file.
line=(zqavsstitch name=s "calibration=$CAL" ! filesink "location=$WORK/pipeline.nv12")
for c in 0 1; do
    line+=(filesrc "location=$CAL/camera$c.nv12" ! rawvideoparse format=nv12 width=320 height=240
           framerate=30/1 ! imagefreeze "num-buffers=$FRAMES" ! "s.sink_$c")
done
out=$(GST_PLUGIN_PATH="$BUILD/gst" gst-launch-1.0 -q "${line[@]}" 2>&1) || fail "the pipeline failed:"$'\n'"$out"
for _ in $(seq $FRAMES); do cat "$WORK/tool.nv12"; done >"$WORK/expected.nv12"
cmp -s "$WORK/expected.nv12" "$WORK/pipeline.nv12" ||
    fail "the pipeline's $FRAMES frames are not the tool's panorama $FRAMES times"

# (Whole outputs are kept: grep -q would end gst-inspect-1.0 with SIGPIPE under pipefail.)
inspected=$(GST_PLUGIN_PATH="$BUILD/gst" gst-inspect-1.0 zqavsstitch)
grep -q "Filename.*$BUILD/gst/libgstzqavs.so" <<<"$inspected" ||
    fail "gst-inspect-1.0 does not find zqavsstitch in the build tree"
cmake --install "$BUILD" --prefix "$WORK/prefix" >/dev/null || fail "install failed"
plugin=$(find "$WORK/prefix" -name libgstzqavs.so -path "*/gstreamer-1.0/*")
[[ -n $plugin ]] || fail "the plugin is not installed in a gstreamer-1.0 directory"
# A registry of its own: the build tree's plugin of the same name is in the other one.
inspected=$(GST_REGISTRY="$WORK/registry-installed.bin" GST_PLUGIN_PATH=$(dirname "$plugin") gst-inspect-1.0 zqavsstitch)
grep -q "Filename.*$plugin" <<<"$inspected" ||
    fail "gst-inspect-1.0 does not find zqavsstitch in the install prefix"

echo "gst-launch: $failures failure(s)"
[[ $failures -eq 0 ]]
