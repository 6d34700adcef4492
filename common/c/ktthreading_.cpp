// ktthreading_.cpp - thread tools: events, reader/writer locks, work items,
// the process-wide thread pool, processor count and critical sections.
//
//   KTWaitEvent              manual- or auto-reset event (mutex + condition)
//   KTReaderWriterLock       pthread rwlock (writer-preferring) or, in the
//                            fallback mode, a recursive mutex for both holds;
//                            state kept inside the object, no allocation
//   KTReaderWriterLockItem   scoped hold, movable
//   KTWorkItems              a counted set of items on the pool
//   KTThreadPool             the pool: std::threads, one per processor,
//                            started on first use, an intrusive FIFO of
//                            caller-made nodes, stopped by a static destructor
//   KTThreadToolsManaged     processor count (once per process)
//   KTThreadToolsUnmanaged   binds the lock operations (once per process)
//   K_Int*CriticalSection    recursive mutex behind the record's first word
//
// Invariants:
//   - no method lets an exception out; every allocation goes through the
//     kernel allocator except the std::thread objects' own state;
//   - a pool node is freed exactly once: by its function, by the pool after
//     running it, or by the pool when it is dropped at shutdown;
//   - a work item touches its KTWorkItems only before its completion count
//     is decremented; the item that signals the done event does so while the
//     waiter is still blocked, so the owner may destroy the object as soon as
//     Wait returns.
#include "ktthreading_.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>
#include <thread>

#include "kalloc.h"
#include "kexport.h"

namespace {

template <class T>
T* makeObject() noexcept {
    void* p = krn::memAlloc(sizeof(T));
    if (!p) return nullptr;
    return new (p) T();
}
template <class T>
void dropObject(T* p) noexcept {
    if (!p) return;
    p->~T();
    krn::memFree(p);
}

// ------------------------------------------------------------ processor count
std::atomic<int> g_coreOverride{0};

int realCoreCount() noexcept {
    static const int count = [] {
        long n = sysconf(_SC_NPROCESSORS_ONLN);
        if (n <= 0) n = long(std::thread::hardware_concurrency());
        return n > 0 ? int(n) : 1;
    }();
    return count;
}

// ------------------------------------------------------------ events
struct Event {
    std::mutex m;
    std::condition_variable cv;
    bool manual = false;
    bool signalled = false;
};

// ------------------------------------------------------------ lock operations
// One table per kind of lock; a created lock remembers the table it was made
// with, so switching the process-wide choice never mixes kinds.
struct LockOps {
    bool (*init)(void*) noexcept;
    void (*destroy)(void*) noexcept;
    void (*lockShared)(void*) noexcept;
    void (*unlockShared)(void*) noexcept;
    void (*lockExclusive)(void*) noexcept;
    void (*unlockExclusive)(void*) noexcept;
    bool slim;
};

bool rwInit(void* p) noexcept {
    pthread_rwlockattr_t attr;
    if (pthread_rwlockattr_init(&attr) != 0) return false;
    // Writers first: with a steady stream of readers a writer still gets in.
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    int r = pthread_rwlock_init(static_cast<pthread_rwlock_t*>(p), &attr);
    pthread_rwlockattr_destroy(&attr);
    return r == 0;
}
void rwDestroy(void* p) noexcept { pthread_rwlock_destroy(static_cast<pthread_rwlock_t*>(p)); }
void rwLockShared(void* p) noexcept { pthread_rwlock_rdlock(static_cast<pthread_rwlock_t*>(p)); }
void rwUnlock(void* p) noexcept { pthread_rwlock_unlock(static_cast<pthread_rwlock_t*>(p)); }
void rwLockExclusive(void* p) noexcept { pthread_rwlock_wrlock(static_cast<pthread_rwlock_t*>(p)); }

bool csInit(void* p) noexcept {
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0) return false;
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    int r = pthread_mutex_init(static_cast<pthread_mutex_t*>(p), &attr);
    pthread_mutexattr_destroy(&attr);
    return r == 0;
}
void csDestroy(void* p) noexcept { pthread_mutex_destroy(static_cast<pthread_mutex_t*>(p)); }
void csLock(void* p) noexcept { pthread_mutex_lock(static_cast<pthread_mutex_t*>(p)); }
void csUnlock(void* p) noexcept { pthread_mutex_unlock(static_cast<pthread_mutex_t*>(p)); }

