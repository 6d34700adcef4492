// redirect_memfs.h - a redirect table for tests: files live in memory, and
// the Nth open / read / write / seek can be made to fail, writes can be cut
// short by a capacity (a full disk), and every call is counted.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ombrix.h"

namespace testfs {

class MemFs {
public:
    struct Handle {
        std::wstring name;
        uint64_t pos = 0;
        uint32_t mode = 0;
    };

    // 1-based: the Nth call of that kind fails (returns -1 / invalid); 0 never.
    long failOpenAt = 0, failReadAt = 0, failWriteAt = 0, failSeekAt = 0;
    // Largest size a file may reach; a write that would pass it is short.
    uint64_t capacity = UINT64_MAX;
    // When set, reads return at most this many bytes per call (0: no limit).
    uint32_t readLimitPerCall = 0;

    long opens = 0, reads = 0, writes = 0, seeks = 0, closes = 0;
    std::vector<uint32_t> writeAsks, openModes;
    std::vector<std::wstring> openNames;

    std::map<std::wstring, std::vector<uint8_t>> files;

    // The table: every slot filled, user data = this.
    REDIRECTRECORD table();
    // Handles not yet closed.
    size_t openHandles() const { return handles_.size(); }

    static void* open(const wchar_t* name, uint32_t mode, uint32_t share, void* user);
    static int32_t read(void* h, void* buf, uint32_t n, void* user);
    static int32_t write(void* h, const void* buf, uint32_t n, void* user);
    static int64_t seek(void* h, int64_t off, int32_t origin, void* user);
    static int32_t close(void* h, void* user);
    static int64_t size(void* h, void* user);
    static int32_t setSize(void* h, int64_t size, void* user);

private:
    Handle* live(void* h);
    std::vector<std::unique_ptr<Handle>> handles_;
};

// A table whose read and write move no bytes but count calls and sizes:
// lets tests drive multi-gigabyte transfers without the memory.
struct CountingSink {
    std::vector<uint32_t> asks;
    // Answers: when `eofAfter` bytes have been served, calls return 0.
    uint64_t eofAfter = UINT64_MAX;
    uint64_t served = 0;
    long failAt = 0;  // 1-based call that returns -1
    REDIRECTRECORD table();
    static int32_t io(void* h, void* buf, uint32_t n, void* user);
    static int32_t wio(void* h, const void* buf, uint32_t n, void* user);
};

}  // namespace testfs
