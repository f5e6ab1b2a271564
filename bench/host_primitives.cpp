// The host's primitives against their standard counterparts: Zn::Ptr against
// std::shared_ptr, an uncontended CriticalSection against std::recursive_mutex, and the
// hand-over between two threads through thread events against a mutex and condition
// variables. Ends with a table of the medians and their ratio (ours / std).
#include "host/core/RefCount.h"
#include "host/os/OS.h"
#include "host/threads/CriticalSection.h"
#include "host/threads/ThreadEvent.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Counted : iObject {
    int value = 0;
};
struct Plain {
    int value = 0;
};

void ptr_copy_ours(benchmark::State& state) {
    Zn::Ptr<Counted> p(new Counted);
    for (auto _ : state) {
        Zn::Ptr<Counted> copy(p);
        benchmark::DoNotOptimize(copy.get());
        benchmark::ClobberMemory();
    }
}

void ptr_copy_std(benchmark::State& state) {
    auto p = std::make_shared<Plain>();
    for (auto _ : state) {
        std::shared_ptr<Plain> copy(p);
        benchmark::DoNotOptimize(copy.get());
        benchmark::ClobberMemory();
    }
}

void lock_ours(benchmark::State& state) {
    CriticalSection cs;
    for (auto _ : state) {
        cs.enter();
        benchmark::ClobberMemory();
        cs.leave();
    }
}

void lock_std(benchmark::State& state) {
    std::recursive_mutex m;
    for (auto _ : state) {
        m.lock();
        benchmark::ClobberMemory();
        m.unlock();
    }
}

// One iteration is a round trip: this thread wakes the partner, the partner wakes it back.
void handover_ours(benchmark::State& state) {
    auto ping = OS()->createThreadEvent(false, false);
    auto pong = OS()->createThreadEvent(false, false);
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        for (;;) {
            ping->wait();
            if (stop.load(std::memory_order_relaxed)) return;
            pong->set();
        }
    });
    for (auto _ : state) {
        ping->set();
        pong->wait();
    }
    stop = true;
    ping->set();
    partner.join();
}

void handover_std(benchmark::State& state) {
    std::mutex m;
    std::condition_variable pingCv, pongCv;
    int turn = 0;
    bool stop = false;
    std::thread partner([&] {
        for (;;) {
            std::unique_lock<std::mutex> lock(m);
            pingCv.wait(lock, [&] { return turn == 1 || stop; });
            if (stop) return;
            turn = 2;
            lock.unlock();
            pongCv.notify_one();
        }
    });
    for (auto _ : state) {
        {
            std::lock_guard<std::mutex> lock(m);
            turn = 1;
        }
        pingCv.notify_one();
        std::unique_lock<std::mutex> lock(m);
        pongCv.wait(lock, [&] { return turn == 2; });
    }
    {
        std::lock_guard<std::mutex> lock(m);
        stop = true;
    }
    pingCv.notify_one();
    partner.join();
}

// Shows the medians and keeps every repetition's time per iteration for the table.
class Collector : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        std::vector<Run> shown;
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            if (run.run_type == Run::RT_Iteration)
                times[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
            else if (run.aggregate_name == "median" || run.aggregate_name == "cv")
                shown.push_back(run);
        }
        if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
    }

    double median(const std::string& name) const {
        auto it = times.find(name);
        if (it == times.end() || it->second.empty()) return 0;
        std::vector<double> v = it->second;
        std::sort(v.begin(), v.end());
        return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
    }

    std::map<std::string, std::vector<double>> times;
};

} // namespace

int main(int argc, char** argv) {
    const int repetitions = 9;
    benchmark::RegisterBenchmark("ptr_copy/ours", ptr_copy_ours)->MinTime(0.05);
    benchmark::RegisterBenchmark("ptr_copy/std", ptr_copy_std)->MinTime(0.05);
    benchmark::RegisterBenchmark("lock/ours", lock_ours)->MinTime(0.05);
    benchmark::RegisterBenchmark("lock/std", lock_std)->MinTime(0.05);
    benchmark::RegisterBenchmark("handover/ours", handover_ours)->MinTime(0.2)->UseRealTime();
    benchmark::RegisterBenchmark("handover/std", handover_std)->MinTime(0.2)->UseRealTime();

    // Interleaving the repetitions of ours and std spreads the load of other processes
    // over both sides instead of penalising whichever ran during a burst.
    std::vector<char*> args(argv, argv + argc);
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    std::string reps = "--benchmark_repetitions=" + std::to_string(repetitions);
    args.insert(args.begin() + 1, {interleave.data(), reps.data()});
    int n = int(args.size());
    benchmark::Initialize(&n, args.data());
    if (benchmark::ReportUnrecognizedArguments(n, args.data())) return 1;

    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    benchmark::Shutdown();

    std::printf("\n%-40s | %9s | %9s | %6s\n", "operation", "ours ns", "std ns", "ratio");
    const struct {
        const char* name;
        const char* label;
    } rows[] = {
        {"ptr_copy", "Zn::Ptr vs std::shared_ptr copy+destroy"},
        {"lock", "CriticalSection vs recursive_mutex"},
        {"handover", "event vs mutex+condvar round trip"},
    };
    for (const auto& row : rows) {
        double ours = collector.median(std::string(row.name) + "/ours");
        double theirs = collector.median(std::string(row.name) + "/std");
        if (ours == 0 || theirs == 0) continue;
        std::printf("%-40s | %9.1f | %9.1f | %6.2f\n", row.label, ours, theirs, ours / theirs);
    }
    return 0;
}
