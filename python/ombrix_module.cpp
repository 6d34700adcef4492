// The Python binding of the Ombrix kernel (module `ombrix`).
//
// A Bitmap owns one BITMAPRECORD. Everything the binding shows is the viewed
// image (what the record's view perspective says the picture looks like):
// array shapes, widths and heights, rectangles and points. The buffer
// protocol exports single-block storage without a copy, with the strides of
// the perspective; every other storage kind is read through the row layer.
// Negative statuses become ombrix.Error exceptions; long calls run without
// the GIL. See docs/python.md.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ombrix.h"

namespace py = pybind11;

namespace {

// ------------------------------------------------------------------ errors
PyObject* g_error = nullptr;                          // ombrix.Error (owned by the module)
std::vector<std::pair<int32_t, PyObject*>> g_errorClasses;  // status -> subclass

std::string kernelMessage(int32_t code) {
    wchar_t buffer[1024];
    buffer[0] = 0;
    K_GetFriendlyErrorMessage(code, buffer, 1024, nullptr);
    py::object text = py::reinterpret_steal<py::object>(PyUnicode_FromWideChar(buffer, -1));
    if (!text) {
        PyErr_Clear();
        return "status " + std::to_string(code);
    }
    return text.cast<std::string>();
}

[[noreturn]] void raiseStatus(int32_t code) {
    PyObject* cls = g_error;
    for (auto& [c, k] : g_errorClasses)
        if (c == code) cls = k;
    std::string message = kernelMessage(code);
    py::object exc = py::reinterpret_borrow<py::object>(cls)(message + " (status " + std::to_string(code) + ")");
    exc.attr("code") = code;
    exc.attr("message") = message;
    PyErr_SetObject(cls, exc.ptr());
    throw py::error_already_set();
}

int32_t check(int32_t status) {
    if (status < 0) raiseStatus(status);
    return status;
}

// ---------------------------------------------------------------- progress
// The progress callable of this thread (a per-call `progress=` or the
// innermost `with ombrix.progress(...)`); null: none.
thread_local PyObject* t_progress = nullptr;
unsigned long g_mainThread = 0;  // Ctrl-C is looked at on the main thread only

// One kernel call's hook: the kernel's status callback of the calling thread
// while the call runs. It takes the GIL, runs pending signal handlers and the
// callable; an exception (KeyboardInterrupt included) or False stops the work
// with the kernel's stop status, and the exception is raised once the kernel
// has returned.
struct Hook {
    PyObject* fn = nullptr;  // borrowed (the caller's frame holds it)
    PyObject *type = nullptr, *value = nullptr, *trace = nullptr;
    bool stopped = false;
};

int32_t hookCallback(int32_t percent, void* user) {
    auto* h = static_cast<Hook*>(user);
    if (h->stopped) return KS_USER_ABORT;
    py::gil_scoped_acquire gil;
    PyObject* outer = t_progress;
    t_progress = nullptr;  // the callable's own calls run without it
    int32_t answer = 1;
    if (PyErr_CheckSignals() != 0) {
        answer = KS_USER_ABORT;
    } else if (h->fn) {
        PyObject* r = PyObject_CallFunction(h->fn, "i", int(percent));
        if (!r) answer = KS_USER_ABORT;
        else if (r == Py_False) answer = KS_USER_ABORT;
        Py_XDECREF(r);
    }
    if (answer != 1) {
        h->stopped = true;
        if (PyErr_Occurred()) PyErr_Fetch(&h->type, &h->value, &h->trace);
    }
    t_progress = outer;
    return answer;
}

// Runs a kernel call without the GIL, with the progress hook when a callable
// is set (or on the main thread, for Ctrl-C), then turns a negative status into
// an exception; an exception of the callable takes precedence.
template <class F>
int32_t nogil(F&& call, bool signals = true) {
    Hook hook;
    hook.fn = t_progress;
    const bool hooked = hook.fn || (signals && PyThread_get_thread_ident() == g_mainThread);
    int32_t status;
    {
        py::gil_scoped_release release;
        STATUSCALLBACK oldFn = nullptr;
        void* oldUser = nullptr;
        if (hooked) K_SetStatusCallBack(&hookCallback, &hook, &oldFn, &oldUser);
        status = call();
        if (hooked) K_SetStatusCallBack(oldFn, oldUser, nullptr, nullptr);
    }
    if (hook.type) {
        PyErr_Restore(hook.type, hook.value, hook.trace);
        throw py::error_already_set();
    }
    return check(status);
}

// Makes `fn` (None: nothing) this thread's progress callable for a scope.
class ProgressScope {
public:
    explicit ProgressScope(const py::object& fn) : outer_(t_progress) {
        if (!fn.is_none()) {
            if (!PyCallable_Check(fn.ptr())) throw py::type_error("progress must be callable (or None)");
            t_progress = fn.ptr();
        }
    }
    ~ProgressScope() { t_progress = outer_; }
    ProgressScope(const ProgressScope&) = delete;
    ProgressScope& operator=(const ProgressScope&) = delete;

private:
    PyObject* outer_;
};

// ------------------------------------------------------------ name tables
template <class T>
struct Name {
    const char* name;
    T value;
};

template <class T, size_t N>
T lookup(const Name<T> (&table)[N], const std::string& name, const char* what) {
    for (auto& e : table)
        if (name == e.name) return e.value;
    std::string known;
    for (auto& e : table) known += std::string(known.empty() ? "" : ", ") + e.name;
    throw py::value_error(std::string("unknown ") + what + " '" + name + "' (known: " + known + ")");
}

template <class T, size_t N>
const char* nameOf(const Name<T> (&table)[N], T value) {
    for (auto& e : table)
        if (e.value == value) return e.name;
    return "unknown";
}

const Name<int32_t> kOrders[] = {{"rgb", ORDER_RGB}, {"bgr", ORDER_BGR}, {"gray", ORDER_GRAY},
                                 {"romm", ORDER_ROMM}, {"rgb565", ORDER_RGB565}};
const Name<uint32_t> kConvertOrders[] = {{"rgb", 0u}, {"bgr", CRF_BYTEORDERBGR}, {"gray", CRF_BYTEORDERGRAY},
                                         {"romm", CRF_BYTEORDERROMM}, {"rgb565", CRF_BYTEORDER565}};
const Name<uint32_t> kStorage[] = {{"single", 1u},      {"user", 2u},        {"tiled", 4u},
                                   {"disk", 128u},      {"compressed", 512u}, {"supercompressed", 1024u}};
const Name<int32_t> kDither[] = {{"nearest", DITHER_NEAREST},   {"floyd_steinberg", DITHER_FLOYD_STEINBERG},
                                 {"stucki", DITHER_STUCKI},     {"burkes", DITHER_BURKES},
                                 {"sierra", DITHER_SIERRA},     {"stevenson_arce", DITHER_STEVENSON_ARCE},
                                 {"jarvis", DITHER_JARVIS},     {"ordered", DITHER_ORDERED},
                                 {"clustered", DITHER_CLUSTERED}};
const Name<uint32_t> kInterp[] = {{"nearest", ROTATE_NEAREST}, {"bilinear", ROTATE_BILINEAR},
                                  {"bicubic", ROTATE_BICUBIC}};
const Name<uint32_t> kSizeMethods[] = {{"nearest", SIZE_NORMAL},          {"resample", SIZE_RESAMPLE},
                                       {"bicubic", SIZE_BICUBIC},         {"lanczos", SIZE_LANCZOS},
                                       {"favour_black", SIZE_FAVOURBLACK}, {"scale_to_gray", SIZE_SCALETOGRAY}};
const Name<uint32_t> kRegionModes[] = {{"and", RGN_SET_AND},
                                       {"replace", RGN_SET_REPLACE},
                                       {"new_minus_current", RGN_SET_NEW_MINUS_CUR},
                                       {"current_minus_new", RGN_SET_CUR_MINUS_NEW},
                                       {"or", RGN_SET_OR},
                                       {"xor", RGN_SET_XOR},
                                       {"not", RGN_SET_NOT}};
const Name<uint32_t> kCombineOps[] = {{"and", CombineAnd},
                                      {"or", CombineOr},
                                      {"xor", CombineXor},
                                      {"add", CombineAdd},
                                      {"subtract_source", CombineSubtractSource},
                                      {"subtract_destination", CombineSubtractDestination},
                                      {"multiply", CombineMultiply},
                                      {"divide_source", CombineDivideSource},
                                      {"divide_destination", CombineDivideDestination},
                                      {"average", CombineAverage},
                                      {"minimum", CombineMinimum},
                                      {"maximum", CombineMaximum},
                                      {"nop", CombineNoOperation},
                                      {"alpha_over", CombineAlphaOver}};
const Name<uint32_t> kOperand[] = {{"value", 0u}, {"invert", 1u}, {"zero", 2u}, {"ones", 3u}};
const Name<uint32_t> kCurves[] = {{"linear", WLCURVE_LINEAR}, {"exponential", WLCURVE_EXPONENTIAL},
                                  {"logarithmic", WLCURVE_LOGARITHMIC}, {"sigmoid", WLCURVE_SIGMOID}};

// ---------------------------------------------------------------- helpers
using Palette = std::vector<RGBQUAD>;

// (n, 3) RGB or (n, 4) RGBA uint8 array -> RGBQUADs (1..256 entries).
Palette toPalette(const py::handle& obj) {
    auto a = py::array_t<uint8_t, py::array::c_style | py::array::forcecast>::ensure(obj);
    if (!a || a.ndim() != 2 || (a.shape(1) != 3 && a.shape(1) != 4) || a.shape(0) < 1 || a.shape(0) > 256)
        throw py::value_error("a palette is an (n, 3) RGB or (n, 4) array of 1..256 uint8 entries");
    Palette pal(static_cast<size_t>(a.shape(0)));
    for (py::ssize_t i = 0; i < a.shape(0); ++i)
        pal[static_cast<size_t>(i)] = RGBQUAD{a.at(i, 2), a.at(i, 1), a.at(i, 0), 0};
    return pal;
}

py::array fromPalette(const RGBQUAD* pal, int32_t n) {
    py::array_t<uint8_t> out({static_cast<py::ssize_t>(n), py::ssize_t(3)});
    auto w = out.mutable_unchecked<2>();
    for (int32_t i = 0; i < n; ++i) {
        w(i, 0) = pal[i].rgbRed;
        w(i, 1) = pal[i].rgbGreen;
        w(i, 2) = pal[i].rgbBlue;
    }
    return out;
}

// A colour: (r, g, b) -> 0x00BBGGRR.
uint32_t toColor(const py::handle& obj) {
    auto t = obj.cast<std::vector<int>>();
    if (t.size() != 3) throw py::value_error("a colour is an (r, g, b) triple");
    for (int c : t)
        if (c < 0 || c > 255) throw py::value_error("colour components lie in 0..255");
    return KCOLOR_RGB(t[0], t[1], t[2]);
}

// The fill of uncovered pixels: an (r, g, b) colour or a palette index.
uint32_t fillValue(const py::handle& fill) {
    if (!py::isinstance<py::int_>(fill)) return toColor(fill);
    int64_t index = fill.cast<int64_t>();
    if (index < 0 || index > 255) throw py::value_error("a fill index lies in 0..255");
    return ROTATE_FILL_INDEX(uint32_t(index));
}

// x, y, width, height -> RECT (right and bottom exclusive), refusing sums past 32 bits.
RECT toRect(int64_t x, int64_t y, int64_t w, int64_t h) {
    constexpr int64_t lo = std::numeric_limits<int32_t>::min(), hi = std::numeric_limits<int32_t>::max();
    if (x < lo || y < lo || x > hi || y > hi || w < 0 || h < 0 || x + w > hi || y + h > hi)
        throw py::value_error("rectangle outside the 32-bit range");
    return RECT{int32_t(x), int32_t(y), int32_t(x + w), int32_t(y + h)};
}

const RGNXFORM kViewed = {TOP_LEFT, 1, 1, 1, 1, 0, 0};  // caller coordinates: the viewed image

// Element type and samples per pixel of the arrays of a depth (0 channels: no array form).
struct Elem {
    int channels;
    int size;  // bytes per sample
};
Elem elemOf(int32_t bits) {
    switch (bits) {
        case 16: return {1, 2};
        case 24: return {3, 1};
        case 32: return {4, 1};
        case 48: return {3, 2};
        case 64: return {4, 2};
        case 12: return {0, 0};
        default: return {1, 1};  // 1..8: one index (or grey level) per pixel
    }
}

// Shape and strides of the viewed image over stored rows rowStride bytes
// apart and pixels pxStride bytes apart, from the kernel's own mapping of
// viewed points to stored points (so every perspective 1..8 comes out right).
struct Layout {
    int ndim;
    py::ssize_t shape[3];
    py::ssize_t strides[3];
    py::ssize_t offset;  // bytes from the first stored pixel to viewed (0, 0)
};
Layout viewLayout(const BITMAPRECORD& r, py::ssize_t rowStride, py::ssize_t pxStride, Elem e) {
    int32_t p[3][2] = {{0, 0}, {1, 0}, {0, 1}};
    for (auto& q : p) check(K_PointToBitmap(&r, TOP_LEFT, &q[0], &q[1]));
    bool turned = r.nViewPerspective >= LEFT_TOP;
    Layout l{};
    l.ndim = e.channels > 1 ? 3 : 2;
    l.shape[0] = turned ? r.nWidth : r.nHeight;
    l.shape[1] = turned ? r.nHeight : r.nWidth;
    l.shape[2] = e.channels;
    l.offset = p[0][0] * pxStride + p[0][1] * rowStride;
    l.strides[0] = (p[2][0] - p[0][0]) * pxStride + (p[2][1] - p[0][1]) * rowStride;
    l.strides[1] = (p[1][0] - p[0][0]) * pxStride + (p[1][1] - p[0][1]) * rowStride;
    l.strides[2] = e.size;
    return l;
}

// ------------------------------------------------------------------ Bitmap
struct Bitmap {
    BITMAPRECORD rec{};
    int exports = 0;    // buffers handed out (each holds one K_AccessBitmap)
    bool busy = false;  // a call is running on the bitmap (with the GIL released)

