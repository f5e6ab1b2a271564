// PlayFileWriter: writing a new play file through the host's registered writers: making
// the writer for a file, and handing it video frames and blocks of audio in order.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/media/FileWriterInfo.h"
#include "host/media/MemHolder.h"
#include "host/media/RequestStatus.h"
#include "playfile/Export.h"

class CapturePacket;

class PLAYFILE_API PlayFileWriter {
public:
    // A new file written by the first registered writer that accepts params; null when
    // none does or its create fails.
    static Zn::Ptr<Zn::FileWriteInstance> open(const WString& fileName, Zn::FileWriterParams& params);
    // Writes video frame sampleId, which must be the next one (the count of frames written
    // so far): else "Bad sample ID %d" is logged and 0 returned without writing. While the
    // writer has more than 32 frames pending, waits in 100 ms steps, giving up after 49
    // waits. done (may be null) hears Complete or Failed. 1 when the frame was taken.
    // Called on the caller's thread (one writer per thread); takes no lock of its own.
    static int writeVideoSample(Zn::Ptr<Zn::FileWriteInstance>& writer, int sampleId, Zn::Ptr<CapturePacket>& packet,
                                void (*done)(RequestStatus));
    // Writes a block of audio; the writer calls done. On 1, the block's whole sample
    // frames are added to the audio frames written.
    static int writeAudioSamples(Zn::Ptr<Zn::FileWriteInstance>& writer, Zn::Ptr<iMemHolder>& samples,
                                 void (*done)(RequestStatus));
};
