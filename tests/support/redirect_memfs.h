// redirect_memfs.h - redirect tables, scratch folders and state guards for tests. MemFs keeps its files in
// memory; the Nth open / read / write / seek can be made to fail, writes are cut short by a capacity (a full
// disk), and every call is counted. CountingSink moves no bytes: it records the size of each transfer asked for.
#pragma once

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ombrix.h"

namespace testfs {

inline REDIRECTRECORD blankTable() {  // no slots: the defaults, or nothing
    REDIRECTRECORD t{};
    t.uStructSize = REDIRECTRECORD_SIZE;
    return t;
}

class MemFs {
public:
    struct Handle { std::wstring name; uint64_t pos = 0; uint32_t mode = 0; };
    long failOpenAt = 0, failReadAt = 0, failWriteAt = 0, failSeekAt = 0;  // 1-based: the Nth call fails; 0 never
    uint64_t capacity = UINT64_MAX;  // largest size a file may reach: writes past it are short
    uint32_t readLimitPerCall = 0;   // reads return at most this many bytes per call (0: no limit)
    long opens = 0, reads = 0, writes = 0, seeks = 0, closes = 0;
    std::vector<uint32_t> writeAsks, openModes;
    std::vector<std::wstring> openNames;
    std::map<std::wstring, std::vector<uint8_t>> files;

    REDIRECTRECORD table() {  // every slot filled, user data = this
        REDIRECTRECORD t = blankTable();
        t.pfnOpen = &open, t.pfnRead = &read, t.pfnWrite = &write, t.pfnSeek = &seek, t.pfnClose = &close;
        t.pfnSize = &size, t.pfnSetSize = &setSize;
        t.pOpenUserData = t.pReadUserData = t.pWriteUserData = t.pSeekUserData = t.pCloseUserData = this;
        t.pSizeUserData = t.pSetSizeUserData = this;
        return t;
    }
    int32_t install() { return set(table(), REDIRECT_SET_INSTALL, 0); }  // as the calling thread's table
    static int32_t uninstall(int wide = 0) { return set(blankTable(), REDIRECT_SET_RESET, wide); }
    static int32_t set(REDIRECTRECORD t, int32_t how, int wide) { return K_SetRedirectFunctions(&t, how, wide); }
    size_t openHandles() const { return handles_.size(); }  // not yet closed

