// runs.cpp - compressing 1-bit pixels into the compressed-row format and back,
// and the exported compressed-row calls (K_CompressRow(s), K_ExpandRow(s),
// K_MirrorCompressedBuffer, K_FlipCompressedBuffer).
#include "runs.h"

#include <algorithm>
#include <array>

#include "kernel.h"

namespace krn {
namespace {

// Per byte value: its runs, most significant bit first.
struct ByteRuns {
    uint8_t first;   // value of the leftmost pixel
    uint8_t count;   // number of runs (1..8)
    uint8_t len[8];  // run lengths
};

constexpr std::array<ByteRuns, 256> makeTable() {
    std::array<ByteRuns, 256> t{};
    for (int b = 0; b < 256; ++b) {
        ByteRuns r{};
        r.first = uint8_t((b >> 7) & 1);
        int cur = r.first, len = 0;
        for (int i = 7; i >= 0; --i) {
            int bit = (b >> i) & 1;
            if (bit == cur) {
                ++len;
            } else {
                r.len[r.count++] = uint8_t(len);
                cur = bit;
                len = 1;
            }
        }
        r.len[r.count++] = uint8_t(len);
        t[size_t(b)] = r;
    }
    return t;
}
constexpr std::array<ByteRuns, 256> kByteRuns = makeTable();

struct RunWriter {
    uint8_t* out;  // first run word
    uint32_t words = 0;
    uint32_t cur = 0;
    int val = 0;