constexpr LockOps kSlimOps{rwInit, rwDestroy, rwLockShared, rwUnlock, rwLockExclusive, rwUnlock, true};
constexpr LockOps kSectionOps{csInit, csDestroy, csLock, csUnlock, csLock, csUnlock, false};

std::once_flag g_lockOpsOnce;
const LockOps* g_boundOps = nullptr;
std::atomic<bool> g_forceFallback{false};

const LockOps* lockOps() noexcept {
    KTThreadToolsUnmanaged::Initialize();
    if (g_forceFallback.load(std::memory_order_relaxed)) return &kSectionOps;
    return g_boundOps;
}

// ------------------------------------------------------------ the pool
// Pool state lives in a kernel block that is never freed once the pool ran:
// a worker still running at exit, or a thread that read the pool pointer
// just before the shutdown, keeps a valid state until the process ends.
struct Pool {
    std::mutex m;
    std::condition_variable cv;       // work queued or stop
    std::condition_variable idleCv;   // a worker left (shutdown waits on it)
    ktt::PoolNode* head = nullptr;
    ktt::PoolNode* tail = nullptr;
    int pending = 0;
    int busy = 0;
    int alive = 0;                    // workers that have not left their loop
    int idle = 0;                     // workers waiting for work (no wake-up needed otherwise)
    bool stopping = false;
    uint64_t itemsRun = 0;
    std::thread* threads = nullptr;   // kernel block of nThreads objects
    int nThreads = 0;
};

std::mutex g_poolMutex;               // guards g_pool creation and shutdown
std::atomic<Pool*> g_pool{nullptr};
std::atomic<bool> g_poolShutDown{false};
// volatile: the pointer is only ever written, and must survive optimisation so
// that the retired block stays reachable (and is not reported as a leak).
Pool* volatile g_retiredPool = nullptr;  // a shut-down pool, kept for late readers
thread_local bool t_inPoolWorker = false;

void runNode(ktt::PoolNode* node) noexcept {
    bool owned = node->ownedByPool;
    node->fn(node->ctx);
    if (owned) krn::memFree(node);
}

void workerLoop(Pool* pool) noexcept {
    t_inPoolWorker = true;
    std::unique_lock<std::mutex> lk(pool->m);
    for (;;) {
        while (!pool->head && !pool->stopping) {
            ++pool->idle;
            pool->cv.wait(lk);
            --pool->idle;
        }
        if (pool->stopping) break;
        ktt::PoolNode* node = pool->head;
        pool->head = node->next;
        if (!pool->head) pool->tail = nullptr;
        --pool->pending;
        ++pool->busy;
        lk.unlock();
        runNode(node);
        lk.lock();
        --pool->busy;
        ++pool->itemsRun;
    }
    --pool->alive;
    pool->idleCv.notify_all();
}

