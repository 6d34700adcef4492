"""The Python binding against numpy and Pillow on real arrays."""
import gc
import threading
import time

import numpy as np
import pytest
from PIL import Image

import ombrix

RNG = np.random.default_rng(20261125)
PERSPECTIVES = range(1, 9)


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


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("vp", PERSPECTIVES)
def test_array_round_trip_and_shared_view(kind, vp):
    a, bits = KINDS[kind]
    bm = ombrix.Bitmap(a, view_perspective=vp)
    assert (bm.width, bm.height, bm.bits_per_pixel, bm.view_perspective) == (17, 13, bits, vp)
    assert np.array_equal(bm.to_numpy(), a)  # through the row layer
    v = bm.view()
    assert np.array_equal(v, a) and v.dtype == a.dtype
    if vp in (3, 4):  # bottom-up storage: rows walk backwards in memory
        assert v.strides[0] == -bm.bytes_per_line
    # Zero copy: a write through the view is what the row layer reads back.
    v[2, 5] = 7
    expected = a.copy()
    expected[2, 5] = 7
    assert np.array_equal(bm.to_numpy(), expected)


@pytest.mark.parametrize("vp", PERSPECTIVES)
@pytest.mark.parametrize("shape", [(1, 1), (1, 6), (6, 1)])
def test_single_row_and_column_images(vp, shape):
    a = rand(shape + (4,))
    bm = ombrix.Bitmap(a, view_perspective=vp)
    assert np.array_equal(bm.to_numpy(), a) and np.array_equal(bm.view(), a)


def test_sub_byte_indices_and_palette():
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
    # The paletted image in colour equals Pillow's expansion of a P image.
    p = Image.fromarray(idx, "P")
    p.putpalette(pal.flatten().tolist())
    assert np.array_equal(bm.copy().convert(24, order="rgb").to_numpy(), np.asarray(p.convert("RGB")))


def test_view_outlives_the_bitmap_reference():
    a = KINDS["rgb24"][0]
    v = ombrix.Bitmap(a).view()
    gc.collect()
    assert np.array_equal(v, a)
    bm = v.base.obj if isinstance(v.base, memoryview) else None
    assert bm is not None and bm.exports == 1
    with pytest.raises(BufferError):
        bm.rotate90()  # would replace the storage the view points into
    bm.flip()  # in-place pixel work is allowed and shows through the view
    assert np.array_equal(v, a[::-1])
    bm.combine(None, "nop", result_op="invert", width=4, height=3)
    assert np.array_equal(v[:3, :4], 255 - a[::-1][:3, :4])
    bm.set_region_rect(5, 5, 2, 2)
    bm.fill((9, 8, 7))
    assert (v[5:7, 5:7] == (9, 8, 7)).all()
    del v
    gc.collect()
    assert bm.exports == 0
    bm.rotate90()


@pytest.mark.parametrize("kind", ["tiled", "disk", "supercompressed"])
def test_other_storage_kinds_read_and_transform_through_rows(kind):
    a = KINDS["rgb24"][0]
    bm = ombrix.Bitmap(a, order="bgr")
    bm.set_storage(kind)
    assert bm.storage == kind
    with pytest.raises(BufferError):
        bm.view()
    assert np.array_equal(np.asarray(bm), a)  # a copy when it cannot be shared
    bm.flip().reverse()
    assert np.array_equal(bm.to_numpy(), a[::-1, ::-1])


