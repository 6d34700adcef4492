#!/usr/bin/python3
"""Pillow's Floyd-Steinberg dithering on a 4000x3000 24-bit picture, for
comparison with bench_dither.cpp (BM_Dither_Floyd_Fixed256, _1bit, _Web).

The benchmark binary runs this script itself (BM_Dither_Pillow_*, with
--machine) when the system interpreter has python3-pil; by hand:
    /usr/bin/python3 bench/pillow_dither.py [--repeat N] [--machine]

The picture has the same structure as the C++ benchmark's (gradients, a
disc, stripes, mild noise). Reports the best of N runs in Mpixel/s for:
  - quantize to the fixed 256-colour palette (3-3-2 levels) with Floyd-Steinberg
  - quantize to black and white with Floyd-Steinberg in colour (the same job
    as the kernel's 24-bit to 1-bit run: error diffused per channel)
  - convert to 1 bit ("1": to grey first, then Floyd-Steinberg on one channel,
    the job of the kernel's grey run)
  - convert to the web palette with Floyd-Steinberg
--machine prints one "key seconds" line per case instead.
"""
import argparse
import random
import time

from PIL import Image

W, H = 4000, 3000
L8 = [0, 36, 73, 109, 146, 182, 219, 255]
L4 = [0, 85, 170, 255]


def picture():
    rnd = random.Random(42)
    noise = bytes(rnd.randrange(9) for _ in range(65536))
    rows = bytearray(W * H * 3)
    k = 0
    for y in range(H):
        g0 = (y * 255) // H
        for x in range(W):
            n = noise[(x * 7 + y * 131) & 0xFFFF] - 4
            b = (x * 255) // W + n
            g = g0 + n
            r = (200 if ((x + y) // 16) % 2 else 40) + n
            if (x - 2000) ** 2 + (y - 1500) ** 2 < 800 * 800:
                r = 255 - g
            rows[k] = min(255, max(0, r))
            rows[k + 1] = min(255, max(0, g))
            rows[k + 2] = min(255, max(0, b))
            k += 3
    return Image.frombytes("RGB", (W, H), bytes(rows))


def fixed256_palette_image():
    pal = []
    for i in range(256):
        pal += [L8[i >> 5], L8[(i >> 2) & 7], L4[i & 3]]
    p = Image.new("P", (1, 1))
    p.putpalette(pal)
    return p


def best(fn, repeat):
    # CPU seconds of this process: the dithering runs on one thread, and on a
    # shared machine wall time would mostly measure the other processes.
    t = float("inf")
    for _ in range(repeat):
        t0 = time.process_time()
        fn()
        t = min(t, time.process_time() - t0)
    return t


def black_white_palette_image():
    p = Image.new("P", (1, 1))
    p.putpalette([0, 0, 0, 255, 255, 255])
    return p


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--machine", action="store_true")
    a = ap.parse_args()
    im = picture()
    pal = fixed256_palette_image()
    bw = black_white_palette_image()
    fs = Image.Dither.FLOYDSTEINBERG
    cases = [
        ("fixed256", "Floyd-Steinberg to the fixed 256-colour palette (quantize)",
         lambda: im.quantize(palette=pal, dither=fs)),
        ("bw_colour", "Floyd-Steinberg to black and white in colour (quantize)",
         lambda: im.quantize(palette=bw, dither=fs)),
        ("bw_grey", "Floyd-Steinberg to 1 bit through grey (convert '1')", lambda: im.convert("1", dither=fs)),
        ("web", "Floyd-Steinberg to the web palette (convert 'P')",
         lambda: im.convert("P", palette=Image.Palette.WEB, dither=fs)),
    ]
    import PIL
    if not a.machine:
        print(f"Pillow {PIL.__version__}, {W}x{H} RGB, best of {a.repeat}")
    for key, name, fn in cases:
        t = best(fn, a.repeat)
        if a.machine:
            print(f"{key} {t:.6f}", flush=True)
        else:
            print(f"  {name:60s} {t * 1e3:8.1f} ms  {W * H / t / 1e6:7.1f} Mpixel/s")


if __name__ == "__main__":
    main()
