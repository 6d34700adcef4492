// redirect_memfs.cpp - the in-memory test file system.
#include "redirect_memfs.h"

#include <algorithm>
#include <cstring>

namespace testfs {

REDIRECTRECORD MemFs::table() {
    REDIRECTRECORD t{};
    t.uStructSize = REDIRECTRECORD_SIZE;
    t.pfnOpen = &MemFs::open, t.pfnRead = &MemFs::read, t.pfnWrite = &MemFs::write, t.pfnSeek = &MemFs::seek;
    t.pfnClose = &MemFs::close, t.pfnSize = &MemFs::size, t.pfnSetSize = &MemFs::setSize;
    t.pOpenUserData = t.pReadUserData = t.pWriteUserData = t.pSeekUserData = t.pCloseUserData = this;
    t.pSizeUserData = t.pSetSizeUserData = this;
    return t;
}

MemFs::Handle* MemFs::live(void* h) {
    for (auto& p : handles_)
        if (p.get() == h) return p.get();
    return nullptr;
}

void* MemFs::open(const wchar_t* name, uint32_t mode, uint32_t, void* user) {
    auto* fs = static_cast<MemFs*>(user);
    ++fs->opens;
    fs->openModes.push_back(mode);
    fs->openNames.push_back(name ? name : L"");
    if (fs->failOpenAt && fs->opens == fs->failOpenAt) return OMBRIX_INVALID_FILE;
    std::wstring n = name ? name : L"";
    auto it = fs->files.find(n);
    if (it == fs->files.end()) {
        if (!(mode & REDIRECT_OPEN_CREATE)) return OMBRIX_INVALID_FILE;
        fs->files[n];
    } else {
        if ((mode & REDIRECT_OPEN_CREATE) && (mode & REDIRECT_OPEN_EXCLUSIVE)) return OMBRIX_INVALID_FILE;
        if (mode & REDIRECT_OPEN_TRUNCATE) it->second.clear();
    }
    auto h = std::make_unique<Handle>();
    h->name = n;
    h->mode = mode;
    fs->handles_.push_back(std::move(h));
    return fs->handles_.back().get();
}

int32_t MemFs::read(void* hv, void* buf, uint32_t n, void* user) {
    auto* fs = static_cast<MemFs*>(user);
    ++fs->reads;
    if (fs->failReadAt && fs->reads == fs->failReadAt) return -1;
    Handle* h = fs->live(hv);
    if (!h) return -1;
    auto& data = fs->files[h->name];
    uint64_t avail = h->pos < data.size() ? data.size() - h->pos : 0;
    uint64_t k = std::min<uint64_t>(avail, n);
    if (fs->readLimitPerCall) k = std::min<uint64_t>(k, fs->readLimitPerCall);
    if (k) std::memcpy(buf, data.data() + h->pos, size_t(k));
    h->pos += k;
    return int32_t(k);
}

int32_t MemFs::write(void* hv, const void* buf, uint32_t n, void* user) {
    auto* fs = static_cast<MemFs*>(user);
    ++fs->writes;
    fs->writeAsks.push_back(n);
    if (fs->failWriteAt && fs->writes == fs->failWriteAt) return -1;
    Handle* h = fs->live(hv);
    if (!h) return -1;
    auto& data = fs->files[h->name];
    uint64_t room = h->pos < fs->capacity ? fs->capacity - h->pos : 0;
    uint64_t k = std::min<uint64_t>(room, n);
    if (h->pos + k > data.size()) data.resize(size_t(h->pos + k), 0);
    if (k) std::memcpy(data.data() + h->pos, buf, size_t(k));
    h->pos += k;
    return int32_t(k);
}

int64_t MemFs::seek(void* hv, int64_t off, int32_t origin, void* user) {
    auto* fs = static_cast<MemFs*>(user);
    ++fs->seeks;
    if (fs->failSeekAt && fs->seeks == fs->failSeekAt) return -1;
    Handle* h = fs->live(hv);
    if (!h) return -1;
    int64_t base = origin == REDIRECT_SEEK_SET   ? 0
                   : origin == REDIRECT_SEEK_CUR ? int64_t(h->pos)
                   : origin == REDIRECT_SEEK_END ? int64_t(fs->files[h->name].size())
                                                 : -1;
    if (base < 0 || base + off < 0) return -1;
    h->pos = uint64_t(base + off);
    return int64_t(h->pos);
}

int32_t MemFs::close(void* hv, void* user) {
    auto* fs = static_cast<MemFs*>(user);
    ++fs->closes;
    for (auto it = fs->handles_.begin(); it != fs->handles_.end(); ++it) {
        if (it->get() == hv) {
            if ((*it)->mode & REDIRECT_OPEN_TEMPORARY) fs->files.erase((*it)->name);
            fs->handles_.erase(it);
            return 0;
        }
    }
    return -1;
}

int64_t MemFs::size(void* hv, void* user) {
    auto* fs = static_cast<MemFs*>(user);
    Handle* h = fs->live(hv);
    return h ? int64_t(fs->files[h->name].size()) : -1;
}

int32_t MemFs::setSize(void* hv, int64_t size, void* user) {
    auto* fs = static_cast<MemFs*>(user);
    Handle* h = fs->live(hv);
    if (!h || size < 0 || uint64_t(size) > fs->capacity) return -1;
    fs->files[h->name].resize(size_t(size), 0);
    return 0;
}

REDIRECTRECORD CountingSink::table() {
    REDIRECTRECORD t{};
    t.uStructSize = REDIRECTRECORD_SIZE;
    t.pfnRead = &CountingSink::io;
    t.pfnWrite = &CountingSink::wio;
    t.pReadUserData = t.pWriteUserData = this;
    return t;
}

int32_t CountingSink::io(void*, void*, uint32_t n, void* user) {
    auto* s = static_cast<CountingSink*>(user);
    s->asks.push_back(n);
    if (s->failAt && long(s->asks.size()) == s->failAt) return -1;
    uint64_t left = s->eofAfter > s->served ? s->eofAfter - s->served : 0;
    uint32_t k = uint32_t(std::min<uint64_t>(left, n));
    s->served += k;
    return int32_t(k);
}

int32_t CountingSink::wio(void* h, const void*, uint32_t n, void* user) { return io(h, nullptr, n, user); }

}  // namespace testfs
