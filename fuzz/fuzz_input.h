// fuzz_input.h - reading parameters from a fuzz input: bytes run out as 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#define FUZZ_CHECK(c) ((c) ? void(0) : std::abort())  // an expression: also after `return`

namespace fuzzinput {

struct Input {
    const uint8_t* p;
    size_t n, i = 0;
    bool more() const { return i < n; }
    uint8_t byte() { return i < n ? p[i++] : 0; }
    uint32_t u16() { return uint32_t(byte()) | uint32_t(byte()) << 8; }
    uint32_t u32() {
        uint32_t v = 0;
        for (int k = 0; k < 4; ++k) v |= uint32_t(byte()) << (8 * k);
        return v;
    }
    const uint8_t* rest() const { return p + i; }
    size_t left() const { return n - i; }
};

}  // namespace fuzzinput