// Starts the pool on first use. Null when it cannot run threads (shut down,
// no memory, or the platform refuses threads): callers then run inline.
Pool* getPool() noexcept {
    Pool* pool = g_pool.load(std::memory_order_acquire);
    if (pool) return pool;
    std::lock_guard<std::mutex> guard(g_poolMutex);
    if (g_poolShutDown.load(std::memory_order_relaxed)) return nullptr;
    pool = g_pool.load(std::memory_order_relaxed);
    if (pool) return pool;
    pool = makeObject<Pool>();
    if (!pool) return nullptr;
    int want = realCoreCount();
    pool->threads = krn::memAllocArray<std::thread>(size_t(want));
    if (!pool->threads) {
        dropObject(pool);
        return nullptr;
    }
    for (int i = 0; i < want; ++i) {
        try {
            new (&pool->threads[i]) std::thread(workerLoop, pool);
        } catch (...) {
            break;  // keep the workers that did start
        }
        ++pool->nThreads;
        std::lock_guard<std::mutex> lk(pool->m);
        ++pool->alive;
    }
    if (pool->nThreads == 0) {
        krn::memFree(pool->threads);
        dropObject(pool);
        return nullptr;
    }
    g_pool.store(pool, std::memory_order_release);
    return pool;
}

// After fork() the child has none of the workers: forget the old pool (its
// memory is left as it is; its locks may be held by threads that do not
// exist) and start a fresh one on next use.
void prepareFork() noexcept { g_poolMutex.lock(); }
void afterForkParent() noexcept { g_poolMutex.unlock(); }
void afterForkChild() noexcept {
    Pool* old = g_pool.exchange(nullptr, std::memory_order_relaxed);
    if (old) g_retiredPool = old;  // still reachable, never touched again
    g_poolMutex.unlock();
}

// Joins the pool when the library is unloaded or the process exits.
struct PoolGuard {
    PoolGuard() noexcept { pthread_atfork(prepareFork, afterForkParent, afterForkChild); }
    ~PoolGuard() { ktt::shutdownPool(2000); }
} g_poolGuard;

}  // namespace

namespace ktt {

int submit(PoolNode* node) noexcept {
    node->next = nullptr;
    Pool* pool = getPool();
    if (pool) {
        std::unique_lock<std::mutex> lk(pool->m);
        if (!pool->stopping) {
            if (pool->tail)
                pool->tail->next = node;
            else
                pool->head = node;
            pool->tail = node;
            ++pool->pending;
            if (pool->idle > 0) pool->cv.notify_one();  // busy workers come back by themselves
            return KS_SUCCESS;
        }
    }
    // No worker can take it: run it here, so that the request is not lost.
    runNode(node);
    return KS_SUCCESS;
}

bool inPoolWorker() noexcept { return t_inPoolWorker; }

PoolState poolState() noexcept {
    PoolState s{0, 0, 0, g_poolShutDown.load(std::memory_order_relaxed), 0};
    std::lock_guard<std::mutex> guard(g_poolMutex);
    Pool* pool = g_pool.load(std::memory_order_acquire);
    if (!pool) return s;
    std::lock_guard<std::mutex> lk(pool->m);
    s.threads = pool->alive;
    s.pending = pool->pending;
    s.busy = pool->busy;
    s.itemsRun = pool->itemsRun;
    return s;
}

bool shutdownPool(unsigned graceMs) noexcept {
    std::lock_guard<std::mutex> guard(g_poolMutex);
    g_poolShutDown.store(true, std::memory_order_relaxed);
    Pool* pool = g_pool.exchange(nullptr, std::memory_order_acq_rel);
    if (!pool) return true;
    ktt::PoolNode* dropped = nullptr;
    bool allLeft;
    bool selfIsWorker = t_inPoolWorker;  // exit() called from an item
    {
        std::unique_lock<std::mutex> lk(pool->m);
        pool->stopping = true;
        dropped = pool->head;
        pool->head = pool->tail = nullptr;
        pool->pending = 0;
        pool->cv.notify_all();
        // The calling worker (if any) cannot leave its loop while we wait.
        int mustStay = selfIsWorker ? 1 : 0;
        allLeft = pool->idleCv.wait_for(lk, std::chrono::milliseconds(graceMs),
                                        [&] { return pool->alive <= mustStay; });
        allLeft = allLeft && !selfIsWorker;
    }
    while (dropped) {
        ktt::PoolNode* next = dropped->next;
        if (dropped->drop)
            dropped->drop(dropped->ctx);
        else
            krn::memFree(dropped);
        dropped = next;
    }
    for (int i = 0; i < pool->nThreads; ++i) {
        std::thread& t = pool->threads[i];
        if (allLeft && t.joinable() && t.get_id() != std::this_thread::get_id()) {
            t.join();
        } else if (t.joinable()) {
            t.detach();
        }
    }
    // The pool block itself is kept (and stays reachable): another thread may
    // still hold the pointer it read before the shutdown; it finds the pool
    // stopping and runs its request itself. Stragglers keep everything.
    g_retiredPool = pool;
    if (!allLeft) return false;
    for (int i = 0; i < pool->nThreads; ++i) pool->threads[i].~thread();
    krn::memFree(pool->threads);
    pool->threads = nullptr;
    pool->nThreads = 0;
    return true;
}

namespace testhook {
void setCoreCount(int n) noexcept { g_coreOverride.store(n > 0 ? n : 0, std::memory_order_relaxed); }
void forceLockFallback(bool on) noexcept { g_forceFallback.store(on, std::memory_order_relaxed); }
}  // namespace testhook

}  // namespace ktt

