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
typedef int32_t (*PFN_BITMAPNOTIFY)(BITMAPRECORD* pBitmap, int32_t nCode, void* pUserData);
typedef struct BITMAPDATACALLBACKS_ {
    uint32_t           uStructSize;   /* BITMAPDATACALLBACKS_SIZE */
    void*              pUserData;
    PFN_BITMAPALLOCATE pfnAllocate;
    PFN_BITMAPFREE     pfnFree;
    void*              pReserved1[2];
    PFN_BITMAPACCESS   pfnAccess;
    PFN_BITMAPRELEASE  pfnRelease;
    PFN_BITMAPGETROW   pfnGetRow;
    PFN_BITMAPNOTIFY   pfnNotify;     /* events of the bitmap (1: a copy of it begins); may be null */
    void*              pReserved2;
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

/* Gives an initialised record (K_InitBitmap) storage of the memory type
 * (MEMTYPE_ bits). Returns 1; -13 null record, a record being accessed or a
 * type that cannot be had; -789 size word; -11 an empty image; -27 a depth the
 * compressed kinds cannot hold; -1 memory; an allocate callback's answer. */
OMBRIX_API int32_t K_AllocateBitmap(BITMAPRECORD* pBitmap, uint32_t uMemoryType);
/* Bracket direct use of pData; they nest (nLockCount). K_AccessBitmap: 1, -13
 * null record, -2 unallocated, -789 size word, an access callback's answer.
 * K_ReleaseBitmap: 1 (also when nothing is accessed), -814 null record, -789
 * size word, a release callback's answer. */
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

/* Library information: version and build options as text (a constant string),
 * the processor's features, the number of processors (at least 1). */
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
/* The temporary-file mode in force for the calling thread (2 until one is
 * set); never fails. */
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
 * (before any pixel changes); -16, the run unchanged, when ORDER_BGRWIDE
 * is asked at a destination depth other than 24 or 48. */
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
/* As K_ConvertBufferExt2 with crTransparent (0x00BBGGRR, or a palette index
 * marked as such) the colour CONVERT_TRANSPARENT makes transparent; the same
 * results and statuses as K_ConvertBufferExt2. */
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
/* The calling thread's default dithering method (0..8), copied into
 * nDitheringMethod by K_InitBitmap (0, DITHER_NEAREST, until set); never fails. */
OMBRIX_API int32_t K_GetDefaultDithering(void);
/* Sets the calling thread's default method (0..8) and returns the previous
 * one; -13 (and no change) for any other value. */
OMBRIX_API int32_t K_DefaultDithering(int32_t nMethod);

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
/* *ppRgn = new region of the rectangle (empty when right <= left or bottom <= top).
 * 1; -13 null pointer; -1 no memory. */
OMBRIX_API int32_t K_CreateOrvaRgnRect(OrvaRgn** ppRgn, const RECT* pRect);
/* *ppDst = copy of pSrc; a null pSrc gives *ppDst = null and 1. */
OMBRIX_API int32_t K_CopyOrvaRgn(OrvaRgn** ppDst, const OrvaRgn* pSrc);
/* Frees the region, its rows, runs and cached handle. 1; -13 null region. */
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
/* Keeps only the part inside the rectangle (in place). 1; -13 null pointer;
 * -1 no memory (the region unchanged). */
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
 * ALTERNATE) by the even-odd rule. Fewer than 2 points: empty region.
 * 1; -13 null ppRgn, null points with nCount > 0, negative nCount; -1 no
 * memory or a region taller than ORVARGN_MAX_ROWS. */
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
/* hDst = hSrc1 combined with hSrc2 by nMode (RGN_AND..RGN_COPY; hSrc2 is
 * still looked up for RGN_COPY). Result: the kind of the new region
 * (NULLREGION, SIMPLEREGION or COMPLEXREGION), or 0 (ERROR) for a handle that
 * is not a live region, a bad mode or no memory (hDst unchanged). */
OMBRIX_API int32_t CombineRgn(HRGN hDst, HRGN hSrc1, HRGN hSrc2, int32_t nMode);
/* Moves the region by (dx, dy). 1 on success; 0 for a handle that is not a
 * live region or a move out of the 32-bit range (region unchanged). */
OMBRIX_API int32_t OffsetRgn(HRGN hRgn, int32_t dx, int32_t dy);
/* *pRect = the region's bounding box. The region's kind, or 0 (ERROR) for a
 * handle that is not a live region or a null pRect. */
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
 * turn by *pnAngle degrees (0, 90, 180, 270). 1; -13 null pointer or a
 * perspective outside 1..8. */
OMBRIX_API int32_t K_GetChangeViewPerspectiveParams(int32_t nFrom, int32_t nTo, int32_t* pbFlip,
                                                    int32_t* pnAngle);
/* Converts a rectangle of an nWidth x nHeight image (as seen in nFrom) into nTo,
 * in place. 1; -13 null pointer, a perspective outside 1..8, or a result that
 * does not fit 32 bits (the rectangle unchanged). */
OMBRIX_API int32_t K_ChangeRectViewPerspective(int32_t nFrom, int32_t nWidth, int32_t nHeight, int32_t nTo,
                                               RECT* pRect);
/* Same for one pixel position: 1; -13 null pointer, a perspective outside
 * 1..8, or a result that does not fit 32 bits (the point unchanged). */
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
 * palette bitmap, the pixels whose palette entry has that colour). Statuses as
 * K_SetBitmapRgn (-2 null bitmap, -789 size word, -13 bad mode, -1 memory). */
OMBRIX_API int32_t K_SetBitmapRgnColor(BITMAPRECORD* pBitmap, uint32_t uColor, uint32_t uCombineMode);

/* 1 when the bitmap carries a region, 0 when not (also for null or a bad size word). */
OMBRIX_API int32_t K_BitmapHasRgn(const BITMAPRECORD* pBitmap);
/* Removes the bitmap's region. 1; -13 null record, -789 size word. */
OMBRIX_API int32_t K_FreeBitmapRgn(BITMAPRECORD* pBitmap);
/* *pRect = the region's bounding rectangle (the bitmap's rectangle without a
 * region) mapped out through pXForm. 1; -2 null record or rectangle, -789 size
 * word, -13 bad transform or a result outside 32 bits (*pRect unchanged). */
OMBRIX_API int32_t K_GetBitmapRgnBounds(const BITMAPRECORD* pBitmap, const RGNXFORM* pXForm, RECT* pRect);
/* *puArea = pixels in the region (width x height without one). 1; -2 null
 * record, -789 size word, -13 null puArea. */
OMBRIX_API int32_t K_GetBitmapRgnArea(const BITMAPRECORD* pBitmap, uint64_t* puArea);
/* 1 when stored pixel (nRow, nCol) is in the region (in the bitmap without
 * one), else 0 (also for null or a bad size word). */
OMBRIX_API int32_t K_IsPtInBitmapRgn(const BITMAPRECORD* pBitmap, int32_t nRow, int32_t nCol);
/* *puMax = the most segment values any row can give K_GetBitmapClipSegments.
 * 1; -2 null record, -789 size word, -13 null puMax. */
OMBRIX_API int32_t K_GetBitmapClipSegmentsMax(const BITMAPRECORD* pBitmap, uint32_t* puMax);
/* Copies row nRow's x values (pairs x1, x2, x2 exclusive) into pSegments,
 * which must hold K_GetBitmapClipSegmentsMax values, and stores their count.
 * 1; -2 null record, -789 size word, -13 null
 * pSegments or puCount. */
OMBRIX_API int32_t K_GetBitmapClipSegments(const BITMAPRECORD* pBitmap, int32_t nRow, int32_t* pSegments,
                                           uint32_t* puCount);
/* Moves the region (the whole bitmap without one) by the offsets, clipped to
 * the bitmap unless it is kept unclipped; scales it from the bitmap's size to
 * nWidth x nHeight; flips its rows; reverses its columns. The last three do
 * nothing without a region. 1; -13 null record (and negative sizes for
 * K_SizeBitmapRgn), -789 size word, -1 memory (the region unchanged). */
