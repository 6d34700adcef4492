/*
 * ombrix.h - the public interface of the Ombrix pixel kernel (libOmbrix.Native).
 *
 * One header for the whole library. It compiles as C99 and as C++.
 * Every function returns a signed 32-bit status (KS_SUCCESS = 1 on success,
 * a negative KS_ code on failure) unless its comment says otherwise, and no
 * function lets an exception escape.
 *
 * The header is laid out by family; each family keeps to its own section.
 */
#ifndef OMBRIX_H
#define OMBRIX_H

#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

#if defined(OMBRIX_BUILDING_LIBRARY)
#  define OMBRIX_API __attribute__((visibility("default")))
#else
#  define OMBRIX_API
#endif

#define OMBRIX_VERSION_MAJOR 1
#define OMBRIX_VERSION_MINOR 0
#define OMBRIX_VERSION_PATCH 0
#define OMBRIX_VERSION_STRING "1.0.0"

#ifdef __cplusplus
extern "C" {
#endif

/* ======================================================================
 * Section: core types
 * ====================================================================== */

/* Win32-shaped value types. Defined here so that the library needs no
 * platform header; a program that already has them from elsewhere defines
 * OMBRIX_HAVE_WIN32_TYPES before including this header. */
#ifndef OMBRIX_HAVE_WIN32_TYPES
typedef int32_t BOOL;
typedef struct tagRGBQUAD {
    uint8_t rgbBlue;
    uint8_t rgbGreen;
    uint8_t rgbRed;
    uint8_t rgbReserved;
} RGBQUAD;
typedef struct tagRECT {
    int32_t left;
    int32_t top;
    int32_t right;  /* exclusive */
    int32_t bottom; /* exclusive */
} RECT;
typedef struct tagPOINT {
    int32_t x;
    int32_t y;
} POINT;
typedef struct tagSIZE {
    int32_t cx;
    int32_t cy;
} SIZE;
/* Emulated object handles: pointers to small kernel blocks whose first word
 * is the object kind (1 palette, 3 global memory, 4 region). Null and
 * all-ones values are never valid. */
typedef struct OmbrixObject_* HRGN;
typedef struct OmbrixObject_* HPALETTE;
typedef struct OmbrixObject_* HGDIOBJ;
typedef void* HGLOBAL;
#endif

/* ======================================================================
 * Section: status codes
 * ====================================================================== */
#define KS_SUCCESS                 1
#define KS_FAILURE                 0
#define KS_SUCCESS_ABORT           2     /* "Successful. You can quit now" */
#define KS_SUCCESS_DELETE_FILE     3
#define KS_SUCCESS_RETRY           4
#define KS_NO_MEMORY              (-1)
#define KS_INVALID_BITMAP         (-2)
#define KS_MEMORY_TOO_LOW         (-3)
#define KS_FILE_SEEK              (-4)
#define KS_FILE_WRITE             (-5)
#define KS_FILE_GONE              (-6)
#define KS_FILE_READ              (-7)
#define KS_INVALID_FILENAME       (-8)
#define KS_FILE_NOT_FOUND         (-10)
#define KS_INVALID_DIMENSIONS     (-11)
#define KS_INVALID_PARAMETER      (-13)
#define KS_FILE_OPEN              (-14)
#define KS_UNKNOWN_COMPRESSION    (-15)
#define KS_NOT_SUPPORTED          (-16)
#define KS_INVALID_COMPRESSION    (-23)
#define KS_INVALID_BITS_PER_PIXEL (-27)
#define KS_INTERNAL               (-74)
#define KS_USER_ABORT             (-100)
#define KS_IMAGE_EMPTY            (-144)
#define KS_INVALID_HANDLE         (-261)
#define KS_BUFFER_TOO_SMALL       (-290)
#define KS_NOTHING_TO_DO          (-351)
#define KS_TAG_NOT_FOUND          (-404)
#define KS_INVALID_STRUCT_SIZE    (-789)
#define KS_UNSUPPORTED_CONVERSION (-794)
#define KS_NULL_POINTER           (-814)
#define KS_NO_OVERLAY             (-815)
#define KS_INVALID_LUT_LENGTH     (-1486)
#define KS_INVALID_DIB            (-1491)
#define KS_INVALID_FILE_HANDLE    (-1852)
#define KS_MEMORY_CAP_EXCEEDED    (-1905)
#define KS_BITMAP_TOO_BIG         (-1906)
#define KS_FLOAT_NOT_SUPPORTED    (-1927)

/* ======================================================================
 * Section: the bitmap record
 * ====================================================================== */

/* Layout identifiers stored in uStructSize. They name a layout, not a byte
 * count: on a 64-bit build the record is larger than 216 bytes because its
 * pointers are 8 bytes wide. */
#define BITMAPRECORD_SIZE      216u  /* current layout */
#define BITMAPRECORD_SIZE_OLD  176u  /* older layout: the prefix up to and including uExtraDataSize */

/* uFlags bits */
#define BRF_ALLOCATED        0x0001u
#define BRF_CONVENTIONAL     0x0002u
#define BRF_DISK             0x0004u
#define BRF_LOCKED           0x0010u
#define BRF_COMPRESSED       0x0100u
#define BRF_USER_MEMORY      0x0400u
#define BRF_MOVABLE_BLOCK    0x1000u
#define BRF_TILED            0x4000u
#define BRF_SUPERCOMPRESSED  0x8000u
#define BRF_STORAGE_MASK     0xD517u
#define BRF_UNCLIPPED_RGN    0x10000u /* the region is kept as given, not clipped to the bitmap */

/* Colour orders */
#define ORDER_RGB     0
#define ORDER_BGR     1
#define ORDER_GRAY    2
#define ORDER_ROMM    5   /* 24/48-bit only: a further set of primaries */
#define ORDER_RGB565  7   /* 16-bit 5-6-5 */

/* Memory types (a bit set) */
#define MEMTYPE_CONVENTIONAL      1u
#define MEMTYPE_USER              2u
#define MEMTYPE_DISK              4u
#define MEMTYPE_NO_TILES          8u
#define MEMTYPE_NO_CONVENTIONAL 128u
#define MEMTYPE_NO_DISK         256u
#define MEMTYPE_COMPRESSED      512u
#define MEMTYPE_SUPERCOMPRESSED 1024u

/* View perspectives (TIFF Orientation values) */
#define TOP_LEFT     1
#define TOP_RIGHT    2
#define BOTTOM_RIGHT 3
#define BOTTOM_LEFT  4
#define LEFT_TOP     5
#define RIGHT_TOP    6
#define RIGHT_BOTTOM 7
#define LEFT_BOTTOM  8

struct BITMAPDATACALLBACKS_;

typedef struct BITMAPRECORD_ {
    uint32_t  uStructSize;       /* BITMAPRECORD_SIZE or BITMAPRECORD_SIZE_OLD */
    void*     hMemory;           /* storage: memory block, temporary file, ... */
    uint8_t*  pData;             /* meaning depends on the storage kind */
    int32_t   nWidth;
    int32_t   nHeight;
    int32_t   nBitsPerPixel;     /* 1..8, 12, 16, 24, 32, 48, 64 */
    uint32_t  nBytesPerLine;     /* rows padded to 4 bytes */
    uint32_t  uReserved1[2];
    uint32_t  uFlags;            /* BRF_ bits */
    int32_t   nColors;           /* palette entries (2^bits up to 8 bits, else 0) */
    RGBQUAD*  pPalette;          /* global memory block owned by the record */
    int32_t   nViewPerspective;  /* 1..8 */
    int32_t   nOrder;            /* ORDER_ value */
    uint32_t  uSize;             /* data size (low 32 bits in the current layout) */
    void*     pDitherState;      /* state of a dithering run */
    int32_t   nDitheringMethod;
    HRGN      hRgn;              /* region attached to the bitmap */
    int32_t   nXResolution;
    int32_t   nYResolution;
    uint32_t  uDisplay[6];       /* kept for the display and transform families */
    int32_t   nLowBit;
    int32_t   nHighBit;
    void*     pLUT;              /* lookup table, global memory block owned by the record */
    int32_t   nLUTLength;
    uint32_t  uDataOffset;       /* offset of the first pixel in the storage block */
    int32_t   nReserved2[2];
    int32_t   nMinBit;
    int32_t   nMaxBit;
    int32_t   nLevel;            /* 100 after initialisation */
    uint32_t  uReserved3[3];
    void*     pOverlays;
    uint32_t  uReserved4;
    void*     pExtraData;        /* global memory block owned by the record */
    uint32_t  uExtraDataSize;
    /* ---- the older layout (BITMAPRECORD_SIZE_OLD) ends here ---- */
    uint32_t  uReserved5[2];
    void*     hListBlock;        /* a block released when an older-layout copy leaves a bitmap list */
    uint64_t  uSize64;           /* data size in bytes */
    uint32_t  uReserved6[2];
    int32_t   nLockCount;        /* outstanding K_AccessBitmap calls */
    struct BITMAPDATACALLBACKS_* pCallbacks;
} BITMAPRECORD;

/* Bytes of a record that a layout identifier covers on this build, or 0 for
 * an unknown identifier. The older layout ends at the end of uExtraDataSize. */
#define OMBRIX_RECORD_BYTES_OLD (offsetof(BITMAPRECORD, uExtraDataSize) + sizeof(uint32_t))
#define OMBRIX_RECORD_BYTES(id) \
    ((id) == BITMAPRECORD_SIZE ? sizeof(BITMAPRECORD) : \
     (id) == BITMAPRECORD_SIZE_OLD ? OMBRIX_RECORD_BYTES_OLD : (size_t)0)

/* Data callbacks of a bitmap: eleven words in the original 32-bit design,
 * identified by uStructSize 44. Each callback answers 1 (carry on), 2 (the
 * callback did the work) or an error code. */
#define BITMAPDATACALLBACKS_SIZE 44u
typedef struct BITMAPALLOCINFO_ BITMAPALLOCINFO;
typedef int32_t (*PFN_BITMAPALLOCATE)(BITMAPRECORD* pBitmap, BITMAPALLOCINFO* pInfo, void* pUserData);
typedef int32_t (*PFN_BITMAPFREE)(BITMAPRECORD* pBitmap, void* pUserData);
typedef int32_t (*PFN_BITMAPACCESS)(BITMAPRECORD* pBitmap, void* pUserData);
typedef int32_t (*PFN_BITMAPRELEASE)(BITMAPRECORD* pBitmap, void* pUserData);
typedef int32_t (*PFN_BITMAPGETROW)(BITMAPRECORD* pBitmap, uint8_t* pBuffer, int32_t nRow,
                                    uint32_t uBytes, void* pUserData);
typedef struct BITMAPDATACALLBACKS_ {
    uint32_t           uStructSize;   /* BITMAPDATACALLBACKS_SIZE */
    void*              pUserData;
    PFN_BITMAPALLOCATE pfnAllocate;
    PFN_BITMAPFREE     pfnFree;
    void*              pReserved1[2];
    PFN_BITMAPACCESS   pfnAccess;
    PFN_BITMAPRELEASE  pfnRelease;
    PFN_BITMAPGETROW   pfnGetRow;
    void*              pReserved2[2];
} BITMAPDATACALLBACKS;

/* Allocation information handed to the allocation callbacks (size word 48). */
#define BITMAPALLOCINFO_SIZE 48u
struct BITMAPALLOCINFO_ {
    uint32_t uStructSize;     /* BITMAPALLOCINFO_SIZE */
    uint32_t uReserved;
    uint32_t uMemoryType;     /* in and out */
    int32_t  nWidth;
    int32_t  nHeight;
    int32_t  nBitsPerPixel;
    uint32_t nBytesPerLine;   /* filled for the data callback only */
    int32_t  nOrder;
    int32_t  nViewPerspective;
    uint64_t uDataSize;
    void*    pExtra;          /* the palette passed to K_CreateBitmap */
};

/* ======================================================================
 * Section: record operations
 * ====================================================================== */
OMBRIX_API int32_t K_InitBitmap(BITMAPRECORD* pBitmap, uint32_t uStructSize,
                                int32_t nWidth, int32_t nHeight, int32_t nBitsPerPixel);
OMBRIX_API int32_t K_InitBitmapWithCallbacks(BITMAPRECORD* pBitmap, uint32_t uStructSize,
                                             int32_t nWidth, int32_t nHeight, int32_t nBitsPerPixel,
                                             const BITMAPDATACALLBACKS* pCallbacks);
OMBRIX_API int32_t K_CreateBitmap(BITMAPRECORD* pBitmap, uint32_t uStructSize, uint32_t uMemoryType,
                                  int32_t nWidth, int32_t nHeight, int32_t nBitsPerPixel,
                                  int32_t nOrder, const RGBQUAD* pPalette, int32_t nViewPerspective,
                                  void* pData, uint64_t uDataSize);
OMBRIX_API int32_t K_CreateBitmapWithCallbacks(BITMAPRECORD* pBitmap, uint32_t uStructSize,
                                               uint32_t uMemoryType, int32_t nWidth, int32_t nHeight,
                                               int32_t nBitsPerPixel, int32_t nOrder,
                                               const RGBQUAD* pPalette, int32_t nViewPerspective,
                                               void* pData, uint64_t uDataSize,
                                               const BITMAPDATACALLBACKS* pCallbacks);
/* Releases everything the record owns; null or a bad size word is ignored. Returns 1. */
OMBRIX_API int32_t K_FreeBitmap(BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_SetBitmapDataPointer(BITMAPRECORD* pBitmap, void* pData, uint64_t uDataSize);
OMBRIX_API int32_t K_ChangeBitmapHeight(BITMAPRECORD* pBitmap, int32_t nHeight);

/* Data callbacks: the table is copied into a block the record owns.
 * A table whose size word is not BITMAPDATACALLBACKS_SIZE gives -789, and so
 * does a table for a record in the older layout (it has no place for one).
 * Null removes the callbacks. */
OMBRIX_API int32_t K_SetBitmapDataCallbacks(BITMAPRECORD* pBitmap, const BITMAPDATACALLBACKS* pCallbacks);
OMBRIX_API int32_t K_GetBitmapDataCallbacks(const BITMAPRECORD* pBitmap, BITMAPDATACALLBACKS* pCallbacks);

/* Storage of an initialised record (memory type bit set, MEMTYPE_). */
OMBRIX_API int32_t K_AllocateBitmap(BITMAPRECORD* pBitmap, uint32_t uMemoryType);
/* Bracket direct use of pData; they nest. */
OMBRIX_API int32_t K_AccessBitmap(BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_ReleaseBitmap(BITMAPRECORD* pBitmap);

/* Per-thread defaults. The setters return the previous value. */
OMBRIX_API int32_t K_SetDefaultXResolution(int32_t nResolution);
OMBRIX_API int32_t K_SetDefaultYResolution(int32_t nResolution);
OMBRIX_API int32_t K_GetDefaultXResolution(void);
OMBRIX_API int32_t K_GetDefaultYResolution(void);

/* ======================================================================
 * Section: messages
 * ====================================================================== */
/* Writes the message of nCode into pszBuffer (at most min(nBufferChars, 1024)
 * wide characters including the terminator). When pszLibName is not null it
 * receives the name of the library that defines the code (at most
 * nBufferChars characters). Returns -13 for a null buffer, else 1. */
OMBRIX_API int32_t K_GetFriendlyErrorMessage(int32_t nCode, wchar_t* pszBuffer, uint32_t nBufferChars,
                                             wchar_t* pszLibName);
/* Library identifiers */
#define OMBRIX_LIB_KERNEL     0
#define OMBRIX_LIB_FILEIO     1
#define OMBRIX_LIB_DIALOGS    2
#define OMBRIX_LIB_ANNOTATION 3
#define OMBRIX_LIB_COLOR      4
#define OMBRIX_LIB_UNKNOWN   (-1)
/* Tells which library of the toolkit defines nCode: *pnLibId receives an
 * OMBRIX_LIB_ value and *pbKnown 1 when the code has a message. Either
 * pointer may be null. Returns 1. */
OMBRIX_API int32_t K_GetLibIdFromErrorCode(int32_t nCode, int32_t* pnLibId, int32_t* pbKnown);

/* ======================================================================
 * Section: kernel services (global memory, progress callbacks)
 * ====================================================================== */
#define GMEM_FIXED     0x0000u
#define GMEM_MOVEABLE  0x0002u
#define GMEM_ZEROINIT  0x0040u
#define GHND           (GMEM_MOVEABLE | GMEM_ZEROINIT)
#define GPTR           (GMEM_FIXED | GMEM_ZEROINIT)

/* A fixed block's handle is its data pointer; a movable block's handle is an
 * emulated object that K_GlobalLock turns into the data pointer. K_GlobalFree
 * returns null on success and the handle when it is not a live block. */
OMBRIX_API HGLOBAL K_GlobalAlloc(uint32_t uFlags, size_t uBytes);
OMBRIX_API HGLOBAL K_GlobalReAlloc(HGLOBAL hMem, size_t uBytes, uint32_t uFlags);
OMBRIX_API HGLOBAL K_GlobalFree(HGLOBAL hMem);
OMBRIX_API void*   K_GlobalLock(HGLOBAL hMem);
OMBRIX_API BOOL    K_GlobalUnlock(HGLOBAL hMem);
OMBRIX_API size_t  K_GlobalSize(HGLOBAL hMem);

/* Progress callbacks, per thread. Long operations call them with whole
 * percentages; any answer but 1 stops the operation and becomes its result. */
typedef int32_t (*STATUSCALLBACK)(int32_t nPercent, void* pUserData);
OMBRIX_API int32_t K_SetStatusCallBack(STATUSCALLBACK pfnCallback, void* pUserData,
                                       STATUSCALLBACK* ppfnOld, void** ppOldUserData);
OMBRIX_API int32_t K_GetStatusCallBack(STATUSCALLBACK* ppfnCallback, void** ppUserData);
OMBRIX_API int32_t K_SetCopyStatusCallBack(STATUSCALLBACK pfnCallback, void* pUserData,
                                           STATUSCALLBACK* ppfnOld, void** ppOldUserData);
OMBRIX_API int32_t K_GetCopyStatusCallBack(STATUSCALLBACK* ppfnCallback, void** ppUserData);

/* Library information: version and build options as text. */
OMBRIX_API const char* K_GetVersionString(void);
OMBRIX_API uint32_t    K_GetCpuFeatures(void);   /* bit 0 SSE2, bit 1 SSSE3, bit 2 SSE4.1, bit 3 AVX2 */
OMBRIX_API int32_t     K_GetProcessorCount(void);

/* ======================================================================
 * Section: palettes
 * ====================================================================== */
/* Fills the caller's array with the fixed palette of a depth 1..8 (0: the
 * 256-level grey ramp). -13 for a null array or a depth above 8. */
OMBRIX_API int32_t K_GetFixedPalette(RGBQUAD* pPalette, int32_t nBitsPerPixel);
/* The kernel's constant fixed palette of a depth 1..8, null otherwise. Read only. */
OMBRIX_API const RGBQUAD* K_IntGetFixedPalette(int32_t nBitsPerPixel);
/* The constant 256-entry web palette (216 colours, then black). Read only. */
OMBRIX_API const RGBQUAD* K_IntGetNetscapePalette(void);
/* A grey ramp of 2^n entries (n = 0 counts as 8) in a block from
 * K_GlobalAlloc; free it with K_GlobalFree. Null on failure. */
OMBRIX_API RGBQUAD* K_CreateGrayPalette(int32_t nBitsPerPixel);
/* Index of the palette entry nearest to (R, G, B); 0 for a null palette,
 * -1 for nColors <= 0. Components outside 0..255 are clamped first. Black
 * and white targets look at the first and last entries first (black prefers
 * entry 0, white the last entry); otherwise the smallest squared distance
 * wins, the earliest entry on a tie unless a later one shares the target's
 * hue class, and the first exact match ends the search. */
OMBRIX_API int32_t K_FindPaletteIndex(const RGBQUAD* pPalette, int32_t nColors, int32_t nRed,
                                      int32_t nGreen, int32_t nBlue);

/* Grey classification of nColors entries: 0 not grey, 1 ramp ascending from
 * black, 2 ramp descending from white, 3 grey but not an evenly stepped ramp.
 * The expected ramp adds the truncated step 255 / (nColors - 1) at each
 * entry, so an 8-entry ramp from K_CreateGrayPalette(3) gives 3. With
 * nColors 0 or 1 the first entry decides (0 -> 1, 255 -> 2, else 3), so the
 * array must hold at least one entry. -13 for a null palette or nColors < 0. */
OMBRIX_API int32_t K_IsGrayScalePalette(const RGBQUAD* pPalette, int32_t nColors);
/* Grey classification of a bitmap. Depths 1..8: its colours (its palette,
 * or the fixed palette of its depth when it has none), and a ramp with fewer
 * entries than 2^depth gives 3. Deeper bitmaps: 0 unless the order is grey;
 * a grey bitmap without a lookup table gives 1, one with a table (pLUT,
 * nLUTLength RGBQUAD entries) gives 0 if an entry is coloured, 1 if the
 * table never falls, 2 if it never rises, else 3. -13 null, -789 size word. */
OMBRIX_API int32_t K_IntIsGrayScaleBitmap(const BITMAPRECORD* pBitmap);

/* The fixed palette of a depth 1..8 (0: the 256-level grey ramp) in a new
 * block from K_GlobalAlloc (GMEM_FIXED); free it with K_GlobalFree. Null for
 * a bad depth or when memory runs out. */
OMBRIX_API RGBQUAD* K_CreateFixedPalette(int32_t nBitsPerPixel);
/* A copy of nColors (1..65536) entries in a new K_GlobalAlloc block; null
 * for a null palette, a bad count or when memory runs out. */
OMBRIX_API RGBQUAD* K_DupPalette(const RGBQUAD* pPalette, int32_t nColors);

/* User match table: 32768 words indexed by (R >> 3) << 10 | (G >> 3) << 5 |
 * (B >> 3), each holding K_FindPaletteIndex(...) + 1 for the grid colour
 * (component * 8, so 0..248). The caller owns it. Null for a null palette,
 * nColors < 1, or when memory runs out. */
#define USER_MATCH_TABLE_ENTRIES 32768
OMBRIX_API uint32_t* K_CreateUserMatchTable(const RGBQUAD* pPalette, int32_t nColors);
/* Frees a table (null allowed) and returns 1. If the table is installed on
 * the calling thread (or in the process-wide block) it is uninstalled there
 * first; other threads must uninstall it themselves before it is freed. */
OMBRIX_API int32_t K_FreeUserMatchTable(uint32_t* pTable);
/* Installs a table (null removes it) for the calling thread and returns the
 * table installed before (the caller's own, so it comes back writable and
 * can be passed to K_FreeUserMatchTable). The kernel never frees an
 * installed table and never writes to one. */
OMBRIX_API uint32_t* K_SetUserMatchTable(const uint32_t* pTable);
/* The table installed for the calling thread, or null. */
OMBRIX_API uint32_t* K_GetUserMatchTable(void);

/* Colour values: either an RGB colour 0x00BBGGRR (red in the low byte) or a
 * palette index with KCOLOR_INDEX_FLAG in the high byte. */
#define KCOLOR_RGB(r, g, b) \
    ((uint32_t)(uint8_t)(r) | ((uint32_t)(uint8_t)(g) << 8) | ((uint32_t)(uint8_t)(b) << 16))
#define KCOLOR_INDEX_FLAG 0x01000000u
#define KCOLOR_INDEX(i) (KCOLOR_INDEX_FLAG | ((uint32_t)(i) & 0xFFFFFFu))
#define KCOLOR_RED(c)   ((uint8_t)(c))
#define KCOLOR_GREEN(c) ((uint8_t)((c) >> 8))
#define KCOLOR_BLUE(c)  ((uint8_t)((c) >> 16))

/* Palettes owned by a record are GMEM_FIXED blocks from K_GlobalAlloc that
 * K_FreeBitmap frees. For depths up to 8 the block always holds 2^depth
 * entries (entries past nColors are black). None of these functions needs
 * the bitmap to be allocated. A failed call leaves the record unchanged. */

/* Replaces the palette with nColors entries of pPalette (1..2^depth for
 * depths up to 8, 1..256 for deeper bitmaps; pPalette may be the record's own
 * palette). A null pPalette sets the fixed palette of the bitmap's depth and
 * ignores nColors. -13 bad count (or null palette for a deep bitmap), -1 no memory. */
OMBRIX_API int32_t K_SetBitmapPalette(BITMAPRECORD* pBitmap, const RGBQUAD* pPalette, int32_t nColors);
/* Gives pDst the colours of pSrc (its palette, or the fixed palette of its
 * depth when it has none) and their count. When pSrc is a deep bitmap
 * without a palette, pDst's palette is released (nColors 2^depth or 0).
 * -13 when pDst's depth cannot hold that many entries. */
OMBRIX_API int32_t K_CopyBitmapPalette(BITMAPRECORD* pDst, const BITMAPRECORD* pSrc);
/* Sets the fixed palette / the grey ramp of the bitmap's depth (1..8, else -27). */
OMBRIX_API int32_t K_CreateBitmapFixedPalette(BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_CreateBitmapGrayPalette(BITMAPRECORD* pBitmap);
/* Copies entries nIndex.. of the bitmap's colours (its palette, or the fixed
 * palette of its depth when it has none) into pColors, at most nCount, and
 * returns the number copied (0 <= result <= nCount). -13 for a null array, a
 * negative count or an index past the last entry. */
OMBRIX_API int32_t K_GetBitmapColors(const BITMAPRECORD* pBitmap, int32_t nIndex, int32_t nCount,
                                     RGBQUAD* pColors);
/* Writes nCount entries at nIndex (the range must lie within 2^depth for
 * depths up to 8, within 256 otherwise; -13 if not). A bitmap without a
 * palette gets one first (the fixed palette of its depth); nColors grows to
 * cover the range. Returns the number of entries written. */
OMBRIX_API int32_t K_PutBitmapColors(BITMAPRECORD* pBitmap, int32_t nIndex, int32_t nCount,
                                     const RGBQUAD* pColors);
/* 1 when the bitmap's colours are exactly the nColors entries of pPalette
 * (red, green and blue compared; reserved bytes ignored), 0 when they
 * differ. A null pPalette means the fixed palette of the bitmap's depth. */
OMBRIX_API int32_t K_CompareBitmapToPalette(const BITMAPRECORD* pBitmap, const RGBQUAD* pPalette,
                                            int32_t nColors);
/* Resolves a colour value through the bitmap's colours: an RGB value is
 * returned as is, a palette index becomes the RGB value of that entry.
 * -13 for a null output, an index past the last entry or other high bytes. */
OMBRIX_API int32_t K_GetTrueColorValue(const BITMAPRECORD* pBitmap, uint32_t uColor, uint32_t* puColor);
/* Translates a colour value of pSrc (null: only RGB values accepted) into
 * pDst's terms: for depths up to 8 the palette index of the nearest entry
 * (K_FindPaletteIndex rule) with KCOLOR_INDEX_FLAG; for a deep grey bitmap
 * the grey (2R + 5G + B + 4) >> 3 as an RGB value; otherwise the RGB value. */
OMBRIX_API int32_t K_TranslateBitmapColor(const BITMAPRECORD* pDst, const BITMAPRECORD* pSrc, uint32_t uColor,
                                          uint32_t* puColor);
/* The distinct colours the bitmap's pixels use, in ascending 0xRRGGBB order:
 * *pnColors receives how many there are, and the first min(that, nMaxEntries)
 * are written to pEntries (which may be null when nMaxEntries is 0). Pixels
 * of paletted bitmaps count by the colour of their entry (values past the
 * palette read as black); 16-bit pixels widen 5/6-bit fields by bit
 * replication; 48/64-bit pixels use the high byte of each component. -2 not
 * allocated, -794 for 12-bit and non-RGB/BGR deep orders, -16 for storage
 * without a direct data pointer, -1 no memory (needs a 2 MB scratch set). */
OMBRIX_API int32_t K_GetBitmapPaletteEntries(BITMAPRECORD* pBitmap, RGBQUAD* pEntries, int32_t nMaxEntries,
                                             int32_t* pnColors);
/* @@palettes@@ */

/* ======================================================================
 * Section: bitmap memory, rows, redirected I/O and temporary files
 * ====================================================================== */
/* -- redirected I/O, temporary files, string conversion -- */
/* @@storage-redirect@@ */

/* (keep this line between the two storage parts) */

/* -- bitmap memory, row and column access, compressed rows -- */
/* @@storage-memory@@ */

/* ======================================================================
 * Section: pixel conversion, dithering and HSV
 * ====================================================================== */
/* -- buffer conversion and HSV -- */
/* @@pixels-convert@@ */

/* (keep this line between the two pixel parts) */

/* -- dithering engine -- */
/* @@pixels-dither@@ */

/* ======================================================================
 * Section: regions and rectangles
 * ====================================================================== */
/* @@regions@@ */

/* ======================================================================
 * Section: runtime services (thread tools, geometry, sine)
 * ====================================================================== */
/* @@runtime@@ */

#ifdef __cplusplus
} /* extern "C" */
#endif

/* ======================================================================
 * Section: exported C++ classes
 * ====================================================================== */
#ifdef __cplusplus
/* @@runtime-classes@@ */
#endif

#endif /* OMBRIX_H */
