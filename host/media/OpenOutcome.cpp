// Telling a passing failure from a file at fault.
#include "host/media/OpenOutcome.h"

#include <cerrno>

eOpenOutcome openOutcomeOfErrno(int error) noexcept {
    switch (error) {
    case EMFILE:
    case ENFILE: return eOpenOutcome::kNoDescriptors;
    case ENOMEM: return eOpenOutcome::kNoMemory;
    case EIO:
    case ETIMEDOUT:
    case ESTALE:
    case EAGAIN:
    case ENOLINK:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ENETDOWN:
    case ENETUNREACH:
    case ECONNRESET:
    case ECONNABORTED: return eOpenOutcome::kStorageFailed;
    default: return eOpenOutcome::kFileFault;
    }
}

bool isPassing(eOpenOutcome outcome) noexcept {
    return outcome == eOpenOutcome::kNoDescriptors || outcome == eOpenOutcome::kNoMemory ||
           outcome == eOpenOutcome::kStorageFailed;
}

const char* asString(eOpenOutcome outcome) noexcept {
    switch (outcome) {
    case eOpenOutcome::kOpened: return "opened";
    case eOpenOutcome::kFileFault: return "the file cannot be read";
    case eOpenOutcome::kNoDescriptors: return "too many open files";
    case eOpenOutcome::kNoMemory: return "out of memory";
    case eOpenOutcome::kStorageFailed: return "the storage failed";
    }
    return "?";
}
