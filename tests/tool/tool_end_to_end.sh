#!/usr/bin/env bash
# The zqavs tool end to end: demo, synth then check, chessboard refusals, a real rig from rig file to
# panorama stitched from PNG inputs, rotations refined and seams chosen from images, bench, a short soak,
# broken calibrations; exposure compensation in demo, stitch and bench.
set -uo pipefail
ZQAVS=$1
WORK=$(mktemp -d /tmp/zqavs-tool-test-XXXXXX)
trap 'rm -rf "$WORK"' EXIT
failures=0

fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
written() { local f; for f in "$@"; do [[ -s $f ]] || fail "$f was not written"; done; }
# expect CODE [PATTERN...] -- command...: runs the command, checks its exit code and that its output matches
# every pattern.
expect() {
    local code=$1 patterns=() out rc pattern
    shift
    while [[ $1 != -- ]]; do patterns+=("$1"); shift; done
    shift
    out=$("$@" 2>&1)
    rc=$?
    [[ $rc -eq $code ]] || fail "'$*' exited $rc, expected $code; output:"$'\n'"$out"
    for pattern in "${patterns[@]}"; do
        grep -qE -- "$pattern" <<<"$out" || fail "'$*' did not print /$pattern/; output:"$'\n'"$out"
    done
}

expect 0 "demo" -- "$ZQAVS" --help
expect 2 "source-size" -- "$ZQAVS" synth "$WORK/x" --source-size 12by7

# demo: pictures and figures; compensation brings the cameras' differing exposures together
expect 0 "PSNR of Y against the scene, compensation off: [0-9.]+ dB" \
    "PSNR of Y against the scene, compensation channels: (3[89]|[4-9][0-9])\.[0-9]+ dB" -- \
    "$ZQAVS" demo --out "$WORK/demo" --frames 2
written "$WORK"/demo/{panorama.png,panorama.nv12,side_by_side.png}

# synth, then check: a clean calibration has no error and every seam but the last is blended
CAL=$WORK/cal
expect 0 "wrote" -- "$ZQAVS" synth "$CAL" --cameras 3 --source-size 320x240 --panorama-size 768x240 \
    --overlap 64 --bands 2 --gains 1,1.2,0.8
expect 0 "0 errors, 0 warnings" "camera 2 -> 0: not blended" -- "$ZQAVS" check "$CAL" --overlay "$WORK/layout.png"
written "$WORK/layout.png"

# calib intrinsics refuses unreadable images
expect 1 "cannot read" -- "$ZQAVS" calib intrinsics "$CAL/zq_ps_gpu_mesh_params.txt" --board 9x6 --square 0.025 \
    -o "$WORK/camera.yml"
[[ ! -e $WORK/camera.yml ]] || fail "calib intrinsics wrote a camera file after refusing"

# a real rig photographing random blocks: synth renders what its cameras see; its rig file has camera 1
# turned 3 degrees too far, which calib --refine corrects from those images; check and stitch take the
# calibration; images of the wrong size exit 1, naming the problem and writing nothing
python3 -c 'import random, sys; r = random.Random(7)
sys.stdout.buffer.write(b"P6 512 256 255\n" + bytes(r.randrange(256) for _ in range(512 * 256 * 3)))' \
    >"$WORK/blocks.ppm"
cat >"$WORK/pair.json" <<'JSON'
{"panorama": {"projection": "cylindrical", "width": 384, "height": 96, "hfov_deg": 100, "vfov_deg": 36},
 "cameras": [{"model": "pinhole", "image_width": 240, "image_height": 180, "K": [150, 0, 119.5, 0, 150, 89.5, 0, 0, 1],
              "D": [-0.1, 0.01, 0, 0], "R": [0.906308, 0, 0.422618, 0, 1, 0, -0.422618, 0, 0.906308]},
             {"model": "pinhole", "image_width": 240, "image_height": 180, "K": [150, 0, 119.5, 0, 150, 89.5, 0, 0, 1],
              "D": [-0.1, 0.01, 0, 0], "R": [0.906308, 0, -0.422618, 0, 1, 0, 0.422618, 0, 0.906308]}]}
JSON
expect 0 "wrote" -- "$ZQAVS" synth --rig "$WORK/pair.json" --scene "$WORK/blocks.ppm" -o "$WORK/pairsyn"
written "$WORK"/pairsyn/{camera0.nv12,camera1.png,panorama.png}
sed 's/0.906308, 0, -0.422618, 0, 1, 0, 0.422618, 0, 0.906308/0.882948, 0, -0.469472, 0, 1, 0, 0.469472, 0, 0.882948/' \
    "$WORK/pair.json" >"$WORK/pairoff.json"
