// settings.cpp - per-thread settings blocks with a process-wide fallback.
#include "settings.h"

#include <new>

#include "memory.h"

namespace krn {
namespace {

ThreadSettings* makeProcessBlock() noexcept {
    // Zero-filled, as the fallback block is documented to start.
    static ThreadSettings block = [] {
        ThreadSettings s;
        s.nXResolution = 0;
        s.nYResolution = 0;
        s.uDefaultMemoryType = 0;
        s.nMemLargestImage = 0;
        s.nMemFourth = 0;
        s.nMemFifth = 0;
        return s;
    }();
    return &block;
}

struct ThreadSlot {
    ThreadSettings* block = nullptr;
    bool forceFallback = false;
    ~ThreadSlot() {
        if (block) {
            block->~ThreadSettings();
            memFree(block);
        }
    }
};
thread_local ThreadSlot t_slot;

}  // namespace

ThreadSettings& processSettings() noexcept { return *makeProcessBlock(); }

ThreadSettings& settings() noexcept {
    ThreadSlot& slot = t_slot;
    if (slot.forceFallback) return processSettings();
    if (slot.block) return *slot.block;
    void* mem = memAlloc(sizeof(ThreadSettings));
    if (!mem) return processSettings();  // try again on the next call
    slot.block = new (mem) ThreadSettings();
    return *slot.block;
}

namespace testhook {
void forceSettingsFallback(bool on) noexcept { t_slot.forceFallback = on; }
}

}  // namespace krn
