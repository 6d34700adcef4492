// runs.h - the compressed-row format of 1-bit rows.
//
// A compressed row is a 32-bit word count w followed by w 16-bit run lengths
// (native byte order, no alignment assumed): the first run counts 0 pixels,
// the next 1 pixels, and so on; pixels are read most significant bit first.
// No run passes 65535: a run that would is closed at the last whole byte, a
// 0-length run of the other value follows and the run goes on.
//
//   compressBits  pixels -> compressed row; returns bytes written (4 + 2w)
//   expandBits    compressed row -> pixels; runs past `count` are cut, so an
//                 untrusted run list never writes outside [first, first+count)
//   runWords/rowBytes  read the word count of a compressed row
//   maxRowBytes   worst-case size of a compressed row of `count` pixels
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace krn {

constexpr size_t maxRowBytes(uint64_t count) noexcept {
    return size_t(4 + 2 * (count + 4 + 2 * (count / 65528 + 1)));
}
inline uint32_t runWords(const uint8_t* row) noexcept {
    uint32_t w;
    std::memcpy(&w, row, 4);
    return w;
}
inline size_t rowBytes(const uint8_t* row) noexcept { return 4 + 2 * size_t(runWords(row)); }
inline uint16_t runAt(const uint8_t* row, size_t i) noexcept {
    uint16_t v;
    std::memcpy(&v, row + 4 + 2 * i, 2);
    return v;
}

// Compresses `count` pixels starting at bit `first` of src into out.
size_t compressBits(const uint8_t* src, uint64_t first, uint32_t count, uint8_t* out) noexcept;
// Clears bits [first, first+count) of dst and sets the 1-runs of the w run
// words at `runs` (the words only, no count) that fall inside. Returns the
// number of pixels the runs covered (capped at count).
uint64_t expandBits(const uint8_t* runs, uint32_t words, uint8_t* dst, uint64_t first, uint32_t count) noexcept;
// Sum of the runs of a compressed row (64-bit, cannot overflow).
uint64_t runSum(const uint8_t* row) noexcept;

// Bit helpers on MSB-first rows.
void setBitRange(uint8_t* dst, uint64_t first, uint64_t count) noexcept;
void clearBitRange(uint8_t* dst, uint64_t first, uint64_t count) noexcept;
// Copies bits [first, first+count) of src into the same positions of dst.
void mergeBitRange(uint8_t* dst, const uint8_t* src, uint64_t first, uint64_t count) noexcept;

}  // namespace krn
