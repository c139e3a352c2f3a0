#!/usr/bin/env python3
"""Writes the seed corpora: a small valid calibration (two cameras, 128 x 48 panorama) as a
parameter file and as a whole cut directory, a few buffer-mode byte strings and two rig files."""
import json, os, random, struct, sys

here = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")
SEPARATOR = b"\n--file--\n"


def layout(cameras=2):
    cams = []
    for c in range(cameras):
        seams = [c * 64, ((c + 1) % cameras) * 64]
        cams.append({"nonoverlap": [(c * 64 + 16, 32, 3, 4)],
                     "overlap": [(1, seams[b], 16, 2, 4, 16, 48) for b in range(2)]})
    return {"src": (64, 48), "bld": (64 * cameras, 48), "step": (16, 16), "cameras": cams}


def params_text(l):
    lines = ["src_width %d" % l["src"][0], "src_height %d" % l["src"][1], "bld_width %d" % l["bld"][0],
             "bld_height %d" % l["bld"][1], "step_x %d" % l["step"][0], "step_y %d" % l["step"][1]]
    for c, cam in enumerate(l["cameras"]):
        lines += ["camera_%d: %d" % (c, len(cam["nonoverlap"]) + len(cam["overlap"])),
                  "nonoverlap_num %d" % len(cam["nonoverlap"]), "overlap_num %d" % len(cam["overlap"])]
        for b in cam["nonoverlap"]:
            lines += ["%s %d" % kv for kv in zip(("dst_startx", "dst_width", "mesh_width", "mesh_height"), b)]
        for b in cam["overlap"]:
            lines += ["%s %d" % kv for kv in zip(("band_num", "dst_startx", "dst_width", "mesh_width", "mesh_height",
                                                  "alpha_width", "alpha_height"), b)]
    return ("\n".join(lines) + "\n").encode()


def mesh(width, height, x0, axis):
    values = [x0 + i % width * 16 if axis == "x" else i // width * 16 for i in range(width * height)]
    return struct.pack("<%df" % len(values), *values)


def calib_dir(l, u8):
    parts = [params_text(l)]
    for c, cam in enumerate(l["cameras"]):
        for b in cam["nonoverlap"] + [o[1:5] for o in cam["overlap"]]:
            for axis in "xy":
                parts.append(mesh(b[2], b[3], 8, axis))
    for c, cam in enumerate(l["cameras"]):
        w, h = cam["overlap"][0][5], cam["overlap"][0][6]
        count = w * h + (w // 2) * (h // 2)
        parts.append(bytes([128]) * count if u8 else struct.pack("<%df" % count, *([0.5] * count)))
    return bytes([1 if u8 else 0]) + SEPARATOR.join(parts)


def write(target, name, data):
    with open(os.path.join(here, target, name), "wb") as f:
        f.write(data)


def main():
    l = layout()
    write("fuzz_params", "two_cameras.txt", params_text(l))
    write("fuzz_params", "three_cameras.txt", params_text(layout(3)))
    write("fuzz_calib_dir", "two_cameras_float", calib_dir(l, False))
    write("fuzz_calib_dir", "two_cameras_u8", calib_dir(l, True))
    rng = random.Random(13)
    for i in range(4):
        write("fuzz_buffer_records", "random_%d" % i, bytes(rng.randrange(256) for _ in range(512)))
    rig = {"panorama": {"projection": "equirectangular", "width": 1024, "height": 256, "hfov_deg": 360,
                        "vfov_deg": 90, "seam_width": 64, "bands": 3},
           "cameras": [{"model": "fisheye", "image_width": 640, "image_height": 480,
                        "K": [250, 0, 320.5, 0, 251, 239.5, 0, 0, 1], "D": [-0.02, 0.003, -0.0005, 0.00002],
                        "R": [1, 0, 0, 0, 1, 0, 0, 0, 1]},
                       {"model": "pinhole", "image_width": 640, "image_height": 480,
                        "K": [400, 0, 320, 0, 400, 240, 0, 0, 1], "D": [0.01, -0.002, 0, 0],
                        "R": [0, 0, -1, 0, 1, 0, 1, 0, 0]}]}
    write("fuzz_rig_file", "two_cameras.json", json.dumps(rig, indent=1).encode())
    rig["panorama"].update({"projection": "cylindrical", "alpha": "float"})
    write("fuzz_rig_file", "cylindrical.json", json.dumps(rig).encode())


if __name__ == "__main__":
    sys.exit(main())
