// iVariableFrameRateHandler: what a decoder back-end tells a streaming reader about a file
// whose frames are not stored in groups of one fixed size: for a frame, the run of frames
// that is decoded together with it. Long-GOP video with groups of varying length (or
// without fixed groups at all) answers this from its own frame index.
#pragma once

#include "host/core/RefCount.h"

#include <cstdint>

class iVariableFrameRateHandler : public iObject {
public:
    // The half-open range [first, end) of frames to decode together with frame. The
    // answer must contain frame; a caller clamps what it is given to valid frames.
    virtual void getFrameRange(uint32_t frame, int64_t& first, int64_t& end) = 0;
};