// ============================================================== processor count
int KTThreadToolsManaged::GetCoreCount() {
    int o = g_coreOverride.load(std::memory_order_relaxed);
    return o > 0 ? o : realCoreCount();
}

int KTThreadToolsUnmanaged::Initialize() {
    std::call_once(g_lockOpsOnce, [] {
        // POSIX threads always provide the reader/writer lock; the fallback
        // remains for platforms without one and for tests.
        g_boundOps = &kSlimOps;
    });
    return KS_SUCCESS;
}

int KTThreadToolsUnmanaged::HasSlimLocks() {
    return lockOps()->slim ? 1 : 0;
}

// ============================================================== KTWaitEvent
KTWaitEvent::KTWaitEvent() noexcept : m_hEvent(nullptr) {}
KTWaitEvent::~KTWaitEvent() { Destroy(); }

int KTWaitEvent::Create(int bManualReset, int bInitialState) {
    Destroy();
    Event* e = makeObject<Event>();
    if (!e) return KS_NO_MEMORY;
    e->manual = bManualReset != 0;
    e->signalled = bInitialState != 0;
    m_hEvent = e;
    return KS_SUCCESS;
}

int KTWaitEvent::WaitOne(uint32_t uMilliseconds) {
    Event* e = static_cast<Event*>(m_hEvent);
    if (!e) return KS_SUCCESS;
    std::unique_lock<std::mutex> lk(e->m);
    if (uMilliseconds == KT_INFINITE) {
        while (!e->signalled) e->cv.wait(lk);
    } else if (!e->cv.wait_for(lk, std::chrono::milliseconds(uMilliseconds), [e] { return e->signalled; })) {
        return KS_USER_ABORT;
    }
    if (!e->manual) e->signalled = false;
    return KS_SUCCESS;
}

int KTWaitEvent::Set() {
    Event* e = static_cast<Event*>(m_hEvent);
    if (!e) return KS_SUCCESS;
    // Notify while holding the mutex: a released waiter may destroy the
    // event as soon as it returns, and it cannot return before we unlock.
    std::lock_guard<std::mutex> lk(e->m);
    e->signalled = true;
    if (e->manual)
        e->cv.notify_all();
    else
        e->cv.notify_one();
    return KS_SUCCESS;
}

int KTWaitEvent::Reset() {
    Event* e = static_cast<Event*>(m_hEvent);
    if (!e) return KS_SUCCESS;
    std::lock_guard<std::mutex> lk(e->m);
    e->signalled = false;
    return KS_SUCCESS;
}

void KTWaitEvent::Destroy() {
    dropObject(static_cast<Event*>(m_hEvent));
    m_hEvent = nullptr;
}

int KTWaitEvent::IsCreated() const { return m_hEvent ? 1 : 0; }

