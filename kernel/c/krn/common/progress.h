// progress.h - progress reporting for long loops.
//
// A Progress reports whole percentages from `from` to `to` through the calling
// thread's status callback (or copy-status callback) as work advances; it
// calls the callback only when the percentage changes, and any answer other
// than 1 is handed back so the loop can stop and return it.
//
//   Progress p = Progress::status(rows);      // or Progress::copyStatus(rows)
//   for (row ...) { ...; if (int32_t rc = p.step(row + 1); rc != KS_SUCCESS) return rc; }
#pragma once

#include <cstdint>

#include "ombrix.h"
#include "settings.h"

namespace krn {

class Progress {
public:
    static Progress status(int64_t total, int32_t from = 0, int32_t to = 100) noexcept {
        const ThreadSettings& ts = settings();
        return Progress(ts.pfnStatus, ts.pStatusUser, total, from, to);
    }
    static Progress copyStatus(int64_t total, int32_t from = 0, int32_t to = 100) noexcept {
        const ThreadSettings& ts = settings();
        return Progress(ts.pfnCopyStatus, ts.pCopyStatusUser, total, from, to);
    }
    Progress(STATUSCALLBACK fn, void* user, int64_t total, int32_t from, int32_t to) noexcept
        : fn_(fn), user_(user), total_(total > 0 ? total : 1), from_(from), to_(to) {}

    bool active() const noexcept { return fn_ != nullptr; }

    // Reports the percentage for `done` units out of the total.
    int32_t step(int64_t done) noexcept {
        if (!fn_) return KS_SUCCESS;
        if (done > total_) done = total_;
        if (done < 0) done = 0;
        const int32_t pct = from_ + int32_t((int64_t(to_ - from_) * done) / total_);
        if (pct == last_) return KS_SUCCESS;
        last_ = pct;
        return fn_(pct, user_);
    }
    int32_t begin() noexcept { return step(0); }
    int32_t finish() noexcept { return step(total_); }

private:
    STATUSCALLBACK fn_;
    void* user_;
    int64_t total_;
    int32_t from_, to_;
    int32_t last_ = INT32_MIN;
};

}  // namespace krn
