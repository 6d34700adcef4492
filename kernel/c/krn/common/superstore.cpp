// superstore.cpp - the super-compressed row store and its row codec.
//
// Every row is encoded on its own, so any row can be read or replaced
// without touching the others. An encoded row starts with a method byte:
//
//   0 RAW   the row's pixel bytes as they are
//   1 ZERO  nothing follows: every pixel is 0 (a row never written is ZERO
//           and takes no memory at all)
//   2 RUNS  (1 bit) alternating run lengths, 0-run first, exp-Golomb coded in
//           blocks of 64 runs, each block with its own order k (3 bits)
//   3 RICE  (8 and 24 bits) left-neighbour residuals, Rice-coded in blocks
//
// RICE: for 8 bits the residual of pixel i is p[i] - p[i-1] (p[-1] = 0); for
// 24 bits each byte position of the pixel has its own residual d0, d1, d2 and
// the coded planes are d1, d0 - d1 and d2 - d1 (the middle channel, green in
// both byte orders, predicts the other two). Residuals are taken modulo 256,
// read as signed bytes and zig-zag mapped to 0..255. Each plane is coded in
// blocks of 32 values; a block starts with a 4-bit code: 0..7 = Rice
// parameter k, 8 = every value 0 (nothing follows), 9 = 8 raw bits per value.
// A Rice value v is q = v >> k zero bits, a one bit, then the k low bits;
// when q >= 15 it is 15 zero bits and 8 raw bits. Bits are packed least
// significant first. The encoder picks k per block by trying the three values
// around log2 of the block's mean, and falls back to RAW when the row would
// not get smaller.
#include "superstore.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "kernel.h"
#include "memory.h"
#include "runs.h"