// ============================================================== lock items
KTReaderWriterLockItem::KTReaderWriterLockItem() noexcept : m_pLock(nullptr), m_bReader(0) {}
KTReaderWriterLockItem::KTReaderWriterLockItem(KTReaderWriterLock* pLock, int bReader) noexcept
    : m_pLock(pLock), m_bReader(bReader ? 1 : 0) {}
KTReaderWriterLockItem::KTReaderWriterLockItem(KTReaderWriterLockItem&& other) noexcept
    : m_pLock(other.m_pLock), m_bReader(other.m_bReader) {
    other.m_pLock = nullptr;
}
KTReaderWriterLockItem& KTReaderWriterLockItem::operator=(KTReaderWriterLockItem&& other) noexcept {
    if (this != &other) {
        Release();
        m_pLock = other.m_pLock;
        m_bReader = other.m_bReader;
        other.m_pLock = nullptr;
    }
    return *this;
}
KTReaderWriterLockItem::~KTReaderWriterLockItem() { Release(); }

void KTReaderWriterLockItem::Release() {
    KTReaderWriterLock* lock = m_pLock;
    m_pLock = nullptr;
    if (!lock) return;
    if (m_bReader)
        lock->ReleaseReaderLock();
    else
        lock->ReleaseWriterLock();
}
int KTReaderWriterLockItem::IsHeld() const { return m_pLock ? 1 : 0; }
int KTReaderWriterLockItem::IsReader() const { return m_pLock && m_bReader ? 1 : 0; }

// ============================================================== KTReaderWriterLock
static_assert(sizeof(pthread_rwlock_t) <= 64 && alignof(pthread_rwlock_t) <= 16);
static_assert(sizeof(pthread_mutex_t) <= 64 && alignof(pthread_mutex_t) <= 16);

KTReaderWriterLock::KTReaderWriterLock() noexcept : m_storage{}, m_pOps(nullptr), m_bCreated(0) {}
KTReaderWriterLock::~KTReaderWriterLock() { Destroy(); }

int KTReaderWriterLock::Create() {
    Destroy();
    const LockOps* ops = lockOps();
    if (!ops->init(m_storage)) {
        // Cannot happen with default attributes; stay a valid no-op lock.
        return KS_NO_MEMORY;
    }
    m_pOps = ops;
    m_bCreated = 1;
    return KS_SUCCESS;
}

void KTReaderWriterLock::Destroy() {
    if (!m_bCreated) return;
    static_cast<const LockOps*>(m_pOps)->destroy(m_storage);
    m_bCreated = 0;
    m_pOps = nullptr;
}

int KTReaderWriterLock::IsCreated() const { return m_bCreated; }

void KTReaderWriterLock::LockShared() {
    if (m_bCreated) static_cast<const LockOps*>(m_pOps)->lockShared(m_storage);
}
void KTReaderWriterLock::ReleaseReaderLock() {
    if (m_bCreated) static_cast<const LockOps*>(m_pOps)->unlockShared(m_storage);
}
void KTReaderWriterLock::Lock() {
    if (m_bCreated) static_cast<const LockOps*>(m_pOps)->lockExclusive(m_storage);
}
void KTReaderWriterLock::Unlock() {
    if (m_bCreated) static_cast<const LockOps*>(m_pOps)->unlockExclusive(m_storage);
}
void KTReaderWriterLock::ReleaseWriterLock() { Unlock(); }

