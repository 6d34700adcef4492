#!/usr/bin/python3
"""The speed goals of the kernel, checked in one run of the benchmark binary.

bench/run builds the binary and calls this script; by hand:
    bench/goals.py --bench build-bench/bench/ombrix_bench [--rounds 5] [--wall] [--issue N] [--match REGEX]

Every row's benchmarks (Ombrix, memcpy of the same bytes, the installed
peers) run in the same process, interleaved round by round in random order
(Google Benchmark's random interleaving over --rounds repetitions; --issue and
--match pick rows); the
table shows medians as ratios: "x memcpy" is memcpy's time over the
operation's (above 1 is faster than copying the bytes), Mpix/s is pixels
per second. Times are CPU time by default: on a shared machine wall time
mostly measures the other processes (--wall for wall time). Peers that run
in their own process (Pillow) and the benchmarks that interleave their own
rounds (orientation, rotation, thread speed-ups) report their own wall-time
figures, marked "(own)" (Pillow: CPU seconds of its process). A row whose
benchmark does not exist says so.
"""
import argparse
import json
import os
import re
import subprocess
import sys
import tempfile

PIX = 4000 * 3000


def R(issue, op, goal, kind, **kw):
    return dict(issue=issue, op=op, goal=goal, kind=kind, **kw)


# kind "memcpy": ratio memcpy/op >= goal; "mpix": Mpix/s >= goal;
# "counter": a counter of the benchmark >= goal; "peer": peer time/op time >= goal.
CV = "/real_time"
ROWS = [
    R(17, "24-bit to fixed 256 colours, no dither", 1000, "mpix", op_b="BM_Speed_24toFixed256_Ombrix",
      mem="BM_Speed_24toFixed256_Memcpy",
      peers=[("Leptonica", "BM_Speed_24toFixed256_Leptonica"),
             ("Pillow", "BM_Speed_24toFixed256_Pillow/iterations:1/manual_time")]),
    R(17, "Floyd-Steinberg 8-bit grey to 1 bit, whole bitmap", 500, "mpix",
      op_b="BM_Dither_Floyd_Grey8_1bit_WholeBitmap",
      peers=[("row by row (K_DitherLine)", "BM_Dither_Floyd_Grey8_1bit"),
             ("Leptonica", "BM_Dither_Leptonica_DitherToBinary_Grey8"),
             ("Pillow (via grey)", "BM_Dither_Pillow_1bit_ThroughGrey/iterations:1/manual_time")]),
    R(17, "Floyd-Steinberg 24-bit to fixed 256", 200, "mpix", op_b="BM_Dither_Floyd_Fixed256",
      peers=[("Leptonica octcube", "BM_Dither_Leptonica_FixedOctcube256"),
             ("Pillow", "BM_Dither_Pillow_Fixed256/iterations:1/manual_time")]),
    R(17, "24 to 32 bits, one call per row", 1.0, "memcpy", op_b="BM_Convert_24to32" + CV,
      mem="BM_Convert_24to32_memcpy" + CV,
      peers=[("libyuv (out of place)", "BM_Convert_24to32_libyuv" + CV), ("OpenCV", "BM_Convert_24to32_opencv" + CV)]),
    R(17, "24 to 32 bits, whole image in one call", 1.0, "memcpy", op_b="BM_Speed_24to32_WholeImage",
      mem="BM_Convert_24to32_memcpy" + CV, peers=[]),
    R(17, "16-bit 5-6-5 to 24, one call per row", 1.0, "memcpy", op_b="BM_Convert_16to24_565" + CV,
      mem="BM_Convert_16to24_565_memcpy" + CV, peers=[("OpenCV (out of place)", "BM_Convert_16to24_565_opencv" + CV)]),
    R(17, "16-bit 5-6-5 to 24, whole image in one call", 1.0, "memcpy", op_b="BM_Speed_16to24_565_WholeImage",
      mem="BM_Convert_16to24_565_memcpy" + CV, peers=[]),
    R(17, "24-bit order swap in place", 1.9, "memcpy", op_b="BM_Convert_24to24swap" + CV,
      mem="BM_Convert_24to24swap_memcpy" + CV,
      peers=[("read+write only (no arithmetic)", "BM_Speed_24InPlace_ReadWriteOnly"),
             ("read only (prefetched)", "BM_Speed_24InPlace_ReadOnly"),
             ("libyuv in place", "BM_Speed_24to24swap_libyuvInPlace"),
             ("libyuv out of place", "BM_Convert_24to24swap_libyuv" + CV),
             ("OpenCV out of place", "BM_Convert_24to24swap_opencv" + CV)]),
]
# The region table benchmark times every shape and operation against pixman_region32 in one run and
# reports pixman's time over Ombrix's as a counter per pair.
for shape in ("discs", "boards", "disc*board", "text", "rects"):
    for op, goal in (("union", 2.0), ("intersection", 2.0), ("difference", 2.0)):
        ROWS.append(R(17, f"region {op}, {shape} (x pixman)", goal, "counter", op_b="regionCombineTable/iterations:1",
                      counter=f"{shape}_{op}_ratio", peers=[]))
