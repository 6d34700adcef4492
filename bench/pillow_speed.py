#!/usr/bin/python3
"""Pillow beside bench_speed.cpp (BM_Speed_24toFixed256_Pillow): a random
4000x3000 24-bit picture to the fixed 256-colour palette (3-3-2 levels)
without dithering. Prints "key seconds" lines, the best of three runs in
CPU seconds of this process (Pillow's quantizer runs on one thread; on a
shared machine wall time would mostly measure the other processes).
    /usr/bin/python3 bench/pillow_speed.py
"""
import os
import time

from PIL import Image

W, H = 4000, 3000
L8 = [0, 36, 73, 109, 146, 182, 219, 255]
L4 = [0, 85, 170, 255]


def fixed_palette():
    pal = []
    for i in range(256):
        pal += [L8[i >> 5], L8[(i >> 2) & 7], L4[i & 3]]
    p = Image.new("P", (1, 1))
    p.putpalette(pal)
    return p


def best(f, n=3):
    t = []
    for _ in range(n):
        s = time.process_time()
        f()
        t.append(time.process_time() - s)
    return min(t)


def main():
    img = Image.frombytes("RGB", (W, H), os.urandom(W * H * 3))
    pal = fixed_palette()
    t = best(lambda: img.quantize(palette=pal, dither=Image.Dither.NONE))
    print("fixed256_nodither", t)


if __name__ == "__main__":
    main()