// A lock that is not created hands out empty items: nothing to release later,
// even if the lock is created in between.
KTReaderWriterLockItem KTReaderWriterLock::AcquireReaderLock() {
    if (!m_bCreated) return KTReaderWriterLockItem();
    LockShared();
    return KTReaderWriterLockItem(this, 1);
}
KTReaderWriterLockItem KTReaderWriterLock::AcquireReaderLock(int bEnable) {
    if (!bEnable) return KTReaderWriterLockItem();
    return AcquireReaderLock();
}
KTReaderWriterLockItem KTReaderWriterLock::AcquireWriterLock() {
    if (!m_bCreated) return KTReaderWriterLockItem();
    Lock();
    return KTReaderWriterLockItem(this, 0);
}
KTReaderWriterLockItem KTReaderWriterLock::AcquireWriterLock(int bEnable) {
    if (!bEnable) return KTReaderWriterLockItem();
    return AcquireWriterLock();
}
KTReaderWriterLockItem KTReaderWriterLock::Acquire(KTReaderWriterLock* pLock, int bReader) {
    if (!pLock) return KTReaderWriterLockItem();
    return bReader ? pLock->AcquireReaderLock() : pLock->AcquireWriterLock();
}

// ============================================================== KTWorkItems
namespace {
// What QueueItem hands to the pool: the pool node first (the pool frees a
// dropped node by its address), then the three words of the request.
struct ItemRecord {
    ktt::PoolNode node;
    KTWorkItems* items;
    KTWORKITEMCALLBACK callback;
    void* data;
};
inline std::atomic_ref<int> atomicInt(int& v) noexcept { return std::atomic_ref<int>(v); }
}  // namespace

KTWorkItems::KTWorkItems() noexcept
    : m_uFlags(0), m_bCreated(0), m_uItemCount(0), m_nRemaining(0), m_bCanceled(0), m_nStatus(1),
      m_uPoolFlags(0), m_nInFlight(0) {}
KTWorkItems::~KTWorkItems() { Destroy(); }

int KTWorkItems::Create(uint32_t uItemCount, uint32_t uFlags, uint32_t uPoolFlags) {
    if (m_bCreated) Destroy();
    bool threaded = !(uFlags & KTWI_SINGLE_THREAD) && KTThreadToolsManaged::GetCoreCount() > 1;
    if (threaded && m_doneEvent.Create(0, 0) != KS_SUCCESS) return KS_NO_MEMORY;
    if (uFlags & (KTWI_LOCK | KTWI_LOCK_CANCEL | KTWI_ITEM_STATUS)) {
        int r = m_lock.Create();
        if (r != KS_SUCCESS) {
            m_doneEvent.Destroy();
            return r;
        }
    }
    m_bCreated = 1;
    m_uItemCount = uItemCount;
    atomicInt(m_nRemaining).store(int(uItemCount), std::memory_order_relaxed);
    atomicInt(m_nStatus).store(KS_SUCCESS, std::memory_order_relaxed);
    m_uFlags = uFlags;
    atomicInt(m_bCanceled).store(0, std::memory_order_relaxed);
    m_uPoolFlags = uPoolFlags;
    return KS_SUCCESS;
}

int KTWorkItems::ReadCanceled() {
    if (m_uFlags & KTWI_LOCK_CANCEL) {
        KTReaderWriterLockItem hold = m_lock.AcquireReaderLock();
        return atomicInt(m_bCanceled).load(std::memory_order_relaxed);
    }
    return atomicInt(m_bCanceled).load(std::memory_order_acquire);
}

void KTWorkItems::Cancel() {
    if (m_uFlags & KTWI_LOCK_CANCEL) {
        KTReaderWriterLockItem hold = m_lock.AcquireWriterLock();
        atomicInt(m_bCanceled).store(1, std::memory_order_relaxed);
        return;
    }
    atomicInt(m_bCanceled).store(1, std::memory_order_release);
}

int KTWorkItems::IsCanceled() { return ReadCanceled(); }

int KTWorkItems::GetStatus() {
    KTReaderWriterLockItem hold = m_lock.AcquireReaderLock(m_bCreated);
    return atomicInt(m_nStatus).load(std::memory_order_acquire);
}

void KTWorkItems::SetStatus(int nStatus) {
    KTReaderWriterLockItem hold = m_lock.AcquireWriterLock(m_bCreated);
    atomicInt(m_nStatus).store(nStatus, std::memory_order_release);
}

