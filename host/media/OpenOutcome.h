// How an open of a media file ended, as a reader reports it to the library: the file is
// open, the file itself is at fault (no reader takes it, its data is damaged), or the
// system failed for a reason that passes (no descriptor or memory left, a storage error or
// time-out, as network file systems give them). The play file cache remembers only the
// file's own faults.
#pragma once

#include <cstdint>

enum class eOpenOutcome : uint8_t {
    kOpened,
    kFileFault,     // no reader takes the file, or its data is damaged
    kNoDescriptors, // the process or the system has no file descriptor left (EMFILE, ENFILE)
    kNoMemory,      // ENOMEM
    kStorageFailed, // the storage failed for now (EIO, ETIMEDOUT, ESTALE, EAGAIN...)
};

// The outcome of a failed system call's errno; 0 and errno values that say nothing
// passing (EACCES, EINVAL...) put the fault on the file.
eOpenOutcome openOutcomeOfErrno(int error) noexcept;
// True for the outcomes that say nothing about the file: trying again later may work.
bool isPassing(eOpenOutcome outcome) noexcept;
const char* asString(eOpenOutcome outcome) noexcept;
