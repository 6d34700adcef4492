// run_threads.h - the race driver of the thread tests: f(i) on n threads at once, all joined before it returns.
#pragma once

#include <thread>
#include <vector>

template <class F>
void onThreads(int n, F f) {
    std::vector<std::thread> ts;
    for (int i = 0; i < n; ++i) ts.emplace_back(f, i);
    for (auto& t : ts) t.join();
}