# The orientation benchmark interleaves its own rounds and reports each contender's time over memcpy's as
# counters, in wall time and (suffix _cpu) process CPU time; the quarter-turn goal is the bitmap turn into
# new storage (K_RotateBitmap90), the plain-buffer turn (K_RotateBuffer90) is shown beside it.
ORIENT = "/iterations:1/manual_time"
for bits, goal in ((8, 0.45), (24, 0.45), (32, 0.45)):
    ROWS.append(R(11, f"quarter turn {bits}-bit, bitmap into new storage", goal, "counter",
                  op_b=f"BM_Orient_QuarterTurn_{bits}bit{ORIENT}", counter="ombrix_bitmap_x_memcpy",
                  peer_counters=["ombrix_x_memcpy", "libyuv_x_memcpy", "opencv_x_memcpy"]))
ROWS.append(R(11, "quarter turn 1-bit, x Leptonica", 5.0, "counter_ratio", op_b=f"BM_Orient_QuarterTurn_1bit{ORIENT}",
              counter="ombrix_x_memcpy", over="leptonica_x_memcpy"))
ROWS.append(R(11, "mirror 1-bit, x Leptonica", 5.0, "counter_ratio", op_b=f"BM_Orient_MirrorInPlace_1bit{ORIENT}",
              counter="ombrix_x_memcpy", over="leptonica_x_memcpy"))
for bits in (24, 32):
    ROWS.append(R(11, f"vertical flip {bits}-bit in place", 1.3, "counter",
                  op_b=f"BM_Orient_FlipInPlace_{bits}bit{ORIENT}",
                  counter="ombrix_x_memcpy", peer_counters=["opencv_x_memcpy", "leptonica_x_memcpy"]))
for bits in (8, 24, 32):
    ROWS.append(R(11, f"mirror {bits}-bit", 0.9, "counter", op_b=f"BM_Orient_MirrorInPlace_{bits}bit{ORIENT}",
                  counter="ombrix_x_memcpy", peer_counters=["libyuv_x_memcpy", "opencv_x_memcpy"]))
ROWS.append(R(11, "bilinear rotation 32-bit, x OpenCV warpAffine", 1.0, "peer",
              op_b="BM_RotateAny_Bilinear32_export/iterations:5/manual_time",
              peer=("OpenCV", "BM_RotateAny_Bilinear32_opencv/iterations:10/manual_time"), peers=[]))
ROWS.append(R(11, "bilinear rotation, 2 threads vs std::thread", 0.9, "counter",
              op_b="BM_RotateAny_Bilinear32_twoThreads/iterations:6/manual_time", counter="helper_vs_std",
              peer_counters=[]))
for op, goal in (("add", 1.2), ("min", 1.0), ("max", 1.0), ("multiply", 1.0), ("alpha_over", 1.0)):
    peer = ("pixman OVER", f"Combine/32/{op}/pixman_over{CV}") if op == "alpha_over" else ("OpenCV", f"Combine/32/{op}/opencv{CV}")
    ROWS.append(R(12, f"combine 32-bit {op}", goal, "memcpy", op_b=f"Combine/32/{op}/ombrix{CV}",
                  mem=f"Combine/32/{op}/memcpy{CV}", peers=[peer]))
for bits in (24, 8):
    ROWS.append(R(12, f"combine {bits}-bit add", 1.2, "memcpy", op_b=f"Combine/{bits}/add/ombrix{CV}",
                  mem=f"Combine/{bits}/add/memcpy{CV}", peers=[("OpenCV", f"Combine/{bits}/add/opencv{CV}")]))
for op in ("and", "or", "xor", "xor_not"):
    ROWS.append(R(12, f"combine 1-bit {op}", 2.0, "memcpy", op_b=f"Combine/1/{op}/ombrix{CV}",
                  mem=f"Combine/1/{op}/memcpy{CV}", peers=[]))
for op in ("multiply", "alpha_over", "divide"):
    ROWS.append(R(12, f"combine {op}, 2 threads vs std::thread", 0.9, "counter",
                  op_b=f"Combine/TwoThreads/{op}/iterations:5", counter="ratio", peer_counters=[]))
# The copy benchmark interleaves its own rounds against memcpy into a reused buffer.
ROWS.append(R(12, "K_CopyBitmap single block 24-bit (new bitmap)", 0.9, "counter", op_b="BM_Copy_CopyBitmap/24/manual_time",
              counter="ratio_vs_memcpy", peer_counters=[]))
