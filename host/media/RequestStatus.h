// The status of a read or write request, and the kind of result a video request wants.
#pragma once

#include <cstdint>

// A scoped 32-bit enumeration whose values are fixed: they are what is stored and
// reported as a request's status.
enum class RequestStatus : int32_t {
    Queued = 0,     // created, waiting in a queue
    InProgress = 1, // taken from the pending list by a queue thread, read under way
    Complete = 2,   // read finished, result available
    Failed = 3,     // read or decode failed
};

// What a video request wants: zero leaves the frame as the file stores it (compressed
// frames stay compressed for a later decode), non-zero wants it decoded.
enum eResultType : int32_t {
    kResultCompressed = 0,
    kResultDecoded = 1,
};
