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
/* Fills a record without storage: zeroes the layout's bytes, stores the size word, and for a
 * non-empty image its dimensions, depth, bytes per line (rows padded to 4 bytes), data size, view
 * perspective 4, order (RGB up to 8 bits, grey at 12, else BGR), per-thread default resolutions
 * and dithering method. Width, height and depth all 0 give an empty record (1).
 * -13 null record, -789 bad size word, -11 negative width or height or a row that does not fit
 * 32 bits, -27 bad depth, -3 older layout and more than 0xFFFF0000 bytes of data. */
OMBRIX_API int32_t K_InitBitmap(BITMAPRECORD* pBitmap, uint32_t uStructSize,
                                int32_t nWidth, int32_t nHeight, int32_t nBitsPerPixel);
OMBRIX_API int32_t K_InitBitmapWithCallbacks(BITMAPRECORD* pBitmap, uint32_t uStructSize,
                                             int32_t nWidth, int32_t nHeight, int32_t nBitsPerPixel,
                                             const BITMAPDATACALLBACKS* pCallbacks);
/* Initialises (depth 0 means 8-bit grey), checks the order (-13 unknown; -27 order 5 other than
 * at 24/48 bits, order 7 other than at 16) and the view perspective (0 means 1; -13 outside 0..8),
 * allocates with the memory type, then gives a 1..8-bit image a palette: a grey ramp for depth 0
 * or grey order without a palette, else a copy of pPalette, else the fixed palette. With memory
 * type 2 and pData, attaches the caller's buffer (K_SetBitmapDataPointer). The caller's record is
 * written only on success; on failure everything made is released (storage that an allocate
 * callback supplied goes back through the free callback). */
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
/* Releases everything the record owns (region, palette, storage unless the free callback answers 2,
 * LUT, extra data, callbacks, dithering state) and ends outstanding accesses, leaving the record
 * reusable; null or a bad size word is ignored. Returns 1. */
OMBRIX_API int32_t K_FreeBitmap(BITMAPRECORD* pBitmap);
/* Attaches caller memory (flags 0x0403); a null pData detaches. -2 null record; -13 a buffer
 * whose size is not the data size (a record already on caller memory takes any buffer at least
 * that large), checked before the size word (-789); -13 when the record's own storage is being
 * accessed. Storage the record owned is freed first. */
OMBRIX_API int32_t K_SetBitmapDataPointer(BITMAPRECORD* pBitmap, void* pData, uint64_t uDataSize);
/* Grows or shrinks an allocated bitmap in place, keeping the rows it keeps. -2 null or not
 * allocated (checked before the size word, -789); -13 caller memory or storage being accessed;
 * -11 negative height; -1 (old height kept) when the storage cannot change. Same height: 1. */
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
/* Redirect table: the file functions that all file access of the kernel and
 * of the libraries built on it goes through. The record is identified by
 * uStructSize 64 (sixteen words in the original 32-bit design; on a 64-bit
 * build its pointers are wider). Every function receives its own user data
 * as its last argument and returns -1 (or a null / -1 handle) for failure.
 *
 * A file handle of a table is opaque to the kernel. The kernel's own file
 * layer (K_Os...) uses the POSIX descriptor plus one, so that no handle is
 * null: see OMBRIX_OS_HANDLE / OMBRIX_OS_FD. */
#define REDIRECTRECORD_SIZE 64u
#define OMBRIX_INVALID_FILE ((void*)(intptr_t)-1)
#define OMBRIX_OS_HANDLE(fd) ((void*)(intptr_t)((fd) + 1))
#define OMBRIX_OS_FD(h)      ((int)((intptr_t)(h) - 1))

/* Open modes (a bit set). Access: READ, WRITE or both. */
#define REDIRECT_OPEN_READ       0x0001u
#define REDIRECT_OPEN_WRITE      0x0002u
#define REDIRECT_OPEN_READWRITE  0x0003u
#define REDIRECT_OPEN_CREATE     0x0100u  /* create when missing */
#define REDIRECT_OPEN_TRUNCATE   0x0200u  /* empty an existing file */
#define REDIRECT_OPEN_EXCLUSIVE  0x0400u  /* with CREATE: fail when the file exists */
#define REDIRECT_OPEN_APPEND     0x0800u  /* every write goes to the end */
#define REDIRECT_OPEN_TEMPORARY  0x1000u  /* a kernel temporary file: delete it when it is closed */
/* Share modes: accepted and ignored by the POSIX file layer (no mandatory locks). */
#define REDIRECT_SHARE_READ      0x0001u
#define REDIRECT_SHARE_WRITE     0x0002u
#define REDIRECT_SHARE_DELETE    0x0004u
/* Seek origins */
#define REDIRECT_SEEK_SET 0
#define REDIRECT_SEEK_CUR 1
#define REDIRECT_SEEK_END 2

typedef void*   (*PFN_REDIRECTOPEN)(const wchar_t* pszName, uint32_t uMode, uint32_t uShare, void* pUserData);
/* Bytes read (0 at end of file) or -1. */
typedef int32_t (*PFN_REDIRECTREAD)(void* hFile, void* pBuffer, uint32_t uBytes, void* pUserData);
/* Bytes written or -1; fewer than asked means the medium is full. */
typedef int32_t (*PFN_REDIRECTWRITE)(void* hFile, const void* pBuffer, uint32_t uBytes, void* pUserData);
/* New position from the start of the file, or -1. */
typedef int64_t (*PFN_REDIRECTSEEK)(void* hFile, int64_t nOffset, int32_t nOrigin, void* pUserData);
/* 0 on success, -1 on failure. */
typedef int32_t (*PFN_REDIRECTCLOSE)(void* hFile, void* pUserData);
/* Sixth slot: the size of the file in bytes, or -1. */
typedef int64_t (*PFN_REDIRECTSIZE)(void* hFile, void* pUserData);
/* Seventh slot: sets the size of the file (extends with zeros or cuts); 0 or -1. */
typedef int32_t (*PFN_REDIRECTSETSIZE)(void* hFile, int64_t nSize, void* pUserData);

typedef struct REDIRECTRECORD_ {
    uint32_t            uStructSize;  /* REDIRECTRECORD_SIZE */
    uint32_t            uFlags;       /* 0 in the built-in tables; not interpreted */
    PFN_REDIRECTOPEN    pfnOpen;     void* pOpenUserData;
    PFN_REDIRECTREAD    pfnRead;     void* pReadUserData;
    PFN_REDIRECTWRITE   pfnWrite;    void* pWriteUserData;
    PFN_REDIRECTSEEK    pfnSeek;     void* pSeekUserData;
    PFN_REDIRECTCLOSE   pfnClose;    void* pCloseUserData;
    PFN_REDIRECTSIZE    pfnSize;     void* pSizeUserData;
    PFN_REDIRECTSETSIZE pfnSetSize;  void* pSetSizeUserData;
} REDIRECTRECORD;

/* The kernel's default file layer (POSIX). Names are converted to UTF-8;
 * a name that is not valid UTF-16 / UTF-32 fails. The user data is ignored. */
OMBRIX_API void*   K_OsOpen(const wchar_t* pszName, uint32_t uMode, uint32_t uShare, void* pUserData);
OMBRIX_API int32_t K_OsRead(void* hFile, void* pBuffer, uint32_t uBytes, void* pUserData);
OMBRIX_API int32_t K_OsWrite(void* hFile, const void* pBuffer, uint32_t uBytes, void* pUserData);
OMBRIX_API int64_t K_OsSeek(void* hFile, int64_t nOffset, int32_t nOrigin, void* pUserData);
OMBRIX_API int32_t K_OsClose(void* hFile, void* pUserData);
OMBRIX_API int64_t K_OsSize(void* hFile, void* pUserData);
OMBRIX_API int32_t K_OsSetSize(void* hFile, int64_t nSize, void* pUserData);

/* Sets the calling thread's table. Each function: null selects the default
 * K_Os function, REDIRECT_EMPTY leaves the slot empty (it then falls back to
 * the process-wide table), anything else is used as given. The user data is
 * stored with every function. The size and set-size slots follow the open
 * function: the defaults when pfnOpen is null, empty otherwise. Returns 1. */
#define REDIRECT_EMPTY ((void*)(intptr_t)-1)
OMBRIX_API int32_t K_RedirectIO(void* pfnOpen, void* pfnRead, void* pfnWrite, void* pfnSeek,
                                void* pfnClose, void* pUserData);

/* Selectors of K_SetRedirectFunctions */
#define REDIRECT_SET_INSTALL 0  /* install; the record receives the table now in force */
#define REDIRECT_SET_SWAP    1  /* install; the record receives the table it replaced */
#define REDIRECT_SET_RESET   2  /* restore the defaults; the record receives the table it replaced */
/* bProcessWide non-zero: the process-wide table (under its lock), else the
 * calling thread's. In the thread's table null slots stay empty (they fall
 * back to the process-wide table); in the process-wide table null slots get
 * the default functions. -814 null record, -789 size other than 64, -13 for
 * another selector. */
OMBRIX_API int32_t K_SetRedirectFunctions(REDIRECTRECORD* pRecord, int32_t nSelector, int32_t bProcessWide);

/* Modes of K_GetRedirectFunctions */
#define REDIRECT_GET_IN_FORCE  0  /* process-wide table with the thread's non-empty slots over it;
                                     with bProcessWide, the process-wide table alone */
#define REDIRECT_GET_THREAD    1  /* the calling thread's table as stored (empty slots null) */
#define REDIRECT_GET_TEMPFILE  2  /* the built-in temporary-file functions */
#define REDIRECT_GET_DEFAULT   3  /* the default K_Os functions */
/* -814 null record, -789 uStructSize other than 64, -13 unknown mode. */
OMBRIX_API int32_t K_GetRedirectFunctions(REDIRECTRECORD* pRecord, uint32_t uStructSize, int32_t nMode,
                                          int32_t bProcessWide);
/* 1 when the table in force for the calling thread differs from the default
 * file layer in any slot, else 0. */
OMBRIX_API int32_t K_UsesRedirectIO(void);

/* Redirected files. A redirected file handle wraps the handle that the
 * table's open function gave, with a copy of the table, so that later
 * calls on it use the same functions whatever happens to the tables.
 * Handles are checked against the kernel's list of live handles: a null,
 * -1, closed or foreign handle makes every call fail with -1. */
typedef struct OmbrixRedirectedFile_* HREDIRECTFILE;
/* Opens through the table in force, or through the table carried by an
 * "ORVARedirect://" name (see K_MakeRedirectName). OMBRIX_INVALID_FILE
 * (-1) on failure, including a name that does not decode. */
OMBRIX_API HREDIRECTFILE K_RedirectedOpen(const wchar_t* pszName, uint32_t uMode, uint32_t uShare);
/* The same with a UTF-8 name (malformed UTF-8 fails). */
OMBRIX_API HREDIRECTFILE K_RedirectedOpenUtf8(const char* pszName, uint32_t uMode, uint32_t uShare);
OMBRIX_API int32_t K_RedirectedRead(HREDIRECTFILE hFile, void* pBuffer, uint32_t uBytes);
OMBRIX_API int32_t K_RedirectedWrite(HREDIRECTFILE hFile, const void* pBuffer, uint32_t uBytes);
OMBRIX_API int64_t K_RedirectedSeek(HREDIRECTFILE hFile, int64_t nOffset, int32_t nOrigin);
/* Closes the file and frees the handle: 0, or -1 (the handle is freed either way
 * unless it was not a live handle). */
OMBRIX_API int32_t K_RedirectedClose(HREDIRECTFILE hFile);
/* Any count: the table's function is called with at most
 * REDIRECT_CHUNK_BYTES at a time. 0 for a count of 0; the bytes moved so far
 * when a call gives 0 (end of file; for writes, a full medium); -1 when a
 * call fails or for a null or -1 handle. */
