// fuzz_convert.cpp - the buffer converter with random depths, orders, flags, bit windows, widths, palettes
// and colour-match trees on buffers and palettes of exactly the size the call needs (the address sanitizer
// sees any access past them). Input: 0 source depth, 1 destination depth, 2 source order, 3 destination
// order, 4 flags, 5 low bit, 6 high bit, 7-8 width, 9 options (bit 0 extra pointer, bit 1 source palette,
// bit 2 destination palette, bit 3 tree), 10-13 transparent colour, then pixel bytes (repeated to fill).
#include <algorithm>
#include <vector>

#include "fuzz_input.h"
#include "krn/common/convert.h"
#include "ombrix.h"

namespace {

// Mostly accepted depths and orders; now and then any value.
int depthOf(uint8_t b) {
    static const int depths[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};
    return b < 240 ? depths[b % 15] : int(int8_t(b)) * 3;
}
int orderOf(uint8_t b) {
    static const int orders[] = {0, 1, 2, 5, 7};
    return b < 250 ? orders[b % 5] : int(int8_t(b));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzinput::Input in{data, size};
    const int sb = depthOf(in.byte()), db = depthOf(in.byte()), so = orderOf(in.byte()), dO = orderOf(in.byte());
    const uint32_t flags = in.byte();
    const int lo = int(int8_t(in.byte())) % 40, hi = int(int8_t(in.byte())) % 70;
    const int low = in.byte(), width = low | int(in.byte() & 0x0F) << 8;  // 0..4095
    const uint8_t options = in.byte();
    const uint32_t cr = in.u32();

    // Exactly the bytes the call needs (at least one, so the pointer is valid).
    const size_t bytes = std::max<size_t>(krn::convertBufferBytes(width, sb < 0 ? 8 : sb, db < 0 ? 8 : db), 1);
    std::vector<uint8_t> buf(bytes);
    const size_t rest = in.left();
    for (size_t i = 0; i < bytes; ++i) buf[i] = rest ? in.rest()[i % rest] : uint8_t(i * 37);

    std::vector<RGBQUAD> spal((options & 2) && sb >= 1 && sb <= 8 ? size_t(1) << sb : 0);
    std::vector<RGBQUAD> dpal((options & 4) && db >= 1 && db <= 8 ? size_t(1) << db : 0);
    for (size_t i = 0; i < spal.size(); ++i) spal[i] = RGBQUAD{uint8_t(i * 7), uint8_t(i * 13), uint8_t(i), 0};
    for (size_t i = 0; i < dpal.size(); ++i) dpal[i] = RGBQUAD{uint8_t(i * 29), uint8_t(255 - i), uint8_t(i * 3), 0};
    uint32_t* tree = nullptr;
    if ((options & 8) && db >= 1 && db <= 8) {
        const RGBQUAD* p = dpal.empty() ? K_IntGetFixedPalette(db) : dpal.data();
        tree = krn::buildColorMatchTree(p, 1 << db);
    }

    const std::vector<uint8_t> before = buf;
    int extra = 0;
    const int st = krn::convertBuffer(buf.data(), width, sb, db, so, dO, spal.empty() ? nullptr : spal.data(),
                                dpal.empty() ? nullptr : dpal.data(), (options & 1) ? &extra : nullptr, flags, lo,
                                hi, cr, tree);
    krn::freeColorMatchTree(tree);
    FUZZ_CHECK(st == KS_SUCCESS || st == KS_INVALID_PARAMETER || st == KS_NOT_SUPPORTED);
    FUZZ_CHECK(st != KS_INVALID_PARAMETER || buf == before);  // a rejected call leaves every byte as it was
    fuzzinput::touch(buf, uint32_t(extra));
    return 0;
}
