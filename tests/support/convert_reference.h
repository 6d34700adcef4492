// convert_reference.h - a plain reference buffer converter for the tests, written for clarity, not speed: it reads
// the whole source run into a list of pixels, then writes every destination pixel into a copy of the original bytes.
// It shares no code with the library's converter; only the nearest-colour scan (the palette family's own reference)
// and the tests' pixel packing (storage_kinds.h) are borrowed.
#pragma once

#include <cstdint>
#include <vector>

#include "ombrix.h"

namespace convref {

struct Request {
    int width = 0;
    int srcBits = 24, dstBits = 24;
    int srcOrder = 1, dstOrder = 1;
    const RGBQUAD *srcPal = nullptr, *dstPal = nullptr;
    bool extra = false;
    uint32_t flags = 0;
    int lowBit = -1, highBit = -1;
    uint32_t crTransparent = 0;
    const uint32_t* tree = nullptr;  // colour-match tree (the library's layout)
};

// Expected status of the request: 1, -13 or -16.
int expectedStatus(const Request& r);

// The buffer after a successful conversion: `buffer` holds the original
// bytes (at least the larger run); the result is the same length.
std::vector<uint8_t> convert(const Request& r, const std::vector<uint8_t>& buffer);

// Bytes covered by the destination run.
size_t dstRunBytes(const Request& r);
size_t srcRunBytes(const Request& r);

// Tree lookup by the tree's definition (from the palette, no tree needed).
int treeAnswer(const RGBQUAD* pal, int n, int r, int g, int b);

}  // namespace convref
