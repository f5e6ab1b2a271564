#include "playfile/requests/PreOpen.h"

#include "host/os/OS.h"
#include "host/threads/TimedTask.h"
#include "playfile/Configuration.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/open/PlayFileCache.h"

#include <algorithm>

namespace Zn {

PreOpenRequest::PreOpenRequest(const Cookie& material, const DecodeFormat& format)
    : cookie_(material), format_(format) {}

Zn::Ptr<PreOpenRequest> PreOpenRequest::create(const Cookie& material, const DecodeFormat& format) {
    Zn::Ptr<PreOpenRequest> request(new PreOpenRequest(material, format));
    if (Zn::Ptr<FileReadInstance> file = PlayFileCache::Shared().isOpen(material, format)) {
        request->finish(std::move(file));
        return request;
    }
    FilePreOpen::instance().queue(request);
    return request;
}

Zn::Ptr<FileReadInstance> PreOpenRequest::getFile() const {
    return getState() == kOpen ? file_ : Zn::Ptr<FileReadInstance>();
}

void PreOpenRequest::finish(Zn::Ptr<FileReadInstance> file) {
    const bool open = bool(file);
    file_ = std::move(file);
    state_.store(open ? kOpen : kFailed, std::memory_order_release);
}

unsigned FilePreOpen::workersFor(int setting, unsigned hostCount) noexcept {
    unsigned wanted = setting > 0 ? unsigned(setting) : 1u;
    return std::max(1u, std::min(wanted, hostCount));
}

FilePreOpen::FilePreOpen() {
    // The cache is made first so that it is destroyed after this queue at process exit:
    // the workers open files through it until the queue has ended.
    PlayFileCache::Shared();
    init(workersFor(PlayfileConfig::numReaderThreads(), OS()->processorCount()), kPriorityAboveNormal,
         DecouplingQueue<PreOpenRequest>::Decoupler::kKeepProcessPriority, 0, kShutdownLevel, iThreadEvent::kInfinite);
}

FilePreOpen::~FilePreOpen() { endQueue(); }

FilePreOpen& FilePreOpen::instance() {
    static FilePreOpen single;
    return single;
}

void FilePreOpen::despatch(Zn::Ptr<PreOpenRequest>& request) {
    Zn::Ptr<TimedTask> task = TimedTaskManager::instance().createTimedTask("Preopen");
    task->step("open");
    request->finish(PlayFileCache::Shared().open(request->getCookie(), request->getFormat(), 0));
    task->end();
}

void FilePreOpen::abandon(Zn::Ptr<PreOpenRequest>& request) { request->finish(nullptr); }

bool FilePreOpen::queue(const Zn::Ptr<PreOpenRequest>& request) {
    DecouplingQueue<PreOpenRequest>* q = getQueue();
    if (q && q->push(request)) return true;
    request->finish(nullptr);
    return false;
}

unsigned FilePreOpen::workerCount() const noexcept {
    DecouplingQueue<PreOpenRequest>* q = getQueue();
    return q ? q->workerCount() : 0;
}

} // namespace Zn