@pytest.mark.parametrize("vp", PERSPECTIVES)
def test_orientation_against_numpy_and_pillow(vp):
    a = KINDS["rgb24"][0]
    im = Image.fromarray(a)

    def run(op):
        bm = ombrix.Bitmap(a, view_perspective=vp)
        op(bm)
        return bm.to_numpy()

    assert np.array_equal(run(lambda b: b.flip()), np.flipud(a))
    assert np.array_equal(run(lambda b: b.reverse()), np.asarray(im.transpose(Image.FLIP_LEFT_RIGHT)))
    assert np.array_equal(run(lambda b: b.rotate90()), np.asarray(im.transpose(Image.ROTATE_270)))
    assert np.array_equal(run(lambda b: b.rotate90(clockwise=False)), np.rot90(a, 1))
    assert np.array_equal(run(lambda b: b.rotate(90, resize=True)), np.rot90(a, -1))
    assert np.array_equal(run(lambda b: b.rotate(180, resize=True)), np.rot90(a, 2))
    assert np.array_equal(run(lambda b: b.relabel("flip")), np.flipud(a))
    assert np.array_equal(run(lambda b: b.relabel("rotate", 90)), np.rot90(a, -1))
    assert np.array_equal(run(lambda b: b.change_view_perspective(9 - vp)), a)


@pytest.mark.parametrize("vp", [1, 4, 6])
@pytest.mark.parametrize("rect", [(0, 0, 17, 13), (3, 2, 5, 7), (16, 12, 1, 1), (10, 8, 12, 9)])
def test_crop_is_slicing(vp, rect):
    a = KINDS["gray16"][0]
    x, y, w, h = rect
    got = ombrix.Bitmap(a, view_perspective=vp).crop(x, y, w, h).to_numpy()
    expected = np.zeros((h, w), a.dtype)  # outside the image: zero
    part = a[y:y + h, x:x + w]
    expected[:part.shape[0], :part.shape[1]] = part
    assert np.array_equal(got, expected)
    assert np.array_equal(np.asarray(Image.fromarray(KINDS["rgb24"][0]).crop((x, y, x + w, y + h)))[:part.shape[0], :part.shape[1]],
                          ombrix.Bitmap(KINDS["rgb24"][0], view_perspective=vp).crop(x, y, w, h).to_numpy()[:part.shape[0], :part.shape[1]])
    trimmed = ombrix.Bitmap(a, view_perspective=vp).trim(x, y, w, h)
    assert np.array_equal(trimmed.to_numpy(), part)


@pytest.mark.parametrize("kind", ["gray8", "rgb24", "rgb48"])
@pytest.mark.parametrize("size", [(5, 4), (40, 31), (17, 2)])
def test_resize_nearest_is_index_arithmetic(kind, size):
    a = KINDS[kind][0]
    w, h = size
    rows = np.arange(h) * a.shape[0] // h
    cols = np.arange(w) * a.shape[1] // w
    got = ombrix.Bitmap(a).resize(w, h).to_numpy()
    assert np.array_equal(got, a[rows][:, cols])
    turned = ombrix.Bitmap(a, view_perspective=6).resize(w, h)  # sizes are viewed sizes
    assert turned.to_numpy().shape[:2] == (h, w) and turned.stored_size == (h, w)


def test_resampling_flat_images_and_halving_against_pillow():
    flat = np.full((20, 30, 3), (10, 200, 90), np.uint8)
    for method in ("resample", "bicubic", "lanczos"):
        assert np.array_equal(ombrix.Bitmap(flat).resize(47, 9, method=method).to_numpy(),
                              np.full((9, 47, 3), (10, 200, 90), np.uint8))
    a = KINDS["rgb24"][0][:12, :16]
    halved = ombrix.Bitmap(a).resample(8, 6).to_numpy().astype(int)  # area averaging of 2x2 blocks
    assert np.abs(halved - np.asarray(Image.fromarray(a).reduce(2), int)).max() <= 1


def test_convert_to_grey_and_between_orders():
    a = KINDS["rgb24"][0].astype(np.int32)
    grey = (2 * a[..., 0] + 5 * a[..., 1] + a[..., 2] + 4) >> 3  # the kernel's grey
    bm = ombrix.Bitmap(KINDS["rgb24"][0]).convert(8, order="gray")
    assert bm.is_gray and np.array_equal(bm.to_numpy(), grey)
    bgr = ombrix.Bitmap(KINDS["rgb24"][0]).convert(24, order="bgr")
    assert bgr.order == "bgr" and np.array_equal(bgr.to_numpy(), KINDS["rgb24"][0][..., ::-1])
    rgba = ombrix.Bitmap(KINDS["rgb24"][0]).convert(32, order="rgb").to_numpy()
    assert np.array_equal(rgba, np.asarray(Image.fromarray(KINDS["rgb24"][0]).convert("RGBA")))