OMBRIX_API int32_t K_OffsetBitmapRgn(BITMAPRECORD* pBitmap, int32_t nRowOffset, int32_t nColOffset);
OMBRIX_API int32_t K_SizeBitmapRgn(BITMAPRECORD* pBitmap, int32_t nWidth, int32_t nHeight);
OMBRIX_API int32_t K_FlipBitmapRgn(BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_ReverseBitmapRgn(BITMAPRECORD* pBitmap);
/* *phRgn = a new handle of the region mapped out (the whole bitmap without
 * region); the caller deletes it. 1; -2 null record, -789 size word, -13 null
 * phRgn or a bad transform, -1 memory (*phRgn unchanged). */
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
 * nBitsPerPixel bits, samples in stored order, 16-bit samples little-endian).
 * 1; -13 null record; -789 size word; -2 not allocated; -1927 floating data;
 * -1 no memory; a row-layer status. */
OMBRIX_API int32_t K_FillBitmap2(BITMAPRECORD* pBitmap, uint64_t uRawPixel);
/* K_FillBitmap2 with 0; the same statuses. */
OMBRIX_API int32_t K_ClearBitmap(BITMAPRECORD* pBitmap);

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
 * 32-bit limits instead of wrapping.
 * Results of the functions below that return int32_t: they never fail.
 * Predicates (IsEmpty, IsEqual, IsIdentity, Contains*, IntersectsWith) return
 * 1 or 0; a null pointer gives 0, except IsEmpty of a size or rectangle (1:
 * nothing is empty). Intersect and Union write *pResult and return 1 when it
 * is not empty, else 0 with *pResult set to the empty rectangle (null
 * pointers: 0, nothing written). K_Matrix_GetType returns a KMATRIX_TYPE_
 * value (0 for a null matrix). */
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

/* ======================================================================
 * Section: transforms: flip, reverse, quarter turns and view perspective
 * ====================================================================== */
/* Moving pixels. Every function here works on any storage kind (single block,
 * tiles, temporary file, run-compressed and super-compressed rows, caller
 * memory), moves the bitmap's region with the pixels, reports progress through
 * the calling thread's status callback and stops with the callback's answer
 * when it is not 1. A call that fails or is stopped leaves the record, its
 * region and its pixels exactly as they were.
 *
 * K_FlipBitmap turns the viewed image upside down, K_ReverseBitmap mirrors it
 * left to right; for a bitmap in perspective 5..8 (viewed columns stored as
 * rows) the stored rows are reversed, respectively flipped.
 * -13 null or unallocated record, -789 bad size word, -1 out of memory, the
 * callback's answer when it stops the work, a storage error (-4, -5, -7). */
