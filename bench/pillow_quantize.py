#!/usr/bin/python3
"""Pillow's quantizers on a PPM image, for the colour-resolution comparison.

Usage: pillow_quantize.py IMAGE.ppm COLOURS [COLOURS ...] [--time N]

For each colour count prints one line per method:
    <method> <colours> <mse> <seconds>
where method is "mediancut" (Image.quantize(method=MEDIANCUT)) or
"fastoctree" (method=FASTOCTREE), both without dithering, the mean squared
error is over the three channels of every pixel, and seconds is the best of
N runs (default 1) of quantize() alone.
"""
import sys
import time

from PIL import Image


def mse(a, b):
    da = a.tobytes()
    db = b.tobytes()
    total = 0
    # Per-byte squared differences via the histogram of a difference image.
    from PIL import ImageChops
    diff = ImageChops.difference(a, b)
    hist = diff.histogram()
    for band in range(3):
        h = hist[band * 256:(band + 1) * 256]
        total += sum(count * v * v for v, count in enumerate(h))
    return total / (len(da))


def main():
    args = [a for a in sys.argv[1:]]
    runs = 1
    if "--time" in args:
        i = args.index("--time")
        runs = int(args[i + 1])
        del args[i:i + 2]
    img = Image.open(args[0]).convert("RGB")
    for colours in (int(c) for c in args[1:]):
        for name, method in (("mediancut", Image.Quantize.MEDIANCUT),
                             ("fastoctree", Image.Quantize.FASTOCTREE)):
            best = None
            for _ in range(runs):
                t0 = time.perf_counter()
                q = img.quantize(colors=colours, method=method, dither=Image.Dither.NONE)
                dt = time.perf_counter() - t0
                best = dt if best is None else min(best, dt)
            print(f"{name} {colours} {mse(img, q.convert('RGB')):.4f} {best:.6f}", flush=True)


if __name__ == "__main__":
    main()
