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
 * -1 for nColors <= 0. */
OMBRIX_API int32_t K_FindPaletteIndex(const RGBQUAD* pPalette, int32_t nColors, int32_t nRed,
                                      int32_t nGreen, int32_t nBlue);
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