OMBRIX_API int32_t K_FlipBitmap(BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_ReverseBitmap(BITMAPRECORD* pBitmap);
/* Stored rows flipped top to bottom / each stored row mirrored; no size-word
 * check; -2 for a null or unallocated record, otherwise as above. */
OMBRIX_API int32_t K_IntFlipBitmap(BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_IntReverseBitmap(BITMAPRECORD* pBitmap);

/* Relabelling: only nViewPerspective changes (and, for quarter turns, the
 * exchange of nXResolution and nYResolution), no pixel moves. The record
 * need not be allocated. Flip: 1<->4, 2<->3, 5<->8, 6<->7. Reverse: 1<->2,
 * 3<->4, 5<->6, 7<->8. Quarter turn: 1->6->3->8->1, 2->7->4->5->2. Values
 * outside 1..8 are left as they are. nAngle is in whole degrees, brought into
 * 0..359 by whole turns; 0 does nothing, 90/180/270 apply one, two or three
 * quarter turns, any other angle gives -13.
 * -13 null record, -789 bad size word; the K_Int forms skip the size word and
 * give -2 for a null record. */
OMBRIX_API int32_t K_FlipBitmapViewPerspective(BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_ReverseBitmapViewPerspective(BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_RotateBitmapViewPerspective(BITMAPRECORD* pBitmap, int32_t nAngle);
OMBRIX_API int32_t K_IntFlipBitmapViewPerspective(BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_IntReverseBitmapViewPerspective(BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_IntRotateBitmapViewPerspective(BITMAPRECORD* pBitmap, int32_t nAngle);

/* Moves the pixels so that the same viewed image is stored in perspective
 * nViewPerspective (1..8), then sets the field. With pDstBitmap null or equal
 * to pSrcBitmap the source changes in place; otherwise pDstBitmap (record size
 * uStructSize) receives a full copy of the source that is then changed, and the
 * source is left alone. The calling thread's status callback is silenced for
 * the duration and restored. The viewed resolutions are kept.
 * -13 null or unallocated source, a perspective outside 1..8 (requested or
 * stored), -789 bad size word (source, or uStructSize for a distinct
 * destination), -1 out of memory; a destination that was not made is left
 * unallocated. */
OMBRIX_API int32_t K_ChangeBitmapViewPerspective(BITMAPRECORD* pDstBitmap, BITMAPRECORD* pSrcBitmap,
                                                 uint32_t uStructSize, int32_t nViewPerspective);
/* The unchecked form (-2 for a null or unallocated source); uCarryMask is the
 * carry mask of the copy made for a distinct destination. */
OMBRIX_API int32_t K_IntChangeBitmapViewPerspective(BITMAPRECORD* pDstBitmap, BITMAPRECORD* pSrcBitmap,
                                                    uint32_t uStructSize, int32_t nViewPerspective,
                                                    uint32_t uCarryMask);

/* Quarter turn of the viewed image into new storage of exchanged width and
 * height (same storage kind; caller memory is kept when the turned image fits
 * the caller's buffer, else the kernel takes its own block). bTurn 1 turns
 * clockwise as seen (the turn of K_RotateBitmap for +90.00 degrees), 0
 * anticlockwise; for the mirrored perspectives 2, 4, 5, 7 the stored pixels
 * turn the other way. The resolutions are exchanged. Progress goes from
 * nProgressStart to nProgressEnd percent (0 <= start <= end <= 100).
 * -13 null or unallocated record, a bad progress range, a record being accessed
 * (K_AccessBitmap outstanding); -789 bad size word; -11 a turned row that does
 * not fit 32 bits; -1 out of memory; the callback's answer when it stops. */
OMBRIX_API int32_t K_RotateBitmap90(BITMAPRECORD* pBitmap, int32_t bTurn, int32_t nProgressStart,
                                    int32_t nProgressEnd);
/* Quarter turn of a plain buffer of uHeight rows of uWidth pixels, rows
 * padded to 4 bytes (stride ((uWidth * bits + 31) / 8) & ~3), into pDst of
 * uWidth rows of uHeight pixels (its stride from uHeight). bTurn non-zero:
 * clockwise (the source is walked from its last row), 0: anticlockwise.
 * pDst must not overlap pSrc. -13 null buffer, a depth other than 1..8, 12,
 * 16, 24, 32, 48, 64, or a row that does not fit 32 bits; 0 x anything: 1. */
OMBRIX_API int32_t K_RotateBuffer90(const uint8_t* pSrc, uint8_t* pDst, int32_t bTurn, uint32_t uWidth,
                                    uint32_t uHeight, int32_t nBitsPerPixel);
/* Half turn of such a buffer into pDst (same stride); pDst may be pSrc (in
 * place), other overlaps are refused (-13). Errors as K_RotateBuffer90. */
OMBRIX_API int32_t K_RotateBuffer180(const uint8_t* pSrc, uint8_t* pDst, uint32_t uWidth, uint32_t uHeight,
                                     int32_t nBitsPerPixel);
/* Reverses the order of uPixels pixels of one packed row in place, for 1..8,
 * 12, 16, 24, 32, 48 and 64 bits per pixel (bits after the last pixel in its
 * byte are kept). -13 null buffer; any other depth leaves the row and
 * returns 1. */
OMBRIX_API int32_t K_MirrorLine(uint8_t* pBuffer, uint32_t uPixels, int32_t nBitsPerPixel);

/* ======================================================================
 * Section: transforms: rotation by any angle and shear
 * ====================================================================== */
/* -- rotation by any angle and shear -- */
/* Flags of K_RotateBitmap and K_ShearBitmap (a bit set). */
#define ROTATE_RESIZE            0x0001u /* enlarge the result to hold the whole transformed image;
                                            without it the size is kept and the corners are cut */
#define SHEAR_VERTICAL           0x0002u /* K_ShearBitmap: shear the columns (default: the rows) */
#define ROTATE_NO_SHORTCUTS      0x0008u /* K_RotateBitmap: right angles through the general path */
#define ROTATE_FILL_TRANSPARENT  0x0010u /* 32 and 64 bits: the fill's alpha is 0 (default: opaque) */
#define ROTATE_ONE_THREAD        0x0020u /* work on the calling thread only */
#define ROTATE_NEAREST           0x0000u /* interpolation (bits 8..11): nearest pixel, every depth */
#define ROTATE_BILINEAR          0x0100u /* 8-bit and 16-bit grey, 24, 32, 48 and 64 bits */
#define ROTATE_BICUBIC           0x0200u /* Catmull-Rom, same depths as bilinear */
#define ROTATE_INTERP_MASK       0x0F00u
/* Fill colour of uncovered pixels: 0x00BBGGRR (red in the low byte); up to 8
 * bits the nearest palette entry is used, grey depths take the grey of the
 * colour. ROTATE_FILL_INDEX(i) names a palette index directly (depths up to 8). */
#define ROTATE_FILL_INDEX(i)     (0x01000000u | ((uint32_t)(i) & 0xFFu))
/* Largest shear angle, in hundredths of a degree (tan 85 degrees = 11.4). */
#define SHEAR_MAX_ANGLE          8500

/* Turns the viewed image by nAngle hundredths of a degree (-36000..36000),
 * positive clockwise as the image is viewed, about its centre, in place: the
 * record receives new storage of the same kind (caller memory becomes
 * kernel memory), its region turns with it (a pixel is in the new region
 * when its nearest source pixel was in the old one), and its view
 * perspective becomes 1 or 4 (perspectives 2, 5, 7 become 4 and 3, 6, 8 become 1, the difference
 * being added to the turn). Pixel centres map onto pixel centres, so turns
 * by right angles move pixels unchanged with any interpolation; +90.00 with
 * ROTATE_RESIZE equals K_RotateBitmap90(pBitmap, 1, ...). Uncovered pixels
 * get uFill; covered pixels near the edge repeat the edge pixels. Where the
 * alphas of 32/64-bit neighbours differ they are weighted by alpha. 0.00,
 * 180.00 and (with ROTATE_RESIZE or a square image) 90.00 / 270.00 take
 * short cuts unless ROTATE_NO_SHORTCUTS. Progress 0..100 through the status
 * callback; an answer other than 1 stops and is returned with the bitmap
 * unchanged.
 * Results: 1; -13 null or unallocated record, unknown flag bits or
 * interpolation, an angle out of range, a view perspective outside 1..8, a
 * row size (nBytesPerLine) that is not the one the width and depth give, a
 * locked bitmap (outstanding K_AccessBitmap), a bad fill (palette index
 * past the depth, index form above 8 bits); -789 size word; -27 a depth that
 * the interpolation does not support (bilinear and bicubic: 8-bit grey (a
 * 256-entry grey-ramp palette), 16-bit grey, 24, 32, 48, 64 bits); -11 a
 * result larger than 32-bit sizes allow; -1 (or the storage's failure) when
 * the new storage cannot be made. On failure the record and its pixels are
 * as they were. */
OMBRIX_API int32_t K_RotateBitmap(BITMAPRECORD* pBitmap, int32_t nAngle, uint32_t uFlags, uint32_t uFill);
/* Shears the viewed image by nAngle hundredths of a degree
 * (-SHEAR_MAX_ANGLE..SHEAR_MAX_ANGLE) about its centre: rows slide
 * horizontally by tan(angle) per row below the centre (positive: lower rows
 * move right), or with SHEAR_VERTICAL columns slide vertically (positive:
 * right columns move down). ROTATE_RESIZE widens (or heightens) the result
 * by ceil(|tan| x height (width)). Fill, interpolation, storage, region,
 * progress and results as K_RotateBitmap; the view perspective is kept. */
OMBRIX_API int32_t K_ShearBitmap(BITMAPRECORD* pBitmap, int32_t nAngle, uint32_t uFlags, uint32_t uFill);
/* The stored width and height K_RotateBitmap with ROTATE_RESIZE gives the
 * record for nAngle: ceil(|cos| W + |sin| H - 1/64) by ceil(|sin| W + |cos| H
 * - 1/64) with the kernel's sine table, after the perspective folding.
 * -13 null pointers, angle out of range, perspective outside 1..8; -789 size
 * word; -11 empty record or a size past 32 bits. */
OMBRIX_API int32_t K_GetRotatedBitmapSize(const BITMAPRECORD* pBitmap, int32_t nAngle, int32_t* pnWidth,
                                          int32_t* pnHeight);

/* ======================================================================
 * Section: transforms: copy, trim and fill
 * ====================================================================== */
/* -- copy, trim ----------------------------------------------------------
 * The destination of a copy is an output: whatever the record held is ignored
 * (an allocated destination must be freed by the caller first) and it is
 * written only when the copy succeeds. A failing copy frees everything it
 * made and leaves the destination record untouched. Rectangles are in stored
 * pixels (the rows and columns of the row calls). Progress goes to the copy
 * status callback (K_SetCopyStatusCallBack) in whole percent; an answer other
 * than 1 stops the copy and is returned. */

/* Carry bits of K_DupBitmapNewDim: what the new record takes from the source. */
#define DUPBITMAP_PALETTE      0x001u /* palette entries and nColors (a copy of the block) */
#define DUPBITMAP_RESOLUTION   0x002u /* nXResolution, nYResolution */
#define DUPBITMAP_PERSPECTIVE  0x004u /* nViewPerspective */
#define DUPBITMAP_ORDER        0x008u /* nOrder, nDitheringMethod, the floating-data and signed-data flags */
#define DUPBITMAP_PAINT        0x010u /* grey parameters (nLowBit, nHighBit, nMinBit, nMaxBit, the LUT)
                                         and paint settings (display words, nLevel, paint-table flag) */
#define DUPBITMAP_REGION       0x020u /* region (clipped to the new size unless unclipped) and extra data */
#define DUPBITMAP_STORAGE_LIKE 0x040u /* allocate in the source's storage kind (tiles of its tile size,
                                         disk, run-compressed, super-compressed; caller and callback
                                         memory give a single block) */
#define DUPBITMAP_ALLOCATE     0x080u /* allocate with the thread's default memory type */
#define DUPBITMAP_PIXELS       0x100u /* copy the pixels the two sizes share (top-left stored window);
                                         needs an allocated source and one of the two bits above */
#define DUPBITMAP_ALL          0x1FFu
/* The masks the kernel uses. */
#define DUPBITMAP_COPY       191u /* a normal copy: everything but the storage kind, default memory type */
#define DUPBITMAP_TEMPORARY  127u /* a record that will replace its source: same storage kind */
#define DUPBITMAP_WORK        67u /* a work bitmap: palette, resolutions, the source's storage kind */
#define DUPBITMAP_RESIZE     321u /* palette, the source's storage kind and the shared pixels */
#define DUPBITMAP_DESCRIBE    14u /* resolutions, perspective, order; not allocated (storage chosen later) */
#define DUPBITMAP_COLORS       5u /* palette and perspective; not allocated */

/* Signed grey samples: the sample bit nHighBit (the top bit when nHighBit is
 * outside the sample) is the sign. Carried with DUPBITMAP_ORDER. */
#define BRF_SIGNED_DATA 0x00040000u

/* Makes pDst a new record of nWidth x nHeight at pSrc's depth, in the layout
 * uStructSize, taking from pSrc what uCarry names (DUPBITMAP_ bits). Without an
 * allocation bit the record is initialised only. -13 null pointer, pDst ==
 * pSrc, unknown carry bits, or DUPBITMAP_PIXELS without allocation or with an
 * unallocated source; -789 size words; -11 negative size (or a zero size to be
 * allocated); -27 source depth; -1 memory; allocation statuses. */
OMBRIX_API int32_t K_DupBitmapNewDim(BITMAPRECORD* pDst, const BITMAPRECORD* pSrc, uint32_t uStructSize,
                                     int32_t nWidth, int32_t nHeight, uint32_t uCarry);
/* Copies every pixel of pSrc into pDst: two allocated bitmaps of the same
 * width, height and depth, any storage kinds. pDst == pSrc: 1. -13 null, not
 * allocated or unlike shape; -789 size words; row and callback statuses. */
OMBRIX_API int32_t K_CopyBitmapData(BITMAPRECORD* pDst, BITMAPRECORD* pSrc);
/* pDst becomes a full, independent copy of pSrc (K_DupBitmapNewDim with
 * DUPBITMAP_COPY, then K_CopyBitmapData), in the layout uStructSize. pDst ==
 * pSrc: 1, nothing done. -13 null or unallocated source; -789 size words. */
OMBRIX_API int32_t K_CopyBitmap(BITMAPRECORD* pDst, BITMAPRECORD* pSrc, uint32_t uStructSize);
/* K_CopyBitmap with the storage of the copy chosen by uMemory (memory types as
 * K_AllocateBitmap takes them; 0 the default; MEMTYPE_USER is -13 as the copy
 * would have no pixels). The source's notification callback is told 1 first;
 * its answer other than 1 or 2 is returned. */
OMBRIX_API int32_t K_CopyBitmap2(BITMAPRECORD* pDst, BITMAPRECORD* pSrc, uint32_t uStructSize, uint32_t uMemory);
/* Starts a copy: gives the new record pDst (initialised, not allocated) pSrc's
 * palette, region (moved by nDx, nDy), extra data and paint settings. On
 * failure pDst is as before. -2 null or bad records, -1 memory. */
OMBRIX_API int32_t K_IntBeginCopyBitmap(BITMAPRECORD* pDst, const BITMAPRECORD* pSrc, int32_t nDx, int32_t nDy);
/* Copies the grey parameters: nLowBit, nHighBit, nMinBit, nMaxBit, the
 * signed-data flag and the LUT (a copy; pDst's old LUT is freed). -13 null,
 * -789 size words, -1 memory (pDst unchanged). */
OMBRIX_API int32_t K_CopyGrayParams(BITMAPRECORD* pDst, const BITMAPRECORD* pSrc);
/* Makes pDst a uWidth x uHeight bitmap (carry DUPBITMAP_COPY, pSrc's region
 * moved by (-nCol, -nRow)) holding the source pixels of the rectangle
 * (nCol, nRow, nCol + uWidth, nRow + uHeight); parts of the rectangle outside
 * the source are left as allocated (zero). pDst null or equal to pSrc crops
 * pSrc in place (its storage kind is kept; its data callbacks are dropped).
 * -13 null or unallocated source, nCol or nRow INT32_MIN, an in-place crop of
 * a bitmap being accessed; -11 uWidth or uHeight 0 or above INT32_MAX; -789. */
OMBRIX_API int32_t K_CopyBitmapRect(BITMAPRECORD* pDst, BITMAPRECORD* pSrc, uint32_t uStructSize, int32_t nCol,
                                    int32_t nRow, uint32_t uWidth, uint32_t uHeight);
/* K_CopyBitmapRect with the storage chosen by uMemory, begun as K_CopyBitmap2;
 * the results and statuses of both. */
OMBRIX_API int32_t K_CopyBitmapRect2(BITMAPRECORD* pDst, BITMAPRECORD* pSrc, uint32_t uStructSize, int32_t nCol,
                                     int32_t nRow, uint32_t uWidth, uint32_t uHeight, uint32_t uMemory);
/* Crops in place to the part of the rectangle inside the bitmap. -11 when
 * that part is empty; otherwise as K_CopyBitmapRect with a null destination. */
OMBRIX_API int32_t K_TrimBitmap(BITMAPRECORD* pBitmap, int32_t nCol, int32_t nRow, uint32_t uWidth,
                                uint32_t uHeight);
/* Copies the record itself into pDst in the layout uStructSize (216 <-> 176):
 * both records then name the same storage, palette and region, and exactly
 * one of them may be freed. A 176 copy has no data callbacks; -3 when the data
 * does not fit the older layout. -13 null, -789 size words. */
OMBRIX_API int32_t K_CopyBitmapHandle(BITMAPRECORD* pDst, const BITMAPRECORD* pSrc, uint32_t uStructSize);
/* Sets negative samples of a signed grey image (BRF_SIGNED_DATA; 8, 12, 16
 * or 32 bits, grey) to 0, inside the region only. Other images: 1, nothing
 * changed. -13, -789, -2 as usual. Progress through the status callback. */
OMBRIX_API int32_t K_ClearNegativePixels(BITMAPRECORD* pBitmap);

/* ======================================================================
 * Section: transforms: combine
 * ====================================================================== */
/* Combine flag word: four 4-bit fields (source operator, destination operator,
 * operation, result operator); words above 0xFFFF are invalid. */
#define COMBINE_SRC_VALUE      0x0000u
#define COMBINE_SRC_INVERT     0x0001u
#define COMBINE_SRC_ZERO       0x0002u
#define COMBINE_SRC_ONES       0x0003u
#define COMBINE_DST_VALUE      0x0000u
#define COMBINE_DST_INVERT     0x0010u
#define COMBINE_DST_ZERO       0x0020u
#define COMBINE_DST_ONES       0x0030u
#define CombineAnd                 0x0000u
#define CombineOr                  0x0100u
#define CombineXor                 0x0200u
#define CombineAdd                 0x0300u
#define CombineSubtractSource      0x0400u  /* D - S, negatives become 0 */
#define CombineSubtractDestination 0x0500u  /* S - D, negatives become 0 */
#define CombineMultiply            0x0600u  /* D * S / M */
#define CombineDivideSource        0x0700u  /* S = 0: M, else min(M, D * M / S) */
#define CombineDivideDestination   0x0800u  /* D = 0: M, else min(M, S * M / D) */
#define CombineAverage             0x0900u  /* (D + S) >> 1 */
#define CombineMinimum             0x0A00u
#define CombineMaximum             0x0B00u
#define CombineNoOperation         0x0C00u  /* the destination operand */
#define CombineAlphaOver           0x0D00u  /* over-blending of 4-sample pixels, destination alpha kept */
#define COMBINE_RES_VALUE      0x0000u
#define COMBINE_RES_INVERT     0x1000u
#define COMBINE_RES_ZERO       0x2000u
#define COMBINE_RES_ONES       0x3000u
/* Combines the nWidth x nHeight rectangle of pSrcBitmap at (nXSrc, nYSrc) into
 * pDstBitmap at (nXDst, nYDst), in place. Coordinates are in the top-left view
 * of both bitmaps and are mapped into each one's stored orientation; the
 * rectangle is clipped to both bitmaps. Only pixels inside the destination's
 * region change. Both bitmaps must have the same bits per pixel when the
 * operation reads the source (pSrcBitmap may be null when it does not).
 * Progress goes to the status callback, whose first answer other than 1 stops
 * the work and is returned. See docs/combine.md for the operations at each
 * depth. Returns 1; -13 null or unallocated destination, invalid flag word,
 * null or unallocated source when it is read, negative width or height; -789
 * a size word; -27 depths that differ; -1 memory, or a source of another view
 * perspective (other than 1 against 4) that could not be converted into the
 * destination's; a row-layer or callback status. */
OMBRIX_API int32_t K_CombineBitmapKrn(BITMAPRECORD* pDstBitmap, int32_t nXDst, int32_t nYDst, int32_t nWidth,
                                      int32_t nHeight, BITMAPRECORD* pSrcBitmap, int32_t nXSrc, int32_t nYSrc,
                                      uint32_t uFlags);

/* ======================================================================
 * Section: transforms: resize and resample
 * ====================================================================== */
/* -- resize and resample --
 * Size flags of K_SizeBitmap, K_IntResizeBitmap and K_ResizeBitmap. */
#define SIZE_NORMAL        0x00u  /* nearest pixel: target i takes source floor(i * old / new) */
#define SIZE_FAVOURBLACK   0x01u  /* 1-bit black-and-white: a reduced pixel is black when enough of its block is */
#define SIZE_RESAMPLE      0x02u  /* bilinear growth, area-averaging reduction (per axis) */
#define SIZE_BICUBIC       0x04u  /* bicubic when either dimension grows, else as SIZE_RESAMPLE */
#define SIZE_SCALETOGRAY   0x08u  /* 1-bit black-and-white to 8-bit grey by area averaging */
#define SIZE_LANCZOS       0x10u  /* Lanczos-3 resampling (widened when reducing) */
#define SIZE_PREMULTIPLY   0x20u  /* 32/64 bits: resample premultiplied by alpha, so transparent
                                     pixels lend no colour */

/* Resizes the bitmap in place to nWidth x nHeight; the method follows from uFlags (above): on a
 * 1-bit image SIZE_FAVOURBLACK and SIZE_SCALETOGRAY need a black-and-white palette (else they are
 * dropped) and then win over SIZE_RESAMPLE; otherwise SIZE_LANCZOS, SIZE_RESAMPLE, SIZE_BICUBIC
 * resample, and nearest pixel is the default. The region is scaled with the pixels; the LUT, extra
 * data and overlays stay; data callbacks are dropped (the storage is new). Returns 1 at once for
 * the current size; -13 null or unallocated bitmap or unknown flag bits; -789 size word; -11 a
 * width or height below 1 or a size whose row or whole image cannot be stored (checked before any
 * allocation); -1 no memory; a status callback's answer other than 1. On failure the bitmap is
 * unchanged. */
OMBRIX_API int32_t K_SizeBitmap(BITMAPRECORD* pBitmap, int32_t nWidth, int32_t nHeight, uint32_t uFlags);
/* Fills the allocated pDstBitmap (any size) from pSrcBitmap by the method of uFlags, without
 * argument checks: SIZE_FAVOURBLACK, then SIZE_LANCZOS, SIZE_RESAMPLE, SIZE_BICUBIC (bicubic when
 * the target is wider or taller), else nearest pixel (same depth needed, -27 otherwise). Target
 * row y goes to stored row (height - 1 - y) when the two view perspectives differ. -2 for a null
 * or unallocated bitmap or pSrc == pDst; -11 empty sizes. */
OMBRIX_API int32_t K_IntResizeBitmap(BITMAPRECORD* pSrcBitmap, BITMAPRECORD* pDstBitmap, uint32_t uFlags);
/* K_IntResizeBitmap with checks: -13 null, unallocated or identical bitmaps, unknown flag bits or a
 * view perspective outside 1..8; -789 size words. Perspectives that differ by a flip of the stored
 * rows (1/4, 2/3, 5/6, 7/8) are handled by writing rows bottom up; other pairs resize a copy of the
 * source stored in the destination's perspective (K_IntChangeBitmapViewPerspective).
 * SIZE_FAVOURBLACK is dropped unless both bitmaps are 1-bit black-and-white. */
OMBRIX_API int32_t K_ResizeBitmap(BITMAPRECORD* pSrcBitmap, BITMAPRECORD* pDstBitmap, uint32_t uFlags);

/* Row-at-a-time resizer. K_StartResize checks the sizes (-13 for a dimension below 1, a row too
 * long for 32 bits, or a null ppResizeData), allocates the state (-1) and stores it. K_Resize takes
 * source row nRow (0 <= nRow < old height) in pBuffer, which must hold the larger of a source and a
 * target row, resizes it in place to the new width (stored in *pnNewWidth), and returns and stores
 * in *pnRows how many target rows it makes: floor((nRow + 1) * new / old) - floor(nRow * new / old)
 * in rows, whatever order the rows come in. Equal sizes: 1 and nothing changes. -13 for null
 * pointers, a foreign state, a bad depth or row. K_StopResize frees the state (-13 for null). */
OMBRIX_API int32_t K_StartResize(int32_t nOldWidth, int32_t nOldHeight, int32_t nNewWidth, int32_t nNewHeight,
                                 void** ppResizeData);
OMBRIX_API int32_t K_Resize(uint8_t* pBuffer, int32_t nRow, int32_t nBitsPerPixel, int32_t* pnNewWidth,
                            int32_t* pnRows, void* pResizeData);
OMBRIX_API int32_t K_StopResize(void* pResizeData);

/* One row by the stepping rule: uCount target pixels into pDst, target pixel i taking source pixel
 * nStartBit + (the pixel reached after i steps of nXStep pixels plus one more whenever the error,
 * starting at nError and growing by nXRemainder, reaches nDenominator). Target pixels are written
 * from position nStartBit on as well. Any depth of a record (1..8, 12, 16, 24, 32, 48, 64); uBytes
 * and bEnlarge are accepted and not needed. The Reverse form walks from the last pixel back, so a
 * growing row may overwrite its own source. -13 null buffers (nothing done), bad depth, negative
 * step, error, remainder or start, or nDenominator below 1. */
OMBRIX_API int32_t K_GetResizedScanLine(int32_t nBitsPerPixel, uint32_t uBytes, int32_t nStartBit, int32_t nXStep,
                                        int32_t nError, int32_t nXRemainder, const uint8_t* pSrc, uint8_t* pDst,
                                        uint32_t uCount, int32_t nDenominator, int32_t bEnlarge);
OMBRIX_API int32_t K_ReverseGetResizedScanLine(int32_t nBitsPerPixel, uint32_t uBytes, int32_t nStartBit,
                                               int32_t nXStep, int32_t nError, int32_t nXRemainder,
                                               const uint8_t* pSrc, uint8_t* pDst, uint32_t uCount,
                                               int32_t nDenominator, int32_t bEnlarge);
/* Integer square root: the largest r with r * r <= uValue. */
OMBRIX_API uint32_t K_SQRT(uint32_t uValue);

/* Interpolating resamplers, in place. K_ResampleBitmap: per axis, bilinear (triangle filter on
 * pixel centres) where it grows and area averaging (exact pixel coverage) where it shrinks;
 * uFlags SIZE_LANCZOS selects Lanczos-3 instead. K_BicubicResampleBitmap: Catmull-Rom cubic,
 * widened by the reduction factor on a shrinking axis. Edges repeat the border pixels. uFlags
 * SIZE_PREMULTIPLY works premultiplied by alpha (32 and 64 bits). Depths: 8-bit grey, 12/16-bit
 * grey, 16-bit colour, 24, 32, 48, 64 keep their format; palette images (1..8 bits) are resampled
 * through their colours and become 8-bit grey (grey palette) or 24-bit BGR. Region scaled as by
 * K_SizeBitmap. -13 null or unallocated, -789 size word, -11 bad sizes (before any allocation), -1
 * no memory, -1927 floating-point data, a status callback's answer. On failure unchanged. */
OMBRIX_API int32_t K_ResampleBitmap(BITMAPRECORD* pBitmap, int32_t nWidth, int32_t nHeight, uint32_t uFlags);
OMBRIX_API int32_t K_BicubicResampleBitmap(BITMAPRECORD* pBitmap, int32_t nWidth, int32_t nHeight,
                                           uint32_t uFlags);
/* Bicubic into an allocated destination of any size and format (palette destinations take the
 * nearest entry); rows bottom up when the perspectives differ. -2 null, unallocated or identical. */
OMBRIX_API int32_t K_BicubicResampleBitmapInt(BITMAPRECORD* pSrcBitmap, BITMAPRECORD* pDstBitmap, uint32_t uFlags);

/* ======================================================================
 * Section: colour resolution, grey conversion and optimised palettes
 * ====================================================================== */

/* -- colour resolution of whole bitmaps --
 * uFlags of K_ColorResBitmap. One palette choice (at most one of the first
 * four; none means CRF_USERPALETTE when pPalette is given, else the fixed
 * palette), one destination order (none: RGB), and the dithering choice.
 * Frame drawing passes CRF_USERPALETTE | CRF_NODITHERING (0x10010) with the
 * target's palette for targets of up to 8 bits, and CRF_BYTEORDERBGR (4) or
 * 0 (RGB) for deeper targets. */
#define CRF_FIXEDPALETTE     0x00000001u /* the fixed palette of the depth (1..8 bits) */
#define CRF_NETSCAPEPALETTE  0x00000002u /* the web palette (8 bits only) */
#define CRF_BYTEORDERBGR     0x00000004u /* colour destination in BGR order (order 1) */
#define CRF_OPTIMIZEDPALETTE 0x00000008u /* a palette of nColors (0: 2^bits) built for this image */
#define CRF_USERPALETTE      0x00000010u /* the caller's pPalette of nColors entries */
#define CRF_BYTEORDERGRAY    0x00000020u /* grey destination: 1..8 bits with a grey ramp, 12/16/32-bit samples */
#define CRF_BYTEORDERROMM    0x00000040u /* 24/48 bits in the alternate primaries (order 5) */
#define CRF_BYTEORDER565     0x00000080u /* 16 bits 5-6-5 (order 7) */
#define CRF_EXACTMATCH       0x00000100u /* caller palette: the exact nearest entry for every colour,
                                            never a 5-5-5 table */
#define CRF_NODITHERING      0x00010000u /* nearest colour whatever the source's nDitheringMethod */
#define CRF_DITHERMASK       0x00F00000u
#define CRF_DITHER(m)        ((((uint32_t)(m) + 1u) & 0xFu) << 20) /* method 0..8 instead of the record's */
#define CRF_ALLFLAGS         0x00F101FFu

/* Converts a whole bitmap to nBitsPerPixel (1..8, 12, 16, 24, 32, 48, 64)
 * with the colour order and palette the flags ask. pSrc must be allocated,
 * any depth, order and storage kind. pDst == pSrc converts in place (the
 * record keeps its region, extra data, overlays, resolutions and view
 * perspective; its storage and palette are replaced); otherwise pDst is
 * filled as by K_CreateBitmap (its old contents are not read; uStructSize is
 * its layout) with the default memory type, the source's view perspective,
 * resolutions and dithering method, and no region.
 * Destinations of 1..8 bits get a palette: fixed, web, the caller's (nColors
 * 1..2^bits entries of pPalette; the record's palette has nColors entries
 * and the rest black) or an optimised one (K_CreateBitmapOptPal, nColors 2..2^bits,
 * 0 meaning 2^bits). Without dithering a colour takes the entry
 * K_FindPaletteIndex gives: directly for the fixed and web palettes and the
 * optimised palette; for a caller's palette a colour that occurs in it takes
 * its entry through the colour-match tree, other colours go through the
 * thread's installed user match table, else a 5-5-5 match table built from
 * the palette (CRF_EXACTMATCH: the exact nearest entry instead). With a
 * dithering method (the source's nDitheringMethod unless CRF_NODITHERING or
 * CRF_DITHER(m)) the dithering engine maps the rows. Grey destinations take
 * the kernel's grey (2R + 5G + B + 4) >> 3, scaled by the converter's rule.
 * Progress goes through the status callback; an answer other than 1 stops
 * the call and becomes its result.
 * Returns 1. -13 null record, unknown flag, two palette or order choices,
 * order not valid at that depth, palette bits with a deep destination, a
 * bad nColors or a null pPalette with CRF_USERPALETTE, a locked bitmap in
 * place; -789 size word; -2 source not allocated; -27 bad depth; -1 no memory;
 * row-layer statuses. On failure pDst is left unallocated (a new record) or
 * unchanged (in place). */
OMBRIX_API int32_t K_ColorResBitmap(BITMAPRECORD* pSrc, BITMAPRECORD* pDst, int32_t nBitsPerPixel,
                                    uint32_t uFlags, const RGBQUAD* pPalette, int32_t nColors,
                                    uint32_t uStructSize);

/* Grey conversion of a whole bitmap, in place: K_ColorResBitmap(pBitmap,
 * pBitmap, nBitsPerPixel, CRF_BYTEORDERGRAY, ...) for 8, 12 or 16 bits (else
 * -27). Back to colour: K_ColorResBitmap with a colour depth. */
OMBRIX_API int32_t K_GrayScaleBitmap(BITMAPRECORD* pBitmap, int32_t nBitsPerPixel);

/* -- optimised palettes --
 * uFlags of the optimised-palette builders. */
#define OPTPAL_TRANSPARENT 0x0001u /* entry nColors-1 is the caller's transparent colour: kept, never a cluster */
#define OPTPAL_FAST        0x0002u /* the variance split only, no refinement */
#define OPTPAL_ALLFLAGS    0x0003u
/* Builds the best nColors (2..256) entries for the bitmap's pixels into
 * pPalette: the first nReserved (0..nColors) entries are the caller's and
 * kept; with OPTPAL_TRANSPARENT the last entry too. Colours are chosen by a
 * variance-minimising split of the colour histogram refined by weighted
 * k-means (squared RGB distance, the distance of K_FindPaletteIndex); images
 * of more than about a million pixels are sampled on a grid of rows and
 * columns. When the bitmap holds at most the free entries' count of distinct
 * colours, exactly those colours are returned. Entries that are not needed
 * are black. *pnUsed (may be null) receives the number of meaningful entries.
 * -13 null pointer, nColors or nReserved out of range, unknown flags; -789
 * size word; -2 not allocated; -1 no memory; row-layer statuses. pPalette is
 * written only on success. */
OMBRIX_API int32_t K_CreateBitmapOptPal(BITMAPRECORD* pBitmap, RGBQUAD* pPalette, int32_t nColors,
                                        int32_t nReserved, uint32_t uFlags, int32_t* pnUsed);
/* As K_CreateBitmapOptPal for one palette shared by every allocated bitmap
 * of a list (an HBITMAPLIST of the bitmap lists section; each bitmap counts
 * by its area, all sampled on one grid). -13 null or dead list handle or null
 * palette (and as above); -2 a list without an allocated bitmap; -789 an
 * item's size word. */
struct OmbrixBitmapList_;
OMBRIX_API int32_t K_CreateBitmapListOptPal(struct OmbrixBitmapList_* hList, RGBQUAD* pPalette, int32_t nColors,
                                            int32_t nReserved, uint32_t uFlags, int32_t* pnUsed);

/* ======================================================================
 * Section: bitmap lists
 * ====================================================================== */
/* A bitmap list: an ordered, growable array of bitmap records behind one
 * handle. The list owns the storage of the bitmaps in it: a record inserted
 * is moved in (the caller must not free it any more), deleting an item frees
 * its bitmap. Items are always held in the current layout (uStructSize 216;
 * the tail of an item that came from an older-layout record is zero).
 * Indexes are 0-based; BITMAPLIST_END (0xFFFFFFFF) means the end where stated.
 * Common results: 1; -13 null handle or pointer, a handle that is not a live
 * list, an index at or past the count (get, set, remove, delete, copy, move),
 * a count of 0 (delete, copy, move); -789 a record size other than 216 or 176,
 * or a list whose first item does not have the size 216 (remove, replace,
 * insert, move); -814 a non-empty list without items (insert); -1 when memory
 * runs out, with the list unchanged. */
typedef struct OmbrixBitmapList_* HBITMAPLIST;
#define BITMAPLIST_END 0xFFFFFFFFu
/* Makes an empty list in *phList. 1; -13 null phList; -1 no memory. */
OMBRIX_API int32_t K_CreateBitmapList(HBITMAPLIST* phList);
/* Deletes every item (freeing its bitmap) and the list. 1; -13 a handle that
 * is not a live list. */
OMBRIX_API int32_t K_DestroyBitmapList(HBITMAPLIST hList);
/* *puCount = the number of items. 1; -13 null puCount or a handle that is not
 * a live list. */
OMBRIX_API int32_t K_GetBitmapListCount(HBITMAPLIST hList, uint32_t* puCount);
/* Inserts a copy of the record before the item at uIndex; an index at or past
 * the count (BITMAPLIST_END included) appends. The record's storage now
 * belongs to the list. 1; -13 null record or dead handle; -789 size word;
 * -814 a non-empty list without items; -1 no memory (list unchanged). */
OMBRIX_API int32_t K_InsertBitmapListItem(HBITMAPLIST hList, uint32_t uIndex, const BITMAPRECORD* pBitmap);
/* Takes the item out of the list into *pBitmap (a current-layout record),
 * whose storage the caller then owns. With a null pBitmap the item's bitmap
 * is freed (nobody could free it otherwise). */
OMBRIX_API int32_t K_RemoveBitmapListItem(HBITMAPLIST hList, uint32_t uIndex, BITMAPRECORD* pBitmap);
/* Removes up to uCount items from uFirst on and frees each bitmap; the first
 * failure stops the loop and is returned. */
OMBRIX_API int32_t K_DeleteBitmapListItems(HBITMAPLIST hList, uint32_t uFirst, uint32_t uCount);
/* Copies the item into *pBitmap (uStructSize bytes' worth of layout, 216 or
 * 176) without giving up ownership. An older-layout copy of an allocated item
 * cannot carry the item's hListBlock: that block is freed and cleared in the
 * item. 1; -13 null record, dead handle or an index at or past the count;
 * -789 uStructSize other than 216 or 176 (*pBitmap untouched on failure). */
OMBRIX_API int32_t K_GetBitmapListItem(HBITMAPLIST hList, uint32_t uIndex, BITMAPRECORD* pBitmap,
                                       uint32_t uStructSize);
/* Overwrites the item with a copy of the record (stored in the current
 * layout); null leaves an empty current-layout record (zero but for its size
 * word). The old item is not freed. */
OMBRIX_API int32_t K_SetBitmapListItem(HBITMAPLIST hList, uint32_t uIndex, const BITMAPRECORD* pBitmap);
/* Puts pNew in place of the item (BITMAPLIST_END: the last one; stored in
 * the current layout). The old item goes to *pOld (uOldSize, 216 or 176,
 * bytes' worth of layout; an older-layout copy frees the item's hListBlock),
 * or is freed when pOld is null and it is allocated. */
OMBRIX_API int32_t K_ReplaceBitmapListItem(HBITMAPLIST hList, uint32_t uIndex, const BITMAPRECORD* pNew,
                                           BITMAPRECORD* pOld, uint32_t uOldSize);
/* Makes *phNew, a new list of deep copies (K_CopyBitmap) of up to uCount
 * items from uFirst on; on any failure nothing is made and the failure is
 * returned. */
OMBRIX_API int32_t K_CopyBitmapListItems(HBITMAPLIST* phNew, HBITMAPLIST hList, uint32_t uFirst, uint32_t uCount);
/* Makes *phNew, a new list, and moves up to uCount items from uFirst on into
 * it; the source closes the gap. 1; -13 null phNew, dead handle, uFirst at or
 * past the count, uCount 0; -789 a first item whose size is not 216; -1 no
 * memory (nothing made or moved). */
OMBRIX_API int32_t K_MoveBitmapListItems(HBITMAPLIST* phNew, HBITMAPLIST hList, uint32_t uFirst, uint32_t uCount);

/* ======================================================================
 * Section: display support: window level and paint tables
 * ====================================================================== */
/* -- paint tables -------------------------------------------------------
 * Every bitmap carries a paint intensity (-1000..1000, thousandths of full
 * scale added to each value), a paint contrast (-1000..1000, positive
 * steepens) and a paint gamma (any value but 0, hundredths: 100 is 1.0; the
 * tables apply the exponent 100 / gamma). A record that never had a gamma set
 * reads 100. Changing any of them rebuilds the bitmap's paint tables: a
 * 256-entry 8-bit table and, for a 12- or 16-bit grey bitmap in the current
 * layout, a 65536-entry 16-bit table. BRF_PAINT_TABLE (0x2000 of uFlags) is set
 * when an entry differs from its index. The tables are derived from the three
 * values (the record owns no block for them, so a copied record carries its
 * paint state); until the first change they are identities.
 * Setters: 1; -2 null or unallocated record; -789 size word; -13 value out of
 * range; -1 when the 16-bit table cannot be computed (nothing changes). Setting the
 * value the bitmap already has returns 1 and does nothing.
 * Getters return the value itself; -13 null record, -789 size word. */
#define BRF_PAINT_TABLE 0x2000u
OMBRIX_API int32_t K_SetPaintIntensity(BITMAPRECORD* pBitmap, int32_t nIntensity);
OMBRIX_API int32_t K_SetPaintContrast(BITMAPRECORD* pBitmap, int32_t nContrast);
OMBRIX_API int32_t K_SetPaintGamma(BITMAPRECORD* pBitmap, int32_t nGamma);
OMBRIX_API int32_t K_GetPaintIntensity(const BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_GetPaintContrast(const BITMAPRECORD* pBitmap);
OMBRIX_API int32_t K_GetPaintGamma(const BITMAPRECORD* pBitmap);
/* Copies the 8-bit paint table (256 entries) into pTable. 1; -13 null
 * pointer, -789 size word. An identity is returned while none was built. */
OMBRIX_API int32_t K_GetPaintTable(const BITMAPRECORD* pBitmap, uint8_t* pTable);
/* Copies the 16-bit paint table (65536 entries) into pTable. 1; -13 null
 * pointer; -789 size word; -16 for a bitmap that has no 16-bit table (not
 * 12- or 16-bit grey, or the older layout). An identity while none was built. */
OMBRIX_API int32_t K_GetPaintTable16(const BITMAPRECORD* pBitmap, uint16_t* pTable);

/* -- window-level tables -------------------------------------------------
 * Fill a table so that the window of input values [nLow, nHigh] is spread
 * over a ramp. Colours are 24-bit values, red in bits 0-7, green 8-15, blue
 * 16-23 (the Ext form: 16 bits per channel, red 0-15, green 16-31, blue
 * 32-47). uFlags, four nibbles:
 *   0x000F  WLFLAG_MODE1: ramp from start to end colour inside the window,
 *           outside repeat the colour at the window's edge;
 *           WLFLAG_MODE2: below the window the start colour, above it the end
 *           colour, inside a ramp from black to white
 *   0x00F0  curve: WLCURVE_LINEAR, _EXPONENTIAL, _LOGARITHMIC (nFactor >= 0),
 *           _SIGMOID; k = nFactor / 10; nFactor 0 always gives the line
 *   0x0F00  WLFLAG_SIGNED: entries indexed -(len/2)..(len-1)/2, a negative
 *           index i stored at i + len
 *   0xF000  WLFLAG_ALT: mode 1 leaves the entries outside the window alone;
 *           mode 2 ramps from the start to the end colour inside the window
 * The window is clamped to [nMinValue, nMaxValue], then to the table's index
 * range. A window of one entry gets the ramp's first colour. nLowBit and
 * nHighBit describe the samples the table serves; they are only checked.
 * Results: 1; -13 null table, bad flags (any other nibble value), a negative
 * factor with the logarithmic curve, nLowBit > nHighBit, nMinValue >
 * nMaxValue or nLow > nHigh. A table length of 0 fills nothing. */
#define WLFLAG_MODE1         0x0001u
#define WLFLAG_MODE2         0x0002u
#define WLCURVE_LINEAR       0x0010u
#define WLCURVE_EXPONENTIAL  0x0020u
#define WLCURVE_LOGARITHMIC  0x0030u
#define WLCURVE_SIGMOID      0x0040u
#define WLFLAG_SIGNED        0x0100u
#define WLFLAG_ALT           0x1000u
typedef struct tagRGBQUAD16 {
    uint16_t rgbBlue;
    uint16_t rgbGreen;
    uint16_t rgbRed;
    uint16_t rgbReserved;
} RGBQUAD16;
/* RGBQUAD entries (reserved byte 0). Results as above (-13 null pLUT). */
OMBRIX_API int32_t K_WindowLevelFillLUT(RGBQUAD* pLUT, uint32_t uLUTLength, uint32_t crStart, uint32_t crEnd,
                                        int32_t nLow, int32_t nHigh, int32_t nLowBit, int32_t nHighBit,
                                        int32_t nMinValue, int32_t nMaxValue, int32_t nFactor, uint32_t uFlags);
/* One grey byte per entry; start and end are grey levels 0..255 (else -13);
 * mode 2 ramps from 0 to 255. */
OMBRIX_API int32_t K_WindowLevelFillLUT2(uint8_t* pLUT, uint32_t uLUTLength, uint32_t uStartGrey,
                                         uint32_t uEndGrey, int32_t nLow, int32_t nHigh, int32_t nLowBit,
                                         int32_t nHighBit, int32_t nMinValue, int32_t nMaxValue,
                                         int32_t nFactor, uint32_t uFlags);
/* RGBQUAD16 entries, 48-bit colours; mode 2 ramps from 0 to 65535 per channel.
 * Results as above (-13 null pLUT). */
OMBRIX_API int32_t K_WindowLevelFillLUTExt(RGBQUAD16* pLUT, uint32_t uLUTLength, uint64_t crStart,
                                           uint64_t crEnd, int32_t nLow, int32_t nHigh, int32_t nLowBit,
                                           int32_t nHighBit, int32_t nMinValue, int32_t nMaxValue,
                                           int32_t nFactor, uint32_t uFlags);
/* One 16-bit grey level per entry; start and end 0..65535 (else -13). */
OMBRIX_API int32_t K_WindowLevelFillLUTExt2(uint16_t* pLUT, uint32_t uLUTLength, uint32_t uStartGrey,
                                            uint32_t uEndGrey, int32_t nLow, int32_t nHigh, int32_t nLowBit,
                                            int32_t nHighBit, int32_t nMinValue, int32_t nMaxValue,
                                            int32_t nFactor, uint32_t uFlags);

/* -- applying a window ----------------------------------------------------
 * Both make pDst (a record of size uStructSize, treated as uninitialised; it
 * may be pSrc, which is then replaced) an 8-bit grey bitmap (grey palette) of
 * the source's size, view perspective and resolution from a 12-bit or 16-bit
 * grey source of any storage kind. The sample of a pixel is its bits
 * nLowBit..nHighBit; with signed samples the top bit of that window is the
 * sign. The source's region is not carried over. pDst is written only on
 * success.
 * K_WindowLevel: the window [nLow, nHigh] of sample values becomes 0..255 by
 * the curve of uFlags (WLCURVE_ nibble, 0 = linear, nFactor as above), black
 * below, white above; WLFLAG_SIGNED reads the samples as signed;
 * WL_INVERT swaps black and white. The sample window is the source's
 * nLowBit..nHighBit.
 * K_WindowLevelExt: applies a caller table (for example from
 * K_WindowLevelFillLUT) of 1 << (nHighBit - nLowBit + 1) entries (else
 * -1486), indexed by the sample bits as they are (a signed table's negative
 * entries sit at i + length, which is the raw bits); each entry gives the grey
 * (2 R + 5 G + B + 4) >> 3. uFlags must be 0.
 * Results: 1; -13 null pointer, a sample window outside the source depth or
 * low above high, nLow > nHigh, unknown flags; -789 size word of either
 * record; -2 unallocated source; -27 a source that is not 12 or 16 bits;
 * -13 a 16-bit source whose order is not grey; -1 and other storage statuses
 * when the destination cannot be made or a row cannot move; a progress
 * callback's answer other than 1 stops the call and is returned. */
#define WL_INVERT 0x0200u
OMBRIX_API int32_t K_WindowLevel(BITMAPRECORD* pSrc, BITMAPRECORD* pDst, uint32_t uStructSize, int32_t nLow,
                                 int32_t nHigh, int32_t nFactor, uint32_t uFlags);
OMBRIX_API int32_t K_WindowLevelExt(BITMAPRECORD* pSrc, BITMAPRECORD* pDst, uint32_t uStructSize,
                                    const RGBQUAD* pLUT, uint32_t uLUTLength, int32_t nLowBit,
                                    int32_t nHighBit, uint32_t uFlags);

/* ======================================================================
 * Section: display support: animation playback
 * ====================================================================== */
/* A playback composes the frames of a bitmap list onto a target bitmap, one
 * after another, driven by the caller: each K_ProcessPlayback call performs
 * one step and the caller repaints the update rectangle. Nothing runs in the
 * background. The handle is an emulated global-memory handle (kind 3);
 * any other handle is refused with -13 (errno 22 for a handle of another kind).
 *
 * Frame fields (words of the record kept for the display family):
 *   FRAME_LEFT / FRAME_TOP   position on the target, in the target's top-left view
 *   FRAME_DELAY              milliseconds to show the frame
 *   FRAME_DISPOSAL           2 restore the background, 3 restore what was under
 *                            the frame; other values leave the frame in place
 *   FRAME_TRANSPARENT_COLOR  0x00BBGGRR; with BRF_FRAME_TRANSPARENT its pixels
 *                            are not drawn
 *   FRAME_BACKGROUND_COLOR   of the target: clearing and disposal 2
 * Frame flags: BRF_FRAME_WAITINPUT (wait for K_CancelPlaybackWait after the frame), BRF_FRAME_TRANSPARENT,
 * BRF_FRAME_ALPHAOVER (K_CombineBitmapKrn's alpha over, 3328, instead of the copy, 48: blended by the
 * frame's alpha on 32/64-bit targets, copied on targets without alpha, ORed on 1-bit targets).
 * Frames are drawn with K_CombineBitmapKrn through the frame's region (less its transparent colour)
 * and the target's own region, on targets of every depth and view perspective; a frame of another
 * depth, order or palette through a K_ColorResBitmap copy in the target's format. Positions are in
 * the target's top-left view: on a BOTTOM_LEFT target a frame lands at stored row
 * height - top - frame height.
 * States: */
#define PLAYBACK_STATE_CLEAR        0
#define PLAYBACK_STATE_NEXT         1
#define PLAYBACK_STATE_DRAW         2
#define PLAYBACK_STATE_WAITLINES    3
#define PLAYBACK_STATE_DELAY        4
#define PLAYBACK_STATE_WAITINPUT    5
#define PLAYBACK_STATE_WAITDELAY    6
#define PLAYBACK_STATE_WAITBOTH     7
#define PLAYBACK_STATE_DISPOSE      8
#define PLAYBACK_STATE_NEXT2        9
#define PLAYBACK_STATE_END          10
#define BRF_FRAME_WAITINPUT   0x00000040u
#define BRF_FRAME_TRANSPARENT 0x00000080u
#define BRF_FRAME_ALPHAOVER   0x00080000u
#define FRAME_LEFT(bm)              ((bm)->nReserved2[0])
#define FRAME_TOP(bm)               ((bm)->nReserved2[1])
#define FRAME_DELAY(bm)             ((bm)->uReserved3[0])
#define FRAME_DISPOSAL(bm)          ((bm)->uReserved3[1])
#define FRAME_TRANSPARENT_COLOR(bm) ((bm)->uReserved3[2])
#define FRAME_BACKGROUND_COLOR(bm)  ((bm)->uReserved4)
typedef void* HPLAYBACK;
/* Makes a playback of hList (null: an empty list the playback owns) onto
 * pTarget, which must stay valid and allocated while the playback lives.
 * Index -1, state 0. -13 null pointer, unallocated target or a handle that
 * is not a list; -789 target size word; -1 memory. */
OMBRIX_API int32_t K_CreatePlayback(HPLAYBACK* phPlayback, BITMAPRECORD* pTarget, HBITMAPLIST hList);
/* Frees the playback: its saved area, its line marks and, when it made it,
 * its list. 1; -13 a handle that is not a live playback. */
OMBRIX_API int32_t K_DestroyPlayback(HPLAYBACK hPlayback);
/* One step of the state machine; the new state in *pnState (may be null).
 * 1 for a valid handle. */
OMBRIX_API int32_t K_ProcessPlayback(HPLAYBACK hPlayback, int32_t* pnState);
OMBRIX_API int32_t K_GetPlaybackState(HPLAYBACK hPlayback, int32_t* pnState);
/* In states 5, 6 and 7 moves to state 8; otherwise nothing. 1. */
OMBRIX_API int32_t K_CancelPlaybackWait(HPLAYBACK hPlayback);
/* *puMilliseconds = in states 6 and 7 the milliseconds still to wait (0 when
 * over), else 0. 1; -13 null puMilliseconds or a handle that is not a live
 * playback. */
OMBRIX_API int32_t K_GetPlaybackDelay(HPLAYBACK hPlayback, uint32_t* puMilliseconds);
/* Copies the update rectangle (target top-left view; empty when nothing
 * changed) to *pRect (may be null); a non-zero bClear then clears it. */
OMBRIX_API int32_t K_GetPlaybackUpdateRect(HPLAYBACK hPlayback, RECT* pRect, int32_t bClear);
OMBRIX_API int32_t K_ClearPlaybackUpdateRect(HPLAYBACK hPlayback);
OMBRIX_API int32_t K_GetPlaybackIndex(HPLAYBACK hPlayback, int32_t* pnIndex);
/* Moves to frame nIndex (-1..count, else -13): switches line validation off,
 * starts again from state 0 when going back, then steps (cancelling every
 * wait at once) until the index is reached. */
OMBRIX_API int32_t K_SetPlaybackIndex(HPLAYBACK hPlayback, int32_t nIndex);
/* Appends the frame to the list (its storage then belongs to the list) and
 * switches line validation on for it: the frame is drawn once every row was
 * marked with K_ValidatePlaybackLines. In state 10 moves to state 2.
 * -789 frame size word; -1 memory (nothing appended); a list insertion
 * failure switches validation off and is returned. */
OMBRIX_API int32_t K_AppendPlayback(HPLAYBACK hPlayback, const BITMAPRECORD* pFrame);
/* Marks rows max(nFirst, 0) .. min(nFirst + nCount, frame height) - 1 of the
 * last appended frame as loaded; when every row is, validation ends. With
 * validation off, or an empty range: 1 and nothing changes. */
OMBRIX_API int32_t K_ValidatePlaybackLines(HPLAYBACK hPlayback, int32_t nFirst, int32_t nCount);

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
#endif

#endif /* OMBRIX_H */