#define REDIRECT_CHUNK_BYTES 0x7FFFFFFu
OMBRIX_API int64_t K_RedirectedReadBig(HREDIRECTFILE hFile, void* pBuffer, uint64_t uBytes);
OMBRIX_API int64_t K_RedirectedWriteBig(HREDIRECTFILE hFile, const void* pBuffer, uint64_t uBytes);
/* The file size through the table's size slot (or by seeking to the end and
 * back when the slot is empty); -1 on failure. */
OMBRIX_API int64_t K_RedirectedGetSize(HREDIRECTFILE hFile);

/* Wraps a handle of a table (null: the table in force) in a redirected file
 * handle; the table is copied. -13 for a null out pointer or a null or -1
 * native handle, -789 for a record whose size is not 64, -1 out of memory. */
OMBRIX_API int32_t K_CreateRedirectedFileHandle(HREDIRECTFILE* phFile, void* hNative,
                                                const REDIRECTRECORD* pRecord);
/* The native handle inside; with bRelease the redirected handle is freed
 * without closing the native handle. -13 for a handle that is not live or a
 * null out pointer. */
OMBRIX_API int32_t K_ExtractRedirectedFileHandle(HREDIRECTFILE hFile, void** phNative, int32_t bRelease);
/* The copy of the table that the handle uses. -814 null record, -789 bad
 * size, -13 not a live handle. */
OMBRIX_API int32_t K_ExtractRedirectFunctions(HREDIRECTFILE hFile, REDIRECTRECORD* pRecord);
/* Replaces the handle's copy of the table (for instance to move an open
 * file to new functions that understand the same native handle). Null slots
 * keep the handle's current function. -814, -789, -13 as above. */
OMBRIX_API int32_t K_UpdateRedirectFunctions(HREDIRECTFILE hFile, const REDIRECTRECORD* pRecord);

/* "ORVARedirect://" names carry a table inside the name, so that a name can
 * be handed to any function that opens files:
 *   ORVARedirect://1.<15 fields>.<check>/<name>
 * fields: flags, then function and user data of the seven slots, in hex; the
 * check ties the name to this process (the pointers mean nothing elsewhere).
 * The text after the first '/' following the fields is handed to the
 * table's open function as the name. Writes at most nChars wide characters
 * including the terminator; -290 when they do not fit, -814 null record,
 * -789 bad size, -13 null output, a null open function or a bad name. */
#define REDIRECT_NAME_PREFIX L"ORVARedirect://"
OMBRIX_API int32_t K_MakeRedirectName(const REDIRECTRECORD* pRecord, const wchar_t* pszName,
                                      wchar_t* pszOut, uint32_t nChars);
/* Decodes such a name: the table into the record (size 64 set by the call)
 * and, when pnNameStart is not null, the index where the inner name starts.
 * -13 for a name that does not decode (including one made by another process). */
OMBRIX_API int32_t K_DecodeRedirectName(const wchar_t* pszName, REDIRECTRECORD* pRecord,
                                        uint32_t* pnNameStart);

/* Memory buffer file: an object that starts with "KBUF" and whose table reads
 * and writes inside a growable memory block. */
#define REDIRECTBUF_FIXED 0x0001u  /* never grow: writes past the initial size are short */
typedef struct OmbrixRedirectBuffer_* HREDIRECTBUFFER;
/* Creates the buffer (initial capacity uInitialSize; it grows by
 * max(uInitialSize, uGrowSize) at a time). phFile, when not null, receives
 * a redirected file handle open on the buffer. -13 null phBuffer or unknown
 * flags, -1 out of memory. */
OMBRIX_API int32_t K_StartRedirectToBuffer(HREDIRECTBUFFER* phBuffer, HREDIRECTFILE* phFile, uint32_t uFlags,
                                           void* pUserData, uint32_t uInitialSize, uint32_t uGrowSize);
/* The buffer's own table (its functions get the buffer as user data): install
 * it or put it in an "ORVARedirect://" name to send any file output to the
 * buffer. Each open of the buffer starts at position 0; REDIRECT_OPEN_TRUNCATE
 * empties it. -13 not a live buffer, -814 / -789 as above. */
OMBRIX_API int32_t K_GetRedirectBufferTable(HREDIRECTBUFFER hBuffer, REDIRECTRECORD* pRecord);
/* The content so far (valid until the next write or K_StopRedirectToBuffer)
 * and its size in bytes; either out pointer may be null. -13 not a live buffer. */
OMBRIX_API int32_t K_GetRedirectBufferData(HREDIRECTBUFFER hBuffer, const void** ppData, uint64_t* puSize);
/* Ends the buffer. When phData is not null it receives the content in a
 * block from K_GlobalAlloc (free it with K_GlobalFree; null for empty
 * content) and puSize its size. File handles open on the buffer must be
 * closed first (-13 otherwise, and the buffer lives on). -13 not a live buffer,
 * -1 when the content block cannot be made (the buffer lives on). */
OMBRIX_API int32_t K_StopRedirectToBuffer(HREDIRECTBUFFER hBuffer, HGLOBAL* phData, uint64_t* puSize);

/* Temporary folder of the calling thread; null or "" restores the default
 * ($TMPDIR, else /tmp). The folder is not checked here: creating a file in a
 * missing folder fails with -14. -13 for a name of 1024 characters or more or
 * one that is not valid UTF-16 / UTF-32 (UTF-8 for the ...Utf8 form). */
OMBRIX_API int32_t K_SetTempDirectory(const wchar_t* pszDir);
OMBRIX_API int32_t K_SetTempDirectoryUtf8(const char* pszDir);
/* Writes the folder in force (no trailing slash) into nChars characters;
 * -290 when it does not fit, -13 for a null buffer. */
OMBRIX_API int32_t K_GetTempDirectory(wchar_t* pszDir, uint32_t nChars);
OMBRIX_API int32_t K_GetTempDirectoryUtf8(char* pszDir, uint32_t nChars);

/* Unique temporary names: <folder>/<prefix><8 hex digits>.tmp, prefix at
 * most 3 characters of [A-Za-z0-9_-] (null: "QX", the prefix of the kernel's
 * own files). The plain forms create the file empty (so the name stays
 * taken) and try until a new name is found; the numbered forms use uNumber
 * (non-zero) as the hex part and create nothing, as the caller may want the
 * same name twice. The output buffer holds OMBRIX_TEMP_NAME_CHARS characters.
 * -13 null buffer, bad prefix or uNumber 0; -290 folder too long; -14 when
 * the folder cannot hold a new file. */
#define OMBRIX_TEMP_NAME_CHARS 260
OMBRIX_API int32_t K_GetTempFileName(wchar_t* pszName, const wchar_t* pszPrefix);
OMBRIX_API int32_t K_GetTempFileNameUtf8(char* pszName, const char* pszPrefix);
OMBRIX_API int32_t K_GetTempFileNameNumbered(wchar_t* pszName, const wchar_t* pszPrefix, uint32_t uNumber);
OMBRIX_API int32_t K_GetTempFileNameNumberedUtf8(char* pszName, const char* pszPrefix, uint32_t uNumber);
/* Deletes a file: 1, -13 null name, -10 missing, -6 when it cannot be removed. */
OMBRIX_API int32_t K_DeleteTempFile(const wchar_t* pszName);
OMBRIX_API int32_t K_DeleteTempFileUtf8(const char* pszName);

/* Temporary-file options: one process-wide record. */
#define TEMPFILEOPTIONS_SIZE 24u
#define TEMPFILE_MODE_DISK    2   /* temporary files on disk (the default; 1 means the same) */
#define TEMPFILE_MODE_NO_DISK 3   /* temporary files may not be kept on a physical disk */
#define TEMPFILE_OPT_NAMED 0x0001u /* never use anonymous files (O_TMPFILE): create a named
                                      file and unlink it at once */
typedef struct TEMPFILEOPTIONS_ {
    uint32_t uStructSize;    /* TEMPFILEOPTIONS_SIZE */
    int32_t  nMode;          /* 1..3; 0 is stored as 2; -1 keeps the mode in force */
    uint32_t uFlags;         /* TEMPFILE_OPT_ */
    uint32_t uMaxFileMiB;    /* largest kernel temporary file in MiB; 0 no limit */
    uint32_t uReserved[2];   /* kept and returned as given */
} TEMPFILEOPTIONS;
/* -814 null record, -789 size other than 24, -13 mode outside -1..3. */
OMBRIX_API int32_t K_SetTempFileOptions(const TEMPFILEOPTIONS* pOptions);
OMBRIX_API int32_t K_GetTempFileOptions(TEMPFILEOPTIONS* pOptions, uint32_t uStructSize);
/* The mode in force (2 until one is set). */
OMBRIX_API int32_t K_GetTempFileMode(void);

/* The built-in temporary-file table (K_GetRedirectFunctions mode 2). The
 * open function makes a new kernel temporary file in the temporary folder,
 * deleted when closed; the name, when not empty, gives its prefix (at most
 * 3 characters, as above). Handles are positioned files. */
OMBRIX_API void*   K_RedirectedTempFileOpen(const wchar_t* pszName, uint32_t uMode, uint32_t uShare, void* pUserData);
OMBRIX_API int32_t K_RedirectedTempFileRead(void* hFile, void* pBuffer, uint32_t uBytes, void* pUserData);
OMBRIX_API int32_t K_RedirectedTempFileWrite(void* hFile, const void* pBuffer, uint32_t uBytes, void* pUserData);
OMBRIX_API int64_t K_RedirectedTempFileWriteBig(void* hFile, const void* pBuffer, uint64_t uBytes, void* pUserData);
OMBRIX_API int64_t K_RedirectedTempFileSeek(void* hFile, int64_t nOffset, int32_t nOrigin, void* pUserData);
OMBRIX_API int32_t K_RedirectedTempFileClose(void* hFile, void* pUserData);
OMBRIX_API int64_t K_RedirectedTempFileSize(void* hFile, void* pUserData);
OMBRIX_API int32_t K_RedirectedTempFileSetSize(void* hFile, int64_t nSize, void* pUserData);

/* String conversion (strict: malformed input, overlong forms, surrogates in
 * UTF-8 or UTF-32, unpaired surrogates in UTF-16 and code points above
 * 0x10FFFF are refused, never replaced). Lengths are in code units; a
 * source length of -1 means "up to the terminator". The output is always
 * terminated; pnWritten (may be null) receives the units written without the
 * terminator. Null output with nCapacity 0 only measures. Returns 1, -13 for
 * malformed input or a null source, -290 when the output is too small. */
OMBRIX_API int32_t K_Utf8ToWide(const char* pSrc, int32_t nSrcLen, wchar_t* pDst, uint32_t nCapacity,
                                uint32_t* pnWritten);
OMBRIX_API int32_t K_WideToUtf8(const wchar_t* pSrc, int32_t nSrcLen, char* pDst, uint32_t nCapacity,
                                uint32_t* pnWritten);
OMBRIX_API int32_t K_Utf8ToUtf16(const char* pSrc, int32_t nSrcLen, uint16_t* pDst, uint32_t nCapacity,
                                 uint32_t* pnWritten);
OMBRIX_API int32_t K_Utf16ToUtf8(const uint16_t* pSrc, int32_t nSrcLen, char* pDst, uint32_t nCapacity,
                                 uint32_t* pnWritten);
/* @@storage-redirect@@ */

/* (keep this line between the two storage parts) */