    void push(uint32_t len) noexcept {
        uint16_t v = uint16_t(len);
        std::memcpy(out + 2 * size_t(words), &v, 2);
        ++words;
    }
    void switchTo(int v) noexcept {
        if (v != val) {
            push(cur);
            cur = 0;
            val = v;
        }
    }
    // A piece of at most 8 pixels (one byte's run or a partial byte's run).
    void add(int v, uint32_t len) noexcept {
        switchTo(v);
        if (cur + len > 65535) {
            push(cur);
            push(0);
            cur = 0;
        }
        cur += len;
    }
    // k whole bytes of the current value.
    void addBytes(uint64_t k) noexcept {
        while (k) {
            uint32_t room = (65535 - cur) >> 3;
            if (room == 0) {
                push(cur);
                push(0);
                cur = 0;
                room = 65535 >> 3;
            }
            uint32_t take = uint32_t(std::min<uint64_t>(k, room));
            cur += take * 8;
            k -= take;
        }
    }
    // Bits [s, e) of byte b, one run at a time.
    void addPartial(uint8_t b, unsigned s, unsigned e) noexcept {
        unsigned i = s;
        while (i < e) {
            int v = (b >> (7 - i)) & 1;
            unsigned j = i + 1;
            while (j < e && ((b >> (7 - j)) & 1) == v) ++j;
            add(v, j - i);
            i = j;
        }
    }
};

inline uint64_t load64(const uint8_t* p) noexcept {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}

}  // namespace

size_t compressBits(const uint8_t* src, uint64_t first, uint32_t count, uint8_t* out) noexcept {
    RunWriter w{out + 4};
    uint64_t pos = first;
    const uint64_t end = first + count;
    if ((pos & 7) && pos < end) {
        unsigned s = unsigned(pos & 7);
        unsigned e = unsigned(std::min<uint64_t>(8, s + (end - pos)));
        w.addPartial(src[pos >> 3], s, e);
        pos += e - s;
    }
    const uint8_t* p = src + (pos >> 3);
    uint64_t bytes = (end - pos) >> 3;
    uint64_t i = 0;
    while (i < bytes) {
        uint8_t b = p[i];
        if (b == 0x00 || b == 0xFF) {
            w.switchTo(b & 1);
            const uint64_t pat = b ? ~uint64_t(0) : 0;
            uint64_t k = i + 1;
            while (k + 8 <= bytes && load64(p + k) == pat) k += 8;
            while (k < bytes && p[k] == b) ++k;
            w.addBytes(k - i);
            i = k;
            continue;
        }
        const ByteRuns& r = kByteRuns[b];
        int v = r.first;
        w.add(v, r.len[0]);
        for (unsigned j = 1; j < r.count; ++j) {
            v ^= 1;
            w.switchTo(v);
            w.cur = r.len[j];  // a fresh run of at most 7 pixels
        }
        ++i;
    }
    pos += bytes * 8;
    if (pos < end) w.addPartial(src[pos >> 3], 0, unsigned(end - pos));
    w.push(w.cur);
    std::memcpy(out, &w.words, 4);
    return 4 + 2 * size_t(w.words);
}

void setBitRange(uint8_t* dst, uint64_t first, uint64_t count) noexcept {
    if (!count) return;
    uint64_t last = first + count - 1;
    uint64_t b0 = first >> 3, b1 = last >> 3;
    uint8_t m0 = uint8_t(0xFFu >> (first & 7));
    uint8_t m1 = uint8_t(0xFFu << (7 - (last & 7)));
    if (b0 == b1) {
        dst[b0] |= uint8_t(m0 & m1);
        return;
    }
    dst[b0] |= m0;
    if (b1 > b0 + 1) std::memset(dst + b0 + 1, 0xFF, size_t(b1 - b0 - 1));
    dst[b1] |= m1;
}

void clearBitRange(uint8_t* dst, uint64_t first, uint64_t count) noexcept {
    if (!count) return;
    uint64_t last = first + count - 1;
    uint64_t b0 = first >> 3, b1 = last >> 3;
    uint8_t m0 = uint8_t(0xFFu >> (first & 7));
    uint8_t m1 = uint8_t(0xFFu << (7 - (last & 7)));
    if (b0 == b1) {
        dst[b0] &= uint8_t(~(m0 & m1));
        return;
    }
    dst[b0] &= uint8_t(~m0);
    if (b1 > b0 + 1) std::memset(dst + b0 + 1, 0, size_t(b1 - b0 - 1));
    dst[b1] &= uint8_t(~m1);
}

void mergeBitRange(uint8_t* dst, const uint8_t* src, uint64_t first, uint64_t count) noexcept {
    if (!count) return;
    uint64_t last = first + count - 1;
    uint64_t b0 = first >> 3, b1 = last >> 3;
    uint8_t m0 = uint8_t(0xFFu >> (first & 7));
    uint8_t m1 = uint8_t(0xFFu << (7 - (last & 7)));
    if (b0 == b1) {
        uint8_t m = uint8_t(m0 & m1);
        dst[b0] = uint8_t((dst[b0] & ~m) | (src[b0] & m));
        return;
    }
    dst[b0] = uint8_t((dst[b0] & ~m0) | (src[b0] & m0));
    if (b1 > b0 + 1) std::memcpy(dst + b0 + 1, src + b0 + 1, size_t(b1 - b0 - 1));
    dst[b1] = uint8_t((dst[b1] & ~m1) | (src[b1] & m1));
}

uint64_t expandBits(const uint8_t* runs, uint32_t words, uint8_t* dst, uint64_t first, uint32_t count) noexcept {
    clearBitRange(dst, first, count);
    uint64_t pos = 0;
    for (uint32_t i = 0; i < words && pos < count; ++i) {
        uint16_t len;
        std::memcpy(&len, runs + 2 * size_t(i), 2);
        if ((i & 1) && len) setBitRange(dst, first + pos, std::min<uint64_t>(len, count - pos));
        pos += len;
    }
    return std::min<uint64_t>(pos, count);
}

uint64_t runSum(const uint8_t* row) noexcept {
    uint32_t w = runWords(row);
    uint64_t s = 0;
    for (uint32_t i = 0; i < w; ++i) s += runAt(row, i);
    return s;
}

}  // namespace krn

using namespace krn;

KAPI int32_t K_CompressRow(uint8_t* pRuns, const uint8_t* pSrc, int32_t nFirst, int32_t nPixels) {
    if (!pRuns || !pSrc || nFirst < 0 || nPixels < 0) return KS_INVALID_PARAMETER;
    compressBits(pSrc, uint64_t(nFirst), uint32_t(nPixels), pRuns);
    return KS_SUCCESS;
}

