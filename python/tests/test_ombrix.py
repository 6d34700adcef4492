"""The Python binding on real arrays: its own conversions (numpy in and out,
palettes, storage kinds, the shared view), each method's argument mapping
against numpy or Pillow, statuses as exceptions, the GIL. The pixel work
itself is the C++ suite's."""
import gc
import threading
import time

import numpy as np
import pytest
from PIL import Image

import ombrix

RNG = np.random.default_rng(20261125)


def rand(shape, dtype=np.uint8):
    return RNG.integers(0, np.iinfo(dtype).max + 1, size=shape, dtype=dtype)


KINDS = {  # name -> (array, bits per pixel)
    "gray8": (rand((13, 17)), 8),
    "rgb24": (rand((13, 17, 3)), 24),
    "rgba32": (rand((13, 17, 4)), 32),
    "gray16": (rand((13, 17), np.uint16), 16),
    "rgb48": (rand((13, 17, 3), np.uint16), 48),
    "rgba64": (rand((13, 17, 4), np.uint16), 64),
}
A = KINDS["rgb24"][0]


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("vp", range(1, 9))
def test_array_round_trip_and_shared_view(kind, vp):
    a, bits = KINDS[kind]
    bm = ombrix.Bitmap(a, view_perspective=vp)
    assert (bm.width, bm.height, bm.bits_per_pixel, bm.view_perspective) == (17, 13, bits, vp)
    assert np.array_equal(bm.to_numpy(), a)  # through the row layer
    v = bm.view()
    assert np.array_equal(v, a) and v.dtype == a.dtype
    if vp in (3, 4):  # bottom-up storage: rows walk backwards in memory
        assert v.strides[0] == -bm.bytes_per_line
    v[2, 5] = 7  # zero copy: a write through the view is what the row layer reads back
    expected = a.copy()
    expected[2, 5] = 7
    assert np.array_equal(bm.to_numpy(), expected)
    for shape in [(1, 1), (1, 6), (6, 1)]:  # single rows and columns
        b = rand(shape + a.shape[2:], a.dtype)
        one = ombrix.Bitmap(b, view_perspective=vp)
        assert np.array_equal(one.to_numpy(), b) and np.array_equal(one.view(), b)


def test_sub_byte_indices_palette_and_storage_kinds():
    idx = RNG.integers(0, 16, size=(9, 11), dtype=np.uint8)
    pal = rand((16, 3))
    bm = ombrix.Bitmap(idx, palette=pal, bits=4)
    assert bm.bits_per_pixel == 4 and np.array_equal(bm.palette, pal)
    assert np.array_equal(bm.to_numpy(), idx)
    with pytest.raises(BufferError):
        bm.view()
    bits1 = ombrix.Bitmap(idx & 1, bits=1, palette=np.array([[0, 0, 0], [255, 255, 255]], np.uint8))
    bits1.set_storage("compressed")  # run-compressed 1-bit rows
    assert bits1.storage == "compressed" and np.array_equal(bits1.to_numpy(), idx & 1)
    p = Image.fromarray(idx, "P")  # in colour: Pillow's expansion of a P image
    p.putpalette(pal.flatten().tolist())
    assert np.array_equal(bm.copy().convert(24, order="rgb").to_numpy(), np.asarray(p.convert("RGB")))
    for kind in ["tiled", "disk", "supercompressed"]:
        other = ombrix.Bitmap(A, order="bgr")
        other.set_storage(kind)
        assert other.storage == kind
        with pytest.raises(BufferError):
            other.view()
        assert np.array_equal(np.asarray(other), A)  # a copy when it cannot be shared


def test_view_outlives_the_bitmap_reference():
    v = ombrix.Bitmap(A).view()
    gc.collect()
    assert np.array_equal(v, A)
    bm = v.base.obj if isinstance(v.base, memoryview) else None
    assert bm is not None and bm.exports == 1
    with pytest.raises(BufferError):
        bm.rotate90()  # would replace the storage the view points into
    bm.flip()  # in-place pixel work is allowed and shows through the view
    assert np.array_equal(v, A[::-1])
    del v
    gc.collect()
    assert bm.exports == 0
    bm.rotate90()


