// The long-standing names of operations that now live in classes of their own, kept for
// the callers that use them. Each only forwards to the class that does the work.
#include "playfile/open/ClipMedia.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/open/MaterialDeletion.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/open/PlayFileWriter.h"
#include "playfile/open/PlayUtil.h"
#include "playfile/open/ReaderChoice.h"

// ---------------------------------------------------------------------------------------
// PlayFileCache: what the host does with a clip's media (ClipMedia)

void PlayFileCache::close(const Cookie& cookie, eMediaTypes types) { ClipMedia(*this).close(cookie, types); }

uint64_t PlayFileCache::getSampleCount(const Cookie& material) { return ClipMedia(*this).getSampleCount(material); }

void PlayFileCache::recalculateSize(const Cookie& clip, unsigned flags, unsigned& newSize) {
    ClipMedia(*this).recalculateSize(clip, flags, newSize);
}

Zn::Ptr<Zn::FileWriteInstance> PlayFileCache::create(const Cookie& cookie, Zn::FileWriterParams& params) {
    return ClipMedia(*this).create(cookie, params);
}

int PlayFileCache::renameMediaFile(const Cookie& from, const Cookie& to) {
    return ClipMedia(*this).renameMediaFiles(from, to);
}

int PlayFileCache::renameMediaFiles(const Cookie& from, const Cookie& to) {
    return ClipMedia(*this).renameMediaFiles(from, to);
}

int PlayFileCache::videoReadRequest(Zn::Ptr<VideoReadRequest>& request, const Cookie& material, int frame, bool,
                                    eResultType resultType, const DecodeFormat& format,
                                    Zn::Ptr<ReadRequestIssuer::Proxy> issuer) {
    return resultCode(ClipMedia(*this).videoReadRequest(request, material, frame, resultType, format, std::move(issuer)));
}

int PlayFileCache::audioReadRequest(Zn::Ptr<AudioReadRequest>& request, const Cookie& material, unsigned long sample,
                                    unsigned count, eProxyLevel proxyLevel, Zn::Ptr<ReadRequestIssuer::Proxy> issuer,
                                    bool noOffset) {
    return resultCode(
        ClipMedia(*this).audioReadRequest(request, material, sample, count, proxyLevel, std::move(issuer), noOffset));
}

uint32_t PlayFileCache::codecFrameReadLength(uint64_t sample, uint32_t count, int64_t frameSize) {
    return ClipMedia::codecFrameReadLength(sample, count, frameSize);
}

// ---------------------------------------------------------------------------------------
// PlayUtil: opening for reading (ReaderChoice)

Zn::Ptr<FileReadInstance> PlayUtil::openRead(const WString& fileName, const DecodeFormat& format, OpenType type,
                                             unsigned streamIndex) {
    return ReaderChoice::open(fileName, format, type, streamIndex);
}

Zn::iFileReader::Opened PlayUtil::openReadChecked(const WString& fileName, const DecodeFormat& format, OpenType type,
                                                  unsigned streamIndex) {
    return ReaderChoice::openChecked(fileName, format, type, streamIndex);
}

Zn::Ptr<FileReadInstance> PlayUtil::openRead(const Cookie& material, const DecodeFormat& format, unsigned streamIndex) {
    return ReaderChoice::open(material, format, streamIndex);
}

OpenType PlayUtil::getType(const Cookie& cookie) { return ReaderChoice::typeOf(cookie); }

// ---------------------------------------------------------------------------------------
// PlayUtil: questions about a clip's media (ClipMedia)

bool PlayUtil::checkImageData(const Cookie& cookie, const PlayFileMetadataRep& metadata) {
    return ClipMedia::checkImageData(cookie, metadata);
}

bool PlayUtil::checkAudioMetadata(const Cookie& cookie) { return ClipMedia().checkAudioMetadata(cookie); }

void PlayUtil::get_total_size(const Cookie& material, size_t* total) { ClipMedia::totalSize(material, total); }

// ---------------------------------------------------------------------------------------
// PlayUtil: writing play files (PlayFileWriter)

Zn::Ptr<Zn::FileWriteInstance> PlayUtil::openWrite(const WString& fileName, Zn::FileWriterParams& params) {
    return PlayFileWriter::open(fileName, params);
}

int PlayUtil::ZnVideoSample_write(Zn::Ptr<Zn::FileWriteInstance>& writer, int sampleId, Zn::Ptr<CapturePacket>& packet,
                                  void (*done)(RequestStatus)) {
    return PlayFileWriter::writeVideoSample(writer, sampleId, packet, done);
}

int PlayUtil::ZnAudioSamples_write(Zn::Ptr<Zn::FileWriteInstance>& writer, Zn::Ptr<iMemHolder>& samples,
                                   void (*done)(RequestStatus)) {
    return PlayFileWriter::writeAudioSamples(writer, samples, done);
}

// ---------------------------------------------------------------------------------------
// PlayUtil: deleting a clip's material files (MaterialDeletion)

int PlayUtil::deletePlayFile(const Cookie& cookie, eMediaTypes types) {
    return MaterialDeletion::deleteMaterial(cookie, types);
}

int PlayUtil::delete_material_files(Cookie cookie, eMediaTypes types) {
    return MaterialDeletion::deleteClipMaterial(cookie, types);
}