KAPI int32_t K_CompressRows(uint8_t* pRuns, const uint8_t* pSrc, int32_t nWidth, int32_t nRows) {
    if (nRows == 0) return KS_SUCCESS;
    if (!pRuns || !pSrc || nWidth < 0 || nRows < 0) return KS_INVALID_PARAMETER;
    uint32_t bpl;
    if (!bytesPerLine(nWidth, 1, &bpl)) return KS_INVALID_PARAMETER;
    uint8_t* out = pRuns;
    for (int32_t r = 0; r < nRows; ++r) out += compressBits(pSrc + size_t(r) * bpl, 0, uint32_t(nWidth), out);
    return KS_SUCCESS;
}

KAPI int32_t K_ExpandRow(const uint8_t* pRuns, uint8_t* pDst, int32_t nFirst, int32_t nPixels) {
    if (!pRuns || !pDst || nFirst < 0 || nPixels < 0) return KS_INVALID_PARAMETER;
    expandBits(pRuns + 4, runWords(pRuns), pDst, uint64_t(nFirst), uint32_t(nPixels));
    return KS_SUCCESS;
}

KAPI int32_t K_ExpandRows(const uint8_t* pRuns, uint8_t* pDst, int32_t nWidth, int32_t nRows) {
    if (nRows == 0) return KS_SUCCESS;
    if (!pRuns || !pDst || nWidth < 0 || nRows < 0) return KS_INVALID_PARAMETER;
    uint32_t bpl;
    if (!bytesPerLine(nWidth, 1, &bpl)) return KS_INVALID_PARAMETER;
    const uint8_t* in = pRuns;
    for (int32_t r = 0; r < nRows; ++r) {
        uint8_t* row = pDst + size_t(r) * bpl;
        std::memset(row, 0, bpl);
        uint32_t w = runWords(in);
        expandBits(in + 4, w, row, 0, uint32_t(nWidth));
        in += 4 + 2 * size_t(w);
    }
    return KS_SUCCESS;
}

KAPI int32_t K_MirrorCompressedBuffer(const uint8_t* pSrc, uint8_t* pDst, int32_t nRows) {
    if (!pSrc || !pDst) return KS_INVALID_PARAMETER;
    if (nRows <= 0) return nRows == 0 ? KS_SUCCESS : KS_INVALID_PARAMETER;
    const uint8_t* in = pSrc;
    uint8_t* out = pDst;
    for (int32_t r = 0; r < nRows; ++r) {
        const uint32_t w = runWords(in);
        const bool dropFirst = w > 0 && runAt(in, 0) == 0;
        const bool evenCount = (w & 1) == 0;
        uint32_t nw = w - (dropFirst ? 1 : 0) + (evenCount ? 1 : 0);
        std::memcpy(out, &nw, 4);
        uint8_t* o = out + 4;
        if (evenCount) {
            const uint16_t zero = 0;
            std::memcpy(o, &zero, 2);
            o += 2;
        }
        const uint32_t stop = dropFirst ? 1 : 0;
        for (uint32_t i = w; i > stop; --i) {
            std::memcpy(o, in + 4 + 2 * size_t(i - 1), 2);
            o += 2;
        }
        in += 4 + 2 * size_t(w);
        out += 4 + 2 * size_t(nw);
    }
    return KS_SUCCESS;
}

KAPI int32_t K_FlipCompressedBuffer(const uint8_t* pSrc, uint8_t* pDst, int32_t nRows) {
    if (!pSrc || !pDst) return KS_INVALID_PARAMETER;
    if (nRows <= 0) return nRows == 0 ? KS_SUCCESS : KS_INVALID_PARAMETER;
    size_t total = 0;
    const uint8_t* in = pSrc;
    for (int32_t r = 0; r < nRows; ++r) {
        size_t n = rowBytes(in);
        total += n;
        in += n;
    }
    size_t off = 0;
    in = pSrc;
    for (int32_t r = 0; r < nRows; ++r) {
        size_t n = rowBytes(in);
        std::memmove(pDst + (total - off - n), in, n);
        off += n;
        in += n;
    }
    return KS_SUCCESS;
}