def _region_fill(b):
    b.set_region_rect(3, 2, 6, 5)
    assert b.has_region and b.region_bounds == (3, 2, 6, 5) and b.region_area == 30
    b.fill((1, 2, 3))


def _filled(a):
    a = a.copy()
    a[2:7, 3:9] = (1, 2, 3)
    return a


S = rand(A.shape)
IM = Image.fromarray(A)
# Each method's arguments reach the kernel as meant: the result against numpy or Pillow.
METHODS = [
    (lambda b: b.flip(), np.flipud(A)),
    (lambda b: b.reverse(), np.asarray(IM.transpose(Image.FLIP_LEFT_RIGHT))),
    (lambda b: b.rotate90(), np.asarray(IM.transpose(Image.ROTATE_270))),
    (lambda b: b.rotate90(clockwise=False), np.rot90(A, 1)),
    (lambda b: b.rotate(180, resize=True), np.rot90(A, 2)),
    (lambda b: b.relabel("rotate", 90), np.rot90(A, -1)),
    (lambda b: b.change_view_perspective(5), A),
    (lambda b: b.crop(3, 2, 5, 7), np.asarray(IM.crop((3, 2, 8, 9)))),
    (lambda b: b.trim(10, 8, 12, 9), A[8:, 10:]),
    (lambda b: b.convert(24, order="bgr"), A[..., ::-1]),
    (lambda b: b.convert(32, order="rgb"), np.asarray(IM.convert("RGBA"))),
    (lambda b: b.combine(ombrix.Bitmap(S), "add", x=4, y=3, src_x=1, src_y=2, width=9, height=6),
     np.concatenate([A[:3], np.concatenate([A[3:9, :4], np.minimum(A[3:9, 4:13].astype(int) + S[2:8, 1:10], 255),
                                            A[3:9, 13:]], 1), A[9:]]).astype(np.uint8)),
    (_region_fill, _filled(A)),
]


