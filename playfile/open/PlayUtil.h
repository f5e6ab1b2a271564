// PlayUtil: the long-standing names of the free operations on media files, kept for the
// callers that use them. Each only forwards to the class that does the work
// (Forwarders.cpp): ReaderChoice opens files for reading, PlayFileWriter writes new play
// files, MaterialDeletion deletes a clip's material files and ClipMedia answers questions
// about a clip's media.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/media/DecodeFormat.h"
#include "host/media/FileReaderInfo.h"
#include "host/media/FileWriterInfo.h"
#include "host/media/MemHolder.h"
#include "host/media/PlayFileMetadataRep.h"
#include "host/media/RequestStatus.h"
#include "playfile/Export.h"
#include "playfile/open/MediaTypes.h"
#include "playfile/open/OpenType.h"

#include <cstddef>

class CapturePacket;
class FileReadInstance;

class PLAYFILE_API PlayUtil {
public:
    // Forwarders to ReaderChoice: open, openChecked, open(material) and typeOf.
    static Zn::Ptr<FileReadInstance> openRead(const WString& fileName, const DecodeFormat& format, OpenType type,
                                              unsigned streamIndex);
    static Zn::iFileReader::Opened openReadChecked(const WString& fileName, const DecodeFormat& format,
                                                   OpenType type, unsigned streamIndex);
    static Zn::Ptr<FileReadInstance> openRead(const Cookie& material, const DecodeFormat& format,
                                              unsigned streamIndex);
    static OpenType getType(const Cookie& cookie);

    // Forwarders to ClipMedia (of the process's cache): checkImageData,
    // checkAudioMetadata and totalSize.
    static bool checkImageData(const Cookie& cookie, const PlayFileMetadataRep& metadata);
    static bool checkAudioMetadata(const Cookie& cookie);
    static void get_total_size(const Cookie& material, size_t* total);

    // Forwarders to PlayFileWriter: open, writeVideoSample and writeAudioSamples.
    static Zn::Ptr<Zn::FileWriteInstance> openWrite(const WString& fileName, Zn::FileWriterParams& params);
    static int ZnVideoSample_write(Zn::Ptr<Zn::FileWriteInstance>& writer, int sampleId,
                                   Zn::Ptr<CapturePacket>& packet, void (*done)(RequestStatus));
    static int ZnAudioSamples_write(Zn::Ptr<Zn::FileWriteInstance>& writer, Zn::Ptr<iMemHolder>& samples,
                                    void (*done)(RequestStatus));

    // Forwarders to MaterialDeletion: deleteMaterial and deleteClipMaterial.
    static int deletePlayFile(const Cookie& cookie, eMediaTypes types);
    static int delete_material_files(Cookie cookie, eMediaTypes types);
};
