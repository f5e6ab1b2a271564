#include "backends/ffmpeg/FfmpegCompletionPool.h"

#include "backends/ffmpeg/FfmpegVideoCodec.h"
#include "host/threads/BasicThread.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

namespace ffmpeg_backend {

namespace {

// Lock: mutex guards jobs; a leaf lock, held only to add or take a job (requests are
// completed without it).
struct Pool {
    struct Job {
        Zn::Ptr<VideoReadRequest> request;
        Zn::Ptr<FrameBufferRep> buffer;
    };
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<Job> jobs;
    std::vector<Zn::Ptr<iThread>> workers;

    void work() {
        for (;;) {
            Job job;
            {
                std::unique_lock<std::mutex> lock(mutex);
                ready.wait(lock, [&] { return !jobs.empty(); });
                job = std::move(jobs.front());
                jobs.pop_front();
            }
            job.request->setResultBuffer(job.buffer);
            job.request->requestHasCompleted(RequestStatus::Complete);
        }
    }
};

// Made on first use and never destroyed: workers wait for jobs until the process ends.
Pool* pool() {
    static Pool* p = [] {
        auto* made = new Pool;
        for (int i = 0; i < decoderThreads(); ++i) {
            Zn::Ptr<iThread> worker = iThread::create([made] { made->work(); }, "FFmpegComplete", kPriorityNormal);
            if (worker) made->workers.push_back(worker);
        }
        return made;
    }();
    return p;
}

} // namespace

bool FfmpegCompletionPool::complete(Zn::Ptr<VideoReadRequest> request, Zn::Ptr<FrameBufferRep> buffer) {
    Pool* p = pool();
    if (p->workers.empty()) return false;
    {
        std::lock_guard<std::mutex> lock(p->mutex);
        p->jobs.push_back({std::move(request), std::move(buffer)});
    }
    p->ready.notify_one();
    return true;
}

} // namespace ffmpeg_backend
