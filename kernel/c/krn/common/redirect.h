// redirect.h - internal interface of the redirect tables and redirected files.
//
//   redirectInForce(out)        the table in force for the calling thread (mode 0)
//   redirectDefaults(out)       the default K_Os table (mode 3)
//   redirectTempTable(out)      the built-in temporary-file table (mode 2)
//   redirectIsDefault(t)        every slot is the default K_Os function
//   tableRead/WriteAll(...)     move any number of bytes through a table in
//                               REDIRECT_CHUNK_BYTES pieces (ReadBig / WriteBig rule)
//   HandleRegistry              live objects of one kind in the kernel's table of
//                               emulated object handles, so that garbage handles are
//                               detected without dereferencing them
#pragma once

#include <cstdint>

#include "ombrix.h"

namespace krn {

void redirectInForce(REDIRECTRECORD* out) noexcept;
void redirectDefaults(REDIRECTRECORD* out) noexcept;
void redirectTempTable(REDIRECTRECORD* out) noexcept;
bool redirectIsDefault(const REDIRECTRECORD& t) noexcept;

// ReadBig / WriteBig: 0 for n == 0; the bytes moved when a call gives 0;
// -1 when a call gives -1 (or more than asked, or the slot is empty).
int64_t tableReadAll(const REDIRECTRECORD& t, void* h, void* buf, uint64_t n) noexcept;
int64_t tableWriteAll(const REDIRECTRECORD& t, void* h, const void* buf, uint64_t n) noexcept;
// Size through the size slot, or by seeking to the end and back; -1 on failure.
int64_t tableSize(const REDIRECTRECORD& t, void* h) noexcept;

// Object kinds of this family in the table of emulated object handles
// (windowsemul/objects.h); the objects are registered under their own address.
enum : uint32_t {
    kObjRedirectedFile = 0x52440001u,
    kObjRedirectBuffer = 0x52440002u,
    kObjTempFileHandle = 0x52440003u,
};

class HandleRegistry {
public:
    explicit constexpr HandleRegistry(uint32_t kind) noexcept : kind_(kind) {}
    bool add(const void* p) const noexcept;       // false when out of memory
    bool remove(const void* p) const noexcept;    // false when p was not live
    bool contains(const void* p) const noexcept;  // live and of this kind
private:
    uint32_t kind_;
};

}  // namespace krn