    Bitmap() { rec.uStructSize = BITMAPRECORD_SIZE; }
    ~Bitmap() { K_FreeBitmap(&rec); }
    Bitmap(const Bitmap&) = delete;
    Bitmap& operator=(const Bitmap&) = delete;

    bool allocated() const { return (rec.uFlags & BRF_ALLOCATED) != 0; }
    uint32_t storage() const {
        uint32_t kind = 0;
        K_GetBitmapMemoryInfo(&rec, &kind, nullptr, nullptr, nullptr);
        return kind;
    }
    bool turned() const { return rec.nViewPerspective >= LEFT_TOP; }
    int32_t viewWidth() const { return turned() ? rec.nHeight : rec.nWidth; }
    int32_t viewHeight() const { return turned() ? rec.nWidth : rec.nHeight; }
};

// Marks the bitmaps in use for the length of a call. A bitmap already in use
// (another thread's call is running on it) is refused; an operation that may
// replace the storage or the perspective is refused while arrays share the pixels.
class Use {
public:
    Use(Bitmap& a, bool replaces, Bitmap* b = nullptr) {
        take(a, replaces);
        if (b && b != &a) take(*b, false);
    }
    ~Use() {
        for (Bitmap* b : held_) b->busy = false;
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

private:
    void take(Bitmap& b, bool replaces) {
        if (b.busy) throw std::runtime_error("the bitmap is in use by another thread");
        if (replaces && b.exports > 0)
            throw py::buffer_error("the bitmap's pixels are shared with " + std::to_string(b.exports) +
                                   " array(s); release them before an operation that replaces its storage");
        b.busy = true;
        held_.push_back(&b);
    }
    std::vector<Bitmap*> held_;
};

void needAllocated(const Bitmap& b) {
    if (!b.allocated()) raiseStatus(KS_INVALID_BITMAP);
}

// --------------------------------------------------------- row transfers
// The stored pixels as a (stored height, stored width[, channels]) array,
// read through the row layer (every storage kind); depths below 8 unpacked.
py::array storedArray(Bitmap& b) {
    BITMAPRECORD& r = b.rec;
    Elem e = elemOf(r.nBitsPerPixel);
    if (e.channels == 0) throw py::type_error("12-bit images have no array form; convert them to 16 bits first");
    std::vector<py::ssize_t> shape = {r.nHeight, r.nWidth};
    if (e.channels > 1) shape.push_back(e.channels);
    py::array out(e.size == 2 ? py::dtype::of<uint16_t>() : py::dtype::of<uint8_t>(), shape);
    auto* dst = static_cast<uint8_t*>(out.mutable_data());
    const int32_t bits = r.nBitsPerPixel;
    const size_t rowOut = size_t(r.nWidth) * size_t(e.channels) * size_t(e.size);
    int32_t status = 1;
    {
        py::gil_scoped_release release;
        std::vector<uint8_t> row(size_t(r.nBytesPerLine) + 1, 0);
        for (int32_t y = 0; y < r.nHeight && status >= 0; ++y) {
            status = K_GetBitmapRow(&r, row.data(), y, r.nBytesPerLine);
            uint8_t* o = dst + size_t(y) * rowOut;
            if (bits >= 8) {
                std::memcpy(o, row.data(), rowOut);
            } else {
                const unsigned mask = (1u << bits) - 1;
                for (int32_t x = 0; x < r.nWidth; ++x) {
                    size_t bit = size_t(x) * size_t(bits);
                    unsigned window = unsigned(row[bit >> 3]) << 8 | row[(bit >> 3) + 1];
                    o[x] = uint8_t((window >> (16 - bits - (bit & 7))) & mask);
                }
            }
        }
    }
    check(status);
    return out;
}

// The viewed image of a stored-shape array (a copy in C order).
py::array viewOfStored(const BITMAPRECORD& r, const py::array& stored) {
    Elem e = elemOf(r.nBitsPerPixel);
    Layout l = viewLayout(r, stored.strides(0), stored.strides(1), e);
    if (l.offset == 0 && l.shape[0] == stored.shape(0) && l.shape[1] == stored.shape(1) &&
        l.strides[0] == stored.strides(0) && l.strides[1] == stored.strides(1))
        return stored;  // stored top-left: the stored rows are the view
    std::vector<py::ssize_t> shape(l.shape, l.shape + l.ndim), strides(l.strides, l.strides + l.ndim);
    py::array view(stored.dtype(), shape, strides, static_cast<const uint8_t*>(stored.data()) + l.offset, stored);
    return view.attr("copy")();
}

// Writes a C-ordered (height, width[, channels]) array into the stored rows (perspective 1).
void putRows(Bitmap& b, const py::array& a) {
    BITMAPRECORD& r = b.rec;
    const int32_t bits = r.nBitsPerPixel;
    const size_t rowIn = size_t(a.strides(0));
    const auto* src = static_cast<const uint8_t*>(a.data());
    int32_t status = 1;
    {
        py::gil_scoped_release release;
        std::vector<uint8_t> row(size_t(r.nBytesPerLine) + 1, 0);
        for (int32_t y = 0; y < r.nHeight && status >= 0; ++y) {
            const uint8_t* in = src + size_t(y) * rowIn;
            if (bits >= 8) {
                std::memcpy(row.data(), in, rowIn);
            } else {
                std::fill(row.begin(), row.end(), 0);
                for (int32_t x = 0; x < r.nWidth; ++x) {
                    size_t bit = size_t(x) * size_t(bits);
                    unsigned v = unsigned(in[x]) << (16 - bits - (bit & 7));
                    row[bit >> 3] |= uint8_t(v >> 8);
                    row[(bit >> 3) + 1] |= uint8_t(v);
                }
            }
            status = K_PutBitmapRow(&r, row.data(), y, r.nBytesPerLine);
        }
    }
    check(status);
}

// ----------------------------------------------------------- construction
std::unique_ptr<Bitmap> makeBitmap(int32_t width, int32_t height, int32_t bits, int32_t order,
                                   const Palette* pal) {
    auto b = std::make_unique<Bitmap>();
    Palette full;
    if (pal && bits <= 8) {  // the record's block holds 2^bits entries: pad with black
        full = *pal;
        if (full.size() > (size_t(1) << bits)) throw py::value_error("more palette entries than the depth holds");
        full.resize(size_t(1) << bits, RGBQUAD{0, 0, 0, 0});
    }
    nogil([&] {  // the record is written only on success
        return K_CreateBitmap(&b->rec, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, width, height, bits, order,
                              full.empty() ? nullptr : full.data(), TOP_LEFT, nullptr, 0);
    });
    if (pal && bits <= 8) check(K_SetBitmapPalette(&b->rec, pal->data(), int32_t(pal->size())));
    return b;
}

std::unique_ptr<Bitmap> fromArray(const py::array& input, std::optional<std::string> orderName,
                                  const py::object& palette, std::optional<int> bitsArg, int viewPerspective) {
    bool wide;
    if (input.dtype().equal(py::dtype::of<uint8_t>()))
        wide = false;
    else if (input.dtype().equal(py::dtype::of<uint16_t>()))
        wide = true;
    else
        throw py::type_error("a Bitmap is made from a uint8 or uint16 array");
    int channels = input.ndim() == 2 ? 1 : input.ndim() == 3 ? int(input.shape(2)) : 0;
    if (channels != 1 && channels != 3 && channels != 4)
        throw py::value_error("the array must be (height, width), (height, width, 3) or (height, width, 4)");
    if (input.shape(0) < 1 || input.shape(1) < 1 || input.shape(0) > INT32_MAX || input.shape(1) > INT32_MAX)
        throw py::value_error("the array must have at least one row and one column");
    if (viewPerspective < 1 || viewPerspective > 8) throw py::value_error("view perspectives are 1..8");
    int32_t bits = channels == 1 ? (wide ? 16 : 8) : (wide ? 16 : 8) * channels;
    if (bitsArg) {
        if (wide || channels != 1 || *bitsArg < 1 || *bitsArg > 8)
            throw py::value_error("bits applies to uint8 (height, width) index arrays: 1..8");
        bits = *bitsArg;
    }
    Palette pal;
    if (!palette.is_none()) {
        if (bits > 8) throw py::value_error("only images of up to 8 bits per pixel take a palette");
        pal = toPalette(palette);
    }
    int32_t order = channels == 1 && (bits == 16 || pal.empty()) ? ORDER_GRAY : ORDER_RGB;
    if (orderName) order = lookup(kOrders, *orderName, "order");
    auto a = py::array::ensure(input, py::array::c_style);
    if (bits < 8) {
        auto idx = a.unchecked<uint8_t, 2>();
        for (py::ssize_t y = 0; y < idx.shape(0); ++y)
            for (py::ssize_t x = 0; x < idx.shape(1); ++x)
                if (idx(y, x) >> bits) throw py::value_error("an index does not fit the depth");
    }
    auto b = makeBitmap(int32_t(a.shape(1)), int32_t(a.shape(0)), bits, order, pal.empty() ? nullptr : &pal);
    putRows(*b, a);
    if (viewPerspective != TOP_LEFT)
        nogil([&] { return K_ChangeBitmapViewPerspective(nullptr, &b->rec, BITMAPRECORD_SIZE, viewPerspective); });
    return b;
}

std::unique_ptr<Bitmap> newLike(const std::function<int32_t(BITMAPRECORD*)>& make) {
    auto out = std::make_unique<Bitmap>();
    nogil([&] { return make(&out->rec); });  // a failing copy leaves the destination untouched
    return out;
}

// ---------------------------------------------------------- buffer export
struct Export {
    Layout layout;
};

int getBuffer(PyObject* self, Py_buffer* view, int flags) {
    view->obj = nullptr;
    Bitmap* b;
    try {
        b = py::handle(self).cast<Bitmap*>();
    } catch (...) {
        PyErr_SetString(PyExc_BufferError, "not an ombrix.Bitmap");
        return -1;
    }
    BITMAPRECORD& r = b->rec;
    Elem e = elemOf(r.nBitsPerPixel);
    const char* why = nullptr;
    if (b->busy) why = "the bitmap is in use by another thread";
    else if (!b->allocated()) why = "the bitmap has no pixels";
    else if (b->storage() != 1u) why = "only single-block storage is shared without a copy (use to_numpy())";
    else if (r.nBitsPerPixel < 8 || e.channels == 0)
        why = "pixels of fewer than 8 bits and 12-bit pixels are not addressable (use to_numpy())";
    else if ((flags & PyBUF_STRIDES) != PyBUF_STRIDES) why = "the bitmap's pixels are strided";
    if (why) {
        PyErr_SetString(PyExc_BufferError, why);
        return -1;
    }
    int32_t status = K_AccessBitmap(&r);
    if (status < 0 || !r.pData) {
        if (status >= 0) K_ReleaseBitmap(&r);
        PyErr_SetString(PyExc_BufferError, "the bitmap's storage could not be accessed");
        return -1;
    }
    auto* ex = new Export{};
    try {
        ex->layout = viewLayout(r, r.nBytesPerLine, r.nBitsPerPixel / 8, e);
    } catch (py::error_already_set& err) {
        delete ex;
        K_ReleaseBitmap(&r);
        err.restore();
        return -1;
    }
    Layout& l = ex->layout;
    bool cContig = l.strides[l.ndim - 1] == e.size;
    for (int i = l.ndim - 1; i > 0 && cContig; --i) cContig = l.strides[i - 1] == l.strides[i] * l.shape[i];
    if ((flags & PyBUF_C_CONTIGUOUS) == PyBUF_C_CONTIGUOUS || (flags & PyBUF_F_CONTIGUOUS) == PyBUF_F_CONTIGUOUS ||
        (flags & PyBUF_ANY_CONTIGUOUS) == PyBUF_ANY_CONTIGUOUS) {
        if (!cContig || (flags & PyBUF_F_CONTIGUOUS) == PyBUF_F_CONTIGUOUS) {
            delete ex;
            K_ReleaseBitmap(&r);
            PyErr_SetString(PyExc_BufferError, "the bitmap's rows are padded: not contiguous");
            return -1;
        }
    }
    view->buf = r.pData + l.offset;
    view->obj = self;
    Py_INCREF(self);
    view->len = l.shape[0] * l.shape[1] * l.shape[2] * e.size;
    view->readonly = 0;
    view->itemsize = e.size;
    view->format = (flags & PyBUF_FORMAT) ? const_cast<char*>(e.size == 2 ? "H" : "B") : nullptr;
    view->ndim = l.ndim;
    view->shape = l.shape;
    view->strides = l.strides;
    view->suboffsets = nullptr;
    view->internal = ex;
    ++b->exports;
    return 0;
}

void releaseBuffer(PyObject* self, Py_buffer* view) {
    delete static_cast<Export*>(view->internal);
    view->internal = nullptr;
    Bitmap* b = py::handle(self).cast<Bitmap*>();
    K_ReleaseBitmap(&b->rec);
    --b->exports;
}

PyBufferProcs g_bufferProcs = {getBuffer, releaseBuffer};

// ----------------------------------------------------------- operations
int32_t toStoredWidth(const Bitmap& b, int32_t w, int32_t h) { return b.turned() ? h : w; }

// A viewed rectangle in stored pixels.
RECT storedRect(const Bitmap& b, int64_t x, int64_t y, int64_t w, int64_t h) {
    RECT rc = toRect(x, y, w, h);
    check(K_RectToBitmap(&b.rec, TOP_LEFT, &rc));
    return rc;
}

py::object regionBounds(Bitmap& b) {
    if (K_BitmapHasRgn(&b.rec) <= 0) return py::none();
    RECT rc{};
    check(K_GetBitmapRgnBounds(&b.rec, &kViewed, &rc));
    return py::make_tuple(rc.left, rc.top, rc.right - rc.left, rc.bottom - rc.top);
}

py::array regionMask(Bitmap& b) {
    BITMAPRECORD& r = b.rec;
    py::array_t<uint8_t> stored({py::ssize_t(r.nHeight), py::ssize_t(r.nWidth)});
    auto* m = static_cast<uint8_t*>(stored.mutable_data());
    if (K_BitmapHasRgn(&r) <= 0) {
        std::memset(m, 1, size_t(r.nHeight) * size_t(r.nWidth));
    } else {
        std::memset(m, 0, size_t(r.nHeight) * size_t(r.nWidth));
        uint32_t max = 0;
        check(K_GetBitmapClipSegmentsMax(&r, &max));
        std::vector<int32_t> seg(size_t(max) + 2);
        for (int32_t y = 0; y < r.nHeight; ++y) {
            uint32_t n = 0;
            check(K_GetBitmapClipSegments(&r, y, seg.data(), &n));
            for (uint32_t i = 0; i + 1 < n; i += 2)
                for (int32_t x = std::max(seg[i], 0); x < std::min(seg[i + 1], r.nWidth); ++x)
                    m[size_t(y) * size_t(r.nWidth) + size_t(x)] = 1;
        }
    }
    BITMAPRECORD shape = r;  // the mapping of an 8-bit image of the same size and perspective
    shape.nBitsPerPixel = 8;
    Layout l = viewLayout(shape, stored.strides(0), 1, Elem{1, 1});
    py::array view(py::dtype::of<uint8_t>(), {l.shape[0], l.shape[1]}, {l.strides[0], l.strides[1]},
                   m + l.offset, stored);
    return view.attr("astype")("bool");
}

void setRegionMask(Bitmap& b, const py::array& mask, uint32_t mode) {
    auto m = py::array_t<uint8_t, py::array::c_style | py::array::forcecast>::ensure(
        py::array(mask).attr("astype")("bool"));
    if (!m || m.ndim() != 2 || m.shape(0) != b.viewHeight() || m.shape(1) != b.viewWidth())
        throw py::value_error("the mask must be a (height, width) array of the bitmap's viewed size");
    py::array grey = py::array(m.attr("__mul__")(255).attr("astype")("uint8"));
    auto tmp = fromArray(grey, std::string("gray"), py::none(), std::nullopt, TOP_LEFT);
    nogil([&] { return K_SetBitmapRgnFromMask(&b.rec, &kViewed, &tmp->rec, mode); });
}

uint32_t convertFlags(const std::optional<std::string>& order, const py::object& palette, int32_t colors,
                      const std::optional<std::string>& dither, bool exact, Palette& pal, int32_t& nColors) {
    uint32_t flags = order ? lookup(kConvertOrders, *order, "order") : 0u;
    nColors = colors;
    if (py::isinstance<py::str>(palette)) {
        std::string p = palette.cast<std::string>();
        if (p == "fixed") flags |= CRF_FIXEDPALETTE;
        else if (p == "netscape" || p == "web") flags |= CRF_NETSCAPEPALETTE;
        else if (p == "optimized") flags |= CRF_OPTIMIZEDPALETTE;
        else throw py::value_error("palette is 'fixed', 'netscape', 'optimized' or an (n, 3) array");
    } else if (!palette.is_none()) {
        pal = toPalette(palette);
        flags |= CRF_USERPALETTE;
        nColors = int32_t(pal.size());
    }
    flags |= dither ? CRF_DITHER(lookup(kDither, *dither, "dithering method")) : CRF_NODITHERING;
    if (exact) flags |= CRF_EXACTMATCH;
    return flags;
}

py::dict info(Bitmap& b) {
    uint32_t kind = 0;
    uint64_t tile = 0;
    int32_t tiles = 0, onDisk = 0;
    K_GetBitmapMemoryInfo(&b.rec, &kind, &tile, &tiles, &onDisk);
    py::dict d;
    d["storage"] = nameOf(kStorage, kind);
    d["tile_size"] = tile;
    d["tiles"] = tiles;
    d["tiles_on_disk"] = onDisk;
    return d;
}


// --------------------------------------------------------------- lists
// A BitmapList owns one kernel list. The list holds its own bitmaps: what goes
// in is a deep copy (the caller's Bitmap stays its own), what comes out of an
// index is a deep copy, pop() hands the item's own storage over.
struct BitmapList {
    HBITMAPLIST h = nullptr;
    bool busy = false;

