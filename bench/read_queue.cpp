// The video read queue's costs: (a) latency from queueReadRequest to the issuer's
// callback for a frame the back-end serves from memory, median and 99th percentile;
// (b) one read for the same request queued by 8 issuers at once; (c) requests per second
// through one queue with a back-end that does no work, next to a plain std::thread and
// std::condition_variable hand-off of the same requests to the same back-end, with their
// ratio.
#include "host/media/FrameBufferRep.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/requests/ReadRequestIssuer.h"
#include "playfile/requests/VideoReadQueue.h"
#include "playfile/requests/VideoReadRequest.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Serves every frame from one picture kept in memory, or (noWork) answers "done" without
// touching the buffer at all.
class MemoryReader : public FileReadInstance {
public:
    explicit MemoryReader(bool noWork)
        : FileReadInstance(L"memory", DecodeFormat(1), OpenType::kVideo), noWork_(noWork),
          picture_(Zn::Image::Surface::allocate(Zn::Image::Core::Data(64, 36, Zn::Image::kFormatYUV420P))) {
        picture_.set();
        getMetadata()->setFrameCount(0xFFFFFFFFu);
    }
    String getReaderName() const override { return "memory"; }
    eReadResult readVideo(Zn::Ptr<FrameBufferRep>& buffer, Zn::Ptr<VideoReadRequest>& request) override {
        reads.fetch_add(1, std::memory_order_relaxed);
        if (!noWork_) buffer = Zn::makePtr<FrameBufferRep>(request->getFrame(), picture_);
        return kReadDone;
    }
    std::atomic<long> reads{0};

private:
    const bool noWork_;
    Zn::Image::Surface picture_;
};

// Counts callbacks; stamps the time of the latest.
class CountingIssuer : public ReadRequestIssuer {
public:
    ~CountingIssuer() override { detachProxy(); }
    void readRequestComplete(Zn::Ptr<iObject>&, RequestStatus) override {
        calledAt.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
        completed.fetch_add(1, std::memory_order_release);
        completed.notify_all();
    }
    // After queuing: a request that joined one that had already failed calls nobody, so
    // its end is counted here.
    void queued(const Zn::Ptr<VideoReadRequest>& held) {
        Zn::Ptr<iObject> none;
        if (held->getStatus() == RequestStatus::Failed) readRequestComplete(none, RequestStatus::Failed);
    }
    void waitFor(long n) {
        for (long c = completed.load(std::memory_order_acquire); c < n; c = completed.load(std::memory_order_acquire))
            completed.wait(c, std::memory_order_acquire);
    }
    std::atomic<long> completed{0};
    std::atomic<Clock::rep> calledAt{0};
};

struct Figures {
    double medianUs = 0, p99Us = 0;
    double readsPerEightIssues = 0;
    double queueRate = 0, plainRate = 0;
} g_figures;

Zn::Ptr<VideoReadRequest> makeRequest(Zn::Ptr<FileReadInstance>& file, unsigned frame, ReadRequestIssuer& issuer) {
    Zn::Ptr<IndexInfoRep> none;
    return Zn::makePtr<VideoReadRequest>(file, none, frame, kResultDecoded, DecodeFormat(1), issuer.getProxy());
}

