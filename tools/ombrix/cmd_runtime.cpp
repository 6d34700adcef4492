// cmd_runtime.cpp - runtime services in the ombrix tool: an info section
// (processors, pool, locks) and a demo section that exercises work items,
// the sine table and the geometry helpers with self-checks.
#include <atomic>
#include <cmath>
#include <cstring>
#include <string>

#include "cli.h"

namespace {

void runtimeInfo() {
    int threads = KTThreadPool::GetThreadCount();
    std::printf("thread tools:\n");
    std::printf("  processors          %d\n", KTThreadToolsManaged::GetCoreCount());
    if (threads == 0)
        std::printf("  thread pool         not started (starts on first use)\n");
    else
        std::printf("  thread pool         %d worker threads, %d items queued\n", threads,
                    KTThreadPool::GetPendingCount());
    std::printf("  reader/writer locks %s\n",
                KTThreadToolsUnmanaged::HasSlimLocks() ? "slim (pthread rwlock, writers first)"
                                                       : "critical-section fallback");
}
cli::RegisterInfo info({"runtime", 70, runtimeInfo});

int sumItem(KTWorkItems* items, void* data) {
    auto* slot = static_cast<std::atomic<long>*>(data);
    long v = 0;
    for (long i = 1; i <= 1000; ++i) v += i;
    slot->fetch_add(v);
    return items ? 1 : -13;
}

bool runtimeDemo(cli::Report& r, const BITMAPRECORD&) {
    // Work items on the pool.
    KTWorkItems w;
    std::atomic<long> total{0};
    int rc = w.Create(64, KTWI_ITEM_STATUS, 0);
    r.check(rc == 1, "KTWorkItems::Create(64 items) -> " + cli::statusText(rc));
    for (int i = 0; i < 64; ++i) w.QueueItem(sumItem, &total);
    w.Wait();
    r.check(total.load() == 64L * 500500L, "64 items summed 1..1000 each: " + std::to_string(total.load()));
    r.check(w.GetStatus() == 1, std::string("ran ") + (w.IsThreaded() ? "on the pool" : "inline") +
                                    ", status " + std::to_string(w.GetStatus()));
    r.line("pool: " + std::to_string(KTThreadPool::GetThreadCount()) + " worker threads for " +
           std::to_string(KTThreadToolsManaged::GetCoreCount()) + " processors");

    // Wait with a time-out.
    KTWaitEvent e;
    e.Create(1, 0);
    r.check(e.WaitOne(10) == KS_USER_ABORT, "KTWaitEvent::WaitOne(10 ms) on an unsignalled event times out (-100)");

    // Fixed-point sine.
    r.check(K_SinValue(3000) == 8192 && K_SinValue(4500) == 11585 && K_CosValue(18000) == -16384,
            "sin 30 = 8192, sin 45 = 11585, cos 180 = -16384 (2.14 fixed point)");
    int worst = 0;
    for (int a = 0; a <= 36000; a += 7) {
        int d = int(std::lround(std::fabs(K_SinValue(a) - std::sin(a * M_PI / 18000.0) * 16384.0) * 1000));
        if (d > worst) worst = d;
    }
    r.check(worst <= 500, "largest sine error over the turn: " + std::to_string(worst / 1000.0).substr(0, 5) +
                              " units of 1/16384");

    // Matrices.
    KMATRIX m, inv, prod;
    K_Matrix_Identity(&m);
    K_Matrix_Scale(&m, 2, 3);
    K_Matrix_Rotate(&m, 30);
    K_Matrix_Translate(&m, 10, -4);
    inv = m;
    int ok = K_Matrix_Invert(&inv);
    K_Matrix_Multiply(&prod, &m, &inv);
    POINTD p{5, 7};
    K_Matrix_TransformPoint(&m, &p);
    K_Matrix_TransformPoint(&inv, &p);
    r.check(ok == 1 && std::fabs(prod.dM11 - 1) < 1e-12 && std::fabs(prod.dM12) < 1e-12 &&
                std::fabs(p.x - 5) < 1e-12 && std::fabs(p.y - 7) < 1e-12,
            "scale(2,3) rotate(30) translate(10,-4): inverse round trip, type " + std::to_string(m.nType));

    // Rectangles.
    RECT a = K_Rect_FromLTRB(0, 0, 10, 10), b = K_Rect_FromLTRB(5, 5, 20, 8), i, u;
    K_Rect_Intersect(&i, &a, &b);
    K_Rect_Union(&u, &a, &b);
    r.check(i.left == 5 && i.top == 5 && i.right == 10 && i.bottom == 8 && u.right == 20 && u.bottom == 10,
            "rect (0,0,10,10) & (5,5,20,8) = (5,5,10,8), | = (0,0,20,10)");
    return r.failures == 0;
}
cli::RegisterDemo demo({"runtime", 70, runtimeDemo});

}  // namespace
