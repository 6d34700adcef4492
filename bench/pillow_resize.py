#!/usr/bin/python3
"""Pillow's resize on a 4000x3000 picture, for comparison with
bench_resize.cpp. The benchmark binary runs this script itself
(BM_Resize_Pillow_*, with --machine) when the system interpreter has
python3-pil; by hand:
    /usr/bin/python3 bench/pillow_resize.py [--repeat N] [--machine]

Cases (RGB is 24-bit, RGBA 32-bit; Pillow runs on one thread):
  nearest_half, nearest_double         RGB, NEAREST to 2000x1500 / 8000x6000
  {bilinear,bicubic}_{up,down}_{24,32} BILINEAR / BICUBIC to 6000x4500 / 2000x1500
  box_down_{24,32}                     BOX (area averaging) to 2000x1500
Prints the best of N runs in ms, or with --machine one "key seconds" line per case.
"""
import argparse
import os
import time

from PIL import Image

W, H = 4000, 3000


def best(fn, repeat):
    t = None
    for _ in range(repeat):
        t0 = time.perf_counter()
        fn()
        dt = time.perf_counter() - t0
        t = dt if t is None else min(t, dt)
    return t


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--machine", action="store_true")
    a = ap.parse_args()
    rgb = Image.frombytes("RGB", (W, H), os.urandom(W * H * 3))
    rgba = Image.frombytes("RGBA", (W, H), os.urandom(W * H * 4))
    up, down = (W * 3 // 2, H * 3 // 2), (W // 2, H // 2)
    cases = [
        ("nearest_half", lambda: rgb.resize(down, Image.NEAREST)),
        ("nearest_double", lambda: rgb.resize((W * 2, H * 2), Image.NEAREST)),
    ]
    for name, img in (("24", rgb), ("32", rgba)):
        for f, flt in (("bilinear", Image.BILINEAR), ("bicubic", Image.BICUBIC)):
            cases.append((f"{f}_up_{name}", lambda img=img, flt=flt: img.resize(up, flt)))
            cases.append((f"{f}_down_{name}", lambda img=img, flt=flt: img.resize(down, flt)))
        cases.append((f"box_down_{name}", lambda img=img: img.resize(down, Image.BOX)))
    for key, fn in cases:
        t = best(fn, a.repeat)
        if a.machine:
            print(key, t)
        else:
            print(f"{key:24s} {t * 1000:8.1f} ms")


if __name__ == "__main__":
    main()
