/* A tiny program built against an installed Ombrix. */
#include <ombrix.h>
#include <stdio.h>

int main(void) {
    BITMAPRECORD bm;
    wchar_t msg[128];
    int32_t rc = K_CreateBitmap(&bm, BITMAPRECORD_SIZE, MEMTYPE_CONVENTIONAL, 64, 32, 24, ORDER_BGR, NULL, TOP_LEFT,
                                NULL, 0);
    if (rc != KS_SUCCESS) return printf("create failed: %d\n", rc), 1;
    K_GetFriendlyErrorMessage(KS_INVALID_PARAMETER, msg, 128, NULL);
    printf("consumer ok: %dx%d, %u bytes per line, -13 is \"%ls\"\n", bm.nWidth, bm.nHeight, bm.nBytesPerLine, msg);
    return K_FreeBitmap(&bm) == KS_SUCCESS ? 0 : 1;
}
