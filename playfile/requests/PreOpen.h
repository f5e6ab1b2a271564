// Background pre-opening: a client that will soon read a clip asks for its file to be
// opened ahead of need (Zn::PreOpenRequest::create). A file already open in the play file
// cache answers at once; otherwise Zn::FilePreOpen, a process-wide queue with a few worker
// threads, opens it through the cache, where the later real open finds it.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/RefCount.h"
#include "host/media/DecodeFormat.h"
#include "ole/Zn/ZnDecouplingQueue.h"
#include "playfile/Export.h"

#include <atomic>
#include <cstdint>

class FileReadInstance;

namespace Zn {

// Threads: the state is written once (0 to 2 or 3) by the thread that finishes the request,
// after the file; a reader that sees 2 sees the file. The other fields never change.
class PLAYFILE_API PreOpenRequest : public iObject {
public:
    enum eState : uint32_t {
        kWaiting = 0,
        kOpen = 2,   // getFile() holds the open file
        kFailed = 3, // the file could not be opened (or the queue had ended)
    };

    // Asks for the material's file to be opened; see the file's opening comment.
    static Zn::Ptr<PreOpenRequest> create(const Cookie& material, const DecodeFormat& format);

    const Cookie& getCookie() const noexcept { return cookie_; }
    const DecodeFormat& getFormat() const noexcept { return format_; }
    uint32_t getState() const noexcept { return state_.load(std::memory_order_acquire); }
    bool isDone() const noexcept { return getState() != kWaiting; }
    // The open file once the state is kOpen; null before and on failure.
    Zn::Ptr<FileReadInstance> getFile() const;

private:
    friend class FilePreOpen;
    PreOpenRequest(const Cookie& material, const DecodeFormat& format);
    void finish(Zn::Ptr<FileReadInstance> file);

    const Cookie cookie_;
    const DecodeFormat format_;
    Zn::Ptr<FileReadInstance> file_;
    std::atomic<uint32_t> state_{kWaiting};
};

// The process's pre-open queue: made on first use (playfile_init makes it), ended at the
// host's shutdown step 401 or at process exit. It has the smaller of "numReaderThreads" and
// the processor count of workers; each opens one file at a time through the play file
// cache, which makes opens of different files run in parallel and of one file once.
class PLAYFILE_API FilePreOpen : public DecouplingQueue<PreOpenRequest>::Decoupler {
public:
    static constexpr unsigned kShutdownLevel = 401;

    static FilePreOpen& instance();
    ~FilePreOpen() override;

    // Opens the request's file through the play file cache, on a worker.
    void despatch(Zn::Ptr<PreOpenRequest>& request) override;
    // A request that the ended queue will not open fails.
    void abandon(Zn::Ptr<PreOpenRequest>& request) override;

    // Queues a request; false (and the request failed) once the queue has ended.
    bool queue(const Zn::Ptr<PreOpenRequest>& request);
    unsigned workerCount() const noexcept;
    // The workers made for a setting and the host's processor count: the smaller.
    static unsigned workersFor(int setting, unsigned hostCount) noexcept;

private:
    FilePreOpen();
};

} // namespace Zn
