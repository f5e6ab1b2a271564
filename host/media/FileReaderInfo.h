// The host's registry of file readers (decoder back-ends that open media files for
// reading). Readers are kept in an ordered list: opening a file tries them from index 0,
// so the registration order is the order of preference. Back-ends register at start (or a
// test registers its own); the library reaches the list through getNumFileReaders and
// getFileReaders(index).
//
// The reader interface names library classes (FileReadInstance, OpenType) only by
// declaration: the host never opens a file itself, it only keeps the list.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/core/Registry.h"
#include "host/media/OpenOutcome.h"

#include <cstdint>
#include <vector>

class DecodeFormat;
class FileReadInstance;
class OpenType;
class PlayFileMetadataRep;
namespace Aud {
class Metadata;
}

namespace Zn {

// What a reader's capability query tells about a file besides the capability bits.
struct ReaderDetails {
    String codec;       // the video (or else audio) codec's short name
    String container;   // the container format's short name
    uint32_t videoStreams = 0;
    uint32_t audioStreams = 0;
    String notes;       // anything the reader wants a person to see ("long-GOP", "intra")
};

// Visible from every module whatever the visibility it is compiled with: its default
// openFile, and so its vtable and type information, live in libplayfile, which hides what
// it does not mark.
class __attribute__((visibility("default"))) iFileReader : public iObject {
public:
    // Printed in log lines.
    virtual String name() const = 0;
    // A cheap test (usually by name or by the first bytes) whether this reader may open
    // the file for the access asked for.
    virtual bool accepts(const WString& fileName, OpenType type) = 0;
    // Opens the file; null when it cannot. May throw: callers catch, log and go on to the
    // next reader.
    virtual Zn::Ptr<FileReadInstance> open(const DecodeFormat& format, const WString& fileName, OpenType type) = 0;

    // What an open answered: the instance, or why there is none.
    struct Opened {
        Zn::Ptr<FileReadInstance> file;
        eOpenOutcome outcome = eOpenOutcome::kFileFault;
    };
    // Opens the file as open does, and says why when it cannot. Readers that can tell a
    // passing failure (no descriptor or memory left, a storage error) from a file at fault
    // override it. The default calls open and puts any failure on the file; it is defined
    // with the library's open path (PlayUtil.cpp), where FileReadInstance is known.
    virtual Opened openFile(const DecodeFormat& format, const WString& fileName, OpenType type);
    // The OpenType bits (1 video, 2 audio) this reader can serve for a file with this
    // metadata and audio stream, filling details.
    virtual unsigned capabilities(const DecodeFormat& format, OpenType type, const PlayFileMetadataRep& metadata,
                                  const Aud::Metadata& stream, ReaderDetails& details) = 0;
};

// The list is a Registry: a leaf lock held only to copy or edit it; readers are called
// without it, through references taken under it.
class FileReaderInfo {
public:
    static unsigned getNumFileReaders();
    // The reader at index, null when index is past the end.
    static Zn::Ptr<iFileReader> getFileReaders(uint8_t index);
    // Inserts a reader at position (appends when position is past the end or negative).
    static void registerFileReader(Zn::Ptr<iFileReader> reader, int position = -1);
    static bool unregisterFileReader(const Zn::Ptr<iFileReader>& reader);
    // Every reader, in order, as one consistent copy.
    static std::vector<Zn::Ptr<iFileReader>> getAll();

private:
    static Registry<iFileReader>& registry();
};

} // namespace Zn