@pytest.mark.parametrize("vp", [1, 4, 6])
@pytest.mark.parametrize("i", range(len(METHODS)))
def test_methods_against_numpy_and_pillow(i, vp):
    op, want = METHODS[i]
    bm = ombrix.Bitmap(A, view_perspective=vp)
    got = op(bm)
    assert np.array_equal((got if isinstance(got, ombrix.Bitmap) else bm).to_numpy(), want)
    turned = ombrix.Bitmap(A, view_perspective=vp).resize(40, 5)  # sizes are viewed sizes
    assert turned.to_numpy().shape[:2] == (5, 40)
    if vp == 1 and i == 0:  # nearest neighbour is index arithmetic
        assert np.array_equal(turned.to_numpy(), A[np.arange(5) * 13 // 5][:, np.arange(40) * 17 // 40])


def test_grey_window_level_palettes_and_masks():
    i = A.astype(int)
    bm = ombrix.Bitmap(A).convert(8, order="gray")
    assert bm.is_gray and np.array_equal(bm.to_numpy(), (2 * i[..., 0] + 5 * i[..., 1] + i[..., 2] + 4) >> 3)
    a = np.tile(np.arange(0, 4096, 16, dtype=np.uint16), (4, 1))
    w = ombrix.Bitmap(a)
    w.gray_bits = (0, 11)
    w.window_level(1000, 3000)
    assert w.bits_per_pixel == 8 and np.array_equal(w.to_numpy(), np.clip((a.astype(int) - 1000) * 255 // 2000, 0, 255))
    colours = np.array([[255, 0, 0], [0, 128, 0], [0, 0, 255], [12, 34, 56], [200, 200, 10]], np.uint8)
    c = ombrix.Bitmap(colours[RNG.integers(0, 5, size=(32, 40))])
    assert sorted(map(tuple, c.unique_colors())) == sorted(map(tuple, colours))
    assert sorted(map(tuple, c.optimized_palette(8))) == sorted(map(tuple, colours))
    mask = RNG.integers(0, 2, size=(13, 17)).astype(bool)
    m = ombrix.Bitmap(A)
    m.set_region_mask(mask)
    assert np.array_equal(m.region_mask(), mask) and m.region_area == mask.sum()
    m.clear_region()
    assert not m.has_region and m.region_bounds is None and m.region_mask().all()


ERRORS = [
    (lambda b: b.resize(0, 5), -11, ombrix.InvalidDimensionsError),
    (lambda b: b.rotate(1000), -13, ombrix.InvalidParameterError),
    (lambda b: b.convert(13), -27, ombrix.BitsPerPixelError),
    (lambda b: b.set_storage("compressed"), -27, ombrix.BitsPerPixelError),
    (lambda b: b.combine(ombrix.Bitmap(KINDS["gray8"][0]), "add"), -27, ombrix.BitsPerPixelError),
    (lambda b: b.window_level(0, 10), -27, ombrix.BitsPerPixelError),
    (lambda b: b.rotate(45, fill=3), -13, ombrix.InvalidParameterError),  # an index fill at 24 bits
]


@pytest.mark.parametrize("call,code,cls", ERRORS)
def test_statuses_become_exceptions_and_change_nothing(call, code, cls):
    bm = ombrix.Bitmap(A)
    with pytest.raises(cls) as info:
        call(bm)
    assert isinstance(info.value, ombrix.Error)
    assert info.value.code == code and info.value.message == ombrix.error_message(code) != ""
    assert np.array_equal(bm.to_numpy(), A) and bm.bits_per_pixel == 24


@pytest.mark.parametrize("call,error", [
    (lambda: ombrix.Bitmap(np.zeros((4, 4), np.float32)), TypeError),
    (lambda: ombrix.Bitmap(np.zeros((4, 4, 2), np.uint8)), ValueError),
    (lambda: ombrix.Bitmap(A).convert(8, order="cmyk"), ValueError),
    (lambda: ombrix.Bitmap(np.zeros((0, 5), np.uint8)), ValueError),
    (lambda: ombrix.Bitmap(np.full((2, 2), 2, np.uint8), bits=1), ValueError),  # an index past the depth
    (lambda: ombrix.Bitmap(KINDS["gray8"][0]).crop(2**31 - 2, 0, 5, 5), ValueError),  # past the 32-bit range
])
def test_argument_errors_are_python_errors(call, error):
    with pytest.raises(error):
        call()
    blank = ombrix.Bitmap.new(6, 4, 16)
    assert blank.order == "gray" and blank.to_numpy().shape == (4, 6) and not blank.to_numpy().any()


def test_long_calls_release_the_gil():
    big = ombrix.Bitmap(rand((1200, 1600, 3)))
    done = threading.Event()

    def work():
        for i in range(40):
            if done.is_set():
                break
            try:
                big.resize(1601 - i % 2, 1200, method="resample")
            except RuntimeError:  # the main thread's copy was running
                pass
        done.set()

    t = threading.Thread(target=work)
    t.start()
    seen = False
    deadline = time.monotonic() + 60
    while not done.is_set() and time.monotonic() < deadline:
        try:
            big.copy()  # runs only while the other thread is inside a call: the GIL was let go
        except RuntimeError:
            seen = True
            break
    done.set()
    t.join()
    assert seen


# ---------------------------------------------------------------- bitmap lists
def _frame(h, w, seed, pos=(0, 0), delay=0, disposal="keep", transparent=None):
    b = ombrix.Bitmap(np.random.default_rng(seed).integers(0, 256, (h, w, 3), dtype=np.uint8))
    b.frame_position, b.frame_delay, b.frame_disposal, b.frame_transparent = pos, delay, disposal, transparent
    return b


LIST_OPS = [  # applied alike to a BitmapList and to a Python list of arrays
    lambda L, B: L.append(B[5]),
    lambda L, B: L.insert(0, B[6]),
    lambda L, B: L.insert(-2, B[7]),
    lambda L, B: L.insert(99, B[8]),
    lambda L, B: L.__setitem__(-1, B[9]),
    lambda L, B: L.__delitem__(1),
    lambda L, B: L.__delitem__(slice(None, None, -3)),
    lambda L, B: L.__delitem__(slice(1, 3)),
    lambda L, B: L.pop(0),
]


def test_list_follows_a_python_list_model():
    bms = [_frame(3 + i % 4, 2 + i % 3, i, pos=(i, -i), delay=10 * i) for i in range(10)]
    lst, model = ombrix.BitmapList(bms[:5]), [b.to_numpy() for b in bms[:5]]
    for op in LIST_OPS:
        op(lst, bms), op(model, [b.to_numpy() for b in bms])
        assert [lst[i].to_numpy().tolist() for i in range(len(lst))] == [m.tolist() for m in model]
    lst = ombrix.BitmapList(bms)
    for sl in [slice(1, 4), slice(None, None, 2), slice(None, None, -1), slice(5, 2), slice(-3, None)]:
        got = lst[sl]
        assert [(b.to_numpy().tolist(), b.frame_position, b.frame_delay) for b in got] == \
               [(b.to_numpy().tolist(), b.frame_position, b.frame_delay) for b in bms[sl]]
    # the list holds copies: neither the original nor an item taken out reaches into it
    bms[0].fill((1, 2, 3))
    lst[0].fill((4, 5, 6))
    assert np.array_equal(lst[0].to_numpy(), _frame(3, 2, 0).to_numpy())
    assert np.array_equal(lst.pop().to_numpy(), bms[9].to_numpy()) and len(lst) == 9
    for bad in (9, -10):
        with pytest.raises(IndexError):
            lst[bad]
    assert len(lst) == 9


def test_list_palette_takes_the_colours_of_all_frames():
    colours = np.array([[255, 0, 0], [0, 255, 0], [0, 0, 255], [10, 20, 30], [200, 100, 50]], np.uint8)
    frames = [ombrix.Bitmap(np.repeat(colours[idx][None], 2, 0)) for idx in ([0, 1], [2, 2, 3], [4])]
    pal = ombrix.BitmapList(frames).optimized_palette(8)
    assert sorted(map(tuple, pal.tolist())) == sorted(map(tuple, colours.tolist()))
    with pytest.raises(ombrix.InvalidBitmapError):
        ombrix.BitmapList().optimized_palette(8)


# ---------------------------------------------------------------- playback
def test_playback_against_a_numpy_composition():
    bg = (9, 8, 7)
    frames = [_frame(3, 4, 1, (1, 1), 20, "keep"), _frame(3, 3, 2, (6, 4), 0, "background"),
              _frame(2, 5, 3, (2, 5), 5, "previous"), _frame(3, 3, 4, (8, 6), 0, "keep")]
    key = tuple(int(c) for c in frames[2].to_numpy()[0, 1])
    frames[2].frame_transparent = key
    target = ombrix.Bitmap.new(10, 8, 24)
    target.background_color = bg
    canvas = np.empty((8, 10, 3), np.uint8)
    canvas[:] = bg
    update, saved, got = (0, 0, 10, 8), None, []
    for k, f in enumerate(ombrix.Playback(target, ombrix.BitmapList(frames)).frames()):
        fr = frames[k]
        (x, y), a = fr.frame_position, fr.to_numpy()
        w, h = min(a.shape[1], 10 - x), min(a.shape[0], 8 - y)
        saved = canvas.copy()
        keep = np.ones(a.shape[:2], bool) if fr.frame_transparent is None else (a != key).any(axis=2)
        region = canvas[y:y + h, x:x + w]
        region[keep[:h, :w]] = a[:h, :w][keep[:h, :w]]
        update = _union(update, (x, y, w, h))
        assert (f.index, f.rect, f.delay) == (k, update, fr.frame_delay)
        assert np.array_equal(target.to_numpy(), canvas), k
        if fr.frame_disposal == "background":
            canvas[y:y + h, x:x + w] = bg
        elif fr.frame_disposal == "previous":
            canvas = saved
        update = (x, y, w, h) if fr.frame_disposal != "keep" else None
        got.append(k)
    assert got == [0, 1, 2, 3]
    pb = ombrix.Playback(target, ombrix.BitmapList(frames[:2]))
    assert [f.index for f in __import__("itertools").islice(pb.frames(loop=True), 5)] == [0, 1, 0, 1, 0]
    t0 = time.monotonic()
    assert len(list(ombrix.Playback(target, ombrix.BitmapList(frames[:2])).frames(realtime=True))) == 2
    assert time.monotonic() - t0 >= 0.02  # the first frame's delay was slept out


def _union(a, b):
    if a is None:
        return b
    x0, y0 = min(a[0], b[0]), min(a[1], b[1])
    return (x0, y0, max(a[0] + a[2], b[0] + b[2]) - x0, max(a[1] + a[3], b[1] + b[3]) - y0)


# ---------------------------------------------------------------- progress
BIG = rand((240, 320, 3))
LONG_CALLS = {
    "resize": lambda b, p: b.resize(500, 400, "bicubic", progress=p),
    "rotate": lambda b, p: b.rotate(30, resize=True, interpolation="bilinear", progress=p),
    "convert": lambda b, p: b.convert(8, palette="optimized", dither="floyd_steinberg", progress=p),
    "dither": lambda b, p: b.dither(np.array([[0, 0, 0], [255, 255, 255], [255, 0, 0]], np.uint8), progress=p),
    "combine": lambda b, p: b.combine(ombrix.Bitmap(BIG[::-1].copy()), "add", progress=p),
    "context": lambda b, p: _in_context(p, lambda: b.resample(400, 300, "lanczos")),
}


def _in_context(p, call):
    with ombrix.progress(p):
        return call()


class Boom(Exception):
    pass


@pytest.mark.parametrize("name", LONG_CALLS)
@pytest.mark.parametrize("stop", ["false", "raise", "sigint", None])
def test_progress_reports_and_stops_cleanly(name, stop):
    import signal
    bm = ombrix.Bitmap(BIG)
    seen = []

    def progress(pct):
        seen.append(pct)
        if pct < 50 or stop is None:
            return True
        if stop == "raise":
            raise Boom(pct)
        if stop == "sigint":
            signal.raise_signal(signal.SIGINT)
        return False
    expected = {"false": ombrix.UserAbortError, "raise": Boom, "sigint": KeyboardInterrupt}.get(stop)
    if expected:
        with pytest.raises(expected):
            LONG_CALLS[name](bm, progress)
        assert np.array_equal(bm.to_numpy(), BIG) and bm.bits_per_pixel == 24
        assert seen[-1] >= 50 and all(p < 50 for p in seen[:-1])
    else:
        LONG_CALLS[name](bm, progress)
        assert seen[0] == 0 and seen[-1] == 100
    assert seen == sorted(set(seen)), "percentages rise"
    calls = len(seen)
    bm.flip().resize(64, 48, "bicubic")  # no callback left behind for this thread's later calls
    assert len(seen) == calls


def test_playback_steps_through_the_documented_states():
    frames = ombrix.BitmapList([_frame(2, 2, 5, (0, 0), 0), _frame(2, 2, 6, (1, 1), 0), _frame(2, 2, 7, (2, 2), 60000)])
    second = frames[1]
    second.frame_wait_input = True
    frames[1] = second
    pb = ombrix.Playback(ombrix.Bitmap.new(4, 4, 24), frames)
    assert (pb.state, pb.index) == ("clear", -1)
    expected = [("next", -1), ("draw", 0), ("delay", 0), ("dispose", 0), ("next_frame", 0), ("draw", 1),
                ("delay", 1), ("wait_input", 1), ("wait_input", 1), "cancel", ("next_frame", 1), ("draw", 2),
                ("delay", 2), ("wait_delay", 2), ("wait_delay", 2)]
    for want in expected:
        if want == "cancel":
            assert pb.state == "wait_input"
            pb.cancel_wait()
            assert pb.state == "dispose"
            continue
        assert (pb.step(), pb.index) == want
    assert 0 < pb.delay <= 60000
    pb.seek(1)
    assert (pb.index, pb.state) == (1, "draw")  # at frame 1, not yet drawn
    assert [(f.index, f.wait_input) for f in pb.frames()] == [(1, True), (2, False)]
    with pytest.raises(ombrix.InvalidParameterError):
        pb.seek(4)


def test_progress_callback_cannot_touch_the_busy_bitmap():
    bm = ombrix.Bitmap(BIG)
    with pytest.raises(RuntimeError):
        bm.resize(300, 200, "bicubic", progress=lambda pct: bm.fill((1, 2, 3)))
    assert np.array_equal(bm.to_numpy(), BIG)
    with pytest.raises(TypeError):
        ombrix.progress(42)