ROWS.append(R(12, "OpenCV clone 24-bit (new matrix), for comparison", 0.0, "counter",
              op_b="BM_Copy_Peer_OpenCVClone/24/manual_time", counter="ratio_vs_memcpy", peer_counters=[]))
ROWS.append(R(13, "nearest 24-bit halving", 0.8, "memcpy", op_b="BM_Resize_Nearest24_Half_Ombrix",
              mem="BM_Resize_Nearest24_Half_Memcpy",
              peers=[("read the rows it needs, write half (no arithmetic)", "BM_Resize_Nearest24_Half_TrafficOnly"),
                     ("OpenCV", "BM_Resize_Nearest24_Half_OpenCV"), ("libyuv", "BM_Resize_Nearest24_Half_libyuv"),
                     ("Pillow", "BM_Resize_Nearest24_Half_Pillow/iterations:1/manual_time")]))
ROWS.append(R(13, "nearest 24-bit doubling", 0.35, "memcpy", op_b="BM_Resize_Nearest24_Double_Ombrix",
              mem="BM_Resize_Nearest24_Double_Memcpy",
              peers=[("OpenCV", "BM_Resize_Nearest24_Double_OpenCV"), ("libyuv", "BM_Resize_Nearest24_Double_libyuv"),
                     ("Pillow", "BM_Resize_Nearest24_Double_Pillow/iterations:1/manual_time")]))
for f in ("Linear", "Cubic"):
    for bits in (24, 32):
        for d in ("Up", "Down"):
            b = f"BM_Resize_{f}{bits}_{d}"
            ROWS.append(R(13, f"{f.lower()} {bits}-bit {'x1.5' if d == 'Up' else 'x0.5'}, x OpenCV", 1.0, "peer",
                          op_b=f"{b}_Ombrix1T{CV}", peer=("OpenCV", f"{b}_OpenCV"), peers=[]))
# Two threads through the row helper against two plain std::threads, each running the one-thread job on
# its own target: the helper's speed-up t(1T) / t(2T) over the threads' 2 t(1T) / t(2 threads), wall time.
for f in ("Linear", "Cubic"):
    for bits in (24, 32):
        for d in ("Up", "Down"):
            b = f"BM_Resize_{f}{bits}_{d}"
            ROWS.append(R(13, f"{f.lower()} {bits}-bit {'x1.5' if d == 'Up' else 'x0.5'}, 2 threads vs std::thread",
                          0.9, "speedup", op_b=f"{b}_Ombrix2T{CV}", one=f"{b}_Ombrix1T{CV}",
                          std=f"{b}_StdThreads2{CV}", peers=[]))
ROWS.append(R(15, "window level 16-bit grey to 8", 0.8, "memcpy", op_b="BM_WindowLevel_Ombrix" + CV,
              mem="BM_WindowLevel_Memcpy" + CV, peers=[("OpenCV", "BM_WindowLevel_OpenCV" + CV)]))
ROWS.append(R(15, "playback 640x480 opaque frames (frames/s)", 1000, "counter",
              op_b="BM_Playback_Ombrix/transparent:0/manual_time", counter="frames_per_s", peer_counters=[]))
ROWS.append(R(15, "playback 640x480 transparent frames (frames/s)", 1000, "counter",
              op_b="BM_Playback_Ombrix/transparent:1/manual_time", counter="frames_per_s", peer_counters=[]))


def names(row):
    n = [row.get("op_b"), row.get("mem"), row.get("one"), row.get("std")]
    n += [p[1] for p in row.get("peers", [])]
    if "peer" in row:
        n.append(row["peer"][1])
    return [x for x in n if x]


def run(bench, rows, rounds, extra):
    listed = subprocess.run([bench, "--benchmark_list_tests"], capture_output=True, text=True).stdout.split()
    wanted = sorted({n for r in rows for n in names(r) if n in listed})
    if not wanted:
        return {}, listed
    # Filter on the names without Google Benchmark's suffixes.
    base = sorted({re.sub(r"/(iterations:\d+|manual_time|real_time|process_time).*$", "", n) for n in wanted})
    pattern = "^(" + "|".join(re.escape(b) for b in base) + ")(/|$)"
    with tempfile.NamedTemporaryFile(suffix=".json", delete=False) as f:
        out = f.name
    cmd = [bench, f"--benchmark_filter={pattern}", f"--benchmark_repetitions={rounds}",
           "--benchmark_enable_random_interleaving=true", "--benchmark_out=" + out,
           "--benchmark_out_format=json", "--benchmark_min_time=0.2"] + extra
    print("running:", " ".join(cmd[1:3]) + " ...", file=sys.stderr)
    subprocess.run(cmd, stdout=subprocess.DEVNULL, check=False)
    with open(out) as fh:
        data = json.load(fh)
    os.unlink(out)
    med = {}
    for b in data.get("benchmarks", []):
        if b.get("aggregate_name") not in (None, "median"):
            continue
        name = b.get("run_name", b["name"])
        if b.get("error_occurred"):
            med[name] = None
            continue
        if b.get("aggregate_name") == "median" or name not in med:
            med[name] = b
    return med, listed