KTReaderWriterLock& KTWorkItems::GetLock() { return m_lock; }

int KTWorkItems::IsThreaded() const { return m_bCreated && m_doneEvent.IsCreated() ? 1 : 0; }

// Counts one announced item as finished. The item that brings the count to
// zero signals the done event; nobody touches the object after that.
void KTWorkItems::ItemDone() {
    if (m_uItemCount == 0) return;
    if (atomicInt(m_nRemaining).fetch_sub(1, std::memory_order_seq_cst) == 1) m_doneEvent.Set();
}

int KTWorkItems::RunRecord(void* pRecord) {
    ItemRecord* rec = static_cast<ItemRecord*>(pRecord);
    KTWorkItems* self = rec->items;
    int result = KS_SUCCESS;
    if (!self->ReadCanceled()) {
        result = rec->callback(self, rec->data);
        if (self->m_uFlags & KTWI_ITEM_STATUS) self->SetStatus(result);
        if (result == KS_USER_ABORT) self->Cancel();
    }
    krn::memFree(rec);
    self->ItemDone();
    // Last touch of the object: Destroy may run as soon as this is seen.
    atomicInt(self->m_nInFlight).fetch_sub(1, std::memory_order_release);
    return result;
}

// A record the pool dropped at shutdown: counted as finished, never run.
int KTWorkItems::DropRecord(void* pRecord) {
    ItemRecord* rec = static_cast<ItemRecord*>(pRecord);
    KTWorkItems* self = rec->items;
    krn::memFree(rec);
    self->ItemDone();
    atomicInt(self->m_nInFlight).fetch_sub(1, std::memory_order_release);
    return KS_SUCCESS;
}

int KTWorkItems::QueueItem(KTWORKITEMCALLBACK pfnCallback, void* pData) {
    bool threaded = IsThreaded();
    if (!pfnCallback) {
        if (threaded) ItemDone();
        return KS_INVALID_PARAMETER;
    }
    if (ReadCanceled()) {
        if (threaded) ItemDone();
        return KS_SUCCESS;
    }
    if (threaded) {
        ItemRecord* rec = static_cast<ItemRecord*>(krn::memAlloc(sizeof(ItemRecord)));
        if (!rec) {
            ItemDone();
            return KS_NO_MEMORY;
        }
        rec->node.fn = &KTWorkItems::RunRecord;
        rec->node.ctx = rec;
        rec->node.drop = &KTWorkItems::DropRecord;
        rec->node.ownedByPool = false;
        rec->items = this;
        rec->callback = pfnCallback;
        rec->data = pData;
        atomicInt(m_nInFlight).fetch_add(1, std::memory_order_relaxed);
        return ktt::submit(&rec->node);
    }
    // Single-thread mode: the item runs now and its result is the status.
    int result = pfnCallback(this, pData);
    SetStatus(result);
    if (result == KS_USER_ABORT) Cancel();
    return KS_SUCCESS;
}

int KTWorkItems::Wait() {
    if (IsThreaded()) m_doneEvent.WaitOne(KT_INFINITE);
    return KS_SUCCESS;
}

int KTWorkItems::Finish() {
    if (IsThreaded()) m_doneEvent.Set();
    return KS_SUCCESS;
}

