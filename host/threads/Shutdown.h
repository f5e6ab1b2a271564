// Shutdown: the host's shutdown sequence. Components register a callback at a level when
// they start (often from a static initialiser); the host runs the sequence once when the
// application exits, calling the callbacks from the lowest level up.
#pragma once

#include "host/core/RefCount.h"
#include "host/threads/PlainMutex.h"

#include <cstdint>
#include <vector>

class Shutdown {
public:
    // How the process is leaving.
    //   eNormalExit: an orderly exit. Callbacks flush and close what they own, stop and
    //                join their threads and release their resources.
    //   eFastExit:   the process is about to end at once (a forced quit, or exit after a
    //                fatal error). Callbacks only undo what would outlive the process
    //                (temporary files, lock files other processes would see) and must not wait for
    //                threads or I/O that may never finish; memory need not be freed.
    enum eExitType { eNormalExit, eFastExit };

    // Suggested levels: lower levels run first. Work that still needs the others' services
    // (stopping background work that uses files) goes early; the services go late.
    enum : unsigned { kLevelEarly = 100, kLevelNormal = 500, kLevelLate = 900 };

    class iCallback : public iObject {
    public:
        virtual void shutdown(eExitType type) = 0;
    };

    // Calls obj->fn(type). It holds a plain pointer: the object must remove the callback
    // (or outlive the sequence).
    template <class T> class MethodCallback final : public iCallback {
    public:
        using Method = void (T::*)(eExitType);
        MethodCallback(T* obj, Method fn) noexcept : obj_(obj), fn_(fn) {}
        void shutdown(eExitType type) override { (obj_->*fn_)(type); }

    private:
        T* obj_;
        Method fn_;
    };

    // Identifies a registration; 0 is never a valid one.
    using Handle = uint64_t;

    // One shutdown sequence. The process has one (the static functions below); tests and
    // subsystems with a shutdown of their own may make more.
    //
    // mutex_ guards entries_, nextSeq_, ran_ and finished_. Callbacks are always called with it
    // released, so a callback may add or remove callbacks. It is taken with no other lock
    // of this class held; callers may hold their own locks when registering, but not a
    // lock that a callback takes.
    class Sequence {
    public:
        constexpr Sequence() noexcept = default;
        Sequence(const Sequence&) = delete;
        Sequence& operator=(const Sequence&) = delete;

        // Registers cb to run at level. Registration during run is accepted: the callback
        // is called in the same run, in level order among those still waiting. After run
        // has finished nothing is kept and 0 is returned.
        Handle addCallback(Zn::Ptr<iCallback> cb, unsigned level);
        // True if the callback was still waiting to be called (it now will not be).
        bool removeCallback(Handle h);
        // Calls every callback once: ascending levels, and within a level the latest
        // registered first (the reverse of construction, as for static objects). Only the
        // first call does anything; a concurrent or later call returns at once. An
        // exception from a callback is reported on stderr and the sequence goes on.
        void run(eExitType type);
        bool hasRun() const;
        size_t pendingCount() const;

    private:
        struct Entry {
            Zn::Ptr<iCallback> cb;
            unsigned level;
            Handle handle; // also the registration order
        };
        mutable PlainMutex mutex_;
        std::vector<Entry> entries_ GUARDED_BY(mutex_);
        Handle nextSeq_ GUARDED_BY(mutex_) = 1;
        bool ran_ GUARDED_BY(mutex_) = false;
        bool finished_ GUARDED_BY(mutex_) = false;
    };

    // The process's sequence. Usable from static initialisation on and never destroyed.
    static Sequence& process() noexcept;

    static Handle addCallback(Zn::Ptr<iCallback> cb, unsigned level) {
        return process().addCallback(std::move(cb), level);
    }
    template <class T> static Handle addCallback(T* obj, void (T::*fn)(eExitType), unsigned level) {
        return process().addCallback(Zn::Ptr<iCallback>(new MethodCallback<T>(obj, fn)), level);
    }
    static bool removeCallback(Handle h) { return process().removeCallback(h); }
    static void run(eExitType type) { process().run(type); }
    static bool hasRun() { return process().hasRun(); }
};