def seconds(b, wall):
    unit = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[b.get("time_unit", "ns")]
    own = "manual_time" in b.get("run_name", b["name"]) or "iterations" in b.get("run_name", "")
    t = b["real_time"] if (wall or own) else b["cpu_time"]
    return t * unit, own


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bench", required=True)
    ap.add_argument("--rounds", type=int, default=5)
    ap.add_argument("--wall", action="store_true")
    ap.add_argument("--issue", type=int, action="append")
    ap.add_argument("--match", help="only the rows whose operation matches this regular expression")
    args, extra = ap.parse_known_args()
    rows = [r for r in ROWS if (not args.issue or r["issue"] in args.issue)
            and (not args.match or re.search(args.match, r["op"]))]
    med, listed = run(args.bench, rows, args.rounds, extra)
    try:
        load = open("/proc/loadavg").read().split()[:3]
    except OSError:
        load = ["?"]
    print(f"# Goals ({'wall' if args.wall else 'CPU'} time, medians of {args.rounds} interleaved rounds, "
          f"load {' '.join(load)})")
    print("| issue | operation | Ombrix | peers (same unit) | goal | verdict |")
    print("|---|---|---|---|---|---|")
    met = total = 0
    for r in rows:
        def get(n):
            b = med.get(n)
            return None if b is None else seconds(b, args.wall)
        o = get(r.get("op_b")) if r.get("op_b") else None
        if r["kind"] == "missing" or r.get("op_b") not in listed:
            print(f"| {r['issue']} | {r['op']} | no benchmark yet | | {r['goal']} | - |")
            continue
        if o is None:
            print(f"| {r['issue']} | {r['op']} | failed or skipped | | {r['goal']} | - |")
            continue
        total += 1
        peers = []
        if r["kind"] in ("memcpy", "mpix"):
            mem = get(r["mem"]) if r.get("mem") else None
            def fmt(t, own):
                if r["kind"] == "mpix":
                    return f"{PIX / t / 1e6:.0f} Mpix/s" + (" (own)" if own else "")
                return f"{mem[0] / t:.2f}x memcpy" + (" (own)" if own else "") if mem else "?"
            value = PIX / o[0] / 1e6 if r["kind"] == "mpix" else (mem[0] / o[0] if mem else 0)
            shown = fmt(*o)
            for label, n in r["peers"]:
                p = get(n)
                peers.append(f"{label} {fmt(*p)}" if p else f"{label} absent")
        elif r["kind"] == "peer":
            label, n = r["peer"]
            p = get(n)
            value = p[0] / o[0] if p else 0
            shown = f"{value:.2f}x {label}" if p else f"{label} absent"
        elif r["kind"] == "speedup":
            one, std = med.get(r["one"]), med.get(r["std"])
            if not one or not std:
                print(f"| {r['issue']} | {r['op']} | failed or skipped | | {r['goal']} | - |")
                total -= 1
                continue
            t1, t2, ts = seconds(one, True)[0], seconds(med[r["op_b"]], True)[0], seconds(std, True)[0]
            value = (t1 / t2) / (2 * t1 / ts)
            shown = f"{value:.2f} (helper x{t1 / t2:.2f}, std::thread x{2 * t1 / ts:.2f}, wall)"
        else:
            b = med[r["op_b"]]
            # Counters that come in both clocks follow the table's clock.
            cv = (lambda k: k if args.wall or k + "_cpu" not in b else k + "_cpu")
            value = float(b.get(cv(r["counter"]), 0))
            if r["kind"] == "counter_ratio":
                under = float(b.get(cv(r["over"]), 0))
                value = value / under if under else 0
                shown = f"{value:.2f}x {r['over'].split('_')[0]} (own)"
            else:
                shown = f"{value:.2f} {r['counter']} (own)"
                peers = [f"{k.rsplit('_x_', 1)[0]} {float(b[cv(k)]):.2f}" for k in r.get("peer_counters", [])
                         if cv(k) in b]
        ok = value >= r["goal"]
        met += ok
        print(f"| {r['issue']} | {r['op']} | {shown} | {'; '.join(peers)} | {r['goal']} | {'met' if ok else 'NOT met'} |")
    print(f"\n{met} of {total} measured rows at their goal.")


if __name__ == "__main__":
    main()