void KTWorkItems::Destroy() {
    // Items still finishing (after Finish released a waiter early, or queued
    // behind other work) keep using the object: wait for them.
    for (int spins = 0; atomicInt(m_nInFlight).load(std::memory_order_acquire) != 0; ++spins) {
        if (spins < 64)
            std::this_thread::yield();
        else
            std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    m_uItemCount = 0;
    atomicInt(m_nRemaining).store(0, std::memory_order_relaxed);
    m_doneEvent.Destroy();
    m_lock.Destroy();
    atomicInt(m_nStatus).store(KS_SUCCESS, std::memory_order_relaxed);
    m_bCreated = 0;
    atomicInt(m_bCanceled).store(0, std::memory_order_relaxed);
}

// ============================================================== KTThreadPool
int KTThreadPool::QueueUserWorkItem(KTPOOLFUNCTION pfnFunction, void* pContext, uint32_t /*uFlags*/) {
    if (!pfnFunction) return KS_INVALID_PARAMETER;
    ktt::PoolNode* node = static_cast<ktt::PoolNode*>(krn::memAlloc(sizeof(ktt::PoolNode)));
    if (!node) return KS_NO_MEMORY;
    node->fn = pfnFunction;
    node->ctx = pContext;
    node->drop = nullptr;
    node->ownedByPool = true;
    return ktt::submit(node);
}

int KTThreadPool::GetThreadCount() { return ktt::poolState().threads; }
int KTThreadPool::GetPendingCount() { return ktt::poolState().pending; }

// ============================================================== critical sections
// A plain mutex plus the owner and the nesting depth: a recursive lock whose
// Leave can tell a thread that does not own it (-74) without asking the
// platform to unlock someone else's mutex.
namespace {
struct Section {
    pthread_mutex_t m;
    std::atomic<std::thread::id> owner;
    int depth;  // touched by the owner only
};
Section* sectionOf(CRITICAL_SECTION* cs) noexcept { return *reinterpret_cast<Section**>(cs); }
}  // namespace

KAPI int32_t K_IntInitializeCriticalSection(CRITICAL_SECTION* pSection) {
    if (!pSection) return KS_INVALID_PARAMETER;
    Section* s = static_cast<Section*>(krn::memAlloc(sizeof(Section)));
    if (!s) return KS_NO_MEMORY;
    if (pthread_mutex_init(&s->m, nullptr) != 0) {
        krn::memFree(s);
        return KS_NO_MEMORY;
    }
    new (&s->owner) std::atomic<std::thread::id>();
    s->depth = 0;
    *reinterpret_cast<Section**>(pSection) = s;
    return KS_SUCCESS;
}

KAPI int32_t K_IntEnterCriticalSection(CRITICAL_SECTION* pSection) {
    if (!pSection) return KS_INVALID_PARAMETER;
    Section* s = sectionOf(pSection);
    if (!s) return KS_INVALID_PARAMETER;
    std::thread::id self = std::this_thread::get_id();
    if (s->owner.load(std::memory_order_relaxed) == self) {  // only we can have stored our id
        ++s->depth;
        return KS_SUCCESS;
    }
    if (pthread_mutex_lock(&s->m) != 0) return KS_INTERNAL;
    s->owner.store(self, std::memory_order_relaxed);
    s->depth = 1;
    return KS_SUCCESS;
}

KAPI int32_t K_IntLeaveCriticalSection(CRITICAL_SECTION* pSection) {
    if (!pSection) return KS_INVALID_PARAMETER;
    Section* s = sectionOf(pSection);
    if (!s) return KS_INVALID_PARAMETER;
    if (s->owner.load(std::memory_order_relaxed) != std::this_thread::get_id()) return KS_INTERNAL;
    if (--s->depth > 0) return KS_SUCCESS;
    s->owner.store(std::thread::id(), std::memory_order_relaxed);
    return pthread_mutex_unlock(&s->m) == 0 ? KS_SUCCESS : KS_INTERNAL;
}

KAPI int32_t K_IntDeleteCriticalSection(CRITICAL_SECTION* pSection) {
    if (!pSection) return KS_NULL_POINTER;
    Section* s = sectionOf(pSection);
    if (!s) return KS_SUCCESS;
    pthread_mutex_destroy(&s->m);
    s->owner.~atomic();
    krn::memFree(s);
    *reinterpret_cast<Section**>(pSection) = nullptr;
    return KS_SUCCESS;
}
