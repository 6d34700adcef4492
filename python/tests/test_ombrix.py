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
