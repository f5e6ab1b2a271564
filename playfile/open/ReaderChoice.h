// ReaderChoice: opening a media file for reading through the host's registered readers,
// choosing the one best suited to the access wanted, and the access a clip's material is
// read with.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/media/DecodeFormat.h"
#include "host/media/FileReaderInfo.h"
#include "playfile/Export.h"
#include "playfile/open/OpenType.h"

class FileReadInstance;

class PLAYFILE_API ReaderChoice {
public:
    // Opens fileName for the access in type: the registered readers are tried in order
    // until one opens it; if that reader cannot serve all of type for this file (its audio
    // stream streamIndex), the file is opened again with the first reader that can. The
    // line "Open ..." or "PlayUtil::openRead() : failed to open ..." is logged. Null when
    // no reader opened the file. Holds no lock; readers are called on the calling thread.
    static Zn::Ptr<FileReadInstance> open(const WString& fileName, const DecodeFormat& format, OpenType type,
                                          unsigned streamIndex);
    // The same, saying why there is no instance when there is none: a passing failure
    // when any reader failed for a passing reason, else the file's fault.
    static Zn::iFileReader::Opened openChecked(const WString& fileName, const DecodeFormat& format, OpenType type,
                                               unsigned streamIndex);
    // The same for a material cookie's file, with the cookie's open type. It does not go
    // through the play file cache, so every call opens the file anew.
    static Zn::Ptr<FileReadInstance> open(const Cookie& material, const DecodeFormat& format, unsigned streamIndex);

    // The access a material cookie is read with: 'V' video, 'S' audio, anything else none.
    static OpenType typeOf(const Cookie& material);
};
