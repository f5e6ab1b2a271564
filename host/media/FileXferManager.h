// iFileXferManager: the contract of a file-transfer plug-in, the service that writes a
// section of a material file as a new material file (an extraction). Plug-ins hand their
// managers to the host as plug-in resources of type 32 (Zn::kFileXferPluginResource, see
// PluginResources.h); the library asks each in turn whether it takes an extraction and
// lets the first that does perform it.
//
// The extraction itself is described by the library's FileXferSpec, which the host only
// passes through: source and destination material, the section in samples or frames, the
// destination drive.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"

class FileXferSpec;
class LoggerHandle;

// How an extraction ended, from the plug-in, the library's extraction or a back-end asked
// to extract. Any other value is a failure of the plug-in's own, passed on as it is.
enum class eExtractResult : int {
    eExtractFailed = 0,          // nothing was written
    eExtractDone = 1,            // the new file is in place under its material name
    eExtractInterrupted = 3,     // the task was cancelled; nothing was written
    eExtractNotSupported = 2005, // the back-end has no extraction of its own
    eEmptySection = 2059,        // the section is empty or reversed; nothing was done
};

class iFileXferManager : public virtual iObject {
public:
    using enum eExtractResult;

    // A name for log lines ("FFmpeg transfer").
    virtual WString getName() const = 0;
    // Whether this manager can perform the extraction (its source it can read, its kind of
    // material it can write). Cheap enough to ask of every plug-in in turn.
    virtual bool acceptsExtraction(const FileXferSpec& xfer) = 0;
    // Writes the section as the destination material's file on the destination drive, with
    // progress through the logger and cancellation through the status of the task that
    // runs it. A failed or interrupted extraction leaves no file behind. The caller
    // registers the new file with the project. Answers eExtractFailed, eExtractDone,
    // eExtractInterrupted or a failure of its own.
    virtual eExtractResult extract(const FileXferSpec& xfer, LoggerHandle& log) = 0;
};
