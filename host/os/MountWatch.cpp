// The cached mount table and its change notice.
#include "host/os/MountWatch.h"

#include "host/os/FileQueryScope.h"
#include "host/threads/PlainMutex.h"

#include <cerrno>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sys/statfs.h>
#include <unistd.h>

MountWatch& MountWatch::shared() {
    // Placement in static storage: never destroyed, so usable from code running at exit.
    alignas(MountWatch) static unsigned char storage[sizeof(MountWatch)];
    static MountWatch* watch = new (storage) MountWatch();
    return *watch;
}

MountWatch::MountWatch() {
    fd_ = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    // A child process reads its own mount table: the descriptor names the parent's, and
    // the child may move to a mount namespace of its own. The lock is held across the
    // fork so that the child never inherits it taken (taken in one handler and left in
    // another, which the thread-safety analysis cannot pair, so they are not analysed).
    ::pthread_atfork([]() NO_THREAD_SAFETY_ANALYSIS { shared().mutex_.lock(); },
                     []() NO_THREAD_SAFETY_ANALYSIS { shared().mutex_.unlock(); },
                     []() NO_THREAD_SAFETY_ANALYSIS {
                         MountWatch& w = shared();
                         w.forked_ = true;
                         w.mutex_.unlock();
                     });
}

void MountWatch::refreshLocked() {
    if (forked_) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
        loaded_ = false;
        forked_ = false;
    }
    // Within one query the table is checked once (FileQueryScope.h).
    if (loaded_ && !FileQueryScope::shouldCheckMounts()) return;
    if (loaded_ && fd_ >= 0) {
        pollfd p{fd_, POLLPRI, 0};
        int n;
        do {
            n = ::poll(&p, 1, 0);
        } while (n < 0 && errno == EINTR);
        if (n == 0) return; // nothing changed since the last reading
    }
    table_ = MountTable::current();
    network_.clear();
    loaded_ = true;
    ++generation_;
}

bool MountWatch::isNetworkDevice(dev_t device, const std::string& path) {
    PlainMutex::Lock lock(mutex_);
    refreshLocked();
    auto known = network_.find(device);
    if (known != network_.end()) return known->second;
    struct statfs fs;
    if (::statfs(path.c_str(), &fs) != 0) return false; // not kept: the path may come back
    bool network = isNetworkFsMagic((unsigned long)fs.f_type);
    if (!network && uint32_t(fs.f_type) == kFuseSuperMagic) {
        const MountEntry* mount = table_.mountOfDevice(device);
        network = mount && isNetworkFuse(*mount);
    }
    network_.emplace(device, network);
    return network;
}

std::string MountWatch::mountPointOf(const std::string& resolvedPath) {
    PlainMutex::Lock lock(mutex_);
    refreshLocked();
    const MountEntry* m = table_.mountHolding(resolvedPath);
    return m ? m->mountPoint : std::string();
}

uint64_t MountWatch::generation() {
    PlainMutex::Lock lock(mutex_);
    refreshLocked();
    return generation_;
}