/* -- bitmap memory, row and column access, compressed rows -- */
/* Internal forms of access and release. K_IntAccessBitmap sets *pbAccessed
 * to 1 when the access succeeded, else 0 (-2 for a null record).
 * K_IntReleaseBitmap releases only when bAccessed is set and returns nStatus
 * unless it is 1, in which case it returns the release's result (-814 null). */
OMBRIX_API int32_t K_IntAccessBitmap(BITMAPRECORD* pBitmap, int32_t* pbAccessed);
OMBRIX_API int32_t K_IntReleaseBitmap(BITMAPRECORD* pBitmap, int32_t bAccessed, int32_t nStatus);

/* Per-thread default memory type (used when 0 is passed as a memory type):
 * only MEMTYPE_CONVENTIONAL and MEMTYPE_NO_CONVENTIONAL are accepted (-13). */
OMBRIX_API int32_t  K_SetDefaultMemoryType(uint32_t uMemoryType);
OMBRIX_API uint32_t K_GetDefaultMemoryType(void);

/* Per-thread memory thresholds. uFlags selects the values to store; a value
 * for which adding 100 overflows, or a negative tile size, gives -13 (the
 * values before it are stored). Negative keep-free / largest-image values are
 * percentages (-N = N%). A tile size of 0 means 16 MiB. The fifth value
 * allows file-backed tiles when above 0 (default 1); the fourth is stored only. */
#define MEMTHRESHOLD_KEEP_FREE      1u
#define MEMTHRESHOLD_LARGEST_IMAGE  2u
#define MEMTHRESHOLD_TILE_SIZE      4u
#define MEMTHRESHOLD_FOURTH         8u
#define MEMTHRESHOLD_FIFTH         16u
OMBRIX_API int32_t K_SetMemoryThresholds(int32_t nKeepFree, int32_t nLargestImage, int32_t nTileSize,
                                         int32_t nFourth, int32_t nFifth, uint32_t uFlags);
/* Each pointer may be null. */
OMBRIX_API int32_t K_GetMemoryThresholds(int32_t* pnKeepFree, int32_t* pnLargestImage, int32_t* pnTileSize,
                                         int32_t* pnFourth, int32_t* pnFifth);

/* Process-wide largest conventional image: three 32-bit words (size 12, then
 * the 64-bit value). Null or -1 clears it (no process-wide limit); another
 * negative value gives -13; a size word other than 12 gives -789. */
#define GLOBALMEMORYTHRESHOLDS_SIZE 12u
#pragma pack(push, 4)
typedef struct GLOBALMEMORYTHRESHOLDS_ {
    uint32_t uStructSize;     /* GLOBALMEMORYTHRESHOLDS_SIZE */
    int64_t  nLargestImage;   /* bytes, 0: none */
} GLOBALMEMORYTHRESHOLDS;
#pragma pack(pop)
OMBRIX_API int32_t K_SetGlobalMemoryThresholds(const GLOBALMEMORYTHRESHOLDS* pThresholds);
OMBRIX_API int32_t K_GetGlobalMemoryThresholds(GLOBALMEMORYTHRESHOLDS* pThresholds);

/* The process-wide cap and counter of conventional memory (single blocks and
 * memory tiles), under one lock. Commands:
 *   0 set the cap (0 removes it; old cap to *pnResult when given)      1
 *   1 cap to *pnResult                                                 1
 *   2 reserve nValue bytes (fails when a cap is set and would be passed) 1 or -1905
 *   3 release nValue bytes                                              1
 *   4 counter to *pnResult                                              1 or -814
 *   5 free room to *pnResult (cap - counter; 1 when reached; INT64_MAX
 *     without a cap), then test nValue as command 2 would                1 or -1905
 *   other                                                               -16 */
#define MANAGEMEMORY_SET_CAP     0
#define MANAGEMEMORY_GET_CAP     1
#define MANAGEMEMORY_RESERVE     2
#define MANAGEMEMORY_RELEASE     3
#define MANAGEMEMORY_GET_COUNTER 4
#define MANAGEMEMORY_GET_ROOM    5
OMBRIX_API int32_t K_ManageMemory(int32_t nCommand, int64_t nValue, int64_t* pnResult);

/* One process-wide callback consulted before every allocation with a
 * BITMAPALLOCINFO (nBytesPerLine 0); it may change uMemoryType; any answer
 * but 1 becomes the result. The old values go where the pointers are not null. */
OMBRIX_API int32_t K_SetAllocateBitmapCallback(PFN_BITMAPALLOCATE pfnCallback, void* pUserData,
                                               PFN_BITMAPALLOCATE* ppfnOld, void** ppOldUserData);

/* Storage kind of an allocated bitmap: 1 single block, 2 caller or callback
 * memory, 4 tiled, 128 temporary file, 512 run-compressed, 1024
 * super-compressed. For tiles also the bytes per tile, the tile count and how
 * many tiles are file-backed (0 otherwise). Every out pointer may be null. */
OMBRIX_API int32_t K_GetBitmapMemoryInfo(const BITMAPRECORD* pBitmap, uint32_t* puMemoryType,
                                         uint64_t* puTileSize, int32_t* pnTileCount, int32_t* pnTilesOnDisk);
/* Moves the pixels into storage of another kind (one of the kinds above but 2;
 * uTileSize for tiles, 0 = the thread's tile size). The pixels are kept; on
 * failure the bitmap is unchanged. A locked bitmap gives -13; 512 needs 1 bit,
 * 1024 needs 1, 8 or 24 bits (-27). */
OMBRIX_API int32_t K_SetBitmapMemoryInfo(BITMAPRECORD* pBitmap, uint32_t uMemoryType, uint64_t uTileSize);

/* Compression of a bitmap's storage, pixels kept:
 * 0 uncompressed (the normal decision), 1 run-compressed (1 bit), 2
 * super-compressed (1, 8, 24 bits). Toggle: compressed -> uncompressed;
 * uncompressed -> run-compressed at 1 bit, super-compressed at 8 and 24 bits. */
#define BITMAPCOMPRESSION_NONE  0
#define BITMAPCOMPRESSION_RUNS  1
#define BITMAPCOMPRESSION_SUPER 2
OMBRIX_API int32_t K_ChangeBitmapCompression(BITMAPRECORD* pBitmap, int32_t nMode);
OMBRIX_API int32_t K_ToggleBitmapCompression(BITMAPRECORD* pBitmap);

/* Row access for every storage kind. Rows are stored rows (no view
 * perspective). The copy starts at byte floor(nCol * bits per pixel / 8) of
 * the row; below 8 bits whole bytes move and no bits are shifted. uBytes
 * larger than the rest of the row is cut at the row's end. Result: the
 * number of bytes copied, or a status: -13 null pointer, row or column out
 * of range; -789 size word; -2 not allocated; a get-row callback's non-zero
 * answer is returned as it is. Compressed and super-compressed storage keep
 * the pixels of a row, not its padding: padding reads as zero. */
OMBRIX_API int32_t K_GetBitmapRow(BITMAPRECORD* pBitmap, uint8_t* pBuffer, int32_t nRow, uint32_t uBytes);
OMBRIX_API int32_t K_PutBitmapRow(BITMAPRECORD* pBitmap, const uint8_t* pBuffer, int32_t nRow, uint32_t uBytes);
OMBRIX_API int32_t K_GetBitmapRowCol(BITMAPRECORD* pBitmap, uint8_t* pBuffer, int32_t nRow, int32_t nCol,
                                     uint32_t uBytes);
OMBRIX_API int32_t K_PutBitmapRowCol(BITMAPRECORD* pBitmap, const uint8_t* pBuffer, int32_t nRow, int32_t nCol,
                                     uint32_t uBytes);

/* Writes only the pixels x of row nRow with x1 <= x < x2 for each of the
 * nSegments pairs {x1, x2} in pSegments (as the clip segments of a region
 * give them), taking them from pRow, a buffer that holds the whole row in the
 * bitmap's format. Pairs are clipped to the row; empty pairs are skipped;
 * pixels outside the pairs are left as they are at every depth (sub-byte
 * pixels are masked). Returns 1 or a status as K_PutBitmapRow. */
OMBRIX_API int32_t K_PutBitmapRowSegments(BITMAPRECORD* pBitmap, const uint8_t* pRow, int32_t nRow,
                                          const int32_t* pSegments, int32_t nSegments);

/* The compressed-row format of 1-bit rows: a 32-bit word count w, then w
 * 16-bit run lengths (native byte order, no alignment needed), alternating
 * 0-runs and 1-runs, starting with a 0-run (of length 0 when the row starts
 * with a 1). No run passes 65535: the run is closed at the last whole byte
 * and a 0-length run of the other value follows. Rows follow each other
 * back to back (4 + 2w bytes each). OMBRIX_COMPRESSED_ROW_MAX(n) bytes always
 * hold one compressed row of n pixels. */
#define OMBRIX_COMPRESSED_ROW_MAX(n) \
    ((size_t)(4 + 2 * ((uint64_t)(n) + 4 + 2 * ((uint64_t)(n) / 65528 + 1))))

/* Exchange a row (or nPixels pixels from nCol on) of a 1-bit bitmap in the
 * compressed-row format. pWork is a buffer of nBytesPerLine bytes or null
 * (then one is allocated; -1 when it cannot be). nPixels is cut at the row's
 * end. A run list given to a Put form is untrusted: runs past nPixels are
 * cut. Result 1 or a status (-27 for a bitmap that is not 1 bit). */
OMBRIX_API int32_t K_GetBitmapRowCompressed(BITMAPRECORD* pBitmap, uint8_t* pWork, uint8_t* pRuns, int32_t nRow,
                                            int32_t nPixels);
OMBRIX_API int32_t K_PutBitmapRowCompressed(BITMAPRECORD* pBitmap, uint8_t* pWork, const uint8_t* pRuns,
                                            int32_t nRow, int32_t nPixels);
OMBRIX_API int32_t K_GetBitmapRowColCompressed(BITMAPRECORD* pBitmap, uint8_t* pWork, uint8_t* pRuns,
                                               int32_t nRow, int32_t nCol, int32_t nPixels);
OMBRIX_API int32_t K_PutBitmapRowColCompressed(BITMAPRECORD* pBitmap, uint8_t* pWork, const uint8_t* pRuns,
                                               int32_t nRow, int32_t nCol, int32_t nPixels);

/* Compress nPixels pixels from pixel nFirst of pSrc (the source is not
 * modified) / nRows rows of nWidth pixels laid out ((nWidth + 31) / 32) * 4
 * bytes apart, into pRuns. Result 1 (nRows 0: 1 at once) or -13. */
OMBRIX_API int32_t K_CompressRow(uint8_t* pRuns, const uint8_t* pSrc, int32_t nFirst, int32_t nPixels);
OMBRIX_API int32_t K_CompressRows(uint8_t* pRuns, const uint8_t* pSrc, int32_t nWidth, int32_t nRows);
/* The reverse: K_ExpandRow clears pixels [nFirst, nFirst + nPixels) of pDst
 * and sets the 1-runs; K_ExpandRows clears each whole destination row first.
 * Runs that sum past the pixel count are cut there. */
OMBRIX_API int32_t K_ExpandRow(const uint8_t* pRuns, uint8_t* pDst, int32_t nFirst, int32_t nPixels);
OMBRIX_API int32_t K_ExpandRows(const uint8_t* pRuns, uint8_t* pDst, int32_t nWidth, int32_t nRows);
/* Mirror each of nRows compressed rows left to right / copy the rows in
 * reverse order. Source and destination must not overlap. -13 null buffers. */
OMBRIX_API int32_t K_MirrorCompressedBuffer(const uint8_t* pSrc, uint8_t* pDst, int32_t nRows);
OMBRIX_API int32_t K_FlipCompressedBuffer(const uint8_t* pSrc, uint8_t* pDst, int32_t nRows);
/* @@storage-memory@@ */

