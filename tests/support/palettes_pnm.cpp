// palettes_pnm.cpp - compiles the ombrix tool's picture-file code (PNM/PAM only: no PNG, JPEG or TIFF library in the
// test binary) into the test binary (it uses only the public API), so test_palette_pnm.cpp can test it.
#include "../../tools/ombrix/image.cpp"
#include "../../tools/ombrix/pnm.cpp"
