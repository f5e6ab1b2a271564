// FileXferSpec: one extraction, a time section of a source material file (sound or vision)
// written as a new material file on a destination drive. The host fills the fields and calls
// get_extract, which converts the section from seconds to sample or frame numbers, checks
// it against the source (opened through the play file cache), hands the writing to the
// first file-transfer plug-in that accepts it and registers the new file with the project.
//
// Not thread-safe: one extraction is driven by one thread; the plug-in it calls reads the
// description on that thread too.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/core/configb.h"
#include "host/media/FileXferManager.h"
#include "host/media/ShotVideoMetadata.h"
#include "host/project/DriveId.h"
#include "playfile/Export.h"

#include <cstdint>

class LoggerHandle;

class PLAYFILE_API FileXferSpec {
public:
    // get_extract's results beside the plug-in's own.
    static constexpr eExtractResult kExtractFailed = eExtractResult::eExtractFailed;
    static constexpr eExtractResult kExtractDone = eExtractResult::eExtractDone;
    static constexpr eExtractResult kExtractInterrupted = eExtractResult::eExtractInterrupted;
    static constexpr eExtractResult kEmptySection = eExtractResult::eEmptySection;

    // The destination drive is the one the project gives rendered material.
    FileXferSpec();

    // Performs the extraction. kExtractDone when the new file is made and registered, and
    // also when the section starts before the source (nothing is done: the caller pads
    // with black); kEmptySection for an empty or reversed section; kExtractInterrupted
    // when interrupted; kExtractFailed (or a plug-in's own non-zero code) on failure.
    eExtractResult get_extract(LoggerHandle& log);
    // Fills firstSample and endSample from the section by the source's type letter; 1, or
    // 0 for a letter that is neither 'V' nor 'S'.
    int get_extract_samples();
    // The section in frames at the video metadata's frame rate; answers endSample.
    int32_t get_vision_samples();
    // The section in samples at the source edit's audio sample rate; answers endSample.
    int32_t get_sound_samples();
    // The audio sample rate of the clip the material belongs to; 0 when there is none.
    static unsigned get_soundfile_sample_rate(const Cookie& material);
    // The first plug-in of resource type 32 that accepts this extraction; null if none.
    Zn::Ptr<iFileXferManager> getOurFileXferManager() const;

    // For plug-ins: stores the destination's play header, in the project and as the
    // sidecar "<base>.hdr" beside newFile (the new file's OS path). A sound header takes the
    // file's sample rate and bytes per sample; a vision header the video metadata. False
    // when it cannot be stored.
    bool storeDestinationHeader(const WString& newFile, double sampleRate = 0, int bytesPerSample = 0) const;

    ShotVideoMetadata videoMetadata; // picture format and frame rate of a vision extraction
    int32_t marker = -1;
    configb settings;       // options for the transfer plug-in
    Cookie source;          // material to extract from: 'S' sound or 'V' vision
    Cookie destination;     // material to create
    double start = 0.0;     // section start, seconds from the source's start
    double end = 0.0;       // section end, seconds
    DriveId destinationDrive;
    int64_t firstSample = 0; // computed: first sample or frame of the section
    int32_t endSample = 0;   // computed: end sample or frame (exclusive)
    // Set by get_extract once the source is open: the file the plug-in reads.
    WString sourceFile;
};