/* ======================================================================
 * Section: pixel conversion, dithering and HSV
 * ====================================================================== */
/* -- buffer conversion and HSV -- */
/* Names of the colour orders as the converter uses them. */
#define ORDER_BGRWIDE ORDER_ROMM    /* 5: blue first, alternate primaries (24/48 bits) */
#define ORDER_BGR565  ORDER_RGB565  /* 7: 16-bit, blue bits 0-4, green 5-10, red 11-15 */

/* Conversion flags (uFlags of the K_ConvertBufferExt family) */
#define CONVERT_SRCGRAY     0x01u  /* the source holds grey levels */
#define CONVERT_DSTGRAY     0x02u  /* the destination is to hold grey levels */
#define CONVERT_SRCRANGE    0x04u  /* source grey sample significant in nLowBit..nHighBit */
#define CONVERT_DSTRANGE    0x08u  /* destination grey written into nLowBit..nHighBit */
#define CONVERT_TRANSPARENT 0x80u  /* 32/64-bit destination: pixels equal to crTransparent get alpha 0 */
/* A transparent colour reference: red bits 0-7, green 8-15, blue 16-23; a top
 * byte of exactly 0x01 makes it a palette index held in the low byte. */
#define CONVERT_PALETTEINDEX(i) (0x01000000u | ((uint32_t)(i) & 0xFFu))

/* Converts nWidth pixels in place from (nBitsPerPixelSrc, nOrderSrc) to
 * (nBitsPerPixelDst, nOrderDst). Depths 0 (one grey byte per pixel), 1-8
 * (palette indices, packed most significant bit first), 12 (grey), 16, 24,
 * 32, 48, 64; orders ORDER_RGB, ORDER_BGR, ORDER_GRAY, ORDER_BGRWIDE,
 * ORDER_BGR565. The buffer must hold the larger of the two runs (see
 * K_CalcConvertSize). Null palettes mean the fixed palette of the depth.
 * Returns 1; -13 for a null buffer, zero width or a rejected combination
 * (before any pixel changes); -16 after converting when ORDER_BGRWIDE is
 * asked at a destination depth other than 24 or 48. */
OMBRIX_API int32_t K_ConvertBuffer(uint8_t* pBuffer, int32_t nWidth, int32_t nBitsPerPixelSrc,
                                   int32_t nBitsPerPixelDst, int32_t nOrderSrc, int32_t nOrderDst,
                                   const RGBQUAD* pPaletteSrc, const RGBQUAD* pPaletteDst);
/* As K_ConvertBuffer with CONVERT_ flags and the grey bit window
 * nLowBit..nHighBit (-1 for "whole sample"). */
OMBRIX_API int32_t K_ConvertBufferExt(uint8_t* pBuffer, int32_t nWidth, int32_t nBitsPerPixelSrc,
                                      int32_t nBitsPerPixelDst, int32_t nOrderSrc, int32_t nOrderDst,
                                      const RGBQUAD* pPaletteSrc, const RGBQUAD* pPaletteDst,
                                      uint32_t uFlags, int32_t nLowBit, int32_t nHighBit);
/* As K_ConvertBufferExt with pExtra (non-null: a 32-bit grey source holds
 * 16 significant bits); nReserved is ignored. */
OMBRIX_API int32_t K_ConvertBufferExt2(uint8_t* pBuffer, int32_t nWidth, int32_t nBitsPerPixelSrc,
                                       int32_t nBitsPerPixelDst, int32_t nOrderSrc, int32_t nOrderDst,
                                       const RGBQUAD* pPaletteSrc, const RGBQUAD* pPaletteDst,
                                       void* pExtra, int32_t nReserved, uint32_t uFlags,
                                       int32_t nLowBit, int32_t nHighBit);
/* As K_ConvertBufferExt2 with the transparent colour for CONVERT_TRANSPARENT. */
OMBRIX_API int32_t K_ConvertBufferExt3(uint8_t* pBuffer, int32_t nWidth, int32_t nBitsPerPixelSrc,
                                       int32_t nBitsPerPixelDst, int32_t nOrderSrc, int32_t nOrderDst,
                                       const RGBQUAD* pPaletteSrc, const RGBQUAD* pPaletteDst,
                                       void* pExtra, int32_t nReserved, uint32_t uFlags,
                                       int32_t nLowBit, int32_t nHighBit, uint32_t crTransparent);
/* Bytes of a line buffer for converting between the two widths and depths:
 * the largest 4-byte-aligned row of (wA x bA), (wB x bA), (wB x bB); depth
 * 0 counts as 8. 0 for negative arguments or a size beyond 32 bits. */
OMBRIX_API uint32_t K_CalcConvertSize(int32_t nWidthA, int32_t nBitsA, int32_t nWidthB, int32_t nBitsB);
/* Keeps nCount 16-bit grey samples (little-endian) whose significant bits
 * are nLowBit..nHighBit away from the ends of their window by up to nPad
 * steps. -13 for a null pointer or a depth other than 16. */
OMBRIX_API int32_t K_PadPixelData(void* pData, int32_t nBitsPerPixel, int32_t nCount, int32_t nHighBit,
                                  int32_t nLowBit, int32_t nPad);
/* Reduce nCount 32-bit grey samples (little-endian) to 16-bit (8-bit)
 * samples: the window nLowBit..nHighBit (-1: bit 0 / bit 31) is taken and
 * rescaled by the grey rule (narrower: top bits; wider: stretched so full
 * scale stays full scale). pDst may equal pSrc. -13 for a null pointer,
 * nCount <= 0 or a window outside the sample. */
OMBRIX_API int32_t K_Gray32To16(const void* pSrc, void* pDst, int32_t nCount, int32_t nLowBit,
                                int32_t nHighBit);
OMBRIX_API int32_t K_Gray32To8(const void* pSrc, uint8_t* pDst, int32_t nCount, int32_t nLowBit,
                               int32_t nHighBit);

/* HSV: the kernel's integer model. RGB values hold red in bits 0-7, green
 * 8-15, blue 16-23; HSV values hold hue in bits 0-7 (256 steps per turn),
 * saturation 8-15, value 16-23. The top byte of an input is ignored and the
 * top byte of a result is 0. */
OMBRIX_API uint32_t K_RGBtoHSV(uint32_t rgb);
/* As K_RGBtoHSV, storing the result in *pHsv. -13 for a null pointer. */
OMBRIX_API int32_t  K_RGBtoHSV2(uint32_t rgb, uint32_t* pHsv);
OMBRIX_API uint32_t K_HSVtoRGB(uint32_t hsv);
/* As K_HSVtoRGB, reading the value from *pHsv; 0 for a null pointer. */
OMBRIX_API uint32_t K_HSVtoRGB2(const uint32_t* pHsv);

/* @@pixels-convert@@ */

/* (keep this line between the two pixel parts) */

/* -- dithering engine -- */
/* Dithering methods (the record's nDitheringMethod, K_DefaultDithering). */
#define DITHER_NEAREST          0  /* nearest colour, no diffusion */
#define DITHER_FLOYD_STEINBERG  1  /* error diffusion, 1 row,  divisor 16 */
#define DITHER_STUCKI           2  /* error diffusion, 2 rows, divisor 42 */
#define DITHER_BURKES           3  /* error diffusion, 1 row,  divisor 32 */
#define DITHER_SIERRA           4  /* error diffusion, 2 rows, divisor 32 */
#define DITHER_STEVENSON_ARCE   5  /* error diffusion, 3 rows, divisor 200 */
#define DITHER_JARVIS           6  /* error diffusion (Jarvis-Judice-Ninke), 2 rows, divisor 48 */
#define DITHER_ORDERED          7  /* ordered, 8x8 dispersed threshold table */
#define DITHER_CLUSTERED        8  /* ordered, 8x8 clustered threshold table */

/* Starts a dithering run on a record: rows of the record's width and pixel
 * format (nBitsPerPixel, nOrder, pPalette for 1..8 bits, nLowBit/nHighBit for
 * grey) are turned into palette indices of a target palette of uColors (1..256)
 * entries with the record's nDitheringMethod. The output depth is the smallest
 * of 1..8 bits that holds uColors indices. A null pPalette means the fixed
 * palette of that depth. Any run already on the record is replaced, but only
 * once the new one is complete. The record need not be allocated.
 * -13 null record, uColors out of range, method or colour order invalid;
 * -789 size word; -11 width below 1; -27 bits per pixel; -1 no memory. */
OMBRIX_API int32_t K_StartDithering(BITMAPRECORD* pBitmap, const RGBQUAD* pPalette, uint32_t uColors);
/* As K_StartDithering with an explicit output depth nBits (1..8, at least the
 * depth uColors needs) and an optional caller match table of 32768 words over
 * the 5-5-5 grid (index (R>>3)<<10 | (G>>3)<<5 | B>>3, each word the palette
 * index + 1; 0 reads as index 0). The table is read once, when the run
 * starts, and never freed by the run. Without one, a palette equal byte for byte to a
 * fixed palette (or the web palette) is quantised directly, and any other
 * palette is mapped through the thread's installed user match table when
 * there is one, else through a table the run builds (and frees). */
OMBRIX_API int32_t K_StartDitheringExt(BITMAPRECORD* pBitmap, const RGBQUAD* pPalette, uint32_t uColors,
                                       int32_t nBits, const uint32_t* pMatchTable);
/* Dithers the next row: pSrcRow holds nWidth pixels in the record's format,
 * pDstRow receives nWidth indices packed at the run's output depth, most
 * significant bit first (ceil(nWidth * bits / 8) bytes written, unused low
 * bits of the last byte cleared). pSrcRow may equal pDstRow.
 * -13 null record or buffer, no run, or the record's width or format changed
 * since the run started; -789 size word. */
OMBRIX_API int32_t K_DitherLine(BITMAPRECORD* pBitmap, const uint8_t* pSrcRow, uint8_t* pDstRow);
/* Ends the run and frees its state (and any match table it built). A record
 * without a run is left alone. -13 null record; -789 size word. */
OMBRIX_API int32_t K_StopDithering(BITMAPRECORD* pBitmap);
/* The calling thread's default dithering method, copied into nDitheringMethod
 * by K_InitBitmap (0, DITHER_NEAREST, until set). */
OMBRIX_API int32_t K_GetDefaultDithering(void);
/* Sets the calling thread's default method (0..8) and returns the previous
 * one; -13 (and no change) for any other value. */
OMBRIX_API int32_t K_DefaultDithering(int32_t nMethod);
/* @@pixels-dither@@ */

/* ======================================================================
 * Section: regions and rectangles
 * ====================================================================== */
/* -- Win32-shaped region types ---------------------------------------- */
#ifndef OMBRIX_HAVE_WIN32_TYPES
typedef uint16_t WORD;
typedef uint32_t DWORD;
/* Header of a region-data block: dwSize 32, iType RDH_RECTANGLES, nCount
 * rectangles of 16 bytes each follow the header. */
typedef struct _RGNDATAHEADER {
    DWORD dwSize;
    DWORD iType;
    DWORD nCount;
    DWORD nRgnSize;
    RECT  rcBound;
} RGNDATAHEADER;
typedef struct _RGNDATA {
    RGNDATAHEADER rdh;
    char Buffer[1];
} RGNDATA;
/* Affine transform: x' = eM11*x + eM21*y + eDx, y' = eM12*x + eM22*y + eDy. */
typedef struct tagXFORM {
    float eM11;
    float eM12;
    float eM21;
    float eM22;
    float eDx;
    float eDy;
} XFORM;
#endif
#ifndef RGN_AND
#define RGN_AND  1
#define RGN_OR   2
#define RGN_XOR  3
#define RGN_DIFF 4
#define RGN_COPY 5
#endif
#ifndef NULLREGION
#define RGN_ERROR     0   /* the Win32 name ERROR is not defined here */
#define NULLREGION    1
#define SIMPLEREGION  2
#define COMPLEXREGION 3
#endif
#ifndef RDH_RECTANGLES
#define RDH_RECTANGLES 1
#endif
#ifndef ALTERNATE
#define ALTERNATE 1   /* even-odd */
#define WINDING   2   /* non-zero winding */
#endif