// (a) One request at a time, so every hand-off wakes the queue's thread.
void BM_HandOffLatency(benchmark::State& state) {
    Zn::Ptr<FileReadInstance> file(new MemoryReader(false));
    CountingIssuer issuer;
    std::vector<double> samples;
    long n = 0;
    for (auto _ : state) {
        auto request = makeRequest(file, unsigned(n % 100000), issuer);
        auto start = Clock::now();
        file->queueReadRequest(request, false);
        issuer.queued(request);
        issuer.waitFor(++n);
        double us = double(issuer.calledAt.load() - start.time_since_epoch().count()) / 1000.0;
        samples.push_back(us);
        state.SetIterationTime(us / 1e6);
        // Let the thread go back to waiting, as between frames of a real client.
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    std::sort(samples.begin(), samples.end());
    g_figures.medianUs = samples[samples.size() / 2];
    g_figures.p99Us = samples[samples.size() * 99 / 100];
    state.counters["median_us"] = g_figures.medianUs;
    state.counters["p99_us"] = g_figures.p99Us;
    file->purge();
}
BENCHMARK(BM_HandOffLatency)->UseManualTime()->Iterations(5000)->Unit(benchmark::kMicrosecond);

// (b) Eight issuers queue the same frame at the same moment.
void BM_EightIssuersOneFrame(benchmark::State& state) {
    constexpr int kIssuers = 8;
    auto* reader = new MemoryReader(false);
    Zn::Ptr<FileReadInstance> file(reader);
    CountingIssuer issuers[kIssuers];
    std::atomic<unsigned> frame{0};
    std::atomic<bool> stop{false};
    std::barrier go(kIssuers + 1), done(kIssuers + 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kIssuers; ++t) {
        threads.emplace_back([&, t] {
            for (long round = 1;; ++round) {
                go.arrive_and_wait();
                if (stop.load()) return;
                auto request = makeRequest(file, frame.load(), issuers[t]);
                file->queueReadRequest(request, false);
                issuers[t].queued(request);
                issuers[t].waitFor(round); // held until called, as a client would
                done.arrive_and_wait();
            }
        });
    }
    long issued = 0;
    long before = reader->reads.load();
    for (auto _ : state) {
        frame.fetch_add(1);
        go.arrive_and_wait();
        done.arrive_and_wait();
        issued += kIssuers;
    }
    stop = true;
    go.arrive_and_wait();
    for (auto& t : threads) t.join();
    g_figures.readsPerEightIssues = double(reader->reads.load() - before) / double(issued / kIssuers);
    state.counters["reads_per_8_requests"] = g_figures.readsPerEightIssues;
    file->purge();
}
BENCHMARK(BM_EightIssuersOneFrame)->Iterations(2000)->Unit(benchmark::kMicrosecond);

constexpr long kWindow = 32;     // requests in flight, for both hand-offs
constexpr long kPerRound = 50000; // requests per timed round
constexpr int kRounds = 7;        // rounds of each, alternating; the median of each is kept

// The client side of (c), the same for both hand-offs: it keeps up to kWindow requests in
// flight; when the window is full it waits until half of it has completed, and it lets go
// of each request once it has completed, as a client reading ahead does.
class ReadAheadClient {
public:
    template <class Hand> double run(Zn::Ptr<FileReadInstance>& file, long& frame, Hand&& handOver) {
        auto start = Clock::now();
        for (long n = 0; n < kPerRound; ++n) {
            if (n >= kWindow && issuer.completed.load(std::memory_order_acquire) < n - kWindow + 1)
                issuer.waitFor(n - kWindow / 2);
            for (long done = issuer.completed.load(std::memory_order_acquire); released_ < done; ++released_)
                inFlight_[released_ % kWindow].reset();
            Zn::Ptr<VideoReadRequest>& slot = inFlight_[n % kWindow];
            slot = makeRequest(file, unsigned(frame++), issuer);
            handOver(slot);
        }
        issuer.waitFor(kPerRound);
        double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        for (auto& r : inFlight_) r.reset();
        return double(kPerRound) / seconds;
    }
    CountingIssuer issuer;

private:
    std::vector<Zn::Ptr<VideoReadRequest>> inFlight_ = std::vector<Zn::Ptr<VideoReadRequest>>(kWindow);
    long released_ = 0;
};

// (c) kPerRound requests through the file's queue. The back-end does nothing: every
// request still goes through matching, the in-progress list, the file's readVideo and
// completion with its callback.
double queueRound(Zn::Ptr<FileReadInstance>& file, long& frame) {
    ReadAheadClient client;
    double rate = client.run(file, frame, [&](Zn::Ptr<VideoReadRequest>& r) {
        file->queueReadRequest(r, false);
        client.issuer.queued(r);
    });
    file->purge();
    return rate;
}

// (c) The same requests, made the same way, handed to a plain std::thread through a
// std::deque, a std::mutex and a std::condition_variable; the thread does what a queue
// does with a request it reads (the file's readVideo, which completes it) and nothing
// else.
double plainRound(Zn::Ptr<FileReadInstance>& file, long& frame) {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Zn::Ptr<VideoReadRequest>> jobs;
    bool stop = false;
    std::thread consumer([&] {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            wake.wait(lock, [&] { return stop || !jobs.empty(); });
            if (jobs.empty()) return;
            Zn::Ptr<VideoReadRequest> job = std::move(jobs.front());
            jobs.pop_front();
            lock.unlock();
            job->getFile()->readVideo(job);
            job.reset();
            lock.lock();
        }
    });
    ReadAheadClient client;
    double rate = client.run(file, frame, [&](Zn::Ptr<VideoReadRequest>& r) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            jobs.push_back(r);
        }
        wake.notify_one();
    });
    {
        std::lock_guard<std::mutex> lock(mutex);
        stop = true;
    }
    wake.notify_one();
    consumer.join();
    return rate;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// The two alternate within one run, so that the load of the machine falls on both alike.
void BM_Throughput(benchmark::State& state) {
    Zn::Ptr<FileReadInstance> file(new MemoryReader(true));
    long frame = 0;
    std::vector<double> queue, plain;
    for (auto _ : state) {
        for (int r = 0; r < kRounds; ++r) {
            queue.push_back(queueRound(file, frame));
            plain.push_back(plainRound(file, frame));
        }
    }
    g_figures.queueRate = median(queue);
    g_figures.plainRate = median(plain);
    state.counters["queue_per_s"] = g_figures.queueRate;
    state.counters["plain_per_s"] = g_figures.plainRate;
    state.counters["ratio"] = g_figures.queueRate / g_figures.plainRate;
}
BENCHMARK(BM_Throughput)->Iterations(1)->Unit(benchmark::kMillisecond);

// Prints the figures once every benchmark has run (at exit, after BENCHMARK_MAIN's main).
struct PrintFigures {
    ~PrintFigures() {
        std::printf("\nread queue figures\n");
        std::printf("  hand-off latency, queueReadRequest to callback: median %.1f us, 99th percentile %.1f us"
                    " (target: median below 20 us)\n",
                    g_figures.medianUs, g_figures.p99Us);
        std::printf("  same frame queued by 8 issuers at once: %.2f reads per 8 requests (target: 1)\n",
                    g_figures.readsPerEightIssues);
        double ratio = g_figures.plainRate > 0 ? g_figures.queueRate / g_figures.plainRate : 0;
        std::printf("  throughput: queue %.0f requests/s, plain hand-off loop %.0f requests/s, ratio %.2f"
                    " (target: at least 0.7)\n",
                    g_figures.queueRate, g_figures.plainRate, ratio);
    }
} g_printFigures;

} // namespace

BENCHMARK_MAIN();
