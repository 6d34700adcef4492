#!/usr/bin/env python3
"""The ombrix tool's picture files against Pillow, an independent reader and
writer: every depth through every format keeps every sample, JPEG decodes as
libjpeg decodes, malformed files fail cleanly. Usage: formats.py OMBRIX WORKDIR"""
import io, os, random, subprocess, sys

try:
    from PIL import Image
except ImportError:
    print("Pillow (python3-pil) is not installed: skipped")
    sys.exit(77)

tool, work = sys.argv[1], sys.argv[2]
os.makedirs(work, exist_ok=True)
rng = random.Random(7)
failures = []


def run(*args, code=0):
    p = subprocess.run([tool, *args], capture_output=True, text=True)
    if p.returncode != code:
        failures.append(f"{' '.join(args)}: exit {p.returncode}, wanted {code}: {p.stderr.strip()}")
    return p


def path(name):
    return os.path.join(work, name)


def noise(n):
    return bytes(rng.randrange(256) for _ in range(n))


W, H = 29, 11
palette = lambda bits: Image.frombytes("P", (W, H), bytes(rng.randrange(1 << bits) for _ in range(W * H)))
sources = {
    "bw": Image.frombytes("1", (W, H), noise((W + 7) // 8 * H)),
    "grey": Image.frombytes("L", (W, H), noise(W * H)),
    "grey16": Image.frombytes("I;16", (W, H), noise(2 * W * H)),
    "rgb": Image.frombytes("RGB", (W, H), noise(3 * W * H)),
    "rgba": Image.frombytes("RGBA", (W, H), noise(4 * W * H)),
}
for bits in (2, 4, 8):
    p = palette(bits)
    p.putpalette(list(noise(3 << bits)))
    sources[f"pal{bits}"] = p

# 1. Pillow writes PNG and TIFF; ombrix carries the picture through every
#    format (PNM/PAM in the middle); Pillow reads the results: same mode and
#    the same samples.
for name, im in sources.items():
    for first in ("png", "tif"):
        src = path(f"{name}.{first}")
        im.save(src, bits=int(name[3:]) if name.startswith("pal") and first == "png" else None) \
            if first == "png" else im.save(src)
        chain = [src, path(f"{name}_{first}_a.png"), path(f"{name}_{first}_b.tif"), path(f"{name}_{first}_c.pam"),
                 path(f"{name}_{first}_d.png")]
        for a, b in zip(chain, chain[1:]):
            run("convert", a, b)
        for out in chain[1:]:
            if out.endswith(".pam"):
                continue
            got = Image.open(out)
            want_mode = {"I;16": ("I", "I;16")}.get(im.mode, (im.mode,))
            if out.endswith("_d.png") and im.mode == "P":
                want_mode = ("RGB",)  # a PAM holds no palette: the colours come back
            if got.mode not in want_mode or got.convert("RGBA").tobytes() != im.convert("RGBA").tobytes():
                failures.append(f"{name} via {first} -> {os.path.basename(out)}: mode {got.mode}, samples differ or depth lost")
            if im.mode == "I;16" and got.getextrema() != im.getextrema():
                failures.append(f"{name}: 16-bit samples lost in {os.path.basename(out)}")

# 2. 48- and 64-bit colour: a PAM written here, through PNG, TIFF and PPM/PAM,
#    comes back byte for byte.
for tupl, depth in (("RGB", 3), ("RGB_ALPHA", 4)):
    data = noise(2 * depth * W * H)
    pam = f"P7\nWIDTH {W}\nHEIGHT {H}\nDEPTH {depth}\nMAXVAL 65535\nTUPLTYPE {tupl}\nENDHDR\n".encode() + data
    with open(path("deep.pam"), "wb") as f:
        f.write(pam)
    for ext in ("png", "tif", "pam"):
        run("convert", path("deep.pam"), path(f"deep.{ext}"))
        run("convert", path(f"deep.{ext}"), path("deep_back.pam"))
        if open(path("deep_back.pam"), "rb").read() != pam:
            failures.append(f"{tupl} 16-bit through {ext}: samples differ")
    if Image.open(path("deep.png")).mode not in ("RGB", "RGBA", "RGBA;16B", "RGB;16B"):
        failures.append("48/64-bit PNG not readable by Pillow")

# 3. JPEG: decoding equals libjpeg's own decode (through Pillow); encoding a
#    smooth picture stays close to it; deep pictures are cut to 8 bits.
smooth = Image.frombytes("RGB", (64, 48), bytes((x * 4 + c * 40) % 256 for y in range(48) for x in range(64) for c in range(3)))
smooth.save(path("smooth.jpg"), quality=85)
run("convert", path("smooth.jpg"), path("smooth_dec.png"))
if Image.open(path("smooth_dec.png")).tobytes() != Image.open(path("smooth.jpg")).tobytes():
    failures.append("JPEG decode differs from libjpeg's")
run("convert", path("smooth_dec.png"), path("smooth_enc.jpg"))
a, b = Image.open(path("smooth_enc.jpg")).tobytes(), smooth.tobytes()
err = sum(abs(x - y) for x, y in zip(a, b)) / len(b)
if err > 4:
    failures.append(f"JPEG encode: mean error {err:.2f} levels")
p = run("convert", path("grey16_png_a.png"), path("grey16.jpg"))
if "8-bit" not in p.stderr or Image.open(path("grey16.jpg")).mode != "L":
    failures.append("16-bit grey to JPEG: no note or not grey")

# 4. Transparency: palette alphas, a colour key and grey with alpha come back as RGBA with every alpha.
keyed = Image.frombytes("RGB", (W, H), bytes(rng.choice((0, 255)) for _ in range(3 * W * H)))
keyed.info["transparency"] = (255, 0, 255)
trans = {"pal_alpha": sources["pal4"].copy(), "keyed": keyed, "grey_alpha": Image.frombytes("LA", (W, H), noise(2 * W * H))}
trans["pal_alpha"].info["transparency"] = bytes(rng.randrange(256) for _ in range(16))
for name, im in trans.items():
    im.save(path(f"{name}.png"), transparency=im.info.get("transparency"))
    run("convert", path(f"{name}.png"), path(f"{name}_back.png"))
    got = Image.open(path(f"{name}_back.png"))
    if got.mode != "RGBA" or got.tobytes() != Image.open(path(f"{name}.png")).convert("RGBA").tobytes():
        failures.append(f"{name}: mode {got.mode} or alpha lost")

# 5. A TIFF of several images: identify counts them, play takes each page as a frame.
pages = [Image.frombytes("RGB", (W, H), noise(3 * W * H)) for _ in range(3)]
pages[0].save(path("pages.tif"), save_all=True, append_images=pages[1:])
if "images       3" not in run("identify", path("pages.tif")).stdout:
    failures.append("identify: the three images of a TIFF not counted")
run("play", path("pages"), path("pages.tif"), "--no-wait")
for i, page in enumerate(pages):
    if Image.open(path(f"pages-{i:03d}.ppm")).tobytes() != page.tobytes():
        failures.append(f"play: image {i + 1} of a TIFF is not frame {i}")

# 6. Malformed and truncated files: exit code 1 and a reason, never a crash.
bad = {"cut.png": open(path("rgb.png"), "rb").read()[:60], "cut.tif": open(path("rgb.tif"), "rb").read()[:300],
       "cut.jpg": open(path("smooth.jpg"), "rb").read()[:400], "cut.ppm": b"P6\n4 4\n255\n\x01",
       "garbage.png": b"\x89PNG\r\n\x1a\n" + noise(200), "garbage.tif": b"II*\x00" + noise(200),
       "garbage.jpg": b"\xff\xd8\xff" + noise(200), "text.txt": b"hello"}
for name, data in bad.items():
    with open(path(name), "wb") as f:
        f.write(data)
    p = run("convert", path(name), path("never.png"), code=1)
    if not p.stderr.strip():
        failures.append(f"{name}: no reason given")
run("convert", path("rgb.png"), path("out.xyz"), code=1)

for f in failures:
    print("FAIL:", f)
print(f"{len(failures)} failures")
sys.exit(1 if failures else 0)
