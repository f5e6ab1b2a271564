// Runs body(i) for i = 0 .. n-1, each on a thread of its own, all at once; returns when
// every one has finished.
#pragma once

#include <thread>
#include <vector>

namespace testing_support {

template <class Body> void inThreads(int n, Body body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i) threads.emplace_back(body, i);
    for (auto& t : threads) t.join();
}

} // namespace testing_support