/* -- the kernel's region ---------------------------------------------- */
/* One row of an OrvaRgn: uCount x values (two per run, 0 for an empty row
 * inside the region) starting uOffset bytes into the run data. */
typedef struct ORVARGNROW_ {
    uint32_t uCount;
    uint32_t uOffset;
} ORVARGNROW;
/* An exact pixel set stored row by row as sorted runs [x1, x2). Rows run
 * from rcBounds.top to rcBounds.bottom - 1, one ORVARGNROW each; runs in a
 * row are sorted and neither overlap nor touch. rcBounds is all zero for an
 * empty region. Costs 8 bytes per row plus 8 per run beyond this block. */
typedef struct OrvaRgn_ {
    HRGN        hCachedRgn;      /* a copy of the region as a handle, or null */
    int32_t     nPlacement[7];   /* carried unchanged by every copy */
    RECT        rcBounds;
    uint32_t    uRowIndexSize;   /* bytes in pRowIndex (8 per row) */
    ORVARGNROW* pRowIndex;
    uint32_t    uRunDataSize;    /* bytes in pRunData (4 per x value) */
    int32_t*    pRunData;
} OrvaRgn;

/* The tallest region the engine builds (rows between top and bottom). A
 * result that would be taller is refused with KS_NO_MEMORY. */
#define ORVARGN_MAX_ROWS 16777216

/* Region operations. Each returns 1, -13 for a null argument, -1 when memory
 * runs out (or the result would be taller than ORVARGN_MAX_ROWS). Functions
 * that change a region do so in place: the OrvaRgn pointer keeps its
 * identity and, on failure, its old contents. */
/* *ppRgn = new region of the rectangle (empty when right <= left or bottom <= top). */
OMBRIX_API int32_t K_CreateOrvaRgnRect(OrvaRgn** ppRgn, const RECT* pRect);
/* *ppDst = copy of pSrc; a null pSrc gives *ppDst = null and 1. */
OMBRIX_API int32_t K_CopyOrvaRgn(OrvaRgn** ppDst, const OrvaRgn* pSrc);
/* Frees the region, its rows, runs and cached handle. */
OMBRIX_API int32_t K_DeleteOrvaRgn(OrvaRgn* pRgn);
/* Moves the region by (dx, dy) in place; -13 when it would leave the 32-bit range. */
OMBRIX_API int32_t K_OffsetOrvaRgn(OrvaRgn* pRgn, int32_t dx, int32_t dy);
/* *ppDst = pSrc1 <op> pSrc2 with op one of RGN_AND, RGN_OR, RGN_XOR, RGN_DIFF
 * (pSrc1 minus pSrc2), RGN_COPY (pSrc2 may be null then). *ppDst may be one
 * of the sources: it is replaced in place. A null *ppDst receives a new region.
 * Any other op: -13. */
OMBRIX_API int32_t K_CombineOrvaRgn(OrvaRgn** ppDst, const OrvaRgn* pSrc1, const OrvaRgn* pSrc2,
                                    int32_t nOp);
/* 1 when (x, y) is inside, else 0 (-13 for a null region); the run holding
 * the point is stored in *pnX1, *pnX2 (-1, -1 outside); both may be null. */
OMBRIX_API int32_t K_IsPtInOrvaRgn(const OrvaRgn* pRgn, int32_t x, int32_t y, int32_t* pnX1,
                                   int32_t* pnX2);
OMBRIX_API int32_t K_GetOrvaRgnBounds(const OrvaRgn* pRgn, RECT* pRect);
/* Keeps only the part inside the rectangle (in place). */
OMBRIX_API int32_t K_ClipOrvaRgnRect(OrvaRgn* pRgn, const RECT* pRect);
/* Scales in place by xNum/xDen and yNum/yDen (nearest-neighbour rule: a
 * result pixel (X, Y) is in when source pixel (floor(X*xDen/xNum),
 * floor(Y*yDen/yNum)) is). Denominators must be > 0 and numerators >= 0 (0
 * empties the region), else -13; a result outside 32 bits: -13. */
OMBRIX_API int32_t K_ScaleOrvaRgn(OrvaRgn* pRgn, int32_t nXNum, int32_t nXDen, int32_t nYNum,
                                  int32_t nYDen);
/* Scan-converts closed figures into *ppRgn. pFlags (optional, one byte per
 * point): 0 starts a new figure at that point. Each figure is closed back to
 * its first point. A pixel is inside when its centre (x + 0.5, y + 0.5) is
 * inside the outline; edges are half-open (a centre exactly on a left edge
 * is in, on a right edge out; horizontal edges add nothing). nFillMode
 * WINDING (2) fills by the non-zero winding rule, anything else (0,
 * ALTERNATE) by the even-odd rule. Fewer than 2 points: empty region. */
OMBRIX_API int32_t K_SegmentsToRegion(OrvaRgn** ppRgn, const POINT* pPoints, const uint8_t* pFlags,
                                      int32_t nCount, int32_t nFillMode);
/* *ppRgn = a copy of the region behind hRgn; errno 22 and -13 for a bad handle. */
OMBRIX_API int32_t K_ConvertHandleToRgn(HRGN hRgn, OrvaRgn** ppRgn);
/* *phRgn = CreateRectRgn(left, top, right, bottom); -1 when it fails. */
OMBRIX_API int32_t K_WinCreateRectRgn(HRGN* phRgn, int32_t nLeft, int32_t nTop, int32_t nRight,
                                      int32_t nBottom);
/* DeleteObject(hObject): 1 freed, 0 (errno 22) for a bad handle. */
OMBRIX_API int32_t K_WinDeleteObject(HGDIOBJ hObject);

/* -- emulated Win32 region functions (Win32 results; errno 22 and 0 on a
 *    bad handle) ------------------------------------------------------- */
OMBRIX_API HRGN    CreateRectRgn(int32_t nLeft, int32_t nTop, int32_t nRight, int32_t nBottom);
OMBRIX_API HRGN    CreateEllipticRgn(int32_t nLeft, int32_t nTop, int32_t nRight, int32_t nBottom);
OMBRIX_API HRGN    CreatePolygonRgn(const POINT* pPoints, int32_t nCount, int32_t nFillMode);
/* Region from a data block; 0 unless nBytes >= 33, nBytes >= 16*(nCount+2),
 * dwSize 32, iType 1. Unordered rectangles are sorted by top, then left;
 * overlapping rectangles give their union; empty ones are skipped. */
OMBRIX_API HRGN    ExtCreateRegion(const XFORM* pXform, uint32_t nBytes, const RGNDATA* pData);
/* 0 error, NULLREGION, SIMPLEREGION or COMPLEXREGION. */
OMBRIX_API int32_t CombineRgn(HRGN hDst, HRGN hSrc1, HRGN hSrc2, int32_t nMode);
OMBRIX_API int32_t OffsetRgn(HRGN hRgn, int32_t dx, int32_t dy);
OMBRIX_API int32_t GetRgnBox(HRGN hRgn, RECT* pRect);
/* Bytes needed (32 + 16 per rectangle); writes only when pData is large enough. */
OMBRIX_API uint32_t GetRegionData(HRGN hRgn, uint32_t nBytes, RGNDATA* pData);
OMBRIX_API BOOL    PtInRegion(HRGN hRgn, int32_t x, int32_t y);
OMBRIX_API BOOL    SetRectRgn(HRGN hRgn, int32_t nLeft, int32_t nTop, int32_t nRight, int32_t nBottom);
/* Frees a region (kind 4) or palette (kind 1) handle and its payload. */
OMBRIX_API BOOL    DeleteObject(HGDIOBJ hObject);
/* For a palette handle and nBytes >= 2: stores the entry count as a WORD and returns 2. */
OMBRIX_API int32_t GetObject(HGDIOBJ hObject, int32_t nBytes, void* pOut);

/* -- rectangles (right and bottom exclusive) ---------------------------- */
OMBRIX_API BOOL SetRect(RECT* pRect, int32_t nLeft, int32_t nTop, int32_t nRight, int32_t nBottom);
OMBRIX_API BOOL SetRectEmpty(RECT* pRect);
OMBRIX_API BOOL IsRectEmpty(const RECT* pRect);
OMBRIX_API BOOL PtInRect(const RECT* pRect, POINT pt);
/* Empty result (all zero) and 0 when the two do not overlap. */
OMBRIX_API BOOL IntersectRect(RECT* pDst, const RECT* pSrc1, const RECT* pSrc2);
/* InflateRect and OffsetRect: 0 and the rectangle unchanged when an edge would
 * leave the signed 32-bit range (or pRect is null), else 1. */
OMBRIX_API BOOL InflateRect(RECT* pRect, int32_t dx, int32_t dy);
OMBRIX_API BOOL CopyRect(RECT* pDst, const RECT* pSrc);
/* Bounding rectangle of the two; empty inputs are ignored. */
OMBRIX_API BOOL UnionRect(RECT* pDst, const RECT* pSrc1, const RECT* pSrc2);
OMBRIX_API BOOL OffsetRect(RECT* pRect, int32_t dx, int32_t dy);
OMBRIX_API BOOL EqualRect(const RECT* pRect1, const RECT* pRect2);

/* -- view perspective arithmetic ---------------------------------------- */
/* What turns pixels stored in nFrom into nTo: flip rows when *pbFlip, then
 * turn by *pnAngle degrees (0, 90, 180, 270). */
OMBRIX_API int32_t K_GetChangeViewPerspectiveParams(int32_t nFrom, int32_t nTo, int32_t* pbFlip,
                                                    int32_t* pnAngle);
/* Converts a rectangle of an nWidth x nHeight image (as seen in nFrom) into nTo, in place. */
OMBRIX_API int32_t K_ChangeRectViewPerspective(int32_t nFrom, int32_t nWidth, int32_t nHeight, int32_t nTo,
                                               RECT* pRect);
/* Same for one pixel position. */
OMBRIX_API int32_t K_ChangePointViewPerspective(int32_t nFrom, int32_t nWidth, int32_t nHeight, int32_t nTo,
                                                int32_t* pnX, int32_t* pnY);
/* The rectangle and point conversions below compute in 64 bits: a result with
 * any coordinate outside the signed 32-bit range (far-out caller coordinates
 * such as INT_MIN) returns KS_INVALID_PARAMETER and leaves *pRect / *pnX, *pnY
 * unchanged. Null pointers and perspectives outside 1..8 also return
 * KS_INVALID_PARAMETER; a bad record size KS_INVALID_STRUCT_SIZE. */
OMBRIX_API int32_t K_RectToBitmap(const BITMAPRECORD* pBitmap, int32_t nViewPerspective, RECT* pRect);
OMBRIX_API int32_t K_RectFromBitmap(const BITMAPRECORD* pBitmap, int32_t nViewPerspective, RECT* pRect);
OMBRIX_API int32_t K_PointToBitmap(const BITMAPRECORD* pBitmap, int32_t nViewPerspective, int32_t* pnX,
                                   int32_t* pnY);
OMBRIX_API int32_t K_PointFromBitmap(const BITMAPRECORD* pBitmap, int32_t nViewPerspective, int32_t* pnX,
                                     int32_t* pnY);