def test_convert_to_a_palette_takes_the_nearest_entry():
    a = RNG.integers(1, 255, size=(24, 24, 3), dtype=np.uint8)
    pal = RNG.integers(1, 255, size=(16, 3), dtype=np.uint8)
    got = ombrix.Bitmap(a).convert(4, palette=pal, exact=True)
    d = ((a[:, :, None, :].astype(np.int64) - pal[None, None, :, :]) ** 2).sum(-1)
    order = np.sort(d, axis=-1)
    unique = order[..., 0] < order[..., 1]  # ties follow the kernel's hue rule: left out
    assert np.array_equal(got.to_numpy()[unique], d.argmin(-1)[unique])
    assert np.array_equal(got.palette, pal)


def test_palettes_distinct_colours_and_optimised_palette():
    colours = np.array([[255, 0, 0], [0, 128, 0], [0, 0, 255], [12, 34, 56], [200, 200, 10]], np.uint8)
    a = colours[RNG.integers(0, 5, size=(32, 40))]
    bm = ombrix.Bitmap(a)
    key = lambda c: c[:, 0].astype(int) << 16 | c[:, 1].astype(int) << 8 | c[:, 2]
    assert np.array_equal(key(bm.unique_colors()), np.sort(key(colours)))
    opt = bm.optimized_palette(8)  # few colours: exactly those
    assert sorted(map(tuple, opt)) == sorted(map(tuple, colours))
    bm.convert(8, palette="optimized", colors=8)
    assert np.array_equal(bm.palette[bm.to_numpy()], a)


@pytest.mark.parametrize("method", ["floyd_steinberg", "stucki", "sierra", "jarvis", "ordered", "clustered"])
def test_dithering_keeps_the_mean_grey(method):
    ramp = np.tile(np.linspace(0, 255, 64).astype(np.uint8), (64, 1))
    bm = ombrix.Bitmap(np.stack([ramp] * 3, -1))
    bm.dither(np.array([[0, 0, 0], [255, 255, 255]], np.uint8), method=method)
    out = bm.to_numpy()
    assert bm.bits_per_pixel == 1 and set(np.unique(out)) <= {0, 1}
    blocks = out.reshape(8, 8, 8, 8).mean(axis=(0, 1, 3)) * 255  # 8x8 blocks follow the ramp
    assert np.abs(blocks - ramp[0].reshape(8, 8).mean(1)).max() < 24
    assert abs(out.mean() * 255 - ramp.mean()) < 4


@pytest.mark.parametrize("vp", [1, 4, 7])
def test_regions_rect_ellipse_mask_and_fill(vp):
    a = KINDS["rgb24"][0]
    bm = ombrix.Bitmap(a, view_perspective=vp)
    bm.set_region_rect(3, 2, 6, 5)
    assert bm.has_region and bm.region_bounds == (3, 2, 6, 5) and bm.region_area == 30
    bm.fill((1, 2, 3))
    expected = a.copy()
    expected[2:7, 3:9] = (1, 2, 3)
    assert np.array_equal(bm.to_numpy(), expected)
    bm.set_region_ellipse(1, 1, 15, 11)
    m = bm.region_mask()
    assert m[6, 8] and not m[0, 0] and m.sum() == bm.region_area
    assert np.array_equal(m, m[::-1]) and np.array_equal(m, m[:, ::-1])  # centred: symmetric
    bm.set_region_rect(0, 0, 17, 6, mode="and")
    assert np.array_equal(bm.region_mask(), m & (np.arange(13) < 6)[:, None])
    mask = RNG.integers(0, 2, size=(13, 17)).astype(bool)
    bm.set_region_mask(mask)
    assert np.array_equal(bm.region_mask(), mask)
    bm.clear_region()
    assert not bm.has_region and bm.region_bounds is None and bm.region_mask().all()