namespace krn {
namespace {

enum : uint8_t { kRaw = 0, kZero = 1, kRuns = 2, kRice = 3 };
constexpr unsigned kBlock = 32;
constexpr unsigned kEscapeQ = 15;
constexpr unsigned kZeroBlock = 8, kRawBlock = 9;

struct SuperRow {
    uint8_t* data;
    uint32_t size;
};
struct SuperStore {
    uint32_t capacity;
    uint32_t rows;
    uint64_t stored;  // bytes of encoded rows
    SuperRow* row;
};

size_t pixelBytes(int32_t width, int32_t bpp) noexcept {
    return size_t((uint64_t(uint32_t(width)) * uint32_t(bpp) + 7) / 8);
}

// ---------------------------------------------------------------- bit I/O
struct BitWriter {
    uint8_t* out;
    size_t pos = 0;
    uint64_t acc = 0;
    unsigned n = 0;
    void put(uint32_t v, unsigned bits) noexcept {
        acc |= uint64_t(v) << n;
        n += bits;
        while (n >= 8) {
            out[pos++] = uint8_t(acc);
            acc >>= 8;
            n -= 8;
        }
    }
    size_t finish() noexcept {
        if (n) out[pos++] = uint8_t(acc);
        acc = 0;
        n = 0;
        return pos;
    }
};

struct BitReader {
    const uint8_t* p;
    size_t size;
    size_t pos = 0;
    uint64_t acc = 0;
    unsigned n = 0;
    uint64_t consumed = 0;  // bits handed out
    void refill() noexcept {
        if (n <= 56 && pos + 8 <= size) {
            uint64_t w;
            std::memcpy(&w, p + pos, 8);
            acc |= w << n;
            unsigned take = (63 - n) >> 3;
            pos += take;
            n += take * 8;
            acc &= n == 64 ? ~uint64_t(0) : ((uint64_t(1) << n) - 1);
            return;
        }
        while (n <= 56) {
            uint64_t b = pos < size ? p[pos] : 0;
            ++pos;
            acc |= b << n;
            n += 8;
        }
    }
    uint32_t take(unsigned bits) noexcept {
        if (n < bits) refill();
        uint32_t v = uint32_t(acc & ((uint64_t(1) << bits) - 1));
        acc >>= bits;
        n -= bits;
        consumed += bits;
        return v;
    }
    // Zero bits before the next one bit, at most kEscapeQ (then nothing more is consumed).
    unsigned unary() noexcept {
        if (n < 16) refill();
        unsigned z = acc ? unsigned(std::countr_zero(acc)) : 64;
        if (z >= kEscapeQ) {
            acc >>= kEscapeQ;
            n -= kEscapeQ;
            consumed += kEscapeQ;
            return kEscapeQ;
        }
        acc >>= z + 1;
        n -= z + 1;
        consumed += z + 1;
        return z;
    }
    bool overrun() const noexcept { return consumed > uint64_t(size) * 8; }
};

inline uint8_t zig(uint8_t d) noexcept {
    int8_t s = int8_t(d);
    return uint8_t((uint8_t(s) << 1) ^ uint8_t(s >> 7));
}
inline uint8_t unzig(uint8_t z) noexcept { return uint8_t((z >> 1) ^ uint8_t(-(z & 1))); }

inline unsigned riceCost(const uint8_t* v, unsigned n, unsigned k) noexcept {
    unsigned bits = 0;
    for (unsigned i = 0; i < n; ++i) {
        unsigned q = v[i] >> k;
        bits += q < kEscapeQ ? q + 1 + k : kEscapeQ + 8;
    }
    return bits;
}

// Codes one plane of n residuals; false when the output passes `limit` bytes.
bool encodePlane(BitWriter& w, const uint8_t* v, size_t n, size_t limit) noexcept {
    for (size_t b = 0; b < n; b += kBlock) {
        const unsigned len = unsigned(std::min<size_t>(kBlock, n - b));
        const uint8_t* x = v + b;
        unsigned sum = 0;
        for (unsigned i = 0; i < len; ++i) sum += x[i];
        if (sum == 0) {
            w.put(kZeroBlock, 4);
        } else {
            unsigned mean = sum / len;
            int est = mean ? int(std::bit_width(mean)) - 1 : 0;
            unsigned bestK = 0, best = ~0u;
            for (int k = std::max(est - 1, 0); k <= std::min(est + 1, 7); ++k) {
                unsigned c = riceCost(x, len, unsigned(k));
                if (c < best) {
                    best = c;
                    bestK = unsigned(k);
                }
            }
            if (best >= len * 8) {
                w.put(kRawBlock, 4);
                for (unsigned i = 0; i < len; ++i) w.put(x[i], 8);
            } else {
                w.put(bestK, 4);
                const uint32_t mask = (1u << bestK) - 1;
                for (unsigned i = 0; i < len; ++i) {
                    unsigned q = x[i] >> bestK;
                    if (q < kEscapeQ) {
                        // q zeros, a one, then k bits: at most 15 + 8 bits.
                        w.put((1u << q) | ((x[i] & mask) << (q + 1)), q + 1 + bestK);
                    } else {
                        w.put(0, kEscapeQ);
                        w.put(x[i], 8);
                    }
                }
            }
        }
        if (w.pos > limit) return false;
    }
    return true;
}

bool decodePlane(BitReader& r, uint8_t* v, size_t n) noexcept {
    for (size_t b = 0; b < n; b += kBlock) {
        const unsigned len = unsigned(std::min<size_t>(kBlock, n - b));
        uint8_t* x = v + b;
        const unsigned code = r.take(4);
        if (code == kZeroBlock) {
            std::memset(x, 0, len);
        } else if (code == kRawBlock) {
            for (unsigned i = 0; i < len; ++i) x[i] = uint8_t(r.take(8));
        } else if (code < 8) {
            for (unsigned i = 0; i < len; ++i) {
                unsigned q = r.unary();
                if (q == kEscapeQ) {
                    x[i] = uint8_t(r.take(8));
                } else {
                    unsigned lo = code ? r.take(code) : 0;
                    x[i] = uint8_t((q << code) | lo);
                }
            }
        } else {
            return false;
        }
        if (r.overrun()) return false;
    }
    return true;
}

// First pixel at or after x whose bit differs from val (width if none).
uint32_t nextTransition(const uint8_t* src, size_t rawBytes, uint32_t x, uint32_t width, int val) noexcept {
    while (x < width) {
        const size_t byte = x >> 3;
        const unsigned bit = x & 7;
        uint64_t w;
        if (byte + 8 <= rawBytes) {
            std::memcpy(&w, src + byte, 8);
            w = __builtin_bswap64(w);
        } else {
            w = 0;
            for (size_t i = 0; i < 8; ++i) w = (w << 8) | (byte + i < rawBytes ? src[byte + i] : 0);
        }
        w <<= bit;
        if (val) w = ~w;
        const unsigned avail = 64 - bit;
        if (w) {
            unsigned lz = unsigned(std::countl_zero(w));
            if (lz < avail) return std::min<uint32_t>(x + lz, width);
        }
        x += avail;
    }
    return width;
}

inline unsigned egBits(uint32_t v, unsigned k) noexcept {
    const uint64_t u = (uint64_t(v) >> k) + 1;
    return 2 * unsigned(std::bit_width(u)) - 1 + k;
}
void putExpGolomb(BitWriter& w, uint32_t v, unsigned k) noexcept {
    const uint64_t u = (uint64_t(v) >> k) + 1;
    const unsigned n = unsigned(std::bit_width(u));
    if (n > 1) w.put(0, n - 1);
    w.put(1, 1);
    if (n > 1) w.put(uint32_t(u & ((uint64_t(1) << (n - 1)) - 1)), n - 1);
    if (k) w.put(v & ((1u << k) - 1), k);
}

constexpr unsigned kRunBlock = 64;

// 1-bit rows: the runs of the `width` pixels (0-run first), in blocks of 64
// runs, each block a 3-bit exp-Golomb order then the codes. 0 when the
// result would pass `limit` bytes.
size_t encodeRuns(const uint8_t* src, uint32_t width, uint8_t* out, size_t limit) noexcept {
    const size_t rawBytes = (size_t(width) + 7) / 8;
    BitWriter w{out};
    uint32_t runs[kRunBlock];
    uint32_t x = 0;
    int val = 0;
    while (x < width) {
        unsigned n = 0;
        while (n < kRunBlock && x < width) {
            uint32_t next = nextTransition(src, rawBytes, x, width, val);
            runs[n++] = next - x;
            x = next;
            val ^= 1;
        }
        uint64_t sum = 0;
        for (unsigned i = 0; i < n; ++i) sum += runs[i];
        const uint64_t mean = sum / n;
        const int est = mean ? int(std::bit_width(mean)) - 2 : 0;
        unsigned bestK = 0, best = ~0u;
        for (unsigned k = unsigned(std::clamp(est - 1, 0, 7)); k <= unsigned(std::clamp(est + 1, 0, 7)); ++k) {
            unsigned c = 0;
            for (unsigned i = 0; i < n; ++i) c += egBits(runs[i], k);
            if (c < best) {
                best = c;
                bestK = k;
            }
        }
        w.put(bestK, 3);
        for (unsigned i = 0; i < n; ++i) putExpGolomb(w, runs[i], bestK);
        if (w.pos > limit) return 0;
    }
    const size_t n = w.finish();
    return n <= limit ? n : 0;
}

bool decodeRuns(const uint8_t* in, size_t size, uint32_t width, uint8_t* dst) noexcept {
    BitReader r{in, size};
    uint64_t x = 0;
    int val = 0;
    while (x < width) {
        const unsigned k = r.take(3);
        for (unsigned i = 0; i < kRunBlock && x < width; ++i) {
            if (r.n < 40) r.refill();
            unsigned z = r.acc ? unsigned(std::countr_zero(r.acc)) : 64;
            if (z > 32) return false;
            r.acc >>= z + 1;
            r.n -= z + 1;
            r.consumed += z + 1;
            uint64_t u = (uint64_t(1) << z) | (z ? r.take(z) : 0);
            uint64_t v = ((u - 1) << k) | (k ? r.take(k) : 0);
            if (r.overrun() || v > width - x) return false;
            if (val) setBitRange(dst, x, v);
            x += v;
            val ^= 1;
        }
    }
    return !r.overrun() && (r.consumed + 7) / 8 == size;
}

}  // namespace

size_t superMaxEncoded(uint32_t bytesPerLine) noexcept { return size_t(bytesPerLine) + 256; }

size_t superEncode(const uint8_t* src, int32_t width, int32_t bpp, uint8_t* out) noexcept {
    const size_t raw = pixelBytes(width, bpp);
    bool zero = true;
    for (size_t i = 0; i < raw && zero; ++i) {
        uint8_t b = src[i];
        if (bpp == 1 && i + 1 == raw && (width & 7)) b &= uint8_t(0xFF << (8 - (width & 7)));
        zero = b == 0;
    }
    if (zero) {
        out[0] = kZero;
        return 1;
    }
    size_t n = 0;
    if (bpp == 1) {
        n = encodeRuns(src, uint32_t(width), out + 1, raw);
        if (n) {
            out[0] = kRuns;
            return 1 + n;
        }
    } else {
        const size_t w = size_t(width);
        // Residual planes, built in the output area past the coded data limit
        // would be wasteful; use a small stack buffer per chunk instead.
        BitWriter bw{out + 1};
        bool ok = true;
        constexpr size_t kChunk = 1024;
        uint8_t plane[3][kChunk];
        if (bpp == 8) {
            uint8_t prev = 0;
            for (size_t c = 0; c < w && ok; c += kChunk) {
                size_t len = std::min(kChunk, w - c);
                for (size_t i = 0; i < len; ++i) {
                    uint8_t p = src[c + i];
                    plane[0][i] = zig(uint8_t(p - prev));
                    prev = p;
                }
                ok = encodePlane(bw, plane[0], len, raw);
            }
        } else {
            // Three planes coded one after the other over the whole row, each
            // in chunks; the residuals are recomputed per plane.
            for (int pl = 0; pl < 3 && ok; ++pl) {
                uint8_t prev[3] = {0, 0, 0};
                for (size_t c = 0; c < w && ok; c += kChunk) {
                    size_t len = std::min(kChunk, w - c);
                    for (size_t i = 0; i < len; ++i) {
                        const uint8_t* px = src + 3 * (c + i);
                        uint8_t d0 = uint8_t(px[0] - prev[0]), d1 = uint8_t(px[1] - prev[1]),
                                d2 = uint8_t(px[2] - prev[2]);
                        prev[0] = px[0];
                        prev[1] = px[1];
                        prev[2] = px[2];
                        plane[0][i] = zig(pl == 0 ? d1 : pl == 1 ? uint8_t(d0 - d1) : uint8_t(d2 - d1));
                    }
                    ok = encodePlane(bw, plane[0], len, raw);
                }
            }
        }
        if (ok) {
            n = bw.finish();
            if (n < raw) {
                out[0] = kRice;
                return 1 + n;
            }
        }
    }
    out[0] = kRaw;
    std::memcpy(out + 1, src, raw);
    return 1 + raw;
}

bool superDecode(const uint8_t* in, size_t size, int32_t width, int32_t bpp, uint8_t* dst) noexcept {
    if (size < 1 || width < 0 || (bpp != 1 && bpp != 8 && bpp != 24)) return false;
    const size_t raw = pixelBytes(width, bpp);
    switch (in[0]) {
        case kZero:
            std::memset(dst, 0, raw);
            return size == 1;
        case kRaw:
            if (size != 1 + raw) return false;
            std::memcpy(dst, in + 1, raw);
            if (bpp == 1 && (width & 7)) dst[raw - 1] &= uint8_t(0xFF << (8 - (width & 7)));
            return true;
        case kRuns:
            if (bpp != 1) return false;
            std::memset(dst, 0, raw);
            return decodeRuns(in + 1, size - 1, uint32_t(width), dst);
        case kRice: {
            if (bpp == 1) return false;
            BitReader r{in + 1, size - 1};
            const size_t w = size_t(width);
            constexpr size_t kChunk = 1024;
            uint8_t plane[kChunk];
            if (bpp == 8) {
                uint8_t prev = 0;
                for (size_t c = 0; c < w; c += kChunk) {
                    size_t len = std::min(kChunk, w - c);
                    if (!decodePlane(r, plane, len)) return false;
                    for (size_t i = 0; i < len; ++i) {
                        prev = uint8_t(prev + unzig(plane[i]));
                        dst[c + i] = prev;
                    }
                }
            } else {
                // Plane 0 (d1) first: it rebuilds the middle byte; planes 1
                // and 2 then add d1 back, which needs d1 per pixel: recompute
                // it from the rebuilt middle bytes.
                for (int pl = 0; pl < 3; ++pl) {
                    uint8_t prev = 0, prev1 = 0;
                    for (size_t c = 0; c < w; c += kChunk) {
                        size_t len = std::min(kChunk, w - c);
                        if (!decodePlane(r, plane, len)) return false;
                        for (size_t i = 0; i < len; ++i) {
                            uint8_t* px = dst + 3 * (c + i);
                            uint8_t d = unzig(plane[i]);
                            if (pl == 0) {
                                prev = uint8_t(prev + d);
                                px[1] = prev;
                            } else {
                                uint8_t d1 = uint8_t(px[1] - prev1);
                                prev1 = px[1];
                                uint8_t& out = px[pl == 1 ? 0 : 2];
                                prev = uint8_t(prev + d + d1);
                                out = prev;
                            }
                        }
                    }
                }
            }
            return !r.overrun() && (r.consumed + 7) / 8 == size - 1;
        }
        default:
            return false;
    }
}

// ---------------------------------------------------------------- the store
namespace {

SuperStore* storeOf(const BITMAPRECORD* bm) noexcept { return reinterpret_cast<SuperStore*>(bm->pData); }

void freeRow(SuperStore* s, uint32_t i) noexcept {
    if (s->row[i].data) {
        s->stored -= s->row[i].size;
        memFree(s->row[i].data);
        s->row[i] = SuperRow{};
    }
}

}  // namespace

int32_t superAllocate(BITMAPRECORD* bm) noexcept {
    const int32_t bpp = bm->nBitsPerPixel;
    if (bpp != 1 && bpp != 8 && bpp != 24) return KS_INVALID_BITS_PER_PIXEL;
    auto* s = static_cast<SuperStore*>(memCalloc(sizeof(SuperStore)));
    if (!s) return KS_NO_MEMORY;
    const uint32_t h = uint32_t(bm->nHeight);
    s->row = static_cast<SuperRow*>(memCalloc(size_t(std::max<uint32_t>(h, 1)) * sizeof(SuperRow)));
    if (!s->row) {
        memFree(s);
        return KS_NO_MEMORY;
    }
    s->capacity = std::max<uint32_t>(h, 1);
    s->rows = h;
    bm->pData = reinterpret_cast<uint8_t*>(s);
    bm->hMemory = nullptr;
    return KS_SUCCESS;
}

void superFree(BITMAPRECORD* bm) noexcept {
    SuperStore* s = storeOf(bm);
    if (!s) return;
    for (uint32_t i = 0; i < s->rows; ++i) memFree(s->row[i].data);
    memFree(s->row);
    memFree(s);
    bm->pData = nullptr;
}

int32_t superGetRow(const BITMAPRECORD* bm, int32_t row, uint8_t* dst) noexcept {
    SuperStore* s = storeOf(bm);
    if (!s || uint32_t(row) >= s->rows) return KS_INVALID_BITMAP;
    const size_t raw = pixelBytes(bm->nWidth, bm->nBitsPerPixel);
    const SuperRow& r = s->row[row];
    if (!r.data) {
        std::memset(dst, 0, bm->nBytesPerLine);
        return KS_SUCCESS;
    }
    if (!superDecode(r.data, r.size, bm->nWidth, bm->nBitsPerPixel, dst)) return KS_INTERNAL;
    std::memset(dst + raw, 0, bm->nBytesPerLine - raw);
    return KS_SUCCESS;
}

int32_t superPutRow(BITMAPRECORD* bm, int32_t row, const uint8_t* src) noexcept {
    SuperStore* s = storeOf(bm);
    if (!s || uint32_t(row) >= s->rows) return KS_INVALID_BITMAP;
    const size_t cap = superMaxEncoded(bm->nBytesPerLine);
    uint8_t local[8192];
    UniqueMem<uint8_t> heap;
    uint8_t* buf = local;
    if (cap > sizeof(local)) {
        heap.reset(static_cast<uint8_t*>(memAlloc(cap)));
        if (!heap) return KS_NO_MEMORY;
        buf = heap.get();
    }
    const size_t n = superEncode(src, bm->nWidth, bm->nBitsPerPixel, buf);
    SuperRow& r = s->row[row];
    if (n == 1 && buf[0] == kZero) {
        freeRow(s, uint32_t(row));
        return KS_SUCCESS;
    }
    if (r.data && r.size == n) {
        std::memcpy(r.data, buf, n);
        return KS_SUCCESS;
    }
    auto* data = static_cast<uint8_t*>(memAlloc(n));
    if (!data) return KS_NO_MEMORY;
    std::memcpy(data, buf, n);
    freeRow(s, uint32_t(row));
    r.data = data;
    r.size = uint32_t(n);
    s->stored += n;
    return KS_SUCCESS;
}

int32_t superSetHeight(BITMAPRECORD* bm, int32_t newHeight) noexcept {
    SuperStore* s = storeOf(bm);
    if (!s) return KS_INVALID_BITMAP;
    const uint32_t h = uint32_t(newHeight);
    if (h > s->capacity) {
        void* p = memRealloc(s->row, size_t(h) * sizeof(SuperRow));
        if (!p) return KS_NO_MEMORY;
        s->row = static_cast<SuperRow*>(p);
        std::memset(s->row + s->capacity, 0, size_t(h - s->capacity) * sizeof(SuperRow));
        s->capacity = h;
    }
    for (uint32_t i = h; i < s->rows; ++i) freeRow(s, i);
    s->rows = h;
    return KS_SUCCESS;
}

uint64_t superStoredBytes(const BITMAPRECORD* bm) noexcept {
    SuperStore* s = storeOf(bm);
    return s ? s->stored : 0;
}

}  // namespace krn