/* -- bitmap regions ------------------------------------------------------ */
/* Region combine modes of the bitmap setters. */
#define RGN_SET_AND        0u  /* current AND new */
#define RGN_SET_REPLACE    1u  /* new */
#define RGN_SET_NEW_MINUS_CUR 2u /* new minus current */
#define RGN_SET_CUR_MINUS_NEW 3u /* current minus new */
#define RGN_SET_OR         4u  /* current OR new */
#define RGN_SET_XOR        5u  /* current XOR new */
#define RGN_SET_NOT        6u  /* bitmap rectangle minus new */

/* Where the caller's coordinates are: in view perspective nViewPerspective,
 * scaled by num/den and moved by the offsets. Null means the bitmap's own
 * pixels. Setters map in: offset, then scale, then change perspective.
 * Getters map out: change perspective, scale, add the offsets. */
typedef struct RGNXFORM_ {
    int32_t nViewPerspective;  /* 1..8 */
    int32_t nXScalarNum;
    int32_t nXScalarDen;       /* > 0 */
    int32_t nYScalarNum;
    int32_t nYScalarDen;       /* > 0 */
    int32_t nXOffset;
    int32_t nYOffset;
} RGNXFORM;

/* The core setter: takes ownership of pRgn (freed also on failure). A null
 * pRgn removes the bitmap's region. -2 null bitmap, -789 size word, -13 bad
 * mode or transform, -1 memory. */
OMBRIX_API int32_t K_SetBitmapRgn(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, OrvaRgn* pRgn,
                                  uint32_t uCombineMode);
OMBRIX_API int32_t K_SetBitmapRgnRect(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, const RECT* pRect,
                                      uint32_t uCombineMode);
OMBRIX_API int32_t K_SetBitmapRgnEllipse(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, const RECT* pRect,
                                         uint32_t uCombineMode);
OMBRIX_API int32_t K_SetBitmapRgnPolygon(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm,
                                         const POINT* pPoints, uint32_t uCount, uint32_t uFillMode,
                                         uint32_t uCombineMode);
OMBRIX_API int32_t K_SetBitmapRgnHandle(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, HRGN hRgn,
                                        uint32_t uCombineMode);
OMBRIX_API int32_t K_SetBitmapRgnData(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, int32_t nSize,
                                      const RGNDATA* pData, uint32_t uCombineMode);
/* The white pixels of the mask (see docs/regions.md for masks that are not
 * 1-bit grey: a pixel counts as white when its grey level is >= 128). */
OMBRIX_API int32_t K_SetBitmapRgnFromMask(BITMAPRECORD* pBitmap, const RGNXFORM* pXForm,
                                          const BITMAPRECORD* pMask, uint32_t uCombineMode);
/* The pixels of pBitmap whose colour is exactly uColor (0x00BBGGRR; for a
 * palette bitmap, the pixels whose palette entry has that colour). */
OMBRIX_API int32_t K_SetBitmapRgnColor(BITMAPRECORD* pBitmap, uint32_t uColor, uint32_t uCombineMode);