COMBINE = {
    "add": lambda d, s: np.minimum(d + s, 255),
    "subtract_source": lambda d, s: np.maximum(d - s, 0),
    "average": lambda d, s: (d + s) >> 1,
    "minimum": np.minimum,
    "maximum": np.maximum,
    "xor": np.bitwise_xor,
    "multiply": lambda d, s: d * s // 255,
}


@pytest.mark.parametrize("op", COMBINE)
@pytest.mark.parametrize("kind", ["gray8", "rgb24"])
def test_combine_against_numpy(op, kind):
    d, s = KINDS[kind][0], rand(KINDS[kind][0].shape)
    bm = ombrix.Bitmap(d).combine(ombrix.Bitmap(s), op, x=4, y=3, src_x=1, src_y=2, width=9, height=6)
    expected = d.astype(np.int64).copy()
    expected[3:9, 4:13] = COMBINE[op](expected[3:9, 4:13], s[2:8, 1:10].astype(np.int64))
    assert np.array_equal(bm.to_numpy(), expected)


def test_window_level_maps_the_window_onto_0_255():
    a = np.tile(np.arange(0, 4096, 16, dtype=np.uint16), (4, 1))
    v = a[0].astype(int)
    bm = ombrix.Bitmap(a)
    bm.gray_bits = (0, 11)
    bm.window_level(1000, 3000)
    out = bm.to_numpy().astype(int)
    assert bm.bits_per_pixel == 8
    assert (out[:, v < 1000] == 0).all() and (out[:, v > 3000] == 255).all()
    inside = (v >= 1000) & (v <= 3000)
    assert np.abs(out[0, inside] - (v[inside] - 1000) * 255 / 2000).max() <= 1
    assert (np.diff(out[0]) >= 0).all()


ERRORS = [
    (lambda b: b.resize(0, 5), -11, ombrix.InvalidDimensionsError),
    (lambda b: b.rotate(1000), -13, ombrix.InvalidParameterError),
    (lambda b: b.convert(13), -27, ombrix.BitsPerPixelError),
    (lambda b: b.set_storage("compressed"), -27, ombrix.BitsPerPixelError),
    (lambda b: b.crop(0, 0, 0, 4), -11, ombrix.InvalidDimensionsError),
    (lambda b: b.combine(ombrix.Bitmap(KINDS["gray8"][0]), "add"), -27, ombrix.BitsPerPixelError),
    (lambda b: b.window_level(0, 10), -27, ombrix.BitsPerPixelError),
    (lambda b: b.rotate(45, fill=3), -13, ombrix.InvalidParameterError),  # an index fill at 24 bits
    (lambda b: b.resample(4, -1), -11, ombrix.InvalidDimensionsError),
]


@pytest.mark.parametrize("call,code,cls", ERRORS)
def test_statuses_become_exceptions_and_change_nothing(call, code, cls):
    a = KINDS["rgb24"][0]
    bm = ombrix.Bitmap(a)
    with pytest.raises(cls) as info:
        call(bm)
    assert isinstance(info.value, ombrix.Error)
    assert info.value.code == code and info.value.message == ombrix.error_message(code) != ""
    assert np.array_equal(bm.to_numpy(), a) and bm.bits_per_pixel == 24


def test_argument_errors_are_python_errors():
    with pytest.raises(TypeError):
        ombrix.Bitmap(np.zeros((4, 4), np.float32))
    with pytest.raises(ValueError):
        ombrix.Bitmap(np.zeros((4, 4, 2), np.uint8))
    with pytest.raises(ValueError):
        ombrix.Bitmap(KINDS["rgb24"][0]).convert(8, order="cmyk")
    with pytest.raises(ValueError):
        ombrix.Bitmap(np.zeros((0, 5), np.uint8))
    with pytest.raises(ValueError):
        ombrix.Bitmap(np.full((2, 2), 2, np.uint8), bits=1)  # an index past the depth
    with pytest.raises(ValueError):
        ombrix.Bitmap(KINDS["gray8"][0]).crop(2**31 - 2, 0, 5, 5)  # past the 32-bit range
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
