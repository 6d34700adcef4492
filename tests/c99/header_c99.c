/* Compiled as strict C99: the public header must be valid C. */
#include "ombrix.h"

int ombrix_c99_probe(void) {
    BITMAPRECORD bm;
    return K_InitBitmap(&bm, BITMAPRECORD_SIZE, 1, 1, 24) == KS_SUCCESS ? 0 : 1;
}
