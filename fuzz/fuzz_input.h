// fuzz_input.h - reading parameters from a fuzz input: bytes run out as 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#define FUZZ_CHECK(c) ((c) ? void(0) : std::abort())  // an expression: also after `return`

namespace fuzzinput {

struct Input {
    const uint8_t* p;
    size_t n, i = 0;
    bool more() const { return i < n; }
    uint8_t byte() { return i < n ? p[i++] : 0; }
    uint32_t u16() { return uint32_t(byte()) | uint32_t(byte()) << 8; }
    uint32_t u32() { const uint32_t lo = u16(); return lo | u16() << 16; }  // (in this order)
    template <class T, size_t N> T pick(const T (&t)[N]) { return t[byte() % N]; }
    // A value of the next sizeof(T) bytes (those past the end read as 0).
    template <class T> T get() {
        T v{};
        const size_t k = left() < sizeof(T) ? left() : sizeof(T);
        std::memcpy(&v, rest(), k);
        return i += k, v;
    }
    const uint8_t* rest() const { return p + i; }
    size_t left() const { return n - i; }
};

// Every byte of a result is read (a memory sanitizer then sees any byte left unwritten).
template <class Bytes> void touch(const Bytes& b, uint32_t fold = 0) {
    for (uint8_t v : b) fold = fold * 31u + v;
    [[maybe_unused]] static volatile uint32_t sink;
    sink = fold;
}

}  // namespace fuzzinput
