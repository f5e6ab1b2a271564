#include "playfile/open/ReaderChoice.h"

#include "host/core/Strings.h"
#include "host/media/AudioMetadata.h"
#include "host/media/FileReaderInfo.h"
#include "host/os/FileManager.h"
#include "host/os/Log.h"
#include "host/os/OS.h"
#include "host/project/SystemCache.h"
#include "host/threads/TimedTask.h"
#include "playfile/open/FileReadInstance.h"

#include <algorithm>
#include <exception>
#include <new>
#include <vector>

namespace {

// Every open is timed under one task. Never released: files may be opened while the
// process exits.
TimedTask& openTask() {
    static TimedTask* task = TimedTaskManager::instance().getTimedTask("PlayUtil").release();
    return *task;
}

// Readers are plug-ins: whatever one throws is its own failure, never the caller's.
bool readerAccepts(Zn::iFileReader& reader, const WString& name, OpenType type) {
    try {
        return reader.accepts(name, type);
    } catch (...) {
        return false;
    }
}

Zn::iFileReader::Opened readerOpens(Zn::iFileReader& reader, const DecodeFormat& format, const WString& name,
                                    OpenType type) {
    try {
        Zn::iFileReader::Opened opened = reader.openFile(format, name, type);
        if (opened.file) opened.outcome = eOpenOutcome::kOpened;
        else if (opened.outcome == eOpenOutcome::kOpened) opened.outcome = eOpenOutcome::kFileFault;
        return opened;
    } catch (const std::bad_alloc&) {
        LogBoth("Exception opening \"%s\"\n", toUTF8(name).c_str());
        return {nullptr, eOpenOutcome::kNoMemory};
    } catch (...) {
        LogBoth("Exception opening \"%s\"\n", toUTF8(name).c_str());
        return {};
    }
}

unsigned readerCapabilities(Zn::iFileReader& reader, const DecodeFormat& format, OpenType type,
                            const PlayFileMetadataRep& metadata, const Aud::Metadata& stream) {
    try {
        Zn::ReaderDetails details;
        return reader.capabilities(format, type, metadata, stream, details);
    } catch (...) {
        return 0;
    }
}

const Aud::Metadata& streamMetadata(const PlayFileMetadataRep& metadata, unsigned streamIndex) {
    static const Aud::Metadata none;
    const auto& streams = metadata.getAudioMetadata();
    return streamIndex < streams.size() ? streams[streamIndex] : none;
}

// What only the reader that first opened the file found out: a reader chosen later for
// its access may not look at the same parts of the file.
void carryOver(const PlayFileMetadataRep& from, PlayFileMetadataRep& to) {
    if (!to.isLabelValid() && from.isLabelValid()) to.setLabel(from.getLabel());
    if (to.getStartTimecode() == 0) to.setStartTimecode(from.getStartTimecode());
    if (to.getOrientation() != from.getOrientation()) to.setOrientation(from.getOrientation());
    if (!to.hasStillImage() && from.hasStillImage()) to.setStillImage(from.getStillImage());
    if (!to.getFrameRate().valid() && from.getFrameRate().valid()) to.setFrameRate(from.getFrameRate());
    FrameSizes sizes;
    sizes.typical = from.getFrameSizes().typical;
    sizes.largest = std::max(from.getFrameSizes().largest, to.getFrameSizes().largest);
    to.setFrameSizes(sizes);
}

} // namespace

Zn::iFileReader::Opened Zn::iFileReader::openFile(const DecodeFormat& format, const WString& fileName, OpenType type) {
    Opened opened;
    opened.file = open(format, fileName, type);
    opened.outcome = opened.file ? eOpenOutcome::kOpened : eOpenOutcome::kFileFault;
    return opened;
}

Zn::Ptr<FileReadInstance> ReaderChoice::open(const WString& fileName, const DecodeFormat& format, OpenType type,
                                             unsigned streamIndex) {
    return openChecked(fileName, format, type, streamIndex).file;
}

Zn::iFileReader::Opened ReaderChoice::openChecked(const WString& fileName, const DecodeFormat& format, OpenType type,
                                                  unsigned streamIndex) {
    TimedActivity activity(Zn::Ptr<TimedTask>(&openTask()), "openRead");
    const WString mounted = OS()->fileManager()->mapMountedName(fileName);
    const std::vector<Zn::Ptr<Zn::iFileReader>> readers = Zn::FileReaderInfo::getAll();

    // First open: the first reader in registry order that accepts and opens the file.
    // A reader that failed for a passing reason says nothing about the file.
    Zn::Ptr<FileReadInstance> first;
    Zn::iFileReader* opener = nullptr;
    eOpenOutcome failure = eOpenOutcome::kFileFault;
    for (const auto& reader : readers) {
        if (!readerAccepts(*reader, mounted, type)) continue;
        Zn::iFileReader::Opened opened = readerOpens(*reader, format, fileName, type);
        if (opened.file) {
            first = std::move(opened.file);
            opener = reader.get();
            break;
        }
        if (isPassing(opened.outcome)) failure = opened.outcome;
    }
    if (!first) {
        LogBoth("PlayUtil::openRead() : failed to open \"%s\"\n", toUTF8(fileName).c_str());
        return {nullptr, failure};
    }

    // The reader that serves the file: the opener when it can serve all of type, else the
    // first reader in registry order that can, if it opens the file.
    Zn::Ptr<FileReadInstance> chosen = first;
    Zn::iFileReader* server = opener;
    const Aud::Metadata& stream = streamMetadata(*first->getMetadata(), streamIndex);
    unsigned caps = readerCapabilities(*opener, format, type, *first->getMetadata(), stream);
    first->setCapabilities(caps);
    if (!OpenType(caps).hasAll(type)) {
        for (const auto& reader : readers) {
            unsigned c = readerCapabilities(*reader, format, type, *first->getMetadata(), stream);
            if (!OpenType(c).hasAll(type)) continue;
            if (reader.get() == opener) break;
            // The '%' before the quote is part of the line as it has always been logged; it
            // is printed through "%%", a valid conversion.
            LogBoth("reopen %%\"%s\" with %s for %s\n", toUTF8(fileName).c_str(), reader->name().c_str(),
                    OpenType::asString(type));
            Zn::Ptr<FileReadInstance> again = readerOpens(*reader, format, fileName, type).file;
            if (!again) continue;
            again->setCapabilities(c);
            chosen = again;
            server = reader.get();
            break;
        }
    }

    if (chosen->getCapabilities() & uint32_t(type)) {
        LogBoth("Open \"%s\" with %s for %s\n", toUTF8(fileName).c_str(), server->name().c_str(),
                OpenType::asString(type));
    } else {
        LogBoth("PlayUtil::openRead() : failed to open \"%s\"\n", toUTF8(mounted).c_str());
    }
    if (chosen != first) carryOver(*first->getMetadata(), *chosen->getMetadata());
    return {chosen, eOpenOutcome::kOpened};
}

Zn::Ptr<FileReadInstance> ReaderChoice::open(const Cookie& material, const DecodeFormat& format, unsigned streamIndex) {
    return open(SystemCache::findFileForCookie(material), format, typeOf(material), streamIndex);
}

OpenType ReaderChoice::typeOf(const Cookie& material) {
    switch (material.type()) {
    case 'S': return OpenType::kAudio;
    case 'V': return OpenType::kVideo;
    default: return OpenType::kNone;
    }
}