    BitmapList() { check(K_CreateBitmapList(&h)); }
    ~BitmapList() {
        if (h) K_DestroyBitmapList(h);
    }
    BitmapList(const BitmapList&) = delete;
    BitmapList& operator=(const BitmapList&) = delete;

    uint32_t size() const {
        uint32_t n = 0;
        check(K_GetBitmapListCount(h, &n));
        return n;
    }
};

class ListUse {
public:
    explicit ListUse(BitmapList& l) : l_(l) {
        if (l.busy) throw std::runtime_error("the bitmap list is in use by another thread");
        l.busy = true;
    }
    ~ListUse() { l_.busy = false; }
    ListUse(const ListUse&) = delete;
    ListUse& operator=(const ListUse&) = delete;

private:
    BitmapList& l_;
};

// A Python index (negative from the end) -> 0..n-1, else IndexError.
uint32_t itemIndex(const BitmapList& l, int64_t i) {
    int64_t n = l.size();
    if (i < 0) i += n;
    if (i < 0 || i >= n) throw py::index_error("bitmap list index out of range");
    return uint32_t(i);
}

// The frame fields travel with a bitmap into and out of a list (a pixel copy
// does not carry them).
void carryFrame(BITMAPRECORD& d, const BITMAPRECORD& s) {
    constexpr uint32_t kFrameFlags = BRF_FRAME_WAITINPUT | BRF_FRAME_TRANSPARENT | BRF_FRAME_ALPHAOVER;
    FRAME_LEFT(&d) = FRAME_LEFT(&s);
    FRAME_TOP(&d) = FRAME_TOP(&s);
    FRAME_DELAY(&d) = FRAME_DELAY(&s);
    FRAME_DISPOSAL(&d) = FRAME_DISPOSAL(&s);
    FRAME_TRANSPARENT_COLOR(&d) = FRAME_TRANSPARENT_COLOR(&s);
    FRAME_BACKGROUND_COLOR(&d) = FRAME_BACKGROUND_COLOR(&s);
    d.uFlags = (d.uFlags & ~kFrameFlags) | (s.uFlags & kFrameFlags);
}

// A deep copy of a Bitmap as a bare record whose storage the caller (or the
// list it is inserted into) then owns.
BITMAPRECORD copyRecord(Bitmap& b) {
    needAllocated(b);
    BITMAPRECORD r{};
    nogil([&] { return K_CopyBitmap(&r, &b.rec, BITMAPRECORD_SIZE); });
    carryFrame(r, b.rec);
    return r;
}

// Inserts a copy of b at idx (the list owns the copy); a failure frees it.
void insertCopy(BitmapList& l, uint32_t idx, Bitmap& b) {
    Use use(b, false);
    BITMAPRECORD r = copyRecord(b);
    int32_t st = K_InsertBitmapListItem(l.h, idx, &r);
    if (st < 0) K_FreeBitmap(&r);
    check(st);
}

std::unique_ptr<Bitmap> itemCopy(BitmapList& l, uint32_t idx) {
    BITMAPRECORD item{};
    item.uStructSize = BITMAPRECORD_SIZE;
    check(K_GetBitmapListItem(l.h, idx, &item, BITMAPRECORD_SIZE));  // shares the item's storage
    if (!(item.uFlags & BRF_ALLOCATED)) raiseStatus(KS_INVALID_BITMAP);
    auto out = newLike([&](BITMAPRECORD* d) { return K_CopyBitmap(d, &item, BITMAPRECORD_SIZE); });
    carryFrame(out->rec, item);
    return out;
}

// ------------------------------------------------------------ playback
const Name<int32_t> kStates[] = {{"clear", PLAYBACK_STATE_CLEAR},         {"next", PLAYBACK_STATE_NEXT},
                                 {"draw", PLAYBACK_STATE_DRAW},           {"wait_lines", PLAYBACK_STATE_WAITLINES},
                                 {"delay", PLAYBACK_STATE_DELAY},         {"wait_input", PLAYBACK_STATE_WAITINPUT},
                                 {"wait_delay", PLAYBACK_STATE_WAITDELAY}, {"wait_both", PLAYBACK_STATE_WAITBOTH},
                                 {"dispose", PLAYBACK_STATE_DISPOSE},     {"next_frame", PLAYBACK_STATE_NEXT2},
                                 {"end", PLAYBACK_STATE_END}};
const Name<uint32_t> kDisposal[] = {{"keep", 0u}, {"background", 2u}, {"previous", 3u}};
py::object g_frameType;  // collections.namedtuple Frame

struct Playback {
    HPLAYBACK h = nullptr;
    py::object targetObj, listObj;  // kept alive as long as the playback
    Bitmap* target = nullptr;
    BitmapList* list = nullptr;

