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
 * index + 1). A caller table is used as it is and never freed; it must stay
 * alive until the run stops. Without one, a palette equal byte for byte to a
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