    static void* open(const wchar_t* name, uint32_t mode, uint32_t, void* user) {
        MemFs* fs = of(user);
        const std::wstring n = name ? name : L"";
        ++fs->opens;
        fs->openModes.push_back(mode);
        fs->openNames.push_back(n);
        const bool exists = fs->files.count(n) != 0, create = mode & REDIRECT_OPEN_CREATE;
        if (fs->opens == fs->failOpenAt || (!exists && !create) ||
            (exists && create && (mode & REDIRECT_OPEN_EXCLUSIVE)))
            return OMBRIX_INVALID_FILE;
        if (!exists || (mode & REDIRECT_OPEN_TRUNCATE)) fs->files[n].clear();
        fs->handles_.push_back(std::make_unique<Handle>(Handle{n, 0, mode}));
        return fs->handles_.back().get();
    }
    static int32_t read(void* hv, void* buf, uint32_t n, void* user) {
        auto [fs, h] = at(hv, user);
        if (++fs->reads == fs->failReadAt || !h) return -1;
        const auto& data = fs->files[h->name];
        uint64_t k = std::min<uint64_t>(h->pos < data.size() ? data.size() - h->pos : 0, n);
        if (fs->readLimitPerCall) k = std::min<uint64_t>(k, fs->readLimitPerCall);
        if (k) std::memcpy(buf, data.data() + h->pos, size_t(k));
        return h->pos += k, int32_t(k);
    }
    static int32_t write(void* hv, const void* buf, uint32_t n, void* user) {
        auto [fs, h] = at(hv, user);
        fs->writeAsks.push_back(n);
        if (++fs->writes == fs->failWriteAt || !h) return -1;
        auto& data = fs->files[h->name];
        const uint64_t k = std::min<uint64_t>(h->pos < fs->capacity ? fs->capacity - h->pos : 0, n);
        if (h->pos + k > data.size()) data.resize(size_t(h->pos + k), 0);
        if (k) std::memcpy(data.data() + h->pos, buf, size_t(k));
        return h->pos += k, int32_t(k);
    }
    static int64_t seek(void* hv, int64_t off, int32_t origin, void* user) {
        auto [fs, h] = at(hv, user);
        if (++fs->seeks == fs->failSeekAt || !h) return -1;
        const int64_t base = origin == REDIRECT_SEEK_SET ? 0 : origin == REDIRECT_SEEK_CUR ? int64_t(h->pos)
                             : origin == REDIRECT_SEEK_END ? int64_t(fs->files[h->name].size()) : -1;
        if (base < 0 || base + off < 0) return -1;
        return int64_t(h->pos = uint64_t(base + off));
    }
    static int32_t close(void* hv, void* user) {
        MemFs* fs = of(user);
        ++fs->closes;
        auto it = std::find_if(fs->handles_.begin(), fs->handles_.end(), [&](auto& p) { return p.get() == hv; });
        if (it == fs->handles_.end()) return -1;
        if ((*it)->mode & REDIRECT_OPEN_TEMPORARY) fs->files.erase((*it)->name);
        fs->handles_.erase(it);
        return 0;
    }
    static int64_t size(void* hv, void* user) {
        auto [fs, h] = at(hv, user);
        return h ? int64_t(fs->files[h->name].size()) : -1;
    }
    static int32_t setSize(void* hv, int64_t size, void* user) {
        auto [fs, h] = at(hv, user);
        if (!h || size < 0 || uint64_t(size) > fs->capacity) return -1;
        return fs->files[h->name].resize(size_t(size), 0), 0;
    }

private:
    static std::pair<MemFs*, Handle*> at(void* h, void* u) { return {static_cast<MemFs*>(u), of(u)->live(h)}; }
    static MemFs* of(void* u) { return static_cast<MemFs*>(u); }
    Handle* live(void* h) {
        for (auto& p : handles_)
            if (p.get() == h) return p.get();
        return nullptr;
    }
    std::vector<std::unique_ptr<Handle>> handles_;
};

// Lets tests drive multi-gigabyte transfers without the memory.
struct CountingSink {
    std::vector<uint32_t> asks;
    uint64_t eofAfter = UINT64_MAX, served = 0;  // when eofAfter bytes have been served, calls return 0
    long failAt = 0;                             // 1-based call that returns -1
    REDIRECTRECORD table() {
        REDIRECTRECORD t = blankTable();
        t.pfnRead = &io;
        t.pfnWrite = [](void* h, const void*, uint32_t n, void* user) { return io(h, nullptr, n, user); };
        t.pReadUserData = t.pWriteUserData = this;
        return t;
    }
    static int32_t io(void*, void*, uint32_t n, void* user) {
        auto* s = static_cast<CountingSink*>(user);
        s->asks.push_back(n);
        if (long(s->asks.size()) == s->failAt) return -1;
        const uint32_t k = uint32_t(std::min<uint64_t>(s->eofAfter > s->served ? s->eofAfter - s->served : 0, n));
        return s->served += k, int32_t(k);
    }
};

// The names in a folder (without "." and "..").
inline std::vector<std::string> folderEntries(const std::string& path) {
    std::vector<std::string> out;
    if (DIR* d = opendir(path.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") out.push_back(e->d_name);
        closedir(d);
    }
    return out;
}
inline int openFdCount() { return int(folderEntries("/proc/self/fd").size()); }

// A fresh folder under /tmp, removed (with its files) at the end.
struct ScratchDir {
    std::string path;
    ScratchDir() {
        char tmpl[] = "/tmp/ombrix_redirect_XXXXXX";
        path = mkdtemp(tmpl) ? tmpl : "";
    }
    ~ScratchDir() {
        for (auto& n : entries()) unlink((path + "/" + n).c_str());
        rmdir(path.c_str());
    }
    std::vector<std::string> entries() const { return folderEntries(path); }
};

// Restores the thread's and the process-wide redirect tables, the temporary folder and options at the end.
struct StateGuard {
    TEMPFILEOPTIONS saved{};
    StateGuard() { K_GetTempFileOptions(&saved, TEMPFILEOPTIONS_SIZE); }
    ~StateGuard() {
        MemFs::uninstall(0), MemFs::uninstall(1);
        K_SetTempDirectoryUtf8(nullptr);
        K_SetTempFileOptions(&saved);
    }
};

}  // namespace testfs