    ~Playback() {
        if (h) K_DestroyPlayback(h);
    }
    int32_t state() const {
        int32_t st = 0;
        check(K_GetPlaybackState(h, &st));
        return st;
    }
    int32_t step() {
        Use use(*target, false);
        ListUse lu(*list);
        int32_t st = 0;
        nogil([&] { return K_ProcessPlayback(h, &st); });
        return st;
    }
    py::object updateRect(bool clear) const {
        RECT rc{};
        check(K_GetPlaybackUpdateRect(h, &rc, clear ? 1 : 0));
        if (rc.right <= rc.left || rc.bottom <= rc.top) return py::none();
        return py::make_tuple(rc.left, rc.top, rc.right - rc.left, rc.bottom - rc.top);
    }
};

bool waiting(int32_t st) {
    return st == PLAYBACK_STATE_WAITINPUT || st == PLAYBACK_STATE_WAITDELAY || st == PLAYBACK_STATE_WAITBOTH;
}

// The iterator of Playback.frames(): each next() steps to the next drawn frame.
struct FrameIter {
    py::object owner;
    Playback* p;
    bool loop, realtime;
    bool started = false;

    py::object next() {
        if (started) {
            if (p->state() == PLAYBACK_STATE_DELAY) p->step();  // the frame's wait starts now
            int32_t st = p->state();
            if (waiting(st) && realtime) {  // sleep out the rest of the delay, then end the wait
                for (;;) {
                    uint32_t ms = 0;
                    check(K_GetPlaybackDelay(p->h, &ms));
                    if (ms == 0) break;
                    {
                        py::gil_scoped_release release;
                        std::this_thread::sleep_for(std::chrono::milliseconds(std::min<uint32_t>(ms, 50)));
                    }
                    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
                }
            }
            if (waiting(p->state())) check(K_CancelPlaybackWait(p->h));
        }
        started = true;
        // Clear, draw, delay, dispose and next take at most a handful of steps
        // per frame; the bound stops a list that changes under the playback.
        for (int guard = 0; guard < 64; ++guard) {
            int32_t before = p->state();
            if (before == PLAYBACK_STATE_END && (!loop || p->list->size() == 0)) throw py::stop_iteration();
            if (before == PLAYBACK_STATE_WAITLINES) throw py::stop_iteration();  // rows still to come
            if (waiting(before)) check(K_CancelPlaybackWait(p->h));
            int32_t st = p->step();
            if ((before == PLAYBACK_STATE_DRAW || before == PLAYBACK_STATE_WAITLINES) &&
                st == PLAYBACK_STATE_DELAY) {
                int32_t index = 0;
                check(K_GetPlaybackIndex(p->h, &index));
                BITMAPRECORD item{};
                item.uStructSize = BITMAPRECORD_SIZE;
                check(K_GetBitmapListItem(p->list->h, uint32_t(index), &item, BITMAPRECORD_SIZE));
                return g_frameType(index, p->updateRect(true), FRAME_DELAY(&item),
                                   (item.uFlags & BRF_FRAME_WAITINPUT) != 0);
            }
        }
        throw py::stop_iteration();
    }
};
}  // namespace

PYBIND11_MODULE(ombrix, m) {
    m.doc() = "Python binding of the Ombrix pixel kernel (see docs/python.md)";
    m.attr("__version__") = K_GetVersionString();

    // Exceptions: ombrix.Error and a subclass per family of statuses.
    g_error = PyErr_NewExceptionWithDoc("ombrix.Error",
                                        "A negative status of the kernel: .code is the status, .message the "
                                        "kernel's text for it.",
                                        PyExc_Exception, nullptr);
    m.attr("Error") = py::reinterpret_borrow<py::object>(g_error);
    auto sub = [&](const char* name, PyObject* mixin, std::initializer_list<int32_t> codes) {
        py::tuple bases = mixin ? py::make_tuple(py::handle(g_error), py::handle(mixin))
                                : py::make_tuple(py::handle(g_error));
        PyObject* cls = PyErr_NewException((std::string("ombrix.") + name).c_str(), bases.ptr(), nullptr);
        if (!cls) throw py::error_already_set();
        m.attr(name) = py::reinterpret_borrow<py::object>(cls);
        for (int32_t c : codes) g_errorClasses.emplace_back(c, cls);
    };
    sub("NoMemoryError", PyExc_MemoryError, {KS_NO_MEMORY, KS_MEMORY_TOO_LOW, KS_MEMORY_CAP_EXCEEDED});
    sub("InvalidBitmapError", nullptr, {KS_INVALID_BITMAP, KS_IMAGE_EMPTY});
    sub("InvalidParameterError", PyExc_ValueError, {KS_INVALID_PARAMETER, KS_NULL_POINTER, KS_INVALID_STRUCT_SIZE});
    sub("InvalidDimensionsError", PyExc_ValueError, {KS_INVALID_DIMENSIONS, KS_BITMAP_TOO_BIG});
    sub("BitsPerPixelError", PyExc_ValueError, {KS_INVALID_BITS_PER_PIXEL});
    sub("NotSupportedError", nullptr, {KS_NOT_SUPPORTED, KS_UNSUPPORTED_CONVERSION, KS_FLOAT_NOT_SUPPORTED});
    sub("StorageError", PyExc_OSError, {KS_FILE_SEEK, KS_FILE_WRITE, KS_FILE_GONE, KS_FILE_READ, KS_FILE_OPEN});
    sub("UserAbortError", nullptr, {KS_USER_ABORT});

    m.def("error_message", &kernelMessage, py::arg("code"), "The kernel's message for a status code.");
    m.def("cpu_features", &K_GetCpuFeatures);
    for (auto& [n, v] : std::initializer_list<std::pair<const char*, int>>{
             {"TOP_LEFT", TOP_LEFT}, {"TOP_RIGHT", TOP_RIGHT}, {"BOTTOM_RIGHT", BOTTOM_RIGHT},
             {"BOTTOM_LEFT", BOTTOM_LEFT}, {"LEFT_TOP", LEFT_TOP}, {"RIGHT_TOP", RIGHT_TOP},
             {"RIGHT_BOTTOM", RIGHT_BOTTOM}, {"LEFT_BOTTOM", LEFT_BOTTOM}})
        m.attr(n) = v;

    py::class_<Bitmap> cls(m, "Bitmap", R"doc(
An image owned by the kernel (one BITMAPRECORD).

Bitmap(array, order=None, palette=None, bits=None, view_perspective=TOP_LEFT)
copies a numpy array: uint8 (h, w) grey (or palette indices with palette=,
packed to 1..8 bits with bits=), uint8 (h, w, 3) / (h, w, 4) colour at 24 /
32 bits ('rgb' or 'bgr' sample order), uint16 (h, w) 16-bit grey, uint16
(h, w, 3) / (h, w, 4) at 48 / 64 bits. Arrays read back (np.asarray(bm),
bm.view()) share the pixels when the storage is one block.)doc");
    auto* heap = reinterpret_cast<PyHeapTypeObject*>(cls.ptr());
    heap->ht_type.tp_as_buffer = &g_bufferProcs;
    PyType_Modified(&heap->ht_type);

    cls.def(py::init(&fromArray), py::arg("array"), py::arg("order") = py::none(), py::arg("palette") = py::none(),
            py::arg("bits") = py::none(), py::arg("view_perspective") = TOP_LEFT)
        .def_static(
            "new",
            [](int32_t width, int32_t height, int32_t bits, std::optional<std::string> order,
               const py::object& palette) {
                Palette pal;
                if (!palette.is_none()) pal = toPalette(palette);
                int32_t o = order ? lookup(kOrders, *order, "order")
                                  : (bits <= 8 || bits == 24 || bits == 32 || bits == 48 || bits == 64) ? ORDER_RGB
                                                                                                        : ORDER_GRAY;
                return makeBitmap(width, height, bits, o, pal.empty() ? nullptr : &pal);
            },
            py::arg("width"), py::arg("height"), py::arg("bits"), py::arg("order") = py::none(),
            py::arg("palette") = py::none(), "A new bitmap of zero pixels (stored top-left).")
        // ---- description
        .def_property_readonly("width", [](const Bitmap& b) { return b.viewWidth(); })
        .def_property_readonly("height", [](const Bitmap& b) { return b.viewHeight(); })
        .def_property_readonly("stored_size", [](const Bitmap& b) { return py::make_tuple(b.rec.nWidth, b.rec.nHeight); })
        .def_property_readonly("bits_per_pixel", [](const Bitmap& b) { return b.rec.nBitsPerPixel; })
        .def_property_readonly("bytes_per_line", [](const Bitmap& b) { return b.rec.nBytesPerLine; })
        .def_property_readonly("order", [](const Bitmap& b) { return nameOf(kOrders, b.rec.nOrder); })
        .def_property_readonly("view_perspective", [](const Bitmap& b) { return b.rec.nViewPerspective; })
        .def_property_readonly("storage",
                               [](Bitmap& b) {
                                   Use use(b, false);
                                   return nameOf(kStorage, b.storage());
                               })
        .def_property_readonly("storage_info",
                               [](Bitmap& b) {
                                   Use use(b, false);
                                   return info(b);
                               })
        .def_property_readonly("is_gray",
                               [](Bitmap& b) {
                                   Use use(b, false);
                                   return check(K_IntIsGrayScaleBitmap(&b.rec)) != 0;
                               })
        .def_property_readonly("exports", [](const Bitmap& b) { return b.exports; })
        .def_property(
            "gray_bits", [](const Bitmap& b) { return py::make_tuple(b.rec.nLowBit, b.rec.nHighBit); },
            [](Bitmap& b, std::pair<int32_t, int32_t> lh) {
                Use use(b, false);
                if (lh.first < 0 || lh.first > lh.second || lh.second >= b.rec.nBitsPerPixel)
                    throw py::value_error("the grey window is low <= high within the sample");
                b.rec.nLowBit = lh.first;
                b.rec.nHighBit = lh.second;
            },
            "(low bit, high bit) of the significant bits of grey samples")
        .def("__repr__",
             [](Bitmap& b) {
                 if (b.busy) return std::string("<ombrix.Bitmap (in use)>");
                 return "<ombrix.Bitmap " + std::to_string(b.viewWidth()) + "x" + std::to_string(b.viewHeight()) +
                        " " + std::to_string(b.rec.nBitsPerPixel) + "-bit " + nameOf(kOrders, b.rec.nOrder) +
                        " perspective " + std::to_string(b.rec.nViewPerspective) + " " +
                        nameOf(kStorage, b.storage()) + ">";
             })
        // ---- arrays
        .def(
            "to_numpy",
            [](Bitmap& b) {
                Use use(b, false);
                needAllocated(b);
                return viewOfStored(b.rec, storedArray(b));
            },
            "A copy of the viewed image, read through the row layer (any storage kind).")
        .def(
            "view",
            [](py::object self) {
                py::object mv = py::reinterpret_steal<py::object>(PyMemoryView_FromObject(self.ptr()));
                if (!mv) throw py::error_already_set();
                return py::module_::import("numpy").attr("asarray")(mv);
            },
            "The viewed image sharing the pixels (BufferError when the storage is not one block).")
        .def(
            "__array__",
            [](Bitmap& b, const py::object& dtype, const py::object&) {
                Use use(b, false);
                needAllocated(b);
                py::object a = viewOfStored(b.rec, storedArray(b));
                return dtype.is_none() ? a : a.attr("astype")(dtype);
            },
            py::arg("dtype") = py::none(), py::arg("copy") = py::none())
        // ---- storage
        .def(
            "set_storage",
            [](Bitmap& b, const std::string& kind, uint64_t tileSize) {
                Use use(b, true);
                uint32_t k = lookup(kStorage, kind, "storage kind");
                nogil([&] { return K_SetBitmapMemoryInfo(&b.rec, k, tileSize); });
            },
            py::arg("kind"), py::arg("tile_size") = 0,
            "Moves the pixels into 'single', 'tiled', 'disk', 'compressed' (1 bit) or 'supercompressed' storage.")
        .def(
            "copy",
            [](Bitmap& b) {
                Use use(b, false);
                auto out = newLike([&](BITMAPRECORD* d) { return K_CopyBitmap(d, &b.rec, BITMAPRECORD_SIZE); });
                carryFrame(out->rec, b.rec);
                return out;
            },
            "An independent copy (same perspective, palette, region, frame fields).")
        // ---- palettes
        .def_property(
            "palette",
            [](Bitmap& b) -> py::object {
                Use use(b, false);
                if (b.rec.nBitsPerPixel > 8 && !b.rec.pPalette) return py::none();
                RGBQUAD buf[256];
                int32_t n = check(K_GetBitmapColors(&b.rec, 0, 256, buf));
                return fromPalette(buf, n);
            },
            [](Bitmap& b, const py::object& palette) {
                Use use(b, false);
                if (palette.is_none()) {
                    check(K_SetBitmapPalette(&b.rec, nullptr, 0));
                    return;
                }
                Palette pal = toPalette(palette);
                check(K_SetBitmapPalette(&b.rec, pal.data(), int32_t(pal.size())));
            },
            "The colours as an (n, 3) RGB array (None for deep images without one); None sets the fixed palette.")
        .def(
            "optimized_palette",
            [](Bitmap& b, int32_t colors, const py::object& reserved, bool fast) {
                Use use(b, false);
                Palette pal(256);  // the kernel refuses counts outside 2..256 before writing
                int32_t nReserved = 0;
                if (!reserved.is_none()) {
                    Palette res = toPalette(reserved);
                    nReserved = int32_t(res.size());
                    for (size_t i = 0; i < res.size() && i < pal.size(); ++i) pal[i] = res[i];
                }
                int32_t used = 0;
                nogil([&] {
                    return K_CreateBitmapOptPal(&b.rec, pal.data(), colors, nReserved, fast ? OPTPAL_FAST : 0u,
                                                &used);
                });
                return fromPalette(pal.data(), used);
            },
            py::arg("colors") = 256, py::arg("reserved") = py::none(), py::arg("fast") = false,
            "The best palette of up to `colors` entries for the pixels, keeping the `reserved` entries first.")
        .def(
            "unique_colors",
            [](Bitmap& b) {
                Use use(b, false);
                int32_t n = 0;
                nogil([&] { return K_GetBitmapPaletteEntries(&b.rec, nullptr, 0, &n); });
                Palette pal(size_t(std::max(n, 1)));
                nogil([&] { return K_GetBitmapPaletteEntries(&b.rec, pal.data(), n, &n); });
                return fromPalette(pal.data(), n);
            },
            "The distinct colours of the pixels, ascending as 0xRRGGBB, as an (n, 3) array.")
        // ---- colour resolution and dithering
        .def(
            "convert",
            [](Bitmap& b, int32_t bits, std::optional<std::string> order, const py::object& palette, int32_t colors,
               std::optional<std::string> dither, bool exact, const py::object& progress) -> Bitmap& {
                Use use(b, true);
                ProgressScope scope(progress);
                Palette pal;
                int32_t n = 0;
                uint32_t flags = convertFlags(order, palette, colors, dither, exact, pal, n);
                nogil([&] {
                    return K_ColorResBitmap(&b.rec, &b.rec, bits, flags, pal.empty() ? nullptr : pal.data(), n,
                                            BITMAPRECORD_SIZE);
                });
                return b;
            },
            py::arg("bits"), py::arg("order") = py::none(), py::arg("palette") = py::none(), py::arg("colors") = 0,
            py::arg("dither") = py::none(), py::arg("exact") = false, py::arg("progress") = py::none(), py::return_value_policy::reference,
            "Converts in place to `bits` (1..8, 12, 16, 24, 32, 48, 64) in `order` ('rgb', 'bgr', 'gray', 'romm', "
            "'rgb565'); up to 8 bits with palette 'fixed', 'netscape', 'optimized' (`colors` entries) or an "
            "array; `dither` names a method (default: nearest colour, no diffusion).")
        .def(
            "dither",
            [](Bitmap& b, const py::object& palette, const std::string& method, std::optional<int32_t> bits, const py::object& progress) -> Bitmap& {
                Use use(b, true);
                ProgressScope scope(progress);
                Palette pal = toPalette(palette);
                int32_t depth = 1;
                while ((size_t(1) << depth) < pal.size()) ++depth;
                if (bits) depth = *bits;
                uint32_t flags = CRF_USERPALETTE | CRF_DITHER(lookup(kDither, method, "dithering method"));
                nogil([&] {
                    return K_ColorResBitmap(&b.rec, &b.rec, depth, flags, pal.data(), int32_t(pal.size()),
                                            BITMAPRECORD_SIZE);
                });
                return b;
            },
            py::arg("palette"), py::arg("method") = "floyd_steinberg", py::arg("bits") = py::none(),
            py::arg("progress") = py::none(), py::return_value_policy::reference,
            "Dithers in place to the palette (depth: the smallest that holds its entries, or `bits`).")
        .def(
            "grayscale",
            [](Bitmap& b, int32_t bits, const py::object& progress) -> Bitmap& {
                Use use(b, true);
                ProgressScope scope(progress);
                nogil([&] { return K_GrayScaleBitmap(&b.rec, bits); });
                return b;
            },
            py::arg("bits") = 8, py::arg("progress") = py::none(), py::return_value_policy::reference)
        // ---- regions (viewed coordinates)
        .def(
            "set_region_rect",
            [](Bitmap& b, int64_t x, int64_t y, int64_t w, int64_t h, const std::string& mode) {
                Use use(b, false);
                RECT rc = toRect(x, y, w, h);
                check(K_SetBitmapRgnRect(&b.rec, &kViewed, &rc, lookup(kRegionModes, mode, "region mode")));
            },
            py::arg("x"), py::arg("y"), py::arg("width"), py::arg("height"), py::arg("mode") = "replace")
        .def(
            "set_region_ellipse",
            [](Bitmap& b, int64_t x, int64_t y, int64_t w, int64_t h, const std::string& mode) {
                Use use(b, false);
                RECT rc = toRect(x, y, w, h);
                check(K_SetBitmapRgnEllipse(&b.rec, &kViewed, &rc, lookup(kRegionModes, mode, "region mode")));
            },
            py::arg("x"), py::arg("y"), py::arg("width"), py::arg("height"), py::arg("mode") = "replace")
        .def(
            "set_region_polygon",
            [](Bitmap& b, const std::vector<std::pair<int32_t, int32_t>>& points, bool winding,
               const std::string& mode) {
                Use use(b, false);
                std::vector<POINT> pts;
                for (auto& [x, y] : points) pts.push_back(POINT{x, y});
                check(K_SetBitmapRgnPolygon(&b.rec, &kViewed, pts.data(), uint32_t(pts.size()),
                                            winding ? WINDING : ALTERNATE, lookup(kRegionModes, mode, "region mode")));
            },
            py::arg("points"), py::arg("winding") = false, py::arg("mode") = "replace")
        .def(
            "set_region_color",
            [](Bitmap& b, const py::object& color, const std::string& mode) {
                Use use(b, false);
                uint32_t c = toColor(color), m = lookup(kRegionModes, mode, "region mode");
                nogil([&] { return K_SetBitmapRgnColor(&b.rec, c, m); });
            },
            py::arg("color"), py::arg("mode") = "replace", "The pixels of exactly that (r, g, b) colour.")
        .def(
            "set_region_mask",
            [](Bitmap& b, const py::array& mask, const std::string& mode) {
                Use use(b, false);
                setRegionMask(b, mask, lookup(kRegionModes, mode, "region mode"));
            },
            py::arg("mask"), py::arg("mode") = "replace", "The True pixels of a (height, width) mask.")
        .def_property_readonly("has_region",
                               [](Bitmap& b) {
                                   Use use(b, false);
                                   return check(K_BitmapHasRgn(&b.rec)) != 0;
                               })
        .def_property_readonly(
            "region_bounds",
            [](Bitmap& b) {
                Use use(b, false);
                return regionBounds(b);
            },
            "(x, y, width, height) of the region, or None.")
        .def_property_readonly("region_area",
                               [](Bitmap& b) {
                                   Use use(b, false);
                                   uint64_t area = 0;
                                   check(K_GetBitmapRgnArea(&b.rec, &area));
                                   return area;
                               })
        .def(
            "region_mask",
            [](Bitmap& b) {
                Use use(b, false);
                return regionMask(b);
            },
            "The region as a (height, width) bool array (all True without a region).")
        .def("clear_region",
             [](Bitmap& b) {
                 Use use(b, false);
                 check(K_FreeBitmapRgn(&b.rec));
             })
        .def(
            "fill",
            [](Bitmap& b, const py::object& color) -> Bitmap& {
                Use use(b, false);
                if (py::isinstance<py::int_>(color)) {
                    uint64_t raw = color.cast<uint64_t>();
                    nogil([&] { return K_FillBitmap2(&b.rec, raw); });
                } else {
                    uint32_t c = toColor(color);
                    nogil([&] { return K_FillBitmap(&b.rec, c); });
                }
                return b;
            },
            py::arg("color"), py::return_value_policy::reference,
            "Fills the region (all pixels without one) with an (r, g, b) colour or a raw pixel value.")
        // ---- transforms
        .def(
            "flip",
            [](Bitmap& b) -> Bitmap& {
                Use use(b, false);
                nogil([&] { return K_FlipBitmap(&b.rec); });
                return b;
            },
            py::return_value_policy::reference, "Turns the viewed image upside down (pixels move in place).")
        .def(
            "reverse",
            [](Bitmap& b) -> Bitmap& {
                Use use(b, false);
                nogil([&] { return K_ReverseBitmap(&b.rec); });
                return b;
            },
            py::return_value_policy::reference, "Mirrors the viewed image left to right (pixels move in place).")
        .def(
            "mirror",
            [](Bitmap& b) -> Bitmap& {
                Use use(b, false);
                nogil([&] { return K_ReverseBitmap(&b.rec); });
                return b;
            },
            py::return_value_policy::reference, "The same as reverse().")
        .def(
            "rotate90",
            [](Bitmap& b, bool clockwise, const py::object& progress) -> Bitmap& {
                Use use(b, true);
                ProgressScope scope(progress);
                nogil([&] { return K_RotateBitmap90(&b.rec, clockwise ? 1 : 0, 0, 100); });
                return b;
            },
            py::arg("clockwise") = true, py::arg("progress") = py::none(), py::return_value_policy::reference)
        .def(
            "rotate",
            [](Bitmap& b, double degrees, bool resize, const std::string& interpolation, const py::object& fill,
               bool transparent, const py::object& progress) -> Bitmap& {
                Use use(b, true);
                ProgressScope scope(progress);
                if (!std::isfinite(degrees) || std::fabs(degrees) > 2e7) throw py::value_error("the angle is not a number of degrees");
                auto angle = int32_t(std::lround(degrees * 100.0));
                uint32_t flags = lookup(kInterp, interpolation, "interpolation") | (resize ? ROTATE_RESIZE : 0u) |
                                 (transparent ? ROTATE_FILL_TRANSPARENT : 0u);
                uint32_t f = fillValue(fill);
                nogil([&] { return K_RotateBitmap(&b.rec, angle, flags, f); });
                return b;
            },
            py::arg("degrees"), py::arg("resize") = false, py::arg("interpolation") = "nearest",
            py::arg("fill") = py::make_tuple(0, 0, 0), py::arg("transparent") = false,
            py::arg("progress") = py::none(), py::return_value_policy::reference,
            "Turns the viewed image clockwise by `degrees` (hundredths are kept) about its centre.")
        .def(
            "shear",
            [](Bitmap& b, double degrees, bool vertical, bool resize, const std::string& interpolation,
               const py::object& fill, const py::object& progress) -> Bitmap& {
                Use use(b, true);
                ProgressScope scope(progress);
                if (!std::isfinite(degrees) || std::fabs(degrees) > 2e7) throw py::value_error("the angle is not a number of degrees");
                auto angle = int32_t(std::lround(degrees * 100.0));
                uint32_t flags = lookup(kInterp, interpolation, "interpolation") | (resize ? ROTATE_RESIZE : 0u) |
                                 (vertical ? SHEAR_VERTICAL : 0u);
                uint32_t f = fillValue(fill);
                nogil([&] { return K_ShearBitmap(&b.rec, angle, flags, f); });
                return b;
            },
            py::arg("degrees"), py::arg("vertical") = false, py::arg("resize") = false,
            py::arg("interpolation") = "nearest", py::arg("fill") = py::make_tuple(0, 0, 0),
            py::arg("progress") = py::none(), py::return_value_policy::reference)
        .def(
            "change_view_perspective",
            [](Bitmap& b, int32_t vp) -> Bitmap& {
                Use use(b, true);
                nogil([&] { return K_ChangeBitmapViewPerspective(nullptr, &b.rec, BITMAPRECORD_SIZE, vp); });
                return b;
            },
            py::arg("view_perspective"), py::return_value_policy::reference,
            "Stores the same viewed image in another perspective (pixels move).")
        .def(
            "relabel",
            [](Bitmap& b, const std::string& how, int32_t angle) -> Bitmap& {
                Use use(b, true);
                if (how == "flip") check(K_FlipBitmapViewPerspective(&b.rec));
                else if (how == "reverse") check(K_ReverseBitmapViewPerspective(&b.rec));
                else if (how == "rotate") check(K_RotateBitmapViewPerspective(&b.rec, angle));
                else throw py::value_error("relabel is 'flip', 'reverse' or 'rotate'");
                return b;
            },
            py::arg("how"), py::arg("angle") = 90, py::return_value_policy::reference,
            "Flips, mirrors or turns the viewed image by changing only the view perspective.")
        .def(
            "crop",
            [](Bitmap& b, int64_t x, int64_t y, int64_t w, int64_t h) {
                Use use(b, false);
                needAllocated(b);
                RECT rc = storedRect(b, x, y, w, h);
                return newLike([&](BITMAPRECORD* d) {
                    return K_CopyBitmapRect(d, &b.rec, BITMAPRECORD_SIZE, rc.left, rc.top,
                                            uint32_t(rc.right - rc.left), uint32_t(rc.bottom - rc.top));
                });
            },
            py::arg("x"), py::arg("y"), py::arg("width"), py::arg("height"),
            "A new bitmap of the viewed rectangle (parts outside the image are zero).")
        .def(
            "trim",
            [](Bitmap& b, int64_t x, int64_t y, int64_t w, int64_t h) -> Bitmap& {
                Use use(b, true);
                needAllocated(b);
                RECT rc = storedRect(b, x, y, w, h);
                nogil([&] {
                    return K_TrimBitmap(&b.rec, rc.left, rc.top, uint32_t(rc.right - rc.left),
                                        uint32_t(rc.bottom - rc.top));
                });
                return b;
            },
            py::arg("x"), py::arg("y"), py::arg("width"), py::arg("height"), py::return_value_policy::reference,
            "Crops in place to the part of the viewed rectangle inside the image.")
        .def(
            "combine",
            [](Bitmap& b, Bitmap* s, const std::string& op, int32_t x,
               int32_t y, int32_t srcX, int32_t srcY, std::optional<int32_t> w, std::optional<int32_t> h,
               const std::string& srcOp, const std::string& dstOp, const std::string& resultOp, const py::object& progress) -> Bitmap& {
                Use use(b, false, s);
                ProgressScope scope(progress);
                uint32_t flags = lookup(kCombineOps, op, "combine operation") |
                                 lookup(kOperand, srcOp, "operand") | lookup(kOperand, dstOp, "operand") << 4 |
                                 lookup(kOperand, resultOp, "operand") << 12;
                int32_t width = w ? *w : (s ? s->viewWidth() : b.viewWidth());
                int32_t height = h ? *h : (s ? s->viewHeight() : b.viewHeight());
                // A stopped combine keeps the rows combined so far: with a progress
                // callable the destination is kept aside and copied back on a stop.
                std::unique_ptr<Bitmap> kept;
                if (t_progress && b.allocated()) {
                    kept = std::make_unique<Bitmap>();
                    int32_t st;
                    {
                        py::gil_scoped_release release;
                        st = K_CopyBitmap(&kept->rec, &b.rec, BITMAPRECORD_SIZE);
                    }
                    check(st);
                }
                try {
                    nogil([&] {
                        return K_CombineBitmapKrn(&b.rec, x, y, width, height, s ? &s->rec : nullptr, srcX, srcY,
                                                  flags);
                    }, false);
                } catch (py::error_already_set&) {
                    if (kept) {
                        py::gil_scoped_release release;
                        STATUSCALLBACK oldFn = nullptr;
                        void* oldUser = nullptr;
                        K_SetStatusCallBack(nullptr, nullptr, &oldFn, &oldUser);
                        K_CombineBitmapKrn(&b.rec, x, y, width, height, &kept->rec, x, y, CombineAnd | 3u << 4);
                        K_SetStatusCallBack(oldFn, oldUser, nullptr, nullptr);
                    }
                    throw;
                }
                return b;
            },
            py::arg("src").none(true), py::arg("op") = "and", py::arg("x") = 0, py::arg("y") = 0, py::arg("src_x") = 0,
            py::arg("src_y") = 0, py::arg("width") = py::none(), py::arg("height") = py::none(),
            py::arg("src_op") = "value", py::arg("dst_op") = "value", py::arg("result_op") = "value",
            py::arg("progress") = py::none(), py::return_value_policy::reference,
            "Combines src's rectangle at (src_x, src_y) into this bitmap at (x, y) with `op`, in place.")
        .def(
            "resize",
            [](Bitmap& b, int32_t w, int32_t h, const std::string& method, bool premultiply, const py::object& progress) -> Bitmap& {
                Use use(b, true);
                ProgressScope scope(progress);
                uint32_t flags = lookup(kSizeMethods, method, "resize method") | (premultiply ? SIZE_PREMULTIPLY : 0u);
                int32_t sw = toStoredWidth(b, w, h), sh = toStoredWidth(b, h, w);
                nogil([&] { return K_SizeBitmap(&b.rec, sw, sh, flags); });
                return b;
            },
            py::arg("width"), py::arg("height"), py::arg("method") = "nearest", py::arg("premultiply") = false,
            py::arg("progress") = py::none(), py::return_value_policy::reference,
            "Resizes the viewed image in place: 'nearest', 'resample', 'bicubic', 'lanczos', 'favour_black', "
            "'scale_to_gray'.")
        .def(
            "resample",
            [](Bitmap& b, int32_t w, int32_t h, const std::string& method, bool premultiply, const py::object& progress) -> Bitmap& {
                Use use(b, true);
                ProgressScope scope(progress);
                uint32_t flags = premultiply ? SIZE_PREMULTIPLY : 0u;
                int32_t sw = toStoredWidth(b, w, h), sh = toStoredWidth(b, h, w);
                if (method == "bicubic") {
                    nogil([&] { return K_BicubicResampleBitmap(&b.rec, sw, sh, flags); });
                } else {
                    if (method == "lanczos") flags |= SIZE_LANCZOS;
                    else if (method != "linear") throw py::value_error("resample methods: 'linear', 'bicubic', 'lanczos'");
                    nogil([&] { return K_ResampleBitmap(&b.rec, sw, sh, flags); });
                }
                return b;
            },
            py::arg("width"), py::arg("height"), py::arg("method") = "linear", py::arg("premultiply") = false,
            py::arg("progress") = py::none(), py::return_value_policy::reference,
            "Interpolating resampler: 'linear' (bilinear growth, area-averaging reduction), 'bicubic', 'lanczos'; "
            "palette images become 8-bit grey or 24-bit colour.")
        .def(
            "window_level",
            [](Bitmap& b, int32_t low, int32_t high, const std::string& curve, int32_t factor, bool isSigned,
               bool invert) -> Bitmap& {
                Use use(b, true);
                uint32_t flags = lookup(kCurves, curve, "curve") | (isSigned ? WLFLAG_SIGNED : 0u) |
                                 (invert ? WL_INVERT : 0u);
                nogil([&] { return K_WindowLevel(&b.rec, &b.rec, BITMAPRECORD_SIZE, low, high, factor, flags); });
                return b;
            },
            py::arg("low"), py::arg("high"), py::arg("curve") = "linear", py::arg("factor") = 0,
            py::arg("signed") = false, py::arg("invert") = false, py::return_value_policy::reference,
            "Makes a 12/16-bit grey image 8-bit grey: samples low..high spread over 0..255, black below, white above.");

    // ---- frame fields (a bitmap as a frame of an animation, or as its target)
    cls.def_property(
           "frame_position", [](const Bitmap& b) { return py::make_tuple(FRAME_LEFT(&b.rec), FRAME_TOP(&b.rec)); },
           [](Bitmap& b, std::pair<int32_t, int32_t> xy) {
               Use use(b, false);
               FRAME_LEFT(&b.rec) = xy.first;
               FRAME_TOP(&b.rec) = xy.second;
           },
           "(left, top) of the frame on the playback target, in the target's viewed image.")
        .def_property(
            "frame_delay", [](const Bitmap& b) { return FRAME_DELAY(&b.rec); },
            [](Bitmap& b, uint32_t ms) {
                Use use(b, false);
                FRAME_DELAY(&b.rec) = ms;
            },
            "Milliseconds the frame stays before the next one.")
        .def_property(
            "frame_disposal", [](const Bitmap& b) { return std::string(nameOf(kDisposal, FRAME_DISPOSAL(&b.rec) == 2 || FRAME_DISPOSAL(&b.rec) == 3 ? FRAME_DISPOSAL(&b.rec) : 0u)); },
            [](Bitmap& b, const std::string& how) {
                Use use(b, false);
                FRAME_DISPOSAL(&b.rec) = lookup(kDisposal, how, "disposal");
            },
            "What happens to the frame's rectangle after its delay: 'keep', 'background' (the target's "
            "background colour) or 'previous' (what was there before the frame).")
        .def_property(
            "frame_transparent",
            [](const Bitmap& b) -> py::object {
                if (!(b.rec.uFlags & BRF_FRAME_TRANSPARENT)) return py::none();
                uint32_t c = FRAME_TRANSPARENT_COLOR(&b.rec);
                return py::make_tuple(c & 0xFF, (c >> 8) & 0xFF, (c >> 16) & 0xFF);
            },
            [](Bitmap& b, const py::object& color) {
                Use use(b, false);
                if (color.is_none()) {
                    b.rec.uFlags &= ~BRF_FRAME_TRANSPARENT;
                    return;
                }
                FRAME_TRANSPARENT_COLOR(&b.rec) = toColor(color);
                b.rec.uFlags |= BRF_FRAME_TRANSPARENT;
            },
            "The (r, g, b) colour of the frame that is not drawn, or None.")
        .def_property(
            "frame_wait_input", [](const Bitmap& b) { return (b.rec.uFlags & BRF_FRAME_WAITINPUT) != 0; },
            [](Bitmap& b, bool on) {
                Use use(b, false);
                b.rec.uFlags = on ? b.rec.uFlags | BRF_FRAME_WAITINPUT : b.rec.uFlags & ~BRF_FRAME_WAITINPUT;
            },
            "The playback waits for cancel_wait() after the frame.")
        .def_property(
            "frame_alpha_over", [](const Bitmap& b) { return (b.rec.uFlags & BRF_FRAME_ALPHAOVER) != 0; },
            [](Bitmap& b, bool on) {
                Use use(b, false);
                b.rec.uFlags = on ? b.rec.uFlags | BRF_FRAME_ALPHAOVER : b.rec.uFlags & ~BRF_FRAME_ALPHAOVER;
            },
            "The frame is blended over the target by its alpha instead of copied.")
        .def_property(
            "background_color",
            [](const Bitmap& b) {
                uint32_t c = FRAME_BACKGROUND_COLOR(&b.rec);
                return py::make_tuple(c & 0xFF, (c >> 8) & 0xFF, (c >> 16) & 0xFF);
            },
            [](Bitmap& b, const py::object& color) {
                Use use(b, false);
                FRAME_BACKGROUND_COLOR(&b.rec) = toColor(color);
            },
            "As a playback target: the (r, g, b) colour of clearing and of 'background' disposal.");

    // ---- bitmap lists
    py::class_<BitmapList>(m, "BitmapList", R"doc(
An ordered list of bitmaps owned by the kernel (the frames of an animation).

The list holds its own bitmaps: append/insert/item assignment store a copy of
the Bitmap given, and list[i] returns a new Bitmap copied from the item, so
changing what came out changes nothing in the list (assign it back). pop()
takes an item out without a copy. Slices with step 1 are copied by the kernel
in one call.)doc")
        .def(py::init([](const py::iterable& items) {
                 auto l = std::make_unique<BitmapList>();
                 for (py::handle it : items) insertCopy(*l, BITMAPLIST_END, it.cast<Bitmap&>());
                 return l;
             }),
             py::arg("bitmaps") = py::tuple())
        .def("__len__", [](const BitmapList& l) { return l.size(); })
        .def("__getitem__",
             [](BitmapList& l, int64_t i) {
                 ListUse lu(l);
                 return itemCopy(l, itemIndex(l, i));
             })
        .def("__getitem__",
             [](BitmapList& l, const py::slice& sl) {
                 ListUse lu(l);
                 size_t start = 0, stop = 0, step = 0, n = 0;
                 if (!sl.compute(l.size(), &start, &stop, &step, &n)) throw py::error_already_set();
                 auto out = std::make_unique<BitmapList>();
                 if (n == 0) return out;
                 if (step == 1) {
                     HBITMAPLIST copy = nullptr;
                     nogil([&] { return K_CopyBitmapListItems(&copy, l.h, uint32_t(start), uint32_t(n)); });
                     K_DestroyBitmapList(out->h);
                     out->h = copy;
                     for (uint32_t k = 0; k < uint32_t(n); ++k) {  // the frame fields, item by item
                         BITMAPRECORD from{}, to{};
                         from.uStructSize = to.uStructSize = BITMAPRECORD_SIZE;
                         check(K_GetBitmapListItem(l.h, uint32_t(start) + k, &from, BITMAPRECORD_SIZE));
                         check(K_GetBitmapListItem(copy, k, &to, BITMAPRECORD_SIZE));
                         carryFrame(to, from);
                         check(K_SetBitmapListItem(copy, k, &to));  // the same storage: nothing to free
                     }
                     return out;
                 }
                 for (size_t k = 0; k < n; ++k) {
                     auto b = itemCopy(l, uint32_t(start + k * step));
                     insertCopy(*out, BITMAPLIST_END, *b);
                 }
                 return out;
             })
        .def("__setitem__",
             [](BitmapList& l, int64_t i, Bitmap& b) {
                 ListUse lu(l);
                 uint32_t idx = itemIndex(l, i);
                 Use use(b, false);
                 BITMAPRECORD r = copyRecord(b);
                 int32_t st = K_ReplaceBitmapListItem(l.h, idx, &r, nullptr, BITMAPRECORD_SIZE);  // frees the old item
                 if (st < 0) K_FreeBitmap(&r);
                 check(st);
             })
        .def("__delitem__",
             [](BitmapList& l, int64_t i) {
                 ListUse lu(l);
                 check(K_DeleteBitmapListItems(l.h, itemIndex(l, i), 1));
             })
        .def("__delitem__",
             [](BitmapList& l, const py::slice& sl) {
                 ListUse lu(l);
                 size_t start = 0, stop = 0, step = 0, n = 0;
                 if (!sl.compute(l.size(), &start, &stop, &step, &n)) throw py::error_already_set();
                 if (n == 0) return;
                 if (step == 1) {
                     check(K_DeleteBitmapListItems(l.h, uint32_t(start), uint32_t(n)));
                     return;
                 }
                 std::vector<uint32_t> at(n);
                 for (size_t k = 0; k < n; ++k) at[k] = uint32_t(py::ssize_t(start) + py::ssize_t(k) * py::ssize_t(step));
                 std::sort(at.begin(), at.end());
                 for (size_t k = n; k-- > 0;)  // from the highest index down, so the others stay put
                     check(K_DeleteBitmapListItems(l.h, at[k], 1));
             })
        .def(
            "append",
            [](BitmapList& l, Bitmap& b) -> BitmapList& {
                ListUse lu(l);
                insertCopy(l, BITMAPLIST_END, b);
                return l;
            },
            py::arg("bitmap"), py::return_value_policy::reference, "Appends a copy of the bitmap.")
        .def(
            "insert",
            [](BitmapList& l, int64_t i, Bitmap& b) -> BitmapList& {
                ListUse lu(l);
                int64_t n = l.size();
                if (i < 0) i = std::max<int64_t>(i + n, 0);
                insertCopy(l, uint32_t(std::min(i, n)), b);
                return l;
            },
            py::arg("index"), py::arg("bitmap"), py::return_value_policy::reference,
            "Inserts a copy of the bitmap before index (Python's list rules for the index).")
        .def(
            "pop",
            [](BitmapList& l, int64_t i) {
                ListUse lu(l);
                uint32_t idx = itemIndex(l, i);
                auto out = std::make_unique<Bitmap>();
                check(K_RemoveBitmapListItem(l.h, idx, &out->rec));  // the item's storage is now out's
                return out;
            },
            py::arg("index") = -1, "Takes the item out of the list (its own pixels, no copy).")
        .def("clear",
             [](BitmapList& l) {
                 ListUse lu(l);
                 uint32_t n = l.size();
                 if (n) check(K_DeleteBitmapListItems(l.h, 0, n));
             })
        .def(
            "optimized_palette",
            [](BitmapList& l, int32_t colors, const py::object& reserved, bool fast) {
                ListUse lu(l);
                Palette pal(256);
                int32_t nReserved = 0;
                if (!reserved.is_none()) {
                    Palette res = toPalette(reserved);
                    nReserved = int32_t(res.size());
                    for (size_t i = 0; i < res.size(); ++i) pal[i] = res[i];
                }
                int32_t used = 0;
                nogil([&] {
                    return K_CreateBitmapListOptPal(l.h, pal.data(), colors, nReserved, fast ? OPTPAL_FAST : 0u, &used);
                });
                return fromPalette(pal.data(), used);
            },
            py::arg("colors") = 256, py::arg("reserved") = py::none(), py::arg("fast") = false,
            "One palette of up to `colors` entries for all the bitmaps together (each counts by its area).")
        .def("__repr__", [](const BitmapList& l) { return "<ombrix.BitmapList of " + std::to_string(l.size()) + ">"; });

    // ---- playback
    g_frameType = py::module_::import("collections").attr("namedtuple")("Frame", "index rect delay wait_input");
    m.attr("Frame") = g_frameType;
    py::class_<FrameIter>(m, "_FrameIterator")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &FrameIter::next);
    py::class_<Playback>(m, "Playback", R"doc(
Plays a BitmapList onto a target Bitmap, one step at a time, on the calling thread.

for frame in Playback(target, frames).frames(): repaint frame.rect of target,
then wait frame.delay milliseconds (or pass realtime=True). Each Frame is
(index, rect, delay, wait_input); rect (x, y, width, height, None when nothing
changed) is the part of the target that changed since the previous frame.)doc")
        .def(py::init([](py::object target, py::object frames) {
                 auto p = std::make_unique<Playback>();
                 if (frames.is_none()) frames = py::cast(std::make_unique<BitmapList>());
                 p->target = &target.cast<Bitmap&>();
                 p->list = &frames.cast<BitmapList&>();
                 needAllocated(*p->target);
                 p->targetObj = target;
                 p->listObj = frames;
                 check(K_CreatePlayback(&p->h, &p->target->rec, p->list->h));
                 return p;
             }),
             py::arg("target"), py::arg("frames") = py::none())
        .def_property_readonly("target", [](const Playback& p) { return p.targetObj; })
        .def_property_readonly("frames_list", [](const Playback& p) { return p.listObj; })
        .def("step", [](Playback& p) { return std::string(nameOf(kStates, p.step())); },
             "One transition; returns the new state's name.")
        .def_property_readonly("state", [](const Playback& p) { return std::string(nameOf(kStates, p.state())); })
        .def_property_readonly("index",
                               [](const Playback& p) {
                                   int32_t i = 0;
                                   check(K_GetPlaybackIndex(p.h, &i));
                                   return i;
                               })
        .def_property_readonly(
            "delay",
            [](const Playback& p) {
                uint32_t ms = 0;
                check(K_GetPlaybackDelay(p.h, &ms));
                return ms;
            },
            "Milliseconds still to wait in a waiting state, else 0.")
        .def_property_readonly("update_rect", [](const Playback& p) { return p.updateRect(false); },
                               "(x, y, width, height) of the target changed since last taken, or None.")
        .def("take_update_rect", [](const Playback& p) { return p.updateRect(true); },
             "The update rectangle, which then starts empty again.")
        .def("cancel_wait", [](const Playback& p) { check(K_CancelPlaybackWait(p.h)); })
        .def(
            "seek",
            [](Playback& p, int32_t index) {
                Use use(*p.target, false);
                ListUse lu(*p.list);
                nogil([&] { return K_SetPlaybackIndex(p.h, index); });
            },
            py::arg("index"), "Moves to frame index (-1..count), drawing what lies between.")
        .def(
            "frames",
            [](py::object self, bool loop, bool realtime) {
                return FrameIter{self, &self.cast<Playback&>(), loop, realtime};
            },
            py::arg("loop") = false, py::arg("realtime") = false,
            "Iterates over the drawn frames: each step yields after a frame was drawn; waits are cancelled "
            "when the next frame is asked for (realtime=True sleeps out the delay first). Ends after the last "
            "frame unless loop=True.");

    // ---- progress
    struct ProgressContext {
        py::object fn;
        PyObject* outer = nullptr;
    };
    py::class_<ProgressContext>(m, "_ProgressContext")
        .def("__enter__",
             [](ProgressContext& c) {
                 c.outer = t_progress;
                 t_progress = c.fn.ptr();
             })
        .def("__exit__", [](ProgressContext& c, py::args) {
            t_progress = c.outer;
            return false;
        });
    m.def(
        "progress",
        [](const py::object& fn) {
            if (!PyCallable_Check(fn.ptr())) throw py::type_error("progress takes a callable");
            return ProgressContext{fn, nullptr};
        },
        py::arg("callback"),
        "with ombrix.progress(callback): every long kernel call of this thread reports whole percentages to "
        "callback(percent); False or an exception stops the call.");
    g_mainThread = PyThread_get_thread_ident();
}
