#!/usr/bin/env python3
"""The README's first command on a clean copy of the sources: `tools/setup demo
--out DIR` configures, builds the library and the tool and runs the demo,
which must pass its checks and leave pictures that Pillow decodes.
Long (a fresh build): runs only with OMBRIX_LONG_TESTS=1.
Usage: clean_setup.py SOURCE_DIR WORK_DIR"""
import os, shutil, subprocess, sys, time

if os.environ.get("OMBRIX_LONG_TESTS") != "1":
    print("long test: set OMBRIX_LONG_TESTS=1 to run it")
    sys.exit(77)
try:
    from PIL import Image
except ImportError:
    print("Pillow (python3-pil) is not installed: skipped")
    sys.exit(77)

source, work = sys.argv[1], sys.argv[2]
shutil.rmtree(work, ignore_errors=True)
copy = os.path.join(work, "ombrix")
files = subprocess.run(["git", "-C", source, "ls-files", "--cached", "--others", "--exclude-standard", "-z"],
                       capture_output=True, check=True).stdout.decode().split("\0")
for f in filter(None, files):
    if os.path.isfile(os.path.join(source, f)):
        os.makedirs(os.path.dirname(os.path.join(copy, f)), exist_ok=True)
        shutil.copy2(os.path.join(source, f), os.path.join(copy, f))
out = os.path.join(work, "demo-out")
env = dict(os.environ, OMBRIX_JOBS=os.environ.get("OMBRIX_JOBS", "2"))
start = time.time()
p = subprocess.run(["tools/setup", "demo", "--out", out], cwd=copy, env=env, capture_output=True, text=True)
took = time.time() - start
print(p.stdout[-600:], p.stderr[-600:], sep="\n")
print(f"tools/setup demo took {took:.0f} s")
failures = []
if p.returncode != 0 or "0 failed" not in p.stdout:
    failures.append(f"tools/setup demo: exit {p.returncode}")
pictures = sorted(os.listdir(out)) if os.path.isdir(out) else []
if len(pictures) < 10:
    failures.append(f"only {len(pictures)} pictures in {out}")
for name in pictures:
    try:
        with Image.open(os.path.join(out, name)) as im:
            im.load()
            if im.size[0] < 1:
                failures.append(f"{name}: empty")
    except Exception as e:  # noqa: BLE001 - any decoder complaint is a failure
        failures.append(f"{name}: {e}")
for f in failures:
    print("FAIL:", f)
print(f"{len(pictures)} pictures decoded by Pillow, {len(failures)} failures")
sys.exit(1 if failures else 0)