expect 0 "camera 1: .*corrected by (2\.99|3\.00)" "mesh interpolation error" \
    "seam 0-1: graph cut path through columns [0-9]+\.\.[0-9]+; mean disagreement [0-9.]+ along it" -- \
    "$ZQAVS" calib "$WORK/pairoff.json" -o "$WORK/paircal" --overlay "$WORK/rig.png" \
    --refine "$WORK/pairsyn/camera0.png" "$WORK/pairsyn/camera1.nv12" --seams
written "$WORK/paircal/rig.json" "$WORK/rig.png"
grep -q '0.9063' "$WORK/paircal/rig.json" 2>/dev/null || fail "calib --refine did not write the refined rig"
expect 0 "0 errors" -- "$ZQAVS" check "$WORK/paircal" --overlay "$WORK/paircheck.png"
written "$WORK/paircheck.png"
expect 0 "wrote .*rigpano.png" -- "$ZQAVS" stitch "$WORK/paircal" "$WORK"/pairsyn/camera{0,1}.png -o "$WORK/rigpano.png"
expect 1 "camera0.png: 320x240, expected 240x180" -- "$ZQAVS" calib "$WORK/pairoff.json" -o "$WORK/paircal2" \
    --refine "$WORK/pairsyn/camera0.png" "$CAL/camera0.png"
[[ ! -e $WORK/paircal2 ]] || fail "calib --refine left a directory behind after refusing"
# --seams refuses images that do not fit the rig as --refine does, and writes nothing
while IFS='|' read -r pattern images; do
    # shellcheck disable=SC2086 # the image list splits into its paths
    expect 1 "$pattern" -- "$ZQAVS" calib "$WORK/pair.json" -o "$WORK/seamcal" --seams $images
    [[ ! -e $WORK/seamcal ]] || fail "calib --seams left a directory behind after refusing $images"
done <<EOF
--seams: 1 images for 2 cameras|$WORK/pairsyn/camera0.png
camera0.png: 320x240, expected 240x180|$WORK/pairsyn/camera0.png $CAL/camera0.png
EOF

# stitch: a camera count other than the calibration's, or an unknown compensation, is a usage error;
# compensation takes camera 1 (exposed 1.2) down and camera 2 (0.8) up
expect 2 "3 cameras" -- "$ZQAVS" stitch "$CAL" "$CAL/camera0.png" -o "$WORK/c.png"
expect 2 "bright not in" -- "$ZQAVS" stitch "$CAL" "$CAL"/camera{0,1,2}.png -o "$WORK/c.png" --compensate bright
expect 0 "compensation: gain, settled" "camera 1 gains: R 0\.8[0-9]*  G 0\.8" "camera 2 gains: R 1\.[1-3]" -- \
    "$ZQAVS" stitch "$CAL" "$CAL"/camera{0,1,2}.png -o "$WORK/c.png" --compensate gain --frames 2

# bench: a tiny table, timed with and without compensation
expect 0 "path: (portable|target)" "compensation channels" "comp/off" -- "$ZQAVS" bench --opencv --frames 1 \
    --cameras 2 --sizes 320x240 --compensate channels --json "$WORK/bench.json"
grep -q '"ratio"' "$WORK/bench.json" || fail "bench --opencv --json wrote no table with the ratio"
grep -q '"compensation_ratio"' "$WORK/bench.json" || fail "bench --compensate --json wrote no compensation ratio"

# soak, short: two instances over more distinct descriptors than import slots, reshaped and
# checked
expect 0 "0 differed" -- "$ZQAVS" soak --frames 240 --instances 2 --cameras 2 --size 160x96 --descriptors 104 \
    --reshape-every 50 --check-every 20 --report-every 60 --warmup 120

# broken calibrations: every problem is reported, not just the first
BROKEN=$WORK/broken
cp -r "$CAL" "$BROKEN"
rm "$BROKEN/zq_ps_gpu_meshy11.bin"
head -c 100 "$CAL/zq_ps_gpu_meshx20.bin" >"$BROKEN/zq_ps_gpu_meshx20.bin"
head -c 10 "$CAL/zq_ps_gpu_alpha01.bin" >"$BROKEN/zq_ps_gpu_alpha01.bin"
sed -i '0,/^camera_1: 3/s//camera_1: 4/' "$BROKEN/zq_ps_gpu_mesh_params.txt"
expect 1 "zq_ps_gpu_meshy11.bin: missing mesh file" "zq_ps_gpu_meshx20.bin: 100 bytes" \
    "zq_ps_gpu_alpha01.bin: 10 bytes" "header says 4 blocks but nonoverlap_num \+ overlap_num = 3" "4 errors" -- \
    "$ZQAVS" check "$BROKEN"
expect 1 -- "$ZQAVS" stitch "$BROKEN" "$CAL"/camera{0,1,2}.png -o "$WORK/d.png"

echo "tool end to end: $failures failure(s)"
[[ $failures -eq 0 ]]
