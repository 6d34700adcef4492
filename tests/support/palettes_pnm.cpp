// palettes_pnm.cpp - compiles the ombrix tool's PNM/PAM code into the test
// binary (it uses only the public API), so test_palette_pnm.cpp can test it.
#include "../../tools/ombrix/pnm.cpp"
