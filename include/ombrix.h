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