OMBRIX_API int32_t K_BitmapHasRgn(const BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_FreeBitmapRgn(BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_GetBitmapRgnBounds(const BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, RECT* pRect);
OMBRIX_API int32_t K_GetBitmapRgnArea(const BITMAPRECORD* pBitmap, uint64_t* puArea);
OMBRIX_API int32_t K_IsPtInBitmapRgn(const BITMAPRECORD* pBitmap, int32_t nRow, int32_t nCol);
OMBRIX_API int32_t K_GetBitmapClipSegmentsMax(const BITMAPRECORD* pBitmap, uint32_t* puMax);
/* Copies row nRow's x values (pairs x1, x2, x2 exclusive) into pSegments,
 * which must hold K_GetBitmapClipSegmentsMax values, and stores their count. */
OMBRIX_API int32_t K_GetBitmapClipSegments(const BITMAPRECORD* pBitmap, int32_t nRow, int32_t* pSegments,
                                           uint32_t* puCount);
OMBRIX_API int32_t K_OffsetBitmapRgn(BITMAPRECORD* pBitmap, int32_t nRowOffset, int32_t nColOffset);
OMBRIX_API int32_t K_SizeBitmapRgn(BITMAPRECORD* pBitmap, int32_t nWidth, int32_t nHeight);
OMBRIX_API int32_t K_FlipBitmapRgn(BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_ReverseBitmapRgn(BITMAPRECORD* pBitmap);
/* *phRgn = a new handle of the region mapped out (the whole bitmap without region). */
OMBRIX_API int32_t K_GetBitmapRgnHandle(const BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, HRGN* phRgn);
/* nSize 0: bytes needed; else what GetRegionData returns for the mapped
 * region. 0 without region. */
OMBRIX_API int32_t K_GetBitmapRgnData(const BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, int32_t nSize,
                                      RGNDATA* pData);
OMBRIX_API int32_t K_CreateMaskFromBitmapRgn(const BITMAPRECORD* pBitmap, BITMAPRECORD* pMask,
                                             uint32_t uStructSize);
OMBRIX_API int32_t K_CopyBitmapRgn(BITMAPRECORD* pDst, const BITMAPRECORD* pSrc, int32_t dx, int32_t dy);

/* -- filling through the region ----------------------------------------- */
/* Fills the pixels inside the bitmap's region (all pixels without one) with
 * uColor (0x00BBGGRR, the nearest palette entry for palette bitmaps; 32 and
 * 64-bit pixels get an opaque fourth sample). -1927 for floating data. */
OMBRIX_API int32_t K_FillBitmap(BITMAPRECORD* pBitmap, uint32_t uColor);
/* Same with a raw pixel value in the bitmap's own format (the low
 * nBitsPerPixel bits, samples in stored order, 16-bit samples little-endian). */
OMBRIX_API int32_t K_FillBitmap2(BITMAPRECORD* pBitmap, uint64_t uRawPixel);
/* K_FillBitmap2 with 0. */
OMBRIX_API int32_t K_ClearBitmap(BITMAPRECORD* pBitmap);
/* @@regions@@ */

/* ======================================================================
 * Section: runtime services (thread tools, geometry, sine)
 * ====================================================================== */
/* -- fixed-point sine and cosine --------------------------------------- */
/* Sine and cosine of nAngle hundredths of a degree in 2.14 fixed point
 * (16384 = 1.0), from one constant quarter-wave table of 9001 entries
 * (round half up of sin x 16384) folded by quadrant. Callers pass 0..36000;
 * any other angle is first reduced modulo 36000 into that range, so the
 * results stay periodic and the table is never read out of range.
 * These return the value itself, not a status. */
OMBRIX_API int32_t K_SinValue(int32_t nAngle);
OMBRIX_API int32_t K_CosValue(int32_t nAngle);

/* -- critical sections ------------------------------------------------- */
/* Stand-in for the Win32 critical section: a recursive lock. Initialise
 * stores a pointer to a kernel-owned lock in the first word of the record
 * (which is then "initialised"); Delete frees it and clears the word.
 * The record is the size of the Win32 one on 64-bit builds. */
#ifndef OMBRIX_HAVE_WIN32_TYPES
typedef struct tagOMBRIX_CRITICAL_SECTION {
    void* pLock;          /* the kernel's lock; null when not initialised */
    void* pReserved[4];
} CRITICAL_SECTION;
#endif
/* -13 for null, -1 when the lock cannot be made, else 1. Initialising an
 * initialised record makes a new lock (the old one is not freed: the word
 * may be garbage in a fresh record, so it is never read). */
OMBRIX_API int32_t K_IntInitializeCriticalSection(CRITICAL_SECTION* pSection);
/* Blocks until the calling thread owns the section; nests. -13 for null or a
 * record that is not initialised, -74 when the platform lock fails, else 1. */
OMBRIX_API int32_t K_IntEnterCriticalSection(CRITICAL_SECTION* pSection);
/* Undoes one Enter. -13 for null or not initialised, -74 when the calling
 * thread does not own the section, else 1. */
OMBRIX_API int32_t K_IntLeaveCriticalSection(CRITICAL_SECTION* pSection);
/* Frees the lock (it must not be owned) and clears the first word. -814 for
 * null; 1 otherwise, also when the record was not initialised. */
OMBRIX_API int32_t K_IntDeleteCriticalSection(CRITICAL_SECTION* pSection);

/* -- geometry records ---------------------------------------------------- */
/* Integer forms: POINT (x, y), SIZE (cx, cy) and RECT (left, top, right,
 * bottom; right and bottom exclusive) from the core types. Double forms use
 * the same field order. A rectangle of either form is empty when
 * right <= left or bottom <= top (or, for doubles, any edge is NaN); a size
 * is empty when cx <= 0 or cy <= 0 (or NaN). Integer results saturate at the
 * 32-bit limits instead of wrapping. */
typedef struct tagPOINTD {
    double x;
    double y;
} POINTD;
typedef struct tagSIZED {
    double cx;
    double cy;
} SIZED;
typedef struct tagRECTD {
    double left;
    double top;
    double right;   /* exclusive */
    double bottom;  /* exclusive */
} RECTD;

/* 2-D affine matrix: (x, y) maps to (x*dM11 + y*dM21 + dOffsetX,
 * x*dM12 + y*dM22 + dOffsetY). nType caches the shape (KMATRIX_TYPE_) so
 * operations can take short cuts; type 0 is trusted without looking at the
 * values, so a zero-filled record is the identity. uReserved is always 0. */
#define KMATRIX_TYPE_IDENTITY            0
#define KMATRIX_TYPE_TRANSLATION         1
#define KMATRIX_TYPE_SCALING             2
#define KMATRIX_TYPE_SCALING_TRANSLATION 3
#define KMATRIX_TYPE_GENERAL             4
typedef struct tagKMATRIX {
    double   dM11;
    double   dM12;
    double   dM21;
    double   dM22;
    double   dOffsetX;
    double   dOffsetY;
    int32_t  nType;
    uint32_t uReserved;
} KMATRIX;

/* Geometry helpers keep no state and return values, not statuses. Null
 * record pointers are tolerated: mutators do nothing and queries answer 0
 * (or an empty/zero record). Boolean answers are 1 or 0. Angles are in
 * degrees. */

/* -- double comparisons -- */
/* 1 when a == b, else when |a - b| < (|a| + |b| + 10) * DBL_EPSILON. */
OMBRIX_API int32_t K_Double_AreClose(double a, double b);
OMBRIX_API int32_t K_Double_LessThan(double a, double b);           /* a < b and not close */
OMBRIX_API int32_t K_Double_GreaterThan(double a, double b);        /* a > b and not close */
OMBRIX_API int32_t K_Double_LessThanOrClose(double a, double b);    /* a < b or close */
OMBRIX_API int32_t K_Double_GreaterThanOrClose(double a, double b); /* a > b or close */
OMBRIX_API int32_t K_Double_IsOne(double a);   /* |a - 1| < 10 * DBL_EPSILON */
OMBRIX_API int32_t K_Double_IsZero(double a);  /* |a| < 10 * DBL_EPSILON */
OMBRIX_API int32_t K_Double_IsBetweenZeroAndOne(double a);
OMBRIX_API int32_t K_Double_AreClosePoints(const POINTD* pA, const POINTD* pB);
OMBRIX_API int32_t K_Double_AreCloseSizes(const SIZED* pA, const SIZED* pB);
OMBRIX_API int32_t K_Double_AreCloseRects(const RECTD* pA, const RECTD* pB);
OMBRIX_API int32_t K_Double_RectHasNaN(const RECTD* pRect);
OMBRIX_API int32_t K_Double_IsNaN(double a);
OMBRIX_API int32_t K_Double_IsInfinity(double a);  /* +inf or -inf */
/* Rounds half away from zero; saturates at the int32 limits; NaN gives 0. */
OMBRIX_API int32_t K_Double_DoubleToInt(double a);
/* Brings degrees into (0, 360] from above and [0, 360) from below: 720 -> 360,
 * -90 -> 270. Exact (same result as repeated subtraction of 360). Infinities
 * and NaN give NaN. */
OMBRIX_API double K_Double_NormalizeAngle(double dDegrees);

/* -- matrices -- */
OMBRIX_API void    K_Matrix_Identity(KMATRIX* pMatrix);
/* Stores the six values and derives the type. */
OMBRIX_API void    K_Matrix_Set(KMATRIX* pMatrix, double dM11, double dM12, double dM21, double dM22,
                                double dOffsetX, double dOffsetY);
/* Re-derives nType from the values (after the fields were written directly). */
OMBRIX_API void    K_Matrix_DeriveType(KMATRIX* pMatrix);
OMBRIX_API int32_t K_Matrix_GetType(const KMATRIX* pMatrix);
OMBRIX_API int32_t K_Matrix_IsIdentity(const KMATRIX* pMatrix);
OMBRIX_API double  K_Matrix_Determinant(const KMATRIX* pMatrix);
/* 1 when |determinant| >= 10 * DBL_EPSILON. */
OMBRIX_API int32_t K_Matrix_HasInverse(const KMATRIX* pMatrix);
/* Inverts in place and returns 1; returns 0 and leaves the matrix as it was
 * when it is not invertible. */
OMBRIX_API int32_t K_Matrix_Invert(KMATRIX* pMatrix);
/* *pResult = A x B (A applied first). pResult may be pA or pB. */
OMBRIX_API void    K_Matrix_Multiply(KMATRIX* pResult, const KMATRIX* pA, const KMATRIX* pB);
OMBRIX_API void    K_Matrix_Append(KMATRIX* pMatrix, const KMATRIX* pOther);   /* M = M x Other */
OMBRIX_API void    K_Matrix_Prepend(KMATRIX* pMatrix, const KMATRIX* pOther);  /* M = Other x M */
/* Builders: the plain forms append (the new step is applied after the
 * matrix), the Prepend forms apply it first. The At forms turn or scale
 * about (dCenterX, dCenterY). */
OMBRIX_API void K_Matrix_Rotate(KMATRIX* pMatrix, double dAngle);
OMBRIX_API void K_Matrix_RotatePrepend(KMATRIX* pMatrix, double dAngle);
OMBRIX_API void K_Matrix_RotateAt(KMATRIX* pMatrix, double dAngle, double dCenterX, double dCenterY);
OMBRIX_API void K_Matrix_RotateAtPrepend(KMATRIX* pMatrix, double dAngle, double dCenterX, double dCenterY);
OMBRIX_API void K_Matrix_Scale(KMATRIX* pMatrix, double dScaleX, double dScaleY);
OMBRIX_API void K_Matrix_ScalePrepend(KMATRIX* pMatrix, double dScaleX, double dScaleY);
OMBRIX_API void K_Matrix_ScaleAt(KMATRIX* pMatrix, double dScaleX, double dScaleY, double dCenterX,
                                 double dCenterY);
OMBRIX_API void K_Matrix_ScaleAtPrepend(KMATRIX* pMatrix, double dScaleX, double dScaleY, double dCenterX,
                                        double dCenterY);
/* Skew angles in degrees: dM21 = tan(dSkewX), dM12 = tan(dSkewY). */
OMBRIX_API void K_Matrix_Skew(KMATRIX* pMatrix, double dSkewX, double dSkewY);
OMBRIX_API void K_Matrix_SkewPrepend(KMATRIX* pMatrix, double dSkewX, double dSkewY);
OMBRIX_API void K_Matrix_Translate(KMATRIX* pMatrix, double dOffsetX, double dOffsetY);
OMBRIX_API void K_Matrix_TranslatePrepend(KMATRIX* pMatrix, double dOffsetX, double dOffsetY);
/* Transforms in place. Vectors ignore the offsets. TransformRect replaces
 * the rectangle by the bounding box of its four transformed corners (an
 * empty rectangle stays as it is). nCount <= 0 does nothing. */
OMBRIX_API void K_Matrix_TransformPoint(const KMATRIX* pMatrix, POINTD* pPoint);
OMBRIX_API void K_Matrix_TransformVector(const KMATRIX* pMatrix, POINTD* pVector);
OMBRIX_API void K_Matrix_TransformPoints(const KMATRIX* pMatrix, POINTD* pPoints, int32_t nCount);
OMBRIX_API void K_Matrix_TransformVectors(const KMATRIX* pMatrix, POINTD* pVectors, int32_t nCount);
OMBRIX_API void K_Matrix_TransformRect(const KMATRIX* pMatrix, RECTD* pRect);
/* 1 when the six values are equal (type 0 counts as the identity values). */
OMBRIX_API int32_t K_Matrix_IsEqual(const KMATRIX* pA, const KMATRIX* pB);
/* Element accessors; the getters read a type-0 record as the identity, the
 * setters re-derive the type. */
OMBRIX_API double K_Matrix_GetM11(const KMATRIX* pMatrix);
OMBRIX_API double K_Matrix_GetM12(const KMATRIX* pMatrix);
OMBRIX_API double K_Matrix_GetM21(const KMATRIX* pMatrix);
OMBRIX_API double K_Matrix_GetM22(const KMATRIX* pMatrix);
OMBRIX_API double K_Matrix_GetOffsetX(const KMATRIX* pMatrix);
OMBRIX_API double K_Matrix_GetOffsetY(const KMATRIX* pMatrix);
OMBRIX_API void   K_Matrix_SetM11(KMATRIX* pMatrix, double dValue);
OMBRIX_API void   K_Matrix_SetM12(KMATRIX* pMatrix, double dValue);
OMBRIX_API void   K_Matrix_SetM21(KMATRIX* pMatrix, double dValue);
OMBRIX_API void   K_Matrix_SetM22(KMATRIX* pMatrix, double dValue);
OMBRIX_API void   K_Matrix_SetOffsetX(KMATRIX* pMatrix, double dValue);
OMBRIX_API void   K_Matrix_SetOffsetY(KMATRIX* pMatrix, double dValue);

/* -- integer points, sizes, rectangles -- */
OMBRIX_API POINT   K_Point_Make(int32_t x, int32_t y);
OMBRIX_API POINT   K_Point_Empty(void);                       /* (0, 0) */
OMBRIX_API int32_t K_Point_IsEmpty(const POINT* pPoint);      /* both 0 */
OMBRIX_API int32_t K_Point_IsEqual(const POINT* pA, const POINT* pB);
OMBRIX_API void    K_Point_Offset(POINT* pPoint, int32_t dx, int32_t dy);
OMBRIX_API POINTD  K_Point_ToPointD(const POINT* pPoint);
OMBRIX_API SIZE    K_Size_Make(int32_t cx, int32_t cy);
OMBRIX_API SIZE    K_Size_Empty(void);
OMBRIX_API int32_t K_Size_IsEmpty(const SIZE* pSize);
OMBRIX_API int32_t K_Size_IsEqual(const SIZE* pA, const SIZE* pB);
OMBRIX_API SIZED   K_Size_ToSizeD(const SIZE* pSize);
/* From an origin and a size (negative sizes are kept: the result is empty). */
OMBRIX_API RECT    K_Rect_Make(int32_t x, int32_t y, int32_t cx, int32_t cy);
OMBRIX_API RECT    K_Rect_FromLTRB(int32_t nLeft, int32_t nTop, int32_t nRight, int32_t nBottom);
OMBRIX_API RECT    K_Rect_Empty(void);                        /* all 0 */
OMBRIX_API int32_t K_Rect_IsEmpty(const RECT* pRect);
OMBRIX_API int32_t K_Rect_IsEqual(const RECT* pA, const RECT* pB);
OMBRIX_API int32_t K_Rect_Width(const RECT* pRect);           /* right - left, may be <= 0 */
OMBRIX_API int32_t K_Rect_Height(const RECT* pRect);
OMBRIX_API POINT   K_Rect_TopLeft(const RECT* pRect);
OMBRIX_API POINT   K_Rect_TopRight(const RECT* pRect);
OMBRIX_API POINT   K_Rect_BottomLeft(const RECT* pRect);
OMBRIX_API POINT   K_Rect_BottomRight(const RECT* pRect);
OMBRIX_API SIZE    K_Rect_Size(const RECT* pRect);
/* left <= x < right and top <= y < bottom. */
OMBRIX_API int32_t K_Rect_ContainsPoint(const RECT* pRect, const POINT* pPoint);
/* 1 when pInner is not empty and lies inside pOuter. */
OMBRIX_API int32_t K_Rect_ContainsRect(const RECT* pOuter, const RECT* pInner);
/* Moves every edge outwards by dx, dy (negative values shrink). */
OMBRIX_API void    K_Rect_Inflate(RECT* pRect, int32_t dx, int32_t dy);
OMBRIX_API void    K_Rect_Offset(RECT* pRect, int32_t dx, int32_t dy);
/* *pResult = A intersect B; when that is empty *pResult becomes all 0 and 0
 * is returned. pResult may alias an input. */
OMBRIX_API int32_t K_Rect_Intersect(RECT* pResult, const RECT* pA, const RECT* pB);
OMBRIX_API int32_t K_Rect_IntersectsWith(const RECT* pA, const RECT* pB);
/* Smallest rectangle holding both; empty inputs are ignored; 0 (and all 0)
 * when both are empty. pResult may alias an input. */
OMBRIX_API int32_t K_Rect_Union(RECT* pResult, const RECT* pA, const RECT* pB);
OMBRIX_API RECTD   K_Rect_ToRectD(const RECT* pRect);

/* -- double points, sizes, rectangles -- */
OMBRIX_API POINTD  K_PointD_Make(double x, double y);
OMBRIX_API POINTD  K_PointD_Empty(void);
OMBRIX_API int32_t K_PointD_IsEmpty(const POINTD* pPoint);    /* both exactly 0 */
OMBRIX_API int32_t K_PointD_IsEqual(const POINTD* pA, const POINTD* pB);  /* exact */
OMBRIX_API void    K_PointD_Offset(POINTD* pPoint, double dx, double dy);
/* Each coordinate by K_Double_DoubleToInt. */
OMBRIX_API POINT   K_PointD_ToPoint(const POINTD* pPoint);
OMBRIX_API SIZED   K_SizeD_Make(double cx, double cy);
OMBRIX_API SIZED   K_SizeD_Empty(void);
OMBRIX_API int32_t K_SizeD_IsEmpty(const SIZED* pSize);
OMBRIX_API int32_t K_SizeD_IsEqual(const SIZED* pA, const SIZED* pB);
OMBRIX_API SIZE    K_SizeD_ToSize(const SIZED* pSize);
OMBRIX_API RECTD   K_RectD_Make(double x, double y, double cx, double cy);
OMBRIX_API RECTD   K_RectD_FromLTRB(double dLeft, double dTop, double dRight, double dBottom);
OMBRIX_API RECTD   K_RectD_Empty(void);
OMBRIX_API int32_t K_RectD_IsEmpty(const RECTD* pRect);
OMBRIX_API int32_t K_RectD_IsEqual(const RECTD* pA, const RECTD* pB);
OMBRIX_API double  K_RectD_Width(const RECTD* pRect);
OMBRIX_API double  K_RectD_Height(const RECTD* pRect);
OMBRIX_API POINTD  K_RectD_TopLeft(const RECTD* pRect);
OMBRIX_API POINTD  K_RectD_TopRight(const RECTD* pRect);
OMBRIX_API POINTD  K_RectD_BottomLeft(const RECTD* pRect);
OMBRIX_API POINTD  K_RectD_BottomRight(const RECTD* pRect);
OMBRIX_API SIZED   K_RectD_Size(const RECTD* pRect);
OMBRIX_API int32_t K_RectD_ContainsPoint(const RECTD* pRect, const POINTD* pPoint);
OMBRIX_API int32_t K_RectD_ContainsRect(const RECTD* pOuter, const RECTD* pInner);
OMBRIX_API void    K_RectD_Inflate(RECTD* pRect, double dx, double dy);
OMBRIX_API void    K_RectD_Offset(RECTD* pRect, double dx, double dy);
OMBRIX_API int32_t K_RectD_Intersect(RECTD* pResult, const RECTD* pA, const RECTD* pB);
OMBRIX_API int32_t K_RectD_IntersectsWith(const RECTD* pA, const RECTD* pB);
OMBRIX_API int32_t K_RectD_Union(RECTD* pResult, const RECTD* pA, const RECTD* pB);
/* Multiplies the edges by the factors (a negative factor swaps the edges). */
OMBRIX_API void    K_RectD_Scale(RECTD* pRect, double dScaleX, double dScaleY);
/* Same as K_Matrix_TransformRect. */
OMBRIX_API void    K_RectD_Transform(RECTD* pRect, const KMATRIX* pMatrix);
/* The smallest integer rectangle covering the double one (floor of left/top,
 * ceiling of right/bottom, saturated); an empty one gives all 0. */
OMBRIX_API RECT    K_RectD_ToRect(const RECTD* pRect);

/* -- lengths -- */
/* Euclidean lengths without intermediate overflow (hypot). */
OMBRIX_API double K_LengthD_Vector(double dx, double dy);
OMBRIX_API double K_LengthD_Between(const POINTD* pA, const POINTD* pB);
/* Length of the vector (dx, dy) after the matrix's linear part. */
OMBRIX_API double K_LengthD_Transform(const KMATRIX* pMatrix, double dx, double dy);
/* @@runtime@@ */

/* ======================================================================
 * Section: transforms: flip, reverse, quarter turns and view perspective
 * ====================================================================== */
/* (declarations of this section follow) */

/* ======================================================================
 * Section: transforms: rotation by any angle and shear
 * ====================================================================== */
/* (declarations of this section follow) */

/* ======================================================================
 * Section: transforms: copy, trim and fill
 * ====================================================================== */
/* (declarations of this section follow) */

/* ======================================================================
 * Section: transforms: combine
 * ====================================================================== */
/* (declarations of this section follow) */

/* ======================================================================
 * Section: transforms: resize and resample
 * ====================================================================== */
/* (declarations of this section follow) */

/* ======================================================================
 * Section: colour resolution, grey conversion and optimised palettes
 * ====================================================================== */
/* (declarations of this section follow) */

/* ======================================================================
 * Section: bitmap lists
 * ====================================================================== */
/* (declarations of this section follow) */

/* ======================================================================
 * Section: display support: window level and paint tables
 * ====================================================================== */
/* (declarations of this section follow) */

/* ======================================================================
 * Section: display support: animation playback
 * ====================================================================== */
/* (declarations of this section follow) */

#ifdef __cplusplus
} /* extern "C" */
#endif

/* ======================================================================
 * Section: exported C++ classes
 * ====================================================================== */
#ifdef __cplusplus
/* -- thread tools --------------------------------------------------------
 * Results are kernel statuses: 1 success, -1 (KS_NO_MEMORY) when an object
 * cannot be made, -100 (KS_USER_ABORT) for a time-out or a cancel. No method
 * throws. None of these objects may be copied; each owns what it creates and
 * releases it in Destroy and in its destructor. */

#define KT_INFINITE 0xFFFFFFFFu  /* KTWaitEvent::WaitOne without time-out */

/* The flags of KTWorkItems::Create */
#define KTWI_LOCK           0x1u  /* create the lock */
#define KTWI_LOCK_CANCEL    0x2u  /* read and write the cancelled flag under the lock (implies the lock) */
#define KTWI_ITEM_STATUS    0x4u  /* each item's result becomes the status (implies the lock) */
#define KTWI_SINGLE_THREAD  0x8u  /* never use threads: items run inside QueueItem */

/* An event: null until Create. */
class OMBRIX_API KTWaitEvent {
public:
    KTWaitEvent() noexcept;
    virtual ~KTWaitEvent();
    KTWaitEvent(const KTWaitEvent&) = delete;
    KTWaitEvent& operator=(const KTWaitEvent&) = delete;

    /* Closes an existing event, then makes a new one (manual reset: stays
     * signalled until Reset; otherwise one released waiter resets it).
     * 1, or -1 when it cannot be made (the object is then without event). */
    int Create(int bManualReset, int bInitialState);
    /* 1 when signalled within uMilliseconds (KT_INFINITE: no limit) or when
     * there is no event; -100 on time-out. */
    int WaitOne(uint32_t uMilliseconds);
    int Set();    /* 1 */
    int Reset();  /* 1 */
    void Destroy();
    int IsCreated() const; /* 1 when there is an event */

private:
    void* m_hEvent;
};

class KTReaderWriterLock;

/* A hold on a KTReaderWriterLock, released by the destructor (or Release).
 * Movable, not copyable. An empty item holds nothing. */
class OMBRIX_API KTReaderWriterLockItem {
public:
    KTReaderWriterLockItem() noexcept;
    KTReaderWriterLockItem(KTReaderWriterLock* pLock, int bReader) noexcept; /* adopts a hold already taken */
    KTReaderWriterLockItem(KTReaderWriterLockItem&& other) noexcept;
    KTReaderWriterLockItem& operator=(KTReaderWriterLockItem&& other) noexcept;
    KTReaderWriterLockItem(const KTReaderWriterLockItem&) = delete;
    KTReaderWriterLockItem& operator=(const KTReaderWriterLockItem&) = delete;
    virtual ~KTReaderWriterLockItem();

    void Release();            /* releases the hold now; the item becomes empty */
    int IsHeld() const;        /* 1 when the item holds a lock */
    int IsReader() const;      /* 1 for a shared hold */

private:
    KTReaderWriterLock* m_pLock;
    int m_bReader;
};

/* A reader/writer lock. Until Create (and after Destroy) it is a valid lock
 * that does nothing: acquires return empty items and releases return at
 * once. The lock state lives inside the object; it must not be moved while
 * created. Recursive holds are not supported, except that in the
 * critical-section fallback mode a thread may nest holds. */
class OMBRIX_API KTReaderWriterLock {
public:
    KTReaderWriterLock() noexcept;
    virtual ~KTReaderWriterLock();
    KTReaderWriterLock(const KTReaderWriterLock&) = delete;
    KTReaderWriterLock& operator=(const KTReaderWriterLock&) = delete;

    int Create();   /* 1; re-creating first tears down the old lock (which must not be held) */
    void Destroy();
    int IsCreated() const;
    KTReaderWriterLockItem AcquireReaderLock();
    KTReaderWriterLockItem AcquireReaderLock(int bEnable);  /* empty item when bEnable is 0 */
    KTReaderWriterLockItem AcquireWriterLock();
    KTReaderWriterLockItem AcquireWriterLock(int bEnable);
    /* Null lock: empty item; bReader non-zero: shared hold; else exclusive. */
    static KTReaderWriterLockItem Acquire(KTReaderWriterLock* pLock, int bReader);
    void Lock();               /* exclusive hold without an item */
    void Unlock();             /* releases an exclusive hold */
    void ReleaseWriterLock();  /* same as Unlock */

private:
    friend class KTReaderWriterLockItem;
    void ReleaseReaderLock();
    void LockShared();
    alignas(16) unsigned char m_storage[64];
    const void* m_pOps;
    int m_bCreated;
};

class KTWorkItems;
/* A work item: gets its KTWorkItems and its data; returns a status. -100
 * cancels the items that have not started yet. */
typedef int (*KTWORKITEMCALLBACK)(KTWorkItems* pItems, void* pData);
/* A function run on the pool; its result is ignored. */
typedef int (*KTPOOLFUNCTION)(void* pContext);

/* A set of work items run on the process-wide pool. Calling order: Create,
 * QueueItem once per announced item, Wait, GetStatus. With one processor
 * or KTWI_SINGLE_THREAD the items run inside QueueItem and Wait returns at
 * once. */
class OMBRIX_API KTWorkItems {
public:
    KTWorkItems() noexcept;
    virtual ~KTWorkItems();
    KTWorkItems(const KTWorkItems&) = delete;
    KTWorkItems& operator=(const KTWorkItems&) = delete;

    /* uItemCount items will be queued (0: the caller releases Wait with
     * Finish). uFlags: KTWI_. uPoolFlags go to KTThreadPool::QueueUserWorkItem.
     * 1, or -1 when the event or lock cannot be made. */
    int Create(uint32_t uItemCount, uint32_t uFlags, uint32_t uPoolFlags);
    /* Runs or queues one item. After a cancel it returns 1 without running
     * anything. -1 when the item cannot be queued (no memory), -13 for a null
     * callback. An item that is skipped or cannot be queued counts as
     * finished, so Wait does not wait for it. An item answering -100 cancels
     * the items that have not started (in single-thread mode too). */
    int QueueItem(KTWORKITEMCALLBACK pfnCallback, void* pData);
    /* Blocks until every announced item finished or Finish was called. 1. */
    int Wait();
    int Finish();         /* releases a waiter; 1 */
    void Cancel();
    int IsCanceled();
    int GetStatus();
    void SetStatus(int nStatus);
    KTReaderWriterLock& GetLock();
    /* Waits until every item handed to the pool has finished (so the object
     * may be destroyed right after a Wait released by Finish), then tears
     * the event and lock down. Not to be called from one of its own items. */
    void Destroy();
    int IsThreaded() const; /* 1 when items go to the pool */

private:
    static int RunRecord(void* pRecord);
    static int DropRecord(void* pRecord);
    int ReadCanceled();
    void ItemDone();
    uint32_t m_uFlags;
    int m_bCreated;
    uint32_t m_uItemCount;
    int m_nRemaining;           /* changed atomically */
    KTWaitEvent m_doneEvent;
    int m_bCanceled;
    KTReaderWriterLock m_lock;
    int m_nStatus;
    uint32_t m_uPoolFlags;
    int m_nInFlight;            /* handed to the pool, not finished; atomic */
};

/* The process-wide pool: one worker thread per processor, started on first
 * use and joined when the library is unloaded or the process exits. */
class OMBRIX_API KTThreadPool {
public:
    /* Runs pfnFunction(pContext) on a pool thread. uFlags are accepted and not
     * used. 1; -13 for a null function; -1 when the request cannot be
     * recorded. When no worker thread can be started the function runs on
     * the calling thread before the call returns. */
    static int QueueUserWorkItem(KTPOOLFUNCTION pfnFunction, void* pContext, uint32_t uFlags);
    /* Number of worker threads running now (0 before first use). */
    static int GetThreadCount();
    /* Items queued and not yet started. */
    static int GetPendingCount();
};

class OMBRIX_API KTThreadToolsManaged {
public:
    /* The processor count, read once per process; at least 1. */
    static int GetCoreCount();
};

class OMBRIX_API KTThreadToolsUnmanaged {
public:
    /* Binds the slim reader/writer lock operations once per process (falls
     * back to a critical section when the platform has none). 1. */
    static int Initialize();
    /* 1 when new locks use the slim reader/writer lock, 0 for the fallback. */
    static int HasSlimLocks();
};
/* @@runtime-classes@@ */
#endif

#endif /* OMBRIX_H */
