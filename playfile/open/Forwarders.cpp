// The long-standing names of operations that now live in classes of their own, kept for
// the callers that use them. Each only forwards to the class that does the work.
#include "playfile/open/ClipMedia.h"
#include "playfile/open/PlayFileCache.h"

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
