// PlayFile: the part of an open media file that every kind of file has: an identity
// stamp, the full file name as opened, and the file's metadata. FileReadInstance builds on
// it; a back-end may answer the two queries here when its files have a frame index or do
// not start at frame 0.
#pragma once

#include "host/core/IdStamp.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/media/IndexInfoRep.h"
#include "host/media/PlayFileMetadataRep.h"
#include "playfile/Export.h"

// iObject is a virtual base, so that a reader may also derive from another host object
// (StreamingDecodeReader is a BasicThread too) and still be one object to Zn::Ptr.
class PLAYFILE_API PlayFile : public Identified, public virtual iObject {
public:
    // Creates the metadata for the file name; the back-end fills it while opening.
    explicit PlayFile(const WString& fileName);
    ~PlayFile() override;
    PlayFile(const PlayFile&) = delete;
    PlayFile& operator=(const PlayFile&) = delete;

    // The frame index entry of a frame, for back-ends that keep one. The base leaves
    // index as it is (normally null), which callers treat as "no index".
    virtual void ZnFileIxCache_open(Zn::Ptr<IndexInfoRep>& index, unsigned frame);
    // The number of the file's first frame; the base answers 0.
    virtual unsigned getVideoOrigin() const;

    const WString& getFileName() const noexcept { return fileName_; }
    const Zn::Ptr<PlayFileMetadataRep>& getMetadata() const noexcept { return metadata_; }

private:
    const WString fileName_;
    const Zn::Ptr<PlayFileMetadataRep> metadata_;
};
