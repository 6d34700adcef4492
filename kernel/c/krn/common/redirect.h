// redirect.h - internal interface of the redirect tables and redirected files.
//
//   redirectInForce(out)        the table in force for the calling thread (mode 0)
//   redirectDefaults(out)       the default K_Os table (mode 3)
//   redirectTempTable(out)      the built-in temporary-file table (mode 2)
//   redirectIsDefault(t)        every slot is the default K_Os function
//   tableRead/WriteAll(...)     move any number of bytes through a table in
//                               REDIRECT_CHUNK_BYTES pieces (ReadBig / WriteBig rule)
//   HandleRegistry              a set of live kernel objects, so that garbage
//                               handles are detected without dereferencing them
#pragma once

#include <cstdint>
#include <mutex>

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

// A set of live object addresses guarded by its own lock.
class HandleRegistry {
public:
    bool add(const void* p) noexcept;  // false when out of memory
    bool remove(const void* p) noexcept;  // false when p was not live
    bool contains(const void* p) const noexcept;
    long count() const noexcept;
private:
    void* impl() const noexcept;
    mutable std::mutex lock_;
    mutable void* set_ = nullptr;
};

}  // namespace krn
